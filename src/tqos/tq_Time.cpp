#include "tq_Time_p.h"

#include <errno.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include "tq_CritSecEnd_p.h"
#include "tq_Report_p.h"

std::atomic<unsigned int> gClockMSperTick{1};
tq_SemCritSec* pTimeCritSec = nullptr;

namespace {

constexpr unsigned int kMSPerTickTextBytes = 64;

static_assert(sizeof(time_t) == 8, "the calendar goes on after 2038");

struct tm LocalTime() {
    const time_t now = time(nullptr);
    struct tm local;
    memset(&local, 0, sizeof(local));
    localtime_r(&now, &local);
    return local;
}

unsigned int SecondsAfterDays(int days, const struct tm& local) {
    return static_cast<unsigned int>(((days * 24 + local.tm_hour) * 60 + local.tm_min) * 60 + local.tm_sec);
}

} // namespace

unsigned int tq_MSPerTickAtRate(long ticksPerSecond, unsigned int current) {
    return ticksPerSecond > 0 ? static_cast<unsigned int>((ticksPerSecond / 2 + 1000) / ticksPerSecond) : current;
}

unsigned int tq_TicksFromCall(long result, int errorNumber) {
    // The call cannot fail: what comes back as an error is the counter shortly before its wrap.
    return result == -1 ? 0u - static_cast<unsigned int>(errorNumber) : static_cast<unsigned int>(result);
}

unsigned int tq_ClockTicks() {
    // Asked for without a buffer, the kernel reads one counter instead of adding up the times of every thread of the
    // process. The C library's times() will not do here: it takes the tick that looks like EFAULT for a bad buffer and
    // touches it.
    const int savedError = errno;
    errno = 1; // where the kernel tells errors apart from results, a counter of -1 leaves this as it is
    const long result = syscall(SYS_times, nullptr);
    const unsigned int ticks = tq_TicksFromCall(result, errno);
    errno = savedError;
    return ticks;
}

unsigned int tq_SecondsIntoMonth(const struct tm& local) {
    return SecondsAfterDays(local.tm_mday - 1, local);
}

unsigned int tq_SecondsIntoWeek(const struct tm& local) {
    return SecondsAfterDays(local.tm_wday, local);
}

unsigned int tq_SecondsIntoDay(const struct tm& local) {
    return SecondsAfterDays(0, local);
}

extern "C" {

unsigned int tq_GetTimeInMS() {
    return gClockMSperTick.load(std::memory_order_relaxed) * tq_ClockTicks();
}

unsigned int tq_time() {
    return static_cast<unsigned int>(time(nullptr));
}

unsigned int tq_GetSecondsIntoMonth() {
    return tq_SecondsIntoMonth(LocalTime());
}

unsigned int tq_GetSecondsIntoWeek() {
    return tq_SecondsIntoWeek(LocalTime());
}

unsigned int tq_GetSecondsIntoDay() {
    return tq_SecondsIntoDay(LocalTime());
}

void tq_GetASCTime(char* buf) {
    const time_t now = time(nullptr);
    if (ctime_r(&now, buf)) {
        buf[24] = '\0'; // the line feed
    } else {
        buf[0] = '\0';
    }
}

int tq_GetGMTOffsetAdjustedForDaylightSavings() {
    // Deliberate: despite the name, daylight saving adds nothing, whether the zone knows it or not. The result is the
    // zone's standard offset all year round.
    return static_cast<int>(-timezone);
}

void tq_TimeShowMSPerTick(char** pszResponse) {
    if (!pszResponse) {
        return;
    }
    const unsigned int msPerTick = gClockMSperTick.load(std::memory_order_relaxed);
    tq_ReportText report(kMSPerTickTextBytes);
    report.Append("  There %s %ums for each clock tick.\r\n", msPerTick == 1 ? "is" : "are", msPerTick);
    *pszResponse = report.Release();
}

unsigned int tq_TimeInitialize() {
    tzset();
    gClockMSperTick = tq_MSPerTickAtRate(sysconf(_SC_CLK_TCK), gClockMSperTick);
    return 0;
}

void tq_TimeTerminate() {
    if (pTimeCritSec) {
        tq_CritSecDestroy(pTimeCritSec);
        pTimeCritSec = nullptr;
    }
}

} // extern "C"
