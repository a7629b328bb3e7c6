/// @file tq_MsgQ_p.h
/// Inside the queues. What the code relies on:
/// - A queue has a handle exactly from Create() to Cleanup(), and its worker, if it got one, ends in between.
/// - m_bDone turns true before or when MSG_DESTROY is queued, and nothing is queued behind MSG_DESTROY: senders look at
///   it again under the queue's lock.
/// - m_bEndTold says that the worker will end by itself, since MSG_DESTROY waits for it or m_bEndWithoutMessage is set.
///   Only then may somebody wait for it.
/// - The worker's last touch of the queue is m_SemThreadExit.Set(); whoever saw the event may free the queue.
/// - A thread of the library that uses a queue without owning it pins it (m_uiPins) while it is certain to exist; the
///   destructor waits for the pins.
/// - A worker that finds nothing says so in m_uiWorkerSleep. With kLooks it looks out for another value a while, and
///   whoever has something for it writes kAwake. With kSleeps, and only then, it waits on m_Sem. Whoever has
///   something for it turns that into kToBeWoken; whoever then leaves the lock last turns it into kAwake and has one
///   unit of m_Sem to release outside. Nobody else releases one, so the worker, and with it the queue, is there until
///   then.
///
/// Lock order, outermost first: the registry's lock, a queue's, then the thread list's and that of the registry of
/// lists (both taken when a queue is named). Nobody waits for a worker or a pin with one of them held.
///
/// Guarded by the queue's lock: the lists, name, description, history, m_bListsUnnamed, m_bEndWithoutMessage,
/// m_uiWorkerSleep (which a worker that looks out also reads without it), m_uiLockDepth. The worker's alone: m_uiWaits.
/// Guarded by the registry's lock as well (either will do to read): the name. Guarded by the mutex of the list of
/// created queues: m_pNextCreated.
#ifndef TQ_MSGQ_P_H
#define TQ_MSGQ_P_H

#include "tq_Gate_p.h"
#include "tq_List_p.h"
#include "tq_MsgQ.h"
#include "tq_Spin_p.h"

/// Open while there is a registry.
extern tq_Gate gMsgQRegistryGate;

/// The registry of all queues, "TQOS: All Queues": one _QUEUE_DETAILS a created queue, in order of creation, with a
/// hash by handle.
extern tq_List* gpListOfQs;

typedef struct _QUEUE_DETAILS {
    unsigned int hSource; ///< the queue's handle; the registry's key
    tq_MsgQ* pMsgQ;
} QUEUE_DETAILS;

extern unsigned int gTQMsgQStackSize;           ///< bytes of a worker's stack; 0: the threads' default
extern unsigned int gTQMsgQDefaultHistoryDepth; ///< commands that a new queue remembers

/// Creates the registry; false without memory. Called by the library's start.
bool tq_MsgQRegistryOpen();
/// Destroys and cleans up every registered queue, then every other one that has a handle still (a handler may have
/// begun its queue's own end), and waits for all their workers; no queue is created from then on. Called by the
/// library's termination, first of all.
void DestroyListOfQs();
/// Waits for late senders and destroys the registry list.
void tq_MsgQRegistryClose();

/// Holds the registry for a scope; false where there is none (any more).
class tq_MsgQRegistryLock {
public:
    tq_MsgQRegistryLock() : m_pass(gMsgQRegistryGate), m_lock(m_pass ? gpListOfQs : nullptr) {}
    explicit operator bool() const { return static_cast<bool>(m_pass); }

private:
    tq_GatePass m_pass;
    tq_ListLock m_lock;
};

class tq_MsgQLock {
public:
    explicit tq_MsgQLock(tq_MsgQ& queue) : m_queue(queue) { m_queue.Lock(); }
    ~tq_MsgQLock() { m_queue.Unlock(); }
    tq_MsgQLock(const tq_MsgQLock&) = delete;
    tq_MsgQLock& operator=(const tq_MsgQLock&) = delete;

private:
    tq_MsgQ& m_queue;
};

/// The entry of the queue with this handle; null when there is none. The registry is locked, and open. The list's
/// cursor stays where it is.
QUEUE_DETAILS* tq_MsgQFindLocked(unsigned int handle);

/// Calls visit(details) for each registered queue in order of creation, until it returns false. The registry is held
/// throughout, so visit must not walk it: it has only one cursor.
template <typename Visit> void tq_MsgQVisitAll(Visit visit) {
    tq_MsgQRegistryLock registry;
    if (!registry) {
        return;
    }
    for (void* pNode = gpListOfQs->GetHead(); pNode; pNode = gpListOfQs->GetNext()) {
        if (!visit(*static_cast<QUEUE_DETAILS*>(pNode))) {
            return;
        }
    }
}

/// Puts off, for a scope of the calling thread, waking the workers of the queues that it sends to. A worker that runs
/// at once would wait for a lock that the sender still holds: make it before the lock is taken, so that it ends after.
/// Within the scope the thread waits for no queue's worker. Not to be nested.
class tq_WakeQueuesLater {
public:
    tq_WakeQueuesLater();
    ~tq_WakeQueuesLater();
    tq_WakeQueuesLater(const tq_WakeQueuesLater&) = delete;
    tq_WakeQueuesLater& operator=(const tq_WakeQueuesLater&) = delete;

    /// Keeps what the calling thread has to release for a worker; false when that is to be done now.
    static bool PutOff(tq_SemSemaphore& sem);

private:
    static constexpr unsigned int kMost = 32; // workers; further ones are woken at once

    tq_SemSemaphore* m_pSems[kMost];
    unsigned int m_count = 0;
};

/// The module's access to a queue's fields.
struct tq_MsgQInside {
    enum WorkerState : unsigned int {
        kNoWorker,     ///< none was started, or it could not be, or it ended and had no event to say so
        kWorkerRuns,   ///< it may be called by its thread id
        kWorkerLeaves, ///< it has left its loop; m_SemThreadExit tells when it is done with the queue
    };

    enum WorkerSleep : unsigned char { kAwake, kLooks, kSleeps, kToBeWoken };

    // What reports show. The queue is locked.
    static const char* Name(const tq_MsgQ& queue) { return queue.m_pszName; }
    static const char* Description(const tq_MsgQ& queue) { return queue.m_pszDescription; }
    static unsigned int ThreadId(const tq_MsgQ& queue) { return queue.m_ThreadId; }
    static int HistorySize(const tq_MsgQ& queue) { return queue.m_iHistorySize; }
    static int HistoryIndex(const tq_MsgQ& queue) { return queue.m_iHistoryIndex; }
    static bool HistoryIsFull(const tq_MsgQ& queue) { return queue.m_bFullHistory; }
    static int HistorySlot(const tq_MsgQ& queue, int slot) { return queue.m_piHistory[slot]; }
    /// The list that a send of this priority goes to; null while it has not had a message.
    static tq_List*& ListOf(tq_MsgQ& queue, int iPriority);

    // Creation
    static bool Register(tq_MsgQ& queue, unsigned int* phSource);
    static void StartWorker(tq_MsgQ& queue, int priority);

    // The worker
    static void* Worker(void* pQueue);
    static MSG_COMMON* FirstMessage(tq_MsgQ& queue);
    static bool Handle(tq_MsgQ& queue, MSG_COMMON* pMsg);
    static bool NextMessage(tq_MsgQ& queue, MSG_COMMON** ppMsg);
    static MSG_COMMON* TakeLocked(tq_MsgQ& queue);
    static WorkerSleep IdleLocked(tq_MsgQ& queue, tq_Spin& spin);
    static void SayWorkerIsDone(tq_MsgQ& queue);

    // Sending
    static bool EnqueueLocked(tq_MsgQ& queue, MSG_COMMON* pMsg, bool bAddToHead, int iPriority);
    static void WakeLocked(tq_MsgQ& queue);

    // The end
    static void Unregister(tq_MsgQ& queue);
    static void EndWorker(tq_MsgQ& queue);
    static void WaitForWorker(tq_MsgQ& queue);
    static void FreeContents(tq_MsgQ& queue);
    static void Pin(tq_MsgQ& queue) { queue.m_uiPins.fetch_add(1, std::memory_order_relaxed); }
    static void Unpin(tq_MsgQ& queue) { queue.m_uiPins.fetch_sub(1, std::memory_order_release); }

    // Names and history
    static void AddToHistoryLocked(tq_MsgQ& queue, int command);
    static void ApplyNameLocked(tq_MsgQ& queue);
    static void ApplyName(tq_MsgQ& queue);
    static void GrowHistoryLocked(tq_MsgQ& queue, int size);
    static void ShrinkHistoryLocked(tq_MsgQ& queue, int size);

    // The created queues, whether they are registered or not
    static void AddCreated(tq_MsgQ& queue);
    static void RemoveCreated(tq_MsgQ& queue);
    static tq_MsgQ* PinCreated();
};

#endif // TQ_MSGQ_P_H
