/// @file Reports.h
/// What is in a report. Each report is described by rules, a rule a kind of line: a pattern, the names of what stands
/// in its brackets, and where that goes. The rules are data; one function reads every report by them.
#ifndef TQCON_REPORTS_H
#define TQCON_REPORTS_H

#include <string>

#include <nlohmann/json.hpp>

#include "Commands.h"

namespace tqcon {

using Json = nlohmann::ordered_json;

/// What a bracket of a pattern holds.
enum class Kind {
    Number,
    Signed,
    Real,
    Hex,   ///< stays a text
    Text,  ///< without the blanks around it; "(unnamed)" is null
    Flag,  ///< true when there is anything in it
    Sizes, ///< "2@5, 4@4": two lists of five nodes, four of four
};

/// A word that stands for a letter.
struct Word {
    const char* pszLetter;
    const char* pszWord;
};

struct Column {
    const char* pszKey = nullptr; ///< the last one's is null
    Kind kind = Kind::Text;
    const Word* pWords = nullptr; ///< for a text of one letter: what it stands for
};

/// Where what a line holds goes.
enum class Place {
    Skip,     ///< nowhere: headings
    Record,   ///< to the report itself
    Row,      ///< a new row of the table
    Continue, ///< the table's last row, unless it has that already: then the line is another rule's
    Context,  ///< to every row of the table that follows
    Pair,     ///< to the report: what the line says, under the name that the line gives it
};

constexpr unsigned int kMostColumns = 9;

struct Rule {
    const char* pszPattern = nullptr; ///< an ECMAScript regular expression of the whole line; the last rule's is null
    Place place = Place::Skip;
    const char* pszTable = nullptr;
    Column columns[kMostColumns] = {};
};

struct Report {
    const char* pszName;    ///< the last one's is null
    const char* pszCommand; ///< as ParseCommand() names it
    int detail;             ///< 1: of the detailed command, 0: of the other, -1: of both
    const char* pszTable;   ///< the main table; null: there is none, or several
    const Rule* pRules;
};

constexpr unsigned int kMostKeys = 4;

/// What tells a table's rows apart.
struct TableKeys {
    const char* pszTable;           ///< the last one's is null
    const char* columns[kMostKeys]; ///< null behind the last one
};

extern const Report kReports[];
extern const TableKeys kTableKeys[];

/// The keys of a table; null when its rows are told apart by nothing.
const TableKeys* KeysOf(const std::string& table);

/// The report that a command gives; null when it gives none.
const Report* FindReport(const Command& command);

/// Reads a report. Its main table is there with or without rows, others where they have any, and "notes" has the lines
/// that are none of its own, as when a table is empty or something is not enabled.
Json ParseReport(const Report& report, const std::string& text);

} // namespace tqcon

#endif // TQCON_REPORTS_H
