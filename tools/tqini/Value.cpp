#include "Value.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <iterator>
#include <limits.h>
#include <regex>
#include <sstream>
#include <stdlib.h>

#include <tq_Dir.h>
#include <tq_Trace.h>

#include "Suggest.h"

namespace tqini {

namespace {

constexpr size_t kMostNetworks = 32;
constexpr size_t kShort = 11; // characters of a number or a switch that count
constexpr size_t kHexDigits = 8;

/// Values that the library replaces by another.
struct RangeRow {
    const char* pszSection;
    const char* pszKey;
    long most;
    const char* pszAbove;
    const char* pszBelow; ///< for negative values
    const char* pszKind;
};

constexpr RangeRow kRanges[] = {
    {"Memory", "MemoryAlignment", 128, "replaced by 4: 128 is the largest",
     "replaced by 4: it is a number without sign", "alignment-replaced"},
    {"Trace", "MaxViewers", 128, "taken as 128", "taken as 128", "out-of-range"},
    {"Telnet", "MaxSessions", INT_MAX, "", "taken as 0", "out-of-range"},
    {"Telnet", "LoginSeconds", 1000000, "taken as 1000000", "taken as 0", "out-of-range"},
    {"Telnet", "BackOffSeconds", 1000000, "taken as 1000000", "taken as 0", "out-of-range"},
};

std::string Quoted(const std::string& text) {
    return '"' + text + '"';
}

int ReadNumber(const SeenKey& key, const std::string& path) {
    return tq_GetINIFileInt(key.section.c_str(), key.key.c_str(), 0, path.c_str());
}

bool ReadSwitch(const SeenKey& key, const std::string& path) {
    return tq_GetINIFileAffirmative(key.section.c_str(), key.key.c_str(), "no", path.c_str());
}

std::string ReadText(const SeenKey& key, const std::string& path) {
    std::vector<char> buffer(key.pRow->limit + 1);
    tq_GetINIFileString(key.section.c_str(), key.key.c_str(), "", buffer.data(),
                        static_cast<unsigned int>(buffer.size()), path.c_str());
    return buffer.data();
}

bool IsNumber(const std::string& text) {
    static const std::regex kNumber("[+-]?[0-9]+|0[xX][0-9a-fA-F]+");
    return std::regex_match(text, kNumber);
}

bool FitsInt(const std::string& number) {
    if (number[1] == 'x' || number[1] == 'X') {
        return number.size() <= 2 + kHexDigits;
    }
    errno = 0;
    const long value = strtol(number.c_str(), nullptr, 10);
    return errno == 0 && value >= INT_MIN && value <= INT_MAX;
}

bool StartsLikeANumber(const std::string& text) {
    const size_t digit = text[0] == '-' || text[0] == '+' ? 1 : 0;
    return text[digit] >= '0' && text[digit] <= '9';
}

bool IsOneOf(const std::string& text, const std::vector<std::string>& words) {
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) { return SameText(text, word); });
}

/// "10.0.0.7" or "10.0.0.0/8".
bool IsNetwork(const std::string& word) {
    static const std::regex kBits("0*(3[0-2]|[12]?[0-9])");
    const size_t slash = word.find('/');
    struct in_addr address;
    return inet_pton(AF_INET, word.substr(0, slash).c_str(), &address) == 1 &&
           (slash == std::string::npos || std::regex_match(word.substr(slash + 1), kBits));
}

std::vector<std::string> WordsOf(std::string list) {
    std::replace(list.begin(), list.end(), ',', ' ');
    std::istringstream stream(list);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

using Findings = std::vector<ValueFinding>;

Findings One(const char* pszKind, const std::string& message, const std::string& suggestion = "") {
    return {{pszKind, message, suggestion}};
}

Findings CutShort(const std::string& value, const std::string& reads) {
    return One("value-cut",
               "only the first " + std::to_string(kShort) + " characters of " + Quoted(value) + " count: " + reads);
}

Findings CheckNumber(const SeenKey& key, const std::string& path) {
    const std::string& value = key.value;
    const std::string reads = ReadsAs(key, path);
    if (value.size() > kShort) {
        return CutShort(value, reads);
    }
    if (!IsNumber(value)) {
        return One("not-a-number", Quoted(value) + " is no number: " + reads);
    }
    if (!FitsInt(value)) {
        return One("out-of-range", value + " is no number of 32 bits: " + reads);
    }
    const long number = ReadNumber(key, path);
    for (const RangeRow& row : kRanges) {
        if (key.section == row.pszSection && key.key == row.pszKey && (number < 0 || number > row.most)) {
            return One(row.pszKind, value + " is " + (number < 0 ? row.pszBelow : row.pszAbove));
        }
    }
    return {};
}

Findings CheckSwitch(const SeenKey& key, const std::string& path) {
    const std::string& value = key.value;
    const std::string reads = ReadsAs(key, path);
    if (value.size() > kShort) {
        return CutShort(value, reads);
    }
    if (ReadSwitch(key, path) || IsOneOf(value, {"no", "n", "false", "0", "off"})) {
        return {};
    }
    return One("not-a-switch", Quoted(value) + " is none of yes, y, true and 1: " + reads);
}

Findings CheckLevel(const SeenKey& key, const std::string& path) {
    int level = 0;
    if (ConvertStringToLevel(key.value.c_str(), &level)) {
        return {};
    }
    if (IsNumber(key.value)) {
        return CheckNumber(key, path);
    }
    const std::string word = Nearest(
        key.value, {"All", "Low", "Debug", "Informational", "Warning", "Severe", "Critical", "None", "Debug Low"});
    return One("not-a-level", Quoted(key.value) + " is no level: " + ReadsAs(key, path),
               word == "Debug Low" ? "Low" : word);
}

Findings CheckText(const SeenKey& key, const std::string&) {
    if (key.value.size() <= key.pRow->limit) {
        return {};
    }
    return One("value-cut", "only the first " + std::to_string(key.pRow->limit) + " of its " +
                                std::to_string(key.value.size()) + " characters count");
}

Findings CheckNetworks(const SeenKey& key, const std::string&) {
    const std::vector<std::string> words = WordsOf(key.value);
    Findings findings;
    for (const std::string& word : words) {
        if (!IsNetwork(word)) {
            findings.push_back(
                {"not-an-address", Quoted(word) + " is no address and no network: it admits nobody", ""});
        }
    }
    if (words.size() > kMostNetworks) {
        findings.push_back({"value-cut", "only the first 32 of its addresses count", ""});
    }
    return findings;
}

struct KindRow {
    Kind kind;
    Findings (*check)(const SeenKey& key, const std::string& path);
};

constexpr KindRow kKinds[] = {
    {Kind::Number, CheckNumber}, {Kind::Switch, CheckSwitch},     {Kind::Level, CheckLevel},
    {Kind::Text, CheckText},     {Kind::Networks, CheckNetworks},
};

bool MayBeEmpty(const KeyRow& row) {
    return row.kind == Kind::Text || row.kind == Kind::Networks;
}

bool IsQuoted(const std::string& value) {
    return value.size() > 1 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0];
}

} // namespace

size_t PlaceOfComment(const std::string& value) {
    for (size_t at = 0; at < value.size(); ++at) {
        const bool bMark = value[at] == ';' || value[at] == '#' || value.compare(at, 2, "//") == 0;
        if (bMark && (at == 0 ? value[at] != '/' : value[at - 1] == ' ' || value[at - 1] == '\t')) {
            return at;
        }
    }
    return std::string::npos;
}

std::string ReadsAs(const SeenKey& key, const std::string& path) {
    int level = 0;
    switch (key.pRow->kind) {
    case Kind::Number:
        return "reads as " + std::to_string(ReadNumber(key, path));
    case Kind::Switch:
        return std::string("reads as ") + (ReadSwitch(key, path) ? "yes" : "no");
    case Kind::Level:
        if (ConvertStringToLevel(key.value.c_str(), &level)) {
            return "reads as " + std::to_string(level);
        }
        if (key.pRow->pszDefaultFrom == nullptr && !StartsLikeANumber(key.value)) {
            return "not understood, as if the key were not there"; // the default level alone is so careful
        }
        level = ReadNumber(key, path);
        return level == 0 ? "reads as 0, that is All" : "reads as " + std::to_string(level);
    default:
        return "reads as " + Quoted(ReadText(key, path));
    }
}

bool IsOn(const KeyRow& row, const std::string& path) {
    const SeenKey key = {&row, row.pszSection, row.pszKey, "", 0};
    return row.kind == Kind::Switch ? ReadSwitch(key, path) : ReadNumber(key, path) != 0;
}

std::vector<ValueFinding> CheckValue(const SeenKey& key, const std::string& path) {
    const size_t comment = PlaceOfComment(key.value);
    if (comment != std::string::npos) {
        return One("trailing-comment",
                   Quoted(key.value.substr(comment)) + " is part of the value: " + ReadsAs(key, path));
    }
    if (IsQuoted(key.value)) {
        return One("quoted-value", "the quotes are part of the value: " + ReadsAs(key, path));
    }
    if (key.value.empty()) {
        return MayBeEmpty(*key.pRow) ? Findings{}
                                     : One("empty-value", "no value is not the default: " + ReadsAs(key, path));
    }
    for (const KindRow& row : kKinds) {
        if (row.kind == key.pRow->kind) {
            return row.check(key, path);
        }
    }
    return {};
}

} // namespace tqini
