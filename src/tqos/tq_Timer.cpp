#include "tq_Timer_p.h"

#include <atomic>
#include <limits.h>
#include <mutex>
#include <time.h>
#include <unistd.h>

#include "tq_ClockSteps_p.h"
#include "tq_Deadline_p.h"
#include "tq_Gate_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_MsgQ.h"
#include "tq_Report_p.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex_p.h"
#include "tq_SemSemaphore.h"
#include "tq_Thread_p.h"
#include "tq_Time_p.h"
#include "tq_WorkingLock_p.h"

namespace {

constexpr unsigned int kShortestMs = 10;
constexpr unsigned int kNoTimeout = UINT_MAX;
constexpr unsigned int kThreadStackBytes = 4096;
constexpr char kThreadName[] = "TQOS: Timer Thread";
constexpr int kMaxWakeUps = 10000;
constexpr int kForEver = -1;
constexpr unsigned int kStartBytes = 3072; // what a start allocates, and some more

} // namespace

// State. Made and unmade under gStartStopMutex while gTimerGate is shut, so whoever has passed the gate finds it whole.
// The timers are guarded by their list's lock.

tq_TimerList* gpTimerList = nullptr;

namespace {

tq_Gate gTimerGate;
tq_PlacedMutex gStartStopMutex(tq_LockRank::kServiceStart); // comes after the section of the lazy starts
int gTimerInitCount = 0;                                    // guarded by gStartStopMutex

tq_SemSemaphore* gpTimerSem = nullptr;     // one unit each time that the thread is to look at the list again
tq_SemCritSec* gpTimerTermLatch = nullptr; // held by the timer thread as long as it lives
tq_SemEvent* gpTimerStarted = nullptr;     // the timer thread holds the latch
unsigned long long gThreadSleepsUntil = 0; // guarded by the list's lock, on its clock; 0: it looks before it sleeps
std::atomic<bool> gbTimersTerminated{false};
std::atomic<bool> gbTimerThreadDone{false};

} // namespace

// The lazy start

namespace {

unsigned int StartTimers(bool bCountUser);

/// Passes through the gate for a scope, having started the service if it did not run; false where it cannot.
class TimerUse {
public:
    TimerUse() : m_pass(StartedGate()) {}
    explicit operator bool() const { return static_cast<bool>(m_pass); }

private:
    static tq_Gate& StartedGate() {
        if (!gTimerGate.IsOpen()) {
            StartTimers(/*bCountUser=*/false);
        }
        return gTimerGate;
    }

    tq_GatePass m_pass;
};

/// Makes the timer thread look at the list again. A semaphore at its ceiling makes it look as well.
void WakeTimerThread() {
    gpTimerSem->Release(1, nullptr);
}

/// Whether the thread has to be woken, by the caller, after leaving the lock: the earliest timer has come to be due
/// before it wakes. One that wakes too early, as after a kill, finds nothing due and goes on sleeping.
bool SleepsTooLongLocked() {
    const tq_ArmedTimer* pFirst = gpTimerList->First();
    if (!pFirst || pFirst->expiry >= gThreadSleepsUntil) {
        return false;
    }
    gThreadSleepsUntil = 0;
    return true;
}

// Setting, killing, asking

bool KillTimerLocked(const tq_TimerKey& key) {
    tq_ArmedTimer* pTimer = gpTimerList->Find(key);
    if (!pTimer) {
        return false;
    }
    gpTimerList->Remove(pTimer);
    CleanupTimerNode(pTimer);
    return true;
}

/// Puts a timer at its place; one for which the list has no memory is freed.
bool AddTimerLocked(tq_ArmedTimer* pTimer, unsigned int now) {
    if (gpTimerList->Insert(pTimer, now)) {
        return true;
    }
    CleanupTimerNode(pTimer);
    return false;
}

bool Matches(unsigned int wanted, unsigned int value) {
    return wanted == 0 || wanted == value;
}

} // namespace

unsigned int tq_TimerSet(unsigned int hMsgQ, unsigned int mstimeout, unsigned int instance, unsigned int userparm,
                         unsigned int flags, unsigned int type, const char* name, bool bAllowSkew) {
    TimerUse use;
    if (!use || hMsgQ == 0) {
        return 1;
    }
    tq_ArmedTimer* pTimer = static_cast<tq_ArmedTimer*>(tq_calloc(1, sizeof(tq_ArmedTimer)));
    if (!pTimer) {
        return 1;
    }
    pTimer->mstimeout = mstimeout < kShortestMs ? kShortestMs : mstimeout;
    pTimer->mstimeout_original = pTimer->mstimeout;
    pTimer->hMsgQ = hMsgQ;
    pTimer->type = type;
    pTimer->instance = instance;
    pTimer->userparm = userparm;
    pTimer->flags = flags;
    pTimer->name = name ? tq_newString(name) : nullptr;
    pTimer->bAllowSkew = bAllowSkew;
    const unsigned int now = tq_GetTimeInMS();
    pTimer->creation_time = now;
    bool bAdded;
    bool bWake;
    { // one hold for both, so that two threads that set the same keys leave one timer
        tq_ListLock lock(gpTimerList);
        KillTimerLocked({hMsgQ, instance, userparm, flags});
        bAdded = AddTimerLocked(pTimer, now);
        bWake = SleepsTooLongLocked();
    }
    if (bWake) {
        WakeTimerThread();
    }
    return bAdded ? 0 : 1;
}

unsigned int tq_TimerKill(unsigned int hMsgQ, unsigned int instance, unsigned int userparm, unsigned int flags) {
    TimerUse use;
    if (!use || hMsgQ == 0) {
        return 1;
    }
    tq_ListLock lock(gpTimerList);
    return KillTimerLocked({hMsgQ, instance, userparm, flags}) ? 0 : 1;
}

unsigned int tq_TimerTimeRemaining(unsigned int hMsgQ, unsigned int instance, unsigned int userparm,
                                   unsigned int flags) {
    TimerUse use;
    if (!use) {
        return 0;
    }
    tq_ListLock lock(gpTimerList);
    const TIMER_NODE* pTimer = gpTimerList->Find({hMsgQ, instance, userparm, flags});
    return pTimer ? tq_TimerRemainingAt(*pTimer, tq_GetTimeInMS()) : 0;
}

unsigned int tq_TimerNextTimeout(unsigned int hMsgQ, unsigned int instance, unsigned int userparm, unsigned int flags) {
    TimerUse use;
    if (!use || hMsgQ == 0) {
        return kNoTimeout;
    }
    tq_ListLock lock(gpTimerList);
    for (void* pNode = gpTimerList->GetHead(); pNode; pNode = gpTimerList->GetNext()) {
        const TIMER_NODE& timer = *static_cast<TIMER_NODE*>(pNode);
        if (timer.hMsgQ == hMsgQ && Matches(instance, timer.instance) && Matches(userparm, timer.userparm) &&
            Matches(flags, timer.flags)) {
            return tq_TimerRemainingAt(timer, tq_GetTimeInMS());
        }
    }
    return kNoTimeout;
}

void CleanupTimerNode(TIMER_NODE* pNode) {
    if (pNode) {
        tq_free(pNode->name);
        tq_free(pNode);
    }
}

// Skew

namespace {

/// Shifts every timer that follows the skew and moves it to the head of the other list. Once that has no memory for
/// one, it and those behind it keep their time.
void ShiftTimersLocked(int msOffset, unsigned int now, tq_List& shifted) {
    for (void* pNode = gpTimerList->GetHead(); pNode; pNode = gpTimerList->GetNext()) {
        tq_ArmedTimer& timer = *static_cast<tq_ArmedTimer*>(pNode);
        if (!tq_TimerFollowsSkew(timer, now)) {
            continue;
        }
        const unsigned int count = shifted.NodeCount();
        shifted.AddToHead(&timer);
        if (shifted.NodeCount() == count) {
            return;
        }
        tq_TimerShift(timer, msOffset, now);
        gpTimerList->Remove(&timer); // the walk goes on behind it
    }
}

} // namespace

void tq_TimerSkew(int msOffset) {
    TimerUse use;
    if (!use) {
        return;
    }
    tq_List shifted("TimerSkewList");
    bool bWake;
    {
        tq_ListLock lock(gpTimerList);
        const unsigned int now = tq_GetTimeInMS();
        ShiftTimersLocked(msOffset, now, shifted);
        while (void* pNode = shifted.RemoveHead()) {
            AddTimerLocked(static_cast<tq_ArmedTimer*>(pNode), now);
        }
        bWake = SleepsTooLongLocked();
    }
    if (bWake) {
        WakeTimerThread();
    }
}

// The timer thread

namespace {

/// Sends a timer's message; false when nobody took it.
bool SendExpiry(const TIMER_NODE& timer, MSG_COMMON* pMsg) {
    *pMsg = {0, timer.hMsgQ, sizeof(MSG_COMMON), MSG_TIMER, timer.instance, timer.userparm, timer.flags};
    if (tq_MsgSend(pMsg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        return true;
    }
    tq_free(pMsg);
    return false;
}

/// Fires a timer that is due and out of the list. Only one that repeats and whose queue took the message goes on.
void ExpireLocked(tq_ArmedTimer* pTimer, unsigned int now) {
    MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_calloc(1, sizeof(MSG_COMMON)));
    if (!pMsg) {
        // Deliberate: without memory for the message one would expect the timer to be tried again, or freed. It is
        // dropped as it is: its message never comes, a repeating one ends, and its memory is lost.
        return;
    }
    const bool bSent = SendExpiry(*pTimer, pMsg);
    if (!bSent || pTimer->type != TQ_TIMER_REPEATING) {
        CleanupTimerNode(pTimer);
        return;
    }
    // Counted from when it was found due: a late timer does not catch up.
    pTimer->creation_time = now;
    pTimer->mstimeout = pTimer->mstimeout_original;
    AddTimerLocked(pTimer, now);
}

long long MonotonicNs() {
    struct timespec now;
    return clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? now.tv_sec * 1000000000LL + now.tv_nsec : 0;
}

/// The length of the system's ticks in nanoseconds: they are what its coarse clock advances by. 0 when it has none.
long long TickNs() {
    struct timespec tick;
    return clock_getres(CLOCK_MONOTONIC_COARSE, &tick) == 0 ? tick.tv_sec * 1000000000LL + tick.tv_nsec : 0;
}

long long CountNs() {
    const long rate = sysconf(_SC_CLK_TCK);
    return rate > 0 ? 1000000000LL / rate : 0;
}

/// The timer thread's view of the millisecond clock, which also tells when it will have advanced.
class ThreadClock {
public:
    ThreadClock() : m_msPerCount(gClockMSperTick), m_steps(TickNs(), m_msPerCount == 0 ? 0 : CountNs()) {}

    /// tq_GetTimeInMS().
    unsigned int Read() {
        if (!m_steps.CanForesee()) {
            return tq_GetTimeInMS();
        }
        const long long before = MonotonicNs();
        m_count = tq_ClockTicks();
        m_steps.Saw(m_count, before, MonotonicNs());
        return tq_GetTimeInMS(); // after the count: should it advance in between, the next sleep is short, not long
    }

    /// Sleeps until so many milliseconds (-1: for ever) have gone by on the clock since it was read, or the thread is
    /// woken. It may be early; by whole milliseconds alone it would be late by as much as the clock's step.
    void Sleep(int ms) {
        if (ms == kForEver || !m_steps.CanForesee()) {
            gpTimerSem->WaitForSem(ms);
            return;
        }
        const unsigned int counts = (static_cast<unsigned int>(ms) + m_msPerCount - 1) / m_msPerCount;
        const long long ns = m_steps.WakeFor(m_count + counts) - MonotonicNs();
        tq_SemInside::WaitForSem(*gpTimerSem, tq_Microseconds{(ns + 999) / 1000});
    }

private:
    const unsigned int m_msPerCount;
    tq_ClockSteps m_steps;
    unsigned int m_count = 0;
};

/// Fires what is due; how long the thread may sleep.
int FireDueTimersLocked(ThreadClock& clock) {
    for (;;) {
        const unsigned int now = clock.Read();
        tq_ArmedTimer* pTimer = gpTimerList->First();
        if (!pTimer) {
            gThreadSleepsUntil = ULLONG_MAX;
            return kForEver;
        }
        const unsigned int remaining = tq_TimerRemainingAt(*pTimer, now);
        if (remaining != 0) {
            const int sleepMs = tq_TimerSleepFor(remaining);
            gThreadSleepsUntil = gpTimerList->ClockAt(now) + static_cast<unsigned int>(sleepMs);
            return sleepMs;
        }
        gpTimerList->Remove(pTimer);
        ExpireLocked(pTimer, now);
    }
}

void RunTimers() {
    ThreadClock clock;
    unsigned int lastRefresh = clock.Read();
    while (!gbTimersTerminated) {
        int sleepMs;
        {
            tq_ListLock lock(gpTimerList);
            lastRefresh = tq_TimerRefreshLocked(*gpTimerList, lastRefresh, clock.Read());
            sleepMs = FireDueTimersLocked(clock);
        }
        clock.Sleep(sleepMs);
    }
}

void RemoveAllTimers() {
    tq_ListLock lock(gpTimerList);
    while (tq_ArmedTimer* pTimer = gpTimerList->First()) {
        gpTimerList->Remove(pTimer);
        CleanupTimerNode(pTimer);
    }
}

void* TimerThread(void*) {
    gpTimerTermLatch->Enter();
    tq_HeldLatchEntered();
    gpTimerStarted->Set();
    RunTimers();
    RemoveAllTimers();
    // By itself, while it certainly lives: once it has ended its id may be another thread's.
    tq_RemoveThreadFromTracking(tq_GetThreadId());
    tq_ThreadIsEnding();
    tq_HeldLatchLeaving();
    gpTimerTermLatch->Leave();
    gbTimerThreadDone = true;
    return nullptr;
}

} // namespace

// The report

namespace {

void ReportTimer(tq_ReportText& report, const TIMER_NODE& timer, unsigned int now) {
    report.Append("  %-4u %-6u %-6u %-5u %-1s %-9u %-9u %-23s\r\n", timer.hMsgQ, timer.instance, timer.userparm,
                  timer.flags, timer.type == TQ_TIMER_REPEATING ? "Y" : "N", timer.mstimeout_original,
                  tq_TimerRemainingAt(timer, now), timer.name ? timer.name : "(unnamed)");
}

char* ReportTimers() {
    tq_ListLock lock(gpTimerList);
    const unsigned int count = gpTimerList->NodeCount();
    if (count == 0) {
        return tq_newString("No Timers currently set...");
    }
    tq_ReportText report(count * 160 + 320);
    report.Append("  MsgQ Inst   User    Flg  R Dur(ms)   Rem(ms)   Name\r\n");
    report.Append("  ---- ------ ------ ----- - --------- --------- ------------\r\n");
    const unsigned int now = tq_GetTimeInMS();
    for (void* pNode = gpTimerList->GetHead(); pNode; pNode = gpTimerList->GetNext()) {
        ReportTimer(report, *static_cast<TIMER_NODE*>(pNode), now);
    }
    return report.Release();
}

} // namespace

void tq_TimerShowTimers(char** pszResponse) {
    if (!pszResponse) {
        return;
    }
    tq_GatePass pass(gTimerGate); // deliberately without starting the service: a report only looks
    *pszResponse = pass ? ReportTimers() : tq_newString("TQOS Timer Subsystem not yet initialized!");
}

// Start and stop

namespace {

void FreeObjects() {
    tq_deleteObject(gpTimerList);
    gpTimerList = nullptr;
    tq_deleteObject(gpTimerTermLatch);
    gpTimerTermLatch = nullptr;
    tq_deleteObject(gpTimerStarted);
    gpTimerStarted = nullptr;
    tq_deleteObject(gpTimerSem);
    gpTimerSem = nullptr;
}

/// Whether there is memory for the whole start. A list or a latch whose lock found none cannot be told from outside,
/// and would let everybody in.
bool HasMemoryToStart() {
    void* pProbe = tq_malloc(kStartBytes);
    tq_free(pProbe);
    return pProbe != nullptr;
}

/// False when one could not be made, or was made without the memory it needs inside.
bool MakeObjects() {
    gpTimerSem = tq_newObject<tq_SemSemaphore>(0, kMaxWakeUps);
    gpTimerStarted = tq_newObject<tq_SemEvent>(/*bManualReset=*/1, /*bInitialState=*/0);
    gpTimerTermLatch = tq_IfItLocks(tq_newObject<tq_SemCritSec>(/*bRecursive=*/true));
    gpTimerList = tq_IfItLocks(tq_newObject<tq_TimerList>());
    tq_ListPlace(gpTimerList, tq_LockRank::kTimers);
    if (!gpTimerSem || !gpTimerStarted || !gpTimerTermLatch || !gpTimerList) {
        return false;
    }
    gpTimerList->SetName("TQOS: All Timers");
    return gpTimerSem->Release(1, nullptr) && gpTimerStarted->Reset();
}

/// Starts the timer thread and waits until it holds the latch: whoever stops the service then waits for it.
bool StartTimerThread() {
    gbTimersTerminated = false;
    gbTimerThreadDone = false;
    gThreadSleepsUntil = 0;
    unsigned int threadId = 0;
    if (tq__beginthread(kThreadStackBytes, TimerThread, nullptr, &threadId, TQ_THREAD_PRIORITY_NORMAL, kThreadName,
                        __LINE__) == 0) {
        return false;
    }
    gpTimerStarted->WaitForEvent(-1);
    return true;
}

/// Starts the service if it does not run. A user is counted always, or only when this call starts it.
unsigned int StartTimers(bool bCountUser) {
    tq_LazyStart start(__FILE__, __LINE__);
    if (!start) {
        return 1;
    }
    std::lock_guard<tq_PlacedMutex> lock(gStartStopMutex);
    if (gTimerInitCount > 0) {
        gTimerInitCount += bCountUser ? 1 : 0;
        return 0;
    }
    if (!HasMemoryToStart() || !MakeObjects() || !StartTimerThread()) {
        FreeObjects();
        return 1;
    }
    gTimerInitCount = 1;
    gTimerGate.Open();
    return 0;
}

void StopTimerThread() {
    gbTimersTerminated = true;
    gpTimerSem->Release(1, nullptr);
    gpTimerTermLatch->Enter(); // held by the thread as long as it lives
    gpTimerTermLatch->Leave();
    while (!gbTimerThreadDone) { // it is leaving the latch; or the latch got no memory and holds nobody up
        tq_Sleep(1);
    }
}

} // namespace

unsigned int tq_TimerInitialize() {
    return StartTimers(/*bCountUser=*/true);
}

void tq_TimerTerminate() {
    std::lock_guard<tq_PlacedMutex> lock(gStartStopMutex);
    if (gTimerInitCount == 0) {
        return;
    }
    // The library's own termination is the last user's, whatever others forgot to take away.
    gTimerInitCount = tqos_Intialized == 0 ? 0 : gTimerInitCount - 1;
    if (gTimerInitCount != 0) {
        return;
    }
    gTimerGate.Close();
    StopTimerThread();
    RemoveAllTimers();
    FreeObjects();
}
