/// @file Options.h
/// The command line of tqtrace.
#ifndef TQTRACE_OPTIONS_H
#define TQTRACE_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include <Console.h>

#include "Announcement.h"
#include "Filter.h"

namespace tqtrace {

struct Options {
    std::string command;            ///< "list", "follow", "read" or "help"
    std::vector<std::string> names; ///< devices, or files
    bool bJson = false;
    bool bDeltas = false;
    Filter filter;
    std::string outputPath; ///< empty: standard output
    uint64_t maxBytes = 0;
    unsigned int maxFiles = 2;
    unsigned int seconds = 0; ///< 0: no limit
    uint64_t lines = 0;       ///< 0: no limit
    unsigned int bufferBytes = 4u << 20;
    std::optional<int> level; ///< that devices are to have
    tools::Address console;
    std::string passwordFile;
    Endpoint group;
};

/// False, with what is wrong, for a command line that makes no sense.
bool ParseOptions(const std::vector<std::string>& words, Options* pOptions, std::string* pProblem);

extern const char kUsage[];

} // namespace tqtrace

#endif // TQTRACE_OPTIONS_H
