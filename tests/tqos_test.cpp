#include "tqos_p.h"

#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_Memory_p.h"
#include "tq_Thread_p.h"

#ifdef __SANITIZE_THREAD__
// The thread sanitizer warns of an allocation inside a signal handler. The crash reporter allocates on purpose: the
// process ends with it, and a watchdog answers an allocator that hangs.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

using test::ChildResult;
using test::CountOf;
using test::Library;
using test::RunInChild;
using test::ScratchDirectory;
using test::WriteFile;

namespace {

constexpr char kTraceToStandardError[] = "[Trace]\r\nDefaultLogToSTDERR=yes\r\n";

bool Contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

/// A child that starts the library with the given settings and then does what the test wants.
ChildResult RunWithLibrary(const std::string& ini, const std::function<void()>& body) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", ini);
    return RunInChild([&] {
        if (tqOS_Initialize() != 0) {
            _exit(90);
        }
        body();
    });
}

void ReadUnmappedMemory() {
    volatile char* volatile pUnmapped = reinterpret_cast<volatile char*>(16); // or the compiler warns of the address
    static_cast<void>(*pUnmapped);
}

[[gnu::noinline]] int Fault() {
    ReadUnmappedMemory();
    return 1;
}

/// Its last deed is no call, which might be a jump.
[[gnu::noinline]] int CallWhatFaults() {
    return Fault() + 1;
}

/// Whether the address lies in one of these short functions.
bool LiesIn(uintptr_t address, int (*pfnFunction)()) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(pfnFunction) & ~uintptr_t{1}; // on ARM an odd one says Thumb
    return address >= start && address - start < 256;
}

/// The addresses that a crash report traces, one a line.
std::vector<uintptr_t> TracedAddresses(const std::string& trace) {
    static const std::string mark = "(tqos) CRT: 0x";
    std::vector<uintptr_t> addresses;
    for (size_t at = trace.find(mark); at != std::string::npos; at = trace.find(mark, at + 1)) {
        addresses.push_back(strtoul(trace.c_str() + at + mark.size(), nullptr, 16));
    }
    return addresses;
}

/// Faults so many calls deep.
int FaultBelow(int calls) {                     // NOLINT(misc-no-recursion)
    int (*volatile pfnBelow)(int) = FaultBelow; // a call it is, not a loop
    return calls == 0 ? Fault() : pfnBelow(calls - 1) + 1;
}

/// The first so many lines of a text, which are taken off it.
std::string TakeLines(std::string& text, size_t lines) {
    size_t length = 0;
    for (size_t line = 0; line < lines && length != std::string::npos; ++line) {
        length = text.find('\n', length);
        length += length == std::string::npos ? 0 : 1;
    }
    const std::string taken = text.substr(0, length);
    text.erase(0, length);
    return taken;
}

/// The text without the time and the milliseconds at its beginning; empty when they are not there.
std::string WithoutTime(const std::string& line) {
    static const std::regex kTime("[A-Z][a-z]{2} [A-Z][a-z]{2} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4} \\[\\d+\\]: ");
    std::smatch match;
    const bool bTimed = std::regex_search(line, match, kTime, std::regex_constants::match_continuous);
    return bTimed ? line.substr(static_cast<size_t>(match.length())) : "";
}

/// Whether the random generator stands as if it had been seeded from the millisecond clock in the last minute.
bool WasJustSeededFromTheClock() {
    const int first = rand();
    const unsigned int now = tq_GetTimeInMS();
    for (unsigned int ago = 0; ago <= 60000; ++ago) {
        srand(now - ago);
        if (rand() == first) {
            return true;
        }
    }
    return false;
}

class QuietQ : public tq_MsgQ {
public:
    QuietQ() : tq_MsgQ("Quiet", nullptr) {}
    ~QuietQ() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

siginfo_t InfoOf(int sig, int code) {
    siginfo_t info;
    memset(&info, 0, sizeof(info));
    info.si_signo = sig;
    info.si_code = code;
    return info;
}

} // namespace

TEST(Lifecycle, InitializeReturnsZeroAndTerminateEndsTheLibrary) {
    ScratchDirectory directory;
    EXPECT_EQ(0u, tqOS_Initialize());
    EXPECT_EQ(1u, tqos_Intialized.load());
    EXPECT_NE(0u, tqosTraceHandle.load());
    EXPECT_NE(0u, gui_tqosStartTime.load());
    tqOS_Terminate(false, true);
    EXPECT_EQ(0u, tqos_Intialized.load());
    EXPECT_EQ(0u, tqosTraceHandle.load());
    EXPECT_EQ(0u, tq_HandleGet());
}

TEST(Lifecycle, ASecondInitializeOnlyCountsAndTheLastTerminateTearsDown) {
    ScratchDirectory directory;
    ASSERT_EQ(0u, tqOS_Initialize());
    const unsigned int hTrace = tqosTraceHandle;
    EXPECT_EQ(0u, tqOS_Initialize());
    EXPECT_EQ(hTrace, tqosTraceHandle.load());
    tqOS_Terminate(false, false);
    EXPECT_EQ(hTrace, tqosTraceHandle.load());
    EXPECT_NE(0u, tq_HandleGet());
    tqOS_Terminate(false, true);
    EXPECT_EQ(0u, tqosTraceHandle.load());
    EXPECT_EQ(0u, tq_HandleGet());
}

TEST(Lifecycle, TheStartSeedsTheRandomGeneratorFromTheClock) {
    srand(1);
    EXPECT_FALSE(WasJustSeededFromTheClock());
    Library library;
    EXPECT_TRUE(WasJustSeededFromTheClock());
}

TEST(Lifecycle, AFailedStartSeedsTheRandomGeneratorToo) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\nMemoryCapInBytes=1\r\n");
    tq_TimeInitialize(); // a start that fails this early has not set the clock's unit yet
    srand(1);
    EXPECT_NE(0u, tqOS_Initialize());
    EXPECT_TRUE(WasJustSeededFromTheClock());
    tqOS_Terminate(false, true);
}

TEST(Lifecycle, ASecondInitializeDoesNotReseedTheRandomGenerator) {
    Library library;
    srand(1);
    const int first = rand();
    const int second = rand();
    srand(1);
    EXPECT_EQ(first, rand());
    EXPECT_EQ(0u, tqOS_Initialize());
    EXPECT_EQ(second, rand());
    tqOS_Terminate(false, false);
}

TEST(Lifecycle, TheBannerIsAConstant) {
    ScratchDirectory directory;
    const char kBanner[] = "Kelvarin Version: 1.0.000 Mar 11 2009:05:23:10";
    EXPECT_STREQ(kBanner, reinterpret_cast<const char*>(tqOS_GetVersion()));
    myVersion = nullptr;
    ASSERT_EQ(0u, tqOS_Initialize());
    EXPECT_STREQ(kBanner, myVersion);
    tqOS_Terminate(false, true);
}

TEST(Lifecycle, UptimeIsZeroUnlessRunning) {
    ScratchDirectory directory;
    EXPECT_EQ(0u, tqOS_uptime());
    ASSERT_EQ(0u, tqOS_Initialize());
    EXPECT_TRUE(test::WaitUntil([] { return tqOS_uptime() > 0; }));
    EXPECT_LT(tqOS_uptime(), 600000u) << "from the start on, in the clock's unit";
    tqOS_Terminate(false, true);
    EXPECT_EQ(0u, tqOS_uptime());
}

TEST(Lifecycle, UptimeWrapsWithTheClock) {
    Library library;
    gui_tqosStartTime = tq_GetTimeInMS() + 1000; // as if the clock had wrapped since
    EXPECT_GT(tqOS_uptime(), 0xFFFF0000u);
}

TEST(Lifecycle, TheOwnTraceInstanceHasItsSixCategories) {
    Library library;
    const unsigned int hTrace = tq_TraceGetHandleFromName("TQOS");
    ASSERT_EQ(tqosTraceHandle.load(), hTrace);
    EXPECT_EQ(1u, tq_TraceLookupCategory(hTrace, "Sockets"));
    EXPECT_EQ(2u, tq_TraceLookupCategory(hTrace, "Timers"));
    EXPECT_EQ(4u, tq_TraceLookupCategory(hTrace, "MsgQs"));
    EXPECT_EQ(8u, tq_TraceLookupCategory(hTrace, "Memory"));
    EXPECT_EQ(16u, tq_TraceLookupCategory(hTrace, "System"));
    EXPECT_EQ(32u, tq_TraceLookupCategory(hTrace, "CritSec"));
}

TEST(Lifecycle, TerminatingOnceTooOftenDrivesTheCountThroughZero) {
    ScratchDirectory directory;
    ASSERT_EQ(0u, tqOS_Initialize());
    tqOS_Terminate(false, true);
    tqOS_Terminate(false, true);
    EXPECT_EQ(0xFFFFFFFFu, tqos_Intialized.load());
    EXPECT_EQ(0u, tqOS_Initialize()); // the count is 0 now, not 1: nothing starts
    EXPECT_EQ(0u, tqosTraceHandle.load());
    EXPECT_EQ(0u, tqOS_Initialize());
    EXPECT_NE(0u, tqosTraceHandle.load());
    tqOS_Terminate(false, true);
}

TEST(Lifecycle, AFailedStepIsReportedKeepsTheCountAndTerminatesCleanly) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\nMemoryCapInBytes=1\r\n");
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(1u, tqOS_Initialize());
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_IGN)) << "before any step";
    EXPECT_EQ(1u, tqos_Intialized.load());
    EXPECT_EQ(1u, gMemoryCapInBytes.load()) << "the steps before it stay";
    EXPECT_EQ(nullptr, gpHandleList) << "those behind it are left out";
    EXPECT_EQ(0u, gui_tqosStartTime.load());
    EXPECT_EQ(0u, tqosTraceHandle.load());
    tqOS_Terminate(false, true);

    WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\n");
    EXPECT_EQ(0u, tqOS_Initialize());
    EXPECT_NE(0u, tqosTraceHandle.load());
    tqOS_Terminate(false, true);
}

// Trace goes down before the handles: what is found damaged there has no instance left to be traced on.
TEST(Lifecycle, WhatGoesWrongAfterTheTraceHasEndedStandsInTheErrorLogAlone) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", std::string(kTraceToStandardError) + "[Memory]\r\nEnableMemoryTracking=yes\r\n");
    const ChildResult result = RunInChild([] {
        if (tqOS_Initialize() != 0) {
            _exit(90);
        }
        LogCriticalError("while the trace is there\n", false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SYSTEM);
        reinterpret_cast<char*>(gpHandleList)[sizeof(tq_List)] ^= 1; // the first byte behind the list
        tqOS_Terminate(false, true);
    });
    EXPECT_EQ(0, result.code);
    const std::string log = test::ReadFile("tqos_error.log");
    EXPECT_TRUE(Contains(log, "while the trace is there\n")) << log;
    EXPECT_TRUE(Contains(log, "Corrupted Tail bytes on memory free...\n")) << log;
    EXPECT_TRUE(Contains(result.standardError, "SEV: while the trace is there\n")) << result.standardError;
    EXPECT_FALSE(Contains(result.standardError, "Corrupted")) << result.standardError;
}

TEST(Lifecycle, EveryFirstRefusedAllocationOfTheStartEndsInACleanTermination) {
    ScratchDirectory directory;
    bool bStarted = false;
    for (unsigned int cap = 1; !bStarted && cap < 1u << 20; cap += cap / 4 + 8) {
        WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\nMemoryCapInBytes=" + std::to_string(cap) +
                                  "\r\n[Sem]\r\nTracking=yes\r\n");
        bStarted = tqOS_Initialize() == 0 && tqosTraceHandle != 0;
        tqOS_Terminate(false, true);
        EXPECT_EQ(0u, tqos_Intialized.load());
    }
    EXPECT_TRUE(bStarted);
}

TEST(Lifecycle, ALazyStartIsTurnedAwayUnlessTheLibraryRuns) {
    ScratchDirectory directory;
    EXPECT_FALSE(static_cast<bool>(tq_LazyStart(__FILE__, __LINE__)));
    ASSERT_EQ(0u, tqOS_Initialize());
    EXPECT_TRUE(static_cast<bool>(tq_LazyStart(__FILE__, __LINE__)));
    tqOS_Terminate(false, true);
    EXPECT_FALSE(static_cast<bool>(tq_LazyStart(__FILE__, __LINE__)));
}

TEST(Lifecycle, ATimerSetWhileTheLibraryEndsFindsItNotRunning) {
    class LateQ : public tq_MsgQ {
    public:
        LateQ() : tq_MsgQ("Late", nullptr) {}
        ~LateQ() override { Cleanup(); }
        void MessageHandler(MSG_COMMON* pMsg) override {
            if (pMsg->command == MSG_DESTROY) {
                result = tq_TimerSet(GetHandle(), 10, 1, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
            }
            tq_free(pMsg);
        }
        unsigned int result = 99;
    };
    Library library;
    LateQ queue;
    queue.Create(0);
    library.Terminate();
    EXPECT_EQ(1u, queue.result);
}

TEST(Lifecycle, QueuesGoFirstWhileEverythingElseStillRuns) {
    class LastQ : public tq_MsgQ {
    public:
        LastQ() : tq_MsgQ("Last", nullptr) {}
        ~LastQ() override { Cleanup(); }
        void MessageHandler(MSG_COMMON* pMsg) override {
            if (pMsg->command == MSG_DESTROY) {
                tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_CRITICAL, TQ_TRACE_CAT_SYSTEM, false, "last words\n");
                handle = tq_HandleGet();
                started = gui_tqosStartTime;
            }
            tq_free(pMsg);
        }
        unsigned int handle = 0;
        unsigned int started = 0;
    };
    Library library("[Trace]\r\ntqos_LogToFile=own.log\r\n");
    LastQ queue;
    queue.Create(0);
    library.Terminate();
    EXPECT_TRUE(Contains(test::ReadFile("own.log"), "(tqos) CRT: last words\n"));
    EXPECT_NE(0u, queue.handle);
    EXPECT_NE(0u, queue.started);
}

TEST(Lifecycle, TheEndGivesBackAllMemoryWhateverHadStarted) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\n[Sem]\r\nTracking=yes\r\n");
    for (const bool bWaitForThreads : {false, true}) {
        const unsigned int before = gRequestedMemoryAllocations;
        ASSERT_EQ(0u, tqOS_Initialize());
        {
            QuietQ queue;
            queue.Create(0);
            EXPECT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 1, 0, 0, TQ_TIMER_REPEATING, "tick", false));
            EXPECT_NE(0u, tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, htonl(INADDR_LOOPBACK), 0));
            tqOS_Terminate(false, bWaitForThreads);
        }
        EXPECT_EQ(before, gRequestedMemoryAllocations);
        EXPECT_EQ(nullptr, pSubsystemInitCritSec);
    }
}

TEST(Lifecycle, TheEndListsWhatHasLeakedWhenAskedTo) {
    for (const bool bDumpResources : {false, true}) {
        const ChildResult result =
            RunWithLibrary("[Memory]\r\nEnableMemoryTracking=yes\r\nEnableMemoryPooling=yes\r\n", [bDumpResources] {
                tq__malloc(10, "leak.cpp", 77);
                tqOS_Terminate(bDumpResources, /*bWaitForThreads=*/true);
            });
        EXPECT_EQ(0, result.code);
        EXPECT_EQ(bDumpResources, Contains(result.standardOut, "leak.cpp")) << result.standardOut;
        EXPECT_EQ(bDumpResources, !result.standardOut.empty()) << result.standardOut;
    }
}

TEST(Lifecycle, StartsAndStopsInALoopWithEverythingLazyRunning) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Memory]\r\nEnableMemoryTracking=yes\r\n[Sem]\r\nTracking=yes\r\n");
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(0u, tqOS_Initialize());
        QuietQ queue;
        queue.Create(0);
        EXPECT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 1, 0, 0, TQ_TIMER_REPEATING, "tick", false));
        EXPECT_NE(0u, tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, htonl(INADDR_LOOPBACK), 0));
        tqOS_Terminate(false, (round & 1) != 0);
    }
}

TEST(Signals, SigpipeIsIgnored) {
    const ChildResult result = RunWithLibrary("", [] { raise(SIGPIPE); });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
}

TEST(Signals, DisabledHandlingLeavesTheDefaultActionButIgnoresSigpipe) {
    const ChildResult result = RunWithLibrary("[SignalHandler]\r\nDisable=yes\r\n", [] {
        raise(SIGPIPE);
        struct sigaction action;
        sigaction(SIGCHLD, nullptr, &action);
        if ((action.sa_flags & SA_NOCLDWAIT) != 0) {
            _exit(91);
        }
        signal(SIGSEGV, SIG_DFL); // a sanitizer's own handler, where there is one
        kill(getpid(), SIGSEGV);
        pause();
    });
    EXPECT_FALSE(result.exited);
    EXPECT_EQ(SIGSEGV, result.code);
}

TEST(Signals, DisabledHandlingInstallsNoHandler) {
    struct sigaction before;
    sigaction(SIGSEGV, nullptr, &before);
    Library library("[SignalHandler]\r\nDisable=yes\r\n");
    struct sigaction after;
    sigaction(SIGSEGV, nullptr, &after);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
}

TEST(Signals, TheFiveSignalsGetTheReporterWithoutFurtherFlags) {
    const ChildResult result = RunWithLibrary("", [] {
        for (int sig : {SIGILL, SIGSEGV, SIGABRT, SIGFPE, SIGBUS}) {
            struct sigaction action;
            sigaction(sig, nullptr, &action);
            if (action.sa_sigaction != tqos_SignalHandler || (action.sa_flags & ~SA_SIGINFO & 0xFFFF) != 0) {
                _exit(91);
            }
            if (!sigisemptyset(&action.sa_mask)) {
                _exit(92);
            }
        }
    });
    EXPECT_EQ(0, result.code);
}

TEST(Signals, EndedChildrenLeaveNoZombies) {
    const ChildResult result = RunWithLibrary("", [] {
        struct sigaction action;
        sigaction(SIGCHLD, nullptr, &action);
        if (action.sa_handler != SIG_DFL || (action.sa_flags & SA_NOCLDWAIT) == 0) {
            _exit(92);
        }
        const pid_t child = fork();
        if (child == 0) {
            _exit(7);
        }
        if (waitpid(child, nullptr, 0) != -1 || errno != ECHILD) {
            _exit(91);
        }
    });
    EXPECT_EQ(0, result.code);
}

TEST(CrashReport, ASegmentationViolationIsReportedAndEndsWithStatusZero) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] {
        ReadUnmappedMemory();
        _exit(91);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    const std::string& report = result.standardError;
    EXPECT_TRUE(Contains(report, "(tqos) CRT: Thread id: ")) << report;
    EXPECT_TRUE(Contains(report, "\nSignal: segmentation violation\nReason:  address not mapped to object\n"
                                 "Fault addr: 0x10\nNumber of elements: "))
        << report;
    EXPECT_TRUE(Contains(report, "\ntqos uptime: ")) << report;
    EXPECT_TRUE(Contains(report, "ms\ntqos Thread list:\n")) << report;
    EXPECT_NE("", result.standardOut); // the symbolised backtrace
}

TEST(CrashReport, IsTheFaultThenTheBacktraceThenTheReturnAddresses) {
    const ChildResult result = RunWithLibrary("[Trace]\r\nDefaultLogToSTDOUT=yes\r\n", [] {
        char* pszThreads = nullptr;
        tq_ShowThreads(&pszThreads);
        fprintf(stderr, "%u:%u\n%s", tq_GetPSThreadId(), tq_GetThreadId(), pszThreads);
        tq_free(pszThreads);
        ReadUnmappedMemory();
    });
    std::string threads = result.standardError;
    const std::string ids = TakeLines(threads, 1);
    std::string report = result.standardOut;
    const std::string head = "(tqos) CRT: Thread id: " + ids +
                             "Signal: segmentation violation\nReason:  address not mapped to object\n"
                             "Fault addr: 0x10\nNumber of elements: ";
    std::string lines = WithoutTime(TakeLines(report, 5));
    ASSERT_EQ(head, lines.substr(0, head.size())) << result.standardOut;
    const size_t count = strtoul(lines.c_str() + head.size(), nullptr, 10);
    EXPECT_EQ(head + std::to_string(count) + "\n", lines);
    EXPECT_TRUE(std::regex_match(TakeLines(report, 1), std::regex("tqos uptime: \\d+ms\n"))) << result.standardOut;
    EXPECT_EQ("tqos Thread list:\n", TakeLines(report, 1));
    EXPECT_EQ(threads + "\n", report.substr(0, threads.size() + 1));
    report.erase(0, threads.size() + 1);
    EXPECT_EQ(0u, CountOf(TakeLines(report, count), "(tqos)")) << "the backtrace";
    for (size_t i = 0; i < count; ++i) {
        const std::string address = WithoutTime(TakeLines(report, 1));
        EXPECT_EQ("(tqos) CRT: 0x", address.substr(0, 14)) << i;
    }
    EXPECT_EQ("", report);
}

TEST(CrashReport, HasAtMost256ReturnAddresses) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] { FaultBelow(400); });
    EXPECT_TRUE(Contains(result.standardError, "\nNumber of elements: 256\n")) << result.standardError;
    EXPECT_EQ(256u, TracedAddresses(result.standardError).size());
    EXPECT_EQ(256u, CountOf(result.standardOut, "\n"));
}

TEST(CrashReport, EachReturnAddressIsATraceLine) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] { ReadUnmappedMemory(); });
    const size_t at = result.standardError.find("Number of elements: ");
    ASSERT_NE(std::string::npos, at);
    const int count = atoi(result.standardError.c_str() + at + strlen("Number of elements: "));
    EXPECT_GT(count, 1);
    EXPECT_EQ(static_cast<size_t>(count) + 1, CountOf(result.standardError, "(tqos) CRT: "));
    EXPECT_EQ(static_cast<size_t>(count), CountOf(result.standardOut, "\n"));
}

TEST(CrashReport, TheReturnAddressesLeadFromTheFaultToItsCallers) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] { CallWhatFaults(); });
    const std::vector<uintptr_t> frames = TracedAddresses(result.standardError);
    const auto liesIn = [](int (*pfnFunction)()) {
        return [pfnFunction](uintptr_t address) { return LiesIn(address, pfnFunction); };
    };
    const auto fault = std::find_if(frames.begin(), frames.end(), liesIn(Fault));
    ASSERT_NE(frames.end(), fault) << result.standardError;
    EXPECT_NE(frames.end(), std::find_if(fault + 1, frames.end(), liesIn(CallWhatFaults))) << result.standardError;
}

TEST(CrashReport, AnAbortIsReportedByItsNumbers) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] { abort(); });
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(Contains(result.standardError, "\nSignal: sig: " + std::to_string(SIGABRT) +
                                                   "\nReason: reason: " + std::to_string(SI_TKILL) + "\n"))
        << result.standardError;
}

TEST(CrashReport, TheThreadListIsPartOfTheReport) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] {
        unsigned int tid = 0;
        tq__beginthread(
            0,
            [](void*) -> void* {
                abort();
                return nullptr;
            },
            nullptr, &tid, 0, "crashing thread", 1);
        for (;;) {
            pause();
        }
    });
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(Contains(result.standardError, "TQOS Initialization: perhaps main?")) << result.standardError;
    EXPECT_TRUE(Contains(result.standardError, "crashing thread")) << result.standardError;
}

TEST(CrashReport, AThreadListThatMemoryIsRefusedForIsSaidToBeMissing) {
    const std::string tracking = "[Memory]\r\nEnableMemoryTracking=yes\r\n";
    const ChildResult result = RunWithLibrary(kTraceToStandardError + tracking, [] {
        gMemoryCapInBytes = 1;
        ReadUnmappedMemory();
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(Contains(result.standardError, "ms\ntqos Thread list:\nCould not get tqos thread list!\n"))
        << result.standardError;
}

TEST(CrashReport, IsTracedAtLevelCriticalInTheCategorySystem) {
    struct Row {
        int level;
        int categories;
        bool bTraced;
    };
    for (const Row& row : {Row{50000, 16, true}, Row{50000, ~16, false}, Row{50001, 16, false}}) {
        const ChildResult result = RunWithLibrary(kTraceToStandardError, [&row] {
            tq_TraceSetLevel(tqosTraceHandle, row.level);
            tq_TraceSetCatMask(tqosTraceHandle, row.categories);
            ReadUnmappedMemory();
        });
        EXPECT_EQ(0, result.code);
        EXPECT_EQ(row.bTraced, Contains(result.standardError, "\nSignal: segmentation violation\n"));
        EXPECT_EQ(row.bTraced, Contains(result.standardError, "(tqos) CRT: 0x")) << "the return addresses";
        EXPECT_NE("", result.standardOut) << "the backtrace does not go through the trace";
    }
}

TEST(CrashReport, TheReportAlsoGoesToTheTraceFile) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Trace]\r\nDefaultLogToFilePrefix=crash_\r\nDefaultMaxFiles=0\r\n");
    const ChildResult result = RunInChild([] {
        tqOS_Initialize();
        ReadUnmappedMemory();
    });
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(Contains(test::ReadFile("crash_tqos.log"), "Signal: segmentation violation\n"));
    EXPECT_EQ("", result.standardError);
}

TEST(CrashReport, EverySignalAndCodeHasItsText) {
    struct Row {
        int sig;
        int code;
        std::string signal;
        const char* pszReason;
    };
    const Row kRows[] = {
        {SIGILL, 1, "illegal instruction", "illegal opcode"},
        {SIGILL, 2, "illegal instruction", "illegal operand"},
        {SIGILL, 3, "illegal instruction", "illegal addressing mode"},
        {SIGILL, 4, "illegal instruction", "illegal trap"},
        {SIGILL, 5, "illegal instruction", "privileged opcode"},
        {SIGILL, 6, "illegal instruction", "privileged register"},
        {SIGILL, 7, "illegal instruction", "coprocessor error "},
        {SIGILL, 8, "illegal instruction", "internal stack error"},
        {SIGILL, 9, "illegal instruction", "unknown"},
        {SIGFPE, 1, "floating point exception", " integer divide by zero"},
        {SIGFPE, 2, "floating point exception", " integer overflow"},
        {SIGFPE, 3, "floating point exception", " floating point divide by zero"},
        {SIGFPE, 4, "floating point exception", " floating point overflow"},
        {SIGFPE, 5, "floating point exception", " floating point underflow"},
        {SIGFPE, 6, "floating point exception", " floating point inexact result "},
        {SIGFPE, 7, "floating point exception", " floating point invalid operation"},
        {SIGFPE, 8, "floating point exception", " subscript out of range"},
        {SIGFPE, 0, "floating point exception", "unknown"},
        {SIGSEGV, 1, "segmentation violation", " address not mapped to object"},
        {SIGSEGV, 2, "segmentation violation", " invalid permissions for mapped object"},
        {SIGSEGV, 3, "segmentation violation", "unknown"},
        {SIGBUS, 1, "bus error", " invalid address alignment"},
        {SIGBUS, 2, "bus error", " non-existent physical address"},
        {SIGBUS, 3, "bus error", " object specific hardware error"},
        {SIGBUS, -1, "bus error", "unknown"},
        {SIGABRT, -6, "sig: " + std::to_string(SIGABRT), "reason: -6"},
        {SIGUSR1, 0, "sig: " + std::to_string(SIGUSR1), "reason: 0"},
    };
    for (const Row& row : kRows) {
        const ChildResult result = RunWithLibrary(kTraceToStandardError, [&row] {
            siginfo_t info = InfoOf(row.sig, row.code);
            tqos_SignalHandler(row.sig, &info, nullptr);
        });
        EXPECT_EQ(0, result.code);
        const std::string expected = "\nSignal: " + row.signal + "\nReason: " + row.pszReason + "\nFault addr: ";
        EXPECT_TRUE(Contains(result.standardError, expected)) << expected << result.standardError;
    }
}

TEST(CrashReport, OutputThatWasStillBufferedIsNotLost) {
    const ChildResult result = RunWithLibrary("", [] {
        printf("the application's last words");
        ReadUnmappedMemory();
    });
    EXPECT_EQ(0u, result.standardOut.find("the application's last words"));
    EXPECT_GT(result.standardOut.size(), strlen("the application's last words"));
}

TEST(CrashReport, ASecondFaultWhileReportingEndsWithOneLineAndStatusZero) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] {
        tqos_SignalHandler(SIGSEGV, reinterpret_cast<siginfo_t*>(16), nullptr); // reading the reason faults again
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_EQ("tqos: a second fault while the crash was being reported\n", result.standardError);
}

TEST(CrashReport, AReportThatHangsOnALockIsEndedByTheWatchdog) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer holds the watchdog's signal back while the thread waits inside the C library";
#endif
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] {
        static tq_SemEvent held(1, 0);
        unsigned int tid = 0;
        tq__beginthread(
            0,
            [](void*) -> void* {
                flockfile(stderr); // the reporter's trace line will wait for this
                held.Set();
                for (;;) {
                    pause();
                }
                return nullptr;
            },
            nullptr, &tid, 0, "holder", 1);
        held.WaitForEvent(-1);
        raise(SIGSEGV);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_EQ("tqos: the crash report did not finish in time\n", result.standardError);
}

TEST(CrashReport, AReportThatHangsInTheAllocatorIsEndedByTheWatchdog) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer holds the watchdog's signal back while the thread waits inside the C library";
#endif
    const std::string tracking = "[Memory]\r\nEnableMemoryTracking=yes\r\nEnableHistogram=yes\r\n";
    const ChildResult result = RunWithLibrary(kTraceToStandardError + tracking, [] {
        static tq_SemEvent held(1, 0);
        tq__beginthread(
            0,
            [](void*) -> void* {
                MemoryTrackingCritSec.EnterCritSec(); // the thread list of the report will wait for this
                held.Set();
                for (;;) {
                    pause();
                }
                return nullptr;
            },
            nullptr, nullptr, 0, "holder", 1);
        held.WaitForEvent(-1);
        raise(SIGSEGV);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_EQ("tqos: the crash report did not finish in time\n", result.standardError);
}

TEST(CrashReport, AFaultOfAnotherThreadLeavesTheReportWhole) {
    const ChildResult result = RunWithLibrary("[Trace]\r\nDefaultLogToSTDOUT=yes\r\n", [] {
        for (int i = 0; i < 4; ++i) {
            unsigned int tid = 0;
            tq__beginthread(
                0,
                [](void*) -> void* {
                    raise(SIGSEGV);
                    return nullptr;
                },
                nullptr, &tid, 0, "crashing thread", 1);
        }
        for (;;) {
            pause();
        }
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_EQ(1u, CountOf(result.standardOut, "Signal: segmentation violation\n")) << result.standardOut;
    const size_t others = CountOf(result.standardError, "another thread faults while a crash is being reported\n");
    EXPECT_LE(others, 3u);
}

TEST(CrashReport, ACrashOnABlockedSignalIsStillReported) {
    const ChildResult result = RunWithLibrary(kTraceToStandardError, [] {
        siginfo_t info = InfoOf(SIGBUS, BUS_ADRALN);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        tqos_SignalHandler(SIGBUS, &info, nullptr);
    });
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(Contains(result.standardError, "Signal: bus error\n")) << result.standardError;
}

TEST(CrashReport, ACrashAfterTerminationStillWritesTheBacktrace) {
    const ChildResult result = RunWithLibrary("", [] {
        tqOS_Terminate(false, true);
        ReadUnmappedMemory();
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_NE("", result.standardOut);
}
