/// @file Faults.h
/// Lets one call of the C library, made by the library under test, fail: the first, the k-th, or all from the k-th on.
///
/// The program is linked so that its calls of these functions come to the wrappers of Faults.cpp (the linker's --wrap);
/// the C library's own calls among themselves do not. Everything is counted over all threads. What a test does for
/// itself (the other end of a connection, reading a file) it does inside an Exempt scope, which is neither counted nor
/// made to fail.
#ifndef FAULTS_H
#define FAULTS_H

#include <stddef.h>

namespace faults {

/// Taking memory comes first: from the heap or, with pools, a slot of a pool. The rest are system calls, and what the C
/// library builds on them.
enum class Call : unsigned int {
    kMemory,
    kSocket,
    kBind,
    kListen,
    kAccept,
    kConnect,
    kSend,
    kSendTo,
    kRecv,
    kRecvFrom,
    kWatchSet,
    kWatch,
    kWatchWait,
    kFcntl,
    kIoctl,
    kSetSockOpt,
    kGetSockOpt,
    kGetSockName,
    kGetPeerName,
    kShutdown,
    kClose,
    kIfNameIndex,
    kThreadCreate,
    kAttributeInit,
    kStackSize,
    kMutexInit,
    kConditionInit,
    kOpenStream,
    kDescriptorStream,
    kReadStream,
    kGetLine,
    kWriteStream,
    kPutText,
    kGetCharacter,
    kFlush,
    kCloseStream,
    kSeek,
    kTell,
    kOpen,
    kWrite,
    kUnlink,
    kMakeDirectory,
    kChangeMode,
    kChangeDirectory,
    kOpenDirectory,
    kReadDirectory,
    kWorkingDirectory,
    kVolume,
    kFork,
    kShell,
    kWaitChild,
    kLoad,
    kHostByName,
    kHostByAddress,
    kHostName,
    kClock,
    kSleep,
    kCount ///< how many there are
};

constexpr size_t kCalls = static_cast<size_t>(Call::kCount);

/// In place of an error number: the call does a part of what was asked, a short read or write.
constexpr int kShort = -1;

/// One fault.
struct Fault {
    Call call;
    unsigned int first; ///< the call that fails, from 1, counted from Arm() on; 0: none, calls are only counted
    bool bOnwards;      ///< and all that follow
    int error;          ///< errno, or kShort; of no meaning for memory
};

void Arm(const Fault& fault);
void Disarm();

/// How often a call was made since Arm().
unsigned int Made(Call call);
/// Whether the fault has struck since Arm(); always where nothing but the cap makes requests fail.
bool HasStruck();

/// Blocks that the library took from the heap and has not given back.
long HeapBlocks();

/// The calling thread's calls are neither counted nor made to fail while one lives.
class Exempt {
public:
    Exempt();
    ~Exempt();
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
};

/// A call's name, and the ways in which it may fail.
struct CallRow {
    Call call;
    const char* pszName;
    int errors[9]; ///< ended by 0
};

/// Every row stands at the place that its call says.
extern const CallRow kCallRows[kCalls];

/// An error number, or kShort, as the messages of the tests show it.
const char* ErrorName(int error);

} // namespace faults

#endif // FAULTS_H
