/// @file ConsoleFixture.h
/// A library with a console and queues that answer it.
#ifndef CONSOLE_FIXTURE_H
#define CONSOLE_FIXTURE_H

#include <mutex>
#include <string>

#include "ConsoleClient.h"
#include "TestSupport.h"
#include "tq_ConsoleResponse_p.h"
#include "tqos.h"

namespace test {

/// A queue of an application: answers what the console asks of it, and remembers the last request.
class AnsweringQueue : public tq_MsgQ {
public:
    explicit AnsweringQueue(const char* pszName) : tq_MsgQ(pszName, "answers") { Create(0); }
    ~AnsweringQueue() override { Destroy(false); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        char answer[2048];
        answer[0] = '\0';
        if (pMsg->command == MSG_TELNET_SUMMARY) {
            snprintf(answer, sizeof(answer), "summary, flags %u", pMsg->flags);
        } else if (pMsg->command == MSG_TELNET_CUSTOM) {
            snprintf(answer, sizeof(answer), "custom of %u bytes: %s", pMsg->size,
                     reinterpret_cast<TELNET_TEXT*>(pMsg)->text);
        }
        if (answer[0] != '\0') {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_request = *pMsg;
            }
            tq_TelnetSendResponse(answer, pMsg->hDest, pMsg->instance, pMsg->userparm, pMsg->flags);
        }
        tq_free(pMsg);
    }

    MSG_COMMON LastRequest() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_request;
    }

private:
    std::mutex m_mutex;
    MSG_COMMON m_request = {};
};

/// The directory of the written sessions.
inline std::string SessionFile(const std::string& name) {
    return std::string(TQOS_TEST_SOURCES) + "/console/" + name + ".session";
}

class Console {
public:
    explicit Console(const char* pszPassword = nullptr, const std::string& ini = "")
        : m_library(ini), m_door("Door"), m_backDoor("Back Door"),
          m_port(tq_TelnetInitialize(0, Loopback(), pszPassword)), m_pszPassword(pszPassword) {
        EXPECT_NE(0u, m_port);
    }
    ~Console() { tq_TelnetTerminate(); }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    unsigned int Port() const { return m_port; }
    AnsweringQueue& Door() { return m_door; }
    Library& TheLibrary() { return m_library; }

    /// A session behind its greeting.
    ConsoleClient Connect() {
        ConsoleClient client(m_port);
        Greet(client);
        return client;
    }

    void Greet(ConsoleClient& client) {
        RunSession(client, SessionFile("greeting"), {{"prompt", m_pszPassword ? "login: " : ">"}});
    }

    /// The handle of a session's socket.
    unsigned int SocketOf(ConsoleClient& client) {
        const std::string ask = "sh sum " + std::to_string(m_door.GetHandle());
        client.Send(ask + "\r");
        client.Expect(ask + "\r\n>\r\nResponse received from queue Door: {time}\r\nsummary, flags 0\r\n>");
        return m_door.LastRequest().instance;
    }

    /// What stands for itself in the written sessions.
    Values TheValues() {
        return {{"door", std::to_string(m_door.GetHandle())},
                {"console", std::to_string(tq_ConsoleQueueHandle())},
                {"tqos", std::to_string(tq_TraceGetHandleFromName("tqos"))}};
    }

private:
    Library m_library;
    AnsweringQueue m_door;
    AnsweringQueue m_backDoor;
    unsigned int m_port;
    const char* m_pszPassword;
};

} // namespace test

#endif // CONSOLE_FIXTURE_H
