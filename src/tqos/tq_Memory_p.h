/// @file tq_Memory_p.h
/// What lies around a caller's bytes, and the module's settings, counters and pools.
///
/// A block, from low to high addresses; "block" is always the address right behind the alignment prefix:
///
///     alignment prefix     only with "MemoryAlignment" and on the heap: a '7', then zero bytes; the heap block's start
///     padding              only where the processor wants user data aligned more strictly (none on 32-bit x86)
///     header               only while tracking or pooling
///     head check bytes     only while tracking
///     user data            what the caller gets; block + gTotalMemoryHeader
///     tail check bytes     only while tracking
///
/// Invariants:
/// - Settings change in tq_MemoryInitialize() alone. A block is always read with the settings it was made with.
/// - The bytes of a heap block belong to the thread that allocates, frees or reallocates it; no lock is held while they
///   are read or written.
/// - The header and the check bytes of a pool's slot are written with the pool's lock held, since marks and reports
///   walk over all slots. Whoever holds a block may read them without, but for the flags, which a mark changes.
/// - The counters change in one step each, so that threads that allocate do not wait for each other.
/// - MemoryTrackingCritSec guards the histogram and the figures of the last report and nothing else. It may be taken
///   with a pool's lock held. Neither is held while anything is reported or sent: rows are collected in plain memory
///   and sent afterwards.
#ifndef TQ_MEMORY_P_H
#define TQ_MEMORY_P_H

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "tq_Futex_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_Spin_p.h"

/// The memory module's own lock, which the thread that holds it may take again. The library's lock classes allocate, so
/// they cannot serve here. It is never destroyed: threads may free memory until the process ends.
class myCritSec : private tq_LockPlace {
public:
    constexpr explicit myCritSec(tq_LockRank rank) : tq_LockPlace(rank) {}
    myCritSec(const myCritSec&) = delete;
    myCritSec& operator=(const myCritSec&) = delete;

    void EnterCritSec() {
        Take();
        const void* const pMe = Me();
        if (m_pOwner.load(std::memory_order_relaxed) != pMe) {
            unsigned int state = kFree;
            if (!m_state.compare_exchange_strong(state, kTaken, std::memory_order_acquire, std::memory_order_relaxed)) {
                Wait();
            }
            m_pOwner.store(pMe, std::memory_order_relaxed);
        }
        ++m_times;
    }
    void LeaveCritSec() {
        Give();
        if (--m_times != 0) {
            return;
        }
        m_pOwner.store(nullptr, std::memory_order_relaxed);
        if (m_state.exchange(kFree, std::memory_order_release) == kAwaited) {
            tq_Futex::Wake(tq_Futex::AddressOf(m_state), 1);
        }
    }

private:
    enum : unsigned int { kFree, kTaken, kAwaited };
    static constexpr long kNanosecondsBetweenLooks = 1000; ///< a pool's holder gets some twenty blocks done meanwhile

    /// The calling thread, by what it has for itself alone.
    static const void* Me() {
        static thread_local char place __attribute__((tls_model("initial-exec")));
        return &place;
    }
    void Wait();

    std::atomic<unsigned int> m_state{kFree};
    tq_Spin::Waits m_waits{0};
    unsigned int m_times = 0;                   ///< that the owner has entered it; the owner's alone
    std::atomic<const void*> m_pOwner{nullptr}; ///< only the owner ever finds itself here
};

constexpr unsigned int kCacheLineBytes = 64;

/// The lock of one pool of many, away from those of the others.
class alignas(kCacheLineBytes) tq_MemoryPoolCritSec : public myCritSec {
public:
    constexpr tq_MemoryPoolCritSec() : myCritSec(tq_LockRank::kMemoryPool) {}
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

/// The header of a pool's block while nothing is tracked; also how every header begins while pools are used.
struct __attribute__((packed)) _MEM_HEADER_POOLING_ONLY {
    unsigned short Flags;
    unsigned short nPool; ///< the block's pool; kNoMemoryPool: a heap block
};
static_assert(sizeof(_MEM_HEADER_POOLING_ONLY) == 4, "the header's length is fixed");

/// The header of a tracked block of a pool.
struct __attribute__((packed)) _MEM_HEADER_POOLING_AND_TRACKING {
    unsigned short Flags;
    unsigned short nPool;
    unsigned int size;
    const char* pFile;
    const char* pFreedFile;
    unsigned int line;
    unsigned int freedLine;
};
static_assert(sizeof(_MEM_HEADER_POOLING_AND_TRACKING) == sizeof(_MEM_HEADER_TRACKING_ONLY) &&
                  offsetof(_MEM_HEADER_POOLING_AND_TRACKING, nPool) == offsetof(_MEM_HEADER_TRACKING_ONLY, Reserverd) &&
                  offsetof(_MEM_HEADER_POOLING_AND_TRACKING, size) == offsetof(_MEM_HEADER_TRACKING_ONLY, size),
              "with pools the tracking header has a pool number where it had nothing");

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

/// Bytes in front of the user data of a pool's block while nothing is tracked, padding included.
constexpr unsigned int kMemoryPoolingHeaderBytes =
    (static_cast<unsigned int>(sizeof(_MEM_HEADER_POOLING_ONLY)) + kMemoryUserAlignment - 1) / kMemoryUserAlignment *
    kMemoryUserAlignment;
static_assert(kMemoryUserAlignment != 1 || kMemoryPoolingHeaderBytes == 4, "fixed layout");

constexpr unsigned int kMaxMemoryPools = 100;
constexpr unsigned int kNoMemoryPool = 100;    ///< stands for a pool's number where there is none
constexpr unsigned int kEndedMemoryPool = 101; ///< of a slot whose pool has ended while it was in use

// Settings, fixed by tq_MemoryInitialize().
extern unsigned int gDirtyMemoryAlloc; ///< 256 or more: new blocks are not filled
extern unsigned int gDirtyMemoryFree;  ///< 256 or more: freed blocks are not filled
extern bool gbUseMemoryTracking;
extern bool gbUseMemoryPooling;
extern bool gbGrowPools;
extern unsigned int gMemoryAlignment;     ///< as configured, 0 for none
extern unsigned int gMemoryAlignmentUnit; ///< what is kept: a multiple of gMemoryAlignment and kMemoryUserAlignment
extern unsigned int gMemoryAlignmentMask; ///< the unit less 1 when that is a power of two, otherwise 0
extern bool gbMemoryAlignmentCheck;
extern std::atomic<unsigned int> gMemoryCapInBytes; ///< 0: no cap; read by every allocation
extern bool gbUseMemoryHistogram;
extern unsigned int gMemoryHistogramMaxSize;
extern unsigned int gTotalMemoryHeader;   ///< from the block to the user data
extern unsigned int gTotalMemoryOverhead; ///< the block less the user data

/// False from initialisation until the first memory report, whose changes then count from 0.
extern bool gbTelnetShowMemoryCalled;

/// Bytes: those that callers ask for, and those that are taken for them, overhead included.
struct tq_MemoryBytes {
    unsigned int requested;
    unsigned int total;
};

extern myCritSec MemoryTrackingCritSec;

#if __GCC_ATOMIC_LLONG_LOCK_FREE == 2
using tq_MemoryWord = std::atomic<uint64_t>;
#else
/// Where no processor instruction changes 64 bits in one step.
class tq_MemoryWord {
public:
    constexpr tq_MemoryWord(uint64_t value) : m_value(value) {}
    uint64_t load(std::memory_order) const {
        const myCritSecLock lock(MemoryTrackingCritSec);
        return m_value;
    }
    uint64_t fetch_add(uint64_t value, std::memory_order) {
        const myCritSecLock lock(MemoryTrackingCritSec);
        const uint64_t before = m_value;
        m_value += value;
        return before;
    }
    uint64_t fetch_sub(uint64_t value, std::memory_order order) { return fetch_add(0 - value, order); }

private:
    uint64_t m_value;
};
#endif

/// The bytes in use. Both sums are halves of one number, so that a block is counted in or out, and both sums are known,
/// in one step. Each wraps by itself, as 32 bits do. On a cache line of its own: every thread that allocates writes it,
/// and reads the settings, which must not lie beside it.
class alignas(kCacheLineBytes) tq_MemorySums {
public:
    tq_MemoryBytes Read() const { return Halves(m_word.load(std::memory_order_relaxed)); }

    /// The sums right after this change.
    tq_MemoryBytes Add(const tq_MemoryBytes& bytes) {
        const uint64_t before = m_word.fetch_add(Whole(bytes), std::memory_order_relaxed);
        uint64_t now = before + Whole(bytes);
        if (Halves(now).requested < Halves(before).requested) { // wrapped, and carried on into the other half
            m_word.fetch_sub(kCarried, std::memory_order_relaxed);
            now -= kCarried;
        }
        return Halves(now);
    }
    tq_MemoryBytes Subtract(const tq_MemoryBytes& bytes) {
        const uint64_t before = m_word.fetch_sub(Whole(bytes), std::memory_order_relaxed);
        uint64_t now = before - Whole(bytes);
        if (Halves(before).requested < bytes.requested) {
            m_word.fetch_add(kCarried, std::memory_order_relaxed);
            now += kCarried;
        }
        return Halves(now);
    }

private:
    static constexpr uint64_t kCarried = uint64_t(1) << 32;
    static constexpr uint64_t Whole(const tq_MemoryBytes& bytes) {
        return uint64_t(bytes.total) << 32 | bytes.requested;
    }
    static constexpr tq_MemoryBytes Halves(uint64_t word) {
        return {static_cast<unsigned int>(word), static_cast<unsigned int>(word >> 32)};
    }

    tq_MemoryWord m_word{0};
};
extern tq_MemorySums gMemoryInUse; ///< kept only while tracking

/// One of the sums, to be read and set like a number.
template <unsigned int tq_MemoryBytes::*pSum> class tq_MemorySum {
public:
    operator unsigned int() const { return load(); }
    unsigned int load() const { return gMemoryInUse.Read().*pSum; }
    // NOLINTNEXTLINE(misc-unconventional-assign-operator): gives a number, as an assignment to one does
    unsigned int operator=(unsigned int value) {
        tq_MemoryBytes change = {0, 0};
        change.*pSum = value - load();
        gMemoryInUse.Add(change);
        return value;
    }
};
extern tq_MemorySum<&tq_MemoryBytes::requested> gRequestedMemoryAllocations; ///< asked for and not freed
extern tq_MemorySum<&tq_MemoryBytes::total> gTotalMemoryAllocations;
extern std::atomic<unsigned int> gMaxRequestedMemoryAllocations; ///< high-water marks
extern std::atomic<unsigned int> gMaxTotalMemoryAllocations;

/// All four counters as they stand at one moment.
struct tq_MemoryCounters {
    tq_MemoryBytes now;
    tq_MemoryBytes most;
};
tq_MemoryCounters tq_ReadMemoryCounters();

// Guarded by MemoryTrackingCritSec.
extern unsigned int* gpMemoryHistogram;    ///< live blocks by size (entry 0: 1 byte); null while there is no histogram
extern unsigned int* gpMemoryHistogramMax; ///< the most there ever were of each

inline _MEM_HEADER_TRACKING_ONLY* tq_MemoryHeaderOf(char* pBlock) {
    return reinterpret_cast<_MEM_HEADER_TRACKING_ONLY*>(pBlock + kMemoryTrackingHeaderBytes - kMemoryCheckBytes -
                                                        sizeof(_MEM_HEADER_TRACKING_ONLY));
}

// Pool tables, fixed by tq_MemoryInitialize(); a size of 0 ends them.
extern unsigned int PoolSizes[kMaxMemoryPools + 1]; ///< user bytes that a slot holds
extern unsigned int PoolInitialSize[kMaxMemoryPools + 1];
extern unsigned int PoolIncrement[kMaxMemoryPools + 1];

/// The slots by which a pool grows unless its configuration says otherwise.
unsigned int tq_DefaultMemoryPoolIncrement(unsigned int size);

/// Fills the pool tables from the configuration, or with the built-in pools.
void tq_ReadMemoryPoolKeys(const char* pszSection);

/// A chunk of slots. The first of a pool has its initial number of them, every later one the increment.
struct _MEM_POOL {
    struct _MEM_POOL* pNext;
    char* pActualPointer; ///< as the heap gave it; null: no slots
    char* pMemoryBlock;   ///< the first slot
};

// The pools; there from tq_MemoryPoolInitialize() to tq_MemoryPoolTerminate(). The arrays' entries and what they point
// to are guarded by the pool's own lock.
extern std::atomic<unsigned int> TotalPools;
extern _MEM_POOL* Pools[kMaxMemoryPools];
extern _MEM_POOL* PoolsLastNode[kMaxMemoryPools];
extern MEM_POOL_LIST* PoolLists[kMaxMemoryPools];
extern tq_MemoryPoolCritSec PoolCritSec[kMaxMemoryPools];

extern std::atomic<unsigned int> MaxPoolSize; ///< length of the largest slot; 0: no pools
extern unsigned int LastPoolInIndex; ///< the pool of the longest slot in the table; kNoMemoryPool: it ends before

/// Holds a pool's lock for a scope; nothing for what is no pool.
class tq_MemoryPoolHold {
public:
    explicit tq_MemoryPoolHold(unsigned int pool) : m_pool(pool) {
        if (m_pool < kMaxMemoryPools) {
            PoolCritSec[m_pool].EnterCritSec();
        }
    }
    ~tq_MemoryPoolHold() {
        if (m_pool < kMaxMemoryPools) {
            PoolCritSec[m_pool].LeaveCritSec();
        }
    }
    tq_MemoryPoolHold(const tq_MemoryPoolHold&) = delete;
    tq_MemoryPoolHold& operator=(const tq_MemoryPoolHold&) = delete;

private:
    const unsigned int m_pool;
};

/// The header of a block while pools are used, tracked or not.
inline _MEM_HEADER_POOLING_ONLY* tq_MemoryPoolHeaderOf(char* pBlock) {
    return gbUseMemoryTracking ? reinterpret_cast<_MEM_HEADER_POOLING_ONLY*>(tq_MemoryHeaderOf(pBlock))
                               : reinterpret_cast<_MEM_HEADER_POOLING_ONLY*>(pBlock + gTotalMemoryHeader -
                                                                             sizeof(_MEM_HEADER_POOLING_ONLY));
}

/// The pool that a block says it is from; kNoMemoryPool for a heap block. The end of a pool changes the number under
/// its owner's hands; all numbers differ in one byte only, so it is read and written byte by byte, at any address.
inline unsigned int tq_MemoryPoolOf(char* pBlock) {
    if (!gbUseMemoryPooling) {
        return kNoMemoryPool;
    }
    const unsigned char* pNumber = reinterpret_cast<const unsigned char*>(tq_MemoryPoolHeaderOf(pBlock)) +
                                   offsetof(_MEM_HEADER_POOLING_ONLY, nPool);
    const unsigned char bytes[] = {__atomic_load_n(pNumber, __ATOMIC_RELAXED),
                                   __atomic_load_n(pNumber + 1, __ATOMIC_RELAXED)};
    unsigned short number;
    memcpy(&number, bytes, sizeof(number));
    return number;
}

/// Makes the block of a pool that ends one of no pool.
inline void tq_EndMemoryPoolOf(char* pBlock) {
    const unsigned short number = kEndedMemoryPool;
    unsigned char bytes[sizeof(number)];
    memcpy(bytes, &number, sizeof(number));
    unsigned char* pNumber =
        reinterpret_cast<unsigned char*>(tq_MemoryPoolHeaderOf(pBlock)) + offsetof(_MEM_HEADER_POOLING_ONLY, nPool);
    __atomic_store_n(pNumber, bytes[0], __ATOMIC_RELAXED);
    __atomic_store_n(pNumber + 1, bytes[1], __ATOMIC_RELAXED);
}

/// The library's own bytes and the most that the pool's callers get.
inline unsigned int tq_MemorySlotLength(unsigned int pool) {
    return PoolSizes[pool] + gTotalMemoryOverhead;
}

/// From one slot to the next: the slot's length, and what keeps the next one aligned.
inline size_t tq_MemorySlotStride(unsigned int pool) {
    const size_t unit = gMemoryAlignmentUnit ? gMemoryAlignmentUnit : TQ_MEM_BLOCK_ALIGNMENT;
    return (tq_MemorySlotLength(pool) + unit - 1) / unit * unit;
}

/// Calls visit(pBlock) for every slot of a pool, in the order of its chunks. The pool's lock is held.
template <typename Visit> void tq_WalkMemoryPool(unsigned int pool, Visit visit) {
    const size_t stride = tq_MemorySlotStride(pool);
    unsigned int slots = PoolInitialSize[pool];
    for (_MEM_POOL* pChunk = Pools[pool]; pChunk; pChunk = pChunk->pNext) {
        for (unsigned int i = 0; i < slots; ++i) {
            visit(pChunk->pMemoryBlock + i * stride);
        }
        slots = PoolIncrement[pool];
    }
}

constexpr unsigned int kNoSlot = UINT32_MAX;

/// The most that a slot's owner gets; kNoSlot for a block that is none. The second is for use with pools alone.
unsigned int tq_PooledMemorySlotCapacity(char* pBlock);
inline unsigned int tq_MemorySlotCapacity(char* pBlock) {
    return gbUseMemoryPooling ? tq_PooledMemorySlotCapacity(pBlock) : kNoSlot;
}

/// Counts bytes that callers ask a pool for, as a difference modulo 2^32. The pool's lock is held.
void tq_CountPoolBytesLocked(unsigned int pool, unsigned int difference);

/// A block of the heap, its contents as the heap left them but for the alignment prefix; null when there is no memory.
char* tq_TakeMemoryHeapBlock(unsigned int bytes);

/// Frees a block of the heap. False when its alignment prefix is damaged: it then stays.
bool tq_FreeMemoryHeapBlock(char* pBlock);

/// Reports a block that is damaged or misused. No lock of this module is held.
void tq_ReportMemoryCorruption(const char* pszMessage);

/// Lays the alignment prefix at the start of a heap block (which is gMemoryAlignmentUnit bytes longer than the block)
/// and returns the block behind it.
char* MemoryAlignmentAdjustment(char* pPointer);

/// How far an address lies above the alignment unit's last multiple.
unsigned int tq_MemoryAboveAlignment(const char* pAddress);

/// Resizes a heap block, given by its block address, to newSize bytes behind its prefix; may move it. Null, and the old
/// block whole, when there is no memory or the prefix is corrupted (which is reported).
void* reallocWithAlignment(void* pointer, size_t newSize);

/// Check bytes of a tracked block. The tail's are those of the largest size the slot holds when the header says more.
unsigned char* tq_MemoryHeadBytes(char* pBlock);
unsigned char* tq_MemoryTailBytes(char* pBlock);
bool tq_IsMemoryHeadSound(char* pBlock);
bool tq_IsMemoryTailSound(char* pBlock);
bool tq_IsMemoryHeadFreed(char* pBlock);

/// Looks at a tracked block's check bytes. True when one is wrong; that has then been reported, with the given place as
/// the one that frees.
bool ValidateMemoryBlockCheckBytes(char* pPointer, const char* pszFilename, unsigned int line);

/// The recorded allocating and freeing source file of a block, as reports show them.
const char* GetMemoryFilename(char* pPointer);
const char* GetMemoryFreedFilename(char* pPointer);

/// Frees a block whatever allocation family it came from; otherwise as tq__free(). For owners of blocks that others
/// allocated, such as a queue that ends with messages still in it.
void tq_FreeEitherFamily(void* pointer, const char* pszFilename, unsigned int line);

/// A zeroed block of the malloc family that never comes from a pool, with all that tq__free() wants to find; for what a
/// report sends. Null, and reported, when there is no memory or the cap is reached.
void* tq_SpoofMalloc(unsigned int size, const char* pszFilename, unsigned int line);

constexpr unsigned int kMemoryReportDetailed = 1; ///< of a report's flags
constexpr unsigned int kMemoryResponseFlags = 1;  ///< responses come without the line that says who answers

/// A byte of memory as reports show it beside its number. Deliberate: a full stop stands for all that is no printable
/// ASCII character, so one in the memory looks the same.
inline char tq_ShownMemoryByte(unsigned char byte) {
    return byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
}

/// The texts of a report, one by one in order, on plain heap memory: collected under a lock, put out after leaving it,
/// and without changing what is reported. A text for which there is no memory is left out whole.
class tq_MemoryRows {
public:
    tq_MemoryRows() = default;
    ~tq_MemoryRows();
    tq_MemoryRows(const tq_MemoryRows&) = delete;
    tq_MemoryRows& operator=(const tq_MemoryRows&) = delete;

    /// Adds to the text that is being built.
    void Add(const char* pszFormat, ...) TQ_PRINTF(2, 3);
    /// Ends it; the next begins.
    void End();
    /// Calls put(pszText) for every text and forgets them.
    template <typename Put> void PutOut(Put put) {
        for (size_t at = 0; at < m_ended; at += strlen(m_pTexts + at) + 1) {
            put(m_pTexts + at);
        }
        m_ended = m_length = 0;
    }

private:
    bool GrowFor(size_t bytes);

    char* m_pTexts = nullptr; ///< zero-terminated, one behind the other
    size_t m_ended = 0;       ///< bytes of the texts that are complete
    size_t m_length = 0;      ///< and of the one that is being built
    size_t m_capacity = 0;
    bool m_bIncomplete = false;
};

#endif // TQ_MEMORY_P_H
