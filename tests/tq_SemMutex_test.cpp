#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits.h>
#include <memory>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include "LockRecords.h"
#include "MemoryCap.h"
#include "SystemFaults.h"
#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_Deadline_p.h"
#include "tq_Memory_p.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex_p.h"
#include "tq_Thread.h"

namespace {

constexpr int kLong = 60000; ///< milliseconds that only a hang lets pass

/// Runs the function on a thread of its own and waits for it.
void OnAnotherThread(const std::function<void()>& body) {
    std::thread(body).join();
}

/// Whether another thread could take the mutex now. Leaves it as it was.
bool OthersCanTake(tq_SemMutex& mutex) {
    bool bTaken = false;
    OnAnotherThread([&] {
        bTaken = mutex.WaitForMutexWithTimeout(0) == 1;
        if (bTaken) {
            mutex.Release();
        }
    });
    return bTaken;
}

std::string TakeText(char* pszText) {
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

std::string SemReport() {
    char* pszText = nullptr;
    tq_ShowSemaphores(&pszText);
    return TakeText(pszText);
}

bool IsListed(unsigned int state, unsigned int line) {
    for (const test::LockRecord& record : test::LockRecords()) {
        if (record.state == state && record.line == line) {
            return true;
        }
    }
    return false;
}

unsigned int Shown(const void* sem) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(sem));
}

std::string Row(const void* sem, unsigned int tid, const char* state, const char* type, unsigned int line,
                const char* name) {
    char text[200];
    snprintf(text, sizeof(text), "0x%08x %10u %s %s %6u %s\r\n", Shown(sem), tid, state, type, line, name);
    return text;
}

const char kHeader[] = "    Sem     ThreadId   State  Type   Line  File\r\n"
                       "---------- ---------- ------- ----- ------ -------------------------\r\n";

} // namespace

// The mutex

TEST(SemMutex, HasToBeReleasedAsOftenAsItWasTaken) {
    tq_SemMutex mutex(false);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(1, mutex.WaitForMutex());
    }
    EXPECT_FALSE(OthersCanTake(mutex));
    EXPECT_EQ(1, mutex.Release());
    EXPECT_FALSE(OthersCanTake(mutex));
    EXPECT_EQ(1, mutex.Release());
    EXPECT_FALSE(OthersCanTake(mutex));
    EXPECT_EQ(1, mutex.Release());
    EXPECT_TRUE(OthersCanTake(mutex));
}

TEST(SemMutex, ReleaseByAThreadThatDoesNotOwnItSucceedsAndChangesNothing) {
    tq_SemMutex mutex(false);
    EXPECT_EQ(1, mutex.Release()) << "free";
    ASSERT_EQ(1, mutex.WaitForMutex());
    ASSERT_EQ(1, mutex.WaitForMutex());
    OnAnotherThread([&] {
        EXPECT_EQ(1, mutex.Release());
        EXPECT_EQ(1, mutex.Release());
    });
    EXPECT_FALSE(OthersCanTake(mutex));
    mutex.Release();
    EXPECT_FALSE(OthersCanTake(mutex)) << "the count is what it was";
    mutex.Release();
    EXPECT_TRUE(OthersCanTake(mutex));
}

TEST(SemMutex, ZeroTimeOutTakesAFreeMutexOrTheCallersOwnAndNoOther) {
    tq_SemMutex mutex(false);
    EXPECT_EQ(1, mutex.WaitForMutexWithTimeout(0));
    EXPECT_EQ(1, mutex.WaitForMutexWithTimeout(0));
    OnAnotherThread([&] { EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(0)); });
    mutex.Release();
    mutex.Release();
    EXPECT_TRUE(OthersCanTake(mutex));
}

TEST(SemMutex, TimeOutsBelowMinusOneCountAsExpired) {
    tq_SemMutex mutex(false);
    for (int msTimeOut : {-2, -999, -1000, -1500, INT_MIN}) {
        EXPECT_EQ(1, mutex.WaitForMutexWithTimeout(msTimeOut)) << msTimeOut << " on a free mutex";
        OnAnotherThread([&] { EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(msTimeOut)) << msTimeOut; });
        mutex.Release();
    }
}

TEST(SemMutex, WaitThatTimesOutLeavesTheMutexAsItWas) {
    tq_SemMutex mutex(false);
    ASSERT_EQ(1, mutex.WaitForMutex());
    OnAnotherThread([&] {
        EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(10));
        EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(10)) << "it has become nobody else's";
    });
    mutex.Release();
    EXPECT_TRUE(OthersCanTake(mutex)) << "one release was enough";
}

TEST(SemMutex, WaitersGetItWhenItIsReleased) {
    test::LockTracking tracking;
    for (int msTimeOut : {-1, kLong}) {
        tq_SemMutex mutex(false);
        ASSERT_EQ(1, mutex.WaitForMutex());
        std::thread waiter([&] {
            EXPECT_EQ(1, mutex.WaitForMutexWithTimeout(msTimeOut, 4711, "waiter"));
            EXPECT_EQ(1, mutex.Release());
        });
        EXPECT_TRUE(test::WaitUntil([] { return IsListed(SEM_TRACK_STATE_WAITING, 4711); }));
        EXPECT_EQ(1, mutex.Release());
        waiter.join();
        EXPECT_TRUE(OthersCanTake(mutex));
    }
}

TEST(SemMutex, OneReleaseLetsAllSleepersThroughOneAfterTheOther) {
    tq_SemMutex mutex(false);
    ASSERT_EQ(1, mutex.WaitForMutex());
    std::atomic<int> owners{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            owners += mutex.WaitForMutexWithTimeout(kLong);
            mutex.Release();
        });
    }
    EXPECT_TRUE(test::WaitUntilOthersSleep());
    EXPECT_EQ(0, owners);
    mutex.Release(); // wakes one of them, which has to wake the next, although nobody has come since
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(3, owners);
}

TEST(SemMutex, KeepsThreadsApart) {
    constexpr int kThreads = 4;
    constexpr int kTurns = 2000;
    tq_SemMutex mutex(false);
    int turns = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < kTurns; ++turn) {
                ASSERT_EQ(1, mutex.WaitForMutexWithTimeout(kLong));
                ++turns;
                mutex.Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kThreads * kTurns, turns);
}

TEST(SemMutex, DeadlineIsTheTimeOutFromNow) {
    struct Case {
        long seconds, microseconds;
        int msTimeOut;
        long deadlineSeconds, deadlineNanoseconds;
    };
    constexpr Case kCases[] = {
        {10, 700000, 1500, 12, 200000000}, {10, 700000, 0, 10, 700000000},   {10, 0, 999, 10, 999000000},
        {10, 500000, 500, 11, 0}, // a full second of nanoseconds is carried
        {10, 499999, 500, 10, 999999000},  {10, 999999, 999, 11, 998999000}, {0, 0, INT_MAX, 2147483, 647000000},
    };
    for (const Case& row : kCases) {
        struct timeval now;
        now.tv_sec = row.seconds;
        now.tv_usec = row.microseconds;
        const struct timespec deadline = tq_DeadlineAfter(now, row.msTimeOut);
        EXPECT_EQ(row.deadlineSeconds, deadline.tv_sec)
            << row.seconds << "." << row.microseconds << "+" << row.msTimeOut;
        EXPECT_EQ(row.deadlineNanoseconds, deadline.tv_nsec) << row.microseconds << "+" << row.msTimeOut;
    }
}

TEST(SemMutex, DeadlineOfMicrosecondsIsTheTimeOutFromNow) {
    const struct {
        long long us;
        long long deadlineSeconds;
        long deadlineNanoseconds;
    } kCases[] = {
        {-1, 10, 700000000},     {0, 10, 700000000}, {1, 10, 700001000},
        {299999, 10, 999999000}, {300000, 11, 0},    {536870912LL * 1000 + 1, 536881, 612001000},
    };
    for (const auto& row : kCases) {
        struct timeval now;
        now.tv_sec = 10;
        now.tv_usec = 700000;
        const struct timespec deadline = tq_DeadlineAfter(now, tq_Microseconds{row.us});
        EXPECT_EQ(row.deadlineSeconds, static_cast<long long>(deadline.tv_sec)) << row.us;
        EXPECT_EQ(row.deadlineNanoseconds, deadline.tv_nsec) << row.us;
    }
}

TEST(SemMutex, DeadlineBeyond2038DoesNotWrap) {
    struct timeval now;
    now.tv_sec = 2147483647;
    now.tv_usec = 0;
    const struct timespec deadline = tq_DeadlineAfter(now, 1000);
    EXPECT_EQ(2147483648LL, static_cast<long long>(deadline.tv_sec));
}

TEST(SemMutex, TimedWaitFailsWhenTheClockCannotBeReadAndItsRecordStays) {
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    test::Fault fault(test::gbClockFails);
    EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(kLong, 12, "clock")) << "although it is free";
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_STATE_WAITING), records[0].state);
    EXPECT_EQ(1, mutex.WaitForMutex()) << "a wait without a time-out needs no clock";
    mutex.Release();
}

TEST(SemMutex, WhoTakesItNextMayDestroyItWhileTheOwnerBeforeIsLeaving) {
    for (int i = 0; i < 1000; ++i) {
        auto* pMutex = new tq_SemMutex(false);
        ASSERT_EQ(1, pMutex->WaitForMutex());
        std::thread next([pMutex] {
            EXPECT_EQ(1, pMutex->WaitForMutexWithTimeout(kLong));
            pMutex->Release();
            delete pMutex;
        });
        pMutex->Release();
        next.join();
    }
}

TEST(SemMutex, WhoGivesUpWaitingKeepsNobodyElseWaiting) {
    constexpr int kThreads = 4;
    constexpr int kTurns = 2000;
    tq_SemMutex mutex(false);
    int turns = 0; // guarded by the mutex
    std::atomic<int> expected{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (int turn = 0; turn < kTurns; ++turn) {
                const bool bPatient = (turn + i) % 4 == 0; // would wait for ever if a wake-up were lost
                if (mutex.WaitForMutexWithTimeout(bPatient ? -1 : turn % 2) == 0) {
                    continue;
                }
                ++turns;
                ++expected;
                EXPECT_EQ(1, mutex.WaitForMutex());
                mutex.Release();
                mutex.Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(expected, turns);
    EXPECT_TRUE(OthersCanTake(mutex));
}

TEST(SemMutex, IsHandedOverManyTimesAndDestroyedByTheLastWhoTakesIt) {
    constexpr int kMutexes = 20000;
    std::vector<tq_SemMutex*> mutexes;
    for (int i = 0; i < kMutexes; ++i) {
        mutexes.push_back(new tq_SemMutex(false));
        ASSERT_EQ(1, mutexes.back()->WaitForMutex());
    }
    std::thread next([&] {
        for (tq_SemMutex* pMutex : mutexes) {
            EXPECT_EQ(1, pMutex->WaitForMutex());
            delete pMutex;
        }
    });
    for (tq_SemMutex* pMutex : mutexes) {
        pMutex->Release();
    }
    next.join();
}

TEST(SemMutex, LeavesErrnoAsItWas) {
    tq_SemMutex mutex(false);
    mutex.WaitForMutex();
    std::thread waiter([&] {
        errno = 77;
        EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(5));
        EXPECT_EQ(77, errno);
    });
    waiter.join();
    errno = 78;
    mutex.Release();
    EXPECT_EQ(78, errno);
}

TEST(SemMutex, ThatCouldNotBeMadeFailsEveryOperation) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    test::LockTracking tracking;
    gMemoryCapInBytes = 1;
    tq_SemMutex mutex(false);
    gMemoryCapInBytes = 0;
    EXPECT_EQ(0, mutex.WaitForMutex());
    EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(0));
    EXPECT_EQ(0, mutex.WaitForMutexWithTimeout(kLong));
    EXPECT_EQ(0, mutex.Release());
    EXPECT_TRUE(test::LockRecords().empty()) << "nothing is tracked";
}

TEST(SemMutex, GivesItsMemoryBack) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    {
        tq_SemMutex mutex(false);
        EXPECT_LT(before, gRequestedMemoryAllocations);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(SemMutex, ThatCouldNotBeMadeKeepsNoMemory) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    gMemoryCapInBytes = before;
    {
        tq_SemMutex mutex(false);
        EXPECT_EQ(0, mutex.WaitForMutex());
        EXPECT_EQ(0, mutex.Release());
    }
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

// Tracking

TEST(SemTracking, OffOrEmptyIsSaidInPlaceOfATable) {
    EXPECT_EQ("Not currently tracking Mutex Sems...", SemReport());
    tq_SemMutex mutex(false);
    {
        test::LockTracking tracking;
        EXPECT_EQ("No Mutex Sems currently active.", SemReport());
        mutex.WaitForMutex();
        EXPECT_NE("No Mutex Sems currently active.", SemReport());
        mutex.Release();
        EXPECT_EQ("No Mutex Sems currently active.", SemReport());
    }
    EXPECT_EQ("Not currently tracking Mutex Sems...", SemReport());
}

TEST(SemTracking, WorksBeforeTheLibraryStartsAndAfterItHasEnded) {
    { // whatever ran here before: blocks are laid out as below from the start
        test::Library library;
    }
    tq_SemMutex mutex(false);
    for (int round = 0; round < 2; ++round) {
        tq_SemEnableSemTracking();
        mutex.WaitForMutex(7, "early");
        EXPECT_TRUE(IsListed(SEM_TRACK_STATE_OWNED, 7));
        mutex.Release();
        tq_SemDisableSemTracking();
        if (round == 0) {
            test::Library library;
        }
    }
}

TEST(SemTracking, TerminationSwitchesItOffAndKeepsTheRecords) {
    tq_SemMutex mutex(false);
    tq_SemEnableSemTracking();
    mutex.WaitForMutex(7, "kept");
    tq_SemMutexTerminate();
    EXPECT_EQ("Not currently tracking Mutex Sems...", SemReport());
    EXPECT_TRUE(IsListed(SEM_TRACK_STATE_OWNED, 7));
    mutex.Release(); // not tracked any more
    EXPECT_TRUE(IsListed(SEM_TRACK_STATE_OWNED, 7));
    tq_SemDisableSemTracking();
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST(SemTracking, IsSwitchedOnByItsSetting) {
    test::Library library("[Sem]\nTracking=yes\n");
    EXPECT_TRUE(gbTrackSems);
    EXPECT_NE("Not currently tracking Mutex Sems...", SemReport());
    library.Terminate();
    EXPECT_EQ("Not currently tracking Mutex Sems...", SemReport());
}

TEST(SemTracking, SettingsHaveTheirDefaultsWithoutAFile) {
    test::ScratchDirectory directory;
    tq_BaseInitialize();
    gbTrackSems = true;
    gbUseMutexesForCritSecs = false;
    gbSchedYield = true;
    EXPECT_EQ(0u, tq_SemMutexInitialize());
    EXPECT_FALSE(gbTrackSems);
    EXPECT_TRUE(gbUseMutexesForCritSecs);
    EXPECT_FALSE(gbSchedYield);
    tq_SemMutexTerminate();
    tq_BaseTerminate();
}

TEST(SemTracking, ForcedYieldFollowsEveryRelease) {
    tq_SemMutex mutex(false);
    mutex.WaitForMutex();
    const unsigned int before = test::gYields;
    mutex.Release();
    EXPECT_EQ(before, test::gYields);
    gbSchedYield = true;
    mutex.WaitForMutex();
    mutex.Release();
    EXPECT_EQ(before + 1, test::gYields);
    mutex.Release();
    EXPECT_EQ(before + 2, test::gYields) << "not the owner's";
    gbSchedYield = false;
}

TEST(SemTracking, ReportShowsWaitersThenOwners) {
    tq_SemMutex first(false);
    tq_SemMutex second(false);
    tq_SemEvent event(0, 0);
    test::LockTracking tracking;
    first.WaitForMutex(1, "first.cpp");
    second.WaitForMutex(2, "second.cpp");
    unsigned int waiterTid = 0;
    unsigned int eventTid = 0;
    std::thread waiter([&] {
        waiterTid = tq_GetThreadId();
        first.WaitForMutex(333333, "waiter.cpp");
        first.Release();
    });
    EXPECT_TRUE(test::WaitUntil([] { return IsListed(SEM_TRACK_STATE_WAITING, 333333); }));
    std::thread eventWaiter([&] {
        eventTid = tq_GetThreadId();
        event.WaitForEvent(-1, 4444444, "event.cpp");
    });
    EXPECT_TRUE(test::WaitUntil([] { return IsListed(SEM_TRACK_STATE_WAITING, 4444444); }));

    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(4u, records.size());
    EXPECT_EQ(records[1].sem, records[3].sem) << "one mutex, its owner and its waiter";
    const unsigned int me = tq_GetThreadId();
    EXPECT_EQ(std::string(kHeader) + Row(records[0].sem, eventTid, "Waiting", "Event", 4444444, "event.cpp") +
                  Row(records[1].sem, waiterTid, "Waiting", "Mutex", 333333, "waiter.cpp") + "\r\n" +
                  Row(records[2].sem, me, " Owned ", "Mutex", 2, "second.cpp") +
                  Row(records[3].sem, me, " Owned ", "Mutex", 1, "first.cpp"),
              SemReport());
    first.Release();
    second.Release();
    event.Set();
    waiter.join();
    eventWaiter.join();
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST(SemTracking, ReportShowsUnknownStatesAndTypesLast) {
    test::LockTracking tracking;
    int lock = 0;
    int odd = 0;
    TrackSemaphore(&odd, 99, SEM_TRACK_STATE_WAITING, 5, "odd");
    TrackSemaphore(&lock, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_WAITING, 6, "lock");
    TrackSemaphore(&lock, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_OWNED, 0, nullptr);
    LockSemList();
    gpSemListHead->pNext->State = 8;
    unLockSemList();
    const unsigned int me = tq_GetThreadId();
    const std::string lockRow = Row(&lock, me, " Owned ", "Sema ", 6, "lock");
    const std::string oddRow = Row(&odd, me, "Unknown", " ??? ", 5, "odd");
    EXPECT_EQ(std::string(kHeader) + "\r\n" + lockRow + "\r\n" + oddRow, SemReport());
}

TEST(SemTracking, TypesAndStatesHaveTheirTexts) {
    struct Case {
        unsigned int type, state;
        const char* pszType;
        const char* pszState;
    };
    constexpr Case kCases[] = {
        {SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_WAITING, "Mutex", "Waiting"},
        {SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_OWNED, "CrSec", " Owned "},
        {SEM_TRACK_TYPE_EVENT, SEM_TRACK_STATE_RELEASED, "Event", "Unknown"},
        {SEM_TRACK_TYPE_SEMAPHORE, 0, "Sema ", "Unknown"},
        {SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_WAITING, "Sleep", "Waiting"},
        {0, 4, " ??? ", "Unknown"},
        {6, SEM_TRACK_STATE_WAITING, " ??? ", "Waiting"},
    };
    for (const Case& row : kCases) {
        SemListNode node = {1, nullptr, 2, row.state, row.type, nullptr, nullptr};
        const char* pszState = nullptr;
        const char* pszType = nullptr;
        const char* pszFormat = nullptr;
        char name[20] = "";
        getSemInfo(&node, &pszState, &pszType, &pszFormat, name, 10);
        EXPECT_STREQ(row.pszState, pszState);
        EXPECT_STREQ(row.pszType, pszType);
        EXPECT_STREQ("0x%08x %10u %s %s %6u %s\r\n", pszFormat);
        EXPECT_STREQ("(unknown)", name);
    }
}

TEST(SemTracking, InfoOfNoRecordChangesNothing) {
    const char* pszText = "as it was";
    char name[20] = "name";
    getSemInfo(nullptr, &pszText, &pszText, &pszText, name, 10);
    EXPECT_STREQ("as it was", pszText);
    EXPECT_STREQ("name", name);
}

TEST(SemTracking, LongFileNamesLoseTheirBeginning) {
    char file[] = "12345678901234567890123456789012345678901234567890"; // 50
    SemListNode node = {1, nullptr, 2, 1, 1, file, nullptr};
    const char* pszText = nullptr;
    char name[60];
    memset(name, '#', sizeof(name));
    getSemInfo(&node, &pszText, &pszText, &pszText, name, 36);
    EXPECT_STREQ("567890123456789012345678901234567890", name);
    EXPECT_EQ('#', name[37]) << "36 characters and the end";
    getSemInfo(&node, &pszText, &pszText, &pszText, name, 50);
    EXPECT_STREQ(file, name) << "exactly as long as there is room";
    getSemInfo(&node, &pszText, &pszText, &pszText, name, 0);
    EXPECT_STREQ("", name);
    getSemInfo(&node, &pszText, &pszText, &pszText, name, -5);
    EXPECT_STREQ("", name);

    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    mutex.WaitForMutex(1, file);
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(std::string(kHeader) + "\r\n" +
                  Row(records[0].sem, tq_GetThreadId(), " Owned ", "Mutex", 1, "567890123456789012345678901234567890"),
              SemReport());
    mutex.Release();
}

TEST(SemTracking, WaitWithoutAFileNameIsShownAsUnknown) {
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    mutex.WaitForMutex(1, nullptr);
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("(null)", records[0].file);
    EXPECT_EQ(std::string(kHeader) + "\r\n" + Row(records[0].sem, tq_GetThreadId(), " Owned ", "Mutex", 1, "(unknown)"),
              SemReport());
    mutex.Release();
}

TEST(SemTracking, FileNameIsCopied) {
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    char file[] = "before";
    mutex.WaitForMutex(1, file);
    strcpy(file, "after!");
    ASSERT_EQ(1u, test::LockRecords().size());
    EXPECT_EQ("before", test::LockRecords()[0].file);
    mutex.Release();
}

TEST(SemTracking, SleepGoesByItsThreadsId) {
    test::LockTracking tracking;
    int ignored = 0;
    TrackSemaphore(&ignored, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_WAITING, 8, "sleeper");
    const unsigned int me = tq_GetThreadId();
    const void* pIdentity = reinterpret_cast<void*>(static_cast<uintptr_t>(me));
    EXPECT_EQ(std::string(kHeader) + Row(pIdentity, me, "Waiting", "Sleep", 8, "sleeper"), SemReport());
    TrackSemaphore(nullptr, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_RELEASED, 0, nullptr);
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST(SemTracking, TimedOutWaiterIsShownAsOwnedUntilItsNextRelease) {
    tq_SemMutex mutex(false);
    mutex.WaitForMutex();
    test::LockTracking tracking;
    OnAnotherThread([&] {
        ASSERT_EQ(0, mutex.WaitForMutexWithTimeout(0, 9, "late"));
        const std::vector<test::LockRecord> records = test::LockRecords();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(tq_GetThreadId(), records[0].threadId);
        EXPECT_EQ(std::string(kHeader) + "\r\n" + Row(records[0].sem, tq_GetThreadId(), " Owned ", "Mutex", 9, "late"),
                  SemReport());
        EXPECT_EQ(1, mutex.Release());
        EXPECT_TRUE(test::LockRecords().empty());
    });
    EXPECT_FALSE(OthersCanTake(mutex));
}

TEST(SemTracking, OwnedMakesTheRecordTheNewestAndKeepsItsPlaceOfWaiting) {
    test::LockTracking tracking;
    int locks[2] = {0, 0};
    TrackSemaphore(&locks[0], SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_WAITING, 1, "one");
    TrackSemaphore(&locks[1], SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_WAITING, 2, "two");
    EXPECT_EQ(&locks[1], test::LockRecords()[0].sem);
    TrackSemaphore(&locks[0], SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_OWNED, 99, "ignored");
    const std::vector<test::LockRecord> records = test::LockRecords();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(&locks[0], records[0].sem);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_TYPE_CRITSEC), records[0].type);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_STATE_OWNED), records[0].state);
    EXPECT_EQ(1u, records[0].line);
    EXPECT_EQ("one", records[0].file);
}

TEST(SemTracking, StepsWithoutARecordAndUnknownStatesDoNothing) {
    test::LockTracking tracking;
    int lock = 0;
    TrackSemaphore(&lock, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_OWNED, 1, "x");
    TrackSemaphore(&lock, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_RELEASED, 1, "x");
    for (int state : {-1, 0, 4, 100}) {
        TrackSemaphore(&lock, SEM_TRACK_TYPE_MUTEX, state, 1, "x");
    }
    EXPECT_TRUE(test::LockRecords().empty());
    TrackSemaphore(&lock, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_WAITING, 1, "x");
    OnAnotherThread([&] { TrackSemaphore(&lock, SEM_TRACK_TYPE_MUTEX, SEM_TRACK_STATE_RELEASED, 0, nullptr); });
    EXPECT_EQ(1u, test::LockRecords().size()) << "another thread's step is not this one's";
}

TEST(SemTracking, NestedEntriesHaveARecordEach) {
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    mutex.WaitForMutex(1, "outer");
    mutex.WaitForMutex(2, "inner");
    EXPECT_EQ(2u, test::LockRecords().size());
    mutex.Release();
    ASSERT_EQ(1u, test::LockRecords().size());
    EXPECT_EQ(1u, test::LockRecords()[0].line) << "the newest goes first";
    mutex.Release();
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST(SemTracking, SwitchingItOffDiscardsAllRecords) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    tq_SemMutex mutex(false);
    const unsigned int before = gRequestedMemoryAllocations;
    tq_SemEnableSemTracking();
    mutex.WaitForMutex();
    mutex.WaitForMutex();
    EXPECT_LT(before, gRequestedMemoryAllocations);
    tq_SemDisableSemTracking();
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    tq_SemEnableSemTracking();
    EXPECT_TRUE(test::LockRecords().empty()) << "locks held since before are not listed";
    mutex.Release();
    mutex.Release();
    EXPECT_TRUE(OthersCanTake(mutex));
}

TEST(SemTracking, ARecordThatComesLateForSwitchingItOffIsNotKept) {
    tq_SemMutex mutex(false);
    tq_SemEnableSemTracking();
    LockSemList();
    std::thread late([&] {
        mutex.WaitForMutex();
        mutex.Release();
    });
    EXPECT_TRUE(test::WaitUntilOthersSleep()) << "it has seen that waits are tracked, and waits for the list";
    tq_SemDisableSemTracking();
    unLockSemList();
    late.join();
    EXPECT_TRUE(test::LockRecords().empty());
}

TEST(SemTracking, ListLockMayBeTakenAgain) {
    LockSemList();
    LockSemList();
    unLockSemList();
    EXPECT_EQ(EBUSY, [] {
        int result = 0;
        OnAnotherThread([&] {
            result = pthread_mutex_trylock(&gSemListMutex);
            if (result == 0) {
                unLockSemList();
            }
        });
        return result;
    }());
    unLockSemList();
    OnAnotherThread([] {
        LockSemList();
        unLockSemList();
    });
}

TEST(SemTracking, RecordThatIsRefusedIsReportedOnceAndNotMade) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n[Sem]\nTracking=yes\n");
    tq_SemMutex mutex(false);
    const std::string logBefore = test::ReadFile("tqos_error.log");
    gMemoryCapInBytes = 1;
    EXPECT_EQ(1, mutex.WaitForMutex(3, "refused"));
    EXPECT_FALSE(IsListed(SEM_TRACK_STATE_OWNED, 3));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(1, mutex.Release());
    EXPECT_EQ(1u, test::CountOf(test::ReadFile("tqos_error.log"), "Exceeded defined memory cap") -
                      test::CountOf(logBefore, "Exceeded defined memory cap"));
}

TEST(SemTracking, RecordWhoseFileNameIsRefusedIsMadeWithoutIt) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    gMemoryCapInBytes = gRequestedMemoryAllocations + static_cast<unsigned int>(sizeof(SemListNode)) + 5;
    mutex.WaitForMutex(3, "does not fit");
    gMemoryCapInBytes = 0;
    ASSERT_EQ(1u, test::LockRecords().size());
    EXPECT_EQ("(null)", test::LockRecords()[0].file);
    mutex.Release();
}

TEST(SemTracking, ReportThatIsTooLargeSaysSo) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    tq_SemMutex mutex(false);
    test::LockTracking tracking;
    mutex.WaitForMutex();
    gMemoryCapInBytes = gRequestedMemoryAllocations + 120 + 240 - 1;
    EXPECT_EQ("Too Many Mutex Sems to display", SemReport());
    gMemoryCapInBytes += 1;
    EXPECT_NE("Too Many Mutex Sems to display", SemReport());
    gMemoryCapInBytes = 0;
    mutex.Release();
}

TEST(SemTracking, ReportsAreWholeWhileLocksComeAndGo) {
    constexpr int kThreads = 3;
    tq_SemMutex mutex(false);
    std::atomic<bool> bStop{false};
    test::LockTracking tracking;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            while (!bStop) {
                mutex.WaitForMutex(1, "busy");
                mutex.WaitForMutex(2, "busier");
                mutex.Release();
                mutex.Release();
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        const std::string report = SemReport();
        if (report == "No Mutex Sems currently active.") {
            continue;
        }
        ASSERT_EQ(0u, report.find(kHeader));
        ASSERT_EQ("\r\n", report.substr(report.size() - 2));
        ASSERT_LE(report.size(), 240u + 120u * (2 * kThreads + 1));
    }
    tq_SemDisableSemTracking();
    tq_SemEnableSemTracking();
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(OthersCanTake(mutex));
}

// Looking again before a thread sleeps

namespace {

/// Says for a scope whether there are other processors.
class OtherProcessors {
public:
    explicit OtherProcessors(bool bAny) : m_bBefore(gbOtherProcessors.exchange(bAny)) {}
    ~OtherProcessors() { gbOtherProcessors = m_bBefore; }

private:
    bool m_bBefore;
};

/// One wait that looking does not end, or ends: whether it looked at all.
bool LooksAtAWait(tq_Spin::Waits& waits, bool bPays) {
    tq_Spin spin(waits);
    int looks = 0;
    const bool bPaid = spin.MayPay() && spin.Look(5000, [&] {
        ++looks;
        return bPays;
    });
    EXPECT_EQ(bPays && looks != 0, bPaid);
    EXPECT_TRUE(looks == 0 || looks == (bPays ? 1 : 2));
    return looks != 0;
}

} // namespace

TEST(Spin, NobodyLooksWhereThereIsOneProcessor) {
    const OtherProcessors none(false);
    tq_Spin::Waits waits{0};
    EXPECT_FALSE(LooksAtAWait(waits, /*bPays=*/true));
}

TEST(Spin, AfterThreeWaitsInVainOneWaitInAThousandLooks) {
    const OtherProcessors some(true);
    tq_Spin::Waits waits{0};
    int looked = 0;
    for (int i = 0; i < 3; ++i) {
        looked += LooksAtAWait(waits, /*bPays=*/false);
    }
    EXPECT_EQ(3, looked);
    for (int i = 0; i < 5000; ++i) {
        looked += LooksAtAWait(waits, /*bPays=*/false);
    }
    EXPECT_EQ(3 + 5, looked);
}

TEST(Spin, AWaitThatLookingHasEndedBeginsTheCountAgain) {
    const OtherProcessors some(true);
    tq_Spin::Waits waits{0};
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(LooksAtAWait(waits, /*bPays=*/false));
        EXPECT_TRUE(LooksAtAWait(waits, /*bPays=*/false));
        EXPECT_TRUE(LooksAtAWait(waits, /*bPays=*/true));
    }
}
