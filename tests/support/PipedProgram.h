/// @file PipedProgram.h
/// A program as another program sees it: its standard input and output are one stream of the test's.
#ifndef PIPED_PROGRAM_H
#define PIPED_PROGRAM_H

#include <signal.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "ConsoleClient.h"

namespace test {

/// A program with its standard input and output on a stream. Ends with the object, killed if it has to be.
class PipedProgram {
public:
    /// @param arguments  the program and its arguments
    explicit PipedProgram(std::vector<std::string> arguments) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            ADD_FAILURE() << strerror(errno);
            return;
        }
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        m_child = fork();
        if (m_child == 0) {
            dup2(ends[1], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(ends[1]);
        m_stream = Fd(ends[0]);
    }
    ~PipedProgram() {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
    }
    PipedProgram(const PipedProgram&) = delete;
    PipedProgram& operator=(const PipedProgram&) = delete;

    void Type(const std::string& text) {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(m_stream.Get(), text.data(), text.size()));
    }
    /// Ends its standard input.
    void EndInput() { shutdown(m_stream.Get(), SHUT_WR); }

    /// The next line of its output, without its end; empty at the end of the output.
    std::string ReadLine() {
        size_t end;
        while ((end = m_output.find('\n')) == std::string::npos && ReadMore()) {
        }
        const std::string line = m_output.substr(0, end);
        m_output.erase(0, end == std::string::npos ? end : end + 1);
        return line;
    }

    /// Reads lines until one holds the text, and gives it back; empty when there is none.
    std::string ReadLineWith(const std::string& text) {
        std::string line;
        do {
            line = ReadLine();
        } while (!line.empty() && line.find(text) == std::string::npos);
        return line;
    }

    /// What is left of its output, to the end.
    std::string ReadAll() {
        while (ReadMore()) {
        }
        return std::exchange(m_output, "");
    }

    /// Waits for its end, which the end of its output must have announced.
    /// @return its exit status; -1 when it was killed by a signal
    int Wait() {
        int status = 0;
        waitpid(std::exchange(m_child, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    bool ReadMore() {
        char bytes[4096];
        const ssize_t length = WaitReadable(m_stream) ? read(m_stream.Get(), bytes, sizeof(bytes)) : 0;
        m_output.append(bytes, length > 0 ? static_cast<size_t>(length) : 0);
        return length > 0;
    }

    Fd m_stream;
    pid_t m_child = -1;
    std::string m_output;
};

} // namespace test

#endif // PIPED_PROGRAM_H
