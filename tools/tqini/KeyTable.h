/// @file KeyTable.h
/// Every key of tqos.ini that the library reads: what tqini checks files against, and what its template and the
/// documentation are printed from.
#ifndef TQINI_KEY_TABLE_H
#define TQINI_KEY_TABLE_H

#include <string>
#include <vector>

namespace tqini {

/// How the library takes a value.
enum class Kind {
    Number,
    Switch,
    Level,    ///< a word or a number
    Text,     ///< as it stands
    Networks, ///< addresses with commas or blanks between them
};

struct KeyRow {
    const char* pszSection;
    const char* pszKey; ///< "NAME" in front stands for a trace instance's name, an "N" after "Pool" for a pool's number
    Kind kind;
    const char* pszDefault;     ///< as it would stand in the file
    const char* pszDefaultFrom; ///< the key whose value is the default instead; null: none
    const char* pszUnit;        ///< of the value
    unsigned int limit;         ///< characters of a value that count
    const char* pszNeeds;       ///< key of the section without which this one is not read; null: always read
    const char* pszMeaning;     ///< one sentence or more, with their full stops
};

/// By section, in the order in which people are shown them.
const std::vector<KeyRow>& KeyTable();

/// The sections that the library reads, in the order of the table.
std::vector<std::string> Sections();

/// A key of a file that the table has a row for.
struct KnownKey {
    const KeyRow* pRow = nullptr; ///< null: there is none
    std::string stem;             ///< what stands in the file for "NAME" or the "N"; empty where the row has neither
    explicit operator bool() const { return pRow != nullptr; }
};

/// The row that a key of a section belongs to; the case of letters does not matter.
KnownKey FindKeyRow(const std::string& section, const std::string& key);

/// The text of a row's key with what stands for "NAME" or the "N" put in.
std::string KeyText(const KeyRow& row, const std::string& stem);

/// The library's section of this name as it is written here; empty when it has none.
std::string SectionText(const std::string& section);

bool SameText(const std::string& one, const std::string& other); ///< the case of letters does not matter
std::string LowerCase(std::string text);

} // namespace tqini

#endif // TQINI_KEY_TABLE_H
