/// @file tq_Trace_p.h
/// The trace instances and what they share.
///
/// Invariants: an instance belongs to gpTraceInstanceList from its opening to its last close and has a name as long as
/// it lives. A reader of any of it is inside gTraceGate, which termination closes before it frees anything. Starting
/// the sockets layer, and destroying a sender, are done without the list's lock: both wait for threads that may trace.
#ifndef TQ_TRACE_P_H
#define TQ_TRACE_P_H

#include <atomic>
#include <stddef.h>
#include <stdio.h>

#include "tq_Gate_p.h"
#include "tq_Trace.h"

class CNetTrace;

typedef struct _TRACEINSTANCE {
    int handle;                  ///< the instance's identity; the list's search key
    int iSocket;                 ///< socket handle of the multicast sender, 0 when multicast is off
    int maxFiles;                ///< rotating log files; 0: a single file
    int bytesPerFile;            ///< size at which the file rotates; 0: never
    int currentFileIndex;        ///< 0..maxFiles-1
    int traceLevel;              ///< threshold; negative: exactly the level of that magnitude
    int traceCategoryMask;       ///< categories passed; -1: all
    int Flags;                   ///< TQ_TRACE_DEST_* bits
    int totalBytesWritten;       ///< to the current file
    int instanceCount;           ///< opens by this name not yet closed
    bool bSuppressTimeStamps;    ///< never print the date text
    bool bShowThreadID;          ///< print the thread's two ids
    FILE* hFile;                 ///< open log file, or null
    char* pszTracingName;        ///< owned
    char* pszNamePrefix;         ///< log file's path without extension; owned, null without a log file
    char* pszNameSuffix;         ///< its extension without the dot; owned
    char* ppszCategoryNames[32]; ///< by bit number; owned, null where the bit has no name
    CNetTrace* pNetTrace;        ///< multicast sender, or null
} TRACEINSTANCE;

static_assert(sizeof(void*) != 4 || offsetof(_TRACEINSTANCE, hFile) == 44, "record layout");
static_assert(sizeof(void*) != 4 || offsetof(_TRACEINSTANCE, ppszCategoryNames) == 60, "record layout");
static_assert(sizeof(void*) != 4 || sizeof(_TRACEINSTANCE) == 192, "record layout");
static_assert(sizeof(void*) != 4 || sizeof(_TQ_TRACE_INSTANCE) == 136, "record layout");

// Set at the start, constant while trace runs.
extern int gDefaultTraceLevel;
extern unsigned int gDefaultTraceCat;
extern int gDefaultFlags;
extern bool gbDefaultSuppressTimestamp;
extern bool gbDefaultShowThreadID;
extern char* gpszDefaultFilePrefix; ///< null without one
extern unsigned int gDefaultMaxFiles;
extern unsigned int gDefaultMaxBytesPerFile;

extern std::atomic<bool> bTraceInitialized; ///< cleared by the first step of termination
extern tq_Gate gTraceGate;
extern tq_List* gpTraceInstanceList; ///< its lock guards every field of every instance

/// The instance list, locked for a scope; false when trace does not run.
class tq_LockedTrace {
public:
    tq_LockedTrace() : m_pass(gTraceGate), m_lock(m_pass ? gpTraceInstanceList : nullptr) {}
    explicit operator bool() const { return static_cast<bool>(m_pass); }

private:
    tq_GatePass m_pass;
    tq_ListLock m_lock;
};

/// The instance of this handle, or null. The list is locked.
_TRACEINSTANCE* tq_FindTraceInstanceLocked(unsigned int hTraceInstance);

/// To be told of every change to an instance's level, mask or destinations, and of its coming and going, with the list
/// still locked: messages are filtered by a copy of them that is read without a lock.
void tq_TraceFilterChangedLocked(unsigned int hTraceInstance);

/// Whether it is certain, without a lock, that a message goes nowhere.
bool tq_TraceIsFilteredOut(unsigned int hTraceInstance, int level, unsigned int category);

extern tq_SemCritSec* pTimeLock; ///< guards the next two; taken inside the instance list's lock
extern bool gbShowTimeDeltas;
extern unsigned int guiLastTimeStampInMS; ///< 0 until the first delta is printed

#endif // TQ_TRACE_P_H
