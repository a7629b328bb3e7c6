// The demo device: its protocol and its reading of /proc by themselves, and the program as its clients see it.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <signal.h>
#include <sstream>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "ConsoleClient.h"
#include "History.h"
#include "Protocol.h"
#include "Sample.h"
#include "TestSupport.h"

namespace {

constexpr int kHangSeconds = 60; // a limit that only a hang reaches

// ---- The protocol by itself

struct ParseRow {
    const char* pszLine;
    Verb verb;
    unsigned int number;
};

TEST(DeviceProtocol, UnderstandsItsCommandsInEitherCaseAndWithAnyBlanks) {
    const ParseRow rows[] = {
        {"GET load", Verb::GetLoad, 0},
        {"get LOAD", Verb::GetLoad, 0},
        {"GET memory", Verb::GetMemory, 0},
        {"GET network", Verb::GetNetwork, 0},
        {"  GET \t load  ", Verb::GetLoad, 0},
        {"HISTORY 1", Verb::History, 1},
        {"history 1000", Verb::History, 1000},
        {"HISTORY 0000000000000000000000007", Verb::History, 7},
        {"WATCH 0", Verb::Watch, 0},
        {"WATCH 3600000", Verb::Watch, 3600000},
        {"QUIT", Verb::Quit, 0},
        {"quit ", Verb::Quit, 0},
    };
    for (const ParseRow& row : rows) {
        Command command = {};
        EXPECT_STREQ(nullptr, ParseCommand(row.pszLine, &command)) << row.pszLine;
        EXPECT_EQ(row.verb, command.verb) << row.pszLine;
        EXPECT_EQ(row.number, command.number) << row.pszLine;
    }
}

struct ErrorRow {
    std::string_view line;
    const char* pszError;
};

TEST(DeviceProtocol, SaysWhatIsWrongWithALine) {
    const char* pszGet = "GET takes load, memory or network";
    const char* pszHistory = "HISTORY takes a number of samples, 1 to 1000";
    const char* pszWatch = "WATCH takes a number of milliseconds up to 3600000; 0 ends it";
    const char* pszUnknown = "unknown command: GET, HISTORY, WATCH and QUIT are known";
    const ErrorRow rows[] = {
        {"", "empty line"},
        {" \t ", "empty line"},
        {"PUT load", pszUnknown},
        {"GETload", pszUnknown},
        {"G", pszUnknown},
        {std::string_view("QUIT\0", 5), pszUnknown},
        {"GET", pszGet},
        {"GET loads", pszGet},
        {"GET load now", pszGet},
        {std::string_view("GET load\0x", 10), pszGet},
        {"HISTORY", pszHistory},
        {"HISTORY 0", pszHistory},
        {"HISTORY 1001", pszHistory},
        {"HISTORY -1", pszHistory},
        {"HISTORY +1", pszHistory},
        {"HISTORY 1.5", pszHistory},
        {"HISTORY ten", pszHistory},
        {"HISTORY 1 2", pszHistory},
        {"HISTORY 18446744073709551617", pszHistory},
        {"WATCH", pszWatch},
        {"WATCH 3600001", pszWatch},
        {"QUIT now", "QUIT stands alone"},
    };
    for (const ErrorRow& row : rows) {
        Command command = {};
        EXPECT_STREQ(row.pszError, ParseCommand(row.line, &command)) << row.line;
    }
}

TEST(DeviceProtocol, WritesEachReplyInItsForm) {
    Sample sample = {};
    sample.uptimeMs = 12009;
    sample.load[0] = 5;
    sample.load[1] = 1240;
    sample.load[2] = 100;
    sample.memoryTotalKb = 2048000;
    sample.memoryFreeKb = 812345;
    sample.inBytes = 5000000000ull;
    sample.outBytes = 7;
    EXPECT_EQ("LOAD 0.05 12.40 1.00\r\n", LoadLine(sample));
    EXPECT_EQ("MEMORY 812345 of 2048000 kB\r\n", MemoryLine(sample));
    EXPECT_EQ("NETWORK in 5000000000 out 7 bytes\r\n", NetworkLine(sample));
    EXPECT_EQ("SAMPLE at 12009 ms: load 0.05 12.40 1.00 memory 812345 of 2048000 kB "
              "network in 5000000000 out 7 bytes\r\n",
              SampleLine(sample));
    EXPECT_EQ("ERROR empty line\r\n", ErrorLine("empty line"));
    EXPECT_EQ("END 3\r\n", NumberLine("END", 3));
    EXPECT_EQ("END 3", WithoutLineEnd(NumberLine("END", 3)));
    EXPECT_EQ("", WithoutLineEnd("\r\n"));
}

TEST(DeviceProtocol, ANumberIsDigitsAloneWithinItsLimits) {
    unsigned int number = 0;
    EXPECT_TRUE(ParseNumber("4294967295", 1, 4294967295u, &number));
    EXPECT_EQ(4294967295u, number);
    for (const char* pszWrong : {"", "0", "4294967296", "99999999999999999999", "-1", "+1", "1x", "0x1", " 1"}) {
        EXPECT_FALSE(ParseNumber(pszWrong, 1, 4294967295u, &number)) << pszWrong;
    }
}

/// What the buffer makes of the bytes when they come in pieces of this size: lines, and "!" for one that is too long.
std::vector<std::string> LinesOf(const std::string& bytes, size_t pieceSize) {
    std::vector<std::string> lines;
    LineBuffer buffer;
    size_t at = 0;
    while (true) {
        std::string_view line;
        const LineBuffer::Result result = buffer.Next(&line);
        if (result == LineBuffer::kLine) {
            lines.emplace_back(line);
        } else if (result == LineBuffer::kTooLong) {
            lines.emplace_back("!");
        } else if (at < bytes.size()) {
            const size_t count = std::min({pieceSize, bytes.size() - at, size_t{buffer.RoomBytes()}});
            EXPECT_GT(count, 0u);
            memcpy(buffer.Room(), bytes.data() + at, count);
            buffer.Added(static_cast<unsigned int>(count));
            at += count;
        } else {
            return lines;
        }
    }
}

TEST(DeviceProtocol, CutsLinesTheSameHoweverTheBytesCome) {
    const std::string full(128, 'f');
    const std::string over(129, 'o');
    const std::string endless(5000, 'e');
    const std::string bytes = "one\r\ntwo\n\n\r\n" + full + "\n" + full + "\r\n" + over + "\nthree\n" + over + "\r\n" +
                              endless + "\nfour\n\rfive\r\r\nopen";
    const std::vector<std::string> expected = {"one", "two",   "",  "",  full,   full,
                                               "!",   "three", "!", "!", "four", "\rfive\r"};
    for (const size_t pieceSize : {1u, 2u, 3u, 7u, 127u, 128u, 129u, 130u, 131u, 500u, 100000u}) {
        EXPECT_EQ(expected, LinesOf(bytes, pieceSize)) << pieceSize;
    }
}

TEST(DeviceProtocol, ALineThatIsTooLongIsReportedBeforeItEnds) {
    EXPECT_EQ(std::vector<std::string>{"!"}, LinesOf(std::string(130, 'x'), 1));
    EXPECT_EQ(std::vector<std::string>{}, LinesOf(std::string(129, 'x'), 1)); // the last may be the CR of its end
}

// ---- Reading /proc by itself

TEST(DeviceSample, ReadsTheThreeLoadAverages) {
    Sample sample = {};
    ASSERT_TRUE(ParseLoad("0.42 12.07 1.00 2/512 12345\n", &sample));
    EXPECT_EQ(42u, sample.load[0]);
    EXPECT_EQ(1207u, sample.load[1]);
    EXPECT_EQ(100u, sample.load[2]);
    EXPECT_FALSE(ParseLoad("0.42 0.40\n", &sample));
    EXPECT_FALSE(ParseLoad("", &sample));
}

TEST(DeviceSample, ReadsTotalAndAvailableMemory) {
    Sample sample = {};
    ASSERT_TRUE(ParseMemory("MemTotal:        2048000 kB\nMemFree:   1 kB\nMemAvailable:     812345 kB\n", &sample));
    EXPECT_EQ(2048000u, sample.memoryTotalKb);
    EXPECT_EQ(812345u, sample.memoryFreeKb);
    EXPECT_FALSE(ParseMemory("MemTotal:        2048000 kB\n", &sample));
    EXPECT_FALSE(ParseMemory("MemTotal: much\nMemAvailable: 1 kB\n", &sample));
}

TEST(DeviceSample, AddsUpTheInterfacesButTheLoopback) {
    const char* pszText =
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls\n"
        "    lo:  900       9    0    0    0     0          0         0      900       9    0    0    0     0\n"
        "  eth0: 4294967296 7    0    0    0     0          0         0     1000       3    0    0    0     0\n"
        "wlan0:10 7 0 0 0 0 0 0 20 3 0 0 0 0\n";
    Sample sample = {};
    ASSERT_TRUE(ParseNetwork(pszText, &sample));
    EXPECT_EQ(4294967306ull, sample.inBytes);
    EXPECT_EQ(1020ull, sample.outBytes);
    EXPECT_FALSE(ParseNetwork("", &sample));
}

TEST(DeviceSample, ReadsThisMachine) {
    const test::Library library;
    Sample sample = {};
    ASSERT_TRUE(TakeSample(&sample));
    EXPECT_GT(sample.memoryTotalKb, 0u);
    EXPECT_LE(sample.memoryFreeKb, sample.memoryTotalKb);
}

TEST(DeviceHistory, KeepsTheNewestAndGivesThemOldestFirst) {
    const test::Library library;
    History history(3);
    EXPECT_TRUE(history.Newest(5).empty());
    EXPECT_EQ(0u, history.Count());
    for (unsigned int i = 1; i <= 5; ++i) {
        Sample sample = {};
        sample.uptimeMs = i;
        history.Add(sample);
    }
    std::vector<unsigned int> times;
    for (const Sample& sample : history.Newest(10)) {
        times.push_back(sample.uptimeMs);
    }
    EXPECT_EQ((std::vector<unsigned int>{3, 4, 5}), times);
    ASSERT_EQ(1u, history.Newest(1).size());
    EXPECT_EQ(5u, history.Newest(1).front().uptimeMs);
    EXPECT_TRUE(history.Newest(0).empty());
    EXPECT_EQ(3u, history.Count());
    EXPECT_EQ(3u, history.Depth());
}

// ---- The program

/// A client's end of a connection.
class Connection {
public:
    explicit Connection(unsigned int port, int receiveBuffer = 0)
        : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (receiveBuffer > 0) {
            setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
        Connect(reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    }
    explicit Connection(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        Connect(reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    }
    ~Connection() { close(m_fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int Descriptor() const { return m_fd; }

    void Send(const std::string& text) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t count = send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(count, 0) << strerror(errno);
            sent += static_cast<size_t>(count);
        }
    }

    /// The next line without its end; "(end)" when the peer has closed.
    std::string ReadLine() {
        size_t end;
        while ((end = m_read.find("\r\n", m_at)) == std::string::npos) {
            m_read.erase(0, m_at);
            m_at = 0;
            char buffer[65536];
            const ssize_t count = recv(m_fd, buffer, sizeof(buffer), 0);
            if (count <= 0) {
                return count == 0 ? "(end)" : std::string("(error) ") + strerror(errno);
            }
            m_read.append(buffer, static_cast<size_t>(count));
        }
        const std::string line = m_read.substr(m_at, end - m_at);
        m_at = end + 2;
        return line;
    }

    std::string Ask(const std::string& line) {
        Send(line + "\n");
        return ReadLine();
    }

private:
    void Connect(const struct sockaddr* pAddress, socklen_t size) {
        const struct timeval limit = {kHangSeconds, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        EXPECT_EQ(0, connect(m_fd, pAddress, size)) << strerror(errno);
    }

    int m_fd;
    std::string m_read;
    size_t m_at = 0;
};

/// The program, running in a directory of its own with the tqos.ini that comes with it, some of its lines replaced.
class Device {
public:
    using Changes = std::vector<std::pair<std::string, std::string>>;

    explicit Device(const Changes& changes = {}, const std::vector<std::string>& arguments = {}) {
        std::string ini = test::ReadFile(std::string(DEVICE_SOURCE_DIR) + "/tqos.ini");
        Replace(&ini, "StatusPort=5005", "StatusPort=0");
        Replace(&ini, "SamplePeriodMs=1000", "SamplePeriodMs=10");
        for (const auto& change : changes) {
            Replace(&ini, change.first, change.second);
        }
        test::WriteFile("tqos.ini", ini);
        Start(arguments);
        ReadOutputUntilReady();
    }
    ~Device() {
        if (m_pid > 0) {
            End(SIGTERM);
        }
        close(m_output);
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    unsigned int Port() const { return m_port; }
    unsigned int ConsolePort() const { return m_consolePort; }
    std::string SocketPath() const { return m_directory.Path() + "/device.sock"; }
    pid_t Pid() const { return m_pid; }
    std::string Output() const { return m_text; }
    std::string Errors() const { return test::ReadFile("errors.txt"); }

    /// Sends the signal (0: none), waits for the end, and checks that it was orderly.
    void End(int signal, int expectedStatus = 0) {
        if (signal != 0) {
            kill(m_pid, signal);
        }
        int status = 0;
        pid_t ended = 0;
        const bool bEnded =
            test::WaitUntil([&] { return (ended = waitpid(m_pid, &status, WNOHANG)) != 0; }, kHangSeconds);
        EXPECT_TRUE(bEnded) << "the device does not end";
        if (!bEnded) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
        EXPECT_EQ(expectedStatus, WEXITSTATUS(status)) << Errors();
        m_pid = 0;
    }

    /// Ends it without its help.
    void Abandon() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }

private:
    static void Replace(std::string* pText, const std::string& from, const std::string& to) {
        const size_t at = pText->find(from);
        ASSERT_NE(std::string::npos, at) << from;
        pText->replace(at, from.size(), to);
    }

    /// What runs programs of another processor; empty where this one does.
    static std::vector<std::string> Emulator() {
        std::istringstream words(DEVICE_EMULATOR);
        return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
    }

    void Start(const std::vector<std::string>& arguments) {
        std::vector<std::string> words = Emulator();
        words.insert(words.end(), {DEVICE_PROGRAM, "-d", m_directory.Path()});
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(&word[0]);
        }
        argv.push_back(nullptr);
        int output[2];
        ASSERT_EQ(0, pipe2(output, O_CLOEXEC));
        m_output = output[0];
        m_pid = fork();
        if (m_pid == 0) {
            dup2(output[1], 1);
            dup2(open("errors.txt", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), 2);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(output[1]);
    }

    /// Until it says that it is ready, or its output ends.
    void ReadOutputUntilReady() {
        while (m_text.find("device: ready\n") == std::string::npos) {
            struct pollfd readable = {m_output, POLLIN, 0};
            ASSERT_EQ(1, poll(&readable, 1, kHangSeconds * 1000)) << "the device says nothing: " << m_text;
            char buffer[1024];
            const ssize_t count = read(m_output, buffer, sizeof(buffer));
            if (count <= 0) {
                return;
            }
            m_text.append(buffer, static_cast<size_t>(count));
        }
        m_port = PortAfter("device: TCP on 127.0.0.1 port ");
        m_consolePort = PortAfter("device: console on 127.0.0.1 port ");
    }

    /// The number behind the words, which have to be there, to the end of their line.
    unsigned int PortAfter(const std::string& words) const {
        const size_t at = m_text.find(words);
        EXPECT_NE(std::string::npos, at) << words << "\n" << m_text;
        return at == std::string::npos ? 0 : static_cast<unsigned int>(atoi(m_text.c_str() + at + words.size()));
    }

    test::ScratchDirectory m_directory;
    pid_t m_pid = 0;
    int m_output = -1;
    std::string m_text;
    unsigned int m_port = 0;
    unsigned int m_consolePort = 0;
};

bool Matches(const std::string& line, const char* pszPattern) {
    return std::regex_match(line, std::regex(pszPattern));
}

constexpr char kLoadLine[] = R"(LOAD \d+\.\d\d \d+\.\d\d \d+\.\d\d)";
constexpr char kSampleLine[] = R"(SAMPLE at \d+ ms: load \d+\.\d\d \d+\.\d\d \d+\.\d\d )"
                               R"(memory \d+ of \d+ kB network in \d+ out \d+ bytes)";

/// Every command once, as a client of either kind sees it.
void HoldAConversation(Connection& client) {
    EXPECT_TRUE(Matches(client.Ask("GET load"), kLoadLine));
    EXPECT_TRUE(Matches(client.Ask("get Memory\r"), R"(MEMORY \d+ of \d+ kB)"));
    EXPECT_TRUE(Matches(client.Ask("GET network"), R"(NETWORK in \d+ out \d+ bytes)"));
    const std::string first = client.Ask("HISTORY 1");
    EXPECT_TRUE(Matches(first, kSampleLine)) << first;
    EXPECT_EQ("END 1", client.ReadLine());
    EXPECT_EQ("WATCHING 10", client.Ask("WATCH 10"));
    EXPECT_TRUE(Matches(client.ReadLine(), kLoadLine));
    EXPECT_TRUE(Matches(client.ReadLine(), kLoadLine));
    std::string line = client.Ask("WATCH 0");
    while (Matches(line, kLoadLine)) { // those already under way
        line = client.ReadLine();
    }
    EXPECT_EQ("WATCHING 0", line);
    EXPECT_EQ("BYE", client.Ask("QUIT"));
    EXPECT_EQ("(end)", client.ReadLine());
}

constexpr char kPassword[] = "lookinside";

/// A session of the device's console, behind its login.
test::ConsoleClient LogIn(const Device& device) {
    test::ConsoleClient client(device.ConsolePort());
    client.ReadTo("\r\n\r\nlogin: ");
    client.Send(std::string(kPassword) + "\r");
    client.Expect("**********\r\nWelcome...\r\n\r\n>");
    return client;
}

/// What a queue answers to "SEnd".
std::string AskQueue(test::ConsoleClient& client, const std::string& queue, const std::string& text) {
    const std::string line = "send " + queue + " " + text;
    client.Send(line + "\r");
    client.Expect(line + "\r\n>\r\nResponse received from queue " + queue + ": {time}\r\n");
    const std::string answer = client.ReadTo("\r\n>");
    return answer.substr(0, answer.size() - strlen("\r\n>"));
}

/// What a queue shows for "SHow SUMmary", and for the one with "DETail", which does not say from whom it comes.
std::string Summary(test::ConsoleClient& client, const std::string& queue, bool bDetail) {
    client.Send("show queues\r");
    const std::string queues = client.ReadTo("\r\n\r\n>");
    std::smatch row;
    EXPECT_TRUE(std::regex_search(queues, row, std::regex("(\\d+) +\\d+ +\\d+ +" + queue + " "))) << queues;
    const std::string line = (bDetail ? "show detail summary " : "show summary ") + row.str(1);
    client.Send(line + "\r");
    client.Expect(line + "\r\n>" + (bDetail ? "" : "\r\nResponse received from queue " + queue + ": {time}\r\n"));
    const std::string summary = client.ReadTo("\r\n>");
    return summary.substr(0, summary.size() - strlen("\r\n>"));
}

TEST(Device, AnswersEveryCommandOverTcp) {
    Device device;
    Connection client(device.Port());
    HoldAConversation(client);
}

TEST(Device, AnswersTheSameOnTheLocalDomainSocket) {
    Device device;
    Connection client(device.SocketPath());
    HoldAConversation(client);
    device.End(SIGTERM);
    EXPECT_FALSE(test::FileExists(device.SocketPath()));
}

TEST(Device, ABadLineGetsAnErrorLineAndTheConnectionGoesOn) {
    Device device;
    Connection client(device.Port());
    EXPECT_EQ("ERROR unknown command: GET, HISTORY, WATCH and QUIT are known", client.Ask("HELLO"));
    EXPECT_EQ("ERROR empty line", client.Ask(""));
    EXPECT_EQ("ERROR HISTORY takes a number of samples, 1 to 1000", client.Ask("HISTORY all"));
    EXPECT_TRUE(Matches(client.Ask("GET load"), kLoadLine));
}

TEST(Device, AnOverLongLineIsRefusedAndTheNextLineIsAnswered) {
    Device device;
    Connection client(device.Port());
    for (const size_t length : {129u, 130u, 511u, 512u, 513u, 5000u, 200000u}) {
        EXPECT_EQ("ERROR the line is longer than 128 bytes", client.Ask(std::string(length, 'x'))) << length;
        EXPECT_TRUE(Matches(client.Ask("GET load"), kLoadLine)) << length;
    }
    client.Send(std::string(1000, 'x')); // refused before it ends
    EXPECT_EQ("ERROR the line is longer than 128 bytes", client.ReadLine());
    EXPECT_TRUE(Matches(client.Ask("\nGET load"), kLoadLine));
}

TEST(Device, AnswersCommandsThatComeTogetherInTheirOrder) {
    Device device;
    Connection client(device.Port());
    std::string commands;
    for (int i = 0; i < 2000; ++i) {
        commands += "HISTORY 1\nGET load\nNO\n";
    }
    std::thread sender([&] { client.Send(commands + "QUIT\nGET load\n"); });
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ("SAMPLE", client.ReadLine().substr(0, 6));
        ASSERT_EQ("END 1", client.ReadLine());
        ASSERT_EQ("LOAD", client.ReadLine().substr(0, 4));
        ASSERT_EQ("ERROR", client.ReadLine().substr(0, 5));
    }
    sender.join();
    EXPECT_EQ("BYE", client.ReadLine());
}

TEST(Device, ServesManyClientsAtOnce) {
    Device device;
    std::vector<std::unique_ptr<Connection>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(i % 2 == 0 ? std::make_unique<Connection>(device.Port())
                                     : std::make_unique<Connection>(device.SocketPath()));
    }
    for (auto& client : clients) {
        client->Send("GET load\nHISTORY 1\n");
    }
    for (auto& client : clients) {
        EXPECT_TRUE(Matches(client->ReadLine(), kLoadLine));
        EXPECT_TRUE(Matches(client->ReadLine(), kSampleLine));
        EXPECT_EQ("END 1", client->ReadLine());
    }
    for (size_t i = 0; i < clients.size(); i += 3) {
        clients[i].reset(); // some go without a word
    }
    for (auto& client : clients) {
        if (client) {
            EXPECT_EQ("BYE", client->Ask("QUIT"));
        }
    }
}

TEST(Device, HistoryGrowsToItsDepthAndStaysThere) {
    Device device(Device::Changes{{"HistoryDepth=600", "HistoryDepth=5"}});
    Connection client(device.Port());
    const auto countLines = [&client] {
        unsigned int lines = 0;
        std::string line = client.Ask("HISTORY 1000");
        for (; Matches(line, kSampleLine); line = client.ReadLine()) {
            ++lines;
        }
        EXPECT_EQ("END " + std::to_string(lines), line);
        return lines;
    };
    ASSERT_TRUE(test::WaitUntil([&] { return countLines() == 5; }, kHangSeconds));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(5u, countLines());
    }
}

void WaitForHundredSamples(Connection& client) {
    EXPECT_TRUE(test::WaitUntil([&client] {
        std::string line = client.Ask("HISTORY 100");
        while (line.substr(0, 6) == "SAMPLE") {
            line = client.ReadLine();
        }
        return line == "END 100";
    }));
}

/// The most memory the process has had resident, in kilobytes.
unsigned int PeakMemoryKb(pid_t pid) {
    const std::string status = test::ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmHWM:");
    return at == std::string::npos ? 0 : static_cast<unsigned int>(atoi(status.c_str() + at + 6));
}

TEST(Device, AClientThatDoesNotReadIsHeldAndLosesNothing) {
    constexpr int kRequests = 2000; // of some 100 samples: 20 MB of replies
    Device device;
    Connection other(device.Port());
    WaitForHundredSamples(other);
    const unsigned int beforeKb = PeakMemoryKb(device.Pid());

    Connection slow(device.Port(), /*receiveBuffer=*/4096);
    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int i = 0; i < kRequests; ++i) {
            slow.Send("HISTORY 100\n");
            ++sent;
        }
    });
    // It asks on until everything is sent or the device takes no more of it, and reads nothing. Meanwhile the device
    // answers others.
    int sentBefore = -1;
    while (sent != kRequests && sent != sentBefore) {
        sentBefore = sent;
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(Matches(other.Ask("GET load"), kLoadLine));
        }
    }
    // Then it reads, and finds every reply whole.
    for (int i = 0; i < kRequests; ++i) {
        for (int line = 0; line < 100; ++line) {
            ASSERT_EQ("SAMPLE at ", slow.ReadLine().substr(0, 10)) << i;
        }
        ASSERT_EQ("END 100", slow.ReadLine()) << i;
    }
    sender.join();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they keep what was freed
    EXPECT_LT(PeakMemoryKb(device.Pid()) - beforeKb, 4096u);
#else
    (void)beforeKb;
#endif
    EXPECT_EQ("BYE", slow.Ask("QUIT"));
}

TEST(Device, AWatchersLinesNeverComeInsideAnotherReply) {
    constexpr int kRequests = 300;
    Device device;
    Connection watcher(device.Port(), /*receiveBuffer=*/4096);
    WaitForHundredSamples(watcher);
    EXPECT_EQ("WATCHING 10", watcher.Ask("WATCH 10"));
    std::thread sender([&] {
        for (int i = 0; i < kRequests; ++i) {
            watcher.Send("HISTORY 100\n");
        }
        watcher.Send("QUIT\n");
    });
    int replies = 0;
    int samples = 0;
    std::string line;
    while ((line = watcher.ReadLine()) != "BYE") {
        if (line.substr(0, 4) == "LOAD") {
            ASSERT_EQ(0, samples) << "inside reply " << replies;
        } else if (line.substr(0, 6) == "SAMPLE") {
            ++samples;
        } else {
            ASSERT_EQ("END " + std::to_string(samples), line);
            samples = 0;
            ++replies;
        }
    }
    sender.join();
    EXPECT_EQ(kRequests, replies);
    EXPECT_EQ("(end)", watcher.ReadLine());
}

/// Somebody to whom the status datagrams go.
class StatusReader {
public:
    StatusReader() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<struct sockaddr*>(&address), size));
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<struct sockaddr*>(&address), &size));
        m_port = std::to_string(ntohs(address.sin_port));
        const struct timeval limit = {kHangSeconds, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    ~StatusReader() { close(m_fd); }
    StatusReader(const StatusReader&) = delete;
    StatusReader& operator=(const StatusReader&) = delete;

    const std::string& Port() const { return m_port; }

    void ExpectSample() {
        char datagram[512];
        const ssize_t length = recv(m_fd, datagram, sizeof(datagram), 0);
        ASSERT_GT(length, 2) << strerror(errno);
        const std::string text(datagram, static_cast<size_t>(length));
        EXPECT_EQ("\r\n", text.substr(text.size() - 2));
        EXPECT_TRUE(Matches(text.substr(0, text.size() - 2), kSampleLine)) << text;
    }

private:
    int m_fd;
    std::string m_port;
};

TEST(Device, SendsAStatusDatagramForEachSample) {
    StatusReader reader;
    Device device(Device::Changes{{"StatusPort=0", "StatusPort=" + reader.Port()}});
    EXPECT_NE(std::string::npos,
              device.Output().find("device: status datagrams to 127.0.0.1 port " + reader.Port() + "\n"));
    for (int i = 0; i < 3; ++i) {
        reader.ExpectSample();
    }
}

TEST(Device, TracesIntoRotatingFilesOfItsOwn) {
    Device device(Device::Changes{{"device_MaxFiles=4", "device_MaxFiles=3"},
                                  {"device_MaxBytesPerFile=65536", "device_MaxBytesPerFile=300"}});
    for (int i = 0; i < 40; ++i) {
        Connection client(device.Port());
        EXPECT_EQ("BYE", client.Ask("QUIT"));
    }
    device.End(SIGTERM);
    std::string lines;
    for (const char* pszName : {"device0000.log", "device0001.log", "device0002.log"}) {
        EXPECT_TRUE(test::FileExists(pszName)) << pszName;
        lines += test::ReadFile(pszName);
        EXPECT_LT(test::ReadFile(pszName).size(), 600u) << pszName;
    }
    EXPECT_FALSE(test::FileExists("device0003.log"));
    EXPECT_TRUE(std::regex_search(lines, std::regex(R"(\[\d+\]: \(device\) INF: client \d+ has come \(TCP\)\n)")))
        << lines;
}

TEST(Device, ReportsNoCriticalErrorInAWholeLife) {
    Device device;
    {
        Connection client(device.Port());
        HoldAConversation(client);
        test::ConsoleClient engineer = LogIn(device);
        EXPECT_EQ("clients: 0", AskQueue(engineer, "Server", "clients"));
        engineer.Send("show summ"); // and on with it after the end
    }
    device.End(SIGTERM);
    EXPECT_EQ("", test::ReadFile("tqos_error.log"));
    EXPECT_EQ("", device.Errors());
}

TEST(Device, SigtermEndsItWithStatus0) {
    Device device;
    device.End(SIGTERM);
}

TEST(Device, SigintEndsItWithStatus0WhileClientsAreConnectedAndWaiting) {
    Device device;
    Connection idle(device.Port());
    Connection watcher(device.SocketPath());
    EXPECT_EQ("WATCHING 10", watcher.Ask("WATCH 10"));
    Connection slow(device.Port(), /*receiveBuffer=*/2048);
    for (int i = 0; i < 100; ++i) {
        slow.Send("HISTORY 1000\n");
    }
    EXPECT_EQ("SAMPLE", slow.ReadLine().substr(0, 6));
    device.End(SIGINT);
    EXPECT_EQ("(end)", idle.ReadLine());
}

// ---- Its console

/// No sample comes by itself: what is counted is what the test asked for.
const Device::Changes kNoTimer = {{"SamplePeriodMs=10", "SamplePeriodMs=3600000"}};

TEST(DeviceConsole, AsksForThePasswordOfTheSettings) {
    Device device(Device::Changes{{"Password=lookinside", "Password=two words"}});
    test::ConsoleClient client(device.ConsolePort());
    client.ReadTo("\r\n\r\nlogin: ");
    client.Send("lookinside\r");
    client.Expect("**********\r\nInvalid login attempt.\r\n\r\nlogin: ");
    client.Send("two words\r");
    client.Expect("*********\r\nWelcome...\r\n\r\n>");
    client.Send("quit\r");
    client.Expect("quit\r\n");
    EXPECT_TRUE(client.IsClosed());
}

/// A line of a session without what differs from one session to the next: dates, numbers, and how wide they are. A
/// prompt in front of it may be there or not, since answers of queues come when they come.
std::string Lasting(const std::string& line) {
    static const std::regex kDate("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}");
    std::string text = std::regex_replace(line, kDate, "DATE");
    text = std::regex_replace(text, std::regex("[0-9]+"), "0");
    text = std::regex_replace(text, std::regex(" +"), " ");
    return std::regex_replace(text, std::regex("^>+| +$"), "");
}

/// The session that README.md shows, from the banner on: its lines without the four blanks in front of them.
std::vector<std::string> SessionOfReadme() {
    std::istringstream readme(test::ReadFile(std::string(DEVICE_SOURCE_DIR) + "/../../README.md"));
    std::vector<std::string> lines;
    bool bSession = false;
    for (std::string line; std::getline(readme, line) && line != "    Connection closed by foreign host.";) {
        bSession = bSession || line.rfind("      ####", 0) == 0;
        if (bSession) {
            lines.push_back(line.substr(std::min<size_t>(4, line.size())));
        }
    }
    return lines;
}

/// Reads until all these lines have come, in whatever order, and nothing else beside them.
bool AllCome(test::ConsoleClient& client, std::vector<std::string> expected) {
    while (!expected.empty()) {
        const std::string came = client.ReadTo("\r\n");
        const std::string line = Lasting(came.substr(0, came.size() - 2));
        const auto found = std::find(expected.begin(), expected.end(), line);
        if (found != expected.end()) {
            expected.erase(found);
        } else if (!line.empty()) {
            ADD_FAILURE() << "came: " << test::Shown(came) << "\nnot yet: " << testing::PrintToString(expected);
            return false;
        }
    }
    return true;
}

TEST(DeviceConsole, AnswersAsReadmeShows) {
    const test::Fd status(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const struct sockaddr_in loopback = test::LoopbackAddress(0);
    ASSERT_EQ(0, bind(status.Get(), reinterpret_cast<const struct sockaddr*>(&loopback), sizeof(loopback)));
    Device device({{"StatusPort=0", "StatusPort=" + std::to_string(test::PortOf(status))}});
    Connection watcher(device.Port());
    EXPECT_EQ("WATCHING 500", watcher.Ask("WATCH 500"));
    EXPECT_TRUE(Matches(watcher.ReadLine(), kLoadLine)); // in its first millisecond it would say that it is not up
    test::ConsoleClient client(device.ConsolePort());
    EXPECT_TRUE(client.Expect("\xff\xfb\x01\xff\xfb\x03\xff\xfd\x03"));

    std::vector<std::string> expected;
    unsigned int typed = 0;
    const auto type = [&](const std::string& keys) {
        const bool bCame = AllCome(client, expected);
        expected.clear();
        client.Send(keys + "\r");
        ++typed;
        return bCame;
    };
    for (const std::string& line : SessionOfReadme()) {
        if (line.rfind("login: ", 0) == 0) {
            ASSERT_TRUE(type(kPassword));
        } else if (line[0] == '>' && line.size() > 1) {
            ASSERT_TRUE(type(line.substr(1)));
        }
        if (!Lasting(line).empty()) {
            expected.push_back(Lasting(line));
        }
    }
    EXPECT_TRUE(AllCome(client, expected));
    EXPECT_LT(5u, typed);
}

TEST(DeviceConsole, ClosesAfterThreeWrongPasswordsAndAsksTheNextOne) {
    Device device;
    test::ConsoleClient client(device.ConsolePort());
    client.ReadTo("\r\n\r\nlogin: ");
    client.Send("one\r");
    client.Expect("***\r\nInvalid login attempt.\r\n\r\nlogin: ");
    client.Send("two\r");
    client.Expect("***\r\nInvalid login attempt.\r\n\r\nlogin: ");
    client.Send("three\r");
    client.Expect("*****\r\n");
    EXPECT_TRUE(client.IsClosed());
    LogIn(device);
}

TEST(DeviceConsole, WithoutAPasswordWhoeverConnectsIsLoggedIn) {
    Device device(Device::Changes{{"Password=lookinside", ""}});
    test::ConsoleClient client(device.ConsolePort());
    client.ReadTo("\r\n\r\n>");
    EXPECT_EQ("clients: 0", AskQueue(client, "Server", "clients"));
}

TEST(DeviceConsole, APortThatIsTakenIsFollowedByOneThatIsNotAndItIsPrinted) {
    Device first;
    const unsigned int taken = first.ConsolePort();
    ASSERT_LT(taken, 65000u);
    Device second(Device::Changes{{"Port=0\n; All", "Port=" + std::to_string(taken) + "\n; All"}});
    EXPECT_GT(second.ConsolePort(), taken);
    EXPECT_LE(second.ConsolePort(), taken + 100);
    LogIn(second);
}

TEST(DeviceConsole, WithoutAPortForItTheDeviceEndsWithStatus1) {
    // The last port there is, in the test's hands or somebody else's: none follows it.
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(65535);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_TRUE(bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0 || errno == EADDRINUSE);
    listen(fd, 1);
    Device device(Device::Changes{{"Port=0\n; All", "Port=65535\n; All"}});
    device.End(0, 1);
    close(fd);
    EXPECT_EQ("device: no console on port 65535 or the hundred after it; see tqos_error.log\n", device.Errors());
    EXPECT_NE(std::string::npos, test::ReadFile("tqos_error.log").find("Failed to initialize Telnet Interface!\n"));
    EXPECT_EQ("", device.Output());
}

TEST(DeviceConsole, ASummaryOfAllComesFromEveryQueue) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    client.Send("show summary\r");
    client.Expect("show summary\r\n>");
    std::string text;
    for (int i = 0; i < 4; ++i) { // each on its own thread: in any order
        text += client.ReadTo("\r\n>");
    }
    for (const char* pszOne :
         {"Sampler: {line}one sample every 3600000 ms; 0 taken, 0 failed",
          "Status: {line}datagrams to nobody; 0 sent, 0 lost", "Server: {line}clients: 0; lines answered: 0",
          "TQOS: Telnet: {line}Telnet Connections: 1"}) {
        std::string pattern = std::string("\r\nResponse received from queue ") + pszOne + "\r\n>";
        pattern.replace(pattern.find("{line}"), strlen("{line}"), "[^\r]*\r\n");
        EXPECT_TRUE(std::regex_search(text, std::regex(pattern))) << pszOne << "\n" << text;
    }
}

TEST(DeviceConsole, ADetailedSummaryNamesItsQueueItself) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_TRUE(Matches(Summary(client, "Sampler", /*bDetail=*/true),
                        (std::string("Sampler: one sample every 3600000 ms; 0 taken, 0 failed\r\n"
                                     "  kept: 1 of 600\r\n  yet to fail: 0\r\n  newest: ") +
                         kSampleLine)
                            .c_str()));
    EXPECT_EQ("Status: datagrams to nobody; 0 sent, 0 lost\r\n  socket: 0\r\n  newest: none has been sent yet",
              Summary(client, "Status", /*bDetail=*/true));
    EXPECT_EQ("Server: clients: 0; lines answered: 0\r\n  TCP: 127.0.0.1 port " + std::to_string(device.Port()) +
                  "\r\n  local: device.sock",
              Summary(client, "Server", /*bDetail=*/true));
}

struct AnswerRow {
    const char* pszQueue;
    const char* pszText;
    const char* pszAnswer;
};

constexpr char kSamplerHelp[] =
    "Sampler knows:\r\n"
    "  help            shows this\r\n"
    "  period [ms]     shows how often a sample is taken, or changes it: 10 to 3600000\r\n"
    "  sample          takes one now\r\n"
    "  fail <samples>  lets the next ones fail, up to 1000, as if /proc could not be read; "
    "0 ends it\r\n"
    "  leak <samples>  forgets a copy of each of the next ones, up to 1000, for a hunt; 0 "
    "ends it\r\n"
    "  hold <ms>       holds the lock of the kept samples, up to 60000 ms, for another hunt";
constexpr char kServerHelp[] = "Server knows:\r\n"
                               "  help            shows this\r\n"
                               "  clients         lists them\r\n"
                               "  drop <client>   closes a client's connection, as a broken line would; all: every "
                               "one's";
constexpr char kStatusHelp[] = "Status knows:\r\n"
                               "  help            shows this\r\n"
                               "  port [port]     shows where the datagrams go, or changes it; 0 sends none";
constexpr char kPeriodRange[] = "period takes 10 to 3600000 milliseconds";
constexpr char kFailRange[] = "fail takes a number of samples, 0 to 1000";
constexpr char kDropWhom[] = "drop takes the number of a client, or all";
constexpr char kPortRange[] = "port takes 0 to 65535";

TEST(DeviceConsole, EveryQueueSaysWhatItKnowsAndWhatIsWrong) {
    const AnswerRow rows[] = {
        {"Sampler", "help", kSamplerHelp},
        {"Sampler", "?", kSamplerHelp},
        {"Server", "HELP me", kServerHelp},
        {"Status", "Help", kStatusHelp},
        {"Sampler", "period", "one sample every 3600000 ms"},
        {"Sampler", "PERIOD \"\"", "one sample every 3600000 ms"},
        {"Sampler", "period 9", kPeriodRange},
        {"Sampler", "period 3600001", kPeriodRange},
        {"Sampler", "period fast", kPeriodRange},
        {"Sampler", "period 10 20", "Usage: period [ms]"},
        {"Sampler", "sample now", "Usage: sample"},
        {"Sampler", "sample \"\"", "Usage: sample"},
        {"Sampler", "fail", "Usage: fail <samples>"},
        {"Sampler", "fail \"\"", "Usage: fail <samples>"},
        {"Sampler", "fail 1001", kFailRange},
        {"Sampler", "fail -1", kFailRange},
        {"Sampler", "leak", "Usage: leak <samples>"},
        {"Sampler", "leak 1001", "leak takes a number of samples, 0 to 1000"},
        {"Sampler", "hold 0", "hold takes 1 to 60000 milliseconds"},
        {"Sampler", "hold 60001", "hold takes 1 to 60000 milliseconds"},
        {"Sampler", "hold 1", "held for 1 ms"},
        {"Sampler", "fails 1", "Sampler does not know \"fails\"; \"help\" shows what it knows."},
        {"Sampler", "%s%n %s", "Sampler does not know \"%s%n\"; \"help\" shows what it knows."},
        {"Sampler", "\"period", "one sample every 3600000 ms"}, // a quote that is left open goes to the end
        {"Sampler", "\"\" sample", "Sampler does not know \"\"; \"help\" shows what it knows."},
        {"Server", "clients all", "Usage: clients"},
        {"Server", "drop", "Usage: drop <client>"},
        {"Server", "drop 1 2", "Usage: drop <client>"},
        {"Server", "drop 0", kDropWhom},
        {"Server", "drop somebody", kDropWhom},
        {"Server", "drop 4294967296", kDropWhom},
        {"Server", "drop 4294967295", "there is no client 4294967295"},
        {"Server", "drop ALL", "clients dropped: 0"},
        {"Status", "port", "datagrams go to nobody"},
        {"Status", "port 65536", kPortRange},
        {"Status", "port x", kPortRange},
        {"Status", "port 1 2", "Usage: port [port]"},
        {"Status", "period 10", "Status does not know \"period\"; \"help\" shows what it knows."},
    };
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    for (const AnswerRow& row : rows) {
        EXPECT_EQ(row.pszAnswer, AskQueue(client, row.pszQueue, row.pszText)) << row.pszQueue << " " << row.pszText;
    }
    client.Send("send Sampler\r");
    client.Expect("send Sampler\r\nSyntax error.\r\n\r\n>");
    const std::string word(900, 'x');
    EXPECT_EQ("Server does not know \"" + word + "\"; \"help\" shows what it knows.", AskQueue(client, "Server", word));
}

TEST(DeviceConsole, AHuntFindsTheLineOfALeak) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_TRUE(Matches(AskQueue(client, "Sampler", "sample"), kSampleLine));
    EXPECT_EQ("samples yet to leak: 2", AskQueue(client, "Sampler", "leak 2"));
    client.Send("set memory\r");
    client.Expect("set memory\r\n>");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(Matches(AskQueue(client, "Sampler", "sample"), kSampleLine));
    }
    client.Send("show detail memory group filter=SamplerQueue.cpp\r");
    const std::string report = client.ReadTo("allocations");
    EXPECT_TRUE(std::regex_search(report, std::regex(" 2 +\\d+ +[^ ]*SamplerQueue\\.cpp +\\d+"))) << report;
}

TEST(DeviceConsole, AHuntFindsWhoHoldsALockAndWhoWaitsForIt) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    client.Send("send Sampler hold 60000\r");
    client.Expect("send Sampler hold 60000\r\n>");
    const std::string held = "Waiting Sleep +\\d+ [^ ]*History\\.cpp\r\n[^>]*Owned  Mutex +0 Device: Samples\r\n";
    const std::string waits = "Waiting Mutex +0 Device: Samples\r\n";
    const auto waitForReport = [&](const std::string& pattern) {
        std::string report;
        EXPECT_TRUE(test::WaitUntil([&] {
            client.Send("show semaphores\r");
            report = client.ReadTo("\r\n>");
            return std::regex_search(report, std::regex(pattern));
        })) << report;
    };
    waitForReport(held);
    test::ConsoleClient waiting(device.Port());
    waiting.Send("HISTORY 1\r\n"); // the server's queue comes to wait for the lock
    waitForReport(waits);
    device.Abandon(); // it would end when the lock has been given back
}

TEST(DeviceConsole, SamplesFailAsOftenAsTheyAreToldTo) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_TRUE(Matches(AskQueue(client, "Sampler", "sample"), kSampleLine));
    EXPECT_EQ("samples yet to fail: 3", AskQueue(client, "Sampler", "fail 3"));
    EXPECT_EQ("the sample could not be taken", AskQueue(client, "Sampler", "sample"));
    EXPECT_EQ("the sample could not be taken", AskQueue(client, "Sampler", "sample"));
    EXPECT_TRUE(Matches(Summary(client, "Sampler", /*bDetail=*/true),
                        (std::string("Sampler: one sample every 3600000 ms; 1 taken, 2 failed\r\n"
                                     "  kept: 2 of 600\r\n  yet to fail: 1\r\n  newest: ") +
                         kSampleLine)
                            .c_str()));
    EXPECT_EQ("samples yet to fail: 0", AskQueue(client, "Sampler", "fail 0"));
    EXPECT_TRUE(Matches(AskQueue(client, "Sampler", "sample"), kSampleLine));
    EXPECT_EQ("one sample every 3600000 ms; 2 taken, 2 failed", Summary(client, "Sampler", /*bDetail=*/false));
    device.End(SIGTERM);
    const std::string trace = test::ReadFile("device0000.log");
    EXPECT_EQ(2u, test::CountOf(trace, "(device) WRN: a sample could not be taken\n")) << trace;
}

TEST(DeviceConsole, TheSamplePeriodChangesWhileItRuns) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_EQ("one sample every 3600000 ms; 0 taken, 0 failed", Summary(client, "Sampler", /*bDetail=*/false));
    EXPECT_EQ("one sample every 10 ms", AskQueue(client, "Sampler", "period 10"));
    EXPECT_TRUE(test::WaitUntil(
        [&client] {
            const std::string summary = Summary(client, "Sampler", /*bDetail=*/false);
            return Matches(summary, R"(one sample every 10 ms; ([3-9]|\d\d+) taken, 0 failed)");
        },
        kHangSeconds));
    client.Send("show timers\r");
    const std::string timers = client.ReadTo("\r\n\r\n>");
    EXPECT_EQ(1u, test::CountOf(timers, " Sample ")) << timers; // the same timer, not another one
}

TEST(DeviceConsole, ListsTheServersClientsAndDropsThem) {
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_EQ("clients: 0", AskQueue(client, "Server", "clients"));
    Connection first(device.Port());
    EXPECT_EQ("WATCHING 3600000", first.Ask("WATCH 3600000"));
    Connection second(device.SocketPath());
    EXPECT_EQ("ERROR empty line", second.Ask(""));
    EXPECT_EQ("END 1", (second.Ask("HISTORY 1"), second.ReadLine()));

    const std::string table = AskQueue(client, "Server", "clients");
    std::smatch numbers;
    ASSERT_TRUE(std::regex_match(table, numbers,
                                 std::regex("clients: 2\r\n    Client  From   Lines     Watch\\(ms\\) Unsent"
                                            "\r\n +(\\d+)  TCP    1         3600000   0"
                                            "\r\n +(\\d+)  local  2         0         0")))
        << table;
    EXPECT_EQ("clients: 2; lines answered: 3", Summary(client, "Server", /*bDetail=*/false));
    const std::string detail = Summary(client, "Server", /*bDetail=*/true);
    EXPECT_EQ(table.substr(strlen("clients: 2")), detail.substr(detail.find("device.sock") + strlen("device.sock")));

    EXPECT_EQ("clients dropped: 1", AskQueue(client, "Server", "drop " + numbers.str(1)));
    EXPECT_EQ("(end)", first.ReadLine());
    EXPECT_EQ("there is no client " + numbers.str(1), AskQueue(client, "Server", "drop " + numbers.str(1)));
    EXPECT_TRUE(Matches(second.Ask("GET load"), kLoadLine));
    EXPECT_EQ("clients dropped: 1", AskQueue(client, "Server", "drop all"));
    EXPECT_EQ("(end)", second.ReadLine());
    EXPECT_EQ("clients: 0; lines answered: 4", Summary(client, "Server", /*bDetail=*/false));
    Connection third(device.Port());
    EXPECT_EQ("BYE", third.Ask("QUIT"));
}

TEST(DeviceConsole, TheStatusDatagramsGoWhereTheyAreTold) {
    StatusReader one;
    StatusReader other;
    Device device(kNoTimer);
    test::ConsoleClient client = LogIn(device);
    EXPECT_EQ("datagrams go to 127.0.0.1 port " + one.Port(), AskQueue(client, "Status", "port " + one.Port()));
    AskQueue(client, "Sampler", "sample");
    one.ExpectSample();
    EXPECT_EQ("datagrams go to 127.0.0.1 port " + other.Port(), AskQueue(client, "Status", "port " + other.Port()));
    AskQueue(client, "Sampler", "sample");
    other.ExpectSample();
    EXPECT_EQ("datagrams to 127.0.0.1 port " + other.Port() + "; 2 sent, 0 lost",
              Summary(client, "Status", /*bDetail=*/false));
    EXPECT_EQ("datagrams go to nobody", AskQueue(client, "Status", "port 0"));
    AskQueue(client, "Sampler", "sample");
    EXPECT_EQ("datagrams to nobody; 2 sent, 0 lost", Summary(client, "Status", /*bDetail=*/false));
}

TEST(DeviceConsole, EndsWithTheDeviceWhileSessionsAreOpen) {
    Device device;
    test::ConsoleClient atLogin(device.ConsolePort());
    atLogin.ReadTo("login: ");
    test::ConsoleClient typing = LogIn(device);
    typing.Send("show summ");
    typing.Expect("show summ");
    test::ConsoleClient asking = LogIn(device);
    for (int i = 0; i < 200; ++i) {
        asking.Send("show summary\rsend Sampler sample\r");
    }
    device.End(SIGTERM);
    EXPECT_TRUE(atLogin.IsClosed());
    EXPECT_TRUE(typing.IsClosed());
    EXPECT_EQ("", test::ReadFile("tqos_error.log"));
}

/// The program telnet on a terminal of its own, as under somebody's hands: it sends each key by itself, and the console
/// echoes.
class Telnet {
public:
    explicit Telnet(unsigned int port) {
        const std::string text = std::to_string(port);
        m_pid = forkpty(&m_terminal, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            execlp("telnet", "telnet", "127.0.0.1", text.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Telnet() {
        close(m_terminal); // hangs up on it, where it still runs
        waitpid(m_pid, nullptr, 0);
    }
    Telnet(const Telnet&) = delete;
    Telnet& operator=(const Telnet&) = delete;

    void Type(const std::string& keys) {
        for (const char key : keys) {
            ASSERT_EQ(1, write(m_terminal, &key, 1)) << strerror(errno);
        }
    }

    /// What comes on the screen until the text has come there.
    std::string WatchTo(const std::string& text) {
        const size_t from = m_screen.size();
        size_t at;
        while ((at = m_screen.find(text, from)) == std::string::npos) {
            struct pollfd readable = {m_terminal, POLLIN, 0};
            char bytes[4096];
            const ssize_t length =
                poll(&readable, 1, kHangSeconds * 1000) == 1 ? read(m_terminal, bytes, sizeof(bytes)) : 0;
            if (length <= 0) {
                ADD_FAILURE() << "never came: " << test::Shown(text) << "\nscreen:\n" << test::Shown(m_screen);
                return "";
            }
            m_screen.append(bytes, static_cast<size_t>(length));
        }
        EXPECT_EQ(m_screen.size(), at + text.size()) << test::Shown(m_screen.substr(at));
        return m_screen.substr(from);
    }

    const std::string& Screen() const { return m_screen; }

private:
    int m_terminal = -1;
    pid_t m_pid = 0;
    std::string m_screen;
};

TEST(DeviceConsole, IsLoggedInToWithTelnetOnATerminal) {
    Device device(kNoTimer);
    Telnet telnet(device.ConsolePort());
    telnet.WatchTo("\r\nlogin: ");
    telnet.Type("lookinsode\b\b\bide\r"); // a key that was wrong is taken back
    telnet.WatchTo("\r\n>");
    EXPECT_NE(std::string::npos, telnet.Screen().find("login: **********\b \b\b \b\b \b***\r\nWelcome...\r\n\r\n>"))
        << test::Shown(telnet.Screen());
    EXPECT_EQ(std::string::npos, telnet.Screen().find("look")) << test::Shown(telnet.Screen());

    telnet.Type("send sampler peroid\b\b\biod\r");
    telnet.WatchTo("one sample every 3600000 ms\r\n>");
    telnet.Type("sh ti");
    telnet.WatchTo("sh ti");
    telnet.Type("\x1b[A"); // up: the half typed line gives way to the one before
    EXPECT_EQ("\b \b\b \b\b \b\b \b\b \bsend sampler period", telnet.WatchTo("send sampler period"));
    telnet.Type(" 500\r");
    EXPECT_NE(std::string::npos,
              telnet.WatchTo("one sample every 500 ms\r\n>").find("Response received from queue Sampler: "));
    telnet.Type("\x05");
    EXPECT_EQ("\r\necho off\r\n\r\n>", telnet.WatchTo("\r\n>"));
    telnet.Type("\x05");
    EXPECT_EQ("\r\necho on\r\n\r\n>", telnet.WatchTo("\r\n>"));
    telnet.Type("quit\r");
    telnet.WatchTo("quit\r\nConnection closed by foreign host.\r\n");
}

TEST(Device, ThePortOfTheCommandLineComesBeforeTheOneInTheSettings) {
    unsigned int port;
    {
        Device first(Device::Changes{{"Port=0", "Port=1"}}, {"-p", "0"}); // 0: any free one
        port = first.Port();
        EXPECT_GT(port, 1u);
    }
    Device second({}, {"-p", std::to_string(port)});
    EXPECT_EQ(port, second.Port());
}

TEST(Device, APortThatIsTakenEndsItWithStatus1) {
    Device first;
    const unsigned int port = first.Port();
    Device second({}, {"-p", std::to_string(port)});
    second.End(0, 1);
    EXPECT_NE(std::string::npos, second.Errors().find("device: cannot listen on port " + std::to_string(port)));
    EXPECT_EQ("", second.Output());
}

TEST(Device, ACommandLineThatIsWrongEndsItWithStatus2) {
    for (const char* pszPort : {"65536", "-1", "x", "80x", ""}) {
        Device device({}, {"-p", pszPort});
        device.End(0, 2);
        EXPECT_EQ("usage: device [-d DIRECTORY] [-p PORT]\n", device.Errors()) << pszPort;
    }
    Device device({}, {"word"});
    device.End(0, 2);
}

} // namespace
