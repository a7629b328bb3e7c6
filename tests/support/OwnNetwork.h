/// @file OwnNetwork.h
/// A network of a test's own, whose interfaces it may switch as it likes, and which nobody else is on.
#ifndef OWN_NETWORK_H
#define OWN_NETWORK_H

#include <errno.h>
#include <functional>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <string>
#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "TestSupport.h"

namespace test {

constexpr int kNoNetwork = 77;

/// What is wrong with the making of a network, if anything.
#define CHECK_NETWORK(condition)                                                                                       \
    if (!(condition)) {                                                                                                \
        printf("%s: %s\n", #condition, strerror(errno));                                                               \
        fflush(stdout);                                                                                                \
        _exit(kNoNetwork);                                                                                             \
    }

/// Makes an interface of a kind of the system's; its name may be 15 characters long.
inline bool MakeInterfaceOfKind(const char* pszName, const char* pszKind) {
    struct {
        struct nlmsghdr header;
        struct ifinfomsg info;
        char attributes[256];
    } request = {};
    const auto append = [&request](unsigned short type, const char* pszText, struct rtattr* pOuter) {
        struct rtattr* pAttribute =
            reinterpret_cast<struct rtattr*>(reinterpret_cast<char*>(&request) + NLMSG_ALIGN(request.header.nlmsg_len));
        const unsigned short length = static_cast<unsigned short>(RTA_LENGTH(pszText ? strlen(pszText) + 1 : 0));
        pAttribute->rta_type = type;
        pAttribute->rta_len = length;
        if (pszText) {
            memcpy(RTA_DATA(pAttribute), pszText, strlen(pszText) + 1);
        }
        request.header.nlmsg_len = NLMSG_ALIGN(request.header.nlmsg_len) + RTA_ALIGN(length);
        if (pOuter) {
            pOuter->rta_len = static_cast<unsigned short>(pOuter->rta_len + RTA_ALIGN(length));
        }
        return pAttribute;
    };
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(request.info));
    request.header.nlmsg_type = RTM_NEWLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
    append(IFLA_IFNAME, pszName, nullptr);
    struct rtattr* pLink = append(IFLA_LINKINFO, nullptr, nullptr);
    append(IFLA_INFO_KIND, pszKind, pLink);
    Fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    char answer[1024] = {};
    if (send(fd.Get(), &request, request.header.nlmsg_len, 0) < 0 || recv(fd.Get(), answer, sizeof(answer), 0) < 0) {
        return false;
    }
    struct nlmsgerr error;
    memcpy(&error, answer + NLMSG_HDRLEN, sizeof(error));
    errno = -error.error;
    return error.error == 0;
}

inline bool MakeInterface(const char* pszName) {
    for (const char* pszKind : {"dummy", "veth", "bridge"}) { // whatever the system has
        if (MakeInterfaceOfKind(pszName, pszKind)) {
            return true;
        }
    }
    return false;
}

inline struct ifreq NamedRequest(const char* pszName) {
    struct ifreq request = {};
    strncpy(request.ifr_name, pszName, sizeof(request.ifr_name) - 1);
    return request;
}

inline bool SetAddress(const char* pszName, const char* pszAddress) {
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq request = NamedRequest(pszName);
    struct sockaddr_in address = LoopbackAddress(0);
    address.sin_addr.s_addr = inet_addr(pszAddress);
    memcpy(&request.ifr_addr, &address, sizeof(address));
    if (ioctl(fd.Get(), SIOCSIFADDR, &request) != 0) {
        return false;
    }
    if (address.sin_addr.s_addr == 0) { // it has lost its address
        return true;
    }
    address.sin_addr.s_addr = inet_addr("255.255.255.0");
    memcpy(&request.ifr_netmask, &address, sizeof(address));
    return ioctl(fd.Get(), SIOCSIFNETMASK, &request) == 0;
}

inline bool Switch(const char* pszName, bool bUp) {
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq request = NamedRequest(pszName);
    if (ioctl(fd.Get(), SIOCGIFFLAGS, &request) != 0) {
        return false;
    }
    const int flags = request.ifr_flags;
    request.ifr_flags = static_cast<short>(bUp ? flags | IFF_UP : flags & ~IFF_UP);
    return ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

/// Gives this process a network with three interfaces. The loopback address stands under another name than its
/// interface's, so that it is in nobody's table: the first address is "net1"'s.
inline void MakeNetwork() {
    CHECK_NETWORK(unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0);
    CHECK_NETWORK(Switch("lo", true));
    CHECK_NETWORK(SetAddress("lo", "0.0.0.0"));
    CHECK_NETWORK(SetAddress("lo:x", "127.0.0.1"));
    const char* const rows[][2] = {{"net1", "10.99.1.1"}, {"net2", "10.99.2.1"}, {"net3", "10.99.3.1"}};
    for (const auto& row : rows) {
        CHECK_NETWORK(MakeInterface(row[0]));
        CHECK_NETWORK(SetAddress(row[0], row[1]));
        CHECK_NETWORK(Switch(row[0], true));
    }
}

/// Runs the body in a process with such a network. Its failures are this test's; false when there can be no network.
inline bool RunInNetwork(const std::function<void()>& body, std::string* pReason) {
    const ChildResult child = RunInChild(
        [&body] {
            MakeNetwork();
            body();
            fflush(nullptr);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        },
        110);
    *pReason = child.standardOut;
    if (child.exited && child.code == kNoNetwork) {
        return false;
    }
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code) << child.standardOut;
    EXPECT_EQ("", child.standardError);
    return true;
}

/// RunInNetwork() for a test that has nothing else to do.
#define RUN_IN_NETWORK(...)                                                                                            \
    std::string reason;                                                                                                \
    if (!test::RunInNetwork(__VA_ARGS__, &reason)) {                                                                   \
        GTEST_SKIP() << "no network of its own can be had here: " << reason;                                           \
    }

} // namespace test

#endif // OWN_NETWORK_H
