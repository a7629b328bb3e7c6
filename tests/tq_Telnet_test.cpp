#include "tq_Telnet_p.h"

#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "TestSupport.h"
#include "tqos.h"

namespace {

TEST(Telnet, ASessionWithoutPasswordStartsLoggedIn) {
    test::Library library;
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), nullptr);
    ASSERT_NE(0u, port);
    test::Fd client = test::ConnectedPeer(port);
    test::SendAll(client, "quit\r");
    const std::string session = test::ReadToEnd(client);
    EXPECT_EQ(0u, session.find("\xff\xfb\x01\xff\xfb\x03\xff\xfd\x03"));
    EXPECT_EQ("\r\n\r\n>quit\r\n", session.substr(session.size() - 11));
    tq_TelnetTerminate();
}

} // namespace
