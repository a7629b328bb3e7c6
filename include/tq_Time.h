/// @file tq_Time.h
/// The millisecond clock that every time-out and stamp of the library is taken from, and a few helpers on local time.
///
/// The clock counts from some moment in the past and advances by whole clock ticks of the system (10 ms where it has
/// 100 a second); setting the wall clock does not touch it. It wraps around after 2^32 ms, about 49 days: compare
/// differences, never two readings. All functions may be called from any thread and at any time; none but the
/// report, which allocates, takes a lock of the library. Before tqOS_Initialize() the clock counts raw ticks.
#ifndef TQ_TIME_H
#define TQ_TIME_H

#include "tq_Types.h"

extern "C" {

/// The millisecond clock: the system's tick counter times the milliseconds of one tick, in 32 bits. Leaves errno alone.
/// Threads: any; takes no lock.
TQ_API unsigned int tq_GetTimeInMS();

/// Seconds since the start of 1970, UTC, in 32 bits.
/// Threads: any.
TQ_API unsigned int tq_time();

/// Seconds of local time since the current month began: 0 to 2678400 (a leap second included).
/// Threads: any.
TQ_API unsigned int tq_GetSecondsIntoMonth();

/// Seconds of local time since Sunday, 00:00:00: 0 to 604800.
/// Threads: any.
TQ_API unsigned int tq_GetSecondsIntoWeek();

/// Seconds of local time since 00:00:00: 0 to 86400.
/// Threads: any.
TQ_API unsigned int tq_GetSecondsIntoDay();

/// The local time as 24 characters, such as "Wed Jun 30 21:49:08 1993", without line feed.
/// @param buf  room for 26 bytes; not null. Empty when the time cannot be told
/// Threads: any.
TQ_API void tq_GetASCTime(char* buf);

/// How far local time is ahead of UTC, in seconds, east positive: the zone's standard offset. Despite the name daylight
/// saving adds nothing, so at UTC+1 the result is 3600 all year round. Known from tqOS_Initialize() on, or after
/// tzset().
/// Threads: any.
TQ_API int tq_GetGMTOffsetAdjustedForDaylightSavings();

/// Reports the length of a clock tick: "  There are 10ms for each clock tick.\r\n", "is" for 1.
/// @param pszResponse  receives the text, which the caller frees with tq_free(), or null without memory; a null
///                     pszResponse is passed over
/// Threads: any.
TQ_API void tq_TimeShowMSPerTick(char** pszResponse);

/// Reads the time zone and the length of a clock tick. Called by tqOS_Initialize(), not by applications.
/// @return 0
/// Threads: one, before others use the clock.
TQ_API unsigned int tq_TimeInitialize();

/// Called by tqOS_Terminate(), not by applications. The clock goes on.
TQ_API void tq_TimeTerminate();

} // extern "C"

#endif // TQ_TIME_H
