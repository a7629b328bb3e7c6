#include "tq_SemCritSec.h"

#include <pthread.h>
#include <sched.h>

#include "tq_CritSecEnd_p.h"
#include "tq_CriticalErrorTrace_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(tq_SemCritSec) == 8, "layout of a critical section");
#endif

namespace {

/// The calling thread's held sections, and whether it is printing kept critical errors: that takes sections of its own,
/// and leaving the last of them must not begin to print again.
struct HeldLocks {
    unsigned int count;
    bool bPrinting;
};
thread_local HeldLocks tHeld __attribute__((tls_model("initial-exec"))) = {0, false};

void PrintKeptCriticalErrors() {
    tHeld.bPrinting = true;
    tq_TraceKeptCriticalErrors();
    tHeld.bPrinting = false;
}

/// Counts a section as left; the last one is the moment for critical errors that were kept meanwhile.
void CountLeave() {
    if (tHeld.count == 0) { // left without having been entered
        return;
    }
    tHeld.count -= 1;
    if (tHeld.count == 0 && !tHeld.bPrinting && gbCriticalErrorsKept.load(std::memory_order_relaxed)) {
        PrintKeptCriticalErrors();
    }
}

bool InitPthreadMutex(pthread_mutex_t* pMutex, bool bRecursive) {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) {
        return false;
    }
    pthread_mutexattr_settype(&attributes, bRecursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    const bool bMade = pthread_mutex_init(pMutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return bMade;
}

bool UseMutexes() {
    return gbUseMutexesForCritSecs.load(std::memory_order_relaxed);
}

} // namespace

unsigned int tq_HeldLocks() {
    return tHeld.count;
}

void tq_HeldLatchEntered() {
    if (tHeld.count != 0) {
        tHeld.count -= 1;
    }
}

void tq_HeldLatchLeaving() {
    tHeld.count += 1;
}

tq_SemCritSec::tq_SemCritSec(bool bRecursive) : m_pCritSec(nullptr), m_pmutex(nullptr) {
    if (UseMutexes()) {
        m_pCritSec = tq_newObject<tq_SemMutex>(!bRecursive);
        return;
    }
    pthread_mutex_t* pMutex = static_cast<pthread_mutex_t*>(tq_calloc(1, sizeof(pthread_mutex_t)));
    if (pMutex && !InitPthreadMutex(pMutex, bRecursive)) {
        tq_free(pMutex);
        pMutex = nullptr;
    }
    m_pmutex = pMutex;
}

tq_SemCritSec::~tq_SemCritSec() {
    tq_LockOrderForget(this);
    if (UseMutexes()) {
        tq_deleteObject(m_pCritSec);
        return;
    }
    if (m_pmutex) {
        pthread_mutex_destroy(static_cast<pthread_mutex_t*>(m_pmutex));
        tq_free(m_pmutex);
        m_pmutex = nullptr;
    }
}

void tq_SemCritSec::_Enter(unsigned int uiLine, const char* pszFilename) {
    tq_LockOrderCheckPlaced(this);
    if (UseMutexes()) {
        if (m_pCritSec) {
            m_pCritSec->_WaitForMutex(uiLine, pszFilename);
        }
    } else if (m_pmutex) {
        tq_TrackWait(m_pmutex, SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_WAITING, uiLine, pszFilename);
        pthread_mutex_lock(static_cast<pthread_mutex_t*>(m_pmutex));
        tq_TrackWait(m_pmutex, SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_OWNED, 0, nullptr);
    }
    tq_LockOrderTakePlaced(this);
    tHeld.count += 1; // a section without a lock counts too: its Leave() counts it down
}

void tq_SemCritSec::Leave() {
    // Whoever enters next may destroy the section: once it is left, nothing of the object is touched.
    tq_LockOrderGive(this);
    if (UseMutexes()) {
        if (m_pCritSec) {
            m_pCritSec->Release();
        }
    } else {
        if (m_pmutex) {
            tq_TrackWait(m_pmutex, SEM_TRACK_TYPE_CRITSEC, SEM_TRACK_STATE_RELEASED, 0, nullptr);
            pthread_mutex_unlock(static_cast<pthread_mutex_t*>(m_pmutex));
        }
        if (gbSchedYield.load(std::memory_order_relaxed)) {
            sched_yield();
        }
    }
    CountLeave();
}

void tq_CritSecDestroy(tq_SemCritSec* pCritSec) {
    tq_deleteObject(pCritSec);
}
