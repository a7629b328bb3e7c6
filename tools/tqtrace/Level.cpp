#include "Level.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

namespace tqtrace {

namespace {

const std::vector<LevelRow> kLevels = {
    {50000, "Critical", "CRT", "Critical"},
    {40000, "Severe", "SEV", "Severe"},
    {30000, "Warning", "WRN", "Warning"},
    {20000, "Informational", "INF", "Inform"},
    {10000, "Debug", "DEB", "Debug"},
    {5000, "Debug Low", "LOW", "Low"},
    {0, "All", "", "All"},
    {0x7FFFFFFF, "None", "", "None"},
    {kUnknownLevel, "Unknown", "UNK", "Unknown"},
};

} // namespace

const std::vector<LevelRow>& Levels() {
    return kLevels;
}

const LevelRow* FindTag(const std::string& text, size_t at) {
    for (const LevelRow& row : kLevels) {
        const size_t length = strlen(row.pszTag);
        if (length > 0 && text.compare(at, length, row.pszTag) == 0 && text.compare(at + length, 2, ": ") == 0) {
            return &row;
        }
    }
    return nullptr;
}

bool ParseLevel(const std::string& text, int* pLevel) {
    for (const LevelRow& row : kLevels) {
        const bool bNamed = strcasecmp(text.c_str(), row.pszName) == 0 || strcasecmp(text.c_str(), row.pszWord) == 0 ||
                            strcasecmp(text.c_str(), row.pszTag) == 0;
        if (bNamed && !text.empty() && row.level != kUnknownLevel) {
            *pLevel = row.level;
            return true;
        }
    }
    char* pszEnd = nullptr;
    const long level = strtol(text.c_str(), &pszEnd, 0);
    *pLevel = static_cast<int>(level);
    return !text.empty() && *pszEnd == '\0' && level == *pLevel;
}

std::string LevelName(int level) {
    for (const LevelRow& row : kLevels) {
        if (row.level == level) {
            return row.pszName;
        }
    }
    return std::to_string(level);
}

} // namespace tqtrace
