/// @file MemoryBlocks.h
/// The memory module alone, and what lies around its blocks.
#ifndef MEMORY_BLOCKS_H
#define MEMORY_BLOCKS_H

#include <regex>
#include <stdint.h>
#include <string.h>
#include <string>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Base.h"
#include "tq_Memory_p.h"

// A sanitizer's heap ends the process when memory is short; these tests want the null that other heaps give.
#define TEST_HEAP_OPTIONS "allocator_may_return_null=1:max_allocation_size_mb=1024"
extern "C" __attribute__((used, visibility("default"))) inline const char* __asan_default_options() {
    return TEST_HEAP_OPTIONS;
}
extern "C" __attribute__((used, visibility("default"))) inline const char* __tsan_default_options() {
    return TEST_HEAP_OPTIONS;
}

namespace test {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

/// The memory module alone, initialised with these keys of section [Memory] in a directory of its own.
class Memory {
public:
    explicit Memory(const std::string& keys = "") {
        WriteFile("tqos.ini", "[Memory]\n" + keys);
        EXPECT_EQ(0u, tq_BaseInitialize());
        EXPECT_EQ(0u, tq_MemoryInitialize());
        myCritSecLock lock(MemoryTrackingCritSec);
        gRequestedMemoryAllocations = gTotalMemoryAllocations = 0;
        gMaxRequestedMemoryAllocations = gMaxTotalMemoryAllocations = 0;
    }
    ~Memory() {
        tq_MemoryTerminate(/*bDumpResources=*/false);
        WriteFile("tqos.ini", "");
        tq_MemoryInitialize();
        tq_BaseTerminate();
    }

private:
    ScratchDirectory m_directory;
};

/// The critical-error log, with its times replaced.
inline std::string Reports() {
    static const std::regex kTime("(^|\n)\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}: ");
    return std::regex_replace(ReadFile("tqos_error.log"), kTime, "$1[time] ");
}

/// How a report stands in the log.
inline std::string Logged(const std::string& message) {
    return "[time] " + message + "\n";
}

inline char* BlockOf(void* pUserData) {
    return static_cast<char*>(pUserData) - gTotalMemoryHeader;
}

inline _MEM_HEADER_TRACKING_ONLY* HeaderOf(void* pUserData) {
    return tq_MemoryHeaderOf(BlockOf(pUserData));
}

inline unsigned char* HeadBytes(void* pUserData) {
    return static_cast<unsigned char*>(pUserData) - 4;
}

inline std::string Bytes(const void* pBytes, size_t count) {
    return std::string(static_cast<const char*>(pBytes), count);
}

const std::string kLive(4, '\xFF');
const std::string kFreed(4, '\xFE');

inline void LimitMemory() {
    if (!kAddressSanitizer && !kThreadSanitizer) { // they have a limit by option
        const struct rlimit limit = {1u << 30, 1u << 30};
        setrlimit(RLIMIT_AS, &limit);
    }
}

inline unsigned int AddressModulo(const void* pAddress, unsigned int modulus) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pAddress) % modulus);
}

} // namespace test

#endif // MEMORY_BLOCKS_H
