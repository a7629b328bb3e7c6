/// @file Options.h
/// What tqcon is asked to do.
#ifndef TQCON_OPTIONS_H
#define TQCON_OPTIONS_H

#include <string>
#include <vector>

#include "Console.h"

namespace tqcon {

constexpr int kUsageError = 64; ///< an exit status that none of a session's results is

/// How the output is written.
enum class Format { Plain, JsonLines };

struct Options {
    enum class Mode { Session, Top, Leaks };

    Mode mode = Mode::Session;
    tools::Address address;
    std::vector<std::string> commands; ///< of -c and -f, in their order
    bool bHasCommands = false;         ///< there was a -c or a -f, be it an empty file
    bool bStopOnError = false;
    std::string passwordFile;
    Format format = Format::Plain;
    bool bWatch = false;    ///< the commands again and again
    int everyMs = 1000;     ///< from one round to the next
    unsigned int count = 0; ///< of rounds; 0: until it is stopped
    std::string sort;       ///< a column; with a "-" before it, the greatest first
    int forMs = -1;         ///< how long leaks are waited for; -1: until Enter
    std::string filter;     ///< of the files of leaks
    bool bAll = false;      ///< the session's own blocks too
    std::string pprofFile;
    tools::Limits limits;
};

/// Reads the arguments. Help and what is wrong are written out here.
/// @return the status to exit with at once; -1 to go on
int ParseOptions(int argc, char** argv, Options* pOptions);

/// The lines of a script, whatever they end with: LF, CR LF or CR. Empty lines and those that begin with # are left
/// out.
std::vector<std::string> ScriptLines(const std::string& text);

} // namespace tqcon

#endif // TQCON_OPTIONS_H
