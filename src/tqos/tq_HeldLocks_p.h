/// @file tq_HeldLocks_p.h
/// How many critical sections of the library (list locks included) the calling thread holds. A critical error that is
/// found under a lock must not be traced there: tracing takes locks of its own, in another order. It is kept until the
/// thread holds none (see tq_CriticalErrorTrace_p.h).
///
/// A section that is held for a thread's whole life as a sign of life (a latch) is not counted: the thread says so with
/// tq_HeldLatch right after entering it.
#ifndef TQ_HELDLOCKS_P_H
#define TQ_HELDLOCKS_P_H

/// The calling thread's count. Maintained by tq_SemCritSec.
unsigned int tq_HeldLocks();

/// Takes a section just entered out of the count, for as long as it is held.
void tq_HeldLatchEntered();
/// Puts it back, right before it is left.
void tq_HeldLatchLeaving();

#endif // TQ_HELDLOCKS_P_H
