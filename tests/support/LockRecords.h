/// @file LockRecords.h
/// The tracking of locks: switched on for a scope, and its records as copies.
#ifndef LOCK_RECORDS_H
#define LOCK_RECORDS_H

#include <string>
#include <vector>

#include "tq_SemMutex_p.h"

namespace test {

/// Tracking switched on for a scope.
class LockTracking {
public:
    LockTracking() { tq_SemEnableSemTracking(); }
    ~LockTracking() { tq_SemDisableSemTracking(); }
    LockTracking(const LockTracking&) = delete;
    LockTracking& operator=(const LockTracking&) = delete;
};

/// A copy of a record: of its file name, the text.
struct LockRecord {
    unsigned int threadId;
    void* sem;
    unsigned int line;
    unsigned int state;
    unsigned int type;
    std::string file;
};

/// All records, newest first.
inline std::vector<LockRecord> LockRecords() {
    std::vector<LockRecord> records;
    LockSemList();
    for (const SemListNode* pNode = gpSemListHead; pNode; pNode = pNode->pNext) {
        records.push_back({pNode->ThreadId, pNode->Sem, pNode->Line, pNode->State, pNode->Type,
                           pNode->pszFile ? pNode->pszFile : "(null)"});
    }
    unLockSemList();
    return records;
}

/// What is waited for, of one type.
inline std::vector<void*> LocksWaitedFor(unsigned int type) {
    std::vector<void*> locks;
    for (const LockRecord& record : LockRecords()) {
        if (record.type == type && record.state == SEM_TRACK_STATE_WAITING) {
            locks.push_back(record.sem);
        }
    }
    return locks;
}

} // namespace test

#endif // LOCK_RECORDS_H
