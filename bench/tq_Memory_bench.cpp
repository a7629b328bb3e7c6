// Allocation with the settings that the program runs with: plain.
#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

void AllocateAndFree(benchmark::State& state) {
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        void* pBlock = tq_malloc(size);
        benchmark::DoNotOptimize(pBlock);
        tq_free(pBlock);
    }
}
BENCHMARK(AllocateAndFree)->Arg(32)->Arg(1024)->Arg(65536);
BENCHMARK(AllocateAndFree)->Arg(32)->Threads(2);

void GrowABlock(benchmark::State& state) {
    for (auto _ : state) {
        void* pBlock = tq_malloc(16);
        for (unsigned int size = 32; size <= 4096; size *= 2) {
            pBlock = tq_realloc(pBlock, size);
        }
        tq_free(pBlock);
    }
}
BENCHMARK(GrowABlock);

void CopyAText(benchmark::State& state) {
    for (auto _ : state) {
        char* pszCopy = tq_newString("a text of thirty characters .");
        benchmark::DoNotOptimize(pszCopy);
        tq_free(pszCopy);
    }
}
BENCHMARK(CopyAText);

} // namespace
