/// @file Sample.h
/// One look at the machine, taken from /proc.
#ifndef DEVICE_SAMPLE_H
#define DEVICE_SAMPLE_H

struct Sample {
    unsigned int uptimeMs;       ///< when it was taken, since the library's start
    unsigned int load[3];        ///< averages over 1, 5 and 15 minutes, in hundredths
    unsigned int memoryTotalKb;  ///< all there is
    unsigned int memoryFreeKb;   ///< what programs can still have without swapping
    unsigned long long inBytes;  ///< received by all interfaces but the loopback
    unsigned long long outBytes; ///< sent by them
};

/// Each takes the text of one file and fills its fields; false, and nothing filled, when the text is not in that form.
bool ParseLoad(const char* pszText, Sample* pSample);
bool ParseMemory(const char* pszText, Sample* pSample);
bool ParseNetwork(const char* pszText, Sample* pSample);

/// Reads /proc/loadavg, /proc/meminfo and /proc/net/dev. False when one of them cannot be read or understood.
bool TakeSample(Sample* pSample);

#endif // DEVICE_SAMPLE_H
