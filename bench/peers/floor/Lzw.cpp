// What the machine allows of LZW with 14-bit codes and a table that is filled once: no headers, no checks.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "LzwBench.h"

namespace {

constexpr unsigned int kFirstFree = 256;
constexpr unsigned int kEnd = 16383;
constexpr unsigned int kBits = 14;

/// Memory that doubles when it is full.
class Output {
public:
    explicit Output(std::size_t room) : m_p(static_cast<char*>(malloc(room))), m_room(room) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    /// @return where the next byte goes; there is room for so many
    char* Reserve(std::size_t bytes) {
        if (length + bytes > m_room) {
            m_room = m_room * 2 + bytes;
            m_p = static_cast<char*>(realloc(m_p, m_room));
        }
        return m_p + length;
    }
    char* At(std::size_t place) { return m_p + place; }
    bench::Bytes Release() { return {m_p, length, free}; }
    std::size_t length = 0;

private:
    char* m_p;
    std::size_t m_room;
};

class Codec {
public:
    bench::Bytes Compress(const std::string& plain) {
        Output out(plain.size() * 2 + 16); // never more: 14 bits for a byte
        memset(m_keys, 0xFF, sizeof(m_keys));
        m_bits = 0;
        m_held = 0;
        unsigned int next = kFirstFree;
        unsigned int prefix = static_cast<unsigned char>(plain[0]);
        for (std::size_t i = 1; i < plain.size(); ++i) {
            const unsigned int key = prefix << 8 | static_cast<unsigned char>(plain[i]);
            const unsigned int slot = SlotOf(key);
            if (m_keys[slot] == key) {
                prefix = m_codes[slot];
                continue;
            }
            Put(prefix, &out);
            if (next < kEnd) {
                m_keys[slot] = key;
                m_codes[slot] = static_cast<std::uint16_t>(next++);
            }
            prefix = static_cast<unsigned char>(plain[i]);
        }
        Put(prefix, &out);
        Put(kEnd, &out);
        Put(0, &out); // pushes the last bits out
        return out.Release();
    }

    /// A string of the table is a place in what has been expanded.
    bench::Bytes Expand(const std::string& packed) {
        Output out(packed.size() * 4 + kLongest);
        const char* pNext = packed.data();
        unsigned int next = kFirstFree;
        unsigned int previousLength = 0;
        m_bits = 0;
        m_held = 0;
        for (;;) {
            const unsigned int code = Take(&pNext);
            if (code == kEnd) {
                return out.Release();
            }
            char* p = out.Reserve(kLongest);
            if (previousLength > 0 && next < kEnd) { // the string before, and the first byte of this one
                m_starts[next] = static_cast<std::uint32_t>(out.length - previousLength);
                m_lengths[next++] = static_cast<std::uint16_t>(previousLength + 1);
            }
            previousLength = 1;
            if (code < kFirstFree) {
                *p = static_cast<char>(code);
            } else {
                const char* pFrom = out.At(m_starts[code]);
                previousLength = m_lengths[code];
                for (unsigned int i = 0; i < previousLength; ++i) { // may run into what it writes
                    p[i] = pFrom[i];
                }
            }
            out.length += previousLength;
        }
    }

private:
    unsigned int SlotOf(unsigned int key) const {
        unsigned int slot = key * 2654435761u >> (32 - kSlotBits);
        while (m_keys[slot] != key && m_keys[slot] != 0xFFFFFFFF) {
            slot = (slot + 1) & (kSlots - 1);
        }
        return slot;
    }
    void Put(unsigned int code, Output* pOut) {
        m_bits = m_bits << kBits | code;
        m_held += kBits;
        char* p = pOut->Reserve(4);
        while (m_held >= 8) {
            m_held -= 8;
            *p++ = static_cast<char>(m_bits >> m_held);
            ++pOut->length;
        }
    }
    unsigned int Take(const char** ppNext) {
        while (m_held < kBits) {
            m_bits = m_bits << 8 | static_cast<unsigned char>(*(*ppNext)++);
            m_held += 8;
        }
        m_held -= kBits;
        return static_cast<unsigned int>(m_bits >> m_held) & kEnd;
    }

    static constexpr unsigned int kSlotBits = 16;
    static constexpr unsigned int kSlots = 1u << kSlotBits;
    static constexpr std::size_t kLongest = 32768; // of a string: one byte more for each code
    std::uint32_t m_keys[kSlots];
    std::uint16_t m_codes[kSlots];
    std::uint32_t m_starts[kEnd + 1];
    std::uint16_t m_lengths[kEnd + 1];
    std::uint64_t m_bits = 0;
    unsigned int m_held = 0;
};

} // namespace

PEER_BENCH_LZW(Codec, "LZW by hand")
