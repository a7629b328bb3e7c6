// Trace calls that are filtered out, and lines to a file.
#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

class Instance {
public:
    Instance() : handle(tq__TraceInitInstance("Bench", __FILE__, __LINE__)) {
        tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_WARNING);
        tq_TraceDisableSTDOUT(handle);
        tq_TraceDisableSTDERR(handle);
    }
    ~Instance() { tq_TraceTermInstance(handle); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    const unsigned int handle;
};

void TraceBelowTheLevel(benchmark::State& state) {
    const Instance instance;
    for (auto _ : state) {
        tq_Trace(instance.handle, TQ_TRACE_LEVEL_DEBUG, 1, true, "value %d\n", 1);
    }
}
BENCHMARK(TraceBelowTheLevel);

void TraceWithoutADestination(benchmark::State& state) {
    const Instance instance;
    for (auto _ : state) {
        tq_Trace(instance.handle, TQ_TRACE_LEVEL_WARNING, 1, true, "value %d\n", 1);
    }
}
BENCHMARK(TraceWithoutADestination);

void TraceToAFile(benchmark::State& state) {
    const Instance instance;
    tq__TraceEnableFile(instance.handle, "/tmp/tqos-bench.log", 0, 0, __FILE__, __LINE__);
    for (auto _ : state) {
        tq_Trace(instance.handle, TQ_TRACE_LEVEL_WARNING, 1, true, "value %d\n", 1);
    }
    tq_TraceDisableFile(instance.handle);
    tq_RemoveFile("/tmp/tqos-bench.log");
}
BENCHMARK(TraceToAFile);

void AskWhereALineWouldGo(benchmark::State& state) {
    const Instance instance;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tq_TraceGetDestinations(instance.handle, TQ_TRACE_LEVEL_WARNING, 1));
    }
}
BENCHMARK(AskWhereALineWouldGo);

} // namespace
