/// @file ListBench.h
/// The measurements of lists and hashes, the same for every contender. A contender brings what it has of these:
///
///     class List {
///     public:
///         void Append(Node*);         // at the end
///         void TakeFirst();           // of the list
///         Node* Find(unsigned key);   // walks from the head; null when none has it
///         void InsertSorted(Node*);   // by key, ascending; looked for from the head
///         void RemoveInserted(Node*); // that InsertSorted() has just put there
///     };
///     class Hash {
///     public:
///         void Add(Node*);
///         Node* Find(unsigned key);
///         void RemoveAll();
///     };
#ifndef LIST_BENCH_H
#define LIST_BENCH_H

#include <memory>

#include "Bench.h"

namespace bench {

/// What the lists hold. Nodes are allocated one by one, as an application would.
struct Node {
    unsigned int key;
    char data[44];
};

constexpr unsigned int kNodes = 10000;

class Nodes {
public:
    /// Node number i has the key 2 * i + 1.
    Nodes() {
        for (unsigned int i = 0; i < kNodes; ++i) {
            m_nodes[i].reset(new Node{2 * i + 1, {}});
        }
    }
    Node* operator[](unsigned int index) { return m_nodes[index].get(); }

private:
    std::unique_ptr<Node> m_nodes[kNodes];
};

/// Nanoseconds for appending a node and taking the first, in a list of 100.
template <class List> double AppendAndTake() {
    Nodes nodes;
    List list;
    for (unsigned int i = 0; i < 100; ++i) {
        list.Append(nodes[i]);
    }
    return ProcessorNanosecondsEach([&] {
        for (unsigned int i = 0; i < 1000; ++i) {
            list.Append(nodes[i]);
            list.TakeFirst();
        }
        return 1000.0;
    });
}

/// Nanoseconds for a search by a number in a list of 10 000.
template <class List> double FindByWalking() {
    Nodes nodes;
    List list;
    Random random;
    for (unsigned int i = 0; i < kNodes; ++i) {
        list.Append(nodes[i]);
    }
    return ProcessorNanosecondsEach([&] {
        for (int i = 0; i < 100; ++i) {
            Keep(list.Find(2 * random.Below(kNodes) + 1)->data);
        }
        return 100.0;
    });
}

/// Nanoseconds for inserting a node at its place in a sorted list of 10 000, and removing it.
template <class List> double SortedInsert() {
    Nodes nodes;
    List list;
    Random random;
    for (unsigned int i = kNodes; i > 0; --i) {
        list.InsertSorted(nodes[i - 1]);
    }
    Node node = {};
    return ProcessorNanosecondsEach([&] {
        for (int i = 0; i < 100; ++i) {
            node.key = 2 * random.Below(kNodes);
            list.InsertSorted(&node);
            list.RemoveInserted(&node);
        }
        return 100.0;
    });
}

/// Nanoseconds for a search by a number in a hash of 10 000.
template <class Hash> double HashFind() {
    Nodes nodes;
    Hash hash;
    Random random;
    for (unsigned int i = 0; i < kNodes; ++i) {
        hash.Add(nodes[i]);
    }
    return ProcessorNanosecondsEach([&] {
        for (int i = 0; i < 1000; ++i) {
            Keep(hash.Find(2 * random.Below(kNodes) + 1)->data);
        }
        return 1000.0;
    });
}

/// Nanoseconds for adding one of 10 000 nodes to a hash that has held as many before. Removing them is not counted.
template <class Hash> double HashAdd() {
    Nodes nodes;
    Hash hash;
    double seconds = 0;
    double added = 0;
    const double end = Now() + Seconds();
    for (int turn = 0; turn < 3 || Now() < end; ++turn) {
        const double start = ProcessorNow();
        for (unsigned int i = 0; i < kNodes; ++i) {
            hash.Add(nodes[i]);
        }
        if (turn > 0) { // the first one warms up
            seconds += ProcessorNow() - start;
            added += kNodes;
        }
        hash.RemoveAll();
    }
    return seconds / added * 1e9;
}

} // namespace bench

#define PEER_BENCH_LISTS(List, label)                                                                                  \
    PEER_BENCH("list/append-take", label) {                                                                            \
        return bench::AppendAndTake<List>();                                                                           \
    }                                                                                                                  \
    PEER_BENCH("list/find", label) {                                                                                   \
        return bench::FindByWalking<List>();                                                                           \
    }                                                                                                                  \
    PEER_BENCH("list/sorted-insert", label) {                                                                          \
        return bench::SortedInsert<List>();                                                                            \
    }

#define PEER_BENCH_HASHES(Hash, label)                                                                                 \
    PEER_BENCH("hash/find", label) {                                                                                   \
        return bench::HashFind<Hash>();                                                                                \
    }                                                                                                                  \
    PEER_BENCH("hash/add", label) {                                                                                    \
        return bench::HashAdd<Hash>();                                                                                 \
    }

#endif // LIST_BENCH_H
