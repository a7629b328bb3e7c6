/// @file Record.h
/// Trace lines taken apart: as they come in datagrams, and as they stand in files, where nothing marks their ends.
#ifndef TQTRACE_RECORD_H
#define TQTRACE_RECORD_H

#include <stdint.h>
#include <string>
#include <vector>

#include "Level.h"

namespace tqtrace {

/// One trace message. A text that is none, such as what a program has printed between its trace lines, has no level.
struct Record {
    std::string text; ///< all of it, without the line end
    std::string date; ///< "Sat Nov 21 14:42:11 2026"; empty: the line has none
    uint32_t ms = 0;  ///< the device's clock, or the time since the line before
    bool bThread = false;
    uint32_t thread = 0; ///< of the library
    uint32_t kernelThread = 0;
    std::string instance;
    const LevelRow* pLevel = nullptr; ///< null: no trace line
    std::string message;              ///< without the line end

    bool IsTrace() const { return pLevel != nullptr; }
};

/// A text that holds one message, as a datagram does.
Record ParseRecord(const std::string& text);

/// The content of a trace file. A message goes to the next one's beginning, which is looked for at the beginning of
/// lines; within a line only the next message of the same instance counts, since a message need not end its line.
std::vector<Record> ParseFile(const std::string& content);

} // namespace tqtrace

#endif // TQTRACE_RECORD_H
