/// @file tq_LockOrder_p.h
/// The order of the library's own locks, as docs/locking.md gives it, checked by debug builds: each thread keeps the
/// locks of the table that it holds, and one that takes a lock standing above, or beside, one that it holds ends the
/// process with a line that names both, before it waits. So an order that could dead-lock fails the first test that
/// takes it, although nothing has dead-locked. Other builds contain nothing of this.
///
/// A lock has its place from whoever makes it: a static mutex by a tq_LockPlace or as a tq_PlacedMutex, a critical
/// section (a list's, with tq_ListPlace()) by tq_LockOrderPlace(), until its destructor ends that. What has no place,
/// like every lock of an application, is not looked at.
///
/// Threads: any; nothing here waits for a lock of the library or allocates.
#ifndef TQ_LOCKORDER_P_H
#define TQ_LOCKORDER_P_H

#include <mutex>

/// The places, outermost first; the numbers are those of the table.
enum class tq_LockRank : unsigned char {
    kNone = 0,
    kConsoleStart = 1,
    kSessions = 2,
    kSenders = 3,
    kLazyStart = 4,
    kServiceStart = 5,
    kTraceInstances = 6,
    kTraceTime = 7,
    kViewers = 8,
    kTimers = 9,
    kSockets = 10,
    kQueues = 11,
    kQueue = 12,
    kThreads = 13,
    kListOfLists = 14,
    kHandlesAndStrings = 15,
    kMemoryTracker = 16,
    kMemoryPool = 17, ///< several at once, in ascending order of their addresses
    kKeptPools = 18,
    kMemoryCounters = 19,
    kTrackedWaits = 20,
    kLeaf = 21, ///< below the table: nothing is taken while one of these is held
};

#ifdef TQOS_LOCK_ORDER

/// What the table calls a place.
const char* tq_LockOrderName(tq_LockRank rank);

/// The calling thread is about to take a lock of this place; called before it waits. Ends the process when that is
/// against the order. A lock that the thread holds already may be taken again.
void tq_LockOrderTake(const void* pLock, tq_LockRank rank);
/// The same for a lock that was given its place; nothing for any other. Where something comes between the question and
/// the lock, the first of the two is asked before it waits and the second when it has the lock.
void tq_LockOrderCheckPlaced(const void* pLock);
void tq_LockOrderTakePlaced(const void* pLock);
/// The calling thread is about to leave a lock.
void tq_LockOrderGive(const void* pLock);

/// Gives a lock its place before anybody else knows of it. A null lock is ignored.
void tq_LockOrderPlace(const void* pLock, tq_LockRank rank);
/// Ends that, if there was one, before the lock goes.
void tq_LockOrderForget(const void* pLock);

/// Leaves the calling thread unchecked for a scope: it reports a crash, which may have happened under any lock, or is a
/// test that holds a lock to keep others waiting and knows why nothing can dead-lock. What it takes meanwhile is not
/// known to be held.
class tq_LockOrderUnchecked {
public:
    tq_LockOrderUnchecked();
    ~tq_LockOrderUnchecked();
    tq_LockOrderUnchecked(const tq_LockOrderUnchecked&) = delete;
    tq_LockOrderUnchecked& operator=(const tq_LockOrderUnchecked&) = delete;
};

/// The place of a lock that knows it itself.
class tq_LockPlace {
public:
    constexpr explicit tq_LockPlace(tq_LockRank rank) : m_rank(rank) {}
    void Take() const { tq_LockOrderTake(this, m_rank); }
    void Give() const { tq_LockOrderGive(this); }

private:
    tq_LockRank m_rank;
};

#else

inline void tq_LockOrderCheckPlaced(const void*) {}
inline void tq_LockOrderTakePlaced(const void*) {}
inline void tq_LockOrderGive(const void*) {}
inline void tq_LockOrderPlace(const void*, tq_LockRank) {}
inline void tq_LockOrderForget(const void*) {}

class tq_LockOrderUnchecked {
public:
    tq_LockOrderUnchecked() {}
    ~tq_LockOrderUnchecked() {}
};

class tq_LockPlace {
public:
    constexpr explicit tq_LockPlace(tq_LockRank) {}
    void Take() const {}
    void Give() const {}
};

#endif

/// A mutex that has a place.
class tq_PlacedMutex : private tq_LockPlace {
public:
    constexpr explicit tq_PlacedMutex(tq_LockRank rank) : tq_LockPlace(rank) {}
    void lock() {
        Take();
        m_mutex.lock();
    }
    void unlock() {
        Give();
        m_mutex.unlock();
    }

private:
    std::mutex m_mutex;
};

#endif // TQ_LOCKORDER_P_H
