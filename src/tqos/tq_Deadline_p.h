/// @file tq_Deadline_p.h
/// The end of a timed wait, as all waits of the library compute it: an instant of the wall clock, so setting the system
/// clock shortens or lengthens waits that are under way.
#ifndef TQ_DEADLINE_P_H
#define TQ_DEADLINE_P_H

#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

/// A time-out that is finer than milliseconds.
struct tq_Microseconds {
    long long us;
};

/// The instant so long after `now`. A negative time-out counts as 0: a deadline with negative nanoseconds would be
/// refused by the wait, which would then be tried for ever.
inline struct timespec tq_DeadlineAfter(const struct timeval& now, tq_Microseconds timeOut) {
    const long long us = timeOut.us < 0 ? 0 : timeOut.us;
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(us / 1000000);
    deadline.tv_nsec = (static_cast<long>(now.tv_usec) + static_cast<long>(us % 1000000)) * 1000;
    if (deadline.tv_nsec > 999999999) {
        deadline.tv_nsec -= 1000000000;
        deadline.tv_sec += 1;
    }
    return deadline;
}

/// The same for milliseconds.
inline struct timespec tq_DeadlineAfter(const struct timeval& now, int msTimeOut) {
    return tq_DeadlineAfter(now, tq_Microseconds{msTimeOut * 1000LL});
}

/// One wait with a time-out: computes its deadline once, then waits as often as the condition has to be tested again.
class tq_TimedWait {
public:
    explicit tq_TimedWait(int msTimeOut) : tq_TimedWait(msTimeOut == -1, msTimeOut) {}
    explicit tq_TimedWait(tq_Microseconds timeOut) : tq_TimedWait(false, timeOut) {}

    /// False when the clock could not be read; the wait then fails at once.
    explicit operator bool() const { return m_bKnown; }

    /// The instant at which the time is up; null for a wait without a time-out.
    const struct timespec* Deadline() const { return m_bForEver ? nullptr : &m_deadline; }

    /// Waits on the condition with its mutex locked; false when the time is up. Any other return asks the caller to
    /// test again, whatever woke it.
    bool Wait(pthread_cond_t* pCond, pthread_mutex_t* pMutex) const {
        if (m_bForEver) {
            pthread_cond_wait(pCond, pMutex);
            return true;
        }
        return pthread_cond_timedwait(pCond, pMutex, &m_deadline) != ETIMEDOUT;
    }

private:
    template <typename TimeOut>
    tq_TimedWait(bool bForEver, TimeOut timeOut) : m_bForEver(bForEver), m_bKnown(true), m_deadline() {
        struct timeval now;
        if (m_bForEver) {
            return;
        }
        m_bKnown = gettimeofday(&now, nullptr) == 0;
        if (m_bKnown) {
            m_deadline = tq_DeadlineAfter(now, timeOut);
        }
    }

    bool m_bForEver;
    bool m_bKnown;
    struct timespec m_deadline;
};

/// Makes a mutex and a condition with default attributes; false, with neither left, when the system has no room.
inline bool tq_InitMutexAndCond(pthread_mutex_t* pMutex, pthread_cond_t* pCond) {
    if (pthread_mutex_init(pMutex, nullptr) != 0) {
        return false;
    }
    if (pthread_cond_init(pCond, nullptr) != 0) {
        pthread_mutex_destroy(pMutex);
        return false;
    }
    return true;
}

#endif // TQ_DEADLINE_P_H
