#include "tq_Thread_p.h"

#include <atomic>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "tq_SemMutex.h"

namespace {

/// Where a pthread_t fits, it is the thread's id; elsewhere ids are numbers of our own.
constexpr bool kIdIsPthread = sizeof(pthread_t) == sizeof(unsigned int);

std::atomic<unsigned int> gLastThreadId{0};
thread_local unsigned int tThreadId __attribute__((tls_model("initial-exec"))) = 0; ///< 0: none given yet

unsigned int NewThreadId() {
    unsigned int id = 0;
    while (id == 0) { // 0 means "no thread" everywhere
        id = gLastThreadId.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return id;
}

} // namespace

extern "C" unsigned int tq_GetThreadId() {
    if (kIdIsPthread) {
        return static_cast<unsigned int>(pthread_self());
    }
    if (tThreadId == 0) {
        tThreadId = NewThreadId();
    }
    return tThreadId;
}

extern "C" unsigned int tq_GetPSThreadId() {
    return static_cast<unsigned int>(syscall(SYS_gettid)); // not remembered: a child process has another one
}

extern "C" void tq__Sleep(unsigned int msTime, unsigned int uiLine, const char* pszFilename) {
    TrackSemaphore(nullptr, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
    if (msTime == 0) {
        sched_yield();
    } else {
        const struct timespec duration = {static_cast<time_t>(msTime / 1000),
                                          static_cast<long>(msTime % 1000) * 1000000};
        // Deliberate: a sleep that a signal interrupts would be expected to go on. It ends early.
        nanosleep(&duration, nullptr);
    }
    TrackSemaphore(nullptr, SEM_TRACK_TYPE_SLEEP, SEM_TRACK_STATE_RELEASED, 0, nullptr);
}
