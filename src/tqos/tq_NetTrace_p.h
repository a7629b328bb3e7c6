/// @file tq_NetTrace_p.h
/// The network destination of trace: each instance that has it owns a sender (CNetTrace), and one queue (CTraceMsgQ)
/// receives the datagrams and the timers of all of them.
///
/// Invariants:
/// - A sender is finished before it is stored in its instance and taken off before it is destroyed. In between, its
///   fields are guarded by the lock of gpTraceInstanceList; whoever found a sender keeps that lock while using it. The
///   list of viewers has a lock of its own besides, which comes after.
/// - An instance's iSocket is its sender's m_iSocket. It names the sender in timers and in messages of the socket, so a
///   timer or a datagram that comes late finds no sender.
/// - Nothing that may start a subsystem, wait for a thread or trace is done with the lock of gpTraceInstanceList held:
///   sockets are opened and closed, timers set and killed without it.
/// - Senders are made and destroyed under one lock, which comes before all others; the queue's handler never takes it.
#ifndef TQ_NETTRACE_P_H
#define TQ_NETTRACE_P_H

#include <stddef.h>

#include "tq_List.h"
#include "tq_MsgQ.h"
#include "tq_Trace_p.h"

/// The most viewers of one instance. Whoever can reach the port can subscribe, under any number of addresses; further
/// ones are refused until a place is free. The setting "MaxViewers" makes it fewer.
constexpr unsigned int kMostViewers = 128;

/// So many messages may wait for the queue's handler; with more of them the sockets of all senders are not read until
/// it has caught up. They are not read either while the application handles a reset. What the system cannot keep
/// meanwhile it drops.
constexpr unsigned int kMostWaiting = 64;

/// A viewer that has subscribed.
typedef struct _TRACE_CLIENT {
    unsigned int ulIPAddr;      ///< network byte order
    unsigned short usPort;      ///< host byte order
    unsigned short usKeepAlive; ///< probes not answered
} TRACE_CLIENT;

static_assert(sizeof(TRACE_CLIENT) == 8, "record layout");

/// Viewers that are to be sent a probe.
struct tq_Probes {
    unsigned int count = 0;
    TRACE_CLIENT to[kMostViewers];
};

/// Sends the lines of one trace instance to its viewers.
class CNetTrace {
public:
    CNetTrace() = default;
    ~CNetTrace() { Term(); }
    CNetTrace(const CNetTrace&) = delete;
    CNetTrace& operator=(const CNetTrace&) = delete;

    /// Makes the list of viewers and opens the socket. The announcing is left to the caller, who begins it once the
    /// sender is stored in its instance.
    /// @return the socket; 0: it could not be opened, or there is no memory
    int Init(const char* szApplicationName, const char* szVersion, PFN_ONRESET pfnOnReset);

    /// Kills the timers, closes the socket and forgets the viewers. Not with the lock of gpTraceInstanceList held.
    void Term();

    void SetResetHandler(PFN_ONRESET pfnOnReset) { m_pfnOnReset = pfnOnReset; }
    PFN_ONRESET ResetHandler() const { return m_pfnOnReset; }

    /// Sends a line with its terminator to each viewer. Neither waits, nor allocates, nor traces.
    void SendTrace(const char* szDbgStr);

    /// Changes over to another socket; the old one is the caller's.
    void UseSocket(unsigned int hSocket, unsigned int ip);

    /// The text that tells the network of this sender.
    void Announcement(unsigned int port, char* pText, size_t bytes) const;

    // The viewers

    /// True when a viewer has come to the list; one that is in it already counts as heard of.
    bool AddViewer(unsigned int ip, unsigned short port);
    /// True when the viewer was in the list.
    bool RemoveViewer(unsigned int ip, unsigned short port);
    void HearOfViewer(unsigned int ip, unsigned short port);
    /// Counts one more probe for each viewer: collects those who are to be sent one, and drops those who did not answer
    /// the one before.
    void CountProbes(tq_Probes& probes);

    unsigned int LocalAddress() const { return m_ulLocalIPAddr; }
    unsigned int Viewers() const { return m_uiTracingCount; }
    const char* ApplicationName() const { return m_szApplicationName; }
    bool IsProbing() const { return m_bProbing; }
    void SetProbing(bool bProbing) { m_bProbing = bProbing; }

private:
    friend struct tq_NetTraceLayout;

    int m_iSocket = 0;
    bool m_bInitialized = false;
    char m_pMACAddr[18] = "";
    char m_szApplicationName[256] = "";
    char m_szHostName[256] = ""; ///< announced, and never filled
    char m_szVersion[256] = "";
    unsigned int m_ulLocalIPAddr = 0; ///< network byte order
    unsigned int m_uiTracingCount = 0;
    tq_List* m_ClientList = nullptr; ///< of TRACE_CLIENT
    PFN_ONRESET m_pfnOnReset = nullptr;

    bool m_bProbing = false; ///< a keep-alive timer is set, or has fired and waits to be handled
};

/// The queue of all senders, "TQOS: Tracing".
class CTraceMsgQ : public tq_MsgQ {
public:
    CTraceMsgQ() : tq_MsgQ(nullptr, nullptr) {}
    ~CTraceMsgQ() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override;

    // The lock of gpTraceInstanceList is held by the caller of these.

    /// Subscribes a viewer. True when it is a new one, and the keep-alive timer is to be set.
    static bool AddClient(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace);
    /// Ends a subscription. True when there was one, and the keep-alive timer is to be killed.
    static bool RemoveClient(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace);
    /// Forgets the probe that a viewer has answered.
    static void ClearKeepalive(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace);
};

extern CTraceMsgQ* gpTraceMsgQ; ///< made when multicast is first enabled

/// Reads who may subscribe. Before there is a sender.
void tq_NetTraceReadSettings();

/// Destroys an instance's sender, if it has one. The instance is in no list any more.
void tq_NetTraceFreeSender(_TRACEINSTANCE* pInstance);

/// Destroys the queue. Nobody is inside the gate of trace any more.
void tq_NetTraceTerminate();

#endif // TQ_NETTRACE_P_H
