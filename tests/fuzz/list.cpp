// A list with its order, its walk, its search and its hashes, against a plain vector.
//
// Input: two numbers, the list's flags and its sort type; then operations, each a letter and its operands, which are
// bytes: a node, a type, a bucket, counted from '0'.
#include <algorithm>

#include "Fuzz.h"
#include "tq_List_p.h"

namespace {

constexpr unsigned int kNodes = 48;
constexpr unsigned int kMostEntries = 64;
constexpr int kTypes = 12; // 0, which is none, to LIST_TYPE_CUSTOM
constexpr int kMostRange = 7;

/// The keys of a node.
struct Facts {
    uint32_t number32;
    uint16_t number16;
    uint8_t number8;
    char inlineText[8];
    const char* pszText;
};

/// A node as the list sees it: keys at odd addresses.
struct __attribute__((packed)) Node {
    char gap;
    uint32_t number32;
    uint8_t number8;
    uint16_t number16;
    char inlineText[8];
    const char* pszText;
};

constexpr const char* kTexts[] = {nullptr, "", "a", "A", "abcdX", "abcdY", "ABCDx", "\xe4", "b", "zz"};
constexpr uint32_t kNumbers[] = {0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x8000, 0x7FFF, 0x80, 0x10001, 35};

Node gNodes[kNodes];
Facts gFacts[kNodes];

void MakeNodes() {
    for (unsigned int i = 0; i < kNodes; ++i) {
        Facts& facts = gFacts[i];
        const uint32_t number = kNumbers[i % 11];
        facts = {number, static_cast<uint16_t>(number), static_cast<uint8_t>(number), "", kTexts[i * 3 % 10]};
        snprintf(facts.inlineText, sizeof(facts.inlineText), "%s", kTexts[1 + i % 9]);
        gNodes[i] = {0, facts.number32, facts.number8, facts.number16, "", facts.pszText};
        memcpy(gNodes[i].inlineText, facts.inlineText, sizeof(facts.inlineText));
    }
}

unsigned int OffsetOf(int type) {
    constexpr size_t kOffsets[kTypes] = {
        offsetof(Node, number32),   offsetof(Node, number32), offsetof(Node, number32),   offsetof(Node, number16),
        offsetof(Node, number16),   offsetof(Node, number8),  offsetof(Node, number8),    offsetof(Node, pszText),
        offsetof(Node, inlineText), offsetof(Node, pszText),  offsetof(Node, inlineText), 0};
    return static_cast<unsigned int>(kOffsets[type]);
}

std::string TextOf(int node, int type) {
    const bool bInline = type == LIST_TYPE_ZSTR || type == LIST_TYPE_ZISTR;
    std::string text = bInline ? gFacts[node].inlineText : gFacts[node].pszText ? gFacts[node].pszText : "";
    if (type == LIST_TYPE_PZISTR || type == LIST_TYPE_ZISTR) {
        for (char& c : text) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        }
    }
    return text;
}

bool IsText(int type) {
    return type >= LIST_TYPE_PZSTR && type <= LIST_TYPE_ZISTR;
}

long long NumberOf(int node, int type) {
    const Facts& facts = gFacts[node];
    switch (type) {
    case LIST_TYPE_S32BITS:
        return static_cast<int32_t>(facts.number32);
    case LIST_TYPE_U16BITS:
        return facts.number16;
    case LIST_TYPE_S16BITS:
        return static_cast<int16_t>(facts.number16);
    case LIST_TYPE_U8BITS:
        return facts.number8;
    case LIST_TYPE_S8BITS:
        return static_cast<int8_t>(facts.number8);
    case LIST_TYPE_CUSTOM: // as the list of this test orders its nodes
        return facts.number16 % 16;
    default:
        return facts.number32;
    }
}

int Compare(int one, int other, int type) {
    if (IsText(type)) {
        const std::string left = TextOf(one, type);
        const std::string right = TextOf(other, type);
        return left.compare(right);
    }
    return NumberOf(one, type) < NumberOf(other, type) ? -1 : NumberOf(one, type) > NumberOf(other, type);
}

int IndexOf(const void* pNode) {
    return pNode ? static_cast<int>(static_cast<const Node*>(pNode) - gNodes) : -1;
}

/// What a custom search takes for a match.
int FindCustom(void* data, void* pNode, void*) {
    return static_cast<const Node*>(pNode)->number8 == static_cast<const Node*>(data)->number8 ? 0 : 1;
}

unsigned int BucketOfCustom(void* pNode, void*) {
    return static_cast<const Node*>(pNode)->number8 % 8; // with a small range some are in no bucket
}

class List : public tq_List {
public:
    List(int flags, int sortType) : tq_List(flags, sortType, OffsetOf(sortType), "fuzz") {}
    int CustomSort(void* pNode1, void* pNode2, void*) override {
        return Compare(IndexOf(pNode1), IndexOf(pNode2), LIST_TYPE_CUSTOM);
    }
};

struct Entry {
    int node;
    unsigned int id; ///< from 1; 0 stands for no entry
};

struct Hash {
    bool bLives = false;
    int type = 0;
    unsigned int range = 0;
    std::vector<std::vector<Entry>> buckets; ///< the newest first
    unsigned int next = 0;                   ///< the entry that the walk gives next
    unsigned int bucket = 0;                 ///< where the walk is
};

/// The list as a vector, from head to tail.
struct Model {
    int flags = 0;
    int sortType = 0;
    std::vector<Entry> entries;
    std::vector<Hash> hashes;
    unsigned int lastId = 0;
    unsigned int most = 0;
    unsigned int cursor = 0;
    unsigned int back = 0; ///< the steps that a walk or search remembers
    unsigned int next = 0;
    bool bTowardsHead = false;
    int searchType = 0; ///< 0: a walk
    int searched = 0;   ///< the node that is looked for

    bool IsSorted() const { return (flags & 3) != 0; }

    size_t PlaceOf(unsigned int id) const {
        size_t place = 0;
        while (place < entries.size() && entries[place].id != id) {
            ++place;
        }
        return place;
    }
    unsigned int IdAt(size_t place) const { return place < entries.size() ? entries[place].id : 0; }
    int NodeOf(unsigned int id) const { return id ? entries[PlaceOf(id)].node : -1; }
    /// The neighbour on one side, 0 at the end.
    unsigned int Beside(unsigned int id, bool bHead) const {
        const size_t place = PlaceOf(id);
        return bHead ? (place > 0 ? IdAt(place - 1) : 0) : IdAt(place + 1);
    }
    unsigned int Ahead(unsigned int id) const { return Beside(id, bTowardsHead); }
    unsigned int Behind(unsigned int id) const { return Beside(id, !bTowardsHead); }

    /// Where a node belongs in a sorted list.
    size_t SortedPlace(int node, bool bFromTail) const {
        const bool bAscending = (flags & LIST_FLAGS_SORT_ASCENDING) != 0;
        const auto stops = [&](const Entry& entry) {
            const int order = Compare(node, entry.node, sortType);
            return bAscending == bFromTail ? order >= 0 : order <= 0;
        };
        if (bFromTail) {
            for (size_t place = entries.size(); place > 0; --place) {
                if (stops(entries[place - 1])) {
                    return place;
                }
            }
            return 0;
        }
        return static_cast<size_t>(std::find_if(entries.begin(), entries.end(), stops) - entries.begin());
    }

    void InsertAt(size_t place, int node) {
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(place), {node, ++lastId});
        most = std::max(most, static_cast<unsigned int>(entries.size()));
        cursor = lastId;
        for (Hash& hash : hashes) {
            AddToHash(hash, node);
        }
    }

    void Add(int node, bool bAtTail, bool bFromTail) {
        InsertAt(IsSorted() ? SortedPlace(node, bFromTail) : bAtTail ? entries.size() : 0, node);
    }

    static unsigned int BucketOf(const Hash& hash, int node) {
        uint32_t value = gFacts[node].number32;
        if (hash.type == LIST_TYPE_CUSTOM) {
            return gFacts[node].number8 % 8;
        }
        if (hash.type == 0) {
            return 0;
        }
        if (hash.type == LIST_TYPE_U16BITS || hash.type == LIST_TYPE_S16BITS) {
            value = gFacts[node].number16;
        } else if (hash.type == LIST_TYPE_U8BITS || hash.type == LIST_TYPE_S8BITS) {
            value = gFacts[node].number8;
        } else if (IsText(hash.type)) {
            const bool bInline = hash.type == LIST_TYPE_ZSTR || hash.type == LIST_TYPE_ZISTR;
            const char* pszText = bInline ? gFacts[node].inlineText : gFacts[node].pszText;
            const int bit = hash.type == LIST_TYPE_PZISTR || hash.type == LIST_TYPE_ZISTR ? 0x20 : 0;
            value = 0;
            for (int i = 0; pszText && i < 4 && pszText[i]; ++i) {
                value += static_cast<uint32_t>(static_cast<signed char>(pszText[i] | bit));
            }
        }
        return value % hash.range;
    }

    void AddToHash(Hash& hash, int node) {
        const unsigned int bucket = hash.bLives ? BucketOf(hash, node) : 0;
        if (hash.bLives && bucket < hash.range) {
            hash.buckets[bucket].insert(hash.buckets[bucket].begin(), {node, ++lastId});
        }
    }

    void RemoveFromHash(Hash& hash, int node) {
        const unsigned int bucket = hash.bLives ? BucketOf(hash, node) : 0;
        if (!hash.bLives || bucket >= hash.range) {
            return;
        }
        std::vector<Entry>& chain = hash.buckets[bucket];
        const auto found = std::find_if(chain.begin(), chain.end(), [node](const Entry& e) { return e.node == node; });
        FUZZ_CHECK(found != chain.end());
        if (found->id == hash.next) {
            hash.next = found + 1 != chain.end() ? (found + 1)->id : 0;
        }
        chain.erase(found);
    }

    int Remove(unsigned int id) {
        if (id == 0) {
            return -1;
        }
        const int node = NodeOf(id);
        if (next == id) {
            next = Ahead(id);
            back = Behind(id);
        } else if (back == id) {
            back = Behind(id);
        }
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(PlaceOf(id)));
        cursor = 0;
        for (Hash& hash : hashes) {
            RemoveFromHash(hash, node);
        }
        return node;
    }

    unsigned int FirstOf(int node) const {
        for (const Entry& entry : entries) {
            if (entry.node == node) {
                return entry.id;
            }
        }
        return 0;
    }

    bool Matches(int node) const {
        if (searchType == LIST_TYPE_CUSTOM) {
            return gFacts[node].number8 == gFacts[searched].number8;
        }
        // Numbers of one width are searched for alike, whatever their sign.
        return Compare(node, searched, searchType) == 0;
    }

    /// The first match from an entry on.
    unsigned int Match(unsigned int id, bool bHead) const {
        while (id && !Matches(NodeOf(id))) {
            id = Beside(id, bHead);
        }
        return id;
    }

    int FindNext(bool bRemove) {
        if (!next || searchType == 0) {
            return -1;
        }
        back = cursor;
        cursor = Match(next, bTowardsHead);
        next = cursor ? Ahead(cursor) : 0;
        return bRemove ? Remove(cursor) : NodeOf(cursor);
    }

    int FindPrev(bool bRemove) {
        if (!back || searchType == 0) {
            return -1;
        }
        next = cursor;
        cursor = Match(back, !bTowardsHead);
        back = cursor ? Behind(cursor) : 0;
        return bRemove ? Remove(cursor) : NodeOf(cursor);
    }

    int BeginWalk(bool bHead) {
        cursor = entries.empty() ? 0 : bHead ? entries.back().id : entries.front().id;
        back = 0;
        next = 0;
        if (cursor) {
            bTowardsHead = bHead;
            searchType = 0;
            next = Ahead(cursor);
        }
        return NodeOf(cursor);
    }
};

/// The list and its model.
struct Pair {
    Pair(int flags, int sortType) : list(flags, sortType) {}
    List list;
    Model model;
};

int Operand(fuzz::Input& input, int below) {
    return static_cast<int>((input.Byte() - '0') % static_cast<unsigned int>(below));
}

int NodeOperand(fuzz::Input& input) {
    return Operand(input, static_cast<int>(kNodes));
}

void Expect(int node, const void* pFound) {
    FUZZ_EQUAL(node, IndexOf(pFound));
}

// Adding

void AddNode(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    const int direction = Operand(input, 3);
    pair.list.AddNode(&gNodes[node], direction);
    pair.model.Add(node, direction != LIST_DIRECTION_TAIL_TO_HEAD, direction == LIST_DIRECTION_TAIL_TO_HEAD);
}

void AddToHead(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    pair.list.AddToHead(&gNodes[node]);
    pair.model.Add(node, false, false);
}

void AddToTail(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    pair.list.AddToTail(&gNodes[node]);
    pair.model.Add(node, true, true);
}

void AddBeside(Model& model, int node, bool bHead) {
    if (model.cursor == 0 || model.IsSorted()) {
        model.Add(node, !model.bTowardsHead, model.bTowardsHead);
        return;
    }
    model.InsertAt(model.PlaceOf(model.cursor) + (bHead ? 0 : 1), node);
    model.next = model.Ahead(model.cursor);
    model.back = model.Behind(model.cursor);
}

void AddNextNode(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    pair.list.AddNextNode(&gNodes[node]);
    AddBeside(pair.model, node, pair.model.bTowardsHead);
}

void AddPrevNode(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    pair.list.AddPrevNode(&gNodes[node]);
    AddBeside(pair.model, node, !pair.model.bTowardsHead);
}

// Removing

void RemoveHead(Pair& pair, fuzz::Input&) {
    Expect(pair.model.Remove(pair.model.IdAt(0)), pair.list.RemoveHead());
}

void RemoveTail(Pair& pair, fuzz::Input&) {
    const std::vector<Entry>& entries = pair.model.entries;
    Expect(pair.model.Remove(entries.empty() ? 0 : entries.back().id), pair.list.RemoveTail());
}

void RemoveNode(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    Model& model = pair.model;
    const bool bCursor = model.NodeOf(model.cursor) == node;
    Expect(model.Remove(bCursor ? model.cursor : model.FirstOf(node)), pair.list.RemoveNode(&gNodes[node]));
}

// Walking and searching

void GetHead(Pair& pair, fuzz::Input&) {
    Expect(pair.model.BeginWalk(false), pair.list.GetHead());
}

void GetTail(Pair& pair, fuzz::Input&) {
    Expect(pair.model.BeginWalk(true), pair.list.GetTail());
}

void GetNext(Pair& pair, fuzz::Input&) {
    Model& model = pair.model;
    model.back = model.cursor;
    model.cursor = model.next;
    model.next = model.cursor ? model.Ahead(model.cursor) : model.next;
    Expect(model.NodeOf(model.cursor), pair.list.GetNext());
}

void GetPrev(Pair& pair, fuzz::Input&) {
    Model& model = pair.model;
    model.next = model.cursor;
    model.cursor = model.back;
    model.back = model.cursor ? model.Behind(model.cursor) : model.back;
    Expect(model.NodeOf(model.cursor), pair.list.GetPrev());
}

void SetCurrent(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    Model& model = pair.model;
    const unsigned int found = model.FirstOf(node);
    Expect(found ? node : -1, pair.list.SetCurrent(&gNodes[node]));
    if (found) {
        model.cursor = found;
        model.next = model.Beside(found, false);
        model.back = model.Beside(found, true);
    }
}

/// The search value that means nodes like this one.
void* SearchValue(int node, int type) {
    switch (type) {
    case LIST_TYPE_U16BITS:
    case LIST_TYPE_S16BITS:
        return tq_ListKey(gFacts[node].number16 | 0xABCD0000u); // the low bits count
    case LIST_TYPE_U8BITS:
    case LIST_TYPE_S8BITS:
        return tq_ListKey(gFacts[node].number8 | 0xABCDEF00u);
    case LIST_TYPE_PZSTR:
    case LIST_TYPE_PZISTR:
        return const_cast<char*>(gFacts[node].pszText);
    case LIST_TYPE_ZSTR:
    case LIST_TYPE_ZISTR:
        return gNodes[node].inlineText;
    case LIST_TYPE_CUSTOM:
        return &gNodes[node];
    default:
        return tq_ListKey(gFacts[node].number32);
    }
}

void FindFirst(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    const int type = Operand(input, kTypes);
    const int direction = Operand(input, 3);
    const bool bRemove = Operand(input, 2) == 1;
    void* const pValue = SearchValue(node, type);
    Model& model = pair.model;
    model.back = 0;
    model.next = 0;
    int expected = -1;
    if (type != 0 && direction < 2 && (!IsText(type) || pValue)) {
        model.bTowardsHead = direction == LIST_DIRECTION_TAIL_TO_HEAD;
        model.searchType = type;
        model.searched = node;
        model.next = model.entries.empty() ? 0
                     : model.bTowardsHead  ? model.entries.back().id
                                           : model.entries.front().id;
        expected = model.FindNext(bRemove);
    }
    const unsigned int offset = OffsetOf(type);
    Expect(expected, bRemove ? pair.list.FindFirstAndRemove(pValue, type, offset, FindCustom, direction)
                             : pair.list.FindFirst(pValue, type, offset, FindCustom, direction));
}

void FindNext(Pair& pair, fuzz::Input& input) {
    const bool bRemove = Operand(input, 2) == 1;
    Expect(pair.model.FindNext(bRemove), pair.list.FindNext(bRemove));
}

void FindPrev(Pair& pair, fuzz::Input& input) {
    const bool bRemove = Operand(input, 2) == 1;
    Expect(pair.model.FindPrev(bRemove), pair.list.FindPrev(bRemove));
}

// Hashes

constexpr unsigned int kMostHashes = 10; // so many need the table of hashes to grow

void HashCreate(Pair& pair, fuzz::Input& input) {
    const int type = Operand(input, kTypes);
    const int range = Operand(input, kMostRange + 1);
    std::vector<Hash>& hashes = pair.model.hashes;
    size_t slot = 0;
    while (slot < hashes.size() && hashes[slot].bLives) {
        ++slot;
    }
    if (slot == kMostHashes) {
        return;
    }
    const bool bMade = range >= 1;
    FUZZ_EQUAL(bMade ? slot + 1 : 0, pair.list.HashCreate(type, OffsetOf(type), range, BucketOfCustom, "hash"));
    if (!bMade) {
        return;
    }
    hashes.resize(std::max(hashes.size(), slot + 1));
    hashes[slot] = {true, type, static_cast<unsigned int>(range), {}, 0, 0};
    hashes[slot].buckets.resize(static_cast<size_t>(range));
    for (const Entry& entry : pair.model.entries) {
        pair.model.AddToHash(hashes[slot], entry.node);
    }
}

/// The hash of an instance number, from 1; null when there is none.
Hash* HashOf(Model& model, unsigned int instance) {
    const bool bLives = instance >= 1 && instance <= model.hashes.size() && model.hashes[instance - 1].bLives;
    return bLives ? &model.hashes[instance - 1] : nullptr;
}

void HashDestroy(Pair& pair, fuzz::Input& input) {
    const unsigned int instance = static_cast<unsigned int>(Operand(input, kMostHashes + 2));
    pair.list.HashDestroy(instance);
    if (Hash* pHash = HashOf(pair.model, instance)) {
        *pHash = {};
    }
}

void HashFindFirst(Pair& pair, fuzz::Input& input) {
    const unsigned int instance = static_cast<unsigned int>(Operand(input, kMostHashes + 2));
    const unsigned int bucket = static_cast<unsigned int>(Operand(input, kMostRange + 2));
    Hash* pHash = HashOf(pair.model, instance);
    int expected = -1;
    if (pHash && bucket < pHash->range) {
        const std::vector<Entry>& chain = pHash->buckets[bucket];
        expected = chain.empty() ? -1 : chain[0].node;
        pHash->next = chain.size() > 1 ? chain[1].id : 0;
        pHash->bucket = bucket;
    }
    Expect(expected, pair.list.HashFindFirst(instance, bucket));
}

void HashFindNext(Pair& pair, fuzz::Input& input) {
    const unsigned int instance = static_cast<unsigned int>(Operand(input, kMostHashes + 2));
    Hash* pHash = HashOf(pair.model, instance);
    int expected = -1;
    if (pHash && pHash->next) {
        const std::vector<Entry>& chain = pHash->buckets[pHash->bucket];
        size_t at = 0;
        while (chain[at].id != pHash->next) {
            ++at;
        }
        expected = chain[at].node;
        pHash->next = at + 1 < chain.size() ? chain[at + 1].id : 0;
    }
    Expect(expected, pair.list.HashFindNext(instance));
}

void HashValue(Pair& pair, fuzz::Input& input) {
    const int node = NodeOperand(input);
    Hash hash;
    hash.type = Operand(input, kTypes);
    hash.range = static_cast<unsigned int>(Operand(input, kMostRange)) + 1;
    const unsigned int expected = hash.type == LIST_TYPE_CUSTOM ? 0 : Model::BucketOf(hash, node);
    FUZZ_EQUAL(expected, pair.list.HashValueFromDataDefault(&gNodes[node], hash.type, OffsetOf(hash.type),
                                                            static_cast<int>(hash.range)));
}

struct Operation {
    char letter;
    void (*pfnDo)(Pair& pair, fuzz::Input& input);
    bool bAdds;
};

constexpr Operation kOperations[] = {
    {'a', AddNode, true},     {'h', AddToHead, true},    {'t', AddToTail, true},      {'n', AddNextNode, true},
    {'p', AddPrevNode, true}, {'H', RemoveHead, false},  {'T', RemoveTail, false},    {'r', RemoveNode, false},
    {'<', GetHead, false},    {'>', GetTail, false},     {'+', GetNext, false},       {'-', GetPrev, false},
    {'=', SetCurrent, false}, {'f', FindFirst, false},   {'F', FindNext, false},      {'P', FindPrev, false},
    {'c', HashCreate, false}, {'d', HashDestroy, false}, {'b', HashFindFirst, false}, {'B', HashFindNext, false},
    {'v', HashValue, false},
};

// What must hold

/// The place of an entry of the list, from the head; the list's length when it is none of them, which null alone may
/// be.
size_t PlaceOf(const tq_List::_LIST_INSTANCE& state, const tq_List::_TQ_LIST_ENTRY* pEntry) {
    size_t place = 0;
    for (const tq_List::_TQ_LIST_ENTRY* le = state.pHead; le && le != pEntry; le = le->pNext) {
        ++place;
    }
    FUZZ_CHECK(!pEntry || place < state.Count);
    return pEntry ? place : state.Count;
}

void CheckHashes(const Pair& pair, const tq_List::_LIST_INSTANCE& state) {
    for (size_t i = 0; i < pair.model.hashes.size(); ++i) {
        const Hash& hash = pair.model.hashes[i];
        const TQ_LIST_HASH_INSTANCE* pHash = state.pHash->pHashArray[i];
        FUZZ_EQUAL(hash.bLives, pHash != nullptr);
        for (unsigned int bucket = 0; bucket < hash.range; ++bucket) {
            const tq_List::_TQ_LIST_ENTRY* le = pHash->pHead[bucket];
            for (const Entry& entry : hash.buckets[bucket]) {
                FUZZ_CHECK(le);
                Expect(entry.node, le->pNode);
                le = le->pNext;
            }
            FUZZ_CHECK(!le);
            FUZZ_EQUAL(hash.buckets[bucket].size(), pHash->BucketCounts()[bucket]);
        }
    }
}

void Check(Pair& pair) {
    const Model& model = pair.model;
    const tq_List::_LIST_INSTANCE& state = tq_ListInside::StateOf(pair.list);
    FUZZ_EQUAL(model.entries.size(), pair.list.NodeCount());
    FUZZ_EQUAL(model.most, pair.list.MaxNodeCount());
    const tq_List::_TQ_LIST_ENTRY* pBefore = nullptr;
    const tq_List::_TQ_LIST_ENTRY* le = state.pHead;
    for (const Entry& entry : model.entries) {
        FUZZ_CHECK(le && le->pPrev == pBefore);
        Expect(entry.node, le->pNode);
        pBefore = le;
        le = le->pNext;
    }
    FUZZ_CHECK(!le && state.pTail == pBefore);
    Expect(model.NodeOf(model.cursor), pair.list.GetCurrent());
    FUZZ_EQUAL(model.PlaceOf(model.cursor), PlaceOf(state, state.pCurrent));
    FUZZ_EQUAL(model.PlaceOf(model.next), PlaceOf(state, state.pNextSearch));
    FUZZ_EQUAL(model.PlaceOf(model.back), PlaceOf(state, state.pPrevSearch));
    CheckHashes(pair, state);
}

void OneInput(fuzz::Input input) {
    MakeNodes();
    const int flags = static_cast<int>(input.Number() % 16);
    const int sortType = static_cast<int>(input.Number() % kTypes);
    Pair pair(flags, sortType);
    pair.model.flags = flags;
    pair.model.sortType = sortType;
    while (!input.IsEmpty()) {
        const char letter = static_cast<char>(input.Byte());
        for (const Operation& row : kOperations) {
            if (row.letter == letter && (!row.bAdds || pair.model.entries.size() < kMostEntries)) {
                row.pfnDo(pair, input);
                Check(pair);
            }
        }
    }
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
