/// @file Soak.h
/// How a soak runs: a load goes on for a while or up to a count, every piece of it is accounted for, and afterwards
/// nothing stands that did not stand before.
///
/// In the environment: TQOS_SOAK_COUNT, how much is to be done instead of going on for some time; TQOS_SOAK_SECONDS,
/// another time.
#ifndef SOAK_H
#define SOAK_H

#include <atomic>
#include <chrono>
#include <memory>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Load.h"
#include "Standing.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace soak {

/// A load that can be counted.
class Soak : public test::Load {
public:
    virtual unsigned long long Done() const = 0;
};

inline unsigned long long FromEnvironment(const char* pszName, unsigned long long otherwise) {
    const char* const pszValue = getenv(pszName);
    return pszValue ? strtoull(pszValue, nullptr, 10) : otherwise;
}

/// How much is asked for; 0: as much as goes into the time.
inline unsigned long long CountAskedFor() {
    return FromEnvironment("TQOS_SOAK_COUNT", 0);
}
inline unsigned int SecondsAskedFor() {
    return static_cast<unsigned int>(FromEnvironment("TQOS_SOAK_SECONDS", TQOS_SOAK_SECONDS));
}
/// True when there is time for what takes longer than a moment.
inline bool IsLong() {
    return CountAskedFor() != 0 || SecondsAskedFor() >= 10;
}
/// How long those rest who make the load: other tests have the processor beside one that goes by the clock.
inline unsigned int PauseMs() {
    return CountAskedFor() != 0 ? 0 : 1;
}
/// The same between connections: a port that has been used is nobody's for a minute, and other tests want some.
inline unsigned int ConnectionPauseMs() {
    return 10 * PauseMs();
}

/// When a soak has done enough; ends the test when nothing is done for a time that only a hang reaches.
class Limit {
public:
    bool IsReached(unsigned long long done) {
        const auto now = std::chrono::steady_clock::now();
        if (done != m_done) {
            m_done = done;
            m_lastChange = now;
        }
        if (now > m_lastChange + std::chrono::seconds(4 * test::kHangSeconds)) {
            printf("nothing is done any more, after %llu\n", done);
            fflush(stdout);
            _exit(1);
        }
        return testing::Test::HasFailure() ||
               (CountAskedFor() != 0 ? done >= CountAskedFor()
                                     : now >= m_begin + std::chrono::seconds(SecondsAskedFor()));
    }

private:
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_lastChange = m_begin;
    unsigned long long m_done = 0;
};

/// What a run that was counted is recorded by.
inline void SayDone(const char* pszKind, unsigned long long done, const std::string& account) {
    printf("soak: %s: %llu done: %s\n", pszKind, done, account.c_str());
}

inline unsigned int HandlesInUse() {
    const tq_ListLock lock(gpHandleList);
    return gAllocatedHandles;
}

/// What must be as it was: to the last one, but for the memory, of which lists and pools keep a little for next time.
struct BaseLine {
    test::Standing standing;
    unsigned int handles = HandlesInUse();
    unsigned int bytes = gRequestedMemoryAllocations;
};

constexpr unsigned int kBytesKept = 65536;

inline void ExpectSame(const BaseLine& before, const BaseLine& after) {
    EXPECT_TRUE(after.standing == before.standing) << "before:\n"
                                                   << before.standing.Text() << "after:\n"
                                                   << after.standing.Text();
    EXPECT_EQ(before.handles, after.handles);
    EXPECT_LE(after.bytes, before.bytes + kBytesKept);
}

/// Starts what only starts when it is first needed: the threads of timers, sockets and network trace.
inline void StartServices() {
    EXPECT_EQ(1u, tq_TimerKill(1, 0, 0, 0));
    CheckForInitialization();
    const unsigned int hTrace = tq_TraceInitInstance("Services");
    EXPECT_EQ(0, tq_TraceEnableMulticast(hTrace));
    EXPECT_EQ(0, tq_TraceTermInstance(hTrace));
}
constexpr unsigned int kServiceThreads = 3;

/// What a kind of soak needs besides the library's memory under watch.
struct Setting {
    const char* pszKind;
    const char* pszIni;   ///< more of tqos.ini
    void (*pfnBetween)(); ///< called at rest, between warming up and the soak itself; may be null
};

constexpr char kIni[] = "[Memory]\nEnableMemoryPooling=yes\nEnableMemoryTracking=yes\nDirtyMemoryFree=0xDD\n"
                        "[SignalHandler]\nDisable=yes\n";

template <class Kind> void RunOnce(bool bWarmUp, const char* pszKind) {
    const auto pSoak = std::make_unique<Kind>();
    EXPECT_TRUE(test::WaitUntil([&] { return pSoak->HasWorked(); }, test::kHangSeconds));
    for (Limit limit; !bWarmUp && !limit.IsReached(pSoak->Done());) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pSoak->Stop();
    if (!bWarmUp) {
        SayDone(pszKind, pSoak->Done(), pSoak->Account());
    }
}

template <class Kind> void RunSoak(const Setting& setting) {
    test::StartAndEndAThread();
    const unsigned int threads = test::ThreadsOfProcess();
    const unsigned int descriptors = test::DescriptorsOfProcess();
    test::Library library(std::string(kIni) + setting.pszIni);
    const auto atRest = [threads] { return test::IsAtRest(threads + kServiceThreads); };
    StartServices();
    RunOnce<Kind>(/*bWarmUp=*/true, setting.pszKind);
    EXPECT_TRUE(test::WaitUntil(atRest, test::kHangSeconds));
    const BaseLine before;
    if (setting.pfnBetween) {
        setting.pfnBetween();
    }

    RunOnce<Kind>(/*bWarmUp=*/false, setting.pszKind);
    EXPECT_TRUE(test::WaitUntil(atRest, test::kHangSeconds));
    ExpectSame(before, BaseLine());
    EXPECT_FALSE(tq_CheckMemoryPools()) << "damaged memory";
    EXPECT_EQ("", test::ReadFile("tqos_error.log"));

    testing::internal::CaptureStdout();
    library.Terminate(/*bDumpResources=*/true);
    EXPECT_EQ("No memory leaks detected!\n\n", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(test::WaitUntil([threads] { return test::ThreadsOfProcess() == threads; }, test::kHangSeconds));
    EXPECT_EQ(descriptors, test::DescriptorsOfProcess());
}

} // namespace soak

#endif // SOAK_H
