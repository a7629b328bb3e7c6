#include "tq_SemEvent_p.h"

#include "tq_Deadline_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"

tq_SemEvent::tq_SemEvent(int bManualReset, int bInitialState) : m_hSemEvent(nullptr) {
    SemEventStruct* pEvent = static_cast<SemEventStruct*>(tq_malloc(sizeof(SemEventStruct)));
    if (!pEvent) {
        return;
    }
    pEvent->bManual = bManualReset != 0;
    pEvent->bSignalled = bInitialState != 0;
    if (!tq_InitMutexAndCond(&pEvent->mutex, &pEvent->cond)) {
        tq_free(pEvent);
        return;
    }
    m_hSemEvent = pEvent;
}

tq_SemEvent::~tq_SemEvent() {
    SemEventStruct* pEvent = static_cast<SemEventStruct*>(m_hSemEvent);
    if (!pEvent) {
        return;
    }
    m_hSemEvent = nullptr;
    pthread_cond_destroy(&pEvent->cond);
    pthread_mutex_destroy(&pEvent->mutex);
    tq_free(pEvent);
}

namespace {

void UnlockForCancelled(void* pMutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(pMutex));
}

/// Waits once with the record locked; false when the time is up. A thread that is cancelled here has the lock again at
/// its end, and leaves it: the others go on without that thread.
bool WaitOnce(SemEventStruct& event, const tq_TimedWait& wait) {
    volatile bool bInTime = false; // the push may be a setjmp(), after which a register would not be kept
    pthread_cleanup_push(UnlockForCancelled, &event.mutex);
    bInTime = wait.Wait(&event.cond, &event.mutex);
    pthread_cleanup_pop(0);
    return bInTime;
}

} // namespace

BOOL tq_SemEvent::_WaitForEvent(int msTimeOut, unsigned int uiLine, const char* pszFilename) {
    SemEventStruct* pEvent = static_cast<SemEventStruct*>(m_hSemEvent);
    if (!pEvent) {
        return 0;
    }
    tq_TrackWait(pEvent, SEM_TRACK_TYPE_EVENT, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
    const tq_TimedWait wait(msTimeOut);
    if (!wait) {
        return 0;
    }
    BOOL bSeen = 1;
    pthread_mutex_lock(&pEvent->mutex);
    // Deliberate: a wait whose time is up would be expected to look at the event once more. It does not: it fails even
    // when the event has been set meanwhile.
    while (bSeen && !pEvent->bSignalled) {
        bSeen = WaitOnce(*pEvent, wait) ? 1 : 0;
    }
    // Deliberate: a wait that timed out would be expected to leave the event alone. It clears an auto-reset event as a
    // successful one does, so a Set() that comes with the time-out is lost.
    if (!pEvent->bManual) {
        pEvent->bSignalled = false;
    }
    // Whoever knows that this wait has ended may destroy the event: only its address is used from here on.
    pthread_mutex_unlock(&pEvent->mutex);
    tq_TrackWait(pEvent, SEM_TRACK_TYPE_EVENT, SEM_TRACK_STATE_RELEASED, 0, nullptr);
    return bSeen;
}

BOOL tq_SemEvent::Set() {
    SemEventStruct* pEvent = static_cast<SemEventStruct*>(m_hSemEvent);
    if (!pEvent) {
        return 0;
    }
    pthread_mutex_lock(&pEvent->mutex);
    pEvent->bSignalled = true;
    // Deliberate: setting a manual-reset event would be expected to wake everybody who waits for it. It wakes one; the
    // others go on when they wake for another reason, while a wait that begins now passes at once.
    const BOOL bWoken = pthread_cond_signal(&pEvent->cond) == 0 ? 1 : 0;
    // The waiter just woken may destroy the event: nothing of it is touched after this unlock.
    pthread_mutex_unlock(&pEvent->mutex);
    return bWoken;
}

BOOL tq_SemEvent::Reset() {
    SemEventStruct* pEvent = static_cast<SemEventStruct*>(m_hSemEvent);
    if (!pEvent) {
        return 0;
    }
    pthread_mutex_lock(&pEvent->mutex);
    pEvent->bSignalled = false;
    pthread_mutex_unlock(&pEvent->mutex);
    return 1;
}
