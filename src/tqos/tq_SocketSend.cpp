// Sending and closing: what leaves a socket, and how it ends.
#include "tq_Socket_p.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/socket.h>

#include "tq_Futex_p.h"
#include "tq_Memory.h"

// State

namespace {

bool gbSendAwaited = false; // a thread waits until another has sent; guarded by the lock of pListOfSockets
std::atomic<unsigned int> gSendsEnded{0}; // it sleeps until this changes

} // namespace

// Sending

SOCKET_INSTANCE* FindIdleSocketLocked(unsigned int handle) {
    for (;;) {
        SOCKET_INSTANCE* pSocket = FindSocketLocked(handle);
        if (!pSocket || !pSocket->bSending) {
            return pSocket;
        }
        gbSendAwaited = true;
        const unsigned int ended = gSendsEnded.load(std::memory_order_relaxed);
        pListOfSockets->Unlock();
        tq_Futex::Sleep(gSendsEnded, ended, nullptr);
        pListOfSockets->Lock();
    }
}

int SendNow(const SOCKET_INSTANCE* pSocket, const unsigned char* data, unsigned int len,
            const struct sockaddr_in* pDestination) {
    const int descriptor = static_cast<int>(pSocket->socket);
    const ssize_t sent = pSocket->type == SOCKET_TYPE_TCP
                             ? send(descriptor, data, len, MSG_NOSIGNAL)
                             : sendto(descriptor, data, len, MSG_NOSIGNAL,
                                      reinterpret_cast<const struct sockaddr*>(pDestination), sizeof(*pDestination));
    return static_cast<int>(sent);
}

namespace {

/// How a send ended, for its trace line.
enum class SendOutcome { kUnknownSocket, kClosedSocket, kFailed, kSent };

/// A copy of a socket's name that outlives the lock. Short names, which all but few are, take no allocation.
class NameCopy {
public:
    NameCopy() { m_short[0] = '\0'; }
    ~NameCopy() { tq_free(m_pszLong); }
    NameCopy(const NameCopy&) = delete;
    NameCopy& operator=(const NameCopy&) = delete;

    void Take(const char* pszName) {
        const size_t length = strlen(pszName);
        if (length < sizeof(m_short)) {
            memcpy(m_short, pszName, length + 1);
            return;
        }
        m_pszLong = tq_newString(pszName);
    }
    const char* Text() const { return m_pszLong ? m_pszLong : m_short; }

private:
    char m_short[128];
    char* m_pszLong = nullptr;
};

struct Sending {
    const unsigned char* data;
    unsigned int len;
    struct sockaddr_in destination;
    unsigned int accepted; ///< the result
    int error;             ///< of the direct send
    SendOutcome outcome;
    bool bDropRest; ///< what does not go at once is neither queued nor waited for
};

constexpr unsigned int kSharedBlockBytes = 1024;

/// Copies the rest into the last block that is queued; false when there is none with room, or no memory.
///
/// The out cap counts bytes of data. It would be no bound of memory if each of many small sends took a block of its
/// own.
bool QueueInLastBlockLocked(SOCKET_INSTANCE* pSocket, const unsigned char* data, unsigned int bytes) {
    tq_List* const pList = pSocket->pDataOutList;
    if (pSocket->type != SOCKET_TYPE_TCP || pSocket->DataOutCap == kSocketNoCap || !pList) {
        return false;
    }
    DATA_BLOCK* pLast = static_cast<DATA_BLOCK*>(pList->GetTail());
    const unsigned int used = pLast ? pLast->offset + pLast->size : 0;
    if (!pLast || used > kSharedBlockBytes || bytes > kSharedBlockBytes - used) {
        return false;
    }
    DATA_BLOCK* pLonger = MakeDataBlock(used + bytes);
    if (!pLonger) {
        return false;
    }
    memcpy(pLonger, pLast, offsetof(DATA_BLOCK, data) + used);
    memcpy(pLonger->data + used, data, bytes);
    pLonger->size += bytes;
    if (!AppendBlockLocked(pSocket, &pSocket->pDataOutList, pLonger)) {
        tq_free(pLonger);
        return false;
    }
    tq_free(pList->RemoveNode(pLast));
    return true;
}

/// Copies the rest behind what is queued; false without memory.
bool QueueOutputLocked(SOCKET_INSTANCE* pSocket, const Sending& sending, unsigned int sent, unsigned int bytes) {
    if (QueueInLastBlockLocked(pSocket, sending.data + sent, bytes)) {
        pSocket->DataOutCount += bytes;
        return true;
    }
    DATA_BLOCK* pBlock = MakeDataBlock(bytes);
    if (!pBlock) {
        return false;
    }
    pBlock->dstaddress = sending.destination;
    pBlock->size = bytes;
    memcpy(pBlock->data, sending.data + sent, bytes);
    if (!AppendBlockLocked(pSocket, &pSocket->pDataOutList, pBlock)) {
        tq_free(pBlock);
        return false;
    }
    pSocket->DataOutCount += bytes;
    return true;
}

/// Queues as much of what did not go out as the out cap allows; the bytes accepted in all.
unsigned int QueueRestLocked(SOCKET_INSTANCE* pSocket, const Sending& sending, unsigned int sent) {
    const unsigned int rest = sending.len - sent;
    if (pSocket->DataOutCap < pSocket->DataOutCount) {
        // Deliberate: 0, where a reader would expect what did go out. A sender above the cap is to stop, and does.
        pSocket->PendingWrite = 1;
        return 0;
    }
    const unsigned int room = pSocket->DataOutCap - pSocket->DataOutCount;
    const unsigned int bytes = rest < room ? rest : room;
    pSocket->PendingWrite = bytes < rest ? 1 : 0;
    if (bytes != 0 && !QueueOutputLocked(pSocket, sending, sent, bytes)) {
        return 0;
    }
    return sent + bytes;
}

/// Sends at once, without the lock: the receiver may run before this thread does again, and its answer be there before
/// the lock would have been left.
void SendUnlocked(SOCKET_INSTANCE* pSocket, Sending& sending) {
    const bool bLeave = pSocket->state != SOCKET_STATE_BREAKER; // which the worker frees as it likes
    if (bLeave) {
        pSocket->bSending = true;
        pListOfSockets->Unlock();
    }
    const int result = SendNow(pSocket, sending.data, sending.len, &sending.destination);
    sending.error = result < 0 ? errno : 0;
    sending.accepted = result < 0 ? 0 : static_cast<unsigned int>(result);
    if (bLeave) {
        pListOfSockets->Lock();
        pSocket->bSending = false;
        if (gbSendAwaited) {
            gbSendAwaited = false;
            gSendsEnded.fetch_add(1, std::memory_order_relaxed);
            tq_Futex::Wake(tq_Futex::AddressOf(gSendsEnded), INT_MAX);
        }
    }
}

/// Sends at once when nothing waits before it, and queues the rest.
void SendLocked(SOCKET_INSTANCE* pSocket, Sending& sending) {
    if (pSocket->state == SOCKET_STATE_CLOSED) {
        sending.outcome = SendOutcome::kClosedSocket;
        return;
    }
    bool bShort = false;
    if (!pSocket->pDataOutList || pSocket->pDataOutList->NodeCount() == 0) {
        SendUnlocked(pSocket, sending);
        bShort = sending.accepted < sending.len;
    }
    sending.outcome = sending.error ? SendOutcome::kFailed : SendOutcome::kSent;
    if (sending.bDropRest) {
        return;
    }
    if (sending.accepted < sending.len) {
        sending.accepted = QueueRestLocked(pSocket, sending, sending.accepted);
    }
    if (bShort) {
        SpinBreaker(); // the worker has to watch for writing from now on
    }
}

/// A zero is the socket's own destination.
void SendToLocked(SOCKET_INSTANCE* pSocket, Sending& sending, unsigned int destIP, unsigned int destPort) {
    RecordSocketEventLocked(pSocket, SOCKET_EVENT_SEND);
    sending.destination.sin_family = AF_INET;
    sending.destination.sin_port = destPort ? htons(static_cast<uint16_t>(destPort)) : pSocket->dstaddr.sin_port;
    sending.destination.sin_addr.s_addr = destIP ? destIP : pSocket->dstaddr.sin_addr.s_addr;
    SendLocked(pSocket, sending);
}

void TraceSending(unsigned int hSocket, const Sending& sending, const char* pszName) {
    switch (sending.outcome) {
    case SendOutcome::kUnknownSocket:
        TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: tq_SocketSendTo() called for unknown socket: %u wanting to send %u bytes.\n",
                     hSocket, sending.len);
        break;
    case SendOutcome::kClosedSocket:
        TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: tq_SocketSendTo() called for closed socket: %u (%s) wanting to send %u bytes.\n",
                     hSocket, pszName, sending.len);
        break;
    case SendOutcome::kFailed:
        TraceSockets(
            TQ_TRACE_LEVEL_INFORMATIONAL,
            "tqos Sockets: tq_SocketSendTo() received error: %u for socket: %u (%s) wanting to send %u bytes.\n",
            static_cast<unsigned int>(sending.error), hSocket, pszName, sending.len);
        break;
    case SendOutcome::kSent:
        TraceSockets(TQ_TRACE_LEVEL_DEBUG,
                     "tqos Sockets: tq_SocketSendTo() sent %u bytes for socket: %u (%s) wanting to send %u bytes.\n",
                     sending.accepted, hSocket, pszName, sending.len);
        break;
    }
}

} // namespace

unsigned int tq_SocketSendToInternal(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                     unsigned int destIP, unsigned int destPort, bool bEnableTracing) {
    if (!data) {
        return 0;
    }
    tq_GatePass pass(gSocketGate);
    if (!pass) {
        return 0;
    }
    Sending sending = {data, len, {}, 0, 0, SendOutcome::kUnknownSocket, /*bDropRest=*/false};
    NameCopy name;
    {
        tq_SocketAccess socket(hSocket, FindIdleSocketLocked);
        if (socket && bEnableTracing) {
            name.Take(socket->pszName ? socket->pszName : "Unknown");
        }
        if (socket) {
            SendToLocked(socket.Record(), sending, destIP, destPort);
        }
    }
    if (bEnableTracing) {
        TraceSending(hSocket, sending, name.Text());
    }
    return sending.accepted;
}

unsigned int tq_SocketSendTo(unsigned int hSocket, const unsigned char* data, unsigned int len, unsigned int destIP,
                             unsigned int destPort) {
    return tq_SocketSendToInternal(hSocket, data, len, destIP, destPort, /*bEnableTracing=*/true);
}

unsigned int tq_SocketSendToNoTrace(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                    unsigned int destIP, unsigned int destPort) {
    return tq_SocketSendToInternal(hSocket, data, len, destIP, destPort, /*bEnableTracing=*/false);
}

void SendOrDrop(unsigned int hSocket, const unsigned char* data, unsigned int len, unsigned int destIP,
                unsigned int destPort) {
    Sending sending = {data, len, {}, 0, 0, SendOutcome::kUnknownSocket, /*bDropRest=*/true};
    tq_SocketAccess socket(hSocket, FindIdleSocketLocked);
    if (socket) {
        SendToLocked(socket.Record(), sending, destIP, destPort);
    }
}

// Closing

namespace {

/// Lets go of a socket as far as the flags allow; what they keep is left to the worker.
void CloseLocked(SOCKET_INSTANCE* pSocket, unsigned int Flags) {
    if (pSocket->state == SOCKET_STATE_CLOSED && pSocket->flush == 0) {
        Flags = 0;
    }
    const bool bDrain = (Flags & TQ_SOCKET_FLUSH_OUT) != 0;
    if (!(Flags & TQ_SOCKET_FLUSH_OUT)) {
        pSocket->DataOutCount = 0;
    }
    if (!(Flags & TQ_SOCKET_FLUSH_IN)) {
        pSocket->DataInCount = 0;
    }
    pSocket->PendingWrite = 0;
    pSocket->bClosedDue = false;
    pSocket->state = SOCKET_STATE_CLOSED;
    if (pSocket->DataOutCount == 0 && pSocket->DataInCount == 0) {
        Flags = 0;
    }
    if (Flags != 0) {
        pSocket->flush = Flags;
    } else {
        RemoveSocketLocked(pSocket);
        CleanUpSocket(pSocket, bDrain);
    }
    SpinBreaker();
}

} // namespace

unsigned int FlushAndCloseSocket(unsigned int hSocket, unsigned int Flags, const char* File, unsigned int Line) {
    bool bFound = false;
    {
        tq_ListLock lock(pListOfSockets);
        SOCKET_INSTANCE* pSocket = FindIdleSocketLocked(hSocket);
        if (pSocket) {
            bFound = true;
            CloseLocked(pSocket, Flags);
        }
    }
    if (!bFound) {
        TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: tq_SocketClose() called for unknown socket: %u from File: %s, Line: %u.\n", hSocket,
                     File ? File : "(null)", Line);
        return 1;
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG, "tqos Sockets: tq_SocketClose() called for socket: %u.\n", hSocket);
    return 0;
}

unsigned int tq__SocketFlushAndClose(unsigned int hSocket, unsigned int Flags, const char* File, unsigned int Line) {
    tq_GatePass pass(gSocketGate);
    return pass ? FlushAndCloseSocket(hSocket, Flags, File, Line) : 1;
}

unsigned int tq__SocketClose(unsigned int hSocket, const char* File, unsigned int Line) {
    return tq__SocketFlushAndClose(hSocket, 0, File, Line);
}

namespace {

/// An open socket of a queue; 0 when there is none.
unsigned int NextSocketOf(unsigned int hMsgQ) {
    tq_ListLock lock(pListOfSockets);
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        const SOCKET_INSTANCE* pSocket = static_cast<SOCKET_INSTANCE*>(pNode);
        if (pSocket->hMsgQ == hMsgQ && pSocket->flush == 0 && pSocket->state != SOCKET_STATE_BREAKER) {
            return pSocket->handle;
        }
    }
    return 0;
}

} // namespace

void tq_SocketCloseAllOf(unsigned int hMsgQ) {
    tq_GatePass pass(gSocketGate);
    unsigned int hSocket = 0;
    while (pass && (hSocket = NextSocketOf(hMsgQ)) != 0) {
        FlushAndCloseSocket(hSocket, 0, __FILE__, __LINE__);
    }
}

bool tq_SocketCloseFromTelnet(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket, FindIdleSocketLocked);
    if (!socket) {
        return false;
    }
    if (socket->socket != kNoDescriptor) {
        UnwatchLocked(socket.Record());
        CloseDescriptor(socket->socket, /*bDrain=*/false);
        socket->socket = kNoDescriptor; // by now the number may be another file's: it is never closed again
    }
    socket->DataOutCount = 0;
    SendSocketClosedLocked(socket.Record(), 0);
    SpinBreaker();
    return true;
}
