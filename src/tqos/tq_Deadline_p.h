/// @file tq_Deadline_p.h
/// The end of a timed wait, as all waits of the library compute it: an instant of the wall clock, so setting the system
/// clock shortens or lengthens waits that are under way.
#ifndef TQ_DEADLINE_P_H
#define TQ_DEADLINE_P_H

#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

/// The instant msTimeOut milliseconds after `now`. A negative time-out counts as 0: a deadline with negative
/// nanoseconds would be refused by the wait, which would then be tried for ever.
inline struct timespec tq_DeadlineAfter(const struct timeval& now, int msTimeOut) {
    const int ms = msTimeOut < 0 ? 0 : msTimeOut;
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + ms / 1000;
    deadline.tv_nsec = static_cast<long>(now.tv_usec) * 1000 + (ms % 1000) * 1000000L;
    if (deadline.tv_nsec > 999999999) {
        deadline.tv_nsec -= 1000000000;
        deadline.tv_sec += 1;
    }
    return deadline;
}

/// One wait with a time-out: computes its deadline once, then waits as often as the condition has to be tested again.
class tq_TimedWait {
public:
    explicit tq_TimedWait(int msTimeOut) : m_bForEver(msTimeOut == -1), m_bKnown(true), m_deadline() {
        struct timeval now;
        if (m_bForEver) {
            return;
        }
        m_bKnown = gettimeofday(&now, nullptr) == 0;
        if (m_bKnown) {
            m_deadline = tq_DeadlineAfter(now, msTimeOut);
        }
    }

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
