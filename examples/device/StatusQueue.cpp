#include "StatusQueue.h"

#include <netinet/in.h>
#include <string>

#include "DeviceMessages.h"
#include "DeviceTrace.h"
#include "Protocol.h"

StatusQueue::StatusQueue(unsigned int port)
    : tq_MsgQ("Status", "sends a status datagram for each sample"), m_port(port) {}

StatusQueue::~StatusQueue() {
    Cleanup(); // before the fields go that the handler uses
}

void StatusQueue::MessageHandler(MSG_COMMON* pMsg) {
    switch (pMsg->command) {
    case MSG_CREATE:
        Open();
        break;
    case MSG_DEVICE_SAMPLE:
        SendStatus(reinterpret_cast<const DEVICE_SAMPLE*>(pMsg)->sample);
        break;
    case MSG_SOCKET_CLOSED:
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
    // Addresses 0 and 0: to where the socket was opened for. A datagram that does not get out is not missed, the next
    // one comes soon.
    tq_SocketSendTo(m_hSocket, reinterpret_cast<const unsigned char*>(text.data()),
                    static_cast<unsigned int>(text.size()), 0, 0);
}
