#include "StatusQueue.h"

#include <netinet/in.h>
#include <string>

#include "DeviceMessages.h"
#include "DeviceTrace.h"
#include "Protocol.h"

const StatusQueue::ConsoleCommand StatusQueue::kCommands[] = {
    {"port", "[port]", "shows where the datagrams go, or changes it; 0 sends none", AnswerOf(&StatusQueue::AnswerPort)},
    {nullptr, nullptr, nullptr, nullptr},
};

StatusQueue::StatusQueue(unsigned int port)
    : ConsoleQueue("Status", "sends a status datagram for each sample", kCommands), m_port(port) {}

StatusQueue::~StatusQueue() {
    Cleanup(); // before the fields go that the handler uses
}

void StatusQueue::MessageHandler(MSG_COMMON* pMsg) {
    if (AnswerConsole(pMsg)) {
        tq_free(pMsg);
        return;
    }
    switch (pMsg->command) {
    case MSG_CREATE:
        Open();
        break;
    case MSG_DEVICE_SAMPLE:
        SendStatus(reinterpret_cast<const DEVICE_SAMPLE*>(pMsg)->sample);
        break;
    case MSG_SOCKET_CLOSED:
        if (pMsg->instance == m_hSocket) { // not one that was closed here meanwhile
            Close();
        }
        break;
    case MSG_DESTROY:
        Close();
        break;
    default: // MSG_SOCKET_CONNECTED announces the socket; a datagram that somebody sends to it is not answered
        break;
    }
    tq_free(pMsg);
}

void StatusQueue::Open() {
    if (m_port == 0) {
        return;
    }
    const unsigned int loopback = htonl(INADDR_LOOPBACK);
    m_hSocket = tq_SocketOpenUDP(GetHandle(), loopback, m_port, /*userparm=*/0, loopback, /*srcPort=*/0);
    if (m_hSocket == 0) {
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_SEVERE, DEVICE_CAT_STATUS, true, "no socket: no status datagrams\n");
        return;
    }
    tq_SocketSetName(m_hSocket, "Status");
}

void StatusQueue::Close() {
    if (m_hSocket != 0) {
        tq_SocketClose(m_hSocket);
        m_hSocket = 0;
    }
}

void StatusQueue::SendStatus(const Sample& sample) {
    if (m_hSocket == 0) {
        return;
    }
    const std::string text = SampleLine(sample);
    // Addresses 0 and 0: to where the socket was opened for. A datagram that does not get out is counted and not
    // missed, the next one comes soon.
    const unsigned int size = static_cast<unsigned int>(text.size());
    const unsigned int sent =
        tq_SocketSendTo(m_hSocket, reinterpret_cast<const unsigned char*>(text.data()), size, 0, 0);
    ++(sent == size ? m_sent : m_lost);
    m_newest = WithoutLineEnd(text);
}

std::string StatusQueue::Target() const {
    return m_hSocket != 0 ? "to 127.0.0.1 port " + std::to_string(m_port) : "to nobody";
}

std::string StatusQueue::Summary(bool bDetail) {
    std::string text = bDetail ? "Status: " : "";
    text += "datagrams " + Target() + "; " + std::to_string(m_sent) + " sent, " + std::to_string(m_lost) + " lost";
    if (bDetail) {
        text += "\r\n  socket: " + std::to_string(m_hSocket) +
                "\r\n  newest: " + (m_newest.empty() ? "none has been sent yet" : m_newest);
    }
    return text;
}

std::string StatusQueue::AnswerPort(std::string_view argument) {
    if (!argument.empty()) {
        unsigned int port;
        if (!ParseNumber(argument, 0, 65535, &port)) {
            return "port takes 0 to 65535";
        }
        Close();
        m_port = port;
        Open();
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_INFORMATIONAL, DEVICE_CAT_STATUS, true, "datagrams %s\n",
                 Target().c_str());
    }
    return "datagrams go " + Target();
}
