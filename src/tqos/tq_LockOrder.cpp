#include "tq_LockOrder_p.h"

#ifdef TQOS_LOCK_ORDER

#include <atomic>
#include <execinfo.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

struct RankName {
    tq_LockRank rank;
    const char* pszName;
};

constexpr RankName kNames[] = {
    // by rank; the names are those of the table
    {tq_LockRank::kNone, ""},
    {tq_LockRank::kConsoleStart, "gStartStopMutex (console)"},
    {tq_LockRank::kSessions, "list of sessions"},
    {tq_LockRank::kSenders, "gSendersMutex (network trace)"},
    {tq_LockRank::kLazyStart, "pSubsystemInitCritSec"},
    {tq_LockRank::kServiceStart, "gStartStopMutex (timers); gStartMutex (sockets)"},
    {tq_LockRank::kTraceInstances, "trace instance list"},
    {tq_LockRank::kTraceTime, "time lock of trace"},
    {tq_LockRank::kViewers, "a sender's list of viewers"},
    {tq_LockRank::kTimers, "timer list"},
    {tq_LockRank::kSockets, "socket list"},
    {tq_LockRank::kQueues, "gpListOfQs"},
    {tq_LockRank::kQueue, "a queue's lock"},
    {tq_LockRank::kThreads, "thread list"},
    {tq_LockRank::kListOfLists, "gpListOfListsCritSec"},
    {tq_LockRank::kHandlesAndStrings, "handle list; gpSandboxLock and the list of entities (strings)"},
    {tq_LockRank::kMemoryTracker, "TrackerCritSec (memory reports)"},
    {tq_LockRank::kMemoryPool, "PoolCritSec"},
    {tq_LockRank::kKeptPools, "KeptCritSec (memory pools)"},
    {tq_LockRank::kMemoryCounters, "MemoryTrackingCritSec"},
    {tq_LockRank::kTrackedWaits, "gSemListMutex"},
    {tq_LockRank::kLeaf, "a leaf"},
};

constexpr bool EveryNameHasItsPlace() {
    unsigned int place = 0;
    for (const RankName& row : kNames) {
        if (static_cast<unsigned int>(row.rank) != place++) {
            return false;
        }
    }
    return place == static_cast<unsigned int>(tq_LockRank::kLeaf) + 1;
}
static_assert(EveryNameHasItsPlace(), "a name is found by its rank");

// The locks that were given a place: a hash table of fixed size, read without a lock. A lock without room in it has no
// place and is not checked.

struct PlacedLock {
    std::atomic<uintptr_t> lock;
    std::atomic<tq_LockRank> rank;
};

constexpr unsigned int kPlaces = 1u << 16; // a queue has one, and there may be ten thousand
constexpr unsigned int kLongestSearch = 64;
constexpr uintptr_t kNeverUsed = 0; // ends a search
constexpr uintptr_t kForgotten = 1; // does not

PlacedLock gPlaces[kPlaces];
std::mutex gPlacesMutex; // held by whoever changes the table

PlacedLock& PlaceAt(uintptr_t lock, unsigned int step) {
    return gPlaces[((lock >> 3) * 2654435761u + step) % kPlaces];
}

PlacedLock* FindPlace(uintptr_t lock) {
    for (unsigned int step = 0; step < kLongestSearch; ++step) {
        PlacedLock& place = PlaceAt(lock, step);
        const uintptr_t found = place.lock.load(std::memory_order_acquire);
        if (found == lock) {
            return &place;
        }
        if (found == kNeverUsed) {
            break;
        }
    }
    return nullptr;
}

tq_LockRank RankOf(const void* pLock) {
    const PlacedLock* const pPlace = FindPlace(reinterpret_cast<uintptr_t>(pLock));
    return pPlace ? pPlace->rank.load(std::memory_order_relaxed) : tq_LockRank::kNone;
}

/// Nothing that follows was stored further on because of this place, or those before it, if nothing follows at all:
/// they are then as good as new, so that the table does not fill up with what was forgotten.
void EmptyPlace(unsigned int at) {
    gPlaces[at].lock.store(kForgotten, std::memory_order_release);
    while (gPlaces[at].lock.load(std::memory_order_relaxed) == kForgotten &&
           gPlaces[(at + 1) % kPlaces].lock.load(std::memory_order_relaxed) == kNeverUsed) {
        gPlaces[at].lock.store(kNeverUsed, std::memory_order_release);
        at = (at - 1) % kPlaces;
    }
}

// What the calling thread holds

struct HeldLock {
    const void* pLock;
    tq_LockRank rank;
    unsigned int times;
};

constexpr unsigned int kMostHeld = 128; // all pools at once, and what may be held above them

struct HeldByThread {
    HeldLock locks[kMostHeld];
    unsigned int count;
    unsigned int unchecked; // scopes
};
thread_local HeldByThread tHeldLocks = {};

HeldLock* FindHeld(const void* pLock) {
    for (unsigned int i = tHeldLocks.count; i-- > 0;) {
        if (tHeldLocks.locks[i].pLock == pLock) {
            return &tHeldLocks.locks[i];
        }
    }
    return nullptr;
}

bool MayTake(const HeldLock& held, const void* pLock, tq_LockRank rank) {
    const bool bNextPool = rank == tq_LockRank::kMemoryPool && held.rank == rank && held.pLock < pLock;
    return held.rank < rank || bNextPool;
}

/// Not by way of the library's crash report, which takes locks itself.
[[noreturn]] void EndProcess(const HeldLock& held, tq_LockRank rank) {
    char line[512];
    snprintf(line, sizeof(line), "tqos: locks out of order: \"%s\" (%u) is taken while \"%s\" (%u) is held\n",
             tq_LockOrderName(rank), static_cast<unsigned int>(rank), tq_LockOrderName(held.rank),
             static_cast<unsigned int>(held.rank));
    const ssize_t written = write(STDERR_FILENO, line, strlen(line));
    static_cast<void>(written); // there is nobody left to tell
    void* frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    signal(SIGABRT, SIG_DFL);
    abort();
}

/// Ends the process when the thread holds what may not be held while such a lock is taken.
void Check(const void* pLock, tq_LockRank rank) {
    for (unsigned int i = 0; i < tHeldLocks.count; ++i) {
        if (!MayTake(tHeldLocks.locks[i], pLock, rank)) {
            EndProcess(tHeldLocks.locks[i], rank);
        }
    }
}

} // namespace

const char* tq_LockOrderName(tq_LockRank rank) {
    return kNames[static_cast<unsigned int>(rank)].pszName;
}

void tq_LockOrderTake(const void* pLock, tq_LockRank rank) {
    if (tHeldLocks.unchecked != 0) {
        return;
    }
    if (HeldLock* pHeld = FindHeld(pLock)) {
        ++pHeld->times;
        return;
    }
    Check(pLock, rank);
    if (tHeldLocks.count < kMostHeld) {
        tHeldLocks.locks[tHeldLocks.count++] = {pLock, rank, 1};
    }
}

void tq_LockOrderCheckPlaced(const void* pLock) {
    const tq_LockRank rank = RankOf(pLock);
    if (rank != tq_LockRank::kNone && tHeldLocks.unchecked == 0 && !FindHeld(pLock)) {
        Check(pLock, rank);
    }
}

void tq_LockOrderTakePlaced(const void* pLock) {
    const tq_LockRank rank = RankOf(pLock);
    if (rank != tq_LockRank::kNone) {
        tq_LockOrderTake(pLock, rank);
    }
}

void tq_LockOrderGive(const void* pLock) {
    HeldLock* pHeld = FindHeld(pLock);
    if (pHeld && --pHeld->times == 0) {
        HeldLock* const pLast = &tHeldLocks.locks[--tHeldLocks.count];
        memmove(pHeld, pHeld + 1, static_cast<size_t>(pLast - pHeld) * sizeof(HeldLock));
    }
}

void tq_LockOrderPlace(const void* pLock, tq_LockRank rank) {
    const uintptr_t lock = reinterpret_cast<uintptr_t>(pLock);
    const std::lock_guard<std::mutex> change(gPlacesMutex);
    for (unsigned int step = 0; lock && step < kLongestSearch; ++step) {
        PlacedLock& place = PlaceAt(lock, step);
        if (place.lock.load(std::memory_order_relaxed) <= kForgotten) {
            place.rank.store(rank, std::memory_order_relaxed);
            place.lock.store(lock, std::memory_order_release);
            return;
        }
    }
}

void tq_LockOrderForget(const void* pLock) {
    if (!FindPlace(reinterpret_cast<uintptr_t>(pLock))) {
        return;
    }
    const std::lock_guard<std::mutex> change(gPlacesMutex);
    const PlacedLock* const pPlace = FindPlace(reinterpret_cast<uintptr_t>(pLock));
    if (pPlace) {
        EmptyPlace(static_cast<unsigned int>(pPlace - gPlaces));
    }
}

tq_LockOrderUnchecked::tq_LockOrderUnchecked() {
    ++tHeldLocks.unchecked;
}

tq_LockOrderUnchecked::~tq_LockOrderUnchecked() {
    --tHeldLocks.unchecked;
}

#endif // TQOS_LOCK_ORDER
