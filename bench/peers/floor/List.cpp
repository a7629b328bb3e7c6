// What the machine allows of lists: doubly linked entries that point at the nodes, taken from blocks of 16.
#include <vector>

#include "ListBench.h"

namespace {

using bench::Node;

class Entries {
public:
    ~Entries() {
        for (Entry* pBlock : m_blocks) {
            delete[] pBlock;
        }
    }
    void Append(Node* pNode) { Link(pNode, m_pTail, nullptr); }
    void TakeFirst() { Unlink(m_pHead); }
    Node* Find(unsigned int key) {
        for (Entry* p = m_pHead; p; p = p->pNext) {
            if (p->pNode->key == key) {
                return p->pNode;
            }
        }
        return nullptr;
    }
    void InsertSorted(Node* pNode) {
        Entry* pBehind = m_pHead;
        while (pBehind && pBehind->pNode->key < pNode->key) {
            pBehind = pBehind->pNext;
        }
        m_pInserted = Link(pNode, pBehind ? pBehind->pPrev : m_pTail, pBehind);
    }
    void RemoveInserted(Node*) { Unlink(m_pInserted); }

private:
    struct Entry {
        Node* pNode;
        Entry* pNext;
        Entry* pPrev;
    };

    Entry* Take() {
        if (!m_pFree) {
            Entry* pBlock = new Entry[16];
            m_blocks.push_back(pBlock);
            for (int i = 15; i >= 0; --i) { // the first one is used first
                pBlock[i].pNext = m_pFree;
                m_pFree = &pBlock[i];
            }
        }
        Entry* pEntry = m_pFree;
        m_pFree = pEntry->pNext;
        return pEntry;
    }
    Entry* Link(Node* pNode, Entry* pPrev, Entry* pNext) {
        Entry* pEntry = Take();
        *pEntry = {pNode, pNext, pPrev};
        (pPrev ? pPrev->pNext : m_pHead) = pEntry;
        (pNext ? pNext->pPrev : m_pTail) = pEntry;
        return pEntry;
    }
    void Unlink(Entry* pEntry) {
        (pEntry->pPrev ? pEntry->pPrev->pNext : m_pHead) = pEntry->pNext;
        (pEntry->pNext ? pEntry->pNext->pPrev : m_pTail) = pEntry->pPrev;
        pEntry->pNext = m_pFree;
        m_pFree = pEntry;
    }

    Entry* m_pHead = nullptr;
    Entry* m_pTail = nullptr;
    Entry* m_pFree = nullptr;
    Entry* m_pInserted = nullptr;
    std::vector<Entry*> m_blocks;
};

} // namespace

PEER_BENCH_LISTS(Entries, "entries from blocks of 16")
