/// @file RecordingQueue.h
/// A queue for tests: it keeps what its handler was given, and its worker can be held inside the handler, so that a
/// test can put messages into the queue at leisure.
#ifndef RECORDING_QUEUE_H
#define RECORDING_QUEUE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tqos.h"

namespace test {

/// A message that a queue was sent, whole.
struct Received {
    explicit Received(const MSG_COMMON* pMsg)
        : bytes(reinterpret_cast<const unsigned char*>(pMsg),
                reinterpret_cast<const unsigned char*>(pMsg) +
                    (pMsg->size > sizeof(MSG_COMMON) ? pMsg->size : sizeof(MSG_COMMON))) {}

    const MSG_COMMON& Common() const { return *reinterpret_cast<const MSG_COMMON*>(bytes.data()); }
    const SOCKET_NEW_CONNECTION& NewConnection() const {
        return *reinterpret_cast<const SOCKET_NEW_CONNECTION*>(bytes.data());
    }
    const SOCKET_CLOSED& Closed() const { return *reinterpret_cast<const SOCKET_CLOSED*>(bytes.data()); }
    const SOCKET_DATAGRAM& Datagram() const { return *reinterpret_cast<const SOCKET_DATAGRAM*>(bytes.data()); }

    std::vector<unsigned char> bytes;
};

/// For a queue that runs as soon as it is made.
enum Running { kRunning };

class RecordingQueue : public tq_MsgQ {
public:
    /// The worker stays in the handler of a message with this command until LetGo().
    static constexpr unsigned int kHold = MSG_USER + 9000;

    explicit RecordingQueue(const char* name = "Recorder") : tq_MsgQ(name, "records what it sees") {}
    explicit RecordingQueue(Running, const char* name = "Recorder") : RecordingQueue(name) { Create(0); }
    ~RecordingQueue() override { Cleanup(); }

    /// What is recorded has been freed already: a test that has seen the last message has its memory back, too.
    void MessageHandler(MSG_COMMON* pMsg) override {
        const Received seen(pMsg);
        tq_free(pMsg);
        std::function<void(const MSG_COMMON&)> action;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_seen.push_back(seen);
            action = m_action;
            m_changed.notify_all();
            if (seen.Common().command == kHold) {
                m_bHeld = true;
                m_changed.notify_all();
                m_changed.wait(lock, [this] { return !m_bHeld; });
            }
        }
        if (action) {
            action(seen.Common());
        }
    }

    /// Called by the handler with each message from now on. The message is a copy, whole.
    void SetAction(std::function<void(const MSG_COMMON&)> action) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_action = action;
    }

    /// Sends a header with this command to the queue itself.
    bool Post(unsigned int command, int iPriority = TQ_MSG_PRIORITY_MEDIUM, unsigned int instance = 0,
              bool bAddToHead = false) {
        return tq_MsgCreateCommonAndSend(0, GetHandle(), command, instance, 0, 0, bAddToHead, iPriority);
    }

    /// Returns once the worker is in the handler of kHold; what is sent from then on stays queued until LetGo().
    void Hold() {
        ASSERT_TRUE(Post(kHold, TQ_MSG_PRIORITY_HIGH));
        WaitForHold();
    }
    void WaitForHold() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ASSERT_TRUE(m_changed.wait_for(lock, kLimit, [this] { return m_bHeld; }));
    }
    void LetGo() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bHeld = false;
        m_changed.notify_all();
    }

    /// Waits until the handler has seen so many messages.
    bool WaitForCount(size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kLimit, [this, count] { return m_seen.size() >= count; });
    }

    std::vector<MSG_COMMON> Seen() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<MSG_COMMON> seen;
        for (const Received& message : m_seen) {
            seen.push_back(message.Common());
        }
        return seen;
    }

    /// The messages of a command, of one instance or (0) of any.
    std::vector<Received> Of(unsigned int command, unsigned int instance = 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Received> found;
        for (const Received& message : m_seen) {
            if (message.Common().command == command && (instance == 0 || message.Common().instance == instance)) {
                found.push_back(message);
            }
        }
        return found;
    }
    size_t Count(unsigned int command, unsigned int instance = 0) { return Of(command, instance).size(); }
    bool WaitFor(unsigned int command, unsigned int instance = 0, size_t count = 1) {
        return WaitUntil([&] { return Count(command, instance) >= count; });
    }

    /// The commands seen so far, without kHold.
    std::vector<unsigned int> Commands() {
        std::vector<unsigned int> commands;
        for (const MSG_COMMON& msg : Seen()) {
            if (msg.command != kHold) {
                commands.push_back(msg.command);
            }
        }
        return commands;
    }

private:
    static constexpr std::chrono::seconds kLimit{30}; // only a hang reaches it

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Received> m_seen;
    std::function<void(const MSG_COMMON&)> m_action;
    bool m_bHeld = false;
};

/// A header on tracked memory, the test's until it is sent.
inline MSG_COMMON* NewMessage(unsigned int command, unsigned int instance = 0, unsigned int size = sizeof(MSG_COMMON)) {
    MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_calloc(1, size));
    pMsg->size = size;
    pMsg->command = command;
    pMsg->instance = instance;
    return pMsg;
}

} // namespace test

#endif // RECORDING_QUEUE_H
