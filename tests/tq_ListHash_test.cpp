#include <map>
#include <memory>
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
#include "TestSupport.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace {

using test::Named;
using test::Node;
using test::Numbered;

/// A list whose buckets can be looked at.
struct OpenList : test::OpenListBase {
    using OpenListBase::OpenListBase;

    /// Every entry is in the chain, in one bucket or in the pool; every bucket is linked both ways and counted.
    void ExpectSound() const {
        std::set<const _TQ_LIST_ENTRY*> entries;
        const auto take = [&entries](const _TQ_LIST_ENTRY* le) {
            unsigned int count = 0;
            for (const _TQ_LIST_ENTRY* pPrev = nullptr; le; pPrev = le, le = le->pNext, ++count) {
                EXPECT_EQ(pPrev, le->pPrev);
                EXPECT_TRUE(entries.insert(le).second);
            }
            return count;
        };
        EXPECT_EQ(m_li.Count, take(m_li.pHead));
        unsigned int inUse = 0;
        for (unsigned int slot = 0; m_li.pHash && slot < m_li.pHash->totalHashInstances; ++slot) {
            const TQ_LIST_HASH_INSTANCE* const pHash = m_li.pHash->pHashArray[slot];
            inUse += pHash ? 1 : 0;
            for (unsigned int bucket = 0; pHash && bucket < pHash->hashRange; ++bucket) {
                EXPECT_EQ(pHash->BucketCounts()[bucket], take(pHash->pHead[bucket]));
            }
        }
        EXPECT_EQ(m_li.pHash ? m_li.pHash->hashInstancesInUse : 0, inUse);
        take(m_li.pEmpty);
        EXPECT_EQ(Blocks() * 16, entries.size());
    }

    /// The nodes of a bucket by their letters, in the order in which a walk gives them.
    std::string Bucket(unsigned int hashInstance, unsigned int bucket) {
        std::string ids;
        for (void* pNode = HashFindFirst(hashInstance, bucket); pNode; pNode = HashFindNext(hashInstance)) {
            ids += static_cast<const Node*>(pNode)->id;
        }
        return ids;
    }
};

class ListHash : public testing::Test {
protected:
    test::Library m_library{"[Memory]\nEnableMemoryTracking=yes\n"};
    std::vector<std::unique_ptr<Node>> m_nodes;
    OpenList m_list{"hashed"};

    void TearDown() override { gMemoryCapInBytes = 0; }
    Node* Make(uint32_t number, char id) {
        m_nodes.push_back(std::make_unique<Node>(Numbered(number, id)));
        return m_nodes.back().get();
    }
    unsigned int HashByNumber(int range) {
        return m_list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), range, nullptr, "by number");
    }
    static void AllowBytes(unsigned int bytes) { gMemoryCapInBytes = gRequestedMemoryAllocations + bytes; }
};

unsigned int HashOfText(const char* pszText, int type, int range) {
    tq_List list(LIST_FLAGS_LOCK_DISABLE, 0, 0, nullptr);
    Node node = Named(pszText);
    const bool bInline = type == LIST_TYPE_ZSTR || type == LIST_TYPE_ZISTR;
    return list.HashValueFromDataDefault(
        &node, type, static_cast<unsigned int>(bInline ? offsetof(Node, text) : offsetof(Node, pszText)), range);
}

unsigned int ByLetter(void* pNode, void* /*userparm*/) {
    return static_cast<unsigned int>(static_cast<const Node*>(pNode)->id - 'a');
}

unsigned int ByUserParm(void* pNode, void* userparm) {
    return userparm ? *static_cast<unsigned int*>(userparm) : ByLetter(pNode, nullptr);
}

} // namespace

// Making and unmaking

TEST_F(ListHash, TheFirstHashIsInstanceOneAndAFreedNumberIsGivenAgain) {
    EXPECT_EQ(1u, HashByNumber(16));
    EXPECT_EQ(2u, HashByNumber(8));
    m_list.HashDestroy(1);
    EXPECT_EQ(1u, m_list.m_li.pHash->hashInstancesInUse);
    EXPECT_EQ(1u, HashByNumber(4));
    EXPECT_EQ(3u, HashByNumber(4));
    EXPECT_EQ(3u, m_list.m_li.pHash->hashInstancesInUse);
}

TEST_F(ListHash, TheNinthHashGrowsTheTableToSixteen) {
    Node* const pNode = Make(35, 'a');
    m_list.AddNode(pNode);
    for (unsigned int i = 1; i <= 8; ++i) {
        EXPECT_EQ(i, HashByNumber(16));
        EXPECT_EQ(8u, m_list.m_li.pHash->totalHashInstances);
    }
    EXPECT_EQ(9u, HashByNumber(16));
    EXPECT_EQ(16u, m_list.m_li.pHash->totalHashInstances);
    EXPECT_EQ(9u, m_list.m_li.pHash->hashInstancesInUse);
    for (unsigned int i = 1; i <= 9; ++i) {
        EXPECT_EQ("a", m_list.Bucket(i, 3)) << i;
    }
    m_list.ExpectSound();
}

TEST_F(ListHash, NodesThatAreThereAlreadyAreIndexed) {
    for (char id = 'a'; id < 'u'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id - 'a'), id));
    }
    const unsigned int hash = HashByNumber(8);
    EXPECT_EQ("qia", m_list.Bucket(hash, 0)) << "added from head to tail: the newest node first";
    EXPECT_EQ("tld", m_list.Bucket(hash, 3));
    m_list.ExpectSound();
}

TEST_F(ListHash, ARangeBelowOneMakesNoHash) {
    EXPECT_EQ(0u, HashByNumber(0));
    EXPECT_EQ(0u, HashByNumber(-1));
    EXPECT_EQ(0u, HashByNumber(INT32_MIN));
    EXPECT_EQ(nullptr, m_list.m_li.pHash);
}

TEST_F(ListHash, ARangeThatNoMemoryCouldHoldMakesNoHash) {
    EXPECT_EQ(0u, HashByNumber(INT32_MAX));
    m_list.AddNode(Make(1, 'a'));
    m_list.ExpectSound();
}

TEST_F(ListHash, ARefusedAllocationMakesNoHashAndLosesNothing) {
    const unsigned int before = gRequestedMemoryAllocations;
    unsigned int refused = 0;
    for (unsigned int bytes = 0;; ++bytes) {
        AllowBytes(bytes);
        const unsigned int hash = HashByNumber(16);
        gMemoryCapInBytes = 0;
        if (hash) {
            EXPECT_EQ(1u, hash);
            break;
        }
        ++refused;
        EXPECT_EQ(0u, m_list.m_li.pHash ? m_list.m_li.pHash->hashInstancesInUse : 0);
    }
    EXPECT_LT(sizeof(_TQ_LIST_HASHING), refused);
    m_list.HashDestroy(1);
    EXPECT_EQ(before + sizeof(_TQ_LIST_HASHING) + 8 * sizeof(void*), gRequestedMemoryAllocations);
}

TEST_F(ListHash, ATableThatCannotGrowStaysAsItIs) {
    for (unsigned int i = 1; i <= 8; ++i) {
        HashByNumber(16);
    }
    AllowBytes(0);
    EXPECT_EQ(0u, HashByNumber(16));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(8u, m_list.m_li.pHash->totalHashInstances);
    EXPECT_EQ(9u, HashByNumber(16));
}

TEST_F(ListHash, DestroyingAHashGivesItsEntriesBackToTheListsPool) {
    for (char id = 'a'; id < 'k'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id), id));
    }
    const unsigned int before = gRequestedMemoryAllocations;
    const unsigned int hash = HashByNumber(4);
    const unsigned int blocks = m_list.Blocks();
    EXPECT_EQ(2u, blocks) << "ten nodes in the list and ten in the hash";
    m_list.HashDestroy(hash);
    m_list.ExpectSound();
    EXPECT_EQ(0u, m_list.m_li.pHash->hashInstancesInUse);
    EXPECT_EQ(before + sizeof(_LIST_BLOCK) + sizeof(_TQ_LIST_HASHING) + 8 * sizeof(void*), gRequestedMemoryAllocations);
    for (char id = 'k'; id < 'u'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id), id));
    }
    EXPECT_EQ(blocks, m_list.Blocks()) << "the freed entries serve the list";
}

TEST_F(ListHash, DestroyingTheListFreesItsHashes) {
    const unsigned int before = gRequestedMemoryAllocations;
    {
        OpenList list("hashed");
        for (int i = 0; i < 9; ++i) {
            list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 16, nullptr, "one of nine");
        }
        list.HashDestroy(4);
        for (char id = 'a'; id < 'k'; ++id) {
            list.AddNode(Make(static_cast<uint32_t>(id), id));
        }
        EXPECT_LT(before, gRequestedMemoryAllocations);
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST_F(ListHash, AnInstanceThatIsNotThereIsIgnored) {
    int value = 0;
    Node* const pNode = Make(1, 'a');
    for (int round = 0; round < 2; ++round) { // without any hash, then with one that is not meant
        for (const unsigned int wrong : {0u, 2u, 8u, 9u, UINT32_MAX}) {
            m_list.HashDestroy(wrong);
            m_list.HashSetName(wrong, "name");
            m_list.HashSetUserParm(wrong, &value);
            m_list.AddToHash(wrong, pNode);
            m_list.RemoveFromHash(wrong, pNode);
            EXPECT_EQ(nullptr, m_list.HashGetUserParm(wrong));
            EXPECT_EQ(nullptr, m_list.HashFindFirst(wrong, 0));
            EXPECT_EQ(nullptr, m_list.HashFindNext(wrong));
        }
        if (round == 0) {
            EXPECT_EQ(nullptr, m_list.m_li.pHash);
            EXPECT_EQ(1u, HashByNumber(16));
        }
    }
    EXPECT_EQ(1u, m_list.m_li.pHash->hashInstancesInUse);
    EXPECT_EQ(nullptr, m_list.HashGetUserParm(1));
    m_list.ExpectSound();
}

TEST_F(ListHash, NameAndUserValueBelongToTheirHash) {
    int value = 0;
    HashByNumber(4);
    m_list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 4, nullptr, nullptr);
    TQ_LIST_HASH_INSTANCE** const pHashes = m_list.m_li.pHash->pHashArray;
    EXPECT_STREQ("by number", pHashes[0]->pszName);
    EXPECT_EQ(nullptr, pHashes[1]->pszName);
    char name[] = "second";
    m_list.HashSetName(2, name);
    name[0] = 'x';
    EXPECT_STREQ("second", pHashes[1]->pszName) << "a copy";
    m_list.HashSetName(1, nullptr);
    EXPECT_EQ(nullptr, pHashes[0]->pszName);
    EXPECT_EQ(nullptr, m_list.HashGetUserParm(1));
    m_list.HashSetUserParm(1, &value);
    EXPECT_EQ(&value, m_list.HashGetUserParm(1));
    EXPECT_EQ(nullptr, m_list.HashGetUserParm(2));
}

// Keys

TEST_F(ListHash, NumbersHashByTheirBitsModuloTheRange) {
    Node node = Numbered(0xfffe8003u);
    const auto hash = [this, &node](int type, size_t offset, int range) {
        return m_list.HashValueFromDataDefault(&node, type, static_cast<unsigned int>(offset), range);
    };
    for (const int type : {LIST_TYPE_U32BITS, LIST_TYPE_S32BITS}) {
        EXPECT_EQ(0xfffe8003u % 1009, hash(type, offsetof(Node, number), 1009));
    }
    for (const int type : {LIST_TYPE_U16BITS, LIST_TYPE_S16BITS}) {
        EXPECT_EQ(0x8003u % 1009, hash(type, offsetof(Node, half), 1009));
    }
    node.byte = 0xf7;
    for (const int type : {LIST_TYPE_U8BITS, LIST_TYPE_S8BITS}) {
        EXPECT_EQ(0xf7u % 100, hash(type, offsetof(Node, byte), 100));
    }
}

TEST_F(ListHash, TextsHashByTheSumOfTheirFirstFourCharacters) {
    struct Row {
        const char* pszText;
        int type;
        unsigned int expected;
    };
    const unsigned int lower = 'a' + 'b' + 'c' + 'd';
    const Row rows[] = {
        {"abcd", LIST_TYPE_PZSTR, lower},
        {"abcdX", LIST_TYPE_PZSTR, lower},
        {"abcd", LIST_TYPE_ZSTR, lower},
        {"ab", LIST_TYPE_PZSTR, 'a' + 'b'},
        {"ab", LIST_TYPE_ZSTR, 'a' + 'b'},
        {"", LIST_TYPE_PZSTR, 0},
        {nullptr, LIST_TYPE_PZSTR, 0},
        {nullptr, LIST_TYPE_PZISTR, 0},
        {"ABCD", LIST_TYPE_PZSTR, 'A' + 'B' + 'C' + 'D'},
        {"ABCD", LIST_TYPE_PZISTR, lower},
        {"AbcDE", LIST_TYPE_ZISTR, lower},
        {"\x01", LIST_TYPE_ZISTR, 0x21},
        // A character from 128 on counts as a negative number, and the sum as an unsigned one.
        {"\xff", LIST_TYPE_PZSTR, UINT32_MAX % 100003},
        {"\xc1\x80", LIST_TYPE_ZSTR, (UINT32_MAX - 0x3f + 1 - 0x80) % 100003},
        {"\xc1", LIST_TYPE_PZISTR, (UINT32_MAX - 0x1f + 1) % 100003},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << (row.pszText ? row.pszText : "(null)") << ", type " << row.type);
        EXPECT_EQ(row.expected, HashOfText(row.pszText, row.type, 100003));
    }
}

TEST_F(ListHash, TextsThatAgreeInFourCharactersShareABucket) {
    EXPECT_EQ(HashOfText("abcdX", LIST_TYPE_PZSTR, 16), HashOfText("abcdY", LIST_TYPE_PZSTR, 16));
    EXPECT_EQ(HashOfText("abcdX", LIST_TYPE_ZSTR, 16), HashOfText("abcdYZ", LIST_TYPE_ZSTR, 16));
    EXPECT_EQ(HashOfText("ABCD", LIST_TYPE_PZISTR, 16), HashOfText("abcd", LIST_TYPE_PZISTR, 16));
    EXPECT_EQ(HashOfText("ABCD", LIST_TYPE_ZISTR, 16), HashOfText("abcd", LIST_TYPE_ZISTR, 16));
    EXPECT_NE(HashOfText("abcX", LIST_TYPE_ZSTR, 16), HashOfText("abcY", LIST_TYPE_ZSTR, 16));
}

TEST_F(ListHash, WhatHasNoDefaultHashGivesBucketZero) {
    Node node = Numbered(35);
    const unsigned int offset = offsetof(Node, number);
    EXPECT_EQ(3u, m_list.HashValueFromDataDefault(&node, LIST_TYPE_U32BITS, offset, 16));
    EXPECT_EQ(0u, m_list.HashValueFromDataDefault(&node, LIST_TYPE_U32BITS, offset, 0));
    EXPECT_EQ(0u, m_list.HashValueFromDataDefault(&node, LIST_TYPE_U32BITS, offset, -16));
    EXPECT_EQ(0u, m_list.HashValueFromDataDefault(nullptr, LIST_TYPE_U32BITS, offset, 16));
    for (const int type : {0, -1, 11, 12, INT32_MAX}) {
        EXPECT_EQ(0u, m_list.HashValueFromDataDefault(&node, type, offset, 16)) << type;
    }
}

// Lookup

TEST_F(ListHash, ALookupFindsTheNodesOfOneBucketOnly) {
    const unsigned int hash = HashByNumber(16);
    m_list.AddNode(Make(35, 'a'));
    m_list.AddNode(Make(4, 'b'));
    m_list.AddToHead(Make(3, 'c'));
    EXPECT_EQ("ca", m_list.Bucket(hash, 3)) << "the newest first, wherever it stands in the list";
    EXPECT_EQ("b", m_list.Bucket(hash, 4));
    EXPECT_EQ("", m_list.Bucket(hash, 5));
    EXPECT_EQ(nullptr, m_list.HashFindFirst(hash, 16));
    EXPECT_EQ(nullptr, m_list.HashFindFirst(hash, UINT32_MAX));
}

TEST_F(ListHash, AnEmptyBucketEndsTheWalkOfAnother) {
    const unsigned int hash = HashByNumber(16);
    m_list.AddNode(Make(3, 'a'));
    m_list.AddNode(Make(3, 'b'));
    EXPECT_NE(nullptr, m_list.HashFindFirst(hash, 3));
    EXPECT_EQ(nullptr, m_list.HashFindFirst(hash, 4));
    EXPECT_EQ(nullptr, m_list.HashFindNext(hash));
}

TEST_F(ListHash, EachHashWalksByItself) {
    const unsigned int all = HashByNumber(1);
    const unsigned int byNumber = HashByNumber(2);
    for (char id = 'a'; id < 'e'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id - 'a'), id));
    }
    EXPECT_EQ('d', static_cast<Node*>(m_list.HashFindFirst(all, 0))->id);
    EXPECT_EQ('c', static_cast<Node*>(m_list.HashFindFirst(byNumber, 0))->id);
    EXPECT_EQ('c', static_cast<Node*>(m_list.HashFindNext(all))->id);
    EXPECT_EQ('a', static_cast<Node*>(m_list.HashFindNext(byNumber))->id);
    EXPECT_EQ('b', static_cast<Node*>(m_list.HashFindNext(all))->id);
    EXPECT_EQ(nullptr, m_list.HashFindNext(byNumber));
    EXPECT_EQ('a', static_cast<Node*>(m_list.HashFindNext(all))->id);
    EXPECT_EQ(nullptr, m_list.HashFindNext(all));
}

// Adding and removing

TEST_F(ListHash, EveryWayOfAddingReachesTheHashes) {
    const unsigned int hash = HashByNumber(1);
    m_list.AddNode(Make(0, 'a'));
    m_list.AddNode(Make(0, 'b'), LIST_DIRECTION_TAIL_TO_HEAD);
    m_list.AddToHead(Make(0, 'c'));
    m_list.AddToTail(Make(0, 'd'));
    m_list.AddNextNode(Make(0, 'e'));
    m_list.AddPrevNode(Make(0, 'f'));
    EXPECT_EQ("fedcba", m_list.Bucket(hash, 0));
    OpenList sorted(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, number), "sorted");
    const unsigned int sortedHash = sorted.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 1, nullptr, nullptr);
    sorted.AddToHead(Make(2, 'x'));
    sorted.AddToTail(Make(1, 'y'));
    sorted.AddNextNode(Make(3, 'z'));
    EXPECT_EQ("zyx", sorted.Bucket(sortedHash, 0));
    m_list.ExpectSound();
    sorted.ExpectSound();
}

TEST_F(ListHash, EveryWayOfRemovingReachesTheHashes) {
    const unsigned int hash = HashByNumber(1);
    const unsigned int other = HashByNumber(16);
    std::map<char, Node*> nodes;
    for (char id = 'a'; id < 'h'; ++id) {
        nodes[id] = Make(static_cast<uint32_t>(id - 'a'), id);
        m_list.AddNode(nodes[id]);
    }
    m_list.RemoveHead();
    EXPECT_EQ("gfedcb", m_list.Bucket(hash, 0));
    EXPECT_EQ(nullptr, m_list.HashFindFirst(other, 0));
    m_list.RemoveTail();
    EXPECT_EQ("fedcb", m_list.Bucket(hash, 0));
    m_list.RemoveNode(nodes['d']);
    EXPECT_EQ("fecb", m_list.Bucket(hash, 0));
    m_list.FindFirstAndRemove(tq_ListKey(4), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr, 0);
    EXPECT_EQ("fcb", m_list.Bucket(hash, 0));
    m_list.FindFirst(tq_ListKey(1), LIST_TYPE_U32BITS, offsetof(Node, number), nullptr, 0);
    nodes['c']->number = 1;
    nodes['c']->id = 'C';
    m_list.RemoveFromHash(other, nodes['c']); // its key has changed: it is not where the hash looks for it
    m_list.FindNext(/*bRemove=*/true);
    EXPECT_EQ("fb", m_list.Bucket(hash, 0));
    m_list.ExpectSound();
}

TEST_F(ListHash, ANodeThatIsInTheListTwiceIsInItsHashesTwice) {
    const unsigned int hash = HashByNumber(16);
    Node* const pNode = Make(3, 'a');
    m_list.AddNode(pNode);
    m_list.AddNode(pNode);
    EXPECT_EQ("aa", m_list.Bucket(hash, 3));
    m_list.RemoveNode(pNode);
    EXPECT_EQ("a", m_list.Bucket(hash, 3));
    m_list.RemoveNode(pNode);
    EXPECT_EQ("", m_list.Bucket(hash, 3));
}

TEST_F(ListHash, RemovingTheNodeThatAWalkWouldGiveNextMovesTheWalkOn) {
    const unsigned int hash = HashByNumber(16);
    Node* const pA = Make(3, 'a');
    Node* const pB = Make(3, 'b');
    Node* const pC = Make(3, 'c');
    for (Node* pNode : {pA, pB, pC}) {
        m_list.AddNode(pNode);
    }
    EXPECT_EQ(pC, m_list.HashFindFirst(hash, 3));
    m_list.RemoveNode(pB);
    EXPECT_EQ(pA, m_list.HashFindNext(hash));
    EXPECT_EQ(nullptr, m_list.HashFindNext(hash));
    EXPECT_EQ(pC, m_list.HashFindFirst(hash, 3));
    m_list.RemoveNode(pA);
    EXPECT_EQ(nullptr, m_list.HashFindNext(hash));
    m_list.ExpectSound();
}

TEST_F(ListHash, AWalkMayRemoveEveryNodeItIsGiven) {
    const unsigned int hash = HashByNumber(4);
    for (char id = 'a'; id < 'z'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id), id));
    }
    for (unsigned int bucket = 0; bucket < 4; ++bucket) {
        for (void* pNode = m_list.HashFindFirst(hash, bucket); pNode; pNode = m_list.HashFindNext(hash)) {
            EXPECT_EQ(pNode, m_list.RemoveNode(pNode));
        }
    }
    EXPECT_EQ(0u, m_list.NodeCount());
    EXPECT_EQ(1u, m_list.Blocks());
    m_list.ExpectSound();
}

TEST_F(ListHash, ANullNodeIsNeitherAddedNorRemoved) {
    const unsigned int hash = HashByNumber(1);
    m_list.AddToHash(hash, nullptr);
    m_list.AddToHashes(nullptr);
    m_list.RemoveFromHash(hash, nullptr);
    m_list.RemoveFromHashes(nullptr);
    EXPECT_EQ(nullptr, m_list.HashFindFirst(hash, 0));
    EXPECT_EQ(0u, m_list.m_li.pHash->pHashArray[0]->BucketCounts()[0]);
}

TEST_F(ListHash, RemovingANodeThatIsNotInAHashChangesNothing) {
    const unsigned int hash = HashByNumber(1);
    Node* const pNode = Make(1, 'a');
    m_list.AddNode(Make(1, 'b'));
    m_list.RemoveFromHash(hash, pNode);
    EXPECT_EQ("b", m_list.Bucket(hash, 0));
}

TEST_F(ListHash, ANodeWithoutMemoryForItsHashEntryIsInTheListAlone) {
    const unsigned int hash = HashByNumber(1);
    for (char id = 'a'; id < 'h'; ++id) { // fourteen entries
        m_list.AddNode(Make(1, id));
    }
    m_list.AddToHash(hash, m_nodes[0].get()); // one is left
    AllowBytes(0);
    m_list.AddNode(Make(1, 'x'));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(8u, m_list.NodeCount());
    EXPECT_EQ("agfedcba", m_list.Bucket(hash, 0));
    EXPECT_EQ('x', static_cast<Node*>(m_list.RemoveTail())->id);
    m_list.ExpectSound();
}

TEST_F(ListHash, BlocksThatAHashStillUsesOutliveTheLastNode) {
    const unsigned int hash = HashByNumber(1);
    Node* const pOwn = Make(1, 'x');
    for (char id = 'a'; id < 'z'; ++id) {
        m_list.AddNode(Make(1, id));
    }
    m_list.AddToHash(hash, pOwn); // in the hash alone, on the newest block
    while (m_list.RemoveHead()) {
    }
    EXPECT_LT(1u, m_list.Blocks());
    EXPECT_EQ("x", m_list.Bucket(hash, 0));
    m_list.ExpectSound();
    m_list.RemoveFromHash(hash, pOwn);
    m_list.AddNode(pOwn);
    m_list.RemoveHead();
    EXPECT_EQ(1u, m_list.Blocks());
    m_list.ExpectSound();
}

TEST_F(ListHash, InSteadyStateAddingAndRemovingAllocateNothing) {
    HashByNumber(16);
    HashByNumber(4);
    for (char id = 'a'; id < 'k'; ++id) {
        m_list.AddNode(Make(static_cast<uint32_t>(id), id));
    }
    const unsigned int before = gRequestedMemoryAllocations;
    gMaxRequestedMemoryAllocations = before;
    for (int i = 0; i < 1000; ++i) {
        m_list.AddNode(m_list.RemoveHead());
    }
    EXPECT_EQ(before, gRequestedMemoryAllocations);
    EXPECT_EQ(before, gMaxRequestedMemoryAllocations);
    m_list.ExpectSound();
}

TEST_F(ListHash, AnyMixOfOperationsLeavesListAndHashesSound) {
    std::mt19937 random(1);
    std::vector<Node> nodes;
    for (unsigned int i = 0; i < 64; ++i) {
        nodes.push_back(Numbered(i * 7));
    }
    std::vector<Node*> inside;
    for (int step = 0; step < 3000; ++step) {
        Node* const pNode = &nodes[random() % nodes.size()];
        const unsigned int hash = random() % 10;
        switch (random() % 8) {
        case 0:
            if (!m_list.m_li.pHash || m_list.m_li.pHash->hashInstancesInUse < 10) {
                HashByNumber(static_cast<int>(random() % 20));
            }
            break;
        case 1:
            m_list.HashDestroy(hash);
            break;
        case 2:
            m_list.HashFindFirst(hash, random() % 20);
            break;
        case 3:
            m_list.HashFindNext(hash);
            break;
        case 4:
            while (random() % 16 && m_list.RemoveTail()) {
            }
            break;
        case 5:
            m_list.RemoveNode(pNode);
            break;
        default:
            m_list.AddNode(pNode, static_cast<int>(random() % 2));
        }
        if (step % 16 == 0) {
            m_list.ExpectSound();
        }
    }
    m_list.ExpectSound();
}

// Custom hashes

TEST_F(ListHash, ACustomHashChoosesTheBucketItself) {
    const unsigned int hash = m_list.HashCreate(LIST_TYPE_CUSTOM, 0, 3, ByLetter, "by letter");
    m_list.AddNode(Make(7, 'a'));
    m_list.AddNode(Make(7, 'c'));
    EXPECT_EQ("a", m_list.Bucket(hash, 0));
    EXPECT_EQ("", m_list.Bucket(hash, 1));
    EXPECT_EQ("c", m_list.Bucket(hash, 2));
}

TEST_F(ListHash, ANodeThatACustomHashPutsBeyondTheRangeIsLeftOutOfThatHash) {
    const unsigned int custom = m_list.HashCreate(LIST_TYPE_CUSTOM, 0, 3, ByLetter, "by letter");
    const unsigned int all = HashByNumber(1);
    Node* const pBeyond = Make(7, 'd');
    m_list.AddNode(pBeyond);
    m_list.AddNode(Make(7, '!')); // far beyond
    m_list.AddNode(Make(7, 'b'));
    EXPECT_EQ("b!d", m_list.Bucket(all, 0));
    EXPECT_EQ("b", m_list.Bucket(custom, 1));
    EXPECT_EQ(nullptr, m_list.HashFindFirst(custom, 3));
    m_list.ExpectSound();
    EXPECT_EQ(pBeyond, m_list.RemoveNode(pBeyond));
    EXPECT_EQ("b!", m_list.Bucket(all, 0));
    m_list.ExpectSound();
}

TEST_F(ListHash, ACustomFunctionOfAnotherTypeIsIgnored) {
    m_list.AddNode(Make(35, 'b'));
    const unsigned int hash = m_list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 16, ByLetter, nullptr);
    EXPECT_EQ("b", m_list.Bucket(hash, 3));
    EXPECT_EQ("", m_list.Bucket(hash, 1));
    EXPECT_EQ(nullptr, m_list.m_li.pHash->pHashArray[0]->pCustomHash);
}

TEST_F(ListHash, TypesWithoutAFunctionPutEveryNodeIntoBucketZero) {
    m_list.AddNode(Make(35, 'a'));
    m_list.AddNode(Make(36, 'b'));
    for (const int type : {LIST_TYPE_CUSTOM + 0, 0, 77, -3}) {
        const unsigned int hash = m_list.HashCreate(type, offsetof(Node, number), 16, nullptr, nullptr);
        EXPECT_EQ("ba", m_list.Bucket(hash, 0)) << type;
    }
}

TEST_F(ListHash, ACustomFunctionIsGivenTheHashsUserValue) {
    unsigned int bucket = 5;
    const unsigned int hash = m_list.HashCreate(LIST_TYPE_CUSTOM, 0, 8, ByUserParm, nullptr);
    m_list.HashSetUserParm(hash, &bucket);
    m_list.SetUserParm(nullptr); // the list's own is another
    m_list.AddNode(Make(0, 'a'));
    EXPECT_EQ("a", m_list.Bucket(hash, 5));
}

// With the library's life

TEST(ListHashLife, AListThatOutlivesTheLibraryFreesNothingOfItsHashes) {
    const test::ChildResult result = test::RunInChild([] {
        auto* const pLibrary = new test::Library("[Memory]\nEnableMemoryTracking=yes\n");
        Node node = Numbered(3);
        auto* const pList = new OpenList("outlives");
        const unsigned int hash =
            pList->HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 16, nullptr, "left alone");
        pList->AddNode(&node);
        pLibrary->Terminate();
        if (pList->HashFindFirst(hash, 3) != &node) {
            _exit(3);
        }
        pList->HashSetName(hash, nullptr);
        pList->HashDestroy(hash);
        if (pList->HashFindFirst(hash, 3)) {
            _exit(4);
        }
        delete pList;
        _exit(7);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(7, result.code) << result.standardError;
}

TEST(ListHashLife, AListWithoutTheLibraryMayHaveHashes) {
    Node node = Numbered(3);
    OpenList list(LIST_FLAGS_LOCK_DISABLE, 0, 0, nullptr);
    const unsigned int hash = list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, number), 16, nullptr, nullptr);
    list.AddNode(&node);
    EXPECT_EQ(&node, list.HashFindFirst(hash, 3));
    list.RemoveNode(&node);
    EXPECT_EQ(nullptr, list.HashFindFirst(hash, 3));
    // As documented, it frees nothing; what it took is given back here.
    tq_free(list.m_li.pHash->pHashArray[0]->pHead);
    tq_free(list.m_li.pHash->pHashArray[0]);
    tq_free(list.m_li.pHash->pHashArray);
    tq_free(list.m_li.pHash);
    tq_free(list.m_li.pListBlock);
    list.m_li.pHash = nullptr;
    list.m_li.pListBlock = nullptr;
}
