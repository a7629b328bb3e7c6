#include <atomic>
#include <memory>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LatinEntities.h"
#include "TestSupport.h"
#include "tq_List_p.h"
#include "tq_Memory_p.h"
#include "tqos.h"

namespace {

struct Destroyer {
    void operator()(TqString* s) const { tq_string_destroy(s); }
};
using String = std::unique_ptr<TqString, Destroyer>;

String Make(const std::string& text = "", unsigned int capacity = 0) {
    String s(tq_string_create(capacity));
    if (!text.empty()) {
        EXPECT_EQ(0, tq_string_append(s.get(), text.c_str()));
    }
    return s;
}

/// The text as bytesUsed measures it; what every operation keeps is checked on the way.
std::string TextOf(const TqString* s) {
    EXPECT_EQ(s->sizeInBytes - s->bytesUsed, s->bytesFree);
    EXPECT_LT(0u, s->bytesFree) << "no room for the zero behind the text";
    for (unsigned int i = s->bytesUsed; i < s->sizeInBytes; ++i) {
        if (s->ptr[i] != 0) {
            ADD_FAILURE() << "the byte at " << i << " behind the text is not zero";
            break;
        }
    }
    return std::string(reinterpret_cast<const char*>(s->ptr), s->bytesUsed);
}

std::string TextOf(const String& s) {
    return TextOf(s.get());
}

/// The text without the zero byte that the length counts after some operations.
std::string CountedText(const String& s) {
    std::string text = TextOf(s);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ('\0', text.back());
    text.pop_back();
    return text;
}

std::string Escaped(const std::string& text) {
    const String s = Make(text);
    EXPECT_EQ(0, tq_string_escape(s.get()));
    return CountedText(s);
}

std::string XmlEscaped(const std::string& text) {
    const String s = Make(text);
    EXPECT_EQ(0, tq_string_xmlEscape(s.get()));
    return CountedText(s);
}

std::string XmlUnescaped(const std::string& text) {
    const String s = Make(text);
    EXPECT_EQ(0, tq_string_xmlUnEscape(s.get()));
    return CountedText(s);
}

std::string Unescaped(const std::string& text, bool bNumericsOnly = false) {
    const String s = Make(text);
    EXPECT_EQ(0, tq_string_unescape(s.get(), bNumericsOnly));
    return TextOf(s);
}

class StringTest : public testing::Test {
protected:
    test::Library m_library{"[Memory]\nEnableMemoryTracking=yes\n"};
    void TearDown() override { gMemoryCapInBytes = 0; }
    static void AllowBytes(unsigned int bytes) { gMemoryCapInBytes = gRequestedMemoryAllocations + bytes; }
};

} // namespace

// Making and unmaking

TEST_F(StringTest, ANewStringIsEmptyAndHasTheCapacityAskedFor) {
    for (const unsigned int asked : {0u, 1u, 7u, 1024u, 100000u}) {
        const String s = Make("", asked);
        EXPECT_EQ(asked ? asked : 1024, s->sizeInBytes);
        EXPECT_EQ("", TextOf(s));
        EXPECT_EQ(nullptr, s->Reserved);
        EXPECT_EQ('\0', *tq_string_ptr(s.get(), 0));
    }
}

TEST_F(StringTest, DestroyingFreesAllAndTakesNull) {
    const unsigned int before = gRequestedMemoryAllocations;
    tq_string_destroy(nullptr);
    tq_string_destroy(tq_string_create(10));
    tq_string_destroy(tq_string_duplicate("text"));
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST_F(StringTest, BlocksAreChargedToTheCallersPlace) {
    const String s(tq__string_create(10, "caller.cpp", 4711));
    for (const void* pBlock : {static_cast<void*>(s.get()), static_cast<void*>(s->ptr)}) {
        const auto* const pHeader =
            tq_MemoryHeaderOf(const_cast<char*>(static_cast<const char*>(pBlock)) - gTotalMemoryHeader);
        EXPECT_STREQ("caller.cpp", pHeader->pFile);
        EXPECT_EQ(4711u, pHeader->line);
    }
}

TEST_F(StringTest, WithoutMemoryThereIsNoStringAndNothingIsLost) {
    const unsigned int before = gRequestedMemoryAllocations;
    const String source = Make("text");
    AllowBytes(sizeof(TqString));
    EXPECT_EQ(nullptr, tq_string_create(1));
    EXPECT_EQ(nullptr, tq_string_duplicate(""));
    EXPECT_EQ(nullptr, tq_string_substring(source.get(), 0, 1));
    AllowBytes(sizeof(TqString) - 1);
    EXPECT_EQ(nullptr, tq_string_create(1));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(before + sizeof(TqString) + 1024, gRequestedMemoryAllocations);
}

TEST_F(StringTest, ADuplicateHasRoomForItsTextAlone) {
    char text[] = "some text";
    const String s(tq_string_duplicate(text));
    text[0] = 'X';
    EXPECT_EQ("some text", TextOf(s));
    EXPECT_EQ(10u, s->sizeInBytes);
    const String empty(tq_string_duplicate(""));
    EXPECT_EQ("", TextOf(empty));
    EXPECT_EQ(1u, empty->sizeInBytes);
    EXPECT_EQ(nullptr, tq_string_duplicate(nullptr));
}

TEST_F(StringTest, ASubstringIsAStringOfItsOwn) {
    const String s = Make("0123456789");
    struct Row {
        unsigned int offset;
        unsigned int length;
        const char* pszExpected;
    };
    for (const Row& row : {Row{0, 10, "0123456789"}, {3, 4, "3456"}, {9, 1, "9"}, {4, 0, ""}}) {
        const String piece(tq_string_substring(s.get(), row.offset, row.length));
        ASSERT_NE(nullptr, piece);
        EXPECT_EQ(row.pszExpected, TextOf(piece));
        EXPECT_NE(s->ptr, piece->ptr);
    }
    for (const Row& row : {Row{10, 0, ""},
                           {0, 11, ""},
                           {9, 2, ""},
                           {11, 0, ""},
                           {1, UINT32_MAX, ""},
                           {UINT32_MAX, 2, ""},
                           {5, UINT32_MAX - 4, ""}}) {
        EXPECT_EQ(nullptr, tq_string_substring(s.get(), row.offset, row.length)) << row.offset << ", " << row.length;
    }
    EXPECT_EQ(nullptr, tq_string_substring(nullptr, 0, 0));
}

// Reading

TEST_F(StringTest, ResettingEmptiesTheTextAndKeepsTheCapacity) {
    const String s = Make("text", 16);
    EXPECT_EQ(0, tq_string_reset(s.get()));
    EXPECT_EQ("", TextOf(s));
    EXPECT_EQ(16u, s->sizeInBytes);
    EXPECT_EQ(1, tq_string_reset(nullptr));
}

TEST_F(StringTest, TheAddressOfAByteIsGivenUpToTheEndOfTheText) {
    const String s = Make("text");
    EXPECT_EQ(s->ptr, tq_string_ptr(s.get(), 0));
    EXPECT_EQ('t', *tq_string_ptr(s.get(), 3));
    EXPECT_EQ('\0', *tq_string_ptr(s.get(), 4)) << "the end itself";
    EXPECT_EQ(nullptr, tq_string_ptr(s.get(), 5));
    EXPECT_EQ(nullptr, tq_string_ptr(s.get(), UINT32_MAX));
    EXPECT_EQ(nullptr, tq_string_ptr(nullptr, 0));
    EXPECT_EQ(4u, tq_string_length(s.get()));
    EXPECT_EQ(0u, tq_string_length(nullptr));
}

TEST_F(StringTest, TheDecimalValueIsTheOneAtTheStart) {
    EXPECT_EQ(-42, tq_string_atoi(Make(" -42 and more").get()));
    EXPECT_EQ(0, tq_string_atoi(Make("none").get()));
    EXPECT_EQ(0, tq_string_atoi(Make().get()));
    EXPECT_EQ(0, tq_string_atoi(nullptr));
}

TEST_F(StringTest, FindingBeginsAtTheOffset) {
    const String s = Make("abcabc");
    struct Row {
        const char* pszSearch;
        unsigned int offset;
        int expected;
    };
    for (const Row& row : {Row{"abc", 0, 0},
                           {"abc", 1, 3},
                           {"abc", 3, 3},
                           {"abc", 4, -1},
                           {"c", 5, 5},
                           {"c", 6, -1},
                           {"abcabcd", 0, -1},
                           {"", 2, 2},
                           {"a", UINT32_MAX, -1}}) {
        EXPECT_EQ(row.expected, tq_string_find(s.get(), row.pszSearch, row.offset)) << row.pszSearch << row.offset;
    }
    EXPECT_EQ(-1, tq_string_find(s.get(), nullptr, 0));
    EXPECT_EQ(-1, tq_string_find(nullptr, "a", 0));
    EXPECT_EQ(-1, tq_string_find(Make().get(), "", 0));
}

TEST_F(StringTest, TokensAreCutOffOneAfterAnother) {
    const String s = Make(",a;b,,c");
    EXPECT_EQ(1, tq_string_strtok(s.get(), ",;", 0)) << "leading delimiters are passed over";
    EXPECT_STREQ("a", reinterpret_cast<char*>(tq_string_ptr(s.get(), 1)));
    EXPECT_EQ(3, tq_string_strtok(s.get(), ",;", TQ_STRING_NEXT_TOKEN));
    EXPECT_EQ(5, tq_string_strtok(s.get(), ",;", TQ_STRING_NEXT_TOKEN)) << "the empty token between two delimiters";
    EXPECT_EQ(6, tq_string_strtok(s.get(), ",;", TQ_STRING_NEXT_TOKEN));
    EXPECT_EQ(-1, tq_string_strtok(s.get(), ",;", TQ_STRING_NEXT_TOKEN));
    EXPECT_EQ(7u, tq_string_length(s.get())) << "the length stays";
}

TEST_F(StringTest, TokensMayBeAskedForByOffset) {
    const String s = Make("one two");
    EXPECT_EQ(4, tq_string_strtok(s.get(), " ", 3));
    EXPECT_EQ(4, tq_string_strtok(s.get(), " ", 4));
    EXPECT_EQ(6, tq_string_strtok(s.get(), " ", 6));
    EXPECT_EQ(-1, tq_string_strtok(s.get(), " ", 7));
    EXPECT_EQ(-1, tq_string_strtok(s.get(), nullptr, 0));
    EXPECT_EQ(-1, tq_string_strtok(nullptr, " ", 0));
    EXPECT_EQ(-1, tq_string_strtok(Make().get(), " ", 0));
}

TEST_F(StringTest, ChangingTheStringEndsTheTokenising) {
    for (const bool bGrows : {false, true}) {
        const String s = Make("a,b,c", 16);
        EXPECT_EQ(0, tq_string_strtok(s.get(), ",", 0));
        EXPECT_EQ(0, tq_string_append(s.get(), bGrows ? ",more than there is room for" : ","));
        EXPECT_EQ(-1, tq_string_strtok(s.get(), ",", TQ_STRING_NEXT_TOKEN));
    }
}

TEST_F(StringTest, ALineIsTakenOffTheFront) {
    const String s = Make("first\r\n\r\nthird\r\nrest");
    char line[6];
    EXPECT_EQ(0, tq_string_getline(s.get(), line, sizeof(line)));
    EXPECT_STREQ("first", line) << "it fills the buffer exactly";
    EXPECT_EQ(0, tq_string_getline(s.get(), line, 1));
    EXPECT_STREQ("", line);
    EXPECT_EQ("third\r\nrest", TextOf(s));
    EXPECT_EQ(0, tq_string_getline(s.get(), line, sizeof(line)));
    memset(line, '#', sizeof(line));
    EXPECT_EQ(1, tq_string_getline(s.get(), line, sizeof(line)));
    EXPECT_EQ("rest", TextOf(s));
    EXPECT_EQ('#', line[0]);
}

TEST_F(StringTest, ALineThatDoesNotFitStays) {
    const String s = Make("first\r\nrest");
    char line[8] = "#######";
    EXPECT_EQ(1, tq_string_getline(s.get(), line, 5));
    EXPECT_EQ(1, tq_string_getline(s.get(), line, 0));
    EXPECT_EQ(1, tq_string_getline(s.get(), nullptr, 100));
    EXPECT_EQ(1, tq_string_getline(nullptr, line, 8));
    EXPECT_STREQ("#######", line);
    EXPECT_EQ("first\r\nrest", TextOf(s));
    for (const char* pszText : {"", "\r", "\n", "a\rb\nc", "\n\r"}) {
        const String other = Make(pszText);
        EXPECT_EQ(1, tq_string_getline(other.get(), line, 8));
        EXPECT_EQ(pszText, TextOf(other));
    }
}

// Changing

TEST_F(StringTest, ReplacingPutsATextInPlaceOfAPiece) {
    struct Row {
        unsigned int offset;
        unsigned int length;
        const char* pszInsert;
        const char* pszExpected;
    };
    for (const Row& row : {Row{0, 3, "XYZ", "XYZdef"},
                           {1, 2, "longer", "alongerdef"},
                           {1, 4, "s", "asf"},
                           {2, 2, nullptr, "abef"},
                           {0, 6, nullptr, ""},
                           {5, 1, "!", "abcde!"},
                           {3, 0, "+", "abc+def"},
                           {0, 6, "", ""}}) {
        for (const unsigned int capacity : {7u, 1024u}) {
            const String s = Make("abcdef", capacity);
            EXPECT_EQ(0, tq_string_replace(s.get(), row.offset, row.length, row.pszInsert));
            EXPECT_EQ(row.pszExpected, TextOf(s));
        }
    }
}

TEST_F(StringTest, APieceThatReachesBeyondTheTextIsNotReplaced) {
    const String s = Make("abcdef");
    struct Row {
        unsigned int offset;
        unsigned int length;
    };
    for (const Row& row : {Row{6, 0},
                           {6, 1},
                           {5, 2},
                           {0, 7},
                           {7, 0},
                           {1, UINT32_MAX},
                           {3, UINT32_MAX - 2},
                           {UINT32_MAX, 1},
                           {UINT32_MAX, 7}}) {
        EXPECT_EQ(1, tq_string_replace(s.get(), row.offset, row.length, "X")) << row.offset << ", " << row.length;
    }
    EXPECT_EQ(1, tq_string_replace(nullptr, 0, 0, "X"));
    EXPECT_EQ(1, tq_string_replace(Make().get(), 0, 0, "X"));
    EXPECT_EQ("abcdef", TextOf(s));
}

TEST_F(StringTest, AnInsertionAtTheVeryEndFails) {
    const String s = Make("bd");
    EXPECT_EQ(0, tq_string_insert(s.get(), 0, "a"));
    EXPECT_EQ(0, tq_string_insert(s.get(), 2, "c"));
    EXPECT_EQ("abcd", TextOf(s));
    EXPECT_EQ(1, tq_string_insert(s.get(), 4, "e"));
    EXPECT_EQ(0, tq_string_insert(s.get(), 1, nullptr));
    EXPECT_EQ(1, tq_string_insert(nullptr, 0, "a"));
    EXPECT_EQ("abcd", TextOf(s));
    EXPECT_EQ(0, tq_string_append(s.get(), "e"));
    EXPECT_EQ("abcde", TextOf(s));
}

TEST_F(StringTest, AppendingAddsAllOrAsMuchAsIsAskedFor) {
    const String s = Make();
    EXPECT_EQ(0, tq_string_append(s.get(), "one"));
    EXPECT_EQ(0, tq_string_append(s.get(), ""));
    EXPECT_EQ(0, tq_string_nappend(s.get(), "two three", 3));
    EXPECT_EQ(0, tq_string_nappend(s.get(), "four", 0));
    EXPECT_EQ(0, tq_string_nappend(s.get(), "four", UINT32_MAX));
    EXPECT_EQ("onetwofour", TextOf(s));
    const char unterminated[] = {'x', 'y', 'z'};
    EXPECT_EQ(0, tq_string_nappend(s.get(), unterminated, 3));
    EXPECT_EQ("onetwofourxyz", TextOf(s));
    EXPECT_EQ(1, tq_string_append(s.get(), nullptr));
    EXPECT_EQ(1, tq_string_nappend(s.get(), nullptr, 3));
    EXPECT_EQ(1, tq_string_append(nullptr, "a"));
    EXPECT_EQ(1, tq_string_nappend(nullptr, "a", 1));
    EXPECT_EQ("onetwofourxyz", TextOf(s));
}

TEST_F(StringTest, AppendingANumberWritesItUnsigned) {
    const String s = Make();
    EXPECT_EQ(0, tq_string_appendInteger(s.get(), 0));
    EXPECT_EQ(0, tq_string_appendInteger(s.get(), UINT32_MAX));
    EXPECT_EQ("04294967295", TextOf(s));
    EXPECT_EQ(1, tq_string_appendInteger(nullptr, 1));
}

TEST_F(StringTest, AFullStringGrowsByItsCapacityOrByWhatIsAdded) {
    const String s = Make();
    EXPECT_EQ(0, tq_string_append(s.get(), std::string(2000, 'a').c_str()));
    EXPECT_EQ(3024u, s->sizeInBytes);
    EXPECT_EQ(1024u, s->bytesFree);
    EXPECT_EQ(0, tq_string_append(s.get(), std::string(1023, 'b').c_str()));
    EXPECT_EQ(3024u, s->sizeInBytes) << "one byte stays free for the zero";
    EXPECT_EQ(0, tq_string_append(s.get(), "c"));
    EXPECT_EQ(6048u, s->sizeInBytes);
    EXPECT_EQ(std::string(2000, 'a') + std::string(1023, 'b') + "c", TextOf(s));
    const String small = Make("abc", 4);
    EXPECT_EQ(4u, small->sizeInBytes);
    EXPECT_EQ(0, tq_string_replace(small.get(), 1, 1, "xy"));
    EXPECT_EQ(8u, small->sizeInBytes);
    EXPECT_EQ("axyc", TextOf(small));
}

TEST_F(StringTest, WithoutMemoryToGrowTheStringStaysAsItIs) {
    const String s = Make("abc", 4);
    AllowBytes(0);
    EXPECT_EQ(1, tq_string_append(s.get(), "d"));
    EXPECT_EQ(1, tq_string_nappend(s.get(), "def", 2));
    EXPECT_EQ(1, tq_string_appendInteger(s.get(), 7));
    EXPECT_EQ(1, tq_string_insert(s.get(), 1, "d"));
    EXPECT_EQ(1, tq_string_replace(s.get(), 0, 1, "de"));
    EXPECT_EQ(1, tq_string_sprintf(s.get(), "%d", 7));
    EXPECT_EQ(1, tq_string_escape(s.get()));
    EXPECT_EQ(1, tq_string_xmlEscape(s.get()));
    EXPECT_EQ(1, tq_string_xmlUnEscape(s.get()));
    EXPECT_EQ(0, tq_string_replace(s.get(), 0, 1, "A")) << "what needs no room still works";
    gMemoryCapInBytes = 0;
    EXPECT_EQ("Abc", TextOf(s));
    EXPECT_EQ(4u, s->sizeInBytes);
}

TEST_F(StringTest, ATextMayBeAPieceOfTheStringItself) {
    for (const unsigned int capacity : {7u, 1024u}) {
        const String s = Make("abcdef", capacity);
        const auto piece = [&s](unsigned int offset) {
            return reinterpret_cast<const char*>(tq_string_ptr(s.get(), offset));
        };
        EXPECT_EQ(0, tq_string_append(s.get(), piece(0)));
        EXPECT_EQ("abcdefabcdef", TextOf(s));
        EXPECT_EQ(0, tq_string_nappend(s.get(), piece(10), 1));
        EXPECT_EQ(0, tq_string_insert(s.get(), 1, piece(8)));
        EXPECT_EQ("acdefebcdefabcdefe", TextOf(s));
        EXPECT_EQ(0, tq_string_replace(s.get(), 0, 16, piece(15)));
        EXPECT_EQ("efefe", TextOf(s));
    }
}

TEST_F(StringTest, AZeroByteWithinTheTextIsAByteLikeAnyOther) {
    const String s = Make("a&");
    EXPECT_EQ(0, tq_string_xmlEscape(s.get()));
    EXPECT_EQ(0, tq_string_append(s.get(), "bc\r\nrest"));
    ASSERT_EQ(std::string("a&amp;\0bc\r\nrest", 15), TextOf(s));
    EXPECT_EQ(7, tq_string_find(s.get(), "bc", 0));
    EXPECT_EQ('b', *tq_string_ptr(s.get(), 7));
    const String piece(tq_string_substring(s.get(), 5, 3));
    EXPECT_EQ(std::string(";\0b", 3), TextOf(piece));
    char line[20];
    EXPECT_EQ(0, tq_string_getline(s.get(), line, sizeof(line)));
    EXPECT_EQ(std::string("a&amp;\0bc\0", 10), std::string(line, 10));
    EXPECT_EQ("rest", TextOf(s));
    EXPECT_EQ(0, tq_string_replace(piece.get(), 0, 2, "x"));
    EXPECT_EQ("xb", TextOf(piece));
}

TEST_F(StringTest, LowerCaseCoversTheWholeText) {
    const String s = Make("MiXeD 12 \xc4");
    EXPECT_EQ(0, tq_string_strlwr(s.get()));
    EXPECT_EQ("mixed 12 \xc4", TextOf(s));
    EXPECT_EQ(1, tq_string_strlwr(nullptr));
}

// Formatting

TEST_F(StringTest, FormattingAppends) {
    const String s = Make("a=");
    EXPECT_EQ(0, tq_string_sprintf(s.get(), "%d, %s", 7, "x"));
    EXPECT_EQ(0, tq_string_sprintf(s.get(), "%s", ""));
    EXPECT_EQ("a=7, x", TextOf(s));
    EXPECT_EQ(1, tq_string_sprintf(nullptr, "%d", 7));
}

TEST_F(StringTest, AFormattedTextIsCutAt65535Bytes) {
    for (const size_t length : {65534u, 65535u, 65536u, 70000u}) {
        const String s = Make("before ");
        const std::string text(length, 'x');
        EXPECT_EQ(0, tq_string_sprintf(s.get(), "%s", text.c_str()));
        EXPECT_EQ("before " + text.substr(0, 65535), TextOf(s));
    }
}

TEST_F(StringTest, WhatTheFormatterRefusesIsAppendedAsFarAsItCame) {
    const String s = Make("before ");
    const wchar_t impossible[] = {'o', 'k', static_cast<wchar_t>(0x12345678), 0};
    const unsigned int before = gRequestedMemoryAllocations;
    EXPECT_EQ(0, tq_string_sprintf(s.get(), "text %ls after", impossible));
    EXPECT_EQ(0u, TextOf(s).find("before text ")) << TextOf(s);
    EXPECT_EQ(std::string::npos, TextOf(s).find("after"));
    EXPECT_EQ(before, gRequestedMemoryAllocations) << "the second buffer is freed";
    AllowBytes(0);
    EXPECT_EQ(1, tq_string_sprintf(s.get(), "text %ls after", impossible));
    gMemoryCapInBytes = 0;
}

TEST_F(StringTest, AFormattedZeroByteEndsWhatIsAppended) {
    const String s = Make("before ");
    EXPECT_EQ(0, tq_string_sprintf(s.get(), "ab%ccd", 0));
    EXPECT_EQ("before ab", TextOf(s));
}

TEST_F(StringTest, AllByteValuesMayBeFormatted) {
    const String s = Make();
    std::string expected;
    for (int c = 1; c < 256; ++c) {
        EXPECT_EQ(0, tq_string_sprintf(s.get(), "%c%s", c, expected.substr(0, 1).c_str()));
        expected += static_cast<char>(c) + expected.substr(0, 1);
    }
    EXPECT_EQ(expected, TextOf(s));
}

TEST_F(StringTest, AStringsOwnTextMayBeFormattedIntoIt) {
    const String s = Make("ab", 3);
    EXPECT_EQ(0, tq_string_sprintf(s.get(), "<%s>", reinterpret_cast<char*>(tq_string_ptr(s.get(), 0))));
    EXPECT_EQ("ab<ab>", TextOf(s));
}

TEST_F(StringTest, ThreadsFormatIntoTheirStringsAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<unsigned int> wrong{0};
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([number, &wrong] {
            const std::string text(3000, static_cast<char>('a' + number));
            for (int round = 0; round < 200; ++round) {
                const String s = Make();
                tq_string_sprintf(s.get(), "%s&amp;%%41", text.c_str());
                tq_string_unescape(s.get(), false);
                wrong += std::string(reinterpret_cast<char*>(s->ptr)) == text + "&A" ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, wrong);
}

// Escaping

TEST_F(StringTest, EscapingForUrlsTreatsEveryByteByItsKind) {
    for (unsigned int c = 1; c < 256; ++c) {
        const std::string text(1, static_cast<char>(c));
        char expected[16];
        switch (c) {
        case ' ':
        case '=':
        case '\'':
            snprintf(expected, sizeof(expected), "%%%02X", c);
            break;
        case '&':
            strcpy(expected, "&amp;");
            break;
        case '<':
            strcpy(expected, "&lt;");
            break;
        case '>':
            strcpy(expected, "&gt;");
            break;
        case '"':
            strcpy(expected, "&quot;");
            break;
        default:
            snprintf(expected, sizeof(expected), c < 32 || c >= 127 || c == '@' ? "&#x%02X;" : "%c", c);
        }
        EXPECT_EQ(expected, Escaped(text)) << c;
    }
    EXPECT_EQ("a%20b%3Dc%27d", Escaped("a b=c'd"));
    EXPECT_EQ("&#x40;", Escaped("@"));
    EXPECT_EQ("&lt;&amp;&gt;", Escaped("<&>"));
}

TEST_F(StringTest, EscapingForXmlTouchesFiveCharactersOnly) {
    for (unsigned int c = 1; c < 256; ++c) {
        const std::string text(1, static_cast<char>(c));
        const std::string expected = c == '&'    ? "&amp;"
                                     : c == '<'  ? "&lt;"
                                     : c == '>'  ? "&gt;"
                                     : c == '"'  ? "&quot;"
                                     : c == '\'' ? "&apos;"
                                                 : text;
        EXPECT_EQ(expected, XmlEscaped(text)) << c;
    }
    EXPECT_EQ("a b &amp; c", XmlEscaped("a b & c"));
}

TEST_F(StringTest, EscapingCountsTheTerminatingZero) {
    for (const auto Escape : {tq_string_escape, tq_string_xmlEscape}) {
        for (const char* pszText : {"", "plain", "&&&&&&&&"}) {
            for (const unsigned int capacity : {9u, 1024u}) {
                const String s = Make(pszText, capacity);
                EXPECT_EQ(0, Escape(s.get()));
                EXPECT_EQ(strlen(reinterpret_cast<char*>(s->ptr)) + 1, s->bytesUsed);
                TextOf(s);
                EXPECT_EQ('\0', *tq_string_ptr(s.get(), s->bytesUsed)) << "readable to its very end";
            }
        }
        EXPECT_EQ(1, Escape(nullptr));
    }
}

TEST_F(StringTest, WhatIsAppendedAfterEscapingStandsBehindTheZero) {
    const String s = Make("a&");
    EXPECT_EQ(0, tq_string_xmlEscape(s.get()));
    EXPECT_EQ(0, tq_string_append(s.get(), "b"));
    EXPECT_EQ(std::string("a&amp;\0b", 8), TextOf(s));
    EXPECT_STREQ("a&amp;", reinterpret_cast<char*>(s->ptr));
}

TEST_F(StringTest, EscapingTwiceEscapesTheTextAndNotItsZero) {
    const String s = Make("@");
    EXPECT_EQ(0, tq_string_escape(s.get()));
    EXPECT_EQ(0, tq_string_escape(s.get()));
    EXPECT_EQ("&amp;#x40;", CountedText(s));
}

TEST_F(StringTest, ALongTextGrowsByAllThatItsEscapesNeed) {
    const std::string quotes(70000, '"');
    std::string expected;
    for (int i = 0; i < 70000; ++i) {
        expected += "&quot;";
    }
    EXPECT_EQ(expected, Escaped(quotes));
    EXPECT_EQ(expected, XmlEscaped(quotes));
    EXPECT_EQ(quotes, Unescaped(expected));
    EXPECT_EQ(quotes, XmlUnescaped(expected));
}

TEST_F(StringTest, TheBufferIsReplacedOnlyByALargerOne) {
    const String s = Make("a&b", 1024);
    EXPECT_EQ(0, tq_string_escape(s.get()));
    EXPECT_EQ(1024u, s->sizeInBytes);
    const String full(tq_string_duplicate("&&"));
    EXPECT_EQ(0, tq_string_escape(full.get()));
    EXPECT_EQ("&amp;&amp;", CountedText(full));
    EXPECT_EQ(0, tq_string_append(full.get(), "more"));
    EXPECT_EQ(std::string("&amp;&amp;\0more", 15), TextOf(full));
}

// Unescaping

TEST_F(StringTest, EveryNamedEntityIsRead) {
    EXPECT_EQ(" &<>\"'", XmlUnescaped("&nbsp;&amp;&lt;&gt;&quot;&apos;"));
    ASSERT_EQ(95u, sizeof(test::kLatinEntities) / sizeof(test::kLatinEntities[0]));
    for (unsigned int i = 0; i < 95; ++i) {
        const std::string entity = std::string("&") + test::kLatinEntities[i] + ";";
        const std::string expected(1, static_cast<char>(161 + i));
        EXPECT_EQ(expected, XmlUnescaped(entity)) << entity;
        EXPECT_EQ("<" + expected + ">", Unescaped("<" + entity + ">")) << entity;
        EXPECT_EQ(entity, Unescaped(entity, /*bNumericsOnly=*/true));
    }
    EXPECT_EQ("\xad", XmlUnescaped("&shy;")) << "173 has two names";
}

TEST_F(StringTest, ABlankIsReadFromNbspAndNeverWrittenAsIt) {
    EXPECT_EQ(" ", XmlUnescaped("&nbsp;"));
    EXPECT_EQ(" ", XmlEscaped(" "));
    EXPECT_EQ("%20", Escaped(" "));
}

TEST_F(StringTest, WhatIsNoKnownEntityStaysAsItIs) {
    for (const char* pszText :
         {"&", "&;", "&&", "&unknown;", "&amp", "&AMP;", "&am;", "&ampx;", "&aamp;", "& amp;", "&#38;", "&#x26;", "&#",
          "&#;", "a;b", "&verylongnamethatnoentityhas;", "&plusmnx;", "&amp\xff;", "&\xff\xff\xff;"}) {
        EXPECT_EQ(pszText, XmlUnescaped(pszText));
    }
    EXPECT_EQ("a & b & c", XmlUnescaped("a & b &amp; c")) << "one that opens nothing hides none that follows";
    EXPECT_EQ("&&", XmlUnescaped("&&amp;"));
    EXPECT_EQ("&lt;", XmlUnescaped("&amp;lt;")) << "read once";
}

TEST_F(StringTest, XmlUnescapingCountsTheTerminatingZero) {
    for (const char* pszText : {"", "plain", "&amp;&amp;"}) {
        const String s(tq_string_duplicate(pszText));
        EXPECT_EQ(0, tq_string_xmlUnEscape(s.get()));
        EXPECT_EQ(strlen(reinterpret_cast<char*>(s->ptr)) + 1, s->bytesUsed);
        CountedText(s);
        EXPECT_EQ('\0', *tq_string_ptr(s.get(), s->bytesUsed));
    }
    EXPECT_EQ(1, tq_string_xmlUnEscape(nullptr));
}

TEST_F(StringTest, AnExactFitGrowsForTheZeroThatCounts) {
    const String s(tq_string_duplicate("plain"));
    EXPECT_EQ(0, tq_string_xmlUnEscape(s.get()));
    EXPECT_EQ("plain", CountedText(s));
    EXPECT_EQ(12u, s->sizeInBytes);
    const String shrinking(tq_string_duplicate("&amp;"));
    EXPECT_EQ(0, tq_string_xmlUnEscape(shrinking.get()));
    EXPECT_EQ("&", CountedText(shrinking));
}

TEST_F(StringTest, PercentEscapesTakeTwoUpperCaseDigits) {
    struct Row {
        const char* pszText;
        const char* pszExpected;
    };
    for (const Row& row : {Row{"%4A", "J"},
                           {"%4a", "%4a"},
                           {"%4", "%4"},
                           {"%", "%"},
                           {"a%", "a%"},
                           {"%%41", "%A"},
                           {"%G0", "%G0"},
                           {"%0G", "%0G"},
                           {"%20%3D%27", " ='"},
                           {"%414", "A4"},
                           {"%FF", "\xff"},
                           {"%2541", "%41"},
                           {"%  ", "%  "}}) {
        EXPECT_EQ(row.pszExpected, Unescaped(row.pszText)) << row.pszText;
        EXPECT_EQ(row.pszText, Unescaped(row.pszText, /*bNumericsOnly=*/true));
        EXPECT_EQ(row.pszText, XmlUnescaped(row.pszText));
    }
}

TEST_F(StringTest, ReferencesOfEveryLengthAreRead) {
    struct Row {
        const char* pszText;
        const char* pszExpected;
    };
    const Row rows[] = {
        {"&#65;", "A"},
        {"&#x41;", "A"},
        {"&#x4a;&#x4A;", "JJ"},
        {"&#65", "A"},
        {"&#x41", "A"},
        {"&#65 B", "A B"},
        {"&#65;;", "A;"},
        {"&#6566;", "\xa6"}, // the low 8 bits of 6566
        {"&#x141;", "A"},    // and of 0x141
        {"&#9;", "\t"},
        {"&#255;&#x80;", "\xff\x80"},
        {"&#000000000000065;", "A"},     // fifteen digits
        {"&#0000000000000650;", "A0;"},  // the sixteenth is text
        {"&#x000000000000041;", "A"},    //
        {"&#x0000000000000410;", "A0;"}, //
        {"&#999999999999999;", "\xff"},  // 999999999999999 is 0x38D7EA4C67FFF
        {"&#xFFFFFFFFFFFFF41;", "A"},    //
        {"&#x41&#66", "AB"},
        {"&#65x;", "Ax;"},
        {"&#;", "&#;"},
        {"&#x;", "&#x;"},
        {"&#xg;", "&#xg;"},
        {"&#a;", "&#a;"},
        {"&#", "&#"},
        {"&#x", "&#x"},
        {"&", "&"},
        {"#65;", "#65;"},
        {"&&#65;", "&A"},
        {"&#-65;", "&#-65;"},
        {"&# 65;", "&# 65;"},
        {"&#38;#65;", "&#65;"}, // what comes out of a reference is not read again
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.pszExpected, Unescaped(row.pszText)) << row.pszText;
        EXPECT_EQ(row.pszExpected, Unescaped(row.pszText, /*bNumericsOnly=*/true)) << row.pszText;
        EXPECT_EQ(row.pszText, XmlUnescaped(row.pszText)) << "not for XML";
    }
}

TEST_F(StringTest, AReferenceWithAnUpperCaseXEndsTheText) {
    for (const bool bNumericsOnly : {false, true}) {
        EXPECT_EQ("ab", Unescaped("ab&#X41;cd", bNumericsOnly));
        EXPECT_EQ("ab", Unescaped("ab&#X", bNumericsOnly));
        EXPECT_EQ("", Unescaped("&#X41;", bNumericsOnly));
    }
}

TEST_F(StringTest, AZeroByteThatComesOutEndsTheText) {
    for (const char* pszText : {"ab%00cd", "ab&#0;cd", "ab&#x100;cd", "ab%00&#65;"}) {
        EXPECT_EQ("ab", Unescaped(pszText)) << pszText;
    }
    EXPECT_EQ("%00", Unescaped("%00", /*bNumericsOnly=*/true));
}

TEST_F(StringTest, AReferenceThatTheFirstPassBringsAboutIsReadByTheSecond) {
    EXPECT_EQ("A", Unescaped("&amp;#65;"));
    EXPECT_EQ("A", Unescaped("%26%23x41;"));
    EXPECT_EQ("&amp;", Unescaped("&amp;amp;"));
    EXPECT_EQ("&amp;#65;", Unescaped("&amp;#65;", /*bNumericsOnly=*/true));
}

TEST_F(StringTest, UnescapingGivesBackWhatWasEscaped) {
    std::string all;
    for (unsigned int c = 1; c < 256; ++c) {
        all += static_cast<char>(c);
    }
    const String s = Make(all, 300);
    EXPECT_EQ(0, tq_string_escape(s.get()));
    EXPECT_EQ(0, tq_string_unescape(s.get(), false));
    EXPECT_EQ(all, TextOf(s)) << "and the length is the text's own again";
    const String xml = Make(all, 300);
    EXPECT_EQ(0, tq_string_xmlEscape(xml.get()));
    EXPECT_EQ(0, tq_string_xmlUnEscape(xml.get()));
    EXPECT_EQ(all, CountedText(xml));
    EXPECT_EQ(1, tq_string_unescape(nullptr, false));
    EXPECT_EQ(1, tq_string_unescape(nullptr, true));
}

TEST_F(StringTest, WhatFollowsAZeroByteIsGoneAfterUnescaping) {
    const String s = Make("a&");
    EXPECT_EQ(0, tq_string_xmlEscape(s.get()));
    EXPECT_EQ(0, tq_string_append(s.get(), "b"));
    EXPECT_EQ(0, tq_string_unescape(s.get(), false));
    EXPECT_EQ("a&", TextOf(s));
}

// With the library's life

TEST_F(StringTest, TheEntitiesAreInAListThatReportsCanSee) {
    const tq_CritSecLock lock(gpListOfListsCritSec);
    for (const LISTOFLISTS* pRecord = gpListOfLists; pRecord; pRecord = pRecord->pNext) {
        const auto& state = tq_ListInside::StateOf(*pRecord->pList);
        if (state.pName && !strcmp(state.pName, "tqString Ampersand Escaping")) {
            EXPECT_EQ(102u, state.Count);
            ASSERT_NE(nullptr, state.pHash);
            EXPECT_EQ(1u, state.pHash->hashInstancesInUse);
            EXPECT_STREQ("AmpersandEscapeHash", state.pHash->pHashArray[0]->pszName);
            EXPECT_EQ(50u, state.pHash->pHashArray[0]->hashRange);
            // "amp": 97 + 109 + 112 = 318
            EXPECT_LT(0u, state.pHash->pHashArray[0]->BucketCounts()[318 % 50]);
            return;
        }
    }
    ADD_FAILURE() << "no such list";
}

TEST(StringLife, WithoutTheLibraryOnlyWhatNeedsItFails) {
    { const test::Library library; }
    const String s = Make("a&b", 8);
    EXPECT_EQ(0, tq_string_escape(s.get()));
    EXPECT_EQ("a&amp;b", CountedText(s));
    EXPECT_EQ(1, tq_string_xmlUnEscape(s.get()));
    EXPECT_EQ(1, tq_string_unescape(s.get(), false));
    EXPECT_EQ(1, tq_string_sprintf(s.get(), "%d", 7));
    EXPECT_EQ("a&amp;b", CountedText(s));
    EXPECT_EQ(0, tq_string_unescape(s.get(), true));
    EXPECT_EQ("a&amp;b", TextOf(s));
}

TEST_F(StringTest, AStartWithoutMemoryFailsAndLeavesNothing) {
    tq_StringTerminate();
    const unsigned int before = gRequestedMemoryAllocations;
    unsigned int step = 1;
    for (unsigned int bytes = 0;; bytes += step) {
        AllowBytes(bytes);
        const unsigned int result = tq_StringInitialize();
        gMemoryCapInBytes = 0;
        if (result == 0) {
            break;
        }
        EXPECT_EQ(1u, result);
        EXPECT_EQ(before, gRequestedMemoryAllocations) << bytes;
        step = bytes < 1000 ? 1 : 61;
    }
    EXPECT_EQ(0u, tq_StringInitialize()) << "once more changes nothing";
    EXPECT_EQ("&", XmlUnescaped("&amp;"));
}

TEST(StringLife, CallsThatRaceTheEndFailOrFinish) {
    for (int round = 0; round < 10; ++round) {
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        {
            test::Library library;
            for (int i = 0; i < 2; ++i) {
                threads.emplace_back([&stop] {
                    while (!stop) {
                        unsigned char buffer[64] = "&amp;%41&#66;";
                        TqString s = {64, 13, 51, buffer, nullptr};
                        const int result = tq_string_unescape(&s, false);
                        EXPECT_STREQ(result == 0 ? "&AB" : "&amp;%41&#66;", reinterpret_cast<char*>(buffer));
                    }
                });
            }
            tq_StringTerminate();
            EXPECT_EQ(0u, tq_StringInitialize());
            tq_StringTerminate();
        }
        stop = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}
