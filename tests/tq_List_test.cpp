#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ListNode.h"
#include "LockRecords.h"
#include "MemoryCap.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace {

using test::Named;
using test::Node;
using test::Numbered;

constexpr int kForward = LIST_DIRECTION_HEAD_TO_TAIL;
constexpr int kBackward = LIST_DIRECTION_TAIL_TO_HEAD;

void* Text(const char* pszText) {
    return const_cast<char*>(pszText);
}

/// A list whose chain can be looked at.
struct OpenList : test::OpenListBase {
    using OpenListBase::OpenListBase;

    std::set<const _TQ_LIST_ENTRY*> Chain() const {
        std::set<const _TQ_LIST_ENTRY*> entries;
        const _TQ_LIST_ENTRY* pPrev = nullptr;
        for (const _TQ_LIST_ENTRY* le = m_li.pHead; le; pPrev = le, le = le->pNext) {
            EXPECT_EQ(pPrev, le->pPrev);
            EXPECT_NE(nullptr, le->pNode);
            EXPECT_TRUE(entries.insert(le).second);
        }
        EXPECT_EQ(pPrev, m_li.pTail);
        EXPECT_EQ(m_li.Count, entries.size());
        return entries;
    }

    std::set<const _TQ_LIST_ENTRY*> Pool() const {
        std::set<const _TQ_LIST_ENTRY*> entries;
        const _TQ_LIST_ENTRY* pPrev = nullptr;
        for (const _TQ_LIST_ENTRY* le = m_li.pEmpty; le; pPrev = le, le = le->pNext) {
            EXPECT_EQ(pPrev, le->pPrev);
            EXPECT_EQ(nullptr, le->pNode);
            EXPECT_TRUE(entries.insert(le).second);
        }
        return entries;
    }

    /// Every entry is in the chain or in the pool, and every remembered step is one of the chain.
    void ExpectSound() const {
        const auto chain = Chain();
        const auto pool = Pool();
        EXPECT_EQ(Blocks() * 16, chain.size() + pool.size());
        for (const _TQ_LIST_ENTRY* le : pool) {
            EXPECT_EQ(0u, chain.count(le));
        }
        for (const _TQ_LIST_ENTRY* le : {m_li.pCurrent, m_li.pNextSearch, m_li.pPrevSearch}) {
            EXPECT_TRUE(!le || chain.count(le)) << "a remembered step points outside the list";
        }
    }

    std::string Ids() {
        std::string ids;
        for (const _TQ_LIST_ENTRY* le = m_li.pHead; le; le = le->pNext) {
            ids += static_cast<const Node*>(le->pNode)->id;
        }
        return ids;
    }
};

/// Lists with tracked memory, so that it can be counted and capped.
class ListMemory : public testing::Test {
protected:
    test::Library m_library{"[Memory]\nEnableMemoryTracking=yes\n"};
    void TearDown() override { gMemoryCapInBytes = 0; }
    static void AllowBytes(unsigned int bytes) { gMemoryCapInBytes = gRequestedMemoryAllocations + bytes; }
    static void AllowAll() { gMemoryCapInBytes = 0; }
};

class List : public testing::Test {
protected:
    test::Library m_library;
    std::vector<Node> m_nodes;

    void SetUp() override { m_nodes.reserve(64); }
    Node* Make(char id, uint32_t number = 0) {
        m_nodes.push_back(Numbered(number, id));
        return &m_nodes.back();
    }
    /// Adds a node for every letter at the tail.
    void Fill(OpenList& list, const char* pszIds) {
        for (const char* p = pszIds; *p; ++p) {
            list.AddNode(Make(*p));
        }
    }
    Node* Of(char id) {
        for (Node& node : m_nodes) {
            if (node.id == id) {
                return &node;
            }
        }
        return nullptr;
    }
};

char IdOf(void* pNode) {
    return pNode ? static_cast<const Node*>(pNode)->id : '-';
}

LISTOFLISTS RecordOf(const tq_List* pList) {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        if (pRecord->pList == pList) {
            return *pRecord;
        }
    }
    return {};
}

} // namespace

// Adding

TEST_F(List, UnsortedAddNodeAppendsUnlessTheDirectionIsTailToHead) {
    OpenList list("list");
    list.AddNode(Make('a'));
    list.AddNode(Make('b'), kForward);
    list.AddNode(Make('c'), kBackward);
    list.AddNode(Make('d'), 7);
    list.AddNode(Make('e'), -1);
    EXPECT_EQ("cabde", list.Ids());
    list.ExpectSound();
}

TEST_F(List, AddToHeadAndTailLinkAtTheEndsOfAnUnsortedList) {
    OpenList list("list");
    list.AddToHead(Make('b'));
    list.AddToHead(Make('a'));
    list.AddToTail(Make('c'));
    EXPECT_EQ("abc", list.Ids());
    list.ExpectSound();
}

TEST_F(List, ANullNodeIsIgnoredByEveryWayOfAdding) {
    OpenList list("list");
    list.AddNode(nullptr);
    list.AddNode(nullptr, kBackward);
    list.AddToHead(nullptr);
    list.AddToTail(nullptr);
    list.AddNextNode(nullptr);
    list.AddPrevNode(nullptr);
    EXPECT_EQ(0u, list.NodeCount());
    list.AddNode(Make('a'));
    list.AddNextNode(nullptr);
    list.AddPrevNode(nullptr);
    EXPECT_EQ("a", list.Ids());
    EXPECT_EQ('a', IdOf(list.GetCurrent()));
    OpenList sorted(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "sorted");
    sorted.AddToHead(nullptr);
    sorted.AddToTail(nullptr);
    EXPECT_EQ(0u, sorted.NodeCount());
}

TEST_F(List, EveryAddMakesTheNewNodeTheCursor) {
    OpenList list("list");
    list.AddNode(Make('a'));
    EXPECT_EQ('a', IdOf(list.GetCurrent()));
    list.AddNode(Make('b'), kBackward);
    EXPECT_EQ('b', IdOf(list.GetCurrent()));
    list.AddToHead(Make('c'));
    EXPECT_EQ('c', IdOf(list.GetCurrent()));
    list.AddToTail(Make('d'));
    EXPECT_EQ('d', IdOf(list.GetCurrent()));
    list.AddNextNode(Make('e'));
    EXPECT_EQ('e', IdOf(list.GetCurrent()));
    list.AddPrevNode(Make('f'));
    EXPECT_EQ('f', IdOf(list.GetCurrent()));
    EXPECT_EQ("cbadfe", list.Ids());
}

TEST_F(List, CountsNodesAndKeepsThePeak) {
    OpenList list("list");
    Fill(list, "abc");
    EXPECT_EQ(3u, list.NodeCount());
    EXPECT_EQ(3u, list.MaxNodeCount());
    list.RemoveHead();
    list.RemoveTail();
    EXPECT_EQ(1u, list.NodeCount());
    EXPECT_EQ(3u, list.MaxNodeCount());
    list.AddNode(Make('d'));
    EXPECT_EQ(3u, list.MaxNodeCount());
}

TEST_F(List, AddNextNodeFollowsTheDirectionOfTheWalk) {
    OpenList list("list");
    Fill(list, "ab");
    EXPECT_EQ('a', IdOf(list.GetHead()));
    list.AddNextNode(Make('1'));
    EXPECT_EQ("a1b", list.Ids());
    EXPECT_EQ('b', IdOf(list.GetNext()));
    EXPECT_EQ('b', IdOf(list.GetTail()));
    list.AddNextNode(Make('2'));
    EXPECT_EQ("a12b", list.Ids());
    EXPECT_EQ('1', IdOf(list.GetNext())) << "the walk goes on towards the head";
    list.ExpectSound();
}

TEST_F(List, AddPrevNodeMirrorsAddNextNode) {
    OpenList list("list");
    Fill(list, "ab");
    list.GetHead();
    list.GetNext();
    list.AddPrevNode(Make('1'));
    EXPECT_EQ("a1b", list.Ids());
    list.GetTail();
    list.AddPrevNode(Make('2'));
    EXPECT_EQ("a1b2", list.Ids());
    list.ExpectSound();
}

TEST_F(List, NodesAddedBesideTheCursorHaveTheirNeighboursAsSteps) {
    OpenList list("list");
    Fill(list, "abc");
    list.GetHead();
    list.GetNext();
    list.AddNextNode(Make('1')); // a b 1 c
    EXPECT_EQ('b', IdOf(list.GetPrev()));
    list.SetCurrent(Of('1'));
    EXPECT_EQ('c', IdOf(list.GetNext()));
    list.GetTail();
    list.AddPrevNode(Make('2')); // a b 1 c 2, on a walk to the head
    EXPECT_EQ("ab1c2", list.Ids());
    EXPECT_EQ('c', IdOf(list.GetNext()));
    EXPECT_EQ('2', IdOf(list.GetPrev()));
    EXPECT_EQ('-', IdOf(list.GetPrev()));
    list.ExpectSound();
}

TEST_F(List, WithoutACursorNodesBesideItGoWhereTheWalkDirectionPutsThem) {
    OpenList list("list");
    list.AddNextNode(Make('a'));
    EXPECT_EQ("a", list.Ids());
    list.AddNode(Make('b'));
    list.RemoveNode(Of('b')); // takes the cursor away
    list.AddPrevNode(Make('c'));
    EXPECT_EQ("ac", list.Ids()) << "both add at the tail on a walk from the head";
    list.GetTail();
    list.GetNext();
    list.GetNext(); // past the end: no cursor, direction towards the head
    list.AddPrevNode(Make('d'));
    EXPECT_EQ("dac", list.Ids());
    list.GetTail();
    while (list.GetNext()) {
    }
    list.AddNextNode(Make('e'));
    EXPECT_EQ("edac", list.Ids());
    list.ExpectSound();
}

TEST_F(List, SortedListsPutNodesAddedBesideTheCursorInOrder) {
    OpenList list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "list");
    list.AddNode(Make('b', 2));
    list.AddNextNode(Make('a', 1));
    list.AddPrevNode(Make('c', 3));
    list.AddNextNode(Make('x', 2)); // direction 0: before its equals
    list.GetTail();
    list.AddPrevNode(Make('y', 2)); // direction 1: behind them
    EXPECT_EQ("axbyc", list.Ids());
}

TEST_F(List, TheSameNodeMayBeInAListTwice) {
    OpenList list("list");
    Fill(list, "ab");
    list.AddNode(Of('a'));
    EXPECT_EQ("aba", list.Ids());
    EXPECT_EQ('a', IdOf(list.RemoveNode(Of('a'))));
    EXPECT_EQ("ab", list.Ids()) << "the cursor's occurrence goes first";
    EXPECT_EQ('a', IdOf(list.RemoveNode(Of('a'))));
    EXPECT_EQ("b", list.Ids());
    EXPECT_EQ(nullptr, list.RemoveNode(Of('a')));
}

// Sorting

TEST_F(List, EqualKeysGoBeforeTheirEqualsFromTheHeadAndBehindFromTheTail) {
    OpenList list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "list");
    list.AddToTail(Make('a', 1));
    list.AddToTail(Make('b', 2));
    list.AddToTail(Make('c', 2));
    list.AddToTail(Make('d', 3));
    list.AddToHead(Make('h', 2));
    list.AddToTail(Make('t', 2));
    EXPECT_EQ("ahbctd", list.Ids());
    list.ExpectSound();
}

TEST_F(List, DescendingListsMirrorAscendingOnes) {
    OpenList list(LIST_FLAGS_SORT_DESCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "list");
    list.AddNode(Make('b', 2));
    list.AddNode(Make('a', 3), kBackward);
    list.AddNode(Make('c', 1), kForward);
    list.AddNode(Make('h', 2), kForward);
    list.AddNode(Make('t', 2), kBackward);
    EXPECT_EQ("ahbtc", list.Ids());
    list.ExpectSound();
}

TEST_F(List, BothSortFlagsMeanAscending) {
    OpenList list(LIST_FLAGS_SORT_ASCENDING | LIST_FLAGS_SORT_DESCENDING, LIST_TYPE_U32BITS, offsetof(Node, number),
                  "list");
    list.AddNode(Make('c', 3));
    list.AddNode(Make('a', 1));
    list.AddNode(Make('b', 2), kBackward);
    EXPECT_EQ("abc", list.Ids());
}

TEST_F(List, AnUnknownSortTypeSortsAsUnsigned32Bits) {
    for (int sortType : {0, 12, -1}) {
        OpenList list(LIST_FLAGS_SORT_ASCENDING, sortType, offsetof(Node, number), "list");
        EXPECT_EQ(LIST_TYPE_U32BITS, list.m_li.sortType);
        list.AddNode(Make('b', 0x80000000u));
        list.AddNode(Make('a', 1));
        EXPECT_EQ("ab", list.Ids());
    }
    OpenList unsorted(LIST_FLAGS_SORT_DISABLE, 12, 0, "list");
    EXPECT_EQ(12, unsorted.m_li.sortType) << "an unsorted list's type is kept as it was given";
}

TEST_F(List, AnOddDirectionSearchesASortedListFromTheHead) {
    OpenList list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "list");
    list.AddNode(Make('b', 2));
    list.AddNode(Make('c', 3), 5);
    list.AddNode(Make('a', 1), 5);
    list.AddNode(Make('h', 2), 5);
    EXPECT_EQ("ahbc", list.Ids());
}

namespace {

/// Nodes in ascending order of one type of key.
struct SortRow {
    int type;
    size_t offset;
    std::vector<Node> ascending;
};

std::vector<SortRow> SortRows() {
    const std::vector<Node> words = {Named(""), Named("Abc"), Named("abc"), Named("abcd"), Named("b")};
    const std::vector<Node> anyCase = {Named(""), Named("aBC"), Named("ABcd"), Named("B"), Named("c")};
    std::vector<Node> pointed = words;
    pointed[0] = Named(nullptr);
    std::vector<Node> pointedAnyCase = anyCase;
    pointedAnyCase[0] = Named(nullptr);
    return {
        {LIST_TYPE_U32BITS, offsetof(Node, number), {Numbered(0), Numbered(70000), Numbered(0x80000000u)}},
        {LIST_TYPE_S32BITS, offsetof(Node, number), {Numbered(0x80000000u), Numbered(0xFFFFFFFFu), Numbered(70000)}},
        {LIST_TYPE_U16BITS, offsetof(Node, half), {Numbered(0), Numbered(300), Numbered(0x8000)}},
        {LIST_TYPE_S16BITS, offsetof(Node, half), {Numbered(0x8000), Numbered(0xFFFF), Numbered(300)}},
        {LIST_TYPE_U8BITS, offsetof(Node, byte), {Numbered(0), Numbered(3), Numbered(0x80)}},
        {LIST_TYPE_S8BITS, offsetof(Node, byte), {Numbered(0x80), Numbered(0xFF), Numbered(3)}},
        {LIST_TYPE_PZSTR, offsetof(Node, pszText), pointed},
        {LIST_TYPE_ZSTR, offsetof(Node, text), words},
        {LIST_TYPE_PZISTR, offsetof(Node, pszText), pointedAnyCase},
        {LIST_TYPE_ZISTR, offsetof(Node, text), anyCase},
    };
}

void ExpectSorts(const SortRow& row, unsigned int flags, int direction) {
    std::vector<Node> nodes = row.ascending;
    for (size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].id = static_cast<char>('a' + i);
    }
    std::string expected;
    for (const Node& node : nodes) {
        expected += node.id;
    }
    if (flags & LIST_FLAGS_SORT_DESCENDING) {
        std::reverse(expected.begin(), expected.end());
    }
    std::vector<Node*> order;
    for (Node& node : nodes) {
        order.push_back(&node);
    }
    do {
        OpenList list(static_cast<int>(flags), row.type, static_cast<unsigned int>(row.offset), "list");
        for (Node* pNode : order) {
            list.AddNode(pNode, direction);
        }
        ASSERT_EQ(expected, list.Ids()) << "type " << row.type << " flags " << flags << " direction " << direction;
    } while (std::next_permutation(order.begin(), order.end()));
}

} // namespace

TEST_F(List, SortsByEveryTypeOfKeyInBothOrdersFromBothEnds) {
    for (const SortRow& row : SortRows()) {
        for (unsigned int flags : {LIST_FLAGS_SORT_ASCENDING, LIST_FLAGS_SORT_DESCENDING}) {
            for (int direction : {kForward, kBackward}) {
                ExpectSorts(row, flags, direction);
            }
        }
    }
}

TEST_F(List, NumberComparisonsGiveMinusOneZeroOrOne) {
    for (const SortRow& row : SortRows()) {
        if (row.type > LIST_TYPE_S8BITS) {
            continue;
        }
        std::vector<Node> nodes = row.ascending;
        const auto offset = static_cast<unsigned int>(row.offset);
        const PFN_LIST_COMPARE_NODES pfnCompare = tqList_CompareNode[row.type - 1];
        EXPECT_EQ(-1, pfnCompare(&nodes[0], &nodes[1], offset));
        EXPECT_EQ(0, pfnCompare(&nodes[1], &nodes[1], offset));
        EXPECT_EQ(1, pfnCompare(&nodes[2], &nodes[1], offset));
    }
}

namespace {

/// Sorted by the distance to the list's user value, or not at all without one.
struct DistanceList : OpenList {
    DistanceList() : OpenList(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_CUSTOM, 0, "distance") {}
    int CustomSort(void* pNode1, void* pNode2, void* userparm) override {
        const int centre = static_cast<int>(reinterpret_cast<intptr_t>(userparm));
        const int distance1 = abs(static_cast<int>(static_cast<Node*>(pNode1)->number) - centre);
        const int distance2 = abs(static_cast<int>(static_cast<Node*>(pNode2)->number) - centre);
        m_lastNew = static_cast<Node*>(pNode1);
        return distance1 - distance2;
    }
    Node* m_lastNew = nullptr;
};

} // namespace

TEST_F(List, DerivedListsSortByTheirOwnCustomSort) {
    DistanceList list;
    list.SetUserParm(tq_ListKey(10));
    EXPECT_EQ(tq_ListKey(10), list.GetUserParm());
    list.AddNode(Make('c', 20));
    list.AddNode(Make('a', 9));
    list.AddNode(Make('b', 13), kBackward);
    EXPECT_EQ("abc", list.Ids());
    EXPECT_EQ(Of('b'), list.m_lastNew) << "the node being added comes first";
    list.AddToHead(Make('h', 7));
    list.AddToTail(Make('t', 7));
    EXPECT_EQ("ahbtc", list.Ids());
}

TEST_F(List, TheBaseCustomSortOrdersByAddressAsSignedNumbers) {
    OpenList list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_CUSTOM, 0, "list");
    char bytes[3];
    list.AddNode(&bytes[1]);
    list.AddNode(&bytes[2]);
    list.AddNode(&bytes[0]);
    EXPECT_EQ(&bytes[0], list.GetHead());
    EXPECT_EQ(&bytes[1], list.GetNext());
    EXPECT_EQ(&bytes[2], list.GetNext());
    void* const pNegative = reinterpret_cast<void*>(static_cast<uintptr_t>(INTPTR_MIN));
    EXPECT_EQ(-1, list.CustomSort(pNegative, bytes, nullptr));
    EXPECT_EQ(1, list.CustomSort(bytes, pNegative, nullptr));
    EXPECT_EQ(0, list.CustomSort(bytes, bytes, nullptr));
    // Where pointers are wider than 32 bits, the upper ones count too.
    const auto apart = static_cast<uintptr_t>(1) << (sizeof(void*) * 8 - 2);
    EXPECT_EQ(-1, list.CustomSort(tq_ListKey(5), reinterpret_cast<void*>(apart + 5), nullptr));
}

// Removing

TEST_F(List, RemoveHeadAndTailTakeTheEndsUntilNothingIsLeft) {
    OpenList list("list");
    Fill(list, "abc");
    EXPECT_EQ('a', IdOf(list.RemoveHead()));
    EXPECT_EQ('c', IdOf(list.RemoveTail()));
    EXPECT_EQ('b', IdOf(list.RemoveTail()));
    EXPECT_EQ(nullptr, list.RemoveHead());
    EXPECT_EQ(nullptr, list.RemoveTail());
    list.ExpectSound();
}

TEST_F(List, RemoveNodeTakesAnyNodeAndLeavesNoCursor) {
    OpenList list("list");
    Fill(list, "abcd");
    EXPECT_EQ('d', IdOf(list.RemoveNode(Of('d')))); // the cursor
    EXPECT_EQ(nullptr, list.GetCurrent());
    list.GetHead();
    EXPECT_EQ('b', IdOf(list.RemoveNode(Of('b'))));
    EXPECT_EQ(nullptr, list.GetCurrent());
    EXPECT_EQ("ac", list.Ids());
    EXPECT_EQ(nullptr, list.RemoveNode(Of('b')));
    EXPECT_EQ(nullptr, list.RemoveNode(nullptr));
    EXPECT_EQ("ac", list.Ids());
    list.ExpectSound();
}

TEST_F(List, ARemovalThatFindsNothingKeepsTheCursor) {
    OpenList list("list");
    Fill(list, "ab");
    list.RemoveNode(nullptr);
    int other = 0;
    list.RemoveNode(&other);
    EXPECT_EQ('b', IdOf(list.GetCurrent()));
}

TEST_F(List, TheSeventeenthNodeTakesASecondBlockAndEmptinessGivesItBack) {
    OpenList list("list");
    EXPECT_EQ(0u, list.Blocks());
    Fill(list, "abcdefghijklmnop");
    EXPECT_EQ(1u, list.Blocks());
    const _LIST_BLOCK* const pOldest = list.m_li.pListBlock;
    list.AddNode(Make('q'));
    EXPECT_EQ(2u, list.Blocks());
    while (list.NodeCount() > 1) {
        list.RemoveTail();
    }
    EXPECT_EQ(2u, list.Blocks()) << "only emptiness gives blocks back";
    list.ExpectSound();
    list.RemoveHead();
    EXPECT_EQ(1u, list.Blocks());
    EXPECT_EQ(pOldest, list.m_li.pListBlock);
    EXPECT_EQ(pOldest->EntryList, list.m_li.pEmpty);
    EXPECT_EQ(16u, list.Pool().size());
    EXPECT_EQ(&pOldest->EntryList[1], list.m_li.pEmpty->pNext) << "in the order of the array";
    list.ExpectSound();
    list.AddNode(Of('a'));
    list.RemoveHead();
    EXPECT_EQ(1u, list.Blocks()) << "one block is kept";
}

TEST_F(List, ManyBlocksShrinkToTheOldest) {
    OpenList list("list");
    std::vector<Node> nodes(1000);
    for (Node& node : nodes) {
        list.AddToHead(&node);
    }
    EXPECT_EQ(63u, list.Blocks());
    list.ExpectSound();
    list.GetHead();
    while (list.RemoveTail()) {
        ASSERT_TRUE(list.m_li.pNextSearch == nullptr || list.m_li.pNextSearch->pNode != nullptr);
    }
    EXPECT_EQ(1u, list.Blocks());
    EXPECT_EQ(nullptr, list.m_li.pNextSearch) << "the walk begun before forgets the freed entries";
    EXPECT_EQ(nullptr, list.GetNext());
    EXPECT_EQ(nullptr, list.GetPrev());
    EXPECT_EQ(1000u, list.MaxNodeCount());
    list.ExpectSound();
}

// Walking

TEST_F(List, WalksInBothDirections) {
    OpenList list("list");
    EXPECT_EQ(nullptr, list.GetHead());
    EXPECT_EQ(nullptr, list.GetTail());
    EXPECT_EQ(nullptr, list.GetNext());
    EXPECT_EQ(nullptr, list.GetPrev());
    EXPECT_EQ(nullptr, list.GetCurrent());
    Fill(list, "abc");
    std::string seen;
    for (void* p = list.GetHead(); p; p = list.GetNext()) {
        EXPECT_EQ(p, list.GetCurrent());
        seen += IdOf(p);
    }
    EXPECT_EQ(nullptr, list.GetCurrent());
    for (void* p = list.GetTail(); p; p = list.GetNext()) {
        seen += IdOf(p);
    }
    EXPECT_EQ("abccba", seen);
}

TEST_F(List, GetPrevStepsBackAgainstTheWalk) {
    OpenList list("list");
    Fill(list, "abc");
    list.GetHead();
    list.GetNext();
    list.GetNext();
    EXPECT_EQ('b', IdOf(list.GetPrev()));
    EXPECT_EQ('c', IdOf(list.GetNext())) << "the node left by a step back is the next one";
    list.GetTail();
    list.GetNext();
    EXPECT_EQ('c', IdOf(list.GetPrev()));
    EXPECT_EQ('-', IdOf(list.GetPrev()));
    EXPECT_EQ('c', IdOf(list.GetNext())) << "and from beyond the beginning the walk finds it again";
}

TEST_F(List, AStepBackFromTheEndGivesTheLastNode) {
    OpenList list("list");
    Fill(list, "ab");
    for (void* p = list.GetHead(); p; p = list.GetNext()) {
    }
    EXPECT_EQ('b', IdOf(list.GetPrev()));
    EXPECT_EQ('a', IdOf(list.GetPrev()));
    EXPECT_EQ('-', IdOf(list.GetPrev()));
    EXPECT_EQ('a', IdOf(list.GetNext()));
}

TEST_F(List, AtTheBeginningAWalkHasNoStepBack) {
    OpenList list("list");
    Fill(list, "ab");
    list.GetNext();
    list.GetHead();
    EXPECT_EQ('-', IdOf(list.GetPrev()));
    EXPECT_EQ('a', IdOf(list.GetNext()));
}

TEST_F(List, SetCurrentFindsANodeFromTheHead) {
    OpenList list("list");
    Fill(list, "abc");
    EXPECT_EQ('b', IdOf(list.SetCurrent(Of('b'))));
    EXPECT_EQ('b', IdOf(list.GetCurrent()));
    EXPECT_EQ('c', IdOf(list.GetNext()));
    EXPECT_EQ('b', IdOf(list.GetPrev()));
    list.SetCurrent(Of('b'));
    EXPECT_EQ('a', IdOf(list.GetPrev()));
    int other = 0;
    EXPECT_EQ(nullptr, list.SetCurrent(&other));
    EXPECT_EQ(nullptr, list.SetCurrent(nullptr));
    EXPECT_EQ('a', IdOf(list.GetCurrent())) << "nothing changes when it is not there";
}

TEST_F(List, SetCurrentStepsTowardsTheTailEvenOnAWalkFromTheTail) {
    OpenList list("list");
    Fill(list, "abcd");
    list.GetTail();
    list.SetCurrent(Of('b'));
    EXPECT_EQ('c', IdOf(list.GetNext())) << "first towards the tail";
    EXPECT_EQ('b', IdOf(list.GetNext())) << "then in the direction of the walk";
    EXPECT_EQ('a', IdOf(list.GetNext()));
    list.SetCurrent(Of('c'));
    EXPECT_EQ('b', IdOf(list.GetPrev()));
    EXPECT_EQ('c', IdOf(list.GetPrev()));
}

TEST_F(List, RemovingTheCurrentNodeInAWalkGoesOnBehindIt) {
    for (int direction : {kForward, kBackward}) {
        OpenList list("list");
        m_nodes.clear();
        Fill(list, "abcdef");
        std::string seen;
        for (void* p = direction == kForward ? list.GetHead() : list.GetTail(); p; p = list.GetNext()) {
            seen += IdOf(p);
            list.RemoveNode(p);
            list.ExpectSound();
        }
        EXPECT_EQ(direction == kForward ? "abcdef" : "fedcba", seen);
        EXPECT_EQ(0u, list.NodeCount());
    }
}

TEST_F(List, RemovingTheNextNodeInAWalkGoesOnPastIt) {
    for (int direction : {kForward, kBackward}) {
        OpenList list("list");
        m_nodes.clear();
        Fill(list, direction == kForward ? "abcd" : "dcba");
        direction == kForward ? list.GetHead() : list.GetTail();
        EXPECT_EQ('b', IdOf(list.GetNext()));
        list.RemoveNode(Of('c'));
        list.ExpectSound();
        EXPECT_EQ('b', IdOf(list.m_li.pPrevSearch->pNode)) << "the step back is the entry's other neighbour";
        EXPECT_EQ('d', IdOf(list.GetNext()));
        EXPECT_EQ('-', IdOf(list.GetNext()));
    }
}

TEST_F(List, RemovingTheStepBackMovesItFurtherBack) {
    for (int direction : {kForward, kBackward}) {
        OpenList list("list");
        m_nodes.clear();
        Fill(list, direction == kForward ? "abcd" : "dcba");
        direction == kForward ? list.GetHead() : list.GetTail();
        list.GetNext();
        EXPECT_EQ('c', IdOf(list.GetNext()));
        list.RemoveNode(Of('b'));
        list.ExpectSound();
        EXPECT_EQ('a', IdOf(list.GetPrev()));
        list.GetNext();
        list.ExpectSound();
    }
}

TEST_F(List, RemovingOtherNodesLeavesAWalkAlone) {
    OpenList list("list");
    Fill(list, "abcdef");
    list.GetHead();
    list.GetNext();
    list.GetNext(); // c; steps b and d
    list.RemoveNode(Of('a'));
    list.RemoveNode(Of('f'));
    EXPECT_EQ('d', IdOf(list.GetNext()));
    EXPECT_EQ('e', IdOf(list.GetNext()));
    EXPECT_EQ('-', IdOf(list.GetNext()));
    list.ExpectSound();
}

// Searching

TEST_F(List, FindFirstAndFindNextGiveTheMatchesInOrder) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    list.AddNode(Make('b', 6));
    list.AddNode(Make('c', 5));
    list.AddNode(Make('d', 7));
    const unsigned int offset = offsetof(Node, number);
    EXPECT_EQ('a', IdOf(list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kForward)));
    EXPECT_EQ('c', IdOf(list.FindNext(false)));
    EXPECT_EQ('c', IdOf(list.GetCurrent()));
    EXPECT_EQ('-', IdOf(list.FindNext(false)));
    EXPECT_EQ(nullptr, list.GetCurrent());
    EXPECT_EQ('-', IdOf(list.FindNext(false)));
    EXPECT_EQ('c', IdOf(list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kBackward)));
    EXPECT_EQ('a', IdOf(list.FindNext(false)));
    EXPECT_EQ('-', IdOf(list.FindNext(false)));
    EXPECT_EQ('-', IdOf(list.FindFirst(tq_ListKey(9), LIST_TYPE_U32BITS, offset, nullptr, kForward)));
    EXPECT_EQ(nullptr, list.GetCurrent());
}

TEST_F(List, FindPrevGoesBackAgainstTheSearch) {
    OpenList list("list");
    for (const char* p = "aoboco"; *p; ++p) {
        list.AddNode(Make(*p, *p == 'o' ? 0u : 5u));
    }
    const unsigned int offset = offsetof(Node, number);
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kForward);
    list.FindNext(false);
    EXPECT_EQ('c', IdOf(list.FindNext(false)));
    EXPECT_EQ('b', IdOf(list.FindPrev(false)));
    EXPECT_EQ('c', IdOf(list.FindNext(false))) << "the node left is the next step";
    EXPECT_EQ('b', IdOf(list.FindPrev(false)));
    EXPECT_EQ('a', IdOf(list.FindPrev(false)));
    EXPECT_EQ('-', IdOf(list.FindPrev(false)));
    EXPECT_EQ('a', IdOf(list.GetCurrent())) << "without a step back nothing changes";
    EXPECT_EQ('b', IdOf(list.FindNext(false)));
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kBackward);
    list.FindNext(false);
    EXPECT_EQ('c', IdOf(list.FindPrev(false)));
    list.ExpectSound();
}

TEST_F(List, ASearchBackThatFindsNothingLeavesNoCursor) {
    OpenList list("list");
    list.AddNode(Make('o', 0));
    list.AddNode(Make('a', 5));
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr, kForward);
    list.SetCurrent(Of('a'));
    EXPECT_EQ('-', IdOf(list.FindPrev(false)));
    EXPECT_EQ(nullptr, list.GetCurrent());
    EXPECT_EQ('a', IdOf(list.FindNext(false))) << "the node left is the next step";
    list.ExpectSound();
}

TEST_F(List, AStepBackAfterTheFirstMatchBeginsWhereTheCursorWasBefore) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    list.AddNode(Make('b', 5));
    list.AddNode(Make('c', 5)); // the cursor when the search begins
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr, kForward);
    EXPECT_EQ('c', IdOf(list.FindPrev(false)));
    list.ExpectSound();
}

TEST_F(List, RemovingSearchesTakeOnlyTheMatches) {
    OpenList list("list");
    for (const char* p = "aoboco"; *p; ++p) {
        list.AddNode(Make(*p, *p == 'o' ? 0u : 5u));
    }
    const unsigned int offset = offsetof(Node, number);
    EXPECT_EQ('a', IdOf(list.FindFirstAndRemove(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kForward)));
    EXPECT_EQ(5u, list.NodeCount());
    EXPECT_EQ(6u, list.MaxNodeCount());
    EXPECT_EQ(nullptr, list.GetCurrent());
    list.ExpectSound();
    EXPECT_EQ('b', IdOf(list.FindNext(true)));
    EXPECT_EQ("ooco", list.Ids());
    list.ExpectSound();
    EXPECT_EQ('c', IdOf(list.FindNext(false)));
    EXPECT_EQ('-', IdOf(list.FindNext(true)));
    EXPECT_EQ('c', IdOf(list.FindPrev(true)));
    EXPECT_EQ("ooo", list.Ids());
    EXPECT_EQ('-', IdOf(list.FindPrev(true)));
    list.ExpectSound();
    EXPECT_EQ('o', IdOf(list.FindFirstAndRemove(tq_ListKey(0), LIST_TYPE_U32BITS, offset, nullptr, kBackward)));
    EXPECT_EQ('o', IdOf(list.FindNext(true)));
    EXPECT_EQ('o', IdOf(list.FindNext(true)));
    EXPECT_EQ('-', IdOf(list.FindNext(true)));
    EXPECT_EQ(0u, list.NodeCount());
    list.ExpectSound();
}

TEST_F(List, AWalkBegunByHeadOrTailIsNoSearch) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    list.AddNode(Make('b', 5));
    const unsigned int offset = offsetof(Node, number);
    for (int i = 0; i < 2; ++i) {
        list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kForward);
        i == 0 ? list.GetHead() : list.GetTail();
        EXPECT_EQ(0, list.m_li.searchType);
        EXPECT_EQ(nullptr, list.m_li.searchData);
        EXPECT_EQ(0u, list.m_li.searchOffset);
        EXPECT_EQ(nullptr, list.FindNext(false));
        list.GetNext();
        EXPECT_EQ(nullptr, list.FindPrev(false));
        EXPECT_NE(nullptr, list.GetCurrent()) << "the refused search leaves the cursor";
    }
}

TEST_F(List, InvalidSearchesReturnNullAndCannotGoOn) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    list.AddNode(Make('b', 5));
    const unsigned int offset = offsetof(Node, number);
    struct Row {
        void* data;
        int type;
        int direction;
    };
    const Row rows[] = {
        {tq_ListKey(5), 0, kForward},           {tq_ListKey(5), 12, kForward},
        {tq_ListKey(5), -1, kForward},          {tq_ListKey(5), LIST_TYPE_U32BITS, 2},
        {tq_ListKey(5), LIST_TYPE_U32BITS, -1}, {nullptr, LIST_TYPE_PZSTR, kForward},
        {nullptr, LIST_TYPE_ZSTR, kForward},    {nullptr, LIST_TYPE_PZISTR, kForward},
        {nullptr, LIST_TYPE_ZISTR, kBackward},  {tq_ListKey(5), LIST_TYPE_CUSTOM, kForward}, // without a function
    };
    for (const Row& row : rows) {
        ASSERT_NE(nullptr, list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offset, nullptr, kForward));
        EXPECT_EQ(nullptr, list.FindFirst(row.data, row.type, offset, nullptr, row.direction)) << row.type;
        EXPECT_EQ(nullptr, list.FindNext(false)) << row.type;
        EXPECT_EQ(nullptr, list.FindPrev(false)) << row.type;
        EXPECT_EQ('a', IdOf(list.GetCurrent())) << "the cursor stays";
        EXPECT_EQ(nullptr, list.FindFirstAndRemove(row.data, row.type, offset, nullptr, row.direction));
    }
    EXPECT_EQ(2u, list.NodeCount());
}

namespace {

struct FindRow {
    int type;
    size_t offset;
    Node node;
    void* matching;
    void* other;
};

std::vector<FindRow> FindRows() {
    return {
        {LIST_TYPE_U32BITS, offsetof(Node, number), Numbered(0xFFFFFFF0u), tq_ListKey(0xFFFFFFF0u), tq_ListKey(0xFFF0)},
        {LIST_TYPE_S32BITS, offsetof(Node, number), Numbered(static_cast<uint32_t>(-3)), tq_ListKey(0xFFFFFFFDu),
         tq_ListKey(3)},
        {LIST_TYPE_U16BITS, offsetof(Node, half), Numbered(0x1234), tq_ListKey(0xABCD1234u), tq_ListKey(0x34)},
        {LIST_TYPE_S16BITS, offsetof(Node, half), Numbered(0xFFFE), tq_ListKey(static_cast<unsigned int>(-2)),
         tq_ListKey(2)},
        {LIST_TYPE_U8BITS, offsetof(Node, byte), Numbered(0x80), tq_ListKey(0x77777780u), tq_ListKey(0x8080 + 1)},
        {LIST_TYPE_S8BITS, offsetof(Node, byte), Numbered(0xFF), tq_ListKey(static_cast<unsigned int>(-1)),
         tq_ListKey(1)},
        {LIST_TYPE_PZSTR, offsetof(Node, pszText), Named("Abc"), Text("Abc"), Text("abc")},
        {LIST_TYPE_PZSTR, offsetof(Node, pszText), Named(nullptr), Text(""), Text("x")},
        {LIST_TYPE_ZSTR, offsetof(Node, text), Named("Abc"), Text("Abc"), Text("abc")},
        {LIST_TYPE_PZISTR, offsetof(Node, pszText), Named("Abc"), Text("aBC"), Text("abcd")},
        {LIST_TYPE_PZISTR, offsetof(Node, pszText), Named(nullptr), Text(""), Text("x")},
        {LIST_TYPE_ZISTR, offsetof(Node, text), Named("Abc"), Text("aBC"), Text("ab")},
    };
}

} // namespace

TEST_F(List, FindsByEveryTypeOfKeyInBothDirections) {
    for (FindRow row : FindRows()) {
        for (int direction : {kForward, kBackward}) {
            OpenList list("list");
            list.AddNode(&row.node);
            const auto offset = static_cast<unsigned int>(row.offset);
            EXPECT_EQ(&row.node, list.FindFirst(row.matching, row.type, offset, nullptr, direction)) << row.type;
            EXPECT_EQ(nullptr, list.FindFirst(row.other, row.type, offset, nullptr, direction)) << row.type;
        }
    }
}

TEST_F(List, ANullOnEitherSideOfATextComparisonCountsAsEmpty) {
    Node nothing = Named(nullptr);
    Node word = Named("a");
    for (int type : {LIST_TYPE_PZSTR, LIST_TYPE_PZISTR}) {
        const PFN_LIST_COMPARE_DATA pfnData = tqList_CompareData[type - 1];
        EXPECT_EQ(0, pfnData(nullptr, &nothing, offsetof(Node, pszText)));
        EXPECT_NE(0, pfnData(nullptr, &word, offsetof(Node, pszText)));
        const PFN_LIST_COMPARE_NODES pfnNodes = tqList_CompareNode[type - 1];
        EXPECT_GT(0, pfnNodes(&nothing, &word, offsetof(Node, pszText)));
        EXPECT_LT(0, pfnNodes(&word, &nothing, offsetof(Node, pszText)));
    }
}

TEST_F(List, NumbersAreSoughtByTheirLow32BitsWhereverPointersAreWider) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    const uintptr_t wide = (static_cast<uintptr_t>(1) << (sizeof(void*) * 8 - 1)) >> (sizeof(void*) == 4 ? 31 : 0);
    const uintptr_t value = sizeof(void*) == 4 ? 5 : wide + 5;
    EXPECT_EQ('a', IdOf(list.FindFirst(reinterpret_cast<void*>(value), LIST_TYPE_U32BITS, offsetof(Node, number),
                                       nullptr, kForward)));
}

namespace {

struct CustomSearch {
    uint32_t number;
    std::vector<void*> userparms;
};

int FindCustom(void* data, void* pNode, void* userparm) {
    auto* const pSearch = static_cast<CustomSearch*>(data);
    pSearch->userparms.push_back(userparm);
    return static_cast<int>(static_cast<Node*>(pNode)->number - pSearch->number);
}

int MatchAll(void*, void*, void*) {
    return 0;
}

} // namespace

TEST_F(List, CustomSearchesAreGivenTheListsUserValue) {
    OpenList list("list");
    list.AddNode(Make('a', 5));
    list.AddNode(Make('b', 6));
    list.AddNode(Make('c', 5));
    int user = 0;
    list.SetUserParm(&user);
    CustomSearch search = {5, {}};
    EXPECT_EQ('c', IdOf(list.FindFirst(&search, LIST_TYPE_CUSTOM, 99, FindCustom, kBackward)));
    EXPECT_EQ('a', IdOf(list.FindNext(false)));
    EXPECT_EQ('c', IdOf(list.FindPrev(true)));
    EXPECT_EQ("ab", list.Ids());
    EXPECT_EQ(std::vector<void*>(search.userparms.size(), &user), search.userparms);
    EXPECT_EQ('a', IdOf(list.FindFirst(nullptr, LIST_TYPE_CUSTOM, 0, MatchAll, kForward))) << "a null value will do";
}

TEST_F(List, TheStepsOfASearchAreRepairedWhenTheirNodesGo) {
    OpenList list("list");
    for (const char* p = "abcde"; *p; ++p) {
        list.AddNode(Make(*p, 5));
    }
    list.FindFirst(tq_ListKey(5), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr, kForward);
    list.FindNext(false);
    list.FindNext(false); // c; steps b and d
    list.RemoveNode(Of('b'));
    list.RemoveNode(Of('d'));
    list.ExpectSound();
    EXPECT_EQ('c', IdOf(list.m_li.pPrevSearch->pNode));
    EXPECT_EQ('e', IdOf(list.FindNext(false)));
    EXPECT_EQ('-', IdOf(list.FindPrev(false))) << "the removals took the cursor, so there is no step back";
    EXPECT_EQ('-', IdOf(list.FindNext(false)));
    list.ExpectSound();
}

// Against a model

namespace {

/// What a list should do, kept as a plain vector; steps are node values, and 0 is none.
class Model {
public:
    explicit Model(unsigned int flags) : m_flags(flags) {}

    using Value = Node*;
    std::vector<Value> nodes;
    Value cursor = nullptr, next = nullptr, prev = nullptr;
    bool bBackward = false;
    int type = 0;
    uint32_t key = 0;

    size_t At(Value v) const { return static_cast<size_t>(std::find(nodes.begin(), nodes.end(), v) - nodes.begin()); }
    bool Has(Value v) const { return At(v) < nodes.size(); }
    Value Neighbour(Value v, bool bTowardsHead) const {
        const size_t i = At(v);
        return bTowardsHead ? (i > 0 ? nodes[i - 1] : nullptr) : (i + 1 < nodes.size() ? nodes[i + 1] : nullptr);
    }
    Value Ahead(Value v) const { return Neighbour(v, bBackward); }
    Value Behind(Value v) const { return Neighbour(v, !bBackward); }

    void Insert(size_t at, Value v) {
        nodes.insert(nodes.begin() + static_cast<ptrdiff_t>(at), v);
        cursor = v;
    }
    void Add(Value v, bool bFromTail) {
        if (m_flags == 0) {
            Insert(bFromTail ? 0 : nodes.size(), v);
            return;
        }
        const bool bAscending = m_flags & LIST_FLAGS_SORT_ASCENDING;
        const auto before = [bAscending](const Node* a, const Node* b) {
            return bAscending ? a->number < b->number : b->number < a->number;
        };
        const auto place = bFromTail ? std::upper_bound(nodes.begin(), nodes.end(), v, before)
                                     : std::lower_bound(nodes.begin(), nodes.end(), v, before);
        Insert(static_cast<size_t>(place - nodes.begin()), v);
    }
    void AddBeside(Value v, bool bNext) {
        if (!cursor || m_flags != 0) {
            Add(v, bBackward);
            return;
        }
        Insert(At(cursor) + (bNext != bBackward ? 1 : 0), v);
        next = Ahead(v);
        prev = Behind(v);
    }
    Value Remove(Value v) {
        if (!v || !Has(v)) {
            return nullptr;
        }
        if (next == v) {
            next = Ahead(v);
            prev = Behind(v);
        } else if (prev == v) {
            prev = Behind(v);
        }
        nodes.erase(nodes.begin() + static_cast<ptrdiff_t>(At(v)));
        cursor = nullptr;
        return v;
    }
    Value Begin(bool bFromTail) {
        prev = nullptr;
        cursor = nodes.empty() ? nullptr : bFromTail ? nodes.back() : nodes.front();
        next = nullptr;
        if (cursor) {
            bBackward = bFromTail;
            type = 0;
            next = Ahead(cursor);
        }
        return cursor;
    }
    Value Step(bool bForward) {
        Value& from = bForward ? next : prev;
        (bForward ? prev : next) = cursor;
        cursor = from;
        if (cursor) {
            from = bForward ? Ahead(cursor) : Behind(cursor);
        }
        return cursor;
    }
    Value Find(bool bForward, bool bRemove) {
        Value& from = bForward ? next : prev;
        if (!from || type == 0) {
            return nullptr;
        }
        (bForward ? prev : next) = cursor;
        Value v = from;
        while (v && v->number != key) {
            v = bForward ? Ahead(v) : Behind(v);
        }
        cursor = v;
        from = v ? (bForward ? Ahead(v) : Behind(v)) : nullptr;
        return bRemove ? Remove(v) : v;
    }
    Value FindFirst(uint32_t wanted, bool bFromTail, bool bRemove) {
        prev = nullptr;
        next = nodes.empty() ? nullptr : bFromTail ? nodes.back() : nodes.front();
        bBackward = bFromTail;
        key = wanted;
        type = LIST_TYPE_U32BITS;
        return Find(true, bRemove);
    }
    Value SetCurrent(Value v) {
        if (!Has(v)) {
            return nullptr;
        }
        cursor = v;
        next = Neighbour(v, false);
        prev = Neighbour(v, true);
        return v;
    }

private:
    unsigned int m_flags;
};

void* NodeOf(const tq_List::_TQ_LIST_ENTRY* le) {
    return le ? le->pNode : nullptr;
}

/// Runs random operations on a list and on its model.
class Duel {
public:
    Duel(unsigned int flags, unsigned int seed)
        : m_list(static_cast<int>(flags), LIST_TYPE_U32BITS, offsetof(Node, number), "duel"), m_model(flags),
          m_random(seed), m_pool(70) {
        for (size_t i = 0; i < m_pool.size(); ++i) {
            m_pool[i] = Numbered(static_cast<uint32_t>(i % 9));
        }
    }

    void Step() {
        const unsigned int operation = Below(m_bFilling ? 24 : 28);
        if (operation < 10) {
            AddOne(operation);
        } else {
            const void* const pExpected = Model(operation);
            EXPECT_EQ(pExpected, Real(operation)) << "operation " << operation;
        }
        Compare();
    }
    void Fill(bool bFilling) { m_bFilling = bFilling; }

private:
    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(m_random() % limit); }

    void AddOne(unsigned int operation) {
        Node* const pNode = &m_pool[Below(static_cast<unsigned int>(m_pool.size()))];
        if (m_model.Has(pNode)) {
            return;
        }
        switch (operation) {
        case 0:
        case 1:
            m_list.AddNode(pNode, static_cast<int>(operation));
            m_model.Add(pNode, operation == 1);
            break;
        case 2:
            m_list.AddNextNode(pNode);
            m_model.AddBeside(pNode, true);
            break;
        case 3:
            m_list.AddPrevNode(pNode);
            m_model.AddBeside(pNode, false);
            break;
        default: {
            const bool bSorted = m_list.m_li.flags != 0;
            const bool bHead = operation % 2 == 0;
            bHead ? m_list.AddToHead(pNode) : m_list.AddToTail(pNode);
            m_model.Add(pNode, bSorted ? !bHead : bHead);
        }
        }
    }

    void* Real(unsigned int operation) {
        switch (operation) {
        case 10:
            return m_list.GetHead();
        case 11:
            return m_list.GetTail();
        case 12:
        case 13:
        case 14:
            return m_list.GetNext();
        case 15:
        case 16:
            return m_list.GetPrev();
        case 17:
            return m_list.SetCurrent(m_pChosen);
        case 18:
        case 19:
            return m_list.FindFirst(tq_ListKey(m_key), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr,
                                    static_cast<int>(operation - 18));
        case 20:
            return m_list.FindNext(false);
        case 21:
            return m_list.FindPrev(false);
        case 22:
            return m_list.FindNext(true);
        case 23:
            return m_list.FindPrev(true);
        case 24:
            return m_list.RemoveHead();
        case 25:
            return m_list.RemoveTail();
        case 26:
            return m_list.RemoveNode(m_pChosen);
        default:
            return m_list.FindFirstAndRemove(tq_ListKey(m_key), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr,
                                             kForward);
        }
    }

    void* Model(unsigned int operation) {
        m_pChosen = &m_pool[Below(static_cast<unsigned int>(m_pool.size()))];
        m_key = Below(10);
        switch (operation) {
        case 10:
        case 11:
            return m_model.Begin(operation == 11);
        case 12:
        case 13:
        case 14:
            return m_model.Step(true);
        case 15:
        case 16:
            return m_model.Step(false);
        case 17:
            return m_model.SetCurrent(m_pChosen);
        case 18:
        case 19:
            return m_model.FindFirst(m_key, operation == 19, false);
        case 20:
            return m_model.Find(true, false);
        case 21:
            return m_model.Find(false, false);
        case 22:
            return m_model.Find(true, true);
        case 23:
            return m_model.Find(false, true);
        case 24:
            return m_model.nodes.empty() ? nullptr : m_model.Remove(m_model.nodes.front());
        case 25:
            return m_model.nodes.empty() ? nullptr : m_model.Remove(m_model.nodes.back());
        case 26:
            return m_model.Remove(m_pChosen);
        default:
            return m_model.FindFirst(m_key, false, true);
        }
    }

    void Compare() {
        std::vector<Node*> nodes;
        for (const auto* le = m_list.m_li.pHead; le; le = le->pNext) {
            nodes.push_back(static_cast<Node*>(le->pNode));
        }
        ASSERT_EQ(m_model.nodes, nodes);
        ASSERT_EQ(m_model.cursor, m_list.GetCurrent());
        ASSERT_EQ(m_model.next, NodeOf(m_list.m_li.pNextSearch));
        ASSERT_EQ(m_model.prev, NodeOf(m_list.m_li.pPrevSearch));
        m_list.ExpectSound();
    }

    OpenList m_list;
    class Model m_model;
    std::mt19937 m_random;
    std::vector<Node> m_pool;
    Node* m_pChosen = nullptr;
    uint32_t m_key = 0;
    bool m_bFilling = true;
};

void RunDuel(unsigned int flags) {
    for (unsigned int seed = 1; seed <= 6; ++seed) {
        Duel duel(flags, seed);
        for (int i = 0; i < 2000 && !testing::Test::HasFailure(); ++i) {
            duel.Fill((i / 200) % 2 == 0);
            duel.Step();
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

} // namespace

TEST_F(List, RandomOperationsOnAnUnsortedListFollowAModel) {
    RunDuel(LIST_FLAGS_SORT_DISABLE);
}

TEST_F(List, RandomOperationsOnAnAscendingListFollowAModel) {
    RunDuel(LIST_FLAGS_SORT_ASCENDING);
}

TEST_F(List, RandomOperationsOnADescendingListFollowAModel) {
    RunDuel(LIST_FLAGS_SORT_DESCENDING);
}

// Locks and names

TEST_F(List, FlagsSayWhetherAListHasALock) {
    OpenList with(LIST_FLAGS_LOCK_ENABLE, 0, 0, "with");
    OpenList without(LIST_FLAGS_LOCK_DISABLE, 0, 0, "without");
    OpenList plain(LIST_FLAGS_LOCK_NON_REENTRANT, 0, 0, "plain");
    EXPECT_NE(nullptr, with.m_li.pSem);
    EXPECT_EQ(nullptr, without.m_li.pSem);
    EXPECT_NE(nullptr, plain.m_li.pSem);
    EXPECT_EQ(static_cast<unsigned int>(LIST_FLAGS_LOCK_DISABLE), without.m_li.flags);
    const unsigned int held = tq_HeldLocks();
    without.Lock();
    EXPECT_EQ(held, tq_HeldLocks());
    without.Unlock();
    {
        const tq_ListLock lock(with);
        const tq_ListLock again(&with);
        const tq_ListLock none(nullptr);
        EXPECT_EQ(held + 2, tq_HeldLocks());
    }
    EXPECT_EQ(held, tq_HeldLocks());
}

TEST(ListLock, OnAPlainMutexTheFlagsSayWhetherItsHolderMayTakeItAgain) {
    {
        test::Library library("[Sem]\nUseMutexForCritSec=no\nTracking=yes\n");
        for (const int flags : {LIST_FLAGS_LOCK_ENABLE, LIST_FLAGS_LOCK_NON_REENTRANT}) {
            tq_List list(flags, 0, 0, "locked");
            const tq_ListLock lock(list);
            const std::vector<test::LockRecord> records = test::LockRecords();
            ASSERT_EQ(1u, records.size());
            EXPECT_EQ("locked", records[0].file);
            auto* const pMutex = static_cast<pthread_mutex_t*>(records[0].sem);
            const bool bAgain = pthread_mutex_trylock(pMutex) == 0;
            EXPECT_EQ(flags == LIST_FLAGS_LOCK_ENABLE, bAgain);
            if (bAgain) {
                pthread_mutex_unlock(pMutex);
            }
        }
    }
    test::Library defaults; // for whatever runs here next
}

TEST_F(List, TheLockKeepsOtherThreadsOut) {
    OpenList list("list");
    int sum = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 500; ++n) {
                const tq_ListLock lock(list);
                list.AddNode(&sum);
                ++sum;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2000, sum);
    EXPECT_EQ(2000u, list.NodeCount());
}

TEST_F(List, CountsMayBeReadWithoutTheLock) {
    OpenList list("list");
    std::atomic<bool> bDone{false};
    std::thread writer([&] {
        for (int n = 0; n < 2000; ++n) {
            const tq_ListLock lock(list);
            list.AddNode(&list);
            list.AddNode(&list);
            list.RemoveHead();
            list.RemoveHead();
        }
        bDone = true;
    });
    while (!bDone) {
        EXPECT_LE(list.NodeCount(), 2u);
        EXPECT_LE(list.MaxNodeCount(), 2u);
    }
    writer.join();
}

TEST_F(List, SetNameReplacesTheCopyOfTheName) {
    char name[] = "first";
    OpenList list(name);
    name[0] = 'X';
    EXPECT_STREQ("first", list.m_li.pName);
    list.SetName("second");
    EXPECT_STREQ("second", list.m_li.pName);
    list.SetName(nullptr);
    EXPECT_EQ(nullptr, list.m_li.pName);
    list.SetName("");
    EXPECT_STREQ("", list.m_li.pName);
    OpenList unnamed(nullptr);
    EXPECT_EQ(nullptr, unnamed.m_li.pName);
    unnamed.Lock();
    unnamed.Unlock();
}

TEST_F(List, AHeldLockIsReportedUnderTheListsName) {
    OpenList list("My list");
    OpenList unnamed(nullptr);
    const std::string longName = std::string(300, 'x') + "the last thirty-six characters of it";
    OpenList longNamed(longName.c_str());
    tq_SemEnableSemTracking();
    char* pszReport = nullptr;
    {
        const tq_ListLock lock(list);
        const tq_ListLock lockUnnamed(unnamed);
        const tq_ListLock lockLong(longNamed);
        tq_ShowSemaphores(&pszReport);
    }
    tq_SemDisableSemTracking();
    ASSERT_NE(nullptr, pszReport);
    const std::string report = pszReport;
    tq_free(pszReport);
    EXPECT_EQ(1u, test::CountOf(report, "  Owned  Mutex      0 My list\r\n")) << report;
    EXPECT_EQ(1u, test::CountOf(report, "  Owned  Mutex      0 (unknown)\r\n")) << report;
    EXPECT_EQ(1u, test::CountOf(report, "  Owned  Mutex      0 the last thirty-six characters of it\r\n")) << report;
}

TEST_F(List, AListMayBeRenamedWhileOthersWaitForItsTrackedLock) {
    OpenList list("name");
    tq_SemEnableSemTracking();
    std::atomic<bool> bDone{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!bDone) {
                const tq_ListLock lock(list);
            }
        });
    }
    for (int n = 0; n < 500; ++n) {
        list.SetName(n % 3 == 0 ? "short" : n % 3 == 1 ? "a name that is rather longer than the short one" : nullptr);
    }
    bDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    tq_SemDisableSemTracking();
}

TEST_F(List, NamesMayBeReadUnderTheRegistrysSectionWhileListsAreRenamed) {
    OpenList list("name");
    std::atomic<bool> bDone{false};
    std::atomic<unsigned int> renamed{0};
    std::thread renamer([&] {
        while (!bDone) {
            list.SetName(renamed % 2 ? "one" : "another");
            ++renamed;
        }
    });
    for (unsigned int reads = 0; reads < 1000 || renamed < 1000; ++reads) {
        const tq_CritSecLock lock(gpListOfListsCritSec);
        const std::string name = list.m_li.pName;
        EXPECT_TRUE(name == "name" || name == "one" || name == "another") << name;
    }
    bDone = true;
    renamer.join();
}

TEST_F(List, AListMayBeDestroyedByTheThreadThatJustGotItsLock) {
    for (int round = 0; round < 300; ++round) {
        auto* const pList = tq_newObject<tq_List>("handed over");
        std::atomic<bool> bReady{false};
        std::thread giver([&] {
            pList->Lock();
            bReady = true;
            pList->AddNode(pList);
            pList->Unlock(); // may still be inside when the list goes
        });
        while (!bReady) {
            std::this_thread::yield();
        }
        pList->Lock();
        EXPECT_EQ(1u, pList->NodeCount());
        pList->Unlock();
        tq_deleteObject(pList);
        giver.join();
    }
}

// The registry

TEST_F(List, ConstructorsRegisterNewestFirstWithAHandle) {
    const unsigned int lists = gpListCount;
    const unsigned int free = gpHandleList->NodeCount();
    {
        OpenList first("first");
        OpenList second(LIST_FLAGS_SORT_DISABLE, 0, 0, "second");
        OpenList third("third", 0);
        EXPECT_EQ(lists + 3, gpListCount);
        EXPECT_EQ(&third, gpListOfLists->pList);
        EXPECT_EQ(&second, gpListOfLists->pNext->pList);
        EXPECT_EQ(&first, gpListOfLists->pNext->pNext->pList);
        EXPECT_EQ(free - 3, gpHandleList->NodeCount());
        const std::set<unsigned int> handles = {RecordOf(&first).handle, RecordOf(&second).handle,
                                                RecordOf(&third).handle};
        EXPECT_EQ(3u, handles.size());
        EXPECT_EQ(0u, handles.count(0));
        EXPECT_EQ(0u, handles.count(1));
    }
    EXPECT_EQ(lists, gpListCount);
    EXPECT_EQ(free, gpHandleList->NodeCount());
}

TEST_F(List, AGivenHandleIsRegisteredAndGivenBackAtTheEnd) {
    const unsigned int handle = tq_HandleGet();
    const unsigned int free = gpHandleList->NodeCount();
    {
        OpenList list("list", static_cast<int>(handle));
        EXPECT_EQ(handle, RecordOf(&list).handle);
        EXPECT_EQ(free, gpHandleList->NodeCount());
        EXPECT_EQ(0u, list.m_li.flags);
        EXPECT_EQ(LIST_TYPE_U32BITS, list.m_li.sortType);
    }
    EXPECT_EQ(free + 1, gpHandleList->NodeCount());
    EXPECT_EQ(tq_ListKey(handle), gpHandleList->GetTail());
}

TEST_F(List, ListsLeaveTheRegistryInAnyOrder) {
    auto pFirst = std::make_unique<OpenList>("1");
    auto pSecond = std::make_unique<OpenList>("2");
    auto pThird = std::make_unique<OpenList>("3");
    const unsigned int lists = gpListCount;
    pSecond.reset();
    EXPECT_EQ(pThird.get(), gpListOfLists->pList);
    EXPECT_EQ(pFirst.get(), gpListOfLists->pNext->pList);
    pThird.reset();
    EXPECT_EQ(pFirst.get(), gpListOfLists->pList);
    pFirst.reset();
    EXPECT_EQ(lists - 3, gpListCount);
}

TEST_F(List, AListWithoutAHandleGivesNoneBack) {
    std::vector<unsigned int> handles;
    gMaxHandle = gMaxHandles; // nothing more may be created
    for (unsigned int handle; (handle = tq_HandleGet()) != 0;) {
        handles.push_back(handle);
    }
    const unsigned int inUse = gAllocatedHandles;
    {
        OpenList list("list");
        EXPECT_EQ(0u, RecordOf(&list).handle);
        EXPECT_EQ(&list, RecordOf(&list).pList);
        list.AddNode(Make('a'));
        EXPECT_EQ(1u, list.NodeCount());
    }
    EXPECT_EQ(inUse, gAllocatedHandles);
    for (unsigned int handle : handles) {
        tq_HandleRelease(handle);
    }
}

TEST_F(List, AHandleIsTakenAndGivenBackWithoutTheRegistrysSection) {
    std::unique_ptr<tq_List> list;
    const std::function<void()> steps[] = {[&list] { list = std::make_unique<tq_List>("made and unmade"); },
                                           [&list] { list.reset(); }};
    for (const std::function<void()>& step : steps) {
        std::promise<void> held;
        std::promise<void> letGo;
        std::thread holder([&held, &letGo] {
            const tq_ListLock lock(gpHandleList);
            held.set_value();
            letGo.get_future().wait();
        });
        held.get_future().wait();
        std::thread waiter(step); // for its handle, or to give it back
        EXPECT_TRUE(test::WaitUntilOthersSleep());
        std::future<void> entered = std::async(std::launch::async, [] { tq_CritSecLock lock(gpListOfListsCritSec); });
        EXPECT_EQ(std::future_status::ready, entered.wait_for(std::chrono::seconds(30)));
        letGo.set_value();
        holder.join();
        waiter.join();
    }
}

TEST(ListRegistry, ListsWorkWithoutTheLibrary) {
    ASSERT_EQ(nullptr, gpListOfListsCritSec);
    OpenList list(LIST_FLAGS_LOCK_DISABLE, 0, 0, nullptr);
    EXPECT_EQ(0u, gpListCount);
    list.Lock();
    int node = 0;
    list.AddNode(&node);
    EXPECT_EQ(&node, list.GetHead());
    EXPECT_EQ(&node, list.RemoveNode(&node));
    list.Unlock();
    tq_free(list.m_li.pListBlock); // its destructor will not
}

TEST(ListRegistry, DeletingAListAfterTheLibraryHasTerminatedFreesOnlyTheObject) {
    // The parts that are lost stay known to a leak check through these.
    static char* pszName;
    static const _LIST_BLOCK* pBlock;
    static tq_SemCritSec* pSem;
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    auto pList = std::make_unique<OpenList>("outlives");
    pList->AddNode(pList.get());
    pszName = pList->m_li.pName;
    pBlock = pList->m_li.pListBlock;
    pSem = pList->m_li.pSem;
    library.Terminate();
    EXPECT_EQ(nullptr, gpListOfListsCritSec);
    EXPECT_EQ(nullptr, gpListOfLists);
    EXPECT_EQ(0u, gpListCount);
    EXPECT_EQ(1u, pList->NodeCount()) << "it stays as it is";
    const unsigned int requested = gRequestedMemoryAllocations;
    pList.reset();
    EXPECT_EQ(requested, gRequestedMemoryAllocations);
    EXPECT_STREQ("outlives", pszName);
    EXPECT_NE(nullptr, pBlock->EntryList[0].pNode);
    pSem->Enter();
    pSem->Leave();
}

TEST(ListRegistry, DeletingAnOldListAfterANewStartFreesOnlyTheObjectToo) {
    static char* pszName;
    static const _LIST_BLOCK* pBlock;
    static tq_SemCritSec* pSem;
    const std::string ini = "[Memory]\nEnableMemoryTracking=yes\n";
    auto pFirst = std::make_unique<test::Library>(ini);
    auto pList = std::make_unique<OpenList>("outlives");
    pList->AddNode(pList.get());
    pszName = pList->m_li.pName;
    pBlock = pList->m_li.pListBlock;
    pSem = pList->m_li.pSem;
    pFirst.reset();
    test::Library second(ini);
    const unsigned int requested = gRequestedMemoryAllocations;
    const unsigned int inUse = gAllocatedHandles;
    const unsigned int lists = gpListCount;
    pList.reset();
    EXPECT_EQ(requested, gRequestedMemoryAllocations);
    EXPECT_EQ(inUse, gAllocatedHandles) << "its handle is of the first start";
    EXPECT_EQ(lists, gpListCount);
    EXPECT_STREQ("outlives", pszName);
    EXPECT_NE(nullptr, pBlock->EntryList[0].pNode);
    pSem->Enter();
    pSem->Leave();
}

TEST(ListRegistry, RenamingAListAfterTheLibraryHasTerminatedLeavesTheOldNameAlone) {
    static char* pszOld;
    static char* pszNew;
    test::Library library;
    auto pList = std::make_unique<OpenList>(LIST_FLAGS_LOCK_DISABLE, 0, 0, "old");
    pszOld = pList->m_li.pName;
    library.Terminate();
    pList->SetName("new");
    pszNew = pList->m_li.pName;
    EXPECT_STREQ("new", pszNew);
    EXPECT_STREQ("old", pszOld);
}

TEST(ListRegistry, OpeningItTwiceKeepsTheSection) {
    ASSERT_TRUE(tq_ListRegistryOpen());
    tq_SemCritSec* const pSection = gpListOfListsCritSec;
    EXPECT_TRUE(tq_ListRegistryOpen());
    EXPECT_EQ(pSection, gpListOfListsCritSec);
    tq_ListRegistryClose();
    EXPECT_EQ(nullptr, gpListOfListsCritSec);
    tq_ListRegistryClose();
}

TEST(ListRegistry, WithoutMemoryForItsSectionItDoesNotOpen) {
    const test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    tq_SemCritSec* const pSection = gpListOfListsCritSec;
    gpListOfListsCritSec = nullptr;
    gMemoryCapInBytes = 1;
    EXPECT_FALSE(tq_ListRegistryOpen());
    EXPECT_EQ(nullptr, gpListOfListsCritSec);
    gMemoryCapInBytes = 0;
    gpListOfListsCritSec = pSection;
}

TEST(ListRegistry, ListsMadeAndUnmadeWhileItOpensAndClosesMeetNoFreedSection) {
    std::atomic<bool> bDone{false};
    std::atomic<unsigned int> made{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!bDone) {
                // Without parts that a list destroyed at the wrong moment would lose.
                tq_List list(LIST_FLAGS_LOCK_DISABLE, 0, 0, nullptr);
                list.SetName(nullptr);
                ++made;
            }
        });
    }
    for (int round = 0; round < 100; ++round) {
        EXPECT_TRUE(tq_ListRegistryOpen());
        EXPECT_EQ(0u, tq_HandleInitialize());
        const unsigned int before = made;
        EXPECT_TRUE(test::WaitUntil([&] { return made > before + 3; }));
        tq_HandleTerminate();
        tq_ListRegistryClose();
    }
    bDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(nullptr, gpListOfLists);
    EXPECT_EQ(0u, gpListCount);
}

TEST_F(List, ListsMadeByManyThreadsAreAllRegistered) {
    const unsigned int lists = gpListCount;
    const unsigned int inUse = gAllocatedHandles;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                OpenList list("list");
                EXPECT_EQ(&list, RecordOf(&list).pList);
                list.AddNode(&list);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lists, gpListCount);
    EXPECT_EQ(inUse, gAllocatedHandles);
}

// Memory

TEST_F(ListMemory, AListGivesBackEverythingItTook) {
    const unsigned int before = gRequestedMemoryAllocations;
    {
        OpenList list("name");
        int node = 0;
        for (int i = 0; i < 100; ++i) {
            list.AddNode(&node);
        }
        list.SetName("another name");
        EXPECT_GT(gRequestedMemoryAllocations, before + 6 * sizeof(_LIST_BLOCK));
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST_F(ListMemory, BlocksAreChargedToOneNameForAllLists) {
    OpenList list("name");
    list.AddNode(&list);
    EXPECT_STREQ("TQOS: List Nodes",
                 GetMemoryFilename(reinterpret_cast<char*>(list.m_li.pListBlock) - gTotalMemoryHeader));
}

TEST_F(ListMemory, AListInSteadyStateAllocatesNothing) {
    OpenList list("name");
    for (int i = 0; i < 16; ++i) {
        list.AddNode(&list);
    }
    AllowBytes(0);
    for (int i = 0; i < 100; ++i) {
        list.RemoveHead();
        list.AddToTail(&list);
    }
    while (list.RemoveTail()) {
    }
    list.AddNode(&list);
    EXPECT_EQ(1u, list.NodeCount());
    list.ExpectSound();
}

TEST_F(ListMemory, AnAddWithoutMemoryIsDropped) {
    OpenList list("name");
    OpenList sorted(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_CUSTOM, 0, "sorted");
    int nodes[17];
    for (int i = 0; i < 16; ++i) {
        list.AddNode(&nodes[i]);
    }
    list.GetHead();
    AllowBytes(sizeof(_LIST_BLOCK) - 1);
    list.AddNode(&nodes[16]);
    list.AddToHead(&nodes[16]);
    list.AddToTail(&nodes[16]);
    list.AddNextNode(&nodes[16]);
    list.AddPrevNode(&nodes[16]);
    sorted.AddNode(&nodes[16]);
    EXPECT_EQ(16u, list.NodeCount());
    EXPECT_EQ(16u, list.MaxNodeCount());
    EXPECT_EQ(&nodes[0], list.GetCurrent());
    EXPECT_EQ(&nodes[1], list.GetNext());
    EXPECT_EQ(0u, sorted.NodeCount());
    list.ExpectSound();
    AllowAll();
    list.AddNode(&nodes[16]);
    EXPECT_EQ(17u, list.NodeCount());
    EXPECT_NE(std::string::npos, test::ReadFile("tqos_error.log").find("TQOS: List Nodes"))
        << "the refused block is reported under the lists' name";
}

TEST_F(ListMemory, AListForWhichThereIsNoMemoryAtAllStillWorks) {
    const unsigned int lists = gpListCount;
    const unsigned int inUse = gAllocatedHandles;
    {
        AllowBytes(0);
        OpenList list("name");
        AllowAll();
        EXPECT_EQ(nullptr, list.m_li.pName);
        EXPECT_EQ(lists, gpListCount);
        EXPECT_EQ(inUse, gAllocatedHandles);
        list.Lock();
        list.AddNode(&list);
        EXPECT_EQ(&list, list.FindFirst(&list, LIST_TYPE_CUSTOM, 0, MatchAll, kForward));
        list.Unlock();
        list.SetName("a name after all");
        EXPECT_STREQ("a name after all", list.m_li.pName);
    }
    EXPECT_EQ(lists, gpListCount);
    EXPECT_EQ(inUse, gAllocatedHandles);
}

TEST_F(ListMemory, ANameForWhichThereIsNoMemoryIsMissing) {
    const std::string longName(5000, 'n');
    const unsigned int before = gRequestedMemoryAllocations;
    {
        AllowBytes(1000);
        OpenList list(longName.c_str());
        EXPECT_EQ(nullptr, list.m_li.pName);
        EXPECT_NE(nullptr, list.m_li.pSem);
        EXPECT_EQ(&list, RecordOf(&list).pList);
        list.SetName("short");
        EXPECT_STREQ("short", list.m_li.pName);
        list.SetName(longName.c_str());
        EXPECT_EQ(nullptr, list.m_li.pName) << "the old name does not stay";
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

// tq_stristr

TEST_F(List, StristrFindsATextInAnyCase) {
    const char text[] = "The Quick brown fox";
    struct Row {
        const char* pszWanted;
        int position;
    };
    const Row rows[] = {
        {"the", 0}, {"QUICK", 4}, {"x", 18}, {"the quick BROWN fox", 0}, {"fox ", -1}, {"slow", -1}, {"", -1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.position < 0 ? nullptr : text + row.position, tq_stristr(text, row.pszWanted)) << row.pszWanted;
    }
    EXPECT_EQ(nullptr, tq_stristr(nullptr, "a"));
    EXPECT_EQ(nullptr, tq_stristr("a", nullptr));
    EXPECT_EQ(nullptr, tq_stristr("", "a"));
}

TEST_F(ListMemory, StristrWithoutMemoryFindsNothingAndKeepsNothing) {
    const unsigned int before = gRequestedMemoryAllocations;
    EXPECT_NE(nullptr, tq_stristr("abcdefgh", "CDE"));
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    AllowBytes(10); // the first copy fits, the second does not
    EXPECT_EQ(nullptr, tq_stristr("abcdefgh", "CDE"));
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    AllowBytes(0);
    EXPECT_EQ(nullptr, tq_stristr("abcdefgh", "CDE"));
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}
