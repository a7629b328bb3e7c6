/// @file MemoryCap.h
/// Memory that is short for a scope, while the library's threads run.
#ifndef MEMORY_CAP_H
#define MEMORY_CAP_H

#include <dirent.h>
#include <fstream>
#include <map>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Memory_p.h"

namespace test {

/// Bytes of tracked memory in use.
inline unsigned int AllocatedBytes() {
    myCritSecLock lock(MemoryTrackingCritSec);
    return gRequestedMemoryAllocations;
}

/// What a library is to be started with where a test uses Cap.
constexpr unsigned int kCappedBytes = 4u << 20;
const std::string kCapped =
    "[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=" + std::to_string(kCappedBytes) + "\n";

/// Leaves tracked memory so many bytes while the object lives. The cap itself stands from the start: it is read by all
/// threads, and no change of it would be seen by them in order.
class Cap {
public:
    explicit Cap(unsigned int room) {
        do { // refused when another thread has taken some since they were counted
            m_pBallast = tq_malloc(kCappedBytes - AllocatedBytes() - room);
        } while (!m_pBallast);
    }
    ~Cap() { End(); }
    Cap(const Cap&) = delete;
    Cap& operator=(const Cap&) = delete;

    void End() {
        tq_free(m_pBallast);
        m_pBallast = nullptr;
    }

private:
    void* m_pBallast;
};

/// How often each other thread of the process has been put to sleep; false when one of them runs.
inline bool SleepsOfOtherThreads(std::map<long, std::string>* pSleeps) {
    const long own = syscall(SYS_gettid);
    pSleeps->clear();
    bool bAllSleep = true;
    DIR* const pThreads = opendir("/proc/self/task");
    while (const struct dirent* pThread = pThreads ? readdir(pThreads) : nullptr) {
        const long id = strtol(pThread->d_name, nullptr, 10);
        std::ifstream status("/proc/self/task/" + std::string(pThread->d_name) + "/status");
        for (std::string line; id != 0 && id != own && std::getline(status, line);) {
            bAllSleep = bAllSleep && (line.find("State:") != 0 || line.find("\tS") != std::string::npos);
            (*pSleeps)[id] += line.find("ctxt_switches") != std::string::npos ? line + "\n" : "";
        }
    }
    if (pThreads) {
        closedir(pThreads);
    }
    return bAllSleep;
}

/// Waits until no other thread of the process runs: all have slept from one look at them to the next. What they were
/// told before this call they have then finished, and none will allocate or free before it is told something again.
inline bool WaitUntilOthersSleep() {
    return WaitUntil([] {
        std::map<long, std::string> first;
        std::map<long, std::string> second;
        return SleepsOfOtherThreads(&first) && SleepsOfOtherThreads(&second) && first == second;
    });
}

} // namespace test

#endif // MEMORY_CAP_H
