// Start and stop: the library ends with everything open, over and over. Each time nothing of it is left: no block, no
// list, no thread, no descriptor.
#include "EngineerLoad.h"
#include "Soak.h"
#include "SocketPeers.h"

namespace {

using namespace soak;
using namespace test;

constexpr char kEverything[] = "[Sem]\nTracking=yes\n[MsgQ]\nDefaultHistory=20\n"
                               "[Trace]\ntqos_Level=Debug\ntqos_LogToFile=tqos.log\nOpen_Level=All\n"
                               "Open_LogToFile=open.log\nOpen_MaxFiles=3\nOpen_MaxBytesPerFile=1000\n"
                               "Open_LogToMulticast=yes\n";

/// Takes whatever comes, and closes nothing.
class OpenQueue : public DeviceQueue {
public:
    OpenQueue() : DeviceQueue("Open") { Create(TQ_THREAD_PRIORITY_NORMAL); }
    ~OpenQueue() override { EndIdle(); }

    std::atomic<unsigned int> m_accepted{0};

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        m_accepted += pMsg->command == MSG_SOCKET_NEW_CONNECTION ? 1 : 0;
        return false;
    }
};

/// All that can be open when the library ends.
class Everything {
public:
    Everything() {
        OpenSockets();
        SetTimers();
        OpenTrace();
        OpenConsole();
        FillQueues();
    }

    /// What outlives the library stays its owner's.
    void StartThreads(unsigned int threads) {
        for (unsigned int i = 0; i < threads; ++i) {
            EXPECT_NE(0u, tq_beginthread(0, SleepAWhile, nullptr, nullptr, TQ_THREAD_PRIORITY_NORMAL));
        }
    }

private:
    static void* SleepAWhile(void*) {
        tq_Sleep(Random(5));
        return nullptr;
    }

    void OpenSockets() {
        const unsigned int hQueue = m_queues[0].GetHandle();
        const std::string path = "open.sock";
        const unsigned int hServer = tq_SocketOpenTCPServer(hQueue, 0, 0, Loopback());
        EXPECT_NE(0u, hServer);
        m_port = tq_SocketGetBoundPort(hServer);
        EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(hQueue, Bytes(path), 0));
        EXPECT_NE(0u, tq_SocketOpenTCPClientDomain(m_queues[1].GetHandle(), Bytes(path), 0));
        const unsigned int hClient = tq_SocketOpenTCPClient(m_queues[1].GetHandle(), Loopback(), m_port, 0, 0, 0);
        EXPECT_NE(0u, hClient);
        m_outside.push_back(ConnectedPeer(m_port));
        m_outside.push_back(ConnectedPeer(m_port));
        EXPECT_TRUE(WaitUntil([this] { return m_queues[0].m_accepted == 4; }, kHangSeconds));
        const std::string text = Pattern(1000 + Random(30000));
        tq_SocketSendTo(hClient, Bytes(text), static_cast<unsigned int>(text.size()), 0, 0);
        SendAll(m_outside[0], text);
        const unsigned int hUdp = tq_SocketOpenUDP(hQueue, Loopback(), m_port, 0, Loopback(), 0);
        EXPECT_EQ(500u, tq_SocketSendTo(hUdp, Bytes(text), 500, Loopback(), tq_SocketGetBoundPort(hUdp)));
    }

    void SetTimers() {
        for (unsigned int i = 0; i < 20; ++i) {
            const unsigned int type = i % 2 != 0 ? TQ_TIMER_REPEATING : TQ_TIMER_ONE_SHOT;
            EXPECT_EQ(0u, tq_TimerSet(m_queues[i % kQueues].GetHandle(), 10 + i * i * i, i, 0, 0, type, "open", true));
        }
    }

    void OpenTrace() {
        const unsigned int hTrace = tq_TraceInitInstance("Open");
        EXPECT_NE(0u, hTrace);
        for (unsigned int i = 0; i < 30; ++i) {
            tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, /*bIncludeTimeStamp=*/true, "line %u, with everything open\n",
                     i);
        }
    }

    void OpenConsole() {
        const unsigned int port = tq_TelnetInitialize(0, Loopback(), nullptr);
        EXPECT_NE(0u, port);
        for (const char* pszTyped : {"sh queues\rsh lists\rhalf a li", "\x1b["}) {
            m_outside.push_back(ConnectedPeer(port));
            SendAll(m_outside.back(), pszTyped);
        }
    }

    void FillQueues() {
        for (unsigned int i = 0; i < 60; ++i) {
            EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, m_queues[i % kQueues].GetHandle(), MSG_USER, i, 0, 0,
                                                  /*bAddToHead=*/i % 5 == 0, 1 + static_cast<int>(i % 3)));
        }
    }

    static constexpr unsigned int kQueues = 4;
    OpenQueue m_queues[kQueues];
    unsigned int m_port = 0;
    std::vector<Fd> m_outside;
};

void LiveOnce(bool bWaitForThreads) {
    Library library(std::string(kIni) + kEverything);
    Everything everything;
    if (bWaitForThreads) {
        everything.StartThreads(3);
    }
    library.Terminate(/*bDumpResources=*/false, bWaitForThreads);
    EXPECT_EQ("", ReadFile("tqos_error.log"));
}

TEST(Soak, TheLibraryEndsWithEverythingOpenAndNothingIsLeft) {
    StartAndEndAThread();
    const unsigned int threads = ThreadsOfProcess();
    const unsigned int descriptors = DescriptorsOfProcess();
    unsigned long long lives = 0;
    Limit limit;
    do {
        LiveOnce(/*bWaitForThreads=*/lives % 2 == 0);
        EXPECT_EQ(0u, gRequestedMemoryAllocations) << lives;
        EXPECT_EQ(nullptr, gpListOfLists);
        EXPECT_TRUE(WaitUntil([threads] { return ThreadsOfProcess() == threads; }, kHangSeconds));
        EXPECT_EQ(descriptors, DescriptorsOfProcess());
        ++lives;
    } while (!limit.IsReached(lives));
    SayDone("starts", lives, "starts and stops with everything open");
}

} // namespace
