// What the sockets thread waits for, kept in the system between its turns: only what changes is told anew.
#include "tq_Socket_p.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

constexpr int kWithoutSetMs = 100; // before it is tried again to make one

/// The system's set of watched descriptors; -1 when there is none. Guarded by the lock of pListOfSockets but for the
/// wait itself.
int gWatchSet = -1;

/// Tells the set of a descriptor; 0, or the system error.
int Control(int operation, int descriptor, unsigned int events, unsigned int handle) {
    struct epoll_event event = {};
    event.events = events;
    event.data.u32 = handle;
    return epoll_ctl(gWatchSet, operation, descriptor, &event) == 0 ? 0 : errno;
}

/// Adds or changes; the set may not know what the record says: its descriptor was closed by somebody else, and the
/// number is another file's by now.
int AddOrChange(const SOCKET_INSTANCE* pSocket, unsigned int events) {
    const int descriptor = static_cast<int>(pSocket->socket);
    const bool bKnown = pSocket->watched != 0;
    const int error = Control(bKnown ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor, events, pSocket->handle);
    if (error == ENOENT || error == EEXIST) {
        return Control(bKnown ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, descriptor, events, pSocket->handle);
    }
    return error;
}

} // namespace

bool OpenWatchSetLocked() {
    if (gWatchSet < 0) {
        gWatchSet = epoll_create1(EPOLL_CLOEXEC);
    }
    if (gWatchSet >= 0 && BrkrSocket >= 0) {
        Control(EPOLL_CTL_ADD, BrkrSocket, EPOLLIN, 0);
    }
    return gWatchSet >= 0;
}

void CloseWatchSet() {
    if (gWatchSet >= 0) {
        close(gWatchSet);
        gWatchSet = -1;
    }
}

bool LoseDeadWatchSetLocked() {
    if (gWatchSet >= 0 && (fcntl(gWatchSet, F_GETFD) >= 0 || errno != EBADF)) {
        return false;
    }
    gWatchSet = -1;
    return true;
}

int WatchLocked(SOCKET_INSTANCE* pSocket, unsigned int events) {
    if (events == pSocket->watched) {
        return 0;
    }
    if (events == 0) {
        UnwatchLocked(pSocket);
        return 0;
    }
    const int error = AddOrChange(pSocket, events);
    if (error == 0) {
        pSocket->watched = events;
    }
    return error;
}

void UnwatchLocked(SOCKET_INSTANCE* pSocket) {
    if (pSocket->watched != 0) {
        // Also right before it is closed: a child process may have the descriptor open, too, and keep it in the set.
        Control(EPOLL_CTL_DEL, static_cast<int>(pSocket->socket), 0, 0);
        pSocket->watched = 0;
    }
}

int WaitForWatched(struct epoll_event* pEvents, int most, unsigned int ms) {
    if (gWatchSet < 0) {
        poll(nullptr, 0, kWithoutSetMs);
        return -EBADF;
    }
    const int ready = epoll_wait(gWatchSet, pEvents, most, static_cast<int>(ms));
    return ready < 0 ? -errno : ready;
}
