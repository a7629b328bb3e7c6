#include "tq_MsgQ_p.h"

#include <algorithm>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"

namespace {

constexpr unsigned int kFlagDetail = 1;
constexpr unsigned int kBytesPerRow = 160; // a report grows when a name is longer
constexpr unsigned int kBytesAround = 320;
constexpr int kMostHistory = 100; // from the console; an application may remember more

constexpr char kHeading[] = "QueueId  Depth   TID      Queue Name           Queue Description\r\n";
constexpr char kRule[] = "-------- ----- ---------- -------------------- ------------------------------\r\n";
constexpr char kRow[] = "%-8u %-5u %-10u %-20s %-30s\r\n";
constexpr char kNoSuchQueue[] = "Could not find the queue id specified.";

struct CommandName {
    int command;
    const char* pszName;
};

constexpr CommandName kCommandNames[] = {
    {MSG_CREATE, "MSG_CREATE"},
    {MSG_DESTROY, "MSG_DESTROY"},
    {MSG_TIMER, "MSG_TIMER"},
    {MSG_SOCKET_CONNECTED, "MSG_SOCKET_CONNECTED"},
    {MSG_SOCKET_NEW_CONNECTION, "MSG_SOCKET_NEW_CONNECTION"},
    {MSG_SOCKET_DATASTREAM, "MSG_SOCKET_DATASTREAM"},
    {MSG_SOCKET_DATAGRAM, "MSG_SOCKET_DATAGRAM"},
    {MSG_SOCKET_CLOSED, "MSG_SOCKET_CLOSED"},
    {MSG_SOCKET_NEW_INTERFACES, "MSG_SOCKET_NEW_INTERFACES"},
    {MSG_SOCKET_WRITEABLE, "MSG_SOCKET_WRITEABLE"},
    {MSG_TELNET_RESPONSE, "MSG_TELNET_RESPONSE"},
    {MSG_TELNET_SUMMARY, "MSG_TELNET_SUMMARY"},
    {MSG_TELNET_CUSTOM, "MSG_TELNET_CUSTOM"},
};

struct PriorityTexts {
    int iPriority;
    const char* pszSome;
    const char* pszNone;
};

constexpr PriorityTexts kPriorities[] = {
    {TQ_MSG_PRIORITY_HIGH, "High Priority Message Queue Details...", "No High Priority Messages enqueued."},
    {TQ_MSG_PRIORITY_MEDIUM, "Medium Priority Message Queue Details...", "No Medium Priority Messages enqueued."},
    {TQ_MSG_PRIORITY_LOW, "Low Priority Message Queue Details...", "No Low Priority Messages enqueued."},
};

/// The number that a word begins with; 0 when it does not. More than 32 bits hold counts as the most that they hold.
unsigned int Number(const char* pszWord) {
    const unsigned long long value = strtoull(pszWord, nullptr, 10);
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

} // namespace

// Names

unsigned int tq_MsgQGetIdFromName(const char* pszQueueName) {
    if (!pszQueueName || !*pszQueueName) {
        return 0;
    }
    unsigned int found = 0;
    tq_MsgQVisitAll([pszQueueName, &found](const QUEUE_DETAILS& details) {
        const tq_MsgQLock lock(*details.pMsgQ);
        const char* const pszName = tq_MsgQInside::Name(*details.pMsgQ);
        if (pszName && strcasecmp(pszName, pszQueueName) == 0) {
            found = details.hSource;
        }
        return found == 0;
    });
    return found;
}

char* tq_MsgQGetNameFromId(unsigned int id) {
    const tq_MsgQRegistryLock registry;
    const QUEUE_DETAILS* const pDetails = registry ? tq_MsgQFindLocked(id) : nullptr;
    if (!pDetails) {
        return nullptr;
    }
    const tq_MsgQLock lock(*pDetails->pMsgQ);
    const char* const pszName = tq_MsgQInside::Name(*pDetails->pMsgQ);
    return pszName ? tq_newString(pszName) : nullptr;
}

// Messages as text

int translate_command(int command, char* buf) {
    if (!buf) {
        return 0;
    }
    for (const CommandName& known : kCommandNames) {
        if (known.command == command) {
            return sprintf(buf, "  command:  %s", known.pszName);
        }
    }
    if (command < MSG_USER) {
        return sprintf(buf, "  command:  %u", static_cast<unsigned int>(command));
    }
    return sprintf(buf, "  command:  MSG_USER+%u", static_cast<unsigned int>(command - MSG_USER));
}

void DumpMsgToBuf(MSG_COMMON* pMsg, char* buf) {
    if (!pMsg || !buf) {
        return;
    }
    // Deliberate: one would expect all seven lines to be indented alike. The first has one blank less: the console's
    // prompt stands before it.
    buf += sprintf(buf, " hSource: %u\r\n  hDest:   %u\r\n  size:    %u\r\n", pMsg->hSource, pMsg->hDest, pMsg->size);
    buf += translate_command(static_cast<int>(pMsg->command), buf);
    sprintf(buf, "\r\n  instance: %u\r\n  userparm: %u\r\n  flags:    %u\r\n\r\n", pMsg->instance, pMsg->userparm,
            pMsg->flags);
}

// The report

namespace {

void AddRow(tq_ReportText& text, const QUEUE_DETAILS& details) {
    tq_MsgQ& queue = *details.pMsgQ;
    const tq_MsgQLock lock(queue);
    const char* const pszName = tq_MsgQInside::Name(queue);
    const char* const pszDescription = tq_MsgQInside::Description(queue);
    text.Append(kRow, details.hSource, queue.GetQueueDepth(0), tq_MsgQInside::ThreadId(queue),
                pszName ? pszName : "(unnamed)", pszDescription ? pszDescription : "");
}

char* Summary() {
    const tq_MsgQRegistryLock registry;
    const unsigned int queues = registry ? gpListOfQs->NodeCount() : 0;
    if (queues == 0) {
        return tq_newString("No Queues currently exist...");
    }
    tq_ReportText text(queues * kBytesPerRow + kBytesAround);
    text.Append("%s%s", kHeading, kRule);
    tq_MsgQVisitAll([&text](const QUEUE_DETAILS& details) {
        AddRow(text, details);
        return true;
    });
    return text.Release();
}

void AddHistoryLocked(tq_ResponseList& responses, const tq_MsgQ& queue) {
    const int size = tq_MsgQInside::HistorySize(queue);
    if (size == 0) {
        return;
    }
    responses.Add("Historical queue commands: (oldest to most recent)");
    const int index = tq_MsgQInside::HistoryIndex(queue);
    const bool bFull = tq_MsgQInside::HistoryIsFull(queue);
    const int first = bFull ? index : 0;
    const int count = bFull ? size : index;
    for (int i = 0; i < count; ++i) {
        const int slot = i < size - first ? first + i : i - (size - first);
        char label[TQ_MSG_LABEL_BYTES];
        translate_command(tq_MsgQInside::HistorySlot(queue, slot), label);
        responses.Add("%s", label);
    }
    responses.Add("\r\n");
}

void AddMessagesLocked(tq_ResponseList& responses, tq_MsgQ& queue, const PriorityTexts& texts) {
    tq_List* const pList = tq_MsgQInside::ListOf(queue, texts.iPriority);
    void* pNode = pList ? pList->GetHead() : nullptr;
    responses.Add("%s", pNode ? texts.pszSome : texts.pszNone);
    for (; pNode; pNode = pList->GetNext()) {
        char dump[TQ_MSG_DUMP_BYTES];
        DumpMsgToBuf(static_cast<MSG_COMMON*>(pNode), dump);
        responses.Add("%s", dump);
    }
}

/// Everything about a queue that the registry holds still; false when there is none with this handle.
bool CollectDetails(tq_ResponseList& responses, unsigned int handle) {
    const tq_MsgQRegistryLock registry;
    const QUEUE_DETAILS* const pDetails = registry ? tq_MsgQFindLocked(handle) : nullptr;
    if (!pDetails) {
        return false;
    }
    const tq_MsgQLock lock(*pDetails->pMsgQ);
    AddHistoryLocked(responses, *pDetails->pMsgQ);
    for (const PriorityTexts& texts : kPriorities) {
        AddMessagesLocked(responses, *pDetails->pMsgQ, texts);
    }
    return true;
}

void SendDetails(unsigned int instance, char* pszCommand) {
    const char* const pszId = tq_NextConsoleWord(&pszCommand);
    const unsigned int handle = pszId ? Number(pszId) : 0;
    if (handle == 0) {
        tq_RespondToConsole(pszId ? "Invalid queue id specified." : "Missing queue id.", instance);
        return;
    }
    if (handle == tq_ConsoleQueueHandle()) {
        tq_RespondToConsole("Cannot dump the details of the internal TQOS Telnet message queue!\r\n", instance);
        return;
    }
    tq_ResponseList responses;
    if (!CollectDetails(responses, handle)) {
        responses.Add("%s", kNoSuchQueue);
    }
    responses.SendTo(instance);
}

/// A queue by its number or else by its name; 0 when there is none.
unsigned int QueueOf(const char* pszWord) {
    const unsigned int handle = pszWord ? Number(pszWord) : 0;
    return handle != 0 ? handle : tq_MsgQGetIdFromName(pszWord);
}

bool SetHistoryOf(unsigned int handle, int depth) {
    const tq_MsgQRegistryLock registry;
    const QUEUE_DETAILS* const pDetails = registry ? tq_MsgQFindLocked(handle) : nullptr;
    if (!pDetails) {
        return false;
    }
    pDetails->pMsgQ->SetHistory(depth);
    return true;
}

/// The depth that a word asks for, within what the console may set.
int DepthOf(const char* pszWord) {
    const long depth = pszWord ? strtol(pszWord, nullptr, 10) : 0;
    return static_cast<int>(std::clamp<long>(depth, 0, kMostHistory));
}

} // namespace

void tq_MsgQShowQueues(unsigned int instance, char** pszResponse, unsigned int uiFlags, char* pszCommand) {
    const bool bDetail = (uiFlags & kFlagDetail) != 0;
    if (pszResponse) {
        *pszResponse = bDetail ? nullptr : Summary();
    }
    if (bDetail) {
        SendDetails(instance, pszCommand);
    }
}

void tq_MsgqSetHistory(unsigned int instance, char* pszCommand) {
    const char* const pszQueue = tq_NextConsoleWord(&pszCommand);
    const char* const pszDepth = tq_NextConsoleWord(&pszCommand);
    const int depth = DepthOf(pszDepth);
    if (!SetHistoryOf(QueueOf(pszQueue), depth)) {
        tq_RespondToConsole(kNoSuchQueue, instance);
        return;
    }
    tq_ReportText text(64);
    if (depth != 0) {
        text.Append("Queue History set to %d.", depth);
    } else {
        text.Append("Queue History disabled.");
    }
    char* const pszText = text.Release();
    tq_RespondToConsole(pszText, instance);
    tq_free(pszText);
}
