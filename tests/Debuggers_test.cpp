// What stands beside debuggers: GDB's view of lists, queues and messages, and crash reports read away from the device.
#include <gtest/gtest.h>

#include <regex>

#include "PipedProgram.h"
#include "TerminalProgram.h"

namespace {

bool Have(const char* pszProgram) {
    return system((std::string("command -v ") + pszProgram + " >/dev/null").c_str()) == 0;
}

std::string OutputOf(const std::vector<std::string>& command) {
    test::PipedProgram program(command);
    program.EndInput();
    const std::string output = program.ReadAll();
    program.Wait();
    return output;
}

std::string InGdb(const std::vector<std::string>& commands) {
    std::vector<std::string> gdb = {"gdb", "-nx", "-q", "-batch"};
    for (const std::string& command : commands) {
        gdb.push_back("-ex");
        gdb.push_back(command);
    }
    gdb.push_back(DEBUGGED_PROGRAM);
    return OutputOf(gdb);
}

/// The number of a source line of the debugged program.
std::string LineWith(const std::string& text) {
    const std::string source = test::ReadFile(DEBUGGED_SOURCE);
    const std::string before = source.substr(0, source.find(text));
    return std::to_string(test::CountOf(before, "\n") + 1);
}

class Gdb : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Have("gdb")) {
            GTEST_SKIP() << "no gdb on this machine";
        }
    }
    const std::string m_source = std::string("source ") + GDB_SCRIPT;
    const test::ScratchDirectory m_directory;
};

TEST_F(Gdb, ShowsAQueueWithTheMessagesThatWait) {
    const std::string output = InGdb({m_source, "break Stopped", "run", "print queue"});
    const std::regex queue("= tq_MsgQ \"Held\", handle (\\d+), 2 waiting = "
                           "\\{high\\[0\\] = MSG_TIMER \\{hSource = 0, hDest = \\1, size = 28, instance = 6, "
                           "userparm = 7, flags = 8\\}, medium\\[0\\] = MSG_USER \\+ 3 \\{hSource = 5, hDest = \\1, "
                           "size = 28, instance = 1, userparm = 2, flags = 4\\}\\}");
    EXPECT_TRUE(std::regex_search(output, queue)) << output;
}

TEST_F(Gdb, ShowsAListWithItsNodes) {
    const std::string output = InGdb({m_source, "break Stopped", "run", "print list"});
    const std::regex list("= tq_List \"Some nodes\", 2 nodes \\(at most 2\\) = \\{0x[0-9a-f]+, 0x[0-9a-f]+\\}");
    EXPECT_TRUE(std::regex_search(output, list)) << output;
}

TEST_F(Gdb, ListsEveryQueue) {
    const std::string output = InGdb({m_source, "break Stopped", "run", "info tqos-queues"});
    EXPECT_TRUE(std::regex_search(output, std::regex("\ntq_MsgQ \"Held\", handle \\d+, 2 waiting\n"))) << output;
}

class Tqcrash : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Have("python3") || !Have("addr2line")) {
            GTEST_SKIP() << "no python3 or addr2line on this machine";
        }
        m_report = OutputOf({DEBUGGED_PROGRAM, "crash"});
        test::WriteFile("report", m_report);
    }
    const test::ScratchDirectory m_directory;
    std::string m_report;
};

TEST_F(Tqcrash, GivesFunctionAndLineOfEachFrame) {
    const std::string output = OutputOf({TQCRASH, "report"});
    const std::string fault = "Crash\\(int volatile\\*\\) at .*main\\.cpp:" + LineWith("the fault is here");
    const std::string caller = "main at .*main\\.cpp:" + LineWith("            Crash(nullptr)");
    const std::regex backtrace("debugged\\([^\n]*\n    [^\n]*" + fault + "\n[^\n]*debugged\\([^\n]*\n    " + caller);
    EXPECT_TRUE(std::regex_search(output, backtrace)) << output;
    // And in the trace, whose lines are addresses alone.
    const std::regex trace("CRT: 0x[0-9a-f]+\n    [^\n]*" + fault + "\n[^\n]*CRT: 0x[0-9a-f]+\n    " + caller);
    EXPECT_TRUE(std::regex_search(output, trace)) << output;
    for (std::istringstream lines(m_report); std::getline(lines, m_report);) {
        EXPECT_NE(std::string::npos, output.find(m_report + "\n")) << "lost: " << m_report;
    }
}

TEST_F(Tqcrash, SaysTheSameOnATerminal) {
    const std::string expected = std::regex_replace(OutputOf({TQCRASH, "report"}), std::regex("\n"), "\r\n");
    test::TerminalProgram program({TQCRASH, "report"});
    EXPECT_EQ(expected, program.Terminal().ReadTo(expected));
    EXPECT_EQ(0, program.WaitForEnd());
}

TEST_F(Tqcrash, SaysWhatIsBelowNoRoot) {
    const std::string output = OutputOf({TQCRASH, "report", "--root", "."});
    EXPECT_TRUE(std::regex_search(output, std::regex("\n    no [^\n]*debugged with this symbol below any root\n")))
        << output;
}

TEST_F(Tqcrash, FindsADevicesFilesBelowARootByTheirNames) {
    ASSERT_EQ(0, system("mkdir -p root/usr/bin && cp " DEBUGGED_PROGRAM " root/usr/bin"));
    EXPECT_NE(std::string::npos, OutputOf({TQCRASH, "report", "--root", "root"}).find("Crash(int volatile*) at "));
}

} // namespace
