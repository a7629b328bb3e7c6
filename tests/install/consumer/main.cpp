// An application that knows the library only as it is installed: a queue of its own, built with RTTI and exceptions.
#include <stdio.h>
#include <tqos.h>
#include <typeinfo>

namespace {

class Consumer : public tq_MsgQ {
public:
    Consumer() : tq_MsgQ("Consumer", nullptr) {}
    ~Consumer() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_CREATE) {
            printf("consumer: MSG_CREATE");
        } else if (pMsg->command == MSG_USER) {
            printf(" MSG_USER");
        } else if (pMsg->command == MSG_DESTROY) {
            printf(" MSG_DESTROY\n");
        }
        tq_free(pMsg);
    }
};

} // namespace

int main() {
    if (tqOS_Initialize() != 0) {
        return 1;
    }
    {
        Consumer consumer;
        consumer.Create(TQ_THREAD_PRIORITY_NORMAL);
        tq_MsgQ& base = consumer;
        if (typeid(base) != typeid(Consumer) ||
            !tq_MsgCreateCommonAndSend(0, consumer.GetHandle(), MSG_USER, 0, 0, 0, false, TQ_MSG_PRIORITY_MEDIUM)) {
            return 2;
        }
        consumer.Destroy(false);
    }
    tqOS_Terminate(false, true);
    return 0;
}
