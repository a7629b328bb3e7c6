/// @file tq_MsgQ.h
#ifndef TQ_MSGQ_H
#define TQ_MSGQ_H

#include <atomic>

#include "tq_List.h"
#include "tq_SemCritSec.h"
#include "tq_SemEvent.h"
#include "tq_SemSemaphore.h"
#include "tq_Types.h"

enum {
    MSG_CREATE = 1,
    MSG_DESTROY = 2,
    MSG_TIMER = 256,
    MSG_SOCKET_CONNECTED = 512,
    MSG_SOCKET_NEW_CONNECTION = 513,
    MSG_SOCKET_DATASTREAM = 514,
    MSG_SOCKET_DATAGRAM = 515,
    MSG_SOCKET_CLOSED = 516,
    MSG_SOCKET_NEW_INTERFACES = 517,
    MSG_SOCKET_WRITEABLE = 518,
    MSG_TELNET_RESPONSE = 768,
    MSG_TELNET_SUMMARY = 769,
    MSG_TELNET_CUSTOM = 770,
    MSG_USER = 65536
};

/// Priorities of a send.
enum { TQ_MSG_PRIORITY_HIGH = 1, TQ_MSG_PRIORITY_MEDIUM = 2, TQ_MSG_PRIORITY_LOW = 3 };

typedef struct _MSG_COMMON {
    unsigned int hSource;
    unsigned int hDest;
    unsigned int size;
    unsigned int command;
    unsigned int instance;
    unsigned int userparm;
    unsigned int flags;
} MSG_COMMON;

class TQ_API tq_MsgQ {
public:
    virtual ~tq_MsgQ();
    virtual void MessageHandler(MSG_COMMON* pMsg);

    tq_MsgQ(const char* name, const char* description);
    tq_MsgQ(const tq_MsgQ&) = delete;
    tq_MsgQ& operator=(const tq_MsgQ&) = delete;

    void Create(unsigned int* phSource, int priority);
    void Create(int priority);
    unsigned int GetHandle();
    bool Send(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);
    unsigned int GetQueueDepth(int iPriority);
    MSG_COMMON* PeekHead(int iPriority);
    MSG_COMMON* PeekTail(int iPriority);
    MSG_COMMON* ReplaceMsgFromHead(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound);
    MSG_COMMON* ReplaceMsgFromTail(MSG_COMMON* pMsg, int iPriority, bool bAddIfNotFound);
    void Destroy(bool bAddToHead);
    void Cleanup();
    void Lock();
    void Unlock();
    void SetName(const char* name);
    void SetDescription(const char* description);
    void SetHistory(int size);
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
    unsigned int m_StackSize;
    std::atomic<bool> m_bDone;
    char* m_pszName;
    char* m_pszDescription;
    int m_iHistorySize;
    int m_iHistoryIndex;
    int* m_piHistory;
    bool m_bFullHistory;
};

extern "C" {

TQ_API unsigned int tq_MsgQInitialize();
TQ_API void tq_MsgQTerminate();
TQ_API bool tq_MsgSend(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);
TQ_API void tq_MsgSendToAll(MSG_COMMON* pMsg, bool bAddToHead, int iPriority);
TQ_API void tq_MsgQSendToNamed(unsigned int QueueId, void* pMessage);
TQ_API bool tq__MsgCreateCommonAndSend(unsigned int hSource, unsigned int hDest, unsigned int command,
                                       unsigned int instance, unsigned int userparm, unsigned int flags,
                                       bool bAddToHead, int iPriority, const char* pszFilename, unsigned int line);

} // extern "C"

#define tq_MsgCreateCommonAndSend(hSource, hDest, command, instance, userparm, flags, bAddToHead, iPriority)           \
    tq__MsgCreateCommonAndSend((hSource), (hDest), (command), (instance), (userparm), (flags), (bAddToHead),           \
                               (iPriority), __FILE__, __LINE__)

#endif // TQ_MSGQ_H
