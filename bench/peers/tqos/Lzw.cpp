// This library's compression.
#include "Library.h"
#include "LzwBench.h"

namespace {

using Work = void (*)(const char*, unsigned int, char**, unsigned int*);

bench::Bytes Apply(Work work, const std::string& input) {
    char* pOutput = nullptr;
    unsigned int length = 0;
    work(input.data(), static_cast<unsigned int>(input.size()), &pOutput, &length);
    return {pOutput, length, [](void* p) { tq_free(p); }};
}

class Codec {
public:
    static bench::Bytes Compress(const std::string& plain) { return Apply(tq_lzwCompress, plain); }
    static bench::Bytes Expand(const std::string& packed) { return Apply(tq_lzwExpand, packed); }
};

} // namespace

PEER_BENCH_LZW(Codec, "tqos")

PEER_BENCH("lzw/compress-100-mb", "tqos") {
    std::string plain;
    while (plain.size() < 100000000) {
        plain += bench::MakeSample(bench::Sample::Text);
    }
    const double start = bench::ProcessorNow();
    bench::Keep(Codec::Compress(plain).length);
    return static_cast<double>(plain.size()) / (bench::ProcessorNow() - start);
}
