// The six open calls. Each is the same procedure with its own kind of descriptor, options and texts: make a record,
// make a descriptor, set its options, bind or connect it, put the record into the list and wake the worker.
#include "tq_Socket_p.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tq_Dir.h"
#include "tq_Memory.h"

// Settings

namespace {

constexpr unsigned int kBroadcastAddress = 0xFFFFFFFF;
constexpr mode_t kSocketFileMode = 01777; // everybody's, with the sticky bit
constexpr int kMulticastTtl = 32;

void SetSwitch(unsigned int descriptor, int option) {
    const int on = 1;
    setsockopt(static_cast<int>(descriptor), SOL_SOCKET, option, &on, sizeof(on));
}

void SetBufferSize(unsigned int descriptor, int option, unsigned int size) {
    if (size != 0) {
        setsockopt(static_cast<int>(descriptor), SOL_SOCKET, option, &size, sizeof(size));
    }
}

} // namespace

// Options

void MakeNonBlocking(unsigned int descriptor) {
    // By the one call or by the other: a descriptor that blocks would hold up every socket.
    int on = 1;
    if (ioctl(static_cast<int>(descriptor), FIONBIO, &on) != 0) {
        const int flags = fcntl(static_cast<int>(descriptor), F_GETFL, 0);
        fcntl(static_cast<int>(descriptor), F_SETFL, (flags < 0 ? O_RDWR : flags) | O_NONBLOCK);
    }
}

void EnableKeepAlive(unsigned int descriptor) {
    SetSwitch(descriptor, SO_KEEPALIVE);
}

void EnableDebug(unsigned int descriptor) {
    SetSwitch(descriptor, SO_DEBUG);
}

void SetLinger(unsigned int descriptor) {
    // Deliberate: two 16-bit halves, where the platform's record has two ints. It refuses this one, and so a close
    // stays orderly: with lingering on and time 0 it would throw away what a flushing close promises to send.
    const unsigned short linger[2] = {1, 0};
    setsockopt(static_cast<int>(descriptor), SOL_SOCKET, SO_LINGER, linger, sizeof(linger));
}

void SetDefaultBufferSizes(unsigned int descriptor) {
    SetBufferSize(descriptor, SO_RCVBUF, ulDefault_ReceiveSize);
    SetBufferSize(descriptor, SO_SNDBUF, ulDefault_SendSize);
}

namespace {

void ReuseAddress(unsigned int descriptor) {
    SetSwitch(descriptor, SO_REUSEADDR);
}

void SetMulticastTtl(unsigned int descriptor) {
    setsockopt(static_cast<int>(descriptor), IPPROTO_IP, IP_MULTICAST_TTL, &kMulticastTtl, sizeof(kMulticastTtl));
}

// In this order.
constexpr PFN_DESCRIPTOR_STEP kClientSteps[] = {MakeNonBlocking, EnableKeepAlive, EnableDebug, SetLinger,
                                                SetDefaultBufferSizes};
constexpr PFN_DESCRIPTOR_STEP kServerSteps[] = {MakeNonBlocking, ReuseAddress, SetDefaultBufferSizes, EnableKeepAlive};
constexpr PFN_DESCRIPTOR_STEP kUdpSteps[] = {MakeNonBlocking, SetMulticastTtl, SetLinger};
constexpr PFN_DESCRIPTOR_STEP kMulticastSteps[] = {MakeNonBlocking, ReuseAddress, SetMulticastTtl, SetLinger};
constexpr PFN_DESCRIPTOR_STEP kDomainServerSteps[] = {MakeNonBlocking, SetDefaultBufferSizes, EnableKeepAlive};

struct sockaddr_in Address(unsigned int ip, unsigned int port) {
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

const char* Printable(const unsigned char* pszPath) {
    return pszPath ? reinterpret_cast<const char*>(pszPath) : "(null)";
}

// A socket on its way

/// Owns record and descriptor until Open() puts them into the list; whatever fails before, they are gone with it.
/// Each step returns false on failure and keeps the system error for the trace.
class NewSocket {
public:
    NewSocket(unsigned int type, unsigned int state, unsigned int hMsgQ, unsigned int userparm)
        : m_pass((CheckForInitialization(), gSocketGate)),
          m_pSocket(m_pass ? MakeSocketRecord(type, state, hMsgQ, userparm) : nullptr) {}
    ~NewSocket() {
        if (m_pSocket) {
            CleanUpSocket(m_pSocket, /*bDrain=*/false);
        }
    }
    NewSocket(const NewSocket&) = delete;
    NewSocket& operator=(const NewSocket&) = delete;

    /// False when the layer is not running or there is no memory.
    explicit operator bool() const { return m_pSocket != nullptr; }
    SOCKET_INSTANCE* operator->() const { return m_pSocket; }
    unsigned int Error() const { return m_error; }

    template <size_t N> bool Create(int family, int kind, int protocol, const PFN_DESCRIPTOR_STEP (&steps)[N]) {
        const int descriptor = socket(family, kind | SOCK_CLOEXEC, protocol);
        if (descriptor < 0) {
            return Failed();
        }
        m_pSocket->socket = static_cast<unsigned int>(descriptor);
        for (PFN_DESCRIPTOR_STEP step : steps) {
            step(m_pSocket->socket);
        }
        return true;
    }

    /// Binds, and reads back what was bound.
    bool Bind(unsigned int ip, unsigned int port) {
        m_pSocket->srcaddr = Address(ip, port);
        if (bind(Descriptor(), Generic(&m_pSocket->srcaddr), sizeof(m_pSocket->srcaddr)) != 0) {
            return Failed();
        }
        struct sockaddr_in bound;
        socklen_t length = sizeof(bound);
        if (getsockname(Descriptor(), reinterpret_cast<struct sockaddr*>(&bound), &length) == 0) {
            m_pSocket->srcaddr = bound;
        }
        return true;
    }

    bool Connect() { return ConnectTo(Generic(&m_pSocket->dstaddr), sizeof(m_pSocket->dstaddr)); }
    bool ConnectDomain() { return ConnectTo(Generic(&m_pSocket->un_addr), sizeof(m_pSocket->un_addr)); }

    bool BindDomain() {
        return bind(Descriptor(), Generic(&m_pSocket->un_addr), sizeof(m_pSocket->un_addr)) == 0 || Failed();
    }

    bool Listen() { return listen(Descriptor(), kListenBacklog) == 0 || Failed(); }

    bool JoinGroup(unsigned int group, unsigned int interface) {
        struct ip_mreq membership;
        membership.imr_multiaddr.s_addr = group;
        membership.imr_interface.s_addr = interface;
        return setsockopt(Descriptor(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0 ||
               Failed();
    }

    /// Takes a path; one that does not fit the address record fails.
    bool SetPath(const unsigned char* pszPath) {
        const char* pszText = reinterpret_cast<const char*>(pszPath);
        if (!pszText || strlen(pszText) >= sizeof(m_pSocket->un_addr.sun_path)) {
            errno = pszText ? ENAMETOOLONG : EINVAL;
            return Failed();
        }
        m_pSocket->un_addr.sun_family = AF_UNIX;
        strcpy(m_pSocket->un_addr.sun_path, pszText);
        m_pSocket->pszSocketName = tq_newString(pszText);
        if (!m_pSocket->pszSocketName) {
            errno = ENOMEM;
            return Failed();
        }
        return true;
    }

    /// The file of a path taken before: nothing may stand there, and its directory must be fit for it.
    bool PrepareDirectory() {
        strcpy(m_directory, m_pSocket->un_addr.sun_path);
        tq_RemoveFile(m_pSocket->un_addr.sun_path);
        char* pszEnd = strrchr(m_directory, '/');
        if (!pszEnd) {
            pszEnd = strrchr(m_directory, '\\');
        }
        if (!pszEnd || pszEnd == m_directory) { // the working directory, or the root
            return true;
        }
        *pszEnd = '\0';
        return safe_mksocketdir(m_directory) == 0 || Failed();
    }
    /// The directory that PrepareDirectory() looked at.
    const char* Directory() const { return m_directory; }

    bool OpenFileToEverybody() { return chmod(m_pSocket->un_addr.sun_path, kSocketFileMode) == 0 || Failed(); }

    /// Hands the record to the worker. The handle, or 0 without memory for the list.
    unsigned int Open() {
        tq_ListLock lock(pListOfSockets);
        tq_SocketSetNameInternal(m_pSocket, "");
        if (!AddSocketLocked(m_pSocket)) {
            return 0;
        }
        const unsigned int handle = m_pSocket->handle;
        m_pSocket = nullptr;
        SpinBreaker();
        return handle;
    }

private:
    static const struct sockaddr* Generic(const void* pAddress) {
        return static_cast<const struct sockaddr*>(pAddress);
    }
    int Descriptor() const { return static_cast<int>(m_pSocket->socket); }

    bool ConnectTo(const struct sockaddr* pAddress, socklen_t length) {
        return connect(Descriptor(), pAddress, length) == 0 || errno == EINPROGRESS || errno == EAGAIN || Failed();
    }

    bool Failed() {
        m_error = static_cast<unsigned int>(errno);
        return false;
    }

    tq_GatePass m_pass;
    SOCKET_INSTANCE* m_pSocket;
    unsigned int m_error = 0;
    char m_directory[sizeof(sockaddr_un::sun_path)] = "";
};

/// Traces why an open failed; its result.
unsigned int Refuse(const char* pszFormat, ...) TQ_PRINTF(1, 2);
unsigned int Refuse(const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    TraceSocketsVA(TQ_TRACE_LEVEL_INFORMATIONAL, pszFormat, args);
    va_end(args);
    return 0;
}

} // namespace

// IPv4 sockets

unsigned int tq_SocketOpenTCPClient(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort,
                                    unsigned int userparm, unsigned int srcIP, unsigned int srcPort) {
    NewSocket client(SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTING, hMsgQ, userparm);
    if (!client) {
        return 0;
    }
    if (!client.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP, kClientSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPClient(), socket creation failed with error: %d. hMsgQ: %u, "
                      "destIP: 0x%x, destPort: %u\n",
                      static_cast<int>(client.Error()), hMsgQ, destIP, destPort);
    }
    if (!client.Bind(srcIP, srcPort)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPClient(), bind failed with error: %d. hMsgQ: %u, srcPort: %u, "
                      "destIP: 0x%x, destPort: %u\n",
                      static_cast<int>(client.Error()), hMsgQ, srcPort, destIP, destPort);
    }
    client->dstaddr = Address(destIP, destPort);
    if (!client.Connect()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: %u. hMsgQ: %u, destIP: "
                      "0x%x, destPort: %u\n",
                      client.Error(), hMsgQ, destIP, destPort);
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenTCPClient() succeeded with handle: %u. hMsgQ: %u, destIP: 0x%x, "
                 "destPort: %u\n",
                 client->handle, hMsgQ, destIP, destPort);
    return client.Open();
}

unsigned int tq_SocketOpenTCPServer(unsigned int hMsgQ, unsigned int srcPort, unsigned int userparm,
                                    unsigned int srcIP) {
    NewSocket server(SOCKET_TYPE_TCP, SOCKET_STATE_LISTEN, hMsgQ, userparm);
    if (!server) {
        return 0;
    }
    server->IsServer = 1;
    if (!server.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP, kServerSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServer(), socket creation failed with error: %u. hMsgQ: %u, "
                      "srcIP: 0x%x, srcPort: %u\n",
                      server.Error(), hMsgQ, srcIP, srcPort);
    }
    if (!server.Bind(srcIP, srcPort)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServer(), bind failed with error: %u. hMsgQ: %u, srcIP: 0x%x, "
                      "srcPort: %u\n",
                      server.Error(), hMsgQ, srcIP, srcPort);
    }
    if (!server.Listen()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServer(), listen failed with error: %u. hMsgQ: %u, srcIP: "
                      "0x%x, srcPort: %u\n",
                      server.Error(), hMsgQ, srcIP, srcPort);
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenTCPServer() succeeded with handle: %u. hMsgQ: %u, srcIP: 0x%x, "
                 "srcPort: %u\n",
                 server->handle, hMsgQ, srcIP, srcPort);
    return server.Open();
}

unsigned int tq_SocketOpenUDP(unsigned int hMsgQ, unsigned int destIP, unsigned int destPort, unsigned int userparm,
                              unsigned int srcIP, unsigned int srcPort) {
    // Connecting although there is nothing to connect: the worker finds it writeable at once and announces it.
    NewSocket udp(SOCKET_TYPE_UDP, SOCKET_STATE_CONNECTING, hMsgQ, userparm);
    if (!udp) {
        return 0;
    }
    if (!udp.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, kUdpSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenUDP(), socket creation failed with error: %u. hMsgQ: %u, srcPort: "
                      "%u, destIP: 0x%x, destPort: %u\n",
                      udp.Error(), hMsgQ, srcPort, destIP, destPort);
    }
    if (destIP == kBroadcastAddress) {
        SetSwitch(udp->socket, SO_BROADCAST);
    }
    if (!udp.Bind(srcIP, srcPort)) {
        return Refuse("tqos Sockets: In tq_SocketOpenUDP(), bind failed with error: %u. hMsgQ: %u, srcPort: %u, "
                      "destIP: 0x%x, destPort: %u\n",
                      udp.Error(), hMsgQ, srcPort, destIP, destPort);
    }
    udp->dstaddr = Address(destIP, destPort);
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenUDP(), succeeded with handle: %u. hMsgQ: %u, srcPort: %u, destIP: "
                 "0x%x, destPort: %u\n",
                 udp->handle, hMsgQ, srcPort, destIP, destPort);
    return udp.Open();
}

unsigned int tq_SocketOpenMultiCast(unsigned int hMsgQ, unsigned int mcastIP, unsigned int srcPort,
                                    unsigned int userparm, unsigned int srcIP) {
    NewSocket member(SOCKET_TYPE_UDP, SOCKET_STATE_CONNECTING, hMsgQ, userparm);
    if (!member) {
        return 0;
    }
    if (!member.Create(AF_INET, SOCK_DGRAM, IPPROTO_UDP, kMulticastSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenMultiCast(), socket creation failed with error: %u. hMsgQ: %u, "
                      "srcPort: %u, mcastIP: 0x%x\n",
                      member.Error(), hMsgQ, srcPort, mcastIP);
    }
    if (!member.Bind(srcIP, srcPort)) {
        return Refuse("tqos Sockets: In tq_SocketOpenMultiCast(), bind failed with error: %u. hMsgQ: %u, srcPort: %u, "
                      "mcastIP: 0x%x\n",
                      member.Error(), hMsgQ, srcPort, mcastIP);
    }
    member->dstaddr = Address(mcastIP, 0);
    if (!member.JoinGroup(mcastIP, srcIP)) {
        return Refuse("tqos Sockets: In tq_SocketOpenMultiCast(), add to Multicast group failed with error: %u. hMsgQ: "
                      "%u, srcPort: %u, mcastIP: 0x%x\n",
                      member.Error(), hMsgQ, srcPort, mcastIP);
    }
    member->IsMultiCast = 1;
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenMultiCast(), succeeded with handle: %u. hMsgQ: %u, srcPort: %u, "
                 "mcastIP: 0x%x\n",
                 member->handle, hMsgQ, srcPort, mcastIP);
    return member.Open();
}

// Local-domain sockets

// Deliberate: the texts are those of the IPv4 client, with the path. Who reads the trace tells them apart by that.
unsigned int tq_SocketOpenTCPClientDomain(unsigned int hMsgQ, const unsigned char* destName, unsigned int userparm) {
    NewSocket client(SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTING, hMsgQ, userparm);
    if (!client) {
        return 0;
    }
    if (!client.Create(AF_UNIX, SOCK_STREAM, 0, kClientSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPClient(), socket creation failed with error: %u. hMsgQ: %u, "
                      "destName: %s\n",
                      client.Error(), hMsgQ, Printable(destName));
    }
    if (!client.SetPath(destName) || !client.ConnectDomain()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPClient(), connect failed with error: %u. hMsgQ: %u, destName: "
                      "%s\n",
                      client.Error(), hMsgQ, Printable(destName));
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenTCPClient() succeeded with handle: %u. hMsgQ: %u, destName: %s\n",
                 client->handle, hMsgQ, Printable(destName));
    return client.Open();
}

unsigned int tq_SocketOpenTCPServerDomain(unsigned int hMsgQ, const unsigned char* srcName, unsigned int userparm) {
    NewSocket server(SOCKET_TYPE_TCP, SOCKET_STATE_LISTEN, hMsgQ, userparm);
    if (!server) {
        return 0;
    }
    server->IsServer = 1;
    if (!server.Create(AF_UNIX, SOCK_STREAM, 0, kDomainServerSteps)) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), socket creation failed with error: %u. "
                      "hMsgQ: %u, srcName: %s\n",
                      server.Error(), hMsgQ, Printable(srcName));
    }
    const bool bFits = server.SetPath(srcName); // asked first: a path that is no good touches no file
    if (bFits && !server.PrepareDirectory()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), chmod failed on dir %s with error: %u. "
                      "hMsgQ: %u, Srcname: %s\n",
                      server.Directory(), server.Error(), hMsgQ, Printable(srcName));
    }
    if (!bFits || !server.BindDomain()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), bind failed with error: %u. hMsgQ: %u, "
                      "srcName: %s\n",
                      server.Error(), hMsgQ, Printable(srcName));
    }
    if (!server.OpenFileToEverybody()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), chmod failed with error: %u. hMsgQ: %u, "
                      "Srcname: %s\n",
                      server.Error(), hMsgQ, Printable(srcName));
    }
    if (!server.Listen()) {
        return Refuse("tqos Sockets: In tq_SocketOpenTCPServerUnixDomain(), listen failed with error: %u. hMsgQ: %u, "
                      "srcName: %s\n",
                      server.Error(), hMsgQ, Printable(srcName));
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                 "tqos Sockets: In tq_SocketOpenTCPServerUnixDomain() succeeded with handle: %u. hMsgQ: %u, srcName: "
                 "%s\n",
                 server->handle, hMsgQ, Printable(srcName));
    return server.Open();
}

// The directory of socket files

namespace {

/// Whether a directory that is there may hold socket files. Nothing is changed on it.
int CheckSocketDirectory(const char* pszDirectory) {
    struct stat status;
    if (lstat(pszDirectory, &status) != 0 || !S_ISDIR(status.st_mode)) {
        return -1;
    }
    if (status.st_uid != 0 && status.st_uid != getuid()) {
        fprintf(stderr, "Failed to fix owner of %s.\n", pszDirectory);
        return -1;
    }
    const bool bSetId = (status.st_mode & (S_ISUID | S_ISGID)) != 0;
    const bool bAnybodyRemoves = (status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0;
    if (bSetId || bAnybodyRemoves) {
        fprintf(stderr, "Failed to fix mode of %s to %04o.\n", pszDirectory,
                static_cast<unsigned int>(kSocketFileMode));
        return -1;
    }
    return 0;
}

} // namespace

int safe_mksocketdir(const char* pszDirectory) {
    if (mkdir(pszDirectory, kSocketFileMode) == 0) {
        return chmod(pszDirectory, kSocketFileMode) == 0 ? 0 : -1; // what the umask took away
    }
    if (errno != EEXIST) {
        return -1;
    }
    return CheckSocketDirectory(pszDirectory);
}
