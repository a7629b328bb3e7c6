// The C library's allocation under the address sanitizer, which this file is compiled with.
#include <cstdlib>

#include "MemoryBench.h"

namespace {

class Heap {
public:
    static void* Allocate(unsigned int size) { return malloc(size); }
    static void Free(void* pBlock) { free(pBlock); }
};

} // namespace

PEER_BENCH("memory/tracked", "malloc, AddressSanitizer") {
    return bench::AllocateAndFree<Heap>(0, 1);
}

PEER_BENCH("memory/tracked-two-threads", "malloc, AddressSanitizer") {
    return bench::AllocateAndFree<Heap>(0, 2);
}
