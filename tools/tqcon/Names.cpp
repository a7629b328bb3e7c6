#include "Names.h"

#include "Reports.h"

namespace tqcon {

namespace {

constexpr int kBelievedMs = 2000;

struct Source {
    Argument argument;
    const char* pszCommand;
};

constexpr Source kSources[] = {
    {Argument::Queue, "show queues"},
    {Argument::Socket, "show sockets"},
    {Argument::List, "show lists"},
    {Argument::Trace, "show trace"},
};

std::vector<Named> Ask(tools::Console* pConsole, const char* pszCommand) {
    std::vector<Named> names;
    const Report* const pReport = FindReport(ParseCommand(pszCommand));
    const Json json = ParseReport(*pReport, pConsole->Run(pszCommand).text);
    for (const Json& row : json[pReport->pszTable]) {
        const Json& name = row["name"];
        names.push_back(
            {row[KeysOf(pReport->pszTable)->columns[0]].dump(), name.is_string() ? name.get<std::string>() : ""});
    }
    return names;
}

} // namespace

std::vector<Named> Names::operator()(Argument argument) {
    for (const Source& source : kSources) {
        Known& known = m_known[argument];
        if (source.argument == argument && known.until <= tools::Clock::now()) {
            known = {tools::In(kBelievedMs), Ask(m_pConsole, source.pszCommand)};
        }
    }
    return m_known[argument].names;
}

} // namespace tqcon
