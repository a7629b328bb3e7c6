// What the machine allows of message queues: a mutex and a condition around an intrusive list, and two threads that
// take turns on a pair of futexes.
#include <cstdlib>

#include <condition_variable>
#include <mutex>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "QueueBench.h"

namespace {

class MutexQueue {
public:
    struct Message {
        Message* pNext;
        char data[32 - sizeof(void*)];
    };
    void Push(Message* pMessage) {
        pMessage->pNext = nullptr;
        m_mutex.lock();
        const bool bWasEmpty = m_pHead == nullptr;
        if (bWasEmpty) {
            m_pHead = pMessage;
        } else {
            m_pTail->pNext = pMessage;
        }
        m_pTail = pMessage;
        m_mutex.unlock();
        if (bWasEmpty) {
            m_filled.notify_one();
        }
    }
    Message* Pop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_pHead) {
            m_filled.wait(lock);
        }
        Message* pMessage = m_pHead;
        m_pHead = pMessage->pNext;
        return pMessage;
    }
    static void* Allocate() { return malloc(sizeof(Message)); }
    static void Free(void* pMessage) { free(pMessage); }

private:
    std::mutex m_mutex;
    std::condition_variable m_filled;
    Message* m_pHead = nullptr;
    Message* m_pTail = nullptr;
};

void WaitFor(int* pWord, int value) {
    int now;
    while ((now = __atomic_load_n(pWord, __ATOMIC_ACQUIRE)) != value) {
        syscall(SYS_futex, pWord, FUTEX_WAIT_PRIVATE, now, nullptr, nullptr, 0);
    }
}

void Set(int* pWord, int value) {
    __atomic_store_n(pWord, value, __ATOMIC_RELEASE);
    syscall(SYS_futex, pWord, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

double FutexRoundTrip(bench::Cores cores) {
    constexpr int kTrips = 1000;
    int there = 0;
    int back = 0;
    bench::PinTo(cores == bench::Cores::One ? 0 : 1);
    std::thread far([&] {
        for (int turn = 1;; ++turn) {
            int now;
            while ((now = __atomic_load_n(&there, __ATOMIC_ACQUIRE)) < turn && now >= 0) {
                syscall(SYS_futex, &there, FUTEX_WAIT_PRIVATE, now, nullptr, nullptr, 0);
            }
            if (now < 0) {
                return;
            }
            Set(&back, turn);
        }
    });
    bench::PinTo(0);
    int turn = 0;
    const double nanoseconds = bench::NanosecondsEach([&] {
        for (int i = 0; i < kTrips; ++i) {
            Set(&there, ++turn);
            WaitFor(&back, turn);
        }
        return static_cast<double>(kTrips);
    });
    Set(&there, -1);
    far.join();
    return 1e-3 * nanoseconds;
}

using MutexWorker = bench::ThreadedWorker<MutexQueue>;

} // namespace

PEER_BENCH_QUEUES(MutexWorker, "mutex and condition")

PEER_BENCH("queue/round-trip-one-core", "two futexes") {
    return FutexRoundTrip(bench::Cores::One);
}

PEER_BENCH("queue/round-trip-two-cores", "two futexes") {
    return FutexRoundTrip(bench::Cores::Two);
}
