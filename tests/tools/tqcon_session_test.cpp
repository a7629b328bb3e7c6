// A session of a console as the tools have it: what comes is taken apart rightly, however it is cut and whatever comes
// between.
#include <gtest/gtest.h>

#include <atomic>
#include <netinet/tcp.h>
#include <thread>

#include "Console.h"
#include "ConsoleFixture.h"

namespace {

using tools::Answer;
using tools::Result;

constexpr tools::Limits kPatient = {30000, 30000, 30000};

// Negotiations

TEST(Telnet, NegotiationsAreTakenOutHoweverTheyAreCut) {
    const std::string came = std::string("a\xff\xfb\x01") + "b\xff\xfd\x03" + "c\xff\xfa\x18\x01\xff\xf0" +
                             "d\xff\xff" +
                             "e\xff"
                             "f";
    for (size_t piece = 1; piece <= came.size(); ++piece) {
        tools::TelnetFilter filter;
        std::string text;
        std::string answers;
        for (size_t at = 0; at < came.size(); at += piece) {
            answers += filter.Take(came.substr(at, piece), &text);
        }
        EXPECT_EQ("abcd\xff"
                  "e\xff"
                  "f",
                  text)
            << piece;
        EXPECT_EQ("\xff\xfd\x01\xff\xfb\x03", answers) << piece;
    }
}

TEST(Telnet, RefusesWhatItDoesNotWantUnlessThatWouldBeTyped) {
    tools::TelnetFilter filter;
    std::string text;
    EXPECT_EQ("\xff\xfe\x05", filter.Take("\xff\xfb\x05", &text)); // WILL STATUS: DONT
    EXPECT_EQ("\xff\xfc\x18", filter.Take("\xff\xfd\x18", &text)); // DO TERMINAL-TYPE: WONT
    EXPECT_EQ("", filter.Take("\xff\xfd\x22\xff\xfb\x2a", &text)); // LINEMODE and CHARSET are '"' and '*'
    EXPECT_EQ("", filter.Take("\xff\xfe\x01\xff\xfc\x01", &text)); // it is so already
    EXPECT_EQ("", text);
}

// Transcripts

/// A date as the console writes it.
constexpr char kDate[] = "Sat Nov 21 18:00:00 2026";

std::string News(const std::string& text) {
    return std::string("\r\nResponse received from queue Door: ") + kDate + "\r\n" + text + "\r\n";
}

struct TranscriptRow {
    const char* pszWhat;
    std::string came; ///< {Q}, {F} and {M}: question, its answer, mark
    std::string text;
    std::vector<std::string> news;
};

std::string WithKeys(std::string text, const tools::SessionKeys& keys) {
    return test::WithValues(text, {{"Q", keys.question}, {"F", keys.answer}, {"M", keys.mark}});
}

TEST(Transcript, IsTakenApart) {
    const tools::SessionKeys keys = tools::MakeSessionKeys();
    const std::string half = keys.question.substr(0, 12);
    const std::string some = keys.mark.substr(0, 5);
    const std::string end = "{Q}\r\n>{M}{F}\r\n>{M}";
    const std::vector<TranscriptRow> rows = {
        {"nothing written", "sh x\r\n>" + end, "", {}},
        {"a report", "sh x\r\n\r\nrow\r\n\r\n\r\n>" + end, "row\n", {}},
        {"erased before", "\b \b\b \bsh x\r\nrow\r\n>" + end, "row\n", {}},
        {"prompts in it", "sh x\r\nrow\r\n>row\r\n>\r\n>" + end, "row\n>row\n>\n", {}},
        {"through the queue", "sh x\r\n>{Q}\r\n>{M}one\r\n>{M}two\r\n>2\r\n>{M}{F}\r\n>{M}", "one\ntwo\n>2\n", {}},
        {"news before the line", News("n") + ">sh x\r\nrow\r\n>" + end, "row\n", {"n\n"}},
        {"news in the line", "sh" + News("n") + "\r\n>sh x\r\nrow\r\n>" + end, "row\n", {"n\n"}},
        {"news before the question", "sh x\r\nrow\r\n>" + News("n") + "\r\n>" + end, "row\n", {"n\n"}},
        {"news in the question", "sh x\r\nrow\r\n>" + half + News("n") + "\r\n>" + end, "row\n", {"n\n"}},
        {"news in the question, nothing written", "sh x\r\n>" + half + News("n") + "\r\n>" + end, "", {"n\n"}},
        {"news twice in the question",
         "sh x\r\nrow\r\n>" + half + News("n") + "\r\n>" + half + News("m") + "\r\n>" + end,
         "row\n",
         {"n\n", "m\n"}},
        {"news before the line ends", "sh x" + News("n") + "\r\n>sh x\r\nrow\r\n>" + end, "row\n", {"n\n"}},
        {"news before the question ends", "sh x\r\nrow\r\n>{Q}" + News("n") + "\r\n>" + end, "row\n", {"n\n"}},
        {"news before the mark", "sh x\r\nrow\r\n>{Q}\r\n>" + News("n") + "\r\n>{M}{F}\r\n>{M}", "row\n", {"n\n"}},
        {"news in the mark", "sh x\r\nrow\r\n>{Q}\r\n>" + some + News("n") + "\r\n>{M}{F}\r\n>{M}", "row\n", {"n\n"}},
        {"the answer in the mark", "sh x\r\nrow\r\n>{Q}\r\n>" + some + "{F}\r\n>{M}", "row\n", {}},
        {"the answer and news in the mark",
         "sh x\r\nrow\r\n>{Q}\r\n>" + some + "{F}\r\n>" + some + News("n") + "\r\n>{M}",
         "row\n",
         {"n\n"}},
        {"news with prompts in them",
         "sh x\r\n>{Q}\r\n>{M}" + News("n\r\n>m") + "\r\n>{M}{F}\r\n>{M}",
         "",
         {"n\n>m\n"}},
    };
    for (const TranscriptRow& row : rows) {
        Answer answer;
        EXPECT_TRUE(tools::TakeTranscript(keys, "sh x", WithKeys(row.came, keys), true, &answer)) << row.pszWhat;
        EXPECT_EQ(row.text, tools::Trimmed(answer.text)) << row.pszWhat;
        std::vector<std::string> news;
        for (const tools::Response& response : answer.responses) {
            EXPECT_EQ("Door", response.queue) << row.pszWhat;
            EXPECT_EQ(kDate, response.time) << row.pszWhat;
            news.push_back(response.text);
        }
        EXPECT_EQ(row.news, news) << row.pszWhat;
        EXPECT_EQ(Result::Ok, answer.result) << row.pszWhat;
    }
}

TEST(Transcript, ASyntaxErrorIsALineOfTheCommandsOwn) {
    const tools::SessionKeys keys = tools::MakeSessionKeys();
    const auto resultOf = [&keys](const std::string& came) {
        Answer answer;
        EXPECT_TRUE(tools::TakeTranscript(keys, "x", WithKeys("x\r\n" + came, keys), true, &answer));
        return answer.result;
    };
    EXPECT_EQ(Result::SyntaxError, resultOf("Syntax error.\r\n\r\n>{Q}\r\n>{M}{F}\r\n>{M}"));
    EXPECT_EQ(Result::SyntaxError, resultOf("sh q\r\nSyntax error.\r\n\r\n>sh\r\n>{Q}\r\n>{M}{F}\r\n>{M}"));
    EXPECT_EQ(Result::Ok, resultOf("a Syntax error.\r\n>{Q}\r\n>{M}{F}\r\n>{M}"));
    EXPECT_EQ(Result::Ok, resultOf(">{Q}\r\n>{M}Syntax error.\r\n>{M}{F}\r\n>{M}"));
}

TEST(Transcript, WhatCameBeforeTheEndOfASessionIsKept) {
    const tools::SessionKeys keys = tools::MakeSessionKeys();
    Answer answer;
    EXPECT_TRUE(tools::TakeTranscript(keys, "sh x", "sh x\r\nhalf a re", false, &answer));
    EXPECT_EQ("half a re\n", tools::Trimmed(answer.text));
    EXPECT_FALSE(tools::TakeTranscript(keys, "sh x", "sh", false, &answer));
}

// Sessions

/// Between a session and a console: hands every byte on by itself.
class Dribble {
public:
    explicit Dribble(unsigned int port)
        : m_listener(test::ListeningPeer()), m_device(test::ConnectedPeer(port)), m_thread([this] { Run(); }) {}
    ~Dribble() {
        shutdown(m_device.Get(), SHUT_RDWR);
        m_thread.join();
    }
    unsigned int Port() const { return test::PortOf(m_listener); }

private:
    static bool HandOn(const test::Fd& from, const test::Fd& to) {
        char byte = 0;
        return recv(from.Get(), &byte, 1, 0) == 1 && send(to.Get(), &byte, 1, MSG_NOSIGNAL) == 1;
    }

    void Run() {
        const test::Fd client = test::AcceptPeer(m_listener);
        const int noDelay = 1;
        setsockopt(m_device.Get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
        setsockopt(client.Get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
        bool bGoesOn = true;
        while (bGoesOn) {
            struct pollfd ends[2] = {{client.Get(), POLLIN, 0}, {m_device.Get(), POLLIN, 0}};
            bGoesOn = poll(ends, 2, 30000) > 0 && (ends[0].revents == 0 || HandOn(client, m_device)) &&
                      (ends[1].revents == 0 || HandOn(m_device, client));
        }
    }

    test::Fd m_listener;
    test::Fd m_device;
    std::thread m_thread;
};

tools::Address At(unsigned int port) {
    return {"127.0.0.1", std::to_string(port)};
}

/// The handle of a session's socket: the queue "Door" knows who has asked it last.
unsigned int InstanceOf(tools::Console& session, test::Console& console) {
    EXPECT_EQ(1u, session.Run("send door x", 1).responses.size());
    return console.Door().LastRequest().instance;
}

TEST(Session, ReadsEveryAnswerHoweverTheNetworkCutsItAndWhateverComesBetween) {
    test::Console console;
    Dribble dribble(console.Port());
    tools::Console session(kPatient);
    ASSERT_EQ(Result::Ok, session.Connect(At(dribble.Port())));
    const unsigned int instance = InstanceOf(session, console);
    const std::string ticks = session.Run("sh tic").text;
    const std::string handles = session.Run("sh dir").text;
    std::atomic<bool> bStop{false};
    unsigned int told = 0;
    std::thread teller([&] {
        while (!bStop) {
            tq_TelnetSendResponse(("news " + std::to_string(told++)).c_str(), console.Door().GetHandle(), instance, 0,
                                  0);
            usleep(5000);
        }
    });
    size_t news = 0;
    const auto run = [&](const char* pszLine) {
        const Answer answer = session.Run(pszLine);
        EXPECT_EQ(Result::Ok, answer.result) << answer.problem;
        for (const tools::Response& response : answer.responses) {
            EXPECT_EQ("Door", response.queue);
            EXPECT_EQ("news " + std::to_string(news++) + "\n", response.text);
        }
        return answer.text;
    };
    for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(ticks, run("sh tic"));
        EXPECT_EQ(handles, run("sh dir"));
        EXPECT_EQ("", run("set mem"));
    }
    bStop = true;
    teller.join();
    run("sh tic"); // what was told before it has come with it
    EXPECT_EQ(told, news);
    session.Close();
}

TEST(Session, PromptsAndErrorsInAQueuesAnswerAreText) {
    test::Console console;
    tools::Console session(kPatient);
    ASSERT_EQ(Result::Ok, session.Connect(At(console.Port())));
    const unsigned int instance = InstanceOf(session, console);
    const std::string text = "\r\n>\r\n>sh q\r\nSyntax error.\r\n\r\n>\r\nlogin: ";
    tq_TelnetSendResponse(text.c_str(), console.Door().GetHandle(), instance, 0, 0);
    const Answer answer = session.Run("sh tic");
    EXPECT_EQ(Result::Ok, answer.result);
    ASSERT_EQ(1u, answer.responses.size());
    EXPECT_EQ(">\n>sh q\nSyntax error.\n\n>\nlogin: \n", answer.responses[0].text);
}

TEST(Session, LongReportsComeWhole) {
    test::Console console;
    std::vector<std::unique_ptr<tq_List>> lists;
    for (int i = 0; i < 2000; ++i) {
        lists.push_back(std::make_unique<tq_List>(("Shelf " + std::to_string(i)).c_str()));
    }
    tools::Console session(kPatient);
    ASSERT_EQ(Result::Ok, session.Connect(At(console.Port())));
    for (const char* pszLine : {"sh l shelf", "sh l sort=name shelf"}) {
        const Answer answer = session.Run(pszLine);
        EXPECT_EQ(2000u, test::CountOf(answer.text, "Shelf ")) << pszLine;
        EXPECT_EQ(1u, test::CountOf(answer.text, "Total matching Lists: 2000\n")) << pszLine;
    }
}

TEST(Session, WhatIsSaidBetweenCommandsIsThereForTheAsking) {
    test::Console console;
    tools::Console session(kPatient);
    ASSERT_EQ(Result::Ok, session.Connect(At(console.Port())));
    const unsigned int instance = InstanceOf(session, console);
    EXPECT_TRUE(session.TakeUnasked().responses.empty());
    tq_TelnetSendResponse("news", console.Door().GetHandle(), instance, 0, 0);
    Answer answer;
    EXPECT_TRUE(test::WaitUntil([&] { return !(answer = session.TakeUnasked()).responses.empty(); }));
    EXPECT_EQ("news\n", answer.responses[0].text);
    EXPECT_EQ(Result::Ok, answer.result);
}

TEST(Session, ALineThatIsTooLongIsNotTyped) {
    test::Console console;
    tools::Console session(kPatient);
    ASSERT_EQ(Result::Ok, session.Connect(At(console.Port())));
    EXPECT_EQ(Result::SyntaxError, session.Run(std::string(1025, 'x')).result);
    EXPECT_EQ(Result::SyntaxError, session.Run(std::string(1024, 'x')).result);
    EXPECT_EQ(Result::Ok, session.Run("sh tic").result);
    EXPECT_EQ(Result::Ok, session.Run(" \t ").result);
}

// A console that is none

/// Greets one session as a console without a password does, and then sends what it is told to, and nothing else.
class Pretender {
public:
    Pretender() : m_listener(test::ListeningPeer()) {}

    unsigned int Port() const { return test::PortOf(m_listener); }
    void Greet() {
        m_session = test::AcceptPeer(m_listener);
        Send("banner\r\n\r\n>");
    }
    void Send(const std::string& text) { test::SendAll(m_session, text); }
    void End() { m_session.Close(); }

private:
    test::Fd m_listener;
    test::Fd m_session;
};

TEST(Session, ADeviceThatEndsItLeavesWhatItHadWritten) {
    Pretender device;
    tools::Console session(kPatient);
    std::thread greeter([&] { device.Greet(); });
    EXPECT_EQ(Result::Ok, session.Connect(At(device.Port())));
    greeter.join();
    device.Send("sh q\r\n\r\nQueueId  Depth\r\n");
    device.End();
    const Answer answer = session.Run("sh q");
    EXPECT_EQ(Result::NoConnection, answer.result);
    EXPECT_EQ("QueueId  Depth\n", answer.text);
    EXPECT_FALSE(session.IsOpen());
    EXPECT_EQ(Result::NoConnection, session.Run("sh q").result);
}

TEST(Session, ADeviceThatFallsSilentTimesOut) {
    Pretender device;
    tools::Console session({30000, 100, 100});
    std::thread greeter([&] { device.Greet(); });
    Result result = session.Connect(At(device.Port())); // on a busy machine this may be too slow already
    greeter.join();
    result = result == Result::Ok ? session.Run("sh q").result : result;
    EXPECT_EQ(Result::TimedOut, result);
    EXPECT_FALSE(session.IsOpen());
}

TEST(Session, WhoIsNoConsoleIsToldSo) {
    Pretender device;
    tools::Console session(kPatient);
    std::thread greeter([&] { device.Greet(); });
    EXPECT_EQ(Result::Ok, session.Connect(At(device.Port())));
    greeter.join();
    device.Send("sh q never said\r\n");
    device.End();
    EXPECT_EQ(Result::NoConnection, session.Run("sh tic").result);
}

} // namespace
