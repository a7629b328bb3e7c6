/// @file tq_Timer_p.h
/// Inside the timers. Time arithmetic is on the wrapping millisecond clock, in differences only. A difference between
/// now and a timer's creation_time is read as signed: it is negative when creation_time lies ahead. So that it never
/// outgrows 31 bits, however long a timer lasts, the timer thread brings all timers up to date at least every
/// kTimerRefreshMs.
#ifndef TQ_TIMER_P_H
#define TQ_TIMER_P_H

#include "tq_List.h"
#include "tq_Timer.h"

/// The longest that the timer thread sleeps at once, and the longest that a timer goes without being brought up to
/// date.
constexpr int kTimerRefreshMs = 1 << 29;

/// What remains of a timer; 0 when it is due.
unsigned int tq_TimerRemainingAt(const TIMER_NODE& timer, unsigned int now);

/// Makes mstimeout what remains now, and creation_time now.
void tq_TimerBringUpToDate(TIMER_NODE& timer, unsigned int now);

/// Whether tq_TimerSkew() shifts a timer: it was set to allow it and is not due yet.
bool tq_TimerFollowsSkew(const TIMER_NODE& timer, unsigned int now);

/// How long the timer thread sleeps at once when so much remains of the earliest timer.
int tq_TimerSleepFor(unsigned int remaining);

/// Shifts a timer that follows the skew, and brings it up to date.
void tq_TimerShift(TIMER_NODE& timer, int msOffset, unsigned int now);

/// All timers, "TQOS: All Timers", the earliest first.
class tq_TimerList : public tq_List {
public:
    tq_TimerList();

    /// Compares what remains of two timers: -1, 0 or 1. Comparing brings both up to date, so that the keys of a list
    /// that is being inserted into are of one moment.
    int CustomSort(void* pNode1, void* pNode2, void* userparm) override;
};

/// Brings all timers up to date when that was done kTimerRefreshMs ago or earlier; when it was last done, for the next
/// call. The list is locked.
unsigned int tq_TimerRefreshLocked(tq_TimerList& list, unsigned int lastRefresh, unsigned int now);

extern tq_TimerList* gpTimerList; ///< null while the service does not run

#endif // TQ_TIMER_P_H
