#include "Protocol.h"

#include <array>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "History.h"

namespace {

struct Syntax {
    const char* pszVerb;
    const char* pszObject; // the second word, when it is a fixed one
    unsigned int least;    // the second word, when it is a number; most is 0 when it is none
    unsigned int most;
    Verb verb;
    const char* pszUsage; // the error when the verb is right and the rest is not
};

constexpr char kGetUsage[] = "GET takes load, memory or network";
constexpr char kUnknown[] = "unknown command: GET, HISTORY, WATCH and QUIT are known";
constexpr unsigned int kMaxWatchMs = 3600000;

constexpr Syntax kSyntax[] = {
    {"GET", "load", 0, 0, Verb::GetLoad, kGetUsage},
    {"GET", "memory", 0, 0, Verb::GetMemory, kGetUsage},
    {"GET", "network", 0, 0, Verb::GetNetwork, kGetUsage},
    {"HISTORY", nullptr, 1, kMaxHistory, Verb::History, "HISTORY takes a number of samples, 1 to 1000"},
    {"WATCH", nullptr, 0, kMaxWatchMs, Verb::Watch, "WATCH takes a number of milliseconds up to 3600000; 0 ends it"},
    {"QUIT", nullptr, 0, 0, Verb::Quit, "QUIT stands alone"},
};
static_assert(kMaxHistory == 1000, "the usage of HISTORY names it");
static_assert(kMaxWatchMs == 3600000, "the usage of WATCH names it");

constexpr size_t kMaxWords = 3; // one more than any command has, so that a word too many is seen
using Words = std::array<std::string_view, kMaxWords>;

/// Cuts the line at blanks; the last word takes the rest. Returns how many there are.
size_t SplitWords(std::string_view line, Words* pWords) {
    constexpr char kBlanks[] = " \t";
    size_t count = 0;
    for (size_t at = line.find_first_not_of(kBlanks); at != line.npos && count < kMaxWords; ++count) {
        const size_t end = count + 1 < kMaxWords ? line.find_first_of(kBlanks, at) : line.npos;
        (*pWords)[count] = line.substr(at, end - at);
        at = line.find_first_not_of(kBlanks, end);
    }
    return count;
}

/// Whether the words after the verb are what this row asks for.
bool RestMatches(const Syntax& syntax, const Words& words, size_t count, unsigned int* pNumber) {
    if (syntax.pszObject) {
        return count == 2 && SameWord(words[1], syntax.pszObject);
    }
    if (syntax.most > 0) {
        return count == 2 && ParseNumber(words[1], syntax.least, syntax.most, pNumber);
    }
    return count == 1;
}

__attribute__((format(printf, 1, 2))) std::string Line(const char* pszFormat, ...) {
    char text[256];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(text, sizeof(text), pszFormat, args);
    va_end(args);
    return std::string(text) + "\r\n";
}

} // namespace

bool SameWord(std::string_view word, const char* pszWord) {
    return word.size() == strlen(pszWord) && strncasecmp(word.data(), pszWord, word.size()) == 0;
}

bool ParseNumber(std::string_view word, unsigned int least, unsigned int most, unsigned int* pNumber) {
    unsigned long long number = 0;
    for (const char digit : word) {
        if (digit < '0' || digit > '9' || number > most) {
            return false;
        }
        number = number * 10 + static_cast<unsigned int>(digit - '0');
    }
    *pNumber = static_cast<unsigned int>(number);
    return !word.empty() && number >= least && number <= most;
}

LineBuffer::Result LineBuffer::Next(std::string_view* pLine) {
    while (m_begin < m_end) {
        const void* pLineEnd = memchr(m_bytes + m_begin, '\n', m_end - m_begin);
        if (!pLineEnd) {
            break;
        }
        const size_t lineEnd = static_cast<size_t>(static_cast<const unsigned char*>(pLineEnd) - m_bytes);
        if (!m_bSkipping) {
            return TakeLine(lineEnd, pLine);
        }
        m_bSkipping = false; // that was the end of the line that was too long
        m_begin = lineEnd + 1;
    }
    return KeepRest();
}

LineBuffer::Result LineBuffer::TakeLine(size_t lineEnd, std::string_view* pLine) {
    const char* pText = reinterpret_cast<const char*>(m_bytes + m_begin);
    std::string_view line(pText, lineEnd - m_begin);
    m_begin = lineEnd + 1;
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    if (line.size() > kMaxLine) {
        return kTooLong;
    }
    *pLine = line;
    return kLine;
}

/// Moves the start of a line to the front, which makes room, or gives it up when it is too long already.
LineBuffer::Result LineBuffer::KeepRest() {
    const size_t rest = m_end - m_begin;
    const bool bTooLong = rest > kMaxLine + 1; // one more may be the CR of its end
    const bool bReport = bTooLong && !m_bSkipping;
    if (bTooLong || m_bSkipping) {
        m_bSkipping = true;
        m_begin = m_end = 0;
    } else {
        memmove(m_bytes, m_bytes + m_begin, rest);
        m_begin = 0;
        m_end = rest;
    }
    return bReport ? kTooLong : kNeedsBytes;
}

const char* ParseCommand(std::string_view line, Command* pCommand) {
    Words words;
    const size_t count = SplitWords(line, &words);
    if (count == 0) {
        return "empty line";
    }
    const char* pszWrong = kUnknown;
    for (const Syntax& syntax : kSyntax) {
        if (!SameWord(words[0], syntax.pszVerb)) {
            continue;
        }
        unsigned int number = 0;
        if (RestMatches(syntax, words, count, &number)) {
            *pCommand = {syntax.verb, number};
            return nullptr;
        }
        pszWrong = syntax.pszUsage;
    }
    return pszWrong;
}

std::string LoadLine(const Sample& sample) {
    const unsigned int* load = sample.load;
    return Line("LOAD %u.%02u %u.%02u %u.%02u", load[0] / 100, load[0] % 100, load[1] / 100, load[1] % 100,
                load[2] / 100, load[2] % 100);
}

std::string MemoryLine(const Sample& sample) {
    return Line("MEMORY %u of %u kB", sample.memoryFreeKb, sample.memoryTotalKb);
}

std::string NetworkLine(const Sample& sample) {
    return Line("NETWORK in %llu out %llu bytes", sample.inBytes, sample.outBytes);
}

std::string SampleLine(const Sample& sample) {
    const unsigned int* load = sample.load;
    return Line("SAMPLE at %u ms: load %u.%02u %u.%02u %u.%02u memory %u of %u kB network in %llu out %llu bytes",
                sample.uptimeMs, load[0] / 100, load[0] % 100, load[1] / 100, load[1] % 100, load[2] / 100,
                load[2] % 100, sample.memoryFreeKb, sample.memoryTotalKb, sample.inBytes, sample.outBytes);
}

std::string ErrorLine(const char* pszWhat) {
    return Line("ERROR %s", pszWhat);
}

std::string NumberLine(const char* pszWord, unsigned int number) {
    return Line("%s %u", pszWord, number);
}

std::string WithoutLineEnd(std::string line) {
    line.resize(line.find_last_not_of("\r\n") + 1);
    return line;
}
