#include "Options.h"

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

constexpr int kUsageError = 64; // none of the statuses that say how a session went

constexpr char kHelp[] =
    "usage: tqcon HOST:PORT [OPTION]...        a session with a device's console\n"
    "\n"
    "Without a command it is a session under your hands; with the standard input from elsewhere, its lines are the\n"
    "commands.\n"
    "\n"
    "  -c, --command COMMAND    runs a command of the console and ends; may be repeated\n"
    "  -f, --file FILE          runs a file's lines, whatever they end with; \"-\" is the standard input. Empty lines\n"
    "                           and those that begin with # are passed over.\n"
    "      --stop               ends at the first command that the device refuses, instead of going on\n"
    "      --json               writes an object for each command, one a line: the report's tables, or the text\n"
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
    "  64  the arguments are not understood, or a file cannot be read\n";

enum LongOption { kStop = 256, kPassword, kPasswordFile, kTimeout, kWait, kJson };

const struct option kLongOptions[] = {
    {"command", required_argument, nullptr, 'c'},
    {"file", required_argument, nullptr, 'f'},
    {"stop", no_argument, nullptr, kStop},
    {"password", required_argument, nullptr, kPassword},
    {"password-file", required_argument, nullptr, kPasswordFile},
    {"timeout", required_argument, nullptr, kTimeout},
    {"wait", required_argument, nullptr, kWait},
    {"json", no_argument, nullptr, kJson},
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

int TakeOption(int option, Options* pOptions) {
    switch (option) {
    case 'c':
        pOptions->commands.push_back(optarg);
        pOptions->bHasCommands = true;
        return -1;
    case 'f':
        return AddScript(optarg, pOptions);
    case kStop:
        pOptions->bStopOnError = true;
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
    case kJson:
        pOptions->format = Format::JsonLines;
        return -1;
    case 'h':
        std::cout << kHelp;
        return 0;
    default: // getopt_long() has said what is wrong
        return kUsageError;
    }
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
    while ((option = getopt_long(argc, argv, "c:f:h", kLongOptions, nullptr)) != -1) {
        const int status = TakeOption(option, pOptions);
        if (status >= 0) {
            return status;
        }
    }
    if (optind + 1 != argc) {
        return Refuse(optind == argc ? "no HOST:PORT" : "too many arguments");
    }
    pOptions->address = tools::ParseAddress(argv[optind]);
    if (pOptions->address.host.empty() || pOptions->address.port.empty()) {
        return Refuse(std::string("not HOST:PORT: ") + argv[optind]);
    }
    pOptions->limits.connectMs = pOptions->limits.silenceMs;
    return -1;
}

} // namespace tqcon
