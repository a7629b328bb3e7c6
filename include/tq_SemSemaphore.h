/// @file tq_SemSemaphore.h
/// Counting semaphores with a ceiling.
///
/// An application makes one with (0, ceiling), releases a unit for each piece of work that it hands over, and takes a
/// unit with WaitForSem() before each piece that it does.
///
/// Threads: any, at any time; no initialisation is needed.
#ifndef TQ_SEMSEMAPHORE_H
#define TQ_SEMSEMAPHORE_H

#include "tq_Types.h"

/// A count that waits take from and releases add to.
///
/// The object may be destroyed by the thread whose wait has just succeeded, while the thread that released the unit is
/// still on its way out of Release(). Destroying it does not wake threads that wait: see to it that there are none.
class TQ_API tq_SemSemaphore {
public:
    /// Makes a semaphore. Without memory every operation on it fails.
    /// @param InitialCount  units at the start; more than MaxCount counts as MaxCount
    /// @param MaxCount      the ceiling of the count
    tq_SemSemaphore(int InitialCount, int MaxCount);
    ~tq_SemSemaphore();
    tq_SemSemaphore(const tq_SemSemaphore&) = delete;
    tq_SemSemaphore& operator=(const tq_SemSemaphore&) = delete;

    /// Takes one unit, waiting while the count is exactly 0: a negative count lets waits pass and counts further down.
    /// The thread may be cancelled meanwhile; the semaphore then serves the others on.
    /// @param msTimeOut    milliseconds of waiting at most; 0 does not wait; -1 waits for ever; below -1 counts as
    ///                     expired, as 0 does. The end of the wait is an instant of the wall clock, so setting the
    ///                     system clock shortens or lengthens it.
    /// @param uiLine       the caller's source line, for tracking
    /// @param pszFilename  the caller's source file, for tracking; copied; may be null
    /// @return 1 a unit was taken; 0 the time is up, the clock could not be read, or the semaphore could not be made
    BOOL _WaitForSem(int msTimeOut, unsigned int uiLine, const char* pszFilename);

    /// Adds units, up to the ceiling, and wakes the threads that wait.
    /// @param ReleaseCount  units to add; what exceeds the ceiling is lost; a negative number lowers the count
    /// @param PrevCount     receives the count before, or 0 when nothing was done; may be null; untouched when the
    ///                      semaphore could not be made
    /// @return 1 done; 0 nothing was done: ReleaseCount is 0, the count stood at the ceiling already, or the semaphore
    ///         could not be made
    BOOL Release(long ReleaseCount, long* PrevCount);

    /// _WaitForSem() with the line and file of the call itself.
    BOOL WaitForSem(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForSem(msTimeOut, uiLine, pszFilename);
    }

private:
    friend struct tq_SemInside; // the library's own look at what could be made

    void* m_hSemaphore;
};

#endif // TQ_SEMSEMAPHORE_H
