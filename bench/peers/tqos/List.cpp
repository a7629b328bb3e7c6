// This library's lists, and their hashes.
#include <cstddef>

#include "Library.h"
#include "ListBench.h"

namespace {

using bench::Node;

class Plain {
public:
    void Append(Node* pNode) { m_list.AddToTail(pNode); }
    void TakeFirst() { m_list.RemoveHead(); }
    Node* Find(unsigned int key) {
        return static_cast<Node*>(m_list.FindFirst(tq_ListKey(key), LIST_TYPE_U32BITS, offsetof(Node, key), nullptr,
                                                   LIST_DIRECTION_HEAD_TO_TAIL));
    }
    void InsertSorted(Node* pNode) { m_sorted.AddToHead(pNode); }
    void RemoveInserted(Node* pNode) { m_sorted.RemoveNode(pNode); }

private:
    Library m_library;
    tq_List m_list{"Bench"};
    tq_List m_sorted{LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, key), "Sorted"};
};

class Hash {
public:
    Hash() : m_hash(m_list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, key), kBuckets, nullptr, "Bench")) {}
    void Add(Node* pNode) { m_list.AddToTail(pNode); }
    Node* Find(unsigned int key) {
        const unsigned int bucket = m_list.HashValueFromDataDefault(&key, LIST_TYPE_U32BITS, 0, kBuckets);
        void* pNode = m_list.HashFindFirst(m_hash, bucket);
        while (pNode && static_cast<Node*>(pNode)->key != key) {
            pNode = m_list.HashFindNext(m_hash);
        }
        return static_cast<Node*>(pNode);
    }
    void RemoveAll() {
        while (m_list.RemoveHead()) {
        }
    }

private:
    static constexpr int kBuckets = 20011;
    Library m_library;
    tq_List m_list{"Bench"};
    unsigned int m_hash;
};

} // namespace

PEER_BENCH_LISTS(Plain, "tqos")
PEER_BENCH_HASHES(Hash, "tqos")
