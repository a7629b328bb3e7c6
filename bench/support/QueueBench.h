/// @file QueueBench.h
/// The measurements of message queues, the same for every contender. A contender brings a Worker: a queue with a thread
/// of its own that hands each message to a handler.
///
///     class Worker {
///     public:
///         Worker(bench::Handler handler, void* context); // its thread runs where the calling thread may
///         ~Worker();                                     // ends the thread; no message is waiting then
///         void Send(void* pMessage);
///         static void* Allocate();                       // a message of 32 bytes, or what comes nearest
///         static void Free(void* pMessage);
///     };
#ifndef QUEUE_BENCH_H
#define QUEUE_BENCH_H

#include <thread>
#include <vector>

#include "Bench.h"

namespace bench {

using Handler = void (*)(void* context, void* pMessage);

enum class Cores { One, Two };

/// Frees what arrives, and tells when a batch is complete.
template <class Worker> class Sink {
public:
    static void Handle(void* context, void* pMessage) {
        Sink* pThis = static_cast<Sink*>(context);
        Worker::Free(pMessage);
        if (++pThis->m_handled == pThis->batch) {
            pThis->m_handled = 0;
            pThis->complete.Done();
        }
    }
    int batch = 0;
    Countdown complete;

private:
    int m_handled = 0;
};

/// Messages a second from so many producers to one handler; each is allocated by its producer and freed by the handler.
template <class Worker> double QueueThroughput(int producers, Cores cores) {
    constexpr int kMessages = 25000; // of a producer in a batch
    Sink<Worker> sink;
    sink.batch = kMessages * producers;
    if (cores == Cores::One || producers == 1) {
        PinTo(cores == Cores::One ? 0 : 1);
    } else {
        Unpin();
    }
    Worker worker(Sink<Worker>::Handle, &sink);
    if (producers == 1) {
        PinTo(0);
    }
    const auto produce = [&worker] {
        for (int i = 0; i < kMessages; ++i) {
            worker.Send(Worker::Allocate());
        }
    };
    return PerSecond([&] {
        sink.complete.Expect(1);
        std::vector<std::thread> others;
        for (int i = 1; i < producers; ++i) {
            others.emplace_back(produce);
        }
        produce();
        for (std::thread& other : others) {
            other.join();
        }
        sink.complete.Wait();
        return static_cast<double>(sink.batch);
    });
}

/// One end of the round trip: sends on what arrives.
template <class Worker> struct PingPong {
    static void Return(void* context, void* pMessage) { static_cast<PingPong*>(context)->pNear->Send(pMessage); }
    static void Count(void* context, void* pMessage) {
        PingPong* pThis = static_cast<PingPong*>(context);
        if (++pThis->trips < kTrips) {
            pThis->pFar->Send(pMessage);
            return;
        }
        pThis->trips = 0;
        Worker::Free(pMessage);
        pThis->complete.Done();
    }
    static constexpr int kTrips = 1000;
    Worker* pNear = nullptr;
    Worker* pFar = nullptr;
    int trips = 0;
    Countdown complete;
};

/// Microseconds for one message from a queue's handler to that of another queue and back.
template <class Worker> double QueueRoundTrip(Cores cores) {
    PingPong<Worker> pingPong;
    PinTo(0);
    Worker near(PingPong<Worker>::Count, &pingPong);
    PinTo(cores == Cores::One ? 0 : 1);
    Worker far(PingPong<Worker>::Return, &pingPong);
    pingPong.pNear = &near;
    pingPong.pFar = &far;
    return 1e-3 * NanosecondsEach([&] {
               pingPong.complete.Expect(1);
               far.Send(Worker::Allocate());
               pingPong.complete.Wait();
               return static_cast<double>(PingPong<Worker>::kTrips);
           });
}

/// A Worker made of a queue whose Pop() waits.
///
///     class Queue { public: using Message = ...; void Push(Message*); Message* Pop(); static Allocate(), Free() };
template <class Queue> class ThreadedWorker {
public:
    ThreadedWorker(Handler handler, void* context)
        : m_handler(handler), m_context(context), m_thread([this] { Work(); }) {}
    ~ThreadedWorker() {
        m_pEnd = Queue::Allocate();
        m_queue.Push(static_cast<typename Queue::Message*>(m_pEnd));
        m_thread.join();
        Queue::Free(m_pEnd);
    }
    ThreadedWorker(const ThreadedWorker&) = delete;
    ThreadedWorker& operator=(const ThreadedWorker&) = delete;

    void Send(void* pMessage) { m_queue.Push(static_cast<typename Queue::Message*>(pMessage)); }
    static void* Allocate() { return Queue::Allocate(); }
    static void Free(void* pMessage) { Queue::Free(pMessage); }

private:
    void Work() {
        for (;;) {
            void* pMessage = m_queue.Pop();
            if (pMessage == m_pEnd) {
                return;
            }
            m_handler(m_context, pMessage);
        }
    }

    Handler m_handler;
    void* m_context;
    void* volatile m_pEnd = nullptr; // set before it is pushed
    Queue m_queue;
    std::thread m_thread;
};

} // namespace bench

/// All measurements of queues for one Worker.
#define PEER_BENCH_QUEUES(Worker, label)                                                                               \
    PEER_BENCH("queue/one-producer", label) {                                                                          \
        return bench::QueueThroughput<Worker>(1, bench::Cores::Two);                                                   \
    }                                                                                                                  \
    PEER_BENCH("queue/four-producers", label) {                                                                        \
        return bench::QueueThroughput<Worker>(4, bench::Cores::Two);                                                   \
    }                                                                                                                  \
    PEER_BENCH("queue/four-producers-one-core", label) {                                                               \
        return bench::QueueThroughput<Worker>(4, bench::Cores::One);                                                   \
    }                                                                                                                  \
    PEER_BENCH_ROUND_TRIPS(Worker, label)

/// Those of round trips alone.
#define PEER_BENCH_ROUND_TRIPS(Worker, label)                                                                          \
    PEER_BENCH("queue/round-trip-one-core", label) {                                                                   \
        return bench::QueueRoundTrip<Worker>(bench::Cores::One);                                                       \
    }                                                                                                                  \
    PEER_BENCH("queue/round-trip-two-cores", label) {                                                                  \
        return bench::QueueRoundTrip<Worker>(bench::Cores::Two);                                                       \
    }

#endif // QUEUE_BENCH_H
