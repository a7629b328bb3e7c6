/// @file EchoLoad.h
/// A server that sends back what it gets, over TCP, local-domain sockets and UDP, and a client made of the library's
/// own sockets.
#ifndef ECHO_LOAD_H
#define ECHO_LOAD_H

#include <atomic>
#include <string>

#include "Load.h"
#include "SocketPeers.h"

namespace test {

class EchoQueue : public DeviceQueue {
public:
    explicit EchoQueue(const std::string& path) : DeviceQueue("Echo") {
        Create(TQ_THREAD_PRIORITY_NORMAL);
        m_hTcp = tq_SocketOpenTCPServer(GetHandle(), 0, 0, Loopback());
        m_hLocal = tq_SocketOpenTCPServerDomain(GetHandle(), Bytes(path), 0);
        m_hUdp = tq_SocketOpenUDP(GetHandle(), 0, 0, 0, Loopback(), 0);
        EXPECT_TRUE(m_hTcp != 0 && m_hLocal != 0 && m_hUdp != 0);
    }
    ~EchoQueue() override { EndIdle(); }

    unsigned int TcpPort() const { return tq_SocketGetBoundPort(m_hTcp); }
    unsigned int UdpPort() const { return tq_SocketGetBoundPort(m_hUdp); }

    void CloseAll() {
        for (const unsigned int hSocket : {m_hTcp, m_hLocal, m_hUdp}) {
            EXPECT_EQ(0u, tq_SocketClose(hSocket));
        }
    }

    std::atomic<unsigned int> m_accepted{0};
    std::atomic<unsigned int> m_closed{0};
    std::atomic<unsigned int> m_datagrams{0};
    std::atomic<unsigned long long> m_bytes{0};

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_SOCKET_NEW_CONNECTION:
            ++m_accepted;
            break;
        case MSG_SOCKET_DATASTREAM:
            SendBack(pMsg->instance);
            break;
        case MSG_SOCKET_DATAGRAM:
            SendBack(*reinterpret_cast<const SOCKET_DATAGRAM*>(pMsg));
            break;
        case MSG_SOCKET_CLOSED:
            EXPECT_EQ(0, reinterpret_cast<const SOCKET_CLOSED*>(pMsg)->error);
            EXPECT_EQ(0u, tq_SocketClose(pMsg->instance));
            ++m_closed;
            break;
        default: // the datagram socket announces itself; the machine's interfaces may change
            break;
        }
        return false;
    }

private:
    void SendBack(unsigned int hSocket) {
        unsigned char buffer[3000];
        while (const unsigned int length = tq_SocketRecv(hSocket, buffer, sizeof(buffer))) {
            EXPECT_EQ(length, tq_SocketSendTo(hSocket, buffer, length, 0, 0));
            m_bytes += length;
        }
    }
    void SendBack(const SOCKET_DATAGRAM& datagram) {
        ++m_datagrams;
        EXPECT_EQ(datagram.length, tq_SocketSendTo(datagram.msg.instance, datagram.data, datagram.length,
                                                   datagram.srcaddress, datagram.srcport));
    }

    unsigned int m_hTcp = 0;
    unsigned int m_hLocal = 0;
    unsigned int m_hUdp = 0;
};

/// A client made of the library's own sockets: it calls the server, now by TCP and now by the local-domain socket, gets
/// a text back, and hangs up; a timer says when to call again.
class CallerQueue : public DeviceQueue {
public:
    CallerQueue(unsigned int port, std::string path) : DeviceQueue("Caller"), m_port(port), m_path(std::move(path)) {
        Create(TQ_THREAD_PRIORITY_NORMAL);
        tq_MsgCreateCommonAndSend(0, GetHandle(), MSG_TIMER, 0, 0, 0, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
    }
    ~CallerQueue() override { EndIdle(); }

    void Stop() {
        m_bStop = true;
        EXPECT_TRUE(WaitUntil([this] { return m_bIdle.load(); }, kHangSeconds));
    }
    unsigned int Calls() const { return m_calls; }

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_TIMER:
            Call();
            break;
        case MSG_SOCKET_CONNECTED:
            EXPECT_EQ(m_hSocket, pMsg->instance);
            EXPECT_EQ(m_text.size(), tq_SocketSendTo(m_hSocket, Bytes(m_text), TextBytes(), 0, 0));
            break;
        case MSG_SOCKET_DATASTREAM:
            Listen();
            break;
        case MSG_SOCKET_CLOSED:
            ADD_FAILURE() << "the server has hung up";
            break;
        default:
            break;
        }
        return false;
    }

private:
    unsigned int TextBytes() const { return static_cast<unsigned int>(m_text.size()); }

    void Call() {
        if (m_bStop) {
            m_bIdle = true;
            return;
        }
        m_text = Pattern(1 + Random(20000));
        m_heard.clear();
        m_hSocket = m_calls % 2 != 0 ? tq_SocketOpenTCPClient(GetHandle(), Loopback(), m_port, 0, 0, 0)
                                     : tq_SocketOpenTCPClientDomain(GetHandle(), Bytes(m_path), 0);
        EXPECT_NE(0u, m_hSocket);
        ++m_calls;
    }

    void Listen() {
        unsigned char buffer[5000];
        while (const unsigned int length = tq_SocketRecv(m_hSocket, buffer, sizeof(buffer))) {
            m_heard.append(reinterpret_cast<const char*>(buffer), length);
        }
        if (m_hSocket == 0 || m_heard.size() < m_text.size()) {
            return;
        }
        EXPECT_TRUE(m_heard == m_text);
        EXPECT_EQ(0u, tq_SocketClose(m_hSocket));
        m_hSocket = 0;
        EXPECT_EQ(0u, tq_TimerSet(GetHandle(), 10, 0, 0, 0, TQ_TIMER_ONE_SHOT, "next call", false));
    }

    const unsigned int m_port;
    const std::string m_path;
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bIdle{false};
    std::atomic<unsigned int> m_calls{0};
    unsigned int m_hSocket = 0; // this and the next two by the queue's own thread
    std::string m_text;
    std::string m_heard;
};

} // namespace test

#endif // ECHO_LOAD_H
