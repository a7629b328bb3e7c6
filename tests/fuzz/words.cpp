// The words of trace levels, categories and memory reports, against second readers of them.
//
// Input: lines, each a letter and words: "l" a level, "c" categories, "m" the options of a memory report, "d" those of
// a detailed one.
#include "ConsoleSession.h"

namespace {

constexpr size_t kMostLine = 1000; // the words of a command; it has others before and behind them

/// How many commands an input has, at most. A report that shows each block takes as long as fifty others.
struct Limits {
    unsigned int commands;
    unsigned int details;
};
constexpr Limits kLimitsOfSeeds = {1000, 1000};
constexpr Limits kLimits = {12, 1};

unsigned int ghTrace = 0;

bool Begins(const std::string& text, const std::string& beginning) {
    return text.size() >= beginning.size() && strncasecmp(text.c_str(), beginning.c_str(), beginning.size()) == 0;
}

/// The digits that a text begins with as a number, the sign in front of it; the most there is when there are too many.
long long NumberOf(const std::string& text, long long least, long long most) {
    errno = 0;
    const long long value = strtoll(text.c_str(), nullptr, 10);
    return value < least ? least : value > most ? most : value;
}

unsigned int HexadecimalOf(const std::string& text) {
    unsigned long long value = 0;
    for (size_t at = 2; at < text.size() && isxdigit(static_cast<unsigned char>(text[at])); ++at) {
        const std::string digit(1, text[at]);
        value = value > UINT_MAX ? value : value * 16 + strtoul(digit.c_str(), nullptr, 16);
    }
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

/// Whether the word can be one: a single word without quotes.
bool IsWord(const std::string& word) {
    return !word.empty() && word.find_first_of(" \t\"") == std::string::npos;
}

std::string Command(const std::string& line) {
    const std::string shown = console::Type(line + '\r');
    FUZZ_CHECK(console::Session());
    return shown;
}

void Level(const std::string& word) {
    const struct {
        const char* pszBeginning;
        int level;
    } kLevels[] = {{"Cri", 50000}, {"Sev", 40000}, {"War", 30000}, {"Inf", 20000},
                   {"Deb", 10000}, {"Low", 5000},  {"All", 0},     {"No", 2147483647}};
    long long expected = Begins(word, "0x") ? static_cast<int>(HexadecimalOf(word)) : NumberOf(word, INT_MIN, INT_MAX);
    for (const auto& row : kLevels) {
        expected = Begins(word, row.pszBeginning) ? row.level : expected;
    }
    Command("set tr lev " + word + " fuzz");
    FUZZ_EQUAL(expected, tq_TraceGetLevel(ghTrace));
}

void Category(const std::string& word) {
    static const char* const kNames[] = {"doors", "Windows", "0roof"};
    const unsigned int before = static_cast<unsigned int>(tq_TraceGetCatMask(ghTrace));
    const char sign = word[0] == '+' || word[0] == '-' ? word[0] : '=';
    const std::string value = word.substr(sign == '=' ? 0 : 1);
    long long mask = NumberOf(value, 0, UINT_MAX);
    const bool bNegative = mask == 0 && strtoll(value.c_str(), nullptr, 10) < 0;
    for (unsigned int i = 0; i < 3; ++i) {
        const bool bNamed = strcasecmp(value.c_str(), kNames[i]) == 0 && value[0] != '0';
        mask = bNamed ? 1 << i : mask;
    }
    mask = Begins(value, "All")  ? UINT_MAX
           : Begins(value, "No") ? 0
           : Begins(value, "0x") ? HexadecimalOf(value)
                                 : mask;
    Command("set tr cat " + word + " fuzz");
    const unsigned int after = static_cast<unsigned int>(tq_TraceGetCatMask(ghTrace));
    if (bNegative) {
        tq_TraceSetCatMask(ghTrace, static_cast<int>(before)); // a number below 0 is nobody's mask
        return;
    }
    const unsigned int bits = static_cast<unsigned int>(mask);
    FUZZ_EQUAL(sign == '+' ? before | bits : sign == '-' ? before & ~bits : bits, after);
}

/// What the options of a memory report come to.
struct Options {
    std::string error; ///< the text that ends the command
    bool bHistogram = false;
    bool bConflict = false; ///< with a histogram
    bool bBadPool = false;
    bool bFile = false;
    unsigned int pool = 0;
};

void TakeOption(const std::string& word, Options& options) {
    const std::string value = word.substr(word.find('=') == std::string::npos ? word.size() : word.find('=') + 1);
    const auto isKey = [](const std::string& text, std::initializer_list<const char*> keys) {
        bool bFound = false;
        for (const char* pszKey : keys) {
            bFound = bFound || Begins(text, pszKey);
        }
        return bFound;
    };
    if (Begins(word, "pool=")) {
        options.pool = static_cast<unsigned int>(NumberOf(value, 0, INT_MAX));
        options.bBadPool = options.pool == 0;
    } else if (isKey(word, {"filter=", "filterout="})) {
        options.bConflict = true;
    } else if (Begins(word, "histogram")) {
        options.bHistogram = true;
    } else if (Begins(word, "size=") && NumberOf(value, 0, INT_MAX) == 0) {
        options.error = "Invalid size value! (must be: a number greater than 0).";
    } else if (Begins(word, "line=") && NumberOf(value, 0, INT_MAX) == 0) {
        options.error = "Invalid line value! (must be: a number greater than 0).";
    } else if (Begins(word, "format=") && !isKey(value, {"numeric", "graphic", "combo", "ini"})) {
        options.error = "Invalid format value! (must be: numeric, graphic, combo, or ini)";
    } else if (Begins(word, "group=") &&
               !isKey(value, {"alpha", "bytes", "count", "ratio", "-alpha", "-bytes", "-count", "-ratio"})) {
        options.error = "Invalid group value! (must be: [-]alpha, [-]bytes, [-]count, or [-]ratio)";
    } else if (Begins(word, "group")) {
        options.bConflict = true;
    } else if (Begins(word, "file=")) {
        options.error = value.empty() || value == "." || value == ".." || value.size() > 255
                            ? "Failed to open file: " + value + "!"
                            : "";
        options.bFile = true;
    }
}

/// Reads the words up to the first that ends the reading.
Options ReadOptions(std::string line) {
    Options options;
    while (options.error.empty() && !options.bBadPool) {
        line.erase(0, line.find_first_not_of(" \t"));
        if (line.empty()) {
            break;
        }
        const size_t end = line.find_first_of(" \t");
        TakeOption(line.substr(0, end), options);
        line.erase(0, end);
    }
    return options;
}

void Memory(const std::string& line, bool bDetail) {
    if (line.find('"') != std::string::npos || line == "?") {
        return; // quotes are for another target, and the sign is for help
    }
    const Options options = ReadOptions(line);
    Command((bDetail ? "sh det mem " : "sh mem ") + line);
    const std::string shown = console::TakeResponses();
    const auto says = [&shown](const std::string& text) { return shown.find(text) != std::string::npos; };
    if (!options.error.empty()) {
        FUZZ_EQUAL(options.error + "\r\n\r\n>", shown);
        return;
    }
    FUZZ_EQUAL(options.bHistogram && options.bConflict, says("Conflicting requests."));
    if (!options.bHistogram) {
        FUZZ_EQUAL(!options.bFile && (options.bBadPool || options.pool > TotalPools),
                   says("Invalid Pool id specified!"));
    }
}

void Start() {
    console::Start();
    ghTrace = tq_TraceInitInstance("fuzz");
    tq_TraceSetCategoryName(ghTrace, 1, "doors");
    tq_TraceSetCategoryName(ghTrace, 2, "Windows");
    tq_TraceSetCategoryName(ghTrace, 4, "0roof");
    fuzz::Settle();
}

void OneCommand(unsigned int letter, const std::string& line, Limits& left) {
    if ((letter == 'l' || letter == 'c') && IsWord(line)) {
        (letter == 'l' ? Level : Category)(line);
    } else if (letter == 'm') {
        Memory(line, /*bDetail=*/false);
    } else if (letter == 'd' && left.details > 0) {
        left.details -= 1;
        Memory(line, /*bDetail=*/true);
    }
}

void OneInput(fuzz::Input input) {
    console::Connect();
    Command(console::kPassword);
    tq_TraceSetCatMask(ghTrace, 5);
    for (Limits left = fuzz::OnlySeeds() ? kLimitsOfSeeds : kLimits; left.commands > 0 && !input.IsEmpty();) {
        left.commands -= 1;
        const unsigned int letter = input.Byte();
        OneCommand(letter, console::Confined(input.Line()).substr(0, kMostLine), left);
    }
    console::Disconnect();
    console::ResetSettings();
    console::RemoveFiles();
}

} // namespace

FUZZ_TARGET_WITH_START("[Memory]\r\nEnableMemoryTracking=yes\r\nEnableMemoryPooling=yes\r\nEnableHistogram=yes\r\n"
                       "HistogramMaxSize=2000\r\n[Trace]\r\nDefaultLogToSTDOUT=no\r\n",
                       Start, OneInput)
