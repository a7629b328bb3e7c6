/// @file Commands.h
/// The commands of a console, as tqcon knows them: to complete them, and to know which report a line asks for. The same
/// tree as the console's own, which a test holds beside it.
#ifndef TQCON_COMMANDS_H
#define TQCON_COMMANDS_H

#include <string>
#include <vector>

namespace tqcon {

/// What stands behind a command; each is completed in its own way.
enum class Argument {
    None,
    Text, ///< anything
    Queue,
    Socket,
    List,
    Trace,
    OnOff,
    Level,
    ListOption,
    MemoryOption,
};

constexpr unsigned int kMostArguments = 2;

/// A row of a table. The last row's keyword is null. As on the device the first row that matches counts.
struct Keyword {
    const char* pszWord;                ///< its leading capitals are the shortest abbreviation
    const Keyword* pNext;               ///< the table of the next word
    bool bModifier;                     ///< the next word is one of the same table
    Argument arguments[kMostArguments]; ///< the last one goes for all that follow
};

extern const Keyword kCommands[];

/// Whether a word is a keyword or a sufficient abbreviation of it.
bool IsKeyword(const std::string& word, const char* pszKeyword);

/// A line as far as it is a command.
struct Command {
    std::string name;     ///< keywords in full and lower case, without modifiers: "show queues"; empty: none
    bool bDetail = false; ///< DETail stood before it
    std::vector<std::string> arguments; ///< what stands behind
    const Keyword* pKeyword = nullptr;  ///< its row
};

/// Understands a line as the console does.
Command ParseCommand(const std::string& line);

/// Words of a line; a quoted one keeps its blanks.
std::vector<std::string> Words(const std::string& line);

/// Whether the line asks queues for answers, which come when they come.
bool AsksQueues(const Command& command);
/// Whether the line ends the session.
bool EndsSession(const Command& command);

} // namespace tqcon

#endif // TQCON_COMMANDS_H
