/// @file tq_Trace.h
#ifndef TQ_TRACE_H
#define TQ_TRACE_H

#include <stdarg.h>

#include "tq_List.h"
#include "tq_Types.h"

enum {
    TQ_TRACE_LEVEL_ALL = 0,
    TQ_TRACE_LEVEL_DEBUG_LOW = 5000,
    TQ_TRACE_LEVEL_DEBUG = 10000,
    TQ_TRACE_LEVEL_INFORMATIONAL = 20000,
    TQ_TRACE_LEVEL_WARNING = 30000,
    TQ_TRACE_LEVEL_SEVERE = 40000,
    TQ_TRACE_LEVEL_CRITICAL = 50000,
    TQ_TRACE_LEVEL_NONE = 0x7FFFFFFF
};

/// Categories of the library's own instance "tqos".
enum {
    TQ_TRACE_CAT_SOCKETS = 1,
    TQ_TRACE_CAT_TIMERS = 2,
    TQ_TRACE_CAT_MSGQS = 4,
    TQ_TRACE_CAT_MEMORY = 8,
    TQ_TRACE_CAT_SYSTEM = 16,
    TQ_TRACE_CAT_CRITSEC = 32
};

/// Destination bits of an instance.
enum {
    TQ_TRACE_DEST_FLUSH = 1,
    TQ_TRACE_DEST_FILE = 2,
    TQ_TRACE_DEST_STDOUT = 4,
    TQ_TRACE_DEST_MULTICAST = 8,
    TQ_TRACE_DEST_DEVSTUDIO = 16,
    TQ_TRACE_DEST_STDERR = 32
};

typedef struct _TQ_TRACE_INSTANCE {
    int hTraceInstance;
    char* pszTraceName;
    char* pszCatName[32];
} TQ_TRACE_INSTANCE;

extern "C" {

TQ_API unsigned int tq_TraceInitialize();
TQ_API void tq_TraceTerminate();
TQ_API unsigned int tq__TraceInitInstance(const char* pszName, const char* pszFilename, unsigned int line);
TQ_API int tq_TraceTermInstance(unsigned int hTraceInstance);
TQ_API unsigned int tq_TraceGetHandleFromName(const char* pszName);
TQ_API bool ConvertStringToLevel(const char* pszText, int* pLevel);

TQ_API void tq_Trace(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                     const char* szFormat, ...) TQ_PRINTF(5, 6);
TQ_API void tq_TraceVA(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                       const char* szFormat, va_list args) TQ_PRINTF(5, 0);
TQ_API void tq_TraceInternal(unsigned int hTraceInstance, int Level, unsigned int Category, bool bIncludeTimeStamp,
                             const char* szFormat, va_list args) TQ_PRINTF(5, 0);
TQ_API void tq_TraceHexDump(unsigned int hTraceInstance, int Level, unsigned int Category, const void* pData,
                            unsigned int uLength, const char* szFormat, ...) TQ_PRINTF(6, 7);

TQ_API int tq_TraceGetLevel(unsigned int hTraceInstance);
TQ_API int tq_TraceSetLevel(unsigned int hTraceInstance, int level);
TQ_API int tq_TraceGetCatMask(unsigned int hTraceInstance);
TQ_API int tq_TraceSetCatMask(unsigned int hTraceInstance, int mask);
TQ_API int tq_TraceSetCategoryName(unsigned int hTraceInstance, unsigned int category, const char* pszName);
TQ_API unsigned int tq_TraceLookupCategory(unsigned int hTraceInstance, const char* pszName);
TQ_API int tq_TraceGetDestinations(unsigned int hTraceInstance, int level, unsigned int category);
TQ_API int tq_TraceEnableSTDOUT(unsigned int hTraceInstance);
TQ_API int tq_TraceDisableSTDOUT(unsigned int hTraceInstance);
TQ_API int tq_TraceEnableSTDERR(unsigned int hTraceInstance);
TQ_API int tq_TraceDisableSTDERR(unsigned int hTraceInstance);
TQ_API int tq_TraceEnableDevStudio(unsigned int hTraceInstance);
TQ_API int tq_TraceDisableDevStudio(unsigned int hTraceInstance);
TQ_API int tq_TraceSuppressTimestamp(unsigned int hTraceInstance, bool bSuppress);
TQ_API int tq_TraceShowThreadID(unsigned int hTraceInstance, bool bShow);
TQ_API int tq_TraceSetDeltaTimestamps(bool bShowDeltas);
TQ_API int tq__TraceEnableFile(unsigned int hTraceInstance, const char* pszPath, int maxFiles, int maxBytesPerFile,
                               const char* pszFilename, unsigned int line);
TQ_API int tq_TraceDisableFile(unsigned int hTraceInstance);
TQ_API tq_List* tq_TraceGetInstanceList();
TQ_API void tq_TraceCleanupInstanceList(tq_List* pList);
TQ_API void tq_ShowTrace(char** pszResponse, unsigned int uiFlags, const char* pszArgument);

} // extern "C"

#define tq_TraceInitInstance(pszName) tq__TraceInitInstance((pszName), __FILE__, __LINE__)
#define tq_TraceEnableFile(hTraceInstance, pszPath, maxFiles, maxBytesPerFile)                                         \
    tq__TraceEnableFile((hTraceInstance), (pszPath), (maxFiles), (maxBytesPerFile), __FILE__, __LINE__)

#endif // TQ_TRACE_H
