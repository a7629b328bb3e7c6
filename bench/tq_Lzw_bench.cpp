// Compression of blocks of several sizes.
#include <string>

#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

std::string Text(int64_t bytes) {
    std::string text;
    for (int i = 0; static_cast<int64_t>(text.size()) < bytes; ++i) {
        text += "line " + std::to_string(i * 7919 % 10007) + ": the value has changed\n";
    }
    text.resize(static_cast<std::size_t>(bytes));
    return text;
}

void Compress(benchmark::State& state) {
    const std::string text = Text(state.range(0));
    for (auto _ : state) {
        char* pOutput = nullptr;
        unsigned int length = 0;
        tq_lzwCompress(text.data(), static_cast<unsigned int>(text.size()), &pOutput, &length);
        tq_free(pOutput);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Compress)->Arg(1000)->Arg(100000)->Arg(4000000);

void Expand(benchmark::State& state) {
    const std::string text = Text(state.range(0));
    char* pPacked = nullptr;
    unsigned int packedLength = 0;
    tq_lzwCompress(text.data(), static_cast<unsigned int>(text.size()), &pPacked, &packedLength);
    for (auto _ : state) {
        char* pOutput = nullptr;
        unsigned int length = 0;
        tq_lzwExpand(pPacked, packedLength, &pOutput, &length);
        tq_free(pOutput);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    tq_free(pPacked);
}
BENCHMARK(Expand)->Arg(1000)->Arg(100000)->Arg(4000000);

} // namespace
