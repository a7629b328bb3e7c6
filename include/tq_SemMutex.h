/// @file tq_SemMutex.h
/// Re-entrant mutexes with time-outs, and the record of which thread waits for or holds which lock.
///
/// An application makes a tq_SemMutex for state that several of its threads share, takes it with WaitForMutex() or
/// WaitForMutexWithTimeout(), and gives it back with Release() as often as it took it. Where a time-out is not needed,
/// tq_SemCritSec is the lighter choice.
///
/// Every wait of the library (mutexes, critical sections, semaphores, events, sleeps) can be tracked: with tracking on,
/// tq_ShowSemaphores() lists each of them with its thread and the source line that waits. The settings, section "Sem"
/// of tqos.ini: "Tracking" (no) switches tracking on from the start; "UseMutexForCritSec" (yes) builds critical
/// sections on tq_SemMutex; "ForceSchedYield" (no) yields the processor after every release.
///
/// Threads: everything here may be called from any thread at any time, also before the library is initialised and after
/// it is terminated, but for tq_SemMutexInitialize() and tq_SemMutexTerminate(), which the library calls itself.
#ifndef TQ_SEMMUTEX_H
#define TQ_SEMMUTEX_H

#include "tq_Types.h"

/// What kind of wait a tracking record tells of.
enum {
    SEM_TRACK_TYPE_MUTEX = 1,     ///< a tq_SemMutex, or a critical section built on one; shown as "Mutex"
    SEM_TRACK_TYPE_CRITSEC = 2,   ///< a critical section built on a plain mutex; shown as "CrSec"
    SEM_TRACK_TYPE_EVENT = 3,     ///< a tq_SemEvent; shown as "Event"
    SEM_TRACK_TYPE_SEMAPHORE = 4, ///< a tq_SemSemaphore; shown as "Sema "
    SEM_TRACK_TYPE_SLEEP = 5      ///< a tq_Sleep(); shown as "Sleep"
};

/// How far the wait of a tracking record has come.
enum {
    SEM_TRACK_STATE_WAITING = 1, ///< the thread waits; shown as "Waiting"
    SEM_TRACK_STATE_OWNED = 2,   ///< the thread holds the lock, or has given up waiting for a mutex; shown as " Owned "
    SEM_TRACK_STATE_RELEASED = 3 ///< ends the record; no record in the list has this state
};

/// One tracking record. The records belong to the library; read them only between LockSemList() and unLockSemList().
typedef struct _SemListNode {
    unsigned int ThreadId;      ///< tq_GetThreadId() of the thread that waits or owns
    void* Sem;                  ///< identity of the lock; for a sleep, the thread's id
    unsigned int Line;          ///< the caller's source line
    unsigned int State;         ///< SEM_TRACK_STATE_...
    unsigned int Type;          ///< SEM_TRACK_TYPE_...
    char* pszFile;              ///< copy of the caller's source file name; null when it passed none
    struct _SemListNode* pNext; ///< the next older record; null: none
} SemListNode;

/// A mutex that its owner may take again, with waits that can be limited in time.
///
/// It is free, or owned by one thread with a count. A thread that finds it free takes it at once, also when others
/// wait: there is no order among waiters. A thread that ends while it owns the mutex leaves it owned.
///
/// The object may be destroyed by the thread that has just taken it, while the thread before it is still on its way out
/// of Release(). Destroying it does not wake threads that wait for it: see to it that there are none.
class TQ_API tq_SemMutex {
public:
    /// Makes a free mutex. Without memory every operation on it fails.
    /// @param bCritSec  true when it serves a critical section that was asked to be non-recursive; its owner may take
    ///                  it again all the same
    explicit tq_SemMutex(bool bCritSec);
    ~tq_SemMutex();
    tq_SemMutex(const tq_SemMutex&) = delete;
    tq_SemMutex& operator=(const tq_SemMutex&) = delete;

    /// Takes the mutex, waiting while another thread owns it. To be released as often as it was taken. A thread that
    /// waits cannot be cancelled.
    /// @param msTimeOut    milliseconds of waiting at most; 0 does not wait; -1 waits for ever; below -1 counts as
    ///                     expired, as 0 does. The end of the wait is an instant of the wall clock, so setting the
    ///                     system clock shortens or lengthens it.
    /// @param uiLine       the caller's source line, for tracking
    /// @param pszFilename  the caller's source file, for tracking; copied; may be null
    /// @return 1 the caller owns the mutex; 0 the time is up, the clock could not be read, or the mutex could not be
    ///         made
    ///
    /// With tracking on, a wait that timed out is listed as owned until its thread next calls Release() on the mutex.
    BOOL _WaitForMutexWithTimeout(int msTimeOut, unsigned int uiLine, const char* pszFilename);

    /// Takes the mutex, waiting for ever; otherwise as _WaitForMutexWithTimeout().
    /// @return 1 the caller owns the mutex; 0 the mutex could not be made
    BOOL _WaitForMutex(unsigned int uiLine, const char* pszFilename);

    /// Gives up one level of ownership; the last one frees the mutex and wakes one of the threads that wait for it.
    /// Called by a thread that does not own the mutex it changes nothing but that thread's tracking record.
    /// @return 1 always, also to a thread that does not own it; 0 when the mutex could not be made
    BOOL Release();

    /// _WaitForMutexWithTimeout() with the line and file of the call itself.
    BOOL WaitForMutexWithTimeout(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE,
                                 const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForMutexWithTimeout(msTimeOut, uiLine, pszFilename);
    }
    /// _WaitForMutex() with the line and file of the call itself.
    BOOL WaitForMutex(unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForMutex(uiLine, pszFilename);
    }

private:
    friend struct tq_SemInside; // the library's own look at what could be made

    void* m_hMutex;
    bool m_bCritSec __attribute__((unused)); // any owner may take it again
};

extern "C" {

/// Tells the tracking list of a step of a wait; does nothing while tracking is off. The library's own waits call it; a
/// lock of the application's own may do so too, each with an identity of its own.
/// @param sem          identity of the lock; ignored for a sleep, which goes by the thread's id
/// @param type         SEM_TRACK_TYPE_..., stored as given and used by the waiting step only
/// @param state        SEM_TRACK_STATE_WAITING adds a record for the calling thread; SEM_TRACK_STATE_OWNED turns this
///                     thread's newest record of the lock into an owned one and makes it the newest of all;
///                     SEM_TRACK_STATE_RELEASED removes it. Without such a record the last two do nothing, and so does
///                     any other state. Where memory is refused for a record, none is made.
/// @param uiLine       the caller's source line; used by the waiting step only
/// @param pszFilename  the caller's source file; copied; may be null; used by the waiting step only
TQ_API void TrackSemaphore(void* sem, int type, int state, unsigned int uiLine, const char* pszFilename);

/// Locks the tracking list; may be taken again by its owner. Nothing that waits, allocates or frees may be called
/// before unLockSemList().
TQ_API void LockSemList();
/// Leaves the tracking list's lock. To be called once for each LockSemList(), by the same thread.
TQ_API void unLockSemList();

/// Prepares a row of the report; a null record changes nothing.
/// @param pNode    the record
/// @param pState   receives the text of its state ("Unknown" for one that is never stored); a constant
/// @param pType    receives the text of its type (" ??? " for an unknown one); a constant
/// @param pFormat  receives the row's format, for the lock's identity as an unsigned int, ThreadId, the texts of state
///                 and type, Line and Name; a constant
/// @param Name     receives the file name, or its last nameLen characters when it is longer, or "(unknown)" when there
///                 is none. Holds nameLen + 1 characters, and 10 at least.
/// @param nameLen  most characters of a file name; below 0 counts as 0
TQ_API void getSemInfo(SemListNode* pNode, const char** pState, const char** pType, const char** pFormat, char* Name,
                       int nameLen);

/// Reports all tracked waits: those that wait, then those that own, newest first.
/// @param pszResponse  receives the report, which the caller frees with tq_free(); null without memory. Instead of the
///                     table it says that tracking is off, that nothing is tracked, or that there is too much to show
///                     (no memory for it).
TQ_API void tq_ShowSemaphores(char** pszResponse);

/// Switches tracking on. Waits that are already under way are not listed.
TQ_API void tq_SemEnableSemTracking();
/// Switches tracking off and discards all records.
TQ_API void tq_SemDisableSemTracking();

/// Reads the settings; called by the library's start.
/// @return 0 always
TQ_API unsigned int tq_SemMutexInitialize();
/// Switches tracking off; records still in the list stay there. Called by the library's termination.
TQ_API void tq_SemMutexTerminate();

} // extern "C"

#endif // TQ_SEMMUTEX_H
