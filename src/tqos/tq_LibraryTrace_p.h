/// @file tq_LibraryTrace_p.h
/// Seam: a line on the library's own trace instance, from modules that stand below trace.
#ifndef TQ_LIBRARYTRACE_P_H
#define TQ_LIBRARYTRACE_P_H

#include "tq_Types.h"

/// Traces a line on the library's own instance, with time stamp; does nothing while that instance is not open. Takes
/// trace's locks: not to be called with a lock of the library held.
void tq_TraceOnOwnInstance(int level, unsigned int category, const char* pszFormat, ...) TQ_PRINTF(3, 4);

#endif // TQ_LIBRARYTRACE_P_H
