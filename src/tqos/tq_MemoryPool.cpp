/// Pools of slots of fixed sizes: taking and giving back, growth, marks, and the search for damage.
#include <algorithm>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_Dir_p.h"
#include "tq_Memory_p.h"

// Settings

unsigned int PoolSizes[kMaxMemoryPools + 1] = {};
unsigned int PoolInitialSize[kMaxMemoryPools + 1] = {};
unsigned int PoolIncrement[kMaxMemoryPools + 1] = {};

// State

std::atomic<unsigned int> TotalPools{0};
_MEM_POOL* Pools[kMaxMemoryPools] = {};
_MEM_POOL* PoolsLastNode[kMaxMemoryPools] = {};
MEM_POOL_LIST* PoolLists[kMaxMemoryPools] = {};
tq_MemoryPoolCritSec PoolCritSec[kMaxMemoryPools];

std::atomic<unsigned int> MaxPoolSize{0};
unsigned int LastPoolInIndex = kNoMemoryPool;

static_assert(sizeof(void*) != 4 || sizeof(MEM_POOL_LIST) == 40, "fixed layout");
static_assert(sizeof(void*) != 4 || offsetof(MEM_POOL_LIST, pArray) == 36, "fixed layout");
static_assert(kNoMemoryPool <= 0xFF, "the table of lengths holds pool numbers as bytes");

namespace {

constexpr unsigned int kLongestSlotInTable = 102400;
unsigned char PoolIndexFromSize[kLongestSlotInTable + 1] = {}; // the pool by slot length

constexpr unsigned int kLongestSlot = UINT32_MAX - 256; // room to align it in 32 bits

const unsigned int DefaultPoolSizes[] = {32, 128, 512, 1024, 4096, 0};
const unsigned int DefaultPoolInitialSize[] = {50, 50, 30, 20, 10, 0};
const unsigned int DefaultPoolIncrement[] = {50, 50, 30, 20, 10, 0};

int ReadPoolKey(const char* pszSection, unsigned int number, const char* pszWhat, unsigned int uiDefault) {
    char key[40];
    snprintf(key, sizeof(key), "Pool%u%s", number, pszWhat);
    return tq_GetINIFileInt(pszSection, key, static_cast<int>(uiDefault), psz_tqos_ini_file);
}

/// The number of pools that the configuration names.
unsigned int ReadPools(const char* pszSection) {
    unsigned int pools = 0;
    for (; pools < kMaxMemoryPools; ++pools) {
        const unsigned int number = pools + 1;
        const unsigned int size = static_cast<unsigned int>(ReadPoolKey(pszSection, number, "BlockSize", 0));
        if (size == 0) {
            break;
        }
        PoolSizes[pools] = size;
        PoolInitialSize[pools] = static_cast<unsigned int>(ReadPoolKey(pszSection, number, "StartCount", 0));
        PoolIncrement[pools] = static_cast<unsigned int>(
            ReadPoolKey(pszSection, number, "Increment", tq_DefaultMemoryPoolIncrement(size)));
    }
    return pools;
}

void SortPools(unsigned int pools) {
    for (unsigned int i = 0; i < pools; ++i) {
        for (unsigned int j = i + 1; j < pools; ++j) {
            if (PoolSizes[j] < PoolSizes[i]) {
                std::swap(PoolSizes[i], PoolSizes[j]);
                std::swap(PoolInitialSize[i], PoolInitialSize[j]);
                std::swap(PoolIncrement[i], PoolIncrement[j]);
            }
        }
    }
}

} // namespace

unsigned int tq_DefaultMemoryPoolIncrement(unsigned int size) {
    struct Row {
        unsigned int upTo;
        unsigned int increment;
    };
    static const Row kRows[] = {{512, 10}, {1024, 5}, {4096, 3}, {8192, 2}};
    for (const Row& row : kRows) {
        if (size <= row.upTo) {
            return row.increment;
        }
    }
    return 1;
}

// The tables are filled anew each time, so that what an alignment adds to the sizes does not grow from start to start.
void tq_ReadMemoryPoolKeys(const char* pszSection) {
    if (TotalPools != 0) {
        return; // the pools that exist were made by these tables, and are read with them
    }
    memset(PoolSizes, 0, sizeof(PoolSizes));
    const unsigned int pools = ReadPools(pszSection);
    if (pools == 0) {
        memcpy(PoolSizes, DefaultPoolSizes, sizeof(DefaultPoolSizes));
        memcpy(PoolInitialSize, DefaultPoolInitialSize, sizeof(DefaultPoolInitialSize));
        memcpy(PoolIncrement, DefaultPoolIncrement, sizeof(DefaultPoolIncrement));
    }
    SortPools(pools);
}

// Slots

namespace {

bool IsUsedUp(const MEM_POOL_LIST& list) {
    return list.nAllocIndex == list.nFreeIndex && (list.nCurrentAllocatedNodes != 0 || list.bNotYetInitialized);
}

unsigned int NextInRing(const MEM_POOL_LIST& list, unsigned int index) {
    return index + 1 < list.nSize ? index + 1 : 0;
}

/// A chunk whose pool ended while slots of it were in use. They stay their owners' (an object that the application
/// destroys after the library's end still has its memory); with the last of them the chunk goes.
struct KeptChunk {
    KeptChunk* pNext;
    char* pActualPointer;
    const char* pFirst;
    const char* pEnd;
    unsigned int capacity;
    unsigned int slotsInUse;
};

/// What the record of a chunk is made of: it becomes that of a kept chunk, for which there may be no memory by then.
union ChunkRecord {
    _MEM_POOL chunk;
    KeptChunk kept;
};

_MEM_POOL* NewChunk() {
    ChunkRecord* pRecord = static_cast<ChunkRecord*>(calloc(1, sizeof(ChunkRecord)));
    // cppcheck-suppress memleak // it is the record that is returned, by its member
    return pRecord ? &pRecord->chunk : nullptr;
}

/// So many zeroed slots for a chunk, aligned; false when there is no memory, or no number for so much of it.
bool AllocateSlots(_MEM_POOL* pChunk, unsigned int pool, unsigned int count) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(tq_MemorySlotStride(pool), static_cast<size_t>(count), &bytes)) {
        return false;
    }
    pChunk->pActualPointer = pChunk->pMemoryBlock = static_cast<char*>(calloc(1, bytes));
    if (!pChunk->pActualPointer || gMemoryAlignmentUnit == 0 ||
        tq_MemoryAboveAlignment(pChunk->pActualPointer + gTotalMemoryHeader) == 0) {
        return pChunk->pActualPointer != nullptr;
    }
    free(pChunk->pActualPointer);
    pChunk->pActualPointer = pChunk->pMemoryBlock = nullptr;
    if (__builtin_add_overflow(bytes, static_cast<size_t>(gMemoryAlignmentUnit), &bytes)) {
        return false;
    }
    char* pActual = static_cast<char*>(calloc(1, bytes));
    if (!pActual) {
        return false;
    }
    pChunk->pActualPointer = pActual;
    pChunk->pMemoryBlock = pActual + (gMemoryAlignmentUnit - tq_MemoryAboveAlignment(pActual + gTotalMemoryHeader));
    return true;
}

/// Puts the slots of a chunk behind the free ones, in the order of their addresses.
bool ReturnSlots(MEM_POOL_LIST* pList, const _MEM_POOL& chunk, unsigned int count) {
    const size_t stride = tq_MemorySlotStride(pList->nPoolIndex);
    for (unsigned int i = 0; i < count; ++i) {
        if (PoolListReturn(pList, chunk.pMemoryBlock + i * stride, /*bAdjustCounts=*/false) != 0) {
            return false;
        }
    }
    return true;
}

/// Moves the free slots to the start of a larger ring.
void ReplaceRing(MEM_POOL_LIST* pList, void** pRing, unsigned int capacity) {
    const unsigned int freeSlots = pList->nSize - pList->nCurrentAllocatedNodes;
    for (unsigned int i = 0; i < freeSlots; ++i) {
        pRing[i] = pList->pArray[pList->nAllocIndex];
        pList->nAllocIndex = NextInRing(*pList, pList->nAllocIndex);
    }
    free(pList->pArray);
    pList->pArray = pRing;
    pList->nSize = capacity;
    pList->nAllocIndex = 0;
    pList->nFreeIndex = freeSlots;
    pList->bNotYetInitialized = false;
}

/// What growth needs; all of it or nothing.
struct Growth {
    _MEM_POOL* pChunk = nullptr;
    void** pRing = nullptr;

    bool Allocate(unsigned int pool, unsigned int added, unsigned int capacity) {
        pChunk = NewChunk();
        pRing = static_cast<void**>(calloc(capacity, sizeof(void*)));
        if (pChunk && pRing && AllocateSlots(pChunk, pool, added)) {
            return true;
        }
        free(pChunk);
        free(pRing);
        return false;
    }
};

/// The linear search: the first pool from `pool` on whose slots are long enough.
unsigned int SearchPool(unsigned int pool, unsigned int length) {
    for (; pool < kMaxMemoryPools && PoolSizes[pool] != 0; ++pool) {
        if (tq_MemorySlotLength(pool) >= length) {
            return pool;
        }
    }
    return kNoMemoryPool;
}

/// Deliberate: "DoNotGrowPools" also forbids the heap, for requests that no pool is large enough for. Without pools
/// (before their start, after their end) it forbids nothing.
void* TakeFromHeap(unsigned int length) {
    return gbGrowPools || TotalPools == 0 ? tq_TakeMemoryHeapBlock(length) : nullptr;
}

/// The pool's lock is held.
void* TakeFromPool(unsigned int pool, unsigned int length) {
    void* pBlock = PoolListTake(PoolLists[pool]);
    // Deliberate: counted also when the pool has no slot left. The bytes of requests that failed stay in its sum.
    if (gbUseMemoryTracking && length > gTotalMemoryOverhead) {
        tq_CountPoolBytesLocked(pool, length - gTotalMemoryOverhead);
    }
    return pBlock;
}

/// Clears the mark of use; false when it was not set.
bool ClearInUse(_MEM_HEADER_POOLING_ONLY* pHeader) {
    const bool bInUse = (pHeader->Flags & TQ_MEM_FLAG_IN_USE) != 0;
    pHeader->Flags = static_cast<unsigned short>(pHeader->Flags & ~TQ_MEM_FLAG_IN_USE);
    return bInUse;
}

/// A slot that is not in use is in the ring already: returned once more it would be handed to two owners. False when
/// the pool has ended meanwhile.
bool ReturnToPool(unsigned int pool, char* pBlock) {
    tq_MemoryPoolHold hold(pool);
    if (tq_MemoryPoolOf(pBlock) != pool || !PoolLists[pool]) {
        return false;
    }
    if (ClearInUse(tq_MemoryPoolHeaderOf(pBlock))) {
        if (gbUseMemoryTracking) {
            PoolLists[pool]->nTotalRequestedSize -= tq_MemoryHeaderOf(pBlock)->size;
        }
        PoolListReturn(PoolLists[pool], pBlock, /*bAdjustCounts=*/true);
    }
    return true;
}

// Slots that outlive their pool

myCritSec KeptCritSec(tq_LockRank::kKeptPools); // taken after a pool's lock
KeptChunk* gpKeptChunks = nullptr;

/// The link to the chunk that a slot lies in; to null when there is none.
KeptChunk** FindKeptLocked(const char* pBlock) {
    KeptChunk** ppChunk = &gpKeptChunks;
    while (*ppChunk && (pBlock < (*ppChunk)->pFirst || pBlock >= (*ppChunk)->pEnd)) {
        ppChunk = &(*ppChunk)->pNext;
    }
    return ppChunk;
}

void ReturnToKept(char* pBlock) {
    myCritSecLock lock(KeptCritSec);
    KeptChunk** ppChunk = FindKeptLocked(pBlock);
    KeptChunk* pChunk = *ppChunk;
    if (!pChunk || !ClearInUse(tq_MemoryPoolHeaderOf(pBlock)) || --pChunk->slotsInUse != 0) {
        return;
    }
    *ppChunk = pChunk->pNext;
    free(pChunk->pActualPointer);
    free(pChunk);
}

/// Marks the slots of a chunk that are in use as those of a pool that has ended; how many they are.
unsigned int EndSlots(const _MEM_POOL& chunk, unsigned int pool, unsigned int slots) {
    const size_t stride = tq_MemorySlotStride(pool);
    unsigned int slotsInUse = 0;
    for (unsigned int i = 0; i < slots; ++i) {
        char* pBlock = chunk.pMemoryBlock + i * stride;
        if (tq_MemoryPoolHeaderOf(pBlock)->Flags & TQ_MEM_FLAG_IN_USE) {
            tq_EndMemoryPoolOf(pBlock);
            ++slotsInUse;
        }
    }
    return slotsInUse;
}

/// Frees a chunk, or keeps it if anybody still uses a slot of it.
void EndChunk(_MEM_POOL* pChunk, unsigned int pool, unsigned int slots) {
    myCritSecLock lock(KeptCritSec); // a slot that is marked as ended finds its chunk kept
    const unsigned int slotsInUse = pChunk->pActualPointer ? EndSlots(*pChunk, pool, slots) : 0;
    if (slotsInUse == 0) {
        free(pChunk->pActualPointer);
        free(pChunk);
        return;
    }
    const _MEM_POOL chunk = *pChunk;
    ChunkRecord* pRecord = reinterpret_cast<ChunkRecord*>(pChunk);
    pRecord->kept = {gpKeptChunks,       chunk.pActualPointer,
                     chunk.pMemoryBlock, chunk.pMemoryBlock + slots * tq_MemorySlotStride(pool),
                     PoolSizes[pool],    slotsInUse};
    gpKeptChunks = &pRecord->kept;
}

} // namespace

unsigned int tq_PooledMemorySlotCapacity(char* pBlock) {
    const unsigned int pool = tq_MemoryPoolOf(pBlock);
    if (pool == kNoMemoryPool) {
        return kNoSlot;
    }
    if (pool < kMaxMemoryPools && PoolSizes[pool] != 0) { // also while pools end one by one, and there are 0 already
        return PoolSizes[pool];
    }
    myCritSecLock lock(KeptCritSec);
    const KeptChunk* pChunk = *FindKeptLocked(pBlock);
    return pChunk ? pChunk->capacity : kNoSlot;
}

void tq_CountPoolBytesLocked(unsigned int pool, unsigned int difference) {
    MEM_POOL_LIST* pList = PoolLists[pool];
    if (!pList) {
        return; // the pool has ended meanwhile
    }
    pList->nTotalRequestedSize += difference;
    pList->nMaxTotalRequestedSize = std::max(pList->nMaxTotalRequestedSize, pList->nTotalRequestedSize);
}

unsigned int WhichPool(unsigned int size) {
    if (size > MaxPoolSize) {
        return kNoMemoryPool;
    }
    return size > kLongestSlotInTable ? SearchPool(LastPoolInIndex, size) : PoolIndexFromSize[size];
}

void* PoolListTake(MEM_POOL_LIST* pList) {
    if (!pList || (IsUsedUp(*pList) && (!gbGrowPools || GrowPool(pList) != 0))) {
        return nullptr;
    }
    void* pBlock = pList->pArray[pList->nAllocIndex];
    pList->nAllocIndex = NextInRing(*pList, pList->nAllocIndex);
    ++pList->nCurrentAllocatedNodes;
    pList->nMaxAllocatedNodes = std::max(pList->nMaxAllocatedNodes, pList->nCurrentAllocatedNodes);
    return pBlock;
}

int PoolListReturn(MEM_POOL_LIST* pList, void* pAddress, bool bAdjustCounts) {
    if (!pList->pArray) {
        pList->nSize = PoolInitialSize[pList->nPoolIndex];
        pList->pArray = static_cast<void**>(calloc(pList->nSize, sizeof(void*)));
    }
    if (!pList->pArray || pList->nSize == 0 || (bAdjustCounts && pList->nCurrentAllocatedNodes == 0)) {
        return 1;
    }
    pList->pArray[pList->nFreeIndex] = pAddress;
    pList->nFreeIndex = NextInRing(*pList, pList->nFreeIndex);
    if (bAdjustCounts) {
        --pList->nCurrentAllocatedNodes;
    }
    return 0;
}

int GrowPool(MEM_POOL_LIST* pList) {
    const unsigned int pool = pList->nPoolIndex;
    const unsigned int added = PoolIncrement[pool];
    unsigned int capacity = 0;
    if (!PoolsLastNode[pool] || added == 0 || __builtin_add_overflow(pList->nSize, added, &capacity)) {
        return 1;
    }
    Growth growth;
    if (!growth.Allocate(pool, added, capacity)) {
        return 1;
    }
    ReplaceRing(pList, growth.pRing, capacity);
    PoolsLastNode[pool]->pNext = growth.pChunk;
    PoolsLastNode[pool] = growth.pChunk;
    ReturnSlots(pList, *growth.pChunk, added); // the ring has room for them
    return 0;
}

void* tq_MemoryPoolMalloc(unsigned int size) {
    unsigned int pool = WhichPool(size);
    tq_MemoryPoolHold hold(pool);
    if (pool != kNoMemoryPool && !PoolLists[pool]) {
        pool = kNoMemoryPool; // it has ended meanwhile
    }
    char* pBlock = static_cast<char*>(pool == kNoMemoryPool ? TakeFromHeap(size) : TakeFromPool(pool, size));
    if (pBlock && gbUseMemoryPooling) { // otherwise blocks have no such header
        _MEM_HEADER_POOLING_ONLY* pHeader = tq_MemoryPoolHeaderOf(pBlock);
        pHeader->Flags = TQ_MEM_FLAG_IN_USE;
        pHeader->nPool = static_cast<unsigned short>(pool);
    }
    return pBlock;
}

void tq_MemoryPoolFree(void* pPointer) {
    if (!pPointer) {
        return;
    }
    char* pBlock = static_cast<char*>(pPointer);
    const unsigned int pool = tq_MemoryPoolOf(pBlock);
    if (pool != kNoMemoryPool) { // a number that was run over says nothing of where the block belongs: it stays
        // Not TotalPools: it is 0 while pools end one by one, and a slot of one still to come must not be lost.
        if (pool >= kMaxMemoryPools || !ReturnToPool(pool, pBlock)) {
            ReturnToKept(pBlock);
        }
        return;
    }
    if (gbUseMemoryPooling) {
        ClearInUse(tq_MemoryPoolHeaderOf(pBlock));
    }
    if (!tq_FreeMemoryHeapBlock(pBlock)) {
        tq_ReportMemoryCorruption("Corrupted Memory Alignment Header detected\n");
    }
}

// Marks

namespace {

/// Changes the flags of every slot in use.
template <typename Change> void ChangeFlagsInUse(Change change) {
    for (unsigned int pool = 0; pool < TotalPools; ++pool) {
        tq_MemoryPoolHold hold(pool);
        tq_WalkMemoryPool(pool, [change](char* pBlock) {
            _MEM_HEADER_POOLING_ONLY* pHeader = tq_MemoryPoolHeaderOf(pBlock);
            if (pHeader->Flags & TQ_MEM_FLAG_IN_USE) {
                pHeader->Flags = static_cast<unsigned short>(change(pHeader->Flags));
            }
        });
    }
}

} // namespace

void tq_MemoryMarkPools() {
    ChangeFlagsInUse([](unsigned int flags) { return flags | TQ_MEM_FLAG_MARKED; });
}

void tq_MemoryUnmarkPools() {
    ChangeFlagsInUse([](unsigned int flags) { return flags & ~static_cast<unsigned int>(TQ_MEM_FLAG_MARKED); });
}

// Reports

namespace {

/// Searches one pool; the pool's lock is held.
class PoolCheck {
public:
    explicit PoolCheck(tq_MemoryRows& rows) : m_rows(rows) {}

    void Look(char* pBlock) {
        if (tq_MemoryHeaderOf(pBlock)->size != 0 && !tq_IsMemoryHeadFreed(pBlock)) {
            if (!tq_IsMemoryHeadSound(pBlock)) {
                ReportHead(pBlock);
            } else if (!tq_IsMemoryTailSound(pBlock)) {
                ReportTail(pBlock);
            }
        }
        m_pPrevious = pBlock;
    }
    bool HasFindings() const { return m_bFindings; }

private:
    bool IsPreviousFreed() const { return m_pPrevious && tq_IsMemoryHeadFreed(m_pPrevious); }

    void Begin(char* pBlock, const char* pszWhere) {
        m_bFindings = true;
        m_rows.Add("  *-%s Check Corruption in memory block starting at: 0x%lx", pszWhere,
                   reinterpret_cast<unsigned long>(pBlock + gTotalMemoryHeader));
        m_rows.End();
    }

    void AddBytes(const char* pszIndent, const char* pszWhere, const unsigned char* pBytes) {
        m_rows.Add("%s%s Check bytes = 0x%02x 0x%02x 0x%02x 0x%02x : %c%c%c%c", pszIndent, pszWhere, pBytes[0],
                   pBytes[1], pBytes[2], pBytes[3], tq_ShownMemoryByte(pBytes[0]), tq_ShownMemoryByte(pBytes[1]),
                   tq_ShownMemoryByte(pBytes[2]), tq_ShownMemoryByte(pBytes[3]));
        m_rows.End();
    }

    void ReportHead(char* pBlock) {
        Begin(pBlock, "Head");
        AddBytes("      ", "Head", tq_MemoryHeadBytes(pBlock));
        if (!m_pPrevious) {
            m_rows.Add("    This is the first block in the pool");
            m_rows.End();
            return;
        }
        m_rows.Add("      Previous Memory Block info:");
        m_rows.End();
        m_rows.Add("        Allocated from line: %u\r\n         in file: %s", tq_MemoryHeaderOf(m_pPrevious)->line,
                   GetMemoryFilename(m_pPrevious));
        m_rows.End();
        if (IsPreviousFreed()) {
            m_rows.Add("        Freed from line: %u\r\n         in file: %s", tq_MemoryHeaderOf(m_pPrevious)->freedLine,
                       GetMemoryFreedFilename(m_pPrevious));
            m_rows.End();
        }
    }

    void ReportTail(char* pBlock) {
        Begin(pBlock, "Tail");
        AddBytes("    ", "Tail", tq_MemoryTailBytes(pBlock));
        m_rows.Add("    Allocated from line: %u\r\n       in file: %s", tq_MemoryHeaderOf(pBlock)->line,
                   GetMemoryFilename(pBlock));
        m_rows.End();
        // Deliberate: whether the block before it is freed decides whether this block's last freeing is shown.
        if (IsPreviousFreed()) {
            m_rows.Add("    Freed from line: %u\r\n       in file: %s", tq_MemoryHeaderOf(pBlock)->freedLine,
                       GetMemoryFreedFilename(pBlock));
            m_rows.End();
        }
    }

    tq_MemoryRows& m_rows;
    char* m_pPrevious = nullptr;
    bool m_bFindings = false;
};

/// Who is told what a search finds.
struct CheckReader {
    unsigned int instance;
    bool bUseStdOut;

    void Tell(const char* pszText) const {
        if (instance != 0) {
            tq_MemoryTelnetSendResponse(pszText, instance, kMemoryResponseFlags);
        }
        if (bUseStdOut) {
            puts(pszText);
        }
    }
};

bool CheckPool(unsigned int pool, const CheckReader& reader) {
    tq_MemoryRows rows;
    PoolCheck check(rows);
    rows.Add("Pool #%u:", pool + 1);
    rows.End();
    {
        tq_MemoryPoolHold hold(pool);
        tq_WalkMemoryPool(pool, [&check](char* pBlock) { check.Look(pBlock); });
    }
    if (!check.HasFindings()) {
        rows.Add("    No corrupt blocks detected.");
        rows.End();
    }
    rows.PutOut([&reader](const char* pszText) { reader.Tell(pszText); });
    return check.HasFindings();
}

} // namespace

bool tq_CheckMemoryPools() {
    return tq_CheckMemoryPoolsInternal(0, /*bUseStdOut=*/true);
}

void tq_CheckMemoryPoolsFromTelnet(unsigned int instance) {
    tq_CheckMemoryPoolsInternal(instance, /*bUseStdOut=*/false);
}

bool tq_CheckMemoryPoolsInternal(unsigned int instance, bool bUseStdOut) {
    if (instance == 0 && !bUseStdOut) {
        return false;
    }
    const CheckReader reader = {instance, bUseStdOut};
    if (!gbUseMemoryTracking || !gbUseMemoryPooling) {
        reader.Tell("Must have Memory Pooling and Tracking enabled to Check the Pools!");
        return false;
    }
    reader.Tell("Checking Memory...");
    bool bFindings = false;
    for (unsigned int pool = 0; pool < TotalPools; ++pool) {
        bFindings = CheckPool(pool, reader) || bFindings;
    }
    if (instance != 0) {
        tq_MemoryTelnetSendResponse("\r\n", instance, kMemoryResponseFlags);
    }
    return bFindings;
}

// Start and stop

namespace {

unsigned int CountPools() {
    unsigned int pools = 0;
    while (pools < kMaxMemoryPools && PoolSizes[pools] != 0) {
        ++pools;
    }
    return pools;
}

/// Makes slots of a size multiples of the alignment; false when there is no number for their length.
bool RoundPoolSize(unsigned int pool) {
    const unsigned long long unit = gMemoryAlignmentUnit ? gMemoryAlignmentUnit : 1;
    const unsigned long long length = static_cast<unsigned long long>(PoolSizes[pool]) + gTotalMemoryOverhead;
    const unsigned long long rounded = (length + unit - 1) / unit * unit;
    if (rounded > kLongestSlot) {
        return false;
    }
    PoolSizes[pool] = static_cast<unsigned int>(rounded - gTotalMemoryOverhead);
    return true;
}

void FillSizeTable(unsigned int maxLength) {
    const unsigned int longest = std::min(maxLength, kLongestSlotInTable);
    unsigned int pool = 0;
    for (unsigned int length = 0; length <= longest; ++length) {
        while (tq_MemorySlotLength(pool) < length) {
            ++pool;
        }
        PoolIndexFromSize[length] = static_cast<unsigned char>(pool);
    }
    LastPoolInIndex = longest == kLongestSlotInTable ? pool : kNoMemoryPool;
}

bool StartPool(unsigned int pool) {
    Pools[pool] = PoolsLastNode[pool] = NewChunk();
    PoolLists[pool] = static_cast<MEM_POOL_LIST*>(calloc(1, sizeof(MEM_POOL_LIST)));
    if (!Pools[pool] || !PoolLists[pool]) {
        return false;
    }
    PoolLists[pool]->nPoolIndex = pool;
    if (PoolInitialSize[pool] == 0) {
        PoolLists[pool]->bNotYetInitialized = true;
        return true;
    }
    return AllocateSlots(Pools[pool], pool, PoolInitialSize[pool]) &&
           ReturnSlots(PoolLists[pool], *Pools[pool], PoolInitialSize[pool]);
}

bool StartPools(unsigned int pools) {
    for (unsigned int pool = 0; pool < pools; ++pool) {
        if (!RoundPoolSize(pool)) {
            return false;
        }
    }
    FillSizeTable(tq_MemorySlotLength(pools - 1));
    for (unsigned int pool = 0; pool < pools; ++pool) {
        if (!StartPool(pool)) {
            return false;
        }
    }
    TotalPools = pools;
    MaxPoolSize = tq_MemorySlotLength(pools - 1);
    return true;
}

void EndPool(unsigned int pool) {
    if (PoolLists[pool]) {
        free(PoolLists[pool]->pArray);
        free(PoolLists[pool]);
        PoolLists[pool] = nullptr;
    }
    _MEM_POOL* pChunk = Pools[pool];
    Pools[pool] = PoolsLastNode[pool] = nullptr;
    unsigned int slots = PoolInitialSize[pool];
    while (pChunk) {
        _MEM_POOL* pNext = pChunk->pNext;
        EndChunk(pChunk, pool, slots);
        pChunk = pNext;
        slots = PoolIncrement[pool];
    }
}

} // namespace

unsigned int tq_MemoryPoolInitialize() {
    if (TotalPools != 0) {
        return 0;
    }
    const unsigned int pools = CountPools();
    if (pools != 0 && StartPools(pools)) {
        return 0;
    }
    tq_MemoryPoolTerminate(/*bDumpResources=*/false);
    return 1;
}

void tq_MemoryPoolTerminate(bool bDumpResources) {
    if (bDumpResources) {
        tq_MemoryUnmarkPools();
        tq_ShowMemoryPools(0, kMemoryReportDetailed, /*bPrintf=*/true, nullptr, /*pool=*/0, /*bGroupNames=*/false,
                           nullptr, nullptr, TQ_MEM_SORT_FORMATS::NONE, /*bReverseSort=*/false, /*bFixedSize=*/false, 0,
                           0);
    }
    TotalPools = 0;
    MaxPoolSize = 0;
    LastPoolInIndex = kNoMemoryPool;
    for (unsigned int pool = kMaxMemoryPools; pool-- > 0;) {
        tq_MemoryPoolHold hold(pool);
        EndPool(pool);
    }
}
