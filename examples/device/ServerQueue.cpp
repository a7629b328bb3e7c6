#include "ServerQueue.h"

#include <limits.h>
#include <netinet/in.h>
#include <stdio.h>

#include "DeviceMessages.h"
#include "DeviceTrace.h"

namespace {

constexpr unsigned int kInCap = 4096;
constexpr unsigned int kOutCap = 16384;
constexpr unsigned int kKernelSendBytes = 32768;
constexpr unsigned int kWriteableAtPercent = 50; // of kOutCap still queued
constexpr int kOpenTimeoutMs = 30000;

/// User values of the listeners; the clients of each inherit its own.
enum { kTcpClient = 1, kLocalClient = 2 };

const char* From(bool bTcp) {
    return bTcp ? "TCP" : "local";
}

} // namespace

const ServerQueue::Handler ServerQueue::kHandlers[] = {
    {MSG_CREATE, &ServerQueue::OnCreate},
    {MSG_DESTROY, &ServerQueue::OnDestroy},
    {MSG_SOCKET_NEW_CONNECTION, &ServerQueue::OnNewConnection},
    {MSG_SOCKET_DATASTREAM, &ServerQueue::OnData},
    {MSG_DEVICE_READ_ON, &ServerQueue::OnData},
    {MSG_SOCKET_WRITEABLE, &ServerQueue::OnWriteable},
    {MSG_SOCKET_CLOSED, &ServerQueue::OnClosed},
    {MSG_TIMER, &ServerQueue::OnWatchTimer},
};

const ServerQueue::ConsoleCommand ServerQueue::kCommands[] = {
    {"clients", nullptr, "lists them", AnswerOf(&ServerQueue::AnswerClients)},
    {"drop", "<client>", "closes a client's connection, as a broken line would; all: every one's",
     AnswerOf(&ServerQueue::AnswerDrop)},
    {nullptr, nullptr, nullptr, nullptr},
};

ServerQueue::ServerQueue(const Settings& settings, History& history)
    : ConsoleQueue("Server", "answers the line protocol", kCommands), m_settings(settings), m_history(history),
      m_listenersDone(/*bManualReset=*/1, /*bInitialState=*/0),
      m_clients(LIST_FLAGS_LOCK_DISABLE, LIST_TYPE_U32BITS, 0, "Device: Clients") {}

ServerQueue::~ServerQueue() {
    Cleanup(); // before the fields go that the handler uses
}

bool ServerQueue::WaitUntilOpen() {
    return GetHandle() != 0 && m_listenersDone.WaitForEvent(kOpenTimeoutMs) && m_bOpen;
}

void ServerQueue::MessageHandler(MSG_COMMON* pMsg) {
    if (AnswerConsole(pMsg)) {
        tq_free(pMsg);
        return;
    }
    for (const Handler& row : kHandlers) {
        if (row.command == pMsg->command) {
            (this->*row.handle)(pMsg);
            break;
        }
    }
    tq_free(pMsg);
}

void ServerQueue::OnCreate(const MSG_COMMON*) {
    m_bOpen = OpenListeners();
    m_listenersDone.Set();
}

bool ServerQueue::OpenListeners() {
    const unsigned int loopback = htonl(INADDR_LOOPBACK);
    m_hTcpListener = tq_SocketOpenTCPServer(GetHandle(), m_settings.port, kTcpClient, loopback);
    m_hLocalListener = tq_SocketOpenTCPServerDomain(
        GetHandle(), reinterpret_cast<const unsigned char*>(m_settings.socketPath), kLocalClient);
    tq_SocketSetName(m_hTcpListener, "Device: TCP");
    tq_SocketSetName(m_hLocalListener, "Device: local");
    m_tcpPort = tq_SocketGetBoundPort(m_hTcpListener);
    return m_hTcpListener != 0 && m_hLocalListener != 0;
}

void ServerQueue::OnDestroy(const MSG_COMMON*) {
    if (m_hTcpListener != 0) {
        tq_SocketClose(m_hTcpListener);
    }
    if (m_hLocalListener != 0) {
        tq_SocketClose(m_hLocalListener);
        tq_RemoveFile(m_settings.socketPath);
    }
    while (Client* pClient = static_cast<Client*>(m_clients.GetHead())) {
        CloseClient(pClient, 0);
    }
}

void ServerQueue::OnNewConnection(const MSG_COMMON* pMsg) {
    const unsigned int hSocket = reinterpret_cast<const SOCKET_NEW_CONNECTION*>(pMsg)->new_socket;
    Client* pClient = tq_newObject<Client>(hSocket, pMsg->userparm == kTcpClient);
    if (!pClient) {
        tq_SocketClose(hSocket);
        return;
    }
    m_clients.AddToTail(pClient);
    tq_SocketSetName(hSocket, "Device: client");
    tq_SocketSetDataInCap(hSocket, kInCap);
    tq_SocketSetDataOutCap(hSocket, kOutCap);
    tq_SocketSetWritePercentageNotification(hSocket, kWriteableAtPercent);
    tq_SocketSetSendBufSize(hSocket, kKernelSendBytes);
    tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_INFORMATIONAL, DEVICE_CAT_SERVER, true, "client %u has come (%s)\n", hSocket,
             From(pClient->bTcp));
}

void ServerQueue::OnData(const MSG_COMMON* pMsg) {
    // A message can be about a client that has gone since; so can every other one below.
    if (Client* pClient = FindClient(pMsg->instance)) {
        Serve(pClient);
    }
}

void ServerQueue::OnWriteable(const MSG_COMMON* pMsg) {
    if (Client* pClient = FindClient(pMsg->instance)) {
        SendUnsent(pClient);
        Serve(pClient);
    }
}

void ServerQueue::OnClosed(const MSG_COMMON* pMsg) {
    if (Client* pClient = FindClient(pMsg->instance)) {
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_INFORMATIONAL, DEVICE_CAT_SERVER, true, "client %u has gone, error %d\n",
                 pClient->hSocket, reinterpret_cast<const SOCKET_CLOSED*>(pMsg)->error);
        CloseClient(pClient, 0); // the peer has closed; our side of the handle is still ours to close
    }
}

void ServerQueue::OnWatchTimer(const MSG_COMMON* pMsg) {
    Client* pClient = FindClient(pMsg->instance);
    if (pClient && pClient->watchMs != 0 &&
        !pClient->IsHeld()) { // one who does not read misses a line, and costs nothing
        Reply(pClient, OneSample(LoadLine));
    }
}

ServerQueue::Client* ServerQueue::FindClient(unsigned int hSocket) {
    return static_cast<Client*>(
        m_clients.FindFirst(tq_ListKey(hSocket), LIST_TYPE_U32BITS, 0, nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
}

/// With TQ_SOCKET_FLUSH_OUT the library keeps the socket until what is queued is sent.
void ServerQueue::CloseClient(Client* pClient, unsigned int flushFlags) {
    Watch(pClient, 0);
    tq_SocketFlushAndClose(pClient->hSocket, flushFlags);
    m_clients.RemoveNode(pClient);
    tq_deleteObject(pClient);
}

/// Answers what a client has sent, one buffer at a time: a client with more goes to the end of the line, so that one
/// who never stops sending does not keep the others waiting.
void ServerQueue::Serve(Client* pClient) {
    AnswerLines(pClient);
    if (!pClient->IsHeld() && !pClient->bQuitting) {
        LineBuffer& lines = pClient->lines;
        lines.Added(tq_SocketRecv(pClient->hSocket, lines.Room(), lines.RoomBytes()));
        AnswerLines(pClient);
    }
    if (pClient->IsHeld()) {
        return; // MSG_SOCKET_WRITEABLE comes back to this client
    }
    if (pClient->bQuitting) {
        CloseClient(pClient, TQ_SOCKET_FLUSH_OUT);
    } else if (tq_SocketDataAvailable(pClient->hSocket) > 0) {
        tq_MsgCreateCommonAndSend(0, GetHandle(), MSG_DEVICE_READ_ON, pClient->hSocket, 0, 0, /*bAddToHead=*/false,
                                  TQ_MSG_PRIORITY_MEDIUM);
    }
}

/// Until there is no whole line left, or one reply did not get out whole.
void ServerQueue::AnswerLines(Client* pClient) {
    while (!pClient->IsHeld() && !pClient->bQuitting) {
        std::string_view line;
        switch (pClient->lines.Next(&line)) {
        case LineBuffer::kLine:
            Answer(pClient, line);
            break;
        case LineBuffer::kTooLong:
            Reply(pClient, ErrorLine("the line is longer than 128 bytes"));
            break;
        case LineBuffer::kNeedsBytes:
            return;
        }
    }
}
static_assert(kMaxLine == 128, "the error above names it");

void ServerQueue::Answer(Client* pClient, std::string_view line) {
    ++pClient->answered;
    ++m_answered;
    Command command;
    if (const char* pszWrong = ParseCommand(line, &command)) {
        Reply(pClient, ErrorLine(pszWrong));
        return;
    }
    switch (command.verb) {
    case Verb::GetLoad:
        Reply(pClient, OneSample(LoadLine));
        break;
    case Verb::GetMemory:
        Reply(pClient, OneSample(MemoryLine));
        break;
    case Verb::GetNetwork:
        Reply(pClient, OneSample(NetworkLine));
        break;
    case Verb::History:
        Reply(pClient, HistoryLines(command.number));
        break;
    case Verb::Watch:
        Reply(pClient, NumberLine("WATCHING", command.number));
        Watch(pClient, command.number);
        break;
    case Verb::Quit:
        Reply(pClient, "BYE\r\n");
        pClient->bQuitting = true;
        break;
    }
}

void ServerQueue::Reply(Client* pClient, const std::string& text) {
    pClient->unsent += text;
    SendUnsent(pClient);
}

/// The result says how much the socket has taken, sent or queued. When that is less, the library notes that we wait.
void ServerQueue::SendUnsent(Client* pClient) {
    std::string& unsent = pClient->unsent;
    const unsigned int taken = tq_SocketSendTo(pClient->hSocket, reinterpret_cast<const unsigned char*>(unsent.data()),
                                               static_cast<unsigned int>(unsent.size()), 0, 0);
    unsent.erase(0, taken);
}

/// A timer's queue, instance, user value and flags are its identity: the client's socket as the instance makes it the
/// client's own, and setting it again replaces it.
void ServerQueue::Watch(Client* pClient, unsigned int periodMs) {
    if (periodMs == 0) {
        if (pClient->watchMs != 0) {
            tq_TimerKill(GetHandle(), pClient->hSocket, 0, 0);
        }
        pClient->watchMs = 0;
        return;
    }
    const bool bSet = tq_TimerSet(GetHandle(), periodMs, pClient->hSocket, 0, 0, TQ_TIMER_REPEATING, "Watch",
                                  /*bAllowSkew=*/false) == 0;
    pClient->watchMs = bSet ? periodMs : 0;
}

std::string ServerQueue::OneSample(std::string (*format)(const Sample& sample)) {
    const std::vector<Sample> samples = m_history.Newest(1);
    return samples.empty() ? ErrorLine("there is no sample yet") : format(samples.front());
}

std::string ServerQueue::HistoryLines(unsigned int count) {
    const std::vector<Sample> samples = m_history.Newest(count);
    std::string lines;
    for (const Sample& sample : samples) {
        lines += SampleLine(sample);
    }
    return lines + NumberLine("END", static_cast<unsigned int>(samples.size()));
}

std::string ServerQueue::Summary(bool bDetail) {
    std::string text = bDetail ? "Server: " : "";
    text += "clients: " + std::to_string(m_clients.NodeCount()) + "; lines answered: " + std::to_string(m_answered);
    if (bDetail) {
        text += "\r\n  TCP: 127.0.0.1 port " + std::to_string(m_tcpPort) + "\r\n  local: " + m_settings.socketPath;
        text += ClientTable();
    }
    return text;
}

/// Each line after a line end. Nothing at all without clients.
std::string ServerQueue::ClientTable() {
    std::string table = m_clients.NodeCount() > 0 ? "\r\n    Client  From   Lines     Watch(ms) Unsent" : "";
    for (void* pNode = m_clients.GetHead(); pNode; pNode = m_clients.GetNext()) {
        const Client& client = *static_cast<const Client*>(pNode);
        char row[80];
        snprintf(row, sizeof(row), "\r\n%10u  %-5s  %-8u  %-8u  %zu", client.hSocket, From(client.bTcp),
                 client.answered, client.watchMs, client.unsent.size());
        table += row;
    }
    return table;
}

std::string ServerQueue::AnswerClients(std::string_view) {
    return "clients: " + std::to_string(m_clients.NodeCount()) + ClientTable();
}

std::string ServerQueue::AnswerDrop(std::string_view argument) {
    if (SameWord(argument, "all")) {
        const std::string count = std::to_string(m_clients.NodeCount());
        while (Client* pClient = static_cast<Client*>(m_clients.GetHead())) {
            CloseClient(pClient, 0);
        }
        return "clients dropped: " + count;
    }
    unsigned int hSocket;
    if (!ParseNumber(argument, 1, UINT_MAX, &hSocket)) {
        return "drop takes the number of a client, or all";
    }
    Client* pClient = FindClient(hSocket);
    if (!pClient) {
        return "there is no client " + std::to_string(hSocket);
    }
    CloseClient(pClient, 0);
    return "clients dropped: 1";
}
