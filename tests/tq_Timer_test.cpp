#include "tq_Timer_p.h"

#include <algorithm>
#include <atomic>
#include <dirent.h>
#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <random>
#include <regex>
#include <stdlib.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "MemoryCap.h"
#include "RecordingQueue.h"
#include "TestSupport.h"
#include "tq_Lifecycle_p.h"
#include "tq_Memory_p.h"
#include "tq_Thread_p.h"
#include "tqos.h"

using test::RecordingQueue;

namespace {

constexpr unsigned int kNone = UINT_MAX;
constexpr unsigned int kLong = 3600000;  // an hour: does not expire in a test
constexpr unsigned int kNobody = 900000; // no queue has this handle
constexpr char kTracking[] = "[Memory]\nEnableMemoryTracking=yes\n";

std::vector<size_t> gStackSizesAskedFor; // by the thread of the tests, for threads that it starts

TIMER_NODE Timer(unsigned int mstimeout, unsigned int creationTime, bool bAllowSkew = true) {
    TIMER_NODE timer = {};
    timer.mstimeout = mstimeout;
    timer.creation_time = creationTime;
    timer.bAllowSkew = bAllowSkew;
    return timer;
}

unsigned int SetLong(unsigned int hMsgQ, unsigned int mstimeout, unsigned int instance = 0, unsigned int userparm = 0,
                     unsigned int flags = 0, bool bAllowSkew = false) {
    return tq_TimerSet(hMsgQ, mstimeout, instance, userparm, flags, TQ_TIMER_ONE_SHOT, nullptr, bAllowSkew);
}

std::string Report() {
    char* pszReport = nullptr;
    tq_TimerShowTimers(&pszReport);
    const std::string report = pszReport ? pszReport : "(null)";
    tq_free(pszReport);
    return report;
}

unsigned int TimersSet() {
    const size_t lines = test::CountOf(Report(), "\r\n");
    return lines == 0 ? 0 : static_cast<unsigned int>(lines) - 2;
}

/// The remaining time of a timer just set: it may have run for a while on a busy machine.
void ExpectRemaining(unsigned int expected, unsigned int remaining) {
    EXPECT_LE(remaining, expected);
    EXPECT_GT(remaining, expected - 60000);
}

/// Leaves no memory to anybody while it lives; the library tracks memory.
class NoMemory {
public:
    NoMemory() { gMemoryCapInBytes = 1; }
    ~NoMemory() { gMemoryCapInBytes = 0; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

std::vector<unsigned int> TimerInstances(RecordingQueue& queue) {
    std::vector<unsigned int> instances;
    for (const MSG_COMMON& msg : queue.Seen()) {
        if (msg.command == MSG_TIMER) {
            instances.push_back(msg.instance);
        }
    }
    return instances;
}

} // namespace

/// Stands in front of the C library's: keeps what it is asked for.
extern "C" int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t bytes) noexcept {
    if (syscall(SYS_gettid) == getpid()) {
        gStackSizesAskedFor.push_back(bytes);
    }
    using SetStackSize = int (*)(pthread_attr_t*, size_t);
    return reinterpret_cast<SetStackSize>(dlsym(RTLD_NEXT, "pthread_attr_setstacksize"))(attributes, bytes);
}

// What remains

TEST(Timer, WhatRemainsIsADifferenceAcrossTheWrapOfTheClock) {
    const struct {
        unsigned int mstimeout;
        unsigned int created;
        unsigned int now;
        unsigned int remaining;
    } rows[] = {
        {100, 1000, 1000, 100},
        {100, 1000, 1099, 1},
        {100, 1000, 1100, 0},
        {100, 1000, 5000, 0},
        {100, 0xFFFFFFF0u, 0x10u, 68},
        {0x20, 0xFFFFFFF0u, 0x10u, 0},
        {100, 0x10u, 0xFFFFFFF0u, 132}, // created ahead of now
        {100, 2000, 1000, 1100},        // the same without a wrap
        {0x80000000u, 5, 15, 0x7FFFFFF6u},
        {UINT_MAX, 0xFFFFFFF0u, 0x10u, UINT_MAX - 0x20},
        {UINT_MAX, 2000, 1000, UINT_MAX}, // as much as the field holds
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.remaining, tq_TimerRemainingAt(Timer(row.mstimeout, row.created), row.now));
    }
}

TEST(Timer, BringingUpToDateKeepsWhatRemains) {
    TIMER_NODE timer = Timer(100, 0xFFFFFFF0u);
    tq_TimerBringUpToDate(timer, 0x10u);
    EXPECT_EQ(68u, timer.mstimeout);
    EXPECT_EQ(0x10u, timer.creation_time);
    tq_TimerBringUpToDate(timer, 0x1000u);
    EXPECT_EQ(0u, timer.mstimeout);
    tq_TimerBringUpToDate(timer, 0x2000u);
    EXPECT_EQ(0u, timer.mstimeout);
}

TEST(Timer, AShiftChangesWhatRemainsByTheOffset) {
    const struct {
        unsigned int mstimeout;
        unsigned int elapsed;
        int msOffset;
        unsigned int remaining;
    } rows[] = {
        {300, 0, 500, 0},
        {800, 0, 500, 300},
        {800, 100, 500, 200},
        {300, 0, 300, 0},
        {300, 0, 299, 1},
        {300, 0, 0, 300},
        {300, 0, -200, 500},
        {300, 100, -200, 400}, // younger than the offset
        {0x90000000u, 0, INT_MAX, 0x10000001u},
        {10, 0, INT_MIN, 0x8000000Au},
        {0x90000000u, 0, INT_MIN, UINT_MAX}, // as much as the field holds
    };
    for (unsigned int now : {5000u, 0u, 50u, 0xFFFFFFF0u}) {
        for (const auto& row : rows) {
            TIMER_NODE timer = Timer(row.mstimeout, now - row.elapsed);
            ASSERT_TRUE(tq_TimerFollowsSkew(timer, now));
            tq_TimerShift(timer, row.msOffset, now);
            EXPECT_EQ(row.remaining, tq_TimerRemainingAt(timer, now));
            const unsigned int later = row.remaining < 7 ? 0 : row.remaining - 7;
            EXPECT_EQ(later, tq_TimerRemainingAt(timer, now + 7)) << "and goes on from there";
        }
    }
}

TEST(Timer, ManyPostponementsAddUp) {
    TIMER_NODE timer = Timer(1000, 50);
    tq_TimerShift(timer, -2000000000, 50);
    tq_TimerShift(timer, -2000000000, 50);
    EXPECT_EQ(4000001000u, tq_TimerRemainingAt(timer, 50));
}

TEST(Timer, OnlyATimerThatAllowsItAndIsNotDueFollowsTheSkew) {
    EXPECT_TRUE(tq_TimerFollowsSkew(Timer(100, 1000, true), 1099));
    EXPECT_FALSE(tq_TimerFollowsSkew(Timer(100, 1000, true), 1100));
    EXPECT_FALSE(tq_TimerFollowsSkew(Timer(100, 1000, false), 1000));
}

TEST(Timer, ComparingBringsBothTimersUpToDate) {
    test::Library library;
    tq_TimerList list;
    const unsigned int now = tq_GetTimeInMS();
    TIMER_NODE shorter = Timer(kLong, now - 1000);
    TIMER_NODE longer = Timer(kLong, now);
    EXPECT_EQ(-1, list.CustomSort(&shorter, &longer, nullptr));
    EXPECT_EQ(shorter.creation_time, longer.creation_time);
    EXPECT_EQ(1000u, longer.mstimeout - shorter.mstimeout);
    EXPECT_EQ(1, list.CustomSort(&longer, &shorter, nullptr));
    TIMER_NODE due = Timer(5, now - 1000);
    TIMER_NODE dueLongAgo = Timer(5, now - 100000);
    EXPECT_EQ(0, list.CustomSort(&due, &dueLongAgo, nullptr));
    EXPECT_EQ(0u, due.mstimeout);
}

TEST(Timer, TheListIsSortedAcrossTheWrapOfTheClock) {
    test::Library library;
    tq_TimerList list;
    const unsigned int now = tq_GetTimeInMS();
    TIMER_NODE timers[] = {Timer(50000, now - 20000), Timer(40000, now), Timer(90000, now - 70000), // 30, 40, 20 s
                           Timer(10000, now + 40000)};                                              // 50 s
    for (TIMER_NODE& timer : timers) {
        list.AddNode(&timer);
    }
    EXPECT_EQ(&timers[2], list.GetHead());
    EXPECT_EQ(&timers[0], list.GetNext());
    EXPECT_EQ(&timers[1], list.GetNext());
    EXPECT_EQ(&timers[3], list.GetNext());
}

TEST(Timer, TheListsClockFollowsTheReadingsForwardsAndBack) {
    test::Library library; // without it the list would not give its parts back
    tq_TimerList list;
    const unsigned long long first = list.ClockAt(0xFFFFFFF0u);
    EXPECT_EQ(first + 0x20, list.ClockAt(0x10)) << "across the wrap of the readings";
    EXPECT_EQ(first + 0x1B, list.ClockAt(0x0B)) << "read before by a thread that came later";
    EXPECT_EQ(first - 1, list.ClockAt(0xFFFFFFEFu));
    EXPECT_EQ(first + 0x20, list.ClockAt(0x10));
    EXPECT_EQ(first + 0x20 + 0x7FFFFFFF, list.ClockAt(0x10 + 0x7FFFFFFFu)) << "as long as may be between two readings";
}

TEST(Timer, TheThreadSleepsInPiecesThatFitItsWait) {
    EXPECT_EQ(1, tq_TimerSleepFor(1));
    EXPECT_EQ(kTimerRefreshMs - 1, tq_TimerSleepFor(kTimerRefreshMs - 1));
    for (unsigned int remaining : {0x20000000u, 0x7FFFFFFFu, 0x80000000u, UINT_MAX}) {
        EXPECT_EQ(kTimerRefreshMs, tq_TimerSleepFor(remaining));
    }
}

TEST(Timer, ATimerOfSevenWeeksRunsOutInRefreshes) {
    for (const unsigned int start : {5u, 0xFFFFFFF0u}) {
        test::Library library;
        tq_TimerList list;
        TIMER_NODE timer = Timer(UINT_MAX, start);
        list.AddNode(&timer);
        const unsigned int piece = kTimerRefreshMs;
        EXPECT_EQ(start, tq_TimerRefreshLocked(list, start, start + piece - 1)) << "not yet";
        EXPECT_EQ(start, timer.creation_time);
        unsigned int now = start;
        unsigned int refreshed = start;
        for (unsigned int pieces = 1; pieces < 8; ++pieces) {
            now += piece;
            refreshed = tq_TimerRefreshLocked(list, refreshed, now);
            EXPECT_EQ(now, refreshed);
            EXPECT_EQ(UINT_MAX - pieces * piece, tq_TimerRemainingAt(timer, now));
        }
        EXPECT_EQ(1u, tq_TimerRemainingAt(timer, now + piece - 2));
        EXPECT_EQ(0u, tq_TimerRemainingAt(timer, now + piece - 1));
        EXPECT_EQ(0u, tq_TimerRemainingAt(timer, now + piece));
    }
}

// The list's indexes

namespace {

/// A timer list whose timers it owns, and beside it the same order as walking the list finds it.
class WalkedList {
public:
    explicit WalkedList(unsigned int now) : m_now(now) {}
    ~WalkedList() {
        while (!m_walked.empty()) {
            Remove(0);
        }
    }
    WalkedList(const WalkedList&) = delete;
    WalkedList& operator=(const WalkedList&) = delete;

    void Pass(unsigned int ms) { m_now += ms; }
    size_t Count() const { return m_walked.size(); }

    void Insert(unsigned int mstimeout, unsigned int ageMs) {
        auto* pTimer = static_cast<tq_ArmedTimer*>(tq_calloc(1, sizeof(tq_ArmedTimer)));
        pTimer->mstimeout = mstimeout;
        pTimer->creation_time = m_now - ageMs;
        pTimer->hMsgQ = 7;
        pTimer->instance = ++m_made;
        const unsigned int remaining = tq_TimerRemainingAt(*pTimer, m_now);
        const auto place = std::find_if(m_walked.begin(), m_walked.end(), [&](const tq_ArmedTimer* pOther) {
            return tq_TimerRemainingAt(*pOther, m_now) >= remaining;
        });
        m_walked.insert(place, pTimer);
        ASSERT_TRUE(m_list.Insert(pTimer, m_now));
    }

    void Remove(size_t index) {
        tq_ArmedTimer* const pTimer = m_walked[index];
        m_walked.erase(m_walked.begin() + static_cast<long>(index));
        EXPECT_EQ(pTimer, m_list.Find({7, pTimer->instance, 0, 0}));
        m_list.Remove(pTimer);
        EXPECT_EQ(nullptr, m_list.Find({7, pTimer->instance, 0, 0}));
        CleanupTimerNode(pTimer);
    }

    void Compare() {
        ASSERT_EQ(m_walked.size(), m_list.NodeCount());
        ASSERT_EQ(m_walked.empty() ? nullptr : m_walked.front(), m_list.First());
        void* pNode = m_list.GetHead();
        for (const tq_ArmedTimer* pTimer : m_walked) {
            ASSERT_EQ(pTimer, pNode);
            pNode = m_list.GetNext();
        }
        ASSERT_EQ(nullptr, pNode);
        pNode = m_list.GetTail();
        for (size_t i = m_walked.size(); i > 0; --i) {
            ASSERT_EQ(m_walked[i - 1], pNode);
            pNode = m_list.GetNext();
        }
    }

private:
    tq_TimerList m_list;
    std::vector<tq_ArmedTimer*> m_walked;
    unsigned int m_now;
    unsigned int m_made = 0;
};

} // namespace

TEST(Timer, TheIndexNamesThePlaceThatAWalkFinds) {
    test::Library library;
    for (const unsigned int start : {5u, 0x7FFFFF00u, 0xFFFFFF00u}) { // the clock wraps on the way
        std::mt19937 random(start);
        WalkedList list(start);
        for (unsigned int step = 0; step < 3000; ++step) {
            const unsigned int what = random() % 8;
            if (what < 4) { // few different times, so that many are equal, and many are due
                list.Insert(random() % 40 * 10, random() % 8 * 10);
            } else if (what == 4) {
                list.Insert(UINT_MAX - random() % 3, 0);
            } else if (list.Count() != 0 && what < 7) {
                list.Remove(random() % list.Count());
            } else {
                list.Pass(random() % 3 * 10);
            }
            list.Compare();
            ASSERT_FALSE(HasFatalFailure());
        }
    }
}

TEST(Timer, OfEqualTimersTheNewestComesFirst) {
    test::Library library;
    WalkedList list(1000);
    for (int i = 0; i < 100; ++i) {
        list.Insert(50, 0);
        list.Insert(50, 100); // due, as all that are equal to it
    }
    list.Compare();
}

TEST(Timer, ThousandsOfTimersAreFoundByTheirKeysAndLeaveNoMemoryBehind) {
    constexpr unsigned int kMany = 5000;
    test::Library library(kTracking);
    ASSERT_EQ(0u, tq_TimerInitialize());
    ASSERT_EQ(0u, SetLong(kNobody, kLong));
    ASSERT_EQ(0u, tq_TimerKill(kNobody, 0, 0, 0)); // the list keeps one block of entries
    const unsigned int before = gRequestedMemoryAllocations;
    for (unsigned int i = 0; i < kMany; ++i) {
        ASSERT_EQ(0u, SetLong(kNobody + i % 3, kLong + i % 7, i / 3, i % 5, i % 2));
    }
    EXPECT_EQ(kMany, gpTimerList->NodeCount());
    for (unsigned int i = 0; i < kMany; ++i) {
        ASSERT_EQ(1u, tq_TimerKill(kNobody + i % 3, i / 3, i % 5, 2));
        ASSERT_EQ(0u, tq_TimerKill(kNobody + i % 3, i / 3, i % 5, i % 2));
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(Timer, WithoutMemoryForMoreBucketsTimersAreStillSetAndFound) {
    constexpr unsigned int kArmed = 128; // as many as the first buckets are meant for
    test::Library library(kTracking);
    for (unsigned int instance = 0; instance < kArmed; ++instance) {
        ASSERT_EQ(0u, SetLong(kNobody, kLong, instance));
    }
    tq_ListLock lock(gpTimerList);
    ASSERT_EQ(0u, tq_TimerKill(kNobody, 0, 0, 0)); // leaves an entry free
    ASSERT_EQ(0u, SetLong(kNobody, kLong, kArmed));
    ASSERT_EQ(0u, tq_TimerKill(kNobody, 1, 0, 0));
    ASSERT_EQ(0u, SetLong(kNobody, kLong, kArmed + 1));
    gMemoryCapInBytes = gRequestedMemoryAllocations + 600; // a timer and a block of entries, and no buckets
    EXPECT_EQ(0u, SetLong(kNobody, kLong, kArmed + 2));
    gMemoryCapInBytes = 0;
    for (unsigned int instance = 2; instance <= kArmed + 2; ++instance) {
        EXPECT_EQ(0u, tq_TimerKill(kNobody, instance, 0, 0));
    }
    EXPECT_EQ(0u, gpTimerList->NodeCount());
}

// Setting and killing

TEST(Timer, AnExpirySendsTheTimersValues) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 20, 1, 2, 3, TQ_TIMER_ONE_SHOT, "once", false));
    ASSERT_TRUE(queue.WaitForCount(2));
    const MSG_COMMON msg = queue.Seen()[1];
    EXPECT_EQ(static_cast<unsigned int>(MSG_TIMER), msg.command);
    EXPECT_EQ(0u, msg.hSource);
    EXPECT_EQ(queue.GetHandle(), msg.hDest);
    EXPECT_EQ(28u, msg.size);
    EXPECT_EQ(1u, msg.instance);
    EXPECT_EQ(2u, msg.userparm);
    EXPECT_EQ(3u, msg.flags);
    ASSERT_TRUE(test::WaitUntil([] { return TimersSet() == 0; }));
    EXPECT_EQ(1u, tq_TimerKill(queue.GetHandle(), 1, 2, 3)) << "it is gone";
}

TEST(Timer, AnExpiryNeverComesEarly) {
    test::Library library;
    RecordingQueue queue;
    std::atomic<unsigned int> firedAt{0};
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_TIMER) {
            firedAt = tq_GetTimeInMS();
        }
    });
    queue.Create(0);
    const unsigned int setAt = tq_GetTimeInMS();
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 100));
    ASSERT_TRUE(test::WaitUntil([&] { return firedAt != 0; }));
    EXPECT_GE(firedAt - setAt, 100u);
}

TEST(Timer, LessThanTenMillisecondsCountAsTen) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    queue.Hold();
    for (unsigned int mstimeout : {0u, 5u, 9u}) {
        // held by the lock of the list, so that the report sees it before it fires
        tq_TimerInitialize();
        gpTimerList->Lock();
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), mstimeout));
        const std::string report = Report();
        gpTimerList->Unlock();
        EXPECT_NE(std::string::npos, report.find(" N 10        ")) << report;
    }
    queue.LetGo();
}

TEST(Timer, SettingTheSameFourKeysLeavesOneTimer) {
    test::Library library;
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 2, 3));
    ASSERT_EQ(0u, SetLong(kNobody, 2 * kLong, 1, 2, 3));
    EXPECT_EQ(1u, TimersSet());
    ExpectRemaining(2 * kLong, tq_TimerTimeRemaining(kNobody, 1, 2, 3));
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 2, 4));
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 3, 3));
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 2, 2, 3));
    ASSERT_EQ(0u, SetLong(kNobody + 1, kLong, 1, 2, 3));
    EXPECT_EQ(5u, TimersSet());
}

TEST(Timer, TwoThreadsThatSetTheSameKeysLeaveOneTimer) {
    test::Library library;
    std::vector<std::thread> setters;
    for (int i = 0; i < 4; ++i) {
        setters.emplace_back([] {
            for (int round = 0; round < 200; ++round) {
                EXPECT_EQ(0u, SetLong(kNobody, kLong));
            }
        });
    }
    for (std::thread& setter : setters) {
        setter.join();
    }
    EXPECT_EQ(1u, TimersSet());
}

TEST(Timer, AKillNeedsAllFourKeys) {
    test::Library library;
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 2, 3));
    EXPECT_EQ(1u, tq_TimerKill(kNobody, 1, 2, 4));
    EXPECT_EQ(1u, tq_TimerKill(kNobody, 1, 0, 3));
    EXPECT_EQ(1u, tq_TimerKill(kNobody, 0, 2, 3));
    EXPECT_EQ(1u, tq_TimerKill(kNobody + 1, 1, 2, 3));
    EXPECT_EQ(1u, TimersSet());
    EXPECT_EQ(0u, tq_TimerKill(kNobody, 1, 2, 3));
    EXPECT_EQ(0u, TimersSet());
    EXPECT_EQ(1u, tq_TimerKill(kNobody, 1, 2, 3));
}

TEST(Timer, QueueZeroIsRefused) {
    test::Library library;
    EXPECT_EQ(1u, SetLong(0, kLong));
    EXPECT_EQ(1u, tq_TimerKill(0, 0, 0, 0));
    EXPECT_EQ(0u, tq_TimerTimeRemaining(0, 0, 0, 0));
    EXPECT_EQ(kNone, tq_TimerNextTimeout(0, 0, 0, 0));
    EXPECT_EQ("No Timers currently set...", Report()) << "but the service was started";
}

TEST(Timer, ARepeatingTimerGoesOnUntilItIsKilled) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 20, 7, 0, 0, TQ_TIMER_REPEATING, nullptr, false));
    ASSERT_TRUE(queue.WaitForCount(6));
    EXPECT_EQ(0u, tq_TimerKill(queue.GetHandle(), 7, 0, 0));
    // what had been sent before the kill comes before this; after it nothing may come
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 200, 8, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false));
    ASSERT_TRUE(test::WaitUntil([&] { return TimerInstances(queue).back() == 8; }));
    EXPECT_EQ(8u, TimerInstances(queue).back());
    EXPECT_EQ(0u, TimersSet());
}

TEST(Timer, APeriodBeginsWhenTheExpiryBeforeItWasFoundDue) {
    constexpr unsigned int kPeriodMs = 400;
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int begun = tq_GetTimeInMS();
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), kPeriodMs, 7, 0, 0, TQ_TIMER_REPEATING, nullptr, false));
    unsigned int letGo = 0;
    {
        const tq_ListLock lock(gpTimerList); // the timer thread finds it due late
        ASSERT_TRUE(test::WaitUntil([&] { return tq_GetTimeInMS() - begun >= kPeriodMs + kPeriodMs / 2; }));
        letGo = tq_GetTimeInMS();
    }
    ASSERT_TRUE(queue.WaitForCount(2));
    const tq_ListLock lock(gpTimerList);
    const TIMER_NODE* const pTimer = gpTimerList->First();
    ASSERT_NE(nullptr, pTimer);
    EXPECT_GE(static_cast<int>(pTimer->creation_time - letGo), 0) << "late as it was, it does not catch up";
}

namespace {

/// How often the other threads of this process have gone to sleep.
unsigned long SleepsOfOthers() {
    unsigned long sleeps = 0;
    DIR* pTasks = opendir("/proc/self/task");
    while (const dirent* pTask = pTasks ? readdir(pTasks) : nullptr) {
        if (atoi(pTask->d_name) == getpid()) { // the thread of the tests
            continue;
        }
        const std::string status = test::ReadFile("/proc/self/task/" + std::string(pTask->d_name) + "/status");
        const size_t found = status.find("\nvoluntary_ctxt_switches:");
        if (found != std::string::npos) {
            sleeps += strtoul(status.c_str() + status.find(':', found) + 1, nullptr, 10);
        }
    }
    if (pTasks) {
        closedir(pTasks);
    }
    return sleeps;
}

} // namespace

TEST(Timer, TheThreadDoesNotLookAgainAndAgainUntilATimerIsDue) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 7, 0, 0, TQ_TIMER_REPEATING, nullptr, false));
    ASSERT_TRUE(queue.WaitForCount(10));
    const size_t seen = queue.Seen().size();
    const unsigned long before = SleepsOfOthers();
    ASSERT_TRUE(queue.WaitForCount(seen + 50));
    const unsigned long after = SleepsOfOthers();
    const size_t periods = queue.Seen().size() - seen;
    // A period takes one or two of the timer thread, one of the queue's, and some where the two meet.
    EXPECT_LE(after - before, periods * 20);
    EXPECT_GE(after - before, 50u);
}

TEST(Timer, OnlyTypeOneRepeats) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 1, 0, 0, 2, nullptr, false));
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_TRUE(test::WaitUntil([] { return TimersSet() == 0; }));
}

TEST(Timer, TimersThatAreDueTogetherFireInTheOrderOfTheirTimes) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    for (unsigned int instance : {5u, 2u, 4u, 1u, 3u}) {
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), instance * kLong, instance, 0, 0, true));
    }
    tq_TimerSkew(5 * static_cast<int>(kLong));
    ASSERT_TRUE(queue.WaitForCount(6));
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 4, 5}), TimerInstances(queue));
}

TEST(Timer, AnEarlierTimerWakesTheThreadThatSleepsForALaterOne) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong, 1));
    EXPECT_TRUE(test::WaitUntilOthersSleep());
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 20, 2));
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_EQ((std::vector<unsigned int>{2}), TimerInstances(queue));
}

TEST(Timer, AnEarlierTimerWakesTheThreadAlsoAfterKillsOfEarlierOnes) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 2 * kLong, 1));
    for (unsigned int round = 0; round < 20; ++round) {
        // the thread goes on sleeping for what is killed, and must be woken for what comes before that
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong, 2));
        ASSERT_EQ(0u, tq_TimerKill(queue.GetHandle(), 2, 0, 0));
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong + 1000, 3));
        EXPECT_TRUE(test::WaitUntilOthersSleep());
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), 10, 4));
        ASSERT_TRUE(queue.WaitForCount(2 + round));
        ASSERT_EQ(0u, tq_TimerKill(queue.GetHandle(), 3, 0, 0));
    }
}

TEST(Timer, ATimerWhoseQueueIsGoneFiresOnceAndIsNoLongerListed) {
    test::Library library(kTracking);
    unsigned int handle = 0;
    {
        RecordingQueue queue;
        queue.Create(&handle, 0);
    }
    ASSERT_EQ(0u, tq_TimerSet(handle, 10, 0, 0, 0, TQ_TIMER_REPEATING, "orphan", false));
    EXPECT_TRUE(test::WaitUntil([] { return TimersSet() == 0; }));
    EXPECT_EQ("", test::ReadFile("tqos_error.log"));
}

TEST(Timer, AnExpiryGoesToTheTailOfTheMediumList) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    queue.Hold();
    ASSERT_TRUE(queue.Post(MSG_USER, TQ_MSG_PRIORITY_MEDIUM));
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 10, 3));
    ASSERT_TRUE(test::WaitUntil([&] { return queue.GetQueueDepth(TQ_MSG_PRIORITY_MEDIUM) == 2; }));
    EXPECT_EQ(static_cast<unsigned int>(MSG_TIMER), queue.PeekTail(TQ_MSG_PRIORITY_MEDIUM)->command);
    queue.LetGo();
}

// Asking

TEST(Timer, TheRemainingTimeIsThatOfTheExactTimer) {
    test::Library library;
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 2, 3));
    ExpectRemaining(kLong, tq_TimerTimeRemaining(kNobody, 1, 2, 3));
    EXPECT_EQ(0u, tq_TimerTimeRemaining(kNobody, 0, 2, 3)) << "0 is no wildcard here";
    EXPECT_EQ(0u, tq_TimerTimeRemaining(kNobody + 1, 1, 2, 3));
}

TEST(Timer, TheNextTimeoutIsTheEarliestThatMatchesWithZeroForAnything) {
    test::Library library;
    EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 0, 0, 0));
    ASSERT_EQ(0u, SetLong(kNobody, 3 * kLong, 1, 2, 3));
    ASSERT_EQ(0u, SetLong(kNobody, 2 * kLong, 1, 2, 4));
    ASSERT_EQ(0u, SetLong(kNobody, 4 * kLong, 5, 2, 4));
    ASSERT_EQ(0u, SetLong(kNobody + 1, kLong, 1, 2, 3));
    const struct {
        unsigned int keys[4];
        unsigned int hours;
    } rows[] = {
        {{kNobody, 0, 0, 0}, 2}, {{kNobody, 1, 0, 0}, 2}, {{kNobody, 5, 0, 0}, 4},
        {{kNobody, 0, 2, 3}, 3}, {{kNobody, 1, 2, 4}, 2}, {{kNobody + 1, 0, 0, 3}, 1},
    };
    for (const auto& row : rows) {
        ExpectRemaining(row.hours * kLong, tq_TimerNextTimeout(row.keys[0], row.keys[1], row.keys[2], row.keys[3]));
    }
    EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 6, 0, 0));
    EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 5, 2, 3));
    EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody + 2, 0, 0, 0));
}

TEST(Timer, DurationsOfTwoToThe31AndMoreWork) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    for (unsigned int mstimeout : {0x7FFFFFFFu, 0x80000000u, 0xC0000000u, UINT_MAX}) {
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), mstimeout, 1));
        ExpectRemaining(mstimeout, tq_TimerTimeRemaining(queue.GetHandle(), 1, 0, 0));
        ASSERT_EQ(0u, SetLong(queue.GetHandle(), 10, 2)); // the thread has slept and waked with it
        ASSERT_TRUE(test::WaitUntil([] { return TimersSet() == 1; }));
        ExpectRemaining(mstimeout, tq_TimerTimeRemaining(queue.GetHandle(), 1, 0, 0));
    }
}

// Skew

TEST(Timer, ASkewMovesTheTimersThatAllowIt) {
    test::Library library;
    const int offset = 2 * static_cast<int>(kLong);
    ASSERT_EQ(0u, SetLong(kNobody, 5 * kLong, 1, 0, 0, true));
    ASSERT_EQ(0u, SetLong(kNobody, 5 * kLong, 2, 0, 0, false));
    tq_TimerSkew(offset);
    ExpectRemaining(3 * kLong, tq_TimerTimeRemaining(kNobody, 1, 0, 0));
    ExpectRemaining(5 * kLong, tq_TimerTimeRemaining(kNobody, 2, 0, 0));
    tq_TimerSkew(-2 * offset);
    ExpectRemaining(7 * kLong, tq_TimerTimeRemaining(kNobody, 1, 0, 0));
    ExpectRemaining(5 * kLong, tq_TimerTimeRemaining(kNobody, 2, 0, 0));
    ExpectRemaining(5 * kLong, tq_TimerNextTimeout(kNobody, 0, 0, 0));
    tq_TimerSkew(0);
    ExpectRemaining(7 * kLong, tq_TimerTimeRemaining(kNobody, 1, 0, 0));
}

TEST(Timer, ASkewMakesATimerDueAtOnceAndWakesTheThread) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong, 1, 0, 0, true));
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong, 2, 0, 0, false));
    EXPECT_TRUE(test::WaitUntilOthersSleep());
    tq_TimerSkew(static_cast<int>(kLong));
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_EQ((std::vector<unsigned int>{1}), TimerInstances(queue));
    EXPECT_EQ(1u, TimersSet());
}

TEST(Timer, ASkewedRepeatIsArmedWithItsFullDurationAgain) {
    test::Library library;
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), kLong, 1, 0, 0, TQ_TIMER_REPEATING, nullptr, true));
    tq_TimerSkew(static_cast<int>(kLong));
    ASSERT_TRUE(queue.WaitForCount(2));
    ASSERT_TRUE(test::WaitUntil([] { return TimersSet() == 1; }));
    ExpectRemaining(kLong, tq_TimerTimeRemaining(queue.GetHandle(), 1, 0, 0));
}

TEST(Timer, ASkewKeepsTheOrderOfEqualTimers) {
    test::Library library;
    ASSERT_EQ(0u, tq_TimerInitialize());
    { // one moment for all of them
        tq_ListLock lock(gpTimerList);
        const unsigned int now = tq_GetTimeInMS();
        for (unsigned int instance = 1; instance <= 40; ++instance) {
            ASSERT_EQ(0u, SetLong(kNobody, kLong, instance, 0, 0, instance % 2 == 0));
            static_cast<TIMER_NODE*>(gpTimerList->GetCurrent())->creation_time = now;
        }
    }
    tq_TimerSkew(-1000000);
    tq_ListLock lock(gpTimerList);
    EXPECT_EQ(40u, gpTimerList->NodeCount());
    unsigned int previous = 0;
    for (void* pNode = gpTimerList->GetHead(); pNode; pNode = gpTimerList->GetNext()) {
        const TIMER_NODE& timer = *static_cast<TIMER_NODE*>(pNode);
        const unsigned int remaining = tq_TimerRemainingAt(timer, tq_GetTimeInMS());
        EXPECT_GE(remaining + 60000, previous);
        EXPECT_EQ(timer.bAllowSkew, remaining > kLong) << timer.instance;
        previous = remaining;
    }
}

TEST(Timer, ASkewOfManyTimersLosesNone) {
    test::Library library;
    for (unsigned int instance = 1; instance <= 100; ++instance) {
        ASSERT_EQ(0u, SetLong(kNobody, kLong + instance * 1000, instance, 0, 0, true));
    }
    tq_TimerSkew(1000);
    EXPECT_EQ(100u, TimersSet());
    for (unsigned int instance = 1; instance <= 100; ++instance) {
        EXPECT_EQ(0u, tq_TimerKill(kNobody, instance, 0, 0));
    }
}

TEST(Timer, ASkewWithoutMemoryLeavesTheTimersAsTheyAre) {
    test::Library library(kTracking);
    ASSERT_EQ(0u, SetLong(kNobody, kLong, 1, 0, 0, true));
    {
        tq_ListLock lock(gpTimerList); // the timer thread looks at nothing meanwhile
        NoMemory none;
        tq_TimerSkew(static_cast<int>(kLong));
    }
    ExpectRemaining(kLong, tq_TimerTimeRemaining(kNobody, 1, 0, 0));
    EXPECT_EQ(1u, TimersSet());
}

// The report

TEST(Timer, TheReportSaysThatTheServiceHasNotStartedAndDoesNotStartIt) {
    const char kNotYet[] = "TQOS Timer Subsystem not yet initialized!";
    EXPECT_EQ(kNotYet, Report());
    {
        test::Library library;
        EXPECT_EQ(kNotYet, Report());
        EXPECT_EQ(kNotYet, Report());
        ASSERT_EQ(0u, tq_TimerInitialize());
        EXPECT_EQ("No Timers currently set...", Report());
        tq_TimerShowTimers(nullptr);
    }
    EXPECT_EQ(kNotYet, Report());
}

TEST(Timer, TheReportListsTheEarliestFirst) {
    test::Library library;
    ASSERT_EQ(0u, tq_TimerInitialize());
    std::string report;
    {
        tq_ListLock lock(gpTimerList);
        ASSERT_EQ(0u, tq_TimerSet(17, 2 * kLong, 1, 22, 333, TQ_TIMER_REPEATING, "the later one", false));
        ASSERT_EQ(0u, tq_TimerSet(4, kLong, 55555, 4294967295u, 0, TQ_TIMER_ONE_SHOT, nullptr, false));
        ASSERT_EQ(0u, tq_TimerSet(4, 3 * kLong, 0, 0, 0, 9, "a name that is longer than its column", false));
        report = Report();
    }
    const std::string expected =
        "  MsgQ Inst   User    Flg  R Dur(ms)   Rem(ms)   Name\r\n"
        "  ---- ------ ------ ----- - --------- --------- ------------\r\n"
        "  4    55555  4294967295 0     N 3600000   REMAINING (unnamed)              \r\n"
        "  17   1      22     333   Y 7200000   REMAINING the later one          \r\n"
        "  4    0      0      0     N 10800000  REMAINING a name that is longer than its column\r\n";
    // only the remaining times are not known: nine columns wide, unless they have more digits
    const std::regex row("( [YN] [0-9]+ +)([0-9]{7,8}) {1,2} ");
    EXPECT_EQ(expected, std::regex_replace(report, row, "$1REMAINING "));
}

TEST(Timer, AReportWithoutMemoryIsNull) {
    test::Library library(kTracking);
    ASSERT_EQ(0u, SetLong(kNobody, kLong));
    tq_ListLock lock(gpTimerList); // the timer thread allocates nothing meanwhile
    const unsigned int before = gRequestedMemoryAllocations;
    for (const unsigned int room : {0u, 160u + 320u - 1u}) {
        gMemoryCapInBytes = before + room;
        char unchanged = 'x';
        char* pszReport = &unchanged;
        tq_TimerShowTimers(&pszReport);
        EXPECT_EQ(nullptr, pszReport) << room;
    }
    gMemoryCapInBytes = before + 160 + 320;
    EXPECT_NE("(null)", Report());
    gMemoryCapInBytes = 0;
}

// Failures

TEST(Timer, ASetWithoutMemoryFailsAndKillsNothing) {
    test::Library library(kTracking);
    ASSERT_EQ(0u, SetLong(kNobody, kLong));
    tq_ListLock lock(gpTimerList);
    {
        NoMemory none;
        EXPECT_EQ(1u, SetLong(kNobody, 2 * kLong));
    }
    ExpectRemaining(kLong, tq_TimerTimeRemaining(kNobody, 0, 0, 0));
}

TEST(Timer, ASetForWhichTheListHasNoMemoryFailsAndLeavesNothingBehind) {
    test::Library library(kTracking);
    for (unsigned int instance = 0; instance < 16; ++instance) { // one block of a list
        ASSERT_EQ(0u, SetLong(kNobody, kLong, instance));
    }
    tq_ListLock lock(gpTimerList);
    const unsigned int before = gRequestedMemoryAllocations;
    gMemoryCapInBytes = before + sizeof(tq_ArmedTimer);
    EXPECT_EQ(1u, SetLong(kNobody, kLong, 16));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    EXPECT_EQ(16u, gpTimerList->NodeCount());
}

TEST(Timer, AStartWithoutMemoryFailsAndTheNextUseTriesAgain) {
    test::Library library(kTracking);
    const unsigned int before = gRequestedMemoryAllocations;
    for (unsigned int left = 0; left < 2000; left += 4) {
        gMemoryCapInBytes = before + left;
        ASSERT_EQ(1u, tq_TimerInitialize()) << left;
        ASSERT_EQ(before, gRequestedMemoryAllocations);
    }
    gMemoryCapInBytes = 1;
    EXPECT_EQ(1u, SetLong(kNobody, kLong));
    EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 0, 0, 0));
    gMemoryCapInBytes = 0;
    EXPECT_EQ("TQOS Timer Subsystem not yet initialized!", Report());
    EXPECT_EQ(0u, SetLong(kNobody, kLong));
    EXPECT_EQ(1u, TimersSet());
    tq_TimerTerminate();
    EXPECT_EQ("TQOS Timer Subsystem not yet initialized!", Report()) << "no refused start was counted";
}

TEST(Timer, ADueTimerWhoseMessageFindsNoMemoryIsLost) {
    test::Library library(kTracking);
    RecordingQueue queue;
    queue.Create(0);
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), kLong, 1));
    ASSERT_TRUE(queue.WaitForCount(1));
    TIMER_NODE* pLost = nullptr;
    {
        tq_ListLock lock(gpTimerList);
        ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 2, 0, 0, TQ_TIMER_REPEATING, "lost", false));
        pLost = static_cast<TIMER_NODE*>(gpTimerList->GetHead());
        EXPECT_EQ(2u, pLost->instance);
        gMemoryCapInBytes = 1; // seen by the timer thread, which needs this lock first
    }
    EXPECT_TRUE(test::WaitUntil([] { // counted, not reported: a report needs memory
        tq_ListLock lock(gpTimerList);
        return gpTimerList->NodeCount() == 1;
    }));
    {
        tq_ListLock lock(gpTimerList);
        gMemoryCapInBytes = 0;
    }
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 10, 3)); // the next one comes
    ASSERT_TRUE(queue.WaitForCount(2));
    EXPECT_EQ((std::vector<unsigned int>{3}), TimerInstances(queue));
    EXPECT_STREQ("lost", pLost->name);
    CleanupTimerNode(pLost); // the service has forgotten it; only this test knows where it is
    CleanupTimerNode(nullptr);
}

// Start and stop

TEST(Timer, WithoutTheLibraryNothingStarts) {
    const auto refused = [] {
        EXPECT_EQ(1u, tq_TimerInitialize());
        EXPECT_EQ(1u, SetLong(kNobody, kLong));
        EXPECT_EQ(1u, tq_TimerKill(kNobody, 0, 0, 0));
        EXPECT_EQ(0u, tq_TimerTimeRemaining(kNobody, 0, 0, 0));
        EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 0, 0, 0));
        tq_TimerSkew(100);
        tq_TimerTerminate();
        EXPECT_EQ(nullptr, gpTimerList);
    };
    refused();
    { test::Library library; }
    refused();
}

TEST(Timer, EveryOperationButTheReportStartsTheService) {
    void (*const operations[])() = {
        [] { EXPECT_EQ(0u, SetLong(kNobody, kLong)); },
        [] { EXPECT_EQ(1u, tq_TimerKill(kNobody, 0, 0, 0)); },
        [] { EXPECT_EQ(0u, tq_TimerTimeRemaining(kNobody, 0, 0, 0)); },
        [] { EXPECT_EQ(kNone, tq_TimerNextTimeout(kNobody, 0, 0, 0)); },
        [] { tq_TimerSkew(5); },
        [] { EXPECT_EQ(0u, tq_TimerInitialize()); },
    };
    test::Library library;
    for (void (*operation)() : operations) {
        EXPECT_EQ(nullptr, gpTimerList);
        operation();
        EXPECT_NE(nullptr, gpTimerList);
        tq_TimerTerminate();
    }
    tq_TimerTerminate();
    EXPECT_EQ(nullptr, gpTimerList);
}

TEST(Timer, TheServiceStopsWithItsLastUser) {
    test::Library library;
    ASSERT_EQ(0u, tq_TimerInitialize());
    ASSERT_EQ(0u, tq_TimerInitialize());
    ASSERT_EQ(0u, SetLong(kNobody, kLong)); // counts no user
    tq_TimerTerminate();
    EXPECT_EQ(1u, TimersSet());
    tq_TimerTerminate();
    EXPECT_EQ("TQOS Timer Subsystem not yet initialized!", Report());
    EXPECT_EQ(0u, SetLong(kNobody, kLong)) << "and starts again";
}

TEST(Timer, TheLibrarysTerminationIsTheLastUsersWhateverIsStillCounted) {
    test::Library library(kTracking);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0u, tq_TimerInitialize());
    }
    ASSERT_EQ(0u, SetLong(kNobody, kLong));
    library.Terminate();
    EXPECT_EQ(nullptr, gpTimerList);
}

TEST(Timer, TheThreadIsTrackedByItsNameAndNoLongerOnceStopped) {
    test::Library library;
    const auto threads = [] {
        char* pszReport = nullptr;
        tq_ShowThreads(&pszReport);
        const std::string report = pszReport ? pszReport : "";
        tq_free(pszReport);
        return report;
    };
    ASSERT_EQ(0u, tq_TimerInitialize());
    EXPECT_EQ(1u, test::CountOf(threads(), "   N  TQOS: Timer Thread ")) << threads();
    tq_TimerTerminate();
    EXPECT_EQ(0u, test::CountOf(threads(), "TQOS: Timer Thread")) << threads();
}

TEST(Timer, TheThreadAsksForAStackOfItsOwnWhateverIsConfigured) {
    test::Library library("[Thread]\nDefaultStackSize=1048576\n");
    gStackSizesAskedFor.clear();
    ASSERT_EQ(0u, tq_TimerInitialize());
    EXPECT_EQ(1, std::count(gStackSizesAskedFor.begin(), gStackSizesAskedFor.end(), 4096u));
    EXPECT_EQ(0, std::count(gStackSizesAskedFor.begin(), gStackSizesAskedFor.end(), 1048576u));
    tq_TimerTerminate();
}

TEST(Timer, NothingIsLeftOfTimersThatTheStopFindsArmed) {
    test::Library library(kTracking);
    const auto bytes = [] {
        tq_ThreadWaitForEndingThreads();
        return gRequestedMemoryAllocations.load();
    };
    ASSERT_EQ(0u, tq_TimerInitialize());
    tq_TimerTerminate();
    const unsigned int before = bytes();
    for (unsigned int instance = 0; instance < 50; ++instance) {
        ASSERT_EQ(0u, tq_TimerSet(kNobody, kLong, instance, 0, 0, TQ_TIMER_REPEATING, "armed", true));
    }
    tq_TimerTerminate();
    EXPECT_EQ(before, bytes());
}

TEST(Timer, AStormOfStartsUsesAndStopsIsClean) {
    test::ScratchDirectory directory;
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(0u, tqOS_Initialize());
        RecordingQueue queue;
        queue.Create(0);
        SetLong(queue.GetHandle(), 10, 0);
        if (round % 3 == 1) {
            tq_TimerTerminate(); // right after the first use
            SetLong(kNobody, 10);
        } else if (round % 3 == 2) {
            ASSERT_TRUE(queue.WaitForCount(2));
        }
        tqOS_Terminate(false, /*bWaitForThreads=*/round % 2 == 0);
    }
}

TEST(Timer, LateUsersFindNothingWhileTheLibraryStopsAndStarts) {
    test::ScratchDirectory directory;
    std::atomic<bool> bStop{false};
    std::vector<std::thread> users;
    for (unsigned int user = 0; user < 3; ++user) {
        users.emplace_back([&bStop, user] {
            while (!bStop) {
                // operations that allocate nothing: the memory settings change between two runs of the library
                tq_TimerTimeRemaining(kNobody, user, 0, 0);
                tq_TimerNextTimeout(kNobody, 0, 0, 0);
                tq_TimerKill(kNobody, user, 0, 0);
            }
        });
    }
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(0u, tqOS_Initialize());
        EXPECT_EQ(0u, SetLong(kNobody, 10));
        if (round % 2) {
            tq_TimerTerminate();
        }
        tqOS_Terminate(false, true);
    }
    bStop = true;
    for (std::thread& user : users) {
        user.join();
    }
}

TEST(Timer, ManyThreadsMayUseItAtOnce) {
    test::Library library(kTracking);
    RecordingQueue queue;
    queue.Create(0);
    const unsigned int handle = queue.GetHandle();
    std::vector<std::thread> users;
    for (unsigned int user = 1; user <= 4; ++user) {
        users.emplace_back([=] {
            for (unsigned int i = 0; i < 150; ++i) {
                EXPECT_EQ(0u, tq_TimerSet(handle, 10 + i % 20, user, i % 10, 0, i % 2, "many", i % 3 == 0));
                tq_TimerSkew(i % 2 ? 3 : -3);
                tq_TimerNextTimeout(handle, user, 0, 0);
                tq_TimerTimeRemaining(handle, user, i % 10, 0);
                if (i % 5 == 0) {
                    Report();
                }
                tq_TimerKill(handle, user, (i + 5) % 10, 0);
            }
        });
    }
    for (std::thread& user : users) {
        user.join();
    }
    ASSERT_EQ(0u, SetLong(handle, 10, 99));
    EXPECT_TRUE(test::WaitUntil([&] {
        const std::vector<unsigned int> instances = TimerInstances(queue);
        return std::find(instances.begin(), instances.end(), 99u) != instances.end();
    }));
}

// The road from a timer to a handler, under every setting of locks and memory

namespace {

/// The road at one go: a queue's creation, a few timers, messages of each priority, and their end.
void GoTheRoad(RecordingQueue& queue, unsigned int mstimeout) {
    queue.Create(0);
    for (unsigned int instance = 0; instance < 4; ++instance) {
        tq_TimerSet(queue.GetHandle(), mstimeout, instance, 0, 0, instance % 2, "road", true);
    }
    for (int i = 0; i < 20; ++i) {
        queue.Post(MSG_USER, i % 4);
    }
    tq_TimerSkew(20);
    Report();
    for (unsigned int instance = 0; instance < 4; ++instance) {
        tq_TimerKill(queue.GetHandle(), instance, 0, 0);
    }
    queue.Cleanup();
}

} // namespace

TEST(Timer, TheRoadIsTheSameWithEveryKindOfLock) {
    for (const char* pszSem : {"UseMutexForCritSec=yes\n", "UseMutexForCritSec=no\n", "ForceSchedYield=yes\n",
                               "Tracking=yes\n", "Tracking=yes\nUseMutexForCritSec=no\nForceSchedYield=yes\n"}) {
        test::Library library(std::string(kTracking) + "[Sem]\n" + pszSem);
        RecordingQueue queue;
        queue.Create(0);
        ASSERT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 0, 0, 0, TQ_TIMER_REPEATING, nullptr, false));
        ASSERT_TRUE(queue.WaitForCount(4));
        std::vector<std::thread> others;
        for (int i = 0; i < 3; ++i) {
            others.emplace_back([] {
                for (int round = 0; round < 5; ++round) {
                    RecordingQueue own;
                    GoTheRoad(own, 10);
                }
            });
        }
        for (std::thread& other : others) {
            other.join();
        }
        EXPECT_EQ("", test::ReadFile("tqos_error.log"));
    }
}

TEST(Timer, WhereverMemoryRunsOutTheRoadEndsInAReportAndNeverInAHang) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=200000\n[Sem]\nTracking=yes\n");
    RecordingQueue queue; // its locks have their memory
    // no timer is due on the way: without memory it would be lost, which a test of its own looks at
    GoTheRoad(queue, kLong); // from here on every list that lasts has its first block
    for (unsigned int left = 0; left < 2000; left += 100) {
        tq_ThreadWaitForEndingThreads();
        void* pHog = nullptr;
        { // the timer thread's waits are tracked, so it may be allocating just now
            myCritSecLock lock(MemoryTrackingCritSec);
            pHog = tq_malloc(200000 - gRequestedMemoryAllocations - left);
        }
        ASSERT_NE(nullptr, pHog);
        GoTheRoad(queue, kLong);
        tq_free(pHog);
    }
    queue.Create(0);
    const size_t seen = queue.Seen().size();
    ASSERT_EQ(0u, SetLong(queue.GetHandle(), 10, 1));
    EXPECT_TRUE(queue.WaitForCount(seen + 1)) << "nothing is broken for good";
    EXPECT_NE("", test::ReadFile("tqos_error.log"));
}
