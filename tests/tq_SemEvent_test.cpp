#include <gtest/gtest.h>

#include <atomic>
#include <limits.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include "LockRecords.h"
#include "SystemFaults.h"
#include "TestSupport.h"
#include "tq_Memory_p.h"
#include "tq_SemEvent_p.h"
#include "tq_SemMutex_p.h"

namespace {

constexpr int kAuto = 0;
constexpr int kManual = 1;
constexpr int kLong = 60000; ///< milliseconds that only a hang lets pass

std::vector<void*> WaitersListed() {
    return test::LocksWaitedFor(SEM_TRACK_TYPE_EVENT);
}

/// Waits until that many threads are listed as waiting for events, and have given up the event's mutex to wait.
void WaitForWaiters(size_t count) {
    ASSERT_TRUE(test::WaitUntil([count] { return WaitersListed().size() == count; }));
    auto* pEvent = static_cast<SemEventStruct*>(WaitersListed()[0]);
    // The condition counts its waiters in steps of 8, above three bits of its own.
    ASSERT_TRUE(test::WaitUntil(
        [pEvent, count] { return __atomic_load_n(&pEvent->cond.__data.__wrefs, __ATOMIC_ACQUIRE) / 8 == count; }));
    pthread_mutex_lock(&pEvent->mutex); // a waiter that has counted itself holds this until it sleeps
    pthread_mutex_unlock(&pEvent->mutex);
}

} // namespace

TEST(SemEvent, AutoResetEventLetsOneWaitPassForEachSet) {
    tq_SemEvent event(kAuto, 0);
    EXPECT_EQ(0, event.WaitForEvent(0));
    EXPECT_EQ(1, event.Set());
    EXPECT_EQ(1, event.Set());
    EXPECT_EQ(1, event.WaitForEvent(0));
    EXPECT_EQ(0, event.WaitForEvent(0));
}

TEST(SemEvent, AutoResetEventReleasesOneWaiter) {
    test::LockTracking tracking;
    tq_SemEvent event(kAuto, 0);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(1, event.WaitForEvent(-1));
            ++woken;
        });
    }
    WaitForWaiters(2);
    event.Set();
    EXPECT_TRUE(test::WaitUntil([&] { return woken == 1 && WaitersListed().size() == 1; }));
    EXPECT_EQ(0, event.WaitForEvent(0)) << "the waiter has cleared it";
    EXPECT_EQ(1, woken);
    event.Set();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

TEST(SemEvent, ManualResetEventStaysSignalledUntilReset) {
    tq_SemEvent event(kManual, 0);
    EXPECT_EQ(0, event.WaitForEvent(0));
    EXPECT_EQ(1, event.Set());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(1, event.WaitForEvent(i ? -1 : 0));
    }
    EXPECT_EQ(1, event.Reset());
    EXPECT_EQ(0, event.WaitForEvent(0));
    EXPECT_EQ(1, event.Reset()) << "cleared already";
}

TEST(SemEvent, ResetClearsAnAutoResetEvent) {
    tq_SemEvent event(kAuto, 1);
    EXPECT_EQ(1, event.Reset());
    EXPECT_EQ(0, event.WaitForEvent(0));
}

TEST(SemEvent, SignalledFromTheStartLetsTheFirstWaitPass) {
    tq_SemEvent automatic(kAuto, 17);
    EXPECT_EQ(1, automatic.WaitForEvent(0));
    EXPECT_EQ(0, automatic.WaitForEvent(0));
    tq_SemEvent manual(-4, 1);
    EXPECT_EQ(1, manual.WaitForEvent(-1));
    EXPECT_EQ(1, manual.WaitForEvent(-1));
}

TEST(SemEvent, SettingAManualResetEventWakesOneOfItsWaiters) {
    test::LockTracking tracking;
    tq_SemEvent event(kManual, 0);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(1, event.WaitForEvent(-1));
            ++woken;
        });
    }
    WaitForWaiters(2);
    EXPECT_EQ(1, event.Set());
    EXPECT_TRUE(test::WaitUntil([&] { return woken == 1; }));
    EXPECT_EQ(1u, WaitersListed().size()) << "the other one sleeps on";
    EXPECT_EQ(1, event.WaitForEvent(0)) << "a wait that begins now passes";
    EXPECT_EQ(1, event.Set());
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(2, woken);
}

TEST(SemEvent, WaiterWhoseTimeIsUpFailsAlthoughTheEventIsSignalled) {
    test::LockTracking tracking;
    tq_SemEvent event(kManual, 0);
    std::atomic<int> passed{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] { ++(event.WaitForEvent(1500) ? passed : failed); });
    }
    WaitForWaiters(2);
    EXPECT_EQ(1, event.Set());
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(1, passed);
    EXPECT_EQ(1, failed);
    EXPECT_EQ(1, event.WaitForEvent(0)) << "still signalled";
}

TEST(SemEvent, WaitThatTimesOutClearsAnAutoResetEvent) {
    test::LockTracking tracking;
    tq_SemEvent event(kAuto, 0);
    std::atomic<bool> bTimedOut{false};
    std::thread waiter([&] { bTimedOut = event.WaitForEvent(200) == 0; });
    WaitForWaiters(1);
    // Signalled without waking the waiter, as when the signal has gone to a thread that began to wait later.
    auto* pEvent = static_cast<SemEventStruct*>(WaitersListed()[0]);
    pthread_mutex_lock(&pEvent->mutex);
    pEvent->bSignalled = true;
    pthread_mutex_unlock(&pEvent->mutex);
    waiter.join();
    EXPECT_TRUE(bTimedOut);
    EXPECT_EQ(0, event.WaitForEvent(0));
}

TEST(SemEvent, TimeOutsBelowMinusOneCountAsExpired) {
    tq_SemEvent event(kManual, 0);
    for (int msTimeOut : {-2, -1999, INT_MIN}) {
        EXPECT_EQ(0, event.WaitForEvent(msTimeOut));
    }
    event.Set();
    EXPECT_EQ(1, event.WaitForEvent(-2));
}

TEST(SemEvent, IsTrackedOnlyWhileAThreadWaits) {
    test::LockTracking tracking;
    tq_SemEvent event(kAuto, 1);
    EXPECT_EQ(1, event.WaitForEvent(0));
    EXPECT_EQ(0, event.WaitForEvent(0));
    EXPECT_EQ(nullptr, gpSemListHead);
    std::thread waiter([&] { EXPECT_EQ(1, event.WaitForEvent(kLong, 6, "waiter")); });
    EXPECT_TRUE(test::WaitUntil([] { return WaitersListed().size() == 1; }));
    LockSemList();
    EXPECT_EQ(6u, gpSemListHead->Line);
    EXPECT_STREQ("waiter", gpSemListHead->pszFile);
    unLockSemList();
    event.Set();
    waiter.join();
    EXPECT_EQ(nullptr, gpSemListHead);
}

TEST(SemEvent, TimedWaitFailsWhenTheClockCannotBeReadAndItsRecordStays) {
    tq_SemEvent event(kAuto, 1);
    test::LockTracking tracking;
    test::Fault fault(test::gbClockFails);
    EXPECT_EQ(0, event.WaitForEvent(kLong));
    EXPECT_EQ(1u, WaitersListed().size());
    EXPECT_EQ(1, event.WaitForEvent(-1)) << "not cleared";
}

TEST(SemEvent, ThatCouldNotBeMadeFailsEveryOperation) {
    test::LockTracking tracking;
    for (std::atomic<bool>* pFault : {&test::gbMutexInitFails, &test::gbCondInitFails}) {
        test::Fault fault(*pFault);
        tq_SemEvent event(kManual, 1);
        EXPECT_EQ(0, event.WaitForEvent(-1));
        EXPECT_EQ(0, event.WaitForEvent(0));
        EXPECT_EQ(0, event.Set());
        EXPECT_EQ(0, event.Reset());
        EXPECT_TRUE(WaitersListed().empty());
    }
}

TEST(SemEvent, GivesItsMemoryBack) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    {
        tq_SemEvent event(1, 0);
        EXPECT_LT(before, gRequestedMemoryAllocations);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(SemEvent, ThatCouldNotBeMadeKeepsNoMemory) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    {
        test::Fault fault(test::gbCondInitFails);
        tq_SemEvent event(kManual, 1);
        EXPECT_EQ(before, gRequestedMemoryAllocations);
    }
    gMemoryCapInBytes = before;
    {
        tq_SemEvent event(kManual, 1);
        EXPECT_EQ(0, event.WaitForEvent(-1));
    }
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

#if !defined(__SANITIZE_ADDRESS__) // its marks on the stack of a cancelled thread stay, and it stumbles over them
TEST(SemEvent, AThreadIsCancelledWhileItWaits) {
    for (const int msTimeOut : {-1, kLong}) {
        struct Wait {
            tq_SemEvent event{0, 0};
            int msTimeOut = 0;
        } wait;
        wait.msTimeOut = msTimeOut;
        test::LockTracking tracking;
        pthread_t thread;
        const auto waitForEvent = [](void* pWait) -> void* {
            static_cast<Wait*>(pWait)->event.WaitForEvent(static_cast<Wait*>(pWait)->msTimeOut);
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&thread, nullptr, waitForEvent, &wait));
        EXPECT_TRUE(test::WaitUntil([] { return WaitersListed().size() == 1; }));
        ASSERT_EQ(0, pthread_cancel(thread));
        void* pResult = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &pResult));
        EXPECT_EQ(PTHREAD_CANCELED, pResult);
        EXPECT_EQ(1, wait.event.Set());
        EXPECT_EQ(1, wait.event.WaitForEvent(kLong)) << "it goes on serving others";
    }
}
#endif

TEST(SemEvent, WaiterJustWokenMayDestroyIt) {
    for (int i = 0; i < 1000; ++i) {
        auto* pEvent = new tq_SemEvent(i % 2, 0);
        std::thread waiter([pEvent] {
            EXPECT_EQ(1, pEvent->WaitForEvent(kLong));
            delete pEvent;
        });
        EXPECT_EQ(1, pEvent->Set());
        waiter.join();
    }
}
