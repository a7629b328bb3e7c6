#include "ConsoleQueue.h"

#include <algorithm>

#include "Protocol.h"

namespace {

constexpr size_t kUsageWidth = 16; // of a command and its argument, in the help

std::string Usage(const char* pszName, const char* pszArgument) {
    return pszArgument ? std::string(pszName) + " " + pszArgument : pszName;
}

std::string HelpLine(std::string usage, const char* pszMeaning) {
    usage.resize(std::max(usage.size() + 1, kUsageWidth), ' ');
    return "\r\n  " + usage + pszMeaning;
}

} // namespace

ConsoleQueue::ConsoleQueue(const char* pszName, const char* pszDescription, const ConsoleCommand* pCommands)
    : tq_MsgQ(pszName, pszDescription), m_pszOwnName(pszName), m_pCommands(pCommands) {}

bool ConsoleQueue::AnswerConsole(MSG_COMMON* pMsg) {
    std::string answer;
    switch (pMsg->command) {
    case MSG_TELNET_SUMMARY:
        answer = Summary((pMsg->flags & TQ_TELNET_DETAIL) != 0);
        break;
    case MSG_TELNET_CUSTOM:
        answer = AnswerLine(reinterpret_cast<TELNET_TEXT*>(pMsg)->text);
        break;
    default:
        return false;
    }
    // Instance, user value and flags go back as they came: they say which session asked, and how.
    tq_TelnetSendResponse(answer.c_str(), pMsg->hDest, pMsg->instance, pMsg->userparm, pMsg->flags);
    return true;
}

/// Cuts the line, which is the message's own, into words and finds its command.
std::string ConsoleQueue::AnswerLine(char* pszLine) {
    const char* pszName = tq_TelnetGetNextToken(&pszLine);
    const char* pszArgument = tq_TelnetGetNextToken(&pszLine);
    const bool bMore = tq_TelnetGetNextToken(&pszLine) != nullptr;
    const std::string_view name = pszName ? pszName : "";
    const std::string_view argument = pszArgument ? pszArgument : "";
    if (SameWord(name, "help") || SameWord(name, "?")) {
        return Help();
    }
    for (const ConsoleCommand* pCommand = m_pCommands; pCommand->pszName; ++pCommand) {
        if (!SameWord(name, pCommand->pszName)) {
            continue;
        }
        const bool bTooMany = bMore || (pszArgument && !pCommand->pszArgument);
        const bool bTooFew = argument.empty() && pCommand->pszArgument && pCommand->pszArgument[0] == '<';
        if (bTooMany || bTooFew) {
            return "Usage: " + Usage(pCommand->pszName, pCommand->pszArgument);
        }
        return (this->*pCommand->answer)(argument);
    }
    return std::string(m_pszOwnName) + " does not know \"" + std::string(name) + "\"; \"help\" shows what it knows.";
}

std::string ConsoleQueue::Help() const {
    std::string help = std::string(m_pszOwnName) + " knows:" + HelpLine("help", "shows this");
    for (const ConsoleCommand* pCommand = m_pCommands; pCommand->pszName; ++pCommand) {
        help += HelpLine(Usage(pCommand->pszName, pCommand->pszArgument), pCommand->pszMeaning);
    }
    return help;
}
