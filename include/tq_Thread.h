/// @file tq_Thread.h
/// Threads that the library starts and keeps a record of, thread ids, and the tracked sleep.
///
/// An application starts its threads with tq_beginthread(), names them with tq_ThreadSetName(), and sees all of them in
/// tq_ShowThreads(). Threads are detached: nobody collects their results. A record is kept from a thread's start to its
/// end; tqOS_Terminate() can wait until all tracked threads have ended.
///
/// The setting "DefaultStackSize" (0) of section "Thread" of tqos.ini is the stack size in bytes of threads started
/// with a stack size of 0; 0 leaves the system's default.
///
/// Threads: any thread may call any of these functions at any time, but for tq_ThreadInitialize() and
/// tq_ThreadTerminate(), which the library calls itself. While the library is not initialised there are no records:
/// threads then start untracked, and what works on records does nothing.
#ifndef TQ_THREAD_H
#define TQ_THREAD_H

#include "tq_Types.h"

/// Priorities of tq__beginthread(): they become nice values of the thread.
enum {
    TQ_THREAD_PRIORITY_LOW = -1,   ///< nice 10
    TQ_THREAD_PRIORITY_NORMAL = 0, ///< unchanged; any value that is not named here counts as normal
    TQ_THREAD_PRIORITY_HIGH = 1    ///< nice -10, where the process is allowed to
};

extern "C" {

/// A thread's function: gets the argument that was given at its start; its result is not collected.
typedef void* (*PFN_THREAD)(void*);

/// Reads the settings and makes the thread list; called by the library's start. The calling thread is shown first in
/// reports.
/// @return 0 always
TQ_API unsigned int tq_ThreadInitialize();

/// Discards all records; called by the library's termination.
/// @param bWaitForThreads  true: first waits until every tracked thread has ended, but for the calling one
TQ_API void tq_ThreadTerminate(bool bWaitForThreads);

/// Starts a detached thread that runs start_address(arglist).
/// @param stack_size     bytes; 0 takes the configured default. A size that the system refuses as too small gives its
///                       default instead; one that it cannot provide is a failure.
/// @param start_address  the thread's function
/// @param arglist        its argument
/// @param thrdaddr       receives the new thread's id before its function runs, or 0 when the system does not start it;
///                       left alone when there is no memory to start it; may be null
/// @param priority       TQ_THREAD_PRIORITY_...
/// @param pszFilename    the caller's source file; copied; the thread's name until it is given another one
/// @param line           the caller's source line
/// @return the id, as stored in *thrdaddr; 0 when the thread could not be started, by lack of memory or by the system.
///         Without memory for its record alone the thread runs untracked.
TQ_API unsigned long tq__beginthread(unsigned int stack_size, PFN_THREAD start_address, void* arglist,
                                     unsigned int* thrdaddr, int priority, const char* pszFilename, unsigned int line);

/// Ends the calling thread, however deep in its function it is. Its record comes off as at any other end.
/// @param retval  not collected by anybody
TQ_API void tq_endthread(unsigned int retval) __attribute__((noreturn));

/// The calling thread's id: never 0, and unique among the threads that the process has at the time. The id by which the
/// whole library tells threads apart, and the one that tq__beginthread() gives.
TQ_API unsigned int tq_GetThreadId();

/// The calling thread's id in the kernel, as process tools show it.
TQ_API unsigned int tq_GetPSThreadId();

/// Gives a tracked thread a name for reports; an id without a record changes nothing.
/// @param tid      the thread's id
/// @param pszName  copied; null counts as empty. Empty names, and those that there was no memory for, are shown as
///                 "Unknown"; of a name of more than 40 characters the last 40 are shown.
TQ_API void tq_ThreadSetName(unsigned int tid, const char* pszName);

/// Gets a tracked thread's name.
/// @param pszName  receives the name: padded with zeros to len - 1 characters when it is shorter than that, else its
///                 first len - 1 characters, NOT ended by a zero (put one in the buffer's last character before).
///                 Empty without a record or a name; untouched while there are no records at all.
/// @param len      size of the buffer; 0 does nothing
/// @param tid      the thread's id; 0 means the calling thread
TQ_API void tq_ThreadGetName(char* pszName, unsigned int len, unsigned int tid);

/// Stores the calling thread's kernel id in its record; done for every thread at its start.
TQ_API void tq_ThreadSetPSIdForTracking();

/// Takes a thread's record off, before the thread ends; an id without a record changes nothing. Termination then does
/// not wait for the thread.
TQ_API void tq_RemoveThreadFromTracking(unsigned int tid);

/// Sleeps, listed among the tracked waits meanwhile.
/// @param msTime       milliseconds; 0 only yields the processor. A signal ends the sleep early.
/// @param uiLine       the caller's source line
/// @param pszFilename  the caller's source file; copied; may be null
TQ_API void tq__Sleep(unsigned int msTime, unsigned int uiLine, const char* pszFilename);

/// Reports all tracked threads in order of their start, after the thread that initialised the library.
/// @param pszResponse  receives the report, which the caller frees with tq_free(), or the text "No Threads currently
///                     tracked..."; null without memory and while the library is not initialised
TQ_API void tq_ShowThreads(char** pszResponse);

} // extern "C"

/// tq__beginthread() with the line and file of the call itself.
#define tq_beginthread(stack_size, start_address, arglist, thrdaddr, priority)                                         \
    tq__beginthread((stack_size), (start_address), (arglist), (thrdaddr), (priority), __FILE__, __LINE__)
/// tq__Sleep() with the line and file of the call itself.
#define tq_Sleep(msTime) tq__Sleep((msTime), __LINE__, __FILE__)

#endif // TQ_THREAD_H
