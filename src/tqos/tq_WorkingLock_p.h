/// @file tq_WorkingLock_p.h
/// An object that threads share is no better than its lock: one whose lock could not be made counts as one for which
/// there was no memory at all.
#ifndef TQ_WORKINGLOCK_P_H
#define TQ_WORKINGLOCK_P_H

#include "tq_List_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"

inline bool tq_LockWorks(const tq_SemCritSec& section) {
    return tq_SemInside::Works(section);
}

inline bool tq_LockWorks(const tq_List& list) {
    const tq_SemCritSec* pSection = tq_ListInside::StateOf(list).pSem;
    return pSection && tq_SemInside::Works(*pSection);
}

/// A section, or a list with a lock, as tq_newObject() has made it; null, and it is gone, when it would lock nothing.
template <typename Object> Object* tq_IfItLocks(Object* pObject) {
    if (pObject && !tq_LockWorks(*pObject)) {
        tq_deleteObject(pObject);
        return nullptr;
    }
    return pObject;
}

#endif // TQ_WORKINGLOCK_P_H
