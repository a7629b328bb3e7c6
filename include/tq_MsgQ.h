/// @file tq_MsgQ.h
/// Message queues: what an application of this library is made of. Each queue has a worker thread of its own that hands
/// one message after the other to the queue's MessageHandler(), so a handler needs no locks for what only it uses.
/// Timer expiries, socket events and console requests come as messages too.
///
/// An application derives a class from tq_MsgQ, overrides MessageHandler(), makes an object, names it by the handle
/// that Create() gives, and sends to it by that handle from anywhere. Before the object goes, Cleanup() ends the
/// worker.
///
/// @code
/// class Door : public tq_MsgQ {
/// public:
///     Door() : tq_MsgQ("Door", "opens and closes") {}
///     ~Door() override { Cleanup(); } // ends the worker while the handler's own fields still exist
///     void MessageHandler(MSG_COMMON* pMsg) override {
///         if (pMsg->command == MSG_USER) { ... }
///         tq_free(pMsg);
///     }
/// };
/// @endcode
///
/// A message is one tracked block that begins with a MSG_COMMON. The sender allocates it; a send that succeeds hands it
/// to the queue, the queue hands it to MessageHandler(), and the handler frees it with tq_free(). A send that fails
/// leaves it with the sender. What a queue still holds when it is cleaned up, it frees.
///
/// Every function here may be called from any thread unless it says otherwise; no handler is called with a lock held.
/// Lock order: the registry of queues, then a queue's lock. A thread that holds a queue's Lock() may look at that
/// queue, send to it, replace its messages and change its history, and nothing else of this header: the rest takes the
/// registry or waits for the worker.
#ifndef TQ_MSGQ_H
#define TQ_MSGQ_H

#include <atomic>

#include "tq_List.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_SemSemaphore.h"
#include "tq_Types.h"

/// Commands of messages: a block of 256 for each producer in the library, and from MSG_USER on for applications.
enum {
    MSG_CREATE = 1,                  ///< the first message a handler sees, before anything that was sent
    MSG_DESTROY = 2,                 ///< the last message a handler sees; the worker ends after it
    MSG_TIMER = 256,                 ///< a timer expired (tq_Timer.h)
    MSG_SOCKET_CONNECTED = 512,      ///< this and the next six: tq_Socket.h
    MSG_SOCKET_NEW_CONNECTION = 513, ///< a listener accepted a peer
    MSG_SOCKET_DATASTREAM = 514,     ///< bytes of a stream are there
    MSG_SOCKET_DATAGRAM = 515,       ///< a datagram is there
    MSG_SOCKET_CLOSED = 516,         ///< the peer or an error ended the connection
    MSG_SOCKET_NEW_INTERFACES = 517, ///< the machine's network interfaces changed
    MSG_SOCKET_WRITEABLE = 518,      ///< there is room to send again
    MSG_TELNET_RESPONSE = 768,       ///< console response text
    MSG_TELNET_SUMMARY = 769,        ///< the console asks for a summary
    MSG_TELNET_CUSTOM = 770,         ///< the console passes on a command of the application's own
    MSG_USER = 65536                 ///< the first command free for applications: they use MSG_USER + n
};

/// Priorities of a send. A message is handled when no message of a higher priority waits.
enum { TQ_MSG_PRIORITY_HIGH = 1, TQ_MSG_PRIORITY_MEDIUM = 2, TQ_MSG_PRIORITY_LOW = 3 };

/// The header of every message, 28 bytes. A payload follows it directly, in the same block.
typedef struct _MSG_COMMON {
    unsigned int hSource;  ///< handle of the sender (queue, socket, ...); 0 when none
    unsigned int hDest;    ///< handle of the receiving queue; a send to a queue writes it
    unsigned int size;     ///< bytes of the whole message, header included; at least 28
    unsigned int command;  ///< MSG_...
    unsigned int instance; ///< the sender's own; carried unchanged
    unsigned int userparm; ///< the sender's own; carried unchanged
    unsigned int flags;    ///< the sender's own; carried unchanged
} MSG_COMMON;

/// A queue with three priority lists and one worker thread.
///
/// Its life: constructed (sends fail) - Create() (handle, entry in the registry, worker; sends succeed) - Destroy()
/// (sends fail, the worker handles what is before MSG_DESTROY and ends) - Cleanup() (the rest is freed; the queue may
/// be created again) - destroyed.
///
/// A queue that has a handle when the library terminates is destroyed and cleaned up by it, which waits for its worker;
/// the object itself stays its owner's.
class TQ_API tq_MsgQ {
public:
    /// Cleans the queue up, so it waits for the worker. A derived class calls Cleanup() in its own destructor (or its
    /// owner does before deleting it): the worker may be in the derived handler, whose fields go before this destructor
    /// begins. Destroy() does as well but for the case that there is no memory for MSG_DESTROY, in which it does not
    /// wait. Where nobody did either, messages that the worker takes meanwhile reach the handler of the class whose
    /// destructor has begun, down to the one below, which drops them without freeing them; and a handler at work uses
    /// fields that are gone.
    ///
    /// Not to be called by the queue's own handler: the worker goes on using the queue when the handler returns.
    virtual ~tq_MsgQ();

    /// Called by the worker for every message, one at a time, with no lock held. The override owns the message and
    /// frees it with tq_free(). It may send to its own queue, set timers, create other queues, and call Destroy(). It
    /// must not terminate the library, which waits for this very worker.
    ///
    /// Deliberate: a base class would be expected to free what it does not handle. This one ignores the message, which
    /// is then lost: a queue that is used overrides it.
    virtual void MessageHandler(MSG_COMMON* pMsg);

    /// Makes a queue without a handle and a thread; sends to it fail until Create().
    /// @param name         shown in reports and found by name; copied; null counts as ""
    /// @param description  shown in reports; copied; may be null
    tq_MsgQ(const char* name, const char* description);
    tq_MsgQ(const tq_MsgQ&) = delete;
    tq_MsgQ& operator=(const tq_MsgQ&) = delete;

    /// Gives the queue a handle, registers it and starts its worker; the handler's first message is MSG_CREATE, even
    /// when others were sent before the worker ran.
    ///
    /// Where the library is not running (or is terminating), the queue already has a handle, or there is no memory or
    /// no handle left, nothing is done: GetHandle() then gives what it gave before. Where the system refuses the
    /// thread, the queue is created and takes messages, but nobody handles them; Cleanup() frees them.
    /// @param phSource  receives the handle before the worker runs; may be null; untouched when nothing is done
    /// @param priority  the worker's: 1 high, -1 low, anything else normal (see tq__beginthread())
    void Create(unsigned int* phSource, int priority);
    /// The same for a caller that reads the handle later.
    void Create(int priority);

    /// The queue's handle; 0 before Create() and after Cleanup().
    unsigned int GetHandle();

    /// Queues a message on this queue and writes the queue's handle into hDest.
    /// @param pMsg        a tracked block; the queue's when true comes back, else still the caller's
    /// @param bAddToHead  true: it is handled next of its priority; false: last
    /// @param iPriority   1 high, 3 low, anything else medium. MSG_DESTROY ends the queue: nothing is taken after it
    /// @return true when queued; false when pMsg is null, the queue is not created or is being destroyed, or there is
    ///         no memory
    bool Send(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);

    /// How many messages wait.
    /// @param iPriority  1 high, 2 medium, 3 low, 0 all three; anything else gives 0
    unsigned int GetQueueDepth(int iPriority);

    /// The message of a list that would be handled first. It stays the queue's, and the worker may take and free it at
    /// any moment: hold Lock() for as long as it is looked at.
    /// @param iPriority  2 medium, 3 low, 0 the first found in the order high, medium, low; anything else high
    /// @return null when there is none, or the queue is not created or is being destroyed
    MSG_COMMON* PeekHead(int iPriority);

    /// The message of a list that would be handled last; as PeekHead() otherwise.
    /// @param iPriority  1 high, 2 medium, 0 the first found in the order low, medium, high; anything else low
    MSG_COMMON* PeekTail(int iPriority);

    /// Puts a message in the place of the first one with the same command, looking from the head: so that at most one
    /// of a kind waits (one pending redraw, for instance).
    /// @param pMsg            the new message; the queue's when it is placed or added. Its hDest is written only when
    ///                        it is added
    /// @param iPriority       where to look: as PeekHead() chooses
    /// @param bAddIfNotFound  when there is none with its command, Send(pMsg, false, iPriority)
    /// @return the message that was replaced, now the caller's to free; null when none was. pMsg is then the caller's
    ///         still, unless bAddIfNotFound was set and the queue took it. (It does not when it is being destroyed or
    ///         there is no memory, and the result does not tell the two apart.)
    MSG_COMMON* ReplaceMsgFromHead(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound);

    /// The same looking from the tail, in the lists that PeekTail() chooses.
    MSG_COMMON* ReplaceMsgFromTail(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound);

    /// Ends the queue: takes it out of the registry, queues MSG_DESTROY on the medium list and waits until the worker
    /// has handled it and ended. Sends fail from then on. What was queued on the high and medium lists before it is
    /// handled first, unless bAddToHead puts it in front of the medium ones; low messages that still wait are not.
    ///
    /// Called by the queue's own handler it returns without waiting, and the worker ends once it comes to MSG_DESTROY.
    /// Somebody else then calls Cleanup() or destroys the object: both wait for the worker first.
    ///
    /// On a queue that is not created it does nothing. On one that is being destroyed (by another thread, by its own
    /// handler) it waits like the first call. Not to be called with the queue's Lock() held.
    ///
    /// Without memory for MSG_DESTROY nothing is sent and nobody waits: the worker then ends in Cleanup(), without
    /// MSG_DESTROY.
    void Destroy(bool bAddToHead);

    /// Destroy(false), waits until the worker has ended however that came about, and frees what the queue holds: name,
    /// description, history, handle, and the messages that were never handled (their blocks, not what these may point
    /// to). A second call does nothing. Called by the queue's own handler it only begins the end, as Destroy() does.
    void Cleanup();

    /// Holds the queue's lists still: the worker takes no message meanwhile. The same thread may lock it again.
    void Lock();
    /// Ends one Lock() of the calling thread.
    void Unlock();

    /// Names the queue, its worker thread ("tq_MsgQ: " and the name) and its lists. The name is copied; null leaves the
    /// queue without one; without memory for the copy the old name stays.
    void SetName(const char* name);
    /// Replaces the description by a copy; null clears it; without memory for the copy the old one stays.
    void SetDescription(const char* description);

    /// Sets how many commands the queue remembers; 0 or less turns the history off. Without memory it stays as it was.
    ///
    /// Resizing moves the remembered commands. A smaller history keeps the newest. A larger one keeps them all, oldest
    /// first when it had wrapped, and has room for more.
    ///
    /// Deliberate: the commands of a history that has not wrapped would be expected to keep their places when it grows.
    /// They move up by as many as were free, and the next commands are written where they would have been before: a
    /// report then shows unwritten places as command 0, and the moved ones as they come to be overwritten.
    void SetHistory(int size);
    /// Remembers a command as handled. The worker does this for MSG_CREATE and for every message it takes.
    void AddToHistory(int command);

private:
    friend struct tq_MsgQInside; // the module's own access to these fields

    tq_SemSemaphore m_Sem;
    tq_SemCritSec m_CritSecListLock;
    tq_SemEvent m_SemThreadExit;
    tq_List* m_pQueueHigh;
    tq_List* m_pQueueMed;
    tq_List* m_pQueueLow;
    std::atomic<unsigned int> m_ThreadId;
    std::atomic<unsigned int> m_hSource;
    unsigned int m_StackSize __attribute__((unused)); // always 0: the stack size is a setting
    std::atomic<bool> m_bDone;
    char* m_pszName;
    char* m_pszDescription;
    int m_iHistorySize;
    int m_iHistoryIndex;
    int* m_piHistory;
    bool m_bFullHistory;

    bool m_bListsUnnamed;
    bool m_bEndWithoutMessage;
    std::atomic<unsigned char> m_uiWorkerSleep;
    unsigned int m_uiLockDepth;
    std::atomic<bool> m_bEndTold;
    std::atomic<unsigned short> m_uiWaits;
    std::atomic<unsigned int> m_uiWorkerState;
    std::atomic<unsigned int> m_uiPins;
    tq_MsgQ* m_pNextCreated;
};

extern "C" {

/// Reads the settings of section [MsgQ]: "DefaultStackSize" (bytes of a worker's stack; 0 leaves it to the threads'
/// own setting) and "DefaultHistory" (commands that a new queue remembers; 0 none). Called by tqOS_Initialize().
/// @return 0
TQ_API unsigned int tq_MsgQInitialize();

/// Does nothing: the queues end with the registry. Called by tqOS_Terminate().
TQ_API void tq_MsgQTerminate();

/// Sends a message to the queue whose handle is the message's hDest; otherwise as tq_MsgQ::Send().
/// @return true when queued (the message is the queue's now); false when pMsg is null, no queue has the handle, the
///         library is not running, or the queue did not take it (the message stays the caller's)
TQ_API bool tq_MsgSend(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);

/// Sends a copy of the message to every registered queue, each with that queue's handle as hDest. A queue that does not
/// take its copy, or for whose copy there is no memory, is passed over.
/// @param pMsg  stays the caller's; size bytes are copied. Nothing is sent when it is null or its size less than 28
/// @param bAddToHead,iPriority  as tq_MsgQ::Send()
TQ_API void tq_MsgSendToAll(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);

/// Sends a copy of a message, at the tail of the medium list, to one queue or to every queue that has a name ("" is a
/// name; a queue is without one after SetName(null)).
/// @param QueueId   handle of the queue; 0 for all with a name
/// @param pMessage  begins with a MSG_COMMON; stays the caller's. Nothing is sent when it is null or its size less than
///                  28
TQ_API void tq_MsgQSendToNamed(unsigned int QueueId, void* pMessage);

/// Sends a message that is only a header, made from the arguments. The usual way to send: see the macro
/// tq_MsgCreateCommonAndSend, which passes the caller's own file and line.
/// @param hSource,command,instance,userparm,flags  the header's fields of these names
/// @param hDest        the receiving queue
/// @param bAddToHead,iPriority  as tq_MsgQ::Send()
/// @param pszFilename,line  charged with the allocation; the name is kept by pointer, so it must live as long as the
///                     process
/// @return true when queued; false when there is no memory or no such queue, or it did not take the message
TQ_API bool tq__MsgCreateCommonAndSend(unsigned int hSource, unsigned int hDest, unsigned int command,
                                       unsigned int instance, unsigned int userparm, unsigned int flags,
                                       bool bAddToHead, int iPriority, const char* pszFilename, unsigned int line);

/// The handle of the queue with this name, upper and lower case the same; the one created first where several have it.
/// @return 0 when the name is null or empty, no queue has it, or the library is not running
TQ_API unsigned int tq_MsgQGetIdFromName(const char* pszQueueName);

/// A copy of the name of the queue with this handle, which the caller frees with tq_free().
/// @return null when no queue has the handle, the queue has no name, there is no memory, or the library is not running
TQ_API char* tq_MsgQGetNameFromId(unsigned int id);

/// Bytes that translate_command() and DumpMsgToBuf() write at the most, the end of the text included.
enum { TQ_MSG_LABEL_BYTES = 64, TQ_MSG_DUMP_BYTES = 256 };

/// Writes a command's label: "  command:  " and its name (as MSG_TIMER), its number where it has none, or, from
/// MSG_USER on, "MSG_USER+" and the rest.
/// @param command  a negative one shows as the unsigned number of the same bits
/// @param buf      at least TQ_MSG_LABEL_BYTES
/// @return the characters written, without the end of the text; 0 when buf is null
TQ_API int translate_command(int command, char* buf);

/// Writes the seven fields of a message's header as lines of text, and an empty line. Nothing is written when one of
/// the two is null.
/// @param pMsg  stays whose it is; it must not be a message that a queue may hand to its handler meanwhile
/// @param buf   at least TQ_MSG_DUMP_BYTES
TQ_API void DumpMsgToBuf(MSG_COMMON* pMsg, char* buf);

/// Reports the queues: a table of all, or with bit 1 of uiFlags the history and the waiting messages of one, which is
/// sent to a console session one response a line or message. Not to be called with a queue's Lock() held.
/// @param instance     the console session; not used for the table
/// @param pszResponse  receives the table, or "No Queues currently exist...", which the caller frees with tq_free();
///                     null when there is no memory, and for one queue. May be null; there is no table then
/// @param uiFlags      1: one queue
/// @param pszCommand   for one queue: begins with its handle (a name is not accepted); words are cut out of it in
///                     place. The session is told when the handle is missing, 0, unknown, or the console's own queue,
///                     whose messages are not shown: the report would add to them
TQ_API void tq_MsgQShowQueues(unsigned int instance, char** pszResponse, unsigned int uiFlags, char* pszCommand);

/// Sets how many commands a queue remembers, and tells a console session of it, or that there is no such queue.
/// @param instance    the console session
/// @param pszCommand  a handle or a name, and how many: less than 0 counts as 0, more than 100 as 100, and 0, no number
///                    or nothing turns the history off; words are cut out of it in place
TQ_API void tq_MsgqSetHistory(unsigned int instance, char* pszCommand);

} // extern "C"

/// tq__MsgCreateCommonAndSend() with the file and line of the call.
#define tq_MsgCreateCommonAndSend(hSource, hDest, command, instance, userparm, flags, bAddToHead, iPriority)           \
    tq__MsgCreateCommonAndSend((hSource), (hDest), (command), (instance), (userparm), (flags), (bAddToHead),           \
                               (iPriority), __FILE__, __LINE__)

#endif // TQ_MSGQ_H
