/// @file Fuzz.h
/// What the fuzz targets share. A target is one source file: a function that takes one input, does with the library
/// what the input says, and checks what comes out of it against a model that is slow, simple and written apart from it.
///
///     void OneInput(fuzz::Input input) { ... FUZZ_EQUAL(expected, found); }
///     FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
///
/// The library is started once, before the first input, in a scratch directory that is the working directory from then
/// on. After each input its count of memory in use must be what it was before.
///
/// Seeds are small files that can be read: a target takes its parameters as text, line by line, where it can.
#ifndef FUZZ_H
#define FUZZ_H

#include <ftw.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "tq_Memory_p.h"
#include "tqos.h"

namespace fuzz {

/// Bytes as a message shows them.
inline std::string Shown(const std::string& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        char hex[8];
        snprintf(hex, sizeof(hex), "\\x%02x", byte);
        text += byte >= 32 && byte < 127 && byte != '\\' ? std::string(1, static_cast<char>(byte)) : hex;
    }
    return text;
}
inline std::string Shown(long long number) {
    return std::to_string(number);
}

[[noreturn]] inline void Fail(const char* pszFile, int line, const std::string& text) {
    fprintf(stderr, "%s:%d: wrong: %s\n", pszFile, line, text.c_str());
    abort();
}

} // namespace fuzz

/// Ends the run when the condition does not hold.
#define FUZZ_CHECK(condition) ((condition) ? (void)0 : fuzz::Fail(__FILE__, __LINE__, #condition))

/// Ends the run when the two, texts or numbers, differ.
#define FUZZ_EQUAL(expected, found)                                                                                    \
    ((expected) == (found)                                                                                             \
         ? (void)0                                                                                                     \
         : fuzz::Fail(__FILE__, __LINE__,                                                                              \
                      #found "\n  expected " + fuzz::Shown(expected) + "\n  found    " + fuzz::Shown(found)))

namespace fuzz {

/// An input, taken piece by piece from its start. When it is used up it gives zeros and empty texts.
class Input {
public:
    Input(const uint8_t* pBytes, size_t size) : m_bytes(reinterpret_cast<const char*>(pBytes), size) {}

    bool IsEmpty() const { return m_at == m_bytes.size(); }
    unsigned int Byte() { return IsEmpty() ? 0 : static_cast<unsigned char>(m_bytes[m_at++]); }

    /// Up to the next line feed, which is taken too.
    std::string Line() { return UpTo('\n'); }
    /// Up to the next byte of this value, which is taken too.
    std::string UpTo(char end) {
        const size_t stop = m_bytes.find(end, m_at);
        const std::string text = m_bytes.substr(m_at, stop == std::string::npos ? stop : stop - m_at);
        m_at = stop == std::string::npos ? m_bytes.size() : stop + 1;
        return text;
    }
    std::string Rest() {
        const std::string text = m_bytes.substr(m_at);
        m_at = m_bytes.size();
        return text;
    }
    /// Decimal digits; what ends them, one byte, is taken too.
    unsigned int Number() {
        unsigned int value = 0;
        for (; !IsEmpty() && m_bytes[m_at] >= '0' && m_bytes[m_at] <= '9'; ++m_at) {
            value = value * 10 + static_cast<unsigned int>(m_bytes[m_at] - '0');
        }
        m_at += IsEmpty() ? 0 : 1;
        return value;
    }

private:
    std::string m_bytes;
    size_t m_at = 0;
};

/// Whether the seeds alone are run, each once. A few of them stand for what takes as long as a thousand other inputs,
/// and are cut short otherwise: made into new inputs they would take most of the time and find nothing.
inline bool OnlySeeds() {
    static const bool bOnlySeeds = getenv("TQOS_FUZZ_ONLY_SEEDS");
    return bOnlySeeds;
}

/// A text as the library sees it, up to its first zero byte.
inline std::string Cut(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

/// A text in memory of just its own size, where the sanitizer sees each step over its end. To be written to.
class Exact {
public:
    explicit Exact(const std::string& text) : m_bytes(text.begin(), text.end()) {
        m_bytes.push_back('\0');
        m_bytes.shrink_to_fit();
    }
    char* Text() { return m_bytes.data(); }

private:
    std::vector<char> m_bytes;
};

inline void WriteFile(const char* pszPath, const std::string& content) {
    FILE* hFile = fopen(pszPath, "wb");
    FUZZ_CHECK(hFile && fwrite(content.data(), 1, content.size(), hFile) == content.size());
    FUZZ_CHECK(fclose(hFile) == 0);
}

inline std::string ReadFile(const char* pszPath) {
    std::string content;
    FILE* hFile = fopen(pszPath, "rb");
    char piece[4096];
    size_t length = hFile ? fread(piece, 1, sizeof(piece), hFile) : 0;
    for (; length > 0; length = fread(piece, 1, sizeof(piece), hFile)) {
        content.append(piece, length);
    }
    if (hFile) {
        fclose(hFile);
    }
    return content;
}

inline bool FileExists(const char* pszPath) {
    return access(pszPath, F_OK) == 0;
}

inline int RemoveEntry(const char* pszPath, const struct stat*, int, struct FTW*) {
    return remove(pszPath);
}

inline std::string& ScratchPath() {
    static std::string path;
    return path;
}

/// Goes to a directory of its own, under TMPDIR, which is removed when the run ends well.
inline void EnterScratchDirectory() {
    const char* pszParent = getenv("TMPDIR");
    std::string path = std::string(pszParent ? pszParent : "/tmp") + "/tqos_fuzz_XXXXXX";
    FUZZ_CHECK(mkdtemp(&path[0]) && chdir(path.c_str()) == 0);
    ScratchPath() = path;
    atexit([] { nftw(ScratchPath().c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); });
}

/// The arguments with whole paths, since the working directory changes, and with a place for what is found.
inline void KeepArguments(int* argc, char*** argv) {
    static std::vector<std::string> texts;
    static std::vector<char*> pointers;
    char here[PATH_MAX];
    FUZZ_CHECK(getcwd(here, sizeof(here)));
    texts.emplace_back((*argv)[0]);
    texts.push_back(std::string("-artifact_prefix=") + here + "/"); // one that is given comes later and counts
    for (int i = 1; i < *argc; ++i) {
        char path[PATH_MAX];
        const char* pszArgument = (*argv)[i];
        texts.emplace_back(pszArgument[0] != '-' && realpath(pszArgument, path) ? path : pszArgument);
    }
    for (std::string& text : texts) {
        pointers.push_back(&text[0]);
    }
    *argc = static_cast<int>(pointers.size());
    pointers.push_back(nullptr);
    *argv = pointers.data();
}

/// Starts the library. It leaves signals to the fuzzer, which reports them.
inline void StartLibrary(const std::string& ini) {
    WriteFile("tqos.ini", "[SignalHandler]\r\nDisable=yes\r\n[ErrorLog]\r\nFilename=\r\n" + ini);
    FUZZ_EQUAL(0u, tqOS_Initialize());
    remove("tqos.ini");
}

/// The memory in use before the first input, and so before each.
inline unsigned int& MemoryBefore() {
    static unsigned int bytes = 0;
    return bytes;
}

/// Waits for the memory in use to be what it was before: the library's own threads may be using some for a moment.
inline void CheckMemory() {
    constexpr unsigned int kMostMs = 10000;
    for (unsigned int ms = 0; gRequestedMemoryAllocations != MemoryBefore() && ms < kMostMs; ++ms) {
        usleep(1000);
    }
    FUZZ_EQUAL(MemoryBefore(), gRequestedMemoryAllocations);
}

/// Runs one input; the memory in use must be the same afterwards.
inline int Run(void (*pfnOneInput)(Input input), const uint8_t* pBytes, size_t size) {
    pfnOneInput(Input(pBytes, size));
    CheckMemory();
    return 0;
}

} // namespace fuzz

namespace fuzz {

inline void StartNothing() {}

/// Waits until the threads that a target's start has begun have settled: the memory in use stays the same for a while.
inline void Settle() {
    constexpr unsigned int kQuietTenths = 3;
    unsigned int before = gRequestedMemoryAllocations;
    for (unsigned int quiet = 0; quiet < kQuietTenths; ++quiet) {
        usleep(100000);
        quiet = before == gRequestedMemoryAllocations ? quiet : 0;
        before = gRequestedMemoryAllocations;
    }
}

} // namespace fuzz

/// The target: what the library is started with, what is started beside it, and the function that takes an input.
#define FUZZ_TARGET_WITH_START(ini, Start, OneInput)                                                                   \
    extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {                                                     \
        fuzz::KeepArguments(argc, argv);                                                                               \
        fuzz::EnterScratchDirectory();                                                                                 \
        fuzz::StartLibrary(ini);                                                                                       \
        Start();                                                                                                       \
        fuzz::MemoryBefore() = gRequestedMemoryAllocations;                                                            \
        return 0;                                                                                                      \
    }                                                                                                                  \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t size) {                                        \
        return fuzz::Run(OneInput, pBytes, size);                                                                      \
    }

#define FUZZ_TARGET(ini, OneInput) FUZZ_TARGET_WITH_START(ini, fuzz::StartNothing, OneInput)

#endif // FUZZ_H
