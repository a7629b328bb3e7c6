#include "Colours.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace tqcon {

namespace {

constexpr const char* kCodes[] = {
    // by Colour
    "\x1b[1m",
    "\x1b[36m",
    "\x1b[31m",
};
constexpr char kPlain[] = "\x1b[0m";

bool BeginsWith(const std::string& line, const char* pszBeginning) {
    return line.compare(0, strlen(pszBeginning), pszBeginning) == 0;
}

/// A line that underlines the one before it.
bool IsRule(const std::string& line) {
    return line.find("--") != std::string::npos && line.find_first_not_of("- |") == std::string::npos;
}

std::string PaintedLine(const std::string& line, const std::string& next) {
    if (line == "Syntax error.") {
        return Coloured(Colour::Error, line);
    }
    if (BeginsWith(line, "Response received from queue ")) {
        return Coloured(Colour::Name, line);
    }
    return IsRule(next) && !line.empty() ? Coloured(Colour::Heading, line) : line;
}

} // namespace

bool HasColours(int fd) {
    const char* pszNone = getenv("NO_COLOR");
    const char* pszTerminal = getenv("TERM");
    return isatty(fd) && !(pszNone && *pszNone) && pszTerminal && strcmp(pszTerminal, "dumb") != 0;
}

std::string Coloured(Colour colour, const std::string& text) {
    return kCodes[static_cast<int>(colour)] + text + kPlain;
}

std::string Painted(const std::string& text) {
    std::string painted;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const size_t next = std::min(end + 1, text.size());
        painted += PaintedLine(text.substr(at, end - at), text.substr(next, text.find('\n', next) - next));
        painted += end < text.size() ? "\n" : "";
        at = end + 1;
    }
    return painted;
}

} // namespace tqcon
