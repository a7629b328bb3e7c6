/// @file tq_Spin_p.h
/// Looking again for a few microseconds before a thread goes to sleep: a thread on another processor may be about to
/// let it go on, and sleeping and being woken takes both of them longer than that.
///
/// The looks are microseconds apart, not as dense as they could be. What a lock guards stays in the cache of the
/// processor that uses it meanwhile, which gets many uses done before the next look. Two threads that took turns at
/// every use would spend most of their time on passing memory to and fro.
///
/// Where nobody can let the thread go on (there is one processor, or the threads are tied to the same one) the time is
/// lost. So each place where threads wait counts the waits since looking has last paid. After a few in vain it is left
/// out, but for one wait in a thousand.
#ifndef TQ_SPIN_P_H
#define TQ_SPIN_P_H

#include <atomic>
#include <time.h>

/// Whether the process may run on several processors. Set by tq_SemMutexInitialize().
extern std::atomic<bool> gbOtherProcessors;

/// One wait.
class tq_Spin {
public:
    /// The waits since looking has last paid, as far as it matters; begins at 0. Two threads that count at once count
    /// one wait, or forget that looking has paid: the next waits put that right.
    using Waits = std::atomic<unsigned short>;

    explicit tq_Spin(Waits& waits) : m_waits(waits) {}

    /// Whether to look before the wait that now begins. Counts it.
    bool MayPay() {
        if (!gbOtherProcessors.load(std::memory_order_relaxed)) {
            return false;
        }
        const unsigned int waits = m_waits.load(std::memory_order_relaxed);
        const bool bTrial = waits == kWaitsToTrial;
        m_waits.store(static_cast<unsigned short>(bTrial ? kWaitsInVain : waits + 1), std::memory_order_relaxed);
        return bTrial || waits < kWaitsInVain;
    }

    /// Looks every so many nanoseconds until isOver() says true, which counts as paid, or for ten microseconds; false
    /// in that case.
    template <typename IsOver> bool Look(long nanosecondsApart, IsOver isOver) {
        for (long nanoseconds = 0; nanoseconds < kLongestNanoseconds; nanoseconds += nanosecondsApart) {
            PauseFor(nanosecondsApart);
            if (isOver()) {
                m_waits.store(0, std::memory_order_relaxed);
                return true;
            }
        }
        return false;
    }

private:
    static constexpr long kLongestNanoseconds = 10000;
    static constexpr unsigned int kWaitsInVain = 3;
    static constexpr unsigned int kWaitsToTrial = 1000;

    static void PauseFor(long nanoseconds) {
        struct timespec start;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &start);
        do {
            LeaveUnits();
            clock_gettime(CLOCK_MONOTONIC, &now);
        } while (now.tv_sec == start.tv_sec && now.tv_nsec - start.tv_nsec < nanoseconds);
    }

    /// Leaves the processor's units, for a moment, to whoever shares them with this thread.
    static void LeaveUnits() {
#if defined(__i386__) || defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    Waits& m_waits;
};

#endif // TQ_SPIN_P_H
