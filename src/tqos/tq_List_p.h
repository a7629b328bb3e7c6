/// @file tq_List_p.h
#ifndef TQ_LIST_P_H
#define TQ_LIST_P_H

#include "tq_List.h"

/// The registry of all lists. gpListOfListsCritSec is made by the library's start before any list and unmade after the
/// last; lists that outlive it stay as they are. Lock order: innermost but for the memory locks; nothing else is taken
/// while it is held.
extern tq_SemCritSec* gpListOfListsCritSec;

/// Opens the registry (creates the section); false without memory. Called by the library's start.
bool tq_ListRegistryOpen();
/// Closes it: waits for whoever is using it, then destroys the section. Called by the library's termination.
void tq_ListRegistryClose();

typedef struct _LISTOFLISTS {
    tq_List* pList;
    unsigned int handle;
    struct _LISTOFLISTS* pNext;
} LISTOFLISTS;

extern LISTOFLISTS* gpListOfLists; ///< newest first
extern unsigned int gpListCount;

#endif // TQ_LIST_P_H
