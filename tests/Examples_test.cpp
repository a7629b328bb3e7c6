// The example programs, each run from outside as its user runs it.
#include <gtest/gtest.h>

#include <net/if.h>
#include <net/route.h>
#include <regex>
#include <sched.h>
#include <signal.h>
#include <sstream>
#include <sys/ioctl.h>
#include <thread>

#include "PipedProgram.h"

namespace {

/// The command line of an example, under emulation where the tests are.
std::vector<std::string> Command(const std::string& name, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command;
    std::istringstream words(EXAMPLES_EMULATOR);
    for (std::string word; words >> word;) {
        command.push_back(word);
    }
    command.push_back(std::string(EXAMPLES_DIR "/") + name + "/example_" + name);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

TEST(Examples, HelloSaysHelloAndTicksThreeTimes) {
    test::ScratchDirectory directory;
    test::PipedProgram hello(Command("hello"));
    EXPECT_EQ("hello, number 1\nhello, number 2\ntick\ntick\ntick\n", hello.ReadAll());
    EXPECT_EQ(0, hello.Wait());
}

TEST(Examples, EchoSendsEverythingBackAndIsHeldByAClientThatDoesNotRead) {
    test::ScratchDirectory directory;
    test::PipedProgram echo(Command("echo"));
    unsigned int port = 0;
    ASSERT_EQ(1, sscanf(echo.ReadLine().c_str(), "echo: port %u", &port));
    test::ConsoleClient quick(port);
    test::ConsoleClient slow(port);
    std::string text;
    for (unsigned int i = 0; text.size() < 1000000; ++i) {
        text += std::to_string(i) + " ";
    }
    std::thread sender([&] { slow.Send(text); }); // more than it and the kernel take: it waits until we read
    quick.Send("hello\n");
    EXPECT_EQ("hello\n", quick.ReadTo("hello\n"));
    EXPECT_EQ(text, slow.ReadTo(text));
    sender.join();
    echo.EndInput();
    EXPECT_EQ("", echo.ReadAll());
    EXPECT_EQ(0, echo.Wait());
}

/// Puts the process into a network of its own, in which there is nothing but the loopback interface.
bool EnterNetworkOfLoopbackAlone() {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return false;
    }
    test::Fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq interface = {};
    strcpy(interface.ifr_name, "lo");
    interface.ifr_flags = IFF_UP | IFF_RUNNING;
    struct rtentry route = {};
    char device[] = "lo";
    route.rt_dev = device;
    route.rt_flags = RTF_UP;
    route.rt_dst.sa_family = AF_INET;
    route.rt_genmask.sa_family = AF_INET; // the route of everything that has no other
    return ioctl(any.Get(), SIOCSIFFLAGS, &interface) == 0 && ioctl(any.Get(), SIOCADDRT, &route) == 0;
}

TEST(Examples, ChatCarriesWhatIsTypedToEverybodyInTheGroup) {
    test::ScratchDirectory directory;
    if (!EnterNetworkOfLoopbackAlone()) {
        GTEST_SKIP() << "no network of our own: " << strerror(errno);
    }
    test::PipedProgram ann(Command("chat", {"ann"}));
    EXPECT_EQ("ann has come", ann.ReadLineWith("ann has come"));
    test::PipedProgram bob(Command("chat", {"bob", "239.255.42.99", "5999"}));
    EXPECT_EQ("bob has come", ann.ReadLineWith("bob has come"));
    bob.Type("hello \x1b[2J\n");
    EXPECT_EQ("bob: hello ?[2J", ann.ReadLineWith("bob: ")); // what would clear a screen does not get there
    ann.Type("hello yourself\n");
    EXPECT_EQ("ann: hello yourself", bob.ReadLineWith("ann: "));
    bob.EndInput();
    EXPECT_EQ("bob has gone", ann.ReadLineWith("bob has gone"));
    bob.ReadAll();
    EXPECT_EQ(0, bob.Wait());
    ann.EndInput();
    ann.ReadAll();
    EXPECT_EQ(0, ann.Wait());
}

TEST(Examples, TraceLeavesItsNewestLinesInFilesThatTakeTurns) {
    test::ScratchDirectory directory;
    test::PipedProgram trace(Command("trace"));
    trace.ReadAll();
    EXPECT_EQ(0, trace.Wait());
    std::string all;
    for (const char* pszFile : {"plant0000.log", "plant0001.log", "plant0002.log"}) {
        const std::string text = test::ReadFile(pszFile);
        EXPECT_NE("", text) << pszFile;
        EXPECT_GT(2200u, text.size()) << pszFile;
        all += text;
    }
    EXPECT_EQ(1u, test::CountOf(all, "turn 100 of the pump"));
    EXPECT_EQ(1u, test::CountOf(all, "written now"));
    EXPECT_EQ(0u, test::CountOf(all, "not written"));
    EXPECT_EQ(0u, test::CountOf(all, "turn 1 of the pump")); // its file has been started again since
}

TEST(Examples, HuntNamesTheLineThatLeaksAndTheBlockThatWasWrittenPastItsEnd) {
    test::ScratchDirectory directory;
    test::WriteFile("tqos.ini", test::ReadFile(EXAMPLES_DIR "/hunt/tqos.ini"));
    test::PipedProgram hunt(Command("hunt"));
    const std::string report = hunt.ReadAll();
    EXPECT_EQ(0, hunt.Wait());
    std::istringstream source(test::ReadFile(EXAMPLES_SOURCES "/hunt/main.cpp"));
    unsigned int leak = 0;
    std::string line;
    for (unsigned int number = 1; leak == 0 && std::getline(source, line); ++number) {
        leak = line.find("pRequest = tq_malloc") != std::string::npos ? number : 0;
    }
    ASSERT_NE(0u, leak);
    // 25 blocks of 48 bytes, by the line that took them
    EXPECT_TRUE(std::regex_search(report, std::regex("\\b25\\b.*main\\.cpp.*\\b" + std::to_string(leak) + "\\b")) ||
                std::regex_search(report, std::regex("main\\.cpp.*\\b" + std::to_string(leak) + "\\b.*\\b25\\b")))
        << report;
    EXPECT_NE(std::string::npos, report.find("written past its end")) << report;
}

TEST(Examples, PluginIsLoadedByNameAnswersAndIsUnloaded) {
    test::ScratchDirectory directory;
    test::PipedProgram plugin(Command("plugin", {EXAMPLES_DIR "/plugin/libexample_doubler.so"}));
    EXPECT_EQ("plugin: answers 42\nplugin: unloaded: yes\n", plugin.ReadAll());
    EXPECT_EQ(0, plugin.Wait());
    test::PipedProgram none(Command("plugin", {"./none.so"}));
    EXPECT_EQ("plugin: ./none.so cannot be loaded\n", none.ReadAll());
    EXPECT_EQ(1, none.Wait());
}

} // namespace
