/// @file tq_SemSemaphore_p.h
#ifndef TQ_SEMSEMAPHORE_P_H
#define TQ_SEMSEMAPHORE_P_H

#include <pthread.h>
#include <stddef.h>

#include "tq_SemSemaphore.h"

/// What a tq_SemSemaphore points to. The counts change only under the record's mutex; curcount never exceeds maxcount.
typedef struct _SemaStruct {
    pthread_mutex_t mutex;
    pthread_cond_t cond; ///< where threads wait while the count is 0
    int maxcount;
    int curcount;
} SemaStruct;

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(SemaStruct, maxcount) == sizeof(pthread_mutex_t) + sizeof(pthread_cond_t) &&
                  sizeof(SemaStruct) == offsetof(SemaStruct, maxcount) + 8,
              "layout of a semaphore record");
static_assert(sizeof(tq_SemSemaphore) == 4, "layout of a semaphore");
#endif

#endif // TQ_SEMSEMAPHORE_P_H
