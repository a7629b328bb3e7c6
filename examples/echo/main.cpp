// echo [PORT]: sends back what it gets, to any number of clients on loopback, until standard input ends. A client that
// does not read holds up nobody, and costs no more memory than its caps.
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <string>

#include <tqos.h>

namespace {

enum { MSG_ECHO_ON = MSG_USER };

constexpr int kTurns = 16;              // pieces sent back before others have their turn
constexpr unsigned int kInCap = 65536;  // bytes read ahead of a client
constexpr unsigned int kOutCap = 65536; // bytes queued for one

class EchoServer : public tq_MsgQ {
public:
    explicit EchoServer(unsigned int port) : tq_MsgQ("Echo", "sends back what it gets"), m_port(port) {}
    ~EchoServer() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_CREATE:
            Listen();
            break;
        case MSG_SOCKET_NEW_CONNECTION:
            Welcome(reinterpret_cast<const SOCKET_NEW_CONNECTION*>(pMsg)->new_socket);
            break;
        case MSG_SOCKET_DATASTREAM: // there is something to take
        case MSG_SOCKET_WRITEABLE:  // there is room again
        case MSG_ECHO_ON:           // the others have had their turn
            Echo(pMsg->instance);
            break;
        case MSG_SOCKET_CLOSED:
            Goodbye(pMsg->instance);
            break;
        case MSG_DESTROY:
            tq_SocketClose(m_hListener);
            while (!m_unsent.empty()) {
                Goodbye(m_unsent.begin()->first);
            }
            break;
        default:
            break;
        }
        tq_free(pMsg);
    }

private:
    void Listen() {
        m_hListener = tq_SocketOpenTCPServer(GetHandle(), m_port, /*userparm=*/0, htonl(INADDR_LOOPBACK));
        printf("echo: port %u\n", tq_SocketGetBoundPort(m_hListener));
        fflush(stdout);
    }

    void Welcome(unsigned int hSocket) {
        tq_SocketSetName(hSocket, "Echo client");
        tq_SocketSetDataInCap(hSocket, kInCap);
        tq_SocketSetDataOutCap(hSocket, kOutCap);
        m_unsent[hSocket]; // a client that we know
    }

    /// Sends back what a client has sent, as far as it reads: what is not taken of our text waits for
    /// MSG_SOCKET_WRITEABLE, and its own then waits in its socket, which is not read once it holds its cap.
    void Echo(unsigned int hSocket) {
        const auto client = m_unsent.find(hSocket);
        if (client == m_unsent.end()) {
            return; // gone since the message was sent
        }
        std::string& text = client->second;
        unsigned char data[4096];
        for (int turn = 0; turn < kTurns; ++turn) {
            const auto* pText = reinterpret_cast<const unsigned char*>(text.data());
            text.erase(0, tq_SocketSendTo(hSocket, pText, static_cast<unsigned int>(text.size()), 0, 0));
            if (!text.empty()) {
                return;
            }
            text.assign(reinterpret_cast<char*>(data), tq_SocketRecv(hSocket, data, sizeof(data)));
            if (text.empty()) {
                return;
            }
        }
        tq_MsgCreateCommonAndSend(0, GetHandle(), MSG_ECHO_ON, hSocket, 0, 0, /*bAddToHead=*/false,
                                  TQ_MSG_PRIORITY_MEDIUM);
    }

    void Goodbye(unsigned int hSocket) {
        m_unsent.erase(hSocket);
        tq_SocketClose(hSocket); // closed by the peer or not, the handle is ours to give back
    }

    const unsigned int m_port;
    unsigned int m_hListener = 0;
    std::map<unsigned int, std::string> m_unsent; // by socket: taken from it and not yet sent back
};

} // namespace

int main(int argc, char** argv) {
    if (tqOS_Initialize() == 0) {
        EchoServer server(argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 0);
        server.Create(TQ_THREAD_PRIORITY_NORMAL);
        while (getchar() != EOF) {
        }
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
