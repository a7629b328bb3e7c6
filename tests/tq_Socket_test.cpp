#include "tq_Socket.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_tun.h>
#include <map>
#include <mutex>
#include <net/if.h>
#include <netdb.h>
#include <sched.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

#include "Fault.h"
#include "MemoryCap.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_LockOrder_p.h"
#include "tq_Socket_p.h"
#include "tq_Trace_p.h"

using namespace test;

// Calls of the system that hardly ever fail. The program's own definitions take the place of the C library's here, so
// that a test can let them.

namespace {

std::atomic<bool> gbBindFails{false};
std::atomic<bool> gbGetsocknameFails{false};
std::atomic<bool> gbListenFails{false};
std::atomic<int> gLastBacklog{0};

int Refuse() {
    errno = ENOBUFS; // 105
    return -1;
}

std::mutex gSendStepsMutex;
std::atomic<int> gSendStepsDescriptor{-1};
std::string gSendSteps; // guarded by gSendStepsMutex

/// What is to become of a send on a descriptor: 'e' an error, '1' a single byte goes; 0: whatever the system makes of
/// it.
char NextSendStep(int fd) {
    if (fd != gSendStepsDescriptor) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(gSendStepsMutex);
    const char step = gSendSteps.empty() ? '\0' : gSendSteps[0];
    gSendSteps.erase(0, 1);
    return step;
}

/// Lets the next sends on a descriptor come to these steps.
void SetSendSteps(unsigned int fd, const char* pszSteps) {
    std::lock_guard<std::mutex> lock(gSendStepsMutex);
    gSendSteps = pszSteps;
    gSendStepsDescriptor = *pszSteps ? static_cast<int>(fd) : -1;
}

} // namespace

extern "C" {

int bind(int fd, const struct sockaddr* address, socklen_t length) noexcept {
    return gbBindFails ? Refuse() : static_cast<int>(syscall(SYS_bind, fd, address, length));
}

int getsockname(int fd, struct sockaddr* __restrict address, socklen_t* __restrict length) noexcept {
    return gbGetsocknameFails ? Refuse() : static_cast<int>(syscall(SYS_getsockname, fd, address, length));
}

int listen(int fd, int backlog) noexcept {
    gLastBacklog = backlog;
    return gbListenFails ? Refuse() : static_cast<int>(syscall(SYS_listen, fd, backlog));
}

ssize_t send(int fd, const void* data, size_t length, int flags) {
    static const auto pfnSend = reinterpret_cast<decltype(&send)>(dlsym(RTLD_NEXT, "send"));
    const char step = NextSendStep(fd);
    return step == 'e' ? Refuse() : pfnSend(fd, data, step == '1' ? 1 : length, flags);
}

} // extern "C"

namespace {

/// A field of a socket's record, read under the lock; zero when there is no such socket.
template <typename T> T Field(unsigned int hSocket, T SOCKET_INSTANCE::*field) {
    tq_ListLock lock(pListOfSockets);
    const SOCKET_INSTANCE* pSocket = FindSocketLocked(hSocket);
    return pSocket ? pSocket->*field : T();
}

bool Exists(unsigned int hSocket) {
    return Field(hSocket, &SOCKET_INSTANCE::handle) == hSocket;
}

bool HasHistory(unsigned int hSocket, unsigned int event) {
    tq_ListLock lock(pListOfSockets);
    const SOCKET_INSTANCE* pSocket = FindSocketLocked(hSocket);
    for (unsigned int i = 0; pSocket && i < kSocketHistorySize; ++i) {
        if (pSocket->SocketStateHistory[i] == event) {
            return true;
        }
    }
    return false;
}

int Option(unsigned int hSocket, int level, int option) {
    int value = -1;
    int length = sizeof(value);
    EXPECT_EQ(0, tq_SocketGetOpt(static_cast<int>(hSocket), level, option, &value, &length));
    return value;
}

std::string Recv(unsigned int hSocket, unsigned int most = 65536) {
    std::string bytes(most, '\0');
    bytes.resize(tq_SocketRecv(hSocket, reinterpret_cast<unsigned char*>(&bytes[0]), most));
    return bytes;
}

/// Receives until so many bytes have come.
std::string RecvAll(unsigned int hSocket, size_t length) {
    std::string bytes;
    EXPECT_TRUE(WaitUntil([&] {
        bytes += Recv(hSocket);
        return bytes.size() >= length;
    })) << bytes.size();
    return bytes;
}

std::string ReceiveDatagram(const Fd& fd) {
    EXPECT_TRUE(WaitReadable(fd));
    std::string bytes(70000, '\0');
    const ssize_t length = recv(fd.Get(), &bytes[0], bytes.size(), 0);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
}

void SendDatagram(const Fd& fd, unsigned int port, const std::string& bytes) {
    const struct sockaddr_in address = LoopbackAddress(port);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              sendto(fd.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const struct sockaddr*>(&address),
                     sizeof(address)));
}

std::string Printed(const char* pszFormat, ...) TQ_PRINTF(1, 2);
std::string Printed(const char* pszFormat, ...) {
    char text[1024];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(text, sizeof(text), pszFormat, args);
    va_end(args);
    return text;
}

size_t OpenDescriptors() {
    size_t count = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

/// A connection between a socket of the library and a plain one.
struct Connection {
    explicit Connection(RecordingQueue& queue, unsigned int userparm = 0) {
        Fd listener = ListeningPeer();
        hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), userparm, 0, 0);
        EXPECT_NE(0u, hSocket);
        peer = AcceptPeer(listener);
        EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    }
    unsigned int hSocket;
    Fd peer;
};

/// A connection whose peer does not read and whose system buffers are full. A local-domain one: its buffers take
/// nothing more until the peer reads, where those of TCP move data about for a while.
struct StalledConnection {
    explicit StalledConnection(RecordingQueue& queue) {
        const std::string path = "stalled.sock";
        const struct sockaddr_un address = DomainAddress(path);
        Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(0, bind(listener.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
        EXPECT_EQ(0, listen(listener.Get(), 1));
        hSocket = tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(path), 0);
        EXPECT_NE(0u, hSocket);
        peer = AcceptPeer(listener);
        EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
        EXPECT_EQ(0, unlink(path.c_str()));
        tq_SocketSetSendBufSize(hSocket, 8192);
        Fill();
    }
    unsigned int hSocket;
    Fd peer;
    size_t filled = 0; ///< bytes that the peer finds before any that were sent through the library

private:
    void Fill() {
        const int descriptor = static_cast<int>(Field(hSocket, &SOCKET_INSTANCE::socket));
        const std::string bytes(1024, 'f');
        for (size_t piece = bytes.size(); piece > 0; piece /= 2) {
            ssize_t sent = 0;
            while ((sent = send(descriptor, bytes.data(), piece, MSG_DONTWAIT | MSG_NOSIGNAL)) > 0) {
                filled += static_cast<size_t>(sent);
            }
        }
    }
};

/// The handle of the breaker, 0 when there is none.
unsigned int BreakerHandle() {
    tq_ListLock lock(pListOfSockets);
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        if (static_cast<SOCKET_INSTANCE*>(pNode)->state == SOCKET_STATE_BREAKER) {
            return static_cast<SOCKET_INSTANCE*>(pNode)->handle;
        }
    }
    return 0;
}

/// Takes all descriptors of the process but a few.
class DescriptorShortage {
public:
    explicit DescriptorShortage(size_t left) {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &m_previous));
        struct rlimit limit = m_previous;
        limit.rlim_cur = 256;
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0; fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) {
            m_taken.push_back(Fd(fd));
        }
        EXPECT_EQ(EMFILE, errno);
        GiveBack(left);
    }
    ~DescriptorShortage() { setrlimit(RLIMIT_NOFILE, &m_previous); }
    void GiveBack(size_t count) {
        for (; count > 0 && !m_taken.empty(); --count) {
            m_taken.pop_back();
        }
    }
    void GiveBackAll() { m_taken.clear(); }

private:
    struct rlimit m_previous;
    std::vector<Fd> m_taken;
};

/// How often the worker woke during 200 ms.
size_t WakeUpsInAWhile(const TraceFile& trace) {
    const std::string line = "tqos Sockets: Select spinning.\n";
    const size_t before = trace.Count("LOW: ", line);
    struct timespec while_ = {0, 200000000};
    nanosleep(&while_, nullptr);
    return trace.Count("LOW: ", line) - before;
}

/// Far above what a worker that waits needs, far below what one that spins does.
constexpr size_t kManyWakeUps = 200;

/// Exit statuses of a child process that checks something. None is 0: with that a crash ends a process, too.
constexpr int kPassed = 44;
constexpr int kCannot = 77;

ChildResult CheckInChild(const std::function<void()>& body) {
    return RunInChild([&body] {
        body();
        _exit(::testing::Test::HasFailure() ? 1 : kPassed);
    });
}

/// A queue handle that belongs to nobody.
constexpr unsigned int kNoQueue = 0x7FFFFFFF;
constexpr unsigned int kNoSocket = 0x7FFFFFFE;

} // namespace

// Connections

TEST(Socket, ClientConnectsSendsAndReceives) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue, 77);
    const unsigned int hSocket = connection.hSocket;
    const MSG_COMMON connected = queue.Of(MSG_SOCKET_CONNECTED, hSocket)[0].Common();
    EXPECT_EQ(0u, connected.hSource);
    EXPECT_EQ(queue.GetHandle(), connected.hDest);
    EXPECT_EQ(28u, connected.size);
    EXPECT_EQ(77u, connected.userparm);
    EXPECT_EQ(0u, connected.flags);

    EXPECT_EQ(5u, tq_SocketSendTo(hSocket, Bytes("hello"), 5, 0, 0));
    EXPECT_EQ("hello", ReadBytes(connection.peer, 5));

    SendAll(connection.peer, "answer");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, hSocket));
    const MSG_COMMON stream = queue.Of(MSG_SOCKET_DATASTREAM, hSocket)[0].Common();
    EXPECT_EQ(28u, stream.size);
    EXPECT_EQ(77u, stream.userparm);
    EXPECT_EQ(6u, tq_SocketDataAvailable(hSocket));
    EXPECT_EQ("answer", Recv(hSocket));
    EXPECT_EQ("", Recv(hSocket));
    EXPECT_EQ(0u, tq_SocketDataAvailable(hSocket));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    EXPECT_TRUE(IsAtEnd(connection.peer));
    EXPECT_FALSE(Exists(hSocket));
}

TEST(Socket, ClientKnowsItsAddressesAndBindsToTheOneAsked) {
    Library library;
    RecordingQueue queue(kRunning);
    Fd listener = ListeningPeer();
    unsigned int port = 0;
    unsigned int hSocket = 0;
    ASSERT_TRUE(WaitUntil([&] { // somebody else may be given the port that is free for a moment
        port = PortOf(BoundPeer(SOCK_STREAM));
        hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 0, Loopback(), port);
        return hSocket != 0;
    }));
    EXPECT_EQ(port, tq_SocketGetBoundPort(hSocket));
    EXPECT_EQ(Loopback(), tq_SocketGetSrcAddress(hSocket));
    const struct sockaddr_in destination = Field(hSocket, &SOCKET_INSTANCE::dstaddr);
    EXPECT_EQ(AF_INET, destination.sin_family);
    EXPECT_EQ(htons(static_cast<uint16_t>(PortOf(listener))), destination.sin_port);
    EXPECT_EQ(Loopback(), destination.sin_addr.s_addr);

    Connection any(queue);
    EXPECT_EQ(Loopback(), tq_SocketGetSrcAddress(any.hSocket)) << "read back when it is connected";
    EXPECT_NE(0u, tq_SocketGetBoundPort(any.hSocket));
}

TEST(Socket, ServerOnPortZeroReportsItsPortAndAcceptsConnections) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 5, Loopback());
    ASSERT_NE(0u, hServer);
    const unsigned int port = tq_SocketGetBoundPort(hServer);
    ASSERT_NE(0u, port);
    EXPECT_EQ(1u, Field(hServer, &SOCKET_INSTANCE::IsServer));

    Fd peer = ConnectedPeer(port);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    const SOCKET_NEW_CONNECTION accepted = queue.Of(MSG_SOCKET_NEW_CONNECTION, hServer)[0].NewConnection();
    EXPECT_EQ(0u, accepted.msg.hSource);
    EXPECT_EQ(queue.GetHandle(), accepted.msg.hDest);
    EXPECT_EQ(36u, accepted.msg.size);
    EXPECT_EQ(5u, accepted.msg.userparm);
    EXPECT_EQ(0u, accepted.msg.flags);
    EXPECT_EQ(Loopback(), accepted.srcaddress);
    ASSERT_NE(0u, accepted.new_socket);
    ASSERT_NE(hServer, accepted.new_socket);
    EXPECT_EQ(htons(static_cast<uint16_t>(PortOf(peer))),
              Field(accepted.new_socket, &SOCKET_INSTANCE::dstaddr).sin_port);
    EXPECT_EQ(5u, tq_SocketGetUserParm(static_cast<int>(accepted.new_socket)));

    SendAll(peer, "to the server");
    EXPECT_EQ("to the server", RecvAll(accepted.new_socket, 13));
    EXPECT_EQ(6u, tq_SocketSendTo(accepted.new_socket, Bytes("answer"), 6, 0, 0));
    EXPECT_EQ("answer", ReadBytes(peer, 6));
    EXPECT_EQ(0u, tq_SocketClose(hServer));
    EXPECT_TRUE(Exists(accepted.new_socket)) << "a connection outlives its listener";
    EXPECT_EQ(0u, tq_SocketClose(accepted.new_socket));
    EXPECT_TRUE(IsAtEnd(peer));
}

TEST(Socket, NewConnectionCanBeUsedFromItsMessageOn) {
    Library library;
    RecordingQueue queue(kRunning);
    std::atomic<unsigned int> sent{0};
    queue.SetAction([&](const MSG_COMMON& msg) {
        if (msg.command == MSG_SOCKET_NEW_CONNECTION) {
            const unsigned int hNew = reinterpret_cast<const SOCKET_NEW_CONNECTION&>(msg).new_socket;
            sent += tq_SocketSendTo(hNew, Bytes("hi"), 2, 0, 0);
            tq_SocketClose(hNew);
        }
    });
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    for (int i = 0; i < 20; ++i) {
        Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
        EXPECT_EQ("hi", ReadToEnd(peer));
    }
    EXPECT_EQ(40u, sent);
}

TEST(Socket, ConnectionForAQueueThatIsGoneIsClosed) {
    Library library;
    const unsigned int hServer = tq_SocketOpenTCPServer(kNoQueue, 0, 0, Loopback());
    ASSERT_NE(0u, hServer);
    Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    EXPECT_TRUE(IsAtEnd(peer));
    tq_ListLock lock(pListOfSockets);
    EXPECT_EQ(2u, pListOfSockets->NodeCount()) << "the breaker and the listener";
}

TEST(Socket, MessagesGoToTheTailOfTheMediumList) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hUdp));
    queue.Hold();
    const size_t before = queue.Commands().size();
    queue.Post(MSG_USER + 1, TQ_MSG_PRIORITY_LOW);
    queue.Post(MSG_USER + 2, TQ_MSG_PRIORITY_MEDIUM);
    SendAll(connection.peer, "x");
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == 1; }));
    queue.Post(MSG_USER + 3, TQ_MSG_PRIORITY_MEDIUM);
    Fd sender = BoundPeer(SOCK_DGRAM);
    SendDatagram(sender, tq_SocketGetBoundPort(hUdp), "y");
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(hUdp, SOCKET_EVENT_READABLE); }));
    queue.Post(MSG_USER + 4, TQ_MSG_PRIORITY_HIGH);
    Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(hServer, SOCKET_EVENT_READABLE); }));
    connection.peer.Close();
    ASSERT_TRUE(WaitUntil([&] { return Field(connection.hSocket, &SOCKET_INSTANCE::state) == 5; }));
    queue.Post(MSG_USER + 5, TQ_MSG_PRIORITY_MEDIUM);
    const unsigned int hLast = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_TRUE(WaitUntil([&] { return Field(hLast, &SOCKET_INSTANCE::state) == 4; }));
    queue.LetGo();
    ASSERT_TRUE(queue.WaitFor(MSG_USER + 1));
    const std::vector<unsigned int> commands = queue.Commands();
    const std::vector<unsigned int> expected = {MSG_USER + 4,      MSG_USER + 2,        MSG_SOCKET_DATASTREAM,
                                                MSG_USER + 3,      MSG_SOCKET_DATAGRAM, MSG_SOCKET_NEW_CONNECTION,
                                                MSG_SOCKET_CLOSED, MSG_USER + 5,        MSG_SOCKET_CONNECTED,
                                                MSG_USER + 1};
    EXPECT_EQ(expected,
              std::vector<unsigned int>(commands.begin() + static_cast<std::ptrdiff_t>(before), commands.end()));
}

TEST(Socket, PeersCloseYieldsOneClosedMessageAndLeavesTheBufferedBytes) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue, 9);
    SendAll(connection.peer, "last words");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
    connection.peer.Close();
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, connection.hSocket));
    const SOCKET_CLOSED closed = queue.Of(MSG_SOCKET_CLOSED, connection.hSocket)[0].Closed();
    EXPECT_EQ(32u, closed.msg.size);
    EXPECT_EQ(9u, closed.msg.userparm);
    EXPECT_EQ(0, closed.error);
    EXPECT_EQ(static_cast<unsigned int>(SOCKET_STATE_CLOSED), Field(connection.hSocket, &SOCKET_INSTANCE::state));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    EXPECT_EQ("last words", Recv(connection.hSocket));
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_CLOSED));
    EXPECT_TRUE(
        trace.WaitFor("INF: ", Printed("tqos Sockets: In HandleReadable(), handle: %u (socket %u) just failed "
                                       "ioctlsocket(FIONREAD): (errno=0)\n",
                                       connection.hSocket, Field(connection.hSocket, &SOCKET_INSTANCE::socket))));
    EXPECT_EQ(0u, tq_SocketClose(connection.hSocket));
}

TEST(Socket, RefusedConnectIsReportedWithTheSystemsError) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const Fd mute = BoundPeer(SOCK_STREAM); // nobody listens there
    const unsigned int hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(mute), 3, 0, 0);
    ASSERT_NE(0u, hSocket);
    const unsigned int descriptor = Field(hSocket, &SOCKET_INSTANCE::socket);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(ECONNREFUSED, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Closed().error);
    EXPECT_TRUE(WaitUntil([&] { return HasHistory(hSocket, SOCKET_EVENT_WRITEABLE_FAILED); }));
    EXPECT_TRUE(trace.WaitFor("WRN: ", Printed("tqos Sockets: handle: %u (socket: %u) just received error: %d\n",
                                               hSocket, descriptor, ECONNREFUSED)));
    EXPECT_TRUE(trace.WaitFor("WRN: ", Printed("tqos Sockets: HandleFailed() for handle: %u (socket: %u) error: %d,\n",
                                               hSocket, descriptor, ECONNREFUSED)));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CONNECTED));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
}

TEST(Socket, ConnectThatFailsWithoutAnErrorCountsAsRefused) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    {
        tq_ListLock lock(pListOfSockets);
        SOCKET_INSTANCE* pSocket = FindSocketLocked(hSocket);
        pSocket->state = SOCKET_STATE_CONNECTING; // as it was until a moment ago
        HandleFailed(pSocket, 0);
        EXPECT_EQ(static_cast<unsigned int>(SOCKET_STATE_CLOSED), pSocket->state);
        pSocket->DataOutCount = 5;
        HandleFailed(pSocket, 7); // closed already: nobody is told again
        EXPECT_EQ(0u, pSocket->DataOutCount);
    }
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    EXPECT_EQ(ECONNREFUSED, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Closed().error);
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, UrgentDataRightBehindTheConnectIsNoFailure) {
    Library library;
    RecordingQueue queue(kRunning);
    Fd listener = ListeningPeer();
    tq_SocketInitialize();
    unsigned int hSocket = 0;
    Fd peer;
    {
        const tq_LockOrderUnchecked unchecked; // nobody else traces
        tq_ListLock lock(pListOfSockets);      // the worker finds both at once
        hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 0, 0, 0);
        peer = AcceptPeer(listener);
        ASSERT_EQ(1, send(peer.Get(), "!", 1, MSG_OOB));
    }
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    EXPECT_EQ(4u, tq_SocketSendTo(hSocket, Bytes("ping"), 4, 0, 0));
    EXPECT_EQ("ping", ReadBytes(peer, 4));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
    tq_SocketTerminate(99);
}

TEST(Socket, ExceptionBeforeTheConnectCompletesCountsAsRefused) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Fd listener = ListeningPeer();
    const int least = 1; // the peer's buffer, which an accepted connection has from its listener
    ASSERT_EQ(0, setsockopt(listener.Get(), SOL_SOCKET, SO_RCVBUF, &least, sizeof(least)));
    ASSERT_EQ(0u, tq_SocketInitialize());
    unsigned int hSocket = 0;
    int descriptor = -1;
    Fd peer;
    {
        // The worker first sees the socket when it has urgent data and cannot be written to.
        const tq_LockOrderUnchecked unchecked; // nobody else traces
        tq_ListLock lock(pListOfSockets);
        hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 0, 0, 0);
        peer = AcceptPeer(listener);
        tq_SocketSetSendBufSize(hSocket, 1);
        descriptor = static_cast<int>(Field(hSocket, &SOCKET_INSTANCE::socket));
        struct pollfd room = {descriptor, POLLOUT, 0};
        while (poll(&room, 1, 500) == 1) { // the system moves data about for a while
            const std::string bytes(1000, 'f');
            while (send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
            }
        }
        ASSERT_EQ(1, send(peer.Get(), "!", 1, MSG_OOB));
        struct pollfd urgent = {descriptor, POLLPRI, 0};
        ASSERT_EQ(1, poll(&urgent, 1, 30000));
    }
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(ECONNREFUSED, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Closed().error);
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CONNECTED));
    EXPECT_TRUE(WaitUntil([&] { return HasHistory(hSocket, SOCKET_EVENT_FAILED); }));
    const std::string start = Printed("(tqos) INF: tqos Sockets: In WorkerThread(), handle: %u (socket: %d) just "
                                      "failed: (errno=",
                                      hSocket, descriptor);
    ASSERT_TRUE(WaitUntil([&] { return CountOf(trace.Text(), start) == 1; })) << trace.Text();
    const std::string text = trace.Text();
    const size_t number = text.find(start) + start.size();
    EXPECT_EQ(")\n", text.substr(text.find_first_not_of("0123456789", number), 2));
    EXPECT_TRUE(trace.WaitFor(
        "WRN: ", Printed("tqos Sockets: HandleFailed() for handle: %u (socket: %d) error: 0,\n", hSocket, descriptor)));
}

TEST(Socket, DataSentBeforeTheConnectCompletesArrives) {
    Library library;
    RecordingQueue queue(kRunning);
    Fd listener = ListeningPeer();
    const unsigned int hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 0, 0, 0);
    EXPECT_EQ(5u, tq_SocketSendTo(hSocket, Bytes("early"), 5, 0, 0));
    Fd peer = AcceptPeer(listener);
    EXPECT_EQ("early", ReadBytes(peer, 5));
}

// Reading

TEST(Socket, InCapHoldsThePeerBackUntilRecvMakesRoom) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    tq_SocketSetDataInCap(connection.hSocket, 100);
    const std::string bytes = Pattern(1000);
    SendAll(connection.peer, bytes);
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == 100; }));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    EXPECT_EQ(100u, tq_SocketDataAvailable(connection.hSocket));
    std::string received = Recv(connection.hSocket, 50);
    EXPECT_EQ(50u, received.size());
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == 100; }))
        << "reading resumes by itself";
    ASSERT_TRUE(WaitUntil([&] {
        EXPECT_LE(tq_SocketDataAvailable(connection.hSocket), 100u);
        received += Recv(connection.hSocket, 33);
        return received.size() == bytes.size();
    }));
    EXPECT_EQ(bytes, received);
    EXPECT_TRUE(trace.WaitFor(
        "LOW: ", Printed("tqos Sockets: Inside Recv() - UnCapping so SpinBreaker for socket: %u  handle: %u.\n",
                         Field(connection.hSocket, &SOCKET_INSTANCE::socket), connection.hSocket)));
}

TEST(Socket, RaisingTheInCapResumesReading) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    tq_SocketSetDataInCap(connection.hSocket, 10);
    const std::string bytes = Pattern(5000);
    SendAll(connection.peer, bytes);
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == 10; }));
    tq_SocketSetDataInCap(connection.hSocket, 0xFFFFFFFF);
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == 5000; }));
    EXPECT_EQ(bytes, Recv(connection.hSocket));
}

TEST(Socket, InCapLoweredWhileTheWorkerWaitsClosesNothing) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    ASSERT_TRUE(WaitUntil([&] {
        tq_ListLock lock(pListOfSockets);
        SOCKET_INSTANCE* pSocket = FindSocketLocked(connection.hSocket);
        if (!pListOfSocketsInSets->SetCurrent(pSocket)) {
            return false;
        }
        pSocket->DataInCap = 0; // the worker is waiting for something to read
        return true;
    }));
    SendAll(connection.peer, "kept in the system");
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(connection.hSocket, SOCKET_EVENT_READABLE); }));
    EXPECT_EQ(0u, tq_SocketDataAvailable(connection.hSocket));
    tq_SocketSetDataInCap(connection.hSocket, 1000);
    EXPECT_EQ("kept in the system", RecvAll(connection.hSocket, 18));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, RecvTakesPiecesAcrossBlocks) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const std::string bytes = Pattern(300);
    for (size_t i = 0; i < 3; ++i) { // one block each
        SendAll(connection.peer, bytes.substr(i * 100, 100));
        ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(connection.hSocket) == (i + 1) * 100; }));
    }
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket, 3)) << "one notice a piece";
    std::string received = Recv(connection.hSocket, 70);
    received += Recv(connection.hSocket, 150);
    EXPECT_EQ(80u, tq_SocketDataAvailable(connection.hSocket));
    received += Recv(connection.hSocket, 150);
    EXPECT_EQ(bytes, received);
}

TEST(Socket, RecvWithoutRoomIsTraced) {
    Library library;
    TraceFile trace;
    unsigned char data[4];
    EXPECT_EQ(0u, tq_SocketRecv(17, nullptr, 4));
    EXPECT_EQ(1u,
              trace.Count("INF: ", "tqos Sockets: tq_SocketRecv() called with data pointer: 0x0 and data len: 4 for "
                                   "socket: 17.\n"));
    EXPECT_EQ(0u, tq_SocketRecv(18, data, 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: tq_SocketRecv() called with data pointer: 0x%x and data "
                                               "len: 0 for socket: 18.\n",
                                               static_cast<unsigned int>(reinterpret_cast<unsigned long>(data)))));
}

TEST(Socket, OnlyRealReadErrorsCloseASocket) {
    struct Row {
        unsigned int type;
        int error;
        bool bHarmless;
    };
    const Row rows[] = {
        {SOCKET_TYPE_TCP, EAGAIN, true},     {SOCKET_TYPE_UDP, EAGAIN, true},
        {SOCKET_TYPE_UDP, ECONNRESET, true}, {SOCKET_TYPE_TCP, ECONNRESET, false},
        {SOCKET_TYPE_TCP, ETIMEDOUT, false}, {SOCKET_TYPE_UDP, ECONNREFUSED, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.bHarmless, IsHarmlessReadError(row.type, row.error)) << row.type << " " << row.error;
    }
}

TEST(Socket, ReadErrorIsTracedAndClosesTheSocket) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Fd peer = BoundPeer(SOCK_DGRAM);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), PortOf(peer), 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    const int on = 1; // lets the system report that nobody is at the other end
    EXPECT_EQ(0, tq_SocketSetOpt(static_cast<int>(hSocket), IPPROTO_IP, 11 /* IP_RECVERR */, &on, sizeof(on)));
    peer.Close();
    EXPECT_EQ(4u, tq_SocketSendTo(hSocket, Bytes("gone"), 4, 0, 0));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(ECONNREFUSED, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Closed().error);
    EXPECT_TRUE(trace.WaitFor("WRN: ", Printed("tqos Sockets: In HandleReadable(), handle: %u (socket %u) just failed: "
                                               "(errno=%d)\n",
                                               hSocket, Field(hSocket, &SOCKET_INSTANCE::socket), ECONNREFUSED)));
}

// Datagrams

TEST(Socket, DatagramSocketAnnouncesItselfAndDeliversDatagramsWhole) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 21, Loopback(), 0);
    ASSERT_NE(0u, hSocket);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    Fd peer = BoundPeer(SOCK_DGRAM);
    const std::string bytes = Pattern(1400);
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), bytes);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATAGRAM, hSocket));
    const Received message = queue.Of(MSG_SOCKET_DATAGRAM, hSocket)[0];
    const SOCKET_DATAGRAM& datagram = message.Datagram();
    EXPECT_EQ(0u, datagram.msg.hSource);
    EXPECT_EQ(queue.GetHandle(), datagram.msg.hDest);
    EXPECT_EQ(21u, datagram.msg.userparm);
    EXPECT_EQ(0u, datagram.msg.flags);
    EXPECT_EQ(1400u + 43u, datagram.msg.size);
    EXPECT_EQ(Loopback(), datagram.srcaddress);
    EXPECT_EQ(PortOf(peer), datagram.srcport);
    EXPECT_EQ(1400u, datagram.length);
    EXPECT_EQ(0, memcmp(bytes.data(), message.bytes.data() + 40, bytes.size()));
    EXPECT_EQ(0u, tq_SocketDataAvailable(hSocket));
}

TEST(Socket, EmptyDatagramIsDropped) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    Fd peer = BoundPeer(SOCK_DGRAM);
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), "");
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), "");
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), "full");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATAGRAM, hSocket));
    EXPECT_EQ(4u, queue.Of(MSG_SOCKET_DATAGRAM, hSocket)[0].Datagram().length);
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_DATAGRAM));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, DatagramsPassTheInCap) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    tq_SocketSetDataInCap(hSocket, 10);
    Fd peer = BoundPeer(SOCK_DGRAM);
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), Pattern(500));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATAGRAM, hSocket));
    EXPECT_EQ(500u, queue.Of(MSG_SOCKET_DATAGRAM, hSocket)[0].Datagram().length);
}

TEST(Socket, DatagramsGoToTheDefaultDestinationOrTheOneGiven) {
    Library library;
    RecordingQueue queue(kRunning);
    Fd first = BoundPeer(SOCK_DGRAM);
    Fd second = BoundPeer(SOCK_DGRAM);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), PortOf(first), 0, Loopback(), 0);
    EXPECT_EQ(3u, tq_SocketSendTo(hSocket, Bytes("one"), 3, 0, 0));
    EXPECT_EQ("one", ReceiveDatagram(first));
    EXPECT_EQ(3u, tq_SocketSendTo(hSocket, Bytes("two"), 3, 0, PortOf(second)));
    EXPECT_EQ("two", ReceiveDatagram(second));
    EXPECT_EQ(5u, tq_SocketSendTo(hSocket, Bytes("three"), 5, Loopback(), PortOf(second)));
    EXPECT_EQ("three", ReceiveDatagram(second));
    const unsigned int hElsewhere =
        tq_SocketOpenUDP(queue.GetHandle(), inet_addr("127.0.0.2"), PortOf(first), 0, Loopback(), 0);
    EXPECT_EQ(4u, tq_SocketSendTo(hElsewhere, Bytes("four"), 4, Loopback(), 0)) << "at the port of its own destination";
    EXPECT_EQ("four", ReceiveDatagram(first));
}

TEST(Socket, DatagramThatCannotGoIsGivenUpAfterFourErrors) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Fd peer = BoundPeer(SOCK_DGRAM);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), PortOf(peer), 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    const std::string tooLong = Pattern(70000);
    EXPECT_EQ(70000u, tq_SocketSendTo(hSocket, Bytes(tooLong), 70000, 0, 0)) << "queued";
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: tq_SocketSendTo() received error: %d for socket: %u () "
                                               "wanting to send 70000 bytes.\n",
                                               EMSGSIZE, hSocket)));
    ASSERT_TRUE(WaitUntil([&] { return Field(hSocket, &SOCKET_INSTANCE::DataOutCount) == 0; }));
    EXPECT_EQ(4u, tq_SocketSendTo(hSocket, Bytes("next"), 4, 0, 0));
    EXPECT_EQ("next", ReceiveDatagram(peer));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, QueuedDataIsGivenUpAtTheFourthErrorInARow) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    struct Row {
        const char* pszSteps; ///< the first one is that of the send itself, all others are the worker's
        const char* pszArrives;
    };
    const Row rows[] = {
        {"eeee", "abc!"}, {"eeeee", "!"}, {"eeee1eee1eee", "abc!"}, {"eeee1eeee", "a!"}, {"eeee1eee1eeee", "ab!"},
    };
    for (const Row& row : rows) {
        SetSendSteps(Field(connection.hSocket, &SOCKET_INSTANCE::socket), row.pszSteps);
        EXPECT_EQ(3u, tq_SocketSendTo(connection.hSocket, Bytes("abc"), 3, 0, 0)) << "queued";
        ASSERT_TRUE(WaitUntil([&] { return Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount) == 0; }));
        SetSendSteps(0, "");
        EXPECT_EQ(1u, tq_SocketSendTo(connection.hSocket, Bytes("!"), 1, 0, 0));
        EXPECT_EQ(row.pszArrives, ReadBytes(connection.peer, strlen(row.pszArrives))) << row.pszSteps;
    }
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, BroadcastingIsAllowedForTheBroadcastAddressOrOnRequest) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hBroadcast = tq_SocketOpenUDP(queue.GetHandle(), 0xFFFFFFFF, 9, 0, Loopback(), 0);
    const unsigned int hOther = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), 9, 0, Loopback(), 0);
    EXPECT_EQ(1, Option(hBroadcast, SOL_SOCKET, SO_BROADCAST));
    EXPECT_EQ(0, Option(hOther, SOL_SOCKET, SO_BROADCAST));
    tq_SocketEnableBroadcasting(hOther);
    EXPECT_EQ(1, Option(hOther, SOL_SOCKET, SO_BROADCAST));
}

TEST(Socket, MulticastSocketIsAMemberUntilItIsClosed) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int group = inet_addr("239.77.1.9");
    const unsigned int hSocket = tq_SocketOpenMultiCast(queue.GetHandle(), group, 0, 6, Loopback());
    ASSERT_NE(0u, hSocket);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    EXPECT_NE(0u, Field(hSocket, &SOCKET_INSTANCE::IsMultiCast));
    EXPECT_EQ(group, Field(hSocket, &SOCKET_INSTANCE::dstaddr).sin_addr.s_addr);
    EXPECT_EQ(0, Field(hSocket, &SOCKET_INSTANCE::dstaddr).sin_port);
    struct ip_mreq again;
    again.imr_multiaddr.s_addr = group;
    again.imr_interface.s_addr = Loopback();
    EXPECT_EQ(-1, tq_SocketSetOpt(static_cast<int>(hSocket), IPPROTO_IP, IP_ADD_MEMBERSHIP, &again, sizeof(again)));
    EXPECT_EQ(EADDRINUSE, errno) << "a member already";
    // A second descriptor of the socket shows what the close does to the membership itself.
    Fd shared(dup(static_cast<int>(Field(hSocket, &SOCKET_INSTANCE::socket))));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    EXPECT_EQ(0, setsockopt(shared.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &again, sizeof(again)))
        << "no member any more";
}

TEST(Socket, MulticastDatagramsOnTheLoopbackInterfaceArrive) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int group = inet_addr("239.77.1.10");
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, 0, 0); // bound to any address
    struct ip_mreq membership;
    membership.imr_multiaddr.s_addr = group;
    membership.imr_interface.s_addr = Loopback();
    ASSERT_EQ(
        0, tq_SocketSetOpt(static_cast<int>(hSocket), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)));
    Fd peer = BoundPeer(SOCK_DGRAM);
    struct in_addr interface;
    interface.s_addr = Loopback();
    ASSERT_EQ(0, setsockopt(peer.Get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof(interface)));
    struct sockaddr_in address = LoopbackAddress(tq_SocketGetBoundPort(hSocket));
    address.sin_addr.s_addr = group;
    if (sendto(peer.Get(), "all", 3, 0, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 3) {
        GTEST_SKIP() << "no multicast on the loopback interface: " << strerror(errno);
    }
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATAGRAM, hSocket));
    EXPECT_EQ(3u, queue.Of(MSG_SOCKET_DATAGRAM, hSocket)[0].Datagram().length);
}

// Sending

TEST(Socket, QueuedDataArrivesInOrder) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    const std::string bytes = Pattern(600000);
    size_t at = 0;
    for (size_t piece = 1; at < bytes.size(); piece = piece * 3 + 1) {
        const size_t length = std::min(piece, bytes.size() - at);
        EXPECT_EQ(length,
                  tq_SocketSendTo(connection.hSocket, Bytes(bytes) + at, static_cast<unsigned int>(length), 0, 0));
        at += length;
    }
    EXPECT_NE(0u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    const std::string received = ReadBytes(connection.peer, connection.filled + bytes.size());
    EXPECT_EQ(bytes, received.substr(connection.filled));
    EXPECT_EQ(0u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_WRITEABLE)) << "nothing was cut short";
}

TEST(Socket, SendCutShortByTheOutCapLeadsToOneNotice) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    tq_SocketSetDataOutCap(connection.hSocket, 4);
    EXPECT_EQ(4u, tq_SocketSendTo(connection.hSocket, Bytes("0123456789"), 10, 0, 0));
    EXPECT_EQ(4u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_WRITEABLE));
    EXPECT_EQ("0123", ReadBytes(connection.peer, connection.filled + 4).substr(connection.filled));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_WRITEABLE, connection.hSocket));
    EXPECT_EQ(28u, queue.Of(MSG_SOCKET_WRITEABLE)[0].Common().size);
    EXPECT_EQ(6u, tq_SocketSendTo(connection.hSocket, Bytes("456789"), 6, 0, 0));
    EXPECT_EQ("456789", ReadBytes(connection.peer, 6));
    SendAll(connection.peer, "done"); // one more turn of the worker
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_WRITEABLE));
}

TEST(Socket, WithoutRoomUnderTheOutCapNothingIsQueuedAndTheNoticeComes) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    tq_SocketSetDataOutCap(connection.hSocket, 0);
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, Bytes("abc"), 3, 0, 0));
    EXPECT_EQ(nullptr, Field(connection.hSocket, &SOCKET_INSTANCE::pDataOutList)) << "not even an empty block";
    EXPECT_EQ(1u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_WRITEABLE));
    ReadBytes(connection.peer, connection.filled);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_WRITEABLE, connection.hSocket));
    EXPECT_EQ(0u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    EXPECT_EQ(3u, tq_SocketSendTo(connection.hSocket, Bytes("abc"), 3, 0, 0));
    EXPECT_EQ("abc", ReadBytes(connection.peer, 3));
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_WRITEABLE));
}

TEST(Socket, SendAboveTheOutCapIsRefusedWhole) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    EXPECT_EQ(10u, tq_SocketSendTo(connection.hSocket, Bytes("0123456789"), 10, 0, 0));
    tq_SocketSetDataOutCap(connection.hSocket, 9);
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, Bytes("x"), 1, 0, 0));
    EXPECT_EQ(10u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    EXPECT_EQ(1u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    tq_SocketSetDataOutCap(connection.hSocket, 10); // now exactly full
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, Bytes("x"), 1, 0, 0));
    EXPECT_EQ(10u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    EXPECT_EQ("0123456789", ReadBytes(connection.peer, connection.filled + 10).substr(connection.filled));
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_WRITEABLE, connection.hSocket));
}

TEST(Socket, SendThatIsQueuedWholeTakesThePendingNoticeBack) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    tq_SocketSetDataOutCap(connection.hSocket, 4);
    EXPECT_EQ(4u, tq_SocketSendTo(connection.hSocket, Bytes("01234"), 5, 0, 0));
    EXPECT_EQ(1u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    tq_SocketSetDataOutCap(connection.hSocket, 100);
    EXPECT_EQ(1u, tq_SocketSendTo(connection.hSocket, Bytes("4"), 1, 0, 0));
    EXPECT_EQ(0u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    EXPECT_EQ("01234", ReadBytes(connection.peer, connection.filled + 5).substr(connection.filled));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_WRITEABLE));
}

TEST(Socket, NoticeComesAtTheThresholdAndOnce) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    constexpr unsigned int kCap = 400000;
    tq_SocketSetDataOutCap(connection.hSocket, kCap);
    tq_SocketSetWritePercentageNotification(connection.hSocket, 50);
    const std::string bytes = Pattern(500000);
    EXPECT_EQ(kCap, tq_SocketSendTo(connection.hSocket, Bytes(bytes), 500000, 0, 0));
    size_t received = 0;
    const size_t all = connection.filled + kCap;
    while (received < all) {
        received += ReadBytes(connection.peer, std::min<size_t>(2048, all - received)).size();
        tq_ListLock lock(pListOfSockets);
        const SOCKET_INSTANCE* pSocket = FindSocketLocked(connection.hSocket);
        if (pSocket->PendingWrite == 0) {
            EXPECT_LE(PercentOfOutCap(pSocket->DataOutCount, kCap), 50u);
        } else {
            EXPECT_GT(PercentOfOutCap(pSocket->DataOutCount, kCap), 50u);
        }
    }
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_WRITEABLE, connection.hSocket));
    SendAll(connection.peer, "done");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_WRITEABLE));
}

TEST(Socket, PartOfTheOutCapIsComputedInWideNumbers) {
    EXPECT_EQ(0u, PercentOfOutCap(0, 0));
    EXPECT_EQ(0u, PercentOfOutCap(5, 0));
    EXPECT_EQ(50u, PercentOfOutCap(500, 1000));
    EXPECT_EQ(50u, PercentOfOutCap(509, 1000));
    EXPECT_EQ(51u, PercentOfOutCap(510, 1000));
    EXPECT_EQ(100u, PercentOfOutCap(0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_EQ(50u, PercentOfOutCap(0x80000000, 0xFFFFFFFF));
    EXPECT_EQ(429496729500ull, PercentOfOutCap(0xFFFFFFFF, 1));
}

TEST(Socket, ThresholdIsKeptBetween0And100) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_EQ(0u, tq_SocketGetWritePercentageNotification(connection.hSocket));
    tq_SocketSetWritePercentageNotification(connection.hSocket, 40);
    EXPECT_EQ(40u, tq_SocketGetWritePercentageNotification(connection.hSocket));
    tq_SocketSetWritePercentageNotification(connection.hSocket, 101);
    EXPECT_EQ(100u, tq_SocketGetWritePercentageNotification(connection.hSocket));
    EXPECT_EQ(0u, tq_SocketGetWritePercentageNotification(kNoSocket));
}

TEST(Socket, SendsAreTraced) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    tq_SocketSetName(hSocket, "the client");
    EXPECT_EQ(2u, tq_SocketSendTo(hSocket, Bytes("ab"), 2, 0, 0));
    EXPECT_EQ(1u,
              trace.Count("DEB: ", Printed("tqos Sockets: tq_SocketSendTo() sent 2 bytes for socket: %u (the client) "
                                           "wanting to send 2 bytes.\n",
                                           hSocket)));
    tq_SocketSetName(hSocket, nullptr);
    EXPECT_EQ(3u, tq_SocketSendTo(hSocket, Bytes("abc"), 3, 0, 0));
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: tq_SocketSendTo() sent 3 bytes for socket: %u (Unknown) "
                                               "wanting to send 3 bytes.\n",
                                               hSocket)));
    for (const size_t length : {126u, 127u, 128u, 129u, 500u}) {
        const std::string longName(length, 'n');
        tq_SocketSetName(hSocket, longName.c_str());
        EXPECT_EQ(1u, tq_SocketSendTo(hSocket, Bytes("a"), 1, 0, 0));
        EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: tq_SocketSendTo() sent 1 bytes for socket: %u (%s) "
                                                   "wanting to send 1 bytes.\n",
                                                   hSocket, longName.c_str())));
    }
    const size_t before = CountOf(trace.Text(), "tq_SocketSendTo()");
    EXPECT_EQ(2u, tq_SocketSendToNoTrace(hSocket, Bytes("ab"), 2, 0, 0));
    EXPECT_EQ(before, CountOf(trace.Text(), "tq_SocketSendTo()"));

    tq_SocketSetName(hSocket, "ended");
    connection.peer.Close();
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(0u, tq_SocketSendTo(hSocket, Bytes("ab"), 2, 0, 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: tq_SocketSendTo() called for closed socket: %u (ended) "
                                               "wanting to send 2 bytes.\n",
                                               hSocket)));
    EXPECT_EQ(0u, tq_SocketSendTo(kNoSocket, Bytes("ab"), 2, 0, 0));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: tq_SocketSendTo() called for unknown socket: %u wanting to "
                                           "send 2 bytes.\n",
                                           kNoSocket)));
}

TEST(Socket, StreamsIgnoreTheDestinationOfASend) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_EQ(4u, tq_SocketSendTo(connection.hSocket, Bytes("here"), 4, inet_addr("10.9.8.7"), 9));
    EXPECT_EQ("here", ReadBytes(connection.peer, 4));
}

TEST(Socket, SendOfNothingQueuesNothing) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, Bytes(""), 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, nullptr, 5, 0, 0));
    EXPECT_EQ(nullptr, Field(connection.hSocket, &SOCKET_INSTANCE::pDataOutList));
}

TEST(Socket, HistoryIsARingOfTenEvents) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_TRUE(WaitUntil([&] { return HasHistory(connection.hSocket, SOCKET_EVENT_WRITEABLE); }));
    const unsigned int before = tq_GetTimeInMS();
    const unsigned int first = Field(connection.hSocket, &SOCKET_INSTANCE::SocketStateHistoryIndex);
    for (unsigned int i = 0; i < 10; ++i) {
        if (i % 2) {
            Recv(connection.hSocket);
        } else {
            tq_SocketSendTo(connection.hSocket, Bytes("s"), 1, 0, 0);
        }
    }
    tq_ListLock lock(pListOfSockets);
    const SOCKET_INSTANCE* pSocket = FindSocketLocked(connection.hSocket);
    EXPECT_EQ(first, pSocket->SocketStateHistoryIndex) << "ten events later, the same slot";
    for (unsigned int i = 0; i < 10; ++i) {
        const unsigned int slot = (first + i) % 10;
        EXPECT_EQ(i % 2 ? 5u : 6u, pSocket->SocketStateHistory[slot]);
        EXPECT_LT(pSocket->SocketStateTime[slot] - before, 60000u);
    }
}

// Closing

TEST(Socket, FlushingCloseSendsWhatIsQueued) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    const std::string bytes = Pattern(300000);
    EXPECT_EQ(300000u, tq_SocketSendTo(connection.hSocket, Bytes(bytes), 300000, 0, 0));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
    EXPECT_TRUE(Exists(connection.hSocket)) << "until the rest is sent";
    EXPECT_EQ(0u, tq_SocketSendTo(connection.hSocket, Bytes("late"), 4, 0, 0));
    const std::string received = ReadToEnd(connection.peer);
    ASSERT_EQ(connection.filled + bytes.size(), received.size());
    EXPECT_EQ(bytes, received.substr(connection.filled));
    EXPECT_TRUE(WaitUntil([&] { return !Exists(connection.hSocket); }));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, PlainCloseDropsWhatIsQueued) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    EXPECT_EQ(300000u, tq_SocketSendTo(connection.hSocket, Bytes(Pattern(300000)), 300000, 0, 0));
    EXPECT_EQ(0u, tq_SocketClose(connection.hSocket));
    EXPECT_FALSE(Exists(connection.hSocket));
    EXPECT_EQ(connection.filled, ReadToEnd(connection.peer).size());
}

TEST(Socket, FlushingCloseKeepsWhatWasReadUntilItIsTaken) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    SendAll(connection.peer, "to be taken");
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 11; }));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(hSocket, TQ_SOCKET_FLUSH_IN));
    SendAll(connection.peer, "too late");
    connection.peer.Close();
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps) << "a peer's close cannot spin the loop";
    EXPECT_EQ("to be ", Recv(hSocket, 6));
    EXPECT_TRUE(Exists(hSocket));
    EXPECT_EQ("taken", Recv(hSocket));
    EXPECT_TRUE(WaitUntil([&] { return !Exists(hSocket); }));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

namespace {

/// Whether something wakes the worker. The lock keeps the worker from taking the wake-up before it is seen.
bool Wakes(const std::function<void()>& something) {
    bool bWoken = false;
    EXPECT_TRUE(WaitUntil([&] {
        const tq_LockOrderUnchecked unchecked; // nobody else traces
        tq_ListLock lock(pListOfSockets);
        if (gbWakeUpPending) { // an earlier one is still on its way
            return false;
        }
        something();
        bWoken = gbWakeUpPending;
        return true;
    }));
    return bWoken;
}

} // namespace

TEST(Socket, WhateverChangesWhatIsWaitedForWakesTheWorker) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    unsigned int hUdp = 0;
    EXPECT_TRUE(Wakes([&] { hUdp = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0); }));
    EXPECT_TRUE(Wakes([&] { EXPECT_TRUE(tq_SocketCloseFromTelnet(hUdp)); }));
    EXPECT_TRUE(Wakes([&] { EXPECT_EQ(0u, tq_SocketClose(hUdp)); }));

    tq_SocketSetDataInCap(hSocket, 4);
    SendAll(connection.peer, "0123456789");
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 4; }));
    EXPECT_TRUE(Wakes([&] { EXPECT_EQ("01", Recv(hSocket, 2)); })) << "there is room again";
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 4; }));
    EXPECT_TRUE(Wakes([&] { tq_SocketSetDataInCap(hSocket, 100); }));
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 8; }));
    EXPECT_FALSE(Wakes([&] { EXPECT_EQ("234", Recv(hSocket, 3)); })) << "there was room before";
    EXPECT_FALSE(Wakes([&] { EXPECT_EQ(1u, tq_SocketSendTo(hSocket, Bytes("x"), 1, 0, 0)); })) << "it went out";

    EXPECT_TRUE(Wakes([&] { EXPECT_EQ(0u, tq_SocketFlushAndClose(hSocket, TQ_SOCKET_FLUSH_IN)); }));
    EXPECT_FALSE(Wakes([&] { EXPECT_EQ("5678", Recv(hSocket, 4)); })) << "not all of it";
    EXPECT_TRUE(Wakes([&] { EXPECT_EQ("9", Recv(hSocket)); })) << "nothing keeps it any more";
    EXPECT_TRUE(WaitUntil([&] { return !Exists(hSocket); }));

    StalledConnection stalled(queue);
    EXPECT_TRUE(Wakes([&] { EXPECT_EQ(3u, tq_SocketSendTo(stalled.hSocket, Bytes("abc"), 3, 0, 0)); }));
}

TEST(Socket, FlushingCloseDropsWhatItsFlagsDoNotName) {
    Library library;
    RecordingQueue queue(kRunning);
    const struct {
        unsigned int flags;
        unsigned int in; ///< bytes that are kept
        unsigned int out;
    } rows[] = {{TQ_SOCKET_FLUSH_IN, 2, 0}, {TQ_SOCKET_FLUSH_OUT, 0, 3000}};
    for (const auto& row : rows) {
        StalledConnection connection(queue);
        const unsigned int hSocket = connection.hSocket;
        SendAll(connection.peer, "in");
        ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 2; }));
        EXPECT_EQ(3000u, tq_SocketSendTo(hSocket, Bytes(Pattern(3000)), 3000, 0, 0));
        EXPECT_EQ(0u, tq_SocketFlushAndClose(hSocket, row.flags));
        EXPECT_EQ(row.in, tq_SocketDataAvailable(hSocket));
        EXPECT_EQ(row.out, Field(hSocket, &SOCKET_INSTANCE::DataOutCount));
        EXPECT_EQ(row.in ? "in" : "", Recv(hSocket));
        EXPECT_EQ(connection.filled + row.out, ReadToEnd(connection.peer).size());
        EXPECT_TRUE(WaitUntil([&] { return !Exists(hSocket); }));
    }
}

TEST(Socket, ASocketThatIsClosedGivesNoNoticeAnyMore) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    tq_SocketSetDataOutCap(connection.hSocket, 4);
    EXPECT_EQ(4u, tq_SocketSendTo(connection.hSocket, Bytes("0123456789"), 10, 0, 0));
    EXPECT_EQ(1u, Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
    EXPECT_EQ("0123", ReadToEnd(connection.peer).substr(connection.filled));
    ASSERT_TRUE(WaitUntil([&] { return !Exists(connection.hSocket); }));
    ASSERT_TRUE(queue.Post(MSG_USER, TQ_MSG_PRIORITY_LOW)); // behind whatever was sent
    ASSERT_TRUE(queue.WaitFor(MSG_USER));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_WRITEABLE));
}

TEST(Socket, CloseFlushingBothWaitsForBoth) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    SendAll(connection.peer, "in");
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 2; }));
    EXPECT_EQ(100000u, tq_SocketSendTo(hSocket, Bytes(Pattern(100000)), 100000, 0, 0));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(hSocket, TQ_SOCKET_FLUSH_IN | TQ_SOCKET_FLUSH_OUT));
    EXPECT_EQ(connection.filled + 100000, ReadBytes(connection.peer, connection.filled + 100000).size());
    ASSERT_TRUE(WaitUntil([&] { return Field(hSocket, &SOCKET_INSTANCE::DataOutCount) == 0; }));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps) << "writeable, but with nothing to write";
    EXPECT_TRUE(Exists(hSocket));
    EXPECT_EQ("in", Recv(hSocket));
    EXPECT_TRUE(WaitUntil([&] { return !Exists(hSocket); }));
    EXPECT_TRUE(IsAtEnd(connection.peer));
}

TEST(Socket, FlushingCloseWhosePeerIsGoneEnds) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    EXPECT_EQ(300000u, tq_SocketSendTo(connection.hSocket, Bytes(Pattern(300000)), 300000, 0, 0));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
    connection.peer.Close(); // with unread bytes: a reset
    EXPECT_TRUE(WaitUntil([&] { return !Exists(connection.hSocket); }));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, CloseWithNothingToFlushIsImmediate) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_IN | TQ_SOCKET_FLUSH_OUT));
    EXPECT_FALSE(Exists(connection.hSocket));
    EXPECT_TRUE(IsAtEnd(connection.peer));
}

TEST(Socket, CloseThatFlushesOutReadsTheConnectionEmptyFirst) {
    Library library;
    RecordingQueue queue(kRunning);
    for (const bool bFlush : {false, true}) {
        Connection connection(queue);
        tq_SocketSetDataInCap(connection.hSocket, 0); // what comes stays with the system
        const int descriptor = static_cast<int>(Field(connection.hSocket, &SOCKET_INSTANCE::socket));
        SendAll(connection.peer, "unread");
        ASSERT_TRUE(WaitUntil([&] {
            int waiting = 0;
            return ioctl(descriptor, FIONREAD, &waiting) == 0 && waiting == 6;
        }));
        EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, bFlush ? TQ_SOCKET_FLUSH_OUT : 0));
        EXPECT_FALSE(Exists(connection.hSocket));
        ASSERT_TRUE(WaitReadable(connection.peer));
        char byte;
        errno = 0;
        EXPECT_EQ(bFlush ? 0 : -1, recv(connection.peer.Get(), &byte, 1, 0));
        EXPECT_EQ(bFlush ? 0 : ECONNRESET, errno) << "the system resets what is closed with bytes unread";
    }
}

TEST(Socket, SecondCloseEndsAFlush) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    EXPECT_EQ(1000u, tq_SocketSendTo(connection.hSocket, Bytes(Pattern(1000)), 1000, 0, 0));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
    EXPECT_TRUE(Exists(connection.hSocket));
    EXPECT_EQ(0u, tq_SocketClose(connection.hSocket));
    EXPECT_FALSE(Exists(connection.hSocket));
    EXPECT_EQ(1u, tq_SocketClose(connection.hSocket));
}

TEST(Socket, SocketThatThePeerClosedIsClosedWithoutFlushing) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    SendAll(connection.peer, "unread");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
    connection.peer.Close();
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, connection.hSocket));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_IN));
    EXPECT_FALSE(Exists(connection.hSocket));
}

TEST(Socket, ClosesAreTraced) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    EXPECT_EQ(0u, tq__SocketClose(connection.hSocket, "caller.cpp", 12));
    EXPECT_EQ(1u, trace.Count("DEB: ",
                              Printed("tqos Sockets: tq_SocketClose() called for socket: %u.\n", connection.hSocket)));
    EXPECT_EQ(1u, tq__SocketFlushAndClose(kNoSocket, 3, "caller.cpp", 12));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: tq_SocketClose() called for unknown socket: %u from File: "
                                           "caller.cpp, Line: 12.\n",
                                           kNoSocket)));
    EXPECT_EQ(1u, tq__SocketClose(0, nullptr, 1));
    EXPECT_EQ(1u, trace.Count("INF: ", "tqos Sockets: tq_SocketClose() called for unknown socket: 0 from File: (null), "
                                       "Line: 1.\n"));
}

TEST(Socket, ForcedCloseTellsTheOwnerAndNeverClosesTheDescriptorAgain) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue, 31);
    const unsigned int hSocket = connection.hSocket;
    const unsigned int descriptor = Field(hSocket, &SOCKET_INSTANCE::socket);
    EXPECT_FALSE(tq_SocketCloseFromTelnet(kNoSocket));
    EXPECT_TRUE(tq_SocketCloseFromTelnet(hSocket));
    EXPECT_TRUE(IsAtEnd(connection.peer));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(0, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Closed().error);
    EXPECT_EQ(31u, queue.Of(MSG_SOCKET_CLOSED, hSocket)[0].Common().userparm);
    EXPECT_TRUE(Exists(hSocket)) << "until its owner closes it";
    Fd other(fcntl(connection.peer.Get(), F_DUPFD_CLOEXEC, static_cast<int>(descriptor)));
    ASSERT_EQ(static_cast<int>(descriptor), other.Get()) << "the number is free for others";
    EXPECT_EQ(0u, tq_SocketSendTo(hSocket, Bytes("x"), 1, 0, 0));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    EXPECT_FALSE(Exists(hSocket));
    EXPECT_GE(fcntl(other.Get(), F_GETFD), 0);
}

TEST(Socket, ForcedCloseEndsAFlush) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    EXPECT_EQ(1000u, tq_SocketSendTo(connection.hSocket, Bytes(Pattern(1000)), 1000, 0, 0));
    EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
    EXPECT_TRUE(tq_SocketCloseFromTelnet(connection.hSocket));
    EXPECT_TRUE(WaitUntil([&] { return !Exists(connection.hSocket); }));
}

// Options and values

TEST(Socket, OpenCallsSetTheirOptions) {
    Library library;
    ScratchDirectory directory;
    RecordingQueue queue(kRunning);
    Connection client(queue);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), 9, 0, Loopback(), 0);
    const unsigned int hMulticast =
        tq_SocketOpenMultiCast(queue.GetHandle(), inet_addr("239.77.1.11"), 0, 0, Loopback());
    const unsigned int hDomainServer =
        tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("server.sock")), 0);
    const unsigned int hDomainClient =
        tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(std::string("server.sock")), 0);
    const Fd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1; // which not everybody may: the library then goes on without
    const int mayDebug = setsockopt(other.Get(), SOL_SOCKET, SO_DEBUG, &on, sizeof(on)) == 0 ? 1 : 0;
    struct Row {
        unsigned int hSocket;
        int keepAlive;
        int reuseAddress;
        int debug;
        int ttl; ///< -1: not asked
    };
    const Row rows[] = {
        {client.hSocket, 1, 0, mayDebug, -1},
        {hServer, 1, 1, 0, -1},
        {hUdp, 0, 0, 0, 32},
        {hMulticast, 0, 1, 0, 32},
        {hDomainServer, 1, 0, 0, -1},
        {hDomainClient, 1, 0, mayDebug, -1},
    };
    for (const Row& row : rows) {
        ASSERT_NE(0u, row.hSocket);
        EXPECT_EQ(row.debug, Option(row.hSocket, SOL_SOCKET, SO_DEBUG));
        EXPECT_EQ(row.keepAlive, Option(row.hSocket, SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(row.reuseAddress, Option(row.hSocket, SOL_SOCKET, SO_REUSEADDR));
        if (row.ttl >= 0) {
            EXPECT_EQ(row.ttl, Option(row.hSocket, IPPROTO_IP, IP_MULTICAST_TTL));
        }
        const int flags = fcntl(static_cast<int>(Field(row.hSocket, &SOCKET_INSTANCE::socket)), F_GETFL);
        EXPECT_NE(0, flags & O_NONBLOCK);
        EXPECT_STREQ("", Field(row.hSocket, &SOCKET_INSTANCE::pszName));
        EXPECT_EQ(0xFFFFFFFFu, Field(row.hSocket, &SOCKET_INSTANCE::DataInCap));
        EXPECT_EQ(0xFFFFFFFFu, Field(row.hSocket, &SOCKET_INSTANCE::DataOutCap));
    }
}

TEST(Socket, UpTo128PeersWaitForAListener) {
    Library library;
    RecordingQueue queue(kRunning);
    EXPECT_EQ(0u, tq_SocketInitialize());
    EXPECT_EQ(128, gLastBacklog.exchange(0)) << "the breaker's";
    EXPECT_NE(0u, tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback()));
    EXPECT_EQ(128, gLastBacklog.exchange(0));
    EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("server.sock")), 0));
    EXPECT_EQ(128, gLastBacklog.exchange(0));
    tq_SocketTerminate(99);
}

TEST(Socket, LingeringStaysOffSinceItsOptionHasAFormThatThePlatformRefuses) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection client(queue);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    const unsigned int hAccepted = queue.Of(MSG_SOCKET_NEW_CONNECTION)[0].NewConnection().new_socket;
    for (unsigned int hSocket : {client.hSocket, hAccepted}) {
        struct linger linger;
        int length = sizeof(linger);
        ASSERT_EQ(0, tq_SocketGetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_LINGER, &linger, &length));
        EXPECT_EQ(0, linger.l_onoff);
    }
    EXPECT_EQ(1, Option(hAccepted, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_NE(0, fcntl(static_cast<int>(Field(hAccepted, &SOCKET_INSTANCE::socket)), F_GETFL) & O_NONBLOCK);
    // So a close is orderly: what was sent before it arrives.
    EXPECT_EQ(3u, tq_SocketSendTo(hAccepted, Bytes("bye"), 3, 0, 0));
    EXPECT_EQ(0u, tq_SocketClose(hAccepted));
    EXPECT_EQ("bye", ReadToEnd(peer));
}

TEST(Socket, DefaultBufferSizesGoToStreamsOpenedLater) {
    Library library;
    RecordingQueue queue(kRunning);
    tq_SocketSetReceiveBufSize(0, 30000);
    tq_SocketSetSendBufSize(0, 20000);
    Fd listener = ListeningPeer();
    const std::string path = "server.sock";
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const unsigned int hClient = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 0, 0, 0);
    const unsigned int hDomainServer = tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(path), 0);
    const unsigned int hDomainClient = tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(path), 0);
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    tq_SocketSetReceiveBufSize(0, 0);
    tq_SocketSetSendBufSize(0, 0);
    for (unsigned int hStream : {hServer, hClient, hDomainServer, hDomainClient}) {
        EXPECT_EQ(60000, Option(hStream, SOL_SOCKET, SO_RCVBUF)) << "the system doubles it";
        EXPECT_EQ(40000, Option(hStream, SOL_SOCKET, SO_SNDBUF));
    }
    EXPECT_NE(60000, Option(hUdp, SOL_SOCKET, SO_RCVBUF)) << "datagram sockets keep the system's own";
    EXPECT_NE(40000, Option(hUdp, SOL_SOCKET, SO_SNDBUF));
    tq_SocketSetReceiveBufSize(hServer, 10000);
    tq_SocketSetSendBufSize(hServer, 11000);
    EXPECT_EQ(20000, Option(hServer, SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(22000, Option(hServer, SOL_SOCKET, SO_SNDBUF));
}

TEST(Socket, DefaultBufferSizesOfAnAcceptedConnectionGoToItsListener) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    tq_SocketSetReceiveBufSize(0, 30000);
    std::vector<Fd> peers;
    for (size_t i = 1; i <= 2; ++i) {
        peers.push_back(ConnectedPeer(tq_SocketGetBoundPort(hServer)));
        ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer, i));
        EXPECT_EQ(60000, Option(hServer, SOL_SOCKET, SO_RCVBUF));
    }
    tq_SocketSetReceiveBufSize(0, 0);
    const std::vector<Received> accepted = queue.Of(MSG_SOCKET_NEW_CONNECTION);
    EXPECT_NE(60000, Option(accepted[0].NewConnection().new_socket, SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(60000, Option(accepted[1].NewConnection().new_socket, SOL_SOCKET, SO_RCVBUF));
}

TEST(Socket, UserParmIsEchoedAndCanBeChanged) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue, 1);
    EXPECT_EQ(1u, tq_SocketGetUserParm(static_cast<int>(connection.hSocket)));
    tq_SocketSetUserParm(static_cast<int>(connection.hSocket), 0xFFFFFFF0);
    EXPECT_EQ(0xFFFFFFF0u, tq_SocketGetUserParm(static_cast<int>(connection.hSocket)));
    SendAll(connection.peer, "x");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
    EXPECT_EQ(0xFFFFFFF0u, queue.Of(MSG_SOCKET_DATASTREAM)[0].Common().userparm);
}

namespace {

/// Reads a list's name, which only the reports show.
struct ListName : tq_List {
    static std::string Of(tq_List* pList) {
        const char* pszName = pList ? (pList->*(&ListName::m_li)).pName : nullptr;
        return pszName ? pszName : "(none)";
    }
};

} // namespace

TEST(Socket, NameGoesToTheDataListsToo) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    const unsigned int hSocket = connection.hSocket;
    tq_SocketSetName(hSocket, "first");
    tq_SocketSendTo(hSocket, Bytes("queued"), 6, 0, 0);
    SendAll(connection.peer, "read");
    ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == 4; }));
    EXPECT_STREQ("first", Field(hSocket, &SOCKET_INSTANCE::pszName));
    EXPECT_EQ("Socket DataInList:first", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataInList)));
    EXPECT_EQ("Socket DataOutList:first", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataOutList)));
    tq_SocketSetName(hSocket, "second");
    EXPECT_EQ("Socket DataInList:second", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataInList)));
    EXPECT_EQ("Socket DataOutList:second", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataOutList)));
    tq_SocketSetName(hSocket, nullptr);
    EXPECT_EQ(nullptr, Field(hSocket, &SOCKET_INSTANCE::pszName));
    EXPECT_EQ("(none)", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataInList)));
    EXPECT_EQ("(none)", ListName::Of(Field(hSocket, &SOCKET_INSTANCE::pDataOutList)));
    tq_SocketSetName(kNoSocket, "nobody");
}

TEST(Socket, UnknownHandlesAreHarmless) {
    Library library;
    EXPECT_EQ(0u, tq_SocketInitialize());
    unsigned char data[4];
    for (unsigned int hSocket : {0u, kNoSocket}) {
        EXPECT_EQ(0u, tq_SocketRecv(hSocket, data, 4));
        EXPECT_EQ(0u, tq_SocketDataAvailable(hSocket));
        EXPECT_EQ(0u, tq_SocketGetBoundPort(hSocket));
        EXPECT_EQ(0u, tq_SocketGetSrcAddress(hSocket));
        EXPECT_EQ(0u, tq_SocketGetUserParm(static_cast<int>(hSocket)));
        EXPECT_FALSE(tq_SocketCloseFromTelnet(hSocket));
        int value = 1;
        int length = sizeof(value);
        errno = 0;
        EXPECT_EQ(-1, tq_SocketSetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_KEEPALIVE, &value, length));
        EXPECT_EQ(ENOTSOCK, errno);
        errno = 0;
        EXPECT_EQ(-1, tq_SocketGetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_KEEPALIVE, &value, &length));
        EXPECT_EQ(ENOTSOCK, errno);
        tq_SocketSetUserParm(static_cast<int>(hSocket), 1);
        tq_SocketSetDataInCap(hSocket, 1);
        tq_SocketSetDataOutCap(hSocket, 1);
        tq_SocketSetWritePercentageNotification(hSocket, 1);
        tq_SocketEnableBroadcasting(hSocket);
    }
    tq_SocketSetSendBufSize(kNoSocket, 1);
    tq_SocketSetReceiveBufSize(kNoSocket, 1);
    EXPECT_EQ(0u, ulDefault_SendSize);
    EXPECT_EQ(0u, ulDefault_ReceiveSize);
}

TEST(Socket, LastErrorIsTheThreadsOwn) {
    errno = 42;
    h_errno = 3;
    EXPECT_EQ(42, tq_SocketGetLastError(false));
    EXPECT_EQ(3, tq_SocketGetLastError(true));
}

// Local-domain sockets

TEST(Socket, DomainServerAcceptsLocalPeers) {
    Library library;
    RecordingQueue queue(kRunning);
    const std::string path = library.Path() + "/server.sock";
    WriteFile(path, "in the way");
    const unsigned int hServer = tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(path), 12);
    ASSERT_NE(0u, hServer);
    struct stat status;
    ASSERT_EQ(0, lstat(path.c_str(), &status));
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(01777u, status.st_mode & 07777u);
    EXPECT_STREQ(path.c_str(), Field(hServer, &SOCKET_INSTANCE::pszSocketName));
    EXPECT_EQ(1u, Field(hServer, &SOCKET_INSTANCE::IsServer));

    Fd peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const struct sockaddr_un own = DomainAddress(library.Path() + "/peer.sock");
    ASSERT_EQ(0, bind(peer.Get(), reinterpret_cast<const struct sockaddr*>(&own), sizeof(own)));
    const struct sockaddr_un address = DomainAddress(path);
    ASSERT_EQ(0, connect(peer.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    const SOCKET_NEW_CONNECTION accepted = queue.Of(MSG_SOCKET_NEW_CONNECTION)[0].NewConnection();
    EXPECT_EQ(12u, accepted.msg.userparm);
    EXPECT_EQ(0u, accepted.srcaddress);
    const struct sockaddr_in nowhere = Field(accepted.new_socket, &SOCKET_INSTANCE::dstaddr);
    const struct sockaddr_in zero = {};
    EXPECT_EQ(0, memcmp(&nowhere, &zero, sizeof(zero))) << "the peer has no such address";
    EXPECT_STREQ(own.sun_path, Field(accepted.new_socket, &SOCKET_INSTANCE::un_addr).sun_path);
    EXPECT_STREQ(path.c_str(), Field(accepted.new_socket, &SOCKET_INSTANCE::pszSocketName));

    SendAll(peer, "local");
    EXPECT_EQ("local", RecvAll(accepted.new_socket, 5));
    EXPECT_EQ(6u, tq_SocketSendTo(accepted.new_socket, Bytes("answer"), 6, 0, 0));
    EXPECT_EQ("answer", ReadBytes(peer, 6));
    peer.Close();
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, accepted.new_socket));
    EXPECT_EQ(0, queue.Of(MSG_SOCKET_CLOSED)[0].Closed().error);
}

TEST(Socket, DomainClientConnects) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const struct sockaddr_un address = DomainAddress("listener.sock");
    Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener.Get(), 1));
    const unsigned int hSocket =
        tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(std::string("listener.sock")), 8);
    ASSERT_NE(0u, hSocket);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient() succeeded with handle: %u. "
                                               "hMsgQ: %u, destName: listener.sock\n",
                                               hSocket, queue.GetHandle())));
    Fd peer = AcceptPeer(listener);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    EXPECT_STREQ("listener.sock", Field(hSocket, &SOCKET_INSTANCE::pszSocketName));
    EXPECT_EQ(0u, tq_SocketGetSrcAddress(hSocket));
    EXPECT_EQ(2u, tq_SocketSendTo(hSocket, Bytes("hi"), 2, 0, 0));
    EXPECT_EQ("hi", ReadBytes(peer, 2));
}

TEST(Socket, DomainClientOfAListenerWithoutRoomIsRefused) {
    Library library;
    RecordingQueue queue(kRunning);
    const struct sockaddr_un address = DomainAddress("full.sock");
    Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener.Get(), 1));
    std::vector<Fd> waiting;
    do {
        waiting.push_back(Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
        ASSERT_LT(waiting.size(), 100u);
    } while (connect(waiting.back().Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0);
    ASSERT_EQ(EAGAIN, errno);
    const unsigned int hSocket = tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(std::string("full.sock")), 0);
    ASSERT_NE(0u, hSocket);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, hSocket));
    EXPECT_EQ(ECONNREFUSED, queue.Of(MSG_SOCKET_CLOSED)[0].Closed().error);
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CONNECTED));
}

TEST(Socket, DomainServerMakesItsDirectory) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hServer =
        tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("made/for.sock")), 0);
    ASSERT_NE(0u, hServer);
    struct stat status;
    ASSERT_EQ(0, lstat("made", &status));
    EXPECT_EQ(01777u, status.st_mode & 07777u) << "whatever the umask";
    EXPECT_EQ(0u, tq_SocketClose(hServer));
    EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("made/for.sock")), 0))
        << "again, in the directory that is there";
}

TEST(Socket, DomainServersDirectoryEndsAtABackslashWhereThereIsNoSlash) {
    Library library;
    RecordingQueue queue(kRunning);
    EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("back\\a.sock")), 0));
    EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("both/b\\b.sock")), 0));
    struct stat status;
    ASSERT_EQ(0, lstat("back", &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 01777), status.st_mode);
    EXPECT_EQ(0, lstat("back\\a.sock", &status)) << "to the system a backslash is a letter";
    EXPECT_EQ(0, lstat("both/b\\b.sock", &status));
    EXPECT_FALSE(FileExists("both/b"));
}

TEST(Socket, DomainServerRefusesADirectoryThatOthersMayWriteWithoutTheStickyBit) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    ASSERT_EQ(0, mkdir("open", 0700));
    ASSERT_EQ(0, chmod("open", 0777));
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("open/a.sock")), 0));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), chmod failed on dir "
                                           "open with error: %d. hMsgQ: %u, Srcname: open/a.sock\n",
                                           EEXIST, queue.GetHandle())));
    struct stat status;
    ASSERT_EQ(0, lstat("open", &status));
    EXPECT_EQ(0777u, status.st_mode & 07777u) << "nothing is changed on it";
    ASSERT_EQ(0, chmod("open", 01777));
    EXPECT_NE(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("open/a.sock")), 0));
}

TEST(Socket, SocketDirectoriesAreChecked) {
    ScratchDirectory directory;
    WriteFile("file", "x");
    ASSERT_EQ(0, symlink(".", "link"));
    struct Row {
        const char* pszName;
        mode_t mode;
        const char* pszError; ///< null: accepted
    };
    const Row rows[] = {
        {"private", 0700, nullptr},
        {"readable", 0755, nullptr},
        {"sticky", 01777, nullptr},
        {"writeable", 0722, "Failed to fix mode of writeable to 1777.\n"},
        {"setuid", 04755, "Failed to fix mode of setuid to 1777.\n"},
        {"setgid", 02755, "Failed to fix mode of setgid to 1777.\n"},
        {"setgidsticky", 03777, "Failed to fix mode of setgidsticky to 1777.\n"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(0, mkdir(row.pszName, 0700));
        ASSERT_EQ(0, chmod(row.pszName, row.mode));
        const ChildResult result = RunInChild([&] { _exit(safe_mksocketdir(row.pszName) == 0 ? 0 : 1); });
        EXPECT_EQ(row.pszError ? 1 : 0, result.code) << row.pszName;
        EXPECT_EQ(row.pszError ? row.pszError : "", result.standardError);
    }
    EXPECT_EQ(-1, safe_mksocketdir("file"));
    EXPECT_EQ(-1, safe_mksocketdir("link"));
    EXPECT_EQ(-1, safe_mksocketdir("missing/below"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, safe_mksocketdir("fresh"));
    if (geteuid() == 0) {
        ASSERT_EQ(0, mkdir("foreign", 0700));
        ASSERT_EQ(0, chown("foreign", 54321, 54321));
        const ChildResult result = RunInChild([] { _exit(safe_mksocketdir("foreign") == 0 ? 0 : 1); });
        EXPECT_EQ(1, result.code);
        EXPECT_EQ("Failed to fix owner of foreign.\n", result.standardError);
    }
}

TEST(Socket, DomainPathsAreTakenUpToTheSizeOfTheAddress) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const std::string longest(107, 'p');
    const std::string tooLong(108, 'q');
    const unsigned int hServer = tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(longest), 0);
    EXPECT_NE(0u, hServer);
    EXPECT_NE(0u, tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(longest), 0));
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    WriteFile(tooLong, "stays");
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(tooLong), 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), bind failed with "
                                               "error: %d. hMsgQ: %u, srcName: %s\n",
                                               ENAMETOOLONG, queue.GetHandle(), tooLong.c_str())));
    EXPECT_EQ("stays", ReadFile(tooLong));
    EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(tooLong), 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: "
                                               "%d. hMsgQ: %u, destName: %s\n",
                                               ENAMETOOLONG, queue.GetHandle(), tooLong.c_str())));
}

TEST(Socket, DomainOpensWithoutAPathFail) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(4, nullptr, 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), bind failed with "
                                               "error: %d. hMsgQ: 4, srcName: (null)\n",
                                               EINVAL)));
    EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(4, nullptr, 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: "
                                               "%d. hMsgQ: 4, destName: (null)\n",
                                               EINVAL)));
}

// Failed opens and their traces

TEST(Socket, OpensAreTraced) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const unsigned int hQueue = queue.GetHandle();
    Fd listener = ListeningPeer();
    const unsigned int address = Loopback();
    const unsigned int port = PortOf(listener);
    const unsigned int group = inet_addr("239.77.1.12");

    const unsigned int hClient = tq_SocketOpenTCPClient(hQueue, address, port, 0, 0, 0);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient() succeeded with handle: %u. "
                                               "hMsgQ: %u, destIP: 0x%x, destPort: %u\n",
                                               hClient, hQueue, address, port)));
    EXPECT_EQ(0u, tq_SocketOpenTCPClient(hQueue, address, 80, 0, address, port));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient(), bind failed with error: %d. "
                                               "hMsgQ: %u, srcPort: %u, destIP: 0x%x, destPort: 80\n",
                                               EADDRINUSE, hQueue, port, address)));
    EXPECT_EQ(0u, tq_SocketOpenTCPClient(hQueue, 0xFFFFFFFF, 80, 0, address, 0));
    EXPECT_EQ(1u, CountOf(trace.Text(), Printed(". hMsgQ: %u, destIP: 0xffffffff, destPort: 80\n", hQueue)));
    EXPECT_EQ(1u, CountOf(trace.Text(), "tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: "));

    const unsigned int hServer = tq_SocketOpenTCPServer(hQueue, 0, 0, address);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenTCPServer() succeeded with handle: %u. "
                                               "hMsgQ: %u, srcIP: 0x%x, srcPort: 0\n",
                                               hServer, hQueue, address)));
    EXPECT_EQ(0u, tq_SocketOpenTCPServer(hQueue, port, 0, address));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServer(), bind failed with error: %d. "
                                               "hMsgQ: %u, srcIP: 0x%x, srcPort: %u\n",
                                               EADDRINUSE, hQueue, address, port)));

    const unsigned int hUdp = tq_SocketOpenUDP(hQueue, address, 9, 0, address, 0);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenUDP(), succeeded with handle: %u. hMsgQ: "
                                               "%u, srcPort: 0, destIP: 0x%x, destPort: 9\n",
                                               hUdp, hQueue, address)));
    const unsigned int udpPort = tq_SocketGetBoundPort(hUdp);
    EXPECT_EQ(0u, tq_SocketOpenUDP(hQueue, address, 9, 0, address, udpPort));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenUDP(), bind failed with error: %d. hMsgQ: "
                                           "%u, srcPort: %u, destIP: 0x%x, destPort: 9\n",
                                           EADDRINUSE, hQueue, udpPort, address)));

    const unsigned int hMulticast = tq_SocketOpenMultiCast(hQueue, group, 0, 0, address);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenMultiCast(), succeeded with handle: %u. "
                                               "hMsgQ: %u, srcPort: 0, mcastIP: 0x%x\n",
                                               hMulticast, hQueue, group)));
    EXPECT_EQ(0u, tq_SocketOpenMultiCast(hQueue, group, udpPort, 0, address));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenMultiCast(), bind failed with error: %d. "
                                               "hMsgQ: %u, srcPort: %u, mcastIP: 0x%x\n",
                                               EADDRINUSE, hQueue, udpPort, group)));
    EXPECT_EQ(0u, tq_SocketOpenMultiCast(hQueue, address, 0, 0, address));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenMultiCast(), add to Multicast group failed "
                                           "with error: %d. hMsgQ: %u, srcPort: 0, mcastIP: 0x%x\n",
                                           EINVAL, hQueue, address)));

    EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(hQueue, Bytes(std::string("nobody.sock")), 0));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: %d. "
                                           "hMsgQ: %u, destName: nobody.sock\n",
                                           ENOENT, hQueue)));
    const unsigned int hDomain = tq_SocketOpenTCPServerDomain(hQueue, Bytes(std::string("some.sock")), 0);
    EXPECT_EQ(1u, trace.Count("DEB: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain() succeeded with "
                                               "handle: %u. hMsgQ: %u, srcName: some.sock\n",
                                               hDomain, hQueue)));
    ASSERT_EQ(0, mkdir("taken", 0700));
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(hQueue, Bytes(std::string("taken")), 0));
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), bind failed with "
                                               "error: %d. hMsgQ: %u, srcName: taken\n",
                                               EADDRINUSE, hQueue)));
    // An address without a file, which cannot be opened to everybody. It is one for the whole machine: another process
    // may have it for a moment.
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(hQueue, Bytes(std::string("")), 0));
        return trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), chmod failed with "
                                            "error: %d. hMsgQ: %u, Srcname: \n",
                                            ENOENT, hQueue)) > 0;
    }));
    tq_ListLock lock(pListOfSockets);
    EXPECT_EQ(6u, pListOfSockets->NodeCount()) << "the breaker and what was opened; no failed open leaves a record";
}

TEST(Socket, ServersThatCannotListenAreTraced) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketInitialize());
    const size_t descriptors = OpenDescriptors();
    {
        Fault fault(gbListenFails);
        EXPECT_EQ(0u, tq_SocketOpenTCPServer(7, 0, 0, Loopback()));
        EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(7, Bytes(std::string("s.sock")), 0));
    }
    EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServer(), listen failed with error: "
                                               "%d. hMsgQ: 7, srcIP: 0x%x, srcPort: 0\n",
                                               ENOBUFS, Loopback())));
    EXPECT_EQ(1u,
              trace.Count("INF: ", Printed("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), listen failed with "
                                           "error: %d. hMsgQ: 7, srcName: s.sock\n",
                                           ENOBUFS)));
    EXPECT_EQ(descriptors, OpenDescriptors());
}

TEST(Socket, OpensWithoutADescriptorAreTraced) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketInitialize());
    DescriptorShortage shortage(0);
    EXPECT_EQ(0u, tq_SocketOpenTCPClient(7, 1, 2, 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPServer(7, 2, 0, 1));
    EXPECT_EQ(0u, tq_SocketOpenUDP(7, 1, 2, 0, 0, 3));
    EXPECT_EQ(0u, tq_SocketOpenMultiCast(7, 1, 3, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(7, Bytes(std::string("c")), 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(7, Bytes(std::string("s")), 0));
    const struct {
        const char* pszFunction;
        const char* pszOpened;
    } rows[] = {
        {"tq_SocketOpenTCPClient", "destIP: 0x1, destPort: 2"},
        {"tq_SocketOpenTCPServer", "srcIP: 0x1, srcPort: 2"},
        {"tq_SocketOpenUDP", "srcPort: 3, destIP: 0x1, destPort: 2"},
        {"tq_SocketOpenMultiCast", "srcPort: 3, mcastIP: 0x1"},
        {"tq_SocketOpenTCPClient", "destName: c"},
        {"tq_SocketOpenTCPServerUnixDomain", "srcName: s"},
    };
    shortage.GiveBackAll();
    for (const auto& row : rows) {
        EXPECT_EQ(1u, trace.Count("INF: ", Printed("tqos Sockets: In %s(), socket creation failed with error: %d. "
                                                   "hMsgQ: 7, %s\n",
                                                   row.pszFunction, EMFILE, row.pszOpened)))
            << row.pszFunction << row.pszOpened;
    }
    tq_SocketTerminate(99);
}

// Traces put off

TEST(Socket, TracesPutOffComeInOrderAndStopAtAHundred) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketInitialize());
    tq_SocketStopWorkerThread(); // which puts lines of its own in
    tq_SocketTraceFlush();
    for (int i = 0; i < 105; ++i) {
        tq_SocketTraceQueue(TQ_TRACE_LEVEL_WARNING, "put off %u (%u) %d\n", i, i + 1000, -i);
    }
    EXPECT_EQ(0u, CountOf(trace.Text(), "put off"));
    tq_SocketTraceFlush();
    const std::string text = trace.Text();
    EXPECT_EQ(100u, CountOf(text, "(tqos) WRN: put off "));
    size_t at = 0;
    for (int i = 0; i < 100; ++i) {
        at = text.find(Printed("put off %d (%d) %d\n", i, i + 1000, -i), at);
        ASSERT_NE(std::string::npos, at) << i;
    }
    tq_SocketTraceFlush();
    EXPECT_EQ(text, trace.Text()) << "emptied";
    tq_SocketTraceQueue(TQ_TRACE_LEVEL_DEBUG, nullptr, 0, 0, 0);
    tq_SocketTraceQueue(TQ_TRACE_LEVEL_DEBUG, "room again\n", 0, 0, 0);
    tq_SocketTraceFlush();
    EXPECT_EQ(1u, trace.Count("DEB: ", "room again\n"));
}

TEST(Socket, ItsTracesAreOfTheCategorySockets) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketInitialize());
    const std::string line = "put off 1 (2) 3\n";
    const auto traceBoth = [] {
        EXPECT_EQ(1u, tq_SocketClose(kNoSocket));
        tq_SocketTraceQueue(TQ_TRACE_LEVEL_WARNING, "put off %u (%u) %d\n", 1, 2, 3);
        tq_SocketTraceFlush();
    };
    tq_SocketStopWorkerThread(); // which flushes, too
    tq_TraceSetCatMask(tqosTraceHandle, ~TQ_TRACE_CAT_SOCKETS);
    const std::string before = trace.Text();
    traceBoth();
    EXPECT_EQ(before, trace.Text());
    tq_TraceSetCatMask(tqosTraceHandle, TQ_TRACE_CAT_SOCKETS);
    traceBoth();
    EXPECT_EQ(1u, trace.Count("WRN: ", line));
    EXPECT_EQ(1u, CountOf(trace.Text(), "INF: tqos Sockets: tq_SocketClose() called for unknown socket: "));
}

TEST(Socket, EveryWakeUpAndTheEndAreTraced) {
    Library library;
    TraceFile trace;
    EXPECT_EQ(0u, tq_SocketInitialize());
    SpinBreaker();
    EXPECT_TRUE(trace.WaitFor("LOW: ", "tqos Sockets: Select spinning.\n"));
    tq_SocketStopWorkerThread();
    EXPECT_EQ(1u, trace.Count("DEB: ", "tqos Sockets: WorkerThread terminating...\n"));
    tq_SocketStopWorkerThread();
    EXPECT_EQ(1u, trace.Count("DEB: ", "tqos Sockets: WorkerThread terminating...\n"));
}

// The breaker

namespace {

/// Breaks the breaker in some way while a connection stands, and expects the layer to mend it.
void ExpectBreakerRebuilt(const std::function<void(unsigned int hBreaker)>& breakIt, const std::string& line) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    const unsigned int hBreaker = BreakerHandle();
    ASSERT_NE(0u, hBreaker);
    EXPECT_STREQ("TQOS: Breaker Socket", Field(hBreaker, &SOCKET_INSTANCE::pszName));
    breakIt(hBreaker);
    ASSERT_TRUE(WaitUntil([&] { return BreakerHandle() != 0 && BreakerHandle() != hBreaker; }));
    EXPECT_TRUE(trace.WaitFor("SEV: ", "tqos Sockets: ResetBreaker() called!!\n"));
    if (!line.empty()) {
        EXPECT_TRUE(trace.WaitFor("SEV: ", line)) << trace.Text();
    }
    EXPECT_FALSE(Exists(hBreaker));
    SendAll(connection.peer, "still there");
    EXPECT_EQ("still there", RecvAll(connection.hSocket, 11));
    EXPECT_EQ(3u, tq_SocketSendTo(connection.hSocket, Bytes("yes"), 3, 0, 0));
    EXPECT_EQ("yes", ReadBytes(connection.peer, 3));
    Connection another(queue);
    SendAll(another.peer, "and new");
    EXPECT_EQ("and new", RecvAll(another.hSocket, 7));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

int DescriptorOf(unsigned int hSocket) {
    return static_cast<int>(Field(hSocket, &SOCKET_INSTANCE::socket));
}

} // namespace

TEST(Socket, BreakerEndedByTheSystemIsRebuilt) {
    ExpectBreakerRebuilt([](unsigned int hBreaker) { shutdown(DescriptorOf(hBreaker), SHUT_RDWR); },
                         "tqos Sockets: The Breaker Socket received (00) error:0 when calling recv()!\n");
}

TEST(Socket, BreakerEndedAtTheOtherEndIsRebuilt) {
    ExpectBreakerRebuilt(
        [](unsigned int) {
            tq_ListLock lock(pListOfSockets);
            shutdown(BrkrSocket, SHUT_RDWR);
        },
        "tqos Sockets: The Breaker Socket received (00) error:0 when calling recv()!\n");
}

TEST(Socket, BreakerClosedFromTheConsoleIsRebuilt) {
    ExpectBreakerRebuilt([](unsigned int hBreaker) { EXPECT_TRUE(tq_SocketCloseFromTelnet(hBreaker)); }, "");
}

TEST(Socket, BreakerClosedByAnApplicationIsRebuilt) {
    ExpectBreakerRebuilt([](unsigned int hBreaker) { EXPECT_EQ(0u, tq_SocketClose(hBreaker)); }, "");
}

TEST(Socket, BreakerWhoseDescriptorIsClosedIsRebuilt) {
    ExpectBreakerRebuilt(
        [](unsigned int hBreaker) {
            close(DescriptorOf(hBreaker));
            SpinBreaker();
        },
        "");
}

TEST(Socket, BreakerIsRebuiltAgainAndAgain) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    for (int i = 0; i < 20; ++i) {
        const unsigned int hBreaker = BreakerHandle();
        shutdown(DescriptorOf(hBreaker), SHUT_RDWR);
        ASSERT_TRUE(WaitUntil([&] { return BreakerHandle() != 0 && BreakerHandle() != hBreaker; }));
    }
    SendAll(connection.peer, "alive");
    EXPECT_EQ("alive", RecvAll(connection.hSocket, 5));
}

TEST(Socket, RebuildingTheBreakerIsTriedWithoutDelayUntilItSucceeds) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    {
        DescriptorShortage shortage(0); // the broken one gives two back; three are needed
        shutdown(DescriptorOf(BreakerHandle()), SHUT_RDWR);
        const char* const pszLine = "tqos Sockets: Could not accept connection on breaker socket with port = ";
        ASSERT_TRUE(WaitUntil([&] { return trace.Count("SEV: ", pszLine) >= 10; }));
        shortage.GiveBackAll();
    }
    SendAll(connection.peer, "mended");
    EXPECT_EQ("mended", RecvAll(connection.hSocket, 6));
    EXPECT_EQ(1u, trace.Count("SEV: ", "tqos Sockets: ResetBreaker() called!!\n"));
}

TEST(Socket, StopWhileTheBreakerIsRebuiltWaitsForTheHeir) {
    for (int i = 0; i < 20; ++i) {
        Library library;
        EXPECT_EQ(0u, tq_SocketInitialize());
        shutdown(DescriptorOf(BreakerHandle()), SHUT_RDWR);
        library.Terminate();
    }
}

TEST(Socket, DescriptorClosedBySomebodyElseFailsItsSocketAlone) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection lost(queue);
    Connection other(queue);
    close(DescriptorOf(lost.hSocket));
    ASSERT_TRUE(WaitUntil([&] {
        SpinBreaker();
        return queue.Count(MSG_SOCKET_CLOSED, lost.hSocket) > 0;
    }));
    EXPECT_EQ(EBADF, queue.Of(MSG_SOCKET_CLOSED, lost.hSocket)[0].Closed().error);
    EXPECT_EQ(0u, tq_SocketClose(lost.hSocket));
    SendAll(other.peer, "well");
    EXPECT_EQ("well", RecvAll(other.hSocket, 4));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED, other.hSocket));
}

namespace {

/// The descriptors of the process behind which the system keeps what somebody waits for.
std::vector<int> WatchSets() {
    std::vector<int> sets;
    for (int fd = 0; fd < 256; ++fd) {
        char target[64] = "";
        if (readlink(Printed("/proc/self/fd/%d", fd).c_str(), target, sizeof(target) - 1) > 0 &&
            strstr(target, "eventpoll")) {
            sets.push_back(fd);
        }
    }
    return sets;
}

} // namespace

TEST(Socket, WhatIsWaitedForIsKeptInOneDescriptorWhichIsMadeAnewWhenItIsLost) {
    Library library;
    EXPECT_TRUE(WatchSets().empty());
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    ASSERT_EQ(1u, WatchSets().size());
    for (int i = 0; i < 3; ++i) {
        // Past the C library, whose close() the thread sanitizer takes for a race with the wait that is under way.
        syscall(SYS_close, WatchSets()[0]);
        SpinBreaker();
        ASSERT_TRUE(WaitUntil([] { return WatchSets().size() == 1; }));
        SendAll(connection.peer, "still there");
        EXPECT_EQ("still there", RecvAll(connection.hSocket, 11));
    }
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
    tq_SocketClose(connection.hSocket);
    library.Terminate();
    EXPECT_TRUE(WatchSets().empty());
}

TEST(Socket, ManySocketsThatAreReadyAtOnceAreAllServed) {
    Library library;
    RecordingQueue queue(kRunning);
    std::vector<Connection> connections;
    for (int i = 0; i < 60; ++i) {
        connections.emplace_back(queue);
    }
    for (int round = 0; round < 5; ++round) {
        {
            const tq_LockOrderUnchecked unchecked; // nobody else traces
            tq_ListLock lock(pListOfSockets);      // until all of them wait
            for (const Connection& connection : connections) {
                SendAll(connection.peer, "x");
            }
        }
        for (const Connection& connection : connections) {
            EXPECT_EQ("x", RecvAll(connection.hSocket, 1));
        }
    }
}

// Descriptors

TEST(Socket, MoreThan1024DescriptorsWork) {
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    constexpr rlim_t kWanted = 4096;
    if (limit.rlim_max < kWanted) {
        GTEST_SKIP() << "the hard limit forbids more than " << limit.rlim_max << " descriptors";
    }
    limit.rlim_cur = kWanted;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    Library library;
    RecordingQueue queue(kRunning);
    Connection low(queue);
    std::vector<Fd> fillers;
    do {
        fillers.push_back(Fd(open("/dev/null", O_RDONLY | O_CLOEXEC)));
        ASSERT_TRUE(fillers.back().IsOpen());
    } while (fillers.back().Get() < 2500);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    EXPECT_GT(DescriptorOf(hServer), 2500);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hUdp));
    std::vector<Connection> high;
    for (int i = 0; i < 20; ++i) {
        high.emplace_back(queue);
        EXPECT_GT(DescriptorOf(high.back().hSocket), 2500);
        SendAll(high.back().peer, Printed("message %d", i));
    }
    for (int i = 0; i < 20; ++i) {
        const std::string message = Printed("message %d", i);
        EXPECT_EQ(message, RecvAll(high[static_cast<size_t>(i)].hSocket, message.size()));
    }
    Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    SendAll(low.peer, "low");
    EXPECT_EQ("low", RecvAll(low.hSocket, 3));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, AcceptWithoutADescriptorNeitherSpinsNorLosesTheListener) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hUdp));
    Fd peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    DescriptorShortage shortage(0);
    ASSERT_TRUE(ConnectPeer(peer, tq_SocketGetBoundPort(hServer)));
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(hServer, SOCKET_EVENT_READABLE); }));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_NEW_CONNECTION));
    EXPECT_EQ(0u, tq_SocketClose(hUdp)); // gives a descriptor back
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    shortage.GiveBackAll();
    const unsigned int hAccepted = queue.Of(MSG_SOCKET_NEW_CONNECTION)[0].NewConnection().new_socket;
    SendAll(peer, "at last");
    EXPECT_EQ("at last", RecvAll(hAccepted, 7));
}

TEST(Socket, AcceptRecoversWhenSomebodyElseGivesADescriptorBack) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    Fd peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    DescriptorShortage shortage(0);
    ASSERT_TRUE(ConnectPeer(peer, tq_SocketGetBoundPort(hServer)));
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(hServer, SOCKET_EVENT_READABLE); }));
    shortage.GiveBackAll(); // nobody tells the worker
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
}

TEST(Socket, TerminationGivesEveryDescriptorAndHandleBack) {
    const size_t before = OpenDescriptors();
    {
        Library library;
        RecordingQueue queue(kRunning);
        Connection first(queue);
        StalledConnection second(queue);
        tq_SocketSendTo(second.hSocket, Bytes("queued"), 6, 0, 0);
        tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
        tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("x.sock")), 0);
        tq_SocketOpenMultiCast(queue.GetHandle(), inet_addr("239.77.1.13"), 0, 0, Loopback());
        SendAll(first.peer, "unread");
        ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, first.hSocket));
    }
    EXPECT_EQ(before, OpenDescriptors());
}

// Memory

TEST(Socket, OpenedAndClosedSocketsLeaveNoMemory) {
    Library library(kCapped);
    RecordingQueue queue(kRunning);
    unsigned int before = 0;
    for (size_t round = 0; round < 3; ++round) {
        {
            Connection connection(queue);
            tq_SocketSetName(connection.hSocket, "a name");
            SendAll(connection.peer, "read but not taken");
            ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, connection.hSocket));
            EXPECT_EQ(1000000u, tq_SocketSendTo(connection.hSocket, Bytes(Pattern(1000000)), 1000000, 0, 0));
            tq_SocketClose(connection.hSocket);
            const unsigned int hServer = tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(std::string("x")), 0);
            tq_SocketClose(hServer);
            EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(queue.GetHandle(), Bytes(std::string("none")), 0));
        }
        ASSERT_TRUE(queue.Post(MSG_USER, TQ_MSG_PRIORITY_LOW)); // the last one, freed when it is recorded
        ASSERT_TRUE(queue.WaitFor(MSG_USER, 0, round + 1));
        tq_ListLock lock(pListOfSockets); // the worker does nothing meanwhile
        if (round == 0) {
            before = AllocatedBytes();
        }
        EXPECT_EQ(before, AllocatedBytes()) << round;
    }
}

TEST(Socket, ReadWithoutMemoryIsTriedAgainAndLosesNothing) {
    Library library(kCapped);
    TraceFile trace;
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    Cap shortage(2000);
    const std::string bytes = Pattern(40000);
    SendAll(connection.peer, bytes);
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(connection.hSocket, SOCKET_EVENT_READABLE); }));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    shortage.End();
    EXPECT_EQ(bytes, RecvAll(connection.hSocket, bytes.size()));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, DatagramWithoutMemoryIsTriedAgain) {
    Library library(kCapped);
    RecordingQueue queue(kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    Cap shortage(2000);
    Fd peer = BoundPeer(SOCK_DGRAM);
    SendDatagram(peer, tq_SocketGetBoundPort(hSocket), Pattern(9000));
    ASSERT_TRUE(WaitUntil([&] { return HasHistory(hSocket, SOCKET_EVENT_READABLE); }));
    shortage.End();
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATAGRAM, hSocket));
    EXPECT_EQ(9000u, queue.Of(MSG_SOCKET_DATAGRAM)[0].Datagram().length);
}

TEST(Socket, SendWithoutMemoryForItsQueueIsRefused) {
    Library library(kCapped);
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    Cap shortage(2000);
    const std::string bytes = Pattern(10000);
    EXPECT_EQ(0u, tq_SocketSendToNoTrace(connection.hSocket, Bytes(bytes), 10000, 0, 0));
    EXPECT_EQ(0u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
    shortage.End();
    EXPECT_EQ(10000u, tq_SocketSendToNoTrace(connection.hSocket, Bytes(bytes), 10000, 0, 0));
    EXPECT_EQ(bytes, ReadBytes(connection.peer, connection.filled + 10000).substr(connection.filled));
}

TEST(Socket, AcceptWithoutMemoryIsTriedAgain) {
    Library library(kCapped);
    TraceFile trace;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    Fd first = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer));
    Cap shortage(100); // less than a record
    Fd peer = ConnectedPeer(tq_SocketGetBoundPort(hServer));
    EXPECT_LT(WakeUpsInAWhile(trace), kManyWakeUps);
    EXPECT_EQ(1u, queue.Count(MSG_SOCKET_NEW_CONNECTION));
    shortage.End();
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_NEW_CONNECTION, hServer, 2));
}

TEST(Socket, OpensWithoutMemoryFailAndLeaveNothing) {
    Library library(kCapped);
    EXPECT_EQ(0u, tq_SocketInitialize());
    const size_t descriptors = OpenDescriptors();
    {
        Cap shortage(100);
        EXPECT_EQ(0u, tq_SocketOpenTCPServer(4, 0, 0, Loopback()));
        EXPECT_EQ(0u, tq_SocketOpenUDP(4, 0, 0, 0, Loopback(), 0));
    }
    EXPECT_EQ(descriptors, OpenDescriptors());
    EXPECT_NE(0u, tq_SocketOpenUDP(4, 0, 0, 0, Loopback(), 0));
}

// Start and stop

TEST(Socket, NothingWorksBeforeTheLibraryRuns) {
    unsigned char data[4];
    EXPECT_EQ(1u, tq_SocketInitialize());
    CheckForInitialization();
    EXPECT_EQ(0u, tq_SocketOpenTCPClient(1, Loopback(), 1, 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPServer(1, 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenUDP(1, 0, 0, 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenMultiCast(1, 0, 0, 0, 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPClientDomain(1, data, 0));
    EXPECT_EQ(0u, tq_SocketOpenTCPServerDomain(1, data, 0));
    EXPECT_EQ(0u, tq_SocketSendTo(1, data, 4, 0, 0));
    EXPECT_EQ(0u, tq_SocketRecv(1, data, 4));
    EXPECT_EQ(1u, tq_SocketClose(1));
    EXPECT_FALSE(tq_SocketCloseFromTelnet(1));
    EXPECT_EQ(-1, tq_SocketSetOpt(1, SOL_SOCKET, SO_KEEPALIVE, data, 4));
    EXPECT_EQ(0u, tq_SocketGetBoundPort(1));
    EXPECT_EQ(0u, tq_SocketGetInterfaceCount());
    EXPECT_EQ(0u, tq_SocketGetInterfaceAddress(0));
    EXPECT_EQ(-1, tq_SocketFindInterfaceByName("lo"));
    EXPECT_FALSE(GetLocalInterfaces());
    RefreshMacAddresses();
    tq_SocketTraceQueue(0, "nothing\n", 0, 0, 0);
    tq_SocketTraceFlush();
    tq_SocketStopWorkerThread();
    tq_SocketTerminate(99);
    tq_SocketTerminate(0);
    EXPECT_EQ(0, gTQSocketsInitialized);
}

TEST(Socket, UsersAreCounted) {
    Library library;
    EXPECT_EQ(0u, tq_SocketInitialize());
    EXPECT_EQ(0u, tq_SocketInitialize());
    RecordingQueue queue(kRunning);
    {
        Connection connection(queue);
        tq_SocketTerminate(99);
        SendAll(connection.peer, "still running");
        EXPECT_EQ("still running", RecvAll(connection.hSocket, 13));
        tq_SocketTerminate(99);
        EXPECT_TRUE(IsAtEnd(connection.peer));
        EXPECT_EQ(0u, tq_SocketDataAvailable(connection.hSocket));
    }
    EXPECT_EQ(nullptr, pListOfSockets);
    Connection again(queue); // starts it anew
    SendAll(again.peer, "anew");
    EXPECT_EQ("anew", RecvAll(again.hSocket, 4));
    EXPECT_EQ(0u, tq_SocketInitialize());
    library.Terminate(); // ends it for every user
    EXPECT_EQ(0, gTQSocketsInitialized);
    EXPECT_EQ(nullptr, pListOfSockets);
}

TEST(Socket, TheErrorLevelOfAStopSaysWhetherSocketsAreClosed) {
    struct Row {
        unsigned int errorLevel;
        bool bCloses;
    };
    const Row rows[] = {{0, false}, {1, true}, {2, true}, {3, true}, {4, false}, {98, false}, {99, true}, {100, false}};
    for (const Row& row : rows) {
        const ChildResult result = CheckInChild([&row] { // whose end checks no leaks: a socket may be lost on purpose
            Library library;
            RecordingQueue queue(kRunning);
            Connection connection(queue);
            const int descriptor = static_cast<int>(Field(connection.hSocket, &SOCKET_INSTANCE::socket));
            tq_SocketTerminate(row.errorLevel);
            if (row.bCloses) {
                EXPECT_TRUE(IsAtEnd(connection.peer));
                return;
            }
            // The connection stays open, though nobody serves it any more.
            EXPECT_GE(fcntl(descriptor, F_GETFD), 0);
            EXPECT_EQ(1, send(descriptor, "x", 1, MSG_NOSIGNAL));
            EXPECT_EQ("x", ReadBytes(connection.peer, 1));
        });
        EXPECT_EQ(kPassed, result.code) << row.errorLevel << result.standardOut;
    }
}

TEST(Socket, StopRightAfterTheStartWaitsForTheWorker) {
    for (int i = 0; i < 50; ++i) {
        Library library;
        EXPECT_EQ(0u, tq_SocketInitialize());
        tq_SocketStopWorkerThread();
        tq_SocketStopWorkerThread();
        library.Terminate(false, i % 2 == 0);
    }
}

TEST(Socket, WorkerIsTrackedByItsNameAndGoneAfterTheStop) {
    Library library;
    EXPECT_EQ(0u, tq_SocketInitialize());
    char* pszThreads = nullptr;
    tq_ShowThreads(&pszThreads);
    ASSERT_NE(nullptr, pszThreads);
    EXPECT_NE(nullptr, strstr(pszThreads, "TQOS: Sockets Thread"));
    tq_free(pszThreads);
    tq_SocketTerminate(99);
    tq_ShowThreads(&pszThreads);
    ASSERT_NE(nullptr, pszThreads);
    EXPECT_EQ(nullptr, strstr(pszThreads, "TQOS: Sockets Thread"));
    tq_free(pszThreads);
}

namespace {

constexpr char kNotCreated[] = "tqos Sockets: Could not create breaker socket!\n";
constexpr char kNotBound[] = "tqos Sockets: Could not bind breaker socket!\n";
constexpr char kNoPort[] = "tqos Sockets: Could not get breaker socket port!\n";
constexpr char kNotListening[] = "tqos Sockets: Could not listen on breaker socket with port = %u!\n";
constexpr char kNotAccepted[] = "tqos Sockets: Could not accept connection on breaker socket with port = %u!\n";

/// A worker's error, with the port that it was about.
std::string WithPort(std::string error) {
    const size_t at = error.find("%u");
    return at == std::string::npos ? error : error.replace(at, 2, std::to_string(BrkrPort));
}

/// What is left of a start that has failed: its errors, and nothing else.
void ExpectUndoneStart(const TraceFile& trace, const char* pszWorkersError, int error) {
    EXPECT_EQ(0, gTQSocketsInitialized);
    EXPECT_EQ(nullptr, pListOfSockets);
    const std::string lines[] = {WithPort(pszWorkersError),
                                 Printed("TQOS Sockets Layer failed to initialize! error=%d\n", error)};
    for (const std::string& line : lines) {
        EXPECT_TRUE(trace.WaitFor("SEV: ", line)) << line << trace.Text();
    }
}

/// A start with so few descriptors left fails; afterwards everything works.
void ExpectStartToFail(size_t descriptorsLeft, const char* pszWorkersError) {
    Library library;
    TraceFile trace;
    RecordingQueue queue(kRunning);
    {
        DescriptorShortage shortage(descriptorsLeft);
        EXPECT_EQ(0u, tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0));
        shortage.GiveBackAll();
    }
    ExpectUndoneStart(trace, pszWorkersError, EMFILE);
    Connection connection(queue);
    SendAll(connection.peer, "works");
    EXPECT_EQ("works", RecvAll(connection.hSocket, 5));
}

} // namespace

TEST(Socket, StartWithoutADescriptorForTheListenerFailsAndIsUndone) {
    ExpectStartToFail(0, kNotCreated);
}

TEST(Socket, StartWithoutADescriptorForTheStarterFailsAndIsUndone) {
    ExpectStartToFail(1, kNotAccepted);
}

TEST(Socket, StartWithoutADescriptorForTheWorkerFailsAndIsUndone) {
    ExpectStartToFail(2, kNotAccepted);
}

TEST(Socket, StartWhoseBreakerIsRefusedByTheSystemFailsAndIsUndone) {
    struct Row {
        std::atomic<bool>* pFault;
        const char* pszWorkersError;
    };
    const Row rows[] = {{&gbBindFails, kNotBound}, {&gbGetsocknameFails, kNoPort}, {&gbListenFails, kNotListening}};
    for (const Row& row : rows) {
        Library library;
        TraceFile trace;
        {
            Fault fault(*row.pFault);
            EXPECT_EQ(static_cast<unsigned int>(ENOBUFS), tq_SocketInitialize());
        }
        ExpectUndoneStart(trace, row.pszWorkersError, ENOBUFS);
        RecordingQueue queue(kRunning);
        Connection connection(queue);
        SendAll(connection.peer, "works");
        EXPECT_EQ("works", RecvAll(connection.hSocket, 5));
    }
}

TEST(Socket, FailedStartIsLogged) {
    Library library(kCapped);
    {
        Cap shortage(60);
        EXPECT_EQ(1u, tq_SocketInitialize());
    }
    EXPECT_NE(std::string::npos, ReadFile("tqos_error.log").find("TQOS Sockets Layer failed to initialize! error=1\n"))
        << ReadFile("tqos_error.log");
    EXPECT_EQ(0u, tq_SocketInitialize());
}

TEST(Socket, StartThatFailsAtAnyAllocationIsUndone) {
    Library library(kCapped);
    unsigned int left = 0;
    for (;; left += 40) {
        ASSERT_LT(left, 100000u);
        Cap shortage(left);
        const unsigned int result = tq_SocketInitialize();
        if (result == 0) {
            break;
        }
        EXPECT_EQ(nullptr, pListOfSockets);
    }
    EXPECT_NE(0u, left);
    RecordingQueue queue(kRunning);
    Connection connection(queue);
    SendAll(connection.peer, "works");
    EXPECT_EQ("works", RecvAll(connection.hSocket, 5));
}

TEST(Socket, FailedStartDoesNotWaitForAStarterThatHoldsTracesLock) {
    Library library;
    TraceFile trace;
    {
        DescriptorShortage shortage(1);
        const tq_LockOrderUnchecked unchecked; // nobody else starts the layer
        tq_ListLock lock(gpTraceInstanceList); // as a caller has that opens a trace destination
        EXPECT_NE(0u, tq_SocketInitialize());
        shortage.GiveBackAll();
    }
    ExpectUndoneStart(trace, kNotAccepted, EMFILE);
}

TEST(Socket, LayerCanBeStoppedWhileOthersUseIt) {
    Library library;
    RecordingQueue queue(kRunning);
    Fd listener = ListeningPeer();
    const unsigned int port = PortOf(listener);
    std::atomic<bool> bDone{false};
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            while (!bDone) {
                const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), 9, 0, Loopback(), 0);
                const unsigned int hClient = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), port, 0, 0, 0);
                tq_SocketSendToNoTrace(hSocket, Bytes("x"), 1, Loopback(), tq_SocketGetBoundPort(hSocket));
                tq_SocketSendTo(hClient, Bytes("xyz"), 3, 0, 0);
                tq_SocketSetName(hClient, "busy");
                Recv(hClient, 10);
                tq_SocketGetInterfaceCount();
                tq_SocketClose(hSocket);
                tq_SocketFlushAndClose(hClient, TQ_SOCKET_FLUSH_OUT);
                tq_SocketClose(tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback()));
            }
        });
    }
    std::thread acceptor([&] {
        while (!bDone) {
            if (WaitReadable(listener, 1)) {
                Fd peer(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            }
        }
    });
    for (int i = 0; i < 30; ++i) {
        tq_SocketInitialize();
        tq_SocketStopWorkerThread();
        while (gTQSocketsInitialized > 0) {
            tq_SocketTerminate(99);
            std::this_thread::yield();
            if (gTQSocketsInitialized == 1) { // started anew meanwhile
                break;
            }
        }
    }
    bDone = true;
    for (std::thread& user : users) {
        user.join();
    }
    acceptor.join();
}

namespace {

/// A thread that is in the middle of sending a byte, until the peer reads: its descriptor has been made to wait.
class SendingThread {
public:
    explicit SendingThread(const StalledConnection& connection) {
        const int descriptor = static_cast<int>(Field(connection.hSocket, &SOCKET_INSTANCE::socket));
        EXPECT_EQ(0, fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK));
        const unsigned int hSocket = connection.hSocket;
        m_thread = std::thread([hSocket] { EXPECT_EQ(1u, tq_SocketSendTo(hSocket, Bytes("1"), 1, 0, 0)); });
        EXPECT_TRUE(WaitUntil([hSocket] { return Field(hSocket, &SOCKET_INSTANCE::bSending); }));
    }
    ~SendingThread() { m_thread.join(); }
    SendingThread(const SendingThread&) = delete;
    SendingThread& operator=(const SendingThread&) = delete;

private:
    std::thread m_thread;
};

} // namespace

TEST(Socket, WhileAThreadSendsTheLayerServesOthers) {
    Library library;
    RecordingQueue queue(kRunning);
    Connection other(queue);
    StalledConnection connection(queue);
    {
        const SendingThread sending(connection);
        EXPECT_EQ(5u, tq_SocketSendTo(other.hSocket, Bytes("hello"), 5, 0, 0));
        EXPECT_EQ("hello", ReadBytes(other.peer, 5));
        SendAll(other.peer, "answer");
        EXPECT_EQ("answer", RecvAll(other.hSocket, 6));
        EXPECT_EQ(connection.filled + 1, ReadBytes(connection.peer, connection.filled + 1).size());
    }
    EXPECT_FALSE(Field(connection.hSocket, &SOCKET_INSTANCE::bSending));
}

TEST(Socket, WhoSendsOnTheSameSocketComesAfterWhoSends) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    std::string bytes;
    {
        const SendingThread sending(connection);
        std::thread next([&] { EXPECT_EQ(1u, tq_SocketSendTo(connection.hSocket, Bytes("2"), 1, 0, 0)); });
        bytes = ReadBytes(connection.peer, connection.filled + 2);
        next.join();
    }
    ASSERT_EQ(connection.filled + 2, bytes.size());
    EXPECT_EQ("12", bytes.substr(connection.filled));
}

TEST(Socket, AClosedSocketGoesWhenNobodySendsOnItAnyMore) {
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    {
        const SendingThread sending(connection);
        std::thread closing([&] { EXPECT_EQ(0u, tq_SocketClose(connection.hSocket)); });
        std::thread forcing([&] { tq_SocketCloseFromTelnet(connection.hSocket); });
        EXPECT_TRUE(Exists(connection.hSocket));
        EXPECT_EQ(connection.filled + 1, ReadToEnd(connection.peer).size());
        closing.join();
        forcing.join();
    }
    EXPECT_FALSE(Exists(connection.hSocket));
}

TEST(Socket, ThreadsMaySendOnOneSocketWhileItIsClosed) {
    Library library;
    RecordingQueue queue(kRunning);
    for (int round = 0; round < 20; ++round) {
        Connection connection(queue);
        std::vector<std::thread> threads;
        for (const char* pszBlock : {"aaaaaaaa", "bbbbbbbb", "cccccccc"}) {
            threads.emplace_back([&connection, pszBlock] {
                while (tq_SocketSendToNoTrace(connection.hSocket, Bytes(pszBlock), 8, 0, 0) != 0) {
                }
            });
        }
        const std::string bytes = ReadBytes(connection.peer, 8 * 100);
        EXPECT_EQ(0u, tq_SocketClose(connection.hSocket));
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (size_t at = 0; at + 8 <= bytes.size(); at += 8) {
            ASSERT_EQ(std::string(8, bytes[at]), bytes.substr(at, 8));
        }
    }
}

namespace {

constexpr unsigned int kSenders = 3;

/// Runs this in so many threads, each with its number, while the caller does something else; then waits for them.
void WithSenders(const std::function<void(unsigned int sender)>& send, const std::function<void()>& meanwhile) {
    std::vector<std::thread> threads;
    for (unsigned int sender = 0; sender < kSenders; ++sender) {
        threads.emplace_back([&send, sender] { send(sender); });
    }
    meanwhile();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// A piece of what a thread sends: whose it is, the how manieth, how long, and its text.
std::string Piece(unsigned int sender, unsigned int number) {
    const unsigned int length = (number * 37) % 3000 + 1;
    return Printed("%u %4u %4u ", sender, number, length) + std::string(length, static_cast<char>('a' + sender));
}

} // namespace

TEST(Socket, WhatSeveralThreadsSendArrivesInWholePiecesAndInTheOrderOfEach) {
    constexpr unsigned int kPieces = 300;
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    std::string received;
    WithSenders(
        [&](unsigned int sender) {
            for (unsigned int number = 0; number < kPieces; ++number) {
                const std::string piece = Piece(sender, number);
                const unsigned int length = static_cast<unsigned int>(piece.size());
                EXPECT_EQ(length, tq_SocketSendToNoTrace(connection.hSocket, Bytes(piece), length, 0, 0));
            }
        },
        [&] {
            ReadBytes(connection.peer, connection.filled);
            size_t all = 0;
            for (unsigned int number = 0; number < kPieces; ++number) {
                all += kSenders * Piece(0, number).size();
            }
            received = ReadBytes(connection.peer, all);
        });
    unsigned int next[kSenders] = {};
    for (size_t at = 0; at < received.size();) {
        const unsigned int sender = static_cast<unsigned int>(received[at] - '0');
        ASSERT_LT(sender, kSenders) << at;
        const std::string piece = Piece(sender, next[sender]++);
        ASSERT_EQ(piece, received.substr(at, piece.size()));
        at += piece.size();
    }
    for (const unsigned int count : next) {
        EXPECT_EQ(kPieces, count);
    }
}

TEST(Socket, SeveralThreadsNeverQueueMoreThanTheOutCap) {
    constexpr unsigned int kCap = 5000;
    constexpr unsigned int kEach = 200000;
    Library library;
    RecordingQueue queue(kRunning);
    StalledConnection connection(queue);
    tq_SocketSetDataOutCap(connection.hSocket, kCap);
    WithSenders(
        [&](unsigned int sender) {
            const std::string bytes(1700, static_cast<char>('a' + sender));
            for (unsigned int sent = 0; sent < kEach;) {
                const unsigned int length = std::min(kEach - sent, 1700u);
                const unsigned int taken = tq_SocketSendToNoTrace(connection.hSocket, Bytes(bytes), length, 0, 0);
                EXPECT_LE(taken, length);
                sent += taken;
                std::this_thread::yield();
            }
        },
        [&] {
            ReadBytes(connection.peer, connection.filled);
            std::map<char, unsigned int> received;
            for (unsigned int left = kSenders * kEach; left > 0;) {
                const std::string bytes = ReadBytes(connection.peer, std::min(left, 2000u));
                ASSERT_FALSE(bytes.empty());
                left -= static_cast<unsigned int>(bytes.size());
                for (const char byte : bytes) {
                    ++received[byte];
                }
                EXPECT_LE(Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount), kCap);
            }
            for (unsigned int sender = 0; sender < kSenders; ++sender) {
                EXPECT_EQ(kEach, received[static_cast<char>('a' + sender)]);
            }
        });
    EXPECT_TRUE(WaitUntil([&] { return Field(connection.hSocket, &SOCKET_INSTANCE::PendingWrite) == 0; }));
    EXPECT_EQ(0u, Field(connection.hSocket, &SOCKET_INSTANCE::DataOutCount));
}

TEST(Socket, WhatSeveralThreadsSentBeforeAFlushingCloseArrives) {
    Library library;
    RecordingQueue queue(kRunning);
    for (unsigned int round = 0; round < 20; ++round) {
        StalledConnection connection(queue);
        if (round % 2) {
            tq_SocketSetDataOutCap(connection.hSocket, 3000);
        }
        std::atomic<unsigned int> accepted{0};
        std::atomic<bool> bClosed{false};
        size_t received = 0;
        WithSenders(
            [&](unsigned int) {
                const std::string bytes(700, 'x');
                while (!bClosed) {
                    accepted += tq_SocketSendToNoTrace(connection.hSocket, Bytes(bytes), 700, 0, 0);
                    std::this_thread::yield();
                }
            },
            [&] {
                received = ReadBytes(connection.peer, connection.filled + round * 1000).size();
                EXPECT_EQ(0u, tq_SocketFlushAndClose(connection.hSocket, TQ_SOCKET_FLUSH_OUT));
                bClosed = true;
                received += ReadToEnd(connection.peer).size();
            });
        EXPECT_EQ(connection.filled + accepted, received) << round;
        EXPECT_TRUE(WaitUntil([&] { return !Exists(connection.hSocket); }));
    }
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Socket, ManyThreadsShareTheLayer) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    queue.SetAction([](const MSG_COMMON& msg) { // an echo
        if (msg.command == MSG_SOCKET_DATASTREAM) {
            const std::string bytes = Recv(msg.instance);
            tq_SocketSendTo(msg.instance, Bytes(bytes), static_cast<unsigned int>(bytes.size()), 0, 0);
        } else if (msg.command == MSG_SOCKET_CLOSED) {
            tq_SocketClose(msg.instance);
        }
    });
    const unsigned int port = tq_SocketGetBoundPort(hServer);
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([port, i] {
            for (int round = 0; round < 10; ++round) {
                Fd peer = ConnectedPeer(port);
                const std::string bytes = Pattern(static_cast<size_t>(1000 * i + 500 * round + 1));
                SendAll(peer, bytes);
                EXPECT_EQ(bytes, ReadBytes(peer, bytes.size()));
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_TRUE(WaitUntil([&] {
        tq_ListLock lock(pListOfSockets);
        return pListOfSockets->NodeCount() == 2;
    }));
    EXPECT_TRUE(queue.WaitFor(MSG_SOCKET_CLOSED, 0, 40));
}

// Interfaces

namespace {

/// The machine's interfaces as the C library tells them: name and last IPv4 address, 0 while it is down.
std::vector<std::pair<std::string, unsigned int>> Interfaces() {
    std::vector<std::pair<std::string, unsigned int>> interfaces;
    struct if_nameindex* pNames = if_nameindex();
    for (const struct if_nameindex* pName = pNames; pName && pName->if_name; ++pName) {
        interfaces.push_back({pName->if_name, 0});
    }
    if_freenameindex(pNames);
    struct ifaddrs* pAddresses = nullptr;
    EXPECT_EQ(0, getifaddrs(&pAddresses));
    for (const struct ifaddrs* pAddress = pAddresses; pAddress; pAddress = pAddress->ifa_next) {
        for (auto& interface : interfaces) {
            if (pAddress->ifa_addr && pAddress->ifa_addr->sa_family == AF_INET && (pAddress->ifa_flags & IFF_UP) &&
                interface.first == pAddress->ifa_name) {
                interface.second = reinterpret_cast<const struct sockaddr_in*>(pAddress->ifa_addr)->sin_addr.s_addr;
            }
        }
    }
    freeifaddrs(pAddresses);
    return interfaces;
}

std::string MacOf(const std::string& name) {
    std::string text = ReadFile("/sys/class/net/" + name + "/address").substr(0, 17);
    for (char& ch : text) {
        ch = static_cast<char>(toupper(ch));
    }
    return text;
}

} // namespace

TEST(Socket, InterfaceTableShowsTheMachinesInterfaces) {
    Library library;
    const auto expected = Interfaces();
    ASSERT_LE(expected.size(), 16u);
    ASSERT_EQ(expected.size(), tq_SocketGetInterfaceCount());
    for (unsigned int i = 0; i < expected.size(); ++i) {
        char name[512];
        EXPECT_EQ(0u, tq_SocketGetInterfaceName(name, i));
        EXPECT_EQ(expected[i].first, name);
        EXPECT_EQ(expected[i].second, tq_SocketGetInterfaceAddress(i)) << name;
        EXPECT_EQ(static_cast<int>(i), tq_SocketFindInterfaceByName(name));
        char mac[20] = "untouched";
        const std::string macExpected = MacOf(name);
        if (macExpected.size() == 17) {
            EXPECT_EQ(0u, tq_GetMACofInterface(mac, i));
            EXPECT_EQ(macExpected, mac);
        }
    }
    const unsigned int none = static_cast<unsigned int>(expected.size());
    char text[512] = "untouched";
    EXPECT_EQ(1u, tq_SocketGetInterfaceName(text, none));
    EXPECT_EQ(1u, tq_GetMACofInterface(text, none));
    EXPECT_STREQ("untouched", text);
    EXPECT_EQ(0u, tq_SocketGetInterfaceAddress(none));
    EXPECT_FALSE(GetLocalInterfaces()) << "nothing has changed since the start";
}

TEST(Socket, InterfacesAreFoundWithoutRegardToCase) {
    Library library;
    const int loopback = tq_SocketFindInterfaceByName("lo");
    ASSERT_GE(loopback, 0);
    EXPECT_EQ(loopback, tq_SocketFindInterfaceByName("LO"));
    EXPECT_EQ(Loopback(), tq_SocketGetInterfaceAddress(static_cast<unsigned int>(loopback)));
    EXPECT_EQ(-1, tq_SocketFindInterfaceByName("no such interface"));
    EXPECT_EQ(-1, tq_SocketFindInterfaceByName(nullptr));
}

TEST(Socket, FirstMacAddressIsTheFirstThatIsNotAllZero) {
    Library library;
    EXPECT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets); // keeps the worker off the table
    memset(g_localMacAddresses, 0, sizeof(g_localMacAddresses));
    g_localAddressCount = 4;
    char mac[20] = "untouched";
    EXPECT_EQ(1u, tq_GetMACAddress(mac));
    strcpy(g_localMacAddresses[0], "00:00:00:00:00:00");
    EXPECT_EQ(1u, tq_GetMACAddress(mac));
    EXPECT_STREQ("untouched", mac);
    EXPECT_EQ(0u, tq_GetMACofInterface(mac, 0)) << "asked for itself, all zero is an address";
    strcpy(g_localMacAddresses[2], "02:00:00:00:00:01");
    strcpy(g_localMacAddresses[3], "02:00:00:00:00:02");
    EXPECT_EQ(0u, tq_GetMACAddress(mac));
    EXPECT_STREQ("02:00:00:00:00:01", mac);
    EXPECT_EQ(1u, tq_GetMACofInterface(mac, 1)) << "unknown";
    g_localAddressCount = 2; // an entry that is not in use does not count
    EXPECT_EQ(1u, tq_GetMACAddress(mac));
    EXPECT_EQ(1u, tq_GetMACAddress(nullptr));
    g_localAddressCount = 20;
    EXPECT_EQ(1u, tq_GetMACofInterface(mac, 18)) << "the table has 18 of them";
    EXPECT_EQ(1u, tq_GetMACofInterface(mac, 19));
}

TEST(Socket, ChangedInterfacesAreAnnouncedToEveryQueue) {
    Library library;
    TraceFile trace;
    RecordingQueue first(kRunning, "first");
    RecordingQueue second(kRunning, "second");
    EXPECT_EQ(0u, tq_SocketInitialize());
    {
        tq_ListLock lock(pListOfSockets);
        g_localAddresses[0].ip ^= 1; // as if it had been another until now
    }
    for (RecordingQueue* pQueue : {&first, &second}) {
        ASSERT_TRUE(pQueue->WaitFor(MSG_SOCKET_NEW_INTERFACES));
        const MSG_COMMON message = pQueue->Of(MSG_SOCKET_NEW_INTERFACES)[0].Common();
        EXPECT_EQ(pQueue->GetHandle(), message.hDest);
        EXPECT_EQ(0u, message.hSource);
        EXPECT_EQ(28u, message.size);
        EXPECT_EQ(0u, message.instance);
        EXPECT_EQ(0u, message.userparm);
    }
    EXPECT_TRUE(trace.WaitFor("WRN: ", "tqos Sockets: A change to the local interfaces was just detected!\n"));
    EXPECT_EQ(Interfaces()[0].second, tq_SocketGetInterfaceAddress(0));
}

TEST(Socket, WithoutNamesFromTheSystemTheTableIsTheLoopbackAddress) {
    Library library;
    EXPECT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets); // the worker does not look meanwhile
    {
        DescriptorShortage shortage(0);
        EXPECT_TRUE(GetLocalInterfaces());
        EXPECT_EQ(1u, tq_SocketGetInterfaceCount());
        EXPECT_EQ(Loopback(), tq_SocketGetInterfaceAddress(0));
        char name[512] = "x";
        EXPECT_EQ(0u, tq_SocketGetInterfaceName(name, 0));
        EXPECT_STREQ("", name);
    }
    EXPECT_TRUE(GetLocalInterfaces());
    EXPECT_EQ(Interfaces().size(), tq_SocketGetInterfaceCount());
}

TEST(Socket, RefreshOfMacAddressesWithoutADescriptorClearsThem) {
    Library library;
    const int loopback = tq_SocketFindInterfaceByName("lo");
    ASSERT_GE(loopback, 0);
    tq_ListLock lock(pListOfSockets); // the worker does not look meanwhile
    char mac[20];
    EXPECT_EQ(0u, tq_GetMACofInterface(mac, static_cast<unsigned int>(loopback)));
    {
        DescriptorShortage shortage(0);
        RefreshMacAddresses();
        EXPECT_EQ(1u, tq_GetMACofInterface(mac, static_cast<unsigned int>(loopback)));
        EXPECT_EQ(1u, tq_GetMACAddress(mac));
    }
    RefreshMacAddresses();
    EXPECT_EQ(0u, tq_GetMACofInterface(mac, static_cast<unsigned int>(loopback)));
}

TEST(Socket, RefreshOfMacAddressesThatGetsDescriptor0DoesNothing) {
    const ChildResult result = CheckInChild([] {
        Library library;
        const unsigned int loopback = static_cast<unsigned int>(tq_SocketFindInterfaceByName("lo"));
        tq_ListLock lock(pListOfSockets); // the worker does not look, nor open anything, meanwhile
        strcpy(g_localMacAddresses[loopback], "12:34");
        close(0);
        char mac[20] = "";
        RefreshMacAddresses();
        EXPECT_EQ(0u, tq_GetMACofInterface(mac, loopback));
        EXPECT_STREQ("12:34", mac);
        EXPECT_GE(fcntl(0, F_GETFD), 0) << "it stays taken";
        RefreshMacAddresses();
        EXPECT_EQ(0u, tq_GetMACofInterface(mac, loopback));
        EXPECT_STREQ("00:00:00:00:00:00", mac);
        close(0);
    });
    EXPECT_EQ(kPassed, result.code) << result.standardOut;
}

namespace {

bool SetLoopback(bool bUp) {
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strcpy(request.ifr_name, "lo");
    if (ioctl(fd.Get(), SIOCGIFFLAGS, &request) != 0) {
        return false;
    }
    const int flags = request.ifr_flags;
    request.ifr_flags = static_cast<short>(bUp ? flags | IFF_UP : flags & ~IFF_UP);
    return ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

} // namespace

TEST(Socket, InterfaceThatGoesDownKeepsItsNameAndLosesItsAddress) {
    const ChildResult result = CheckInChild([] {
        // A network of the child's own, so that its loopback interface can be taken down.
        if (unshare(CLONE_NEWNET) != 0 || !SetLoopback(true)) {
            _exit(kCannot);
        }
        Library library;
        const unsigned int count = tq_SocketGetInterfaceCount();
        const int loopback = tq_SocketFindInterfaceByName("lo");
        EXPECT_GE(loopback, 0);
        const unsigned int index = static_cast<unsigned int>(loopback);
        EXPECT_EQ(Loopback(), tq_SocketGetInterfaceAddress(index));
        tq_ListLock lock(pListOfSockets); // the worker, who looks too, does not come first
        EXPECT_TRUE(SetLoopback(false));
        EXPECT_TRUE(GetLocalInterfaces());
        EXPECT_EQ(count, tq_SocketGetInterfaceCount());
        EXPECT_EQ(loopback, tq_SocketFindInterfaceByName("lo"));
        EXPECT_EQ(0u, tq_SocketGetInterfaceAddress(index));
        EXPECT_TRUE(SetLoopback(true));
        EXPECT_TRUE(GetLocalInterfaces());
        EXPECT_EQ(Loopback(), tq_SocketGetInterfaceAddress(index));
    });
    if (result.code == kCannot) {
        GTEST_SKIP() << "no right to a network of its own";
    }
    EXPECT_EQ(kPassed, result.code) << result.standardOut;
}

/// Gives an interface an address, 10.77.0.n, and takes it up.
bool SetAddress(struct ifreq request, unsigned int n) {
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x0A4D0000u + n);
    memcpy(&request.ifr_addr, &address, sizeof(address));
    if (ioctl(fd.Get(), SIOCSIFADDR, &request) != 0) {
        return false;
    }
    request.ifr_flags = IFF_UP;
    return ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

TEST(Socket, OfManyInterfacesTwentyAreKeptSixteenWithAnAddressAndEighteenWithAMacAddress) {
    const ChildResult result = CheckInChild([] {
        if (unshare(CLONE_NEWNET) != 0 || !SetLoopback(true)) {
            _exit(kCannot);
        }
        std::vector<Fd> taps;
        for (int i = 0; i < 24; ++i) {
            taps.push_back(Fd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)));
            struct ifreq request;
            memset(&request, 0, sizeof(request));
            request.ifr_flags = IFF_TAP | IFF_NO_PI;
            snprintf(request.ifr_name, sizeof(request.ifr_name), "tap%d", i);
            if (!taps.back().IsOpen() || ioctl(taps.back().Get(), TUNSETIFF, &request) != 0 ||
                !SetAddress(request, static_cast<unsigned int>(i) + 1)) {
                _exit(kCannot);
            }
        }
        Library library;
        const auto expected = Interfaces();
        EXPECT_GE(expected.size(), 25u);
        EXPECT_EQ(20u, tq_SocketGetInterfaceCount());
        int addresses = 0;
        for (unsigned int i = 0; i < 20; ++i) {
            char name[512] = "";
            char mac[20] = "";
            EXPECT_EQ(0u, tq_SocketGetInterfaceName(name, i));
            EXPECT_EQ(expected[i].first, name);
            EXPECT_EQ(i < 18 ? 0u : 1u, tq_GetMACofInterface(mac, i)) << i;
            addresses += tq_SocketGetInterfaceAddress(i) != 0 ? 1 : 0;
        }
        EXPECT_EQ(16, addresses);
        EXPECT_FALSE(GetLocalInterfaces()) << "what does not fit is no change";
    });
    if (result.code == kCannot) {
        GTEST_SKIP() << "no right to a network of its own, or to interfaces in it";
    }
    EXPECT_EQ(kPassed, result.code) << result.standardOut;
}

// Addresses

TEST(Socket, DottedQuadsAreRecognised) {
    struct Row {
        const char* pszText;
        bool bIsAddress;
    };
    const Row rows[] = {
        {"10.0.0.1", true},
        {"0.0.0.0", true},
        {"255.255.255.255", true},
        {"010.1.1.1", true},
        {"0000000001.1.1.1", true},
        {"10.0.0.256", false},
        {"256.0.0.1", false},
        {"1.2.3", false},
        {"1.2.3.4.5", false},
        {"1..2.3", false},
        {"1.2.3.", false},
        {".1.2.3", false},
        {"1.2.3.4 ", false},
        {" 1.2.3.4", false},
        {"1.2.3.x", false},
        {"-1.2.3.4", false},
        {"", false},
        {"...", false},
        {"host.name.a.b", false},
        {nullptr, false},
        {"99999999999999999999.1.1.1", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.bIsAddress, tq_SocketIsThisAnIP(row.pszText)) << (row.pszText ? row.pszText : "null");
    }
}

TEST(Socket, AddressHelpersForwardToTheSystem) {
    EXPECT_EQ(Loopback(), tq_inet_addr("127.0.0.1"));
    EXPECT_EQ(0xFFFFFFFFu, tq_inet_addr("no address"));
    EXPECT_STREQ("127.0.0.1", tq_inet_ntoa(Loopback()));
    EXPECT_EQ(htons(0x1234), tq_htons(0x1234));
    EXPECT_EQ(0x1234, tq_ntohs(htons(0x1234)));
    EXPECT_EQ(htonl(0x12345678u), tq_htonl(0x12345678));
    EXPECT_EQ(0x12345678u, tq_ntohl(htonl(0x12345678)));
    char expected[256] = "";
    char name[256] = "";
    EXPECT_EQ(gethostname(expected, sizeof(expected)), tq_gethostname(name, sizeof(name)));
    EXPECT_STREQ(expected, name);
    EXPECT_EQ(-1, tq_gethostname(name, -5));
}
