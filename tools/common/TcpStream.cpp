#include "TcpStream.h"

#include <algorithm>
#include <errno.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tools {

namespace {

int MsUntil(Clock::time_point limit) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1000000000));
}

int OpenSocket(const addrinfo& address) {
    const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol);
    const int noDelay = 1; // what is typed is small and waited for
    if (fd >= 0) {
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    }
    return fd;
}

int ErrorOf(int fd) {
    int error = 0;
    socklen_t size = sizeof(error);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

} // namespace

TcpStream::Status TcpStream::WaitFor(short events, Clock::time_point limit) {
    struct pollfd wait = {m_fd, events, 0};
    int ready = -1;
    do {
        ready = poll(&wait, 1, MsUntil(limit));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 ? Status::Done : Status::TimedOut;
}

bool TcpStream::Connect(const std::string& host, const std::string& port, Clock::time_point limit) {
    Close();
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    const int failure = getaddrinfo(host.c_str(), port.c_str(), &wanted, &pFound);
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(pFound, freeaddrinfo);
    if (failure != 0) {
        m_problem = gai_strerror(failure);
        return false;
    }
    for (const addrinfo* pAddress = pFound; pAddress; pAddress = pAddress->ai_next) {
        m_fd = OpenSocket(*pAddress);
        int error = m_fd < 0 || connect(m_fd, pAddress->ai_addr, pAddress->ai_addrlen) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            error = WaitFor(POLLOUT, limit) == Status::Done ? ErrorOf(m_fd) : ETIMEDOUT;
        }
        if (m_fd >= 0 && error == 0) {
            return true;
        }
        m_problem = strerror(m_fd < 0 ? errno : error);
        Close();
    }
    return false;
}

void TcpStream::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

TcpStream::Status TcpStream::Send(const std::string& bytes, Clock::time_point limit) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (errno != EAGAIN && errno != EINTR) {
            m_problem = strerror(errno);
            return Status::Ended;
        } else if (WaitFor(POLLOUT, limit) == Status::TimedOut) {
            return Status::TimedOut;
        }
    }
    return Status::Done;
}

TcpStream::Status TcpStream::Receive(std::string* pBytes, Clock::time_point limit) {
    char buffer[65536];
    while (true) {
        const ssize_t count = recv(m_fd, buffer, sizeof(buffer), 0);
        if (count > 0) {
            pBytes->append(buffer, static_cast<size_t>(count));
            return Status::Done;
        }
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            m_problem = count == 0 ? "the other side has closed it" : strerror(errno);
            return Status::Ended;
        }
        if (WaitFor(POLLIN, limit) == Status::TimedOut) {
            return Status::TimedOut;
        }
    }
}

} // namespace tools
