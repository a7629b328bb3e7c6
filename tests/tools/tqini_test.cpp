// tqini: its table against what the library really reads, its findings against what the library's reader makes of the
// same file, and the program as its users see it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "Check.h"
#include "KeyTable.h"
#include "SocketPeers.h"
#include "Suggest.h"
#include "Template.h"
#include "TerminalProgram.h"
#include "TestSupport.h"
#include "tq_IniKeys_p.h"
#include "tq_NetTrace_p.h"
#include "tqos.h"

// ---- What the library reads: its calls of its own reader, on their way there

namespace {

struct ReadKey {
    tqini::Kind kind;
    std::string defaultText;
    unsigned int limit;
};

std::mutex gReadMutex;
bool gbLogging = false;
std::multimap<std::string, ReadKey> gRead; // by "section:key"

void LogRead(const std::string& section, const std::string& key, const ReadKey& read) {
    std::lock_guard<std::mutex> lock(gReadMutex);
    if (gbLogging) {
        gRead.emplace(section + ":" + key, read);
    }
}

constexpr unsigned int kShort = 11;

} // namespace

extern "C" {

int __real_tq_GetINIFileString(const char*, const char*, const char*, char*, unsigned int, const char*);
int __wrap_tq_GetINIFileString(const char* pszSection, const char* pszKey, const char* pszDefault, char* pszReturn,
                               unsigned int bytes, const char* pszFilename) {
    LogRead(pszSection, pszKey, {tqini::Kind::Text, pszDefault, bytes - 1});
    return __real_tq_GetINIFileString(pszSection, pszKey, pszDefault, pszReturn, bytes, pszFilename);
}

int __real_tq_GetINIFileInt(const char*, const char*, int, const char*);
int __wrap_tq_GetINIFileInt(const char* pszSection, const char* pszKey, int iDefault, const char* pszFilename) {
    LogRead(pszSection, pszKey, {tqini::Kind::Number, std::to_string(iDefault), kShort});
    return __real_tq_GetINIFileInt(pszSection, pszKey, iDefault, pszFilename);
}

bool __real_tq_GetINIFileAffirmative(const char*, const char*, const char*, const char*);
bool __wrap_tq_GetINIFileAffirmative(const char* pszSection, const char* pszKey, const char* pszDefault,
                                     const char* pszFilename) {
    LogRead(pszSection, pszKey, {tqini::Kind::Switch, pszDefault, kShort});
    return __real_tq_GetINIFileAffirmative(pszSection, pszKey, pszDefault, pszFilename);
}

void __real__Z14tq_ReadIniRowsPKcPK13tq_IniIntegerm(const char*, const tq_IniInteger*, size_t);
void __wrap__Z14tq_ReadIniRowsPKcPK13tq_IniIntegerm(const char* pszSection, const tq_IniInteger* pRows, size_t rows) {
    for (size_t i = 0; i < rows; ++i) {
        LogRead(pszSection, pRows[i].pszKey, {tqini::Kind::Number, std::to_string(pRows[i].iDefault), kShort});
    }
    __real__Z14tq_ReadIniRowsPKcPK13tq_IniIntegerm(pszSection, pRows, rows);
}

void __real__Z14tq_ReadIniRowsPKcPK12tq_IniSwitchm(const char*, const tq_IniSwitch*, size_t);
void __wrap__Z14tq_ReadIniRowsPKcPK12tq_IniSwitchm(const char* pszSection, const tq_IniSwitch* pRows, size_t rows) {
    for (size_t i = 0; i < rows; ++i) {
        LogRead(pszSection, pRows[i].pszKey, {tqini::Kind::Switch, pRows[i].bDefault ? "yes" : "no", kShort});
    }
    __real__Z14tq_ReadIniRowsPKcPK12tq_IniSwitchm(pszSection, pRows, rows);
}

} // extern "C"

namespace {

using tqini::Finding;
using tqini::Kind;
using tqini::KnownKey;

constexpr char kFile[] = "test.ini";

/// Everything that makes the library read a key: all that others need are on, a trace instance is opened, the console
/// runs.
constexpr char kOpensAll[] = "[Memory]\nEnableMemoryTracking=yes\nEnableMemoryPooling=yes\nEnableHistogram=yes\n"
                             "MemoryAlignment=16\nPool1BlockSize=64\nPool1StartCount=10\nPool2BlockSize=100000\n"
                             "[Trace]\nnetwork_LogToMulticast=yes\nfile_LogToFile=test.log\n";

void RunTheLibrary(const std::string& ini) {
    test::Library library(ini);
    for (const char* pszName : {"plain", "file", "network"}) {
        EXPECT_NE(0u, tq_TraceInitInstance(pszName));
    }
    EXPECT_NE(0u, tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), ""));
    tq_TelnetTerminate();
}

std::multimap<std::string, ReadKey> KeysThatTheLibraryReads() {
    gRead.clear();
    gbLogging = true;
    RunTheLibrary(kOpensAll);
    gbLogging = false;
    return gRead;
}

KnownKey RowOf(const std::string& id) {
    const size_t colon = id.find(':');
    return tqini::FindKeyRow(id.substr(0, colon), id.substr(colon + 1));
}

TEST(TqiniTable, HasEveryKeyThatTheLibraryReads) {
    const auto read = KeysThatTheLibraryReads();
    EXPECT_LT(60u, read.size());
    for (const auto& key : read) {
        EXPECT_TRUE(RowOf(key.first)) << key.first << " is read; add a row to tools/tqini/KeyTable.cpp";
    }
}

TEST(TqiniTable, HasNoKeyThatTheLibraryDoesNotRead) {
    std::set<const tqini::KeyRow*> rows;
    for (const auto& key : KeysThatTheLibraryReads()) {
        rows.insert(RowOf(key.first).pRow);
    }
    for (const tqini::KeyRow& row : tqini::KeyTable()) {
        EXPECT_EQ(1u, rows.count(&row)) << row.pszSection << ":" << row.pszKey;
    }
}

bool IsNumberOrSwitch(const tqini::KeyRow& row) {
    return row.kind == Kind::Number || row.kind == Kind::Switch;
}

TEST(TqiniTable, HasTheKindTheDefaultAndTheLimitThatTheLibraryReadsWith) {
    for (const auto& [id, read] : KeysThatTheLibraryReads()) {
        const KnownKey known = RowOf(id);
        ASSERT_TRUE(known) << id;
        const tqini::KeyRow& row = *known.pRow;
        if (row.kind == Kind::Level) { // read as a word, and when it is none as a number
            EXPECT_TRUE(read.kind == Kind::Text || read.kind == Kind::Number) << id;
            continue;
        }
        EXPECT_EQ(IsNumberOrSwitch(row) ? row.kind : Kind::Text, read.kind) << id;
        EXPECT_EQ(row.limit, std::min(read.limit, 511u)) << id;                             // a value is part of a line
        const bool bDefaultOfItsOwn = !row.pszDefaultFrom && id != "Memory:Pool2Increment"; // that of its slots' size
        if (bDefaultOfItsOwn) {
            const std::string text = read.defaultText == "n" ? "no" : read.defaultText;
            EXPECT_EQ(row.pszDefault, text) << id;
        }
    }
}

TEST(TqiniTable, NamesAKeyThatIsThereWhereOneNeedsAnother) {
    for (const tqini::KeyRow& row : tqini::KeyTable()) {
        if (row.pszNeeds) {
            EXPECT_TRUE(tqini::FindKeyRow(row.pszSection, row.pszNeeds)) << row.pszKey;
        }
        if (row.pszDefaultFrom) {
            EXPECT_TRUE(tqini::FindKeyRow(row.pszSection, row.pszDefaultFrom)) << row.pszKey;
        }
        EXPECT_EQ('.', std::string(row.pszMeaning).back()) << row.pszKey;
    }
}

TEST(TqiniTable, FindsKeysInAnyCaseAndWithNamesAndNumbersInThem) {
    const struct {
        const char* pszSection;
        const char* pszKey;
        const char* pszRow; // null: there is none
        const char* pszStem;
    } rows[] = {
        {"MEMORY", "memorycapinbytes", "MemoryCapInBytes", ""},
        {"Memory", "Pool7StartCount", "PoolNStartCount", "7"},
        {"Memory", "pool100increment", "PoolNIncrement", "100"},
        {"Memory", "Pool0BlockSize", nullptr, ""},
        {"Memory", "Pool01BlockSize", nullptr, ""},
        {"Memory", "Pool101BlockSize", nullptr, ""},
        {"Memory", "PoolNBlockSize", nullptr, ""},
        {"Trace", "my device_level", "NAME_Level", "my device"},
        {"Trace", "a_b_Cat", "NAME_Cat", "a_b"},
        {"Trace", "_Level", nullptr, ""},
        {"Trace", "DefaultLevel", "DefaultLevel", ""},
        {"Sem", "DefaultLevel", nullptr, ""},
        {"Nothing", "DefaultLevel", nullptr, ""},
    };
    for (const auto& row : rows) {
        const KnownKey known = tqini::FindKeyRow(row.pszSection, row.pszKey);
        EXPECT_EQ(row.pszRow != nullptr, static_cast<bool>(known)) << row.pszKey;
        if (row.pszRow && known) {
            EXPECT_STREQ(row.pszRow, known.pRow->pszKey);
            EXPECT_EQ(row.pszStem, known.stem);
            EXPECT_TRUE(tqini::SameText(row.pszKey, tqini::KeyText(*known.pRow, known.stem)));
        }
    }
}

// ---- Findings, and what the library's reader makes of the same file

std::vector<Finding> Check(const std::string& content, const tqini::OwnNames& own = {}) {
    test::WriteFile(kFile, content);
    std::vector<Finding> findings;
    std::string reason;
    EXPECT_TRUE(tqini::CheckFile(kFile, own, &findings, &reason)) << reason;
    return findings;
}

/// "line kind" of each, with blanks between them.
std::string Shown(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += (text.empty() ? "" : " ") + std::to_string(finding.line) + " " + finding.kind;
    }
    return text;
}

/// What the library reads of a key, as its row says; "(default)" when it does not find it.
std::string LibraryReads(const std::string& section, const std::string& key) {
    if (FindSectionKey(kFile, section.c_str(), key.c_str(), nullptr, 0) == 0) {
        char text[8];
        if (FindSectionKey(kFile, section.c_str(), key.c_str(), text, sizeof(text)) == 0) {
            return "(default)";
        }
    }
    const KnownKey known = tqini::FindKeyRow(section, key);
    if (known && known.pRow->kind == Kind::Switch) {
        return tq_GetINIFileAffirmative(section.c_str(), key.c_str(), "no", kFile) ? "yes" : "no";
    }
    if (known && known.pRow->kind == Kind::Number) {
        return std::to_string(tq_GetINIFileInt(section.c_str(), key.c_str(), -12345, kFile));
    }
    std::vector<char> text((known ? known.pRow->limit : 511) + 1);
    tq_GetINIFileString(section.c_str(), key.c_str(), "", text.data(), static_cast<unsigned int>(text.size()), kFile);
    return text.data();
}

const std::string kLong(600, 'x');

struct FindingRow {
    std::string content;
    std::string findings; ///< "line kind", in their order
    const char* pszSection;
    const char* pszKey;
    std::string reads; ///< what the library's reader makes of the key
    const char* pszSuggestion;
};

const FindingRow kRows[] = {
    // What is clean
    {"", "", "Memory", "MemoryCapInBytes", "(default)", ""},
    {"; x=1\n# [y]\n// z=2\n\n \t\r\n", "", "Memory", "MemoryCapInBytes", "(default)", ""},
    {"[memory]\r\n  HISTOGRAMMAXSIZE \t= 0x100 \r\nenablehistogram=1\nEnableMemoryTracking=TRUE\n", "", "Memory",
     "HistogramMaxSize", "256", ""},
    {"[Sem] ; what follows the bracket does not matter\nTracking=Y\n", "", "Sem", "Tracking", "yes", ""},
    {"[Sem]\nTracking=off\nUseMutexForCritSec=False\nForceSchedYield=n", "", "Sem", "UseMutexForCritSec", "no", ""},
    {"[Trace]\nDefaultLevel=low\na_Level=-30000\nb_Level=none\n", "", "Trace", "a_Level", "-30000", ""},
    {"[Trace]\nAllowedViewers=10.0.0.7, 10.0.0.0/8\t127.0.0.1/32\n", "", "Trace", "AllowedViewers",
     "10.0.0.7, 10.0.0.0/8\t127.0.0.1/32", ""},
    {"[ErrorLog]\nFilename=\n", "", "ErrorLog", "Filename", "", ""},
    {"[ErrorLog]\nFilename=a=b;c#d//e\n", "", "ErrorLog", "Filename", "a=b;c#d//e", ""},
    {"[Telnet]\nMaxSessions=+7\n", "", "Telnet", "MaxSessions", "7", ""},

    // Sections and keys that nobody reads
    {"[Memroy]\nMemoryCapInBytes=7\n", "1 unknown-section", "Memory", "MemoryCapInBytes", "(default)", "Memory"},
    {"[Zebra]\nx=7\n", "1 unknown-section", "Zebra", "x", "7", ""},
    {"[]\n", "1 unknown-section", "Memory", "MemoryCapInBytes", "(default)", ""},
    {"[Sem]\nTrakcing=yes\n", "2 unknown-key", "Sem", "Tracking", "(default)", "Tracking"},
    {"[Sem]\nTracking\r=yes\n", "2 unknown-key", "Sem", "Tracking", "(default)", "Tracking"},
    {"[Memory]\nTracking=yes\n", "2 unknown-key", "Memory", "EnableMemoryTracking", "(default)", ""},
    {"[Trace]\ndevice_Levle=All\n", "2 unknown-key", "Trace", "device_Level", "(default)", "device_Level"},
    {"[Memory]\nEnableMemoryPooling=1\nPool3BlokSize=32\n", "3 unknown-key", "Memory", "Pool3BlockSize", "(default)",
     "Pool3BlockSize"},
    {"[Sem]\nTracking yes\n", "2 not-a-key", "Sem", "Tracking", "(default)", ""},

    // What is never seen
    {"Tracking=yes\n[Sem]\n", "1 key-before-section", "Sem", "Tracking", "(default)", ""},
    {"[Sem]\nTracking=no\n[MsgQ]\n[SEM]\nTracking=yes\n", "4 duplicate-section", "Sem", "Tracking", "no", ""},
    {"[Sem]\n[Sem]\nTracking=yes\n", "2 duplicate-section", "Sem", "Tracking", "(default)", ""},
    {"[Sem]\nTracking=no\n tracking = yes\n", "3 duplicate-key", "Sem", "Tracking", "no", ""},
    {"[Own]\nx=1\nX=2\n", "3 duplicate-key", "Own", "x", "1", ""},
    {"[ Sem ]\nTracking=yes\n", "1 header-blanks", "Sem", "Tracking", "(default)", "Sem"},
    {"[MsgQ]\nDefaultHistory=7\n[Sem ]\nTracking=yes\nDefaultHistory=8\n", "3 header-blanks", "MsgQ", "DefaultHistory",
     "7", "Sem"},
    {"[MsgQ]\n[Sem\nDefaultHistory=8\n", "2 broken-header", "MsgQ", "DefaultHistory", "(default)", "Sem"},
    {"\xEF\xBB\xBF[Sem]\nTracking=yes\n", "1 byte-order-mark 2 key-before-section", "Sem", "Tracking", "(default)", ""},
    {std::string("[Handles]\nMaxHandle=12\0"
                 "34\n",
                 25),
     "2 zero-byte", "Handles", "MaxHandle", "12", ""},
    {"[ErrorLog]\nFilename=" + kLong + "\n", "2 line-cut", "ErrorLog", "Filename", std::string(502, 'x'), ""},
    {"[Sem]\n;" + std::string(510, ' ') + "Tracking=yes\n", "2 line-cut", "Sem", "Tracking", "yes", ""},
    {"[Sem]\n;" + std::string(510, ' ') + "\nTracking=yes\n", "", "Sem", "Tracking", "yes", ""},
    {"[Memory]\nMemoryCapInBytes=7\n", "2 not-read", "Memory", "MemoryCapInBytes", "7", ""},
    {"[Memory]\nEnableHistogram=1\nHistogramMaxSize=7\n", "2 not-read 3 not-read", "Memory", "HistogramMaxSize", "7",
     ""},
    {"[Memory]\nEnableMemoryPooling=1\nPool2BlockSize=32\n", "3 not-read", "Memory", "Pool2BlockSize", "32", ""},
    {"[Memory]\nEnableMemoryPooling=1\nPool2BlockSize=64\nPool1BlockSize=32\n", "", "Memory", "Pool2BlockSize", "64",
     ""},

    // Values that are taken for something else
    {"[Sem]\nTracking=yes ; find dead waits\n", "2 trailing-comment", "Sem", "Tracking", "no", ""},
    {"[Sem]\nTracking=#yes\n", "2 trailing-comment", "Sem", "Tracking", "no", ""},
    {"[MsgQ]\nDefaultHistory=5\t# messages\n", "2 trailing-comment", "MsgQ", "DefaultHistory", "5", ""},
    {"[Handles]\nMaxHandle=0x10 // add\n", "2 trailing-comment", "Handles", "MaxHandle", "68317", ""},
    {"[ErrorLog]\nFilename=e.log ; here\n", "2 trailing-comment", "ErrorLog", "Filename", "e.log ; here", ""},
    {"[Own]\nx=1 ; here\n", "2 trailing-comment", "Own", "x", "1 ; here", ""},
    {"[ErrorLog]\nFilename=\"e.log\"\n", "2 quoted-value", "ErrorLog", "Filename", "\"e.log\"", ""},
    {"[Sem]\nTracking='yes'\n", "2 quoted-value", "Sem", "Tracking", "no", ""},
    {"[Handles]\nMaxHandle=000000001000\n", "2 value-cut", "Handles", "MaxHandle", "100", ""},
    {"[Sem]\nTracking=yes, always on\n", "2 value-cut", "Sem", "Tracking", "no", ""},
    {"[Trace]\nDefaultLogToFilePrefix=" + std::string(256, 'p') + "\n", "2 value-cut", "Trace",
     "DefaultLogToFilePrefix", std::string(255, 'p'), ""},
    {"[Handles]\nMaxHandle=\n", "2 empty-value", "Handles", "MaxHandle", "0", ""},
    {"[Sem]\nUseMutexForCritSec=\r\n", "2 empty-value", "Sem", "UseMutexForCritSec", "no", ""},
    {"[Handles]\nMaxHandle=lots\n", "2 not-a-number", "Handles", "MaxHandle", "0", ""},
    {"[Handles]\nMaxHandle=100k\n", "2 not-a-number", "Handles", "MaxHandle", "100", ""},
    {"[Handles]\nMaxHandle=0x1_0\n", "2 not-a-number", "Handles", "MaxHandle", "16", ""},
    {"[Handles]\nMaxHandle=4294967295\n", "2 out-of-range", "Handles", "MaxHandle", "2147483647", ""},
    {"[Sem]\nTracking=on\n", "2 not-a-switch", "Sem", "Tracking", "no", ""},
    {"[Trace]\na_Level=Debug Low\n", "2 not-a-level", "Trace", "a_Level", "Debug Low", "Low"},
    {"[Trace]\nDefaultLevel=warnings\n", "2 not-a-level", "Trace", "DefaultLevel", "warnings", "Warning"},
    {"[Trace]\nAllowedViewers=10.0.0.0/8, localhost 10.0.0.0/33\n", "2 not-an-address 2 not-an-address", "Trace",
     "AllowedViewers", "10.0.0.0/8, localhost 10.0.0.0/33", ""},
    {"[Trace]\nMaxViewers=129\n", "2 out-of-range", "Trace", "MaxViewers", "129", ""},
    {"[Telnet]\nLoginSeconds=-1\n", "2 out-of-range", "Telnet", "LoginSeconds", "-1", ""},
    {"[Memory]\nMemoryAlignment=200\n", "2 alignment-replaced", "Memory", "MemoryAlignment", "200", ""},
};

TEST(TqiniCheck, FindsWhatTheLibrarysReaderDoesNotSeeOrTakesForSomethingElse) {
    test::ScratchDirectory directory;
    for (const FindingRow& row : kRows) {
        const std::vector<Finding> findings = Check(row.content, {"Own"});
        EXPECT_EQ(row.findings, Shown(findings)) << row.content;
        EXPECT_EQ(row.reads, LibraryReads(row.pszSection, row.pszKey)) << row.content;
        EXPECT_EQ(row.pszSuggestion, findings.empty() ? "" : findings[0].suggestion) << row.content;
    }
}

TEST(TqiniCheck, EveryKindOfFindingIsAmongThoseHeldAgainstTheReader) {
    std::set<std::string> found;
    test::ScratchDirectory directory;
    for (const FindingRow& row : kRows) {
        for (const Finding& finding : Check(row.content, {"Own"})) {
            found.insert(finding.kind);
        }
    }
    std::set<std::string> documented;
    for (const tqini::FindingKind& kind : tqini::FindingKinds()) {
        documented.insert(kind.pszKind);
    }
    EXPECT_EQ(documented, found);
}

/// What a message says that the library reads is what it reads. A level comes to a number only later.
TEST(TqiniCheck, SaysWhatTheLibraryReads) {
    const std::string words = "reads as ";
    test::ScratchDirectory directory;
    unsigned int said = 0;
    for (const FindingRow& row : kRows) {
        const std::vector<Finding> findings = Check(row.content, {"Own"});
        const size_t at = findings.empty() ? std::string::npos : findings[0].message.find(words);
        if (at != std::string::npos && findings[0].kind != "not-a-level") {
            const std::string reads = findings[0].message.substr(at + words.size());
            EXPECT_TRUE(reads == row.reads || reads == '"' + row.reads + '"') << findings[0].message;
            ++said;
        }
    }
    EXPECT_LT(10u, said);
}

struct EffectRow {
    const char* pszContent;
    unsigned int alignment;
    int level;
    bool bCapped;
};

/// Some of what the reader leaves to others: what an alignment, a level and a key that needs another come to.
TEST(TqiniCheck, ReplacedValuesAndKeysThatAreNotReadAreSoInARunningLibrary) {
    const EffectRow rows[] = {
        {"[Memory]\nMemoryAlignment=200\n[Trace]\na_Level=Debug Low\n", 4, 0, false},
        {"[Memory]\nMemoryAlignment=128\n[Trace]\na_Level=Low\n", 128, 5000, false},
        {"[Memory]\nMemoryCapInBytes=1000000\n[Trace]\nDefaultLevel=warnings\n", 0, 30000, false},
        {"[Memory]\nMemoryCapInBytes=1000000\nEnableMemoryTracking=1\n[Trace]\nDefaultLevel=5\n", 0, 5, true},
    };
    for (const EffectRow& row : rows) {
        test::Library library(row.pszContent);
        EXPECT_EQ(row.alignment, tq_GetMemoryAlignment()) << row.pszContent;
        EXPECT_EQ(row.level, tq_TraceGetLevel(tq_TraceInitInstance("a"))) << row.pszContent;
        void* pBlock = tq_malloc(2000000);
        EXPECT_EQ(row.bCapped, pBlock == nullptr) << row.pszContent;
        tq_free(pBlock);
    }
}

/// Asks an instance for its lines from an address; they come to the socket.
test::Fd Subscribe(const char* pszFrom, unsigned int port) {
    test::Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in from = test::LoopbackAddress(0);
    from.sin_addr.s_addr = inet_addr(pszFrom);
    const struct sockaddr_in to = test::LoopbackAddress(port);
    EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<const struct sockaddr*>(&from), sizeof(from)));
    EXPECT_EQ(9, sendto(fd.Get(), "TRACEON/", 9, 0, reinterpret_cast<const struct sockaddr*>(&to), sizeof(to)));
    return fd;
}

unsigned int ViewersOf(unsigned int handle) {
    tq_LockedTrace trace;
    return tq_FindTraceInstanceLocked(handle)->pNetTrace->Viewers();
}

/// Whether the library admits 127.0.0.1 by this word. Another address, which it admits in any case, asks after it: when
/// lines come there, both requests have been handled.
bool LibraryAdmits(const std::string& word) {
    test::Library library("[Trace]\ntqos_Level=None\na_Level=All\na_LogToMulticast=yes\nAllowedViewers=127.0.0.9 " +
                          word + "\n");
    const unsigned int handle = tq_TraceInitInstance("a");
    unsigned int hSocket = 0;
    {
        tq_LockedTrace trace;
        hSocket = static_cast<unsigned int>(tq_FindTraceInstanceLocked(handle)->iSocket);
    }
    const unsigned int port = tq_SocketGetBoundPort(hSocket);
    const test::Fd asks = Subscribe("127.0.0.1", port);
    const test::Fd asksLast = Subscribe("127.0.0.9", port);
    EXPECT_TRUE(test::WaitUntil([&] {
        tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, false, "a line");
        struct pollfd line = {asksLast.Get(), POLLIN, 0};
        return poll(&line, 1, 0) == 1;
    }));
    return ViewersOf(handle) == 2;
}

TEST(TqiniCheck, AnAddressIsOneExactlyWhenTheLibraryAdmitsBySuch) {
    for (const char* pszWord :
         {"127.0.0.1", "127.0.0.0/8", "127.0.0.1/32", "127.0.0.1/032", "0.0.0.0/0", "127.0.0.1/33", "127.0.0.1/",
          "127.0.0.1/-1", "127.0.0.1/8x", "127.1", "localhost", "127.0.0.1:5"}) {
        const bool bAdmits = LibraryAdmits(pszWord);
        test::ScratchDirectory directory;
        const std::vector<Finding> findings = Check(std::string("[Trace]\nAllowedViewers=") + pszWord + "\n");
        EXPECT_EQ(bAdmits ? "" : "2 not-an-address", Shown(findings)) << pszWord;
    }
}

TEST(TqiniCheck, OwnNamesOfTheApplicationAreNoFindings) {
    test::ScratchDirectory directory;
    const std::string content = "[Device]\nPort=0\n[Telnet]\nPort=0\nPassword=x\n";
    EXPECT_EQ("1 unknown-section 4 unknown-key 5 unknown-key", Shown(Check(content)));
    EXPECT_EQ("5 unknown-key", Shown(Check(content, {"device", "Telnet:PORT"})));
    EXPECT_EQ("", Shown(Check(content, {"Device", "Telnet:Port", "Telnet:Password"})));
}

TEST(TqiniCheck, TheDemoDevicesFileIsClean) {
    std::vector<Finding> findings;
    std::string reason;
    ASSERT_TRUE(tqini::CheckFile(DEVICE_INI, {"Device", "Telnet:Port", "Telnet:Password"}, &findings, &reason));
    EXPECT_EQ("", Shown(findings));
}

TEST(TqiniSuggest, CountsInsertedLostReplacedAndExchangedLetters) {
    EXPECT_EQ(0u, tqini::EditDistance("Level", "LEVEL"));
    EXPECT_EQ(1u, tqini::EditDistance("Levle", "Level"));
    EXPECT_EQ(1u, tqini::EditDistance("Levl", "Level"));
    EXPECT_EQ(1u, tqini::EditDistance("Leveel", "Level"));
    EXPECT_EQ(1u, tqini::EditDistance("Lebel", "Level"));
    EXPECT_EQ(5u, tqini::EditDistance("", "Level"));
    EXPECT_EQ(3u, tqini::EditDistance("kitten", "sitting"));
    EXPECT_EQ("Memory", tqini::Nearest("Memroy", tqini::Sections()));
    EXPECT_EQ("", tqini::Nearest("Zebra", tqini::Sections()));
}

// ---- The template and the page

/// The template with every key in force, for an instance and a pool.
std::string WithoutSemicolons(const std::string& text) {
    static const std::regex kKey("\n;(\\S+)=");
    std::string result = std::regex_replace(text, kKey, "\n$1=");
    result = std::regex_replace(result, std::regex("\nPoolN"), "\nPool1");
    return std::regex_replace(result, std::regex("\nNAME_"), "\nmine_");
}

TEST(TqiniTemplate, AsItStandsItIsCleanAndHasNoKeyInForce) {
    test::ScratchDirectory directory;
    EXPECT_EQ("", Shown(Check(tqini::IniTemplate())));
    for (const tqini::KeyRow& row : tqini::KeyTable()) {
        EXPECT_EQ("(default)", LibraryReads(row.pszSection, tqini::KeyText(row, "1"))) << row.pszKey;
    }
}

TEST(TqiniTemplate, WithItsKeysInForceTheLibraryReadsTheDefaults) {
    test::ScratchDirectory directory;
    test::WriteFile(kFile, WithoutSemicolons(tqini::IniTemplate()));
    for (const tqini::KeyRow& row : tqini::KeyTable()) {
        const std::string stem = std::string(row.pszKey).compare(0, 4, "NAME") == 0 ? "mine" : "1";
        EXPECT_EQ(row.pszDefault, LibraryReads(row.pszSection, tqini::KeyText(row, stem))) << row.pszKey;
    }
}

TEST(TqiniTemplate, ThePageOfTheDocumentationIsTheTables) {
    EXPECT_EQ(tqini::MarkdownPage(), test::ReadFile(TQINI_PAGE)) << "run: tqini template --markdown > docs/ini.md";
}

// ---- The program

test::ChildResult RunTqini(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TQINI_PROGRAM);
    return test::RunInChild([&arguments] {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    });
}

void ExpectRun(const std::vector<std::string>& arguments, int status, const std::string& out,
               const std::string& errors) {
    const test::ChildResult result = RunTqini(arguments);
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(status, result.code);
    EXPECT_EQ(out, result.standardOut);
    EXPECT_EQ(errors, result.standardError);
}

TEST(TqiniProgram, SaysEachFindingWithItsLineAndEndsWithStatus1) {
    test::ScratchDirectory directory;
    test::WriteFile("a.ini", "Tracking=yes\n[Memroy]\n[Sem]\nTrakcing=yes\n");
    test::WriteFile("b.ini", "[Sem]\nTracking=yes ; always\n");
    ExpectRun({"check", "a.ini", "b.ini"}, 1,
              "a.ini:1: a key before the first section is never found\n"
              "a.ini:2: the library has no section [Memroy]; did you mean Memory?\n"
              "a.ini:4: [Sem] has no key Trakcing; did you mean Tracking?\n"
              "b.ini:2: Tracking: \"; always\" is part of the value: reads as no\n",
              "");
}

TEST(TqiniProgram, EndsWithStatus0WhenThereIsNothingToSay) {
    test::ScratchDirectory directory;
    test::WriteFile("a.ini", "[Sem]\nTracking=yes\n[App]\nx=1\n[Telnet]\nPort=7\n");
    ExpectRun({"check", "--own", "App", "--own", "Telnet:Port", "a.ini"}, 0, "", "");
    ExpectRun({"check", "--json", "--own", "App", "a.ini", "--own", "Telnet:Port"}, 0, "[]\n", "");
}

TEST(TqiniProgram, WritesFindingsAsJson) {
    test::ScratchDirectory directory;
    test::WriteFile("a.ini", "[Sem]\nTrakcing=yes\nTracking=\xFF\n");
    const test::ChildResult result = RunTqini({"check", "--json", "a.ini"});
    EXPECT_EQ(1, result.code);
    const nlohmann::json objects = nlohmann::json::parse(result.standardOut);
    ASSERT_EQ(2u, objects.size());
    const nlohmann::json expected = {{"file", "a.ini"},         {"line", 2},
                                     {"kind", "unknown-key"},   {"section", "Sem"},
                                     {"key", "Trakcing"},       {"message", "[Sem] has no key Trakcing"},
                                     {"suggestion", "Tracking"}};
    EXPECT_EQ(expected, objects[0]);
    EXPECT_EQ("not-a-switch", objects[1]["kind"]);
    EXPECT_EQ(0u, objects[1].count("suggestion"));
}

TEST(TqiniProgram, WhatCannotBeReadEndsItWithStatus2AndTheOthersAreCheckedAllTheSame) {
    test::ScratchDirectory directory;
    test::WriteFile("a.ini", "[Memroy]\n");
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    ExpectRun({"check", "none.ini", ".", "fifo", "a.ini"}, 2,
              "a.ini:1: the library has no section [Memroy]; did you mean Memory?\n",
              "tqini: none.ini: No such file or directory\n"
              "tqini: .: not a regular file\n"
              "tqini: fifo: not a regular file\n");
}

TEST(TqiniProgram, SaysTheSameOnATerminal) {
    test::ScratchDirectory directory;
    test::WriteFile("device.ini", test::ReadFile(DEVICE_INI));
    test::WriteFile("a.ini", "[Memroy]\n");
    test::TerminalProgram program({TQINI_PROGRAM, "check", "--own", "Device", "--own", "Telnet:Port", "--own",
                                   "Telnet:Password", "device.ini", "a.ini"});
    EXPECT_EQ("a.ini:1: the library has no section [Memroy]; did you mean Memory?\r\n",
              program.Terminal().ReadTo("\n"));
    EXPECT_EQ(1, program.WaitForEnd());
}

TEST(TqiniProgram, PrintsTheTemplateAndThePage) {
    ExpectRun({"template"}, 0, tqini::IniTemplate(), "");
    ExpectRun({"template", "--markdown"}, 0, tqini::MarkdownPage(), "");
}

TEST(TqiniProgram, ACommandLineThatIsWrongIsAnsweredWithTheUsageAndStatus2) {
    const std::vector<std::string> lines[] = {
        {}, {"chekc", "a.ini"}, {"check"}, {"check", "--own"}, {"check", "--yaml", "a.ini"}, {"template", "x"}};
    const test::ChildResult help = RunTqini({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_EQ(0u, help.standardOut.find("usage: tqini check "));
    for (const std::vector<std::string>& line : lines) {
        ExpectRun(line, 2, "", help.standardOut);
    }
}

} // namespace
