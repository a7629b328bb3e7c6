// tqcon under somebody's hands: completion and colours by themselves, and the program on a terminal.
#include <gtest/gtest.h>

#include <termios.h>

#include "Colours.h"
#include "Completion.h"
#include "ConsoleFixture.h"
#include "TerminalProgram.h"
#include "Tools.h"

namespace {

using tqcon::Argument;
using tqcon::Named;

// Completion

std::vector<Named> SomeNames(Argument argument) {
    switch (argument) {
    case Argument::Queue:
        return {{"9", "Status"}, {"10", "Sampler"}, {"12", "Server"}, {"20", "TQOS: Telnet"}, {"21", ""}};
    case Argument::Socket:
        return {{"15", "TQOS: Breaker Socket"}, {"16", "Device: TCP"}};
    case Argument::List:
        return {{"1", "TQOS: Handles"}, {"11", "Device: Clients"}};
    case Argument::Trace:
        return {{"6", "tqos"}, {"7", "device"}};
    default:
        ADD_FAILURE() << "nobody has such names";
        return {};
    }
}

struct CompletionRow {
    const char* pszLine;
    size_t begin;
    std::vector<std::string> texts;
};

TEST(Completion, GoesOnWithCommandsAndWithNames) {
    const CompletionRow rows[] = {
        {"se", 0, {"send", "set"}},
        {"SE", 0, {"send", "set"}},
        {"  re", 2, {"reset"}},
        {"sh", 0, {"show"}},
        {"sh th", 3, {"threads"}},
        {"sh det me", 7, {"memory"}},
        {"set tr en st", 10, {"stdout", "stderr"}},
        {"send s", 5, {"Status", "Sampler", "Server"}},
        {"send ", 5, {"Status", "Sampler", "Server", "\"TQOS: Telnet\""}},
        {"send tq", 5, {"\"TQOS: Telnet\""}},
        {"send \"tqos: t", 5, {"\"TQOS: Telnet\""}},
        {"send sampler p", 13, {}},
        {"sh det q 1", 9, {"10", "12"}},
        {"sh det q sa", 9, {"10"}},
        {"send 1", 5, {"10", "12"}},
        {"set his 2", 8, {"20", "21"}},
        {"sh det so dev", 10, {"16"}},
        {"sh so ", 6, {}},
        {"close socket ", 13, {"15", "16"}},
        {"sh has d", 7, {"11"}},
        {"sh l dev", 5, {"\"Device: Clients\""}},
        {"sh l sort=-n", 5, {"sort=-name"}},
        {"sh det tr d", 10, {"device"}},
        {"sh det tr 7", 10, {"7"}},
        {"set tr lev w", 11, {"Warning"}},
        {"set tr lev warn t", 16, {"tqos"}},
        {"set sem o", 8, {"on", "off"}},
        {"sh det mem pool=1 filtero", 18, {"filterout="}},
        {"sh tic x", 7, {}},
        {"nothing such", 8, {}},
        {"sh q", 3, {"queues"}},
    };
    for (const CompletionRow& row : rows) {
        const tqcon::Completion completion = tqcon::Complete(row.pszLine, SomeNames);
        std::vector<std::string> texts;
        for (const tqcon::Candidate& candidate : completion.candidates) {
            texts.push_back(candidate.text);
        }
        EXPECT_EQ(row.texts, texts) << row.pszLine;
        EXPECT_EQ(row.begin, completion.begin) << row.pszLine;
    }
}

TEST(Completion, SeveralCandidatesGiveWhatTheyBeginWith) {
    EXPECT_EQ("se", tqcon::CommonBeginning({{"send", ""}, {"set", ""}}));
    EXPECT_EQ("S", tqcon::CommonBeginning({{"Status", ""}, {"sampler", ""}}));
    EXPECT_EQ("one", tqcon::CommonBeginning({{"one", ""}}));
    EXPECT_EQ("", tqcon::CommonBeginning({}));
}

// Colours

TEST(Colours, AreTheOnlyDifference) {
    const std::string text =
        "Inst   Name\n----   ----\n 7     x\n\nSyntax error.\n\nResponse received from queue A: now\nanswer";
    const std::string painted = tqcon::Painted(text);
    EXPECT_EQ("\x1b[1mInst   Name\x1b[0m\n----   ----\n 7     x\n\n\x1b[31mSyntax error.\x1b[0m\n\n"
              "\x1b[36mResponse received from queue A: now\x1b[0m\nanswer",
              painted);
    EXPECT_EQ("", tqcon::Painted(""));
}

// The program

/// The environment that the program is given, while the object lives.
class Environment {
public:
    Environment() {
        setenv("TERM", "xterm", 1);
        setenv("TQCON_HISTORY", "history", 1);
        setenv("TQOS_PASSWORD", "lookinside", 1);
        unsetenv("NO_COLOR");
    }
};

class OnTerminal : public test::TerminalProgram {
public:
    explicit OnTerminal(unsigned int port) : TerminalProgram({TQCON_PROGRAM, "127.0.0.1:" + std::to_string(port)}) {}

    /// Types once the editor reads keys by itself (the prompt comes a moment earlier), and returns what comes up to
    /// this text.
    std::string Type(const std::string& keys, const std::string& upTo) {
        TypeOnly(keys);
        return Terminal().ReadTo(upTo);
    }
    void TypeOnly(const std::string& keys) {
        EXPECT_TRUE(test::WaitUntil([this] {
            struct termios mode = {};
            return tcgetattr(Terminal().Descriptor().Get(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
        })) << "the editor does not read";
        Terminal().Send(keys);
    }
};

bool Has(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

class InteractiveWithDevice : public test::WithDevice {
    Environment m_environment;
};
INSTANTIATE_TEST_SUITE_P(, InteractiveWithDevice, testing::Values("64", "32"), test::WidthName);

TEST_P(InteractiveWithDevice, ASessionUnderSomebodysHands) {
    test::DemoDevice device(Program());
    OnTerminal tqcon(device.ConsolePort());
    tqcon.Terminal().ReadTo("TQOS Diagnostic interface. (CTRL-E will toggle character echoing.)\r\n");
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    EXPECT_TRUE(Has(tqcon.Type("sh tic\r", ">"), "ms for each clock tick.\r\n"));
    EXPECT_TRUE(Has(tqcon.Type("nonsense\r", ">"), "\x1b[31mSyntax error.\x1b[0m\r\n"));
    EXPECT_TRUE(Has(tqcon.Type("sh q\r", "\r\n>"), "\x1b[1mQueueId  Depth "));
    tqcon.Type("send sam\t", "Sampler ");
    EXPECT_TRUE(Has(tqcon.Type("period\r", "\r\n>"), "\r\none sample every 1000 ms\r\n"));
    tqcon.Type("se\t", "SEnd  SET");
    tqcon.Type("\x15sh det q samp\t", "10");
    EXPECT_TRUE(
        Has(tqcon.Type("\r", "Low Priority Messages enqueued.\r\n>"), "No High Priority Messages enqueued.\r\n"));
    tqcon.TypeOnly("quit\r");
    EXPECT_EQ(0, tqcon.WaitForEnd());
    EXPECT_TRUE(Has(test::ReadFile("history"), "nonsense")) << test::ReadFile("history");
}

TEST_P(InteractiveWithDevice, LinesOfEarlierSessionsAreRecalled) {
    test::DemoDevice device(Program());
    {
        OnTerminal tqcon(device.ConsolePort());
        tqcon.Terminal().ReadTo("\r\n\r\n>");
        tqcon.Type("sh tic\r", ">");
        tqcon.TypeOnly("\x04");
        EXPECT_EQ(0, tqcon.WaitForEnd());
    }
    OnTerminal tqcon(device.ConsolePort());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    tqcon.Type("\x1b[A", "sh tic");
    EXPECT_TRUE(Has(tqcon.Type("\r", ">"), "ms for each clock tick.\r\n"));
}

TEST_P(InteractiveWithDevice, ThePasswordIsAskedForAndNotShown) {
    test::DemoDevice device(Program());
    unsetenv("TQOS_PASSWORD");
    OnTerminal tqcon(device.ConsolePort());
    const std::string question = "password of 127.0.0.1:" + std::to_string(device.ConsolePort()) + ": ";
    tqcon.Terminal().ReadTo(question);
    tqcon.Terminal().Send("lookoutside\r");
    EXPECT_EQ("\r\n" + question, tqcon.Terminal().ReadTo(question));
    tqcon.Terminal().Send("lookinside\r");
    const std::string greeting = tqcon.Terminal().ReadTo("\r\n\r\n>");
    EXPECT_FALSE(Has(greeting, "look"));
    tqcon.TypeOnly("quit\r");
    EXPECT_EQ(0, tqcon.WaitForEnd());
}

TEST_P(InteractiveWithDevice, ThreeWrongPasswordsAreStatusTwo) {
    test::DemoDevice device(Program());
    unsetenv("TQOS_PASSWORD");
    OnTerminal tqcon(device.ConsolePort());
    for (int i = 0; i < 3; ++i) {
        tqcon.Terminal().ReadTo(": ");
        tqcon.Terminal().Send("no\r");
    }
    tqcon.Terminal().ReadTo("tqcon: the device does not take the password\r\n");
    EXPECT_EQ(2, tqcon.WaitForEnd());
}

TEST_P(InteractiveWithDevice, WithoutColoursTheTextIsTheDevices) {
    test::DemoDevice device(Program());
    setenv("NO_COLOR", "1", 1);
    OnTerminal tqcon(device.ConsolePort());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    EXPECT_TRUE(Has(tqcon.Type("nonsense\r", ">"), "\nSyntax error.\r\n"));
    EXPECT_TRUE(Has(tqcon.Type("sh q\r", "\r\n>"), "\nQueueId  Depth "));
}

TEST_P(InteractiveWithDevice, SaysThatTheDeviceHasEndedTheSession) {
    test::DemoDevice device(Program());
    OnTerminal tqcon(device.ConsolePort());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    device.End();
    tqcon.Terminal().ReadTo("the connection has ended: the other side has closed it");
    EXPECT_EQ(3, tqcon.WaitForEnd());
}

struct NamePlace {
    const char* pszTyped;    ///< and the tabulator behind it
    const char* pszGoesOn;   ///< typed behind what that makes of it
    const char* pszAnswered; ///< by the device, which would refuse what was typed as it stands
};

// Every place of a command where a queue, a socket, a list or a trace instance is named.
constexpr NamePlace kNamePlaces[] = {
    {"show summary samp", "", "one sample every "},
    {"show detail sockets \"device: t", "", "Details for socket handle: "},
    {"show detail queues samp", "", "No High Priority Messages enqueued."},
    {"show lists \"device: c", "", "Total matching Lists: 1\r\n"},
    {"show hlists \"tqos: all q", "", "Total matching Lists: 1\r\n"},
    {"show hashes \"tqos: all q", "", " there is 1 hash "},
    {"show detail trace dev", "", "  Name:                  device\r\n"},
    {"send samp", "period", "one sample every "},
    {"set trace enable stdout dev", "", " device\r\n"},
    {"set trace disable stderr dev", "", " device\r\n"},
    {"set trace disable multicast dev", "", " device\r\n"},
    {"set trace disable devstudio dev", "", " device\r\n"},
    {"set trace disable file dev", "", " device\r\n"},
    {"set trace enable timestamp dev", "", " device\r\n"},
    {"set trace enable threadid dev", "", " device\r\n"},
    {"set trace level debug dev", "", " Debug "},
    {"set trace category all dev", "", " device\r\n"},
    {"set history samp", "5", "Queue History set to 5."},
    {"close timer samp", "77", "Could not find a matching Timer."},
    {"close socket \"device: loc", "", "\r\n"},
};

TEST_P(InteractiveWithDevice, NamesAreCompletedWhereverOneIsTaken) {
    test::DemoDevice device(Program());
    setenv("NO_COLOR", "1", 1);
    OnTerminal tqcon(device.ConsolePort());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    for (const NamePlace& place : kNamePlaces) {
        SCOPED_TRACE(place.pszTyped);
        tqcon.Type(std::string(place.pszTyped) + "\t" + place.pszGoesOn + "\r", place.pszAnswered);
        tqcon.Terminal().ReadTo(">");
    }
    EXPECT_TRUE(Has(tqcon.Type("sh so\r", "Device: local"), "T X DOMAIN-Client"));
}

/// A console in this process, which can answer whenever it likes.
class OwnConsole : public test::Console {
public:
    OwnConsole() : test::Console(nullptr, test::kNoCrashReport) {}
};

TEST(Interactive, WhatComesUnaskedStandsAboveTheLine) {
    OwnConsole console;
    const Environment environment;
    OnTerminal tqcon(console.Port());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    tqcon.Type("send door x\r", "custom of 33 bytes: x\r\n>");
    tqcon.Type("sh ti", "sh ti");
    tq_TelnetSendResponse("news", console.Door().GetHandle(), console.Door().LastRequest().instance, 0, 0);
    const std::string news = tqcon.Terminal().ReadTo("sh ti");
    EXPECT_TRUE(Has(news, "Response received from queue Door: ")) << news;
    EXPECT_TRUE(Has(news, "\r\nnews\r\n")) << news;
    EXPECT_TRUE(Has(tqcon.Type("c\r", "\r\n>"), "ms for each clock tick.\r\n"));
}

TEST(Interactive, AnInterruptGivesTheLineUp) {
    OwnConsole console;
    const Environment environment;
    OnTerminal tqcon(console.Port());
    tqcon.Terminal().ReadTo("\r\n\r\n>");
    tqcon.Type("send door x", "send door x");
    tqcon.Type("\x03", "\r\n>");
    EXPECT_TRUE(Has(tqcon.Type("sh tic\r", "\r\n>"), "ms for each clock tick.\r\n"));
    tqcon.TypeOnly("exit\r");
    EXPECT_EQ(0, tqcon.WaitForEnd());
}

} // namespace
