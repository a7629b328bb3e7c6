/// @file Standing.h
/// What stands in a process while nothing is going on: threads, descriptors, lists, queues.
#ifndef STANDING_H
#define STANDING_H

#include <algorithm>
#include <atomic>
#include <dirent.h>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Load.h"
#include "TestSupport.h"
#include "tq_List_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Socket_p.h"
#include "tqos.h"

namespace test {

inline unsigned int EntriesOf(const char* pszDirectory) {
    unsigned int entries = 0;
    DIR* pDirectory = opendir(pszDirectory);
    while (const struct dirent* pEntry = readdir(pDirectory)) {
        entries += pEntry->d_name[0] == '.' ? 0 : 1;
    }
    closedir(pDirectory);
    return entries;
}

inline unsigned int ThreadsOfProcess() {
    return EntriesOf("/proc/self/task");
}

/// With the first thread a sanitizer starts one of its own, which stays. A thread that has been joined may still be
/// seen for a moment; when this returns it is gone.
inline void StartAndEndAThread() {
    std::atomic<unsigned int> id{0};
    std::thread([&id] { id = tq_GetPSThreadId(); }).join();
    const std::string task = "/proc/self/task/" + std::to_string(id);
    EXPECT_TRUE(WaitUntil([&task] { return !FileExists(task); }, kHangSeconds));
}

inline unsigned int DescriptorsOfProcess() {
    return EntriesOf("/proc/self/fd");
}

inline std::multiset<std::string> RegisteredLists() {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    std::multiset<std::string> names;
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        const char* const pszName = tq_ListInside::StateOf(*pRecord->pList).pName;
        names.insert(pszName ? pszName : "(none)");
    }
    return names;
}

inline unsigned int RegisteredQueues() {
    const tq_ListLock lock(gpListOfQs);
    return gpListOfQs->NodeCount();
}

/// True when the device has nothing to do: of its threads and sockets only the library's own are left, and no timer.
inline bool IsAtRest(unsigned int threads) {
    char* pszTimers = nullptr;
    tq_TimerShowTimers(&pszTimers);
    const std::string timers = pszTimers ? pszTimers : "";
    tq_free(pszTimers);
    const tq_ListLock lock(pListOfSockets);
    const bool bBreakerAlone = pListOfSockets->NodeCount() == 1; // with it others wake the sockets thread
    return bBreakerAlone && timers == "No Timers currently set..." && ThreadsOfProcess() == threads;
}

/// All that stands while nothing is going on.
struct Standing {
    std::multiset<std::string> lists = RegisteredLists();
    unsigned int queues = RegisteredQueues();
    unsigned int descriptors = DescriptorsOfProcess();

    bool operator==(const Standing& other) const {
        return lists == other.lists && queues == other.queues && descriptors == other.descriptors;
    }
    std::string Text() const {
        std::string text;
        for (const std::string& name : lists) {
            text += "  list: " + name + "\n";
        }
        return text + std::to_string(queues) + " queues, " + std::to_string(descriptors) + " descriptors\n";
    }
};

} // namespace test

#endif // STANDING_H
