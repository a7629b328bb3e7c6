#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include "LockRecords.h"
#include "SystemFaults.h"
#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_CriticalErrorTrace_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_List.h"
#include "tq_Memory_p.h"
#include "tq_SemCritSec.h"
#include "tq_SemMutex_p.h"
#include "tq_Thread.h"
#include "tq_Trace.h"

namespace {

/// What critical sections are built on, for the test's time.
class CritSecModes : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { gbUseMutexesForCritSecs = GetParam(); }
    void TearDown() override { gbUseMutexesForCritSecs = true; }
};
INSTANTIATE_TEST_SUITE_P(, CritSecModes, ::testing::Bool(),
                         [](const auto& mode) { return mode.param ? "OnSemMutex" : "OnPthreadMutex"; });

/// Plain mutexes for a scope.
class PthreadMode {
public:
    PthreadMode() { gbUseMutexesForCritSecs = false; }
    ~PthreadMode() { gbUseMutexesForCritSecs = true; }
};

/// Settings with tracked memory.
std::string TrackingIn(bool bOnSemMutex) {
    return std::string("[Memory]\nEnableMemoryTracking=yes\n[Sem]\nUseMutexForCritSec=") +
           (bOnSemMutex ? "yes\n" : "no\n");
}

} // namespace

TEST_P(CritSecModes, KeepsThreadsApart) {
    constexpr int kThreads = 4;
    constexpr int kTurns = 2000;
    tq_SemCritSec critSec(true);
    int turns = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < kTurns; ++turn) {
                tq_CritSecLock lock(critSec);
                ++turns;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kThreads * kTurns, turns);
}

TEST_P(CritSecModes, RecursiveSectionIsEnteredAgainByItsOwner) {
    tq_SemCritSec critSec(true);
    std::atomic<bool> bEntered{false};
    critSec.Enter();
    critSec.Enter();
    std::thread other([&] {
        critSec.Enter();
        bEntered = true;
        critSec.Leave();
    });
    critSec.Leave();
    EXPECT_FALSE(bEntered) << "one leave is still owed";
    critSec.Leave();
    other.join();
    EXPECT_TRUE(bEntered);
}

TEST_P(CritSecModes, WhoEntersNextMayDestroyItWhileTheOwnerBeforeIsLeaving) {
    for (int i = 0; i < 1000; ++i) {
        auto* pCritSec = new tq_SemCritSec(true);
        pCritSec->Enter();
        std::thread next([pCritSec] {
            pCritSec->Enter();
            pCritSec->Leave();
            delete pCritSec;
        });
        pCritSec->Leave();
        next.join();
    }
}

TEST(CritSec, OnPthreadMutexThatCouldNotBeMadeIsEnteredWithoutLocking) {
    PthreadMode mode;
    test::LockTracking tracking;
    test::Fault fault(test::gbMutexInitFails);
    tq_SemCritSec critSec(false);
    critSec.Enter();
    critSec.Enter();
    std::thread([&] {
        critSec.Enter();
        critSec.Leave();
    }).join();
    EXPECT_TRUE(test::LockRecords().empty());
    EXPECT_EQ(2u, tq_HeldLocks()) << "it counts as held all the same";
    critSec.Leave();
    critSec.Leave();
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST_P(CritSecModes, SectionGivesItsMemoryBack) {
    test::Library library(TrackingIn(GetParam()));
    const unsigned int before = gRequestedMemoryAllocations;
    {
        tq_SemCritSec critSec(true);
        EXPECT_LT(before, gRequestedMemoryAllocations);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    {
        test::Fault fault(test::gbMutexInitFails);
        tq_SemCritSec critSec(true);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations) << "also when its lock could not be made";
}

TEST_P(CritSecModes, SectionThatMemoryIsRefusedForIsEnteredWithoutLocking) {
    test::Library library(TrackingIn(GetParam()));
    ASSERT_EQ(GetParam(), gbUseMutexesForCritSecs);
    const unsigned int before = gRequestedMemoryAllocations;
    for (unsigned int room : {0u, static_cast<unsigned int>(sizeof(tq_SemMutex))}) {
        gMemoryCapInBytes = before + room;
        {
            tq_SemCritSec critSec(true);
            gMemoryCapInBytes = 0;
            critSec.Enter();
            EXPECT_EQ(1u, tq_HeldLocks()) << "it counts as held all the same";
            std::thread([&] {
                critSec.Enter();
                critSec.Leave();
            }).join();
            critSec.Leave();
        }
        EXPECT_EQ(before, gRequestedMemoryAllocations);
    }
}

TEST_P(CritSecModes, ForcedYieldFollowsEveryLeave) {
    tq_SemCritSec critSec(true);
    const unsigned int before = test::gYields;
    critSec.Enter();
    critSec.Leave();
    EXPECT_EQ(before, test::gYields);
    gbSchedYield = true;
    critSec.Enter();
    critSec.Leave();
    gbSchedYield = false;
    EXPECT_EQ(before + 1, test::gYields);
}

TEST_P(CritSecModes, ForcedYieldFollowsALeaveWithoutALockOnAPlainMutexOnly) {
    test::Library library(TrackingIn(GetParam()));
    gMemoryCapInBytes = 1;
    tq_SemCritSec critSec(true);
    gMemoryCapInBytes = 0;
    const unsigned int before = test::gYields;
    gbSchedYield = true;
    critSec.Enter();
    critSec.Leave();
    gbSchedYield = false;
    EXPECT_EQ(before + (GetParam() ? 0 : 1), test::gYields);
}

TEST_P(CritSecModes, RecordNamesThePlaceThatEntered) {
    tq_SemCritSec critSec(true);
    test::LockTracking tracking;
    critSec.Enter(31, "place.cpp");
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(static_cast<unsigned int>(GetParam() ? SEM_TRACK_TYPE_MUTEX : SEM_TRACK_TYPE_CRITSEC), records[0].type);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_STATE_OWNED), records[0].state);
    EXPECT_EQ(31u, records[0].line);
    EXPECT_EQ("place.cpp", records[0].file);
    critSec.Leave();
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST_P(CritSecModes, GuardIsTrackedWhereItStands) {
    tq_SemCritSec critSec(true);
    test::LockTracking tracking;
    const unsigned int line = __LINE__ + 1;
    tq_CritSecLock lock(critSec);
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(line, records[0].line);
    EXPECT_EQ(__FILE__, records[0].file);
}

TEST(CritSec, GuardPassesANullSectionOver) {
    tq_CritSecLock lock(nullptr);
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST(CritSec, NonRecursiveSectionOnASemMutexIsEnteredTwiceAllTheSame) {
    tq_SemCritSec critSec(false);
    critSec.Enter();
    critSec.Enter();
    std::atomic<bool> bEntered{false};
    std::thread other([&] {
        critSec.Enter();
        bEntered = true;
        critSec.Leave();
    });
    critSec.Leave();
    EXPECT_FALSE(bEntered) << "the second entry is counted";
    critSec.Leave();
    other.join();
}

TEST(CritSec, OnPthreadMutexIsOfTheKindThatWasAskedFor) {
    PthreadMode mode;
    test::LockTracking tracking;
    for (bool bRecursive : {true, false}) {
        tq_SemCritSec critSec(bRecursive);
        critSec.Enter();
        ASSERT_EQ(1u, test::LockRecords().size());
        auto* pMutex = static_cast<pthread_mutex_t*>(test::LockRecords()[0].sem);
        EXPECT_EQ(bRecursive ? 0 : EBUSY, pthread_mutex_trylock(pMutex)) << "by the thread that is inside";
        if (bRecursive) {
            pthread_mutex_unlock(pMutex);
        }
        critSec.Leave();
    }
}

TEST(CritSec, OnPthreadMutexShowsItsWaiters) {
    PthreadMode mode;
    test::LockTracking tracking;
    tq_SemCritSec critSec(true);
    critSec.Enter(1, "owner");
    std::thread waiter([&] {
        critSec.Enter(2, "waiter");
        critSec.Leave();
    });
    EXPECT_TRUE(test::WaitUntil([] { return test::LockRecords().size() == 2; }));
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_STATE_WAITING), test::LockRecords()[0].state);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_TYPE_CRITSEC), test::LockRecords()[0].type);
    EXPECT_EQ("waiter", test::LockRecords()[0].file);
    critSec.Leave();
    waiter.join();
}

TEST(CritSec, SettingDecidesWhatSectionsAreBuiltOn) {
    for (const bool bUseMutexes : {false, true}) {
        test::Library library(std::string("[Sem]\nForceSchedYield=yes\nUseMutexForCritSec=") +
                              (bUseMutexes ? "yes\n" : "no\n"));
        EXPECT_EQ(bUseMutexes, gbUseMutexesForCritSecs);
        EXPECT_TRUE(gbSchedYield);
        test::LockTracking tracking;
        tq_SemCritSec critSec(true);
        critSec.Enter(1, "x");
        const std::vector<test::LockRecord> records = test::LockRecords();
        critSec.Leave();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(static_cast<unsigned int>(bUseMutexes ? SEM_TRACK_TYPE_MUTEX : SEM_TRACK_TYPE_CRITSEC),
                  records[0].type);
    }
    gbSchedYield = false;
}

// The count of held sections

TEST_P(CritSecModes, HeldSectionsAreCountedByThread) {
    tq_SemCritSec first(true);
    tq_SemCritSec second(false);
    EXPECT_EQ(0u, tq_HeldLocks());
    first.Enter();
    second.Enter();
    first.Enter();
    EXPECT_EQ(3u, tq_HeldLocks());
    std::thread([] { EXPECT_EQ(0u, tq_HeldLocks()); }).join();
    first.Leave();
    second.Leave();
    EXPECT_EQ(1u, tq_HeldLocks());
    first.Leave();
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST_P(CritSecModes, LeaveThatIsNotOwedDoesNotUpsetTheCount) {
    tq_SemCritSec critSec(true);
    if (GetParam()) { // a plain mutex must not be unlocked by a thread that does not hold it
        critSec.Leave();
        EXPECT_EQ(0u, tq_HeldLocks());
    }
    critSec.Enter();
    EXPECT_EQ(1u, tq_HeldLocks());
    critSec.Leave();
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST(HeldLocks, ListLocksCount) {
    test::Library library;
    tq_List list("counted");
    {
        tq_ListLock lock(list);
        EXPECT_EQ(1u, tq_HeldLocks());
    }
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST(HeldLocks, LatchDoesNotCountWhileItIsHeld) {
    tq_SemCritSec latch(true);
    tq_SemCritSec other(true);
    latch.Enter();
    tq_HeldLatchEntered();
    EXPECT_EQ(0u, tq_HeldLocks());
    other.Enter();
    EXPECT_EQ(1u, tq_HeldLocks());
    other.Leave();
    tq_HeldLatchLeaving();
    EXPECT_EQ(1u, tq_HeldLocks());
    latch.Leave();
    EXPECT_EQ(0u, tq_HeldLocks());
    tq_HeldLatchEntered();
    EXPECT_EQ(0u, tq_HeldLocks()) << "nothing entered, nothing taken out";
}

TEST_P(CritSecModes, CriticalErrorFoundInsideIsTracedWhenTheLastSectionIsLeft) {
    test::Library library(std::string("[Sem]\nUseMutexForCritSec=") + (GetParam() ? "yes\n" : "no\n"));
    tq_SemCritSec outer(true);
    tq_SemCritSec inner(true);
    outer.Enter();
    inner.Enter();
    LogCriticalError("found inside\n", false, TQ_TRACE_LEVEL_WARNING, TQ_TRACE_CAT_SYSTEM);
    EXPECT_TRUE(gbCriticalErrorsKept);
    inner.Leave();
    EXPECT_TRUE(gbCriticalErrorsKept);
    outer.Leave();
    EXPECT_FALSE(gbCriticalErrorsKept);
}

TEST_P(CritSecModes, RefusalsUnderAnyCapEndInReports) {
    test::Library library(std::string("[Memory]\nEnableMemoryTracking=yes\n[Sem]\nTracking=yes\nUseMutexForCritSec=") +
                          (GetParam() ? "yes\n" : "no\n"));
    tq_SemCritSec outer(true);
    tq_SemCritSec inner(true);
    tq_List list("capped");
    const unsigned int before = gRequestedMemoryAllocations;
    for (unsigned int room = 0; room < 400; room += 3) {
        gMemoryCapInBytes = before + room;
        {
            tq_CritSecLock outerLock(outer);
            tq_ListLock listLock(list);
            tq_CritSecLock innerLock(inner);
            tq_free(tq_malloc(room + 1));
        }
        ASSERT_EQ(0u, tq_HeldLocks());
        ASSERT_FALSE(gbCriticalErrorsKept) << "all were printed when the last section was left";
    }
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    EXPECT_NE(std::string::npos, test::ReadFile("tqos_error.log").find("Exceeded defined memory cap"));
}
