// What the machine allows of locks: a plain mutex.
#include <memory>

#include <pthread.h>

#include "Bench.h"

namespace {

double LockAndUnlock(int threads) {
    return bench::NanosecondsEachOnThreads(threads, [](int) -> std::function<double()> {
        struct alignas(64) Lock {
            pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        };
        const auto pLock = std::make_shared<Lock>();
        return [pLock] {
            for (int i = 0; i < 1000; ++i) {
                pthread_mutex_lock(&pLock->mutex);
                pthread_mutex_unlock(&pLock->mutex);
            }
            return 1000.0;
        };
    });
}

} // namespace

PEER_BENCH("lock/critical-section", "pthread mutex") {
    return LockAndUnlock(1);
}

PEER_BENCH("lock/critical-section-two-threads", "pthread mutex") {
    return LockAndUnlock(2);
}
