// hello: the least application. A queue gets a message, and a timer's, on a thread of its own.
#include <stdio.h>

#include <tqos.h>

namespace {

enum { MSG_HELLO = MSG_USER }; // an application numbers its own messages from here

class Greeter : public tq_MsgQ {
public:
    Greeter() : tq_MsgQ("Greeter", "says hello"), m_done(/*bManualReset=*/1, /*bInitialState=*/0) {}
    ~Greeter() override { Cleanup(); } // ends the worker thread while this object is still whole

    void MessageHandler(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_CREATE: // always the first message
            tq_TimerSet(GetHandle(), /*mstimeout=*/100, 0, 0, 0, TQ_TIMER_REPEATING, "Tick", false);
            break;
        case MSG_HELLO:
            printf("hello, number %u\n", pMsg->userparm);
            break;
        case MSG_TIMER:
            printf("tick\n");
            if (++m_ticks == 3) {
                m_done.Set();
            }
            break;
        default: // MSG_DESTROY, the last one
            break;
        }
        tq_free(pMsg); // a handled message is ours
    }

    void WaitForTicks() { m_done.WaitForEvent(10000); }

private:
    unsigned int m_ticks = 0;
    tq_SemEvent m_done;
};

} // namespace

int main() {
    if (tqOS_Initialize() == 0) {
        Greeter greeter;
        greeter.Create(TQ_THREAD_PRIORITY_NORMAL);
        for (unsigned int number = 1; number <= 2; ++number) {
            tq_MsgCreateCommonAndSend(/*hSource=*/0, greeter.GetHandle(), MSG_HELLO, /*instance=*/0, number,
                                      /*flags=*/0, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
        }
        greeter.WaitForTicks();
    } // the queue ends before the library does
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
