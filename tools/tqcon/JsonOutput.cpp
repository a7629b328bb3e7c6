#include "JsonOutput.h"

namespace tqcon {

using tools::Answer;
using tools::Response;
using tools::Result;

const char* NameOf(Result result) {
    // by Result
    static constexpr const char* kNames[] = {"ok", "syntax", "login", "connection", "timeout", "unavailable"};
    return kNames[static_cast<int>(result)];
}

Json ErrorJson(Result result, const std::string& problem) {
    return {{"error", {{"kind", NameOf(result)}, {"status", static_cast<int>(result)}, {"message", problem}}}};
}

Json AnswerJson(const std::string& line, const Answer& answer) {
    Json json = {{"command", line}};
    if (answer.result != Result::Ok) {
        json.update(ErrorJson(answer.result, answer.problem));
    }
    const Command command = ParseCommand(line);
    const Report* const pReport = answer.result == Result::SyntaxError ? nullptr : FindReport(command);
    if (pReport) {
        json["report"] = pReport->pszName;
        json.update(ParseReport(*pReport, answer.text));
    } else if (!answer.text.empty() && answer.result != Result::SyntaxError) {
        json["text"] = answer.text;
    }
    if (AsksQueues(command) || !answer.responses.empty()) {
        Json responses = Json::array();
        for (const Response& response : answer.responses) {
            responses.push_back({{"queue", response.queue.empty() ? Json() : Json(response.queue)},
                                 {"time", response.time.empty() ? Json() : Json(response.time)},
                                 {"text", response.text}});
        }
        json["responses"] = std::move(responses);
    }
    return json;
}

std::string JsonLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace tqcon
