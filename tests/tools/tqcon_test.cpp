// tqcon from outside, beside the demo device.
#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "Tools.h"

namespace {

using test::ChildResult;
using test::DemoDevice;
using test::ScratchDirectory;
using test::ToolCall;

constexpr char kPassword[] = "TQOS_PASSWORD=lookinside";

ChildResult Tqcon(std::vector<std::string> arguments, const std::vector<std::string>& environment = {kPassword},
                  const std::string& input = "") {
    arguments.insert(arguments.begin(), TQCON_PROGRAM);
    return test::RunTool({arguments, environment, input});
}

class TqconWithDevice : public test::WithDevice {};
INSTANTIATE_TEST_SUITE_P(, TqconWithDevice, testing::Values("64", "32"), test::WidthName);

TEST_P(TqconWithDevice, RunsCommandsAndWritesTheirAnswersAlone) {
    DemoDevice device(Program());
    const ChildResult result = Tqcon({device.ConsoleAddress(), "-c", "sh tic", "-c", "send sampler period 500"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("", result.standardError);
    EXPECT_EQ(0u, result.standardOut.find("  There are ")) << result.standardOut;
    EXPECT_NE(std::string::npos, result.standardOut.find("ms for each clock tick.\n\nResponse received from queue "
                                                         "Sampler: "))
        << result.standardOut;
    EXPECT_NE(std::string::npos, result.standardOut.find("\none sample every 500 ms\n")) << result.standardOut;
    EXPECT_EQ(std::string::npos, result.standardOut.find('\r'));
}

TEST_P(TqconWithDevice, TakesReportsThatComeThroughTheConsolesQueueWhole) {
    DemoDevice device(Program());
    const ChildResult result = Tqcon({device.ConsoleAddress(), "-c", "sh l", "-c", "sh han"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_NE(std::string::npos, result.standardOut.find("Total matching Lists: ")) << result.standardOut;
    EXPECT_NE(std::string::npos, result.standardOut.find("                           Total: ")) << result.standardOut;
}

TEST_P(TqconWithDevice, WaitsForEveryQueueThatASummaryAsks) {
    DemoDevice device(Program());
    const ChildResult result = Tqcon({device.ConsoleAddress(), "--wait", "30", "-c", "sh sum", "-c", "sh det sum"});
    EXPECT_EQ(0, result.code) << result.standardError;
    for (const char* pszQueue : {"Sampler", "Server", "Status", "TQOS: Telnet"}) {
        EXPECT_EQ(1u, test::CountOf(result.standardOut, std::string("from queue ") + pszQueue + ": ")) << pszQueue;
    }
    EXPECT_EQ(2u, test::CountOf(result.standardOut, "clients: 0; lines answered: 0")) << result.standardOut;
    EXPECT_EQ(2u, test::CountOf(result.standardOut, "Telnet Connections: 1")) << result.standardOut;
}

TEST_P(TqconWithDevice, ASyntaxErrorIsStatusOneAndTheRestIsRun) {
    DemoDevice device(Program());
    const std::vector<std::string> commands = {device.ConsoleAddress(), "-c", "nonsense", "-c", "sh tic"};
    ChildResult result = Tqcon(commands);
    EXPECT_EQ(1, result.code);
    EXPECT_EQ("tqcon: nonsense: Syntax error.\n", result.standardError);
    EXPECT_EQ(0u, result.standardOut.find("Syntax error.\n\n  There are ")) << result.standardOut;

    std::vector<std::string> stopping = commands;
    stopping.push_back("--stop");
    result = Tqcon(stopping);
    EXPECT_EQ(1, result.code);
    EXPECT_EQ("Syntax error.\n", result.standardOut);
}

TEST_P(TqconWithDevice, AScriptsLinesEndAnyWay) {
    DemoDevice device(Program());
    test::WriteFile("script", "# ticks\r\nsh tic\rsh tic\n\nsh tic\r\nsh tic");
    ChildResult result = Tqcon({device.ConsoleAddress(), "-f", "script", "-c", "sh dir"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(4u, test::CountOf(result.standardOut, "for each clock tick")) << result.standardOut;
    EXPECT_EQ(1u, test::CountOf(result.standardOut, "working directory")) << result.standardOut;

    result = Tqcon({device.ConsoleAddress()}, {kPassword}, "sh tic\nsh tic\n");
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(2u, test::CountOf(result.standardOut, "for each clock tick")) << result.standardOut;
}

TEST_P(TqconWithDevice, ThePasswordComesFromAFileOrTheEnvironment) {
    DemoDevice device(Program());
    test::WriteFile("right", "lookinside\r\nsecond line\n");
    test::WriteFile("wrong", "lookoutside\n");
    EXPECT_EQ(0, Tqcon({device.ConsoleAddress(), "-c", "sh up", "--password-file", "right"}, {}).code);
    EXPECT_EQ(0, Tqcon({device.ConsoleAddress(), "-c", "sh up"}, {kPassword}).code);

    ChildResult result = Tqcon({device.ConsoleAddress(), "-c", "sh up", "--password-file", "wrong"});
    EXPECT_EQ(2, result.code);
    EXPECT_EQ("tqcon: the device does not take the password\n", result.standardError);
    EXPECT_EQ("", result.standardOut);

    result = Tqcon({device.ConsoleAddress(), "-c", "sh up"}, {}); // and no terminal to ask on
    EXPECT_EQ(2, result.code);
    result = Tqcon({device.ConsoleAddress(), "-c", "sh up", "--password-file", "missing"}, {});
    EXPECT_EQ(2, result.code);
    EXPECT_EQ("tqcon: missing: No such file or directory\n", result.standardError);
}

TEST_P(TqconWithDevice, ADeviceWithoutAPasswordAsksForNone) {
    DemoDevice device(Program(), {{"Password=lookinside", "Password="}});
    EXPECT_EQ(0, Tqcon({device.ConsoleAddress(), "-c", "sh up"}, {}).code);
    EXPECT_EQ(0, Tqcon({device.ConsoleAddress(), "-c", "sh up"}, {kPassword}).code);
}

TEST_P(TqconWithDevice, QuitEndsTheSessionInGoodOrder) {
    DemoDevice device(Program());
    ChildResult result = Tqcon({device.ConsoleAddress(), "-c", "quit", "-c", "nonsense"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("", result.standardError);
    EXPECT_EQ("", result.standardOut);
    result = Tqcon({device.ConsoleAddress(), "-c", "quit now"});
    EXPECT_EQ(1, result.code);
}

TEST_P(TqconWithDevice, KeepsTheEchoThatItReadsTheSessionBy) {
    DemoDevice device(Program());
    const ChildResult result = Tqcon({device.ConsoleAddress(), "-c", "E Off", "-c", "\x05sh\ttic", "-c", "echo on"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(0u, result.standardOut.find("The console's echo stays on: this session is read by it.\n"));
    EXPECT_EQ(1u, test::CountOf(result.standardOut, "for each clock tick")) << result.standardOut;
}

TEST(Tqcon, NobodyThereIsStatusThree) {
    ScratchDirectory directory;
    const test::Fd listener = test::BoundPeer(SOCK_STREAM); // bound, and not listening
    const std::string address = "127.0.0.1:" + std::to_string(test::PortOf(listener));
    const ChildResult result = Tqcon({address, "-c", "sh up"});
    EXPECT_EQ(3, result.code);
    EXPECT_EQ("tqcon: " + address + ": Connection refused\n", result.standardError);
}

TEST(Tqcon, ASilentPeerIsStatusFour) {
    ScratchDirectory directory;
    const test::Fd listener = test::ListeningPeer();
    const std::string address = "127.0.0.1:" + std::to_string(test::PortOf(listener));
    const ChildResult result = Tqcon({address, "-c", "sh up", "--timeout", "0.2"});
    EXPECT_EQ(4, result.code);
    EXPECT_NE("", result.standardError);
}

TEST(Tqcon, ArgumentsThatItDoesNotUnderstandAreStatusSixtyFour) {
    ScratchDirectory directory;
    EXPECT_EQ(64, Tqcon({}).code);
    EXPECT_EQ(64, Tqcon({"device"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "b:1"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "--password", "x"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "--timeout", "soon"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "-f", "missing"}).code);
    EXPECT_EQ(64, Tqcon({"top"}).code);
    EXPECT_EQ(64, Tqcon({"top", "leaks", "a:1"}).code);
    EXPECT_EQ(64, Tqcon({"top", "a:1", "-c", "sh q"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "--watch", "1"}).code);
    EXPECT_EQ(64, Tqcon({"a:1", "--count", "0", "-c", "sh q"}).code);
    EXPECT_EQ(64, Tqcon({"leaks", "a:1", "--filter", "two words"}).code);
    const ChildResult help = Tqcon({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.standardOut.find("Exit status:")) << help.standardOut;
}

TEST(Tqcon, ThePageHasTheHelpAsItIs) {
    ScratchDirectory directory;
    const std::string help = Tqcon({"--help"}).standardOut;
    std::string block;
    for (size_t at = 0; at < help.size(); at = help.find('\n', at) + 1) {
        const std::string line = help.substr(at, help.find('\n', at) + 1 - at);
        block += line == "\n" ? line : "    " + line;
    }
    EXPECT_NE(std::string::npos, test::ReadFile(TQCON_PAGE).find("\n\n" + block + "\n")) << block;
}

} // namespace
