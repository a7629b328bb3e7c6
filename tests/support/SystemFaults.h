/// @file SystemFaults.h
/// Lets a test make the C library's calls fail, or see how they were made. The functions defined here take the place of
/// the C library's for the whole program, so include it in one file of a program only.
#ifndef SYSTEM_FAULTS_H
#define SYSTEM_FAULTS_H

#include <atomic>
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "Fault.h"

namespace test {

inline std::atomic<bool> gbClockFails{false};       ///< gettimeofday() fails
inline std::atomic<bool> gbMutexInitFails{false};   ///< pthread_mutex_init() finds no room
inline std::atomic<bool> gbCondInitFails{false};    ///< pthread_cond_init() finds no room
inline std::atomic<unsigned int> gYields{0};        ///< calls of sched_yield()
inline std::atomic<bool> gbSleepInterrupted{false}; ///< nanosleep() ends at once, as a signal would end it
inline std::atomic<unsigned int> gSleeps{0};        ///< calls of nanosleep() that were interrupted so
inline std::atomic<long long> gLastSleepSeconds{-1};
inline std::atomic<long> gLastSleepNanoseconds{-1};

} // namespace test

extern "C" {

int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    struct timespec now;
    if (test::gbClockFails || clock_gettime(CLOCK_REALTIME, &now) != 0) {
        errno = EFAULT;
        return -1;
    }
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1000);
    return 0;
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    if (test::gbMutexInitFails) {
        return EAGAIN;
    }
    int type = PTHREAD_MUTEX_DEFAULT;
    if (attributes) {
        pthread_mutexattr_gettype(attributes, &type);
    }
    const pthread_mutex_t plain = PTHREAD_MUTEX_INITIALIZER;
    const pthread_mutex_t recursive = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    *mutex = type == PTHREAD_MUTEX_RECURSIVE ? recursive : plain;
    return 0;
}

int pthread_cond_init(pthread_cond_t* __restrict cond, const pthread_condattr_t* __restrict) noexcept {
    if (test::gbCondInitFails) {
        return EAGAIN;
    }
    const pthread_cond_t plain = PTHREAD_COND_INITIALIZER;
    *cond = plain;
    return 0;
}

int sched_yield() noexcept {
    ++test::gYields;
    return static_cast<int>(syscall(SYS_sched_yield));
}

int nanosleep(const struct timespec* duration, struct timespec* remaining) {
    if (test::gbSleepInterrupted) {
        ++test::gSleeps;
        test::gLastSleepSeconds = duration->tv_sec;
        test::gLastSleepNanoseconds = duration->tv_nsec;
        if (remaining) {
            *remaining = *duration;
        }
        errno = EINTR;
        return -1;
    }
    const int result = clock_nanosleep(CLOCK_REALTIME, 0, duration, remaining);
    if (result != 0) {
        errno = result;
        return -1;
    }
    return 0;
}

} // extern "C"

#endif // SYSTEM_FAULTS_H
