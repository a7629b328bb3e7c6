// Scenarios of queues, timers and trace, and of the library's start and stop.
#include <memory>
#include <string.h>
#include <vector>

#include "Faults.h"
#include "Listener.h"
#include "Scenario.h"
#include "TestSupport.h"
#include "tqos.h"

namespace faults {

namespace {

MSG_COMMON* Message(Run& run, unsigned int command) {
    MSG_COMMON* const pMsg = static_cast<MSG_COMMON*>(tq_calloc(1, sizeof(MSG_COMMON) + 20));
    if (run.Pointer("a message", pMsg)) {
        pMsg->size = sizeof(MSG_COMMON) + 20;
        pMsg->command = command;
    }
    return pMsg;
}

} // namespace

void QueueMessages(Run& run) {
    Listener queue("scenario");
    if (!queue.Begin(run)) {
        return;
    }
    unsigned int sent[4] = {};
    for (unsigned int i = 0; i < 60; ++i) {
        const int priority = static_cast<int>(i % 3 + 1);
        MSG_COMMON* const pMsg = Message(run, MSG_USER + i % 3 + 1);
        if (pMsg && run.True("Send", queue.Send(pMsg, i % 7 == 0, priority))) {
            ++sent[priority];
        } else {
            tq_free(pMsg); // still the sender's
        }
    }
    for (unsigned int i = 0; i < 5; ++i) {
        sent[2] += run.True("tq_MsgCreateCommonAndSend",
                            tq_MsgCreateCommonAndSend(0, queue.GetHandle(), MSG_USER + 2, i, 0, 0, false, 2))
                       ? 1
                       : 0;
    }
    for (unsigned int priority = 1; priority <= 3; ++priority) {
        const Exempt exempt;
        run.Must("what was taken is handled",
                 test::WaitUntil([&] { return queue.Count(MSG_USER + priority) == sent[priority]; }));
    }
    queue.Destroy(false);
    queue.Cleanup();
    run.Must("no message is handled twice", queue.Count(MSG_USER + 1) == sent[1]);
}

void QueueReplacing(Run& run) {
    Listener queue("replacing");
    Listener other("other");
    if (!queue.Begin(run) || !other.Begin(run)) {
        return;
    }
    queue.SetName("another name");
    queue.SetDescription("another description");
    queue.SetHistory(20);
    MSG_COMMON* const pFirst = Message(run, MSG_USER + 1);
    queue.Lock(); // the worker takes nothing meanwhile
    bool bTaken = pFirst && run.True("Send", queue.Send(pFirst, false, TQ_MSG_PRIORITY_LOW));
    if (!bTaken) {
        tq_free(pFirst);
    }
    MSG_COMMON* const pSecond = Message(run, MSG_USER + 1);
    if (pSecond) {
        MSG_COMMON* const pOld = queue.ReplaceMsgFromHead(pSecond, TQ_MSG_PRIORITY_LOW, /*bAddIfNotFound=*/false);
        run.Must("what was sent is replaced, nothing else", pOld == (bTaken ? pFirst : nullptr));
        tq_free(bTaken ? pOld : pSecond);
    }
    run.Must("PeekTail", (queue.PeekTail(TQ_MSG_PRIORITY_LOW) != nullptr) == bTaken);
    queue.Unlock();
    MSG_COMMON common = {0, 0, sizeof(MSG_COMMON), MSG_USER + 5, 0, 0, 0};
    tq_MsgSendToAll(&common, false, TQ_MSG_PRIORITY_MEDIUM);
    tq_MsgQSendToNamed(0, &common);
    run.Comes("a message to all", [&] { return queue.Count(MSG_USER + 5) >= 2 && other.Count(MSG_USER + 5) >= 2; });
    const unsigned int id = tq_MsgQGetIdFromName("another name");
    run.Must("a queue is found by one of its names", id == queue.GetHandle() || id == 0);
    char* const pszName = run.Pointer("tq_MsgQGetNameFromId", tq_MsgQGetNameFromId(queue.GetHandle()));
    tq_free(pszName);
}

void QueueReports(Run& run) {
    Listener queue("shown");
    queue.SetHistory(10);
    if (!queue.Begin(run)) {
        return;
    }
    char* pszTable = nullptr;
    tq_MsgQShowQueues(0, &pszTable, 0, nullptr);
    tq_free(run.Pointer("tq_MsgQShowQueues", pszTable));
    char command[32];
    snprintf(command, sizeof(command), "%u", queue.GetHandle());
    tq_MsgQShowQueues(0, nullptr, 1, command);
    snprintf(command, sizeof(command), "%u 30", queue.GetHandle());
    tq_MsgqSetHistory(0, command);
}

// Timers

extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace {

/// What this thread allocates while one lives may be lost on purpose: a leak check does not ask for it.
class MayBeLost {
public:
    MayBeLost() {
        if (__lsan_disable) {
            __lsan_disable();
        }
    }
    ~MayBeLost() {
        if (__lsan_enable) {
            __lsan_enable();
        }
    }
    MayBeLost(const MayBeLost&) = delete;
    MayBeLost& operator=(const MayBeLost&) = delete;
};

/// A due timer for whose message there is no memory is dropped as it is, with its name.
unsigned int SetDroppable(unsigned int hQueue, unsigned int ms, unsigned int instance, unsigned int type, bool bSkew) {
    const MayBeLost timer;
    return tq_TimerSet(hQueue, ms, instance, 0, 0, type, "droppable", bSkew);
}

} // namespace

void Timers(Run& run) {
    Listener queue("timed");
    if (!queue.Begin(run)) {
        return;
    }
    const unsigned int hQueue = queue.GetHandle();
    const bool bOnce = run.Zero("tq_TimerSet", SetDroppable(hQueue, 10, 1, TQ_TIMER_ONE_SHOT, false));
    const bool bLong = run.Zero("tq_TimerSet", SetDroppable(hQueue, 60000, 2, TQ_TIMER_ONE_SHOT, true));
    const bool bOften = run.Zero("tq_TimerSet", SetDroppable(hQueue, 10, 3, TQ_TIMER_REPEATING, false));
    run.Comes("MSG_TIMER", [&] { return queue.Count(MSG_TIMER) >= (bOnce ? 1u : 0u) + (bOften ? 2u : 0u); });
    if (bLong) {
        run.Is("tq_TimerTimeRemaining", 1, tq_TimerTimeRemaining(hQueue, 2, 0, 0) > 0 ? 1 : 0, {0});
        tq_TimerSkew(59999);
        SetDroppable(hQueue, 60000, 2, TQ_TIMER_ONE_SHOT, true);
    }
    tq_TimerKill(hQueue, 1, 0, 0);
    tq_TimerKill(hQueue, 2, 0, 0);
    tq_TimerKill(hQueue, 3, 0, 0);
}

void TimerReports(Run& run) {
    for (unsigned int i = 0; i < 30; ++i) {
        run.Zero("tq_TimerSet", tq_TimerSet(0xFFFF0000u, 60000 + i * 1000, i, 0, 0, TQ_TIMER_ONE_SHOT, "shown", true));
    }
    char* pszReport = nullptr;
    tq_TimerShowTimers(&pszReport);
    tq_free(run.Pointer("tq_TimerShowTimers", pszReport));
    run.Is("tq_TimerNextTimeout", 1, tq_TimerNextTimeout(0xFFFF0000u, 0, 0, 0) <= 60000 ? 1 : 0, {0});
    tq_TimerSkew(-500);
    for (unsigned int i = 0; i < 30; ++i) {
        run.Zero("tq_TimerKill", tq_TimerKill(0xFFFF0000u, i, 0, 0));
    }
}

// Trace

void TraceInstances(Run& run) {
    const unsigned int hTrace = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance("scenario"));
    if (hTrace == 0) {
        return;
    }
    run.Is("tq_TraceInitInstance again", hTrace, tq_TraceInitInstance("SCENARIO"), {0});
    for (unsigned int bit = 0; bit < 32; bit += 5) {
        run.Zero("tq_TraceSetCategoryName", tq_TraceSetCategoryName(hTrace, 1u << bit, "a category"));
    }
    run.Must("tq_TraceSetLevel", tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_ALL) == 0);
    run.True("tq_TraceLookupCategory", tq_TraceLookupCategory(hTrace, "A CATEGORY") == 1);
    tq_List* const pList = run.Pointer("tq_TraceGetInstanceList", tq_TraceGetInstanceList());
    tq_TraceCleanupInstanceList(pList);
    char* pszReport = nullptr;
    tq_ShowTrace(&pszReport, 0, nullptr);
    tq_free(run.Pointer("tq_ShowTrace", pszReport));
    pszReport = nullptr;
    tq_ShowTrace(&pszReport, 1, "scenario");
    tq_free(run.Pointer("tq_ShowTrace in detail", pszReport));
    for (int opening = 0; opening < 2; ++opening) {
        tq_TraceTermInstance(hTrace);
    }
    run.Must("the instance is gone", tq_TraceGetHandleFromName("scenario") == 0);
}

void TraceFiles(Run& run) {
    const unsigned int hTrace = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance("filed"));
    if (hTrace == 0) {
        return;
    }
    tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_ALL);
    tq_TraceSetCatMask(hTrace, -1);
    if (run.Zero("tq_TraceEnableFile", tq_TraceEnableFile(hTrace, "rotating.txt", 3, 300))) {
        for (unsigned int i = 0; i < 20; ++i) {
            tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, true, "line %u\n", i);
        }
        tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, true, "%s\n", std::string(5000, 'l').c_str());
    }
    run.Must("tq_TraceDisableFile", tq_TraceDisableFile(hTrace) == 0);
    if (run.Zero("tq_TraceEnableFile", tq_TraceEnableFile(hTrace, "single.txt", 0, 0))) {
        tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, true, "the only line\n");
    }
    tq_TraceTermInstance(hTrace);
    const Exempt exempt;
    run.True("the line", test::CountOf(test::ReadFile("single.txt"), "(filed) WRN: the only line\n") == 1);
    for (const char* pszFile : {"rotating0000.txt", "rotating0001.txt", "rotating0002.txt", "single.txt"}) {
        remove(pszFile);
    }
}

void TraceDumps(Run& run) {
    const unsigned int hTrace = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance("dumped"));
    if (hTrace == 0) {
        return;
    }
    tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_ALL);
    tq_TraceShowThreadID(hTrace, true);
    tq_TraceSetDeltaTimestamps(true);
    if (run.Zero("tq_TraceEnableFile", tq_TraceEnableFile(hTrace, "dump.txt", 0, 0))) {
        const std::string bytes(100, 'b');
        tq_TraceHexDump(hTrace, TQ_TRACE_LEVEL_WARNING, 1, bytes.data(), 100, "dump of %u bytes", 100u);
    }
    tq_TraceSetDeltaTimestamps(false);
    tq_TraceTermInstance(hTrace);
    const Exempt exempt;
    run.True("seven lines of bytes", test::CountOf(test::ReadFile("dump.txt"), "62626262") >= 7);
    remove("dump.txt");
}

// Start and stop

void StartAndStop(Run& run) {
    run.Zero("tqOS_Initialize", static_cast<long>(tqOS_Initialize()));
    tqOS_Terminate(false, true);
    run.Must("the library is down", tqOS_uptime() == 0);
}

void StartEverything(Run& run) {
    if (run.Zero("tqOS_Initialize", static_cast<long>(tqOS_Initialize()))) {
        Listener queue("short-lived");
        queue.Create(0);
        run.Handle("Create", queue.GetHandle());
        run.Zero("tq_TimerInitialize", static_cast<long>(tq_TimerInitialize()));
        run.Zero("tq_TimerSet", tq_TimerSet(queue.GetHandle(), 60000, 1, 0, 0, 0, "late", false));
        const unsigned int hTrace = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance("left open"));
        run.Must("an instance has a level", hTrace == 0 || tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_ALL) == 0);
        run.Handle("tq_SocketOpenTCPServer",
                   tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, tq_inet_addr("127.0.0.1")));
        run.Handle("tq_TelnetInitialize", tq_TelnetInitialize(0, tq_inet_addr("127.0.0.1"), nullptr));
        tqOS_Terminate(false, true); // with everything open
        return;
    }
    tqOS_Terminate(false, true);
}

namespace {

constexpr unsigned int kMany = 20; // more than a list makes room for at once

/// Whether there is no more of anything than before. Not blocks: a list keeps the room that it has made.
bool IsGivenBack(const Reading& before) {
    const Reading now = ReadCounters();
    for (const Counter counter : {kHandles, kLists, kQueues, kTimers, kSockets, kTraceInstances}) {
        if (now[counter] > before[counter]) {
            return false;
        }
    }
    return true;
}

void OpenAndCloseMany(Run& run) {
    std::vector<std::unique_ptr<Listener>> queues;
    for (unsigned int i = 0; i < kMany; ++i) {
        queues.push_back(std::make_unique<Listener>("one of many"));
        queues.back()->Create(0);
        run.Handle("Create", queues.back()->GetHandle());
    }
    const unsigned int hQueue = queues.front()->GetHandle();
    unsigned int traces[kMany];
    unsigned int sockets[kMany];
    for (unsigned int i = 0; i < kMany; ++i) {
        traces[i] = run.Handle("tq_TraceInitInstance", tq_TraceInitInstance(("trace " + std::to_string(i)).c_str()));
        sockets[i] = run.Handle("tq_SocketOpenUDP", tq_SocketOpenUDP(hQueue, 0, 0, 0, tq_inet_addr("127.0.0.1"), 0));
        run.Zero("tq_TimerSet", tq_TimerSet(hQueue, 60000, i, 0, 0, 0, "late", false));
    }
    for (unsigned int i = 0; i < kMany; ++i) {
        tq_TraceTermInstance(traces[i]);
        tq_SocketClose(sockets[i]);
        tq_TimerKill(hQueue, i, 0, 0);
    }
}

} // namespace

/// Registries that have to grow, in a library that has just started: in one that has run for a while they have room.
void ManyOfEach(Run& run) {
    if (run.Zero("tqOS_Initialize", static_cast<long>(tqOS_Initialize())) &&
        run.Zero("tq_TimerInitialize", static_cast<long>(tq_TimerInitialize())) &&
        run.True("tq_SocketInitialize", tq_SocketInitialize() == 0)) { // or 1, or the system's error
        const Reading before = ReadCounters();
        OpenAndCloseMany(run);
        const Exempt exempt;
        run.Must("all is given back before the end", test::WaitUntil([&before] { return IsGivenBack(before); }));
    }
    tqOS_Terminate(false, true);
}

} // namespace faults
