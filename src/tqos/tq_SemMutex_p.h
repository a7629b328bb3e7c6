/// @file tq_SemMutex_p.h
/// The state of the mutexes and of lock tracking.
///
/// Invariants of a mutex: only the thread that `ownerThread` names reads or writes `instances`, so that a free mutex is
/// taken and given back with one exchange each. While a thread sleeps until the mutex is free, `ownerThread` is marked
/// with kNoThreadsBit, or is free since a moment ago and a wake-up is on its way to one of those who sleep. That one
/// marks it again, for the others, when it takes the mutex or goes back to sleep. The tracking list's lock is the
/// innermost of the library: nothing that allocates, frees, reports or locks is called while it is held. It needs no
/// set-up, so tracking may be asked for before the library starts and after it has ended.
#ifndef TQ_SEMMUTEX_P_H
#define TQ_SEMMUTEX_P_H

#include <atomic>
#include <pthread.h>
#include <stddef.h>

#include "tq_SemCritSec.h"
#include "tq_SemMutex.h"
#include "tq_SemSemaphore.h"
#include "tq_Spin_p.h"

/// What a tq_SemMutex points to.
typedef struct _MutexStruct {
    int instances;                         ///< how often the owner has taken it and not yet released it
    std::atomic<unsigned int> ownerThread; ///< tq_GetThreadId() of the owner, and a mark when others wait; 0: free
    tq_Spin::Waits waits;                  ///< by threads that found it taken, since looking has last paid
} MutexStruct;

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(SemListNode) == 28 && offsetof(SemListNode, pNext) == 24, "layout of a tracking record");
static_assert(sizeof(tq_SemMutex) == 8, "layout of a mutex");
#endif

// Settings. Set by tq_SemMutexInitialize() and read on every lock operation.
extern std::atomic<bool> gbUseMutexesForCritSecs; ///< critical sections are built on tq_SemMutex
extern std::atomic<bool> gbSchedYield;            ///< yield the processor after each release

// Lock tracking, guarded by gSemListMutex. gbTrackSems is read without it where the answer may change right after.
extern pthread_mutex_t gSemListMutex;
extern std::atomic<bool> gbTrackSems;
extern SemListNode* gpSemListHead; ///< newest first

/// A step of a wait, for the list of tracked waits: at the price of one look while nothing is tracked.
inline void tq_TrackWait(void* sem, int type, int state, unsigned int uiLine, const char* pszFilename) {
    if (__builtin_expect(gbTrackSems.load(std::memory_order_relaxed), 0)) {
        TrackSemaphore(sem, type, state, uiLine, pszFilename);
    }
}

struct tq_Microseconds;

/// Whether a lock could be made; one that could not keeps nobody out. And waits that are finer than milliseconds.
struct tq_SemInside {
    static bool Works(const tq_SemMutex& mutex) { return mutex.m_hMutex != nullptr; }
    static bool Works(const tq_SemSemaphore& semaphore) { return semaphore.m_hSemaphore != nullptr; }
    static bool Works(const tq_SemCritSec& section) {
        return section.m_pmutex || (section.m_pCritSec && Works(*section.m_pCritSec));
    }
    /// tq_SemSemaphore::_WaitForSem() with this time-out.
    static BOOL WaitForSem(const tq_SemSemaphore& semaphore, tq_Microseconds timeOut,
                           unsigned int line = TQ_CALLER_LINE, const char* file = TQ_CALLER_FILE);
};

#endif // TQ_SEMMUTEX_P_H
