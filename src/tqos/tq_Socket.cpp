#include "tq_Socket_p.h"

#include <arpa/inet.h>
#include <errno.h>
#include <mutex>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "tq_Base.h"
#include "tq_Handle.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_MsgQ_p.h"
#include "tq_Time.h"
#include "tq_WorkingLock_p.h"

// State

tq_Gate gSocketGate;
tq_List* pListOfSockets = nullptr;
tq_List* pListOfSocketsInSets = nullptr;
tq_SemEvent* pSyncEvent1 = nullptr;
tq_SemEvent* pSyncEvent2 = nullptr;
tq_SemCritSec* pSocketTerminateSem = nullptr;
tq_SemCritSec* pSocketGetHostByNameSem = nullptr;

bool bTerminate = false;
int BrkrSocket = -1;
bool gbWakeUpPending = false;
bool gbLookAtAll = false;

std::atomic<int> gTQSocketsInitialized{0};
std::atomic<unsigned int> ulDefault_ReceiveSize{0};
std::atomic<unsigned int> ulDefault_SendSize{0};
std::atomic<bool> gbDescriptorClosed{false};

namespace {

// Guarded by the lock of pListOfSockets.
TQSOCKET_TRACE_STRUCT TraceStructs[kTraceQueueSize];
unsigned int gTraceStructCount = 0;
unsigned long long gSocketsAdded = 0;

// The hash by which sockets are found. Handles are drawn one after the other, so that they spread evenly.
constexpr int kHandleBuckets = 2048;
unsigned int gSocketHandleHash = 0;

constexpr unsigned int kDrainPiece = 512;
// A peer that never stops sending must not hold up every other socket.
constexpr unsigned int kMostDrainPieces = 32768;

constexpr unsigned int kCleansUpRecords = 99; // what the library's termination gives as error level

/// Frees a data list with its blocks.
void FreeDataList(tq_List* pList) {
    if (!pList) {
        return;
    }
    while (void* pBlock = pList->RemoveHead()) {
        tq_free(pBlock);
    }
    tq_deleteObject(pList);
}

void DropMembership(const SOCKET_INSTANCE* pSocket) {
    struct ip_mreq membership;
    membership.imr_multiaddr = pSocket->dstaddr.sin_addr;
    membership.imr_interface = pSocket->srcaddr.sin_addr;
    setsockopt(static_cast<int>(pSocket->socket), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof(membership));
}

void DrainConnection(int descriptor) {
    char discarded[kDrainPiece];
    shutdown(descriptor, SHUT_RDWR);
    for (unsigned int i = 0; i < kMostDrainPieces && recv(descriptor, discarded, sizeof(discarded), 0) > 0; ++i) {
    }
}

/// Names a data list, when there is one. Without a name for the socket it loses its own.
void NameDataList(tq_List* pList, const char* pszPrefix, const char* pszName) {
    if (!pList) {
        return;
    }
    if (!pszName) {
        pList->SetName(nullptr);
        return;
    }
    const size_t bytes = strlen(pszPrefix) + strlen(pszName) + 1;
    char* pszListName = static_cast<char*>(tq_malloc(static_cast<unsigned int>(bytes)));
    if (pszListName) {
        snprintf(pszListName, bytes, "%s%s", pszPrefix, pszName);
        pList->SetName(pszListName);
        tq_free(pszListName);
    }
}

} // namespace

// Records

void InitializeInstance(SOCKET_INSTANCE* pSocket) {
    pSocket->DataInCap = kSocketNoCap;
    pSocket->DataOutCap = kSocketNoCap;
    pSocket->AcceptedInCap = kSocketNoCap;
    pSocket->AcceptedOutCap = kSocketNoCap;
}

SOCKET_INSTANCE* MakeSocketRecord(unsigned int type, unsigned int state, unsigned int hMsgQ, unsigned int userparm) {
    SOCKET_INSTANCE* pSocket = static_cast<SOCKET_INSTANCE*>(tq_calloc(1, sizeof(SOCKET_INSTANCE)));
    if (!pSocket) {
        return nullptr;
    }
    InitializeInstance(pSocket);
    pSocket->handle = tq_HandleGet();
    if (pSocket->handle == 0) {
        tq_free(pSocket);
        return nullptr;
    }
    pSocket->socket = kNoDescriptor;
    pSocket->type = type;
    pSocket->state = state;
    pSocket->hMsgQ = hMsgQ;
    pSocket->UserParm = userparm;
    return pSocket;
}

void CloseDescriptor(unsigned int descriptor, bool bDrain) {
    if (bDrain) {
        DrainConnection(static_cast<int>(descriptor));
    }
    close(static_cast<int>(descriptor));
    gbDescriptorClosed = true;
}

void CleanUpSocket(SOCKET_INSTANCE* pSocket, bool bDrain) {
    if (pSocket->socket != kNoDescriptor) {
        if (pSocket->IsMultiCast) {
            DropMembership(pSocket);
        }
        CloseDescriptor(pSocket->socket, bDrain);
    }
    FreeDataList(pSocket->pDataOutList);
    FreeDataList(pSocket->pDataInList);
    tq_free(pSocket->pszName);
    tq_free(pSocket->pszSocketName);
    const unsigned int handle = pSocket->handle;
    tq_free(pSocket);
    tq_HandleRelease(handle);
}

bool AddSocketLocked(SOCKET_INSTANCE* pSocket) {
    pSocket->number = ++gSocketsAdded;
    pListOfSockets->AddToHead(pSocket);
    if (FindSocketLocked(pSocket->handle) == pSocket) { // a list without memory says nothing
        return true;
    }
    pListOfSockets->RemoveNode(pSocket); // it may be in the list and not in the hash
    return false;
}

void RemoveSocketLocked(SOCKET_INSTANCE* pSocket) {
    UnwatchLocked(pSocket);
    LeaveInSetListLocked(pSocket);
    pListOfSockets->RemoveNode(pSocket);
}

void LeaveInSetListLocked(SOCKET_INSTANCE* pSocket) {
    if (pSocket->bInSets) {
        pListOfSocketsInSets->RemoveNode(pSocket);
        pSocket->bInSets = false;
    }
}

void EmptyInSetListLocked() {
    while (void* pNode = pListOfSocketsInSets->RemoveHead()) {
        static_cast<SOCKET_INSTANCE*>(pNode)->bInSets = false;
    }
}

SOCKET_INSTANCE* FindSocketLocked(unsigned int handle) {
    if (handle == 0) {
        return nullptr;
    }
    void* pNode = pListOfSockets->HashFindFirst(gSocketHandleHash, handle % static_cast<unsigned int>(kHandleBuckets));
    while (pNode && static_cast<SOCKET_INSTANCE*>(pNode)->handle != handle) {
        pNode = pListOfSockets->HashFindNext(gSocketHandleHash);
    }
    return static_cast<SOCKET_INSTANCE*>(pNode);
}

void tq_SocketSetNameInternal(SOCKET_INSTANCE* pSocket, const char* name) {
    char* pszOld = pSocket->pszName;
    pSocket->pszName = name ? tq_newString(name) : nullptr;
    tq_free(pszOld); // only now: the name given may be the old one
    NameDataList(pSocket->pDataInList, "Socket DataInList:", pSocket->pszName);
    NameDataList(pSocket->pDataOutList, "Socket DataOutList:", pSocket->pszName);
}

namespace {

constexpr long long kTimeHoldsNs = 50000;

long long Nanoseconds(clockid_t clock) {
    struct timespec time;
    return clock_gettime(clock, &time) == 0 ? time.tv_sec * 1000000000LL + time.tv_nsec : 0;
}

} // namespace

unsigned int TimeLocked() {
    static unsigned int time = 0;    // as it was read last,
    static long long readAt = 0;     // then,
    static long long readInTick = 0; // in this tick of the system
    const long long now = Nanoseconds(CLOCK_MONOTONIC);
    const long long tick = Nanoseconds(CLOCK_MONOTONIC_COARSE);
    if (tick != readInTick || now - readAt > kTimeHoldsNs || now < readAt) {
        time = tq_GetTimeInMS();
        readAt = now;
        readInTick = tick;
    }
    return time;
}

void RecordSocketEventLocked(SOCKET_INSTANCE* pSocket, unsigned int event) {
    const unsigned int slot = pSocket->SocketStateHistoryIndex;
    pSocket->SocketStateHistory[slot] = event;
    pSocket->SocketStateTime[slot] = TimeLocked();
    pSocket->SocketStateHistoryIndex = (slot + 1) % kSocketHistorySize;
}

DATA_BLOCK* MakeDataBlock(unsigned int bytes) {
    if (bytes > 0xFFFFFFFFu - sizeof(DATA_BLOCK)) {
        return nullptr;
    }
    DATA_BLOCK* pBlock = static_cast<DATA_BLOCK*>(tq_malloc(static_cast<unsigned int>(sizeof(DATA_BLOCK)) - 1 + bytes));
    if (pBlock) {
        memset(pBlock, 0, offsetof(DATA_BLOCK, data));
    }
    return pBlock;
}

bool AppendBlockLocked(SOCKET_INSTANCE* pSocket, tq_List** ppList, DATA_BLOCK* pBlock) {
    if (!*ppList) {
        // Without a lock of its own: the record's lock guards it.
        *ppList = tq_newObject<tq_List>(static_cast<int>(LIST_FLAGS_LOCK_DISABLE), static_cast<int>(LIST_TYPE_U32BITS),
                                        0u, nullptr);
        if (!*ppList) {
            return false;
        }
        tq_SocketSetNameInternal(pSocket, pSocket->pszName);
    }
    const unsigned int before = (*ppList)->NodeCount();
    (*ppList)->AddToTail(pBlock);
    return (*ppList)->NodeCount() != before; // a list without memory says nothing
}

// Messages

void SendSocketMessageLocked(const SOCKET_INSTANCE* pSocket, unsigned int command) {
    tq_MsgCreateCommonAndSend(0, pSocket->hMsgQ, command, pSocket->handle, pSocket->UserParm, 0,
                              /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
}

namespace {

bool HasQueue(const SOCKET_INSTANCE* pSocket) {
    const tq_MsgQRegistryLock registry;
    return registry && tq_MsgQFindLocked(pSocket->hMsgQ);
}

bool SendClosed(const SOCKET_INSTANCE* pSocket) {
    SOCKET_CLOSED* pClosed = static_cast<SOCKET_CLOSED*>(tq_calloc(1, sizeof(SOCKET_CLOSED)));
    if (!pClosed) {
        return false;
    }
    pClosed->msg.hDest = pSocket->hMsgQ;
    pClosed->msg.size = sizeof(SOCKET_CLOSED);
    pClosed->msg.command = MSG_SOCKET_CLOSED;
    pClosed->msg.instance = pSocket->handle;
    pClosed->msg.userparm = pSocket->UserParm;
    pClosed->error = pSocket->closedError;
    if (tq_MsgSend(&pClosed->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        return true;
    }
    tq_free(pClosed);
    return false;
}

} // namespace

bool TellClosedLocked(SOCKET_INSTANCE* pSocket) {
    pSocket->bClosedDue = !SendClosed(pSocket) && HasQueue(pSocket); // without its queue nobody is left to tell
    return !pSocket->bClosedDue;
}

void SendSocketClosedLocked(SOCKET_INSTANCE* pSocket, int error) {
    pSocket->state = SOCKET_STATE_CLOSED;
    pSocket->closedError = error;
    gbLookAtAll = !TellClosedLocked(pSocket) || gbLookAtAll; // the worker tries again
}

// Traces

void TraceSocketsVA(int level, const char* pszFormat, va_list args) {
    tq_TraceVA(tqosTraceHandle, level, TQ_TRACE_CAT_SOCKETS, /*bIncludeTimeStamp=*/true, pszFormat, args);
}

void TraceSockets(int level, const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    TraceSocketsVA(level, pszFormat, args);
    va_end(args);
}

void QueueTraceLocked(int level, const char* pszFormat, unsigned int handle, unsigned int socket, int error) {
    if (gTraceStructCount < kTraceQueueSize) {
        TraceStructs[gTraceStructCount++] = {level, static_cast<int>(handle), static_cast<int>(socket), error,
                                             pszFormat};
    }
}

bool HasQueuedTracesLocked() {
    return gTraceStructCount != 0;
}

void FlushTraceQueue() {
    TQSOCKET_TRACE_STRUCT lines[kTraceQueueSize];
    unsigned int count = 0;
    {
        tq_ListLock lock(pListOfSockets);
        count = gTraceStructCount;
        memcpy(lines, TraceStructs, count * sizeof(lines[0]));
        gTraceStructCount = 0;
    }
    for (unsigned int i = 0; i < count; ++i) {
        tq_Trace(tqosTraceHandle, lines[i].level, TQ_TRACE_CAT_SOCKETS, /*bIncludeTimeStamp=*/true, lines[i].pszFormat,
                 lines[i].handle, lines[i].socket, lines[i].error);
    }
}

void tq_SocketTraceQueue(int level, const char* pszFormat, int handle, int socket, int error) {
    tq_GatePass pass(gSocketGate);
    if (pass && pszFormat) {
        tq_ListLock lock(pListOfSockets);
        QueueTraceLocked(level, pszFormat, static_cast<unsigned int>(handle), static_cast<unsigned int>(socket), error);
    }
}

void tq_SocketTraceFlush() {
    tq_GatePass pass(gSocketGate);
    if (pass) {
        FlushTraceQueue();
    }
}

int tq_SocketGetLastError(bool bUsehError) {
    return bUsehError ? h_errno : errno;
}

// Receiving

namespace {

/// Takes blocks off the head of the inbound data; the bytes copied.
unsigned int TakeInputLocked(SOCKET_INSTANCE* pSocket, unsigned char* data, unsigned int len) {
    unsigned int taken = 0;
    while (taken < len && pSocket->DataInCount != 0) {
        DATA_BLOCK* pBlock = static_cast<DATA_BLOCK*>(pSocket->pDataInList->GetHead());
        if (!pBlock) {
            break;
        }
        const unsigned int room = len - taken;
        const unsigned int piece = pBlock->size < room ? pBlock->size : room;
        memcpy(data + taken, pBlock->data + pBlock->offset, piece);
        taken += piece;
        pBlock->offset += piece;
        pBlock->size -= piece;
        pSocket->DataInCount -= piece;
        if (pBlock->size == 0) {
            tq_free(pSocket->pDataInList->RemoveHead());
        }
    }
    return taken;
}

} // namespace

unsigned int tq_SocketRecv(unsigned int hSocket, unsigned char* data, unsigned int len) {
    if (!data || len == 0) {
        TraceSockets(TQ_TRACE_LEVEL_INFORMATIONAL,
                     "tqos Sockets: tq_SocketRecv() called with data pointer: 0x%x and data len: %u for socket: %u.\n",
                     static_cast<unsigned int>(reinterpret_cast<unsigned long>(data)), len, hSocket);
        return 0;
    }
    unsigned int taken = 0;
    unsigned int descriptor = 0;
    {
        tq_SocketAccess socket(hSocket);
        if (!socket) {
            return 0;
        }
        RecordSocketEventLocked(socket.Record(), SOCKET_EVENT_RECV);
        if (socket->DataInCount == 0) {
            return 0;
        }
        const bool bCapped = socket->DataInCount >= socket->DataInCap;
        taken = TakeInputLocked(socket.Record(), data, len);
        const bool bUnCapped = bCapped && socket->DataInCount < socket->DataInCap;
        if (bUnCapped || HasFlushed(socket.Record())) {
            SpinBreaker(); // the worker reads again, or cleans up
        }
        if (!bUnCapped) {
            return taken;
        }
        descriptor = socket->socket;
    }
    TraceSockets(TQ_TRACE_LEVEL_DEBUG_LOW,
                 "tqos Sockets: Inside Recv() - UnCapping so SpinBreaker for socket: %u  handle: %u.\n", descriptor,
                 hSocket);
    return taken;
}

unsigned int tq_SocketDataAvailable(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    return socket ? socket->DataInCount : 0;
}

// Caps, options and the application's values

void tq_SocketSetDataInCap(unsigned int hSocket, unsigned int MaxBytesToCache) {
    tq_SocketAccess socket(hSocket);
    if (!socket) {
        return;
    }
    const bool bCapped = socket->DataInCount >= socket->DataInCap;
    socket->DataInCap = MaxBytesToCache;
    gbLookAtAll = true;
    if (bCapped && socket->DataInCount < socket->DataInCap) {
        SpinBreaker();
    }
}

void tq_SocketSetDataOutCap(unsigned int hSocket, unsigned int MaxBytesToCache) {
    tq_SocketAccess socket(hSocket);
    if (socket) {
        socket->DataOutCap = MaxBytesToCache;
    }
}

void CapAcceptedSockets(unsigned int hListener, unsigned int inCap, unsigned int outCap) {
    tq_SocketAccess listener(hListener);
    if (listener) {
        listener->AcceptedInCap = inCap;
        listener->AcceptedOutCap = outCap;
    }
}

struct sockaddr_in PeerOfSocket(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    return socket ? socket->dstaddr : sockaddr_in{};
}

void tq_SocketSetWritePercentageNotification(unsigned int hSocket, unsigned int PercentRemaining) {
    tq_SocketAccess socket(hSocket);
    if (socket) {
        socket->PendingWritePercentage = PercentRemaining > 100 ? 100 : PercentRemaining;
    }
}

unsigned int tq_SocketGetWritePercentageNotification(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    return socket ? socket->PendingWritePercentage : 0;
}

int tq_SocketSetOpt(int hSocket, int level, int optname, const void* optval, int optlen) {
    tq_SocketAccess socket(static_cast<unsigned int>(hSocket));
    if (!socket) {
        errno = ENOTSOCK;
        return -1;
    }
    return setsockopt(static_cast<int>(socket->socket), level, optname, optval, static_cast<socklen_t>(optlen));
}

int tq_SocketGetOpt(int hSocket, int level, int optname, void* optval, int* optlen) {
    tq_SocketAccess socket(static_cast<unsigned int>(hSocket));
    if (!socket) {
        errno = ENOTSOCK;
        return -1;
    }
    return getsockopt(static_cast<int>(socket->socket), level, optname, optval, reinterpret_cast<socklen_t*>(optlen));
}

void tq_SocketSetSendBufSize(unsigned int hSocket, unsigned int SendBufSize) {
    if (hSocket == 0) {
        ulDefault_SendSize = SendBufSize;
        return;
    }
    tq_SocketAccess socket(hSocket);
    if (socket) {
        setsockopt(static_cast<int>(socket->socket), SOL_SOCKET, SO_SNDBUF, &SendBufSize, sizeof(SendBufSize));
    }
}

void tq_SocketSetReceiveBufSize(unsigned int hSocket, unsigned int ReceiveBufSize) {
    if (hSocket == 0) {
        ulDefault_ReceiveSize = ReceiveBufSize;
        return;
    }
    tq_SocketAccess socket(hSocket);
    if (socket) {
        setsockopt(static_cast<int>(socket->socket), SOL_SOCKET, SO_RCVBUF, &ReceiveBufSize, sizeof(ReceiveBufSize));
    }
}

void tq_SocketEnableBroadcasting(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    if (socket) {
        const int on = 1;
        setsockopt(static_cast<int>(socket->socket), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    }
}

unsigned int tq_SocketGetBoundPort(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    return socket ? ntohs(socket->srcaddr.sin_port) : 0;
}

unsigned int tq_SocketGetSrcAddress(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    return socket ? socket->srcaddr.sin_addr.s_addr : 0;
}

unsigned int tq_SocketGetUserParm(int hSocket) {
    tq_SocketAccess socket(static_cast<unsigned int>(hSocket));
    return socket ? socket->UserParm : 0;
}

void tq_SocketSetUserParm(int hSocket, unsigned int UserParm) {
    tq_SocketAccess socket(static_cast<unsigned int>(hSocket));
    if (socket) {
        socket->UserParm = UserParm;
    }
}

void tq_SocketSetName(unsigned int hSocket, const char* name) {
    tq_SocketAccess socket(hSocket);
    if (socket) {
        tq_SocketSetNameInternal(socket.Record(), name);
    }
}

// Start and stop

namespace {

tq_PlacedMutex gUsersMutex(tq_LockRank::kLeaf); // guards the count of users and this
bool gbStopping = false;                        ///< from the last user's going until everything is unmade

unsigned int MakeSyncObjects() {
    pListOfSockets = tq_IfItLocks(tq_newObject<tq_List>("TQOS: All Sockets"));
    tq_ListPlace(pListOfSockets, tq_LockRank::kSockets);
    pListOfSocketsInSets = tq_newObject<tq_List>("TQOS: Sockets Currently In a set");
    pSyncEvent1 = tq_newObject<tq_SemEvent>(1, 0);
    pSyncEvent2 = tq_newObject<tq_SemEvent>(1, 0);
    pSocketTerminateSem = tq_IfItLocks(tq_newObject<tq_SemCritSec>(true));
    pSocketGetHostByNameSem = tq_IfItLocks(tq_newObject<tq_SemCritSec>(true));
    if (!pListOfSockets || !pListOfSocketsInSets || !pSyncEvent1 || !pSyncEvent2 || !pSocketTerminateSem ||
        !pSocketGetHostByNameSem) {
        return 1;
    }
    gSocketHandleHash = pListOfSockets->HashCreate(LIST_TYPE_U32BITS, offsetof(SOCKET_INSTANCE, handle), kHandleBuckets,
                                                   nullptr, "Socket handles");
    if (gSocketHandleHash == 0) {
        return 1;
    }
    // An event that could not get its inside lets everybody through at once; the start could not rely on it.
    return pSyncEvent1->Reset() && pSyncEvent2->Reset() ? 0 : 1;
}

unsigned int ReadInterfaces() {
    RefreshInterfaceTable();
    return 0;
}

unsigned int (*const kStartSteps[])() = {MakeSyncObjects, ReadInterfaces, StartSocketWorker};

/// Runs the steps in order; on a failure says how many had succeeded.
unsigned int RunStartSteps(unsigned int* pSucceeded) {
    *pSucceeded = 0;
    for (unsigned int (*step)() : kStartSteps) {
        const unsigned int error = step();
        if (error != 0) {
            return error;
        }
        ++*pSucceeded;
    }
    return 0;
}

void CleanUpRecords() {
    tq_ListLock lock(pListOfSockets);
    EmptyInSetListLocked();
    while (void* pSocket = pListOfSockets->RemoveHead()) {
        CleanUpSocket(static_cast<SOCKET_INSTANCE*>(pSocket), /*bDrain=*/false);
    }
}

void DestroySyncObjects() {
    CloseWatchSet();
    tq_deleteObject(pSocketTerminateSem);
    tq_deleteObject(pSocketGetHostByNameSem);
    tq_deleteObject(pSyncEvent1);
    tq_deleteObject(pSyncEvent2);
    tq_deleteObject(pListOfSocketsInSets);
    tq_deleteObject(pListOfSockets);
    pSocketTerminateSem = pSocketGetHostByNameSem = nullptr;
    pSyncEvent1 = pSyncEvent2 = nullptr;
    pListOfSocketsInSets = pListOfSockets = nullptr;
}

/// Counts a user on; true for the first, who has to start the layer. *pbStopping: it is just being unmade.
bool PutUserOn(bool* pbStopping) {
    std::lock_guard<tq_PlacedMutex> lock(gUsersMutex);
    *pbStopping = gbStopping;
    return !gbStopping && gTQSocketsInitialized++ == 0;
}

/// Counts one user off; true for the last, who has to unmake the layer. The library's own end is everybody's.
bool TakeUserOff() {
    std::lock_guard<tq_PlacedMutex> lock(gUsersMutex);
    if (gTQSocketsInitialized == 0) {
        return false;
    }
    gTQSocketsInitialized = tqos_Intialized == 0 ? 0 : gTQSocketsInitialized - 1;
    gbStopping = gTQSocketsInitialized == 0;
    return gbStopping;
}

void ReportStopped() {
    std::lock_guard<tq_PlacedMutex> lock(gUsersMutex);
    gbStopping = false;
}

} // namespace

unsigned int tq_SocketInitialize() {
    tq_LazyStart start(__FILE__, __LINE__);
    if (!start) {
        return 1;
    }
    bool bStopping = false;
    if (!PutUserOn(&bStopping)) {
        return bStopping ? 1 : 0;
    }
    bTerminate = false;
    gbWakeUpPending = false;
    gbLookAtAll = true;
    gTraceStructCount = 0;
    memset(g_localAddresses, 0, sizeof(g_localAddresses));
    g_localAddressCount = 0;
    unsigned int succeeded = 0;
    const unsigned int error = RunStartSteps(&succeeded);
    if (error == 0) {
        gSocketGate.Open();
        return 0;
    }
    tq_SocketTerminate(succeeded);
    char message[80];
    snprintf(message, sizeof(message), "TQOS Sockets Layer failed to initialize! error=%d\n", static_cast<int>(error));
    LogCriticalError(message, /*bAbort=*/false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SOCKETS);
    return error;
}

void CheckForInitialization() {
    if (gSocketGate.IsOpen()) {
        return;
    }
    tq_LazyStart start(__FILE__, __LINE__);
    if (start && gTQSocketsInitialized == 0) {
        tq_SocketInitialize();
    }
}

void tq_SocketTerminate(unsigned int errorLevel) {
    if (!TakeUserOff()) {
        return;
    }
    if (pSocketTerminateSem && pListOfSockets) {
        StopSocketWorker();
    }
    gSocketGate.Close();
    if (pListOfSockets && pListOfSocketsInSets &&
        ((errorLevel >= 1 && errorLevel <= 3) || errorLevel == kCleansUpRecords)) {
        CleanUpRecords();
    }
    if (BrkrSocket >= 0) {
        close(BrkrSocket);
        BrkrSocket = -1;
    }
    DestroySyncObjects();
    ReportStopped();
}

void tq_SocketStopWorkerThread() {
    tq_GatePass pass(gSocketGate);
    if (pass) {
        StopSocketWorker();
    }
}
