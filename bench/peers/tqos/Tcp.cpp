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

double ServeEcho(bench::Client& client) {
    const Library library;
    const EchoServer server;
    return client.Measure(server.Port());
}

} // namespace

PEER_BENCH_ECHO(ServeEcho, "tqos")
