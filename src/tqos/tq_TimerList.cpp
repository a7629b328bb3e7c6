// What remains of a timer, and the list of all timers with its indexes.
#include "tq_Timer_p.h"

#include <limits.h>
#include <stddef.h>

#include "tq_Memory.h"
#include "tq_Time.h"

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(TIMER_NODE) == 40, "layout of a timer");
#endif
static_assert(offsetof(TIMER_NODE, mstimeout) == 4, "the key that the list is sorted by");

// What remains of a timer

namespace {

unsigned int ClampToTimeout(long long ms) {
    if (ms <= 0) {
        return 0;
    }
    return ms > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(ms);
}

} // namespace

unsigned int tq_TimerRemainingAt(const TIMER_NODE& timer, unsigned int now) {
    const long long elapsed = static_cast<int>(now - timer.creation_time);
    return ClampToTimeout(timer.mstimeout - elapsed);
}

void tq_TimerBringUpToDate(TIMER_NODE& timer, unsigned int now) {
    timer.mstimeout = tq_TimerRemainingAt(timer, now);
    timer.creation_time = now;
}

int tq_TimerSleepFor(unsigned int remaining) {
    return remaining < static_cast<unsigned int>(kTimerRefreshMs) ? static_cast<int>(remaining) : kTimerRefreshMs;
}

bool tq_TimerFollowsSkew(const TIMER_NODE& timer, unsigned int now) {
    return timer.bAllowSkew && tq_TimerRemainingAt(timer, now) != 0;
}

void tq_TimerShift(TIMER_NODE& timer, int msOffset, unsigned int now) {
    const long long remaining = tq_TimerRemainingAt(timer, now);
    // What remains changes, not creation_time: many shifts could carry that out of the range in which a difference has
    // a sign.
    timer.mstimeout = ClampToTimeout(remaining - msOffset);
    timer.creation_time = now;
}

// The list

tq_TimerList::tq_TimerList()
    : tq_List(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_CUSTOM, offsetof(TIMER_NODE, mstimeout), nullptr),
      m_clock(1ull << 63) {} // far from both ends: a reading older than the one before leads back, and so does each
                             // one after half a wrap or more without timers

tq_TimerList::~tq_TimerList() {
    DropGrownBuckets();
}

int tq_TimerList::CustomSort(void* pNode1, void* pNode2, void*) {
    TIMER_NODE& first = *static_cast<TIMER_NODE*>(pNode1);
    TIMER_NODE& second = *static_cast<TIMER_NODE*>(pNode2);
    const unsigned int now = tq_GetTimeInMS();
    tq_TimerBringUpToDate(first, now);
    tq_TimerBringUpToDate(second, now);
    if (first.mstimeout == second.mstimeout) {
        return 0;
    }
    return first.mstimeout < second.mstimeout ? -1 : 1;
}

unsigned int tq_TimerRefreshLocked(tq_TimerList& list, unsigned int lastRefresh, unsigned int now) {
    if (now - lastRefresh < static_cast<unsigned int>(kTimerRefreshMs)) {
        return lastRefresh;
    }
    for (void* pNode = list.GetHead(); pNode; pNode = list.GetNext()) {
        tq_TimerBringUpToDate(*static_cast<TIMER_NODE*>(pNode), now);
    }
    return now;
}

unsigned long long tq_TimerList::ClockAt(unsigned int now) {
    // Signed: the reading of a thread that had to wait for the lock may be older than the one before.
    m_clock += static_cast<unsigned long long>(static_cast<int>(now - static_cast<unsigned int>(m_clock)));
    return m_clock;
}

bool tq_TimerList::Insert(tq_ArmedTimer* pTimer, unsigned int now) {
    _TQ_LIST_ENTRY* const pEntry = GetNextEmpty();
    if (!pEntry) {
        return false;
    }
    pEntry->pNode = pTimer;
    const unsigned int remaining = tq_TimerRemainingAt(*pTimer, now);
    const tq_ArmedTimer* const pFirst = First();
    pTimer->pEntry = pEntry;
    pTimer->number = m_nextNumber++;
    pTimer->expiry = ClockAt(now) + remaining;
    if (remaining == 0 && pFirst && pFirst->expiry < pTimer->expiry) {
        pTimer->expiry = pFirst->expiry; // nothing remains of either: they are equal, however long ago they were due
    }
    const tq_ArmedTimer* const pNeighbour = EnterTree(pTimer);
    LinkBefore(pEntry, pNeighbour ? pNeighbour->pEntry : nullptr);
    if (m_li.Count > m_mostInBuckets) {
        GrowBuckets();
    }
    EnterBucket(pTimer);
    return true;
}

void tq_TimerList::Remove(tq_ArmedTimer* pTimer) {
    LeaveTree(pTimer);
    LeaveBucket(pTimer);
    LocalListRemoveNode(pTimer->pEntry);
    if (m_li.Count == 0) {
        DropGrownBuckets();
    }
}

tq_ArmedTimer* tq_TimerList::First() const {
    return m_li.pHead ? static_cast<tq_ArmedTimer*>(m_li.pHead->pNode) : nullptr;
}

/// Puts an entry before another one, or at the end for null, as an AddNode() that has found this place would.
void tq_TimerList::LinkBefore(_TQ_LIST_ENTRY* pEntry, _TQ_LIST_ENTRY* pAfter) {
    _TQ_LIST_ENTRY* const pBefore = pAfter ? pAfter->pPrev : m_li.pTail;
    pEntry->pPrev = pBefore;
    pEntry->pNext = pAfter;
    (pBefore ? pBefore->pNext : m_li.pHead) = pEntry;
    (pAfter ? pAfter->pPrev : m_li.pTail) = pEntry;
    m_li.pCurrent = pEntry;
    const unsigned int count = m_li.Count + 1;
    __atomic_store_n(&m_li.Count, count, __ATOMIC_RELAXED); // reports read both without the lock
    if (count > m_li.maxCount) {
        __atomic_store_n(&m_li.maxCount, count, __ATOMIC_RELAXED);
    }
}

// The tree of expiries: each timer stands above the lighter ones. The weights are as good as random, so the tree is
// about as deep as the logarithm of their number, in whatever order timers come and go.

namespace {

/// Spreads the bits of a number over all of the result's.
unsigned int Mixed(unsigned int number) {
    number = (number ^ number >> 16) * 2246822507u;
    number = (number ^ number >> 13) * 3266489909u;
    return number ^ number >> 16;
}

bool ComesBefore(const tq_ArmedTimer* pTimer, const tq_ArmedTimer* pOther) {
    return pTimer->expiry != pOther->expiry ? pTimer->expiry < pOther->expiry : pTimer->number > pOther->number;
}

} // namespace

/// Puts a timer into the tree; the one that follows it in the order, or null.
tq_ArmedTimer* tq_TimerList::EnterTree(tq_ArmedTimer* pTimer) {
    pTimer->weight = Mixed(static_cast<unsigned int>(pTimer->number));
    tq_ArmedTimer* pNeighbour = nullptr;
    tq_ArmedTimer** ppPlace = &m_pRoot;
    while (*ppPlace && (*ppPlace)->weight > pTimer->weight) {
        tq_ArmedTimer* const pAbove = *ppPlace;
        const bool bBefore = ComesBefore(pTimer, pAbove);
        pNeighbour = bBefore ? pAbove : pNeighbour;
        ppPlace = bBefore ? &pAbove->pEarlier : &pAbove->pLater;
    }
    // It takes this place. What stood there is cut in two, along the way to where it would have come further down.
    tq_ArmedTimer* pRest = *ppPlace;
    *ppPlace = pTimer;
    tq_ArmedTimer** ppEarlier = &pTimer->pEarlier;
    tq_ArmedTimer** ppLater = &pTimer->pLater;
    while (pRest) {
        if (ComesBefore(pTimer, pRest)) {
            pNeighbour = *ppLater = pRest;
            ppLater = &pRest->pEarlier;
            pRest = *ppLater;
        } else {
            *ppEarlier = pRest;
            ppEarlier = &pRest->pLater;
            pRest = *ppEarlier;
        }
    }
    *ppEarlier = *ppLater = nullptr;
    return pNeighbour;
}

/// Takes a timer out of the tree: the two parts below it, joined by weight, take its place.
void tq_TimerList::LeaveTree(tq_ArmedTimer* pTimer) {
    tq_ArmedTimer** ppPlace = &m_pRoot;
    while (*ppPlace != pTimer) {
        ppPlace = ComesBefore(pTimer, *ppPlace) ? &(*ppPlace)->pEarlier : &(*ppPlace)->pLater;
    }
    tq_ArmedTimer* pEarlier = pTimer->pEarlier;
    tq_ArmedTimer* pLater = pTimer->pLater;
    while (pEarlier && pLater) {
        if (pEarlier->weight > pLater->weight) {
            *ppPlace = pEarlier;
            ppPlace = &pEarlier->pLater;
            pEarlier = *ppPlace;
        } else {
            *ppPlace = pLater;
            ppPlace = &pLater->pEarlier;
            pLater = *ppPlace;
        }
    }
    *ppPlace = pEarlier ? pEarlier : pLater;
}

// The hash of the keys

tq_ArmedTimer** tq_TimerList::BucketOf(const tq_TimerKey& key) const {
    const unsigned int hash = Mixed(Mixed(Mixed(key.hMsgQ + key.instance * 5) + key.userparm) + key.flags);
    return &m_pBuckets[hash & (m_buckets - 1)];
}

tq_ArmedTimer* tq_TimerList::Find(const tq_TimerKey& key) const {
    tq_ArmedTimer* pTimer = *BucketOf(key);
    while (pTimer && (pTimer->instance != key.instance || pTimer->userparm != key.userparm ||
                      pTimer->hMsgQ != key.hMsgQ || pTimer->flags != key.flags)) {
        pTimer = pTimer->pNextOfBucket;
    }
    return pTimer;
}

void tq_TimerList::EnterBucket(tq_ArmedTimer* pTimer) {
    tq_ArmedTimer** const ppBucket = BucketOf({pTimer->hMsgQ, pTimer->instance, pTimer->userparm, pTimer->flags});
    pTimer->pNextOfBucket = *ppBucket;
    *ppBucket = pTimer;
}

void tq_TimerList::LeaveBucket(tq_ArmedTimer* pTimer) {
    tq_ArmedTimer** ppPlace = BucketOf({pTimer->hMsgQ, pTimer->instance, pTimer->userparm, pTimer->flags});
    while (*ppPlace != pTimer) {
        ppPlace = &(*ppPlace)->pNextOfBucket;
    }
    *ppPlace = pTimer->pNextOfBucket;
}

/// Makes more buckets. Without memory there are as many as before, with more in each, until it is tried again.
void tq_TimerList::GrowBuckets() {
    m_mostInBuckets *= 4;
    const unsigned int buckets = m_mostInBuckets / 2;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the array is one of pointers
    auto** const ppLarger = static_cast<tq_ArmedTimer**>(tq_calloc(buckets, sizeof(tq_ArmedTimer*)));
    if (!ppLarger) {
        return;
    }
    tq_ArmedTimer** const ppSmaller = m_pBuckets;
    const unsigned int fewer = m_buckets;
    m_pBuckets = ppLarger;
    m_buckets = buckets;
    for (unsigned int i = 0; i < fewer; ++i) {
        tq_ArmedTimer* pNext;
        for (tq_ArmedTimer* pTimer = ppSmaller[i]; pTimer; pTimer = pNext) {
            pNext = pTimer->pNextOfBucket;
            EnterBucket(pTimer);
        }
    }
    if (ppSmaller != m_firstBuckets) {
        tq_free(ppSmaller);
    }
}

/// Gives back what growing took, as a list gives back its blocks when it has become empty.
void tq_TimerList::DropGrownBuckets() {
    if (m_pBuckets == m_firstBuckets) {
        return;
    }
    tq_free(m_pBuckets);
    m_pBuckets = m_firstBuckets;
    m_buckets = kFirstBuckets;
    m_mostInBuckets = 2 * kFirstBuckets;
    for (tq_ArmedTimer*& pBucket : m_firstBuckets) {
        pBucket = nullptr;
    }
}
