/// @file tq_SemMutex.h
#ifndef TQ_SEMMUTEX_H
#define TQ_SEMMUTEX_H

#include "tq_Types.h"

/// What a tracking record says of a lock or wait.
enum {
    SEM_TRACK_TYPE_MUTEX = 1,
    SEM_TRACK_TYPE_CRITSEC = 2,
    SEM_TRACK_TYPE_EVENT = 3,
    SEM_TRACK_TYPE_SEMAPHORE = 4,
    SEM_TRACK_TYPE_SLEEP = 5
};
enum { SEM_TRACK_STATE_WAITING = 1, SEM_TRACK_STATE_OWNED = 2, SEM_TRACK_STATE_RELEASED = 3 };

typedef struct _SemListNode {
    unsigned int ThreadId;
    void* Sem;
    unsigned int Line;
    unsigned int State;
    unsigned int Type;
    char* pszFile;
    struct _SemListNode* pNext;
} SemListNode;

class TQ_API tq_SemMutex {
public:
    explicit tq_SemMutex(bool bCritSec);
    ~tq_SemMutex();
    tq_SemMutex(const tq_SemMutex&) = delete;
    tq_SemMutex& operator=(const tq_SemMutex&) = delete;

    BOOL _WaitForMutexWithTimeout(int msTimeOut, unsigned int uiLine, const char* pszFilename);
    BOOL _WaitForMutex(unsigned int uiLine, const char* pszFilename);
    BOOL Release();

    BOOL WaitForMutexWithTimeout(int msTimeOut, unsigned int uiLine = TQ_CALLER_LINE,
                                 const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForMutexWithTimeout(msTimeOut, uiLine, pszFilename);
    }
    BOOL WaitForMutex(unsigned int uiLine = TQ_CALLER_LINE, const char* pszFilename = TQ_CALLER_FILE) {
        return _WaitForMutex(uiLine, pszFilename);
    }

private:
    void* m_hMutex;
    bool m_bCritSec;
};

extern "C" {

TQ_API void TrackSemaphore(void* sem, int type, int state, unsigned int uiLine, const char* pszFilename);
TQ_API void LockSemList();
TQ_API void unLockSemList();
TQ_API void getSemInfo(SemListNode* pNode, const char** pState, const char** pType, const char** pFormat, char* Name,
                       int nameLen);
TQ_API void tq_ShowSemaphores(char** pszResponse);
TQ_API void tq_SemEnableSemTracking();
TQ_API void tq_SemDisableSemTracking();
TQ_API unsigned int tq_SemMutexInitialize();
TQ_API void tq_SemMutexTerminate();

} // extern "C"

#endif // TQ_SEMMUTEX_H
