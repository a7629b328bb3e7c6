/// @file tq_Time.h
#ifndef TQ_TIME_H
#define TQ_TIME_H

#include "tq_Types.h"

extern "C" {

TQ_API unsigned int tq_TimeInitialize();
TQ_API void tq_TimeTerminate();
TQ_API unsigned int tq_GetTimeInMS();
TQ_API unsigned int tq_time();
TQ_API unsigned int tq_GetSecondsIntoMonth();
TQ_API unsigned int tq_GetSecondsIntoWeek();
TQ_API unsigned int tq_GetSecondsIntoDay();
TQ_API void tq_GetASCTime(char* buf);
TQ_API int tq_GetGMTOffsetAdjustedForDaylightSavings();
TQ_API void tq_TimeShowMSPerTick(char** pszResponse);

} // extern "C"

#endif // TQ_TIME_H
