/// @file StatusQueue.h
/// The queue that tells the world: one UDP datagram to a loopback port for each sample it is sent.
#ifndef DEVICE_STATUS_QUEUE_H
#define DEVICE_STATUS_QUEUE_H

#include <tqos.h>

#include "ConsoleQueue.h"
#include "Sample.h"

class StatusQueue : public ConsoleQueue {
public:
    /// Port 0 sends nothing.
    explicit StatusQueue(unsigned int port);
    ~StatusQueue() override;

    void MessageHandler(MSG_COMMON* pMsg) override;

protected:
    std::string Summary(bool bDetail) override;

private:
    static const ConsoleCommand kCommands[];

    void Open();
    void Close();
    void SendStatus(const Sample& sample);
    std::string Target() const;

    std::string AnswerPort(std::string_view argument);

    // This queue's own thread alone uses these.
    unsigned int m_port;
    unsigned int m_hSocket = 0;
    unsigned int m_sent = 0;
    unsigned int m_lost = 0;
    std::string m_newest;
};

#endif // DEVICE_STATUS_QUEUE_H
