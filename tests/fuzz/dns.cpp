// A name server's answer, whatever it holds, read by the library and by a second reader that asks before each byte.
//
// Input: the answer, where "\xHH" stands for a byte and a line feed for nothing.
#include <algorithm>

#include "Fuzz.h"
#include "tq_SocketLookup_p.h"

namespace {

constexpr size_t kAfterHeader = 1024; // bytes that are kept behind the header
constexpr size_t kMostNameBytes = 255;
constexpr size_t kMostWireBytes = 255;

std::string AnswerOf(fuzz::Input& input) {
    const std::string text = input.Rest();
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        unsigned int byte = 0;
        if (text.compare(at, 2, "\\x") == 0 && sscanf(text.c_str() + at + 2, "%2x", &byte) == 1 &&
            at + 3 < text.size()) {
            bytes += static_cast<char>(byte);
            at += 3;
        } else if (text[at] != '\n') {
            bytes += text[at];
        }
    }
    return bytes;
}

struct Service {
    std::string target;
    unsigned int ttl;
    int priority;
    int weight;
    int port;

    bool operator<(const Service& other) const { return Key() < other.Key(); }
    std::string Key() const {
        return target + '|' + std::to_string(ttl) + '|' + std::to_string(priority) + '|' + std::to_string(weight) +
               '|' + std::to_string(port);
    }
};

/// What a byte of a label looks like in a name.
std::string Printed(unsigned char byte) {
    char text[8];
    if (byte <= 32 || byte >= 127) {
        snprintf(text, sizeof(text), "\\%03u", byte);
        return text;
    }
    const char c = static_cast<char>(byte);
    return strchr("\".;\\()@$", c) ? std::string("\\") + c : std::string(1, c);
}

/// Reads an answer. Whatever does not lie inside ends the walk.
class Reader {
public:
    explicit Reader(const std::string& answer) : m_bytes(answer.substr(0, kDnsHeaderBytes + kAfterHeader)) {
        // The end lies as many bytes behind that of the answer as the header has, over bytes that are zero.
        const size_t length = kDnsHeaderBytes + std::min(answer.size(), kAfterHeader);
        m_bHasHeader = answer.size() >= kDnsHeaderBytes;
        m_bytes.resize(length, '\0');
        for (unsigned int questions = m_bHasHeader ? Number(4, 2) : 0; questions > 0 && !m_bEnd; --questions) {
            std::string name;
            TakeName(&name);
            Take(4);
        }
    }

    unsigned int Answers() const { return m_bHasHeader ? Number(6, 2) : 0; }

    std::vector<Service> Services() {
        std::vector<Service> services;
        for (unsigned int answers = Answers(); answers > 0 && !m_bEnd; --answers) {
            std::string name;
            TakeName(&name);
            const size_t record = m_at;
            if (!Take(10)) {
                break;
            }
            if (Number(record, 2) != 33) {
                Take(Number(record + 8, 2));
                continue;
            }
            const size_t numbers = m_at;
            std::string target;
            if (Take(6) && TakeName(&target)) {
                services.push_back(
                    {target, Number(record + 4, 4), Signed(numbers), Signed(numbers + 2), Signed(numbers + 4)});
            }
        }
        return services;
    }

private:
    unsigned int Byte(size_t at) const { return static_cast<unsigned char>(m_bytes[at]); }
    unsigned int Number(size_t at, size_t bytes) const {
        unsigned int value = 0;
        for (size_t i = 0; i < bytes; ++i) {
            value = value << 8 | Byte(at + i);
        }
        return value;
    }
    int Signed(size_t at) const { return static_cast<int16_t>(Number(at, 2)); }

    bool Take(size_t bytes) {
        m_bEnd = m_bEnd || bytes > m_bytes.size() - m_at;
        m_at += m_bEnd ? 0 : bytes;
        return !m_bEnd;
    }

    bool TakeName(std::string* pName) {
        size_t length = 0;
        m_bEnd = m_bEnd || !Expand(pName, &length) || pName->size() > kMostNameBytes;
        return Take(m_bEnd ? 0 : length);
    }

    /// The name at the place of the walk, and how many bytes it takes there. A name may go on elsewhere.
    bool Expand(std::string* pName, size_t* pLength) const {
        size_t at = m_at;
        size_t wire = 0;
        size_t looked = 0;
        *pLength = 0;
        while (at < m_bytes.size() && Byte(at) != 0) {
            const size_t label = Byte(at);
            if (label >= 0xC0) {
                const size_t target = at + 1 < m_bytes.size() ? (label & 0x3F) << 8 | Byte(at + 1) : m_bytes.size();
                *pLength = *pLength ? *pLength : at + 2 - m_at;
                looked += 2;
                if (target >= m_bytes.size() || looked >= m_bytes.size()) { // so many bytes are a loop
                    return false;
                }
                at = target;
                continue;
            }
            if (label >= 0x40 || at + 1 + label >= m_bytes.size() || wire + label >= kMostWireBytes) {
                return false;
            }
            *pName += pName->empty() ? "" : ".";
            for (size_t i = 1; i <= label; ++i) {
                *pName += Printed(static_cast<unsigned char>(m_bytes[at + i]));
            }
            looked += label + 1;
            wire += label + 1;
            at += label + 1;
        }
        *pLength = *pLength ? *pLength : at + 1 - m_at;
        return at < m_bytes.size();
    }

    std::string m_bytes;
    size_t m_at = kDnsHeaderBytes;
    bool m_bEnd = false;
    bool m_bHasHeader = false;
};

Service Found(const DNS_SRV_DATA& record) {
    return {record.pNameTarget, record.timeToLive, record.wPriority, record.wWeight, record.wPort};
}

void CheckAsTheyCome(const std::vector<char>& answer, unsigned int count, const std::vector<Service>& services) {
    SrvIter found(answer.data(), static_cast<unsigned int>(answer.size()));
    FUZZ_EQUAL(count, found.getSize());
    for (const Service& service : services) {
        const DNS_SRV_DATA* pRecord = found.getNext();
        FUZZ_CHECK(pRecord);
        FUZZ_EQUAL(service.Key(), Found(*pRecord).Key());
    }
    FUZZ_CHECK(!found.getNext() && !found.getNext());
}

void CheckInOrder(const std::vector<char>& answer, std::vector<Service> services) {
    SortedIter found(answer.data(), static_cast<unsigned int>(answer.size()));
    std::vector<Service> sorted;
    while (const DNS_SRV_DATA* pRecord = found.getNext()) {
        FUZZ_CHECK(sorted.empty() || sorted.back().priority <= pRecord->wPriority);
        sorted.push_back(Found(*pRecord));
    }
    for (Service& service : services) {
        service.weight = service.weight ? service.weight : 1; // so that it has a chance
    }
    std::sort(services.begin(), services.end());
    std::sort(sorted.begin(), sorted.end());
    FUZZ_EQUAL(services.size(), sorted.size());
    for (size_t i = 0; i < services.size(); ++i) {
        FUZZ_EQUAL(services[i].Key(), sorted[i].Key());
    }
}

void OneInput(fuzz::Input input) {
    const std::string bytes = AnswerOf(input);
    const std::vector<char> answer(bytes.begin(), bytes.end());
    Reader reader(bytes);
    const std::vector<Service> services = reader.Services();
    CheckAsTheyCome(answer, reader.Answers(), services);
    CheckInOrder(answer, services);
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
