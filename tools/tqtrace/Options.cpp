#include "Options.h"

#include <algorithm>
#include <stdlib.h>

namespace tqtrace {

const char kUsage[] = R"(usage: tqtrace list [--seconds N] [--json]
       tqtrace follow NAME... [--console HOST:PORT --set-level LEVEL [--password-file FILE]]
                      [--seconds N] [--lines N] [--buffer BYTES] [filters] [output]
       tqtrace read FILE... [--deltas] [filters] [output]

list    finds the trace instances that announce themselves. Status: 0 there are some, 1 none
follow  shows what instances write. NAME is that of an instance ("device"), with the device's address in front of it
        ("10.0.0.7:device"), a pattern of either ("*"), or the place itself ("10.0.0.7:40112")
  --console, --set-level  set the level of what is followed through the device's console; it is put back at the end.
        The password comes from --password-file or TQOS_PASSWORD
read    shows trace files, those of one machine or of several merged by time; "-" is standard input
  --deltas  their milliseconds count from the line before

filters: --level LEVEL, --instance NAME, --thread ID, --match PATTERN, --except PATTERN; all but the first repeatable
output:  --json, --output FILE, --max-bytes N (of the file; it then becomes FILE.1), --max-files N (2)
every command: --group ADDRESS:PORT (of announcements)

Status: 0 ended as told, 1 nothing was found, 2 the command line is wrong, or something could not be read or written
)";

namespace {

bool ParseUnsigned(const std::string& text, uint64_t most, uint64_t* pNumber) {
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *pNumber = strtoull(text.c_str(), nullptr, 10);
    return *pNumber <= most;
}

template <typename Number> bool SetNumber(const std::string& text, uint64_t least, uint64_t most, Number* pNumber) {
    uint64_t number = 0;
    const bool bGood = ParseUnsigned(text, most, &number) && number >= least;
    *pNumber = static_cast<Number>(number);
    return bGood;
}

bool AddPattern(const std::string& text, std::vector<Pattern>* pPatterns, std::string* pProblem) {
    pPatterns->emplace_back();
    return pPatterns->back().Set(text, pProblem);
}

bool AddThread(const std::string& text, Options* pOptions) {
    pOptions->filter.threads.push_back(0);
    return SetNumber(text, 0, UINT32_MAX, &pOptions->filter.threads.back());
}

bool SetLevel(const std::string& text, Options* pOptions) {
    int level = 0;
    pOptions->level = ParseLevel(text, &level) ? std::optional<int>(level) : std::nullopt;
    return pOptions->level.has_value();
}

bool SetConsole(const std::string& text, Options* pOptions) {
    pOptions->console = tools::ParseAddress(text);
    return !pOptions->console.host.empty() && !pOptions->console.port.empty();
}

constexpr char kList[] = "list";
constexpr char kFollow[] = "follow";
constexpr char kRead[] = "read";
constexpr char kShown[] = "follow read"; // what shows records

struct OptionRow {
    const char* pszName;
    const char* pszCommands; ///< that have it
    bool bValue;
    /// False for a value that makes no sense; says why when there is more to say.
    bool (*set)(const std::string& value, Options* pOptions, std::string* pProblem);
};

using Text = const std::string&;
using Out = Options*;
using Why = std::string*;

const OptionRow kOptions[] = {
    {"--json", "list follow read", false, [](Text, Out p, Why) { return p->bJson = true; }},
    {"--deltas", kRead, false, [](Text, Out p, Why) { return p->bDeltas = true; }},
    {"--level", kShown, true, [](Text text, Out p, Why) { return ParseLevel(text, &p->filter.least); }},
    {"--instance", kShown, true, [](Text text, Out p, Why) { return p->filter.instances.push_back(text), true; }},
    {"--thread", kShown, true, [](Text text, Out p, Why) { return AddThread(text, p); }},
    {"--match", kShown, true, [](Text text, Out p, Why why) { return AddPattern(text, &p->filter.patterns, why); }},
    {"--except", kShown, true, [](Text text, Out p, Why why) { return AddPattern(text, &p->filter.exceptions, why); }},
    {"--output", kShown, true, [](Text text, Out p, Why) { return !(p->outputPath = text).empty(); }},
    {"--max-bytes", kShown, true, [](Text text, Out p, Why) { return SetNumber(text, 1, INT64_MAX, &p->maxBytes); }},
    {"--max-files", kShown, true, [](Text text, Out p, Why) { return SetNumber(text, 1, 10000, &p->maxFiles); }},
    {"--seconds", "list follow", true, [](Text text, Out p, Why) { return SetNumber(text, 1, 1000000, &p->seconds); }},
    {"--lines", kFollow, true, [](Text text, Out p, Why) { return SetNumber(text, 1, INT64_MAX, &p->lines); }},
    {"--buffer", kFollow, true, [](Text text, Out p, Why) { return SetNumber(text, 1, 1 << 30, &p->bufferBytes); }},
    {"--set-level", kFollow, true, [](Text text, Out p, Why) { return SetLevel(text, p); }},
    {"--console", kFollow, true, [](Text text, Out p, Why) { return SetConsole(text, p); }},
    {"--password-file", kFollow, true, [](Text text, Out p, Why) { return !(p->passwordFile = text).empty(); }},
    {"--group", "list follow", true, [](Text text, Out p, Why) { return ParseEndpoint(text, &p->group); }},
};

bool HasWord(const std::string& words, const std::string& word) {
    return (" " + words + " ").find(" " + word + " ") != std::string::npos;
}

const OptionRow* FindOption(const std::string& command, const std::string& name) {
    for (const OptionRow& row : kOptions) {
        if (name == row.pszName && HasWord(row.pszCommands, command)) {
            return &row;
        }
    }
    return nullptr;
}

bool TakeOption(const std::vector<std::string>& words, size_t* pAt, Options* pOptions, std::string* pProblem) {
    const std::string name = words[*pAt];
    const OptionRow* pRow = FindOption(pOptions->command, name);
    if (!pRow) {
        *pProblem = pOptions->command + " has no option " + name;
        return false;
    }
    if (pRow->bValue && ++*pAt == words.size()) {
        *pProblem = name + " needs a value";
        return false;
    }
    std::string reason;
    if (!pRow->set(words[*pAt], pOptions, &reason)) {
        *pProblem = name + ": " + (reason.empty() ? "not with " + words[*pAt] : reason);
        return false;
    }
    return true;
}

bool CheckWhole(const Options& options, std::string* pProblem) {
    const bool bNamesNothing = options.command == kList;
    if (options.names.empty() != bNamesNothing) {
        *pProblem = options.command + (bNamesNothing ? " takes no names" : " needs names");
    } else if (options.level.has_value() != !options.console.host.empty()) {
        *pProblem = "--set-level and --console go together";
    } else if (options.maxBytes != 0 && options.outputPath.empty()) {
        *pProblem = "--max-bytes goes with --output";
    }
    return pProblem->empty();
}

} // namespace

bool ParseOptions(const std::vector<std::string>& words, Options* pOptions, std::string* pProblem) {
    pProblem->clear();
    ParseEndpoint(kGroup, &pOptions->group);
    if (words.empty()) {
        *pProblem = "a command is needed";
        return false;
    }
    pOptions->command = words[0] == "--help" || words[0] == "-h" ? "help" : words[0];
    if (!HasWord("help list follow read", pOptions->command)) {
        *pProblem = "there is no command " + words[0];
        return false;
    }
    bool bOptions = true;
    for (size_t i = 1; i < words.size(); ++i) {
        if (bOptions && words[i] == "--") {
            bOptions = false;
        } else if (!bOptions || words[i].compare(0, 2, "--") != 0) {
            pOptions->names.push_back(words[i]);
        } else if (!TakeOption(words, &i, pOptions, pProblem)) {
            return false;
        }
    }
    return pOptions->command == "help" || CheckWhole(*pOptions, pProblem);
}

} // namespace tqtrace
