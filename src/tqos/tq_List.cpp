#include "tq_List_p.h"

#include <mutex>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <utility>

#include "tq_Base.h"
#include "tq_Handle.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"
#include "tq_WorkingLock_p.h"

static_assert(sizeof(void*) != 4 || sizeof(tq_List::_TQ_LIST_ENTRY) == 12, "three words");
static_assert(sizeof(void*) != 4 || sizeof(tq_List::_LIST_INSTANCE) == 84, "twenty-one words");
static_assert(sizeof(void*) != 4 || sizeof(tq_List) == 88, "the virtual table, then the state");
static_assert(sizeof(void*) != 4 || sizeof(_LIST_BLOCK) == 196, "the link and sixteen entries");
static_assert(sizeof(void*) != 4 || sizeof(LISTOFLISTS) == 12, "three words");

tq_Gate gListRegistryGate;
tq_SemCritSec* gpListOfListsCritSec = nullptr;
LISTOFLISTS* gpListOfLists = nullptr; // under gpListOfListsCritSec
unsigned int gpListCount = 0;         // under gpListOfListsCritSec

namespace {

using Entry = tq_List::_TQ_LIST_ENTRY;
using State = tq_List::_LIST_INSTANCE;

/// A list that was made while the library was not running, or was still there when it terminated. What it allocated is
/// not the business of a library started later, whose memory may be set up in another way; it is told apart by this
/// record, which comes from the C library's heap.
struct Stranger {
    const tq_List* pList;
    Stranger* pNext;
};
Stranger* gpStrangers = nullptr;                    // under gStrangersMutex
tq_PlacedMutex gStrangersMutex(tq_LockRank::kLeaf); // a leaf: nothing is called while it is held

/// Held while the text of a list's name is replaced or copied. A leaf: nothing is called while it is held.
tq_PlacedMutex gNameMutex(tq_LockRank::kLeaf);

/// The name under which the memory reports show the blocks of all lists together.
const char kBlockOwner[] = "TQOS: List Nodes";

constexpr unsigned int kEntriesPerBlock = sizeof(_LIST_BLOCK::EntryList) / sizeof(Entry);

// The keys

template <typename Key> int CompareData(void* data, void* pNode, unsigned int offset) {
    return tqList_NumberIn<Key>(pNode, offset) == static_cast<Key>(reinterpret_cast<uintptr_t>(data)) ? 0 : 1;
}

template <typename Key> int CompareNodes(void* pNode1, void* pNode2, unsigned int offset) {
    const Key key1 = tqList_NumberIn<Key>(pNode1, offset);
    const Key key2 = tqList_NumberIn<Key>(pNode2, offset);
    return key1 < key2 ? -1 : key1 > key2;
}

using TextOf = const char* (*)(const void* pNode, unsigned int offset);
using CompareTexts = int (*)(const char* pszText1, const char* pszText2);

template <TextOf Text, CompareTexts Compare> int CompareTextData(void* data, void* pNode, unsigned int offset) {
    return Compare(Text(pNode, offset), data ? static_cast<const char*>(data) : "");
}

template <TextOf Text, CompareTexts Compare> int CompareTextNodes(void* pNode1, void* pNode2, unsigned int offset) {
    return Compare(Text(pNode1, offset), Text(pNode2, offset));
}

constexpr PFN_LIST_COMPARE_DATA tqList_CompareData32 = CompareData<uint32_t>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareData16 = CompareData<uint16_t>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareData8 = CompareData<uint8_t>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareDataPZSTR = CompareTextData<tqList_PointedText, strcmp>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareDataZSTR = CompareTextData<tqList_InlineText, strcmp>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareDataPZISTR = CompareTextData<tqList_PointedText, strcasecmp>;
constexpr PFN_LIST_COMPARE_DATA tqList_CompareDataZISTR = CompareTextData<tqList_InlineText, strcasecmp>;

constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesU32 = CompareNodes<uint32_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesS32 = CompareNodes<int32_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesU16 = CompareNodes<uint16_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesS16 = CompareNodes<int16_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesU8 = CompareNodes<uint8_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesS8 = CompareNodes<int8_t>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesPZSTR = CompareTextNodes<tqList_PointedText, strcmp>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesZSTR = CompareTextNodes<tqList_InlineText, strcmp>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesPZISTR = CompareTextNodes<tqList_PointedText, strcasecmp>;
constexpr PFN_LIST_COMPARE_NODES tqList_CompareNodesZISTR = CompareTextNodes<tqList_InlineText, strcasecmp>;

bool IsKnownType(int type) {
    return type >= LIST_TYPE_U32BITS && type <= LIST_TYPE_CUSTOM;
}

bool IsTextType(int type) {
    return type >= LIST_TYPE_PZSTR && type <= LIST_TYPE_ZISTR;
}

// The chain

bool IsSorted(const State& li) {
    return (li.flags & (LIST_FLAGS_SORT_ASCENDING | LIST_FLAGS_SORT_DESCENDING)) != 0;
}

bool IsDirection(int direction) {
    return direction == LIST_DIRECTION_HEAD_TO_TAIL || direction == LIST_DIRECTION_TAIL_TO_HEAD;
}

/// Reports read the counts of lists without holding their locks.
void CountAdded(State& li) {
    const unsigned int count = li.Count + 1;
    __atomic_store_n(&li.Count, count, __ATOMIC_RELAXED);
    if (count > li.maxCount) {
        __atomic_store_n(&li.maxCount, count, __ATOMIC_RELAXED);
    }
}

void CountRemoved(State& li) {
    __atomic_store_n(&li.Count, li.Count - 1, __ATOMIC_RELAXED);
}

Entry* NeighbourOf(const Entry* le, bool bTowardsHead) {
    return bTowardsHead ? le->pPrev : le->pNext;
}

/// Where a walk goes on from an entry, and where it came from.
Entry* Ahead(const State& li, const Entry* le) {
    return NeighbourOf(le, li.searchDirection == LIST_DIRECTION_TAIL_TO_HEAD);
}
Entry* Behind(const State& li, const Entry* le) {
    return NeighbourOf(le, li.searchDirection != LIST_DIRECTION_TAIL_TO_HEAD);
}

/// Puts an entry between two neighbours, either of which may be missing. The one place where a node enters a list.
void InsertBetween(State& li, Entry* le, Entry* pBefore, Entry* pAfter) {
    le->pPrev = pBefore;
    le->pNext = pAfter;
    (pBefore ? pBefore->pNext : li.pHead) = le;
    (pAfter ? pAfter->pPrev : li.pTail) = le;
    CountAdded(li);
    li.pCurrent = le;
}

void InsertAtHead(State& li, Entry* le) {
    InsertBetween(li, le, nullptr, li.pHead);
}

void InsertAtTail(State& li, Entry* le) {
    InsertBetween(li, le, li.pTail, nullptr);
}

/// Puts an entry at its place in a sorted list, looked for from one end, where `compare` gives the order of the entry's
/// node and another. An entry that belongs before (from the tail: behind) all others goes to the other end.
template <typename Compare> void InsertSorted(State& li, Entry* le, bool bFromTail, Compare compare) {
    const bool bAscending = (li.flags & LIST_FLAGS_SORT_ASCENDING) != 0;
    const bool bStopsNotAbove = bAscending != bFromTail; // the walk ends at a node that the new one does not exceed
    Entry* pNeighbour = bFromTail ? li.pTail : li.pHead;
    while (pNeighbour) {
        const int order = compare(le->pNode, pNeighbour->pNode);
        if (bStopsNotAbove ? order <= 0 : order >= 0) {
            break;
        }
        pNeighbour = NeighbourOf(pNeighbour, bFromTail);
    }
    if (bFromTail) {
        InsertBetween(li, le, pNeighbour, pNeighbour ? pNeighbour->pNext : li.pHead);
    } else {
        InsertBetween(li, le, pNeighbour ? pNeighbour->pPrev : li.pTail, pNeighbour);
    }
}

/// Leads the steps that a walk or search remembers away from an entry that is about to go.
void LeaveEntry(State& li, const Entry* le) {
    if (li.pNextSearch == le) {
        li.pNextSearch = Ahead(li, le);
        li.pPrevSearch = Behind(li, le);
    } else if (li.pPrevSearch == le) {
        li.pPrevSearch = Behind(li, le);
    }
}

void Unlink(State& li, Entry* le) {
    (le->pPrev ? le->pPrev->pNext : li.pHead) = le->pNext;
    (le->pNext ? le->pNext->pPrev : li.pTail) = le->pPrev;
}

/// The first entry, from the head, that holds a node.
Entry* EntryOf(const State& li, const void* pNode) {
    Entry* le = li.pHead;
    while (le && le->pNode != pNode) {
        le = le->pNext;
    }
    return le;
}

/// The first entry whose node `matches`, from an entry on.
template <typename Matches> Entry* FirstMatch(Entry* le, bool bTowardsHead, Matches matches) {
    while (le && !matches(le->pNode)) {
        le = NeighbourOf(le, bTowardsHead);
    }
    return le;
}

/// The first entry that the remembered search is after, from an entry on. The comparison is chosen before the walk.
Entry* FindMatch(const State& li, Entry* le, bool bTowardsHead) {
    if (li.searchType == LIST_TYPE_CUSTOM) {
        return FirstMatch(le, bTowardsHead,
                          [pfnCustom = li.pCustomSearch, data = li.searchData, userparm = li.userparm](void* pNode) {
                              return pfnCustom(data, pNode, userparm) == 0;
                          });
    }
    if (li.searchType == LIST_TYPE_U32BITS ||
        li.searchType == LIST_TYPE_S32BITS) { // in line: most lists have such keys
        return FirstMatch(le, bTowardsHead, [data = li.searchData, offset = li.searchOffset](void* pNode) {
            return CompareData<uint32_t>(data, pNode, offset) == 0;
        });
    }
    return FirstMatch(le, bTowardsHead,
                      [pfnCompare = tqList_CompareData[li.searchType - 1], data = li.searchData,
                       offset = li.searchOffset](void* pNode) { return pfnCompare(data, pNode, offset) == 0; });
}

// The pool of empty entries

/// Puts a block's entries into the empty pool, in the order of the array.
void PoolBlock(State& li, _LIST_BLOCK* pBlock) {
    for (unsigned int i = 0; i < kEntriesPerBlock; ++i) {
        Entry& entry = pBlock->EntryList[i];
        entry.pNode = nullptr;
        entry.pPrev = i > 0 ? &pBlock->EntryList[i - 1] : nullptr;
        entry.pNext = i + 1 < kEntriesPerBlock ? &pBlock->EntryList[i + 1] : nullptr;
    }
    li.pEmpty = pBlock->EntryList;
}

/// Frees blocks from the newest on, down to `pLast`, which stays; all for null.
void FreeBlocksDownTo(State& li, const _LIST_BLOCK* pLast) {
    while (li.pListBlock != pLast) {
        _LIST_BLOCK* const pBlock = li.pListBlock;
        li.pListBlock = pBlock->pNext;
        tq_free(pBlock);
    }
}

/// False while a hash holds an entry although the list is empty: one of a node whose key has changed since it was
/// added, or that was added to the hash alone. The blocks then stay, so that no chain leads into freed memory.
bool AllEntriesArePooled(const State& li) {
    if (!li.pHash) {
        return true;
    }
    unsigned int entries = 0;
    for (const _LIST_BLOCK* pBlock = li.pListBlock; pBlock; pBlock = pBlock->pNext) {
        entries += kEntriesPerBlock;
    }
    for (const Entry* le = li.pEmpty; le; le = le->pNext) {
        --entries;
    }
    return entries == 0;
}

// The name

/// As many of a name's last characters as a report of held locks could ever show.
class NameCopy {
public:
    explicit NameCopy(const State& li) {
        const std::lock_guard<tq_PlacedMutex> lock(gNameMutex);
        if (li.pName) {
            const size_t length = strlen(li.pName);
            const size_t skipped = length < sizeof(m_text) ? 0 : length + 1 - sizeof(m_text);
            memcpy(m_text, li.pName + skipped, length + 1 - skipped);
            m_pszText = m_text;
        }
    }
    NameCopy(const NameCopy&) = delete;
    NameCopy& operator=(const NameCopy&) = delete;
    const char* Text() const { return m_pszText; }

private:
    const char* m_pszText = nullptr;
    char m_text[256];
};

/// Enters the list's lock with its name as the caller's file. Another thread may be replacing the name right now, so a
/// copy is passed.
[[gnu::noinline]] void LockTracked(const State& li) {
    const NameCopy name(li);
    li.pSem->_Enter(0, name.Text());
}

// The registry

void AddStranger(const tq_List* pList) {
    Stranger* const pStranger = static_cast<Stranger*>(malloc(sizeof(Stranger)));
    if (pStranger) {
        const std::lock_guard<tq_PlacedMutex> lock(gStrangersMutex);
        *pStranger = {pList, gpStrangers};
        gpStrangers = pStranger;
    }
}

/// True, once, for a list that does not belong to the library as it runs now.
bool TakeStranger(const tq_List* pList) {
    Stranger* pStranger = nullptr;
    {
        const std::lock_guard<tq_PlacedMutex> lock(gStrangersMutex);
        Stranger** ppStranger = &gpStrangers;
        while (*ppStranger && (*ppStranger)->pList != pList) {
            ppStranger = &(*ppStranger)->pNext;
        }
        pStranger = *ppStranger;
        if (pStranger) {
            *ppStranger = pStranger->pNext;
        }
    }
    free(pStranger);
    return pStranger != nullptr;
}

/// Enters a list into the registry. Without memory for a record it stays out.
void Register(tq_List* pList, unsigned int handle) {
    const tq_GatePass pass(gListRegistryGate);
    if (!pass) {
        AddStranger(pList);
        return;
    }
    LISTOFLISTS* const pRecord = static_cast<LISTOFLISTS*>(tq_malloc(sizeof(LISTOFLISTS)));
    if (!pRecord) {
        return;
    }
    pRecord->pList = pList;
    pRecord->handle = handle ? handle : tq_HandleGet();
    const tq_CritSecLock lock(gpListOfListsCritSec);
    pRecord->pNext = gpListOfLists;
    gpListOfLists = pRecord;
    ++gpListCount;
}

/// Takes a list's record out of the registry; null when it has none.
LISTOFLISTS* TakeRecord(const tq_List* pList) {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    LISTOFLISTS** ppRecord = &gpListOfLists;
    while (*ppRecord && (*ppRecord)->pList != pList) {
        ppRecord = &(*ppRecord)->pNext;
    }
    LISTOFLISTS* const pRecord = *ppRecord;
    if (pRecord) {
        *ppRecord = pRecord->pNext;
        --gpListCount;
    }
    return pRecord;
}

/// Takes a list out of the registry and gives its handle back.
void Unregister(const tq_List* pList) {
    LISTOFLISTS* const pRecord = TakeRecord(pList);
    if (!pRecord) {
        return;
    }
    if (pRecord->handle) { // 0: the allocator had none to give
        tq_HandleRelease(pRecord->handle);
    }
    tq_free(pRecord);
}

} // namespace

const PFN_LIST_COMPARE_DATA tqList_CompareData[10] = {
    /* LIST_TYPE_U32BITS */ tqList_CompareData32,
    /* LIST_TYPE_S32BITS */ tqList_CompareData32,
    /* LIST_TYPE_U16BITS */ tqList_CompareData16,
    /* LIST_TYPE_S16BITS */ tqList_CompareData16,
    /* LIST_TYPE_U8BITS  */ tqList_CompareData8,
    /* LIST_TYPE_S8BITS  */ tqList_CompareData8,
    /* LIST_TYPE_PZSTR   */ tqList_CompareDataPZSTR,
    /* LIST_TYPE_ZSTR    */ tqList_CompareDataZSTR,
    /* LIST_TYPE_PZISTR  */ tqList_CompareDataPZISTR,
    /* LIST_TYPE_ZISTR   */ tqList_CompareDataZISTR,
};

const PFN_LIST_COMPARE_NODES tqList_CompareNode[10] = {
    /* LIST_TYPE_U32BITS */ tqList_CompareNodesU32,
    /* LIST_TYPE_S32BITS */ tqList_CompareNodesS32,
    /* LIST_TYPE_U16BITS */ tqList_CompareNodesU16,
    /* LIST_TYPE_S16BITS */ tqList_CompareNodesS16,
    /* LIST_TYPE_U8BITS  */ tqList_CompareNodesU8,
    /* LIST_TYPE_S8BITS  */ tqList_CompareNodesS8,
    /* LIST_TYPE_PZSTR   */ tqList_CompareNodesPZSTR,
    /* LIST_TYPE_ZSTR    */ tqList_CompareNodesZSTR,
    /* LIST_TYPE_PZISTR  */ tqList_CompareNodesPZISTR,
    /* LIST_TYPE_ZISTR   */ tqList_CompareNodesZISTR,
};

bool tqList_AddBlock(tq_List::_LIST_INSTANCE& li) {
    auto* const pBlock = static_cast<_LIST_BLOCK*>(tq__calloc(1, sizeof(_LIST_BLOCK), kBlockOwner, __LINE__));
    if (!pBlock) {
        return false;
    }
    pBlock->pNext = li.pListBlock;
    li.pListBlock = pBlock;
    PoolBlock(li, pBlock);
    return true;
}

// Making and unmaking

tq_List::tq_List(int flags, int sortType, unsigned int sortOffset, const char* name) {
    init(flags, sortType, sortOffset, name, 0);
}

tq_List::tq_List(const char* name, int handle) {
    init(LIST_FLAGS_SORT_DISABLE | LIST_FLAGS_LOCK_ENABLE, LIST_TYPE_U32BITS, 0, name, handle);
}

tq_List::tq_List(const char* name) {
    init(LIST_FLAGS_SORT_DISABLE | LIST_FLAGS_LOCK_ENABLE, LIST_TYPE_U32BITS, 0, name, 0);
}

void tq_List::init(int flags, int sortType, unsigned int sortOffset, const char* name, int handle) {
    m_li = _LIST_INSTANCE();
    m_li.flags = static_cast<unsigned int>(flags);
    m_li.sortType = IsSorted(m_li) && !IsKnownType(sortType) ? static_cast<int>(LIST_TYPE_U32BITS) : sortType;
    m_li.sortOffset = sortOffset;
    if (!(flags & LIST_FLAGS_LOCK_DISABLE)) {
        m_li.pSem = tq_newObject<tq_SemCritSec>(/*bRecursive=*/!(flags & LIST_FLAGS_LOCK_NON_REENTRANT));
    }
    if (name) {
        m_li.pName = tq_newString(name);
    }
    Register(this, static_cast<unsigned int>(handle));
}

tq_List::~tq_List() {
    // Held to the end: memory, into which the list's parts go back, stays up until the registry has closed.
    const tq_GatePass pass(gListRegistryGate);
    const bool bStranger = TakeStranger(this);
    if (!pass || bStranger) {
        // Deliberate: one would expect the name, the blocks, the hashes and the lock to be freed. After the library has
        // terminated they are left alone, since what they came from may be gone; they are lost. Starting the library
        // again does not bring them back.
        return;
    }
    Unregister(this);
    m_li.pHead = nullptr;
    m_li.pTail = nullptr;
    tq_free(m_li.pName);
    DestroyHashes();
    tq_deleteObject(m_li.pSem);
    FreeBlocksDownTo(m_li, nullptr);
}

int tq_List::CustomSort(void* pNode1, void* pNode2, void* /*userparm*/) {
    const intptr_t address1 = reinterpret_cast<intptr_t>(pNode1);
    const intptr_t address2 = reinterpret_cast<intptr_t>(pNode2);
    return address1 < address2 ? -1 : address1 > address2;
}

// Entries

tq_List::_TQ_LIST_ENTRY* tq_List::GetNextEmpty() {
    return tqList_TakeEmpty(m_li);
}

void tq_List::ReturnNewEmpty(_TQ_LIST_ENTRY* le) {
    tqList_ReturnEmpty(m_li, le);
}

void tq_List::ReduceListNodes() {
    if (!m_li.pListBlock || !m_li.pListBlock->pNext || !AllEntriesArePooled(m_li)) {
        return;
    }
    _LIST_BLOCK* pOldest = m_li.pListBlock;
    while (pOldest->pNext) {
        pOldest = pOldest->pNext;
    }
    FreeBlocksDownTo(m_li, pOldest);
    PoolBlock(m_li, pOldest);
}

// Adding

namespace {

/// Out of line, so that who adds without hashes does not prepare, as code for 32 bits has to, a call out of this file.
[[gnu::noinline]] void AddToHashesOf(tq_List& list, void* pNode) {
    list.AddToHashes(pNode);
}

/// The usual case, in which nothing has to be called: an unsorted list with an entry in the pool. False, with nothing
/// changed, for any other. The hashes are left to the caller.
inline bool AddAtOnce(State& li, void* pNode, bool bAtHead) {
    if (!pNode || !li.pEmpty || IsSorted(li)) {
        return false;
    }
    Entry* const le = tqList_TakeEmpty(li);
    le->pNode = pNode;
    bAtHead ? InsertAtHead(li, le) : InsertAtTail(li, le);
    return true;
}

} // namespace

void tq_List::AddNode(void* pNode, int direction) {
    _TQ_LIST_ENTRY* const le = pNode ? GetNextEmpty() : nullptr;
    if (!le) {
        return;
    }
    le->pNode = pNode;
    const bool bFromTail = direction == LIST_DIRECTION_TAIL_TO_HEAD;
    if (!IsSorted(m_li)) {
        bFromTail ? InsertAtHead(m_li, le) : InsertAtTail(m_li, le);
    } else if (m_li.sortType == LIST_TYPE_CUSTOM) {
        InsertSorted(m_li, le, bFromTail,
                     [this](void* pNew, void* pOther) { return CustomSort(pNew, pOther, m_li.userparm); });
    } else {
        InsertSorted(m_li, le, bFromTail,
                     [pfnCompare = tqList_CompareNode[m_li.sortType - 1],
                      offset = m_li.sortOffset](void* pNew, void* pOther) { return pfnCompare(pNew, pOther, offset); });
    }
    if (m_li.pHash) {
        AddToHashes(pNode);
    }
}

void tq_List::AddNode(void* pNode) {
    AddNode(pNode, LIST_DIRECTION_HEAD_TO_TAIL);
}

void tq_List::AddToHead(void* pNode) {
    if (AddAtOnce(m_li, pNode, /*bAtHead=*/true)) {
        if (m_li.pHash) {
            AddToHashesOf(*this, pNode);
        }
        return;
    }
    // An unsorted list puts at its head what is added from the tail, a sorted one looks for the place from the head.
    AddNode(pNode, IsSorted(m_li) ? LIST_DIRECTION_HEAD_TO_TAIL : LIST_DIRECTION_TAIL_TO_HEAD);
}

void tq_List::AddToTail(void* pNode) {
    if (AddAtOnce(m_li, pNode, /*bAtHead=*/false)) {
        if (m_li.pHash) {
            AddToHashesOf(*this, pNode);
        }
        return;
    }
    AddNode(pNode, IsSorted(m_li) ? LIST_DIRECTION_TAIL_TO_HEAD : LIST_DIRECTION_HEAD_TO_TAIL);
}

void tq_List::AddNextNode(void* pNode) {
    AddBesideCursor(pNode, /*bTowardsHead=*/m_li.searchDirection == LIST_DIRECTION_TAIL_TO_HEAD);
}

void tq_List::AddPrevNode(void* pNode) {
    AddBesideCursor(pNode, /*bTowardsHead=*/m_li.searchDirection != LIST_DIRECTION_TAIL_TO_HEAD);
}

void tq_List::AddBesideCursor(void* pNode, bool bTowardsHead) {
    _TQ_LIST_ENTRY* const pCursor = m_li.pCurrent;
    if (!pCursor || IsSorted(m_li)) {
        AddNode(pNode, m_li.searchDirection);
        return;
    }
    _TQ_LIST_ENTRY* const le = pNode ? GetNextEmpty() : nullptr;
    if (!le) {
        return;
    }
    le->pNode = pNode;
    if (bTowardsHead) {
        InsertBetween(m_li, le, pCursor->pPrev, pCursor);
    } else {
        InsertBetween(m_li, le, pCursor, pCursor->pNext);
    }
    m_li.pNextSearch = Ahead(m_li, le);
    m_li.pPrevSearch = Behind(m_li, le);
    if (m_li.pHash) {
        AddToHashes(pNode);
    }
}

// Removing

void tq_List::LocalListRemoveNode(_TQ_LIST_ENTRY* le) {
    LeaveEntry(m_li, le);
    Unlink(m_li, le);
    if (m_li.pHash) {
        RemoveFromHashes(le->pNode);
    }
    CountRemoved(m_li);
    m_li.pCurrent = nullptr;
    tqList_ReturnEmpty(m_li, le);
    if (m_li.Count == 0) {
        ReduceListNodes();
    }
}

[[gnu::noinline]] void* tq_List::RemoveEntry(_TQ_LIST_ENTRY* le) {
    if (!le) {
        return nullptr;
    }
    void* const pNode = le->pNode;
    LocalListRemoveNode(le);
    return pNode;
}

namespace {

/// The usual case, in which nothing has to be called: a list without hashes that has another node, and an entry which
/// no walk or search remembers. Null, with nothing changed, for any other.
inline void* TakeAtOnce(State& li, Entry* le) {
    if (li.Count < 2 || li.pHash || li.pNextSearch == le || li.pPrevSearch == le) {
        return nullptr;
    }
    void* const pNode = le->pNode;
    Unlink(li, le);
    CountRemoved(li);
    li.pCurrent = nullptr;
    tqList_ReturnEmpty(li, le);
    return pNode;
}

} // namespace

void* tq_List::RemoveHead() {
    void* const pNode = TakeAtOnce(m_li, m_li.pHead);
    return pNode ? pNode : RemoveEntry(m_li.pHead);
}

void* tq_List::RemoveTail() {
    void* const pNode = TakeAtOnce(m_li, m_li.pTail);
    return pNode ? pNode : RemoveEntry(m_li.pTail);
}

void* tq_List::RemoveNode(void* pNodeToRemove) {
    if (!pNodeToRemove) {
        return nullptr;
    }
    const bool bIsCursor = m_li.pCurrent && m_li.pCurrent->pNode == pNodeToRemove;
    return RemoveEntry(bIsCursor ? m_li.pCurrent : EntryOf(m_li, pNodeToRemove));
}

// Walking

void* tq_List::BeginWalk(_TQ_LIST_ENTRY* pFirst, int direction) {
    m_li.pCurrent = pFirst;
    m_li.pPrevSearch = nullptr;
    m_li.pNextSearch = nullptr;
    if (!pFirst) {
        return nullptr;
    }
    m_li.searchDirection = direction;
    m_li.searchData = nullptr;
    m_li.searchType = 0;
    m_li.searchOffset = 0;
    m_li.pNextSearch = Ahead(m_li, pFirst);
    return pFirst->pNode;
}

void* tq_List::GetHead() {
    return BeginWalk(m_li.pHead, LIST_DIRECTION_HEAD_TO_TAIL);
}

void* tq_List::GetTail() {
    return BeginWalk(m_li.pTail, LIST_DIRECTION_TAIL_TO_HEAD);
}

void* tq_List::GetNext() {
    m_li.pPrevSearch = m_li.pCurrent;
    m_li.pCurrent = m_li.pNextSearch;
    if (!m_li.pCurrent) {
        return nullptr;
    }
    m_li.pNextSearch = Ahead(m_li, m_li.pCurrent);
    return m_li.pCurrent->pNode;
}

void* tq_List::GetPrev() {
    m_li.pNextSearch = m_li.pCurrent;
    m_li.pCurrent = m_li.pPrevSearch;
    if (!m_li.pCurrent) {
        return nullptr;
    }
    m_li.pPrevSearch = Behind(m_li, m_li.pCurrent);
    return m_li.pCurrent->pNode;
}

void* tq_List::GetCurrent() {
    return m_li.pCurrent ? m_li.pCurrent->pNode : nullptr;
}

void* tq_List::SetCurrent(void* pNode) {
    _TQ_LIST_ENTRY* const le = EntryOf(m_li, pNode);
    if (!le) {
        return nullptr;
    }
    // Deliberate: on a walk from tail to head one would expect the steps the other way round. The next step is always
    // the neighbour towards the tail; from there the walk goes on in its own direction.
    m_li.pCurrent = le;
    m_li.pNextSearch = le->pNext;
    m_li.pPrevSearch = le->pPrev;
    return pNode;
}

// Searching

void* tq_List::FindFirst(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                         int direction) {
    return FindFirstInternal(data, searchType, searchOffset, pCustomSearch, direction, /*bRemove=*/false);
}

void* tq_List::FindFirstAndRemove(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                                  int direction) {
    return FindFirstInternal(data, searchType, searchOffset, pCustomSearch, direction, /*bRemove=*/true);
}

void* tq_List::FindFirstInternal(void* data, int searchType, unsigned int searchOffset, PFN_CUSTOM_FIND pCustomSearch,
                                 int direction, bool bRemove) {
    m_li.pPrevSearch = nullptr;
    m_li.pNextSearch = nullptr;
    if (!IsKnownType(searchType) || !IsDirection(direction) || (IsTextType(searchType) && !data) ||
        (searchType == LIST_TYPE_CUSTOM && !pCustomSearch)) {
        return nullptr;
    }
    m_li.pNextSearch = direction == LIST_DIRECTION_HEAD_TO_TAIL ? m_li.pHead : m_li.pTail;
    m_li.searchDirection = direction;
    m_li.searchData = data;
    m_li.searchType = searchType;
    m_li.searchOffset = searchOffset;
    m_li.pCustomSearch = pCustomSearch;
    return FindNext(bRemove);
}

void* tq_List::FindNext(bool bRemove) {
    if (!m_li.pNextSearch || !IsKnownType(m_li.searchType)) {
        return nullptr;
    }
    // Deliberate: a search just begun would be expected to have no step back. It is wherever the cursor stood before.
    m_li.pPrevSearch = m_li.pCurrent;
    m_li.pCurrent = FindMatch(m_li, m_li.pNextSearch, m_li.searchDirection == LIST_DIRECTION_TAIL_TO_HEAD);
    m_li.pNextSearch = m_li.pCurrent ? Ahead(m_li, m_li.pCurrent) : nullptr;
    return bRemove ? RemoveEntry(m_li.pCurrent) : GetCurrent();
}

void* tq_List::FindPrev(bool bRemove) {
    if (!m_li.pPrevSearch || !IsKnownType(m_li.searchType)) {
        return nullptr;
    }
    m_li.pNextSearch = m_li.pCurrent;
    m_li.pCurrent = FindMatch(m_li, m_li.pPrevSearch, m_li.searchDirection != LIST_DIRECTION_TAIL_TO_HEAD);
    m_li.pPrevSearch = m_li.pCurrent ? Behind(m_li, m_li.pCurrent) : nullptr;
    return bRemove ? RemoveEntry(m_li.pCurrent) : GetCurrent();
}

// The rest

void tq_List::Lock() {
    if (!m_li.pSem) {
        return;
    }
    if (gbTrackSems.load(std::memory_order_relaxed)) {
        LockTracked(m_li);
    } else {
        m_li.pSem->_Enter(0, nullptr); // the name is wanted by lock tracking alone
    }
}

void tq_List::Unlock() {
    if (m_li.pSem) {
        m_li.pSem->Leave();
    }
}

void tq_List::SetName(const char* name) {
    char* pszName = name ? tq_newString(name) : nullptr;
    const tq_GatePass pass(gListRegistryGate);
    {
        const tq_CritSecLock registryLock(pass ? gpListOfListsCritSec : nullptr); // for the reports
        const std::lock_guard<tq_PlacedMutex> nameLock(gNameMutex);               // for LockTracked()
        std::swap(m_li.pName, pszName);
    }
    if (pass) { // else it may have come from memory that is gone, as in the destructor
        tq_free(pszName);
    }
}

void* tq_List::GetUserParm() {
    return m_li.userparm;
}

void tq_List::SetUserParm(void* userparm) {
    m_li.userparm = userparm;
}

unsigned int tq_List::NodeCount() {
    return __atomic_load_n(&m_li.Count, __ATOMIC_RELAXED);
}

unsigned int tq_List::MaxNodeCount() {
    return __atomic_load_n(&m_li.maxCount, __ATOMIC_RELAXED);
}

char* tq_stristr(const char* string, const char* strSearch) {
    if (!string || !*string || !strSearch || !*strSearch) {
        return nullptr;
    }
    char* const pszText = tq_newString(string);
    char* const pszWanted = tq_newString(strSearch);
    const char* pszMatch = nullptr;
    size_t position = 0;
    if (pszText && pszWanted) {
        pszMatch = strstr(_strlwr(pszText), _strlwr(pszWanted));
        position = pszMatch ? static_cast<size_t>(pszMatch - pszText) : 0;
    }
    tq_free(pszText);
    tq_free(pszWanted);
    return pszMatch ? const_cast<char*>(string) + position : nullptr;
}

// Start and stop

bool tq_ListRegistryOpen() {
    if (!gpListOfListsCritSec) {
        gpListOfListsCritSec = tq_IfItLocks(tq_newObject<tq_SemCritSec>(/*bRecursive=*/true));
        tq_LockOrderPlace(gpListOfListsCritSec, tq_LockRank::kListOfLists);
    }
    if (!gpListOfListsCritSec) {
        return false;
    }
    gListRegistryGate.Open();
    return true;
}

void tq_ListRegistryClose() {
    gListRegistryGate.Close();
    while (gpListOfLists) { // lists that outlive the library stay as they are
        LISTOFLISTS* const pRecord = gpListOfLists;
        gpListOfLists = pRecord->pNext;
        AddStranger(pRecord->pList);
        tq_free(pRecord);
    }
    gpListCount = 0;
    tq_deleteObject(gpListOfListsCritSec);
    gpListOfListsCritSec = nullptr;
}
