/// @file Filter.h
/// Which records are shown.
#ifndef TQTRACE_FILTER_H
#define TQTRACE_FILTER_H

#include <memory>
#include <regex.h>
#include <string>
#include <vector>

#include "Record.h"

namespace tqtrace {

/// An extended regular expression of POSIX: it needs no more stack for a longer text.
class Pattern {
public:
    /// False, with the reason, for a text that is none.
    bool Set(const std::string& text, std::string* pProblem);
    bool Matches(const std::string& text) const;

private:
    struct Free {
        void operator()(regex_t* pRegex) const;
    };
    std::unique_ptr<regex_t, Free> m_regex;
};

struct Filter {
    int least = 0;                      ///< level; a message whose level has no name passes, since it cannot be known
    std::vector<std::string> instances; ///< names in any case; empty: all
    std::vector<uint32_t> threads;      ///< by the library's number or the kernel's; empty: all
    std::vector<Pattern> patterns;      ///< all of which the text matches
    std::vector<Pattern> exceptions;    ///< none of which it matches

    bool Passes(const Record& record) const;
};

} // namespace tqtrace

#endif // TQTRACE_FILTER_H
