/// @file tqos.h
#ifndef TQOS_H
#define TQOS_H

#include <signal.h>

#include "tq_Base.h"
#include "tq_Dir.h"
#include "tq_Handle.h"
#include "tq_List.h"
#include "tq_Memory.h"
#include "tq_MsgQ.h"
#include "tq_Process.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex.h"
#include "tq_SemSemaphore.h"
#include "tq_Socket.h"
#include "tq_Thread.h"
#include "tq_Time.h"
#include "tq_Timer.h"
#include "tq_Trace.h"
#include "tq_Types.h"

extern "C" {

TQ_API unsigned int tqOS_Initialize();
TQ_API void tqOS_Terminate(bool bDumpResources, bool bWaitForThreads);
TQ_API const unsigned char* tqOS_GetVersion();
TQ_API unsigned int tqOS_uptime();
TQ_API void tqos_SignalHandler(int sig, siginfo_t* info, void* context);

} // extern "C"

#endif // TQOS_H
