// The sockets thread's loop: what it waits for, and what it does when a socket is ready.
#include "tq_Socket_p.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tq_Lifecycle_p.h"
#include "tq_Memory.h"
#include "tq_MsgQ_p.h"
#include "tq_Time.h"
#include "tq_Trace_p.h"

// Settings

namespace {

constexpr unsigned int kPaceMs = 5000;       // longest wait, and how often the interfaces are looked at
constexpr unsigned int kMemoryPauseMs = 100; // before what found no memory is tried again
constexpr unsigned int kShortageMs = 500;    // before an accept is tried again that found no descriptor
constexpr unsigned int kMostAccepts = 64;    // in one turn
constexpr unsigned int kBreakerPiece = 64;
constexpr unsigned int kMostSendErrors = 4; // in a row, before a block is given up

} // namespace

// State: the worker's own

namespace {

unsigned int gLastInterfaceCheck = 0;

/// A kind of work that is left alone for a while, since trying it again at once would fail again. What is waited for
/// changes with it.
class Pause {
public:
    void Begin(unsigned int ms) {
        m_bOn = true;
        m_since = tq_GetTimeInMS();
        m_ms = ms;
        gbLookAtAll = true;
    }
    void End() {
        gbLookAtAll = gbLookAtAll || m_bOn;
        m_bOn = false;
    }
    /// Milliseconds that remain, 0 when there is no pause (any more).
    unsigned int Remaining() {
        const unsigned int elapsed = m_bOn ? tq_GetTimeInMS() - m_since : m_ms;
        if (elapsed >= m_ms) {
            End();
            return 0;
        }
        return m_ms - elapsed;
    }
    bool IsOn() const { return m_bOn; }

private:
    bool m_bOn = false;
    unsigned int m_since = 0;
    unsigned int m_ms = 0;
};

Pause gAcceptPause; // no descriptor was left; ends early when the layer gives one back
Pause gReadPause;   // no memory was left
Pause gClosedPause; // an owner could not be told of a close
Pause* const kPauses[] = {&gAcceptPause, &gReadPause, &gClosedPause};

} // namespace

// Reading

bool IsHarmlessReadError(unsigned int type, int error) {
    return error == EAGAIN || (type == SOCKET_TYPE_UDP && error == ECONNRESET);
}

namespace {

/// Leaves what waits in the system until there may be memory for it again.
int LeaveForLater() {
    gReadPause.Begin(kMemoryPauseMs);
    return EAGAIN;
}

/// Reads a piece of a stream into a new block. Returns 0, or the system error.
int HandleReadableStream(SOCKET_INSTANCE* pSocket, unsigned int waiting) {
    const unsigned int room = pSocket->DataInCap > pSocket->DataInCount ? pSocket->DataInCap - pSocket->DataInCount : 0;
    const unsigned int bytes = waiting < room ? waiting : room;
    if (bytes == 0) {
        return EAGAIN; // the cap was lowered meanwhile, which is no failure of the socket
    }
    // The block is in the list before it is filled: what was read from the system could not be put back.
    DATA_BLOCK* pBlock = MakeDataBlock(bytes);
    if (!pBlock) {
        return LeaveForLater();
    }
    if (!AppendBlockLocked(pSocket, &pSocket->pDataInList, pBlock)) {
        tq_free(pBlock);
        return LeaveForLater();
    }
    errno = 0;
    const ssize_t received = recvfrom(static_cast<int>(pSocket->socket), pBlock->data, bytes, 0, nullptr, nullptr);
    if (received < 1) {
        const int error = errno;
        tq_free(pSocket->pDataInList->RemoveTail());
        return error;
    }
    pBlock->size = static_cast<unsigned int>(received);
    pSocket->DataInCount += pBlock->size;
    SendSocketMessageLocked(pSocket, MSG_SOCKET_DATASTREAM);
    return 0;
}

/// Receives a datagram of so many bytes straight into its message. Returns 0, or the system error.
int HandleReadableDatagram(SOCKET_INSTANCE* pSocket, unsigned int waiting) {
    constexpr unsigned int kAllButData = sizeof(SOCKET_DATAGRAM) - 1;
    // Deliberate: 3 bytes more than header, fields and data. Receivers take the length of the data as size less 43.
    SOCKET_DATAGRAM* pMsg = static_cast<SOCKET_DATAGRAM*>(tq_malloc(kAllButData + waiting));
    if (!pMsg) {
        return LeaveForLater();
    }
    struct sockaddr_in sender;
    memset(&sender, 0, sizeof(sender));
    socklen_t senderLength = sizeof(sender);
    const ssize_t received = recvfrom(static_cast<int>(pSocket->socket), pMsg->data, waiting, 0,
                                      reinterpret_cast<struct sockaddr*>(&sender), &senderLength);
    if (received < 1) {
        const int error = received < 0 ? errno : 0;
        tq_free(pMsg);
        return error;
    }
    memset(pMsg, 0, offsetof(SOCKET_DATAGRAM, data));
    pMsg->msg.hDest = pSocket->hMsgQ;
    pMsg->msg.size = static_cast<unsigned int>(received) + kAllButData;
    pMsg->msg.command = MSG_SOCKET_DATAGRAM;
    pMsg->msg.instance = pSocket->handle;
    pMsg->msg.userparm = pSocket->UserParm;
    pMsg->srcaddress = sender.sin_addr.s_addr;
    pMsg->srcport = ntohs(sender.sin_port);
    pMsg->length = static_cast<unsigned int>(received);
    if (!tq_MsgSend(&pMsg->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        tq_free(pMsg);
    }
    return 0;
}

/// A datagram socket is readable and the system counts no bytes: the next datagram is empty, or there is none.
int HandleEmptyDatagram(SOCKET_INSTANCE* pSocket) {
    const int descriptor = static_cast<int>(pSocket->socket);
    const ssize_t waiting = recv(descriptor, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (waiting > 0) { // it came only now
        return HandleReadableDatagram(pSocket, static_cast<unsigned int>(waiting));
    }
    if (waiting < 0 || recv(descriptor, nullptr, 0, 0) < 0) {
        return errno;
    }
    return 0;
}

void HandlePeerClosed(SOCKET_INSTANCE* pSocket, int error) {
    QueueTraceLocked(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: In HandleReadable(), handle: %u (socket %u) just failed ioctlsocket(FIONREAD): "
                     "(errno=%d)\n",
                     pSocket->handle, pSocket->socket, error);
    SendSocketClosedLocked(pSocket, 0);
}

// What is called by the state table below. True only when the breaker is broken.

bool ReadWaiting(SOCKET_INSTANCE* pSocket) {
    int waiting = 0;
    errno = 0;
    const int result = ioctl(static_cast<int>(pSocket->socket), FIONREAD, &waiting);
    int error = errno;
    if (result >= 0 && waiting == 0 && pSocket->type == SOCKET_TYPE_TCP) {
        HandlePeerClosed(pSocket, error);
        return false;
    }
    if (result >= 0) {
        const unsigned int bytes = static_cast<unsigned int>(waiting);
        if (pSocket->type == SOCKET_TYPE_TCP) {
            error = HandleReadableStream(pSocket, bytes);
        } else {
            error = bytes ? HandleReadableDatagram(pSocket, bytes) : HandleEmptyDatagram(pSocket);
        }
    }
    if (error != 0 && !IsHarmlessReadError(pSocket->type, error)) {
        QueueTraceLocked(TQ_TRACE_LEVEL_WARNING,
                         "tqos Sockets: In HandleReadable(), handle: %u (socket %u) just failed: (errno=%d)\n",
                         pSocket->handle, pSocket->socket, error);
        SendSocketClosedLocked(pSocket, error);
    }
    return false;
}

bool DrainWakeUps(SOCKET_INSTANCE* pSocket) {
    char discarded[kBreakerPiece];
    errno = 0;
    const ssize_t received = recv(static_cast<int>(pSocket->socket), discarded, sizeof(discarded), 0);
    const int error = errno;
    gbWakeUpPending = false;
    if (received > 0 || (received < 0 && error == EAGAIN)) {
        return false;
    }
    QueueTraceLocked(TQ_TRACE_LEVEL_SEVERE,
                     "tqos Sockets: The Breaker Socket received (%d%d) error:%d when calling recv()!\n", 0, 0, error);
    return true;
}

} // namespace

// Accepting

namespace {

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// Accepts into the record; false when there was nothing to accept, or no descriptor for it.
bool AcceptInto(SOCKET_INSTANCE* pNew, unsigned int listener) {
    struct sockaddr_storage peer;
    memset(&peer, 0, sizeof(peer));
    socklen_t length = sizeof(peer);
    gbDescriptorClosed = false;
    const int descriptor =
        accept4(static_cast<int>(listener), reinterpret_cast<struct sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    if (descriptor < 0) {
        if (IsShortage(errno)) {
            gAcceptPause.Begin(kShortageMs);
        }
        return false;
    }
    pNew->socket = static_cast<unsigned int>(descriptor);
    if (peer.ss_family == AF_INET) {
        memcpy(&pNew->dstaddr, &peer, sizeof(pNew->dstaddr));
    } else if (peer.ss_family == AF_UNIX) {
        memcpy(&pNew->un_addr, &peer, sizeof(pNew->un_addr));
    }
    return true;
}

/// Deliberate: the sizes go to the listener, not to the socket just accepted. Later connections inherit them; this one
/// does not.
constexpr PFN_DESCRIPTOR_STEP kListenerSteps[] = {SetDefaultBufferSizes};
constexpr PFN_DESCRIPTOR_STEP kAcceptedSteps[] = {EnableKeepAlive, EnableDebug, MakeNonBlocking, SetLinger};

/// Tells the listener's queue of a new socket that is in the list already; false when it could not be told.
bool AnnounceConnection(const SOCKET_INSTANCE* pListener, const SOCKET_INSTANCE* pNew) {
    SOCKET_NEW_CONNECTION* pMsg = static_cast<SOCKET_NEW_CONNECTION*>(tq_calloc(1, sizeof(SOCKET_NEW_CONNECTION)));
    if (!pMsg) {
        return false;
    }
    pMsg->msg.hDest = pListener->hMsgQ;
    pMsg->msg.size = sizeof(SOCKET_NEW_CONNECTION);
    pMsg->msg.command = MSG_SOCKET_NEW_CONNECTION;
    pMsg->msg.instance = pListener->handle;
    pMsg->msg.userparm = pNew->UserParm;
    pMsg->new_socket = pNew->handle;
    pMsg->srcaddress = pNew->dstaddr.sin_addr.s_addr;
    if (!tq_MsgSend(&pMsg->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        tq_free(pMsg);
        return false;
    }
    return true;
}

void WatchSocket(SOCKET_INSTANCE* pSocket);

/// Takes one waiting connection; false when none waits, or none can be taken until the pause is over.
bool AcceptPeer(SOCKET_INSTANCE* pListener) {
    SOCKET_INSTANCE* pNew =
        MakeSocketRecord(SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTED, pListener->hMsgQ, pListener->UserParm);
    if (!pNew) {
        gAcceptPause.Begin(kMemoryPauseMs);
        return false;
    }
    pNew->DataInCap = pListener->AcceptedInCap;
    pNew->DataOutCap = pListener->AcceptedOutCap;
    pNew->pszSocketName = pListener->pszSocketName ? tq_newString(pListener->pszSocketName) : nullptr;
    if (!AcceptInto(pNew, pListener->socket)) {
        CleanUpSocket(pNew, /*bDrain=*/false);
        return false;
    }
    for (PFN_DESCRIPTOR_STEP step : kAcceptedSteps) {
        step(pNew->socket);
    }
    for (PFN_DESCRIPTOR_STEP step : kListenerSteps) {
        step(pListener->socket);
    }
    // In the list before the message goes out: its receiver may use the new handle at once.
    if (!AddSocketLocked(pNew)) {
        CleanUpSocket(pNew, /*bDrain=*/false);
        return false;
    }
    if (!AnnounceConnection(pListener, pNew)) {
        RemoveSocketLocked(pNew);
        CleanUpSocket(pNew, /*bDrain=*/false);
        return false;
    }
    WatchSocket(pNew);
    return true;
}

bool HasPeerWaiting(const SOCKET_INSTANCE* pListener) {
    struct pollfd wait = {static_cast<int>(pListener->socket), POLLIN, 0};
    return poll(&wait, 1, 0) == 1;
}

/// Accepts those who wait, up to a number: with thousands of sockets a turn for each of them would take so long that
/// the system turns others away meanwhile.
bool AcceptPeers(SOCKET_INSTANCE* pListener) {
    unsigned int accepted = 0;
    while (AcceptPeer(pListener) && ++accepted < kMostAccepts && HasPeerWaiting(pListener)) {
    }
    return false;
}

} // namespace

// Writing and failing

unsigned long long PercentOfOutCap(unsigned int DataOutCount, unsigned int DataOutCap) {
    return DataOutCap ? (static_cast<unsigned long long>(DataOutCount) * 1000 + 5) / DataOutCap / 10 : 0;
}

namespace {

/// A stream is writeable without a peer when its connect could not even begin: no local port, or a local-domain
/// listener with no room for one more.
bool HasPeer(const SOCKET_INSTANCE* pSocket) {
    struct sockaddr_storage peer;
    socklen_t length = sizeof(peer);
    return pSocket->type != SOCKET_TYPE_TCP ||
           getpeername(static_cast<int>(pSocket->socket), reinterpret_cast<struct sockaddr*>(&peer), &length) == 0;
}

void BecomeConnected(SOCKET_INSTANCE* pSocket) {
    if (!HasPeer(pSocket)) {
        HandleFailed(pSocket, 0);
        return;
    }
    struct sockaddr_storage local;
    memset(&local, 0, sizeof(local));
    socklen_t length = sizeof(local);
    if (getsockname(static_cast<int>(pSocket->socket), reinterpret_cast<struct sockaddr*>(&local), &length) == 0 &&
        local.ss_family == AF_INET) {
        memcpy(&pSocket->srcaddr, &local, sizeof(pSocket->srcaddr));
    }
    pSocket->state = SOCKET_STATE_CONNECTED;
    SendSocketMessageLocked(pSocket, MSG_SOCKET_CONNECTED);
}

/// Sends what it can of the first queued block; false when the system takes no more until the socket is writeable.
bool SendBlockLocked(SOCKET_INSTANCE* pSocket) {
    DATA_BLOCK* pBlock = static_cast<DATA_BLOCK*>(pSocket->pDataOutList->GetHead());
    if (!pBlock) {
        pSocket->DataOutCount = 0;
        return false;
    }
    const int result = SendNow(pSocket, pBlock->data + pBlock->offset, pBlock->size, &pBlock->dstaddress);
    unsigned int gone = 0;
    if (result >= 0) {
        gone = static_cast<unsigned int>(result);
        pBlock->errorcount = 0;
    } else if (errno == EAGAIN) {
        return false;
    } else if (++pBlock->errorcount >= kMostSendErrors) {
        gone = pBlock->size; // given up, as if it had been sent
    }
    pBlock->offset += gone;
    pBlock->size -= gone;
    pSocket->DataOutCount -= gone;
    if (pBlock->size == 0) {
        tq_free(pSocket->pDataOutList->RemoveHead());
    }
    return true;
}

void SendQueued(SOCKET_INSTANCE* pSocket) {
    while (pSocket->DataOutCount != 0 && SendBlockLocked(pSocket)) {
    }
    if (pSocket->PendingWrite &&
        pSocket->PendingWritePercentage >= PercentOfOutCap(pSocket->DataOutCount, pSocket->DataOutCap)) {
        pSocket->PendingWrite = 0;
        SendSocketMessageLocked(pSocket, MSG_SOCKET_WRITEABLE);
    }
}

} // namespace

void HandleFailed(SOCKET_INSTANCE* pSocket, int error) {
    QueueTraceLocked(TQ_TRACE_LEVEL_WARNING, "tqos Sockets: HandleFailed() for handle: %u (socket: %u) error: %d,\n",
                     pSocket->handle, pSocket->socket, error);
    if (pSocket->state == SOCKET_STATE_CLOSED) {
        pSocket->DataOutCount = 0; // nobody to tell: its owner has closed it, or knows already
        return;
    }
    if (pSocket->state == SOCKET_STATE_CONNECTING && error == 0) {
        error = ECONNREFUSED;
    }
    SendSocketClosedLocked(pSocket, error);
}

// Socket states

namespace {

bool Always(const SOCKET_INSTANCE*) {
    return true;
}

bool CanAccept(const SOCKET_INSTANCE*) {
    return !gAcceptPause.IsOn();
}

bool HasRoomForInput(const SOCKET_INSTANCE* pSocket) {
    return pSocket->DataInCount < pSocket->DataInCap && !gReadPause.IsOn();
}

/// Also with a notice due and nothing queued: the notice comes when the socket takes data again.
bool HasOutput(const SOCKET_INSTANCE* pSocket) {
    return pSocket->DataOutCount != 0 || pSocket->PendingWrite != 0;
}

bool FlushesOutput(const SOCKET_INSTANCE* pSocket) {
    return (pSocket->flush & TQ_SOCKET_FLUSH_OUT) != 0 && pSocket->DataOutCount != 0;
}

typedef bool (*PFN_WATCHED)(const SOCKET_INSTANCE*);

/// What a state waits for and what is done then; nullptr: not waited for, or nothing is done. A closed socket is never
/// read: its peer's close would be reported over and over while inbound data waits to be taken.
struct StateRow {
    unsigned int state;
    PFN_WATCHED pfnWatchRead;
    bool (*pfnReadable)(SOCKET_INSTANCE*); ///< true: the breaker is broken
    PFN_WATCHED pfnWatchWrite;
    void (*pfnWriteable)(SOCKET_INSTANCE*);
    PFN_WATCHED pfnWatchException; ///< always HandleFailed()
};

constexpr StateRow kStates[] = {
    //                         read             readable      write          writeable        exception
    {0, nullptr, nullptr, nullptr, nullptr, nullptr},
    {SOCKET_STATE_BREAKER, Always, DrainWakeUps, nullptr, nullptr, nullptr},
    {SOCKET_STATE_LISTEN, CanAccept, AcceptPeers, nullptr, nullptr, nullptr},
    {SOCKET_STATE_CONNECTING, nullptr, nullptr, Always, BecomeConnected, Always},
    {SOCKET_STATE_CONNECTED, HasRoomForInput, ReadWaiting, HasOutput, SendQueued, nullptr},
    {SOCKET_STATE_CLOSED, nullptr, nullptr, FlushesOutput, SendQueued, nullptr},
};

constexpr bool EveryStateStandsAtItsPlace() {
    for (unsigned int i = 0; i < sizeof(kStates) / sizeof(kStates[0]); ++i) {
        if (kStates[i].state != i) {
            return false;
        }
    }
    return true;
}
static_assert(EveryStateStandsAtItsPlace(), "rows are found by their state");

const StateRow& RowOf(const SOCKET_INSTANCE* pSocket) {
    return kStates[pSocket->state];
}

bool IsWatched(PFN_WATCHED pfnWatched, const SOCKET_INSTANCE* pSocket) {
    return pfnWatched && pfnWatched(pSocket);
}

} // namespace

// What is waited for

namespace {

/// The events that a state asks for.
unsigned int EventsFor(const SOCKET_INSTANCE* pSocket) {
    const StateRow& row = RowOf(pSocket);
    return (IsWatched(row.pfnWatchRead, pSocket) ? EPOLLIN : 0u) |
           (IsWatched(row.pfnWatchWrite, pSocket) ? EPOLLOUT : 0u) |
           (IsWatched(row.pfnWatchException, pSocket) ? EPOLLPRI : 0u);
}

/// Puts a record among those that are waited on, or takes it away; false without memory.
bool PutInSetList(SOCKET_INSTANCE* pSocket, bool bIn) {
    if (!bIn) {
        LeaveInSetListLocked(pSocket);
    } else if (!pSocket->bInSets) {
        const unsigned int before = pListOfSocketsInSets->NodeCount();
        pListOfSocketsInSets->AddToTail(pSocket);
        pSocket->bInSets = pListOfSocketsInSets->NodeCount() != before;
    }
    return pSocket->bInSets == bIn;
}

/// The descriptor is not ours any more.
void FailDeadDescriptor(SOCKET_INSTANCE* pSocket) {
    pSocket->socket = kNoDescriptor;
    pSocket->watched = 0;
    if (pSocket->state == SOCKET_STATE_BREAKER) {
        pSocket->state = SOCKET_STATE_CLOSED;
    } else {
        HandleFailed(pSocket, EBADF);
    }
}

/// Waits for what the record's state asks for from now on. One that is only to be cleaned up once its data is gone is
/// waited for by nobody, but counts among those that are.
void WatchSocket(SOCKET_INSTANCE* pSocket) {
    const int error = WatchLocked(pSocket, EventsFor(pSocket));
    const bool bNoMemory = error == ENOMEM || error == ENOSPC;
    if (error != 0 && !bNoMemory) {
        FailDeadDescriptor(pSocket);
    }
    if (!PutInSetList(pSocket, pSocket->watched != 0 || pSocket->flush != 0) || bNoMemory) {
        gReadPause.Begin(kMemoryPauseMs); // trying again at once would only spin
    }
}

/// Cleans a record up whose data is gone, if that is all that keeps it; true when it has gone.
bool EndFlushed(SOCKET_INSTANCE* pSocket) {
    if (!HasFlushed(pSocket)) {
        return false;
    }
    const bool bDrain = (pSocket->flush & TQ_SOCKET_FLUSH_OUT) != 0;
    RemoveSocketLocked(pSocket);
    CleanUpSocket(pSocket, bDrain);
    return true;
}

/// Looks at every record; false when the breaker is not among them.
bool LookAtAllLocked() {
    bool bHasBreaker = false;
    bool bStillUntold = false;
    gbLookAtAll = false;
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        SOCKET_INSTANCE* pSocket = static_cast<SOCKET_INSTANCE*>(pNode);
        if (EndFlushed(pSocket)) {
            continue;
        }
        if (pSocket->bClosedDue && !gClosedPause.IsOn()) {
            bStillUntold = !TellClosedLocked(pSocket) || bStillUntold;
        }
        WatchSocket(pSocket);
        bHasBreaker = bHasBreaker || pSocket->state == SOCKET_STATE_BREAKER;
    }
    if (bStillUntold) {
        gClosedPause.Begin(kMemoryPauseMs);
    }
    return bHasBreaker;
}

} // namespace

// A turn of the loop

namespace {

/// What a wait has brought: the sockets that are ready, in the order in which they are served.
class ReadySockets {
public:
    /// Returns how many are ready, or minus the system error. Of more than there is room for the rest comes with the
    /// next wait.
    int Wait(unsigned int ms) {
        m_count = WaitForWatched(m_events, kMost, ms);
        return m_count;
    }

    /// Finds the records and brings them into the order of the list. False when the breaker's other end is ready, which
    /// it is only when the breaker has gone.
    bool SortLocked() {
        bool bBreakerStands = true;
        m_found = 0;
        for (int i = 0; i < m_count; ++i) {
            SOCKET_INSTANCE* const pSocket = FindSocketLocked(m_events[i].data.u32);
            bBreakerStands = bBreakerStands && m_events[i].data.u32 != 0;
            if (pSocket) {
                m_events[m_found].events = m_events[i].events;
                m_events[m_found++].data.ptr = pSocket;
            }
        }
        std::sort(m_events, m_events + m_found, [](const struct epoll_event& one, const struct epoll_event& other) {
            return RecordOf(one)->number > RecordOf(other)->number;
        });
        return bBreakerStands;
    }

    int Found() const { return m_found; }
    SOCKET_INSTANCE* Record(int i) const { return RecordOf(m_events[i]); }
    unsigned int Events(int i) const { return m_events[i].events; }

private:
    static constexpr int kMost = 1024;

    static SOCKET_INSTANCE* RecordOf(const struct epoll_event& event) {
        return static_cast<SOCKET_INSTANCE*>(event.data.ptr);
    }

    struct epoll_event m_events[kMost]; // of which so much memory is used as sockets were ever ready at once
    int m_count = 0;
    int m_found = 0;
};

void EndPausesLocked() {
    if (gbDescriptorClosed.exchange(false)) {
        gAcceptPause.End();
    }
    for (Pause* pPause : kPauses) {
        pPause->Remaining();
    }
}

/// How long the next wait may last: a pause ends it earlier.
unsigned int WaitTimeLocked() {
    unsigned int ms = kPaceMs;
    for (Pause* pPause : kPauses) {
        const unsigned int remaining = pPause->Remaining();
        if (pPause->IsOn() && remaining < ms) {
            ms = remaining;
        }
    }
    return ms;
}

Turn PrepareWaitLocked(unsigned int* pWaitMs) {
    if (bTerminate) {
        return Turn::kTerminate;
    }
    EndPausesLocked();
    if (gbLookAtAll && !LookAtAllLocked()) {
        return Turn::kBreakerLost;
    }
    *pWaitMs = WaitTimeLocked();
    if (gbLookAtAll) { // a pause has begun, or ended, since they were looked at
        *pWaitMs = 0;
    }
    return Turn::kGoOn;
}

bool IsDead(int descriptor) {
    return fcntl(descriptor, F_GETFD) < 0 && errno == EBADF;
}

/// Fails the sockets whose descriptor somebody else has closed: nothing else would ever be heard of them.
void FailDeadDescriptorsLocked() {
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        SOCKET_INSTANCE* pSocket = static_cast<SOCKET_INSTANCE*>(pNode);
        if (pSocket->socket != kNoDescriptor && IsDead(static_cast<int>(pSocket->socket))) {
            FailDeadDescriptor(pSocket);
        }
    }
    gbLookAtAll = true;
}

/// After a wait that has failed: when the descriptor of the set itself was closed there is a new set.
void MendWatchSetLocked() {
    if (!LoseDeadWatchSetLocked()) {
        return;
    }
    OpenWatchSetLocked();
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        static_cast<SOCKET_INSTANCE*>(pNode)->watched = 0;
    }
    gbLookAtAll = true;
}

/// Without a descriptor the interfaces cannot be read, which says nothing about them: they would seem to have gone, and
/// every socket that follows them would be opened anew, just when none can be.
bool HasDescriptorLeft() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return !IsShortage(errno);
    }
    close(descriptor);
    return true;
}

void CheckInterfacesLocked() {
    const unsigned int now = TimeLocked();
    if (now - gLastInterfaceCheck <= kPaceMs) {
        return;
    }
    gLastInterfaceCheck = now;
    FailDeadDescriptorsLocked();
    if (!HasDescriptorLeft() || !RefreshInterfaceTable()) {
        return;
    }
    QueueTraceLocked(TQ_TRACE_LEVEL_WARNING, "tqos Sockets: A change to the local interfaces was just detected!\n", 0,
                     0, 0);
    MSG_COMMON message;
    memset(&message, 0, sizeof(message));
    message.size = sizeof(message);
    message.command = MSG_SOCKET_NEW_INTERFACES;
    tq_MsgSendToAll(&message, /*bAddToHead=*/false, 0);
}

/// False when the socket has failed instead.
bool ServeWriteable(SOCKET_INSTANCE* pSocket) {
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(static_cast<int>(pSocket->socket), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error != 0) {
        QueueTraceLocked(TQ_TRACE_LEVEL_WARNING, "tqos Sockets: handle: %u (socket: %u) just received error: %d\n",
                         pSocket->handle, pSocket->socket, error);
        HandleFailed(pSocket, error);
        RecordSocketEventLocked(pSocket, SOCKET_EVENT_WRITEABLE_FAILED);
        return false;
    }
    if (RowOf(pSocket).pfnWriteable) {
        RowOf(pSocket).pfnWriteable(pSocket);
    }
    RecordSocketEventLocked(pSocket, SOCKET_EVENT_WRITEABLE);
    return true;
}

void ServeException(SOCKET_INSTANCE* pSocket) {
    QueueTraceLocked(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: In WorkerThread(), handle: %u (socket: %u) just failed: (errno=%d)\n",
                     pSocket->handle, pSocket->socket, errno);
    HandleFailed(pSocket, 0);
    RecordSocketEventLocked(pSocket, SOCKET_EVENT_FAILED);
}

/// False when the breaker is broken.
bool ServeSocket(SOCKET_INSTANCE* pSocket, unsigned int events) {
    // An error or a hang-up is found by whatever is tried next.
    const unsigned int ready = (events & (EPOLLERR | EPOLLHUP)) ? events | EPOLLIN | EPOLLOUT : events;
    const unsigned int served = ready & pSocket->watched;
    if (served & EPOLLIN) {
        if (RowOf(pSocket).pfnReadable && RowOf(pSocket).pfnReadable(pSocket)) {
            return false;
        }
        RecordSocketEventLocked(pSocket, SOCKET_EVENT_READABLE);
    }
    const bool bFailed = (served & EPOLLOUT) && !ServeWriteable(pSocket);
    // Asked again: urgent data that comes right behind the completed connect is no failure of it.
    if (!bFailed && (served & EPOLLPRI) && IsWatched(RowOf(pSocket).pfnWatchException, pSocket)) {
        ServeException(pSocket);
    }
    if (!EndFlushed(pSocket)) {
        WatchSocket(pSocket);
    }
    return true;
}

/// Every wake-up leaves one such line. It is not even queued where nobody sees it: it would be all that most turns have
/// to trace.
void TraceWakeUpLocked() {
    if (!tq_TraceIsFilteredOut(tqosTraceHandle, TQ_TRACE_LEVEL_DEBUG_LOW, TQ_TRACE_CAT_SOCKETS)) {
        QueueTraceLocked(TQ_TRACE_LEVEL_DEBUG_LOW, "tqos Sockets: Select spinning.\n", 0, 0, 0);
    }
}

Turn ServeReadyLocked(ReadySockets& sockets, int ready) {
    if (ready < 0) {
        EmptyInSetListLocked();
        gbLookAtAll = true;
        MendWatchSetLocked();
        return Turn::kGoOn;
    }
    TraceWakeUpLocked();
    if (bTerminate) {
        return Turn::kTerminate;
    }
    CheckInterfacesLocked();
    if (!sockets.SortLocked()) {
        FailDeadDescriptorsLocked();
    }
    for (int i = 0; i < sockets.Found(); ++i) {
        if (!ServeSocket(sockets.Record(i), sockets.Events(i))) {
            return Turn::kBreakerLost;
        }
    }
    return Turn::kGoOn;
}

/// Serves what a wait has brought and prepares the next one, in one hold of the lock: whoever got a message asks for
/// its data next, and then finds the lock free.
Turn ServeTurn(ReadySockets& sockets, int ready, unsigned int* pWaitMs) {
    bool bHasTraces;
    Turn turn;
    {
        const tq_WakeQueuesLater later;
        tq_ListLock lock(pListOfSockets);
        turn = ServeReadyLocked(sockets, ready);
        if (turn == Turn::kGoOn) {
            turn = PrepareWaitLocked(pWaitMs);
        }
        bHasTraces = HasQueuedTracesLocked();
    }
    if (bHasTraces) {
        FlushTraceQueue();
    }
    return turn;
}

Turn BeginServing(unsigned int* pWaitMs) {
    tq_ListLock lock(pListOfSockets);
    gLastInterfaceCheck = tq_GetTimeInMS();
    for (Pause* pPause : kPauses) {
        pPause->End();
    }
    gbLookAtAll = true;
    return PrepareWaitLocked(pWaitMs);
}

} // namespace

Turn ServeSockets() {
    ReadySockets sockets;
    unsigned int waitMs = 0;
    Turn turn = BeginServing(&waitMs);
    while (turn == Turn::kGoOn) {
        turn = ServeTurn(sockets, sockets.Wait(waitMs), &waitMs);
    }
    FlushTraceQueue();
    if (turn == Turn::kTerminate) {
        TraceSockets(TQ_TRACE_LEVEL_DEBUG, "tqos Sockets: WorkerThread terminating...\n");
    }
    return turn;
}
