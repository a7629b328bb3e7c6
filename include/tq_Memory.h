/// @file tq_Memory.h
/// Memory that knows where it was asked for.
///
/// Applications allocate with the macros (tq_malloc, tq_calloc, tq_realloc, tq_newString, tq_new, tq_newObject, ...),
/// which pass their own source file and line, and free with tq_free, tq_delete, tq_deleteArray or tq_deleteObject. The
/// [Memory] section of tqos.ini, read once by tq_MemoryInitialize(), says what that costs and gives:
///
/// | key                    | default | meaning                                                                       |
/// |------------------------|---------|-------------------------------------------------------------------------------|
/// | "EnableMemoryTracking" | no      | headers, check bytes, counters: damage and misuse are reported on free        |
/// | "DirtyMemoryAlloc"     | 256     | byte value that fills every new block; 256 or more: no fill                   |
/// | "DirtyMemoryFree"      | 256     | byte value that fills a tracked block when it is freed; 256 or more: no fill  |
/// | "MemoryAlignment"      | 0       | new blocks start at a multiple of this; 0: as the heap has it; above 128: 4   |
/// | "MemoryAlignmentCheck" | no      | with MemoryAlignment: look for damage in front of a block when it is freed    |
/// | "MemoryCapInBytes"     | 0       | while tracking: refuse what would bring the bytes in use above this; 0: never |
/// | "EnableHistogram"      | no      | while tracking: count live blocks by size                                     |
/// | "HistogramMaxSize"     | 512000  | with EnableHistogram: largest size that is counted                            |
/// | "EnableMemoryPooling"  | no      | blocks come from pools of slots of fixed sizes                                |
/// | "DoNotGrowPools"       | no      | with EnableMemoryPooling: what the pools hold at the start is all there is    |
/// | "Pool1BlockSize", ...  | 0       | with EnableMemoryPooling: the most bytes that a slot of the pool holds        |
/// | "Pool1StartCount", ... | 0       | slots that the pool starts with                                               |
/// | "Pool1Increment", ...  | by size | slots that are added when all are in use: 10 up to 512 bytes, 5 up to 1024,   |
/// |                        |         | 3 up to 4096, 2 up to 8192, otherwise 1; 0: none                              |
///
/// Without pooling and tracking an allocation is a malloc (plus the alignment) and nothing more; only the alignment can
/// be checked then.
///
/// Pools: up to 100, numbered from 1; the first block size that is missing or 0 ends the list, and an empty list stands
/// for 50 slots of 32 bytes, 50 of 128, 30 of 512, 20 of 1024 and 10 of 4096, each growing by as many. A request is
/// served by the smallest size that holds it and by no other; one that is larger than all goes to the heap. A pool that
/// may not grow, or cannot, fails the request. Slots are used again in the order in which they were freed. With
/// MemoryAlignment block sizes are rounded up so that every slot is aligned. Tracked pools can be searched for damage
/// (tq_CheckMemoryPools()) and listed block by block (tq_ShowMemoryPools()); tq_MemoryTerminate() lists what leaked.
///
/// Reports go to the critical-error log with trace category 8: requests that fail at level 30000 (the cap reached,
/// more than 2^31 bytes, no memory, a failed tq__realloc), damage and misuse at level 40000 (check bytes run over, a
/// block freed twice, a block freed with the other family's function, a damaged alignment). tq_Assert(false) follows
/// each but the cap's. A block that is reported is not freed.
///
/// Two families: the malloc family (tq__malloc, tq__calloc, tq__realloc, tq__newString) is freed with tq__free, the new
/// family (tq__new, tq__newArray, tq_newObject) with tq__delete or tq__deleteArray, which are the same. Tracking tells
/// the families apart, not objects from arrays; so does pooling without tracking.
///
/// Everywhere here: sizes are bytes, 32 bits wide. A source file name is kept by pointer and must live as long as the
/// process; null is shown as "(Unknown)". A block is aligned to TQ_MEM_BLOCK_ALIGNMENT, whatever MemoryAlignment adds.
///
/// Threads: all but tq_MemoryInitialize() and tq_MemoryTerminate() may be called by any thread at any time, also before
/// the one (nothing is tracked then) and after the other (the settings stay). A block belongs to one thread at a time.
#ifndef TQ_MEMORY_H
#define TQ_MEMORY_H

#include <new>
#include <stdio.h>
#include <utility>

#include "tq_Types.h"

/// Bits of the 16-bit flags word in front of a tracked block.
enum {
    TQ_MEM_FLAG_IN_USE = 1,             ///< a memory pool's block is in use
    TQ_MEM_FLAG_MARKED = 2,             ///< was in use at the last tq_MemoryMarkPools(): reports leave it out
    TQ_MEM_FLAG_HIDDEN = 4,             ///< reports leave the block out; nothing in the library sets it
    TQ_MEM_FLAG_FREED_LOCATION_SET = 8, ///< the freeing place was set by tq_SetMemoryFreedFilenameAndLine()
    TQ_MEM_TYPE_MALLOC = 4096,          ///< allocated by the malloc family
    TQ_MEM_TYPE_NEW = 8192              ///< allocated by the new family
};

/// What every block is aligned to at least, in bytes; on 32-bit x86 as long as MemoryAlignment is a multiple of 4.
#if defined(__i386__)
enum : unsigned int { TQ_MEM_BLOCK_ALIGNMENT = 4 };
#else
enum : unsigned int { TQ_MEM_BLOCK_ALIGNMENT = sizeof(void*) == 8 ? 16 : 8 };
#endif

/// How a memory pool stands. The ring holds the free slots in the order in which they will be used; its capacity is the
/// number of slots that the pool owns, so equal positions mean all free or, with slots in use, none.
struct _MEM_POOL_LIST {
    unsigned int nAllocIndex;            ///< ring position of the next slot to hand out
    unsigned int nFreeIndex;             ///< ring position where the next returned slot goes
    unsigned int nPoolIndex;             ///< the pool's number, from 0
    unsigned int nSize;                  ///< capacity of the ring
    unsigned int nCurrentAllocatedNodes; ///< slots in use
    unsigned int nMaxAllocatedNodes;     ///< the most that ever were
    unsigned int nTotalRequestedSize;    ///< bytes that callers asked this pool for; kept only while tracking
    unsigned int nMaxTotalRequestedSize; ///< the most that ever were
    bool bNotYetInitialized;             ///< the pool owns no slot yet
    void** pArray;                       ///< the ring
};
typedef struct _MEM_POOL_LIST MEM_POOL_LIST; ///< see _MEM_POOL_LIST

/// By what a grouped report is sorted.
enum class TQ_MEM_SORT_FORMATS {
    NONE = 0,  ///< not
    BYTES = 1, ///< the bytes of a group
    COUNT = 2, ///< its blocks
    NAME = 3,  ///< its source file, then its line
    RATIO = 4  ///< its bytes per block
};

/// The forms of the histogram.
enum class TQ_MEM_HISTOGRAM_FORMATS {
    NUMERIC = 0, ///< figures
    GRAPHIC = 1, ///< bars
    COMBO = 2,   ///< bars and figures
    INI = 3      ///< memory pools for tqos.ini
};

extern "C" {

/// Reads the settings. tqOS_Initialize() calls it before anything of the library allocates; a second call while blocks
/// live is allowed only with the same settings for tracking, pooling and alignment, since a block is read with the
/// settings of the moment; pools that exist stay as they are. Without memory for the histogram the histogram is off.
/// @return 0; 1 when the pools could not be made
TQ_API unsigned int tq_MemoryInitialize();

/// Ends the pools and the histogram. Blocks that are in use stay valid and are freed as before: a pool leaves the
/// memory behind that such blocks lie in. Counters and settings stay; what is allocated from now on comes from the
/// heap.
/// @param bDumpResources  list on standard output every block of the pools that is still in use, as
///                        tq_ShowMemoryPools() does. What that needs is said when it is missing: while tracking without
///                        pooling "Memory Pooling must also be enabled to track memory leaks.\n", with neither "Memory
///                        Pooling and Memory Tracking must be enabled to track memory leaks.\n", with pooling alone
///                        "Memory Tracking must also be enabled to track memory leaks.\n", each followed by one more
///                        line feed
TQ_API void tq_MemoryTerminate(bool bDumpResources);

/// Allocates; what all others allocate with.
/// @param size  0 counts as 1
/// @param type  TQ_MEM_TYPE_MALLOC or TQ_MEM_TYPE_NEW
/// @param pszFilename,line  the caller, for the reports; the name is kept by pointer
/// @return the block, uninitialised unless DirtyMemoryAlloc fills it; null, after one report, when size is above 2^31,
///         the cap is reached (threads that allocate together may pass it slightly), its pool is used up or there is no
///         memory
TQ_API void* tq__alloc(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line);

/// tq__alloc() for the malloc family; free the block with tq__free().
TQ_API void* tq__malloc(unsigned int size, const char* pszFilename, unsigned int line);

/// tq__alloc() for the new family; free the block with tq__delete() or tq__deleteArray(). Runs no constructor:
/// tq_newObject does.
TQ_API void* tq__new(unsigned int size, const char* pszFilename, unsigned int line);

/// The same as tq__new(). `size` is that of the whole array.
TQ_API void* tq__newArray(unsigned int size, const char* pszFilename, unsigned int line);

/// Allocates count * size bytes in the malloc family and zeroes them. The product is not checked: beyond 32 bits it
/// wraps, and the block has the wrapped size.
/// @return the block; null as tq__alloc() gives it
TQ_API void* tq__calloc(unsigned int count, unsigned int size, const char* pszFilename, unsigned int line);

/// Copies a zero-terminated text into the malloc family.
/// @param pszString  null counts as an empty text
/// @param pszFilename,line  the caller, for the reports; the name is kept by pointer
/// @return the copy; null as tq__alloc() gives it
TQ_API unsigned char* tq__newString(const unsigned char* pszString, const char* pszFilename, unsigned int line);

/// Frees; what all others free with. Null is ignored. While tracking, the block is counted as freed first, and then
/// checked: one of the other family, with damaged check bytes, or already freed is reported and stays. Pooling without
/// tracking looks at the family alone.
/// @param type  TQ_MEM_TYPE_MALLOC or TQ_MEM_TYPE_NEW; both together accept either family
/// @param pointer  the block
/// @param pszFilename,line  the caller, for the reports; the name is kept by pointer
TQ_API void tq__dealloc(void* pointer, unsigned short type, const char* pszFilename, unsigned int line);

/// tq__dealloc() for the malloc family.
TQ_API void tq__free(void* pointer, const char* pszFilename, unsigned int line);

/// tq__dealloc() for the new family. Runs no destructor: tq_deleteObject does.
TQ_API void tq__delete(void* pointer, const char* pszFilename, unsigned int line);

/// The same as tq__delete().
TQ_API void tq__deleteArray(void* pointer, const char* pszFilename, unsigned int line);

/// Resizes a block; it may move, and what both sizes have is kept. While tracking without pooling, the block counts as
/// allocated here from now on; the cap is not asked and the histogram keeps the block under its first size.
/// With pooling a block stays where it is as long as the same pool serves the new size, and then keeps the place where
/// it was allocated; a larger block of the heap is resized there as long as nothing is tracked. Any other is moved as
/// tq__malloc() and tq__free() would do it: with the cap, with the histogram, and only for the malloc family (one of
/// the new family is reported as freed by the wrong function, and stays beside the new block).
/// @param pointer  null: allocates as tq__malloc()
/// @param newSize  0: frees as tq__free(), and then fails
/// @param pszFilename,line  the caller, for the reports; the name is kept by pointer
/// @return the block. Null, after a report of its own ("Unable to re-allocate Memory"), when newSize is 0, there is no
///         memory, the alignment in front of the block is damaged, or a move is refused as tq__malloc() refuses it; but
///         for newSize 0 the old block stays as it was, though while tracking without pooling the counters no longer
///         contain it.
/// With MemoryAlignment a tracked block that was resized lies its header's length above a multiple of it.
TQ_API void* tq__realloc(void* pointer, unsigned int newSize, const char* pszFilename, unsigned int line);

/// For functions that free on behalf of a caller: the next free of the block reports and records this place instead of
/// its own. Nothing happens for a null pointer and while nothing is tracked; a block whose check bytes are damaged is
/// reported and left as it is.
TQ_API void tq_SetMemoryFreedFilenameAndLine(void* ptr, const char* pszFilename, unsigned int line);

/// The configured alignment in bytes: 0 for none, otherwise 1 to 128.
TQ_API unsigned int tq_GetMemoryAlignment();

// Pools: what a developer asks them, then what tq__alloc() and tq__dealloc() are made of.

/// Looks through all slots of all pools for check bytes that were run over, and prints what it finds on standard
/// output: one line for each pool, then its damaged blocks with where they were allocated (for damage in front of a
/// block: where the block before it was, which probably ran over). Needs pooling and tracking, and says so. Each pool
/// is locked while it is searched.
/// @return true when something is damaged
TQ_API bool tq_CheckMemoryPools();

/// The same, to a console session.
/// @param instance  the session; 0: nothing is looked at
TQ_API void tq_CheckMemoryPoolsFromTelnet(unsigned int instance);

/// Behind both.
/// @param instance   a console session; 0: none
/// @param bUseStdOut also on standard output. With neither nothing is looked at
/// @return true when something is damaged
TQ_API bool tq_CheckMemoryPoolsInternal(unsigned int instance, bool bUseStdOut);

/// Marks every block of the pools that is in use, so that the detailed report lists only what was allocated later.
/// Nothing happens without pooling.
TQ_API void tq_MemoryMarkPools();

/// Takes the marks away.
TQ_API void tq_MemoryUnmarkPools();

/// Makes the pools that the settings name; tq_MemoryInitialize() calls it. Pools that exist are kept.
/// @return 0; 1 when there is no memory for one of them, and then there is none
TQ_API unsigned int tq_MemoryPoolInitialize();

/// Frees the pools, but for chunks of slots of which one is in use; those go with the last of them.
/// tq_MemoryTerminate() calls it.
/// @param bDumpResources  list first on standard output what is in use, marked or not
TQ_API void tq_MemoryPoolTerminate(bool bDumpResources);

/// Takes a slot, marked as in use, or a block of the heap when no pool is large enough; the pool may grow.
/// @param size  the whole slot: what the caller wants and the library's own bytes around it
/// @return the slot's start; null when there is none, which is reported by the caller
TQ_API void* tq_MemoryPoolMalloc(unsigned int size);

/// Gives back what tq_MemoryPoolMalloc() returned. A slot that is not in use stays where it is.
TQ_API void tq_MemoryPoolFree(void* pPointer);

/// The pool, from 0, that serves slots of this length; 100: none is large enough. One table lookup up to 102400 bytes.
TQ_API unsigned int WhichPool(unsigned int size);

/// Takes the oldest free slot; with none left the pool grows first, if it may. The pool's lock is held by the caller,
/// here and in the next two.
/// @return null when the pool is used up
TQ_API void* PoolListTake(MEM_POOL_LIST* pList);

/// Appends a slot to the free ones.
/// @param pList          the pool's
/// @param pAddress       the slot's start
/// @param bAdjustCounts  the slot was in use
/// @return 0; 1 when there is no memory for the ring, or no room in it
TQ_API int PoolListReturn(MEM_POOL_LIST* pList, void* pAddress, bool bAdjustCounts);

/// Adds the pool's increment of slots, zeroed, behind those that are free.
/// @return 0; 1 when the increment is 0 or there is no memory, and then the pool is as it was
TQ_API int GrowPool(MEM_POOL_LIST* pList);

// Reports. They take no slot of a pool and, but for the messages to a console session, nothing that is tracked. Lines
// end with a line feed on standard output and in a file, and with "\r\n" on a console.

/// The console's memory report, by the words of its command: "pool=", "filter=", "filterout=", "histogram", "size=",
/// "line=", "format=", "group", "group=", "file=". A word that cannot be used is answered, and ends the command.
/// @param instance    the console session
/// @param uiFlags     1: block by block
/// @param pszCommand  the words, which are cut apart in place; null: none
TQ_API void tq_ShowMemory(unsigned int instance, unsigned int uiFlags, char* pszCommand);

/// Reports on the pools. Without the detailed flag: for each pool its sizes and how many slots are and were in use,
/// then the bytes in use and what changed since the last such report. With it, only while tracking: every block in use
/// that tq_MemoryMarkPools() did not mark, with its first 16 bytes (which its owner may be writing), and the sums, or
/// the blocks grouped by where they were allocated.
/// @param instance     a console session, unless one of the next two is given
/// @param uiFlags      1: detailed
/// @param bPrintf      to standard output
/// @param hFile        to this file
/// @param pool         from 1; 0: all. A number that no pool has is answered
/// @param bGroupNames  grouped; the remaining arguments, too, concern the detailed report alone
/// @param pszNameFilter,pszNameFilterOut  only blocks whose source file name contains the one, and not the other, in
///                     any letter case; an empty text is contained in no name; null: any
/// @param eSortType,bReverseSort  the order of the groups: ascending, or descending
/// @param bFixedSize,size  only blocks of this size
/// @param line         only blocks allocated at this line; 0: any
TQ_API void tq_ShowMemoryPools(unsigned int instance, unsigned int uiFlags, bool bPrintf, FILE* hFile, int pool,
                               bool bGroupNames, const char* pszNameFilter, const char* pszNameFilterOut,
                               TQ_MEM_SORT_FORMATS eSortType, bool bReverseSort, bool bFixedSize, int size,
                               unsigned int line);

/// Reports the counters and their changes since the last report to a console session. Without tracking they are 0.
/// @param instance  the session
TQ_API void tq_ShowMemoryTrackingOnly(unsigned int instance);

/// Shows how many blocks of each size are and at most were in use; sizes whose bar would be empty are left out. While
/// there is no histogram, "Memory Histogram tracking not enabled!\r\n" is the answer, here and in the next two.
/// @param instance  a console session, unless a file is given
/// @param hFile     to this file, which stays open; null: to the console session
/// @param eFormat   the form; INI: as tq_MemoryGenerateINIPoolingSection()
TQ_API void tq_MemoryShowHistogram(unsigned int instance, FILE* hFile, TQ_MEM_HISTOGRAM_FORMATS eFormat);

/// Starts the histogram again from nothing. A block that was counted before still takes one off its size when it is
/// freed, as long as there is one.
/// @param instance  the console session that is told when there is no histogram
TQ_API void tq_MemoryClearHistogram(unsigned int instance);

/// Writes a section for tqos.ini whose pools serve the most blocks that the histogram ever saw in use, with a fifth to
/// spare. It takes the place of the [Memory] section, of which the first counts; other keys can be added to it.
/// @param instance  a console session, unless a file is given
/// @param hFile     to this file, which stays open; null: to the console session
TQ_API void tq_MemoryGenerateINIPoolingSection(unsigned int instance, FILE* hFile);

/// Puts out one piece of a memory report.
/// @param pszResponse  null is ignored
/// @param bPrintf      to standard output, followed by a line feed
/// @param hFile        otherwise, when not null, to this file, which stays open, followed by a line feed
/// @param instance,flags  otherwise as tq_MemoryTelnetSendResponse()
TQ_API void tq_MemoryRespond(const char* pszResponse, bool bPrintf, FILE* hFile, unsigned int instance,
                             unsigned int flags);

/// Sends a text to a console session as a message of its own, on heap memory, never on a slot of a pool. Nothing is
/// sent for a null or empty text, nor while no console runs. To be called without a lock.
/// @param pResponse  copied
/// @param instance   the session
/// @param flags      1: without the line that says who answers
TQ_API void tq_MemoryTelnetSendResponse(const char* pResponse, unsigned int instance, unsigned int flags);

} // extern "C"

/// tq__alloc() with the file and line of the call.
#define tq_alloc(size, type) tq__alloc((size), (type), __FILE__, __LINE__)
/// tq__malloc() with the file and line of the call.
#define tq_malloc(size) tq__malloc((size), __FILE__, __LINE__)
/// tq__new() with the file and line of the call.
#define tq_new(size) tq__new((size), __FILE__, __LINE__)
/// tq__newArray() with the file and line of the call.
#define tq_newArray(size) tq__newArray((size), __FILE__, __LINE__)
/// tq__calloc() with the file and line of the call.
#define tq_calloc(count, size) tq__calloc((count), (size), __FILE__, __LINE__)
/// tq__newString() with the file and line of the call.
#define tq_newString(string) tq_newStringAt((string), __FILE__, __LINE__)
/// tq__dealloc() with the file and line of the call.
#define tq_dealloc(pointer, type) tq__dealloc((pointer), (type), __FILE__, __LINE__)
/// tq__free() with the file and line of the call.
#define tq_free(pointer) tq__free((pointer), __FILE__, __LINE__)
/// tq__delete() with the file and line of the call.
#define tq_delete(pointer) tq__delete((pointer), __FILE__, __LINE__)
/// tq__deleteArray() with the file and line of the call.
#define tq_deleteArray(pointer) tq__deleteArray((pointer), __FILE__, __LINE__)
/// tq__realloc() with the file and line of the call.
#define tq_realloc(pointer, newSize) tq__realloc((pointer), (newSize), __FILE__, __LINE__)

/// Behind tq_newString(), which accepts both spellings of a text; the copy has the spelling of the original.
inline unsigned char* tq_newStringAt(const unsigned char* pszString, const char* pszFilename, unsigned int line) {
    return tq__newString(pszString, pszFilename, line);
}
/// Behind tq_newString(), for the other spelling.
inline char* tq_newStringAt(const char* pszString, const char* pszFilename, unsigned int line) {
    return reinterpret_cast<char*>(tq__newString(reinterpret_cast<const unsigned char*>(pszString), pszFilename, line));
}

/// Behind tq_newObject(): carries the place of the call to the allocation.
class tq_ObjectMaker {
public:
    /// @param pszFilename,line  the caller; the name is kept by pointer
    tq_ObjectMaker(const char* pszFilename, unsigned int line) : m_pszFilename(pszFilename), m_line(line) {}

    /// @return the object, made from the arguments; null when there is no memory
    template <typename T, typename... Arguments> T* Make(Arguments&&... arguments) const {
        static_assert(alignof(T) <= TQ_MEM_BLOCK_ALIGNMENT, "blocks are not aligned enough for this type");
        void* pMemory = tq__new(static_cast<unsigned int>(sizeof(T)), m_pszFilename, m_line);
        return pMemory ? new (pMemory) T(std::forward<Arguments>(arguments)...) : nullptr;
    }

private:
    const char* m_pszFilename;
    unsigned int m_line;
};

/// Destroys an object that tq_newObject() made and frees its memory; a null pointer is ignored. A pointer to a base
/// class will do when the base has a virtual destructor and comes first in the object.
template <typename T> void tq__deleteObject(T* pObject, const char* pszFilename, unsigned int line) {
    if (pObject) {
        pObject->~T();
        tq__delete(pObject, pszFilename, line);
    }
}

/// tq_newObject<T>(arguments...): an object on tracked memory (new family), or null when there is no memory.
#define tq_newObject tq_ObjectMaker(__FILE__, __LINE__).template Make
/// Destroys an object that tq_newObject() made and frees its memory, with the file and line of the call.
#define tq_deleteObject(pObject) tq__deleteObject((pObject), __FILE__, __LINE__)

#endif // TQ_MEMORY_H
