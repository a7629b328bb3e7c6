/// @file tq_Process.h
/// Dynamic libraries and processes, with the library's names and result conventions.
///
/// All functions may be called from any thread; none takes a lock of the library but tq_LoadLibrary(), which traces its
/// failures. After tqOS_Initialize() ended children leave no zombies (unless [SignalHandler] "Disable" is set), so
/// nobody has to wait for them, and nobody can learn their exit status.
#ifndef TQ_PROCESS_H
#define TQ_PROCESS_H

#include "tq_Types.h"

extern "C" {

/// Loads a dynamic library; its symbols are bound as they are first used.
/// @param filename  as dlopen() takes it: a name with a "/" is a path, any other is searched for; null is the program
///                  itself
/// @return its handle, to be given back with tq_FreeLibrary(); null on failure, which is traced on the library's own
///         instance as "tq_LoadLibrary failed: " and the reason (level 30000, category 16)
/// Threads: any, without a lock of the library held.
TQ_API void* tq_LoadLibrary(const char* filename);

/// The address of a symbol.
/// @param handle  from tq_LoadLibrary(); null searches the program and all that it has loaded at its start
/// @param symbol  its plain name
/// @return null when there is none of that name, or symbol is null
/// Threads: any.
TQ_API void* tq_GetProcAddress(void* handle, const char* symbol);

/// Gives a library back; it is unloaded when nobody else holds it. Its code must no longer be in use.
/// @return 1 done; 0 the handle is null or was refused
/// Threads: any.
TQ_API int tq_FreeLibrary(void* handle);

/// Starts a program in a process of its own. The child keeps standard input, output and error and no other descriptor,
/// the caller's signal mask and the signals that are ignored; signals with a handler get their default action.
/// @param pszApp         the command: program and arguments, apart by white space, fewer than 1024 characters. There is
///                       no quoting and no shell; the program is searched for along PATH. What follows the 15th word
///                       (the program counts) is ignored
/// @param pszWorkingDir  the child's working directory; null for the caller's, which it also gets when it cannot change
///                       to this one
/// @param bWait          return when the child has ended
/// @return the child's process id; -1 for a null command or when no process could be made; -2 for a command that is too
///         long. A program that cannot be run is no failure: its process ends at once with status 0
/// Threads: any. The calling thread stands still until the child runs its program.
TQ_API int tq_SpawnProcess(const char* pszApp, const char* pszWorkingDir, bool bWait);

/// Kills a process with SIGKILL, by way of the shell.
/// @return 0, whether or not the process was there; -1 for the process id 0
/// Threads: any.
TQ_API int tq_KillProcess(int pid);

} // extern "C"

#endif // TQ_PROCESS_H
