#include "tqos_p.h"

#include <execinfo.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include "tq_CriticalErrorTrace_p.h"
#include "tq_Gate_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Telnet_p.h"
#include "tq_Thread_p.h"
#include "tq_WorkingLock_p.h"

// State. The application initialises and terminates from one thread, so nothing here has a lock; what other threads
// read meanwhile is atomic.

std::atomic<unsigned int> tqos_Intialized{0};
std::atomic<unsigned int> tqosTraceHandle{0};
tq_SemCritSec* pSubsystemInitCritSec = nullptr; // set and cleared while gLazyStartGate is shut
std::atomic<unsigned int> gui_tqosStartTime{0};
const char* myVersion = nullptr;

namespace {

constexpr char kBanner[] = "Kelvarin Version: 1.0.000 Mar 11 2009:05:23:10";
constexpr char kOwnTraceName[] = "tqos";

tq_Gate gLazyStartGate;

} // namespace

// Admission to lazy starts

tq_LazyStart::tq_LazyStart(const char* pszFilename, unsigned int line) : m_bAdmitted(gLazyStartGate.Enter()) {
    if (m_bAdmitted) {
        pSubsystemInitCritSec->_Enter(line, pszFilename);
    }
}

tq_LazyStart::~tq_LazyStart() {
    if (m_bAdmitted) {
        pSubsystemInitCritSec->Leave();
        gLazyStartGate.Leave();
    }
}

// The crash report

namespace {

constexpr int kMaxFrames = 256;
constexpr size_t kReportStackBytes = 128 * 1024;

// Together below 5 seconds, within which the process is gone.
constexpr int kReportMs = 4000;   // a report that takes longer hangs
constexpr int kPatienceMs = 1000; // for a reader of standard output, within these
constexpr int kLastLineMs = 500;
constexpr int kLastFlushMs = 500;

const int kCrashSignals[] = {SIGILL, SIGSEGV, SIGABRT, SIGFPE, SIGBUS};

struct ReasonText {
    int sig;
    int code;
    const char* pszReason;
};

// Deliberate: some reasons begin or end with a blank and some do not. Tools that read the reports look for these texts.
constexpr ReasonText kReasons[] = {
    {SIGILL, ILL_ILLOPC, "illegal opcode"},
    {SIGILL, ILL_ILLOPN, "illegal operand"},
    {SIGILL, ILL_ILLADR, "illegal addressing mode"},
    {SIGILL, ILL_ILLTRP, "illegal trap"},
    {SIGILL, ILL_PRVOPC, "privileged opcode"},
    {SIGILL, ILL_PRVREG, "privileged register"},
    {SIGILL, ILL_COPROC, "coprocessor error "},
    {SIGILL, ILL_BADSTK, "internal stack error"},
    {SIGFPE, FPE_INTDIV, " integer divide by zero"},
    {SIGFPE, FPE_INTOVF, " integer overflow"},
    {SIGFPE, FPE_FLTDIV, " floating point divide by zero"},
    {SIGFPE, FPE_FLTOVF, " floating point overflow"},
    {SIGFPE, FPE_FLTUND, " floating point underflow"},
    {SIGFPE, FPE_FLTRES, " floating point inexact result "},
    {SIGFPE, FPE_FLTINV, " floating point invalid operation"},
    {SIGFPE, FPE_FLTSUB, " subscript out of range"},
    {SIGSEGV, SEGV_MAPERR, " address not mapped to object"},
    {SIGSEGV, SEGV_ACCERR, " invalid permissions for mapped object"},
    {SIGBUS, BUS_ADRALN, " invalid address alignment"},
    {SIGBUS, BUS_ADRERR, " non-existent physical address"},
    {SIGBUS, BUS_OBJERR, " object specific hardware error"},
};

struct SignalText {
    int sig;
    const char* pszName;
};

constexpr SignalText kSignals[] = {
    {SIGILL, "illegal instruction"},
    {SIGFPE, "floating point exception"},
    {SIGSEGV, "segmentation violation"},
    {SIGBUS, "bus error"},
};

// Static, since the report must not allocate to say which signal it was.
char gOtherSignalName[64];
char gOtherSignalReason[64];

const char* SignalName(int sig) {
    for (const SignalText& row : kSignals) {
        if (row.sig == sig) {
            return row.pszName;
        }
    }
    snprintf(gOtherSignalName, sizeof(gOtherSignalName), "sig: %d", sig);
    return gOtherSignalName;
}

const char* SignalReason(int sig, int code) {
    bool bHasReasons = false;
    for (const ReasonText& row : kReasons) {
        if (row.sig == sig && row.code == code) {
            return row.pszReason;
        }
        bHasReasons = bHasReasons || row.sig == sig;
    }
    if (bHasReasons) {
        return "unknown";
    }
    snprintf(gOtherSignalReason, sizeof(gOtherSignalReason), "reason: %d", code);
    return gOtherSignalReason;
}

/// Whether a write of a line or so would not have to wait; gives the reader so long to make room. A descriptor that is
/// closed or broken takes everything: writing to it fails at once.
bool TakesOutput(int fd, int timeoutMs) {
    struct pollfd output = {fd, POLLOUT, 0};
    return poll(&output, 1, timeoutMs) == 1;
}

/// One line straight to standard error, where somebody takes it.
void WriteRawLine(const char* pszLine) {
    if (TakesOutput(STDERR_FILENO, 0)) {
        const ssize_t written = write(STDERR_FILENO, pszLine, strlen(pszLine));
        static_cast<void>(written); // there is nobody left to tell
    }
}

/// Where the report stands; whoever moves it on from kReporting has the last word.
enum ReportState { kReporting, kComplete, kGivenUp };
std::atomic<int> gReportState{kReporting};

void EndIn(int ms) {
    const struct timeval again = {0, kLastLineMs * 1000}; // what ends the process may hang, too
    const struct itimerval timer = {again, {ms / 1000, (ms % 1000) * 1000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

/// Ends the process with one line straight to standard error: nothing else can be trusted. Without it when the report
/// is complete, when such a line has been written, or when nobody takes it.
[[noreturn]] void GiveUp(const char* pszLine) {
    int state = kReporting;
    if (gReportState.compare_exchange_strong(state, kGivenUp)) {
        EndIn(kLastLineMs);
        WriteRawLine(pszLine);
    }
    _exit(0);
}

void OnTimeIsUp(int) {
    GiveUp("tqos: the crash report did not finish in time\n");
}

/// Ends the process when the report hangs: on a lock that another thread holds, in a broken heap, on a full pipe.
void StartWatchdog() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnTimeIsUp;
    action.sa_flags = SA_NODEFER;
    sigaction(SIGALRM, &action, nullptr);
    EndIn(kReportMs);
}

/// A fault on a blocked signal is answered by the kernel with the process's end, so a second fault would go unsaid.
void UnblockReportSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int sig : kCrashSignals) {
        sigaddset(&signals, sig);
    }
    sigaddset(&signals, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

/// What is reported. Set by the thread that reports, once; static, as its stack may be small.
struct Fault {
    int sig;
    const siginfo_t* info;
    void* frames[kMaxFrames];
    int frameCount;
};
Fault gFault;

std::atomic<bool> gbOthersFault{false};

/// Lets the first faulting thread through, once. Nobody else returns: a fault of the reporter itself ends the process;
/// a fault of another thread leaves that to the reporter, and is told by it after its report, which so is not torn.
void ClaimReport() {
    static std::atomic<long> gReporter{0};
    const long me = syscall(SYS_gettid);
    long reporter = 0;
    if (gReporter.compare_exchange_strong(reporter, me)) {
        return;
    }
    if (reporter == me) {
        GiveUp("tqos: a second fault while the crash was being reported\n");
    }
    gbOthersFault = true;
    for (;;) {
        pause();
    }
}

/// Waits for the reader of standard output; for one that let the time pass, not again.
bool StandardOutputIsRead() {
    static int patienceMs = kPatienceMs;
    const bool bRead = TakesOutput(STDOUT_FILENO, patienceMs);
    patienceMs = bRead ? patienceMs : 0;
    return bRead;
}

/// Puts out what standard output holds, so that what goes to its descriptor next stands behind it. Passed over while
/// another thread is inside the stream, which it may never leave, and when nobody reads.
void FlushStandardOutput() {
    if (ftrylockfile(stdout) == 0) {
        if (StandardOutputIsRead()) {
            fflush(stdout);
        }
        funlockfile(stdout);
    }
}

/// The symbolised frames, as long as somebody takes them: a pipe that nobody reads must not cost the rest of the
/// report.
void WriteBacktrace() {
    for (int i = 0; i < gFault.frameCount && StandardOutputIsRead(); ++i) {
        backtrace_symbols_fd(gFault.frames + i, 1, STDOUT_FILENO);
    }
}

void TraceFault() {
    char* pszThreads = nullptr;
    tq_ShowThreads(&pszThreads);
    const int code = gFault.info->si_code;
    tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_CRITICAL, TQ_TRACE_CAT_SYSTEM, /*bIncludeTimeStamp=*/true,
             "Thread id: %u:%u\nSignal: %s\nReason: %s\nFault addr: %p\nNumber of elements: %d\n"
             "tqos uptime: %ums\ntqos Thread list:\n%s\n",
             tq_GetPSThreadId(), tq_GetThreadId(), SignalName(gFault.sig), SignalReason(gFault.sig, code),
             gFault.info->si_addr, gFault.frameCount, tqOS_uptime(),
             pszThreads ? pszThreads : "Could not get tqos thread list!");
    tq_free(pszThreads);
}

void ReportCrash() {
    TraceFault();
    FlushStandardOutput();
    WriteBacktrace();
    for (int i = 0; i < gFault.frameCount; ++i) {
        tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_CRITICAL, TQ_TRACE_CAT_SYSTEM, /*bIncludeTimeStamp=*/true, "%p\n",
                 gFault.frames[i]);
    }
    tq_TraceKeptCriticalErrors();
    FlushStandardOutput();
}

/// The report is whole: nothing that happens from here on is worth a line, and little of it is worth waiting for.
void EndReport() {
    int state = kReporting;
    if (!gReportState.compare_exchange_strong(state, kComplete)) {
        return;
    }
    EndIn(kLastFlushMs);
    if (gbOthersFault) {
        WriteRawLine("tqos: another thread faults while a crash is being reported\n");
    }
    // What the application's own streams hold. A thread that waits for input holds its stream for as long.
    fflush(nullptr);
}

[[noreturn]] void ReportAndExit() {
    ReportCrash();
    EndReport();
    // Deliberate: status 0 after a crash, where a reader would expect failure. The report is the record of the fault; a
    // supervisor that restarts the device looks there. _exit, since handlers of exit() may use what has just broken.
    _exit(0);
}

#if defined(__SANITIZE_ADDRESS__)
/// The address sanitizer takes any stack but the thread's own for an error of the program, and says so on standard
/// error.
[[noreturn]] void ReportOnItsOwnStack() {
    ReportAndExit();
}
#else
/// Runs the report on a stack of its own: formatting takes more than a small thread's stack has left.
[[noreturn]] void ReportOnItsOwnStack() {
    alignas(16) static char stack[kReportStackBytes];
    static ucontext_t context;
    if (getcontext(&context) == 0) {
        context.uc_stack.ss_sp = stack;
        context.uc_stack.ss_size = sizeof(stack);
        makecontext(&context, ReportAndExit, 0);
        setcontext(&context);
    }
    ReportAndExit();
}
#endif

} // namespace

void tqos_SignalHandler(int sig, siginfo_t* info, void*) {
    UnblockReportSignals();
    ClaimReport();
    const tq_LockOrderUnchecked unchecked;
    StartWatchdog();
    gFault.sig = sig;
    gFault.info = info;
    gFault.frameCount = backtrace(gFault.frames, kMaxFrames);
    ReportOnItsOwnStack();
}

// Start and stop

namespace {

unsigned int StartListRegistry() {
    return tq_ListRegistryOpen() ? 0 : 1;
}

unsigned int RecordStartTime() {
    const unsigned int now = tq_GetTimeInMS();
    gui_tqosStartTime = now ? now : 1; // 0 says that the library is not running
    return 0;
}

unsigned int OpenLazyStarts() {
    pSubsystemInitCritSec = tq_IfItLocks(tq_newObject<tq_SemCritSec>(true));
    tq_LockOrderPlace(pSubsystemInitCritSec, tq_LockRank::kLazyStart);
    if (pSubsystemInitCritSec) {
        gLazyStartGate.Open();
    }
    return 0;
}

unsigned int StartQueueRegistry() {
    return tq_MsgQRegistryOpen() ? 0 : 1;
}

unsigned int OpenOwnTrace() {
    struct CategoryName {
        unsigned int category;
        const char* pszName;
    };
    static const CategoryName kCategories[] = {
        {TQ_TRACE_CAT_SOCKETS, "Sockets"}, {TQ_TRACE_CAT_TIMERS, "Timers"}, {TQ_TRACE_CAT_MSGQS, "MsgQs"},
        {TQ_TRACE_CAT_MEMORY, "Memory"},   {TQ_TRACE_CAT_SYSTEM, "System"}, {TQ_TRACE_CAT_CRITSEC, "CritSec"},
    };
    tqosTraceHandle = tq__TraceInitInstance(kOwnTraceName, "tqos", __LINE__);
    for (const CategoryName& row : kCategories) {
        tq_TraceSetCategoryName(tqosTraceHandle, row.category, row.pszName);
    }
    return 0;
}

/// Signal handling of the whole process, unless the configuration leaves it to the application.
unsigned int InstallSignalHandlers() {
    if (tq_GetINIFileAffirmative("SignalHandler", "Disable", "n", "tqos.ini")) {
        return 0;
    }
    // The first call loads the unwinder, which allocates: not in the handler, where the heap may be what has broken.
    void* frame;
    backtrace(&frame, 1);

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = tqos_SignalHandler;
    action.sa_flags = SA_SIGINFO;
    for (int sig : kCrashSignals) {
        sigaction(sig, &action, nullptr);
    }
    // Ended children leave no zombies: nobody has to wait for what tq_SpawnProcess() started.
    memset(&action, 0, sizeof(action));
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
    return 0;
}

// In this order: each step needs those before it. A step that fails ends the start and is not undone.
unsigned int (*const kStartSteps[])() = {
    tq_BaseInitialize,  tq_MemoryInitialize, tq_SemMutexInitialize, StartListRegistry, tq_HandleInitialize,
    tq_TimeInitialize,  RecordStartTime,     tq_ThreadInitialize,   tq_MsgQInitialize, OpenLazyStarts,
    StartQueueRegistry, tq_StringInitialize, tq_TraceInitialize,    OpenOwnTrace,      InstallSignalHandlers,
};

unsigned int RunStartSteps() {
    for (unsigned int (*step)() : kStartSteps) {
        const unsigned int result = step();
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

void CloseOwnTrace() {
    tq_TraceKeptCriticalErrors(); // while there is an instance to print them on
    const unsigned int hTrace = tqosTraceHandle.exchange(0);
    if (hTrace != 0) {
        tq_TraceTermInstance(hTrace);
    }
}

void CloseLazyStarts() {
    tq_deleteObject(pSubsystemInitCritSec);
    pSubsystemInitCritSec = nullptr;
}

} // namespace

unsigned int tqOS_Initialize() {
    myVersion = kBanner;
    if (++tqos_Intialized != 1) {
        return 0;
    }
    signal(SIGPIPE, SIG_IGN); // a write to a closed socket is an error to handle, not the end of the process
    const unsigned int result = RunStartSteps();
    srand(tq_GetTimeInMS());
    return result;
}

void tqOS_Terminate(bool bDumpResources, bool bWaitForThreads) {
    // Deliberate: one would expect a call too many to be turned away. The count passes through 0 to a huge number
    // instead: further ones end nothing, and as many starts only bring it back to 0.
    if (--tqos_Intialized != 0) {
        return;
    }
    tq_ThreadTerminationBegins(bWaitForThreads);
    gLazyStartGate.Close(); // what would start only now finds "not running"
    DestroyListOfQs();
    tq_TelnetLibraryEnds(); // if nobody has stopped the console: it can be started again with the library
    CloseOwnTrace();

    // Deliberate: not the mirror of the start. Trace goes before what might still want to trace, so that no line is
    // written by a library half gone, and memory goes down last.
    tq_SocketStopWorkerThread();
    tq_TraceTerminate();
    tq_StringTerminate();
    tq_SemDisableSemTracking();
    tq_SocketTerminate(99);
    tq_TimerTerminate();
    gui_tqosStartTime = 0;
    tq_TimeTerminate();
    tq_HandleTerminate();
    tq_MsgQTerminate();
    tq_ThreadTerminate(bWaitForThreads);
    tq_MsgQRegistryClose();
    CloseLazyStarts();
    tq_ListRegistryClose();
    tq_ThreadWaitForEndingThreads(); // they use locks and memory to their last step
    tq_SemMutexTerminate();
    tq_MemoryTerminate(bDumpResources);
    tq_BaseTerminate();
}

const unsigned char* tqOS_GetVersion() {
    return reinterpret_cast<const unsigned char*>(kBanner);
}

unsigned int tqOS_uptime() {
    const unsigned int started = gui_tqosStartTime;
    return started ? tq_GetTimeInMS() - started : 0;
}
