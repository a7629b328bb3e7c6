// UDP: datagrams of every size, from none to the most that the network takes, there and back.
#include <string.h>

#include "EchoLoad.h"
#include "Soak.h"
#include "SocketPeers.h"

namespace {

using namespace soak;
using namespace test;

constexpr unsigned int kMost = 65507;
/// What is under way at once finds room with the system, which may throw away the rest.
constexpr unsigned int kBigPeers = 1;
constexpr unsigned int kSmallPeers = 4;
constexpr unsigned int kSmallMost = 2000;

/// Sizes at which something changes; the others are drawn.
constexpr unsigned int kEdges[] = {0,  1,  2,    3,    4,    27,   28,   29,        31,
                                   32, 43, 1023, 1024, 1472, 1473, 4096, kMost - 1, kMost};

class DatagramSoak : public Soak {
public:
    DatagramSoak() : m_path("soak.sock"), m_echo(m_path) {
        for (unsigned int i = 0; i < kBigPeers + kSmallPeers; ++i) {
            m_peers[i].fd = BoundPeer(SOCK_DGRAM);
            EXPECT_TRUE(ConnectPeer(m_peers[i].fd, m_echo.UdpPort()));
            m_peers[i].most = i < kBigPeers ? kMost : kSmallMost;
            m_workers.Add(PauseMs(), [this, i] {
                for (unsigned int n = 0; n < 20; ++n) {
                    Exchange(m_peers[i]);
                }
            });
        }
    }

    bool HasWorked() const override { return m_datagrams > 100 && m_empty > 0 && m_full > 0; }
    unsigned long long Done() const override { return m_datagrams + m_empty; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_EQ(m_datagrams, m_echo.m_datagrams); // an empty one is not passed on
        EXPECT_EQ(0u, m_damaged);
        m_echo.CloseAll();
        for (Peer& peer : m_peers) {
            char byte;
            EXPECT_EQ(-1, recv(peer.fd.Get(), &byte, 1, MSG_DONTWAIT)) << "one came twice";
            peer.fd.Close();
        }
        tq_RemoveFile(m_path.c_str());
    }

    std::string Account() const override {
        return std::to_string(m_datagrams) + " datagrams there and back, of which " + std::to_string(m_full) +
               " of 65507 bytes, and " + std::to_string(m_empty) + " empty ones";
    }

private:
    struct Peer {
        Fd fd;
        unsigned int most = 0;
        unsigned int number = 0;
    };

    unsigned int NextSize(Peer& peer) {
        constexpr unsigned int kEdgeCount = sizeof(kEdges) / sizeof(kEdges[0]);
        const unsigned int number = peer.number++;
        if (number % 2 == 0 && kEdges[number / 2 % kEdgeCount] <= peer.most) {
            return kEdges[number / 2 % kEdgeCount];
        }
        return 1 + Random(Random(8) == 0 ? peer.most : kSmallMost);
    }

    /// One at a time is on its way, so that the system loses none.
    void Exchange(Peer& peer) {
        std::string text = Pattern(NextSize(peer));
        if (text.empty()) {
            EXPECT_EQ(0, send(peer.fd.Get(), text.data(), 0, 0));
            ++m_empty;
            return;
        }
        text[0] = static_cast<char>(peer.number);
        EXPECT_EQ(static_cast<ssize_t>(text.size()), send(peer.fd.Get(), text.data(), text.size(), 0));
        ++m_datagrams;
        m_full += text.size() == kMost ? 1 : 0;
        std::string answer(kMost, '\0');
        const ssize_t length = WaitReadable(peer.fd, kHangSeconds) ? recv(peer.fd.Get(), &answer[0], kMost, 0) : -1;
        const bool bWhole = length == static_cast<ssize_t>(text.size()) && answer.compare(0, text.size(), text) == 0;
        m_damaged += bWhole ? 0 : 1;
    }

    std::atomic<unsigned long long> m_datagrams{0};
    std::atomic<unsigned long long> m_empty{0};
    std::atomic<unsigned long long> m_full{0};
    std::atomic<unsigned int> m_damaged{0};
    const std::string m_path;
    EchoQueue m_echo;
    Peer m_peers[kBigPeers + kSmallPeers];
    Workers m_workers;
};

TEST(Soak, DatagramsOfEverySizeComeWholeAndOnce) {
    RunSoak<DatagramSoak>({"datagrams", "", nullptr});
}

} // namespace
