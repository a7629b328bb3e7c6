#include <algorithm>
#include <malloc.h>
#include <regex>
#include <set>
#include <sstream>
#include <string.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "MemoryBlocks.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Telnet_p.h"
#include "tqos.h"

using namespace test;

namespace {

const std::string kPooling = "EnableMemoryPooling=yes\n";
const std::string kBoth = "EnableMemoryPooling=yes\nEnableMemoryTracking=yes\n";
const std::string kTwoPools = "Pool1BlockSize=32\nPool1StartCount=2\nPool1Increment=3\n"
                              "Pool2BlockSize=64\nPool2StartCount=0\nPool2Increment=0\n";

std::string Show(const std::string& words, unsigned int flags = 0) {
    std::string command = "file=report.txt " + words;
    remove("report.txt");
    tq_ShowMemory(0, flags, &command[0]);
    return ReadFile("report.txt");
}

std::string ShowDetailed(const std::string& words = "") {
    return Show(words, 1);
}

std::string Address(const void* pUserData) {
    char text[32];
    snprintf(text, sizeof(text), "%08lx", reinterpret_cast<unsigned long>(pUserData));
    return text;
}

std::string Padded(const std::string& text, size_t width) {
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

std::string Number(unsigned int number) {
    return std::to_string(number);
}

/// A block's row and what follows the line end.
std::string Row(const void* pUserData, unsigned int size, const std::string& file, unsigned int line,
                const std::string& bytes) {
    return Padded(Number(size), 6) + " bytes " + Address(pUserData) + " " + Padded(file, 45) + ":" +
           Padded(Number(line), 4) + "\n        " + bytes + "\n";
}

std::string Sums(unsigned int count, unsigned int requested, unsigned int actual) {
    return "   Total allocations:     " + Number(count) + "\n   Total requested bytes: " + Number(requested) +
           "\n   Total actual bytes:    " + Number(actual) + "\n";
}

/// A zeroed block allocated at a place.
void* Alloc(unsigned int size, const char* pszFile, unsigned int line) {
    return tq__calloc(1, size, pszFile, line);
}

/// A session of the real console, seen from the client's end.
class Session {
public:
    Session() : m_client(ConnectedPeer(tq_TelnetInitialize(0, Loopback(), nullptr))) {
        ReadAnswers(1); // the greeting, with the first prompt
        m_answers.clear();
        EXPECT_TRUE(WaitUntil([this] { // it is entered into the list after its greeting
            tq_ListLock lock(gpTelnetInstanceList);
            const TELNET_INSTANCE* pSession = static_cast<const TELNET_INSTANCE*>(gpTelnetInstanceList->GetHead());
            m_instance = pSession ? pSession->socket : 0;
            return pSession != nullptr;
        }));
    }
    ~Session() { tq_TelnetTerminate(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    unsigned int Instance() const { return m_instance; }

    /// The next pieces that the session is sent. The console puts a line end and its prompt behind each.
    std::vector<std::string> Answers(size_t count) {
        ReadAnswers(count);
        return std::exchange(m_answers, {});
    }
    std::string Show(const std::string& words, unsigned int flags = 0) {
        std::string command = words;
        tq_ShowMemory(m_instance, flags, &command[0]);
        return Answers(1).back();
    }

private:
    void ReadAnswers(size_t count) {
        const std::string kEnd = "\r\n>";
        while (m_answers.size() < count && WaitReadable(m_client)) {
            char buffer[4096];
            const ssize_t length = recv(m_client.Get(), buffer, sizeof(buffer), 0);
            ASSERT_LT(0, length);
            m_received.append(buffer, static_cast<size_t>(length));
            for (size_t end; (end = m_received.find(kEnd)) != std::string::npos;) {
                m_answers.push_back(m_received.substr(0, end));
                m_received.erase(0, end + kEnd.size());
            }
        }
        EXPECT_EQ(count, m_answers.size());
    }

    Fd m_client;
    unsigned int m_instance = 0;
    std::string m_received;
    std::vector<std::string> m_answers;
};

/// One library for many commands; the memory section is the given one.
std::vector<std::string> AnswersTo(const std::string& memory, const std::vector<std::string>& commands,
                                   unsigned int flags = 0) {
    Library library("[Memory]\n" + memory);
    Session console;
    std::vector<std::string> answers;
    for (const std::string& command : commands) {
        answers.push_back(console.Show(command, flags));
    }
    return answers;
}

} // namespace

// Rows

TEST(MemoryReport, RowsComeOutWholeAndInOrderHoweverLong) {
    tq_MemoryRows rows;
    std::vector<std::string> expected;
    for (unsigned int i = 0; i < 300; ++i) {
        expected.push_back(std::string(i * 37 + 1, static_cast<char>('a' + i % 26)));
        rows.Add("%s", expected.back().substr(0, expected.back().size() / 2).c_str());
        rows.Add("%s", expected.back().substr(expected.back().size() / 2).c_str());
        rows.End();
    }
    rows.Add("never ended");
    std::vector<std::string> seen;
    rows.PutOut([&seen](const char* pszText) { seen.emplace_back(pszText); });
    EXPECT_EQ(expected, seen);
    rows.Add("again");
    rows.End();
    seen.clear();
    rows.PutOut([&seen](const char* pszText) { seen.emplace_back(pszText); });
    EXPECT_EQ(std::vector<std::string>{"again"}, seen);
}

// Statistics

TEST(MemoryReport, StatisticsShowEveryPoolAndTheBytesWithTheirChanges) {
    Memory memory(kBoth + kTwoPools);
    const unsigned int over = gTotalMemoryOverhead;
    std::vector<void*> blocks = {tq_malloc(10), tq_malloc(20), tq_malloc(30), tq_malloc(1000)};
    tq_free(blocks[1]);
    const std::string pools = "Pool #001         Block Size:       32              Initial Count:        2\n"
                              "    Currently Allocated Nodes:        2             Pool Increment:        3\n"
                              "              Available Nodes:        3                Times Grown:        1\n"
                              "                  Total Nodes:        5    Maximum Allocated Nodes:        3\n\n"
                              "Pool #002         Block Size:       64              Initial Count:        0\n"
                              "    Currently Allocated Nodes:        0             Pool Increment:        0\n"
                              "              Available Nodes:        0                Times Grown:        0\n"
                              "                  Total Nodes:        0    Maximum Allocated Nodes:        0\n\n";
    const auto line = [](const std::string& name, unsigned int value, const std::string& change) {
        return name + Padded(Number(value), 10) + "     " + change + "\n";
    };
    const unsigned int allocated = 2 * (32 + over) + 1000 + over;
    const unsigned int most = 3 * (32 + over) + 1000 + over;
    EXPECT_EQ(pools + line("     Bytes requested from the heap:", 1000, "+1000") +
                  line("      Bytes allocated from the heap:", 1000 + over, "+" + Number(1000 + over)) + "\n" +
                  line("      Bytes requested through TQOS: ", 1040, "+1040") +
                  line("      Bytes allocated through TQOS: ", allocated, "+" + Number(allocated)) +
                  line("  MAX Bytes requested through TQOS: ", 1060, "+1060") +
                  line("  MAX Bytes allocated through TQOS: ", most, "+" + Number(most)) + "\n",
              Show(""));
    tq_free(blocks[3]);
    blocks[3] = tq_malloc(25);
    const unsigned int now = 3 * (32 + over);
    const std::string second = Show("");
    EXPECT_EQ(line("     Bytes requested from the heap:", 0, "-1000") +
                  line("      Bytes allocated from the heap:", 0, "-" + Number(1000 + over)) + "\n" +
                  line("      Bytes requested through TQOS: ", 65, "-975") +
                  line("      Bytes allocated through TQOS: ", now, "-" + Number(allocated - now)) +
                  line("  MAX Bytes requested through TQOS: ", 1060, "+0") +
                  line("  MAX Bytes allocated through TQOS: ", most, "+0") + "\n",
              second.substr(second.find("     Bytes requested from")));
}

TEST(MemoryReport, StatisticsWithoutTrackingCountSlots) {
    Memory memory(kPooling + kTwoPools);
    void* pFirst = tq_malloc(10);
    tq_malloc(10);
    const unsigned int slot = 32 + gTotalMemoryOverhead;
    std::string report = Show("");
    EXPECT_EQ("     Bytes allocated through TQOS: " + Padded(Number(2 * slot), 10) + "     +" + Number(2 * slot) +
                  "\n  MAX Bytes allocated through TQOS: " + Padded(Number(2 * slot), 10) + "     +" +
                  Number(2 * slot) + "\n\n",
              report.substr(report.find("     Bytes allocated")));
    tq_free(pFirst);
    report = Show("");
    EXPECT_EQ("     Bytes allocated through TQOS: " + Padded(Number(slot), 10) + "     -" + Number(slot) +
                  "\n  MAX Bytes allocated through TQOS: " + Padded(Number(2 * slot), 10) + "     +0\n\n",
              report.substr(report.find("     Bytes allocated")));
}

TEST(MemoryReport, ChangesCountFromZeroAfterEveryStart) {
    for (int start = 0; start < 2; ++start) {
        Memory memory(kBoth + kTwoPools);
        tq_malloc(10);
        EXPECT_FALSE(gbTelnetShowMemoryCalled);
        ShowDetailed(); // the first report; it shows no changes
        EXPECT_TRUE(gbTelnetShowMemoryCalled);
        EXPECT_EQ(1u, CountOf(Show(""), "      Bytes requested through TQOS:         10     +10\n"));
        EXPECT_EQ(1u, CountOf(Show(""), "      Bytes requested through TQOS:         10     +0\n"));
    }
}

TEST(MemoryReport, OnePoolIsShownWithoutTheTotals) {
    Memory memory(kBoth + kTwoPools);
    EXPECT_EQ("Pool #002         Block Size:       64              Initial Count:        0\n"
              "    Currently Allocated Nodes:        0             Pool Increment:        0\n"
              "              Available Nodes:        0                Times Grown:        0\n"
              "                  Total Nodes:        0    Maximum Allocated Nodes:        0\n\n",
              Show("pool=2"));
}

TEST(MemoryReport, ANumberThatNoPoolHasIsAnswered) {
    Memory memory(kBoth + kTwoPools);
    for (const char* pszWords : {"pool=0", "pool=x", "pool=", "pool=-1", "pool=3", "pool=4294967297",
                                 "POOL=99999999999999999999", "pool=x pool=1", "pool=x format=wrong"}) {
        for (unsigned int flags : {0u, 1u}) {
            EXPECT_EQ("Invalid Pool id specified!\r\n\n", Show(pszWords, flags)) << pszWords;
        }
    }
}

// A request that failed stays counted in its pool, a free that was refused only there.
TEST(MemoryReport, TheHeapIsNeverShownWithLessThanNothing) {
    Memory memory(kBoth + "Pool1BlockSize=32\nPool1StartCount=1\nPool1Increment=0\n");
    char* pUserData = static_cast<char*>(tq_malloc(10));
    EXPECT_EQ(nullptr, tq_malloc(10));
    pUserData[10] = 0;
    tq_free(pUserData);
    const std::string report = Show("");
    EXPECT_EQ(1u, CountOf(report, "     Bytes requested from the heap:         0     +0\n"));
    EXPECT_EQ(1u, CountOf(report, "      Bytes allocated from the heap:         0     +0\n"));
}

TEST(MemoryReport, ReportsTakeNoSlot) {
    Memory memory(kBoth + kTwoPools + "DoNotGrowPools=yes\n");
    tq_malloc(10);
    tq_malloc(10);
    const std::string first = Show("pool=1");
    EXPECT_NE("", ShowDetailed());
    EXPECT_NE("", ShowDetailed("group"));
    EXPECT_EQ(first, Show("pool=1"));
    EXPECT_EQ("", Reports());
}

// Blocks

TEST(MemoryReport, TheDetailedReportListsEveryBlockInUseByPool) {
    Memory memory(kBoth + kTwoPools);
    char* pFirst = static_cast<char*>(Alloc(10, "first.cpp", 1));
    char* pSecond = static_cast<char*>(Alloc(17, "second.cpp", 22));
    char* pThird = static_cast<char*>(Alloc(1, nullptr, 54321));
    void* pFreed = Alloc(5, "freed.cpp", 4);
    tq_free(pFreed);
    void* pHeap = Alloc(1000, "heap.cpp", 5); // no pool's
    memcpy(pFirst, "ab.\x01\x7F\xFF z", 8);
    memcpy(pSecond, "0123456789ABCDEFG", 17);
    EXPECT_EQ("Pool #1:\n" + Row(pFirst, 10, "first.cpp", 1, "61 62 2e 01 7f ff 20 7a | 00 00   -  ab.... z..") +
                  Row(pSecond, 17, "second.cpp", 22,
                      "30 31 32 33 34 35 36 37 | 38 39 41 42 43 44 45 46 |   -  0123456789ABCDEF") +
                  Row(pThird, 1, "(Unknown)", 54321, "00   -  .") + "Summary for tqos Memory Pool: 1\n" +
                  Sums(3, 28, 96) + "\n\nSummary for ALL tqos Memory Pools\n" + Sums(3, 28, 96) + "\n",
              ShowDetailed());
    tq_free(pHeap);
}

TEST(MemoryReport, EveryPoolWithBlocksHasItsOwnSummary) {
    Memory memory(kBoth + "Pool1BlockSize=32\nPool2BlockSize=64\nPool3BlockSize=128\n");
    void* pSmall = Alloc(8, "a.cpp", 1);
    void* pLarge = Alloc(128, "b.cpp", 2);
    const std::string zeros = "00 00 00 00 00 00 00 00 | ";
    EXPECT_EQ("Pool #1:\n" + Row(pSmall, 8, "a.cpp", 1, zeros + "  -  ........") + "Summary for tqos Memory Pool: 1\n" +
                  Sums(1, 8, 32) + "\n\nPool #3:\n" +
                  Row(pLarge, 128, "b.cpp", 2, zeros + zeros + "  -  ................") +
                  "Summary for tqos Memory Pool: 3\n" + Sums(1, 128, 128) + "\n\nSummary for ALL tqos Memory Pools\n" +
                  Sums(2, 136, 160) + "\n",
              ShowDetailed());
    EXPECT_EQ("No memory leaks detected!\n\n", ShowDetailed("pool=2"));
}

TEST(MemoryReport, NoBlockInUseIsNoLeak) {
    Memory memory(kBoth);
    EXPECT_EQ("No memory leaks detected!\n\n", ShowDetailed());
    EXPECT_EQ("No memory leaks detected!\n\n", ShowDetailed("pool=1"));
}

TEST(MemoryReport, MarkedAndHiddenBlocksAreLeftOut) {
    Memory memory(kBoth);
    Alloc(10, "before.cpp", 1);
    tq_MemoryMarkPools();
    void* pHidden = Alloc(10, "hidden.cpp", 2);
    Alloc(10, "after.cpp", 3);
    _MEM_HEADER_POOLING_ONLY* pHeader = tq_MemoryPoolHeaderOf(BlockOf(pHidden));
    pHeader->Flags = static_cast<unsigned short>(pHeader->Flags | TQ_MEM_FLAG_HIDDEN);
    const std::string report = ShowDetailed();
    EXPECT_EQ(0u, CountOf(report, "before.cpp"));
    EXPECT_EQ(0u, CountOf(report, "hidden.cpp"));
    EXPECT_EQ(1u, CountOf(report, "after.cpp"));
    EXPECT_EQ(1u, CountOf(report, "Summary for ALL tqos Memory Pools\n" + Sums(1, 10, 32)));
    tq_MemoryUnmarkPools();
    EXPECT_EQ(1u, CountOf(ShowDetailed(), "before.cpp"));
}

TEST(MemoryReport, LongNamesAreShownByTheirLast45Characters) {
    Memory memory(kBoth);
    static const std::string kLong = "/a/very/long/path/" + std::string(30, 'x') + "/of/a/source.cpp";
    void* pUserData = Alloc(1, kLong.c_str(), 12345678);
    const std::string shown = kLong.substr(kLong.size() - 45);
    EXPECT_EQ(1u, CountOf(ShowDetailed(), Row(pUserData, 1, shown, 12345678, "00   -  .")));
    EXPECT_EQ(1u, CountOf(ShowDetailed("group"), "         1        1 " + shown + " 12345678\n"));
    EXPECT_EQ(1u, CountOf(ShowDetailed("filter=/a/very"), shown)); // the whole name is filtered
}

TEST(MemoryReport, FiltersChooseBlocks) {
    Memory memory(kBoth);
    Alloc(10, "src/Alpha.cpp", 1);
    Alloc(20, "src/Beta.cpp", 1);
    Alloc(20, "src/Beta.cpp", 2);
    Alloc(10, nullptr, 3);
    struct Expected {
        const char* pszWords;
        unsigned int count;
    };
    for (const Expected& row : {Expected{"", 4},
                                Expected{"filter=alpha", 1},
                                Expected{"FILTER=BETA", 2},
                                Expected{"filter=src/", 3},
                                Expected{"filter=unknown", 1},
                                Expected{"filter=none", 0},
                                Expected{"filter=", 0},
                                Expected{"filterout=alpha", 3},
                                Expected{"filterout=src", 1},
                                Expected{"filterout=", 4},
                                Expected{"filter=src filterout=alpha", 2},
                                Expected{"line=1", 2},
                                Expected{"Line=3", 1},
                                Expected{"line=9", 0},
                                Expected{"size=10", 2},
                                Expected{"size=20 line=2", 1},
                                Expected{"size=30", 0},
                                Expected{"filter=beta line=1 size=20", 1},
                                Expected{"filter=\"src/Alpha\"", 0},
                                Expected{"\"filter=src/Alpha\"", 1},
                                Expected{"unknown words filter=alpha", 1}}) {
        const std::string report = ShowDetailed(row.pszWords);
        if (row.count == 0) {
            EXPECT_EQ("No memory leaks detected!\n\n", report) << row.pszWords;
        } else {
            const std::string sum =
                "Summary for ALL tqos Memory Pools\n   Total allocations:     " + Number(row.count) + "\n";
            EXPECT_EQ(1u, CountOf(report, sum)) << row.pszWords << report;
        }
    }
}

// Groups

TEST(MemoryReport, GroupsSumUpWhatOnePlaceAllocated) {
    Memory memory(kBoth);
    static const char kName[] = "alpha.cpp";
    Alloc(10, kName, 1);
    Alloc(100, kName, 1);
    Alloc(7, kName, 22);
    const std::string head = "\n\n Detailed tqos memory information:\n\n"
                             "    Count    Bytes                     File                         Line  \n"
                             "   -------- -------- --------------------------------------------- ------\n";
    EXPECT_EQ(head + "         1        7 " + Padded(kName, 45) + "     22\n" + "         2      110 " +
                  Padded(kName, 45) + "      1\n" + " Summary:   3 allocations    (117 bytes).\n\n",
              ShowDetailed("group"));
    EXPECT_EQ(head + "         1       10 " + Padded(kName, 45) + "      1\n" +
                  " Summary:   1 allocations    (10 bytes).\n\n",
              ShowDetailed("group size=10"));
}

TEST(MemoryReport, AGroupedReportWithNothingInUseSaysNothing) {
    Memory memory(kBoth);
    EXPECT_EQ("", ShowDetailed("group"));
    Alloc(10, "alpha.cpp", 1);
    EXPECT_EQ("", ShowDetailed("group=bytes filter=beta"));
}

namespace {

/// The lines of the groups in the order of a report.
std::string Order(const std::string& words) {
    static const std::regex kRow(" +\\d+ +\\d+ +\\S+ +(\\d+)");
    std::string order;
    std::istringstream report(ShowDetailed(words));
    std::string line;
    while (std::getline(report, line)) {
        std::smatch found;
        if (std::regex_match(line, found, kRow)) {
            order += found[1].str() + " ";
        }
    }
    return order;
}

} // namespace

TEST(MemoryReport, GroupsAreSortedAscendingAndWithAMinusDescending) {
    Memory memory(kBoth);
    static const char kB[] = "b.cpp";
    static const char kA[] = "a.cpp";
    const auto alloc = [](unsigned int count, unsigned int size, const char* pszFile, unsigned int line) {
        for (unsigned int i = 0; i < count; ++i) {
            Alloc(size, pszFile, line);
        }
    };
    alloc(3, 100, kB, 5); // 300 bytes, ratio 100
    alloc(1, 400, kB, 4); // 400, 400
    alloc(5, 10, kA, 9);  // 50, 10
    alloc(2, 99, kA, 8);  // 198, 99
    struct Expected {
        const char* pszWords;
        const char* pszOrder;
    };
    for (const Expected& row : {Expected{"group", "4 8 5 9 "}, // the place that was found last stands first
                                Expected{"group=bytes", "9 8 5 4 "}, Expected{"group=-bytes", "4 5 8 9 "},
                                Expected{"group=count", "4 8 5 9 "}, Expected{"GROUP=-COUNT", "9 5 8 4 "},
                                Expected{"group=alpha", "8 9 4 5 "}, Expected{"group=-alpha", "5 4 9 8 "},
                                Expected{"group=ratio", "9 8 5 4 "}, Expected{"group=-ratio", "4 5 8 9 "},
                                Expected{"group=bytes group=-alpha", "5 4 9 8 "}}) {
        EXPECT_EQ(row.pszOrder, Order(row.pszWords)) << row.pszWords;
    }
}

TEST(MemoryReport, GroupsThatWereSortedLeaveNothingOnTheHeap) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own heap does not tell what is in use";
#endif
    Memory memory(kBoth);
    for (unsigned int line = 1; line <= 100; ++line) {
        Alloc(10, "a.cpp", line);
    }
    Order("group=bytes");
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        Order("group=bytes");
    }
    EXPECT_GT(before + 10000, mallinfo2().uordblks);
}

// What needs tracking

TEST(MemoryReport, WithoutTrackingThereIsNoDetailedReport) {
    Memory memory(kPooling);
    tq_malloc(10);
    EXPECT_EQ("Memory Tracking must also be enabled for a DETailed report.\n\n", ShowDetailed());
    EXPECT_EQ("Memory Tracking must also be enabled for a DETailed report.\n\n", ShowDetailed("group"));
}

TEST(MemoryReport, TerminationListsTheLeaksMarkedOrNot) {
    Memory memory(kBoth + kTwoPools);
    void* pUserData = Alloc(8, "leak.cpp", 1);
    tq_MemoryMarkPools();
    const ChildResult result = RunInChild([] { tq_MemoryTerminate(/*bDumpResources=*/true); });
    EXPECT_EQ("Pool #1:\n" + Row(pUserData, 8, "leak.cpp", 1, "00 00 00 00 00 00 00 00 |   -  ........") +
                  "Summary for tqos Memory Pool: 1\n" + Sums(1, 8, 32) + "\n\nSummary for ALL tqos Memory Pools\n" +
                  Sums(1, 8, 32) + "\n",
              result.standardOut);
    tq_free(pUserData);
    const ChildResult clean = RunInChild([] { tq_MemoryTerminate(/*bDumpResources=*/true); });
    EXPECT_EQ("No memory leaks detected!\n\n", clean.standardOut);
    const ChildResult silent = RunInChild([] { tq_MemoryTerminate(/*bDumpResources=*/false); });
    EXPECT_EQ("", silent.standardOut);
}

TEST(MemoryReport, TerminationWithoutTrackingSaysWhatALeakListNeeds) {
    Memory memory(kPooling);
    const ChildResult result = RunInChild([] { tq_MemoryTerminate(/*bDumpResources=*/true); });
    EXPECT_EQ("Memory Tracking must also be enabled to track memory leaks.\n\n", result.standardOut);
}

TEST(MemoryReport, TheWholeLibraryLeaksNothing) {
    const ChildResult result = RunInChild([] {
        Library library("[Memory]\n" + kBoth);
        EXPECT_NE(0u, tqOS_uptime() + 1);
        library.Terminate(/*bDumpResources=*/true);
    });
    EXPECT_EQ("No memory leaks detected!\n\n", result.standardOut);
}

// The histogram

namespace {

constexpr char kHistogram[] = "EnableMemoryTracking=yes\nEnableHistogram=yes\nHistogramMaxSize=300000\n";

void SetHistogram(unsigned int size, unsigned int current, unsigned int most) {
    gpMemoryHistogram[size - 1] = current;
    gpMemoryHistogramMax[size - 1] = most;
}

/// What the histogram's own command writes into a file.
std::string ShowHistogram(const std::string& words = "") {
    return Show("histogram " + words);
}

} // namespace

TEST(MemoryReport, TheHistogramIsShownInFigures) {
    Memory memory(kHistogram);
    SetHistogram(1, 0, 1);   // scaled to 0: left out
    SetHistogram(16, 5, 10); // scaled to 5
    SetHistogram(100, 3, 400);
    EXPECT_EQ("Bytes         current  (maximum)\n -------       -----------------\n"
              "     16:            5  (10)\n    100:            3  (400)\n",
              ShowHistogram("format=numeric"));
}

TEST(MemoryReport, TheHistogramIsDrawnWithTheBarOfTheMaximumInItsColumn) {
    Memory memory(kHistogram);
    SetHistogram(8, 34, 68);
    SetHistogram(9, 68, 68);
    SetHistogram(10, 0, 10);
    SetHistogram(11, 10, 10); // as much as ever: the bar takes the place of the last star
    SetHistogram(12, 1, 1);
    SetHistogram(13, 0, 1);
    SetHistogram(14, 9, 10);
    SetHistogram(300000, 1, 2);
    const std::string head =
        "Bytes     Allocations (* = current   ...| = Maximum)\n -------   |" + std::string(66, '-') + "|\n";
    const std::string bars = "      8:  " + std::string(34, '*') + std::string(33, '.') +
                             "|\n      9:  " + std::string(67, '*') +
                             "|\n     10:  .........|\n     11:  *********|\n     12:  |\n"
                             "     13:  |\n     14:  *********|\n 300000:  *|\n";
    EXPECT_EQ(head + bars, ShowHistogram("format=graphic"));
    EXPECT_EQ(head + bars, ShowHistogram()); // the form that is shown unless another is asked for
}

TEST(MemoryReport, TheCombinedHistogramHasShorterBarsAndTheFigures) {
    Memory memory(kHistogram);
    SetHistogram(8, 25, 100);
    SetHistogram(9, 1, 1); // scaled to 0
    SetHistogram(10, 3, 4);
    EXPECT_EQ("Bytes     Allocations (* = current   ...| = Maximum)\n -------   |" + std::string(48, '-') +
                  "|\n      8:  " + std::string(12, '*') + std::string(37, '.') + "| (25/100)\n     10:  *| (3/4)\n",
              ShowHistogram("format=combo"));
}

TEST(MemoryReport, AnEmptyHistogramHasAHeadOnly) {
    Memory memory(kHistogram);
    EXPECT_EQ("Bytes         current  (maximum)\n -------       -----------------\n", ShowHistogram("FORMAT=Numeric"));
}

TEST(MemoryReport, HugeCountsDoNotOverflowTheScale) {
    Memory memory(kHistogram);
    SetHistogram(8, 0x7FFFFFFF, 0xFFFFFFFF);
    SetHistogram(9, 0xFFFFFFFF, 0xFFFFFFFE);
    const std::string report = ShowHistogram("format=combo");
    EXPECT_EQ(1u, CountOf(report,
                          "      8:  " + std::string(24, '*') + std::string(25, '.') + "| (2147483647/4294967295)\n"));
    EXPECT_EQ(1u, CountOf(report, "      9:  " + std::string(48, '*') + "| (4294967295/4294967294)\n"));
}

TEST(MemoryReport, WithoutAHistogramEveryFormSaysSo) {
    Memory memory(kBoth);
    for (const char* pszWords : {"", "format=numeric", "format=combo", "format=ini"}) {
        EXPECT_EQ("Memory Histogram tracking not enabled!\r\n\n", ShowHistogram(pszWords)) << pszWords;
    }
}

TEST(MemoryReport, ClearingTheHistogramStartsItAgain) {
    Memory memory(kHistogram);
    void* pUserData = tq_malloc(10);
    tq_MemoryClearHistogram(0);
    EXPECT_EQ(0u, gpMemoryHistogram[9]);
    EXPECT_EQ(0u, gpMemoryHistogramMax[9]);
    tq_free(pUserData); // not counted any more, and not below 0
    EXPECT_EQ(0u, gpMemoryHistogram[9]);
}

TEST(MemoryReport, TheHistogramIsReportedWhileThreadsAllocate) {
    Memory memory(kBoth + "EnableHistogram=yes\n");
    std::vector<std::thread> threads;
    for (unsigned int seed = 1; seed <= 2; ++seed) {
        threads.emplace_back([seed] {
            for (unsigned int i = 0; i < 3000; ++i) {
                tq_free(tq_malloc(1 + i * seed % 500));
            }
        });
    }
    for (int i = 0; i < 10; ++i) {
        EXPECT_NE("", ShowHistogram("format=numeric"));
        EXPECT_NE("", ShowHistogram("format=ini"));
        tq_MemoryClearHistogram(0);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The generated pools

namespace {

std::string Section(const std::vector<std::vector<unsigned int>>& pools) {
    std::string section = "[Memory]\n  EnableMemoryPooling=Yes\n\n";
    unsigned int number = 0;
    for (const std::vector<unsigned int>& pool : pools) {
        const std::string key = "  Pool" + Number(++number);
        section += key + "BlockSize  =" + Number(pool[0]) + "\n" + key + "StartCount =" + Number(pool[1]) + "\n" + key +
                   "Increment  =" + Number(pool[2]) + "\n\n";
    }
    return section;
}

} // namespace

TEST(MemoryReport, SizesThatLieCloseTogetherShareAPool) {
    Memory memory(kHistogram);
    SetHistogram(10, 0, 10); // 12; up to 12 + 3 + 1 = 16
    SetHistogram(11, 0, 5);
    SetHistogram(16, 0, 3);
    SetHistogram(17, 0, 1); // 20; alone
    SetHistogram(500, 0, 7);
    SetHistogram(800, 0, 7);
    SetHistogram(3000, 0, 7);
    SetHistogram(6000, 0, 7);
    SetHistogram(100000, 0, 1);
    EXPECT_EQ(
        Section(
            {{16, 12 + 6 + 3, 10}, {20, 1, 10}, {500, 8, 10}, {800, 8, 5}, {3000, 8, 3}, {6000, 8, 2}, {100000, 1, 1}}),
        ShowHistogram("format=ini"));
}

TEST(MemoryReport, AnEmptyHistogramSuggestsTheBuiltInPools) {
    Memory memory(kHistogram);
    EXPECT_EQ(Section({}), ShowHistogram("format=ini"));
}

TEST(MemoryReport, TheLargestSizesHaveAPoolHoweverRareTheyAre) {
    Memory memory(kHistogram);
    unsigned int size = 8;
    std::set<unsigned int> sizes;
    for (unsigned int i = 0; i < 100; ++i, size += size / 2 + 4) {
        if (size > 200000) {
            size = 12 + i;
        }
        sizes.insert(size);
        SetHistogram(size, 0, 100);
    }
    for (unsigned int more = 1000; sizes.size() < 120; more += 1501) {
        sizes.insert(more);
        SetHistogram(more, 0, 50);
    }
    SetHistogram(290000, 0, 10);
    SetHistogram(299999, 0, 20);
    const std::string section = ShowHistogram("format=ini");
    const size_t pools = CountOf(section, "BlockSize");
    EXPECT_GE(82u, pools);
    const std::string expected = "  Pool" + std::to_string(pools - 1) + "BlockSize  =290000\n  Pool" +
                                 std::to_string(pools - 1) + "StartCount =12\n  Pool" + std::to_string(pools - 1) +
                                 "Increment  =1\n\n  Pool" + std::to_string(pools) + "BlockSize  =300000\n  Pool" +
                                 std::to_string(pools) + "StartCount =24\n  Pool" + std::to_string(pools) +
                                 "Increment  =1\n\n";
    EXPECT_EQ(section.size() - expected.size(), section.rfind(expected)) << section;
}

namespace {

/// The same blocks in the same order every time.
std::vector<void*> Load() {
    std::vector<void*> blocks;
    unsigned int random = 12345;
    for (unsigned int i = 0; i < 3000; ++i) {
        random = random * 1103515245 + 12345;
        const unsigned int size = 1 + (random >> 16) % (i % 100 == 0 ? 150000 : 2000);
        blocks.push_back(tq_malloc(size));
        if (i % 3 == 0) {
            tq_free(blocks[i / 2]);
            blocks[i / 2] = nullptr;
        }
    }
    return blocks;
}

/// Queues, messages, timers, lists and their hashes, and blocks of an application beside them, until it ends.
class LibraryAtWork {
public:
    LibraryAtWork() : m_list("at work"), m_blocks(Load()) {
        const unsigned int hash = m_list.HashCreate(LIST_TYPE_ZSTR, 0, 500, nullptr, nullptr);
        EXPECT_NE(0u, hash);
        for (void* pUserData : m_blocks) {
            if (pUserData) {
                memcpy(pUserData, "", 1);
                m_list.AddNode(pUserData);
            }
        }
        for (unsigned int i = 0; i < 300; ++i) {
            tq_MsgCreateCommonAndSend(0, m_queue.GetHandle(), MSG_USER, i, 0, 0, false, 1 + i % 3);
            EXPECT_EQ(0u, tq_TimerSet(m_queue.GetHandle(), 3600000, i, 0, 0, TQ_TIMER_ONE_SHOT, "an hour", false));
        }
        EXPECT_TRUE(m_queue.WaitFor(MSG_USER, 0, 300));
    }
    ~LibraryAtWork() {
        for (void* pUserData : m_blocks) {
            tq_free(pUserData);
        }
    }

    bool IsServedByPools() const {
        return std::all_of(m_blocks.begin(), m_blocks.end(), [](void* pUserData) {
            return !pUserData || tq_MemoryPoolOf(BlockOf(pUserData)) < TotalPools;
        });
    }

private:
    RecordingQueue m_queue{kRunning};
    tq_List m_list;
    std::vector<void*> m_blocks;
};

} // namespace

// From the histogram of a load to pools that serve it, through the configuration as anybody would paste it.
TEST(MemoryReport, TheGeneratedPoolsServeTheSameLoadWithoutTheHeap) {
    std::string section;
    {
        Memory memory(kHistogram);
        for (void* pUserData : Load()) {
            tq_free(pUserData);
        }
        section = ShowHistogram("format=ini");
    }
    ASSERT_EQ(0u, section.find("[Memory]\n"));
    Memory memory(section.substr(9) + "EnableMemoryTracking=yes\n");
    EXPECT_EQ(CountOf(section, "BlockSize"), TotalPools);
    EXPECT_LT(10u, TotalPools);
    const std::vector<void*> blocks = Load();
    for (void* pUserData : blocks) {
        if (pUserData) {
            EXPECT_GT(TotalPools, tq_MemoryPoolOf(BlockOf(pUserData)));
        }
    }
    EXPECT_EQ(1u, CountOf(Show(""), "     Bytes requested from the heap:         0     +0\n"));
    for (void* pUserData : blocks) {
        tq_free(pUserData);
    }
    EXPECT_EQ(0u, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

// The same from tqos.ini to tqos.ini with the whole library at work, as an engineer does it: the section as it was
// shown takes the place of the section that it was measured with.
TEST(MemoryReport, TheGeneratedSectionStandsInPlaceOfTheMemorySectionAndServesTheWholeLibrary) {
    std::string section;
    {
        Library library(std::string("[Memory]\n") + kHistogram);
        LibraryAtWork work;
        section = ShowHistogram("format=ini");
    }
    const size_t pools = CountOf(section, "BlockSize");
    ASSERT_EQ(0u, section.find("[Memory]\n  EnableMemoryPooling=Yes\n"));
    EXPECT_LT(10u, pools);
    {
        Library library(section + "EnableMemoryTracking=yes\n");
        EXPECT_TRUE(gbUseMemoryPooling && gbUseMemoryTracking);
        EXPECT_EQ(pools, TotalPools);
        LibraryAtWork work;
        EXPECT_TRUE(work.IsServedByPools());
        // A thread of the library may be between the two counts of one block; all of them come to rest.
        EXPECT_TRUE(WaitUntil([] {
            return CountOf(Show(""), "     Bytes requested from the heap:         0     ") == 1 &&
                   CountOf(Show(""), "      Bytes allocated from the heap:         0     ") == 1;
        })) << Show("");
    }
    Library library(section);
    EXPECT_TRUE(gbUseMemoryPooling && !gbUseMemoryTracking);
    EXPECT_EQ(pools, TotalPools);
    LibraryAtWork work;
    EXPECT_TRUE(work.IsServedByPools());
}

TEST(MemoryReport, AGroupHasRoomForAllItsMaximaAtOnce) {
    std::string section;
    {
        Memory memory(kHistogram);
        for (unsigned int size = 1; size <= 400; ++size) {
            SetHistogram(size, 0, size % 7);
        }
        section = ShowHistogram("format=ini");
    }
    Memory memory(section.substr(9));
    for (unsigned int size = 1; size <= 400; ++size) {
        for (unsigned int i = 0; i < size % 7; ++i) {
            EXPECT_GT(TotalPools, tq_MemoryPoolOf(BlockOf(tq_malloc(size))));
        }
    }
}

// The console's command

TEST(MemoryReport, EveryWrongWordIsAnsweredAndEndsTheCommand) {
    const char kFormat[] = "Invalid format value! (must be: numeric, graphic, combo, or ini)\r\n";
    const char kGroup[] = "Invalid group value! (must be: [-]alpha, [-]bytes, [-]count, or [-]ratio)\r\n";
    const char kSize[] = "Invalid size value! (must be: a number greater than 0).\r\n";
    const char kLine[] = "Invalid line value! (must be: a number greater than 0).\r\n";
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"format=", kFormat},
        {"format=nume", kFormat},
        {"histogram format=x", kFormat},
        {"group=", kGroup},
        {"group=-", kGroup},
        {"group=byte", kGroup},
        {"group=--bytes", kGroup},
        {"size=0", kSize},
        {"size=x", kSize},
        {"size=-3", kSize},
        {"SIZE=", kSize},
        {"line=0", kLine},
        {"line=x", kLine},
        {"format=x size=0", kFormat},
        {"file=/nowhere/100%s%n.txt", "Failed to open file: /nowhere/100%s%n.txt!\r\n"},
        {"file=", "Failed to open file: !\r\n"},
        {"file=" + std::string(5000, 'f'), "Failed to open file: " + std::string(5000, 'f') + "!\r\n"},
        {"histogram", "Memory Histogram tracking not enabled!\r\n"},
    };
    std::vector<std::string> commands;
    for (const auto& row : rows) {
        commands.push_back(row.first);
    }
    const std::vector<std::string> answers = AnswersTo(kBoth, commands);
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].second, answers[i]) << rows[i].first;
    }
}

TEST(MemoryReport, AHistogramIsNotFilteredOrGrouped) {
    const std::vector<std::string> answers =
        AnswersTo(kBoth, {"histogram filter=x", "filterout=x histogram", "group histogram", "histogram group=bytes"});
    for (const std::string& answer : answers) {
        EXPECT_EQ("Conflicting requests. Only use [file=] or [format=] with histogram requests.\r\n", answer);
    }
}

TEST(MemoryReport, SizesAndLinesNeedTracking) {
    const char kNeedsTracking[] = "Must have Memory Trscking Enabled in order to use the size option!\r\n";
    EXPECT_EQ(std::vector<std::string>(3, kNeedsTracking), AnswersTo(kPooling, {"size=10", "line=10", "size=x"}));
}

TEST(MemoryReport, WithoutPoolsAndTrackingThereIsNothingToShow) {
    EXPECT_EQ(std::vector<std::string>(2, "Memory Pooling or Memory Tracking must be enabled for this.\r\n"),
              AnswersTo("", {"", "group pool=7"}));
}

TEST(MemoryReport, WithTrackingAloneTheCountersAreShown) {
    static const std::regex kText("     Bytes requested through TQOS: +\\d+     \\+\\d+\r\n"
                                  "      Bytes allocated through TQOS: +\\d+     \\+\\d+\r\n"
                                  "  MAX Bytes requested through TQOS: +\\d+     \\+\\d+\r\n"
                                  "  MAX Bytes allocated through TQOS: +\\d+     \\+\\d+\r\n");
    for (const std::string& answer : AnswersTo("EnableMemoryTracking=yes\n", {"", "pool=x"})) {
        EXPECT_TRUE(std::regex_match(answer, kText)) << answer;
    }
}

TEST(MemoryReport, TheCountersReportShowsChangesSinceTheLast) {
    Library library("[Memory]\nEnableMemoryTracking=yes\n");
    Session console;
    console.Show("");
    const std::string first = console.Show("");
    void* pUserData = tq_malloc(1000000);
    const std::string second = console.Show("");
    tq_free(pUserData);
    static const std::regex kRow("Bytes requested through TQOS: +(\\d+)     ([+-])(\\d+)\r\n");
    std::smatch before;
    std::smatch after;
    ASSERT_TRUE(std::regex_search(first, before, kRow));
    ASSERT_TRUE(std::regex_search(second, after, kRow));
    EXPECT_EQ("+", after[2]);
    EXPECT_EQ(std::stoul(after[1]) - std::stoul(before[1]), std::stoul(after[3]));
}

TEST(MemoryReport, ACommandWithoutWordsMayBeNull) {
    Memory memory(kBoth);
    tq_ShowMemory(0, 0, nullptr);
    EXPECT_TRUE(gbTelnetShowMemoryCalled);
}

TEST(MemoryReport, TheSecondOfTwoFilesIsWritten) {
    Memory memory(kBoth);
    const std::string second = Show("file=second.txt pool=1");
    EXPECT_EQ("", second);
    EXPECT_EQ(1u, CountOf(ReadFile("second.txt"), "Pool #001"));
}

// Answers to the console

TEST(MemoryReport, AConsoleGetsOneMessageForEachPieceWithItsOwnLineEnds) {
    Library library("[Memory]\n" + kBoth + "Pool1BlockSize=100000\nPool1StartCount=1\nPool2BlockSize=200000\n");
    Session console;
    void* pUserData = Alloc(150000, "mine.cpp", 3);
    std::string command = "filter=mine.cpp";
    tq_ShowMemory(console.Instance(), 1, &command[0]);
    const std::string sums = "   Total allocations:     1\r\n   Total requested bytes: 150000\r\n"
                             "   Total actual bytes:    200000\r\n";
    EXPECT_EQ(
        (std::vector<std::string>{
            "Pool #2:",
            "150000 bytes " + Address(pUserData) + " " + Padded("mine.cpp", 45) +
                ":   3\r\n        00 00 00 00 00 00 00 00 | 00 00 00 00 00 00 00 00 |   -  ................",
            "Summary for tqos Memory Pool: 2\r\n" + sums + "\r\n", "Summary for ALL tqos Memory Pools\r\n" + sums}),
        console.Answers(4));
    tq_free(pUserData);
}

TEST(MemoryReport, ACheckAnswersItsConsolePieceByPieceAndEndsWithAnEmptyLine) {
    Library library("[Memory]\n" + kBoth + "Pool1BlockSize=2000\nPool2BlockSize=200000\n");
    Session console;
    tq_CheckMemoryPoolsFromTelnet(console.Instance());
    EXPECT_EQ((std::vector<std::string>{"Checking Memory...", "Pool #1:", "    No corrupt blocks detected.",
                                        "Pool #2:", "    No corrupt blocks detected.", "\r\n"}),
              console.Answers(6));
}

TEST(MemoryReport, NothingIsSentForNoText) {
    Library library("[Memory]\n" + kBoth);
    Session console;
    tq_MemoryTelnetSendResponse(nullptr, console.Instance(), 1);
    tq_MemoryTelnetSendResponse("", console.Instance(), 1);
    tq_MemoryRespond(nullptr, false, nullptr, console.Instance(), 1);
    tq_MemoryRespond("100%s", false, nullptr, console.Instance(), 1);
    EXPECT_EQ(std::vector<std::string>{"100%s"}, console.Answers(1));
    tq_MemoryRespond("flagless", false, nullptr, console.Instance(), 0);
    const std::string answer = console.Answers(1).back();
    EXPECT_EQ(1u, CountOf(answer, "Response received from queue (Un-Named): ")) << answer;
    EXPECT_EQ(answer.size() - 8, answer.find("flagless"));
}

TEST(MemoryReport, WithoutAConsoleAnswersLeaveNothingBehind) {
    Library library("[Memory]\n" + kBoth);
    const unsigned int before = gRequestedMemoryAllocations;
    tq_MemoryTelnetSendResponse("nobody", 7, 1);
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    EXPECT_EQ("", Reports());
}

TEST(MemoryReport, WhatIsSentIsZeroedHeapMemoryThatIsFreedAsAnyOther) {
    for (const std::string& keys : {std::string(), std::string("MemoryAlignment=32\n"),
                                    std::string("EnableMemoryTracking=yes\nEnableHistogram=yes\n"), kPooling, kBoth,
                                    kBoth + "MemoryAlignment=32\nDoNotGrowPools=yes\nEnableHistogram=yes\n"}) {
        Memory memory(keys + "DirtyMemoryAlloc=0xCD\n");
        char* pUserData = static_cast<char*>(tq_SpoofMalloc(40, "report.cpp", static_cast<unsigned int>(-1)));
        ASSERT_NE(nullptr, pUserData);
        EXPECT_EQ(std::string(40, '\0'), Bytes(pUserData, 40));
        EXPECT_EQ(0u, AddressModulo(pUserData, TQ_MEM_BLOCK_ALIGNMENT));
        EXPECT_EQ(100u, tq_MemoryPoolOf(BlockOf(pUserData)));
        if (gbUseMemoryPooling) {
            EXPECT_EQ(4097u, tq_MemoryPoolHeaderOf(BlockOf(pUserData))->Flags);
        }
        if (gbUseMemoryTracking) {
            EXPECT_EQ(4097u, HeaderOf(pUserData)->Flags);
            EXPECT_EQ(40u, HeaderOf(pUserData)->size);
            EXPECT_STREQ("report.cpp", HeaderOf(pUserData)->pFile);
            EXPECT_EQ(4294967295u, HeaderOf(pUserData)->line);
            EXPECT_EQ(40u, gRequestedMemoryAllocations);
            EXPECT_EQ(40 + gTotalMemoryOverhead, gTotalMemoryAllocations);
        }
        if (gpMemoryHistogram) {
            EXPECT_EQ(1u, gpMemoryHistogram[39]);
        }
        tq_free(pUserData);
        EXPECT_EQ(0u, gRequestedMemoryAllocations);
        EXPECT_EQ(0u, gTotalMemoryAllocations);
        EXPECT_EQ("", Reports());
    }
}

TEST(MemoryReport, ARefusedResponseIsReportedAndNothingIsSent) {
    {
        Memory memory(kBoth + "MemoryCapInBytes=50\n");
        EXPECT_EQ(nullptr, tq_SpoofMalloc(51, "report.cpp", 7));
        EXPECT_EQ(Logged("Exceeded defined memory cap of 50 bytes\n    size: 51 bytes from:\n"
                         "    line 7 in file: report.cpp\n"),
                  Reports());
        EXPECT_EQ(nullptr, tq_SpoofMalloc(0x80000001u, nullptr, 7));
        EXPECT_EQ(1u, CountOf(Reports(), "Failing memory allocation request:\n    size: 2147483649 bytes"));
        tq_MemoryTelnetSendResponse(std::string(60, 'x').c_str(), 7, 1);
        EXPECT_EQ(2u, CountOf(Reports(), "Exceeded"));
    }
    const ChildResult result = RunInChild([] { // graded higher than a refused request
        Library library("[Memory]\n" + kBoth + "MemoryCapInBytes=1000000\n[Trace]\nDefaultLogToSTDOUT=yes\n");
        tq_SpoofMalloc(1000001, "report.cpp", 7);
    });
    EXPECT_EQ(1u, CountOf(result.standardOut, "SEV: Exceeded defined memory cap of 1000000 bytes\n"));
}
