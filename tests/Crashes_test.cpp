// Every kind of crash on every kind of thread: the process is gone in time, with status 0, and has left one report, or
// one line where a report was not possible.

#include <arpa/inet.h>
#include <atomic>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingQueue.h"
#include "TestSupport.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Thread_p.h"
#include "tq_Trace_p.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#else
#define SANITIZED 0
#endif

#ifdef __SANITIZE_THREAD__
#define SANITIZED_THREADS 1
// The thread sanitizer warns of an allocation inside a signal handler. The crash reporter allocates on purpose: the
// process ends with it, and a watchdog answers an allocator that hangs.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#else
#define SANITIZED_THREADS 0
#endif

using test::CountOf;
using test::RecordingQueue;
using test::ScratchDirectory;
using test::WaitUntil;

namespace {

constexpr int kSeconds = 60; // only a hang reaches it
constexpr char kSettings[] = "[Trace]\r\nDefaultLogToSTDERR=yes\r\n[Memory]\r\nEnableMemoryTracking=yes\r\n"
                             "EnableHistogram=yes\r\n"; // so that tracked memory has a lock to wait for

[[noreturn]] void WaitForTheEnd() {
    for (;;) {
        pause();
    }
}

// Threads. Each runs the fault in its own context and never comes back.

using Action = void (*)();

Action gAction;
RecordingQueue* gpQueue;

void OnThisThread(Action fault) {
    fault();
}

void OnAQueueWorker(Action fault) {
    gpQueue->SetAction([fault](const MSG_COMMON&) { fault(); });
    if (!gpQueue->Post(MSG_USER)) {
        _exit(92);
    }
    WaitForTheEnd();
}

void OnAnUntrackedThread(Action fault) {
    std::thread thread(fault);
    WaitForTheEnd();
}

/// The kernel's id of the library's thread of this name; 0 as long as it has none.
unsigned int KernelIdOf(const std::string& name) {
    tq_ListLock lock(gpThreadList);
    for (void* pNode = gpThreadList->GetHead(); pNode; pNode = gpThreadList->GetNext()) {
        const auto* pRecord = static_cast<const TQ_THREAD_LIST_NODE*>(pNode);
        if (pRecord->pszName && name == pRecord->pszName) {
            return pRecord->pstid;
        }
    }
    return 0;
}

/// Whether every thread but this one sleeps: none of them, then, is on its way with a lock held.
bool OthersSleep() {
    const std::string own = std::to_string(syscall(SYS_gettid));
    DIR* pTasks = opendir("/proc/self/task");
    bool bSleep = pTasks != nullptr;
    while (const struct dirent* pEntry = bSleep ? readdir(pTasks) : nullptr) {
        const std::string id = pEntry->d_name;
        if (id[0] != '.' && id != own) {
            const std::string stat = test::ReadFile("/proc/self/task/" + id + "/stat");
            bSleep = stat.find(") S ") != std::string::npos;
        }
    }
    closedir(pTasks);
    return bSleep;
}

bool AreAtRest() {
    for (int look = 0; look < 5; ++look) {
        if (!OthersSleep()) {
            return false;
        }
    }
    return true;
}

/// The fault hits a thread that runs nothing but the library, where that waits.
[[noreturn]] void OnTheThreadNamed(const char* pszName, Action fault) {
    gAction = fault;
    signal(SIGUSR1, [](int) {
        sigset_t none; // the thread sanitizer runs handlers with every signal blocked
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        gAction();
    });
    unsigned int id = 0;
    if (!WaitUntil([&] { return (id = KernelIdOf(pszName)) != 0 && AreAtRest(); })) {
        _exit(92);
    }
    syscall(SYS_tgkill, getpid(), id, SIGUSR1);
    WaitForTheEnd();
}

void OnTheTimerThread(Action fault) {
    tq_TimerSet(gpQueue->GetHandle(), 3600000, 1, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    OnTheThreadNamed("TQOS: Timer Thread", fault);
}

void OnTheSocketsThread(Action fault) {
    tq_SocketOpenUDP(gpQueue->GetHandle(), 0, 0, 0, htonl(INADDR_LOOPBACK), 0);
    OnTheThreadNamed("TQOS: Sockets Thread", fault);
}

struct ThreadKind {
    const char* pszName;
    void (*pfnRun)(Action fault);
};

constexpr ThreadKind kThreads[] = {{"main", OnThisThread},
                                   {"worker", OnAQueueWorker},
                                   {"timer", OnTheTimerThread},
                                   {"sockets", OnTheSocketsThread},
                                   {"untracked", OnAnUntrackedThread}};

// Faults

void IllegalInstruction() {
#if defined(__i386__) || defined(__x86_64__)
    __asm__ volatile("ud2");
#else
    raise(SIGILL);
#endif
}

void UnmappedMemory() {
    volatile char* volatile pUnmapped = reinterpret_cast<volatile char*>(16); // or the compiler warns of the address
    static_cast<void>(*pUnmapped);
}

void DivisionByZero() {
#if defined(__i386__) || defined(__x86_64__)
    __asm__ volatile("xorl %%eax, %%eax\n\txorl %%edx, %%edx\n\txorl %%ecx, %%ecx\n\tdivl %%ecx" ::
                         : "eax", "ecx", "edx");
#else
    raise(SIGFPE);
#endif
}

void MappingBehindItsFile() {
    const int fd = open("empty", O_RDWR | O_CREAT, 0600);
    volatile char* pBehind = static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
    static_cast<void>(*pBehind);
}

void DoubleFree() {
    void (*volatile pfnFree)(void*) = free; // not as the compiler knows it: it would object
    void* pBlock = malloc(24);
    pfnFree(pBlock);
    pfnFree(pBlock);
}

/// Sizes and links of everything behind a block are gone; the allocator, unless it finds out, is not to be trusted.
void CorruptedHeap() {
    char* volatile pBlock = static_cast<char*>(malloc(24));
    memset(pBlock - sizeof(size_t), 0x41, 8192);
    for (size_t bytes = 16; bytes < 65536; bytes += 1024) {
        free(malloc(bytes));
        void* volatile pKept = malloc(bytes / 2);
        static_cast<void>(pKept);
    }
    abort();
}

/// What the report is to say of the threads leads nowhere.
void FaultInTheReport() {
    {
        tq_ListLock lock(gpThreadList);
        static_cast<TQ_THREAD_LIST_NODE*>(gpThreadList->GetHead())->pszName = reinterpret_cast<char*>(16);
    }
    UnmappedMemory();
}

void WithAnotherThreadInTheReport() {
    static std::atomic<int> ready{0};
    const auto crash = [] {
        ++ready;
        while (ready < 3) {
            std::this_thread::yield();
        }
        UnmappedMemory();
    };
    std::thread(crash).detach();
    std::thread(crash).detach();
    crash();
}

// Locks

void LockMemory() {
    MemoryTrackingCritSec.EnterCritSec();
}
void LockTraceInstances() {
    gpTraceInstanceList->Lock();
}
void LockThreadList() {
    gpThreadList->Lock();
}
void LockListRegistry() {
    gpListOfListsCritSec->Enter();
}
void LockQueueRegistry() {
    gpListOfQs->Lock();
}

template <Action TakeLock> void HoldingALock() {
    TakeLock();
    UnmappedMemory();
}

template <Action TakeLock> void WithALockHeldElsewhere() {
    static std::atomic<bool> bHeld{false};
    std::thread([] {
        TakeLock();
        bHeld = true;
        WaitForTheEnd();
    }).detach();
    while (!bHeld) {
        std::this_thread::yield();
    }
    UnmappedMemory();
}

/// A thread that waits for a line holds standard input's lock for as long as none comes.
void WhileStandardInputIsRead() {
    int ends[2];
    static std::atomic<bool> bReading{false};
    if (pipe(ends) != 0 || dup2(ends[0], STDIN_FILENO) < 0) {
        _exit(93);
    }
    std::thread([] {
        flockfile(stdin);
        bReading = true;
        getchar_unlocked();
    }).detach();
    while (!bReading) {
        std::this_thread::yield();
    }
    UnmappedMemory();
}

// Standard output

void WithoutStandardOutput() {
    close(STDOUT_FILENO);
    UnmappedMemory();
}

void WithStandardOutputFull() {
    dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
    printf("what cannot be written");
    UnmappedMemory();
}

/// A pipe that is full, and whose other end is open but not read.
int PipeThatNobodyReads() {
    int ends[2];
    if (pipe(ends) != 0) {
        _exit(93);
    }
    const int flags = fcntl(ends[1], F_GETFL);
    fcntl(ends[1], F_SETFL, flags | O_NONBLOCK);
    static const char filler[4096] = "";
    while (write(ends[1], filler, sizeof(filler)) > 0) {
    }
    fcntl(ends[1], F_SETFL, flags);
    return ends[1];
}

void WithStandardOutputUnread() {
    dup2(PipeThatNobodyReads(), STDOUT_FILENO);
    printf("what nobody reads");
    UnmappedMemory();
}

void WithNothingRead() {
    const int fd = PipeThatNobodyReads();
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    UnmappedMemory();
}

// What is left of the process

enum class Left {
    kReport,
    kReportAndOneLineOfOthers,
    kReportWithoutBacktrace,
    kSecondFault,
    kTimeIsUp,
    kReportOrLine,
    kNothing
};

constexpr char kSecondFaultLine[] = "tqos: a second fault while the crash was being reported\n";
constexpr char kTimeIsUpLine[] = "tqos: the crash report did not finish in time\n";
constexpr char kOthersLine[] = "tqos: another thread faults while a crash is being reported\n";

struct FaultKind {
    const char* pszName;
    Action pfnFault;
    Left left;
    const char* pszSignal;
    const char* pszNotWithSanitizers; ///< why; null: with them, too
    bool bNotWithThreadSanitizer;     ///< it waits, and the sanitizer keeps the watchdog's signal back meanwhile
};

constexpr char kOwnAllocator[] = "the sanitizers have an allocator of their own, which reports this itself";
constexpr char kSegv[] = "segmentation violation";

constexpr FaultKind kFaults[] = {
    {"IllegalInstruction", IllegalInstruction, Left::kReport, "illegal instruction", nullptr, false},
    {"UnmappedMemory", UnmappedMemory, Left::kReport, kSegv, nullptr, false},
    {"Abort", abort, Left::kReport, "sig: 6", nullptr, false},
    {"DivisionByZero", DivisionByZero, Left::kReport, "floating point exception", nullptr, false},
    {"MappingBehindItsFile", MappingBehindItsFile, Left::kReport, "bus error", nullptr, false},
    {"DoubleFree", DoubleFree, Left::kReport, "sig: 6", kOwnAllocator, false},
    {"CorruptedHeap", CorruptedHeap, Left::kReportOrLine, nullptr, kOwnAllocator, false},
    {"FaultInTheReport", FaultInTheReport, Left::kSecondFault, nullptr, nullptr, false},
    {"ThreeThreadsAtOnce", WithAnotherThreadInTheReport, Left::kReportAndOneLineOfOthers, kSegv, nullptr, false},
    {"HoldingMemory", HoldingALock<LockMemory>, Left::kReport, kSegv, nullptr, false},
    {"HoldingTraceInstances", HoldingALock<LockTraceInstances>, Left::kReport, kSegv, nullptr, false},
    {"HoldingThreadList", HoldingALock<LockThreadList>, Left::kReport, kSegv, nullptr, false},
    {"HoldingListRegistry", HoldingALock<LockListRegistry>, Left::kReport, kSegv, nullptr, false},
    {"HoldingQueueRegistry", HoldingALock<LockQueueRegistry>, Left::kReport, kSegv, nullptr, false},
    {"MemoryHeld", WithALockHeldElsewhere<LockMemory>, Left::kTimeIsUp, nullptr, nullptr, true},
    {"TraceInstancesHeld", WithALockHeldElsewhere<LockTraceInstances>, Left::kTimeIsUp, nullptr, nullptr, true},
    {"ThreadListHeld", WithALockHeldElsewhere<LockThreadList>, Left::kTimeIsUp, nullptr, nullptr, true},
    {"ListRegistryHeld", WithALockHeldElsewhere<LockListRegistry>, Left::kReport, kSegv, nullptr, false},
    {"QueueRegistryHeld", WithALockHeldElsewhere<LockQueueRegistry>, Left::kReport, kSegv, nullptr, false},
    {"StandardInputRead", WhileStandardInputIsRead, Left::kReport, kSegv, nullptr, true},
    {"StandardOutputClosed", WithoutStandardOutput, Left::kReportWithoutBacktrace, kSegv, nullptr, false},
    {"StandardOutputFull", WithStandardOutputFull, Left::kReportWithoutBacktrace, kSegv, nullptr, false},
    {"StandardOutputUnread", WithStandardOutputUnread, Left::kReportWithoutBacktrace, kSegv, nullptr, false},
    {"NothingRead", WithNothingRead, Left::kNothing, nullptr, nullptr, true},
};

void ExpectOneReport(const char* pszSignal, const std::string& trace, const std::string& out, bool bBacktrace) {
    EXPECT_EQ(1u, CountOf(trace, "(tqos) CRT: Thread id: "));
    EXPECT_EQ(1u, CountOf(trace, "\nSignal: " + (pszSignal ? std::string(pszSignal) + "\nReason: " : "")));
    EXPECT_EQ(1u, CountOf(trace, "ms\ntqos Thread list:\nIndex   ThreadID"));
    EXPECT_EQ(1u, CountOf(trace, "TQOS Initialization: perhaps main?"));
    const std::string counted = "\nNumber of elements: ";
    const size_t at = trace.find(counted);
    ASSERT_NE(std::string::npos, at);
    const size_t frames = strtoul(trace.c_str() + at + counted.size(), nullptr, 10);
    EXPECT_GT(frames, 0u);
    EXPECT_EQ(frames, CountOf(trace, "(tqos) CRT: 0x"));
    EXPECT_EQ(bBacktrace ? frames : 0, CountOf(out, "\n")) << out;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

size_t LastLinesIn(const std::string& trace) {
    return CountOf(trace, kSecondFaultLine) + CountOf(trace, kTimeIsUpLine) + CountOf(trace, kOthersLine);
}

void ExpectLastLine(const char* pszLine, const std::string& trace) {
    EXPECT_EQ(1u, LastLinesIn(trace));
    EXPECT_TRUE(EndsWith(trace, pszLine));
    EXPECT_EQ(0u, CountOf(trace, "Signal: "));
}

void ExpectLeft(const FaultKind& fault, const std::string& trace, const std::string& out) {
    switch (fault.left) {
    case Left::kSecondFault:
        return ExpectLastLine(kSecondFaultLine, trace);
    case Left::kTimeIsUp:
        return ExpectLastLine(kTimeIsUpLine, trace);
    case Left::kNothing:
        EXPECT_EQ("", trace);
        return;
    case Left::kReportOrLine:
        if (LastLinesIn(trace) != 0) { // perhaps behind a report that was not complete, or complete but for its end
            EXPECT_EQ(1u, LastLinesIn(trace));
            EXPECT_LE(CountOf(trace, "Signal: "), 1u);
            return;
        }
        break;
    default:
        break;
    }
    ExpectOneReport(fault.pszSignal, trace, out, fault.left != Left::kReportWithoutBacktrace);
    // The others may come to their fault when the report is complete already.
    EXPECT_LE(LastLinesIn(trace), fault.left == Left::kReportAndOneLineOfOthers ? 1u : 0u);
    EXPECT_TRUE(LastLinesIn(trace) == 0 || EndsWith(trace, kOthersLine));
}

/// A process that crashes, in a directory of its own that keeps what it writes.
class CrashingProcess {
public:
    CrashingProcess(const ThreadKind& thread, const char* pszSettings, Action fault) : m_path(thread.pszName) {
        EXPECT_EQ(0, mkdir(m_path.c_str(), 0700));
        test::WriteFile(m_path + "/tqos.ini", pszSettings);
        fflush(nullptr);
        m_child = fork();
        if (m_child == 0) {
            Run(thread, fault);
        }
        EXPECT_GT(m_child, 0) << strerror(errno);
    }

    /// Waits for its end.
    int Status() {
        int status = -1;
        if (m_child <= 0) { // to wait for it, or to kill it, would mean others
            return status;
        }
        if (!WaitUntil([&] { return waitpid(m_child, &status, WNOHANG) == m_child; }, kSeconds)) {
            ADD_FAILURE() << "the process hangs; killed";
            kill(m_child, SIGKILL);
            waitpid(m_child, &status, 0);
        }
        return status;
    }
    std::string StandardOutput() const { return test::ReadFile(m_path + "/out"); }
    std::string StandardError() const { return test::ReadFile(m_path + "/err"); }

private:
    [[noreturn]] void Run(const ThreadKind& thread, Action fault) {
        if (chdir(m_path.c_str()) != 0 || dup2(open("out", O_WRONLY | O_CREAT, 0600), STDOUT_FILENO) < 0 ||
            dup2(open("err", O_WRONLY | O_CREAT, 0600), STDERR_FILENO) < 0 || tqOS_Initialize() != 0) {
            _exit(90);
        }
        RecordingQueue queue(test::kRunning); // a thread to report
        gpQueue = &queue;
        thread.pfnRun(fault);
        _exit(91);
    }

    std::string m_path;
    pid_t m_child;
};

class Crash : public testing::TestWithParam<FaultKind> {};

std::string NameOf(const testing::TestParamInfo<FaultKind>& info) {
    return info.param.pszName;
}

} // namespace

// All threads at the same time: what waits for the watchdog takes its seconds.
TEST_P(Crash, LeavesOneReportOrOneLineOnEveryThread) {
    const FaultKind& fault = GetParam();
    if (SANITIZED && fault.pszNotWithSanitizers) {
        GTEST_SKIP() << fault.pszNotWithSanitizers;
    }
    if (SANITIZED_THREADS && fault.bNotWithThreadSanitizer) {
        GTEST_SKIP() << "the thread sanitizer holds the watchdog's signal back while the thread waits";
    }
    ScratchDirectory directory;
    std::vector<CrashingProcess> processes;
    for (const ThreadKind& thread : kThreads) {
        processes.emplace_back(thread, kSettings, fault.pfnFault);
    }
    for (size_t i = 0; i < processes.size(); ++i) {
        const int status = processes[i].Status();
        const std::string trace = processes[i].StandardError();
        SCOPED_TRACE(std::string(kThreads[i].pszName) + ":\n" + trace);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        ExpectLeft(fault, trace, processes[i].StandardOutput());
    }
}

INSTANTIATE_TEST_SUITE_P(Every, Crash, testing::ValuesIn(kFaults), NameOf);

TEST(CrashOnASmallStack, IsReportedFromTheSmallestStackThatThereIs) {
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers' own handling of the signal does not fit such a stack";
    }
    ScratchDirectory directory;
    const std::string settings =
        std::string(kSettings) + "[MsgQ]\r\nDefaultStackSize=" + std::to_string(sysconf(_SC_THREAD_STACK_MIN)) + "\r\n";
    CrashingProcess process(ThreadKind{"worker", OnAQueueWorker}, settings.c_str(), UnmappedMemory);
    const int status = process.Status();
    const std::string trace = process.StandardError();
    SCOPED_TRACE(trace);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ExpectOneReport(kSegv, trace, process.StandardOutput(), true);
}

namespace {

int Overflow(int depth) { // NOLINT(misc-no-recursion)
    volatile char room[1024];
    room[depth % 1024] = static_cast<char>(depth);
    return depth < 0 ? 0 : Overflow(depth + 1) + room[depth % 1024];
}

void OverflowTheStack() {
    Overflow(1);
}

} // namespace

// Without a stack there is nothing for the reporter to run on.
TEST(CrashWithoutAStack, OfAThreadThatHasUsedUpItsStackEndsByTheSignalItself) {
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers give each thread an alternate stack";
    }
    ScratchDirectory directory;
    CrashingProcess process(ThreadKind{"worker", OnAQueueWorker}, kSettings, OverflowTheStack);
    const int status = process.Status();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    EXPECT_EQ("", process.StandardError());
}

namespace {

/// What an application does that wants a report even then.
void OverflowWithAnAlternateStack() {
    static char stack[65536];
    stack_t alternate;
    memset(&alternate, 0, sizeof(alternate));
    alternate.ss_sp = stack;
    alternate.ss_size = sizeof(stack);
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = tqos_SignalHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (sigaltstack(&alternate, nullptr) != 0 || sigaction(SIGSEGV, &action, nullptr) != 0) {
        _exit(93);
    }
    Overflow(1);
}

} // namespace

TEST(CrashWithoutAStack, IsReportedOnTheAlternateStackThatTheApplicationGives) {
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers give each thread an alternate stack";
    }
    ScratchDirectory directory;
    CrashingProcess process(ThreadKind{"worker", OnAQueueWorker}, kSettings, OverflowWithAnAlternateStack);
    const int status = process.Status();
    const std::string trace = process.StandardError();
    SCOPED_TRACE(trace);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ExpectOneReport(kSegv, trace, process.StandardOutput(), true);
}
