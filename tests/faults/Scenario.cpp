#include "Scenario.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "Faults.h"

namespace faults {

namespace {

constexpr std::chrono::milliseconds kPause(1);
constexpr std::chrono::milliseconds kAfterTheFault(100); ///< for what may still come although a call failed
constexpr std::chrono::seconds kHang(60);

} // namespace

void Run::Take(const char* pszStep, bool bGood) {
    if (bGood) {
        return;
    }
    m_failed.push_back(pszStep);
    if (!m_bFaulted) {
        ADD_FAILURE() << pszStep << " fails without a fault";
    }
}

bool Run::Zero(const char* pszStep, long result, std::initializer_list<long> failures) {
    return Is(pszStep, 0, result, failures);
}

bool Run::Is(const char* pszStep, long wanted, long result, std::initializer_list<long> failures) {
    bool bDocumented = result == wanted;
    for (long failure : failures) {
        bDocumented = bDocumented || result == failure;
    }
    EXPECT_TRUE(bDocumented) << pszStep << " gives " << result << ", which is none of its results";
    Take(pszStep, result == wanted);
    return result == wanted;
}

void Run::Must(const char* pszWhat, bool bHolds) {
    EXPECT_TRUE(bHolds) << pszWhat;
}

bool Run::Comes(const char* pszWhat, const std::function<bool()>& condition) {
    using Clock = std::chrono::steady_clock;
    const Exempt exempt;
    const Clock::time_point hang = Clock::now() + kHang;
    Clock::time_point giveUp = hang;
    bool bStruck = false;
    bool bCame = condition();
    while (!bCame && Clock::now() < giveUp) {
        if (!bStruck && m_bFaulted && HasStruck()) {
            bStruck = true;
            giveUp = Clock::now() + kAfterTheFault;
        }
        std::this_thread::sleep_for(kPause);
        bCame = condition();
    }
    Take(pszWhat, bCame);
    return bCame;
}

} // namespace faults
