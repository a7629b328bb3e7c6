// What the machine allows of allocation: a block tracked by hand, and a free list of blocks of one size.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <atomic>
#include <mutex>
#include <new>

#include "MemoryBench.h"

namespace {

/// Blocks in the upper 24 bits, their bytes in the lower 40: both are counted in one step.
std::atomic<std::uint64_t> gInUse;

constexpr std::uint64_t CountOf(std::size_t bytes) {
    return std::uint64_t(1) << 40 | bytes;
}

/// A header of where a block was asked for and how long it is, check bytes on both sides, a count of what is in use.
class TrackedHeap {
public:
    static void* Allocate(std::size_t size) {
        char* pMemory = static_cast<char*>(malloc(sizeof(Header) + size + sizeof(kCheck)));
        if (!pMemory) {
            return nullptr;
        }
        new (pMemory) Header{__FILE__, static_cast<unsigned int>(size), __LINE__, 1, kCheck};
        memcpy(pMemory + sizeof(Header) + size, &kCheck, sizeof(kCheck));
        gInUse.fetch_add(CountOf(size), std::memory_order_relaxed);
        return pMemory + sizeof(Header);
    }
    static void Free(void* pBlock) {
        Header* pHeader = static_cast<Header*>(pBlock) - 1;
        if (pHeader->check != kCheck ||
            memcmp(static_cast<char*>(pBlock) + pHeader->size, &kCheck, sizeof(kCheck)) != 0) {
            abort();
        }
        pHeader->type = 0;
        gInUse.fetch_sub(CountOf(pHeader->size), std::memory_order_relaxed);
        free(pHeader);
    }

private:
    static constexpr unsigned int kCheck = 0xA5C35A3C;
    struct alignas(16) Header {
        const char* pszFile;
        unsigned int size;
        unsigned int line;
        unsigned int type;
        unsigned int check;
    };
};

std::mutex gFreeLock;
void* gpFree = nullptr;

/// Blocks of one size, the last one freed first, under one mutex.
class FreeList {
public:
    static void* Allocate(std::size_t) {
        const std::lock_guard<std::mutex> lock(gFreeLock);
        void* pBlock = gpFree;
        if (!pBlock) {
            return malloc(64);
        }
        gpFree = *static_cast<void**>(pBlock);
        return pBlock;
    }
    static void Free(void* pBlock) {
        const std::lock_guard<std::mutex> lock(gFreeLock);
        *static_cast<void**>(pBlock) = gpFree;
        gpFree = pBlock;
    }
};

} // namespace

PEER_BENCH("memory/tracked", "tracked by hand") {
    return bench::AllocateAndFree<TrackedHeap>(0, 1);
}

PEER_BENCH("memory/tracked-two-threads", "tracked by hand") {
    return bench::AllocateAndFree<TrackedHeap>(0, 2);
}

PEER_BENCH("memory/pooled", "free list") {
    return bench::AllocateAndFree<FreeList>(48, 1);
}

PEER_BENCH("memory/pooled-two-threads", "free list") {
    return bench::AllocateAndFree<FreeList>(48, 2);
}
