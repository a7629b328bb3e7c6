#include <atomic>
#include <functional>
#include <memory>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleSession.h"
#include "MemoryCap.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_List_p.h"
#include "tqos.h"

namespace {

using Responses = std::vector<std::string>;

const std::string kHeading = "Index Handle  Node Count/Max   Hash List Name";
const std::string kRule = "----- ------ ----------------- ---- -----------------------------------";

struct ShowLists {
    const char* pszSearch = "Probe";
    unsigned int first = 0;
    unsigned int max = 0;
    bool bHashedOnly = false;
    unsigned int sort = 0;
    bool bReverse = false;
};

class ListReport : public testing::Test {
protected:
    explicit ListReport(const std::string& ini = "[Memory]\nEnableMemoryTracking=yes\n") : m_library(ini) {}

    test::Library m_library;
    test::ConsoleSession m_session;
    std::vector<std::unique_ptr<tq_List>> m_lists;
    int m_node = 0;

    /// A list of a given handle, so that the report's text is known whole.
    tq_List* Make(const char* pszName, int handle, unsigned int nodes = 0, unsigned int most = 0) {
        {
            const tq_ListLock lock(gpHandleList);
            ++gAllocatedHandles; // as if it had been drawn: the list gives it back
        }
        m_lists.push_back(std::make_unique<tq_List>(pszName, handle));
        tq_List* const pList = m_lists.back().get();
        for (unsigned int i = 0; i < (nodes > most ? nodes : most); ++i) {
            pList->AddNode(&m_node);
        }
        while (pList->NodeCount() > nodes) {
            pList->RemoveHead();
        }
        return pList;
    }

    Responses Show(const ShowLists& show = {}) {
        return m_session.ResponsesTo([&show](unsigned int instance) {
            char* pszResponse = reinterpret_cast<char*>(1);
            tq_ListShowLists(instance, &pszResponse, show.first, show.max, show.pszSearch, show.bHashedOnly, show.sort,
                             show.bReverse);
            EXPECT_EQ(nullptr, pszResponse);
        });
    }

    /// The names in the order of a sorted report's rows.
    std::string Order(unsigned int sort, bool bReverse) {
        std::string names;
        const Responses responses = Show({"Probe", 0, 0, false, sort, bReverse});
        for (size_t i = 2; i + 1 < responses.size(); ++i) {
            EXPECT_EQ(std::to_string(i - 1), responses[i].substr(3, responses[i].find(')') - 3));
            names += responses[i].substr(responses[i].find("Probe") + 6, 1);
        }
        return names;
    }
};

/// The same with a library whose memory can be made short.
class CappedListReport : public ListReport {
protected:
    CappedListReport() : ListReport(test::kCapped) {}
};

std::string Row(unsigned int number, unsigned int handle, unsigned int nodes, unsigned int most, unsigned int hashes,
                const std::string& name) {
    char numbers[128];
    snprintf(numbers, sizeof(numbers), "%4u) %6u %8u/%-8u  %2u  ", number, handle, nodes, most, hashes);
    return numbers + name + std::string(name.size() < 35 ? 35 - name.size() : 0, ' ');
}

std::string Total(unsigned int count) {
    return "\r\n\r\nTotal matching Lists: " + std::to_string(count) + "\r\n\r\n";
}

unsigned int Registered() {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    return gpListCount;
}

} // namespace

// All lists, unsorted

TEST_F(ListReport, UnsortedRowsAreOneTextNewestListFirst) {
    Make("Probe old", 900001, 2, 3);
    tq_List* const pHashed = Make("Probe new", 900002);
    pHashed->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, nullptr);
    EXPECT_EQ(Responses{"Index Handle  Node Count/Max   Hash List Name\r\n"
                        "----- ------ ----------------- ---- -----------------------------------"
                        "\r\n>   1) 900002        0/0          1  Probe new                          "
                        "\r\n>   2) 900001        2/3          0  Probe old                          "
                        "\r\n\r\nTotal matching Lists: 2\r\n\r\n"},
              Show());
}

TEST_F(ListReport, FortyFiveListsComeInThreeResponses) {
    for (int i = 0; i < 45; ++i) {
        Make("Probe", 900045 - i);
    }
    std::string texts[3] = {kHeading + "\r\n" + kRule};
    for (unsigned int number = 1; number <= 45; ++number) {
        const bool bBeginsResponse = number == 21 || number == 41;
        texts[(number - 1) / 20] += (bBeginsResponse ? "" : "\r\n>") + Row(number, 900000 + number, 0, 0, 0, "Probe");
    }
    texts[2] += Total(45);
    EXPECT_EQ((Responses{texts[0], texts[1], texts[2]}), Show());
}

TEST_F(ListReport, AFullLastResponseIsFollowedByNoEmptyOne) {
    for (int i = 0; i < 40; ++i) {
        Make("Probe", 900040 - i);
    }
    const Responses responses = Show();
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(20u, test::CountOf(responses[1], "Probe"));
    EXPECT_EQ(Total(40), responses[1].substr(responses[1].size() - Total(40).size()));
}

TEST_F(ListReport, AStartAndANumberOfRowsShowAPart) {
    for (int i = 0; i < 30; ++i) {
        Make("Probe", 900030 - i);
    }
    const auto rows = [](unsigned int first, unsigned int last) {
        std::string text = kHeading + "\r\n" + kRule;
        for (unsigned int number = first; number <= last; ++number) {
            text += "\r\n>" + Row(number, 900000 + number, 0, 0, 0, "Probe");
        }
        return text + Total(30);
    };
    EXPECT_EQ(Responses{rows(10, 14)}, Show({"Probe", 10, 5}));
    EXPECT_EQ(Responses{rows(1, 3)}, Show({"Probe", 0, 3}));
    EXPECT_EQ(Responses{rows(28, 30)}, Show({"Probe", 28, 20}));
    EXPECT_EQ(Responses{kHeading + "\r\n" + kRule + Total(30)}, Show({"Probe", 31, 5}));
    EXPECT_EQ(Responses{kHeading + "\r\n" + kRule + Total(30)}, Show({"Probe", UINT32_MAX, UINT32_MAX}));
    EXPECT_EQ(2u, Show({"Probe", 1, UINT32_MAX}).size()) << "more than there are: all";
}

TEST_F(ListReport, FewerRowsThanTwentyMakeOneResponseOfThatSize) {
    for (int i = 0; i < 30; ++i) {
        Make("Probe", 900030 - i);
    }
    EXPECT_EQ(1u, Show({"Probe", 1, 7}).size());
    EXPECT_EQ(2u, Show({"Probe", 1, 25}).size());
}

TEST_F(ListReport, ASearchIgnoresCaseAndAMinusExcludes) {
    Make("A probe of something", 900001);
    Make(nullptr, 900002);
    Make("no such", 900003);
    EXPECT_EQ(
        Responses{kHeading + "\r\n" + kRule + "\r\n>" + Row(1, 900001, 0, 0, 0, "A probe of something") + Total(1)},
        Show({"PROBE"}));
    EXPECT_EQ(Responses{kHeading + "\r\n" + kRule + Total(0)}, Show({"nowhere in any name"}));
    const unsigned int others = Registered() - 1;
    for (const ShowLists& show : {ShowLists{"-pRoBe"}, ShowLists{"-pRoBe", 0, 0, false, 4}}) {
        std::string all;
        for (const std::string& response : Show(show)) {
            all += response;
        }
        EXPECT_EQ(std::string::npos, all.find("900001"));
        EXPECT_NE(std::string::npos, all.find(" 900002        0/0          0  (unnamed)                          "));
        EXPECT_NE(std::string::npos, all.find(Total(others)));
    }
    EXPECT_NE(std::string::npos, Show({nullptr}).back().find(Total(others + 1)));
    EXPECT_NE(std::string::npos, Show({"-"}).back().find(Total(others + 1))) << "nothing is excluded";
    EXPECT_NE(std::string::npos, Show({"(unnamed)"}).back().find(Total(0))) << "what stands for a missing name";
}

TEST_F(ListReport, HashedOnlyLeavesOutListsThatNeverHadAHash) {
    Make("Probe plain", 900001);
    tq_List* const pEmptied = Make("Probe emptied", 900002);
    tq_List* const pHashed = Make("Probe hashed", 900003);
    pEmptied->HashDestroy(pEmptied->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, nullptr));
    for (int i = 0; i < 12; ++i) {
        pHashed->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, nullptr);
    }
    EXPECT_EQ(Responses{kHeading + "\r\n" + kRule + "\r\n>" + Row(1, 900003, 0, 0, 12, "Probe hashed") + "\r\n>" +
                        Row(2, 900002, 0, 0, 0, "Probe emptied") + Total(2)},
              Show({"Probe", 0, 0, true}));
}

TEST_F(ListReport, NamesLongerThanTheirColumnAreShownWhole) {
    const std::string name = "Probe %s%n " + std::string(3000, 'x');
    for (int i = 0; i < 21; ++i) {
        Make(name.c_str(), 900021 - i);
    }
    const Responses responses = Show();
    ASSERT_EQ(2u, responses.size());
    EXPECT_EQ(20u, test::CountOf(responses[0], name));
    EXPECT_EQ(Row(21, 900021, 0, 0, 0, name) + Total(21), responses[1]);
    EXPECT_EQ(Row(1, 900001, 0, 0, 0, name), Show({"Probe", 1, 1, false, 4})[2]);
}

TEST_F(CappedListReport, WithoutMemoryTheReportEndsWhereItIs) {
    for (int i = 0; i < 45; ++i) {
        Make("Probe", 900045 - i);
    }
    char* pszResponse = nullptr;
    ASSERT_TRUE(test::WaitUntilOthersSleep());
    {
        const test::Cap cap(0); // every allocation is refused
        tq_ListShowLists(m_session.Instance(), &pszResponse, 0, 0, "Probe", false, 0, false);
        tq_ListShowLists(m_session.Instance(), &pszResponse, 0, 0, "Probe", false, 1, false);
        tq_ListShowLists(m_session.Instance(), nullptr, 0, 0, "Probe", false, 0, false);
    }
    EXPECT_EQ(nullptr, pszResponse);
    EXPECT_EQ(Responses{}, m_session.ResponsesTo([](unsigned int) {}));
    EXPECT_EQ(3u, Show().size());
}

// Sorted

TEST_F(ListReport, SortedRowsAreAResponseEach) {
    Make("Probe b", 900002, 1, 5);
    Make("Probe a", 900001, 2, 2);
    EXPECT_EQ((Responses{"Index Handle  Node Count/Max   Hash List Name",
                         "----- ------ ----------------- ---- -----------------------------------",
                         "   1) 900001        2/2          0  Probe a                            ",
                         "   2) 900002        1/5          0  Probe b                            ",
                         "\r\n\r\nTotal matching Lists: 2\r\n\r\n"}),
              Show({"Probe", 0, 0, false, 4}));
}

TEST_F(ListReport, RowsAreSortedByTheirCode) {
    Make("Probe d", 900001, 1, 3);
    Make("Probe b", 900004, 2, 2);
    Make("Probe c", 900002, 1, 9);
    Make("Probe a", 900003, 5, 5);
    EXPECT_EQ("dcba", Order(1, false));
    EXPECT_EQ("abcd", Order(1, true));
    EXPECT_EQ("bdac", Order(2, false));
    EXPECT_EQ("cadb", Order(2, true)) << "the highest peak first";
    EXPECT_EQ("abcd", Order(3, false));
    EXPECT_EQ("dcba", Order(3, true));
    EXPECT_EQ("dcab", Order(4, false));
    EXPECT_EQ("bacd", Order(4, true));
    for (const unsigned int beyond : {5u, 77u, UINT32_MAX}) {
        EXPECT_EQ("dcab", Order(beyond, false)) << "as 4";
    }
}

TEST_F(ListReport, TiesAreSortedByTheOtherCount) {
    Make("Probe c", 900001, 1, 4);
    Make("Probe b", 900002, 2, 3);
    Make("Probe a", 900003, 2, 4);
    EXPECT_EQ("cba", Order(1, false));
    EXPECT_EQ("bca", Order(2, false));
    Make("Probe a", 900004, 1, 1);
    const Responses byName = Show({"Probe a", 0, 0, false, 3});
    EXPECT_EQ(Row(1, 900004, 1, 1, 0, "Probe a"), byName[2]);
    EXPECT_EQ(Row(2, 900003, 2, 4, 0, "Probe a"), byName[3]);
}

TEST_F(ListReport, ASortedReportMayShowAPartOfItsRows) {
    for (int i = 1; i <= 9; ++i) {
        Make("Probe", 900000 + i);
    }
    EXPECT_EQ(
        (Responses{kHeading, kRule, Row(4, 900004, 0, 0, 0, "Probe"), Row(5, 900005, 0, 0, 0, "Probe"), Total(9)}),
        Show({"Probe", 4, 2, false, 4}));
    EXPECT_EQ((Responses{kHeading, kRule, Total(9)}), Show({"Probe", 10, 2, false, 4}));
    EXPECT_EQ((Responses{kHeading, kRule, Row(1, 900003, 0, 0, 0, "(x)"), Total(1)}),
              (Make("(x)", 900003), Show({"(x)", 0, 0, false, 1})))
        << "one row needs no sorting";
    EXPECT_EQ((Responses{kHeading, kRule, Total(0)}), Show({"nowhere in any name", 0, 0, false, 3}));
}

TEST_F(ListReport, ManyListsAreSortedWhateverTheirOrder) {
    for (int i = 0; i < 1000; ++i) {
        Make("Probe", 900000 + (i * 617) % 1000);
    }
    const Responses responses = Show({"Probe", 0, 0, false, 4});
    ASSERT_EQ(1003u, responses.size());
    for (unsigned int i = 0; i < 1000; ++i) {
        EXPECT_EQ(Row(i + 1, 900000 + i, 0, 0, 0, "Probe"), responses[i + 2]);
    }
}

TEST_F(ListReport, TenThousandListsAreReportedWhole) {
    for (int i = 0; i < 10000; ++i) {
        Make("Probe", 900000 + i);
    }
    const Responses responses = Show();
    EXPECT_EQ(500u, responses.size());
    EXPECT_EQ(Row(9981, 900019, 0, 0, 0, "Probe"), responses.back().substr(0, Row(9981, 0, 0, 0, 0, "Probe").size()));
    EXPECT_EQ(10003u, Show({"Probe", 0, 0, false, 3}).size());
}

// Hashes

TEST_F(ListReport, QuestionsAboutHashesThatAreNotThereAreAnswered) {
    Make("Probe plain", 900001);
    tq_List* const pHashed = Make("Probe hashed", 900002);
    const auto answer = [this](unsigned int list, unsigned int hash, unsigned int flags) {
        return m_session.ResponsesTo([=](unsigned int instance) { tq_ListShowHashes(list, hash, instance, flags); });
    };
    pHashed->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, nullptr);
    EXPECT_EQ(Responses{"Invalid Hash Index."}, answer(900002, 0, 1));
    EXPECT_EQ(Responses{"Invalid Hash Index."}, answer(999999, 0, 8));
    for (const unsigned int flags : {0u, 1u}) {
        EXPECT_EQ(Responses{"List not found."}, answer(999999, 1, flags));
        EXPECT_EQ(Responses{"No hashes defined for that list."}, answer(900001, 1, flags));
    }
    for (const unsigned int beyond : {2u, 8u, 9u, UINT32_MAX}) {
        EXPECT_EQ(Responses{"Hash instance is out of range for that list."}, answer(900002, beyond, 1)) << beyond;
    }
    pHashed->HashDestroy(1);
    EXPECT_EQ(Responses{"Hash instance is out of range for that list."}, answer(900002, 1, 0)) << "none is left";
}

TEST_F(ListReport, AStartSlotWhoseHashWasDestroyedIsOutOfRange) {
    tq_List* const pList = Make("Probe", 900001);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, nullptr);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 2, nullptr, nullptr);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 2, nullptr, nullptr);
    pList->HashDestroy(1);
    for (const unsigned int flags : {0u, 1u}) {
        EXPECT_EQ(Responses{"Hash instance is out of range for that list."},
                  m_session.ResponsesTo([=](unsigned int instance) { tq_ListShowHashes(900001, 1, instance, flags); }));
    }
    EXPECT_EQ(3u,
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 2, instance, 1); }).size());
    EXPECT_EQ(Responses{"Hash instance is out of range for that list."},
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 3, instance, 1); }))
        << "only as many slots as there are hashes are looked at";
}

TEST_F(ListReport, TheSummaryCountsBucketsBySize) {
    const unsigned int sizes[] = {0, 0, 1, 3, 3, 0, 2, 1};
    unsigned int keys[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    tq_List* const pList = Make("Probe", 900001);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 8, nullptr, nullptr);
    for (unsigned int bucket = 0; bucket < 8; ++bucket) {
        for (unsigned int i = 0; i < sizes[bucket]; ++i) {
            pList->AddNode(&keys[bucket]);
        }
    }
    EXPECT_EQ((Responses{"For List: 900001 there is 1 hash (10 nodes)",
                         "  Hash 1 has 8 HashValue Lists with: (# of hashlists) @ (nodes per list)\r\n"
                         "    Maximum node counts: 2@3, 1@2, 2@1, 3@0, 0@0\r\n"
                         "    Minimum node counts: 3@0, 2@1, 1@2, 2@3, 0@4294967295\r\n"}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 0, instance, 0); }));
    EXPECT_EQ((Responses{"For List: 900001 and Hash: 1", "  HashValue[0000] contains          0 nodes",
                         "  HashValue[0001] contains          0 nodes", "  HashValue[0002] contains          1 nodes",
                         "  HashValue[0003] contains          3 nodes", "  HashValue[0004] contains          3 nodes",
                         "  HashValue[0005] contains          0 nodes", "  HashValue[0006] contains          2 nodes",
                         "  HashValue[0007] contains          1 nodes"}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 1, instance, 4); }));
}

TEST_F(ListReport, OfMoreThanFiveSizesTheOutermostAreShown) {
    unsigned int keys[7] = {0, 1, 2, 3, 4, 5, 6};
    tq_List* const pList = Make("Probe", 900001);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 7, nullptr, nullptr);
    for (unsigned int bucket = 0; bucket < 7; ++bucket) {
        for (unsigned int i = 0; i <= (bucket * 3) % 7; ++i) { // sizes 1 4 7 3 6 2 5
            pList->AddNode(&keys[bucket]);
        }
    }
    EXPECT_EQ((Responses{"For List: 900001 there is 1 hash (28 nodes)",
                         "  Hash 1 has 7 HashValue Lists with: (# of hashlists) @ (nodes per list)\r\n"
                         "    Maximum node counts: 1@7, 1@6, 1@5, 1@4, 1@3\r\n"
                         "    Minimum node counts: 1@1, 1@2, 1@3, 1@4, 1@5\r\n"}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 0, instance, 0); }));
}

TEST_F(ListReport, TheTableOfTheSmallestBeginsWithTheLargestSizeThereCouldBe) {
    unsigned int key = 0;
    tq_List* const pList = Make("Probe", 900001);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 1, nullptr, nullptr);
    pList->AddNode(&key);
    EXPECT_EQ((Responses{"For List: 900001 there is 1 hash (1 node)",
                         "  Hash 1 has 1 HashValue Lists with: (# of hashlists) @ (nodes per list)\r\n"
                         "    Maximum node counts: 1@1, 0@0, 0@0, 0@0, 0@0\r\n"
                         "    Minimum node counts: 1@1, 0@4294967295, 0@0, 0@0, 0@0\r\n"}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 0, instance, 0); }));
}

TEST_F(ListReport, EveryLineOfTheSummaryIsAboutTheFirstHash) {
    tq_List* const pList = Make("Probe", 900001);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 2, nullptr, nullptr);
    pList->HashCreate(LIST_TYPE_U32BITS, 0, 5, nullptr, nullptr);
    const std::string tables = " has 2 HashValue Lists with: (# of hashlists) @ (nodes per list)\r\n"
                               "    Maximum node counts: 2@0, 0@0, 0@0, 0@0, 0@0\r\n"
                               "    Minimum node counts: 2@0, 0@4294967295, 0@0, 0@0, 0@0\r\n";
    EXPECT_EQ((Responses{"For List: 900001 there are 2 hashes (0 nodes)", "  Hash 1" + tables, "  Hash 2" + tables}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 2, instance, 0); }));
    EXPECT_EQ((Responses{"For List: 900001 and Hash: 2", "  HashValue[0000] contains          0 nodes",
                         "  HashValue[0001] contains          0 nodes", "  HashValue[0002] contains          0 nodes",
                         "  HashValue[0003] contains          0 nodes", "  HashValue[0004] contains          0 nodes"}),
              m_session.ResponsesTo([](unsigned int instance) { tq_ListShowHashes(900001, 2, instance, 1); }));
}

TEST_F(CappedListReport, WithoutMemoryForTheCountsNothingIsSaid) {
    Make("Probe", 900001)->HashCreate(LIST_TYPE_U32BITS, 0, 100000, nullptr, nullptr);
    const test::Cap cap(100000); // the counts take 400000; the console has to say that it was asked for no more
    EXPECT_EQ(Responses{}, m_session.ResponsesTo([](unsigned int instance) {
        tq_ListShowHashes(900001, 1, instance, 1);
        tq_ListShowHashes(900001, 0, instance, 0);
    }));
}

// While the lists change

TEST_F(ListReport, ReportsStayTrueWhileListsComeAndGo) {
    std::atomic<bool> bDone{false};
    std::atomic<unsigned int> rounds{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 2; ++number) {
        threads.emplace_back([&bDone, &rounds, number] {
            unsigned int keys[40];
            for (unsigned int i = 0; i < 40; ++i) {
                keys[i] = i;
            }
            while (!bDone) {
                tq_List list("Probe that comes and goes", 900001 + number);
                const tq_ListLock lock(list);
                for (unsigned int& key : keys) {
                    list.AddNode(&key);
                    if (key % 8 == 3) {
                        list.HashCreate(LIST_TYPE_U32BITS, 0, 16, nullptr, "hash");
                        list.SetName(key == 3 ? "Probe renamed" : nullptr);
                    }
                }
                list.HashDestroy(2);
                while (list.NodeCount() > 20) {
                    list.RemoveHead();
                }
                ++rounds;
            }
        });
    }
    EXPECT_TRUE(test::WaitUntil([&] { return rounds > 10; }));
    for (int i = 0; i < 30; ++i) {
        const unsigned int before = rounds;
        for (const unsigned int sort : {0u, 1u, 3u}) {
            for (const std::string& response : Show({nullptr, 0, 0, false, sort})) {
                EXPECT_EQ(std::string::npos, response.find('\0'));
            }
        }
        for (const std::string& response : m_session.ResponsesTo([](unsigned int instance) {
                 tq_ListShowHashes(900001, 0, instance, 0);
                 tq_ListShowHashes(900002, 1, instance, 1);
                 tq_ListShowHashes(900002, 3, instance, 1);
             })) {
            EXPECT_TRUE(response.find("For List: 90000") == 0 || response.find("  Hash") == 0 ||
                        response.find("List not found.") == 0 || response.find("No hashes defined") == 0 ||
                        response.find("Hash instance is out") == 0)
                << response;
        }
        EXPECT_TRUE(test::WaitUntil([&] { return rounds != before; }));
    }
    bDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(ListReportLife, WithoutTheLibraryThereAreNoLists) {
    char* pszResponse = nullptr;
    tq_ListShowLists(0, &pszResponse, 0, 0, nullptr, false, 0, false);
    EXPECT_STREQ("No Lists currently exist...", pszResponse);
    tq_free(pszResponse);
    tq_ListShowLists(0, nullptr, 0, 0, nullptr, false, 1, false);
    tq_ListShowHashes(1, 1, 0, 0);
}
