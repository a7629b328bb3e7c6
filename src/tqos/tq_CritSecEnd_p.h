/// @file tq_CritSecEnd_p.h
/// Seam: the end of a critical section that a module below the locks holds by pointer alone.
#ifndef TQ_CRITSECEND_P_H
#define TQ_CRITSECEND_P_H

class tq_SemCritSec;

/// Destroys a section made with tq_newObject<tq_SemCritSec>() and frees its memory.
void tq_CritSecDestroy(tq_SemCritSec* pCritSec);

#endif // TQ_CRITSECEND_P_H
