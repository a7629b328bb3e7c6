// libuv.
#include <cstdlib>
#include <thread>
#include <vector>

#include <uv.h>

#include "EchoBench.h"
#include "TimerBench.h"

namespace {

/// Of the loop's own thread: timers of libuv cannot be set by another.
class Timers {
public:
    Timers() { uv_loop_init(&m_loop); }
    ~Timers() {
        for (uv_timer_t* pTimer : m_timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(pTimer),
                     [](uv_handle_t* pHandle) { delete reinterpret_cast<uv_timer_t*>(pHandle); });
        }
        uv_run(&m_loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_loop);
    }
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;
    void Arm(unsigned int key, unsigned int ms) {
        while (key >= m_timers.size()) {
            m_timers.push_back(new uv_timer_t);
            uv_timer_init(&m_loop, m_timers.back());
        }
        uv_timer_start(
            m_timers[key], [](uv_timer_t*) {}, ms, 0);
    }
    void Kill(unsigned int key) { uv_timer_stop(m_timers[key]); }

private:
    uv_loop_t m_loop;
    std::vector<uv_timer_t*> m_timers;
};

void Close(uv_stream_t* pStream) {
    uv_close(reinterpret_cast<uv_handle_t*>(pStream),
             [](uv_handle_t* pHandle) { delete reinterpret_cast<uv_tcp_t*>(pHandle); });
}

char gPiece[bench::kStreamPiece];

/// One piece is read, and answered before the next.
void OfferPiece(uv_handle_t*, std::size_t, uv_buf_t* pBuffer) {
    *pBuffer = uv_buf_init(gPiece, sizeof(gPiece));
}

void Echo(uv_stream_t* pStream, ssize_t got, const uv_buf_t* pBuffer) {
    if (got < 0) {
        Close(pStream);
        return;
    }
    uv_buf_t answer = uv_buf_init(pBuffer->base, static_cast<unsigned int>(got));
    uv_try_write(pStream, &answer, 1);
}

void Drain(uv_stream_t* pStream, ssize_t got, const uv_buf_t*) {
    if (got < 0) {
        Close(pStream);
    }
}

void Fill(uv_stream_t* pStream) {
    static uv_write_t request;
    uv_buf_t piece = uv_buf_init(gPiece, sizeof(gPiece));
    uv_write(&request, pStream, &piece, 1, [](uv_write_t* pRequest, int status) {
        if (status == 0) {
            Fill(pRequest->handle);
        }
    });
}

template <uv_read_cb onRead, bool bFill> void Accept(uv_stream_t* pListener, int) {
    uv_tcp_t* pSocket = new uv_tcp_t;
    uv_stream_t* pStream = reinterpret_cast<uv_stream_t*>(pSocket);
    uv_tcp_init(pListener->loop, pSocket);
    uv_accept(pListener, pStream);
    uv_tcp_nodelay(pSocket, 1);
    uv_read_start(pStream, OfferPiece, onRead);
    if (bFill) {
        Fill(pStream);
    }
}

/// The loop runs until the process ends.
template <uv_read_cb onRead, bool bFill> double Serve(bench::Client& client) {
    unsigned int port;
    const int fd = bench::Listen(&port);
    uv_loop_t* pLoop = new uv_loop_t;
    uv_loop_init(pLoop);
    uv_tcp_t* pListener = new uv_tcp_t;
    uv_tcp_init(pLoop, pListener);
    uv_tcp_open(pListener, fd);
    uv_listen(reinterpret_cast<uv_stream_t*>(pListener), 1024, Accept<onRead, bFill>);
    std::thread([pLoop] { uv_run(pLoop, UV_RUN_DEFAULT); }).detach();
    return client.Measure(port);
}

} // namespace

PEER_BENCH_TIMERS(Timers, "libuv, on its own thread")
PEER_BENCH_ECHO((Serve<Echo, false>), "libuv")
PEER_BENCH_STREAMS((Serve<Drain, false>), (Serve<Drain, true>), "libuv")
