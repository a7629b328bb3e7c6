/// @file LzwBench.h
/// The measurements of compression, the same for every contender: 4 MiB of C++ headers, of this machine's programs, and
/// of noise. They count processor time.
///
///     class Codec {
///     public:
///         bench::Bytes Compress(const std::string& plain);
///         bench::Bytes Expand(const std::string& packed);
///     };
#ifndef LZW_BENCH_H
#define LZW_BENCH_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Bench.h"

namespace bench {

/// What a codec gives: its own memory, with the function that frees it.
struct Bytes {
    Bytes(char* pBytes, std::size_t count, void (*freeBytes)(void*)) : p(pBytes), length(count), release(freeBytes) {}
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    ~Bytes() { release(p); }
    std::string Text() const { return p ? std::string(p, length) : std::string(); }

    char* p;
    std::size_t length;
    void (*release)(void*);
};

enum class Sample { Text, Programs, Noise };

constexpr std::size_t kSampleBytes = 4 << 20;

/// The same in each run on one machine. The process ends when the machine has not enough of it.
std::string MakeSample(Sample sample);

/// Ends the process unless the two are equal.
void RequireSame(const std::string& plain, const std::string& expanded);

/// Bytes of plain data a second.
template <class Codec> double CompressRate(Sample sample) {
    Codec codec;
    const std::string plain = MakeSample(sample);
    RequireSame(plain, codec.Expand(codec.Compress(plain).Text()).Text());
    return 1e9 / ProcessorNanosecondsEach([&] {
               Keep(codec.Compress(plain).length);
               return static_cast<double>(plain.size());
           });
}

/// Bytes of plain data a second.
template <class Codec> double ExpandRate(Sample sample) {
    Codec codec;
    const std::string plain = MakeSample(sample);
    const std::string packed = codec.Compress(plain).Text();
    RequireSame(plain, codec.Expand(packed).Text());
    return 1e9 / ProcessorNanosecondsEach([&] {
               Keep(codec.Expand(packed).length);
               return static_cast<double>(plain.size());
           });
}

} // namespace bench

#define PEER_BENCH_LZW_OF(Codec, label, name, sample)                                                                  \
    PEER_BENCH("lzw/compress-" name, label) {                                                                          \
        return bench::CompressRate<Codec>(sample);                                                                     \
    }                                                                                                                  \
    PEER_BENCH("lzw/expand-" name, label) {                                                                            \
        return bench::ExpandRate<Codec>(sample);                                                                       \
    }

#define PEER_BENCH_LZW(Codec, label)                                                                                   \
    PEER_BENCH_LZW_OF(Codec, label, "text", bench::Sample::Text)                                                       \
    PEER_BENCH_LZW_OF(Codec, label, "programs", bench::Sample::Programs)                                               \
    PEER_BENCH_LZW_OF(Codec, label, "noise", bench::Sample::Noise)

#endif // LZW_BENCH_H
