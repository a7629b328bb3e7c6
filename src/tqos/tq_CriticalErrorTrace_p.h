/// @file tq_CriticalErrorTrace_p.h
/// Seam: a critical error becomes a trace line. The floors below trace report errors; trace alone can print them.
#ifndef TQ_CRITICALERRORTRACE_P_H
#define TQ_CRITICALERRORTRACE_P_H

#include <atomic>

/// Traces the message on the library's own instance, with time stamp. The message is a format without arguments: "%%"
/// prints one "%", any other conversion is printed as it stands. While the calling thread holds a lock of the library,
/// the line is kept and printed by the first thread that leaves its last lock; before trace runs it is dropped.
/// Neither allocates while it is kept nor blocks on a lock that the caller might hold.
void tq_TraceCriticalError(const char* pMessage, int level, int category);

/// True while lines are kept.
extern std::atomic<bool> gbCriticalErrorsKept;

/// Prints the kept lines. Called by a thread that holds no lock of the library.
void tq_TraceKeptCriticalErrors();

#endif // TQ_CRITICALERRORTRACE_P_H
