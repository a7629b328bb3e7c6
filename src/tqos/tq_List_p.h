/// @file tq_List_p.h
/// What the library itself knows of lists: the registry of all of them, the blocks their entries come from and the
/// comparisons of their keys.
///
/// Every list made while the library runs has a record in the registry until it is destroyed. The records are guarded
/// by gpListOfListsCritSec, which exists while the registry is open: made by the library's start before any list and
/// unmade after the last. Lock order: innermost but for the memory locks and those of lock tracking; nothing else is
/// taken while it is held. A list therefore takes its handle, and gives it back, outside it. Names of lists are only
/// replaced while it is held, so a report that holds it may read them.
#ifndef TQ_LIST_P_H
#define TQ_LIST_P_H

#include "tq_List.h"

/// Guards the registry; null while it is not open.
extern tq_SemCritSec* gpListOfListsCritSec;

/// Opens the registry (creates the section); false without memory. Called by the library's start.
bool tq_ListRegistryOpen();
/// Closes it: waits for whoever is using it, forgets the lists that still exist, destroys the section. Called by the
/// library's termination, with no lock held.
void tq_ListRegistryClose();

/// One list in the registry.
typedef struct _LISTOFLISTS {
    tq_List* pList;
    unsigned int handle; ///< 0 when there was none to be had
    struct _LISTOFLISTS* pNext;
} LISTOFLISTS;

extern LISTOFLISTS* gpListOfLists; ///< newest first
extern unsigned int gpListCount;

/// Entries are allocated sixteen at a time.
struct _LIST_BLOCK {
    _LIST_BLOCK* pNext; ///< the block allocated before this one
    tq_List::_TQ_LIST_ENTRY EntryList[16];
};

/// Compares a search value with the key at an offset of a node; 0 when they match.
typedef int (*PFN_LIST_COMPARE_DATA)(void* data, void* pNode, unsigned int offset);
/// Compares the keys at an offset of two nodes; negative, 0 or positive.
typedef int (*PFN_LIST_COMPARE_NODES)(void* pNode1, void* pNode2, unsigned int offset);

/// By LIST_TYPE_ - 1, for all types but LIST_TYPE_CUSTOM.
extern const PFN_LIST_COMPARE_DATA tqList_CompareData[10];
extern const PFN_LIST_COMPARE_NODES tqList_CompareNode[10];

#endif // TQ_LIST_P_H
