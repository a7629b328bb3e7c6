#include "tq_MsgQ_p.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdio.h>
#include <string.h>
#include <string>
#include <thread>
#include <time.h>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleSession.h"
#include "MemoryCap.h"
#include "TestSupport.h"
#include "tqos.h"

namespace {

using Responses = std::vector<std::string>;

const std::string kHeader = "QueueId  Depth   TID      Queue Name           Queue Description\r\n"
                            "-------- ----- ---------- -------------------- ------------------------------\r\n";
const std::string kHistory = "Historical queue commands: (oldest to most recent)";
const std::string kNoHigh = "No High Priority Messages enqueued.";
const std::string kNoMedium = "No Medium Priority Messages enqueued.";
const std::string kNoLow = "No Low Priority Messages enqueued.";
const std::string kNoSuchQueue = "Could not find the queue id specified.";

/// A queue that counts what its handler sees, and whose worker can be held inside the handler.
class CountingQueue : public tq_MsgQ {
public:
    explicit CountingQueue(const char* name = "Counter") : tq_MsgQ(name, "counts what it sees") {}
    ~CountingQueue() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_count;
        m_bHeld = pMsg->command == kHold;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_bHeld; });
        tq_free(pMsg);
    }

    bool Post(unsigned int command, int iPriority = TQ_MSG_PRIORITY_MEDIUM, unsigned int instance = 0) {
        return tq_MsgCreateCommonAndSend(0, GetHandle(), command, instance, 0, 0, false, iPriority);
    }

    void CreateAndWait() {
        Create(0);
        ASSERT_TRUE(WaitForCount(1));
    }

    bool WaitForCount(unsigned int count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kLimit, [this, count] { return m_count >= count; });
    }

    /// Returns once the worker is held; what is sent from then on stays queued until LetGo().
    void Hold() {
        ASSERT_TRUE(Post(kHold));
        std::unique_lock<std::mutex> lock(m_mutex);
        ASSERT_TRUE(m_changed.wait_for(lock, kLimit, [this] { return m_bHeld; }));
    }
    void LetGo() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bHeld = false;
        m_changed.notify_all();
    }

private:
    static constexpr unsigned int kHold = MSG_USER + 9000;
    static constexpr std::chrono::seconds kLimit{30}; // only a hang reaches it

    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned int m_count = 0;
    bool m_bHeld = false;
};

/// The table; "(null)" when none was given.
std::string Summary(unsigned int instance = 0) {
    char* pszText = nullptr;
    tq_MsgQShowQueues(instance, &pszText, 0, nullptr);
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

std::string Padded(const std::string& text, size_t width) {
    return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
}

/// Locks nothing: the worker of the queue has begun, and nobody renames it.
std::string Row(tq_MsgQ& queue, unsigned int depth, const std::string& name, const std::string& description) {
    return Padded(std::to_string(queue.GetHandle()), 8) + " " + Padded(std::to_string(depth), 5) + " " +
           Padded(std::to_string(tq_MsgQInside::ThreadId(queue)), 10) + " " + Padded(name, 20) + " " +
           Padded(description, 30) + "\r\n";
}

/// A created queue whose worker is held.
struct HeldQueue {
    explicit HeldQueue(const char* pszName = "Counter") : queue(pszName) {
        queue.Create(0);
        queue.Hold();
    }
    ~HeldQueue() { queue.LetGo(); }
    CountingQueue queue;
};

std::string Label(int command) {
    char label[TQ_MSG_LABEL_BYTES];
    memset(label, 'x', sizeof(label));
    const int length = translate_command(command, label);
    EXPECT_EQ(static_cast<size_t>(length), strlen(label));
    return label;
}

std::string NameOf(unsigned int handle) {
    char* pszName = tq_MsgQGetNameFromId(handle);
    const std::string name = pszName ? pszName : "(null)";
    tq_free(pszName);
    return name;
}

class QueueReport : public testing::Test {
protected:
    test::Library m_library{"[Memory]\nEnableMemoryTracking=yes\n"};
    test::ConsoleSession m_session;

    Responses Details(const std::string& command) {
        return m_session.ResponsesTo([&command](unsigned int instance) {
            std::string words = command;
            char* pszResponse = reinterpret_cast<char*>(1);
            tq_MsgQShowQueues(instance, &pszResponse, 1, words.data());
            EXPECT_EQ(nullptr, pszResponse);
        });
    }
    Responses Details(tq_MsgQ& queue) { return Details(std::to_string(queue.GetHandle())); }

    Responses SetHistory(const std::string& command) {
        return m_session.ResponsesTo([&command](unsigned int instance) {
            std::string words = command;
            tq_MsgqSetHistory(instance, words.data());
        });
    }
};

} // namespace

// Names

TEST(QueueNames, AQueueIsFoundByItsNameInAnyCaseAndTheFirstCreatedWins) {
    test::Library library;
    CountingQueue other("Window");
    CountingQueue second("DOOR");
    CountingQueue first("Door");
    for (CountingQueue* pQueue : {&other, &first, &second}) {
        pQueue->Create(0);
    }
    EXPECT_EQ(first.GetHandle(), tq_MsgQGetIdFromName("dOOr"));
    EXPECT_EQ(other.GetHandle(), tq_MsgQGetIdFromName("window"));
    EXPECT_EQ(0u, tq_MsgQGetIdFromName("Doo"));
    EXPECT_EQ(0u, tq_MsgQGetIdFromName("Doors"));
    first.Cleanup();
    EXPECT_EQ(second.GetHandle(), tq_MsgQGetIdFromName("door"));
}

TEST(QueueNames, NoNameIsFoundAndTheRegistryIsNotTouchedForIt) {
    test::Library library;
    CountingQueue nameless("");
    nameless.Create(0);
    EXPECT_EQ(0u, tq_MsgQGetIdFromName(nullptr));
    unsigned int found = 1;
    {
        const tq_ListLock held(gpListOfQs); // another thread's search would wait here
        std::thread([&found] { found = tq_MsgQGetIdFromName(""); }).join();
    }
    EXPECT_EQ(0u, found);
}

TEST(QueueNames, AQueueWithoutANameIsPassedOverAndGivesNull) {
    test::Library library;
    CountingQueue unnamed("Door");
    unnamed.Create(0);
    unnamed.SetName(nullptr);
    CountingQueue named("Door");
    named.Create(0);
    EXPECT_EQ(named.GetHandle(), tq_MsgQGetIdFromName("Door"));
    EXPECT_EQ("(null)", NameOf(unnamed.GetHandle()));
    EXPECT_EQ("Door", NameOf(named.GetHandle()));
    EXPECT_EQ("(null)", NameOf(0));
    EXPECT_EQ("(null)", NameOf(named.GetHandle() + 100000));
}

TEST(QueueNames, ANameIsACopyOfAnyLength) {
    test::Library library;
    const std::string name(65000, 'n');
    CountingQueue queue(name.c_str());
    queue.Create(0);
    char* pszName = tq_MsgQGetNameFromId(queue.GetHandle());
    queue.SetName("short");
    EXPECT_EQ(name, pszName);
    tq_free(pszName);
    EXPECT_EQ(0u, tq_MsgQGetIdFromName(name.c_str()));
}

TEST(QueueNames, AQueueThatIsNotCreatedOrHasEndedHasNone) {
    test::Library library;
    CountingQueue queue("Door");
    EXPECT_EQ(0u, tq_MsgQGetIdFromName("Door"));
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    queue.Destroy(false);
    EXPECT_EQ(0u, tq_MsgQGetIdFromName("Door"));
    EXPECT_EQ("(null)", NameOf(handle));
}

TEST(QueueNames, WithoutTheLibraryNothingIsFound) {
    EXPECT_EQ(0u, tq_MsgQGetIdFromName("Door"));
    EXPECT_EQ(nullptr, tq_MsgQGetNameFromId(1));
}

// Messages as text

TEST(MessageText, EveryCommandHasItsLabel) {
    const struct {
        int command;
        const char* pszLabel;
    } rows[] = {
        {1, "  command:  MSG_CREATE"},
        {2, "  command:  MSG_DESTROY"},
        {256, "  command:  MSG_TIMER"},
        {512, "  command:  MSG_SOCKET_CONNECTED"},
        {513, "  command:  MSG_SOCKET_NEW_CONNECTION"},
        {514, "  command:  MSG_SOCKET_DATASTREAM"},
        {515, "  command:  MSG_SOCKET_DATAGRAM"},
        {516, "  command:  MSG_SOCKET_CLOSED"},
        {517, "  command:  MSG_SOCKET_NEW_INTERFACES"},
        {518, "  command:  MSG_SOCKET_WRITEABLE"},
        {768, "  command:  MSG_TELNET_RESPONSE"},
        {769, "  command:  MSG_TELNET_SUMMARY"},
        {770, "  command:  MSG_TELNET_CUSTOM"},
        {0, "  command:  0"},
        {3, "  command:  3"},
        {519, "  command:  519"},
        {65535, "  command:  65535"},
        {65536, "  command:  MSG_USER+0"},
        {65537, "  command:  MSG_USER+1"},
        {0x7FFFFFFF, "  command:  MSG_USER+2147418111"},
        {-1, "  command:  4294967295"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.pszLabel, Label(row.command));
    }
}

TEST(MessageText, NoBufferGetsNoLabel) {
    EXPECT_EQ(0, translate_command(MSG_TIMER, nullptr));
}

TEST(MessageText, ADumpShowsTheWholeHeader) {
    MSG_COMMON msg = {11, 22, 33, MSG_TIMER, 44, 55, 66};
    char dump[TQ_MSG_DUMP_BYTES];
    DumpMsgToBuf(&msg, dump);
    EXPECT_STREQ(" hSource: 11\r\n  hDest:   22\r\n  size:    33\r\n  command:  MSG_TIMER\r\n"
                 "  instance: 44\r\n  userparm: 55\r\n  flags:    66\r\n\r\n",
                 dump);
}

TEST(MessageText, TheLongestDumpFitsItsBuffer) {
    const unsigned int most = 0xFFFFFFFF;
    MSG_COMMON msg = {most, most, most, MSG_SOCKET_NEW_CONNECTION, most, most, most};
    const std::unique_ptr<char[]> dump(new char[TQ_MSG_DUMP_BYTES]); // the address sanitizer looks at its end
    DumpMsgToBuf(&msg, dump.get());
    EXPECT_LT(strlen(dump.get()), static_cast<size_t>(TQ_MSG_DUMP_BYTES));
}

TEST(MessageText, NothingIsDumpedWithoutAMessageOrABuffer) {
    char dump[TQ_MSG_DUMP_BYTES] = "as it was";
    DumpMsgToBuf(nullptr, dump);
    EXPECT_STREQ("as it was", dump);
    MSG_COMMON msg = {};
    DumpMsgToBuf(&msg, nullptr);
}

// The table

TEST(QueueTable, WithoutAQueueItSaysSo) {
    test::Library library;
    EXPECT_EQ("No Queues currently exist...", Summary());
    tq_MsgQShowQueues(0, nullptr, 0, nullptr); // nowhere to put it
    library.Terminate();
    EXPECT_EQ("No Queues currently exist...", Summary());
}

TEST(QueueTable, ARowAQueueInOrderOfCreation) {
    test::Library library;
    HeldQueue held("Door");
    ASSERT_TRUE(held.queue.Post(MSG_USER, TQ_MSG_PRIORITY_HIGH));
    ASSERT_TRUE(held.queue.Post(MSG_USER, TQ_MSG_PRIORITY_MEDIUM));
    ASSERT_TRUE(held.queue.Post(MSG_USER, TQ_MSG_PRIORITY_MEDIUM));
    ASSERT_TRUE(held.queue.Post(MSG_USER, TQ_MSG_PRIORITY_LOW));
    CountingQueue bare;
    bare.CreateAndWait();
    bare.SetName(nullptr);
    bare.SetDescription(nullptr);
    EXPECT_EQ(kHeader + Row(held.queue, 4, "Door", "counts what it sees") + Row(bare, 0, "(unnamed)", ""), Summary());
}

TEST(QueueTable, NamesLongerThanTheirColumnsAreShownWhole) {
    test::Library library;
    const std::string name(65000, 'n');
    const std::string description = std::string(64000, 'd') + "%s%n";
    std::vector<std::unique_ptr<CountingQueue>> queues;
    std::string expected = kHeader;
    for (int i = 0; i < 5; ++i) {
        queues.push_back(std::make_unique<CountingQueue>(name.c_str()));
        queues.back()->SetDescription(description.c_str());
        queues.back()->CreateAndWait();
        expected += Row(*queues.back(), 0, name, description);
    }
    EXPECT_EQ(expected, Summary());
}

TEST(QueueTable, WithoutMemoryThereIsNone) {
    test::Library library(test::kCapped);
    CountingQueue queue;
    queue.CreateAndWait();
    ASSERT_TRUE(test::WaitUntilOthersSleep());
    const test::Cap cap(0); // every allocation is refused
    EXPECT_EQ("(null)", Summary());
}

// One queue

TEST_F(QueueReport, AQueueWithoutHistoryAndMessagesIsThreeLines) {
    HeldQueue held;
    EXPECT_EQ((Responses{kNoHigh, kNoMedium, kNoLow}), Details(held.queue));
}

TEST_F(QueueReport, AHistoryOfFourShowsTheLastFourCommandsOldestFirst) {
    CountingQueue queue;
    queue.SetHistory(4);
    queue.Create(0);
    for (unsigned int command : {256u, 512u, 513u, 514u}) {
        ASSERT_TRUE(queue.Post(command));
    }
    ASSERT_TRUE(queue.WaitForCount(5));
    EXPECT_EQ((Responses{kHistory, "  command:  MSG_TIMER", "  command:  MSG_SOCKET_CONNECTED",
                         "  command:  MSG_SOCKET_NEW_CONNECTION", "  command:  MSG_SOCKET_DATASTREAM", "\r\n", kNoHigh,
                         kNoMedium, kNoLow}),
              Details(queue));
}

TEST_F(QueueReport, AHistoryThatHasNotWrappedShowsWhatThereIs) {
    CountingQueue queue;
    queue.SetHistory(10);
    queue.CreateAndWait();
    EXPECT_EQ((Responses{kHistory, "  command:  MSG_CREATE", "\r\n", kNoHigh, kNoMedium, kNoLow}), Details(queue));
}

TEST_F(QueueReport, AFullHistoryThatGrowsShowsItsCommandsAndNoEmptyOnes) {
    CountingQueue queue;
    queue.CreateAndWait();
    queue.SetHistory(3);
    for (int command = 3; command <= 6; ++command) {
        queue.AddToHistory(command);
    }
    queue.SetHistory(6);
    queue.AddToHistory(7);
    EXPECT_EQ((Responses{kHistory, "  command:  4", "  command:  5", "  command:  6", "  command:  7", "\r\n", kNoHigh,
                         kNoMedium, kNoLow}),
              Details(queue));
}

TEST_F(QueueReport, AGrownHistoryThatHadNotWrappedShowsUnwrittenPlacesAsCommandZero) {
    CountingQueue queue;
    queue.CreateAndWait();
    queue.SetHistory(4);
    queue.AddToHistory(5);
    queue.AddToHistory(6);
    queue.SetHistory(6);
    EXPECT_EQ((Responses{kHistory, "  command:  0", "  command:  0", "\r\n", kNoHigh, kNoMedium, kNoLow}),
              Details(queue));
    queue.AddToHistory(7);
    queue.AddToHistory(8);
    EXPECT_EQ((Responses{kHistory, "  command:  0", "  command:  0", "  command:  7", "  command:  8", "\r\n", kNoHigh,
                         kNoMedium, kNoLow}),
              Details(queue));
}

TEST_F(QueueReport, EveryWaitingMessageIsDumpedInTheOrderOfItsList) {
    HeldQueue held;
    const std::string dest = std::to_string(held.queue.GetHandle());
    const auto dump = [&dest](const char* pszCommand, int instance) {
        return " hSource: 0\r\n  hDest:   " + dest + "\r\n  size:    28\r\n  command:  " + pszCommand +
               "\r\n  instance: " + std::to_string(instance) + "\r\n  userparm: 0\r\n  flags:    0\r\n\r\n";
    };
    ASSERT_TRUE(held.queue.Post(MSG_USER + 7, TQ_MSG_PRIORITY_LOW, 1));
    ASSERT_TRUE(held.queue.Post(MSG_TIMER, TQ_MSG_PRIORITY_MEDIUM, 2));
    ASSERT_TRUE(held.queue.Post(300, TQ_MSG_PRIORITY_MEDIUM, 3));
    ASSERT_TRUE(held.queue.Post(MSG_SOCKET_CLOSED, TQ_MSG_PRIORITY_HIGH, 4));
    EXPECT_EQ((Responses{"High Priority Message Queue Details...", dump("MSG_SOCKET_CLOSED", 4),
                         "Medium Priority Message Queue Details...", dump("MSG_TIMER", 2), dump("300", 3),
                         "Low Priority Message Queue Details...", dump("MSG_USER+7", 1)}),
              Details(held.queue));
    EXPECT_EQ(4u, held.queue.GetQueueDepth(0));
}

TEST_F(QueueReport, WhatIsNoQueueIsAnswered) {
    CountingQueue queue("Door");
    queue.CreateAndWait();
    EXPECT_EQ(Responses{"Missing queue id."}, Details(""));
    EXPECT_EQ(Responses{"Missing queue id."}, Details("   \t "));
    EXPECT_EQ(Responses{"Invalid queue id specified."}, Details("0"));
    EXPECT_EQ(Responses{"Invalid queue id specified."}, Details("Door")); // only the handle counts here
    EXPECT_EQ(Responses{kNoSuchQueue}, Details("99999999"));
    EXPECT_EQ(Responses{kNoSuchQueue}, Details("99999999999999999999999"));
    EXPECT_EQ(Responses{kNoSuchQueue}, Details("-1"));
    EXPECT_EQ(Responses{"Missing queue id."}, m_session.ResponsesTo([](unsigned int instance) {
        tq_MsgQShowQueues(instance, nullptr, 1, nullptr); //
    }));
}

TEST_F(QueueReport, TheConsolesOwnQueueIsNotDumped) {
    EXPECT_EQ(Responses{"Cannot dump the details of the internal TQOS Telnet message queue!\r\n"},
              Details(std::to_string(tq_ConsoleQueueHandle())));
}

TEST_F(QueueReport, AnotherFlagThanDetailAsksForTheTable) {
    char* pszText = nullptr;
    std::string words = "1";
    tq_MsgQShowQueues(m_session.Instance(), &pszText, 6, words.data());
    ASSERT_NE(nullptr, pszText);
    EXPECT_EQ(kHeader, std::string(pszText).substr(0, kHeader.size()));
    tq_free(pszText);
}

// The history from the console

TEST_F(QueueReport, AHistoryIsSetByHandleOrNameWithinItsBounds) {
    CountingQueue queue("Front Door");
    CountingQueue plain("Door");
    queue.CreateAndWait();
    plain.CreateAndWait();
    const std::string handle = std::to_string(plain.GetHandle());
    const struct {
        std::string command;
        const char* pszAnswer;
        int depth;
    } rows[] = {
        {handle + " 7", "Queue History set to 7.", 7},
        {handle + " 150", "Queue History set to 100.", 100},
        {handle + " 0", "Queue History disabled.", 0},
        {"dOOr 12", "Queue History set to 12.", 12},
        {"Door", "Queue History disabled.", 0},
        {"Door 100", "Queue History set to 100.", 100},
        {"Door -5", "Queue History disabled.", 0},
        {"Door 101", "Queue History set to 100.", 100},
        {"Door 99999999999999999999", "Queue History set to 100.", 100},
        {"Door many", "Queue History disabled.", 0},
        {"  \tDoor \t 1 2 3", "Queue History set to 1.", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        EXPECT_EQ(Responses{row.pszAnswer}, SetHistory(row.command));
        plain.Lock();
        EXPECT_EQ(row.depth, tq_MsgQInside::HistorySize(plain));
        plain.Unlock();
    }
    EXPECT_EQ(0, tq_MsgQInside::HistorySize(queue));
}

TEST_F(QueueReport, AHistoryOfNoQueueIsAnswered) {
    for (const char* pszCommand : {"", "  ", "Nobody 5", "0 5", "99999999 5"}) {
        SCOPED_TRACE(pszCommand);
        EXPECT_EQ(Responses{kNoSuchQueue}, SetHistory(pszCommand));
    }
}

// Many queues

TEST(QueueRegistry, AQueueIsFoundByItsHandleAmongOthersOfTheSameBucket) {
    test::Library library;
    std::vector<QUEUE_DETAILS> entries(3 * 4096);
    CountingQueue queue;
    queue.CreateAndWait();
    const tq_ListLock held(gpListOfQs);
    unsigned int handle = 5000000;
    for (QUEUE_DETAILS& entry : entries) {
        entry = {handle++, &queue};
        gpListOfQs->AddToTail(&entry);
    }
    for (QUEUE_DETAILS& entry : entries) {
        ASSERT_EQ(&entry, tq_MsgQFindLocked(entry.hSource));
    }
    EXPECT_EQ(nullptr, tq_MsgQFindLocked(handle));
    for (; handle > 5000000; --handle) {
        gpListOfQs->RemoveTail();
        ASSERT_EQ(nullptr, tq_MsgQFindLocked(handle - 1));
    }
    EXPECT_EQ(&queue, tq_MsgQFindLocked(queue.GetHandle())->pMsgQ);
}

TEST(QueueRegistry, AQueueIsNotCreatedWithoutMemoryForAnyPartOfItsEntry) {
    test::Library library(test::kCapped);
    CountingQueue first;
    first.CreateAndWait();
    bool bCreated = false;
    for (unsigned int bytes = 0; !bCreated && bytes < 4096; bytes += 8) {
        CountingQueue queue;
        {
            const test::Cap cap(bytes);
            queue.Create(0);
        }
        const unsigned int handle = queue.GetHandle();
        bCreated = handle != 0;
        const tq_ListLock held(gpListOfQs);
        EXPECT_EQ(bCreated ? 2u : 1u, gpListOfQs->NodeCount());
        EXPECT_EQ(bCreated, handle != 0 && tq_MsgQFindLocked(handle) != nullptr);
    }
    EXPECT_TRUE(bCreated);
}

TEST(QueueRegistry, WithoutMemoryForTheRegistryOrItsHashThereIsNone) {
    test::Library library(test::kCapped);
    tq_MsgQRegistryClose();
    const unsigned int before = test::AllocatedBytes();
    bool bOpen = false;
    unsigned int refused = 0;
    for (unsigned int bytes = 0; !bOpen && bytes < 0x100000; bytes += bytes < 1024 ? 32 : 2048) {
        {
            const test::Cap cap(bytes);
            bOpen = tq_MsgQRegistryOpen();
        }
        ASSERT_EQ(bOpen, gpListOfQs != nullptr);
        ASSERT_TRUE(bOpen || test::AllocatedBytes() == before);
        refused += bOpen ? 0 : 1;
    }
    EXPECT_TRUE(bOpen);
    EXPECT_GT(refused, 40u); // the hash alone takes as many steps
    CountingQueue queue;
    queue.CreateAndWait();
    EXPECT_TRUE(queue.Post(MSG_USER));
}

TEST_F(QueueReport, ReportsStayWholeWhileQueuesComeAndGoAndAreSentTo) {
    std::atomic<bool> bGoOn{true};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&bGoOn, thread] {
            for (unsigned int round = 0; bGoOn; ++round) {
                const std::string name = "Busy" + std::to_string(thread) + std::string(round % 300, '.');
                CountingQueue queue(name.c_str());
                queue.SetHistory(static_cast<int>(round % 9));
                queue.Create(0);
                for (int i = 0; i < 20; ++i) {
                    queue.Post(MSG_USER, i % 4);
                }
                queue.SetName("Renamed");
                queue.SetDescription(name.c_str());
                queue.SetHistory(static_cast<int>(round % 5));
            }
        });
    }
    HeldQueue held("Still");
    for (int i = 0; i < 40; ++i) {
        const std::string table = Summary();
        EXPECT_EQ(kHeader, table.substr(0, kHeader.size()));
        EXPECT_NE(std::string::npos, table.find(Row(held.queue, 0, "Still", "counts what it sees")));
        EXPECT_FALSE(Details(std::to_string(tq_MsgQGetIdFromName("Renamed"))).empty());
        EXPECT_EQ((Responses{kNoHigh, kNoMedium, kNoLow}), Details(held.queue));
        EXPECT_EQ(1u, SetHistory("renamed 10").size());
    }
    bGoOn = false;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(QueueRegistry, ASendToOneOfManyQueuesCostsAboutWhatASendToOneOfFewDoes) {
    test::Library library;
    CountingQueue queue;
    queue.CreateAndWait();
    std::vector<QUEUE_DETAILS> entries(10000);
    const tq_ListLock held(gpListOfQs);
    const auto finds = [](unsigned int handle) {
        struct timespec begin, end;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
        for (int i = 0; i < 20000; ++i) {
            EXPECT_NE(nullptr, tq_MsgQFindLocked(handle));
        }
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        return (end.tv_sec - begin.tv_sec) * 1000000000ll + (end.tv_nsec - begin.tv_nsec);
    };
    const long long few = finds(queue.GetHandle());
    unsigned int handle = 5000000;
    for (QUEUE_DETAILS& entry : entries) {
        entry = {handle++, &queue};
        gpListOfQs->AddToTail(&entry);
    }
    const long long many = finds(handle - 1);
    while (gpListOfQs->NodeCount() > 1) {
        gpListOfQs->RemoveTail();
    }
    EXPECT_LT(many, 50 * few); // a walk takes thousands of times as long
}
