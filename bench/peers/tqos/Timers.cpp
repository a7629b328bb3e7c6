// This library's timers.
#include <algorithm>
#include <vector>

#include "Library.h"
#include "TimerBench.h"

namespace {

/// Has the timers' messages, of which none comes.
class Receiver : public tq_MsgQ {
public:
    Receiver() : tq_MsgQ("Receiver", nullptr) { Create(0); }
    ~Receiver() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

class Timers {
public:
    void Arm(unsigned int key, unsigned int ms) {
        tq_TimerSet(m_handle, ms, key, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    }
    void Kill(unsigned int key) { tq_TimerKill(m_handle, key, 0, 0); }

private:
    Library m_library;
    Receiver m_receiver;
    unsigned int m_handle = m_receiver.GetHandle();
};

/// When the steps of the library's clock come. They come again in the same order every 20 ms, whatever divides 10 ms or
/// 20 ms the system counts in.
class ClockSteps {
public:
    ClockSteps() {
        unsigned int last = tq_GetTimeInMS();
        while (m_steps.size() < 21) {
            const unsigned int now = tq_GetTimeInMS();
            if (now != last) {
                m_steps.push_back({now, bench::Now()});
                last = now;
            }
        }
    }
    /// When the clock comes to show this.
    double TimeOf(unsigned int ms) const {
        double earliest = 0; // a step is seen when it comes, or too late
        for (const Step& step : m_steps) {
            const double seconds = step.seconds + static_cast<int>(ms - step.ms) * 1e-3;
            if ((ms - step.ms) % 20 == 0 && (earliest == 0 || seconds < earliest)) {
                earliest = seconds;
            }
        }
        return earliest;
    }

private:
    struct Step {
        unsigned int ms;
        double seconds;
    };
    std::vector<Step> m_steps;
};

/// Takes the messages of a repeating timer, and notes when each comes.
class Periods : public tq_MsgQ {
public:
    struct Arrival {
        unsigned int ms; ///< on the library's clock
        double seconds;
    };
    explicit Periods(std::size_t count) : tq_MsgQ("Periods", nullptr), m_count(count) {
        arrivals.reserve(count);
        m_all.Expect(1);
        Create(0);
        tq_TimerSet(GetHandle(), 10, 0, 0, 0, TQ_TIMER_REPEATING, nullptr, false);
        m_all.Wait();
        Cleanup();
    }
    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_TIMER && arrivals.size() < m_count) {
            arrivals.push_back({tq_GetTimeInMS(), bench::Now()});
            if (arrivals.size() == m_count) {
                m_all.Done();
            }
        }
        tq_free(pMsg);
    }
    std::vector<Arrival> arrivals;

private:
    std::size_t m_count;
    bench::Countdown m_all;
};

/// The arrivals for at least as long as a measurement takes.
std::vector<Periods::Arrival> Arrivals() {
    return Periods(static_cast<std::size_t>(std::max(1.0, bench::Seconds()) * 100)).arrivals;
}

} // namespace

// How long after the clock step at which it could be due a period ends: the first step that is 10 ms past the one
// before.
PEER_BENCH("timers/lateness", "tqos") {
    const Library library;
    const ClockSteps steps;
    const std::vector<Periods::Arrival> arrivals = Arrivals();
    std::vector<double> late;
    for (std::size_t i = 1; i < arrivals.size(); ++i) {
        late.push_back(arrivals[i].seconds - steps.TimeOf(arrivals[i - 1].ms + 10));
    }
    std::nth_element(late.begin(), late.begin() + static_cast<std::ptrdiff_t>(late.size() / 2), late.end());
    return 1e6 * late[late.size() / 2];
}

PEER_BENCH("timers/skipped", "tqos") {
    const Library library;
    const std::vector<Periods::Arrival> arrivals = Arrivals();
    int skipped = 0;
    for (std::size_t i = 1; i < arrivals.size(); ++i) {
        skipped += arrivals[i].ms - arrivals[i - 1].ms >= 20;
    }
    return 100.0 * skipped / static_cast<double>(arrivals.size() - 1);
}

PEER_BENCH_TIMERS(Timers, "tqos")
