/// @file tq_SemSemaphore.h
#ifndef TQ_SEMSEMAPHORE_H
#define TQ_SEMSEMAPHORE_H

#include "tq_Types.h"

class TQ_API tq_SemSemaphore {
public:
    tq_SemSemaphore(int InitialCount, int MaxCount);
    ~tq_SemSemaphore();
    tq_SemSemaphore(const tq_SemSemaphore&) = delete;
    tq_SemSemaphore& operator=(const tq_SemSemaphore&) = delete;

    BOOL _WaitForSem(int msTimeOut, unsigned int uiLine, const char* pszFilename);
    BOOL Release(long ReleaseCount, long* PrevCount);

    BOOL WaitForSem(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForSem(msTimeOut, uiLine, pszFilename);
    }

private:
    void* m_hSemaphore;
};

#endif // TQ_SEMSEMAPHORE_H
