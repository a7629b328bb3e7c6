// Tables over time, the screen of top, and leaks: by themselves and from the demo device.
#include <gtest/gtest.h>

#include <map>
#include <zlib.h>

#include "Changes.h"
#include "Leaks.h"
#include "TerminalProgram.h"
#include "Tools.h"
#include "Top.h"

namespace {

using tqcon::Json;

// Changes

TEST(Changes, AreThoseOfTheSameRow) {
    const Json before =
        Json::parse(R"([{"id":1,"depth":5,"name":"a"},{"id":2,"depth":7,"name":"b"},{"id":3,"depth":0}])");
    Json now = Json::parse(R"([{"id":3,"depth":0},{"id":1,"depth":3,"name":"z"},{"id":4,"depth":9}])");
    const Json gone = tqcon::AddChanges("queues", before, &now);
    EXPECT_EQ(Json::parse(R"([{"id":3,"depth":0,"change":{}},{"id":1,"depth":3,"name":"z","change":{"depth":-2}},
                              {"id":4,"depth":9,"new":true}])"),
              now);
    EXPECT_EQ(Json::parse(R"([{"id":2,"depth":7,"name":"b"}])"), gone);
}

TEST(Changes, RowsMayBeToldApartBySeveralColumns) {
    const Json before = Json::parse(R"([{"file":"a","line":1,"count":1},{"file":"a","line":2,"count":1}])");
    Json now = Json::parse(R"([{"file":"a","line":2,"count":4}])");
    EXPECT_EQ(1u, tqcon::AddChanges("groups", before, &now).size());
    EXPECT_EQ(3, now[0]["change"]["count"]);
}

TEST(Changes, TheFirstRoundHasNone) {
    Json now = Json::parse(R"([{"id":1,"depth":5}])");
    const Json as = now;
    EXPECT_EQ(Json::array(), tqcon::AddChanges("queues", Json(), &now));
    EXPECT_EQ(as, now);
}

TEST(Changes, RowsAreSortedByAColumnEitherWay) {
    const Json rows = Json::parse(R"([{"id":1,"d":5},{"id":2,"d":7},{"id":3},{"id":4,"d":5}])");
    const auto order = [&rows](const char* pszColumn) {
        Json sorted = rows;
        tqcon::SortRows(pszColumn, &sorted);
        std::string ids;
        for (const Json& row : sorted) {
            ids += row["id"].dump();
        }
        return ids;
    };
    EXPECT_EQ("1423", order("d"));
    EXPECT_EQ("2143", order("-d"));
    EXPECT_EQ("1234", order(""));
    EXPECT_EQ("4321", order("-id"));
}

TEST(Changes, ATableHasItsChangesBesideItsNumbers) {
    const Json rows = Json::parse(R"([{"id":10,"depth":3,"name":"Sampler","change":{"depth":-12}},
                                      {"id":9,"depth":0,"name":null,"new":true}])");
    const Json gone = Json::parse(R"([{"id":4,"depth":1,"name":"Old"}])");
    EXPECT_EQ("  id depth name\n"
              "  10 3 -12 Sampler\n"
              "+  9     0\n"
              "-  4     1 Old\n",
              tqcon::TableText(rows, gone));
    EXPECT_EQ("", tqcon::TableText(Json::array(), Json::array()));
}

// Top

Json SomeSnapshot() {
    return Json::parse(R"({
        "uptime": {"days":1,"hours":2,"minutes":3,"seconds":4.5},
        "queues": {"queues":[{"id":9,"depth":0,"thread":2,"name":"Idle","description":"waits"},
                             {"id":10,"depth":7,"thread":3,"name":"Busy","description":"works"}]},
        "sockets": {"sockets":[{"handle":16,"type":"TCP","state":"connected","source":"a:1","destination":"b:2","name":null}]},
        "memory": {"totals":[{"name":"Bytes requested through TQOS","bytes":1000,"change":0}]},
        "threads": {"threads":[{"index":1,"thread":2,"pid":100,"priority":"normal","name":"tq_MsgQ: Idle"},
                               {"index":2,"thread":3,"pid":101,"priority":"high","name":"tq_MsgQ: Busy"}]},
        "semaphores": {"waits":[{"lock":"0x1","thread":2,"state":"Waiting","type":"CrSec","line":5,"file":"src/Idle.cpp"},
                                {"lock":"0x1","thread":3,"state":"Owned","type":"CrSec","line":6,"file":"src/Busy.cpp"}]},
        "timers": {"timers":[]},
        "handles": {"available":70,"in_use":30,"most":31,"total":100}})");
}

TEST(Top, ShowsADeviceOnOneScreen) {
    Json before = SomeSnapshot();
    before["queues"]["queues"][1]["depth"] = 3;
    before["memory"]["totals"][0]["bytes"] = 900;
    EXPECT_EQ("here:1, up 1 day 2:03:04\n"
              "queues 2 (7 messages waiting), sockets 1 (1 connected), threads 2, timers 0, handles 30 of 100\n"
              "memory 1000 +100 bytes\n"
              "\n"
              "LOCK WAITS\n"
              "  tq_MsgQ: Idle waits at Idle.cpp:5 for tq_MsgQ: Busy, which took the lock at Busy.cpp:6\n"
              "\n"
              "   QUEUE DEPTH        NAME                         DESCRIPTION\n"
              "      10 7 +4         Busy                         works\n"
              "       9 0            Idle                         waits\n"
              "\n"
              "     PID PRIORITY LOCKS  THREAD                         WAITS AT\n"
              "     100 normal   0      tq_MsgQ: Idle                  CrSec Idle.cpp:5\n"
              "     101 high     1      tq_MsgQ: Busy                  \n"
              "\n"
              "  SOCKET TYPE STATE       FROM                   TO                     NAME\n"
              "      16 TCP  connected   a:1                    b:2                    (unnamed)\n",
              tqcon::TopScreen("here:1", before, SomeSnapshot(), 0, 0));
}

TEST(Top, CutsWhatHasNoRoom) {
    Json now = SomeSnapshot();
    for (int i = 0; i < 100; ++i) {
        now["queues"]["queues"].push_back({{"id", 1000 + i}, {"depth", 1}, {"name", "x"}, {"description", ""}});
    }
    const std::string screen = tqcon::TopScreen("here:1", Json(), now, 24, 40);
    EXPECT_GE(24u, test::CountOf(screen, "\n")) << screen;
    EXPECT_EQ(1u, test::CountOf(screen, "...")) << screen;
    for (size_t at = 0; at < screen.size(); at = screen.find('\n', at) + 1) {
        EXPECT_GE(40u, screen.find('\n', at) - at) << screen.substr(at, 80);
    }
}

TEST(Top, SaysWhatADeviceDoesNotTrack) {
    Json now = SomeSnapshot();
    now["semaphores"] = {{"waits", Json::array()}, {"notes", {"Not currently tracking Mutex Sems..."}}};
    now["memory"] = {{"notes", {"Memory Pooling or Memory Tracking must be enabled for this."}}};
    const std::string screen = tqcon::TopScreen("here:1", Json(), now, 0, 0);
    EXPECT_NE(std::string::npos, screen.find("LOCK WAITS\n  Not currently tracking Mutex Sems...\n")) << screen;
    EXPECT_NE(std::string::npos, screen.find("\nMemory Pooling or Memory Tracking must be enabled")) << screen;
}

// Leaks

tqcon::Hunt SomeHunt() {
    tqcon::Hunt hunt;
    hunt.leaks = {{"src/a.cpp", 17, 300, 30000}, {"src/b.cpp", 4, 1, 16}};
    hunt.seconds = 2.5;
    hunt.beganNs = 1600000000000000000;
    hunt.device = "10.0.0.7:2323";
    return hunt;
}

TEST(Leaks, AreWrittenByFileAndLine) {
    tqcon::Hunt hunt = SomeHunt();
    const std::string text = "Allocated within 2.5 s and still there: 301 blocks, 30016 bytes\n"
                             "\n"
                             "   Blocks       Bytes  Allocated at\n"
                             "      300       30000  src/a.cpp:17\n"
                             "        1          16  src/b.cpp:4\n";
    EXPECT_EQ(text, tqcon::LeaksText(hunt));
    hunt.heapChange = 5000;
    EXPECT_EQ(text + "\nBlocks that no pool holds, which are not listed: +5000 bytes\n", tqcon::LeaksText(hunt));
    EXPECT_EQ("Allocated within 0.0 s and still there: 0 blocks, 0 bytes\n", tqcon::LeaksText({}));
}

/// A protocol buffer's message: its fields in their order. A number is kept as one, bytes as they are.
struct Field {
    unsigned int number;
    unsigned long long value;
    std::string bytes;
};

unsigned long long TakeVarint(const std::string& bytes, size_t* pAt) {
    unsigned long long value = 0;
    for (int shift = 0; *pAt < bytes.size(); shift += 7) {
        const unsigned char byte = static_cast<unsigned char>(bytes[(*pAt)++]);
        value |= static_cast<unsigned long long>(byte & 0x7F) << shift;
        if (byte < 0x80) {
            return value;
        }
    }
    ADD_FAILURE() << "a number is cut off";
    return 0;
}

std::vector<Field> FieldsOf(const std::string& bytes) {
    std::vector<Field> fields;
    for (size_t at = 0; at < bytes.size();) {
        const unsigned long long tag = TakeVarint(bytes, &at);
        Field field = {static_cast<unsigned int>(tag >> 3), TakeVarint(bytes, &at), ""};
        if ((tag & 7) == 2) {
            field.bytes = bytes.substr(at, field.value);
            EXPECT_EQ(field.value, field.bytes.size());
            at += field.value;
        } else {
            EXPECT_EQ(0u, tag & 7);
        }
        fields.push_back(field);
    }
    return fields;
}

std::vector<unsigned long long> Packed(const std::string& bytes) {
    std::vector<unsigned long long> values;
    for (size_t at = 0; at < bytes.size();) {
        values.push_back(TakeVarint(bytes, &at));
    }
    return values;
}

std::map<unsigned int, Field> ByNumber(const std::string& bytes) {
    std::map<unsigned int, Field> fields;
    for (const Field& field : FieldsOf(bytes)) {
        fields[field.number] = field;
    }
    return fields;
}

/// The samples of a profile as its readers see them: "file:line count bytes", and what is counted.
std::vector<std::string> ReadProfile(const std::string& profile) {
    std::vector<std::string> strings;
    std::vector<std::string> read;
    std::map<unsigned long long, std::string> functions;
    std::map<unsigned long long, std::string> locations;
    for (const Field& field : FieldsOf(profile)) {
        if (field.number == 6) {
            strings.push_back(field.bytes);
        }
    }
    for (const Field& field : FieldsOf(profile)) {
        const bool bMessage = field.number == 1 || field.number == 4 || field.number == 5;
        std::map<unsigned int, Field> parts = bMessage ? ByNumber(field.bytes) : std::map<unsigned int, Field>();
        if (field.number == 5) {
            functions[parts[1].value] = strings.at(parts[4].value);
        } else if (field.number == 4) {
            std::map<unsigned int, Field> line = ByNumber(parts[4].bytes);
            locations[parts[1].value] = functions[line[1].value] + ":" + std::to_string(line[2].value);
        } else if (field.number == 1) {
            read.push_back(strings.at(parts[1].value) + " in " + strings.at(parts[2].value));
        }
    }
    for (const Field& field : FieldsOf(profile)) {
        if (field.number == 2) {
            std::map<unsigned int, Field> parts = ByNumber(field.bytes);
            const std::vector<unsigned long long> values = Packed(parts[2].bytes);
            read.push_back(locations[Packed(parts[1].bytes).at(0)] + " " + std::to_string(values.at(0)) + " " +
                           std::to_string(values.at(1)));
        }
    }
    EXPECT_EQ("", strings.at(0));
    return read;
}

TEST(Leaks, AProfileSaysTheSame) {
    const std::string profile = tqcon::LeaksProfile(SomeHunt());
    const std::vector<std::string> expected = {"inuse_objects in count", "inuse_space in bytes",
                                               "src/a.cpp:17 300 30000", "src/b.cpp:4 1 16"};
    EXPECT_EQ(expected, ReadProfile(profile));
    EXPECT_EQ(1600000000000000000u, ByNumber(profile)[9].value);
    EXPECT_EQ(2500000000u, ByNumber(profile)[10].value);
}

std::string Unzipped(const std::string& file) {
    test::WriteFile("zipped", file);
    gzFile stream = gzopen("zipped", "rb");
    std::string bytes(1000000, '\0');
    const int length = gzread(stream, &bytes[0], static_cast<unsigned int>(bytes.size()));
    EXPECT_EQ(0, gzdirect(stream));
    gzclose(stream);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
}

TEST(Leaks, AProfileIsCompressedAsGzipDoes) {
    const test::ScratchDirectory directory;
    const std::string profile = tqcon::LeaksProfile(SomeHunt());
    EXPECT_EQ(profile, Unzipped(tqcon::Gzipped(profile)));
    EXPECT_EQ("", Unzipped(tqcon::Gzipped("")));
}

/// What pprof says when it is asked for a profile.
std::string Pprof(const std::string& file, const std::string& sampleIndex, const std::string& unit) {
    const test::ChildResult result = test::RunTool({{"/usr/bin/env", "go", "tool", "pprof", "-top", "-nodefraction=0",
                                                     "-unit=" + unit, "-sample_index=" + sampleIndex, file},
                                                    {},
                                                    ""});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ("", result.standardError);
    return result.standardOut;
}

bool HasPprof() {
    return test::RunTool({{"/usr/bin/env", "go", "tool", "-n", "pprof"}, {}, ""}).code == 0;
}

TEST(Leaks, PprofReadsAProfile) {
    const test::ScratchDirectory directory;
    if (!HasPprof()) {
        GTEST_SKIP() << "no pprof here: it comes with Go";
    }
    test::WriteFile("leaks.pb.gz", tqcon::Gzipped(tqcon::LeaksProfile(SomeHunt())));
    const std::string bytes = Pprof("leaks.pb.gz", "inuse_space", "B");
    EXPECT_EQ(0u, bytes.find("File: 10.0.0.7:2323\nType: inuse_space\n")) << bytes;
    EXPECT_TRUE(test::CountOf(bytes, "30000B 99.95% 99.95%") == 1 && test::CountOf(bytes, "  src/a.cpp:17\n") == 1 &&
                test::CountOf(bytes, "  src/b.cpp:4\n") == 1)
        << bytes;
    const std::string blocks = Pprof("leaks.pb.gz", "inuse_objects", "count");
    EXPECT_EQ(1u, test::CountOf(blocks, "Showing nodes accounting for 301, 100% of 301 total")) << blocks;
}

// With the device

class WatchWithDevice : public test::WithDevice {
protected:
    /// Its history grows by a sample every ten milliseconds.
    static test::DemoDevice::Changes Busy() { return {{"SamplePeriodMs=1000", "SamplePeriodMs=10"}}; }
    test::ChildResult Tqcon(const test::DemoDevice& device, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {TQCON_PROGRAM, device.ConsoleAddress()});
        return test::RunTool({arguments, {"TQOS_PASSWORD=lookinside"}, ""});
    }
    static std::vector<Json> Lines(const std::string& text) {
        std::vector<Json> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(Json::parse(line));
        }
        return lines;
    }
};
INSTANTIATE_TEST_SUITE_P(, WatchWithDevice, testing::Values("64", "32"), test::WidthName);

TEST_P(WatchWithDevice, RoundsShowWhatHasChanged) {
    test::DemoDevice device(Program(), Busy());
    const test::ChildResult result =
        Tqcon(device, {"-w", "0.2", "-n", "3", "--json", "-s", "-bytes", "-c", "sh det mem group", "-c", "sh up"});
    EXPECT_EQ(0, result.code) << result.standardError;
    const std::vector<Json> lines = Lines(result.standardOut);
    ASSERT_EQ(6u, lines.size()) << result.standardOut;
    EXPECT_FALSE(lines[0]["groups"][0].contains("change"));
    EXPECT_TRUE(lines[2]["groups"][0].contains("change")) << lines[2].dump(2);
    EXPECT_TRUE(lines[2]["gone"].contains("groups"));
    EXPECT_GE(lines[2]["groups"][0]["bytes"], lines[2]["groups"][1]["bytes"]);
    EXPECT_TRUE(lines[5].contains("seconds")) << lines[5].dump(2);
    EXPECT_TRUE(lines[5].contains("time"));
}

TEST_P(WatchWithDevice, RoundsAreTablesAsText) {
    test::DemoDevice device(Program());
    const test::ChildResult result = Tqcon(device, {"--watch", "0.05", "--count", "2", "-c", "sh q", "-c", "sh tic"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(2u, test::CountOf(result.standardOut, "  sh q\n")) << result.standardOut;
    EXPECT_EQ(2u, test::CountOf(result.standardOut, " id depth ")) << result.standardOut;
    EXPECT_EQ(2u, test::CountOf(result.standardOut, " Sampler      samples the machine on a timer\n"));
    EXPECT_EQ(2u, test::CountOf(result.standardOut, "ms for each clock tick.\n")) << result.standardOut;
}

TEST_P(WatchWithDevice, AnEmptyTableSaysWhy) {
    test::DemoDevice device(Program(), {{"Tracking=yes\n\n[Trace]", "Tracking=no\n\n[Trace]"}});
    const test::ChildResult result = Tqcon(device, {"--watch", "0", "--count", "1", "-c", "sh sem"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_NE(std::string::npos, result.standardOut.find("\nNot currently tracking Mutex Sems...\n"))
        << result.standardOut;
}

TEST_P(WatchWithDevice, ARoundThatIsRefusedIsTheLast) {
    test::DemoDevice device(Program());
    const test::ChildResult result = Tqcon(device, {"--watch", "0.05", "-c", "nonsense"});
    EXPECT_EQ(1, result.code);
    EXPECT_EQ("tqcon: nonsense: Syntax error.\n", result.standardError);
}

TEST_P(WatchWithDevice, TopWithoutATerminalIsOneScreen) {
    test::DemoDevice device(Program());
    const test::ChildResult result = Tqcon(device, {"top"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(0u, result.standardOut.find(device.ConsoleAddress() + ", up 0:0")) << result.standardOut;
    for (const char* pszPiece :
         {"\nqueues 4 (", "\nmemory ", "\nLOCK WAITS\n", " Sampler ", " TQOS: Timer Thread ", " Telnet instance"}) {
        EXPECT_NE(std::string::npos, result.standardOut.find(pszPiece)) << pszPiece << "\n" << result.standardOut;
    }
    EXPECT_EQ(std::string::npos, result.standardOut.find('\x1b'));
}

TEST_P(WatchWithDevice, TopOnATerminalGoesOnUntilQ) {
    test::DemoDevice device(Program());
    setenv("TQOS_PASSWORD", "lookinside", 1);
    test::TerminalProgram top({TQCON_PROGRAM, "top", device.ConsoleAddress(), "-w", "0.05"});
    top.Terminal().ReadTo("\x1b[?1049h");
    for (int screen = 0; screen < 3; ++screen) {
        top.Terminal().ReadTo("LOCK WAITS");
    }
    top.Terminal().Send("xq");
    top.Terminal().ReadTo("\x1b[?1049l");
    EXPECT_EQ(0, top.WaitForEnd());
}

TEST_P(WatchWithDevice, FindsWhatTheDeviceKeeps) {
    test::DemoDevice device(Program(), Busy());
    Json json;
    EXPECT_TRUE(test::WaitUntil([&] { // on a busy machine a sample may take longer
        const test::ChildResult result =
            Tqcon(device, {"leaks", "--for", "0.5", "--json", "--filter", "History.cpp", "--pprof", "leaks.pb.gz"});
        EXPECT_EQ(0, result.code) << result.standardError;
        json = Json::parse(result.standardOut);
        return !json["leaks"].empty();
    }));
    ASSERT_EQ(1u, json["leaks"].size()) << json.dump(2);
    const Json leak = json["leaks"][0];
    EXPECT_NE(std::string::npos, leak["file"].get<std::string>().find("History.cpp")) << leak;
    EXPECT_GE(leak["count"].get<int>(), 1);
    EXPECT_GE(json["seconds"].get<double>(), 0.5);
    const std::vector<std::string> profile = ReadProfile(Unzipped(test::ReadFile("leaks.pb.gz")));
    ASSERT_EQ(3u, profile.size());
    EXPECT_EQ(leak["file"].get<std::string>() + ":" + leak["line"].dump() + " " + leak["count"].dump() + " " +
                  leak["bytes"].dump(),
              profile[2]);
}

TEST_P(WatchWithDevice, LeavesOutWhatTheSessionItselfKeeps) {
    test::DemoDevice device(Program(), Busy());
    test::ChildResult result = Tqcon(device, {"leaks", "--for", "0"});
    EXPECT_EQ(0, result.code) << result.standardError;
    EXPECT_EQ(std::string::npos, result.standardOut.find("tq_Telnet.cpp")) << result.standardOut;
    result = Tqcon(device, {"leaks", "--for", "0", "--all"});
    EXPECT_NE(std::string::npos, result.standardOut.find("tq_Telnet.cpp")) << result.standardOut;
}

TEST_P(WatchWithDevice, ADeviceWithoutPoolsIsStatusFive) {
    test::DemoDevice device(Program(), {{"EnableMemoryPooling=yes", "EnableMemoryPooling=no"}});
    const test::ChildResult result = Tqcon(device, {"leaks", "--for", "0", "--json"});
    EXPECT_EQ(5, result.code);
    EXPECT_EQ("unavailable", Json::parse(result.standardOut)["error"]["kind"]);
    EXPECT_NE(std::string::npos, result.standardError.find("EnableMemoryPooling=yes")) << result.standardError;
}

} // namespace
