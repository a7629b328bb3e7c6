// The C and C++ libraries themselves.
#include <cstdlib>
#include <list>
#include <unordered_map>

#include "ListBench.h"
#include "MemoryBench.h"

namespace {

using bench::Node;

class StdList {
public:
    void Append(Node* pNode) { m_list.push_back(pNode); }
    void TakeFirst() { m_list.pop_front(); }
    Node* Find(unsigned int key) {
        for (Node* pNode : m_list) {
            if (pNode->key == key) {
                return pNode;
            }
        }
        return nullptr;
    }
    void InsertSorted(Node* pNode) {
        auto place = m_list.begin();
        while (place != m_list.end() && (*place)->key < pNode->key) {
            ++place;
        }
        m_inserted = m_list.insert(place, pNode);
    }
    void RemoveInserted(Node*) { m_list.erase(m_inserted); }

private:
    std::list<Node*> m_list;
    std::list<Node*>::iterator m_inserted;
};

/// @tparam bReserved  it is told before how many there will be; otherwise it grows as they come, and again when it has
///                    been emptied
template <bool bReserved> class StdHash {
public:
    StdHash() {
        if (bReserved) {
            m_map.reserve(bench::kNodes);
        }
    }
    void Add(Node* pNode) { m_map.emplace(pNode->key, pNode); }
    Node* Find(unsigned int key) {
        const auto found = m_map.find(key);
        return found == m_map.end() ? nullptr : found->second;
    }
    void RemoveAll() {
        if (bReserved) {
            m_map.clear();
        } else {
            m_map = std::unordered_map<unsigned int, Node*>();
        }
    }

private:
    std::unordered_map<unsigned int, Node*> m_map;
};

class Heap {
public:
    static void* Allocate(unsigned int size) { return malloc(size); }
    static void Free(void* pBlock) { free(pBlock); }
};

} // namespace

PEER_BENCH_LISTS(StdList, "std::list")
PEER_BENCH_HASHES(StdHash<false>, "std::unordered_map")
PEER_BENCH_HASHES(StdHash<true>, "std::unordered_map, reserved")

PEER_BENCH("memory/plain", "malloc") {
    return bench::AllocateAndFree<Heap>(0, 1);
}

PEER_BENCH("memory/tracked", "malloc") {
    return bench::AllocateAndFree<Heap>(0, 1);
}

PEER_BENCH("memory/tracked-two-threads", "malloc") {
    return bench::AllocateAndFree<Heap>(0, 2);
}
