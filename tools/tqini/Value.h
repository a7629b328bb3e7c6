/// @file Value.h
/// What the library reads from a key's value, and whether that is what stands there.
#ifndef TQINI_VALUE_H
#define TQINI_VALUE_H

#include <string>
#include <vector>

#include "KeyTable.h"

namespace tqini {

/// A key of a file that the library sees: the first of its name in the first section of that name.
struct SeenKey {
    const KeyRow* pRow;
    std::string section; ///< as the table has it
    std::string key;     ///< as the table has it, with the instance's name or the pool's number
    std::string value;
    unsigned int line;
};

struct ValueFinding {
    const char* pszKind;
    std::string message;
    std::string suggestion; ///< what may have been meant; empty: nothing comes to mind
};

/// What is wrong with the value, if anything. The file is read by the library itself for what it makes of it.
std::vector<ValueFinding> CheckValue(const SeenKey& key, const std::string& path);

/// Where a value seems to go on as a comment; npos when it does not.
size_t PlaceOfComment(const std::string& value);

/// What stands for the value with the library, in words.
std::string ReadsAs(const SeenKey& key, const std::string& path);

/// Whether a key on which others depend is on: a switch that reads as yes, a number that is not 0.
bool IsOn(const KeyRow& row, const std::string& path);

} // namespace tqini

#endif // TQINI_VALUE_H
