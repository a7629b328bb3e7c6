/// Reports of the memory module: the responder, the pools, the blocks in use, the counters, the histogram and the pools
/// that it suggests. Nothing here takes tracked memory but the messages to a console session.
#include <algorithm>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_Memory_p.h"
#include "tq_Report_p.h"

// Collecting and putting out

tq_MemoryRows::~tq_MemoryRows() {
    free(m_pTexts);
}

bool tq_MemoryRows::GrowFor(size_t bytes) {
    if (bytes < m_capacity - m_length) { // one more byte than asked for: the terminator
        return true;
    }
    const size_t capacity = (m_length + bytes + 1) * 2;
    char* pLarger = static_cast<char*>(realloc(m_pTexts, capacity));
    if (!pLarger) {
        return false;
    }
    m_pTexts = pLarger;
    m_capacity = capacity;
    return true;
}

void tq_MemoryRows::Add(const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, pszFormat, args);
    if (length >= 0 && GrowFor(static_cast<size_t>(length))) {
        vsnprintf(m_pTexts + m_length, m_capacity - m_length, pszFormat, again);
        m_length += static_cast<size_t>(length);
    } else {
        m_bIncomplete = true;
    }
    va_end(again);
    va_end(args);
}

void tq_MemoryRows::End() {
    if (!m_bIncomplete && m_length > m_ended) {
        m_ended = ++m_length; // with its terminator
    }
    m_length = m_ended;
    m_bIncomplete = false;
}

void tq_MemoryTelnetSendResponse(const char* pResponse, unsigned int instance, unsigned int flags) {
    if (!pResponse || *pResponse == '\0') {
        return;
    }
    void* pMessage = tq_SpoofMalloc(tq_ConsoleMessageBytes(pResponse), __FILE__, static_cast<unsigned int>(-1));
    if (pMessage && !tq_PostConsoleMessage(pMessage, pResponse, instance, flags)) {
        tq_free(pMessage);
    }
}

void tq_MemoryRespond(const char* pszResponse, bool bPrintf, FILE* hFile, unsigned int instance, unsigned int flags) {
    if (!pszResponse) {
        return;
    }
    if (bPrintf) {
        puts(pszResponse);
    } else if (hFile) {
        fprintf(hFile, "%s\n", pszResponse);
    } else {
        tq_MemoryTelnetSendResponse(pszResponse, instance, flags);
    }
}

namespace {

/// Where a report goes.
struct Reader {
    unsigned int instance;
    bool bPrintf;
    FILE* hFile;

    const char* LineEnd() const { return bPrintf || hFile ? "\n" : "\r\n"; }
    void Tell(const char* pszText) const { tq_MemoryRespond(pszText, bPrintf, hFile, instance, kMemoryResponseFlags); }
    void Tell(tq_MemoryRows& rows) const {
        rows.PutOut([this](const char* pszText) { Tell(pszText); });
    }
};

// Changes since the last report

struct Figures {
    unsigned int heapRequested;
    unsigned int heapAllocated;
    unsigned int requested;
    unsigned int allocated;
    unsigned int maxRequested;
    unsigned int maxAllocated;
};

Figures gPreviousFigures = {}; // of the last report; guarded by MemoryTrackingCritSec, as is gbTelnetShowMemoryCalled

unsigned int ComputeDelta(unsigned int val1, unsigned int val2, const char** pszSign) {
    *pszSign = val1 >= val2 ? "+" : "-";
    return val1 >= val2 ? val1 - val2 : val2 - val1;
}

/// Changes in the first report count from 0, also when there were reports before the library was started again.
void ForgetFiguresBeforeFirstReport() {
    myCritSecLock lock(MemoryTrackingCritSec);
    if (!gbTelnetShowMemoryCalled) {
        gPreviousFigures = {};
    }
}

void NoteReport() {
    myCritSecLock lock(MemoryTrackingCritSec);
    gbTelnetShowMemoryCalled = true;
}

void AddFigure(tq_MemoryRows& rows, const char* pszName, unsigned int now, unsigned int before,
               const char* pszLineEnd) {
    const char* pszSign = nullptr;
    const unsigned int change = ComputeDelta(now, before, &pszSign);
    rows.Add("%s%10u     %s%u%s", pszName, now, pszSign, change, pszLineEnd);
}

void AddCounters(tq_MemoryRows& rows, const char* pszFirst, const Figures& now, const Figures& before,
                 const char* pszLineEnd) {
    AddFigure(rows, pszFirst, now.requested, before.requested, pszLineEnd);
    AddFigure(rows, "      Bytes allocated through TQOS: ", now.allocated, before.allocated, pszLineEnd);
    AddFigure(rows, "  MAX Bytes requested through TQOS: ", now.maxRequested, before.maxRequested, pszLineEnd);
    AddFigure(rows, "  MAX Bytes allocated through TQOS: ", now.maxAllocated, before.maxAllocated, pszLineEnd);
}

// Statistics of the pools

void AddPool(tq_MemoryRows& rows, unsigned int pool, const char* pszLineEnd) {
    tq_MemoryPoolHold hold(pool);
    if (!PoolLists[pool]) {
        return; // it has ended meanwhile
    }
    const MEM_POOL_LIST& list = *PoolLists[pool];
    const unsigned int initial = PoolInitialSize[pool];
    const unsigned int increment = PoolIncrement[pool];
    const unsigned int grown = increment ? (list.nSize - initial) / increment : 0;
    rows.Add("Pool #%03u         Block Size: %8u              Initial Count: %8u%s", pool + 1, PoolSizes[pool], initial,
             pszLineEnd);
    rows.Add("    Currently Allocated Nodes: %8u             Pool Increment: %8u%s", list.nCurrentAllocatedNodes,
             increment, pszLineEnd);
    rows.Add("              Available Nodes: %8u                Times Grown: %8u%s",
             list.nSize - list.nCurrentAllocatedNodes, grown, pszLineEnd);
    rows.Add("                  Total Nodes: %8u    Maximum Allocated Nodes: %8u%s", list.nSize,
             list.nMaxAllocatedNodes, pszLineEnd);
    rows.End();
}

struct PoolSums {
    unsigned int requested = 0;
    unsigned int inUse = 0;
    unsigned int mostInUse = 0;
};

/// All pools at one moment: every lock is taken before the first pool is looked at.
PoolSums SumPools() {
    PoolSums sums;
    const unsigned int pools = TotalPools;
    for (unsigned int pool = 0; pool < pools; ++pool) {
        PoolCritSec[pool].EnterCritSec();
        const MEM_POOL_LIST* pList = PoolLists[pool];
        if (pList) {
            sums.requested += pList->nTotalRequestedSize;
            sums.inUse += pList->nCurrentAllocatedNodes * tq_MemorySlotLength(pool);
            sums.mostInUse += pList->nMaxAllocatedNodes * tq_MemorySlotLength(pool);
        }
    }
    for (unsigned int pool = pools; pool-- > 0;) {
        PoolCritSec[pool].LeaveCritSec();
    }
    return sums;
}

/// What the pools do not have of a sum. They can seem to have more than all: a block is counted in its pool and in the
/// sum one after the other, and a request that failed stays counted in its pool.
unsigned int Outside(unsigned int all, unsigned int inPools) {
    return all > inPools ? all - inPools : 0;
}

void AddTrackedTotals(tq_MemoryRows& rows, const char* pszLineEnd) {
    const PoolSums sums = SumPools();
    myCritSecLock lock(MemoryTrackingCritSec);
    Figures& before = gPreviousFigures;
    const tq_MemoryCounters counters = tq_ReadMemoryCounters();
    const Figures now = {Outside(counters.now.requested, sums.requested),
                         Outside(counters.now.total, sums.inUse),
                         counters.now.requested,
                         counters.now.total,
                         counters.most.requested,
                         counters.most.total};
    AddFigure(rows, "     Bytes requested from the heap:", now.heapRequested, before.heapRequested, pszLineEnd);
    AddFigure(rows, "      Bytes allocated from the heap:", now.heapAllocated, before.heapAllocated, pszLineEnd);
    rows.Add("%s", pszLineEnd);
    AddCounters(rows, "      Bytes requested through TQOS: ", now, before, pszLineEnd);
    rows.End();
    before = now;
}

void AddUntrackedTotals(tq_MemoryRows& rows, const char* pszLineEnd) {
    const PoolSums sums = SumPools();
    myCritSecLock lock(MemoryTrackingCritSec);
    Figures& before = gPreviousFigures;
    AddFigure(rows, "     Bytes allocated through TQOS: ", sums.inUse, before.allocated, pszLineEnd);
    AddFigure(rows, "  MAX Bytes allocated through TQOS: ", sums.mostInUse, before.maxAllocated, pszLineEnd);
    rows.End();
    before.allocated = sums.inUse;
    before.maxAllocated = sums.mostInUse;
}

/// The pools that a report is about.
struct PoolRange {
    unsigned int first;
    unsigned int end;
    bool bAll;
};

void ReportStatistics(const Reader& reader, const PoolRange& pools) {
    tq_MemoryRows rows;
    // The optimiser does not know that there are never more pools than places for them, and warns.
    for (unsigned int pool = pools.first; pool < pools.end && pool < kMaxMemoryPools; ++pool) {
        AddPool(rows, pool, reader.LineEnd());
    }
    if (pools.bAll && gbUseMemoryTracking) {
        AddTrackedTotals(rows, reader.LineEnd());
    } else if (pools.bAll) {
        AddUntrackedTotals(rows, reader.LineEnd());
    }
    reader.Tell(rows);
}

// Blocks in use

constexpr size_t kWidestName = 45;
constexpr unsigned int kShownBytes = 16;

/// Which of the blocks in use a report lists.
struct BlockFilter {
    const char* pszName;
    const char* pszNameOut;
    bool bFixedSize;
    unsigned int size;
    unsigned int line;

    bool Passes(char* pBlock) const {
        constexpr unsigned int kStates = TQ_MEM_FLAG_IN_USE | TQ_MEM_FLAG_MARKED | TQ_MEM_FLAG_HIDDEN;
        const _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
        if ((pHeader->Flags & kStates) != TQ_MEM_FLAG_IN_USE || (line != 0 && pHeader->line != line) ||
            (bFixedSize && pHeader->size != size)) {
            return false;
        }
        const char* pszFile = GetMemoryFilename(pBlock);
        return (!pszName || Contains(pszFile, pszName)) && (!pszNameOut || !Contains(pszFile, pszNameOut));
    }

private:
    /// As everywhere in the library an empty text is contained in nothing.
    static bool Contains(const char* pszFile, const char* pszPart) {
        return *pszPart != '\0' && strcasestr(pszFile, pszPart) != nullptr;
    }
};

const char* ShownName(char* pBlock) {
    return tq_LastCharacters(GetMemoryFilename(pBlock), kWidestName);
}

struct BlockSums {
    unsigned int count = 0;
    unsigned int requested = 0;
    unsigned int actual = 0;

    void Add(unsigned int pool, char* pBlock) {
        ++count;
        requested += tq_MemoryHeaderOf(pBlock)->size;
        actual += PoolSizes[pool];
    }
    void Add(const BlockSums& other) {
        count += other.count;
        requested += other.requested;
        actual += other.actual;
    }
};

/// Looks at another's bytes without asking: the owner of a block may be writing them, and what is shown is whatever
/// stands there. Neither the compiler nor a checker of threads may take it for more than that.
__attribute__((noinline, no_sanitize("thread"))) void PeekAtBytes(const char* pFrom, unsigned char* pTo,
                                                                  unsigned int count) {
    const volatile unsigned char* pByte = reinterpret_cast<const volatile unsigned char*>(pFrom);
    for (unsigned int i = 0; i < count; ++i) {
        pTo[i] = pByte[i];
    }
}

/// The first bytes of a block.
struct ShownBytes {
    char hexadecimal[kShownBytes * 3 + kShownBytes / 8 * 2 + 1]; ///< with a bar behind each eight
    char characters[kShownBytes + 1];
};

/// Not by a format for each byte: the pools are locked meanwhile.
void ShowBytes(const char* pFrom, unsigned int count, ShownBytes& shown) {
    static constexpr char kDigits[] = "0123456789abcdef";
    unsigned char bytes[kShownBytes];
    PeekAtBytes(pFrom, bytes, count);
    char* pNext = shown.hexadecimal;
    for (unsigned int i = 0; i < count; ++i) {
        *pNext++ = kDigits[bytes[i] >> 4];
        *pNext++ = kDigits[bytes[i] & 15];
        *pNext++ = ' ';
        if (i % 8 == 7) {
            *pNext++ = '|';
            *pNext++ = ' ';
        }
        shown.characters[i] = tq_ShownMemoryByte(bytes[i]);
    }
    *pNext = '\0';
    shown.characters[count] = '\0';
}

void AddBlock(tq_MemoryRows& rows, unsigned int pool, char* pBlock, const char* pszLineEnd) {
    const _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    const char* pUserData = pBlock + gTotalMemoryHeader;
    const unsigned int size = static_cast<unsigned int>(pHeader->size);
    ShownBytes bytes = {};
    ShowBytes(pUserData, std::min({size, kShownBytes, PoolSizes[pool]}), bytes);
    rows.Add("%6u bytes %08lx %45s:%4u%s        %s  -  %s", size, reinterpret_cast<unsigned long>(pUserData),
             ShownName(pBlock), static_cast<unsigned int>(pHeader->line), pszLineEnd, bytes.hexadecimal,
             bytes.characters);
    rows.End();
}

void AddSums(tq_MemoryRows& rows, const BlockSums& sums, const char* pszLineEnd) {
    rows.Add("   Total allocations:     %u%s", sums.count, pszLineEnd);
    rows.Add("   Total requested bytes: %u%s", sums.requested, pszLineEnd);
    rows.Add("   Total actual bytes:    %u%s", sums.actual, pszLineEnd);
}

BlockSums ReportBlocksOfPool(const Reader& reader, unsigned int pool, const BlockFilter& filter) {
    const char* pszLineEnd = reader.LineEnd();
    tq_MemoryRows rows;
    BlockSums sums;
    {
        tq_MemoryPoolHold hold(pool);
        tq_WalkMemoryPool(pool, [&](char* pBlock) {
            if (!filter.Passes(pBlock)) {
                return;
            }
            if (sums.count == 0) {
                rows.Add("Pool #%u:", pool + 1);
                rows.End();
            }
            sums.Add(pool, pBlock);
            AddBlock(rows, pool, pBlock, pszLineEnd);
        });
    }
    if (sums.count != 0) {
        rows.Add("Summary for tqos Memory Pool: %u%s", pool + 1, pszLineEnd);
        AddSums(rows, sums, pszLineEnd);
        rows.Add("%s", pszLineEnd);
        rows.End();
    }
    reader.Tell(rows);
    return sums;
}

void ReportBlocks(const Reader& reader, const PoolRange& pools, const BlockFilter& filter) {
    BlockSums sums;
    for (unsigned int pool = pools.first; pool < pools.end; ++pool) {
        sums.Add(ReportBlocksOfPool(reader, pool, filter));
    }
    tq_MemoryRows rows;
    if (sums.count != 0) {
        rows.Add("Summary for ALL tqos Memory Pools%s", reader.LineEnd());
        AddSums(rows, sums, reader.LineEnd());
    } else {
        rows.Add("No memory leaks detected!%s", reader.LineEnd());
    }
    rows.End();
    reader.Tell(rows);
}

// Blocks grouped by where they were allocated

/// A place and what it has in use; plain heap memory.
struct _TrackerNode {
    const char* pszFile; // as shown
    unsigned int line;
    unsigned int bytes;
    unsigned int count;
    struct _TrackerNode* pNext;
};
typedef struct _TrackerNode TrackerNode;

myCritSec TrackerCritSec(tq_LockRank::kMemoryTracker); // taken before a pool's lock
TrackerNode* gpTQTrackerHead = nullptr;
unsigned int uiTrackedNodes = 0;

void AddToTrackerList(const char* pszFile, unsigned int line, unsigned int bytes) {
    TrackerNode* pNode = gpTQTrackerHead;
    while (pNode && (pNode->pszFile != pszFile || pNode->line != line)) {
        pNode = pNode->pNext;
    }
    if (!pNode) {
        pNode = static_cast<TrackerNode*>(malloc(sizeof(TrackerNode)));
        if (!pNode) {
            return;
        }
        *pNode = {pszFile, line, 0, 0, gpTQTrackerHead};
        gpTQTrackerHead = pNode;
        ++uiTrackedNodes;
    }
    pNode->bytes += bytes;
    ++pNode->count;
}

/// Hands the list over and begins a new one.
TrackerNode* ResetTrackerList() {
    TrackerNode* pHead = gpTQTrackerHead;
    gpTQTrackerHead = nullptr;
    uiTrackedNodes = 0;
    return pHead;
}

int Compare(unsigned int a, unsigned int b) {
    return a < b ? -1 : a > b;
}

int CompareBytes(const TrackerNode& a, const TrackerNode& b) {
    return Compare(a.bytes, b.bytes);
}

int CompareCounts(const TrackerNode& a, const TrackerNode& b) {
    return Compare(a.count, b.count);
}

int CompareNames(const TrackerNode& a, const TrackerNode& b) {
    const int order = strcmp(a.pszFile, b.pszFile);
    return order != 0 ? order : Compare(a.line, b.line);
}

int CompareRatios(const TrackerNode& a, const TrackerNode& b) {
    return a.count == 0 || b.count == 0 ? 0 : Compare(a.bytes / a.count, b.bytes / b.count);
}

template <int (*Order)(const TrackerNode&, const TrackerNode&), int sign>
int CompareNodes(const void* pA, const void* pB) {
    return sign * Order(**static_cast<TrackerNode* const*>(pA), **static_cast<TrackerNode* const*>(pB));
}

using NodeOrder = int (*)(const void*, const void*);

/// By TQ_MEM_SORT_FORMATS; ascending, descending.
constexpr NodeOrder kNodeOrders[][2] = {
    {nullptr, nullptr},
    {CompareNodes<CompareBytes, 1>, CompareNodes<CompareBytes, -1>},
    {CompareNodes<CompareCounts, 1>, CompareNodes<CompareCounts, -1>},
    {CompareNodes<CompareNames, 1>, CompareNodes<CompareNames, -1>},
    {CompareNodes<CompareRatios, 1>, CompareNodes<CompareRatios, -1>},
};
static_assert(static_cast<int>(TQ_MEM_SORT_FORMATS::RATIO) == 4, "each order stands at its own place");

void SortTrackerList(unsigned int sort, bool bReverseSort) {
    const size_t orders = sizeof(kNodeOrders) / sizeof(kNodeOrders[0]);
    if (sort >= orders || !kNodeOrders[sort][0] || uiTrackedNodes < 2) {
        return;
    }
    TrackerNode** pNodes = static_cast<TrackerNode**>(calloc(uiTrackedNodes, sizeof(TrackerNode*)));
    if (!pNodes) {
        return; // the report comes unsorted
    }
    unsigned int count = 0;
    for (TrackerNode* pNode = gpTQTrackerHead; pNode; pNode = pNode->pNext) {
        pNodes[count++] = pNode;
    }
    qsort(pNodes, count, sizeof(TrackerNode*), kNodeOrders[sort][bReverseSort ? 1 : 0]);
    gpTQTrackerHead = nullptr;
    while (count > 0) {
        pNodes[--count]->pNext = gpTQTrackerHead;
        gpTQTrackerHead = pNodes[count];
    }
    free(pNodes);
}

TrackerNode* CollectGroups(const PoolRange& pools, const BlockFilter& filter, TQ_MEM_SORT_FORMATS eSortType,
                           bool bReverseSort) {
    myCritSecLock lock(TrackerCritSec);
    for (unsigned int pool = pools.first; pool < pools.end; ++pool) {
        tq_MemoryPoolHold hold(pool);
        tq_WalkMemoryPool(pool, [&filter](char* pBlock) {
            if (filter.Passes(pBlock)) {
                const _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
                AddToTrackerList(ShownName(pBlock), pHeader->line, pHeader->size);
            }
        });
    }
    SortTrackerList(static_cast<unsigned int>(eSortType), bReverseSort);
    return ResetTrackerList();
}

void AddGroups(tq_MemoryRows& rows, TrackerNode* pNode, const char* pszLineEnd) {
    unsigned int blocks = 0;
    unsigned int bytes = 0;
    while (pNode) {
        rows.Add("  %8u %8u %45s %6u", pNode->count, pNode->bytes, pNode->pszFile, pNode->line);
        rows.End();
        blocks += pNode->count;
        bytes += pNode->bytes;
        TrackerNode* pNext = pNode->pNext;
        free(pNode);
        pNode = pNext;
    }
    rows.Add(" Summary:   %u allocations    (%u bytes).%s", blocks, bytes, pszLineEnd);
    rows.End();
}

void ReportGroups(const Reader& reader, TrackerNode* pNodes) {
    if (!pNodes) {
        return; // Deliberate: nothing is said, where the report block by block says that there is no leak
    }
    const char* pszLineEnd = reader.LineEnd();
    tq_MemoryRows rows;
    rows.Add("%s%s Detailed tqos memory information:%s%s", pszLineEnd, pszLineEnd, pszLineEnd, pszLineEnd);
    rows.Add("    Count    Bytes                     File                         Line  %s", pszLineEnd);
    rows.Add("   -------- -------- --------------------------------------------- ------");
    rows.End();
    AddGroups(rows, pNodes, pszLineEnd);
    reader.Tell(rows);
}

bool CanReportBlocks(const Reader& reader) {
    if (gbUseMemoryTracking) {
        return true;
    }
    tq_MemoryRows rows;
    if (reader.bPrintf) {
        rows.Add("Memory Tracking must also be enabled to track memory leaks.\n");
    } else {
        rows.Add("Memory Tracking must also be enabled for a DETailed report.%s", reader.LineEnd());
    }
    rows.End();
    reader.Tell(rows);
    return false;
}

} // namespace

void tq_ShowMemoryPools(unsigned int instance, unsigned int uiFlags, bool bPrintf, FILE* hFile, int pool,
                        bool bGroupNames, const char* pszNameFilter, const char* pszNameFilterOut,
                        TQ_MEM_SORT_FORMATS eSortType, bool bReverseSort, bool bFixedSize, int size,
                        unsigned int line) {
    ForgetFiguresBeforeFirstReport();
    const Reader reader = {instance, bPrintf, hFile};
    const unsigned int number = static_cast<unsigned int>(pool); // from 1; a negative one is above every other
    const PoolRange pools = number ? PoolRange{number - 1, number, false} : PoolRange{0, TotalPools, true};
    const BlockFilter filter = {pszNameFilter, pszNameFilterOut, bFixedSize, static_cast<unsigned int>(size), line};
    if (number > TotalPools) {
        reader.Tell("Invalid Pool id specified!\r\n");
    } else if ((uiFlags & kMemoryReportDetailed) == 0) {
        ReportStatistics(reader, pools);
    } else if (CanReportBlocks(reader)) {
        if (bGroupNames) {
            ReportGroups(reader, CollectGroups(pools, filter, eSortType, bReverseSort));
        } else {
            ReportBlocks(reader, pools, filter);
        }
    }
    NoteReport();
}

void tq_ShowMemoryTrackingOnly(unsigned int instance) {
    ForgetFiguresBeforeFirstReport();
    tq_MemoryRows rows;
    {
        myCritSecLock lock(MemoryTrackingCritSec);
        Figures& before = gPreviousFigures;
        Figures now = before;
        const tq_MemoryCounters counters = tq_ReadMemoryCounters();
        now.requested = counters.now.requested;
        now.allocated = counters.now.total;
        now.maxRequested = counters.most.requested;
        now.maxAllocated = counters.most.total;
        AddCounters(rows, "     Bytes requested through TQOS: ", now, before, "\r\n");
        rows.End();
        before = now;
    }
    Reader{instance, false, nullptr}.Tell(rows);
    NoteReport();
}

// The histogram

namespace {

constexpr char kNoHistogram[] = "Memory Histogram tracking not enabled!\r\n";

struct HistogramEntry {
    unsigned int size;
    unsigned int current;
    unsigned int most;
};

/// The sizes that were ever in use, ascending, as they stand at one moment; plain heap memory.
class HistogramSnapshot {
public:
    HistogramSnapshot() = default;
    ~HistogramSnapshot() { free(m_pEntries); }
    HistogramSnapshot(const HistogramSnapshot&) = delete;
    HistogramSnapshot& operator=(const HistogramSnapshot&) = delete;

    /// False when there is no histogram. Without memory for it the snapshot stays empty.
    bool Take() {
        myCritSecLock lock(MemoryTrackingCritSec);
        if (!gpMemoryHistogram) {
            return false;
        }
        const size_t sizes = CountSizesLocked();
        m_pEntries = static_cast<HistogramEntry*>(calloc(sizes + 1, sizeof(HistogramEntry)));
        for (unsigned int i = 0; m_pEntries && i < gMemoryHistogramMaxSize; ++i) {
            if (gpMemoryHistogramMax[i] != 0) {
                m_pEntries[m_count++] = {i + 1, gpMemoryHistogram[i], gpMemoryHistogramMax[i]};
            }
        }
        return true;
    }

    const HistogramEntry* begin() const { return m_pEntries; }
    const HistogramEntry* end() const { return m_pEntries + m_count; }

    /// The largest maximum, at least 1.
    unsigned int Peak() const {
        unsigned int peak = 1;
        for (const HistogramEntry& entry : *this) {
            peak = std::max(peak, entry.most);
        }
        return peak;
    }

private:
    static size_t CountSizesLocked() {
        size_t sizes = 0;
        for (unsigned int i = 0; i < gMemoryHistogramMaxSize; ++i) {
            sizes += gpMemoryHistogramMax[i] != 0 ? 1 : 0;
        }
        return sizes;
    }

    HistogramEntry* m_pEntries = nullptr;
    size_t m_count = 0;
};

struct HistogramForm {
    const char* pszColumns;
    const char* pszRule;
    unsigned int scale;
    bool bBar;
    bool bFigures;
};

constexpr char kBarColumns[] = "Bytes     Allocations (* = current   ...| = Maximum)";

/// By TQ_MEM_HISTOGRAM_FORMATS, but for the last, which is no table.
const HistogramForm kHistogramForms[] = {
    {"Bytes         current  (maximum)", " -------       -----------------", 200, false, true},
    {kBarColumns, " -------   |------------------------------------------------------------------|", 68, true, false},
    {kBarColumns, " -------   |------------------------------------------------|", 50, true, true},
};
static_assert(static_cast<int>(TQ_MEM_HISTOGRAM_FORMATS::COMBO) == 2 &&
                  static_cast<int>(TQ_MEM_HISTOGRAM_FORMATS::INI) == 3,
              "each form stands at its own place");

unsigned int Scaled(unsigned int value, unsigned int scale, unsigned int peak) {
    const unsigned long long scaled = static_cast<unsigned long long>(value) * scale / peak;
    return scaled < scale ? static_cast<unsigned int>(scaled) : scale;
}

/// Stars for what is in use, dots up to the most that ever was, whose column has the "|": where both are the same it
/// takes the place of the last star.
void AddBar(tq_MemoryRows& rows, unsigned int current, unsigned int most) {
    for (unsigned int column = 1; column < most; ++column) {
        rows.Add("%c", column <= current ? '*' : '.');
    }
    rows.Add("|");
}

void AddHistogramEntry(tq_MemoryRows& rows, const HistogramForm& form, const HistogramEntry& entry, unsigned int peak) {
    const unsigned int most = Scaled(entry.most, form.scale, peak);
    if (most == 0) {
        return;
    }
    rows.Add("%7u:  ", entry.size);
    if (form.bBar) {
        AddBar(rows, Scaled(entry.current, form.scale, peak), most);
        if (form.bFigures) {
            rows.Add(" (%u/%u)", entry.current, entry.most);
        }
    } else {
        rows.Add(" %10u  (%u)", entry.current, entry.most);
    }
    rows.End();
}

} // namespace

void tq_MemoryShowHistogram(unsigned int instance, FILE* hFile, TQ_MEM_HISTOGRAM_FORMATS eFormat) {
    if (eFormat == TQ_MEM_HISTOGRAM_FORMATS::INI) {
        tq_MemoryGenerateINIPoolingSection(instance, hFile);
        return;
    }
    const Reader reader = {instance, false, hFile};
    HistogramSnapshot snapshot;
    if (!snapshot.Take()) {
        reader.Tell(kNoHistogram);
        return;
    }
    const HistogramForm& form = kHistogramForms[static_cast<unsigned int>(eFormat)];
    tq_MemoryRows rows;
    rows.Add("%s%s%s", form.pszColumns, reader.LineEnd(), form.pszRule);
    rows.End();
    const unsigned int peak = snapshot.Peak();
    for (const HistogramEntry& entry : snapshot) {
        AddHistogramEntry(rows, form, entry, peak);
    }
    reader.Tell(rows);
}

void tq_MemoryClearHistogram(unsigned int instance) {
    {
        myCritSecLock lock(MemoryTrackingCritSec);
        if (gpMemoryHistogram) {
            memset(gpMemoryHistogram, 0, sizeof(unsigned int) * gMemoryHistogramMaxSize);
            memset(gpMemoryHistogramMax, 0, sizeof(unsigned int) * gMemoryHistogramMaxSize);
            return;
        }
    }
    Reader{instance, false, nullptr}.Tell(kNoHistogram);
}

// Pools suggested by the histogram

namespace {

constexpr unsigned int kMostSuggestedSizes = 80; // leaves room for the last two within the pools there can be
static_assert(kMostSuggestedSizes + 2 <= kMaxMemoryPools, "what is suggested can be configured");

/// In 32 bits, or the largest multiple of 4 there.
unsigned int RoundUpTo4(unsigned long long value) {
    const unsigned long long rounded = (value + 3) / 4 * 4;
    return rounded <= UINT_MAX ? static_cast<unsigned int>(rounded) : UINT_MAX - 3;
}

/// With a fifth to spare.
unsigned int SlotsFor(unsigned int most) {
    const unsigned long long slots = static_cast<unsigned long long>(most) * 120 / 100;
    return static_cast<unsigned int>(std::min<unsigned long long>(slots, UINT_MAX));
}

/// The sizes with the highest maxima; where these are equal, the smaller sizes.
class CommonSizes {
public:
    void Offer(const HistogramEntry& entry) {
        unsigned int at = m_count;
        while (at > 0 && m_entries[at - 1].most < entry.most) {
            --at;
        }
        if (at == kMostSuggestedSizes) {
            return;
        }
        const unsigned int kept = std::min(m_count, kMostSuggestedSizes - 1);
        std::copy_backward(m_entries + at, m_entries + kept, m_entries + kept + 1);
        m_entries[at] = entry;
        m_count = kept + 1;
    }

    void SortBySize() {
        std::sort(m_entries, m_entries + m_count,
                  [](const HistogramEntry& a, const HistogramEntry& b) { return a.size < b.size; });
    }

    const HistogramEntry* begin() const { return m_entries; }
    const HistogramEntry* end() const { return m_entries + m_count; }

private:
    HistogramEntry m_entries[kMostSuggestedSizes];
    unsigned int m_count = 0;
};

/// Writes pool after pool.
class PoolWriter {
public:
    PoolWriter(tq_MemoryRows& rows, const char* pszLineEnd) : m_rows(rows), m_pszLineEnd(pszLineEnd) {}

    void Add(unsigned int blockSize, unsigned int slots, unsigned int increment) {
        ++m_pools;
        m_rows.Add("  Pool%uBlockSize  =%u%s", m_pools, blockSize, m_pszLineEnd);
        m_rows.Add("  Pool%uStartCount =%u%s", m_pools, slots, m_pszLineEnd);
        m_rows.Add("  Pool%uIncrement  =%u%s", m_pools, increment, m_pszLineEnd);
        m_rows.End();
        m_lastBlockSize = blockSize;
    }

    /// A pool for a size that no pool is large enough for yet.
    void AddIfMissing(const HistogramEntry& entry) {
        if (m_lastBlockSize < entry.size) {
            Add(RoundUpTo4(entry.size), SlotsFor(entry.most), 1);
        }
    }

    unsigned int LastBlockSize() const { return m_lastBlockSize; }

private:
    tq_MemoryRows& m_rows;
    const char* m_pszLineEnd;
    unsigned int m_pools = 0;
    unsigned int m_lastBlockSize = 0;
};

/// One pool for sizes that lie close together: from each size on, those up to about 30 % above it.
void WriteGroups(PoolWriter& writer, const CommonSizes& sizes) {
    const HistogramEntry* pFirst = sizes.begin();
    while (pFirst != sizes.end()) {
        const unsigned int size = RoundUpTo4(pFirst->size);
        const unsigned int bound = RoundUpTo4(size + 2ULL * size * 15 / 100 + 1);
        unsigned long long slots = SlotsFor(pFirst->most);
        const HistogramEntry* pNext = pFirst + 1;
        for (; pNext != sizes.end() && pNext->size <= bound; ++pNext) {
            slots += SlotsFor(pNext->most);
        }
        const unsigned int blockSize = pNext == pFirst + 1 ? size : bound;
        if (blockSize != writer.LastBlockSize()) {
            writer.Add(blockSize, static_cast<unsigned int>(std::min<unsigned long long>(slots, UINT_MAX)),
                       tq_DefaultMemoryPoolIncrement(blockSize));
        }
        pFirst = pNext;
    }
}

} // namespace

void tq_MemoryGenerateINIPoolingSection(unsigned int instance, FILE* hFile) {
    const Reader reader = {instance, false, hFile};
    HistogramSnapshot snapshot;
    if (!snapshot.Take()) {
        reader.Tell(kNoHistogram);
        return;
    }
    tq_MemoryRows rows;
    rows.Add("[Memory]%s  EnableMemoryPooling=Yes%s", reader.LineEnd(), reader.LineEnd());
    rows.End();
    HistogramEntry largest = {};
    HistogramEntry secondLargest = {};
    CommonSizes sizes;
    for (const HistogramEntry& entry : snapshot) {
        secondLargest = largest;
        largest = entry;
        sizes.Offer(entry);
    }
    sizes.SortBySize();
    PoolWriter writer(rows, reader.LineEnd());
    WriteGroups(writer, sizes);
    writer.AddIfMissing(secondLargest);
    writer.AddIfMissing(largest);
    reader.Tell(rows);
}

// The console's command

namespace {

constexpr char kNeedsTracking[] = "Must have Memory Trscking Enabled in order to use the size option!\r\n";

/// A file that is closed with its owner.
class ReportFile {
public:
    ReportFile() = default;
    ~ReportFile() { Close(); }
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;

    bool Open(const char* pszPath) {
        Close();
        m_hFile = fopen(pszPath, "w+");
        return m_hFile != nullptr;
    }
    FILE* Get() const { return m_hFile; }

private:
    void Close() {
        if (m_hFile) {
            fclose(m_hFile);
            m_hFile = nullptr;
        }
    }

    FILE* m_hFile = nullptr;
};

enum class Parsing { GoOn, Enough, Failed };

/// What a command asks for; texts point into it.
struct MemoryCommand {
    explicit MemoryCommand(const Reader& console) : reader(console) {}

    const Reader& reader; // of error texts
    int pool = 0;
    const char* pszFilter = nullptr;
    const char* pszFilterOut = nullptr;
    bool bHistogram = false;
    TQ_MEM_HISTOGRAM_FORMATS eFormat = TQ_MEM_HISTOGRAM_FORMATS::GRAPHIC;
    bool bFixedSize = false;
    int size = 0;
    unsigned int line = 0;
    bool bGroup = false;
    TQ_MEM_SORT_FORMATS eSort = TQ_MEM_SORT_FORMATS::NONE;
    bool bReverseSort = false;
    ReportFile file;

    Parsing Fail(const char* pszText) const {
        reader.Tell(pszText);
        return Parsing::Failed;
    }
};

bool BeginsWith(const char* pszWord, const char* pszStart) {
    return strncasecmp(pszWord, pszStart, strlen(pszStart)) == 0;
}

/// The number that a text begins with, 0 for none and for one below 0.
int PositiveNumber(const char* pszText) {
    const long long number = strtoll(pszText, nullptr, 10);
    return number > 0 ? static_cast<int>(std::min<long long>(number, INT_MAX)) : 0;
}

Parsing OnPool(MemoryCommand& command, const char* pszValue) {
    command.pool = PositiveNumber(pszValue);
    if (command.pool == 0) {
        command.pool = -1; // Deliberate: no error here. What follows is not read; the report answers for the number
        return Parsing::Enough;
    }
    return Parsing::GoOn;
}

Parsing OnFilter(MemoryCommand& command, const char* pszValue) {
    command.pszFilter = pszValue;
    return Parsing::GoOn;
}

Parsing OnFilterOut(MemoryCommand& command, const char* pszValue) {
    command.pszFilterOut = pszValue;
    return Parsing::GoOn;
}

Parsing OnHistogram(MemoryCommand& command, const char*) {
    command.bHistogram = true;
    return Parsing::GoOn;
}

Parsing OnSize(MemoryCommand& command, const char* pszValue) {
    if (!gbUseMemoryTracking) {
        return command.Fail(kNeedsTracking);
    }
    command.size = PositiveNumber(pszValue);
    command.bFixedSize = true;
    return command.size != 0 ? Parsing::GoOn
                             : command.Fail("Invalid size value! (must be: a number greater than 0).\r\n");
}

Parsing OnLine(MemoryCommand& command, const char* pszValue) {
    if (!gbUseMemoryTracking) {
        return command.Fail(kNeedsTracking); // Deliberate: the text names the other option
    }
    command.line = static_cast<unsigned int>(PositiveNumber(pszValue));
    return command.line != 0 ? Parsing::GoOn
                             : command.Fail("Invalid line value! (must be: a number greater than 0).\r\n");
}

Parsing OnFormat(MemoryCommand& command, const char* pszValue) {
    static const char* const kFormats[] = {"numeric", "graphic", "combo", "ini"}; // by TQ_MEM_HISTOGRAM_FORMATS
    for (int i = 0; i < 4; ++i) {
        if (BeginsWith(pszValue, kFormats[i])) {
            command.eFormat = static_cast<TQ_MEM_HISTOGRAM_FORMATS>(i);
            return Parsing::GoOn;
        }
    }
    return command.Fail("Invalid format value! (must be: numeric, graphic, combo, or ini)\r\n");
}

Parsing OnSortedGroup(MemoryCommand& command, const char* pszValue) {
    struct Row {
        const char* pszKey;
        TQ_MEM_SORT_FORMATS eSort;
    };
    static const Row kRows[] = {{"alpha", TQ_MEM_SORT_FORMATS::NAME},
                                {"bytes", TQ_MEM_SORT_FORMATS::BYTES},
                                {"count", TQ_MEM_SORT_FORMATS::COUNT},
                                {"ratio", TQ_MEM_SORT_FORMATS::RATIO}};
    command.bReverseSort = *pszValue == '-';
    const char* pszKey = command.bReverseSort ? pszValue + 1 : pszValue;
    for (const Row& row : kRows) {
        if (BeginsWith(pszKey, row.pszKey)) {
            command.bGroup = true;
            command.eSort = row.eSort;
            return Parsing::GoOn;
        }
    }
    return command.Fail("Invalid group value! (must be: [-]alpha, [-]bytes, [-]count, or [-]ratio)\r\n");
}

Parsing OnGroup(MemoryCommand& command, const char*) {
    command.bGroup = true;
    return Parsing::GoOn;
}

Parsing OnFile(MemoryCommand& command, const char* pszValue) {
    if (command.file.Open(pszValue)) {
        return Parsing::GoOn;
    }
    tq_MemoryRows rows;
    rows.Add("Failed to open file: %s!\r\n", pszValue);
    rows.End();
    command.reader.Tell(rows);
    return Parsing::Failed;
}

struct MemoryOption {
    const char* pszStart;
    Parsing (*take)(MemoryCommand& command, const char* pszValue);
};

const MemoryOption kMemoryOptions[] = {
    // order matters: "group=" must be seen before "group"
    {"pool=", OnPool},  {"filter=", OnFilter}, {"filterout=", OnFilterOut}, {"histogram", OnHistogram},
    {"size=", OnSize},  {"line=", OnLine},     {"format=", OnFormat},       {"group=", OnSortedGroup},
    {"group", OnGroup}, {"file=", OnFile},
};

/// A word that is no option is passed over.
Parsing TakeOption(MemoryCommand& command, const char* pszWord) {
    for (const MemoryOption& option : kMemoryOptions) {
        if (BeginsWith(pszWord, option.pszStart)) {
            return option.take(command, pszWord + strlen(option.pszStart));
        }
    }
    return Parsing::GoOn;
}

/// False when the command ended with an error text.
bool ParseMemoryCommand(MemoryCommand& command, char* pszCommand) {
    Parsing parsing = Parsing::GoOn;
    while (parsing == Parsing::GoOn && pszCommand) {
        const char* pszWord = tq_NextConsoleWord(&pszCommand);
        if (!pszWord) {
            break;
        }
        parsing = TakeOption(command, pszWord);
    }
    return parsing != Parsing::Failed;
}

void ShowHistogramFor(const MemoryCommand& command, unsigned int instance) {
    if (command.bGroup || command.pszFilter || command.pszFilterOut) {
        command.reader.Tell("Conflicting requests. Only use [file=] or [format=] with histogram requests.\r\n");
    } else {
        tq_MemoryShowHistogram(instance, command.file.Get(), command.eFormat);
    }
}

} // namespace

void tq_ShowMemory(unsigned int instance, unsigned int uiFlags, char* pszCommand) {
    const Reader console = {instance, false, nullptr};
    MemoryCommand command(console);
    if (!ParseMemoryCommand(command, pszCommand)) {
        return;
    }
    if (command.bHistogram) {
        ShowHistogramFor(command, instance);
    } else if (gbUseMemoryPooling) {
        tq_ShowMemoryPools(instance, uiFlags, /*bPrintf=*/false, command.file.Get(), command.pool, command.bGroup,
                           command.pszFilter, command.pszFilterOut, command.eSort, command.bReverseSort,
                           command.bFixedSize, command.size, command.line);
    } else if (gbUseMemoryTracking) {
        tq_ShowMemoryTrackingOnly(instance);
    } else {
        console.Tell("Memory Pooling or Memory Tracking must be enabled for this.\r\n");
    }
}
