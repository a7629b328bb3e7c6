/// @file tq_Memory.h
#ifndef TQ_MEMORY_H
#define TQ_MEMORY_H

#include <new>
#include <stdio.h>
#include <utility>

#include "tq_Types.h"

/// Block types, kept in the low bits of a block's flags word.
enum { TQ_MEM_FLAG_IN_USE = 1, TQ_MEM_FLAG_FREED_LOCATION_SET = 8, TQ_MEM_TYPE_MALLOC = 4096, TQ_MEM_TYPE_NEW = 8192 };

extern "C" {

TQ_API unsigned int tq_MemoryInitialize();
TQ_API void tq_MemoryTerminate(bool bDumpResources);
TQ_API void* tq__alloc(unsigned int size, unsigned int type, const char* pszFilename, unsigned int line);
TQ_API void* tq__malloc(unsigned int size, const char* pszFilename, unsigned int line);
TQ_API void* tq__new(unsigned int size, const char* pszFilename, unsigned int line);
TQ_API void* tq__newArray(unsigned int size, const char* pszFilename, unsigned int line);
TQ_API void* tq__calloc(unsigned int count, unsigned int size, const char* pszFilename, unsigned int line);
TQ_API unsigned char* tq__newString(const unsigned char* pszString, const char* pszFilename, unsigned int line);
TQ_API void tq__dealloc(void* pointer, unsigned short type, const char* pszFilename, unsigned int line);
TQ_API void tq__free(void* pointer, const char* pszFilename, unsigned int line);
TQ_API void tq__delete(void* pointer, const char* pszFilename, unsigned int line);
TQ_API void tq__deleteArray(void* pointer, const char* pszFilename, unsigned int line);
TQ_API void* tq__realloc(void* pointer, unsigned int newSize, const char* pszFilename, unsigned int line);
TQ_API void tq_SetMemoryFreedFilenameAndLine(void* ptr, const char* pszFilename, unsigned int line);
TQ_API unsigned int tq_GetMemoryAlignment();
TQ_API void tq_MemoryRespond(const char* pszResponse, bool bPrintf, FILE* hFile, unsigned int instance,
                             unsigned int flags);

} // extern "C"

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
struct tq_ObjectMaker {
    const char* pszFilename;
    unsigned int line;

    template <typename T, typename... Arguments> T* Make(Arguments&&... arguments) const {
        void* pMemory = tq__new(static_cast<unsigned int>(sizeof(T)), pszFilename, line);
        return pMemory ? new (pMemory) T(std::forward<Arguments>(arguments)...) : nullptr;
    }
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
#define tq_newObject tq_ObjectMaker{__FILE__, __LINE__}.template Make
#define tq_deleteObject(pObject) tq__deleteObject((pObject), __FILE__, __LINE__)

#endif // TQ_MEMORY_H
