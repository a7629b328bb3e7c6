#include "tq_Lzw.h"

#include <arpa/inet.h>
#include <stddef.h>
#include <string.h>

#include "tq_Memory.h"

static_assert(sizeof(tqLZW_HEADER) == 12 && offsetof(tqLZW_HEADER, crc) == 8, "the header is part of the stream");

namespace {

constexpr unsigned int kCodeBits = 14;
constexpr unsigned int kTableSize = 18041; // a prime above 2^14, for the double probing
constexpr unsigned int kEndCode = 16383;
constexpr unsigned int kFirstFreeCode = 256;
constexpr unsigned int kHashShift = 6;
constexpr unsigned int kGrowthBytes = 65535;
constexpr unsigned int kMaxStringSteps = 4095;
constexpr char kMagic[] = "LZW";

// Shared by both directions; only one call runs at a time.
int code_value[kTableSize];                      // compressor: the code of a hash slot, -1 when empty
unsigned int prefix_code[kTableSize];            // by hash slot when compressing, by code when expanding
unsigned char append_character[kTableSize];      // likewise
unsigned char decode_stack[kMaxStringSteps + 2]; // a string reversed: one byte ahead of it, its steps and its last byte

/// The output while it grows, in steps of 65535 bytes. After a failed allocation it takes nothing more.
class Output {
public:
    ~Output() { tq_free(m_pBytes); }

    void Put(unsigned int value) {
        if (m_length % kGrowthBytes == 0 && !Grow()) {
            return;
        }
        m_pBytes[m_length++] = static_cast<char>(value);
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
        return true;
    }

    char* m_pBytes = nullptr;
    unsigned int m_length = 0;
    bool m_bFailed = false;
};

/// Packs codes into bytes, most significant bit first.
class CodeWriter {
public:
    explicit CodeWriter(Output& output) : m_output(output) {}

    void Write(unsigned int code) {
        m_bits |= code << (32 - kCodeBits - m_bitCount);
        m_bitCount += kCodeBits;
        while (m_bitCount >= 8) {
            m_output.Put(m_bits >> 24);
            m_bits <<= 8;
            m_bitCount -= 8;
        }
    }

private:
    Output& m_output;
    unsigned int m_bits = 0;
    unsigned int m_bitCount = 0;
};

/// Takes codes from bytes; says no when fewer bits than a code are left.
class CodeReader {
public:
    CodeReader(const unsigned char* pInput, unsigned int length) : m_pInput(pInput), m_pEnd(pInput + length) {}

    bool Read(unsigned int* pCode) {
        while (m_bitCount <= 24 && m_pInput < m_pEnd) {
            m_bits |= static_cast<unsigned int>(*m_pInput++) << (24 - m_bitCount);
            m_bitCount += 8;
        }
        if (m_bitCount < kCodeBits) {
            return false;
        }
        *pCode = m_bits >> (32 - kCodeBits);
        m_bits <<= kCodeBits;
        m_bitCount -= kCodeBits;
        return true;
    }

private:
    const unsigned char* m_pInput;
    const unsigned char* m_pEnd;
    unsigned int m_bits = 0;
    unsigned int m_bitCount = 0;
};

/// A rotating sum. Bytes count as signed: one from 0x80 on flips the upper 24 bits too.
unsigned int Checksum(const char* pBytes, unsigned int length) {
    unsigned int sum = 0;
    for (unsigned int i = 0; i < length; ++i) {
        sum = (sum << 5 | sum >> 27) ^ static_cast<unsigned int>(static_cast<signed char>(pBytes[i]));
    }
    return sum;
}

/// The slot that holds the string "prefix, character", or the empty slot where it belongs.
unsigned int FindMatch(unsigned int prefix, unsigned int character) {
    unsigned int index = prefix ^ (character << kHashShift);
    const unsigned int step = index == 0 ? 1 : kTableSize - index;
    while (code_value[index] != -1 && (prefix_code[index] != prefix || append_character[index] != character)) {
        index = index >= step ? index - step : index + kTableSize - step;
    }
    return index;
}

void CompressCodes(const unsigned char* pInput, unsigned int length, Output& output) {
    memset(code_value, 0xFF, sizeof(code_value));
    CodeWriter writer(output);
    unsigned int nextCode = kFirstFreeCode;
    unsigned int string = pInput[0];
    for (unsigned int i = 1; i < length; ++i) {
        const unsigned int character = pInput[i];
        const unsigned int slot = FindMatch(string, character);
        if (code_value[slot] != -1) {
            string = static_cast<unsigned int>(code_value[slot]);
            continue;
        }
        if (nextCode < kEndCode) {
            code_value[slot] = static_cast<int>(nextCode++);
            prefix_code[slot] = string;
            append_character[slot] = static_cast<unsigned char>(character);
        }
        writer.Write(string);
        string = character;
    }
    writer.Write(string);
    writer.Write(kEndCode);
    writer.Write(0); // pushes the last bits of the end mark out; the rest of its own bits is dropped
}

/// Writes a code's string into the buffer, last byte first; the position of its first byte, or null when it is longer
/// than any string may be.
unsigned char* DecodeString(unsigned char* pBuffer, unsigned int code) {
    for (unsigned int steps = 0; code >= kFirstFreeCode; ++steps) {
        if (steps >= kMaxStringSteps) {
            return nullptr;
        }
        *pBuffer++ = append_character[code];
        code = prefix_code[code];
    }
    *pBuffer = static_cast<unsigned char>(code);
    return pBuffer;
}

/// Puts out a decoded string: from its first byte, the last in the buffer, down to the buffer's start.
void PutReversed(const unsigned char* pFirst, Output& output) {
    for (size_t left = static_cast<size_t>(pFirst - decode_stack) + 1; left > 0; --left) {
        output.Put(decode_stack[left - 1]);
    }
}

/// Expands the codes; false when one cannot stand where it does or the end mark is missing.
bool ExpandCodes(CodeReader reader, Output& output) {
    unsigned int oldCode = 0;
    if (!reader.Read(&oldCode) || oldCode >= kFirstFreeCode) {
        return false;
    }
    unsigned char character = static_cast<unsigned char>(oldCode);
    output.Put(character);
    unsigned int nextCode = kFirstFreeCode;
    unsigned int newCode = 0;
    while (!output.Failed() && reader.Read(&newCode)) {
        if (newCode == kEndCode) {
            return true;
        }
        if (newCode > nextCode) {
            return false;
        }
        unsigned char* pFirst;
        if (newCode == nextCode) { // the string that is just being defined: the old one and its own first byte
            decode_stack[0] = character;
            pFirst = DecodeString(decode_stack + 1, oldCode);
        } else {
            pFirst = DecodeString(decode_stack, newCode);
        }
        if (!pFirst) {
            return false;
        }
        character = *pFirst;
        PutReversed(pFirst, output);
        if (nextCode < kEndCode) {
            prefix_code[nextCode] = oldCode;
            append_character[nextCode] = character;
            ++nextCode;
        }
        oldCode = newCode;
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
    CompressCodes(reinterpret_cast<const unsigned char*>(input), inlen, stream);
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
