/// @file tq_ClockSteps_p.h
/// When the millisecond clock advances, on the finer clock that waits are measured by.
///
/// The system counts its own ticks, and derives from their number the coarser count that the millisecond clock shows:
/// with a tick of 4 ms that one advances after 12 ms and after 8 ms by turns. Ticks come at equal distances on
/// CLOCK_MONOTONIC. So each reading of the count, between two of that clock, says from when to when the first tick of
/// all was; a few of them say it to some microseconds, and with it when any other is due.
///
/// Threads: whoever has an object uses it alone.
#ifndef TQ_CLOCKSTEPS_P_H
#define TQ_CLOCKSTEPS_P_H

/// Learns when the count advances, and says when to wake for it.
class tq_ClockSteps {
public:
    /// @param tickNs   nanoseconds from one of the system's ticks to the next; 0 when they are not known
    /// @param countNs  nanoseconds that the count gives to each of its units
    tq_ClockSteps(long long tickNs, long long countNs);

    /// False where ticks are not known, or are none that a thread could wait for: then nothing else may be asked.
    bool CanForesee() const { return m_bUsable; }

    /// The count stood at this at some moment from `before` to `after` (nanoseconds of CLOCK_MONOTONIC).
    void Saw(unsigned int count, long long before, long long after);

    /// The moment to wake at when the count is to have come to this, which is later than what was seen last. The first
    /// answer for a count may be early, to learn from what is seen then; the next one is as good as certain.
    long long WakeFor(unsigned int count);

private:
    unsigned long long Widened(unsigned int count) const;
    long long StepTo(unsigned long long count) const;

    const long long m_tickNs;
    const long long m_countNs;
    const bool m_bUsable;
    bool m_bSeen = false;
    unsigned long long m_count = 0; ///< the last that was seen; it does not wrap
    long long m_earliest = 0;       ///< when tick 0 was, at the earliest
    long long m_latest = 0;         ///< at the latest
    long long m_doubtNs;            ///< how far the latest moves when it turns out to be too early
    unsigned int m_triedFor = 0;    ///< the count for which the last early answer was
    unsigned int m_calm = 0;        ///< answers that were not early since it was last doubted how early ticks come
};

#endif // TQ_CLOCKSTEPS_P_H
