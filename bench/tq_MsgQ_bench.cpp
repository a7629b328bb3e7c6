// Calls of queues, timers and handles that wait for nobody.
#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

class Queue : public tq_MsgQ {
public:
    Queue() : tq_MsgQ("Bench", nullptr) { Create(0); }
    ~Queue() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

void SendToAHandle(benchmark::State& state) {
    Queue queue;
    const unsigned int handle = queue.GetHandle();
    for (auto _ : state) {
        tq_MsgCreateCommonAndSend(0, handle, MSG_USER, 0, 0, 0, false, TQ_MSG_PRIORITY_MEDIUM);
    }
}
BENCHMARK(SendToAHandle)->UseRealTime();

void FindAQueueByItsName(benchmark::State& state) {
    Queue queue;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tq_MsgQGetIdFromName("bench"));
    }
}
BENCHMARK(FindAQueueByItsName);

void AskForTheDepth(benchmark::State& state) {
    Queue queue;
    for (auto _ : state) {
        benchmark::DoNotOptimize(queue.GetQueueDepth(0));
    }
}
BENCHMARK(AskForTheDepth);

void SetTheSameTimerAgain(benchmark::State& state) {
    for (unsigned int i = 0; i < static_cast<unsigned int>(state.range(0)); ++i) {
        tq_TimerSet(4711, 60000 + i * 10, i, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    }
    for (auto _ : state) {
        tq_TimerSet(4711, 90000, 0, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    }
    for (unsigned int i = 0; i < static_cast<unsigned int>(state.range(0)); ++i) {
        tq_TimerKill(4711, i, 0, 0);
    }
}
BENCHMARK(SetTheSameTimerAgain)->Arg(1)->Arg(1000);

void TakeAndGiveBackAHandle(benchmark::State& state) {
    for (auto _ : state) {
        tq_HandleRelease(tq_HandleGet());
    }
}
BENCHMARK(TakeAndGiveBackAHandle);

void ReadTheClock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(tq_GetTimeInMS());
    }
}
BENCHMARK(ReadTheClock);

} // namespace
