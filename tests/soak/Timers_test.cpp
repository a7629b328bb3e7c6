// Timers: a thousand at a time, 500 times a second one that is set, killed or replaced, while the millisecond clock
// wraps. Each one-shot fires once unless it was killed, none before its time, and what has been replaced never.
#include <map>

#include "Soak.h"

namespace {

// The clock as every module sees it, moved on to just before its wrap.
std::atomic<unsigned int> gClockOffset{0};
constexpr unsigned int kBeforeWrapMs = 500;

} // namespace

extern "C" {
unsigned int __real_tq_GetTimeInMS();
unsigned int __wrap_tq_GetTimeInMS();

unsigned int __wrap_tq_GetTimeInMS() {
    return __real_tq_GetTimeInMS() + gClockOffset.load(std::memory_order_relaxed);
}
}

namespace {

using namespace soak;
using namespace test;

constexpr unsigned int kSleepers = 700; ///< armed for hours, and set again over and over; one in ten sets wakes it
constexpr unsigned int kTickers = 50;   ///< repeat
constexpr unsigned int kShots = 250;    ///< armed for a moment, each known by a number of its own
constexpr unsigned int kHoursMs = 5000000;
constexpr unsigned int kTickMs = 200;
constexpr unsigned int kClockTickMs = 10; ///< what the clock's steps may hide

enum Flags { kSleeper = 1, kTicker = 2, kShot = 3 };

/// Times are measured from before a timer is set to after its message has come: they can only be too long.
class TimedQueue : public DeviceQueue {
public:
    TimedQueue() : DeviceQueue("Timed") { Create(TQ_THREAD_PRIORITY_NORMAL); }
    ~TimedQueue() override { EndIdle(); }

    /// To be called before the timer is set: from now on it may fire, once.
    void Expect(unsigned int flags, unsigned int instance, unsigned int durationMs) {
        const tq_CritSecLock lock(m_lock);
        m_expected[{flags, instance}] = {tq_GetTimeInMS(), durationMs, 0};
    }
    /// It was killed: true when it would have been expected.
    bool Forget(unsigned int flags, unsigned int instance) {
        const tq_CritSecLock lock(m_lock);
        return m_expected.erase({flags, instance}) == 1;
    }
    bool IsExpected(unsigned int flags, unsigned int instance) {
        const tq_CritSecLock lock(m_lock);
        return m_expected.count({flags, instance}) != 0;
    }
    size_t Expected() {
        const tq_CritSecLock lock(m_lock);
        return m_expected.size();
    }

    std::atomic<unsigned long long> m_fired{0};
    std::atomic<unsigned long long> m_ticks{0};
    std::atomic<unsigned int> m_early{0};
    std::atomic<unsigned int> m_unexpected{0};
    tq_SemSemaphore m_free{kShots, kShots}; ///< shots that may be set further

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        EXPECT_EQ(static_cast<unsigned int>(MSG_TIMER), pMsg->command);
        const bool bTick = pMsg->flags == kTicker;
        {
            const tq_CritSecLock lock(m_lock);
            const auto expected = m_expected.find({pMsg->flags, pMsg->instance});
            if (expected == m_expected.end()) {
                ++m_unexpected;
                return false;
            }
            Armed& armed = expected->second;
            const unsigned int leastMs = ++armed.times * armed.durationMs;
            m_early += tq_GetTimeInMS() - armed.setAt + kClockTickMs < leastMs ? 1 : 0;
            ++(bTick ? m_ticks : m_fired); // before nothing is expected any more, which ends the soak
            if (!bTick) {
                m_expected.erase(expected);
            }
        }
        if (pMsg->flags == kShot) {
            m_free.Release(1, nullptr);
        }
        return false;
    }

private:
    struct Armed {
        unsigned int setAt;
        unsigned int durationMs;
        unsigned int times; ///< that it has fired
    };
    tq_SemCritSec m_lock{true};
    std::map<std::pair<unsigned int, unsigned int>, Armed> m_expected;
};

class TimerSoak : public Soak {
public:
    TimerSoak() {
        for (unsigned int sleeper = 0; sleeper < kSleepers; ++sleeper) {
            Set(kSleeper, sleeper, kHoursMs, TQ_TIMER_ONE_SHOT);
        }
        for (unsigned int ticker = 0; ticker < kTickers; ++ticker) {
            m_queue.Expect(kTicker, ticker, kTickMs);
            Set(kTicker, ticker, kTickMs, TQ_TIMER_REPEATING);
        }
        m_workers.Add(10, [this] {
            for (unsigned int i = 0; i < 5; ++i) {
                ChangeOne();
            }
        });
    }

    bool HasWorked() const override { return m_queue.m_fired > kTickers && m_queue.m_ticks > kTickers && m_killed > 0; }
    unsigned long long Done() const override { return m_changes; }

    void Stop() override {
        m_workers.Stop();
        for (unsigned int ticker = 0; ticker < kTickers; ++ticker) {
            EXPECT_EQ(0u, tq_TimerKill(m_queue.GetHandle(), ticker, ticker * 3, kTicker));
        }
        for (unsigned int sleeper = 0; sleeper < kSleepers; ++sleeper) {
            KillSleeper(sleeper);
        }
        // Ticks that were sent before their kill are still on their way.
        EXPECT_TRUE(WaitUntil([this] { return m_queue.Expected() == kTickers; }, kHangSeconds)) << m_queue.Expected();
        EXPECT_EQ(0xFFFFFFFFu, tq_TimerNextTimeout(m_queue.GetHandle(), 0, 0, 0));
        EXPECT_EQ(m_armed, m_queue.m_fired + m_killed);
        EXPECT_EQ(0u, m_queue.m_early);
        EXPECT_EQ(0u, m_queue.m_unexpected);
    }

    std::string Account() const override {
        return std::to_string(m_changes) + " changes of timers, of which " + std::to_string(m_queue.m_fired) +
               " fired and " + std::to_string(m_killed) + " were killed before, and " +
               std::to_string(m_queue.m_ticks) + " ticks";
    }

private:
    void Set(unsigned int flags, unsigned int instance, unsigned int durationMs, unsigned int type) {
        EXPECT_EQ(0u,
                  tq_TimerSet(m_queue.GetHandle(), durationMs, instance, instance * 3, flags, type, "soaked", false));
        ++m_changes;
    }

    /// One that is not awake is found asleep; one that is awake may have fired already.
    void KillSleeper(unsigned int sleeper) {
        const bool bAwake = m_awake[sleeper];
        const bool bKilled = tq_TimerKill(m_queue.GetHandle(), sleeper, sleeper * 3, kSleeper) == 0;
        ++m_changes;
        EXPECT_TRUE(bAwake || bKilled);
        if (bAwake && bKilled) {
            EXPECT_TRUE(m_queue.Forget(kSleeper, sleeper));
            ++m_killed;
        }
        m_awake[sleeper] = false;
    }

    void ChangeSleeper() {
        const unsigned int sleeper = Random(kSleepers);
        if (m_awake[sleeper]) {
            KillSleeper(sleeper);
            // One that has fired may have been sent and not yet handled.
            EXPECT_TRUE(WaitUntil([&] { return !m_queue.IsExpected(kSleeper, sleeper); }, kHangSeconds));
            Set(kSleeper, sleeper, kHoursMs, TQ_TIMER_ONE_SHOT);
        } else if (Random(10) == 0) {
            const unsigned int durationMs = 10 + Random(300);
            m_queue.Expect(kSleeper, sleeper, durationMs);
            ++m_armed;
            m_awake[sleeper] = true;
            Set(kSleeper, sleeper, durationMs, TQ_TIMER_ONE_SHOT);
        } else {
            Set(kSleeper, sleeper, kHoursMs - Random(1000), TQ_TIMER_ONE_SHOT);
        }
    }

    void Shoot() {
        EXPECT_EQ(1, m_queue.m_free.WaitForSem(4 * kHangMs));
        const unsigned int shot = ++m_shots;
        const unsigned int durationMs = 10 + Random(600);
        m_queue.Expect(kShot, shot, durationMs);
        ++m_armed;
        Set(kShot, shot, durationMs, TQ_TIMER_ONE_SHOT);
        const unsigned int victim = shot - Random(100);
        if (shot % 4 == 0 && victim != 0 && tq_TimerKill(m_queue.GetHandle(), victim, victim * 3, kShot) == 0) {
            EXPECT_TRUE(m_queue.Forget(kShot, victim));
            ++m_killed;
            ++m_changes;
            m_queue.m_free.Release(1, nullptr);
        }
    }

    void ChangeOne() {
        if (Random(2) == 0) {
            ChangeSleeper();
        } else {
            Shoot();
        }
    }

    std::atomic<unsigned long long> m_changes{0};
    std::atomic<unsigned long long> m_armed{0}; ///< one-shots that are to fire, or to be killed before
    std::atomic<unsigned long long> m_killed{0};
    unsigned int m_shots = 0; // this and the next by the one worker, and by Stop()
    bool m_awake[kSleepers] = {};
    TimedQueue m_queue;
    Workers m_workers;
};

void MoveClockToBeforeItsWrap() {
    gClockOffset = 0u - kBeforeWrapMs - __real_tq_GetTimeInMS();
}

TEST(Soak, EachTimerFiresOnceAndInTimeWhileTheClockWraps) {
    RunSoak<TimerSoak>({"timers", "", MoveClockToBeforeItsWrap});
    EXPECT_LT(tq_GetTimeInMS(), 0u - kBeforeWrapMs) << "the clock has not wrapped";
}

} // namespace
