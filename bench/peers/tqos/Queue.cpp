// This library's message queues.
#include <memory>
#include <vector>

#include "Library.h"
#include "QueueBench.h"

namespace {

class Worker : public tq_MsgQ {
public:
    Worker(bench::Handler handler, void* context) : tq_MsgQ("Bench", nullptr), m_handler(handler), m_context(context) {
        Create(&m_handle, 0);
    }
    ~Worker() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_USER) {
            m_handler(m_context, pMsg);
        } else {
            tq_free(pMsg);
        }
    }

    // To the handle, as an application sends.
    void Send(void* pMessage) {
        MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(pMessage);
        pMsg->hDest = m_handle;
        tq_MsgSend(pMsg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
    }
    static void* Allocate() {
        MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_malloc(32));
        *pMsg = {0, 0, 32, MSG_USER, 0, 0, 0};
        return pMsg;
    }
    static void Free(void* pMessage) { tq_free(pMessage); }

private:
    bench::Handler m_handler;
    void* m_context;
    unsigned int m_handle = 0;
};

/// As many queues as an application may have beside those that are measured.
class OtherQueues {
public:
    explicit OtherQueues(int count) {
        for (int i = 0; i < count; ++i) {
            m_queues.push_back(std::make_unique<Worker>(nullptr, nullptr));
        }
    }

private:
    std::vector<std::unique_ptr<Worker>> m_queues;
};

constexpr const char* kSmallStacks = "[MsgQ]\nDefaultStackSize=32768\n";

} // namespace

PEER_BENCH("queue/one-producer", "tqos") {
    const Library library;
    return bench::QueueThroughput<Worker>(1, bench::Cores::Two);
}

PEER_BENCH("queue/four-producers", "tqos") {
    const Library library;
    return bench::QueueThroughput<Worker>(4, bench::Cores::Two);
}

PEER_BENCH("queue/four-producers-one-core", "tqos") {
    const Library library;
    return bench::QueueThroughput<Worker>(4, bench::Cores::One);
}

PEER_BENCH("queue/round-trip-one-core", "tqos") {
    const Library library;
    return bench::QueueRoundTrip<Worker>(bench::Cores::One);
}

PEER_BENCH("queue/round-trip-two-cores", "tqos") {
    const Library library;
    return bench::QueueRoundTrip<Worker>(bench::Cores::Two);
}

PEER_BENCH("queue/one-producer-beside-10000", "tqos") {
    const Library library(kSmallStacks);
    const OtherQueues others(10000);
    return bench::QueueThroughput<Worker>(1, bench::Cores::Two);
}
