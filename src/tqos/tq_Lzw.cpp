#include "tq_Lzw.h"

#include <arpa/inet.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "tq_Memory.h"

static_assert(sizeof(tqLZW_HEADER) == 12 && offsetof(tqLZW_HEADER, crc) == 8, "the header is part of the stream");

namespace {

constexpr unsigned int kCodeBits = 14;
constexpr unsigned int kEndCode = 16383;
constexpr unsigned int kFirstFreeCode = 256;
constexpr unsigned int kGrowthBytes = 65535;
constexpr unsigned int kLongestString = 4096; // of those that can be expanded
constexpr char kMagic[] = "LZW";

constexpr unsigned int kSlotBits = 16; // four times as many slots as codes, so that few strings meet in one
constexpr unsigned int kSlots = 1u << kSlotBits;
constexpr unsigned int kPairs = 256 * 256;

/// The compressor's strings, each a code of a shorter string and one byte more, which together are its key. Those of
/// two bytes, which are looked for most often, are found without a hash: their key is their place.
struct Strings {
    unsigned short pairs[kPairs]; // by key: a code, 0 when there is none
    unsigned short slots[kSlots]; // the longer strings by a hash of the key, likewise
    unsigned int keys[kEndCode];  // by code
};

/// The expander's strings: each has come out before, at this place of the output.
struct Place {
    unsigned int offset;
    unsigned int length;
};

// Shared by both directions; only one call runs at a time.
union Tables {
    Strings strings;
    Place places[kEndCode]; // by code
};
Tables gTables;

/// The output while it grows, in steps of 65535 bytes. After a failed allocation it takes nothing more.
class Output {
public:
    ~Output() { tq_free(m_pBytes); }

    void Put(unsigned int value) {
        if (m_length == m_capacity && !Grow()) {
            return;
        }
        m_pBytes[m_length++] = static_cast<char>(value);
    }

    /// Puts two bytes out, the upper one first.
    void PutTwo(unsigned int value) {
        if (m_capacity - m_length < 2) {
            Put(value >> 8);
            Put(value);
            return;
        }
        const uint16_t bytes = htons(static_cast<uint16_t>(value));
        memcpy(m_pBytes + m_length, &bytes, sizeof(bytes));
        m_length += static_cast<unsigned int>(sizeof(bytes));
    }

    /// Puts out again what was put out before.
    void PutAgain(const Place& place) {
        const unsigned int room = m_capacity - m_length;
        if (room < place.length + kPiece) {
            PutAgainByBytes(place);
            return;
        }
        const char* pFrom = m_pBytes + place.offset;
        char* pTo = m_pBytes + m_length;
        m_length += place.length;
        // In whole pieces: what the last one writes too much is written over by what comes next.
        for (const char* pEnd = pFrom + place.length; pFrom < pEnd; pFrom += kPiece, pTo += kPiece) {
            char piece[kPiece];
            memcpy(piece, pFrom, kPiece);
            memcpy(pTo, piece, kPiece);
        }
    }

    bool Failed() const { return m_bFailed; }
    char* Bytes() { return m_pBytes; }
    unsigned int Length() const { return m_length; }

    char* Release() {
        char* pBytes = m_pBytes;
        m_pBytes = nullptr;
        return pBytes;
    }

private:
    static constexpr unsigned int kPiece = 8;

    void PutAgainByBytes(const Place& place) {
        for (unsigned int i = 0; i < place.length && !m_bFailed; ++i) {
            Put(static_cast<unsigned char>(m_pBytes[place.offset + i]));
        }
    }

    bool Grow() {
        if (m_bFailed || m_length > 0xFFFFFFFFu - kGrowthBytes) {
            m_bFailed = true;
            return false;
        }
        void* pLarger = tq_realloc(m_pBytes, m_length + kGrowthBytes);
        if (!pLarger) {
            m_bFailed = true;
            return false;
        }
        m_pBytes = static_cast<char*>(pLarger);
        m_capacity = m_length + kGrowthBytes;
        return true;
    }

    char* m_pBytes = nullptr;
    unsigned int m_length = 0;
    unsigned int m_capacity = 0;
    bool m_bFailed = false;
};

/// Packs codes into bytes, most significant bit first.
class CodeWriter {
public:
    explicit CodeWriter(Output& output) : m_output(output) {}

    void Write(unsigned int code) {
        m_bits = m_bits << kCodeBits | code;
        m_bitCount += kCodeBits;
        if (m_bitCount >= 16) {
            m_bitCount -= 16;
            m_output.PutTwo(m_bits >> m_bitCount & 0xFFFF);
        }
    }

    /// Writes the end mark, and puts out what has not been.
    void End() {
        Write(kEndCode);
        Write(0); // pushes the last bits of the end mark out; the rest of its own bits is dropped
        if (m_bitCount >= 8) {
            m_output.Put(m_bits >> (m_bitCount - 8) & 0xFF);
        }
    }

private:
    Output& m_output;
    unsigned int m_bits = 0;     // the newest lowest; those that have been put out are shifted away in time
    unsigned int m_bitCount = 0; // not yet put out
};

/// Takes codes from bytes; says no when fewer bits than a code are left.
class CodeReader {
public:
    CodeReader(const unsigned char* pInput, unsigned int length) : m_pInput(pInput), m_pEnd(pInput + length) {}

    bool Read(unsigned int* pCode) {
        const size_t left = static_cast<size_t>(m_pEnd - m_pInput);
        if (left < 3 && left * 8 < m_usedBits + kCodeBits) {
            return false;
        }
        const unsigned int third = left < 3 ? 0 : m_pInput[2];
        const unsigned int bits = static_cast<unsigned int>(m_pInput[0]) << 16 | m_pInput[1] << 8 | third;
        *pCode = bits >> (24 - kCodeBits - m_usedBits) & kEndCode;
        m_usedBits += kCodeBits;
        m_pInput += m_usedBits / 8;
        m_usedBits %= 8;
        return true;
    }

private:
    const unsigned char* m_pInput;
    const unsigned char* m_pEnd;
    unsigned int m_usedBits = 0; // of the first byte; even, so that no code reaches into a fourth
};

unsigned int RotatedLeft(unsigned int value, unsigned int bits) {
    return value << bits | value >> (32 - bits);
}

/// A rotating sum: of each byte, rotated by five bits for each byte behind it. Bytes count as signed: one from 0x80 on
/// flips the upper 24 bits too. A byte 32 places on is rotated alike, so the bytes of a column may be summed up first.
unsigned int Checksum(const char* pBytes, unsigned int length) {
    constexpr unsigned int kColumns = 32;
    const char* const pRest = pBytes + length / kColumns * kColumns;
    uint64_t words[kColumns / sizeof(uint64_t)] = {};
    const char* pNext = pBytes;
    for (; pNext < pRest; pNext += kColumns) {
        uint64_t row[kColumns / sizeof(uint64_t)];
        memcpy(row, pNext, kColumns);
        for (unsigned int i = 0; i < kColumns / sizeof(uint64_t); ++i) {
            words[i] ^= row[i];
        }
    }
    signed char columns[kColumns];
    memcpy(columns, words, kColumns);
    unsigned int sum = 0;
    for (const signed char column : columns) {
        sum = RotatedLeft(sum, 5) ^ static_cast<unsigned int>(column);
    }
    for (; pNext < pBytes + length; ++pNext) {
        sum = RotatedLeft(sum, 5) ^ static_cast<unsigned int>(static_cast<signed char>(*pNext));
    }
    return sum;
}

/// The slot of the longer string with this key, or the empty one where it belongs.
unsigned short* FindSlot(Strings& strings, unsigned int key) {
    unsigned int index = key * 2654435769u >> (32 - kSlotBits);
    while (strings.slots[index] != 0 && strings.keys[strings.slots[index]] != key) {
        index = (index + 1) % kSlots;
    }
    return &strings.slots[index];
}

/// Makes codes of bytes. Whoever looks for a string knows whether it has two bytes or more, which is why these are two
/// loops: the processor learns better what to expect in each.
class Compressor {
public:
    explicit Compressor(Output& output) : m_writer(output) {
        memset(m_strings.pairs, 0, sizeof(m_strings.pairs));
        memset(m_strings.slots, 0, sizeof(m_strings.slots));
    }

    void Compress(const unsigned char* pInput, unsigned int length) {
        const unsigned char* const pEnd = pInput + length;
        unsigned int string = *pInput++;
        while (pInput < pEnd) {
            const unsigned int pair = string << 8 | *pInput++;
            string = Extend(&m_strings.pairs[pair], pair);
            while (string >= kFirstFreeCode && pInput < pEnd) {
                const unsigned int key = string << 8 | *pInput++;
                string = Extend(FindSlot(m_strings, key), key);
            }
        }
        m_writer.Write(string);
        m_writer.End();
    }

private:
    /// The string with this key when it has been seen before. Otherwise it is kept, as long as there are codes, the one
    /// without its last byte is put out, and that byte begins the next.
    unsigned int Extend(unsigned short* pPlace, unsigned int key) {
        if (*pPlace != 0) {
            return *pPlace;
        }
        if (m_nextCode < kEndCode) {
            m_strings.keys[m_nextCode] = key;
            *pPlace = static_cast<unsigned short>(m_nextCode++);
        }
        m_writer.Write(key >> 8);
        return key & 0xFF;
    }

    Strings& m_strings = gTables.strings;
    CodeWriter m_writer;
    unsigned int m_nextCode = kFirstFreeCode;
};

/// Expands the codes; false when one cannot stand where it does or the end mark is missing.
bool ExpandCodes(CodeReader reader, Output& output) {
    Place* const places = gTables.places;
    unsigned int code = 0;
    if (!reader.Read(&code) || code >= kFirstFreeCode) {
        return false;
    }
    output.Put(code);
    Place last = {0, 1}; // where the string before came out
    unsigned int nextCode = kFirstFreeCode;
    while (!output.Failed() && reader.Read(&code)) {
        if (code == kEndCode) {
            return true;
        }
        const unsigned int offset = output.Length();
        Place string = {offset, 1};
        if (code < kFirstFreeCode) {
            output.Put(code);
        } else if (code < nextCode) {
            string.length = places[code].length;
            if (string.length > kLongestString) {
                return false;
            }
            output.PutAgain(places[code]);
        } else if (code == nextCode && last.length <= kLongestString) { // just being defined: the string before and its
            output.PutAgain(last);                                      // own first byte
            output.PutAgain({last.offset, 1});
            string.length = last.length + 1;
        } else {
            return false;
        }
        if (nextCode < kEndCode) { // the string before and the first byte of this one, which came out behind it
            places[nextCode++] = {last.offset, last.length + 1};
        }
        last = string;
    }
    return false;
}

} // namespace

void tq_lzwCompress(const char* input, unsigned int inlen, char** output, unsigned int* outlen) {
    *outlen = 0;
    if (inlen == 0) {
        return;
    }
    Output stream;
    for (unsigned int i = 0; i < sizeof(tqLZW_HEADER); ++i) {
        stream.Put(i < sizeof(kMagic) ? static_cast<unsigned int>(kMagic[i]) : 0);
    }
    Compressor(stream).Compress(reinterpret_cast<const unsigned char*>(input), inlen);
    if (stream.Failed()) {
        *output = nullptr;
        return;
    }
    const unsigned int length = htonl(stream.Length());
    const unsigned int sum = htonl(Checksum(stream.Bytes() + sizeof(tqLZW_HEADER),
                                            stream.Length() - static_cast<unsigned int>(sizeof(tqLZW_HEADER))));
    memcpy(stream.Bytes() + offsetof(tqLZW_HEADER, DataLen), &length, sizeof(length));
    memcpy(stream.Bytes() + offsetof(tqLZW_HEADER, crc), &sum, sizeof(sum));
    *outlen = stream.Length();
    *output = stream.Release();
}

void tq_lzwExpand(const char* input, unsigned int inlen, char** output, unsigned int* outlen) {
    *output = nullptr;
    *outlen = 0;
    if (inlen <= sizeof(tqLZW_HEADER) || memcmp(input, kMagic, sizeof(kMagic)) != 0) {
        return;
    }
    tqLZW_HEADER header;
    memcpy(&header, input, sizeof(header));
    const char* pCodes = input + sizeof(header);
    const unsigned int codeBytes = inlen - static_cast<unsigned int>(sizeof(header));
    if (Checksum(pCodes, codeBytes) != ntohl(header.crc)) {
        return;
    }
    Output bytes;
    if (ExpandCodes(CodeReader(reinterpret_cast<const unsigned char*>(pCodes), codeBytes), bytes) && !bytes.Failed()) {
        *outlen = bytes.Length();
        *output = bytes.Release();
    }
}
