/// @file tq_List_p.h
/// What the library itself knows of lists: the registry of all of them, the blocks their entries come from, their hash
/// indexes and the comparisons of their keys.
///
/// Every list made while the library runs has a record in the registry until it is destroyed. The records are guarded
/// by gpListOfListsCritSec, which exists while the registry is open: made by the library's start before any list and
/// unmade after the last. Lock order: innermost but for the memory locks and those of lock tracking; nothing else is
/// taken while it is held. A list therefore takes its handle, and gives it back, outside it. Names of lists are only
/// replaced while it is held, so a report that holds it may read them; the same goes for the table of a list's hashes.
/// The counts of a list and of its buckets are stored in one step each: a report reads them without the list's lock.
#ifndef TQ_LIST_P_H
#define TQ_LIST_P_H

#include <string.h>

#include "tq_Gate_p.h"
#include "tq_List.h"
#include "tq_LockOrder_p.h"

/// Passed by whoever uses the registry.
extern tq_Gate gListRegistryGate;

/// Guards the registry; null while it is not open.
extern tq_SemCritSec* gpListOfListsCritSec;

/// Opens the registry (creates the section); false without memory. Called by the library's start.
bool tq_ListRegistryOpen();
/// Closes it: waits for whoever is using it, forgets the lists that still exist, destroys the section. Called by the
/// library's termination, with no lock held.
void tq_ListRegistryClose();

/// One list in the registry.
typedef struct _LISTOFLISTS {
    tq_List* pList;
    unsigned int handle; ///< 0 when there was none to be had
    struct _LISTOFLISTS* pNext;
} LISTOFLISTS;

extern LISTOFLISTS* gpListOfLists; ///< newest first
extern unsigned int gpListCount;

/// Entries are allocated sixteen at a time.
struct _LIST_BLOCK {
    _LIST_BLOCK* pNext; ///< the block allocated before this one
    tq_List::_TQ_LIST_ENTRY EntryList[16];
};

/// Fills a list's pool of empty entries, which has none, with a new block; false without memory.
bool tqList_AddBlock(tq_List::_LIST_INSTANCE& li);

/// Takes an entry out of the pool; null without memory.
inline tq_List::_TQ_LIST_ENTRY* tqList_TakeEmpty(tq_List::_LIST_INSTANCE& li) {
    if (!li.pEmpty && !tqList_AddBlock(li)) {
        return nullptr;
    }
    tq_List::_TQ_LIST_ENTRY* const le = li.pEmpty;
    li.pEmpty = le->pNext;
    if (li.pEmpty) {
        li.pEmpty->pPrev = nullptr;
    }
    return le;
}

/// Puts an entry, which is in no chain any more, back into the pool.
inline void tqList_ReturnEmpty(tq_List::_LIST_INSTANCE& li, tq_List::_TQ_LIST_ENTRY* le) {
    le->pNode = nullptr;
    le->pPrev = nullptr;
    le->pNext = li.pEmpty;
    if (li.pEmpty) {
        li.pEmpty->pPrev = le;
    }
    li.pEmpty = le;
}

/// One hash of a list.
typedef struct _TQ_LIST_HASH_INSTANCE {
    tq_List::_TQ_LIST_ENTRY** pHead;          ///< first entry of each bucket; in one block with the bucket counts
    unsigned int hashRange;                   ///< number of buckets
    unsigned int hashOffset;                  ///< where the key lies in a node
    int hashType;                             ///< LIST_TYPE_ of the key
    PFN_CUSTOM_HASH pCustomHash;              ///< only with LIST_TYPE_CUSTOM
    void* userparm;                           ///< handed to pCustomHash
    char* pszName;                            ///< the hash's own copy; may be null
    tq_List::_TQ_LIST_ENTRY* pNextHashSearch; ///< where the walk over a bucket goes on

    /// How many nodes are in each bucket: the numbers lie behind the last bucket's head.
    unsigned int* BucketCounts() const { return reinterpret_cast<unsigned int*>(pHead + hashRange); }
} TQ_LIST_HASH_INSTANCE;

/// The hashes of a list.
struct _TQ_LIST_HASHING {
    unsigned int hashInstancesInUse;
    unsigned int totalHashInstances;    ///< slots
    TQ_LIST_HASH_INSTANCE** pHashArray; ///< slot i is hash instance i + 1, or null
};

/// Lets the library's own reports look into a list.
struct tq_ListInside {
    static const tq_List::_LIST_INSTANCE& StateOf(const tq_List& list) { return list.m_li; }
};

/// Gives a list's lock its place among the library's locks. A null list is ignored.
inline void tq_ListPlace(const tq_List* pList, tq_LockRank rank) {
    if (pList) {
        tq_LockOrderPlace(tq_ListInside::StateOf(*pList).pSem, rank);
    }
}

/// A row of the report of all lists, one of a chain while they are sorted.
typedef struct _ListTrackerNode {
    unsigned int handle;
    unsigned int count;
    unsigned int maxcount;
    unsigned int hashcount;
    const char* name; ///< the list's own text
    struct _ListTrackerNode* pNext;
} ListTrackerNode;

/// The number at an offset of a node, which need not be aligned.
template <typename Key> Key tqList_NumberIn(const void* pNode, unsigned int offset) {
    Key key;
    memcpy(&key, static_cast<const char*>(pNode) + offset, sizeof(key));
    return key;
}

/// The text that the node points to; empty when it points to none.
inline const char* tqList_PointedText(const void* pNode, unsigned int offset) {
    const char* const pszText = tqList_NumberIn<const char*>(pNode, offset);
    return pszText ? pszText : "";
}

/// The text that stands in the node.
inline const char* tqList_InlineText(const void* pNode, unsigned int offset) {
    return static_cast<const char*>(pNode) + offset;
}

/// Compares a search value with the key at an offset of a node; 0 when they match.
typedef int (*PFN_LIST_COMPARE_DATA)(void* data, void* pNode, unsigned int offset);
/// Compares the keys at an offset of two nodes; negative, 0 or positive.
typedef int (*PFN_LIST_COMPARE_NODES)(void* pNode1, void* pNode2, unsigned int offset);

/// By LIST_TYPE_ - 1, for all types but LIST_TYPE_CUSTOM.
extern const PFN_LIST_COMPARE_DATA tqList_CompareData[10];
extern const PFN_LIST_COMPARE_NODES tqList_CompareNode[10];

#endif // TQ_LIST_P_H
