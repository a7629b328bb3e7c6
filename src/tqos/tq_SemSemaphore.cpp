#include "tq_SemSemaphore_p.h"

#include <limits.h>

#include "tq_Deadline_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex.h"

namespace {

/// The sum, kept within the range of an int.
int SaturatedSum(int count, long added) {
    int sum = 0;
    if (__builtin_add_overflow(count, added, &sum)) {
        return added > 0 ? INT_MAX : INT_MIN;
    }
    return sum;
}

} // namespace

tq_SemSemaphore::tq_SemSemaphore(int InitialCount, int MaxCount) : m_hSemaphore(nullptr) {
    SemaStruct* pSema = static_cast<SemaStruct*>(tq_malloc(sizeof(SemaStruct)));
    if (!pSema) {
        return;
    }
    pSema->maxcount = MaxCount;
    pSema->curcount = InitialCount < MaxCount ? InitialCount : MaxCount;
    if (!tq_InitMutexAndCond(&pSema->mutex, &pSema->cond)) {
        tq_free(pSema);
        return;
    }
    m_hSemaphore = pSema;
}

tq_SemSemaphore::~tq_SemSemaphore() {
    SemaStruct* pSema = static_cast<SemaStruct*>(m_hSemaphore);
    if (!pSema) {
        return;
    }
    m_hSemaphore = nullptr;
    pthread_cond_destroy(&pSema->cond);
    pthread_mutex_destroy(&pSema->mutex);
    tq_free(pSema);
}

BOOL tq_SemSemaphore::_WaitForSem(int msTimeOut, unsigned int uiLine, const char* pszFilename) {
    SemaStruct* pSema = static_cast<SemaStruct*>(m_hSemaphore);
    if (!pSema) {
        return 0;
    }
    TrackSemaphore(pSema, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
    const tq_TimedWait wait(msTimeOut);
    if (!wait) {
        return 0;
    }
    BOOL bTaken = 1;
    pthread_mutex_lock(&pSema->mutex);
    // Deliberate: a negative count would be expected to block like 0. Only 0 blocks; below it, waits pass and count
    // further down.
    while (bTaken && pSema->curcount == 0) {
        bTaken = wait.Wait(&pSema->cond, &pSema->mutex) ? 1 : 0;
    }
    if (bTaken) {
        pSema->curcount = SaturatedSum(pSema->curcount, -1);
    }
    // Whoever knows that this wait has succeeded may destroy the semaphore: only its address is used from here on.
    pthread_mutex_unlock(&pSema->mutex);
    TrackSemaphore(pSema, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_RELEASED, 0, nullptr);
    return bTaken;
}

BOOL tq_SemSemaphore::Release(long ReleaseCount, long* PrevCount) {
    SemaStruct* pSema = static_cast<SemaStruct*>(m_hSemaphore);
    if (!pSema) {
        return 0;
    }
    // Deliberate: a release that adds nothing would be expected to report the count that it found. It reports 0.
    long previous = 0;
    BOOL bReleased = 0;
    pthread_mutex_lock(&pSema->mutex);
    if (ReleaseCount != 0 && pSema->curcount != pSema->maxcount) {
        previous = pSema->curcount;
        const int sum = SaturatedSum(pSema->curcount, ReleaseCount);
        pSema->curcount = sum > pSema->maxcount ? pSema->maxcount : sum;
        pthread_cond_broadcast(&pSema->cond);
        bReleased = 1;
    }
    // A waiter just woken may destroy the semaphore: nothing of it is touched after this unlock.
    pthread_mutex_unlock(&pSema->mutex);
    if (PrevCount) {
        *PrevCount = previous;
    }
    return bReleased;
}
