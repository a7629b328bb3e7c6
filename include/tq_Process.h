/// @file tq_Process.h
#ifndef TQ_PROCESS_H
#define TQ_PROCESS_H

#include "tq_Types.h"

extern "C" {

TQ_API void* tq_LoadLibrary(const char* filename);
TQ_API void* tq_GetProcAddress(void* handle, const char* symbol);
TQ_API int tq_FreeLibrary(void* handle);
TQ_API int tq_SpawnProcess(const char* pszApp, const char* pszWorkingDir, bool bWait);
TQ_API int tq_KillProcess(int pid);

} // extern "C"

#endif // TQ_PROCESS_H
