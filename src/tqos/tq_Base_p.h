/// @file tq_Base_p.h
#ifndef TQ_BASE_P_H
#define TQ_BASE_P_H

#include "tq_Base.h"

extern char gTQOSErrorLogfile[512]; ///< the critical-error log; empty: none is written
extern bool gbAssertOnCriticalError;

#endif // TQ_BASE_P_H
