// Settings and texts.
#include <cstdio>

#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

constexpr const char* kFile = "/tmp/tqos-bench.ini";

void FindTheLastKeyOfAFile(benchmark::State& state) {
    if (FILE* pFile = fopen(kFile, "w")) {
        for (int64_t i = 0; i < state.range(0); ++i) {
            fprintf(pFile, "[Section%d]\nKey=%d\n", static_cast<int>(i), static_cast<int>(i));
        }
        fputs("[Last]\nKey=1\n", pFile);
        fclose(pFile);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(tq_GetINIFileInt("Last", "Key", 0, kFile));
    }
    tq_RemoveFile(kFile);
}
BENCHMARK(FindTheLastKeyOfAFile)->Arg(0)->Arg(10)->Arg(1000);

void CutATextIntoTokens(benchmark::State& state) {
    for (auto _ : state) {
        char szText[] = "one,two,\"three, quoted\",four,five";
        char* pInstance = nullptr;
        char* pszText = szText;
        while (char* pszToken = tq_getToken(pszText, ",", "\"", "\"", nullptr, 0, &pInstance)) {
            benchmark::DoNotOptimize(pszToken);
            pszText = nullptr;
        }
    }
}
BENCHMARK(CutATextIntoTokens);

void AppendToAString(benchmark::State& state) {
    for (auto _ : state) {
        TqString* pString = tq__string_create(16, __FILE__, __LINE__);
        for (int i = 0; i < 100; ++i) {
            tq__string_append(pString, "a piece ", __FILE__, __LINE__);
        }
        tq__string_destroy(pString, __FILE__, __LINE__);
    }
}
BENCHMARK(AppendToAString);

} // namespace
