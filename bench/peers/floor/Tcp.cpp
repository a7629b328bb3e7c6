// What the machine allows of servers: one thread around epoll, and the shape of this library: a thread around epoll
// that hands what it reads to a second thread, which answers.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Bench.h"
#include "EchoBench.h"

namespace {

/// Accepts, reads, and calls OnData().
class EpollLoop {
public:
    EpollLoop() : m_listener(bench::Listen(&m_port)), m_epoll(epoll_create1(0)) { Watch(m_listener); }
    virtual ~EpollLoop() = default;
    EpollLoop(const EpollLoop&) = delete;
    EpollLoop& operator=(const EpollLoop&) = delete;
    unsigned int Port() const { return m_port; }

    /// Runs for the rest of the process.
    void Start() {
        std::thread([this] { Work(); }).detach();
    }

protected:
    virtual void OnData(int fd, const char* pData, std::size_t bytes) = 0;

private:
    void Watch(int fd) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
    }
    [[noreturn]] void Work() {
        for (;;) {
            epoll_event events[128];
            const int count = epoll_wait(m_epoll, events, 128, -1);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.fd == m_listener) {
                    Accept();
                } else {
                    Read(events[i].data.fd);
                }
            }
        }
    }
    void Accept() {
        const int fd = accept(m_listener, nullptr, nullptr);
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        Watch(fd);
    }
    void Read(int fd) {
        const ssize_t got = recv(fd, m_buffer, sizeof(m_buffer), 0);
        if (got > 0) {
            OnData(fd, m_buffer, static_cast<std::size_t>(got));
        } else {
            close(fd);
        }
    }

    unsigned int m_port = 0;
    int m_listener;
    int m_epoll;
    char m_buffer[bench::kStreamPiece];
};

class EchoLoop : public EpollLoop {
protected:
    void OnData(int fd, const char* pData, std::size_t bytes) override { send(fd, pData, bytes, MSG_NOSIGNAL); }
};

class HandOverLoop : public EpollLoop {
public:
    HandOverLoop() {
        std::thread([this] { Answer(); }).detach();
    }

protected:
    void OnData(int fd, const char* pData, std::size_t bytes) override {
        bool bWasEmpty;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            bWasEmpty = m_pieces.empty();
            m_pieces.push_back({fd, std::string(pData, bytes)});
        }
        if (bWasEmpty) {
            m_filled.notify_one();
        }
    }

private:
    struct Piece {
        int fd;
        std::string data;
    };
    [[noreturn]] void Answer() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_mutex);
            while (m_pieces.empty()) {
                m_filled.wait(lock);
            }
            const Piece piece = std::move(m_pieces.front());
            m_pieces.pop_front();
            lock.unlock();
            send(piece.fd, piece.data.data(), piece.data.size(), MSG_NOSIGNAL);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<Piece> m_pieces;
};

/// Takes all that comes.
class DrainLoop : public EpollLoop {
protected:
    void OnData(int, const char*, std::size_t) override {}
};

/// A thread that sends whatever the system takes.
double ServeSource(bench::Client& client) {
    unsigned int port;
    const int listener = bench::Listen(&port);
    std::thread([listener] {
        const int fd = accept(listener, nullptr, nullptr);
        static const char piece[bench::kStreamPiece] = {};
        while (send(fd, piece, sizeof(piece), MSG_NOSIGNAL) > 0) {
        }
    }).detach();
    return client.Measure(port);
}

// The loops run until the process ends.
template <class Loop> double Serve(bench::Client& client) {
    Loop* pLoop = new Loop;
    pLoop->Start();
    return client.Measure(pLoop->Port());
}

} // namespace

PEER_BENCH_ECHO(Serve<EchoLoop>, "epoll")
PEER_BENCH_ECHO(Serve<HandOverLoop>, "epoll, handed over")
PEER_BENCH_STREAMS(Serve<DrainLoop>, ServeSource, "plain system calls")
