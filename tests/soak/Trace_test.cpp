// Trace: threads that write lines into rotating files, while viewers on the network come, go and fall silent. Every
// line stands in the files, whole, once and in order; viewers see lines in order; who has fallen silent is forgotten.
#include <mutex>
#include <set>
#include <sstream>
#include <string.h>

#include "Soak.h"
#include "TraceLoad.h"

namespace {

using namespace soak;
using namespace test;

constexpr int kFiles = 64;                 ///< more than a round fills
constexpr unsigned int kRoundLines = 4000; ///< afterwards the files are read and begun anew
constexpr int kFileBytes = 16000;
constexpr int kRingFiles = 3;
constexpr unsigned int kLinesForAViewer = 50;
constexpr char kFill[] = "------------------------------------------------------------";
constexpr unsigned int kFillMost = sizeof(kFill) - 1;

/// A line ends with the number of its dashes, by which a torn one shows.
bool IsWhole(const std::string& line) {
    const size_t end = line.rfind(' ');
    const size_t begin = end == std::string::npos ? end : line.rfind(' ', end - 1);
    return begin != std::string::npos &&
           line.substr(begin + 1, end - begin - 1) == std::string(strtoul(line.c_str() + end, nullptr, 10), '-');
}

/// Somebody who looks on for a moment only.
class Passer {
public:
    explicit Passer(unsigned int port) : m_fd(BoundPeer(SOCK_DGRAM)) {
        EXPECT_TRUE(ConnectPeer(m_fd, port));
        Say("TRACEON/");
    }
    void Leave() { Say("TRACEOFF/"); }

    /// True when what came meanwhile came in order.
    bool LookOn(unsigned int lines) {
        LineCheck seen;
        char text[1100];
        for (unsigned int i = 0; i < lines; ++i) {
            const ssize_t length = recv(m_fd.Get(), text, sizeof(text) - 1, MSG_DONTWAIT);
            if (length <= 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            text[length] = '\0';
            seen.See(text);
        }
        return seen.bAscending;
    }

private:
    void Say(const char* pszText) { send(m_fd.Get(), pszText, strlen(pszText) + 1, 0); }
    const Fd m_fd;
};

class TraceSoak : public Soak {
public:
    TraceSoak() : m_hJournal(tq_TraceInitInstance("Journal")), m_hLive(tq_TraceInitInstance("Live")) {
        EXPECT_EQ(0, tq_TraceEnableFile(m_hLive, "ring.log", kRingFiles, kFileBytes));
        BeginFiles();
        m_port = LivePort();
        for (unsigned int tracer = 0; tracer < kTracers; ++tracer) {
            m_workers.Add(PauseMs(), [this, tracer] { TraceLines(tracer); });
        }
        // The silent ones are sent each line for some seconds more; in a long run there are a few dozen of them.
        for (unsigned int i = 0; i < 2; ++i) {
            m_lookers.Add(IsLong() ? 500 : 1, [this] { LookOn(); });
        }
    }

    bool HasWorked() const override { return m_rounds > 0 && m_viewers > 10; }
    unsigned long long Done() const override { return m_lines; }

    void Stop() override {
        m_workers.Stop();
        m_lookers.Stop();
        CheckFiles();
        CheckRing();
        if (IsLong()) {
            EXPECT_TRUE(WaitUntil([this] { return AreSilentOnesForgotten(); }, kHangSeconds));
        }
        EXPECT_EQ(0u, m_outOfOrder);
        EXPECT_EQ(0, tq_TraceTermInstance(m_hLive));
        EXPECT_EQ(0, tq_TraceTermInstance(m_hJournal));
    }

    std::string Account() const override {
        return std::to_string(m_lines) + " lines in " + std::to_string(m_rounds) + " rounds of files, and " +
               std::to_string(m_viewers) + " viewers";
    }

private:
    unsigned int LivePort() {
        const tq_LockedTrace trace;
        return tq_SocketGetBoundPort(static_cast<unsigned int>(tq_FindTraceInstanceLocked(m_hLive)->iSocket));
    }

    /// The probing goes on as long as somebody has subscribed since the last TRACEOFF/.
    bool AreSilentOnesForgotten() {
        if (!m_pLast) {
            m_pLast = std::make_unique<Passer>(m_port);
        }
        const tq_LockedTrace trace;
        return tq_FindTraceInstanceLocked(m_hLive)->pNetTrace->Viewers() == 0;
    }

    /// Whoever completes a round reads the files, while the others wait.
    void TraceLines(unsigned int tracer) {
        {
            const std::lock_guard<std::mutex> lock(m_tracing[tracer]);
            for (unsigned int i = 0; i < 20; ++i) {
                TraceLine(tracer);
            }
        }
        if (m_inFiles >= kRoundLines) {
            const std::lock_guard<std::mutex> first(m_tracing[0]);
            const std::lock_guard<std::mutex> second(m_tracing[1]);
            const std::lock_guard<std::mutex> third(m_tracing[2]);
            if (m_inFiles >= kRoundLines) {
                CheckFiles();
                BeginFiles();
            }
        }
    }

    void TraceLine(unsigned int tracer) {
        const unsigned int number = ++m_number[tracer];
        const unsigned int fill = 1 + Random(kFillMost - 1);
        for (const unsigned int handle : {m_hJournal, m_hLive}) {
            tq_Trace(handle, TQ_TRACE_LEVEL_INFORMATIONAL, 1, /*bIncludeTimeStamp=*/true, "tracer %u line %u %.*s %u\n",
                     tracer, number, static_cast<int>(fill), kFill, fill);
        }
        ++m_lines;
        ++m_inFiles;
    }

    /// A line goes to all who have come and not left: were it only by the clock that they come, a slow machine would
    /// have ever more of them for ever fewer lines.
    void LookOn() {
        if (m_lines < m_viewers * kLinesForAViewer) {
            return;
        }
        Passer passer(m_port);
        ++m_viewers;
        m_outOfOrder += passer.LookOn(Random(60)) ? 0 : 1;
        if (Random(3) == 0) {
            passer.Leave();
        } // the others just fall silent
    }

    void BeginFiles() {
        EXPECT_EQ(0, tq_TraceEnableFile(m_hJournal, "journal.log", kFiles, kFileBytes));
        m_inFiles = 0;
    }

    /// Reads a file's lines, each of which must be whole, and removes it. False when there is none.
    template <class See> static bool TakeFile(const char* pszPrefix, unsigned int index, See see) {
        char name[64];
        snprintf(name, sizeof(name), "%s%04u.log", pszPrefix, index);
        if (!FileExists(name)) {
            return false;
        }
        const std::string text = ReadFile(name);
        EXPECT_TRUE(text.empty() || text.back() == '\n');
        std::istringstream file(text);
        for (std::string line; std::getline(file, line);) {
            EXPECT_TRUE(IsWhole(line)) << line;
            see(line);
        }
        EXPECT_TRUE(tq_RemoveFile(name));
        return true;
    }

    /// All that was traced since the files began stands in them.
    void CheckFiles() {
        EXPECT_EQ(0, tq_TraceDisableFile(m_hJournal));
        unsigned int files = 0;
        while (TakeFile("journal", files, [this](const std::string& line) { m_journal.See(line.c_str()); })) {
            ++files;
        }
        EXPECT_LT(files, static_cast<unsigned int>(kFiles));
        EXPECT_TRUE(m_journal.bWithoutGap);
        for (unsigned int tracer = 0; tracer < kTracers; ++tracer) {
            EXPECT_EQ(m_number[tracer], m_journal.last[tracer]);
        }
        ++m_rounds;
    }

    /// Of files that begin again and again the newest lines are left, without a gap.
    void CheckRing() {
        EXPECT_EQ(0, tq_TraceDisableFile(m_hLive));
        std::set<unsigned int> left[kTracers];
        const auto see = [&left](const std::string& line) {
            unsigned int tracer = kTracers;
            unsigned int number = 0;
            EXPECT_EQ(2, sscanf(line.c_str() + line.find("tracer "), "tracer %u line %u", &tracer, &number));
            EXPECT_TRUE(tracer < kTracers && left[tracer].insert(number).second) << line;
        };
        for (unsigned int file = 0; file < kRingFiles; ++file) {
            EXPECT_TRUE(TakeFile("ring", file, see));
        }
        for (unsigned int tracer = 0; tracer < kTracers; ++tracer) {
            const std::set<unsigned int>& numbers = left[tracer];
            ASSERT_FALSE(numbers.empty());
            EXPECT_EQ(m_number[tracer], *numbers.rbegin());
            EXPECT_EQ(numbers.size(), *numbers.rbegin() - *numbers.begin() + 1);
        }
    }

    const unsigned int m_hJournal;
    const unsigned int m_hLive;
    unsigned int m_port = 0;
    std::mutex m_tracing[kTracers]; // each held by its thread while it traces; all, by whoever reads the files
    unsigned int m_number[kTracers] = {};
    LineCheck m_journal;
    std::atomic<unsigned int> m_inFiles{0};
    std::atomic<unsigned long long> m_lines{0};
    std::atomic<unsigned long long> m_rounds{0};
    std::atomic<unsigned long long> m_viewers{0};
    std::atomic<unsigned int> m_outOfOrder{0};
    std::unique_ptr<Passer> m_pLast;
    Workers m_workers;
    Workers m_lookers;
};

TEST(Soak, EachLineOfTraceIsWrittenOnceWhileViewersComeGoAndFallSilent) {
    RunSoak<TraceSoak>({"trace", "[Trace]\nJournal_Level=All\nLive_Level=All\nLive_LogToMulticast=yes\n", nullptr});
}

} // namespace
