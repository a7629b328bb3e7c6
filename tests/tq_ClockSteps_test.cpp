#include "tq_ClockSteps_p.h"

#include <algorithm>
#include <limits.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr long long kMs = 1000000;
constexpr long long kCountNs = 10 * kMs;
constexpr long long kUs = 1000;

/// A system that counts ticks and derives from them the coarser count, as Linux does.
struct System {
    long long tickNs;
    long long firstTick; ///< the moment of tick 0
    unsigned long long ticksBefore = 0;

    unsigned int CountAt(long long ns) const {
        const auto ticks = static_cast<unsigned long long>((ns - firstTick) / tickNs) + ticksBefore;
        return static_cast<unsigned int>(ticks * static_cast<unsigned long long>(tickNs) / kCountNs);
    }
    /// The first moment after `ns` at which the count stands at `count`, or has passed it.
    long long StepTo(unsigned int count, long long ns) const {
        long long step = firstTick + (ns - firstTick) / tickNs * tickNs;
        while (static_cast<int>(CountAt(step) - count) < 0) {
            step += tickNs;
        }
        return step;
    }
};

/// A thread that waits for one count after the other, and looks some time after it has asked to be woken.
struct Waiter {
    tq_ClockSteps steps;
    long long now;
    std::vector<int> wakes;        ///< for each count, how often it woke
    std::vector<long long> lateBy; ///< and how late it saw it

    Waiter(const System& system, long long start) : steps(system.tickNs, kCountNs), now(start) { See(system); }
    unsigned int See(const System& system) {
        const unsigned int count = system.CountAt(now);
        steps.Saw(count, now - 1 * kUs, now);
        return count;
    }
    void WaitForNext(const System& system, long long wakesLateBy) {
        unsigned int count = See(system);
        const unsigned int due = count + 1;
        const long long step = system.StepTo(due, now);
        int woken = 0;
        while (static_cast<int>(count - due) < 0) {
            now = std::max(now, steps.WakeFor(due)) + wakesLateBy;
            count = See(system);
            ++woken;
        }
        wakes.push_back(woken);
        lateBy.push_back(now - step);
    }
    long long MedianLateness() const {
        std::vector<long long> sorted = lateBy;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
};

struct Named {
    const char* pszName;
    System system;
};

const Named kSystems[] = {
    {"a tick of 10 ms", {10 * kMs, 0}},
    {"of 4 ms: steps of 12 and 8 ms", {4 * kMs, 1234567}},
    {"of 1 ms", {1 * kMs, 999999}},
    {"of a third", {3333333, 77}},
    {"of 1024 a second", {976562, 500000}},
    {"of 20 ms: two counts at once", {20 * kMs, 3 * kMs}},
    {"ticks counted since long ago", {4 * kMs, 17, 4294892296ull}},
    {"and the count wraps", {4 * kMs, 17, 4294967296ull * 5 / 2 - 100}},
};

} // namespace

TEST(ClockSteps, AnythingThatIsNoTickIsNotForeseen) {
    for (long long tickNs : {0LL, -4 * kMs, 1LL, 99999LL, 100000001LL, LLONG_MAX}) {
        EXPECT_FALSE(tq_ClockSteps(tickNs, kCountNs).CanForesee()) << tickNs;
    }
    EXPECT_FALSE(tq_ClockSteps(4 * kMs, 0).CanForesee());
    EXPECT_TRUE(tq_ClockSteps(100000, kCountNs).CanForesee());
    EXPECT_TRUE(tq_ClockSteps(100000000, kCountNs).CanForesee());
}

TEST(ClockSteps, ACertainAnswerIsRightBehindTheLatestMomentThatWhatWasSeenAllows) {
    // Tick 0 may have been from before - (the step to the next count) to after - (the step to this one).
    const struct {
        unsigned int count;
        long long before, after;
        unsigned int due;
        long long early, certain;
    } rows[] = {
        // 4 ms: count 0 begins with tick 0, 1 with tick 3 (12 ms), 2 with tick 5 (20 ms), 3 with tick 8 (32 ms)
        {0, 1000, 2000, 1, 12 * kMs + (1000 - 12 * kMs + 2000) / 2, 12 * kMs + 2000 + 25 * kUs},
        {1, 15 * kMs, 15 * kMs, 2, 20 * kMs - 1 * kMs, 20 * kMs + 3 * kMs + 25 * kUs},
        {2, 20 * kMs, 20 * kMs, 3, 32 * kMs - 6 * kMs, 32 * kMs + 25 * kUs},
        {2, 20 * kMs, 20 * kMs, 102, 1020 * kMs - 6 * kMs, 1020 * kMs + 25 * kUs},
        {UINT_MAX, 0, 0, 1, 16 * kMs, 20 * kMs + 25 * kUs}, // the wrap; 2^32 - 1 is odd: it lasts 8 ms, 0 then 12
    };
    for (const auto& row : rows) {
        tq_ClockSteps steps(4 * kMs, kCountNs);
        steps.Saw(row.count, row.before, row.after);
        EXPECT_EQ(row.early, steps.WakeFor(row.due)) << row.count;
        EXPECT_EQ(row.certain, steps.WakeFor(row.due)) << row.count;
    }
}

TEST(ClockSteps, WhatIsKnownCloselyIsNotTriedEarly) {
    tq_ClockSteps steps(4 * kMs, kCountNs);
    steps.Saw(0, 12 * kMs - 20 * kUs, 12 * kMs - 10 * kUs); // tick 3 was to come
    steps.Saw(1, 12 * kMs + 10 * kUs, 12 * kMs + 20 * kUs); // and is over
    EXPECT_EQ(20 * kMs + 20 * kUs + 25 * kUs, steps.WakeFor(2));
    EXPECT_EQ(32 * kMs + 20 * kUs + 25 * kUs, steps.WakeFor(3));
}

TEST(ClockSteps, NoStepIsMissedAndNoneTakesMoreThanOneWakeMore) {
    constexpr long long kWakesLateBy = 20 * kUs;
    for (const Named& named : kSystems) {
        const System& system = named.system;
        for (long long start = 0; start < 60 * kMs; start += 7 * kMs) {
            Waiter waiter(system, system.firstTick + start);
            for (int i = 0; i < 500; ++i) {
                waiter.WaitForNext(system, kWakesLateBy);
            }
            EXPECT_LE(*std::max_element(waiter.wakes.begin(), waiter.wakes.end()), 2) << named.pszName;
            // Learning takes some steps, each late by half as much as the one before at most.
            const auto learned = waiter.lateBy.begin() + 12;
            EXPECT_LE(*std::max_element(learned, waiter.lateBy.end()), 150 * kUs) << named.pszName;
            EXPECT_LE(waiter.MedianLateness(), 120 * kUs) << named.pszName;
        }
    }
}

TEST(ClockSteps, ATickThatIsLateForOnceCostsAFewWakesAndIsForgotten) {
    System system = {4 * kMs, 0};
    Waiter waiter(system, 1 * kMs);
    for (int i = 0; i < 100; ++i) {
        waiter.WaitForNext(system, 0);
    }
    System late = system;
    late.firstTick += 600 * kUs;
    waiter.WaitForNext(late, 0);
    EXPECT_LE(waiter.wakes.back(), 4);
    for (int i = 0; i < 200; ++i) {
        waiter.WaitForNext(system, 0);
    }
    EXPECT_LE(*std::max_element(waiter.wakes.end() - 200, waiter.wakes.end()), 2);
    EXPECT_LE(waiter.lateBy.back(), 100 * kUs);
}

TEST(ClockSteps, TicksThatComeAtOtherMomentsFromNowOnAreLearnedAgain) {
    for (long long shift : {-300 * kUs, 300 * kUs, 5 * kMs}) {
        System system = {4 * kMs, 0};
        Waiter waiter(system, 1 * kMs);
        for (int i = 0; i < 100; ++i) {
            waiter.WaitForNext(system, 0);
        }
        system.firstTick += shift;
        waiter.now += 10 * kMs;
        for (int i = 0; i < 300; ++i) {
            waiter.WaitForNext(system, 0);
        }
        EXPECT_LE(*std::max_element(waiter.wakes.begin(), waiter.wakes.end()), 8) << shift;
        EXPECT_LE(*std::max_element(waiter.wakes.end() - 100, waiter.wakes.end()), 2) << shift;
        EXPECT_LE(waiter.lateBy.back(), 150 * kUs) << shift;
    }
}

TEST(ClockSteps, TicksThatWereLateWhileLearningDoNotMakeAllOthersLate) {
    System late = {4 * kMs, 500 * kUs};
    const System system = {4 * kMs, 0};
    Waiter waiter(late, 1 * kMs);
    for (int i = 0; i < 20; ++i) {
        waiter.WaitForNext(late, 0);
    }
    for (int i = 0; i < 1000; ++i) {
        waiter.WaitForNext(system, 0);
    }
    EXPECT_LE(waiter.lateBy.back(), 150 * kUs);
}
