#include "tq_Lzw.h"

#include <algorithm>
#include <arpa/inet.h>
#include <map>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_Memory_p.h"

namespace {

constexpr unsigned int kHeaderBytes = 12;
constexpr unsigned int kEnd = 16383;

std::string Compress(const std::string& input) {
    char* pStream = nullptr;
    unsigned int length = 0;
    tq_lzwCompress(input.data(), static_cast<unsigned int>(input.size()), &pStream, &length);
    const std::string stream(pStream ? pStream : "", length);
    tq_free(pStream);
    return stream;
}

/// The expanded bytes; bOk says whether there were any.
std::string Expand(const std::string& stream, bool* pbOk) {
    char* pBytes = reinterpret_cast<char*>(1);
    unsigned int length = 1;
    // a copy on the heap: a sanitizer sees every byte read outside it
    std::vector<char> input(stream.begin(), stream.end());
    tq_lzwExpand(input.data(), static_cast<unsigned int>(input.size()), &pBytes, &length);
    *pbOk = pBytes != nullptr;
    EXPECT_EQ(*pbOk, length != 0);
    const std::string bytes(pBytes ? pBytes : "", length);
    tq_free(pBytes);
    return bytes;
}

void ExpectRoundTrip(const std::string& input) {
    bool bOk = false;
    const std::string back = Expand(Compress(input), &bOk);
    EXPECT_TRUE(bOk) << input.size();
    EXPECT_TRUE(back == input) << input.size();
}

/// The checksum as a decoder of another make would compute it.
unsigned int Sum(const std::string& bytes) {
    unsigned int sum = 0;
    for (const char c : bytes) {
        int extended = static_cast<unsigned char>(c);
        if (extended >= 128) {
            extended -= 256;
        }
        sum = ((sum << 5) | (sum >> 27)) ^ static_cast<unsigned int>(extended);
    }
    return sum;
}

/// A stream of these codes with a right header: 14 bits each, most significant first, the last partial byte dropped.
std::string StreamOf(const std::vector<unsigned int>& codes) {
    std::string bits;
    for (const unsigned int code : codes) {
        for (int bit = 13; bit >= 0; --bit) {
            bits.push_back((code >> bit & 1) != 0 ? '1' : '0');
        }
    }
    std::string body;
    for (size_t at = 0; at + 8 <= bits.size(); at += 8) {
        body.push_back(static_cast<char>(strtoul(bits.substr(at, 8).c_str(), nullptr, 2)));
    }
    const unsigned int length = htonl(static_cast<unsigned int>(kHeaderBytes + body.size()));
    const unsigned int sum = htonl(Sum(body));
    std::string stream("LZW\0", 4);
    stream.append(reinterpret_cast<const char*>(&length), 4);
    stream.append(reinterpret_cast<const char*>(&sum), 4);
    return stream + body;
}

/// The 14-bit codes of a stream, as many as are whole.
std::vector<unsigned int> CodesOf(const std::string& stream) {
    std::vector<unsigned int> codes;
    unsigned int bits = 0;
    unsigned int count = 0;
    for (size_t at = kHeaderBytes; at < stream.size(); ++at) {
        bits = bits << 8 | static_cast<unsigned char>(stream[at]);
        count += 8;
        if (count >= 14) {
            count -= 14;
            codes.push_back(bits >> count & 0x3FFF);
        }
    }
    return codes;
}

/// The codes of an input as the method has them, found in a map of whole strings.
std::vector<unsigned int> ExpectedCodes(const std::string& input) {
    std::map<std::string, unsigned int> table;
    for (unsigned int c = 0; c < 256; ++c) {
        table[std::string(1, static_cast<char>(c))] = c;
    }
    std::vector<unsigned int> codes;
    unsigned int next = 256;
    std::string string;
    for (const char c : input) {
        if (table.count(string + c) == 0) {
            codes.push_back(table[string]);
            if (next < kEnd) {
                table[string + c] = next++;
            }
            string.clear();
        }
        string += c;
    }
    codes.insert(codes.end(), {table[string], kEnd, 0});
    return codes;
}

/// What the codes stand for, found in a table of whole strings; false when they stand for nothing.
bool ExpectedBytes(const std::vector<unsigned int>& codes, std::string* pBytes) {
    std::vector<std::string> table;
    for (unsigned int c = 0; c < 256; ++c) {
        table.emplace_back(1, static_cast<char>(c));
    }
    pBytes->clear();
    std::string old;
    for (const unsigned int code : codes) {
        if (code == kEnd) {
            return !old.empty();
        }
        const bool bBeingDefined = code == table.size() && !old.empty();
        if (!bBeingDefined && code >= (old.empty() ? 256 : table.size())) {
            return false;
        }
        const std::string string = bBeingDefined ? old + old[0] : table[code];
        if (!old.empty() && table.size() < kEnd) {
            table.push_back(old + string[0]);
        }
        *pBytes += string;
        old = string;
    }
    return false;
}

/// A header that is right for these bytes.
std::string Sealed(std::string stream) {
    const unsigned int sum = htonl(Sum(stream.substr(kHeaderBytes)));
    memcpy(&stream[8], &sum, 4);
    return stream;
}

std::string RandomBytes(size_t count, unsigned int range) {
    std::string bytes(count, '\0');
    unsigned int seed = 12345;
    for (char& c : bytes) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>((seed >> 16) % range);
    }
    return bytes;
}

void ExpectRefused(const std::string& stream, const char* pszWhy) {
    bool bOk = true;
    Expand(stream, &bOk);
    EXPECT_FALSE(bOk) << pszWhy;
}

} // namespace

TEST(Lzw, ASingleByteBecomesSeventeenBytes) {
    const unsigned char kExpected[] = {'L', 'Z', 'W', 0, 0, 0, 0, 17, 0, 0, 0, 0, 0x01, 0x07, 0xFF, 0xF0, 0x00};
    std::string stream = Compress("A");
    ASSERT_EQ(17u, stream.size());
    const unsigned int sum = htonl(Sum(stream.substr(kHeaderBytes)));
    EXPECT_EQ(0, memcmp(stream.data() + 8, &sum, 4));
    stream.replace(8, 4, std::string(4, '\0'));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(kExpected), sizeof(kExpected)), stream);
}

TEST(Lzw, SmallInputsBecomeTheCodesWrittenOutByHand) {
    struct Row {
        const char* pszInput;
        std::vector<unsigned int> codes;
    };
    const Row kRows[] = {
        {"AB", {'A', 'B', kEnd, 0}},
        {"AAAA", {'A', 256, 'A', kEnd, 0}},
        {"AAA", {'A', 256, kEnd, 0}}, // 256 is used while it is being defined
        {"ABABABA", {'A', 'B', 256, 258, kEnd, 0}},
        {"TOBEORNOTTOBEORTOBEORNOT",
         {'T', 'O', 'B', 'E', 'O', 'R', 'N', 'O', 'T', 256, 258, 260, 265, 259, 261, 263, kEnd, 0}},
    };
    for (const Row& row : kRows) {
        EXPECT_EQ(StreamOf(row.codes), Compress(row.pszInput)) << row.pszInput;
        bool bOk = false;
        EXPECT_EQ(row.pszInput, Expand(StreamOf(row.codes), &bOk));
    }
}

TEST(Lzw, EmptyInputGivesLengthZeroAndLeavesTheOutputAlone) {
    char marker = 0;
    char* pOutput = &marker;
    unsigned int length = 5;
    tq_lzwCompress("", 0, &pOutput, &length);
    EXPECT_EQ(&marker, pOutput);
    EXPECT_EQ(0u, length);
}

TEST(Lzw, EveryByteValueComesBack) {
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all.push_back(static_cast<char>(value));
        ExpectRoundTrip(std::string(1, static_cast<char>(value)));
    }
    ExpectRoundTrip(all);
}

TEST(Lzw, ARepeatedByteUsesTheCodeBeingDefinedAndGrowsTheOutput) {
    ExpectRoundTrip(std::string(100000, 'x'));
}

TEST(Lzw, LengthsAroundEveryGrowthStepComeBack) {
    for (const unsigned int step : {65535u, 2 * 65535u, 3 * 65535u}) {
        for (int offset = -2; offset <= 2; ++offset) {
            ExpectRoundTrip(RandomBytes(step + static_cast<unsigned int>(offset), 7));
        }
    }
    // Streams whose own length crosses a step: noise grows by 14/8 when compressed.
    for (size_t length = 37430; length < 37460; ++length) {
        ExpectRoundTrip(RandomBytes(length, 256));
    }
}

TEST(Lzw, AFullTableGoesOnWithWhatItHasLearnt) {
    ExpectRoundTrip(RandomBytes(300000, 256));
    ExpectRoundTrip(RandomBytes(300000, 4));
}

TEST(Lzw, TheLastCodeOfATableIs16382AndNoneIsAddedThereafter) {
    // Noise that hardly repeats: about one new string a byte, so the table is full after some 16127 codes.
    for (const size_t length : {16100u, 16500u, 17000u, 60000u}) {
        for (const unsigned int range : {2u, 16u, 256u}) {
            const std::string input = RandomBytes(length * (range == 2 ? 12 : 2), range);
            const std::vector<unsigned int> codes = ExpectedCodes(input);
            EXPECT_TRUE(StreamOf(codes) == Compress(input)) << length << " of " << range;
        }
    }
    // All pairs of bytes, twice: the first time they fill the table in order, the second time the last code is used.
    std::string pairs;
    for (unsigned int first = 0; first < 256; ++first) {
        for (unsigned int second = 0; second < 256; ++second) {
            pairs += static_cast<char>(first);
            pairs += static_cast<char>(second);
        }
    }
    const std::string twice = pairs + pairs;
    const std::string stream = Compress(twice);
    EXPECT_TRUE(StreamOf(ExpectedCodes(twice)) == stream);
    const std::vector<unsigned int> codes = CodesOf(stream);
    EXPECT_NE(codes.end(), std::find(codes.begin(), codes.end(), 16382u));
    ExpectRoundTrip(twice);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kLargestInput = 8u << 20; // their heap moves a block at every step of its growth
#else
constexpr size_t kLargestInput = 64u << 20;
#endif

TEST(Lzw, LongInputsBecomeTheCodesThatALookUpOfEveryStringGives) {
    for (const unsigned int values : {2u, 17u, 256u}) { // strings long and short, and the table full for long
        const std::string input = RandomBytes(300000, values);
        std::map<std::pair<unsigned int, unsigned char>, unsigned int> strings;
        std::vector<unsigned int> codes;
        unsigned int string = static_cast<unsigned char>(input[0]);
        for (size_t i = 1; i < input.size(); ++i) {
            const unsigned char character = static_cast<unsigned char>(input[i]);
            const auto found = strings.find({string, character});
            if (found != strings.end()) {
                string = found->second;
                continue;
            }
            if (256 + strings.size() < kEnd) {
                strings.insert({{string, character}, static_cast<unsigned int>(256 + strings.size())});
            }
            codes.push_back(string);
            string = character;
        }
        codes.insert(codes.end(), {string, kEnd, 0});
        EXPECT_TRUE(StreamOf(codes) == Compress(input)) << values;
    }
}

TEST(Lzw, InputsOfEverySizeUpTo64MebibytesComeBack) {
    for (size_t length = 1; length < kLargestInput; length *= 8) {
        ExpectRoundTrip(RandomBytes(length, 20));
    }
    ExpectRoundTrip(RandomBytes(kLargestInput, 3));
}

/// The shortest piece of noise whose stream is at least so long.
size_t NoiseForStreamOf(size_t bytes) {
    size_t tooShort = 0;
    size_t enough = bytes;
    while (enough - tooShort > 1) {
        const size_t length = (tooShort + enough) / 2;
        (Compress(RandomBytes(length, 256)).size() < bytes ? tooShort : enough) = length;
    }
    return enough;
}

TEST(Lzw, StreamsWhoseLengthIsAroundAGrowthStepAreWhole) {
    for (const unsigned int step : {65535u, 2 * 65535u, 3 * 65535u, 8 * 65535u}) {
        const size_t length = NoiseForStreamOf(step - 2);
        for (size_t longer = 0; longer < 5; ++longer) {
            ExpectRoundTrip(RandomBytes(length + longer, 256));
        }
        EXPECT_GE(step, Compress(RandomBytes(length, 256)).size());
        EXPECT_LT(step, Compress(RandomBytes(length + 4, 256)).size());
    }
}

TEST(Lzw, TheLengthFieldIsWrittenButNotLookedAt) {
    std::string stream = Compress("some text, some text");
    unsigned int length = 0;
    memcpy(&length, stream.data() + 4, 4);
    EXPECT_EQ(stream.size(), ntohl(length));
    stream[4] = 'x';
    bool bOk = false;
    EXPECT_EQ("some text, some text", Expand(stream, &bOk));
}

TEST(Lzw, ChangingAnyByteBehindTheHeaderMakesExpansionReturnNothing) {
    const std::string stream = Compress("some text, some text");
    for (size_t at = kHeaderBytes; at < stream.size(); ++at) {
        std::string changed = stream;
        changed[at] = static_cast<char>(changed[at] ^ 0x20);
        ExpectRefused(changed, "changed byte");
    }
}

TEST(Lzw, WhatIsNoStreamExpandsToNothing) {
    ExpectRefused("", "empty");
    ExpectRefused(std::string("LZW\0\0\0\0\0\0\0\0\0", 12), "a header alone");
    std::string stream = Compress("text");
    stream[3] = ' ';
    ExpectRefused(stream, "no zero byte behind the magic");
    stream = Compress("text");
    stream[0] = 'l';
    ExpectRefused(stream, "wrong magic");
    for (size_t length = 0; length < stream.size(); ++length) {
        ExpectRefused(stream.substr(0, length), "cut short");
    }
}

TEST(Lzw, AForgedStreamWithARightChecksumIsStillChecked) {
    ExpectRefused(StreamOf({256, kEnd, 0}), "the first code is no byte");
    ExpectRefused(StreamOf({kEnd, 0}), "nothing but the end");
    ExpectRefused(StreamOf({'A', 257, kEnd, 0}), "a code not yet defined");
    ExpectRefused(StreamOf({'A', 16382, kEnd, 0}), "a code far from defined");
    ExpectRefused(StreamOf({'A', 'B', 256, 257}), "no end mark");
    ExpectRefused(StreamOf({'A'}), "the input ends inside the first code");
    bool bOk = false;
    EXPECT_EQ("AB", Expand(StreamOf({'A', 'B', kEnd, 0}), &bOk));
    EXPECT_TRUE(bOk);
}

TEST(Lzw, AStreamThatEndsEarlyGivesNothingWhereverItEnds) {
    const std::string stream = Compress("some text, some text, some other text");
    for (size_t length = kHeaderBytes + 1; length < stream.size(); ++length) {
        const std::string cut = Sealed(stream.substr(0, length));
        std::string expected;
        const bool bWhole = ExpectedBytes(CodesOf(cut), &expected); // up to one byte only pushed the end mark out
        bool bOk = false;
        EXPECT_EQ(bWhole ? expected : "", Expand(cut, &bOk)) << length;
        EXPECT_EQ(bWhole, bOk) << length;
    }
}

TEST(Lzw, WhateverAForgedStreamHoldsOnlyWhatItsCodesStandForComesOut) {
    unsigned int expanded = 0;
    for (unsigned int round = 0; round < 3000; ++round) {
        std::string stream = Compress(RandomBytes(1 + round % 300, 2 + round % 20));
        const std::string noise = RandomBytes(8 + round, 256);
        for (unsigned int change = 0; change < 1 + round % 3; ++change) {
            const size_t at = static_cast<unsigned char>(noise[round + change]) * 256u +
                              static_cast<unsigned char>(noise[round + change + 1]);
            stream[kHeaderBytes + at % (stream.size() - kHeaderBytes)] = noise[round + change + 2];
        }
        std::string expected;
        const bool bExpected = ExpectedBytes(CodesOf(stream), &expected);
        bool bOk = false;
        const std::string bytes = Expand(Sealed(stream), &bOk);
        EXPECT_EQ(bExpected, bOk) << round;
        EXPECT_TRUE(bytes == (bExpected ? expected : "")) << round;
        expanded += bOk ? 1 : 0;
    }
    EXPECT_LT(100u, expanded); // some are changed into streams of something else
    EXPECT_GT(2900u, expanded);
    for (unsigned int length = 1; length < 300; ++length) {
        bool bOk = false;
        std::string expected;
        const std::string noise = Sealed(std::string("LZW\0........", 12) + RandomBytes(length, 256));
        EXPECT_EQ(ExpectedBytes(CodesOf(noise), &expected), (Expand(noise, &bOk), bOk)) << length;
    }
}

TEST(Lzw, AStringOfFourThousandNinetySixBytesIsTheLongest) {
    // Equal bytes: each code's string is one byte longer than that of the code before it.
    std::vector<unsigned int> codes = {'A'};
    for (unsigned int code = 256; code < 256 + 4095; ++code) {
        codes.push_back(code); // the one being defined each time
    }
    std::vector<unsigned int> ended = codes;
    ended.insert(ended.end(), {kEnd, 0});
    bool bOk = false;
    EXPECT_EQ(std::string(4096u * 4097 / 2, 'A'), Expand(StreamOf(ended), &bOk));
    codes.insert(codes.end(), {256 + 4095, kEnd, 0});
    Expand(StreamOf(codes), &bOk);
    EXPECT_TRUE(bOk); // 4097 bytes while being defined: its own first byte and the 4096 of the old one
    codes.insert(codes.end() - 2, 256 + 4095);
    ExpectRefused(StreamOf(codes), "a string of 4097 bytes looked up");
}

TEST(Lzw, MillionsOfEqualBytesCompressButDoNotExpand) {
    const std::string stream = Compress(std::string(9000000, 'z'));
    EXPECT_LT(stream.size(), 10000u);
    ExpectRefused(stream, "strings beyond the bound");
}

/// The module of memory with a cap, in a directory of its own. With pools the cap also holds for what grows.
class CappedMemory {
public:
    explicit CappedMemory(unsigned int bytes) {
        test::WriteFile("tqos.ini", "[Memory]\nEnableMemoryTracking=yes\nEnableMemoryPooling=yes\nMemoryCapInBytes=" +
                                        std::to_string(bytes) + "\n");
        EXPECT_EQ(0u, tq_BaseInitialize());
        EXPECT_EQ(0u, tq_MemoryInitialize());
    }
    ~CappedMemory() {
        EXPECT_EQ(0u, gRequestedMemoryAllocations) << "lost";
        tq_MemoryTerminate(/*bDumpResources=*/false);
        test::WriteFile("tqos.ini", "");
        tq_MemoryInitialize();
        tq_BaseTerminate();
    }

private:
    test::ScratchDirectory m_directory;
};

TEST(Lzw, AForgedStreamThatGrowsBeyondTheMemoryGivesNothing) {
    // Of equal bytes, then the longest string over and over: 14 bits for each 4096 bytes.
    std::vector<unsigned int> codes = {'A'};
    for (unsigned int code = 256; code < 256 + 4095; ++code) {
        codes.push_back(code);
    }
    codes.insert(codes.end(), 1000, 256 + 4094);
    codes.insert(codes.end(), {kEnd, 0});
    const std::string stream = StreamOf(codes);
    EXPECT_GT(10000u, stream.size());
    {
        const CappedMemory memory(10000000);
        ExpectRefused(stream, "more than there is memory for");
    }
    bool bOk = false;
    EXPECT_EQ(4096u * 4097 / 2 + 1000 * 4096, Expand(stream, &bOk).size());
    EXPECT_TRUE(bOk);
}

TEST(Lzw, NoMemoryForALaterStepGivesNullAndZeroAndLosesNothing) {
    const std::string input = RandomBytes(300000, 256);
    const std::string stream = Compress(input);
    for (const unsigned int cap : {100000u, 250000u, 500000u}) {
        const CappedMemory memory(cap);
        char* pOutput = reinterpret_cast<char*>(1);
        unsigned int length = 1;
        tq_lzwCompress(input.data(), static_cast<unsigned int>(input.size()), &pOutput, &length);
        EXPECT_EQ(nullptr, pOutput) << cap;
        EXPECT_EQ(0u, length) << cap;
        ExpectRefused(stream, "no memory for a later step");
    }
}

TEST(Lzw, NoMemoryGivesNullAndZero) {
    const std::string stream = Compress("some text");
    const CappedMemory memory(1000);
    char* pOutput = reinterpret_cast<char*>(1);
    unsigned int length = 1;
    tq_lzwCompress("some text", 9, &pOutput, &length);
    EXPECT_EQ(nullptr, pOutput);
    EXPECT_EQ(0u, length);
    ExpectRefused(stream, "no memory for the bytes");
}
