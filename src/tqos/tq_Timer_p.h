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

/// What tells timers apart: there is one for each combination.
struct tq_TimerKey {
    unsigned int hMsgQ;
    unsigned int instance;
    unsigned int userparm;
    unsigned int flags;
};

/// A timer as tq_TimerSet() makes it: with its places in the list's indexes behind it.
struct tq_ArmedTimer : TIMER_NODE {
    tq_List::_TQ_LIST_ENTRY* pEntry; ///< its entry in the list
    unsigned long long expiry;       ///< when it is due, on the list's clock; the order of the list
    unsigned long long number;       ///< of those put into the list so far; of equal timers the newest comes first
    unsigned int weight;             ///< in the tree of expiries it stands above the lighter ones
    tq_ArmedTimer* pEarlier;         ///< below it there
    tq_ArmedTimer* pLater;           ///< likewise
    tq_ArmedTimer* pNextOfBucket;    ///< the next of those whose keys share a bucket
};

/// All timers, "TQOS: All Timers", the earliest first.
///
/// Beside the entries that every list has stand two indexes, so that nothing is looked for by walking: a tree of the
/// expiries names the neighbour of a timer that comes in, a hash of the keys finds a timer again. Timers come in
/// through Insert() and leave through Remove(); what a base function adds or takes is not in the indexes.
class tq_TimerList : public tq_List {
public:
    tq_TimerList();
    ~tq_TimerList() override;

    /// Compares what remains of two timers: -1, 0 or 1. Comparing brings both up to date, so that the keys of a list
    /// that is being inserted into are of one moment. AddNode() finds by it, walking, the place that Insert() finds.
    int CustomSort(void* pNode1, void* pNode2, void* userparm) override;

    /// Puts a timer before the first one of which at least as much remains now; false without memory for an entry.
    bool Insert(tq_ArmedTimer* pTimer, unsigned int now);
    void Remove(tq_ArmedTimer* pTimer);
    /// The earliest timer, or null.
    tq_ArmedTimer* First() const;
    /// The timer with these keys, or null.
    tq_ArmedTimer* Find(const tq_TimerKey& key) const;
    /// A reading of the millisecond clock on the list's own, which does not wrap. While there are timers it is asked at
    /// least every kTimerRefreshMs.
    unsigned long long ClockAt(unsigned int now);

private:
    static constexpr unsigned int kFirstBuckets = 64; // a power of two

    void LinkBefore(_TQ_LIST_ENTRY* pEntry, _TQ_LIST_ENTRY* pAfter);
    tq_ArmedTimer* EnterTree(tq_ArmedTimer* pTimer);
    void LeaveTree(tq_ArmedTimer* pTimer);
    tq_ArmedTimer** BucketOf(const tq_TimerKey& key) const;
    void EnterBucket(tq_ArmedTimer* pTimer);
    void LeaveBucket(tq_ArmedTimer* pTimer);
    void GrowBuckets();
    void DropGrownBuckets();

    unsigned long long m_clock;
    unsigned long long m_nextNumber = 0;
    tq_ArmedTimer* m_pRoot = nullptr;
    tq_ArmedTimer* m_firstBuckets[kFirstBuckets] = {};
    tq_ArmedTimer** m_pBuckets = m_firstBuckets;
    unsigned int m_buckets = kFirstBuckets;
    unsigned int m_mostInBuckets = 2 * kFirstBuckets; ///< with more timers there are to be more buckets
};

/// Brings all timers up to date when that was done kTimerRefreshMs ago or earlier; when it was last done, for the next
/// call. The list is locked.
unsigned int tq_TimerRefreshLocked(tq_TimerList& list, unsigned int lastRefresh, unsigned int now);

extern tq_TimerList* gpTimerList; ///< null while the service does not run

#endif // TQ_TIMER_P_H
