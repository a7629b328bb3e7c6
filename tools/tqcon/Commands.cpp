#include "Commands.h"

#include <algorithm>
#include <ctype.h>
#include <string.h>
#include <strings.h>

namespace tqcon {

// clang-format off
namespace {

constexpr Argument kNone = Argument::None;

constexpr Keyword kShow[] = {
    { "DETail",     nullptr, true,  { kNone } },
    { "SUMmary",    nullptr, false, { Argument::Queue } },
    { "SOckets",    nullptr, false, { Argument::Socket } },
    { "INterfaces", nullptr, false, { kNone } },
    { "Queues",     nullptr, false, { Argument::Queue } },
    { "Lists",      nullptr, false, { Argument::ListOption, Argument::ListOption } },
    { "HLists",     nullptr, false, { Argument::ListOption, Argument::ListOption } },
    { "HAShes",     nullptr, false, { Argument::List } },
    { "MEMory",     nullptr, false, { Argument::MemoryOption, Argument::MemoryOption } },
    { "TICks",      nullptr, false, { kNone } },
    { "Timers",     nullptr, false, { kNone } },
    { "THreads",    nullptr, false, { kNone } },
    { "SEMaphores", nullptr, false, { kNone } },
    { "HANdles",    nullptr, false, { kNone } },
    { "TRace",      nullptr, false, { Argument::Trace } },
    { "ENdian",     nullptr, false, { kNone } },
    { "DIR",        nullptr, false, { kNone } },
    { "UPtime",     nullptr, false, { kNone } },
    { "CURtime",    nullptr, false, { kNone } },
    { "?",          nullptr, false, { kNone } },
    { nullptr,      nullptr, false, { kNone } },
};

constexpr Keyword kSetTrace[] = {
    { "ENable",    nullptr, true,  { kNone } },
    { "DISable",   nullptr, true,  { kNone } },
    { "STDOut",    nullptr, false, { Argument::Trace } },
    { "STDErr",    nullptr, false, { Argument::Trace } },
    { "MULticast", nullptr, false, { Argument::Trace } },
    { "DEVstudio", nullptr, false, { Argument::Trace } },
    { "FILE",      nullptr, false, { Argument::Trace, Argument::Text } },
    { "TIMestamp", nullptr, false, { Argument::Trace } },
    { "THReadid",  nullptr, false, { Argument::Trace } },
    { "DELtatime", nullptr, false, { kNone } },
    { "LEVel",     nullptr, false, { Argument::Level, Argument::Trace } },
    { "CATegory",  nullptr, false, { Argument::Text, Argument::Trace } },
    { nullptr,     nullptr, false, { kNone } },
};

constexpr Keyword kSet[] = {
    { "MEMory",     nullptr,   false, { kNone } },
    { "SEMaphores", nullptr,   false, { Argument::OnOff } },
    { "TRace",      kSetTrace, false, { kNone } },
    { "HIStory",    nullptr,   false, { Argument::Queue, Argument::Text } },
    { "?",          nullptr,   false, { kNone } },
    { nullptr,      nullptr,   false, { kNone } },
};

constexpr Keyword kCheck[] = {
    { "MEMory",  nullptr, false, { kNone } },
    { "HANdles", nullptr, false, { kNone } },
    { nullptr,   nullptr, false, { kNone } },
};

constexpr Keyword kReset[] = {
    { "HISTogram", nullptr, false, { kNone } },
    { nullptr,     nullptr, false, { kNone } },
};

constexpr Keyword kClose[] = {
    { "SOcket", nullptr, false, { Argument::Socket } },
    { "Timer",  nullptr, false, { Argument::Queue, Argument::Text } },
    { nullptr,  nullptr, false, { kNone } },
};

} // namespace

const Keyword kCommands[] = {
    { "SHow",      kShow,   false, { kNone } },
    { "SEnd",      nullptr, false, { Argument::Queue, Argument::Text } },
    { "SET",       kSet,    false, { kNone } },
    { "CHeck",     kCheck,  false, { kNone } },
    { "REset",     kReset,  false, { kNone } },
    { "CLose",     kClose,  false, { kNone } },
    { "RUNscript", nullptr, false, { Argument::Text } },
    { "Echo",      nullptr, false, { Argument::OnOff } },
    { "Help",      nullptr, false, { kNone } },
    { "?",         nullptr, false, { kNone } },
    { "Quit",      nullptr, false, { kNone } },
    { "EXit",      nullptr, false, { kNone } },
    { nullptr,     nullptr, false, { kNone } },
};
// clang-format on

namespace {

const Keyword* Find(const Keyword* pTable, const std::string& word) {
    for (const Keyword* pRow = pTable; pRow->pszWord; ++pRow) {
        if (IsKeyword(word, pRow->pszWord)) {
            return pRow;
        }
    }
    return nullptr;
}

std::string LowerCase(const char* pszWord) {
    std::string word = pszWord;
    for (char& letter : word) {
        letter = static_cast<char>(tolower(static_cast<unsigned char>(letter)));
    }
    return word;
}

} // namespace

bool IsKeyword(const std::string& word, const char* pszKeyword) {
    size_t capitals = 0;
    while (pszKeyword[capitals] >= 'A' && pszKeyword[capitals] <= 'Z') {
        ++capitals;
    }
    return !word.empty() && strncasecmp(word.c_str(), pszKeyword, word.size() > capitals ? word.size() : capitals) == 0;
}

std::vector<std::string> Words(const std::string& line) {
    constexpr char kBlanks[] = " \t";
    std::vector<std::string> words;
    size_t at = line.find_first_not_of(kBlanks);
    while (at != std::string::npos) {
        const bool bQuoted = line[at] == '"';
        at += bQuoted ? 1 : 0;
        const size_t end = std::min(bQuoted ? line.find('"', at) : line.find_first_of(kBlanks, at), line.size());
        words.push_back(line.substr(at, end - at));
        at = end < line.size() ? line.find_first_not_of(kBlanks, end + 1) : std::string::npos;
    }
    return words;
}

Command ParseCommand(const std::string& line) {
    Command command;
    const Keyword* pTable = kCommands;
    for (const std::string& word : Words(line)) {
        if (!pTable) {
            command.arguments.push_back(word);
            continue;
        }
        const Keyword* const pRow = Find(pTable, word);
        if (!pRow) {
            return {};
        }
        if (pRow->bModifier) {
            command.bDetail = command.bDetail || strcmp(pRow->pszWord, "DETail") == 0;
            continue;
        }
        command.name += (command.name.empty() ? "" : " ") + LowerCase(pRow->pszWord);
        command.pKeyword = pRow;
        pTable = pRow->pNext;
    }
    return pTable ? Command() : command;
}

bool AsksQueues(const Command& command) {
    return command.name == "send" || command.name == "show summary";
}

bool EndsSession(const Command& command) {
    return command.name == "quit" || command.name == "exit";
}

} // namespace tqcon
