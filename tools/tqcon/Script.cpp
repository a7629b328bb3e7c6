#include "Script.h"

#include <iostream>

namespace tqcon {

using tools::Answer;
using tools::Response;
using tools::Result;

namespace {

/// How many queues have a name: so many are asked by a command that asks them all.
size_t CountNamedQueues(tools::Console* pConsole) {
    const Answer queues = pConsole->Run("show queues");
    size_t rows = 0;
    for (size_t at = 0; at < queues.text.size(); at = queues.text.find('\n', at) + 1) {
        rows += queues.text[at] >= '0' && queues.text[at] <= '9' ? 1 : 0;
    }
    return rows;
}

size_t CountExpected(tools::Console* pConsole, const Command& command) {
    if (!AsksQueues(command)) {
        return 0;
    }
    const bool bAll = command.name == "show summary" && (command.arguments.empty() || command.arguments[0] == "0");
    return bAll ? CountNamedQueues(pConsole) : 1;
}

} // namespace

Answer Ask(tools::Console* pConsole, const std::string& line) {
    const Command command = ParseCommand(line);
    const size_t expected = CountExpected(pConsole, command);
    if (!pConsole->IsOpen()) {
        return {Result::NoConnection, pConsole->Problem(), "", {}, 0};
    }
    Answer answer = pConsole->Run(line, expected);
    if (answer.result == Result::NoConnection && EndsSession(command)) {
        answer.result = Result::Ok; // as it was asked to
        answer.problem.clear();
    }
    return answer;
}

std::string TextOf(const Answer& answer) {
    std::string text = answer.text;
    for (const Response& response : answer.responses) {
        text += text.empty() ? "" : "\n";
        if (!response.queue.empty()) {
            text += "Response received from queue " + response.queue + ": " + response.time + "\n";
        }
        text += response.text;
    }
    return text;
}

Result RunCommands(const Options& options, tools::Console* pConsole) {
    Result first = Result::Ok;
    const char* pszBetween = "";
    for (const std::string& line : options.commands) {
        const Answer answer = Ask(pConsole, line);
        const std::string text = TextOf(answer);
        if (!text.empty()) {
            std::cout << pszBetween << text << std::flush;
            pszBetween = "\n";
        }
        if (answer.result == Result::Ok) {
            if (!pConsole->IsOpen()) {
                break; // the command has ended the session
            }
            continue;
        }
        std::cerr << "tqcon: " << line << ": " << answer.problem << "\n";
        first = first == Result::Ok ? answer.result : first;
        if (options.bStopOnError || !pConsole->IsOpen()) {
            break;
        }
    }
    return first;
}

} // namespace tqcon
