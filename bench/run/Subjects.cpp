#include "Subjects.h"

namespace {

constexpr Compare kAtLeast = Compare::AtLeast;
constexpr Compare kAtMost = Compare::AtMost;

Target BestPeer(Compare compare, double bound) {
    return {Reference::BestPeer, nullptr, compare, bound};
}

Target Floor(Compare compare, double bound) {
    return {Reference::Floor, nullptr, compare, bound};
}

Target Named(const char* pszLabel, Compare compare, double bound, bool bAim = false) {
    return {Reference::Peer, pszLabel, compare, bound, bAim};
}

Target Itself(const char* pszSubject, Compare compare, double bound, bool bAim = false) {
    return {Reference::Itself, pszSubject, compare, bound, bAim};
}

Target Value(Compare compare, double bound) {
    return {Reference::Value, nullptr, compare, bound};
}

} // namespace

const std::vector<Subject>& AllSubjects() {
    constexpr Better kMore = Better::More;
    constexpr Better kLess = Better::Less;
    static const std::vector<Subject> subjects = {
        {"queue/one-producer",
         "queue, 1 producer to 1 handler, 2 cores",
         "M msg/s",
         kMore,
         1e-6,
         {BestPeer(kAtLeast, 1.0), Floor(kAtLeast, 0.9)}},
        {"queue/four-producers",
         "queue, 4 producers, 2 cores",
         "M msg/s",
         kMore,
         1e-6,
         {BestPeer(kAtLeast, 0.8), Floor(kAtLeast, 0.5)}},
        {"queue/four-producers-one-core",
         "queue, 4 producers, 1 core",
         "M msg/s",
         kMore,
         1e-6,
         {BestPeer(kAtLeast, 0.6), Floor(kAtLeast, 0.5)}},
        {"queue/round-trip-one-core",
         "queue, round trip, 1 core",
         "us",
         kLess,
         1,
         {BestPeer(kAtMost, 1.3), Floor(kAtMost, 1.45)}},
        {"queue/round-trip-two-cores",
         "queue, round trip, 2 cores",
         "us",
         kLess,
         1,
         {BestPeer(kAtMost, 1.1), Floor(kAtMost, 1.15)}},
        {"queue/one-producer-beside-10000",
         "queue, 1 producer, 10 000 other queues",
         "M msg/s",
         kMore,
         1e-6,
         {Itself("queue/one-producer", kAtLeast, 0.95)}},

        {"timers/10-armed",
         "timer, set and kill, 10 armed",
         "k pairs/s",
         kMore,
         1e-3,
         {Named("GLib", kAtLeast, 1.0), Named("Boost.Asio", kAtLeast, 1.0, true)}},
        {"timers/1000-armed",
         "timer, set and kill, 1000 armed",
         "k pairs/s",
         kMore,
         1e-3,
         {Named("GLib", kAtLeast, 1.0), Named("Boost.Asio", kAtLeast, 1.0, true)}},
        {"timers/20000-armed",
         "timer, set and kill, 20 000 armed",
         "k pairs/s",
         kMore,
         1e-3,
         {Named("GLib", kAtLeast, 1.0), Named("Boost.Asio", kAtLeast, 1.0, true),
          Itself("timers/10-armed", kAtLeast, 0.3)}},

        {"timers/lateness", "timer of 10 ms, late by", "us", kLess, 1, {Value(kAtMost, 200)}},
        {"timers/skipped", "of its periods, skipped a clock step", "%", kLess, 1, {Value(kAtMost, 0)}},

        {"tcp/echo-one-core",
         "TCP echo, 1 connection, 1 core",
         "k/s",
         kMore,
         1e-3,
         {BestPeer(kAtLeast, 0.65), Named("epoll, handed over", kAtLeast, 0.85)}},
        {"tcp/echo-50",
         "TCP echo, 50 connections",
         "k/s",
         kMore,
         1e-3,
         {BestPeer(kAtLeast, 0.55), Named("epoll, handed over", kAtLeast, 0.8)}},
        {"tcp/echo-500",
         "TCP echo, 500 connections",
         "k/s",
         kMore,
         1e-3,
         {BestPeer(kAtLeast, 0.55), Named("epoll, handed over", kAtLeast, 0.6)}},

        {"tcp/one-beside-500-idle",
         "one connection beside 500 idle ones",
         "k/s",
         kMore,
         1e-3,
         {Itself("tcp/one-connection", kAtLeast, 0.6)}},
        {"tcp/one-beside-500-idle-one-core",
         "the same, 1 core",
         "k/s",
         kMore,
         1e-3,
         {Itself("tcp/echo-one-core", kAtLeast, 0.6, true)}},
        {"tcp/stream-in", "TCP stream in", "GB/s", kMore, 1e-9, {BestPeer(kAtLeast, 0.7), Floor(kAtLeast, 0.7)}},
        {"tcp/stream-out", "TCP stream out", "GB/s", kMore, 1e-9, {BestPeer(kAtLeast, 0.7), Floor(kAtLeast, 0.7)}},

        {"trace/filtered",
         "trace call filtered out, 1 thread",
         "ns",
         kLess,
         1,
         {Named("spdlog", kAtMost, 0.5), Floor(kAtMost, 2)}},
        {"trace/filtered-two-threads",
         "trace call filtered out, 2 threads",
         "ns",
         kLess,
         1,
         {Named("spdlog", kAtMost, 0.5), Floor(kAtMost, 2)}},
        {"trace/filtered-20-instances",
         "the same, 20 instances, 1 thread",
         "ns",
         kLess,
         1,
         {Named("spdlog, by name", kAtMost, 0.5), Floor(kAtMost, 2)}},
        {"trace/filtered-20-instances-two-threads",
         "the same, 20 instances, 2 threads",
         "ns",
         kLess,
         1,
         {Named("spdlog, by name", kAtMost, 0.5), Floor(kAtMost, 2)}},
        {"trace/line-to-file",
         "trace line to a file, flushed",
         "k lines/s",
         kMore,
         1e-3,
         {Named("fputs, fflush, syslog", kAtLeast, 0.9)}},

        {"memory/plain", "allocate and free, plain", "ns", kLess, 1, {Named("malloc", kAtMost, 1.15)}},
        {"memory/tracked",
         "allocate and free, tracked",
         "ns",
         kLess,
         1,
         {Named("malloc, MALLOC_CHECK_", kAtMost, 0.35), Floor(kAtMost, 1.5)}},
        {"memory/tracked-two-threads",
         "tracked, 2 threads",
         "ns",
         kLess,
         1,
         {Named("malloc, MALLOC_CHECK_", kAtMost, 0.35), Floor(kAtMost, 1.5)}},
        {"memory/pooled", "allocate and free, pooled", "ns", kLess, 1, {Named("POCO MemoryPool", kAtMost, 1.5)}},
        {"memory/pooled-two-threads", "pooled, 2 threads", "ns", kLess, 1, {Named("POCO MemoryPool", kAtMost, 0.9)}},

        {"list/append-take", "list, append and take", "ns", kLess, 1, {BestPeer(kAtMost, 0.35), Floor(kAtMost, 2)}},
        {"list/find", "list, find among 10 000", "us", kLess, 1e-3, {BestPeer(kAtMost, 1.1), Floor(kAtMost, 1.1)}},
        {"list/sorted-insert",
         "list, sorted insert among 10 000",
         "us",
         kLess,
         1e-3,
         {BestPeer(kAtMost, 1.1), Floor(kAtMost, 1.1)}},
        {"hash/find", "hash, find among 10 000", "ns", kLess, 1, {Named("std::unordered_map", kAtMost, 1.5)}},
        {"hash/add", "hash, add to 10 000", "ns", kLess, 1, {Named("std::unordered_map", kAtMost, 0.6)}},

        {"lock/critical-section", "critical section, enter and leave", "ns", kLess, 1, {Floor(kAtMost, 2)}},
        {"lock/critical-section-two-threads",
         "the same, 2 threads on different ones",
         "ns",
         kLess,
         1,
         {Floor(kAtMost, 2), Itself("lock/critical-section", kAtMost, 1.1)}},

        {"lzw/compress-text",
         "LZW, compress 4 MiB of text",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 0.95), Floor(kAtLeast, 0.9)}},
        {"lzw/expand-text",
         "LZW, expand 4 MiB of text",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 1.6), Floor(kAtLeast, 0.85)}},
        {"lzw/compress-programs",
         "LZW, compress 4 MiB of programs",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 0.95), Floor(kAtLeast, 0.9)}},
        {"lzw/expand-programs",
         "LZW, expand 4 MiB of programs",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 1.6), Floor(kAtLeast, 0.85)}},
        {"lzw/compress-noise",
         "LZW, compress 4 MiB of noise",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 0.75), Floor(kAtLeast, 0.9)}},
        {"lzw/expand-noise",
         "LZW, expand 4 MiB of noise",
         "MB/s",
         kMore,
         1e-6,
         {Named("compress -b 14", kAtLeast, 1.3), Floor(kAtLeast, 0.85)}},
        {"lzw/compress-100-mb",
         "LZW, compress 100 MB of text",
         "MB/s",
         kMore,
         1e-6,
         {Itself("lzw/compress-text", kAtLeast, 1 / 1.2)}},

        {"report/timers-10000", "report of 10 000 timers", "ms", kLess, 1, {Itself("report/timers-1000", kAtMost, 12)}},
        {"report/lists-10000", "report of 10 000 lists", "ms", kLess, 1, {Itself("report/lists-1000", kAtMost, 12)}},

        {"start/pair", "start and end, no tqos.ini", "ms", kLess, 1, {Value(kAtMost, 2)}},
        {"start/opens-without-ini", "tqos.ini tried, there is none", "times", kLess, 1, {}},
        {"start/opens-with-ini", "tqos.ini opened", "times", kLess, 1, {}},
        {"start/bytes-with-ini", "tqos.ini read of 166 bytes", "bytes", kLess, 1, {}},
    };
    return subjects;
}

const Subject* FindSubject(const std::string& name) {
    for (const Subject& subject : AllSubjects()) {
        if (name == subject.pszName) {
            return &subject;
        }
    }
    return nullptr;
}
