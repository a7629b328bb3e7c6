/// @file tq_Handle.h
/// The allocator of handles: small unsigned numbers by which the library names its objects (queues, sockets, lists,
/// trace instances). One pool serves the whole process; a number belongs to one object from tq_HandleGet() until
/// tq_HandleRelease(). Applications may draw numbers for objects of their own from the same pool.
///
/// 0 is never a valid handle and 1 is reserved. Reuse is first-in, first-out, so that a stale handle stays invalid for
/// as long as possible.
///
/// Settings, section [Handles] of "tqos.ini":
///
/// | key          | default | meaning                                                                        |
/// |--------------|---------|--------------------------------------------------------------------------------|
/// | InitialCount | 100     | the numbers 2 to InitialCount exist from the start                             |
/// | GrowthCount  | 10      | numbers added a step; 0: the pool never grows                                  |
/// | MaxHandle    | 1000000 | no number above this is ever created, also not by a larger InitialCount        |
/// | Threshold    | 50      | the pool grows when fewer numbers than this remain free after one was taken    |
///
/// Negative values count as the unsigned number of the same bits, that is as very large ones. The pool ends where the
/// memory for a further free number is refused; what exists by then stays usable.
///
/// Threads: any thread may call tq_HandleGet() and tq_HandleRelease() at any time, also before the library starts and
/// after it has terminated.
#ifndef TQ_HANDLE_H
#define TQ_HANDLE_H

#include "tq_Types.h"

extern "C" {

/// Reads the settings and fills the pool. tqOS_Initialize() calls it; applications do not.
/// @return 0 the pool is ready (also when it already was, which changes nothing); 1 its list could not be made
/// Threads: the one that starts the library.
TQ_API unsigned int tq_HandleInitialize();

/// Empties and destroys the pool once every call inside it has returned. Handles still in use mean nothing afterwards.
/// tqOS_Terminate() calls it; applications do not. Without a pool it does nothing.
/// Threads: the one that terminates the library.
TQ_API void tq_HandleTerminate();

/// Takes the number that has been free for the longest time.
/// @return the handle; 0 when every number up to MaxHandle is in use, when the pool could not grow for want of memory,
///         or when the library is not running
/// Threads: any.
TQ_API unsigned int tq_HandleGet();

/// Gives a handle back. It is used again after every number that is free now.
/// @param handle  what tq_HandleGet() returned. It is not checked: another number is taken into the pool as it is, and
///                a number given back twice is handed out twice; 0 only counts as given back
///
/// Giving back more handles than were taken is reported as a critical error, from the second one too many on. Before
/// the library starts and after it has terminated the call does nothing. Threads: any.
TQ_API void tq_HandleRelease(unsigned int handle);

/// Tells a console session how many handles are free and in use.
/// @param instance  the session
/// Threads: any, with no lock of the library held.
TQ_API void tq_ShowHandles(unsigned int instance);

/// Tells a console session whether a number is in the pool of free handles twice, as one given back twice is. A number
/// that is free and in use at once is not noticed. It takes a copy of the pool, for which it needs memory.
/// @param instance  the session
/// Threads: any, with no lock of the library held.
TQ_API void tq_CheckForDuplicateHandles(unsigned int instance);

} // extern "C"

#endif // TQ_HANDLE_H
