// Allocating, reallocating and freeing in each mode of the memory, with what every block must hold, against the
// counters.
//
// Input: a number, the mode; then operations, each a letter, numbers (each ended by one byte) and a block, counted from
// '0'.
#include <algorithm>

#include "Fuzz.h"

namespace {

/// The modes of the memory. Blocks in reach of the sanitizer are those of the heap.
constexpr const char* kModes[] = {
    "",
    "MemoryAlignment=16\r\nMemoryAlignmentCheck=yes\r\nDirtyMemoryAlloc=205\r\n",
    "EnableMemoryTracking=yes\r\nEnableHistogram=yes\r\nHistogramMaxSize=300\r\nMemoryCapInBytes=2000000\r\n",
    "EnableMemoryTracking=yes\r\nMemoryAlignment=32\r\nDirtyMemoryAlloc=205\r\nDirtyMemoryFree=221\r\n",
    "EnableMemoryPooling=yes\r\nPool1BlockSize=64\r\nPool1StartCount=4\r\nPool1Increment=3\r\n"
    "Pool2BlockSize=700\r\n",
    "EnableMemoryPooling=yes\r\nEnableMemoryTracking=yes\r\nMemoryAlignment=8\r\nEnableHistogram=yes\r\n"
    "HistogramMaxSize=300\r\nPool1BlockSize=16\r\nPool1StartCount=2\r\nPool1Increment=1\r\nPool2BlockSize="
    "100\r\nPool2StartCount=1\r\n",
};
constexpr unsigned int kModeCount = sizeof(kModes) / sizeof(kModes[0]);

constexpr size_t kMostBlocks = 40;
constexpr unsigned int kMostBytes = 20000;
constexpr unsigned char kDirty = 205;

/// A block and what it holds: bytes that follow from a seed.
struct Block {
    unsigned char* pBytes;
    unsigned int size;
    unsigned char seed;
    bool bNew;    ///< of the new family
    bool bPooled; ///< while there are pools
};

struct Work {
    std::vector<Block> blocks;
    unsigned int requested = 0;
    unsigned int base = 0; ///< in use before
    unsigned char seed = 0;
};

unsigned char ByteOf(unsigned char seed, unsigned int at) {
    return static_cast<unsigned char>(seed + at * 7);
}

void Fill(const Block& block) {
    for (unsigned int i = 0; i < block.size; ++i) {
        block.pBytes[i] = ByteOf(block.seed, i);
    }
}

void CheckBytes(const Block& block, unsigned int size) {
    for (unsigned int i = 0; i < size; ++i) {
        FUZZ_EQUAL(ByteOf(block.seed, i), block.pBytes[i]);
    }
}

unsigned int Alignment() {
    const unsigned int configured = tq_GetMemoryAlignment();
    return configured ? configured : TQ_MEM_BLOCK_ALIGNMENT;
}

/// How far a block lies above the last aligned address.
unsigned int AboveAlignment(const void* pBlock) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pBlock) % Alignment());
}

/// Whether a pool has slots for so many bytes.
bool HasPool(unsigned int size) {
    return gbUseMemoryPooling && size <= PoolSizes[TotalPools - 1];
}

/// Takes a block into the model and fills it.
void Take(Work& work, void* pBlock, unsigned int size, bool bNew) {
    FUZZ_CHECK(pBlock);
    const Block block = {static_cast<unsigned char*>(pBlock), size ? size : 1, ++work.seed, bNew, HasPool(size)};
    work.requested += block.size;
    work.blocks.push_back(block);
    Fill(block);
}

bool IsFull(const Work& work) {
    return work.blocks.size() >= kMostBlocks;
}

void Malloc(Work& work, fuzz::Input& input) {
    const unsigned int size = input.Number() % kMostBytes;
    if (!IsFull(work)) {
        unsigned char* pBlock = static_cast<unsigned char*>(tq_malloc(size));
        FUZZ_CHECK(pBlock && (gDirtyMemoryAlloc > 255 || size == 0 || pBlock[size - 1] == kDirty));
        FUZZ_EQUAL(0u, AboveAlignment(pBlock));
        Take(work, pBlock, size, false);
    }
}

void New(Work& work, fuzz::Input& input) {
    const unsigned int size = input.Number() % kMostBytes;
    if (!IsFull(work)) {
        Take(work, size % 2 ? tq_new(size) : tq_newArray(size), size, true);
    }
}

void Calloc(Work& work, fuzz::Input& input) {
    const unsigned int count = input.Number();
    const unsigned int size = input.Number() % kMostBytes;
    const unsigned int bytes = count * size; // a product beyond 32 bits wraps
    if (IsFull(work) || bytes >= kMostBytes) {
        return;
    }
    unsigned char* pBlock = static_cast<unsigned char*>(tq_calloc(count, size));
    FUZZ_CHECK(pBlock && std::all_of(pBlock, pBlock + bytes, [](unsigned char byte) { return byte == 0; }));
    Take(work, pBlock, bytes, false);
}

void NewString(Work& work, fuzz::Input& input) {
    const std::string text = fuzz::Cut(input.Line());
    if (!IsFull(work)) {
        char* pszCopy = tq_newString(fuzz::Exact(text).Text());
        FUZZ_CHECK(pszCopy);
        FUZZ_EQUAL(text, std::string(pszCopy));
        Take(work, pszCopy, static_cast<unsigned int>(text.size()) + 1, false);
    }
}

/// A request that nothing can serve.
void TooMuch(Work&, fuzz::Input& input) {
    FUZZ_CHECK(!tq_malloc(0x80000001u + input.Number() % 0x7FFFFFFF));
}

/// The place of the block that an operation means; there is one.
size_t PlaceOf(const Work& work, fuzz::Input& input) {
    return (input.Byte() - '0') % work.blocks.size();
}

void Forget(Work& work, size_t place) {
    work.requested -= work.blocks[place].size;
    work.blocks.erase(work.blocks.begin() + static_cast<std::ptrdiff_t>(place));
}

void FreeAt(Work& work, size_t place) {
    const Block block = work.blocks[place];
    CheckBytes(block, block.size);
    if (!block.bNew) {
        tq_free(block.pBytes);
    } else if (block.size % 2) {
        tq_delete(block.pBytes);
    } else {
        tq_deleteArray(block.pBytes);
    }
    Forget(work, place);
}

void Free(Work& work, fuzz::Input& input) {
    if (!work.blocks.empty()) {
        FreeAt(work, PlaceOf(work, input));
    }
}

void Realloc(Work& work, fuzz::Input& input) {
    const unsigned int size = input.Number() % kMostBytes;
    const size_t place = work.blocks.empty() ? 0 : PlaceOf(work, input);
    if (work.blocks.empty() || work.blocks[place].bNew) {
        return;
    }
    const Block old = work.blocks[place];
    unsigned char* pBlock = static_cast<unsigned char*>(tq_realloc(old.pBytes, size));
    if (size == 0) {
        FUZZ_CHECK(!pBlock);
        Forget(work, place);
        return;
    }
    FUZZ_CHECK(pBlock);
    // Resized on the heap it is the header, not what the caller gets, that is aligned.
    FUZZ_CHECK(AboveAlignment(pBlock) == 0 || AboveAlignment(pBlock) == gTotalMemoryHeader % Alignment());
    const Block moved = {pBlock, size, old.seed, false, false};
    CheckBytes(moved, std::min(size, old.size));
    Forget(work, place);
    Take(work, pBlock, size, false);
    if (!old.bPooled && !gbUseMemoryTracking) { // nobody knows how large it was: it is resized where it is
        work.blocks.back().bPooled = false;
    }
}

struct Operation {
    char letter;
    void (*pfnDo)(Work& work, fuzz::Input& input);
};

constexpr Operation kOperations[] = {
    {'m', Malloc}, {'n', New}, {'c', Calloc}, {'s', NewString}, {'x', TooMuch}, {'f', Free}, {'r', Realloc},
};

/// The slots of all pools that are in use.
unsigned int SlotsInUse() {
    unsigned int slots = 0;
    for (unsigned int pool = 0; pool < TotalPools; ++pool) {
        slots += PoolLists[pool]->nCurrentAllocatedNodes;
    }
    return slots;
}

void Check(const Work& work, unsigned int slotsBefore) {
    if (gbUseMemoryTracking) {
        FUZZ_EQUAL(work.base + work.requested, gRequestedMemoryAllocations);
    }
    if (gbUseMemoryPooling) {
        const auto isPooled = [](const Block& block) { return block.bPooled; };
        const std::ptrdiff_t pooled = std::count_if(work.blocks.begin(), work.blocks.end(), isPooled);
        FUZZ_EQUAL(slotsBefore + static_cast<unsigned int>(pooled), SlotsInUse());
    }
    for (unsigned int size = 1; gpMemoryHistogram && size <= gMemoryHistogramMaxSize; ++size) {
        FUZZ_CHECK(gpMemoryHistogramMax[size - 1] >= gpMemoryHistogram[size - 1]);
    }
    for (const Block& block : work.blocks) {
        CheckBytes(block, block.size);
    }
}

/// Starts the memory, and nothing else of the library, in another mode.
void SetMode(unsigned int mode) {
    static unsigned int current = kModeCount;
    if (mode == current) {
        return;
    }
    tq_MemoryTerminate(false);
    fuzz::WriteFile("tqos.ini", std::string("[ErrorLog]\r\nFilename=\r\n[Memory]\r\n") + kModes[mode]);
    tq_BaseInitialize();
    FUZZ_EQUAL(0u, tq_MemoryInitialize());
    current = mode;
    fuzz::MemoryBefore() = gRequestedMemoryAllocations;
}

void Start() {
    tqOS_Terminate(false, true);
}

void OneInput(fuzz::Input input) {
    SetMode(input.Number() % kModeCount);
    Work work;
    work.base = gRequestedMemoryAllocations;
    const unsigned int slotsBefore = SlotsInUse();
    while (!input.IsEmpty()) {
        const char letter = static_cast<char>(input.Byte());
        for (const Operation& row : kOperations) {
            if (row.letter == letter) {
                row.pfnDo(work, input);
                Check(work, slotsBefore);
            }
        }
    }
    while (!work.blocks.empty()) {
        FreeAt(work, work.blocks.size() - 1);
    }
    FUZZ_EQUAL(slotsBefore, SlotsInUse());
    if (gbUseMemoryTracking) {
        FUZZ_EQUAL(work.base, gRequestedMemoryAllocations);
    }
}

} // namespace

FUZZ_TARGET_WITH_START("", Start, OneInput)
