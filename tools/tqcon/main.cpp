// tqcon: the console of a device, for people and for scripts. --help says how it is called.
#include <iostream>
#include <iterator>
#include <unistd.h>

#include "Interactive.h"
#include "JsonOutput.h"
#include "Login.h"
#include "Options.h"
#include "Script.h"

namespace {

using tools::Result;

int Run(tqcon::Options& options) {
    const bool bInteractive = !options.bHasCommands && isatty(STDIN_FILENO);
    if (!options.bHasCommands && !bInteractive) {
        options.commands = tqcon::ScriptLines(std::string(std::istreambuf_iterator<char>(std::cin), {}));
    }
    tools::Console console(options.limits);
    std::string problem;
    Result result = tqcon::LogIn(options, &console, &problem);
    if (result == Result::Ok) {
        result = bInteractive ? tqcon::RunInteractive(&console) : tqcon::RunCommands(options, &console);
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
