/// @file TraceLoad.h
/// Numbered lines of trace, and viewers on the network who see them in order.
#ifndef TRACE_LOAD_H
#define TRACE_LOAD_H

#include <atomic>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <string>
#include <thread>

#include "Load.h"
#include "SocketPeers.h"
#include "tq_NetTrace_p.h"

namespace test {

constexpr unsigned int kTracers = 3;
constexpr char kLastLine[] = "the last line\n";

/// What has been seen of numbered lines.
struct LineCheck {
    unsigned int last[kTracers] = {};
    std::atomic<unsigned int> seen{0};
    bool bAscending = true;
    bool bWithoutGap = true;

    /// A line that holds "tracer <t> line <n>"; others count for nothing.
    void See(const char* pszLine) {
        unsigned int tracer = 0;
        unsigned int number = 0;
        const char* const pszText = strstr(pszLine, "tracer ");
        if (!pszText || sscanf(pszText, "tracer %u line %u", &tracer, &number) != 2 || tracer >= kTracers) {
            return;
        }
        ++seen;
        bAscending = bAscending && number > last[tracer];
        bWithoutGap = bWithoutGap && number == last[tracer] + 1;
        last[tracer] = number;
    }
};

/// Somebody on the network who looks at the lines, and answers when asked whether he is still there.
class Viewer {
public:
    explicit Viewer(unsigned int port) : m_fd(BoundPeer(SOCK_DGRAM)) {
        EXPECT_TRUE(ConnectPeer(m_fd, port));
        Send("TRACEON/");
        m_thread = std::thread([this] { Look(); });
    }
    ~Viewer() {
        m_bStop = true;
        m_thread.join();
    }

    bool HasSeenLast() const { return m_bSeenLast; }
    bool HasSeenLines() const { return m_lines.seen > 0; }
    /// To be asked when he has seen the last line.
    bool HasSeenThemInOrder() const { return m_lines.bAscending; }

private:
    void Send(const char* pszText) { send(m_fd.Get(), pszText, strlen(pszText) + 1, 0); }

    void Look() {
        char text[1100];
        while (!m_bStop) {
            struct pollfd wait = {m_fd.Get(), POLLIN, 0};
            const ssize_t length = poll(&wait, 1, 20) == 1 ? recv(m_fd.Get(), text, sizeof(text), 0) : 0;
            if (length <= 0) {
                continue;
            }
            EXPECT_EQ('\0', text[length - 1]);
            text[length - 1] = '\0';
            if (strcmp(text, "KEEPALIVE/") == 0) {
                Send("KEEPALIVE/");
            } else if (strstr(text, kLastLine)) {
                m_bSeenLast = true;
            } else {
                m_lines.See(text);
            }
        }
    }

    const Fd m_fd;
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bSeenLast{false};
    LineCheck m_lines; // by the thread
    std::thread m_thread;
};

} // namespace test

#endif // TRACE_LOAD_H
