/// @file TerminalProgram.h
/// A program as its user sees it: under a terminal. The one that matters here is telnet.
#ifndef TERMINAL_PROGRAM_H
#define TERMINAL_PROGRAM_H

#include <memory>
#include <pty.h>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "ConsoleClient.h"

namespace test {

/// A program under a terminal of its own.
class TerminalProgram {
public:
    explicit TerminalProgram(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        struct winsize size = {24, 80, 0, 0};
        int fd = -1;
        m_child = forkpty(&fd, nullptr, nullptr, &size);
        if (m_child == 0) {
            execvp(argv[0], argv.data());
            _exit(127);
        }
        m_pTerminal.reset(new ConsoleClient(Fd(fd)));
    }
    ~TerminalProgram() {
        m_pTerminal->Close(); // the program is hung up on
        if (m_child > 0) {
            waitpid(m_child, nullptr, 0);
        }
    }
    TerminalProgram(const TerminalProgram&) = delete;
    TerminalProgram& operator=(const TerminalProgram&) = delete;

    ConsoleClient& Terminal() { return *m_pTerminal; }
    pid_t Pid() const { return m_child; }

    /// Waits until it ends by itself; its exit status, -1 when it did not exit.
    int WaitForEnd() {
        int status = 0;
        if (!WaitUntil([&] { return waitpid(m_child, &status, WNOHANG) != 0; })) {
            ADD_FAILURE() << "the program does not end";
            return -1;
        }
        m_child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_child;
    std::unique_ptr<ConsoleClient> m_pTerminal;
};

inline bool HaveTelnet() {
    std::istringstream path(getenv("PATH") ? getenv("PATH") : "");
    std::string directory;
    while (std::getline(path, directory, ':')) {
        if (access((directory + "/telnet").c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

/// For a library in whose process programs are started: a signal that one of them gets is none of its business.
constexpr char kNoCrashReport[] = "[SignalHandler]\nDisable=yes\n";

/// telnet, connected to the console.
class TelnetProgram : public TerminalProgram {
public:
    explicit TelnetProgram(unsigned int port) : TerminalProgram({"telnet", "127.0.0.1", std::to_string(port)}) {
        Terminal().ReadTo("Escape character is '^]'.\r\n");
        Terminal().ExpectAtEnd("Connection closed by foreign host.\r\n");
    }
};

} // namespace test

#endif // TERMINAL_PROGRAM_H
