/// @file tq_Handle.h
#ifndef TQ_HANDLE_H
#define TQ_HANDLE_H

#include "tq_Types.h"

extern "C" {

TQ_API unsigned int tq_HandleInitialize();
TQ_API void tq_HandleTerminate();
TQ_API unsigned int tq_HandleGet();
TQ_API void tq_HandleRelease(unsigned int handle);

} // extern "C"

#endif // TQ_HANDLE_H
