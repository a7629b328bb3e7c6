/// @file tqos_p.h
#ifndef TQOS_P_H
#define TQOS_P_H

#include <atomic>

#include "tqos.h"

extern const char* myVersion; ///< the banner; null until the first tqOS_Initialize()

/// The clock when the library started, 0 while it is not running.
extern std::atomic<unsigned int> gui_tqosStartTime;

#endif // TQOS_P_H
