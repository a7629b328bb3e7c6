// Weak definitions of what has not been written yet; goes away with the last module.
#include "tq_CritSecEnd_p.h"
#include "tq_CriticalErrorTrace_p.h"
#include "tq_Dir_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_IniKeys_p.h"
#include "tq_LibraryTrace_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Thread_p.h"
#include "tqos.h"
#define WEAK __attribute__((weak))
WEAK void tq_TraceCriticalError(const char*, int, int) {}
WEAK void tq_TraceOnOwnInstance(int, unsigned int, const char*, ...) {}
WEAK void tq_CritSecDestroy(tq_SemCritSec*) {}
WEAK std::atomic<bool> gbCriticalErrorsKept{false};
WEAK void tq_TraceKeptCriticalErrors() {}
WEAK std::atomic<unsigned int> tqos_Intialized{0};
WEAK std::atomic<unsigned int> tqosTraceHandle{0};
WEAK tq_SemCritSec* pSubsystemInitCritSec = nullptr;
WEAK unsigned int tq_HeldLocks() { return 0; }
WEAK void tq_HeldLatchEntered() {}
WEAK void tq_HeldLatchLeaving() {}
WEAK void tq_ThreadTerminationBegins(bool) {}
WEAK void tq_ThreadIsEnding() {}
WEAK void tq_ThreadWaitForEndingThreads() {}
WEAK bool tq_ListRegistryOpen() { return true; }
WEAK void tq_ListRegistryClose() {}
WEAK tq_List* gpListOfQs = nullptr;
WEAK bool tq_MsgQRegistryOpen() { return true; }
WEAK void DestroyListOfQs() {}
WEAK void tq_MsgQRegistryClose() {}
WEAK void tq_ReadIniRows(const char*, const tq_IniInteger*, size_t) {}
WEAK void tq_ReadIniRows(const char*, const tq_IniSwitch*, size_t) {}
extern "C" {
WEAK void LogCriticalError(const char*, bool, int, int) {}
WEAK void tq_Assert(bool) {}
WEAK unsigned int tq_BaseInitialize() { return 0; }
WEAK void tq_BaseTerminate() {}
WEAK unsigned int tq_MemoryInitialize() { return 0; }
WEAK void tq_MemoryTerminate(bool) {}
WEAK unsigned int tq_SemMutexInitialize() { return 0; }
WEAK void tq_SemMutexTerminate() {}
WEAK void tq_SemDisableSemTracking() {}
WEAK unsigned int tq_HandleInitialize() { return 0; }
WEAK void tq_HandleTerminate() {}
WEAK unsigned int tq_HandleGet() { return 0; }
WEAK void tq_HandleRelease(unsigned int) {}
WEAK unsigned int tq_TimeInitialize() { return 0; }
WEAK void tq_TimeTerminate() {}
WEAK unsigned int tq_ThreadInitialize() { return 0; }
WEAK void tq_ThreadTerminate(bool) {}
WEAK void tq_ThreadSetName(unsigned int, const char*) {}
WEAK void tq_ShowThreads(char**) {}
WEAK unsigned int tq_MsgQInitialize() { return 0; }
WEAK void tq_MsgQTerminate() {}
WEAK bool tq_MsgSend(MSG_COMMON*, bool, int) { return false; }
WEAK unsigned int tq_TraceInitialize() { return 0; }
WEAK void tq_TraceTerminate() {}
WEAK unsigned int tq__TraceInitInstance(const char*, const char*, unsigned int) { return 0; }
WEAK int tq_TraceTermInstance(unsigned int) { return 1; }
WEAK int tq_TraceSetCategoryName(unsigned int, unsigned int, const char*) { return 1; }
WEAK void tq_Trace(unsigned int, int, unsigned int, bool, const char*, ...) {}
WEAK void tq_SocketStopWorkerThread() {}
WEAK void tq_SocketTerminate(unsigned int) {}
WEAK void tq_TimerTerminate() {}
}
