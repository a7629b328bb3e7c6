#include "Record.h"

#include <ctype.h>

namespace tqtrace {

namespace {

/// What stands in front of a message.
struct Prefix {
    size_t start = 0;
    size_t end = 0; ///< where the message begins
    Record fields;
};

/// A text with letters and digits where the shape has "a" and "0"; "_" stands for a digit or a blank.
bool HasShape(const std::string& text, size_t at, const char* pszShape) {
    for (; *pszShape; ++pszShape, ++at) {
        const unsigned char c = at < text.size() ? static_cast<unsigned char>(text[at]) : '\0';
        const bool bFits = *pszShape == 'a'   ? isalpha(c) != 0
                           : *pszShape == '0' ? isdigit(c) != 0
                           : *pszShape == '_' ? isdigit(c) != 0 || c == ' '
                                              : c == static_cast<unsigned char>(*pszShape);
        if (!bFits) {
            return false;
        }
    }
    return true;
}

constexpr char kDateShape[] = "aaa aaa _0 00:00:00 0000 ";
constexpr size_t kDateBytes = sizeof(kDateShape) - 1;

constexpr size_t kLongestName = 1000; // of an instance: a line on the network holds no more

bool TakeText(const std::string& text, size_t* pAt, const char* pszExpected) {
    const std::string expected = pszExpected;
    if (text.compare(*pAt, expected.size(), expected) != 0) {
        return false;
    }
    *pAt += expected.size();
    return true;
}

bool TakeNumber(const std::string& text, size_t* pAt, uint32_t* pNumber) {
    uint64_t number = 0;
    const size_t first = *pAt;
    for (; *pAt < text.size() && isdigit(static_cast<unsigned char>(text[*pAt])) && number <= UINT32_MAX; ++*pAt) {
        number = number * 10 + static_cast<unsigned int>(text[*pAt] - '0');
    }
    *pNumber = static_cast<uint32_t>(number);
    return *pAt > first && number <= UINT32_MAX;
}

bool TakeThread(const std::string& text, size_t* pAt, Record* pFields) {
    pFields->bThread = TakeText(text, pAt, "TID:");
    return !pFields->bThread || (TakeNumber(text, pAt, &pFields->thread) && TakeText(text, pAt, ":") &&
                                 TakeNumber(text, pAt, &pFields->kernelThread) && TakeText(text, pAt, " "));
}

/// "(name) TAG: ". A name may hold brackets too: it ends where a tag follows.
bool TakeInstance(const std::string& text, size_t* pAt, Record* pFields) {
    if (!TakeText(text, pAt, "(")) {
        return false;
    }
    const std::string rest = text.substr(*pAt, kLongestName + 2);
    const size_t lineEnd = rest.find('\n');
    for (size_t length = rest.find(") "); length < lineEnd; length = rest.find(") ", length + 1)) {
        const size_t end = *pAt + length;
        pFields->pLevel = FindTag(text, end + 2);
        if (pFields->pLevel) {
            pFields->instance = text.substr(*pAt, end - *pAt);
            *pAt = end + 2 + std::string(pFields->pLevel->pszTag).size() + 2;
            return true;
        }
    }
    return false;
}

/// The prefix that begins here.
bool TakePrefix(const std::string& text, size_t at, Prefix* pPrefix) {
    *pPrefix = Prefix();
    pPrefix->start = at;
    Record& fields = pPrefix->fields;
    if (HasShape(text, at, kDateShape)) {
        fields.date = text.substr(at, kDateBytes - 1);
        at += kDateBytes;
    }
    const bool bTaken = TakeText(text, &at, "[") && TakeNumber(text, &at, &fields.ms) && TakeText(text, &at, "]: ") &&
                        TakeThread(text, &at, &fields) && TakeInstance(text, &at, &fields);
    pPrefix->end = at;
    return bTaken;
}

/// The next prefix that begins at a line's beginning, or within a line for this instance; false when there is none.
bool FindPrefix(const std::string& text, size_t from, const std::string& instance, Prefix* pPrefix) {
    for (size_t at = text.find('[', from); at != std::string::npos; at = text.find('[', at + 1)) {
        const bool bDated = at >= from + kDateBytes && HasShape(text, at - kDateBytes, kDateShape);
        const size_t start = bDated ? at - kDateBytes : at;
        const bool bAtLineStart = start == 0 || text[start - 1] == '\n';
        if (TakePrefix(text, start, pPrefix) && (bAtLineStart || pPrefix->fields.instance == instance)) {
            return true;
        }
    }
    return false;
}

std::string WithoutLineEnd(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    if (!text.empty() && text.back() == '\r') {
        text.pop_back();
    }
    return text;
}

Record Finish(const Prefix& prefix, const std::string& text, size_t end) {
    Record record = prefix.fields;
    record.text = WithoutLineEnd(text.substr(prefix.start, end - prefix.start));
    record.message = WithoutLineEnd(text.substr(prefix.end, end - prefix.end));
    return record;
}

/// What is no trace, line by line.
void AddOther(const std::string& text, std::vector<Record>* pRecords) {
    for (size_t at = 0; at < text.size();) {
        const size_t lineEnd = text.find('\n', at);
        const size_t next = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
        Record record;
        record.text = record.message = WithoutLineEnd(text.substr(at, next - at));
        pRecords->push_back(record);
        at = next;
    }
}

} // namespace

Record ParseRecord(const std::string& text) {
    Prefix prefix;
    if (TakePrefix(text, 0, &prefix)) {
        return Finish(prefix, text, text.size());
    }
    Record record;
    record.text = record.message = WithoutLineEnd(text);
    return record;
}

std::vector<Record> ParseFile(const std::string& content) {
    std::vector<Record> records;
    Prefix prefix;
    bool bFound = FindPrefix(content, 0, "", &prefix);
    AddOther(content.substr(0, bFound ? prefix.start : content.size()), &records);
    while (bFound) {
        Prefix next;
        bFound = FindPrefix(content, prefix.end, prefix.fields.instance, &next);
        records.push_back(Finish(prefix, content, bFound ? next.start : content.size()));
        prefix = next;
    }
    return records;
}

} // namespace tqtrace
