#include "Completion.h"

#include <algorithm>
#include <ctype.h>
#include <string.h>
#include <strings.h>

namespace tqcon {

namespace {

constexpr const char* kOnOff[] = {"on", "off", nullptr};
constexpr const char* kLevels[] = {"All",    "Low",      "Debug", "Informational", "Warning",
                                   "Severe", "Critical", "None",  nullptr};
constexpr const char* kListOptions[] = {"start=",     "max=",         "sort=count",  "sort=maxcount",
                                        "sort=name",  "sort=handle",  "sort=-count", "sort=-maxcount",
                                        "sort=-name", "sort=-handle", nullptr};
constexpr const char* kMemoryOptions[] = {
    "pool=",       "filter=",        "filterout=",     "size=",        "line=",        "group",        "group=alpha",
    "group=bytes", "group=count",    "group=ratio",    "group=-alpha", "group=-bytes", "group=-count", "group=-ratio",
    "histogram",   "format=numeric", "format=graphic", "format=combo", "format=ini",   "file=",        nullptr};

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.size() >= beginning.size() && strncasecmp(text.c_str(), beginning.c_str(), beginning.size()) == 0;
}

/// A name as one word of a line.
std::string Quoted(const std::string& name) {
    return name.find_first_of(" \t") != std::string::npos ? "\"" + name + "\"" : name;
}

class Collector {
public:
    Collector(const std::string& word, const NamesOf& names, std::vector<Candidate>* pCandidates)
        : m_word(word), m_names(names), m_pCandidates(pCandidates) {}

    void AddKeywords(const Keyword* pTable) {
        for (const Keyword* pRow = pTable; pRow->pszWord; ++pRow) {
            std::string word = pRow->pszWord;
            std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return tolower(c); });
            Add(word, word, pRow->pszWord);
        }
    }

    void AddWords(const char* const* ppszWords) {
        for (; *ppszWords; ++ppszWords) {
            Add(*ppszWords, *ppszWords, *ppszWords);
        }
    }

    /// By name: for commands that take one. They take a number as well, which is completed where it has been begun.
    void AddNames(Argument argument) {
        const bool bNumber = !m_word.empty() && isdigit(static_cast<unsigned char>(m_word[0]));
        for (const Named& named : m_names(argument)) {
            if (bNumber && Add(named.number, named.number, named.number + " " + named.name)) {
                continue;
            }
            if (!named.name.empty()) {
                Add(named.name, Quoted(named.name), Quoted(named.name));
            }
        }
    }

    /// By number or by name; a number is what the command takes.
    void AddNumbers(Argument argument) {
        for (const Named& named : m_names(argument)) {
            if (!Add(named.number, named.number, named.number + " " + named.name)) {
                Add(named.name, named.number, named.number + " " + named.name);
            }
        }
    }

private:
    bool Add(const std::string& matched, const std::string& text, const std::string& shown) {
        const bool bMatches = BeginsWith(matched, m_word) && !matched.empty();
        if (bMatches) {
            m_pCandidates->push_back({text, shown});
        }
        return bMatches;
    }

    const std::string& m_word;
    const NamesOf& m_names;
    std::vector<Candidate>* m_pCandidates;
};

void AddArguments(Argument argument, const Command& command, Collector* pCollector) {
    switch (argument) {
    case Argument::Queue: // a queue goes by its name where a command says so, and by its number everywhere
        if (command.name == "send" || command.name == "set history") {
            pCollector->AddNames(argument);
        } else {
            pCollector->AddNumbers(argument);
        }
        break;
    case Argument::Socket:
        if (command.name == "show sockets" && !command.bDetail) {
            break; // without DETail it takes none
        }
        pCollector->AddNumbers(argument);
        break;
    case Argument::List:
        pCollector->AddNumbers(argument);
        break;
    case Argument::Trace:
        pCollector->AddNames(argument);
        break;
    case Argument::OnOff:
        pCollector->AddWords(kOnOff);
        break;
    case Argument::Level:
        pCollector->AddWords(kLevels);
        break;
    case Argument::ListOption:
        pCollector->AddWords(kListOptions);
        pCollector->AddNames(Argument::List);
        break;
    case Argument::MemoryOption:
        pCollector->AddWords(kMemoryOptions);
        break;
    case Argument::None:
    case Argument::Text:
        break;
    }
}

/// Where the last word begins; at the end when the line ends with a blank outside quotes.
size_t LastWord(const std::string& line) {
    size_t at = line.find_first_not_of(" \t");
    while (at != std::string::npos) {
        const size_t end = line[at] == '"' ? line.find('"', at + 1) : line.find_first_of(" \t", at);
        if (end == std::string::npos) {
            return at;
        }
        at = line.find_first_not_of(" \t", end + 1);
    }
    return line.size();
}

/// The table that the words lead to; null when they are a whole command, or none.
const Keyword* TableBehind(const std::vector<std::string>& words) {
    const Keyword* pTable = kCommands;
    for (const std::string& word : words) {
        const Keyword* pRow = pTable;
        while (pRow->pszWord && !IsKeyword(word, pRow->pszWord)) {
            ++pRow;
        }
        if (!pRow->pszWord) {
            return nullptr;
        }
        pTable = pRow->bModifier ? pTable : pRow->pNext;
        if (!pTable) {
            return nullptr;
        }
    }
    return pTable;
}

} // namespace

Completion Complete(const std::string& line, const NamesOf& names) {
    Completion completion;
    completion.begin = LastWord(line);
    const std::string before = line.substr(0, completion.begin);
    std::string word = line.substr(completion.begin);
    word.erase(0, !word.empty() && word[0] == '"' ? 1 : 0);
    Collector collector(word, names, &completion.candidates);
    if (const Keyword* pTable = TableBehind(Words(before))) {
        collector.AddKeywords(pTable);
        return completion;
    }
    const Command command = ParseCommand(before);
    if (command.pKeyword) {
        const size_t place = std::min<size_t>(command.arguments.size(), kMostArguments - 1);
        AddArguments(command.pKeyword->arguments[place], command, &collector);
    }
    return completion;
}

std::string CommonBeginning(const std::vector<Candidate>& candidates) {
    std::string common = candidates.empty() ? "" : candidates[0].text;
    for (const Candidate& candidate : candidates) {
        size_t same = 0;
        while (same < common.size() && same < candidate.text.size() &&
               strncasecmp(&common[same], &candidate.text[same], 1) == 0) {
            ++same;
        }
        common.resize(same);
    }
    return common;
}

} // namespace tqcon
