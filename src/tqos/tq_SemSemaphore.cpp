#include "tq_SemSemaphore_p.h"

#include <limits.h>

#include "tq_Deadline_p.h"
#include "tq_Futex_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"

namespace {

/// The value that stands for a count of 0 while a thread sleeps until it is another.
int AwaitedZero(const SemaStruct& sema) {
    return sema.maxcount < INT_MAX ? sema.maxcount + 1 : INT_MIN;
}

/// The sum, kept within what the semaphore can count: an int, and no more than its ceiling.
int SumIn(const SemaStruct& sema, int count, long added) {
    int sum = 0;
    if (__builtin_add_overflow(count, added, &sum)) {
        sum = added > 0 ? INT_MAX : INT_MIN;
    }
    sum = sum > sema.maxcount ? sema.maxcount : sum;
    return sum == AwaitedZero(sema) ? sum + 1 : sum;
}

/// Takes a unit; false when the time is up before there is one.
bool TakeUnit(SemaStruct& sema, const struct timespec* pDeadline) {
    const int awaitedZero = AwaitedZero(sema);
    int count = sema.curcount.load(std::memory_order_relaxed);
    for (;;) {
        // Deliberate: a negative count would be expected to block like 0. Only 0 blocks; below it, waits pass and count
        // further down.
        const bool bBlocks = count == 0 || count == awaitedZero;
        const int next = bBlocks ? awaitedZero : SumIn(sema, count, -1);
        // Whoever knows that this wait has succeeded may destroy the semaphore: this is the last that touches it.
        if (count != next &&
            !sema.curcount.compare_exchange_weak(count, next, std::memory_order_acquire, std::memory_order_relaxed)) {
            continue;
        }
        if (!bBlocks) {
            return true;
        }
        if (!tq_Futex::SleepCancellably(sema.curcount, awaitedZero, pDeadline)) {
            return false;
        }
        count = sema.curcount.load(std::memory_order_relaxed);
    }
}

void SetCount(long* pCount, long count) {
    if (pCount) {
        *pCount = count;
    }
}

} // namespace

tq_SemSemaphore::tq_SemSemaphore(int InitialCount, int MaxCount) : m_hSemaphore(nullptr) {
    SemaStruct* pSema = tq_newObject<SemaStruct>();
    if (!pSema) {
        return;
    }
    pSema->maxcount = MaxCount;
    pSema->curcount.store(SumIn(*pSema, InitialCount, 0), std::memory_order_relaxed);
    m_hSemaphore = pSema;
}

tq_SemSemaphore::~tq_SemSemaphore() {
    SemaStruct* pSema = static_cast<SemaStruct*>(m_hSemaphore);
    m_hSemaphore = nullptr;
    tq_deleteObject(pSema);
}

namespace {

/// A tracked wait for a unit; the time-out is what tq_TimedWait takes.
template <typename TimeOut> BOOL WaitForUnit(void* hSemaphore, TimeOut timeOut, unsigned int line, const char* file) {
    SemaStruct* pSema = static_cast<SemaStruct*>(hSemaphore);
    if (!pSema) {
        return 0;
    }
    tq_TrackWait(pSema, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_WAITING, line, file);
    const tq_TimedWait wait(timeOut);
    if (!wait) {
        return 0;
    }
    const BOOL bTaken = TakeUnit(*pSema, wait.Deadline()) ? 1 : 0;
    tq_TrackWait(pSema, SEM_TRACK_TYPE_SEMAPHORE, SEM_TRACK_STATE_RELEASED, 0, nullptr);
    return bTaken;
}

} // namespace

BOOL tq_SemSemaphore::_WaitForSem(int msTimeOut, unsigned int uiLine, const char* pszFilename) {
    return WaitForUnit(m_hSemaphore, msTimeOut, uiLine, pszFilename);
}

BOOL tq_SemInside::WaitForSem(const tq_SemSemaphore& semaphore, tq_Microseconds timeOut, unsigned int line,
                              const char* file) {
    return WaitForUnit(semaphore.m_hSemaphore, timeOut, line, file);
}

BOOL tq_SemSemaphore::Release(long ReleaseCount, long* PrevCount) {
    SemaStruct* pSema = static_cast<SemaStruct*>(m_hSemaphore);
    if (!pSema) {
        return 0;
    }
    // A waiter that takes what this adds may destroy the semaphore: nothing of it is touched after the exchange.
    const int awaitedZero = AwaitedZero(*pSema);
    const void* const pAddress = tq_Futex::AddressOf(pSema->curcount);
    int found = pSema->curcount.load(std::memory_order_relaxed);
    int count;
    do {
        count = found == awaitedZero ? 0 : found;
        if (ReleaseCount == 0 || count == pSema->maxcount) {
            // Deliberate: a release that adds nothing would be expected to report the count that it found. It reports
            // 0.
            SetCount(PrevCount, 0);
            return 0;
        }
    } while (!pSema->curcount.compare_exchange_weak(found, SumIn(*pSema, count, ReleaseCount),
                                                    std::memory_order_release, std::memory_order_relaxed));
    if (found == awaitedZero) {
        tq_Futex::Wake(pAddress, INT_MAX);
    }
    SetCount(PrevCount, count);
    return 1;
}
