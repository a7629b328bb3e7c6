/// @file tq_Time_p.h
#ifndef TQ_TIME_P_H
#define TQ_TIME_P_H

#include <atomic>

#include "tq_Time.h"

extern std::atomic<unsigned int> gClockMSperTick; ///< milliseconds a clock tick; 1 until tq_TimeInitialize()

#endif // TQ_TIME_P_H
