// The sweeps: every scenario in every memory mode with its k-th allocation refused, once and from then on, and with the
// cap on memory reached; and every scenario with its system calls failing.
//
// By default a test takes a seeded choice of points. The environment widens it:
//   TQOS_SWEEP_POINTS=all      every point, or a number of them a test
//   TQOS_SWEEP_SEED=n          another choice
//   TQOS_SWEEP_FROM=n          leaves n points out: goes on where an earlier run was stopped
//   TQOS_SWEEP_MOST=n          of what is then left, no more than this
#include <algorithm>
#include <chrono>
#include <random>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "BaseLine.h"
#include "Faults.h"
#include "MemoryBlocks.h"
#include "Scenario.h"
#include "TestSupport.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace faults {

namespace {

constexpr unsigned int kPoints = 40;      ///< of allocations, a scenario and mode
constexpr unsigned int kCapPoints = 10;   ///< of the cap
constexpr unsigned int kSystemPoints = 8; ///< of system calls, a scenario
constexpr unsigned int kCleanRuns = 3;
constexpr unsigned int kMostSinkings = 5;
constexpr std::chrono::seconds kLongestRun(5);
constexpr unsigned int kHangSeconds = 120;
constexpr unsigned int kCapBytes = 24u << 20;

struct Mode {
    const char* pszName;
    const char* pszKeys; ///< of section Memory, and other sections behind them
};

// The cap stands from the start: it is read by all threads. What the library traces of the failures goes to a file.
#define TRACKING_KEYS "EnableMemoryTracking=yes\nMemoryCapInBytes=25165824\n"
#define TRACE_KEYS                                                                                                     \
    "[Trace]\nDefaultLogToSTDOUT=no\ntqos_Level=Warning\ntqos_LogToFile=own.txt\ntqos_MaxFiles=2\ntqos_"               \
    "MaxBytesPerFile=65536\n"
const Mode kModes[] = {
    {"Plain", "[Trace]\nDefaultLogToSTDOUT=no\ntqos_Level=None\n"},
    {"Tracking", TRACKING_KEYS TRACE_KEYS},
    {"Pools", TRACKING_KEYS "EnableMemoryPooling=yes\n" TRACE_KEYS},
};

// What is being tried, for whoever finds the process dead

char gPoint[512];

void SayPoint() {
    const ssize_t written = write(STDERR_FILENO, gPoint, strlen(gPoint));
    static_cast<void>(written);
}

void OnDeath(int sig) {
    SayPoint();
    const char kHow[] = "the process hangs or has crashed\n";
    const ssize_t written = write(STDERR_FILENO, kHow, sizeof(kHow) - 1);
    static_cast<void>(written);
    signal(sig, SIG_DFL);
    if (sig == SIGALRM) {
        abort();
    }
    raise(sig);
}

} // namespace

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*pfnCallback)());

namespace {

void WatchForDeath() {
    signal(SIGALRM, OnDeath);
    if (__sanitizer_set_death_callback) {
        __sanitizer_set_death_callback(SayPoint);
        return;
    }
    for (int sig : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        signal(sig, OnDeath);
    }
}

/// A number that the environment gives.
unsigned long Setting(const char* pszName, unsigned long otherwise) {
    const char* const pszValue = getenv(pszName);
    if (!pszValue) {
        return otherwise;
    }
    return strcmp(pszValue, "all") == 0 ? ~0ul : strtoul(pszValue, nullptr, 10);
}

std::string IniFor(const Mode& mode, const Scenario& scenario) {
    return std::string("[SignalHandler]\nDisable=yes\n[Memory]\n") + scenario.pszMemoryKeys + mode.pszKeys;
}

/// A scenario in a mode: runs it with faults, and looks at what each leaves behind.
class Sweep {
public:
    Sweep(const Scenario& scenario, const Mode& mode) : m_scenario(scenario), m_mode(mode) {
        WatchForDeath();
        test::WriteFile("tqos.ini", IniFor(mode, scenario));
        gRequestedMemoryAllocations = gTotalMemoryAllocations = 0; // a test before may have left them anywhere
        if (!scenario.bOwnLibrary) {
            EXPECT_EQ(0u, tqOS_Initialize());
        }
        for (unsigned int i = 0; i < kCleanRuns; ++i) {
            RunClean("first");
        }
        m_base = ReadSettled();
    }
    ~Sweep() {
        alarm(0);
        if (!m_scenario.bOwnLibrary) {
            tqOS_Terminate(false, true);
        }
        printf("%s, %s: %u points, struck at %u\n", m_scenario.pszName, m_mode.pszName, m_points, m_struck);
    }
    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

    /// Runs the scenario without a fault; every step must succeed.
    void RunClean(const char* pszWhen) {
        snprintf(gPoint, sizeof(gPoint), "%s, %s, %s clean run: ", m_scenario.pszName, m_mode.pszName, pszWhen);
        alarm(kHangSeconds);
        Run run(/*bFaulted=*/false);
        m_scenario.pfnRun(run);
    }

    /// The calls that a clean run makes.
    void Count() {
        Arm({Call::kMemory, 0, false, 0});
        RunClean("counting");
        Disarm();
    }

    /// One point: a run with the fault, the counters, and a run without it.
    void Try(const Fault& fault) {
        const CallRow& row = kCallRows[static_cast<size_t>(fault.call)];
        char what[256];
        snprintf(what, sizeof(what), "%s %u%s %s", row.pszName, fault.first,
                 fault.bOnwards ? " and all that follow" : "", ErrorName(fault.error));
        TryWith(what, [&] {
            Arm(fault);
            RunFaulted();
            Disarm();
        });
    }

    /// A run that finds so much memory left below the cap.
    void TryCap(unsigned int room) {
        char what[64];
        snprintf(what, sizeof(what), "%u bytes below the cap", room);
        TryWith(what, [&] {
            const unsigned int used = UsedBytes();
            void* const pBallast = kCapBytes - used > room ? tq_malloc(kCapBytes - used - room) : nullptr;
            Arm({Call::kMemory, 0, false, 0});
            RunFaulted();
            Disarm();
            tq_free(pBallast);
        });
    }

    /// The most bytes above those at the start that a clean run uses.
    unsigned int PeakBytes() {
        const unsigned int used = UsedBytes();
        {
            myCritSecLock lock(MemoryTrackingCritSec);
            gMaxRequestedMemoryAllocations = +gRequestedMemoryAllocations;
        }
        RunClean("measuring");
        myCritSecLock lock(MemoryTrackingCritSec);
        return gMaxRequestedMemoryAllocations - used;
    }

private:
    static unsigned int UsedBytes() {
        myCritSecLock lock(MemoryTrackingCritSec);
        return gRequestedMemoryAllocations;
    }

    void RunFaulted() {
        Run run(/*bFaulted=*/true);
        m_scenario.pfnRun(run);
        m_struck += run.Failed().empty() ? 0 : 1;
    }

    template <typename Attempt> void TryWith(const char* pszWhat, Attempt attempt) {
        using Clock = std::chrono::steady_clock;
        ++m_points;
        std::chrono::milliseconds took(0);
        // A machine that stands still for a while is no fault of the library: what is slow once is tried again.
        for (int tries = 0; tries < 3; ++tries) {
            snprintf(gPoint, sizeof(gPoint), "%s, %s, %s: ", m_scenario.pszName, m_mode.pszName, pszWhat);
            const testing::ScopedTrace trace(__FILE__, __LINE__, gPoint);
            alarm(kHangSeconds);
            const Clock::time_point begin = Clock::now();
            attempt();
            took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
            const std::string point = gPoint;
            PutCountersRight();
            RunClean(("after " + point).c_str());
            Compare(point);
            if (took <= kLongestRun) {
                return;
            }
        }
        ADD_FAILURE() << m_scenario.pszName << ", " << m_mode.pszName << ", " << pszWhat << " took " << took.count()
                      << " ms";
    }

    /// The base line, with what the scenario may lose.
    Reading Allowed() const {
        Reading allowed = m_base;
        for (const Exception& exception : m_scenario.exceptions) {
            allowed[exception.counter] += exception.pszReason ? std::max(exception.most, 0l) : 0;
        }
        return allowed;
    }

    bool MayLieBelow(size_t counter) const {
        for (const Exception& exception : m_scenario.exceptions) {
            if (exception.pszReason && exception.most < 0 && exception.counter == counter) {
                return true;
            }
        }
        return false;
    }

    /// What a deliberate oddity has counted out once too often is counted in again: the counter would wrap, and every
    /// request would then be above the cap.
    void PutCountersRight() const {
        const long now = ReadCounters()[kTrackedBytes];
        if (MayLieBelow(kTrackedBytes)) {
            myCritSecLock lock(MemoryTrackingCritSec);
            gRequestedMemoryAllocations =
                gRequestedMemoryAllocations + static_cast<unsigned int>(m_base[kTrackedBytes] - now);
        }
    }

    void Compare(const std::string& point) {
        const bool bBack = ComesBackTo(Allowed());
        const Reading now = ReadCounters();
        if (!bBack) {
            ADD_FAILURE() << point << "not back at the base line: " << Difference(m_base, now);
        }
        for (size_t i = 0; i < kCounters; ++i) {
            // The base line may have been taken while a thread was ending; what goes down again and again is a fault.
            m_sinkings += now[i] < m_base[i] && !MayLieBelow(i) ? 1 : 0;
        }
        if (m_sinkings > kMostSinkings) {
            ADD_FAILURE() << point << "below the base line: " << Difference(m_base, now);
            m_sinkings = 0;
        }
        m_base = now; // says each loss once
    }

    const Scenario& m_scenario;
    const Mode& m_mode;
    const test::ScratchDirectory m_directory;
    Reading m_base = {};
    unsigned int m_points = 0;
    unsigned int m_struck = 0;
    unsigned int m_sinkings = 0;
};

/// A choice of numbers below `count`, in order: all of them, or a seeded choice.
std::vector<unsigned int> Choose(unsigned int count, unsigned int usual) {
    const unsigned long most = Setting("TQOS_SWEEP_POINTS", usual);
    const unsigned long seed = Setting("TQOS_SWEEP_SEED", 1);
    printf("seed %lu, %u points in all\n", seed, count);
    std::vector<unsigned int> all(count);
    for (unsigned int i = 0; i < count; ++i) {
        all[i] = i;
    }
    if (count > most) {
        std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
        for (unsigned int i = 0; i < most; ++i) {
            std::swap(all[i], all[i + random() % (count - i)]);
        }
        all.resize(most);
        std::sort(all.begin(), all.end());
    }
    const unsigned long from = std::min<unsigned long>(Setting("TQOS_SWEEP_FROM", 0), all.size());
    all.erase(all.begin(), all.begin() + static_cast<long>(from));
    all.resize(std::min<unsigned long>(all.size(), Setting("TQOS_SWEEP_MOST", ~0ul)));
    return all;
}

class AllocationSweep : public testing::TestWithParam<std::tuple<size_t, size_t>> {};
class CapSweep : public testing::TestWithParam<std::tuple<size_t, size_t>> {};
class SystemCallSweep : public testing::TestWithParam<size_t> {};

TEST_P(AllocationSweep, FailsAsDocumentedAndLosesNothing) {
    Sweep sweep(kScenarios[std::get<0>(GetParam())], kModes[std::get<1>(GetParam())]);
    sweep.Count();
    for (unsigned int point : Choose(Made(Call::kMemory) * 2, kPoints)) {
        sweep.Try({Call::kMemory, point / 2 + 1, point % 2 == 1, ENOMEM});
    }
}

TEST_P(CapSweep, FailsAsDocumentedAndLosesNothing) {
    Sweep sweep(kScenarios[std::get<0>(GetParam())], kModes[std::get<1>(GetParam())]);
    for (unsigned int room : Choose(sweep.PeakBytes(), kCapPoints)) {
        sweep.TryCap(room);
    }
}

/// The faults that a clean run's calls allow: for each call that it makes and each error the first, the last but for
/// some, and every one.
std::vector<Fault> SystemFaults() {
    std::vector<Fault> faults;
    for (const CallRow& row : kCallRows) {
        const unsigned int made = row.call == Call::kMemory ? 0 : Made(row.call);
        for (const int* pError = row.errors; made != 0 && *pError != 0; ++pError) {
            faults.push_back({row.call, 1, false, *pError});
            faults.push_back({row.call, 1, true, *pError});
            if (made > 1) {
                faults.push_back({row.call, made / 2 + 1, false, *pError});
            }
        }
    }
    return faults;
}

TEST_P(SystemCallSweep, FailsAsDocumentedAndLosesNothing) {
    Sweep sweep(kScenarios[GetParam()], kModes[1]);
    sweep.Count();
    const std::vector<Fault> faults = SystemFaults();
    for (unsigned int point : Choose(static_cast<unsigned int>(faults.size()), kSystemPoints)) {
        sweep.Try(faults[point]);
    }
}

std::string NameOf(size_t scenario, size_t mode) {
    return std::string(kScenarios[scenario].pszName) + "_" + kModes[mode].pszName;
}

const auto kEveryScenario = testing::Range<size_t>(0, kScenarioCount);

INSTANTIATE_TEST_SUITE_P(Faults, AllocationSweep, testing::Combine(kEveryScenario, testing::Range<size_t>(0, 3)),
                         [](const auto& point) { return NameOf(std::get<0>(point.param), std::get<1>(point.param)); });
INSTANTIATE_TEST_SUITE_P(Faults, CapSweep, testing::Combine(kEveryScenario, testing::Range<size_t>(1, 3)),
                         [](const auto& point) { return NameOf(std::get<0>(point.param), std::get<1>(point.param)); });
INSTANTIATE_TEST_SUITE_P(Faults, SystemCallSweep, kEveryScenario,
                         [](const auto& point) { return std::string(kScenarios[point.param].pszName); });

} // namespace

} // namespace faults
