// Lists and their hashes.
#include <cstddef>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <tqos.h>

namespace {

struct Node {
    unsigned int key;
    char data[28];
};

std::vector<Node> MakeNodes(int64_t count) {
    std::vector<Node> nodes(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].key = static_cast<unsigned int>(2 * i + 1);
    }
    return nodes;
}

void AddToTailAndRemoveHead(benchmark::State& state) {
    tq_List list("Bench");
    Node node = {};
    for (auto _ : state) {
        list.AddToTail(&node);
        benchmark::DoNotOptimize(list.RemoveHead());
    }
}
BENCHMARK(AddToTailAndRemoveHead);

void WalkFromHeadToTail(benchmark::State& state) {
    std::vector<Node> nodes = MakeNodes(state.range(0));
    tq_List list("Bench");
    for (Node& node : nodes) {
        list.AddToTail(&node);
    }
    for (auto _ : state) {
        for (void* p = list.GetHead(); p; p = list.GetNext()) {
            benchmark::DoNotOptimize(p);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WalkFromHeadToTail)->Arg(100)->Arg(10000);

void FindTheLastByWalking(benchmark::State& state) {
    std::vector<Node> nodes = MakeNodes(state.range(0));
    tq_List list("Bench");
    for (Node& node : nodes) {
        list.AddToTail(&node);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.FindFirst(tq_ListKey(nodes.back().key), LIST_TYPE_U32BITS, offsetof(Node, key),
                                                nullptr, LIST_DIRECTION_HEAD_TO_TAIL));
    }
}
BENCHMARK(FindTheLastByWalking)->Arg(10)->Arg(1000)->Arg(10000);

void FindByHash(benchmark::State& state) {
    std::vector<Node> nodes = MakeNodes(state.range(0));
    tq_List list("Bench");
    constexpr int kBuckets = 20011;
    const unsigned int hash = list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, key), kBuckets, nullptr, nullptr);
    for (Node& node : nodes) {
        list.AddToTail(&node);
    }
    unsigned int key = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            list.HashFindFirst(hash, list.HashValueFromDataDefault(&key, LIST_TYPE_U32BITS, 0, kBuckets)));
        key += 2;
    }
}
BENCHMARK(FindByHash)->Arg(10000);

void LockAndUnlock(benchmark::State& state) {
    tq_List list("Bench");
    for (auto _ : state) {
        const tq_ListLock lock(list);
    }
}
BENCHMARK(LockAndUnlock);

void MakeAndDestroyAList(benchmark::State& state) {
    for (auto _ : state) {
        const tq_List list("Bench");
    }
}
BENCHMARK(MakeAndDestroyAList);

} // namespace
