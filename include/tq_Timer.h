/// @file tq_Timer.h
#ifndef TQ_TIMER_H
#define TQ_TIMER_H

#include "tq_Types.h"

/// Types of a timer.
enum { TQ_TIMER_ONE_SHOT = 0, TQ_TIMER_REPEATING = 1 };

typedef struct _TIMER_NODE {
    unsigned int mstimeout_original;
    unsigned int mstimeout;
    unsigned int hMsgQ;
    unsigned int type;
    unsigned int instance;
    unsigned int userparm;
    unsigned int flags;
    unsigned int creation_time;
    char* name;
    bool bAllowSkew;
} TIMER_NODE;

extern "C" {

TQ_API unsigned int tq_TimerInitialize();
TQ_API void tq_TimerTerminate();
TQ_API unsigned int tq_TimerSet(unsigned int hMsgQ, unsigned int mstimeout, unsigned int instance,
                                unsigned int userparm, unsigned int flags, unsigned int type, const char* name,
                                bool bAllowSkew);
TQ_API unsigned int tq_TimerKill(unsigned int hMsgQ, unsigned int instance, unsigned int userparm, unsigned int flags);
TQ_API unsigned int tq_TimerTimeRemaining(unsigned int hMsgQ, unsigned int instance, unsigned int userparm,
                                          unsigned int flags);
TQ_API unsigned int tq_TimerNextTimeout(unsigned int hMsgQ, unsigned int instance, unsigned int userparm,
                                        unsigned int flags);
TQ_API void tq_TimerSkew(int msOffset);
TQ_API void tq_TimerShowTimers(char** pszResponse);
TQ_API void CleanupTimerNode(TIMER_NODE* pNode);

} // extern "C"

#endif // TQ_TIMER_H
