// ACE.
#include <thread>
#include <vector>

#include <ace/Dev_Poll_Reactor.h>
#include <ace/Event_Handler.h>
#include <ace/Message_Block.h>
#include <ace/Message_Queue.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Task.h>
#include <ace/Timer_Heap.h>
#include <ace/Timer_Queue_Adapters.h>

#include <netinet/tcp.h>

#include "EchoBench.h"
#include "QueueBench.h"
#include "TimerBench.h"

namespace {

class MessageQueue {
public:
    using Message = ACE_Message_Block;
    // Room for every message of a batch: the others have no limit, either.
    MessageQueue() : m_queue(1 << 30, 1 << 30) {}
    void Push(Message* pMessage) { m_queue.enqueue_tail(pMessage); }
    Message* Pop() {
        Message* pMessage = nullptr;
        m_queue.dequeue_head(pMessage);
        return pMessage;
    }
    static void* Allocate() { return new ACE_Message_Block(32); }
    static void Free(void* pMessage) { static_cast<Message*>(pMessage)->release(); }

private:
    ACE_Message_Queue<ACE_MT_SYNCH> m_queue;
};

using Worker = bench::ThreadedWorker<MessageQueue>;

using TimerThread = ACE_Thread_Timer_Queue_Adapter<ACE_Timer_Heap>;

/// Set and killed by another thread than the one that would handle them.
class Timers {
public:
    Timers() { m_thread.activate(); }
    ~Timers() {
        m_thread.deactivate();
        m_thread.wait();
    }
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;
    void Arm(unsigned int key, unsigned int ms) {
        if (key >= m_timers.size()) {
            m_timers.resize(key + 1);
        }
        const ACE_Time_Value delay(ms / 1000, static_cast<suseconds_t>(ms % 1000 * 1000));
        m_timers[key] = m_thread.schedule(&m_handler, nullptr, m_thread.timer_queue()->gettimeofday() + delay);
    }
    void Kill(unsigned int key) { m_thread.cancel(m_timers[key]); }

private:
    class Handler : public ACE_Event_Handler {};
    Handler m_handler;
    TimerThread m_thread;
    std::vector<long> m_timers;
};

class EchoHandler : public ACE_Event_Handler {
public:
    ACE_SOCK_Stream& Peer() { return m_peer; }
    ACE_HANDLE get_handle() const override { return m_peer.get_handle(); }
    int handle_input(ACE_HANDLE) override {
        char buffer[bench::kEchoBytes];
        const ssize_t got = m_peer.recv(buffer, sizeof(buffer));
        return got > 0 && m_peer.send(buffer, static_cast<std::size_t>(got)) == got ? 0 : -1;
    }
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override {
        m_peer.close();
        delete this;
        return 0;
    }

private:
    ACE_SOCK_Stream m_peer;
};

class AcceptHandler : public ACE_Event_Handler {
public:
    explicit AcceptHandler(int fd) { m_acceptor.set_handle(fd); }
    ACE_HANDLE get_handle() const override { return m_acceptor.get_handle(); }
    int handle_input(ACE_HANDLE) override {
        EchoHandler* pEcho = new EchoHandler;
        int on = 1;
        m_acceptor.accept(pEcho->Peer());
        pEcho->Peer().set_option(IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        return reactor()->register_handler(pEcho, ACE_Event_Handler::READ_MASK);
    }

private:
    ACE_SOCK_Acceptor m_acceptor;
};

/// The reactor runs until the process ends.
double ServeEcho(bench::Client& client) {
    unsigned int port;
    const int fd = bench::Listen(&port);
    ACE_Reactor* pReactor = new ACE_Reactor(new ACE_Dev_Poll_Reactor(2048), true);
    std::thread([fd, pReactor] {
        pReactor->owner(ACE_OS::thr_self());
        pReactor->register_handler(new AcceptHandler(fd), ACE_Event_Handler::ACCEPT_MASK);
        pReactor->run_reactor_event_loop();
    }).detach();
    return client.Measure(port);
}

} // namespace

PEER_BENCH_QUEUES(Worker, "ACE Message_Queue")
PEER_BENCH_TIMERS(Timers, "ACE")
PEER_BENCH_ECHO(ServeEcho, "ACE")
