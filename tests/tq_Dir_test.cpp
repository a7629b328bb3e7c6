#include "tq_Dir_p.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <set>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_IniKeys_p.h"
#include "tq_Memory.h"
#include "tqos.h"

namespace {

using test::FileExists;
using test::ReadFile;
using test::RunInChild;
using test::ScratchDirectory;
using test::WriteFile;

const char kIni[] = "a.ini";

/// What happens before the library opens a configuration file; the files it opens are counted from 1.
std::function<void(int)> gBeforeOpening;
int gOpenings = 0;

/// A value as tq_GetINIFileString() gives it without a default: "3:abc" is its result and the text.
std::string Value(const char* pszSection, const char* pszKey, unsigned int bytes = 512) {
    std::vector<char> buffer(std::max(bytes, 1u), 'x');
    const int length = tq_GetINIFileString(pszSection, pszKey, nullptr, buffer.data(), bytes, kIni);
    return std::to_string(length) + ":" + (length ? buffer.data() : "");
}

/// The same with a default.
std::string ValueOr(const char* pszSection, const char* pszKey, const char* pszDefault, unsigned int bytes = 512) {
    std::vector<char> buffer(bytes, 'x');
    const int length = tq_GetINIFileString(pszSection, pszKey, pszDefault, buffer.data(), bytes, kIni);
    return std::to_string(length) + ":" + buffer.data();
}

/// What a key reads as when the file gives it this text.
int IntOf(const std::string& text, int iDefault = 77) {
    WriteFile(kIni, "[S]\nk=" + text + "\n");
    return tq_GetINIFileInt("S", "k", iDefault, kIni);
}

bool AffirmativeOf(const std::string& text, const char* pszDefault = "n") {
    WriteFile(kIni, "[S]\nk=" + text + "\n");
    return tq_GetINIFileAffirmative("S", "k", pszDefault, kIni);
}

/// The file after a key was written to it; the result is appended when it is not 1.
std::string Written(const std::string& before, const char* pszSection, const char* pszKey, const char* pszValue) {
    WriteFile(kIni, before);
    const int result = tq_WriteINIFileString(pszSection, pszKey, pszValue, kIni);
    return ReadFile(kIni) + (result == 1 ? "" : "(result " + std::to_string(result) + ")");
}

/// The names in a directory.
std::set<std::string> NamesIn(const std::string& pattern) {
    std::set<std::string> names;
    TQ_FINDFILE_STRUCT entry;
    void* hSearch = tq_FindFirstFile(pattern.c_str(), &entry);
    if (hSearch != reinterpret_cast<void*>(-1)) {
        do {
            names.insert(entry.pFilename);
        } while (tq_FindNextFile(hSearch, &entry));
    }
    EXPECT_EQ(1, tq_FindClose(hSearch));
    return names;
}

using Names = std::set<std::string>;

struct OpenFile {
    FILE* hFile;
    OpenFile(const char* pszName, const char* pszMode) : hFile(fopen(pszName, pszMode)) {}
    ~OpenFile() {
        if (hFile) {
            fclose(hFile);
        }
    }
};

std::string WorkingDirectory() {
    char path[4096];
    return tq_GetWorkingDirectory(path, sizeof(path)) ? path : "";
}

/// A hook for the library's opening of files, for a scope.
struct BeforeOpening {
    explicit BeforeOpening(std::function<void(int)> hook) {
        gOpenings = 0;
        gBeforeOpening = std::move(hook);
    }
    ~BeforeOpening() { gBeforeOpening = nullptr; }
};

} // namespace

/// In place of the C library's, for the whole program: another process may change files between two steps of a call.
extern "C" int open64(const char* pszPath, int flags, ...) {
    if (gBeforeOpening) {
        gBeforeOpening(++gOpenings);
    }
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, pszPath, flags | O_LARGEFILE, mode));
}

// ---- Lines

TEST(IniLine, IsReadUpToItsLineFeedAndNoFurtherThanTheBuffer) {
    ScratchDirectory directory;
    WriteFile("f", "ab\r\n\ncdefg\nh");
    OpenFile file("f", "rb");
    char buffer[8];
    std::string lines;
    while (tq_fgets(buffer, 5, file.hFile)) {
        lines += std::string("<") + buffer + ">";
    }
    EXPECT_EQ("<ab\r\n><\n><cdef><g\n><h>", lines);
    EXPECT_EQ(nullptr, tq_fgets(buffer, 5, file.hFile));
}

TEST(IniLine, IsNotReadWithoutABufferOfTwoBytesOrAFile) {
    ScratchDirectory directory;
    WriteFile("f", "ab");
    OpenFile file("f", "rb");
    char buffer[8] = "";
    EXPECT_EQ(nullptr, tq_fgets(buffer, 1, file.hFile));
    EXPECT_EQ(nullptr, tq_fgets(buffer, 0, file.hFile));
    EXPECT_EQ(nullptr, tq_fgets(buffer, -5, file.hFile));
    EXPECT_EQ(nullptr, tq_fgets(nullptr, 8, file.hFile));
    EXPECT_EQ(nullptr, tq_fgets(buffer, 8, nullptr));
    EXPECT_EQ(buffer, tq_fgets(buffer, 2, file.hFile));
    EXPECT_STREQ("a", buffer);
}

// ---- Sections

TEST(IniSection, IsFoundByItsNameAlone) {
    ScratchDirectory directory;
    struct Row {
        const char* pszHeader;
        bool bFound;
    };
    const Row rows[] = {
        {"[Memory]", true},   {"[memory]", true},   {" \t [MEMORY]", true}, {"[Memory] ; and more", true},
        {"[Memory]]", true},  {"[Memory]\r", true}, {"[ Memory ]", false},  {"[Memory ]", false},
        {"[ Memory]", false}, {"[Mem]", false},     {"[MemoryX]", false},   {"Memory", false},
        {"x[Memory]", false}, {"[Memory", false},   {"[[Memory]", false},   {"", false},
    };
    for (const Row& row : rows) {
        WriteFile(kIni, std::string(row.pszHeader) + "\nk=v\n");
        EXPECT_EQ(row.bFound ? "1:v" : "0:", Value("Memory", "k")) << row.pszHeader;
    }
}

TEST(IniSection, OfANameThatComesTwiceIsTheFirst) {
    ScratchDirectory directory;
    WriteFile(kIni, "[A]\na=1\n[B]\nb=1\n[A]\na=2\nc=3\n");
    EXPECT_EQ("1:1", Value("A", "a"));
    EXPECT_EQ("0:", Value("A", "c"));
    EXPECT_EQ("1:1", Value("B", "b"));
    EXPECT_EQ("0:", Value("C", "a"));
}

TEST(IniSection, LookUpCopiesEveryLineItReads) {
    ScratchDirectory directory;
    WriteFile("in", "a=1\r\n[A]\n b\n[B] x\nc=1\n");
    {
        OpenFile in("in", "rb");
        OpenFile out("out", "wb");
        EXPECT_TRUE(FindSection(in.hFile, "b", out.hFile));
        char line[16];
        EXPECT_STREQ("c=1\n", tq_fgets(line, sizeof(line), in.hFile));
        EXPECT_FALSE(FindSection(in.hFile, "b", out.hFile));
    }
    EXPECT_EQ("a=1\r\n[A]\n b\n[B] x\n", ReadFile("out"));
}

TEST(IniSection, IsNotFoundWithoutAFileOrAName) {
    ScratchDirectory directory;
    WriteFile("in", "[A]\n");
    OpenFile in("in", "rb");
    EXPECT_FALSE(FindSection(nullptr, "A", nullptr));
    EXPECT_FALSE(FindSection(in.hFile, nullptr, nullptr));
    EXPECT_TRUE(FindSection(in.hFile, "A", nullptr)) << "nothing was read before";
}

// ---- Values

TEST(IniValue, RunsToTheEndOfTheLineWithoutTheBlanksAround) {
    ScratchDirectory directory;
    struct Row {
        const char* pszLine;
        const char* pszValue;
    };
    const Row rows[] = {
        {"Key=value", "5:value"},
        {"  Key  =  value  \r", "5:value"},
        {"\tkEY\t=\tvalue\t", "5:value"},
        {"Key=a b = c", "7:a b = c"},
        {"Key=\"quoted\"", "8:\"quoted\""},
        {"Key=v ; no comment", "14:v ; no comment"},
        {"Key=", "1:"},
        {"Key=  \t \r", "1:"},
        {"Key", "0:"},
        {"Key x=1", "0:"},
        {"Keyx=1", "0:"},
        {";Key=1", "0:"},
        {"xKey=1", "0:"},
    };
    for (const Row& row : rows) {
        WriteFile(kIni, std::string("[S]\n") + row.pszLine + "\n");
        EXPECT_EQ(row.pszValue, Value("S", "Key")) << row.pszLine;
        WriteFile(kIni, std::string("[S]\r\n") + row.pszLine);
        EXPECT_EQ(row.pszValue, Value("S", "Key")) << row.pszLine << " at the end of the file";
    }
}

TEST(IniValue, OfALongerKeyIsNotThatOfAShorterOne) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nPool10=5\nPool1=6\n");
    EXPECT_EQ("1:6", Value("S", "Pool1"));
    EXPECT_EQ("1:5", Value("S", "Pool10"));
}

TEST(IniValue, OfAKeyThatComesTwiceIsTheFirst) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=1\nk=2\n");
    EXPECT_EQ("1:1", Value("S", "k"));
}

TEST(IniValue, IsNotLookedForBeyondTheNextHeader) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\na=1\n [ not a name\nk=2\n[T]\nk=3\n");
    EXPECT_EQ("0:", Value("S", "k"));
    EXPECT_EQ("1:3", Value("T", "k"));
}

TEST(IniValue, BeforeTheFirstHeaderIsNeverFound) {
    ScratchDirectory directory;
    WriteFile(kIni, "k=1\n[S]\na=1\n");
    EXPECT_EQ("0:", Value("S", "k"));
    EXPECT_EQ("0:", Value("", "k"));
}

TEST(IniValue, OfAKeyThatLooksLikeACommentIsFoundByThatName) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\n;k=1\n#k=2\n");
    EXPECT_EQ("1:1", Value("S", ";k"));
    EXPECT_EQ("1:2", Value("S", "#k"));
    EXPECT_EQ("0:", Value("S", "k"));
}

TEST(IniValue, IsCutToTheBuffer) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=abc\n");
    EXPECT_EQ("3:abc", Value("S", "k", 5));
    EXPECT_EQ("3:abc", Value("S", "k", 4));
    EXPECT_EQ("2:ab", Value("S", "k", 3));
    EXPECT_EQ("1:a", Value("S", "k", 2));
    EXPECT_EQ("0:", Value("S", "k", 1));
    EXPECT_EQ("0:", Value("S", "k", 0));
}

TEST(IniValue, ThatIsEmptyCountsAsPresentWithTheLengthOne) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=\n");
    char buffer[4] = {'x', 'x', 'x', '\0'};
    EXPECT_EQ(1, tq_GetINIFileString("S", "k", "default", buffer, 2, kIni));
    EXPECT_EQ(0, memcmp(buffer, "\0\0x", 4));
    EXPECT_EQ(0, tq_GetINIFileInt("S", "k", 5, kIni));
    EXPECT_FALSE(tq_GetINIFileAffirmative("S", "k", "yes", kIni));
    char one[1] = {'x'};
    EXPECT_EQ(0, FindSectionKey(kIni, "S", "k", one, 1)) << "one byte has no room for the two zeros";
    EXPECT_EQ('\0', one[0]);
    EXPECT_EQ(0, FindSectionKey(kIni, "S", "k", nullptr, 0));
}

TEST(IniValue, IsMeasuredWithoutABuffer) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk= abc \n");
    EXPECT_EQ(3, FindSectionKey(kIni, "S", "k", nullptr, 0));
    EXPECT_EQ(3, tq_GetINIFileString("S", "k", "default", nullptr, 0, kIni));
    EXPECT_EQ(7, tq_GetINIFileString("S", "x", "default", nullptr, 0, kIni));
}

TEST(IniValue, FillsALineToItsLastByte) {
    ScratchDirectory directory;
    for (size_t length : {508u, 509u, 510u, 511u}) { // with "k=" 510 to 513 characters, then the line feed
        const std::string text(length, 'v');
        WriteFile(kIni, "[S]\nk=" + text + "\nnext=1\n");
        EXPECT_EQ(std::to_string(std::min<size_t>(length, 509)) + ":" + text.substr(0, 509), Value("S", "k", 600));
        EXPECT_EQ("1:1", Value("S", "next"));
    }
}

TEST(IniValue, IsFoundUnderNamesThatFillALine) {
    ScratchDirectory directory;
    const std::string section(509, 's');
    const std::string key(509, 'k');
    WriteFile(kIni, "[" + section + "]\n" + key + "=v\n");
    EXPECT_EQ("1:v", Value(section.c_str(), key.c_str()));
    EXPECT_EQ("0:", Value((section + "s").c_str(), key.c_str()));
    EXPECT_EQ("0:", Value(section.c_str(), (key + "k").c_str()));
    EXPECT_EQ("0:", Value(section.c_str(), std::string(2000, 'k').c_str()));
    char names[512];
    EXPECT_EQ(511, FindSectionKey(kIni, section.c_str(), nullptr, names, sizeof(names)));
    EXPECT_EQ(key, names);
    EXPECT_EQ(511, FindSectionKey(kIni, section.c_str(), nullptr, names, 511)) << "they fit exactly";
    EXPECT_EQ(0, FindSectionKey(kIni, section.c_str(), nullptr, names, 510));
}

TEST(IniValue, InALongLineIsReadByPiecesEachALineOfItsOwn) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=" + std::string(509, 'v') + "hidden=2\n");
    EXPECT_EQ("1:2", Value("S", "hidden"));
    WriteFile(kIni, std::string(511, 'x') + "[T]\nk=3\n");
    EXPECT_EQ("1:3", Value("T", "k"));
}

TEST(IniValue, FallsBackToItsDefault) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=abc\n");
    EXPECT_EQ("3:abc", ValueOr("S", "k", "default"));
    EXPECT_EQ("7:default", ValueOr("S", "x", "default"));
    EXPECT_EQ("7:default", ValueOr("T", "k", "default"));
    EXPECT_EQ("7:default", ValueOr(nullptr, "k", "default"));
    EXPECT_EQ("7:default", ValueOr("S", "x", "default", 8));
    EXPECT_EQ("6:defaul", ValueOr("S", "x", "default", 7));
    EXPECT_EQ("0:", ValueOr("S", "x", "default", 1));
    EXPECT_EQ("0:", ValueOr("S", "x", ""));
    char untouched[2] = {'x', '\0'};
    EXPECT_EQ(0, tq_GetINIFileString("S", "x", "default", untouched, 0, kIni));
    EXPECT_STREQ("x", untouched);
    char own[8] = "default";
    EXPECT_EQ(7, tq_GetINIFileString("S", "x", own, own, 8, kIni));
    EXPECT_STREQ("default", own);
    EXPECT_EQ(4, tq_GetINIFileString("S", "x", own, own, 5, kIni));
    EXPECT_STREQ("defa", own);
}

TEST(IniValue, IsNotFoundWithoutANameOrAFile) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=abc\n");
    char buffer[8];
    EXPECT_EQ(0, FindSectionKey(nullptr, "S", "k", buffer, 8));
    EXPECT_EQ(0, FindSectionKey(kIni, nullptr, "k", buffer, 8));
    EXPECT_EQ(0, FindSectionKey("missing.ini", "S", "k", buffer, 8));
    EXPECT_EQ(0, FindSectionKey(kIni, "T", "k", buffer, 8));
    EXPECT_EQ(0, FindKey(nullptr, "k", buffer, 8, nullptr));
    EXPECT_EQ(7, tq_GetINIFileString("S", "k", "default", buffer, 8, nullptr));
}

TEST(IniValue, IsNotReadFromAFifoADeviceOrADirectory) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkfifo("fifo", 0666));
    ASSERT_EQ(0, mkdir("directory", 0777));
    ASSERT_EQ(0, symlink("/dev/zero", "device"));
    for (const char* pszName : {"fifo", "directory", "device", "/dev/null"}) {
        EXPECT_EQ(5, tq_GetINIFileInt("S", "k", 5, pszName)) << pszName; // a FIFO that is opened would hang here
        EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "v", pszName)) << pszName;
    }
    WriteFile("real.ini", "[S]\nk=6\n");
    ASSERT_EQ(0, symlink("real.ini", "link.ini"));
    EXPECT_EQ(6, tq_GetINIFileInt("S", "k", 5, "link.ini"));
}

// ---- Lists of keys

TEST(IniKeys, AreListedWithAZeroByteEachAndOneMore) {
    ScratchDirectory directory;
    WriteFile(kIni, "x=0\n[S]\r\n  first  = 1\r\nno key\n;c=2\n\tlast\t=\n[T]\nother=1\n");
    const std::string expected("first\0;c\0last\0\0", 15);
    char buffer[64];
    EXPECT_EQ(15, FindSectionKey(kIni, "S", nullptr, nullptr, 0));
    EXPECT_EQ(15, FindSectionKey(kIni, "S", nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(expected, std::string(buffer, 15));
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(15, tq_GetINIFileString("S", nullptr, "default", buffer, 15, kIni)) << "they fit exactly";
    EXPECT_EQ(expected + "x", std::string(buffer, 16));
}

TEST(IniKeys, ThatDoNotFitAreLeftOut) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nfirst=1\nb=2\nlast=3\nc=4\n");
    char buffer[64];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(11, FindSectionKey(kIni, "S", nullptr, buffer, 11));
    EXPECT_EQ(std::string("first\0b\0c\0\0x", 12), std::string(buffer, 12));
    EXPECT_EQ(0, FindSectionKey(kIni, "S", nullptr, buffer, 2));
    EXPECT_EQ(3, FindSectionKey(kIni, "S", nullptr, buffer, 3));
    EXPECT_EQ(std::string("b\0\0", 3), std::string(buffer, 3));
}

TEST(IniKeys, OfASectionWithoutAnyAreNone) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nno key\n[T]\na=1\n[U]\n");
    char buffer[8] = "xxx";
    EXPECT_EQ(0, FindSectionKey(kIni, "S", nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(0, FindSectionKey(kIni, "U", nullptr, buffer, sizeof(buffer)));
    EXPECT_STREQ("xxx", buffer);
    EXPECT_EQ(0, tq_GetINIFileString("U", nullptr, "default", buffer, sizeof(buffer), kIni));
}

TEST(IniKeys, WithoutANameCountToo) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\n=1\na=2\n");
    char buffer[8];
    EXPECT_EQ(4, FindSectionKey(kIni, "S", nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(std::string("\0a\0\0", 4), std::string(buffer, 4));
}

// ---- Numbers and switches

TEST(IniNumber, IsDecimalOrHexadecimal) {
    ScratchDirectory directory;
    struct Row {
        const char* pszText;
        int value;
    };
    const Row rows[] = {
        {"12", 12},
        {"-12", -12},
        {"+7", 7},
        {"012", 12},
        {"12abc", 12},
        {"text", 0},
        {"", 0},
        {"0x100", 256},
        {"0X1f", 31},
        {"0xAbC", 2748},
        {"0x", 0},
        {"0x1_0", 16},
        {"0xg1h2", 18},
        {"0xffffffff", -1},
        {"0x123456789", 0x23456789},
        {"-0x10", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"-2147483649", -2147483647 - 1},
        {"99999999999", 2147483647},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.value, IntOf(row.pszText)) << row.pszText;
    }
}

TEST(IniNumber, PassesOverWhatIsNoHexadecimalDigit) {
    ScratchDirectory directory;
    EXPECT_EQ(16, IntOf("0x1_0"));
    EXPECT_EQ(0x12, IntOf("0x 1 . 2"));
}

TEST(IniNumber, IsReadWithBlanksAroundItAndACarriageReturn) {
    ScratchDirectory directory;
    WriteFile(kIni, "[Memory]\r\n  dirtymemoryalloc  =  0x100  \r\n");
    EXPECT_EQ(256, tq_GetINIFileInt("Memory", "DirtyMemoryAlloc", 1, kIni));
}

TEST(IniNumber, IsReadFromItsFirst11Characters) {
    ScratchDirectory directory;
    EXPECT_EQ(12345, IntOf("00000012345"));
    EXPECT_EQ(12345, IntOf("000000123456"));
    EXPECT_EQ(0x12345678, IntOf("0x012345678"));
    EXPECT_EQ(0x12345678, IntOf("0x0123456789"));
}

TEST(IniNumber, IsTheDefaultWhenItIsNotThere) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=1\n");
    EXPECT_EQ(-9, tq_GetINIFileInt("S", "x", -9, kIni));
    EXPECT_EQ(-9, tq_GetINIFileInt("T", "k", -9, kIni));
    EXPECT_EQ(-9, tq_GetINIFileInt("S", "k", -9, "missing.ini"));
    EXPECT_EQ(-9, tq_GetINIFileInt(nullptr, "k", -9, kIni));
    EXPECT_EQ(-9, tq_GetINIFileInt("S", nullptr, -9, kIni));
    EXPECT_EQ(-9, tq_GetINIFileInt("S", "k", -9, nullptr));
    EXPECT_EQ(0, tq_GetINIFileInt("S", nullptr, 0, kIni));
}

TEST(IniSwitch, IsOnForFourWords) {
    ScratchDirectory directory;
    for (const char* pszText : {"yes", "y", "true", "1", "YES", "Y", "TRUE", "tRuE"}) {
        EXPECT_TRUE(AffirmativeOf(pszText)) << pszText;
    }
    for (const char* pszText : {"on", "2", "no", "n", "false", "0", "", "yes!", "ye", "01", "y e s"}) {
        EXPECT_FALSE(AffirmativeOf(pszText, "yes")) << pszText;
    }
}

TEST(IniSwitch, IsJudgedByItsFirst11Characters) {
    ScratchDirectory directory;
    EXPECT_FALSE(AffirmativeOf("yes         x")) << "cut to the word and eight blanks, which are then part of it";
    EXPECT_FALSE(AffirmativeOf("truetruetruetrue"));
}

TEST(IniSwitch, IsItsDefaultWhenItIsNotThereJudgedInTheSameWay) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=1\n");
    EXPECT_TRUE(tq_GetINIFileAffirmative("S", "x", "Yes", kIni));
    EXPECT_TRUE(tq_GetINIFileAffirmative("S", "x", "1", kIni));
    EXPECT_FALSE(tq_GetINIFileAffirmative("S", "x", "n", kIni));
    EXPECT_FALSE(tq_GetINIFileAffirmative("S", "x", "on", kIni));
    EXPECT_FALSE(tq_GetINIFileAffirmative("S", "x", nullptr, kIni));
    EXPECT_TRUE(tq_GetINIFileAffirmative("S", "k", nullptr, kIni));
    EXPECT_TRUE(tq_GetINIFileAffirmative(nullptr, "k", "y", kIni));
    EXPECT_TRUE(tq_GetINIFileAffirmative("S", "k", "y", nullptr));
}

TEST(IniTable, ReadsEachRowFromTheLibrarysFile) {
    ScratchDirectory directory;
    WriteFile("tqos.ini", "[Rows]\nA=0x10\nC=-1\nOn=yes\nOff=no\n");
    ASSERT_EQ(0u, tq_BaseInitialize());
    unsigned int a = 7;
    unsigned int b = 7;
    unsigned int c = 7;
    const tq_IniInteger integers[] = {{"A", 1, &a}, {"B", 2, &b}, {"C", 3, &c}};
    tq_ReadIniTable("Rows", integers);
    EXPECT_EQ(16u, a);
    EXPECT_EQ(2u, b);
    EXPECT_EQ(4294967295u, c);
    bool bOn = false;
    bool bOff = true;
    bool bMissing = false;
    bool bMissingToo = true;
    const tq_IniSwitch switches[] = {
        {"On", false, &bOn}, {"Off", true, &bOff}, {"Missing", true, &bMissing}, {"MissingToo", false, &bMissingToo}};
    tq_ReadIniTable("Rows", switches);
    EXPECT_TRUE(bOn);
    EXPECT_FALSE(bOff);
    EXPECT_TRUE(bMissing);
    EXPECT_FALSE(bMissingToo);
}

// ---- Writing

TEST(IniWrite, ReplacesTheKeysLineAndNothingElse) {
    ScratchDirectory directory;
    EXPECT_EQ("; top\n[R]\nk=0\n[S]\r\na=1\n  K=new\r\nb = 2\nk=3\n\n[T]\nk=4", //
              Written("; top\n[R]\nk=0\n[S]\r\na=1\n k  = old\nb = 2\nk=3\n\n[T]\nk=4", "s", "K", "new"));
    EXPECT_EQ(Names({kIni}), NamesIn("*[!.]*")) << "no temporary file stays";
}

TEST(IniWrite, OfTheLastKeyEndsItsLine) {
    ScratchDirectory directory;
    EXPECT_EQ("[S]\n  k=new\r\n", Written("[S]\nk=old", "S", "k", "new"));
    EXPECT_EQ("[S]\n  k=\r\n", Written("[S]\nk=old\n", "S", "k", ""));
    EXPECT_EQ("[S]\n  k=v\r\n", Written("[S]\nk=\n", "S", "k", "v"));
}

TEST(IniWrite, PutsANewKeyAtTheEndOfItsSection) {
    ScratchDirectory directory;
    EXPECT_EQ("[S]\na=1\n\n  k=new\r\n\r\n [T] x\nk=4\n[S]\nk=5\n",
              Written("[S]\na=1\n\n [T] x\nk=4\n[S]\nk=5\n", "S", "k", "new"));
    EXPECT_EQ("[S]\n  k=new\r\n\r\n[T]", Written("[S]\n[T]", "S", "k", "new"));
}

TEST(IniWrite, PutsANewKeyAtTheEndOfTheFileEndingItsLastLineFirst) {
    ScratchDirectory directory;
    EXPECT_EQ("[S]\na=1\r\n  k=new\r\n", Written("[S]\na=1\r\n", "S", "k", "new"));
    EXPECT_EQ("[S]\na=1\r\n  k=new\r\n", Written("[S]\na=1", "S", "k", "new"));
    EXPECT_EQ("[S]\n  k=new\r\n", Written("[S]\n", "S", "k", "new"));
    EXPECT_EQ("[S]\r\n  k=new\r\n", Written("[S]", "S", "k", "new"));
}

TEST(IniWrite, AppendsASectionThatIsMissing) {
    ScratchDirectory directory;
    EXPECT_EQ("[S]\na=1\n\r\n[T]\r\n  k=new\r\n", Written("[S]\na=1\n", "T", "k", "new"));
    EXPECT_EQ("x\r\n[T]\r\n  k=new\r\n", Written("x", "T", "k", "new"));
    EXPECT_EQ("\r\n[T]\r\n  k=new\r\n", Written("", "T", "k", "new"));
    EXPECT_EQ("[ T ]\r\n\r\n[T]\r\n  k=new\r\n", Written("[ T ]\r\n", "T", "k", "new"));
}

TEST(IniWrite, MakesTheFile) {
    ScratchDirectory directory;
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "v", "new.ini"));
    EXPECT_EQ("\r\n[S]\r\n  k=v\r\n", ReadFile("new.ini"));
    EXPECT_EQ(1, tq_WriteINIFileInt("S", "n", -2147483647 - 1, "new.ini"));
    EXPECT_EQ("\r\n[S]\r\n  k=v\r\n  n=-2147483648\r\n", ReadFile("new.ini"));
    EXPECT_EQ(-2147483647 - 1, tq_GetINIFileInt("S", "n", 0, "new.ini"));
}

TEST(IniWrite, OfTheValueThatIsThereDoesNotTouchTheFile) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\n k = same \n");
    ASSERT_EQ(0, chmod(kIni, 0444));
    const struct timespec times[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, kIni, times, 0));
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "same", kIni));
    EXPECT_EQ("[S]\n k = same \n", ReadFile(kIni));
    struct stat status;
    ASSERT_EQ(0, stat(kIni, &status));
    EXPECT_EQ(1000, status.st_mtime);
    EXPECT_EQ("[S]\nk=\n", Written("[S]\nk=\n", "S", "k", ""));
}

TEST(IniWrite, StaysInTheFileThatLinksLeadTo) {
    ScratchDirectory directory;
    WriteFile("real.ini", "[S]\nk=1\n");
    ASSERT_EQ(0, link("real.ini", "other.ini"));
    ASSERT_EQ(0, symlink("real.ini", kIni));
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "2", kIni));
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile("real.ini"));
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile("other.ini"));
    struct stat status;
    ASSERT_EQ(0, lstat(kIni, &status));
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST(IniWrite, TakesACaseChangeForAChange) {
    ScratchDirectory directory;
    EXPECT_EQ("[S]\n  k=SAME\r\n", Written("[S]\nk=same\n", "S", "k", "SAME"));
}

TEST(IniWrite, CopiesLongLinesWhole) {
    ScratchDirectory directory;
    for (size_t length : {509u, 510u, 511u, 512u, 1022u, 3000u}) {
        const std::string longLine(length, 'x');
        const std::string rest = longLine + "\n[T]\n" + longLine + "\r\n" + longLine;
        EXPECT_EQ(longLine + "\n[S]\n  k=new\r\n" + rest, Written(longLine + "\n[S]\nk=1\n" + rest, "S", "k", "new"))
            << length;
    }
}

TEST(IniWrite, OfALongValueCanBeReadUpToTheLengthOfALine) {
    ScratchDirectory directory;
    const std::string value(507, 'v'); // "  k=" and this make 511 characters
    EXPECT_EQ("[S]\n  k=" + value + "\r\n", Written("[S]\nk=1\n", "S", "k", value.c_str()));
    EXPECT_EQ("507:" + value, Value("S", "k"));
    EXPECT_EQ("[S]\n  k=" + value + "\r\n", Written("[S]\n  k=" + value + "\r\n", "S", "k", value.c_str()));
}

TEST(IniWrite, NeedsAllNamesAndAValue) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=1\n");
    EXPECT_EQ(0, tq_WriteINIFileString(nullptr, "k", "2", kIni));
    EXPECT_EQ(0, tq_WriteINIFileString("S", nullptr, "2", kIni));
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", nullptr, kIni));
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "2", nullptr));
    EXPECT_EQ(0, tq_WriteINIFileInt(nullptr, "k", 2, kIni));
    EXPECT_EQ(0, tq_WriteINIFileInt("S", nullptr, 2, kIni));
    EXPECT_EQ(0, tq_WriteINIFileInt("S", "k", 2, nullptr));
    EXPECT_EQ("[S]\nk=1\n", ReadFile(kIni));
}

TEST(IniWrite, FailsWhereTheFileCannotBeMade) {
    ScratchDirectory directory;
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "v", "no/such/directory.ini"));
}

TEST(IniWrite, FailsWithoutATemporaryFileAndLeavesTheFile) {
    ScratchDirectory directory;
    WriteFile(kIni, "[S]\nk=1\n");
    ASSERT_EQ(0, mkfifo("__temp__a.ini", 0666)); // cannot be opened, neither to see whether it is there nor to write
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "2", kIni));
    EXPECT_EQ("[S]\nk=1\n", ReadFile(kIni));
}

TEST(IniWrite, GoesAsFarAsTheTemporaryFilesNameCanBeLong) {
    ScratchDirectory directory;
    const std::string longest(247, 'n'); // 8 characters less than a name may have
    WriteFile(longest, "[S]\nk=1\n");
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "2", longest.c_str()));
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile(longest));
    WriteFile(longest + "n", "[S]\nk=1\n");
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "2", (longest + "n").c_str()));
    EXPECT_EQ("[S]\nk=1\n", ReadFile(longest + "n"));
}

TEST(IniWrite, FailsWithoutMemoryAndLeavesTheFile) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Memory]\nEnableMemoryTracking=yes\nMemoryCapInBytes=100000\n");
        WriteFile(kIni, "[S]\nk=1\n");
        for (unsigned int bytes = 65536; bytes > 0; bytes /= 2) {
            while (tq_malloc(bytes)) {
            }
        }
        printf("%d", tq_WriteINIFileString("S", "k", "2", kIni));
        printf("%s", ReadFile(kIni).c_str());
        fflush(stdout);
        _exit(0);
    });
    EXPECT_EQ("0[S]\nk=1\n", child.standardOut);
}

TEST(IniWrite, LeavesTheFileWhenTheTemporaryOneCannotHoldIt) {
    ScratchDirectory directory;
    const std::string before = "[S]\nk=1\n" + std::string(20000, 'x');
    WriteFile(kIni, before);
    const test::ChildResult child = RunInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(tq_WriteINIFileString("S", "k", "2", kIni));
    });
    EXPECT_EQ(0, child.code);
    EXPECT_EQ(before, ReadFile(kIni));
    EXPECT_EQ(Names({kIni}), NamesIn("*[!.]*"));
}

TEST(IniWrite, AppendsASectionThatVanishesMeanwhile) {
    ScratchDirectory directory;
    const BeforeOpening hook([](int opening) {
        if (opening == 2) { // the key was looked up; now the file is opened to be rewritten
            WriteFile(kIni, "[T]\nx=1\n");
        }
    });
    EXPECT_EQ("[T]\nx=1\n\r\n[S]\r\n  k=2\r\n", Written("[S]\nk=1\n", "S", "k", "2"));
    EXPECT_EQ(Names({kIni}), NamesIn("*[!.]*"));
}

TEST(IniWrite, MakesAFileThatVanishesMeanwhileAnew) {
    ScratchDirectory directory;
    const BeforeOpening hook([](int opening) {
        if (opening == 2) {
            remove(kIni);
        }
    });
    EXPECT_EQ("\r\n[S]\r\n  k=2\r\n", Written("[S]\nk=1\n", "S", "k", "2"));
    EXPECT_EQ(Names({kIni}), NamesIn("*[!.]*"));
}

TEST(IniWrite, TakesTheFirstTemporaryNameThatIsFree) {
    ScratchDirectory directory;
    const char* const names[] = {"__temp__a.ini", "___temp_a.ini", "____tempa.ini", "_temp___a.ini", "temp____a.ini"};
    Names expected = {kIni};
    for (int taken = 0; taken < 5; ++taken) { // the first 0 to 4 names are taken: those files stay as they are
        EXPECT_EQ("[S]\n  k=2\r\n", Written("[S]\nk=1\n", "S", "k", "2")) << taken;
        EXPECT_EQ(expected, NamesIn("*[!.]*")) << taken;
        WriteFile(names[taken], "somebody's");
        expected.insert(names[taken]);
    }
    for (int taken = 0; taken < 5; ++taken) {
        EXPECT_EQ("somebody's", ReadFile(names[taken]));
    }
}

TEST(IniWrite, GivesUpWhenAllTemporaryNamesAreTakenAndRemovesTheLast) {
    ScratchDirectory directory;
    for (const char* pszName : {"__temp__a.ini", "___temp_a.ini", "____tempa.ini", "_temp___a.ini", "temp____a.ini"}) {
        WriteFile(pszName, "somebody's");
    }
    EXPECT_EQ("[S]\nk=1\n(result 0)", Written("[S]\nk=1\n", "S", "k", "2"));
    EXPECT_EQ(Names({kIni, "__temp__a.ini", "___temp_a.ini", "____tempa.ini", "_temp___a.ini"}), NamesIn("*[!.]*"));
}

TEST(IniWrite, PutsTheFirstTemporaryFileBesideTheFileAndTheOthersUnderAnotherDirectory) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkdir("d", 0777));
    WriteFile("d/a.ini", "[S]\nk=1\n");
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "2", "d/a.ini"));
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile("d/a.ini"));
    EXPECT_EQ(Names({"a.ini"}), NamesIn("d/*[!.]*"));

    WriteFile("d/__temp__a.ini", "somebody's");
    EXPECT_EQ(0, tq_WriteINIFileString("S", "k", "3", "d/a.ini")) << "there is no directory ___temp_d";
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile("d/a.ini"));
    ASSERT_EQ(0, mkdir("___temp_d", 0777));
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "3", "d/a.ini"));
    EXPECT_EQ("[S]\n  k=3\r\n", ReadFile("d/a.ini"));
    EXPECT_EQ(Names({}), NamesIn("___temp_d/*[!.]*"));
    EXPECT_EQ("somebody's", ReadFile("d/__temp__a.ini"));
}

TEST(IniWrite, SeesADirectoryEndAtABackslashFirst) {
    ScratchDirectory directory;
    WriteFile("x\\y.ini", "[S]\nk=1\n");
    WriteFile("x\\__temp__y.ini", "somebody's");
    ASSERT_EQ(0, mkdir("x", 0777));
    EXPECT_EQ(1, tq_WriteINIFileString("S", "k", "2", "x\\y.ini"));
    EXPECT_EQ("[S]\n  k=2\r\n", ReadFile("x\\y.ini"));
    EXPECT_EQ("somebody's", ReadFile("x\\__temp__y.ini"));
}

TEST(FindKey, RewritesTheRestOfAFile) {
    ScratchDirectory directory;
    WriteFile("in", "[S]\nk=1\nx\n");
    char value[] = "new";
    char empty[] = "";
    {
        OpenFile in("in", "rb");
        OpenFile out("out", "wb");
        ASSERT_TRUE(FindSection(in.hFile, "S", nullptr));
        EXPECT_EQ(0, FindKey(in.hFile, "k", nullptr, 0, out.hFile));
        EXPECT_EQ(0, FindKey(in.hFile, nullptr, value, 0, out.hFile));
        EXPECT_EQ(0, FindKey(nullptr, "k", value, 0, out.hFile));
        EXPECT_EQ(3, FindKey(in.hFile, "k", value, 0, out.hFile));
    }
    EXPECT_EQ("  k=new\r\nx\n", ReadFile("out"));
    {
        OpenFile in("in", "rb");
        OpenFile out("out", "wb");
        EXPECT_EQ(0, FindKey(in.hFile, "k", empty, 0, out.hFile));
    }
    EXPECT_EQ("  k=\r\n\r\n[S]\nk=1\nx\n", ReadFile("out")) << "the header ended the section that the file stood in";
}

// ---- Working directory

TEST(WorkingDirectory, IsSetAndTold) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkdir("d", 0777));
    const std::string top = WorkingDirectory();
    EXPECT_EQ(1u, tq_SetWorkingDirectory("d"));
    EXPECT_EQ(top + "/d", WorkingDirectory());
    EXPECT_EQ(0u, tq_SetWorkingDirectory("missing"));
    EXPECT_EQ(0u, tq_SetWorkingDirectory(nullptr));
    EXPECT_EQ(top + "/d", WorkingDirectory());
    EXPECT_EQ(1u, tq_SetWorkingDirectory(".."));
    EXPECT_EQ(top, WorkingDirectory());
    std::vector<char> buffer(top.size() + 1);
    EXPECT_EQ(0u, tq_GetWorkingDirectory(buffer.data(), static_cast<unsigned int>(top.size())));
    EXPECT_EQ(1u, tq_GetWorkingDirectory(buffer.data(), static_cast<unsigned int>(top.size()) + 1));
    EXPECT_EQ(top, buffer.data());
    EXPECT_EQ(0u, tq_GetWorkingDirectory(nullptr, 100));
    EXPECT_EQ(0u, tq_GetWorkingDirectory(buffer.data(), 0));
}

TEST(WorkingDirectory, OfAProgramIsBeforeTheLastSeparatorOfItsPath) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkdir("d", 0777));
    ASSERT_EQ(0, mkdir("d/e", 0777));
    ASSERT_EQ(0, mkdir("d\\e", 0777));
    const std::string top = WorkingDirectory();
    struct Row {
        const char* pszPath;
        unsigned int result;
        std::string directory;
    };
    const Row rows[] = {
        {"d/prog", 1, top + "/d"},
        {"d/e/prog", 1, top + "/d/e"},
        {"./prog", 1, top},
        {"d\\e\\prog", 1, top + "/d\\e"},
        {"d/e\\prog", 1, top + "/d"},
        {"d/", 1, top + "/d"},
        {"prog", 0, top},
        {"", 0, top},
        {"missing/prog", 0, top},
        {"/prog", 0, top},
        {nullptr, 0, top},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.result, tq_SetWorkingDirectoryFromArgv(row.pszPath)) << row.pszPath;
        EXPECT_EQ(row.directory, WorkingDirectory()) << row.pszPath;
        ASSERT_EQ(0, chdir(top.c_str()));
    }
}

TEST(WorkingDirectory, OfAProgramIsTakenFrom511Characters) {
    ScratchDirectory directory;
    const std::string top = WorkingDirectory();
    std::string path;
    while (path.size() < 507) {
        path += "./";
    }
    ASSERT_EQ(0, mkdir("d", 0777));
    ASSERT_EQ(0, mkdir("d/e", 0777));
    path = path.substr(0, 506) + "/d/e/prog"; // the 511th character is the "/" behind e
    EXPECT_EQ('/', path[510]);
    EXPECT_EQ(1u, tq_SetWorkingDirectoryFromArgv(path.c_str()));
    EXPECT_EQ(top + "/d/e", WorkingDirectory());
    ASSERT_EQ(0, chdir(top.c_str()));
    path = "./" + path; // now that "/" is cut off, and the one before it counts
    EXPECT_EQ(1u, tq_SetWorkingDirectoryFromArgv(path.c_str()));
    EXPECT_EQ(top + "/d", WorkingDirectory());
}

// ---- Volumes, directories, files

TEST(Volume, TellsFreeSpaceAndSizeInMebibytes) {
    unsigned int free = 1;
    unsigned int size = 1;
    ASSERT_TRUE(tq_GetVolumeInfo("/", &free, &size));
    struct statvfs volume;
    ASSERT_EQ(0, statvfs("/", &volume));
    EXPECT_EQ(static_cast<unsigned int>((static_cast<uint64_t>(volume.f_blocks) >> 10) * volume.f_frsize >> 10), size);
    EXPECT_TRUE(test::WaitUntil([&] { // others may write meanwhile
        EXPECT_TRUE(tq_GetVolumeInfo("/", &free, &size));
        return statvfs("/", &volume) == 0 &&
               free == static_cast<unsigned int>((static_cast<uint64_t>(volume.f_bfree) >> 10) * volume.f_bsize >> 10);
    }));
    unsigned int freeHere = 1;
    unsigned int sizeHere = 1;
    ASSERT_EQ(0, chdir("/"));
    ASSERT_TRUE(tq_GetVolumeInfo(nullptr, &freeHere, &sizeHere));
    EXPECT_EQ(size, sizeHere);
}

TEST(Volume, IsNotToldOfAPathThatIsMissingOrAVolumeWithoutBlocks) {
    unsigned int free = 1;
    unsigned int size = 2;
    EXPECT_FALSE(tq_GetVolumeInfo("/no/such/path", &free, &size));
    EXPECT_FALSE(tq_GetVolumeInfo("/proc", &free, &size));
    EXPECT_EQ(1u, free);
    EXPECT_EQ(2u, size);
}

TEST(Directory, IsMadeAndRemoved) {
    ScratchDirectory directory;
    const mode_t mask = umask(027);
    EXPECT_TRUE(tq_CreateDirectory("d"));
    umask(mask);
    struct stat status;
    ASSERT_EQ(0, stat("d", &status));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0750), status.st_mode);
    EXPECT_FALSE(tq_CreateDirectory("d"));
    EXPECT_FALSE(tq_CreateDirectory("missing/d"));
    EXPECT_FALSE(tq_CreateDirectory(nullptr));
    EXPECT_EQ(0, tq_RemoveDirectory("d"));
    EXPECT_FALSE(FileExists("d"));
}

TEST(Directory, ThatHoldsSomethingIsRemovedAsATreeOnly) {
    ScratchDirectory directory;
    ASSERT_TRUE(tq_CreateDirectory("d"));
    ASSERT_TRUE(tq_CreateDirectory("d/e"));
    WriteFile("d/e/f", "x");
    const test::ChildResult child = RunInChild([] { _exit(tq_RemoveDirectory("d") != 0 ? 0 : 1); });
    EXPECT_EQ(0, child.code) << "the shell's command fails";
    EXPECT_TRUE(FileExists("d/e/f"));
    EXPECT_EQ(0, tq_Deltree("d"));
    EXPECT_FALSE(FileExists("d"));
    EXPECT_EQ(0, tq_Deltree("d")) << "what is not there is no failure of the command";
}

TEST(Directory, IsSplitByTheShellAtBlanks) {
    ScratchDirectory directory;
    for (const char* pszName : {"a", "b", "a b"}) {
        ASSERT_TRUE(tq_CreateDirectory(pszName));
    }
    EXPECT_EQ(0, tq_RemoveDirectory("a b"));
    EXPECT_EQ(Names({"a b"}), NamesIn("*[!.]*"));
}

TEST(Directory, OfAPathOf256CharactersIsNotRemoved) {
    ScratchDirectory directory;
    ASSERT_TRUE(tq_CreateDirectory("d"));
    const std::string longest = std::string("d") + std::string(254, '/'); // the same directory, at any length
    EXPECT_EQ(-1, tq_Deltree((longest + "/").c_str()));
    EXPECT_EQ(-1, tq_RemoveDirectory((longest + "/").c_str()));
    EXPECT_TRUE(FileExists("d"));
    EXPECT_EQ(0, tq_RemoveDirectory(longest.c_str()));
    EXPECT_FALSE(FileExists("d"));
    EXPECT_EQ(-1, tq_Deltree(nullptr));
    EXPECT_EQ(-1, tq_RemoveDirectory(nullptr));
}

TEST(Directory, IsRemovedAlsoWhereTheCommandsStatusCannotBeLearnt) {
    ScratchDirectory directory;
    ASSERT_TRUE(tq_CreateDirectory("d"));
    const test::ChildResult child = RunInChild([] {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        action.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &action, nullptr);
        _exit(tq_Deltree("d") == -1 ? 0 : 1);
    });
    EXPECT_EQ(0, child.code);
    EXPECT_FALSE(FileExists("d"));
}

TEST(CopyFile, CopiesWhateverTheLength) {
    ScratchDirectory directory;
    for (size_t length : {0u, 1u, 511u, 512u, 513u, 1024u, 5000u}) {
        std::string content(length, '\0');
        for (size_t i = 0; i < length; ++i) {
            content[i] = static_cast<char>(i * 7);
        }
        WriteFile("from", content);
        WriteFile("to", "what was there before");
        EXPECT_TRUE(tq_CopyFile("from", "to")) << length;
        EXPECT_EQ(content, ReadFile("to")) << length;
    }
    EXPECT_TRUE(tq_CopyFile("from", "new"));
    EXPECT_EQ(ReadFile("from"), ReadFile("new"));
}

TEST(CopyFile, FailsWithoutSourceOrDestination) {
    ScratchDirectory directory;
    WriteFile("from", "x");
    WriteFile("to", "kept");
    EXPECT_FALSE(tq_CopyFile("missing", "to"));
    EXPECT_FALSE(tq_CopyFile(nullptr, "to"));
    EXPECT_EQ("kept", ReadFile("to"));
    EXPECT_FALSE(tq_CopyFile("from", "no/such/to"));
    EXPECT_FALSE(tq_CopyFile("from", nullptr));
}

TEST(CopyFile, FailsWhenThereIsNoRoom) {
    ScratchDirectory directory;
    WriteFile("from", std::string(100, 'x'));
    EXPECT_FALSE(tq_CopyFile("from", "/dev/full"));
    WriteFile("from", std::string(100000, 'x'));
    EXPECT_FALSE(tq_CopyFile("from", "/dev/full"));
}

TEST(RemoveFile, RemovesAFile) {
    ScratchDirectory directory;
    WriteFile("f", "x");
    EXPECT_TRUE(tq_RemoveFile("f"));
    EXPECT_FALSE(FileExists("f"));
    EXPECT_FALSE(tq_RemoveFile("f"));
    EXPECT_FALSE(tq_RemoveFile(nullptr));
    ASSERT_TRUE(tq_CreateDirectory("d"));
    EXPECT_FALSE(tq_RemoveFile("d"));
}

// ---- Searches

TEST(Search, OfAPatternWithoutASlashLooksInTheWorkingDirectory) {
    ScratchDirectory directory;
    WriteFile("a.txt", "1");
    WriteFile("b.bin", "1");
    TQ_FINDFILE_STRUCT entry;
    memset(&entry, 'x', sizeof(entry));
    void* hSearch = tq_FindFirstFile("*.txt", &entry);
    ASSERT_NE(reinterpret_cast<void*>(-1), hSearch);
    EXPECT_STREQ("a.txt", entry.pFilename);
    EXPECT_STREQ("*.txt", entry.pattern);
    EXPECT_STREQ("./", entry.directory_name);
    EXPECT_FALSE(entry.bIsDir);
    EXPECT_EQ(0, tq_FindNextFile(hSearch, &entry));
    EXPECT_EQ(0, tq_FindNextFile(hSearch, &entry)) << "it stays open";
    EXPECT_EQ(1, tq_FindClose(hSearch));
}

TEST(Search, OfAPatternWithADirectoryLooksThere) {
    ScratchDirectory directory;
    ASSERT_TRUE(tq_CreateDirectory("d"));
    ASSERT_TRUE(tq_CreateDirectory("d/sub"));
    WriteFile("d/file", "1");
    const struct timespec times[2] = {{1000, 0}, {123456789, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "d/file", times, 0));
    ASSERT_EQ(0, utimensat(AT_FDCWD, "d/sub", times, 0));
    for (const char* pszPattern : {"d/file", "d/sub"}) {
        TQ_FINDFILE_STRUCT entry;
        memset(&entry, 'x', sizeof(entry));
        void* hSearch = tq_FindFirstFile(pszPattern, &entry);
        ASSERT_NE(reinterpret_cast<void*>(-1), hSearch);
        EXPECT_STREQ(pszPattern + 2, entry.pFilename);
        EXPECT_STREQ(pszPattern + 2, entry.pattern);
        EXPECT_STREQ("d/", entry.directory_name);
        EXPECT_EQ(123456789u, entry.uiLastWriteTime);
        EXPECT_EQ(strcmp(pszPattern, "d/sub") == 0, entry.bIsDir);
        tq_FindClose(hSearch);
    }
    EXPECT_EQ(Names({".", "..", "file", "sub"}), NamesIn("d/*"));
    EXPECT_EQ(Names({"sub"}), NamesIn("./d/s?b"));
    EXPECT_EQ(Names({"d"}), NamesIn(WorkingDirectory() + "/d"));
}

TEST(Search, FillsTheRecordForEachEntry) {
    ScratchDirectory directory;
    ASSERT_TRUE(tq_CreateDirectory("d"));
    ASSERT_TRUE(tq_CreateDirectory("d/n1"));
    WriteFile("d/n2", "1");
    const struct timespec times[2] = {{1000, 0}, {123456789, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "d/n1", times, 0));
    TQ_FINDFILE_STRUCT entry;
    void* hSearch = tq_FindFirstFile("d/n?", &entry);
    ASSERT_NE(reinterpret_cast<void*>(-1), hSearch);
    int found = 0;
    do {
        const bool bDirectory = strcmp(entry.pFilename, "n1") == 0;
        EXPECT_EQ(bDirectory, entry.bIsDir);
        EXPECT_EQ(bDirectory, entry.uiLastWriteTime == 123456789u);
        EXPECT_STREQ("n?", entry.pattern);
        EXPECT_STREQ("d/", entry.directory_name);
        ++found;
    } while (tq_FindNextFile(hSearch, &entry) == 1);
    EXPECT_EQ(2, found);
    EXPECT_EQ(1, tq_FindClose(hSearch));
}

TEST(Search, ShowsATimeAfter2038) {
    ScratchDirectory directory;
    WriteFile("late", "1");
    constexpr unsigned int kIn2040 = 2208988800u;
    const struct timespec times[2] = {{kIn2040, 0}, {kIn2040, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "late", times, 0));
    struct stat status;
    ASSERT_EQ(0, stat("late", &status));
    if (status.st_mtime != static_cast<time_t>(kIn2040)) {
        GTEST_SKIP() << "this file system keeps no such time";
    }
    TQ_FINDFILE_STRUCT entry;
    EXPECT_EQ(1, tq_FindClose(tq_FindFirstFile("late", &entry)));
    EXPECT_EQ(kIn2040, entry.uiLastWriteTime);
}

TEST(Search, ThatFindsNothingSaysWhy) {
    ScratchDirectory directory;
    TQ_FINDFILE_STRUCT entry;
    void* const none = reinterpret_cast<void*>(-1);
    errno = 0;
    EXPECT_EQ(none, tq_FindFirstFile("missing/*", &entry));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(none, tq_FindFirstFile("*.none", &entry));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(none, tq_FindFirstFile("./", &entry));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(none, tq_FindFirstFile("*", nullptr));
    EXPECT_EQ(none, tq_FindFirstFile(nullptr, &entry));
}

TEST(Search, ThatFindsNothingLeavesNoDescriptor) {
    ScratchDirectory directory;
    const int before = dup(0);
    close(before);
    TQ_FINDFILE_STRUCT entry;
    EXPECT_EQ(reinterpret_cast<void*>(-1), tq_FindFirstFile("*.none", &entry));
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(Search, WithoutAHandleOrARecordFindsNoMore) {
    TQ_FINDFILE_STRUCT entry;
    void* hSearch = tq_FindFirstFile("/*", &entry);
    EXPECT_STREQ("/", entry.directory_name);
    EXPECT_EQ(0, tq_FindNextFile(nullptr, &entry));
    EXPECT_EQ(0, tq_FindNextFile(reinterpret_cast<void*>(-1), &entry));
    EXPECT_EQ(0, tq_FindNextFile(hSearch, nullptr));
    EXPECT_EQ(1, tq_FindClose(hSearch));
    EXPECT_EQ(1, tq_FindClose(nullptr));
    EXPECT_EQ(1, tq_FindClose(reinterpret_cast<void*>(-1)));
}

TEST(Search, TakesASocketForADirectory) {
    ScratchDirectory directory;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "sock");
    ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, mkfifo("fifo", 0666));
    TQ_FINDFILE_STRUCT entry;
    EXPECT_EQ(1, tq_FindClose(tq_FindFirstFile("sock", &entry)));
    EXPECT_TRUE(entry.bIsDir) << "only one bit of the type is looked at";
    EXPECT_EQ(1, tq_FindClose(tq_FindFirstFile("fifo", &entry)));
    EXPECT_FALSE(entry.bIsDir);
    close(fd);
}

TEST(Search, ShowsZerosForALinkThatLeadsNowhere) {
    ScratchDirectory directory;
    ASSERT_EQ(0, symlink("nowhere", "link"));
    TQ_FINDFILE_STRUCT entry;
    memset(&entry, 'x', sizeof(entry));
    EXPECT_EQ(1, tq_FindClose(tq_FindFirstFile("link", &entry)));
    EXPECT_STREQ("link", entry.pFilename);
    EXPECT_FALSE(entry.bIsDir);
    EXPECT_EQ(0u, entry.uiLastWriteTime);
}

TEST(Search, CutsWhatItsRecordHasNoRoomFor) {
    ScratchDirectory directory;
    std::string path;
    for (int i = 0; i < 3; ++i) { // 303 characters
        path += std::string(100, static_cast<char>('a' + i)) + "/";
        ASSERT_TRUE(tq_CreateDirectory(path.c_str()));
    }
    WriteFile(path + "file", "1");
    TQ_FINDFILE_STRUCT entry;
    memset(&entry, 'x', sizeof(entry));
    void* hSearch = tq_FindFirstFile((path + "*" + std::string(300, '*') + "e").c_str(), &entry);
    ASSERT_NE(reinterpret_cast<void*>(-1), hSearch);
    EXPECT_STREQ("file", entry.pFilename);
    EXPECT_EQ(path.substr(0, 259), entry.directory_name);
    EXPECT_EQ(std::string(259, '*'), entry.pattern);
    tq_FindClose(hSearch);

    const std::string name(255, 'n'); // the longest that there is
    WriteFile(name, "1");
    EXPECT_EQ(Names({name}), NamesIn("n*"));
    for (const size_t length : {4096u, 5000u}) { // with its end just behind the longest path there is, and further
        errno = 0;
        EXPECT_EQ(reinterpret_cast<void*>(-1), tq_FindFirstFile((std::string(length, '/') + "*").c_str(), &entry));
        EXPECT_EQ(EINVAL, errno);
    }
}
