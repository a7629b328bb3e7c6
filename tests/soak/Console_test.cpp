// The console: engineers log in, look at reports, talk to a queue and leave; three in ten vanish in the middle of a
// line, of a login or of a report. Every request is answered once, and no session stays.
#include "EngineerLoad.h"
#include "Soak.h"
#include "tq_Telnet_p.h"

namespace {

using namespace soak;
using namespace test;

/// What somebody has typed by the time he is gone; each begins in front of the login.
const char* const kHalfTyped[] = {
    "",
    "Sec",
    "Secret",
    "Secret\r",
    "wrong\rSecr",
    "wrong\rwrong\rwrong",
    "wrong\rwrong\rwrong\r",
    "Secret\rsh que",
    "Secret\rsh lists\rsh mem",
    "Secret\rsh det mem\rsh det mem\r",
    "Secret\rsh timers\r\x1b[A",
    "Secret\rhelp\r\x05half a line\b\b\x1b",
    "Secret\rsh queues\rquit",
};
constexpr unsigned int kHalfTypedCount = sizeof(kHalfTyped) / sizeof(kHalfTyped[0]);

class ConsoleSoak : public Soak {
public:
    ConsoleSoak() : m_port(tq_TelnetInitialize(0, Loopback(), "Secret")) {
        EXPECT_NE(0u, m_port);
        for (unsigned int i = 0; i < 3; ++i) {
            m_workers.Add(ConnectionPauseMs(), [this] {
                if (Random(10) < 3) {
                    ComeAndVanish();
                } else {
                    LookAround();
                }
            });
        }
    }

    bool HasWorked() const override { return m_dropped > 2 * kHalfTypedCount && m_whole > kHalfTypedCount; }
    unsigned long long Done() const override { return m_whole + m_dropped; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_EQ(m_commands, m_door.m_requests);
        EXPECT_EQ(m_commands, m_door.m_summaries);
        EXPECT_TRUE(WaitUntil([] { return Sessions() == 0; }, kHangSeconds)) << Sessions();
        tq_TelnetTerminate();
    }

    std::string Account() const override {
        return std::to_string(m_whole) + " sessions with " + std::to_string(m_commands) + " commands, and " +
               std::to_string(m_dropped) + " that were dropped";
    }

private:
    static unsigned int Sessions() {
        const tq_ListLock lock(gpTelnetInstanceList);
        return gpTelnetInstanceList->NodeCount();
    }

    void LookAround() {
        Session session(m_port, m_door.GetHandle());
        for (unsigned int i = Random(3); i > 0; --i) {
            session.Command();
        }
        m_commands += session.Commands();
        ++m_whole;
    }

    /// He may have read some of what came or nothing, and hang up or be cut off.
    void ComeAndVanish() {
        const Fd peer = ConnectedPeer(m_port);
        const std::string typed = kHalfTyped[m_dropped++ % kHalfTypedCount];
        SendAll(peer, typed);
        if (Random(2) != 0) {
            EXPECT_FALSE(ReadBytes(peer, 1 + Random(500)).empty());
        }
        if (Random(2) != 0) {
            const struct linger cutOff = {1, 0};
            EXPECT_EQ(0, setsockopt(peer.Get(), SOL_SOCKET, SO_LINGER, &cutOff, sizeof(cutOff)));
        }
    }

    std::atomic<unsigned long long> m_whole{0};
    std::atomic<unsigned long long> m_dropped{0};
    std::atomic<unsigned long long> m_commands{0};
    DoorQueue m_door;
    const unsigned int m_port;
    Workers m_workers;
};

TEST(Soak, SessionsThatAreDroppedMidLineLeaveNothingAndDisturbNobody) {
    RunSoak<ConsoleSoak>({"sessions", "[Sem]\nTracking=yes\n[Trace]\nLive_Level=All\n", nullptr});
}

} // namespace
