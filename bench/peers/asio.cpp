// Boost.Asio.
#include <memory>
#include <thread>
#include <vector>

#include <boost/asio.hpp>

#include "EchoBench.h"
#include "QueueBench.h"
#include "TimerBench.h"

namespace {

namespace asio = boost::asio;

/// A context and the thread that runs it.
class ContextThread {
public:
    ~ContextThread() {
        m_work.reset();
        m_context.stop();
        m_thread.join();
    }
    asio::io_context& Context() { return m_context; }

private:
    asio::io_context m_context;
    asio::executor_work_guard<asio::io_context::executor_type> m_work = asio::make_work_guard(m_context);
    std::thread m_thread{[this] { m_context.run(); }};
};

class Worker {
public:
    Worker(bench::Handler handler, void* context) : m_handler(handler), m_context(context) {}
    void Send(void* pMessage) {
        asio::post(m_thread.Context(), [this, pMessage] { m_handler(m_context, pMessage); });
    }
    static void* Allocate() { return malloc(32); }
    static void Free(void* pMessage) { free(pMessage); }

private:
    bench::Handler m_handler;
    void* m_context;
    ContextThread m_thread;
};

/// Set and killed by another thread than the one that would handle them.
class Timers {
public:
    void Arm(unsigned int key, unsigned int ms) {
        while (key >= m_timers.size()) {
            m_timers.push_back(std::make_unique<asio::steady_timer>(m_thread.Context()));
        }
        m_timers[key]->expires_after(std::chrono::milliseconds(ms));
        m_timers[key]->async_wait([](const boost::system::error_code&) {});
    }
    void Kill(unsigned int key) { m_timers[key]->cancel(); }

private:
    ContextThread m_thread;
    std::vector<std::unique_ptr<asio::steady_timer>> m_timers;
};

using asio::ip::tcp;

enum class Kind { Echo, Drain, Source };

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, Kind kind) : m_socket(std::move(socket)), m_kind(kind) {
        m_socket.set_option(tcp::no_delay(true));
    }
    void Start() {
        if (m_kind == Kind::Source) {
            Write(sizeof(m_buffer));
        } else {
            Read();
        }
    }

private:
    void Read() {
        m_socket.async_read_some(asio::buffer(m_buffer),
                                 [self = shared_from_this()](const boost::system::error_code& error, std::size_t got) {
                                     if (!error && self->m_kind == Kind::Drain) {
                                         self->Read();
                                     } else if (!error) {
                                         self->Write(got);
                                     }
                                 });
    }
    void Write(std::size_t bytes) {
        asio::async_write(m_socket, asio::buffer(m_buffer, bytes),
                          [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                              if (!error && self->m_kind == Kind::Source) {
                                  self->Write(sizeof(self->m_buffer));
                              } else if (!error) {
                                  self->Read();
                              }
                          });
    }
    tcp::socket m_socket;
    Kind m_kind;
    char m_buffer[bench::kStreamPiece];
};

class Acceptor {
public:
    Acceptor(asio::io_context& context, Kind kind)
        : m_acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)), m_kind(kind) {
        m_acceptor.listen(1024);
        Accept();
    }
    unsigned int Port() { return m_acceptor.local_endpoint().port(); }

private:
    void Accept() {
        m_acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
            if (!error) {
                std::make_shared<Session>(std::move(socket), m_kind)->Start();
            }
            Accept();
        });
    }
    tcp::acceptor m_acceptor;
    Kind m_kind;
};

/// Runs until the process ends.
template <Kind kind> double Serve(bench::Client& client) {
    asio::io_context* pContext = new asio::io_context(1);
    Acceptor* pAcceptor = new Acceptor(*pContext, kind);
    std::thread([pContext] { pContext->run(); }).detach();
    return client.Measure(pAcceptor->Port());
}

} // namespace

PEER_BENCH_QUEUES(Worker, "Boost.Asio")
PEER_BENCH_TIMERS(Timers, "Boost.Asio")
PEER_BENCH_ECHO(Serve<Kind::Echo>, "Boost.Asio")
PEER_BENCH_STREAMS(Serve<Kind::Drain>, Serve<Kind::Source>, "Boost.Asio")
