#include <gtest/gtest.h>

#include <atomic>
#include <limits.h>
#include <string>
#include <thread>
#include <vector>

#include "LockRecords.h"
#include "SystemFaults.h"
#include "TestSupport.h"
#include "tq_Memory_p.h"
#include "tq_SemMutex_p.h"
#include "tq_SemSemaphore.h"

namespace {

constexpr int kLong = 60000; ///< milliseconds that only a hang lets pass

/// How many units can be taken without waiting; gives them back.
long UnitsIn(tq_SemSemaphore& semaphore) {
    long units = 0;
    while (semaphore.WaitForSem(0) == 1) {
        ++units;
    }
    semaphore.Release(units, nullptr);
    return units;
}

size_t WaitersListed() {
    return test::LocksWaitedFor(SEM_TRACK_TYPE_SEMAPHORE).size();
}

} // namespace

TEST(SemSemaphore, StartsWithNoMoreThanItsCeiling) {
    tq_SemSemaphore over(5, 3);
    EXPECT_EQ(3, UnitsIn(over));
    tq_SemSemaphore under(2, 3);
    EXPECT_EQ(2, UnitsIn(under));
}

TEST(SemSemaphore, ReleaseBeyondTheCeilingFillsIt) {
    tq_SemSemaphore semaphore(1, 3);
    long previous = -1;
    EXPECT_EQ(1, semaphore.Release(10, &previous));
    EXPECT_EQ(1, previous);
    EXPECT_EQ(3, UnitsIn(semaphore));
}

TEST(SemSemaphore, ReleaseWhenFullFailsAndReportsZeroAsThePreviousCount) {
    tq_SemSemaphore semaphore(3, 3);
    long previous = -1;
    EXPECT_EQ(0, semaphore.Release(1, &previous));
    EXPECT_EQ(0, previous);
    EXPECT_EQ(0, semaphore.Release(1, nullptr));
    EXPECT_EQ(3, UnitsIn(semaphore));
}

TEST(SemSemaphore, ReleaseOfNothingFailsAndReportsZeroAsThePreviousCount) {
    tq_SemSemaphore semaphore(2, 3);
    long previous = -1;
    EXPECT_EQ(0, semaphore.Release(0, &previous));
    EXPECT_EQ(0, previous);
    EXPECT_EQ(2, UnitsIn(semaphore));
}

TEST(SemSemaphore, ZeroTimeOutTakesWhatIsThereAndDoesNotWait) {
    tq_SemSemaphore empty(0, 10);
    EXPECT_EQ(0, empty.WaitForSem(0));
    tq_SemSemaphore two(2, 10);
    EXPECT_EQ(1, two.WaitForSem(0));
    EXPECT_EQ(1, UnitsIn(two));
}

TEST(SemSemaphore, TimeOutsBelowMinusOneCountAsExpired) {
    tq_SemSemaphore semaphore(1, 1);
    for (int msTimeOut : {-2, -1001, INT_MIN}) {
        EXPECT_EQ(1, semaphore.WaitForSem(msTimeOut));
        EXPECT_EQ(0, semaphore.WaitForSem(msTimeOut));
        semaphore.Release(1, nullptr);
    }
}

TEST(SemSemaphore, WaitThatTimesOutChangesNoCount) {
    tq_SemSemaphore semaphore(0, 10);
    EXPECT_EQ(0, semaphore.WaitForSem(10));
    long previous = -1;
    EXPECT_EQ(1, semaphore.Release(1, &previous));
    EXPECT_EQ(0, previous);
}

TEST(SemSemaphore, NegativeCountLetsWaitsPassAndCountsFurtherDown) {
    tq_SemSemaphore semaphore(-1, 10);
    EXPECT_EQ(1, semaphore.WaitForSem(0));
    EXPECT_EQ(1, semaphore.WaitForSem(-1));
    long previous = 0;
    EXPECT_EQ(1, semaphore.Release(3, &previous));
    EXPECT_EQ(-3, previous);
    EXPECT_EQ(0, semaphore.WaitForSem(0)) << "exactly 0 blocks";
}

TEST(SemSemaphore, NegativeReleaseLowersTheCount) {
    tq_SemSemaphore semaphore(3, 10);
    long previous = 0;
    EXPECT_EQ(1, semaphore.Release(-2, &previous));
    EXPECT_EQ(3, previous);
    EXPECT_EQ(1, UnitsIn(semaphore));
    tq_SemSemaphore full(10, 10);
    EXPECT_EQ(0, full.Release(-2, nullptr)) << "a full one is left alone";
    EXPECT_EQ(10, UnitsIn(full));
}

TEST(SemSemaphore, SumsStopAtTheEndsOfTheRange) {
    long previous = 0;
    tq_SemSemaphore high(INT_MAX - 1, INT_MAX);
    EXPECT_EQ(1, high.Release(LONG_MAX, nullptr));
    EXPECT_EQ(0, high.Release(1, &previous)) << "full";
    tq_SemSemaphore low(-5, 10);
    EXPECT_EQ(1, low.Release(LONG_MIN, nullptr));
    EXPECT_EQ(1, low.Release(LONG_MIN, &previous));
    EXPECT_EQ(INT_MIN, previous);
    EXPECT_EQ(1, low.WaitForSem(0)) << "cannot be counted further down";
    EXPECT_EQ(1, low.Release(1, &previous));
    EXPECT_EQ(INT_MIN, previous);
}

TEST(SemSemaphore, TheLowestCountOfAllDoesNotBlockWhateverTheCeilingIs) {
    for (const int ceiling : {INT_MAX, INT_MAX - 1, 0, -1, INT_MIN + 1, INT_MIN}) {
        tq_SemSemaphore semaphore(INT_MIN, ceiling);
        EXPECT_EQ(1, semaphore.WaitForSem(0)) << ceiling;
        EXPECT_EQ(1, semaphore.WaitForSem(0)) << ceiling;
        const bool bFull = ceiling == INT_MIN;
        EXPECT_EQ(bFull ? 0 : 1, semaphore.Release(-1, nullptr)) << ceiling;
        EXPECT_EQ(1, semaphore.WaitForSem(0)) << ceiling;
    }
}

TEST(SemSemaphore, ReleaseWakesAsManyWaitersAsItAddsUnits) {
    test::LockTracking tracking;
    tq_SemSemaphore semaphore(0, 10);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(1, semaphore.WaitForSem(-1));
            ++woken;
        });
    }
    EXPECT_TRUE(test::WaitUntil([] { return WaitersListed() == 4; }));
    EXPECT_EQ(1, semaphore.Release(3, nullptr));
    EXPECT_TRUE(test::WaitUntil([&] { return woken == 3 && WaitersListed() == 1; }));
    EXPECT_EQ(0, semaphore.WaitForSem(0)) << "all three units are gone";
    EXPECT_EQ(3, woken);
    EXPECT_EQ(1, semaphore.Release(1, nullptr));
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

TEST(SemSemaphore, IsTrackedOnlyWhileAThreadWaits) {
    test::LockTracking tracking;
    tq_SemSemaphore semaphore(1, 10);
    EXPECT_EQ(1, semaphore.WaitForSem(0));
    EXPECT_EQ(0, semaphore.WaitForSem(0));
    EXPECT_EQ(nullptr, gpSemListHead);
    std::thread waiter([&] { EXPECT_EQ(1, semaphore.WaitForSem(kLong, 5, "waiter")); });
    EXPECT_TRUE(test::WaitUntil([] { return WaitersListed() == 1; }));
    LockSemList();
    EXPECT_EQ(5u, gpSemListHead->Line);
    EXPECT_STREQ("waiter", gpSemListHead->pszFile);
    unLockSemList();
    semaphore.Release(1, nullptr);
    waiter.join();
    EXPECT_EQ(nullptr, gpSemListHead);
}

TEST(SemSemaphore, TimedWaitFailsWhenTheClockCannotBeReadAndItsRecordStays) {
    tq_SemSemaphore semaphore(1, 1);
    test::LockTracking tracking;
    test::Fault fault(test::gbClockFails);
    EXPECT_EQ(0, semaphore.WaitForSem(kLong));
    EXPECT_EQ(1u, WaitersListed());
    EXPECT_EQ(1, semaphore.WaitForSem(-1)) << "the unit is still there";
}

TEST(SemSemaphore, ThatCouldNotBeMadeFailsEveryOperation) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    test::LockTracking tracking;
    gMemoryCapInBytes = 1;
    tq_SemSemaphore semaphore(1, 1);
    gMemoryCapInBytes = 0;
    long previous = 77;
    EXPECT_EQ(0, semaphore.WaitForSem(-1));
    EXPECT_EQ(0, semaphore.WaitForSem(0));
    EXPECT_EQ(0, semaphore.Release(1, &previous));
    EXPECT_EQ(77, previous);
    EXPECT_EQ(0u, WaitersListed());
}

TEST(SemSemaphore, GivesItsMemoryBack) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    {
        tq_SemSemaphore semaphore(1, 1);
        EXPECT_LT(before, gRequestedMemoryAllocations);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(SemSemaphore, ThatCouldNotBeMadeKeepsNoMemory) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    gMemoryCapInBytes = before;
    {
        tq_SemSemaphore semaphore(1, 1);
        EXPECT_EQ(0, semaphore.WaitForSem(-1));
    }
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(SemSemaphore, NoUnitAndNoWakeUpIsLost) {
    constexpr int kTakers = 4;
    constexpr int kUnits = 20000;
    tq_SemSemaphore semaphore(0, 10);
    std::atomic<int> taken{0};
    std::vector<std::thread> takers;
    for (int i = 0; i < kTakers; ++i) {
        takers.emplace_back([&, i] {
            for (int turn = 0; taken < kUnits; ++turn) { // in the end they are woken one by one
                const bool bPatient = (turn + i) % 3 != 0;
                taken += semaphore.WaitForSem(bPatient ? -1 : turn % 2);
            }
            semaphore.Release(1, nullptr);
        });
    }
    int added = 0;
    while (added < kUnits) {
        const int more = added % 3 == 0 && added + 3 <= kUnits ? 3 : 1;
        long previous = 0;
        if (semaphore.Release(more, &previous) == 0) {
            std::this_thread::yield(); // full
            continue;
        }
        const long room = 10 - previous;
        added += more < room ? more : static_cast<int>(room);
    }
    for (std::thread& taker : takers) {
        taker.join();
    }
    EXPECT_LE(kUnits, taken);
    EXPECT_GE(kUnits + kTakers, taken);
}

TEST(SemSemaphore, IsHandedOverManyTimesAndDestroyedByWhoTookTheUnit) {
    constexpr int kSemaphores = 20000;
    std::vector<tq_SemSemaphore*> semaphores;
    for (int i = 0; i < kSemaphores; ++i) {
        semaphores.push_back(new tq_SemSemaphore(0, 1));
    }
    std::thread taker([&] {
        for (tq_SemSemaphore* pSemaphore : semaphores) {
            EXPECT_EQ(1, pSemaphore->WaitForSem(-1));
            delete pSemaphore;
        }
    });
    for (tq_SemSemaphore* pSemaphore : semaphores) {
        EXPECT_EQ(1, pSemaphore->Release(1, nullptr));
    }
    taker.join();
}

#if !defined(__SANITIZE_ADDRESS__) // its marks on the stack of a cancelled thread stay, and it stumbles over them
TEST(SemSemaphore, AThreadIsCancelledWhileItWaits) {
    test::LockTracking tracking;
    tq_SemSemaphore semaphore(0, 1);
    pthread_t thread;
    const auto wait = [](void* pSemaphore) -> void* {
        static_cast<tq_SemSemaphore*>(pSemaphore)->WaitForSem(-1);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, wait, &semaphore));
    EXPECT_TRUE(test::WaitUntil([] { return WaitersListed() == 1; }));
    ASSERT_EQ(0, pthread_cancel(thread));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    EXPECT_EQ(1, semaphore.Release(1, nullptr));
    EXPECT_EQ(1, semaphore.WaitForSem(kLong)) << "it goes on serving others";
}
#endif

TEST(SemSemaphore, WaiterJustWokenMayDestroyIt) {
    for (int i = 0; i < 1000; ++i) {
        auto* pSemaphore = new tq_SemSemaphore(0, 10);
        std::thread waiter([pSemaphore] {
            EXPECT_EQ(1, pSemaphore->WaitForSem(kLong));
            delete pSemaphore;
        });
        EXPECT_EQ(1, pSemaphore->Release(1, nullptr));
        waiter.join();
    }
}
