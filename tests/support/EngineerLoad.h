/// @file EngineerLoad.h
/// Engineers at the console, and a queue of the device that answers them.
#ifndef ENGINEER_LOAD_H
#define ENGINEER_LOAD_H

#include <atomic>
#include <string>

#include "ConsoleClient.h"
#include "Load.h"

namespace test {

class DoorQueue : public DeviceQueue {
public:
    DoorQueue() : DeviceQueue("Door") { Create(TQ_THREAD_PRIORITY_NORMAL); }
    ~DoorQueue() override { EndIdle(); }

    std::atomic<unsigned int> m_requests{0};
    std::atomic<unsigned int> m_summaries{0};

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        std::string answer;
        if (pMsg->command == MSG_TELNET_CUSTOM) {
            ++m_requests;
            answer = std::string("<") + reinterpret_cast<const TELNET_TEXT*>(pMsg)->text + ">";
        } else if (pMsg->command == MSG_TELNET_SUMMARY) {
            ++m_summaries;
            answer = "<summary>";
        }
        tq_TelnetSendResponse(answer.c_str(), pMsg->hDest, pMsg->instance, pMsg->userparm, pMsg->flags);
        return false;
    }
};

/// An engineer at the console.
class Session {
public:
    Session(unsigned int port, unsigned int hDoor) : m_client(port), m_door(std::to_string(hDoor)) {
        m_client.ReadTo("login: ");
        m_client.Send("Secret\r");
        m_client.ReadTo("Welcome...\r\n\r\n>");
    }
    ~Session() {
        m_client.Send("quit\r");
        m_client.ReadTo("quit\r\n");
        EXPECT_TRUE(m_client.IsClosed());
    }

    /// One command of those that show something, and two requests to the door. Its answer comes after the report.
    void Command() {
        static const char* const kCommands[] = {
            "sh queues",        "sh det queues",
            "sh lists",         "sh hashes",
            "sh timers",        "sh sockets",
            "sh threads",       "sh sem",
            "sh trace",         "sh mem",
            "sh handles",       "sh uptime",
            "sh interfaces",    "ch mem",
            "sh hlists",        "sh det trace Live",
            "sh mem histogram", "sh det mem group=bytes",
        };
        const std::string command = kCommands[m_commands++ % (sizeof(kCommands) / sizeof(kCommands[0]))];
        m_client.Send(command + "\r");
        m_client.Send("sh sum " + m_door + "\r");
        m_client.ReadTo("<summary>\r\n>");
        const std::string word = "word-" + std::to_string(m_commands);
        m_client.Send("send " + m_door + " " + word + "\r");
        m_client.ReadTo("<" + word + ">\r\n>");
    }
    unsigned int Commands() const { return m_commands; }

private:
    ConsoleClient m_client;
    const std::string m_door;
    unsigned int m_commands = 0;
};

} // namespace test

#endif // ENGINEER_LOAD_H
