#include "Filter.h"

#include <algorithm>
#include <strings.h>

namespace tqtrace {

void Pattern::Free::operator()(regex_t* pRegex) const {
    regfree(pRegex);
    delete pRegex;
}

bool Pattern::Set(const std::string& text, std::string* pProblem) {
    auto regex = std::make_unique<regex_t>();
    const int result = regcomp(regex.get(), text.c_str(), REG_EXTENDED | REG_NOSUB);
    if (result != 0) {
        char reason[200];
        regerror(result, regex.get(), reason, sizeof(reason));
        *pProblem = text + ": " + reason;
        return false;
    }
    m_regex.reset(regex.release());
    return true;
}

bool Pattern::Matches(const std::string& text) const {
    return regexec(m_regex.get(), text.c_str(), 0, nullptr, 0) == 0;
}

namespace {

bool HasInstance(const std::vector<std::string>& names, const std::string& name) {
    return names.empty() || std::any_of(names.begin(), names.end(), [&](const std::string& one) {
               return strcasecmp(one.c_str(), name.c_str()) == 0;
           });
}

bool HasThread(const std::vector<uint32_t>& threads, const Record& record) {
    const auto isIt = [&](uint32_t id) { return record.bThread && (id == record.thread || id == record.kernelThread); };
    return threads.empty() || std::any_of(threads.begin(), threads.end(), isIt);
}

bool HasLevel(int least, const Record& record) {
    if (!record.IsTrace()) {
        return least == 0;
    }
    return record.pLevel->level == kUnknownLevel || record.pLevel->level >= least;
}

} // namespace

bool Filter::Passes(const Record& record) const {
    const auto matches = [&](const Pattern& pattern) { return pattern.Matches(record.text); };
    return HasLevel(least, record) && HasInstance(instances, record.instance) && HasThread(threads, record) &&
           std::all_of(patterns.begin(), patterns.end(), matches) &&
           std::none_of(exceptions.begin(), exceptions.end(), matches);
}

} // namespace tqtrace
