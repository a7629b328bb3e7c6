#include "BaseLine.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Faults.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Socket_p.h"
#include "tq_Timer_p.h"
#include "tq_Trace_p.h"

namespace faults {

namespace {

constexpr const char* kNames[kCounters] = {"blocks", "tracked bytes", "handles",         "lists",       "queues",
                                           "timers", "sockets",       "trace instances", "descriptors", "threads"};
constexpr unsigned int kSettlingMs = 30;
constexpr unsigned int kComingBackSeconds = 20;

long Entries(const char* pszDirectory) {
    DIR* const pDirectory = opendir(pszDirectory);
    long count = 0;
    while (pDirectory && readdir(pDirectory)) {
        ++count;
    }
    if (pDirectory) {
        closedir(pDirectory);
    }
    return count;
}

long TrackedBytes() {
    if (!gbUseMemoryTracking) {
        return 0;
    }
    myCritSecLock lock(MemoryTrackingCritSec);
    return static_cast<long>(gRequestedMemoryAllocations);
}

/// Heap blocks less those that the pools are made of, and the slots in use: how far a pool has ever had to grow depends
/// on what threads did at the same time, and stays.
long Blocks() {
    long blocks = HeapBlocks();
    for (unsigned int pool = 0; pool < kMaxMemoryPools; ++pool) {
        const tq_MemoryPoolHold hold(pool);
        for (const _MEM_POOL* pChunk = Pools[pool]; pChunk; pChunk = pChunk->pNext) {
            blocks -= pChunk->pActualPointer ? 2 : 1;
        }
        if (const MEM_POOL_LIST* const pList = PoolLists[pool]) {
            blocks += static_cast<long>(pList->nCurrentAllocatedNodes) - (pList->pArray ? 2 : 1);
        }
    }
    return blocks;
}

long HandlesInUse() {
    // The list of free handles cannot go while this thread, which starts and stops the library, is here.
    const tq_ListLock lock(gpHandleList);
    return static_cast<long>(gAllocatedHandles);
}

long Lists() {
    if (!gpListOfListsCritSec) {
        return 0;
    }
    const tq_CritSecLock lock(*gpListOfListsCritSec);
    return static_cast<long>(gpListCount);
}

long Nodes(tq_List* pList) {
    return pList ? static_cast<long>(pList->NodeCount()) : 0;
}

/// A wake-up that has been taken, and a breaker to take the next one: not while a worker is about to find out that its
/// breaker has broken, nor until its heir serves.
bool SocketsThreadServes() {
    const tq_ListLock lock(pListOfSockets);
    bool bHasBreaker = false;
    for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
        bHasBreaker = bHasBreaker || static_cast<SOCKET_INSTANCE*>(pNode)->state == SOCKET_STATE_BREAKER;
    }
    return bHasBreaker && BrkrSocket >= 0 && !gbWakeUpPending;
}

/// A thread that is about to hand over to an heir, since a fault broke its breaker, holds less than will be held.
void WaitForSocketsThread() {
    if (pListOfSockets) {
        const Exempt exempt;
        SpinBreaker();
        EXPECT_TRUE(test::WaitUntil(SocketsThreadServes)) << "no sockets thread serves";
    }
}

bool IsAbove(const Reading& now, const Reading& base) {
    for (size_t i = 0; i < kCounters; ++i) {
        if (now[i] > base[i]) {
            return true;
        }
    }
    return false;
}

} // namespace

Reading ReadCounters() {
    const Exempt exempt;
    Reading reading;
    reading[kBlocks] = Blocks();
    reading[kTrackedBytes] = TrackedBytes();
    reading[kHandles] = HandlesInUse();
    reading[kLists] = Lists();
    reading[kQueues] = Nodes(gpListOfQs);
    reading[kTimers] = Nodes(gpTimerList);
    reading[kSockets] = Nodes(pListOfSockets);
    reading[kTraceInstances] = Nodes(gpTraceInstanceList);
    reading[kDescriptors] = Entries("/proc/self/fd");
    reading[kThreads] = Entries("/proc/self/task");
    return reading;
}

Reading ReadSettled() {
    WaitForSocketsThread();
    Reading last = ReadCounters();
    test::WaitUntil([&last] {
        usleep(kSettlingMs * 1000);
        const Reading before = last;
        last = ReadCounters();
        return before == last;
    });
    return last;
}

bool ComesBackTo(const Reading& base) {
    WaitForSocketsThread();
    return test::WaitUntil([&base] { return !IsAbove(ReadCounters(), base); }, kComingBackSeconds);
}

std::string Difference(const Reading& base, const Reading& now) {
    std::string text;
    for (size_t i = 0; i < kCounters; ++i) {
        if (now[i] != base[i]) {
            text += std::string(text.empty() ? "" : ", ") + kNames[i] + " " + std::to_string(now[i]) + " instead of " +
                    std::to_string(base[i]);
        }
    }
    return text.empty() ? "nothing" : text;
}

} // namespace faults
