/// @file Completion.h
/// What a line that is being typed may go on with.
#ifndef TQCON_COMPLETION_H
#define TQCON_COMPLETION_H

#include <functional>
#include <string>
#include <vector>

#include "Commands.h"

namespace tqcon {

/// Something of the device that a command can be about.
struct Named {
    std::string number; ///< queue, socket, list or trace instance
    std::string name;
};

/// Where the names come from: the device, or a test.
using NamesOf = std::function<std::vector<Named>(Argument)>;

struct Candidate {
    std::string text;  ///< what is typed for it, quotes and all
    std::string shown; ///< in a list of them
};

struct Completion {
    size_t begin = 0; ///< the word that is completed begins here in the line
    std::vector<Candidate> candidates;
};

/// @param line  up to the cursor
Completion Complete(const std::string& line, const NamesOf& names);

/// What all candidates begin with, in either case.
std::string CommonBeginning(const std::vector<Candidate>& candidates);

} // namespace tqcon

#endif // TQCON_COMPLETION_H
