#include "Faults.h"

#include <algorithm>
#include <atomic>
#include <dirent.h>
#include <errno.h>
#include <net/if.h>
#include <netdb.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace faults {

constexpr CallRow kCallRows[kCalls] = {
    {Call::kMemory, "memory", {ENOMEM}},
    {Call::kSocket, "socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES}},
    {Call::kBind, "bind", {EADDRINUSE, EACCES, ENOBUFS}},
    {Call::kListen, "listen", {EADDRINUSE}},
    {Call::kAccept, "accept", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EINTR, EAGAIN, ECONNABORTED, EPERM}},
    {Call::kConnect, "connect", {ECONNREFUSED, ENETUNREACH, EINTR, EAGAIN, ENOBUFS}},
    {Call::kSend, "send", {EAGAIN, EINTR, ENOBUFS, ECONNRESET, EPIPE, EIO, kShort}},
    {Call::kSendTo, "sendto", {EAGAIN, EINTR, ENOBUFS, ENETUNREACH, EIO}},
    {Call::kRecv, "recv", {EAGAIN, EINTR, ECONNRESET, EIO, ENOMEM, kShort}},
    {Call::kRecvFrom, "recvfrom", {EAGAIN, EINTR, ECONNREFUSED, ENOMEM, EIO}},
    {Call::kWatchSet, "epoll_create1", {EMFILE, ENFILE, ENOMEM}},
    {Call::kWatch, "epoll_ctl", {ENOMEM, ENOSPC}},
    {Call::kWatchWait, "epoll_wait", {EINTR, EBADF}},
    {Call::kFcntl, "fcntl", {EINTR, EBADF}},
    {Call::kIoctl, "ioctl", {ENODEV, EINTR}},
    {Call::kSetSockOpt, "setsockopt", {ENOBUFS, ENOPROTOOPT}},
    {Call::kGetSockOpt, "getsockopt", {ENOBUFS}},
    {Call::kGetSockName, "getsockname", {ENOBUFS}},
    {Call::kGetPeerName, "getpeername", {ENOBUFS, ENOTCONN}},
    {Call::kShutdown, "shutdown", {ENOTCONN}},
    {Call::kClose, "close", {EIO, EINTR}},
    {Call::kIfNameIndex, "if_nameindex", {ENOBUFS, EMFILE}},
    {Call::kThreadCreate, "pthread_create", {EAGAIN, EPERM}},
    {Call::kAttributeInit, "pthread_attr_init", {ENOMEM}},
    {Call::kStackSize, "pthread_attr_setstacksize", {EINVAL}},
    {Call::kMutexInit, "pthread_mutex_init", {EAGAIN, ENOMEM}},
    {Call::kConditionInit, "pthread_cond_init", {EAGAIN, ENOMEM}},
    {Call::kOpenStream, "fopen", {EMFILE, ENFILE, EACCES, EIO, ENOSPC, EINTR, ENOMEM}},
    {Call::kDescriptorStream, "fdopen", {ENOMEM, EMFILE}},
    {Call::kReadStream, "fread", {EIO, EINTR, kShort}},
    {Call::kGetLine, "fgets", {EIO, EINTR}},
    {Call::kWriteStream, "fwrite", {ENOSPC, EIO, EINTR, kShort}},
    {Call::kPutText, "fputs", {ENOSPC, EIO}},
    {Call::kGetCharacter, "fgetc", {EIO}},
    {Call::kFlush, "fflush", {ENOSPC, EIO, EINTR}},
    {Call::kCloseStream, "fclose", {ENOSPC, EIO}},
    {Call::kSeek, "fseeko", {EIO}},
    {Call::kTell, "ftello", {EIO}},
    {Call::kOpen, "open", {EMFILE, ENFILE, EACCES, EINTR, ENOSPC}},
    {Call::kWrite, "write", {ENOSPC, EIO, EINTR, EAGAIN, kShort}},
    {Call::kUnlink, "unlink", {EACCES, EIO}},
    {Call::kMakeDirectory, "mkdir", {ENOSPC, EACCES}},
    {Call::kChangeMode, "chmod", {EPERM}},
    {Call::kChangeDirectory, "chdir", {EACCES}},
    {Call::kOpenDirectory, "opendir", {EMFILE, ENOMEM}},
    {Call::kReadDirectory, "readdir", {EIO}},
    {Call::kWorkingDirectory, "getcwd", {ENOENT}},
    {Call::kVolume, "statvfs", {EIO, EINTR}},
    {Call::kFork, "fork", {EAGAIN, ENOMEM}},
    {Call::kShell, "system", {EAGAIN}},
    {Call::kWaitChild, "waitpid", {EINTR, ECHILD}},
    {Call::kLoad, "dlopen", {ENOMEM}},
    {Call::kHostByName, "gethostbyname_r", {EAGAIN, ENOMEM}},
    {Call::kHostByAddress, "gethostbyaddr_r", {EAGAIN}},
    {Call::kHostName, "gethostname", {EINVAL}},
    {Call::kClock, "gettimeofday", {EFAULT}},
    {Call::kSleep, "nanosleep", {EINTR}},
};

namespace {

constexpr bool AllRowsAtTheirPlaces() {
    for (size_t i = 0; i < kCalls; ++i) {
        if (kCallRows[i].call != static_cast<Call>(i)) {
            return false;
        }
    }
    return true;
}

static_assert(AllRowsAtTheirPlaces(), "the table of calls is indexed by the call");

std::atomic<bool> gbArmed{false};
std::atomic<unsigned int> gCall{0};
std::atomic<unsigned int> gFirst{0};
std::atomic<bool> gbOnwards{false};
std::atomic<int> gError{0};
std::atomic<unsigned int> gStruck{0};

/// An interrupted call is tried again, for as long as it takes: a storm of signals ends.
constexpr unsigned int kMostInterruptions = 50;
std::atomic<unsigned int> gMade[kCalls];
std::atomic<long> gHeapBlocks{0};

thread_local unsigned int tExempt __attribute__((tls_model("initial-exec"))) = 0;

/// Counts a call and says whether it is to fail.
bool Strikes(Call call) {
    if (!gbArmed.load(std::memory_order_acquire) || tExempt != 0) {
        return false;
    }
    const unsigned int number = ++gMade[static_cast<size_t>(call)];
    const unsigned int first = gFirst;
    if (gCall != static_cast<unsigned int>(call) || first == 0 || number < first || (number != first && !gbOnwards)) {
        return false;
    }
    if (++gStruck > kMostInterruptions && gError == EINTR) {
        return false;
    }
    errno = gError > 0 ? gError.load() : EIO;
    return true;
}

bool IsShort() {
    return gError == kShort;
}

/// The same for a stream, which then says so when it is asked.
bool Strikes(Call call, FILE* hFile) {
    const bool bStrikes = Strikes(call);
    if (bStrikes && hFile && gError != kShort) {
        hFile->_flags |= 0x20; // the C library's mark of an error
    }
    return bStrikes;
}

/// A part of what was asked for; one byte at least, so that it is no end of the data.
size_t Part(size_t bytes) {
    return bytes > 1 ? bytes / 2 : bytes;
}

} // namespace

void Arm(const Fault& fault) {
    Disarm();
    for (std::atomic<unsigned int>& made : gMade) {
        made = 0;
    }
    gStruck = 0;
    gCall = static_cast<unsigned int>(fault.call);
    gFirst = fault.first;
    gbOnwards = fault.bOnwards;
    gError = fault.error;
    gbArmed.store(true, std::memory_order_release);
}

void Disarm() {
    gbArmed.store(false, std::memory_order_release);
}

unsigned int Made(Call call) {
    return gMade[static_cast<size_t>(call)];
}

bool HasStruck() {
    return gFirst == 0 || gStruck != 0;
}

long HeapBlocks() {
    return gHeapBlocks;
}

Exempt::Exempt() {
    ++tExempt;
}

Exempt::~Exempt() {
    --tExempt;
}

const char* ErrorName(int error) {
    return error == kShort ? "short" : strerrorname_np(error);
}

} // namespace faults

// The wrappers. In the 32-bit width the calls that deal in times and file offsets go by the names of their 64-bit
// forms; the list of both stands in CMakeLists.txt as well.
#if __SIZEOF_POINTER__ == 4
#define WRAP(name32, name64) __wrap_##name32
#define REAL(name32, name64) __real_##name32
#else
#define WRAP(name32, name64) __wrap_##name64
#define REAL(name32, name64) __real_##name64
#endif

using faults::Call;
using faults::IsShort;
using faults::Part;
using faults::Strikes;

// A call with a plain result: its type, name, parameters, arguments, and what it gives when it fails.
#define PLAIN_WRAPPER(type, name, parameters, arguments, call, failure)                                                \
    type __real_##name parameters;                                                                                     \
    type __wrap_##name parameters {                                                                                    \
        return Strikes(Call::call) ? (failure) : __real_##name arguments;                                              \
    }
// The same for a call on a stream.
#define STREAM_WRAPPER(name, parameters, arguments, call)                                                              \
    int __real_##name parameters;                                                                                      \
    int __wrap_##name parameters {                                                                                     \
        return Strikes(Call::call, hFile) ? EOF : __real_##name arguments;                                             \
    }
// And for one that has a name in each width.
#define WIDTH_WRAPPER(type, name32, name64, parameters, arguments, call, failure)                                      \
    type REAL(name32, name64) parameters;                                                                              \
    type WRAP(name32, name64) parameters {                                                                             \
        return Strikes(Call::call) ? (failure) : REAL(name32, name64) arguments;                                       \
    }

extern "C" {

// Memory

void* __real_malloc(size_t bytes);
void* __real_calloc(size_t count, size_t bytes);
void* __real_realloc(void* pBlock, size_t bytes);
void __real_free(void* pBlock);
void* __real_tq_MemoryPoolMalloc(unsigned int size);

static void* CountBlock(void* pBlock) {
    if (pBlock) {
        ++faults::gHeapBlocks;
    }
    return pBlock;
}

void* __wrap_malloc(size_t bytes) {
    return Strikes(Call::kMemory) ? nullptr : CountBlock(__real_malloc(bytes));
}

void* __wrap_calloc(size_t count, size_t bytes) {
    return Strikes(Call::kMemory) ? nullptr : CountBlock(__real_calloc(count, bytes));
}

void* __wrap_realloc(void* pBlock, size_t bytes) {
    if (Strikes(Call::kMemory)) {
        return nullptr;
    }
    void* const pResized = __real_realloc(pBlock, bytes);
    return pBlock ? pResized : CountBlock(pResized);
}

void __wrap_free(void* pBlock) {
    if (pBlock) {
        --faults::gHeapBlocks;
    }
    __real_free(pBlock);
}

void* __wrap_tq_MemoryPoolMalloc(unsigned int size) {
    return Strikes(Call::kMemory) ? nullptr : __real_tq_MemoryPoolMalloc(size);
}

// Sockets

PLAIN_WRAPPER(int, socket, (int family, int type, int protocol), (family, type, protocol), kSocket, -1)
PLAIN_WRAPPER(int, bind, (int fd, const struct sockaddr* pAddress, socklen_t bytes), (fd, pAddress, bytes), kBind, -1)
PLAIN_WRAPPER(int, listen, (int fd, int backlog), (fd, backlog), kListen, -1)
PLAIN_WRAPPER(int, accept4, (int fd, struct sockaddr* pAddress, socklen_t* pBytes, int flags),
              (fd, pAddress, pBytes, flags), kAccept, -1)
PLAIN_WRAPPER(int, connect, (int fd, const struct sockaddr* pAddress, socklen_t bytes), (fd, pAddress, bytes), kConnect,
              -1)
PLAIN_WRAPPER(int, getsockname, (int fd, struct sockaddr* pAddress, socklen_t* pBytes), (fd, pAddress, pBytes),
              kGetSockName, -1)
PLAIN_WRAPPER(int, getpeername, (int fd, struct sockaddr* pAddress, socklen_t* pBytes), (fd, pAddress, pBytes),
              kGetPeerName, -1)
PLAIN_WRAPPER(int, shutdown, (int fd, int how), (fd, how), kShutdown, -1)
PLAIN_WRAPPER(struct if_nameindex*, if_nameindex, (void), (), kIfNameIndex, nullptr)
PLAIN_WRAPPER(int, epoll_create1, (int flags), (flags), kWatchSet, -1)
PLAIN_WRAPPER(int, epoll_ctl, (int set, int operation, int fd, struct epoll_event* pEvent),
              (set, operation, fd, pEvent), kWatch, -1)
PLAIN_WRAPPER(int, epoll_wait, (int set, struct epoll_event* pEvents, int most, int timeoutMs),
              (set, pEvents, most, timeoutMs), kWatchWait, -1)
WIDTH_WRAPPER(int, __setsockopt64, setsockopt, (int fd, int level, int name, const void* pValue, socklen_t bytes),
              (fd, level, name, pValue, bytes), kSetSockOpt, -1)
WIDTH_WRAPPER(int, __getsockopt64, getsockopt, (int fd, int level, int name, void* pValue, socklen_t* pBytes),
              (fd, level, name, pValue, pBytes), kGetSockOpt, -1)
// Both are given one argument of the size of a word.
WIDTH_WRAPPER(int, __fcntl_time64, fcntl64, (int fd, int command, long argument), (fd, command, argument), kFcntl, -1)
WIDTH_WRAPPER(int, __ioctl_time64, ioctl, (int fd, unsigned long request, void* pArgument), (fd, request, pArgument),
              kIoctl, -1)

ssize_t __real_send(int fd, const void* pBytes, size_t count, int flags);
ssize_t __wrap_send(int fd, const void* pBytes, size_t count, int flags) {
    if (!Strikes(Call::kSend)) {
        return __real_send(fd, pBytes, count, flags);
    }
    return IsShort() ? __real_send(fd, pBytes, Part(count), flags) : -1;
}

PLAIN_WRAPPER(ssize_t, sendto,
              (int fd, const void* pBytes, size_t count, int flags, const struct sockaddr* pTo, socklen_t bytes),
              (fd, pBytes, count, flags, pTo, bytes), kSendTo, -1)

ssize_t __real_recv(int fd, void* pBytes, size_t count, int flags);
ssize_t __wrap_recv(int fd, void* pBytes, size_t count, int flags) {
    if (!Strikes(Call::kRecv)) {
        return __real_recv(fd, pBytes, count, flags);
    }
    return IsShort() ? __real_recv(fd, pBytes, std::min<size_t>(count, 1), flags) : -1;
}

PLAIN_WRAPPER(ssize_t, recvfrom,
              (int fd, void* pBytes, size_t count, int flags, struct sockaddr* pFrom, socklen_t* pLength),
              (fd, pBytes, count, flags, pFrom, pLength), kRecvFrom, -1)

// As the system does it: the descriptor is gone although the call fails.
int __real_close(int fd);
int __wrap_close(int fd) {
    const bool bStrikes = Strikes(Call::kClose);
    const int error = errno;
    const int result = __real_close(fd);
    if (bStrikes) {
        errno = error;
    }
    return bStrikes ? -1 : result;
}

// Threads: these give the error itself.

PLAIN_WRAPPER(int, pthread_create,
              (pthread_t * pThread, const pthread_attr_t* pAttributes, void* (*pfnStart)(void*), void* pArgument),
              (pThread, pAttributes, pfnStart, pArgument), kThreadCreate, errno)
PLAIN_WRAPPER(int, pthread_attr_init, (pthread_attr_t * pAttributes), (pAttributes), kAttributeInit, errno)
PLAIN_WRAPPER(int, pthread_attr_setstacksize, (pthread_attr_t * pAttributes, size_t bytes), (pAttributes, bytes),
              kStackSize, errno)
PLAIN_WRAPPER(int, pthread_mutex_init, (pthread_mutex_t * pMutex, const pthread_mutexattr_t* pAttributes),
              (pMutex, pAttributes), kMutexInit, errno)
PLAIN_WRAPPER(int, pthread_cond_init, (pthread_cond_t * pCondition, const pthread_condattr_t* pAttributes),
              (pCondition, pAttributes), kConditionInit, errno)

// Files

PLAIN_WRAPPER(FILE*, fopen64, (const char* pszPath, const char* pszMode), (pszPath, pszMode), kOpenStream, nullptr)
PLAIN_WRAPPER(FILE*, fdopen, (int fd, const char* pszMode), (fd, pszMode), kDescriptorStream, nullptr)
STREAM_WRAPPER(fputs, (const char* pszText, FILE* hFile), (pszText, hFile), kPutText)
STREAM_WRAPPER(fgetc, (FILE * hFile), (hFile), kGetCharacter)
STREAM_WRAPPER(getc, (FILE * hFile), (hFile), kGetCharacter)
STREAM_WRAPPER(fflush, (FILE * hFile), (hFile), kFlush)
PLAIN_WRAPPER(int, fseeko64, (FILE * hFile, off64_t offset, int whence), (hFile, offset, whence), kSeek, -1)
PLAIN_WRAPPER(off64_t, ftello64, (FILE * hFile), (hFile), kTell, -1)
PLAIN_WRAPPER(int, open64, (const char* pszPath, int flags, unsigned int mode), (pszPath, flags, mode), kOpen, -1)
PLAIN_WRAPPER(int, unlink, (const char* pszPath), (pszPath), kUnlink, -1)
PLAIN_WRAPPER(int, mkdir, (const char* pszPath, mode_t mode), (pszPath, mode), kMakeDirectory, -1)
PLAIN_WRAPPER(int, chmod, (const char* pszPath, mode_t mode), (pszPath, mode), kChangeMode, -1)
PLAIN_WRAPPER(int, chdir, (const char* pszPath), (pszPath), kChangeDirectory, -1)
PLAIN_WRAPPER(DIR*, opendir, (const char* pszPath), (pszPath), kOpenDirectory, nullptr)
PLAIN_WRAPPER(struct dirent64*, readdir64, (DIR * pDirectory), (pDirectory), kReadDirectory, nullptr)
PLAIN_WRAPPER(char*, getcwd, (char* pszPath, size_t bytes), (pszPath, bytes), kWorkingDirectory, nullptr)
PLAIN_WRAPPER(int, statvfs64, (const char* pszPath, struct statvfs64* pInfo), (pszPath, pInfo), kVolume, -1)

size_t __real_fread(void* pBytes, size_t size, size_t count, FILE* hFile);
size_t __wrap_fread(void* pBytes, size_t size, size_t count, FILE* hFile) {
    if (!Strikes(Call::kReadStream, hFile)) {
        return __real_fread(pBytes, size, count, hFile);
    }
    return IsShort() ? __real_fread(pBytes, size, Part(count), hFile) : 0;
}

char* __real_fgets(char* pszLine, int bytes, FILE* hFile);
char* __wrap_fgets(char* pszLine, int bytes, FILE* hFile) {
    return Strikes(Call::kGetLine, hFile) ? nullptr : __real_fgets(pszLine, bytes, hFile);
}

size_t __real_fwrite(const void* pBytes, size_t size, size_t count, FILE* hFile);
size_t __wrap_fwrite(const void* pBytes, size_t size, size_t count, FILE* hFile) {
    if (!Strikes(Call::kWriteStream, hFile)) {
        return __real_fwrite(pBytes, size, count, hFile);
    }
    return IsShort() ? __real_fwrite(pBytes, size, Part(count), hFile) : 0;
}

ssize_t __real_write(int fd, const void* pBytes, size_t count);
ssize_t __wrap_write(int fd, const void* pBytes, size_t count) {
    if (!Strikes(Call::kWrite)) {
        return __real_write(fd, pBytes, count);
    }
    return IsShort() ? __real_write(fd, pBytes, Part(count)) : -1;
}

// The stream is gone although the call fails.
int __real_fclose(FILE* hFile);
int __wrap_fclose(FILE* hFile) {
    const bool bStrikes = Strikes(Call::kCloseStream);
    const int error = errno;
    const int result = __real_fclose(hFile);
    if (bStrikes) {
        errno = error;
    }
    return bStrikes ? EOF : result;
}

// Processes. A wrapper cannot return from vfork() in the child, since the parent goes on in the same frame: a child
// with memory of its own does.

pid_t __wrap_vfork(void) {
    return Strikes(Call::kFork) ? -1 : fork();
}

PLAIN_WRAPPER(int, system, (const char* pszCommand), (pszCommand), kShell, -1)
PLAIN_WRAPPER(pid_t, waitpid, (pid_t child, int* pStatus, int options), (child, pStatus, options), kWaitChild, -1)
PLAIN_WRAPPER(void*, dlopen, (const char* pszFile, int mode), (pszFile, mode), kLoad, nullptr)

// Names and times

int __real_gethostbyname_r(const char* pszName, struct hostent* pHost, char* pWork, size_t bytes,
                           struct hostent** ppResult, int* pError);
int __wrap_gethostbyname_r(const char* pszName, struct hostent* pHost, char* pWork, size_t bytes,
                           struct hostent** ppResult, int* pError) {
    if (!Strikes(Call::kHostByName)) {
        return __real_gethostbyname_r(pszName, pHost, pWork, bytes, ppResult, pError);
    }
    *ppResult = nullptr;
    *pError = TRY_AGAIN;
    return errno;
}

int __real_gethostbyaddr_r(const void* pAddress, socklen_t addressBytes, int type, struct hostent* pHost, char* pWork,
                           size_t bytes, struct hostent** ppResult, int* pError);
int __wrap_gethostbyaddr_r(const void* pAddress, socklen_t addressBytes, int type, struct hostent* pHost, char* pWork,
                           size_t bytes, struct hostent** ppResult, int* pError) {
    if (!Strikes(Call::kHostByAddress)) {
        return __real_gethostbyaddr_r(pAddress, addressBytes, type, pHost, pWork, bytes, ppResult, pError);
    }
    *ppResult = nullptr;
    *pError = TRY_AGAIN;
    return errno;
}

PLAIN_WRAPPER(int, gethostname, (char* pszName, size_t bytes), (pszName, bytes), kHostName, -1)
WIDTH_WRAPPER(int, __gettimeofday64, gettimeofday, (struct timeval * pNow, void* pZone), (pNow, pZone), kClock, -1)
WIDTH_WRAPPER(int, __nanosleep64, nanosleep, (const struct timespec* pTime, struct timespec* pLeft), (pTime, pLeft),
              kSleep, -1)

} // extern "C"
