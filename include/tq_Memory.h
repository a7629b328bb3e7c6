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
///
/// While nothing is tracked an allocation is a malloc (plus the alignment) and nothing more; only the alignment can be
/// checked then.
///
/// Reports go to the critical-error log with trace category 8: requests that fail at level 30000 (the cap reached,
/// more than 2^31 bytes, no memory, a failed tq__realloc), damage and misuse at level 40000 (check bytes run over, a
/// block freed twice, a block freed with the other family's function, a damaged alignment). tq_Assert(false) follows
/// each but the cap's. A block that is reported is not freed.
///
/// Two families: the malloc family (tq__malloc, tq__calloc, tq__realloc, tq__newString) is freed with tq__free, the new
/// family (tq__new, tq__newArray, tq_newObject) with tq__delete or tq__deleteArray, which are the same. Tracking tells
/// the families apart, not objects from arrays.
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

extern "C" {

/// Reads the settings. tqOS_Initialize() calls it before anything of the library allocates; a second call while blocks
/// live is allowed only with the same settings for tracking and alignment, since a block is read with the settings of
/// the moment. Without memory for the histogram the histogram is off.
/// @return 0 always
TQ_API unsigned int tq_MemoryInitialize();

/// Ends the histogram. Blocks stay valid and are freed as before; counters and settings stay.
/// @param bDumpResources  say on standard output that leaks are listed only with memory pools (and tracking) enabled:
///                        "Memory Pooling must also be enabled to track memory leaks.\n" while tracking, otherwise
///                        "Memory Pooling and Memory Tracking must be enabled to track memory leaks.\n", each followed
///                        by one more line feed
TQ_API void tq_MemoryTerminate(bool bDumpResources);

/// Allocates; what all others allocate with.
/// @param size  0 counts as 1
/// @param type  TQ_MEM_TYPE_MALLOC or TQ_MEM_TYPE_NEW
/// @return the block, uninitialised unless DirtyMemoryAlloc fills it; null, after one report, when size is above 2^31,
///         the cap is reached (threads that allocate together may pass it slightly) or there is no memory
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
/// @return the copy; null as tq__alloc() gives it
TQ_API unsigned char* tq__newString(const unsigned char* pszString, const char* pszFilename, unsigned int line);

/// Frees; what all others free with. Null is ignored. While tracking, the block is counted as freed first, and then
/// checked: one of the other family, with damaged check bytes, or already freed is reported and stays.
/// @param type  TQ_MEM_TYPE_MALLOC or TQ_MEM_TYPE_NEW; both together accept either family
TQ_API void tq__dealloc(void* pointer, unsigned short type, const char* pszFilename, unsigned int line);

/// tq__dealloc() for the malloc family.
TQ_API void tq__free(void* pointer, const char* pszFilename, unsigned int line);

/// tq__dealloc() for the new family. Runs no destructor: tq_deleteObject does.
TQ_API void tq__delete(void* pointer, const char* pszFilename, unsigned int line);

/// The same as tq__delete().
TQ_API void tq__deleteArray(void* pointer, const char* pszFilename, unsigned int line);

/// Resizes a block of either family; it may move, and what both sizes have is kept. While tracking, the block counts as
/// allocated here from now on; the cap is not asked and the histogram keeps the block under its first size.
/// @param pointer  null: allocates as tq__malloc()
/// @param newSize  0: frees as tq__free(), and then fails
/// @return the block. Null, after a report of its own ("Unable to re-allocate Memory"), when newSize is 0, there is no
///         memory, or the alignment in front of the block is damaged; but for newSize 0 the old block stays as it was,
///         though the counters no longer contain it.
/// With MemoryAlignment a tracked block that was resized lies its header's length above a multiple of it.
TQ_API void* tq__realloc(void* pointer, unsigned int newSize, const char* pszFilename, unsigned int line);

/// For functions that free on behalf of a caller: the next free of the block reports and records this place instead of
/// its own. Nothing happens for a null pointer and while nothing is tracked; a block whose check bytes are damaged is
/// reported and left as it is.
TQ_API void tq_SetMemoryFreedFilenameAndLine(void* ptr, const char* pszFilename, unsigned int line);

/// The configured alignment in bytes: 0 for none, otherwise 1 to 128.
TQ_API unsigned int tq_GetMemoryAlignment();

/// Puts out one piece of a memory report, followed by a line feed.
/// @param pszResponse  null is ignored
/// @param bPrintf      to standard output
/// @param hFile        otherwise, when not null, to this file, which stays open
/// @param instance,flags  of no effect in these two forms
TQ_API void tq_MemoryRespond(const char* pszResponse, bool bPrintf, FILE* hFile, unsigned int instance,
                             unsigned int flags);

} // extern "C"

// The functions above with the file and line of the call.
#define tq_alloc(size, type) tq__alloc((size), (type), __FILE__, __LINE__)
#define tq_malloc(size) tq__malloc((size), __FILE__, __LINE__)
#define tq_new(size) tq__new((size), __FILE__, __LINE__)
#define tq_newArray(size) tq__newArray((size), __FILE__, __LINE__)
#define tq_calloc(count, size) tq__calloc((count), (size), __FILE__, __LINE__)
#define tq_newString(string) tq_newStringAt((string), __FILE__, __LINE__)
#define tq_dealloc(pointer, type) tq__dealloc((pointer), (type), __FILE__, __LINE__)
#define tq_free(pointer) tq__free((pointer), __FILE__, __LINE__)
#define tq_delete(pointer) tq__delete((pointer), __FILE__, __LINE__)
#define tq_deleteArray(pointer) tq__deleteArray((pointer), __FILE__, __LINE__)
#define tq_realloc(pointer, newSize) tq__realloc((pointer), (newSize), __FILE__, __LINE__)

/// The two spellings of a text that tq_newString() accepts; the copy has the spelling of the original.
inline unsigned char* tq_newStringAt(const unsigned char* pszString, const char* pszFilename, unsigned int line) {
    return tq__newString(pszString, pszFilename, line);
}
inline char* tq_newStringAt(const char* pszString, const char* pszFilename, unsigned int line) {
    return reinterpret_cast<char*>(tq__newString(reinterpret_cast<const unsigned char*>(pszString), pszFilename, line));
}

/// Behind tq_newObject(): carries the place of the call to the allocation.
class tq_ObjectMaker {
public:
    tq_ObjectMaker(const char* pszFilename, unsigned int line) : m_pszFilename(pszFilename), m_line(line) {}

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
#define tq_deleteObject(pObject) tq__deleteObject((pObject), __FILE__, __LINE__)

#endif // TQ_MEMORY_H
