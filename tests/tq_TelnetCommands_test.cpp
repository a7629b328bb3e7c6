#include "tq_Telnet_p.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "RecordingQueue.h"
#include "TerminalProgram.h"
#include "tq_List_p.h"

namespace {

using test::Console;
using test::ConsoleClient;

// Words

struct WordsRow {
    const char* pszLine;
    std::vector<std::string> words;
};

TEST(TelnetWords, AreCutAtBlanksAndQuotes) {
    const WordsRow rows[] = {
        {"", {}},
        {" \t ", {}},
        {"one", {"one"}},
        {"  one\ttwo  three ", {"one", "two", "three"}},
        {"\"one two\" three", {"one two", "three"}},
        {"\"one\"two", {"one", "two"}},
        {"\"one two", {"one two"}},
        {"one\"two three", {"one\"two", "three"}},
        {"\"\" x", {"", "x"}},
        {"\"", {""}},
        {"\"\"\"\"", {"", ""}},
        {"\xe4\xff \x01", {"\xe4\xff", "\x01"}},
    };
    for (const WordsRow& row : rows) {
        std::string line = row.pszLine;
        char* pszLine = &line[0];
        std::vector<std::string> words;
        while (const char* pszWord = tq_TelnetGetNextToken(&pszLine)) {
            words.push_back(pszWord);
        }
        EXPECT_EQ(row.words, words) << row.pszLine;
        EXPECT_EQ('\0', *pszLine) << row.pszLine;
    }
    EXPECT_EQ(nullptr, tq_TelnetGetNextToken(nullptr));
    char* pszNone = nullptr;
    EXPECT_EQ(nullptr, tq_TelnetGetNextToken(&pszNone));
    EXPECT_EQ(nullptr, tq_NextConsoleWord(&pszNone));
}

TEST(TelnetWords, TheRestOfTheLineBeginsWithTheNextWord) {
    char line[] = "send  door   a  b ";
    char* pszRest = line;
    EXPECT_STREQ("send", tq_TelnetGetNextToken(&pszRest));
    EXPECT_STREQ("door   a  b ", pszRest);
    EXPECT_STREQ("door", tq_NextConsoleWord(&pszRest));
    EXPECT_STREQ("a  b ", pszRest);
}

// The parser, with the console's own tables: each command is replaced by one that says which it is

std::string gReached;

constexpr int kMaxRows = 64;
std::vector<std::string> gNames;

template <int Row>
FUNCTION_RC Reached(TELNET_INSTANCE*, char* pszArguments, unsigned int uiFlags, char** ppszResponse) {
    gReached = gNames[Row] + (uiFlags ? " flags " + std::to_string(uiFlags) : "") +
               (*pszArguments ? " with " + std::string(pszArguments) : "");
    (void)ppszResponse;
    return FUNCTION_RC::SUCCESS;
}

template <int... Rows> PFN_TELNET_COMMAND ReachedOf(int row, std::integer_sequence<int, Rows...>) {
    static const PFN_TELNET_COMMAND kReached[] = {Reached<Rows>...};
    return kReached[row];
}

std::list<std::vector<TOKEN_PARSER>> gTables;

const TOKEN_PARSER* CopyOf(const TOKEN_PARSER* pTable, const std::string& path) {
    gTables.emplace_back();
    std::vector<TOKEN_PARSER>& copy = gTables.back();
    for (; pTable->pszToken; ++pTable) {
        TOKEN_PARSER row = *pTable;
        if (row.pfnFunction) {
            row.pfnFunction = ReachedOf(static_cast<int>(gNames.size()), std::make_integer_sequence<int, kMaxRows>());
            gNames.push_back(path + row.pszToken);
        }
        if (row.pNextTokenStruct) {
            row.pNextTokenStruct = CopyOf(row.pNextTokenStruct, path + row.pszToken + " ");
        }
        copy.push_back(row);
    }
    copy.push_back(*pTable);
    return copy.data();
}

/// The command that a line leads to, its flags and the rest of the line; empty when it leads to none.
std::string CommandOf(std::string line) {
    static const TOKEN_PARSER* pTables = CopyOf(kTopCommands, "");
    gReached.clear();
    char* pszResponse = nullptr;
    const FUNCTION_RC result = ProcessNextToken(nullptr, &line[0], &pszResponse, 0, pTables);
    EXPECT_EQ(gReached.empty() ? FUNCTION_RC::ERROR : FUNCTION_RC::SUCCESS, result) << line;
    return gReached;
}

struct CommandRow {
    const char* pszLine;
    const char* pszCommand;
};

constexpr CommandRow kAbbreviations[] = {
    {"s", ""},
    {"sh", ""},
    {"sh t", "SHow Timers"},
    {"shO t", "SHow Timers"},
    {"show t", "SHow Timers"},
    {"SHOW T", "SHow Timers"},
    {"shows t", ""},
    {"se", "SEnd"},
    {"sen", "SEnd"},
    {"send", "SEnd"},
    {"sends", ""},
    {"set ?", "SET ?"},
    {"se ?", "SEnd with ?"},
    {"h", "Help"},
    {"help", "Help"},
    {"?", "?"},
    {"??", ""},
    {"q", "Quit"},
    {"quit x", "Quit with x"},
    {"e", "Echo"},
    {"ec", "Echo"},
    {"ex", "EXit"},
    {"exi", "EXit"},
    {"ru x", ""},
    {"run x", "RUNscript with x"},
    {"runs x", "RUNscript with x"},
    {"c m", ""},
    {"ch mem", "CHeck MEMory"},
    {"ch han", "CHeck HANdles"},
    {"cl so 1", "CLose SOcket with 1"},
    {"cl t 1 2", "CLose Timer with 1 2"},
    {"r hist", ""},
    {"re hist", "REset HISTogram"},
    {"re his", ""},
    {"sh sum", "SHow SUMmary"},
    {"sh su", ""},
    {"sh s", ""},
    {"sh so", "SHow SOckets"},
    {"sh in", "SHow INterfaces"},
    {"sh q 5", "SHow Queues with 5"},
    {"sh l", "SHow Lists"},
    {"sh hl", "SHow HLists"},
    {"sh has", "SHow HAShes"},
    {"sh han", "SHow HANdles"},
    {"sh ha", ""},
    {"sh h", ""},
    {"sh mem", "SHow MEMory"},
    {"sh me", ""},
    {"sh mem ?", "SHow MEMory with ?"},
    {"sh ti", "SHow Timers"},
    {"sh tic", "SHow TICks"},
    {"sh th", "SHow THreads"},
    {"sh thr", "SHow THreads"},
    {"sh thx", ""},
    {"sh tr", "SHow TRace"},
    {"sh sem", "SHow SEMaphores"},
    {"sh en", "SHow ENdian"},
    {"sh di", ""},
    {"sh dir", "SHow DIR"},
    {"sh up", "SHow UPtime"},
    {"sh cu", ""},
    {"sh cur", "SHow CURtime"},
    {"sh ?", "SHow ?"},
    {"sh det tr tqos", "SHow TRace flags 1 with tqos"},
    {"sh det det tr", "SHow TRace flags 1"},
    {"sh tr det", "SHow TRace with det"},
    {"sh det", ""},
    {"det sh tr", ""},
    {"set mem", "SET MEMory"},
    {"set sem on", "SET SEMaphores with on"},
    {"set his x 5", "SET HIStory with x 5"},
    {"set tr en stdo x", "SET TRace STDOut flags 2 with x"},
    {"set tr dis stde x", "SET TRace STDErr flags 4 with x"},
    {"set tr en dis dev x", "SET TRace DEVstudio flags 6 with x"},
    {"set tr en mul x", "SET TRace MULticast flags 2 with x"},
    {"set tr en file x", "SET TRace FILE flags 2 with x"},
    {"set tr en fil x", ""},
    {"set tr dis tim x", "SET TRace TIMestamp flags 4 with x"},
    {"set tr dis thr x", "SET TRace THReadid flags 4 with x"},
    {"set tr en del", "SET TRace DELtatime flags 2"},
    {"set tr lev 1 x", "SET TRace LEVel with 1 x"},
    {"set tr cat +1 x", "SET TRace CATegory with +1 x"},
    {"\"sh\" \"t\"", "SHow Timers"},
    {"\"sh t\"", ""},
    {"\"\"", ""},
    {"sh \"\"", ""},
    {"", ""},
};

TEST(TelnetParser, AcceptsWhatHasTheCapitalsOfAKeywordAtLeast) {
    for (const CommandRow& row : kAbbreviations) {
        EXPECT_EQ(row.pszCommand, CommandOf(row.pszLine)) << row.pszLine;
    }
}

FUNCTION_RC SayFlags(TELNET_INSTANCE*, char*, unsigned int uiFlags, char** ppszResponse) {
    *ppszResponse = tq_newString(std::to_string(uiFlags).c_str());
    return FUNCTION_RC::FAILED_LOGIN;
}

TEST(TelnetParser, PassesOverARowThatLeadsNowhere) {
    const TOKEN_PARSER table[] = {
        {"One", nullptr, 0, nullptr},
        {"Flag", nullptr, 8, nullptr},
        {"ONce", SayFlags, 0, nullptr},
        {nullptr, nullptr, 0, nullptr},
    };
    char* pszResponse = nullptr;
    char line[] = "on";
    EXPECT_EQ(FUNCTION_RC::FAILED_LOGIN, ProcessNextToken(nullptr, line, &pszResponse, 16, table));
    EXPECT_STREQ("16", pszResponse);
    tq_free(pszResponse);
    char flagged[] = "flag once";
    EXPECT_EQ(FUNCTION_RC::FAILED_LOGIN, ProcessNextToken(nullptr, flagged, &pszResponse, 16, table));
    EXPECT_STREQ("24", pszResponse);
    tq_free(pszResponse);
    char alone[] = "o";
    EXPECT_EQ(FUNCTION_RC::ERROR, ProcessNextToken(nullptr, alone, &pszResponse, 0, table));
}

TEST(TelnetParser, EveryKeywordHasCapitalsOrIsAQuestionMark) {
    std::vector<const TOKEN_PARSER*> tables = {kTopCommands};
    for (size_t i = 0; i < tables.size(); ++i) {
        for (const TOKEN_PARSER* pRow = tables[i]; pRow->pszToken; ++pRow) {
            EXPECT_TRUE(isupper(pRow->pszToken[0]) || std::string("?") == pRow->pszToken) << pRow->pszToken;
            EXPECT_EQ(1,
                      (pRow->pfnFunction != nullptr) + (pRow->uiFlagValue != 0) + (pRow->pNextTokenStruct != nullptr));
            if (pRow->pNextTokenStruct) {
                tables.push_back(pRow->pNextTokenStruct);
            }
        }
    }
}

// Commands, in sessions

unsigned int HandleOf(const tq_List& list) {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    const LISTOFLISTS* pRecord = gpListOfLists;
    while (pRecord && pRecord->pList != &list) {
        pRecord = pRecord->pNext;
    }
    return pRecord ? pRecord->handle : 0;
}

#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 1; // each costs ten times as much
constexpr int kSessions = 2;
constexpr std::chrono::milliseconds kPause{1}; // between two steps of the work, which is slow enough
#else
constexpr int kRounds = 2;
constexpr int kSessions = 3;
constexpr std::chrono::milliseconds kPause{0};
#endif

constexpr char kAllOfMemory[] = "[Memory]\nEnableMemoryPooling=Yes\nEnableMemoryTracking=Yes\nEnableHistogram=Yes\n";

/// How this processor keeps 0x12345678.
void AddByteOrder(test::Values& values) {
    const char* const kBytes[] = {"12", "34", "56", "78"};
    const bool bBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
    values["order"] = bBig ? "big" : "little";
    for (int i = 0; i < 4; ++i) {
        values["byte " + std::to_string(i)] = kBytes[bBig ? i : 3 - i];
    }
}

/// What the written sessions are about: besides the console's queues a timer, a list with a hash, and blocks of memory.
class House {
public:
    explicit House(const std::string& ini) : m_console(nullptr, ini), m_windows("Windows of the house") {
        tq_TimerSet(m_console.Door().GetHandle(), 1000000, 7, 8, 9, 0, "door closes", false);
        m_windows.HashCreate(LIST_TYPE_U32BITS, 0, 8, nullptr, "by number");
        for (unsigned int& window : m_numbers) {
            m_windows.AddToTail(&window);
        }
        for (void*& pBlock : m_blocks) {
            const unsigned int row = static_cast<unsigned int>(&pBlock - m_blocks);
            pBlock = tq__calloc(1, row < 2 ? 100 : 20, row < 2 ? "house/door.cpp" : "house/window.cpp", 70 + row / 2);
            snprintf(static_cast<char*>(pBlock), 20, "block %u\n\xff%%s%%n", row);
        }
        EXPECT_TRUE(test::WaitUntil([] { return tqOS_uptime() != 0; })); // the clock's first tick
    }
    ~House() {
        for (void* pBlock : m_blocks) {
            tq_free(pBlock);
        }
    }

    Console& TheConsole() { return m_console; }

    /// What stands for itself in a session that runs on this connection.
    test::Values ValuesFor(ConsoleClient& client) {
        test::Values values = m_console.TheValues();
        values["directory"] = m_console.TheLibrary().Path();
        values["port"] = std::to_string(m_console.Port());
        values["self"] = std::to_string(m_console.SocketOf(client));
        values["windows"] = std::to_string(HandleOf(m_windows));
        AddByteOrder(values);
        return values;
    }

private:
    Console m_console;
    tq_List m_windows;
    unsigned int m_numbers[10] = {2, 3, 11, 19, 4, 12, 20, 6, 14, 7}; // 0 0 1 3 3 0 2 1 to a bucket
    void* m_blocks[5];
};

struct HouseSession {
    const char* pszName;
    const char* pszIni;
};

void PrintTo(const HouseSession& session, std::ostream* pStream) {
    *pStream << session.pszName;
}

class CommandSession : public testing::TestWithParam<HouseSession> {};

TEST_P(CommandSession, RunsAsWritten) {
    House house(GetParam().pszIni);
    ConsoleClient client = house.TheConsole().Connect();
    const test::Values values = house.ValuesFor(client);
    test::RunSession(client, test::SessionFile(GetParam().pszName), values);
}

TEST_P(CommandSession, RunsThroughTheRealClientToo) {
    if (!test::HaveTelnet()) {
        GTEST_SKIP() << "this machine has no telnet program";
    }
    House house(std::string(GetParam().pszIni) + test::kNoCrashReport);
    test::TelnetProgram telnet(house.TheConsole().Port());
    telnet.Terminal().ReadTo("\r\n\r\n>");
    const test::Values values = house.ValuesFor(telnet.Terminal());
    test::RunSession(telnet.Terminal(), test::SessionFile(GetParam().pszName), values);
}

INSTANTIATE_TEST_SUITE_P(Telnet, CommandSession,
                         testing::Values(HouseSession{"help", ""}, HouseSession{"show", ""},
                                         HouseSession{"control", ""}, HouseSession{"trace", ""},
                                         HouseSession{"lists", ""}, HouseSession{"hashes", ""},
                                         HouseSession{"queues", ""}, HouseSession{"sockets", ""},
                                         HouseSession{"memory", kAllOfMemory},
                                         HouseSession{"memory_blocks", kAllOfMemory},
                                         HouseSession{"memory_tracking", "[Memory]\nEnableMemoryTracking=Yes\n"},
                                         HouseSession{"memory_none", ""}),
                         [](const auto& session) { return std::string(session.param.pszName); });

TEST(TelnetCommands, TheScriptHelpIsTheGeneralOnesPartOfIt) {
    Console console;
    ConsoleClient client = console.Connect();
    TELNET_INSTANCE session = {};
    session.socket = console.SocketOf(client);
    char noArguments[] = "";
    EXPECT_EQ(FUNCTION_RC::SUCCESS, tq_TelnetScriptHelp(&session, noArguments, 0, nullptr));
    EXPECT_TRUE(client.Expect("Command Summary:\r\n  [] optional parameter      <> required parameter\r\n"
                              "  a | b - either a or b may be supplied\r\n"
                              "  short names in CAPS (eg \"sh\" for \"SHow\" or \"q\" for \"Quit\"\r\n\r\n"
                              "  REset HISTogram - Resets memory allocation histogram data (if enabled).\r\n\r\n"
                              "  CLose\r\n    SOcket <socket handle> - Closes the specified socket instance.\r\n"
                              "    Timer <MsgQ> <instance> [userparm=0] [flags=0]\r\n"
                              "         - Kills the associated timer (all parms must match).\r\n\r\n"
                              "  RUNscript <script file>\r\n"
                              "         - Runs the telnet interpreter on the contents of <script file>.\r\n\r\n"
                              "\r\n"));
}

TEST(TelnetCommands, ADirectoryThatIsTooLongIsNotShown) {
    Console console;
    ConsoleClient client = console.Connect();
    const std::string name(100, 'd');
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, mkdir(name.c_str(), 0700));
        ASSERT_EQ(0, chdir(name.c_str()));
    }
    client.Send("sh dir\r");
    EXPECT_TRUE(client.Expect("sh dir\r\nFailed to acquire the current working directory.\r\n>"));
}

TEST(TelnetCommands, TraceGoesToTheFileThatIsNamed) {
    Console console(nullptr, "[Trace]\nDefaultLevel=Warning\n");
    ConsoleClient client = console.Connect();
    client.Send("set tr en file tqos \"my trace.log\" 0 0\r");
    client.ReadTo("tqos\r\n\r\n\r\n>");
    tq_Trace(tq_TraceGetHandleFromName("tqos"), TQ_TRACE_LEVEL_CRITICAL, 1, false, "a line %d\n", 5);
    client.Send("set tr dis file tqos\r");
    client.ReadTo("tqos\r\n\r\n\r\n>");
    EXPECT_NE(std::string::npos, test::ReadFile("my trace.log").find("(tqos) CRT: a line 5\n"));
}

TEST(TelnetCommands, TimestampsAndThreadIdsComeAndGo) {
    Console console(nullptr, "[Trace]\nDefaultLevel=Warning\n");
    ConsoleClient client = console.Connect();
    const unsigned int hTrace = tq_TraceInitInstance("mine");
    const auto lineAfter = [&](const std::string& command) {
        client.Send(command + " mine\r");
        client.ReadTo("mine\r\n\r\n\r\n>");
        tq_TraceEnableFile(hTrace, "mine.log", 0, 0);
        tq_Trace(hTrace, TQ_TRACE_LEVEL_CRITICAL, 1, true, "line\n");
        tq_TraceDisableFile(hTrace);
        return test::ReadFile("mine.log");
    };
    EXPECT_EQ('[', lineAfter("set tr dis tim")[0]);
    EXPECT_NE('[', lineAfter("set tr en tim")[0]);
    EXPECT_NE(std::string::npos, lineAfter("set tr en thr").find("TID:"));
    EXPECT_EQ(std::string::npos, lineAfter("set tr dis thr").find("TID:"));
}

TEST(TelnetCommands, TheInterfacesAreThoseOfTheMachine) {
    Console console;
    ConsoleClient client = console.Connect();
    char* pszReport = nullptr;
    tq_SocketShowInterfaces(&pszReport);
    ASSERT_NE(nullptr, pszReport);
    client.Send("sh in\r");
    EXPECT_TRUE(client.Expect("sh in\r\n\r\n" + std::string(pszReport) + "\r\n\r\n>"));
    tq_free(pszReport);
}

// What is deliberately not as one would expect

/// What a line is answered with, the echo and the last prompt included.
std::string Ask(ConsoleClient& client, const std::string& line) {
    client.Send(line + "\r");
    return client.ReadTo("\r\n>");
}

TEST(TelnetCommands, AnyWordThatBeginsLikeALevelCounts) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int hTrace = tq_TraceInitInstance("mine");
    const std::pair<const char*, int> rows[] = {{"debugging", TQ_TRACE_LEVEL_DEBUG},
                                                {"SEVen", TQ_TRACE_LEVEL_SEVERE},
                                                {"nobody", TQ_TRACE_LEVEL_NONE},
                                                {"lowest", TQ_TRACE_LEVEL_DEBUG_LOW},
                                                {"alligator", TQ_TRACE_LEVEL_ALL}};
    for (const auto& row : rows) {
        Ask(client, std::string("set tr lev ") + row.first + " mine");
        EXPECT_EQ(row.second, tq_TraceGetLevel(hTrace)) << row.first;
    }
}

TEST(TelnetCommands, ALevelForANumberThatIsNoInstanceIsAnswered) {
    Console console;
    ConsoleClient client = console.Connect();
    EXPECT_NE(std::string::npos, Ask(client, "set tr lev 10000 4000").find("Warning"));
    EXPECT_NE(std::string::npos, Ask(client, "set tr cat 1 4000").find("Syntax error."));
}

TEST(TelnetCommands, AWordThatIsNoCategoryCountsAsZero) {
    Console console;
    ConsoleClient client = console.Connect();
    const unsigned int hTrace = tq_TraceInitInstance("mine");
    tq_TraceSetCategoryName(hTrace, 4, "Doors");
    Ask(client, "set tr cat doors mine");
    EXPECT_EQ(4, tq_TraceGetCatMask(hTrace));
    Ask(client, "set tr cat windows mine");
    EXPECT_EQ(0, tq_TraceGetCatMask(hTrace));
}

TEST(TelnetCommands, SortWordsAreComparedOverFiveCharacters) {
    Console console;
    ConsoleClient client = console.Connect();
    for (const char* pszWord : {"coun", "maxc", "nam", "names", "hand", "--count", "-", ""}) {
        EXPECT_NE(std::string::npos, Ask(client, std::string("sh l sort=") + pszWord).find("Syntax error.")) << pszWord;
    }
    for (const char* pszWord : {"count", "counted", "maxco", "name", "handl", "-count", "-name", "-handles"}) {
        ConsoleClient other = console.Connect(); // the report comes behind the prompt
        const std::string line = std::string("sh l max=1 sort=") + pszWord;
        other.Send(line + "\r");
        EXPECT_TRUE(other.Expect(line + "\r\n>Index Handle")) << pszWord;
    }
}

TEST(TelnetCommands, TheMillisecondIsSpeltAsItAlwaysWas) {
    Console console;
    ConsoleClient client = console.Connect();
    EXPECT_NE(std::string::npos, Ask(client, "sh cur").find("Current System milliseond time: "));
}

// What the sessions as files cannot say

std::string TextOf(char* pszText) {
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

TEST(TelnetCommands, UptimeIsToldFromItsLargestUnitOn) {
    constexpr unsigned int kMinute = 60 * 1000;
    constexpr unsigned int kHour = 60 * kMinute;
    constexpr unsigned int kDay = 24 * kHour;
    const std::pair<unsigned int, const char*> rows[] = {
        {0, "TQOS is not currently initialized!\r\n"},
        {1, "TQOS has been up for: 0.001 seconds"},
        {1000, "TQOS has been up for: 1.000 seconds"},
        {kMinute - 1, "TQOS has been up for: 59.999 seconds"},
        {kMinute, "TQOS has been up for: 1 minute 0.000 seconds"},
        {2 * kMinute + 30, "TQOS has been up for: 2 minutes 0.030 seconds"},
        {kHour + 500, "TQOS has been up for: 1 hour 0 minutes 0.500 seconds"},
        {5 * kHour + kMinute, "TQOS has been up for: 5 hours 1 minute 0.000 seconds"},
        {kDay, "TQOS has been up for: 1 day 0 hours 0 minutes 0.000 seconds"},
        {3 * kDay + kHour + 2 * kMinute + 3004, "TQOS has been up for: 3 days 1 hour 2 minutes 3.004 seconds"},
        {0xFFFFFFFF, "TQOS has been up for: 49 days 17 hours 2 minutes 47.295 seconds"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, TextOf(tq_TelnetUptimeText(row.first)));
    }
}

TEST(TelnetCommands, ASummaryIsAskedOfEveryNamedQueue) {
    Console console;
    test::AnsweringQueue unnamed("unnamed");
    unnamed.SetName(nullptr);
    ConsoleClient client = console.Connect();
    for (const char* pszAsk : {"sh sum", "sh sum 0"}) {
        client.Send(std::string(pszAsk) + "\r");
        ASSERT_TRUE(client.Expect(std::string(pszAsk) + "\r\n>"));
        std::string answers;
        for (int i = 0; i < 3; ++i) {
            answers += client.ReadTo("\r\n>");
        }
        for (const char* pszQueue : {"Door", "Back Door", "TQOS: Telnet"}) {
            EXPECT_EQ(1u, test::CountOf(answers, std::string("\r\nResponse received from queue ") + pszQueue + ": "));
        }
        EXPECT_EQ(2u, test::CountOf(answers, "\r\nsummary, flags 0\r\n>"));
        EXPECT_EQ(1u, test::CountOf(answers, "\r\nTelnet Connections: 1\r\n>"));
    }
    client.Send("echo on\r");
    EXPECT_TRUE(client.Expect("echo on\r\n>")); // the queue without a name has not been asked
}

TEST(TelnetCommands, AQueueThatIsAskedForASummarySeesWhoAsks) {
    Console console;
    test::RecordingQueue queue(test::kRunning);
    ConsoleClient client = console.Connect();
    const unsigned int hSession = console.SocketOf(client);
    client.Send("sh det sum " + std::to_string(queue.GetHandle()) + "\r");
    ASSERT_TRUE(queue.WaitFor(MSG_TELNET_SUMMARY));
    const MSG_COMMON request = queue.Of(MSG_TELNET_SUMMARY)[0].Common();
    EXPECT_EQ(tq_ConsoleQueueHandle(), request.hSource);
    EXPECT_EQ(queue.GetHandle(), request.hDest);
    EXPECT_EQ(hSession, request.instance);
    EXPECT_EQ(1u, request.flags);
}

/// A queue whose worker stays in its first message until it is let go.
class HeldQueue : public tq_MsgQ {
public:
    HeldQueue() : tq_MsgQ("Held", nullptr) {
        Create(0);
        EXPECT_TRUE(tq_MsgCreateCommonAndSend(0, GetHandle(), MSG_USER, 0, 0, 0, false, TQ_MSG_PRIORITY_HIGH));
        m_held.get_future().wait();
    }
    ~HeldQueue() override { Destroy(false); }

    void MessageHandler(MSG_COMMON* pMsg) override {
        if (pMsg->command == MSG_USER) {
            m_held.set_value();
            m_letGo.get_future().wait();
        }
        tq_free(pMsg);
    }
    void LetGo() { m_letGo.set_value(); }

private:
    std::promise<void> m_held;
    std::promise<void> m_letGo;
};

TEST(TelnetCommands, WaitingMessagesAreShownByTheirPriorities) {
    Console console;
    ConsoleClient client = console.Connect();
    HeldQueue queue;
    const unsigned int handle = queue.GetHandle();
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(1, handle, MSG_USER + 5, 2, 3, 4, false, TQ_MSG_PRIORITY_MEDIUM));
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(5, handle, MSG_TIMER, 6, 7, 8, false, TQ_MSG_PRIORITY_MEDIUM));
    ASSERT_TRUE(tq_MsgCreateCommonAndSend(9, handle, 77, 10, 11, 12, false, TQ_MSG_PRIORITY_LOW));
    const std::string ask = "sh det q " + std::to_string(handle);
    const auto dump = [handle](const char* pszSource, const char* pszCommand, const char* pszRest) {
        return std::string(" hSource: ") + pszSource + "\r\n  hDest:   " + std::to_string(handle) +
               "\r\n  size:    28\r\n  command:  " + pszCommand + "\r\n" + pszRest + "\r\n\r\n>";
    };
    client.Send(ask + "\r");
    EXPECT_TRUE(client.Expect(
        ask + "\r\n>No High Priority Messages enqueued.\r\n>Medium Priority Message Queue Details...\r\n>" +
        dump("1", "MSG_USER+5", "  instance: 2\r\n  userparm: 3\r\n  flags:    4\r\n") +
        dump("5", "MSG_TIMER", "  instance: 6\r\n  userparm: 7\r\n  flags:    8\r\n") +
        "Low Priority Message Queue Details...\r\n>" +
        dump("9", "77", "  instance: 10\r\n  userparm: 11\r\n  flags:    12\r\n")));
    queue.LetGo();
}

TEST(TelnetCommands, LocksAreShownWhileTheyAreTracked) {
    Console console(nullptr, "[Sem]\nTracking=Yes\n");
    ConsoleClient client = console.Connect();
    client.Send("sh sem\r");
    const std::string report = client.ReadTo("\r\n\r\n>");
    EXPECT_EQ(0u, report.find("sh sem\r\n\r\n    Sem     ThreadId   State  Type   Line  File\r\n"
                              "---------- ---------- ------- ----- ------ -------------------------\r\n"))
        << report;
    EXPECT_NE(std::string::npos, report.find("tq_Telnet")) << report; // the sessions are locked while a command runs
}

TEST(TelnetCommands, ClosingASocketTellsItsOwner) {
    Console console;
    ConsoleClient client = console.Connect();
    test::RecordingQueue owner(test::kRunning);
    const unsigned int socket = tq_SocketOpenUDP(owner.GetHandle(), test::Loopback(), 9, 0, test::Loopback(), 0);
    ASSERT_NE(0u, socket);
    const std::string close = "clo so " + std::to_string(socket);
    client.Send(close + "\r");
    EXPECT_TRUE(client.Expect(close + "\r\n>"));
    EXPECT_TRUE(owner.WaitFor(MSG_SOCKET_CLOSED, socket));
}

TEST(TelnetCommands, EveryFormOfTheHistogramComes) {
    Console console(nullptr, kAllOfMemory);
    ConsoleClient client = console.Connect();
    const std::pair<const char*, const char*> rows[] = {
        {"", "Bytes     Allocations (* = current   ...| = Maximum)\r\n"
             " -------   |------------------------------------------------------------------|"},
        {" format=graphic", "Bytes     Allocations (* = current   ...| = Maximum)\r\n"
                            " -------   |------------------------------------------------------------------|"},
        {" format=combo", "Bytes     Allocations (* = current   ...| = Maximum)\r\n"
                          " -------   |------------------------------------------------|"},
        {" format=NUMERIC", "Bytes         current  (maximum)\r\n -------       -----------------"},
        {" format=ini", "[Memory]\r\n  EnableMemoryPooling=Yes\r\n"},
    };
    for (const auto& row : rows) {
        ConsoleClient other = console.Connect();
        const std::string ask = std::string("sh mem histogram") + row.first;
        other.Send(ask + "\r");
        EXPECT_TRUE(other.Expect(ask + "\r\n>" + row.second + "\r\n>"));
    }
}

TEST(TelnetCommands, AReportGoesIntoTheFileThatIsNamed) {
    House house(kAllOfMemory);
    ConsoleClient client = house.TheConsole().Connect();
    client.Send("sh det mem filter=window line=72 file=report.txt\r");
    client.ReadTo("\r\n>");
    client.Send("echo on\r");
    EXPECT_TRUE(client.Expect("echo on\r\n>"));
    const std::string report = test::ReadFile("report.txt");
    EXPECT_EQ(0u, report.find("Pool #1:\n    20 bytes "));
    EXPECT_NE(std::string::npos, report.find("Summary for ALL tqos Memory Pools\n   Total allocations:     1\n"));
    EXPECT_EQ(std::string::npos, report.find('\r'));
}

// What users type and name is never a format, nor too long

const std::string kFormatName = "%s%n%d%%{%100000x}";

/// Sends a command and reads what comes until a text has come so often.
std::string ReadWith(ConsoleClient& client, const std::string& command, const std::string& text, size_t count) {
    client.Send(command + "\rsh has 4000000000\r");
    std::string all = client.ReadTo("List not found.\r\n>"); // all that the console itself answers
    while (test::CountOf(all, text) < count && !testing::Test::HasFailure()) {
        all += client.ReadTo("\r\n>");
    }
    return all;
}

TEST(TelnetCommands, NamesAreNoFormats) {
    Console console;
    test::AnsweringQueue queue(kFormatName.c_str());
    queue.SetDescription(kFormatName.c_str());
    const tq_List list(kFormatName.c_str());
    const unsigned int hTrace = tq_TraceInitInstance(kFormatName.c_str());
    tq_TraceSetCategoryName(hTrace, 1, kFormatName.c_str());
    const unsigned int socket = tq_SocketOpenUDP(queue.GetHandle(), test::Loopback(), 9, 0, test::Loopback(), 0);
    tq_SocketSetName(socket, kFormatName.c_str());
    tq_TimerSet(queue.GetHandle(), 1000000, 1, 0, 0, 0, kFormatName.c_str(), false);
    ConsoleClient client = console.Connect();
    const std::pair<std::string, size_t> rows[] = {
        // how often the name comes, the echo of the command included
        {"sh q", 2},
        {"sh l %s%n", 1},
        {"sh so", 1},
        {"sh t", 1},
        {"sh tr", 1},
        {"sh th", 1},
        {"sh det so " + std::to_string(socket), 1},
        {"sh det tr " + kFormatName, 3},
        {"send " + kFormatName + " " + kFormatName, 4},
        {"sh sum " + std::to_string(queue.GetHandle()), 1},
    };
    for (const auto& row : rows) {
        ReadWith(client, row.first, kFormatName, row.second);
    }
    tq_TraceTermInstance(hTrace);
}

/// Every way through the tables that ends at a command.
void AddCommandLines(const TOKEN_PARSER* pTable, const std::string& path, std::vector<std::string>& lines) {
    for (const TOKEN_PARSER* pRow = pTable; pRow->pszToken; ++pRow) {
        const std::string line = path + pRow->pszToken;
        if (pRow->pNextTokenStruct) {
            AddCommandLines(pRow->pNextTokenStruct, line + " ", lines);
        } else if (pRow->pfnFunction) {
            lines.push_back(line);
        } else if (path.find(pRow->pszToken) == std::string::npos && path.find("able ") == std::string::npos) {
            AddCommandLines(pTable, line + " ", lines); // a modifier, and what it modifies
        }
    }
}

TEST(TelnetCommands, EveryCommandStandsEveryKindOfArgument) {
    House house(kAllOfMemory);
    ConsoleClient client = house.TheConsole().Connect();
    std::vector<std::string> lines;
    AddCommandLines(kTopCommands, "", lines);
    EXPECT_GT(lines.size(), 60u);
    std::vector<std::string> arguments = {"",
                                          std::string(900, 'x'),
                                          std::string(900, '"'),
                                          std::string(900, '9'),
                                          std::string(900, '-'),
                                          "\"" + std::string(900, ' '),
                                          "-1 -1 -1 -1 -1",
                                          "4294967296 4294967296 4294967296 4294967296",
                                          "0x 0x 0x 0x",
                                          "%s%n%s%n %s%n%s%n %s%n%s%n %s%n%s%n",
                                          "\"\" \"\" \"\" \"\" \"\"",
                                          "pool=%s start=%s sort=%s filter=%n file=%n"};
    unsigned int mark = 0;
    for (const std::string& line : lines) {
        for (const std::string& argument : arguments) {
            if (argument.empty() && (line == "Quit" || line == "EXit")) {
                continue;
            }
            const std::string end = "mark" + std::to_string(++mark);
            client.Send(line + " " + argument + "\r" + end + "\r");
            client.ReadTo(end + "\r\nSyntax error.\r\n\r\n>");
        }
    }
}

// Reports while the device works

/// Longer than any column, and than what the reports' first buffers have for a row.
const std::string kLongNameBegin = "[name %s%n%d ";
const std::string kLongNameEnd = " end]";
const std::string kLongName = kLongNameBegin + std::string(400, 'x') + kLongNameEnd;

/// Runs a step over and over until it is told to stop.
class Busy {
public:
    Busy(const std::atomic<bool>& stop, std::function<void()> step)
        : m_thread([&stop, step] {
              while (!stop) {
                  step();
                  std::this_thread::sleep_for(kPause);
              }
          }) {}
    ~Busy() { m_thread.join(); }

private:
    std::thread m_thread;
};

/// What stands still while the reports run, with long names, a few dozen of each kind.
class Stock {
public:
    explicit Stock(unsigned int door) : m_door(door) {
        for (int i = 0; i < 45; ++i) {
            m_lists.push_back(std::make_unique<tq_List>(kLongName.c_str()));
            m_lists.back()->HashCreate(LIST_TYPE_U32BITS, 0, 4, nullptr, kLongName.c_str());
        }
        for (unsigned int i = 0; i < 8; ++i) {
            m_queues.push_back(std::make_unique<test::AnsweringQueue>(kLongName.c_str()));
            m_queues.back()->SetDescription(kLongName.c_str());
            m_traces[i] = tq_TraceInitInstance((std::to_string(i) + kLongName).c_str());
            tq_TraceSetCategoryName(m_traces[i], 1, kLongName.c_str());
            // Repeating ones: these fire while the reports run.
            tq_TimerSet(door, 10 + i, 1000 + i, 0, 0, TQ_TIMER_REPEATING, kLongName.c_str(), true);
            m_sockets[i] = tq_SocketOpenUDP(door, test::Loopback(), 9, 0, test::Loopback(), 0);
            tq_SocketSetName(m_sockets[i], kLongName.c_str());
        }
    }
    ~Stock() {
        for (unsigned int i = 0; i < 8; ++i) {
            tq_TimerKill(m_door, 1000 + i, 0, 0);
            tq_TraceTermInstance(m_traces[i]);
            tq_SocketClose(m_sockets[i]);
        }
    }

    unsigned int List() const { return HandleOf(*m_lists[0]); }
    unsigned int Socket() const { return m_sockets[0]; }
    unsigned int Queue() const { return m_queues[0]->GetHandle(); }

private:
    const unsigned int m_door;
    std::vector<std::unique_ptr<tq_List>> m_lists;
    std::vector<std::unique_ptr<test::AnsweringQueue>> m_queues;
    unsigned int m_traces[8];
    unsigned int m_sockets[8];
};

/// What works while the reports run: everything that comes and goes, each on a thread of its own.
class Work {
public:
    Work(Console& console, const std::atomic<bool>& stop)
        : m_console(console), m_door(console.Door().GetHandle()), m_listener(test::ListeningPeer()),
          m_sending(stop, [this] { SendMessages(); }), m_timing(stop, [this] { SetAndKillTimers(); }),
          m_opening(stop, [this] { OpenAndCloseSockets(); }), m_listing(stop, MakeAndUnmakeList),
          m_queueing(stop, [this] { MakeAndUnmakeQueue(); }), m_tracing(stop, OpenAndCloseTrace),
          m_vanishing(stop, [this] { ComeAndVanish(); }) {}

private:
    void SendMessages() {
        if (m_console.Door().GetQueueDepth(0) < 100) {
            tq_MsgCreateCommonAndSend(0, m_door, MSG_USER, 1, 2, 3, false, TQ_MSG_PRIORITY_HIGH);
            tq_MsgCreateCommonAndSend(0, m_door, MSG_USER, 1, 2, 3, true, TQ_MSG_PRIORITY_LOW);
        }
    }

    void SetAndKillTimers() {
        for (unsigned int instance = 100; instance < 110; ++instance) {
            tq_TimerSet(m_door, 10 + instance, instance, 0, 0, instance % 2, kLongName.c_str(), true);
        }
        for (unsigned int instance = 100; instance < 110; ++instance) {
            tq_TimerKill(m_door, instance, 0, 0); // unless a session has
        }
    }

    void OpenAndCloseSockets() {
        const unsigned int udp = tq_SocketOpenUDP(m_door, test::Loopback(), 9, 0, test::Loopback(), 0);
        tq_SocketSetName(udp, kLongName.c_str());
        const unsigned int tcp =
            tq_SocketOpenTCPClient(m_door, test::Loopback(), test::PortOf(m_listener), 0, test::Loopback(), 0);
        tq_SocketSetName(tcp, kLongName.c_str());
        const test::Fd peer = test::AcceptPeer(m_listener);
        test::SendAll(peer, "some bytes that nobody takes");
        tq_SocketClose(udp);
        tq_SocketClose(tcp);
    }

    static void MakeAndUnmakeList() {
        tq_List list(LIST_FLAGS_SORT_ASCENDING, LIST_TYPE_U32BITS, 0, kLongName.c_str());
        const unsigned int hash = list.HashCreate(LIST_TYPE_U32BITS, 0, 7, nullptr, kLongName.c_str());
        unsigned int keys[20];
        for (unsigned int i = 0; i < 20; ++i) {
            keys[i] = i;
            list.AddNode(&keys[i]);
        }
        list.HashDestroy(hash);
        list.SetName((kLongName + " again" + kLongNameEnd).c_str());
        while (list.RemoveHead()) {
        }
    }

    void MakeAndUnmakeQueue() {
        test::AnsweringQueue queue(kLongName.c_str());
        tq_MsgCreateCommonAndSend(0, queue.GetHandle(), MSG_USER, 0, 0, 0, false, TQ_MSG_PRIORITY_MEDIUM);
        queue.SetName(("another " + kLongName).c_str());
    }

    static void OpenAndCloseTrace() {
        const unsigned int hTrace = tq_TraceInitInstance(("comes and goes " + kLongName).c_str());
        tq_TraceSetCategoryName(hTrace, 2, kLongName.c_str());
        tq_TraceTermInstance(hTrace);
    }

    void ComeAndVanish() {
        ConsoleClient client(m_console.Port());
        client.ReadTo("\r\n\r\n>");
        client.Send("sh l\rsh th\rsh mem\rsh q\rsh so\r"); // and is gone before the answers are
    }

    Console& m_console;
    const unsigned int m_door;
    const test::Fd m_listener;
    Busy m_sending;
    Busy m_timing;
    Busy m_opening;
    Busy m_listing;
    Busy m_queueing;
    Busy m_tracing;
    Busy m_vanishing;
};

struct ReportRow {
    const char* pszCommand;
    const char* pszPart; // comes in the report, sooner or later
};

constexpr ReportRow kReports[] = {
    {"sh sum", "Telnet Connections: "},
    {"sh det sum", "summary, flags 1"},
    {"sh so", "Handle T S Src Info               Dst Info               Name\r\n"},
    {"sh det so {socket}", "             type: UDP\r\n"},
    {"sh in", "Interface 0:  ip: "},
    {"sh q", "QueueId  Depth   TID      Queue Name           Queue Description\r\n"},
    {"sh det q {door}", "Historical queue commands: (oldest to most recent)"},
    {"sh det q {queue}", "No High Priority Messages enqueued.\r\n"},
    {"sh l", "Index Handle  Node Count/Max   Hash List Name\r\n-----"},
    {"sh l start=20 max=15 [name", "\r\n>  20) "},
    {"sh l sort=-maxcount", "Index Handle  Node Count/Max   Hash List Name\r\n"},
    {"sh l sort=count", "TQOS: All Queues"},
    {"sh l sort=name -tqos", "Total matching Lists: "},
    {"sh l sort=handle nosuchlist", "Total matching Lists: 0\r\n"},
    {"sh hl", "TQOS: All Queues"},
    {"sh has {list}", " there is 1 hash (0 nodes)\r\n"},
    {"sh det has {list} 1", "  HashValue[0003] contains          0 nodes\r\n"},
    {"sh mem", "  MAX Bytes allocated through TQOS: "},
    {"sh mem pool=1", "Pool #001 "},
    {"sh det mem filter=tq_", ""},
    {"sh det mem size=4000000", "No memory leaks detected!\r\n"},
    {"sh det mem group=-bytes", ""},
    {"sh det mem group=ratio size=28", ""},
    {"sh mem histogram", "Bytes     Allocations (* = current   ...| = Maximum)\r\n"},
    {"sh mem histogram format=numeric", "Bytes         current  (maximum)\r\n"},
    {"sh mem histogram format=combo", "Bytes     Allocations (* = current   ...| = Maximum)\r\n"},
    {"sh mem histogram format=ini", "  EnableMemoryPooling=Yes\r\n"},
    {"sh mem ?", "    format=numeric|graphic|combo|ini\r\n"},
    {"sh tic", "ms for each clock tick."},
    {"sh t", "  MsgQ Inst   User    Flg  R Dur(ms)   Rem(ms)   Name\r\n"},
    {"sh th", "Index   ThreadID    PSTID     Pri Thread Name / File\r\n"},
    {"sh sem", "    Sem     ThreadId   State  Type   Line  File\r\n"},
    {"sh han", "TQOS handles currently available: "},
    {"sh tr", "Inst   Type   Level     Category    Name\r\n"},
    {"sh det tr tqos", "Trace Instance Details...\r\n"},
    {"sh en", "     byte[3]:0x"},
    {"sh dir", "The current working directory is:\r\n"},
    {"sh up", "TQOS has been up for: "},
    {"sh cur", "Current System milliseond time: "},
    {"sh ?", "    CURtime\r\n"},
    {"ch mem", "    No corrupt blocks detected.\r\n"},
    {"ch han", "No duplicate handles detected in the TQOS handle subsystem!\r\n"},
    {"set mem", ""},
    {"re hist", ""},
    {"set his {door} 10", "Queue History set to 10."},
    {"clo t {door} 100", ""},
    {"clo t {door} 101", ""},
    {"send {door} a text %s%n", ": a text %s%n\r\n"},
};

/// A session that runs every report, and has its own socket closed under its hands.
class Reader {
public:
    Reader(ConsoleClient& client, const test::Values& values, unsigned int door)
        : m_client(client), m_values(values), m_door(door) {}

    void RunAll() {
        std::string all;
        unsigned int mark = 0;
        for (const ReportRow& row : kReports) {
            const std::string end = "mark" + std::to_string(++mark);
            m_client.Send(test::WithValues(row.pszCommand, m_values) + "\r" + end + "\r");
            all += m_client.ReadTo(end + "\r\nSyntax error.\r\n\r\n>");
        }
        // Responses come in their order: this one behind all those that the console itself has sent.
        m_client.Send("sh has 4000000000\r");
        all += m_client.ReadTo("List not found.\r\n>");
        for (const ReportRow& row : kReports) { // queues answer when they come to it
            SCOPED_TRACE(row.pszPart);
            while (all.find(row.pszPart) == std::string::npos && !testing::Test::HasFailure()) {
                all += m_client.ReadTo("\r\n>");
            }
        }
        CheckThatNoNameIsCut(all);
        CloseOwnSocket();
    }

private:
    static void CheckThatNoNameIsCut(const std::string& all) {
        // Where a name begins it ends too, in the same line. The table of threads shows the ends of names alone, and
        // the list of blocks, in lines that are indented, the first bytes of each.
        static const std::string kBlock = "\r\n        ";
        size_t lineEnd = 0;
        for (size_t at = all.find(kLongNameBegin); at != std::string::npos; at = all.find(kLongNameBegin, lineEnd)) {
            lineEnd = all.find("\r\n", at);
            const size_t lineBegin = all.rfind("\r\n", at);
            const bool bBlock = lineBegin != std::string::npos && all.compare(lineBegin, kBlock.size(), kBlock) == 0;
            ASSERT_TRUE(bBlock || all.compare(at, kLongName.size(), kLongName) == 0)
                << "cut: " << all.substr(at > 200 ? at - 200 : 0, 300);
        }
        EXPECT_EQ(0u, test::CountOf(all, "Corruption"));
    }

    /// The owner goes on using it meanwhile.
    void CloseOwnSocket() {
        const unsigned int socket = tq_SocketOpenUDP(m_door, test::Loopback(), 9, 0, test::Loopback(), 0);
        m_client.Send("clo so " + std::to_string(socket) + "\recho on\r");
        for (int i = 0; i < 20; ++i) {
            tq_SocketSetName(socket, kLongName.c_str());
            tq_SocketSendTo(socket, test::Bytes("x"), 1, 0, 0);
            tq_SocketGetBoundPort(socket);
        }
        m_client.ReadTo("echo on\r\n>");
        tq_SocketClose(socket); // what is left of it
    }

    ConsoleClient& m_client;
    test::Values m_values;
    unsigned int m_door;
};

TEST(TelnetCommands, EveryReportHoldsWhileTheDeviceWorks) {
    Console console(nullptr, std::string(kAllOfMemory) + "[Sem]\nTracking=Yes\n[MsgQ]\nDefaultHistory=20\n");
    const unsigned int door = console.Door().GetHandle();
    const Stock stock(door);
    test::Values values = console.TheValues();
    values["list"] = std::to_string(stock.List());
    values["socket"] = std::to_string(stock.Socket());
    values["queue"] = std::to_string(stock.Queue());
    std::vector<ConsoleClient> clients;
    for (int i = 0; i < kSessions; ++i) {
        clients.push_back(console.Connect());
    }
    std::atomic<bool> stop{false};
    {
        const Work work(console, stop);
        std::vector<std::thread> sessions;
        for (ConsoleClient& client : clients) {
            sessions.emplace_back([&client, &values, door] {
                for (int round = 0; round < kRounds; ++round) {
                    Reader(client, values, door).RunAll();
                }
            });
        }
        for (std::thread& session : sessions) {
            session.join();
        }
        stop = true;
    }
    for (ConsoleClient& client : clients) {
        client.Send("quit\r");
        test::ReadToEnd(client.Descriptor());
    }
}

} // namespace
