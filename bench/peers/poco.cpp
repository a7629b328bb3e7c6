// POCO.
#include <mutex>

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/MemoryPool.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/NullChannel.h>

#include "MemoryBench.h"
#include "QueueBench.h"

namespace {

class NotificationQueue {
public:
    struct Message : Poco::Notification {
        char data[16]; // with what a notification has anyway, 32 bytes
    };
    void Push(Message* pMessage) { m_queue.enqueueNotification(Poco::AutoPtr<Poco::Notification>(pMessage)); }
    Message* Pop() { return static_cast<Message*>(m_queue.waitDequeueNotification()); }
    static void* Allocate() { return new Message; }
    static void Free(void* pMessage) { static_cast<Message*>(pMessage)->release(); }

private:
    Poco::NotificationQueue m_queue;
};

using Worker = bench::ThreadedWorker<NotificationQueue>;

Poco::MemoryPool& Pool() {
    static Poco::MemoryPool pool(48, 4096);
    return pool;
}

class Pooled {
public:
    static void* Allocate(unsigned int) { return Pool().get(); }
    static void Free(void* pBlock) { Pool().release(pBlock); }
};

double FilteredOut(int threads) {
    Poco::Logger& logger = Poco::Logger::create("Bench", new Poco::NullChannel, Poco::Message::PRIO_WARNING);
    return bench::NanosecondsEachOnThreads(threads, [&logger](int) -> std::function<double()> {
        return [&logger] {
            for (int i = 0; i < 1000; ++i) {
                bench::Keep(i); // nothing is known from the call before
                poco_information_f2(logger, "value %d of %s\n", i, std::string("bench"));
            }
            return 1000.0;
        };
    });
}

} // namespace

PEER_BENCH_QUEUES(Worker, "POCO NotificationQueue")

PEER_BENCH("memory/pooled", "POCO MemoryPool") {
    return bench::AllocateAndFree<Pooled>(48, 1);
}

PEER_BENCH("memory/pooled-two-threads", "POCO MemoryPool") {
    return bench::AllocateAndFree<Pooled>(48, 2);
}

PEER_BENCH("trace/filtered", "POCO Logger, tested in the caller") {
    return FilteredOut(1);
}

PEER_BENCH("trace/filtered-two-threads", "POCO Logger, tested in the caller") {
    return FilteredOut(2);
}
