// zlib at its fastest level: another method, shown beside.
#include <zlib.h>

#include "LzwBench.h"

namespace {

class Codec {
public:
    static bench::Bytes Compress(const std::string& plain) {
        uLongf length = compressBound(plain.size());
        Bytef* pPacked = static_cast<Bytef*>(malloc(length));
        compress2(pPacked, &length, reinterpret_cast<const Bytef*>(plain.data()), plain.size(), 1);
        return {reinterpret_cast<char*>(pPacked), length, free};
    }
    static bench::Bytes Expand(const std::string& packed) {
        uLongf length = bench::kSampleBytes;
        Bytef* pPlain = static_cast<Bytef*>(malloc(length));
        uncompress(pPlain, &length, reinterpret_cast<const Bytef*>(packed.data()), packed.size());
        return {reinterpret_cast<char*>(pPlain), length, free};
    }
};

} // namespace

PEER_BENCH_LZW(Codec, "zlib -1 (not LZW)")
