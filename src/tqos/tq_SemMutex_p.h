/// @file tq_SemMutex_p.h
/// The state of the mutexes and of lock tracking.
///
/// Invariants: `instances` and `ownerThread` change only under the record's own mutex, and both are 0 or neither is.
/// The tracking list's lock is the innermost of the library: nothing that allocates, frees, reports or locks is called
/// while it is held. It needs no set-up, so tracking may be asked for before the library starts and after it has ended.
#ifndef TQ_SEMMUTEX_P_H
#define TQ_SEMMUTEX_P_H

#include <atomic>
#include <pthread.h>
#include <stddef.h>

#include "tq_SemCritSec.h"
#include "tq_SemMutex.h"

/// What a tq_SemMutex points to.
typedef struct _MutexStruct {
    pthread_mutex_t mutex;    ///< guards the two fields below; held only to inspect them
    pthread_cond_t cond;      ///< where threads wait while another one owns the tq_SemMutex
    int instances;            ///< how often the owner has taken it and not yet released it; 0: free
    unsigned int ownerThread; ///< tq_GetThreadId() of the owner; 0: free
} MutexStruct;

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(SemListNode) == 28 && offsetof(SemListNode, pNext) == 24, "layout of a tracking record");
static_assert(offsetof(MutexStruct, cond) == sizeof(pthread_mutex_t), "layout of a mutex record");
static_assert(offsetof(MutexStruct, instances) == sizeof(pthread_mutex_t) + sizeof(pthread_cond_t) &&
                  sizeof(MutexStruct) == offsetof(MutexStruct, instances) + 8,
              "layout of a mutex record");
static_assert(sizeof(tq_SemMutex) == 8, "layout of a mutex");
#endif

// Settings. Set by tq_SemMutexInitialize() and read on every lock operation.
extern std::atomic<bool> gbUseMutexesForCritSecs; ///< critical sections are built on tq_SemMutex
extern std::atomic<bool> gbSchedYield;            ///< yield the processor after each release

// Lock tracking, guarded by gSemListMutex. gbTrackSems is read without it where the answer may change right after.
extern pthread_mutex_t gSemListMutex;
extern std::atomic<bool> gbTrackSems;
extern SemListNode* gpSemListHead; ///< newest first

/// Whether a lock could be made. One that could not keeps nobody out.
struct tq_SemInside {
    static bool Works(const tq_SemMutex& mutex) { return mutex.m_hMutex != nullptr; }
    static bool Works(const tq_SemCritSec& section) {
        return section.m_pmutex || (section.m_pCritSec && Works(*section.m_pCritSec));
    }
};

#endif // TQ_SEMMUTEX_P_H
