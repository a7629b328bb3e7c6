/// @file tq_Time_p.h
/// The arithmetic behind the clock and the calendar helpers, apart from the calls that ask the system.
#ifndef TQ_TIME_P_H
#define TQ_TIME_P_H

#include <atomic>
#include <time.h>

#include "tq_Time.h"

class tq_SemCritSec;

extern std::atomic<unsigned int> gClockMSperTick; ///< milliseconds a clock tick; 1 until tq_TimeInitialize()
extern tq_SemCritSec* pTimeCritSec;               ///< made by nobody here; tq_TimeTerminate() ends one that is present

/// The system's tick counter, from which tq_GetTimeInMS() is made.
unsigned int tq_ClockTicks();

/// Whole milliseconds of one tick, rounded to the nearest; `current` when the system does not know its rate (0, -1).
unsigned int tq_MSPerTickAtRate(long ticksPerSecond, unsigned int current);

/// The system's tick counter from what its call gave: result, and errno as it stands afterwards. A counter of 32 bits
/// passes through values that look like error numbers.
unsigned int tq_TicksFromCall(long result, int errorNumber);

unsigned int tq_SecondsIntoMonth(const struct tm& local);
unsigned int tq_SecondsIntoWeek(const struct tm& local);
unsigned int tq_SecondsIntoDay(const struct tm& local);

#endif // TQ_TIME_P_H
