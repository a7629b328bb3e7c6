// Command lines over the whole table, against a second parser that says which of them the table knows. Commands run;
// their files stay in the scratch directory, since a "/" is never among their words.
//
// Input: the lines of the script file "s", ended by a line of one "."; then the lines that are typed.
#include "ConsoleSession.h"

namespace {

constexpr size_t kMostLines = 20;
constexpr size_t kMostScriptLines = 8;

bool SameText(const std::string& one, const std::string& other) {
    return one.size() == other.size() && strncasecmp(one.c_str(), other.c_str(), one.size()) == 0;
}

/// Takes the next word off a line; false when there is none or it is empty.
bool TakeWord(std::string& line, std::string* pWord) {
    line.erase(0, line.find_first_not_of(" \t"));
    const bool bQuoted = !line.empty() && line[0] == '"';
    line.erase(0, bQuoted ? 1 : 0);
    const size_t end = bQuoted ? line.find('"') : line.find_first_of(" \t");
    *pWord = line.substr(0, end);
    line.erase(0, end == std::string::npos ? end : end + 1);
    return !pWord->empty();
}

/// Whether a word means a keyword: it begins it, and has its leading capitals at least.
bool Means(const std::string& word, const std::string& keyword) {
    size_t capitals = 0;
    while (capitals < keyword.size() && keyword[capitals] >= 'A' && keyword[capitals] <= 'Z') {
        ++capitals;
    }
    return word.size() >= capitals && word.size() <= keyword.size() && SameText(word, keyword.substr(0, word.size()));
}

/// The row of the table that a word means; null when it means none.
const TOKEN_PARSER* RowOf(const std::string& word, const TOKEN_PARSER* pTable) {
    while (pTable->pszToken && !Means(word, pTable->pszToken)) {
        ++pTable;
    }
    return pTable->pszToken ? pTable : nullptr;
}

/// Whether the line is the command that switches the echo. A script may have it too, but gives back what it found.
bool IsEcho(std::string line) {
    std::string word;
    const TOKEN_PARSER* pRow = TakeWord(line, &word) ? RowOf(word, kTopCommands) : nullptr;
    return pRow && SameText(pRow->pszToken, "Echo");
}

/// Whether the table has a handler for the line.
bool IsKnown(std::string line, const TOKEN_PARSER* pTable) {
    std::string word;
    while (TakeWord(line, &word)) {
        const TOKEN_PARSER* pRow = RowOf(word, pTable);
        if (!pRow) {
            return false;
        }
        if (pRow->uiFlagValue == 0 && !pRow->pNextTokenStruct) {
            return true;
        }
        pTable = pRow->uiFlagValue != 0 ? pTable : pRow->pNextTokenStruct;
    }
    return false;
}

bool Ends(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Types a command; false when it has ended the session.
bool RunCommand(const std::string& line) {
    const bool bEcho = console::Session()->bEcho;
    const std::string shown = console::Type(line + '\r');
    const TELNET_INSTANCE* pSession = console::Session();
    if (!pSession) {
        return false;
    }
    FUZZ_CHECK(pSession->bEcho == bEcho || IsEcho(line));
    console::CheckSession(*pSession);
    FUZZ_EQUAL(0u, pSession->uiCommandIndex);
    FUZZ_CHECK(Ends(shown, ">"));
    const bool bBlank = line.find_first_not_of(' ') == std::string::npos;
    if (!bBlank && !IsKnown(line, kTopCommands)) {
        FUZZ_CHECK(Ends(shown, "Syntax error.\r\n\r\n>"));
    }
    console::TakeResponses();
    return true;
}

/// The script. One of its lines at most may run a script: with more of them, eight deep, there would be no end.
std::string ReadScript(fuzz::Input& input) {
    std::string script;
    std::string line = input.Line();
    bool bRuns = false;
    for (size_t lines = 0; line != "." && !input.IsEmpty(); ++lines) {
        const bool bRun = line.find_first_of("rR") != std::string::npos;
        if (lines < kMostScriptLines && !(bRun && bRuns)) {
            script += console::Confined(line) + "\r\n";
            bRuns = bRuns || bRun;
        }
        line = input.Line();
    }
    return script;
}

void OneInput(fuzz::Input input) {
    fuzz::WriteFile("s", ReadScript(input));
    console::Connect();
    console::Type(std::string(console::kPassword) + '\r');
    FUZZ_CHECK(console::Session() && console::Session()->bLoggedIn);
    bool bOpen = true;
    for (size_t lines = 0; bOpen && !input.IsEmpty() && lines < kMostLines; ++lines) {
        bOpen = RunCommand(console::Confined(input.Line()));
    }
    console::Disconnect();
    console::ResetSettings();
    console::RemoveFiles();
}

} // namespace

FUZZ_TARGET_WITH_START("[Memory]\r\nEnableMemoryTracking=yes\r\nEnableMemoryPooling=yes\r\nEnableHistogram=yes\r\n"
                       "HistogramMaxSize=2000\r\n[Trace]\r\nDefaultLogToSTDOUT=no\r\n",
                       console::Start, OneInput)
