// What the network meets: the console's listener and the network trace, with peers that are many, silent, fast or
// hostile. Counts are those of a submission; with TQOS_TRUST set in the environment they are those of scripts/trust.
#include <algorithm>
#include <atomic>
#include <malloc.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "MemoryCap.h"
#include "tq_MsgQ_p.h"
#include "tq_NetTrace_p.h"
#include "tq_Socket_p.h"
#include "tq_TelnetGuard_p.h"
#include "tq_Telnet_p.h"

namespace {

using test::Console;
using test::ConsoleClient;
using test::CountOf;
using test::Fd;
using test::Library;
using test::WaitUntil;

const char kPassword[] = "Open, Sesame";
const char kWarningsInAFile[] = "[Trace]\ntqos_Level=Warning\ntqos_LogToFile=trace.log\n";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

bool IsTrustRun() {
    return getenv("TQOS_TRUST") != nullptr;
}

/// A count: on a submission, and of scripts/trust. A sanitizer makes everything so slow that it gets a part of it.
size_t Count(size_t submission, size_t trust) {
    return IsTrustRun() ? trust : kSanitized ? submission / 16 : submission;
}

/// What scripts/trust keeps.
void Done(const char* pszWhat, size_t count) {
    if (IsTrustRun()) {
        printf("TRUST %s|%zu\n", pszWhat, count);
    }
}

double Seconds(clockid_t clock) {
    struct timespec now = {};
    EXPECT_EQ(0, clock_gettime(clock, &now));
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Bytes of the heap in use, the test's own included.
size_t HeapBytes() {
    if (kSanitized) { // its heap is its own
        return test::AllocatedBytes();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// Lets this process have more descriptors; false when it must not.
bool AllowDescriptors(rlim_t count) {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < count) {
        return false;
    }
    limit.rlim_cur = std::max(limit.rlim_cur, count);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

/// A peer with an address of its own among those of loopback, connected or on its way there.
Fd Peer(unsigned int port, unsigned int number, int flags = 0) {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    struct sockaddr_in from = test::LoopbackAddress(0);
    from.sin_addr.s_addr = htonl(0x7F010001 + number);
    EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&from), sizeof(from))) << strerror(errno);
    EXPECT_TRUE(test::ConnectPeer(fd, port) || errno == EINPROGRESS) << strerror(errno);
    return fd;
}

size_t Readable(const std::vector<Fd>& peers) {
    std::vector<struct pollfd> wait;
    for (const Fd& peer : peers) {
        wait.push_back({peer.Get(), POLLIN, 0});
    }
    poll(wait.data(), static_cast<nfds_t>(wait.size()), 0);
    return static_cast<size_t>(
        std::count_if(wait.begin(), wait.end(), [](const struct pollfd& one) { return (one.revents & POLLIN) != 0; }));
}

/// Lets peers come until there are so many, no faster than the system lets them in: each has been greeted before many
/// more follow, until so many are greeted that no more can be. False when they are not greeted.
bool Crowd(std::vector<Fd>* pPeers, unsigned int port, size_t count, size_t greeted) {
    constexpr size_t kAtOnce = 64; // fewer than a listener keeps waiting
    while (pPeers->size() < count) {
        const size_t now = pPeers->size() < greeted ? std::min(pPeers->size() + kAtOnce, greeted) : count;
        while (pPeers->size() < now) {
            pPeers->push_back(Peer(port, static_cast<unsigned int>(pPeers->size()), SOCK_NONBLOCK));
        }
        if (!WaitUntil([&] { return Readable(*pPeers) >= std::min(now, greeted); }, 60)) {
            return false;
        }
    }
    return true;
}

/// Logs in as somebody who knows the password, and has a command answered. Returns the seconds until the first prompt.
double LogIn(unsigned int port) {
    const double before = Seconds(CLOCK_MONOTONIC);
    ConsoleClient user(port);
    user.ReadTo("login: ");
    const double seconds = Seconds(CLOCK_MONOTONIC) - before;
    user.Send(std::string(kPassword) + "\r");
    user.ReadTo("Welcome...\r\n\r\n>");
    user.Send("sh tic\r");
    user.ReadTo("clock tick.\r\n\r\n\r\n>");
    return seconds;
}

/// The seconds until somebody is greeted who tries anew each tenth of a second: a connection that comes while the
/// listener has no room for it is tried again by its own system no sooner than after one.
double SecondsUntilServed(unsigned int port) {
    const double begun = Seconds(CLOCK_MONOTONIC);
    std::vector<Fd> tries;
    do {
        tries.push_back(Peer(port, static_cast<unsigned int>(tries.size()), SOCK_NONBLOCK));
        struct pollfd wait = {tries.back().Get(), POLLIN, 0};
        poll(&wait, 1, 100);
    } while (Readable(tries) == 0 && tries.size() < 600);
    EXPECT_NE(0u, Readable(tries));
    return Seconds(CLOCK_MONOTONIC) - begun;
}

/// A limit of time that a machine may miss which does other things beside.
void ExpectWithinASecond(double seconds) {
    if (IsTrustRun()) {
        EXPECT_LT(seconds, 1.0);
    }
}

// Descriptors

/// A device with a console, in a process of its own that may have so many descriptors.
class Device {
public:
    explicit Device(rlim_t descriptors) {
        int toDevice[2];
        int fromDevice[2];
        EXPECT_TRUE(pipe(toDevice) == 0 && pipe(fromDevice) == 0);
        m_pid = fork();
        if (m_pid == 0) {
            close(toDevice[1]);
            close(fromDevice[0]);
            Run(descriptors, toDevice[0], fromDevice[1]);
        }
        close(toDevice[0]);
        close(fromDevice[1]);
        m_stop = Fd(toDevice[1]);
        Fd told(fromDevice[0]);
        EXPECT_EQ(static_cast<ssize_t>(sizeof(m_port)), read(told.Get(), &m_port, sizeof(m_port)));
    }
    ~Device() { Stop(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    unsigned int Port() const { return m_port; }

    /// The seconds of a processor that it has used.
    double ProcessorSeconds() const {
        clockid_t clock;
        EXPECT_EQ(0, clock_getcpuclockid(m_pid, &clock));
        return Seconds(clock);
    }

    /// True when it ends as it should.
    bool Stop() {
        if (m_pid <= 0) {
            return false;
        }
        m_stop.Close();
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return WIFEXITED(status) && WEXITSTATUS(status) == kEnded;
    }

private:
    static constexpr int kEnded = 44; // not 0, which a crash ends with

    [[noreturn]] static void Run(rlim_t descriptors, int stop, int tell) {
        const struct rlimit limit = {descriptors, descriptors};
        alarm(300);
        {
            Library library;
            const unsigned int port =
                setrlimit(RLIMIT_NOFILE, &limit) == 0 ? tq_TelnetInitialize(0, test::Loopback(), kPassword) : 0;
            ssize_t result = write(tell, &port, sizeof(port));
            char byte;
            result = read(stop, &byte, 1);
            static_cast<void>(result);
            tq_TelnetTerminate();
        }
        _exit(kEnded);
    }

    const test::WaitableChildren m_waitable; // where other tests ran in this process before
    pid_t m_pid = 0;
    Fd m_stop;
    unsigned int m_port = 0;
};

class Descriptors : public testing::TestWithParam<unsigned int> {};

/// True when the device rests: in one of many seconds it uses less than a twentieth of a processor. One that spins uses
/// the whole of it in each.
bool Rests(const Device& device) {
    for (int second = 0; second < 30; ++second) {
        const double used = device.ProcessorSeconds();
        const double begun = Seconds(CLOCK_MONOTONIC);
        const struct timespec pause = {1, 0};
        nanosleep(&pause, nullptr);
        if (device.ProcessorSeconds() - used < 0.05 * (Seconds(CLOCK_MONOTONIC) - begun)) {
            return true;
        }
    }
    return false;
}

TEST_P(Descriptors, WhenAllAreTakenTheConsoleRestsAndServesAgainWhenTheyAreBack) {
    constexpr size_t kPeers = 5000;
    constexpr size_t kOwn = 40; // more than the device and what it was started with have open itself
    Device device(GetParam());
    ASSERT_NE(0u, device.Port());
    if (!AllowDescriptors(kPeers + 200)) {
        GTEST_SKIP() << "this machine lets a process have fewer than " << kPeers << " descriptors";
    }
    std::vector<Fd> peers;
    ASSERT_TRUE(Crowd(&peers, device.Port(), kPeers, GetParam() - kOwn)) << Readable(peers);
    EXPECT_LT(Readable(peers), GetParam());
    EXPECT_TRUE(Rests(device));
    peers.clear();
    const double seconds = SecondsUntilServed(device.Port());
    LogIn(device.Port());
    EXPECT_TRUE(device.Stop());
    ExpectWithinASecond(seconds);
    Done("peers at a full table of descriptors", kPeers);
}

INSTANTIATE_TEST_SUITE_P(NetworkFace, Descriptors, testing::Values(256u, kSanitized ? 1100u : 4096u),
                         [](const auto& limit) { return std::to_string(limit.param); });

TEST(NetworkFace, SilentPeersDoNotKeepAUserOut) {
    constexpr unsigned int kSilent = 1000;
    if (!AllowDescriptors(2 * kSilent + 200)) {
        GTEST_SKIP() << "this machine lets a process have too few descriptors";
    }
    Console console(kPassword);
    std::vector<Fd> silent;
    ASSERT_TRUE(Crowd(&silent, console.Port(), kSilent, kSilent)) << Readable(silent);
    ExpectWithinASecond(LogIn(console.Port()));
    Done("silent peers", kSilent);
}

// Memory before the login

std::string DetailsOf(unsigned int hSocket) {
    char* pszText = nullptr;
    std::string handle = std::to_string(hSocket);
    EXPECT_EQ(0u, tq_SocketShowSockets(&pszText, TQ_TELNET_DETAIL, &handle[0]));
    const std::string text = pszText ? pszText : "";
    tq_free(pszText);
    return text;
}

unsigned int OnlySession() {
    const tq_ListLock lock(gpTelnetInstanceList);
    const auto* pSession = static_cast<const TELNET_INSTANCE*>(gpTelnetInstanceList->GetHead());
    return pSession ? pSession->socket : 0;
}

TEST(NetworkFace, ASessionsDetailsShowItsCaps) {
    Console console(kPassword);
    ConsoleClient client = console.Connect();
    const unsigned int hSocket = OnlySession();
    const char kBefore[] = "      Data In Cap: 4096\r\n     Data Out Cap: 65536\r\n";
    const char kAfter[] = "      Data In Cap: 4096\r\n     Data Out Cap: 4294967295\r\n";
    EXPECT_NE(std::string::npos, DetailsOf(hSocket).find(kBefore)) << DetailsOf(hSocket);
    client.Send(std::string(kPassword) + "\r");
    client.ReadTo("Welcome...\r\n\r\n>");
    EXPECT_NE(std::string::npos, DetailsOf(hSocket).find(kAfter)) << DetailsOf(hSocket);
}

TEST(NetworkFace, WithoutAPasswordOnlyInputIsCapped) {
    Console console;
    ConsoleClient client = console.Connect();
    const char kCaps[] = "      Data In Cap: 4096\r\n     Data Out Cap: 4294967295\r\n";
    EXPECT_NE(std::string::npos, DetailsOf(OnlySession()).find(kCaps));
}

struct Storm {
    const char* pszName;
    std::string before;
    std::string unit;
    size_t trustBytes;
    size_t piece; ///< bytes of a send
};

void PrintTo(const Storm& storm, std::ostream* pStream) {
    *pStream << storm.pszName;
}

class Storms : public testing::TestWithParam<Storm> {};

constexpr size_t kMegabyte = 1u << 20;

/// The most that the heap grows while the bytes are sent and until they are worked off.
class HeapWatch {
public:
    HeapWatch() : m_before(HeapBytes()) {}
    void Look() { m_most = std::max(m_most, HeapBytes()); }
    size_t Growth() const { return m_most > m_before ? m_most - m_before : 0; }

private:
    size_t m_before;
    size_t m_most = 0;
};

unsigned int DepthOf(unsigned int hQueue) {
    const tq_MsgQRegistryLock registry;
    const QUEUE_DETAILS* pDetails = registry ? tq_MsgQFindLocked(hQueue) : nullptr;
    return pDetails ? pDetails->pMsgQ->GetQueueDepth(0) : 0;
}

/// For what was sent to be worked off, which may be a megabyte, byte by byte: only a hang takes so long.
constexpr unsigned int kWorkSeconds = 100 * TQOS_PATIENCE;

/// Everything that was sent to a socket has been read and handled.
bool IsWorkedOff(unsigned int hSocket, unsigned int hQueue) {
    int waiting = 1;
    {
        const tq_SocketAccess socket(hSocket);
        if (!socket || ioctl(static_cast<int>(socket->socket), FIONREAD, &waiting) != 0 || waiting != 0) {
            return false;
        }
    }
    return tq_SocketDataAvailable(hSocket) == 0 && DepthOf(hQueue) == 0;
}

TEST_P(Storms, CostAMegabyteAtMostAndOthersAreServed) {
    const Storm& storm = GetParam();
    Console console(kPassword, "[Memory]\nEnableMemoryTracking=yes\n");
    ConsoleClient attacker = console.Connect(); // never reads again
    const unsigned int hSocket = OnlySession();
    test::SendAll(attacker.Descriptor(), storm.before);
    std::string piece;
    while (piece.size() < storm.piece) {
        piece += storm.unit;
    }
    const size_t bytes = Count(storm.piece == 1 ? 20000 : kMegabyte, storm.trustBytes);
    HeapWatch heap;
    std::atomic<bool> bSent{false};
    std::thread sender([&] {
        for (size_t sent = 0; sent < bytes; sent += piece.size()) {
            test::SendAll(attacker.Descriptor(), piece);
        }
        bSent = true;
    });
    LogIn(console.Port());
    EXPECT_TRUE(WaitUntil(
        [&] {
            heap.Look();
            return bSent && IsWorkedOff(hSocket, tq_ConsoleQueueHandle());
        },
        IsTrustRun() ? 3600 : kWorkSeconds));
    sender.join();
    EXPECT_LE(heap.Growth(), kMegabyte);
    LogIn(console.Port());
    Done((std::string("bytes of ") + storm.pszName).c_str(), bytes);
}

std::vector<Storm> AllStorms() {
    const std::string negotiation("\xff\xfb\x01\xff\xfd\x03\xff\xfa\x18\x00xterm\xff\xf0\xff\xfb\x22", 19);
    return {{"CtrlEOnAFullLine", std::string(kMaxCommandLength, 'x'), "\x05", kMegabyte, 4096},
            {"NoCarriageReturn", "", "a", 50 * kMegabyte, 4096},
            {"Negotiation", "", negotiation, 4 * kMegabyte, 4096},
            {"SingleBytes", "", "a", kMegabyte, 1},
            {"Backspaces", std::string(kMaxCommandLength, 'x'), "\x08y", 4 * kMegabyte, 4096},
            {"EscapesWithZeros", "", std::string("\x1b\0\0\0\0\0\0\0\0\0\0", 11), 4 * kMegabyte, 4096}};
}

INSTANTIATE_TEST_SUITE_P(NetworkFace, Storms, testing::ValuesIn(AllStorms()),
                         [](const auto& storm) { return std::string(storm.param.pszName); });

TEST(NetworkFace, InputStaysWithThePeerWhileTheConsoleIsBusy) {
    Console console(kPassword, "[Memory]\nEnableMemoryTracking=yes\n");
    ConsoleClient attacker = console.Connect();
    const unsigned int hSocket = OnlySession();
    const int noDelay = 1;
    ASSERT_EQ(0, setsockopt(attacker.Descriptor().Get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay)));
    HeapWatch heap;
    size_t sent = 0;
    {
        const tq_ListLock lock(gpTelnetInstanceList); // as a command holds it that takes its time
        while (tq_SocketDataAvailable(hSocket) < kSessionInputCap && sent < 4 * kMegabyte) {
            sent += send(attacker.Descriptor().Get(), "a", 1, MSG_NOSIGNAL) == 1 ? 1 : 0;
        }
        const std::string more(65536, 'a');
        for (int i = 0; i < 10; ++i) {
            static_cast<void>(send(attacker.Descriptor().Get(), more.data(), more.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
        }
        ASSERT_TRUE(WaitUntil([&] { return tq_SocketDataAvailable(hSocket) == kSessionInputCap; }));
        heap.Look();
        EXPECT_EQ(kSessionInputCap, tq_SocketDataAvailable(hSocket));
    }
    EXPECT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, tq_ConsoleQueueHandle()); }, kWorkSeconds));
    EXPECT_LE(heap.Growth(), kMegabyte);
    LogIn(console.Port());
}

TEST(NetworkFace, WhatAPeerSendsBeforeItsSessionExistsIsCappedToo) {
    Console console(kPassword);
    Fd attacker;
    {
        const tq_ListLock lock(gpTelnetInstanceList); // the console comes to nobody
        attacker = Peer(console.Port(), 0);
        const std::string bytes(65536, 'a');
        test::SendAll(attacker, bytes);
        const auto most = [] {
            const tq_ListLock sockets(pListOfSockets);
            unsigned int read = 0;
            for (void* pNode = pListOfSockets->GetHead(); pNode; pNode = pListOfSockets->GetNext()) {
                read = std::max(read, static_cast<const SOCKET_INSTANCE*>(pNode)->DataInCount);
            }
            return read;
        };
        ASSERT_TRUE(WaitUntil([&] { return most() != 0; }));
        EXPECT_LE(most(), kSessionInputCap);
    }
    EXPECT_TRUE(WaitUntil([] { return OnlySession() != 0 && IsWorkedOff(OnlySession(), tq_ConsoleQueueHandle()); },
                          kWorkSeconds));
    LogIn(console.Port());
}

TEST(NetworkFace, APeerThatReadsGetsEveryEchoOfAStorm) {
    Console console(kPassword);
    ConsoleClient client = console.Connect();
    constexpr unsigned int kToggles = 60; // less than the cap
    std::string expected(kMaxCommandLength, '*');
    for (unsigned int i = 0; i < kToggles; ++i) {
        expected += std::string("\r\necho ") + (i % 2 == 0 ? "off" : "on") +
                    "\r\n\r\nlogin: " + std::string(kMaxCommandLength, '*');
    }
    client.Send(std::string(kMaxCommandLength, 'x') + std::string(kToggles, '\x05'));
    EXPECT_TRUE(client.Expect(expected));
}

// The password

TEST(NetworkFace, OnlyThePasswordItselfIsThePassword) {
    Library library;
    for (const std::string& password : {std::string("a"), std::string(kPassword), std::string(1024, 'p')}) {
        ASSERT_TRUE(tq_TelnetSetPassword(password.c_str()));
        EXPECT_TRUE(tq_TelnetNeedsPassword());
        EXPECT_TRUE(tq_TelnetIsPassword(password.data(), password.size()));
        EXPECT_FALSE(tq_TelnetIsPassword("", 0));
        for (size_t length = 0; length < password.size(); ++length) {
            EXPECT_FALSE(tq_TelnetIsPassword(password.data(), length));
            std::string wrong = password;
            wrong[length] = static_cast<char>(wrong[length] ^ 0x20);
            EXPECT_FALSE(tq_TelnetIsPassword(wrong.data(), wrong.size())) << length;
        }
        for (const std::string& more : {std::string("a"), std::string(" "), std::string("\0", 1).append("x")}) {
            EXPECT_FALSE(tq_TelnetIsPassword((password + more).data(), password.size() + more.size()));
        }
        tq_TelnetForgetPassword();
        EXPECT_FALSE(tq_TelnetIsPassword(password.data(), password.size()));
    }
}

TEST(NetworkFace, APasswordLongerThanALineLetsNobodyIn) {
    Library library;
    const std::string password(kMaxCommandLength + 1, 'p');
    ASSERT_TRUE(tq_TelnetSetPassword(password.c_str()));
    EXPECT_FALSE(tq_TelnetIsPassword(password.data(), kMaxCommandLength));
    EXPECT_FALSE(tq_TelnetIsPassword(password.data(), password.size()));
    tq_TelnetForgetPassword();
}

/// The least processor time that some comparisons of a line take.
double LeastTimeOf(const std::string& line) {
    double least = 1e9;
    for (int round = 0; round < 50; ++round) {
        const double begun = Seconds(CLOCK_THREAD_CPUTIME_ID);
        for (int i = 0; i < 200; ++i) {
            EXPECT_FALSE(tq_TelnetIsPassword(line.data(), line.size()));
        }
        least = std::min(least, Seconds(CLOCK_THREAD_CPUTIME_ID) - begun);
    }
    return least;
}

TEST(NetworkFace, TheTimeOfAComparisonSaysNothingOfThePassword) {
    Library library;
    const std::string password(1000, 'p');
    ASSERT_TRUE(tq_TelnetSetPassword(password.c_str()));
    std::string early = password;
    early[0] = 'q';
    std::string late = password;
    late[999] = 'q';
    const double first = LeastTimeOf(early);
    const double last = LeastTimeOf(late);
    // One that stops at the first difference takes some hundred times as long for the one as for the other.
    EXPECT_LT(last, 3 * first);
    EXPECT_LT(first, 3 * last);
    tq_TelnetForgetPassword();
}

/// Three guesses, each of them close to the password in one way or another.
std::string Guesses(unsigned int number) {
    const std::string password = kPassword;
    const size_t at = number % password.size();
    std::string changed = password;
    changed[at] = static_cast<char>(' ' + (static_cast<unsigned int>(changed[at]) - ' ' + 1 + number % 90) % 95);
    const std::string others[] = {password.substr(0, at), password + std::to_string(number), password.substr(at + 1),
                                  " " + password, std::to_string(number)};
    return changed + "\r" + others[number % 5] + "\r" + others[(number + 1) % 5] + "\r";
}

TEST(NetworkFace, NoGuessIsAcceptedAndEachIsTracedWithoutItsText) {
    Console console(kPassword, kWarningsInAFile);
    const unsigned int connections = static_cast<unsigned int>(Count(500, 33334));
    for (unsigned int i = 0; i < connections; ++i) {
        const Fd peer = Peer(console.Port(), i);
        test::SendAll(peer, Guesses(i));
        const std::string shown = test::ReadToEnd(peer); // until the third has ended the session
        ASSERT_EQ(std::string::npos, shown.find("Welcome")) << Guesses(i);
    }
    LogIn(console.Port());
    const std::string trace = test::ReadFile("trace.log");
    EXPECT_EQ(3u * connections, CountOf(trace, "(tqos) WRN: tqos Telnet: Failed login from 127."));
    EXPECT_EQ(3u, CountOf(trace, "Failed login from 127.1.0.1 port "));
    EXPECT_EQ(0u, CountOf(trace, "Sesame"));
    EXPECT_EQ(0u, CountOf(trace, "Open"));
    Done("guesses", 3 * connections);
}

TEST(NetworkFace, AnEmptyGuessIsTracedToo) {
    Console console(kPassword, kWarningsInAFile);
    ConsoleClient client = console.Connect();
    client.Send("\r");
    client.ReadTo("Invalid login attempt.\r\n\r\nlogin: ");
    EXPECT_EQ(1u, CountOf(test::ReadFile("trace.log"), "(tqos) WRN: tqos Telnet: Failed login from 127.0.0.1 port " +
                                                           std::to_string(test::PortOf(client.Descriptor())) + ".\n"));
}

TEST(NetworkFace, AnOpenConsoleOnEveryAddressIsWarnedOf) {
    const struct {
        unsigned int ip;
        const char* pszPassword;
        size_t warnings;
    } rows[] = {{0, nullptr, 1}, {0, "", 1}, {0, kPassword, 0}, {test::Loopback(), nullptr, 0}};
    for (const auto& row : rows) {
        Library library(kWarningsInAFile);
        ASSERT_NE(0u, tq_TelnetInitialize(0, row.ip, row.pszPassword));
        ASSERT_NE(0u, tq_TelnetInitialize(0, row.ip, row.pszPassword)); // one more user of the same
        EXPECT_EQ(row.warnings, CountOf(test::ReadFile("trace.log"),
                                        "(tqos) WRN: tqos Telnet: Listening on every address without a password. "
                                        "Whoever connects is logged in.\n"));
        tq_TelnetTerminate();
        tq_TelnetTerminate();
    }
}

// Stricter limits

TEST(NetworkFace, MaxSessionsClosesWhoeverComesBeyond) {
    Console console(kPassword, "[Telnet]\nMaxSessions=2\n");
    ConsoleClient first = console.Connect();
    ConsoleClient second = console.Connect();
    ConsoleClient third(console.Port());
    EXPECT_TRUE(third.IsClosed());
    first.Close();
    EXPECT_TRUE(WaitUntil([] { return gpTelnetInstanceList->NodeCount() == 1; }));
    LogIn(console.Port());
}

TEST(NetworkFace, LoginSecondsEndsASessionThatDoesNotLogInAndNoOther) {
    Console console(kPassword, "[Telnet]\nLoginSeconds=1\n");
    ConsoleClient user = console.Connect();
    user.Send(std::string(kPassword) + "\r");
    user.ReadTo("Welcome...\r\n\r\n>");
    ConsoleClient silent = console.Connect();
    silent.Send("half a pass");
    EXPECT_TRUE(silent.Expect("***********"));
    EXPECT_TRUE(silent.IsClosed());
    user.Send("sh tic\r");
    user.ReadTo("clock tick.\r\n\r\n\r\n>");
}

TEST(NetworkFace, LoginSecondsLeavesNoTimerBehind) {
    Library library("[Telnet]\nLoginSeconds=1000\n");
    const unsigned int port = tq_TelnetInitialize(0, test::Loopback(), kPassword);
    ConsoleClient leaving(port);
    leaving.ReadTo("login: ");
    const auto timers = [] {
        char* pszText = nullptr;
        tq_TimerShowTimers(&pszText);
        const std::string text = pszText ? pszText : "";
        tq_free(pszText);
        return CountOf(text, "Telnet login");
    };
    EXPECT_EQ(1u, timers());
    leaving.Close();
    EXPECT_TRUE(WaitUntil([&] { return timers() == 0; }));
    ConsoleClient staying(port);
    staying.ReadTo("login: ");
    EXPECT_EQ(1u, timers());
    tq_TelnetTerminate();
    EXPECT_EQ(0u, timers());
}

TEST(NetworkFace, BackOffSecondsHoldsAnAddressOffAfterThreeFailures) {
    Console console(kPassword, "[Telnet]\nBackOffSeconds=1000\n");
    Fd waiting = Peer(console.Port(), 7); // has a session already
    ASSERT_TRUE(WaitUntil([] { return OnlySession() != 0; }));
    for (int connection = 0; connection < 3; ++connection) { // over any number of connections
        ConsoleClient guesser(Peer(console.Port(), 7));
        guesser.ReadTo("login: ");
        guesser.Send("wrong\r");
        guesser.ReadTo("Invalid login attempt.\r\n\r\nlogin: ");
    }
    EXPECT_TRUE(ConsoleClient(Peer(console.Port(), 7)).IsClosed());
    test::SendAll(waiting, std::string(kPassword) + "\r");
    EXPECT_EQ(std::string::npos, test::ReadToEnd(waiting).find("Welcome"));
    LogIn(console.Port()); // from another address
}

TEST(NetworkFace, BackOffSecondsEndsAndAUserWhoMistypesIsNotHeldOff) {
    Console console(kPassword, "[Telnet]\nBackOffSeconds=1\n");
    for (int i = 0; i < 3; ++i) { // each login that succeeds forgets the failures
        ConsoleClient user(Peer(console.Port(), 7));
        user.ReadTo("login: ");
        user.Send("wrong\rwrong\r" + std::string(kPassword) + "\r");
        user.ReadTo("Welcome...\r\n\r\n>");
    }
    const Fd guesser = Peer(console.Port(), 8);
    test::SendAll(guesser, "1\r2\r3\r");
    test::ReadToEnd(guesser);
    EXPECT_TRUE(WaitUntil([&] {
        const Fd again = Peer(console.Port(), 8);
        return test::ReadBytes(again, 100).size() == 100; // the banner
    }));
}

TEST(NetworkFace, AnyNumberOfAddressesMayFail) {
    Console console(kPassword, "[Telnet]\nBackOffSeconds=1000\n");
    const unsigned int kAddresses = 600;
    for (unsigned int i = 0; i < kAddresses; ++i) {
        const Fd peer = Peer(console.Port(), i);
        test::SendAll(peer, "1\r2\r3\r");
        test::ReadToEnd(peer);
    }
    EXPECT_TRUE(ConsoleClient(Peer(console.Port(), kAddresses - 1)).IsClosed());
    LogIn(console.Port());
}

TEST(NetworkFace, LimitsThatAreNoneAreOff) {
    for (const char* pszValue : {"0", "-1", "-2147483648", "none", ""}) {
        std::string ini = "[Telnet]\n";
        for (const char* pszKey : {"MaxSessions=", "LoginSeconds=", "BackOffSeconds="}) {
            ini += std::string(pszKey) + pszValue + "\n";
        }
        Console console(kPassword, ini);
        const Fd guesser = Peer(console.Port(), 7);
        test::SendAll(guesser, "1\r2\r3\r");
        test::ReadToEnd(guesser);
        EXPECT_EQ(100u, test::ReadBytes(Peer(console.Port(), 7), 100).size());
        EXPECT_EQ(0u, tq_TelnetLoginMs());
        LogIn(console.Port());
    }
}

// The network trace

const char kViewed[] = "[Trace]\ntqos_Level=None\nT_Level=All\nT_SuppressTimestamp=yes\nT_LogToMulticast=yes\n";

/// A text with its terminator, as it goes over the wire.
std::string Wire(const std::string& text) {
    return text + '\0';
}

unsigned int SenderSocket(unsigned int handle) {
    tq_LockedTrace trace;
    return static_cast<unsigned int>(tq_FindTraceInstanceLocked(handle)->iSocket);
}

unsigned int ViewersOf(unsigned int handle) {
    tq_LockedTrace trace;
    return tq_FindTraceInstanceLocked(handle)->pNetTrace->Viewers();
}

/// Sends a datagram from an address of its own.
Fd SendFrom(unsigned int number, unsigned int port, const std::string& bytes) {
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in from = test::LoopbackAddress(0);
    from.sin_addr.s_addr = htonl(0x7F010001 + number);
    EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&from), sizeof(from)));
    const struct sockaddr_in to = test::LoopbackAddress(port);
    sendto(fd.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const struct sockaddr*>(&to), sizeof(to));
    return fd;
}

/// Lets the keep-alive timer of a sender fire at once.
void FireKeepAlive(unsigned int hSocket) {
    EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, gpTraceMsgQ->GetHandle(), MSG_TIMER, 2, hSocket, 0, false, 2));
}

TEST(NetworkFace, AFloodOfForgedSubscriptionsCosts200BytesEachAtMostAndGoes) {
    Library library(kViewed);
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SenderSocket(handle);
    const unsigned int port = tq_SocketGetBoundPort(hSocket);
    const unsigned int count = static_cast<unsigned int>(Count(16000, 100000));
    HeapWatch heap;
    for (unsigned int i = 0; i < count; ++i) {
        SendFrom(i, port, Wire("TRACEON/"));
        if (i % 64 == 0) {
            heap.Look();
        }
    }
    const double ended = Seconds(CLOCK_MONOTONIC);
    heap.Look();
    EXPECT_LE(heap.Growth(), 200u * count);
    ASSERT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, gpTraceMsgQ->GetHandle()); }, kWorkSeconds));
    EXPECT_LE(ViewersOf(handle), kMostViewers);
    EXPECT_NE(0u, ViewersOf(handle));
    if (!IsTrustRun()) { // by the clock it takes 10 to 15 seconds
        FireKeepAlive(hSocket);
        FireKeepAlive(hSocket);
    }
    EXPECT_TRUE(WaitUntil([&] { return ViewersOf(handle) == 0; }));
    if (IsTrustRun()) {
        EXPECT_LE(Seconds(CLOCK_MONOTONIC) - ended, 15.0);
    }
    heap.Look();
    const Fd viewer = SendFrom(0, port, Wire("TRACEON/"));
    EXPECT_TRUE(WaitUntil([&] { return ViewersOf(handle) == 1; }));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "after the flood\n");
    EXPECT_TRUE(test::WaitReadable(viewer));
    Done("forged subscriptions", count);
}

TEST(NetworkFace, MaxViewersRefusesFurtherOnes) {
    Library library(std::string(kViewed) + "MaxViewers=2\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SenderSocket(handle);
    const unsigned int port = tq_SocketGetBoundPort(hSocket);
    std::vector<Fd> viewers;
    for (unsigned int i = 0; i < 5; ++i) {
        viewers.push_back(SendFrom(i, port, Wire("TRACEON/")));
    }
    ASSERT_TRUE(WaitUntil([&] { return ViewersOf(handle) == 2; }));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "to both\n");
    EXPECT_TRUE(test::WaitReadable(viewers[0]) && test::WaitReadable(viewers[1]));
    ASSERT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, gpTraceMsgQ->GetHandle()); }, kWorkSeconds));
    EXPECT_EQ(2u, ViewersOf(handle));
}

TEST(NetworkFace, MaxViewersCountsAsTheMostThatThereAreWhenItIsMore) {
    Library library(std::string(kViewed) + "MaxViewers=1000\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SenderSocket(handle);
    for (unsigned int i = 0; i < 130; ++i) {
        SendFrom(i, tq_SocketGetBoundPort(hSocket), Wire("TRACEON/"));
        ASSERT_TRUE(WaitUntil([&] { return ViewersOf(handle) == std::min(i + 1, 128u); })) << i;
    }
    ASSERT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, gpTraceMsgQ->GetHandle()); }));
    EXPECT_EQ(128u, ViewersOf(handle));
}

TEST(NetworkFace, AllowedViewersTakesRequestsFromNobodyElse) {
    const struct {
        const char* pszAllowed;
        bool bIsIn[3]; ///< 127.1.0.1, 127.1.0.2, 127.1.1.1
    } rows[] = {
        {"", {true, true, true}},
        {"127.1.0.1", {true, false, false}},
        {"10.0.0.1, 127.1.0.2 127.1.1.1", {false, true, true}},
        {"127.1.0.0/24", {true, true, false}},
        {"127.1.1.77/16", {true, true, true}},
        {"0.0.0.0/0", {true, true, true}},
        {"10.0.0.0/8", {false, false, false}},
        {"127.1.0.1/33,127.1.0.1/,127.1.0.1/x,127.1.0.1/32x,127.1.0,nobody", {false, false, false}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pszAllowed);
        Library library(std::string(kViewed) + "AllowedViewers=" + row.pszAllowed + "\n");
        const unsigned int handle = tq_TraceInitInstance("T");
        const unsigned int hSocket = SenderSocket(handle);
        const unsigned int numbers[] = {0, 1, 256};
        unsigned int expected = 0;
        for (size_t i = 0; i < 3; ++i) {
            const Fd viewer = SendFrom(numbers[i], tq_SocketGetBoundPort(hSocket), Wire("TRACEON/"));
            expected += row.bIsIn[i] ? 1 : 0;
            ASSERT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, gpTraceMsgQ->GetHandle()); }, kWorkSeconds));
            EXPECT_TRUE(WaitUntil([&] { return ViewersOf(handle) == expected; }));
        }
    }
}

TEST(NetworkFace, AllowedViewersHasRoomFor32Networks) {
    std::string allowed;
    for (unsigned int i = 1; i <= 31; ++i) {
        allowed += "10.0.0." + std::to_string(i) + " ";
    }
    Library library(std::string(kViewed) + "AllowedViewers=" + allowed + "127.1.0.1 127.1.0.2\n");
    const unsigned int handle = tq_TraceInitInstance("T");
    const unsigned int hSocket = SenderSocket(handle);
    const unsigned int port = tq_SocketGetBoundPort(hSocket);
    const Fd viewers[] = {SendFrom(1, port, Wire("TRACEON/")), SendFrom(0, port, Wire("TRACEON/"))};
    ASSERT_TRUE(WaitUntil([&] { return ViewersOf(handle) == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return IsWorkedOff(hSocket, gpTraceMsgQ->GetHandle()); }));
    tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "to the 32nd\n");
    EXPECT_TRUE(test::WaitReadable(viewers[1]));
    EXPECT_EQ(1u, ViewersOf(handle));
}

// Datagrams

TEST(NetworkFace, EmptyDatagramsCloseNothing) {
    Library library(kViewed);
    const unsigned int handle = tq_TraceInitInstance("T");
    test::RecordingQueue queue(test::kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, test::Loopback(), 0);
    ASSERT_TRUE(queue.WaitFor(MSG_SOCKET_CONNECTED, hSocket));
    const unsigned int ports[] = {tq_SocketGetBoundPort(hSocket), tq_SocketGetBoundPort(SenderSocket(handle))};
    for (unsigned int i = 0; i < Count(2000, 100000); ++i) {
        SendFrom(i, ports[i % 2], "");
    }
    EXPECT_TRUE(WaitUntil([&] { // a full socket drops what comes
        SendFrom(0, ports[0], "x");
        return queue.Count(MSG_SOCKET_DATAGRAM, hSocket) != 0;
    }));
    EXPECT_EQ(0u, queue.Count(MSG_SOCKET_CLOSED));
    EXPECT_TRUE(WaitUntil([&] {
        SendFrom(0, ports[1], Wire("TRACEON/"));
        return ViewersOf(handle) != 0;
    }));
    Done("empty datagrams", Count(2000, 100000));
}

} // namespace
