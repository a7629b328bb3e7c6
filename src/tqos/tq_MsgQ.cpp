#include "tq_MsgQ_p.h"

#include <limits.h>
#include <mutex>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "tq_Base.h"
#include "tq_Handle.h"
#include "tq_IniKeys_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory_p.h"
#include "tq_Thread_p.h"
#include "tq_Trace.h"
#include "tq_WorkingLock_p.h"

static_assert(sizeof(MSG_COMMON) == 28, "header of every message");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(QUEUE_DETAILS) == 8, "layout of a registry entry");
#endif

// Settings

unsigned int gTQMsgQStackSize = 0;
unsigned int gTQMsgQDefaultHistoryDepth = 0;

namespace {

constexpr char kSection[] = "MsgQ";
const tq_IniInteger kIntegerKeys[] = {
    {"DefaultStackSize", 0, &gTQMsgQStackSize},
    {"DefaultHistory", 0, &gTQMsgQDefaultHistoryDepth},
};

constexpr int kMaxMessages = 100000000;
constexpr long kNanosecondsBetweenLooks = 2000; // of a worker that has nothing to do
constexpr int kAllPriorities = 0;
constexpr int kDefaultPriority = 0; // a send takes it as medium

} // namespace

// State

tq_Gate gMsgQRegistryGate;
tq_List* gpListOfQs = nullptr; // set and cleared while the gate is shut

namespace {

constexpr int kHandleBuckets = 4096; // thousands of queues stay quick to find; 32 KiB where pointers have 32 bits
unsigned int gHandleHash = 0;        // the registry's hash by handle; set while the gate is shut

bool gbQueuesAccepted = false; // guarded by the registry's lock

/// Where a send finds a queue by its handle without the registry's lock. A registered queue stands in the place that
/// its handle gives, unless another one stands there already: then, and while none stands there, the registry is asked.
///
/// Whoever sends counts itself in first and looks then; whoever ends a queue clears the place first and looks at the
/// count then. The order of the two is the same for all threads (memory_order_seq_cst), so either the sender finds no
/// queue any more, or it is waited for.
struct Place {
    std::atomic<tq_MsgQ*> pQueue;      // changed with the registry locked
    std::atomic<unsigned int> senders; // that may be using the queue which stands, or stood, here
};
constexpr unsigned int kPlaces = 65536; // memory that is not touched costs nothing, and handles are given out upwards
Place gPlaces[kPlaces];

Place& PlaceOf(unsigned int handle) {
    return gPlaces[handle % kPlaces];
}

// The queues that have a handle, registered or not. A leaf: nothing is called with it held.
tq_PlacedMutex gCreatedMutex(tq_LockRank::kLeaf);
tq_MsgQ* gpCreated = nullptr;

thread_local tq_MsgQ* tpWorkersQueue = nullptr; // the queue that the calling thread is the worker of

bool IsOwnWorker(const tq_MsgQ& queue) {
    return tpWorkersQueue == &queue;
}

/// For the rare waits on something that has no event to wait for.
void PauseShortly() {
    const struct timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
}

MSG_COMMON* NewHeader(unsigned int command) {
    MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_calloc(1, sizeof(MSG_COMMON)));
    if (pMsg) {
        pMsg->size = sizeof(MSG_COMMON);
        pMsg->command = command;
    }
    return pMsg;
}

/// Adds to an end of an unsorted list. A list without memory for an entry drops the node silently; this tells.
bool AddAtEnd(tq_List& list, void* pNode, bool bAtHead) {
    const unsigned int count = list.NodeCount();
    if (bAtHead) {
        list.AddToHead(pNode);
    } else {
        list.AddToTail(pNode);
    }
    return list.NodeCount() != count;
}

} // namespace

// The registry

QUEUE_DETAILS* tq_MsgQFindLocked(unsigned int handle) {
    QUEUE_DETAILS key = {handle, nullptr};
    const unsigned int bucket =
        gpListOfQs->HashValueFromDataDefault(&key, LIST_TYPE_U32BITS, offsetof(QUEUE_DETAILS, hSource), kHandleBuckets);
    for (void* pNode = gpListOfQs->HashFindFirst(gHandleHash, bucket); pNode;
         pNode = gpListOfQs->HashFindNext(gHandleHash)) {
        QUEUE_DETAILS* pDetails = static_cast<QUEUE_DETAILS*>(pNode);
        if (pDetails->hSource == handle) {
            return pDetails;
        }
    }
    return nullptr;
}

namespace {

void TakePlaceLocked(tq_MsgQ& queue, unsigned int handle) {
    Place& place = PlaceOf(handle);
    if (!place.pQueue.load()) {
        place.pQueue = &queue;
    }
}

void ClearPlaceLocked(const tq_MsgQ& queue, unsigned int handle) {
    Place& place = PlaceOf(handle);
    if (place.pQueue.load() == &queue) {
        place.pQueue = nullptr;
    }
}

/// Counts its creator as a sender for a scope.
class SenderInPlace {
public:
    explicit SenderInPlace(Place& place) : m_place(place) { m_place.senders.fetch_add(1); }
    ~SenderInPlace() { m_place.senders.fetch_sub(1, std::memory_order_release); }
    SenderInPlace(const SenderInPlace&) = delete;
    SenderInPlace& operator=(const SenderInPlace&) = delete;

private:
    Place& m_place;
};

/// Waits for those who may have found a queue by its handle before it was taken out of the registry.
void WaitForSenders(unsigned int handle) {
    while (PlaceOf(handle).senders.load() != 0) {
        PauseShortly();
    }
}

/// False, with nothing changed, without memory for the entry in the list or in its hash.
bool AddToRegistryLocked(QUEUE_DETAILS* pDetails) {
    if (!AddAtEnd(*gpListOfQs, pDetails, /*bAtHead=*/false)) {
        return false;
    }
    if (tq_MsgQFindLocked(pDetails->hSource) == pDetails) {
        return true;
    }
    gpListOfQs->RemoveNode(pDetails); // a hash without memory leaves the node out silently
    return false;
}

} // namespace

// Creation

tq_MsgQ::tq_MsgQ(const char* name, const char* description)
    : m_Sem(0, kMaxMessages), m_CritSecListLock(true), m_SemThreadExit(1, 0), m_pQueueHigh(nullptr),
      m_pQueueMed(nullptr), m_pQueueLow(nullptr), m_ThreadId(0), m_hSource(0), m_StackSize(0), m_bDone(true),
      m_pszName(nullptr), m_pszDescription(nullptr), m_iHistorySize(0), m_iHistoryIndex(0), m_piHistory(nullptr),
      m_bFullHistory(false), m_bListsUnnamed(false), m_bEndWithoutMessage(false),
      m_uiWorkerSleep(tq_MsgQInside::kAwake), m_uiLockDepth(0), m_bEndTold(false), m_uiWaits(0),
      m_uiWorkerState(tq_MsgQInside::kNoWorker), m_uiPins(0), m_pNextCreated(nullptr) {
    tq_LockOrderPlace(&m_CritSecListLock, tq_LockRank::kQueue);
    SetName(name ? name : "");
    if (description) {
        SetDescription(description);
    }
    SetHistory(static_cast<int>(gTQMsgQDefaultHistoryDepth));
}

void tq_MsgQ::Create(unsigned int* phSource, int priority) {
    tq_MsgQInside::Pin(*this); // a handler that runs already may let somebody destroy the queue
    if (tq_MsgQInside::Register(*this, phSource)) {
        tq_MsgQInside::StartWorker(*this, priority);
    }
    tq_MsgQInside::Unpin(*this);
}

void tq_MsgQ::Create(int priority) {
    Create(nullptr, priority);
}

/// Makes the queue one that takes messages; false, with nothing changed, when that cannot be.
bool tq_MsgQInside::Register(tq_MsgQ& queue, unsigned int* phSource) {
    if (!tq_LockWorks(queue.m_CritSecListLock)) {
        return false; // there was no memory for the lock: worker and senders would tear the lists apart
    }
    QUEUE_DETAILS* pDetails = static_cast<QUEUE_DETAILS*>(tq_calloc(1, sizeof(QUEUE_DETAILS)));
    if (!pDetails) {
        return false;
    }
    tq_MsgQRegistryLock registry;
    const bool bMayCreate = registry && gbQueuesAccepted && queue.m_hSource == 0;
    const unsigned int handle = bMayCreate ? tq_HandleGet() : 0;
    pDetails->hSource = handle;
    pDetails->pMsgQ = &queue;
    if (handle == 0 || !AddToRegistryLocked(pDetails)) {
        tq_free(pDetails);
        if (handle != 0) {
            tq_HandleRelease(handle);
        }
        return false;
    }
    // All of this before the registry is left: from then on anybody may send, and may begin the end.
    queue.m_bEndTold = false;
    queue.m_bEndWithoutMessage = false;
    queue.m_SemThreadExit.Reset();
    queue.m_uiWorkerState = kWorkerRuns;
    AddCreated(queue);
    if (phSource) {
        *phSource = handle;
    }
    queue.m_hSource = handle;
    queue.m_bDone = false;
    TakePlaceLocked(queue, handle);
    return true;
}

void tq_MsgQInside::StartWorker(tq_MsgQ& queue, int priority) {
    tq_MsgQLock lock(queue); // the name may be replaced meanwhile
    unsigned int threadId = 0;
    if (tq__beginthread(gTQMsgQStackSize, Worker, &queue, &threadId, priority, queue.m_pszName, __LINE__) != 0) {
        queue.m_ThreadId = threadId;
        return;
    }
    // The queue is there and takes messages, but nobody who destroys it may wait for a worker.
    queue.m_uiWorkerState = kNoWorker;
    queue.m_SemThreadExit.Set();
}

unsigned int tq_MsgQ::GetHandle() {
    return m_hSource;
}

// The worker

void* tq_MsgQInside::Worker(void* pQueue) {
    tq_MsgQ& queue = *static_cast<tq_MsgQ*>(pQueue);
    tpWorkersQueue = &queue;
    MSG_COMMON* pMsg = FirstMessage(queue);
    queue.m_ThreadId = tq_GetThreadId();
    queue.AddToHistory(MSG_CREATE);
    for (bool bGoOn = true; bGoOn;) {
        bGoOn = !pMsg || Handle(queue, pMsg);
        if (bGoOn) {
            bGoOn = NextMessage(queue, &pMsg);
        }
    }
    tpWorkersQueue = nullptr;
    SayWorkerIsDone(queue);
    return nullptr;
}

MSG_COMMON* tq_MsgQInside::FirstMessage(tq_MsgQ& queue) {
    MSG_COMMON* pMsg = NewHeader(MSG_CREATE);
    if (pMsg) {
        pMsg->hDest = queue.m_hSource;
        return pMsg;
    }
    // Deliberate: a critical error would be expected to end its line. This text does not, so what is traced next
    // follows it on the same line; the error log ends the line by itself.
    char szError[1024]; // on the stack: memory is what has run out
    {
        tq_MsgQLock lock(queue);
        snprintf(szError, sizeof(szError), "Failed to allocate the MSG_CREATE for %s",
                 queue.m_pszName ? queue.m_pszName : "Un-Named tq_MsgQ");
    }
    LogCriticalError(szError, /*bAbort=*/false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_MSGQS);
    return nullptr;
}

/// Hands a message to the handler, which owns it from here on; false when it was the last one.
bool tq_MsgQInside::Handle(tq_MsgQ& queue, MSG_COMMON* pMsg) {
    const bool bLast = pMsg->command == MSG_DESTROY;
    if (bLast) {
        Unregister(queue);
    }
    queue.MessageHandler(pMsg);
    return !bLast;
}

/// Takes the next message, or waits until there may be one and returns without; false when the worker is to end without
/// one.
bool tq_MsgQInside::NextMessage(tq_MsgQ& queue, MSG_COMMON** ppMsg) {
    tq_Spin spin(queue.m_uiWaits);
    WorkerSleep sleep;
    {
        tq_MsgQLock lock(queue);
        *ppMsg = TakeLocked(queue);
        if (*ppMsg || queue.m_bEndWithoutMessage) {
            return *ppMsg != nullptr;
        }
        sleep = IdleLocked(queue, spin);
    }
    if (sleep == kLooks) {
        spin.Look(kNanosecondsBetweenLooks,
                  [&queue] { return queue.m_uiWorkerSleep.load(std::memory_order_relaxed) != kLooks; });
    } else if (sleep == kSleeps) {
        queue.m_Sem.WaitForSem(-1);
    } else {
        PauseShortly();
    }
    return true;
}

namespace {

/// Has the processor fetch the list's first message, which its sender's processor may hold still, while the one before
/// it is handled.
void FetchFirst(const tq_List& list) {
    if (const tq_List::_TQ_LIST_ENTRY* const le = tq_ListInside::StateOf(list).pHead) {
        __builtin_prefetch(le->pNode);
    }
}

} // namespace

/// Takes the message that is to be handled next off its list; null when none waits.
MSG_COMMON* tq_MsgQInside::TakeLocked(tq_MsgQ& queue) {
    // A worker that ends without MSG_DESTROY handles what it would have handled before it.
    const int lowest = queue.m_bEndWithoutMessage ? TQ_MSG_PRIORITY_MEDIUM : TQ_MSG_PRIORITY_LOW;
    MSG_COMMON* pMsg = nullptr;
    for (int iPriority = TQ_MSG_PRIORITY_HIGH; !pMsg && iPriority <= lowest; ++iPriority) {
        tq_List* pList = ListOf(queue, iPriority);
        pMsg = pList ? static_cast<MSG_COMMON*>(pList->RemoveHead()) : nullptr;
        if (pMsg) {
            FetchFirst(*pList);
        }
    }
    if (pMsg) {
        AddToHistoryLocked(queue, static_cast<int>(pMsg->command));
    }
    return pMsg;
}

/// How a worker that has found nothing waits: first it looks out for something, where that may pay, and then it sleeps.
/// From here on whoever has something for it ends that. It stays awake when nobody could: a semaphore that got no
/// memory never blocks.
tq_MsgQInside::WorkerSleep tq_MsgQInside::IdleLocked(tq_MsgQ& queue, tq_Spin& spin) {
    const bool bHasLooked = queue.m_uiWorkerSleep.load(std::memory_order_relaxed) == kLooks;
    WorkerSleep sleep = tq_SemInside::Works(queue.m_Sem) ? kSleeps : kAwake;
    if (sleep == kSleeps && !bHasLooked && spin.MayPay()) {
        sleep = kLooks;
    }
    queue.m_uiWorkerSleep.store(sleep, std::memory_order_relaxed);
    return sleep;
}

void tq_MsgQInside::WakeLocked(tq_MsgQ& queue) {
    const unsigned char sleep = queue.m_uiWorkerSleep.load(std::memory_order_relaxed);
    if (sleep == kSleeps) {
        queue.m_uiWorkerSleep.store(kToBeWoken, std::memory_order_relaxed); // when the queue is left, see Unlock()
    } else if (sleep == kLooks) {
        queue.m_uiWorkerSleep.store(kAwake, std::memory_order_relaxed);
    }
}

/// The worker's last steps: the event gives the queue away.
void tq_MsgQInside::SayWorkerIsDone(tq_MsgQ& queue) {
    {
        tq_MsgQLock lock(queue);
        queue.m_uiWorkerState = kWorkerLeaves; // nobody names this thread any more: its id will be another's
    }
    tq_ThreadIsEnding();
    if (!queue.m_SemThreadExit.Set()) {
        queue.m_uiWorkerState = kNoWorker; // an event that got no memory: those who wait look at this instead
    }
    // The queue may be gone: whoever saw the event may have freed it.
}

void tq_MsgQ::MessageHandler(MSG_COMMON*) {}

// Sending

tq_List*& tq_MsgQInside::ListOf(tq_MsgQ& queue, int iPriority) {
    switch (iPriority) {
    case TQ_MSG_PRIORITY_HIGH:
        return queue.m_pQueueHigh;
    case TQ_MSG_PRIORITY_LOW:
        return queue.m_pQueueLow;
    default:
        return queue.m_pQueueMed;
    }
}

bool tq_MsgQ::Send(MSG_COMMON* pMsg, bool bAddToHead, int iPriority) {
    if (!pMsg || m_bDone) {
        return false;
    }
    pMsg->hDest = m_hSource;
    tq_MsgQLock lock(*this);
    return tq_MsgQInside::EnqueueLocked(*this, pMsg, bAddToHead, iPriority);
}

bool tq_MsgQInside::EnqueueLocked(tq_MsgQ& queue, MSG_COMMON* pMsg, bool bAddToHead, int iPriority) {
    if (queue.m_bDone || queue.m_hSource == 0) { // again, now that MSG_DESTROY cannot come in between
        return false;
    }
    tq_List*& pList = ListOf(queue, iPriority);
    if (!pList) {
        pList = tq_newObject<tq_List>(LIST_FLAGS_LOCK_DISABLE, LIST_TYPE_U32BITS, 0, nullptr);
        if (!pList) {
            return false;
        }
        queue.m_bListsUnnamed = queue.m_pszName != nullptr; // named once the queue is left, see Unlock()
    }
    const bool bLast = pMsg->command == MSG_DESTROY;
    if (!AddAtEnd(*pList, pMsg, bAddToHead)) {
        return false;
    }
    if (bLast) {
        queue.m_bDone = true;
        queue.m_bEndTold = true;
    }
    WakeLocked(queue);
    return true;
}

void tq_MsgQ::Lock() {
    m_CritSecListLock.Enter();
    m_uiLockDepth += 1;
}

void tq_MsgQ::Unlock() {
    m_uiLockDepth -= 1;
    const bool bLast = m_uiLockDepth == 0;
    const bool bNameLists = bLast && m_bListsUnnamed;
    const bool bWake = bLast && m_uiWorkerSleep.load(std::memory_order_relaxed) == tq_MsgQInside::kToBeWoken;
    if (bNameLists) {
        m_bListsUnnamed = false;
        tq_MsgQInside::Pin(*this);
    }
    if (bWake) {
        m_uiWorkerSleep.store(tq_MsgQInside::kAwake, std::memory_order_relaxed);
    }
    m_CritSecListLock.Leave();
    // Naming takes the registry's lock, which comes before a queue's: so not in Send(), which may have been called with
    // this lock held, but here, where the last hold of it has been left.
    if (bNameLists) {
        tq_MsgQInside::ApplyName(*this);
        tq_MsgQInside::Unpin(*this);
    }
    // Here as well, since the worker's first step is to take this lock.
    if (bWake && !tq_WakeQueuesLater::PutOff(m_Sem)) {
        m_Sem.Release(1, nullptr);
    }
}

namespace {

thread_local tq_WakeQueuesLater* tWakesLater __attribute__((tls_model("initial-exec"))) = nullptr;

} // namespace

// cppcheck-suppress uninitMemberVar // m_count says how many are set; one is made in each turn of the sockets thread
tq_WakeQueuesLater::tq_WakeQueuesLater() {
    tWakesLater = this;
}

tq_WakeQueuesLater::~tq_WakeQueuesLater() {
    tWakesLater = nullptr;
    for (unsigned int i = 0; i < m_count; ++i) {
        m_pSems[i]->Release(1, nullptr); // until then its queue is there
    }
}

bool tq_WakeQueuesLater::PutOff(tq_SemSemaphore& sem) {
    if (!tWakesLater || tWakesLater->m_count == kMost) {
        return false;
    }
    tWakesLater->m_pSems[tWakesLater->m_count++] = &sem;
    return true;
}

namespace {

/// With the registry locked throughout, so that the queue cannot go away.
bool SendThroughRegistry(MSG_COMMON* pMsg, bool bAddToHead, int iPriority) {
    tq_MsgQRegistryLock registry;
    if (!registry) {
        return false;
    }
    const QUEUE_DETAILS* pDetails = tq_MsgQFindLocked(pMsg->hDest);
    return pDetails && pDetails->pMsgQ->Send(pMsg, bAddToHead, iPriority);
}

} // namespace

bool tq_MsgSend(MSG_COMMON* pMsg, bool bAddToHead, int iPriority) {
    if (!pMsg) {
        return false;
    }
    {
        Place& place = PlaceOf(pMsg->hDest);
        const SenderInPlace sender(place);
        tq_MsgQ* const pQueue = place.pQueue.load();
        if (pQueue && pQueue->GetHandle() == pMsg->hDest) {
            return pQueue->Send(pMsg, bAddToHead, iPriority);
        }
    }
    return SendThroughRegistry(pMsg, bAddToHead, iPriority);
}

namespace {

void SendCopy(tq_MsgQ& queue, const MSG_COMMON& msg, bool bAddToHead, int iPriority) {
    MSG_COMMON* pCopy = static_cast<MSG_COMMON*>(tq_malloc(msg.size));
    if (!pCopy) {
        return;
    }
    memcpy(pCopy, &msg, msg.size);
    if (!queue.Send(pCopy, bAddToHead, iPriority)) {
        tq_free(pCopy);
    }
}

bool IsWhole(const MSG_COMMON* pMsg) {
    return pMsg && pMsg->size >= sizeof(MSG_COMMON);
}

} // namespace

void tq_MsgSendToAll(MSG_COMMON* pMsg, bool bAddToHead, int iPriority) {
    if (!IsWhole(pMsg)) {
        return;
    }
    tq_MsgQVisitAll([=](const QUEUE_DETAILS& details) {
        SendCopy(*details.pMsgQ, *pMsg, bAddToHead, iPriority);
        return true;
    });
}

void tq_MsgQSendToNamed(unsigned int QueueId, void* pMessage) {
    const MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(pMessage);
    if (!IsWhole(pMsg)) {
        return;
    }
    const auto sendCopy = [pMsg](tq_MsgQ& queue) { SendCopy(queue, *pMsg, /*bAddToHead=*/false, kDefaultPriority); };
    if (QueueId != 0) {
        tq_MsgQRegistryLock registry;
        if (QUEUE_DETAILS* pDetails = registry ? tq_MsgQFindLocked(QueueId) : nullptr) {
            sendCopy(*pDetails->pMsgQ);
        }
        return;
    }
    tq_MsgQVisitAll([&sendCopy](const QUEUE_DETAILS& details) {
        if (tq_MsgQInside::Name(*details.pMsgQ)) {
            sendCopy(*details.pMsgQ);
        }
        return true;
    });
}

bool tq__MsgCreateCommonAndSend(unsigned int hSource, unsigned int hDest, unsigned int command, unsigned int instance,
                                unsigned int userparm, unsigned int flags, bool bAddToHead, int iPriority,
                                const char* pszFilename, unsigned int line) {
    MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq__calloc(1, sizeof(MSG_COMMON), pszFilename, line));
    if (!pMsg) {
        return false;
    }
    *pMsg = {hSource, hDest, sizeof(MSG_COMMON), command, instance, userparm, flags};
    if (tq_MsgSend(pMsg, bAddToHead, iPriority)) {
        return true;
    }
    tq_free(pMsg);
    return false;
}

// Looking at what waits, and replacing it

namespace {

/// The lists in the order in which an operation looks through them, and the way through each. A priority that is not
/// all and not named by the second or third place means the first.
struct SearchOrder {
    int priorities[3];
    int direction;
};

constexpr SearchOrder kFromHead = {{TQ_MSG_PRIORITY_HIGH, TQ_MSG_PRIORITY_MEDIUM, TQ_MSG_PRIORITY_LOW},
                                   LIST_DIRECTION_HEAD_TO_TAIL};
constexpr SearchOrder kFromTail = {{TQ_MSG_PRIORITY_LOW, TQ_MSG_PRIORITY_MEDIUM, TQ_MSG_PRIORITY_HIGH},
                                   LIST_DIRECTION_TAIL_TO_HEAD};

/// Calls look(list) for each list that the priority chooses, until it returns a message.
template <typename Look> MSG_COMMON* LookThrough(tq_MsgQ& queue, const SearchOrder& order, int iPriority, Look look) {
    const bool bKnown = iPriority == order.priorities[1] || iPriority == order.priorities[2];
    const int only = bKnown ? iPriority : order.priorities[0];
    for (int candidate : order.priorities) {
        tq_List* pList = tq_MsgQInside::ListOf(queue, candidate);
        if (pList && (iPriority == kAllPriorities || candidate == only)) {
            if (void* pMsg = look(*pList)) {
                return static_cast<MSG_COMMON*>(pMsg);
            }
        }
    }
    return nullptr;
}

/// Puts pMsg in the place of the first message of the same command. Taken out first and put in after, so that there
/// is always an entry for it: a replacement needs no memory.
void* ReplaceInList(tq_List& list, MSG_COMMON* pMsg, int direction) {
    void* pFound = list.FindFirstAndRemove(tq_ListKey(pMsg->command), LIST_TYPE_U32BITS, offsetof(MSG_COMMON, command),
                                           nullptr, direction);
    if (!pFound) {
        return nullptr;
    }
    if (list.GetNext()) { // the one behind the gap, in the direction of the search
        list.AddPrevNode(pMsg);
    } else if (direction == LIST_DIRECTION_HEAD_TO_TAIL) {
        list.AddToTail(pMsg);
    } else {
        list.AddToHead(pMsg);
    }
    return pFound;
}

MSG_COMMON* Replace(tq_MsgQ& queue, const SearchOrder& order, MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound) {
    MSG_COMMON* pReplaced = LookThrough(queue, order, iPriority, [&order, pMsg](tq_List& list) {
        return ReplaceInList(list, pMsg, order.direction); //
    });
    if (!pReplaced && bAddIfNotFound) {
        queue.Send(pMsg, /*bAddToHead=*/false, iPriority);
    }
    return pReplaced;
}

} // namespace

unsigned int tq_MsgQ::GetQueueDepth(int iPriority) {
    tq_MsgQLock lock(*this);
    unsigned int depth = 0;
    for (int candidate : kFromHead.priorities) {
        tq_List* pList = tq_MsgQInside::ListOf(*this, candidate);
        if (pList && (iPriority == kAllPriorities || iPriority == candidate)) {
            depth += pList->NodeCount();
        }
    }
    return depth;
}

MSG_COMMON* tq_MsgQ::PeekHead(int iPriority) {
    tq_MsgQLock lock(*this);
    if (m_bDone || m_hSource == 0) {
        return nullptr;
    }
    return LookThrough(*this, kFromHead, iPriority, [](tq_List& list) { return list.GetHead(); });
}

MSG_COMMON* tq_MsgQ::PeekTail(int iPriority) {
    tq_MsgQLock lock(*this);
    if (m_bDone || m_hSource == 0) {
        return nullptr;
    }
    return LookThrough(*this, kFromTail, iPriority, [](tq_List& list) { return list.GetTail(); });
}

MSG_COMMON* tq_MsgQ::ReplaceMsgFromHead(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound) {
    tq_MsgQLock lock(*this);
    if (!pMsg || m_bDone || m_hSource == 0) {
        return nullptr;
    }
    return Replace(*this, kFromHead, pMsg, iPriority, bAddIfNotFound);
}

MSG_COMMON* tq_MsgQ::ReplaceMsgFromTail(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound) {
    tq_MsgQLock lock(*this);
    if (!pMsg || m_bDone || m_hSource == 0) {
        return nullptr;
    }
    return Replace(*this, kFromTail, pMsg, iPriority, bAddIfNotFound);
}

// The end

void tq_MsgQInside::Unregister(tq_MsgQ& queue) {
    const unsigned int handle = queue.m_hSource;
    if (handle == 0) {
        return;
    }
    tq_MsgQRegistryLock registry;
    if (registry) {
        // Quick to find; the list takes it out by a walk, which compares pointers and costs little beside the end of a
        // thread.
        ClearPlaceLocked(queue, handle);
        tq_free(gpListOfQs->RemoveNode(tq_MsgQFindLocked(handle)));
    }
}

void tq_MsgQ::Destroy(bool bAddToHead) {
    tq_MsgQInside::Pin(*this); // the call that ends first may be followed by the destructor
    if (!m_bDone) {
        tq_MsgQInside::Unregister(*this);
        MSG_COMMON* pMsg = NewHeader(MSG_DESTROY);
        if (pMsg && !Send(pMsg, bAddToHead, kDefaultPriority)) {
            tq_free(pMsg); // another thread's MSG_DESTROY was first, or the list had no memory for it
        }
        m_bDone = true;
    }
    if (m_bEndTold && !IsOwnWorker(*this)) {
        tq_MsgQInside::WaitForWorker(*this);
    }
    tq_MsgQInside::Unpin(*this);
}

void tq_MsgQ::Cleanup() {
    Destroy(false);
    if (IsOwnWorker(*this)) {
        return; // the worker would go on with what was freed; another thread's Cleanup() does the rest
    }
    tq_MsgQInside::EndWorker(*this);
    tq_MsgQInside::Unregister(*this);
    tq_MsgQInside::FreeContents(*this);
}

tq_MsgQ::~tq_MsgQ() {
    Cleanup();
    while (m_uiPins.load(std::memory_order_acquire) != 0) {
        PauseShortly();
    }
}

/// Waits until the worker has ended, having told it to where nobody has: MSG_DESTROY may have found no memory.
void tq_MsgQInside::EndWorker(tq_MsgQ& queue) {
    {
        tq_MsgQLock lock(queue);
        queue.m_bDone = true;
        if (queue.m_uiWorkerState == kWorkerRuns && !queue.m_bEndTold) {
            queue.m_bEndWithoutMessage = true;
            queue.m_bEndTold = true;
            WakeLocked(queue);
        }
    }
    WaitForWorker(queue);
}

void tq_MsgQInside::WaitForWorker(tq_MsgQ& queue) {
    while (queue.m_uiWorkerState != kNoWorker) {
        if (queue.m_SemThreadExit.WaitForEvent(-1)) {
            queue.m_SemThreadExit.Set(); // setting it wakes one thread: this one wakes the next
            return;
        }
        PauseShortly(); // an event that got no memory never blocks
    }
}

void tq_MsgQInside::FreeContents(tq_MsgQ& queue) {
    char* texts[2];
    tq_List* lists[3];
    int* piHistory;
    unsigned int handle;
    { // everything is taken off the queue first, so that of two calls one frees it
        tq_MsgQLock lock(queue);
        texts[0] = queue.m_pszName;
        texts[1] = queue.m_pszDescription;
        queue.m_pszName = queue.m_pszDescription = nullptr;
        lists[0] = queue.m_pQueueHigh;
        lists[1] = queue.m_pQueueMed;
        lists[2] = queue.m_pQueueLow;
        queue.m_pQueueHigh = queue.m_pQueueMed = queue.m_pQueueLow = nullptr;
        queue.m_bListsUnnamed = false;
        piHistory = queue.m_piHistory;
        queue.m_piHistory = nullptr;
        queue.m_iHistorySize = queue.m_iHistoryIndex = 0;
        handle = queue.m_hSource.exchange(0);
    }
    RemoveCreated(queue);
    for (char* pszText : texts) {
        tq_free(pszText);
    }
    if (handle != 0) {
        WaitForSenders(handle);
        tq_HandleRelease(handle);
    }
    for (tq_List* pList : lists) {
        while (void* pMsg = pList ? pList->RemoveHead() : nullptr) {
            tq_FreeEitherFamily(pMsg, __FILE__, __LINE__);
        }
        tq_deleteObject(pList);
    }
    tq_free(piHistory);
}

// Names

namespace {

/// A tracked text; null when there is no memory.
char* Joined(const char* pszPrefix, const char* pszName) {
    const size_t bytes = strlen(pszPrefix) + strlen(pszName) + 1;
    char* pszJoined = static_cast<char*>(tq_malloc(static_cast<unsigned int>(bytes)));
    if (pszJoined) {
        snprintf(pszJoined, bytes, "%s%s", pszPrefix, pszName);
    }
    return pszJoined;
}

/// Copies a text for replacing another: false when it could not be copied, and the other then stays.
bool CopyText(const char* pszText, char** ppszCopy) {
    *ppszCopy = pszText ? tq_newString(pszText) : nullptr;
    return *ppszCopy || !pszText;
}

} // namespace

/// Gives the worker and the lists their names by the queue's. The registry and the queue are locked.
void tq_MsgQInside::ApplyNameLocked(tq_MsgQ& queue) {
    const char* pszName = queue.m_pszName ? queue.m_pszName : "";
    if (queue.m_uiWorkerState == kWorkerRuns && queue.m_ThreadId != 0) {
        if (char* pszThread = Joined("tq_MsgQ: ", pszName)) {
            tq_ThreadSetName(queue.m_ThreadId, pszThread);
            tq_free(pszThread);
        }
    }
    static constexpr const char* kPrefixes[] = {"MsgQ-H:", "MsgQ-M:", "MsgQ-L:"};
    for (int iPriority : kFromHead.priorities) {
        tq_List* pList = ListOf(queue, iPriority);
        if (char* pszList = pList ? Joined(kPrefixes[iPriority - 1], pszName) : nullptr) {
            pList->SetName(pszList);
            tq_free(pszList);
        }
    }
}

void tq_MsgQInside::ApplyName(tq_MsgQ& queue) {
    tq_MsgQRegistryLock registry;
    tq_MsgQLock lock(queue);
    ApplyNameLocked(queue);
}

void tq_MsgQ::SetName(const char* name) {
    char* pszOld = nullptr;
    {
        tq_MsgQRegistryLock registry;
        tq_MsgQLock lock(*this);
        char* pszCopy;
        if (CopyText(name, &pszCopy)) {
            pszOld = m_pszName;
            m_pszName = pszCopy;
            tq_MsgQInside::ApplyNameLocked(*this);
        }
    }
    tq_free(pszOld); // last: a queue may pass its own name
}

void tq_MsgQ::SetDescription(const char* description) {
    char* pszOld = nullptr;
    {
        tq_MsgQRegistryLock registry;
        tq_MsgQLock lock(*this);
        char* pszCopy;
        if (CopyText(description, &pszCopy)) {
            pszOld = m_pszDescription;
            m_pszDescription = pszCopy;
        }
    }
    tq_free(pszOld);
}

// The history of commands: a ring of m_iHistorySize slots, m_iHistoryIndex the next to be written

void tq_MsgQ::AddToHistory(int command) {
    tq_MsgQLock lock(*this);
    tq_MsgQInside::AddToHistoryLocked(*this, command);
}

void tq_MsgQInside::AddToHistoryLocked(tq_MsgQ& queue, int command) {
    if (queue.m_iHistorySize == 0) {
        return;
    }
    queue.m_piHistory[queue.m_iHistoryIndex] = command;
    queue.m_iHistoryIndex += 1;
    if (queue.m_iHistoryIndex == queue.m_iHistorySize) {
        queue.m_bFullHistory = true;
        queue.m_iHistoryIndex = 0;
    }
}

void tq_MsgQ::SetHistory(int size) {
    tq_MsgQLock lock(*this);
    if (size <= 0) {
        tq_free(m_piHistory);
        m_piHistory = nullptr;
        m_iHistorySize = 0;
        m_iHistoryIndex = 0;
    } else if (size > m_iHistorySize) {
        tq_MsgQInside::GrowHistoryLocked(*this, size);
    } else if (size < m_iHistorySize) {
        tq_MsgQInside::ShrinkHistoryLocked(*this, size);
    }
}

void tq_MsgQInside::GrowHistoryLocked(tq_MsgQ& queue, int size) {
    const bool bFits = size <= INT_MAX / static_cast<int>(sizeof(int));
    int* piNew = bFits ? static_cast<int*>(tq_calloc(static_cast<unsigned int>(size), sizeof(int))) : nullptr;
    if (!piNew) {
        return;
    }
    const int* piOld = queue.m_piHistory;
    const int oldSize = queue.m_iHistorySize;
    const int index = queue.m_iHistoryIndex;
    if (piOld) {
        // Deliberate: the commands of a ring that has not wrapped would be expected to keep their slots. They move to
        // oldSize - index while the index stays, so the next commands are written below or over them, and a report
        // shows the slots below the index, unwritten ones as command 0.
        if (queue.m_bFullHistory) {
            memcpy(piNew, piOld + index, static_cast<size_t>(oldSize - index) * sizeof(int));
        }
        memcpy(piNew + (oldSize - index), piOld, static_cast<size_t>(index) * sizeof(int));
        if (queue.m_bFullHistory) {
            queue.m_iHistoryIndex = oldSize;
        }
        tq_free(queue.m_piHistory);
    }
    queue.m_piHistory = piNew;
    queue.m_iHistorySize = size;
    queue.m_bFullHistory = false; // there is room again; one that was off begins empty
}

/// The array stays: it is larger than it need be until the history grows again or is turned off.
void tq_MsgQInside::ShrinkHistoryLocked(tq_MsgQ& queue, int size) {
    int* piHistory = queue.m_piHistory;
    const int oldSize = queue.m_iHistorySize;
    const int index = queue.m_iHistoryIndex;
    if (index >= size) { // the newest ones stand right before the index
        memmove(piHistory, piHistory + (index - size), static_cast<size_t>(size) * sizeof(int));
        queue.m_bFullHistory = true;
        queue.m_iHistoryIndex = 0;
    } else if (queue.m_bFullHistory) { // the oldest ones, right after the index, give way
        memmove(piHistory + index, piHistory + (index + oldSize - size),
                static_cast<size_t>(size - index) * sizeof(int));
    }
    queue.m_iHistorySize = size;
}

// The created queues

void tq_MsgQInside::AddCreated(tq_MsgQ& queue) {
    std::lock_guard<tq_PlacedMutex> lock(gCreatedMutex);
    queue.m_pNextCreated = gpCreated;
    gpCreated = &queue;
}

void tq_MsgQInside::RemoveCreated(tq_MsgQ& queue) {
    std::lock_guard<tq_PlacedMutex> lock(gCreatedMutex);
    for (tq_MsgQ** ppQueue = &gpCreated; *ppQueue; ppQueue = &(*ppQueue)->m_pNextCreated) {
        if (*ppQueue == &queue) {
            *ppQueue = queue.m_pNextCreated;
            return;
        }
    }
}

/// A created queue, pinned; null when there is none but the one that the caller is the worker of. Its destructor has
/// yet to take it off the list, so it exists, and does as long as it is pinned.
tq_MsgQ* tq_MsgQInside::PinCreated() {
    std::lock_guard<tq_PlacedMutex> lock(gCreatedMutex);
    tq_MsgQ* pQueue = gpCreated;
    while (pQueue && IsOwnWorker(*pQueue)) {
        pQueue = pQueue->m_pNextCreated;
    }
    if (pQueue) {
        Pin(*pQueue);
    }
    return pQueue;
}

// Start and stop

unsigned int tq_MsgQInitialize() {
    tq_ReadIniTable(kSection, kIntegerKeys);
    return 0;
}

void tq_MsgQTerminate() {}

bool tq_MsgQRegistryOpen() {
    gpListOfQs = tq_IfItLocks(tq_newObject<tq_List>("TQOS: All Queues"));
    tq_ListPlace(gpListOfQs, tq_LockRank::kQueues);
    if (!gpListOfQs) {
        return false;
    }
    gHandleHash = gpListOfQs->HashCreate(LIST_TYPE_U32BITS, offsetof(QUEUE_DETAILS, hSource), kHandleBuckets, nullptr,
                                         "Queue handles");
    if (gHandleHash == 0) {
        tq_deleteObject(gpListOfQs);
        gpListOfQs = nullptr;
        return false;
    }
    gbQueuesAccepted = true;
    gMsgQRegistryGate.Open();
    return true;
}

namespace {

/// Takes the oldest queue out of the registry, pinned; null when there is none.
tq_MsgQ* TakeRegistered() {
    tq_MsgQRegistryLock registry;
    if (!registry) {
        return nullptr;
    }
    gbQueuesAccepted = false;
    QUEUE_DETAILS* pDetails = static_cast<QUEUE_DETAILS*>(gpListOfQs->RemoveHead());
    if (!pDetails) {
        return nullptr;
    }
    tq_MsgQ* pQueue = pDetails->pMsgQ;
    ClearPlaceLocked(*pQueue, pDetails->hSource);
    tq_MsgQInside::Pin(*pQueue); // its destructor, should it run now, has yet to ask for the registry
    tq_free(pDetails);
    return pQueue;
}

} // namespace

void DestroyListOfQs() {
    while (tq_MsgQ* pQueue = TakeRegistered()) {
        pQueue->Cleanup();
        tq_MsgQInside::Unpin(*pQueue);
    }
    // And those whose end began before: by their own handler, which nobody has waited for, or by an owner who has not
    // cleaned up. A queue's lists can only be freed while the library is there.
    while (tq_MsgQ* pQueue = tq_MsgQInside::PinCreated()) {
        pQueue->Cleanup();
        tq_MsgQInside::Unpin(*pQueue);
    }
}

void tq_MsgQRegistryClose() {
    gMsgQRegistryGate.Close();
    tq_deleteObject(gpListOfQs);
    gpListOfQs = nullptr;
}
