/// @file tq_SemCritSec.h
/// Critical sections: the light lock, without time-outs and results, that the library and applications guard shared
/// state with.
///
/// An application makes a tq_SemCritSec beside the state and holds it for a scope with tq_CritSecLock. The setting
/// "UseMutexForCritSec" of section "Sem" decides what all sections of the process are: built on a tq_SemMutex (the
/// default) or on a plain mutex of the system.
///
/// Threads: any. A section made before the library is initialised is built on a tq_SemMutex; it must be gone before an
/// initialisation that sets "UseMutexForCritSec" to no.
#ifndef TQ_SEMCRITSEC_H
#define TQ_SEMCRITSEC_H

#include "tq_SemMutex.h"
#include "tq_Types.h"

/// A lock that one thread holds at a time.
///
/// The object may be destroyed by the thread that has just entered it, while the thread before it is still on its way
/// out of Leave(). Destroying it does not wake threads that wait for it: see to it that there are none.
class TQ_API tq_SemCritSec {
public:
    /// Makes a section that nobody holds. Without memory, or when the system has no room for it, it is entered and left
    /// without any locking.
    /// @param bRecursive  true: its owner may enter it again, as it always may where sections are built on a
    ///                    tq_SemMutex. On a plain mutex, a thread that enters a non-recursive section twice waits for
    ///                    itself for ever.
    explicit tq_SemCritSec(bool bRecursive);
    ~tq_SemCritSec();
    tq_SemCritSec(const tq_SemCritSec&) = delete;
    tq_SemCritSec& operator=(const tq_SemCritSec&) = delete;

    /// Enters the section, waiting for ever while another thread is inside. To be left as often as it was entered.
    /// @param uiLine       the caller's source line, for tracking
    /// @param pszFilename  the caller's source file, for tracking; copied; may be null
    void _Enter(unsigned int uiLine, const char* pszFilename);

    /// Leaves the section once; called by the thread that entered it. The last leave lets one waiting thread in.
    void Leave();

    /// _Enter() with the line and file of the call itself.
    void Enter(unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        _Enter(uiLine, pszFilename);
    }

private:
    friend struct tq_SemInside; // the library's own look at what could be made

    tq_SemMutex* m_pCritSec;
    void* m_pmutex;
};

/// Holds a critical section for a scope. A null section is passed over.
class tq_CritSecLock {
public:
    /// Enters the section, tracked with the line and file where the guard stands.
    explicit tq_CritSecLock(tq_SemCritSec* pCritSec, unsigned int uiLine = TQ_CALLER_LINE,
                            const char* pszFilename = TQ_CALLER_FILE)
        : m_pCritSec(pCritSec) {
        if (m_pCritSec) {
            m_pCritSec->_Enter(uiLine, pszFilename);
        }
    }
    /// The same for a section that is at hand as an object.
    explicit tq_CritSecLock(tq_SemCritSec& critSec, unsigned int uiLine = TQ_CALLER_LINE,
                            const char* pszFilename = TQ_CALLER_FILE)
        : tq_CritSecLock(&critSec, uiLine, pszFilename) {}
    ~tq_CritSecLock() {
        if (m_pCritSec) {
            m_pCritSec->Leave();
        }
    }
    tq_CritSecLock(const tq_CritSecLock&) = delete;
    tq_CritSecLock& operator=(const tq_CritSecLock&) = delete;

private:
    tq_SemCritSec* m_pCritSec;
};

#endif // TQ_SEMCRITSEC_H
