/// @file tq_Memory_p.h
#ifndef TQ_MEMORY_P_H
#define TQ_MEMORY_P_H

#include "tq_Memory.h"

/// Frees a block whatever allocation family it came from; otherwise as tq__free(). For owners of blocks that others
/// allocated, such as a queue that ends with messages still in it.
void tq_FreeEitherFamily(void* pointer, const char* pszFilename, unsigned int line);

#endif // TQ_MEMORY_P_H
