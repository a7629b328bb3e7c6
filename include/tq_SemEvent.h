/// @file tq_SemEvent.h
/// Events: one thread waits until another one says that something has happened.
///
/// An application makes an event, waits with WaitForEvent() where it must not go on before, and calls Set() where the
/// thing has happened: auto-reset to let one wait pass for each Set(), manual-reset for a fact that stays true.
///
/// Threads: any, at any time; no initialisation is needed.
#ifndef TQ_SEMEVENT_H
#define TQ_SEMEVENT_H

#include "tq_Types.h"

/// A flag that can be waited for.
///
/// The object may be destroyed by the thread whose wait has just ended, while the thread that set the event is still on
/// its way out of Set(). Destroying it does not wake threads that wait: see to it that there are none.
class TQ_API tq_SemEvent {
public:
    /// Makes an event. Without memory, or when the system has no room for it, every operation on it fails.
    /// @param bManualReset   not 0: stays signalled until Reset(); 0: each wait clears it
    /// @param bInitialState  not 0: signalled from the start
    tq_SemEvent(int bManualReset, int bInitialState);
    ~tq_SemEvent();
    tq_SemEvent(const tq_SemEvent&) = delete;
    tq_SemEvent& operator=(const tq_SemEvent&) = delete;

    /// Waits until the event is signalled; passes at once when it is. An auto-reset event is cleared by every wait that
    /// ends, also by one that times out. The thread may be cancelled meanwhile; the event then serves the others on.
    /// @param msTimeOut    milliseconds of waiting at most; 0 does not wait; -1 waits for ever; below -1 counts as
    ///                     expired, as 0 does. The end of the wait is an instant of the wall clock, so setting the
    ///                     system clock shortens or lengthens it.
    /// @param uiLine       the caller's source line, for tracking
    /// @param pszFilename  the caller's source file, for tracking; copied; may be null
    /// @return 1 the event was signalled; 0 the time is up (even if the event was set meanwhile without waking this
    ///         thread), the clock could not be read, or the event could not be made
    BOOL _WaitForEvent(int msTimeOut, unsigned int uiLine, const char* pszFilename);

    /// Signals the event and wakes one waiting thread. Other threads that wait already go on only when they wake for
    /// another reason, such as a later Set(), also where the event is manual-reset.
    /// @return 1 done; 0 the event could not be made
    BOOL Set();

    /// Clears the event.
    /// @return 1 done; 0 the event could not be made
    BOOL Reset();

    /// _WaitForEvent() with the line and file of the call itself.
    BOOL WaitForEvent(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForEvent(msTimeOut, uiLine, pszFilename);
    }

private:
    void* m_hSemEvent;
};

#endif // TQ_SEMEVENT_H
