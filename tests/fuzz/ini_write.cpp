// Settings written by the library; the file must be, byte for byte, what a second writer makes of it, and what was
// written must be what is read.
//
// Input: a line each for the section, the key and the value; the rest is the file before. A rest that begins with "!"
// stands for no file.
#include "IniModel.h"

namespace {

constexpr char kFile[] = "write.ini";
constexpr size_t kCopyPieceBytes = 510;
constexpr size_t kMostValue = 511; // of a value that is read back to be compared

struct Setting {
    std::string section;
    std::string key;
    std::string value;
};

std::string Line(const Setting& setting) {
    return "  " + setting.key + "=" + setting.value + "\r\n";
}

/// The text of a file after it has been copied in pieces, as texts.
std::string Copied(const std::string& content, size_t bytes) {
    std::string copy;
    for (const std::string& piece : ini::Pieces(content, bytes)) {
        copy += piece;
    }
    return copy;
}

/// Whether a new line may begin behind the header: the header's piece has used up its line.
bool HeaderEndsItsLine(const std::string& content, const std::string& section) {
    size_t at = 0;
    while (at < content.size()) {
        const size_t feed = content.find('\n', at);
        const size_t end = feed == std::string::npos ? content.size() : feed + 1;
        const size_t length = end - at < ini::kPieceBytes ? end - at : ini::kPieceBytes;
        if (ini::IsHeaderOf(fuzz::Cut(content.substr(at, length)), section)) {
            return content[at + length - 1] == '\n';
        }
        at += length;
    }
    return true;
}

std::string Rewritten(const std::string& content, const Setting& setting) {
    std::string out;
    bool bInside = false;
    bool bDone = false;
    bool bLineStart = HeaderEndsItsLine(content, setting.section);
    for (const std::string& piece : ini::Pieces(content)) {
        std::string old;
        if (!bInside || bDone) {
            out += piece;
            bInside = bInside || ini::IsHeaderOf(piece, setting.section);
        } else if (ini::IsHeader(piece)) {
            out += Line(setting) + "\r\n" + piece;
            bDone = true;
        } else if (ini::IsKey(piece, setting.key, &old)) {
            out += Line(setting);
            bDone = true;
        } else {
            out += piece;
            bLineStart = !piece.empty() && piece.back() == '\n';
        }
    }
    out += bDone ? "" : (bLineStart ? "" : "\r\n") + Line(setting);
    return Copied(out, kCopyPieceBytes);
}

std::string Expected(const std::string& content, const Setting& setting) {
    std::vector<std::string> pieces;
    if (!ini::Section(content, setting.section, &pieces)) {
        return content + "\r\n[" + setting.section + "]\r\n" + Line(setting);
    }
    std::string old;
    const bool bThere = ini::Value(content, setting.section, setting.key, &old);
    return bThere && old == setting.value.substr(0, kMostValue) && setting.value.size() <= kMostValue
               ? content
               : Rewritten(content, setting);
}

/// Whether a setting comes back as it was given: it fits into a line, and nothing in it means something else.
bool IsPlain(const Setting& setting) {
    const bool bFits = setting.key.size() + setting.value.size() + 5 <= ini::kPieceBytes &&
                       setting.section.size() + 4 <= ini::kPieceBytes;
    const std::string all = setting.section + setting.key + setting.value;
    return bFits && all.find('\n') == std::string::npos && setting.key.find('=') == std::string::npos &&
           setting.value == ini::WithoutEnd(ini::WithoutBlanksBefore(setting.value)) &&
           setting.key == ini::WithoutBlanksBefore(setting.key) && setting.key.substr(0, 1) != "[";
}

void OneInput(fuzz::Input input) {
    Setting setting;
    setting.section = fuzz::Cut(input.Line());
    setting.key = fuzz::Cut(input.Line());
    setting.value = fuzz::Cut(input.Line());
    std::string content = input.Rest();
    remove(kFile);
    if (content.substr(0, 1) == "!") {
        content.clear();
    } else {
        fuzz::WriteFile(kFile, content);
    }
    const std::string expected = Expected(content, setting);
    FUZZ_EQUAL(1, tq_WriteINIFileString(setting.section.c_str(), setting.key.c_str(), setting.value.c_str(), kFile));
    FUZZ_EQUAL(expected, fuzz::ReadFile(kFile));
    FUZZ_CHECK(!fuzz::FileExists("__temp__write.ini"));
    if (IsPlain(setting) && content.find('\0') == std::string::npos) {
        std::string value;
        FUZZ_CHECK(ini::Value(expected, setting.section, setting.key, &value));
        FUZZ_EQUAL(setting.value, value);
        char buffer[ini::kPieceBytes + 1] = "";
        tq_GetINIFileString(setting.section.c_str(), setting.key.c_str(), nullptr, buffer, sizeof(buffer), kFile);
        FUZZ_EQUAL(setting.value, std::string(buffer));
        FUZZ_EQUAL(1,
                   tq_WriteINIFileString(setting.section.c_str(), setting.key.c_str(), setting.value.c_str(), kFile));
        FUZZ_EQUAL(expected, fuzz::ReadFile(kFile)); // the second time there is nothing to change
    }
}

} // namespace

FUZZ_TARGET("", OneInput)
