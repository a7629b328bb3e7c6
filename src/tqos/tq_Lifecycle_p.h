/// @file tq_Lifecycle_p.h
/// Seam: what the library's start and stop hold and the floors below need to see.
#ifndef TQ_LIFECYCLE_P_H
#define TQ_LIFECYCLE_P_H

#include <atomic>

class tq_SemCritSec;

/// How often the library was initialised and not yet terminated. (The name is misspelt; applications' tools know it
/// so.)
extern std::atomic<unsigned int> tqos_Intialized;

/// The library's own trace instance, 0 when none.
extern std::atomic<unsigned int> tqosTraceHandle;

/// Serialises the lazy starts of subsystems. Use tq_LazyStart rather than the section itself.
extern tq_SemCritSec* pSubsystemInitCritSec;

/// Admission to a lazy start: holds pSubsystemInitCritSec for a scope, or says no before the library runs and from the
/// first step of its termination on.
class tq_LazyStart {
public:
    tq_LazyStart(const char* pszFilename, unsigned int line);
    ~tq_LazyStart();
    tq_LazyStart(const tq_LazyStart&) = delete;
    tq_LazyStart& operator=(const tq_LazyStart&) = delete;
    explicit operator bool() const { return m_bAdmitted; }

private:
    bool m_bAdmitted;
};

#endif // TQ_LIFECYCLE_P_H
