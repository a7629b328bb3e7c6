/// @file Check.h
/// What somebody who wrote a tqos.ini should know about it: lines that the library does not see, and values that it
/// takes for something else than what stands there.
#ifndef TQINI_CHECK_H
#define TQINI_CHECK_H

#include <string>
#include <vector>

namespace tqini {

struct Finding {
    unsigned int line = 0;
    std::string kind;    ///< one of those of FindingKinds()
    std::string section; ///< empty: none, or none that matters
    std::string key;     ///< likewise
    std::string message;
    std::string suggestion; ///< what may have been meant; empty: nothing comes to mind
};

struct FindingKind {
    const char* pszKind;
    const char* pszMeaning;
};
const std::vector<FindingKind>& FindingKinds();

/// Sections and keys that are the application's own: "SECTION", or "SECTION:KEY".
using OwnNames = std::vector<std::string>;

/// By line. False, with the reason, when the file cannot be read.
bool CheckFile(const std::string& path, const OwnNames& own, std::vector<Finding>* pFindings, std::string* pReason);

} // namespace tqini

#endif // TQINI_CHECK_H
