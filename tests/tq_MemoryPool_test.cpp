#include <algorithm>
#include <atomic>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "MemoryBlocks.h"
#include "TestSupport.h"
#include "tqos.h"

using namespace test;

namespace {

const std::string kPooling = "EnableMemoryPooling=yes\n";
const std::string kBoth = "EnableMemoryPooling=yes\nEnableMemoryTracking=yes\n";

std::string Pool(unsigned int number, unsigned int size, unsigned int start, unsigned int increment) {
    const std::string key = "Pool" + std::to_string(number);
    return key + "BlockSize=" + std::to_string(size) + "\n" + key + "StartCount=" + std::to_string(start) + "\n" + key +
           "Increment=" + std::to_string(increment) + "\n";
}

unsigned int PoolOf(void* pUserData) {
    return tq_MemoryPoolOf(BlockOf(pUserData));
}

unsigned int FlagsOf(void* pUserData) {
    return tq_MemoryPoolHeaderOf(BlockOf(pUserData))->Flags;
}

std::vector<void*> Take(unsigned int count, unsigned int size) {
    std::vector<void*> blocks;
    for (unsigned int i = 0; i < count; ++i) {
        blocks.push_back(tq__malloc(size, "take.cpp", i + 1));
        EXPECT_NE(nullptr, blocks.back());
    }
    return blocks;
}

void Free(const std::vector<void*>& blocks) {
    for (void* pUserData : blocks) {
        tq_free(pUserData);
    }
}

std::string Address(const void* pUserData) {
    char text[32];
    snprintf(text, sizeof(text), "%lx", reinterpret_cast<unsigned long>(pUserData));
    return text;
}

/// What the search for damage prints.
std::string Check(bool bExpected) {
    const ChildResult result = RunInChild([bExpected] {
        const bool bFound = tq_CheckMemoryPools();
        fflush(stdout);
        _exit(bFound == bExpected ? 0 : 1);
    });
    EXPECT_EQ(0, result.code);
    return result.standardOut;
}

} // namespace

// Settings

TEST(MemoryPool, AreOffUnlessAskedFor) {
    Memory memory;
    EXPECT_FALSE(gbUseMemoryPooling);
    EXPECT_EQ(0u, TotalPools);
    EXPECT_EQ(100u, WhichPool(1));
}

TEST(MemoryPool, FiveAreBuiltIn) {
    Memory memory(kPooling);
    EXPECT_TRUE(gbGrowPools);
    EXPECT_EQ(5u, TotalPools);
    const unsigned int rows[][2] = {{32, 50}, {128, 50}, {512, 30}, {1024, 20}, {4096, 10}, {0, 0}};
    for (unsigned int pool = 0; pool < 6; ++pool) {
        EXPECT_EQ(rows[pool][0], PoolSizes[pool]);
        if (pool < 5) {
            EXPECT_EQ(rows[pool][1], PoolInitialSize[pool]);
            EXPECT_EQ(rows[pool][1], PoolIncrement[pool]);
            EXPECT_EQ(rows[pool][1], PoolLists[pool]->nSize);
            EXPECT_EQ(pool, PoolLists[pool]->nPoolIndex);
        }
    }
}

TEST(MemoryPool, AreReadFromTheConfigurationAndSortedBySize) {
    Memory memory(kPooling + Pool(1, 300, 3, 33) + Pool(2, 100, 1, 11) + Pool(3, 200, 2, 22));
    ASSERT_EQ(3u, TotalPools);
    for (unsigned int pool = 0; pool < 3; ++pool) {
        EXPECT_EQ((pool + 1) * 100, PoolSizes[pool]);
        EXPECT_EQ(pool + 1, PoolInitialSize[pool]);
        EXPECT_EQ((pool + 1) * 11, PoolIncrement[pool]);
    }
    EXPECT_EQ(0u, PoolSizes[3]);
}

TEST(MemoryPool, TheFirstMissingOrZeroBlockSizeEndsTheList) {
    {
        Memory memory(kPooling + Pool(1, 100, 1, 1) + Pool(3, 200, 1, 1));
        EXPECT_EQ(1u, TotalPools);
    }
    {
        Memory memory(kPooling + Pool(1, 100, 1, 1) + Pool(2, 0, 1, 1) + Pool(3, 200, 1, 1));
        EXPECT_EQ(1u, TotalPools);
    }
    Memory memory(kPooling + Pool(2, 100, 1, 1)); // none: the built-in ones
    EXPECT_EQ(5u, TotalPools);
}

TEST(MemoryPool, GrowByDefaultAccordingToTheirSize) {
    const unsigned int rows[][2] = {{1, 10},   {512, 10}, {513, 5},  {1024, 5}, {1025, 3},
                                    {4096, 3}, {4097, 2}, {8192, 2}, {8193, 1}, {100000, 1}};
    std::string keys = kPooling;
    unsigned int number = 0;
    for (const auto& row : rows) {
        keys += "Pool" + std::to_string(++number) + "BlockSize=" + std::to_string(row[0]) + "\n";
    }
    Memory memory(keys);
    ASSERT_EQ(10u, TotalPools);
    for (unsigned int pool = 0; pool < 10; ++pool) {
        EXPECT_EQ(rows[pool][1], PoolIncrement[pool]) << rows[pool][0];
        EXPECT_EQ(0u, PoolInitialSize[pool]);
    }
}

TEST(MemoryPool, AHundredCanBeConfiguredAndNoMore) {
    std::string keys = kPooling;
    for (unsigned int number = 1; number <= 101; ++number) {
        keys += Pool(number, number * 8, 1, 1);
    }
    Memory memory(keys);
    ASSERT_EQ(100u, TotalPools);
    EXPECT_EQ(0u, PoolSizes[100]);
    std::vector<void*> blocks;
    for (unsigned int number = 1; number <= 101; ++number) {
        blocks.push_back(tq_malloc(number * 8));
        EXPECT_EQ(number - 1, PoolOf(blocks.back())) << "the last one is on the heap";
    }
    Free(blocks);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, SizesAreRoundedUpForTheAlignmentOnceAndNotFromStartToStart) {
    unsigned int rounded = 0;
    for (int start = 0; start < 3; ++start) {
        Memory memory(kBoth + "MemoryAlignment=48\n");
        EXPECT_EQ(0u, (PoolSizes[0] + gTotalMemoryOverhead) % 48);
        EXPECT_LE(32u, PoolSizes[0]);
        EXPECT_GT(32u + 48u, PoolSizes[0]);
        EXPECT_TRUE(start == 0 || rounded == PoolSizes[0]);
        rounded = PoolSizes[0];
    }
    Memory memory(kBoth);
    EXPECT_EQ(32u, PoolSizes[0]);
}

TEST(MemoryPool, ASecondInitialisationKeepsThePoolsThatExist) {
    Memory memory(kBoth + Pool(1, 64, 2, 2));
    void* pUserData = tq_malloc(10);
    WriteFile("tqos.ini", "[Memory]\n" + kBoth + Pool(1, 640, 7, 7));
    EXPECT_EQ(0u, tq_MemoryInitialize());
    EXPECT_EQ(64u, PoolSizes[0]);
    EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
    tq_free(pUserData);
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ("", Reports());
}

// Which pool

TEST(MemoryPool, TheSmallestThatHoldsARequestServesIt) {
    Memory memory(kBoth);
    struct Row {
        unsigned int size;
        unsigned int pool;
    };
    for (const Row& row : {Row{0, 0}, Row{1, 0}, Row{32, 0}, Row{33, 1}, Row{128, 1}, Row{129, 2}, Row{512, 2},
                           Row{513, 3}, Row{1025, 4}, Row{4096, 4}, Row{4097, 100}, Row{100000, 100}}) {
        void* pUserData = tq_malloc(row.size);
        EXPECT_EQ(row.pool, PoolOf(pUserData)) << row.size;
        EXPECT_EQ(row.pool, WhichPool(std::max(row.size, 1u) + gTotalMemoryOverhead)) << row.size;
        EXPECT_EQ(4097u, FlagsOf(pUserData)); // in use, of the malloc family
        tq_free(pUserData);
    }
    EXPECT_EQ(0u, WhichPool(0));
    EXPECT_EQ(100u, WhichPool(0xFFFFFFFFu));
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, LengthsBeyondTheTableAreSearchedFor) {
    Memory memory(kPooling + Pool(1, 100, 0, 1) + Pool(2, 102400 - gTotalMemoryOverhead, 0, 1) + Pool(3, 200000, 0, 1) +
                  Pool(4, 300000, 0, 1));
    EXPECT_EQ(0u, WhichPool(100 + gTotalMemoryOverhead));
    EXPECT_EQ(1u, WhichPool(101 + gTotalMemoryOverhead));
    EXPECT_EQ(1u, WhichPool(102400 - gTotalMemoryOverhead));
    EXPECT_EQ(2u, WhichPool(102401 + gTotalMemoryOverhead));
    EXPECT_EQ(2u, WhichPool(200000 + gTotalMemoryOverhead));
    EXPECT_EQ(3u, WhichPool(200001 + gTotalMemoryOverhead));
    EXPECT_EQ(3u, WhichPool(300000 + gTotalMemoryOverhead));
    EXPECT_EQ(100u, WhichPool(300001 + gTotalMemoryOverhead));
}

TEST(MemoryPool, EveryLengthHasTheFirstPoolThatIsLongEnough) {
    Memory memory(kBoth + Pool(1, 5, 0, 1) + Pool(2, 6, 0, 1) + Pool(3, 700, 0, 1) + Pool(4, 700, 0, 1) +
                  Pool(5, 150000, 0, 1));
    EXPECT_EQ(4u, LastPoolInIndex);
    for (unsigned int length = 0; length < 160000; ++length) {
        unsigned int expected = 0;
        while (expected < 5 && PoolSizes[expected] + gTotalMemoryOverhead < length) {
            ++expected;
        }
        ASSERT_EQ(expected < 5 ? expected : 100u, WhichPool(length)) << length;
    }
}

// Layout

TEST(MemoryPool, BlocksHaveTheHeadersOfTheirMode) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys);
        char* pUserData = static_cast<char*>(tq__new(10, "alloc.cpp", 11));
        EXPECT_EQ(8193u, FlagsOf(pUserData));
#if defined(__i386__)
        EXPECT_EQ(gbUseMemoryTracking ? 28u : 4u, gTotalMemoryHeader);
        EXPECT_EQ(gbUseMemoryTracking ? 32u : 4u, gTotalMemoryOverhead);
        EXPECT_EQ(reinterpret_cast<char*>(tq_MemoryPoolHeaderOf(BlockOf(pUserData))), pUserData - gTotalMemoryHeader);
#endif
        if (gbUseMemoryTracking) {
            EXPECT_EQ(10u, HeaderOf(pUserData)->size);
            EXPECT_STREQ("alloc.cpp", HeaderOf(pUserData)->pFile);
            EXPECT_EQ(11u, HeaderOf(pUserData)->line);
            EXPECT_EQ(kLive, Bytes(pUserData - 4, 4));
            EXPECT_EQ(kLive, Bytes(pUserData + 10, 4));
        }
        tq_delete(pUserData);
        EXPECT_EQ("", Reports());
    }
}

TEST(MemoryPool, SlotsAreAlignedInEveryMode) {
    for (const std::string& keys : {kPooling, kBoth}) {
        for (unsigned int alignment : {0u, 4u, 12u, 16u, 100u, 128u}) {
            Memory memory(keys + "MemoryAlignment=" + std::to_string(alignment) + "\n" + Pool(1, 33, 3, 2) +
                          Pool(2, 1001, 0, 3));
            std::vector<void*> blocks = Take(8, 33);
            const std::vector<void*> larger = Take(8, 1001);
            blocks.insert(blocks.end(), larger.begin(), larger.end());
            for (void* pUserData : blocks) {
                EXPECT_EQ(0u, AddressModulo(pUserData, TQ_MEM_BLOCK_ALIGNMENT));
                EXPECT_EQ(0u, AddressModulo(pUserData, alignment ? gMemoryAlignmentUnit : 1));
            }
            Free(blocks);
            EXPECT_EQ("", Reports());
        }
    }
}

TEST(MemoryPool, SlotsDoNotOverlap) {
    Memory memory(kPooling + Pool(1, 33, 7, 5));
    std::vector<void*> blocks = Take(30, 33);
    for (unsigned int i = 0; i < 30; ++i) {
        memset(blocks[i], static_cast<int>(i), 33);
    }
    for (unsigned int i = 0; i < 30; ++i) {
        EXPECT_EQ(std::string(33, static_cast<char>(i)), Bytes(blocks[i], 33));
    }
    Free(blocks);
}

// Taking and giving back

TEST(MemoryPool, AFreedSlotIsUsedAgainAfterThoseThatWereFreeBeforeIt) {
    Memory memory(kBoth + Pool(1, 32, 5, 5));
    std::vector<void*> blocks = Take(3, 32); // two are left
    tq_free(blocks[0]);
    tq_free(blocks[1]);
    const std::vector<void*> older = Take(2, 32);
    EXPECT_EQ(0, std::count(blocks.begin(), blocks.end(), older[0]));
    EXPECT_EQ(0, std::count(blocks.begin(), blocks.end(), older[1]));
    EXPECT_LT(older[0], older[1]);
    EXPECT_EQ(blocks[0], tq_malloc(1));
    EXPECT_EQ(blocks[1], tq_malloc(1));
    EXPECT_EQ(5u, PoolLists[0]->nSize);
    EXPECT_EQ(5u, PoolLists[0]->nCurrentAllocatedNodes);
}

TEST(MemoryPool, ARingTakesNoMoreSlotsBackThanWereTaken) {
    Memory memory(kBoth + Pool(1, 32, 2, 2) + Pool(2, 64, 0, 2));
    tq_MemoryPoolHold hold(0);
    void* pBlock = PoolListTake(PoolLists[0]);
    EXPECT_EQ(0, PoolListReturn(PoolLists[0], pBlock, /*bAdjustCounts=*/true));
    EXPECT_EQ(1, PoolListReturn(PoolLists[0], pBlock, /*bAdjustCounts=*/true));
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ(1u, PoolLists[0]->nFreeIndex);
    EXPECT_EQ(1, PoolListReturn(PoolLists[1], pBlock, /*bAdjustCounts=*/false)); // no slot, no ring
    EXPECT_EQ(nullptr, PoolListTake(nullptr));
}

TEST(MemoryPool, CountsItsSlotsAndTheirMost) {
    Memory memory(kBoth + Pool(1, 32, 5, 5));
    const MEM_POOL_LIST& list = *PoolLists[0];
    std::vector<void*> blocks = Take(3, 20);
    EXPECT_EQ(3u, list.nCurrentAllocatedNodes);
    EXPECT_EQ(60u, list.nTotalRequestedSize);
    EXPECT_EQ(60u, gRequestedMemoryAllocations);
    EXPECT_EQ(3 * (32 + gTotalMemoryOverhead), gTotalMemoryAllocations); // the slots, not what was asked for
    Free(blocks);
    EXPECT_EQ(0u, list.nCurrentAllocatedNodes);
    EXPECT_EQ(3u, list.nMaxAllocatedNodes);
    EXPECT_EQ(0u, list.nTotalRequestedSize);
    EXPECT_EQ(60u, list.nMaxTotalRequestedSize);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_EQ(3 * (32 + gTotalMemoryOverhead), gMaxTotalMemoryAllocations);
}

TEST(MemoryPool, HeapBlocksAreCountedWithTheirOwnLength) {
    Memory memory(kBoth + Pool(1, 32, 5, 5));
    void* pUserData = tq_malloc(1000);
    EXPECT_EQ(100u, PoolOf(pUserData));
    EXPECT_EQ(1000 + gTotalMemoryOverhead, gTotalMemoryAllocations);
    tq_free(pUserData);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, WithoutTrackingNoBytesAreCounted) {
    Memory memory(kPooling);
    void* pUserData = tq_malloc(20);
    EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ(0u, PoolLists[0]->nTotalRequestedSize);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    tq_free(pUserData);
}

TEST(MemoryPool, FillsAndCallocWorkOnSlots) {
    Memory memory(kBoth + "DirtyMemoryAlloc=0xCD\nDirtyMemoryFree=0xDD\n" + Pool(1, 32, 1, 1));
    char* pUserData = static_cast<char*>(tq_malloc(20));
    EXPECT_EQ(std::string(20, '\xCD'), Bytes(pUserData, 20));
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(std::string(20, '\xDD'), Bytes(pUserData, 20));
    EXPECT_EQ(kFreed, Bytes(pUserData - 4, 4));
    EXPECT_STREQ("free.cpp", HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(pUserData, tq_calloc(2, 10));
    EXPECT_EQ(std::string(20, '\0'), Bytes(pUserData, 20));
    tq_free(pUserData);
}

TEST(MemoryPool, ASlotKeepsTheRecordOfItsLastFreeing) {
    Memory memory(kBoth + Pool(1, 32, 1, 0));
    void* pUserData = tq_malloc(20);
    EXPECT_EQ(nullptr, HeaderOf(pUserData)->pFreedFile);
    tq__free(pUserData, "free.cpp", 22);
    ASSERT_EQ(pUserData, tq_malloc(10));
    EXPECT_STREQ("free.cpp", HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(22u, HeaderOf(pUserData)->freedLine);
    tq_free(pUserData);
}

// Growth

TEST(MemoryPool, GrowsByItsIncrementWhenEverySlotIsInUse) {
    Memory memory(kBoth + Pool(1, 32, 2, 3));
    const MEM_POOL_LIST& list = *PoolLists[0];
    const std::vector<void*> blocks = Take(2, 10);
    EXPECT_EQ(2u, list.nSize);
    void* pThird = tq_malloc(10);
    EXPECT_EQ(5u, list.nSize);
    EXPECT_EQ(1u, list.nAllocIndex);
    EXPECT_EQ(3u, list.nFreeIndex);
    EXPECT_EQ(3u, list.nCurrentAllocatedNodes);
    EXPECT_NE(Pools[0], PoolsLastNode[0]);
    EXPECT_EQ(Pools[0]->pNext, PoolsLastNode[0]);
    unsigned int walked = 0;
    tq_WalkMemoryPool(0, [&](char*) { ++walked; });
    EXPECT_EQ(5u, walked);
    const std::vector<void*> more = Take(30, 10);
    EXPECT_EQ(35u, list.nSize);
    Free(blocks);
    Free(more);
    tq_free(pThird);
    EXPECT_EQ(0u, list.nCurrentAllocatedNodes);
    Free(Take(35, 10)); // all of them are there
    EXPECT_EQ(35u, list.nSize);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, AStartCountOfZeroOwnsNothingUntilTheFirstRequest) {
    Memory memory(kBoth + Pool(1, 32, 0, 3));
    const MEM_POOL_LIST& list = *PoolLists[0];
    EXPECT_TRUE(list.bNotYetInitialized);
    EXPECT_EQ(0u, list.nSize);
    EXPECT_EQ(nullptr, Pools[0]->pActualPointer);
    tq_MemoryMarkPools(); // walks over no slot
    void* pUserData = tq_malloc(10);
    EXPECT_FALSE(list.bNotYetInitialized);
    EXPECT_EQ(3u, list.nSize);
    tq_free(pUserData);
    Free(Take(3, 10));
    EXPECT_EQ(3u, list.nSize);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, GrowingByHandKeepsTheFreeSlotsInTheirOrder) {
    Memory memory(kBoth + Pool(1, 32, 4, 2));
    MEM_POOL_LIST* pList = PoolLists[0];
    std::vector<void*> blocks = Take(3, 10);
    tq_free(blocks[0]);
    void* pNext = pList->pArray[pList->nAllocIndex];
    {
        tq_MemoryPoolHold hold(0);
        EXPECT_EQ(0, GrowPool(pList));
    }
    EXPECT_EQ(6u, pList->nSize);
    EXPECT_EQ(pNext, BlockOf(tq_malloc(10)));
    EXPECT_EQ(blocks[0], tq_malloc(10));
    Take(2, 10);
    EXPECT_EQ(6u, pList->nSize);
    EXPECT_EQ(6u, pList->nCurrentAllocatedNodes);
}

TEST(MemoryPool, WithDoNotGrowPoolsTheFiftyFirstBlockFailsAndSoDoLargeRequests) {
    Memory memory(kBoth + "DoNotGrowPools=yes\n");
    std::vector<void*> blocks = Take(50, 32);
    EXPECT_EQ(nullptr, tq__malloc(32, "full.cpp", 51));
    EXPECT_EQ(1u, CountOf(Reports(), "[time] Unable to allocate Memory\n    size: 32 bytes from:\n"
                                     "    line 51 in file: full.cpp\n"));
    // Deliberate: the switch forbids the heap, too.
    EXPECT_EQ(nullptr, tq__malloc(4097, "large.cpp", 1));
    EXPECT_EQ(1u, CountOf(Reports(), "[time] Unable to allocate Memory\n    size: 4097 bytes from:\n"
                                     "    line 1 in file: large.cpp\n"));
    tq_free(blocks.back());
    blocks.back() = tq_malloc(32);
    EXPECT_NE(nullptr, blocks.back());
    Free(blocks);
}

TEST(MemoryPool, AnIncrementOfZeroFailsTheOneRequestAndThePoolStaysUsable) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 2, 0) + Pool(2, 64, 0, 0) + Pool(3, 128, 1, 1));
        std::vector<void*> blocks = Take(2, 10);
        EXPECT_EQ(nullptr, tq_malloc(10));
        EXPECT_EQ(nullptr, tq_malloc(10));
        EXPECT_EQ(nullptr, tq_malloc(50)); // a pool that never gets a slot; the next one does not help out
        EXPECT_EQ(2u, PoolLists[0]->nSize);
        EXPECT_EQ(2u, PoolLists[0]->nCurrentAllocatedNodes);
        tq_free(blocks[0]);
        EXPECT_EQ(blocks[0], tq_malloc(10));
        Free(blocks);
        Free(Take(2, 10));
        EXPECT_EQ(3u, CountOf(Reports(), "[time] "));
    }
}

TEST(MemoryPool, ARefusedGrowthFailsTheOneRequestAndThePoolStaysUsable) {
    Memory memory(kBoth + Pool(1, 4096, 2, 0x7FFFFFFF) + Pool(2, 8192, 0, 0x7FFFFFFF));
    const ChildResult result = RunInChild([] {
        LimitMemory();
        std::vector<void*> blocks = Take(2, 10);
        for (int i = 0; i < 3; ++i) {
            if (tq__malloc(10, "full.cpp", 3) || tq__malloc(5000, "full.cpp", 4) || PoolLists[0]->nSize != 2 ||
                Pools[0]->pNext || PoolLists[1]->nSize != 0 || !PoolLists[1]->bNotYetInitialized) {
                _exit(1);
            }
            tq_free(blocks[0]);
            if (tq_malloc(10) != blocks[0]) {
                _exit(2);
            }
        }
        Free(blocks);
        _exit(PoolLists[0]->nCurrentAllocatedNodes == 0 ? 0 : 3);
    });
    EXPECT_EQ(0, result.code);
    EXPECT_EQ(6u, CountOf(Reports(), "Unable to allocate Memory\n"));
    EXPECT_EQ(6u, CountOf(Reports(), "[time] "));
}

TEST(MemoryPool, BytesOfARequestThatFailedStayInItsPoolsSum) {
    Memory memory(kBoth + Pool(1, 32, 1, 0));
    void* pUserData = tq_malloc(10);
    EXPECT_EQ(nullptr, tq_malloc(20));
    EXPECT_EQ(30u, PoolLists[0]->nTotalRequestedSize);
    EXPECT_EQ(30u, PoolLists[0]->nMaxTotalRequestedSize);
    EXPECT_EQ(10u, gRequestedMemoryAllocations);
    tq_free(pUserData);
    EXPECT_EQ(20u, PoolLists[0]->nTotalRequestedSize);
}

TEST(MemoryPool, APoolThatCannotBeMadeFailsTheStartAndLeavesNone) {
    struct Row {
        unsigned int size;
        unsigned int start;
    };
    for (const Row& row : {Row{0xFFFFFFFFu, 0}, Row{0xFFFFFFE0u, 1}, Row{0x40000000u, 0x7FFFFFFFu},
                           Row{16, 0x7FFFFFFFu}, Row{65504, 65537}, Row{0x7FFFFFF0u, 3}}) {
        Memory memory;
        // A large number is written as a negative one: that is how the configuration's integers are read.
        WriteFile("tqos.ini", "[Memory]\n" + kBoth + Pool(1, 8, 4, 4) +
                                  "Pool2BlockSize=" + std::to_string(static_cast<int>(row.size)) +
                                  "\nPool2StartCount=" + std::to_string(static_cast<int>(row.start)) + "\n");
        const ChildResult result = RunInChild([] {
            LimitMemory();
            const bool bRefused =
                tq_MemoryInitialize() == 1 && TotalPools == 0 && MaxPoolSize == 0 && !Pools[0] && !PoolLists[0];
            void* pUserData = tq_malloc(10); // the heap serves
            const bool bOnHeap = pUserData && tq_MemoryPoolOf(BlockOf(pUserData)) == 100;
            tq_free(pUserData);
            tq_MemoryTerminate(/*bDumpResources=*/false);
            _exit(bRefused && bOnHeap ? 0 : 1);
        });
        EXPECT_EQ(0, result.code) << row.size << " " << row.start;
        EXPECT_EQ("", Reports());
    }
}

TEST(MemoryPool, TheLibraryDoesNotStartWithoutItsPools) {
    const ChildResult result = RunInChild([] {
        ScratchDirectory directory;
        WriteFile("tqos.ini", "[Memory]\n" + kBoth + "Pool1BlockSize=-1\n");
        const unsigned int started = tqOS_Initialize();
        tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
        _exit(started == 1 ? 0 : 1);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
}

// Freeing

TEST(MemoryPool, ABlockFreedTwiceIsReportedWithItsFirstFreeing) {
    Memory memory(kBoth);
    void* pUserData = tq__malloc(10, "alloc.cpp", 11);
    tq__free(pUserData, "first.cpp", 33);
    tq__free(pUserData, "second.cpp", 44);
    EXPECT_EQ(Logged("Double Freed memory block...\n    Previously Freed from line: 33 in file: first.cpp\n"
                     "    Header bytes = 0xfe 0xfe 0xfe 0xfe\n    Allocated from line: 11 in file: alloc.cpp\n"
                     "    Freed from line: 44 in file: second.cpp\n"),
              Reports());
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
}

TEST(MemoryPool, WithoutTrackingABlockFreedTwiceIsInThePoolOnce) {
    Memory memory(kPooling + Pool(1, 32, 2, 1));
    void* pUserData = tq_malloc(10);
    tq_free(pUserData);
    tq_free(pUserData);
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_NE(tq_malloc(10), tq_malloc(10));
    EXPECT_EQ(2u, PoolLists[0]->nCurrentAllocatedNodes);
}

TEST(MemoryPool, ADamagedBlockIsReportedAndStays) {
    Memory memory(kBoth);
    char* pUserData = static_cast<char*>(tq__malloc(10, "alloc.cpp", 11));
    pUserData[10] = 'x';
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0x78 0xff 0xff 0xff\n"
                     "    Allocated from line: 11 in file: alloc.cpp\n    Freed from line: 22 in file: free.cpp\n"),
              Reports());
    EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ(4097u, FlagsOf(pUserData));
}

TEST(MemoryPool, ASizeThatDoesNotFitTheSlotIsDamageAndNothingBehindTheSlotIsRead) {
    Memory memory(kBoth + Pool(1, 32, 1, 0));
    char* pUserData = static_cast<char*>(tq__malloc(32, "alloc.cpp", 11));
    HeaderOf(pUserData)->size = 0x7FFFFFFF;
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0xff 0xff 0xff 0xff\n"
                     "    Allocated from line: 11 in file: alloc.cpp\n    Freed from line: 22 in file: free.cpp\n"),
              Reports());
    EXPECT_EQ(1u, CountOf(Check(true), "Tail Check Corruption"));
    HeaderOf(pUserData)->size = 32;
}

TEST(MemoryPool, FreeingWithTheOtherFamilyIsReportedAndTheBlockStays) {
    {
        Memory memory(kBoth);
        void* pUserData = tq__new(10, "alloc.cpp", 11);
        tq__free(pUserData, "free.cpp", 22);
        EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Allocated from line: 11 in file: alloc.cpp\n"
                         "    Freed from line: 22 in file: free.cpp\n"),
                  Reports());
        EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
        tq_deleteArray(pUserData);
        EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    }
    Memory memory(kPooling); // nothing is known of where it was allocated
    void* pSlot = tq__malloc(10, "alloc.cpp", 11);
    void* pHeap = tq__new(100000, "alloc.cpp", 12);
    tq__delete(pSlot, "free.cpp", 22);
    tq__free(pHeap, nullptr, 23);
    EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Freed from line: 22 in file: free.cpp\n") +
                  Logged("Mismatched alloc/free types...\n    Freed from line: 23 in file: (Unknown)\n"),
              Reports());
    EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
    tq_FreeEitherFamily(pSlot, "free.cpp", 24);
    tq_FreeEitherFamily(pHeap, "free.cpp", 25);
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
}

TEST(MemoryPool, APlaceSetInAdvanceStandsForTheFreersOwn) {
    Memory memory(kBoth);
    void* pUserData = tq_malloc(10);
    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", 55);
    EXPECT_EQ(4097u | TQ_MEM_FLAG_FREED_LOCATION_SET, FlagsOf(pUserData));
    tq__free(pUserData, "wrapper.cpp", 66);
    EXPECT_STREQ("caller.cpp", HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(55u, HeaderOf(pUserData)->freedLine);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, ADamagedPrefixOfAHeapBlockIsReportedAndTheBlockStays) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + "MemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
        void* pUserData = tq_malloc(100000);
        char* pMark = BlockOf(pUserData) - 1;
        while (*pMark != '7') {
            --pMark;
        }
        *pMark = 'x';
        tq__free(pUserData, "free.cpp", 22);
        EXPECT_EQ(Logged("Corrupted Memory Alignment Header detected\n"), Reports());
        *pMark = '7';
        if (gbUseMemoryTracking) {
            memset(HeadBytes(pUserData), 0xFF, 4);
        }
        tq_free(pUserData);
        EXPECT_EQ(Logged("Corrupted Memory Alignment Header detected\n"), Reports());
    }
}

TEST(MemoryPool, AHeapBlockLivesOnWhenThePoolsEnd) {
    Memory memory(kBoth + "DoNotGrowPools=no\nMemoryAlignment=64\n");
    void* pUserData = tq_malloc(100000);
    tq_MemoryTerminate(/*bDumpResources=*/false);
    tq_free(pUserData);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, AfterTheirEndTheHeapServesEvenWithDoNotGrowPools) {
    Memory memory(kBoth + "DoNotGrowPools=yes\n");
    tq_MemoryTerminate(/*bDumpResources=*/false);
    void* pUserData = tq_malloc(10);
    ASSERT_NE(nullptr, pUserData);
    EXPECT_EQ(100u, PoolOf(pUserData));
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, TheAllocatorWithoutPoolsIsTheHeap) {
    Memory memory;
    char* pBlock = static_cast<char*>(tq_MemoryPoolMalloc(10));
    memset(pBlock, 0, 10);
    tq_MemoryPoolFree(pBlock);
    tq_MemoryPoolFree(nullptr);
    tq_MemoryMarkPools();
    tq_MemoryUnmarkPools();
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, ABlockThatOutlivesItsPoolIsStillItsOwners) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 2, 3) + Pool(2, 64, 1, 0));
        std::vector<void*> blocks = Take(5, 20); // of two chunks
        void* pMoved = tq_malloc(64);
        memset(pMoved, 'u', 64);
        tq_MemoryTerminate(/*bDumpResources=*/false);
        for (void* pUserData : blocks) {
            memset(pUserData, 'u', 20);
        }
        EXPECT_EQ(0u, tq_MemoryInitialize()); // new pools, which have nothing to do with the old blocks
        void* pNew = tq_malloc(20);
        tq_free(blocks[0]);
        tq_free(blocks[3]);
        EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
        EXPECT_EQ(gbUseMemoryTracking ? 20u : 0u, PoolLists[0]->nTotalRequestedSize);
        tq_free(pNew);
        pMoved = tq_realloc(pMoved, 30);
        EXPECT_EQ(std::string(30, 'u'), Bytes(pMoved, 30));
        EXPECT_EQ(0u, PoolOf(pMoved));
        EXPECT_EQ(1u, PoolLists[0]->nCurrentAllocatedNodes);
        tq_free(pMoved);
        if (gbUseMemoryTracking) {
            static_cast<char*>(blocks[1])[20] = 0;
            tq_free(blocks[1]); // refused
            EXPECT_EQ(1u, CountOf(Reports(), "Corrupted Tail bytes"));
            static_cast<char*>(blocks[1])[20] = '\xFF';
        }
        tq_free(blocks[1]);
        tq_delete(blocks[2]); // refused
        EXPECT_EQ(1u, CountOf(Reports(), "Mismatched"));
        tq_free(blocks[2]);
        tq_free(blocks[4]); // the last one: the memory goes with it
        EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
        EXPECT_EQ(2u, PoolLists[0]->nSize);
    }
}

TEST(MemoryPool, AChunkThatOutlivesItsPoolGoesWithTheLastOfItsBlocks) {
    Memory memory(kPooling + Pool(1, 100000000, 1, 0));
    const ChildResult result = RunInChild([] {
        LimitMemory();
        for (int start = 0; start < 60; ++start) { // more of them than there is memory for
            if (tq_MemoryInitialize() != 0) {
                _exit(1);
            }
            void* pUserData = tq_malloc(100);
            tq_MemoryTerminate(/*bDumpResources=*/false);
            tq_free(pUserData);
        }
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
}

namespace {

/// Runs something in the middle of the pools' end, which goes from the last to the first: the first is still there.
template <typename Function> void WhileTheFirstPoolIsStillToEnd(Function function) {
    std::thread ending;
    {
        const tq_MemoryPoolHold first(0);
        ending = std::thread([] { tq_MemoryTerminate(/*bDumpResources=*/false); });
        EXPECT_TRUE(WaitUntil([] {
            const tq_MemoryPoolHold second(1);
            return TotalPools == 0 && !PoolLists[1];
        }));
        function();
    }
    ending.join();
}

bool IsInUse(void* pUserData) {
    return (FlagsOf(pUserData) & TQ_MEM_FLAG_IN_USE) != 0;
}

} // namespace

TEST(MemoryPool, ABlockThatIsFreedWhileItsPoolIsStillToEndGoesBackToIt) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 2, 3) + Pool(2, 64, 1, 0));
        void* const pUserData = tq_malloc(20);
        WhileTheFirstPoolIsStillToEnd([pUserData] {
            tq_free(pUserData);
            EXPECT_FALSE(IsInUse(pUserData)); // or its chunk would stay for ever
            EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
        });
    }
}

TEST(MemoryPool, ABlockThatIsResizedWhileItsPoolIsStillToEndKeepsItsBytes) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 2, 3) + Pool(2, 64, 1, 0));
        void* pUserData = tq_malloc(20);
        memset(pUserData, 'u', 20);
        WhileTheFirstPoolIsStillToEnd([&pUserData] {
            pUserData = tq_realloc(pUserData, 100);
            EXPECT_EQ(std::string(20, 'u'), Bytes(pUserData, 20));
            EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
        });
        tq_free(pUserData);
    }
}

TEST(MemoryPool, ABlockThatIsFreedAsSoonAsItsPoolHasEndedIsNotLost) {
    constexpr unsigned int kSlots = 20000; // whose marking takes a while
    Memory memory(kPooling + Pool(1, 32, kSlots, 0));
    std::vector<void*> blocks = Take(kSlots, 20);
    void* const pFirst = blocks.front();
    blocks.erase(blocks.begin());
    std::atomic<bool> bWaiting{false};
    std::thread thread([&] {
        bWaiting = true;
        while (PoolOf(pFirst) != kEndedMemoryPool) {
        }
        tq_free(pFirst);
    });
    EXPECT_TRUE(WaitUntil([&] { return bWaiting.load(); }));
    tq_MemoryTerminate(/*bDumpResources=*/false);
    thread.join();
    EXPECT_FALSE(IsInUse(pFirst)); // the chunk is still there for the others
    Free(blocks);
}

TEST(MemoryPool, ThreadsGoOnAllocatingWhileThePoolsEndAndStartAgain) {
    Memory memory(kBoth + Pool(1, 32, 2, 3));
    std::vector<std::vector<void*>> blocks(2);
    std::vector<std::thread> threads;
    for (std::vector<void*>& own : blocks) {
        own = Take(100, 20);
        threads.emplace_back([&own] {
            for (unsigned int i = 0; i < 100; ++i) { // on slots that have outlived their pool
                tq_free(own[i]);
                own[i] = tq_malloc(20);
            }
        });
        tq_MemoryTerminate(/*bDumpResources=*/false);
        threads.back().join();
        EXPECT_EQ(0u, tq_MemoryInitialize());
    }
    for (const std::vector<void*>& own : blocks) {
        Free(own);
    }
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

// Resizing

TEST(MemoryPool, ABlockStaysInItsSlotAsLongAsThatServesTheNewSize) {
    Memory memory(kBoth);
    char* pUserData = static_cast<char*>(tq__malloc(10, "alloc.cpp", 11));
    memcpy(pUserData, "0123456789", 10);
    EXPECT_EQ(pUserData, tq__realloc(pUserData, 32, "resize.cpp", 77));
    EXPECT_EQ(32u, HeaderOf(pUserData)->size);
    EXPECT_STREQ("alloc.cpp", HeaderOf(pUserData)->pFile); // Deliberate: not the place of the call
    EXPECT_EQ(11u, HeaderOf(pUserData)->line);
    EXPECT_EQ(kLive, Bytes(pUserData + 32, 4));
    EXPECT_EQ(32u, PoolLists[0]->nTotalRequestedSize);
    EXPECT_EQ(32u, gRequestedMemoryAllocations);
    EXPECT_EQ(pUserData, tq_realloc(pUserData, 4));
    EXPECT_EQ(kLive, Bytes(pUserData + 4, 4));
    EXPECT_EQ(4u, PoolLists[0]->nTotalRequestedSize);
    EXPECT_EQ(32u, PoolLists[0]->nMaxTotalRequestedSize);
    EXPECT_EQ(4u, gRequestedMemoryAllocations);
    EXPECT_EQ(32u, gMaxRequestedMemoryAllocations);
    EXPECT_EQ(32 + gTotalMemoryOverhead, gTotalMemoryAllocations);
    EXPECT_EQ("0123", Bytes(pUserData, 4));
    tq_free(pUserData);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(MemoryPool, ABlockThatNeedsAnotherPoolIsMovedWithItsBytes) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys);
        char* pUserData = static_cast<char*>(tq__malloc(30, "alloc.cpp", 11));
        std::string content(30, 'u');
        memcpy(pUserData, content.data(), 30);
        for (unsigned int size : {100u, 5000u, 200000u, 600u, 20u}) {
            pUserData = static_cast<char*>(tq__realloc(pUserData, size, "resize.cpp", size));
            ASSERT_NE(nullptr, pUserData);
            content.resize(std::min<size_t>(content.size(), size));
            EXPECT_EQ(content, Bytes(pUserData, content.size()));
            if (gbUseMemoryTracking) {
                EXPECT_EQ(size, HeaderOf(pUserData)->size);
                EXPECT_STREQ("resize.cpp", HeaderOf(pUserData)->pFile);
                EXPECT_EQ(size, gRequestedMemoryAllocations);
            }
        }
        tq_free(pUserData);
        for (unsigned int pool = 0; pool < TotalPools; ++pool) {
            EXPECT_EQ(0u, PoolLists[pool]->nCurrentAllocatedNodes);
            EXPECT_EQ(0u, PoolLists[pool]->nTotalRequestedSize);
        }
        EXPECT_EQ("", Reports());
    }
}

TEST(MemoryPool, AHeapBlockThatNothingTracksIsResizedOnTheHeap) {
    for (const char* pszAlignment : {"0", "32"}) {
        Memory memory(kPooling + "MemoryAlignment=" + pszAlignment + "\n");
        char* pUserData = static_cast<char*>(tq_malloc(10000));
        memset(pUserData, '7', 10000);
        for (unsigned int size : {20000u, 300000u, 5000u, 16u}) { // the last would fit into a pool
            pUserData = static_cast<char*>(tq_realloc(pUserData, size));
            EXPECT_EQ(std::string(std::min(size, 5000u), '7'), Bytes(pUserData, std::min(size, 5000u)));
            EXPECT_EQ(100u, PoolOf(pUserData));
            EXPECT_EQ(0u, AddressModulo(pUserData, TQ_MEM_BLOCK_ALIGNMENT));
        }
        tq_free(pUserData);
        EXPECT_EQ("", Reports());
    }
}

TEST(MemoryPool, AMoveThatFailsLeavesTheOldBlockWhole) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 2, 0) + Pool(2, 64, 0, 0));
        char* pUserData = static_cast<char*>(tq_malloc(10));
        memcpy(pUserData, "0123456789", 10);
        EXPECT_EQ(nullptr, tq__realloc(pUserData, 50, "resize.cpp", 77));
        for (unsigned int size : {0x80000001u, 0xFFFFFFE0u, 0xFFFFFFFFu}) {
            EXPECT_EQ(nullptr, tq__realloc(pUserData, size, "resize.cpp", 77)) << size;
        }
        EXPECT_EQ("0123456789", Bytes(pUserData, 10));
        EXPECT_EQ(4u, CountOf(Reports(), "Unable to re-allocate Memory\n"));
        EXPECT_EQ(1u, CountOf(Reports(), "Unable to allocate Memory\n    size: 50 bytes"));
        EXPECT_EQ(3u, CountOf(Reports(), "Failing memory allocation request:\n"));
        tq_free(pUserData);
        EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    }
}

TEST(MemoryPool, AMoveAsksTheCapAndKeepsTheHistogram) {
    Memory memory(kBoth + "MemoryCapInBytes=100\nEnableHistogram=yes\nHistogramMaxSize=100\n");
    void* pUserData = tq_malloc(20);
    EXPECT_EQ(nullptr, tq_realloc(pUserData, 90));
    EXPECT_EQ(1u, CountOf(Reports(), "Exceeded defined memory cap"));
    pUserData = tq_realloc(pUserData, 60);
    EXPECT_EQ(0u, gpMemoryHistogram[19]);
    EXPECT_EQ(1u, gpMemoryHistogram[59]);
    tq_free(pUserData);
    EXPECT_EQ(0u, gpMemoryHistogram[59]);
}

TEST(MemoryPool, ReallocToZeroFreesAndFromNothingAllocates) {
    Memory memory(kBoth);
    void* pUserData = tq_realloc(nullptr, 10);
    EXPECT_EQ(0u, PoolOf(pUserData));
    EXPECT_EQ(nullptr, tq__realloc(pUserData, 0, "resize.cpp", 77));
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
    EXPECT_EQ(Logged("Unable to re-allocate Memory\n    size: 0 bytes from:\n    line 77 in file: resize.cpp\n"),
              Reports());
}

TEST(MemoryPool, MovingABlockOfTheNewFamilyIsReportedAsFreedByTheWrongFunction) {
    Memory memory(kBoth);
    void* pUserData = tq__new(20, "alloc.cpp", 11);
    EXPECT_EQ(pUserData, tq__realloc(pUserData, 30, "resize.cpp", 76)); // stays, and stays of its family
    void* pMoved = tq__realloc(pUserData, 60, "resize.cpp", 77);
    ASSERT_NE(nullptr, pMoved);
    EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Allocated from line: 11 in file: alloc.cpp\n"
                     "    Freed from line: 77 in file: resize.cpp\n"),
              Reports());
    tq_free(pMoved);
    tq_delete(pUserData);
    EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
}

// Marks

TEST(MemoryPool, MarkingMarksWhatIsInUseAndUnmarkingTakesItBack) {
    Memory memory(kBoth + Pool(1, 32, 2, 2));
    const std::vector<void*> blocks = Take(3, 10); // of two chunks
    tq_free(blocks[1]);
    tq_MemoryMarkPools();
    void* pLater = tq_malloc(10);
    EXPECT_EQ(4097u | TQ_MEM_FLAG_MARKED, FlagsOf(blocks[0]));
    EXPECT_EQ(4096u, FlagsOf(blocks[1]));
    EXPECT_EQ(4097u | TQ_MEM_FLAG_MARKED, FlagsOf(blocks[2]));
    EXPECT_EQ(4097u, FlagsOf(pLater));
    tq_MemoryUnmarkPools();
    EXPECT_EQ(4097u, FlagsOf(blocks[0]));
    EXPECT_EQ(4097u, FlagsOf(blocks[2]));
    tq_MemoryMarkPools();
    tq_free(blocks[0]);
    EXPECT_EQ(4096u | TQ_MEM_FLAG_MARKED, FlagsOf(blocks[0])); // a new owner starts without
    EXPECT_EQ("", Reports());
}

// Threads that mark and unmark all the time must cost no owner a bit of its flags.
TEST(MemoryPool, MarkingTakesNothingFromTheFlagsOfALiveBlock) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + Pool(1, 32, 4, 1));
        std::atomic<bool> bDone{false};
        std::thread marker([&bDone] {
            while (!bDone) {
                tq_MemoryMarkPools();
                tq_MemoryUnmarkPools();
            }
        });
        std::vector<std::thread> owners;
        for (int thread = 0; thread < 2; ++thread) {
            owners.emplace_back([] {
                for (unsigned int i = 0; i < 3000; ++i) {
                    void* pUserData = tq__new(20, "alloc.cpp", i);
                    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", i);
                    tq__delete(pUserData, "free.cpp", i); // a type that was lost would be reported
                }
            });
        }
        for (std::thread& owner : owners) {
            owner.join();
        }
        bDone = true;
        marker.join();
        EXPECT_EQ(0u, PoolLists[0]->nCurrentAllocatedNodes);
        EXPECT_EQ("", Reports());
    }
}

// The search for damage

TEST(MemoryPool, ACheckNeedsPoolsAndTracking) {
    for (const std::string& keys : {std::string(), kPooling, std::string("EnableMemoryTracking=yes\n")}) {
        Memory memory(keys);
        EXPECT_EQ("Must have Memory Pooling and Tracking enabled to Check the Pools!\n", Check(false));
    }
    Memory memory(kBoth);
    EXPECT_FALSE(tq_CheckMemoryPoolsInternal(0, /*bUseStdOut=*/false));
}

TEST(MemoryPool, ACheckOfSoundBlocksSaysSoForEveryPool) {
    Memory memory(kBoth + Pool(1, 32, 2, 2) + Pool(2, 64, 0, 2));
    const std::vector<void*> blocks = Take(4, 10);
    memset(blocks[1], 0, 10);
    tq_free(blocks[2]);
    EXPECT_EQ("Checking Memory...\nPool #1:\n    No corrupt blocks detected.\nPool #2:\n"
              "    No corrupt blocks detected.\n",
              Check(false));
}

TEST(MemoryPool, ACheckShowsTheBytesBehindABlock) {
    Memory memory(kBoth + Pool(1, 32, 3, 2) + Pool(2, 64, 1, 2));
    char* pUserData = static_cast<char*>(tq__malloc(10, "alloc.cpp", 11));
    memcpy(pUserData + 10, "A.~\x7F", 4);
    EXPECT_EQ("Checking Memory...\nPool #1:\n  *-Tail Check Corruption in memory block starting at: 0x" +
                  Address(pUserData) +
                  "\n    Tail Check bytes = 0x41 0x2e 0x7e 0x7f : A.~.\n"
                  "    Allocated from line: 11\r\n       in file: alloc.cpp\n"
                  "Pool #2:\n    No corrupt blocks detected.\n",
              Check(true));
}

// Deliberate: the block before decides whether the last freeing of the damaged one is shown.
TEST(MemoryPool, ADamagedTailShowsItsSlotsLastFreeingWhenTheBlockBeforeItIsFreed) {
    Memory memory(kBoth + Pool(1, 32, 2, 0));
    std::vector<void*> blocks = Take(2, 10);
    tq__free(blocks[0], "first.cpp", 21);
    tq__free(blocks[1], "second.cpp", 22);
    EXPECT_EQ(blocks[0], tq__malloc(10, "again.cpp", 31));
    EXPECT_EQ(blocks[1], tq__malloc(10, "again.cpp", 32));
    static_cast<char*>(blocks[1])[10] = 0;
    const std::string found =
        "Checking Memory...\nPool #1:\n  *-Tail Check Corruption in memory block starting at: 0x" + Address(blocks[1]) +
        "\n    Tail Check bytes = 0x00 0xff 0xff 0xff : ....\n"
        "    Allocated from line: 32\r\n       in file: again.cpp\n";
    EXPECT_EQ(found, Check(true));
    tq__free(blocks[0], "third.cpp", 23);
    EXPECT_EQ(found + "    Freed from line: 22\r\n       in file: second.cpp\n", Check(true));
}

TEST(MemoryPool, ACheckShowsTheBytesInFrontOfABlockAndTheBlockBeforeIt) {
    Memory memory(kBoth + Pool(1, 32, 2, 0));
    std::vector<void*> blocks = Take(2, 10);
    memcpy(static_cast<char*>(blocks[1]) - 4,
           "\xFF\xFF"
           "ab",
           4);
    static_cast<char*>(blocks[1])[10] = 0; // only the head is shown
    const std::string found =
        "Checking Memory...\nPool #1:\n  *-Head Check Corruption in memory block starting at: 0x" + Address(blocks[1]) +
        "\n      Head Check bytes = 0xff 0xff 0x61 0x62 : ..ab\n"
        "      Previous Memory Block info:\n"
        "        Allocated from line: 1\r\n         in file: take.cpp\n";
    EXPECT_EQ(found, Check(true));
    tq__free(blocks[0], "free.cpp", 22);
    EXPECT_EQ(found + "        Freed from line: 22\r\n         in file: free.cpp\n", Check(true));
}

TEST(MemoryPool, TheBlockBeforeTheFirstOfAChunkIsTheLastOfTheChunkBefore) {
    Memory memory(kBoth + Pool(1, 32, 1, 1));
    std::vector<void*> blocks = Take(2, 10);
    static_cast<char*>(blocks[1])[-1] = 0;
    EXPECT_EQ(1u, CountOf(Check(true), "        Allocated from line: 1\r\n         in file: take.cpp\n"));
}

TEST(MemoryPool, TheFirstBlockOfAPoolHasNoneBeforeIt) {
    Memory memory(kBoth + Pool(1, 32, 2, 0) + Pool(2, 64, 2, 0));
    tq_malloc(10);
    char* pUserData = static_cast<char*>(tq_malloc(50));
    pUserData[-1] = 0;
    EXPECT_EQ("Checking Memory...\nPool #1:\n    No corrupt blocks detected.\nPool #2:\n"
              "  *-Head Check Corruption in memory block starting at: 0x" +
                  Address(pUserData) +
                  "\n      Head Check bytes = 0xff 0xff 0xff 0x00 : ....\n"
                  "    This is the first block in the pool\n",
              Check(true));
}

TEST(MemoryPool, FreedBlocksAreNeverReported) {
    Memory memory(kBoth + Pool(1, 32, 2, 0));
    char* pUserData = static_cast<char*>(tq_malloc(10));
    tq_free(pUserData);
    memset(pUserData, 0, 20);
    EXPECT_EQ("Checking Memory...\nPool #1:\n    No corrupt blocks detected.\n", Check(false));
}

TEST(MemoryPool, EveryPrintableByteIsShownAsItself) {
    for (unsigned int byte = 0; byte < 256; ++byte) {
        const bool bPrintable = byte >= 32 && byte < 127;
        EXPECT_EQ(bPrintable ? static_cast<char>(byte) : '.', tq_ShownMemoryByte(static_cast<unsigned char>(byte)));
    }
}

// Threads

TEST(MemoryPool, ThreadsShareThePoolsWhileTheyAreWalkedOver) {
    for (const std::string& keys : {kPooling, kBoth}) {
        Memory memory(keys + "EnableHistogram=yes\nDirtyMemoryFree=0xDD\n" + Pool(1, 40, 3, 2) + Pool(2, 300, 0, 5));
        std::atomic<bool> bDone{false};
        std::atomic<unsigned int> findings{0};
        std::thread walker([&] {
            FILE* hFile = fopen("report.txt", "w");
            while (!bDone) {
                tq_MemoryMarkPools();
                findings += tq_CheckMemoryPoolsInternal(1, false) ? 1 : 0; // to a session that does not exist
                tq_MemoryUnmarkPools();
                rewind(hFile);
                for (unsigned int flags : {0u, 1u}) {
                    tq_ShowMemoryPools(0, flags, false, hFile, 0, false, nullptr, nullptr, TQ_MEM_SORT_FORMATS::NONE,
                                       false, false, 0, 0);
                    tq_ShowMemoryPools(0, flags, false, hFile, 0, true, nullptr, nullptr, TQ_MEM_SORT_FORMATS::BYTES,
                                       true, false, 0, 0);
                }
            }
            fclose(hFile);
        });
        std::vector<std::thread> threads;
        for (unsigned int seed = 1; seed <= 3; ++seed) {
            threads.emplace_back([seed] {
                void* blocks[16] = {};
                for (unsigned int i = 0; i < 2000; ++i) {
                    void*& pUserData = blocks[(i * seed) % 16];
                    if (pUserData && i % 3) {
                        pUserData = tq_realloc(pUserData, 1 + (i * 31) % 700);
                    } else {
                        tq_free(pUserData);
                        pUserData = tq_calloc(seed, 1 + i % 50);
                    }
                    memset(pUserData, 'u', 1);
                }
                for (void* pUserData : blocks) {
                    tq_free(pUserData);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        bDone = true;
        walker.join();
        EXPECT_EQ(0u, findings);
        EXPECT_EQ(0u, gRequestedMemoryAllocations);
        EXPECT_EQ(0u, gTotalMemoryAllocations);
        for (unsigned int pool = 0; pool < TotalPools; ++pool) {
            EXPECT_EQ(0u, PoolLists[pool]->nCurrentAllocatedNodes);
            EXPECT_EQ(0u, PoolLists[pool]->nTotalRequestedSize);
        }
        EXPECT_EQ("", Reports());
    }
}

// Under the whole library

TEST(MemoryPool, TheWholeLibraryStartsWorksAndEndsOnPools) {
    for (const std::string& keys : {kPooling, kBoth}) {
        const ChildResult result = RunInChild([&keys] {
            Library library("[Memory]\n" + keys + "DirtyMemoryFree=0xDD\n[Sem]\nTracking=yes\n" +
                            "[Trace]\nDefaultLogToSTDOUT=yes\n");
            EXPECT_EQ(0u, tq_TimerSet(0x12345, 10, 1, 0, 0, 1, "nobody's", false));
            {
                myCritSecLock lock(PoolCritSec[0]); // the timer thread allocates meanwhile
                EXPECT_LT(0u, PoolLists[0]->nCurrentAllocatedNodes);
            }
            if (gbUseMemoryTracking && tq_CheckMemoryPools()) {
                _exit(1);
            }
            library.Terminate(/*bDumpResources=*/true);
            EXPECT_EQ(0u, TotalPools);
            _exit(testing::Test::HasFailure() ? 2 : 0);
        });
        EXPECT_TRUE(result.exited) << result.standardError;
        EXPECT_EQ(0, result.code) << result.standardOut;
    }
}
