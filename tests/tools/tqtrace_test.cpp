// tqtrace: its parts by themselves, and the program on trace files.
#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>

#include "Announcement.h"
#include "DeviceLevel.h"
#include "Filter.h"
#include "Format.h"
#include "Merge.h"
#include "Options.h"
#include "Output.h"
#include "Record.h"
#include "SocketPeers.h"
#include "TestSupport.h"
#include "Tools.h"
#include "tqos.h"

namespace {

using namespace tqtrace;
using test::ChildResult;

// ---- Lines

struct LineRow {
    const char* pszText;
    const char* pszDate;
    uint32_t ms;
    bool bThread;
    uint32_t thread;
    uint32_t kernelThread;
    const char* pszInstance;
    int level;
    const char* pszMessage;
};

TEST(TqtraceRecord, TakesALineApart) {
    const LineRow rows[] = {
        {"Sat Nov 21 14:42:11 2026 [17]: TID:3:4711 (tqos) WRN: text\n", "Sat Nov 21 14:42:11 2026", 17, true, 3, 4711,
         "tqos", 30000, "text"},
        {"Sun Nov  1 04:02:01 2026 [4294967295]: (device) CRT: x", "Sun Nov  1 04:02:01 2026", 4294967295u, false, 0, 0,
         "device", 50000, "x"},
        {"[0]: (a) SEV: \r\n", "", 0, false, 0, 0, "a", 40000, ""},
        {"[1]: (a b) (c)) INF: y\n\n", "", 1, false, 0, 0, "a b) (c)", 20000, "y\n"},
        {"[1]: () DEB: ) LOW: z", "", 1, false, 0, 0, "", 10000, ") LOW: z"},
        {"[1]: (a) LOW: one\ntwo\n", "", 1, false, 0, 0, "a", 5000, "one\ntwo"},
        {"[1]: (a) UNK: u", "", 1, false, 0, 0, "a", kUnknownLevel, "u"},
    };
    for (const LineRow& row : rows) {
        const Record record = ParseRecord(row.pszText);
        ASSERT_TRUE(record.IsTrace()) << row.pszText;
        EXPECT_EQ(row.pszDate, record.date);
        EXPECT_EQ(row.ms, record.ms);
        EXPECT_EQ(row.bThread, record.bThread);
        EXPECT_EQ(row.thread, record.thread);
        EXPECT_EQ(row.kernelThread, record.kernelThread);
        EXPECT_EQ(row.pszInstance, record.instance);
        EXPECT_EQ(row.level, record.pLevel->level);
        EXPECT_EQ(row.pszMessage, record.message);
    }
}

TEST(TqtraceRecord, WhatIsNoTraceLineStaysText) {
    for (const char* pszText : {"", "text", "[x]: (a) WRN: y", "[4294967296]: (a) WRN: y", "[1] (a) WRN: y",
                                "[1]: a WRN: y", "[1]: (a) WRX: y", "[1]: TID:1 (a) WRN: y", "[1]: (a\n) WRN: y",
                                " [1]: (a) WRN: y", "Sat Nov 21 14:42 2026 [1]: (a) WRN: y"}) {
        const Record record = ParseRecord(pszText);
        EXPECT_FALSE(record.IsTrace()) << pszText;
        EXPECT_EQ(pszText, record.message);
    }
}

/// The library's own lines, in each form that it writes.
TEST(TqtraceRecord, TakesApartWhatTheLibraryWrites) {
    test::Library library("[Trace]\ntqos_Level=None\na_Level=All\na_LogToFile=a.log\n");
    const unsigned int handle = tq_TraceInitInstance("a");
    for (const bool bThreadId : {false, true}) {
        tq_TraceShowThreadID(handle, bThreadId);
        for (const LevelRow& row : Levels()) {
            tq_Trace(handle, row.level > 0 ? row.level : 25000, 1, true, "%s\n", row.pszName);
            tq_Trace(handle, row.level > 0 ? row.level : 25000, 1, false, "%s", row.pszName); // without a line end
        }
    }
    tq_TraceHexDump(handle, TQ_TRACE_LEVEL_DEBUG, 1, "0123456789abcdefgh", 18, "%s", "dump");
    const std::vector<Record> records = ParseFile(test::ReadFile("a.log"));
    ASSERT_EQ(4 * Levels().size() + 4, records.size());
    for (size_t i = 0; i < 4 * Levels().size(); ++i) {
        const Record& record = records[i];
        const LevelRow& row = Levels()[i / 2 % Levels().size()];
        ASSERT_TRUE(record.IsTrace()) << record.text;
        EXPECT_EQ(row.pszName, record.message);
        EXPECT_EQ(row.pszTag[0] != '\0' ? row.level : kUnknownLevel, record.pLevel->level) << record.text;
        EXPECT_EQ(i % 2 == 0, !record.date.empty()) << record.text;
        EXPECT_EQ(i >= 2 * Levels().size(), record.bThread) << record.text;
        EXPECT_EQ(record.bThread ? tq_GetPSThreadId() : 0, record.kernelThread);
    }
    const size_t dump = records.size() - 4;
    EXPECT_EQ("dump", records[dump].message);
    EXPECT_EQ("", records[dump + 1].message);
    EXPECT_NE(std::string::npos, records[dump + 2].message.find("3031323334353637-3839616263646566"));
    EXPECT_NE(std::string::npos, records[dump + 3].message.find("6768"));
}

TEST(TqtraceRecord, AFileMayHoldOtherTextMessagesOfSeveralLinesAndQuotedOnes) {
    const std::vector<Record> records =
        ParseFile("starting\n\n[1]: (a) WRN: one\n two\n[2]: (b) INF: got [9]: (a) WRN: x\n"
                  "[3]: (b) DEB: open[4]: (b) DEB: \n[5]: (b) WRX: no\nlast");
    std::string shown;
    for (const Record& record : records) {
        shown += (record.IsTrace() ? std::to_string(record.ms) : "-") + "<" + record.message + ">";
    }
    EXPECT_EQ("-<starting>-<>1<one\n two>2<got [9]: (a) WRN: x>3<open>4<\n[5]: (b) WRX: no\nlast>", shown);
    EXPECT_TRUE(ParseFile("").empty());
}

/// Pieces of lines in any order: whatever they make, nothing of it is lost.
TEST(TqtraceRecord, EveryByteOfAFileComesOutInItsOrder) {
    const char* const kPieces[] = {"[1]: ",
                                   "(a) ",
                                   "(b) ",
                                   "WRN: ",
                                   "x",
                                   "\n",
                                   "\r\n",
                                   "TID:1:2 ",
                                   "[",
                                   ") ",
                                   "Sat Nov 21 14:42:11 2026 ",
                                   "[2]: (a) INF: y\n"};
    unsigned int seed = 1;
    for (int round = 0; round < 2000; ++round) {
        std::string content;
        for (int i = 0; i < 20; ++i) {
            seed = seed * 1664525 + 1013904223;
            content += kPieces[(seed >> 16) % (sizeof(kPieces) / sizeof(kPieces[0]))];
        }
        size_t at = 0;
        for (const Record& record : ParseFile(content)) {
            ASSERT_EQ(0, content.compare(at, record.text.size(), record.text)) << content;
            ASSERT_EQ(record.message, record.text.substr(record.text.size() - record.message.size())) << content;
            at += record.text.size();
            at += content.compare(at, 2, "\r\n") == 0 ? 2 : content.compare(at, 1, "\n") == 0 ? 1 : 0;
        }
        ASSERT_EQ(content.size(), at) << content;
    }
}

TEST(TqtraceRecord, AHugeLineThatIsNoneIsReadInTimeThatGrowsWithIt) {
    std::string content;
    while (content.size() < 4000000) {
        content += "[1]: (";
    }
    EXPECT_EQ(1u, ParseFile(content).size()); // or it would take hours
}

// ---- Filters

bool Passes(const Filter& filter, const char* pszLine) {
    return filter.Passes(ParseRecord(pszLine));
}

TEST(TqtraceFilter, ByLevelInstanceThreadAndPattern) {
    std::string problem;
    Filter level;
    level.least = 30000;
    EXPECT_TRUE(Passes(level, "[1]: (a) WRN: x"));
    EXPECT_TRUE(Passes(level, "[1]: (a) CRT: x"));
    EXPECT_FALSE(Passes(level, "[1]: (a) INF: x"));
    EXPECT_TRUE(Passes(level, "[1]: (a) UNK: x")); // it may be as severe
    EXPECT_FALSE(Passes(level, "text"));
    Filter instance;
    instance.instances = {"tqos", "Device"};
    EXPECT_TRUE(Passes(instance, "[1]: (device) INF: x"));
    EXPECT_FALSE(Passes(instance, "[1]: (devices) INF: x"));
    EXPECT_FALSE(Passes(instance, "text"));
    Filter thread;
    thread.threads = {3, 4711};
    EXPECT_TRUE(Passes(thread, "[1]: TID:3:1 (a) INF: x"));
    EXPECT_TRUE(Passes(thread, "[1]: TID:1:4711 (a) INF: x"));
    EXPECT_FALSE(Passes(thread, "[1]: TID:1:2 (a) INF: x"));
    EXPECT_FALSE(Passes(thread, "[1]: (a) INF: x"));
    Filter pattern;
    pattern.patterns.resize(2);
    pattern.exceptions.resize(1);
    ASSERT_TRUE(pattern.patterns[0].Set("so(ck|x)et", &problem));
    ASSERT_TRUE(pattern.patterns[1].Set("^.*31", &problem));
    ASSERT_TRUE(pattern.exceptions[0].Set("KEEPALIVE", &problem));
    EXPECT_TRUE(Passes(pattern, "[1]: (a) INF: socket 31"));
    EXPECT_FALSE(Passes(pattern, "[1]: (a) INF: socket 32"));
    EXPECT_FALSE(Passes(pattern, "[1]: (a) INF: socket 31 KEEPALIVE"));
    EXPECT_FALSE(pattern.patterns[0].Set("(", &problem));
    EXPECT_EQ(0u, problem.find("(: "));
    EXPECT_TRUE(Passes(Filter(), "text"));
}

// ---- Times

/// "source:message" of each, in the order of time.
std::string Merged(const std::vector<std::pair<std::string, std::string>>& files, bool bDeltas = false) {
    std::vector<SourceRecords> sources;
    for (const auto& file : files) {
        sources.push_back({file.first, ParseFile(file.second)});
    }
    std::string shown;
    for (const MergedRecord& merged : MergeByTime(sources, bDeltas)) {
        shown += (shown.empty() ? "" : " ") + *merged.pSource + ":" + merged.pRecord->message;
    }
    return shown;
}

TEST(TqtraceMerge, FilesOfOneMachineByTheirMilliseconds) {
    EXPECT_EQ("a:1 b:2 a:3 b:4 b:5", Merged({{"a", "[100]: (a) INF: 1\n[300]: (a) INF: 3\n"},
                                             {"b", "[200]: (b) INF: 2\n[400]: (b) INF: 4\n[500]: (b) INF: 5\n"}}));
    // Dates only say that it may be the same clock: within the second the milliseconds decide.
    const std::string date = "Sat Nov 21 14:42:11 2026 ";
    EXPECT_EQ("a:1 b:2 a:3 b:4", Merged({{"a", date + "[1000100]: (a) INF: 1\n" + date + "[1000300]: (a) INF: 3\n"},
                                         {"b", "[1000200]: (b) INF: 2\n" + date + "[1000400]: (b) INF: 4\n"}}));
}

TEST(TqtraceMerge, FilesOfSeveralMachinesByTheirDates) {
    EXPECT_EQ("b:1 a:2 b:3 a:4",
              Merged({{"a", "Sat Nov 21 14:42:12 2026 [100]: (a) INF: 2\n"
                            "Sat Nov 21 14:42:14 2026 [2100]: (a) INF: 4\n"},
                      {"b", "Sat Nov 21 14:42:10 2026 [9000000]: (b) INF: 1\n[9003500]: (b) INF: 3\n"}}));
}

TEST(TqtraceMerge, AClockThatWrapsGoesOn) {
    EXPECT_EQ("a:1 b:2 a:3 b:4", Merged({{"a", "[4294967000]: (a) INF: 1\n[100]: (a) INF: 3\n"},
                                         {"b", "[4294967200]: (b) INF: 2\n[200]: (b) INF: 4\n"}}));
}

TEST(TqtraceMerge, AMachineThatWasStartedAgainIsPlacedByItsDates) {
    EXPECT_EQ("a:1 b:2 a:3 b:4", Merged({{"a", "Sat Nov 21 14:00:00 2026 [500000]: (a) INF: 1\n"
                                               "Sat Nov 21 14:10:00 2026 [1000]: (a) INF: 3\n"},
                                         {"b", "Sat Nov 21 14:05:00 2026 [7000]: (b) INF: 2\n"
                                               "Sat Nov 21 14:15:00 2026 [607000]: (b) INF: 4\n"}}));
}

TEST(TqtraceMerge, AFileKeepsItsOrderAndTextStaysBehindItsLine) {
    EXPECT_EQ("a:2 b:1 b:3", Merged({{"a", "[50]: (a) INF: 2\n"}, {"b", "[100]: (b) INF: 1\n[90]: (b) INF: 3\n"}}));
    EXPECT_EQ("a:text a:1 b:2", Merged({{"a", "text\n[100]: (a) INF: 1\n"}, {"b", "[200]: (b) INF: 2\n"}}));
    EXPECT_EQ("", Merged({{"a", ""}, {"b", ""}}));
}

TEST(TqtraceMerge, DeltasAreAddedUp) {
    EXPECT_EQ("a:1 b:1 a:2 b:2",
              Merged({{"a", "[10]: (a) INF: 1\n[20]: (a) INF: 2\n"}, {"b", "[15]: (b) INF: 1\n[18]: (b) INF: 2\n"}},
                     /*bDeltas=*/true));
}

// ---- Announcements, levels, the console's summary

TEST(TqtraceAnnouncement, IsTakenApartFieldByField) {
    Announcement found;
    ASSERT_TRUE(ParseAnnouncement("DISCOVER/version=1.2/applicationName=10.0.0.7:a/b:c/mac=02:00:00:00:00:01/"
                                  "IPAddr=10.0.0.8/port=40112/host=//",
                                  &found));
    EXPECT_EQ("1.2", found.version);
    EXPECT_EQ("10.0.0.7:a/b:c", found.name);
    EXPECT_EQ("a/b:c", found.instance);
    EXPECT_EQ("02:00:00:00:00:01", found.mac);
    EXPECT_EQ("10.0.0.8 port 40112", found.endpoint.Text());
    for (const char* pszText :
         {"", "DISCOVER/", "TRACEON/", "DISCOVER/version=1/applicationName=a/mac=b/IPAddr=10.0.0.8/port=0/host=//",
          "DISCOVER/version=1/applicationName=a/mac=b/IPAddr=10.0.0.8/port=65536/host=//",
          "DISCOVER/version=1/applicationName=a/mac=b/IPAddr=0.0.0.0/port=1/host=//",
          "DISCOVER/version=1/applicationName=a/mac=b/IPAddr=host/port=1/host=//",
          "DISCOVER/version=1/mac=b/applicationName=a/IPAddr=10.0.0.8/port=1/host=//",
          "DISCOVER/version=1/applicationName=a/mac=b/IPAddr=10.0.0.8/port=1"}) {
        EXPECT_FALSE(ParseAnnouncement(pszText, &found)) << pszText;
    }
}

TEST(TqtraceLevel, HasNamesTagsAndNumbers) {
    const struct {
        const char* pszText;
        int level;
    } rows[] = {{"warning", 30000},   {"WRN", 30000},     {"Inform", 20000}, {"debug low", 5000}, {"All", 0},
                {"none", 2147483647}, {"-30000", -30000}, {"0x7530", 30000}, {"25000", 25000}};
    for (const auto& row : rows) {
        int level = -1;
        EXPECT_TRUE(ParseLevel(row.pszText, &level)) << row.pszText;
        EXPECT_EQ(row.level, level) << row.pszText;
    }
    for (const char* pszText : {"", "warnings", "Unknown", "UNK", "99999999999", "5x"}) {
        int level = -1;
        EXPECT_FALSE(ParseLevel(pszText, &level)) << pszText;
    }
    EXPECT_EQ("Warning", LevelName(30000));
    EXPECT_EQ("-30000", LevelName(-30000));
}

/// The library's own report is what is parsed.
TEST(TqtraceLevel, IsReadFromTheConsolesSummary) {
    test::Library library("[Trace]\ntqos_Level=None\na_Level=All\n");
    const int levels[] = {0, 5000, 10000, 20000, 30000, 40000, 50000, 2147483647, 25000, -30000, -2147483647};
    const unsigned int handle = tq_TraceInitInstance("a  b c");
    for (const int level : levels) {
        for (const int mask : {-1, 0, 7}) {
            tq_TraceSetLevel(handle, level);
            tq_TraceSetCatMask(handle, mask);
            char* pszReport = nullptr;
            tq_ShowTrace(&pszReport, 0, nullptr);
            std::string report = pszReport;
            tq_free(pszReport);
            report.erase(std::remove(report.begin(), report.end(), '\r'), report.end());
            const std::vector<InstanceRow> rows = ParseTraceSummary(report);
            ASSERT_EQ(2u, rows.size()) << report;
            EXPECT_EQ("tqos", rows[0].name);
            EXPECT_EQ("a  b c", rows[1].name) << report;
            EXPECT_EQ(level, rows[1].level) << report;
            EXPECT_EQ(handle, rows[1].handle);
        }
    }
}

// ---- The device's level

/// A library in this process, its console, and what was said of its level.
class LevelOfA {
public:
    LevelOfA() : m_library("[Trace]\ntqos_Level=None\na_Level=Warning\n"), m_handle(tq_TraceInitInstance("a")) {
        m_port = tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), "");
    }
    ~LevelOfA() { tq_TelnetTerminate(); }

    DeviceLevel Setter(int level) {
        const tools::Address console = {"127.0.0.1", std::to_string(m_port)};
        return DeviceLevel(console, "", level, [this](const std::string& text) { m_said += text + "\n"; });
    }
    int Level() const { return tq_TraceGetLevel(m_handle); }
    void SetLevel(int level) const { tq_TraceSetLevel(m_handle, level); }
    std::string Said() { return std::exchange(m_said, ""); }

private:
    test::Library m_library;
    unsigned int m_handle;
    unsigned int m_port;
    std::string m_said;
};

TEST(TqtraceDeviceLevel, IsSetAndPutBackAlsoToANegativeOne) {
    LevelOfA a;
    a.SetLevel(-30000);
    DeviceLevel level = a.Setter(10000);
    level.Set("A");
    EXPECT_EQ(10000, a.Level());
    EXPECT_EQ("the level of A is Debug, was -30000\n", a.Said());
    level.Set("A"); // once more: what it was is not forgotten
    EXPECT_EQ("the level of A is Debug, was Debug\n", a.Said());
    level.PutBack();
    EXPECT_EQ(-30000, a.Level());
    EXPECT_EQ("the level of A is -30000 again\n", a.Said());
    level.PutBack();
    EXPECT_EQ("", a.Said());
}

TEST(TqtraceDeviceLevel, IsTriedAgainUntilTheInstanceIsThere) {
    LevelOfA a;
    DeviceLevel level = a.Setter(50000);
    level.Set("late");
    EXPECT_EQ("the level of late is not set yet: the device has no such trace instance\n", a.Said());
    level.TryAgain();
    EXPECT_EQ("", a.Said());
    const unsigned int late = tq_TraceInitInstance("late");
    level.TryAgain();
    EXPECT_EQ("the level of late is Critical, was Warning\n", a.Said());
    level.TryAgain();
    EXPECT_EQ("", a.Said());
    EXPECT_EQ(50000, tq_TraceGetLevel(late));
}

TEST(TqtraceDeviceLevel, AConsoleThatIsNotThereIsSaid) {
    const test::Fd nobody = test::BoundPeer(SOCK_STREAM); // does not listen
    const std::string port = std::to_string(test::PortOf(nobody));
    std::string said;
    DeviceLevel level({"127.0.0.1", port}, "", 50000, [&](const std::string& text) { said += text; });
    level.Set("a");
    EXPECT_EQ("the level of a is not set yet: 127.0.0.1:" + port + ": Connection refused", said);
}

TEST(TqtraceDeviceLevel, IsGivenUpInTheEnd) {
    LevelOfA a;
    DeviceLevel level = a.Setter(50000);
    level.Set("b");
    EXPECT_EQ("the level of b is not set yet: the device has no such trace instance\n", a.Said());
    for (int i = 0; i < 29; ++i) {
        level.TryAgain();
    }
    EXPECT_EQ("", a.Said());
    level.TryAgain();
    EXPECT_EQ("the level of b could not be set: the device has no such trace instance\n", a.Said());
    level.TryAgain();
    level.PutBack();
    EXPECT_EQ("", a.Said());
}

// ---- Output

TEST(TqtraceFormat, GivesATerminalNoOrders) {
    EXPECT_EQ("a\tb\nc\\x1b[2J\\x07\\x7f\\x9b", Printable("a\tb\r\nc\x1b[2J\a\x7f") + "\\x9b");
    EXPECT_EQ("source: [1]: (a) INF: \\x1b]0;x\n", TextLine(ParseRecord("[1]: (a) INF: \x1b]0;x\n"), "source"));
    EXPECT_EQ("[1]: (a) INF: x\n", TextLine(ParseRecord("[1]: (a) INF: x\n"), ""));
}

TEST(TqtraceFormat, WritesRecordsAndEventsAsJson) {
    const Record record = ParseRecord("Sat Nov 21 14:42:11 2026 [17]: TID:3:4711 (tqos) WRN: \"a\"\nb\xFF\n");
    EXPECT_EQ("{\"type\":\"line\",\"time\":\"T\",\"source\":\"s\",\"date\":\"Sat Nov 21 14:42:11 2026\",\"ms\":17,"
              "\"instance\":\"tqos\",\"level\":\"Warning\",\"thread\":3,\"kernelThread\":4711,"
              "\"message\":\"\\\"a\\\"\\nb\xEF\xBF\xBD\",\"cut\":true}\n",
              JsonLine(record, "s", "T", true));
    EXPECT_EQ("{\"type\":\"text\",\"source\":\"s\",\"message\":\"x\"}\n", JsonLine(ParseRecord("x"), "s", "", false));
    nlohmann::json event =
        nlohmann::json::parse(JsonLine(Event{"lost", "7 lines", {{"address", "10.0.0.7"}}, {{"datagrams", 7}}}, "s"));
    EXPECT_EQ(24u, event["time"].get<std::string>().size());
    event.erase("time");
    const nlohmann::json expected = {{"type", "event"},       {"source", "s"},  {"event", "lost"},
                                     {"address", "10.0.0.7"}, {"datagrams", 7}, {"text", "7 lines"}};
    EXPECT_EQ(expected, event);
}

TEST(TqtraceOutput, RotatesWithoutCuttingALine) {
    test::ScratchDirectory directory;
    std::string problem;
    {
        Output output;
        ASSERT_TRUE(output.Open("out", 10, 3, &problem));
        for (const char* pszLine : {"one\n", "two\n", "three\n", "four\n", "a line of its own\n", "six\n"}) {
            output.Write(pszLine);
        }
        EXPECT_FALSE(output.HasFailed());
    }
    EXPECT_EQ("six\n", test::ReadFile("out"));
    EXPECT_EQ("a line of its own\n", test::ReadFile("out.1"));
    EXPECT_EQ("four\n", test::ReadFile("out.2"));
    EXPECT_FALSE(test::FileExists("out.3"));
    {
        Output output; // goes on where it ended
        ASSERT_TRUE(output.Open("out", 10, 1, &problem));
        output.Write("7\n");
        output.Write("eight\n");
    }
    EXPECT_EQ("eight\n", test::ReadFile("out"));
    EXPECT_EQ("a line of its own\n", test::ReadFile("out.1"));
}

TEST(TqtraceOutput, SaysWhatCannotBeWritten) {
    test::ScratchDirectory directory;
    std::string problem;
    Output none;
    EXPECT_FALSE(none.Open("no/such/file", 0, 1, &problem));
    EXPECT_EQ("no/such/file: No such file or directory", problem);
    Output full;
    ASSERT_TRUE(full.Open("/dev/full", 0, 1, &problem));
    full.Write("x\n");
    full.Flush();
    EXPECT_TRUE(full.HasFailed());
}

// ---- The program on files

ChildResult Tqtrace(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), TQTRACE_PROGRAM);
    return test::RunTool({arguments, {}, input});
}

TEST(TqtraceRead, MergesFiltersAndNamesTheFiles) {
    test::ScratchDirectory directory;
    test::WriteFile("a.log", "[100]: (a) INF: 1\n[300]: (a) WRN: 3\n");
    test::WriteFile("b.log", "[200]: (b) WRN: 2\n");
    ChildResult result = Tqtrace({"read", "a.log", "b.log"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("a.log: [100]: (a) INF: 1\nb.log: [200]: (b) WRN: 2\na.log: [300]: (a) WRN: 3\n", result.standardOut);
    result = Tqtrace({"read", "a.log", "b.log", "--level", "Warning", "--except", "2$"});
    EXPECT_EQ("a.log: [300]: (a) WRN: 3\n", result.standardOut);
    result = Tqtrace({"read", "-", "--json", "--match", "x"}, "[7]: (a) INF: x\ny\n[8]: (a) INF: z\n");
    EXPECT_EQ("{\"type\":\"line\",\"source\":\"-\",\"ms\":7,\"instance\":\"a\",\"level\":\"Informational\","
              "\"message\":\"x\\ny\"}\n",
              result.standardOut);
    result = Tqtrace({"read", "a.log", "--output", "out", "--max-bytes", "20"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("[300]: (a) WRN: 3\n", test::ReadFile("out"));
    EXPECT_EQ("[100]: (a) INF: 1\n", test::ReadFile("out.1"));
}

TEST(TqtraceRead, AFileThatCannotBeReadIsStatus2AndTheOthersAreShown) {
    test::ScratchDirectory directory;
    test::WriteFile("a.log", "[100]: (a) INF: 1\n");
    test::WriteFile("empty.log", "");
    const ChildResult result = Tqtrace({"read", "none.log", "a.log", "empty.log"});
    EXPECT_EQ(2, result.code);
    EXPECT_EQ("a.log: [100]: (a) INF: 1\n", result.standardOut);
    EXPECT_EQ("tqtrace: none.log: No such file or directory\n", result.standardError);
    EXPECT_EQ(2, Tqtrace({"read", "a.log", "--output", "no/such"}).code);
}

/// The rotating files of the library, as a device leaves them.
TEST(TqtraceRead, BringsRotatedFilesOfTheLibraryIntoTheirOrder) {
    test::Library library("[Trace]\ntqos_Level=None\na_Level=All\na_LogToFile=a.log\na_MaxFiles=3\n"
                          "a_MaxBytesPerFile=600\n");
    const unsigned int handle = tq_TraceInitInstance("a");
    for (int i = 0; i < 40; ++i) {
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "number %d\n", i);
        const unsigned int ms = tq_GetTimeInMS(); // every line has a time of its own
        EXPECT_TRUE(test::WaitUntil([ms] { return tq_GetTimeInMS() != ms; }));
    }
    const std::string files[] = {"a0000.log", "a0001.log", "a0002.log"};
    const ChildResult result = Tqtrace({"read", "--json", files[0], files[1], files[2]});
    EXPECT_EQ(0, result.code);
    std::istringstream lines(result.standardOut);
    int next = -1;
    for (std::string line; std::getline(lines, line);) {
        const int number = atoi(nlohmann::json::parse(line)["message"].get<std::string>().c_str() + 7);
        EXPECT_TRUE(next < 0 || number == next) << line;
        next = number + 1;
    }
    EXPECT_EQ(40, next);
}

TEST(TqtraceProgram, ACommandLineThatIsWrongIsAnsweredWithTheReasonAndStatus2) {
    const struct {
        std::vector<std::string> words;
        const char* pszProblem;
    } rows[] = {
        {{}, "a command is needed"},
        {{"tail"}, "there is no command tail"},
        {{"list", "x"}, "list takes no names"},
        {{"follow"}, "follow needs names"},
        {{"read", "--json"}, "read needs names"},
        {{"read", "x", "--seconds", "1"}, "read has no option --seconds"},
        {{"follow", "x", "--deltas"}, "follow has no option --deltas"},
        {{"follow", "x", "--level"}, "--level needs a value"},
        {{"follow", "x", "--level", "loud"}, "--level: not with loud"},
        {{"follow", "x", "--thread", "main"}, "--thread: not with main"},
        {{"follow", "x", "--lines", "0"}, "--lines: not with 0"},
        {{"follow", "x", "--group", "10.0.0.1"}, "--group: not with 10.0.0.1"},
        {{"follow", "x", "--console", "host"}, "--console: not with host"},
        {{"follow", "x", "--set-level", "Debug"}, "--set-level and --console go together"},
        {{"follow", "x", "--console", "a:1"}, "--set-level and --console go together"},
        {{"follow", "x", "--max-bytes", "100"}, "--max-bytes goes with --output"},
    };
    for (const auto& row : rows) {
        const ChildResult result = Tqtrace(row.words);
        EXPECT_EQ(2, result.code);
        EXPECT_EQ("", result.standardOut);
        EXPECT_EQ(std::string("tqtrace: ") + row.pszProblem + "\n" + kUsage, result.standardError);
    }
    const ChildResult pattern = Tqtrace({"read", "x", "--match", "("});
    EXPECT_EQ(0u, pattern.standardError.find("tqtrace: --match: (: "));
    const ChildResult help = Tqtrace({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_EQ(kUsage, help.standardOut);
    EXPECT_EQ(2, Tqtrace({"read", "--", "--json"}).code); // a file of that name is not there
}

} // namespace
