#include "tq_Trace_p.h"

#include <atomic>
#include <fcntl.h>
#include <limits.h>
#include <mutex>
#include <regex>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_CriticalErrorTrace_p.h"
#include "tq_Handle_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_LibraryTrace_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

// The system log. Its three calls are the boundary of the process: what is behind them belongs to the machine, is one
// for all processes and often missing where tests run. The program's own definitions take their place here, so that the
// library's calls are seen as they are made, whole and in order.

namespace {

struct SystemLogCall {
    std::string what; // "open", "close", or the text
    int priority;     // options of an open
    int facility;
};

std::mutex gSystemLogMutex;
std::vector<SystemLogCall> gSystemLog;

std::vector<SystemLogCall> TakeSystemLog() {
    std::lock_guard<std::mutex> lock(gSystemLogMutex);
    std::vector<SystemLogCall> calls;
    calls.swap(gSystemLog);
    return calls;
}

} // namespace

extern "C" {

void openlog(const char* ident, int option, int facility) {
    std::lock_guard<std::mutex> lock(gSystemLogMutex);
    gSystemLog.push_back({std::string("open ") + ident, option, facility});
}

void closelog() {
    std::lock_guard<std::mutex> lock(gSystemLogMutex);
    gSystemLog.push_back({"close", 0, 0});
}

void vsyslog(int priority, const char* format, va_list args) {
    char* text = nullptr;
    ASSERT_GE(vasprintf(&text, format, args), 0);
    std::lock_guard<std::mutex> lock(gSystemLogMutex);
    gSystemLog.push_back({text, priority, 0});
    free(text);
}

/// What calls of it become where buffers are checked.
void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list args) {
    vsyslog(priority, format, args);
}

} // extern "C"

namespace {

using test::CountOf;
using test::Library;
using test::ReadFile;
using test::RunInChild;
using test::WriteFile;

/// The text with what differs from run to run replaced.
std::string Shown(const std::string& text) {
    std::string shown = std::regex_replace(
        text, std::regex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}"), "<date>");
    shown = std::regex_replace(shown, std::regex("\\[[0-9]+\\]: "), "[<ms>]: ");
    return std::regex_replace(shown, std::regex("TID:[0-9]+:[0-9]+ "), "TID:<tid>:<pstid> ");
}

/// An instance "T" that passes everything to the file "t.log", without dates; the library's own says nothing.
const char kToFile[] = "[Trace]\ntqos_Level=None\nT_Level=All\nT_LogToFile=t.log\nT_SuppressTimestamp=yes\n";

/// The same, and the library's own to "own.log".
const char kOwnToFile[] = "[Trace]\ntqos_Level=All\ntqos_LogToFile=own.log\ntqos_SuppressTimestamp=yes\n";

/// The settings with memory tracked, which is what counts allocations and holds them under a cap.
std::string Tracked(const std::string& ini) {
    return ini + "[Memory]\nEnableMemoryTracking=yes\n";
}

/// Lets tracked memory grow by this many bytes while the object lives.
class Cap {
public:
    explicit Cap(unsigned int room) { gMemoryCapInBytes = gRequestedMemoryAllocations + room; }
    ~Cap() { gMemoryCapInBytes = 0; }
};

_TRACEINSTANCE* Record(unsigned int handle) {
    tq_ListLock lock(gpTraceInstanceList);
    return static_cast<_TRACEINSTANCE*>(gpTraceInstanceList->FindFirst(
        tq_ListKey(handle), LIST_TYPE_U32BITS, offsetof(_TRACEINSTANCE, handle), nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
}

std::string Report(unsigned int flags = 0, const char* argument = nullptr) {
    char* text = nullptr;
    tq_ShowTrace(&text, flags, argument);
    const std::string report = text ? text : "(null)";
    tq_free(text);
    return report;
}

/// Opens an instance, and says what the report's Type column shows of it.
std::string TypeOf(unsigned int handle) {
    const std::string report = Report(1, std::to_string(handle).c_str());
    const size_t at = report.find("  Type:                  ");
    return at == std::string::npos ? report : report.substr(at + 25, 5);
}

unsigned int OpenDescriptorsOf(const std::string& name) {
    unsigned int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        char path[PATH_MAX] = "";
        const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path) - 1);
        const std::string target(path, length > 0 ? static_cast<size_t>(length) : 0);
        count += target.size() > name.size() && target.compare(target.size() - name.size(), name.size(), name) == 0;
    }
    return count;
}

// Levels

TEST(TraceLevels, EveryWordHasItsLevelInAnyCaseOfLetters) {
    const struct {
        const char* text;
        int level;
    } rows[] = {{"All", 0},         {"None", 0x7FFFFFFF},     {"Critical", 50000}, {"Severe", 40000},
                {"Warning", 30000}, {"Informational", 20000}, {"Debug", 10000},    {"Low", 5000},
                {"LOW", 5000},      {"wArNiNg", 30000}};
    for (const auto& row : rows) {
        int level = 77;
        EXPECT_TRUE(ConvertStringToLevel(row.text, &level)) << row.text;
        EXPECT_EQ(row.level, level) << row.text;
    }
}

TEST(TraceLevels, AnyOtherTextIsNoLevelAndLeavesTheLevelUntouched) {
    for (const char* text : {"", "Warn", "Warning ", " Warning", "Inform", "5000", static_cast<const char*>(nullptr)}) {
        int level = 77;
        EXPECT_FALSE(ConvertStringToLevel(text, &level)) << (text ? text : "null");
        EXPECT_EQ(77, level);
    }
    EXPECT_FALSE(ConvertStringToLevel("All", nullptr));
}

TEST(TraceLevels, DeliberatelyTheWordForDebugLowIsLowAlone) {
    int level = 77;
    EXPECT_FALSE(ConvertStringToLevel("Debug Low", &level));
    EXPECT_EQ(77, level);
}

// Settings

TEST(TraceSettings, WithoutTheSectionWarningsOfAllCategoriesGoToStandardError) {
    Library library;
    EXPECT_EQ(TQ_TRACE_LEVEL_WARNING, gDefaultTraceLevel);
    EXPECT_EQ(-1, static_cast<int>(gDefaultTraceCat));
    EXPECT_EQ(TQ_TRACE_DEST_STDERR, gDefaultFlags);
    EXPECT_FALSE(gbShowTimeDeltas);
    EXPECT_FALSE(gbDefaultSuppressTimestamp);
    EXPECT_FALSE(gbDefaultShowThreadID);
    EXPECT_EQ(nullptr, gpszDefaultFilePrefix);
    EXPECT_EQ(1u, gDefaultMaxFiles);
    EXPECT_EQ(0u, gDefaultMaxBytesPerFile);
    const unsigned int handle = tq_TraceInitInstance("foo");
    EXPECT_EQ(30000, tq_TraceGetLevel(handle));
    EXPECT_EQ(-1, tq_TraceGetCatMask(handle));
    EXPECT_EQ("--E--", TypeOf(handle));
}

TEST(TraceSettings, TheDefaultLevelIsAWordOrANumber) {
    const struct {
        const char* value;
        int level;
        bool understood;
    } rows[] = {
        {"Low", 5000, true},
        {"critical", 50000, true},
        {"None", 0x7FFFFFFF, true},
        {"12345", 12345, true},
        {"0x10", 16, true},
        {"-30000", -30000, true},
        {"+7", 7, true},
        {"0", 0, true},
        {"Debug Low", 30000, false},
        {"warn", 30000, false},
        {"", 30000, false},
        {"-", 30000, false},
        {"0x80000001", 30000, false}, // the mark of a level that is not configured
    };
    for (const auto& row : rows) {
        Library library(std::string("[Trace]\nDefaultLevel=") + row.value + "\n");
        EXPECT_EQ(row.level, gDefaultTraceLevel) << row.value;
        EXPECT_EQ(row.understood ? 0 : TQ_TRACE_DEST_STDERR, gDefaultFlags) << row.value;
    }
}

TEST(TraceSettings, StandardErrorIsTheDefaultOnlyWithoutALevelAndWithoutAnotherDestination) {
    const struct {
        const char* section;
        int flags;
    } rows[] = {
        {"[Trace]\n", 32},
        {"[Trace]\nDefaultLogToSTDOUT=yes\n", 4},
        {"[Trace]\nDefaultLogToDevStudio=yes\n", 16},
        {"[Trace]\nDefaultLogToMultiCast=yes\n", 8},
        {"[Trace]\nDefaultLevel=Debug\n", 0},
        {"[Trace]\nDefaultLevel=Debug\nDefaultLogToSTDERR=1\nDefaultLogToSTDOUT=true\n", 36},
        {"[Trace]\nDefaultLogToFilePrefix=log_\n", 3},
        {"[Trace]\nDefaultLogToFilePrefix=\n", 32},
    };
    for (const auto& row : rows) {
        Library library(row.section);
        EXPECT_EQ(row.flags, gDefaultFlags) << row.section;
    }
}

TEST(TraceSettings, EveryDefaultIsReadFromItsKey) {
    Library library("[Trace]\nDefaultCat=0x30\nShowDeltaTime=yes\nDefaultSuppressTimestamp=yes\n"
                    "DefaultShowThreadID=yes\nDefaultMaxFiles=7\nDefaultMaxBytesPerFile=1234\n");
    EXPECT_EQ(0x30u, gDefaultTraceCat);
    EXPECT_TRUE(gbShowTimeDeltas);
    EXPECT_TRUE(gbDefaultSuppressTimestamp);
    EXPECT_TRUE(gbDefaultShowThreadID);
    EXPECT_EQ(7u, gDefaultMaxFiles);
    EXPECT_EQ(1234u, gDefaultMaxBytesPerFile);
    const unsigned int handle = tq_TraceInitInstance("foo");
    EXPECT_EQ(0x30, tq_TraceGetCatMask(handle));
    EXPECT_TRUE(Record(handle)->bSuppressTimeStamps);
    EXPECT_TRUE(Record(handle)->bShowThreadID);
}

TEST(TraceSettings, TheDefaultFilePrefixIsCutTo255Characters) {
    for (const size_t length : {254u, 255u, 256u, 400u}) {
        Library library("[Trace]\ntqos_Level=None\nDefaultLogToFilePrefix=" + std::string(length, 'p') + "\n");
        ASSERT_NE(nullptr, gpszDefaultFilePrefix);
        EXPECT_EQ(std::string(length < 255 ? length : 255, 'p'), gpszDefaultFilePrefix);
    }
}

// Running or not

/// What every function answers while trace does not run.
void ExpectNotRunning() {
    EXPECT_EQ(0u, tq_TraceInitInstance("T"));
    EXPECT_EQ(1, tq_TraceTermInstance(2));
    EXPECT_EQ(0u, tq_TraceGetHandleFromName("T"));
    EXPECT_EQ(0, tq_TraceGetLevel(2));
    EXPECT_EQ(1, tq_TraceSetLevel(2, 0));
    EXPECT_EQ(0, tq_TraceGetCatMask(2));
    EXPECT_EQ(1, tq_TraceSetCatMask(2, 0));
    EXPECT_EQ(1, tq_TraceSetCategoryName(2, 1, "x"));
    EXPECT_EQ(0u, tq_TraceLookupCategory(2, "x"));
    EXPECT_EQ(0, tq_TraceGetDestinations(2, 0, 1));
    EXPECT_EQ(1, tq_TraceEnableSTDOUT(2));
    EXPECT_EQ(1, tq_TraceDisableSTDOUT(2));
    EXPECT_EQ(1, tq_TraceEnableSTDERR(2));
    EXPECT_EQ(1, tq_TraceDisableSTDERR(2));
    EXPECT_EQ(1, tq_TraceEnableDevStudio(2));
    EXPECT_EQ(1, tq_TraceDisableDevStudio(2));
    EXPECT_EQ(1, tq_TraceEnableMulticast(2));
    EXPECT_EQ(1, tq_TraceDisableMulticast(2));
    EXPECT_EQ(1, tq_TraceSetResetHandler(2, nullptr));
    EXPECT_EQ(1, tq_TraceSuppressTimestamp(2, true));
    EXPECT_EQ(1, tq_TraceShowThreadID(2, true));
    EXPECT_EQ(1, tq_TraceSetDeltaTimestamps(true));
    EXPECT_EQ(1, tq_TraceEnableFile(2, "x.log", 0, 0));
    EXPECT_EQ(1, tq_TraceDisableFile(2));
    EXPECT_EQ(nullptr, tq_TraceGetInstanceList());
    EXPECT_EQ("Tracing Subsystem not initialized!\r\n", Report());
    EXPECT_EQ("Tracing Subsystem not initialized!\r\n", Report(1, "T"));
    tq_Trace(2, TQ_TRACE_LEVEL_CRITICAL, 1, true, "nobody hears %d\n", 1);
    tq_TraceHexDump(2, TQ_TRACE_LEVEL_CRITICAL, 1, "abc", 3, "nobody\n");
    tq_TraceCriticalError("nobody", 50000, 1);
    tq_TraceKeptCriticalErrors();
    tq_TraceCleanupInstanceList(nullptr);
    EXPECT_FALSE(test::FileExists("x.log"));
    for (const SystemLogCall& call : TakeSystemLog()) {
        EXPECT_NE(std::string::npos, std::string("open Kelvarin close").find(call.what)) << call.what;
    }
}

TEST(TraceLifecycle, BeforeTheStartEveryCallSaysThatTraceDoesNotRun) {
    test::ScratchDirectory directory;
    ExpectNotRunning();
}

TEST(TraceLifecycle, AfterTheEndEveryCallSaysThatTraceDoesNotRun) {
    Library library(kToFile);
    EXPECT_NE(0u, tq_TraceInitInstance("T"));
    tq_TraceTerminate();
    ExpectNotRunning();
    library.Terminate();
    ExpectNotRunning();
}

TEST(TraceLifecycle, AfterAStartWithoutMemoryEveryCallSaysThatTraceDoesNotRun) {
    Library library(Tracked(""));
    tq_TraceTerminate();
    const unsigned int before = gRequestedMemoryAllocations;
    unsigned int failures = 0;
    unsigned int result = 1;
    for (unsigned int room = 1; result != 0; room += 16) {
        {
            Cap cap(room);
            result = tq_TraceInitialize();
        }
        if (result != 0) {
            ++failures;
            EXPECT_EQ(1u, result);
            EXPECT_EQ(before, gRequestedMemoryAllocations);
            ExpectNotRunning();
        }
    }
    EXPECT_LT(0u, failures);
    EXPECT_TRUE(gTraceGate.IsOpen());
}

TEST(TraceLifecycle, StartingWhatRunsChangesNothing) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0u, tq_TraceInitialize());
    EXPECT_EQ(handle, tq_TraceGetHandleFromName("T"));
}

TEST(TraceLifecycle, TheEndGivesBackEveryInstanceWhoeverOpenedIt) {
    Library library(Tracked("[Trace]\nDefaultLogToFilePrefix=log_\n"));
    tq_TraceTerminate();
    const unsigned int bytes = gRequestedMemoryAllocations;
    const unsigned int handles = gAllocatedHandles;
    const unsigned int files = OpenDescriptorsOf("log_a.log");
    ASSERT_EQ(0u, tq_TraceInitialize());
    for (const char* name : {"a", "b", "a"}) {
        const unsigned int handle = tq_TraceInitInstance(name);
        EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 1, "one"));
        EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 0x80000000u, "last"));
    }
    EXPECT_EQ(1u, OpenDescriptorsOf("log_a.log"));
    tq_TraceTerminate();
    tq_TraceTerminate();
    EXPECT_EQ(bytes, gRequestedMemoryAllocations);
    EXPECT_EQ(handles, gAllocatedHandles);
    EXPECT_EQ(files, OpenDescriptorsOf("log_a.log"));
}

TEST(TraceLifecycle, TheSystemLogIsOpenedAtTheStartAndClosedAtTheEnd) {
    TakeSystemLog();
    Library library;
    std::vector<SystemLogCall> calls = TakeSystemLog();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("open Kelvarin", calls[0].what);
    EXPECT_EQ(LOG_PID | LOG_ODELAY, calls[0].priority);
    EXPECT_EQ(LOG_USER, calls[0].facility);
    library.Terminate();
    calls = TakeSystemLog();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("close", calls[0].what);
}

TEST(TraceLifecycle, ThreadsMayTraceWhileTraceStopsAndStarts) {
    Library library("[Trace]\nDefaultLevel=All\ntqos_Level=None\nS_LogToFile=s.log\nS_MaxBytesPerFile=2000\n");
    std::atomic<bool> bStop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&bStop] {
            while (!bStop) {
                const unsigned int handle = tq_TraceInitInstance("S");
                tq_TraceSetCategoryName(handle, 2, "two");
                tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 2, true, "storm %s\n", "line");
                tq_TraceHexDump(handle, TQ_TRACE_LEVEL_WARNING, 2, "abcdefghijklmnopqrst", 20, "dump\n");
                tq_TraceEnableFile(handle, "s2.log", 2, 1000);
                tq_TraceDisableFile(handle);
                tq_TraceSetDeltaTimestamps(true);
                tq_TraceCleanupInstanceList(tq_TraceGetInstanceList());
                Report();
                LogCriticalError("storm\n", false, 50000, 16);
                tq_TraceTermInstance(handle);
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        tq_TraceTerminate();
        EXPECT_EQ(0u, tq_TraceInitialize());
        const unsigned int own = tq_TraceInitInstance("mine");
        EXPECT_NE(0u, own);
        tq_Trace(own, TQ_TRACE_LEVEL_WARNING, 1, false, "round\n");
    }
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    TakeSystemLog();
}

// Opening and closing

TEST(TraceInstance, ASecondOpeningOfTheNameGivesTheSameHandleUntilBothAreClosed) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("foo");
    EXPECT_NE(0u, handle);
    EXPECT_EQ(handle, tq_TraceInitInstance("foo"));
    EXPECT_EQ(0, tq_TraceTermInstance(handle));
    EXPECT_EQ(handle, tq_TraceGetHandleFromName("foo"));
    EXPECT_EQ(0, tq_TraceTermInstance(handle));
    EXPECT_EQ(0u, tq_TraceGetHandleFromName("foo"));
    EXPECT_EQ(1, tq_TraceTermInstance(handle));
}

TEST(TraceInstance, NamesAreFoundInAnyCaseOfLetters) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("foo");
    EXPECT_EQ(handle, tq_TraceInitInstance("FOO"));
    EXPECT_EQ(handle, tq_TraceGetHandleFromName("Foo"));
    EXPECT_EQ(0u, tq_TraceGetHandleFromName("fo"));
    EXPECT_EQ(0u, tq_TraceGetHandleFromName(nullptr));
    EXPECT_EQ(0u, tq__TraceInitInstance(nullptr, __FILE__, __LINE__));
    EXPECT_STREQ("foo", Record(handle)->pszTracingName);
}

TEST(TraceInstance, TheLastCloseFreesItAndGivesItsHandleBack) {
    Library library(Tracked(kToFile));
    const unsigned int bytes = gRequestedMemoryAllocations;
    const unsigned int handles = gAllocatedHandles;
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(handles + 1, gAllocatedHandles);
    EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 4, "four"));
    EXPECT_EQ(1u, OpenDescriptorsOf("/t.log"));
    EXPECT_EQ(0, tq_TraceTermInstance(handle));
    EXPECT_EQ(bytes, gRequestedMemoryAllocations);
    EXPECT_EQ(handles, gAllocatedHandles);
    EXPECT_EQ(0u, OpenDescriptorsOf("/t.log"));
}

TEST(TraceInstance, ASecondOpeningReadsNothingAgain) {
    Library library("[Trace]\nfoo_Level=Debug\n");
    const unsigned int handle = tq_TraceInitInstance("foo");
    WriteFile("tqos.ini", "[Trace]\nfoo_Level=Critical\nfoo_LogToSTDOUT=yes\n");
    EXPECT_EQ(handle, tq_TraceInitInstance("foo"));
    EXPECT_EQ(10000, tq_TraceGetLevel(handle));
    EXPECT_EQ("-----", TypeOf(handle));
}

TEST(TraceInstance, ItsLevelIsAWordOrElseANumber) {
    const struct {
        const char* line;
        int level;
    } rows[] = {
        {"foo_Level=Low\n", 5000},
        {"foo_Level=25000\n", 25000},
        {"foo_Level=0x9c40\n", 40000},
        {"foo_Level=-40000\n", -40000},
        {"foo_Level=\n", 0},
        {"foo_Level=Debug Low\n", 0}, // no word: a number, 0
        {"foo_Level=None\n", 0x7FFFFFFF},
        {"", 20000},
        {"foo_Level=0x80000001\n", 20000},
    };
    for (const auto& row : rows) {
        Library library(std::string("[Trace]\nDefaultLevel=Informational\n") + row.line);
        EXPECT_EQ(row.level, tq_TraceGetLevel(tq_TraceInitInstance("foo"))) << row.line;
    }
}

TEST(TraceInstance, DeliberatelyOneWithItsOwnLevelHasNoDefaultDestination) {
    Library library("[Trace]\nDefaultLogToSTDERR=yes\nDefaultLogToDevStudio=yes\nDefaultLogToFilePrefix=log_\n"
                    "foo_Level=Debug\n");
    EXPECT_EQ("-----", TypeOf(tq_TraceInitInstance("foo")));
    EXPECT_FALSE(test::FileExists("log_foo.log"));
    EXPECT_EQ("F-E-D", TypeOf(tq_TraceInitInstance("bar")));
    EXPECT_TRUE(test::FileExists("log_bar.log"));
}

TEST(TraceInstance, DeliberatelyOneWithItsOwnLevelHasNoDefaultsForItsFile) {
    Library library("[Trace]\nDefaultMaxFiles=4\nDefaultMaxBytesPerFile=5000\na_Level=Debug\na_LogToFile=a.log\n"
                    "b_Level=Debug\nb_LogToFile=b.log\nb_MaxBytesPerFile=100\n");
    const _TRACEINSTANCE* pA = Record(tq_TraceInitInstance("a"));
    EXPECT_EQ(0, pA->maxFiles);
    EXPECT_EQ(0, pA->bytesPerFile);
    EXPECT_TRUE(test::FileExists("a.log"));
    const _TRACEINSTANCE* pB = Record(tq_TraceInitInstance("b"));
    EXPECT_EQ(0, pB->maxFiles);
    EXPECT_EQ(100, pB->bytesPerFile);
    EXPECT_TRUE(test::FileExists("b.log"));
}

TEST(TraceInstance, ItsOwnKeysNameItsDestinations) {
    const struct {
        const char* lines;
        const char* type;
    } rows[] = {
        {"a_Level=All\na_LogToSTDOUT=yes\n", "-S---"},
        {"a_Level=All\na_LogToSTDERR=y\n", "--E--"},
        {"a_Level=All\na_LogToDevStudio=1\n", "----D"},
        {"a_Level=All\na_LogToFile=a.txt\na_LogToSTDOUT=true\na_LogToSTDERR=yes\na_LogToDevStudio=yes\n", "FSE-D"},
        {"DefaultLogToSTDOUT=yes\n", "-S---"},
        {"DefaultLogToSTDOUT=yes\na_LogToSTDOUT=no\na_LogToSTDERR=yes\n", "--E--"},
        {"DefaultLogToFilePrefix=p\na_LogToFile=\n", "-----"},
    };
    for (const auto& row : rows) {
        Library library(std::string("[Trace]\ntqos_Level=None\n") + row.lines);
        EXPECT_EQ(row.type, TypeOf(tq_TraceInitInstance("a"))) << row.lines;
    }
}

TEST(TraceInstance, ItsFileSettingsAreItsOwnOrTheDefaults) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLogToFilePrefix=log_\nDefaultMaxFiles=4\n"
                    "DefaultMaxBytesPerFile=5000\nb_LogToFile=other.txt\nb_MaxFiles=2\nb_MaxBytesPerFile=77\n");
    const _TRACEINSTANCE* pA = Record(tq_TraceInitInstance("a"));
    EXPECT_STREQ("log_a", pA->pszNamePrefix);
    EXPECT_STREQ("log", pA->pszNameSuffix);
    EXPECT_EQ(4, pA->maxFiles);
    EXPECT_EQ(5000, pA->bytesPerFile);
    EXPECT_TRUE(test::FileExists("log_a0000.log"));
    const _TRACEINSTANCE* pB = Record(tq_TraceInitInstance("b"));
    EXPECT_STREQ("other", pB->pszNamePrefix);
    EXPECT_STREQ("txt", pB->pszNameSuffix);
    EXPECT_EQ(2, pB->maxFiles);
    EXPECT_EQ(77, pB->bytesPerFile);
}

TEST(TraceInstance, ItsMaskAndLineSettingsAreItsOwnOrTheDefaults) {
    Library library("[Trace]\nDefaultCat=6\nDefaultSuppressTimestamp=yes\nDefaultShowThreadID=yes\n"
                    "b_Cat=0x11\nb_SuppressTimestamp=no\nb_ShowThreadID=no\n");
    const _TRACEINSTANCE* pA = Record(tq_TraceInitInstance("a"));
    EXPECT_EQ(6, pA->traceCategoryMask);
    EXPECT_TRUE(pA->bSuppressTimeStamps);
    EXPECT_TRUE(pA->bShowThreadID);
    const _TRACEINSTANCE* pB = Record(tq_TraceInitInstance("b"));
    EXPECT_EQ(0x11, pB->traceCategoryMask);
    EXPECT_FALSE(pB->bSuppressTimeStamps);
    EXPECT_FALSE(pB->bShowThreadID);
}

TEST(TraceInstance, AFileThatCannotBeOpenedLeavesItWithoutOne) {
    Library library("[Trace]\na_Level=All\na_LogToFile=missing/a.log\na_LogToSTDERR=yes\n");
    const unsigned int handle = tq_TraceInitInstance("a");
    EXPECT_NE(0u, handle);
    EXPECT_EQ("--E--", TypeOf(handle));
}

TEST(TraceInstance, NamesOfAnyLengthFindTheirKeys) {
    for (const size_t length : {1u, 31u, 32u, 127u, 255u, 256u, 490u}) {
        const std::string name(length, 'n');
        Library library("[Trace]\n" + name + "_Level=12345\n" + name + "_SuppressTimestamp=yes\n");
        const unsigned int handle = tq_TraceInitInstance(name.c_str());
        ASSERT_NE(0u, handle) << length;
        EXPECT_EQ(12345, tq_TraceGetLevel(handle)) << length;
        EXPECT_EQ(name, Record(handle)->pszTracingName);
        EXPECT_TRUE(length > 485 || Record(handle)->bSuppressTimeStamps) << length;
    }
    Library library;
    EXPECT_NE(0u, tq_TraceInitInstance(std::string(70000, 'n').c_str()));
    EXPECT_NE(0u, tq_TraceInitInstance(""));
}

TEST(TraceInstance, TheDefaultFileNameIsCutTo511Characters) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLogToFilePrefix=log_\n");
    std::string name = "/"; // "log_/": a directory that is there
    ASSERT_EQ(0, mkdir("log_", 0700));
    while (name.size() < 505) {
        name += "./";
    }
    name += "abcd"; // "log_" and these come to 513 characters, two of which are lost, and the extension with them
    const _TRACEINSTANCE* pInstance = Record(tq_TraceInitInstance(name.c_str()));
    ASSERT_EQ(509u, name.size());
    EXPECT_NE(nullptr, pInstance->hFile);
    EXPECT_EQ(511u, strlen(pInstance->pszNamePrefix) + 1 + strlen(pInstance->pszNameSuffix));
}

TEST(TraceInstance, AConfiguredPathOf490CharactersIsUsedWhole) {
    std::string path;
    while (path.size() < 484) {
        path += "./";
    }
    path += "ab.log";
    Library library("[Trace]\nq_Level=All\nq_LogToFile=" + path + "\n");
    EXPECT_NE(nullptr, Record(tq_TraceInitInstance("q"))->hFile);
    EXPECT_TRUE(test::FileExists("ab.log"));
}

TEST(TraceInstance, WithoutAFreeHandleNoneIsOpened) {
    Library library(Tracked("[Handles]\nMaxHandle=200\n"));
    while (tq_HandleGet() != 0) {
    }
    const unsigned int bytes = gRequestedMemoryAllocations;
    EXPECT_EQ(0u, tq_TraceInitInstance("foo"));
    EXPECT_EQ(0u, tq_TraceGetHandleFromName("foo"));
    EXPECT_EQ(bytes, gRequestedMemoryAllocations);
}

TEST(TraceInstance, WithoutMemoryNoneIsOpenedAndNothingIsLost) {
    Library library(Tracked("[Trace]\ntqos_Level=None\n"));
    unsigned int kept = 0; // leaves the list with a full block, so that the next instance needs another
    for (unsigned int i = 0; i < 15; ++i) {
        kept = tq_TraceInitInstance(("filler" + std::to_string(i)).c_str());
    }
    EXPECT_NE(0u, kept);
    const unsigned int bytes = gRequestedMemoryAllocations;
    const unsigned int handles = gAllocatedHandles;
    unsigned int handle = 0;
    unsigned int failures = 0;
    for (unsigned int room = 1; handle == 0; room += 16, ++failures) {
        {
            Cap cap(room);
            handle = tq_TraceInitInstance("foo");
        }
        if (handle == 0) {
            EXPECT_EQ(bytes, gRequestedMemoryAllocations) << room;
            EXPECT_EQ(handles, gAllocatedHandles) << room;
        }
    }
    EXPECT_LT(4u, failures);
    EXPECT_EQ(handle, tq_TraceGetHandleFromName("foo"));
}

// Setters, getters, names

TEST(TraceSetters, UnknownHandlesAreRefused) {
    Library library;
    const unsigned int unknown = 999999;
    EXPECT_EQ(1, tq_TraceTermInstance(unknown));
    EXPECT_EQ(0, tq_TraceGetLevel(unknown));
    EXPECT_EQ(1, tq_TraceSetLevel(unknown, 0));
    EXPECT_EQ(0, tq_TraceGetCatMask(unknown));
    EXPECT_EQ(1, tq_TraceSetCatMask(unknown, 0));
    EXPECT_EQ(1, tq_TraceSetCategoryName(unknown, 1, "x"));
    EXPECT_EQ(0u, tq_TraceLookupCategory(unknown, "x"));
    EXPECT_EQ(0, tq_TraceGetDestinations(unknown, 50000, 0xFFFFFFFFu));
    for (const auto setter : {tq_TraceEnableSTDOUT, tq_TraceDisableSTDOUT, tq_TraceEnableSTDERR, tq_TraceDisableSTDERR,
                              tq_TraceEnableDevStudio, tq_TraceDisableDevStudio, tq_TraceDisableFile}) {
        EXPECT_EQ(1, setter(unknown));
        EXPECT_EQ(1, setter(0));
    }
    EXPECT_EQ(1, tq_TraceSuppressTimestamp(unknown, true));
    EXPECT_EQ(1, tq_TraceShowThreadID(unknown, true));
    EXPECT_EQ(1, tq_TraceEnableFile(unknown, "x.log", 0, 0));
    EXPECT_FALSE(test::FileExists("x.log"));
}

TEST(TraceSetters, LevelAndMaskTakeAnyValue) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const int value : {0, 1, -1, 45000, INT_MAX, INT_MIN}) {
        EXPECT_EQ(0, tq_TraceSetLevel(handle, value));
        EXPECT_EQ(value, tq_TraceGetLevel(handle));
        EXPECT_EQ(0, tq_TraceSetCatMask(handle, value));
        EXPECT_EQ(value, tq_TraceGetCatMask(handle));
    }
}

TEST(TraceSetters, EachDestinationIsSwitchedByItsOwnPair) {
    const struct {
        int (*enable)(unsigned int);
        int (*disable)(unsigned int);
        int bit;
    } rows[] = {{tq_TraceEnableSTDOUT, tq_TraceDisableSTDOUT, 4},
                {tq_TraceEnableSTDERR, tq_TraceDisableSTDERR, 32},
                {tq_TraceEnableDevStudio, tq_TraceDisableDevStudio, 16}};
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const auto& row : rows) {
        EXPECT_EQ(0, row.enable(handle));
        EXPECT_EQ(row.bit, tq_TraceGetDestinations(handle, 0, 1));
        EXPECT_EQ(0, row.enable(handle));
        EXPECT_EQ(0, row.disable(handle));
        EXPECT_EQ(0, tq_TraceGetDestinations(handle, 0, 1));
        EXPECT_EQ(0, row.disable(handle));
    }
}

TEST(TraceCategories, EverySingleBitTakesAName) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("T");
    for (unsigned int bit = 0; bit < 32; ++bit) {
        EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 1u << bit, ("name" + std::to_string(bit)).c_str()));
    }
    for (unsigned int bit = 0; bit < 32; ++bit) {
        EXPECT_EQ(1u << bit, tq_TraceLookupCategory(handle, ("NAME" + std::to_string(bit)).c_str()));
    }
    EXPECT_EQ(0u, tq_TraceLookupCategory(handle, "name"));
    EXPECT_EQ(0u, tq_TraceLookupCategory(handle, nullptr));
}

TEST(TraceCategories, AnythingButASingleBitIsRefused) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const unsigned int category : {0u, 3u, 5u, 0xFFFFFFFFu, 0x80000001u}) {
        EXPECT_EQ(1, tq_TraceSetCategoryName(handle, category, "x")) << category;
    }
    EXPECT_EQ(1, tq_TraceSetCategoryName(handle, 1, nullptr));
    EXPECT_EQ(0u, tq_TraceLookupCategory(handle, "x"));
}

TEST(TraceCategories, ANewNameReplacesTheOldOneAndTheLowestOfEqualNamesIsFound) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 8, "same"));
    EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 4, "same"));
    EXPECT_EQ(4u, tq_TraceLookupCategory(handle, "same"));
    EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 4, "other"));
    EXPECT_EQ(8u, tq_TraceLookupCategory(handle, "Same"));
    EXPECT_EQ(4u, tq_TraceLookupCategory(handle, "Other"));
}

TEST(TraceCategories, WithoutMemoryTheOldNameStays) {
    Library library(Tracked("[Trace]\ntqos_Level=None\n"));
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceSetCategoryName(handle, 4, "old"));
    {
        Cap cap(1);
        EXPECT_EQ(1, tq_TraceSetCategoryName(handle, 4, "new"));
    }
    EXPECT_EQ(4u, tq_TraceLookupCategory(handle, "old"));
}

TEST(TraceCategories, TheLibrarysOwnInstanceNamesItsSix) {
    Library library;
    const unsigned int own = tq_TraceGetHandleFromName("tqos");
    EXPECT_EQ(tqosTraceHandle.load(), own);
    EXPECT_EQ(1u, tq_TraceLookupCategory(own, "Sockets"));
    EXPECT_EQ(2u, tq_TraceLookupCategory(own, "Timers"));
    EXPECT_EQ(4u, tq_TraceLookupCategory(own, "MsgQs"));
    EXPECT_EQ(8u, tq_TraceLookupCategory(own, "Memory"));
    EXPECT_EQ(16u, tq_TraceLookupCategory(own, "System"));
    EXPECT_EQ(32u, tq_TraceLookupCategory(own, "CritSec"));
}

// Filter

struct FilterRow {
    int instanceLevel;
    int mask;
    int level;
    unsigned int category;
    bool passes;
};

const FilterRow kFilterRows[] = {
    {30000, -1, 30000, 1, true},
    {30000, -1, 29999, 1, false},
    {30000, -1, 50000, 1, true},
    {0, -1, 0, 1, true},
    {0, -1, -1, 1, false},
    {TQ_TRACE_LEVEL_NONE, -1, 50000, 1, false},
    {TQ_TRACE_LEVEL_NONE, -1, TQ_TRACE_LEVEL_NONE, 1, true},
    {0, 6, 50000, 1, false},
    {0, 6, 50000, 4, true},
    {0, 6, 50000, 9, false},
    {0, 6, 50000, 0xFFFFFFFFu, true},
    {0, -1, 50000, 0, false},
    {0, 0, 50000, 0xFFFFFFFFu, false},
    {0, INT_MIN, 50000, 0x80000000u, true},
    {-30000, -1, 30000, 1, true},
    {-30000, -1, 50000, 1, false},
    {-30000, -1, 10000, 1, false},
    {-30000, -1, -30000, 1, false},
    {-30000, 6, 30000, 1, false},
    {-30000, 6, 30000, 2, true},
    {INT_MIN, -1, INT_MAX, 1, false},
};

TEST(TraceFilter, LevelAndMaskDecideAndTheGetterUsesTheSameRule) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const FilterRow& row : kFilterRows) {
        tq_TraceSetLevel(handle, row.instanceLevel);
        tq_TraceSetCatMask(handle, row.mask);
        const int flags = tq_TraceGetDestinations(handle, row.level, row.category);
        EXPECT_EQ(row.passes ? 3 : 0, flags) << row.instanceLevel << ' ' << row.mask << ' ' << row.level;
        TakeSystemLog();
        const size_t before = ReadFile("t.log").size();
        tq_Trace(handle, row.level, row.category, false, "message\n");
        EXPECT_EQ(row.passes, ReadFile("t.log").size() > before) << row.instanceLevel << ' ' << row.level;
        EXPECT_EQ(row.passes ? 1u : 0u, TakeSystemLog().size());
    }
}

TEST(TraceFilter, AnExactThresholdPassesItsOwnLevelAlone) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetLevel(handle, -TQ_TRACE_LEVEL_WARNING);
    tq_Trace(handle, TQ_TRACE_LEVEL_CRITICAL, 1, false, "critical\n");
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "warning\n");
    tq_Trace(handle, TQ_TRACE_LEVEL_DEBUG, 1, false, "debug\n");
    EXPECT_EQ("[<ms>]: (T) WRN: warning\n", Shown(ReadFile("t.log")));
}

TEST(TraceFilter, WithoutDestinationsNotEvenTheSystemLogHears) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    TakeSystemLog();
    tq_Trace(handle, TQ_TRACE_LEVEL_CRITICAL, 1, true, "message\n");
    tq_Trace(handle + 1000, TQ_TRACE_LEVEL_CRITICAL, 1, true, "message\n");
    tq_Trace(0, TQ_TRACE_LEVEL_CRITICAL, 1, true, "message\n");
    EXPECT_EQ(0u, TakeSystemLog().size());
}

TEST(TraceFilter, DevStudioAloneIsHeardByTheSystemLogOnly) {
    const test::ChildResult child = RunInChild([] {
        Library library("[Trace]\nT_Level=All\nT_LogToDevStudio=yes\n");
        TakeSystemLog();
        tq_Trace(tq_TraceInitInstance("T"), TQ_TRACE_LEVEL_CRITICAL, 1, true, "message\n");
        const std::vector<SystemLogCall> calls = TakeSystemLog();
        if (calls.size() != 1 || calls[0].what != "message\n") {
            _exit(1);
        }
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
    EXPECT_EQ("", child.standardOut);
    EXPECT_EQ("", child.standardError);
}

TEST(TraceFilter, InstancesThatShareAPlaceInTheFilterEachHaveTheirOwnRule) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLogToDevStudio=yes\n");
    const auto passes = [](unsigned int handle, int level) { return tq_TraceGetDestinations(handle, level, 1) != 0; };
    const unsigned int first = tq_TraceInitInstance("first");
    std::vector<unsigned int> between;
    while (between.empty() || between.back() < first + 1024 - 1) { // the filter has 1024 places
        between.push_back(tq_HandleGet());
    }
    const unsigned int second = tq_TraceInitInstance("second");
    ASSERT_EQ(first + 1024, second);
    for (int round = 0; round < 2; ++round) { // each level is changed while the other one holds the place, or nobody
        tq_TraceSetLevel(first, TQ_TRACE_LEVEL_DEBUG);
        tq_TraceSetLevel(second, TQ_TRACE_LEVEL_SEVERE);
        EXPECT_TRUE(passes(first, TQ_TRACE_LEVEL_DEBUG));
        EXPECT_FALSE(passes(second, TQ_TRACE_LEVEL_DEBUG));
        tq_TraceSetLevel(first, TQ_TRACE_LEVEL_SEVERE);
        tq_TraceSetLevel(second, TQ_TRACE_LEVEL_DEBUG);
        EXPECT_FALSE(passes(first, TQ_TRACE_LEVEL_DEBUG));
        EXPECT_TRUE(passes(second, TQ_TRACE_LEVEL_DEBUG));
    }
    EXPECT_EQ(0, tq_TraceTermInstance(first));
    EXPECT_FALSE(passes(first, TQ_TRACE_LEVEL_CRITICAL));
    EXPECT_TRUE(passes(second, TQ_TRACE_LEVEL_DEBUG));
    EXPECT_EQ(0, tq_TraceSetLevel(second, TQ_TRACE_LEVEL_SEVERE)); // takes the place that is free now
    EXPECT_FALSE(passes(second, TQ_TRACE_LEVEL_DEBUG));
    EXPECT_TRUE(passes(second, TQ_TRACE_LEVEL_SEVERE));
    for (const unsigned int handle : between) {
        tq_HandleRelease(handle);
    }
}

TEST(TraceFilter, EveryChangeOfAnInstanceIsSeenByTheNextMessage) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=None\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const auto destinations = [handle] { return tq_TraceGetDestinations(handle, TQ_TRACE_LEVEL_WARNING, 4); };
    EXPECT_EQ(0, destinations());
    tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_WARNING);
    EXPECT_EQ(0, destinations());
    tq_TraceEnableDevStudio(handle);
    EXPECT_EQ(TQ_TRACE_DEST_DEVSTUDIO, destinations());
    tq_TraceSetCatMask(handle, 3);
    EXPECT_EQ(0, destinations());
    tq_TraceSetCatMask(handle, 7);
    tq_TraceDisableDevStudio(handle);
    EXPECT_EQ(0, destinations());
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "t.log", 0, 0));
    EXPECT_EQ(TQ_TRACE_DEST_FILE | TQ_TRACE_DEST_FLUSH, destinations());
    tq_TraceDisableFile(handle);
    EXPECT_EQ(0, destinations());
    ASSERT_EQ(0, tq_TraceEnableMulticast(handle));
    EXPECT_EQ(TQ_TRACE_DEST_MULTICAST, destinations());
    tq_TraceDisableMulticast(handle);
    EXPECT_EQ(0, destinations());
    tq_TraceEnableSTDERR(handle);
    EXPECT_EQ(TQ_TRACE_DEST_STDERR, destinations());
    tq_TraceInitInstance("T");
    tq_TraceTermInstance(handle);
    EXPECT_EQ(TQ_TRACE_DEST_STDERR, destinations());
    tq_TraceTermInstance(handle);
    EXPECT_EQ(0, destinations());
}

TEST(TraceFilter, AMessageWithoutFormatWritesNothing) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    const char* volatile pszNone = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    tq_Trace(handle, TQ_TRACE_LEVEL_CRITICAL, 1, false, pszNone);
#pragma GCC diagnostic pop
    EXPECT_EQ("", ReadFile("t.log"));
}

// Lines

TEST(TraceLine, HasItsPiecesInOrder) {
    Library library("[Trace]\nT_Level=All\nT_LogToFile=t.log\nT_ShowThreadID=yes\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "message %d %s\n", 7, "x");
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "no date\n");
    tq_TraceShowThreadID(handle, false);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "no ids\n");
    tq_TraceSuppressTimestamp(handle, true);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "suppressed");
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, ", and no line end of its own");
    EXPECT_EQ("<date> [<ms>]: TID:<tid>:<pstid> (T) WRN: message 7 x\n"
              "[<ms>]: TID:<tid>:<pstid> (T) WRN: no date\n"
              "<date> [<ms>]: (T) WRN: no ids\n"
              "[<ms>]: (T) WRN: suppressed"
              "[<ms>]: (T) WRN: , and no line end of its own",
              Shown(ReadFile("t.log")));
}

TEST(TraceLine, ShowsTheIdsOfItsThread) {
    Library library("[Trace]\nT_Level=All\nT_LogToFile=t.log\nT_ShowThreadID=yes\n");
    tq_Trace(tq_TraceInitInstance("T"), TQ_TRACE_LEVEL_WARNING, 1, false, "\n");
    const std::string expected =
        "]: TID:" + std::to_string(tq_GetThreadId()) + ":" + std::to_string(tq_GetPSThreadId()) + " (T) WRN: \n";
    const std::string text = ReadFile("t.log");
    EXPECT_EQ(expected, text.substr(text.find(']')));
}

TEST(TraceLine, DeliberatelyOnlyTheExactLevelsHaveATag) {
    const struct {
        int level;
        const char* tag;
    } rows[] = {{50000, "CRT: "}, {40000, "SEV: "}, {30000, "WRN: "}, {20000, "INF: "},
                {10000, "DEB: "}, {5000, "LOW: "},  {45000, "UNK: "}, {25000, "UNK: "},
                {0, "UNK: "},     {1, "UNK: "},     {50001, "UNK: "}, {0x7FFFFFFF, "UNK: "}};
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    std::string expected;
    for (const auto& row : rows) {
        tq_Trace(handle, row.level, 1, false, "m\n");
        expected += std::string("[<ms>]: (T) ") + row.tag + "m\n";
    }
    EXPECT_EQ(expected, Shown(ReadFile("t.log")));
}

TEST(TraceLine, TheSystemLogGetsTheBareMessageAtThePriorityOfItsLevel) {
    const struct {
        int level;
        int priority;
    } rows[] = {
        {0x7FFFFFFF, LOG_ALERT}, {50001, LOG_ALERT},   {50000, LOG_CRIT},    {40001, LOG_CRIT},    {40000, LOG_ERR},
        {30001, LOG_ERR},        {30000, LOG_WARNING}, {25000, LOG_WARNING}, {20001, LOG_WARNING}, {20000, LOG_INFO},
        {10001, LOG_INFO},       {10000, LOG_DEBUG},   {5000, LOG_DEBUG},    {0, LOG_DEBUG},
    };
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const auto& row : rows) {
        TakeSystemLog();
        tq_Trace(handle, row.level, 1, true, "%s %d\n", "message", 5);
        const std::vector<SystemLogCall> calls = TakeSystemLog();
        ASSERT_EQ(1u, calls.size()) << row.level;
        EXPECT_EQ("message 5\n", calls[0].what);
        EXPECT_EQ(row.priority, calls[0].priority) << row.level;
    }
}

TEST(TraceLine, ANegativeLevelHasTheSystemLogsPriorityOfItsMagnitude) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetLevel(handle, INT_MIN); // the one threshold that lets a negative level pass: its own negative
    TakeSystemLog();
    tq_Trace(handle, INT_MIN, 1, true, "message\n");
    const std::vector<SystemLogCall> calls = TakeSystemLog();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(LOG_ALERT, calls[0].priority);
}

TEST(TraceLine, ALevelInBetweenHasNoTagAndTheSystemLogsPriorityOfTheOneBelow) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_INFORMATIONAL);
    TakeSystemLog();
    tq_Trace(handle, 25000, 1, false, "m\n");
    EXPECT_EQ("[<ms>]: (T) UNK: m\n", Shown(ReadFile("t.log")));
    const std::vector<SystemLogCall> calls = TakeSystemLog();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(LOG_WARNING, calls[0].priority);
}

void TraceThroughList(unsigned int handle, const char* format, ...) {
    va_list args;
    va_start(args, format);
    tq_TraceVA(handle, TQ_TRACE_LEVEL_WARNING, 1, false, format, args);
    tq_TraceInternal(handle, TQ_TRACE_LEVEL_WARNING, 1, false, format, args);
    va_end(args);
}

TEST(TraceLine, EveryDestinationFormatsTheArgumentsAfresh) {
    const test::ChildResult child = RunInChild([] {
        Library library(std::string(kToFile) + "T_LogToSTDOUT=yes\nT_LogToSTDERR=yes\n");
        TakeSystemLog();
        TraceThroughList(tq_TraceInitInstance("T"), "%d %s %lld %.2f %c\n", 1, "two", 3LL, 4.25, '5');
        const std::vector<SystemLogCall> calls = TakeSystemLog();
        if (calls.size() != 2 || calls[0].what != "1 two 3 4.25 5\n" || calls[1].what != calls[0].what) {
            _exit(1);
        }
        if (Shown(ReadFile("t.log")) != "[<ms>]: (T) WRN: 1 two 3 4.25 5\n[<ms>]: (T) WRN: 1 two 3 4.25 5\n") {
            _exit(2);
        }
    });
    const std::string line = "[<ms>]: (T) WRN: 1 two 3 4.25 5\n";
    EXPECT_EQ(0, child.code);
    EXPECT_EQ(line + line, Shown(child.standardOut));
    EXPECT_EQ(line + line, Shown(child.standardError));
}

TEST(TraceLine, AMessageOf70000CharactersComesOutWholeEverywhere) {
    const std::string message(70000, 'm');
    const test::ChildResult child = RunInChild([&message] {
        Library library(std::string(kToFile) + "T_LogToSTDOUT=yes\nT_LogToSTDERR=yes\n");
        TakeSystemLog();
        tq_Trace(tq_TraceInitInstance("T"), TQ_TRACE_LEVEL_WARNING, 1, false, "%s\n", message.c_str());
        const std::string text = ReadFile("t.log");
        if (text.substr(text.find(')')) != ") WRN: " + message + "\n") {
            _exit(1);
        }
        if (TakeSystemLog().at(0).what != message + "\n") {
            _exit(2);
        }
    });
    EXPECT_EQ(0, child.code);
    EXPECT_EQ("[<ms>]: (T) WRN: " + message + "\n",
              Shown(child.standardOut.substr(0, 60)) + child.standardOut.substr(60));
    EXPECT_EQ("[<ms>]: (T) WRN: " + message + "\n",
              Shown(child.standardError.substr(0, 60)) + child.standardError.substr(60));
}

TEST(TraceLine, LinesAboutAsLongAsTheirBufferComeOutWhole) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    std::string expected;
    for (size_t length = 980; length < 1040; ++length) {
        const std::string message = std::string(length, 'm') + std::to_string(length) + "\n";
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%s", message.c_str());
        expected += "[<ms>]: (T) WRN: " + message;
    }
    EXPECT_EQ(expected, Shown(ReadFile("t.log")));
    EXPECT_EQ(ReadFile("t.log").size(), static_cast<size_t>(Record(handle)->totalBytesWritten));
}

TEST(TraceLine, AnInstancesNameMayBeLongerThanAnyBuffer) {
    const std::string name(3000, 'n');
    Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultSuppressTimestamp=yes\n");
    const unsigned int handle = tq_TraceInitInstance(name.c_str());
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "t.log", 0, 0));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%d\n", 17);
    EXPECT_EQ("[<ms>]: (" + name + ") WRN: 17\n", Shown(ReadFile("t.log")));
}

TEST(TraceLine, AZeroByteInTheMessageIsWrittenAsItIs) {
    Library library(kToFile);
    tq_Trace(tq_TraceInitInstance("T"), TQ_TRACE_LEVEL_WARNING, 1, false, "a%cb\n", 0);
    EXPECT_EQ(std::string("[<ms>]: (T) WRN: a\0b\n", 21), Shown(ReadFile("t.log")));
}

TEST(TraceLine, ADateTextFollowsAChangeOfTheZoneAtOnce) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\nT_LogToFile=t.log\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const auto hour = [handle](const char* pszZone) {
        setenv("TZ", pszZone, 1);
        tzset();
        const size_t before = ReadFile("t.log").size();
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "\n");
        return atoi(ReadFile("t.log").c_str() + before + 11);
    };
    const int east = hour("AAA-5");
    const int middle = hour("BBB0");
    const int hours = (east - middle + 24) % 24;
    EXPECT_TRUE(hours == 5 || hours == 4) << hours; // 4: an hour ended in between
}

TEST(TraceLine, LinesOfManyThreadsStandWhole) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([handle, i] {
            for (int line = 0; line < kLines; ++line) {
                tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%s\n",
                         std::string(40, static_cast<char>('a' + i)).c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string text = Shown(ReadFile("t.log"));
    for (int i = 0; i < kThreads; ++i) {
        const std::string line = "[<ms>]: (T) WRN: " + std::string(40, static_cast<char>('a' + i)) + "\n";
        EXPECT_EQ(static_cast<size_t>(kLines), CountOf(text, line));
    }
}

/// The milliseconds of each line.
std::vector<unsigned int> StampsOf(const std::string& text) {
    std::vector<unsigned int> stamps;
    const std::regex stamp("\\[([0-9]+)\\]: ");
    for (std::sregex_iterator at(text.begin(), text.end(), stamp), end; at != end; ++at) {
        stamps.push_back(static_cast<unsigned int>(std::stoul((*at)[1])));
    }
    return stamps;
}

TEST(TraceLine, DeltasCountFromTheLineBeforeOfWhateverInstance) {
    Library library(std::string(kToFile) + "U_Level=All\nU_LogToFile=u.log\n");
    const unsigned int t = tq_TraceInitInstance("T");
    const unsigned int u = tq_TraceInitInstance("U");
    const unsigned int start = tq_GetTimeInMS();
    EXPECT_EQ(0, tq_TraceSetDeltaTimestamps(true));
    tq_Trace(t, TQ_TRACE_LEVEL_WARNING, 1, false, "the clock\n");
    const unsigned int first = guiLastTimeStampInMS;
    tq_Sleep(40);
    tq_Trace(u, TQ_TRACE_LEVEL_WARNING, 1, false, "since the line of T\n");
    const unsigned int second = guiLastTimeStampInMS;
    tq_Trace(t, TQ_TRACE_LEVEL_NONE - 1, 0, false, "filtered: no stamp is taken\n");
    EXPECT_EQ(second, guiLastTimeStampInMS);
    const std::vector<unsigned int> ofT = StampsOf(ReadFile("t.log"));
    const std::vector<unsigned int> ofU = StampsOf(ReadFile("u.log"));
    ASSERT_EQ(1u, ofT.size());
    ASSERT_EQ(1u, ofU.size());
    EXPECT_EQ(first, ofT[0]);
    EXPECT_LT(first - start, 60000u);
    EXPECT_EQ(second - first, ofU[0]);
    EXPECT_LE(30u, ofU[0]);
}

TEST(TraceLine, SwitchingDeltasOffForgetsTheLastLine) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetDeltaTimestamps(true);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "\n");
    EXPECT_NE(0u, guiLastTimeStampInMS);
    EXPECT_EQ(0, tq_TraceSetDeltaTimestamps(false));
    EXPECT_EQ(0u, guiLastTimeStampInMS);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "\n");
    EXPECT_EQ(0u, guiLastTimeStampInMS);
    const std::vector<unsigned int> stamps = StampsOf(ReadFile("t.log"));
    ASSERT_EQ(2u, stamps.size());
    EXPECT_LT(stamps[1] - stamps[0], 60000u); // both the clock
}

// Log files

TEST(TraceFile, ThePathIsCutAtItsLastDot) {
    const struct {
        const char* path;
        const char* prefix;
        const char* suffix;
        const char* file;
    } rows[] = {
        {"a.log", "a", "log", "a.log"},       {"a.b.c", "a.b", "c", "a.b.c"},
        {"plain", "plain", "", "plain."},     {"dot.", "dot", "", "dot."},
        {".hidden", "", "hidden", ".hidden"}, {"x\\y.log", "x\\y", "log", "x\\y.log"},
        {"x.d\\y", "x.d\\y", "", "x.d\\y."},
    };
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    for (const auto& row : rows) {
        EXPECT_EQ(0, tq_TraceEnableFile(handle, row.path, 0, 0)) << row.path;
        EXPECT_STREQ(row.prefix, Record(handle)->pszNamePrefix);
        EXPECT_STREQ(row.suffix, Record(handle)->pszNameSuffix);
        EXPECT_TRUE(test::FileExists(row.file)) << row.file;
        EXPECT_EQ(0, tq_TraceDisableFile(handle));
    }
}

TEST(TraceFile, DeliberatelyASlashDoesNotEndADirectory) {
    Library library("[Trace]\nT_Level=All\n");
    ASSERT_EQ(0, mkdir("app.d", 0700));
    const unsigned int handle = tq_TraceInitInstance("T");
    const std::string path = library.Path() + "/app.d/trace";
    EXPECT_EQ(0, tq_TraceEnableFile(handle, path.c_str(), 0, 0));
    EXPECT_STREQ((library.Path() + "/app").c_str(), Record(handle)->pszNamePrefix);
    EXPECT_STREQ("d/trace", Record(handle)->pszNameSuffix);
    EXPECT_TRUE(test::FileExists(path)); // put together again without rotation
    EXPECT_EQ(0, tq_TraceDisableFile(handle));
    EXPECT_EQ(1, tq_TraceEnableFile(handle, path.c_str(), 2, 100)); // with it "app0000.d" is not there
}

TEST(TraceFile, EnablingSetsItsBitsAndDisablingClearsAll) {
    Library library("[Trace]\nT_Level=All\nT_LogToSTDERR=yes\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    _TRACEINSTANCE* pInstance = Record(handle);
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "t.log", 3, 500));
    EXPECT_EQ(35, pInstance->Flags);
    EXPECT_EQ(3, pInstance->maxFiles);
    EXPECT_EQ(500, pInstance->bytesPerFile);
    EXPECT_EQ(0, pInstance->currentFileIndex);
    EXPECT_NE(nullptr, pInstance->hFile);
    pInstance->currentFileIndex = 2;
    pInstance->totalBytesWritten = 5;
    EXPECT_EQ(0, tq_TraceDisableFile(handle));
    EXPECT_EQ(32, pInstance->Flags);
    EXPECT_EQ(0, pInstance->maxFiles);
    EXPECT_EQ(0, pInstance->bytesPerFile);
    EXPECT_EQ(0, pInstance->currentFileIndex);
    EXPECT_EQ(0, pInstance->totalBytesWritten);
    EXPECT_EQ(nullptr, pInstance->hFile);
    EXPECT_EQ(nullptr, pInstance->pszNamePrefix);
    EXPECT_EQ(nullptr, pInstance->pszNameSuffix);
    EXPECT_EQ(0, tq_TraceDisableFile(handle));
}

TEST(TraceFile, WithoutASizeThereIsOneFile) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "t.log", 5, 0));
    EXPECT_EQ(0, Record(handle)->maxFiles);
    EXPECT_TRUE(test::FileExists("t.log"));
    EXPECT_FALSE(test::FileExists("t0000.log"));
}

TEST(TraceFile, AnExistingFileIsOverwritten) {
    Library library;
    WriteFile("t.log", "old text\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "t.log", 0, 0));
    EXPECT_EQ("", ReadFile("t.log"));
}

TEST(TraceFile, AFailedEnablingLeavesTheInstanceAsItWas) {
    Library library(Tracked(kToFile));
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "u.log", 2, 900));
    const unsigned int bytes = gRequestedMemoryAllocations;
    EXPECT_EQ(1, tq_TraceEnableFile(handle, "missing/x.log", 3, 800));
    EXPECT_EQ(1, tq_TraceEnableFile(handle, (std::string(5000, '/') + "tmp/x.log").c_str(), 0, 0));
    EXPECT_EQ(1, tq_TraceEnableFile(handle, nullptr, 0, 0));
    EXPECT_EQ(bytes, gRequestedMemoryAllocations);
    EXPECT_STREQ("u", Record(handle)->pszNamePrefix);
    EXPECT_EQ(2, Record(handle)->maxFiles);
    EXPECT_EQ(900, Record(handle)->bytesPerFile);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "m\n");
    EXPECT_EQ("[<ms>]: (T) WRN: m\n", Shown(ReadFile("u0000.log")));
}

TEST(TraceFile, WithoutMemoryNothingIsEnabled) {
    Library library(Tracked("[Trace]\ntqos_Level=None\nT_Level=All\n"));
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int bytes = gRequestedMemoryAllocations;
    int result = 1;
    unsigned int failures = 0;
    for (unsigned int room = 1; result != 0; room += 2, ++failures) {
        {
            Cap cap(room);
            result = tq_TraceEnableFile(handle, "t.log", 0, 0);
        }
        EXPECT_TRUE(result == 0 || bytes == gRequestedMemoryAllocations);
        EXPECT_TRUE(result == 0 || !test::FileExists("t.log"));
    }
    EXPECT_LT(2u, failures);
}

TEST(TraceFile, DeliberatelyEnablingAnotherFileLeavesTheOldOneOpen) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "first.log", 0, 0));
    FILE* hFirst = Record(handle)->hFile;
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "second.log", 0, 0));
    EXPECT_EQ(1u, OpenDescriptorsOf("/first.log"));
    EXPECT_EQ(1u, OpenDescriptorsOf("/second.log"));
    EXPECT_EQ(0, tq_TraceDisableFile(handle));
    EXPECT_EQ(1u, OpenDescriptorsOf("/first.log")); // lost to the library; this test takes care of it
    EXPECT_EQ(0u, OpenDescriptorsOf("/second.log"));
    fclose(hFirst);
}

TEST(TraceFile, TheBytesWrittenAreTheFilesSizeAndItIsFlushedAfterEveryLine) {
    Library library("[Trace]\nT_Level=All\nT_LogToFile=t.log\nT_ShowThreadID=yes\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    for (int line = 0; line < 5; ++line) {
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, line % 2 == 0, "%0*d\n", 1 + line * 300, line);
        EXPECT_EQ(ReadFile("t.log").size(), static_cast<size_t>(Record(handle)->totalBytesWritten));
    }
}

TEST(TraceFile, FilesTakeTurns) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "name.log", 3, 20));
    std::string order;
    for (char line = 'a'; line < 'h'; ++line) { // each line is long enough to fill a file
        order += static_cast<char>('0' + Record(handle)->currentFileIndex);
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%c%s\n", line, "..............................");
        EXPECT_EQ(0, Record(handle)->totalBytesWritten);
    }
    EXPECT_EQ("0120120", order);
    EXPECT_EQ("[<ms>]: (T) WRN: g..............................\n", Shown(ReadFile("name0000.log")));
    EXPECT_EQ("", ReadFile("name0001.log")); // the next in turn, started anew
    EXPECT_EQ("[<ms>]: (T) WRN: f..............................\n", Shown(ReadFile("name0002.log")));
    EXPECT_FALSE(test::FileExists("name0003.log"));
    EXPECT_FALSE(test::FileExists("name.log"));
}

TEST(TraceFile, ASingleFileStartsAgain) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "one.log", 0, 1000));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "kept\n");
    EXPECT_EQ("[<ms>]: (T) WRN: kept\n", Shown(ReadFile("one.log")));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%01000d\n", 0);
    EXPECT_EQ("", ReadFile("one.log"));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "anew\n");
    EXPECT_EQ("[<ms>]: (T) WRN: anew\n", Shown(ReadFile("one.log")));
    EXPECT_EQ(0, Record(handle)->currentFileIndex);
}

TEST(TraceFile, DeliberatelyTheRotationCountsTheFormatNotTheText) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    // The format is 40 characters, the text it makes 1: rotates although another text of the kind would fit.
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "long.log", 0, 500));
    Record(handle)->totalBytesWritten = 455;
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%.0s%.0s%.0s%.0s%.0s%.0s%.0s%.0s%.0s\n%.0s", "", "", "", "", "",
             "", "", "", "", "");
    EXPECT_EQ("", ReadFile("long.log"));
    EXPECT_EQ(0, Record(handle)->totalBytesWritten);
    tq_TraceDisableFile(handle);
    // The format is 3 characters, the text 401: stays, although the next such text will not fit.
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "short.log", 0, 500));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "%s\n", std::string(400, 'x').c_str());
    EXPECT_EQ(static_cast<size_t>(Record(handle)->totalBytesWritten), ReadFile("short.log").size());
    EXPECT_LT(400, Record(handle)->totalBytesWritten);
}

TEST(TraceFile, RotatesAtExactlyTheSize) {
    Library library("[Trace]\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "t.log", 0, 1000000));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "12345\n");
    const int written = Record(handle)->totalBytesWritten;
    Record(handle)->bytesPerFile = 2 * written + 6 + 1; // one more than the next line and its format come to
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "12345\n");
    EXPECT_EQ(2 * written, Record(handle)->totalBytesWritten);
    Record(handle)->bytesPerFile = 3 * written + 6;
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "12345\n");
    EXPECT_EQ(0, Record(handle)->totalBytesWritten);
}

TEST(TraceFile, AFailedRotationLeavesNoFileUntilOneIsEnabledAgain) {
    Library library("[Trace]\nT_Level=All\n");
    ASSERT_EQ(0, mkdir("logs", 0700));
    const unsigned int handle = tq_TraceInitInstance("T");
    ASSERT_EQ(0, tq_TraceEnableFile(handle, "logs/t.log", 2, 30));
    ASSERT_EQ(0, mkdir("logs/t0001.log", 0700)); // where the next file should be
    TakeSystemLog();
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "fills the file, and more than that\n");
    EXPECT_EQ(nullptr, Record(handle)->hFile);
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "skips it\n");
    EXPECT_EQ(2u, TakeSystemLog().size());
    EXPECT_EQ(0u, CountOf(ReadFile("logs/t0000.log"), "skips it"));
    EXPECT_EQ("F----", TypeOf(handle));
    EXPECT_EQ(0, tq_TraceEnableFile(handle, "logs/u.log", 0, 0));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "back\n");
    EXPECT_EQ("[<ms>]: (T) WRN: back\n", Shown(ReadFile("logs/u.log")));
}

TEST(TraceFile, TheCounterOfAFileThatNeverRotatesStartsAgain) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    Record(handle)->totalBytesWritten = INT_MAX;
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "m\n");
    EXPECT_GT(0, Record(handle)->totalBytesWritten);
    EXPECT_EQ("[<ms>]: (T) WRN: m\n", Shown(ReadFile("t.log")));
}

// Hex dump

std::string AddressColumn(const void* p) {
    char text[16];
    snprintf(text, sizeof(text), "%08X", static_cast<unsigned int>(reinterpret_cast<unsigned long>(p)));
    return text;
}

std::string DumpOf(const void* pData, unsigned int length) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceHexDump(handle, TQ_TRACE_LEVEL_DEBUG, 1, pData, length, "dump of %s", "it");
    return Shown(ReadFile("t.log"));
}

const char kDumpHead[] = "[<ms>]: (T) DEB: dump of it[<ms>]: (T) DEB: \n";

TEST(TraceHexDump, ShowsAddressHexadecimalAndPrintableCharacters) {
    const char data[] = "0123456789:;<=>?\x01\x1f ~\x7f\x80\xff";
    EXPECT_EQ(std::string(kDumpHead) + "[<ms>]: (T) DEB: " + AddressColumn(data) +
                  ": 3031323334353637-38393a3b3c3d3e3f  0123456789:;<=>?\n" +
                  "[<ms>]: (T) DEB: " + AddressColumn(data + 16) + ": 011f207e7f80ff                     .. ~...\n",
              DumpOf(data, 23));
}

TEST(TraceHexDump, PutsADashAfterTheEighthByteAlsoWhenItIsTheLast) {
    const char data[] = "abcdefgh";
    EXPECT_EQ(std::string(kDumpHead) + "[<ms>]: (T) DEB: " + AddressColumn(data) +
                  ": 6162636465666768-                  abcdefgh\n",
              DumpOf(data, 8));
    EXPECT_EQ(std::string(kDumpHead) + "[<ms>]: (T) DEB: " + AddressColumn(data) +
                  ": 61626364656667                     abcdefg\n",
              DumpOf(data, 7));
}

TEST(TraceHexDump, FullLinesHaveNoEmptyOneAfterThem) {
    const std::string data(32, 'x');
    EXPECT_EQ(1u + 1u, CountOf(DumpOf(data.data(), 16), "\n"));
    EXPECT_EQ(1u + 2u, CountOf(DumpOf(data.data(), 32), "\n"));
}

TEST(TraceHexDump, OfNothingIsTheMessageAndALineEnd) {
    EXPECT_EQ(kDumpHead, DumpOf("x", 0));
    EXPECT_EQ(kDumpHead, DumpOf(nullptr, 5));
}

TEST(TraceHexDump, HasDateAndTimeInItsMessageAlone) {
    Library library("[Trace]\nT_Level=All\nT_LogToFile=t.log\n");
    tq_TraceHexDump(tq_TraceInitInstance("T"), TQ_TRACE_LEVEL_DEBUG, 1, "a", 1, "dump");
    const std::string text = Shown(ReadFile("t.log"));
    EXPECT_EQ(0u, text.find("<date> [<ms>]: (T) DEB: dump[<ms>]: (T) DEB: \n"));
    EXPECT_EQ(1u, CountOf(text, "<date>"));
}

TEST(TraceHexDump, IsFilteredAsAnyMessage) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_WARNING);
    tq_TraceHexDump(handle, TQ_TRACE_LEVEL_DEBUG, 1, "a", 1, "dump");
    EXPECT_EQ("", ReadFile("t.log"));
}

TEST(TraceHexDump, DumpsOfTwoThreadsMixByLinesNeverWithinOne) {
    Library library(kToFile);
    const unsigned int handle = tq_TraceInitInstance("T");
    const std::string data[] = {std::string(64, 'a'), std::string(64, 'b')};
    std::vector<std::thread> threads;
    for (const std::string& bytes : data) {
        threads.emplace_back([handle, &bytes] {
            for (int i = 0; i < 100; ++i) {
                tq_TraceHexDump(handle, TQ_TRACE_LEVEL_DEBUG, 1, bytes.data(), 64, "\n");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string text = ReadFile("t.log");
    for (const std::string& bytes : data) {
        const char* hex = bytes[0] == 'a' ? "6161616161616161-6161616161616161" : "6262626262626262-6262626262626262";
        for (unsigned int line = 0; line < 4; ++line) {
            EXPECT_EQ(100u, CountOf(text, AddressColumn(bytes.data() + 16 * line) + ": " + hex + "  " +
                                              bytes.substr(0, 16) + "\n"));
        }
    }
}

// Critical errors

TEST(TraceCriticalError, IsALineOfTheLibrarysOwnInstance) {
    Library library("[Trace]\ntqos_Level=All\ntqos_LogToFile=own.log\n");
    LogCriticalError("something broke\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_EQ("<date> [<ms>]: (tqos) SEV: something broke\n", Shown(ReadFile("own.log")));
}

TEST(TraceCriticalError, PassesTheOwnInstancesFilter) {
    Library library(kOwnToFile);
    tq_TraceSetLevel(tqosTraceHandle, TQ_TRACE_LEVEL_CRITICAL);
    LogCriticalError("too low\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    tq_TraceSetLevel(tqosTraceHandle, TQ_TRACE_LEVEL_ALL);
    tq_TraceSetCatMask(tqosTraceHandle, TQ_TRACE_CAT_TIMERS);
    LogCriticalError("another category\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_EQ("", ReadFile("own.log"));
}

TEST(TraceCriticalError, APairOfPercentSignsIsOneAndConversionsPrintAsTheyStand) {
    const struct {
        const char* message;
        const char* text;
    } rows[] = {
        {"100%%\n", "100%\n"}, {"%%%%\n", "%%\n"}, {"%%%\n", "%%\n"}, {"%s%n%d\n", "%s%n%d\n"},
        {"%%s\n", "%s\n"},     {"a%", "a%"},       {"", ""},
    };
    for (const auto& row : rows) {
        Library library(kOwnToFile);
        TakeSystemLog();
        LogCriticalError(row.message, false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
        EXPECT_EQ(std::string("[<ms>]: (tqos) SEV: ") + row.text, Shown(ReadFile("own.log")));
        const std::vector<SystemLogCall> calls = TakeSystemLog();
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ(row.text, calls[0].what);
    }
}

TEST(TraceCriticalError, OfAnyLengthIsTracedWhole) {
    for (const char* end : {"\n", "%%\n"}) {
        Library library(kOwnToFile);
        const std::string message(70000, 'e');
        LogCriticalError((message + end).c_str(), false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
        const std::string expected = std::string("(tqos) SEV: ") + message + (end[0] == '%' ? "%\n" : "\n");
        const std::string text = ReadFile("own.log");
        EXPECT_EQ(expected, text.substr(text.find('(')));
    }
}

TEST(TraceCriticalError, CountsInFullForTheRotation) {
    Library library(kOwnToFile);
    ASSERT_EQ(0, tq_TraceEnableFile(tqosTraceHandle, "turn.log", 2, 500));
    LogCriticalError(std::string(250, 'e').c_str(), false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_EQ(1, Record(tqosTraceHandle)->currentFileIndex); // the line, and its format as long as the message
}

TEST(TraceCriticalError, WithoutATextWritesNothing) {
    Library library(kOwnToFile);
    LogCriticalError(nullptr, false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    tq_TraceCriticalError(nullptr, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_EQ("", ReadFile("own.log"));
}

TEST(TraceCriticalError, UnderALockIsKeptUntilTheThreadHasLeftItsLast) {
    Library library(kOwnToFile);
    tq_SemCritSec outer(true);
    tq_SemCritSec inner(true);
    outer.Enter();
    LogCriticalError("first\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    inner.Enter();
    LogCriticalError("second %%\n", false, TQ_TRACE_LEVEL_CRITICAL, TQ_TRACE_CAT_SYSTEM);
    inner.Leave();
    EXPECT_TRUE(gbCriticalErrorsKept);
    EXPECT_EQ("", ReadFile("own.log"));
    outer.Leave();
    EXPECT_FALSE(gbCriticalErrorsKept);
    EXPECT_EQ("[<ms>]: (tqos) SEV: first\n[<ms>]: (tqos) CRT: second %\n", Shown(ReadFile("own.log")));
}

TEST(TraceCriticalError, WhatIsKeptIsPrintedBeforeTheNextOneOfAThreadWithoutLocks) {
    Library library(kOwnToFile);
    tq_SemCritSec section(true);
    section.Enter();
    LogCriticalError("first\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    std::thread([] { LogCriticalError("second\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY); }).join();
    EXPECT_EQ("[<ms>]: (tqos) SEV: first\n[<ms>]: (tqos) SEV: second\n", Shown(ReadFile("own.log")));
    section.Leave();
    EXPECT_EQ(2u, CountOf(ReadFile("own.log"), "\n"));
}

TEST(TraceCriticalError, Of40UnderALockTheFirst32AreKept) {
    Library library(kOwnToFile);
    for (int round = 0; round < 2; ++round) { // the second one runs over the ring's end
        tq_SemCritSec section(true);
        section.Enter();
        for (int i = 0; i < (round == 0 ? 5 : 40); ++i) {
            LogCriticalError(("error " + std::to_string(i) + ".\n").c_str(), false, TQ_TRACE_LEVEL_SEVERE, 8);
        }
        section.Leave();
    }
    const std::string text = ReadFile("own.log");
    EXPECT_EQ(5u + 32u, CountOf(text, "\n"));
    EXPECT_EQ(1u, CountOf(text, "error 31."));
    EXPECT_EQ(0u, CountOf(text, "error 32."));
    EXPECT_LT(text.find("error 30."), text.find("error 31."));
}

TEST(TraceCriticalError, AKeptTextIsCutTo2047Characters) {
    for (const size_t length : {2046u, 2047u, 2048u, 9000u}) {
        Library library(kOwnToFile);
        tq_SemCritSec section(true);
        section.Enter();
        LogCriticalError(std::string(length, 'k').c_str(), false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
        section.Leave();
        const std::string text = ReadFile("own.log");
        EXPECT_EQ("(tqos) SEV: " + std::string(length < 2047 ? length : 2047, 'k'), text.substr(text.find('(')));
    }
}

TEST(TraceCriticalError, TheEndOfTracePrintsWhatIsKept) {
    Library library(kOwnToFile);
    tq_SemCritSec section(true);
    section.Enter();
    LogCriticalError("last words\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    tq_TraceTerminate();
    EXPECT_EQ("[<ms>]: (tqos) SEV: last words\n", Shown(ReadFile("own.log")));
    LogCriticalError("too late\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_FALSE(gbCriticalErrorsKept);
    section.Leave();
    EXPECT_EQ(1u, CountOf(ReadFile("own.log"), "\n"));
}

TEST(TraceCriticalError, BeforeTraceRunsItIsDropped) {
    test::ScratchDirectory directory;
    tq_TraceCriticalError("early\n", TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    EXPECT_FALSE(gbCriticalErrorsKept);
}

TEST(TraceCriticalError, ARefusedAllocationEndsInItsOneReportAtAnyCap) {
    for (const char* sections : {"[Sem]\nTracking=yes\n", "[Sem]\nTracking=yes\nUseMutexForCritSec=no\n", ""}) {
        for (unsigned int room = 0; room < 300;
             room += 20) { // lets through none, one or more of what tracing allocates
            Library library(Tracked(std::string(kOwnToFile) + sections));
            {
                Cap cap(room);
                EXPECT_EQ(nullptr, tq_malloc(1000));
            }
            EXPECT_EQ(1u, CountOf(ReadFile("own.log"), "(tqos)")) << sections << room;
            EXPECT_EQ(1u, CountOf(ReadFile("tqos_error.log"), "Exceeded defined memory cap")) << sections << room;
        }
    }
}

TEST(TraceCriticalError, ARefusedAllocationUnderALockIsReportedOnceItIsLeft) {
    Library library(Tracked(kOwnToFile));
    tq_List list("locked");
    list.Lock();
    {
        Cap cap(0);
        EXPECT_EQ(nullptr, tq_malloc(100));
    }
    EXPECT_EQ("", ReadFile("own.log"));
    list.Unlock();
    EXPECT_EQ(1u, CountOf(ReadFile("own.log"), "(tqos)"));
}

TEST(TraceCriticalError, PrintingUnderACapWithLockTrackingComesToAnEnd) {
    Library library(Tracked(std::string(kOwnToFile) + "[Sem]\nTracking=yes\n"));
    tq_SemCritSec section(true);
    section.Enter();
    LogCriticalError("kept\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
    {
        Cap cap(0); // every lock that is entered now has an allocation refused
        section.Leave();
    }
    EXPECT_EQ(1u, CountOf(ReadFile("own.log"), "kept"));
    EXPECT_EQ(1u, CountOf(ReadFile("own.log"), "(tqos)")); // what was refused on the way stands in the error log
    EXPECT_LE(1u, CountOf(ReadFile("tqos_error.log"), "Exceeded defined memory cap"));
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST(TraceCriticalError, OfManyThreadsUnderLocksAllComeOut) {
    Library library(kOwnToFile);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            tq_SemCritSec section(true);
            for (int round = 0; round < 100; ++round) {
                section.Enter();
                LogCriticalError("kept\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MEMORY);
                section.Leave();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(400u, CountOf(Shown(ReadFile("own.log")), "[<ms>]: (tqos) SEV: kept\n"));
}

TEST(TraceOwnInstance, ALineFromBelowGoesToTheLibrarysOwn) {
    Library library("[Trace]\ntqos_Level=All\ntqos_LogToFile=own.log\n");
    tq_TraceOnOwnInstance(TQ_TRACE_LEVEL_INFORMATIONAL, TQ_TRACE_CAT_SYSTEM, "from %s: %d\n", "below", 3);
    EXPECT_EQ("<date> [<ms>]: (tqos) INF: from below: 3\n", Shown(ReadFile("own.log")));
    library.Terminate();
    tq_TraceOnOwnInstance(TQ_TRACE_LEVEL_INFORMATIONAL, TQ_TRACE_CAT_SYSTEM, "late\n");
}

// Copies of the list

TEST(TraceInstanceList, IsACopyInTheOrderOfOpening) {
    Library library;
    const unsigned int handle = tq_TraceInitInstance("second");
    tq_TraceSetCategoryName(handle, 2, "two");
    tq_TraceSetCategoryName(handle, 0x80000000u, "last");
    tq_List* pList = tq_TraceGetInstanceList();
    tq_TraceTermInstance(handle);
    ASSERT_NE(nullptr, pList);
    ASSERT_EQ(2u, pList->NodeCount());
    EXPECT_STREQ("tqos", static_cast<_TQ_TRACE_INSTANCE*>(pList->GetHead())->pszTraceName);
    const auto* pCopy = static_cast<_TQ_TRACE_INSTANCE*>(pList->GetNext());
    EXPECT_EQ(static_cast<int>(handle), pCopy->hTraceInstance);
    EXPECT_STREQ("second", pCopy->pszTraceName);
    EXPECT_EQ(nullptr, pCopy->pszCatName[0]);
    EXPECT_STREQ("two", pCopy->pszCatName[1]);
    EXPECT_STREQ("last", pCopy->pszCatName[31]);
    tq_TraceCleanupInstanceList(pList);
}

TEST(TraceInstanceList, WithoutInstancesThereIsNone) {
    Library library;
    tq_TraceTermInstance(tqosTraceHandle.exchange(0));
    EXPECT_EQ(nullptr, tq_TraceGetInstanceList());
}

TEST(TraceInstanceList, IsWholeOrNotThere) {
    Library library(Tracked("[Trace]\ntqos_Level=None\n"));
    tq_TraceSetCategoryName(tq_TraceInitInstance("other"), 1, "one");
    const unsigned int bytes = gRequestedMemoryAllocations;
    tq_List* pList = nullptr;
    unsigned int failures = 0;
    for (unsigned int room = 1; !pList; room += 16, ++failures) {
        {
            Cap cap(room);
            pList = tq_TraceGetInstanceList();
        }
        EXPECT_TRUE(pList || bytes == gRequestedMemoryAllocations) << room;
    }
    EXPECT_LT(10u, failures);
    EXPECT_EQ(2u, pList->NodeCount());
    tq_TraceCleanupInstanceList(pList);
    EXPECT_EQ(bytes, gRequestedMemoryAllocations);
}

// Reports

std::string Handle(unsigned int handle) {
    char text[16];
    snprintf(text, sizeof(text), "%5u", handle);
    return text;
}

TEST(TraceReport, ListsTheInstancesALineEach) {
    Library library("[Trace]\na_Level=Low\na_LogToFile=a.log\na_LogToSTDOUT=yes\na_LogToSTDERR=yes\n"
                    "a_LogToDevStudio=yes\n");
    const unsigned int own = tqosTraceHandle;
    const unsigned int a = tq_TraceInitInstance("a");
    const unsigned int b = tq_TraceInitInstance("the b");
    Record(b)->Flags |= TQ_TRACE_DEST_MULTICAST;
    tq_TraceSetLevel(b, 12345);
    tq_TraceSetCatMask(b, 0xAB);
    const unsigned int c = tq_TraceInitInstance("c");
    tq_TraceSetLevel(c, -30000);
    tq_TraceSetCatMask(c, 0);
    EXPECT_EQ("Inst   Type   Level     Category    Name\r\n"
              "----   -----  --------  ----------  ------------------------\r\n" +
                  Handle(own) + "  --E--  Warning      All      tqos\r\n" + //
                  Handle(a) + "  FSE-D    Low        All      a\r\n" +      //
                  Handle(b) + "  --EM-     12345  0x000000ab  the b\r\n" +  //
                  Handle(c) + "  --E--    -30000     None     c\r\n",
              Report());
    EXPECT_EQ(Report(), Report(0, "a"));
}

TEST(TraceReport, ShowsEachLevelCentred) {
    const struct {
        int level;
        const char* column;
        const char* plain;
    } rows[] = {
        {0, "  All   ", "All"},          {5000, "  Low   ", "Debug Low"},
        {10000, " Debug  ", "Debug"},    {20000, " Inform ", "Informational"},
        {30000, "Warning ", "Warning"},  {40000, " Severe ", "Severe"},
        {50000, "Critical", "Critical"}, {0x7FFFFFFF, "  None  ", "None"},
        {45000, "   45000", "45000"},
    };
    Library library;
    for (const auto& row : rows) {
        tq_TraceSetLevel(tqosTraceHandle, row.level);
        EXPECT_NE(std::string::npos, Report().find(std::string("--E--  ") + row.column + "     All      tqos\r\n"))
            << Report();
        EXPECT_NE(std::string::npos,
                  Report(1, "tqos").find(std::string("  Tracing Level:         ") + row.plain + "\r\n"));
    }
}

TEST(TraceReport, SaysThatThereAreNoInstances) {
    Library library;
    tq_TraceTermInstance(tqosTraceHandle.exchange(0));
    EXPECT_EQ("There are no Trace Instances currently active in TQOS.\r\n", Report());
}

TEST(TraceReport, ShowsOneInstanceInDetail) {
    Library library("[Trace]\na_Level=Low\na_Cat=0\n");
    const unsigned int a = tq_TraceInitInstance("a");
    const std::string expected = "Trace Instance Details...\r\n"
                                 "  Name:                  a\r\n"
                                 "  Logfile:               (not specified)\r\n"
                                 "  Instance:              " +
                                 std::to_string(a) +
                                 "\r\n"
                                 "  Type:                  -----\r\n"
                                 "  Tracing Level:         Debug Low\r\n"
                                 "  Category Mask:            None   \r\n"
                                 "  Open File Handle:      0x00000000\r\n"
                                 "  Max Files:             0\r\n"
                                 "  Current File Index:    0\r\n"
                                 "  Bytes Per File:        0\r\n"
                                 "  Current Bytes Written: 0\r\n"
                                 "  Categories:\r\n"
                                 "                         (no categories have been named!)\r\n"
                                 "\r\n";
    EXPECT_EQ(expected, Report(1, "A"));
    EXPECT_EQ(expected, Report(1, std::to_string(a).c_str()));
    EXPECT_EQ(expected, Report(5, "a"));
}

TEST(TraceReport, ShowsFileAndCategoriesInDetail) {
    Library library("[Trace]\na_Level=77\na_Cat=0x12\na_LogToFile=dir.log\na_MaxFiles=3\na_MaxBytesPerFile=4000\n");
    const unsigned int a = tq_TraceInitInstance("a");
    tq_TraceSetCategoryName(a, 0x80000000u, "last");
    tq_TraceSetCategoryName(a, 1, "first");
    tq_Trace(a, TQ_TRACE_LEVEL_WARNING, 2, false, "m\n");
    char file[16];
    snprintf(file, sizeof(file), "0x%08x",
             static_cast<unsigned int>(reinterpret_cast<unsigned long>(Record(a)->hFile)));
    EXPECT_EQ("Trace Instance Details...\r\n"
              "  Name:                  a\r\n"
              "  Logfile:               dir.log\r\n"
              "  Instance:              " +
                  std::to_string(a) +
                  "\r\n"
                  "  Type:                  F----\r\n"
                  "  Tracing Level:         77\r\n"
                  "  Category Mask:         0x00000012\r\n"
                  "  Open File Handle:      " +
                  file +
                  "\r\n"
                  "  Max Files:             3\r\n"
                  "  Current File Index:    0\r\n"
                  "  Bytes Per File:        4000\r\n"
                  "  Current Bytes Written: " +
                  std::to_string(ReadFile("dir0000.log").size()) +
                  "\r\n"
                  "  Categories:\r\n"
                  "     0x00000001 : first\r\n"
                  "     0x80000000 : last\r\n"
                  "\r\n",
              Report(1, "a"));
    tq_TraceSetCatMask(a, -1);
    EXPECT_NE(std::string::npos, Report(1, "a").find("  Category Mask:            All    \r\n"));
}

TEST(TraceReport, AsksForAnInstanceOrSaysThatThereIsNoneSuch) {
    Library library;
    EXPECT_EQ("Requires a Trace Instance!\r\n", Report(1, nullptr));
    EXPECT_EQ("Requires a Trace Instance!\r\n", Report(1, "nobody"));
    EXPECT_EQ("Requires a Trace Instance!\r\n", Report(1, "0"));
    EXPECT_EQ("Requires a Trace Instance!\r\n", Report(1, ""));
    EXPECT_EQ("Could not find specified Trace Instance!\r\n", Report(1, "99999"));
    tq_ShowTrace(nullptr, 0, nullptr);
}

TEST(TraceReport, ANameThatIsANumberComesBeforeTheInstanceOfThatNumber) {
    Library library;
    const std::string own = std::to_string(tqosTraceHandle);
    EXPECT_NE(std::string::npos, Report(1, own.c_str()).find("  Name:                  tqos\r\n"));
    tq_TraceInitInstance(own.c_str());
    EXPECT_NE(std::string::npos, Report(1, own.c_str()).find("  Name:                  " + own + "\r\n"));
}

TEST(TraceReport, NamesLongerThanItsBufferStandWhole) {
    Library library;
    const std::string name(5000, 'n');
    const unsigned int handle = tq_TraceInitInstance(name.c_str());
    for (unsigned int bit = 0; bit < 32; ++bit) {
        tq_TraceSetCategoryName(handle, 1u << bit, name.c_str());
    }
    EXPECT_EQ(1u, CountOf(Report(), "  " + name + "\r\n"));
    EXPECT_EQ(33u, CountOf(Report(1, name.c_str()), name + "\r\n"));
}

TEST(TraceReport, WithoutMemoryThereIsNone) {
    Library library(Tracked("[Trace]\ntqos_Level=None\n"));
    Cap cap(1);
    EXPECT_EQ("(null)", Report());
    EXPECT_EQ("(null)", Report(1, "tqos"));
}

} // namespace
