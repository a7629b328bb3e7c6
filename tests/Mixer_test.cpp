// Eight threads that call whatever the library offers, at random and all at once, each as the documentation of the call
// allows; and the library ends and starts again between the rounds, whatever is open. What the thread sanitizer has to
// say of it counts; so do descriptors and threads that stay, a critical error, and a thread that never comes back.
//
// In the environment: TQOS_MIXER_SECONDS, how long it goes on; TQOS_MIXER_SEED, the number from which everything
// random comes, one more each round.
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Load.h"
#include "SocketPeers.h"
#include "Standing.h"
#include "TestSupport.h"
#include "tqos.h"

namespace {

using namespace test;

constexpr unsigned int kActors = 8;
constexpr unsigned int kActionsPerRound = 300;
constexpr unsigned int kMixed = MSG_USER + 20; ///< passed on `userparm` times
constexpr unsigned int kEndYourself = MSG_USER + 21;
constexpr char kCriticalError[] = "mixed in";

/// A round's settings: each third of the rounds has other things watched.
const char* const kSettings[] = {
    "[Trace]\nDefaultLevel=Severe\ntqos_Level=All\ntqos_LogToFile=tqos.log\ntqos_MaxFiles=2\ntqos_MaxBytesPerFile="
    "100000\n"
    "[SignalHandler]\nDisable=yes\n",
    "[Memory]\nEnableMemoryTracking=yes\nEnableHistogram=yes\nDirtyMemoryFree=0xDD\n[Sem]\nTracking=yes\n"
    "[Trace]\nDefaultLevel=Warning\nDefaultLogToFilePrefix=round-\nDefaultMaxFiles=3\nDefaultMaxBytesPerFile=20000\n"
    "[SignalHandler]\nDisable=yes\n",
    "[Memory]\nEnableMemoryPooling=yes\nEnableMemoryTracking=yes\nDirtyMemoryFree=0xDD\n[MsgQ]\nDefaultHistory=20\n"
    "[Sem]\nUsePThreadCritSecs=yes\n[Handles]\nInitialCount=10\nThreshold=5\n"
    "[Trace]\nDefaultLevel=Informational\nDefaultLogToFilePrefix=round-\nDefaultShowThreadID=yes\n"
    "[SignalHandler]\nDisable=yes\n",
};

/// Numbers of objects that anybody may use; they stay here when the object is gone, and others take their places.
class Numbers {
public:
    void Publish(unsigned int which, unsigned int number) { m_numbers[which % m_numbers.size()] = number; }
    unsigned int Get(unsigned int which) const { return m_numbers[which % m_numbers.size()]; }

private:
    std::array<std::atomic<unsigned int>, 24> m_numbers{};
};

/// What the threads of a round share.
struct Round {
    explicit Round(unsigned int number) : seed(number) {}

    const unsigned int seed;
    Numbers queues;
    Numbers sockets;
    Numbers tcpPorts;
    Numbers udpPorts;
    Numbers traces;
    std::atomic<unsigned int> consolePort{0};
    std::atomic<unsigned int> helpers{0}; ///< threads that actors have started and that run
    std::atomic<unsigned int> playing{0}; ///< actors at work
    /// Ends before the library does: a list that outlives it is lost.
    std::unique_ptr<tq_List> pList{new tq_List(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, 0, "Mixed")};
    tq_SemMutex mutex{false};
    tq_SemCritSec critSec{true};
    tq_SemCritSec oneAtATime{true}; ///< for what the documentation allows one thread alone
    tq_SemEvent event{0, 0};
    tq_SemSemaphore semaphore{1, 4};
};

/// A queue that answers whatever comes.
class MixedQueue : public tq_MsgQ {
public:
    MixedQueue(Round& round, const char* pszName) : tq_MsgQ(pszName, "mixed"), m_round(round) {}
    ~MixedQueue() override { Cleanup(); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case kMixed:
            if (PassOn(pMsg)) {
                return;
            }
            break;
        case kEndYourself:
            Destroy(/*bAddToHead=*/pMsg->userparm % 2 != 0);
            break;
        case MSG_SOCKET_NEW_CONNECTION:
            Accept(*reinterpret_cast<const SOCKET_NEW_CONNECTION*>(pMsg));
            break;
        case MSG_SOCKET_DATASTREAM:
            Echo(pMsg->instance);
            break;
        case MSG_SOCKET_DATAGRAM:
            Answer(*reinterpret_cast<const SOCKET_DATAGRAM*>(pMsg));
            break;
        case MSG_SOCKET_CLOSED:
            tq_SocketClose(pMsg->instance);
            break;
        case MSG_TELNET_SUMMARY:
        case MSG_TELNET_CUSTOM:
            tq_TelnetSendResponse("mixed", pMsg->hDest, pMsg->instance, pMsg->userparm, pMsg->flags);
            break;
        default:
            break;
        }
        tq_free(pMsg);
    }

private:
    /// True when the message is somebody else's now.
    bool PassOn(MSG_COMMON* pMsg) {
        if (pMsg->userparm == 0) {
            return false;
        }
        --pMsg->userparm;
        pMsg->hDest = m_round.queues.Get(pMsg->userparm * 7 + pMsg->instance);
        return tq_MsgSend(pMsg, /*bAddToHead=*/pMsg->userparm % 2 != 0, static_cast<int>(pMsg->userparm % 4));
    }

    void Accept(const SOCKET_NEW_CONNECTION& connection) {
        m_round.sockets.Publish(connection.new_socket, connection.new_socket);
        tq_SocketSetName(connection.new_socket, "accepted");
        if (connection.new_socket % 5 == 0) {
            tq_SocketClose(connection.new_socket);
        }
    }

    /// Each time half of it, so that two of these do not go on for ever.
    void Echo(unsigned int hSocket) {
        unsigned char buffer[500];
        while (const unsigned int length = tq_SocketRecv(hSocket, buffer, sizeof(buffer))) {
            tq_SocketSendTo(hSocket, buffer, length / 2, 0, 0);
        }
    }

    void Answer(const SOCKET_DATAGRAM& datagram) {
        if (datagram.data[0] % 2 != 0) {
            tq_SocketSendTo(datagram.msg.instance, datagram.data + 1, datagram.length - 1, datagram.srcaddress,
                            datagram.srcport);
        }
    }

    Round& m_round;
};

struct MixedNode {
    unsigned int key;
    char name[12];
};

MixedNode* NewNode(unsigned int key) {
    MixedNode* pNode = static_cast<MixedNode*>(tq_calloc(1, sizeof(MixedNode)));
    pNode->key = key;
    snprintf(pNode->name, sizeof(pNode->name), "%u", key % 50);
    return pNode;
}

void FreeNodes(tq_List& list) {
    while (void* pNode = list.RemoveHead()) {
        tq_free(pNode);
    }
}

/// One of the threads, and what is its own.
class Actor {
public:
    Actor(Round& round, unsigned int number)
        : m_round(round), m_number(number), m_random(round.seed * kActors + number + 1),
          m_settings("mixer" + std::to_string(number) + ".ini") {}
    ~Actor() { GiveUpEverything(); }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    void Play();

    /// Before the library ends, some of it is closed; the rest stays open.
    void CloseSome() {
        while (m_sockets.size() > 1) {
            tq_SocketClose(TakeLast(m_sockets));
        }
        while (m_queues.size() > Any(3)) {
            m_queues.pop_back();
        }
    }

    const char* DoesNow() const { return m_pszDoesNow; }

    // Queues

    void MakeQueue() {
        if (m_queues.size() >= 3) {
            m_queues.erase(m_queues.begin() + Any(3));
        }
        const std::string name = "Mixed " + std::to_string(Any(10));
        m_queues.push_back(std::make_unique<MixedQueue>(m_round, name.c_str()));
        m_queues.back()->Create(nullptr, static_cast<int>(Any(3)) - 1);
        m_round.queues.Publish(Any(100), m_queues.back()->GetHandle());
    }

    void EndQueue() {
        if (MixedQueue* pQueue = OwnQueue()) {
            pQueue->Destroy(/*bAddToHead=*/Maybe());
            if (Maybe()) {
                pQueue->Cleanup();
                pQueue->Create(0);
                m_round.queues.Publish(Any(100), pQueue->GetHandle());
            }
        }
    }

    void Send() {
        for (unsigned int i = Any(10); i > 0; --i) {
            tq_MsgCreateCommonAndSend(0, AnyQueue(), kMixed, Any(100), Any(5), 0, Maybe(), static_cast<int>(Any(5)));
        }
    }

    void SendToMany() {
        MSG_COMMON msg = {0, 0, sizeof(MSG_COMMON), kMixed, Any(100), 1, 0};
        if (Maybe()) {
            tq_MsgSendToAll(&msg, Maybe(), static_cast<int>(Any(4)));
        } else {
            tq_MsgQSendToNamed(Maybe() ? AnyQueue() : 0, &msg);
        }
    }

    void AskQueueToEnd() {
        tq_MsgCreateCommonAndSend(0, AnyQueue(), kEndYourself, 0, Any(10), 0, false, TQ_MSG_PRIORITY_LOW);
    }

    void SendToOwn() {
        if (MixedQueue* pQueue = OwnQueue()) {
            MSG_COMMON* pMsg = NewMessage(kMixed, Any(100), sizeof(MSG_COMMON) + Any(300));
            if (!pQueue->Send(pMsg, Maybe(), static_cast<int>(Any(4)))) {
                tq_free(pMsg);
            }
        }
    }

    void Replace() {
        MixedQueue* const pQueue = OwnQueue();
        if (!pQueue) {
            return;
        }
        // Whether a message that replaced none was taken cannot be told from the result: so it is placed, or not sent.
        MSG_COMMON* pMsg = NewMessage(kMixed, Any(100));
        MSG_COMMON* const pReplaced = Maybe() ? pQueue->ReplaceMsgFromHead(pMsg, static_cast<int>(Any(4)), false)
                                              : pQueue->ReplaceMsgFromTail(pMsg, static_cast<int>(Any(4)), false);
        tq_free(pReplaced ? pReplaced : pMsg);
    }

    void LookAtQueue() {
        if (MixedQueue* pQueue = OwnQueue()) {
            pQueue->Lock();
            const MSG_COMMON* const pHead = pQueue->PeekHead(static_cast<int>(Any(4)));
            const MSG_COMMON* const pTail = pQueue->PeekTail(static_cast<int>(Any(4)));
            EXPECT_TRUE(!pHead || pHead->size >= sizeof(MSG_COMMON));
            EXPECT_TRUE(!pTail || pTail->size >= sizeof(MSG_COMMON));
            pQueue->GetQueueDepth(static_cast<int>(Any(5)));
            pQueue->Unlock();
            pQueue->SetHistory(static_cast<int>(Any(30)));
            pQueue->SetName(Maybe() ? "renamed" : nullptr);
            pQueue->SetDescription(Maybe() ? "described anew" : nullptr);
        }
        tq_free(tq_MsgQGetNameFromId(AnyQueue()));
        tq_MsgQGetIdFromName("renamed");
        char words[] = "renamed 7";
        tq_MsgqSetHistory(AnySocket(), words);
    }

    // Timers

    void SetTimers() {
        for (unsigned int i = Any(10); i > 0; --i) {
            tq_TimerSet(AnyQueue(), Any(60), Any(20), 0, 0, Any(2), Maybe() ? "mixed" : nullptr, Maybe());
        }
    }

    void KillTimers() {
        for (unsigned int i = Any(10); i > 0; --i) {
            tq_TimerKill(AnyQueue(), Any(20), 0, 0);
        }
        tq_TimerTimeRemaining(AnyQueue(), Any(20), 0, 0);
        tq_TimerNextTimeout(AnyQueue(), 0, 0, 0);
    }

    void SkewTimers() { tq_TimerSkew(static_cast<int>(Any(100)) - 50); }

    void UseServices() {
        if (Maybe()) {
            if (tq_TimerInitialize() == 0) {
                tq_TimerTerminate();
            }
        } else if (tq_SocketInitialize() == 0) {
            tq_SocketTerminate(1);
        }
    }

    // Sockets

    void OpenSocket() {
        if (m_sockets.size() >= 6) {
            tq_SocketClose(TakeLast(m_sockets));
        }
        const std::string path = "mixed" + std::to_string(m_number) + ".sock";
        unsigned int hSocket = 0;
        switch (Any(5)) {
        case 0:
            hSocket = tq_SocketOpenTCPServer(AnyQueue(), 0, m_number, Loopback());
            m_round.tcpPorts.Publish(Any(100), tq_SocketGetBoundPort(hSocket));
            break;
        case 1:
            hSocket = tq_SocketOpenUDP(AnyQueue(), Loopback(), m_round.udpPorts.Get(Any(100)), 0, Loopback(), 0);
            m_round.udpPorts.Publish(Any(100), tq_SocketGetBoundPort(hSocket));
            break;
        case 2:
            hSocket = tq_SocketOpenTCPServerDomain(AnyQueue(), Bytes(path), 0);
            break;
        case 3:
            hSocket = tq_SocketOpenTCPClientDomain(AnyQueue(), Bytes(path), 0);
            break;
        default:
            hSocket = tq_SocketOpenTCPClient(AnyQueue(), Loopback(), m_round.tcpPorts.Get(Any(100)), 0, 0, 0);
            break;
        }
        m_sockets.push_back(hSocket);
        m_round.sockets.Publish(Any(100), hSocket);
    }

    void SendOnSocket() {
        const std::string text = Text(1 + Any(2000));
        tq_SocketSendTo(AnySocket(), Bytes(text), static_cast<unsigned int>(text.size()), 0, 0);
        unsigned char buffer[100];
        tq_SocketRecv(AnySocket(), buffer, sizeof(buffer));
        tq_SocketDataAvailable(AnySocket());
    }

    void CloseSocket() {
        switch (Any(3)) {
        case 0:
            tq_SocketClose(AnySocket());
            break;
        case 1:
            tq_SocketFlushAndClose(AnySocket(), Any(4));
            break;
        default:
            tq_SocketCloseFromTelnet(AnySocket());
            break;
        }
    }

    void TuneSocket() {
        const unsigned int hSocket = AnySocket();
        tq_SocketSetName(hSocket, Maybe() ? "tuned" : nullptr);
        tq_SocketSetDataInCap(hSocket, 100 + Any(10000));
        tq_SocketSetDataOutCap(hSocket, 100 + Any(10000));
        tq_SocketSetWritePercentageNotification(hSocket, Any(120));
        tq_SocketGetWritePercentageNotification(hSocket);
        tq_SocketSetUserParm(static_cast<int>(hSocket), Any(10));
        tq_SocketGetUserParm(static_cast<int>(hSocket));
        tq_SocketGetSrcAddress(hSocket);
        tq_SocketSetSendBufSize(hSocket, 10000 + Any(10000));
        tq_SocketSetReceiveBufSize(Maybe() ? hSocket : 0, 10000 + Any(10000));
        int value = 1;
        int length = sizeof(value);
        tq_SocketSetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_KEEPALIVE, &value, length);
        tq_SocketGetOpt(static_cast<int>(hSocket), SOL_SOCKET, SO_KEEPALIVE, &value, &length);
    }

    void LookAtInterfaces() {
        char name[512];
        tq_GetMACAddress(name);
        tq_SocketGetInterfaceName(name, Any(3));
        tq_SocketGetInterfaceAddress(Any(tq_SocketGetInterfaceCount() + 1));
        tq_SocketFindInterfaceByName("lo");
        tq_inet_ntoa(Any(1000000));
        GetLocalInterfaces();
    }

    /// A peer from outside: it says something, and is gone or stays for a while.
    void ComeFromOutside() {
        const std::string text = Text(1 + Any(3000));
        if (m_peers.size() >= 5) {
            m_peers.erase(m_peers.begin());
        }
        const bool bTcp = Maybe();
        Fd peer(socket(AF_INET, (bTcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0));
        const unsigned int port = bTcp ? m_round.tcpPorts.Get(Any(100)) : m_round.udpPorts.Get(Any(100));
        if (port != 0 && ConnectPeer(peer, port)) {
            send(peer.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            m_peers.push_back(std::move(peer));
        }
    }

    // Trace

    void OpenTrace() {
        static const char* const kNames[] = {"Mixed One", "Mixed Two", "mixed two", "tqos"};
        const unsigned int hTrace = tq_TraceInitInstance(kNames[Any(4)]);
        m_round.traces.Publish(Any(100), hTrace);
        m_traces.push_back(hTrace);
        if (m_traces.size() > 4) {
            tq_TraceTermInstance(TakeLast(m_traces));
        }
    }

    void Trace() {
        for (unsigned int i = Any(10); i > 0; --i) {
            tq_Trace(AnyTrace(), static_cast<int>(Any(60000)), 1u << Any(32), Maybe(), "%u %s %.*s\n", m_number, "says",
                     static_cast<int>(Any(50)), "--------------------------------------------------");
        }
        const std::string text = Text(40);
        tq_TraceHexDump(AnyTrace(), TQ_TRACE_LEVEL_WARNING, 1, text.data(), Any(41), "dump %u", m_number);
    }

    void TuneTrace() {
        const unsigned int hTrace = AnyTrace();
        tq_TraceSetLevel(hTrace, static_cast<int>(Any(50000)));
        tq_TraceSetCatMask(hTrace, Maybe() ? -1 : static_cast<int>(Any(1000)));
        tq_TraceSetCategoryName(hTrace, 1u << Any(32), "Category");
        tq_TraceLookupCategory(hTrace, "category");
        tq_TraceGetDestinations(hTrace, TQ_TRACE_LEVEL_SEVERE, 1);
        tq_TraceGetLevel(hTrace);
        tq_TraceGetCatMask(hTrace);
        tq_TraceSuppressTimestamp(hTrace, Maybe());
        tq_TraceShowThreadID(hTrace, Maybe());
        tq_TraceSetDeltaTimestamps(Maybe());
        tq_TraceGetHandleFromName("mixed one");
        tq_TraceCleanupInstanceList(tq_TraceGetInstanceList());
    }

    /// A file that replaces another stays open, so nobody else may come between.
    void TraceToFile() {
        const tq_CritSecLock lock(m_round.oneAtATime);
        const unsigned int hTrace = AnyTrace();
        tq_TraceDisableFile(hTrace);
        if (Maybe()) {
            tq_TraceEnableFile(hTrace, ("trace" + std::to_string(Any(3)) + ".log").c_str(), static_cast<int>(Any(4)),
                               static_cast<int>(Maybe() ? 0 : 1000 + Any(20000)));
        }
    }

    void TraceToNetwork() {
        if (Maybe()) {
            tq_TraceEnableMulticast(AnyTrace());
            tq_TraceSetResetHandler(AnyTrace(), [] {});
        } else {
            tq_TraceDisableMulticast(AnyTrace());
        }
    }

    // Memory, lists, locks and the rest

    void Allocate() {
        for (unsigned int i = Any(20); i > 0; --i) {
            m_blocks.push_back(Maybe() ? tq_malloc(Any(2000)) : tq_calloc(1 + Any(10), Any(200)));
        }
        while (m_blocks.size() > 40) {
            tq_free(TakeLast(m_blocks));
        }
        if (!m_blocks.empty()) {
            m_blocks.back() = tq_realloc(m_blocks.back(), 1 + Any(6000));
        }
        tq_free(tq_newString("a text of the mixer"));
        tq_delete(tq_new(Any(100)));
        tq_deleteArray(tq_newArray(Any(100)));
    }

    void UseHandles() {
        for (unsigned int i = Any(20); i > 0; --i) {
            m_handles.push_back(tq_HandleGet());
        }
        while (m_handles.size() > 10) {
            tq_HandleRelease(TakeLast(m_handles));
        }
    }

    void UseOwnList() {
        tq_List list(static_cast<int>(Any(3)), LIST_TYPE_U32BITS, offsetof(MixedNode, key), "a mixer's own");
        const unsigned int hash = list.HashCreate(LIST_TYPE_ZSTR, offsetof(MixedNode, name), 7, nullptr, "by name");
        for (unsigned int i = Any(60); i > 0; --i) {
            list.AddToTail(NewNode(Any(100)));
        }
        list.HashFindFirst(hash, Any(7));
        list.SetName("a mixer's own, renamed");
        tq_ListShowHashes(Any(300), 0, AnySocket(), Any(2));
        FreeNodes(list);
    }

    void UseSharedList() {
        tq_List& list = *m_round.pList;
        const tq_ListLock lock(list);
        for (unsigned int i = Any(6); i > 0; --i) {
            list.AddNode(NewNode(Any(30)), static_cast<int>(Any(2)));
        }
        tq_free(list.FindFirstAndRemove(tq_ListKey(Any(30)), LIST_TYPE_U32BITS, 0, nullptr, static_cast<int>(Any(2))));
        tq_free(Maybe() ? list.RemoveHead() : list.RemoveTail());
        while (list.NodeCount() > 100) {
            tq_free(list.RemoveHead());
        }
        list.GetHead();
        list.GetNext();
        list.GetPrev();
    }

    void UseLocks() {
        if (m_round.mutex.WaitForMutexWithTimeout(static_cast<int>(Any(3)))) {
            const tq_CritSecLock lock(m_round.critSec);
            const tq_CritSecLock again(m_round.critSec);
            m_round.mutex.Release();
        }
        m_round.event.Set();
        m_round.event.WaitForEvent(static_cast<int>(Any(3)));
        if (m_round.semaphore.WaitForSem(static_cast<int>(Any(3)))) {
            m_round.semaphore.Release(1, nullptr);
        }
        if (Any(20) == 0) {
            tq_SemEnableSemTracking();
        }
    }

    void UseStrings() {
        TqString* const s = tq_string_create(Any(30));
        for (unsigned int i = Any(10); i > 0; --i) {
            tq_string_sprintf(s, "<%u&'%s'>=\"%c\"", i, "name", static_cast<int>(1 + Any(255)));
        }
        tq_string_append(s, "tail");
        tq_string_replace(s, 0, 1, "head");
        tq_string_escape(s);
        tq_string_unescape(s, Maybe());
        tq_string_xmlEscape(s);
        tq_string_xmlUnEscape(s);
        TqString* const pPiece = tq_string_substring(s, 1, 2);
        tq_string_find(s, "head", 0);
        tq_string_destroy(pPiece);
        tq_string_destroy(s);
    }

    void UseSettings() {
        const std::string key = "Key" + std::to_string(Any(5));
        const int value = static_cast<int>(Any(1000));
        EXPECT_EQ(1, tq_WriteINIFileInt("Mixed", key.c_str(), value, m_settings.c_str()));
        EXPECT_EQ(value, tq_GetINIFileInt("Mixed", key.c_str(), -1, m_settings.c_str()));
        char text[50];
        tq_GetINIFileString("Trace", "DefaultLevel", "none", text, sizeof(text), "tqos.ini");
        tq_GetINIFileAffirmative("Memory", "EnableMemoryPooling", "no", "tqos.ini");
    }

    void UseFiles() {
        const std::string directory = "directory" + std::to_string(m_number);
        EXPECT_TRUE(tq_CreateDirectory(directory.c_str()));
        tq_CopyFile("tqos.ini", (directory + "/copy").c_str());
        TQ_FINDFILE_STRUCT found;
        void* const pSearch = tq_FindFirstFile((directory + "/*").c_str(), &found);
        tq_FindNextFile(pSearch, &found);
        tq_FindClose(pSearch);
        EXPECT_TRUE(tq_RemoveFile((directory + "/copy").c_str()));
        tq_RemoveDirectory(directory.c_str()); // whose result cannot be known while the library runs
    }

    void UseCompression() {
        const tq_CritSecLock lock(m_round.oneAtATime);
        const std::string input = Text(1 + Any(3000));
        char* pStream = nullptr;
        char* pBack = nullptr;
        unsigned int streamBytes = 0;
        unsigned int backBytes = 0;
        tq_lzwCompress(input.data(), static_cast<unsigned int>(input.size()), &pStream, &streamBytes);
        tq_lzwExpand(pStream, streamBytes, &pBack, &backBytes);
        EXPECT_TRUE(pBack && std::string(pBack, backBytes) == input);
        tq_free(pBack);
        tq_free(pStream);
    }

    void UseBase() {
        char text[] = "a,'b,c',d";
        char* pPlace = nullptr;
        for (char* pToken = text; pToken;) {
            pToken = tq_getToken(pPlace ? nullptr : text, ",", "'", "'", nullptr, 4, &pPlace);
            pToken = pPlace ? pToken : nullptr;
        }
        TQ_UUID uuid;
        EXPECT_TRUE(tq_CreateUUID(&uuid));
        char date[32];
        tq_GetASCTime(date);
        tq_GetTimeInMS();
        tqOS_uptime();
        if (Any(10) == 0) {
            LogCriticalError(kCriticalError, /*bAbort=*/false, TQ_TRACE_LEVEL_SEVERE, 16);
        }
    }

    void StartThread() {
        ++m_round.helpers;
        unsigned int id = 0;
        if (tq_beginthread(0, Help, &m_round, &id, static_cast<int>(Any(3)) - 1) == 0) {
            --m_round.helpers;
        }
        tq_ThreadSetName(id, "mixer's helper");
        char name[41] = {};
        tq_ThreadGetName(name, sizeof(name), id);
        tq_Sleep(Any(3));
    }

    // The console

    void StartConsole() {
        if (m_consoles > 0) {
            --m_consoles;
            tq_TelnetTerminate();
            return;
        }
        const unsigned int port = tq_TelnetInitialize(0, Loopback(), m_number % 2 != 0 ? "Secret" : nullptr);
        EXPECT_NE(0u, port);
        m_consoles += port != 0 ? 1 : 0;
        m_round.consolePort = port;
        m_round.tcpPorts.Publish(Any(100), port);
    }

    void TypeAtConsole() {
        static const char* const kTyped[] = {
            "Secret\r",        "sh queues\r",       "sh lists\r", "sh timers\r", "sh sockets\r",
            "sh threads\r",    "sh trace\r",        "sh mem\r",   "sh sem\r",    "sh handles\r",
            "sh uptime\r",     "sh det queues 5\r", "sh sum 0\r", "sh hashes\r", "clo so 12\r",
            "ki ti 9 1 0 0\r", "sen 9 hello\r",     "quit\r",     "half a li",   "\x05\x1b[A\x1b[B\b\b",
        };
        Fd peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const unsigned int port = m_round.consolePort;
        if (port == 0 || !ConnectPeer(peer, port)) {
            return;
        }
        for (unsigned int i = Any(6); i > 0; --i) {
            const char* const pszTyped = kTyped[Any(sizeof(kTyped) / sizeof(kTyped[0]))];
            send(peer.Get(), pszTyped, strlen(pszTyped), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        m_peers.push_back(std::move(peer));
    }

    // Reports

    void Report() {
        typedef void (*Show)(char** pszResponse);
        static const Show kReports[] = {
            [](char** p) { tq_TimerShowTimers(p); },
            [](char** p) { tq_ShowThreads(p); },
            [](char** p) { tq_ShowSemaphores(p); },
            [](char** p) { tq_SocketShowSockets(p, 0, nullptr); },
            [](char** p) { tq_SocketShowInterfaces(p); },
            [](char** p) { tq_ShowTrace(p, 0, nullptr); },
            [](char** p) { tq_ShowTrace(p, 1, "Mixed One"); },
            [](char** p) { tq_MsgQShowQueues(0, p, 0, nullptr); },
        };
        char* pszResponse = nullptr;
        kReports[Any(sizeof(kReports) / sizeof(kReports[0]))](&pszResponse);
        tq_free(pszResponse);
    }

    void ReportToConsole() {
        const unsigned int instance = AnySocket();
        char* pszResponse = nullptr;
        char words[32];
        snprintf(words, sizeof(words), "%u", AnyQueue());
        switch (Any(7)) {
        case 0:
            tq_ListShowLists(instance, &pszResponse, 0, 0, nullptr, false, Any(5), Maybe());
            break;
        case 1:
            tq_MsgQShowQueues(instance, nullptr, 1, words);
            break;
        case 2:
            tq_ShowHandles(instance);
            tq_CheckForDuplicateHandles(instance);
            break;
        case 3:
            tq_CheckMemoryPoolsFromTelnet(instance);
            break;
        case 4:
            tq_MemoryMarkPools();
            tq_ShowMemory(instance, Any(2), nullptr);
            tq_MemoryUnmarkPools();
            break;
        case 5:
            tq_MemoryShowHistogram(instance, nullptr, static_cast<TQ_MEM_HISTOGRAM_FORMATS>(Any(4)));
            break;
        default:
            tq_SocketShowSockets(&pszResponse, 1, words);
            break;
        }
        tq_free(pszResponse);
    }

private:
    unsigned int Any(unsigned int below) { return static_cast<unsigned int>(m_random() >> 4) % below; }
    bool Maybe() { return Any(2) != 0; }
    std::string Text(unsigned int length) {
        std::string text = Pattern(length);
        text[0] = static_cast<char>(Any(256));
        return text;
    }

    template <class T> static T TakeLast(std::vector<T>& values) {
        const T last = values.back();
        values.pop_back();
        return last;
    }

    unsigned int AnyQueue() { return m_round.queues.Get(Any(100)); }
    unsigned int AnySocket() { return m_round.sockets.Get(Any(100)); }
    unsigned int AnyTrace() { return m_round.traces.Get(Any(100)); }
    MixedQueue* OwnQueue() {
        return m_queues.empty() ? nullptr : m_queues[Any(static_cast<unsigned int>(m_queues.size()))].get();
    }

    static void* Help(void* pArgument) {
        Round& round = *static_cast<Round*>(pArgument);
        tq_ThreadSetName(tq_GetThreadId(), "helps");
        tq_MsgCreateCommonAndSend(0, round.queues.Get(tq_GetThreadId()), kMixed, 1, 2, 0, false, 2);
        const bool bAtOnce = tq_GetThreadId() % 2 != 0;
        --round.helpers; // the last step that touches the round
        if (bAtOnce) {
            tq_endthread(0);
        }
        return nullptr;
    }

    void GiveUpEverything() {
        m_queues.clear();
        m_peers.clear();
        while (!m_blocks.empty()) {
            tq_free(TakeLast(m_blocks));
        }
    }

    Round& m_round;
    const unsigned int m_number;
    std::minstd_rand m_random;
    const std::string m_settings;
    std::atomic<const char*> m_pszDoesNow{"nothing"};
    std::vector<std::unique_ptr<MixedQueue>> m_queues;
    std::vector<unsigned int> m_sockets;
    std::vector<unsigned int> m_traces;
    std::vector<unsigned int> m_handles;
    std::vector<void*> m_blocks;
    std::vector<Fd> m_peers;
    unsigned int m_consoles = 0;
};

/// What an actor may do, and how often.
constexpr struct {
    const char* pszName;
    unsigned int weight;
    void (Actor::*pfnDo)();
} kActions[] = {
    {"make a queue", 4, &Actor::MakeQueue},
    {"end a queue", 2, &Actor::EndQueue},
    {"send", 10, &Actor::Send},
    {"send to many", 1, &Actor::SendToMany},
    {"ask a queue to end", 1, &Actor::AskQueueToEnd},
    {"send to an own queue", 6, &Actor::SendToOwn},
    {"replace a message", 4, &Actor::Replace},
    {"look at a queue", 3, &Actor::LookAtQueue},
    {"set timers", 6, &Actor::SetTimers},
    {"kill timers", 4, &Actor::KillTimers},
    {"skew timers", 1, &Actor::SkewTimers},
    {"use services", 1, &Actor::UseServices},
    {"open a socket", 6, &Actor::OpenSocket},
    {"send on a socket", 8, &Actor::SendOnSocket},
    {"close a socket", 4, &Actor::CloseSocket},
    {"tune a socket", 3, &Actor::TuneSocket},
    {"look at interfaces", 1, &Actor::LookAtInterfaces},
    {"come from outside", 6, &Actor::ComeFromOutside},
    {"open a trace", 3, &Actor::OpenTrace},
    {"trace", 8, &Actor::Trace},
    {"tune a trace", 2, &Actor::TuneTrace},
    {"trace to a file", 1, &Actor::TraceToFile},
    {"trace to the network", 1, &Actor::TraceToNetwork},
    {"allocate", 8, &Actor::Allocate},
    {"use handles", 4, &Actor::UseHandles},
    {"use an own list", 3, &Actor::UseOwnList},
    {"use the shared list", 6, &Actor::UseSharedList},
    {"use locks", 6, &Actor::UseLocks},
    {"use strings", 4, &Actor::UseStrings},
    {"use settings", 2, &Actor::UseSettings},
    {"use files", 1, &Actor::UseFiles},
    {"compress", 1, &Actor::UseCompression},
    {"use what is at the base", 3, &Actor::UseBase},
    {"start a thread", 2, &Actor::StartThread},
    {"start or end the console", 1, &Actor::StartConsole},
    {"type at the console", 3, &Actor::TypeAtConsole},
    {"report", 4, &Actor::Report},
    {"report to the console", 4, &Actor::ReportToConsole},
};

void Actor::Play() {
    std::vector<unsigned int> weights;
    for (const auto& action : kActions) {
        weights.push_back(action.weight);
    }
    std::discrete_distribution<size_t> choose(weights.begin(), weights.end());
    for (unsigned int i = 0; i < kActionsPerRound; ++i) {
        const auto& action = kActions[choose(m_random)];
        m_pszDoesNow = action.pszName;
        (this->*action.pfnDo)();
    }
    m_pszDoesNow = "nothing";
    --m_round.playing;
}

/// Waits for the actors and their helpers; ends the process when one of them never comes back.
void WaitForAll(const Round& round, const std::vector<std::unique_ptr<Actor>>& actors) {
    if (WaitUntil([&round] { return round.playing == 0 && round.helpers == 0; }, 4 * kHangSeconds)) {
        return;
    }
    printf("The round with seed %u hangs.\n", round.seed);
    for (const std::unique_ptr<Actor>& pActor : actors) {
        printf("  %s\n", pActor->DoesNow());
    }
    fflush(stdout);
    _exit(1);
}

/// One life of the library. What is still open when it ends is given up afterwards.
void PlayRound(unsigned int seed) {
    SCOPED_TRACE("round with seed " + std::to_string(seed));
    Library library(kSettings[seed % (sizeof(kSettings) / sizeof(kSettings[0]))]);
    Round round(seed);
    std::vector<std::unique_ptr<Actor>> actors;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kActors; ++i) {
        actors.push_back(std::make_unique<Actor>(round, i));
    }
    round.playing = kActors;
    for (const std::unique_ptr<Actor>& pActor : actors) {
        threads.emplace_back([&pActor] { pActor->Play(); });
    }
    WaitForAll(round, actors);
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::unique_ptr<Actor>& pActor : actors) {
        pActor->CloseSome();
    }
    FreeNodes(*round.pList);
    round.pList.reset();
    library.Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/seed % 2 == 0);
    actors.clear();
    std::string errors = ReadFile("tqos_error.log");
    for (size_t begin = 0, end; (end = errors.find('\n', begin)) != std::string::npos; begin = end + 1) {
        EXPECT_NE(std::string::npos, errors.substr(begin, end - begin).find(kCriticalError)) << errors;
    }
}

unsigned int FromEnvironment(const char* pszName, unsigned int otherwise) {
    const char* const pszValue = getenv(pszName);
    return pszValue ? static_cast<unsigned int>(strtoul(pszValue, nullptr, 10)) : otherwise;
}

TEST(Mixer, EightThreadsMayCallAnythingInAnyOrderAndTheLibraryStartsAgain) {
    StartAndEndAThread();
    const unsigned int threads = ThreadsOfProcess();
    const unsigned int descriptors = DescriptorsOfProcess();
    const unsigned int firstSeed = FromEnvironment("TQOS_MIXER_SEED", 1);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(FromEnvironment("TQOS_MIXER_SECONDS", TQOS_MIXER_SECONDS));
    unsigned int rounds = 0;
    do {
        PlayRound(firstSeed + rounds++);
        EXPECT_TRUE(WaitUntil([threads] { return ThreadsOfProcess() == threads; }, kHangSeconds));
        EXPECT_EQ(descriptors, DescriptorsOfProcess());
    } while (std::chrono::steady_clock::now() < end && !HasFailure());
    printf("%u rounds from seed %u on, %u calls\n", rounds, firstSeed, rounds * kActors * kActionsPerRound);
}

} // namespace
