// What a debugger is shown: `debugged` stops in Stopped() with a queue and a list for it, and `debugged crash` crashes.
#include <string.h>

#include <tqos.h>

namespace {

class Held : public tq_MsgQ {
public:
    Held() : tq_MsgQ("Held", nullptr), m_mayGo(/*bManualReset=*/1, /*bInitialState=*/0) {}
    ~Held() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_CREATE) {
            m_mayGo.WaitForEvent(60000); // what is sent meanwhile waits
        }
        tq_free(pMsg);
    }

    tq_SemEvent m_mayGo;
};

__attribute__((noinline)) void Stopped(tq_MsgQ& queue, tq_List& list) {
    asm volatile("" ::"r"(&queue), "r"(&list) : "memory"); // the debugger's breakpoint is here
}

__attribute__((noinline)) void Crash(volatile int* pNowhere) {
    *pNowhere = 1; // the fault is here
}

void ShowQueueAndList() {
    Held queue;
    queue.Create(TQ_THREAD_PRIORITY_NORMAL);
    const unsigned int hQueue = queue.GetHandle();
    tq_MsgCreateCommonAndSend(5, hQueue, MSG_USER + 3, 1, 2, 4, false, TQ_MSG_PRIORITY_MEDIUM);
    tq_MsgCreateCommonAndSend(0, hQueue, MSG_TIMER, 6, 7, 8, false, TQ_MSG_PRIORITY_HIGH);
    int first = 1;
    int second = 2;
    tq_List list("Some nodes");
    list.AddToTail(&first);
    list.AddToTail(&second);
    Stopped(queue, list);
    queue.m_mayGo.Set();
}

} // namespace

int main(int argc, char** argv) {
    if (tqOS_Initialize() == 0) {
        if (argc > 1 && strcmp(argv[1], "crash") == 0) {
            tq_TraceEnableSTDOUT(tq_TraceGetHandleFromName("tqos"));
            Crash(nullptr);
        }
        ShowQueueAndList();
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
