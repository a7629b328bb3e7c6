// The sockets thread's life, and the breaker: a loopback connection between it and everybody else, on which a byte
// wakes it. Whoever starts the thread connects to it; a worker whose breaker has broken starts its own heir.
#include "tq_Socket_p.h"

#include <condition_variable>
#include <errno.h>
#include <mutex>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tq_Base.h"
#include "tq_CriticalErrorTrace_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Thread.h"
#include "tq_Thread_p.h"

// State

unsigned int BrkrPort = 0;

namespace {

constexpr unsigned int kWorkerStack = 4096; // what the platform refuses runs on its default

unsigned int SocketThreadId = 0;

/// Workers that were started and may still use the layer: none, one, or a worker and its heir. Kept beside
/// pSocketTerminateSem, which between a worker and its heir is held by nobody, and is no lock when it got no memory.
std::mutex gWorkersMutex; // innermost
std::condition_variable gWorkersChanged;
unsigned int gWorkers = 0; // guarded by gWorkersMutex

/// One start at a time: a worker may lose its breaker, and start an heir, before its own starter knows that it serves.
tq_PlacedMutex gStartMutex(tq_LockRank::kServiceStart);

void CountWorkers(unsigned int more, unsigned int fewer) {
    std::lock_guard<std::mutex> lock(gWorkersMutex);
    gWorkers += more - fewer;
    gWorkersChanged.notify_all();
}

void WaitForWorkersEnd() {
    std::unique_lock<std::mutex> lock(gWorkersMutex);
    gWorkersChanged.wait(lock, [] { return gWorkers == 0; });
}

/// What starter and worker tell each other while a breaker is set up; each writes before the event it sets next.
struct Handshake {
    int workerError;            ///< 0: listening, or serving
    unsigned short starterPort; ///< network byte order: the port of the starter's end; 0: it has given up
};
Handshake gHandshake;

} // namespace

// The breaker

void SpinBreaker() {
    tq_ListLock lock(pListOfSockets);
    gbLookAtAll = true;
    if (gbWakeUpPending || BrkrSocket < 0) { // one byte on its way is enough
        return;
    }
    const char wakeUp = 0;
    gbWakeUpPending = send(BrkrSocket, &wakeUp, 1, MSG_NOSIGNAL) == 1;
}

namespace {

struct sockaddr_in LoopbackAddress(unsigned int port) {
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int MakeTcpDescriptor() {
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
}

/// The port that a descriptor is bound to, network byte order; 0 when the system does not say.
unsigned short BoundPort(int descriptor) {
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    socklen_t length = sizeof(address);
    return getsockname(descriptor, reinterpret_cast<struct sockaddr*>(&address), &length) == 0 ? address.sin_port : 0;
}

/// A worker's breaker while it is set up: undoes what was made unless the breaker stands.
class BreakerSetUp {
public:
    BreakerSetUp() = default;
    ~BreakerSetUp() {
        CloseListener();
        if (m_pSocket) {
            CleanUpSocket(m_pSocket, /*bDrain=*/false);
        }
    }
    BreakerSetUp(const BreakerSetUp&) = delete;
    BreakerSetUp& operator=(const BreakerSetUp&) = delete;

    /// Listens on a port of the system's choice, BrkrPort. Null, or the format of the critical error.
    const char* Listen() {
        errno = 0;
        m_pSocket = MakeSocketRecord(SOCKET_TYPE_TCP, SOCKET_STATE_BREAKER, 0, 0);
        m_listener = m_pSocket ? MakeTcpDescriptor() : -1;
        if (m_listener < 0) {
            return Failed("tqos Sockets: Could not create breaker socket!\n");
        }
        const struct sockaddr_in address = LoopbackAddress(0);
        if (bind(m_listener, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
            return Failed("tqos Sockets: Could not bind breaker socket!\n");
        }
        BrkrPort = ntohs(BoundPort(m_listener));
        if (BrkrPort == 0) {
            return Failed("tqos Sockets: Could not get breaker socket port!\n");
        }
        if (listen(m_listener, kListenBacklog) != 0) {
            return Failed("tqos Sockets: Could not listen on breaker socket with port = %u!\n");
        }
        return nullptr;
    }

    /// Takes the starter's connection, which stands already, and nobody else's. Null, or the format of the critical
    /// error.
    const char* Accept(unsigned short starterPort) {
        static const char kCouldNotAccept[] =
            "tqos Sockets: Could not accept connection on breaker socket with port = %u!\n";
        for (;;) {
            struct sockaddr_in peer;
            memset(&peer, 0, sizeof(peer));
            socklen_t length = sizeof(peer);
            const int descriptor =
                starterPort ? accept4(m_listener, reinterpret_cast<struct sockaddr*>(&peer), &length, SOCK_CLOEXEC)
                            : -1;
            if (descriptor < 0) {
                return Failed(kCouldNotAccept);
            }
            m_pSocket->socket = static_cast<unsigned int>(descriptor);
            if (peer.sin_port == starterPort) {
                break;
            }
            CloseDescriptor(m_pSocket->socket, /*bDrain=*/false);
            m_pSocket->socket = kNoDescriptor;
        }
        CloseListener(); // before the starter is told: once it knows, no descriptor is out that will not stay
        MakeNonBlocking(m_pSocket->socket);
        tq_SocketSetNameInternal(m_pSocket, "TQOS: Breaker Socket");
        tq_ListLock lock(pListOfSockets);
        errno = 0;
        if (!OpenWatchSetLocked() || !AddSocketLocked(m_pSocket)) {
            return Failed(kCouldNotAccept);
        }
        m_hBreaker = m_pSocket->handle;
        m_pSocket = nullptr;
        return nullptr;
    }

    int Error() const { return m_error; }
    unsigned int Handle() const { return m_hBreaker; }

private:
    void CloseListener() {
        if (m_listener >= 0) {
            CloseDescriptor(static_cast<unsigned int>(m_listener), /*bDrain=*/false);
            m_listener = -1;
        }
    }

    const char* Failed(const char* pszFormat) {
        m_error = errno ? errno : 1;
        return pszFormat;
    }

    SOCKET_INSTANCE* m_pSocket = nullptr;
    int m_listener = -1;
    int m_error = 0;
    unsigned int m_hBreaker = 0;
};

void LogBreakerError(const char* pszFormat) {
    char message[120];
    snprintf(message, sizeof(message), pszFormat, BrkrPort);
    LogCriticalError(message, /*bAbort=*/false, TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SOCKETS);
}

/// The worker's side of the set-up, pSyncEvent1 being set for the starter after each step. Returns the breaker's
/// handle, 0 on failure.
unsigned int SetUpBreaker() {
    BreakerSetUp breaker;
    const char* pszError = breaker.Listen();
    if (!pszError) {
        gHandshake.workerError = 0;
        pSyncEvent1->Set();
        pSyncEvent2->WaitForEvent(-1);
        pszError = breaker.Accept(gHandshake.starterPort);
    }
    gHandshake.workerError = breaker.Error();
    if (pszError) {
        LogBreakerError(pszError);
    }
    pSyncEvent1->Set();
    return breaker.Handle();
}

/// The starter's side: connects to the listening worker. The descriptor, or minus the system error.
int ConnectToWorker() {
    const int descriptor = MakeTcpDescriptor();
    if (descriptor < 0) {
        return -errno;
    }
    const struct sockaddr_in address = LoopbackAddress(BrkrPort);
    if (connect(descriptor, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(descriptor);
        return -error;
    }
    MakeNonBlocking(static_cast<unsigned int>(descriptor));
    return descriptor;
}

/// Replaces the starter's end of the breaker; -1 for none.
void SetBrkrSocket(int descriptor) {
    int previous = -1;
    {
        tq_ListLock lock(pListOfSockets);
        previous = BrkrSocket;
        BrkrSocket = descriptor;
        gbWakeUpPending = false;
    }
    if (previous >= 0) {
        close(previous);
    }
}

void* WorkerThread(void*);

} // namespace

unsigned int StartSocketWorker() {
    std::lock_guard<tq_PlacedMutex> start(gStartMutex);
    pSyncEvent1->Reset();
    pSyncEvent2->Reset();
    gHandshake = Handshake();
    CountWorkers(1, 0);
    if (!tq__beginthread(kWorkerStack, WorkerThread, nullptr, &SocketThreadId, TQ_THREAD_PRIORITY_NORMAL,
                         "TQOS: Sockets Thread", __LINE__)) {
        CountWorkers(0, 1);
        return 1;
    }
    pSyncEvent1->WaitForEvent(-1);
    if (gHandshake.workerError != 0) {
        return static_cast<unsigned int>(gHandshake.workerError);
    }
    pSyncEvent1->Reset();
    // Connected before the worker is told to accept: if this fails it must not wait for a connection that never comes.
    const int descriptor = ConnectToWorker();
    if (descriptor >= 0) {
        gHandshake.starterPort = BoundPort(descriptor);
        SetBrkrSocket(descriptor);
    }
    pSyncEvent2->Set();
    pSyncEvent1->WaitForEvent(-1);
    if (gHandshake.workerError != 0) {
        SetBrkrSocket(-1);
        return static_cast<unsigned int>(descriptor < 0 ? -descriptor : gHandshake.workerError);
    }
    return 0;
}

// The thread

namespace {

bool IsTerminating() {
    tq_ListLock lock(pListOfSockets);
    return bTerminate;
}

/// Takes the broken breaker out and away.
void DropBreaker(unsigned int hBreaker) {
    SOCKET_INSTANCE* pBreaker = nullptr;
    {
        tq_ListLock lock(pListOfSockets);
        pBreaker = FindSocketLocked(hBreaker);
        if (pBreaker) {
            RemoveSocketLocked(pBreaker);
        }
        EmptyInSetListLocked();
    }
    TraceSockets(TQ_TRACE_LEVEL_SEVERE, "tqos Sockets: ResetBreaker() called!!\n");
    if (pBreaker) {
        CleanUpSocket(pBreaker, /*bDrain=*/false);
    }
}

/// Defers critical errors for a scope as a held lock does: they are kept, and nobody else's are printed.
class KeptErrors {
public:
    KeptErrors() { tq_HeldLatchLeaving(); }
    ~KeptErrors() { tq_HeldLatchEntered(); }
    KeptErrors(const KeptErrors&) = delete;
    KeptErrors& operator=(const KeptErrors&) = delete;
};

/// Leaves the latch, but traces nothing yet: whoever waits for our end may be holding trace's own lock.
void LeaveLatch() {
    KeptErrors kept;
    pSocketTerminateSem->Leave();
}

/// The thread's last steps; nothing of the layer is touched after it has been counted off. It goes off the list of
/// threads itself: by the time somebody else did that, its id could be a later thread's.
void EndWorker() {
    {
        KeptErrors kept;
        tq_RemoveThreadFromTracking(tq_GetThreadId());
        tq_ThreadIsEnding();
        CountWorkers(0, 1);
    }
    if (gbCriticalErrorsKept) {
        tq_TraceKeptCriticalErrors();
    }
}

/// Hands over to a new worker. All other sockets keep their records.
void ResetBreaker(unsigned int hBreaker) {
    DropBreaker(hBreaker);
    LeaveLatch();
    // Deliberate: no delay between attempts. Nothing is served while there is no worker.
    while (!IsTerminating()) {
        SetBrkrSocket(-1);
        RefreshInterfaceTable();
        if (StartSocketWorker() == 0) {
            break;
        }
    }
}

void* WorkerThread(void*) {
    // Counted as a held lock until the breaker stands: a critical error found on the way is traced only at the end. The
    // starter, who waits for us, may be holding trace's own lock.
    pSocketTerminateSem->Enter();
    const unsigned int hBreaker = SetUpBreaker();
    if (hBreaker == 0) {
        LeaveLatch();
        EndWorker();
        return nullptr;
    }
    tq_HeldLatchEntered();
    const Turn end = ServeSockets();
    tq_HeldLatchLeaving();
    if (end == Turn::kBreakerLost) {
        ResetBreaker(hBreaker);
    } else {
        FlushAndCloseSocket(hBreaker, 0, __FILE__, __LINE__);
        LeaveLatch();
    }
    EndWorker();
    return nullptr;
}

} // namespace

void StopSocketWorker() {
    {
        tq_ListLock lock(pListOfSockets);
        bTerminate = true;
        SpinBreaker();
        if (!gbWakeUpPending && BrkrSocket >= 0) {
            shutdown(BrkrSocket, SHUT_RDWR); // what could not be sent: the breaker's end wakes the worker as well
        }
    }
    pSocketTerminateSem->Enter();
    pSocketTerminateSem->Leave();
    WaitForWorkersEnd();
}
