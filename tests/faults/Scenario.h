/// @file Scenario.h
/// What an application does with one subsystem, written so that any step may fail: each result is either the one that
/// is wanted or the one that the step's documentation gives for failure, and everything is given back in the end.
#ifndef SCENARIO_H
#define SCENARIO_H

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "BaseLine.h"

namespace faults {

/// One run of a scenario: takes the result of each step.
class Run {
public:
    /// @param bFaulted  a fault is armed: steps may fail in their documented way
    explicit Run(bool bFaulted) : m_bFaulted(bFaulted) {}
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// A pointer, of which null says that it failed. The result is returned.
    template <typename T> T* Pointer(const char* pszStep, T* pResult) {
        Take(pszStep, pResult != nullptr);
        return pResult;
    }
    /// A handle, an id or a count, of which 0 says that it failed.
    template <typename T> T Handle(const char* pszStep, T result) {
        Take(pszStep, result != 0);
        return result;
    }
    bool True(const char* pszStep, bool bResult) {
        Take(pszStep, bResult);
        return bResult;
    }
    /// A code, of which 0 is success. Anything but it and the documented failures fails the test.
    bool Zero(const char* pszStep, long result, std::initializer_list<long> failures = {1});
    /// A value that is known, or the one that says that the step failed. True when it is the known one.
    bool Is(const char* pszStep, long wanted, long result, std::initializer_list<long> failures);
    /// What a fault does not excuse.
    void Must(const char* pszWhat, bool bHolds);

    /// Waits for something that other threads bring about. A fault may keep it from happening: once it has struck, the
    /// wait is short. False when it has not happened.
    bool Comes(const char* pszWhat, const std::function<bool()>& condition);

    /// Steps that failed.
    const std::vector<std::string>& Failed() const { return m_failed; }

private:
    void Take(const char* pszStep, bool bGood);

    const bool m_bFaulted;
    std::vector<std::string> m_failed;
};

/// What a scenario may lose on purpose when a call fails, and why.
struct Exception {
    Counter counter;
    long most;             ///< by which the counter may lie above the base line, or, when negative, any lower than it
    const char* pszReason; ///< null: no exception
};

struct Scenario {
    const char* pszName;
    void (*pfnRun)(Run&);
    const char* pszMemoryKeys; ///< of section Memory, besides those of the mode
    bool bOwnLibrary;          ///< it starts and stops the library itself
    const char* pszFailures;   ///< how its steps say that they failed
    Exception exceptions[3];
};

extern const Scenario kScenarios[];
extern const size_t kScenarioCount;

// The scenarios, by floor.
void MemoryBlocks(Run& run);
void MemoryGrowth(Run& run);
void MemoryReports(Run& run);
void Settings(Run& run);
void Files(Run& run);
void ErrorLog(Run& run);
void Handles(Run& run);
void Clock(Run& run);
void Locks(Run& run);
void TrackedWaits(Run& run);
void Threads(Run& run);
void Lists(Run& run);
void SortedLists(Run& run);
void Hashes(Run& run);
void ListReports(Run& run);
void Strings(Run& run);
void StringEscapes(Run& run);
void Compression(Run& run);
void Processes(Run& run);
void QueueMessages(Run& run);
void QueueReplacing(Run& run);
void QueueReports(Run& run);
void Timers(Run& run);
void TimerReports(Run& run);
void TraceInstances(Run& run);
void TraceFiles(Run& run);
void TraceDumps(Run& run);
void StartAndStop(Run& run);
void StartEverything(Run& run);
void ManyOfEach(Run& run);
void TcpConversation(Run& run);
void TcpFlood(Run& run);
void Datagrams(Run& run);
void LocalDomain(Run& run);
void SocketReports(Run& run);
void Interfaces(Run& run);
void HostNames(Run& run);
void NetworkTrace(Run& run);
void ConsoleSession(Run& run);
void ConsoleReports(Run& run);

} // namespace faults

#endif // SCENARIO_H
