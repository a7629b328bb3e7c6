#include "tq_Telnet_p.h"

#include <atomic>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "PageExample.h"
#include "TerminalProgram.h"

namespace {

using test::Console;
using test::ConsoleClient;

// Whole sessions

struct WrittenSession {
    const char* pszName;
    const char* pszPassword;
};

void PrintTo(const WrittenSession& session, std::ostream* pStream) {
    *pStream << session.pszName;
}

class ConsoleSession : public testing::TestWithParam<WrittenSession> {};

void WriteScripts() {
    test::WriteFile("good.txt", "sh tic\rbadcmd\recho off\rsh tic");
    test::WriteFile("with blank.txt", "echo on\r");
    test::WriteFile("linefeeds.txt", "sh tic\nsh tic\n");
    test::WriteFile("empty.txt", "");
    test::WriteFile("outer.txt", "run quit.txt\rsh curx\r");
    test::WriteFile("quit.txt", "quit\rsh ticks\r");
    test::WriteFile("self.txt", "run self.txt\r");
}

TEST_P(ConsoleSession, RunsAsWritten) {
    Console console(GetParam().pszPassword);
    WriteScripts();
    ConsoleClient client = console.Connect();
    test::RunSession(client, test::SessionFile(GetParam().pszName), console.TheValues());
}

TEST_P(ConsoleSession, RunsThroughTheRealClientToo) {
    if (!test::HaveTelnet()) {
        GTEST_SKIP() << "this machine has no telnet program";
    }
    Console console(GetParam().pszPassword, test::kNoCrashReport);
    WriteScripts();
    test::TelnetProgram telnet(console.Port());
    telnet.Terminal().ReadTo(GetParam().pszPassword ? "login: " : "\r\n\r\n>");
    test::RunSession(telnet.Terminal(), test::SessionFile(GetParam().pszName), console.TheValues());
}

TEST(Telnet, SpeaksAsThePageOfItsProtocolSays) {
    Console console("sesame");
    ConsoleClient client(console.Port());
    for (const test::Spoken& spoken : test::PageExample("console-protocol.md")) {
        SCOPED_TRACE(spoken.line);
        if (spoken.speaker == "client") {
            client.Send(spoken.Bytes());
            continue;
        }
        ASSERT_EQ("device", spoken.speaker);
        ASSERT_TRUE(client.Expect(spoken.Bytes()));
        for (size_t i = 1; i < spoken.pieces.size(); ++i) {
            client.ReadTo(spoken.pieces[i]);
        }
    }
    EXPECT_TRUE(client.IsClosed());
}

INSTANTIATE_TEST_SUITE_P(Telnet, ConsoleSession,
                         testing::Values(WrittenSession{"login", "Secret"},
                                         WrittenSession{"three_wrong_passwords", "Secret"},
                                         WrittenSession{"editing", nullptr}, WrittenSession{"scripts", nullptr},
                                         WrittenSession{"nested_scripts", nullptr},
                                         WrittenSession{"requests", nullptr}),
                         [](const auto& session) { return std::string(session.param.pszName); });

// Sessions

TEST(Telnet, WithoutPasswordASessionStartsLoggedIn) {
    for (const char* pszNone : {static_cast<const char*>(nullptr), ""}) {
        test::Library library;
        ConsoleClient client(tq_TelnetInitialize(0, test::Loopback(), pszNone));
        test::RunSession(client, test::SessionFile("greeting"), {{"prompt", ">"}});
        tq_TelnetTerminate();
    }
}

TEST(Telnet, ManySessionsAreServedAtOnce) {
    Console console;
    std::vector<ConsoleClient> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(console.Connect());
    }
    for (ConsoleClient& client : clients) {
        client.Send("sh sum " + console.TheValues()["console"]);
    }
    for (ConsoleClient& client : clients) {
        client.Send("\r");
    }
    for (ConsoleClient& client : clients) {
        EXPECT_EQ(std::string::npos, client.ReadTo("Connections: 50\r\n>").find("error"));
    }
}

TEST(Telnet, ALineOfAsManyCharactersAsAreKeptIsHandled) {
    Console console;
    ConsoleClient client = console.Connect();
    std::string line;
    while (line.size() < kMaxCommandLength) {
        line += static_cast<char>(32 + line.size() % 95); // each printable character
    }
    client.Send(line + "\r");
    EXPECT_TRUE(client.Expect(line + "\r\nSyntax error.\r\n\r\n>"));
    client.Send("\x1b[A");
    EXPECT_TRUE(client.Expect(line)); // remembered whole
}

TEST(Telnet, OneCharacterMoreClearsTheLine) {
    Console console;
    ConsoleClient client = console.Connect();
    const std::string line(kMaxCommandLength, 'a');
    client.Send(line + "bsh tic\r");
    EXPECT_TRUE(
        client.Expect(line + "\r\nOverflow!\r\nsh tic\r\n\r\n  There are {d}ms for each clock tick.\r\n\r\n\r\n>"));
}

TEST(Telnet, WordsAndQuotesWithoutEndAreRefused) {
    Console console;
    ConsoleClient client = console.Connect();
    for (const std::string& line :
         {std::string(1000, '"'), "\"" + std::string(1000, 'x'), std::string(900, ' ') + "\"",
          "run " + std::string(1000, 'y'), "set tr cat " + std::string(1000, '+') + " tqos"}) {
        client.Send(line + "\r");
        client.ReadTo("\r\n>");
    }
    client.Send("echo on\r");
    EXPECT_TRUE(client.Expect("echo on\r\n>"));
}

TEST(Telnet, CommandsOfTheProtocolMayComeInPieces) {
    Console console;
    ConsoleClient client = console.Connect();
    for (const char* pszPiece : {"\xff", "\xfb", "\x03", "ec", "\xff\xfd", "\x01", "ho o", "\xff", "\xfe\x1f", "n\r"}) {
        client.Send(pszPiece);
    }
    EXPECT_TRUE(client.Expect("echo on\r\n>"));
}

TEST(Telnet, AScriptWhoseLinesEndWithLineFeedsRunsNothing) {
    Console console;
    ConsoleClient client = console.Connect();
    test::WriteFile("script", "quit\nquit\n");
    client.Send("run script\r");
    EXPECT_TRUE(client.Expect("run script\r\nFile Opened, now processing...\r\nquitquitFile processing done!\r\n>"));
}

TEST(Telnet, AResponseToADetailedRequestDoesNotSayFromWhomItComes) {
    Console console;
    ConsoleClient client = console.Connect();
    const std::string ask = "sh det sum " + std::to_string(console.Door().GetHandle());
    client.Send(ask + "\r");
    EXPECT_TRUE(client.Expect(ask + "\r\n>summary, flags 1\r\n>"));
}

TEST(Telnet, AnOptionOfTheProtocolThatIsPrintableIsTyped) {
    Console console;
    ConsoleClient client = console.Connect();
    client.Send("\xff\xfb\x22"); // linemode
    EXPECT_TRUE(client.Expect("\""));
}

TEST(Telnet, TheHundredAndFirstCommandPushesTheOldestOut) {
    Console console;
    ConsoleClient client = console.Connect();
    for (int i = 0; i <= 100; ++i) {
        const std::string line = "x" + std::to_string(i);
        client.Send(line + "\r");
        EXPECT_TRUE(client.Expect(line + "\r\nSyntax error.\r\n\r\n>"));
    }
    for (int i = 0; i < 120; ++i) {
        client.Send("\x1b[A");
    }
    client.ReadTo("x1\b \b\b \bx1"); // the oldest stays
    client.Send("\b\b\x05");
    client.ReadTo("echo off\r\n\r\n>");
}

TEST(Telnet, ASessionThatVanishesIsForgotten) {
    Console console;
    ConsoleClient stays = console.Connect();
    std::string script;
    for (int i = 0; i < 500; ++i) {
        script += "sh l\rsh th\rrun nothing\r";
    }
    test::WriteFile("long.txt", script);
    for (const char* pszTyped : {"", "sh ti", "\x1b[", "send door x\r", "sh sum\r", "help\rhelp\rhelp\r",
                                 "sh l\rsh det mem\rsh mem\rset his door 5\r", "run long.txt\r"}) {
        for (int i = 0; i < 5; ++i) {
            ConsoleClient vanishes(console.Port());
            vanishes.Send(pszTyped);
        }
    }
    const std::string ask = "sh sum " + console.TheValues()["console"] + "\r";
    EXPECT_TRUE(test::WaitUntil([&] {
        stays.Send(ask);
        return stays.ReadTo("\r\n>\r\n").size() + stays.ReadTo("\r\n>").find("Connections: 1\r\n") != std::string::npos;
    }));
}

TEST(Telnet, AResponseLeavesALineThatIsHalfTypedAsItIs) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    client.Send("ech");
    EXPECT_TRUE(client.Expect("ech"));
    tq_TelnetSendResponse("the text", console.Door().GetHandle(), session, 0, 0);
    EXPECT_TRUE(client.Expect("\r\nResponse received from queue Door: {time}\r\nthe text\r\n>ech"));
    tq_TelnetSendResponse("%s again", console.Door().GetHandle(), session, 0, TQ_TELNET_NO_RECEIVED_LINE);
    EXPECT_TRUE(client.Expect("%s again\r\n>ech"));
    tq_TelnetSendResponse("from nobody", 0, session, 0, 0);
    EXPECT_TRUE(client.Expect("\r\nResponse received from queue (Un-Named): {time}\r\nfrom nobody\r\n>ech"));
    client.Send("o on\r");
    EXPECT_TRUE(client.Expect("o on\r\n>"));
}

TEST(Telnet, AResponseBeforeTheLoginShowsNothingOfThePassword) {
    Console console("Secret");
    ConsoleClient client = console.Connect();
    client.Send("Secret\r");
    EXPECT_TRUE(client.Expect("******\r\nWelcome...\r\n\r\n>"));
    const unsigned int first = console.SocketOf(client);
    ConsoleClient other = console.Connect();
    other.Send("Sec");
    EXPECT_TRUE(other.Expect("***"));
    // Handles are given in ascending order while there are fresh ones: the other session's is one of the next.
    for (unsigned int session = first + 1; session < first + 20; ++session) {
        tq_TelnetSendResponse("text", 0, session, 0, TQ_TELNET_NO_RECEIVED_LINE);
    }
    EXPECT_TRUE(other.Expect("text\r\nlogin: "));
    other.Send("ret\r");
    EXPECT_TRUE(other.Expect("***\r\nWelcome...\r\n\r\n>"));
}

TEST(Telnet, ALongResponseArrivesWhole) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    for (unsigned int length : {8191u, 8192u, 8193u, 16384u, 100000u}) {
        const std::string text(length, 'r');
        tq_TelnetSendResponse(text.c_str(), 0, session, 0, TQ_TELNET_NO_RECEIVED_LINE);
        EXPECT_TRUE(client.Expect(text + "\r\n>"));
    }
}

/// Sends the console a response of so many bytes behind the header.
void SendRawResponse(unsigned int session, const std::string& payload) {
    const unsigned int size = static_cast<unsigned int>(sizeof(MSG_COMMON) + payload.size());
    MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_malloc(size));
    ASSERT_NE(nullptr, pMsg);
    *pMsg = {0, tq_ConsoleQueueHandle(), size, MSG_TELNET_RESPONSE, session, 0, TQ_TELNET_NO_RECEIVED_LINE};
    memcpy(pMsg + 1, payload.data(), payload.size());
    ASSERT_TRUE(tq_MsgSend(pMsg, false, TQ_MSG_PRIORITY_MEDIUM));
}

TEST(Telnet, AResponseThatDoesNotEndWithZeroIsDropped) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    SendRawResponse(session, "");
    SendRawResponse(session, "unterminated");
    SendRawResponse(session, std::string("zero\0inside", 11));
    SendRawResponse(session, std::string("good\0inside\0", 12));
    EXPECT_TRUE(client.Expect(std::string("good\0inside", 11) + "\r\n>"));
}

TEST(Telnet, AResponseForNobodyIsDropped) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    tq_TelnetSendResponse("for no session", 0, session + 1000, 0, 0);
    tq_TelnetSendResponse("for no session", 0, 0, 0, 0);
    tq_TelnetSendResponse("", 0, session, 0, 0);
    tq_TelnetSendResponse(nullptr, 0, session, 0, 0);
    tq_RespondToConsole(nullptr, session);
    tq_RespondToConsole("", session);
    tq_RespondToConsole("the one", session);
    EXPECT_TRUE(client.Expect("the one\r\n>"));
}

TEST(Telnet, AResponseIsNotWrittenIntoASocketThatIsNoSession) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    test::Fd listener = test::ListeningPeer();
    const unsigned int other =
        tq_SocketOpenTCPClient(console.Door().GetHandle(), test::Loopback(), test::PortOf(listener), 0, 0, 0);
    test::Fd peer = test::AcceptPeer(listener);
    tq_TelnetSendResponse("text", 0, other, 0, 0);
    tq_RespondToConsole("done", session);
    EXPECT_TRUE(client.Expect("done\r\n>"));
    tq_SocketClose(other);
    EXPECT_TRUE(test::IsAtEnd(peer));
}

TEST(Telnet, AReportPostsItsResponseInMemoryOfItsOwn) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    EXPECT_EQ(28u + 9u, tq_ConsoleMessageBytes("12345678"));
    void* pMemory = tq_malloc(tq_ConsoleMessageBytes("12345678"));
    ASSERT_TRUE(tq_PostConsoleMessage(pMemory, "12345678", session, TQ_TELNET_NO_RECEIVED_LINE));
    EXPECT_TRUE(client.Expect("12345678\r\n>"));
    tq_TelnetTerminate();
    pMemory = tq_malloc(tq_ConsoleMessageBytes("x"));
    EXPECT_FALSE(tq_PostConsoleMessage(pMemory, "x", session, 0));
    tq_free(pMemory);
    EXPECT_EQ(0u, tq_ConsoleQueueHandle());
}

TEST(Telnet, SendToTerminalCutsAtItsLimit) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    tq_TelnetMsgQ::SendToTerminal(session, "%s", std::string(8193, 'a').c_str());
    tq_TelnetMsgQ::SendToTerminal(session, "%s", std::string(8192, 'b').c_str());
    tq_TelnetMsgQ::SendToTerminal(session, "%s", "");
    tq_TelnetMsgQ::SendToTerminal(session, nullptr);
    tq_TelnetMsgQ::SendToTerminal(0, "%s", "nobody");
    tq_TelnetMsgQ::SendToTerminal(session, "end %u", 5u);
    EXPECT_TRUE(client.Expect(std::string(8192, 'a') + std::string(8192, 'b') + "end 5"));
}

TEST(Telnet, AnAnswerLongerThanThatIsNotCut) {
    Console console;
    ConsoleClient client = console.Connect();
    for (int i = 0; i < 300; ++i) {
        tq_TraceInitInstance(("an instance with a name of some length " + std::to_string(i)).c_str());
    }
    client.Send("sh tr\r");
    const std::string answer = client.ReadTo("\r\n>");
    EXPECT_GT(answer.size(), 2u * 8192);
    EXPECT_EQ(300u, test::CountOf(answer, "an instance with a name of some length "));
}

// Closing from inside

TEST(Telnet, ASessionMayCloseItsOwnSocket) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    client.Send("clo so " + std::to_string(session) + "\recho off\recho on\r");
    client.Expect("clo so " + std::to_string(session) + "\r\n");
    EXPECT_TRUE(client.IsClosed());
    ConsoleClient next = console.Connect();
    next.Send("sh sum " + console.TheValues()["console"] + "\r");
    EXPECT_NE(std::string::npos, next.ReadTo("Connections: 1\r\n>").find("\r\n>\r\n"));
}

// When somebody else closes a session's socket the session is told nothing, and its handle comes to name another
// connection in the end.
TEST(Telnet, AConnectionWithTheHandleOfALostSessionDoesNotInheritItsLogin) {
    Console console("Secret");
    ConsoleClient client = console.Connect();
    client.Send("Secret\r");
    client.ReadTo("Welcome...\r\n\r\n>");
    const unsigned int session = console.SocketOf(client);
    SOCKET_NEW_CONNECTION* pMsg = static_cast<SOCKET_NEW_CONNECTION*>(tq_calloc(1, sizeof(SOCKET_NEW_CONNECTION)));
    pMsg->msg = {0, tq_ConsoleQueueHandle(), sizeof(*pMsg), MSG_SOCKET_NEW_CONNECTION, 0, 0, 0};
    pMsg->new_socket = session;
    ASSERT_TRUE(tq_MsgSend(&pMsg->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM));
    client.ReadTo("login: ");
    client.Send("sh tic\r");
    EXPECT_TRUE(client.Expect("******\r\nInvalid login attempt.\r\n\r\nlogin: "));
}

TEST(Telnet, AScriptMayCloseTheSocketOfItsSession) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int session = console.SocketOf(client);
    test::WriteFile("close.txt", "clo so " + std::to_string(session) + "\recho off\rrun close.txt\r");
    client.Send("run close.txt\r");
    client.ReadTo("clo so " + std::to_string(session) + "\r\n");
    EXPECT_TRUE(client.IsClosed());
    ConsoleClient next = console.Connect();
    EXPECT_NE(0u, console.SocketOf(next));
}

TEST(Telnet, AScriptMayComeThroughAFifo) {
    Console console;
    ConsoleClient client = console.Connect();
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    std::thread writer([] {
        const int fd = open("fifo", O_WRONLY);
        EXPECT_EQ(11, write(fd, "sh ti\bic\rec", 11));
        close(fd);
    });
    client.Send("run fifo\r");
    EXPECT_TRUE(client.Expect("run fifo\r\nFile Opened, now processing...\r\nsh ti\b \bic\r\n\r\n"
                              "  There are {d}ms for each clock tick.\r\n\r\n\r\n>ecFile processing done!\r\n>"));
    writer.join();
}

// The listening socket

/// The handle of the library's socket that listens on a port.
unsigned int ListenerOn(unsigned int port) {
    unsigned int found = 0;
    for (unsigned int socket = 2; socket < 1000; ++socket) {
        if (tq_SocketGetBoundPort(socket) == port) {
            found = socket;
        }
    }
    return found;
}

bool Reopens(unsigned int port, unsigned int oldListener) {
    return test::WaitUntil([=] {
        const unsigned int listener = ListenerOn(port);
        return listener != 0 && listener != oldListener;
    });
}

TEST(Telnet, AListeningSocketThatIsLostIsOpenedAgain) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int listener = ListenerOn(console.Port());
    client.Send("clo so " + std::to_string(listener) + "\r");
    client.ReadTo("\r\n>");
    EXPECT_TRUE(Reopens(console.Port(), listener));
    ConsoleClient next = console.Connect();
    EXPECT_NE(0u, console.SocketOf(next));
    EXPECT_NE(0u, console.SocketOf(client)); // the sessions have not noticed
}

TEST(Telnet, TheListeningSocketFollowsTheInterfaces) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int listener = ListenerOn(console.Port());
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(0, tq_ConsoleQueueHandle(), MSG_SOCKET_NEW_INTERFACES, 0, 0, 0, false, 2));
    EXPECT_TRUE(Reopens(console.Port(), listener));
    ConsoleClient next = console.Connect();
    EXPECT_NE(0u, console.SocketOf(client));
}

TEST(Telnet, AListeningSocketThatCannotBeOpenedIsTriedAgainLater) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int listener = ListenerOn(console.Port());
    tq_TimerSet(1, 1000000, 0, 0, 0, 0, "starts the timers", false);
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    struct rlimit none = {3, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none)); // no descriptor above those of standard input and output is given
    client.Send("clo so " + std::to_string(listener) + "\r");
    client.ReadTo("\r\n>");
    EXPECT_TRUE(test::WaitUntil([] { return tq_TimerTimeRemaining(tq_ConsoleQueueHandle(), 1, 0, 0) > 100; }));
    EXPECT_EQ(0u, ListenerOn(console.Port()));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_TRUE(Reopens(console.Port(), listener));
    ConsoleClient next = console.Connect();
}

TEST(Telnet, ATimerOfAnotherInstanceDoesNothing) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int listener = ListenerOn(console.Port());
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(0, tq_ConsoleQueueHandle(), MSG_TIMER, 2, 0, 0, false, 2));
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(0, tq_ConsoleQueueHandle(), MSG_USER, 1, 0, 0, false, 2));
    EXPECT_NE(0u, console.SocketOf(client));
    EXPECT_EQ(listener, ListenerOn(console.Port()));
}

// Ports

/// A port of the test's own, from `first` on, and the descriptors that hold it and as many after it as are asked for.
std::vector<test::Fd> Occupy(unsigned int first, unsigned int count) {
    std::vector<test::Fd> ports;
    for (unsigned int port = first; port < first + count; ++port) {
        test::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const struct sockaddr_in address = test::LoopbackAddress(port);
        // One that cannot be had is somebody else's: it is occupied all the same.
        if (bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0) {
            listen(fd.Get(), 1);
            ports.push_back(std::move(fd));
        }
    }
    return ports;
}

TEST(Telnet, APortThatIsTakenIsFollowedByTheNext) {
    test::Library library;
    const test::Fd taken = test::ListeningPeer();
    const unsigned int port = test::PortOf(taken);
    const unsigned int got = tq_TelnetInitialize(port, test::Loopback(), nullptr);
    EXPECT_GT(got, port);
    EXPECT_LE(got, port + 100);
    ConsoleClient client(got);
    tq_TelnetTerminate();
}

TEST(Telnet, ALowPortThatIsTakenIsFollowedBy1025) {
    test::Library library;
    const std::vector<test::Fd> taken = Occupy(987, 1);
    const unsigned int got = tq_TelnetInitialize(987, test::Loopback(), nullptr);
    EXPECT_GE(got, 1025u);
    EXPECT_LE(got, 1125u);
    tq_TelnetTerminate();
}

TEST(Telnet, AfterAHundredMorePortsTheStartFailsAndDoesNotCount) {
    test::Library library;
    const unsigned int first = 61000 + static_cast<unsigned int>(getpid()) % 30 * 101;
    {
        const std::vector<test::Fd> taken = Occupy(first, 101);
        EXPECT_EQ(0u, tq_TelnetInitialize(first, test::Loopback(), "password"));
        EXPECT_NE(std::string::npos, test::ReadFile("tqos_error.log").find("Failed to initialize Telnet Interface!"));
        EXPECT_EQ(0u, tq_ConsoleQueueHandle());
    }
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    EXPECT_NE(0u, port);
    tq_TelnetTerminate();
    const test::Fd client(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_FALSE(test::ConnectPeer(client, port)) << "the failed start still counts";
}

TEST(Telnet, PortsEndAt65535) {
    test::Library library;
    const std::vector<test::Fd> taken = Occupy(65530, 6);
    EXPECT_EQ(0u, tq_TelnetInitialize(65530, test::Loopback(), nullptr));
    EXPECT_EQ(0u, tq_TelnetInitialize(65536, test::Loopback(), nullptr));
    EXPECT_EQ(0u, tq_TelnetInitialize(0xFFFFFFFF, test::Loopback(), nullptr));
}

// Start and stop

TEST(Telnet, StartsAreCounted) {
    test::Library library;
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    EXPECT_EQ(port, tq_TelnetInitialize(1, 0, "another password"));
    tq_TelnetTerminate();
    {
        ConsoleClient client(port);
        test::RunSession(client, test::SessionFile("greeting"), {{"prompt", ">"}});
        tq_TelnetTerminate();
        EXPECT_TRUE(client.IsClosed());
    }
    tq_TelnetTerminate(); // one too many
    EXPECT_NE(0u, tq_TelnetInitialize(0, test::Loopback(), nullptr));
    tq_TelnetTerminate();
}

TEST(Telnet, StartsAndStopsOfManyThreadsAreCounted) {
    test::Library library;
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([port] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(port, tq_TelnetInitialize(0, 0, "Secret"));
                tq_TelnetTerminate();
            }
        });
    }
    for (std::thread& user : users) {
        user.join();
    }
    ConsoleClient client(port);
    test::RunSession(client, test::SessionFile("greeting"), {{"prompt", ">"}});
    tq_TelnetTerminate();
    EXPECT_TRUE(client.IsClosed());
}

TEST(Telnet, StartsWithAnyOfManyUsersAndStopsWithTheLast) {
    test::Library library;
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([] {
            for (int round = 0; round < 10; ++round) {
                const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
                EXPECT_NE(0u, port);
                ConsoleClient client(port); // somebody starts it; this one's port is the running one's
                client.ReadTo(">");
                tq_TelnetTerminate();
            }
        });
    }
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(0u, tq_ConsoleQueueHandle());
}

TEST(Telnet, DoesNotStartWithoutTheLibrary) {
    EXPECT_EQ(0u, tq_TelnetInitialize(0, test::Loopback(), nullptr));
    tq_TelnetTerminate();
    tq_TelnetSendResponse("text", 0, 5, 0, 0);
    EXPECT_EQ(0u, tq_ConsoleQueueHandle());
}

TEST(Telnet, TheLibrarysTerminationStopsAConsoleThatNobodyHasStopped) {
    for (const char* pszIni :
         {"", "[Memory]\nEnableMemoryPooling=Yes\nEnableMemoryTracking=Yes\n[Sem]\nTracking=Yes\n"}) {
        for (int round = 0; round < 3; ++round) {
            test::Library library(pszIni);
            const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), "Secret");
            ASSERT_NE(0u, port);
            EXPECT_EQ(port, tq_TelnetInitialize(0, test::Loopback(), nullptr));
            ConsoleClient client(port);
            test::RunSession(client, test::SessionFile("greeting"), {{"prompt", "login: "}});
            library.Terminate();
            EXPECT_TRUE(client.IsClosed());
            tq_TelnetTerminate(); // late
        }
    }
}

TEST(Telnet, StopsAtAnyMoment) {
    test::Library library;
    for (int round = 0; round < 30; ++round) {
        const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
        ASSERT_NE(0u, port);
        std::vector<test::Fd> clients;
        for (int i = 0; i < 3; ++i) {
            clients.push_back(test::ConnectedPeer(port));
            test::SendAll(clients.back(), "sh tr\rsh th\rhelp\r");
        }
        if (round % 3 == 0) {
            test::WaitReadable(clients[0]);
        }
        tq_MsgCreateCommonAndSend(0, tq_ConsoleQueueHandle(), MSG_SOCKET_NEW_INTERFACES, 0, 0, 0, false, 2);
        std::thread responder([] {
            for (unsigned int session = 2; session < 50; ++session) {
                tq_TelnetSendResponse("text", 0, session, 0, 0);
            }
        });
        tq_TelnetTerminate();
        responder.join();
        for (const test::Fd& client : clients) {
            test::ReadToEnd(client);
        }
    }
}

TEST(Telnet, StopsTheTimerThatWouldOpenItsSocketAgain) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int console_ = tq_ConsoleQueueHandle();
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(0, console_, MSG_SOCKET_NEW_INTERFACES, 0, 0, 0, false, 2));
    tq_TelnetTerminate();
    EXPECT_EQ(0u, tq_TimerTimeRemaining(console_, 1, 0, 0));
}

TEST(Telnet, IsAQueueAmongTheOthers) {
    Console console;
    ConsoleClient client = console.Connect();
    client.Send("sh th\r");
    EXPECT_NE(std::string::npos, client.ReadTo("\r\n>").find("tq_MsgQ: TQOS: Telnet"));
}

TEST(Telnet, StartsOnThePortItHasJustLeft) {
    test::Library library;
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    for (int round = 0; round < 5; ++round) {
        ConsoleClient client(port);
        test::RunSession(client, test::SessionFile("greeting"), {{"prompt", ">"}});
        tq_TelnetTerminate();
        ASSERT_EQ(port, tq_TelnetInitialize(port, test::Loopback(), nullptr));
    }
    tq_TelnetTerminate();
}

/// Starts the library and the console with a cap on memory; prints how it went.
bool StartsWithCap(unsigned int cap) {
    test::ScratchDirectory directory;
    test::WriteFile("tqos.ini", "[Memory]\nMemoryCapInBytes=" + std::to_string(cap) +
                                    "\nEnableMemoryTracking=Yes\n[ErrorLog]\nFilename=\n");
    bool bStarted = false;
    if (tqOS_Initialize() == 0) {
        bStarted = tq_TelnetInitialize(0, test::Loopback(), "Secret") != 0;
        printf("%s", bStarted ? "started" : "refused");
        tq_TelnetTerminate();
    }
    tqOS_Terminate(false, true);
    return bStarted;
}

TEST(Telnet, AConsoleWithoutMemoryForItDoesNotStart) {
    const test::ChildResult result = test::RunInChild([] {
        unsigned int started = 0;
        for (unsigned int cap = 2000; started < 3 && cap < 2000000; cap += 100 + cap / 100) { // refuses one by one
            started += StartsWithCap(cap) ? 1 : 0;
        }
        printf("end");
    });
    EXPECT_GT(test::CountOf(result.standardOut, "refused"), 5u) << result.standardError;
    EXPECT_EQ(3u, test::CountOf(result.standardOut, "started"));
    EXPECT_EQ(1u, test::CountOf(result.standardOut, "end")); // nothing crashed on the way
}

// The real client

TEST(TelnetProgram, ReachesTheConsoleCharacterByCharacter) {
    if (!test::HaveTelnet()) {
        GTEST_SKIP() << "this machine has no telnet program";
    }
    Console console("Secret", test::kNoCrashReport);
    test::TelnetProgram telnet(console.Port());
    ConsoleClient& terminal = telnet.Terminal();
    EXPECT_NE(std::string::npos, terminal.ReadTo("login: ").find("##########"));
    for (char character : std::string("Secret")) { // not echoed: not by the program, not by the console
        terminal.Send(std::string(1, character));
        EXPECT_TRUE(terminal.Expect("*"));
    }
    terminal.Send("\r");
    EXPECT_TRUE(terminal.Expect("\r\nWelcome...\r\n\r\n>"));

    terminal.Send("sh tidk\b\bck"); // character mode: each comes back before the line ends
    EXPECT_TRUE(terminal.Expect("sh tidk\b \b\b \bck"));
    terminal.Send("s\r");
    EXPECT_TRUE(terminal.Expect("s\r\n\r\n  There are {d}ms for each clock tick.\r\n\r\n\r\n>"));

    terminal.Send("\x1b[A");
    EXPECT_TRUE(terminal.Expect("sh ticks"));
    terminal.Send("\x1b[D\r"); // left: one character less
    EXPECT_TRUE(terminal.Expect("\b \b\r\n\r\n  There are {d}ms for each clock tick.\r\n\r\n\r\n>"));
    terminal.Send("\x1b[A\x1b[A\x1b[B");
    EXPECT_TRUE(terminal.Expect(
        "sh tick\b \b\b \b\b \b\b \b\b \b\b \b\b \bsh ticks\b \b\b \b\b \b\b \b\b \b\b \b\b \b\b \bsh tick"));

    terminal.Send("\x05");
    EXPECT_TRUE(terminal.Expect("\r\necho off\r\n\r\n>sh tick"));
    terminal.Send("\x05");
    EXPECT_TRUE(terminal.Expect("\r\necho on\r\n\r\n>sh tick"));
    terminal.Send("x\r");
    EXPECT_TRUE(terminal.Expect("x\r\nSyntax error.\r\n\r\n>"));

    const std::string ask = "sh sum " + console.TheValues()["door"];
    terminal.Send(ask + "\r");
    EXPECT_TRUE(terminal.Expect(ask + "\r\n>\r\nResponse received from queue Door: {time}\r\nsummary, flags 0\r\n>"));
    terminal.Send("help\r");
    EXPECT_NE(std::string::npos, terminal.ReadTo("Terminate session.\r\n\r\n\r\n>").find("  SHow <?|SUM|SO|"));
    terminal.Send("quit\r");
    EXPECT_TRUE(terminal.Expect("quit\r\nConnection closed by foreign host.\r\n"));
}

TEST(TelnetProgram, IsClosedAfterThreeWrongPasswords) {
    if (!test::HaveTelnet()) {
        GTEST_SKIP() << "this machine has no telnet program";
    }
    Console console("Secret", test::kNoCrashReport);
    test::TelnetProgram telnet(console.Port());
    ConsoleClient& terminal = telnet.Terminal();
    terminal.ReadTo("login: ");
    terminal.Send("a\r");
    EXPECT_TRUE(terminal.Expect("*\r\nInvalid login attempt.\r\n\r\nlogin: "));
    terminal.Send("b\r");
    EXPECT_TRUE(terminal.Expect("*\r\nInvalid login attempt.\r\n\r\nlogin: "));
    terminal.Send("c\r");
    EXPECT_TRUE(terminal.Expect("*\r\nConnection closed by foreign host.\r\n"));
}

} // namespace
