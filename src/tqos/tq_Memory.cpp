#include "tq_Memory_p.h"

#include <numeric>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "tq_Base.h"
#include "tq_IniKeys_p.h"

// Settings

unsigned int gDirtyMemoryAlloc = 256;
unsigned int gDirtyMemoryFree = 256;
bool gbUseMemoryTracking = false;
unsigned int gMemoryAlignment = 0;
unsigned int gMemoryAlignmentUnit = 0;
unsigned int gMemoryAlignmentMask = 0;
bool gbMemoryAlignmentCheck = false;
unsigned int gMemoryCapInBytes = 0;
bool gbUseMemoryHistogram = false;
unsigned int gMemoryHistogramMaxSize = 0;
unsigned int gTotalMemoryHeader = 0;
unsigned int gTotalMemoryOverhead = 0;

bool gbTelnetShowMemoryCalled = false;

// State

myCritSec MemoryTrackingCritSec;
unsigned int gRequestedMemoryAllocations = 0;
unsigned int gTotalMemoryAllocations = 0;
unsigned int gMaxRequestedMemoryAllocations = 0;
unsigned int gMaxTotalMemoryAllocations = 0;
unsigned int* gpMemoryHistogram = nullptr;
unsigned int* gpMemoryHistogramMax = nullptr;

namespace {

constexpr char kSection[] = "Memory";

const tq_IniInteger kFillAndAlignmentKeys[] = {
    {"DirtyMemoryAlloc", 256, &gDirtyMemoryAlloc},
    {"DirtyMemoryFree", 256, &gDirtyMemoryFree},
    {"MemoryAlignment", 0, &gMemoryAlignment},
};
const tq_IniSwitch kTrackingKeys[] = {{"EnableMemoryTracking", false, &gbUseMemoryTracking}};
const tq_IniSwitch kAlignmentCheckKeys[] = {{"MemoryAlignmentCheck", false, &gbMemoryAlignmentCheck}};
const tq_IniInteger kCapKeys[] = {{"MemoryCapInBytes", 0, &gMemoryCapInBytes}};
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
    LogCriticalError(message.Text(), false, kLevelSevere, kCategoryMemory);
    tq_Assert(false);
}

[[gnu::cold, gnu::noinline]] void ReportHugeRequest(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Failing memory allocation request:\n    size: %u bytes from:\n    line %u in file: %s\n", size,
                   site.line, NameOrUnknown(site.pszFilename));
    ReportFailedRequest(message);
}

/// The cap is the application's own choice, so meeting it asserts nothing.
[[gnu::cold, gnu::noinline]] void ReportCapReached(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Exceeded defined memory cap of %u bytes\n    size: %u bytes from:\n    line %u in file: %s\n",
                   gMemoryCapInBytes, size, site.line, NameOrUnknown(site.pszFilename));
    LogCriticalError(message.Text(), false, kLevelWarning, kCategoryMemory);
}

struct Counters {
    unsigned int requested;
    unsigned int total;
    unsigned int maxRequested;
    unsigned int maxTotal;
};

Counters ReadCounters() {
    myCritSecLock lock(MemoryTrackingCritSec);
    return {gRequestedMemoryAllocations, gTotalMemoryAllocations, gMaxRequestedMemoryAllocations,
            gMaxTotalMemoryAllocations};
}

[[gnu::cold, gnu::noinline]] void ReportNoMemory(unsigned int size, const CallSite& site) {
    Message message;
    message.Append("Unable to allocate Memory\n    size: %u bytes from:\n    line %u in file: %s\n", size, site.line,
                   NameOrUnknown(site.pszFilename));
    if (gbUseMemoryTracking) {
        const Counters counters = ReadCounters();
        message.Append("  Current: %u bytes requested and %u bytes allocated through tqos.\n", counters.requested,
                       counters.total);
        message.Append("  Maximum: %u bytes requested and %u bytes allocated through tqos.\n", counters.maxRequested,
                       counters.maxTotal);
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

unsigned char* HeadCheckBytes(char* pBlock) {
    return reinterpret_cast<unsigned char*>(pBlock) + gTotalMemoryHeader - kMemoryCheckBytes;
}

unsigned char* TailCheckBytes(char* pBlock) {
    return reinterpret_cast<unsigned char*>(pBlock) + gTotalMemoryHeader + tq_MemoryHeaderOf(pBlock)->size;
}

bool AreCheckBytes(const unsigned char* pBytes, const unsigned char (&expected)[kMemoryCheckBytes]) {
    return memcmp(pBytes, expected, kMemoryCheckBytes) == 0;
}

[[gnu::cold, gnu::noinline]] void ReportHead(char* pBlock, const CallSite& freer) {
    Message message;
    const unsigned char* pBytes = HeadCheckBytes(pBlock);
    if (AreCheckBytes(pBytes, kFreedCheckBytes)) {
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
    const unsigned char* pBytes = TailCheckBytes(pBlock);
    message.Append("Corrupted Tail bytes on memory free...\n");
    message.Append("    Tail bytes = 0x%x 0x%x 0x%x 0x%x\n", pBytes[0], pBytes[1], pBytes[2], pBytes[3]);
    AppendAllocatedAndFreed(message, pBlock, freer);
    ReportCorruption(message);
}

// Alignment

/// How far an address lies above the alignment unit's last multiple.
unsigned int AboveAlignment(const char* pAddress) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(pAddress);
    const uintptr_t above = gMemoryAlignmentMask ? address & gMemoryAlignmentMask : address % gMemoryAlignmentUnit;
    return static_cast<unsigned int>(above);
}

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

/// Counts bytes that are now in use; MemoryTrackingCritSec is held.
void CountBytesLocked(unsigned int requested, unsigned int allocated) {
    gRequestedMemoryAllocations += requested;
    if (gRequestedMemoryAllocations > gMaxRequestedMemoryAllocations) {
        gMaxRequestedMemoryAllocations = gRequestedMemoryAllocations;
    }
    gTotalMemoryAllocations += allocated;
    if (gTotalMemoryAllocations > gMaxTotalMemoryAllocations) {
        gMaxTotalMemoryAllocations = gTotalMemoryAllocations;
    }
}

void UncountBytesLocked(unsigned int requested, unsigned int allocated) {
    gRequestedMemoryAllocations -= requested;
    gTotalMemoryAllocations -= allocated;
}

/// The size comes from a header, which may have been run over.
bool IsInHistogramLocked(unsigned int size) {
    return gpMemoryHistogram && size != 0 && size <= gMemoryHistogramMaxSize;
}

bool IsUnderCap(unsigned int size) {
    if (gMemoryCapInBytes == 0) {
        return true;
    }
    myCritSecLock lock(MemoryTrackingCritSec);
    return static_cast<unsigned long long>(gRequestedMemoryAllocations) + size <= gMemoryCapInBytes;
}

void CountNewBlock(unsigned int size, unsigned int allocated) {
    myCritSecLock lock(MemoryTrackingCritSec);
    CountBytesLocked(size, allocated);
    if (IsInHistogramLocked(size) && ++gpMemoryHistogram[size - 1] > gpMemoryHistogramMax[size - 1]) {
        gpMemoryHistogramMax[size - 1] = gpMemoryHistogram[size - 1];
    }
}

void CountFreedBlock(unsigned int size, unsigned int allocated) {
    myCritSecLock lock(MemoryTrackingCritSec);
    if (IsInHistogramLocked(size) && gpMemoryHistogram[size - 1] != 0) {
        --gpMemoryHistogram[size - 1];
    }
    UncountBytesLocked(size, allocated);
}

// Blocks

/// A block of so many bytes, its contents as the heap left them; null when there is no memory.
char* TakeBlock(unsigned int bytes) {
    char* pHeap = static_cast<char*>(malloc(static_cast<size_t>(gMemoryAlignmentUnit) + bytes));
    return pHeap ? MemoryAlignmentAdjustment(pHeap) : nullptr;
}

/// Gives a block back, or reports that its prefix is corrupted and leaves it.
void ReleaseBlock(char* pBlock, const CallSite& freer) {
    const unsigned int prefixBytes = PrefixBytes(pBlock);
    if (prefixBytes != kNoPrefix) {
        free(pBlock - prefixBytes);
        return;
    }
    Message message;
    message.Append("Corrupted Memory Alignment Header:\n    line %u in file: %s\n", freer.line,
                   NameOrUnknown(freer.pszFilename));
    ReportCorruption(message);
}

/// Deliberate: the flags of a fresh block are not cleared first; the type is added to what the heap left there, so a
/// stray type bit can hide a mismatch. Only the mark of a freeing place set in advance is taken out: the freer would
/// follow it to a name that was never stored.
unsigned short FreshFlags(const _MEM_HEADER_TRACKING_ONLY* pHeader, unsigned int type) {
    const volatile _MEM_HEADER_TRACKING_ONLY* pAsFound = pHeader; // volatile: the compiler may not think it undefined
    return static_cast<unsigned short>((pAsFound->Flags & ~TQ_MEM_FLAG_FREED_LOCATION_SET) | type);
}

void StartTracking(char* pBlock, unsigned int size, unsigned int type, const CallSite& site) {
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    pHeader->Flags = FreshFlags(pHeader, type);
    pHeader->size = size;
    pHeader->pFile = site.pszFilename;
    pHeader->line = site.line;
    pHeader->pFreedFile = nullptr; // what a head run over with the freed bytes is reported with
    pHeader->freedLine = 0;
    CountNewBlock(size, size + gTotalMemoryOverhead);
    memcpy(HeadCheckBytes(pBlock), kLiveCheckBytes, kMemoryCheckBytes);
    memcpy(TailCheckBytes(pBlock), kLiveCheckBytes, kMemoryCheckBytes);
}

/// Takes a block out of the tracking and marks it freed; false when it must not be freed (which has been reported).
/// The freer becomes the place recorded in advance, if there is one.
bool EndTracking(char* pBlock, unsigned short type, CallSite& freer) {
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    const unsigned int size = pHeader->size;
    if (pHeader->Flags & TQ_MEM_FLAG_FREED_LOCATION_SET) {
        freer = {pHeader->pFreedFile, pHeader->freedLine};
    }
    // Deliberate: counted out before any check, so that a block which is then refused and stays is counted no more.
    CountFreedBlock(size, size + gTotalMemoryOverhead);
    if ((pHeader->Flags & type) == 0) {
        ReportMismatch(pBlock, freer);
        return false;
    }
    if (ValidateMemoryBlockCheckBytes(pBlock, freer.pszFilename, freer.line)) {
        return false;
    }
    memcpy(HeadCheckBytes(pBlock), kFreedCheckBytes, kMemoryCheckBytes);
    if (gDirtyMemoryFree < kFirstValueWithoutFill) {
        memset(pBlock + gTotalMemoryHeader, static_cast<int>(gDirtyMemoryFree), size);
    }
    pHeader->pFreedFile = freer.pszFilename;
    pHeader->freedLine = freer.line;
    return true;
}

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
        memcpy(TailCheckBytes(pResized), kLiveCheckBytes, kMemoryCheckBytes);
    }
    myCritSecLock lock(MemoryTrackingCritSec);
    // Deliberate: the old size is counted out also when the block could not be resized and stays allocated. Freeing it
    // counts it out once more.
    UncountBytesLocked(oldSize, oldSize + gTotalMemoryOverhead);
    if (pResized) {
        CountBytesLocked(newSize, newSize + gTotalMemoryOverhead);
    }
    return pResized;
}

void* Reallocate(void* pointer, unsigned int newSize, const CallSite& site) {
    if (!pointer) {
        return tq__malloc(newSize, site.pszFilename, site.line);
    }
    if (newSize == 0) {
        tq__free(pointer, site.pszFilename, site.line);
        return nullptr;
    }
    if (!gbUseMemoryTracking) {
        return reallocWithAlignment(pointer, newSize);
    }
    char* pResized = ResizeTrackedBlock(static_cast<char*>(pointer) - gTotalMemoryHeader, newSize, site);
    return pResized ? pResized + gTotalMemoryHeader : nullptr;
}

} // namespace

myCritSec::myCritSec() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

char* MemoryAlignmentAdjustment(char* pPointer) {
    if (gMemoryAlignmentUnit == 0) {
        return pPointer;
    }
    memset(pPointer, 0, gMemoryAlignmentUnit);
    *pPointer = kPrefixMark;
    return pPointer + (gMemoryAlignmentUnit - AboveAlignment(pPointer + gTotalMemoryHeader));
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
    const unsigned int newOffset = gMemoryAlignmentUnit - AboveAlignment(pNewHeap);
    if (newOffset != oldOffset) {
        memmove(pNewHeap + newOffset, pNewHeap + oldOffset, newSize);
    }
    if (newOffset > oldOffset) {
        ClearStrayMarks(pNewHeap, newOffset);
    }
    return pNewHeap + newOffset;
}

void* tq__alloc(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line) {
    const CallSite site = {pszFilename, line};
    if (size == 0) {
        size = 1;
    }
    if (size > kLargestRequest) {
        ReportHugeRequest(size, site);
        return nullptr;
    }
    if (gbUseMemoryTracking && !IsUnderCap(size)) {
        ReportCapReached(size, site);
        return nullptr;
    }
    char* pBlock = TakeBlock(size + gTotalMemoryOverhead);
    if (!pBlock) {
        ReportNoMemory(size, site);
        return nullptr;
    }
    if (gbUseMemoryTracking) {
        StartTracking(pBlock, size, type, site);
    }
    char* pUserData = pBlock + gTotalMemoryHeader;
    if (gDirtyMemoryAlloc < kFirstValueWithoutFill) {
        memset(pUserData, static_cast<int>(gDirtyMemoryAlloc), size);
    }
    return pUserData;
}

void* tq__malloc(unsigned int size, const char* pszFilename, unsigned int line) {
    return tq__alloc(size, TQ_MEM_TYPE_MALLOC, pszFilename, line);
}

void* tq__new(unsigned int size, const char* pszFilename, unsigned int line) {
    return tq__alloc(size, TQ_MEM_TYPE_NEW, pszFilename, line);
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
    if (!pointer) {
        return;
    }
    CallSite freer = {pszFilename, line};
    char* pBlock = static_cast<char*>(pointer) - gTotalMemoryHeader;
    if (gbUseMemoryTracking && !EndTracking(pBlock, type, freer)) {
        return;
    }
    ReleaseBlock(pBlock, freer);
}

void tq__free(void* pointer, const char* pszFilename, unsigned int line) {
    tq__dealloc(pointer, TQ_MEM_TYPE_MALLOC, pszFilename, line);
}

void tq__delete(void* pointer, const char* pszFilename, unsigned int line) {
    tq__dealloc(pointer, TQ_MEM_TYPE_NEW, pszFilename, line);
}

void tq__deleteArray(void* pointer, const char* pszFilename, unsigned int line) {
    tq__dealloc(pointer, TQ_MEM_TYPE_NEW, pszFilename, line);
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
    _MEM_HEADER_TRACKING_ONLY* pHeader = tq_MemoryHeaderOf(pBlock);
    pHeader->Flags = static_cast<unsigned short>(pHeader->Flags | TQ_MEM_FLAG_FREED_LOCATION_SET);
    pHeader->pFreedFile = pszFilename;
    pHeader->freedLine = line;
}

unsigned int tq_GetMemoryAlignment() {
    return gMemoryAlignment;
}

// Reports

bool ValidateMemoryBlockCheckBytes(char* pPointer, const char* pszFilename, unsigned int line) {
    const CallSite freer = {pszFilename, line};
    if (!AreCheckBytes(HeadCheckBytes(pPointer), kLiveCheckBytes)) {
        ReportHead(pPointer, freer);
        return true;
    }
    if (!AreCheckBytes(TailCheckBytes(pPointer), kLiveCheckBytes)) {
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

void tq_MemoryRespond(const char* pszResponse, bool bPrintf, FILE* hFile, unsigned int, unsigned int) {
    if (!pszResponse) {
        return;
    }
    if (bPrintf) {
        puts(pszResponse);
    } else if (hFile) {
        fprintf(hFile, "%s\n", pszResponse);
    }
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
    gTotalMemoryHeader = gbUseMemoryTracking ? kMemoryTrackingHeaderBytes : 0;
    gTotalMemoryOverhead = gbUseMemoryTracking ? kMemoryTrackingHeaderBytes + kMemoryCheckBytes : 0;
}

/// Settings that are read only when another asks for them go back to their defaults first.
void ReadINIFile() {
    gbMemoryAlignmentCheck = false;
    gMemoryCapInBytes = 0;
    gbUseMemoryHistogram = false;
    tq_ReadIniTable(kSection, kFillAndAlignmentKeys);
    tq_ReadIniTable(kSection, kTrackingKeys);
    SetAlignment();
    SetLayout();
    if (gMemoryAlignment != 0) {
        tq_ReadIniTable(kSection, kAlignmentCheckKeys);
    }
    if (gbUseMemoryTracking) {
        tq_ReadIniTable(kSection, kCapKeys);
        tq_ReadIniTable(kSection, kHistogramKeys);
    }
    if (gbUseMemoryHistogram) {
        tq_ReadIniTable(kSection, kHistogramSizeKeys);
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
    if (gbUseMemoryHistogram) {
        StartHistogram();
    }
    return 0;
}

void tq_MemoryTerminate(bool bDumpResources) {
    if (bDumpResources) {
        tq_MemoryRespond(gbUseMemoryTracking
                             ? "Memory Pooling must also be enabled to track memory leaks.\n"
                             : "Memory Pooling and Memory Tracking must be enabled to track memory leaks.\n",
                         /*bPrintf=*/true, nullptr, 0, 0);
    }
    ReplaceHistogram(nullptr, nullptr);
}
