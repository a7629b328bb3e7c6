#include "tq_List_p.h"

#include <stdint.h>
#include <utility>

#include "tq_Memory.h"

static_assert(sizeof(void*) != 4 || sizeof(TQ_LIST_HASH_INSTANCE) == 32, "eight words");
static_assert(sizeof(void*) != 4 || sizeof(_TQ_LIST_HASHING) == 12, "three words");

namespace {

using Entry = tq_List::_TQ_LIST_ENTRY;
using State = tq_List::_LIST_INSTANCE;

constexpr unsigned int kSlotStep = 8; ///< slots for hashes that a list begins with, and gets more of
constexpr unsigned int kNoSlot = UINT32_MAX;
constexpr unsigned int kMostBuckets = UINT32_MAX / (sizeof(Entry*) + sizeof(unsigned int));

// The default hashes

template <typename Key> unsigned int HashNumber(const void* pNode, unsigned int offset) {
    return tqList_NumberIn<Key>(pNode, offset);
}

// Deliberate: one would expect the whole text to count. Only the first four characters do, which is cheap; texts that
// agree in them share a bucket.
constexpr unsigned int kHashedCharacters = 4;

using TextOf = const char* (*)(const void* pNode, unsigned int offset);

/// `bits` are set in every character: 0x20 makes the letters of both cases the same.
template <TextOf Text, unsigned int bits> unsigned int HashText(const void* pNode, unsigned int offset) {
    const char* const pszText = Text(pNode, offset);
    unsigned int sum = 0;
    for (unsigned int i = 0; i < kHashedCharacters && pszText[i]; ++i) {
        sum += static_cast<unsigned int>(static_cast<signed char>(static_cast<unsigned char>(pszText[i]) | bits));
    }
    return sum;
}

using DefaultHash = unsigned int (*)(const void* pNode, unsigned int offset);

constexpr unsigned int kAnyCase = 0x20;

constexpr DefaultHash kDefaultHashes[] = {
    // by LIST_TYPE_ - 1
    /* LIST_TYPE_U32BITS */ HashNumber<uint32_t>,
    /* LIST_TYPE_S32BITS */ HashNumber<uint32_t>,
    /* LIST_TYPE_U16BITS */ HashNumber<uint16_t>,
    /* LIST_TYPE_S16BITS */ HashNumber<uint16_t>,
    /* LIST_TYPE_U8BITS  */ HashNumber<uint8_t>,
    /* LIST_TYPE_S8BITS  */ HashNumber<uint8_t>,
    /* LIST_TYPE_PZSTR   */ HashText<tqList_PointedText, 0>,
    /* LIST_TYPE_ZSTR    */ HashText<tqList_InlineText, 0>,
    /* LIST_TYPE_PZISTR  */ HashText<tqList_PointedText, kAnyCase>,
    /* LIST_TYPE_ZISTR   */ HashText<tqList_InlineText, kAnyCase>,
};
static_assert(sizeof(kDefaultHashes) / sizeof(kDefaultHashes[0]) == LIST_TYPE_ZISTR, "every type has its own place");

[[gnu::noinline]] unsigned int OtherBucket(const void* pNode, int type, unsigned int offset, unsigned int hashRange) {
    if (hashRange == 0 || !pNode || type < LIST_TYPE_U32BITS || type > LIST_TYPE_ZISTR) {
        return 0;
    }
    return kDefaultHashes[type - 1](pNode, offset) % hashRange;
}

inline unsigned int DefaultBucket(const void* pNode, int type, unsigned int offset, unsigned int hashRange) {
    const bool bNumber = type == LIST_TYPE_U32BITS || type == LIST_TYPE_S32BITS;
    if (bNumber && hashRange != 0 && pNode) { // most hashes have such keys
        return HashNumber<uint32_t>(pNode, offset) % hashRange;
    }
    return OtherBucket(pNode, type, offset, hashRange);
}

/// The bucket of a node; at or above the range, which only a custom function gives, the node is in none.
unsigned int BucketOf(const TQ_LIST_HASH_INSTANCE& hash, void* pNode) {
    return hash.pCustomHash ? hash.pCustomHash(pNode, hash.userparm)
                            : DefaultBucket(pNode, hash.hashType, hash.hashOffset, hash.hashRange);
}

// Buckets

/// Reports read the counts without holding the list's lock.
void SetBucketCount(const TQ_LIST_HASH_INSTANCE& hash, unsigned int bucket, unsigned int change) {
    unsigned int* const pCount = hash.BucketCounts() + bucket;
    __atomic_store_n(pCount, *pCount + change, __ATOMIC_RELAXED);
}

void PushEntry(const TQ_LIST_HASH_INSTANCE& hash, unsigned int bucket, Entry* le) {
    Entry*& pFirst = hash.pHead[bucket];
    le->pPrev = nullptr;
    le->pNext = pFirst;
    if (pFirst) {
        pFirst->pPrev = le;
    }
    pFirst = le;
    SetBucketCount(hash, bucket, 1u);
}

void UnlinkEntry(TQ_LIST_HASH_INSTANCE& hash, unsigned int bucket, const Entry* le) {
    if (hash.pNextHashSearch == le) { // a walk goes on behind it
        hash.pNextHashSearch = le->pNext;
    }
    (le->pPrev ? le->pPrev->pNext : hash.pHead[bucket]) = le->pNext;
    if (le->pNext) {
        le->pNext->pPrev = le->pPrev;
    }
    SetBucketCount(hash, bucket, 0u - 1u);
}

Entry* EntryInBucket(const TQ_LIST_HASH_INSTANCE& hash, unsigned int bucket, const void* pNode) {
    Entry* le = hash.pHead[bucket];
    while (le && le->pNode != pNode) {
        le = le->pNext;
    }
    return le;
}

// The table of a list's hashes

unsigned int SlotsOf(const State& li) {
    return li.pHash ? li.pHash->totalHashInstances : 0;
}

TQ_LIST_HASH_INSTANCE* HashOf(const State& li, unsigned int hashInstance) {
    const unsigned int slot = hashInstance - 1; // beyond all others for 0
    return slot < SlotsOf(li) ? li.pHash->pHashArray[slot] : nullptr;
}

/// Calls use(hash) for each hash of the list, in the order of their slots, most of which are empty.
template <typename Use> void ForEachHash(const State& li, Use use) {
    unsigned int left = li.pHash ? li.pHash->hashInstancesInUse : 0;
    for (unsigned int slot = 0; left != 0 && slot < SlotsOf(li); ++slot) {
        if (TQ_LIST_HASH_INSTANCE* const pHash = li.pHash->pHashArray[slot]) {
            use(*pHash);
            --left;
        }
    }
}

/// Gives the list eight slots more. False without memory, and then the table is as it was.
bool AddSlots(State& li, const tq_GatePass& pass) {
    _TQ_LIST_HASHING& hashing = *li.pHash;
    const unsigned int slots = hashing.totalHashInstances + kSlotStep;
    TQ_LIST_HASH_INSTANCE** pArray =
        static_cast<TQ_LIST_HASH_INSTANCE**>(tq_calloc(slots, sizeof(TQ_LIST_HASH_INSTANCE*)));
    if (!pArray) {
        return false;
    }
    {
        const tq_CritSecLock lock(pass ? gpListOfListsCritSec : nullptr); // for the reports
        for (unsigned int slot = 0; slot < hashing.totalHashInstances; ++slot) {
            pArray[slot] = hashing.pHashArray[slot];
        }
        std::swap(hashing.pHashArray, pArray);
        hashing.totalHashInstances = slots;
    }
    if (pass) { // else it may have come from memory that is gone, as in the list's destructor
        tq_free(pArray);
    }
    return true;
}

bool MakeHashing(State& li, const tq_GatePass& pass) {
    if (!li.pHash) {
        auto* const pHashing = static_cast<_TQ_LIST_HASHING*>(tq_calloc(1, sizeof(_TQ_LIST_HASHING)));
        const tq_CritSecLock lock(pass ? gpListOfListsCritSec : nullptr); // for the reports
        li.pHash = pHashing;
    }
    return li.pHash != nullptr;
}

/// The first free slot, made when there is none; kNoSlot without memory.
unsigned int FreeSlot(State& li, const tq_GatePass& pass) {
    if (!MakeHashing(li, pass)) {
        return kNoSlot;
    }
    for (unsigned int slot = 0; slot < SlotsOf(li); ++slot) {
        if (!li.pHash->pHashArray[slot]) {
            return slot;
        }
    }
    const unsigned int slot = SlotsOf(li);
    return AddSlots(li, pass) ? slot : kNoSlot;
}

TQ_LIST_HASH_INSTANCE* MakeHash(int type, unsigned int offset, unsigned int hashRange, PFN_CUSTOM_HASH pfnCustomHash) {
    auto* const pHash = static_cast<TQ_LIST_HASH_INSTANCE*>(tq_calloc(1, sizeof(TQ_LIST_HASH_INSTANCE)));
    if (!pHash) {
        return nullptr;
    }
    pHash->hashType = type;
    pHash->hashOffset = offset;
    pHash->hashRange = hashRange;
    pHash->pCustomHash = type == LIST_TYPE_CUSTOM ? pfnCustomHash : nullptr;
    pHash->pHead = static_cast<Entry**>(tq_calloc(hashRange, sizeof(Entry*) + sizeof(unsigned int)));
    if (!pHash->pHead) {
        tq_free(pHash);
        return nullptr;
    }
    return pHash;
}

/// Null is passed over.
void FreeHash(TQ_LIST_HASH_INSTANCE* pHash) {
    if (!pHash) {
        return;
    }
    tq_free(pHash->pHead);
    tq_free(pHash->pszName);
    tq_free(pHash);
}

/// Puts a hash into its slot, or with null takes it out: one step for the reports.
void SetSlot(const State& li, unsigned int slot, TQ_LIST_HASH_INSTANCE* pHash, const tq_GatePass& pass) {
    const tq_CritSecLock lock(pass ? gpListOfListsCritSec : nullptr);
    li.pHash->pHashArray[slot] = pHash;
    li.pHash->hashInstancesInUse += pHash ? 1u : 0u - 1u;
}

} // namespace

// Making and unmaking

unsigned int tq_List::HashCreate(int type, unsigned int offset, int hashRange, PFN_CUSTOM_HASH pfnCustomHash,
                                 const char* name) {
    if (hashRange < 1 || static_cast<unsigned int>(hashRange) > kMostBuckets) {
        return 0;
    }
    const tq_GatePass pass(gListRegistryGate);
    const unsigned int slot = FreeSlot(m_li, pass);
    TQ_LIST_HASH_INSTANCE* const pHash =
        slot == kNoSlot ? nullptr : MakeHash(type, offset, static_cast<unsigned int>(hashRange), pfnCustomHash);
    if (!pHash) {
        return 0;
    }
    if (name) {
        pHash->pszName = tq_newString(name);
    }
    SetSlot(m_li, slot, pHash, pass);
    for (const _TQ_LIST_ENTRY* le = m_li.pHead; le; le = le->pNext) {
        AddToHash(slot + 1, le->pNode);
    }
    return slot + 1;
}

void tq_List::HashDestroy(unsigned int hashInstance) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    if (!pHash) {
        return;
    }
    const tq_GatePass pass(gListRegistryGate);
    SetSlot(m_li, hashInstance - 1, nullptr, pass);
    for (unsigned int bucket = 0; bucket < pHash->hashRange; ++bucket) {
        while (_TQ_LIST_ENTRY* const le = pHash->pHead[bucket]) {
            pHash->pHead[bucket] = le->pNext;
            ReturnNewEmpty(le);
        }
    }
    if (pass) { // else it may have come from memory that is gone, as in the list's destructor
        FreeHash(pHash);
    }
}

void tq_List::DestroyHashes() {
    if (!m_li.pHash) {
        return;
    }
    for (unsigned int slot = 0; slot < SlotsOf(m_li); ++slot) {
        FreeHash(m_li.pHash->pHashArray[slot]);
    }
    tq_free(m_li.pHash->pHashArray);
    tq_free(m_li.pHash);
    m_li.pHash = nullptr;
}

// Nodes

namespace {

void AddNodeTo(TQ_LIST_HASH_INSTANCE& hash, State& li, void* pNode) {
    const unsigned int bucket = BucketOf(hash, pNode);
    Entry* const le = bucket < hash.hashRange ? tqList_TakeEmpty(li) : nullptr;
    if (!le) {
        return;
    }
    le->pNode = pNode;
    PushEntry(hash, bucket, le);
}

void RemoveNodeFrom(TQ_LIST_HASH_INSTANCE& hash, State& li, void* pNode) {
    const unsigned int bucket = BucketOf(hash, pNode);
    Entry* const le = bucket < hash.hashRange ? EntryInBucket(hash, bucket, pNode) : nullptr;
    if (!le) {
        return;
    }
    UnlinkEntry(hash, bucket, le);
    tqList_ReturnEmpty(li, le);
}

} // namespace

void tq_List::AddToHash(unsigned int hashInstance, void* pNode) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    if (pHash && pNode) {
        AddNodeTo(*pHash, m_li, pNode);
    }
}

void tq_List::RemoveFromHash(unsigned int hashInstance, void* pNode) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    if (pHash && pNode) {
        RemoveNodeFrom(*pHash, m_li, pNode);
    }
}

void tq_List::AddToHashes(void* pNode) {
    if (pNode) {
        ForEachHash(m_li, [this, pNode](TQ_LIST_HASH_INSTANCE& hash) { AddNodeTo(hash, m_li, pNode); });
    }
}

void tq_List::RemoveFromHashes(void* pNode) {
    if (pNode) {
        ForEachHash(m_li, [this, pNode](TQ_LIST_HASH_INSTANCE& hash) { RemoveNodeFrom(hash, m_li, pNode); });
    }
}

// Lookup

namespace {

/// The node at which the walk over a bucket stands; the walk goes on. Null at its end.
inline void* StepInBucket(TQ_LIST_HASH_INSTANCE& hash, const Entry* le) {
    hash.pNextHashSearch = le ? le->pNext : nullptr;
    return le ? le->pNode : nullptr;
}

} // namespace

void* tq_List::HashFindFirst(unsigned int hashInstance, unsigned int hashValue) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    return pHash && hashValue < pHash->hashRange ? StepInBucket(*pHash, pHash->pHead[hashValue]) : nullptr;
}

void* tq_List::HashFindNext(unsigned int hashInstance) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    return pHash ? StepInBucket(*pHash, pHash->pNextHashSearch) : nullptr;
}

unsigned int tq_List::HashValueFromDataDefault(void* data, int type, unsigned int offset, int hashRange) {
    return hashRange < 0 ? 0 : DefaultBucket(data, type, offset, static_cast<unsigned int>(hashRange));
}

// What belongs to a hash

void tq_List::HashSetName(unsigned int hashInstance, const char* name) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    if (!pHash) {
        return;
    }
    char* pszName = name ? tq_newString(name) : nullptr;
    const tq_GatePass pass(gListRegistryGate);
    std::swap(pHash->pszName, pszName);
    if (pass) { // else it may have come from memory that is gone, as in the list's destructor
        tq_free(pszName);
    }
}

void* tq_List::HashGetUserParm(unsigned int hashInstance) {
    const TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    return pHash ? pHash->userparm : nullptr;
}

void tq_List::HashSetUserParm(unsigned int hashInstance, void* userparm) {
    TQ_LIST_HASH_INSTANCE* const pHash = HashOf(m_li, hashInstance);
    if (pHash) {
        pHash->userparm = userparm;
    }
}
