#include "tq_MsgQ_p.h"

#include <atomic>
#include <memory>
#include <pthread.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingQueue.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory_p.h"
#include "tq_SemMutex_p.h"
#include "tq_SemSemaphore_p.h"
#include "tq_Thread_p.h"
#include "tqos.h"

using test::NewMessage;
using test::RecordingQueue;
using Commands = std::vector<unsigned int>;

namespace {

constexpr int kHigh = TQ_MSG_PRIORITY_HIGH;
constexpr int kMedium = TQ_MSG_PRIORITY_MEDIUM;
constexpr int kLow = TQ_MSG_PRIORITY_LOW;
constexpr char kTracking[] = "[Memory]\nEnableMemoryTracking=yes\n";

/// A created queue whose worker is held, and has seen MSG_CREATE.
struct HeldQueue {
    HeldQueue() {
        queue.Create(0);
        queue.Hold();
    }
    ~HeldQueue() { queue.LetGo(); }
    RecordingQueue queue;
};

/// Leaves room for so many more tracked bytes while it lives. The library tracks memory, and no other thread allocates
/// meanwhile but one that was waited for or waits for this one.
class MemoryLeft {
public:
    explicit MemoryLeft(unsigned int bytes) {
        EXPECT_TRUE(gbUseMemoryTracking);
        gMemoryCapInBytes = gRequestedMemoryAllocations + bytes;
    }
    ~MemoryLeft() { gMemoryCapInBytes = 0; }
    MemoryLeft(const MemoryLeft&) = delete;
    MemoryLeft& operator=(const MemoryLeft&) = delete;
};

/// Sees what a list keeps to itself.
struct ListPeek : tq_List {
    static std::string Name(tq_List& list) {
        const char* pszName = (list.*(&ListPeek::m_li)).pName;
        return pszName ? pszName : "(null)";
    }
};

tq_List* FindList(const std::string& name) {
    tq_CritSecLock lock(gpListOfListsCritSec);
    for (LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        if (ListPeek::Name(*pRecord->pList) == name) {
            return pRecord->pList;
        }
    }
    return nullptr;
}

std::string ListName(tq_MsgQ& queue, int iPriority) {
    tq_List* pList = tq_MsgQInside::ListOf(queue, iPriority);
    return pList ? ListPeek::Name(*pList) : "(no list)";
}

std::string WorkerName(tq_MsgQ& queue) {
    char szName[128] = "";
    tq_ThreadGetName(szName, sizeof(szName), tq_MsgQInside::ThreadId(queue));
    return szName;
}

std::vector<unsigned int> Waiting(tq_MsgQ& queue, int iPriority) {
    std::vector<unsigned int> instances;
    tq_List* pList = tq_MsgQInside::ListOf(queue, iPriority);
    for (void* pNode = pList ? pList->GetHead() : nullptr; pNode; pNode = pList->GetNext()) {
        instances.push_back(static_cast<MSG_COMMON*>(pNode)->instance);
    }
    return instances;
}

/// The tracked bytes in use while no queue lives, once the lists that all queues share have their first block.
unsigned int BytesWithoutQueues() {
    {
        RecordingQueue queue;
        queue.Create(0);
    }
    tq_ThreadWaitForEndingThreads();
    return gRequestedMemoryAllocations;
}

unsigned int HandlesInUse() {
    tq_ListLock lock(gpHandleList);
    return gAllocatedHandles;
}

/// Whether a queue can still be reached by a handle.
bool IsReached(unsigned int handle) {
    return tq_MsgCreateCommonAndSend(0, handle, MSG_USER, 0, 0, 0, false, kMedium);
}

/// The command in the upper half, the priority in the lower: what a test sends in one go.
void PostAll(RecordingQueue& queue, const std::vector<std::pair<unsigned int, int>>& messages) {
    for (const auto& message : messages) {
        ASSERT_TRUE(queue.Post(MSG_USER + message.first, message.second));
    }
}

} // namespace

// Life

TEST(MsgQ, ASendBeforeCreateFailsAndLeavesTheMessageWithTheCaller) {
    test::Library library;
    RecordingQueue queue;
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    EXPECT_FALSE(queue.Send(pMsg, false, kMedium));
    EXPECT_EQ(0u, queue.GetHandle());
    EXPECT_EQ(0u, queue.GetQueueDepth(0));
    tq_free(pMsg);
}

TEST(MsgQ, CreateGivesAHandleByWhichTheQueueIsReached) {
    test::Library library;
    RecordingQueue queue;
    unsigned int handle = 0;
    queue.Create(&handle, 0);
    EXPECT_NE(0u, handle);
    EXPECT_EQ(handle, queue.GetHandle());
    ASSERT_TRUE(IsReached(handle));
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER}), queue.Commands());
}

TEST(MsgQ, TheFirstMessageIsCreateEvenWhenOthersWereSentBeforeTheWorkerRan) {
    test::Library library;
    RecordingQueue queue;
    const tq_LockOrderUnchecked unchecked; // nobody else knows of the queue yet
    queue.Lock();                          // the worker cannot pass its first look at the queue
    queue.Create(0);
    ASSERT_TRUE(queue.Send(NewMessage(MSG_USER), false, kHigh));
    EXPECT_EQ(1u, queue.GetQueueDepth(0));
    queue.Unlock();
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER}), queue.Commands());
    const MSG_COMMON create = queue.Seen()[0];
    EXPECT_EQ(28u, create.size);
    EXPECT_EQ(queue.GetHandle(), create.hDest);
    EXPECT_EQ(0u, create.hSource);
}

TEST(MsgQ, TheHandleIsStoredBeforeTheHandlerRuns) {
    test::Library library;
    unsigned int handle = 0; // read by the worker without a lock
    std::atomic<unsigned int> seen{0};
    RecordingQueue queue;
    queue.SetAction([&](const MSG_COMMON&) { seen = handle; });
    queue.Create(&handle, 0);
    ASSERT_TRUE(test::WaitUntil([&] { return seen != 0; }));
    EXPECT_EQ(queue.GetHandle(), seen);
}

TEST(MsgQ, TheWorkerHasThePriorityThatCreateIsGiven) {
    test::Library library;
    const int mine = getpriority(PRIO_PROCESS, 0);
    for (const int priority : {TQ_THREAD_PRIORITY_LOW, TQ_THREAD_PRIORITY_NORMAL}) {
        constexpr int kUnknown = 99;
        std::atomic<int> nice{kUnknown};
        RecordingQueue queue;
        queue.SetAction([&](const MSG_COMMON&) { nice = getpriority(PRIO_PROCESS, tq_GetPSThreadId()); });
        queue.Create(priority);
        ASSERT_TRUE(test::WaitUntil([&] { return nice != kUnknown; }));
        EXPECT_EQ(priority == TQ_THREAD_PRIORITY_LOW ? 10 : mine, nice);
        queue.Cleanup();
    }
}

TEST(MsgQ, AfterDestroyASendFailsAndDestroyWasTheLastMessage) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    queue.Destroy(false);
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    EXPECT_FALSE(queue.Send(pMsg, false, kMedium));
    tq_free(pMsg);
    EXPECT_FALSE(IsReached(handle));
    EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), queue.Commands());
    const MSG_COMMON destroy = queue.Seen()[1];
    EXPECT_EQ(28u, destroy.size);
    EXPECT_EQ(handle, destroy.hDest);
    EXPECT_EQ(handle, queue.GetHandle()) << "the handle goes with Cleanup()";
}

TEST(MsgQ, DestroyHandlesHighAndMediumMessagesFirstAndNeverTheLowOnes) {
    test::Library library(kTracking);
    const unsigned int before = BytesWithoutQueues();
    {
        HeldQueue held;
        PostAll(held.queue, {{3, kLow}, {2, kMedium}, {1, kHigh}});
        std::thread destroyer([&] { held.queue.Destroy(false); });
        ASSERT_TRUE(test::WaitUntil([&] { return held.queue.GetQueueDepth(kMedium) == 2; }));
        held.queue.LetGo();
        destroyer.join();
        EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_USER + 2, MSG_DESTROY}), held.queue.Commands());
        EXPECT_EQ(1u, held.queue.GetQueueDepth(kLow));
    }
    tq_ThreadWaitForEndingThreads();
    EXPECT_EQ(before, gRequestedMemoryAllocations) << "the low message was freed with the queue";
}

TEST(MsgQ, DestroyAtTheHeadComesBeforeTheMediumMessages) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{2, kMedium}, {1, kHigh}});
    std::thread destroyer([&] { held.queue.Destroy(true); });
    ASSERT_TRUE(test::WaitUntil([&] { return held.queue.GetQueueDepth(kMedium) == 2; }));
    held.queue.LetGo();
    destroyer.join();
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_DESTROY}), held.queue.Commands());
}

TEST(MsgQ, ADestroyMessageSentByAnybodyEndsTheQueue) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    queue.Hold();
    ASSERT_TRUE(queue.Post(MSG_DESTROY, kHigh));
    EXPECT_FALSE(queue.Post(MSG_USER, kHigh)) << "nothing is queued behind it";
    EXPECT_EQ(nullptr, queue.PeekHead(0));
    EXPECT_EQ(1u, queue.GetQueueDepth(0));
    queue.LetGo();
    queue.Destroy(false);
    EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), queue.Commands());
}

TEST(MsgQ, TheHandlerOfDestroyFindsTheQueueNoLongerRegistered) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    std::atomic<unsigned int> found{4711};
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_DESTROY) {
            found = tq_MsgQGetIdFromName("Recorder");
        }
    });
    EXPECT_EQ(handle, tq_MsgQGetIdFromName("Recorder"));
    ASSERT_TRUE(queue.Post(MSG_DESTROY)); // not by Destroy(), which takes it out itself
    queue.Destroy(false);
    EXPECT_EQ(0u, found);
}

TEST(MsgQ, DestroyInsideTheOwnHandlerReturnsWithoutWaitingAndTheOwnerWaits) {
    test::Library library;
    RecordingQueue queue;
    std::atomic<bool> bReturned{false};
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_USER) {
            queue.Destroy(false);
            queue.Cleanup(); // frees nothing here
            bReturned = true;
            tq_Sleep(20); // the owner has time to go wrong
        }
    });
    queue.Create(0);
    ASSERT_TRUE(queue.Post(MSG_USER));
    ASSERT_TRUE(test::WaitUntil([&] { return bReturned.load(); }));
    EXPECT_NE(0u, queue.GetHandle());
    queue.Cleanup();
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER, MSG_DESTROY}), queue.Commands());
    EXPECT_EQ(0u, queue.GetHandle());
}

TEST(MsgQ, DestroyOnAQueueThatIsNotCreatedDoesNothing) {
    test::Library library;
    RecordingQueue queue;
    queue.Destroy(false);
    queue.Create(0);
    ASSERT_TRUE(queue.WaitForCount(1));
    EXPECT_EQ((Commands{MSG_CREATE}), queue.Commands());
}

TEST(MsgQ, TwoDestroysAtOnceEndTheQueueOnceAndBothReturnWhenItIsOver) {
    test::Library library;
    for (int round = 0; round < 50; ++round) {
        RecordingQueue queue;
        queue.Create(0);
        std::atomic<int> overWhenReturned{0};
        std::vector<std::thread> destroyers;
        for (int i = 0; i < 3; ++i) {
            destroyers.emplace_back([&] {
                queue.Destroy(false);
                overWhenReturned += queue.Commands().back() == MSG_DESTROY;
            });
        }
        for (std::thread& destroyer : destroyers) {
            destroyer.join();
        }
        EXPECT_EQ(3, overWhenReturned);
        EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), queue.Commands());
    }
}

TEST(MsgQ, ASecondCleanupReleasesNothingTwice) {
    test::Library library;
    const unsigned int before = HandlesInUse();
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_TRUE(queue.Send(NewMessage(MSG_USER), false, kLow));
    queue.Cleanup();
    EXPECT_EQ(before, HandlesInUse());
    queue.Cleanup();
    EXPECT_EQ(before, HandlesInUse());
    EXPECT_EQ(0u, queue.GetHandle());
    EXPECT_EQ(0u, queue.GetQueueDepth(0));
    EXPECT_EQ(0, tq_MsgQInside::HistorySize(queue));
}

TEST(MsgQ, ACleanedUpQueueMayBeCreatedAgain) {
    test::Library library;
    RecordingQueue queue;
    for (int round = 0; round < 3; ++round) {
        queue.Create(0);
        ASSERT_NE(0u, queue.GetHandle());
        ASSERT_TRUE(queue.Post(MSG_USER));
        queue.Cleanup();
    }
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER, MSG_DESTROY, MSG_CREATE, MSG_USER, MSG_DESTROY, MSG_CREATE, MSG_USER,
                        MSG_DESTROY}),
              queue.Commands());
}

TEST(MsgQ, ASecondCreateDoesNothing) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    unsigned int untouched = 4711;
    queue.Create(&untouched, 0);
    EXPECT_EQ(4711u, untouched);
    EXPECT_EQ(handle, queue.GetHandle());
    queue.Destroy(false);
    EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), queue.Commands());
}

TEST(MsgQ, WithoutTheLibraryNothingIsCreatedAndNothingSent) {
    const auto refused = [] {
        RecordingQueue queue;
        unsigned int untouched = 4711;
        queue.Create(&untouched, 0);
        EXPECT_EQ(4711u, untouched);
        EXPECT_EQ(0u, queue.GetHandle());
        MSG_COMMON* pMsg = NewMessage(MSG_USER);
        pMsg->hDest = 2;
        EXPECT_FALSE(tq_MsgSend(pMsg, false, kMedium));
        EXPECT_FALSE(queue.Send(pMsg, false, kMedium));
        tq_MsgSendToAll(pMsg, false, kMedium);
        tq_MsgQSendToNamed(0, pMsg);
        tq_free(pMsg);
        EXPECT_FALSE(IsReached(2));
    };
    refused();
    { test::Library library; }
    refused();
}

TEST(MsgQ, TerminationDestroysEveryRegisteredQueueAndLeavesTheObjectsToTheirOwners) {
    RecordingQueue first("first");
    RecordingQueue second("second");
    std::atomic<int> ended{0};
    std::atomic<int> endOfFirst{0};
    std::atomic<int> endOfSecond{0};
    first.SetAction([&](const MSG_COMMON& msg) { endOfFirst = msg.command == MSG_DESTROY ? ++ended : 0; });
    second.SetAction([&](const MSG_COMMON& msg) { endOfSecond = msg.command == MSG_DESTROY ? ++ended : 0; });
    {
        test::Library library;
        first.Create(0);
        second.Create(0);
        ASSERT_TRUE(second.Post(MSG_USER));
    }
    EXPECT_EQ(1, endOfFirst) << "the oldest first";
    EXPECT_EQ(2, endOfSecond);
    EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), first.Commands());
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER, MSG_DESTROY}), second.Commands());
    EXPECT_EQ(0u, first.GetHandle());
    EXPECT_EQ(0u, second.GetHandle());
}

TEST(MsgQ, TerminationCleansUpAQueueThatItsOwnerOnlyDestroyed) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_TRUE(queue.Send(NewMessage(MSG_USER), false, kLow));
    queue.Destroy(true);
    library.Terminate();
    EXPECT_EQ(0u, queue.GetHandle());
    EXPECT_EQ(0u, queue.GetQueueDepth(0));
}

TEST(MsgQ, TerminationWaitsForAQueueWhoseHandlerHasBegunItsOwnEnd) {
    RecordingQueue queue;
    {
        test::Library library;
        std::atomic<bool> bBegun{false};
        queue.SetAction([&](const MSG_COMMON& msg) {
            if (msg.command == MSG_USER) {
                queue.Destroy(false); // out of the registry from here on
                bBegun = true;
                tq_Sleep(50); // the library has time to go wrong
            }
        });
        queue.Create(0);
        ASSERT_TRUE(queue.Post(MSG_USER));
        ASSERT_TRUE(test::WaitUntil([&] { return bBegun.load(); }));
        library.Terminate(false, /*bWaitForThreads=*/false);
        EXPECT_EQ((Commands{MSG_CREATE, MSG_USER, MSG_DESTROY}), queue.Commands());
        queue.SetAction(nullptr);
    }
}

TEST(MsgQ, NoQueueIsCreatedOnceTerminationHasBegun) {
    test::Library library;
    RecordingQueue queue;
    std::unique_ptr<RecordingQueue> pLate(new RecordingQueue("late"));
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_DESTROY) {
            pLate->Create(0);
        }
    });
    queue.Create(0);
    library.Terminate();
    EXPECT_EQ(0u, pLate->GetHandle());
    EXPECT_EQ(Commands{}, pLate->Commands());
}

TEST(MsgQ, AQueueMayBeDeletedByTheThreadThatWaitedForItsEnd) {
    test::Library library;
    for (int round = 0; round < 200; ++round) {
        RecordingQueue* pQueue = new RecordingQueue;
        pQueue->Create(0);
        pQueue->Destroy(false);
        delete pQueue;
    }
}

TEST(MsgQ, TheOwnersEndMayMeetTheLibrarys) {
    for (int round = 0; round < 30; ++round) {
        test::Library library;
        std::vector<std::unique_ptr<RecordingQueue>> queues;
        for (int i = 0; i < 4; ++i) {
            queues.emplace_back(new RecordingQueue);
            queues.back()->Create(0);
        }
        std::thread owner([&] {
            while (!queues.empty()) {
                queues.pop_back();
            }
        });
        DestroyListOfQs();
        owner.join();
    }
}

// Sending

TEST(MsgQ, ThreePrioritiesAreServedStrictlyEachInOrder) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{31, kLow}, {21, kMedium}, {11, kHigh}, {32, kLow}, {22, kMedium}, {12, kHigh}});
    EXPECT_EQ(6u, held.queue.GetQueueDepth(0));
    EXPECT_EQ(2u, held.queue.GetQueueDepth(kHigh));
    EXPECT_EQ(2u, held.queue.GetQueueDepth(kMedium));
    EXPECT_EQ(2u, held.queue.GetQueueDepth(kLow));
    held.queue.LetGo();
    ASSERT_TRUE(held.queue.WaitForCount(8));
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 11, MSG_USER + 12, MSG_USER + 21, MSG_USER + 22, MSG_USER + 31,
                        MSG_USER + 32}),
              held.queue.Commands());
}

TEST(MsgQ, AMessageAtTheHeadOfTheHighListIsHandledBeforeAllOthers) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{1, kHigh}, {2, kMedium}, {3, kLow}});
    ASSERT_TRUE(held.queue.Post(MSG_USER + 9, kHigh, 0, /*bAddToHead=*/true));
    held.queue.LetGo();
    ASSERT_TRUE(held.queue.WaitForCount(6));
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 9, MSG_USER + 1, MSG_USER + 2, MSG_USER + 3}), held.queue.Commands());
}

TEST(MsgQ, AnUnknownPriorityIsMediumForASendNoListForADepthAndAnEndForAPeek) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    for (int iPriority : {7, 0, -1}) {
        ASSERT_TRUE(queue.Post(MSG_USER, iPriority));
    }
    EXPECT_EQ(3u, queue.GetQueueDepth(kMedium));
    EXPECT_EQ(0u, queue.GetQueueDepth(7));
    EXPECT_EQ(0u, queue.GetQueueDepth(-1));
    EXPECT_EQ(nullptr, queue.PeekHead(7)) << "looks at the high list";
    EXPECT_EQ(nullptr, queue.PeekTail(7)) << "looks at the low list";
    ASSERT_TRUE(queue.Post(MSG_USER + 1, kHigh));
    ASSERT_TRUE(queue.Post(MSG_USER + 3, kLow));
    ASSERT_NE(nullptr, queue.PeekHead(7));
    EXPECT_EQ(MSG_USER + 1u, queue.PeekHead(7)->command);
    ASSERT_NE(nullptr, queue.PeekTail(7));
    EXPECT_EQ(MSG_USER + 3u, queue.PeekTail(7)->command);
}

TEST(MsgQ, ASendCarriesAllFieldsAndWritesTheDestination) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(11, queue.GetHandle(), MSG_USER + 5, 12, 13, 14, false, kMedium));
    ASSERT_TRUE(queue.WaitForCount(2));
    const MSG_COMMON msg = queue.Seen()[1];
    EXPECT_EQ(11u, msg.hSource);
    EXPECT_EQ(queue.GetHandle(), msg.hDest);
    EXPECT_EQ(28u, msg.size);
    EXPECT_EQ(MSG_USER + 5u, msg.command);
    EXPECT_EQ(12u, msg.instance);
    EXPECT_EQ(13u, msg.userparm);
    EXPECT_EQ(14u, msg.flags);

    MSG_COMMON* pMsg = NewMessage(MSG_USER + 6);
    pMsg->hDest = 999999;
    ASSERT_TRUE(queue.Send(pMsg, false, kMedium)); // by the object: the handle in the message does not matter
    ASSERT_TRUE(queue.WaitForCount(3));
    EXPECT_EQ(queue.GetHandle(), queue.Seen()[2].hDest);
}

TEST(MsgQ, AMessageMadeForTheCallerIsChargedToItsFileAndLine) {
    test::Library library(kTracking);
    HeldQueue held;
    ASSERT_TRUE(
        tq__MsgCreateCommonAndSend(0, held.queue.GetHandle(), MSG_USER, 0, 0, 0, false, kMedium, "caller.cpp", 4711));
    held.queue.Lock();
    char* const pBlock = reinterpret_cast<char*>(held.queue.PeekHead(kMedium)) - gTotalMemoryHeader;
    EXPECT_STREQ("caller.cpp", GetMemoryFilename(pBlock));
    EXPECT_EQ(4711u, tq_MemoryHeaderOf(pBlock)->line);
    held.queue.Unlock();
}

TEST(MsgQ, AMessageForNobodyStaysWithTheSender) {
    test::Library library(kTracking);
    EXPECT_FALSE(tq_MsgSend(nullptr, false, kMedium));
    MSG_COMMON* pMsg = NewMessage(MSG_USER, 5);
    for (unsigned int nobody : {0u, 1u, 4711u}) {
        pMsg->hDest = nobody;
        EXPECT_FALSE(tq_MsgSend(pMsg, false, kMedium));
    }
    EXPECT_EQ(5u, pMsg->instance);
    tq_free(pMsg);
    const unsigned int before = gRequestedMemoryAllocations;
    EXPECT_FALSE(IsReached(4711));
    EXPECT_EQ(before, gRequestedMemoryAllocations) << "the message made for the caller was freed";
}

TEST(MsgQ, ANullMessageIsNotSent) {
    test::Library library;
    HeldQueue held;
    EXPECT_FALSE(held.queue.Send(nullptr, false, kMedium));
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromHead(nullptr, 0, true));
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromTail(nullptr, 0, true));
    tq_MsgSendToAll(nullptr, false, kMedium);
    tq_MsgQSendToNamed(0, nullptr);
    EXPECT_EQ(0u, held.queue.GetQueueDepth(0));
}

TEST(MsgQ, SendToAllDeliversOneCopyToEachWithItsOwnDestination) {
    test::Library library;
    RecordingQueue queues[3];
    for (RecordingQueue& queue : queues) {
        queue.Create(0);
    }
    MSG_COMMON* pMsg = NewMessage(MSG_USER + 1, 77);
    pMsg->hDest = 4711;
    tq_MsgSendToAll(pMsg, false, kLow);
    EXPECT_EQ(4711u, pMsg->hDest);
    tq_free(pMsg);
    for (RecordingQueue& queue : queues) {
        ASSERT_TRUE(queue.WaitForCount(2));
        queue.Destroy(false);
        EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_DESTROY}), queue.Commands());
        EXPECT_EQ(queue.GetHandle(), queue.Seen()[1].hDest);
        EXPECT_EQ(77u, queue.Seen()[1].instance);
    }
}

TEST(MsgQ, ACopyHasTheWholePayloadAtTheEndOrPriorityAskedFor) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{1, kHigh}, {2, kMedium}});
    MSG_COMMON* pMsg = NewMessage(MSG_USER + 3, 0, sizeof(MSG_COMMON) + 6);
    memcpy(pMsg + 1, "hello", 6);
    tq_MsgSendToAll(pMsg, /*bAddToHead=*/true, kHigh);
    tq_MsgQSendToNamed(held.queue.GetHandle(), pMsg);
    {
        held.queue.Lock();
        const MSG_COMMON* pHead = held.queue.PeekHead(kHigh);
        EXPECT_EQ(MSG_USER + 3u, pHead->command);
        EXPECT_STREQ("hello", reinterpret_cast<const char*>(pHead + 1));
        const MSG_COMMON* pTail = held.queue.PeekTail(kMedium);
        EXPECT_NE(pHead, pTail);
        EXPECT_NE(pMsg, pTail);
        EXPECT_EQ(held.queue.GetHandle(), pTail->hDest);
        EXPECT_STREQ("hello", reinterpret_cast<const char*>(pTail + 1));
        held.queue.Unlock();
    }
    tq_free(pMsg);
}

TEST(MsgQ, SendToNamedReachesOneQueueOrAllThatHaveAName) {
    test::Library library;
    RecordingQueue named("named");
    RecordingQueue empty("");
    RecordingQueue nameless("nameless");
    for (RecordingQueue* pQueue : {&named, &empty, &nameless}) {
        pQueue->Create(0);
    }
    nameless.SetName(nullptr);
    MSG_COMMON* pMsg = NewMessage(MSG_USER + 1);
    tq_MsgQSendToNamed(0, pMsg);
    pMsg->command = MSG_USER + 2;
    tq_MsgQSendToNamed(nameless.GetHandle(), pMsg);
    tq_MsgQSendToNamed(4711, pMsg);
    tq_free(pMsg);
    for (RecordingQueue* pQueue : {&named, &empty, &nameless}) {
        pQueue->Destroy(false);
    }
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_DESTROY}), named.Commands());
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_DESTROY}), empty.Commands());
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 2, MSG_DESTROY}), nameless.Commands());
}

TEST(MsgQ, AMessageThatSaysItIsShorterThanItsHeaderIsNotCopied) {
    test::Library library;
    HeldQueue held;
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    for (unsigned int size : {0u, 27u}) {
        pMsg->size = size;
        tq_MsgSendToAll(pMsg, false, kMedium);
        tq_MsgQSendToNamed(0, pMsg);
    }
    tq_free(pMsg);
    EXPECT_EQ(0u, held.queue.GetQueueDepth(0));
}

TEST(MsgQ, AHandlerMaySendToItsOwnQueue) {
    test::Library library;
    RecordingQueue queue;
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_USER && msg.instance > 0) {
            EXPECT_TRUE(queue.Post(MSG_USER, kMedium, msg.instance - 1));
        }
    });
    queue.Create(0);
    ASSERT_TRUE(queue.Post(MSG_USER, kMedium, 100));
    EXPECT_TRUE(queue.WaitForCount(102));
}

TEST(MsgQ, TheBaseHandlerIgnoresAMessageWithoutFreeingIt) {
    test::Library library;
    tq_MsgQ queue("base", nullptr);
    MSG_COMMON* pMsg = NewMessage(MSG_USER, 42);
    queue.MessageHandler(pMsg);
    EXPECT_EQ(42u, pMsg->instance);
    tq_free(pMsg);
}

TEST(MsgQ, ALockedQueueKeepsItsMessages) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_TRUE(queue.WaitForCount(1));
    queue.Lock();
    queue.Lock();
    ASSERT_TRUE(queue.Send(NewMessage(MSG_USER, 8), false, kMedium));
    queue.Unlock();
    for (int i = 0; i < 100; ++i) {
        ASSERT_NE(nullptr, queue.PeekHead(kMedium));
        EXPECT_EQ(8u, queue.PeekHead(kMedium)->instance);
    }
    queue.Unlock();
    EXPECT_TRUE(queue.WaitForCount(2));
}

// Looking and replacing

TEST(MsgQ, APeekOfAllFindsWhatIsServedNextOrLast) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    EXPECT_EQ(nullptr, queue.PeekHead(0));
    EXPECT_EQ(nullptr, queue.PeekTail(0));
    struct Row {
        unsigned int command;
        int iPriority;
        unsigned int head;
        unsigned int tail;
    };
    for (const Row& row : std::vector<Row>{{21, kMedium, 21, 21},
                                           {22, kMedium, 21, 22},
                                           {31, kLow, 21, 31},
                                           {11, kHigh, 11, 31},
                                           {32, kLow, 11, 32},
                                           {12, kHigh, 11, 32}}) {
        PostAll(queue, {{row.command, row.iPriority}});
        EXPECT_EQ(MSG_USER + row.head, queue.PeekHead(0)->command);
        EXPECT_EQ(MSG_USER + row.tail, queue.PeekTail(0)->command);
    }
    EXPECT_EQ(MSG_USER + 11u, queue.PeekHead(kHigh)->command);
    EXPECT_EQ(MSG_USER + 12u, queue.PeekTail(kHigh)->command);
    EXPECT_EQ(MSG_USER + 21u, queue.PeekHead(kMedium)->command);
    EXPECT_EQ(MSG_USER + 22u, queue.PeekTail(kMedium)->command);
    EXPECT_EQ(MSG_USER + 31u, queue.PeekHead(kLow)->command);
    EXPECT_EQ(MSG_USER + 32u, queue.PeekTail(kLow)->command);
}

TEST(MsgQ, APeekOfAllFromTheTailTakesTheHighListLast) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{1, kHigh}});
    EXPECT_EQ(MSG_USER + 1u, held.queue.PeekTail(0)->command);
    PostAll(held.queue, {{2, kMedium}});
    EXPECT_EQ(MSG_USER + 2u, held.queue.PeekTail(0)->command);
}

TEST(MsgQ, APeekBeforeCreateAndAfterDestroyFindsNothing) {
    test::Library library;
    RecordingQueue queue;
    EXPECT_EQ(nullptr, queue.PeekHead(0));
    EXPECT_EQ(nullptr, queue.PeekTail(0));
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromHead(pMsg, 0, true));
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromTail(pMsg, 0, true));
    tq_free(pMsg);
    queue.Create(0);
    queue.Hold();
    ASSERT_TRUE(queue.Post(MSG_DESTROY));
    EXPECT_EQ(nullptr, queue.PeekHead(0));
    EXPECT_EQ(nullptr, queue.PeekTail(0));
    queue.LetGo();
}

namespace {

/// Three of one command on the medium list between two of another: instances 1 to 5.
void PostFive(RecordingQueue& queue) {
    for (unsigned int instance = 1; instance <= 5; ++instance) {
        ASSERT_TRUE(queue.Post(MSG_USER + (instance % 2), kMedium, instance)); // odd: +1, even: +0
    }
}

} // namespace

TEST(MsgQ, ReplaceFromTheHeadPutsTheMessageInThePlaceOfTheFirstOfItsKind) {
    test::Library library;
    HeldQueue held;
    PostFive(held.queue);
    MSG_COMMON* pOld = held.queue.ReplaceMsgFromHead(NewMessage(MSG_USER, 100), kMedium, false);
    ASSERT_NE(nullptr, pOld);
    EXPECT_EQ(2u, pOld->instance);
    tq_free(pOld);
    EXPECT_EQ((std::vector<unsigned int>{1, 100, 3, 4, 5}), Waiting(held.queue, kMedium));

    pOld = held.queue.ReplaceMsgFromHead(NewMessage(MSG_USER + 1, 101), 0, false);
    ASSERT_NE(nullptr, pOld);
    EXPECT_EQ(1u, pOld->instance);
    tq_free(pOld);
    EXPECT_EQ((std::vector<unsigned int>{101, 100, 3, 4, 5}), Waiting(held.queue, kMedium));
}

TEST(MsgQ, ReplaceFromTheTailPutsTheMessageInThePlaceOfTheLastOfItsKind) {
    test::Library library;
    HeldQueue held;
    PostFive(held.queue);
    MSG_COMMON* pOld = held.queue.ReplaceMsgFromTail(NewMessage(MSG_USER + 1, 100), kMedium, false);
    ASSERT_NE(nullptr, pOld);
    EXPECT_EQ(5u, pOld->instance);
    tq_free(pOld);
    pOld = held.queue.ReplaceMsgFromTail(NewMessage(MSG_USER, 101), 0, false);
    ASSERT_NE(nullptr, pOld);
    EXPECT_EQ(4u, pOld->instance);
    tq_free(pOld);
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 101, 100}), Waiting(held.queue, kMedium));
}

TEST(MsgQ, AReplacementIsHandledOnceAndTheReplacedMessageNever) {
    test::Library library;
    HeldQueue held;
    PostFive(held.queue);
    tq_free(held.queue.ReplaceMsgFromHead(NewMessage(MSG_USER, 100), kMedium, true));
    tq_free(held.queue.ReplaceMsgFromTail(NewMessage(MSG_USER + 1, 101), kMedium, true));
    EXPECT_EQ(5u, held.queue.GetQueueDepth(0));
    held.queue.LetGo();
    held.queue.Destroy(false);
    std::vector<unsigned int> instances;
    for (const MSG_COMMON& msg : held.queue.Seen()) {
        if (msg.instance != 0) {
            instances.push_back(msg.instance);
        }
    }
    EXPECT_EQ((std::vector<unsigned int>{1, 100, 3, 4, 101}), instances);
}

TEST(MsgQ, ReplaceLooksOnlyWhereAPeekWouldAndForAllInThePeeksOrder) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    for (int iPriority : {kHigh, kMedium, kLow}) {
        ASSERT_TRUE(queue.Post(MSG_USER, iPriority, static_cast<unsigned int>(iPriority)));
    }
    ASSERT_TRUE(queue.Post(MSG_USER + 1, kMedium, 4));
    MSG_COMMON* pMsg = NewMessage(MSG_USER + 1, 50);
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromHead(pMsg, 7, false)) << "the high list only";
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromTail(pMsg, 7, false)) << "the low list only";
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromHead(pMsg, kLow, false));
    MSG_COMMON* pOld = queue.ReplaceMsgFromHead(pMsg, 0, false);
    ASSERT_NE(nullptr, pOld);
    EXPECT_EQ(4u, pOld->instance);
    tq_free(pOld);

    const struct {
        bool bFromTail;
        unsigned int replaced;
    } rows[] = {{false, 1}, {true, 3}};
    for (const auto& row : rows) {
        MSG_COMMON* pNew = NewMessage(MSG_USER, 60);
        pOld = row.bFromTail ? queue.ReplaceMsgFromTail(pNew, 0, false) : queue.ReplaceMsgFromHead(pNew, 0, false);
        ASSERT_NE(nullptr, pOld);
        EXPECT_EQ(row.replaced, pOld->instance);
        tq_free(pOld);
    }
}

TEST(MsgQ, ReplaceWithNothingToReplaceAddsOnlyWhenAskedTo) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{1, kMedium}});
    MSG_COMMON* pMsg = NewMessage(MSG_USER + 2, 9);
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromTail(pMsg, kMedium, false));
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromHead(pMsg, 0, false));
    EXPECT_EQ(1u, held.queue.GetQueueDepth(0));
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromTail(pMsg, kMedium, true));
    EXPECT_EQ(2u, held.queue.GetQueueDepth(kMedium));
    EXPECT_EQ(pMsg, held.queue.PeekTail(kMedium));
    EXPECT_EQ(held.queue.GetHandle(), pMsg->hDest);
    pMsg = NewMessage(MSG_USER + 3);
    EXPECT_EQ(nullptr, held.queue.ReplaceMsgFromHead(pMsg, kLow, true));
    EXPECT_EQ(pMsg, held.queue.PeekTail(kLow));
    held.queue.LetGo();
    EXPECT_TRUE(held.queue.WaitForCount(5));
}

TEST(MsgQ, AReplacementNeedsNoMemory) {
    test::Library library(kTracking);
    HeldQueue held;
    for (unsigned int instance = 1; instance <= 16; ++instance) { // as many as one block of a list holds
        ASSERT_TRUE(held.queue.Post(MSG_USER + instance, kMedium, instance));
    }
    MSG_COMMON* pMiddle = NewMessage(MSG_USER + 8, 108);
    MSG_COMMON* pLast = NewMessage(MSG_USER + 16, 116);
    MSG_COMMON* pFirst = NewMessage(MSG_USER + 1, 101);
    std::vector<MSG_COMMON*> replaced;
    {
        MemoryLeft none(0);
        replaced.push_back(held.queue.ReplaceMsgFromHead(pMiddle, kMedium, false));
        replaced.push_back(held.queue.ReplaceMsgFromHead(pLast, kMedium, false));
        replaced.push_back(held.queue.ReplaceMsgFromTail(pFirst, kMedium, false));
    }
    for (MSG_COMMON* pOld : replaced) {
        ASSERT_NE(nullptr, pOld);
        EXPECT_LE(pOld->instance, 16u);
        tq_free(pOld);
    }
    const std::vector<unsigned int> waiting = Waiting(held.queue, kMedium);
    ASSERT_EQ(16u, waiting.size());
    EXPECT_EQ(101u, waiting[0]);
    EXPECT_EQ(108u, waiting[7]);
    EXPECT_EQ(116u, waiting[15]);
}

// Failures

TEST(MsgQ, CreateWithoutMemoryDoesNothing) {
    test::Library library(kTracking);
    RecordingQueue queue;
    const unsigned int handles = HandlesInUse();
    unsigned int untouched = 4711;
    {
        MemoryLeft none(0);
        queue.Create(&untouched, 0);
    }
    EXPECT_EQ(4711u, untouched);
    EXPECT_EQ(0u, queue.GetHandle());
    {
        MemoryLeft forTheEntryOnly(sizeof(QUEUE_DETAILS)); // the registry has no room for a first one
        queue.Create(&untouched, 0);
    }
    EXPECT_EQ(0u, queue.GetHandle());
    EXPECT_EQ(handles, HandlesInUse());
    queue.Create(0);
    EXPECT_NE(0u, queue.GetHandle());
}

TEST(MsgQ, CreateWithoutAHandleDoesNothing) {
    test::Library library("[Handles]\nInitialCount=20\nMaxHandle=20\n");
    std::vector<unsigned int> handles;
    while (unsigned int handle = tq_HandleGet()) {
        handles.push_back(handle);
    }
    RecordingQueue queue;
    queue.Create(0);
    EXPECT_EQ(0u, queue.GetHandle());
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    EXPECT_FALSE(queue.Send(pMsg, false, kMedium));
    tq_free(pMsg);
    for (unsigned int handle : handles) {
        tq_HandleRelease(handle);
    }
}

TEST(MsgQ, AQueueWhoseThreadCouldNotStartTakesMessagesAndEndsWithoutAHang) {
    test::Library library(kTracking);
    const unsigned int before = BytesWithoutQueues(); // the registry has room for an entry from here on
    {
        RecordingQueue queue;
        {
            MemoryLeft forTheEntryOnly(sizeof(QUEUE_DETAILS));
            queue.Create(0);
        }
        ASSERT_NE(0u, queue.GetHandle());
        EXPECT_TRUE(queue.Post(MSG_USER));
        EXPECT_TRUE(queue.Post(MSG_USER + 1, kLow));
        queue.Destroy(false);
        EXPECT_FALSE(IsReached(queue.GetHandle()));
        EXPECT_EQ(Commands{}, queue.Commands());
        EXPECT_EQ(3u, queue.GetQueueDepth(0));
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(MsgQ, ASendWithoutMemoryForItsListLeavesTheMessageWithTheCaller) {
    test::Library library(kTracking);
    HeldQueue held; // its high list exists
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    {
        MemoryLeft none(0);
        EXPECT_FALSE(held.queue.Send(pMsg, false, kMedium));
        EXPECT_TRUE(held.queue.Send(pMsg, false, kHigh));
    }
    std::vector<MSG_COMMON*> messages;
    for (int i = 0; i < 16; ++i) {
        messages.push_back(NewMessage(MSG_USER));
    }
    unsigned int sent = 1;
    {
        MemoryLeft none(0);
        for (MSG_COMMON*& pNext : messages) {
            if (held.queue.Send(pNext, false, kHigh)) {
                pNext = nullptr;
                ++sent;
            }
        }
    }
    EXPECT_EQ(16u, sent) << "one block of a list";
    EXPECT_EQ(sent, held.queue.GetQueueDepth(kHigh));
    for (MSG_COMMON* pLeft : messages) {
        tq_free(pLeft);
    }
}

TEST(MsgQ, WithoutMemoryForDestroyNobodyWaitsAndCleanupEndsTheWorkerWithoutIt) {
    test::Library library(kTracking);
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    const unsigned int handle = queue.GetHandle();
    PostAll(queue, {{2, kMedium}, {1, kHigh}});
    {
        MemoryLeft none(0);
        queue.Destroy(false); // returns although the worker is held
        EXPECT_FALSE(IsReached(handle));
    }
    EXPECT_FALSE(IsReached(handle));
    MSG_COMMON* pMsg = NewMessage(MSG_USER);
    EXPECT_FALSE(queue.Send(pMsg, false, kMedium));
    tq_free(pMsg);
    queue.Destroy(false);
    EXPECT_EQ(2u, queue.GetQueueDepth(0));
    queue.LetGo();
    queue.Cleanup();
    EXPECT_EQ((Commands{MSG_CREATE, MSG_USER + 1, MSG_USER + 2}), queue.Commands());
    EXPECT_EQ(0u, queue.GetHandle());
}

TEST(MsgQ, TerminationEndsAWorkerThatNobodyCouldTell) {
    test::Library library(kTracking);
    RecordingQueue queue;
    queue.Create(0);
    queue.Hold();
    {
        MemoryLeft none(0);
        queue.Destroy(false);
    }
    queue.LetGo();
    library.Terminate(); // waits for all threads
    EXPECT_EQ((Commands{MSG_CREATE}), queue.Commands());
}

namespace {

/// Creates the queue while memory runs out between the start of its worker and the worker's first step; there is
/// memory again when this returns.
void CreateWithoutFirstMessage(RecordingQueue& queue) {
    queue.SetHistory(1);
    tq_List* pThreads = FindList("TQOS: Thread List");
    ASSERT_NE(nullptr, pThreads);
    {
        const tq_LockOrderUnchecked unchecked; // nobody else creates a queue or a thread
        tq_ListLock hold(pThreads);            // a new thread begins by looking itself up
        queue.Create(0);
        gMemoryCapInBytes = 1;
    }
    ASSERT_TRUE(test::WaitUntil([&] { // it is past its first message, and waits for others
        queue.Lock();
        const bool bPast = tq_MsgQInside::HistoryIsFull(queue);
        queue.Unlock();
        return bPast;
    }));
    gMemoryCapInBytes = 0;
}

} // namespace

TEST(MsgQ, AMissingFirstMessageIsLoggedAndTheWorkerGoesOn) {
    test::Library library(kTracking);
    RecordingQueue queue("Door");
    CreateWithoutFirstMessage(queue);
    EXPECT_NE(std::string::npos,
              test::ReadFile("tqos_error.log").find(": Failed to allocate the MSG_CREATE for Door\n"));
    ASSERT_TRUE(queue.Post(MSG_USER));
    ASSERT_TRUE(queue.WaitForCount(1));
    EXPECT_EQ((Commands{MSG_USER}), queue.Commands());
}

TEST(MsgQ, AMissingFirstMessageIsTracedAsSevereAmongWhatConcernsQueues) {
    test::Library library(std::string(kTracking) + "[Trace]\ntqos_Level=Severe\ntqos_LogToFile=own.log\n");
    tq_TraceSetCatMask(tqosTraceHandle, TQ_TRACE_CAT_MSGQS);
    RecordingQueue queue("Door");
    CreateWithoutFirstMessage(queue);
    const std::string text = "(tqos) SEV: Failed to allocate the MSG_CREATE for Door"; // without an end of the line
    const std::string trace = test::ReadFile("own.log");
    ASSERT_LE(text.size(), trace.size());
    EXPECT_EQ(text, trace.substr(trace.size() - text.size()));
    EXPECT_EQ(1u, test::CountOf(trace, "(tqos)"));
}

TEST(MsgQ, AMissingFirstMessageOfAQueueWithoutANameIsLogged) {
    test::Library library(kTracking);
    RecordingQueue queue;
    queue.SetName(nullptr);
    CreateWithoutFirstMessage(queue);
    EXPECT_NE(std::string::npos,
              test::ReadFile("tqos_error.log").find(": Failed to allocate the MSG_CREATE for Un-Named tq_MsgQ\n"));
}

TEST(MsgQ, AQueueMadeWithoutMemoryForItsExitEventIsStillWaitedFor) {
    test::Library library(kTracking);
    for (int round = 0; round < 20; ++round) {
        alignas(RecordingQueue) unsigned char place[sizeof(RecordingQueue)];
        RecordingQueue* pQueue;
        {
            MemoryLeft forTheOtherTwo(sizeof(SemaStruct) + sizeof(tq_SemMutex) + sizeof(MutexStruct));
            pQueue = new (place) RecordingQueue;
        }
        EXPECT_EQ(nullptr, tq_MsgQInside::Name(*pQueue));
        pQueue->Create(0);
        ASSERT_TRUE(pQueue->Post(MSG_USER));
        pQueue->Destroy(false);
        EXPECT_EQ((Commands{MSG_CREATE, MSG_USER, MSG_DESTROY}), pQueue->Commands());
        pQueue->~RecordingQueue();
        memset(place, 0xFF, sizeof(place)); // a worker that is not done with it would show
    }
}

TEST(MsgQ, CleanupFreesWhatWasNeverHandledOfEitherFamily) {
    test::Library library(kTracking);
    const unsigned int before = BytesWithoutQueues();
    {
        HeldQueue held;
        ASSERT_TRUE(held.queue.Send(NewMessage(MSG_USER), false, kLow));
        MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_new(sizeof(MSG_COMMON)));
        *pMsg = {0, 0, sizeof(MSG_COMMON), MSG_USER, 0, 0, 0};
        ASSERT_TRUE(held.queue.Send(pMsg, false, kLow));
        ASSERT_TRUE(held.queue.Post(MSG_DESTROY));
    }
    tq_ThreadWaitForEndingThreads();
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    EXPECT_EQ("", test::ReadFile("tqos_error.log"));
}

// Names

TEST(MsgQ, TheWorkerHasTheQueuesNameUntilTheFirstListIsMade) {
    test::Library library;
    RecordingQueue queue("Door");
    queue.Create(0);
    ASSERT_TRUE(queue.WaitForCount(1));
    EXPECT_EQ("Door", WorkerName(queue));
    ASSERT_TRUE(queue.Post(MSG_USER));
    EXPECT_EQ("tq_MsgQ: Door", WorkerName(queue));
    EXPECT_EQ("(no list)", ListName(queue, kHigh));
    EXPECT_EQ("MsgQ-M:Door", ListName(queue, kMedium));
}

TEST(MsgQ, SetNameNamesTheWorkerAndEveryList) {
    test::Library library;
    HeldQueue held;
    PostAll(held.queue, {{1, kMedium}, {2, kLow}});
    held.queue.SetName("Gate");
    EXPECT_STREQ("Gate", tq_MsgQInside::Name(held.queue));
    EXPECT_EQ("tq_MsgQ: Gate", WorkerName(held.queue));
    EXPECT_EQ("MsgQ-H:Gate", ListName(held.queue, kHigh));
    EXPECT_EQ("MsgQ-M:Gate", ListName(held.queue, kMedium));
    EXPECT_EQ("MsgQ-L:Gate", ListName(held.queue, kLow));
    held.queue.SetName(tq_MsgQInside::Name(held.queue)); // its own
    EXPECT_STREQ("Gate", tq_MsgQInside::Name(held.queue));
    held.queue.SetName(nullptr);
    EXPECT_EQ(nullptr, tq_MsgQInside::Name(held.queue));
    EXPECT_EQ("tq_MsgQ: ", WorkerName(held.queue));
    EXPECT_EQ("MsgQ-H:", ListName(held.queue, kHigh));
}

TEST(MsgQ, NullCountsAsAnEmptyNameAtConstruction) {
    test::Library library;
    tq_MsgQ queue(nullptr, nullptr);
    EXPECT_STREQ("", tq_MsgQInside::Name(queue));
    EXPECT_EQ(nullptr, tq_MsgQInside::Description(queue));
    queue.SetDescription("opens");
    EXPECT_STREQ("opens", tq_MsgQInside::Description(queue));
    queue.SetDescription(tq_MsgQInside::Description(queue));
    EXPECT_STREQ("opens", tq_MsgQInside::Description(queue));
    queue.SetDescription(nullptr);
    EXPECT_EQ(nullptr, tq_MsgQInside::Description(queue));
}

TEST(MsgQ, WithoutMemoryTheOldNameAndDescriptionStay) {
    test::Library library(kTracking);
    tq_MsgQ queue("old", "older");
    {
        MemoryLeft none(0);
        queue.SetName("new");
        queue.SetDescription("newer");
    }
    EXPECT_STREQ("old", tq_MsgQInside::Name(queue));
    EXPECT_STREQ("older", tq_MsgQInside::Description(queue));
}

TEST(MsgQ, AListMadeUnderTheQueuesLockIsNamedWhenTheLockIsLeft) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    queue.Lock();
    queue.Lock();
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromHead(NewMessage(MSG_USER), kLow, true));
    queue.Unlock();
    EXPECT_EQ("(null)", ListName(queue, kLow));
    queue.Unlock();
    EXPECT_EQ("MsgQ-L:Recorder", ListName(queue, kLow));
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromTail(NewMessage(MSG_USER), kMedium, true));
    EXPECT_EQ("MsgQ-M:Recorder", ListName(queue, kMedium));
}

TEST(MsgQ, AListOfAQueueWithoutANameHasNoneUntilTheQueueIsNamed) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    queue.SetName(nullptr);
    ASSERT_TRUE(queue.Post(MSG_USER, kLow));
    EXPECT_EQ("(null)", ListName(queue, kLow));
    queue.SetName("Door");
    EXPECT_EQ("MsgQ-L:Door", ListName(queue, kLow));
}

TEST(MsgQ, NamingAListNeverWaitsForTheRegistryWithTheQueueLocked) {
    test::Library library;
    HeldQueue held;
    RecordingQueue& queue = held.queue;
    std::atomic<bool> bRegistryHeld{false};
    queue.Lock();
    std::thread other([&] { // in the right order: the registry, then the queue
        tq_ListLock registry(gpListOfQs);
        bRegistryHeld = true;
        EXPECT_EQ(1u, queue.GetQueueDepth(kLow));
    });
    ASSERT_TRUE(test::WaitUntil([&] { return bRegistryHeld.load(); }));
    EXPECT_EQ(nullptr, queue.ReplaceMsgFromTail(NewMessage(MSG_USER), kLow, true)); // makes the list
    queue.Unlock();
    other.join();
    EXPECT_EQ("MsgQ-L:Recorder", ListName(queue, kLow));
}

TEST(MsgQ, AThreadThatHasTheIdOfAnEndedWorkerIsNotNamed) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int id = tq_MsgQInside::ThreadId(queue);
    queue.Destroy(false);
    tq_ThreadWaitForEndingThreads();
    auto* const pOther = static_cast<TQ_THREAD_LIST_NODE*>(tq_calloc(1, sizeof(TQ_THREAD_LIST_NODE)));
    ASSERT_NE(nullptr, pOther);
    pOther->tid = id;
    pOther->pszName = tq_newString("another");
    {
        const tq_ListLock lock(gpThreadList);
        gpThreadList->AddNode(pOther);
    }
    queue.SetName("late");
    EXPECT_EQ("another", WorkerName(queue));
    tq_RemoveThreadFromTracking(id);
}

// Settings and history

TEST(MsgQ, TheSettingsGiveTheStackAndTheHistoryOfANewQueue) {
    test::Library library("[MsgQ]\nDefaultStackSize=1048576\nDefaultHistory=4\n");
    RecordingQueue queue;
    EXPECT_EQ(4, tq_MsgQInside::HistorySize(queue));
    std::atomic<size_t> stackBytes{0};
    queue.SetAction([&](const MSG_COMMON&) {
        pthread_attr_t attributes;
        size_t bytes = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &bytes);
        pthread_attr_destroy(&attributes);
        stackBytes = bytes;
    });
    queue.Create(0);
    ASSERT_TRUE(test::WaitUntil([&] { return stackBytes != 0; }));
    EXPECT_GE(stackBytes, 1048576u);
    EXPECT_LT(stackBytes, 2u * 1048576u);
}

TEST(MsgQ, WithoutSettingsThereIsNoHistory) {
    test::Library library;
    RecordingQueue queue;
    EXPECT_EQ(0, tq_MsgQInside::HistorySize(queue));
    queue.AddToHistory(5); // nowhere to store it
    EXPECT_EQ(0, tq_MsgQInside::HistoryIndex(queue));
}

TEST(MsgQ, TheWorkerRemembersCreateAndEveryMessageItTakes) {
    test::Library library("[MsgQ]\nDefaultHistory=4\n");
    RecordingQueue queue;
    queue.Create(0);
    for (unsigned int command : {256u, 512u, 513u, 514u}) {
        ASSERT_TRUE(queue.Post(command));
    }
    ASSERT_TRUE(queue.WaitForCount(5));
    queue.Lock();
    EXPECT_TRUE(tq_MsgQInside::HistoryIsFull(queue));
    EXPECT_EQ(1, tq_MsgQInside::HistoryIndex(queue));
    EXPECT_EQ(514, tq_MsgQInside::HistorySlot(queue, 0));
    EXPECT_EQ(256, tq_MsgQInside::HistorySlot(queue, 1));
    EXPECT_EQ(512, tq_MsgQInside::HistorySlot(queue, 2));
    EXPECT_EQ(513, tq_MsgQInside::HistorySlot(queue, 3));
    queue.Unlock();
}

namespace {

struct HistoryRow {
    const char* pszWhat;
    int firstSize;
    int commands; ///< 1, 2, 3, ... are remembered
    int secondSize;
    std::vector<int> slots; ///< afterwards, all of them
    int index;
    bool bFull;
};

void ExpectHistory(const HistoryRow& row) {
    SCOPED_TRACE(row.pszWhat);
    tq_MsgQ queue("history", nullptr);
    queue.SetHistory(row.firstSize);
    for (int command = 1; command <= row.commands; ++command) {
        queue.AddToHistory(command);
    }
    queue.SetHistory(row.secondSize);
    std::vector<int> slots;
    for (int slot = 0; slot < tq_MsgQInside::HistorySize(queue); ++slot) {
        slots.push_back(tq_MsgQInside::HistorySlot(queue, slot));
    }
    EXPECT_EQ(row.slots, slots);
    EXPECT_EQ(row.index, tq_MsgQInside::HistoryIndex(queue));
    EXPECT_EQ(row.bFull, tq_MsgQInside::HistoryIsFull(queue));
}

} // namespace

TEST(MsgQ, AGrowingHistoryMovesACommandThatHasNotWrappedBehindItsSlot) {
    test::Library library;
    const HistoryRow rows[] = {
        {"two of four", 4, 2, 6, {0, 0, 1, 2, 0, 0}, 2, false},
        {"three of four", 4, 3, 6, {0, 1, 2, 3, 0, 0}, 3, false},
        {"none", 4, 0, 6, {0, 0, 0, 0, 0, 0}, 0, false},
        {"just full", 4, 4, 6, {1, 2, 3, 4, 0, 0}, 4, false},
        {"wrapped", 4, 6, 6, {3, 4, 5, 6, 0, 0}, 4, false},
        {"from nothing", 0, 3, 2, {0, 0}, 0, false},
    };
    for (const HistoryRow& row : rows) {
        ExpectHistory(row);
    }
}

TEST(MsgQ, AShrinkingHistoryKeepsTheNewestCommands) {
    test::Library library;
    const HistoryRow rows[] = {
        {"index at the new size", 6, 3, 3, {1, 2, 3}, 0, true},
        {"index at the new size, wrapped", 6, 9, 3, {7, 8, 9}, 0, true},
        {"index beyond the new size", 6, 5, 3, {3, 4, 5}, 0, true},
        {"index before the new size", 6, 2, 4, {1, 2, 0, 0}, 2, false},
        {"index before the new size, wrapped", 6, 7, 4, {7, 4, 5, 6}, 1, true},
        {"index 0, wrapped", 6, 6, 4, {3, 4, 5, 6}, 0, true},
        {"off", 6, 2, 0, {}, 0, false},
        {"less than off", 6, 2, -3, {}, 0, false},
        {"equal", 6, 2, 6, {1, 2, 0, 0, 0, 0}, 2, false},
    };
    for (const HistoryRow& row : rows) {
        ExpectHistory(row);
    }
}

TEST(MsgQ, AHistoryTurnedOffBeginsEmptyWhenTurnedOnAgain) {
    test::Library library;
    tq_MsgQ queue("history", nullptr);
    queue.SetHistory(2);
    queue.AddToHistory(1);
    queue.AddToHistory(2);
    queue.SetHistory(0);
    queue.SetHistory(3);
    EXPECT_FALSE(tq_MsgQInside::HistoryIsFull(queue));
    EXPECT_EQ(0, tq_MsgQInside::HistoryIndex(queue));
    queue.AddToHistory(3);
    EXPECT_FALSE(tq_MsgQInside::HistoryIsFull(queue));
    EXPECT_EQ(3, tq_MsgQInside::HistorySlot(queue, 0));
}

TEST(MsgQ, AHistoryThatFindsNoMemoryStaysAsItWas) {
    test::Library library(kTracking);
    tq_MsgQ queue("history", nullptr);
    queue.SetHistory(2);
    queue.AddToHistory(7);
    {
        MemoryLeft none(0);
        queue.SetHistory(3);
    }
    queue.SetHistory(0x7FFFFFFF);
    EXPECT_EQ(2, tq_MsgQInside::HistorySize(queue));
    EXPECT_EQ(7, tq_MsgQInside::HistorySlot(queue, 0));
    EXPECT_EQ(1, tq_MsgQInside::HistoryIndex(queue));
}

TEST(MsgQ, AnySequenceOfHistorySizesStaysWithinTheRing) {
    test::Library library;
    tq_MsgQ queue("history", nullptr);
    unsigned int random = 12345;
    for (int step = 0; step < 5000; ++step) {
        random = random * 1103515245u + 12345u;
        if (random & 0x10000) {
            queue.SetHistory(static_cast<int>((random >> 20) % 9));
        } else {
            queue.AddToHistory(step);
        }
        const int size = tq_MsgQInside::HistorySize(queue);
        ASSERT_TRUE(size == 0 || tq_MsgQInside::HistoryIndex(queue) < size);
    }
}

// Many threads

TEST(MsgQ, EveryMessageOfManySendersIsHandledOnceAndInItsSendersOrder) {
    test::Library library;
    constexpr unsigned int kSenders = 8;
    constexpr unsigned int kEach = 2000;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    std::vector<std::thread> senders;
    for (unsigned int sender = 0; sender < kSenders; ++sender) {
        senders.emplace_back([=] {
            for (unsigned int i = 0; i < kEach; ++i) {
                EXPECT_TRUE(tq_MsgCreateCommonAndSend(sender, handle, MSG_USER, i, 0, 0, false,
                                                      static_cast<int>(sender % 3) + 1));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_TRUE(queue.WaitForCount(1 + kSenders * kEach));
    queue.Destroy(false);
    unsigned int next[kSenders] = {};
    for (const MSG_COMMON& msg : queue.Seen()) {
        if (msg.command == MSG_USER) {
            ASSERT_EQ(next[msg.hSource]++, msg.instance);
        }
    }
    for (unsigned int count : next) {
        EXPECT_EQ(kEach, count);
    }
}

TEST(MsgQ, EveryMessageIsAccountedForWhateverElseIsDoneToTheQueue) {
    test::Library library(kTracking);
    const unsigned int before = BytesWithoutQueues();
    {
        constexpr unsigned int kEach = 1000;
        RecordingQueue queue;
        queue.Create(0);
        std::atomic<unsigned int> sent{0};
        std::atomic<unsigned int> replaced{0};
        std::atomic<bool> bStop{false};
        std::vector<std::thread> senders;
        for (int sender = 0; sender < 3; ++sender) {
            senders.emplace_back([&, sender] {
                for (unsigned int i = 0; i < kEach; ++i) {
                    sent += queue.Post(MSG_USER, sender + 1) ? 1 : 0;
                    MSG_COMMON* pNew = NewMessage(MSG_USER + 1);
                    MSG_COMMON* pOld = i % 2 ? queue.ReplaceMsgFromHead(pNew, 0, true)
                                             : queue.ReplaceMsgFromTail(pNew, sender + 1, true);
                    sent += 1;
                    replaced += pOld ? 1 : 0;
                    tq_free(pOld);
                }
            });
        }
        std::thread meddler([&] {
            for (int i = 0; !bStop; ++i) {
                queue.SetName(i % 2 ? "odd" : "even");
                queue.SetDescription("changing");
                queue.SetHistory(i % 7);
                queue.GetQueueDepth(0);
                queue.PeekHead(0);
            }
        });
        for (std::thread& sender : senders) {
            sender.join();
        }
        bStop = true;
        meddler.join();
        ASSERT_TRUE(queue.WaitForCount(1 + sent - replaced));
        EXPECT_EQ(0u, queue.GetQueueDepth(0));
        queue.Destroy(false);
        EXPECT_EQ(2 + sent - replaced, queue.Seen().size());
    }
    tq_ThreadWaitForEndingThreads();
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(MsgQ, QueuesComeAndGoWhileOthersSendToThem) {
    test::Library library(kTracking);
    std::atomic<unsigned int> handle{0};
    std::atomic<bool> bStop{false};
    std::atomic<unsigned int> delivered{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            MSG_COMMON* pMsg = NewMessage(MSG_USER + 1);
            while (!bStop) {
                delivered += IsReached(handle) ? 1 : 0;
                tq_MsgSendToAll(pMsg, false, kHigh);
                tq_MsgQSendToNamed(0, pMsg);
            }
            tq_free(pMsg);
        });
    }
    for (int round = 0; round < 100 || delivered == 0; ++round) {
        RecordingQueue queue;
        queue.Create(0);
        handle = queue.GetHandle();
        ASSERT_TRUE(queue.WaitForCount(2));
    }
    bStop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TEST(MsgQ, AQueueStaysUntilWhoSendsToItByItsHandleHasLeftIt) {
    test::Library library;
    std::atomic<unsigned int> handle{0};
    std::atomic<bool> bStop{false};
    std::atomic<unsigned int> delivered{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&, i] {
            while (!bStop) {
                delivered += tq_MsgCreateCommonAndSend(0, handle, MSG_USER, 0, 0, 0, false, i + 1) ? 1 : 0;
            }
        });
    }
    for (int round = 0; round < 500 || delivered == 0; ++round) {
        alignas(RecordingQueue) unsigned char place[sizeof(RecordingQueue)];
        auto* const pQueue = new (place) RecordingQueue;
        pQueue->Create(0);
        handle = pQueue->GetHandle();
        if (round % 2) {
            ASSERT_TRUE(pQueue->WaitForCount(2));
        }
        pQueue->~RecordingQueue();
        memset(place, 0xFF, sizeof(place)); // a sender that still used it would show
    }
    bStop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TEST(MsgQ, QueuesWhoseHandlesShareAPlaceAreAllReached) {
    test::Library library("[Handles]\nMaxHandle=100\n");
    RecordingQueue first("first");
    first.Create(0);
    std::vector<unsigned int> handles;
    while (unsigned int handle = tq_HandleGet()) {
        handles.push_back(handle);
    }
    tq_HandleRelease(first.GetHandle() + 65536); // any number is accepted, and given out in its turn
    RecordingQueue second("second");
    second.Create(0);
    ASSERT_EQ(first.GetHandle() + 65536, second.GetHandle());
    EXPECT_TRUE(IsReached(second.GetHandle()));
    ASSERT_TRUE(second.WaitForCount(2));
    EXPECT_TRUE(IsReached(first.GetHandle()));
    ASSERT_TRUE(first.WaitForCount(2));
    const unsigned int gone = first.GetHandle();
    first.Cleanup();
    EXPECT_FALSE(IsReached(gone));
    EXPECT_TRUE(IsReached(second.GetHandle())) << "found as before";
    ASSERT_TRUE(second.WaitForCount(3));
    for (unsigned int handle : handles) {
        tq_HandleRelease(handle);
    }
}

TEST(MsgQ, WakeUpsThatArePutOffComeAtTheEndOfTheScope) {
    test::Library library;
    std::vector<std::unique_ptr<RecordingQueue>> queues;
    for (int i = 0; i < 40; ++i) { // more than are put off
        queues.push_back(std::make_unique<RecordingQueue>(test::kRunning));
        ASSERT_TRUE(queues.back()->WaitForCount(1)); // MSG_CREATE
    }
    for (unsigned int round = 0; round < 20; ++round) {
        {
            const tq_WakeQueuesLater later;
            for (const auto& pQueue : queues) {
                for (unsigned int i = 0; i < 3; ++i) {
                    EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, pQueue->GetHandle(), MSG_USER, i, 0, 0, false, 2));
                }
            }
        }
        for (const auto& pQueue : queues) {
            ASSERT_TRUE(pQueue->WaitForCount(1 + 3 * (round + 1)));
        }
    }
}

TEST(MsgQ, AQueueWhoseWakeUpIsPutOffEndsAfterIt) {
    test::Library library;
    for (int round = 0; round < 50; ++round) {
        RecordingQueue queue(test::kRunning);
        ASSERT_TRUE(queue.WaitForCount(1));
        std::thread ending;
        {
            const tq_WakeQueuesLater later;
            EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, queue.GetHandle(), MSG_USER, 7, 0, 0, false, 2));
            ending = std::thread([&queue] { queue.Cleanup(); });
        }
        ending.join();
        ASSERT_LE(2u, queue.Seen().size());
        EXPECT_EQ(7u, queue.Seen()[1].instance);
    }
}

TEST(MsgQ, LateSendersFindNothingWhileTheLibraryStopsAndStarts) {
    std::atomic<bool> bStop{false};
    std::vector<std::thread> senders;
    test::ScratchDirectory directory;
    for (int i = 0; i < 2; ++i) {
        senders.emplace_back([&] {
            MSG_COMMON msg = {0, 2, sizeof(MSG_COMMON), MSG_USER, 0, 0, 0};
            while (!bStop) {
                msg.hDest = msg.hDest % 100 + 1;
                MSG_COMMON unsent = msg;
                unsent.hDest = 0; // no queue has it
                EXPECT_FALSE(tq_MsgSend(&unsent, false, kMedium));
            }
        });
    }
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(0u, tqOS_Initialize());
        {
            RecordingQueue queue;
            queue.Create(0);
            tqOS_Terminate(false, /*bWaitForThreads=*/round % 2 == 0);
            EXPECT_EQ((Commands{MSG_CREATE, MSG_DESTROY}), queue.Commands());
        }
    }
    bStop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
}
