// Scenarios of sockets, of trace to the network and of the console. The other ends are plain sockets of the test.
#include <arpa/inet.h>
#include <netdb.h>
#include <string.h>

#include "Faults.h"
#include "Listener.h"
#include "Scenario.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "tqos.h"

namespace faults {

namespace {

using test::Fd;
using test::Loopback;

/// A peer that has connected; the scenario's own side is exempt from faults.
Fd Connect(unsigned int port) {
    const Exempt exempt;
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!test::ConnectPeer(fd, port)) {
        fd.Close();
    }
    return fd;
}

void Put(const Fd& fd, const std::string& bytes) {
    const Exempt exempt;
    for (size_t sent = 0; fd.IsOpen() && sent < bytes.size();) {
        const ssize_t result = send(fd.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (result <= 0) {
            return; // the connection is gone, or nobody reads
        }
        sent += static_cast<size_t>(result);
    }
}

/// Adds what has come to the text; true once it holds the piece.
bool Has(const Fd& fd, std::string& text, const std::string& piece) {
    const Exempt exempt;
    char bytes[4096];
    ssize_t length = 0;
    while (fd.IsOpen() && (length = recv(fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT)) > 0) {
        text.append(bytes, static_cast<size_t>(length));
    }
    return text.find(piece) != std::string::npos;
}

void CloseExempt(Fd& fd) {
    const Exempt exempt;
    fd.Close();
}

/// Takes all that has come on a socket of the library.
std::string Take(unsigned int hSocket) {
    unsigned char bytes[512];
    std::string text;
    while (const unsigned int length = tq_SocketRecv(hSocket, bytes, sizeof(bytes))) {
        text.append(reinterpret_cast<const char*>(bytes), length);
    }
    return text;
}

void Close(Run& run, unsigned int hSocket) {
    if (hSocket != 0) {
        run.Must("an open socket can be closed", tq_SocketClose(hSocket) == 0);
    }
}

unsigned int Send(unsigned int hSocket, const std::string& text) {
    return tq_SocketSendTo(hSocket, test::Bytes(text), static_cast<unsigned int>(text.size()), 0, 0);
}

/// Has a peer of the library's own connect to a listener of the library, exchanges a few words, and closes all.
void Converse(Run& run, Listener& queue, unsigned int hServer, unsigned int hClient) {
    if (hClient == 0) {
        return;
    }
    const bool bMet = run.Comes("MSG_SOCKET_CONNECTED", [&] {
        return queue.Count(MSG_SOCKET_CONNECTED, hClient) > 0;
    }) && run.Comes("MSG_SOCKET_NEW_CONNECTION", [&] { return queue.Count(MSG_SOCKET_NEW_CONNECTION, hServer) > 0; });
    if (bMet) {
        const unsigned int hPeer = queue.Nth<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION, 0, hServer).new_socket;
        run.Is("tq_SocketSendTo", 5, Send(hClient, "hello"), {0, 2});
        std::string heard;
        run.Comes("the words", [&] {
            heard += Take(hPeer);
            return heard == "hello";
        });
        run.Must("nothing but what was sent", std::string("hello").compare(0, heard.size(), heard) == 0);
        run.Zero("tq_SocketFlushAndClose", tq_SocketFlushAndClose(hPeer, TQ_SOCKET_FLUSH_OUT));
        run.Comes("MSG_SOCKET_CLOSED", [&] { return queue.Count(MSG_SOCKET_CLOSED, hClient) > 0; });
    }
    Close(run, hClient);
}

/// Accepted connections that the scenario has not closed itself.
void CloseAccepted(Listener& queue, unsigned int hServer) {
    for (unsigned int i = queue.Count(MSG_SOCKET_NEW_CONNECTION, hServer); i-- > 0;) {
        tq_SocketClose(queue.Nth<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION, i, hServer).new_socket);
    }
}

} // namespace

void TcpConversation(Run& run) {
    Listener queue("conversation");
    if (!queue.Begin(run)) {
        return;
    }
    const unsigned int hServer =
        run.Handle("tq_SocketOpenTCPServer", tq_SocketOpenTCPServer(queue.GetHandle(), 0, 7, Loopback()));
    const unsigned int port = hServer ? tq_SocketGetBoundPort(hServer) : 0;
    if (port != 0) {
        Converse(
            run, queue, hServer,
            run.Handle("tq_SocketOpenTCPClient", tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), port, 8, 0, 0)));
    } else if (hServer != 0) {
        run.True("tq_SocketGetBoundPort", false);
    }
    Close(run, hServer);
    queue.Cleanup(); // nothing comes any more
    CloseAccepted(queue, hServer);
}

void TcpFlood(Run& run) {
    Listener queue("flood");
    if (!queue.Begin(run)) {
        return;
    }
    const unsigned int hServer =
        run.Handle("tq_SocketOpenTCPServer", tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback()));
    Fd peer = Connect(hServer ? tq_SocketGetBoundPort(hServer) : 0);
    if (peer.IsOpen() &&
        run.Comes("MSG_SOCKET_NEW_CONNECTION", [&] { return queue.Count(MSG_SOCKET_NEW_CONNECTION) > 0; })) {
        const unsigned int hPeer = queue.Nth<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION, 0).new_socket;
        tq_SocketSetName(hPeer, "flooded");
        tq_SocketSetDataOutCap(hPeer, 8u << 20);
        const std::string flood = test::Pattern(4u << 20); // more than the system holds: the rest is queued
        const unsigned int accepted = Send(hPeer, flood);
        run.True("tq_SocketSendTo", accepted == flood.size());
        std::string came;
        run.Comes("the flood", [&] {
            Has(peer, came, "never");
            return came.size() >= flood.size();
        });
        run.Must("bytes come in their order", came.size() <= flood.size() && flood.compare(0, came.size(), came) == 0);
        const std::string back = test::Pattern(30000);
        std::string heard;
        Put(peer, back);
        run.Comes("the answer", [&] {
            heard += Take(hPeer);
            return heard.size() >= back.size();
        });
        run.Must("and the answer's", heard.size() <= back.size() && back.compare(0, heard.size(), heard) == 0);
    }
    Close(run, hServer);
    queue.Cleanup();
    CloseAccepted(queue, hServer);
    CloseExempt(peer);
}

void Datagrams(Run& run) {
    Listener queue("datagrams");
    if (!queue.Begin(run)) {
        return;
    }
    const unsigned int hOne =
        run.Handle("tq_SocketOpenUDP", tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0));
    const unsigned int hOther = run.Handle(
        "tq_SocketOpenUDP to a peer",
        tq_SocketOpenUDP(queue.GetHandle(), Loopback(), hOne ? tq_SocketGetBoundPort(hOne) : 9, 0, Loopback(), 0));
    const std::string text(300, 'd');
    for (unsigned int i = 0; i < 10 && hOne && hOther; ++i) {
        run.True("tq_SocketSendTo", Send(hOther, text) == text.size());
    }
    if (hOne && hOther && run.Failed().empty()) {
        run.Comes("ten datagrams", [&] { return queue.Count(MSG_SOCKET_DATAGRAM, hOne) >= 10; });
        run.True("their length", queue.Nth<SOCKET_DATAGRAM>(MSG_SOCKET_DATAGRAM, 9, hOne).length == text.size());
    }
    const unsigned int hGroup =
        tq_SocketOpenMultiCast(queue.GetHandle(), inet_addr("239.255.77.1"), 0, 0, Loopback()); // needs a route
    Close(run, hGroup);
    Close(run, hOther);
    Close(run, hOne);
}

void LocalDomain(Run& run) {
    Listener queue("local");
    if (!queue.Begin(run)) {
        return;
    }
    std::string path;
    {
        const Exempt exempt;
        char directory[512];
        tq_GetWorkingDirectory(directory, sizeof(directory));
        path = std::string(directory) + "/sockets/s";
    }
    const unsigned int hServer = run.Handle("tq_SocketOpenTCPServerDomain",
                                            tq_SocketOpenTCPServerDomain(queue.GetHandle(), test::Bytes(path), 0));
    if (hServer != 0) {
        Converse(run, queue, hServer,
                 run.Handle("tq_SocketOpenTCPClientDomain",
                            tq_SocketOpenTCPClientDomain(queue.GetHandle(), test::Bytes(path), 0)));
    }
    Close(run, hServer);
    queue.Cleanup();
    CloseAccepted(queue, hServer);
    const Exempt exempt;
    remove(path.c_str());
    rmdir("sockets");
}

void SocketReports(Run& run) {
    Listener queue("reported");
    if (!queue.Begin(run)) {
        return;
    }
    const unsigned int hSocket =
        run.Handle("tq_SocketOpenUDP", tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0));
    if (hSocket != 0) {
        tq_SocketSetName(hSocket, "reported");
        int bytes = 65536;
        run.Zero("tq_SocketSetOpt",
                 tq_SocketSetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)), {-1});
        int length = sizeof(bytes);
        run.Zero("tq_SocketGetOpt", tq_SocketGetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_RCVBUF, &bytes, &length),
                 {-1});
        tq_SocketEnableBroadcasting(hSocket);
    }
    char* pszReport = nullptr;
    run.Must("tq_SocketShowSockets", tq_SocketShowSockets(&pszReport, 0, nullptr) == 0);
    tq_free(run.Pointer("the report", pszReport));
    char command[16];
    snprintf(command, sizeof(command), "%u", hSocket);
    pszReport = nullptr;
    if (hSocket != 0 && tq_SocketShowSockets(&pszReport, 1, command) == 0) {
        tq_free(run.Pointer("the detailed report", pszReport));
    }
    run.Must("tq_SocketCloseFromTelnet", tq_SocketCloseFromTelnet(hSocket) == (hSocket != 0));
    if (hSocket != 0) {
        run.Comes("MSG_SOCKET_CLOSED", [&] { return queue.Count(MSG_SOCKET_CLOSED, hSocket) > 0; });
    }
    Close(run, hSocket);
}

void Interfaces(Run& run) {
    GetLocalInterfaces();
    RefreshMacAddresses();
    run.Must("no more interfaces than are kept", tq_SocketGetInterfaceCount() <= 20);
    char* pszReport = nullptr;
    tq_SocketShowInterfaces(&pszReport);
    tq_free(run.Pointer("tq_SocketShowInterfaces", pszReport));
    char name[512];
    if (tq_SocketGetInterfaceName(name, 0) == 0) {
        run.Must("an interface is found by its name", tq_SocketFindInterfaceByName(name) >= 0);
    }
    char host[256];
    run.Zero("tq_gethostname", tq_gethostname(host, sizeof(host)), {-1});
}

void HostNames(Run& run) {
    // Its start fails with 1, or with the error that kept its thread from being connected.
    const unsigned int started = tq_SocketInitialize();
    run.True("tq_SocketInitialize", started == 0);
    run.Is("tq_GetIPAddress", Loopback(), tq_GetIPAddress("localhost"), {0});
    tq_hostent host;
    tq_hostent* pHost = nullptr;
    char work[2048];
    int error = 0;
    run.Zero("tq_gethostbyname_r", tq_gethostbyname_r("localhost", &host, work, sizeof(work), &pHost, &error),
             {EAGAIN, ENOMEM});
    run.True("a host", pHost == &host);
    const unsigned int address = Loopback();
    run.Zero("tq_gethostbyaddr_r",
             tq_gethostbyaddr_r(&address, sizeof(address), AF_INET, &host, work, sizeof(work), &pHost, &error),
             {EAGAIN});
    TQ_SERVICE_ADDRESS found[4];
    run.Must("no service without a name", tq_SocketFindService(nullptr, "sip", found, 4, 2) == 0);
    if (started == 0) {
        tq_SocketTerminate(99);
    }
}

// Trace to the network

void NetworkTrace(Run& run) {
    const unsigned int hTrace = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance("viewed"));
    if (hTrace == 0) {
        return;
    }
    tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_ALL);
    tq_TraceDisableSTDOUT(hTrace);
    if (run.Zero("tq_TraceEnableMulticast", tq_TraceEnableMulticast(hTrace))) {
        tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, true, "a line that nobody sees\n");
        // The queue of all senders stays, and so do the name that its thread gives it and the list that its first
        // message makes.
        run.Comes("the name of the senders' queue", [] { return tq_MsgQGetIdFromName("TQOS: Tracing") != 0; });
        tq_MsgCreateCommonAndSend(0, tq_MsgQGetIdFromName("TQOS: Tracing"), MSG_USER, 0, 0, 0, false, 2);
        run.Must("tq_TraceSetResetHandler", tq_TraceSetResetHandler(hTrace, nullptr) == 1);
        run.Must("tq_TraceDisableMulticast", tq_TraceDisableMulticast(hTrace) == 0);
    }
    run.Must("tq_TraceTermInstance", tq_TraceTermInstance(hTrace) == 0);
}

// The console

namespace {

/// Types lines into a session and waits for the prompt after each.
void Type(Run& run, const Fd& session, std::initializer_list<const char*> lines) {
    std::string text;
    for (const char* pszLine : lines) {
        text.clear();
        Put(session, std::string(pszLine) + "\r");
        if (!run.Comes(pszLine, [&] { return Has(session, text, "\r\n>"); })) {
            return;
        }
    }
}

void InConsole(Run& run, const char* pszPassword, std::initializer_list<const char*> lines) {
    const unsigned int port = run.Handle("tq_TelnetInitialize", tq_TelnetInitialize(0, Loopback(), pszPassword));
    if (port == 0) {
        return;
    }
    Fd session = Connect(port);
    std::string greeting;
    if (run.Comes("the greeting", [&] { return Has(session, greeting, pszPassword ? "login: " : ">"); })) {
        Type(run, session, lines);
    }
    CloseExempt(session);
    tq_TelnetTerminate();
}

} // namespace

void ConsoleSession(Run& run) {
    {
        const Exempt exempt;
        test::WriteFile("script", "echo on\r\nsh tic\r\n");
    }
    InConsole(run, "Secret", {"Secret", "help", "echo off", "run script", "sh tic", "nonsense"});
}

void ConsoleReports(Run& run) {
    InConsole(run, nullptr,
              {"sh li", "sh que", "sh so", "sh ti", "sh th", "sh tr", "sh mem", "sh det mem", "sh sem", "sh in",
               "sh sum", "sh han", "set tr le warning tqos"});
}

} // namespace faults
