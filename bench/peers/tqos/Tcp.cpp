// This library's sockets: each event goes through a queue.
#include <vector>

#include <arpa/inet.h>
#include <unistd.h>

#include "Bench.h"
#include "EchoBench.h"
#include "Library.h"

namespace {

class Server : public tq_MsgQ {
public:
    Server() : tq_MsgQ("Server", nullptr) {
        Create(0);
        m_listener = tq_SocketOpenTCPServer(GetHandle(), 0, 0, htonl(INADDR_LOOPBACK));
    }
    ~Server() override { Cleanup(); }
    unsigned int Port() const { return tq_SocketGetBoundPort(m_listener); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        const unsigned int socket = pMsg->instance;
        switch (pMsg->command) {
        case MSG_SOCKET_NEW_CONNECTION:
            OnConnection(reinterpret_cast<SOCKET_NEW_CONNECTION*>(pMsg)->new_socket);
            break;
        case MSG_SOCKET_DATASTREAM:
            OnData(socket);
            break;
        case MSG_SOCKET_WRITEABLE:
            OnWriteable(socket);
            break;
        case MSG_SOCKET_CLOSED:
            tq_SocketClose(socket);
            break;
        }
        tq_free(pMsg);
    }

protected:
    virtual void OnConnection(unsigned int) {}
    virtual void OnWriteable(unsigned int) {}
    virtual void OnData(unsigned int) {}

private:
    unsigned int m_listener;
};

class EchoServer : public Server {
public:
    ~EchoServer() override { Cleanup(); }

protected:
    void OnData(unsigned int socket) override {
        unsigned char buffer[bench::kEchoBytes];
        while (const unsigned int got = tq_SocketRecv(socket, buffer, sizeof(buffer))) {
            tq_SocketSendTo(socket, buffer, got, 0, 0);
        }
    }
};

/// Takes all that comes.
class Drain : public Server {
public:
    ~Drain() override { Cleanup(); }

protected:
    void OnConnection(unsigned int socket) override { tq_SocketSetDataInCap(socket, 4 * bench::kStreamPiece); }
    void OnData(unsigned int socket) override {
        while (tq_SocketRecv(socket, m_piece, sizeof(m_piece))) {
        }
    }

private:
    unsigned char m_piece[bench::kStreamPiece];
};

/// Sends as much as goes: up to the out cap, and again when that has drained by half.
class Source : public Server {
public:
    ~Source() override { Cleanup(); }

protected:
    void OnConnection(unsigned int socket) override {
        tq_SocketSetDataOutCap(socket, 4 * bench::kStreamPiece);
        tq_SocketSetWritePercentageNotification(socket, 50);
        OnWriteable(socket);
    }
    void OnWriteable(unsigned int socket) override {
        while (tq_SocketSendTo(socket, m_piece, sizeof(m_piece), 0, 0) == sizeof(m_piece)) {
        }
    }

private:
    unsigned char m_piece[bench::kStreamPiece] = {};
};

template <class Kind> double Serve(bench::Client& client) {
    const Library library;
    const Kind server{};
    return client.Measure(server.Port());
}

} // namespace

PEER_BENCH_ECHO(Serve<EchoServer>, "tqos")
PEER_BENCH_STREAMS(Serve<Drain>, Serve<Source>, "tqos")

PEER_BENCH("tcp/one-connection", "tqos") {
    return bench::EchoBesideIdle(Serve<EchoServer>, 0, 1);
}

PEER_BENCH("tcp/one-beside-500-idle", "tqos") {
    return bench::EchoBesideIdle(Serve<EchoServer>, 500, 1);
}

PEER_BENCH("tcp/one-beside-500-idle-one-core", "tqos") {
    return bench::EchoBesideIdle(Serve<EchoServer>, 500, 0);
}
