/// @file ServerQueue.h
/// The queue that answers: two listening sockets, TCP on loopback and local-domain, and every client of either.
///
/// Routing. Whoever opens a socket names the queue that gets its messages; a connection that a listener accepts
/// inherits the listener's queue and user value. So everything that happens to any client comes here as a message whose
/// `instance` is the client's socket, in order, on one thread, and the clients need no lock.
///
/// Bounds. What a client can make the device hold is bounded, however it behaves:
///  - bytes it sent and we did not read: kInCap; beyond that its own sends stop;
///  - replies it does not read: kOutCap in the library, and the rest of one reply here. While there is such a rest the
///    client is held: nothing more is read from it or watched for it, until MSG_SOCKET_WRITEABLE says that there is
///    room again.
#ifndef DEVICE_SERVER_QUEUE_H
#define DEVICE_SERVER_QUEUE_H

#include <string>

#include <tqos.h>

#include "ConsoleQueue.h"
#include "History.h"
#include "Protocol.h"
#include "Settings.h"

class ServerQueue : public ConsoleQueue {
public:
    /// The history outlives the queue.
    ServerQueue(const Settings& settings, History& history);
    ~ServerQueue() override;

    /// After Create(): waits until the listeners are open. False when one could not be opened.
    bool WaitUntilOpen();
    /// The port that TCP clients connect to; known once the listeners are open.
    unsigned int TcpPort() const { return m_tcpPort; }

    void MessageHandler(MSG_COMMON* pMsg) override;

protected:
    std::string Summary(bool bDetail) override;

private:
    struct Client {
        Client(unsigned int handle, bool bOverTcp) : hSocket(handle), bTcp(bOverTcp) {}
        bool IsHeld() const { return !unsent.empty(); }

        unsigned int hSocket; // first: clients are found by it
        LineBuffer lines;
        std::string unsent; // the rest of a reply that the socket had no room for
        unsigned int answered = 0;
        unsigned int watchMs = 0; // 0: it does not watch
        bool bTcp;
        bool bQuitting = false;
    };

    struct Handler {
        unsigned int command;
        void (ServerQueue::*handle)(const MSG_COMMON* pMsg);
    };
    static const Handler kHandlers[];
    static const ConsoleCommand kCommands[];

    void OnCreate(const MSG_COMMON* pMsg);
    void OnDestroy(const MSG_COMMON* pMsg);
    void OnNewConnection(const MSG_COMMON* pMsg);
    void OnData(const MSG_COMMON* pMsg);
    void OnWriteable(const MSG_COMMON* pMsg);
    void OnClosed(const MSG_COMMON* pMsg);
    void OnWatchTimer(const MSG_COMMON* pMsg);

    bool OpenListeners();
    Client* FindClient(unsigned int hSocket);
    void CloseClient(Client* pClient, unsigned int flushFlags);

    void Serve(Client* pClient);
    void AnswerLines(Client* pClient);
    void Answer(Client* pClient, std::string_view line);
    void Reply(Client* pClient, const std::string& text);
    void SendUnsent(Client* pClient);
    void Watch(Client* pClient, unsigned int periodMs);
    std::string OneSample(std::string (*format)(const Sample& sample));
    std::string HistoryLines(unsigned int count);

    std::string ClientTable();
    std::string AnswerClients(std::string_view argument);
    std::string AnswerDrop(std::string_view argument);

    const Settings m_settings;
    History& m_history;
    tq_SemEvent m_listenersDone; // set when m_bOpen and m_tcpPort are
    bool m_bOpen = false;
    unsigned int m_tcpPort = 0;
    unsigned int m_hTcpListener = 0;
    unsigned int m_hLocalListener = 0;
    unsigned int m_answered = 0; // lines, of all clients that ever came
    tq_List m_clients;           // of Client; this queue's own thread alone uses it
};

#endif // DEVICE_SERVER_QUEUE_H
