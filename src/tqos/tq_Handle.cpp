#include "tq_Handle_p.h"

#include <stdint.h>

#include "tq_Base.h"
#include "tq_ConsoleResponse_p.h"
#include "tq_Gate_p.h"
#include "tq_IniKeys_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tq_WorkingLock_p.h"

unsigned int gInitialHandleCount = 100;
unsigned int gGrowthHandleCount = 10;
unsigned int gMaxHandle = 1000000;
unsigned int gMinThreshold = 50;

tq_List* gpHandleList = nullptr;
unsigned int gMaxHandles = 0;
unsigned int gAllocatedHandles = 0;
unsigned int gMaxAllocatedHandles = 0;

namespace {

constexpr tq_IniInteger kSettings[] = {
    {"InitialCount", 100, &gInitialHandleCount},
    {"GrowthCount", 10, &gGrowthHandleCount},
    {"MaxHandle", 1000000, &gMaxHandle},
    {"Threshold", 50, &gMinThreshold},
};

constexpr unsigned int kReservedHandle = 1;
constexpr int kSevere = 40000;      // trace level
constexpr int kSystemCategory = 16; // trace category

/// Passed by everybody who uses gpHandleList.
tq_Gate gHandleGate;

// Deliberate: one would expect the number that was given back last, which is at hand. The one that has been free for
// the longest time is taken, so that a stale handle stays invalid for as long as possible.
unsigned int TakeOldestLocked() {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(gpHandleList->RemoveHead()));
}

/// Appends the `count` numbers that follow the highest one. Ends early when the list has no memory for a further entry:
/// the highest number is always one that was really created, so that a later growth starts at the right one.
void CreateNumbersLocked(unsigned int count) {
    while (count-- > 0) {
        const unsigned int numbersBefore = gpHandleList->NodeCount();
        gpHandleList->AddNode(tq_ListKey(gMaxHandles + 1));
        if (gpHandleList->NodeCount() == numbersBefore) {
            return;
        }
        ++gMaxHandles;
    }
}

/// How many numbers may still be created. None, and no wrap to a huge room, when the ceiling lies below the highest.
unsigned int RoomLocked() {
    return gMaxHandle > gMaxHandles ? gMaxHandle - gMaxHandles : 0;
}

void GrowLocked() {
    const unsigned int room = RoomLocked();
    CreateNumbersLocked(gGrowthHandleCount < room ? gGrowthHandleCount : room);
}

unsigned int GetLocked() {
    unsigned int handle = TakeOldestLocked();
    if (handle == 0 || gpHandleList->NodeCount() < gMinThreshold) {
        GrowLocked();
        if (handle == 0) {
            handle = TakeOldestLocked();
        }
    }
    if (handle != 0 && ++gAllocatedHandles > gMaxAllocatedHandles) {
        gMaxAllocatedHandles = gAllocatedHandles;
    }
    return handle;
}

/// False when more handles came back than were taken.
bool ReleaseLocked(unsigned int handle) {
    // Deliberate: one would expect a check. Any number is accepted, also one that is free already and the reserved 1,
    // and is handed out again in its turn. Only 0 cannot be stored, since a list takes no null node.
    gpHandleList->AddToTail(tq_ListKey(handle));
    // Deliberate: one would expect the first handle too many to be noticed. The count includes the reserved handle 1,
    // so that one goes by and the second is reported.
    if (gAllocatedHandles == 0) {
        return false;
    }
    --gAllocatedHandles;
    return true;
}

/// False on an over-release. Before the start and after the end there is nothing to give a handle back to.
bool Release(unsigned int handle) {
    const tq_GatePass pass(gHandleGate);
    if (!pass) {
        return true;
    }
    const tq_ListLock lock(gpHandleList);
    return ReleaseLocked(handle);
}

// The reports

unsigned int NumberOf(const void* pNode) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pNode));
}

constexpr unsigned int kCopyBuckets = 65536;

extern "C" unsigned int BucketOfNumber(void* pNode, void* /*userparm*/) {
    return NumberOf(pNode) % kCopyBuckets;
}

/// Puts every free number at the head of a list.
void CopyFreeNumbers(tq_List& copy) {
    const tq_GatePass pass(gHandleGate);
    if (!pass) {
        return;
    }
    const tq_ListLock lock(gpHandleList);
    for (void* pNode = gpHandleList->GetHead(); pNode; pNode = gpHandleList->GetNext()) {
        copy.AddToHead(pNode);
    }
}

extern "C" int SameNumber(void* data, void* pNode, void* /*userparm*/) {
    return data == pNode ? 0 : 1;
}

bool IsInBucket(tq_List& list, unsigned int hash, const void* pNode) {
    void* pOther = list.HashFindFirst(hash, NumberOf(pNode) % kCopyBuckets);
    while (pOther && pOther != pNode) {
        pOther = list.HashFindNext(hash);
    }
    return pOther != nullptr;
}

/// Whether a number is free twice. The copy is made and unmade, and takes and gives back its own handle, outside the
/// pool's lock.
bool HasDuplicates() {
    if (!gHandleGate.IsOpen()) {
        return false;
    }
    tq_List copy("copy of Handle List");
    CopyFreeNumbers(copy);
    const unsigned int hash = copy.HashCreate(LIST_TYPE_CUSTOM, 0, kCopyBuckets, BucketOfNumber, nullptr);
    bool bFound = false;
    while (void* const pNode = bFound ? nullptr : copy.RemoveHead()) {
        // Without memory for the hash the copy is searched number by number.
        bFound = hash ? IsInBucket(copy, hash, pNode)
                      : copy.FindFirst(pNode, LIST_TYPE_CUSTOM, 0, SameNumber, LIST_DIRECTION_HEAD_TO_TAIL) != nullptr;
    }
    return bFound;
}

void BuildHandlesReport(tq_ReportText& text) {
    const tq_GatePass pass(gHandleGate);
    if (!pass) {
        text.Append("TQOS handle subsystem is NOT initialized!\r\n");
        return;
    }
    const tq_ListLock lock(gpHandleList);
    const unsigned int available = gpHandleList->NodeCount();
    text.Append("\r\n");
    text.Append("TQOS handles currently available: %10u\r\n", available);
    text.Append("TQOS handles currently in use:    %10u (Max: %u)\r\n", gMaxHandles - available, gMaxAllocatedHandles);
    text.Append("                                  ----------\r\n");
    text.Append("                           Total: %10u\r\n", gMaxHandles);
}

} // namespace

unsigned int tq_HandleGet() {
    const tq_GatePass pass(gHandleGate);
    if (!pass) {
        return 0;
    }
    const tq_ListLock lock(gpHandleList);
    return GetLocked();
}

void tq_HandleRelease(unsigned int handle) {
    if (!Release(handle)) { // reported with neither lock nor gate held: the report takes locks of its own
        LogCriticalError("Erroneous tq_HandleRelease() called! More handles released than allocated! Oops!\n",
                         /*bAbort=*/false, kSevere, kSystemCategory);
    }
}

void tq_ShowHandles(unsigned int instance) {
    tq_ReportText text(255);
    BuildHandlesReport(text);
    char* const pszText = text.Release();
    tq_RespondToConsole(pszText, instance);
    tq_free(pszText);
}

void tq_CheckForDuplicateHandles(unsigned int instance) {
    tq_RespondToConsole(HasDuplicates() ? "ALERT! Duplicate handles detected in the TQOS handle subsystem!\r\n"
                                        : "No duplicate handles detected in the TQOS handle subsystem!\r\n",
                        instance);
}

unsigned int tq_HandleInitialize() {
    if (gpHandleList) {
        return 0;
    }
    tq_ReadIniTable("Handles", kSettings);
    gAllocatedHandles = kReservedHandle;
    gMaxAllocatedHandles = kReservedHandle;
    gMaxHandles = kReservedHandle;
    // The handle is given: a list that drew its own could not be the one it is drawn from.
    gpHandleList = tq_IfItLocks(tq_newObject<tq_List>("TQOS: Handles", static_cast<int>(kReservedHandle)));
    if (!gpHandleList) {
        return 1;
    }
    tq_ListPlace(gpHandleList, tq_LockRank::kHandlesAndStrings);
    {
        const tq_ListLock lock(gpHandleList);
        const unsigned int highest = gInitialHandleCount < gMaxHandle ? gInitialHandleCount : gMaxHandle;
        CreateNumbersLocked(highest > gMaxHandles ? highest - gMaxHandles : 0);
    }
    gHandleGate.Open();
    return 0;
}

void tq_HandleTerminate() {
    gHandleGate.Close();
    tq_List* const pList = gpHandleList;
    gpHandleList = nullptr; // before its destructor gives back handle 1, which goes nowhere
    if (pList) {
        while (pList->RemoveHead()) {
        }
        tq_deleteObject(pList);
    }
    gMaxHandles = 0;
    gAllocatedHandles = 0;
    gMaxAllocatedHandles = 0;
}
