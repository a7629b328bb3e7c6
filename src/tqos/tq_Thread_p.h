/// @file tq_Thread_p.h
#ifndef TQ_THREAD_P_H
#define TQ_THREAD_P_H

#include "tq_Thread.h"

/// First step of the library's termination: says whether it will wait for all tracked threads. If so, records keep
/// coming off as threads end although the library no longer counts as initialised.
void tq_ThreadTerminationBegins(bool bWaitForThreads);

/// Called by a thread of the library itself right before it signals that it has ended: termination waits for the few
/// steps that remain (tq_ThreadWaitForEndingThreads), so that they never meet freed memory.
void tq_ThreadIsEnding();

/// Waits until every thread that has returned from its function, or has said that it is ending, is past its last use of
/// the library's memory and locks. Called by termination with no lock held.
void tq_ThreadWaitForEndingThreads();

#endif // TQ_THREAD_P_H
