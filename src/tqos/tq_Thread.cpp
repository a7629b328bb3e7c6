#include "tq_Thread_p.h"

#include <atomic>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "tq_Gate_p.h"
#include "tq_IniKeys_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex.h"
#include "tq_WorkingLock_p.h"

// The gate is open from tq_ThreadInitialize() to tq_ThreadTerminate(). What tq_ThreadInitialize() makes is set and
// cleared while it is shut, and the list's content is guarded by the list's lock.

tq_List* gpThreadList = nullptr;

namespace {

// Settings, read by tq_ThreadInitialize()

std::atomic<unsigned int> gDefaultStackSize{0}; ///< bytes for threads started with 0; 0: the system's default

// State

tq_Gate gThreadGate;
tq_SemEvent* gpListEmptyEvent = nullptr; ///< signalled while no record of a running thread is in the list
unsigned int gInitialTid = 0;            ///< of the thread that ran tq_ThreadInitialize()
unsigned int gInitialPSTid = 0;
unsigned int gEndedRecords = 0; ///< records in the list whose threads ended without taking them off; the list's lock

std::atomic<bool> gbTerminationWaits{false};  ///< records come off although the library is no longer initialised
std::atomic<unsigned int> gPassingThreads{0}; ///< threads on their way to their function, or from it to their end

/// Held by a starter until the new thread's id is stored wherever it belongs; the new thread's first act is to pass it.
tq_PlacedMutex gStartMutex(tq_LockRank::kLeaf);

/// The calling thread.
struct ThisThread {
    unsigned int id; ///< where a pthread_t does not fit; 0: none given yet
    bool bStarted;   ///< by tq__beginthread(), and not past its last step
    bool bEnding;    ///< counted in gPassingThreads
};
thread_local ThisThread tThread __attribute__((tls_model("initial-exec"))) = {0, false, false};

// Identity

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(pthread_t) == sizeof(unsigned int), "a thread's id is its pthread_t");
unsigned int OwnId() {
    return static_cast<unsigned int>(pthread_self());
}
unsigned int GiveId(TQ_THREAD_ARGS*, pthread_t thread) {
    return static_cast<unsigned int>(thread);
}
void TakeId(const TQ_THREAD_ARGS*) {}
#else
std::atomic<unsigned int> gLastThreadId{0};

unsigned int NewThreadId() {
    unsigned int id = 0;
    while (id == 0) { // 0 means "no thread" everywhere
        id = (gLastThreadId.fetch_add(1, std::memory_order_relaxed) + 1) & ~kNoThreadsBit;
    }
    return id;
}
unsigned int OwnId() {
    if (tThread.id == 0) {
        tThread.id = NewThreadId();
    }
    return tThread.id;
}
unsigned int GiveId(TQ_THREAD_ARGS* pArgs, pthread_t) {
    pArgs->tid = NewThreadId();
    return pArgs->tid;
}
void TakeId(const TQ_THREAD_ARGS* pArgs) {
    tThread.id = pArgs->tid;
}
#endif

// Records

TQ_THREAD_LIST_NODE* FindRecordLocked(unsigned int tid) {
    return static_cast<TQ_THREAD_LIST_NODE*>(gpThreadList->FindFirst(
        tq_ListKey(tid), LIST_TYPE_U32BITS, offsetof(TQ_THREAD_LIST_NODE, tid), nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
}

void FreeRecord(TQ_THREAD_LIST_NODE* pRecord) {
    tq_free(pRecord->pszName);
    tq_free(pRecord);
}

/// Signals the event when no record of a running thread is left.
void SignalWhenNoneRunsLocked() {
    if (gpThreadList->NodeCount() <= gEndedRecords && gpListEmptyEvent) {
        gpListEmptyEvent->Set();
    }
}

/// The calling thread ends but its record stays listed until the subsystem terminates; nobody need wait for it.
void LeaveRecordBehind() {
    tq_GatePass pass(gThreadGate);
    if (!pass) {
        return;
    }
    tq_ListLock lock(gpThreadList);
    if (FindRecordLocked(OwnId())) {
        ++gEndedRecords;
        SignalWhenNoneRunsLocked();
    }
}

// Threads in passing: termination waits for them, whether or not it waits for the threads' functions, since they use
// memory and locks of the library on their way.

void IsPassing() {
    gPassingThreads.fetch_add(1, std::memory_order_relaxed);
}

/// From here on termination may take memory and locks down.
void HasPassed() {
    gPassingThreads.fetch_sub(1, std::memory_order_release);
}

// The end of a thread

bool RecordsComeOff() {
    return tqos_Intialized.load() != 0 || gbTerminationWaits.load();
}

/// The last step of a started thread, whichever way it ends: by returning, by tq_endthread() or pthread_exit(), or
/// cancelled. It stands after the destructors of the thread's own objects, which may still use the library.
void FinishThread(void*) {
    if (!tThread.bStarted) {
        return;
    }
    tq_ThreadIsEnding();
    if (RecordsComeOff()) {
        tq_RemoveThreadFromTracking(OwnId());
    } else {
        LeaveRecordBehind();
    }
    tThread.bStarted = false;
    tThread.bEnding = false;
    HasPassed();
}

pthread_once_t gFinishKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t gFinishKey;
bool gbFinishKey = false;

void MakeFinishKey() {
    gbFinishKey = pthread_key_create(&gFinishKey, FinishThread) == 0;
}

/// Sees to it that FinishThread() runs on the calling thread at its end; false when the system has no room for that.
bool FinishAtThreadEnd() {
    pthread_once(&gFinishKeyOnce, MakeFinishKey);
    return gbFinishKey && pthread_setspecific(gFinishKey, &tThread) == 0;
}

// The start of a thread

void SetNiceValue(int priority) {
    constexpr int kNiceOfHigh = -10;
    constexpr int kNiceOfLow = 10;
    if (priority == TQ_THREAD_PRIORITY_HIGH) {
        setpriority(PRIO_PROCESS, tq_GetPSThreadId(), kNiceOfHigh);
    } else if (priority == TQ_THREAD_PRIORITY_LOW) {
        setpriority(PRIO_PROCESS, tq_GetPSThreadId(), kNiceOfLow);
    }
}

void* Trampoline(void* pArgument) {
    TQ_THREAD_ARGS* pArgs = static_cast<TQ_THREAD_ARGS*>(pArgument);
    gStartMutex.lock();
    gStartMutex.unlock();
    TakeId(pArgs);
    tThread.bStarted = true;
    const bool bFinishesByItself = FinishAtThreadEnd();
    tq_ThreadSetPSIdForTracking();
    SetNiceValue(pArgs->priority);
    const PFN_THREAD start_address = pArgs->start_address;
    void* const args = pArgs->args;
    tq_free(pArgs);
    HasPassed(); // counted by the starter
    void* const pResult = start_address(args);
    tq_ThreadIsEnding();
    if (!bFinishesByItself) {
        FinishThread(nullptr);
    }
    return pResult; // ends the thread as tq_endthread() does; nobody collects the value
}

TQ_THREAD_LIST_NODE* NewRecord(int priority, const char* pszFilename, unsigned int line) {
    TQ_THREAD_LIST_NODE* pRecord = static_cast<TQ_THREAD_LIST_NODE*>(tq_calloc(1, sizeof(TQ_THREAD_LIST_NODE)));
    if (pRecord) {
        pRecord->line = line;
        pRecord->priority = priority;
        pRecord->pszName = tq_newString(pszFilename);
    }
    return pRecord;
}

/// Adds the record of the thread about to start; null when there is no memory for it: the thread then runs untracked.
TQ_THREAD_LIST_NODE* AddRecordLocked(TQ_THREAD_LIST_NODE* pRecord) {
    if (!pRecord) {
        return nullptr;
    }
    const unsigned int before = gpThreadList->NodeCount();
    gpThreadList->AddNode(pRecord);
    if (gpThreadList->NodeCount() == before) { // the list had no room for it
        FreeRecord(pRecord);
        return nullptr;
    }
    return pRecord;
}

bool CreateThread(unsigned int stackSize, TQ_THREAD_ARGS* pArgs, pthread_t* pThread) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    if (stackSize != 0) {
        pthread_attr_setstacksize(&attributes, stackSize); // where the size is refused, the system's default stays
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    IsPassing();
    const bool bCreated = pthread_create(pThread, &attributes, Trampoline, pArgs) == 0;
    if (!bCreated) {
        HasPassed();
    }
    pthread_attr_destroy(&attributes);
    return bCreated;
}

/// Starts the thread and stores its id in the record and at puiTid before the thread goes on; 0 when it does not start.
unsigned int StartThread(unsigned int stackSize, TQ_THREAD_ARGS* pArgs, TQ_THREAD_LIST_NODE* pRecord,
                         unsigned int* puiTid) {
    const std::lock_guard<tq_PlacedMutex> lock(gStartMutex);
    pthread_t thread;
    const unsigned int tid = CreateThread(stackSize, pArgs, &thread) ? GiveId(pArgs, thread) : 0;
    if (puiTid) {
        *puiTid = tid;
    }
    if (pRecord) {
        pRecord->tid = tid;
    }
    return tid;
}

/// Settles the record with the start's outcome.
void SettleRecordLocked(TQ_THREAD_LIST_NODE* pRecord, bool bStarted) {
    if (!bStarted) {
        gpThreadList->RemoveNode(pRecord);
        FreeRecord(pRecord);
    } else if (gpListEmptyEvent) {
        gpListEmptyEvent->Reset();
    }
}

} // namespace

extern "C" unsigned int tq_GetThreadId() {
    return OwnId();
}

extern "C" unsigned int tq_GetPSThreadId() {
    return static_cast<unsigned int>(syscall(SYS_gettid)); // not remembered: a child process has another one
}

extern "C" unsigned long tq__beginthread(unsigned int stack_size, PFN_THREAD start_address, void* arglist,
                                         unsigned int* thrdaddr, int priority, const char* pszFilename,
                                         unsigned int line) {
    TQ_THREAD_ARGS* pArgs = static_cast<TQ_THREAD_ARGS*>(tq_calloc(1, sizeof(TQ_THREAD_ARGS)));
    if (!pArgs) {
        return 0;
    }
    pArgs->priority = priority;
    pArgs->args = arglist;
    pArgs->start_address = start_address;

    tq_GatePass pass(gThreadGate);
    TQ_THREAD_LIST_NODE* pRecord = pass ? NewRecord(priority, pszFilename, line) : nullptr;
    // Locked until the record is complete: the new thread begins by looking it up.
    tq_ListLock lock(pass ? gpThreadList : nullptr);
    pRecord = AddRecordLocked(pRecord);
    const unsigned int tid = StartThread(stack_size ? stack_size : gDefaultStackSize.load(), pArgs, pRecord, thrdaddr);
    if (pRecord) {
        SettleRecordLocked(pRecord, /*bStarted=*/tid != 0);
    }
    if (tid == 0) {
        tq_free(pArgs);
    }
    return tid;
}

extern "C" void tq_endthread(unsigned int retval) {
    pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(retval)));
}

extern "C" void tq_ThreadSetPSIdForTracking() {
    tq_GatePass pass(gThreadGate);
    if (!pass) {
        return;
    }
    tq_ListLock lock(gpThreadList);
    TQ_THREAD_LIST_NODE* pRecord = FindRecordLocked(OwnId());
    if (pRecord) {
        pRecord->pstid = tq_GetPSThreadId();
    }
}

extern "C" void tq_ThreadSetName(unsigned int tid, const char* pszName) {
    tq_GatePass pass(gThreadGate);
    if (!pass) {
        return;
    }
    tq_ListLock lock(gpThreadList);
    TQ_THREAD_LIST_NODE* pRecord = FindRecordLocked(tid);
    if (pRecord) {
        tq_free(pRecord->pszName);
        pRecord->pszName = tq_newString(pszName);
    }
}

extern "C" void tq_ThreadGetName(char* pszName, unsigned int len, unsigned int tid) {
    tq_GatePass pass(gThreadGate);
    if (!pass || len == 0 || !pszName) {
        return;
    }
    pszName[0] = '\0';
    tq_ListLock lock(gpThreadList);
    const TQ_THREAD_LIST_NODE* pRecord = FindRecordLocked(tid ? tid : OwnId());
    if (pRecord && pRecord->pszName) {
        // Deliberate: a name that does not fit would be expected to be cut and ended. It fills len - 1 characters and
        // is not ended: the buffer's last character stays what the caller put there.
        strncpy(pszName, pRecord->pszName, len - 1);
    }
}

extern "C" void tq_RemoveThreadFromTracking(unsigned int tid) {
    tq_GatePass pass(gThreadGate);
    if (!pass) {
        return;
    }
    TQ_THREAD_LIST_NODE* pRecord = nullptr;
    {
        tq_ListLock lock(gpThreadList);
        pRecord = FindRecordLocked(tid);
        if (pRecord) {
            gpThreadList->RemoveNode(pRecord);
            SignalWhenNoneRunsLocked();
        }
    }
    if (pRecord) {
        FreeRecord(pRecord);
    }
}

extern "C" void tq__Sleep(unsigned int msTime, unsigned int uiLine, const char* pszFilename) {
    TrackSemaphore(nullptr, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
    if (msTime == 0) {
        sched_yield();
    } else {
        const struct timespec duration = {static_cast<time_t>(msTime / 1000),
                                          static_cast<long>(msTime % 1000) * 1000000};
        // Deliberate: a sleep that a signal interrupts would be expected to go on. It ends early.
        nanosleep(&duration, nullptr);
    }
    TrackSemaphore(nullptr, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_RELEASED, 0, nullptr);
}

// Reports

namespace {

const char* PriorityLetter(int priority) {
    switch (priority) {
    case TQ_THREAD_PRIORITY_HIGH:
        return "H";
    case TQ_THREAD_PRIORITY_LOW:
        return "L";
    default:
        return "N";
    }
}

void AppendRow(tq_ReportText& report, unsigned int index, unsigned int tid, unsigned int pstid, const char* pszPriority,
               const char* pszName) {
    constexpr size_t kNameColumn = 40;
    const char* pszShown = pszName && pszName[0] ? tq_LastCharacters(pszName, kNameColumn) : "Unknown";
    report.Append("%4u) %12u  %-8u   %s  %-40s\r\n", index, tid, pstid, pszPriority, pszShown);
}

void AppendTableLocked(tq_ReportText& report) {
    report.Append("Index   ThreadID    PSTID     Pri Thread Name / File\r\n");
    report.Append("----- ------------ ---------- --- ----------------------------------------\r\n");
    unsigned int index = 0;
    if (gInitialTid != 0) {
        AppendRow(report, ++index, gInitialTid, gInitialPSTid, "?", "TQOS Initialization: perhaps main?");
    }
    for (void* pNode = gpThreadList->GetHead(); pNode; pNode = gpThreadList->GetNext()) {
        const TQ_THREAD_LIST_NODE* pRecord = static_cast<const TQ_THREAD_LIST_NODE*>(pNode);
        AppendRow(report, ++index, pRecord->tid, pRecord->pstid, PriorityLetter(pRecord->priority), pRecord->pszName);
    }
}

} // namespace

extern "C" void tq_ShowThreads(char** pszResponse) {
    *pszResponse = nullptr;
    tq_GatePass pass(gThreadGate);
    if (!pass) {
        return;
    }
    tq_ListLock lock(gpThreadList);
    const unsigned int records = gpThreadList->NodeCount();
    if (records == 0) {
        *pszResponse = tq_newString("No Threads currently tracked...");
        return;
    }
    tq_ReportText report(records * 160 + 480);
    if (report) {
        AppendTableLocked(report);
        *pszResponse = report.Release();
    }
}

// Start and stop

namespace {

void Pause() {
    const struct timespec aMillisecond = {0, 1000000};
    nanosleep(&aMillisecond, nullptr);
}

/// Waits until no record of a running thread is in the list. The caller's own record does not count: it would wait for
/// its own end.
void WaitForTrackedThreads() {
    tq_RemoveThreadFromTracking(OwnId());
    for (;;) {
        {
            tq_ListLock lock(gpThreadList);
            if (gpThreadList->NodeCount() <= gEndedRecords) {
                return;
            }
        }
        if (!gpListEmptyEvent || !gpListEmptyEvent->WaitForEvent(-1)) {
            Pause(); // the event could not be made
        }
    }
}

/// Frees all that tq_ThreadInitialize() made and what it holds, with the gate shut and nobody inside.
void FreeThreadList() {
    tq_List* pList = gpThreadList;
    tq_SemEvent* pEvent = gpListEmptyEvent;
    {
        tq_ListLock lock(pList);
        gpThreadList = nullptr;
        gpListEmptyEvent = nullptr;
        gEndedRecords = 0;
        while (void* pNode = pList->RemoveHead()) {
            FreeRecord(static_cast<TQ_THREAD_LIST_NODE*>(pNode));
        }
    }
    tq_deleteObject(pList);
    tq_deleteObject(pEvent);
}

} // namespace

extern "C" unsigned int tq_ThreadInitialize() {
    if (gpThreadList) {
        return 0;
    }
    unsigned int stackSize = 0;
    const tq_IniInteger keys[] = {{"DefaultStackSize", 0, &stackSize}};
    tq_ReadIniTable("Thread", keys);
    gDefaultStackSize = stackSize;
    gbTerminationWaits = false;
    gInitialTid = tq_GetThreadId();
    gInitialPSTid = tq_GetPSThreadId();
    gpThreadList = tq_IfItLocks(tq_newObject<tq_List>("TQOS: Thread List"));
    tq_ListPlace(gpThreadList, tq_LockRank::kThreads);
    gpListEmptyEvent = tq_newObject<tq_SemEvent>(/*bManualReset=*/1, /*bInitialState=*/1);
    if (gpThreadList) { // without a list threads run untracked
        gThreadGate.Open();
    }
    return 0;
}

void tq_ThreadTerminationBegins(bool bWaitForThreads) {
    gbTerminationWaits = bWaitForThreads;
}

extern "C" void tq_ThreadTerminate(bool bWaitForThreads) {
    if (!gpThreadList) {
        tq_deleteObject(gpListEmptyEvent);
        gpListEmptyEvent = nullptr;
        return;
    }
    if (bWaitForThreads) {
        gbTerminationWaits = true;
        WaitForTrackedThreads();
    }
    gThreadGate.Close();
    FreeThreadList();
    gbTerminationWaits = false;
}

void tq_ThreadIsEnding() {
    if (tThread.bStarted && !tThread.bEnding) {
        tThread.bEnding = true;
        IsPassing();
    }
}

void tq_ThreadWaitForEndingThreads() {
    while (gPassingThreads.load(std::memory_order_acquire) != 0) {
        Pause();
    }
}
