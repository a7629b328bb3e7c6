#include "EchoBench.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Bench.h"

namespace bench {
namespace {

[[noreturn]] void Fail(const char* pszWhat) {
    perror(pszWhat);
    _exit(1);
}

sockaddr_in Loopback(unsigned int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int Connect(unsigned int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    const int on = 1;
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0) {
        Fail("connect");
    }
    return fd;
}

void SendMessage(int fd) {
    static const char message[kEchoBytes] = {};
    if (send(fd, message, sizeof(message), MSG_NOSIGNAL) != kEchoBytes) {
        Fail("send");
    }
}

/// Takes the rest of an answer.
/// @param pGot  bytes of it that are there
/// @return true when it is whole
bool TakeAnswer(int fd, int* pGot) {
    char buffer[kEchoBytes];
    const ssize_t got = recv(fd, buffer, static_cast<std::size_t>(kEchoBytes - *pGot), 0);
    if (got <= 0) {
        Fail("recv");
    }
    *pGot += static_cast<int>(got);
    if (*pGot < kEchoBytes) {
        return false;
    }
    *pGot = 0;
    return true;
}

/// One connection: a message, its answer, and again.
double MeasureAlone(int fd) {
    int got = 0;
    return PerSecond([&] {
        for (int i = 0; i < 500; ++i) {
            SendMessage(fd);
            while (!TakeAnswer(fd, &got)) {
            }
        }
        return 500.0;
    });
}

double MeasureMany(const std::vector<int>& connections) {
    const int epoll = epoll_create1(0);
    std::vector<int> got(connections.size());
    for (std::size_t i = 0; i < connections.size(); ++i) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u32 = static_cast<unsigned int>(i);
        epoll_ctl(epoll, EPOLL_CTL_ADD, connections[i], &event);
        SendMessage(connections[i]);
    }
    return PerSecond([&] {
        double trips = 0;
        while (trips < 5000) {
            epoll_event events[128];
            const int count = epoll_wait(epoll, events, 128, -1);
            for (int i = 0; i < count; ++i) {
                const unsigned int index = events[i].data.u32;
                if (TakeAnswer(connections[index], &got[index])) {
                    ++trips;
                    SendMessage(connections[index]);
                }
            }
        }
        return trips;
    });
}

} // namespace

Client::Client(int core, const std::function<double(unsigned int port)>& work) {
    int ends[2];
    fflush(stdout);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 || (m_process = fork()) < 0) {
        Fail("fork");
    }
    if (m_process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        PinTo(core);
        close(ends[0]);
        unsigned int port;
        if (read(ends[1], &port, sizeof(port)) == sizeof(port)) {
            const double value = work(port);
            if (write(ends[1], &value, sizeof(value)) == sizeof(value)) {
                pause(); // the connections stay until the measurement is over
            }
        }
        _exit(0);
    }
    close(ends[1]);
    m_socket = ends[0];
    PinTo(0);
}

Client::~Client() {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
    close(m_socket);
}

double Client::Measure(unsigned int port) {
    double value;
    if (write(m_socket, &port, sizeof(port)) != sizeof(port) ||
        read(m_socket, &value, sizeof(value)) != sizeof(value)) {
        fprintf(stderr, "the client failed\n");
        exit(1);
    }
    return value;
}

double MeasureEcho(unsigned int port, const EchoLoad& load) {
    std::vector<int> active;
    for (int i = 0; i < load.connections; ++i) {
        const int fd = Connect(port);
        if (i % (load.connections / load.active) == 0) {
            active.push_back(fd);
        }
    }
    return active.size() == 1 ? MeasureAlone(active[0]) : MeasureMany(active);
}

double MeasureStreamToServer(unsigned int port) {
    const int fd = Connect(port);
    std::vector<char> piece(kStreamPiece);
    return PerSecond([&] {
        double sent = 0;
        while (sent < 4e6) {
            const ssize_t done = send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
            if (done <= 0) {
                Fail("send");
            }
            sent += static_cast<double>(done);
        }
        return sent;
    });
}

double MeasureStreamFromServer(unsigned int port) {
    const int fd = Connect(port);
    std::vector<char> piece(kStreamPiece);
    return PerSecond([&] {
        double got = 0;
        while (got < 4e6) {
            const ssize_t done = recv(fd, piece.data(), piece.size(), 0);
            if (done <= 0) {
                Fail("recv");
            }
            got += static_cast<double>(done);
        }
        return got;
    });
}

int Listen(unsigned int* pPort) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 1024) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("listen");
    }
    *pPort = ntohs(address.sin_port);
    return fd;
}

double EchoOneCore(Serve serve) {
    Client client(0, [](unsigned int port) { return MeasureEcho(port, {1, 1}); });
    return serve(client);
}

double EchoMany(Serve serve, int connections) {
    Client client(1, [connections](unsigned int port) { return MeasureEcho(port, {connections, connections}); });
    return serve(client);
}

double EchoBesideIdle(Serve serve, int idle, int core) {
    Client client(core, [idle](unsigned int port) { return MeasureEcho(port, {idle + 1, 1}); });
    return serve(client);
}

double StreamIn(Serve serve) {
    Client client(1, MeasureStreamToServer);
    return serve(client);
}

double StreamOut(Serve serve) {
    Client client(1, MeasureStreamFromServer);
    return serve(client);
}

} // namespace bench
