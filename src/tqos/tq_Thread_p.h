/// @file tq_Thread_p.h
/// The records behind tq_Thread.h, and what the library's start and stop need of the threads.
///
/// Invariants: the thread list exists while its gate is open, and whoever uses it has passed the gate and holds the
/// list's lock. A started thread reads its own id only after its starter has stored it everywhere.
#ifndef TQ_THREAD_P_H
#define TQ_THREAD_P_H

#include <stddef.h>

#include "tq_List.h"
#include "tq_Thread.h"

/// One tracked thread, in the list "TQOS: Thread List".
typedef struct _TQ_THREAD_LIST_NODE {
    char* pszName;      ///< the starter's source file until tq_ThreadSetName(); tracked, may be null
    int priority;       ///< as asked for
    unsigned int line;  ///< the starter's
    unsigned int tid;   ///< tq_GetThreadId() of the thread
    unsigned int pstid; ///< the kernel's id, stored by the thread itself
} TQ_THREAD_LIST_NODE;

/// What a starter hands to the new thread, which frees it.
typedef struct _TQ_THREAD_ARGS {
    int priority;
#if __SIZEOF_POINTER__ > 4
    unsigned int tid; ///< the number that the new thread goes by; stands where padding would be
#endif
    void* args;
    PFN_THREAD start_address;
} TQ_THREAD_ARGS;

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(TQ_THREAD_LIST_NODE) == 20 && offsetof(TQ_THREAD_LIST_NODE, tid) == 12,
              "layout of a thread record");
static_assert(sizeof(TQ_THREAD_ARGS) == 12 && offsetof(TQ_THREAD_ARGS, start_address) == 8,
              "layout of thread arguments");
#endif

/// A bit that is set in no thread's id, so that whoever stores an id has it for something else: a pthread_t of 32 bits
/// is an aligned address, and a counter does not come so far.
constexpr unsigned int kNoThreadsBit = sizeof(void*) == 4 ? 1u : 0x80000000u;

extern tq_List* gpThreadList; ///< TQ_THREAD_LIST_NODE records in order of creation

/// First step of the library's termination: says whether it will wait for all tracked threads. If so, records keep
/// coming off as threads end although the library no longer counts as initialised.
void tq_ThreadTerminationBegins(bool bWaitForThreads);

/// Called by a thread of the library itself right before it signals that it has ended: termination waits for the few
/// steps that remain (tq_ThreadWaitForEndingThreads), so that they never meet freed memory. Of no effect on threads
/// that tq__beginthread() did not start.
void tq_ThreadIsEnding();

/// Waits until every thread that has not yet come to its function, has returned from it, or has said that it is ending,
/// is past its use of the library's memory and locks on this way. Called by termination with no lock held.
void tq_ThreadWaitForEndingThreads();

#endif // TQ_THREAD_P_H
