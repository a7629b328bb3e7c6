/// @file tqos.h
/// The whole library in one header, and its start and stop.
///
/// An application calls tqOS_Initialize() once at start, builds its logic from message queues (tq_MsgQ.h) whose worker
/// threads receive timer expiries and socket events as messages, and calls tqOS_Terminate() on its way out. Components
/// of one process may each do so: the calls are counted. All settings come from the file "tqos.ini" in the working
/// directory of the first tqOS_Initialize(); without it every setting has its default.
///
/// Threads: the lifecycle calls are made by one thread, before other threads use the library and after they have
/// stopped. A call into any subsystem that comes too early or too late finds "not running" and fails as its own
/// documentation says.
#ifndef TQOS_H
#define TQOS_H

#include <signal.h>

#include "tq_Base.h"
#include "tq_Dir.h"
#include "tq_Handle.h"
#include "tq_List.h"
#include "tq_Lzw.h"
#include "tq_Memory.h"
#include "tq_MsgQ.h"
#include "tq_Process.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex.h"
#include "tq_SemSemaphore.h"
#include "tq_Socket.h"
#include "tq_String.h"
#include "tq_Telnet.h"
#include "tq_Thread.h"
#include "tq_Time.h"
#include "tq_Timer.h"
#include "tq_Trace.h"
#include "tq_Types.h"

/// The version of the library that an application is compiled with, as MAJOR.MINOR.PATCH; also that of its packages. A
/// library with the same MAJOR serves what was built with a smaller or equal MINOR. tqOS_GetVersion() gives a banner
/// instead, which stays the same from version to version.
constexpr unsigned int TQOS_VERSION_MAJOR = 1;
constexpr unsigned int TQOS_VERSION_MINOR = 0; ///< see TQOS_VERSION_MAJOR
constexpr unsigned int TQOS_VERSION_PATCH = 0; ///< see TQOS_VERSION_MAJOR

extern "C" {

/// Starts the library, or counts a further user of the running one.
///
/// The first call ignores SIGPIPE, starts every subsystem, opens the library's own trace instance "tqos" and, unless
/// [SignalHandler] Disable in tqos.ini is affirmative, installs tqos_SignalHandler() for SIGILL, SIGSEGV, SIGABRT,
/// SIGFPE and SIGBUS and lets ended child processes vanish without being waited for (SIGCHLD with SA_NOCLDWAIT;
/// waitpid() for a child then fails with ECHILD once it has ended). It seeds rand() from the millisecond clock, also
/// when it fails.
/// @return 0 when the library runs; otherwise the code of the step that failed (1: no memory for one of the
///         library's own objects). Nothing is undone then and the call counts: answer it with tqOS_Terminate().
TQ_API unsigned int tqOS_Initialize();

/// Takes back one tqOS_Initialize(). The call that takes back the last one ends everything: it destroys every
/// registered queue (each handles MSG_DESTROY first), stops the library's threads and frees what the library holds.
/// A call too many is not turned away: it drives the count through 0 to a huge number, further ones then end nothing,
/// and as many calls of tqOS_Initialize() as were missing return 0 and start nothing.
/// @param bDumpResources   report what is still allocated on standard output (see tq_MemoryTerminate())
/// @param bWaitForThreads  wait until every thread started through tq__beginthread() has ended; false leaves running
///                         threads alone and forgets them
/// Not from a queue's handler, a timer or any other thread of the library.
TQ_API void tqOS_Terminate(bool bDumpResources, bool bWaitForThreads);

/// The version banner, a constant text. Any thread, at any time.
TQ_API const unsigned char* tqOS_GetVersion();

/// Milliseconds since the library started, modulo 2^32; 0 while it is not running. Any thread, at any time.
TQ_API unsigned int tqOS_uptime();

/// The crash reporter; installed by tqOS_Initialize(), not called by applications. Traces signal, reason, fault
/// address, threads and return addresses at level Critical, writes the symbolised backtrace to descriptor 1 and ends
/// the process with status 0, at the latest 5 seconds after the fault:
/// - A fault while it reports (a broken heap, for instance), or a report that hangs for 4 seconds (on a lock of another
///   thread, on a trace destination that nobody reads), ends the process with one line on descriptor 2 instead.
/// - Of threads that fault at the same time one is reported; one line on descriptor 2 says that there were others.
/// - The backtrace is cut where descriptor 1 takes no more for a second. Output that the application's own streams hold
///   is written, unless that takes longer than half a second.
///
/// The reporter needs some 4 KB of the faulting thread's stack; the report itself has a stack of its own. A stack
/// overflow cannot be reported: there is nothing left to start the reporter on, and the signal ends the process.
/// An application that wants a report even then gives each thread an alternate stack (sigaltstack()) and installs the
/// reporter for SIGSEGV again with SA_SIGINFO | SA_ONSTACK.
TQ_API void tqos_SignalHandler(int sig, siginfo_t* info, void* context);

} // extern "C"

#endif // TQOS_H
