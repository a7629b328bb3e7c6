#include <algorithm>
#include <optional>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_List_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"

static_assert(sizeof(void*) != 4 || sizeof(ListTrackerNode) == 24, "six words");

namespace {

using State = tq_List::_LIST_INSTANCE;

constexpr unsigned int kRowsPerResponse = 20;
constexpr unsigned int kBytesPerRow = 200; // a report grows when a name is longer
constexpr unsigned int kBytesAround = 400;

constexpr char kHeading[] = "Index Handle  Node Count/Max   Hash List Name";
constexpr char kRule[] = "----- ------ ----------------- ---- -----------------------------------";
constexpr char kRow[] = "%s%4u) %6u %8u/%-8u  %2u  %-35s";
constexpr char kTotal[] = "\r\n\r\nTotal matching Lists: %u\r\n\r\n";

// The sorted rows; under gpListOfListsCritSec.
ListTrackerNode* gpTQListTrackerHead = nullptr;
unsigned int uiListTrackedNodes = 0;

// Which lists, and which rows

/// What a row shows of a list. The name is valid while the registry is locked.
ListTrackerNode RowOf(const LISTOFLISTS& record) {
    const State& li = tq_ListInside::StateOf(*record.pList);
    const unsigned int hashes = li.pHash ? li.pHash->hashInstancesInUse : 0;
    const char* const pszName = li.pName ? li.pName : "(unnamed)";
    return {record.handle, record.pList->NodeCount(), record.pList->MaxNodeCount(), hashes, pszName, nullptr};
}

/// Which lists a report is about.
class Filter {
public:
    Filter(const char* pszSearch, bool bHashedOnly)
        : m_bExclude(pszSearch && *pszSearch == '-'), m_bHashedOnly(bHashedOnly),
          m_pszSearch(m_bExclude ? pszSearch + 1 : pszSearch) {}

    bool Matches(const LISTOFLISTS& record) const {
        const State& li = tq_ListInside::StateOf(*record.pList);
        if (m_bHashedOnly && !li.pHash) {
            return false;
        }
        return !m_pszSearch || (tq_stristr(li.pName, m_pszSearch) != nullptr) != m_bExclude;
    }

private:
    bool m_bExclude;
    bool m_bHashedOnly;
    const char* m_pszSearch;
};

/// The numbers of the rows that are shown.
struct Range {
    unsigned int first;
    unsigned int count;

    bool Contains(unsigned int number) const { return number >= first && number - first < count; }
};

Range RangeOf(unsigned int StartingIndex, unsigned int Max, unsigned int total) {
    return {StartingIndex ? StartingIndex : 1, Max >= 1 && Max <= total ? Max : total};
}

// In the order of the registry

/// Builds the report of unsorted rows, a response at a time.
class RowChunks {
public:
    RowChunks(const Range& range, tq_ResponseList& responses)
        : m_rowsPerResponse(range.count < kRowsPerResponse ? range.count : kRowsPerResponse), m_responses(responses),
          m_text(std::in_place, Bytes(), kLine, __FILE__) {
        m_text->Append("%s\r\n%s", kHeading, kRule);
    }

    /// False when there is no memory to go on; what is finished by then is sent.
    explicit operator bool() const { return static_cast<bool>(*m_text); }

    void Add(unsigned int number, const ListTrackerNode& row) {
        if (m_rows == m_rowsPerResponse) {
            Finish();
            m_text.emplace(Bytes(), kLine, __FILE__);
            m_rows = 0;
        }
        // Deliberate: one would expect every row to begin a line of its own, in the same way. All do but the first of
        // each further response, where the console has begun the line.
        m_text->Append(kRow, m_text->Length() > 0 ? "\r\n>" : "", number, row.handle, row.count, row.maxcount,
                       row.hashcount, row.name);
        ++m_rows;
    }

    void AddTotal(unsigned int matching) {
        m_text->Append(kTotal, matching);
        Finish();
    }

private:
    unsigned int Bytes() const { return m_rowsPerResponse * kBytesPerRow + kBytesAround; }

    void Finish() {
        char* const pszText = m_text->Release();
        if (pszText) {
            m_responses.Add("%s", pszText);
        }
        tq_free(pszText);
    }

    static constexpr unsigned int kLine = __LINE__;

    unsigned int m_rowsPerResponse;
    unsigned int m_rows = 0; // in the response that is being built
    tq_ResponseList& m_responses;
    std::optional<tq_ReportText> m_text;
};

void CollectRowsLocked(const Filter& filter, const Range& range, tq_ResponseList& responses) {
    RowChunks chunks(range, responses);
    unsigned int matching = 0;
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord && chunks; pRecord = pRecord->pNext) {
        if (filter.Matches(*pRecord) && range.Contains(++matching)) {
            chunks.Add(matching, RowOf(*pRecord));
        }
    }
    chunks.AddTotal(matching);
}

// Sorted

/// The difference of two numbers, the second less the first, read as signed.
int Difference(unsigned int first, unsigned int second) {
    return static_cast<int>(second - first);
}

int ListTrackerSortByMaxCount(const ListTrackerNode& first, const ListTrackerNode& second) {
    const int order = Difference(first.maxcount, second.maxcount);
    return order ? order : Difference(first.count, second.count);
}

int ListTrackerSortByCount(const ListTrackerNode& first, const ListTrackerNode& second) {
    const int order = Difference(first.count, second.count);
    return order ? order : Difference(first.maxcount, second.maxcount);
}

int ListTrackerSortByName(const ListTrackerNode& first, const ListTrackerNode& second) {
    const int order = strcmp(second.name, first.name);
    return order ? order : ListTrackerSortByCount(first, second);
}

int ListTrackerSortByHandle(const ListTrackerNode& first, const ListTrackerNode& second) {
    return Difference(first.handle, second.handle);
}

/// Positive when the first comes behind the second in descending order.
using CompareRows = int (*)(const ListTrackerNode& first, const ListTrackerNode& second);

constexpr CompareRows kOrders[] = {
    // by sort code - 1; codes beyond the last count as the last
    ListTrackerSortByCount,
    ListTrackerSortByMaxCount,
    ListTrackerSortByName,
    ListTrackerSortByHandle,
};
constexpr unsigned int kOrderCount = sizeof(kOrders) / sizeof(kOrders[0]);

struct RowOrder {
    CompareRows Compare;
    bool bDescending;

    bool ComesBehind(const ListTrackerNode& first, const ListTrackerNode& second) const {
        const int order = Compare(first, second);
        return bDescending ? order > 0 : order < 0;
    }
};

ListTrackerNode* MergeRows(ListTrackerNode* pFirst, ListTrackerNode* pSecond, const RowOrder& order) {
    ListTrackerNode* pHead = nullptr;
    ListTrackerNode** ppLast = &pHead;
    while (pFirst && pSecond) {
        ListTrackerNode*& pNext = order.ComesBehind(*pFirst, *pSecond) ? pSecond : pFirst;
        *ppLast = pNext;
        ppLast = &pNext->pNext;
        pNext = pNext->pNext;
    }
    *ppLast = pFirst ? pFirst : pSecond;
    return pHead;
}

/// Sorts the first `count` rows of a chain, cut off from the rest. By merging: it needs no memory, and an order that
/// contradicts itself, as one of differences that overflow does, costs it nothing but the order.
ListTrackerNode* SortRows(ListTrackerNode* pHead, unsigned int count, const RowOrder& order) {
    if (count == 1) {
        pHead->pNext = nullptr;
        return pHead;
    }
    ListTrackerNode* pMiddle = pHead;
    for (unsigned int i = 0; i < count / 2; ++i) {
        pMiddle = pMiddle->pNext;
    }
    ListTrackerNode* const pSecond = SortRows(pMiddle, count - count / 2, order);
    return MergeRows(SortRows(pHead, count / 2, order), pSecond, order);
}

/// Puts a row in front of the others. Without memory it is left out.
void AddToListTracker(const ListTrackerNode& row) {
    ListTrackerNode* const pRow = static_cast<ListTrackerNode*>(tq_malloc(sizeof(ListTrackerNode)));
    if (!pRow) {
        return;
    }
    *pRow = row;
    pRow->pNext = gpTQListTrackerHead;
    gpTQListTrackerHead = pRow;
    ++uiListTrackedNodes;
}

void SortListTracker(unsigned int sort, bool bReverseSort) {
    if (sort == 0 || uiListTrackedNodes < 2) {
        return;
    }
    const RowOrder order = {kOrders[std::min(sort, kOrderCount) - 1], bReverseSort};
    gpTQListTrackerHead = SortRows(gpTQListTrackerHead, uiListTrackedNodes, order);
}

void ResetListTracker() {
    while (gpTQListTrackerHead) {
        ListTrackerNode* const pRow = gpTQListTrackerHead;
        gpTQListTrackerHead = pRow->pNext;
        tq_free(pRow);
    }
    uiListTrackedNodes = 0;
}

void CollectSortedRowsLocked(const Filter& filter, const Range& range, unsigned int uiSort, bool bReverseSort,
                             tq_ResponseList& responses) {
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        if (filter.Matches(*pRecord)) {
            AddToListTracker(RowOf(*pRecord));
        }
    }
    SortListTracker(uiSort, bReverseSort);
    responses.Add("%s", kHeading);
    responses.Add("%s", kRule);
    unsigned int number = 0;
    for (const ListTrackerNode* pRow = gpTQListTrackerHead; pRow; pRow = pRow->pNext) {
        if (range.Contains(++number)) {
            responses.Add(kRow, "", number, pRow->handle, pRow->count, pRow->maxcount, pRow->hashcount, pRow->name);
        }
    }
    ResetListTracker();
    responses.Add(kTotal, number);
}

// Hashes

/// A list and one of its hashes, as they were at one moment. The report goes on with this, without any lock.
struct HashSnapshot {
    unsigned int nodes = 0;
    unsigned int hashes = 0;
    unsigned int buckets = 0;
    unsigned int* pCounts = nullptr; // nodes of each bucket

    HashSnapshot() = default;
    ~HashSnapshot() { tq_free(pCounts); }
    HashSnapshot(const HashSnapshot&) = delete;
    HashSnapshot& operator=(const HashSnapshot&) = delete;
};

const LISTOFLISTS* FindRecordLocked(unsigned int handle) {
    const LISTOFLISTS* pRecord = gpListOfLists;
    while (pRecord && pRecord->handle != handle) {
        pRecord = pRecord->pNext;
    }
    return pRecord;
}

void CopyBucketCountsLocked(const TQ_LIST_HASH_INSTANCE& hash, HashSnapshot* pSnapshot) {
    pSnapshot->buckets = hash.hashRange;
    pSnapshot->pCounts = static_cast<unsigned int*>(
        tq_malloc(hash.hashRange * static_cast<unsigned int>(sizeof(unsigned int)))); // less than the hash has itself
    for (unsigned int bucket = 0; pSnapshot->pCounts && bucket < hash.hashRange; ++bucket) {
        pSnapshot->pCounts[bucket] = __atomic_load_n(hash.BucketCounts() + bucket, __ATOMIC_RELAXED);
    }
}

/// Null, or what is wrong with the question.
const char* TakeHashSnapshot(unsigned int ListHandle, unsigned int slot, HashSnapshot* pSnapshot) {
    const tq_GatePass pass(gListRegistryGate);
    const tq_CritSecLock lock(pass ? gpListOfListsCritSec : nullptr);
    const LISTOFLISTS* const pRecord = pass ? FindRecordLocked(ListHandle) : nullptr;
    if (!pRecord) {
        return "List not found.";
    }
    const _TQ_LIST_HASHING* const pHashing = tq_ListInside::StateOf(*pRecord->pList).pHash;
    if (!pHashing) {
        return "No hashes defined for that list.";
    }
    if (slot >= pHashing->hashInstancesInUse || !pHashing->pHashArray[slot]) {
        return "Hash instance is out of range for that list.";
    }
    pSnapshot->nodes = pRecord->pList->NodeCount();
    pSnapshot->hashes = pHashing->hashInstancesInUse;
    CopyBucketCountsLocked(*pHashing->pHashArray[slot], pSnapshot);
    return nullptr;
}

/// How many buckets there are of each of five sizes: the largest, or the smallest.
class SizeTable {
public:
    explicit SizeTable(bool bLargest) : m_bLargest(bLargest), m_rows{} {
        // Deliberate: the table of the smallest begins with the largest possible size and goes on with zeros. Where
        // there are fewer than five sizes they stand behind the sizes found, each counted 0 times.
        m_rows[0].size = bLargest ? 0 : UINT32_MAX;
    }

    void Add(unsigned int size) {
        for (unsigned int i = 0; i < kRows; ++i) {
            if (m_rows[i].size == size) {
                ++m_rows[i].buckets;
                return;
            }
            if (m_bLargest ? m_rows[i].size < size : m_rows[i].size > size) {
                memmove(&m_rows[i + 1], &m_rows[i], (kRows - 1 - i) * sizeof(Row));
                m_rows[i] = {size, 1};
                return;
            }
        }
    }

    void AppendTo(tq_ReportText& text) const {
        for (unsigned int i = 0; i < kRows; ++i) {
            text.Append("%u@%u%s", m_rows[i].buckets, m_rows[i].size, i + 1 < kRows ? ", " : "\r\n");
        }
    }

private:
    struct Row {
        unsigned int size;
        unsigned int buckets;
    };
    static constexpr unsigned int kRows = 5;

    bool m_bLargest;
    Row m_rows[kRows];
};

void SendBuckets(const HashSnapshot& hash, unsigned int ListHandle, unsigned int HashHandle, unsigned int instance) {
    char line[64];
    snprintf(line, sizeof(line), "For List: %u and Hash: %u", ListHandle, HashHandle);
    tq_RespondToConsole(line, instance);
    for (unsigned int bucket = 0; bucket < hash.buckets; ++bucket) {
        snprintf(line, sizeof(line), "  HashValue[%04u] contains %10u nodes", bucket, hash.pCounts[bucket]);
        tq_RespondToConsole(line, instance);
    }
}

void SendSummary(const HashSnapshot& hash, unsigned int ListHandle, unsigned int instance) {
    char line[128];
    snprintf(line, sizeof(line), "For List: %u there %s %u %s (%u %s)", ListHandle, hash.hashes == 1 ? "is" : "are",
             hash.hashes, hash.hashes == 1 ? "hash" : "hashes", hash.nodes, hash.nodes == 1 ? "node" : "nodes");
    tq_RespondToConsole(line, instance);
    SizeTable largest(/*bLargest=*/true);
    SizeTable smallest(/*bLargest=*/false);
    for (unsigned int bucket = 0; bucket < hash.buckets; ++bucket) {
        largest.Add(hash.pCounts[bucket]);
        smallest.Add(hash.pCounts[bucket]);
    }
    // Deliberate: one would expect each line to be about the hash that it names. All are about the first one, under
    // successive numbers; what another hash is like is seen in its detailed report.
    for (unsigned int slot = 0; slot < hash.hashes; ++slot) {
        tq_ReportText text(512);
        text.Append("  Hash %u has %u HashValue Lists with: (# of hashlists) @ (nodes per list)\r\n", slot + 1,
                    hash.buckets);
        text.Append("    Maximum node counts: ");
        largest.AppendTo(text);
        text.Append("    Minimum node counts: ");
        smallest.AppendTo(text);
        char* const pszText = text.Release();
        tq_RespondToConsole(pszText, instance);
        tq_free(pszText);
    }
}

} // namespace

void tq_ListShowLists(unsigned int instance, char** pszResponse, unsigned int StartingIndex, unsigned int Max,
                      const char* pszSearchString, bool bHashedOnly, unsigned int uiSort, bool bReverseSort) {
    const Filter filter(pszSearchString, bHashedOnly);
    tq_ResponseList responses;
    bool bNone = true;
    {
        const tq_GatePass pass(gListRegistryGate);
        const tq_CritSecLock lock(pass ? gpListOfListsCritSec : nullptr);
        bNone = !pass || gpListCount == 0;
        if (!bNone && uiSort == 0) {
            CollectRowsLocked(filter, RangeOf(StartingIndex, Max, gpListCount), responses);
        } else if (!bNone) {
            CollectSortedRowsLocked(filter, RangeOf(StartingIndex, Max, gpListCount), uiSort, bReverseSort, responses);
        }
    }
    responses.SendTo(instance);
    if (pszResponse) {
        *pszResponse = bNone ? tq_newString("No Lists currently exist...") : nullptr;
    }
}

void tq_ListShowHashes(unsigned int ListHandle, unsigned int HashHandle, unsigned int instance, unsigned int uiFlags) {
    const bool bDetail = uiFlags != 0;
    if (bDetail && HashHandle == 0) {
        tq_RespondToConsole("Invalid Hash Index.", instance);
        return;
    }
    HashSnapshot hash;
    const char* const pszProblem = TakeHashSnapshot(ListHandle, bDetail ? HashHandle - 1 : 0, &hash);
    if (pszProblem) {
        tq_RespondToConsole(pszProblem, instance);
    } else if (hash.pCounts && bDetail) {
        SendBuckets(hash, ListHandle, HashHandle, instance);
    } else if (hash.pCounts) {
        SendSummary(hash, ListHandle, instance);
    }
}
