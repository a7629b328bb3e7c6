/// @file tq_SemEvent_p.h
#ifndef TQ_SEMEVENT_P_H
#define TQ_SEMEVENT_P_H

#include <pthread.h>
#include <stddef.h>

#include "tq_SemEvent.h"

/// What a tq_SemEvent points to. bSignalled changes only under the record's mutex.
typedef struct _SemEventStruct {
    pthread_mutex_t mutex;
    pthread_cond_t cond; ///< where threads wait for the signalled state
    bool bManual;        ///< stays signalled until Reset(); otherwise a wait clears it
    bool bSignalled;
} SemEventStruct;

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(SemEventStruct, bManual) == sizeof(pthread_mutex_t) + sizeof(pthread_cond_t) &&
                  offsetof(SemEventStruct, bSignalled) == offsetof(SemEventStruct, bManual) + 1,
              "layout of an event record");
static_assert(sizeof(tq_SemEvent) == 4, "layout of an event");
#endif

#endif // TQ_SEMEVENT_P_H
