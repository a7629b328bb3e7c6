// Queues, threads, timers, lists, nodes, blocks.
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"
#include "Library.h"
#include "Scale.h"

namespace {

constexpr const char* kSmallStacks = "[MsgQ]\nDefaultStackSize=32768\n[Thread]\nDefaultStackSize=32768\n";

class Queue : public tq_MsgQ {
public:
    Queue() : tq_MsgQ("Scale", nullptr) { Create(0); }
    ~Queue() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_USER + 1) {
            handled.Done();
        }
        tq_free(pMsg);
    }
    bench::Countdown handled;
};

/// A send by handle to the last of the queues, and its handling.
double NanosecondsOfSend(Queue& last) {
    const unsigned int handle = last.GetHandle();
    return bench::NanosecondsEach([&] {
        last.handled.Expect(1);
        for (int i = 1; i <= 1000; ++i) {
            tq_MsgCreateCommonAndSend(0, handle, static_cast<unsigned int>(MSG_USER) + (i == 1000), 0, 0, 0, false,
                                      TQ_MSG_PRIORITY_MEDIUM);
        }
        last.handled.Wait();
        return 1000.0;
    });
}

/// A report that one call gives as a whole.
void AddReport(Row* pRow, const std::function<void(char**)>& report) {
    const double nanoseconds = bench::NanosecondsEach([&] {
        char* pszResponse = nullptr;
        report(&pszResponse);
        tq_free(pszResponse);
        return 1.0;
    });
    pRow->Add("report, ms", nanoseconds * 1e-6);
}

struct Node {
    unsigned int key;
    char data[44];
};

} // namespace

void MeasureQueues(unsigned int count, Row* pRow) {
    const Library library(kSmallStacks);
    std::vector<std::unique_ptr<Queue>> queues;
    queues.reserve(count);
    AddMaking(count, pRow, [&](unsigned int) { queues.push_back(std::make_unique<Queue>()); });
    pRow->Add("send and handle, ns", NanosecondsOfSend(*queues.back()));
    AddReport(pRow, [](char** ppszResponse) { tq_MsgQShowQueues(0, ppszResponse, 0, nullptr); });
    pRow->Add("ending all, ms", 1e-3 * Microseconds([&] { queues.clear(); }));
}

void MeasureThreads(unsigned int count, Row* pRow) {
    const Library library(kSmallStacks);
    static bench::Countdown end;
    end.Expect(1);
    AddMaking(count, pRow, [](unsigned int) {
        unsigned int tid;
        tq_beginthread(
            32768,
            [](void*) -> void* {
                end.Wait();
                return nullptr;
            },
            nullptr, &tid, 0);
    });
    AddReport(pRow, [](char** ppszResponse) { tq_ShowThreads(ppszResponse); });
    end.Done();
}

void MeasureTimers(unsigned int count, Row* pRow) {
    const Library library;
    bench::Random random;
    const auto set = [&random](unsigned int key) {
        tq_TimerSet(4711, 60000 + random.Below(3540000), key, 0, 0, TQ_TIMER_ONE_SHOT, nullptr, false);
    };
    set(count + 1); // starts the service
    AddMaking(count, pRow, set);
    pRow->Add("set and kill one more, us", 1e-3 * bench::NanosecondsEach([&] {
                                               set(count);
                                               tq_TimerKill(4711, count, 0, 0);
                                               return 1.0;
                                           }));
    AddReport(pRow, tq_TimerShowTimers);
}

void MeasureLists(unsigned int count, Row* pRow) {
    const Library library;
    std::vector<std::unique_ptr<tq_List>> lists;
    lists.reserve(count);
    AddMaking(count, pRow, [&](unsigned int) { lists.push_back(std::make_unique<tq_List>("Scale")); });
    pRow->Add("make and end one more, us", 1e-3 * bench::NanosecondsEach([] {
                                               const tq_List list("More");
                                               return 1.0;
                                           }));
}

void MeasureNodes(unsigned int count, Row* pRow) {
    const Library library;
    tq_List list("Scale");
    tq_List sorted(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, key), "Sorted");
    std::vector<Node> nodes(count);
    AddMaking(count, pRow, [&](unsigned int i) {
        nodes[i].key = 2 * i + 1;
        list.AddToTail(&nodes[i]);
    });
    for (unsigned int i = count; i > 0; --i) {
        sorted.AddToHead(&nodes[i - 1]);
    }
    bench::Random random;
    pRow->Add("find by walking, us",
              1e-3 * bench::NanosecondsEach([&] {
                  bench::Keep(list.FindFirst(tq_ListKey(2 * random.Below(count) + 1), LIST_TYPE_U32BITS,
                                             offsetof(Node, key), nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
                  return 1.0;
              }));
    Node more = {};
    pRow->Add("sorted insert, us", 1e-3 * bench::NanosecondsEach([&] {
                                       more.key = 2 * random.Below(count);
                                       sorted.AddToHead(&more);
                                       sorted.RemoveNode(&more);
                                       return 1.0;
                                   }));
    const unsigned int hash = list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, key), 20011, nullptr, "Scale");
    pRow->Add("find by hash, ns", bench::NanosecondsEach([&] {
                  for (int i = 0; i < 100; ++i) {
                      bench::Keep(list.HashFindFirst(hash, (2 * random.Below(count) + 1) % 20011));
                  }
                  return 100.0;
              }));
}

void MeasureBlocks(unsigned int count, Row* pRow) {
    const Library library("[Memory]\nEnableMemoryTracking=yes\nEnableMemoryPooling=yes\n");
    std::vector<void*> blocks(count);
    AddMaking(count, pRow, [&](unsigned int i) { blocks[i] = tq_malloc(64); });
    pRow->Add("allocate and free one more, ns", bench::NanosecondsEach([] {
                  tq_free(tq_malloc(64));
                  return 1.0;
              }));
    FILE* pFile = fopen("/dev/null", "w");
    pRow->Add("report of all, ms", 1e-6 * bench::NanosecondsEach([pFile] {
                                       tq_ShowMemoryPools(0, 1, false, pFile, 0, false, nullptr, nullptr,
                                                          TQ_MEM_SORT_FORMATS::NONE, false, false, 0, 0);
                                       return 1.0;
                                   }));
    fclose(pFile);
    for (void* pBlock : blocks) {
        tq_free(pBlock);
    }
}
