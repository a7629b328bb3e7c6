// What the library takes of a device's memory: its file, and on the heap the running library and each object. Every
// figure has a budget. One that is passed means that something has grown, and that docs/scaling.md is to say why. The
// table in README.md has the figures themselves, and is held against them.
#include <gtest/gtest.h>

#include <atomic>
#include <ctype.h>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tqos.h>

#include "TestSupport.h"

namespace {

constexpr bool kIs32 = sizeof(void*) == 4;

/// Budgets in bytes, in both widths: what was measured on x86, and half as much again.
struct Budget {
    long long bytes32;
    long long bytes64;
    long long Bytes() const { return kIs32 ? bytes32 : bytes64; }
};

// The code of another processor has another size, and README.md a row for it.
#if defined(__arm__)
constexpr bool kIsX86 = false;
constexpr char kLibraryFileRow[] = "library file on armhf";
constexpr Budget kLibraryFile = {345000, 0};
#elif defined(__mips__)
constexpr bool kIsX86 = false;
constexpr char kLibraryFileRow[] = "library file on mips";
constexpr Budget kLibraryFile = {880000, 0};
#else
constexpr bool kIsX86 = true;
constexpr char kLibraryFileRow[] = "library file";
constexpr Budget kLibraryFile = {600000, 560000};
#endif
constexpr Budget kAfterStart = {60000, 93000};
constexpr Budget kQueue = {1600, 3000};
constexpr Budget kTimer = {146, 218};
constexpr Budget kSocket = {540, 630};
constexpr Budget kSession = {2300, 2400};
constexpr Budget kList = {264, 480};
constexpr Budget kNode = {20, 38};

/// What the heap has handed out.
long long HeapBytes() {
#if __GLIBC_PREREQ(2, 33)
    const struct mallinfo2 info = mallinfo2();
#else
    const struct mallinfo info = mallinfo();
#endif
    return static_cast<long long>(info.uordblks) + static_cast<long long>(info.hblkhd);
}

/// Bytes of the heap for each of so many objects, after a first one that brings what they share.
double BytesOfEach(int count, const std::function<void(int)>& make) {
    make(0);
    const long long before = HeapBytes();
    for (int i = 1; i <= count; ++i) {
        make(i);
    }
    return static_cast<double>(HeapBytes() - before) / count;
}

/// What README.md says of it in this width; -1 when it has no row.
double FigureInReadme(const std::string& what) {
    std::istringstream readme(test::ReadFile(TQOS_README));
    std::string line;
    while (std::getline(readme, line)) {
        if (line.rfind("| " + what + " |", 0) == 0) {
            std::string digits;
            const size_t second = line.find('|', line.find('|', 1) + 1);
            const size_t begin = kIs32 ? what.size() + 4 : second;
            for (size_t at = begin; at < line.find('|', begin + 1); ++at) {
                digits += isdigit(static_cast<unsigned char>(line[at])) ? line.substr(at, 1) : "";
            }
            return atof(digits.c_str());
        }
    }
    return -1;
}

void ExpectAsInReadme(const char* pszWhat, double figure) {
    const double said = FigureInReadme(pszWhat);
    EXPECT_NEAR(figure, said, said * 0.15) << "README.md has another figure for: " << pszWhat;
}

void ExpectWithin(const Budget& budget, double bytes, const char* pszWhat) {
    testing::Test::RecordProperty(pszWhat, std::to_string(static_cast<long long>(bytes)));
    printf("%s: %.0f bytes, of %lld\n", pszWhat, bytes, budget.Bytes());
    EXPECT_GT(bytes, 0) << pszWhat;
    EXPECT_LE(bytes, static_cast<double>(budget.Bytes())) << pszWhat;
}

/// The heap's figures in README.md are those of x86: another processor aligns blocks in its own way.
void ExpectHeapWithin(const Budget& budget, double bytes, const char* pszWhat) {
    ExpectWithin(budget, bytes, pszWhat);
    if (kIsX86) {
        ExpectAsInReadme(pszWhat, bytes);
    }
}

/// How many entries a directory of /proc/self has.
double EntriesOf(const char* pszDirectory) {
    const std::filesystem::directory_iterator entries(pszDirectory);
    return static_cast<double>(std::distance(begin(entries), end(entries)));
}

class Queue : public tq_MsgQ {
public:
    Queue() : tq_MsgQ("Footprint", "a queue") { Create(0); }
    ~Queue() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override {
        bHandled = true; // its thread has begun, and has what the C library gives a thread
        tq_free(pMsg);
    }
    std::atomic<bool> bHandled{false};
};

int ConnectTo(unsigned int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

/// Reads until the prompt: the session is then all there.
void WaitForPrompt(int fd) {
    char c = 0;
    while (c != '>') {
        ASSERT_EQ(read(fd, &c, 1), 1);
    }
}

} // namespace

TEST(Footprint, TheStrippedLibraryIsWithinItsBudget) {
    const test::ScratchDirectory directory;
    ASSERT_EQ(system(TQOS_STRIP " -o stripped.so " TQOS_LIBRARY), 0);
    struct stat status;
    ASSERT_EQ(stat("stripped.so", &status), 0);
    const double bytes = static_cast<double>(status.st_size);
    ExpectWithin(kLibraryFile, bytes, kLibraryFileRow);
    ExpectAsInReadme(kLibraryFileRow, bytes);
}

TEST(Footprint, TheStartedLibraryIsWithinItsBudget) {
    const test::ScratchDirectory directory;
    const double threads = EntriesOf("/proc/self/task");
    const double descriptors = EntriesOf("/proc/self/fd");
    const long long before = HeapBytes();
    ASSERT_EQ(tqOS_Initialize(), 0u);
    const long long after = HeapBytes();
    ExpectAsInReadme("threads after the start", EntriesOf("/proc/self/task") - threads);
    ExpectAsInReadme("descriptors after the start", EntriesOf("/proc/self/fd") - descriptors);
    tqOS_Terminate(false, true);
    ExpectHeapWithin(kAfterStart, static_cast<double>(after - before), "heap after the start");
}

TEST(Footprint, AQueueIsWithinItsBudget) {
    const test::Library library;
    std::vector<std::unique_ptr<Queue>> queues;
    ExpectHeapWithin(kQueue,
                     BytesOfEach(100,
                                 [&](int) {
                                     queues.push_back(std::make_unique<Queue>());
                                     ASSERT_TRUE(test::WaitUntil([&] { return queues.back()->bHandled.load(); }));
                                 }),
                     "heap of a queue");
}

TEST(Footprint, ATimerIsWithinItsBudget) {
    const test::Library library;
    ExpectHeapWithin(kTimer,
                     BytesOfEach(1000,
                                 [](int i) {
                                     ASSERT_EQ(tq_TimerSet(4711, 1000000, static_cast<unsigned int>(i), 0, 0,
                                                           TQ_TIMER_ONE_SHOT, nullptr, false),
                                               0u);
                                 }),
                     "heap of a timer");
}

TEST(Footprint, ASocketIsWithinItsBudget) {
    const test::Library library;
    Queue queue;
    ExpectHeapWithin(kSocket,
                     BytesOfEach(100,
                                 [&](int) {
                                     ASSERT_NE(tq_SocketOpenUDP(queue.GetHandle(), htonl(INADDR_LOOPBACK), 9, 0,
                                                                htonl(INADDR_LOOPBACK), 0),
                                               0u);
                                 }),
                     "heap of a socket");
}

TEST(Footprint, ASessionOfTheConsoleIsWithinItsBudget) {
    const test::Library library;
    const unsigned int port = tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr);
    ASSERT_NE(port, 0u);
    std::vector<int> clients;
    ExpectHeapWithin(kSession,
                     BytesOfEach(20,
                                 [&](int) {
                                     clients.push_back(ConnectTo(port));
                                     WaitForPrompt(clients.back());
                                 }),
                     "heap of a session");
    tq_TelnetTerminate();
    for (const int fd : clients) {
        close(fd);
    }
}

TEST(Footprint, AListAndItsNodesAreWithinTheirBudgets) {
    const test::Library library;
    std::vector<std::unique_ptr<tq_List>> lists(1001);
    ExpectHeapWithin(kList,
                     BytesOfEach(1000, [&](int i) { lists[static_cast<size_t>(i)] = std::make_unique<tq_List>("F"); }),
                     "heap of a list");
    int node = 0;
    ExpectHeapWithin(kNode, BytesOfEach(1600, [&](int) { lists[0]->AddToTail(&node); }), "heap of a node");
}
