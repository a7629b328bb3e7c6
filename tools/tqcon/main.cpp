// tqcon: the console of a device, for people and for scripts. --help says how it is called.
#include <iostream>
#include <iterator>
#include <unistd.h>

#include "Interactive.h"
#include "JsonOutput.h"
#include "Leaks.h"
#include "Login.h"
#include "Options.h"
#include "Script.h"
#include "Top.h"
#include "Watch.h"

namespace {

using tools::Result;
using Mode = tqcon::Options::Mode;

Result Work(const tqcon::Options& options, tools::Console* pConsole) {
    if (options.mode == Mode::Top) {
        return tqcon::RunTop(options, pConsole);
    }
    if (options.mode == Mode::Leaks) {
        return tqcon::HuntLeaks(options, pConsole);
    }
    if (!options.bHasCommands) {
        return tqcon::RunInteractive(pConsole);
    }
    return options.bWatch ? tqcon::WatchCommands(options, pConsole) : tqcon::RunCommands(options, pConsole);
}

int Run(tqcon::Options& options) {
    const bool bHands = options.mode == Mode::Session && !options.bHasCommands && isatty(STDIN_FILENO);
    if (bHands && options.format == tqcon::Format::JsonLines) {
        std::cerr << "tqcon: --json needs a command\n";
        return tqcon::kUsageError;
    }
    if (options.mode == Mode::Session && !options.bHasCommands && !bHands) {
        options.commands = tqcon::ScriptLines(std::string(std::istreambuf_iterator<char>(std::cin), {}));
        options.bHasCommands = true;
    }
    tools::Console console(options.limits);
    std::string problem;
    Result result = tqcon::LogIn(options, &console, &problem);
    if (result == Result::Ok) {
        result = Work(options, &console);
    } else {
        if (options.format == tqcon::Format::JsonLines) {
            std::cout << tqcon::JsonLine(tqcon::ErrorJson(result, problem));
        }
        std::cerr << "tqcon: " << problem << "\n";
    }
    return static_cast<int>(result);
}

} // namespace

int main(int argc, char** argv) {
    tqcon::Options options;
    const int status = tqcon::ParseOptions(argc, argv, &options);
    return status >= 0 ? status : Run(options);
}
