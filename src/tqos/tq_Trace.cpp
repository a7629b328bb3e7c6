#include "tq_Trace_p.h"

#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

#include "tq_CriticalErrorTrace_p.h"
#include "tq_Dir_p.h"
#include "tq_Handle.h"
#include "tq_HeldLocks_p.h"
#include "tq_IniKeys_p.h"
#include "tq_LibraryTrace_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_NetTrace_p.h"
#include "tq_Report_p.h"
#include "tq_Thread.h"
#include "tq_Time.h"
#include "tq_WorkingLock_p.h"

// Settings

int gDefaultTraceLevel;
unsigned int gDefaultTraceCat;
int gDefaultFlags;
bool gbDefaultSuppressTimestamp;
bool gbDefaultShowThreadID;
char* gpszDefaultFilePrefix;
unsigned int gDefaultMaxFiles;
unsigned int gDefaultMaxBytesPerFile;

namespace {

constexpr char kSection[] = "Trace";

/// Stands for a level that is not configured; no instance is opened with it.
constexpr int kNoLevel = -0x7FFFFFFF;

constexpr tq_IniInteger kIntegerKeys[] = {
    {"DefaultCat", -1, &gDefaultTraceCat},
    {"DefaultMaxFiles", 1, &gDefaultMaxFiles},
    {"DefaultMaxBytesPerFile", 0, &gDefaultMaxBytesPerFile},
};

constexpr tq_IniSwitch kSwitchKeys[] = {
    {"ShowDeltaTime", false, &gbShowTimeDeltas},
    {"DefaultSuppressTimestamp", false, &gbDefaultSuppressTimestamp},
    {"DefaultShowThreadID", false, &gbDefaultShowThreadID},
};

struct LevelText {
    int level;
    const char* pszWord;    ///< what the configuration calls it
    const char* pszCentred; ///< summary column
    const char* pszPlain;   ///< details
    const char* pszTag;     ///< line tag; null: messages of this level have none of their own
};

// Deliberate: the word for 5000 is "Low" alone. A reader of the details would expect "Debug Low", which is no word here
// and reads as a number would.
constexpr LevelText kLevels[] = {
    {TQ_TRACE_LEVEL_ALL, "All", "  All   ", "All", nullptr},
    {TQ_TRACE_LEVEL_DEBUG_LOW, "Low", "  Low   ", "Debug Low", "LOW: "},
    {TQ_TRACE_LEVEL_DEBUG, "Debug", " Debug  ", "Debug", "DEB: "},
    {TQ_TRACE_LEVEL_INFORMATIONAL, "Informational", " Inform ", "Informational", "INF: "},
    {TQ_TRACE_LEVEL_WARNING, "Warning", "Warning ", "Warning", "WRN: "},
    {TQ_TRACE_LEVEL_SEVERE, "Severe", " Severe ", "Severe", "SEV: "},
    {TQ_TRACE_LEVEL_CRITICAL, "Critical", "Critical", "Critical", "CRT: "},
    {TQ_TRACE_LEVEL_NONE, "None", "  None  ", "None", nullptr},
};

/// The row of exactly this level, or null.
const LevelText* FindLevel(int level) {
    for (const LevelText& row : kLevels) {
        if (row.level == level) {
            return &row;
        }
    }
    return nullptr;
}

const char* LevelTag(int level) {
    // Deliberate: only the exact values have a tag. A level in between, 45000 for instance, is not taken as the one
    // below it but prints as unknown.
    const LevelText* pRow = FindLevel(level);
    return pRow && pRow->pszTag ? pRow->pszTag : "UNK: ";
}

struct SystemLogPriority {
    unsigned int above;
    int priority;
};

// From the top: the first row whose bound is below the level's magnitude. LOG_NOTICE is never used.
constexpr SystemLogPriority kSystemLogPriorities[] = {
    {TQ_TRACE_LEVEL_CRITICAL, LOG_ALERT},        {TQ_TRACE_LEVEL_SEVERE, LOG_CRIT}, {TQ_TRACE_LEVEL_WARNING, LOG_ERR},
    {TQ_TRACE_LEVEL_INFORMATIONAL, LOG_WARNING}, {TQ_TRACE_LEVEL_DEBUG, LOG_INFO},
};

/// One message on its way out: its line as all destinations get it, formatted once where it fits.
struct TraceLine {
    char head[84]; ///< what stands before the name
    const char* pszTag;
    const char* pszFormat;
    const char* pszAsGiven; ///< what the caller passed as format; its length counts for the rotation
    char text[1024];        ///< as much of the line as fits, and always a terminator
    size_t length;          ///< of the whole line
    bool Fits() const { return length < sizeof(text); }
};

void WriteToFile(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args);
void WriteToStandardOutput(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args);
void WriteToStandardError(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args);
void WriteToViewers(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args);

struct Destination {
    int bit;
    char letter;               ///< in the report's Type column, which has the order of the rows
    const char* pszDefaultKey; ///< switches the bit on for instances that are not configured; null: not a plain switch
    const char* pszInstanceKey;
    /// Null: nothing is written from here.
    void (*pfnWrite)(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args);
};

constexpr Destination kDestinations[] = {
    {TQ_TRACE_DEST_FILE, 'F', nullptr, nullptr, WriteToFile},
    {TQ_TRACE_DEST_STDOUT, 'S', "DefaultLogToSTDOUT", "LogToSTDOUT", WriteToStandardOutput},
    {TQ_TRACE_DEST_STDERR, 'E', "DefaultLogToSTDERR", "LogToSTDERR", WriteToStandardError},
    {TQ_TRACE_DEST_MULTICAST, 'M', "DefaultLogToMultiCast", "LogToMulticast", WriteToViewers},
    {TQ_TRACE_DEST_DEVSTUDIO, 'D', "DefaultLogToDevStudio", "LogToDevStudio", nullptr},
};
constexpr size_t kDestinationCount = sizeof(kDestinations) / sizeof(kDestinations[0]);

/// A level given as a word or a number; kNoLevel when the key is missing.
int ReadLevel(const char* pszKey) {
    char text[513];
    int level = kNoLevel;
    tq_GetINIFileString(kSection, pszKey, "", text, sizeof(text), psz_tqos_ini_file);
    if (ConvertStringToLevel(text, &level)) {
        return level;
    }
    return tq_GetINIFileInt(kSection, pszKey, kNoLevel, psz_tqos_ini_file);
}

bool StartsLikeANumber(const char* pszText) {
    if (*pszText == '-' || *pszText == '+') {
        ++pszText;
    }
    return *pszText >= '0' && *pszText <= '9';
}

/// The default level. Unlike an instance's own, text that is no level and no number is not understood rather than 0.
int ReadDefaultLevel() {
    constexpr char kKey[] = "DefaultLevel";
    char text[513];
    int level = kNoLevel;
    tq_GetINIFileString(kSection, kKey, "", text, sizeof(text), psz_tqos_ini_file);
    if (ConvertStringToLevel(text, &level)) {
        return level;
    }
    return StartsLikeANumber(text) ? tq_GetINIFileInt(kSection, kKey, kNoLevel, psz_tqos_ini_file) : kNoLevel;
}

int ReadDefaultDestinations() {
    int flags = 0;
    for (const Destination& row : kDestinations) {
        if (row.pszDefaultKey && tq_GetINIFileAffirmative(kSection, row.pszDefaultKey, "no", psz_tqos_ini_file)) {
            flags |= row.bit;
        }
    }
    char prefix[256];
    tq_GetINIFileString(kSection, "DefaultLogToFilePrefix", "", prefix, sizeof(prefix), psz_tqos_ini_file);
    if (prefix[0]) {
        flags |= TQ_TRACE_DEST_FILE | TQ_TRACE_DEST_FLUSH;
        gpszDefaultFilePrefix = tq_newString(prefix);
    }
    return flags;
}

void ReadSettings() {
    tq_ReadIniTable(kSection, kIntegerKeys);
    tq_ReadIniTable(kSection, kSwitchKeys);
    tq_NetTraceReadSettings();
    gDefaultFlags = ReadDefaultDestinations();
    gDefaultTraceLevel = ReadDefaultLevel();
    if (gDefaultTraceLevel == kNoLevel) {
        gDefaultTraceLevel = TQ_TRACE_LEVEL_WARNING;
        gDefaultFlags = gDefaultFlags ? gDefaultFlags : TQ_TRACE_DEST_STDERR;
    }
}

/// The settings of one instance: its keys are its name, an underscore and a suffix.
class InstanceSettings {
public:
    InstanceSettings(const char* pszName, const char* pszFilename, unsigned int line)
        : m_pszName(pszName), m_bytes(strlen(pszName) + kSuffixBytes),
          m_pszKey(static_cast<char*>(tq__malloc(static_cast<unsigned int>(m_bytes), pszFilename, line))) {}
    ~InstanceSettings() { tq_free(m_pszKey); }
    InstanceSettings(const InstanceSettings&) = delete;
    InstanceSettings& operator=(const InstanceSettings&) = delete;

    /// False without memory for the keys; then nothing can be read.
    explicit operator bool() const { return m_pszKey != nullptr; }

    int Level() { return ReadLevel(Key("Level")); }
    int Integer(const char* pszSuffix, int iDefault) {
        return tq_GetINIFileInt(kSection, Key(pszSuffix), iDefault, psz_tqos_ini_file);
    }
    bool Switch(const char* pszSuffix, bool bDefault) {
        return tq_GetINIFileAffirmative(kSection, Key(pszSuffix), bDefault ? "yes" : "no", psz_tqos_ini_file);
    }
    template <unsigned int Bytes> void Text(const char* pszSuffix, const char* pszDefault, char (&text)[Bytes]) {
        tq_GetINIFileString(kSection, Key(pszSuffix), pszDefault, text, Bytes, psz_tqos_ini_file);
    }

private:
    static constexpr size_t kSuffixBytes = 32; // underscore, longest suffix, terminator

    const char* Key(const char* pszSuffix) {
        snprintf(m_pszKey, m_bytes, "%s_%s", m_pszName, pszSuffix);
        return m_pszKey;
    }

    const char* m_pszName;
    size_t m_bytes;
    char* m_pszKey;
};

} // namespace

// State

std::atomic<bool> bTraceInitialized{false};
tq_Gate gTraceGate;
tq_List* gpTraceInstanceList;

tq_SemCritSec* pTimeLock;
bool gbShowTimeDeltas;
unsigned int guiLastTimeStampInMS;

std::atomic<bool> gbCriticalErrorsKept{false};

namespace {

/// What filters the messages of an instance, to be read without a lock. The place goes by the handle; an instance whose
/// place is taken by another one has none, and its messages take the longer way.
struct TraceFilter {
    std::atomic<unsigned int> handle{0}; ///< written last; 0: nobody's place
    std::atomic<int> level{0};
    std::atomic<unsigned int> mask{0}; ///< 0 for an instance without destinations: nothing gets past it
};
constexpr unsigned int kFilters = 1024; // handles are drawn one after the other, so that few share a place
TraceFilter gFilters[kFilters];         // written with gpTraceInstanceList locked

} // namespace

_TRACEINSTANCE* tq_FindTraceInstanceLocked(unsigned int hTraceInstance) {
    return static_cast<_TRACEINSTANCE*>(gpTraceInstanceList->FindFirst(tq_ListKey(hTraceInstance), LIST_TYPE_U32BITS,
                                                                       offsetof(_TRACEINSTANCE, handle), nullptr,
                                                                       LIST_DIRECTION_HEAD_TO_TAIL));
}

void tq_TraceFilterChangedLocked(unsigned int hTraceInstance) {
    TraceFilter& filter = gFilters[hTraceInstance % kFilters];
    const unsigned int owner = filter.handle.load(std::memory_order_relaxed);
    if (owner != 0 && owner != hTraceInstance) {
        return;
    }
    const _TRACEINSTANCE* pInstance = tq_FindTraceInstanceLocked(hTraceInstance);
    if (pInstance) {
        const int mask = pInstance->Flags == 0 ? 0 : pInstance->traceCategoryMask;
        filter.mask.store(static_cast<unsigned int>(mask), std::memory_order_relaxed);
        filter.level.store(pInstance->traceLevel, std::memory_order_relaxed);
    }
    filter.handle.store(pInstance ? hTraceInstance : 0, std::memory_order_release);
}

namespace {

_TRACEINSTANCE* FindByNameLocked(const char* pszName) {
    return static_cast<_TRACEINSTANCE*>(gpTraceInstanceList->FindFirst(const_cast<char*>(pszName), LIST_TYPE_PZISTR,
                                                                       offsetof(_TRACEINSTANCE, pszTracingName),
                                                                       nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
}

/// One instance, under the list's lock for a scope; false when trace does not run or the handle is unknown.
class LockedInstance {
public:
    explicit LockedInstance(unsigned int hTraceInstance)
        : m_pInstance(m_trace ? tq_FindTraceInstanceLocked(hTraceInstance) : nullptr) {}
    explicit operator bool() const { return m_pInstance != nullptr; }
    _TRACEINSTANCE* operator->() const { return m_pInstance; }
    _TRACEINSTANCE* Get() const { return m_pInstance; }

private:
    tq_LockedTrace m_trace;
    _TRACEINSTANCE* m_pInstance;
};

/// What every setter is: one change to one instance. 0, or 1 when there is no such instance.
template <typename Change> int ChangeInstance(unsigned int hTraceInstance, Change change) {
    LockedInstance instance(hTraceInstance);
    if (!instance) {
        return 1;
    }
    change(*instance.Get());
    tq_TraceFilterChangedLocked(hTraceInstance);
    return 0;
}

int SetDestination(unsigned int hTraceInstance, int bit) {
    return ChangeInstance(hTraceInstance, [bit](_TRACEINSTANCE& instance) { instance.Flags |= bit; });
}

int ClearDestination(unsigned int hTraceInstance, int bit) {
    return ChangeInstance(hTraceInstance, [bit](_TRACEINSTANCE& instance) { instance.Flags &= ~bit; });
}

// Log files

FILE* OpenLogFile(const char* pszPrefix, const char* pszSuffix, int maxFiles, int index) {
    char name[PATH_MAX]; // a longer path cannot be opened anyway
    const int length =
        maxFiles ? snprintf(name, sizeof(name), "%s%04u.%s", pszPrefix, static_cast<unsigned int>(index), pszSuffix)
                 : snprintf(name, sizeof(name), "%s.%s", pszPrefix, pszSuffix);
    return length >= 0 && static_cast<size_t>(length) < sizeof(name) ? fopen(name, "w+") : nullptr;
}

void CloseLogFile(_TRACEINSTANCE* pInstance) {
    if (pInstance->hFile) {
        fclose(pInstance->hFile);
        pInstance->hFile = nullptr;
    }
}

/// Cuts a path where its extension starts, and says where that is: at its end when it has none.
char* CutExtension(char* pszPath) {
    // Deliberate: only a backslash ends a directory here. In a path with slashes a dot in a directory's name cuts the
    // path there when the file's name has none: "app.d/trace" is the file "app" with the extension "d/trace".
    char* pszBackslash = strrchr(pszPath, '\\');
    char* pszDot = strrchr(pszPath, '.');
    if (!pszDot || (pszBackslash && pszDot < pszBackslash)) {
        return pszPath + strlen(pszPath);
    }
    *pszDot = '\0';
    return pszDot + 1;
}

int EnableFileLocked(_TRACEINSTANCE* pInstance, const char* pszPath, int maxFiles, int maxBytesPerFile,
                     const char* pszFilename, unsigned int line) {
    char* pszPrefix = tq_newStringAt(pszPath, pszFilename, line);
    if (!pszPrefix) {
        return 1;
    }
    char* pszSuffix = tq_newStringAt(CutExtension(pszPrefix), pszFilename, line);
    if (maxBytesPerFile == 0) {
        maxFiles = 0;
    }
    FILE* hFile = pszSuffix ? OpenLogFile(pszPrefix, pszSuffix, maxFiles, 0) : nullptr;
    if (!hFile) {
        tq_free(pszPrefix);
        tq_free(pszSuffix);
        return 1;
    }
    tq_free(pInstance->pszNamePrefix);
    tq_free(pInstance->pszNameSuffix);
    pInstance->Flags |= TQ_TRACE_DEST_FLUSH | TQ_TRACE_DEST_FILE;
    pInstance->maxFiles = maxFiles;
    pInstance->bytesPerFile = maxBytesPerFile;
    // Deliberate: a file that is open already is not closed first. It stays open, and complete, to the process's end;
    // enabling files over and over uses up descriptors. Disable the file before enabling another.
    pInstance->hFile = hFile;
    pInstance->currentFileIndex = 0;
    pInstance->totalBytesWritten = 0;
    pInstance->pszNamePrefix = pszPrefix;
    pInstance->pszNameSuffix = pszSuffix;
    return 0;
}

void DisableFileLocked(_TRACEINSTANCE* pInstance) {
    CloseLogFile(pInstance);
    tq_free(pInstance->pszNamePrefix);
    tq_free(pInstance->pszNameSuffix);
    pInstance->pszNamePrefix = nullptr;
    pInstance->pszNameSuffix = nullptr;
    pInstance->Flags &= ~(TQ_TRACE_DEST_FLUSH | TQ_TRACE_DEST_FILE);
    pInstance->maxFiles = 0;
    pInstance->bytesPerFile = 0;
    pInstance->currentFileIndex = 0;
    pInstance->totalBytesWritten = 0;
}

/// Goes on to the next file of the cycle, or starts the only one again. When it cannot be opened the instance is
/// without a file until one is enabled again.
void RotateLogFile(_TRACEINSTANCE* pInstance) {
    CloseLogFile(pInstance);
    if (pInstance->maxFiles) {
        pInstance->currentFileIndex = (pInstance->currentFileIndex + 1) % pInstance->maxFiles;
    }
    pInstance->hFile = OpenLogFile(pInstance->pszNamePrefix, pInstance->pszNameSuffix, pInstance->maxFiles,
                                   pInstance->currentFileIndex);
    pInstance->totalBytesWritten = 0;
}

bool RotationIsDue(const _TRACEINSTANCE* pInstance, const TraceLine& line) {
    if (pInstance->bytesPerFile == 0) {
        return false;
    }
    // Deliberate: the room is measured by the length of the format, not of the text it becomes. A file may so grow past
    // its size by one line, or rotate a little early.
    return static_cast<long long>(pInstance->totalBytesWritten) + static_cast<long long>(strlen(line.pszAsGiven)) >=
           pInstance->bytesPerFile;
}

// Output

/// Whether a message of this level and category gets past a threshold and a mask.
bool Passes(int threshold, unsigned int mask, int level, unsigned int category) {
    const int negated = static_cast<int>(0u - static_cast<unsigned int>(level));
    return (threshold >= 0 || threshold == negated) && threshold <= level && (mask & category) != 0;
}

/// The destination bits that a message of this level and category uses; 0 when it is filtered out.
int DestinationsFor(const _TRACEINSTANCE* pInstance, int level, unsigned int category) {
    const unsigned int mask = static_cast<unsigned int>(pInstance->traceCategoryMask);
    return Passes(pInstance->traceLevel, mask, level, category) ? pInstance->Flags : 0;
}

/// Whether it is certain, without a lock, that a message goes nowhere. What is read is the instance's at some moment of
/// the call, each field by itself; since either alone is reason enough, they need not be of one moment.
bool IsFilteredOut(unsigned int hTraceInstance, int level, unsigned int category) {
    const TraceFilter& filter = gFilters[hTraceInstance % kFilters];
    return filter.handle.load(std::memory_order_acquire) == hTraceInstance &&
           !Passes(filter.level.load(std::memory_order_relaxed), filter.mask.load(std::memory_order_relaxed), level,
                   category);
}

} // namespace

bool tq_TraceIsFilteredOut(unsigned int hTraceInstance, int level, unsigned int category) {
    return IsFilteredOut(hTraceInstance, level, category);
}

namespace {

/// The time of a line in milliseconds, or since the line before it.
unsigned int NextStamp() {
    tq_CritSecLock lock(pTimeLock);
    const unsigned int now = tq_GetTimeInMS();
    if (!gbShowTimeDeltas) {
        return now;
    }
    const unsigned int delta = now - guiLastTimeStampInMS;
    guiLastTimeStampInMS = now;
    return delta;
}

/// The date text, made anew each second. The list of the instances is locked.
const char* DateTextLocked() {
    static char text[26];
    static time_t second = -1;
    static long zone = 0;
    const time_t now = time(nullptr);
    if (now != second || timezone != zone) {
        tq_GetASCTime(text);
        second = now;
        zone = timezone;
    }
    return text;
}

void FillHead(TraceLine& line, const _TRACEINSTANCE* pInstance, bool bIncludeTimeStamp) {
    const bool bDate = bIncludeTimeStamp && !pInstance->bSuppressTimeStamps;
    char threads[36] = "";
    if (pInstance->bShowThreadID) {
        snprintf(threads, sizeof(threads), "TID:%u:%u ", tq_GetThreadId(), tq_GetPSThreadId());
    }
    snprintf(line.head, sizeof(line.head), "%s%s[%u]: %s", bDate ? DateTextLocked() : "", bDate ? " " : "", NextStamp(),
             threads);
}

void FillText(TraceLine& line, const _TRACEINSTANCE* pInstance, va_list args) {
    va_list own;
    va_copy(own, args);
    const int before =
        snprintf(line.text, sizeof(line.text), "%s(%s) %s", line.head, pInstance->pszTracingName, line.pszTag);
    const size_t used = before < 0 ? 0 : static_cast<size_t>(before);
    line.length = sizeof(line.text); // too long, unless it turns out otherwise
    if (used < sizeof(line.text)) {
        line.text[used] = '\0';
        const int message = vsnprintf(line.text + used, sizeof(line.text) - used, line.pszFormat, own);
        line.length = message < 0 ? line.length : used + static_cast<size_t>(message);
    }
    line.text[sizeof(line.text) - 1] = '\0';
    va_end(own);
}

/// Writes the line and says how many bytes went out. Uses the arguments up.
unsigned int PrintLine(FILE* hStream, const _TRACEINSTANCE* pInstance, const TraceLine& line, va_list args) {
    if (line.Fits()) {
        return static_cast<unsigned int>(fwrite(line.text, 1, line.length, hStream));
    }
    const int written[] = {
        fprintf(hStream, "%s", line.head),
        fprintf(hStream, "(%s) ", pInstance->pszTracingName),
        fprintf(hStream, "%s", line.pszTag),
        vfprintf(hStream, line.pszFormat, args),
    };
    unsigned int bytes = 0;
    for (const int count : written) {
        bytes += count > 0 ? static_cast<unsigned int>(count) : 0;
    }
    return bytes;
}

void WriteToFile(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args) {
    if (!pInstance->hFile) {
        return;
    }
    const unsigned int bytes = PrintLine(pInstance->hFile, pInstance, line, args);
    // Unsigned: a file that never rotates may grow past what the counter holds; it then starts again.
    pInstance->totalBytesWritten = static_cast<int>(static_cast<unsigned int>(pInstance->totalBytesWritten) + bytes);
    if (pInstance->Flags & TQ_TRACE_DEST_FLUSH) {
        fflush(pInstance->hFile);
    }
    if (RotationIsDue(pInstance, line)) {
        RotateLogFile(pInstance);
    }
}

void WriteToStandardOutput(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args) {
    PrintLine(stdout, pInstance, line, args);
}

void WriteToStandardError(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list args) {
    PrintLine(stderr, pInstance, line, args);
}

void WriteToViewers(_TRACEINSTANCE* pInstance, const TraceLine& line, va_list) {
    if (pInstance->pNetTrace) {
        pInstance->pNetTrace->SendTrace(line.text); // a viewer gets what fits
    }
}

int SystemLogPriorityOf(int level) {
    const unsigned int value = static_cast<unsigned int>(level);
    const unsigned int magnitude = level < 0 ? 0u - value : value;
    for (const SystemLogPriority& row : kSystemLogPriorities) {
        if (magnitude > row.above) {
            return row.priority;
        }
    }
    return LOG_DEBUG;
}

/// Each destination has its own copy of the arguments: a used argument list cannot be used again.
void WriteToDestination(const Destination& row, _TRACEINSTANCE* pInstance, const TraceLine& line, va_list args) {
    va_list own;
    va_copy(own, args);
    row.pfnWrite(pInstance, line, own);
    va_end(own);
}

void WriteToSystemLog(int level, const TraceLine& line, va_list args) {
    va_list own;
    va_copy(own, args);
    vsyslog(SystemLogPriorityOf(level), line.pszFormat, own);
    va_end(own);
}

/// The whole way of one message. pszAsGiven is the text whose length counts for the rotation, mostly the format itself.
void TraceMessage(unsigned int hTraceInstance, int level, unsigned int category, bool bIncludeTimeStamp,
                  const char* pszAsGiven, const char* pszFormat, va_list args) {
    if (IsFilteredOut(hTraceInstance, level, category)) {
        return;
    }
    LockedInstance instance(hTraceInstance);
    const int destinations = instance ? DestinationsFor(instance.Get(), level, category) : 0;
    if (destinations == 0) {
        return;
    }
    TraceLine line;
    FillHead(line, instance.Get(), bIncludeTimeStamp);
    line.pszTag = LevelTag(level);
    line.pszFormat = pszFormat;
    line.pszAsGiven = pszAsGiven;
    FillText(line, instance.Get(), args);
    for (const Destination& row : kDestinations) {
        if ((destinations & row.bit) && row.pfnWrite) {
            WriteToDestination(row, instance.Get(), line, args);
        }
    }
    WriteToSystemLog(level, line, args);
}

// Hex dump

constexpr unsigned int kBytesPerDumpLine = 16;

/// One line of a dump: address, hex digits, and apart from them the printable characters.
struct DumpLine {
    static constexpr unsigned int kHexColumn = 10;
    static constexpr unsigned int kHexEnd = 43;
    static constexpr unsigned int kTextColumn = 45;

    char text[80];

    void Fill(const unsigned char* pData, unsigned int count) {
        static constexpr char kDigits[] = "0123456789abcdef";
        memset(text, ' ', sizeof(text));
        // Eight columns in either width: of a longer address the low 32 bits.
        const unsigned int address = static_cast<unsigned int>(reinterpret_cast<unsigned long>(pData));
        text[snprintf(text, sizeof(text), "%08X:", address)] = ' ';
        char* pHex = text + kHexColumn;
        for (unsigned int i = 0; i < count; ++i) {
            *pHex++ = kDigits[pData[i] >> 4];
            *pHex++ = kDigits[pData[i] & 15];
            if (i == kBytesPerDumpLine / 2 - 1) {
                *pHex++ = '-';
            }
            text[kTextColumn + i] = pData[i] >= 32 && pData[i] <= 126 ? static_cast<char>(pData[i]) : '.';
        }
        text[kHexEnd] = '\0';
        text[kTextColumn + count] = '\0';
    }
};

// Critical errors

/// A text that waits for its thread to leave its last lock.
struct KeptCriticalError {
    char text[2048]; ///< as long as the library's own reports get; a longer one is cut
    int level;
    int category;
};

constexpr unsigned int kMostKept = 32;

tq_PlacedMutex gKeptMutex(tq_LockRank::kLeaf); // plain: what is kept must not depend on any other lock
KeptCriticalError gKept[kMostKept];            // ring, guarded by gKeptMutex
unsigned int gFirstKept;
unsigned int gKeptCount;

/// Set while the thread traces a critical error. Another one that it meets on this way is not traced: it would come
/// again and again. It stands in the error log.
thread_local bool tbTracingCriticalError = false;

/// Keeps the text. When all places are taken the newest, this one, is dropped: the first report of a chain of failures
/// says what went wrong.
void KeepCriticalError(const char* pMessage, int level, int category) {
    gKeptMutex.lock();
    if (gKeptCount < kMostKept) {
        KeptCriticalError& kept = gKept[(gFirstKept + gKeptCount++) % kMostKept];
        const size_t length = strnlen(pMessage, sizeof(kept.text) - 1);
        memcpy(kept.text, pMessage, length);
        kept.text[length] = '\0';
        kept.level = level;
        kept.category = category;
        gbCriticalErrorsKept.store(true, std::memory_order_relaxed);
    }
    gKeptMutex.unlock();
}

bool TakeKeptCriticalError(KeptCriticalError* pKept) {
    gKeptMutex.lock();
    const bool bTaken = gKeptCount > 0;
    if (bTaken) {
        *pKept = gKept[gFirstKept];
        gFirstKept = (gFirstKept + 1) % kMostKept;
        --gKeptCount;
    }
    if (gKeptCount == 0) {
        gbCriticalErrorsKept.store(false, std::memory_order_relaxed);
    }
    gKeptMutex.unlock();
    return bTaken;
}

void DropKeptCriticalErrors() {
    gKeptMutex.lock();
    gKeptCount = 0;
    gbCriticalErrorsKept.store(false, std::memory_order_relaxed);
    gKeptMutex.unlock();
}

/// Copies the text with each "%%" made one "%".
void JoinPercentPairs(const char* pText, char* pResult) {
    while (*pText) {
        const char ch = *pText++;
        *pResult++ = ch;
        if (ch == '%' && *pText == '%') {
            ++pText;
        }
    }
    *pResult = '\0';
}

void TraceText(int level, int category, const char* pszAsGiven, const char* pszFormat, ...) TQ_PRINTF(4, 5);
void TraceText(int level, int category, const char* pszAsGiven, const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    TraceMessage(tqosTraceHandle, level, static_cast<unsigned int>(category), /*bIncludeTimeStamp=*/true, pszAsGiven,
                 pszFormat, args);
    va_end(args);
}

void TraceCriticalErrorNow(const char* pMessage, int level, int category) {
    tbTracingCriticalError = true;
    // Plain memory: the error may be that tracked memory is at its end. Without any, the pairs stay.
    char* pszJoined = strstr(pMessage, "%%") ? static_cast<char*>(malloc(strlen(pMessage) + 1)) : nullptr;
    if (pszJoined) {
        JoinPercentPairs(pMessage, pszJoined);
    }
    TraceText(level, category, pMessage, "%s", pszJoined ? pszJoined : pMessage);
    free(pszJoined);
    tbTracingCriticalError = false;
}

} // namespace

void tq_TraceKeptCriticalErrors() {
    if (tbTracingCriticalError) {
        return;
    }
    if (!bTraceInitialized) {
        DropKeptCriticalErrors();
        return;
    }
    KeptCriticalError kept;
    while (TakeKeptCriticalError(&kept)) {
        TraceCriticalErrorNow(kept.text, kept.level, kept.category);
    }
}

void tq_TraceCriticalError(const char* pMessage, int level, int category) {
    if (!pMessage || tbTracingCriticalError || !bTraceInitialized) {
        return;
    }
    if (tq_HeldLocks() != 0) {
        KeepCriticalError(pMessage, level, category);
        return;
    }
    tq_TraceKeptCriticalErrors();
    TraceCriticalErrorNow(pMessage, level, category);
}

// Tracing

void tq_TraceInternal(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                      const char* szFormat, va_list args) {
    if (szFormat) {
        TraceMessage(hTraceInstance, Level, Category, bIncludeTimeStamp, szFormat, szFormat, args);
    }
}

void tq_TraceVA(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                const char* szFormat, va_list args) {
    tq_TraceInternal(hTraceInstance, Level, Category, bIncludeTimeStamp, szFormat, args);
}

void tq_Trace(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
              const char* szFormat, ...) {
    if (IsFilteredOut(hTraceInstance, Level, Category)) {
        return;
    }
    va_list args;
    va_start(args, szFormat);
    tq_TraceInternal(hTraceInstance, Level, Category, bIncludeTimeStamp, szFormat, args);
    va_end(args);
}

void tq_TraceOnOwnInstance(int level, unsigned int category, const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    tq_TraceInternal(tqosTraceHandle, level, category, /*bIncludeTimeStamp=*/true, pszFormat, args);
    va_end(args);
}

void tq_TraceHexDump(unsigned int hTraceInstance, int Level, unsigned int Category, const void* pData,
                     unsigned int uLength, const char* szFormat, ...) {
    if (tq_TraceGetDestinations(hTraceInstance, Level, Category) == 0) {
        return;
    }
    va_list args;
    va_start(args, szFormat);
    tq_TraceInternal(hTraceInstance, Level, Category, /*bIncludeTimeStamp=*/true, szFormat, args);
    va_end(args);
    tq_Trace(hTraceInstance, Level, Category, /*bIncludeTimeStamp=*/false, "\n");
    const unsigned char* pBytes = static_cast<const unsigned char*>(pData);
    unsigned int left = pBytes ? uLength : 0;
    while (left > 0) {
        const unsigned int count = left < kBytesPerDumpLine ? left : kBytesPerDumpLine;
        DumpLine line; // the thread's own: dumps of two threads may mix by lines, never within one
        line.Fill(pBytes, count);
        tq_Trace(hTraceInstance, Level, Category, /*bIncludeTimeStamp=*/false, "%s  %s\n", line.text,
                 line.text + DumpLine::kTextColumn);
        pBytes += count;
        left -= count;
    }
}

// Setters and getters

bool ConvertStringToLevel(const char* pszText, int* pLevel) {
    if (!pszText || !pLevel) {
        return false;
    }
    for (const LevelText& row : kLevels) {
        if (strcasecmp(pszText, row.pszWord) == 0) {
            *pLevel = row.level;
            return true;
        }
    }
    return false;
}

unsigned int tq_TraceGetHandleFromName(const char* pszName) {
    tq_LockedTrace trace;
    const _TRACEINSTANCE* pInstance = trace && pszName ? FindByNameLocked(pszName) : nullptr;
    return pInstance ? static_cast<unsigned int>(pInstance->handle) : 0;
}

int tq_TraceGetLevel(unsigned int hTraceInstance) {
    LockedInstance instance(hTraceInstance);
    return instance ? instance->traceLevel : 0;
}

int tq_TraceSetLevel(unsigned int hTraceInstance, int level) {
    return ChangeInstance(hTraceInstance, [level](_TRACEINSTANCE& instance) { instance.traceLevel = level; });
}

int tq_TraceGetCatMask(unsigned int hTraceInstance) {
    LockedInstance instance(hTraceInstance);
    return instance ? instance->traceCategoryMask : 0;
}

int tq_TraceSetCatMask(unsigned int hTraceInstance, int mask) {
    return ChangeInstance(hTraceInstance, [mask](_TRACEINSTANCE& instance) { instance.traceCategoryMask = mask; });
}

int tq_TraceSetCategoryName(unsigned int hTraceInstance, unsigned int category, const char* pszName) {
    if (!pszName || category == 0 || (category & (category - 1)) != 0) {
        return 1;
    }
    LockedInstance instance(hTraceInstance);
    char* pszCopy = instance ? tq_newString(pszName) : nullptr;
    if (!pszCopy) {
        return 1;
    }
    char*& pszStored = instance->ppszCategoryNames[__builtin_ctz(category)];
    tq_free(pszStored);
    pszStored = pszCopy;
    return 0;
}

unsigned int tq_TraceLookupCategory(unsigned int hTraceInstance, const char* pszName) {
    LockedInstance instance(hTraceInstance);
    if (!instance || !pszName) {
        return 0;
    }
    for (unsigned int bit = 0; bit < 32; ++bit) {
        const char* pszStored = instance->ppszCategoryNames[bit];
        if (pszStored && strcasecmp(pszStored, pszName) == 0) {
            return 1u << bit;
        }
    }
    return 0;
}

int tq_TraceGetDestinations(unsigned int hTraceInstance, int level, unsigned int category) {
    if (IsFilteredOut(hTraceInstance, level, category)) {
        return 0;
    }
    LockedInstance instance(hTraceInstance);
    return instance ? DestinationsFor(instance.Get(), level, category) : 0;
}

int tq_TraceEnableSTDOUT(unsigned int hTraceInstance) {
    return SetDestination(hTraceInstance, TQ_TRACE_DEST_STDOUT);
}

int tq_TraceDisableSTDOUT(unsigned int hTraceInstance) {
    return ClearDestination(hTraceInstance, TQ_TRACE_DEST_STDOUT);
}

int tq_TraceEnableSTDERR(unsigned int hTraceInstance) {
    return SetDestination(hTraceInstance, TQ_TRACE_DEST_STDERR);
}

int tq_TraceDisableSTDERR(unsigned int hTraceInstance) {
    return ClearDestination(hTraceInstance, TQ_TRACE_DEST_STDERR);
}

int tq_TraceEnableDevStudio(unsigned int hTraceInstance) {
    return SetDestination(hTraceInstance, TQ_TRACE_DEST_DEVSTUDIO);
}

int tq_TraceDisableDevStudio(unsigned int hTraceInstance) {
    return ClearDestination(hTraceInstance, TQ_TRACE_DEST_DEVSTUDIO);
}

int tq_TraceSuppressTimestamp(unsigned int hTraceInstance, bool bSuppress) {
    return ChangeInstance(hTraceInstance,
                          [bSuppress](_TRACEINSTANCE& instance) { instance.bSuppressTimeStamps = bSuppress; });
}

int tq_TraceShowThreadID(unsigned int hTraceInstance, bool bShow) {
    return ChangeInstance(hTraceInstance, [bShow](_TRACEINSTANCE& instance) { instance.bShowThreadID = bShow; });
}

int tq_TraceSetDeltaTimestamps(bool bShowDeltas) {
    tq_GatePass pass(gTraceGate);
    if (!pass) {
        return 1;
    }
    tq_CritSecLock lock(pTimeLock);
    gbShowTimeDeltas = bShowDeltas;
    if (!bShowDeltas) {
        guiLastTimeStampInMS = 0;
    }
    return 0;
}

int tq__TraceEnableFile(unsigned int hTraceInstance, const char* pszPath, int maxFiles, int maxBytesPerFile,
                        const char* pszFilename, unsigned int line) {
    LockedInstance instance(hTraceInstance);
    if (!instance || !pszPath) {
        return 1;
    }
    const int result = EnableFileLocked(instance.Get(), pszPath, maxFiles, maxBytesPerFile, pszFilename, line);
    tq_TraceFilterChangedLocked(hTraceInstance);
    return result;
}

int tq_TraceDisableFile(unsigned int hTraceInstance) {
    return ChangeInstance(hTraceInstance, [](_TRACEINSTANCE& instance) { DisableFileLocked(&instance); });
}

// Opening and closing an instance

namespace {

/// What an instance without a level of its own takes over from the section's defaults; one with a level takes nothing.
struct InstanceDefaults {
    int flags = 0;
    int maxFiles = 0;
    int maxBytesPerFile = 0;
    char fileName[512] = ""; ///< as long as a configured one may be; cut there

    bool Has(int bit) const { return (flags & bit) != 0; }
};

void FreeInstance(_TRACEINSTANCE* pInstance) {
    tq_NetTraceFreeSender(pInstance);
    if (pInstance->handle) {
        tq_HandleRelease(static_cast<unsigned int>(pInstance->handle));
    }
    DisableFileLocked(pInstance);
    for (char* pszName : pInstance->ppszCategoryNames) {
        tq_free(pszName);
    }
    tq_free(pInstance->pszTracingName);
    tq_free(pInstance);
}

_TRACEINSTANCE* NewInstance(const char* pszName, const char* pszFilename, unsigned int line) {
    auto* pInstance = static_cast<_TRACEINSTANCE*>(tq__calloc(1, sizeof(_TRACEINSTANCE), pszFilename, line));
    if (!pInstance) {
        return nullptr;
    }
    pInstance->instanceCount = 1;
    pInstance->pszTracingName = tq_newStringAt(pszName, pszFilename, line);
    if (!pInstance->pszTracingName) {
        tq_free(pInstance);
        return nullptr;
    }
    return pInstance;
}

/// Reads level and mask. Says what else the instance takes over.
void ReadFilter(_TRACEINSTANCE* pInstance, InstanceSettings& settings, InstanceDefaults& defaults) {
    pInstance->traceLevel = settings.Level();
    // Deliberate: an instance that has a level of its own gets no default destination, not even the file, and none of
    // the defaults for files: where it names a file without a size, that one never rotates. It must name each of its
    // own.
    if (pInstance->traceLevel == kNoLevel) {
        pInstance->traceLevel = gDefaultTraceLevel;
        defaults.flags = gDefaultFlags;
        defaults.maxFiles = static_cast<int>(gDefaultMaxFiles);
        defaults.maxBytesPerFile = static_cast<int>(gDefaultMaxBytesPerFile);
        snprintf(defaults.fileName, sizeof(defaults.fileName), "%s%s.log",
                 gpszDefaultFilePrefix ? gpszDefaultFilePrefix : "", pInstance->pszTracingName);
    }
    pInstance->traceCategoryMask = settings.Integer("Cat", static_cast<int>(gDefaultTraceCat));
}

/// Gives the instance its handle and its place in the list; false without handles or memory.
bool RegisterLocked(_TRACEINSTANCE* pInstance) {
    pInstance->handle = static_cast<int>(tq_HandleGet());
    if (pInstance->handle == 0) {
        return false;
    }
    const unsigned int before = gpTraceInstanceList->NodeCount();
    gpTraceInstanceList->AddToTail(pInstance);
    return gpTraceInstanceList->NodeCount() != before;
}

/// Opens those destinations that take nothing but the instance list's lock.
/// @return whether the network is wanted, too
bool OpenDestinationsLocked(_TRACEINSTANCE* pInstance, InstanceSettings& settings, const InstanceDefaults& defaults,
                            const char* pszFilename, unsigned int line) {
    char path[512];
    settings.Text("LogToFile", defaults.Has(TQ_TRACE_DEST_FILE) ? defaults.fileName : "", path);
    if (path[0]) {
        const int maxFiles = settings.Integer("MaxFiles", defaults.maxFiles);
        const int maxBytes = settings.Integer("MaxBytesPerFile", defaults.maxBytesPerFile);
        EnableFileLocked(pInstance, path, maxFiles, maxBytes, pszFilename, line);
    }
    int wanted = 0;
    for (const Destination& row : kDestinations) {
        if (row.pszInstanceKey && settings.Switch(row.pszInstanceKey, defaults.Has(row.bit))) {
            wanted |= row.bit;
        }
    }
    pInstance->Flags |= wanted & ~TQ_TRACE_DEST_MULTICAST;
    return (wanted & TQ_TRACE_DEST_MULTICAST) != 0;
}

unsigned int OpenInstanceLocked(const char* pszName, const char* pszFilename, unsigned int line, bool* pbMulticast) {
    InstanceSettings settings(pszName, pszFilename, line);
    _TRACEINSTANCE* pInstance = settings ? NewInstance(pszName, pszFilename, line) : nullptr;
    if (!pInstance) {
        return 0;
    }
    InstanceDefaults defaults;
    ReadFilter(pInstance, settings, defaults);
    if (!RegisterLocked(pInstance)) {
        FreeInstance(pInstance);
        return 0;
    }
    *pbMulticast = OpenDestinationsLocked(pInstance, settings, defaults, pszFilename, line);
    pInstance->bSuppressTimeStamps = settings.Switch("SuppressTimestamp", gbDefaultSuppressTimestamp);
    pInstance->bShowThreadID = settings.Switch("ShowThreadID", gbDefaultShowThreadID);
    const unsigned int handle = static_cast<unsigned int>(pInstance->handle);
    tq_TraceFilterChangedLocked(handle);
    return handle;
}

/// Counts a close; takes the instance off the list and hands it over when it was the last.
int CountClose(unsigned int hTraceInstance, _TRACEINSTANCE** ppLast) {
    return ChangeInstance(hTraceInstance, [ppLast](_TRACEINSTANCE& instance) {
        if (--instance.instanceCount == 0) {
            *ppLast = static_cast<_TRACEINSTANCE*>(gpTraceInstanceList->RemoveNode(&instance));
        }
    });
}

/// Opens the instance or counts one more opening. The network, if it is wanted, is left to the caller.
unsigned int OpenOrCount(const char* pszName, const char* pszFilename, unsigned int line, bool* pbMulticast) {
    tq_LockedTrace trace;
    if (!trace || !pszName) {
        return 0;
    }
    _TRACEINSTANCE* pInstance = FindByNameLocked(pszName);
    if (!pInstance) {
        return OpenInstanceLocked(pszName, pszFilename, line, pbMulticast);
    }
    ++pInstance->instanceCount;
    return static_cast<unsigned int>(pInstance->handle);
}

} // namespace

unsigned int tq__TraceInitInstance(const char* pszName, const char* pszFilename, unsigned int line) {
    bool bMulticast = false;
    const unsigned int handle = OpenOrCount(pszName, pszFilename, line, &bMulticast);
    if (bMulticast) { // with the list's lock left: this starts threads, which may trace before they run
        tq_TraceEnableMulticast(handle);
    }
    return handle;
}

int tq_TraceTermInstance(unsigned int hTraceInstance) {
    tq_GatePass pass(gTraceGate); // to the end: the instance is freed after the list's lock is left
    _TRACEINSTANCE* pLast = nullptr;
    const int result = pass ? CountClose(hTraceInstance, &pLast) : 1;
    if (pLast) {
        FreeInstance(pLast);
    }
    return result;
}

// Copies of the instance list

namespace {

void FreeCopy(_TQ_TRACE_INSTANCE* pCopy) {
    tq_free(pCopy->pszTraceName);
    for (char* pszName : pCopy->pszCatName) {
        tq_free(pszName);
    }
    tq_free(pCopy);
}

/// Copies the text; false when there is one and no memory for it.
bool CopyText(char** ppszCopy, const char* pszText) {
    *ppszCopy = pszText ? tq_newString(pszText) : nullptr;
    return *ppszCopy || !pszText;
}

/// A complete copy, or null without memory.
_TQ_TRACE_INSTANCE* CopyInstance(const _TRACEINSTANCE* pInstance) {
    auto* pCopy = static_cast<_TQ_TRACE_INSTANCE*>(tq_calloc(1, sizeof(_TQ_TRACE_INSTANCE)));
    if (!pCopy) {
        return nullptr;
    }
    pCopy->hTraceInstance = pInstance->handle;
    bool bComplete = CopyText(&pCopy->pszTraceName, pInstance->pszTracingName);
    for (unsigned int bit = 0; bit < 32; ++bit) {
        bComplete = CopyText(&pCopy->pszCatName[bit], pInstance->ppszCategoryNames[bit]) && bComplete;
    }
    if (!bComplete) {
        FreeCopy(pCopy);
        return nullptr;
    }
    return pCopy;
}

bool AddCopiesLocked(tq_List* pList) {
    for (void* pNode = gpTraceInstanceList->GetHead(); pNode; pNode = gpTraceInstanceList->GetNext()) {
        _TQ_TRACE_INSTANCE* pCopy = CopyInstance(static_cast<_TRACEINSTANCE*>(pNode));
        if (!pCopy) {
            return false;
        }
        const unsigned int before = pList->NodeCount();
        pList->AddToTail(pCopy);
        if (pList->NodeCount() == before) {
            FreeCopy(pCopy);
            return false;
        }
    }
    return true;
}

} // namespace

tq_List* tq_TraceGetInstanceList() {
    tq_LockedTrace trace;
    if (!trace || gpTraceInstanceList->NodeCount() == 0) {
        return nullptr;
    }
    tq_List* pList = tq_newObject<tq_List>("RequestedTraceList");
    if (pList && !AddCopiesLocked(pList)) {
        tq_TraceCleanupInstanceList(pList);
        pList = nullptr;
    }
    return pList;
}

void tq_TraceCleanupInstanceList(tq_List* pList) {
    if (!pList) {
        return;
    }
    while (void* pNode = pList->RemoveHead()) {
        FreeCopy(static_cast<_TQ_TRACE_INSTANCE*>(pNode));
    }
    tq_deleteObject(pList);
}

// Reports

namespace {

constexpr unsigned int kDetail = 1;

/// The letters of the destinations that are on.
struct TypeColumn {
    char text[kDestinationCount + 1];

    explicit TypeColumn(int flags) {
        char* pLetter = text;
        for (const Destination& row : kDestinations) {
            *pLetter++ = (flags & row.bit) ? row.letter : '-';
        }
        *pLetter = '\0';
    }
};

/// The words for no category and for all of them; null for any other mask.
const char* CategoryWord(int mask) {
    return mask == 0 ? "   None   " : mask == -1 ? "   All    " : nullptr;
}

void AppendRow(tq_ReportText& report, const _TRACEINSTANCE* pInstance) {
    report.Append("%5u  %s  ", static_cast<unsigned int>(pInstance->handle), TypeColumn(pInstance->Flags).text);
    if (const LevelText* pLevel = FindLevel(pInstance->traceLevel)) {
        report.Append("%8s  ", pLevel->pszCentred);
    } else {
        report.Append("%8d  ", pInstance->traceLevel);
    }
    if (const char* pszCategory = CategoryWord(pInstance->traceCategoryMask)) {
        report.Append("%10s  ", pszCategory);
    } else {
        report.Append("0x%08x  ", static_cast<unsigned int>(pInstance->traceCategoryMask));
    }
    report.Append("%s\r\n", pInstance->pszTracingName);
}

char* SummaryLocked() {
    const unsigned int instances = gpTraceInstanceList->NodeCount();
    if (instances == 0) {
        return tq_newString("There are no Trace Instances currently active in TQOS.\r\n");
    }
    tq_ReportText report(instances * 120 + 240);
    report.Append("Inst   Type   Level     Category    Name\r\n");
    report.Append("----   -----  --------  ----------  ------------------------\r\n");
    for (void* pNode = gpTraceInstanceList->GetHead(); pNode; pNode = gpTraceInstanceList->GetNext()) {
        AppendRow(report, static_cast<_TRACEINSTANCE*>(pNode));
    }
    return report.Release();
}

void AppendCategories(tq_ReportText& report, const _TRACEINSTANCE* pInstance) {
    report.Append("  Categories:\r\n");
    bool bAny = false;
    for (unsigned int bit = 0; bit < 32; ++bit) {
        if (pInstance->ppszCategoryNames[bit]) {
            report.Append("     0x%08x : %s\r\n", 1u << bit, pInstance->ppszCategoryNames[bit]);
            bAny = true;
        }
    }
    if (!bAny) {
        report.Append("                         (no categories have been named!)\r\n");
    }
}

void AppendIdentity(tq_ReportText& report, const _TRACEINSTANCE* pInstance) {
    report.Append("  Name:                  %s\r\n", pInstance->pszTracingName);
    if (pInstance->pszNamePrefix && pInstance->pszNameSuffix) {
        report.Append("  Logfile:               %s.%s\r\n", pInstance->pszNamePrefix, pInstance->pszNameSuffix);
    } else {
        report.Append("  Logfile:               (not specified)\r\n");
    }
    report.Append("  Instance:              %u\r\n", static_cast<unsigned int>(pInstance->handle));
    report.Append("  Type:                  %s\r\n", TypeColumn(pInstance->Flags).text);
    if (const LevelText* pLevel = FindLevel(pInstance->traceLevel)) {
        report.Append("  Tracing Level:         %s\r\n", pLevel->pszPlain);
    } else {
        report.Append("  Tracing Level:         %d\r\n", pInstance->traceLevel);
    }
    if (const char* pszCategory = CategoryWord(pInstance->traceCategoryMask)) {
        report.Append("  Category Mask:         %10s\r\n", pszCategory);
    } else {
        report.Append("  Category Mask:         0x%08x\r\n", static_cast<unsigned int>(pInstance->traceCategoryMask));
    }
}

void AppendFile(tq_ReportText& report, const _TRACEINSTANCE* pInstance) {
    // Eight digits in either width: of a longer address the low 32 bits.
    report.Append("  Open File Handle:      0x%08x\r\n",
                  static_cast<unsigned int>(reinterpret_cast<unsigned long>(pInstance->hFile)));
    report.Append("  Max Files:             %u\r\n", static_cast<unsigned int>(pInstance->maxFiles));
    report.Append("  Current File Index:    %u\r\n", static_cast<unsigned int>(pInstance->currentFileIndex));
    report.Append("  Bytes Per File:        %u\r\n", static_cast<unsigned int>(pInstance->bytesPerFile));
    report.Append("  Current Bytes Written: %u\r\n", static_cast<unsigned int>(pInstance->totalBytesWritten));
}

char* DetailsLocked(const char* pszArgument) {
    const _TRACEINSTANCE* pInstance = pszArgument ? FindByNameLocked(pszArgument) : nullptr;
    if (!pInstance) {
        const unsigned int handle = pszArgument ? static_cast<unsigned int>(strtoul(pszArgument, nullptr, 10)) : 0;
        if (handle == 0) {
            return tq_newString("Requires a Trace Instance!\r\n");
        }
        pInstance = tq_FindTraceInstanceLocked(handle);
    }
    if (!pInstance) {
        return tq_newString("Could not find specified Trace Instance!\r\n");
    }
    tq_ReportText report(960);
    report.Append("Trace Instance Details...\r\n");
    AppendIdentity(report, pInstance);
    AppendFile(report, pInstance);
    AppendCategories(report, pInstance);
    report.Append("\r\n");
    return report.Release();
}

} // namespace

void tq_ShowTrace(char** pszResponse, unsigned int uiFlags, const char* pszArgument) {
    if (!pszResponse) {
        return;
    }
    tq_LockedTrace trace;
    if (!trace) {
        *pszResponse = tq_newString("Tracing Subsystem not initialized!\r\n");
        return;
    }
    *pszResponse = (uiFlags & kDetail) ? DetailsLocked(pszArgument) : SummaryLocked();
}

// Start and stop

namespace {

void FreeState() {
    tq_free(gpszDefaultFilePrefix);
    gpszDefaultFilePrefix = nullptr;
    tq_deleteObject(gpTraceInstanceList);
    gpTraceInstanceList = nullptr;
    tq_deleteObject(pTimeLock);
    pTimeLock = nullptr;
}

} // namespace

unsigned int tq_TraceInitialize() {
    if (bTraceInitialized) {
        return 0;
    }
    gbShowTimeDeltas = false;
    guiLastTimeStampInMS = 0;
    DropKeptCriticalErrors();
    ReadSettings();
    pTimeLock = tq_IfItLocks(tq_newObject<tq_SemCritSec>(true));
    gpTraceInstanceList = tq_IfItLocks(tq_newObject<tq_List>("TQOS: Trace Instances"));
    tq_LockOrderPlace(pTimeLock, tq_LockRank::kTraceTime);
    tq_ListPlace(gpTraceInstanceList, tq_LockRank::kTraceInstances);
    if (!pTimeLock || !gpTraceInstanceList) {
        FreeState();
        return 1;
    }
    openlog("Kelvarin", LOG_PID | LOG_ODELAY, LOG_USER);
    gTraceGate.Open();
    bTraceInitialized = true;
    return 0;
}

void tq_TraceTerminate() {
    tq_TraceKeptCriticalErrors();
    bTraceInitialized = false;
    gTraceGate.Close();
    DropKeptCriticalErrors();
    if (!gpTraceInstanceList) {
        return;
    }
    closelog();
    while (void* pNode = gpTraceInstanceList->RemoveHead()) {
        FreeInstance(static_cast<_TRACEINSTANCE*>(pNode));
    }
    for (TraceFilter& filter : gFilters) {
        filter.handle.store(0, std::memory_order_release);
    }
    tq_NetTraceTerminate();
    FreeState();
}
