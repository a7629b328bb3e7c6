// The whole library at once, as a device uses it: queues, timers, sockets, trace into rotating files and to viewers on
// the network, console sessions, pools, strings, settings, files, processes, lists, locks and compression, all under
// load for a minute. Afterwards every message is accounted for, and nothing is left: no block, no list, no queue, no
// thread, no descriptor.
//
// TQOS_SYSTEM_SECONDS in the environment sets another length of the load.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "EchoLoad.h"
#include "EngineerLoad.h"
#include "Load.h"
#include "SocketPeers.h"
#include "Standing.h"
#include "TestSupport.h"
#include "TraceLoad.h"
#include "tq_NetTrace_p.h"
#include "tqos.h"

namespace {

using namespace test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned int kLoadSeconds = 20;
#else
constexpr unsigned int kLoadSeconds = 60;
#endif
constexpr unsigned int kWarmUpSeconds = 1;

/// Everything that the library can watch of itself is on.
const char kIni[] = "[Memory]\nEnableMemoryPooling=yes\nEnableMemoryTracking=yes\nDirtyMemoryFree=0xDD\n"
                    "[Sem]\nTracking=yes\n"
                    "[MsgQ]\nDefaultHistory=20\n"
                    "[Trace]\ntqos_Level=Warning\ntqos_LogToFile=tqos.log\n"
                    "Journal_Level=All\nLive_Level=All\nLive_LogToMulticast=yes\n";

// Queues: jobs of three priorities on their way through a ring of queues

constexpr unsigned int kSenders = 3;
constexpr unsigned int kPriorities = 3;
constexpr unsigned int kRelays = 4; // a job visits each of them once
constexpr unsigned int kJob = MSG_USER + 1;

struct Job {
    MSG_COMMON msg; ///< instance: the sender; userparm: the job's number; flags: how many queues come after this one
    tq_SemSemaphore* pCredit;
    int priority;
    unsigned int bytes;
    unsigned char payload[1];
};

class Relay : public DeviceQueue {
public:
    Relay() : DeviceQueue("Relay") {}
    ~Relay() override { EndIdle(); }

    /// To be called when its handle is known to the queue before it.
    void SendTo(unsigned int hNext) { m_hNext = hNext; }

    unsigned int Handled() const { return m_handled; }
    unsigned int Finished() const { return m_finished; }

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        EXPECT_EQ(kJob, pMsg->command);
        Job& job = *reinterpret_cast<Job*>(pMsg);
        Examine(job);
        ++m_handled;
        if (pMsg->flags == 0) {
            ++m_finished;
            job.pCredit->Release(1, nullptr);
            return false;
        }
        --pMsg->flags;
        pMsg->hDest = m_hNext;
        const bool bSent = tq_MsgSend(pMsg, /*bAddToHead=*/false, job.priority);
        EXPECT_TRUE(bSent);
        return bSent;
    }

private:
    /// Jobs of a sender and priority that have come the same way come in the order in which they were sent.
    void Examine(const Job& job) {
        unsigned int& last = m_last[job.msg.instance][job.priority - 1][job.msg.flags];
        EXPECT_LT(last, job.msg.userparm);
        last = job.msg.userparm;
        EXPECT_EQ(offsetof(Job, payload) + job.bytes, job.msg.size);
        const unsigned char expected = static_cast<unsigned char>(job.msg.userparm);
        EXPECT_TRUE(std::all_of(job.payload, job.payload + job.bytes,
                                [expected](unsigned char byte) { return byte == expected; }));
    }

    std::atomic<unsigned int> m_hNext{0};
    std::atomic<unsigned int> m_handled{0};
    std::atomic<unsigned int> m_finished{0};
    unsigned int m_last[kSenders][kPriorities][kRelays] = {};
};

class JobLoad : public Load {
public:
    JobLoad() {
        for (Relay& relay : m_relays) {
            relay.Create(TQ_THREAD_PRIORITY_NORMAL);
        }
        for (unsigned int i = 0; i < kRelays; ++i) {
            m_relays[i].SendTo(m_relays[(i + 1) % kRelays].GetHandle());
        }
        for (unsigned int sender = 0; sender < kSenders; ++sender) {
            m_workers.Add(5, [this, sender] {
                for (unsigned int i = 0; i < 50; ++i) {
                    SendJob(sender);
                }
            });
        }
    }

    bool HasWorked() const override { return m_sent > 0; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_TRUE(WaitUntil([this] { return Finished() == m_sent; }, kHangSeconds)) << Finished() << " of " << m_sent;
        for (Relay& relay : m_relays) {
            EXPECT_EQ(m_sent, relay.Handled()); // every job has been to every queue
        }
    }

    std::string Account() const override { return std::to_string(m_sent) + " jobs through 4 queues"; }

private:
    unsigned int Finished() const {
        unsigned int finished = 0;
        for (const Relay& relay : m_relays) {
            finished += relay.Finished();
        }
        return finished;
    }

    /// At most as many jobs as a sender has credit are on their way.
    void SendJob(unsigned int sender) {
        EXPECT_EQ(1, m_credit[sender].WaitForSem(kHangMs));
        const unsigned int bytes = Random(700);
        const unsigned int size = static_cast<unsigned int>(offsetof(Job, payload)) + bytes;
        const unsigned int number = ++m_number[sender];
        Job* pJob = static_cast<Job*>(tq_calloc(1, size));
        ASSERT_NE(nullptr, pJob);
        pJob->msg = {0, m_relays[number % kRelays].GetHandle(), size, kJob, sender, number, kRelays - 1};
        pJob->pCredit = &m_credit[sender];
        pJob->priority = 1 + static_cast<int>(Random(kPriorities));
        pJob->bytes = bytes;
        memset(pJob->payload, static_cast<int>(number & 0xFF), bytes);
        if (!tq_MsgSend(&pJob->msg, /*bAddToHead=*/false, pJob->priority)) {
            ADD_FAILURE() << "not sent";
            tq_free(pJob);
            return;
        }
        ++m_sent;
    }

    tq_SemSemaphore m_credit[kSenders] = {{64, 64}, {64, 64}, {64, 64}};
    unsigned int m_number[kSenders] = {}; // each by its sender
    std::atomic<unsigned int> m_sent{0};
    Relay m_relays[kRelays];
    Workers m_workers;
};

// Timers: each one-shot is either killed or fires, once

class TimerQueue : public DeviceQueue {
public:
    TimerQueue() : DeviceQueue("Timers") { Create(TQ_THREAD_PRIORITY_NORMAL); }
    ~TimerQueue() override { EndIdle(); }

    static constexpr unsigned int kTick = 0; ///< the instance of the repeating one

    std::atomic<unsigned int> m_ticks{0};
    std::atomic<unsigned int> m_fired{0};
    tq_SemSemaphore m_free{200, 200}; ///< one-shots that may be set further

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        EXPECT_EQ(static_cast<unsigned int>(MSG_TIMER), pMsg->command);
        if (pMsg->instance == kTick) {
            ++m_ticks;
            return false;
        }
        EXPECT_TRUE(m_seen.insert(pMsg->instance).second) << "fired twice";
        EXPECT_EQ(pMsg->instance * 3, pMsg->userparm);
        ++m_fired;
        m_free.Release(1, nullptr);
        return false;
    }

private:
    std::set<unsigned int> m_seen; // by the queue's own thread
};

class TimerLoad : public Load {
public:
    TimerLoad() {
        EXPECT_EQ(0u, tq_TimerSet(m_queue.GetHandle(), 10, TimerQueue::kTick, 0, 0, TQ_TIMER_REPEATING, "tick", true));
        m_workers.Add(2, [this] {
            for (unsigned int i = 0; i < 5; ++i) {
                SetOne();
            }
        });
    }

    bool HasWorked() const override { return m_queue.m_ticks > 0 && m_queue.m_fired > 0 && m_killed > 0; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_EQ(0u, tq_TimerKill(m_queue.GetHandle(), TimerQueue::kTick, 0, 0));
        EXPECT_TRUE(WaitUntil([this] { return m_queue.m_fired + m_killed == m_set; }, kHangSeconds));
        EXPECT_EQ(0xFFFFFFFFu, tq_TimerNextTimeout(m_queue.GetHandle(), 0, 0, 0));
    }

    std::string Account() const override {
        return std::to_string(m_set) + " timers, of which " + std::to_string(m_queue.m_fired) + " fired and " +
               std::to_string(m_killed) + " were killed, and " + std::to_string(m_queue.m_ticks) + " ticks";
    }

private:
    void SetOne() {
        EXPECT_EQ(1, m_queue.m_free.WaitForSem(kHangMs));
        const unsigned int instance = ++m_set;
        const unsigned int hQueue = m_queue.GetHandle();
        EXPECT_EQ(0u, tq_TimerSet(hQueue, 10 + Random(40), instance, instance * 3, 0, TQ_TIMER_ONE_SHOT, "one", false));
        const unsigned int killed = instance - Random(20);
        if (killed != 0 && instance % 4 == 0 && tq_TimerKill(hQueue, killed, killed * 3, 0) == 0) {
            ++m_killed;
            m_queue.m_free.Release(1, nullptr);
        }
    }

    std::atomic<unsigned int> m_set{0};
    std::atomic<unsigned int> m_killed{0};
    TimerQueue m_queue;
    Workers m_workers;
};

// Sockets: a server that sends back what it gets, over TCP, local-domain sockets and UDP, and its clients

class SocketLoad : public Load {
public:
    explicit SocketLoad(const std::string& path) : m_echo(path), m_caller(m_echo.TcpPort(), path) {
        for (unsigned int i = 0; i < 2; ++i) {
            m_workers.Add(5, [this] { HoldConversation(); });
            m_workers.Add(2, [this] { ExchangeDatagrams(); });
        }
    }

    bool HasWorked() const override { return m_conversations > 0 && m_caller.Calls() > 1 && m_datagrams > 0; }

    void Stop() override {
        m_workers.Stop();
        m_caller.Stop();
        const unsigned int connections = m_conversations + m_caller.Calls();
        EXPECT_TRUE(WaitUntil([&] { return m_echo.m_closed == connections; }, kHangSeconds));
        EXPECT_EQ(connections, m_echo.m_accepted);
        EXPECT_EQ(m_datagrams, m_echo.m_datagrams);
        m_echo.CloseAll();
    }

    std::string Account() const override {
        return std::to_string(m_echo.m_accepted) + " connections with " + std::to_string(m_echo.m_bytes) +
               " bytes there and back, and " + std::to_string(m_datagrams) + " datagrams";
    }

private:
    /// A client from outside: what it sends comes back.
    void HoldConversation() {
        const Fd peer = ConnectedPeer(m_echo.TcpPort());
        ++m_conversations;
        for (unsigned int i = 0; i < 5; ++i) {
            const std::string text = Pattern(1 + Random(10000));
            SendAll(peer, text);
            EXPECT_TRUE(ReadBytes(peer, text.size()) == text);
        }
    }

    /// One datagram at a time is on its way, so that none is lost.
    void ExchangeDatagrams() {
        const Fd peer = BoundPeer(SOCK_DGRAM);
        EXPECT_TRUE(ConnectPeer(peer, m_echo.UdpPort()));
        for (unsigned int i = 0; i < 5; ++i) {
            const std::string text = Pattern(1 + Random(5000));
            EXPECT_EQ(static_cast<ssize_t>(text.size()), send(peer.Get(), text.data(), text.size(), 0));
            ++m_datagrams;
            char answer[6000];
            const ssize_t length = WaitReadable(peer, kHangSeconds) ? recv(peer.Get(), answer, 6000, 0) : -1;
            EXPECT_TRUE(length > 0 && std::string(answer, static_cast<size_t>(length)) == text);
        }
    }

    std::atomic<unsigned int> m_conversations{0};
    std::atomic<unsigned int> m_datagrams{0};
    EchoQueue m_echo;
    CallerQueue m_caller;
    Workers m_workers;
};

// Trace: every line stands in the files, once and in order; viewers on the network see them in order

class TraceLoad : public Load {
public:
    explicit TraceLoad(const std::string& prefix)
        : m_prefix(prefix), m_hJournal(tq_TraceInitInstance("Journal")), m_hLive(tq_TraceInitInstance("Live")) {
        EXPECT_EQ(0, tq_TraceEnableFile(m_hJournal, (prefix + ".log").c_str(), kFiles, 65536));
        const unsigned int port = LivePort();
        for (std::unique_ptr<Viewer>& pViewer : m_viewers) {
            pViewer = std::make_unique<Viewer>(port);
        }
        EXPECT_TRUE(WaitUntil([this] { return Viewers() == 2; }, kHangSeconds));
        for (unsigned int tracer = 0; tracer < kTracers; ++tracer) {
            m_workers.Add(20, [this, tracer] {
                for (unsigned int i = 0; i < 5; ++i) {
                    TraceLine(tracer);
                }
            });
        }
    }

    bool HasWorked() const override { return m_viewers[0]->HasSeenLines() && m_viewers[1]->HasSeenLines(); }

    void Stop() override {
        m_workers.Stop();
        EXPECT_TRUE(WaitUntil([this] { return ShowLast(); }, kHangSeconds)); // who did not answer would be off by now
        for (const std::unique_ptr<Viewer>& pViewer : m_viewers) {
            EXPECT_TRUE(pViewer->HasSeenThemInOrder());
        }
        for (std::unique_ptr<Viewer>& pViewer : m_viewers) {
            pViewer.reset();
        }
        EXPECT_EQ(0, tq_TraceTermInstance(m_hLive));
        EXPECT_EQ(0, tq_TraceTermInstance(m_hJournal));
        CheckFiles();
    }

    std::string Account() const override {
        return std::to_string(m_lines.seen) + " lines in " + std::to_string(m_files) + " files";
    }

private:
    static constexpr int kFiles = 1000; // more than the lines fill

    unsigned int LivePort() {
        unsigned int hSocket = 0;
        {
            tq_LockedTrace trace;
            hSocket = static_cast<unsigned int>(tq_FindTraceInstanceLocked(m_hLive)->iSocket);
        }
        EXPECT_NE(0u, hSocket);
        return tq_SocketGetBoundPort(hSocket);
    }

    unsigned int Viewers() {
        tq_LockedTrace trace;
        const CNetTrace* const pSender = tq_FindTraceInstanceLocked(m_hLive)->pNetTrace;
        return pSender ? pSender->Viewers() : 0;
    }

    void TraceLine(unsigned int tracer) {
        const unsigned int number = ++m_number[tracer];
        for (const unsigned int handle : {m_hJournal, m_hLive}) {
            tq_Trace(
                handle, TQ_TRACE_LEVEL_INFORMATIONAL, 1, /*bIncludeTimeStamp=*/true, "tracer %u line %u %.*s\n", tracer,
                number, static_cast<int>(Random(100)),
                "----------------------------------------------------------------------------------------------------");
        }
    }

    /// True when both viewers have seen it; the network may lose one.
    bool ShowLast() {
        tq_Trace(m_hLive, TQ_TRACE_LEVEL_INFORMATIONAL, 1, /*bIncludeTimeStamp=*/false, "%s", kLastLine);
        return m_viewers[0]->HasSeenLast() && m_viewers[1]->HasSeenLast();
    }

    void CheckFiles() {
        for (;; ++m_files) {
            char name[64];
            snprintf(name, sizeof(name), "%s%04u.log", m_prefix.c_str(), m_files);
            std::istringstream file(ReadFile(name));
            if (!FileExists(name)) {
                break;
            }
            for (std::string line; std::getline(file, line);) {
                m_lines.See(line.c_str());
            }
        }
        EXPECT_TRUE(m_lines.bWithoutGap);
        for (unsigned int tracer = 0; tracer < kTracers; ++tracer) {
            EXPECT_EQ(m_number[tracer], m_lines.last[tracer]);
        }
    }

    const std::string m_prefix;
    const unsigned int m_hJournal;
    const unsigned int m_hLive;
    unsigned int m_number[kTracers] = {}; // each by its thread
    LineCheck m_lines;
    unsigned int m_files = 0;
    std::unique_ptr<Viewer> m_viewers[2];
    Workers m_workers;
};

// Console: engineers look at everything while the device works, and talk to a queue of it

class ConsoleLoad : public Load {
public:
    ConsoleLoad() {
        const unsigned int port = tq_TelnetInitialize(0, Loopback(), "Secret");
        EXPECT_NE(0u, port);
        for (std::unique_ptr<Session>& pSession : m_sessions) {
            pSession = std::make_unique<Session>(port, m_door.GetHandle());
            m_workers.Add(20, [&pSession] { pSession->Command(); });
        }
    }

    bool HasWorked() const override { return m_door.m_requests > 0; }

    void Stop() override {
        m_workers.Stop();
        for (std::unique_ptr<Session>& pSession : m_sessions) {
            m_commands += pSession->Commands();
            pSession.reset();
        }
        tq_TelnetTerminate();
        EXPECT_EQ(m_commands, m_door.m_requests);
        EXPECT_EQ(m_commands, m_door.m_summaries);
    }

    std::string Account() const override { return std::to_string(m_commands) + " reports on the console"; }

private:
    unsigned int m_commands = 0;
    DoorQueue m_door;
    std::unique_ptr<Session> m_sessions[2];
    Workers m_workers;
};

// What threads do by themselves: one piece of work of each kind, with its own check

/// Blocks of all sizes, from the pools and beyond.
void UseMemory() {
    struct Block {
        unsigned char* pBytes;
        unsigned int size;
    };
    std::vector<Block> blocks;
    for (unsigned int i = 0; i < 40; ++i) {
        const unsigned int size = 1 + Random(i % 10 == 0 ? 20000 : 800);
        unsigned char* pBytes = static_cast<unsigned char*>(tq_malloc(size));
        memset(pBytes, static_cast<int>(i), size);
        blocks.push_back({pBytes, size});
    }
    for (unsigned int i = 0; i < blocks.size(); ++i) {
        Block& block = blocks[i];
        const unsigned int size = 1 + Random(2 * block.size);
        block.pBytes = static_cast<unsigned char*>(tq_realloc(block.pBytes, size));
        const unsigned int kept = std::min(size, block.size);
        EXPECT_TRUE(std::all_of(block.pBytes, block.pBytes + kept, [i](unsigned char byte) { return byte == i; }));
        tq_free(block.pBytes);
    }
}

/// A text that is formatted, escaped and brought back.
void UseStrings() {
    TqString* s = tq_string_create(Random(50));
    std::string expected;
    for (unsigned int i = 0; i < 20; ++i) {
        tq_string_sprintf(s, "<%u & '%s'>=\"%c\"", i, "name", static_cast<int>(1 + Random(255)));
    }
    expected = reinterpret_cast<char*>(tq_string_ptr(s, 0));
    EXPECT_EQ(0, tq_string_escape(s));
    EXPECT_EQ(0, tq_string_unescape(s, /*bNumericsOnly=*/false));
    EXPECT_EQ(expected, reinterpret_cast<char*>(tq_string_ptr(s, 0)));
    EXPECT_EQ(0, tq_string_xmlEscape(s));
    EXPECT_EQ(0, tq_string_xmlUnEscape(s));
    EXPECT_EQ(expected, reinterpret_cast<char*>(tq_string_ptr(s, 0)));
    tq_string_destroy(s);
}

/// Data that compresses more or less well. One call at a time in the process, so this has one thread.
void UseCompression() {
    std::string input = Pattern(1 + Random(30000));
    for (unsigned int i = Random(3000); i > 0; --i) {
        input[Random(static_cast<unsigned int>(input.size()))] = static_cast<char>(Random(256));
    }
    char* pStream = nullptr;
    unsigned int streamBytes = 0;
    tq_lzwCompress(input.data(), static_cast<unsigned int>(input.size()), &pStream, &streamBytes);
    char* pBack = nullptr;
    unsigned int backBytes = 0;
    tq_lzwExpand(pStream, streamBytes, &pBack, &backBytes);
    EXPECT_TRUE(pBack && std::string(pBack, backBytes) == input);
    tq_free(pBack);
    tq_free(pStream);
}

/// The settings of the device, in a file of the thread's own.
void UseSettings() {
    const std::string file = "settings" + std::to_string(tq_GetThreadId()) + ".ini";
    const int value = static_cast<int>(Random(1000000));
    const std::string key = "Key" + std::to_string(Random(20));
    EXPECT_EQ(1, tq_WriteINIFileInt("Device", key.c_str(), value, file.c_str()));
    EXPECT_EQ(1, tq_WriteINIFileString("Names", key.c_str(), file.c_str(), file.c_str()));
    EXPECT_EQ(value, tq_GetINIFileInt("Device", key.c_str(), -1, file.c_str()));
    char name[100];
    EXPECT_EQ(static_cast<int>(file.size()),
              tq_GetINIFileString("Names", key.c_str(), "", name, sizeof(name), file.c_str()));
    EXPECT_EQ(file, name);
}

/// A program of its own, and the directory in which it leaves a file.
void UseProcesses() {
    const std::string directory = "work" + std::to_string(tq_GetThreadId());
    EXPECT_TRUE(tq_CreateDirectory(directory.c_str()));
    EXPECT_LT(0, tq_SpawnProcess("touch done", directory.c_str(), /*bWait=*/true));
    TQ_FINDFILE_STRUCT found;
    void* pSearch = tq_FindFirstFile((directory + "/d*").c_str(), &found);
    EXPECT_NE(nullptr, pSearch);
    EXPECT_STREQ("done", found.pFilename);
    tq_FindClose(pSearch);
    tq_Deltree(directory.c_str()); // whose result cannot be known while the library runs
    EXPECT_FALSE(FileExists(directory));
}

struct Node {
    unsigned int key;
    char name[20];
};

/// A sorted list with an index, made, filled, searched and emptied.
void UseLists() {
    tq_List list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, offsetof(Node, key), "of a moment");
    const unsigned int hash = list.HashCreate(LIST_TYPE_U32BITS, offsetof(Node, key), 31, nullptr, "by key");
    EXPECT_NE(0u, hash);
    for (unsigned int i = 0; i < 50; ++i) {
        Node* pNode = static_cast<Node*>(tq_calloc(1, sizeof(Node)));
        pNode->key = Random(1000);
        snprintf(pNode->name, sizeof(pNode->name), "%u", pNode->key);
        list.AddNode(pNode);
    }
    unsigned int last = 0;
    unsigned int count = 0;
    while (Node* pNode = static_cast<Node*>(list.RemoveHead())) {
        EXPECT_LE(last, pNode->key);
        EXPECT_EQ(std::to_string(pNode->key), pNode->name);
        last = pNode->key;
        ++count;
        tq_free(pNode);
    }
    EXPECT_EQ(50u, count);
}

/// Threads that each do such work over and over.
class WorkLoad : public Load {
public:
    WorkLoad(const char* pszWhat, unsigned int threads, unsigned int pauseMs, void (*pfnWork)()) : m_pszWhat(pszWhat) {
        for (unsigned int i = 0; i < threads; ++i) {
            m_workers.Add(pauseMs, [this, pfnWork] {
                pfnWork();
                ++m_rounds;
            });
        }
    }

    bool HasWorked() const override { return m_rounds > 0; }
    void Stop() override { m_workers.Stop(); }
    std::string Account() const override { return std::to_string(m_rounds) + " rounds with " + m_pszWhat; }

private:
    const char* const m_pszWhat;
    std::atomic<unsigned int> m_rounds{0};
    Workers m_workers;
};

// Locks: what threads share

class SharedLoad : public Load {
public:
    SharedLoad() {
        for (unsigned int i = 0; i < 3; ++i) {
            m_workers.Add(1, [this] {
                PassNodes();
                CountUnderMutex();
            });
        }
    }

    bool HasWorked() const override { return m_rounds > 0; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_EQ(m_added, m_removed + m_list.NodeCount());
        while (void* pNode = m_list.RemoveHead()) {
            tq_free(pNode);
        }
        EXPECT_EQ(m_rounds, m_counted);
    }
    std::string Account() const override { return std::to_string(m_added) + " nodes through a list of three threads"; }

private:
    void PassNodes() {
        const tq_ListLock lock(m_list);
        for (unsigned int i = 0; i < 5; ++i) {
            Node* pNode = static_cast<Node*>(tq_calloc(1, sizeof(Node)));
            pNode->key = Random(10);
            m_list.AddToTail(pNode);
            ++m_added;
        }
        while (void* pNode = m_list.FindFirstAndRemove(tq_ListKey(Random(10)), LIST_TYPE_U32BITS, offsetof(Node, key),
                                                       nullptr, LIST_DIRECTION_HEAD_TO_TAIL)) {
            ++m_removed;
            tq_free(pNode);
        }
    }

    void CountUnderMutex() {
        EXPECT_EQ(1, m_mutex.WaitForMutexWithTimeout(kHangMs));
        ++m_counted;
        m_mutex.Release();
        ++m_rounds;
    }

    tq_List m_list{"Shared"};
    unsigned int m_added = 0; // both under the list's lock
    unsigned int m_removed = 0;
    tq_SemMutex m_mutex{false};
    unsigned int m_counted = 0; // under m_mutex
    std::atomic<unsigned int> m_rounds{0};
    Workers m_workers;
};

// What there is

std::vector<std::unique_ptr<Load>> StartLoads(const std::string& directory, const std::string& journal) {
    std::vector<std::unique_ptr<Load>> loads;
    loads.push_back(std::make_unique<JobLoad>());
    loads.push_back(std::make_unique<TimerLoad>());
    loads.push_back(std::make_unique<SocketLoad>(directory + "/echo.sock"));
    loads.push_back(std::make_unique<TraceLoad>(journal));
    loads.push_back(std::make_unique<ConsoleLoad>());
    loads.push_back(std::make_unique<SharedLoad>());
    loads.push_back(std::make_unique<WorkLoad>("memory", 2, 2, UseMemory));
    loads.push_back(std::make_unique<WorkLoad>("strings", 2, 5, UseStrings));
    loads.push_back(std::make_unique<WorkLoad>("lists", 2, 5, UseLists));
    loads.push_back(std::make_unique<WorkLoad>("settings", 2, 20, UseSettings));
    loads.push_back(std::make_unique<WorkLoad>("processes", 1, 50, UseProcesses));
    loads.push_back(std::make_unique<WorkLoad>("compression", 1, 10, UseCompression));
    return loads;
}

bool HaveWorked(const std::vector<std::unique_ptr<Load>>& loads) {
    return std::all_of(loads.begin(), loads.end(),
                       [](const std::unique_ptr<Load>& pLoad) { return pLoad->HasWorked(); });
}

/// Puts the device under load for a while. Afterwards nothing of it is left.
void WorkFor(unsigned int seconds, const std::string& directory, const std::string& journal) {
    std::vector<std::unique_ptr<Load>> loads = StartLoads(directory, journal);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(WaitUntil([&loads] { return HaveWorked(loads); }, kHangSeconds));
    printf("%u seconds:\n", seconds);
    for (const std::unique_ptr<Load>& pLoad : loads) {
        pLoad->Stop();
        printf("  %s\n", pLoad->Account().c_str());
    }
}

unsigned int LoadSeconds() {
    const char* const pszSeconds = getenv("TQOS_SYSTEM_SECONDS");
    return pszSeconds ? static_cast<unsigned int>(atoi(pszSeconds)) : kLoadSeconds;
}

TEST(System, ADeviceUnderLoadLosesNoMessageAndLeavesNothingBehind) {
    StartAndEndAThread();
    const unsigned int threads = ThreadsOfProcess();
    const unsigned int descriptors = DescriptorsOfProcess();
    Library library(kIni);

    // What is only started when it is first needed runs from now on: the threads of timers, sockets and network trace.
    const unsigned int threadsAtRest = threads + 3;
    WorkFor(kWarmUpSeconds, library.Path(), "warmup");
    EXPECT_TRUE(WaitUntil([=] { return IsAtRest(threadsAtRest); }, kHangSeconds));
    const Standing before;

    WorkFor(LoadSeconds(), library.Path(), "journal");
    EXPECT_TRUE(WaitUntil([=] { return IsAtRest(threadsAtRest); }, kHangSeconds));
    const Standing after;
    EXPECT_TRUE(after == before) << "before:\n" << before.Text() << "after:\n" << after.Text();
    EXPECT_FALSE(tq_CheckMemoryPools()) << "damaged memory";
    EXPECT_EQ("", ReadFile("tqos_error.log"));

    testing::internal::CaptureStdout();
    library.Terminate(/*bDumpResources=*/true);
    EXPECT_EQ("No memory leaks detected!\n\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(nullptr, gpListOfLists);
    EXPECT_TRUE(WaitUntil([threads] { return ThreadsOfProcess() == threads; }, kHangSeconds));
    EXPECT_EQ(descriptors, DescriptorsOfProcess());
}

} // namespace
