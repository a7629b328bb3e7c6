/// @file TimerBench.h
/// The measurements of timers, the same for every contender. A contender brings its timers:
///
///     class Timers {
///     public:
///         Timers();                                    // the service runs, on a thread of its own where it has one
///         void Arm(unsigned int key, unsigned int ms); // one-shot; the keys are 0, 1, 2 ...
///         void Kill(unsigned int key);
///     };
#ifndef TIMER_BENCH_H
#define TIMER_BENCH_H

#include "Bench.h"

namespace bench {

/// Pairs of setting and killing a second, with so many other timers armed. All expire between one minute and one hour
/// later, none during the measurement.
template <class Timers> double SetAndKill(unsigned int armed) {
    const auto timeout = [](Random& random) { return 60000 + random.Below(3540000); };
    Random random;
    Timers timers;
    for (unsigned int key = 0; key < armed; ++key) {
        timers.Arm(key, timeout(random));
    }
    return PerSecond([&] {
        constexpr int kPairs = 100;
        for (int i = 0; i < kPairs; ++i) {
            timers.Arm(armed, timeout(random));
            timers.Kill(armed);
        }
        return static_cast<double>(kPairs);
    });
}

} // namespace bench

/// All measurements of setting and killing.
#define PEER_BENCH_TIMERS(Timers, label)                                                                               \
    PEER_BENCH("timers/10-armed", label) {                                                                             \
        return bench::SetAndKill<Timers>(10);                                                                          \
    }                                                                                                                  \
    PEER_BENCH("timers/1000-armed", label) {                                                                           \
        return bench::SetAndKill<Timers>(1000);                                                                        \
    }                                                                                                                  \
    PEER_BENCH("timers/20000-armed", label) {                                                                          \
        return bench::SetAndKill<Timers>(20000);                                                                       \
    }

#endif // TIMER_BENCH_H
