// libevent.
#include <memory>
#include <thread>
#include <vector>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/thread.h>

#include "EchoBench.h"
#include "TimerBench.h"

namespace {

event_base* NewBase() {
    evthread_use_pthreads();
    return event_base_new();
}

/// Set and killed by another thread than the one that would handle them. All that lives, lives until the process ends.
class Timers {
public:
    Timers() : m_pBase(NewBase()) {
        std::thread([this] { event_base_loop(m_pBase, EVLOOP_NO_EXIT_ON_EMPTY); }).detach();
    }
    void Arm(unsigned int key, unsigned int ms) {
        while (key >= m_timers.size()) {
            m_timers.push_back(evtimer_new(
                m_pBase, [](evutil_socket_t, short, void*) {}, nullptr));
        }
        const timeval timeout = {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
        evtimer_add(m_timers[key], &timeout);
    }
    void Kill(unsigned int key) { evtimer_del(m_timers[key]); }

private:
    event_base* m_pBase;
    std::vector<event*> m_timers;
};

void OnEvent(bufferevent* pStream, short what, void*) {
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) {
        bufferevent_free(pStream);
    }
}

void Echo(bufferevent* pStream, void*) {
    bufferevent_write_buffer(pStream, bufferevent_get_input(pStream));
}

void Drain(bufferevent* pStream, void*) {
    evbuffer* pInput = bufferevent_get_input(pStream);
    evbuffer_drain(pInput, evbuffer_get_length(pInput));
}

void Fill(bufferevent* pStream, void*) {
    static const char piece[bench::kStreamPiece] = {};
    bufferevent_write(pStream, piece, sizeof(piece));
}

using OnReady = void (*)(bufferevent*, void*);

/// @param onRead  what a stream does when something has arrived
/// @param bFill   and what it does when all has been sent: send more
template <OnReady onRead, bool bFill>
void Accept(evconnlistener* pListener, evutil_socket_t fd, sockaddr*, int, void*) {
    bufferevent* pStream = bufferevent_socket_new(evconnlistener_get_base(pListener), fd, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(pStream, onRead, bFill ? Fill : nullptr, OnEvent, nullptr);
    bufferevent_set_max_single_read(pStream, bench::kStreamPiece);
    bufferevent_set_max_single_write(pStream, bench::kStreamPiece);
    bufferevent_enable(pStream, EV_READ | EV_WRITE);
    if (bFill) {
        Fill(pStream, nullptr);
    }
}

template <OnReady onRead, bool bFill> double Serve(bench::Client& client) {
    unsigned int port;
    const int fd = bench::Listen(&port);
    event_base* pBase = NewBase();
    evutil_make_socket_nonblocking(fd);
    evconnlistener_new(pBase, Accept<onRead, bFill>, nullptr, 0, 0, fd);
    std::thread([pBase] { event_base_dispatch(pBase); }).detach();
    return client.Measure(port);
}

} // namespace

PEER_BENCH_TIMERS(Timers, "libevent")
PEER_BENCH_ECHO((Serve<Echo, false>), "libevent")
PEER_BENCH_STREAMS((Serve<Drain, false>), (Serve<Drain, true>), "libevent")
