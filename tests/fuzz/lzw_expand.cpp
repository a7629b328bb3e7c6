// Streams that nobody compressed, with a checksum that is right: the library must expand what a second decoder expands,
// to the same bytes, and nothing else.
//
// Input: "c" and codes as text, separated by blanks, where "a-b" stands for all from a to b; or "w" and a whole stream,
// which is taken as it is; or any other byte and then the bytes behind the header.
#include "LzwModel.h"

namespace {

constexpr size_t kMostCodes = 500;
constexpr size_t kMostCodesOfSeeds = 17000;

std::vector<unsigned int> CodesOf(fuzz::Input input, size_t most) {
    std::vector<unsigned int> codes;
    const std::string text = input.Rest();
    for (size_t at = 0; at < text.size() && codes.size() < most;) {
        unsigned int first = 0;
        unsigned int last = 0;
        int length = 0;
        if (sscanf(text.c_str() + at, "%5u-%5u%n", &first, &last, &length) < 2) {
            length = 0;
            last = sscanf(text.c_str() + at, "%5u%n", &first, &length) == 1 ? first : 0;
        }
        for (unsigned int code = first; length > 0 && code <= last && codes.size() < most; ++code) {
            codes.push_back(code & lzw::kEnd);
        }
        at += length > 0 ? static_cast<size_t>(length) : 1;
    }
    return codes;
}

void CheckExpand(const std::string& stream, bool bExpands, const std::string& bytes) {
    const std::vector<char> exact(stream.begin(), stream.end());
    char* pOutput = nullptr;
    unsigned int length = 1;
    tq_lzwExpand(exact.data(), static_cast<unsigned int>(exact.size()), &pOutput, &length);
    FUZZ_EQUAL(bExpands, pOutput != nullptr);
    FUZZ_EQUAL(bExpands ? bytes.size() : 0, length);
    FUZZ_CHECK(length == 0 || memcmp(bytes.data(), pOutput, length) == 0);
    tq_free(pOutput);
}

void CheckCodes(const std::string& codes) {
    std::string bytes;
    const bool bExpands = !codes.empty() && lzw::Decoded(lzw::Unpacked(codes), &bytes);
    CheckExpand(lzw::Stream(codes), bExpands, bytes);
}

void CheckWhole(const std::string& stream) {
    const std::string codes = stream.substr(stream.size() < 12 ? stream.size() : 12);
    std::string bytes;
    const bool bRight = stream.size() > 12 && stream.compare(0, 4, std::string("LZW\0", 4)) == 0 &&
                        stream.compare(8, 4, lzw::Number(lzw::Checksum(codes))) == 0;
    CheckExpand(stream, bRight && lzw::Decoded(lzw::Unpacked(codes), &bytes), bytes);
}

void OneInput(fuzz::Input input) {
    switch (input.Byte()) {
    case 'c':
        CheckCodes(lzw::Packed(CodesOf(input, fuzz::OnlySeeds() ? kMostCodesOfSeeds : kMostCodes)));
        break;
    case 'w':
        CheckWhole(input.Rest());
        break;
    default:
        CheckCodes(input.Rest());
        break;
    }
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
