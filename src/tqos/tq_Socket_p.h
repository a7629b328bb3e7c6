/// @file tq_Socket_p.h
/// What the source files of the sockets layer share.
///
/// Invariants:
/// - A record is in pListOfSockets from the end of its open until its clean-up; its handle is taken before it goes in
///   and released only after it is out. Every field of a record in the list is read and written under the list's lock.
/// - pListOfSocketsInSets holds records of pListOfSockets only; whoever takes a record out of the one takes it out of
///   the other.
/// - While a thread sends on a socket without the lock, nobody else sends on it, closes its descriptor or frees its
///   record: who may do that finds it with FindIdleSocketLocked(). What the worker frees has been closed before.
/// - The worker holds the list's lock at all times except while it waits and while it traces. Nobody traces with that
/// lock
///   held: lines go through tq_SocketTraceQueue(). Messages are sent under it, since a queue never calls back.
/// - A message given to tq_MsgSend() is not touched afterwards.
/// - DataInCount and DataOutCount may be 0 with blocks left in the lists: that is data given up with a close, freed
/// with
///   the record.
///
/// Lock order: pListOfSockets, then a queue's registry and queue (sending), then what lists and memory take.
#ifndef TQ_SOCKET_P_H
#define TQ_SOCKET_P_H

#include <atomic>
#include <netinet/in.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/un.h>

#include "tq_Gate_p.h"
#include "tq_List.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_Socket.h"
#include "tq_Trace.h"
#include "tq_Types.h"

// Records

enum { SOCKET_TYPE_TCP = 1, SOCKET_TYPE_UDP = 2 };

enum {
    SOCKET_STATE_BREAKER = 1,
    SOCKET_STATE_LISTEN = 2,
    SOCKET_STATE_CONNECTING = 3,
    SOCKET_STATE_CONNECTED = 4,
    SOCKET_STATE_CLOSED = 5
};

/// Events of a socket's history.
enum {
    SOCKET_EVENT_READABLE = 1,
    SOCKET_EVENT_WRITEABLE = 2,
    SOCKET_EVENT_FAILED = 3,
    SOCKET_EVENT_WRITEABLE_FAILED = 4,
    SOCKET_EVENT_RECV = 5,
    SOCKET_EVENT_SEND = 6
};

constexpr unsigned int kSocketHistorySize = 10;
constexpr unsigned int kSocketNoCap = 0xFFFFFFFF;
constexpr unsigned int kNoDescriptor = 0xFFFFFFFF; ///< `socket` before it is made and after it was closed by force
constexpr int kListenBacklog = 128;

typedef struct _SOCKET_INSTANCE {
    unsigned int socket; ///< the descriptor
    unsigned int handle;
    unsigned int type;
    unsigned int state;
    unsigned int flush; ///< flags of a flushing close that is not finished
    unsigned int hMsgQ;
    unsigned int UserParm;
    unsigned int DataInCount; ///< bytes in pDataInList that tq_SocketRecv() may take
    unsigned int DataInCap;
    unsigned int DataOutCount; ///< bytes in pDataOutList still to be sent
    unsigned int DataOutCap;
    unsigned int IsMultiCast;
    unsigned int IsServer;
    unsigned int PendingWrite; ///< a send was cut short by the out cap; MSG_SOCKET_WRITEABLE is due
    unsigned int PendingWritePercentage;
    unsigned int SocketStateHistory[kSocketHistorySize];
    unsigned int SocketStateTime[kSocketHistorySize];
    unsigned int SocketStateHistoryIndex; ///< next slot
    char* pszName;
    char* pszSocketName; ///< path of a local-domain socket
    struct sockaddr_in srcaddr;
    struct sockaddr_in dstaddr;
    struct sockaddr_un un_addr;
    tq_List* pDataOutList; ///< DATA_BLOCKs; null until first needed
    tq_List* pDataInList;

    unsigned int AcceptedInCap; ///< of a listener: the caps that its connections begin with
    unsigned int AcceptedOutCap;
    bool bClosedDue; ///< the owner has not been told of the close yet: there was no memory for the message
    int closedError; ///< what it is to be told

    unsigned int watched;      ///< the events that the system watches the descriptor for; 0: it does not know it
    bool bInSets;              ///< in pListOfSocketsInSets
    bool bSending;             ///< a thread sends on the descriptor without the lock; see FindIdleSocketLocked()
    unsigned long long number; ///< of the records put into the list so far; the list has the newest first
} SOCKET_INSTANCE;

/// One chunk of data, allocated with its bytes behind it.
typedef struct _DATA_BLOCK {
    struct sockaddr_in dstaddress; ///< where a datagram goes
    unsigned int size;             ///< bytes not yet taken or sent
    unsigned int offset;           ///< bytes taken or sent already
    unsigned int errorcount;       ///< failed sends in a row
    unsigned char data[1];
} DATA_BLOCK;

/// A trace line put off.
typedef struct _TQSOCKET_TRACE_STRUCT {
    int level;
    int handle;
    int socket;
    int error;
    const char* pszFormat;
} TQSOCKET_TRACE_STRUCT;

typedef struct _TQ_SOCKET_LOCALADDR_STRUCT {
    unsigned int ip; ///< network byte order
    char name[512];
} TQ_SOCKET_LOCALADDR_STRUCT;

static_assert(sizeof(DATA_BLOCK) == 32, "a block is 31 bytes and its data");
static_assert(sizeof(SOCKET_NEW_CONNECTION) == 36, "message layout");
static_assert(offsetof(SOCKET_DATAGRAM, data) == 40 && sizeof(SOCKET_DATAGRAM) == 44, "message layout");
static_assert(sizeof(SOCKET_CLOSED) == 32, "message layout");
static_assert(sizeof(TQ_SOCKET_LOCALADDR_STRUCT) == 516, "compared byte for byte: no padding");
static_assert(sizeof(struct sockaddr_un) == 110, "bound with its full length");
static_assert(sizeof(void*) != 4 ||
                  (offsetof(SOCKET_INSTANCE, SocketStateHistory) == 60 &&
                   offsetof(SOCKET_INSTANCE, SocketStateHistoryIndex) == 140 &&
                   offsetof(SOCKET_INSTANCE, pszName) == 144 && offsetof(SOCKET_INSTANCE, srcaddr) == 152 &&
                   offsetof(SOCKET_INSTANCE, un_addr) == 184 && offsetof(SOCKET_INSTANCE, pDataInList) == 300),
              "record layout");
static_assert(sizeof(void*) != 4 || sizeof(TQSOCKET_TRACE_STRUCT) == 20, "record layout");

constexpr unsigned int kTraceQueueSize = 100;
constexpr unsigned int kInterfaces = 20;   ///< entries of the interface table
constexpr unsigned int kMacAddresses = 18; ///< of them, the first that can have a MAC address
constexpr unsigned int kMacTextSize = 20;

// State, made by the start of the layer

extern tq_Gate gSocketGate; ///< public functions pass through it while the layer runs
extern tq_List* pListOfSockets;
extern tq_List* pListOfSocketsInSets;      ///< records that the worker is waiting on
extern tq_SemEvent* pSyncEvent1;           ///< worker to starter: listening, and later: serving; or given up
extern tq_SemEvent* pSyncEvent2;           ///< starter to worker: connected, or given up
extern tq_SemCritSec* pSocketTerminateSem; ///< held by the worker for its whole life
extern tq_SemCritSec* pSocketGetHostByNameSem;

// Guarded by the lock of pListOfSockets

extern bool bTerminate; ///< the worker is to end
extern int BrkrSocket;  ///< our end of the breaker; -1: none
extern bool gbWakeUpPending;
extern bool gbLookAtAll; ///< before its next wait the worker looks at every record again
extern TQ_SOCKET_LOCALADDR_STRUCT g_localAddresses[kInterfaces];
extern unsigned int g_localAddressCount;
extern char g_localMacAddresses[kMacAddresses][kMacTextSize];

// Not guarded

extern unsigned int BrkrPort; ///< written by the worker, read by the starter, between their events
extern std::atomic<int> gTQSocketsInitialized;
extern std::atomic<unsigned int> ulDefault_ReceiveSize; ///< 0 leaves the system's own
extern std::atomic<unsigned int> ulDefault_SendSize;
extern std::atomic<bool> gbDescriptorClosed; ///< set whenever the layer has given a descriptor back

// Records (tq_Socket.cpp). "Locked": the caller holds the lock of pListOfSockets.

/// Connections that the listener accepts from now on begin with these caps, so that nothing comes in unbounded before
/// their owner hears of them.
void CapAcceptedSockets(unsigned int hListener, unsigned int inCap, unsigned int outCap);
/// The peer's address; zeros when no socket has the handle.
struct sockaddr_in PeerOfSocket(unsigned int hSocket);
/// What a zeroed record has besides zeros.
void InitializeInstance(SOCKET_INSTANCE* pSocket);
/// A new record with a handle and without a descriptor; null without memory.
SOCKET_INSTANCE* MakeSocketRecord(unsigned int type, unsigned int state, unsigned int hMsgQ, unsigned int userparm);
/// Closes the descriptor and frees all that the record has, its handle included. The record is in no list.
void CleanUpSocket(SOCKET_INSTANCE* pSocket, bool bDrain);
/// Closes a descriptor. With bDrain the connection is shut down and read empty first.
void CloseDescriptor(unsigned int descriptor, bool bDrain);
/// Puts a record at the head of the list of all sockets; false without memory.
bool AddSocketLocked(SOCKET_INSTANCE* pSocket);
/// Takes a record out of both socket lists.
void RemoveSocketLocked(SOCKET_INSTANCE* pSocket);
/// Nobody counts as waited on any more.
void EmptyInSetListLocked();
/// Takes a record out of the list of those that are waited on, if it is there.
void LeaveInSetListLocked(SOCKET_INSTANCE* pSocket);
SOCKET_INSTANCE* FindSocketLocked(unsigned int handle);
/// The same, having waited until no thread sends on it. The lock, which the caller holds once, is left meanwhile.
SOCKET_INSTANCE* FindIdleSocketLocked(unsigned int handle);
void tq_SocketSetNameInternal(SOCKET_INSTANCE* pSocket, const char* name);
/// tq_GetTimeInMS(), which is a system call: read anew in each tick of the system, in which it does not change, and
/// within one from time to time. An event of a socket that is busy needs its time at hand.
unsigned int TimeLocked();
void RecordSocketEventLocked(SOCKET_INSTANCE* pSocket, unsigned int event);
/// Appends a block to a data list, which is made and named on first use; false without memory, the block is then still
/// the caller's.
bool AppendBlockLocked(SOCKET_INSTANCE* pSocket, tq_List** ppList, DATA_BLOCK* pBlock);
/// A block for so many bytes, its fields zeroed; null without memory.
DATA_BLOCK* MakeDataBlock(unsigned int bytes);
/// Sends a message without payload to the socket's queue.
void SendSocketMessageLocked(const SOCKET_INSTANCE* pSocket, unsigned int command);
/// Makes the socket Closed and tells its queue. Nothing else would ever tell the owner, so without memory for the
/// message it stays due, and the worker tries again.
void SendSocketClosedLocked(SOCKET_INSTANCE* pSocket, int error);
/// Tells the queue of a close that is due; false when there is no memory for it yet.
bool TellClosedLocked(SOCKET_INSTANCE* pSocket);
/// Both data counts are gone, and with them the reason to keep a socket that was closed flushing.
inline bool HasFlushed(const SOCKET_INSTANCE* pSocket) {
    return pSocket->flush != 0 && pSocket->DataOutCount == 0 && pSocket->DataInCount == 0;
}
/// tq_SocketTraceQueue() and tq_SocketTraceFlush() for the worker, which needs no gate.
void QueueTraceLocked(int level, const char* pszFormat, unsigned int handle, unsigned int socket, int error);
void FlushTraceQueue();
bool HasQueuedTracesLocked();
/// A line on the library's trace instance, category "Sockets". Not to be called with the lock of pListOfSockets held.
void TraceSockets(int level, const char* pszFormat, ...) TQ_PRINTF(2, 3);
void TraceSocketsVA(int level, const char* pszFormat, va_list args) TQ_PRINTF(2, 0);

/// A public call's way to a record: through the gate and under the lock, for a scope. False when the layer does not run
/// or no socket has the handle.
class tq_SocketAccess {
public:
    explicit tq_SocketAccess(unsigned int handle,
                             SOCKET_INSTANCE* (*pfnFindLocked)(unsigned int handle) = FindSocketLocked)
        : m_pass(gSocketGate), m_lock(m_pass ? pListOfSockets : nullptr),
          m_pSocket(m_pass ? pfnFindLocked(handle) : nullptr) {}
    explicit operator bool() const { return m_pSocket != nullptr; }
    SOCKET_INSTANCE* operator->() const { return m_pSocket; }
    SOCKET_INSTANCE* Record() const { return m_pSocket; }

private:
    tq_GatePass m_pass;
    tq_ListLock m_lock;
    SOCKET_INSTANCE* m_pSocket;
};

// Options of a descriptor (tq_SocketOpen.cpp); results are ignored

typedef void (*PFN_DESCRIPTOR_STEP)(unsigned int descriptor);
void MakeNonBlocking(unsigned int descriptor);
void EnableKeepAlive(unsigned int descriptor);
void EnableDebug(unsigned int descriptor);
void SetLinger(unsigned int descriptor);
void SetDefaultBufferSizes(unsigned int descriptor);

/// Makes the directory of socket files, or checks the one that is there.
/// @return 0, or -1 with errno (for a directory refused for its owner or mode, also a line on standard error)
int safe_mksocketdir(const char* pszDirectory);

// The worker's thread (tq_SocketBreaker.cpp)

/// Starts a worker and connects the breaker to it. Only while none runs.
/// @return 0; 1 when no thread could be started, otherwise the system error
unsigned int StartSocketWorker();
/// Tells the worker to end and waits until it has, and any heir that it may be setting up.
void StopSocketWorker();
/// Wakes the worker, which then looks at all records again.
void SpinBreaker();

// What the worker waits for (tq_SocketWait.cpp)

/// Makes the set of watched descriptors, unless there is one, and puts the breaker's end that is not a record's into
/// it: when the record's end goes, this one wakes the worker, with an event that carries the handle 0. False, with
/// errno, when there is no descriptor for it.
bool OpenWatchSetLocked();
void CloseWatchSet();
/// True when there is no set any more: somebody else has closed its descriptor.
bool LoseDeadWatchSetLocked();
/// Watches a socket for these events (EPOLLIN...) and no others from now on. Returns 0, or the system error, and what
/// was watched for before is then still watched for.
int WatchLocked(SOCKET_INSTANCE* pSocket, unsigned int events);
/// To be called before a descriptor is closed.
void UnwatchLocked(SOCKET_INSTANCE* pSocket);
/// Waits, without the lock, until something watched is ready; how many are, or minus the system error. Each event
/// carries the handle of its socket.
int WaitForWatched(struct epoll_event* pEvents, int most, unsigned int ms);

// The worker's loop (tq_SocketWorker.cpp)

/// How a turn of the loop ended.
enum class Turn { kGoOn, kTerminate, kBreakerLost };

/// Serves all sockets until the layer is stopped or the breaker is lost, and says which.
Turn ServeSockets();
/// Closes a socket whose connection has failed: tells its queue, unless it is closed already.
void HandleFailed(SOCKET_INSTANCE* pSocket, int error);
/// A failed read that says nothing about the connection.
bool IsHarmlessReadError(unsigned int type, int error);
/// The part of the out cap still in use, in per cent.
unsigned long long PercentOfOutCap(unsigned int DataOutCount, unsigned int DataOutCap);

// Interfaces (tq_SocketAddress.cpp); callable while the layer starts

bool RefreshInterfaceTable();
void RefreshMacTable();

// Sending and closing (tq_SocketSend.cpp), for callers that need no gate

/// Sends on the descriptor at once; the system's result, with errno.
int SendNow(const SOCKET_INSTANCE* pSocket, const unsigned char* data, unsigned int len,
            const struct sockaddr_in* pDestination);

/// Sends a datagram if the system takes it at once. Whatever comes of it, nothing is queued or traced and the worker is
/// not woken: a trace line that is sent so does not make a line of its own.
void SendOrDrop(unsigned int hSocket, const unsigned char* data, unsigned int len, unsigned int destIP,
                unsigned int destPort);

unsigned int FlushAndCloseSocket(unsigned int hSocket, unsigned int Flags, const char* File, unsigned int Line);

/// Closes the sockets of a queue that is ending, also those that it was never told of: accepted connections whose
/// message still waits in it. What closes by itself once it is flushed is left alone.
void tq_SocketCloseAllOf(unsigned int hMsgQ);

#endif // TQ_SOCKET_P_H
