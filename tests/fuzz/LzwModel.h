/// @file LzwModel.h
/// The compressed stream as a second encoder and decoder understand it: tables of whole strings, codes as numbers.
#ifndef LZW_MODEL_H
#define LZW_MODEL_H

#include <string>
#include <unordered_map>
#include <vector>

#include "Fuzz.h"

namespace lzw {

constexpr unsigned int kEnd = 16383;
constexpr unsigned int kFirstFree = 256;
constexpr unsigned int kCodeBits = 14;
constexpr size_t kLongest = 4096; // bytes of a string that is expanded

inline std::string Number(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 255);
    }
    return bytes;
}

inline uint32_t Checksum(const std::string& bytes) {
    uint32_t sum = 0;
    for (const char byte : bytes) {
        const uint32_t extended = static_cast<unsigned char>(byte) | (byte & 0x80 ? 0xFFFFFF00u : 0u);
        sum = (sum << 5 | sum >> 27) ^ extended;
    }
    return sum;
}

/// A stream with these bytes behind its header, whatever they are, and a checksum that is right.
inline std::string Stream(const std::string& codes) {
    return std::string("LZW\0", 4) + Number(static_cast<uint32_t>(codes.size() + 12)) + Number(Checksum(codes)) + codes;
}

/// Codes as bytes; the last bits that fill no byte are dropped.
inline std::string Packed(const std::vector<unsigned int>& codes) {
    std::string bytes;
    uint64_t bits = 0;
    unsigned int count = 0;
    for (const unsigned int code : codes) {
        bits = bits << kCodeBits | code;
        for (count += kCodeBits; count >= 8; count -= 8) {
            bytes += static_cast<char>(bits >> (count - 8) & 255);
        }
    }
    return bytes;
}

/// Bytes as codes, those that are whole.
inline std::vector<unsigned int> Unpacked(const std::string& bytes) {
    std::vector<unsigned int> codes;
    uint64_t bits = 0;
    unsigned int count = 0;
    for (const char byte : bytes) {
        bits = bits << 8 | static_cast<unsigned char>(byte);
        count += 8;
        if (count >= kCodeBits) {
            count -= kCodeBits;
            codes.push_back(static_cast<unsigned int>(bits >> count) & (1u << kCodeBits) - 1);
        }
    }
    return codes;
}

inline std::vector<unsigned int> Encoded(const std::string& bytes) {
    std::unordered_map<unsigned int, unsigned int> table; // by the code of all but the last byte, and that byte
    std::vector<unsigned int> codes;
    unsigned int next = kFirstFree;
    unsigned int string = static_cast<unsigned char>(bytes[0]);
    for (size_t i = 1; i < bytes.size(); ++i) {
        const unsigned int byte = static_cast<unsigned char>(bytes[i]);
        const auto found = table.find(string << 8 | byte);
        if (found != table.end()) {
            string = found->second;
            continue;
        }
        codes.push_back(string);
        if (next < kEnd) {
            table[string << 8 | byte] = next++;
        }
        string = byte;
    }
    codes.insert(codes.end(), {string, kEnd, 0});
    return codes;
}

/// What the codes stand for; false when they stand for nothing.
inline bool Decoded(const std::vector<unsigned int>& codes, std::string* pBytes) {
    std::vector<std::string> table;
    for (unsigned int byte = 0; byte < kFirstFree; ++byte) {
        table.emplace_back(1, static_cast<char>(byte));
    }
    if (codes.empty() || codes[0] >= kFirstFree) {
        return false;
    }
    std::string old = table[codes[0]];
    *pBytes = old;
    for (size_t i = 1; i < codes.size(); ++i) {
        if (codes[i] == kEnd) {
            return true;
        }
        if (codes[i] > table.size()) {
            return false;
        }
        // The string that is just being defined may only be as long as its own buffer, where it stands behind a byte.
        const std::string string = codes[i] == table.size() ? old + old[0] : table[codes[i]];
        if ((codes[i] == table.size() ? old : string).size() > kLongest) {
            return false;
        }
        *pBytes += string;
        if (table.size() < kEnd) {
            table.push_back(old + string[0]);
        }
        old = string;
    }
    return false;
}

} // namespace lzw

#endif // LZW_MODEL_H
