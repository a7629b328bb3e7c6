#include "Rounds.h"

#include <algorithm>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

namespace tqcon {

using tools::Clock;
using tools::Result;

namespace {

volatile sig_atomic_t gbInterrupted = 0;

void NoteInterrupt(int) {
    gbInterrupted = 1;
}

/// An interrupt is only noted while the object lives, and ends waiting.
class NotedInterrupts {
public:
    NotedInterrupts() {
        gbInterrupted = 0;
        struct sigaction action = {};
        action.sa_handler = NoteInterrupt;
        sigaction(SIGINT, &action, &m_before);
    }
    ~NotedInterrupts() { sigaction(SIGINT, &m_before, nullptr); }
    NotedInterrupts(const NotedInterrupts&) = delete;
    NotedInterrupts& operator=(const NotedInterrupts&) = delete;

private:
    struct sigaction m_before = {};
};

/// The standard input, key by key, when it is a terminal and wanted so.
class Keys {
public:
    explicit Keys(bool bWanted) : m_bRead(bWanted && tcgetattr(STDIN_FILENO, &m_before) == 0) {
        if (m_bRead) {
            struct termios keys = m_before;
            keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
        }
    }
    ~Keys() {
        if (m_bRead) {
            tcsetattr(STDIN_FILENO, TCSADRAIN, &m_before);
        }
    }
    Keys(const Keys&) = delete;
    Keys& operator=(const Keys&) = delete;

    /// Waits until the time has come; false when it shall be stopped.
    bool WaitUntil(Clock::time_point time) const {
        while (gbInterrupted == 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(time - Clock::now()).count();
            struct pollfd key = {m_bRead ? STDIN_FILENO : -1, POLLIN, 0};
            const int ready = poll(&key, 1, static_cast<int>(std::clamp<long long>(left + 1, 0, 1000000000)));
            if (ready == 0) {
                return true;
            }
            char byte = 0;
            if (ready > 0 && (read(STDIN_FILENO, &byte, 1) != 1 || byte == 'q' || byte == 'Q')) {
                return false;
            }
        }
        return false;
    }

private:
    bool m_bRead;
    struct termios m_before = {};
};

} // namespace

Result DoRounds(unsigned int count, int everyMs, bool bOwnTerminal, const std::function<Result()>& round) {
    const NotedInterrupts interrupts;
    const Keys keys(bOwnTerminal);
    for (unsigned int done = 1;; ++done) {
        const Clock::time_point next = tools::In(everyMs);
        const Result result = round();
        if (result != Result::Ok || done == count || !keys.WaitUntil(next)) {
            return result;
        }
    }
}

} // namespace tqcon
