// The network destination: senders, their viewers, and the queue that serves them all.
#include "tq_NetTrace_p.h"

#include <arpa/inet.h>
#include <atomic>
#include <linux/filter.h>
#include <mutex>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_Dir_p.h"
#include "tq_IniKeys_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_MsgQ_p.h"
#include "tq_Socket_p.h"
#include "tq_Thread.h"
#include "tq_Timer.h"
#include "tq_WorkingLock_p.h"

/// Fields that stand where tools look for them.
struct tq_NetTraceLayout {
    static_assert(offsetof(CNetTrace, m_pMACAddr) == 5, "record layout");
    static_assert(offsetof(CNetTrace, m_szApplicationName) == 23, "record layout");
    static_assert(offsetof(CNetTrace, m_szHostName) == 279, "record layout");
    static_assert(offsetof(CNetTrace, m_szVersion) == 535, "record layout");
    static_assert(offsetof(CNetTrace, m_ulLocalIPAddr) == 792, "record layout");
    static_assert(offsetof(CNetTrace, m_uiTracingCount) == 796, "record layout");
    static_assert(sizeof(void*) != 4 || offsetof(CNetTrace, m_pfnOnReset) == 804, "record layout");
};

// Settings

namespace {

constexpr char kVersion[] = "1.2";
constexpr char kGroup[] = "224.123.111.105";
constexpr unsigned int kGroupPort = 3000;
constexpr char kProbe[] = "KEEPALIVE/";

constexpr unsigned int kFirstAnnouncementMs = 100;
constexpr unsigned int kAnnouncementMs = 10000;
constexpr unsigned int kKeepAliveMs = 5000;
constexpr unsigned short kMostUnanswered = 2; ///< probes; the viewer is then dropped

/// A line that the system does not take at once is dropped, as the network may drop any: queued lines would need
/// memory on the way of every trace call, and to a viewer that is gone, without end.
constexpr unsigned int kOutCap = 0;

/// What the system keeps of a datagram: more than the longest request takes. A flood of long ones then costs no more
/// memory than one of short ones. It counts the header of 8 bytes.
constexpr unsigned int kDatagramKept = 8 + 16;

constexpr unsigned int kNoCap = 0xFFFFFFFF;
constexpr unsigned int kReadNothing = 0;

constexpr unsigned int kMessageOverhead = 43; ///< what a message of a datagram is longer than the datagram
constexpr unsigned int kMostInterfaces = 20;  ///< entries of the table of interfaces

constexpr char kSection[] = "Trace";
constexpr unsigned int kMostAllowed = 32;

unsigned int guiMaxViewers = 0;

constexpr tq_IniInteger kLimits[] = {
    {"MaxViewers", 0, &guiMaxViewers},
};

/// Addresses that requests are taken from.
struct AllowedNetwork {
    unsigned int ip; ///< network byte order, like the mask
    unsigned int mask;
};
AllowedNetwork gAllowed[kMostAllowed];
unsigned int guiAllowed = 0;
bool gbAllowsAll = true;

/// "10.0.0.7" or "10.0.0.0/8"; false for anything else.
bool ParseNetwork(char* pszText, AllowedNetwork* pNetwork) {
    unsigned long bits = 32;
    if (char* pszSlash = strchr(pszText, '/')) {
        *pszSlash = '\0';
        char* pszEnd = nullptr;
        bits = strtoul(pszSlash + 1, &pszEnd, 10);
        if (pszSlash[1] < '0' || pszSlash[1] > '9' || *pszEnd != '\0' || bits > 32) {
            return false;
        }
    }
    pNetwork->mask = bits == 0 ? 0 : htonl(0xFFFFFFFFu << (32 - bits));
    return inet_pton(AF_INET, pszText, &pNetwork->ip) == 1;
}

bool IsAllowed(unsigned int ip) {
    for (unsigned int i = 0; i < guiAllowed; ++i) {
        if (((ip ^ gAllowed[i].ip) & gAllowed[i].mask) == 0) {
            return true;
        }
    }
    return gbAllowsAll;
}

unsigned int MostViewers() {
    return guiMaxViewers == 0 || guiMaxViewers > kMostViewers ? kMostViewers : guiMaxViewers;
}

/// The timers of a sender: a timer's instance. Its userparm is the sender's socket.
enum { kAnnouncementTimer = 1, kKeepAliveTimer = 2 };

const char* TimerName(unsigned int timer) {
    return timer == kAnnouncementTimer ? "TqTrace Announcement" : "TqTrace Keepalive";
}

} // namespace

void tq_NetTraceReadSettings() {
    tq_ReadIniTable(kSection, kLimits);
    char list[1024];
    tq_GetINIFileString(kSection, "AllowedViewers", "", list, sizeof(list), psz_tqos_ini_file);
    gbAllowsAll = list[0] == '\0';
    guiAllowed = 0;
    char* pszRest = nullptr;
    for (char* pszWord = strtok_r(list, ", \t", &pszRest); pszWord && guiAllowed < kMostAllowed;
         pszWord = strtok_r(nullptr, ", \t", &pszRest)) {
        guiAllowed += ParseNetwork(pszWord, &gAllowed[guiAllowed]) ? 1 : 0;
    }
}

// State

CTraceMsgQ* gpTraceMsgQ = nullptr; // made under gSendersMutex; destroyed when nobody is inside the gate of trace

namespace {

// Senders are made and destroyed under it; it comes before the locks of everything that it starts.
tq_PlacedMutex gSendersMutex(tq_LockRank::kSenders);

/// The handle of gpTraceMsgQ, kept until the object goes: the library's termination ends the queue earlier, and its
/// timers are still to be found.
std::atomic<unsigned int> ghTraceMsgQ{0};

/// The sockets of senders are not read. Written by the queue's handler with the instance list locked.
bool gbReadingStopped = false;

/// The instance whose sender has this socket, or null.
_TRACEINSTANCE* FindBySocketLocked(unsigned int hSocket) {
    if (hSocket == 0) {
        return nullptr; // that of every instance without a sender
    }
    return static_cast<_TRACEINSTANCE*>(gpTraceInstanceList->FindFirst(tq_ListKey(hSocket), LIST_TYPE_U32BITS,
                                                                       offsetof(_TRACEINSTANCE, iSocket), nullptr,
                                                                       LIST_DIRECTION_HEAD_TO_TAIL));
}

/// A sender, found by its socket, with the instance list's lock for a scope; false when there is none (any more).
class LockedSender {
public:
    explicit LockedSender(unsigned int hSocket) : m_pInstance(m_trace ? FindBySocketLocked(hSocket) : nullptr) {}
    explicit operator bool() const { return m_pInstance != nullptr; }
    CNetTrace* operator->() const { return m_pInstance->pNetTrace; }
    CNetTrace* Get() const { return m_pInstance->pNetTrace; }
    _TRACEINSTANCE* Instance() const { return m_pInstance; }

private:
    tq_LockedTrace m_trace;
    _TRACEINSTANCE* m_pInstance;
};

void DottedForm(unsigned int ip, char (&text)[INET_ADDRSTRLEN]) {
    inet_ntop(AF_INET, &ip, text, sizeof(text));
}

/// The addresses that the machine has now.
class LocalAddresses {
public:
    LocalAddresses() {
        const unsigned int interfaces = tq_SocketGetInterfaceCount();
        for (unsigned int i = 0; i < interfaces && m_count < kMostInterfaces; ++i) {
            const unsigned int ip = tq_SocketGetInterfaceAddress(i);
            if (ip != 0) {
                m_addresses[m_count++] = ip;
            }
        }
    }

    bool Has(unsigned int ip) const {
        for (unsigned int i = 0; i < m_count; ++i) {
            if (m_addresses[i] == ip) {
                return true;
            }
        }
        return false;
    }

    /// The one to bind to.
    unsigned int First() const { return m_count ? m_addresses[0] : htonl(INADDR_LOOPBACK); }

private:
    unsigned int m_addresses[kMostInterfaces];
    unsigned int m_count = 0;
};

/// Has the system cut what comes in. One that cannot hands it on whole.
void KeepDatagramsShort(unsigned int hSocket) {
    struct sock_filter take = BPF_STMT(BPF_RET | BPF_K, kDatagramKept);
    const struct sock_fprog filter = {1, &take};
    tq_SocketSetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter));
}

unsigned int OpenSocket(unsigned int ip, const char* pszName) {
    const unsigned int hSocket = tq_SocketOpenUDP(ghTraceMsgQ, 0, 0, 0, ip, 0);
    if (hSocket != 0) {
        KeepDatagramsShort(hSocket);
        tq_SocketSetDataOutCap(hSocket, kOutCap);
        tq_SocketSetName(hSocket, pszName);
    }
    return hSocket;
}

// Reading of the sockets

void ApplyReadingLocked(unsigned int hSocket) {
    tq_SocketSetDataInCap(hSocket, gbReadingStopped ? kReadNothing : kNoCap);
}

/// Has the sockets of all senders read, or not.
void SetReading(bool bRead) {
    tq_LockedTrace trace;
    if (!trace) {
        return;
    }
    gbReadingStopped = !bRead;
    for (void* pNode = gpTraceInstanceList->GetHead(); pNode; pNode = gpTraceInstanceList->GetNext()) {
        const _TRACEINSTANCE* pInstance = static_cast<_TRACEINSTANCE*>(pNode);
        if (pInstance->iSocket != 0) {
            ApplyReadingLocked(static_cast<unsigned int>(pInstance->iSocket));
        }
    }
}

/// Keeps what waits for the queue bounded however much is sent to the sockets. Called by its handler.
void ReadWithinBounds(tq_MsgQ& queue) {
    const unsigned int waiting = queue.GetQueueDepth(0);
    if (waiting > kMostWaiting && !gbReadingStopped) {
        SetReading(false);
    } else if (gbReadingStopped && waiting == 0) {
        SetReading(true);
    }
}

// Timers of a sender

void SetTimer(unsigned int timer, unsigned int hSocket, unsigned int ms) {
    tq_TimerSet(ghTraceMsgQ, ms, timer, hSocket, 0, TQ_TIMER_ONE_SHOT, TimerName(timer), /*bAllowSkew=*/false);
}

bool KillTimer(unsigned int timer, unsigned int hSocket) {
    return tq_TimerKill(ghTraceMsgQ, timer, hSocket, 0) == 0;
}

/// Sets a timer from the queue's handler, which holds no lock: should the sender have gone meanwhile, whoever destroyed
/// it may have looked for the timer too early.
void SetTimerOfLiving(unsigned int timer, unsigned int hSocket, unsigned int ms) {
    SetTimer(timer, hSocket, ms);
    const bool bLives = static_cast<bool>(LockedSender(hSocket));
    if (!bLives) {
        KillTimer(timer, hSocket);
    }
}

} // namespace

// The sender

int CNetTrace::Init(const char* szApplicationName, const char* szVersion, PFN_ONRESET pfnOnReset) {
    if (m_bInitialized) {
        return m_iSocket;
    }
    snprintf(m_szApplicationName, sizeof(m_szApplicationName), "%s", szApplicationName);
    snprintf(m_szVersion, sizeof(m_szVersion), "%s", szVersion);
    m_pfnOnReset = pfnOnReset;
    m_ClientList = tq_IfItLocks(tq_newObject<tq_List>(m_szApplicationName));
    tq_ListPlace(m_ClientList, tq_LockRank::kViewers);
    tq_GetMACAddress(m_pMACAddr);
    const unsigned int ip = LocalAddresses().First();
    const unsigned int hSocket = m_ClientList ? OpenSocket(ip, m_szApplicationName) : 0;
    UseSocket(hSocket, ip);
    m_bInitialized = true;
    if (hSocket == 0) {
        Term();
    }
    return m_iSocket;
}

void CNetTrace::Term() {
    if (!m_bInitialized) {
        return;
    }
    m_bInitialized = false;
    const unsigned int hSocket = static_cast<unsigned int>(m_iSocket);
    m_iSocket = 0;
    if (hSocket != 0) {
        KillTimer(kAnnouncementTimer, hSocket);
        KillTimer(kKeepAliveTimer, hSocket);
        tq_SocketClose(hSocket);
    }
    while (void* pViewer = m_ClientList ? m_ClientList->RemoveHead() : nullptr) {
        tq_free(pViewer);
    }
    tq_deleteObject(m_ClientList);
    m_ClientList = nullptr;
    m_uiTracingCount = 0;
}

void CNetTrace::UseSocket(unsigned int hSocket, unsigned int ip) {
    m_iSocket = static_cast<int>(hSocket);
    m_ulLocalIPAddr = ip;
}

void CNetTrace::SendTrace(const char* szDbgStr) {
    if (m_uiTracingCount == 0 || !m_bInitialized || m_iSocket == 0) {
        return;
    }
    const unsigned int bytes = static_cast<unsigned int>(strlen(szDbgStr) + 1);
    tq_ListLock lock(m_ClientList);
    for (void* pNode = m_ClientList->GetHead(); pNode; pNode = m_ClientList->GetNext()) {
        const TRACE_CLIENT* pViewer = static_cast<TRACE_CLIENT*>(pNode);
        SendOrDrop(static_cast<unsigned int>(m_iSocket), reinterpret_cast<const unsigned char*>(szDbgStr), bytes,
                   pViewer->ulIPAddr, pViewer->usPort);
    }
}

void CNetTrace::Announcement(unsigned int port, char* pText, size_t bytes) const {
    char address[INET_ADDRSTRLEN];
    DottedForm(m_ulLocalIPAddr, address);
    snprintf(pText, bytes, "DISCOVER/version=%s/applicationName=%s/mac=%s/IPAddr=%s/port=%u/host=%s//", m_szVersion,
             m_szApplicationName, m_pMACAddr, address, port, m_szHostName);
}

// Viewers

namespace {

/// Calls visit(viewer) for each entry of this address and port.
template <typename Visit> void VisitViewer(tq_List* pList, unsigned int ip, unsigned short port, Visit visit) {
    tq_ListLock lock(pList);
    for (void* pNode = pList->GetHead(); pNode; pNode = pList->GetNext()) {
        TRACE_CLIENT* pViewer = static_cast<TRACE_CLIENT*>(pNode);
        if (pViewer->ulIPAddr == ip && pViewer->usPort == port) {
            visit(pViewer);
        }
    }
}

} // namespace

bool CNetTrace::AddViewer(unsigned int ip, unsigned short port) {
    bool bListed = false;
    VisitViewer(m_ClientList, ip, port, [&bListed](TRACE_CLIENT* pViewer) {
        pViewer->usKeepAlive = 0;
        bListed = true;
    });
    if (bListed || m_uiTracingCount >= MostViewers()) {
        return false;
    }
    TRACE_CLIENT* pViewer = static_cast<TRACE_CLIENT*>(tq_calloc(1, sizeof(TRACE_CLIENT)));
    if (!pViewer) {
        return false;
    }
    pViewer->ulIPAddr = ip;
    pViewer->usPort = port;
    tq_ListLock lock(m_ClientList);
    const unsigned int before = m_ClientList->NodeCount();
    m_ClientList->AddToTail(pViewer);
    if (m_ClientList->NodeCount() == before) { // a list without memory says nothing
        tq_free(pViewer);
        return false;
    }
    ++m_uiTracingCount;
    return true;
}

bool CNetTrace::RemoveViewer(unsigned int ip, unsigned short port) {
    bool bRemoved = false;
    VisitViewer(m_ClientList, ip, port, [this, &bRemoved](TRACE_CLIENT* pViewer) {
        m_ClientList->RemoveNode(pViewer);
        tq_free(pViewer);
        m_uiTracingCount -= m_uiTracingCount > 0 ? 1 : 0;
        bRemoved = true;
    });
    return bRemoved;
}

void CNetTrace::HearOfViewer(unsigned int ip, unsigned short port) {
    VisitViewer(m_ClientList, ip, port, [](TRACE_CLIENT* pViewer) { pViewer->usKeepAlive = 0; });
}

void CNetTrace::CountProbes(tq_Probes& probes) {
    tq_ListLock lock(m_ClientList);
    for (void* pNode = m_ClientList->GetHead(); pNode; pNode = m_ClientList->GetNext()) {
        TRACE_CLIENT* pViewer = static_cast<TRACE_CLIENT*>(pNode);
        if (++pViewer->usKeepAlive < kMostUnanswered) {
            probes.to[probes.count++] = *pViewer;
            continue;
        }
        m_ClientList->RemoveNode(pViewer); // the walk goes on behind it
        tq_free(pViewer);
        --m_uiTracingCount;
    }
}

bool CTraceMsgQ::AddClient(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace) {
    if (ulIPAddr == 0 || usPort == 0 || !pNetTrace || !pNetTrace->AddViewer(ulIPAddr, usPort)) {
        return false;
    }
    pNetTrace->SetProbing(true);
    return true;
}

bool CTraceMsgQ::RemoveClient(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace) {
    if (!pNetTrace || !pNetTrace->RemoveViewer(ulIPAddr, usPort)) {
        return false;
    }
    // Deliberate: the timer is that of all viewers, of whom a reader would expect the others to be probed on. They are
    // not, and none of them is dropped for silence, until somebody subscribes.
    pNetTrace->SetProbing(false);
    return true;
}

void CTraceMsgQ::ClearKeepalive(unsigned int ulIPAddr, unsigned short usPort, CNetTrace* pNetTrace) {
    if (pNetTrace) {
        pNetTrace->HearOfViewer(ulIPAddr, usPort);
    }
}

// Requests of viewers

namespace {

/// Who asks, and which sender: the one whose socket the datagram came to.
struct Request {
    unsigned int hSocket;
    unsigned int ip;
    unsigned short port;
};

void OnReset(const Request& request) {
    PFN_ONRESET pfnOnReset = nullptr;
    {
        LockedSender sender(request.hSocket);
        pfnOnReset = sender ? sender->ResetHandler() : nullptr;
    }
    if (pfnOnReset) {
        SetReading(false); // it may take its time
        pfnOnReset();      // without a lock: the application may trace, on any thread, and switch this destination off
    }
}

void OnTraceOn(const Request& request) {
    bool bSetTimer = false;
    {
        LockedSender sender(request.hSocket);
        bSetTimer = sender && CTraceMsgQ::AddClient(request.ip, request.port, sender.Get());
    }
    if (bSetTimer) {
        SetTimerOfLiving(kKeepAliveTimer, request.hSocket, kKeepAliveMs);
    }
}

void OnTraceOff(const Request& request) {
    bool bKillTimer = false;
    {
        LockedSender sender(request.hSocket);
        bKillTimer = sender && CTraceMsgQ::RemoveClient(request.ip, request.port, sender.Get());
    }
    if (bKillTimer) {
        KillTimer(kKeepAliveTimer, request.hSocket);
    }
}

void OnAnswer(const Request& request) {
    LockedSender sender(request.hSocket);
    if (sender) {
        CTraceMsgQ::ClearKeepalive(request.ip, request.port, sender.Get());
    }
}

struct Keyword {
    const char* pszText;
    void (*pfnRequest)(const Request& request);
};

constexpr Keyword kKeywords[] = {
    {"RESET/", OnReset},
    {"TRACEON/", OnTraceOn},
    {"TRACEOFF/", OnTraceOff},
    {kProbe, OnAnswer},
};

void OnDatagram(MSG_COMMON& msg) {
    SOCKET_DATAGRAM& datagram = reinterpret_cast<SOCKET_DATAGRAM&>(msg);
    if (msg.size <= kMessageOverhead || !IsAllowed(datagram.srcaddress)) {
        return;
    }
    const unsigned int length = msg.size - kMessageOverhead;
    char* pText = reinterpret_cast<char*>(datagram.data);
    pText[length - 1] = '\0'; // in place of whatever the datagram ends with
    const Request request = {msg.instance, datagram.srcaddress, static_cast<unsigned short>(datagram.srcport)};
    for (const Keyword& row : kKeywords) {
        const size_t keywordLength = strlen(row.pszText);
        if (length > keywordLength && strncmp(pText, row.pszText, keywordLength) == 0) {
            row.pfnRequest(request);
            return;
        }
    }
}

// Timers

void SendText(unsigned int hSocket, const char* pszText, unsigned int ip, unsigned int port) {
    tq_SocketSendTo(hSocket, reinterpret_cast<const unsigned char*>(pszText),
                    static_cast<unsigned int>(strlen(pszText) + 1), ip, port);
}

void OnAnnouncementTimer(unsigned int hSocket) {
    char text[1200]; // more than all fields at their longest take
    const unsigned int port = tq_SocketGetBoundPort(hSocket);
    {
        LockedSender sender(hSocket);
        if (!sender) {
            return;
        }
        sender->Announcement(port, text, sizeof(text));
    }
    SendText(hSocket, text, inet_addr(kGroup), kGroupPort);
    SetTimerOfLiving(kAnnouncementTimer, hSocket, kAnnouncementMs);
}

void OnKeepAliveTimer(unsigned int hSocket) {
    tq_Probes probes;
    {
        LockedSender sender(hSocket);
        if (!sender || !sender->IsProbing()) {
            return; // it had fired before it was killed
        }
        sender->CountProbes(probes);
        sender->SetProbing(probes.count > 0);
    }
    if (probes.count == 0) {
        return;
    }
    // Sent without a lock, since sending traces.
    for (unsigned int i = 0; i < probes.count; ++i) {
        SendText(hSocket, kProbe, probes.to[i].ulIPAddr, probes.to[i].usPort);
    }
    SetTimerOfLiving(kKeepAliveTimer, hSocket, kKeepAliveMs);
}

void OnTimer(MSG_COMMON& msg) {
    if (msg.instance == kAnnouncementTimer) {
        OnAnnouncementTimer(msg.userparm);
    } else if (msg.instance == kKeepAliveTimer) {
        OnKeepAliveTimer(msg.userparm);
    }
}

// Changes of the machine's interfaces

/// What is needed of a sender to bind it anew.
struct BoundSender {
    unsigned int hInstance;
    unsigned int hSocket;
    unsigned int ip;
    char name[256];
};

/// The sender of the instance with the next higher handle; false when there is none.
bool NextSender(unsigned int hAfter, BoundSender* pNext) {
    tq_LockedTrace trace;
    if (!trace) {
        return false;
    }
    const _TRACEINSTANCE* pFound = nullptr;
    for (void* pNode = gpTraceInstanceList->GetHead(); pNode; pNode = gpTraceInstanceList->GetNext()) {
        const _TRACEINSTANCE* pInstance = static_cast<_TRACEINSTANCE*>(pNode);
        const unsigned int handle = static_cast<unsigned int>(pInstance->handle);
        if (pInstance->pNetTrace && handle > hAfter &&
            (!pFound || handle < static_cast<unsigned int>(pFound->handle))) {
            pFound = pInstance;
        }
    }
    if (!pFound) {
        return false;
    }
    pNext->hInstance = static_cast<unsigned int>(pFound->handle);
    pNext->hSocket = static_cast<unsigned int>(pFound->iSocket);
    pNext->ip = pFound->pNetTrace->LocalAddress();
    memcpy(pNext->name, pFound->pNetTrace->ApplicationName(), sizeof(pNext->name));
    return true;
}

/// Lets the timers of the old socket go on with the new one. The network is told of it at once.
void MoveTimers(unsigned int hOld, unsigned int hNew, bool bProbing) {
    const unsigned int remaining = tq_TimerTimeRemaining(ghTraceMsgQ, kKeepAliveTimer, hOld, 0);
    KillTimer(kKeepAliveTimer, hOld);
    KillTimer(kAnnouncementTimer, hOld);
    if (bProbing) { // with nothing remaining it has fired, for a socket that is nobody's any more
        SetTimerOfLiving(kKeepAliveTimer, hNew, remaining);
    }
    SetTimerOfLiving(kAnnouncementTimer, hNew, kFirstAnnouncementMs);
}

/// Gives a sender a socket that is bound to another address. Where none can be opened it keeps what it has, and the
/// next change of the interfaces finds it so.
void Rebind(const BoundSender& bound, unsigned int ip) {
    const unsigned int hNew = OpenSocket(ip, bound.name);
    if (hNew == 0) {
        return;
    }
    bool bMoved = false;
    bool bProbing = false;
    {
        LockedSender sender(bound.hSocket);
        if (sender) {
            sender->UseSocket(hNew, ip);
            sender.Instance()->iSocket = static_cast<int>(hNew);
            ApplyReadingLocked(hNew);
            bProbing = sender->IsProbing();
            bMoved = true;
        }
    }
    if (!bMoved) {
        tq_SocketClose(hNew);
        return;
    }
    MoveTimers(bound.hSocket, hNew, bProbing);
    tq_SocketClose(bound.hSocket);
}

/// Binds the senders anew whose address the machine has lost.
void OnNewInterfaces(MSG_COMMON&) {
    const LocalAddresses local;
    BoundSender sender;
    for (unsigned int hAfter = 0; NextSender(hAfter, &sender); hAfter = sender.hInstance) {
        if (!local.Has(sender.ip) && local.First() != sender.ip) {
            Rebind(sender, local.First());
        }
    }
}

// The queue

void OnSummary(MSG_COMMON& msg) {
    tq_AnswerConsole("OK", msg);
}

struct MessageRow {
    unsigned int command;
    void (*pfnMessage)(MSG_COMMON& msg);
};

constexpr MessageRow kMessages[] = {
    {MSG_SOCKET_DATAGRAM, OnDatagram},
    {MSG_TIMER, OnTimer},
    {MSG_SOCKET_NEW_INTERFACES, OnNewInterfaces},
    {MSG_TELNET_SUMMARY, OnSummary},
};

} // namespace

void CTraceMsgQ::MessageHandler(MSG_COMMON* pMsg) {
    if (pMsg->command == MSG_CREATE) {
        SetName("TQOS: Tracing");
    }
    for (const MessageRow& row : kMessages) {
        if (row.command == pMsg->command) {
            row.pfnMessage(*pMsg);
        }
    }
    tq_free(pMsg);
    ReadWithinBounds(*this);
}

// Switching an instance's destination on and off

namespace {

/// Makes the queue, or finds it; false when it cannot be, or has ended with the library.
bool StartQueue() {
    if (gpTraceMsgQ) {
        return gpTraceMsgQ->GetHandle() != 0;
    }
    CTraceMsgQ* pQueue = tq_newObject<CTraceMsgQ>();
    if (!pQueue) {
        return false;
    }
    pQueue->Create(TQ_THREAD_PRIORITY_NORMAL);
    if (pQueue->GetHandle() == 0 || tq_MsgQInside::ThreadId(*pQueue) == 0) {
        tq_deleteObject(pQueue);
        return false;
    }
    ghTraceMsgQ = pQueue->GetHandle();
    gpTraceMsgQ = pQueue;
    return true;
}

/// Takes an instance's sender off it, and says what the next one is to be called. False when there is no such instance.
template <size_t N> bool TakeSender(unsigned int hTraceInstance, CNetTrace** ppSender, char (&name)[N]) {
    tq_LockedTrace trace;
    _TRACEINSTANCE* pInstance = trace ? tq_FindTraceInstanceLocked(hTraceInstance) : nullptr;
    if (!pInstance) {
        return false;
    }
    *ppSender = pInstance->pNetTrace;
    pInstance->pNetTrace = nullptr;
    pInstance->iSocket = 0;
    pInstance->Flags &= ~TQ_TRACE_DEST_MULTICAST;
    tq_TraceFilterChangedLocked(hTraceInstance);
    snprintf(name, N, "%s", pInstance->pszTracingName);
    return true;
}

/// A sender that works, or null.
CNetTrace* NewSender(const char* pszTracingName, unsigned int* phSocket) {
    if (!StartQueue()) {
        return nullptr;
    }
    CNetTrace* pSender = tq_newObject<CNetTrace>();
    if (!pSender) {
        return nullptr;
    }
    char address[INET_ADDRSTRLEN];
    DottedForm(tq_SocketGetInterfaceAddress(0), address);
    char name[1024];
    snprintf(name, sizeof(name), "%s:%s", address, pszTracingName);
    *phSocket = static_cast<unsigned int>(pSender->Init(name, kVersion, nullptr));
    if (*phSocket == 0) {
        tq_deleteObject(pSender);
        return nullptr;
    }
    return pSender;
}

/// False when there is no such instance any more.
bool GiveSender(unsigned int hTraceInstance, CNetTrace* pSender, unsigned int hSocket) {
    tq_LockedTrace trace;
    _TRACEINSTANCE* pInstance = trace ? tq_FindTraceInstanceLocked(hTraceInstance) : nullptr;
    if (!pInstance) {
        return false;
    }
    pInstance->pNetTrace = pSender;
    pInstance->iSocket = static_cast<int>(hSocket);
    pInstance->Flags |= TQ_TRACE_DEST_MULTICAST;
    tq_TraceFilterChangedLocked(hTraceInstance);
    ApplyReadingLocked(hSocket);
    return true;
}

} // namespace

int tq_TraceEnableMulticast(unsigned int hTraceInstance) {
    tq_GatePass pass(gTraceGate);
    std::lock_guard<tq_PlacedMutex> lock(gSendersMutex);
    char name[1024];
    CNetTrace* pOld = nullptr;
    if (!pass || !TakeSender(hTraceInstance, &pOld, name)) {
        return 1;
    }
    tq_deleteObject(pOld);
    unsigned int hSocket = 0;
    CNetTrace* pSender = NewSender(name, &hSocket);
    if (!pSender || !GiveSender(hTraceInstance, pSender, hSocket)) {
        tq_deleteObject(pSender);
        return 1;
    }
    // Only now: a timer that fires before the sender is stored finds none, and would be the last.
    SetTimer(kAnnouncementTimer, hSocket, kFirstAnnouncementMs);
    return 0;
}

int tq_TraceDisableMulticast(unsigned int hTraceInstance) {
    tq_GatePass pass(gTraceGate);
    std::lock_guard<tq_PlacedMutex> lock(gSendersMutex);
    char name[1];
    CNetTrace* pSender = nullptr;
    if (!pass || !TakeSender(hTraceInstance, &pSender, name)) {
        return 1;
    }
    tq_deleteObject(pSender);
    return 0;
}

int tq_TraceSetResetHandler(unsigned int hTraceInstance, PFN_ONRESET pfnResetHandler) {
    tq_LockedTrace trace;
    _TRACEINSTANCE* pInstance = trace ? tq_FindTraceInstanceLocked(hTraceInstance) : nullptr;
    if (pInstance && pInstance->pNetTrace) {
        pInstance->pNetTrace->SetResetHandler(pfnResetHandler);
    }
    // Deliberate: 1 in every case, where a reader would expect 0 once the handler is stored. The result says nothing.
    return 1;
}

void tq_NetTraceFreeSender(_TRACEINSTANCE* pInstance) {
    if (!pInstance->pNetTrace) {
        return;
    }
    std::lock_guard<tq_PlacedMutex> lock(gSendersMutex); // whoever has just stored it may still be setting its timer
    tq_deleteObject(pInstance->pNetTrace);
    pInstance->pNetTrace = nullptr;
}

void tq_NetTraceTerminate() {
    tq_deleteObject(gpTraceMsgQ);
    gpTraceMsgQ = nullptr;
    ghTraceMsgQ = 0;
    gbReadingStopped = false;
}
