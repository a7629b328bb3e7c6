// spdlog.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "Bench.h"

namespace {

double FilteredOut(int threads) {
    const auto pLogger = spdlog::basic_logger_mt("bench", "lines.log");
    pLogger->set_level(spdlog::level::warn);
    return bench::NanosecondsEachOnThreads(threads, [&pLogger](int) -> std::function<double()> {
        return [pLogger] {
            for (int i = 0; i < 1000; ++i) {
                bench::Keep(i); // nothing is known from the call before
                pLogger->debug("value {} of {}", i, "bench");
            }
            return 1000.0;
        };
    });
}

/// By name, as this library's calls go by handle.
double FilteredOutByName(int threads, int count) {
    for (int i = 0; i < count; ++i) {
        spdlog::basic_logger_mt("bench" + std::to_string(i), "lines.log")->set_level(spdlog::level::warn);
    }
    const std::string name = "bench" + std::to_string(count - 1);
    return bench::NanosecondsEachOnThreads(threads, [&name](int) -> std::function<double()> {
        return [name] {
            for (int i = 0; i < 1000; ++i) {
                bench::Keep(i); // nothing is known from the call before
                spdlog::get(name)->debug("value {} of {}", i, "bench");
            }
            return 1000.0;
        };
    });
}

} // namespace

PEER_BENCH("trace/filtered", "spdlog") {
    return FilteredOut(1);
}

PEER_BENCH("trace/filtered-two-threads", "spdlog") {
    return FilteredOut(2);
}

PEER_BENCH("trace/filtered-20-instances", "spdlog, by name") {
    return FilteredOutByName(1, 20);
}

PEER_BENCH("trace/filtered-20-instances-two-threads", "spdlog, by name") {
    return FilteredOutByName(2, 20);
}

PEER_BENCH("trace/line-to-file", "spdlog") {
    const auto pLogger = spdlog::basic_logger_mt("bench", "lines.log");
    pLogger->flush_on(spdlog::level::warn);
    return bench::PerSecond([&pLogger] {
        for (int i = 0; i < 100; ++i) {
            pLogger->warn("value {} of {}", i, "bench");
        }
        return 100.0;
    });
}
