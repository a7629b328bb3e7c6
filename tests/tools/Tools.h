/// @file Tools.h
/// What the tests of the tools share: the demo device as it was built, in each width that there is, and a tool beside
/// it.
#ifndef TOOLS_H
#define TOOLS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace test {

/// A program that is executed with these arguments and additions to the environment ("NAME=value"), without a terminal.
struct ToolCall {
    std::vector<std::string> arguments; ///< the program first
    std::vector<std::string> environment;
    std::string input; ///< its standard input
};

[[noreturn]] inline void Execute(ToolCall call) {
    setsid(); // no terminal to ask on
    WriteFile("input.txt", call.input);
    dup2(open("input.txt", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    unsetenv("TQOS_PASSWORD");
    for (std::string& variable : call.environment) {
        putenv(&variable[0]);
    }
    std::vector<char*> argv;
    for (std::string& argument : call.arguments) {
        argv.push_back(&argument[0]);
    }
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

inline ChildResult RunTool(const ToolCall& call) {
    return RunInChild([&call] { Execute(call); });
}

/// The demo device's program of a width, "64" or "32"; empty where that is not built.
inline std::string DeviceProgram(const std::string& width) {
    if (width == "64") {
        return DEVICE_PROGRAM;
    }
    const char* pszNamed = getenv("TQOS_DEVICE_32");
    const std::string path = pszNamed ? pszNamed : DEVICE_PROGRAM_32;
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

/// The demo device, running in the working directory with the tqos.ini that comes with it, some of its lines replaced.
class DemoDevice {
public:
    using Changes = std::vector<std::pair<std::string, std::string>>;

    explicit DemoDevice(const std::string& program, const Changes& changes = {}) {
        std::string ini = ReadFile(DEVICE_INI);
        Replace(&ini, "StatusPort=5005", "StatusPort=0");
        for (const auto& change : changes) {
            Replace(&ini, change.first, change.second);
        }
        WriteFile("tqos.ini", ini);
        Start(program);
        ReadOutputUntilReady();
    }
    ~DemoDevice() {
        End();
        close(m_output);
    }
    DemoDevice(const DemoDevice&) = delete;
    DemoDevice& operator=(const DemoDevice&) = delete;

    /// Of its line protocol, and of its console.
    unsigned int Port() const { return m_port; }
    unsigned int ConsolePort() const { return m_consolePort; }
    std::string ConsoleAddress() const { return "127.0.0.1:" + std::to_string(m_consolePort); }
    pid_t Pid() const { return m_pid; }

    /// Ends it and checks that the end was orderly.
    void End() {
        if (m_pid <= 0) {
            return;
        }
        kill(m_pid, SIGTERM);
        int status = 0;
        if (!WaitUntil([&] { return waitpid(m_pid, &status, WNOHANG) != 0; })) {
            ADD_FAILURE() << "the device does not end";
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile("errors.txt");
        m_pid = 0;
    }

private:
    static void Replace(std::string* pText, const std::string& from, const std::string& to) {
        const size_t at = pText->find(from);
        ASSERT_NE(std::string::npos, at) << from;
        pText->replace(at, from.size(), to);
    }

    void Start(const std::string& program) {
        int output[2];
        ASSERT_EQ(0, pipe2(output, O_CLOEXEC));
        m_output = output[0];
        m_pid = fork();
        if (m_pid == 0) {
            dup2(output[1], STDOUT_FILENO);
            dup2(open("errors.txt", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
            execl(program.c_str(), "device", "-d", ".", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(output[1]);
    }

    void ReadOutputUntilReady() {
        std::string text;
        while (text.find("device: ready\n") == std::string::npos) {
            struct pollfd readable = {m_output, POLLIN, 0};
            ASSERT_EQ(1, poll(&readable, 1, 60000)) << "the device says nothing: " << text;
            char buffer[1024];
            const ssize_t count = read(m_output, buffer, sizeof(buffer));
            ASSERT_GT(count, 0) << "the device has ended: " << text << ReadFile("errors.txt");
            text.append(buffer, static_cast<size_t>(count));
        }
        m_port = PortAfter(text, "device: TCP on 127.0.0.1 port ");
        m_consolePort = PortAfter(text, "device: console on 127.0.0.1 port ");
    }

    static unsigned int PortAfter(const std::string& text, const std::string& words) {
        const size_t at = text.find(words);
        EXPECT_NE(std::string::npos, at) << words << "\n" << text;
        return at == std::string::npos ? 0 : static_cast<unsigned int>(atoi(text.c_str() + at + words.size()));
    }

    pid_t m_pid = 0;
    int m_output = -1;
    unsigned int m_port = 0;
    unsigned int m_consolePort = 0;
};

/// For tests with the parameter "64" or "32": a directory of the test's own, and the device's program of that width.
/// Where that is not built the test is left out.
class WithDevice : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        m_program = DeviceProgram(GetParam());
        if (m_program.empty()) {
            GTEST_SKIP() << "no device of " << GetParam() << " bits here; TQOS_DEVICE_32 may name one";
        }
    }
    const std::string& Program() const { return m_program; }

private:
    ScratchDirectory m_directory;
    std::string m_program;
};

inline std::string WidthName(const testing::TestParamInfo<std::string>& width) {
    return "Device" + width.param;
}

} // namespace test

#endif // TOOLS_H
