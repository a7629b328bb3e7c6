#include "tq_Base_p.h"

#include <fcntl.h>
#include <regex>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Dir_p.h"
#include "tq_Memory.h"
#include "tq_Report_p.h"
#include "tqos.h"

namespace {

using test::ReadFile;
using test::RunInChild;
using test::ScratchDirectory;
using test::WriteFile;

const char kTimePattern[] = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}: ";

/// The lines of a log with their times taken off; a line that does not begin with a time stays whole, marked.
std::vector<std::string> MessagesIn(const std::string& log) {
    static const std::regex kTime(kTimePattern);
    std::vector<std::string> messages;
    size_t start = 0;
    for (size_t end = log.find('\n'); end != std::string::npos; end = log.find('\n', start)) {
        const std::string line = log.substr(start, end - start);
        std::smatch match;
        const bool bTimed = std::regex_search(line, match, kTime, std::regex_constants::match_continuous);
        messages.push_back(bTimed ? line.substr(static_cast<size_t>(match.length())) : "(no time) " + line);
        start = end + 1;
    }
    if (start < log.size()) {
        messages.push_back("(no line end) " + log.substr(start));
    }
    return messages;
}

using Messages = std::vector<std::string>;

/// A scratch directory whose tqos.ini the base utilities have read.
struct Configured {
    ScratchDirectory directory;
    explicit Configured(const std::string& ini = "") {
        if (!ini.empty()) {
            WriteFile("tqos.ini", ini);
        }
        EXPECT_EQ(0u, tq_BaseInitialize());
    }
};

/// All tokens of a text in angle brackets; the end of the walk is "." when the last call left null in the instance.
struct Tokeniser {
    const char* pszDelimiters;
    const char* pszStarts;
    const char* pszEnds;
    const char* pszStrip;
    int flags;
};

std::string TokensOf(const std::string& text, const Tokeniser& rules) {
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    std::string tokens;
    char* pInstance = nullptr;
    char* pText = buffer.data();
    for (int i = 0; i < 100; ++i) {
        const char* pToken = tq_getToken(pText, rules.pszDelimiters, rules.pszStarts, rules.pszEnds, rules.pszStrip,
                                         rules.flags, &pInstance);
        if (!pToken) {
            return tokens + (pInstance ? "?" : ".");
        }
        tokens += std::string("<") + pToken + ">";
        pText = nullptr;
    }
    return tokens + "...";
}

} // namespace

// ---- Critical errors

TEST(CriticalError, IsAppendedToTheLogWithTheLocalTime) {
    Configured configured;
    LogCriticalError("first", false, 40000, 8);
    LogCriticalError("second\n  with more", false, 30000, 16);
    const std::string log = ReadFile("tqos_error.log");
    EXPECT_TRUE(std::regex_match(
        log, std::regex(std::string(kTimePattern) + "first\n" + kTimePattern + "second\n  with more\n")))
        << log;
}

TEST(CriticalError, KeepsWhatTheLogHolds) {
    Configured configured;
    WriteFile("tqos_error.log", "kept\n");
    LogCriticalError("added", false, 40000, 8);
    EXPECT_EQ((Messages{"(no time) kept", "added"}), MessagesIn(ReadFile("tqos_error.log")));
}

TEST(CriticalError, BeginsALineOfItsOwnBehindOneThatAKilledProcessHasTorn) {
    Configured configured;
    WriteFile("tqos_error.log", "torn");
    LogCriticalError("first", false, 40000, 8);
    LogCriticalError("second", false, 40000, 8);
    EXPECT_TRUE(std::regex_match(ReadFile("tqos_error.log"), std::regex(std::string("torn\n") + kTimePattern +
                                                                        "first\n" + kTimePattern + "second\n")));
}

TEST(CriticalError, IsAppendedToALogOfMoreThanTwoGigabytes) {
    Configured configured;
    constexpr off_t kLogBytes = off_t{3} << 30; // without contents, so that it takes no room
    const int fd = open("tqos_error.log", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(0, ftruncate(fd, kLogBytes));
    LogCriticalError("first", false, 40000, 8);
    LogCriticalError("second", false, 40000, 8);
    char added[200];
    const ssize_t bytes = pread(fd, added, sizeof(added), kLogBytes);
    close(fd);
    ASSERT_LT(0, bytes);
    const std::string lines(added, static_cast<size_t>(bytes)); // behind what does not end with a line feed
    EXPECT_EQ((Messages{"(no time) ", "first", "second"}), MessagesIn(lines)) << lines;
}

TEST(CriticalError, OfMoreThan511CharactersIsNotWrittenToTheLog) {
    Configured configured;
    const std::string longest(511, 'x');
    LogCriticalError(longest.c_str(), false, 40000, 8);
    LogCriticalError(std::string(512, 'y').c_str(), false, 40000, 8);
    LogCriticalError(std::string(600, 'z').c_str(), false, 40000, 8);
    EXPECT_EQ(Messages{longest}, MessagesIn(ReadFile("tqos_error.log")));
}

TEST(CriticalError, WithAPercentSignIsLoggedAsItStands) {
    Configured configured;
    LogCriticalError("100%% of %s and %n", false, 40000, 8);
    EXPECT_EQ(Messages{"100%% of %s and %n"}, MessagesIn(ReadFile("tqos_error.log")));
}

TEST(CriticalError, WithoutAMessageWritesNothing) {
    Configured configured;
    LogCriticalError(nullptr, false, 40000, 8);
    EXPECT_FALSE(test::FileExists("tqos_error.log"));
}

TEST(CriticalError, GoesToTheFileThatTheSettingNames) {
    for (const char* pszName : {"other.log", "x"}) {
        Configured configured(std::string("[ErrorLog]\nFilename = ") + pszName + "\n");
        LogCriticalError("elsewhere", false, 40000, 8);
        EXPECT_EQ(Messages{"elsewhere"}, MessagesIn(ReadFile(pszName)));
        EXPECT_FALSE(test::FileExists("tqos_error.log"));
    }
}

TEST(CriticalError, IsNotLoggedWhenTheFileNameIsEmpty) {
    Configured configured("[ErrorLog]\nFilename=\n");
    EXPECT_STREQ("", gTQOSErrorLogfile);
    LogCriticalError("nowhere", false, 40000, 8);
    EXPECT_FALSE(test::FileExists("tqos_error.log"));
}

TEST(CriticalError, PassesOverALogThatCannotBeOpened) {
    Configured configured("[ErrorLog]\nFilename=no/such/directory.log\n");
    LogCriticalError("lost", false, 40000, 8);
    EXPECT_FALSE(test::FileExists("no"));
}

TEST(CriticalError, EndsTheProcessWhenAskedTo) {
    ScratchDirectory directory;
    const test::ChildResult child = RunInChild([] {
        tq_BaseInitialize();
        signal(SIGABRT, SIG_DFL);
        LogCriticalError("the end", true, 40000, 8);
    });
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(SIGABRT, child.code);
    EXPECT_EQ(Messages{"the end"}, MessagesIn(ReadFile("tqos_error.log")));
}

TEST(CriticalError, EndsTheProcessWhenAskedToWithoutAMessage) {
    ScratchDirectory directory;
    const test::ChildResult child = RunInChild([] {
        signal(SIGABRT, SIG_DFL);
        LogCriticalError(nullptr, true, 40000, 8);
    });
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(SIGABRT, child.code);
}

TEST(CriticalError, LinesOfSeveralThreadsStayWhole) {
    Configured configured;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            const std::string message(static_cast<size_t>(100 + 100 * i), static_cast<char>('a' + i));
            for (int n = 0; n < 50; ++n) {
                LogCriticalError(message.c_str(), false, 40000, 8);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    size_t counts[4] = {};
    for (const std::string& message : MessagesIn(ReadFile("tqos_error.log"))) {
        const int i = message[0] - 'a';
        ASSERT_TRUE(i >= 0 && i < 4) << message;
        EXPECT_EQ(std::string(static_cast<size_t>(100 + 100 * i), message[0]), message);
        ++counts[i];
    }
    for (size_t count : counts) {
        EXPECT_EQ(50u, count);
    }
}

// In a child whose library prints its own trace: the message comes as a line of that instance.
TEST(CriticalError, IsTracedWithTheTimeAtItsLevelWhateverItsLength) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Trace]\nDefaultLogToSTDOUT=yes\n");
        LogCriticalError("short\n", false, 30000, 8);
        LogCriticalError((std::string(600, 'z') + "\n").c_str(), false, 40000, 16);
        LogCriticalError("100%% of %s and %n\n", false, 40000, 8);
        LogCriticalError(nullptr, false, 40000, 8);
    });
    const std::string prefix =
        std::string(kTimePattern).substr(0, strlen(kTimePattern) - 2) + " \\[\\d+\\]: \\(tqos\\) ";
    const std::string pattern =
        prefix + "WRN: short\n" + prefix + "SEV: z{600}\n" + prefix + "SEV: 100% of %s and %n\n";
    EXPECT_EQ(0, child.code);
    EXPECT_TRUE(std::regex_match(child.standardOut, std::regex(pattern))) << child.standardOut;
}

TEST(CriticalError, AboutARefusedAllocationIsReportedOnceWhateverIsTracked) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=100000\n"
                              "[Sem]\nTracking=yes\n[Trace]\nDefaultLogToSTDOUT=yes\n");
        // Take what is left under the cap, so that nothing the report needs can be allocated either.
        LogCriticalError("filling up\n", false, 40000, 8);
        for (unsigned int bytes = 65536; bytes > 0; bytes /= 2) {
            while (tq_malloc(bytes)) {
            }
        }
        unlink("tqos_error.log");
        printf("|");
        const bool bRefused = tq_malloc(100) == nullptr;
        printf("|");
        int reports = 0;
        for (const std::string& line : MessagesIn(ReadFile("tqos_error.log"))) {
            reports += line.compare(0, 9, "(no time)") != 0 && line.compare(0, 8, "(no line") != 0;
        }
        printf("%d %d", bRefused, reports);
        fflush(stdout);
        _exit(0);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
    const size_t start = child.standardOut.find('|');
    const size_t end = child.standardOut.rfind('|');
    ASSERT_NE(start, end) << child.standardOut;
    const std::string traced = child.standardOut.substr(start + 1, end - start - 1);
    EXPECT_EQ(1u, test::CountOf(traced, "(tqos) ")) << traced;
    EXPECT_EQ("1 1", child.standardOut.substr(end + 1)) << traced;
}

TEST(Assert, StopsNothing) {
    // Deliberately so: it is a hook, and false is what every report passes.
    const test::ChildResult child = RunInChild([] {
        tq_Assert(false);
        tq_Assert(true);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
}

// ---- Start

TEST(Base, NamesTheConfigurationFileAndClearsTheRestOfTheName) {
    memset(psz_tqos_ini_file, 'x', sizeof(psz_tqos_ini_file));
    Configured configured;
    EXPECT_STREQ("tqos.ini", psz_tqos_ini_file);
    for (size_t i = strlen("tqos.ini"); i < sizeof(psz_tqos_ini_file); ++i) {
        ASSERT_EQ('\0', psz_tqos_ini_file[i]) << i;
    }
}

TEST(Base, ReadsItsSettings) {
    {
        Configured configured;
        EXPECT_STREQ("tqos_error.log", gTQOSErrorLogfile);
        EXPECT_TRUE(gbAssertOnCriticalError);
    }
    {
        Configured configured("[errorlog]\r\n  FILENAME=a b.log\r\n  assertoncriticalerror=no\r\n");
        EXPECT_STREQ("a b.log", gTQOSErrorLogfile);
        EXPECT_FALSE(gbAssertOnCriticalError);
    }
    {
        Configured configured("[ErrorLog]\nAssertOnCriticalError=1\n");
        EXPECT_TRUE(gbAssertOnCriticalError);
    }
}

TEST(Base, KeepsALongLogNameWhole) {
    const std::string name(500, 'n');
    Configured configured("[ErrorLog]\nFilename=" + name + "\n");
    EXPECT_EQ(name, gTQOSErrorLogfile);
}

TEST(Base, EndChangesNothing) {
    Configured configured;
    tq_BaseTerminate();
    EXPECT_STREQ("tqos.ini", psz_tqos_ini_file);
    LogCriticalError("after the end", false, 40000, 8);
    EXPECT_EQ(Messages{"after the end"}, MessagesIn(ReadFile("tqos_error.log")));
}

// ---- UUIDs

TEST(Uuid, TakesItsNibblesFromTheRandomGeneratorHighOneFirst) {
    srand(20240229);
    unsigned char expected[16];
    for (unsigned char& byte : expected) {
        const int high = static_cast<int>(rand() * 16.0 / 2147483648.0);
        const int low = static_cast<int>(rand() * 16.0 / 2147483648.0);
        byte = static_cast<unsigned char>(high * 16 + low);
    }
    const int next = rand();
    srand(20240229);
    _TQ_UUID uuid;
    memset(&uuid, 0, sizeof(uuid));
    EXPECT_TRUE(tq_CreateUUID(&uuid));
    EXPECT_EQ(0, memcmp(&uuid, expected, sizeof(expected)));
    EXPECT_EQ(next, rand()) << "two draws a byte";
    unsigned int data1 = 0;
    memcpy(&data1, expected, 4);
    EXPECT_EQ(data1, uuid.Data1);
    EXPECT_EQ(0, memcmp(uuid.Data4, expected + 8, 8));
}

TEST(Uuid, ReachesEveryNibble) {
    srand(1);
    bool seen[16] = {};
    for (int i = 0; i < 100; ++i) {
        _TQ_UUID uuid;
        ASSERT_TRUE(tq_CreateUUID(&uuid));
        for (unsigned char byte : uuid.Data4) {
            seen[byte >> 4] = seen[byte & 15] = true;
        }
    }
    for (bool bSeen : seen) {
        EXPECT_TRUE(bSeen);
    }
}

TEST(Uuid, NeedsARecord) {
    EXPECT_FALSE(tq_CreateUUID(nullptr));
}

// ---- Tokens

TEST(Token, SplitsAText) {
    struct Row {
        const char* pszText;
        Tokeniser rules;
        const char* pszTokens;
    };
    const Tokeniser comma = {",", nullptr, nullptr, nullptr, 0};
    const Tokeniser quoted = {" ", "\"", "\"", nullptr, 0};
    const Tokeniser unquoted = {" ", "\"", "\"", nullptr, 4};
    const Tokeniser nested = {" ", "\"(", "\")", nullptr, 4};
    const Row rows[] = {
        {"", comma, "."},
        {"a", comma, "<a>."},
        {"a,b", comma, "<a><b>."},
        {"a,,b", comma, "<a><><b>."},
        {",a", comma, "<a>."},
        {",,,a,,b", comma, "<a><><b>."},
        {"a,", comma, "<a>."},
        {"a,,", comma, "<a><>."},
        {",", comma, "<>."},
        {",,", comma, "<>."},
        {"a b", comma, "<a b>."},
        {"a b;c", {" ;", nullptr, nullptr, nullptr, 0}, "<a><b><c>."},
        {"a b", {"", nullptr, nullptr, nullptr, 0}, "<a b>."},
        {"\"x y\" z", quoted, "<\"x y\"><z>."},
        {"\"x y\" z", unquoted, "<x y><z>."},
        {"\"x y\"z w", unquoted, "<x yz><w>."},
        {"a\"x y\"\"z w\" v", unquoted, "<ax yz w><v>."},
        {"abc\"x y\" z", unquoted, "<abcx y><z>."},
        {"\"\" z", unquoted, "<><z>."},
        {"z \"\"", unquoted, "<z><>."},
        {"\"x y", unquoted, "."},
        {"z \"x y", unquoted, "<z>."},
        {"(a \"b) c\" d", nested, "<a \"b>."},
        {"(a \"b) c d", nested, "<a \"b><c><d>."},
        {"(a b)\"c )\" d", nested, "<a bc )><d>."},
        {"a) b", nested, "<a)><b>."},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.pszTokens, TokensOf(row.pszText, row.rules)) << row.pszText;
    }
}

TEST(Token, SkipsDelimitersAtTheStartOnTheFirstCallOnly) {
    const Tokeniser comma = {",", nullptr, nullptr, nullptr, 0};
    EXPECT_EQ("<a><><b>.", TokensOf(",,a,,b", comma));
}

TEST(Token, KeepsItsLeadingCharactersEvenWhenAskedToStripThem) {
    EXPECT_EQ("<xxa><b>.", TokensOf("xxa,b", {",", nullptr, nullptr, "x", TQ_TOKEN_STRIP_LEADING}));
}

TEST(Token, LosesOneTrailingCharacterOfTheSet) {
    const int flags = TQ_TOKEN_STRIP_TRAILING;
    EXPECT_EQ("<ax><b><c><>.", TokensOf("axx,by,c,y", {",", nullptr, nullptr, "xy", flags}));
    EXPECT_EQ("<axx>.", TokensOf("axx", {",", nullptr, nullptr, nullptr, flags}));
    EXPECT_EQ("<axx>.", TokensOf("axx", {",", nullptr, nullptr, "", flags}));
    EXPECT_EQ("<a><><b>.", TokensOf("a,,b", {",", nullptr, nullptr, "x", flags}));
}

TEST(Token, WithItsClosingQuoteStrippedKeepsTheOpeningOne) {
    EXPECT_EQ("<\"a b>.", TokensOf("\"a b\"", {" ", "\"", "\"", "\"", TQ_TOKEN_STRIP_TRAILING | 4}));
}

TEST(Token, IsRefusedWithoutDelimitersAndEndsTheText) {
    char text[] = "a,b";
    char* pInstance = text;
    EXPECT_EQ(nullptr, tq_getToken(text, nullptr, nullptr, nullptr, nullptr, 0, &pInstance));
    EXPECT_EQ(nullptr, pInstance);
    EXPECT_EQ(nullptr, tq_getToken(text, ",", nullptr, nullptr, nullptr, 0, nullptr));
    EXPECT_STREQ("a,b", text);
}

TEST(Token, IsRefusedWithoutATextAndAPlaceInOne) {
    char* pInstance = nullptr;
    EXPECT_EQ(nullptr, tq_getToken(nullptr, ",", nullptr, nullptr, nullptr, 0, &pInstance));
}

TEST(Token, IsRefusedWhenTheEncapsulatorsDoNotPair) {
    char text[] = "a,b";
    char* pInstance = text + 2;
    EXPECT_EQ(nullptr, tq_getToken(text, ",", "(", nullptr, nullptr, 0, &pInstance));
    EXPECT_EQ(nullptr, tq_getToken(text, ",", "([", ")", nullptr, 0, &pInstance));
    EXPECT_EQ(nullptr, tq_getToken(text, ",", nullptr, ")", nullptr, 0, &pInstance));
    EXPECT_EQ(text + 2, pInstance);
    EXPECT_STREQ("a,b", text);
    EXPECT_STREQ("a", tq_getToken(text, ",", "", nullptr, nullptr, 0, &pInstance));
}

TEST(Token, LeavesThePlaceAfterItself) {
    char text[] = "ab,c";
    char* pInstance = nullptr;
    EXPECT_EQ(text, tq_getToken(text, ",", nullptr, nullptr, nullptr, 0, &pInstance));
    EXPECT_EQ(text + 3, pInstance);
    EXPECT_EQ(text + 3, tq_getToken(nullptr, ",", nullptr, nullptr, nullptr, 0, &pInstance));
    EXPECT_EQ(text + 4, pInstance);
}

// ---- Characters and numbers

TEST(CharacterSet, TellsThePositionFromOne) {
    EXPECT_EQ(1u, IsCharInSet('a', "abc"));
    EXPECT_EQ(2u, IsCharInSet('b', "abc"));
    EXPECT_EQ(2u, IsCharInSet('b', "abcb"));
    EXPECT_EQ(0u, IsCharInSet('z', "abc"));
    EXPECT_EQ(0u, IsCharInSet('z', ""));
    EXPECT_EQ(0u, IsCharInSet('z', nullptr));
    EXPECT_EQ(0u, IsCharInSet('\0', "abc"));
    EXPECT_EQ(1u, IsCharInSet('\xe9', "\xe9"));
}

TEST(LowerCase, ChangesTheTextInPlace) {
    char text[] = "MiXed 12 [Z]\xe9";
    EXPECT_EQ(text, _strlwr(text));
    EXPECT_STREQ("mixed 12 [z]\xe9", text);
    EXPECT_EQ(nullptr, _strlwr(nullptr));
}

TEST(NumberText, IsDecimalWhateverTheRadix) {
    char text[24];
    EXPECT_EQ(text, itoa(255, text, 16));
    EXPECT_STREQ("255", text);
    EXPECT_STREQ("-2147483648", itoa(-2147483647 - 1, text, 2));
    EXPECT_STREQ("0", itoa(0, text, 10));
    EXPECT_EQ(text, ltoa(-255L, text, 8));
    EXPECT_STREQ("-255", text);
    EXPECT_STREQ("2147483647", ltoa(2147483647L, text, 10));
}

TEST(Strtok, IsTheCLibrarys) {
    char text[] = ",a,,b";
    char* pSaved = nullptr;
    EXPECT_STREQ("a", tq_strtok_r(text, ",", &pSaved));
    EXPECT_STREQ("b", tq_strtok_r(nullptr, ",", &pSaved));
    EXPECT_EQ(nullptr, tq_strtok_r(nullptr, ",", &pSaved));
}

TEST(Getch, ReadsStandardInput) {
    ScratchDirectory directory;
    WriteFile("input", "a\xe9");
    const test::ChildResult child = RunInChild([] {
        if (!freopen("input", "rb", stdin)) {
            _exit(1);
        }
        const int first = tq_getch();
        const int second = tq_getch();
        const int third = tq_getch();
        printf("%d %d %d", first, second, third);
    });
    EXPECT_EQ("97 233 -1", child.standardOut);
}

// ---- Report text

TEST(ReportText, GrowsPastItsFirstSize) {
    tq_ReportText report(4);
    ASSERT_TRUE(static_cast<bool>(report));
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        report.Append("row %d\r\n", i);
        expected += "row " + std::to_string(i) + "\r\n";
    }
    EXPECT_EQ(expected.size(), report.Length());
    char* pszText = report.Release();
    EXPECT_EQ(expected, pszText);
    tq_free(pszText);
}

TEST(ReportText, HoldsATextThatFillsItsFirstSizeExactly) {
    for (unsigned int bytes : {0u, 1u, 5u, 6u, 7u}) {
        tq_ReportText report(bytes);
        report.Append("%s", "12345");
        report.Append("%s", "");
        char* pszText = report.Release();
        EXPECT_STREQ("12345", pszText);
        tq_free(pszText);
    }
}

TEST(ReportText, IsEmptyBeforeAnythingIsAppended) {
    tq_ReportText report(0);
    char* pszText = report.Release();
    EXPECT_STREQ("", pszText);
    tq_free(pszText);
    report.Append("%s", "too late");
    EXPECT_EQ(nullptr, report.Release());
}

TEST(ReportText, LeavesOutAPieceThatFindsNoMemory) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=200000\n");
        tq_ReportText report(16);
        report.Append("%s", "kept");
        report.Append("%s", std::string(300000, 'x').c_str());
        report.Append("%s", ", also kept");
        char* pszText = report.Release();
        printf("%s", pszText);
        tq_free(pszText);
        tq_ReportText refused(300000);
        refused.Append("%s", "nothing");
        printf("|%s", !refused && !refused.Release() ? "null" : "a text");
    });
    EXPECT_EQ(0, child.code);
    EXPECT_EQ("kept, also kept|null", child.standardOut);
}

TEST(ReportText, ShowsTheEndOfALongName) {
    EXPECT_STREQ("abcdef", tq_LastCharacters("abcdef", 6));
    EXPECT_STREQ("bcdef", tq_LastCharacters("abcdef", 5));
    EXPECT_STREQ("", tq_LastCharacters("abcdef", 0));
    EXPECT_STREQ("", tq_LastCharacters("", 3));
}
