/// @file tq_Handle_p.h
/// State of the handle allocator. gpHandleList is set before the gate in tq_Handle.cpp opens and cleared after it has
/// closed; the counters are only touched under the list's own lock. The settings are written once, before the gate
/// opens.
#ifndef TQ_HANDLE_P_H
#define TQ_HANDLE_P_H

#include "tq_Handle.h"
#include "tq_List.h"

/// The free numbers, oldest first. A node's pointer is the number itself.
extern tq_List* gpHandleList;

extern unsigned int gMaxHandles;          ///< highest number created so far; at least 1 while the pool exists
extern unsigned int gAllocatedHandles;    ///< in use; starts at 1, counting the reserved handle 1
extern unsigned int gMaxAllocatedHandles; ///< the most that gAllocatedHandles has been

extern unsigned int gInitialHandleCount; ///< "InitialCount"
extern unsigned int gGrowthHandleCount;  ///< "GrowthCount"
extern unsigned int gMaxHandle;          ///< "MaxHandle"
extern unsigned int gMinThreshold;       ///< "Threshold"

#endif // TQ_HANDLE_P_H
