/// @file tq_Futex_p.h
/// Sleeping until a number in memory changes, and waking who sleeps so: what the library's own locks are built on. The
/// system knows of such a number only while somebody sleeps on it, so it costs nothing to make and nothing to unmake.
///
/// How a lock that is built on this loses no wake-up: a thread that has to wait first marks the number as awaited, with
/// a compare-and-exchange, and then sleeps only if it finds the number as it left it. Whoever changes the number does
/// so with one exchange, which tells whether it was marked, and wakes somebody only then. If the change comes before
/// the sleeper is asleep, the number is no longer what it expects, and it does not fall asleep.
///
/// How a lock may be destroyed by the thread that it lets through: that exchange is the last that touches the lock. The
/// wake-up that follows names an address and reads nothing there. Where something else stands at that address by then,
/// whoever sleeps on that is woken for nothing, which every sleeper has to expect anyway.
///
/// Memory order: sleeping and waking promise none. The exchange that lets a thread through has to release, and the
/// compare-and-exchange by which that thread takes its turn has to acquire.
#ifndef TQ_FUTEX_P_H
#define TQ_FUTEX_P_H

#include <atomic>
#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace tq_Futex {

// Private to the process; a deadline is an instant of the wall clock, which the bitset variant alone understands.
constexpr int kWait = FUTEX_WAIT_PRIVATE;
constexpr int kWaitUntil = FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME;
constexpr int kWake = FUTEX_WAKE_PRIVATE;

/// Leaves errno as it was: who takes a lock may still want to look at it.
class KeepErrno {
public:
    KeepErrno() : m_errno(errno) {}
    ~KeepErrno() { errno = m_errno; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    const int m_errno;
};

/// The number as the system sees it.
template <typename Number> const void* AddressOf(const std::atomic<Number>& word) {
    static_assert(sizeof(word) == 4 && std::atomic<Number>::is_always_lock_free,
                  "the system reads 32 bits as they lie");
    return &word;
}

#if defined(SYS_futex_time64) && __SIZEOF_POINTER__ == 4
/// The system's call before 2038 was thought of; kernels of before 2019 have no other.
inline bool SleepUntilShortTime(const void* pWord, unsigned int expected, const struct timespec& deadline) {
    struct {
        long tv_sec, tv_nsec;
    } const shortDeadline = {deadline.tv_sec > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<long>(deadline.tv_sec),
                             deadline.tv_nsec};
    return syscall(SYS_futex, pWord, kWaitUntil, expected, &shortDeadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno != ETIMEDOUT;
}

inline bool SleepUntil(const void* pWord, unsigned int expected, const struct timespec& deadline) {
    if constexpr (sizeof(deadline.tv_sec) == sizeof(long)) {
        return SleepUntilShortTime(pWord, expected, deadline);
    }
    if (syscall(SYS_futex_time64, pWord, kWaitUntil, expected, &deadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0) {
        return true;
    }
    return errno == ENOSYS ? SleepUntilShortTime(pWord, expected, deadline) : errno != ETIMEDOUT;
}
#else
inline bool SleepUntil(const void* pWord, unsigned int expected, const struct timespec& deadline) {
    return syscall(SYS_futex, pWord, kWaitUntil, expected, &deadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno != ETIMEDOUT;
}
#endif

/// Sleeps while the number is `expected`, until somebody wakes the thread. False when the deadline (null: none) has
/// passed; any other return asks the caller to look again, whatever woke it.
template <typename Number>
bool Sleep(const std::atomic<Number>& word, Number expected, const struct timespec* pDeadline) {
    const KeepErrno keep;
    const void* const pWord = AddressOf(word);
    if (pDeadline) {
        return SleepUntil(pWord, static_cast<unsigned int>(expected), *pDeadline);
    }
    syscall(SYS_futex, pWord, kWait, static_cast<unsigned int>(expected), nullptr);
    return true;
}

/// The same as a point at which a thread may be cancelled. Only for waits after which nobody depends on the thread: a
/// cancelled one may have been woken, and wakes nobody else.
template <typename Number>
bool SleepCancellably(const std::atomic<Number>& word, Number expected, const struct timespec* pDeadline) {
    int type;
    // NOLINTNEXTLINE(cert-pos47-c, concurrency-thread-canceltype-asynchronous): nothing is held in the system call
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
    const bool bInTime = Sleep(word, expected, pDeadline);
    pthread_setcanceltype(type, &type);
    return bInTime;
}

/// Wakes at most so many threads that sleep on what stands, or stood, at this address.
inline void Wake(const void* pWord, int most) {
    const KeepErrno keep;
    syscall(SYS_futex, pWord, kWake, most);
}

} // namespace tq_Futex

#endif // TQ_FUTEX_P_H
