/// @file MemoryBench.h
/// The measurements of allocation, the same for every contender.
#ifndef MEMORY_BENCH_H
#define MEMORY_BENCH_H

#include <memory>

#include "Bench.h"

namespace bench {

/// One thread's blocks: always the same number is in use, and in turn the oldest is freed and a new one allocated.
template <class Heap> class Blocks {
public:
    /// @param fixed  the size of all blocks; 0: between 16 and 256 bytes, by chance
    explicit Blocks(unsigned int fixed, int seed) : m_heap(), m_random(static_cast<unsigned int>(seed) + 1) {
        for (unsigned int i = 0; i < kSizes; ++i) {
            m_sizes[i] = fixed ? fixed : 16 + m_random.Below(241);
        }
        for (unsigned int i = 0; i < kLive; ++i) {
            m_live[i] = m_heap.Allocate(m_sizes[i]);
        }
    }
    ~Blocks() {
        for (void* pBlock : m_live) {
            m_heap.Free(pBlock);
        }
    }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    double Turn() {
        for (unsigned int i = 0; i < kSizes; ++i) {
            void*& pBlock = m_live[i % kLive];
            m_heap.Free(pBlock);
            pBlock = m_heap.Allocate(m_sizes[i]);
            *static_cast<volatile unsigned char*>(pBlock) = 1;
        }
        return kSizes;
    }

private:
    static constexpr unsigned int kSizes = 1024;
    static constexpr unsigned int kLive = 128;
    Heap m_heap;
    Random m_random;
    unsigned int m_sizes[kSizes];
    void* m_live[kLive];
};

/// Nanoseconds for an allocation and a free.
template <class Heap> double AllocateAndFree(unsigned int fixed, int threads) {
    return NanosecondsEachOnThreads(threads, [fixed](int thread) -> std::function<double()> {
        const auto pBlocks = std::make_shared<Blocks<Heap>>(fixed, thread);
        return [pBlocks] { return pBlocks->Turn(); };
    });
}

} // namespace bench

#endif // MEMORY_BENCH_H
