#include "tq_SocketLookup_p.h"

#include <algorithm>
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <atomic>
#include <errno.h>
#include <map>
#include <mutex>
#include <netdb.h>
#include <resolv.h>
#include <stdlib.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Socket_p.h"

using namespace test;

namespace {

constexpr unsigned int kTypeA = 1;
constexpr unsigned int kNoSuchName = 3;

std::string U16(unsigned int value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string U32(unsigned int value) {
    return U16(value >> 16) + U16(value & 0xFFFF);
}

/// A name as messages have it.
std::string Name(const std::string& dotted) {
    std::string name;
    for (size_t begin = 0; begin < dotted.size();) {
        const size_t end = std::min(dotted.find('.', begin), dotted.size());
        name += static_cast<char>(end - begin) + dotted.substr(begin, end - begin);
        begin = end + 1;
    }
    return name + '\0';
}

std::string Header(unsigned int questions, unsigned int answers, unsigned int flags = 0x8180) {
    return U16(0) + U16(flags) + U16(questions) + U16(answers) + U32(0);
}

std::string Record(const std::string& owner, unsigned int type, unsigned int ttl, const std::string& data) {
    return owner + U16(type) + U16(1) + U32(ttl) + U16(static_cast<unsigned int>(data.size())) + data;
}

std::string SrvData(unsigned int priority, unsigned int weight, unsigned int port, const std::string& target) {
    return U16(priority) + U16(weight) + U16(port) + Name(target);
}

std::string Srv(unsigned int priority, unsigned int weight, unsigned int port, const std::string& target,
                unsigned int ttl = 60) {
    return Record(Name("_sip._udp.lan"), kDnsTypeSrv, ttl, SrvData(priority, weight, port, target));
}

const std::string kQuestion = Name("_sip._udp.lan") + U16(kDnsTypeSrv) + U16(1);

/// An answer to one question.
std::string Answer(const std::vector<std::string>& records) {
    std::string message = Header(1, static_cast<unsigned int>(records.size())) + kQuestion;
    for (const std::string& record : records) {
        message += record;
    }
    return message;
}

/// The targets that an iterator gives.
template <typename Iterator> std::vector<std::string> Targets(Iterator& iterator) {
    std::vector<std::string> targets;
    while (const DNS_SRV_DATA* pService = iterator.getNext()) {
        targets.push_back(pService->pNameTarget);
    }
    return targets;
}

/// The answer lies at the end of memory of its own, so that a sanitizer sees a read behind it.
template <typename Iterator> std::vector<std::string> TargetsOf(const std::string& message) {
    const std::vector<char> bytes(message.begin(), message.end());
    Iterator iterator(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return Targets(iterator);
}

using Strings = std::vector<std::string>;

/// A name server on the loopback address, to which the calling thread's resolver is pointed.
class NameServer {
public:
    NameServer() : m_socket(BoundPeer(SOCK_DGRAM)) {
        EXPECT_EQ(0, res_init());
        m_previous = _res.nsaddr_list[0];
        _res.nscount = 1;
        _res.nsaddr_list[0] = LoopbackAddress(PortOf(m_socket));
        _res.options &= ~static_cast<unsigned long>(RES_DEFNAMES | RES_DNSRCH | RES_ROTATE);
        m_thread = std::thread([this] { Serve(); });
    }
    ~NameServer() {
        m_bStop = true;
        const Fd stopper(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const struct sockaddr_in address = LoopbackAddress(PortOf(m_socket));
        sendto(stopper.Get(), "", 0, 0, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
        m_thread.join();
        _res.nsaddr_list[0] = m_previous;
    }

    void AddHost(const std::string& name, const Strings& addresses) {
        for (const std::string& address : addresses) {
            Add(name, kTypeA, Record(Name(name), kTypeA, 5, U32(ntohl(inet_addr(address.c_str())))));
        }
    }
    void AddService(const std::string& name, const std::string& data, unsigned int ttl = 60) {
        Add(name, kDnsTypeSrv, Record(Name(name), kDnsTypeSrv, ttl, data));
    }
    unsigned int Queries() const { return m_queries; }

private:
    void Add(const std::string& name, unsigned int type, const std::string& record) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_records[Name(name) + U16(type) + U16(1)].push_back(record);
    }

    void Serve() {
        while (WaitReadable(m_socket, 100)) {
            char query[512];
            struct sockaddr_in from;
            socklen_t length = sizeof(from);
            const ssize_t bytes =
                recvfrom(m_socket.Get(), query, sizeof(query), 0, reinterpret_cast<struct sockaddr*>(&from), &length);
            if (m_bStop) {
                return;
            }
            if (bytes > static_cast<ssize_t>(kDnsHeaderBytes)) {
                ++m_queries;
                const std::string reply = Reply(std::string(query, static_cast<size_t>(bytes)));
                sendto(m_socket.Get(), reply.data(), reply.size(), 0, reinterpret_cast<const struct sockaddr*>(&from),
                       length);
            }
        }
    }

    std::string Reply(const std::string& query) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const size_t nameEnd = query.find('\0', kDnsHeaderBytes);
        const std::string question = query.substr(kDnsHeaderBytes, nameEnd + 5 - kDnsHeaderBytes);
        const auto found = m_records.find(question);
        const bool bKnown = found != m_records.end();
        std::string reply = Header(1, bKnown ? static_cast<unsigned int>(found->second.size()) : 0,
                                   bKnown ? 0x8180 : 0x8180 | kNoSuchName) +
                            question;
        for (size_t i = 0; bKnown && i < found->second.size(); ++i) {
            reply += found->second[i];
        }
        return query.substr(0, 2) + reply.substr(2);
    }

    Fd m_socket;
    struct sockaddr_in m_previous;
    std::mutex m_mutex;
    std::map<std::string, Strings> m_records; ///< by question
    std::atomic<bool> m_bStop{false};
    std::atomic<unsigned int> m_queries{0};
    std::thread m_thread;
};

std::string Hex(unsigned int value) {
    char text[20];
    snprintf(text, sizeof(text), "0x%x", value);
    return text;
}

} // namespace

// Hosts

TEST(SocketLookup, ADottedTextIsAnAddress) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    EXPECT_EQ(inet_addr("10.1.2.3"), tq_GetIPAddress("10.1.2.3"));
    EXPECT_EQ(inet_addr("8.1.1.1"), tq_GetIPAddress("010.1.1.1"))
        << "a leading zero makes it octal, as inet_addr has it";
    EXPECT_EQ(0u, tq_GetIPAddress(nullptr));
}

TEST(SocketLookup, WithoutALayerThereIsNoAddress) {
    EXPECT_EQ(0u, tq_GetIPAddress("10.1.2.3"));
    Library library;
    EXPECT_EQ(0u, tq_GetIPAddress("10.1.2.3")) << "it does not start the layer";
    EXPECT_EQ(0, gTQSocketsInitialized);
}

TEST(SocketLookup, AHostsFirstAddressIsGivenAndTraced) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    server.AddHost("device.lan", {"10.1.2.3", "10.1.2.4"});
    TraceFile trace;
    const unsigned int address = tq_GetIPAddress("device.lan");
    EXPECT_TRUE(address == inet_addr("10.1.2.3") || address == inet_addr("10.1.2.4")) << Hex(address);
    EXPECT_EQ(1u, trace.Count("DEB: ", "tqos Sockets: tq_GetIPAddress(\"device.lan\") tq_gethostbyname_r() returned "
                                       "address=" +
                                           Hex(address) + ".\n"))
        << trace.Text();
}

TEST(SocketLookup, AHostOfAddressZeroIsTracedAsSuch) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    server.AddHost("zero.lan", {"0.0.0.0"});
    TraceFile trace;
    EXPECT_EQ(0u, tq_GetIPAddress("zero.lan"));
    EXPECT_EQ(1u, trace.Count("INF: ", "tqos Sockets: tq_GetIPAddress(\"zero.lan\") tq_gethostbyname_r() returned "
                                       "address=0.\n"))
        << trace.Text();
}

TEST(SocketLookup, AnUnknownHostIsTraced) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    TraceFile trace;
    EXPECT_EQ(0u, tq_GetIPAddress("%s.lan"));
    EXPECT_NE(std::string::npos,
              trace.Text().find("tqos Sockets: tq_GetIPAddress(\"%s.lan\") failed when calling tq_gethostbyname_r().\n"
                                "   err=1\n"
                                "   return=0x0\n"
                                "   return->h_addr_list=0x0\n"
                                "   return->h_addrtype=0x0\n"
                                "   return->h_length=0x0\n"))
        << trace.Text();
}

TEST(SocketLookup, AnEntryThatDoesNotFitTheWorkMemoryIsAFailure) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    std::string name;
    for (const char letter : {'a', 'b', 'c'}) {
        name += std::string(60, letter) + '.';
    }
    name += "lan";
    Strings addresses;
    for (int i = 1; i <= 12; ++i) {
        addresses.push_back("10.0.0." + std::to_string(i));
    }
    server.AddHost(name, addresses);
    tq_hostent host;
    tq_hostent* pResult = &host;
    char work[64];
    int error = 0;
    EXPECT_EQ(ERANGE, tq_gethostbyname_r(name.c_str(), &host, work, sizeof(work), &pResult, &error));
    EXPECT_EQ(nullptr, pResult);
}

TEST(SocketLookup, AHostIsFoundByNameAndByAddress) {
    NameServer server;
    server.AddHost("device.lan", {"127.77.0.1"});
    tq_hostent host;
    tq_hostent* pResult = nullptr;
    char work[1024];
    int error = 0;
    ASSERT_EQ(0, tq_gethostbyname_r("device.lan", &host, work, sizeof(work), &pResult, &error));
    ASSERT_EQ(&host, pResult);
    EXPECT_STREQ("device.lan", host.h_name);
    EXPECT_EQ(AF_INET, host.h_addrtype);
    EXPECT_EQ(4, host.h_length);
    EXPECT_EQ(nullptr, host.h_addr_list[1]);
    const unsigned int address = inet_addr("127.77.0.1");
    EXPECT_EQ(0, memcmp(&address, host.h_addr_list[0], 4));

    const unsigned int unknown = inet_addr("127.78.0.1");
    tq_gethostbyaddr_r(&unknown, 4, AF_INET, &host, work, sizeof(work), &pResult, &error);
    EXPECT_EQ(nullptr, pResult);
    EXPECT_EQ(HOST_NOT_FOUND, error);
}

// One answer

TEST(SocketLookup, AnAnswersServiceRecordsAreReadInTheirOrder) {
    const std::string message = Answer({Srv(1, 2, 5060, "one.lan", 3600), Srv(65535, 40000, 65535, "two.lan", 0)});
    SrvIter services(message.data(), static_cast<unsigned int>(message.size()));
    EXPECT_EQ(2u, services.getSize());
    ASSERT_NE(nullptr, services.getSrvArr());
    EXPECT_EQ(nullptr, services.getSrvArr()[0]);
    const DNS_SRV_DATA* pFirst = services.getNext();
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(pFirst, services.getSrvArr()[0]);
    EXPECT_EQ(nullptr, services.getSrvArr()[1]);
    EXPECT_STREQ("one.lan", pFirst->pNameTarget);
    EXPECT_EQ(3600u, pFirst->timeToLive);
    EXPECT_EQ(1, pFirst->wPriority);
    EXPECT_EQ(2, pFirst->wWeight);
    EXPECT_EQ(5060, pFirst->wPort);
    const DNS_SRV_DATA* pSecond = services.getNext();
    ASSERT_NE(nullptr, pSecond);
    EXPECT_EQ(-1, pSecond->wPriority) << "16 bits with a sign";
    EXPECT_EQ(static_cast<short>(40000 - 65536), pSecond->wWeight);
    EXPECT_EQ(-1, pSecond->wPort);
    EXPECT_EQ(nullptr, services.getNext());
    EXPECT_EQ(nullptr, services.getNext());
}

TEST(SocketLookup, RecordsOfOtherTypesAreSteppedOver) {
    EXPECT_EQ(Strings({"one.lan"}),
              TargetsOf<SrvIter>(Answer({Record(Name("x.lan"), kTypeA, 1, U32(1)), Srv(1, 1, 1, "one.lan"),
                                         Record(Name("x.lan"), 5, 1, Name("y.lan"))})));
}

TEST(SocketLookup, NamesMayPointBackwards) {
    const std::string pointer = U16(0xC000 | kDnsHeaderBytes); // the name of the question
    const std::string data = U16(1) + U16(1) + U16(1) + std::string("\3sub") + pointer;
    EXPECT_EQ(Strings({"sub._sip._udp.lan"}), TargetsOf<SrvIter>(Answer({Record(pointer, kDnsTypeSrv, 1, data)})));
}

TEST(SocketLookup, NamesThatLoopOrPointOutsideEndTheWalk) {
    const std::string good = Srv(1, 1, 1, "one.lan");
    const unsigned int here = static_cast<unsigned int>(kDnsHeaderBytes + kQuestion.size() + good.size());
    const std::string rest = U16(kDnsTypeSrv) + U16(1) + U32(1) + U16(8) + SrvData(1, 1, 1, "two.lan");
    for (unsigned int offset : {here, 600u, 1035u, 1036u, 0x3FFFu}) { // itself, behind the answer, outside the buffer
        const std::string lying = U16(0xC000 | offset) + rest;
        EXPECT_EQ(Strings({"one.lan"}), TargetsOf<SrvIter>(Answer({good, lying, good}))) << offset;
    }
    for (const std::string& name : {std::string("\x80"), std::string("\x40") + "abc", std::string("\xC0")}) {
        EXPECT_EQ(Strings({"one.lan"}), TargetsOf<SrvIter>(Answer({good, name}))) << "no kind of label";
    }
}

TEST(SocketLookup, ATargetThatCannotBeExpandedEndsTheWalk) {
    const std::string data = U16(1) + U16(1) + U16(1) + U16(0xFFFF);
    EXPECT_EQ(Strings({}), TargetsOf<SrvIter>(Answer({Record(Name("x"), kDnsTypeSrv, 1, data), Srv(1, 1, 1, "a")})));
}

TEST(SocketLookup, ACountAboveTheRecordsEndsTheWalkWithTheBuffer) {
    std::string message = Answer({Srv(1, 1, 1, "one.lan")});
    message[6] = message[7] = '\xFF';
    SrvIter services(message.data(), static_cast<unsigned int>(message.size()));
    EXPECT_EQ(65535u, services.getSize());
    EXPECT_EQ(Strings({"one.lan"}), Targets(services));
    message[4] = message[5] = '\xFF'; // and questions without end
    EXPECT_EQ(Strings({}), TargetsOf<SrvIter>(message));
}

TEST(SocketLookup, ADataLengthThatLeavesTheBufferEndsTheWalk) {
    const std::string lying = Name("x") + U16(kTypeA) + U16(1) + U32(1) + U16(65535);
    EXPECT_EQ(Strings({"one.lan"}), TargetsOf<SrvIter>(Answer({Srv(1, 1, 1, "one.lan"), lying, Srv(1, 1, 1, "two")})));
}

TEST(SocketLookup, EveryTruncationOfAnAnswerIsReadToItsEnd) {
    const std::string message = Answer({Srv(1, 1, 1, "one.lan"), Srv(2, 2, 2, "two.lan"), Srv(3, 3, 3, "three.lan")});
    for (size_t length = 0; length <= message.size(); ++length) {
        const Strings targets = TargetsOf<SrvIter>(message.substr(0, length));
        ASSERT_LE(targets.size(), 3u) << length;
        if (length == message.size()) {
            EXPECT_EQ(Strings({"one.lan", "two.lan", "three.lan"}), targets);
        } else if (length < kDnsHeaderBytes) {
            EXPECT_EQ(Strings({}), targets) << length;
        }
    }
}

TEST(SocketLookup, TheEndLiesTwelveBytesBehindTheAnswer) {
    // The last byte, the end of the target's name, is missing: the zeros behind the answer stand in for it.
    const std::string message = Answer({Srv(1, 1, 1, "one.lan")});
    EXPECT_EQ(Strings({"one.lan"}), TargetsOf<SrvIter>(message.substr(0, message.size() - 1)));
}

TEST(SocketLookup, AnAnswerLongerThanTheBufferEndsWithTheBuffer) {
    const std::string record = Srv(1, 1, 1, std::string(60, 'a') + "." + std::string(60, 'b'));
    const Strings targets = TargetsOf<SrvIter>(Answer(Strings(20, record)));
    EXPECT_EQ((kDnsHeaderBytes + kDnsBufferBytes - kDnsHeaderBytes - kQuestion.size()) / record.size(), targets.size());
    EXPECT_EQ(Strings({}), TargetsOf<SrvIter>(std::string(100000, '\xFF')));
}

TEST(SocketLookup, AnswersOfAnyBytesAreReadInsideTheBuffer) {
    srand(4711);
    const std::string message = Answer({Srv(1, 1, 1, "one.lan"), Srv(2, 2, 2, "two.lan"), Srv(3, 3, 3, "three.lan")});
    for (int round = 0; round < 20000; ++round) {
        std::string damaged = message;
        for (int changes = rand() % 6; changes >= 0; --changes) {
            damaged[static_cast<size_t>(rand()) % damaged.size()] = static_cast<char>(rand());
        }
        ASSERT_LE(TargetsOf<SortedIter>(damaged).size(), 1000u);
    }
}

TEST(SocketLookup, AnAnswerWithoutHeaderIsEmpty) {
    SrvIter services("0123456789a", 11);
    EXPECT_EQ(0u, services.getSize());
    EXPECT_EQ(nullptr, services.getSrvArr());
    EXPECT_EQ(nullptr, services.getNext());
}

// The order of use

TEST(SocketLookup, LowerPriorityNumbersAreServedFirst) {
    const Strings targets = TargetsOf<SortedIter>(Answer(
        {Srv(20, 1, 1, "c"), Srv(10, 1, 1, "a"), Srv(20, 9, 1, "d"), Srv(10, 9, 1, "b"), Srv(5, 0, 1, "first")}));
    ASSERT_EQ(5u, targets.size());
    EXPECT_EQ("first", targets[0]);
    EXPECT_LT(targets[1], "c");
    EXPECT_LT(targets[2], "c");
    EXPECT_GT(targets[3], "b");
    EXPECT_GT(targets[4], "b");
}

TEST(SocketLookup, APriorityAbove32767IsNegativeAndServedFirst) {
    EXPECT_EQ(Strings({"high", "low"}), TargetsOf<SortedIter>(Answer({Srv(1, 1, 1, "low"), Srv(32768, 1, 1, "high")})));
}

TEST(SocketLookup, EqualPrioritiesAreDrawnByWeight) {
    const std::string message = Answer({Srv(1, 1, 1, "light"), Srv(1, 99, 1, "heavy")});
    srand(1);
    int heavyFirst = 0;
    for (int i = 0; i < 2000; ++i) {
        heavyFirst += TargetsOf<SortedIter>(message)[0] == "heavy" ? 1 : 0;
    }
    EXPECT_GT(heavyFirst, 1900);
    EXPECT_LT(heavyFirst, 2000) << "the light one has its chance";
}

TEST(SocketLookup, AWeightOfZeroCountsAsOne) {
    const std::string message = Answer({Srv(1, 0, 1, "zero"), Srv(1, 1, 1, "one")});
    srand(1);
    int zeroFirst = 0;
    for (int i = 0; i < 2000; ++i) {
        zeroFirst += TargetsOf<SortedIter>(message)[0] == "zero" ? 1 : 0;
    }
    EXPECT_GT(zeroFirst, 800);
    EXPECT_LT(zeroFirst, 1200);
}

TEST(SocketLookup, TheWeightThatStoodInThePlaceLeavesTheTotal) {
    // Three of one priority: the draws are those of rand(), worked out here step by step.
    const Strings names = {"a", "b", "c"};
    const std::vector<long long> weights = {10, 20, 30};
    const std::string message = Answer({Srv(1, 10, 1, "a"), Srv(1, 20, 1, "b"), Srv(1, 30, 1, "c")});
    for (unsigned int seed = 1; seed < 200; ++seed) {
        srand(seed);
        std::vector<size_t> order = {0, 1, 2};
        long long total = 60;
        for (size_t filled = 2; filled > 0; --filled) {
            long long r = rand() / (2147483647 / total + 1);
            const long long before = weights[order[filled]];
            for (size_t i = filled + 1; i-- > 0;) {
                r -= weights[order[i]];
                if (r < 0) {
                    std::swap(order[i], order[filled]);
                    break;
                }
            }
            total -= before;
        }
        srand(seed);
        EXPECT_EQ(Strings({names[order[2]], names[order[1]], names[order[0]]}), TargetsOf<SortedIter>(message)) << seed;
    }
}

TEST(SocketLookup, ATotalOfZeroOrBelowDrawsNothing) {
    srand(7);
    const int next = rand();
    for (unsigned int weight : {32768u, 65530u, 65531u}) { // with the 5 of the other: far below 0, -1 and 0
        srand(7);
        EXPECT_EQ(Strings({"b", "a"}), TargetsOf<SortedIter>(Answer({Srv(1, 5, 1, "a"), Srv(1, weight, 1, "b")})));
        EXPECT_EQ(next, rand()) << "no number was drawn: " << weight;
    }
}

// The lookup

TEST(SocketLookup, FindsAServiceInTheOrderOfPriority) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    server.AddService("_sip._udp.lan", SrvData(20, 1, 5062, "two.lan"), 20);
    server.AddService("_sip._udp.lan", SrvData(10, 1, 5061, "one.lan"), 10);
    server.AddService("_sip._tcp.lan", SrvData(10, 1, 5063, "two.lan"), 30);
    server.AddHost("one.lan", {"10.0.0.1"});
    server.AddHost("two.lan", {"10.0.0.2"});
    TQ_SERVICE_ADDRESS found[4] = {};
    ASSERT_EQ(2u, tq_SocketFindService("lan", "sip", found, 4, 2));
    EXPECT_EQ(inet_addr("10.0.0.1"), found[0].address);
    EXPECT_EQ(5061u, found[0].port);
    EXPECT_EQ(10u, found[0].ttl);
    EXPECT_EQ(inet_addr("10.0.0.2"), found[1].address);
    EXPECT_EQ(5062u, found[1].port);
    EXPECT_EQ(20u, found[1].ttl);
    EXPECT_EQ(0u, found[2].address);

    ASSERT_EQ(1u, tq_SocketFindService("lan", "sip", found, 4, 1));
    EXPECT_EQ(5063u, found[0].port);
    EXPECT_EQ(1u, tq_SocketFindService("lan", "sip", found, 1, 2)) << "the array is full";
    EXPECT_EQ(0u, tq_SocketFindService("elsewhere", "sip", found, 4, 2));
}

TEST(SocketLookup, APortAbove32767ComesSignExtended) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    server.AddService("_sip._udp.lan", SrvData(1, 1, 40000, "one.lan"));
    server.AddHost("one.lan", {"10.0.0.1"});
    TQ_SERVICE_ADDRESS found = {};
    ASSERT_EQ(1u, tq_SocketFindService("lan", "sip", &found, 1, 2));
    EXPECT_EQ(0xFFFF0000u | 40000u, found.port);
}

TEST(SocketLookup, TheSameTargetAndPortFillOneEntry) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    NameServer server;
    for (unsigned int port : {5060u, 5060u, 0u, 5061u}) {
        server.AddService("_sip._udp.lan", SrvData(1, 1, port, "one.lan"));
    }
    server.AddService("_sip._udp.lan", SrvData(1, 1, 5060, "unknown.lan"));
    server.AddService("_sip._udp.lan", SrvData(1, 1, 5060, "alias.lan"));
    server.AddHost("one.lan", {"10.0.0.1"});
    server.AddHost("alias.lan", {"10.0.0.1"});
    TQ_SERVICE_ADDRESS found[8] = {};
    ASSERT_EQ(2u, tq_SocketFindService("lan", "sip", found, 8, 2)) << "nor a port 0 nor a host without address";
    EXPECT_EQ(5060u + 5061u, found[0].port + found[1].port);
}

TEST(SocketLookup, WhatCannotBeAskedIsNotAsked) {
    TQ_SERVICE_ADDRESS found = {};
    NameServer server;
    EXPECT_EQ(0u, tq_SocketFindService("lan", "sip", &found, 1, 2)) << "no layer";
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    EXPECT_EQ(0u, tq_SocketFindService("lan", "sip", &found, 1, 0));
    EXPECT_EQ(0u, tq_SocketFindService("lan", "sip", &found, 1, 3));
    EXPECT_EQ(0u, tq_SocketFindService("lan", "sip", &found, 0, 2));
    EXPECT_EQ(0u, tq_SocketFindService("lan", "sip", nullptr, 1, 2));
    EXPECT_EQ(0u, tq_SocketFindService(nullptr, "sip", &found, 1, 2));
    EXPECT_EQ(0u, tq_SocketFindService("lan", nullptr, &found, 1, 2));
    EXPECT_EQ(0u, tq_SocketFindService(std::string(5000, 'd').c_str(), "sip", &found, 1, 2));
    EXPECT_EQ(0u, server.Queries());
}
