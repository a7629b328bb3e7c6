#include "LzwBench.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include <ftw.h>

namespace bench {
namespace {

std::vector<std::string> gPaths;

int KeepPath(const char* pszPath, const struct stat*, int kind, struct FTW*) {
    if (kind == FTW_F) {
        gPaths.push_back(pszPath);
    }
    return 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// The first files of a directory, by name, that begin with this text.
std::string FirstFiles(const char* pszDirectory, const char* pszStart) {
    gPaths.clear();
    nftw(pszDirectory, KeepPath, 32, FTW_PHYS);
    std::sort(gPaths.begin(), gPaths.end());
    std::string all;
    for (const std::string& path : gPaths) {
        const std::string text = ReadFile(path);
        if (text.compare(0, std::char_traits<char>::length(pszStart), pszStart) == 0) {
            all += text;
        }
        if (all.size() >= kSampleBytes) {
            return all.substr(0, kSampleBytes);
        }
    }
    fprintf(stderr, "%s has not %zu bytes\n", pszDirectory, kSampleBytes);
    exit(1);
}

std::string Noise() {
    std::string noise(kSampleBytes, 0);
    Random random;
    for (char& byte : noise) {
        byte = static_cast<char>(random.Below(256));
    }
    return noise;
}

} // namespace

std::string MakeSample(Sample sample) {
    return sample == Sample::Text       ? FirstFiles("/usr/include/c++", "")
           : sample == Sample::Programs ? FirstFiles("/usr/bin", "\177ELF")
                                        : Noise();
}

void RequireSame(const std::string& plain, const std::string& expanded) {
    if (plain != expanded) {
        fprintf(stderr, "what was compressed does not expand to the same\n");
        exit(1);
    }
}

} // namespace bench
