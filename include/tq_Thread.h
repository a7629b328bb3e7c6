/// @file tq_Thread.h
#ifndef TQ_THREAD_H
#define TQ_THREAD_H

#include "tq_Types.h"

/// Priorities of tq__beginthread().
enum { TQ_THREAD_PRIORITY_LOW = -1, TQ_THREAD_PRIORITY_NORMAL = 0, TQ_THREAD_PRIORITY_HIGH = 1 };

extern "C" {

typedef void* (*PFN_THREAD)(void*);

TQ_API unsigned int tq_ThreadInitialize();
TQ_API void tq_ThreadTerminate(bool bWaitForThreads);
TQ_API unsigned long tq__beginthread(unsigned int stack_size, PFN_THREAD start_address, void* arglist,
                                     unsigned int* thrdaddr, int priority, const char* pszFilename, unsigned int line);
TQ_API void tq_endthread(unsigned int retval) __attribute__((noreturn));
TQ_API unsigned int tq_GetThreadId();
TQ_API unsigned int tq_GetPSThreadId();
TQ_API void tq_ThreadSetName(unsigned int tid, const char* pszName);
TQ_API void tq_ThreadGetName(char* pszName, unsigned int len, unsigned int tid);
TQ_API void tq_ThreadSetPSIdForTracking();
TQ_API void tq_RemoveThreadFromTracking(unsigned int tid);
TQ_API void tq__Sleep(unsigned int msTime, unsigned int uiLine, const char* pszFilename);
TQ_API void tq_ShowThreads(char** pszResponse);

} // extern "C"

#define tq_beginthread(stack_size, start_address, arglist, thrdaddr, priority)                                         \
    tq__beginthread((stack_size), (start_address), (arglist), (thrdaddr), (priority), __FILE__, __LINE__)
#define tq_Sleep(msTime) tq__Sleep((msTime), __LINE__, __FILE__)

#endif // TQ_THREAD_H
