#include "tq_Base_p.h"

#include <atomic>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_CriticalErrorTrace_p.h"
#include "tq_Dir_p.h"
#include "tq_IniKeys_p.h"
#include "tq_Time.h"

char gTQOSErrorLogfile[512] = "";
bool gbAssertOnCriticalError = true;

namespace {

constexpr size_t kLongestLoggedMessage = 511;
constexpr size_t kErrorLineBytes = 542; // time (24), ": ", message, line feed, terminator, and some room
constexpr size_t kAscTimeBytes = 26;

static_assert(sizeof(_TQ_UUID) == 16, "a UUID is its 16 bytes");

// True while the calling thread reports a critical error. What fails during the report (an allocation that is refused,
// say) would be reported in turn, and so without end. Part of the thread from its start: no memory is needed to reach
// it.
thread_local bool tbReportingCriticalError __attribute__((tls_model("initial-exec"))) = false;

/// Set from the start until the first entry.
std::atomic<bool> gbFirstEntry{true};

/// Whether an earlier process was killed while it wrote to the log, and has left its last line without an end.
bool EndsWithinALine(FILE* hFile) {
    const bool bWithin = fseek(hFile, -1, SEEK_END) == 0 && fgetc(hFile) != '\n';
    fseek(hFile, 0, SEEK_END);
    return bWithin;
}

void AppendToErrorLog(const char* pMessage) {
    if (gTQOSErrorLogfile[0] == '\0' || strlen(pMessage) > kLongestLoggedMessage) {
        return;
    }
    char now[kAscTimeBytes];
    tq_GetASCTime(now);
    char line[kErrorLineBytes];
    snprintf(line, sizeof(line), "%s: %s\n", now, pMessage);
    FILE* hFile = fopen(gTQOSErrorLogfile, "a+");
    if (!hFile) {
        return;
    }
    if (gbFirstEntry.exchange(false) && EndsWithinALine(hFile)) {
        fputc('\n', hFile);
    }
    fputs(line, hFile); // leaves as one write at the end of the file: lines of several threads never mix
    fclose(hFile);
}

size_t LengthOf(const char* pszSet) {
    return pszSet ? strlen(pszSet) : 0;
}

/// The character sets that a call of tq_getToken() splits by.
struct TokenRules {
    const char* pszDelimiters;
    const char* pszStarts;
    const char* pszEnds;

    /// The encapsulator that ends what opens at pOpening, or null when it opens nothing or its end never comes.
    char* EndOfPair(char* pOpening) const {
        const unsigned int pair = IsCharInSet(*pOpening, pszStarts);
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the sets are equally long, each start has its end
        return pair ? strchr(pOpening + 1, pszEnds[pair - 1]) : nullptr;
    }
};

/// The extent of one token within the text.
struct TokenSpan {
    char* pStart; ///< null: an encapsulator was never closed
    char* pNext;  ///< where the next token begins
};

TokenSpan CutToken(char* pStart, bool bFirstCall, const TokenRules& rules) {
    char* pScan = pStart;
    while (*pScan != '\0') {
        if (IsCharInSet(*pScan, rules.pszStarts)) {
            char* pEnd = rules.EndOfPair(pScan);
            if (!pEnd) {
                return {nullptr, nullptr};
            }
            pScan = pEnd + 1;
        } else if (!IsCharInSet(*pScan, rules.pszDelimiters)) {
            ++pScan;
        } else if (bFirstCall && pScan == pStart) {
            // Deliberate: delimiters at the start are skipped on the first call only. On later calls one there gives an
            // empty token, so two delimiters side by side are an empty field.
            pStart = ++pScan;
        } else {
            *pScan++ = '\0';
            break;
        }
    }
    return {pStart, pScan};
}

void StripLastCharacter(char* pToken, const char* pszStripChars) {
    const size_t length = strlen(pToken);
    if (length > 0 && IsCharInSet(pToken[length - 1], pszStripChars)) {
        pToken[length - 1] = '\0';
    }
}

void RemoveEncapsulators(char* pToken, const TokenRules& rules) {
    char* pScan = pToken;
    while (*pScan != '\0') {
        if (!IsCharInSet(*pScan, rules.pszStarts)) {
            ++pScan;
            continue;
        }
        char* pEnd = rules.EndOfPair(pScan);
        if (!pEnd) {
            return;
        }
        memmove(pScan, pScan + 1, static_cast<size_t>(pEnd - pScan) - 1);
        memmove(pEnd - 1, pEnd + 1, strlen(pEnd + 1) + 1);
        pScan = pEnd - 1;
    }
}

unsigned char RandomNibble() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's rand() has a lock
    return static_cast<unsigned char>(rand() * 16.0 / 2147483648.0);
}

} // namespace

extern "C" {

void LogCriticalError(const char* pMessage, bool bAbort, int Level, int Category) {
    if (pMessage && !tbReportingCriticalError) {
        tbReportingCriticalError = true;
        AppendToErrorLog(pMessage);
        tq_TraceCriticalError(pMessage, Level, Category);
        tbReportingCriticalError = false;
    }
    if (bAbort) {
        abort();
    }
}

void tq_Assert(bool) {
    // Deliberate: a condition that is false stops nothing. Every report of a critical error passes here after it was
    // logged, so this is the one place for a breakpoint or for a debug build to stop.
}

bool tq_CreateUUID(_TQ_UUID* uuid) {
    if (!uuid) {
        return false;
    }
    unsigned char bytes[sizeof(_TQ_UUID)];
    for (unsigned char& byte : bytes) {
        const unsigned char high = RandomNibble();
        byte = static_cast<unsigned char>(high << 4 | RandomNibble());
    }
    memcpy(uuid, bytes, sizeof(bytes));
    return true;
}

char* tq_getToken(char* pszString, const char* pszDelimiters, const char* pszStartEncapsulators,
                  const char* pszEndEncapsulators, const char* pszStripChars, int Flags, char** instance) {
    if (!pszDelimiters || !instance) {
        if (instance) {
            *instance = nullptr;
        }
        return nullptr;
    }
    if ((!pszString && !*instance) || LengthOf(pszStartEncapsulators) != LengthOf(pszEndEncapsulators)) {
        return nullptr;
    }
    char* pStart = pszString ? pszString : *instance;
    *instance = nullptr;
    if (*pStart == '\0') {
        return nullptr;
    }
    const TokenRules rules = {pszDelimiters, pszStartEncapsulators, pszEndEncapsulators};
    const TokenSpan token = CutToken(pStart, pszString != nullptr, rules);
    *instance = token.pNext;
    if (!token.pStart) {
        return nullptr;
    }
    // Deliberate: TQ_TOKEN_STRIP_LEADING is accepted and strips nothing; a token keeps its leading characters.
    if (Flags & TQ_TOKEN_STRIP_TRAILING) {
        StripLastCharacter(token.pStart, pszStripChars);
    }
    if (Flags & TQ_TOKEN_REMOVE_ENCAPSULATORS) {
        RemoveEncapsulators(token.pStart, rules);
    }
    return token.pStart;
}

unsigned int IsCharInSet(char ch, const char* pszSet) {
    const char* pFound = pszSet && ch != '\0' ? strchr(pszSet, ch) : nullptr;
    return pFound ? static_cast<unsigned int>(pFound - pszSet) + 1 : 0;
}

char* _strlwr(char* string) {
    for (char* pChar = string; pChar && *pChar != '\0'; ++pChar) {
        *pChar = static_cast<char>(tolower(static_cast<unsigned char>(*pChar)));
    }
    return string;
}

// Deliberate: radix is accepted and ignored, the text is always decimal. Every caller passes 10.
char* itoa(int value, char* string, int) {
    sprintf(string, "%d", value);
    return string;
}

// Deliberate: as itoa().
char* ltoa(long value, char* string, int) {
    sprintf(string, "%ld", value);
    return string;
}

char* tq_strtok_r(char* s, const char* delim, char** save_ptr) {
    return strtok_r(s, delim, save_ptr);
}

int tq_getch() {
    return getchar();
}

unsigned int tq_BaseInitialize() {
    memset(psz_tqos_ini_file, 0, sizeof(psz_tqos_ini_file));
    strcpy(psz_tqos_ini_file, "tqos.ini");
    tq_GetINIFileString("ErrorLog", "Filename", "tqos_error.log", gTQOSErrorLogfile, sizeof(gTQOSErrorLogfile),
                        psz_tqos_ini_file);
    gbFirstEntry = true;
    const tq_IniSwitch kSwitches[] = {{"AssertOnCriticalError", true, &gbAssertOnCriticalError}};
    tq_ReadIniTable("ErrorLog", kSwitches);
    return 0;
}

void tq_BaseTerminate() {
    // The error log's name stays: what goes wrong during and after the library's end is still logged.
}

} // extern "C"
