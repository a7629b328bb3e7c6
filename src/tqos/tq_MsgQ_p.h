/// @file tq_MsgQ_p.h
#ifndef TQ_MSGQ_P_H
#define TQ_MSGQ_P_H

#include "tq_MsgQ.h"

/// The registry of all queues, "TQOS: All Queues": one _QUEUE_DETAILS a created queue, in order of creation.
extern tq_List* gpListOfQs;

typedef struct _QUEUE_DETAILS {
    unsigned int hSource; ///< the queue's handle; the registry's key
    tq_MsgQ* pMsgQ;
} QUEUE_DETAILS;

/// Creates the registry; false without memory. Called by the library's start.
bool tq_MsgQRegistryOpen();
/// Destroys every registered queue (waits for their workers). Called by the library's termination, first of all.
void DestroyListOfQs();
/// Waits for late senders and destroys the registry list.
void tq_MsgQRegistryClose();

#endif // TQ_MSGQ_P_H
