/// @file tq_Timer.h
/// Timers: one-shot and repeating. A timer that expires sends a MSG_TIMER to a message queue (tq_MsgQ.h), at the tail
/// of its medium list, with the timer's instance, userparm and flags; the queue's handler frees it as any message.
///
/// A timer is known by its four keys: hMsgQ, instance, userparm, flags. There is one timer for each combination.
///
/// All functions may be called from any thread, handlers included; each takes the timer list's lock for a moment and
/// may wait while the timer thread sends. The first call of most starts the service and its thread; tqOS_Terminate()
/// stops it. While the library is not running, or is terminating, there is no service and each function says so by its
/// result for that case.
///
/// Times are milliseconds of the library's clock (tq_GetTimeInMS()), up to 2^32 - 1, as fine as that clock's tick.
#ifndef TQ_TIMER_H
#define TQ_TIMER_H

#include "tq_Types.h"

/// Types of a timer; any other value than these counts as one-shot.
enum { TQ_TIMER_ONE_SHOT = 0, TQ_TIMER_REPEATING = 1 };

/// One timer. Made by tq_TimerSet() and owned by the timer list.
typedef struct _TIMER_NODE {
    unsigned int mstimeout_original; ///< the duration asked for, at least 10; a repeating timer is armed with it again
    unsigned int mstimeout;          ///< what remained of it at creation_time
    unsigned int hMsgQ;              ///< the queue that gets the message; never 0
    unsigned int type;               ///< 1 repeats, anything else fires once
    unsigned int instance;           ///< carried in the message
    unsigned int userparm;           ///< carried in the message
    unsigned int flags;              ///< carried in the message
    unsigned int creation_time;      ///< tq_GetTimeInMS() when mstimeout was last brought up to date
    char* name;                      ///< tracked copy; null when none was given
    bool bAllowSkew;                 ///< the timer follows tq_TimerSkew()
} TIMER_NODE;

extern "C" {

/// Starts the service and its thread "TQOS: Timer Thread", or counts one more user of it. The other functions do this
/// by themselves when they are first called.
/// @return 0 running; 1 the library is not running, or there was no memory or no thread (nothing is then counted)
TQ_API unsigned int tq_TimerInitialize();

/// Takes one user away; the last one stops the service: the timer thread ends, every timer is gone, and nothing more is
/// sent when this returns. Called by tqOS_Terminate(), for which it is always the last. Does nothing when the service
/// is not running. Not to be called under a lock that the timer thread may want (a message queue's).
TQ_API void tq_TimerTerminate();

/// Arms a timer; one with the same four keys is replaced.
/// @param hMsgQ       handle of the queue that gets the message; it need not exist yet. Not 0
/// @param instance,userparm,flags  what the message carries in its fields of these names, and with hMsgQ the keys
/// @param mstimeout   milliseconds until it expires; less than 10 counts as 10
/// @param type        1 repeats: it expires again mstimeout after each expiry was handled. Anything else fires once
/// @param name        shown in the report; copied; may be null
/// @param bAllowSkew  the timer follows tq_TimerSkew()
/// @return 0 armed; 1 hMsgQ is 0, there is no memory, or the service could not start
///
/// A timer, repeating or not, ends when its message cannot be delivered: the queue is gone or is being destroyed.
TQ_API unsigned int tq_TimerSet(unsigned int hMsgQ, unsigned int mstimeout, unsigned int instance,
                                unsigned int userparm, unsigned int flags, unsigned int type, const char* name,
                                bool bAllowSkew);

/// Removes the timer with exactly these four keys. A message that it has already sent still comes.
/// @return 0 removed; 1 there was none, hMsgQ is 0, or the service could not start
TQ_API unsigned int tq_TimerKill(unsigned int hMsgQ, unsigned int instance, unsigned int userparm, unsigned int flags);

/// Milliseconds until the timer with exactly these four keys expires.
/// @return 0 also when there is none, or the service could not start
TQ_API unsigned int tq_TimerTimeRemaining(unsigned int hMsgQ, unsigned int instance, unsigned int userparm,
                                          unsigned int flags);

/// Milliseconds until the earliest timer of a queue expires whose other three keys match.
/// @param hMsgQ  handle of the queue
/// @param instance,userparm,flags  0 matches anything
/// @return 4294967295 when there is none, hMsgQ is 0, or the service could not start
TQ_API unsigned int tq_TimerNextTimeout(unsigned int hMsgQ, unsigned int instance, unsigned int userparm,
                                        unsigned int flags);

/// Shifts every timer that was set with bAllowSkew and is not due yet.
/// @param msOffset  positive: they expire that much earlier, at once when less remains; negative: later (what remains
///                  stays below 2^32). The durations of later repeats stay
TQ_API void tq_TimerSkew(int msOffset);

/// A report of all timers, the earliest first.
/// @param pszResponse  receives the text, which the caller frees with tq_free(); null when there is no memory. A null
///                     pszResponse does nothing
TQ_API void tq_TimerShowTimers(char** pszResponse);

/// Frees a timer that is in no list, and its name. A null pointer is ignored.
TQ_API void CleanupTimerNode(TIMER_NODE* pNode);

} // extern "C"

#endif // TQ_TIMER_H
