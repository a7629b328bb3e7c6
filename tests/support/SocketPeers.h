/// @file SocketPeers.h
/// The other end of a socket under test: plain sockets on the loopback address, and the library's trace in a file.
#ifndef SOCKET_PEERS_H
#define SOCKET_PEERS_H

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingQueue.h"
#include "TestSupport.h"
#include "tq_Lifecycle_p.h"
#include "tqos.h"

namespace test {

/// A descriptor that is closed with its owner.
class Fd {
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd() { Close(); }
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        Close();
        m_fd = std::exchange(other.m_fd, -1);
        return *this;
    }
    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    void Close() {
        if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }

private:
    int m_fd;
};

inline unsigned int Loopback() {
    return htonl(INADDR_LOOPBACK);
}

inline struct sockaddr_in LoopbackAddress(unsigned int port) {
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = Loopback();
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

inline unsigned int PortOf(const Fd& fd) {
    struct sockaddr_in address;
    socklen_t length = sizeof(address);
    EXPECT_EQ(0, getsockname(fd.Get(), reinterpret_cast<struct sockaddr*>(&address), &length));
    return ntohs(address.sin_port);
}

/// A socket of the test, bound to a loopback port of the system's choice.
inline Fd BoundPeer(int kind) {
    Fd fd(socket(AF_INET, kind | SOCK_CLOEXEC, 0));
    const struct sockaddr_in address = LoopbackAddress(0);
    EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
    return fd;
}

inline Fd ListeningPeer() {
    Fd fd = BoundPeer(SOCK_STREAM);
    EXPECT_EQ(0, listen(fd.Get(), 16));
    return fd;
}

/// Waits for a descriptor; false when nothing came within a time that only a hang should reach.
inline bool WaitReadable(const Fd& fd, int seconds = 30) {
    struct pollfd wait = {fd.Get(), POLLIN, 0};
    return poll(&wait, 1, seconds * 1000) == 1;
}

inline Fd AcceptPeer(const Fd& listener) {
    EXPECT_TRUE(WaitReadable(listener)) << "nobody connects";
    Fd fd(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(fd.IsOpen());
    return fd;
}

inline bool ConnectPeer(const Fd& fd, unsigned int port) {
    const struct sockaddr_in address = LoopbackAddress(port);
    return connect(fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0;
}

inline Fd ConnectedPeer(unsigned int port) {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(ConnectPeer(fd, port)) << strerror(errno);
    return fd;
}

inline struct sockaddr_un DomainAddress(const std::string& path) {
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

inline void SendAll(const Fd& fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result = send(fd.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(result, 0) << strerror(errno);
        sent += static_cast<size_t>(result);
    }
}

/// Reads so many bytes, or as many as come before the connection ends.
inline std::string ReadBytes(const Fd& fd, size_t most) {
    std::string bytes;
    std::vector<char> buffer(65536);
    while (bytes.size() < most && WaitReadable(fd)) {
        const size_t room = most - bytes.size();
        const ssize_t result = recv(fd.Get(), buffer.data(), room < buffer.size() ? room : buffer.size(), 0);
        if (result <= 0) {
            break;
        }
        bytes.append(buffer.data(), static_cast<size_t>(result));
    }
    return bytes;
}

inline std::string ReadToEnd(const Fd& fd) {
    return ReadBytes(fd, static_cast<size_t>(-1));
}

/// True once the peer has closed: nothing more comes.
inline bool IsAtEnd(const Fd& fd) {
    char byte;
    return WaitReadable(fd) && recv(fd.Get(), &byte, 1, 0) <= 0;
}

/// A recognisable run of bytes.
inline std::string Pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    }
    return bytes;
}

inline const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

/// The library's own trace from level 0 on, in a file of the working directory. It is read through a descriptor that is
/// open from the start, so that it can be read when there is no other.
class TraceFile {
public:
    TraceFile() {
        EXPECT_EQ(0, tq_TraceEnableFile(tqosTraceHandle, "tracefile.txt", 0, 0));
        tq_TraceSetLevel(tqosTraceHandle, 0);
        tq_TraceSetCatMask(tqosTraceHandle, -1);
        m_fd = Fd(open("tracefile.txt", O_RDONLY | O_CLOEXEC));
        EXPECT_TRUE(m_fd.IsOpen());
    }

    std::string Text() const {
        std::string text;
        char piece[4096];
        ssize_t length = 0;
        while ((length = pread(m_fd.Get(), piece, sizeof(piece), static_cast<off_t>(text.size()))) > 0) {
            text.append(piece, static_cast<size_t>(length));
        }
        return text;
    }

    /// How often this whole line was traced at the level that the tag ("DEB: ") says.
    size_t Count(const std::string& tag, const std::string& line) const {
        return CountOf(Text(), "(tqos) " + tag + line);
    }
    bool WaitFor(const std::string& tag, const std::string& line) const {
        return WaitUntil([&] { return Count(tag, line) > 0; });
    }

private:
    Fd m_fd;
};

} // namespace test

#endif // SOCKET_PEERS_H
