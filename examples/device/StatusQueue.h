/// @file StatusQueue.h
/// The queue that tells the world: one UDP datagram to a loopback port for each sample it is sent.
#ifndef DEVICE_STATUS_QUEUE_H
#define DEVICE_STATUS_QUEUE_H

#include <tqos.h>

#include "Sample.h"

class StatusQueue : public tq_MsgQ {
public:
    /// Port 0 sends nothing.
    explicit StatusQueue(unsigned int port);
    ~StatusQueue() override;

    void MessageHandler(MSG_COMMON* pMsg) override;

private:
    void Open();
    void Close();
    void SendStatus(const Sample& sample);

    const unsigned int m_port;
    unsigned int m_hSocket = 0; // this queue's own thread alone uses it
};

#endif // DEVICE_STATUS_QUEUE_H
