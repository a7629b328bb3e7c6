// Settings read by the library and by a second reader.
//
// Input: a line each for the section, the key, the default ("-": none) and the size of the buffer; the rest is the
// file.
#include "IniModel.h"

namespace {

constexpr char kFile[] = "read.ini";
constexpr size_t kShortValue = 11; // characters of a number or a switch that count

struct Question {
    std::string section;
    std::string key;
    std::string defaultText;
    bool bDefault;
    unsigned int bytes;
    std::string content;

    const char* Default() const { return bDefault ? defaultText.c_str() : nullptr; }
};

Question Read(fuzz::Input& input) {
    Question question;
    question.section = fuzz::Cut(input.Line());
    question.key = fuzz::Cut(input.Line());
    question.defaultText = fuzz::Cut(input.Line());
    question.bDefault = question.defaultText != "-";
    question.bytes = input.Number() % 700;
    question.content = input.Rest();
    return question;
}

/// What a buffer of so many bytes, one at least, keeps of a text.
std::string Kept(const std::string& text, unsigned int bytes) {
    return text.substr(0, bytes - 1);
}

void CheckText(const Question& question, bool bFound, const std::string& value) {
    std::vector<char> buffer(question.bytes, 'x');
    buffer.reserve(1); // of no bytes it still has an address
    const int length = tq_GetINIFileString(question.section.c_str(), question.key.c_str(), question.Default(),
                                           buffer.data(), question.bytes, kFile);
    if (question.bytes == 0) {
        FUZZ_EQUAL(0, length);
        return;
    }
    const bool bEmptyValue = bFound && value.empty() && question.bytes >= 2; // is there all the same
    const bool bValue = bFound && (bEmptyValue || !Kept(value, question.bytes).empty());
    if (!bValue && !question.bDefault) {
        FUZZ_EQUAL(0, length);
        return;
    }
    const std::string expected = Kept(bValue ? value : question.defaultText, question.bytes);
    FUZZ_EQUAL(expected, std::string(buffer.data()));
    FUZZ_EQUAL(bEmptyValue ? 1 : static_cast<int>(expected.size()), length);
}

void CheckLength(const Question& question, bool bFound, const std::string& value) {
    const int length =
        tq_GetINIFileString(question.section.c_str(), question.key.c_str(), question.Default(), nullptr, 0, kFile);
    const bool bValue = bFound && !value.empty();
    FUZZ_EQUAL(static_cast<int>(bValue ? value.size() : question.bDefault ? question.defaultText.size() : 0), length);
}

int HexadecimalOf(const std::string& digits) {
    unsigned int value = 0;
    for (const char c : digits) {
        const int digit = c >= '0' && c <= '9'                           ? c - '0'
                          : ini::Lower(c) >= 'a' && ini::Lower(c) <= 'f' ? ini::Lower(c) - 'a' + 10
                                                                         : -1;
        value = digit < 0 ? value : value * 16 + static_cast<unsigned int>(digit);
    }
    return static_cast<int>(value);
}

int DecimalOf(const std::string& text) {
    size_t at = text.find_first_not_of(" \t\n\v\f\r");
    const bool bNegative = at != std::string::npos && text[at] == '-';
    at += at != std::string::npos && (text[at] == '-' || text[at] == '+') ? 1 : 0;
    long long value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = value * 10 + (text[at] - '0');
    }
    value = bNegative ? -value : value;
    return static_cast<int>(value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : value);
}

void CheckNumber(const Question& question, bool bFound, const std::string& value) {
    const std::string text = value.substr(0, kShortValue);
    const bool bHexadecimal = text.size() > 2 && text[0] == '0' && ini::Lower(text[1]) == 'x';
    const int number = bHexadecimal ? HexadecimalOf(text.substr(2)) : DecimalOf(text);
    FUZZ_EQUAL(bFound ? number : -7, tq_GetINIFileInt(question.section.c_str(), question.key.c_str(), -7, kFile));
}

void CheckSwitch(const Question& question, bool bFound, const std::string& value) {
    const std::string text = (bFound ? value : question.bDefault ? question.defaultText : "").substr(0, kShortValue);
    bool bOn = false;
    for (const char* pszWord : {"yes", "y", "true", "1"}) {
        bOn = bOn || ini::SameText(text, pszWord);
    }
    FUZZ_EQUAL(bOn,
               tq_GetINIFileAffirmative(question.section.c_str(), question.key.c_str(), question.Default(), kFile));
}

void CheckList(const Question& question, const std::vector<std::string>& pieces) {
    std::string all;
    std::string fitting;
    for (const std::string& piece : pieces) {
        if (piece.find('=') == std::string::npos) {
            continue;
        }
        const std::string name =
            ini::WithoutBlanksBefore(ini::WithoutEnd(piece.substr(0, piece.find('=')))) + std::string(1, '\0');
        all += name;
        fitting += fitting.size() + name.size() + 1 <= question.bytes ? name : "";
    }
    const auto counted = [](const std::string& names) {
        return static_cast<int>(names.empty() ? 0 : names.size() + 1);
    };
    FUZZ_EQUAL(counted(all), FindSectionKey(kFile, question.section.c_str(), nullptr, nullptr, 0));
    std::vector<char> buffer(question.bytes, 'x');
    buffer.reserve(1);
    const int length = FindSectionKey(kFile, question.section.c_str(), nullptr, buffer.data(), question.bytes);
    FUZZ_EQUAL(counted(fitting), length);
    if (length > 0) {
        FUZZ_EQUAL(fitting + std::string(1, '\0'), std::string(buffer.data(), static_cast<size_t>(length)));
    }
}

void OneInput(fuzz::Input input) {
    const Question question = Read(input);
    fuzz::WriteFile(kFile, question.content);
    std::vector<std::string> pieces;
    ini::Section(question.content, question.section, &pieces);
    std::string value;
    const bool bFound = ini::Value(question.content, question.section, question.key, &value);
    CheckText(question, bFound, value);
    CheckLength(question, bFound, value);
    CheckNumber(question, bFound, value);
    CheckSwitch(question, bFound, value);
    CheckList(question, pieces);
}

} // namespace

FUZZ_TARGET("", OneInput)
