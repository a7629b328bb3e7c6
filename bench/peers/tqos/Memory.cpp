// This library's allocation: plain, tracked, and from pools.
#include "Library.h"
#include "MemoryBench.h"

namespace {

class Heap {
public:
    static void* Allocate(unsigned int size) { return tq_malloc(size); }
    static void Free(void* pBlock) { tq_free(pBlock); }
};

constexpr const char* kTracked = "[Memory]\nEnableMemoryTracking=yes\n";
constexpr const char* kPooled = "[Memory]\nEnableMemoryPooling=yes\nPool1BlockSize=64\nPool1StartCount=4096\n";
constexpr unsigned int kPooledBytes = 48;

} // namespace

PEER_BENCH("memory/plain", "tqos") {
    const Library library;
    return bench::AllocateAndFree<Heap>(0, 1);
}

PEER_BENCH("memory/tracked", "tqos") {
    const Library library(kTracked);
    return bench::AllocateAndFree<Heap>(0, 1);
}

PEER_BENCH("memory/tracked-two-threads", "tqos") {
    const Library library(kTracked);
    return bench::AllocateAndFree<Heap>(0, 2);
}

PEER_BENCH("memory/pooled", "tqos") {
    const Library library(kPooled);
    return bench::AllocateAndFree<Heap>(kPooledBytes, 1);
}

PEER_BENCH("memory/pooled-two-threads", "tqos") {
    const Library library(kPooled);
    return bench::AllocateAndFree<Heap>(kPooledBytes, 2);
}
