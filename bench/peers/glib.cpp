// GLib.
#include <thread>
#include <unordered_map>
#include <vector>

#include <gio/gio.h>
#include <glib.h>

#include "ListBench.h"
#include "MemoryBench.h"
#include "QueueBench.h"
#include "TimerBench.h"

namespace {

using bench::Node;

class AsyncQueue {
public:
    struct Message {
        char data[32];
    };
    AsyncQueue() : m_pQueue(g_async_queue_new()) {}
    ~AsyncQueue() { g_async_queue_unref(m_pQueue); }
    AsyncQueue(const AsyncQueue&) = delete;
    AsyncQueue& operator=(const AsyncQueue&) = delete;
    void Push(Message* pMessage) { g_async_queue_push(m_pQueue, pMessage); }
    Message* Pop() { return static_cast<Message*>(g_async_queue_pop(m_pQueue)); }
    static void* Allocate() { return g_malloc(sizeof(Message)); }
    static void Free(void* pMessage) { g_free(pMessage); }

private:
    GAsyncQueue* m_pQueue;
};

using AsyncQueueWorker = bench::ThreadedWorker<AsyncQueue>;

/// A main loop on a thread of its own.
class LoopThread {
public:
    LoopThread() : m_pContext(g_main_context_new()), m_pLoop(g_main_loop_new(m_pContext, FALSE)) {
        m_thread = std::thread([this] { g_main_loop_run(m_pLoop); });
        while (!g_main_loop_is_running(m_pLoop)) {
            std::this_thread::yield();
        }
    }
    ~LoopThread() {
        g_main_loop_quit(m_pLoop);
        m_thread.join();
        g_main_loop_unref(m_pLoop);
        g_main_context_unref(m_pContext);
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    GMainContext* Context() { return m_pContext; }

private:
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
    std::thread m_thread;
};

class Timers {
public:
    void Arm(unsigned int key, unsigned int ms) {
        if (key >= m_sources.size()) {
            m_sources.resize(key + 1);
        }
        GSource* pSource = g_timeout_source_new(ms);
        g_source_set_callback(
            pSource, [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
        m_sources[key] = g_source_attach(pSource, m_loop.Context());
        g_source_unref(pSource);
    }
    void Kill(unsigned int key) {
        g_source_destroy(g_main_context_find_source_by_id(m_loop.Context(), m_sources[key]));
    }

private:
    LoopThread m_loop;
    std::vector<guint> m_sources;
};

class List {
public:
    ~List() { g_queue_clear(&m_queue); }
    void Append(Node* pNode) { g_queue_push_tail(&m_queue, pNode); }
    void TakeFirst() { g_queue_pop_head(&m_queue); }
    Node* Find(unsigned int key) {
        GList* pFound = g_queue_find_custom(&m_queue, &key, [](gconstpointer node, gconstpointer wanted) -> gint {
            return static_cast<const Node*>(node)->key != *static_cast<const unsigned int*>(wanted);
        });
        return pFound ? static_cast<Node*>(pFound->data) : nullptr;
    }
    void InsertSorted(Node* pNode) {
        GList* pBehind = m_queue.head;
        while (pBehind && static_cast<Node*>(pBehind->data)->key < pNode->key) {
            pBehind = pBehind->next;
        }
        g_queue_insert_before(&m_queue, pBehind, pNode);
        m_pInserted = pBehind ? pBehind->prev : m_queue.tail;
    }
    void RemoveInserted(Node*) { g_queue_delete_link(&m_queue, m_pInserted); }

private:
    GQueue m_queue = G_QUEUE_INIT;
    GList* m_pInserted = nullptr;
};

class Hash {
public:
    Hash() : m_pTable(g_hash_table_new(g_direct_hash, g_direct_equal)) {}
    ~Hash() { g_hash_table_unref(m_pTable); }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;
    void Add(Node* pNode) { g_hash_table_insert(m_pTable, GUINT_TO_POINTER(pNode->key), pNode); }
    Node* Find(unsigned int key) { return static_cast<Node*>(g_hash_table_lookup(m_pTable, GUINT_TO_POINTER(key))); }
    void RemoveAll() { g_hash_table_remove_all(m_pTable); }

private:
    GHashTable* m_pTable;
};

class Slices {
public:
    static void* Allocate(unsigned int) { return g_slice_alloc(48); }
    static void Free(void* pBlock) { g_slice_free1(48, pBlock); }
};

} // namespace

PEER_BENCH_QUEUES(AsyncQueueWorker, "GLib GAsyncQueue")
PEER_BENCH_TIMERS(Timers, "GLib")
PEER_BENCH_LISTS(List, "GLib GQueue")
PEER_BENCH_HASHES(Hash, "GLib GHashTable")

PEER_BENCH("memory/pooled", "GLib slices") {
    return bench::AllocateAndFree<Slices>(48, 1);
}

PEER_BENCH("memory/pooled-two-threads", "GLib slices") {
    return bench::AllocateAndFree<Slices>(48, 2);
}
