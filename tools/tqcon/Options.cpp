#include "Options.h"

#include <algorithm>
#include <errno.h>
#include <fstream>
#include <getopt.h>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdlib.h>
#include <string.h>

#include "Password.h"

namespace tqcon {

namespace {

constexpr char kHelp[] =
    "usage: tqcon HOST:PORT [OPTION]...        a session with a device's console\n"
    "       tqcon top HOST:PORT [OPTION]...    a screen of its queues, sockets, memory, threads and locks\n"
    "       tqcon leaks HOST:PORT [OPTION]...  what it allocates from now on and does not give back\n"
    "\n"
    "A session without a command is one under your hands; with the standard input from elsewhere, its lines are the\n"
    "commands.\n"
    "\n"
    "  -c, --command COMMAND    runs a command of the console and ends; may be repeated\n"
    "  -f, --file FILE          runs a file's lines, whatever they end with; \"-\" is the standard input. Empty lines\n"
    "                           and those that begin with # are passed over.\n"
    "      --stop               ends at the first command that the device refuses, instead of going on\n"
    "  -w, --watch SECONDS      runs the commands again and again, and shows what has changed in their tables; for\n"
    "                           top, the time from one screen to the next (1)\n"
    "  -n, --count COUNT        so many rounds, or screens, and no more; top without a terminal shows one\n"
    "  -s, --sort COLUMN        sorts the watched tables by a column; -COLUMN: the greatest first\n"
    "      --json               writes an object for each command, one a line: the report's tables, or the text\n"
    "\n"
    "  leaks:\n"
    "      --for SECONDS        waits so long between the mark and the look; without it, until Enter\n"
    "      --filter TEXT        only what files with this in their names have allocated\n"
    "      --all                also what the console itself keeps of this session\n"
    "      --pprof FILE         writes a profile for pprof too\n"
    "\n"
    "      --password-file FILE the password is the file's first line\n"
    "      --timeout SECONDS    of silence of the device, while it owes an answer (10)\n"
    "      --wait SECONDS       for answers of queues, which owe none, after the last sign of them (1)\n"
    "  -h, --help               shows this\n"
    "\n"
    "The password comes from --password-file, or from the environment variable TQOS_PASSWORD, or is asked for on the\n"
    "terminal. It is never an argument.\n"
    "\n"
    "Exit status:\n"
    "   0  everything was answered\n"
    "   1  the device answered \"Syntax error.\" to a command\n"
    "   2  it refused the login\n"
    "   3  there is no connection, or it ended early\n"
    "   4  the device was silent for too long\n"
    "   5  it does not keep what is asked for: leaks need its memory pools and tracking\n"
    "  64  the arguments are not understood, or a file cannot be read\n";

enum LongOption { kStop = 256, kPassword, kPasswordFile, kTimeout, kWait, kJson, kFor, kFilter, kAll, kPprof };

const struct option kLongOptions[] = {
    {"command", required_argument, nullptr, 'c'},
    {"file", required_argument, nullptr, 'f'},
    {"stop", no_argument, nullptr, kStop},
    {"watch", required_argument, nullptr, 'w'},
    {"count", required_argument, nullptr, 'n'},
    {"sort", required_argument, nullptr, 's'},
    {"json", no_argument, nullptr, kJson},
    {"for", required_argument, nullptr, kFor},
    {"filter", required_argument, nullptr, kFilter},
    {"all", no_argument, nullptr, kAll},
    {"pprof", required_argument, nullptr, kPprof},
    {"password", required_argument, nullptr, kPassword},
    {"password-file", required_argument, nullptr, kPasswordFile},
    {"timeout", required_argument, nullptr, kTimeout},
    {"wait", required_argument, nullptr, kWait},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

int Refuse(const std::string& problem) {
    std::cerr << "tqcon: " << problem << "; --help says more\n";
    return kUsageError;
}

/// Seconds, which may have a fraction, as milliseconds; -1 when it is no number from 0 to a million.
int Milliseconds(const char* pszSeconds) {
    char* pszEnd = nullptr;
    const double seconds = strtod(pszSeconds, &pszEnd);
    const bool bNumber = pszEnd != pszSeconds && *pszEnd == '\0' && seconds >= 0 && seconds <= 1e6;
    return bNumber ? static_cast<int>(seconds * 1000) : -1;
}

bool ReadScript(const std::string& path, std::string* pText) {
    if (path == "-") {
        pText->assign(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    std::ifstream file(path, std::ios::binary);
    pText->assign(std::istreambuf_iterator<char>(file), {});
    return file.is_open() && !file.bad();
}

int AddScript(const std::string& path, Options* pOptions) {
    std::string text;
    errno = 0;
    if (!ReadScript(path, &text)) {
        return Refuse(path + ": " + strerror(errno));
    }
    const std::vector<std::string> lines = ScriptLines(text);
    pOptions->commands.insert(pOptions->commands.end(), lines.begin(), lines.end());
    pOptions->bHasCommands = true;
    return -1;
}

int SetTime(const char* pszName, int* pMs) {
    *pMs = Milliseconds(optarg);
    return *pMs >= 0 ? -1 : Refuse(std::string(pszName) + " takes a number of seconds");
}

int SetCount(unsigned int* pCount) {
    char* pszEnd = nullptr;
    const unsigned long count = strtoul(optarg, &pszEnd, 10);
    *pCount = static_cast<unsigned int>(count);
    const bool bNumber = *optarg >= '0' && *optarg <= '9' && *pszEnd == '\0' && count >= 1 && count <= 1000000000;
    return bNumber ? -1 : Refuse("--count takes a number from 1 on");
}

int SetFilter(std::string* pFilter) {
    *pFilter = optarg;
    return pFilter->find_first_of(" \t\"") == std::string::npos ? -1 : Refuse("--filter takes a word without blanks");
}

/// Of the options that say what is done.
int TakeTask(int option, Options* pOptions) {
    switch (option) {
    case 'c':
        pOptions->commands.push_back(optarg);
        pOptions->bHasCommands = true;
        return -1;
    case 'f':
        return AddScript(optarg, pOptions);
    case 'w':
        pOptions->bWatch = true;
        return SetTime("--watch", &pOptions->everyMs);
    case 'n':
        return SetCount(&pOptions->count);
    case 's':
        pOptions->sort = optarg;
        return -1;
    case kFor:
        return SetTime("--for", &pOptions->forMs);
    case kFilter:
        return SetFilter(&pOptions->filter);
    case kPprof:
        pOptions->pprofFile = optarg;
        return -1;
    default: // getopt_long() has said what is wrong
        return kUsageError;
    }
}

int TakeOption(int option, Options* pOptions) {
    switch (option) {
    case kStop:
        pOptions->bStopOnError = true;
        return -1;
    case kAll:
        pOptions->bAll = true;
        return -1;
    case kJson:
        pOptions->format = Format::JsonLines;
        return -1;
    case kPassword: // else it would be an abbreviation of the next one
        return Refuse("a password is never an argument: everybody on the machine would see it");
    case kPasswordFile:
        pOptions->passwordFile = optarg;
        return -1;
    case kTimeout:
        return SetTime("--timeout", &pOptions->limits.silenceMs);
    case kWait:
        return SetTime("--wait", &pOptions->limits.queueMs);
    case 'h':
        std::cout << kHelp;
        return 0;
    default:
        return TakeTask(option, pOptions);
    }
}

struct ModeWord {
    const char* pszWord;
    Options::Mode mode;
};
constexpr ModeWord kModes[] = {{"top", Options::Mode::Top}, {"leaks", Options::Mode::Leaks}};

/// Takes the word that says what to show out of the words, wherever it stands.
void TakeMode(std::vector<std::string>* pWords, Options* pOptions) {
    for (const ModeWord& mode : kModes) {
        const auto word = std::find(pWords->begin(), pWords->end(), mode.pszWord);
        if (word != pWords->end() && pOptions->mode == Options::Mode::Session) {
            pOptions->mode = mode.mode;
            pWords->erase(word);
        }
    }
}

/// What stands beside the options: perhaps what to show, and the address.
int TakeWords(std::vector<std::string> words, Options* pOptions) {
    TakeMode(&words, pOptions);
    const bool bMode = pOptions->mode != Options::Mode::Session;
    if (words.size() != 1) {
        return Refuse(words.empty() ? "no HOST:PORT" : "too many arguments, or none that is known: " + words[0]);
    }
    pOptions->address = tools::ParseAddress(words.back());
    if (pOptions->address.host.empty() || pOptions->address.port.empty()) {
        return Refuse("not HOST:PORT: " + words.back());
    }
    if (bMode && pOptions->bHasCommands) {
        return Refuse("top and leaks run no commands");
    }
    if (pOptions->bWatch && !bMode && !pOptions->bHasCommands) {
        return Refuse("--watch needs a command");
    }
    return -1;
}

} // namespace

std::vector<std::string> ScriptLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = std::min(text.find_first_of("\r\n", at), text.size());
        const std::string line = text.substr(at, end - at);
        const size_t first = line.find_first_not_of(" \t");
        if (first != std::string::npos && line[first] != '#') {
            lines.push_back(line);
        }
        at = end + 1;
    }
    return lines;
}

int ParseOptions(int argc, char** argv, Options* pOptions) {
    int option = 0;
    while ((option = getopt_long(argc, argv, "c:f:w:n:s:h", kLongOptions, nullptr)) != -1) {
        const int status = TakeOption(option, pOptions);
        if (status >= 0) {
            return status;
        }
    }
    const int status = TakeWords(std::vector<std::string>(argv + optind, argv + argc), pOptions);
    if (status >= 0) {
        return status;
    }
    pOptions->limits.connectMs = pOptions->limits.silenceMs;
    return -1;
}

} // namespace tqcon
