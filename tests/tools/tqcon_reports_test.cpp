// What tqcon makes of reports: of those that the library writes here, whose truth is known, and of the demo device's.
#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "JsonOutput.h"
#include "Script.h"
#include "Tools.h"

namespace {

using tqcon::Json;

/// A session of a console that runs in this process.
class Session {
public:
    explicit Session(unsigned int port) {
        EXPECT_EQ(tools::Result::Ok, m_console.Connect({"127.0.0.1", std::to_string(port)})) << m_console.Problem();
    }

    Json Ask(const std::string& line) { return tqcon::AnswerJson(line, tqcon::Ask(&m_console, line)); }

    /// A table of a report that has no line but its own.
    Json Table(const std::string& line, const char* pszTable) {
        const Json json = Ask(line);
        EXPECT_FALSE(json.contains("notes")) << json.dump(2);
        EXPECT_FALSE(json.contains("error")) << json.dump(2);
        return json.value(pszTable, Json::array());
    }

private:
    tools::Console m_console{{30000, 30000, 30000}};
};

/// The row of a table whose column has this value.
template <typename Value> Json RowOf(const Json& table, const char* pszColumn, const Value& value) {
    for (const Json& row : table) {
        if (row.contains(pszColumn) && row[pszColumn] == value) {
            return row;
        }
    }
    ADD_FAILURE() << "no row with " << pszColumn << " " << value << " in " << table.dump(2);
    return {};
}

/// A queue that does nothing.
class QuietQueue : public tq_MsgQ {
public:
    QuietQueue(const char* pszName, const char* pszDescription) : tq_MsgQ(pszName, pszDescription) { Create(0); }
    ~QuietQueue() override { Destroy(false); }
    void MessageHandler(MSG_COMMON* pMsg) override { tq_free(pMsg); }
};

TEST(Reports, QueuesHaveNamesAndDescriptionsOfAnyLength) {
    test::Console console;
    const char* const rows[][2] = {
        {"Short", "as most are"},
        {"A name with blanks that is longer than its column", "short"},
        {"Fits", "A description with blanks that is longer than its column"},
        {"Exactly twenty bytes", "a description of 30 characters"},
        {"No description", ""},
    };
    std::vector<std::unique_ptr<QuietQueue>> queues;
    for (const auto& row : rows) {
        queues.push_back(std::make_unique<QuietQueue>(row[0], row[1]));
    }
    Session session(console.Port());
    const Json table = session.Table("sh q", "queues");
    for (size_t i = 0; i < queues.size(); ++i) {
        const Json row = RowOf(table, "id", queues[i]->GetHandle());
        EXPECT_EQ(rows[i][0], row["name"]);
        EXPECT_EQ(rows[i][1], row["description"]);
    }
    EXPECT_EQ("TQOS: Telnet", RowOf(table, "id", tq_ConsoleQueueHandle())["name"]);
}

TEST(Reports, AQueuesMessagesAndHistory) {
    test::Console console;
    Session session(console.Port());
    const std::string handle = std::to_string(console.Door().GetHandle());
    EXPECT_EQ("Queue History set to 7.\n", session.Ask("set his " + handle + " 7")["text"]);
    const Json summary = session.Ask("sh sum " + handle);
    EXPECT_EQ("Door", summary["responses"][0]["queue"]);
    EXPECT_EQ("summary, flags 0\n", summary["responses"][0]["text"]);
    const Json json = session.Ask("sh det q " + handle);
    EXPECT_EQ(Json({{{"command", "MSG_TELNET_SUMMARY"}}}), json["history"]) << json.dump(2);
    EXPECT_EQ(Json::array(), json["messages"]);
    EXPECT_FALSE(json.contains("notes")) << json.dump(2);
    EXPECT_EQ("Could not find the queue id specified.", session.Ask("sh det q 54321")["notes"][0]);
}

TEST(Reports, MessagesAreReadFieldByField) {
    const tqcon::Report* pReport = tqcon::FindReport(tqcon::ParseCommand("sh det q 5"));
    ASSERT_NE(nullptr, pReport);
    MSG_COMMON message = {1, 2, 28, MSG_USER + 5, 4, 5, 6};
    char dump[256];
    DumpMsgToBuf(&message, dump);
    std::string text = std::string("High Priority Message Queue Details...\n") + dump;
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    const Json expected = {{{"priority", "High"},
                            {"source", 1},
                            {"destination", 2},
                            {"size", 28},
                            {"command", "MSG_USER+5"},
                            {"instance", 4},
                            {"userparm", 5},
                            {"flags", 6}}};
    EXPECT_EQ(expected, tqcon::ParseReport(*pReport, text)["messages"]);
}

TEST(Reports, SocketsWithTheirEndsAndPaths) {
    test::Console console;
    const unsigned int hTcp = tq_SocketOpenTCPServer(console.Door().GetHandle(), 0, 0, test::Loopback());
    const unsigned int hLocal = tq_SocketOpenTCPServerDomain(console.Door().GetHandle(), test::Bytes("door.sock"), 0);
    ASSERT_NE(0u, hTcp);
    ASSERT_NE(0u, hLocal);
    tq_SocketSetName(hTcp, "A name longer than the column has room for");
    Session session(console.Port());
    const Json table = session.Table("sh so", "sockets");
    const Json tcp = RowOf(table, "handle", hTcp);
    EXPECT_EQ("A name longer than the column has room for", tcp["name"]);
    EXPECT_EQ("TCP", tcp["type"]);
    EXPECT_EQ("listening", tcp["state"]);
    EXPECT_EQ("127.0.0.1:" + std::to_string(tq_SocketGetBoundPort(hTcp)), tcp["source"]);
    const Json local = RowOf(table, "handle", hLocal);
    EXPECT_EQ("door.sock", local["path"]);
    const Json details = session.Ask("sh det so " + std::to_string(hTcp));
    EXPECT_EQ("LISTENING", details["state"]);
    EXPECT_EQ(console.Door().GetHandle(), details["msgq"]);
    EXPECT_EQ(0, details["data_to_send"]);
    EXPECT_EQ(false, details["multicast"]);
    EXPECT_FALSE(details.contains("notes")) << details.dump(2);
    EXPECT_EQ("Invalid Socket Handle supplied.", session.Ask("sh det so 54321")["notes"][0]);
}

TEST(Reports, ListsInEveryOrder) {
    test::Console console;
    std::vector<std::unique_ptr<tq_List>> lists;
    for (int i = 0; i < 50; ++i) { // more than one response has rows for
        lists.push_back(std::make_unique<tq_List>(("Shelf > of books " + std::to_string(i)).c_str()));
    }
    int book = 0;
    lists[7]->AddToTail(&book);
    Session session(console.Port());
    for (const char* pszLine : {"sh l shelf", "sh l sort=-count shelf", "sh l sort=name shelf"}) {
        const Json json = session.Ask(pszLine);
        EXPECT_EQ(50, json["total"]) << pszLine;
        EXPECT_EQ(50u, json["lists"].size()) << pszLine << json.dump(2);
        EXPECT_FALSE(json.contains("notes")) << pszLine << json.dump(2);
        const Json row = RowOf(json["lists"], "name", "Shelf > of books 7");
        EXPECT_EQ(1, row["count"]) << pszLine;
        EXPECT_EQ(1, row["most"]) << pszLine;
        EXPECT_EQ(0, row["hashes"]) << pszLine;
    }
}

TEST(Reports, TimersThreadsAndTraceInstances) {
    test::Console console;
    tq_TimerSet(console.Door().GetHandle(), 1000000, 7, 8, 9, TQ_TIMER_ONE_SHOT, "door closes", false);
    const unsigned int hTrace = tq_TraceInitInstance("an instance");
    tq_TraceSetLevel(hTrace, -12345678);
    tq_TraceSetCatMask(hTrace, 0x21);
    tq_TraceSetCategoryName(hTrace, 1, "First one");
    Session session(console.Port());
    const Json timer = RowOf(session.Table("sh t", "timers"), "instance", 7);
    EXPECT_EQ(console.Door().GetHandle(), timer["queue"]);
    EXPECT_EQ("one-shot", timer["type"]);
    EXPECT_EQ(1000000, timer["duration_ms"]);
    EXPECT_EQ("door closes", timer["name"]);
    EXPECT_TRUE(
        test::WaitUntil([&] { return test::CountOf(session.Ask("sh th").dump(), "\"TQOS: Timer Thread\"") == 1; }));
    EXPECT_EQ("normal", RowOf(session.Table("sh th", "threads"), "name", "TQOS: Timer Thread")["priority"]);
    const Json trace = RowOf(session.Table("sh tr", "instances"), "instance", hTrace);
    EXPECT_EQ("-12345678", trace["level"]);
    EXPECT_EQ("0x00000021", trace["categories"]);
    EXPECT_EQ("an instance", trace["name"]);
    const Json details = session.Ask("sh det tr \"an instance\"");
    EXPECT_EQ(Json({{{"bit", "0x00000001"}, {"name", "First one"}}}), details["categories"]) << details.dump(2);
    EXPECT_EQ(-12345678, atoi(details["tracing_level"].get<std::string>().c_str()));
    EXPECT_TRUE(details["logfile"].is_null());
    tq_TraceTermInstance(hTrace);
}

TEST(Reports, WaitsForLocks) {
    test::Console console(nullptr, "[Sem]\nTracking=yes\n");
    Session session(console.Port());
    const Json waits = session.Table("sh sem", "waits");
    ASSERT_FALSE(waits.empty());
    for (const Json& wait : waits) {
        EXPECT_TRUE(wait["state"] == "Waiting" || wait["state"] == "Owned") << wait;
        EXPECT_FALSE(wait["file"].get<std::string>().empty());
    }
}

constexpr char kPools[] = "[Memory]\nEnableMemoryTracking=yes\nEnableMemoryPooling=yes\nEnableHistogram=yes\n";

TEST(Reports, MemoryInEveryForm) {
    test::Console console(nullptr, kPools);
    void* pBlock = tq__malloc(1000, "a house/with blanks.cpp", 4711);
    memset(pBlock, 'x', 1000);
    Session session(console.Port());
    const Json pool = RowOf(session.Table("sh mem", "pools"), "block_size", 1024);
    EXPECT_EQ(pool["total"].get<int>(), pool["in_use"].get<int>() + pool["available"].get<int>());
    EXPECT_GE(pool["most_in_use"].get<int>(), 1);
    const Json total = RowOf(session.Table("sh mem", "totals"), "name", "MAX Bytes requested through TQOS");
    EXPECT_GE(total["bytes"].get<int>(), 1000);
    const Json group = RowOf(session.Table("sh det mem group", "groups"), "line", 4711);
    EXPECT_EQ(Json({{"count", 1}, {"bytes", 1000}, {"file", "a house/with blanks.cpp"}, {"line", 4711}}), group);
    const Json block = RowOf(session.Table("sh det mem", "blocks"), "line", 4711);
    EXPECT_EQ(1000, block["bytes"]);
    EXPECT_EQ(0u, block["content"].get<std::string>().find("78 78 78 78")) << block;
    const Json sum = RowOf(session.Table("sh det mem line=4711", "sums"), "pool", "ALL");
    EXPECT_EQ(1000, sum["requested_bytes"]);
    EXPECT_EQ("No memory leaks detected!", session.Ask("sh det mem line=4712")["notes"][0]);
    EXPECT_EQ(Json::array(), session.Ask("ch mem")["corrupt"]);
    tq_free(pBlock);
}

TEST(Reports, TheHistogramInEveryForm) {
    test::Console console(nullptr, kPools);
    void* pBlock = tq__malloc(777, __FILE__, __LINE__);
    Session session(console.Port());
    for (const char* pszForm : {"numeric", "combo", "graphic", "ini"}) {
        const Json json = session.Ask(std::string("sh mem histogram format=") + pszForm);
        EXPECT_FALSE(json.contains("notes")) << json.dump(2);
        EXPECT_FALSE(json.value(strcmp(pszForm, "ini") == 0 ? "suggested" : "histogram", Json::array()).empty())
            << json.dump(2);
    }
    EXPECT_EQ(1, RowOf(session.Ask("sh mem histogram format=numeric")["histogram"], "bytes", 777)["most"]);
    tq_free(pBlock);
}

TEST(Reports, HashesOfAList) {
    test::Console console;
    Session session(console.Port());
    const Json list = RowOf(session.Table("sh hl queues", "lists"), "name", "TQOS: All Queues");
    const std::string handle = std::to_string(list["handle"].get<unsigned int>());
    const Json hash = session.Table("sh has " + handle, "hashes")[0];
    EXPECT_EQ(1, hash["hash"]);
    int nodes = 0;
    const Json buckets = session.Table("sh det has " + handle + " 1", "buckets");
    for (const Json& bucket : buckets) {
        nodes += bucket["nodes"].get<int>();
    }
    EXPECT_EQ(hash["buckets"], buckets.size());
    EXPECT_EQ(list["count"], nodes);
    EXPECT_EQ("List not found.", session.Ask("sh has 54321")["notes"][0]);
}

TEST(Reports, SingleValues) {
    test::Console console;
    Session session(console.Port());
    EXPECT_EQ("little", session.Ask("sh en")["endian"]);
    EXPECT_EQ(console.TheLibrary().Path(), session.Ask("sh dir")["directory"]);
    EXPECT_GT(session.Ask("sh tic")["ms"].get<int>(), 0);
    EXPECT_GT(session.Ask("sh cur")["ms"].get<unsigned int>(), 0u);
    EXPECT_TRUE(test::WaitUntil([&] { return session.Ask("sh up").contains("seconds"); })); // not in its first tick
    const Json handles = session.Ask("sh han");
    EXPECT_EQ(handles["total"].get<int>(), handles["available"].get<int>() + handles["in_use"].get<int>());
    EXPECT_EQ(false, session.Ask("ch han")["duplicates"]);
    EXPECT_EQ("127.0.0.1", RowOf(session.Table("sh in", "interfaces"), "ip", "127.0.0.1")["ip"]);
}

TEST(Reports, AnUptimeHasAllItsUnits) {
    const tqcon::Report* pReport = tqcon::FindReport(tqcon::ParseCommand("sh up"));
    ASSERT_NE(nullptr, pReport);
    const Json json = tqcon::ParseReport(*pReport, "TQOS has been up for: 2 days 1 hour 0 minutes 7.045 seconds\n");
    EXPECT_EQ(Json({{"days", 2}, {"hours", 1}, {"minutes", 0}, {"seconds", 7.045}}), json);
}

TEST(Reports, ErrorsAndTextsAreJsonToo) {
    test::Console console;
    Session session(console.Port());
    const Json expected = {{"command", "sh nothing"},
                           {"error", {{"kind", "syntax"}, {"status", 1}, {"message", "Syntax error."}}}};
    EXPECT_EQ(expected, session.Ask("sh nothing"));
    EXPECT_NE(std::string::npos, session.Ask("help")["text"].get<std::string>().find("Command Summary:"));
    // What is no UTF-8 can be written all the same.
    EXPECT_EQ("\"a\xef\xbf\xbd\"\n", tqcon::JsonLine(Json("a\xff")));
}

/// The row of the page's table that is about a report.
std::string RowOfPage(const std::string& page, const std::string& report) {
    const size_t at = page.find("\n| `" + report + "` | ");
    EXPECT_NE(std::string::npos, at) << report;
    return at == std::string::npos ? "" : page.substr(at + 1, page.find('\n', at + 1) - at - 1);
}

TEST(Reports, ThePageNamesEveryTableAndColumn) {
    const std::string page = test::ReadFile(TQCON_PAGE);
    for (const tqcon::Report* pReport = tqcon::kReports; pReport->pszName; ++pReport) {
        // What "show memory" gives depends on its options: two rows of the page are about one set of rules.
        const std::string name = pReport->pszName;
        const std::string row = RowOfPage(page, name) + (name == "memory" ? RowOfPage(page, "blocks") : "") +
                                (name == "blocks" ? RowOfPage(page, "memory") : "");
        for (const tqcon::Rule* pRule = pReport->pRules; pRule->pszPattern; ++pRule) {
            for (const tqcon::Column& column : pRule->columns) {
                if (column.pszKey) {
                    EXPECT_TRUE(row.find("`" + std::string(column.pszKey) + "`") != std::string::npos)
                        << name << ": " << column.pszKey;
                }
            }
        }
    }
}

class ReportsWithDevice : public test::WithDevice {};
INSTANTIATE_TEST_SUITE_P(, ReportsWithDevice, testing::Values("64", "32"), test::WidthName);

TEST_P(ReportsWithDevice, EveryLineOfEveryReportIsUnderstood) {
    test::DemoDevice device(Program());
    tools::Console console({30000, 30000, 30000});
    ASSERT_EQ(tools::Result::Ok, console.Connect(tools::ParseAddress(device.ConsoleAddress())));
    ASSERT_EQ(tools::Result::Ok, console.LogIn("lookinside"));
    for (const char* pszLine : {"sh q",
                                "sh so",
                                "sh in",
                                "sh l",
                                "sh hl",
                                "sh l sort=-count",
                                "sh mem",
                                "sh det mem",
                                "sh det mem group",
                                "sh tic",
                                "sh t",
                                "sh th",
                                "sh sem",
                                "sh han",
                                "sh tr",
                                "sh det tr device",
                                "sh en",
                                "sh dir",
                                "sh up",
                                "sh cur",
                                "ch mem",
                                "ch han",
                                "set tr lev war device"}) {
        const Json json = tqcon::AnswerJson(pszLine, tqcon::Ask(&console, pszLine));
        EXPECT_FALSE(json.contains("notes")) << json.dump(2);
        EXPECT_FALSE(json.contains("error")) << json.dump(2);
        EXPECT_TRUE(json.contains("report")) << json.dump(2);
        EXPECT_GT(json.size(), 2u) << json.dump(2);
    }
}

} // namespace
