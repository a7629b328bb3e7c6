// Bytes compressed: to the stream that a second encoder makes of them, which expands to the same bytes.
//
// Input: a line with a number of copies; the bytes. Every second copy is changed beyond recognition.
#include "LzwModel.h"

namespace {

constexpr size_t kMostBytes = 1000; // of copies
constexpr size_t kMostBytesOfSeeds = 40000;

std::string BytesOf(fuzz::Input& input) {
    const unsigned int copies = input.Number();
    const std::string rest = input.Rest();
    std::string bytes = rest;
    const size_t most = fuzz::OnlySeeds() ? kMostBytesOfSeeds : kMostBytes;
    unsigned int noise = 1;
    for (unsigned int copy = 1; copy < copies && bytes.size() + rest.size() <= most && !rest.empty(); ++copy) {
        for (const char byte : rest) {
            noise = noise * 1664525 + 1013904223;
            bytes += static_cast<char>(byte ^ (copy % 2 ? noise >> 24 : 0));
        }
    }
    // Once more from the start: what the table has learnt last is used as well.
    return fuzz::OnlySeeds() ? bytes + bytes : bytes;
}

void OneInput(fuzz::Input input) {
    const std::string bytes = BytesOf(input);
    const std::vector<char> exact(bytes.begin(), bytes.end());
    char unchanged = 0;
    char* pStream = &unchanged;
    unsigned int streamBytes = 1;
    tq_lzwCompress(exact.data(), static_cast<unsigned int>(exact.size()), &pStream, &streamBytes);
    if (bytes.empty()) {
        FUZZ_CHECK(pStream == &unchanged && streamBytes == 0);
        return;
    }
    FUZZ_CHECK(pStream);
    FUZZ_EQUAL(lzw::Stream(lzw::Packed(lzw::Encoded(bytes))), std::string(pStream, streamBytes));
    char* pBytes = nullptr;
    unsigned int length = 0;
    tq_lzwExpand(pStream, streamBytes, &pBytes, &length);
    FUZZ_EQUAL(bytes.size(), length);
    FUZZ_CHECK(memcmp(bytes.data(), pBytes, length) == 0);
    tq_free(pBytes);
    tq_free(pStream);
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
