#include "tq_Socket.h"

#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Socket_p.h"

using namespace test;

TEST(Socket, ClientConnectsSendsAndReceives) {
    Library library;
    RecordingQueue queue;
    Fd listener = ListeningPeer();
    const unsigned int hSocket = tq_SocketOpenTCPClient(queue.GetHandle(), Loopback(), PortOf(listener), 77, 0, 0);
    ASSERT_NE(0u, hSocket);
    Fd peer = AcceptPeer(listener);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    const MSG_COMMON connected = queue.Of(MSG_SOCKET_CONNECTED, hSocket)[0].Common();
    EXPECT_EQ(0u, connected.hSource);
    EXPECT_EQ(queue.GetHandle(), connected.hDest);
    EXPECT_EQ(28u, connected.size);
    EXPECT_EQ(77u, connected.userparm);
    EXPECT_EQ(0u, connected.flags);

    EXPECT_EQ(5u, tq_SocketSendTo(hSocket, Bytes("hello"), 5, 0, 0));
    EXPECT_EQ("hello", ReadBytes(peer, 5));

    SendAll(peer, "answer");
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_DATASTREAM, hSocket));
    EXPECT_EQ(6u, tq_SocketDataAvailable(hSocket));
    unsigned char data[16];
    EXPECT_EQ(6u, tq_SocketRecv(hSocket, data, sizeof(data)));
    EXPECT_EQ(0, memcmp(data, "answer", 6));
    EXPECT_EQ(0u, tq_SocketRecv(hSocket, data, sizeof(data)));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    EXPECT_TRUE(IsAtEnd(peer));
}
