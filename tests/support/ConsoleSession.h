/// @file ConsoleSession.h
/// A session of a console that runs for the test, into which reports send their responses.
#ifndef CONSOLE_SESSION_H
#define CONSOLE_SESSION_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_ConsoleResponse_p.h"
#include "tq_Telnet_p.h"

namespace test {

/// Starts a console without password on the loopback address and one session of it. The library must be running; the
/// console ends with the object.
class ConsoleSession {
public:
    ConsoleSession() : m_client(ConnectedPeer(tq_TelnetInitialize(0, Loopback(), nullptr))) {
        ReadUntil("\r\n\r\n>");
        SendAll(m_client, kTyped); // a line half typed: it comes again behind every response and so tells them apart
        ReadUntil(kTyped);
        EXPECT_TRUE(WaitUntil([this] { return FindInstance(); }));
    }
    ~ConsoleSession() { tq_TelnetTerminate(); }
    ConsoleSession(const ConsoleSession&) = delete;
    ConsoleSession& operator=(const ConsoleSession&) = delete;

    /// The session, as reports name it.
    unsigned int Instance() const { return m_instance; }

    /// What the session is sent while the report runs, one text a response.
    std::vector<std::string> ResponsesTo(const std::function<void(unsigned int instance)>& report) {
        report(m_instance);
        tq_RespondToConsole(kLast, m_instance);
        const std::string prompt = std::string("\r\n>") + kTyped;
        const std::string all = ReadUntil(kLast + prompt);
        std::vector<std::string> responses;
        size_t begin = 0;
        for (size_t end = all.find(prompt); end != std::string::npos; end = all.find(prompt, begin)) {
            responses.push_back(all.substr(begin, end - begin));
            begin = end + prompt.size();
        }
        EXPECT_FALSE(responses.empty());
        responses.resize(responses.empty() ? 0 : responses.size() - 1); // without the last one, which is no part of it
        return responses;
    }

private:
    static constexpr const char* kTyped = "~half typed~";
    static constexpr const char* kLast = "(that was all)";

    bool FindInstance() {
        const tq_ListLock lock(gpTelnetInstanceList);
        const auto* const pSession = static_cast<const TELNET_INSTANCE*>(gpTelnetInstanceList->GetHead());
        m_instance = pSession ? pSession->socket : 0;
        return m_instance != 0;
    }

    std::string ReadUntil(const std::string& end) {
        std::string text;
        while (text.size() < end.size() || text.compare(text.size() - end.size(), end.size(), end) != 0) {
            const std::string more = ReadSome();
            if (more.empty()) {
                ADD_FAILURE() << "the console said no more after: " << text;
                break;
            }
            text += more;
        }
        return text;
    }

    std::string ReadSome() {
        char buffer[65536];
        const ssize_t bytes = WaitReadable(m_client) ? recv(m_client.Get(), buffer, sizeof(buffer), 0) : 0;
        return bytes > 0 ? std::string(buffer, static_cast<size_t>(bytes)) : std::string();
    }

    Fd m_client;
    unsigned int m_instance = 0;
};

} // namespace test

#endif // CONSOLE_SESSION_H
