// Locks, events and semaphores that nobody else wants, and one that another thread wants.
#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

void EnterAndLeaveACriticalSection(benchmark::State& state) {
    tq_SemCritSec section(true);
    for (auto _ : state) {
        section.Enter();
        section.Leave();
    }
}
BENCHMARK(EnterAndLeaveACriticalSection);

void EnterASectionThatOthersWant(benchmark::State& state) {
    static tq_SemCritSec section(true);
    for (auto _ : state) {
        section.Enter();
        section.Leave();
    }
}
BENCHMARK(EnterASectionThatOthersWant)->Threads(2)->UseRealTime();

void WaitForAndReleaseAMutex(benchmark::State& state) {
    tq_SemMutex mutex(false);
    for (auto _ : state) {
        mutex.WaitForMutex();
        mutex.Release();
    }
}
BENCHMARK(WaitForAndReleaseAMutex);

void SetAndWaitForAnEvent(benchmark::State& state) {
    tq_SemEvent event(0, 0);
    for (auto _ : state) {
        event.Set();
        benchmark::DoNotOptimize(event.WaitForEvent(-1));
    }
}
BENCHMARK(SetAndWaitForAnEvent);

} // namespace
