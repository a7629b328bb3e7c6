// The commands: the parser, what each command does, the help texts, and the tables that lead to them. A command that is
// about a part of the library calls that part's report.
#include "tq_Telnet_p.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_Dir.h"
#include "tq_Handle.h"
#include "tq_List.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tq_SemMutex.h"
#include "tq_Socket.h"
#include "tq_Thread.h"
#include "tq_Time.h"
#include "tq_Timer.h"
#include "tq_Trace.h"
#include "tqos.h"

// Words

namespace {

constexpr char kBlanks[] = " \t";

} // namespace

char* tq_TelnetGetNextToken(char** ppszLine) {
    if (!ppszLine || !*ppszLine) {
        return nullptr;
    }
    char* pszWord = *ppszLine + strspn(*ppszLine, kBlanks);
    if (*pszWord == '\0') {
        *ppszLine = pszWord;
        return nullptr;
    }
    const bool bQuoted = *pszWord == '"';
    pszWord += bQuoted ? 1 : 0;
    char* pszEnd = pszWord + strcspn(pszWord, bQuoted ? "\"" : kBlanks);
    if (*pszEnd != '\0') {
        *pszEnd++ = '\0';
        pszEnd += strspn(pszEnd, kBlanks);
    }
    *ppszLine = pszEnd;
    return pszWord;
}

namespace {

/// Whether a word is a keyword or an abbreviation of it, which has its capitals at least.
bool IsKeyword(const char* pszWord, const char* pszKeyword) {
    size_t length = 0;
    while (pszKeyword[length] >= 'A' && pszKeyword[length] <= 'Z') {
        ++length;
    }
    const size_t typed = strlen(pszWord);
    return strncasecmp(pszWord, pszKeyword, typed > length ? typed : length) == 0;
}

bool BeginsWith(const char* pszText, const char* pszBeginning) {
    return strncasecmp(pszText, pszBeginning, strlen(pszBeginning)) == 0;
}

bool IsNumber(const char* pszWord) {
    return *pszWord != '\0' && pszWord[strspn(pszWord, "0123456789")] == '\0';
}

/// Whether a text is this word and nothing else but blanks behind it.
bool IsOnly(const char* pszText, const char* pszWord) {
    const size_t length = strlen(pszWord);
    return strncmp(pszText, pszWord, length) == 0 && pszText[length + strspn(pszText + length, kBlanks)] == '\0';
}

bool IsHexadecimal(const char* pszWord) {
    return BeginsWith(pszWord, "0x");
}

/// The number that a text begins with; 0 when it does not. More than 32 bits hold counts as the most that they hold.
unsigned int Number(const char* pszText, int base = 10) {
    const unsigned long long value = strtoull(pszText, nullptr, base);
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

int SignedNumber(const char* pszText) {
    const long long value = strtoll(pszText, nullptr, 10);
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

} // namespace

// The parser

FUNCTION_RC ProcessNextToken(TELNET_INSTANCE* pTelnetInstance, char* pszCommand, char** ppszResponse,
                             unsigned int uiFlags, const TOKEN_PARSER* pTokenList) {
    const char* pszWord = tq_TelnetGetNextToken(&pszCommand);
    if (!pszWord || *pszWord == '\0') {
        return FUNCTION_RC::ERROR;
    }
    for (const TOKEN_PARSER* pRow = pTokenList; pRow->pszToken; ++pRow) {
        if (!IsKeyword(pszWord, pRow->pszToken)) {
            continue;
        }
        if (pRow->uiFlagValue != 0) {
            return ProcessNextToken(pTelnetInstance, pszCommand, ppszResponse, uiFlags | pRow->uiFlagValue, pTokenList);
        }
        if (pRow->pNextTokenStruct) {
            return ProcessNextToken(pTelnetInstance, pszCommand, ppszResponse, uiFlags, pRow->pNextTokenStruct);
        }
        if (pRow->pfnFunction) {
            return pRow->pfnFunction(pTelnetInstance, pszCommand, uiFlags, ppszResponse);
        }
    }
    return FUNCTION_RC::ERROR;
}

// What handlers share

namespace {

enum : unsigned int { kFlagDetail = TQ_TELNET_DETAIL, kFlagEnable = 2, kFlagDisable = 4 };

/// Lets the session print a text, between line ends of its own.
FUNCTION_RC Answer(char** ppszResponse, const char* pszText) {
    *ppszResponse = tq_newString(pszText);
    return FUNCTION_RC::SUCCESS;
}

/// Writes a line into the session.
FUNCTION_RC Say(const TELNET_INSTANCE* pTelnetInstance, const char* pszText) {
    tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "%s%s", pszText, "\r\n");
    return FUNCTION_RC::SUCCESS;
}

/// A report without arguments.
template <void (*Show)(char**)>
FUNCTION_RC ShowReport(TELNET_INSTANCE*, char* pszArguments, unsigned int, char** ppszResponse) {
    if (*pszArguments != '\0') {
        return FUNCTION_RC::ERROR;
    }
    Show(ppszResponse);
    return FUNCTION_RC::SUCCESS;
}

/// A report that is sent to the session in pieces of its own.
template <void (*Report)(unsigned int)>
FUNCTION_RC ReportToSession(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    Report(pTelnetInstance->socket);
    return FUNCTION_RC::SUCCESS;
}

} // namespace

// SHow

namespace {

FUNCTION_RC ShowSummary(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags, char**) {
    const char* pszId = tq_TelnetGetNextToken(&pszArguments);
    if (pszId && !IsNumber(pszId)) {
        return FUNCTION_RC::ERROR;
    }
    MSG_COMMON request = {};
    request.hSource = tq_ConsoleQueueHandle();
    request.size = sizeof(request);
    request.command = MSG_TELNET_SUMMARY;
    request.instance = pTelnetInstance->socket;
    request.flags = uiFlags;
    tq_MsgQSendToNamed(pszId ? Number(pszId) : 0, &request);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowSockets(TELNET_INSTANCE*, char* pszArguments, unsigned int uiFlags, char** ppszResponse) {
    if (*pszArguments != '\0' && (uiFlags & kFlagDetail) == 0) {
        return FUNCTION_RC::ERROR;
    }
    const bool bHasHandle = tq_SocketShowSockets(ppszResponse, uiFlags, pszArguments) == 0 || *ppszResponse;
    return bHasHandle ? FUNCTION_RC::SUCCESS : Answer(ppszResponse, "Missing socket handle.\r\n");
}

FUNCTION_RC ShowInterfaces(TELNET_INSTANCE*, char*, unsigned int, char** ppszResponse) {
    tq_SocketShowInterfaces(ppszResponse);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowQueues(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags,
                       char** ppszResponse) {
    tq_MsgQShowQueues(pTelnetInstance->socket, ppszResponse, uiFlags, pszArguments);
    return FUNCTION_RC::SUCCESS;
}

// Deliberate: a reader would expect any abbreviation of a sort word. Five characters are compared, the end of the text
// among them, so "count" and "name" must be whole while "maxco" and "handl" will do.
constexpr size_t kSortCharacters = 5;
constexpr const char* kSortWords[] = {"count", "maxcount", "name", "handle"}; // their codes count from 1

struct ListOptions {
    int start = 1;
    unsigned int max = 0; // all
    unsigned int sort = 0;
    bool bReverse = false;
    const char* pszSearch = nullptr;
};

bool ReadSortWord(const char* pszWord, ListOptions& options) {
    options.bReverse = *pszWord == '-';
    options.sort = 0;
    for (const char* pszSort : kSortWords) {
        options.sort += 1;
        if (strncasecmp(pszWord + (options.bReverse ? 1 : 0), pszSort, kSortCharacters) == 0) {
            return true;
        }
    }
    return false;
}

/// False when a word is not understood.
bool ReadListOptions(char* pszArguments, ListOptions& options) {
    static constexpr char kStart[] = "start=";
    static constexpr char kMax[] = "max=";
    static constexpr char kSort[] = "sort=";
    while (const char* pszWord = tq_TelnetGetNextToken(&pszArguments)) {
        if (BeginsWith(pszWord, kStart)) {
            options.start = SignedNumber(pszWord + strlen(kStart));
        } else if (BeginsWith(pszWord, kMax)) {
            options.max = Number(pszWord + strlen(kMax));
        } else if (!BeginsWith(pszWord, kSort)) {
            options.pszSearch = pszWord;
        } else if (!ReadSortWord(pszWord + strlen(kSort), options)) {
            return false;
        }
    }
    return true;
}

template <bool bHashedOnly>
FUNCTION_RC ShowLists(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char** ppszResponse) {
    ListOptions options;
    if (!ReadListOptions(pszArguments, options)) {
        return FUNCTION_RC::ERROR;
    }
    if (options.start <= 0) {
        return Answer(ppszResponse, "start must contain a value greater than 0!\r\n");
    }
    tq_ListShowLists(pTelnetInstance->socket, ppszResponse, static_cast<unsigned int>(options.start), options.max,
                     options.pszSearch, bHashedOnly, options.sort, options.bReverse);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowHashes(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags,
                       char** ppszResponse) {
    const char* pszList = tq_TelnetGetNextToken(&pszArguments);
    const char* pszHash = tq_TelnetGetNextToken(&pszArguments);
    if (!pszList) {
        return Answer(ppszResponse, "Missing List Handle!");
    }
    const unsigned int hList = IsNumber(pszList) ? Number(pszList) : 0;
    if (hList == 0) {
        return Answer(ppszResponse, "Invalid List Handle!");
    }
    if (!pszHash && (uiFlags & kFlagDetail)) {
        return Answer(ppszResponse, "Missing Hash Index!");
    }
    tq_ListShowHashes(hList, pszHash ? Number(pszHash) : 0, pTelnetInstance->socket, uiFlags);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC MemoryHelp(const TELNET_INSTANCE* pTelnetInstance);

FUNCTION_RC ShowMemory(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags, char**) {
    if (IsOnly(pszArguments, "?")) {
        return MemoryHelp(pTelnetInstance);
    }
    tq_ShowMemory(pTelnetInstance->socket, uiFlags, pszArguments);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowTrace(TELNET_INSTANCE*, char* pszArguments, unsigned int uiFlags, char** ppszResponse) {
    tq_ShowTrace(ppszResponse, uiFlags, tq_TelnetGetNextToken(&pszArguments));
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowEndian(TELNET_INSTANCE*, char* pszArguments, unsigned int, char** ppszResponse) {
    if (*pszArguments != '\0') {
        return FUNCTION_RC::ERROR;
    }
    const unsigned int value = 0x12345678;
    unsigned char bytes[sizeof(value)];
    memcpy(bytes, &value, sizeof(value));
    tq_ReportText report(256);
    report.Append("System uses %s endian.\r\n", bytes[0] == 0x12 ? "big" : "little");
    report.Append("   Original Value=0x%x\r\n", value);
    report.Append("   Stored as...\r\n");
    for (unsigned int i = 0; i < sizeof(bytes); ++i) {
        report.Append("     byte[%u]:0x%x\r\n", i, bytes[i]);
    }
    *ppszResponse = report.Release();
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowDirectory(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    char szPath[260];
    if (tq_GetWorkingDirectory(szPath, sizeof(szPath)) == 0) {
        return Say(pTelnetInstance, "Failed to acquire the current working directory.");
    }
    tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "The current working directory is:%s  %s%s", "\r\n", szPath,
                                  "\r\n");
    return FUNCTION_RC::SUCCESS;
}

constexpr unsigned int kMsPerSecond = 1000;

struct TimeUnit {
    unsigned int ms;
    const char* pszOne;
    const char* pszMany;
};

constexpr TimeUnit kUnits[] = {
    {24 * 60 * 60 * kMsPerSecond, "day", "days"},
    {60 * 60 * kMsPerSecond, "hour", "hours"},
    {60 * kMsPerSecond, "minute", "minutes"},
};

FUNCTION_RC ShowUptime(TELNET_INSTANCE*, char*, unsigned int, char** ppszResponse) {
    *ppszResponse = tq_TelnetUptimeText(tqOS_uptime());
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ShowCurrentTime(TELNET_INSTANCE*, char*, unsigned int, char** ppszResponse) {
    // Deliberate: a reader would expect "millisecond". Tools that read the answer look for the word as it is.
    tq_ReportText report(64);
    report.Append("Current System milliseond time: %u\r\n", tq_GetTimeInMS());
    *ppszResponse = report.Release();
    return FUNCTION_RC::SUCCESS;
}

} // namespace

char* tq_TelnetUptimeText(unsigned int ms) {
    if (ms == 0) {
        return tq_newString("TQOS is not currently initialized!\r\n");
    }
    tq_ReportText report(128);
    report.Append("TQOS has been up for:");
    bool bBegun = false;
    for (const TimeUnit& unit : kUnits) {
        const unsigned int count = ms / unit.ms;
        bBegun = bBegun || count != 0;
        if (bBegun) {
            report.Append(" %u %s", count, count == 1 ? unit.pszOne : unit.pszMany);
        }
        ms %= unit.ms;
    }
    report.Append(" %u.%03u %s", ms / kMsPerSecond, ms % kMsPerSecond, "seconds");
    return report.Release();
}

// SEnd

namespace {

/// The queue that a word names, by number or by name; 0 when there is none. 0 itself is no queue: sending to it would
/// reach them all.
unsigned int QueueOf(const char* pszQueue) {
    const unsigned int hQueue = IsNumber(pszQueue) ? Number(pszQueue) : 0;
    return hQueue != 0 ? hQueue : tq_MsgQGetIdFromName(pszQueue);
}

FUNCTION_RC SendCustom(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags, char**) {
    const char* pszQueue = tq_TelnetGetNextToken(&pszArguments);
    const unsigned int hQueue = pszQueue ? QueueOf(pszQueue) : 0;
    if (hQueue == 0 || *pszArguments == '\0') {
        return FUNCTION_RC::ERROR;
    }
    const unsigned int length = static_cast<unsigned int>(strlen(pszArguments));
    const unsigned int bytes = length + sizeof(TELNET_TEXT);
    TELNET_TEXT* pRequest = static_cast<TELNET_TEXT*>(tq_calloc(1, bytes));
    if (!pRequest) {
        return FUNCTION_RC::ERROR;
    }
    pRequest->msg = {tq_ConsoleQueueHandle(), hQueue, bytes, MSG_TELNET_CUSTOM, pTelnetInstance->socket, 0, uiFlags};
    memcpy(pRequest->text, pszArguments, length);
    tq_MsgQSendToNamed(hQueue, pRequest); // a copy
    tq_free(pRequest);
    return FUNCTION_RC::SUCCESS;
}

} // namespace

// SET

namespace {

FUNCTION_RC SetMemory(TELNET_INSTANCE*, char* pszArguments, unsigned int, char**) {
    if (*pszArguments != '\0') {
        return FUNCTION_RC::ERROR;
    }
    tq_MemoryMarkPools();
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC SetHistory(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char**) {
    tq_MsgqSetHistory(pTelnetInstance->socket, pszArguments);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC SetSemaphores(TELNET_INSTANCE*, char* pszArguments, unsigned int, char**) {
    const char* pszSwitch = tq_TelnetGetNextToken(&pszArguments);
    if (pszSwitch && strcasecmp(pszSwitch, "ON") == 0) {
        tq_SemEnableSemTracking();
        return FUNCTION_RC::SUCCESS;
    }
    if (pszSwitch && strcasecmp(pszSwitch, "OFF") == 0) {
        tq_SemDisableSemTracking();
        return FUNCTION_RC::SUCCESS;
    }
    return FUNCTION_RC::ERROR;
}

} // namespace

// SET TRace

namespace {

bool IsOneOf(unsigned int uiFlags) {
    const unsigned int direction = uiFlags & (kFlagEnable | kFlagDisable);
    return direction == kFlagEnable || direction == kFlagDisable;
}

/// The handle of the trace instance that the next word names, by name or else by number; 0 when it does not.
unsigned int NextTraceInstance(char** ppszArguments) {
    const char* pszInstance = tq_TelnetGetNextToken(ppszArguments);
    if (!pszInstance) {
        return 0;
    }
    const unsigned int hTrace = tq_TraceGetHandleFromName(pszInstance);
    return hTrace != 0 ? hTrace : Number(pszInstance);
}

/// What a command that has changed an instance answers.
FUNCTION_RC AnswerTraceSummary(int result, char** ppszResponse) {
    if (result != 0) {
        return FUNCTION_RC::ERROR;
    }
    tq_ShowTrace(ppszResponse, 0, nullptr);
    return FUNCTION_RC::SUCCESS;
}

template <int (*Enable)(unsigned int), int (*Disable)(unsigned int)>
FUNCTION_RC SetTraceSwitch(TELNET_INSTANCE*, char* pszArguments, unsigned int uiFlags, char** ppszResponse) {
    const unsigned int hTrace = IsOneOf(uiFlags) ? NextTraceInstance(&pszArguments) : 0;
    if (hTrace == 0) {
        return FUNCTION_RC::ERROR;
    }
    return AnswerTraceSummary((uiFlags & kFlagEnable) ? Enable(hTrace) : Disable(hTrace), ppszResponse);
}

int ShowTimestamps(unsigned int hTrace) {
    return tq_TraceSuppressTimestamp(hTrace, false);
}
int HideTimestamps(unsigned int hTrace) {
    return tq_TraceSuppressTimestamp(hTrace, true);
}
int ShowThreadIds(unsigned int hTrace) {
    return tq_TraceShowThreadID(hTrace, true);
}
int HideThreadIds(unsigned int hTrace) {
    return tq_TraceShowThreadID(hTrace, false);
}

FUNCTION_RC SetTraceFile(TELNET_INSTANCE*, char* pszArguments, unsigned int uiFlags, char** ppszResponse) {
    const unsigned int hTrace = IsOneOf(uiFlags) ? NextTraceInstance(&pszArguments) : 0;
    if (hTrace == 0) {
        return FUNCTION_RC::ERROR;
    }
    if (uiFlags & kFlagDisable) {
        return AnswerTraceSummary(tq_TraceDisableFile(hTrace), ppszResponse);
    }
    const char* pszPath = tq_TelnetGetNextToken(&pszArguments);
    const char* pszMaxFiles = tq_TelnetGetNextToken(&pszArguments);
    const char* pszMaxBytes = tq_TelnetGetNextToken(&pszArguments);
    if (!pszPath || !pszMaxFiles || !pszMaxBytes) {
        return FUNCTION_RC::ERROR;
    }
    return AnswerTraceSummary(tq_TraceEnableFile(hTrace, pszPath, SignedNumber(pszMaxFiles), SignedNumber(pszMaxBytes)),
                              ppszResponse);
}

FUNCTION_RC SetTraceDeltaTime(TELNET_INSTANCE*, char*, unsigned int uiFlags, char**) {
    const bool bDone = IsOneOf(uiFlags) && tq_TraceSetDeltaTimestamps((uiFlags & kFlagEnable) != 0) == 0;
    return bDone ? FUNCTION_RC::SUCCESS : FUNCTION_RC::ERROR;
}

struct NamedValue {
    const char* pszBeginning;
    int value;
};

// Deliberate: a reader would expect the names that the configuration takes and no others. Any word that begins like one
// of them counts, so "debugging" is Debug.
constexpr NamedValue kLevels[] = {
    {"Cri", TQ_TRACE_LEVEL_CRITICAL},      {"Sev", TQ_TRACE_LEVEL_SEVERE}, {"War", TQ_TRACE_LEVEL_WARNING},
    {"Inf", TQ_TRACE_LEVEL_INFORMATIONAL}, {"Deb", TQ_TRACE_LEVEL_DEBUG},  {"Low", TQ_TRACE_LEVEL_DEBUG_LOW},
    {"All", TQ_TRACE_LEVEL_ALL},           {"No", TQ_TRACE_LEVEL_NONE},
};

constexpr NamedValue kCategories[] = {
    {"All", -1},
    {"No", 0},
};

template <size_t N> const NamedValue* FindValue(const NamedValue (&table)[N], const char* pszWord) {
    for (const NamedValue& row : table) {
        if (BeginsWith(pszWord, row.pszBeginning)) {
            return &row;
        }
    }
    return nullptr;
}

int LevelOf(const char* pszWord) {
    if (const NamedValue* pNamed = FindValue(kLevels, pszWord)) {
        return pNamed->value;
    }
    return IsHexadecimal(pszWord) ? static_cast<int>(Number(pszWord, 16)) : SignedNumber(pszWord);
}

FUNCTION_RC SetTraceLevel(TELNET_INSTANCE*, char* pszArguments, unsigned int, char** ppszResponse) {
    const char* pszLevel = tq_TelnetGetNextToken(&pszArguments);
    const unsigned int hTrace = NextTraceInstance(&pszArguments);
    if (hTrace == 0) {
        return FUNCTION_RC::ERROR;
    }
    // Deliberate: a reader would expect a number that is no instance's to be refused, as the other settings do. Here
    // nothing is set, and the summary comes.
    tq_TraceSetLevel(hTrace, LevelOf(pszLevel));
    return AnswerTraceSummary(0, ppszResponse);
}

/// Deliberate: a reader would expect a word that is neither a number nor a category's name to be refused. It counts as
/// 0, as any text that is read as a number does.
unsigned int CategoryMaskOf(unsigned int hTrace, const char* pszWord) {
    if (const NamedValue* pNamed = FindValue(kCategories, pszWord)) {
        return static_cast<unsigned int>(pNamed->value);
    }
    if (IsHexadecimal(pszWord)) {
        return Number(pszWord, 16);
    }
    const unsigned int named = *pszWord != '0' ? tq_TraceLookupCategory(hTrace, pszWord) : 0;
    return named != 0 ? named : Number(pszWord);
}

FUNCTION_RC SetTraceCategory(TELNET_INSTANCE*, char* pszArguments, unsigned int, char** ppszResponse) {
    const char* pszMask = tq_TelnetGetNextToken(&pszArguments);
    const unsigned int hTrace = NextTraceInstance(&pszArguments);
    if (hTrace == 0) {
        return FUNCTION_RC::ERROR;
    }
    const char sign = *pszMask;
    const unsigned int value = CategoryMaskOf(hTrace, sign == '+' || sign == '-' ? pszMask + 1 : pszMask);
    const unsigned int mask = static_cast<unsigned int>(tq_TraceGetCatMask(hTrace));
    const unsigned int newMask = sign == '+' ? mask | value : sign == '-' ? mask & ~value : value;
    return AnswerTraceSummary(tq_TraceSetCatMask(hTrace, static_cast<int>(newMask)), ppszResponse);
}

} // namespace

// CLose and what concerns the session itself

namespace {

FUNCTION_RC CloseSocket(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char**) {
    const char* pszSocket = tq_TelnetGetNextToken(&pszArguments);
    if (!pszSocket) {
        return Say(pTelnetInstance, "Must supply a socket handle.");
    }
    if (!tq_SocketCloseFromTelnet(Number(pszSocket))) {
        return Say(pTelnetInstance, "Must supply a valid socket handle.");
    }
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC CloseTimer(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char** ppszResponse) {
    const char* pszQueue = tq_TelnetGetNextToken(&pszArguments);
    const char* pszInstance = tq_TelnetGetNextToken(&pszArguments);
    const char* pszUserParm = tq_TelnetGetNextToken(&pszArguments);
    const char* pszFlags = tq_TelnetGetNextToken(&pszArguments);
    if (!pszQueue) {
        return Say(pTelnetInstance, "Must supply a MsgQ value.");
    }
    if (!pszInstance) {
        return Say(pTelnetInstance, "Must supply an Instance value.");
    }
    if (tq_TimerKill(Number(pszQueue), Number(pszInstance), pszUserParm ? Number(pszUserParm) : 0,
                     pszFlags ? Number(pszFlags) : 0) != 0) {
        return Say(pTelnetInstance, "Could not find a matching Timer.");
    }
    tq_TimerShowTimers(ppszResponse);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC RunScript(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char**) {
    const char* pszFilename = tq_TelnetGetNextToken(&pszArguments);
    return pszFilename ? tq_TelnetRunScript(pTelnetInstance, pszFilename) : FUNCTION_RC::SUCCESS;
}

FUNCTION_RC SetEcho(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int, char**) {
    const char* pszSwitch = tq_TelnetGetNextToken(&pszArguments);
    const bool bOn = pszSwitch && strcasecmp(pszSwitch, "on") == 0;
    if (!bOn && !(pszSwitch && strcasecmp(pszSwitch, "off") == 0)) {
        return FUNCTION_RC::ERROR;
    }
    pTelnetInstance->bEcho = bOn;
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC Quit(TELNET_INSTANCE*, char* pszArguments, unsigned int, char**) {
    return *pszArguments == '\0' ? FUNCTION_RC::CLOSE_SESSION : FUNCTION_RC::ERROR;
}

} // namespace

// Help

namespace {

constexpr char kHelpIntroduction[] = "TQOS Diagnostic interface. (CTRL-E will toggle character echoing.)\r\n\r\n";

constexpr char kHelpHeader[] = "Command Summary:\r\n"
                               "  [] optional parameter      <> required parameter\r\n"
                               "  a | b - either a or b may be supplied\r\n"
                               "  short names in CAPS (eg \"sh\" for \"SHow\" or \"q\" for \"Quit\"\r\n\r\n";

constexpr char kHelpShowLine[] = "  SHow <?|SUM|SO|IN|Q|L|HL|HAS|TH|T|MEM|SEM|EN|TR|HAN>\r\n\r\n";

constexpr char kHelpCheck[] = "  CHeck MEMory  - Validates the Memory Pool blocks.\r\n"
                              "  CHeck HANdles - Looks for duplicates in the Master Handle List.\r\n\r\n";

constexpr char kHelpSetLine[] = "  SET <? | SEM | MEM | TR | HIS>\r\n\r\n";

constexpr char kHelpSend[] = "  SEnd <queue-name | queue-id> custom command\r\n"
                             "         - Send a custom command to a specific msg queue.\r\n\r\n";

constexpr char kHelpReset[] = "  REset HISTogram - Resets memory allocation histogram data (if enabled).\r\n\r\n";

constexpr char kHelpClose[] = "  CLose\r\n"
                              "    SOcket <socket handle> - Closes the specified socket instance.\r\n"
                              "    Timer <MsgQ> <instance> [userparm=0] [flags=0]\r\n"
                              "         - Kills the associated timer (all parms must match).\r\n\r\n";

constexpr char kHelpRunScript[] = "  RUNscript <script file>\r\n"
                                  "         - Runs the telnet interpreter on the contents of <script file>.\r\n\r\n";

constexpr char kHelpEcho[] = "  Echo <on | off>   (CTRL-E)\r\n"
                             "         - Turn remote character echoing on/off.\r\n";

constexpr char kHelpRest[] = "  Help | ?\r\n"
                             "         - Display this help page.\r\n"
                             "  Quit | EXit\r\n"
                             "         - Terminate session.\r\n\r\n";

constexpr char kHelpShow[] = "  SHow\r\n"
                             "    [DETail] SUMmary\r\n"
                             "           Sends a summary command to each named message queue.\r\n"
                             "    [DETail] SOckets [socket handle]\r\n"
                             "           Displays a summary of each open socket.\r\n"
                             "           With DETail and a socket handle, displays the details of that socket.\r\n"
                             "    INterfaces\r\n"
                             "           Displays the network interfaces with their addresses.\r\n"
                             "    [DETail] Queues [id]\r\n"
                             "           Displays a summary of each message queue.\r\n"
                             "           With DETail and an id, displays the header of each message in that queue.\r\n"
                             "    Lists [start=] [max=] [sort=count|maxcount|handle|name] [Search String]\r\n"
                             "           Displays the lists whose names contain the search string.\r\n"
                             "           start defaults to 1, max defaults to all.\r\n"
                             "           A \"-\" before the sort word reverses the order (eg \"sort=-count\").\r\n"
                             "           A \"-\" before the search string filters the matches out.\r\n"
                             "    HLists [Starting List Index] [Search String]\r\n"
                             "           Displays up to 40 lists that contain hashes.\r\n"
                             "           The search string is case-sensitive.\r\n"
                             "    [DETail] HAShes <List Handle> [Hash Index]\r\n"
                             "           Displays a summary of each hash of a list.\r\n"
                             "           With DETail and a hash index, displays the node count of each hash value.\r\n"
                             "    THreads\r\n"
                             "           Displays the threads.\r\n"
                             "    Timers\r\n"
                             "           Displays the timers that are running.\r\n"
                             "    TICks\r\n"
                             "           Displays the number of milliseconds for each clock tick.\r\n"
                             "    [DETail] MEMory [options]\r\n"
                             "           Displays memory statistics.\r\n"
                             "           CAUTION: DETail with memory pooling enabled lists ALL allocations!\r\n"
                             "           See \"SHow [DETail] MEMory ?\" for the options.\r\n"
                             "    SEMaphores\r\n"
                             "           Displays the locks that are owned or waited for.\r\n"
                             "    ENdian\r\n"
                             "           Displays the byte order of the system.\r\n"
                             "    [DETail] TRace [trace instance]\r\n"
                             "           Displays a summary of each trace instance.\r\n"
                             "           With DETail and a trace instance, displays the details of that instance.\r\n"
                             "    HANdles\r\n"
                             "           Displays the number of handles that are available and in use.\r\n"
                             "    DIR\r\n"
                             "           Displays the current working directory.\r\n"
                             "    UPtime\r\n"
                             "           Displays how long TQOS has been up.\r\n"
                             "    CURtime\r\n"
                             "           Displays the current system time in milliseconds.\r\n"
                             "\r\n";

constexpr char kHelpSet[] =
    "  SET\r\n"
    "    MEMory\r\n"
    "           Marks all current memory blocks, so that \"Show det mem\" hides them.\r\n"
    "    SEMaphores <ON | OFF>\r\n"
    "           Turns the tracking of semaphores on/off.\r\n"
    "    TRace    (instance can be name or id)\r\n"
    "           LEVel <value> <instance> \r\n"
    "              value may be decimal, hexadecimal (0x...) or one of:\r\n"
    "              'Critical', 'Severe', 'Warning', 'Informational', 'Debug', 'Low', 'None', 'All'\r\n"
    "           CATegory [+|-]<bit-mask> <instance>\r\n"
    "              bit-mask may be decimal, hexadecimal (0x...) or a string:\r\n"
    "              'None', 'All' or a custom category as listed by\r\n"
    "              \"SHow DETail TRace <instance>\".\r\n"
    "              + or - adds or removes the bits (eg \"set tr cat +0x01 <instance>\").\r\n"
    "           ENable  - enables tracing to specified output\r\n"
    "              STDOut <instance>\r\n"
    "              STDErr <instance>\r\n"
    "              MULticast <instance>\r\n"
    "              FILE <instance> <logfile> <max files> <max bytes per file>\r\n"
    "              DEVstudio <instance>\r\n"
    "              TIMestamp <instance>\r\n"
    "              THReadid <instance>\r\n"
    "              DELtatime\r\n"
    "           DISable - disables tracing to specified output\r\n"
    "              STDOut <instance>\r\n"
    "              STDErr <instance>\r\n"
    "              MULticast <instance>\r\n"
    "              FILE <instance>\r\n"
    "              DEVstudio <instance>\r\n"
    "              TIMestamp <instance>\r\n"
    "              THReadid <instance>\r\n"
    "              DELtatime\r\n"
    "    HIStory <queue name or id> <depth>\r\n"
    "           Enables the tracking of the messages that a queue handles.\r\n"
    "           depth is 100 at most, 0 turns the tracking off.\r\n";

constexpr char kHelpMemory[] =
    "  SHow [DETail] MEMory [options]\r\n"
    "           Displays the statistics of each memory pool and the totals, with the\r\n"
    "           changes since the last time. Without pools, the totals alone.\r\n"
    "           With DETail, displays the memory blocks that are in use: size, address,\r\n"
    "           file and line that allocated it, first bytes. \"SET MEMory\" hides those of now.\r\n"
    "           DETail needs memory pooling and tracking, as do the options for it.\r\n"
    "    pool=<n>\r\n"
    "           Only pool n (1 is the first).\r\n"
    "    filter=<text>\r\n"
    "           DETail: only blocks from files whose names contain the text (in either case).\r\n"
    "    filterout=<text>\r\n"
    "           DETail: only blocks from files whose names do not contain the text.\r\n"
    "    size=<n>\r\n"
    "           DETail: only blocks of exactly n bytes.\r\n"
    "    line=<n>\r\n"
    "           DETail: only blocks that line n of their file allocated.\r\n"
    "    group\r\n"
    "           DETail: one line for all blocks of the same file and line.\r\n"
    "    group=[-]alpha|bytes|count|ratio\r\n"
    "           DETail: the same, sorted by file name, total bytes, number of blocks or\r\n"
    "           bytes per block, the least first. A \"-\" reverses the order.\r\n"
    "    histogram\r\n"
    "           Displays how many blocks of each size are and were allocated (if enabled).\r\n"
    "           Only format= and file= go with it.\r\n"
    "    format=numeric|graphic|combo|ini\r\n"
    "           histogram: as numbers, as bars (default), as both, or as a [Memory]\r\n"
    "           section for tqos.ini with pools that suit what was allocated.\r\n"
    "    file=<filename>\r\n"
    "           Writes the report to a file.\r\n";

const char* const kGeneralHelp[] = {
    kHelpIntroduction, kHelpHeader, kHelpShowLine,  kHelpCheck, kHelpSetLine, kHelpSend,
    kHelpReset,        kHelpClose,  kHelpRunScript, kHelpEcho,  kHelpRest,
};
const char* const kScriptHelp[] = {kHelpHeader, kHelpReset, kHelpClose, kHelpRunScript};
const char* const kShowHelp[] = {kHelpHeader, kHelpShow};
const char* const kSetHelp[] = {kHelpHeader, kHelpSet};
const char* const kMemoryHelp[] = {kHelpHeader, kHelpMemory};

template <size_t N> FUNCTION_RC SendHelp(const TELNET_INSTANCE* pTelnetInstance, const char* const (&pieces)[N]) {
    for (const char* pszPiece : pieces) {
        tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "%s", pszPiece);
    }
    tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "%s", "\r\n");
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC GeneralHelp(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    return SendHelp(pTelnetInstance, kGeneralHelp);
}

FUNCTION_RC ShowHelp(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    return SendHelp(pTelnetInstance, kShowHelp);
}

FUNCTION_RC MemoryHelp(const TELNET_INSTANCE* pTelnetInstance) {
    return SendHelp(pTelnetInstance, kMemoryHelp);
}

FUNCTION_RC SetHelp(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    return SendHelp(pTelnetInstance, kSetHelp);
}

} // namespace

FUNCTION_RC tq_TelnetScriptHelp(TELNET_INSTANCE* pTelnetInstance, char*, unsigned int, char**) {
    return SendHelp(pTelnetInstance, kScriptHelp);
}

// The tables. The first row that matches counts: "t" is Timers, since TICks, THreads and TRace need more letters, and
// "se" is SEnd, since it stands before SET.

namespace {

// clang-format off
constexpr TOKEN_PARSER kShowCommands[] = {
    { "DETail",     nullptr,                          kFlagDetail, nullptr },
    { "SUMmary",    ShowSummary,                      0, nullptr },
    { "SOckets",    ShowSockets,                      0, nullptr },
    { "INterfaces", ShowInterfaces,                   0, nullptr },
    { "Queues",     ShowQueues,                       0, nullptr },
    { "Lists",      ShowLists<false>,                 0, nullptr },
    { "HLists",     ShowLists<true>,                  0, nullptr },
    { "HAShes",     ShowHashes,                       0, nullptr },
    { "MEMory",     ShowMemory,                       0, nullptr },
    { "TICks",      ShowReport<tq_TimeShowMSPerTick>, 0, nullptr },
    { "Timers",     ShowReport<tq_TimerShowTimers>,   0, nullptr },
    { "THreads",    ShowReport<tq_ShowThreads>,       0, nullptr },
    { "SEMaphores", ShowReport<tq_ShowSemaphores>,    0, nullptr },
    { "HANdles",    ReportToSession<tq_ShowHandles>,  0, nullptr },
    { "TRace",      ShowTrace,                        0, nullptr },
    { "ENdian",     ShowEndian,                       0, nullptr },
    { "DIR",        ShowDirectory,                    0, nullptr },
    { "UPtime",     ShowUptime,                       0, nullptr },
    { "CURtime",    ShowCurrentTime,                  0, nullptr },
    { "?",          ShowHelp,                         0, nullptr },
    { nullptr,      nullptr,                          0, nullptr },
};

constexpr TOKEN_PARSER kSetTraceCommands[] = {
    { "ENable",    nullptr,                                                           kFlagEnable,  nullptr },
    { "DISable",   nullptr,                                                           kFlagDisable, nullptr },
    { "STDOut",    SetTraceSwitch<tq_TraceEnableSTDOUT, tq_TraceDisableSTDOUT>,       0, nullptr },
    { "STDErr",    SetTraceSwitch<tq_TraceEnableSTDERR, tq_TraceDisableSTDERR>,       0, nullptr },
    { "MULticast", SetTraceSwitch<tq_TraceEnableMulticast, tq_TraceDisableMulticast>, 0, nullptr },
    { "DEVstudio", SetTraceSwitch<tq_TraceEnableDevStudio, tq_TraceDisableDevStudio>, 0, nullptr },
    { "FILE",      SetTraceFile,                                                      0, nullptr },
    { "TIMestamp", SetTraceSwitch<ShowTimestamps, HideTimestamps>,                    0, nullptr },
    { "THReadid",  SetTraceSwitch<ShowThreadIds, HideThreadIds>,                      0, nullptr },
    { "DELtatime", SetTraceDeltaTime,                                                 0, nullptr },
    { "LEVel",     SetTraceLevel,                                                     0, nullptr },
    { "CATegory",  SetTraceCategory,                                                  0, nullptr },
    { nullptr,     nullptr,                                                           0, nullptr },
};

constexpr TOKEN_PARSER kSetCommands[] = {
    { "MEMory",     SetMemory,     0, nullptr },
    { "SEMaphores", SetSemaphores, 0, nullptr },
    { "TRace",      nullptr,       0, kSetTraceCommands },
    { "HIStory",    SetHistory,    0, nullptr },
    { "?",          SetHelp,       0, nullptr },
    { nullptr,      nullptr,       0, nullptr },
};

constexpr TOKEN_PARSER kCheckCommands[] = {
    { "MEMory",  ReportToSession<tq_CheckMemoryPoolsFromTelnet>, 0, nullptr },
    { "HANdles", ReportToSession<tq_CheckForDuplicateHandles>,   0, nullptr },
    { nullptr,   nullptr,                                        0, nullptr },
};

constexpr TOKEN_PARSER kResetCommands[] = {
    { "HISTogram", ReportToSession<tq_MemoryClearHistogram>, 0, nullptr },
    { nullptr,     nullptr,                                  0, nullptr },
};

constexpr TOKEN_PARSER kCloseCommands[] = {
    { "SOcket", CloseSocket, 0, nullptr },
    { "Timer",  CloseTimer,  0, nullptr },
    { nullptr,  nullptr,     0, nullptr },
};

} // namespace

const TOKEN_PARSER kTopCommands[] = {
    { "SHow",      nullptr,     0, kShowCommands },
    { "SEnd",      SendCustom,  0, nullptr },
    { "SET",       nullptr,     0, kSetCommands },
    { "CHeck",     nullptr,     0, kCheckCommands },
    { "REset",     nullptr,     0, kResetCommands },
    { "CLose",     nullptr,     0, kCloseCommands },
    { "RUNscript", RunScript,   0, nullptr },
    { "Echo",      SetEcho,     0, nullptr },
    { "Help",      GeneralHelp, 0, nullptr },
    { "?",         GeneralHelp, 0, nullptr },
    { "Quit",      Quit,        0, nullptr },
    { "EXit",      Quit,        0, nullptr },
    { nullptr,     nullptr,     0, nullptr },
};
// clang-format on
