/// @file JsonOutput.h
/// What came of a command as JSON.
#ifndef TQCON_JSON_OUTPUT_H
#define TQCON_JSON_OUTPUT_H

#include "Console.h"
#include "Reports.h"

namespace tqcon {

/// What a result is called in JSON: "ok", "syntax", "login", "connection", "timeout",
/// "unavailable".
const char* NameOf(tools::Result result);

/// An object with the command and what came of it: the report's own tables and values where the command gives a report,
/// else its text; the responses of queues; the error.
Json AnswerJson(const std::string& line, const tools::Answer& answer);

/// What went wrong before there was a command.
Json ErrorJson(tools::Result result, const std::string& problem);

/// One line. What is no UTF-8 is replaced.
std::string JsonLine(const Json& json);

} // namespace tqcon

#endif // TQCON_JSON_OUTPUT_H
