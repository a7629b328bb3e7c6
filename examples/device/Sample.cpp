#include "Sample.h"

#include <stdio.h>
#include <string.h>

#include <tqos.h>

namespace {

constexpr unsigned int kMaxFile = 32768; // /proc/net/dev of a machine with some hundred interfaces

struct Source {
    const char* pszPath;
    bool (*parse)(const char* pszText, Sample* pSample);
};

constexpr Source kSources[] = {
    {"/proc/loadavg", ParseLoad},
    {"/proc/meminfo", ParseMemory},
    {"/proc/net/dev", ParseNetwork},
};

/// The file's text in the buffer, cut to what fits. Files of /proc have no size to ask for.
bool ReadText(const char* pszPath, char* pszText, unsigned int size) {
    FILE* pFile = fopen(pszPath, "re");
    if (!pFile) {
        return false;
    }
    const size_t length = fread(pszText, 1, size - 1, pFile);
    fclose(pFile);
    pszText[length] = 0;
    return length > 0;
}

bool FindKilobytes(const char* pszText, const char* pszKey, unsigned int* pValue) {
    const char* pszLine = strstr(pszText, pszKey);
    return pszLine && sscanf(pszLine + strlen(pszKey), "%u kB", pValue) == 1;
}

} // namespace

bool ParseLoad(const char* pszText, Sample* pSample) {
    unsigned int whole[3];
    unsigned int hundredths[3];
    if (sscanf(pszText, "%u.%2u %u.%2u %u.%2u", &whole[0], &hundredths[0], &whole[1], &hundredths[1], &whole[2],
               &hundredths[2]) != 6) {
        return false;
    }
    for (int i = 0; i < 3; ++i) {
        pSample->load[i] = whole[i] * 100 + hundredths[i];
    }
    return true;
}

bool ParseMemory(const char* pszText, Sample* pSample) {
    unsigned int totalKb;
    unsigned int freeKb;
    if (!FindKilobytes(pszText, "MemTotal:", &totalKb) || !FindKilobytes(pszText, "MemAvailable:", &freeKb)) {
        return false;
    }
    pSample->memoryTotalKb = totalKb;
    pSample->memoryFreeKb = freeKb;
    return true;
}

bool ParseNetwork(const char* pszText, Sample* pSample) {
    const char* pszLine = strstr(pszText, "bytes"); // the second line of the heading
    if (!pszLine) {
        return false;
    }
    pSample->inBytes = 0;
    pSample->outBytes = 0;
    while ((pszLine = strchr(pszLine, '\n')) != nullptr) {
        ++pszLine;
        char interface[32];
        unsigned long long in;
        unsigned long long out;
        // Name, eight numbers of receiving that start with the bytes, then those of sending.
        if (sscanf(pszLine, " %31[^:]: %llu %*u %*u %*u %*u %*u %*u %*u %llu", interface, &in, &out) == 3 &&
            strcmp(interface, "lo") != 0) {
            pSample->inBytes += in;
            pSample->outBytes += out;
        }
    }
    return true;
}

bool TakeSample(Sample* pSample) {
    *pSample = {};
    pSample->uptimeMs = tqOS_uptime();
    char* pszText = static_cast<char*>(tq_malloc(kMaxFile));
    bool bTaken = pszText != nullptr;
    for (const Source& source : kSources) {
        bTaken = bTaken && ReadText(source.pszPath, pszText, kMaxFile) && source.parse(pszText, pSample);
    }
    tq_free(pszText);
    return bTaken;
}
