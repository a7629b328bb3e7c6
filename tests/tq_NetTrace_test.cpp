// The network destination of trace. A viewer is a plain UDP socket. What needs the machine's interfaces to change runs
// in a child process that has a network of its own.
#include "tq_NetTrace_p.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdlib.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "MemoryCap.h"
#include "OwnNetwork.h"
#include "PageExample.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tq_MsgQ_p.h"
#include "tq_Socket_p.h"
#include "tq_Telnet.h"
#include "tqos.h"

namespace {

using test::AllocatedBytes;
using test::Cap;
using test::CountOf;
using test::Fd;
using test::kCapped;
using test::Library;
using test::WaitReadable;
using test::WaitUntil;

enum { kAnnouncementTimer = 1, kKeepAliveTimer = 2 };

constexpr char kGroup[] = "224.123.111.105";
constexpr unsigned int kGroupPort = 3000;

/// An instance "T" that passes everything to the network alone, without dates; the library's own says nothing.
const char kIni[] = "[Trace]\ntqos_Level=None\nT_Level=All\nT_SuppressTimestamp=yes\nT_LogToMulticast=yes\n";

/// The instance whose destination on the network ends when the next socket is bound, whoever binds it.
std::atomic<unsigned int> ghEndsAtBind{0};

/// A text with its terminator, as it goes over the wire.
std::string Wire(const std::string& text) {
    return text + '\0';
}

} // namespace

extern "C" int bind(int fd, const struct sockaddr* address, socklen_t length) noexcept {
    if (const unsigned int handle = ghEndsAtBind.exchange(0)) {
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
    }
    return static_cast<int>(syscall(SYS_bind, fd, address, length));
}

namespace {

// Looking into an instance

_TRACEINSTANCE* RecordLocked(unsigned int handle) {
    return tq_FindTraceInstanceLocked(handle);
}

unsigned int SocketOf(unsigned int handle) {
    tq_LockedTrace trace;
    return static_cast<unsigned int>(RecordLocked(handle)->iSocket);
}

unsigned int PortOfInstance(unsigned int handle) {
    return tq_SocketGetBoundPort(SocketOf(handle));
}

unsigned int ViewersOf(unsigned int handle) {
    tq_LockedTrace trace;
    const CNetTrace* pSender = RecordLocked(handle)->pNetTrace;
    return pSender ? pSender->Viewers() : 0;
}

bool WaitForViewers(unsigned int handle, unsigned int count) {
    return WaitUntil([=] { return ViewersOf(handle) == count; });
}

std::string TypeOf(unsigned int handle) {
    char* text = nullptr;
    tq_ShowTrace(&text, 1, std::to_string(handle).c_str());
    const std::string report = text ? text : "";
    tq_free(text);
    const size_t at = report.find("  Type:                  ");
    return at == std::string::npos ? report : report.substr(at + 25, 5);
}

std::string Timers() {
    char* text = nullptr;
    tq_TimerShowTimers(&text);
    const std::string report = text ? text : "";
    tq_free(text);
    return report;
}

/// A handler that has just found its sender sets the timer anew, and looks once more whether to kill it.
bool WaitForTimers(const std::string& name, size_t count) {
    return WaitUntil([&] { return CountOf(Timers(), name) == count; });
}

bool WaitForNoTimers() {
    return WaitUntil([] { return Timers() == "No Timers currently set..."; });
}

unsigned int RemainingOf(unsigned int timer, unsigned int hSocket) {
    return tq_TimerTimeRemaining(gpTraceMsgQ->GetHandle(), timer, hSocket, 0);
}

/// Lets a timer of a socket fire at once.
void Fire(unsigned int timer, unsigned int hSocket) {
    EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, gpTraceMsgQ->GetHandle(), MSG_TIMER, timer, hSocket, 0, false, 2));
}

/// Gives the queue a datagram as the sockets layer would, from whatever address.
void Forge(unsigned int hSocket, const std::string& bytes, unsigned int ip, unsigned int port) {
    SOCKET_DATAGRAM* pMsg = static_cast<SOCKET_DATAGRAM*>(
        tq_calloc(1, static_cast<unsigned int>(sizeof(SOCKET_DATAGRAM) - 1 + bytes.size())));
    pMsg->msg.hDest = gpTraceMsgQ->GetHandle();
    pMsg->msg.size = static_cast<unsigned int>(sizeof(SOCKET_DATAGRAM) - 1 + bytes.size());
    pMsg->msg.command = MSG_SOCKET_DATAGRAM;
    pMsg->msg.instance = hSocket;
    pMsg->srcaddress = ip;
    pMsg->srcport = port;
    pMsg->length = static_cast<unsigned int>(bytes.size());
    memcpy(pMsg->data, bytes.data(), bytes.size());
    EXPECT_TRUE(tq_MsgSend(&pMsg->msg, false, 2));
}

void Line(unsigned int handle, const std::string& text) {
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "%s", text.c_str());
}

// Viewers

class Viewer {
public:
    /// On an address of the machine, in dotted form.
    explicit Viewer(const char* pszAddress = "127.0.0.1") : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in address = test::LoopbackAddress(0);
        address.sin_addr.s_addr = inet_addr(pszAddress);
        EXPECT_EQ(0, bind(m_fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
    }

    unsigned int Port() const { return test::PortOf(m_fd); }
    const Fd& Descriptor() const { return m_fd; }

    void Send(unsigned int port, const std::string& bytes, const char* pszAddress = "127.0.0.1") {
        struct sockaddr_in address = test::LoopbackAddress(port);
        address.sin_addr.s_addr = inet_addr(pszAddress);
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  sendto(m_fd.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const struct sockaddr*>(&address),
                         sizeof(address)))
            << strerror(errno);
    }

    /// The next datagram; "(nothing)" when none comes.
    std::string Next() {
        if (!WaitReadable(m_fd)) {
            return "(nothing)";
        }
        std::vector<char> buffer(70000);
        socklen_t length = sizeof(m_from);
        const ssize_t result =
            recvfrom(m_fd.Get(), buffer.data(), buffer.size(), 0, reinterpret_cast<struct sockaddr*>(&m_from), &length);
        return std::string(buffer.data(), result > 0 ? static_cast<size_t>(result) : 0);
    }
    /// The next datagram that is no probe.
    std::string NextLine() {
        std::string line = Next();
        while (line == Wire("KEEPALIVE/")) {
            line = Next();
        }
        return line;
    }

    bool HasMore() const {
        struct pollfd wait = {m_fd.Get(), POLLIN, 0};
        return poll(&wait, 1, 0) == 1;
    }

    /// Who sent the last one.
    std::string From() const {
        return std::string(inet_ntoa(m_from.sin_addr)) + ":" + std::to_string(ntohs(m_from.sin_port));
    }

private:
    Fd m_fd;
    struct sockaddr_in m_from = {};
};

/// A viewer that has subscribed.
class Subscribed : public Viewer {
public:
    explicit Subscribed(unsigned int handle) {
        const unsigned int before = ViewersOf(handle);
        Send(PortOfInstance(handle), Wire("TRACEON/"));
        EXPECT_TRUE(WaitForViewers(handle, before + 1));
    }
};

/// Nothing is left to be read from a library's socket: the sockets thread, which reads under the lock taken here, has
/// given the queue all that came before.
bool IsReadEmpty(unsigned int hSocket) {
    tq_SocketAccess socket(hSocket);
    struct pollfd wait = {socket ? static_cast<int>(socket->socket) : -1, POLLIN, 0};
    return poll(&wait, 1, 0) == 0;
}

/// Waits until the queue has handled all that was sent to the instance's socket before.
void WaitUntilHandled(unsigned int handle) {
    const unsigned int hSocket = SocketOf(handle);
    EXPECT_TRUE(WaitUntil([hSocket] { return IsReadEmpty(hSocket); }));
    for (int i = 0; i < 2; ++i) { // with the second one taken, the first is handled, and all before it
        EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, gpTraceMsgQ->GetHandle(), MSG_USER, 0, 0, 0, false, 2));
    }
    EXPECT_TRUE(WaitUntil([] { return gpTraceMsgQ->GetQueueDepth(0) == 0; }));
}

/// What a viewer gets of a line, the stamp replaced.
std::string Shown(const std::string& line) {
    const size_t open = line.find('[');
    const size_t close = line.find("]: ");
    if (open == std::string::npos || close == std::string::npos) {
        return line;
    }
    return line.substr(0, open) + "[<ms>" + line.substr(close);
}

// Switching it on and off

TEST(NetTrace, EnablingOpensASocketAndSetsTheBitAndDisablingTakesThemAway) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(nullptr, gpTraceMsgQ);
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
    EXPECT_EQ("---M-", TypeOf(handle));
    EXPECT_EQ(TQ_TRACE_DEST_MULTICAST, tq_TraceGetDestinations(handle, TQ_TRACE_LEVEL_DEBUG, 1));
    const unsigned int hSocket = SocketOf(handle);
    EXPECT_NE(0u, hSocket);
    EXPECT_NE(0u, tq_SocketGetBoundPort(hSocket));
    EXPECT_EQ(test::Loopback(), tq_SocketGetSrcAddress(hSocket));
    EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
    EXPECT_EQ("-----", TypeOf(handle));
    EXPECT_EQ(0u, SocketOf(handle));
    EXPECT_EQ(nullptr, RecordLocked(handle)->pNetTrace);
    EXPECT_EQ(0u, tq_SocketGetBoundPort(hSocket));
    EXPECT_TRUE(WaitForNoTimers());
    EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
}

TEST(NetTrace, UnknownHandlesAreRefused) {
    Library library("[Trace]\ntqos_Level=None\n");
    for (const unsigned int unknown : {0u, 999999u}) {
        EXPECT_EQ(1, tq_TraceEnableMulticast(unknown));
        EXPECT_EQ(1, tq_TraceDisableMulticast(unknown));
        EXPECT_EQ(1, tq_TraceSetResetHandler(unknown, nullptr));
    }
    EXPECT_EQ(nullptr, gpTraceMsgQ);
}

TEST(NetTrace, EnablingAgainBeginsAnewWithoutViewers) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hFirst = SocketOf(handle);
    Subscribed viewer(handle);
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
    EXPECT_EQ(0u, ViewersOf(handle));
    EXPECT_EQ(0u, tq_SocketGetBoundPort(hFirst));
    EXPECT_NE(0u, PortOfInstance(handle));
    EXPECT_TRUE(WaitForTimers("TqTrace Announcement", 1));
}

TEST(NetTrace, TheConfigurationSwitchesItOn) {
    const struct {
        const char* lines;
        const char* type;
    } rows[] = {
        {"a_Level=All\na_LogToMulticast=yes\n", "---M-"},
        {"a_Level=All\n", "-----"},
        {"DefaultLogToMultiCast=yes\n", "---M-"},
        {"DefaultLogToMultiCast=yes\na_LogToMulticast=no\n", "-----"},
        {"DefaultLogToMultiCast=yes\na_Level=All\n", "-----"},
        {"DefaultLevel=All\nDefaultLogToMultiCast=yes\nDefaultLogToSTDOUT=yes\n", "-S-M-"},
        {"a_Level=All\na_LogToMulticast=1\na_LogToDevStudio=1\n", "---MD"},
    };
    for (const auto& row : rows) {
        Library library(std::string("[Trace]\ntqos_Level=None\n") + row.lines);
        EXPECT_EQ(row.type, TypeOf(tq_TraceInitInstance("a"))) << row.lines;
    }
}

TEST(NetTrace, TheLibrarysOwnInstanceMayHaveIt) {
    Library library("[Trace]\ntqos_Level=All\ntqos_LogToMulticast=yes\n");
    EXPECT_EQ("---M-", TypeOf(tqosTraceHandle));
    Subscribed viewer(tqosTraceHandle);
    // The library's own lines come by themselves: the sockets thread leaves one each time it wakes.
    EXPECT_NE(std::string::npos, viewer.NextLine().find("(tqos) "));
    const unsigned int hSocket = SocketOf(tqosTraceHandle);
    Fire(kAnnouncementTimer, hSocket); // sending it is traced, and so goes to the viewer
    EXPECT_TRUE(WaitUntil(
        [&] { return viewer.NextLine().find("tqos Sockets: tq_SocketSendTo() sent ") != std::string::npos; }));
}

TEST(NetTrace, ASecondOpeningDoesNotEnableItAgain) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    EXPECT_EQ(handle, tq_TraceInitInstance("t"));
    EXPECT_EQ(hSocket, SocketOf(handle));
    EXPECT_EQ(0, tq_TraceTermInstance(handle));
    EXPECT_EQ(hSocket, SocketOf(handle));
}

TEST(NetTrace, TheLastCloseOfTheInstanceEndsItsSenderAndTimers) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Subscribed viewer(handle);
    EXPECT_EQ(0, tq_TraceTermInstance(handle));
    EXPECT_EQ(0u, tq_SocketGetBoundPort(hSocket));
    EXPECT_TRUE(WaitForNoTimers());
    Forge(hSocket, Wire("TRACEON/"), test::Loopback(), viewer.Port()); // late, and of nobody
    Fire(kAnnouncementTimer, hSocket);
    Fire(kKeepAliveTimer, hSocket);
    const unsigned int again = tq_TraceInitInstance("T");
    WaitUntilHandled(again);
    EXPECT_EQ(0u, ViewersOf(again));
}

TEST(NetTrace, WithoutADescriptorItStaysOff) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle)); // everything else runs from now on
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const struct rlimit none = {0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    EXPECT_EQ(1, tq_TraceEnableMulticast(handle));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ("-----", TypeOf(handle)); // what it had is gone, too
    EXPECT_EQ(0u, SocketOf(handle));
    EXPECT_TRUE(WaitForNoTimers());
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
    EXPECT_EQ("---M-", TypeOf(handle));
}

/// Enables it with ever more memory, until there is enough, and disables it again. How often there was not.
unsigned int EnableWithEverMoreMemory(unsigned int handle) {
    unsigned int failures = 0;
    int result = 1;
    for (unsigned int room = 1; result != 0 && room < 100000; room += 16) {
        {
            Cap cap(room);
            result = tq_TraceEnableMulticast(handle);
        }
        if (result != 0) {
            ++failures;
            EXPECT_EQ("-----", TypeOf(handle));
            EXPECT_TRUE(WaitForTimers("TqTrace", 0));
        }
    }
    EXPECT_EQ("---M-", TypeOf(handle));
    EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
    return failures;
}

TEST(NetTrace, WithoutMemoryItStaysOffAndNothingIsLost) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\n[Sem]\nTracking=yes\n" + kCapped);
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle)); // sockets, timers and the queue run from now on
    EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
    EXPECT_LT(4u, EnableWithEverMoreMemory(handle));
    EXPECT_TRUE(WaitUntil([handle] { // other threads may still be starting; what is lost is lost every time
        const unsigned int before = AllocatedBytes();
        EnableWithEverMoreMemory(handle);
        return AllocatedBytes() == before;
    }));
}

TEST(NetTrace, WithoutMemoryForTheQueueItStaysOff) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\n" + kCapped);
    const unsigned int handle = tq_TraceInitInstance("T");
    EXPECT_NE(0u, tq_SocketGetInterfaceCount()); // the sockets layer runs from now on
    EXPECT_LT(4u, EnableWithEverMoreMemory(handle));
}

unsigned int ListsNamed(const std::string& name) {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    unsigned int count = 0;
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        const char* const pszName = tq_ListInside::StateOf(*pRecord->pList).pName;
        count += pszName && name == pszName ? 1 : 0;
    }
    return count;
}

TEST(NetTrace, QueueSocketListAndTimersHaveTheirNames) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    EXPECT_TRUE(WaitUntil([] {
        tq_MsgQ& queue = *gpTraceMsgQ;
        queue.Lock();
        const std::string name = tq_MsgQInside::Name(queue);
        queue.Unlock();
        return name == "TQOS: Tracing";
    }));
    {
        tq_SocketAccess socket(SocketOf(handle));
        EXPECT_STREQ("127.0.0.1:T", socket->pszName);
    }
    {
        tq_LockedTrace trace;
        EXPECT_STREQ("127.0.0.1:T", RecordLocked(handle)->pNetTrace->ApplicationName());
    }
    EXPECT_EQ(1u, ListsNamed("127.0.0.1:T"));
    EXPECT_TRUE(WaitForTimers("TqTrace Announcement", 1));
    EXPECT_TRUE(WaitForTimers("TqTrace Keepalive", 1));
}

TEST(NetTrace, AllInstancesShareOneQueue) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n"
                    "DefaultSuppressTimestamp=yes\n");
    const unsigned int a = tq_TraceInitInstance("a");
    const CTraceMsgQ* pQueue = gpTraceMsgQ;
    const unsigned int b = tq_TraceInitInstance("b");
    EXPECT_EQ(pQueue, gpTraceMsgQ);
    Subscribed viewerOfA(a);
    Subscribed viewerOfB(b);
    Line(a, "to a\n");
    Line(b, "to b\n");
    EXPECT_EQ(Wire("[<ms>]: (a) WRN: to a\n"), Shown(viewerOfA.NextLine()));
    EXPECT_EQ(Wire("[<ms>]: (b) WRN: to b\n"), Shown(viewerOfB.NextLine()));
}

TEST(NetTrace, TheApplicationNameIsCutTo255Characters) {
    for (const size_t length : {244u, 245u, 246u, 2000u}) {
        Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n");
        const unsigned int handle = tq_TraceInitInstance(std::string(length, 'n').c_str());
        tq_LockedTrace trace;
        EXPECT_EQ("127.0.0.1:" + std::string(std::min<size_t>(length, 245), 'n'),
                  RecordLocked(handle)->pNetTrace->ApplicationName());
    }
}

// Lines

TEST(NetTrace, EveryViewerGetsEveryLineWithItsTerminator) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed first(handle);
    Subscribed second(handle);
    Line(handle, "one\n");
    Line(handle, "two %d\n");
    tq_Trace(handle, TQ_TRACE_LEVEL_CRITICAL, 1, false, "three %d\n", 3);
    for (Viewer* pViewer : {static_cast<Viewer*>(&first), static_cast<Viewer*>(&second)}) {
        EXPECT_EQ(Wire("[<ms>]: (T) WRN: one\n"), Shown(pViewer->NextLine()));
        EXPECT_EQ(Wire("[<ms>]: (T) WRN: two %d\n"), Shown(pViewer->NextLine()));
        EXPECT_EQ(Wire("[<ms>]: (T) CRT: three 3\n"), Shown(pViewer->NextLine()));
        EXPECT_EQ("127.0.0.1:" + std::to_string(PortOfInstance(handle)), pViewer->From());
    }
}

TEST(NetTrace, LinesThatAreFilteredOutDoNotGoOut) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_SEVERE);
    Line(handle, "a warning\n");
    tq_Trace(handle, TQ_TRACE_LEVEL_SEVERE, 1, false, "severe\n");
    EXPECT_EQ(Wire("[<ms>]: (T) SEV: severe\n"), Shown(viewer.NextLine()));
}

TEST(NetTrace, ShowsDateAndThreadsWhereTheInstanceDoes) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\nT_ShowThreadID=yes\nT_LogToMulticast=yes\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    Line(handle, "x\n");
    const std::string line = viewer.NextLine();
    const std::string ids = "TID:" + std::to_string(tq_GetThreadId()) + ":" + std::to_string(tq_GetPSThreadId()) + " ";
    ASSERT_LT(25u, line.size());
    EXPECT_EQ(" [", line.substr(24, 2));
    EXPECT_EQ(Wire("[<ms>]: " + ids + "(T) WRN: x\n"), Shown(line.substr(25)));
}

TEST(NetTrace, ALineIsCutTo1023CharactersThereAlone) {
    Library library(std::string(kIni) + "T_LogToFile=t.log\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    for (const size_t length : {1000u, 1010u, 1023u, 1024u, 70000u}) {
        Line(handle, std::string(length, 'm') + "\n");
        const std::string line = viewer.NextLine();
        const size_t prefix = line.find('m');
        EXPECT_EQ(std::min<size_t>(prefix + length + 1, 1023) + 1, line.size()) << length;
        EXPECT_EQ('\0', line.back());
        EXPECT_EQ(line.size() - 1, strlen(line.c_str()));
    }
    EXPECT_EQ(1000u + 1010 + 1023 + 1024 + 70000, CountOf(test::ReadFile("t.log"), "m"));
}

TEST(NetTrace, ANameLongerThanALineLeavesItTerminated) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n"
                    "DefaultSuppressTimestamp=yes\n");
    const unsigned int handle = tq_TraceInitInstance(std::string(3000, 'n').c_str());
    Subscribed viewer(handle);
    Line(handle, "unseen\n");
    const std::string line = viewer.NextLine();
    EXPECT_EQ(1024u, line.size());
    EXPECT_EQ('\0', line.back());
    EXPECT_EQ(std::string::npos, line.find("unseen"));
}

TEST(NetTrace, TracingToViewersTakesNoMemory) {
    Library library(kIni + kCapped);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    EXPECT_TRUE(WaitForTimers("TqTrace Keepalive", 1));
    {
        Cap cap(0); // every allocation is refused
        Line(handle, "without memory\n");
    }
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: without memory\n"), Shown(viewer.NextLine()));
}

// With waits tracked each lock on the way asks for memory, and is refused it.
TEST(NetTrace, ARefusedAllocationComesToItsViewersOnceAtAnyCap) {
    Library library("[Trace]\ntqos_SuppressTimestamp=yes\ntqos_LogToMulticast=yes\n[Sem]\nTracking=yes\n" + kCapped);
    const unsigned int handle = tqosTraceHandle;
    Subscribed viewer(handle);
    EXPECT_TRUE(WaitForTimers("TqTrace Keepalive", 1));
    for (const unsigned int timer : {kAnnouncementTimer, kKeepAliveTimer}) { // no other thread is to wake meanwhile
        tq_TimerKill(gpTraceMsgQ->GetHandle(), timer, SocketOf(handle), 0);
    }
    EXPECT_TRUE(WaitForNoTimers());
    EXPECT_TRUE(test::WaitUntilOthersSleep());
    for (unsigned int room = 0; room < 300; room += 20) {
        {
            Cap cap(room);
            EXPECT_EQ(nullptr, tq__malloc(1000, "refused.cpp", 7));
        }
        Line(handle, "end\n");
        std::string reports;
        for (std::string line = viewer.NextLine(); line.find("WRN: end\n") == std::string::npos;
             line = viewer.NextLine()) {
            ASSERT_NE("(nothing)", line);
            reports += Shown(line);
        }
        EXPECT_EQ(Wire("[<ms>]: (tqos) WRN: Exceeded defined memory cap of " + std::to_string(test::kCappedBytes) +
                       " bytes\n    size: 1000 bytes from:\n    line 7 in file: refused.cpp\n"),
                  reports)
            << room;
    }
    EXPECT_EQ(15u, CountOf(test::ReadFile("tqos_error.log"), "line 7 in file: refused.cpp"));
}

TEST(NetTrace, WhatTheSystemDoesNotTakeIsDroppedNotKept) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Forge(hSocket, Wire("TRACEON/"), 0xFFFFFFFF, 9); // a broadcast, which the system refuses to send
    ASSERT_TRUE(WaitForViewers(handle, 1));
    Subscribed viewer(handle);
    for (int i = 0; i < 2000; ++i) {
        Line(handle, "line " + std::to_string(i) + "\n");
        if (i % 100 == 99) { // no more than a viewer's buffer holds
            for (int j = i - 99; j <= i; ++j) {
                ASSERT_EQ(Wire("[<ms>]: (T) WRN: line " + std::to_string(j) + "\n"), Shown(viewer.NextLine()));
            }
        }
    }
    tq_SocketAccess socket(hSocket);
    ASSERT_TRUE(socket);
    EXPECT_EQ(0u, socket->DataOutCount);
    EXPECT_EQ(nullptr, socket->pDataOutList);
}

TEST(NetTrace, ALineThatCannotBeSentLeavesNothingToWaitFor) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Forge(hSocket, Wire("TRACEON/"), 0xFFFFFFFF, 9);
    ASSERT_TRUE(WaitForViewers(handle, 1));
    // Tried again when a probe has come between, which is sent like anything else.
    EXPECT_TRUE(WaitUntil([&] {
        for (unsigned int i = 0; i < kSocketHistorySize; ++i) {
            Line(handle, "line\n");
        }
        tq_SocketAccess socket(hSocket);
        const unsigned int* pEvents = socket->SocketStateHistory;
        const auto sends =
            std::count(pEvents, pEvents + kSocketHistorySize, static_cast<unsigned int>(SOCKET_EVENT_SEND));
        return socket->PendingWrite == 0 && sends == kSocketHistorySize;
    }));
}

TEST(NetTrace, LinesOfTheSocketsThreadThatCannotBeSentDoNotMakeMore) {
    Library library("[Trace]\ntqos_Level=All\ntqos_LogToMulticast=yes\n");
    const test::TraceFile file;
    const unsigned int hSocket = SocketOf(tqosTraceHandle);
    // Subscribed again and again, so that it is not dropped meanwhile.
    EXPECT_TRUE(WaitUntil([&] {
        Forge(hSocket, Wire("TRACEON/"), 0xFFFFFFFF, 9);
        EXPECT_TRUE(WaitForViewers(tqosTraceHandle, 1));
        tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_WARNING, 1, true, "a line\n");
        const size_t before = file.Count("LOW: ", "tqos Sockets: Select spinning.\n");
        tq_Sleep(100);
        return before != 0 && file.Count("LOW: ", "tqos Sockets: Select spinning.\n") == before;
    }));
}

TEST(NetTrace, AViewerThatIsGoneOrDoesNotReadHoldsNobodyUp) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed reader(handle);
    Subscribed idle(handle);
    { Subscribed gone(handle); }
    const unsigned int port = PortOfInstance(handle);
    const std::string text(900, 'x');
    for (int i = 0; i < 5000; ++i) { // far more than the idle one's buffer takes
        Line(handle, text);
        std::string line = reader.Next();
        while (line == Wire("KEEPALIVE/")) { // not answering would end the subscription after 10 seconds
            reader.Send(port, line);
            line = reader.Next();
        }
        ASSERT_NE("(nothing)", line);
    }
    tq_SocketAccess socket(SocketOf(handle));
    EXPECT_EQ(0u, socket->DataOutCount);
}

// Requests

TEST(NetTrace, AViewerThatSubscribesTwiceIsListedOnce) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed viewer(handle);
    viewer.Send(PortOfInstance(handle), Wire("TRACEON/"));
    viewer.Send(PortOfInstance(handle), Wire("TRACEON/again"));
    WaitUntilHandled(handle);
    EXPECT_EQ(1u, ViewersOf(handle));
    Line(handle, "once\n");
    Line(handle, "end\n");
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: once\n"), Shown(viewer.NextLine()));
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: end\n"), Shown(viewer.NextLine()));
}

TEST(NetTrace, ARequestIsKnownByItsFirstLettersAndMustBeLonger) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const struct {
        std::string bytes;
        bool subscribes;
    } rows[] = {
        {"TRACEON/", false}, // nothing after it
        {"TRACEON", false},  // too short
        {"T", false},
        {std::string(1, '\0'), false},
        {Wire("TRACEON"), false},
        {Wire("traceon/"), false}, // letter for letter
        {Wire(" TRACEON/"), false},
        {Wire("TRACEONX"), false},
        {Wire("KEEPALIVE/"), false},
        {Wire("TRACEOFF/"), false},
        {std::string("TRACEON\0/xx", 11), false},
        {std::string(65507, 'T'), false},
        {Wire("TRACEON/"), true},
        {"TRACEON/x", true}, // its last byte counts as the terminator, whatever it is
        {"TRACEON/ and more", true},
        {"TRACEON/" + std::string(65499, '\xFF'), true},
    };
    for (const auto& row : rows) {
        Viewer viewer;
        viewer.Send(PortOfInstance(handle), row.bytes);
        WaitUntilHandled(handle);
        EXPECT_EQ(row.subscribes ? 1u : 0u, ViewersOf(handle)) << row.bytes.substr(0, 20);
        viewer.Send(PortOfInstance(handle), Wire("TRACEOFF/"));
        ASSERT_TRUE(WaitForViewers(handle, 0));
    }
}

TEST(NetTrace, AMessageTooShortForADatagramIsIgnored) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    for (unsigned int size = 28; size <= 43; ++size) {
        MSG_COMMON* pMsg = static_cast<MSG_COMMON*>(tq_calloc(1, size)); // its own size, so that a sanitizer looks on
        *pMsg = {0, gpTraceMsgQ->GetHandle(), size, MSG_SOCKET_DATAGRAM, SocketOf(handle), 0, 0};
        ASSERT_TRUE(tq_MsgSend(pMsg, false, 2));
    }
    WaitUntilHandled(handle);
    EXPECT_EQ(0u, ViewersOf(handle));
}

TEST(NetTrace, AViewerWithoutAddressOrPortIsIgnored) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Forge(SocketOf(handle), Wire("TRACEON/"), 0, 4000);
    Forge(SocketOf(handle), Wire("TRACEON/"), test::Loopback(), 0);
    WaitUntilHandled(handle);
    EXPECT_EQ(0u, ViewersOf(handle));
    EXPECT_FALSE(CTraceMsgQ::AddClient(test::Loopback(), 4000, nullptr));
}

TEST(NetTrace, ThePortIsPartOfAViewersName) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed first(handle);
    Subscribed second(handle);
    Viewer stranger;
    stranger.Send(PortOfInstance(handle), Wire("TRACEOFF/"));
    WaitUntilHandled(handle);
    EXPECT_EQ(2u, ViewersOf(handle));
    first.Send(PortOfInstance(handle), Wire("TRACEOFF/"));
    ASSERT_TRUE(WaitForViewers(handle, 1));
    Line(handle, "for the second\n");
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: for the second\n"), Shown(second.NextLine()));
    EXPECT_FALSE(first.HasMore());
}

TEST(NetTrace, TheMostViewersAre128AndAPlaceThatGetsFreeIsTaken) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    std::vector<Viewer> viewers(kMostViewers + 1);
    for (Viewer& viewer : viewers) {
        viewer.Send(PortOfInstance(handle), Wire("TRACEON/"));
    }
    ASSERT_TRUE(WaitForViewers(handle, kMostViewers));
    Line(handle, "to all\n");
    for (unsigned int i = 0; i < kMostViewers; ++i) {
        EXPECT_EQ(Wire("[<ms>]: (T) WRN: to all\n"), Shown(viewers[i].NextLine())) << i;
    }
    viewers[0].Send(PortOfInstance(handle), Wire("TRACEOFF/"));
    ASSERT_TRUE(WaitForViewers(handle, kMostViewers - 1)); // so the last one was refused
    EXPECT_FALSE(viewers.back().HasMore());
    viewers.back().Send(PortOfInstance(handle), Wire("TRACEON/"));
    ASSERT_TRUE(WaitForViewers(handle, kMostViewers));
    Line(handle, "again\n");
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: again\n"), Shown(viewers.back().NextLine()));
}

TEST(NetTrace, AFullListStillLosesItsSilentViewers) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    for (unsigned int port = 1; port <= kMostViewers; ++port) {
        Forge(hSocket, Wire("TRACEON/"), test::Loopback(), port);
    }
    ASSERT_TRUE(WaitForViewers(handle, kMostViewers));
    WaitUntilHandled(handle);
    ASSERT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) < 4900; }));
    const unsigned int before = RemainingOf(kKeepAliveTimer, hSocket);
    for (unsigned int port = 1001; port <= 1100; ++port) { // refused, so the timer does not begin anew
        Forge(hSocket, Wire("TRACEON/"), test::Loopback(), port);
    }
    WaitUntilHandled(handle);
    EXPECT_GE(before, RemainingOf(kKeepAliveTimer, hSocket));
    Fire(kKeepAliveTimer, hSocket);
    Fire(kKeepAliveTimer, hSocket);
    EXPECT_TRUE(WaitForViewers(handle, 0));
}

// Probes

TEST(NetTrace, AViewerIsAskedAndDroppedWhenItHasNotAnsweredByTheNextTime) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Subscribed answering(handle);
    Subscribed silent(handle);
    Fire(kKeepAliveTimer, hSocket);
    EXPECT_EQ(Wire("KEEPALIVE/"), answering.Next());
    EXPECT_EQ(Wire("KEEPALIVE/"), silent.Next());
    answering.Send(PortOfInstance(handle), Wire("KEEPALIVE/"));
    WaitUntilHandled(handle);
    Fire(kKeepAliveTimer, hSocket);
    EXPECT_TRUE(WaitForViewers(handle, 1));
    EXPECT_EQ(Wire("KEEPALIVE/"), answering.Next());
    EXPECT_FALSE(silent.HasMore());
}

TEST(NetTrace, TheKeepAliveTimerRuns5SecondsFromTheLastNewViewer) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    EXPECT_EQ(0u, RemainingOf(kKeepAliveTimer, hSocket));
    Subscribed first(handle);
    ASSERT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) != 0; }));
    EXPECT_GE(5000u, RemainingOf(kKeepAliveTimer, hSocket));
    ASSERT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) < 4900; }));
    first.Send(PortOfInstance(handle), Wire("TRACEON/")); // listed already: nothing begins anew
    ASSERT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) < 4800; }));
    Subscribed second(handle);
    EXPECT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) > 4900; }));
}

TEST(NetTrace, DeliberatelyAnUnsubscriptionStopsTheProbesOfAllUntilTheNextSubscription) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Subscribed leaving(handle);
    Subscribed staying(handle);
    ASSERT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) != 0; }));
    leaving.Send(PortOfInstance(handle), Wire("TRACEOFF/"));
    ASSERT_TRUE(WaitForViewers(handle, 1));
    EXPECT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) == 0; }));
    Fire(kKeepAliveTimer, hSocket); // one that had fired before counts no more
    Fire(kKeepAliveTimer, hSocket);
    Fire(kAnnouncementTimer, hSocket);
    Subscribed joining(handle);
    EXPECT_EQ(2u, ViewersOf(handle));
    EXPECT_FALSE(staying.HasMore());
    EXPECT_TRUE(WaitUntil([&] { return RemainingOf(kKeepAliveTimer, hSocket) != 0; }));
    Fire(kKeepAliveTimer, hSocket);
    EXPECT_EQ(Wire("KEEPALIVE/"), staying.Next());
}

TEST(NetTrace, ByTheClockASilentViewerGoesAndAnAnsweringOneIsAskedOn) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Subscribed answering(handle);
    Subscribed silent(handle);
    for (int probe = 0; probe < 3; ++probe) {
        ASSERT_EQ(Wire("KEEPALIVE/"), answering.Next()) << probe;
        answering.Send(PortOfInstance(handle), Wire("KEEPALIVE/"));
    }
    EXPECT_EQ(1u, ViewersOf(handle));
    EXPECT_EQ(Wire("KEEPALIVE/"), silent.Next());
    EXPECT_FALSE(silent.HasMore());
}

// Reset

std::atomic<unsigned int> gResets{0};

void CountReset() {
    ++gResets;
}

TEST(NetTrace, AResetCallsTheHandlerAndItsSetterDeliberatelySays1) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    Viewer viewer;
    viewer.Send(PortOfInstance(handle), Wire("RESET/")); // there is no handler
    WaitUntilHandled(handle);
    EXPECT_EQ(1, tq_TraceSetResetHandler(handle, CountReset));
    gResets = 0;
    viewer.Send(PortOfInstance(handle), "RESET/");
    viewer.Send(PortOfInstance(handle), Wire("RESET/"));
    viewer.Send(PortOfInstance(handle), Wire("RESET/now"));
    EXPECT_TRUE(WaitUntil([] { return gResets >= 2; }));
    WaitUntilHandled(handle);
    EXPECT_EQ(2u, gResets);
    EXPECT_EQ(1, tq_TraceSetResetHandler(handle, nullptr));
    viewer.Send(PortOfInstance(handle), Wire("RESET/"));
    WaitUntilHandled(handle);
    EXPECT_EQ(2u, gResets);
    EXPECT_EQ(1, tq_TraceSetResetHandler(handle, CountReset));
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle)); // begins without a handler
    viewer.Send(PortOfInstance(handle), Wire("RESET/"));
    WaitUntilHandled(handle);
    EXPECT_EQ(2u, gResets);
    EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
    EXPECT_EQ(1, tq_TraceSetResetHandler(handle, CountReset));
}

unsigned int ghResetInstance = 0;

void TraceAndSwitchOff() {
    Line(ghResetInstance, "resetting\n");
    std::thread([] { Line(ghResetInstance, "another thread\n"); }).join();
    EXPECT_EQ(0, tq_TraceDisableMulticast(ghResetInstance));
    ++gResets;
}

TEST(NetTrace, TheHandlerMayTraceOnAnyThreadAndSwitchTheDestinationOff) {
    Library library(kIni);
    gResets = 0;
    ghResetInstance = tq_TraceInitInstance("T");
    tq_TraceSetResetHandler(ghResetInstance, TraceAndSwitchOff);
    Subscribed viewer(ghResetInstance);
    viewer.Send(PortOfInstance(ghResetInstance), Wire("RESET/"));
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: resetting\n"), Shown(viewer.NextLine()));
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: another thread\n"), Shown(viewer.NextLine()));
    EXPECT_TRUE(WaitUntil([] { return gResets == 1; }));
    EXPECT_EQ("-----", TypeOf(ghResetInstance));
}

// Floods

std::mutex gHoldMutex;
std::condition_variable gHoldChanged;
bool gbHeld = false;

void HoldTheQueue() {
    std::unique_lock<std::mutex> lock(gHoldMutex);
    gbHeld = true;
    gHoldChanged.notify_all();
    gHoldChanged.wait(lock, [] { return !gbHeld; });
}

TEST(NetTrace, AFloodWhileTheQueueIsBusyIsNotPiledUp) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    tq_TraceSetResetHandler(handle, HoldTheQueue);
    Viewer viewer;
    const unsigned int port = PortOfInstance(handle);
    viewer.Send(port, Wire("RESET/"));
    {
        std::unique_lock<std::mutex> lock(gHoldMutex);
        gHoldChanged.wait(lock, [] { return gbHeld; });
    }
    for (int i = 0; i < 20000; ++i) {
        viewer.Send(port, Wire("TRACEON/flood"));
    }
    EXPECT_GE(kMostWaiting, gpTraceMsgQ->GetQueueDepth(0));
    {
        std::lock_guard<std::mutex> lock(gHoldMutex);
        gbHeld = false;
        gHoldChanged.notify_all();
    }
    EXPECT_TRUE(WaitForViewers(handle, 1)); // it is read again
    Viewer later;
    EXPECT_TRUE(WaitUntil([&] { // until there is room for its datagram
        later.Send(port, Wire("TRACEON/"));
        return ViewersOf(handle) == 2;
    }));
}

TEST(NetTrace, AFloodOfRequestsOnSeveralInstancesStaysBoundedAndIsSurvived) {
    Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n"
                    "[Memory]\nEnableMemoryTracking=yes\n");
    std::vector<unsigned int> handles;
    for (const char* pszName : {"a", "b", "c"}) {
        handles.push_back(tq_TraceInitInstance(pszName));
    }
    const std::string datagrams[] = {Wire("TRACEON/"),
                                     Wire("TRACEOFF/"),
                                     Wire("KEEPALIVE/"),
                                     Wire("RESET/"),
                                     "TRACEON/",
                                     "x",
                                     Wire("nonsense"),
                                     "TRACEON/" + std::string(60000, 'y'),
                                     std::string(60000, 'T')};
    std::atomic<bool> bStop{false};
    std::atomic<unsigned long long> sent{0};
    std::vector<std::thread> flooders;
    for (const unsigned int handle : handles) {
        flooders.emplace_back([&, port = PortOfInstance(handle)] {
            Viewer viewer;
            for (unsigned int i = 0; !bStop; ++i) {
                viewer.Send(port, datagrams[i % 9]);
                sent += datagrams[i % 9].size();
            }
        });
    }
    const unsigned int before = AllocatedBytes();
    unsigned int most = before;
    for (int i = 0; i < 3000 || sent < 100u << 20; ++i) { // meanwhile the device traces
        Line(handles[static_cast<size_t>(i) % 3], "line\n");
        most = std::max(most, AllocatedBytes());
    }
    bStop = true;
    for (std::thread& flooder : flooders) {
        flooder.join();
    }
    EXPECT_GT(2u << 20, most - before); // bytes, of 100 times as many
    for (const unsigned int handle : handles) {
        Viewer viewer;
        EXPECT_TRUE(WaitUntil([&] { // until there is room for its datagram again
            viewer.Send(PortOfInstance(handle), Wire("TRACEON/"));
            Line(handle, "after the flood\n");
            return viewer.HasMore();
        }));
    }
}

// Start and stop

TEST(NetTrace, EndsWithTheLibraryAndStartsAgain) {
    for (int round = 0; round < 5; ++round) {
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        ASSERT_NE(0u, handle);
        Subscribed viewer(handle);
        Line(handle, "round\n");
        EXPECT_EQ(Wire("[<ms>]: (T) WRN: round\n"), Shown(viewer.NextLine()));
        Fire(kAnnouncementTimer, SocketOf(handle)); // on its way while the library ends
        library.Terminate();
        EXPECT_EQ(nullptr, gpTraceMsgQ);
        EXPECT_EQ(1, tq_TraceEnableMulticast(handle));
        EXPECT_EQ(1, tq_TraceDisableMulticast(handle));
        EXPECT_EQ(1, tq_TraceSetResetHandler(handle, nullptr));
    }
}

TEST(NetTrace, EndsWithTraceWhileTheLibraryRunsOn) {
    Library library(kIni);
    for (int round = 0; round < 5; ++round) {
        const unsigned int handle = tq_TraceInitInstance("T");
        const unsigned int hSocket = SocketOf(handle);
        Subscribed viewer(handle);
        tq_TraceTerminate();
        EXPECT_EQ(nullptr, gpTraceMsgQ);
        EXPECT_EQ(0u, tq_SocketGetBoundPort(hSocket));
        EXPECT_TRUE(WaitForNoTimers());
        ASSERT_EQ(0u, tq_TraceInitialize());
    }
}

TEST(NetTrace, LeavesNothingBehind) {
    Library library(std::string(kIni) + "[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int first = tq_TraceInitInstance("T"); // starts what stays
    EXPECT_EQ(0, tq_TraceTermInstance(first));
    tq_TraceTerminate();
    ASSERT_EQ(0u, tq_TraceInitialize());
    EXPECT_TRUE(WaitUntil([] { // threads that have just ended give back what they have
        const unsigned int before = AllocatedBytes();
        const unsigned int handle = tq_TraceInitInstance("T");
        {
            Subscribed viewer(handle);
            Line(handle, "x\n");
        }
        tq_TraceTerminate();
        EXPECT_EQ(0u, tq_TraceInitialize());
        return AllocatedBytes() == before;
    }));
}

TEST(NetTrace, ThreadsMaySwitchItAndTraceWhileTraceStopsAndStarts) {
    Library library(kIni);
    std::atomic<bool> bStop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            Viewer viewer;
            while (!bStop) {
                const unsigned int handle = tq_TraceInitInstance("T");
                {
                    tq_LockedTrace trace;
                    const _TRACEINSTANCE* pInstance = trace ? tq_FindTraceInstanceLocked(handle) : nullptr;
                    if (pInstance && pInstance->iSocket != 0) {
                        Forge(static_cast<unsigned int>(pInstance->iSocket), Wire("TRACEON/"), test::Loopback(),
                              viewer.Port());
                    }
                }
                Line(handle, "line\n");
                if (i == 0) {
                    tq_TraceEnableMulticast(handle);
                } else if (i == 1) {
                    tq_TraceDisableMulticast(handle);
                }
                tq_TraceSetResetHandler(handle, CountReset);
                tq_TraceTermInstance(handle);
            }
        });
    }
    for (int round = 0; round < 30; ++round) {
        tq_TraceTerminate();
        ASSERT_EQ(0u, tq_TraceInitialize());
    }
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(NetTrace, EverythingAtOnce) {
    Library library("[Trace]\ntqos_Level=All\ntqos_LogToMulticast=yes\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n");
    const unsigned int handles[] = {tqosTraceHandle, tq_TraceInitInstance("a"), tq_TraceInitInstance("b")};
    std::atomic<bool> bStop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] { // viewers
        Viewer viewer;
        while (!bStop) {
            for (const unsigned int handle : handles) {
                for (const char* pszText : {"TRACEON/", "KEEPALIVE/", "RESET/", "TRACEOFF/", "TRACEON/"}) {
                    if (const unsigned int port = PortOfInstance(handle)) {
                        viewer.Send(port, Wire(pszText));
                    }
                }
            }
        }
    });
    threads.emplace_back([&] { // the device
        while (!bStop) {
            for (const unsigned int handle : handles) {
                Line(handle, "line\n");
                TypeOf(handle);
            }
        }
    });
    threads.emplace_back([&] { // interfaces and timers
        while (!bStop) {
            const unsigned int hQueue = gpTraceMsgQ->GetHandle();
            tq_MsgCreateCommonAndSend(0, hQueue, MSG_SOCKET_NEW_INTERFACES, 0, 0, 0, false, 2);
            for (const unsigned int handle : handles) {
                Fire(kAnnouncementTimer, SocketOf(handle));
                Fire(kKeepAliveTimer, SocketOf(handle));
            }
            EXPECT_TRUE(WaitUntil([] { return gpTraceMsgQ->GetQueueDepth(0) < 200; }));
        }
    });
    for (int round = 0; round < 100; ++round) {
        const unsigned int handle = handles[round % 3];
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
        EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
        tq_TraceSetResetHandler(handle, CountReset);
    }
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(NetTrace, ASocketThatTheConsoleClosesLeavesTracingSafe) {
    Library library(kIni);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SocketOf(handle);
    Subscribed viewer(handle);
    EXPECT_TRUE(tq_SocketCloseFromTelnet(hSocket));
    Line(handle, "lost\n");
    Fire(kAnnouncementTimer, hSocket);
    Fire(kKeepAliveTimer, hSocket);
    EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
    Subscribed again(handle);
    Line(handle, "seen\n");
    EXPECT_EQ(Wire("[<ms>]: (T) WRN: seen\n"), Shown(again.NextLine()));
}

// A network of the test's own

using test::Switch;

/// Somebody who listens for announcements on all interfaces.
class Listener {
public:
    Listener() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        EXPECT_EQ(0, setsockopt(m_fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)));
        struct sockaddr_in address = test::LoopbackAddress(kGroupPort);
        address.sin_addr.s_addr = inet_addr(kGroup);
        EXPECT_EQ(0, bind(m_fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
        for (const char* pszInterface : {"10.99.1.1", "10.99.2.1", "10.99.3.1"}) {
            struct ip_mreq membership;
            membership.imr_multiaddr.s_addr = inet_addr(kGroup);
            membership.imr_interface.s_addr = inet_addr(pszInterface);
            EXPECT_EQ(0, setsockopt(m_fd.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)));
        }
    }

    /// The next announcement that holds this text; keeps where it came from.
    std::string NextWith(const std::string& piece) {
        for (;;) {
            char buffer[2048];
            socklen_t length = sizeof(m_from);
            if (!WaitReadable(m_fd)) {
                return "(nothing)";
            }
            const ssize_t result =
                recvfrom(m_fd.Get(), buffer, sizeof(buffer), 0, reinterpret_cast<struct sockaddr*>(&m_from), &length);
            const std::string text(buffer, result > 0 ? static_cast<size_t>(result) : 0);
            if (text.find(piece) != std::string::npos) {
                return text;
            }
        }
    }

    std::string FromAddress() const { return inet_ntoa(m_from.sin_addr); }
    unsigned int FromPort() const { return ntohs(m_from.sin_port); }

private:
    Fd m_fd;
    struct sockaddr_in m_from = {};
};

TEST(NetTraceNetwork, AnnouncesItselfSoonAndThenEvery10Seconds) {
    RUN_IN_NETWORK([] {
        Listener listener;
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        const unsigned int hSocket = SocketOf(handle);
        char mac[20] = "";
        EXPECT_EQ(0u, tq_GetMACAddress(mac));
        const std::string port = std::to_string(tq_SocketGetBoundPort(hSocket));
        const std::string expected = Wire("DISCOVER/version=1.2/applicationName=0.0.0.0:T/mac=" + std::string(mac) +
                                          "/IPAddr=10.99.1.1/port=" + port + "/host=//");
        EXPECT_EQ(expected, listener.NextWith(""));
        EXPECT_EQ("10.99.1.1", listener.FromAddress());
        EXPECT_EQ(port, std::to_string(listener.FromPort()));
        EXPECT_TRUE(WaitUntil([&] { return RemainingOf(kAnnouncementTimer, hSocket) > 1000; }));
        EXPECT_GE(10000u, RemainingOf(kAnnouncementTimer, hSocket));
        EXPECT_EQ(expected, listener.NextWith(""));
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
        EXPECT_TRUE(WaitForNoTimers());
    });
}

/// The parts of the page's example: a viewer, an instance "T", and who listens for announcements.
class PagePlayer {
public:
    void Play(const test::Spoken& spoken) {
        if (spoken.speaker == "group") {
            const std::string announced = m_listener.NextWith("");
            EXPECT_TRUE(spoken.Is(announced)) << announced;
        } else if (spoken.speaker == "viewer") {
            m_viewer.Send(PortOfInstance(m_handle), spoken.Bytes(), "10.99.1.1");
            WaitUntilHandled(m_handle);
        } else if (spoken.speaker == "traced") {
            Line(m_handle, spoken.Bytes());
        } else {
            ASSERT_EQ("device", spoken.speaker);
            const std::string datagram = m_viewer.Next();
            EXPECT_TRUE(spoken.Is(datagram)) << datagram;
        }
    }
    bool IsToldMore() const { return m_viewer.HasMore(); }

private:
    Listener m_listener;
    Library m_library{kIni};
    unsigned int m_handle = tq_TraceInitInstance("T");
    Viewer m_viewer{"10.99.1.1"};
};

TEST(NetTraceNetwork, SpeaksAsThePageOfItsProtocolSays) {
    RUN_IN_NETWORK([] {
        PagePlayer player;
        for (const test::Spoken& spoken : test::PageExample("trace-protocol.md")) {
            SCOPED_TRACE(spoken.line);
            player.Play(spoken);
        }
        EXPECT_FALSE(player.IsToldMore());
    });
}

TEST(NetTraceNetwork, AnAnnouncementHoldsAllItsFieldsAtTheirLongest) {
    RUN_IN_NETWORK([] {
        Listener listener;
        Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n");
        tq_TraceInitInstance(std::string(400, 'n').c_str());
        const std::string text = listener.NextWith("");
        EXPECT_NE(std::string::npos, text.find("/applicationName=0.0.0.0:" + std::string(247, 'n') + "/mac="));
        EXPECT_EQ(Wire("/host=//"), text.substr(text.size() - 9));
    });
}

/// Lets the library see the network as it is now, and waits until the queue has seen it, too.
void TellOfChange() {
    GetLocalInterfaces(); // the sockets thread looks every 5 seconds; it may have been first
    MSG_COMMON message = {0, 0, sizeof(MSG_COMMON), MSG_SOCKET_NEW_INTERFACES, 0, 0, 0};
    tq_MsgSendToAll(&message, false, 0);
}

std::string AddressOf(unsigned int handle) {
    struct in_addr address;
    address.s_addr = tq_SocketGetSrcAddress(SocketOf(handle));
    return inet_ntoa(address);
}

TEST(NetTraceNetwork, FollowsItsAddressWhenAnInterfaceGoesAndStaysWhenItComesBack) {
    RUN_IN_NETWORK([] {
        Listener listener;
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        const unsigned int hFirst = SocketOf(handle);
        EXPECT_EQ("10.99.1.1", AddressOf(handle));
        Viewer early("10.99.3.1");
        early.Send(PortOfInstance(handle), Wire("TRACEON/"), "10.99.1.1");
        ASSERT_TRUE(WaitForViewers(handle, 1));
        WaitUntilHandled(handle);

        ASSERT_TRUE(Switch("net1", false));
        TellOfChange();
        const std::string text = listener.NextWith("/IPAddr=10.99.2.1/");
        const unsigned int hSecond = SocketOf(handle);
        EXPECT_NE(hFirst, hSecond);
        EXPECT_EQ("10.99.2.1", AddressOf(handle));
        EXPECT_NE(std::string::npos, text.find("/port=" + std::to_string(tq_SocketGetBoundPort(hSecond)) + "/"));
        EXPECT_EQ("10.99.2.1", listener.FromAddress());
        EXPECT_EQ(tq_SocketGetBoundPort(hSecond), listener.FromPort());
        EXPECT_EQ(0u, tq_SocketGetBoundPort(hFirst));
        EXPECT_EQ(0u, RemainingOf(kKeepAliveTimer, hFirst));
        EXPECT_EQ(0u, RemainingOf(kAnnouncementTimer, hFirst));
        EXPECT_NE(0u, RemainingOf(kKeepAliveTimer, hSecond)); // it goes on with what remained
        EXPECT_TRUE(WaitUntil([=] { return RemainingOf(kAnnouncementTimer, hSecond) > 1000; }));

        Line(handle, "from the second\n");
        EXPECT_EQ(Wire("[<ms>]: (T) WRN: from the second\n"), Shown(early.NextLine()));
        EXPECT_EQ("10.99.2.1:" + std::to_string(tq_SocketGetBoundPort(hSecond)), early.From());
        Viewer late("10.99.3.1");
        late.Send(tq_SocketGetBoundPort(hSecond), Wire("TRACEON/"), "10.99.2.1");
        ASSERT_TRUE(WaitForViewers(handle, 2));
        Fire(kKeepAliveTimer, hFirst); // had fired before the change, for a socket that is nobody's now
        Fire(kKeepAliveTimer, hSecond);
        EXPECT_EQ(Wire("KEEPALIVE/"), late.Next());

        ASSERT_TRUE(Switch("net1", true)); // its own address is still there
        TellOfChange();
        WaitUntilHandled(handle);
        EXPECT_EQ(hSecond, SocketOf(handle));

        ASSERT_TRUE(Switch("net2", false));
        TellOfChange();
        EXPECT_TRUE(WaitUntil([=] { return AddressOf(handle) == "10.99.1.1"; }));
        EXPECT_EQ(2u, ViewersOf(handle));
    });
}

/// What the library shows of its sockets.
std::string Sockets() {
    char* pszText = nullptr;
    char none[] = "";
    tq_SocketShowSockets(&pszText, 0, none);
    const std::string text = pszText ? pszText : "";
    tq_free(pszText);
    return text;
}

TEST(NetTraceNetwork, WhatEndsWhileItFollowsItsAddressLeavesNoSocket) {
    RUN_IN_NETWORK([] {
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
        const std::string without = Sockets();
        EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
        EXPECT_NE(without, Sockets());
        ghEndsAtBind = handle;
        ASSERT_TRUE(Switch("net1", false));
        TellOfChange();
        EXPECT_TRUE(WaitUntil([] { return ghEndsAtBind == 0; }));
        EXPECT_TRUE(WaitUntil([&] { return Sockets() == without; })) << Sockets();
        EXPECT_EQ(0u, SocketOf(handle));
        EXPECT_TRUE(WaitForNoTimers());
    });
}

TEST(NetTraceNetwork, WithoutAnAddressItIsOnTheLoopbackOne) {
    RUN_IN_NETWORK([] {
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        for (const char* pszName : {"net1", "net2", "net3"}) {
            ASSERT_TRUE(Switch(pszName, false));
        }
        TellOfChange();
        EXPECT_TRUE(WaitUntil([=] { return AddressOf(handle) == "127.0.0.1"; }));
        const unsigned int hSocket = SocketOf(handle);
        TellOfChange();
        WaitUntilHandled(handle);
        EXPECT_EQ(hSocket, SocketOf(handle));
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
        EXPECT_EQ(0, tq_TraceEnableMulticast(handle));
        EXPECT_EQ("127.0.0.1", AddressOf(handle));
        ASSERT_TRUE(Switch("net2", true));
        TellOfChange();
        EXPECT_TRUE(WaitUntil([=] { return AddressOf(handle) == "10.99.2.1"; }));
        EXPECT_EQ(0, tq_TraceDisableMulticast(handle));
        EXPECT_TRUE(WaitForNoTimers());
    });
}

TEST(NetTraceNetwork, AllInstancesFollowAndOneThatCannotKeepsWhatItHas) {
    RUN_IN_NETWORK([] {
        Library library("[Trace]\ntqos_Level=None\nDefaultLevel=All\nDefaultLogToMultiCast=yes\n");
        const unsigned int handles[] = {tq_TraceInitInstance("a"), tq_TraceInitInstance("b"),
                                        tq_TraceInitInstance("c")};
        ASSERT_EQ(0, tq_TraceDisableMulticast(handles[1]));
        const unsigned int hBefore = SocketOf(handles[0]);
        ASSERT_TRUE(Switch("net1", false));
        GetLocalInterfaces();
        struct rlimit limit;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        const struct rlimit none = {0, limit.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        TellOfChange();
        Forge(hBefore, Wire("TRACEON/"), test::Loopback(), 9); // handled after the change
        EXPECT_TRUE(WaitForViewers(handles[0], 1));
        EXPECT_EQ(hBefore, SocketOf(handles[0]));
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        TellOfChange();
        EXPECT_TRUE(WaitUntil([&] { return AddressOf(handles[0]) == "10.99.2.1"; }));
        EXPECT_TRUE(WaitUntil([&] { return AddressOf(handles[2]) == "10.99.2.1"; }));
        EXPECT_EQ(0u, SocketOf(handles[1]));
        EXPECT_EQ(1u, ViewersOf(handles[0]));
    });
}

TEST(NetTraceNetwork, TheSocketsThreadSeesTheChangeByItself) {
    RUN_IN_NETWORK([] {
        Listener listener;
        Library library(kIni);
        const unsigned int handle = tq_TraceInitInstance("T");
        EXPECT_NE("(nothing)", listener.NextWith("/IPAddr=10.99.1.1/"));
        ASSERT_TRUE(Switch("net1", false));
        EXPECT_NE("(nothing)", listener.NextWith("/IPAddr=10.99.2.1/"));
        EXPECT_EQ("10.99.2.1", AddressOf(handle));
        Viewer viewer("10.99.3.1");
        viewer.Send(PortOfInstance(handle), Wire("TRACEON/"), "10.99.2.1");
        ASSERT_TRUE(WaitForViewers(handle, 1));
        EXPECT_EQ(Wire("KEEPALIVE/"), viewer.Next());
    });
}

// The console

/// What a console session shows up to a text.
std::string ReadUpTo(const Fd& session, const std::string& end) {
    std::string text;
    while (text.find(end) == std::string::npos) {
        const std::string more = test::ReadBytes(session, 1);
        if (more.empty()) {
            ADD_FAILURE() << "the session ends with: " << text;
            break;
        }
        text += more;
    }
    return text;
}

TEST(NetTrace, AnswersTheConsolesRequestForASummary) {
    Library library(kIni);
    tq_TraceInitInstance("T");
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    ASSERT_NE(0u, port);
    {
        Fd session = test::ConnectedPeer(port);
        test::SendAll(session, "SHow SUMmary " + std::to_string(gpTraceMsgQ->GetHandle()) + "\r");
        const std::string text = ReadUpTo(session, "OK\r\n");
        EXPECT_NE(std::string::npos, text.find("Response received from queue TQOS: Tracing: ")) << text;
    }
    tq_TelnetTerminate();
}

TEST(NetTrace, TheConsoleSwitchesItOnAndOff) {
    Library library("[Trace]\ntqos_Level=None\nT_Level=All\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    ASSERT_NE(0u, port);
    {
        Fd session = test::ConnectedPeer(port);
        test::SendAll(session, "SET TRace ENable MULticast T\r");
        EXPECT_TRUE(WaitUntil([=] { return TypeOf(handle) == "---M-"; }));
        Subscribed viewer(handle);
        Line(handle, "x\n");
        const std::string line = Shown(viewer.NextLine());
        EXPECT_NE(std::string::npos, line.find(Wire("[<ms>]: (T) WRN: x\n"))) << line;
        test::SendAll(session, "set tr dis mul " + std::to_string(handle) + "\r");
        EXPECT_TRUE(WaitUntil([=] { return TypeOf(handle) == "-----"; }));
    }
    tq_TelnetTerminate();
}

} // namespace
