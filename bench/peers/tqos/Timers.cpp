// This library's timers.
#include "Library.h"
#include "TimerBench.h"

namespace {

/// Has the timers' messages, of which none comes.
class Receiver : public tq_MsgQ {
public:
    Receiver() : tq_MsgQ("Receiver", nullptr) { Create(0); }
    ~Receiver() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

class Timers {
public:
    void Arm(unsigned int key, unsigned int ms) {
        tq_TimerSet(m_handle, ms, key, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    }
    void Kill(unsigned int key) { tq_TimerKill(m_handle, key, 0, 0); }

private:
    Library m_library;
    Receiver m_receiver;
    unsigned int m_handle = m_receiver.GetHandle();
};

} // namespace

PEER_BENCH_TIMERS(Timers, "tqos")
