// What the machine allows of trace: the test of a flag behind a call, and a line written by the C library.
#include <cstdio>
#include <ctime>

#include <syslog.h>
#include <unistd.h>

#include "Bench.h"
#include "FlagTest.h"

namespace {

double FilteredOut(int threads) {
    return bench::NanosecondsEachOnThreads(threads, [](int) -> std::function<double()> {
        return [] {
            for (int i = 0; i < 1000; ++i) {
                bench::Keep(i); // nothing is known from the call before
                FlagTest(1, 10000, 1, true, "value %d of %s\n", i, "bench");
            }
            return 1000.0;
        };
    });
}

/// A line as the library's trace writes them.
int FormatLine(char* pText, std::size_t bytes, int i) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char date[32];
    asctime_r(&local, date);
    date[24] = 0;
    return snprintf(pText, bytes, "%s [%03ld]: (Bench0) WRN: value %d of %s\n", date, now.tv_nsec / 1000000, i,
                    "bench");
}

enum class Way { Stream, StreamAndLog, Descriptor };

double LinesToFile(Way way) {
    FILE* pFile = fopen("lines.log", "w");
    const int fd = fileno(pFile);
    openlog("bench", LOG_PID, LOG_USER);
    const double rate = bench::PerSecond([&] {
        for (int i = 0; i < 100; ++i) {
            char line[200];
            const int length = FormatLine(line, sizeof(line), i);
            if (way == Way::Descriptor) {
                bench::Keep(write(fd, line, static_cast<std::size_t>(length)));
                continue;
            }
            fputs(line, pFile);
            fflush(pFile);
            if (way == Way::StreamAndLog) {
                syslog(LOG_WARNING, "value %d of %s\n", i, "bench");
            }
        }
        return 100.0;
    });
    fclose(pFile);
    return rate;
}

} // namespace

PEER_BENCH("trace/filtered", "flag test") {
    return FilteredOut(1);
}

PEER_BENCH("trace/filtered-two-threads", "flag test") {
    return FilteredOut(2);
}

PEER_BENCH("trace/filtered-20-instances", "flag test") {
    return FilteredOut(1);
}

PEER_BENCH("trace/filtered-20-instances-two-threads", "flag test") {
    return FilteredOut(2);
}

PEER_BENCH("trace/line-to-file", "fputs, fflush, syslog") {
    return LinesToFile(Way::StreamAndLog);
}

PEER_BENCH("trace/line-to-file", "fputs, fflush") {
    return LinesToFile(Way::Stream);
}

PEER_BENCH("trace/line-to-file", "write") {
    return LinesToFile(Way::Descriptor);
}
