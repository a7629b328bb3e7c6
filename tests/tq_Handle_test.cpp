#include <atomic>
#include <memory>
#include <set>
#include <stdint.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleSession.h"
#include "MemoryCap.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace {

constexpr char kOverRelease[] = "Erroneous tq_HandleRelease() called! More handles released than allocated! Oops!\n";

/// The allocator with what it stands on and nothing else, so that nobody but the test draws handles.
class Allocator {
public:
    /// @param settings  the section [Handles]
    /// @param memory    the section [Memory]
    explicit Allocator(const std::string& settings = "", const std::string& memory = "") {
        test::WriteFile("tqos.ini", "[Handles]\n" + settings + "[Memory]\n" + memory);
        EXPECT_EQ(0u, tq_BaseInitialize());
        EXPECT_EQ(0u, tq_MemoryInitialize());
        EXPECT_TRUE(tq_ListRegistryOpen());
        EXPECT_EQ(0u, tq_HandleInitialize());
    }
    ~Allocator() {
        tq_HandleTerminate();
        tq_ListRegistryClose();
        tq_MemoryTerminate(false);
        tq_BaseTerminate();
    }
    Allocator(const Allocator&) = delete;
    Allocator& operator=(const Allocator&) = delete;

private:
    test::ScratchDirectory m_directory;
};

/// The numbers that are free, oldest first.
std::vector<unsigned int> Free() {
    std::vector<unsigned int> numbers;
    const tq_ListLock lock(gpHandleList);
    for (void* p = gpHandleList->GetHead(); p; p = gpHandleList->GetNext()) {
        numbers.push_back(static_cast<unsigned int>(reinterpret_cast<uintptr_t>(p)));
    }
    return numbers;
}

std::vector<unsigned int> Range(unsigned int first, unsigned int last) {
    std::vector<unsigned int> numbers;
    for (unsigned int n = first; n <= last; ++n) {
        numbers.push_back(n);
    }
    return numbers;
}

/// Takes handles until there are none.
std::vector<unsigned int> TakeAll() {
    std::vector<unsigned int> numbers;
    while (const unsigned int handle = tq_HandleGet()) {
        numbers.push_back(handle);
    }
    return numbers;
}

/// The error log without the time in front of each line; the texts end with a line feed of their own.
std::string ErrorLog() {
    std::string log = test::ReadFile("tqos_error.log");
    std::string texts;
    for (size_t at = log.find("Erroneous"); at != std::string::npos; at = log.find("Erroneous", at + 1)) {
        texts += log.substr(at, log.find("\n\n", at) + 1 - at);
    }
    return texts;
}

} // namespace

TEST(Handle, TheDefaultsAreOneHundredTenOneMillionAndFifty) {
    const Allocator allocator;
    EXPECT_EQ(100u, gInitialHandleCount);
    EXPECT_EQ(10u, gGrowthHandleCount);
    EXPECT_EQ(1000000u, gMaxHandle);
    EXPECT_EQ(50u, gMinThreshold);
    EXPECT_EQ(Range(2, 100), Free());
    EXPECT_EQ(100u, gMaxHandles);
    EXPECT_EQ(1u, gAllocatedHandles);
    EXPECT_EQ(1u, gMaxAllocatedHandles);
}

TEST(Handle, TheSettingsAreReadFromTheirSection) {
    const Allocator allocator("InitialCount=7\nGrowthCount=3\nMaxHandle=20\nThreshold=2\n");
    EXPECT_EQ(7u, gInitialHandleCount);
    EXPECT_EQ(3u, gGrowthHandleCount);
    EXPECT_EQ(20u, gMaxHandle);
    EXPECT_EQ(2u, gMinThreshold);
    EXPECT_EQ(Range(2, 7), Free());
    EXPECT_EQ(7u, gMaxHandles);
}

TEST(Handle, TheFreeListIsAnOrdinaryListWithHandleOne) {
    const Allocator allocator;
    ASSERT_NE(nullptr, gpListOfLists);
    EXPECT_EQ(gpHandleList, gpListOfLists->pList);
    EXPECT_EQ(1u, gpListOfLists->handle);
    struct Open : tq_List {
        using tq_List::m_li;
    };
    EXPECT_STREQ("TQOS: Handles", (gpHandleList->*(&Open::m_li)).pName);
}

TEST(Handle, HandlesAreTakenInAscendingOrderFromTwo) {
    const Allocator allocator;
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(3u, tq_HandleGet());
    EXPECT_EQ(3u, gAllocatedHandles);
    EXPECT_EQ(3u, gMaxAllocatedHandles);
}

TEST(Handle, ThePoolGrowsWhenFewerThanTheThresholdRemain) {
    const Allocator allocator;
    for (unsigned int handle = 2; handle <= 50; ++handle) {
        EXPECT_EQ(handle, tq_HandleGet());
    }
    EXPECT_EQ(Range(51, 100), Free()) << "fifty remain: not yet";
    EXPECT_EQ(51u, tq_HandleGet());
    EXPECT_EQ(Range(52, 110), Free());
    EXPECT_EQ(110u, gMaxHandles);
}

TEST(Handle, ReuseIsFirstInFirstOut) {
    const Allocator allocator("InitialCount=5\nThreshold=0\nMaxHandle=5\n");
    EXPECT_EQ(Range(2, 5), TakeAll());
    tq_HandleRelease(5);
    tq_HandleRelease(3);
    EXPECT_EQ(5u, tq_HandleGet());
    tq_HandleRelease(5);
    EXPECT_EQ(3u, tq_HandleGet());
    EXPECT_EQ(5u, tq_HandleGet());
    EXPECT_EQ(0u, tq_HandleGet());
}

TEST(Handle, AReleasedHandleComesBackAfterAllThatWereFree) {
    const Allocator allocator;
    for (int i = 0; i < 4; ++i) {
        tq_HandleGet();
    }
    tq_HandleRelease(5);
    EXPECT_EQ(6u, tq_HandleGet());
    EXPECT_EQ(5u, Free().back());
}

TEST(Handle, WithAllNumbersInUseThereIsNone) {
    const Allocator allocator("InitialCount=100\nMaxHandle=100\n");
    for (unsigned int handle = 2; handle <= 100; ++handle) {
        ASSERT_EQ(handle, tq_HandleGet());
    }
    EXPECT_EQ(0u, tq_HandleGet());
    EXPECT_EQ(0u, tq_HandleGet());
    EXPECT_EQ(100u, gAllocatedHandles) << "a refused call counts nothing";
    EXPECT_EQ(100u, gMaxHandles);
    EXPECT_EQ("", ErrorLog());
    tq_HandleRelease(40);
    EXPECT_EQ(40u, tq_HandleGet());
}

TEST(Handle, TheLastStepOfGrowthEndsAtTheHighestNumber) {
    const Allocator allocator("InitialCount=5\nGrowthCount=10\nMaxHandle=12\nThreshold=4\n");
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(Range(3, 12), Free());
    EXPECT_EQ(Range(3, 12), TakeAll());
    EXPECT_EQ(12u, gMaxHandles);
}

TEST(Handle, TheHighWaterMarkStaysWhenHandlesComeBack) {
    const Allocator allocator;
    for (unsigned int i = 0; i < 3; ++i) {
        tq_HandleGet();
    }
    tq_HandleRelease(2);
    tq_HandleRelease(3);
    EXPECT_EQ(2u, gAllocatedHandles);
    EXPECT_EQ(4u, gMaxAllocatedHandles);
    tq_HandleGet();
    EXPECT_EQ(4u, gMaxAllocatedHandles);
}

// Giving back too much

TEST(Handle, GivingBackMoreThanWasTakenIsReportedFromTheSecondOn) {
    const Allocator allocator;
    const unsigned int handle = tq_HandleGet();
    tq_HandleRelease(handle);
    EXPECT_EQ(1u, gAllocatedHandles);
    tq_HandleRelease(handle); // the count began at 1
    EXPECT_EQ(0u, gAllocatedHandles);
    EXPECT_EQ("", ErrorLog());
    tq_HandleRelease(handle);
    EXPECT_EQ(0u, gAllocatedHandles);
    EXPECT_EQ(kOverRelease, ErrorLog());
    tq_HandleRelease(7);
    EXPECT_EQ(std::string(kOverRelease) + kOverRelease, ErrorLog());
    const std::vector<unsigned int> free = Free();
    EXPECT_EQ((std::vector<unsigned int>{2, 2, 2, 7}), std::vector<unsigned int>(free.end() - 4, free.end()))
        << "it is taken into the pool all the same";
    EXPECT_EQ(0u, tq_HeldLocks());
}

TEST(Handle, TheReportLineIsTheTextWithTheTimeInFront) {
    const Allocator allocator;
    tq_HandleRelease(9);
    tq_HandleRelease(9);
    const std::string log = test::ReadFile("tqos_error.log");
    ASSERT_LT(24u, log.size());
    EXPECT_EQ(std::string(": ") + kOverRelease + "\n", log.substr(24));
}

TEST(Handle, AnOverReleaseIsTracedAsSevereInTheCategorySystem) {
    const test::Library library;
    const unsigned int hTrace = tq_TraceGetHandleFromName("tqos");
    const unsigned int inUse = gAllocatedHandles;
    ASSERT_EQ(0, tq_TraceEnableFile(hTrace, "trace.log", 0, 0));
    for (unsigned int i = 0; i < inUse; ++i) {
        tq_HandleRelease(0);
    }
    for (const int mask : {~TQ_TRACE_CAT_SYSTEM, +TQ_TRACE_CAT_SYSTEM}) {
        tq_TraceSetCatMask(hTrace, mask);
        tq_HandleRelease(0);
    }
    gAllocatedHandles = inUse;
    const std::string trace = test::ReadFile("trace.log");
    EXPECT_EQ(1u, test::CountOf(trace, "SEV: " + std::string(kOverRelease))) << trace;
    EXPECT_EQ(std::string(kOverRelease) + kOverRelease, ErrorLog());
}

TEST(Handle, AnyNumberIsTakenBackUnchecked) {
    const Allocator allocator("InitialCount=3\nThreshold=0\nMaxHandle=3\n");
    tq_HandleGet();
    tq_HandleGet();
    tq_HandleRelease(0xFFFFFFFFu);
    tq_HandleRelease(1);
    tq_HandleRelease(3);
    tq_HandleRelease(3);
    EXPECT_EQ((std::vector<unsigned int>{0xFFFFFFFFu, 1, 3, 3}), TakeAll());
}

TEST(Handle, GivingBackZeroOnlyCounts) {
    const Allocator allocator;
    tq_HandleGet();
    tq_HandleRelease(0);
    EXPECT_EQ(1u, gAllocatedHandles);
    EXPECT_EQ(Range(3, 100), Free());
}

// Settings nobody would wish for

TEST(Handle, AnInitialCountBelowTwoStartsEmptyAndNeverGivesTheReservedNumber) {
    for (const char* pszCount : {"0", "1"}) {
        const Allocator allocator(std::string("InitialCount=") + pszCount + "\nGrowthCount=2\nThreshold=0\n");
        EXPECT_EQ(Range(1, 0), Free());
        EXPECT_EQ(1u, gMaxHandles);
        EXPECT_EQ(2u, tq_HandleGet());
        EXPECT_EQ(3u, tq_HandleGet());
        EXPECT_EQ(4u, tq_HandleGet());
        EXPECT_EQ(5u, gMaxHandles);
    }
}

TEST(Handle, ACeilingBelowTheInitialCountIsTheCeilingFromTheStart) {
    const Allocator allocator("InitialCount=100\nMaxHandle=10\n");
    EXPECT_EQ(Range(2, 10), Free());
    EXPECT_EQ(10u, gMaxHandles);
    EXPECT_EQ(Range(2, 10), TakeAll());
    EXPECT_EQ(0u, tq_HandleGet());
    EXPECT_EQ(10u, gMaxHandles);
}

TEST(Handle, ACeilingBelowTwoLeavesNoHandles) {
    for (const char* pszMax : {"0", "1"}) {
        const Allocator allocator(std::string("MaxHandle=") + pszMax + "\n");
        EXPECT_EQ(0u, tq_HandleGet());
        EXPECT_EQ(0u, gpHandleList->NodeCount());
        EXPECT_EQ(1u, gMaxHandles);
        tq_HandleRelease(17);
        EXPECT_EQ(17u, tq_HandleGet());
    }
}

TEST(Handle, WithoutGrowthTheInitialNumbersAreAll) {
    const Allocator allocator("InitialCount=4\nGrowthCount=0\n");
    EXPECT_EQ(Range(2, 4), TakeAll());
    EXPECT_EQ(4u, gMaxHandles);
}

TEST(Handle, AThresholdOfZeroGrowsOnlyAnEmptyPool) {
    const Allocator allocator("InitialCount=3\nGrowthCount=2\nThreshold=0\n");
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(3u, tq_HandleGet());
    EXPECT_EQ(3u, gMaxHandles);
    EXPECT_EQ(4u, tq_HandleGet());
    EXPECT_EQ(5u, gMaxHandles);
}

TEST(Handle, AThresholdThatIsNeverReachedGrowsWithEveryHandle) {
    const Allocator allocator("InitialCount=3\nGrowthCount=2\nThreshold=-1\nMaxHandle=8\n");
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(5u, gMaxHandles);
    EXPECT_EQ(3u, tq_HandleGet());
    EXPECT_EQ(7u, gMaxHandles);
    EXPECT_EQ(4u, tq_HandleGet());
    EXPECT_EQ(8u, gMaxHandles);
    EXPECT_EQ(Range(5, 8), TakeAll());
    EXPECT_EQ(8u, gMaxHandles);
}

TEST(Handle, ANegativeInitialCountReachesUpToTheCeiling) {
    const Allocator allocator("InitialCount=-1\nMaxHandle=500\n");
    EXPECT_EQ(Range(2, 500), Free());
    EXPECT_EQ(500u, gMaxHandles);
}

TEST(Handle, ANegativeGrowthCreatesAllTheRestAtOnce) {
    const Allocator allocator("InitialCount=2\nGrowthCount=-5\nMaxHandle=500\n");
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(Range(3, 500), Free());
}

TEST(Handle, NumbersWithoutEndStopWhereMemoryDoes) {
    const Allocator allocator("InitialCount=-1\nGrowthCount=5\nThreshold=-1\nMaxHandle=-1\n",
                              "EnableMemoryTracking=yes\nMemoryCapInBytes=20000\n");
    const unsigned int highest = gMaxHandles;
    EXPECT_LT(300u, highest);
    EXPECT_GT(2000u, highest);
    EXPECT_EQ(Range(2, highest), Free());
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(Range(3, highest + 1), Free()) << "the entry of the number taken serves one more";
    EXPECT_EQ(highest + 1, gMaxHandles);
    gMemoryCapInBytes = 0;
    EXPECT_EQ(3u, tq_HandleGet());
    EXPECT_EQ(Range(4, highest + 6), Free()) << "with memory again it goes on where it stopped";
    EXPECT_EQ(highest + 6, gMaxHandles);
}

TEST(Handle, WithoutMemoryForTheListTheStartFails) {
    test::ScratchDirectory directory;
    test::WriteFile("tqos.ini", "[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=200\n");
    ASSERT_EQ(0u, tq_BaseInitialize());
    ASSERT_EQ(0u, tq_MemoryInitialize());
    ASSERT_TRUE(tq_ListRegistryOpen());
    gMemoryCapInBytes = gRequestedMemoryAllocations + 1;
    EXPECT_EQ(1u, tq_HandleInitialize());
    EXPECT_EQ(nullptr, gpHandleList);
    EXPECT_EQ(0u, tq_HandleGet());
    tq_HandleRelease(5);
    gMemoryCapInBytes = 0;
    tq_HandleTerminate();
    tq_ListRegistryClose();
    tq_MemoryTerminate(false);
    tq_BaseTerminate();
}

// Start and stop

TEST(Handle, BeforeTheStartAndAfterTheEndThereAreNoHandles) {
    EXPECT_EQ(0u, tq_HandleGet());
    tq_HandleRelease(5);
    tq_HandleTerminate();
    {
        const Allocator allocator;
        EXPECT_EQ(2u, tq_HandleGet());
    }
    EXPECT_EQ(nullptr, gpHandleList);
    EXPECT_EQ(0u, gMaxHandles);
    EXPECT_EQ(0u, gAllocatedHandles);
    EXPECT_EQ(0u, gMaxAllocatedHandles);
    EXPECT_EQ(0u, tq_HandleGet());
    tq_HandleRelease(2);
    EXPECT_EQ(0u, gAllocatedHandles);
    const Allocator again;
    EXPECT_EQ(2u, tq_HandleGet()) << "a new start knows nothing of the old one";
}

TEST(Handle, TheEndGivesBackAllMemoryAndReportsNothing) {
    const Allocator allocator("", "EnableMemoryTracking=yes\n");
    tq_HandleTerminate();
    const unsigned int without = gRequestedMemoryAllocations;
    EXPECT_EQ(0u, tq_HandleInitialize());
    for (int i = 0; i < 500; ++i) {
        tq_HandleGet();
    }
    EXPECT_LT(without, gRequestedMemoryAllocations);
    tq_HandleTerminate();
    EXPECT_EQ(without, gRequestedMemoryAllocations);
    EXPECT_EQ("", ErrorLog()) << "the list's own handle goes nowhere";
    EXPECT_EQ(0u, gpListCount);
}

TEST(Handle, ASecondStartChangesNothing) {
    const Allocator allocator;
    const tq_List* const pList = gpHandleList;
    EXPECT_EQ(2u, tq_HandleGet());
    EXPECT_EQ(0u, tq_HandleInitialize());
    EXPECT_EQ(pList, gpHandleList);
    EXPECT_EQ(3u, tq_HandleGet());
}

// Threads

TEST(Handle, ManyThreadsNeverHoldTheSameHandle) {
    const Allocator allocator("InitialCount=20\nGrowthCount=7\nThreshold=5\nMaxHandle=400\n");
    std::vector<std::atomic<int>> holders(401);
    std::vector<std::thread> threads;
    for (unsigned int seed = 0; seed < 4; ++seed) {
        threads.emplace_back([&holders, seed] {
            std::vector<unsigned int> held;
            for (unsigned int i = 0; i < 3000; ++i) {
                if ((i * 7 + seed) % 11 < 6) {
                    const unsigned int handle = tq_HandleGet();
                    if (handle != 0) {
                        ASSERT_LE(handle, 400u);
                        ASSERT_EQ(0, holders[handle].exchange(1));
                        held.push_back(handle);
                    }
                } else if (!held.empty()) {
                    ASSERT_EQ(1, holders[held.back()].exchange(0));
                    tq_HandleRelease(held.back());
                    held.pop_back();
                }
            }
            for (unsigned int handle : held) {
                holders[handle] = 0;
                tq_HandleRelease(handle);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1u, gAllocatedHandles);
    const std::vector<unsigned int> free = Free();
    EXPECT_EQ(gMaxHandles - 1, free.size());
    const std::set<unsigned int> unique(free.begin(), free.end());
    EXPECT_EQ(free.size(), unique.size());
    EXPECT_EQ(2u, *unique.begin());
    EXPECT_EQ(gMaxHandles, *unique.rbegin());
    EXPECT_EQ("", ErrorLog());
}

TEST(Handle, ThreadsMayDrawHandlesWhileTheAllocatorStopsAndStarts) {
    const Allocator allocator;
    std::atomic<bool> bDone{false};
    std::atomic<unsigned int> calls{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!bDone) {
                const unsigned int handle = tq_HandleGet();
                EXPECT_NE(1u, handle);
                if (handle) { // may be one of an earlier start by now
                    tq_HandleRelease(handle);
                }
                ++calls;
            }
        });
    }
    for (int round = 0; round < 60; ++round) {
        tq_HandleTerminate();
        EXPECT_EQ(nullptr, gpHandleList);
        EXPECT_EQ(0u, tq_HandleInitialize());
        const unsigned int before = calls;
        EXPECT_TRUE(test::WaitUntil([&] { return calls > before + 20; }));
    }
    bDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The reports

namespace {

using Responses = std::vector<std::string>;

const char kNoDuplicates[] = "No duplicate handles detected in the TQOS handle subsystem!\r\n";
const char kDuplicates[] = "ALERT! Duplicate handles detected in the TQOS handle subsystem!\r\n";

std::string Column(unsigned int number) {
    char text[16];
    snprintf(text, sizeof(text), "%10u", number);
    return text;
}

/// The report of the numbers as they are right now.
std::string ExpectedReport() {
    const tq_ListLock lock(gpHandleList);
    const unsigned int available = gpHandleList->NodeCount();
    return "\r\nTQOS handles currently available: " + Column(available) +
           "\r\nTQOS handles currently in use:    " + Column(gMaxHandles - available) +
           " (Max: " + std::to_string(gMaxAllocatedHandles) + ")\r\n" +
           "                                  ----------\r\n" +
           "                           Total: " + Column(gMaxHandles) + "\r\n";
}

} // namespace

TEST(HandleReport, ShowsWhatIsFreeAndInUse) {
    const test::Library library;
    test::ConsoleSession session;
    EXPECT_EQ(Responses{ExpectedReport()}, session.ResponsesTo(tq_ShowHandles));
    const unsigned int handle = tq_HandleGet();
    const std::string taken = ExpectedReport();
    EXPECT_EQ(Responses{taken}, session.ResponsesTo(tq_ShowHandles));
    tq_HandleRelease(handle);
    EXPECT_NE(taken, ExpectedReport());
    EXPECT_EQ(Responses{ExpectedReport()}, session.ResponsesTo(tq_ShowHandles));
}

TEST(HandleReport, RightAfterTheStartNinetyNineAreFree) {
    const test::Library library;
    test::ConsoleSession session;
    tq_HandleTerminate();
    EXPECT_EQ(Responses{"TQOS handle subsystem is NOT initialized!\r\n"}, session.ResponsesTo(tq_ShowHandles));
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    ASSERT_EQ(0u, tq_HandleInitialize());
    EXPECT_EQ(Responses{"\r\n"
                        "TQOS handles currently available:         99\r\n"
                        "TQOS handles currently in use:             1 (Max: 1)\r\n"
                        "                                  ----------\r\n"
                        "                           Total:        100\r\n"},
              session.ResponsesTo(tq_ShowHandles));
}

TEST(HandleReport, ANumberThatIsFreeTwiceIsFound) {
    const test::Library library;
    test::ConsoleSession session;
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    const unsigned int handle = tq_HandleGet();
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    tq_HandleRelease(handle);
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    tq_HandleRelease(handle);
    EXPECT_EQ(Responses{kDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
}

TEST(HandleReport, WithoutMemoryForATableTheNumbersAreComparedOneByOne) {
    const test::Library library(test::kCapped);
    test::ConsoleSession session;
    EXPECT_TRUE(test::WaitUntilOthersSleep());
    const test::Cap cap(100000); // enough for all but the table
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    EXPECT_EQ(1u, test::CountOf(test::ReadFile("tqos_error.log"), "Exceeded defined memory cap"));
    const unsigned int handle = tq_HandleGet();
    tq_HandleRelease(handle);
    tq_HandleRelease(handle);
    EXPECT_EQ(Responses{kDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
}

TEST(HandleReport, TheCheckLeavesThePoolWhole) {
    const test::Library library;
    test::ConsoleSession session;
    const std::string before = ExpectedReport();
    session.ResponsesTo(tq_CheckForDuplicateHandles);
    const tq_ListLock lock(gpHandleList);
    std::set<unsigned int> numbers;
    for (void* pNode = gpHandleList->GetHead(); pNode; pNode = gpHandleList->GetNext()) {
        EXPECT_TRUE(numbers.insert(static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pNode))).second);
    }
    EXPECT_EQ(before.substr(0, 46), ExpectedReport().substr(0, 46)) << "as many are free";
}

TEST(HandleReport, AMillionFreeNumbersAreCheckedInLinearTime) {
    const test::Library library("[Handles]\nInitialCount=1000000\n");
    test::ConsoleSession session;
    EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    tq_HandleRelease(999999);
    EXPECT_EQ(Responses{kDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
}

TEST(HandleReport, ReportsRunWhileHandlesComeAndGo) {
    const test::Library library;
    test::ConsoleSession session;
    std::atomic<bool> bDone{false};
    std::thread user([&bDone] {
        while (!bDone) {
            tq_List list("drawn and given back");
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(1u, session.ResponsesTo(tq_ShowHandles).size());
        EXPECT_EQ(Responses{kNoDuplicates}, session.ResponsesTo(tq_CheckForDuplicateHandles));
    }
    bDone = true;
    user.join();
}

TEST(HandleReport, WithoutTheLibraryNothingIsSent) {
    tq_ShowHandles(1);
    tq_CheckForDuplicateHandles(1);
}
