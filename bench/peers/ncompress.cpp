// The program compress, with codes of as many bits.
#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>

#include "LzwBench.h"

namespace {

void Write(const char* pszPath, const std::string& text) {
    FILE* pFile = fopen(pszPath, "wb");
    if (!pFile || fwrite(text.data(), 1, text.size(), pFile) != text.size() || fclose(pFile) != 0) {
        perror(pszPath);
        exit(1);
    }
}

void Run(const char* pszCommand) {
    // Status 2: what was compressed has grown, as noise does.
    const int status = system(pszCommand);
    if (status != 0 && status != 2 << 8) {
        fprintf(stderr, "%s failed\n", pszCommand);
        exit(1);
    }
}

double ChildrenSeconds() {
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

double Rate(bench::Sample sample, const char* pszCommand) {
    const std::string plain = bench::MakeSample(sample);
    Write("plain", plain);
    Run("compress -f -b 14 -c plain > packed.Z");
    const double end = bench::Now() + bench::Seconds();
    const double start = ChildrenSeconds();
    double bytes = 0;
    while (bytes == 0 || bench::Now() < end) {
        Run(pszCommand);
        bytes += static_cast<double>(plain.size());
    }
    return bytes / (ChildrenSeconds() - start);
}

constexpr const char* kCompress = "compress -f -b 14 -c plain > /dev/null";
constexpr const char* kExpand = "compress -d -c packed.Z > /dev/null";

} // namespace

PEER_BENCH("lzw/compress-text", "compress -b 14") {
    return Rate(bench::Sample::Text, kCompress);
}

PEER_BENCH("lzw/compress-programs", "compress -b 14") {
    return Rate(bench::Sample::Programs, kCompress);
}

PEER_BENCH("lzw/compress-noise", "compress -b 14") {
    return Rate(bench::Sample::Noise, kCompress);
}

PEER_BENCH("lzw/expand-text", "compress -b 14") {
    return Rate(bench::Sample::Text, kExpand);
}

PEER_BENCH("lzw/expand-programs", "compress -b 14") {
    return Rate(bench::Sample::Programs, kExpand);
}

PEER_BENCH("lzw/expand-noise", "compress -b 14") {
    return Rate(bench::Sample::Noise, kExpand);
}
