/// @file Level.h
/// The levels of trace messages and their names.
#ifndef TQTRACE_LEVEL_H
#define TQTRACE_LEVEL_H

#include <string>
#include <vector>

namespace tqtrace {

struct LevelRow {
    int level;
    const char* pszName; ///< as this program writes it
    const char* pszTag;  ///< in a line; empty: of an instance alone, no message has it
    const char* pszWord; ///< as the console's summary shows it
};

const std::vector<LevelRow>& Levels();

/// The row of the tag that stands at this place of a text ("WRN: ..."), "UNK" included; null for anything else.
const LevelRow* FindTag(const std::string& text, size_t at);

/// A name, a tag, the word of a summary, or a number; the case of letters does not matter.
bool ParseLevel(const std::string& text, int* pLevel);

std::string LevelName(int level); ///< the number where it has no name

constexpr int kUnknownLevel = -1; ///< of a message whose level has no tag

} // namespace tqtrace

#endif // TQTRACE_LEVEL_H
