// What nobody in his senses passes: names of every length and kind in every named object and its reports, handles of
// nothing, configurations that are none. Each row is a call, its input, and exactly what comes of it.

#include <arpa/inet.h>
#include <functional>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleSession.h"
#include "MemoryBlocks.h" // a heap that says no when it is asked for too much, under a sanitizer too
#include "RecordingQueue.h"
#include "TestSupport.h"
#include "tq_Lifecycle_p.h"

using test::Library;
using test::RecordingQueue;
using test::ScratchDirectory;
using test::WriteFile;

namespace {

// Names

struct Name {
    const char* pszWhat;
    std::string text;
};

std::vector<Name> Names() {
    std::vector<Name> names = {
        {"conversions", "%n%s%n%s%99999d%"},
        {"line ends", "a\r\nb\nc\rd"},
        {"escapes", "\x1b[2J\x07\x08\x7f\x01"},
        {"eight bits", "\xff\xfe\x80 \xc3\xa9\xf0"},
        {"blanks", "   "},
        {"quotes", "\"'\\ \t"},
    };
    for (const size_t length : {0, 1, 19, 20, 21, 30, 31, 35, 36, 37, 39, 40, 41, 255, 256, 511, 512, 4096, 65536}) {
        names.push_back({"of some length", std::string(length, 'n')});
    }
    return names;
}

std::string Whole(const std::string& name) {
    return name;
}
template <size_t Most> std::string FirstOf(const std::string& name) {
    return name.substr(0, Most);
}
template <size_t Most> std::string LastOf(const std::string& name) {
    return name.size() > Most ? name.substr(name.size() - Most) : name;
}

/// Takes over a report's text.
std::string Taken(char* pszText) {
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

std::string TraceReport(unsigned int flags, unsigned int hTrace) {
    char* pszText = nullptr;
    tq_ShowTrace(&pszText, flags, std::to_string(hTrace).c_str());
    return Taken(pszText);
}

/// An object of the name, and what a report says of it.
std::string ThreadsOf(const std::string& name) {
    tq_SemEvent named(1, 0);
    std::string report;
    RecordingQueue queue(test::kRunning);
    queue.SetAction([&](const MSG_COMMON&) {
        tq_ThreadSetName(tq_GetThreadId(), name.c_str());
        char* pszText = nullptr;
        tq_ShowThreads(&pszText);
        report = Taken(pszText);
        named.Set();
    });
    queue.Post(MSG_USER);
    named.WaitForEvent(-1);
    queue.SetAction(nullptr);
    return report;
}

std::string TraceSummaryOf(const std::string& name) {
    const unsigned int hTrace = tq_TraceInitInstance(name.c_str());
    const std::string report = TraceReport(0, hTrace);
    EXPECT_EQ(hTrace, tq_TraceGetHandleFromName(name.c_str()));
    EXPECT_EQ(0, tq_TraceTermInstance(hTrace));
    return report;
}

std::string TraceDetailsOf(const std::string& name) {
    const unsigned int hTrace = tq_TraceInitInstance(name.c_str());
    const std::string report = TraceReport(1, hTrace);
    EXPECT_EQ(0, tq_TraceTermInstance(hTrace));
    return report;
}

std::string TraceCategoryOf(const std::string& name) {
    const unsigned int hTrace = tq_TraceInitInstance("categories");
    EXPECT_EQ(0, tq_TraceSetCategoryName(hTrace, 64, name.c_str()));
    EXPECT_EQ(64u, tq_TraceLookupCategory(hTrace, name.c_str()));
    const std::string report = TraceReport(1, hTrace);
    EXPECT_EQ(0, tq_TraceTermInstance(hTrace));
    return report;
}

std::string TraceLineOf(const std::string& name) {
    const unsigned int hTrace = tq_TraceInitInstance(name.c_str());
    EXPECT_EQ(0, tq_TraceEnableFile(hTrace, "line.txt", 0, 0));
    EXPECT_EQ(0, tq_TraceSetLevel(hTrace, 0));
    tq_Trace(hTrace, TQ_TRACE_LEVEL_CRITICAL, 1, true, "%s", "text\n");
    EXPECT_EQ(0, tq_TraceTermInstance(hTrace));
    return test::ReadFile("line.txt");
}

std::string QueueReport() {
    char* pszText = nullptr;
    tq_MsgQShowQueues(0, &pszText, 0, nullptr);
    return Taken(pszText);
}

std::string QueuesOf(const std::string& name) {
    RecordingQueue queue(test::kRunning, name.c_str());
    EXPECT_EQ(name.empty() ? 0 : queue.GetHandle(), tq_MsgQGetIdFromName(name.c_str()));
    EXPECT_EQ(name, Taken(tq_MsgQGetNameFromId(queue.GetHandle())));
    return QueueReport();
}

std::string QueueDescriptionsOf(const std::string& name) {
    RecordingQueue queue(test::kRunning);
    queue.SetDescription(name.c_str());
    return QueueReport();
}

std::string TimersOf(const std::string& name) {
    RecordingQueue queue(test::kRunning);
    EXPECT_EQ(0u, tq_TimerSet(queue.GetHandle(), 3600000, 1, 0, 0, TQ_TIMER_ONE_SHOT, name.c_str(), false));
    char* pszText = nullptr;
    tq_TimerShowTimers(&pszText);
    EXPECT_EQ(0u, tq_TimerKill(queue.GetHandle(), 1, 0, 0));
    return Taken(pszText);
}

std::string SocketReportOf(const std::string& name, unsigned int flags) {
    RecordingQueue queue(test::kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, htonl(INADDR_LOOPBACK), 0);
    tq_SocketSetName(hSocket, name.c_str());
    std::string command = std::to_string(hSocket);
    char* pszText = nullptr;
    EXPECT_EQ(0u, tq_SocketShowSockets(&pszText, flags, &command[0]));
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
    return Taken(pszText);
}

std::string SocketsOf(const std::string& name) {
    return SocketReportOf(name, 0);
}
std::string SocketDetailsOf(const std::string& name) {
    return SocketReportOf(name, 1);
}

/// Lines of blocks allocated in a file of the name, of a report that is written to a file.
std::string BlockReportOf(const std::string& name, bool bGrouped) {
    void* const pBlock = tq__malloc(5, name.c_str(), 4321);
    FILE* const hFile = fopen("blocks.txt", "w");
    tq_ShowMemoryPools(0, 1, false, hFile, 0, bGrouped, nullptr, nullptr, TQ_MEM_SORT_FORMATS::NAME, false, false, 0,
                       4321);
    EXPECT_EQ(0, fclose(hFile));
    tq_free(pBlock);
    return test::ReadFile("blocks.txt");
}

std::string BlocksOf(const std::string& name) {
    return BlockReportOf(name, false);
}
std::string GroupedBlocksOf(const std::string& name) {
    return BlockReportOf(name, true);
}

struct NamedKind {
    const char* pszKind;
    std::string (*pfnReport)(const std::string& name);
    std::string (*pfnShown)(const std::string& name); ///< what of the name
    const char* pszBefore;                            ///< right before it in the report
    const char* pszBehind;
};

constexpr NamedKind kNamedKinds[] = {
    {"thread", ThreadsOf, LastOf<40>, "  ", ""},
    {"trace instance", TraceSummaryOf, Whole, "  ", "\r\n"},
    {"trace instance, details", TraceDetailsOf, Whole, "  Name:                  ", "\r\n"},
    {"trace category", TraceCategoryOf, Whole, "     0x00000040 : ", "\r\n"},
    {"trace line", TraceLineOf, Whole, "]: (", ") CRT: text\n"},
    {"queue", QueuesOf, Whole, " ", " "},
    {"queue's description", QueueDescriptionsOf, Whole, " ", ""},
    {"timer", TimersOf, Whole, " ", ""},
    {"socket", SocketsOf, Whole, " ", ""},
    {"socket, details", SocketDetailsOf, Whole, " ", "\r\n"},
    {"block's source file", BlocksOf, LastOf<45>, " ", ":4321\n"},
    {"block's source file, grouped", GroupedBlocksOf, LastOf<45>, " ", "   4321"},
};

} // namespace

TEST(BadInput, NamesOfEveryLengthAndKindStandInTheReportsAsTheyAre) {
    Library library(
        "[Trace]\r\nDefaultLevel=None\r\n[Memory]\r\nEnableMemoryTracking=yes\r\nEnableMemoryPooling=yes\r\n"
        "Pool1BlockSize=256\r\n");
    for (const NamedKind& kind : kNamedKinds) {
        for (const Name& name : Names()) {
            SCOPED_TRACE(std::string(kind.pszKind) + ", " + name.pszWhat + ", " + std::to_string(name.text.size()));
            const std::string report = kind.pfnReport(name.text);
            const std::string shown = kind.pszBefore + kind.pfnShown(name.text) + kind.pszBehind;
            EXPECT_NE(std::string::npos, report.find(shown)) << report.substr(0, 2000);
        }
    }
}

TEST(BadInput, NamesOfListsOfEveryLengthAndKindAreSentToTheConsoleAsTheyAre) {
    Library library("[Trace]\r\nDefaultLevel=None\r\n");
    test::ConsoleSession session;
    for (const Name& name : Names()) {
        SCOPED_TRACE(std::string(name.pszWhat) + ", " + std::to_string(name.text.size()));
        tq_List list(name.text.c_str());
        for (const unsigned int sort : {0u, 1u, 2u, 3u, 4u}) {
            std::string report;
            for (const std::string& response : session.ResponsesTo([sort](unsigned int instance) {
                     tq_ListShowLists(instance, nullptr, 0, 0, nullptr, false, sort, false);
                 })) {
                report += response;
            }
            EXPECT_NE(std::string::npos, report.find("   0  " + name.text)) << sort << ": " << report.substr(0, 2000);
        }
    }
}

// Handles

namespace {

struct HandleRow {
    const char* pszCall;
    std::function<long long(unsigned int handle)> call;
    long long expected;
};

/// Text that a call may write into.
char* Room() {
    static char room[64];
    return room;
}

long long Sent(unsigned int handle) {
    MSG_COMMON* pMsg = test::NewMessage(MSG_USER);
    pMsg->hDest = handle;
    const bool bSent = tq_MsgSend(pMsg, false, TQ_MSG_PRIORITY_MEDIUM);
    if (!bSent) {
        tq_free(pMsg);
    }
    return bSent;
}

long long DetailsOf(unsigned int handle) {
    std::string command = std::to_string(handle);
    char* pszText = nullptr;
    const unsigned int result = tq_SocketShowSockets(&pszText, 1, &command[0]);
    tq_free(pszText);
    return result;
}

const unsigned char* SomeBytes() {
    return reinterpret_cast<const unsigned char*>("bytes");
}

const HandleRow kSocketRows[] = {
    {"tq_SocketSendTo", [](unsigned int h) { return tq_SocketSendTo(h, SomeBytes(), 5, 0, 0); }, 0},
    {"tq_SocketSendToNoTrace", [](unsigned int h) { return tq_SocketSendToNoTrace(h, SomeBytes(), 5, 0, 0); }, 0},
    {"tq_SocketRecv", [](unsigned int h) { return tq_SocketRecv(h, reinterpret_cast<unsigned char*>(Room()), 5); }, 0},
    {"tq_SocketDataAvailable", [](unsigned int h) { return tq_SocketDataAvailable(h); }, 0},
    {"tq_SocketClose", [](unsigned int h) { return tq_SocketClose(h); }, 1},
    {"tq_SocketFlushAndClose", [](unsigned int h) { return tq_SocketFlushAndClose(h, 3); }, 1},
    {"tq_SocketCloseFromTelnet", [](unsigned int h) { return tq_SocketCloseFromTelnet(h); }, 0},
    {"tq_SocketGetWritePercentageNotification",
     [](unsigned int h) { return tq_SocketGetWritePercentageNotification(h); }, 0},
    {"tq_SocketSetOpt",
     [](unsigned int h) {
         const int on = 1;
         return tq_SocketSetOpt(static_cast<int>(h), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
     },
     -1},
    {"tq_SocketGetOpt",
     [](unsigned int h) {
         int on = 0;
         int length = sizeof(on);
         return tq_SocketGetOpt(static_cast<int>(h), SOL_SOCKET, SO_KEEPALIVE, &on, &length);
     },
     -1},
    {"tq_SocketGetBoundPort", [](unsigned int h) { return tq_SocketGetBoundPort(h); }, 0},
    {"tq_SocketGetSrcAddress", [](unsigned int h) { return tq_SocketGetSrcAddress(h); }, 0},
    {"tq_SocketGetUserParm", [](unsigned int h) { return tq_SocketGetUserParm(static_cast<int>(h)); }, 0},
};

const HandleRow kTraceRows[] = {
    {"tq_TraceTermInstance", [](unsigned int h) { return tq_TraceTermInstance(h); }, 1},
    {"tq_TraceGetLevel", [](unsigned int h) { return tq_TraceGetLevel(h); }, 0},
    {"tq_TraceSetLevel", [](unsigned int h) { return tq_TraceSetLevel(h, 0); }, 1},
    {"tq_TraceGetCatMask", [](unsigned int h) { return tq_TraceGetCatMask(h); }, 0},
    {"tq_TraceSetCatMask", [](unsigned int h) { return tq_TraceSetCatMask(h, 0); }, 1},
    {"tq_TraceSetCategoryName", [](unsigned int h) { return tq_TraceSetCategoryName(h, 1, "name"); }, 1},
    {"tq_TraceLookupCategory", [](unsigned int h) { return tq_TraceLookupCategory(h, "Sockets"); }, 0},
    {"tq_TraceGetDestinations", [](unsigned int h) { return tq_TraceGetDestinations(h, 50000, 1); }, 0},
    {"tq_TraceEnableSTDOUT", [](unsigned int h) { return tq_TraceEnableSTDOUT(h); }, 1},
    {"tq_TraceDisableSTDERR", [](unsigned int h) { return tq_TraceDisableSTDERR(h); }, 1},
    {"tq_TraceEnableFile", [](unsigned int h) { return tq_TraceEnableFile(h, "none.log", 0, 0); }, 1},
    {"tq_TraceDisableFile", [](unsigned int h) { return tq_TraceDisableFile(h); }, 1},
    {"tq_TraceEnableMulticast", [](unsigned int h) { return tq_TraceEnableMulticast(h); }, 1},
    {"tq_TraceDisableMulticast", [](unsigned int h) { return tq_TraceDisableMulticast(h); }, 1},
    {"tq_TraceSuppressTimestamp", [](unsigned int h) { return tq_TraceSuppressTimestamp(h, true); }, 1},
};

const HandleRow kQueueRows[] = {
    {"tq_MsgSend", Sent, 0},
    {"tq_MsgCreateCommonAndSend",
     [](unsigned int h) { return tq_MsgCreateCommonAndSend(0, h, MSG_USER, 0, 0, 0, false, 2); }, 0},
    {"tq_MsgQGetNameFromId", [](unsigned int h) { return tq_MsgQGetNameFromId(h) != nullptr; }, 0},
    {"tq_TimerKill", [](unsigned int h) { return tq_TimerKill(h, 9, 9, 9); }, 1},
    {"tq_TimerTimeRemaining", [](unsigned int h) { return tq_TimerTimeRemaining(h, 9, 9, 9); }, 0},
    {"tq_TimerNextTimeout", [](unsigned int h) { return tq_TimerNextTimeout(h, 9, 9, 9); }, 4294967295LL},
};

/// Each row with each of the handles.
template <size_t Rows>
void ExpectResults(const HandleRow (&rows)[Rows], const std::vector<std::pair<const char*, unsigned int>>& handles) {
    for (const HandleRow& row : rows) {
        for (const auto& handle : handles) {
            EXPECT_EQ(row.expected, row.call(handle.second)) << row.pszCall << ": " << handle.first;
        }
    }
}

} // namespace

TEST(BadInput, HandlesOfNothingAndOfOtherKindsAreRefusedByEveryCall) {
    Library library("[Trace]\r\nDefaultLevel=None\r\n");
    RecordingQueue queue(test::kRunning);
    const unsigned int hSocket = tq_SocketOpenUDP(queue.GetHandle(), 0, 0, 0, htonl(INADDR_LOOPBACK), 0);
    const unsigned int hFreed = tq_HandleGet();
    tq_HandleRelease(hFreed);
    const std::vector<std::pair<const char*, unsigned int>> nothing = {
        {"0", 0}, {"1", 1}, {"freed", hFreed}, {"2^31", 0x80000000u}, {"2^32 - 1", 0xFFFFFFFFu}};
    auto notSockets = nothing;
    notSockets.push_back({"of a queue", queue.GetHandle()});
    notSockets.push_back({"of a trace instance", tqosTraceHandle});
    ExpectResults(kSocketRows, notSockets);
    EXPECT_EQ(1, DetailsOf(0));
    auto notInstances = nothing;
    notInstances.push_back({"of a queue", queue.GetHandle()});
    notInstances.push_back({"of a socket", hSocket});
    ExpectResults(kTraceRows, notInstances);
    auto notQueues = nothing;
    notQueues.push_back({"of a socket", hSocket});
    notQueues.push_back({"of a trace instance", tqosTraceHandle});
    ExpectResults(kQueueRows, notQueues);
    EXPECT_EQ(0u, tq_SocketClose(hSocket));
}

// Values

namespace {

struct ValueRow {
    const char* pszValue;
    const char* pszText; ///< tq_GetINIFileString(), with room for 511 characters; null: the default, "none"
    int length;
    int number; ///< tq_GetINIFileInt(), with the default 77
    bool bYes;  ///< tq_GetINIFileAffirmative()
};

constexpr ValueRow kValues[] = {
    {"", "", 1, 0, false},
    {"0", "0", 1, 0, false},
    {"-1", "-1", 2, -1, false},
    {"-2147483648", "-2147483648", 11, -2147483647 - 1, false},
    {"-2147483649", "-2147483649", 11, -2147483647 - 1, false},
    {"2147483647", "2147483647", 10, 2147483647, false},
    {"2147483648", "2147483648", 10, 2147483647, false},
    {"4294967295", "4294967295", 10, 2147483647, false},
    {"99999999999999999999", "99999999999999999999", 20, 2147483647, false},
    {"0x", "0x", 2, 0, false},
    {"0xffffffff", "0xffffffff", 10, -1, false},
    {"0x123456789a", "0x123456789a", 12, 0x23456789, false},
    {"0x1_0", "0x1_0", 5, 16, false},
    {"+5", "+5", 2, 5, false},
    {"12abc", "12abc", 5, 12, false},
    {"text", "text", 4, 0, false},
    {"yes", "yes", 3, 0, true},
    {"YES", "YES", 3, 0, true},
    {"1", "1", 1, 1, true},
    {"true \t", "true", 4, 0, true},
    {"yes yes yes yes", "yes yes yes yes", 15, 0, false},
    {"%n%s", "%n%s", 4, 0, false},
    {"\xff\x80", "\xff\x80", 2, 0, false},
    {"\x1b[2J", "\x1b[2J", 4, 0, false},
    {"=", "=", 1, 0, false},
    {"\"quoted\"", "\"quoted\"", 8, 0, false},
};

} // namespace

TEST(BadInput, ValuesOfEveryKindAreReadAsTheyStand) {
    ScratchDirectory directory;
    for (const ValueRow& row : kValues) {
        SCOPED_TRACE(row.pszValue);
        WriteFile("bad.ini", std::string("[S]\r\nKey=") + row.pszValue + "\r\n");
        char text[512];
        EXPECT_EQ(row.length, tq_GetINIFileString("S", "Key", "none", text, sizeof(text), "bad.ini"));
        EXPECT_STREQ(row.pszText, text);
        EXPECT_EQ(row.number, tq_GetINIFileInt("S", "Key", 77, "bad.ini"));
        EXPECT_EQ(row.bYes, tq_GetINIFileAffirmative("S", "Key", "yes", "bad.ini"));
    }
}

TEST(BadInput, ValuesAreCutToEverySizeOfBuffer) {
    ScratchDirectory directory;
    for (const size_t length : {1, 2, 11, 12, 255, 256, 505, 506}) {
        WriteFile("bad.ini", "[S]\nKey=" + std::string(length, 'v') + "\n");
        for (const unsigned int room : {1u, 2u, 11u, 12u, 13u, 255u, 256u, 257u, 511u, 512u}) {
            std::vector<char> text(room + 1, '#');
            const size_t most = std::min<size_t>({length, room - 1, 511 - strlen("Key=")});
            EXPECT_EQ(static_cast<int>(most), tq_GetINIFileString("S", "Key", "", text.data(), room, "bad.ini"))
                << length << " into " << room;
            EXPECT_EQ(std::string(most, 'v'), text.data()) << length << " into " << room;
            EXPECT_EQ('#', text[room]) << length << " into " << room;
        }
    }
}

// Files

namespace {

struct FileRow {
    const char* pszWhat;
    void (*pfnMake)(); ///< "bad.ini"
    int found;         ///< tq_GetINIFileString(): its length
    const char* pszText;
    int written; ///< tq_WriteINIFileString(): another value
};

void MakeDirectory() {
    EXPECT_EQ(0, mkdir("bad.ini", 0700));
}
void MakeFifo() {
    EXPECT_EQ(0, mkfifo("bad.ini", 0600));
}
void MakeLinkToNothing() {
    EXPECT_EQ(0, symlink("nowhere/at/all", "bad.ini"));
}
void MakeLinkToItself() {
    EXPECT_EQ(0, symlink("bad.ini", "bad.ini"));
}
void MakeDevice() {
    EXPECT_EQ(0, symlink("/dev/zero", "bad.ini"));
}
void MakeNulBytes() {
    WriteFile("bad.ini", std::string(100000, '\0') + "\n[S]\nKey=behind\n" + std::string(100000, '\0'));
}
void MakeNulBytesInTheLine() {
    WriteFile("bad.ini", "[S]\nKey=front" + std::string(1, '\0') + "behind\n");
}
void MakeLineOfAMillion() {
    WriteFile("bad.ini", std::string(1000000, 'x') + "\n[S]\nKey=behind\n");
}
void MakeValueOfAMillion() {
    WriteFile("bad.ini", "[S]\nKey=" + std::string(1000000, 'v') + "\n");
}
void MakeManyLines() {
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        text += "\n[";
    }
    WriteFile("bad.ini", text + "\n[S]\nKey=behind\n");
}
void MakeEmpty() {
    WriteFile("bad.ini", "");
}

const std::string kCut(507, 'v'); // what the first 511 characters of the line hold

const FileRow kFiles[] = {
    {"a directory", MakeDirectory, 4, "none", 0},
    {"a FIFO", MakeFifo, 4, "none", 0},
    {"a link to nothing", MakeLinkToNothing, 4, "none", 0},
    {"a link to itself", MakeLinkToItself, 4, "none", 0},
    {"a device", MakeDevice, 4, "none", 0},
    {"NUL bytes", MakeNulBytes, 6, "behind", 1},
    {"NUL bytes in the line", MakeNulBytesInTheLine, 5, "front", 1},
    {"a line of a million bytes", MakeLineOfAMillion, 6, "behind", 1},
    {"a value of a million bytes", MakeValueOfAMillion, 507, kCut.c_str(), 1},
    {"a hundred thousand headers", MakeManyLines, 6, "behind", 1},
    {"nothing", MakeEmpty, 4, "none", 1},
};

} // namespace

TEST(BadInput, FilesThatAreNoConfigurationAreReadAndWrittenAsFarAsTheyGo) {
    for (const FileRow& row : kFiles) {
        SCOPED_TRACE(row.pszWhat);
        ScratchDirectory directory;
        row.pfnMake();
        char text[600];
        EXPECT_EQ(row.found, tq_GetINIFileString("S", "Key", "none", text, sizeof(text), "bad.ini"));
        EXPECT_STREQ(row.pszText, text);
        EXPECT_EQ(row.written, tq_WriteINIFileString("S", "Key", "changed", "bad.ini"));
        if (row.written == 1) {
            EXPECT_EQ(7, tq_GetINIFileString("S", "Key", "none", text, sizeof(text), "bad.ini"));
            EXPECT_STREQ("changed", text);
        }
    }
}

TEST(BadInput, TheLibraryStartsWithAnyFileForAConfiguration) {
    for (const FileRow& row : kFiles) {
        SCOPED_TRACE(row.pszWhat);
        ScratchDirectory directory;
        if (row.pfnMake == MakeValueOfAMillion) {
            continue; // every key is looked for from the file's start, byte by byte: one line as long is enough
        }
        row.pfnMake();
        EXPECT_EQ(0, rename("bad.ini", "tqos.ini"));
        EXPECT_EQ(0u, tqOS_Initialize());
        EXPECT_NE(0u, tqosTraceHandle.load());
        tqOS_Terminate(false, true);
    }
}

TEST(BadInput, AFileThatMayNotBeReadIsNeitherReadNorReplaced) {
    ScratchDirectory directory;
    WriteFile("bad.ini", "[S]\nKey=secret\n");
    EXPECT_EQ(0, chmod("bad.ini", 0));
    EXPECT_EQ(0, chmod(".", 0755));
    const test::ChildResult result = test::RunInChild([] {
        if (geteuid() == 0 && seteuid(65534) != 0) { // nothing is kept from root
            _exit(90);
        }
        char text[16];
        if (tq_GetINIFileString("S", "Key", "none", text, sizeof(text), "bad.ini") != 4 || strcmp(text, "none") != 0) {
            _exit(91);
        }
        if (tq_WriteINIFileString("S", "Key", "changed", "bad.ini") != 0) {
            _exit(92);
        }
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.code);
    EXPECT_EQ(0, chmod("bad.ini", 0600));
    EXPECT_EQ("[S]\nKey=secret\n", test::ReadFile("bad.ini"));
}

// Keys

namespace {

struct KeyRow {
    const char* pszSection;
    const char* pszKey;
    const char* pszWith = ""; ///< the keys without which it is not read
    bool (*pfnStarts)(unsigned int value) = [](unsigned int) { return true; };
};

/// A pool that there is not enough memory for stops the library's start.
bool WithRoomForThePool(unsigned int value) {
    return value < 0x40000000;
}
/// So does one that has no slot and never gets one.
bool WithSlotsInThePool(unsigned int value) {
    return value != 0 && WithRoomForThePool(value);
}

constexpr char kTracked[] = "EnableMemoryTracking=yes\r\n";
constexpr char kHistogram[] = "EnableMemoryTracking=yes\r\nEnableHistogram=yes\r\n";
constexpr char kPooled[] = "EnableMemoryPooling=yes\r\n";
constexpr char kPool[] = "EnableMemoryPooling=yes\r\nPool1BlockSize=64\r\n";

constexpr KeyRow kKeys[] = {
    {"ErrorLog", "Filename"},
    {"ErrorLog", "AssertOnCriticalError"},
    {"Handles", "MaxHandle"},
    {"Handles", "InitialCount"},
    {"Handles", "GrowthCount"},
    {"Handles", "Threshold"},
    {"Memory", "EnableMemoryTracking"},
    {"Memory", "EnableMemoryPooling"},
    {"Memory", "DirtyMemoryAlloc", kTracked},
    {"Memory", "DirtyMemoryFree", kTracked},
    {"Memory", "MemoryAlignment"},
    {"Memory", "MemoryAlignmentCheck", "MemoryAlignment=8\r\n"},
    {"Memory", "MemoryCapInBytes", kTracked},
    {"Memory", "EnableHistogram", kTracked},
    {"Memory", "HistogramMaxSize", kHistogram},
    {"Memory", "DoNotGrowPools", kPooled},
    {"Memory", "Pool1BlockSize", kPooled, WithRoomForThePool},
    {"Memory", "Pool1StartCount", kPool, WithRoomForThePool},
    {"Memory", "Pool1Increment", kPool, WithSlotsInThePool},
    {"MsgQ", "DefaultHistory"},
    {"MsgQ", "DefaultStackSize"},
    {"Sem", "Tracking"},
    {"Sem", "UseMutexForCritSec"},
    {"Sem", "ForceSchedYield"},
    {"SignalHandler", "Disable"},
    {"Telnet", "MaxSessions"},
    {"Telnet", "LoginSeconds"},
    {"Telnet", "BackOffSeconds"},
    {"Thread", "DefaultStackSize"},
    {"Trace", "AllowedViewers"},
    {"Trace", "DefaultCat"},
    {"Trace", "DefaultLevel"},
    {"Trace", "DefaultLogToDevStudio"},
    {"Trace", "DefaultLogToFilePrefix"},
    {"Trace", "DefaultLogToMultiCast"},
    {"Trace", "DefaultLogToSTDERR"},
    {"Trace", "DefaultLogToSTDOUT"},
    {"Trace", "DefaultMaxBytesPerFile", "DefaultLogToFilePrefix=prefix_\r\n"},
    {"Trace", "DefaultMaxFiles", "DefaultLogToFilePrefix=prefix_\r\n"},
    {"Trace", "DefaultShowThreadID"},
    {"Trace", "DefaultSuppressTimestamp"},
    {"Trace", "MaxViewers"},
    {"Trace", "ShowDeltaTime"},
    {"Trace", "tqos_Cat", "tqos_Level=Low\r\n"},
    {"Trace", "tqos_Level"},
    {"Trace", "tqos_LogToDevStudio", "tqos_Level=Low\r\n"},
    {"Trace", "tqos_LogToFile", "tqos_Level=Low\r\n"},
    {"Trace", "tqos_LogToMulticast", "tqos_Level=Low\r\n"},
    {"Trace", "tqos_LogToSTDERR", "tqos_Level=None\r\n"},
    {"Trace", "tqos_LogToSTDOUT", "tqos_Level=None\r\n"},
    {"Trace", "tqos_MaxBytesPerFile", "tqos_Level=Low\r\ntqos_LogToFile=name.txt\r\n"},
    {"Trace", "tqos_MaxFiles", "tqos_Level=Low\r\ntqos_LogToFile=name.txt\r\n"},
    {"Trace", "tqos_ShowThreadID", "tqos_Level=Low\r\n"},
    {"Trace", "tqos_SuppressTimestamp", "tqos_Level=Low\r\n"},
};

} // namespace

// With each value the library starts, a queue gets its message, and it ends. Where no handle is allowed no queue can be
// sent to.
TEST(BadInput, EveryKeyTakesEveryValue) {
    const std::vector<std::string> values = {"",           "-1",   "0",    "2147483648", "-2147483649",
                                             "0xffffffff", "text", "%n%s", "\x1b[2J",    std::string(1000, 'v')};
    for (const KeyRow& row : kKeys) {
        for (const std::string& value : values) {
            SCOPED_TRACE(std::string(row.pszKey) + "=" + value);
            ScratchDirectory directory;
            WriteFile("tqos.ini",
                      std::string("[") + row.pszSection + "]\r\n" + row.pszWith + row.pszKey + "=" + value + "\r\n");
            const bool bHandles = tq_GetINIFileInt("Handles", "MaxHandle", 1, "tqos.ini") != 0;
            const int number = tq_GetINIFileInt(row.pszSection, row.pszKey, 0, "tqos.ini");
            if (!row.pfnStarts(static_cast<unsigned int>(number))) {
                const unsigned int result = tqOS_Initialize();
                EXPECT_TRUE(result != 0 || sizeof(void*) > 4) << "64 bits may have room for a slot of 2 GB";
                tqOS_Terminate(false, true);
                continue;
            }
            EXPECT_EQ(0u, tqOS_Initialize());
            {
                const bool bConsole = strcmp(row.pszSection, "Telnet") == 0;
                EXPECT_EQ(bConsole, bConsole && tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr) != 0);
                RecordingQueue queue(test::kRunning);
                EXPECT_EQ(bHandles, queue.Post(MSG_USER));
                if (bConsole) {
                    tq_TelnetTerminate();
                }
            }
            tqOS_Terminate(false, true);
        }
    }
}
