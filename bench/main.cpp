// The single calls: Google Benchmark's main(), around the running library.
#include <benchmark/benchmark.h>
#include <tqos.h>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || tqOS_Initialize() != 0) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    tqOS_Terminate(false, true);
    return 0;
}
