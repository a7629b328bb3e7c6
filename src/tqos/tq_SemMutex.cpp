#include "tq_SemMutex_p.h"

#include <sched.h>
#include <stdint.h>
#include <string.h>

#include "tq_Deadline_p.h"
#include "tq_Futex_p.h"
#include "tq_IniKeys_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tq_Thread_p.h"

std::atomic<bool> gbUseMutexesForCritSecs{true};
std::atomic<bool> gbSchedYield{false};
std::atomic<bool> gbOtherProcessors{false};

pthread_mutex_t gSemListMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
std::atomic<bool> gbTrackSems{false};
SemListNode* gpSemListHead = nullptr;

namespace {

constexpr char kRowFormat[] = "0x%08x %10u %s %s %6u %s\r\n";
constexpr int kNameColumn = 36;

/// While a thread waits for a mutex: the time for some ten uses of what it guards.
constexpr long kNanosecondsBetweenLooks = 5000;

struct CodeText {
    unsigned int code;
    const char* pszText;
};
constexpr CodeText kTypes[] = {
    {SEM_TRACK_TYPE_MUTEX, "Mutex"},     {SEM_TRACK_TYPE_CRITSEC, "CrSec"}, {SEM_TRACK_TYPE_EVENT, "Event"},
    {SEM_TRACK_TYPE_SEMAPHORE, "Sema "}, {SEM_TRACK_TYPE_SLEEP, "Sleep"},
};
constexpr CodeText kStates[] = {
    {SEM_TRACK_STATE_WAITING, "Waiting"},
    {SEM_TRACK_STATE_OWNED, " Owned "},
};

template <size_t N> const char* TextOf(const CodeText (&table)[N], unsigned int code, const char* pszOther) {
    for (const CodeText& row : table) {
        if (row.code == code) {
            return row.pszText;
        }
    }
    return pszOther;
}

constexpr tq_LockPlace kSemListPlace(tq_LockRank::kTrackedWaits);

class SemListLock {
public:
    SemListLock() { LockSemList(); }
    ~SemListLock() { unLockSemList(); }
    SemListLock(const SemListLock&) = delete;
    SemListLock& operator=(const SemListLock&) = delete;
};

/// True while the calling thread is inside TrackSemaphore(). A record that is refused is reported, the report takes
/// locks, and those would want records of their own.
thread_local bool tbTracking __attribute__((tls_model("initial-exec"))) = false;

void FreeRecord(SemListNode* pNode) {
    tq_free(pNode->pszFile);
    tq_free(pNode);
}

/// Takes the thread's newest record of the lock out of the list; null when there is none.
SemListNode* UnlinkRecordLocked(void* sem, unsigned int tid) {
    for (SemListNode** ppNode = &gpSemListHead; *ppNode; ppNode = &(*ppNode)->pNext) {
        SemListNode* pNode = *ppNode;
        if (pNode->Sem == sem && pNode->ThreadId == tid) {
            *ppNode = pNode->pNext;
            return pNode;
        }
    }
    return nullptr;
}

void PushRecordLocked(SemListNode* pNode) {
    pNode->pNext = gpSemListHead;
    gpSemListHead = pNode;
}

void TrackWaiting(void* sem, unsigned int tid, unsigned int type, unsigned int uiLine, const char* pszFilename) {
    SemListNode* pNode = static_cast<SemListNode*>(tq_calloc(1, sizeof(SemListNode)));
    if (!pNode) {
        return;
    }
    pNode->Sem = sem;
    pNode->ThreadId = tid;
    pNode->State = SEM_TRACK_STATE_WAITING;
    pNode->Type = type;
    pNode->Line = uiLine;
    pNode->pszFile = pszFilename ? tq_newString(pszFilename) : nullptr;
    bool bPushed = false;
    {
        SemListLock lock;
        // Tracking may have been switched off since: its records are gone then, and this one must not stay behind.
        bPushed = gbTrackSems.load(std::memory_order_relaxed);
        if (bPushed) {
            PushRecordLocked(pNode);
        }
    }
    if (!bPushed) {
        FreeRecord(pNode);
    }
}

void TrackOwned(void* sem, unsigned int tid) {
    SemListLock lock;
    SemListNode* pNode = UnlinkRecordLocked(sem, tid);
    if (pNode) {
        pNode->State = SEM_TRACK_STATE_OWNED;
        PushRecordLocked(pNode);
    }
}

void TrackReleased(void* sem, unsigned int tid) {
    SemListNode* pNode = nullptr;
    {
        SemListLock lock;
        pNode = UnlinkRecordLocked(sem, tid);
    }
    if (pNode) {
        FreeRecord(pNode);
    }
}

} // namespace

extern "C" void LockSemList() {
    kSemListPlace.Take();
    pthread_mutex_lock(&gSemListMutex);
}

extern "C" void unLockSemList() {
    kSemListPlace.Give();
    pthread_mutex_unlock(&gSemListMutex);
}

extern "C" void TrackSemaphore(void* sem, int type, int state, unsigned int uiLine, const char* pszFilename) {
    if (!gbTrackSems.load(std::memory_order_relaxed) || tbTracking) {
        return;
    }
    tbTracking = true;
    const unsigned int tid = tq_GetThreadId();
    if (type == SEM_TRACK_TYPE_SLEEP) { // a sleep has no lock: the thread's id stands in its place
        sem = reinterpret_cast<void*>(static_cast<uintptr_t>(tid));
    }
    switch (state) {
    case SEM_TRACK_STATE_WAITING:
        TrackWaiting(sem, tid, static_cast<unsigned int>(type), uiLine, pszFilename);
        break;
    case SEM_TRACK_STATE_OWNED:
        TrackOwned(sem, tid);
        break;
    case SEM_TRACK_STATE_RELEASED:
        TrackReleased(sem, tid);
        break;
    default:
        break;
    }
    tbTracking = false;
}

tq_SemMutex::tq_SemMutex(bool bCritSec) : m_hMutex(tq_newObject<MutexStruct>()), m_bCritSec(bCritSec) {}

tq_SemMutex::~tq_SemMutex() {
    MutexStruct* pMutex = static_cast<MutexStruct*>(m_hMutex);
    if (!pMutex) {
        return;
    }
    m_hMutex = nullptr;
    tq_deleteObject(pMutex);
}

namespace {

unsigned int OwnerIn(unsigned int ownerThread) {
    return ownerThread & ~kNoThreadsBit;
}

/// Makes the mutex the thread's if it is free right now.
inline bool TakeIfFree(MutexStruct& mutex, unsigned int me) {
    unsigned int free = 0;
    return mutex.ownerThread.load(std::memory_order_relaxed) == free &&
           mutex.ownerThread.compare_exchange_strong(free, me, std::memory_order_acquire, std::memory_order_relaxed);
}

/// Waits until the mutex is the thread's; false when the time is up first.
[[gnu::noinline]] bool WaitToOwn(MutexStruct& mutex, unsigned int me, const struct timespec* pDeadline) {
    tq_Spin spin(mutex.waits);
    if (spin.MayPay() && spin.Look(kNanosecondsBetweenLooks, [&mutex, me] { return TakeIfFree(mutex, me); })) {
        return true;
    }
    unsigned int owner = mutex.ownerThread.load(std::memory_order_relaxed);
    for (;;) {
        if (owner == 0) {
            // Marked: others may be asleep still, and nobody else remembers them.
            if (mutex.ownerThread.compare_exchange_weak(owner, me | kNoThreadsBit, std::memory_order_acquire,
                                                        std::memory_order_relaxed)) {
                return true;
            }
            continue;
        }
        const unsigned int marked = owner | kNoThreadsBit;
        if (owner != marked && !mutex.ownerThread.compare_exchange_weak(owner, marked, std::memory_order_relaxed)) {
            continue;
        }
        if (!tq_Futex::Sleep(mutex.ownerThread, marked, pDeadline)) {
            return false;
        }
        owner = mutex.ownerThread.load(std::memory_order_relaxed);
    }
}

/// Makes the mutex the thread's once, or once more; false when the time is up first.
inline bool Take(MutexStruct& mutex, const struct timespec* pDeadline) {
    const unsigned int me = tq_GetThreadId();
    const bool bIsOwner = OwnerIn(mutex.ownerThread.load(std::memory_order_relaxed)) == me;
    if (!bIsOwner && !TakeIfFree(mutex, me) && !WaitToOwn(mutex, me, pDeadline)) {
        return false;
    }
    // Deliberate: a critical section asked to be non-recursive would be expected to block, or to report, when its owner
    // enters it again. The second entry is counted like any other, and needs a leave of its own.
    mutex.instances += 1;
    return true;
}

} // namespace

BOOL tq_SemMutex::_WaitForMutexWithTimeout(int msTimeOut, unsigned int uiLine, const char* pszFilename) {
    MutexStruct* pMutex = static_cast<MutexStruct*>(m_hMutex);
    if (!pMutex) {
        return 0;
    }
    tq_TrackWait(pMutex, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
    const tq_TimedWait wait(msTimeOut);
    if (!wait) {
        return 0;
    }
    const BOOL bOwned = Take(*pMutex, wait.Deadline()) ? 1 : 0;
    // Deliberate: a wait that timed out would be expected to lose its record. It is shown as owned too, until this
    // thread next releases the mutex, so the report names the threads that gave up.
    tq_TrackWait(pMutex, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_OWNED, uiLine, pszFilename);
    return bOwned;
}

BOOL tq_SemMutex::_WaitForMutex(unsigned int uiLine, const char* pszFilename) {
    return _WaitForMutexWithTimeout(-1, uiLine, pszFilename);
}

BOOL tq_SemMutex::Release() {
    MutexStruct* pMutex = static_cast<MutexStruct*>(m_hMutex);
    if (!pMutex) {
        return 0;
    }
    tq_TrackWait(pMutex, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_RELEASED, 0, nullptr);
    const unsigned int owner = OwnerIn(pMutex->ownerThread.load(std::memory_order_relaxed));
    if (owner == tq_GetThreadId() && --pMutex->instances == 0) {
        // From this exchange on the next owner may destroy the mutex: neither the object nor its record is touched
        // again, and only the record's address is used.
        const void* const pAddress = tq_Futex::AddressOf(pMutex->ownerThread);
        if (pMutex->ownerThread.exchange(0, std::memory_order_release) != owner) {
            tq_Futex::Wake(pAddress, 1);
        }
    }
    if (gbSchedYield.load(std::memory_order_relaxed)) {
        sched_yield();
    }
    // Deliberate: a release by a thread that does not own the mutex would be expected to fail. It changes nothing and
    // succeeds, so a caller cannot learn from the result whether it was the owner.
    return 1;
}

namespace {

/// Counts the records; gives the text that stands in place of the table when there is none to show.
const char* CountRecords(unsigned int* puiRecords) {
    SemListLock lock;
    if (!gbTrackSems.load(std::memory_order_relaxed)) {
        return "Not currently tracking Mutex Sems...";
    }
    *puiRecords = 0;
    for (const SemListNode* pNode = gpSemListHead; pNode; pNode = pNode->pNext) {
        ++*puiRecords;
    }
    return *puiRecords ? nullptr : "No Mutex Sems currently active.";
}

void AppendRow(tq_ReportText& report, SemListNode* pNode) {
    const char* pszState = nullptr;
    const char* pszType = nullptr;
    const char* pszFormat = nullptr;
    char name[kNameColumn + 1];
    getSemInfo(pNode, &pszState, &pszType, &pszFormat, name, kNameColumn);
    report.Append(pszFormat, static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pNode->Sem)), pNode->ThreadId,
                  pszState, pszType, pNode->Line, name);
}

bool IsWaiting(const SemListNode& node) {
    return node.State == SEM_TRACK_STATE_WAITING;
}
bool IsOwned(const SemListNode& node) {
    return node.State == SEM_TRACK_STATE_OWNED;
}
bool IsOther(const SemListNode& node) {
    return !IsWaiting(node) && !IsOwned(node);
}

/// The table's groups in their order; an empty line stands before the first row of all but the first group.
struct Group {
    bool (*Holds)(const SemListNode& node);
    const char* pszBefore;
};
constexpr Group kGroups[] = {{IsWaiting, ""}, {IsOwned, "\r\n"}, {IsOther, "\r\n"}};

/// Appends no more than fits the buffer that the count of records gave, so nothing is allocated here.
void AppendTableLocked(tq_ReportText& report) {
    report.Append("    Sem     ThreadId   State  Type   Line  File\r\n");
    report.Append("---------- ---------- ------- ----- ------ -------------------------\r\n");
    for (const Group& group : kGroups) {
        const char* pszBefore = group.pszBefore;
        for (SemListNode* pNode = gpSemListHead; pNode; pNode = pNode->pNext) {
            if (group.Holds(*pNode)) {
                report.Append("%s", pszBefore);
                AppendRow(report, pNode);
                pszBefore = "";
            }
        }
    }
}

} // namespace

extern "C" void getSemInfo(SemListNode* pNode, const char** pState, const char** pType, const char** pFormat,
                           char* Name, int nameLen) {
    if (!pNode) {
        return;
    }
    *pState = TextOf(kStates, pNode->State, "Unknown");
    *pType = TextOf(kTypes, pNode->Type, " ??? ");
    *pFormat = kRowFormat;
    strcpy(Name, pNode->pszFile ? tq_LastCharacters(pNode->pszFile, nameLen > 0 ? static_cast<size_t>(nameLen) : 0)
                                : "(unknown)");
}

extern "C" void tq_ShowSemaphores(char** pszResponse) {
    unsigned int records = 0;
    const char* pszInstead = CountRecords(&records);
    while (!pszInstead) {
        const unsigned int room = records;
        tq_ReportText report(room * 120 + 240); // allocated unlocked; the list may have grown meanwhile
        if (!report) {
            pszInstead = "Too Many Mutex Sems to display";
            break;
        }
        SemListLock lock;
        pszInstead = CountRecords(&records);
        if (!pszInstead && records <= room) {
            AppendTableLocked(report);
            *pszResponse = report.Release();
            return;
        }
    }
    *pszResponse = tq_newString(pszInstead);
}

extern "C" void tq_SemEnableSemTracking() {
    SemListLock lock;
    gbTrackSems.store(true, std::memory_order_relaxed);
}

extern "C" void tq_SemDisableSemTracking() {
    SemListNode* pNode = nullptr;
    {
        SemListLock lock;
        pNode = gpSemListHead;
        gpSemListHead = nullptr;
        gbTrackSems.store(false, std::memory_order_relaxed);
    }
    while (pNode) {
        SemListNode* pNext = pNode->pNext;
        FreeRecord(pNode);
        pNode = pNext;
    }
}

namespace {

/// Where the thread that starts the library may run; those that it starts later may run there as well.
bool MayRunOnSeveralProcessors() {
    cpu_set_t processors;
    return sched_getaffinity(0, sizeof(processors), &processors) == 0 && CPU_COUNT(&processors) > 1;
}

} // namespace

extern "C" unsigned int tq_SemMutexInitialize() {
    gbOtherProcessors.store(MayRunOnSeveralProcessors(), std::memory_order_relaxed);
    gbTrackSems.store(false, std::memory_order_relaxed);
    bool bTracking = false;
    bool bUseMutexes = true;
    bool bYield = false;
    const tq_IniSwitch keys[] = {
        {"Tracking", false, &bTracking},
        {"UseMutexForCritSec", true, &bUseMutexes},
        {"ForceSchedYield", false, &bYield},
    };
    tq_ReadIniTable("Sem", keys);
    gbUseMutexesForCritSecs.store(bUseMutexes, std::memory_order_relaxed);
    gbSchedYield.store(bYield, std::memory_order_relaxed);
    gbTrackSems.store(bTracking, std::memory_order_relaxed);
    return 0;
}

extern "C" void tq_SemMutexTerminate() {
    gbTrackSems.store(false, std::memory_order_relaxed);
}
