/// @file Load.h
/// What the loads of a device are made of: threads that do something over and over, and queues that get each message
/// once.
#ifndef LOAD_H
#define LOAD_H

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tqos.h"

namespace test {

/// A limit that only a hang reaches.
constexpr int kHangMs = 60000;
constexpr unsigned int kHangSeconds = kHangMs / 1000;

inline unsigned int Random(unsigned int below) {
    thread_local std::minstd_rand generator(tq_GetThreadId());
    return static_cast<unsigned int>(generator()) % below;
}

/// A part of what the device does. It begins with the object.
class Load {
public:
    virtual ~Load() = default;

    /// True once it has done something of each kind.
    virtual bool HasWorked() const = 0;

    /// Ends it: waits until nothing of it is under way, and checks that all is accounted for.
    virtual void Stop() = 0;

    /// What it has done.
    virtual std::string Account() const = 0;
};

/// A thread of the device that does a piece of work over and over, with a pause in between.
class Worker {
public:
    Worker(unsigned int pauseMs, std::function<void()> work)
        : m_pauseMs(pauseMs), m_work(std::move(work)), m_stop(/*bManualReset=*/1, /*bInitialState=*/0),
          m_ended(/*bManualReset=*/0, /*bInitialState=*/0) {
        m_bRuns = tq_beginthread(0, Run, this, nullptr, TQ_THREAD_PRIORITY_NORMAL) != 0;
        EXPECT_TRUE(m_bRuns);
    }
    ~Worker() { Stop(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Returns when the piece of work under way is done.
    void Stop() {
        if (m_bRuns) {
            m_bRuns = false;
            m_stop.Set();
            EXPECT_EQ(1, m_ended.WaitForEvent(2 * kHangMs));
        }
    }

private:
    static void* Run(void* pArgument) {
        Worker* const pWorker = static_cast<Worker*>(pArgument);
        do {
            pWorker->m_work();
        } while (!pWorker->m_stop.WaitForEvent(static_cast<int>(pWorker->m_pauseMs)));
        pWorker->m_ended.Set();
        return nullptr;
    }

    const unsigned int m_pauseMs;
    const std::function<void()> m_work;
    tq_SemEvent m_stop;
    tq_SemEvent m_ended;
    bool m_bRuns = false;
};

/// Several of them.
class Workers {
public:
    void Add(unsigned int pauseMs, std::function<void()> work) {
        m_workers.push_back(std::make_unique<Worker>(pauseMs, std::move(work)));
    }
    void Stop() { m_workers.clear(); }

private:
    std::vector<std::unique_ptr<Worker>> m_workers;
};

/// A queue of the device: its first message is MSG_CREATE and its last MSG_DESTROY, and it gets each once.
class DeviceQueue : public tq_MsgQ {
public:
    explicit DeviceQueue(const char* pszName) : tq_MsgQ(pszName, "under load") {}

    void MessageHandler(MSG_COMMON* pMsg) final {
        EXPECT_EQ(pMsg->command == MSG_CREATE, !m_bCreated);
        EXPECT_FALSE(m_bDestroyed);
        EXPECT_EQ(GetHandle(), pMsg->hDest);
        m_bCreated = true;
        m_bDestroyed = pMsg->command == MSG_DESTROY;
        if (pMsg->command == MSG_CREATE || pMsg->command == MSG_DESTROY || !Handle(pMsg)) {
            tq_free(pMsg);
        }
    }

protected:
    /// True when it has passed the message on, which is then no longer its own.
    virtual bool Handle(MSG_COMMON* pMsg) = 0;

    /// For a destructor: ends the queue, which must have nothing left to do.
    void EndIdle() {
        EXPECT_TRUE(WaitUntil([this] { return GetQueueDepth(0) == 0; }, kHangSeconds));
        Cleanup();
        EXPECT_TRUE(m_bDestroyed);
    }

private:
    bool m_bCreated = false; // both by the queue's own thread
    bool m_bDestroyed = false;
};

} // namespace test

#endif // LOAD_H
