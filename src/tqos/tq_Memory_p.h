/// @file tq_Memory_p.h
/// What lies around a caller's bytes, and the module's settings and counters.
///
/// A block, from low to high addresses; "block" is always the address right behind the alignment prefix:
///
///     alignment prefix     only with "MemoryAlignment": a '7', then zero bytes; where it starts, the heap block starts
///     padding              only where the processor wants user data aligned more strictly (none on 32-bit x86)
///     header               only while tracking
///     head check bytes     only while tracking
///     user data            what the caller gets; block + gTotalMemoryHeader
///     tail check bytes     only while tracking
///
/// Invariants:
/// - Settings change in tq_MemoryInitialize() alone. A block is always read with the settings it was made with.
/// - The bytes of a block belong to the thread that allocates, frees or reallocates it; no lock is held while they are
///   read or written.
/// - MemoryTrackingCritSec guards the counters and the histogram and nothing else. Nothing is called while it is held:
///   every report is made after leaving it.
#ifndef TQ_MEMORY_P_H
#define TQ_MEMORY_P_H

#include <pthread.h>
#include <stddef.h>

#include "tq_Memory.h"

/// The memory module's own lock: a recursive pthread mutex and nothing else. The library's lock classes allocate, so
/// they cannot serve here. It is never destroyed: threads may free memory until the process ends.
class myCritSec {
public:
    myCritSec();
    myCritSec(const myCritSec&) = delete;
    myCritSec& operator=(const myCritSec&) = delete;
    void EnterCritSec() { pthread_mutex_lock(&m_mutex); }
    void LeaveCritSec() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

/// Holds a myCritSec for a scope.
class myCritSecLock {
public:
    explicit myCritSecLock(myCritSec& critSec) : m_critSec(critSec) { m_critSec.EnterCritSec(); }
    ~myCritSecLock() { m_critSec.LeaveCritSec(); }
    myCritSecLock(const myCritSecLock&) = delete;
    myCritSecLock& operator=(const myCritSecLock&) = delete;

private:
    myCritSec& m_critSec;
};

/// The header of a tracked block. Packed, since a configured alignment that is no multiple of 4 puts it at any address;
/// there is no gap to close.
struct __attribute__((packed)) _MEM_HEADER_TRACKING_ONLY {
    unsigned short Flags;
    unsigned short Reserverd; ///< unused
    unsigned int size;        ///< what the caller asked for
    const char* pFile;
    const char* pFreedFile; ///< null until the block is freed, or its freeing place is set in advance
    unsigned int line;
    unsigned int freedLine;
};
static_assert(sizeof(void*) != 4 || sizeof(_MEM_HEADER_TRACKING_ONLY) == 24, "the header's length is fixed");
static_assert(offsetof(_MEM_HEADER_TRACKING_ONLY, Flags) == 0, "the flags word comes first in every header");
static_assert(offsetof(_MEM_HEADER_TRACKING_ONLY, size) == 4, "the size follows the two 16-bit words");
static_assert(offsetof(_MEM_HEADER_TRACKING_ONLY, pFile) == 8, "the file names follow the size");
static_assert(sizeof(void*) != 4 || offsetof(_MEM_HEADER_TRACKING_ONLY, pFreedFile) == 12, "fixed layout");
static_assert(sizeof(void*) != 4 || offsetof(_MEM_HEADER_TRACKING_ONLY, line) == 16, "fixed layout");
static_assert(sizeof(void*) != 4 || offsetof(_MEM_HEADER_TRACKING_ONLY, freedLine) == 20, "fixed layout");

constexpr unsigned int kMemoryCheckBytes = 4;

/// What user pointers are aligned to beyond what the heap gives: on 32-bit x86 nothing, its layout is fixed.
#if defined(__i386__)
constexpr unsigned int kMemoryUserAlignment = 1;
#else
constexpr unsigned int kMemoryUserAlignment = sizeof(void*) == 8 ? 16 : 8;
#endif

/// Bytes in front of the user data of a tracked block, padding included.
constexpr unsigned int kMemoryTrackingHeaderBytes =
    (static_cast<unsigned int>(sizeof(_MEM_HEADER_TRACKING_ONLY)) + kMemoryCheckBytes + kMemoryUserAlignment - 1) /
    kMemoryUserAlignment * kMemoryUserAlignment;
static_assert(kMemoryUserAlignment != 1 || kMemoryTrackingHeaderBytes == 28, "fixed layout");

// Settings, fixed by tq_MemoryInitialize().
extern unsigned int gDirtyMemoryAlloc; ///< 256 or more: new blocks are not filled
extern unsigned int gDirtyMemoryFree;  ///< 256 or more: freed blocks are not filled
extern bool gbUseMemoryTracking;
extern unsigned int gMemoryAlignment;     ///< as configured, 0 for none
extern unsigned int gMemoryAlignmentUnit; ///< what is kept: a multiple of gMemoryAlignment and kMemoryUserAlignment
extern unsigned int gMemoryAlignmentMask; ///< the unit less 1 when that is a power of two, otherwise 0
extern bool gbMemoryAlignmentCheck;
extern unsigned int gMemoryCapInBytes; ///< 0: no cap
extern bool gbUseMemoryHistogram;
extern unsigned int gMemoryHistogramMaxSize;
extern unsigned int gTotalMemoryHeader;   ///< from the block to the user data
extern unsigned int gTotalMemoryOverhead; ///< the block less the user data

/// False from initialisation until the first memory report, whose changes then count from 0.
extern bool gbTelnetShowMemoryCalled;

// Guarded by MemoryTrackingCritSec; kept only while tracking.
extern myCritSec MemoryTrackingCritSec;
extern unsigned int gRequestedMemoryAllocations;    ///< bytes that callers asked for and have not freed
extern unsigned int gTotalMemoryAllocations;        ///< bytes taken for them, overhead included
extern unsigned int gMaxRequestedMemoryAllocations; ///< high-water marks
extern unsigned int gMaxTotalMemoryAllocations;
extern unsigned int* gpMemoryHistogram;    ///< live blocks by size (entry 0: 1 byte); null while there is no histogram
extern unsigned int* gpMemoryHistogramMax; ///< the most there ever were of each

inline _MEM_HEADER_TRACKING_ONLY* tq_MemoryHeaderOf(char* pBlock) {
    return reinterpret_cast<_MEM_HEADER_TRACKING_ONLY*>(pBlock + kMemoryTrackingHeaderBytes - kMemoryCheckBytes -
                                                        sizeof(_MEM_HEADER_TRACKING_ONLY));
}

/// Lays the alignment prefix at the start of a heap block (which is gMemoryAlignmentUnit bytes longer than the block)
/// and returns the block behind it.
char* MemoryAlignmentAdjustment(char* pPointer);

/// Resizes a heap block, given by its block address, to newSize bytes behind its prefix; may move it. Null, and the old
/// block whole, when there is no memory or the prefix is corrupted (which is reported).
void* reallocWithAlignment(void* pointer, size_t newSize);

/// Looks at a tracked block's check bytes. True when one is wrong; that has then been reported, with the given place as
/// the one that frees.
bool ValidateMemoryBlockCheckBytes(char* pPointer, const char* pszFilename, unsigned int line);

/// The recorded allocating and freeing source file of a block, as reports show them.
const char* GetMemoryFilename(char* pPointer);
const char* GetMemoryFreedFilename(char* pPointer);

/// Frees a block whatever allocation family it came from; otherwise as tq__free(). For owners of blocks that others
/// allocated, such as a queue that ends with messages still in it.
void tq_FreeEitherFamily(void* pointer, const char* pszFilename, unsigned int line);

#endif // TQ_MEMORY_P_H
