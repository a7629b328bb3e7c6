#include "tq_Time_p.h"

#include <errno.h>
#include <regex>
#include <stdlib.h>
#include <string>
#include <sys/times.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "MemoryBlocks.h"
#include "TestSupport.h"
#include "tq_Memory.h"
#include "tq_SemCritSec.h"

namespace {

/// Sets the milliseconds of a tick for a scope.
struct TickLength {
    unsigned int previous;
    explicit TickLength(unsigned int msPerTick) : previous(gClockMSperTick) { gClockMSperTick = msPerTick; }
    ~TickLength() { gClockMSperTick = previous; }
};

unsigned int TicksOfTheSystem() {
    struct tms unused;
    return static_cast<unsigned int>(times(&unused));
}

struct tm At(int weekday, int monthday, int hour, int minute, int second) {
    struct tm local = {};
    local.tm_wday = weekday;
    local.tm_mday = monthday;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    return local;
}

struct tm LocalNow() {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    return local;
}

/// What a child process with the given TZ prints as its offset from UTC.
std::string OffsetIn(const char* pszZone) {
    return test::RunInChild([pszZone] {
               setenv("TZ", pszZone, 1);
               tq_TimeInitialize();
               const struct tm local = LocalNow();
               printf("%d%s", tq_GetGMTOffsetAdjustedForDaylightSavings(), local.tm_isdst > 0 ? " summer" : "");
           })
        .standardOut;
}

/// The report of the tick length.
std::string TickReport() {
    char* pszText = nullptr;
    tq_TimeShowMSPerTick(&pszText);
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

} // namespace

// ---- Clock

TEST(Clock, TakesTheNearestWholeMillisecondsOfATick) {
    struct Row {
        long ticksPerSecond;
        unsigned int msPerTick;
    };
    const Row rows[] = {{100, 10}, {1000, 1}, {60, 17}, {64, 16}, {128, 8}, {250, 4},  {300, 3},
                        {1024, 1}, {1, 1000}, {2, 500}, {3, 333}, {999, 1}, {2000, 1}, {2001, 0}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.msPerTick, tq_MSPerTickAtRate(row.ticksPerSecond, 77)) << row.ticksPerSecond;
    }
}

TEST(Clock, KeepsItsTickLengthWhenTheSystemDoesNotKnowIts) {
    EXPECT_EQ(1u, tq_MSPerTickAtRate(0, 1));
    EXPECT_EQ(1u, tq_MSPerTickAtRate(-1, 1));
    EXPECT_EQ(10u, tq_MSPerTickAtRate(-1, 10));
}

TEST(Clock, StartsWithRawTicks) {
    EXPECT_EQ(1u, gClockMSperTick.load());
    const unsigned int before = TicksOfTheSystem();
    const unsigned int now = tq_GetTimeInMS();
    EXPECT_LE(now - before, TicksOfTheSystem() - before);
}

TEST(Clock, LearnsTheTickLengthOfTheSystem) {
    EXPECT_EQ(0u, tq_TimeInitialize());
    EXPECT_EQ(tq_MSPerTickAtRate(sysconf(_SC_CLK_TCK), 1), gClockMSperTick.load());
}

TEST(Clock, CountsTheTicksOfTheSystem) {
    for (unsigned int msPerTick : {10u, 17u, 1u, 4000000000u}) {
        TickLength length(msPerTick);
        bool bMet = false;
        for (int attempt = 0; attempt < 1000 && !bMet; ++attempt) {
            const unsigned int before = TicksOfTheSystem();
            const unsigned int now = tq_GetTimeInMS();
            bMet = before == TicksOfTheSystem() && now == msPerTick * before;
        }
        EXPECT_TRUE(bMet) << msPerTick;
    }
}

TEST(Clock, AdvancesInStepsOfATick) {
    for (unsigned int msPerTick : {10u, 17u, 1u}) {
        TickLength length(msPerTick);
        const unsigned int start = tq_GetTimeInMS();
        unsigned int step = 0;
        ASSERT_TRUE(test::WaitUntil([&] { return (step = tq_GetTimeInMS() - start) != 0; }));
        EXPECT_EQ(0u, step % msPerTick) << msPerTick;
    }
}

TEST(Clock, ReadsItsCounterThroughTheValuesThatLookLikeErrors) {
    unsigned int previous = tq_TicksFromCall(static_cast<long>(-4097), 0);
    EXPECT_EQ(0xffffefffu, previous);
    EXPECT_EQ(0xfffff000u, tq_TicksFromCall(static_cast<long>(-4096), 0));
    previous = 0xfffff000u;
    for (int error = 4095; error >= 1; --error) { // EFAULT and EPERM among them
        const unsigned int ticks = tq_TicksFromCall(-1, error);
        ASSERT_EQ(1u, ticks - previous) << error;
        previous = ticks;
    }
    EXPECT_EQ(0xffffffffu, previous);
    EXPECT_EQ(0u, tq_TicksFromCall(0, 0));
    EXPECT_EQ(7u, tq_TicksFromCall(7, EFAULT)) << "what errno held before is no part of the result";
}

TEST(Clock, DifferencesHoldAcrossTheWrap) {
    for (unsigned int msPerTick : {1u, 10u, 17u}) {
        // A counter that wraps, and a counter whose product wraps.
        for (unsigned int from : {0xfffffffeu, 0xffffffffu / msPerTick}) {
            for (unsigned int ticks = 1; ticks < 5; ++ticks) {
                EXPECT_EQ(ticks * msPerTick, msPerTick * (from + ticks) - msPerTick * from);
            }
        }
    }
}

TEST(Clock, LeavesErrnoAlone) {
    errno = EDOM;
    tq_GetTimeInMS();
    EXPECT_EQ(EDOM, errno);
}

TEST(Clock, ReportsItsTickLength) {
    {
        TickLength length(10);
        EXPECT_EQ("  There are 10ms for each clock tick.\r\n", TickReport());
    }
    {
        TickLength length(1);
        EXPECT_EQ("  There is 1ms for each clock tick.\r\n", TickReport());
    }
    {
        TickLength length(4294967295u);
        EXPECT_EQ("  There are 4294967295ms for each clock tick.\r\n", TickReport());
    }
    tq_TimeShowMSPerTick(nullptr);
}

TEST(Clock, WithoutMemoryForTheReportThereIsNone) {
    test::Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=1\n");
    char text[] = "before";
    char* pszText = text;
    tq_TimeShowMSPerTick(&pszText);
    EXPECT_EQ(nullptr, pszText);
}

TEST(Clock, EndDestroysTheSectionThatIsPresent) {
    test::Memory memory("EnableMemoryTracking=yes\n");
    ASSERT_EQ(nullptr, pTimeCritSec);
    tq_TimeTerminate();
    pTimeCritSec = tq_newObject<tq_SemCritSec>(true);
    ASSERT_NE(nullptr, pTimeCritSec);
    tq_TimeTerminate();
    EXPECT_EQ(nullptr, pTimeCritSec);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
}

// ---- Calendar

TEST(Calendar, CountsSecondsIntoTheDayTheWeekAndTheMonth) {
    EXPECT_EQ(0u, tq_SecondsIntoDay(At(3, 15, 0, 0, 0)));
    EXPECT_EQ(86399u, tq_SecondsIntoDay(At(3, 15, 23, 59, 59)));
    EXPECT_EQ(86400u, tq_SecondsIntoDay(At(3, 15, 23, 59, 60)));
    EXPECT_EQ(1u, tq_SecondsIntoWeek(At(0, 15, 0, 0, 1))) << "a Sunday";
    EXPECT_EQ(86401u, tq_SecondsIntoWeek(At(1, 16, 0, 0, 1))) << "the Monday after";
    EXPECT_EQ(604799u, tq_SecondsIntoWeek(At(6, 16, 23, 59, 59)));
    EXPECT_EQ(0u, tq_SecondsIntoMonth(At(0, 1, 0, 0, 0)));
    EXPECT_EQ(86400u + 3600 + 60 + 1, tq_SecondsIntoMonth(At(0, 2, 1, 1, 1)));
    EXPECT_EQ(2678399u, tq_SecondsIntoMonth(At(0, 31, 23, 59, 59)));
}

TEST(Calendar, UsesTheLocalTime) {
    const test::ChildResult child = test::RunInChild([] {
        setenv("TZ", "ABC-5:30", 1);
        tq_TimeInitialize();
        for (int attempt = 0; attempt < 1000; ++attempt) {
            const time_t before = time(nullptr);
            const struct tm local = LocalNow();
            const bool bEqual = tq_GetSecondsIntoDay() == tq_SecondsIntoDay(local) &&
                                tq_GetSecondsIntoWeek() == tq_SecondsIntoWeek(local) &&
                                tq_GetSecondsIntoMonth() == tq_SecondsIntoMonth(local) &&
                                tq_GetSecondsIntoDay() == (static_cast<unsigned int>(before % 86400) + 19800) % 86400;
            if (before == time(nullptr)) {
                _exit(bEqual ? 0 : 1);
            }
        }
        _exit(2);
    });
    EXPECT_EQ(0, child.code);
}

TEST(Calendar, TellsTheTimeIn24Characters) {
    char now[27];
    for (int attempt = 0; attempt < 1000; ++attempt) {
        memset(now, 'x', sizeof(now));
        const time_t before = time(nullptr);
        tq_GetASCTime(now);
        if (before != time(nullptr)) {
            continue;
        }
        char expected[26];
        ASSERT_NE(nullptr, ctime_r(&before, expected));
        EXPECT_EQ(std::string(expected, 24), now);
        EXPECT_EQ('x', now[26]) << "26 bytes are enough";
        EXPECT_TRUE(
            std::regex_match(now, std::regex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}")));
        return;
    }
    FAIL() << "the seconds pass too fast";
}

TEST(Calendar, TellsTheSecondsSince1970) {
    const time_t before = time(nullptr);
    const unsigned int now = tq_time();
    EXPECT_LE(static_cast<unsigned int>(before), now);
    EXPECT_GE(static_cast<unsigned int>(time(nullptr)), now);
}

TEST(Calendar, OffsetFromUtcIsPositiveInTheEast) {
    EXPECT_EQ("3600", OffsetIn("ABC-1"));
    EXPECT_EQ("-18000", OffsetIn("ABC5"));
    EXPECT_EQ("19800", OffsetIn("ABC-5:30"));
    EXPECT_EQ("0", OffsetIn("UTC0"));
}

TEST(Calendar, OffsetFromUtcAddsNothingForDaylightSaving) {
    EXPECT_EQ("3600 summer", OffsetIn("ABC-1DEF,0/0,J365/25"));
    EXPECT_EQ("-18000 summer", OffsetIn("ABC5DEF,0/0,J365/25"));
}
