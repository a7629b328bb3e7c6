/// @file tq_SemCritSec.h
#ifndef TQ_SEMCRITSEC_H
#define TQ_SEMCRITSEC_H

#include "tq_SemMutex.h"
#include "tq_Types.h"

class TQ_API tq_SemCritSec {
public:
    explicit tq_SemCritSec(bool bRecursive);
    ~tq_SemCritSec();
    tq_SemCritSec(const tq_SemCritSec&) = delete;
    tq_SemCritSec& operator=(const tq_SemCritSec&) = delete;

    void _Enter(unsigned int uiLine, const char* pszFilename);
    void Leave();

    void Enter(unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        _Enter(uiLine, pszFilename);
    }

private:
    tq_SemMutex* m_pCritSec;
    void* m_pmutex;
};

/// Holds a critical section for a scope. A null section is passed over.
class tq_CritSecLock {
public:
    explicit tq_CritSecLock(tq_SemCritSec* pCritSec, unsigned int uiLine = TQ_CALLER_LINE,
                            const char* pszFilename = TQ_CALLER_FILE)
        : m_pCritSec(pCritSec) {
        if (m_pCritSec) {
            m_pCritSec->_Enter(uiLine, pszFilename);
        }
    }
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
