// Processes that are killed, at any instant, while they write: what they leave is whole but for its last line, and
// never in the way of the next start.
//
// TQOS_KILL_ROUNDS is the number of kills (30), TQOS_KILL_SEED says where the instants begin (1).

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <random>
#include <set>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingQueue.h"
#include "SocketPeers.h"
#include "TestSupport.h"

using test::FileExists;
using test::ReadFile;
using test::ScratchDirectory;
using test::WaitUntil;
using test::WriteFile;

namespace {

// From a process's being ready to its end. Twice the time that writing something takes, where that is more.
constexpr int kMostMicroseconds = 4000;
constexpr int kMostMicrosecondsOfAll = 40000;
constexpr unsigned int kHangSeconds = 60;
constexpr char kQuiet[] = "[Trace]\r\nDefaultLevel=None\r\n";

unsigned int Number(const char* pszVariable, unsigned int otherwise) {
    const char* pszValue = getenv(pszVariable);
    return pszValue ? static_cast<unsigned int>(strtoul(pszValue, nullptr, 10)) : otherwise;
}

/// What the processes and the test both see.
struct Shared {
    std::atomic<unsigned int> ready;
    std::atomic<unsigned int> written; ///< serial number of the last thing that has been written to its end
};

/// A text that follows from its number.
std::string Filler(unsigned int number) {
    return std::string(number * 37 % 400, static_cast<char>('a' + number % 26));
}

std::string Eight(unsigned int number) {
    char text[16];
    snprintf(text, sizeof(text), "%08u", number);
    return text;
}

std::vector<std::string> LinesOf(const std::string& text, std::string* pTail) {
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', at)) {
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    *pTail = text.substr(at);
    return lines;
}

/// Whether it is so many characters of a prefix, and then the text that belongs to the number that it begins with.
bool IsWholeEntry(const std::string& line, const std::string& word) {
    const size_t at = line.find(word);
    if (at == std::string::npos || line.size() < at + word.size() + 8) {
        return false;
    }
    const unsigned int number = static_cast<unsigned int>(strtoul(line.c_str() + at + word.size(), nullptr, 10));
    return line.substr(at) == word + Eight(number) + " " + Filler(number) + " end";
}

// The configuration

std::string Configuration(unsigned int serial) {
    std::string text = std::string(kQuiet) + "[State]\r\n  Serial=" + std::to_string(serial) + "\r\n[Filler]\r\n";
    for (unsigned int i = 0; i < 100; ++i) {
        text += "Key" + std::to_string(i) + "=" + Filler(i) + "\r\n";
    }
    return text + "[End]\r\nMark=end\r\n";
}

/// The file that holds the configuration whole, as it was before the kill or as it was to become; empty: none does.
std::string WholeConfiguration(unsigned int written) {
    for (const char* pszPrefix : {"", "__temp__", "___temp_", "____temp", "_temp___", "temp____"}) {
        const std::string text = ReadFile(std::string(pszPrefix) + "tqos.ini");
        if (text == Configuration(written) || text == Configuration(written + 1)) {
            return text;
        }
    }
    return "";
}

void RewriteConfiguration(Shared& shared) {
    const std::string whole = WholeConfiguration(shared.written);
    WriteFile("tqos.ini", whole);
    shared.written = whole == Configuration(shared.written) ? shared.written.load() : shared.written + 1;
    ++shared.ready;
    for (;;) {
        // Once in a while there is no name left for the temporary: the next attempt has one again.
        if (tq_WriteINIFileInt("State", "Serial", static_cast<int>(shared.written + 1), "tqos.ini") == 1) {
            ++shared.written;
        }
    }
}

void ExpectAConfiguration(const Shared& shared) {
    EXPECT_NE("", WholeConfiguration(shared.written)) << shared.written;
}

// Trace files that rotate

void RotateTraceFiles(Shared& shared) {
    const unsigned int hTrace = tq_TraceInitInstance("kill");
    tq_TraceSetLevel(hTrace, 0);
    tq_TraceSetCatMask(hTrace, -1);
    if (tq_TraceEnableFile(hTrace, "kill.log", 4, 3000) != 0) {
        _exit(93);
    }
    ++shared.ready;
    for (;;) {
        const unsigned int number = shared.written + 1;
        tq_Trace(hTrace, TQ_TRACE_LEVEL_WARNING, 1, true, "line %08u %s end\n", number, Filler(number).c_str());
        shared.written = number;
    }
}

void ExpectWholeTraceLines(const Shared&) {
    for (const char* pszName : {"kill0000.log", "kill0001.log", "kill0002.log", "kill0003.log"}) {
        std::string torn; // as it may be, being the last
        for (const std::string& line : LinesOf(ReadFile(pszName), &torn)) {
            EXPECT_TRUE(IsWholeEntry(line, "]: (kill) WRN: line ")) << pszName << ": " << line;
        }
    }
}

// The error log

void GrowTheErrorLog(Shared& shared) {
    ++shared.ready;
    for (;;) {
        const unsigned int number = shared.written + 1;
        LogCriticalError(("entry " + Eight(number) + " " + Filler(number) + " end").c_str(), false,
                         TQ_TRACE_LEVEL_SEVERE, TQ_TRACE_CAT_SYSTEM);
        shared.written = number;
    }
}

/// All that was ever logged is there. Lines that were the last when a process was killed may be torn.
void ExpectWholeErrors(const Shared& shared) {
    static std::set<std::string> torn;
    std::string last;
    size_t whole = 0;
    for (const std::string& line : LinesOf(ReadFile("tqos_error.log"), &last)) {
        if (torn.count(line) == 0) {
            EXPECT_TRUE(IsWholeEntry(line, ": entry ")) << line;
            ++whole;
        }
    }
    if (!last.empty()) {
        torn.insert(last);
    }
    EXPECT_GE(whole, shared.written);
}

// A memory report into a file

constexpr char kHistogram[] = "[Memory]\r\nEnableMemoryTracking=yes\r\nEnableMemoryPooling=yes\r\nEnableHistogram="
                              "yes\r\nHistogramMaxSize=4000\r\n";

void ReportMemoryTo(const char* pszFile) {
    char command[64];
    snprintf(command, sizeof(command), "histogram format=numeric file=%s", pszFile);
    tq_ShowMemory(0, 0, command);
}

void TouchMemoryOfManySizes() {
    for (unsigned int size = 1; size < 3000; size += 7) {
        tq_free(tq_malloc(size));
    }
}

void WriteMemoryReports(Shared& shared) {
    TouchMemoryOfManySizes();
    ++shared.ready;
    for (;;) {
        ReportMemoryTo("report.txt");
        ++shared.written;
    }
}

/// A line with each of its numbers as "#" and each of its runs of blanks as one.
std::string Shape(const std::string& line) {
    std::string shape;
    for (const char ch : line) {
        const char as = ch >= '0' && ch <= '9' ? '#' : ch == '\t' ? ' ' : ch;
        if ((as != '#' && as != ' ') || shape.empty() || shape.back() != as) {
            shape += as;
        }
    }
    return shape;
}

std::set<std::string> ShapesOf(const char* pszFile) {
    std::string torn;
    std::set<std::string> shapes;
    for (const std::string& line : LinesOf(ReadFile(pszFile), &torn)) {
        shapes.insert(Shape(line));
    }
    return shapes;
}

void ExpectWholeReportLines(const Shared&) {
    if (!FileExists("whole.txt")) { // how a report looks that nobody interrupts
        const test::ChildResult whole = test::RunInChild([] {
            if (tqOS_Initialize() != 0) {
                _exit(90);
            }
            TouchMemoryOfManySizes();
            ReportMemoryTo("whole.txt");
        });
        EXPECT_EQ(0, whole.code);
    }
    const std::set<std::string> known = ShapesOf("whole.txt");
    EXPECT_GT(known.size(), 2u);
    for (const std::string& shape : ShapesOf("report.txt")) {
        EXPECT_EQ(1u, known.count(shape)) << shape;
    }
}

// Kills

struct Writer {
    const char* pszName;
    std::string settings;
    void (*pfnWrite)(Shared& shared);       ///< in a process of its own, for ever
    void (*pfnCheck)(const Shared& shared); ///< what it left
};

const Writer kWriters[] = {
    {"Configuration", Configuration(0), RewriteConfiguration, ExpectAConfiguration},
    {"RotatingTrace", kQuiet, RotateTraceFiles, ExpectWholeTraceLines},
    {"ErrorLog", kQuiet, GrowTheErrorLog, ExpectWholeErrors},
    {"MemoryReport", std::string(kQuiet) + kHistogram, WriteMemoryReports, ExpectWholeReportLines},
};

/// A port that nothing is given by chance: the system's choices lie above.
unsigned int FreePort() {
    unsigned int port = 12000 + static_cast<unsigned int>(getpid()) % 18000;
    for (;; ++port) {
        const test::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const struct sockaddr_in address = test::LoopbackAddress(port);
        if (bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0) {
            return port;
        }
    }
}

/// One process after the other in the same directory, on the same port and path, each killed in its turn.
class KilledProcesses {
public:
    explicit KilledProcesses(const Writer& writer)
        : m_writer(writer), m_port(FreePort()), m_path(m_directory.Path() + "/socket"),
          m_pShared(static_cast<Shared*>(
              mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        WriteFile("tqos.ini", m_writer.settings);
    }
    ~KilledProcesses() { munmap(m_pShared, sizeof(Shared)); }
    KilledProcesses(const KilledProcesses&) = delete;
    KilledProcesses& operator=(const KilledProcesses&) = delete;

    /// Kills the next one so long after it is ready.
    void KillAfter(int microseconds) {
        KillWhenReadyAnd([microseconds] { std::this_thread::sleep_for(std::chrono::microseconds(microseconds)); });
    }

    /// Kills the next one when it has written something; how many microseconds that took.
    int KillOnceItHasWritten() {
        std::chrono::microseconds taken(0);
        KillWhenReadyAnd([this, &taken] {
            const auto ready = std::chrono::steady_clock::now();
            const unsigned int before = Written();
            EXPECT_TRUE(WaitUntil([&] { return Written() != before; }, kHangSeconds)) << "writes nothing";
            taken = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - ready);
        });
        return static_cast<int>(taken.count());
    }

private:
    unsigned int Written() const { return m_pShared->written; }

    /// Starts the next one, kills it when it is ready and a wait is over, and looks at what it left.
    void KillWhenReadyAnd(const std::function<void()>& wait) {
        m_pShared->ready = 0;
        const pid_t child = fork();
        if (child == 0) {
            Run();
        }
        ASSERT_GT(child, 0) << strerror(errno); // to kill no child would kill others
        int status = 0;
        const bool bReady =
            WaitUntil([&] { return m_pShared->ready != 0 || waitpid(child, &status, WNOHANG) == child; }, kHangSeconds);
        ASSERT_TRUE(bReady && m_pShared->ready != 0) << "does not start: " << WEXITSTATUS(status);
        const test::Fd user = test::ConnectedPeer(m_port); // whose connection the kill leaves behind on the port
        wait();
        kill(child, SIGKILL);
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        m_writer.pfnCheck(*m_pShared);
    }

    [[noreturn]] void Run() {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        if (tqOS_Initialize() != 0) {
            _exit(90);
        }
        if (tq_TelnetInitialize(m_port, test::Loopback(), nullptr) != m_port) {
            _exit(91);
        }
        test::RecordingQueue queue(test::kRunning);
        if (tq_SocketOpenTCPServerDomain(queue.GetHandle(), test::Bytes(m_path), 0) == 0) {
            _exit(92);
        }
        m_writer.pfnWrite(*m_pShared);
        _exit(94);
    }

    ScratchDirectory m_directory;
    const Writer& m_writer;
    const unsigned int m_port;
    const std::string m_path;
    Shared* const m_pShared;
};

class Kill : public testing::TestWithParam<Writer> {};

std::string NameOf(const testing::TestParamInfo<Writer>& info) {
    return info.param.pszName;
}

} // namespace

TEST_P(Kill, LeavesWholeLinesAndAFreeWayToTheNextStart) {
    KilledProcesses processes(GetParam());
    std::mt19937 random(Number("TQOS_KILL_SEED", 1));
    const int most = std::max(kMostMicroseconds, 2 * processes.KillOnceItHasWritten());
    std::uniform_int_distribution<int> instant(0, std::min(most, kMostMicrosecondsOfAll));
    for (unsigned int left = Number("TQOS_KILL_ROUNDS", 30); left > 1 && !HasFailure(); --left) {
        processes.KillAfter(instant(random));
    }
}

INSTANTIATE_TEST_SUITE_P(While, Kill, testing::ValuesIn(kWriters), NameOf);
