// What once went wrong when a call failed, each by its name.
#include <errno.h>
#include <fcntl.h>

#include <gtest/gtest.h>

#include "BaseLine.h"
#include "ConsoleClient.h"
#include "Faults.h"
#include "Listener.h"
#include "MemoryBlocks.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Handle_p.h"
#include "tq_MsgQ_p.h"
#include "tq_SocketLookup_p.h"
#include "tq_Socket_p.h"
#include "tq_Trace_p.h"
#include "tq_WorkingLock_p.h"
#include "tqos.h"

namespace faults {

namespace {

using test::Fd;
using test::Library;
using test::Loopback;

/// Calls that fail while the object lives: all of them, or one.
class Failing {
public:
    explicit Failing(Call call, int error, unsigned int first = 1, bool bOnwards = true) {
        Arm({call, first, bOnwards, error});
    }
    ~Failing() { Disarm(); }
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;
};

long OpenSockets() {
    return ReadCounters()[kSockets];
}

const char* TextOf(TqString* s) {
    return reinterpret_cast<const char*>(tq_string_ptr(s, 0));
}

/// A peer of a console: it is greeted, or the connection is closed. Nobody is left waiting.
void WaitForAttention(const Fd& peer) {
    const Exempt exempt;
    std::string text;
    char bytes[2048];
    while (text.find('>') == std::string::npos) {
        ASSERT_TRUE(test::WaitReadable(peer));
        const ssize_t length = recv(peer.Get(), bytes, sizeof(bytes), 0);
        if (length <= 0) {
            return;
        }
        text.append(bytes, static_cast<size_t>(length));
    }
}

} // namespace

TEST(Refused, AConnectionForWhichTheConsoleHasNoMemoryIsClosed) {
    Library library;
    const unsigned int port = tq_TelnetInitialize(0, Loopback(), nullptr);
    ASSERT_NE(0u, port);
    const long before = OpenSockets();
    for (unsigned int k = 1; k <= 12; ++k) { // whichever allocation of the way from accept() to the prompt it is
        const Fd peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); // goes when memory is there again
        const Failing memory(Call::kMemory, ENOMEM, k, /*bOnwards=*/false);
        ASSERT_TRUE(test::ConnectPeer(peer, port));
        WaitForAttention(peer);
    }
    EXPECT_TRUE(test::WaitUntil([before] { return OpenSockets() == before; }));
    tq_TelnetTerminate();
}

TEST(Refused, AConsoleThatEndsWithoutMemoryForItsLastMessageLeavesNothing) {
    Library library;
    for (int warming = 0; warming < 2; ++warming) {
        ASSERT_NE(0u, tq_TelnetInitialize(0, Loopback(), nullptr));
        tq_TelnetTerminate();
    }
    const Reading before = ReadSettled();
    ASSERT_NE(0u, tq_TelnetInitialize(0, Loopback(), nullptr));
    {
        const Failing memory(Call::kMemory, ENOMEM);
        tq_TelnetTerminate();
    }
    EXPECT_TRUE(ComesBackTo(before)) << Difference(before, ReadCounters());
}

TEST(Refused, AConsoleThatCannotTellItsPortDoesNotRunUncounted) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    {
        const Failing names(Call::kGetSockName, ENOBUFS);
        EXPECT_EQ(0u, tq_TelnetInitialize(0, Loopback(), nullptr));
    }
    const unsigned int port = tq_TelnetInitialize(0, Loopback(), nullptr);
    EXPECT_NE(0u, port);
    tq_TelnetTerminate();
}

TEST(Refused, AConsoleWithoutAThreadClosesTheConnectionsThatWaitForIt) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    unsigned int port = 0;
    {
        const Failing threads(Call::kThreadCreate, EAGAIN);
        port = tq_TelnetInitialize(0, Loopback(), nullptr);
    }
    ASSERT_NE(0u, port);
    const long before = OpenSockets();
    const Fd peer = test::ConnectedPeer(port);
    EXPECT_TRUE(test::WaitUntil([before] { return OpenSockets() == before + 1; }));
    tq_TelnetTerminate();
    EXPECT_TRUE(test::IsAtEnd(peer));
    tq_SocketTerminate(99);
}

TEST(Refused, AChunkThatOutlivesItsPoolGoesWithItsLastSlotWhateverTheMemoryWas) {
    const long before = HeapBlocks();
    {
        test::Memory memory("EnableMemoryPooling=yes\n");
        void* const pBlock = tq_malloc(20);
        {
            const Failing heap(Call::kMemory, ENOMEM);
            tq_MemoryTerminate(/*bDumpResources=*/false);
        }
        EXPECT_GT(HeapBlocks(), before);
        tq_free(pBlock);
    }
    EXPECT_EQ(before, HeapBlocks());
}

TEST(Refused, ASocketThatOneCallCannotMakeNonBlockingIsMadeSoByAnother) {
    Library library;
    Listener queue("listener");
    queue.Create(0);
    const Failing options(Call::kIoctl, EINTR);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0);
    ASSERT_NE(0u, hSocket);
    tq_SocketAccess socket(hSocket);
    const Exempt exempt;
    EXPECT_NE(0, fcntl(static_cast<int>(socket->socket), F_GETFL) & O_NONBLOCK);
}

/// What a socket's record says, whatever the memory is like.
unsigned int StateOf(unsigned int hSocket) {
    const Exempt exempt;
    tq_SocketAccess socket(hSocket);
    return socket ? socket->state : 0;
}

TEST(Refused, ACloseForWhoseMessageThereIsNoMemoryIsToldOnceThereIs) {
    Library library;
    Listener queue("owner");
    queue.Create(0);
    const unsigned int hListener = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    ASSERT_NE(0u, hListener);
    const unsigned int port = tq_SocketGetBoundPort(hListener);
    for (unsigned int k = 1; k <= 4; ++k) { // the message, or the node that it hangs on
        Fd peer = test::ConnectedPeer(port);
        ASSERT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_SOCKET_NEW_CONNECTION) == k; }));
        const unsigned int hSocket = queue.Nth<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION, k - 1).new_socket;
        {
            const Failing memory(Call::kMemory, ENOMEM, k);
            peer.Close();
            ASSERT_TRUE(test::WaitUntil([hSocket] { return StateOf(hSocket) == SOCKET_STATE_CLOSED; }));
        }
        EXPECT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_SOCKET_CLOSED, hSocket) == 1; })) << k;
        EXPECT_EQ(0u, tq_SocketClose(hSocket));
    }
    EXPECT_EQ(4u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Refused, ACloseThatCannotBeToldHoldsNobodyUpAndGoesWithItsSocket) {
    Library library;
    Listener queue("owner");
    queue.Create(0);
    const unsigned int hListener = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    const Fd peer = test::ConnectedPeer(tq_SocketGetBoundPort(hListener));
    ASSERT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_SOCKET_NEW_CONNECTION) == 1; }));
    const unsigned int hSocket = queue.Nth<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION, 0).new_socket;
    {
        const Failing memory(Call::kMemory, ENOMEM);
        EXPECT_TRUE(tq_SocketCloseFromTelnet(hSocket));
        const Exempt exempt;
        EXPECT_EQ(0u, tq_SocketClose(hSocket)); // by an owner who did not wait for it
    }
    const Fd other = test::ConnectedPeer(tq_SocketGetBoundPort(hListener));
    EXPECT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_SOCKET_NEW_CONNECTION) == 2; }));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
}

TEST(Refused, AQueueWithoutMemoryForItsLockIsNotCreated) {
    Library library;
    for (unsigned int k = 1; k <= 40; ++k) {
        Arm({Call::kMemory, k, false, ENOMEM});
        Listener queue("torn");
        Disarm();
        queue.Create(0);
        unsigned int sent = 0;
        for (unsigned int i = 0; i < 500; ++i) {
            sent += tq_MsgCreateCommonAndSend(0, queue.GetHandle(), MSG_USER, i, 0, 0, false, 2) ? 1 : 0;
        }
        EXPECT_TRUE(sent == 500 || queue.GetHandle() == 0);
        EXPECT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_USER) == sent; })) << k;
    }
}

TEST(Refused, WhatThreadsShareDoesNotStartWithoutItsLock) {
    test::ScratchDirectory directory;
    test::WriteFile("tqos.ini", "[Sem]\nUseMutexForCritSec=no\n"); // the locks that the system has to make room for
    for (unsigned int k = 1; k <= 120; ++k) {
        Arm({Call::kMutexInit, k, false, EAGAIN}); // one after the other, of all the locks that a start makes
        if (tqOS_Initialize() == 0 && tq_SocketInitialize() == 0 && tq_TimerInitialize() == 0) {
            for (tq_List* pList : {gpListOfQs, gpTraceInstanceList, pListOfSockets, gpHandleList}) {
                EXPECT_TRUE(pList && tq_LockWorks(*pList)) << k;
            }
        }
        Disarm();
        tqOS_Terminate(false, true);
    }
}

TEST(Refused, ACopyOfWhatCannotBeReadIsNoCopy) {
    test::ScratchDirectory directory;
    test::WriteFile("from", std::string(20000, 'c'));
    for (unsigned int first : {1u, 2u, 3u}) {
        const Failing reads(Call::kReadStream, EIO, first);
        EXPECT_FALSE(tq_CopyFile("from", "to"));
    }
    for (unsigned int first : {1u, 2u, 3u}) {
        const Failing reads(Call::kReadStream, kShort, first, /*bOnwards=*/false);
        EXPECT_TRUE(tq_CopyFile("from", "to"));
        const Exempt exempt;
        EXPECT_EQ(std::string(20000, 'c'), test::ReadFile("to"));
    }
}

TEST(Refused, SettingsThatCannotBeRewrittenStayWhole) {
    test::ScratchDirectory directory;
    const std::string before = "[Door]\r\nName=front\r\n[Other]\r\nKey=1\r\n";
    const std::string after = "[Door]\r\n  Name=back\r\n[Other]\r\nKey=1\r\n";
    struct Step {
        Call call;
        unsigned int most;
    };
    for (const Step& step :
         {Step{Call::kGetLine, 20}, Step{Call::kPutText, 12}, Step{Call::kWriteStream, 12}, Step{Call::kCloseStream, 8},
          Step{Call::kFlush, 4}, Step{Call::kDescriptorStream, 8}, Step{Call::kOpen, 8}}) {
        for (unsigned int k = 1; k <= step.most; ++k) {
            test::WriteFile("a.ini", before);
            int result = 0;
            {
                const Failing one(step.call, EIO, k, /*bOnwards=*/false);
                result = tq_WriteINIFileString("Door", "Name", "back", "a.ini");
            }
            const std::string now = test::ReadFile("a.ini");
            EXPECT_EQ(result ? after : before, now) << kCallRows[static_cast<size_t>(step.call)].pszName << " " << k;
        }
    }
}

TEST(Refused, SocketsThatCannotBeWokenStopAtOnceAllTheSame) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    const unsigned int before = tq_GetTimeInMS();
    const Failing sends(Call::kSend, ENOBUFS);
    tq_SocketTerminate(99);
    EXPECT_LT(tq_GetTimeInMS() - before, 4000u); // by itself the thread looks up every 5 seconds
}

TEST(Refused, AnAnswerOfServicesIsReadAsFarAsTheMemoryGoes) {
    const unsigned char answer[] = {
        0, 1,   0x81, 0x80, 0,  0, 0, 2, 0, 0, 0, 0,                                   // two answers
        1, 'a', 0,    0,    33, 0, 1, 0, 0, 0, 5, 0, 9, 0, 1, 0, 1, 0, 80, 1, 'x', 0,  // x:80
        1, 'a', 0,    0,    33, 0, 1, 0, 0, 0, 5, 0, 9, 0, 2, 0, 1, 0, 81, 1, 'y', 0}; // y:81
    const Library library;
    const long before = HeapBlocks();
    unsigned int read[10] = {};
    for (unsigned int k = 1; k <= 10; ++k) {
        const Failing memory(Call::kMemory, ENOMEM, k, /*bOnwards=*/false);
        SrvIter services(answer, sizeof(answer));
        while (const DNS_SRV_DATA* const pService = services.getNext()) {
            EXPECT_STREQ(read[k - 1] == 0 ? "x" : "y", pService->pNameTarget);
            ++read[k - 1];
        }
    }
    EXPECT_EQ(0u, read[0]);
    EXPECT_EQ(1u, read[3]); // the first service takes two blocks behind the table, and so does the second
    EXPECT_EQ(2u, read[9]);
    EXPECT_EQ(before, HeapBlocks());
}

TEST(Refused, SortedServicesAreThoseThereIsMemoryFor) {
    const unsigned char answer[] = {0, 1, 0x81, 0x80, 0, 0, 0, 1, 0, 0, 0, 0, 1, 'a', 0, 0,   33,
                                    0, 1, 0,    0,    0, 5, 0, 9, 0, 1, 0, 1, 0, 80,  1, 'x', 0};
    const Library library;
    const long before = HeapBlocks();
    for (unsigned int k = 1; k <= 6; ++k) {
        const Failing memory(Call::kMemory, ENOMEM, k, /*bOnwards=*/false);
        SortedIter services(answer, sizeof(answer));
        const DNS_SRV_DATA* const pService = services.getNext();
        EXPECT_EQ(!HasStruck(), pService != nullptr) << k;
    }
    EXPECT_EQ(before, HeapBlocks());
}

TEST(Refused, ATextThatCannotGrowStaysAsItIs) {
    const Library library;
    const long before = HeapBlocks();
    for (unsigned int k = 1; k <= 3; ++k) {
        TqString* const s = tq_string_duplicate("0123456789");
        int result = 0;
        {
            const Failing memory(Call::kMemory, ENOMEM, k, /*bOnwards=*/false);
            result = tq_string_insert(s, 0, TextOf(s)); // of its own, so by way of a copy
        }
        EXPECT_STREQ(result == 0 ? "01234567890123456789" : "0123456789", TextOf(s));
        EXPECT_EQ(k > 2, result == 0) << k;
        tq_string_destroy(s);
    }
    EXPECT_EQ(before, HeapBlocks());
}

TEST(Refused, ASocketWithoutMemoryForItIsNotOpenedAndNothingIsLeft) {
    const Library library;
    Listener queue("listener");
    queue.Create(0);
    ASSERT_EQ(0u, tq_SocketInitialize());
    const long before = OpenSockets();
    const auto open = [&queue] { return tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, Loopback(), 0); };
    bool bOpened = false;
    for (unsigned int k = 1; !bOpened; ++k) {
        ASSERT_GT(100u, k);
        const Failing memory(Call::kMemory, ENOMEM, k, /*bOnwards=*/false);
        const unsigned int hSocket = open();
        bOpened = !HasStruck();
        EXPECT_TRUE(hSocket != 0 || !bOpened);
        if (hSocket != 0) {
            tq_SocketClose(hSocket);
        }
    }
    EXPECT_TRUE(test::WaitUntil([before] { return OpenSockets() == before; }));
}

TEST(Refused, BytesThatCannotBeQueuedAreRefusedAndThoseBeforeThemCome) {
    const Library library;
    Listener queue("listener");
    queue.Create(0);
    const Fd listener = test::ListeningPeer();
    const unsigned int hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), test::PortOf(listener), 0, 0, 0);
    ASSERT_NE(0u, hSocket);
    const Fd peer = test::AcceptPeer(listener);
    ASSERT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_SOCKET_CONNECTED) == 1; }));
    tq_SocketSetDataOutCap(hSocket, 8u << 20); // with a cap small sends share a block
    const std::string filler(6u << 20, 'f');   // more than the system takes: what follows is queued
    const auto send = [hSocket](const std::string& bytes) {
        return tq_SocketSendTo(hSocket, test::Bytes(bytes), static_cast<unsigned int>(bytes.size()), 0, 0);
    };
    ASSERT_EQ(filler.size(), send(filler));
    std::string expected = filler;
    for (unsigned int k = 1; k <= 24; ++k) {
        const std::string piece(1, static_cast<char>('a' + k));
        const Failing memory(Call::kMemory, ENOMEM, k % 6 + 1, /*bOnwards=*/k % 2 == 0);
        if (send(piece) == 1) {
            expected += piece;
        }
    }
    EXPECT_LT(filler.size(), expected.size());
    const Exempt exempt;
    EXPECT_TRUE(expected == test::ReadBytes(peer, expected.size()));
}

TEST(Refused, TimersDoNotStartWithoutTheirThread) {
    const Library library;
    {
        const Failing threads(Call::kThreadCreate, EAGAIN);
        EXPECT_EQ(1u, tq_TimerSet(1, 1000, 1, 1, 1, TQ_TIMER_ONE_SHOT, nullptr, false));
    }
    Listener queue("listener");
    queue.Create(0);
    EXPECT_EQ(0u, tq_TimerSet(queue.GetHandle(), 10, 1, 1, 1, TQ_TIMER_ONE_SHOT, nullptr, false));
    EXPECT_TRUE(test::WaitUntil([&] { return queue.Count(MSG_TIMER) == 1; }));
}

} // namespace faults
