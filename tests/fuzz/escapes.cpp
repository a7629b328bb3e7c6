// The two escapings and the ways back, held against a second reader and writer of entities and references.
//
// Input: the text.
#include <map>

#include "Fuzz.h"
#include "LatinEntities.h"

namespace {

const std::map<std::string, char>& Names() {
    static const std::map<std::string, char> names = [] {
        std::map<std::string, char> map = {{"nbsp", ' '}, {"amp", '&'},   {"lt", '<'},    {"gt", '>'},
                                           {"quot", '"'}, {"apos", '\''}, {"shy", '\xad'}};
        int character = 161;
        for (const char* pszName : test::kLatinEntities) {
            map[pszName] = static_cast<char>(character++);
        }
        return map;
    }();
    return names;
}

std::string Entity(char c) {
    switch (c) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&apos;";
    default:
        return "";
    }
}

std::string Formatted(const char* pszFormat, char c) {
    char text[16];
    snprintf(text, sizeof(text), pszFormat, static_cast<unsigned char>(c));
    return text;
}

std::string Escaped(const std::string& text, bool bUrl) {
    std::string out;
    for (const char c : text) {
        const bool bPercent = bUrl && (c == ' ' || c == '=' || c == '\'');
        const bool bReference = bUrl && (static_cast<unsigned char>(c) < 32 || c == '@' || c == 127 || (c & 0x80));
        const std::string entity = bPercent ? Formatted("%%%02X", c) : Entity(c);
        out += !entity.empty() ? entity : bReference ? Formatted("&#x%02X;", c) : std::string(1, c);
    }
    return out;
}

int Digit(char c, const char* pszDigits) {
    const char* pFound = c ? strchr(pszDigits, c) : nullptr;
    return pFound ? static_cast<int>((pFound - pszDigits) % 16) : -1;
}

/// One pass from left to right, in which each piece that `Take` knows, at a place in the text, becomes a byte; a zero
/// byte ends the result.
template <typename Take> std::string Replaced(const std::string& text, Take take) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        char byte = text[at];
        const size_t length = take(text, at, &byte);
        out += byte;
        at += length > 0 ? length : 1;
    }
    return fuzz::Cut(out);
}

size_t TakeName(const std::string& text, size_t at, char* pByte) {
    const size_t end = text[at] == '&' ? text.find(';', at) : std::string::npos;
    const auto found = end == std::string::npos ? Names().end() : Names().find(text.substr(at + 1, end - at - 1));
    if (found == Names().end()) {
        return 0;
    }
    *pByte = found->second;
    return end + 1 - at;
}

size_t TakeNameOrPercent(const std::string& text, size_t at, char* pByte) {
    constexpr char kUpper[] = "0123456789ABCDEF";
    if (text[at] != '%') {
        return TakeName(text, at, pByte);
    }
    const std::string digits = text.substr(at + 1, 2);
    const int high = digits.size() == 2 ? Digit(digits[0], kUpper) : -1;
    const int low = digits.size() == 2 ? Digit(digits[1], kUpper) : -1;
    if (high < 0 || low < 0) {
        return 0;
    }
    *pByte = static_cast<char>(high * 16 + low);
    return 3;
}

size_t TakeReference(const std::string& text, size_t at, char* pByte) {
    if (text.compare(at, 2, "&#") != 0) {
        return 0;
    }
    const char kind = at + 2 < text.size() ? text[at + 2] : '\0';
    const size_t first = at + (kind == 'x' ? 3 : 2);
    const std::string possible = text.substr(first, 15);
    const std::string digits =
        possible.substr(0, possible.find_first_not_of(kind == 'x' ? "0123456789abcdefABCDEF" : "0123456789"));
    if (digits.empty() && kind != 'X') {
        return 0;
    }
    uint64_t value = 0;
    for (const char c : digits) {
        value = value * (kind == 'x' ? 16 : 10) + static_cast<uint64_t>(Digit(c, "0123456789abcdef0123456789ABCDEF"));
    }
    *pByte = static_cast<char>(value & 255);
    const size_t end = first + digits.size();
    return end - at + (text.substr(end, 1) == ";" ? 1 : 0);
}

std::string Unescaped(const std::string& text, bool bNumericsOnly) {
    return Replaced(bNumericsOnly ? text : Replaced(text, TakeNameOrPercent), TakeReference);
}

/// Checks a string's text, its length with `counted` bytes more, and what must hold of its record.
void Check(TqString* s, const std::string& expected, unsigned int counted) {
    FUZZ_EQUAL(expected.size() + counted, tq_string_length(s));
    FUZZ_EQUAL(expected, std::string(reinterpret_cast<const char*>(tq_string_ptr(s, 0))));
    FUZZ_EQUAL(s->sizeInBytes, s->bytesUsed + s->bytesFree);
    FUZZ_CHECK(s->bytesFree > 0);
}

/// The text after the work, which counts so many bytes more than there are.
template <typename Work>
void CheckWork(const std::string& text, const std::string& expected, unsigned int counted, Work work) {
    TqString* s = tq_string_duplicate(text.c_str());
    FUZZ_CHECK(s);
    FUZZ_EQUAL(0, work(s));
    Check(s, expected, counted);
    tq_string_destroy(s);
}

void OneInput(fuzz::Input input) {
    const std::string text = fuzz::Cut(input.Rest());
    CheckWork(text, Escaped(text, true), 1, tq_string_escape);
    CheckWork(text, Escaped(text, false), 1, tq_string_xmlEscape);
    CheckWork(text, Replaced(text, TakeName), 1, tq_string_xmlUnEscape);
    CheckWork(text, Unescaped(text, false), 0, [](TqString* s) { return tq_string_unescape(s, false); });
    CheckWork(text, Unescaped(text, true), 0, [](TqString* s) { return tq_string_unescape(s, true); });
    CheckWork(text, text, 1, [](TqString* s) { return tq_string_xmlEscape(s) + tq_string_xmlUnEscape(s); });
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
