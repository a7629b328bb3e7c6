/// @file tq_Base_p.h
/// Both settings are written by tq_BaseInitialize() alone, before other threads use the library, and are only read
/// afterwards; no lock guards them.
#ifndef TQ_BASE_P_H
#define TQ_BASE_P_H

#include "tq_Base.h"

extern char gTQOSErrorLogfile[512];  ///< the critical-error log; empty: none is written
extern bool gbAssertOnCriticalError; ///< kept for the application's tools; nothing in the library acts on it

#endif // TQ_BASE_P_H
