#include "tq_LockOrder_p.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <signal.h>
#include <sstream>
#include <stdio.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tq_MsgQ_p.h"
#include "tq_SemMutex.h"
#include "tq_Thread_p.h"
#include "tq_Timer_p.h"
#include "tqos.h"

#ifdef __SANITIZE_THREAD__
// The crash report does in a signal handler what a sanitizer calls unsafe there.
extern "C" __attribute__((used, visibility("default"))) const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace {

#ifdef TQOS_LOCK_ORDER

std::string Name(tq_LockRank rank) {
    return tq_LockOrderName(rank);
}

std::string Message(tq_LockRank taken, tq_LockRank held) {
    return "tqos: locks out of order: \"" + Name(taken) + "\" (" + std::to_string(static_cast<int>(taken)) +
           ") is taken while \"" + Name(held) + "\" (" + std::to_string(static_cast<int>(held)) + ") is held\n";
}

/// What the child process says when it ends by an abort; anything else fails the test.
std::string LastWords(const std::function<void()>& body) {
    const test::ChildResult child = test::RunInChild(body);
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(SIGABRT, child.code);
    return child.standardError.substr(0, child.standardError.find('\n') + 1);
}

/// A lock of a test's own: something to be told apart by, and its place.
struct Lock {
    explicit Lock(tq_LockRank rank) { tq_LockOrderPlace(this, rank); }
    ~Lock() { tq_LockOrderForget(this); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void Take() const {
        tq_LockOrderCheckPlaced(this);
        tq_LockOrderTakePlaced(this);
    }
    void Give() const { tq_LockOrderGive(this); }
    char tellsItApart = 0;
};

/// The rows of the table in the documents: what stands in the column of locks, by number, without its back quotes.
std::map<int, std::string> DocumentedLocks() {
    std::map<int, std::string> locks;
    std::istringstream document(test::ReadFile(TQOS_TEST_SOURCES "/../docs/locking.md"));
    for (std::string line; std::getline(document, line);) {
        int number = 0;
        int begin = 0;
        if (sscanf(line.c_str(), "| %d | %n", &number, &begin) == 1 && begin != 0) {
            std::string name = line.substr(begin, line.find(" |", begin) - begin);
            name.erase(std::remove(name.begin(), name.end(), '`'), name.end());
            locks[number] = name;
        }
    }
    return locks;
}

TEST(LockOrder, TheNamesAndNumbersAreThoseOfTheDocumentedTable) {
    const std::map<int, std::string> locks = DocumentedLocks();
    EXPECT_EQ(static_cast<size_t>(tq_LockRank::kTrackedWaits), locks.size());
    for (const auto& [number, name] : locks) {
        EXPECT_EQ(0u, name.find(Name(static_cast<tq_LockRank>(number)))) << number << " " << name;
    }
}

TEST(LockOrder, LocksTakenInTheirOrderAreTaken) {
    std::vector<std::unique_ptr<Lock>> locks;
    for (int rank = 1; rank <= static_cast<int>(tq_LockRank::kLeaf); ++rank) {
        locks.push_back(std::make_unique<Lock>(static_cast<tq_LockRank>(rank)));
        locks.back()->Take();
    }
    for (const std::unique_ptr<Lock>& lock : locks) {
        lock->Give();
    }
}

TEST(LockOrder, EveryStepOutwardsEndsTheProcessAndNamesBothLocks) {
    for (int rank = 2; rank <= static_cast<int>(tq_LockRank::kLeaf); ++rank) {
        const Lock outer(static_cast<tq_LockRank>(rank - 1));
        const Lock inner(static_cast<tq_LockRank>(rank));
        EXPECT_EQ(Message(static_cast<tq_LockRank>(rank - 1), static_cast<tq_LockRank>(rank)), LastWords([&] {
                      inner.Take();
                      outer.Take();
                  }));
    }
}

TEST(LockOrder, TheOutermostOfManyLocksCountsAlthoughItWasNotTakenLast) {
    const Lock first(tq_LockRank::kQueue);
    const Lock second(tq_LockRank::kThreads);
    const Lock third(tq_LockRank::kQueues);
    EXPECT_EQ(Message(tq_LockRank::kQueues, tq_LockRank::kThreads), LastWords([&] {
                  first.Take();
                  second.Take();
                  first.Give();
                  third.Take();
              }));
}

TEST(LockOrder, ALockMayBeTakenAgainWhateverIsHeldAndIsHeldUntilItsLastLeave) {
    const Lock outer(tq_LockRank::kTimers);
    const Lock inner(tq_LockRank::kQueues);
    const Lock between(tq_LockRank::kSockets);
    outer.Take();
    inner.Take();
    outer.Take();
    outer.Give();
    inner.Give();
    between.Take(); // as the inner one is no longer held
    between.Give();
    const Lock outermost(tq_LockRank::kLazyStart);
    EXPECT_EQ(Message(tq_LockRank::kLazyStart, tq_LockRank::kTimers), LastWords([&] { outermost.Take(); }));
    outer.Give();
    outermost.Take();
    outermost.Give();
}

TEST(LockOrder, TwoLocksOfOnePlaceAreOutOfOrderButForPoolsInAscendingOrder) {
    const Lock queues[2] = {Lock(tq_LockRank::kQueue), Lock(tq_LockRank::kQueue)};
    EXPECT_EQ(Message(tq_LockRank::kQueue, tq_LockRank::kQueue), LastWords([&queues] {
                  queues[0].Take();
                  queues[1].Take();
              }));
    for (unsigned int pool = 0; pool < 40; ++pool) { // the thread sanitizer can follow 64
        PoolCritSec[pool].EnterCritSec();
    }
    for (unsigned int pool = 0; pool < 40; ++pool) {
        PoolCritSec[pool].LeaveCritSec();
    }
    EXPECT_EQ(Message(tq_LockRank::kMemoryPool, tq_LockRank::kMemoryPool), LastWords([] {
                  PoolCritSec[1].EnterCritSec();
                  PoolCritSec[0].EnterCritSec();
              }));
}

TEST(LockOrder, WhatHasNoPlaceIsNotLookedAt) {
    tq_PlacedMutex leaf(tq_LockRank::kLeaf);
    const std::lock_guard<tq_PlacedMutex> lock(leaf);
    tq_SemCritSec section(true);
    const tq_CritSecLock held(section);
    const Lock forgotten(tq_LockRank::kConsoleStart);
    tq_LockOrderForget(&forgotten);
    forgotten.Take();
    forgotten.Give();
    tq_LockOrderPlace(nullptr, tq_LockRank::kConsoleStart);
    tq_LockOrderTakePlaced(nullptr);
    tq_LockOrderForget(nullptr);
}

TEST(LockOrder, AThreadMayBeLeftUncheckedForAScope) {
    const Lock outer(tq_LockRank::kQueues);
    const Lock inner(tq_LockRank::kQueue);
    inner.Take();
    {
        const tq_LockOrderUnchecked unchecked;
        outer.Take();
        outer.Give();
    }
    EXPECT_EQ(Message(tq_LockRank::kQueues, tq_LockRank::kQueue), LastWords([&outer] { outer.Take(); }));
    {
        const tq_LockOrderUnchecked unchecked;
        inner.Give(); // what was taken before is left all the same
    }
    outer.Take();
    outer.Give();
}

TEST(LockOrder, ASectionLosesItsPlaceWithItsEnd) {
    alignas(tq_SemCritSec) char storage[sizeof(tq_SemCritSec)];
    tq_SemCritSec* pSection = new (storage) tq_SemCritSec(true);
    tq_LockOrderPlace(pSection, tq_LockRank::kConsoleStart);
    pSection->~tq_SemCritSec();
    pSection = new (storage) tq_SemCritSec(true);
    tq_PlacedMutex leaf(tq_LockRank::kLeaf);
    {
        const std::lock_guard<tq_PlacedMutex> lock(leaf);
        const tq_CritSecLock held(pSection);
    }
    pSection->~tq_SemCritSec();
}

TEST(LockOrder, ManyLocksMayComeAndGo) {
    std::vector<char> others(100000);
    for (int round = 0; round < 20; ++round) {
        for (const char& other : others) { // more than there is room for
            tq_LockOrderPlace(&other, tq_LockRank::kQueue);
        }
        for (const char& other : others) {
            tq_LockOrderForget(&other);
        }
    }
    const Lock inner(tq_LockRank::kQueue);
    const Lock outer(tq_LockRank::kQueues);
    EXPECT_EQ(Message(tq_LockRank::kQueues, tq_LockRank::kQueue), LastWords([&] {
                  inner.Take();
                  outer.Take();
              }));
}

// The library's own locks

class BareQueue : public tq_MsgQ {
public:
    BareQueue() : tq_MsgQ("Bare", nullptr) {}
    ~BareQueue() override { Cleanup(); }
};

struct OwnLockRow {
    tq_LockRank taken;
    tq_LockRank held;
    std::function<void()> body;
};

void PlantInversions(const std::string& ini) {
    const OwnLockRow rows[] = {
        {tq_LockRank::kTimers, tq_LockRank::kQueues,
         [] {
             const tq_ListLock lock(gpListOfQs);
             tq_TimerKill(17, 0, 0, 0);
         }},
        {tq_LockRank::kQueues, tq_LockRank::kQueue,
         [] {
             BareQueue queue;
             const tq_MsgQLock lock(queue);
             queue.SetDescription("from under its own lock");
         }},
        {tq_LockRank::kThreads, tq_LockRank::kListOfLists,
         [] {
             const tq_CritSecLock lock(gpListOfListsCritSec);
             char* pszThreads = nullptr;
             tq_ShowThreads(&pszThreads);
         }},
        {tq_LockRank::kListOfLists, tq_LockRank::kHandlesAndStrings,
         [] {
             const tq_ListLock lock(gpHandleList);
             gpHandleList->SetName("Handles");
         }},
        {tq_LockRank::kTraceInstances, tq_LockRank::kLeaf,
         [] {
             tq_PlacedMutex leaf(tq_LockRank::kLeaf);
             const std::lock_guard<tq_PlacedMutex> lock(leaf);
             tq_Trace(tq_TraceInitInstance("Own"), TQ_TRACE_LEVEL_CRITICAL, 1, false, "%s", "line");
         }},
        {tq_LockRank::kMemoryCounters, tq_LockRank::kTrackedWaits,
         [] {
             LockSemList();
             tq_free(tq_malloc(1));
         }},
        {tq_LockRank::kLazyStart, tq_LockRank::kTraceInstances,
         [] {
             const Lock trace(tq_LockRank::kTraceInstances);
             trace.Take();
             tq_TimerInitialize();
         }},
    };
    for (const OwnLockRow& row : rows) {
        EXPECT_EQ(Message(row.taken, row.held), LastWords([&row, &ini] {
                      test::Library library(ini);
                      tq_TimerKill(17, 0, 0, 0); // the timers have started
                      row.body();
                  }));
    }
}

TEST(LockOrder, AnInversionOfTheLibrarysOwnLocksIsCaughtThoughNobodyWaits) {
    PlantInversions("[Memory]\nEnableMemoryTracking=yes\nEnableHistogram=yes\n");
}

TEST(LockOrder, AnInversionIsCaughtWithPlainMutexesToo) {
    PlantInversions("[Memory]\nEnableMemoryTracking=yes\nEnableHistogram=yes\n[Sem]\nUseMutexForCritSec=no\n");
}

TEST(LockOrder, AnInversionIsCaughtBeforeTheLockIsWaitedFor) {
    EXPECT_EQ(Message(tq_LockRank::kQueues, tq_LockRank::kQueue), LastWords([] {
                  test::Library library;
                  const tq_ListLock lock(gpListOfQs);
                  std::thread other([] {
                      const Lock queue(tq_LockRank::kQueue);
                      queue.Take();
                      const tq_ListLock waits(gpListOfQs); // it would wait for ever
                  });
                  other.join();
              }));
}

TEST(LockOrder, ACrashUnderALockIsReportedAsAnyOther) {
    const test::ChildResult child = test::RunInChild([] {
        test::Library library("[Trace]\ntqos_DefaultLevel=All\n");
        const tq_CritSecLock lock(gpListOfListsCritSec); // the report takes locks that stand above it
        raise(SIGSEGV);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
    EXPECT_EQ(std::string::npos, (child.standardOut + child.standardError).find("out of order"));
    EXPECT_NE(std::string::npos, child.standardOut.find("tq_LockOrder_test")) << child.standardOut;
}

#else

TEST(LockOrder, OtherThanDebugBuildsHaveNothingOfIt) {
    EXPECT_EQ(sizeof(std::mutex), sizeof(tq_PlacedMutex));
    tq_PlacedMutex leaf(tq_LockRank::kLeaf);
    tq_PlacedMutex outermost(tq_LockRank::kConsoleStart);
    const std::lock_guard<tq_PlacedMutex> lock(leaf);
    const std::lock_guard<tq_PlacedMutex> against(outermost);
}

#endif

} // namespace
