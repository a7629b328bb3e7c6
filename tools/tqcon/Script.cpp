#include "Script.h"

#include <iostream>

#include "JsonOutput.h"

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

namespace {

/// Writes answers in the form that is wanted.
class Writer {
public:
    explicit Writer(Format format) : m_format(format) {}

    void Write(const std::string& line, const Answer& answer) {
        const std::string text = m_format == Format::JsonLines ? JsonLine(AnswerJson(line, answer)) : TextOf(answer);
        if (!text.empty()) {
            std::cout << (m_bFirst || m_format == Format::JsonLines ? "" : "\n") << text << std::flush;
            m_bFirst = false;
        }
        if (answer.result != Result::Ok) {
            std::cerr << "tqcon: " << line << ": " << answer.problem << "\n";
        }
    }

private:
    Format m_format;
    bool m_bFirst = true;
};

} // namespace

Result RunCommands(const Options& options, tools::Console* pConsole) {
    Result first = Result::Ok;
    Writer writer(options.format);
    for (const std::string& line : options.commands) {
        const Answer answer = Ask(pConsole, line);
        writer.Write(line, answer);
        first = first == Result::Ok ? answer.result : first;
        if (!pConsole->IsOpen() || (options.bStopOnError && answer.result != Result::Ok)) {
            break;
        }
    }
    return first;
}

} // namespace tqcon
