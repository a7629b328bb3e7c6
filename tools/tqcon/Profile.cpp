// Leaks as a profile.proto of pprof: a protocol buffer, whose few kinds of fields are written here by hand.
#include "Leaks.h"

#include <map>
#include <zlib.h>

namespace tqcon {

namespace {

// The numbers of the fields, by message.
enum ProfileField {
    kSampleType = 1,
    kSample = 2,
    kMapping = 3,
    kLocation = 4,
    kFunction = 5,
    kStringTable = 6,
    kTimeNanos = 9,
    kDurationNanos = 10,
    kPeriodType = 11,
    kPeriod = 12,
    kDefaultSampleType = 14
};
enum ValueTypeField { kType = 1, kUnit = 2 };
enum SampleField { kSampleLocation = 1, kSampleValue = 2 };
enum MappingField { kMappingId = 1, kMappingFile = 5, kHasFunctions = 7, kHasFiles = 8, kHasLines = 9 };
enum LocationField { kLocationId = 1, kLocationMapping = 2, kLocationLine = 4 };
enum LineField { kLineFunction = 1, kLineNumber = 2 };
enum FunctionField { kFunctionId = 1, kFunctionName = 2, kFunctionFile = 4 };

enum WireType { kVarint = 0, kBytes = 2 };

/// A message that is being written.
class Message {
public:
    void Add(unsigned int field, unsigned long long value) {
        AddVarint(field << 3 | kVarint);
        AddVarint(value);
    }
    void Add(unsigned int field, const std::string& bytes) {
        AddVarint(field << 3 | kBytes);
        AddVarint(bytes.size());
        m_bytes += bytes;
    }
    void Add(unsigned int field, const Message& message) { Add(field, message.m_bytes); }

    /// Numbers of a repeated field, which stand together.
    void AddPacked(unsigned int field, std::initializer_list<unsigned long long> values) {
        Message packed;
        for (const unsigned long long value : values) {
            packed.AddVarint(value);
        }
        Add(field, packed);
    }

    const std::string& Bytes() const { return m_bytes; }

private:
    void AddVarint(unsigned long long value) {
        for (; value >= 0x80; value >>= 7) {
            m_bytes += static_cast<char>(value | 0x80);
        }
        m_bytes += static_cast<char>(value);
    }

    std::string m_bytes;
};

/// The texts of a profile, which names them by number. Number 0 is the empty one.
class Strings {
public:
    Strings() { NumberOf(""); }

    unsigned long long NumberOf(const std::string& text) {
        const auto [known, bNew] = m_numbers.emplace(text, m_texts.size());
        if (bNew) {
            m_texts.push_back(text);
        }
        return known->second;
    }

    void AddTo(Message* pProfile) const {
        for (const std::string& text : m_texts) {
            pProfile->Add(kStringTable, text);
        }
    }

private:
    std::map<std::string, unsigned long long> m_numbers;
    std::vector<std::string> m_texts;
};

Message ValueType(const char* pszType, const char* pszUnit, Strings* pStrings) {
    Message type;
    type.Add(kType, pStrings->NumberOf(pszType));
    type.Add(kUnit, pStrings->NumberOf(pszUnit));
    return type;
}

constexpr unsigned long long kTheMapping = 1;

/// The device in place of a program's file: readers name what a profile is of, and look for symbols where it has none.
void AddMapping(const Hunt& hunt, Strings* pStrings, Message* pProfile) {
    Message mapping;
    mapping.Add(kMappingId, kTheMapping);
    mapping.Add(kMappingFile, pStrings->NumberOf(hunt.device));
    for (const MappingField has : {kHasFunctions, kHasFiles, kHasLines}) {
        mapping.Add(has, 1);
    }
    pProfile->Add(kMapping, mapping);
}

/// A place is a location of its own, and a function of its own: of the device's functions nothing is known.
void AddLeak(const Leak& leak, unsigned long long id, Strings* pStrings, Message* pProfile) {
    Message function;
    function.Add(kFunctionId, id);
    function.Add(kFunctionName, pStrings->NumberOf(leak.file + ":" + std::to_string(leak.line)));
    function.Add(kFunctionFile, pStrings->NumberOf(leak.file));
    pProfile->Add(kFunction, function);

    Message line;
    line.Add(kLineFunction, id);
    line.Add(kLineNumber, leak.line);
    Message location;
    location.Add(kLocationId, id);
    location.Add(kLocationMapping, kTheMapping);
    location.Add(kLocationLine, line);
    pProfile->Add(kLocation, location);

    Message sample;
    sample.AddPacked(kSampleLocation, {id});
    sample.AddPacked(kSampleValue, {leak.count, leak.bytes});
    pProfile->Add(kSample, sample);
}

} // namespace

std::string LeaksProfile(const Hunt& hunt) {
    Strings strings;
    Message profile;
    profile.Add(kSampleType, ValueType("inuse_objects", "count", &strings));
    profile.Add(kSampleType, ValueType("inuse_space", "bytes", &strings));
    AddMapping(hunt, &strings, &profile);
    unsigned long long id = 0;
    for (const Leak& leak : hunt.leaks) {
        AddLeak(leak, ++id, &strings, &profile);
    }
    profile.Add(kPeriodType, ValueType("space", "bytes", &strings));
    profile.Add(kPeriod, 1);
    profile.Add(kTimeNanos, static_cast<unsigned long long>(hunt.beganNs));
    profile.Add(kDurationNanos, static_cast<unsigned long long>(hunt.seconds * 1e9));
    profile.Add(kDefaultSampleType, strings.NumberOf("inuse_space"));
    strings.AddTo(&profile);
    return profile.Bytes();
}

std::string Gzipped(const std::string& bytes) {
    constexpr int kGzip = 16; // added to the bits of the window
    z_stream stream = {};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + kGzip, MAX_MEM_LEVEL,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        return "";
    }
    std::string file(deflateBound(&stream, bytes.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(&file[0]);
    stream.avail_out = static_cast<uInt>(file.size());
    const int result = deflate(&stream, Z_FINISH);
    file.resize(result == Z_STREAM_END ? stream.total_out : 0);
    deflateEnd(&stream);
    return file;
}

} // namespace tqcon
