/// @file Leaks.h
/// What a device has allocated during a while and still has at its end.
#ifndef TQCON_LEAKS_H
#define TQCON_LEAKS_H

#include <string>
#include <vector>

#include "Console.h"
#include "Options.h"

namespace tqcon {

/// What one line of a source file has allocated.
struct Leak {
    std::string file; ///< its end, when it is long
    unsigned int line = 0;
    unsigned long long count = 0;
    unsigned long long bytes = 0;
};

/// What came of a hunt.
struct Hunt {
    std::vector<Leak> leaks;  ///< most bytes first
    long long heapChange = 0; ///< bytes that came from the heap since, where no pool has so large a block
    double seconds = 0;
    long long beganNs = 0; ///< since 1970
    std::string device;    ///< where it is
};

/// Marks what there is, waits, and writes what has come since and is still there.
tools::Result HuntLeaks(const Options& options, tools::Console* pConsole);

std::string LeaksText(const Hunt& hunt);
std::string LeaksJson(const Hunt& hunt);

/// The hunt as a profile: what pprof and what reads its files takes. Not compressed; such files may be.
std::string LeaksProfile(const Hunt& hunt);

/// The bytes as a gzip file has them; empty when they could not be compressed.
std::string Gzipped(const std::string& bytes);

} // namespace tqcon

#endif // TQCON_LEAKS_H
