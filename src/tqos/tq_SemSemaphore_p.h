/// @file tq_SemSemaphore_p.h
/// Invariants: `curcount` never exceeds `maxcount`, but for the one value that says "0, and a thread sleeps until it is
/// another": the one above `maxcount`, or below all others where nothing is above. Whoever changes the count to
/// anything else wakes all who sleep, and those that find nothing mark it again.
#ifndef TQ_SEMSEMAPHORE_P_H
#define TQ_SEMSEMAPHORE_P_H

#include <atomic>

#include "tq_SemSemaphore.h"

/// What a tq_SemSemaphore points to.
typedef struct _SemaStruct {
    int maxcount;
    std::atomic<int> curcount;
} SemaStruct;

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(SemaStruct) == 8, "layout of a semaphore record");
static_assert(sizeof(tq_SemSemaphore) == 4, "layout of a semaphore");
#endif

#endif // TQ_SEMSEMAPHORE_P_H
