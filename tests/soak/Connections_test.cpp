// TCP: connections come and go, in every way in which one can end. What arrives is what was sent, byte for byte, and
// each connection is closed once.
#include <map>
#include <string.h>

#include "EchoLoad.h"
#include "Soak.h"
#include "SocketPeers.h"

namespace {

using namespace soak;
using namespace test;

/// How a connection ends.
enum End {
    kPeerCloses,     ///< when it has everything back
    kPeerResets,     ///< in the middle
    kPeerHalfCloses, ///< and then takes what comes
    kServerCloses,   ///< when it has sent everything back
    kEnds
};

struct Header {
    unsigned char end;
    unsigned char id[3]; ///< of the pattern
    unsigned char bytes[4];
};

/// The byte at a place of the text with this number.
unsigned char ByteOf(unsigned int id, size_t at) {
    return static_cast<unsigned char>(id * 31 + at * 7 + at / 251);
}

std::string TextOf(End end, unsigned int id, unsigned int bytes) {
    const Header header = {
        static_cast<unsigned char>(end),
        {static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id >> 16)},
        {static_cast<unsigned char>(bytes), static_cast<unsigned char>(bytes >> 8),
         static_cast<unsigned char>(bytes >> 16), 0}};
    std::string text(reinterpret_cast<const char*>(&header), sizeof(header));
    for (size_t at = text.size(); at < sizeof(header) + bytes; ++at) {
        text += static_cast<char>(ByteOf(id, at));
    }
    return text;
}

/// Sends back what it gets, and holds every connection to its own header.
class ChurnServer : public DeviceQueue {
public:
    ChurnServer() : DeviceQueue("Churn") {
        Create(TQ_THREAD_PRIORITY_NORMAL);
        m_hListener = tq_SocketOpenTCPServer(GetHandle(), 0, 0, Loopback());
        EXPECT_NE(0u, m_hListener);
    }
    ~ChurnServer() override { EndIdle(); }

    unsigned int Port() const { return tq_SocketGetBoundPort(m_hListener); }
    void CloseListener() { EXPECT_EQ(0u, tq_SocketClose(m_hListener)); }

    std::atomic<unsigned long long> m_accepted{0};
    std::atomic<unsigned long long> m_closed[kEnds]{};
    std::atomic<unsigned int> m_damaged{0};
    std::atomic<unsigned int> m_cutShort{0};
    std::atomic<unsigned int> m_closedTwice{0};
    std::atomic<unsigned int> m_neverOpened{0}; ///< reset before the header had come

    unsigned long long Closed() const {
        unsigned long long closed = m_neverOpened;
        for (const std::atomic<unsigned long long>& count : m_closed) {
            closed += count;
        }
        return closed;
    }

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_SOCKET_NEW_CONNECTION: {
            ++m_accepted;
            const unsigned int hSocket = reinterpret_cast<const SOCKET_NEW_CONNECTION*>(pMsg)->new_socket;
            m_closedTwice += m_connections.emplace(hSocket, Connection()).second ? 0 : 1;
            break;
        }
        case MSG_SOCKET_DATASTREAM:
            Take(pMsg->instance);
            break;
        case MSG_SOCKET_CLOSED:
            Take(pMsg->instance);
            Close(*reinterpret_cast<const SOCKET_CLOSED*>(pMsg));
            break;
        default:
            break;
        }
        return false;
    }

private:
    struct Connection {
        unsigned char header[sizeof(Header)] = {};
        size_t length = 0; ///< that has come, header included

        bool HasHeader() const { return length >= sizeof(Header); }
        const Header& TheHeader() const { return *reinterpret_cast<const Header*>(header); }
        size_t Whole() const {
            const unsigned char* const bytes = TheHeader().bytes;
            return sizeof(Header) + bytes[0] + 256u * bytes[1] + 65536u * bytes[2];
        }
    };

    void Take(unsigned int hSocket) {
        const auto found = m_connections.find(hSocket);
        if (found == m_connections.end()) {
            return; // closed by us, with messages of it still on their way
        }
        unsigned char buffer[4000];
        while (const unsigned int length = tq_SocketRecv(hSocket, buffer, sizeof(buffer))) {
            Compare(found->second, buffer, length);
            tq_SocketSendTo(hSocket, buffer, length, 0, 0);
        }
        const Connection& connection = found->second;
        if (connection.HasHeader() && connection.TheHeader().end == kServerCloses &&
            connection.length == connection.Whole()) {
            ++m_closed[kServerCloses];
            EXPECT_EQ(0u, tq_SocketFlushAndClose(hSocket, TQ_SOCKET_FLUSH_OUT));
            m_connections.erase(found);
        }
    }

    void Compare(Connection& connection, const unsigned char* pBytes, unsigned int length) {
        for (unsigned int i = 0; i < length; ++i, ++connection.length) {
            if (connection.length < sizeof(Header)) {
                connection.header[connection.length] = pBytes[i];
                continue;
            }
            const unsigned char* const id = connection.TheHeader().id;
            m_damaged += pBytes[i] == ByteOf(id[0] + 256u * id[1] + 65536u * id[2], connection.length) ? 0 : 1;
        }
    }

    void Close(const SOCKET_CLOSED& closed) {
        const auto found = m_connections.find(closed.msg.instance);
        if (found == m_connections.end()) {
            ++m_closedTwice;
            return;
        }
        const Connection& connection = found->second;
        if (!connection.HasHeader()) {
            ++m_neverOpened;
        } else {
            const unsigned int end = connection.TheHeader().end;
            ++m_closed[end];
            m_cutShort += end == kPeerResets || connection.length == connection.Whole() ? 0 : 1;
            m_damaged += connection.length > connection.Whole() ? 1 : 0;
        }
        EXPECT_EQ(0u, tq_SocketClose(closed.msg.instance));
        m_connections.erase(found);
    }

    unsigned int m_hListener = 0;
    std::map<unsigned int, Connection> m_connections; // by the queue's own thread
};

class ConnectionSoak : public Soak {
public:
    ConnectionSoak()
        : m_path("soak.sock"), m_echo(m_path), m_callers{{m_echo.TcpPort(), m_path}, {m_echo.TcpPort(), m_path}} {
        for (unsigned int i = 0; i < 3; ++i) {
            m_workers.Add(ConnectionPauseMs(), [this] { ConnectOnce(); });
        }
    }

    bool HasWorked() const override { return Done() > 40 && m_callers[0].Calls() > 1 && m_callers[1].Calls() > 1; }
    unsigned long long Done() const override { return m_connected; }

    void Stop() override {
        m_workers.Stop();
        unsigned int calls = 0;
        for (CallerQueue& caller : m_callers) {
            caller.Stop();
            calls += caller.Calls();
        }
        EXPECT_TRUE(WaitUntil([&] { return m_server.Closed() == m_connected; }, kHangSeconds)) << m_server.Closed();
        EXPECT_EQ(m_connected, m_server.m_accepted);
        EXPECT_EQ(m_ended[kServerCloses], m_server.m_closed[kServerCloses]);
        EXPECT_EQ(m_ended[kPeerCloses], m_server.m_closed[kPeerCloses]);
        EXPECT_EQ(m_ended[kPeerHalfCloses], m_server.m_closed[kPeerHalfCloses]);
        EXPECT_EQ(m_ended[kPeerResets], m_server.m_closed[kPeerResets] + m_server.m_neverOpened);
        EXPECT_EQ(0u, m_server.m_damaged);
        EXPECT_EQ(0u, m_server.m_cutShort);
        EXPECT_EQ(0u, m_server.m_closedTwice);
        EXPECT_TRUE(WaitUntil([&] { return m_echo.m_closed == calls; }, kHangSeconds));
        EXPECT_EQ(calls, m_echo.m_accepted);
        m_echo.CloseAll();
        m_server.CloseListener();
        tq_RemoveFile(m_path.c_str());
    }

    std::string Account() const override {
        return std::to_string(m_connected) + " connections, of which " + std::to_string(m_ended[kPeerResets]) +
               " were reset, " + std::to_string(m_ended[kPeerHalfCloses]) + " half closed and " +
               std::to_string(m_ended[kServerCloses]) + " closed by the server, and " +
               std::to_string(m_echo.m_closed) + " of the library's own";
    }

private:
    void ConnectOnce() {
        const End end = static_cast<End>(Random(kEnds));
        const unsigned int id = Random(1u << 24);
        const std::string text = TextOf(end, id, Random(Random(20) == 0 ? 60000 : 3000));
        Fd peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        // Ports of connections that have ended may be used up for a moment.
        EXPECT_TRUE(WaitUntil([&] { return ConnectPeer(peer, m_server.Port()); }, kHangSeconds)) << strerror(errno);
        ++m_connected;
        ++m_ended[end];
        switch (end) {
        case kPeerResets:
            Reset(peer, text);
            break;
        case kPeerHalfCloses: {
            SendAll(peer, text);
            shutdown(peer.Get(), SHUT_WR);
            const std::string back = ReadToEnd(peer);
            EXPECT_EQ(text.substr(0, back.size()), back);
            break;
        }
        case kServerCloses:
            SendAll(peer, text);
            EXPECT_TRUE(ReadToEnd(peer) == text);
            break;
        default:
            SendAll(peer, text);
            EXPECT_TRUE(ReadBytes(peer, text.size()) == text);
            break;
        }
    }

    static void Reset(const Fd& peer, const std::string& text) {
        SendAll(peer, text.substr(0, Random(static_cast<unsigned int>(text.size()))));
        const struct linger reset = {1, 0};
        EXPECT_EQ(0, setsockopt(peer.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)));
    }

    std::atomic<unsigned long long> m_connected{0};
    std::atomic<unsigned long long> m_ended[kEnds]{};
    ChurnServer m_server;
    const std::string m_path;
    EchoQueue m_echo;
    CallerQueue m_callers[2];
    Workers m_workers;
};

TEST(Soak, EachConnectionIsClosedOnceAndNothingOfItIsLost) {
    RunSoak<ConnectionSoak>({"connections", "", nullptr});
}

} // namespace
