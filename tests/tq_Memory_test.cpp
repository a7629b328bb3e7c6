#include <algorithm>
#include <functional>
#include <malloc.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "MemoryBlocks.h"
#include "TestSupport.h"
#include "tqos.h"

using namespace test;

namespace {

constexpr char kTracking[] = "EnableMemoryTracking=yes\n";
constexpr unsigned int kHugestRequest = 0x80000000u; // allowed, but more than the tests' heap gives

/// A tracked block whose flags hold its type and nothing else: what the heap left in the word depends on the heap.
void* AllocClean(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line) {
    void* pUserData = tq__alloc(size, type, pszFilename, line);
    HeaderOf(pUserData)->Flags = static_cast<unsigned short>(type);
    return pUserData;
}

void* MallocClean(unsigned int size, const char* pszFilename, unsigned int line) {
    return AllocClean(size, TQ_MEM_TYPE_MALLOC, pszFilename, line);
}

/// Frees a block that was damaged or refused, after repairing it.
void Repair(void* pUserData) {
    HeaderOf(pUserData)->Flags = TQ_MEM_TYPE_MALLOC;
    memset(HeadBytes(pUserData), 0xFF, 4);
    memset(static_cast<char*>(pUserData) + HeaderOf(pUserData)->size, 0xFF, 4);
    tq__free(pUserData, "repair.cpp", 1);
}

/// The distance back to the nearest '7' in front of a block.
unsigned int PrefixOf(void* pUserData) {
    const char* pBlock = BlockOf(pUserData);
    unsigned int bytes = 1;
    while (*(pBlock - bytes) != '7') {
        ++bytes;
    }
    return bytes;
}

} // namespace

// Settings

TEST(Memory, HasItsDefaultsWithoutAnySetting) {
    Memory memory;
    EXPECT_EQ(256u, gDirtyMemoryAlloc);
    EXPECT_EQ(256u, gDirtyMemoryFree);
    EXPECT_FALSE(gbUseMemoryTracking);
    EXPECT_EQ(0u, gMemoryAlignment);
    EXPECT_EQ(0u, gMemoryAlignmentMask);
    EXPECT_FALSE(gbMemoryAlignmentCheck);
    EXPECT_EQ(0u, gMemoryCapInBytes);
    EXPECT_FALSE(gbUseMemoryHistogram);
    EXPECT_EQ(nullptr, gpMemoryHistogram);
    EXPECT_EQ(0u, gTotalMemoryHeader);
    EXPECT_EQ(0u, gTotalMemoryOverhead);
    EXPECT_FALSE(gbTelnetShowMemoryCalled);
}

TEST(Memory, ReadsEverySettingOfItsSection) {
    Memory memory("DirtyMemoryAlloc=0xCD\nDirtyMemoryFree=221\nEnableMemoryTracking=y\nMemoryAlignment=16\n"
                  "MemoryAlignmentCheck=1\nMemoryCapInBytes=1000\nEnableHistogram=true\nHistogramMaxSize=300\n");
    EXPECT_EQ(0xCDu, gDirtyMemoryAlloc);
    EXPECT_EQ(221u, gDirtyMemoryFree);
    EXPECT_TRUE(gbUseMemoryTracking);
    EXPECT_EQ(16u, gMemoryAlignment);
    EXPECT_EQ(15u, gMemoryAlignmentMask);
    EXPECT_TRUE(gbMemoryAlignmentCheck);
    EXPECT_EQ(1000u, gMemoryCapInBytes);
    EXPECT_TRUE(gbUseMemoryHistogram);
    EXPECT_EQ(300u, gMemoryHistogramMaxSize);
}

TEST(Memory, ReadsSettingsOfTrackingAndAlignmentOnlyWithThem) {
    Memory memory("MemoryAlignmentCheck=yes\nMemoryCapInBytes=1000\nEnableHistogram=yes\nHistogramMaxSize=300\n");
    EXPECT_FALSE(gbMemoryAlignmentCheck);
    EXPECT_EQ(0u, gMemoryCapInBytes);
    EXPECT_FALSE(gbUseMemoryHistogram);
    EXPECT_EQ(nullptr, gpMemoryHistogram);
}

TEST(Memory, TrackingAloneHasNeitherACapNorAHistogram) {
    Memory memory(kTracking);
    EXPECT_EQ(0u, gMemoryCapInBytes);
    EXPECT_FALSE(gbUseMemoryHistogram);
    EXPECT_EQ(nullptr, gpMemoryHistogram);
}

TEST(Memory, ForgetsOptionalSettingsWhenInitialisedWithoutThem) {
    {
        Memory memory("EnableMemoryTracking=yes\nMemoryAlignment=8\nMemoryAlignmentCheck=yes\nMemoryCapInBytes=1000\n"
                      "EnableHistogram=yes\n");
    }
    Memory memory;
    EXPECT_FALSE(gbMemoryAlignmentCheck);
    EXPECT_EQ(0u, gMemoryCapInBytes);
    EXPECT_FALSE(gbUseMemoryHistogram);
    EXPECT_EQ(0u, gMemoryAlignmentMask);
}

TEST(Memory, InitialisingClearsTheMarkOfTheFirstReport) {
    gbTelnetShowMemoryCalled = true;
    Memory memory;
    EXPECT_FALSE(gbTelnetShowMemoryCalled);
}

// Layout

TEST(Memory, UntrackedBlocksAreHeapBlocksAndNothingMore) {
    Memory memory;
    void* pTheirs = tq_malloc(100);
    free(pTheirs);
    tq_free(malloc(100));
    void* pNew = tq_new(10);
    tq_free(pNew); // families are told apart only while tracking
    EXPECT_EQ("", Reports());
}

TEST(Memory, TrackedBlocksHaveTheirHeaderAndCheckBytesAroundTheUserData) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
#if defined(__i386__)
    EXPECT_EQ(28u, gTotalMemoryHeader);
    EXPECT_EQ(32u, gTotalMemoryOverhead);
    EXPECT_EQ(reinterpret_cast<char*>(HeaderOf(pUserData)), pUserData - 28);
#elif defined(__LP64__)
    EXPECT_EQ(48u, gTotalMemoryHeader);
    EXPECT_EQ(52u, gTotalMemoryOverhead);
#else
    EXPECT_EQ(32u, gTotalMemoryHeader);
    EXPECT_EQ(36u, gTotalMemoryOverhead);
#endif
    EXPECT_EQ(10u, HeaderOf(pUserData)->size);
    EXPECT_STREQ("alloc.cpp", HeaderOf(pUserData)->pFile);
    EXPECT_EQ(11u, HeaderOf(pUserData)->line);
    EXPECT_EQ(kLive, Bytes(pUserData - 4, 4));
    EXPECT_EQ(kLive, Bytes(pUserData + 10, 4));
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, HeadersNeedNoGapBetweenTheirFields) {
    EXPECT_EQ(8u + 2 * sizeof(char*) + 8u, sizeof(_MEM_HEADER_TRACKING_ONLY));
}

TEST(Memory, BlocksAreAlignedAsPromisedInEveryMode) {
    for (const char* pszAlignment : {"0", "4", "12", "64"}) {
        for (const char* pszTracking : {"no", "yes"}) {
            Memory memory(std::string("EnableMemoryTracking=") + pszTracking + "\nMemoryAlignment=" + pszAlignment);
            std::vector<void*> blocks;
            for (unsigned int size = 1; size < 200; size += 7) {
                void* pUserData = tq_malloc(size);
                EXPECT_EQ(0u, AddressModulo(pUserData, TQ_MEM_BLOCK_ALIGNMENT)) << pszAlignment << pszTracking;
                pUserData = tq_realloc(pUserData, size * 3);
                EXPECT_EQ(0u, AddressModulo(pUserData, TQ_MEM_BLOCK_ALIGNMENT)) << pszAlignment << pszTracking;
                blocks.push_back(pUserData);
            }
            for (void* pUserData : blocks) {
                tq_free(pUserData);
            }
            EXPECT_EQ("", Reports());
        }
    }
}

// Allocating

TEST(Memory, ASizeOfZeroGivesAUsableBlockOfOneByte) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(tq_malloc(0));
    ASSERT_NE(nullptr, pUserData);
    EXPECT_EQ(1u, HeaderOf(pUserData)->size);
    *pUserData = 'x';
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, EachFunctionMarksItsFamily) {
    Memory memory(kTracking);
    struct Row {
        void* pUserData;
        unsigned int type;
    };
    const Row rows[] = {
        {tq_alloc(1, TQ_MEM_TYPE_MALLOC), TQ_MEM_TYPE_MALLOC},
        {tq_malloc(1), TQ_MEM_TYPE_MALLOC},
        {tq_calloc(1, 1), TQ_MEM_TYPE_MALLOC},
        {tq_realloc(nullptr, 1), TQ_MEM_TYPE_MALLOC},
        {tq_newString("x"), TQ_MEM_TYPE_MALLOC},
        {tq_new(1), TQ_MEM_TYPE_NEW},
        {tq_newArray(1), TQ_MEM_TYPE_NEW},
    };
    for (const Row& row : rows) {
        EXPECT_NE(0u, HeaderOf(row.pUserData)->Flags & row.type);
        tq_dealloc(row.pUserData, static_cast<unsigned short>(row.type));
    }
    EXPECT_EQ("", Reports());
}

TEST(Memory, TheMacrosPassTheCallersPlace) {
    Memory memory(kTracking);
    void* pUserData = tq_malloc(1);
    const unsigned int line = __LINE__ - 1;
    EXPECT_STREQ(__FILE__, HeaderOf(pUserData)->pFile);
    EXPECT_EQ(line, HeaderOf(pUserData)->line);
    tq_free(pUserData);
}

TEST(Memory, RequestsAboveTwoGigabytesAreRefusedWithOneReport) {
    Memory memory;
    EXPECT_EQ(nullptr, tq__malloc(0x80000001u, "huge.cpp", 12));
    EXPECT_EQ(nullptr, tq__new(0xFFFFFFFFu, nullptr, 13));
    EXPECT_EQ(Logged("Failing memory allocation request:\n    size: 2147483649 bytes from:\n"
                     "    line 12 in file: huge.cpp\n") +
                  Logged("Failing memory allocation request:\n    size: 4294967295 bytes from:\n"
                         "    line 13 in file: (Unknown)\n"),
              Reports());
}

TEST(Memory, ARequestThatTheHeapRefusesGivesOneReport) {
    Memory memory;
    const test::ChildResult result = test::RunInChild([] {
        LimitMemory();
        void* pNone = tq__malloc(kHugestRequest, "big.cpp", 14);
        _exit(pNone || tq__malloc(kHugestRequest, nullptr, 15) ? 1 : 0);
    });
    EXPECT_EQ(0, result.code);
    EXPECT_EQ(
        Logged("Unable to allocate Memory\n    size: 2147483648 bytes from:\n    line 14 in file: big.cpp\n") +
            Logged("Unable to allocate Memory\n    size: 2147483648 bytes from:\n    line 15 in file: (Unknown)\n"),
        Reports());
}

TEST(Memory, ATrackedRequestThatTheHeapRefusesReportsTheCounters) {
    Memory memory(kTracking);
    void* pFirst = tq_malloc(100);
    void* pSecond = tq_malloc(50);
    tq_free(pSecond);
    const test::ChildResult result = test::RunInChild([] {
        LimitMemory();
        _exit(tq__malloc(kHugestRequest, "big.cpp", 14) ? 1 : 0);
    });
    EXPECT_EQ(0, result.code);
    const std::string current = std::to_string(100 + gTotalMemoryOverhead);
    const std::string most = std::to_string(150 + 2 * gTotalMemoryOverhead);
    EXPECT_EQ(Logged("Unable to allocate Memory\n    size: 2147483648 bytes from:\n    line 14 in file: big.cpp\n"
                     "  Current: 100 bytes requested and " +
                     current +
                     " bytes allocated through tqos.\n"
                     "  Maximum: 150 bytes requested and " +
                     most + " bytes allocated through tqos.\n"),
              Reports());
    tq_free(pFirst);
}

TEST(Memory, FreshFlagsKeepWhatTheHeapHeldButForTheMarkOfAFreeingPlace) {
    Memory memory(kTracking);
    constexpr unsigned int kSize = 5000; // beyond the heap's caches, which hand out blocks without filling them
    mallopt(M_PERTURB, 0x37);            // fills fresh memory with 0xC8, which has the bit of the mark
    void* pUserData = tq_malloc(kSize);
    mallopt(M_PERTURB, 0);
    const unsigned int flags = HeaderOf(pUserData)->Flags;
    EXPECT_EQ(0u, flags & TQ_MEM_FLAG_FREED_LOCATION_SET);
    EXPECT_NE(0u, flags & TQ_MEM_TYPE_MALLOC);
    if (kAddressSanitizer) { // fills with 0xBE
        EXPECT_EQ(0xBEB6u, flags);
    } else if (!kThreadSanitizer) {
        EXPECT_EQ(0xD8C0u, flags);
    }
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, CallocZeroesEveryByte) {
    Memory memory("EnableMemoryTracking=yes\nDirtyMemoryAlloc=0xCD\n");
    char* pUserData = static_cast<char*>(tq_calloc(7, 11));
    EXPECT_EQ(77u, HeaderOf(pUserData)->size);
    EXPECT_EQ(std::string(77, '\0'), Bytes(pUserData, 77));
    tq_free(pUserData);
    char* pNothing = static_cast<char*>(tq_calloc(0, 11));
    EXPECT_EQ(1u, HeaderOf(pNothing)->size);
    EXPECT_EQ(0, *pNothing);
    tq_free(pNothing);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ACallocWhoseProductWrapsGivesAndZeroesTheWrappedSize) {
    Memory memory("EnableMemoryTracking=yes\nDirtyMemoryAlloc=0xCD\n");
    char* pUserData = static_cast<char*>(tq_calloc(65536, 65537));
    EXPECT_EQ(65536u, HeaderOf(pUserData)->size);
    EXPECT_EQ(std::string(65536, '\0'), Bytes(pUserData, 65536));
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, StringsAreCopiedInTheirOwnSpelling) {
    Memory memory(kTracking);
    char* pszText = tq_newString("loopback");
    EXPECT_STREQ("loopback", pszText);
    EXPECT_EQ(9u, HeaderOf(pszText)->size);
    const unsigned char bytes[] = {0xE4, 0xF6, 0};
    unsigned char* pBytes = tq_newString(bytes);
    EXPECT_EQ(0, memcmp(bytes, pBytes, 3));
    EXPECT_EQ(3u, HeaderOf(pBytes)->size);
    tq_free(pszText);
    tq_free(pBytes);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ANullStringIsCopiedAsAnEmptyOneOfOneByte) {
    Memory memory(kTracking);
    unsigned char* pszEmpty = tq__newString(nullptr, "s.cpp", 1);
    ASSERT_NE(nullptr, pszEmpty);
    EXPECT_EQ(0, *pszEmpty);
    EXPECT_EQ(1u, HeaderOf(pszEmpty)->size);
    tq_free(pszEmpty);
}

namespace {

struct Counted {
    explicit Counted(int* pLive) : m_pLive(pLive) { ++*m_pLive; }
    ~Counted() { --*m_pLive; }
    int* m_pLive;
};

} // namespace

TEST(Memory, ObjectsAreConstructedOnTrackedMemoryAndDestroyed) {
    Memory memory(kTracking);
    int live = 0;
    Counted* pObject = tq_newObject<Counted>(&live);
    EXPECT_EQ(1, live);
    EXPECT_EQ(sizeof(Counted), HeaderOf(pObject)->size);
    EXPECT_STREQ(__FILE__, HeaderOf(pObject)->pFile);
    EXPECT_EQ(sizeof(Counted), gRequestedMemoryAllocations);
    tq_deleteObject(pObject);
    EXPECT_EQ(0, live);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    tq_deleteObject(static_cast<Counted*>(nullptr));
    EXPECT_EQ("", Reports());
}

// The cap

TEST(Memory, ARequestOverTheCapGivesExactlyOneReport) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=1000\n");
    EXPECT_EQ(nullptr, tq__malloc(1001, "cap.cpp", 16));
    EXPECT_EQ(nullptr, tq__malloc(1001, nullptr, 17));
    EXPECT_EQ(Logged("Exceeded defined memory cap of 1000 bytes\n    size: 1001 bytes from:\n"
                     "    line 16 in file: cap.cpp\n") +
                  Logged("Exceeded defined memory cap of 1000 bytes\n    size: 1001 bytes from:\n"
                         "    line 17 in file: (Unknown)\n"),
              Reports());
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
}

TEST(Memory, TheCapCountsTheBytesAskedForAndNotTheirOverhead) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=1000\n");
    void* pFirst = tq_malloc(600);
    void* pSecond = tq_malloc(400);
    ASSERT_NE(nullptr, pSecond);
    EXPECT_EQ("", Reports());
    EXPECT_EQ(nullptr, tq_malloc(0)); // a byte
    tq_free(pSecond);
    pSecond = tq_malloc(400);
    EXPECT_NE(nullptr, pSecond);
    EXPECT_EQ(1u, test::CountOf(Reports(), "Exceeded"));
    tq_free(pFirst);
    tq_free(pSecond);
}

TEST(Memory, ACapAboveWhatSizesCanSumUpToStillHolds) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=0xF0000000\n");
    {
        myCritSecLock lock(MemoryTrackingCritSec);
        gRequestedMemoryAllocations = 0xE0000000u;
    }
    EXPECT_EQ(nullptr, tq_malloc(0x40000000u)); // the sum wraps in 32 bits
    EXPECT_EQ(1u, test::CountOf(Reports(), "Exceeded defined memory cap of 4026531840 bytes\n"));
}

TEST(Memory, WithoutTrackingTheCapIsIgnored) {
    Memory memory("MemoryCapInBytes=1000\n");
    void* pUserData = tq_malloc(1001);
    EXPECT_NE(nullptr, pUserData);
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, WhatBuildsOnARefusedAllocationGivesNull) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=1\n");
    int live = 0;
    EXPECT_EQ(nullptr, tq_calloc(2, 1));
    EXPECT_EQ(nullptr, tq_newString("x"));
    EXPECT_EQ(nullptr, tq_newObject<Counted>(&live));
    EXPECT_EQ(0, live);
    EXPECT_EQ(nullptr, tq_newArray(2));
    EXPECT_EQ(4u, test::CountOf(Reports(), "[time] "));
    EXPECT_EQ(4u, test::CountOf(Reports(), "Exceeded defined memory cap of 1 bytes\n"));
}

TEST(Memory, AReallocOfNothingThatIsRefusedReportsBothFailures) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=10\n");
    EXPECT_EQ(nullptr, tq__realloc(nullptr, 11, nullptr, 18));
    EXPECT_EQ(Logged("Exceeded defined memory cap of 10 bytes\n    size: 11 bytes from:\n"
                     "    line 18 in file: (Unknown)\n") +
                  Logged("Unable to re-allocate Memory\n    size: 11 bytes from:\n    line 18 in file: ((Unknown))\n"),
              Reports());
}

// Counters and histogram

TEST(Memory, CountersFollowBlocksAndKeepTheirHighWaterMarks) {
    Memory memory(kTracking);
    void* pFirst = tq_malloc(100);
    void* pSecond = tq_new(50);
    EXPECT_EQ(150u, gRequestedMemoryAllocations);
    EXPECT_EQ(150 + 2 * gTotalMemoryOverhead, gTotalMemoryAllocations);
    tq_free(pFirst);
    EXPECT_EQ(50u, gRequestedMemoryAllocations);
    EXPECT_EQ(50 + gTotalMemoryOverhead, gTotalMemoryAllocations);
    tq_delete(pSecond);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_EQ(150u, gMaxRequestedMemoryAllocations);
    EXPECT_EQ(150 + 2 * gTotalMemoryOverhead, gMaxTotalMemoryAllocations);
}

TEST(Memory, EachSumWrapsByItself) {
    struct Row {
        tq_MemoryBytes from, added, sum;
    };
    constexpr Row kRows[] = {
        {{1, 2}, {3, 4}, {4, 6}},
        {{0xFFFFFFFFu, 7}, {1, 0}, {0, 7}},
        {{0xFFFFFFF0u, 7}, {0x20, 0x30}, {0x10, 0x37}},
        {{7, 0xFFFFFFFFu}, {0, 1}, {7, 0}},
        {{0xFFFFFFFFu, 0xFFFFFFFFu}, {0xFFFFFFFFu, 0xFFFFFFFFu}, {0xFFFFFFFEu, 0xFFFFFFFEu}},
    };
    for (const Row& row : kRows) {
        tq_MemorySums sums;
        sums.Add(row.from);
        const tq_MemoryBytes added = sums.Add(row.added);
        EXPECT_EQ(row.sum.requested, added.requested);
        EXPECT_EQ(row.sum.total, added.total);
        EXPECT_EQ(row.sum.requested, sums.Read().requested);
        EXPECT_EQ(row.sum.total, sums.Read().total);
        const tq_MemoryBytes again = sums.Subtract(row.added);
        EXPECT_EQ(row.from.requested, again.requested);
        EXPECT_EQ(row.from.total, again.total);
        EXPECT_EQ(row.from.total, sums.Read().total);
    }
}

TEST(Memory, NoBlockOfManyThreadsIsCountedTwiceOrForgotten) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\n");
    constexpr unsigned int kThreads = 4;
    constexpr unsigned int kTurns = 20000;
    std::vector<std::thread> threads;
    for (unsigned int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            void* kept[8] = {};
            for (unsigned int turn = 0; turn < kTurns; ++turn) {
                void*& pBlock = kept[turn % 8];
                tq_free(pBlock);
                pBlock = tq_malloc(1 + (turn * 7 + thread) % 100);
            }
            for (void* pBlock : kept) {
                tq_free(pBlock);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_LE(100u, gMaxRequestedMemoryAllocations);
    EXPECT_GE(kThreads * 8 * 100, gMaxRequestedMemoryAllocations);
    for (unsigned int size = 1; size <= 100; ++size) {
        EXPECT_EQ(0u, gpMemoryHistogram[size - 1]) << size;
    }
}

namespace {

/// Several threads that enter a lock, and enter it again, and count under it; what they have counted.
int CountUnderALock(int threads, int turnsOfEach) {
    static myCritSec lock(tq_LockRank::kLeaf);
    int turns = 0; // guarded by the lock
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&turns, turnsOfEach] {
            for (int turn = 0; turn < turnsOfEach; ++turn) {
                const myCritSecLock once(lock);
                ++turns;
                const myCritSecLock again(lock);
                ++turns;
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    return turns;
}

} // namespace

TEST(Memory, ItsLockKeepsThreadsApartAndLetsItsOwnerInAgain) {
    for (const bool bOtherProcessors : {false, true}) { // whoever waits sleeps at once, or looks again first
        const bool bBefore = gbOtherProcessors.exchange(bOtherProcessors);
        EXPECT_EQ(2 * 4 * 50000, CountUnderALock(4, 50000));
        gbOtherProcessors = bBefore;
    }
}

TEST(Memory, NothingIsCountedWithoutTracking) {
    Memory memory;
    void* pUserData = tq_malloc(100);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gMaxTotalMemoryAllocations);
    tq_free(pUserData);
}

TEST(Memory, ARefusedFreeIsCountedAsFreed) {
    Memory memory(kTracking);
    void* pUserData = MallocClean(100, "alloc.cpp", 11);
    tq_delete(pUserData);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_EQ(kLive, Bytes(HeadBytes(pUserData), 4));
    Repair(pUserData);
}

TEST(Memory, TheHistogramCountsLiveBlocksBySizeAndTheirMost) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\nHistogramMaxSize=100\n");
    void* blocks[] = {tq_malloc(100), tq_malloc(100), tq_malloc(0), tq_malloc(101)};
    EXPECT_EQ(2u, gpMemoryHistogram[99]);
    EXPECT_EQ(2u, gpMemoryHistogramMax[99]);
    EXPECT_EQ(1u, gpMemoryHistogram[0]);
    for (void* pUserData : blocks) {
        tq_free(pUserData);
    }
    EXPECT_EQ(0u, gpMemoryHistogram[99]);
    EXPECT_EQ(2u, gpMemoryHistogramMax[99]);
    EXPECT_EQ(0u, gpMemoryHistogram[0]);
    EXPECT_EQ(1u, gpMemoryHistogramMax[0]);
}

TEST(Memory, TheHistogramCountsUpToItsDefaultSize) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\n");
    EXPECT_EQ(512000u, gMemoryHistogramMaxSize);
    void* pUserData = tq_malloc(512000);
    EXPECT_EQ(1u, gpMemoryHistogram[511999]);
    tq_free(pUserData);
}

TEST(Memory, ResizingDoesNotTouchTheHistogram) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\nHistogramMaxSize=100\n");
    void* pUserData = tq_realloc(tq_malloc(10), 20);
    EXPECT_EQ(1u, gpMemoryHistogram[9]);
    EXPECT_EQ(0u, gpMemoryHistogram[19]);
    tq_free(pUserData);
    EXPECT_EQ(1u, gpMemoryHistogram[9]); // freed under its new size, where nothing was counted
    EXPECT_EQ(0u, gpMemoryHistogram[19]);
}

TEST(Memory, AHistogramThatFindsNoMemoryIsOff) {
    Memory memory;
    test::WriteFile("tqos.ini", "[Memory]\nEnableMemoryTracking=yes\nEnableHistogram=yes\n"
                                "HistogramMaxSize=0x7FFFFFFF\n");
    const test::ChildResult result = test::RunInChild([] {
        LimitMemory();
        const bool bOff = tq_MemoryInitialize() == 0 && !gbUseMemoryHistogram && !gpMemoryHistogram;
        tq_free(tq_malloc(10));
        _exit(bOff && !gpMemoryHistogramMax ? 0 : 1);
    });
    EXPECT_EQ(0, result.code);
    EXPECT_EQ("", Reports());
}

TEST(Memory, TerminatingEndsTheHistogramAndLeavesBlocksValid) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\n");
    void* pUserData = tq_malloc(10);
    tq_MemoryTerminate(/*bDumpResources=*/false);
    EXPECT_EQ(nullptr, gpMemoryHistogram);
    EXPECT_EQ(nullptr, gpMemoryHistogramMax);
    tq_free(tq_malloc(10));
    tq_free(pUserData);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

// Fills

TEST(Memory, FillsNewBlocksWithTheConfiguredByte) {
    for (const char* pszKeys : {"DirtyMemoryAlloc=0xCD\n", "DirtyMemoryAlloc=205\nEnableMemoryTracking=yes\n"}) {
        Memory memory(pszKeys);
        char* pUserData = static_cast<char*>(tq_malloc(50));
        EXPECT_EQ(std::string(50, '\xCD'), Bytes(pUserData, 50));
        tq_free(pUserData);
        EXPECT_EQ("", Reports());
    }
}

TEST(Memory, ZeroIsAByteToFillWith) {
    Memory memory("DirtyMemoryAlloc=0\n");
    char* pFirst = static_cast<char*>(tq_malloc(5000));
    memset(pFirst, 0x5A, 5000);
    tq_free(pFirst);
    char* pSecond = static_cast<char*>(tq_malloc(5000));
    EXPECT_EQ(std::string(5000, '\0'), Bytes(pSecond, 5000));
    tq_free(pSecond);
}

TEST(Memory, FillValuesFrom256OnLeaveBlocksAsTheHeapGivesThem) {
    for (const char* pszKey : {"256", "461", "-1"}) { // 461: its low byte is 0xCD
        Memory memory(std::string("DirtyMemoryAlloc=") + pszKey);
        mallopt(M_PERTURB, 0x37);
        char* pUserData = static_cast<char*>(tq_malloc(5000));
        mallopt(M_PERTURB, 0);
        if (kAddressSanitizer) {
            EXPECT_EQ(std::string(4096, '\xBE'), Bytes(pUserData, 4096)) << pszKey;
        } else if (!kThreadSanitizer) {
            EXPECT_EQ(std::string(5000, '\xC8'), Bytes(pUserData, 5000)) << pszKey;
        }
        tq_free(pUserData);
    }
}

// A freed block must not be looked at. One whose alignment prefix is damaged goes through all of a free but the last
// step, and still belongs to the test. With an alignment of 4 the prefix always has its full length, so that the search
// for its start ends there; with a longer one it could go on into what the heap keeps in front of the block.
TEST(Memory, FreeingMarksAndFillsATrackedBlockAndRecordsThePlace) {
    Memory memory("EnableMemoryTracking=yes\nDirtyMemoryFree=0xDD\nMemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
    char* pUserData = static_cast<char*>(MallocClean(50, "alloc.cpp", 11));
    const unsigned int prefix = PrefixOf(pUserData);
    *(BlockOf(pUserData) - prefix) = 'x';
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(kFreed, Bytes(HeadBytes(pUserData), 4));
    EXPECT_EQ(std::string(50, '\xDD'), Bytes(pUserData, 50));
    EXPECT_EQ(kLive, Bytes(pUserData + 50, 4));
    EXPECT_STREQ("free.cpp", HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(22u, HeaderOf(pUserData)->freedLine);
    *(BlockOf(pUserData) - prefix) = '7';
    Repair(pUserData);
}

TEST(Memory, WithoutTrackingOrWithoutAFillFreedBlocksKeepTheirBytes) {
    for (const char* pszKeys : {"DirtyMemoryFree=0xDD\n", "EnableMemoryTracking=yes\nDirtyMemoryFree=256\n"}) {
        Memory memory(std::string(pszKeys) + "MemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
        char* pUserData = static_cast<char*>(tq_malloc(50));
        memset(pUserData, 'u', 50);
        const unsigned int prefix = PrefixOf(pUserData);
        *(BlockOf(pUserData) - prefix) = 'x';
        tq__free(pUserData, "free.cpp", 22);
        EXPECT_EQ(std::string(50, 'u'), Bytes(pUserData, 50)) << pszKeys;
        *(BlockOf(pUserData) - prefix) = '7';
        if (gbUseMemoryTracking) {
            Repair(pUserData);
        } else {
            tq_free(pUserData);
        }
    }
}

// Freeing

TEST(Memory, FreeingNullDoesNothing) {
    Memory memory(kTracking);
    tq_free(nullptr);
    tq_delete(nullptr);
    tq_deleteArray(nullptr);
    tq_dealloc(nullptr, TQ_MEM_TYPE_NEW);
    tq_FreeEitherFamily(nullptr, "free.cpp", 22);
    EXPECT_EQ("", Reports());
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
}

TEST(Memory, AByteBehindTheBlockIsReportedOnFreeAndTheBlockStays) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
    pUserData[10] = 0x5A;
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0x5a 0xff 0xff 0xff\n"
                     "    Allocated from line: 11 in file: alloc.cpp\n    Freed from line: 22 in file: free.cpp\n"),
              Reports());
    EXPECT_EQ(kLive, Bytes(HeadBytes(pUserData), 4));
    EXPECT_EQ(0x5A, pUserData[10]);
    Repair(pUserData);
}

TEST(Memory, AByteInFrontOfTheBlockIsReportedOnFreeAndTheBlockStays) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, nullptr, 11));
    pUserData[-1] = 0;
    pUserData[10] = 0; // only the head is reported
    tq__free(pUserData, nullptr, 22);
    EXPECT_EQ(Logged("Corrupted Header bytes on memory free...\n    Header bytes = 0xff 0xff 0xff 0x0\n"
                     "    Allocated from line: 11 in file: (Unknown)\n    Freed from line: 22 in file: (Unknown)\n"),
              Reports());
    EXPECT_EQ(Bytes("\xFF\xFF\xFF\0", 4), Bytes(HeadBytes(pUserData), 4));
    Repair(pUserData);
}

// A block that was freed belongs to the heap. What a free leaves in its header is laid into a live block instead.
TEST(Memory, ABlockFreedTwiceIsReportedWithItsFirstFreeing) {
    Memory memory(kTracking);
    void* pUserData = MallocClean(10, "alloc.cpp", 11);
    memset(HeadBytes(pUserData), 0xFE, 4);
    HeaderOf(pUserData)->pFreedFile = "first.cpp";
    HeaderOf(pUserData)->freedLine = 33;
    tq__free(pUserData, "second.cpp", 44);
    EXPECT_EQ(Logged("Double Freed memory block...\n    Previously Freed from line: 33 in file: first.cpp\n"
                     "    Header bytes = 0xfe 0xfe 0xfe 0xfe\n    Allocated from line: 11 in file: alloc.cpp\n"
                     "    Freed from line: 44 in file: second.cpp\n"),
              Reports());
    EXPECT_EQ(kFreed, Bytes(HeadBytes(pUserData), 4));
    Repair(pUserData);
}

TEST(Memory, AHeadRunOverWithTheFreedBytesNamesNoWildFile) {
    Memory memory(kTracking);
    void* pUserData = MallocClean(10, "alloc.cpp", 11);
    memset(HeadBytes(pUserData), 0xFE, 4);
    tq__free(pUserData, "second.cpp", 44);
    EXPECT_EQ(Logged("Double Freed memory block...\n    Previously Freed from line: 0 in file: (Unknown)\n"
                     "    Header bytes = 0xfe 0xfe 0xfe 0xfe\n    Allocated from line: 11 in file: alloc.cpp\n"
                     "    Freed from line: 44 in file: second.cpp\n"),
              Reports());
    Repair(pUserData);
}

TEST(Memory, FreeingWithTheOtherFamilyIsReportedAndTheBlockStays) {
    struct Row {
        unsigned int type;
        void (*freer)(void*, const char*, unsigned int);
    };
    const Row rows[] = {
        {TQ_MEM_TYPE_NEW, tq__free},
        {TQ_MEM_TYPE_MALLOC, tq__delete},
        {TQ_MEM_TYPE_MALLOC, tq__deleteArray},
    };
    for (const Row& row : rows) {
        Memory memory(kTracking);
        void* pUserData = AllocClean(10, row.type, "alloc.cpp", 11);
        row.freer(pUserData, "free.cpp", 22);
        EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Allocated from line: 11 in file: alloc.cpp\n"
                         "    Freed from line: 22 in file: free.cpp\n"),
                  Reports());
        EXPECT_EQ(kLive, Bytes(HeadBytes(pUserData), 4));
        Repair(pUserData);
    }
}

TEST(Memory, AMismatchWithoutNamesIsReportedAsUnknown) {
    Memory memory(kTracking);
    void* pUserData = AllocClean(10, TQ_MEM_TYPE_NEW, nullptr, 11);
    tq__free(pUserData, nullptr, 22);
    EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Allocated from line: 11 in file: (Unknown)\n"
                     "    Freed from line: 22 in file: (Unknown)\n"),
              Reports());
    Repair(pUserData);
}

TEST(Memory, AMismatchIsReportedBeforeDamageIsLookedFor) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(AllocClean(10, TQ_MEM_TYPE_NEW, "alloc.cpp", 11));
    pUserData[10] = 0;
    tq__free(pUserData, "free.cpp", 22);
    EXPECT_EQ(1u, test::CountOf(Reports(), "[time] "));
    EXPECT_EQ(1u, test::CountOf(Reports(), "Mismatched"));
    Repair(pUserData);
}

TEST(Memory, ObjectsAndArraysAreNotToldApart) {
    Memory memory(kTracking);
    tq_deleteArray(AllocClean(10, TQ_MEM_TYPE_NEW, "alloc.cpp", 11));
    void* pArray = tq_newArray(10);
    tq_delete(pArray);
    EXPECT_EQ("", Reports());
}

TEST(Memory, AStrayTypeBitHidesAMismatch) {
    Memory memory(kTracking);
    void* pUserData = AllocClean(10, TQ_MEM_TYPE_NEW, "alloc.cpp", 11);
    HeaderOf(pUserData)->Flags = TQ_MEM_TYPE_NEW | TQ_MEM_TYPE_MALLOC; // as the heap may have left it
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, EitherFamilyCanBeFreedByAnOwnerOfBoth) {
    Memory memory(kTracking);
    tq_FreeEitherFamily(AllocClean(10, TQ_MEM_TYPE_NEW, "alloc.cpp", 11), "free.cpp", 22);
    tq_FreeEitherFamily(MallocClean(10, "alloc.cpp", 11), "free.cpp", 22);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    char* pDamaged = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
    pDamaged[13] = 1;
    tq_FreeEitherFamily(pDamaged, "free.cpp", 22);
    EXPECT_EQ(Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0xff 0xff 0xff 0x1\n"
                     "    Allocated from line: 11 in file: alloc.cpp\n    Freed from line: 22 in file: free.cpp\n"),
              Reports());
    Repair(pDamaged);
}

// Freeing places set in advance

TEST(Memory, APlaceSetInAdvanceStandsForTheFreersOwn) {
    Memory memory("EnableMemoryTracking=yes\nMemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
    void* pUserData = MallocClean(10, "alloc.cpp", 11);
    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", 55);
    EXPECT_EQ(TQ_MEM_TYPE_MALLOC | TQ_MEM_FLAG_FREED_LOCATION_SET, HeaderOf(pUserData)->Flags);
    const unsigned int prefix = PrefixOf(pUserData);
    *(BlockOf(pUserData) - prefix) = 'x'; // the free is refused at its last step, the header can be read afterwards
    tq__free(pUserData, "wrapper.cpp", 66);
    EXPECT_STREQ("caller.cpp", HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(55u, HeaderOf(pUserData)->freedLine);
    EXPECT_EQ(Logged("Corrupted Memory Alignment Header:\n    line 55 in file: caller.cpp\n"), Reports());
    *(BlockOf(pUserData) - prefix) = '7';
    Repair(pUserData);
}

TEST(Memory, APlaceSetInAdvanceStandsInTheReports) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", 55);
    tq__delete(pUserData, "wrapper.cpp", 66);
    pUserData[10] = 0;
    tq__free(pUserData, "wrapper.cpp", 66);
    EXPECT_EQ(Logged("Mismatched alloc/free types...\n    Allocated from line: 11 in file: alloc.cpp\n"
                     "    Freed from line: 55 in file: caller.cpp\n") +
                  Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0x0 0xff 0xff 0xff\n"
                         "    Allocated from line: 11 in file: alloc.cpp\n"
                         "    Freed from line: 55 in file: caller.cpp\n"),
              Reports());
    Repair(pUserData);
}

TEST(Memory, ADamagedBlockTakesNoPlaceInAdvance) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
    pUserData[10] = 0;
    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", 55);
    EXPECT_EQ(TQ_MEM_TYPE_MALLOC, HeaderOf(pUserData)->Flags);
    EXPECT_EQ(nullptr, HeaderOf(pUserData)->pFreedFile);
    EXPECT_EQ(Logged("Corrupted Tail bytes on memory free...\n    Tail bytes = 0x0 0xff 0xff 0xff\n"
                     "    Allocated from line: 11 in file: alloc.cpp\n    Freed from line: 55 in file: caller.cpp\n"),
              Reports());
    Repair(pUserData);
}

TEST(Memory, WithoutTrackingNoPlaceIsSetInAdvance) {
    Memory memory;
    char* pUserData = static_cast<char*>(tq_malloc(10));
    memset(pUserData, 'u', 10);
    tq_SetMemoryFreedFilenameAndLine(pUserData, "caller.cpp", 55);
    tq_SetMemoryFreedFilenameAndLine(nullptr, "caller.cpp", 55);
    EXPECT_EQ(std::string(10, 'u'), Bytes(pUserData, 10));
    tq_free(pUserData);
    EXPECT_EQ("", Reports());
}

// Reallocating

TEST(Memory, ATrackedBlockResizedCountsAsAllocatedThere) {
    Memory memory(kTracking);
    char* pUserData = static_cast<char*>(MallocClean(10, "alloc.cpp", 11));
    memcpy(pUserData, "0123456789", 10);
    for (unsigned int size : {20u, 5000u, 300000u, 4u}) {
        pUserData = static_cast<char*>(tq__realloc(pUserData, size, "resize.cpp", size));
        ASSERT_NE(nullptr, pUserData);
        EXPECT_EQ(size, HeaderOf(pUserData)->size);
        EXPECT_STREQ("resize.cpp", HeaderOf(pUserData)->pFile);
        EXPECT_EQ(size, HeaderOf(pUserData)->line);
        EXPECT_STREQ("resize.cpp", HeaderOf(pUserData)->pFreedFile);
        EXPECT_EQ(size, HeaderOf(pUserData)->freedLine);
        EXPECT_EQ(TQ_MEM_TYPE_MALLOC, HeaderOf(pUserData)->Flags);
        EXPECT_EQ(kLive, Bytes(HeadBytes(pUserData), 4));
        EXPECT_EQ(kLive, Bytes(pUserData + size, 4));
        EXPECT_EQ(std::string("0123456789").substr(0, size), Bytes(pUserData, std::min(size, 10u)));
        EXPECT_EQ(size, gRequestedMemoryAllocations);
        EXPECT_EQ(size + gTotalMemoryOverhead, gTotalMemoryAllocations);
    }
    EXPECT_EQ(300000u, gMaxRequestedMemoryAllocations);
    EXPECT_EQ(300000u + gTotalMemoryOverhead, gMaxTotalMemoryAllocations);
    tq_free(pUserData);
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ResizingKeepsTheFamily) {
    Memory memory(kTracking);
    void* pUserData = tq_realloc(AllocClean(10, TQ_MEM_TYPE_NEW, "alloc.cpp", 11), 20);
    tq_delete(pUserData);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ResizingAsksNoCap) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=100\n");
    void* pUserData = tq_realloc(tq_malloc(10), 200);
    EXPECT_NE(nullptr, pUserData);
    EXPECT_EQ("", Reports());
    tq_free(pUserData);
}

TEST(Memory, AnUntrackedBlockIsResized) {
    Memory memory;
    char* pUserData = static_cast<char*>(tq_malloc(10));
    memcpy(pUserData, "0123456789", 10);
    pUserData = static_cast<char*>(tq_realloc(pUserData, 100000));
    EXPECT_EQ("0123456789", Bytes(pUserData, 10));
    tq_free(pUserData);
}

TEST(Memory, ReallocToZeroFreesAndReportsAFailure) {
    Memory memory(kTracking);
    void* pUserData = MallocClean(10, "alloc.cpp", 11);
    EXPECT_EQ(nullptr, tq__realloc(pUserData, 0, "resize.cpp", 77));
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(Logged("Unable to re-allocate Memory\n    size: 0 bytes from:\n    line 77 in file: resize.cpp\n"),
              Reports());
}

TEST(Memory, ReallocNamesAMissingFileInDoubleParentheses) {
    Memory memory;
    EXPECT_EQ(nullptr, tq__realloc(tq_malloc(10), 0, nullptr, 77));
    EXPECT_EQ(Logged("Unable to re-allocate Memory\n    size: 0 bytes from:\n    line 77 in file: ((Unknown))\n"),
              Reports());
}

TEST(Memory, AReallocThatTheHeapRefusesLeavesTheOldBlockWhole) {
    for (const char* pszKeys :
         {"", "MemoryAlignment=16\n", "EnableMemoryTracking=yes\n", "EnableMemoryTracking=yes\nMemoryAlignment=16\n"}) {
        Memory memory(pszKeys);
        const test::ChildResult result = test::RunInChild([] {
            LimitMemory();
            char* pUserData = static_cast<char*>(tq_malloc(10));
            memcpy(pUserData, "0123456789", 10);
            for (unsigned int size : {0x7FFFFFF0u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
                if (tq__realloc(pUserData, size, "resize.cpp", 77) || Bytes(pUserData, 10) != "0123456789") {
                    _exit(1);
                }
            }
            tq_free(pUserData);
            _exit(0);
        });
        EXPECT_EQ(0, result.code) << pszKeys;
        std::string expected;
        for (const char* pszSize : {"2147483632", "4294967280", "4294967295"}) {
            expected += Logged(std::string("Unable to re-allocate Memory\n    size: ") + pszSize +
                               " bytes from:\n    line 77 in file: resize.cpp\n");
        }
        EXPECT_EQ(expected, Reports()) << pszKeys;
    }
}

TEST(Memory, ABlockThatCouldNotBeResizedIsCountedNoMore) {
    Memory memory("EnableMemoryTracking=yes\nMemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
    void* pUserData = MallocClean(100, "alloc.cpp", 11);
    void* pOther = MallocClean(1000, "alloc.cpp", 11);
    const unsigned int prefix = PrefixOf(pUserData);
    *(BlockOf(pUserData) - prefix) = 'x';
    EXPECT_EQ(nullptr, tq__realloc(pUserData, 200, "resize.cpp", 77));
    EXPECT_EQ(1000u, gRequestedMemoryAllocations);
    EXPECT_EQ(1000u + gTotalMemoryOverhead, gTotalMemoryAllocations);
    EXPECT_EQ(100u, HeaderOf(pUserData)->size);
    *(BlockOf(pUserData) - prefix) = '7';
    tq_free(pUserData); // and once more
    EXPECT_EQ(900u, gRequestedMemoryAllocations);
    tq_free(pOther);
}

// Alignment

TEST(Memory, NewBlocksStartAtMultiplesOfTheConfiguredAlignment) {
    for (const char* pszTracking : {"no", "yes"}) {
        for (unsigned int alignment : {1u, 2u, 3u, 4u, 8u, 16u, 24u, 100u, 127u, 128u}) {
            Memory memory(std::string("EnableMemoryTracking=") + pszTracking +
                          "\nMemoryAlignment=" + std::to_string(alignment));
            EXPECT_EQ(alignment, tq_GetMemoryAlignment());
            std::vector<void*> blocks;
            for (unsigned int size = 0; size < 300; size += 11) {
                void* pUserData = tq_malloc(size);
                EXPECT_EQ(0u, AddressModulo(pUserData, alignment)) << alignment;
                const unsigned int prefix = PrefixOf(pUserData);
                EXPECT_LE(prefix, gMemoryAlignmentUnit);
                EXPECT_EQ(std::string(prefix - 1, '\0'), Bytes(BlockOf(pUserData) - prefix + 1, prefix - 1));
                memset(pUserData, '7', size);
                blocks.push_back(pUserData);
            }
            for (void* pUserData : blocks) {
                tq_free(pUserData);
            }
            EXPECT_EQ("", Reports());
        }
    }
}

TEST(Memory, AnAlignmentAbove128CountsAs4) {
    for (const char* pszAlignment : {"129", "200", "-1"}) {
        Memory memory(std::string("MemoryAlignment=") + pszAlignment);
        EXPECT_EQ(4u, tq_GetMemoryAlignment()) << pszAlignment;
    }
}

TEST(Memory, OnlyPowersOfTwoHaveAMask) {
    struct Row {
        unsigned int unit;
        unsigned int mask;
    };
    for (const Row& row : {Row{16, 15}, Row{128, 127}, Row{48, 0}}) {
        Memory memory("MemoryAlignment=" + std::to_string(row.unit));
        EXPECT_EQ(row.unit, gMemoryAlignmentUnit);
        EXPECT_EQ(row.mask, gMemoryAlignmentMask);
    }
}

TEST(Memory, TheAlignmentKeptAlsoHoldsTheProcessorsOwn) {
    Memory memory("MemoryAlignment=12");
    EXPECT_EQ(12u, tq_GetMemoryAlignment());
#if defined(__i386__)
    EXPECT_EQ(12u, gMemoryAlignmentUnit);
#elif defined(__LP64__)
    EXPECT_EQ(48u, gMemoryAlignmentUnit);
#else
    EXPECT_EQ(24u, gMemoryAlignmentUnit);
#endif
}

TEST(Memory, AfterAReallocTheBlockIsAlignedAndNotTheUserData) {
    for (unsigned int alignment : {16u, 24u, 128u}) {
        Memory memory("EnableMemoryTracking=yes\nMemoryAlignment=" + std::to_string(alignment));
        void* pUserData = tq_realloc(tq_malloc(100), 5000);
        EXPECT_EQ(gTotalMemoryHeader % gMemoryAlignmentUnit, AddressModulo(pUserData, gMemoryAlignmentUnit));
        tq_free(pUserData);
    }
}

TEST(Memory, ResizingKeepsTheUserDataWhereverThePrefixGoes) {
    for (const char* pszTracking : {"no", "yes"}) {
        for (unsigned int alignment : {1u, 3u, 16u, 100u, 128u}) {
            Memory memory(std::string("EnableMemoryTracking=") + pszTracking +
                          "\nMemoryAlignmentCheck=yes\nMemoryAlignment=" + std::to_string(alignment));
            std::vector<std::pair<char*, unsigned int>> blocks;
            for (unsigned int size = 30; size < 3000; size += 97) {
                char* pUserData = static_cast<char*>(tq_malloc(size));
                for (unsigned int newSize : {size - 9, size + 150, size + 20000, size - 20}) {
                    memset(pUserData, '7', size - 20);
                    pUserData = static_cast<char*>(tq_realloc(pUserData, newSize));
                    ASSERT_EQ(std::string(size - 20, '7'), Bytes(pUserData, size - 20)) << alignment;
                }
                blocks.emplace_back(pUserData, size - 20);
            }
            for (const auto& block : blocks) {
                EXPECT_EQ(std::string(block.second, '7'), Bytes(block.first, block.second));
                tq_free(block.first);
            }
            EXPECT_EQ("", Reports());
        }
    }
}

// A tracked block whose heap block stays in place: the longer prefix then covers part of the header's former place.
TEST(Memory, ALongerPrefixHoldsNoStraySevenAndKeepsItsOtherBytes) {
    Memory memory("EnableMemoryTracking=yes\nMemoryAlignment=128\n");
    constexpr unsigned int kSize = 0x3737; // the size and the line are written with the byte that marks the start
    constexpr unsigned int kLine = 0x37373737;
    unsigned int lengthened = 0;
    std::vector<char*> blocks;
    for (unsigned int i = 0; i < 16; ++i) {
        char* pUserData = static_cast<char*>(MallocClean(kSize, "alloc.cpp", kLine));
        HeaderOf(pUserData)->Reserverd = 0x3741;
        const unsigned int prefix = PrefixOf(pUserData);
        char* pHeap = BlockOf(pUserData) - prefix;
        pUserData = static_cast<char*>(tq__realloc(pUserData, kSize - 1, "resize.cpp", kLine));
        blocks.push_back(pUserData);
        const unsigned int newPrefix = PrefixOf(pUserData);
        if (BlockOf(pUserData) - newPrefix == pHeap && newPrefix > prefix + sizeof(_MEM_HEADER_TRACKING_ONLY)) {
            ++lengthened;
            const _MEM_HEADER_TRACKING_ONLY* pFormer = tq_MemoryHeaderOf(pHeap + prefix);
            EXPECT_EQ(TQ_MEM_TYPE_MALLOC, pFormer->Flags);
            EXPECT_EQ(0x0041, pFormer->Reserverd);
            EXPECT_EQ(0u, pFormer->size);
            EXPECT_EQ(0u, pFormer->line);
        }
    }
    for (char* pUserData : blocks) {
        tq_free(pUserData);
    }
    EXPECT_EQ("", Reports());
    if (!kAddressSanitizer && !kThreadSanitizer) { // their heaps may always move a block
        EXPECT_LT(0u, lengthened);
    }
}

TEST(Memory, ADamagedPrefixIsReportedAndTheBlockStays) {
    struct Row {
        const char* pszKeys;
        const char* pszFilename;
        const char* pszExpected;
    };
    const Row rows[] = {
        {"", "free.cpp", "Corrupted Memory Alignment Header:\n    line 22 in file: free.cpp\n"},
        {"", nullptr, "Corrupted Memory Alignment Header:\n    line 22 in file: (Unknown)\n"},
        {kTracking, "free.cpp", "Corrupted Memory Alignment Header:\n    line 22 in file: free.cpp\n"},
    };
    for (const Row& row : rows) {
        Memory memory(std::string(row.pszKeys) + "MemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
        void* pUserData = tq_malloc(10);
        const unsigned int prefix = PrefixOf(pUserData);
        *(BlockOf(pUserData) - prefix) = 'x';
        tq__free(pUserData, row.pszFilename, 22);
        EXPECT_EQ(Logged(row.pszExpected), Reports());
        *(BlockOf(pUserData) - prefix) = '7';
        if (gbUseMemoryTracking) {
            Repair(pUserData);
        } else {
            tq_free(pUserData);
        }
    }
}

TEST(Memory, WithoutTheCheckABlocksStartIsLookedForHoweverFarItIs) {
    for (const bool bCheck : {false, true}) {
        Memory memory(std::string("MemoryAlignment=4\nMemoryAlignmentCheck=") + (bCheck ? "yes\n" : "no\n"));
        char* pHeap = static_cast<char*>(calloc(1, 256));
        *pHeap = '7';
        tq__free(pHeap + 128, "free.cpp", 22);
        EXPECT_EQ(bCheck ? Logged("Corrupted Memory Alignment Header:\n    line 22 in file: free.cpp\n") : "",
                  Reports());
        if (bCheck) {
            free(pHeap);
        }
    }
}

TEST(Memory, ADamagedPrefixFailsARealloc) {
    Memory memory("MemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
    char* pUserData = static_cast<char*>(tq_malloc(10));
    memcpy(pUserData, "0123456789", 10);
    const unsigned int prefix = PrefixOf(pUserData);
    *(pUserData - prefix) = 'x';
    EXPECT_EQ(nullptr, tq__realloc(pUserData, 20, "resize.cpp", 77));
    EXPECT_EQ(Logged("Corrupted Memory Alignment Header detected!\n") +
                  Logged("Unable to re-allocate Memory\n    size: 20 bytes from:\n    line 77 in file: resize.cpp\n"),
              Reports());
    EXPECT_EQ("0123456789", Bytes(pUserData, 10));
    *(pUserData - prefix) = '7';
    tq_free(pUserData);
}

// The assertion hook

#if defined(__i386__) || defined(__x86_64__)
// A developer's breakpoint on the hook, as a debugger sets it: the first byte of its code becomes a trap.

volatile sig_atomic_t gStops = 0;

void Nothing() {}

void OnTrap(int, siginfo_t*, void* pContext) {
    gStops = gStops + 1;
#if defined(__i386__)
    const int kProgramCounter = REG_EIP;
#else
    const int kProgramCounter = REG_RIP;
#endif
    ucontext_t* pStopped = static_cast<ucontext_t*>(pContext);
    pStopped->uc_mcontext.gregs[kProgramCounter] = reinterpret_cast<greg_t>(Nothing); // goes on as if the hook returned
}

// No thread looks at the program's code as at data: there is nothing for a checker of threads to see, or to keep a
// record of.
__attribute__((no_sanitize("thread"))) void StopAtAssert() {
    struct sigaction action = {};
    action.sa_sigaction = OnTrap;
    action.sa_flags = SA_SIGINFO;
    const uintptr_t code = reinterpret_cast<uintptr_t>(tq_Assert);
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void* pPage = reinterpret_cast<void*>(code / page * page);
    if (sigaction(SIGTRAP, &action, nullptr) != 0 || mprotect(pPage, page, PROT_READ | PROT_WRITE | PROT_EXEC) != 0) {
        _exit(1);
    }
    *reinterpret_cast<unsigned char*>(code) = 0xCC;
}

TEST(Memory, TheAssertionHookFollowsEveryReportButThatOfTheCap) {
    const ChildResult result = RunInChild([] {
        Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=1000\nMemoryAlignment=4\nMemoryAlignmentCheck=yes\n");
        StopAtAssert();
        const auto report = [](const char* pszWhat, int stops) {
            if (gStops != stops) {
                printf("%s: stopped %d times\n", pszWhat, static_cast<int>(gStops));
            }
            gStops = 0;
        };
        EXPECT_EQ(nullptr, tq_malloc(1001));
        report("the cap", 0);
        EXPECT_EQ(nullptr, tq_malloc(0x80000001u));
        report("a huge request", 1);
        EXPECT_EQ(nullptr, tq_realloc(tq_malloc(1), 0));
        report("a realloc that fails", 1);
        tq_free(AllocClean(1, TQ_MEM_TYPE_NEW, "new.cpp", 1));
        report("the other family", 1);
        char* pUserData = static_cast<char*>(tq_malloc(1));
        pUserData[1] = 0;
        tq_free(pUserData);
        report("a tail run over", 1);
        pUserData = static_cast<char*>(tq_malloc(1));
        *(BlockOf(pUserData) - PrefixOf(pUserData)) = 'x';
        tq_free(pUserData);
        report("a damaged prefix", 1);
    });
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("", result.standardOut);
}
#endif

// Names in reports

TEST(Memory, NamesAreShownAsReportsWantThem) {
    {
        Memory memory(kTracking);
        void* pUserData = tq__malloc(1, "alloc.cpp", 1);
        EXPECT_STREQ("alloc.cpp", GetMemoryFilename(BlockOf(pUserData)));
        EXPECT_STREQ("(Unknown)", GetMemoryFreedFilename(BlockOf(pUserData)));
        HeaderOf(pUserData)->pFile = nullptr;
        HeaderOf(pUserData)->pFreedFile = "free.cpp";
        EXPECT_STREQ("(Unknown)", GetMemoryFilename(BlockOf(pUserData)));
        EXPECT_STREQ("free.cpp", GetMemoryFreedFilename(BlockOf(pUserData)));
        tq_free(pUserData);
    }
    Memory memory;
    char untracked[4] = "";
    EXPECT_STREQ("(No TQOS Tracking)", GetMemoryFilename(untracked));
    EXPECT_STREQ("(No TQOS Tracking)", GetMemoryFreedFilename(untracked));
}

TEST(Memory, FileNamesOfAnyLengthFitIntoAReport) {
    Memory memory("EnableMemoryTracking=yes\nMemoryCapInBytes=100\n");
    const std::string text =
        "Exceeded defined memory cap of 100 bytes\n    size: 101 bytes from:\n    line 5 in file: ";
    const std::string fits(511 - text.size() - 1, 'f');
    EXPECT_EQ(nullptr, tq__malloc(101, fits.c_str(), 5));
    EXPECT_EQ(Logged(text + fits + "\n"), Reports());
    const std::string tooLong(100000, 'f'); // more than the log takes: the line is only traced
    EXPECT_EQ(nullptr, tq__malloc(101, tooLong.c_str(), 5));
    EXPECT_EQ(Logged(text + fits + "\n"), Reports());
    char* pUserData = static_cast<char*>(MallocClean(10, tooLong.c_str(), 1));
    pUserData[10] = 0;
    tq__free(pUserData, tooLong.c_str(), 2);
    EXPECT_EQ(Logged(text + fits + "\n"), Reports());
    Repair(pUserData);
}

namespace {

/// How the library's own trace shows a report: the level, and the category by letting through no other.
std::string TracedInCategory(unsigned int category, const std::function<void()>& report) {
    const unsigned int hTrace = tq_TraceGetHandleFromName("tqos");
    EXPECT_EQ(0, tq_TraceEnableFile(hTrace, "trace.log", 0, 0));
    tq_TraceSetCatMask(hTrace, static_cast<int>(category));
    report();
    const std::string trace = ReadFile("trace.log");
    const size_t level = trace.find("(tqos) ");
    return level == std::string::npos ? "" : trace.substr(level + 7, trace.find('\n') - level - 7);
}

struct GradeRow {
    const char* pszTraced;
    void (*pfnReport)();
};

const GradeRow kGrades[] = {
    {"WRN: Failing memory allocation request:", [] { tq_malloc(0x80000001u); }},
    {"WRN: Exceeded defined memory cap of 1000000 bytes", [] { tq_malloc(1000001); }},
    {"WRN: Unable to re-allocate Memory", [] { tq_realloc(tq_malloc(1), 0); }},
    {"SEV: Mismatched alloc/free types...",
     [] {
         void* pUserData = AllocClean(1, TQ_MEM_TYPE_NEW, "alloc.cpp", 1);
         tq_free(pUserData);
         Repair(pUserData);
     }},
    {"SEV: Corrupted Header bytes on memory free...",
     [] {
         char* pUserData = static_cast<char*>(tq_malloc(1));
         pUserData[-1] = 0;
         tq_free(pUserData);
         Repair(pUserData);
     }},
    {"SEV: Corrupted Tail bytes on memory free...",
     [] {
         char* pUserData = static_cast<char*>(tq_malloc(1));
         pUserData[1] = 0;
         tq_free(pUserData);
         Repair(pUserData);
     }},
    {"SEV: Double Freed memory block...",
     [] {
         void* pUserData = tq_malloc(1);
         memset(HeadBytes(pUserData), 0xFE, 4);
         tq_free(pUserData);
         Repair(pUserData);
     }},
    {"SEV: Corrupted Memory Alignment Header:",
     [] {
         void* pUserData = tq_malloc(1);
         char* pMark = BlockOf(pUserData) - PrefixOf(pUserData);
         *pMark = 'x';
         tq_free(pUserData);
         *pMark = '7';
         Repair(pUserData);
     }},
    {"SEV: Corrupted Memory Alignment Header detected!",
     [] {
         void* pUserData = tq_malloc(1);
         char* pMark = BlockOf(pUserData) - PrefixOf(pUserData);
         *pMark = 'x';
         tq_realloc(pUserData, 2);
         *pMark = '7';
         tq_free(pUserData);
     }},
};

} // namespace

TEST(Memory, FailedRequestsAreWarningsAndDamageIsSevereInTheCategoryMemory) {
    for (const GradeRow& row : kGrades) {
        gRequestedMemoryAllocations = 0; // a refused block is counted out twice
        const Library library("[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=1000000\nMemoryAlignment=4\n"
                              "MemoryAlignmentCheck=yes\n");
        EXPECT_EQ("", TracedInCategory(~static_cast<unsigned int>(TQ_TRACE_CAT_MEMORY), row.pfnReport));
        EXPECT_EQ(row.pszTraced, TracedInCategory(TQ_TRACE_CAT_MEMORY, row.pfnReport));
    }
}

TEST(Memory, APercentSignInAFileNameIsWrittenAsItStands) {
    Memory memory;
    EXPECT_EQ(nullptr, tq__malloc(0xFFFFFFFFu, "100%s%n.cpp", 5));
    EXPECT_EQ(Logged("Failing memory allocation request:\n    size: 4294967295 bytes from:\n"
                     "    line 5 in file: 100%s%n.cpp\n"),
              Reports());
}

// The responder and the end

TEST(Memory, RespondsOnStandardOutputWithALineFeed) {
    const test::ChildResult result = test::RunInChild([] {
        tq_MemoryRespond("one", /*bPrintf=*/true, nullptr, 0, 0);
        tq_MemoryRespond("two\n", /*bPrintf=*/true, stderr, 1, 2);
        tq_MemoryRespond("", /*bPrintf=*/true, nullptr, 0, 0);
        tq_MemoryRespond(nullptr, /*bPrintf=*/true, nullptr, 0, 0);
    });
    EXPECT_EQ("one\ntwo\n\n\n", result.standardOut);
    EXPECT_EQ("", result.standardError);
}

TEST(Memory, RespondsToAFileWithALineFeed) {
    test::ScratchDirectory directory;
    FILE* hFile = fopen("report.txt", "w+");
    ASSERT_NE(nullptr, hFile);
    tq_MemoryRespond("100%", /*bPrintf=*/false, hFile, 0, 0);
    tq_MemoryRespond("two\n", /*bPrintf=*/false, hFile, 0, 0);
    tq_MemoryRespond(nullptr, /*bPrintf=*/false, hFile, 0, 0);
    fclose(hFile);
    EXPECT_EQ("100%\ntwo\n\n", test::ReadFile("report.txt"));
}

TEST(Memory, TerminatingSaysWhatALeakListNeeds) {
    struct Row {
        const char* pszKeys;
        bool bDumpResources;
        const char* pszExpected;
    };
    const Row rows[] = {
        {"", true, "Memory Pooling and Memory Tracking must be enabled to track memory leaks.\n\n"},
        {kTracking, true, "Memory Pooling must also be enabled to track memory leaks.\n\n"},
        {"", false, ""},
        {kTracking, false, ""},
    };
    for (const Row& row : rows) {
        Memory memory(row.pszKeys);
        const test::ChildResult result = test::RunInChild([&row] { tq_MemoryTerminate(row.bDumpResources); });
        EXPECT_EQ(row.pszExpected, result.standardOut);
    }
}

// Threads

TEST(Memory, ThreadsAllocateResizeAndFreeTogether) {
    Memory memory("EnableMemoryTracking=yes\nEnableHistogram=yes\nMemoryAlignment=32\nDirtyMemoryFree=0xDD\n");
    std::vector<std::thread> threads;
    for (unsigned int seed = 1; seed <= 4; ++seed) {
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
            }
            for (void* pUserData : blocks) {
                tq_free(pUserData);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gTotalMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ABlockMayBeFreedByAnotherThread) {
    Memory memory(kTracking);
    void* pUserData = tq_malloc(10);
    std::thread([pUserData] { tq_free(pUserData); }).join();
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(Memory, ItsLockIsRecursive) {
    myCritSec critSec(tq_LockRank::kLeaf);
    critSec.EnterCritSec();
    myCritSecLock again(critSec);
    critSec.LeaveCritSec();
}
