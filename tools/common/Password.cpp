#include "Password.h"

#include <errno.h>
#include <fcntl.h>
#include <fstream>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

namespace tools {

namespace {

void DoNothing(int) {}

/// Interrupting the process interrupts the reading, and happens once the terminal is what it was before.
class InterruptLater {
public:
    InterruptLater() {
        struct sigaction action = {};
        action.sa_handler = DoNothing; // and without a restart: read() comes back
        sigaction(SIGINT, &action, &m_before);
    }
    ~InterruptLater() {
        sigaction(SIGINT, &m_before, nullptr);
        if (m_bInterrupted) {
            raise(SIGINT);
        }
    }
    InterruptLater(const InterruptLater&) = delete;
    InterruptLater& operator=(const InterruptLater&) = delete;

    void Note() { m_bInterrupted = true; }

private:
    struct sigaction m_before = {};
    bool m_bInterrupted = false;
};

/// The terminal of the process, without echo while the object lives.
class QuietTerminal {
public:
    QuietTerminal() : m_fd(open("/dev/tty", O_RDWR | O_CLOEXEC)) {
        if (m_fd < 0 || tcgetattr(m_fd, &m_before) != 0) {
            return;
        }
        struct termios quiet = m_before;
        quiet.c_lflag = (quiet.c_lflag & ~static_cast<tcflag_t>(ECHO)) | ICANON | ISIG;
        quiet.c_iflag |= ICRNL;
        m_bQuiet = tcsetattr(m_fd, TCSAFLUSH, &quiet) == 0;
    }
    ~QuietTerminal() {
        if (m_bQuiet) {
            tcsetattr(m_fd, TCSAFLUSH, &m_before);
        }
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;

    explicit operator bool() const { return m_bQuiet; }

    void Write(const std::string& text) const {
        for (size_t at = 0; at < text.size();) {
            const ssize_t count = write(m_fd, text.data() + at, text.size() - at);
            if (count <= 0) {
                return;
            }
            at += static_cast<size_t>(count);
        }
    }

    /// A line without its end; none at the end of the input and when it is interrupted.
    std::optional<std::string> ReadLine(InterruptLater& interrupt) const {
        std::string line;
        char byte = 0;
        ssize_t count = 0;
        while ((count = read(m_fd, &byte, 1)) == 1 && byte != '\n') {
            line += byte;
        }
        if (count < 0 && errno == EINTR) {
            interrupt.Note();
        }
        return count == 1 ? std::optional<std::string>(line) : std::nullopt;
    }

private:
    int m_fd;
    bool m_bQuiet = false;
    struct termios m_before = {};
};

} // namespace

std::optional<std::string> FindPassword(const std::string& file, std::string* pProblem) {
    if (file.empty()) {
        const char* pszValue = getenv(kPasswordVariable);
        return pszValue ? std::optional<std::string>(pszValue) : std::nullopt;
    }
    std::ifstream stream(file);
    std::string line;
    if (!std::getline(stream, line)) {
        *pProblem = file + ": " + (errno != 0 && !stream.is_open() ? strerror(errno) : "no line in it");
        return std::nullopt;
    }
    line.resize(line.find_last_not_of('\r') + 1);
    return line;
}

std::optional<std::string> AskPassword(const std::string& prompt) {
    InterruptLater interrupt;
    const QuietTerminal terminal;
    if (!terminal) {
        return std::nullopt;
    }
    terminal.Write(prompt);
    std::optional<std::string> line = terminal.ReadLine(interrupt);
    terminal.Write("\n");
    return line;
}

} // namespace tools
