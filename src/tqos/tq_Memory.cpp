#include "tq_Memory_p.h"

#include <algorithm>
#include <numeric>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "tq_Base.h"
#include "tq_Dir_p.h"
#include "tq_IniKeys_p.h"

// Settings

unsigned int gDirtyMemoryAlloc = 256;
unsigned int gDirtyMemoryFree = 256;
bool gbUseMemoryTracking = false;
bool gbUseMemoryPooling = false;
bool gbGrowPools = true;
unsigned int gMemoryAlignment = 0;
unsigned int gMemoryAlignmentUnit = 0;
unsigned int gMemoryAlignmentMask = 0;
bool gbMemoryAlignmentCheck = false;
std::atomic<unsigned int> gMemoryCapInBytes{0};
bool gbUseMemoryHistogram = false;
unsigned int gMemoryHistogramMaxSize = 0;
unsigned int gTotalMemoryHeader = 0;
unsigned int gTotalMemoryOverhead = 0;

bool gbTelnetShowMemoryCalled = false;

// State

myCritSec MemoryTrackingCritSec(tq_LockRank::kMemoryCounters);
tq_MemorySums gMemoryInUse;
tq_MemorySum<&tq_MemoryBytes::requested> gRequestedMemoryAllocations;
tq_MemorySum<&tq_MemoryBytes::total> gTotalMemoryAllocations;
std::atomic<unsigned int> gMaxRequestedMemoryAllocations{0};
std::atomic<unsigned int> gMaxTotalMemoryAllocations{0};
unsigned int* gpMemoryHistogram = nullptr;
unsigned int* gpMemoryHistogramMax = nullptr;

namespace {

/// Blocks are the heap's own: nothing is tracked, pooled, aligned or filled. Follows from the settings.
bool gbPlainMemory = true;

constexpr char kSection[] = "Memory";

const tq_IniInteger kFillAndAlignmentKeys[] = {
    {"DirtyMemoryAlloc", 256, &gDirtyMemoryAlloc},
    {"DirtyMemoryFree", 256, &gDirtyMemoryFree},
    {"MemoryAlignment", 0, &gMemoryAlignment},
};
const tq_IniSwitch kLayoutKeys[] = {
    {"EnableMemoryTracking", false, &gbUseMemoryTracking},
    {"EnableMemoryPooling", false, &gbUseMemoryPooling},
};
const tq_IniSwitch kAlignmentCheckKeys[] = {{"MemoryAlignmentCheck", false, &gbMemoryAlignmentCheck}};
const tq_IniSwitch kHistogramKeys[] = {{"EnableHistogram", false, &gbUseMemoryHistogram}};
const tq_IniInteger kHistogramSizeKeys[] = {{"HistogramMaxSize", 512000, &gMemoryHistogramMaxSize}};

constexpr unsigned int kLargestAlignment = 128;
constexpr unsigned int kAlignmentWhenTooLarge = 4;
constexpr unsigned int kLargestRequest = 0x80000000u;
constexpr unsigned int kFirstValueWithoutFill = 256;
constexpr char kPrefixMark = '7';

constexpr unsigned char kLiveCheckBytes[kMemoryCheckBytes] = {0xFF, 0xFF, 0xFF, 0xFF};
constexpr unsigned char kFreedCheckBytes[kMemoryCheckBytes] = {0xFE, 0xFE, 0xFE, 0xFE};

// How the module's reports are graded; the values of the library's trace instance.
constexpr int kLevelWarning = 30000;
constexpr int kLevelSevere = 40000;
constexpr int kCategoryMemory = 8;

/// Where in the caller's sources a request comes from.
struct CallSite {
    const char* pszFilename;
    unsigned int line;
};

const char* NameOrUnknown(const char* pszFilename) {
    return pszFilename ? pszFilename : "(Unknown)";
}

/// The text of a report, built in place: a report is made when memory is short or corrupted. What does not fit is cut.
class Message {
public:
    void Append(const char* pszFormat, ...) TQ_PRINTF(2, 3) {
        va_list args;
        va_start(args, pszFormat);
        const int length = vsnprintf(m_text + m_length, sizeof(m_text) - m_length, pszFormat, args);
        va_end(args);
        if (length > 0) {
            m_length += static_cast<size_t>(length);
            m_length = m_length < sizeof(m_text) ? m_length : sizeof(m_text) - 1;
        }
    }
    const char* Text() const { return m_text; }

private:
    char m_text[2048] = "";
    size_t m_length = 0;
};

/// A request that could not be met.
void ReportFailedRequest(const Message& message) {
    LogCriticalError(message.Text(), false, kLevelWarning, kCategoryMemory);
    tq_Assert(false);
}

/// A block that is damaged or misused.
void ReportCorruption(const Message& message) {
    tq_ReportMemoryCorruption(message.Text());
}

[[gnu::cold, gnu::noinline]] void ReportHugeRequest(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Failing memory allocation request:\n    size: %u bytes from:\n    line %u in file: %s\n", size,
                   site.line, NameOrUnknown(site.pszFilename));
    ReportFailedRequest(message);
}

/// The cap is the application's own choice, so meeting it asserts nothing.
[[gnu::cold, gnu::noinline]] void ReportCapReached(unsigned int size, const CallSite& site, int level) {
    Message message;
    message.Append("Exceeded defined memory cap of %u bytes\n    size: %u bytes from:\n    line %u in file: %s\n",
                   gMemoryCapInBytes.load(), size, site.line, NameOrUnknown(site.pszFilename));
    LogCriticalError(message.Text(), false, level, kCategoryMemory);
}

[[gnu::cold, gnu::noinline]] void ReportNoMemory(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Unable to allocate Memory\n    size: %u bytes from:\n    line %u in file: %s\n", size, site.line,
                   NameOrUnknown(site.pszFilename));
    if (gbUseMemoryTracking) {
        const tq_MemoryCounters counters = tq_ReadMemoryCounters();
        message.Append("  Current: %u bytes requested and %u bytes allocated through tqos.\n", counters.now.requested,
                       counters.now.total);
        message.Append("  Maximum: %u bytes requested and %u bytes allocated through tqos.\n", counters.most.requested,
                       counters.most.total);
    }
    ReportFailedRequest(message);
}

/// Deliberate: a missing name stands in double parentheses here, and in single ones in every other report.
[[gnu::cold, gnu::noinline]] void ReportFailedReallocation(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Unable to re-allocate Memory\n    size: %u bytes from:\n    line %u in file: %s\n", size, site.line,
                   site.pszFilename ? site.pszFilename : "((Unknown))");
    ReportFailedRequest(message);
}

void AppendAllocatedAndFreed(Message& message, char* pBlock, const CallSite& freer) {
    message.Append("    Allocated from line: %u in file: %s\n", tq_MemoryHeaderOf(pBlock)->line,
                   GetMemoryFilename(pBlock));
    message.Append("    Freed from line: %u in file: %s\n", freer.line, NameOrUnknown(freer.pszFilename));
}

[[gnu::cold, gnu::noinline]] void ReportMismatch(char* pBlock, const CallSite& freer) {
    Message message;
    message.Append("Mismatched alloc/free types...\n");
    AppendAllocatedAndFreed(message, pBlock, freer);
    ReportCorruption(message);
}

/// What no tracked block tells of: where it was allocated.
[[gnu::cold, gnu::noinline]] void ReportUntrackedMismatch(const CallSite& freer) {
    Message message;
    message.Append("Mismatched alloc/free types...\n    Freed from line: %u in file: %s\n", freer.line,
                   NameOrUnknown(freer.pszFilename));
    ReportCorruption(message);
}

bool AreCheckBytes(const unsigned char* pBytes, const unsigned char (&expected)[kMemoryCheckBytes]) {
    return memcmp(pBytes, expected, kMemoryCheckBytes) == 0;
}

[[gnu::cold, gnu::noinline]] void ReportHead(char* pBlock, const CallSite& freer) {
    Message message;
    const unsigned char* pBytes = tq_MemoryHeadBytes(pBlock);
    if (tq_IsMemoryHeadFreed(pBlock)) {
        message.Append("Double Freed memory block...\n");
        message.Append("    Previously Freed from line: %u in file: %s\n", tq_MemoryHeaderOf(pBlock)->freedLine,
                       GetMemoryFreedFilename(pBlock));
    } else {
        message.Append("Corrupted Header bytes on memory free...\n");
    }
    message.Append("    Header bytes = 0x%x 0x%x 0x%x 0x%x\n", pBytes[0], pBytes[1], pBytes[2], pBytes[3]);
    AppendAllocatedAndFreed(message, pBlock, freer);
    ReportCorruption(message);
}

[[gnu::cold, gnu::noinline]] void ReportTail(char* pBlock, const CallSite& freer) {
    Message message;
    const unsigned char* pBytes = tq_MemoryTailBytes(pBlock);
    message.Append("Corrupted Tail bytes on memory free...\n");
    message.Append("    Tail bytes = 0x%x 0x%x 0x%x 0x%x\n", pBytes[0], pBytes[1], pBytes[2], pBytes[3]);
    AppendAllocatedAndFreed(message, pBlock, freer);
    ReportCorruption(message);
}

// Alignment

constexpr unsigned int kNoPrefix = ~0u;

/// The length of the alignment prefix in front of a block: the steps back to the nearest '7', where the heap block
/// starts. kNoPrefix when the check is on and none is found within the longest prefix there can be.
unsigned int PrefixBytes(const char* pBlock) {
    if (gMemoryAlignmentUnit == 0) {
        return 0;
    }
    for (unsigned int steps = 1; !gbMemoryAlignmentCheck || steps <= gMemoryAlignmentUnit; ++steps) {
        if (*(pBlock - steps) == kPrefixMark) {
            return steps;
        }
    }
    return kNoPrefix;
}

/// A prefix that has become longer covers bytes of the block's former place. A '7' among them would be taken for the
/// start of the heap block; the others may stay.
void ClearStrayMarks(char* pHeap, unsigned int prefixBytes) {
    for (char* pByte = pHeap + 1; pByte < pHeap + prefixBytes; ++pByte) {
        if (*pByte == kPrefixMark) {
            *pByte = 0;
        }
    }
}

// Counting

void RaiseTo(std::atomic<unsigned int>& most, unsigned int now) {
    unsigned int known = most.load(std::memory_order_relaxed);
    while (now > known && !most.compare_exchange_weak(known, now, std::memory_order_relaxed)) {
    }
}

/// Counts bytes that are now in use.
void CountBytes(unsigned int requested, unsigned int allocated) {
    const tq_MemoryBytes now = gMemoryInUse.Add({requested, allocated});
    RaiseTo(gMaxRequestedMemoryAllocations, now.requested);
    RaiseTo(gMaxTotalMemoryAllocations, now.total);
}

void UncountBytes(unsigned int requested, unsigned int allocated) {
    gMemoryInUse.Subtract({requested, allocated});
}

/// The size comes from a header, which may have been run over.
bool IsInHistogramLocked(unsigned int size) {
    return gpMemoryHistogram && size != 0 && size <= gMemoryHistogramMaxSize;
}

bool IsUnderCap(unsigned int size) {
    const unsigned int cap = gMemoryCapInBytes.load(std::memory_order_relaxed);
    if (cap == 0) {
        return true;
    }
    return static_cast<unsigned long long>(gRequestedMemoryAllocations) + size <= cap;
}

void CountNewBlock(unsigned int size, unsigned int allocated) {
    CountBytes(size, allocated);
    if (!gbUseMemoryHistogram) {
        return;
    }
    myCritSecLock lock(MemoryTrackingCritSec);
    if (IsInHistogramLocked(size) && ++gpMemoryHistogram[size - 1] > gpMemoryHistogramMax[size - 1]) {
        gpMemoryHistogramMax[size - 1] = gpMemoryHistogram[size - 1];
    }
}

void CountFreedBlock(unsigned int size, unsigned int allocated) {
    UncountBytes(size, allocated);
    if (!gbUseMemoryHistogram) {
        return;
    }
    myCritSecLock lock(MemoryTrackingCritSec);
    if (IsInHistogramLocked(size) && gpMemoryHistogram[size - 1] != 0) {
        --gpMemoryHistogram[size - 1];
    }
}

// Blocks

[[gnu::cold, gnu::noinline]] void ReportPrefix(const CallSite& freer) {
    Message message;
    message.Append("Corrupted Memory Alignment Header:\n    line %u in file: %s\n", freer.line,
                   NameOrUnknown(freer.pszFilename));
    ReportCorruption(message);
}

bool IsInPool(char* pBlock) {
    return tq_MemoryPoolOf(pBlock) != kNoMemoryPool;
}

/// The bytes that a block takes for a caller's: in a pool those of its slot.
unsigned int BytesTakenFor(unsigned int size, char* pBlock) {
    const unsigned int capacity = tq_MemorySlotCapacity(pBlock);
    return (capacity == kNoSlot ? size : capacity) + gTotalMemoryOverhead;
}

/// Deliberate: the flags of a fresh block are not cleared first; the type is added to what the heap left there, so a
/// stray type bit can hide a mismatch. Only the mark of a freeing place set in advance is taken out: the freer would
/// follow it to a name that was never stored. (With pools they were just set: the block is in use, and nothing else.)
unsigned short FreshFlags(const _MEM_HEADER_TRACKING_ONLY* pHeader, unsigned int type) {
    const volatile _MEM_HEADER_TRACKING_ONLY* pAsFound = pHeader; // volatile: the compiler may not think it undefined
    // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): what the heap left is what is asked for
    return static_cast<unsigned short>((pAsFound->Flags & ~TQ_MEM_FLAG_FREED_LOCATION_SET) | type);
}

void WriteTrackingHeader(char* pBlock, unsigned int size, unsigned int type, const CallSite& site) {
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    pHeader->Flags = FreshFlags(pHeader, type);
    pHeader->size = size;
    pHeader->pFile = site.pszFilename;
    pHeader->line = site.line;
    // Deliberate: a slot keeps the record of its last freeing, which the search for damage shows. A heap block has
    // none: null is what a head run over with the freed bytes is reported with.
    if (!IsInPool(pBlock)) {
        pHeader->pFreedFile = nullptr;
        pHeader->freedLine = 0;
    }
    memcpy(tq_MemoryHeadBytes(pBlock), kLiveCheckBytes, kMemoryCheckBytes);
    memcpy(tq_MemoryTailBytes(pBlock), kLiveCheckBytes, kMemoryCheckBytes);
}

/// What a new block says of itself in the mode of the moment.
void WriteHeader(char* pBlock, unsigned int size, unsigned int type, const CallSite& site) {
    if (gbUseMemoryTracking) {
        WriteTrackingHeader(pBlock, size, type, site);
    } else if (gbUseMemoryPooling) {
        _MEM_HEADER_POOLING_ONLY* pHeader = tq_MemoryPoolHeaderOf(pBlock);
        pHeader->Flags = static_cast<unsigned short>(pHeader->Flags | type);
    }
}

/// A block with its header, its contents as they were; null when there is none. In a pool it is complete before the
/// pool's lock is left, so that whoever walks over the slots sees no half of one.
char* TakeBlock(unsigned int size, unsigned int type, const CallSite& site) {
    const unsigned int bytes = size + gTotalMemoryOverhead;
    tq_MemoryPoolHold hold(gbUseMemoryPooling ? WhichPool(bytes) : kNoMemoryPool);
    char* pBlock = gbUseMemoryPooling ? static_cast<char*>(tq_MemoryPoolMalloc(bytes)) : tq_TakeMemoryHeapBlock(bytes);
    if (pBlock) {
        WriteHeader(pBlock, size, type, site);
    }
    return pBlock;
}

/// Gives a block back, or reports that its prefix is corrupted and leaves it.
void ReleaseBlock(char* pBlock, const CallSite& freer) {
    if (gbUseMemoryPooling) {
        tq_MemoryPoolFree(pBlock);
    } else if (!tq_FreeMemoryHeapBlock(pBlock)) {
        ReportPrefix(freer);
    }
}

/// A block's flags; a mark may be changing them.
unsigned short FlagsOf(char* pBlock) {
    tq_MemoryPoolHold hold(tq_MemoryPoolOf(pBlock));
    return gbUseMemoryPooling ? tq_MemoryPoolHeaderOf(pBlock)->Flags : tq_MemoryHeaderOf(pBlock)->Flags;
}

/// Takes a block out of the tracking and marks it freed; false when it must not be freed (which has been reported).
/// The freer becomes the place recorded in advance, if there is one.
bool EndTracking(char* pBlock, unsigned short type, CallSite& freer) {
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    const unsigned int size = pHeader->size;
    const unsigned short flags = FlagsOf(pBlock);
    if (flags & TQ_MEM_FLAG_FREED_LOCATION_SET) {
        freer = {pHeader->pFreedFile, pHeader->freedLine};
    }
    // Deliberate: counted out before any check, so that a block which is then refused and stays is counted no more.
    CountFreedBlock(size, BytesTakenFor(size, pBlock));
    if ((flags & type) == 0) {
        ReportMismatch(pBlock, freer);
        return false;
    }
    if (ValidateMemoryBlockCheckBytes(pBlock, freer.pszFilename, freer.line)) {
        return false;
    }
    if (gDirtyMemoryFree < kFirstValueWithoutFill) {
        memset(pBlock + gTotalMemoryHeader, static_cast<int>(gDirtyMemoryFree), size);
    }
    tq_MemoryPoolHold hold(tq_MemoryPoolOf(pBlock));
    memcpy(tq_MemoryHeadBytes(pBlock), kFreedCheckBytes, kMemoryCheckBytes);
    pHeader->pFreedFile = freer.pszFilename;
    pHeader->freedLine = freer.line;
    return true;
}

/// While nothing is tracked only a pool's header says anything: the family. The pool's lock is taken for this and for
/// the release together.
bool ReleaseIfOfFamily(char* pBlock, unsigned short type, const CallSite& freer) {
    tq_MemoryPoolHold hold(tq_MemoryPoolOf(pBlock));
    const bool bOfFamily = !gbUseMemoryPooling || (tq_MemoryPoolHeaderOf(pBlock)->Flags & type) != 0;
    if (bOfFamily) {
        ReleaseBlock(pBlock, freer);
    }
    return bOfFamily;
}

// Resizing

/// Resizes a tracked block where the heap can, else moves it; the result is the block, null when it stays as it was.
/// Flags and head check bytes travel along, the histogram is not touched, no cap is asked.
char* ResizeTrackedBlock(char* pBlock, unsigned int newSize, const CallSite& site) {
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    const unsigned int oldSize = pHeader->size;
    pHeader->pFreedFile = site.pszFilename;
    pHeader->freedLine = site.line;
    size_t bytes = 0;
    char* pResized = nullptr;
    if (!__builtin_add_overflow(newSize, gTotalMemoryOverhead, &bytes)) {
        pResized = static_cast<char*>(reallocWithAlignment(pBlock, bytes));
    }
    if (pResized) {
        pHeader = tq_MemoryHeaderOf(pResized);
        pHeader->size = newSize;
        pHeader->pFile = site.pszFilename;
        pHeader->line = site.line;
        memcpy(tq_MemoryTailBytes(pResized), kLiveCheckBytes, kMemoryCheckBytes);
    }
    // Deliberate: the old size is counted out also when the block could not be resized and stays allocated. Freeing it
    // counts it out once more.
    UncountBytes(oldSize, oldSize + gTotalMemoryOverhead);
    if (pResized) {
        CountBytes(newSize, newSize + gTotalMemoryOverhead);
    }
    return pResized;
}

/// The pool for a new size; a size that is refused has none.
unsigned int PoolForSize(unsigned int size) {
    return size > kLargestRequest ? kNoMemoryPool : WhichPool(size + gTotalMemoryOverhead);
}

/// A new size within the same slot. Deliberate: the place where it was allocated stays, where a resized block outside
/// the pools takes that of the call.
void ResizeInSlot(char* pBlock, unsigned int newSize) {
    if (!gbUseMemoryTracking) {
        return; // nothing says how much of a slot is used
    }
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    const unsigned int difference = newSize - pHeader->size; // modulo 2^32, as the sums are
    {
        const unsigned int pool = tq_MemoryPoolOf(pBlock);
        tq_MemoryPoolHold hold(pool);
        pHeader->size = newSize;
        memcpy(tq_MemoryTailBytes(pBlock), kLiveCheckBytes, kMemoryCheckBytes);
        tq_CountPoolBytesLocked(pool, difference);
    }
    CountBytes(difference, 0);
}

/// What a block holds for its owner; for a heap block that nothing tracks it is not known.
unsigned int SizeOf(char* pBlock) {
    if (gbUseMemoryTracking) {
        return tq_MemoryHeaderOf(pBlock)->size;
    }
    const unsigned int capacity = tq_MemorySlotCapacity(pBlock);
    return capacity == kNoSlot ? 0 : capacity;
}

void* ReallocateWithPools(void* pointer, unsigned int newSize, const CallSite& site) {
    char* pBlock = static_cast<char*>(pointer) - gTotalMemoryHeader;
    const unsigned int pool = tq_MemoryPoolOf(pBlock);
    if (pool < TotalPools && pool == PoolForSize(newSize)) {
        ResizeInSlot(pBlock, newSize);
        return pointer;
    }
    if (pool == kNoMemoryPool && !gbUseMemoryTracking) {
        size_t bytes = 0;
        if (__builtin_add_overflow(newSize, gTotalMemoryOverhead, &bytes)) {
            return nullptr;
        }
        char* pResized = static_cast<char*>(reallocWithAlignment(pBlock, bytes));
        return pResized ? pResized + gTotalMemoryHeader : nullptr;
    }
    void* pMoved = tq__malloc(newSize, site.pszFilename, site.line);
    if (pMoved) {
        memcpy(pMoved, pointer, std::min(newSize, SizeOf(pBlock)));
        tq__free(pointer, site.pszFilename, site.line);
    }
    return pMoved;
}

void* Reallocate(void* pointer, unsigned int newSize, const CallSite& site) {
    if (!pointer) {
        return tq__malloc(newSize, site.pszFilename, site.line);
    }
    if (newSize == 0) {
        tq__free(pointer, site.pszFilename, site.line);
        return nullptr;
    }
    if (gbUseMemoryPooling) {
        return ReallocateWithPools(pointer, newSize, site);
    }
    if (!gbUseMemoryTracking) {
        return reallocWithAlignment(pointer, newSize);
    }
    char* pResized = ResizeTrackedBlock(static_cast<char*>(pointer) - gTotalMemoryHeader, newSize, site);
    return pResized ? pResized + gTotalMemoryHeader : nullptr;
}

} // namespace

void myCritSec::Wait() {
    tq_Spin spin(m_waits);
    if (spin.MayPay() && spin.Look(kNanosecondsBetweenLooks, [this] {
            unsigned int state = m_state.load(std::memory_order_relaxed);
            return state == kFree &&
                   m_state.compare_exchange_strong(state, kTaken, std::memory_order_acquire, std::memory_order_relaxed);
        })) {
        return;
    }
    // Awaited from here on, also when this thread gets it: others may be asleep still, and nobody else remembers them.
    while (m_state.exchange(kAwaited, std::memory_order_acquire) != kFree) {
        tq_Futex::Sleep(m_state, static_cast<unsigned int>(kAwaited), nullptr);
    }
}

unsigned int tq_MemoryAboveAlignment(const char* pAddress) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(pAddress);
    const uintptr_t above = gMemoryAlignmentMask ? address & gMemoryAlignmentMask : address % gMemoryAlignmentUnit;
    return static_cast<unsigned int>(above);
}

char* MemoryAlignmentAdjustment(char* pPointer) {
    if (gMemoryAlignmentUnit == 0) {
        return pPointer;
    }
    memset(pPointer, 0, gMemoryAlignmentUnit);
    *pPointer = kPrefixMark;
    return pPointer + (gMemoryAlignmentUnit - tq_MemoryAboveAlignment(pPointer + gTotalMemoryHeader));
}

char* tq_TakeMemoryHeapBlock(unsigned int bytes) {
    size_t heapBytes = 0;
    if (__builtin_add_overflow(gMemoryAlignmentUnit, bytes, &heapBytes)) {
        return nullptr;
    }
    char* pHeap = static_cast<char*>(malloc(heapBytes));
    return pHeap ? MemoryAlignmentAdjustment(pHeap) : nullptr;
}

bool tq_FreeMemoryHeapBlock(char* pBlock) {
    const unsigned int prefixBytes = PrefixBytes(pBlock);
    if (prefixBytes == kNoPrefix) {
        return false;
    }
    free(pBlock - prefixBytes);
    return true;
}

void* reallocWithAlignment(void* pointer, size_t newSize) {
    char* pBlock = static_cast<char*>(pointer);
    const unsigned int oldOffset = PrefixBytes(pBlock);
    if (oldOffset == kNoPrefix) {
        Message message;
        message.Append("Corrupted Memory Alignment Header detected!\n");
        ReportCorruption(message);
        return nullptr;
    }
    size_t bytes = 0;
    if (__builtin_add_overflow(newSize, static_cast<size_t>(gMemoryAlignmentUnit), &bytes)) {
        return nullptr;
    }
    char* pNewHeap = static_cast<char*>(realloc(pBlock - oldOffset, bytes));
    if (!pNewHeap || gMemoryAlignmentUnit == 0) {
        return pNewHeap;
    }
    // Deliberate: an allocation aligns the user pointer; here the block is aligned, without regard to the header, so
    // the user pointer of a tracked block lies the header's length above a multiple of the alignment.
    const unsigned int newOffset = gMemoryAlignmentUnit - tq_MemoryAboveAlignment(pNewHeap);
    if (newOffset != oldOffset) {
        memmove(pNewHeap + newOffset, pNewHeap + oldOffset, newSize);
    }
    if (newOffset > oldOffset) {
        ClearStrayMarks(pNewHeap, newOffset);
    }
    return pNewHeap + newOffset;
}

namespace {

/// A block with all that surrounds it. Out of line, as is freeing one, so that a plain block costs no more than it
/// must.
[[gnu::noinline]] void* AllocateWithHeader(unsigned int size, unsigned int type, const CallSite& site) {
    if (size > kLargestRequest) {
        ReportHugeRequest(size, site);
        return nullptr;
    }
    if (gbUseMemoryTracking && !IsUnderCap(size)) {
        ReportCapReached(size, site, kLevelWarning);
        return nullptr;
    }
    char* pBlock = TakeBlock(size, type, site);
    if (!pBlock) {
        ReportNoMemory(size, site);
        return nullptr;
    }
    if (gbUseMemoryTracking) {
        CountNewBlock(size, BytesTakenFor(size, pBlock));
    }
    char* pUserData = pBlock + gTotalMemoryHeader;
    if (gDirtyMemoryAlloc < kFirstValueWithoutFill) {
        memset(pUserData, static_cast<int>(gDirtyMemoryAlloc), size);
    }
    return pUserData;
}

inline void* Allocate(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line) {
    size = size == 0 ? 1 : size;
    if (!gbPlainMemory || size > kLargestRequest) {
        return AllocateWithHeader(size, type, {pszFilename, line});
    }
    void* const pBlock = malloc(size);
    if (__builtin_expect(!pBlock, 0)) {
        ReportNoMemory(size, {pszFilename, line});
    }
    return pBlock;
}

[[gnu::noinline]] void FreeWithHeader(void* pointer, unsigned short type, CallSite freer) {
    if (!pointer) {
        return;
    }
    char* pBlock = static_cast<char*>(pointer) - gTotalMemoryHeader;
    if (gbUseMemoryTracking) {
        if (EndTracking(pBlock, type, freer)) {
            ReleaseBlock(pBlock, freer);
        }
    } else if (!ReleaseIfOfFamily(pBlock, type, freer)) {
        ReportUntrackedMismatch(freer);
    }
}

inline void Free(void* pointer, unsigned short type, const char* pszFilename, unsigned int line) {
    if (!gbPlainMemory) {
        FreeWithHeader(pointer, type, {pszFilename, line});
        return;
    }
    free(pointer);
}

} // namespace

void* tq__alloc(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line) {
    return Allocate(size, type, pszFilename, line);
}

void* tq__malloc(unsigned int size, const char* pszFilename, unsigned int line) {
    return Allocate(size, TQ_MEM_TYPE_MALLOC, pszFilename, line);
}

void* tq__new(unsigned int size, const char* pszFilename, unsigned int line) {
    return Allocate(size, TQ_MEM_TYPE_NEW, pszFilename, line);
}

// Deliberate: one type for objects and arrays, so freeing an array as an object, or an object as an array, is accepted.
void* tq__newArray(unsigned int size, const char* pszFilename, unsigned int line) {
    return tq__alloc(size, TQ_MEM_TYPE_NEW, pszFilename, line);
}

void* tq__calloc(unsigned int count, unsigned int size, const char* pszFilename, unsigned int line) {
    // Deliberate: a product beyond 32 bits wraps and gives a block of the wrapped size, which is all that is zeroed.
    const unsigned int bytes = count * size;
    void* pUserData = tq__malloc(bytes, pszFilename, line);
    if (pUserData) {
        memset(pUserData, 0, bytes ? bytes : 1);
    }
    return pUserData;
}

unsigned char* tq__newString(const unsigned char* pszString, const char* pszFilename, unsigned int line) {
    const char* pszText = pszString ? reinterpret_cast<const char*>(pszString) : "";
    const size_t bytes = strlen(pszText) + 1;
    // A text that 32 bits cannot measure is asked for as the largest size, which is refused.
    const unsigned int size = bytes > UINT32_MAX ? UINT32_MAX : static_cast<unsigned int>(bytes);
    void* pCopy = tq__malloc(size, pszFilename, line);
    if (pCopy) {
        memcpy(pCopy, pszText, size);
    }
    return static_cast<unsigned char*>(pCopy);
}

void tq__dealloc(void* pointer, unsigned short type, const char* pszFilename, unsigned int line) {
    Free(pointer, type, pszFilename, line);
}

void tq__free(void* pointer, const char* pszFilename, unsigned int line) {
    Free(pointer, TQ_MEM_TYPE_MALLOC, pszFilename, line);
}

void tq__delete(void* pointer, const char* pszFilename, unsigned int line) {
    Free(pointer, TQ_MEM_TYPE_NEW, pszFilename, line);
}

void tq__deleteArray(void* pointer, const char* pszFilename, unsigned int line) {
    Free(pointer, TQ_MEM_TYPE_NEW, pszFilename, line);
}

void tq_FreeEitherFamily(void* pointer, const char* pszFilename, unsigned int line) {
    tq__dealloc(pointer, TQ_MEM_TYPE_MALLOC | TQ_MEM_TYPE_NEW, pszFilename, line);
}

// Deliberate: a new size of 0 frees the block and then counts as a failure: it is reported and gives null.
void* tq__realloc(void* pointer, unsigned int newSize, const char* pszFilename, unsigned int line) {
    const CallSite site = {pszFilename, line};
    void* pResized = Reallocate(pointer, newSize, site);
    if (!pResized) {
        ReportFailedReallocation(newSize, site);
    }
    return pResized;
}

void tq_SetMemoryFreedFilenameAndLine(void* ptr, const char* pszFilename, unsigned int line) {
    if (!ptr || !gbUseMemoryTracking) {
        return;
    }
    char* pBlock = static_cast<char*>(ptr) - gTotalMemoryHeader;
    if (ValidateMemoryBlockCheckBytes(pBlock, pszFilename, line)) {
        return;
    }
    tq_MemoryPoolHold hold(tq_MemoryPoolOf(pBlock));
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    pHeader->Flags = static_cast<unsigned short>(pHeader->Flags | TQ_MEM_FLAG_FREED_LOCATION_SET);
    pHeader->pFreedFile = pszFilename;
    pHeader->freedLine = line;
}

void* tq_SpoofMalloc(unsigned int size, const char* pszFilename, unsigned int line) {
    const CallSite site = {pszFilename, line};
    if (size > kLargestRequest) {
        ReportHugeRequest(size, site);
        return nullptr;
    }
    if (gbUseMemoryTracking && !IsUnderCap(size)) {
        ReportCapReached(size, site, kLevelSevere); // Deliberate: a grade higher than other requests
        return nullptr;
    }
    const unsigned int bytes = size + gTotalMemoryOverhead;
    char* pBlock = tq_TakeMemoryHeapBlock(bytes);
    if (!pBlock) {
        ReportNoMemory(size, site);
        return nullptr;
    }
    memset(pBlock, 0, bytes);
    if (gbUseMemoryPooling) {
        tq_MemoryPoolHeaderOf(pBlock)->nPool = kNoMemoryPool;
    }
    WriteHeader(pBlock, size, TQ_MEM_TYPE_MALLOC | TQ_MEM_FLAG_IN_USE, site);
    if (gbUseMemoryTracking) {
        CountNewBlock(size, bytes);
    }
    return pBlock + gTotalMemoryHeader;
}

unsigned int tq_GetMemoryAlignment() {
    return gMemoryAlignment;
}

// Reports

/// A mark is raised a moment after the sum that it is the mark of.
tq_MemoryCounters tq_ReadMemoryCounters() {
    const tq_MemoryBytes now = gMemoryInUse.Read();
    return {now,
            {std::max(now.requested, gMaxRequestedMemoryAllocations.load(std::memory_order_relaxed)),
             std::max(now.total, gMaxTotalMemoryAllocations.load(std::memory_order_relaxed))}};
}

void tq_ReportMemoryCorruption(const char* pszMessage) {
    LogCriticalError(pszMessage, false, kLevelSevere, kCategoryMemory);
    tq_Assert(false);
}

unsigned char* tq_MemoryHeadBytes(char* pBlock) {
    return reinterpret_cast<unsigned char*>(pBlock) + gTotalMemoryHeader - kMemoryCheckBytes;
}

unsigned char* tq_MemoryTailBytes(char* pBlock) {
    const unsigned int size = std::min<unsigned int>(tq_MemoryHeaderOf(pBlock)->size, tq_MemorySlotCapacity(pBlock));
    return reinterpret_cast<unsigned char*>(pBlock) + gTotalMemoryHeader + size;
}

bool tq_IsMemoryHeadSound(char* pBlock) {
    return AreCheckBytes(tq_MemoryHeadBytes(pBlock), kLiveCheckBytes);
}

bool tq_IsMemoryTailSound(char* pBlock) {
    const bool bInsideSlot = tq_MemoryHeaderOf(pBlock)->size <= tq_MemorySlotCapacity(pBlock);
    return bInsideSlot && AreCheckBytes(tq_MemoryTailBytes(pBlock), kLiveCheckBytes);
}

bool tq_IsMemoryHeadFreed(char* pBlock) {
    return AreCheckBytes(tq_MemoryHeadBytes(pBlock), kFreedCheckBytes);
}

bool ValidateMemoryBlockCheckBytes(char* pPointer, const char* pszFilename, unsigned int line) {
    const CallSite freer = {pszFilename, line};
    if (!tq_IsMemoryHeadSound(pPointer)) {
        ReportHead(pPointer, freer);
        return true;
    }
    if (!tq_IsMemoryTailSound(pPointer)) {
        ReportTail(pPointer, freer);
        return true;
    }
    return false;
}

namespace {

/// Whether a recorded name can be read. Deliberate: always yes; the names are literals of the callers' sources.
bool IsMemoryReadable(const char*) {
    return true;
}

const char* PrintableName(const char* pszFilename) {
    if (!pszFilename) {
        return "(Unknown)";
    }
    return IsMemoryReadable(pszFilename) ? pszFilename : "(Filename Unaccessible)";
}

} // namespace

const char* GetMemoryFilename(char* pPointer) {
    return gbUseMemoryTracking ? PrintableName(tq_MemoryHeaderOf(pPointer)->pFile) : "(No TQOS Tracking)";
}

const char* GetMemoryFreedFilename(char* pPointer) {
    return gbUseMemoryTracking ? PrintableName(tq_MemoryHeaderOf(pPointer)->pFreedFile) : "(No TQOS Tracking)";
}

// Start and stop

namespace {

void SetAlignment() {
    if (gMemoryAlignment > kLargestAlignment) {
        gMemoryAlignment = kAlignmentWhenTooLarge; // Deliberate: not the largest that is allowed
    }
    const unsigned int unit = gMemoryAlignment ? std::lcm(gMemoryAlignment, kMemoryUserAlignment) : 0;
    gMemoryAlignmentUnit = unit;
    gMemoryAlignmentMask = (unit & (unit - 1)) == 0 && unit != 0 ? unit - 1 : 0;
}

void SetLayout() {
    const unsigned int untracked = gbUseMemoryPooling ? kMemoryPoolingHeaderBytes : 0;
    gTotalMemoryHeader = gbUseMemoryTracking ? kMemoryTrackingHeaderBytes : untracked;
    gTotalMemoryOverhead = gbUseMemoryTracking ? kMemoryTrackingHeaderBytes + kMemoryCheckBytes : untracked;
    gbPlainMemory = !gbUseMemoryTracking && !gbUseMemoryPooling && gMemoryAlignment == 0 &&
                    gDirtyMemoryAlloc >= kFirstValueWithoutFill;
}

/// Settings that are read only when another asks for them go back to their defaults first.
void ReadINIFile() {
    gbMemoryAlignmentCheck = false;
    gMemoryCapInBytes = 0;
    gbUseMemoryHistogram = false;
    gbGrowPools = true;
    tq_ReadIniTable(kSection, kFillAndAlignmentKeys);
    tq_ReadIniTable(kSection, kLayoutKeys);
    SetAlignment();
    SetLayout();
    if (gMemoryAlignment != 0) {
        tq_ReadIniTable(kSection, kAlignmentCheckKeys);
    }
    if (gbUseMemoryTracking) {
        gMemoryCapInBytes =
            static_cast<unsigned int>(tq_GetINIFileInt(kSection, "MemoryCapInBytes", 0, psz_tqos_ini_file));
        tq_ReadIniTable(kSection, kHistogramKeys);
    }
    if (gbUseMemoryHistogram) {
        tq_ReadIniTable(kSection, kHistogramSizeKeys);
    }
    if (gbUseMemoryPooling) {
        gbGrowPools = !tq_GetINIFileAffirmative(kSection, "DoNotGrowPools", "no", psz_tqos_ini_file);
        tq_ReadMemoryPoolKeys(kSection);
    }
}

void ReplaceHistogram(unsigned int* pCurrent, unsigned int* pMax) {
    {
        myCritSecLock lock(MemoryTrackingCritSec);
        std::swap(gpMemoryHistogram, pCurrent);
        std::swap(gpMemoryHistogramMax, pMax);
    }
    free(pCurrent);
    free(pMax);
}

/// Both arrays or none; without them the histogram is off, which is no error.
void StartHistogram() {
    unsigned int* pCurrent = static_cast<unsigned int*>(calloc(gMemoryHistogramMaxSize, sizeof(unsigned int)));
    unsigned int* pMax = static_cast<unsigned int*>(calloc(gMemoryHistogramMaxSize, sizeof(unsigned int)));
    if (!pCurrent || !pMax) {
        free(pCurrent);
        free(pMax);
        gbUseMemoryHistogram = false;
        return;
    }
    ReplaceHistogram(pCurrent, pMax);
}

} // namespace

unsigned int tq_MemoryInitialize() {
    gbTelnetShowMemoryCalled = false;
    ReplaceHistogram(nullptr, nullptr);
    ReadINIFile();
    const unsigned int result = gbUseMemoryPooling ? tq_MemoryPoolInitialize() : 0;
    if (gbUseMemoryHistogram) {
        StartHistogram();
    }
    return result;
}

void tq_MemoryTerminate(bool bDumpResources) {
    if (gbUseMemoryPooling) {
        tq_MemoryPoolTerminate(bDumpResources);
    } else if (bDumpResources) {
        tq_MemoryRespond(gbUseMemoryTracking
                             ? "Memory Pooling must also be enabled to track memory leaks.\n"
                             : "Memory Pooling and Memory Tracking must be enabled to track memory leaks.\n",
                         /*bPrintf=*/true, nullptr, 0, 0);
    }
    ReplaceHistogram(nullptr, nullptr);
}
