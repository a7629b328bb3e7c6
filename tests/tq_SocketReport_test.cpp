#include "tq_Socket.h"

#include <arpa/inet.h>
#include <atomic>
#include <stdio.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SocketPeers.h"
#include "TestSupport.h"
#include "tq_Memory_p.h"
#include "tq_Socket_p.h"

using namespace test;

namespace {

constexpr unsigned int kSummary = 0;
constexpr unsigned int kDetails = 1;

const std::string kLegend = "   S = Status where: B-Breaker, L-Listen, T-Connecting, C-Connected, X-Closed\r\n"
                            "   T = Type where: T-TCP, U-UDP\r\n"
                            "\r\n"
                            "Handle T S Src Info               Dst Info               Name\r\n"
                            "------ - - ---------------------- ---------------------- ---------------\r\n";

const std::string kNotRunning = "TQOS Sockets Subsystem not yet initialized!";
const std::string kNoText = "(no text)";

struct Report {
    unsigned int result = 0;
    std::string text;
};

std::string Taken(char* pszText) {
    const std::string text = pszText ? pszText : kNoText;
    tq_free(pszText);
    return text;
}

Report Show(unsigned int uiFlags, std::string arguments = "") {
    Report report;
    char unset = 'x';
    char* pszResponse = &unset;
    report.result = tq_SocketShowSockets(&pszResponse, uiFlags, &arguments[0]);
    report.text = Taken(pszResponse);
    return report;
}

std::string Details(unsigned int hSocket) {
    const Report report = Show(kDetails, std::to_string(hSocket));
    EXPECT_EQ(0u, report.result);
    return report.text;
}

/// The worker's turns change a record; a report is of one moment. Fields that a test compares are set here.
template <typename Change> void WithRecord(unsigned int hSocket, Change change) {
    tq_ListLock lock(pListOfSockets);
    SOCKET_INSTANCE* const pSocket = FindSocketLocked(hSocket);
    ASSERT_NE(nullptr, pSocket);
    change(*pSocket);
}

std::string Row(unsigned int handle, char type, char state, const std::string& source, const std::string& destination,
                const std::string& name) {
    char start[400];
    snprintf(start, sizeof(start), "%-6u %c %c %-22s %-22s ", handle, type, state, source.c_str(), destination.c_str());
    return start + name + std::string(name.size() < 20 ? 20 - name.size() : 0, ' ') + "\r\n";
}

std::string Local(unsigned int port) {
    return "127.0.0.1:" + std::to_string(port);
}

/// A record of the test's own in the list, which the worker never sees: it is taken out before the lock is left.
class ForeignRecord {
public:
    explicit ForeignRecord(unsigned int type, unsigned int state) : m_pSocket(MakeSocketRecord(type, state, 5, 6)) {
        EXPECT_TRUE(AddSocketLocked(m_pSocket));
    }
    ~ForeignRecord() {
        RemoveSocketLocked(m_pSocket);
        CleanUpSocket(m_pSocket, false);
    }
    SOCKET_INSTANCE* operator->() const { return m_pSocket; }
    SOCKET_INSTANCE* Record() const { return m_pSocket; }

private:
    SOCKET_INSTANCE* m_pSocket;
};

bool HasRow(const std::string& report, const std::string& row) {
    return report.find("\r\n" + row) != std::string::npos;
}

} // namespace

TEST(SocketReport, SaysThatTheLayerDoesNotRun) {
    EXPECT_EQ(kNotRunning, Show(kSummary).text) << "without a library its memory still works";
    Library library;
    EXPECT_EQ(kNotRunning, Show(kSummary).text);
    const Report details = Show(kDetails, "");
    EXPECT_EQ(kNotRunning, details.text) << "before the handle is looked for";
    EXPECT_EQ(0u, details.result);
}

TEST(SocketReport, SaysThatThereAreNoSockets) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_SocketStopWorkerThread();
    EXPECT_EQ("No Sockets currently exist...", Show(kSummary).text);
    EXPECT_EQ("No Sockets currently exist...", Show(kDetails, "77").text);
    const Report missing = Show(kDetails, "");
    EXPECT_EQ(1u, missing.result) << "the handle is looked for first";
    EXPECT_EQ(kNoText, missing.text);
}

TEST(SocketReport, WithoutAHandleTheDetailsHaveNoText) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    for (const char* pszArguments : {"", "   ", "0", "none", "\"\""}) {
        const Report report = Show(kDetails, pszArguments);
        EXPECT_EQ(1u, report.result) << pszArguments;
        EXPECT_EQ(kNoText, report.text) << pszArguments;
    }
    char* pszResponse = nullptr;
    EXPECT_EQ(1u, tq_SocketShowSockets(&pszResponse, kDetails, nullptr));
    EXPECT_EQ(nullptr, pszResponse);
    EXPECT_EQ(1u, tq_SocketShowSockets(nullptr, kSummary, nullptr));
}

TEST(SocketReport, AnUnknownHandleIsInvalid) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    EXPECT_EQ("Invalid Socket Handle supplied.\r\n", Details(4000000000u));
}

TEST(SocketReport, ListsTheSocketsOldestFirst) {
    Library library;
    RecordingQueue queue(kRunning);
    const unsigned int hUdp = tq_SocketOpenUDP(queue.GetHandle(), inet_addr("127.1.2.3"), 65535, 0, Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hUdp));
    const unsigned int hServer = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
    ASSERT_NE(0u, hServer);
    tq_SocketSetName(hUdp, "%s%n of the user");
    tq_SocketSetName(hServer, nullptr);
    unsigned int hBreaker = 0;
    {
        tq_ListLock lock(pListOfSockets);
        hBreaker = static_cast<const SOCKET_INSTANCE*>(pListOfSockets->GetTail())->handle;
    }
    WithRecord(hBreaker, [](SOCKET_INSTANCE& record) { EXPECT_STREQ("TQOS: Breaker Socket", record.pszName); });

    const Report report = Show(kSummary);
    EXPECT_EQ(0u, report.result);
    const size_t rows = report.text.find(
        Row(hUdp, 'U', 'C', Local(tq_SocketGetBoundPort(hUdp)), "127.1.2.3:65535", "%s%n of the user"));
    ASSERT_NE(std::string::npos, rows) << report.text;
    const std::string breaker = report.text.substr(0, rows);
    ASSERT_GT(breaker.size(), kLegend.size());
    EXPECT_EQ(kLegend, breaker.substr(0, kLegend.size()));
    char start[40];
    snprintf(start, sizeof(start), "%-6u T B ", hBreaker);
    EXPECT_EQ(start, breaker.substr(kLegend.size(), 11));
    EXPECT_EQ(Row(hUdp, 'U', 'C', Local(tq_SocketGetBoundPort(hUdp)), "127.1.2.3:65535", "%s%n of the user") +
                  Row(hServer, 'T', 'L', Local(tq_SocketGetBoundPort(hServer)), "0.0.0.0:0", "(unnamed)"),
              report.text.substr(rows));
}

TEST(SocketReport, EveryTypeAndStateHasItsLetterAndItsWord) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    const struct {
        unsigned int type, state;
        char typeLetter, stateLetter;
        const char *typeWord, *stateWord;
    } kCodes[] = {
        {SOCKET_TYPE_TCP, SOCKET_STATE_BREAKER, 'T', 'B', "TCP", "BREAKER"},
        {SOCKET_TYPE_UDP, SOCKET_STATE_LISTEN, 'U', 'L', "UDP", "LISTENING"},
        {SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTING, 'T', 'T', "TCP", "CONNECTING"},
        {SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTED, 'T', 'C', "TCP", "CONNECTED"},
        {SOCKET_TYPE_TCP, SOCKET_STATE_CLOSED, 'T', 'X', "TCP", "CLOSED"},
        {7, 0, '?', '?', "?", "?"},
    };
    for (const auto& code : kCodes) {
        tq_ListLock lock(pListOfSockets);
        ForeignRecord record(code.type, code.state);
        EXPECT_TRUE(HasRow(Show(kSummary).text, Row(record->handle, code.typeLetter, code.stateLetter, "0.0.0.0:0",
                                                    "0.0.0.0:0", "(unnamed)")))
            << Show(kSummary).text;
        const std::string details = Details(record->handle);
        EXPECT_NE(std::string::npos, details.find(std::string("             type: ") + code.typeWord + "\r\n"));
        EXPECT_NE(std::string::npos, details.find(std::string("            state: ") + code.stateWord + "\r\n"));
    }
}

TEST(SocketReport, ALocalDomainSocketShowsItsPathAndItsEnds) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets);
    ForeignRecord record(SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTED);
    record->pszSocketName = tq_newString("/tmp/%s/socket");
    EXPECT_TRUE(
        HasRow(Show(kSummary).text, Row(record->handle, 'T', 'C', "DOMAIN-Client", "DOMAIN-Server", "(unnamed)") +
                                        "  Socket Name: /tmp/%s/socket\r\n\r\n"));
    const std::string details = Details(record->handle);
    EXPECT_NE(std::string::npos, details.find("      Src address: DOMAIN-Client\r\n      Dst address: DOMAIN-Server\r\n"
                                              "      Socket Name: /tmp/%s/socket\r\n             MsgQ: 5\r\n"))
        << details;

    record->srcaddr.sin_addr.s_addr = Loopback();
    record->srcaddr.sin_port = htons(80);
    EXPECT_TRUE(
        HasRow(Show(kSummary).text, Row(record->handle, 'T', 'C', "127.0.0.1:80", "DOMAIN-Server", "(unnamed)")))
        << "an end with an address shows it";
}

TEST(SocketReport, ShowsARealDomainServer) {
    Library library;
    RecordingQueue queue(kRunning);
    const std::string path = library.Path() + "/listener";
    const unsigned int hSocket = tq_SocketOpenTCPServerDomain(queue.GetHandle(), Bytes(path), 0);
    ASSERT_NE(0u, hSocket);
    tq_SocketSetName(hSocket, "domain");
    EXPECT_TRUE(HasRow(Show(kSummary).text, Row(hSocket, 'T', 'L', "DOMAIN-Client", "DOMAIN-Server", "domain") +
                                                "  Socket Name: " + path + "\r\n\r\n"));
}

TEST(SocketReport, DetailsShowEveryField) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets);
    ForeignRecord record(SOCKET_TYPE_UDP, SOCKET_STATE_CONNECTED);
    record->pszName = tq_newString("the %s socket");
    record->IsMultiCast = 1;
    record->hMsgQ = 4294967295u;
    record->UserParm = 123;
    record->DataInCount = 17;
    record->DataInCap = 1000;
    record->DataOutCount = 1; // the blocks count, not this
    record->srcaddr.sin_addr.s_addr = Loopback();
    record->srcaddr.sin_port = htons(1234);
    record->dstaddr.sin_addr.s_addr = inet_addr("255.255.255.255");
    record->dstaddr.sin_port = htons(65535);
    for (unsigned int size : {100u, 23u}) {
        DATA_BLOCK* const pBlock = MakeDataBlock(size);
        pBlock->size = size;
        ASSERT_TRUE(AppendBlockLocked(record.Record(), &record->pDataOutList, pBlock));
    }
    const std::string handle = std::to_string(record->handle);
    const std::string report = Show(kDetails, "  " + handle + " rest").text;
    record->IsMultiCast = 0; // the descriptor is none, and no group is left
    EXPECT_EQ(" Details for socket handle: " + handle +
                  "\r\n"
                  "             Name: the %s socket\r\n"
                  "           socket: 4294967295\r\n"
                  "             type: UDP\r\n"
                  "            state: CONNECTED\r\n"
                  "       Multicast?: Yes\r\n"
                  "      Src address: 127.0.0.1:1234\r\n"
                  "      Dst address: 255.255.255.255:65535\r\n"
                  "             MsgQ: 4294967295\r\n"
                  "         UserParm: 123\r\n"
                  "      Data In Cap: 1000\r\n"
                  "     Data Out Cap: 4294967295\r\n"
                  "  Data To Process: 17 bytes\r\n"
                  "     Data To Send: 123 bytes\r\n"
                  "     Socket State History:\r\n",
              report);
    EXPECT_NE(std::string::npos, Details(record->handle).find("       Multicast?: No\r\n"));
}

TEST(SocketReport, TheHistoryGoesBackwardsFromTheLastEvent) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets);
    ForeignRecord record(SOCKET_TYPE_TCP, SOCKET_STATE_CONNECTED);
    // Slots 2 to 9 and then 0 and 1 are the order of the events; slot 5 is empty.
    const unsigned int codes[kSocketHistorySize] = {5, 6, 9, 4294967295u, 4, 0, 3, 2, 1, 1};
    for (unsigned int slot = 0; slot < kSocketHistorySize; ++slot) {
        record->SocketStateHistory[slot] = codes[slot];
        record->SocketStateTime[slot] = slot == 1 ? 4294967295u : slot * 10;
    }
    record->SocketStateHistoryIndex = 2;
    const std::string report = Details(record->handle);
    const std::string heading = "     Socket State History:\r\n";
    const size_t history = report.find(heading);
    ASSERT_NE(std::string::npos, history);
    EXPECT_EQ("     4294967295:tq_SocketSend()\r\n"
              "              0:tq_SocketRecv()\r\n"
              "             90:Readable\r\n"
              "             80:Readable\r\n"
              "             70:Writeable\r\n"
              "             60:Failed\r\n"
              "             40:(Linux) Writeable Failed\r\n"
              "             30:Invalid / Unknown State!\r\n"
              "             20:Invalid / Unknown State!\r\n",
              report.substr(history + heading.size()));
}

TEST(SocketReport, LongNamesAreShownWhole) {
    Library library;
    RecordingQueue queue(kRunning);
    const std::string name(5000, 'n');
    std::vector<unsigned int> handles;
    std::string rows;
    for (int i = 0; i < 20; ++i) {
        const unsigned int hSocket = tq_SocketOpenTCPServer(queue.GetHandle(), 0, 0, Loopback());
        ASSERT_NE(0u, hSocket);
        tq_SocketSetName(hSocket, name.c_str());
        rows += Row(hSocket, 'T', 'L', Local(tq_SocketGetBoundPort(hSocket)), "0.0.0.0:0", name);
        handles.push_back(hSocket);
    }
    const std::string report = Show(kSummary).text;
    ASSERT_GT(report.size(), rows.size());
    EXPECT_TRUE(rows == report.substr(report.size() - rows.size()));
    EXPECT_NE(std::string::npos, Details(handles[0]).find("             Name: " + name + "\r\n"));
}

TEST(SocketReport, WithoutMemoryThereIsNoReport) {
    Library library("[Memory]\nEnableMemoryTracking=yes\n");
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_SocketStopWorkerThread(); // which allocates too
    tq_ListLock lock(pListOfSockets);
    ForeignRecord record(SOCKET_TYPE_TCP, SOCKET_STATE_CLOSED);
    gMemoryCapInBytes = 1;
    const Report report = Show(kSummary);
    gMemoryCapInBytes = 0;
    EXPECT_EQ(0u, report.result);
    EXPECT_EQ(kNoText, report.text);
}

TEST(SocketReport, InterfacesAreNumberedFromZero) {
    Library library;
    std::string expected;
    const unsigned int count = tq_SocketGetInterfaceCount();
    ASSERT_NE(0u, count);
    for (unsigned int i = 0; i < count; ++i) {
        char mac[18] = "";
        char line[100];
        tq_GetMACofInterface(mac, i);
        snprintf(line, sizeof(line), "Interface %u:  ip: %-16s  MAC: %s\r\n", i,
                 tq_inet_ntoa(tq_SocketGetInterfaceAddress(i)), mac);
        expected += line;
    }
    char* pszResponse = nullptr;
    EXPECT_EQ(count, tq_SocketShowInterfaces(&pszResponse));
    EXPECT_EQ(expected, Taken(pszResponse));
    EXPECT_EQ(count, tq_SocketShowInterfaces(nullptr));
}

TEST(SocketReport, AllTwentyInterfacesAreShownTheLastTwoWithoutMac) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets); // the worker does not read the machine's own meanwhile
    std::string expected;
    g_localAddressCount = kInterfaces;
    for (unsigned int i = 0; i < kInterfaces; ++i) {
        g_localAddresses[i].ip = 0xFFFFFFFF;
        const char* pszMac = i < kMacAddresses ? "00:11:22:AA:BB:CC" : "";
        if (i < kMacAddresses) {
            snprintf(g_localMacAddresses[i], kMacTextSize, "%s", pszMac);
        }
        expected += "Interface " + std::to_string(i) + ":  ip: 255.255.255.255   MAC: " + pszMac + "\r\n";
    }
    char* pszResponse = nullptr;
    EXPECT_EQ(kInterfaces, tq_SocketShowInterfaces(&pszResponse));
    EXPECT_EQ(expected, Taken(pszResponse));
}

TEST(SocketReport, WithoutALibraryThereAreNoInterfaces) {
    char* pszResponse = nullptr;
    EXPECT_EQ(0u, tq_SocketShowInterfaces(&pszResponse));
    EXPECT_EQ("There are no socket interfaces available.\r\n", Taken(pszResponse));
}

TEST(SocketReport, IsTrueWhileSocketsComeAndGo) {
    Library library;
    RecordingQueue queue(kRunning);
    ASSERT_EQ(0u, tq_SocketInitialize());
    std::atomic<bool> bStop{false};
    std::thread churn([&] {
        while (!bStop) {
            const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), Loopback(), 9, 0, Loopback(), 0);
            tq_SocketSetName(hSocket, "churn");
            tq_SocketClose(hSocket);
        }
    });
    for (int i = 0; i < 300; ++i) {
        const std::string report = Show(kSummary).text;
        EXPECT_EQ(kLegend, report.substr(0, kLegend.size()));
        EXPECT_EQ("\r\n", report.substr(report.size() - 2));
        const std::string details =
            Show(kDetails, std::to_string(queue.GetHandle() + 5 + static_cast<unsigned>(i))).text;
        EXPECT_TRUE(details.rfind(" Details for", 0) == 0 || details == "Invalid Socket Handle supplied.\r\n");
    }
    bStop = true;
    churn.join();
}

TEST(Socket, IsFoundByItsHandleAmongMany) {
    Library library;
    ASSERT_EQ(0u, tq_SocketInitialize());
    tq_ListLock lock(pListOfSockets);
    std::vector<SOCKET_INSTANCE*> records;
    for (int i = 0; i < 5000; ++i) {
        records.push_back(MakeSocketRecord(SOCKET_TYPE_TCP, SOCKET_STATE_CLOSED, 0, 0));
        ASSERT_TRUE(AddSocketLocked(records.back()));
    }
    for (size_t i = 0; i < records.size(); i += 2) {
        const unsigned int handle = records[i]->handle;
        RemoveSocketLocked(records[i]);
        EXPECT_EQ(nullptr, FindSocketLocked(handle));
        CleanUpSocket(records[i], false);
    }
    for (size_t i = 1; i < records.size(); i += 2) {
        EXPECT_EQ(records[i], FindSocketLocked(records[i]->handle));
        RemoveSocketLocked(records[i]);
        CleanUpSocket(records[i], false);
    }
    EXPECT_EQ(nullptr, FindSocketLocked(0));
}
