/// @file Answer.h
/// What comes of a command of a console.
#ifndef TOOLS_ANSWER_H
#define TOOLS_ANSWER_H

#include <string>
#include <vector>

namespace tools {

/// How something ended. As a number: the exit status of the tools.
enum class Result {
    Ok = 0,
    SyntaxError = 1,  ///< the device has answered a command so
    LoginRefused = 2, ///< a wrong password, or none where one is asked for
    NoConnection = 3, ///< there never was one, or the device has ended it
    TimedOut = 4,     ///< the device is connected and silent
    CannotTell = 5,   ///< the device does not keep what is asked for
};

/// What a queue has answered. The device names it unless the command was a detailed one.
struct Response {
    std::string queue;
    std::string time; ///< of the device, as it writes it
    std::string text;
};

/// What came of a command. Texts have LF at their line ends.
struct Answer {
    Result result = Result::Ok;
    std::string problem; ///< in words, unless the result is Ok
    std::string text;    ///< what the command wrote, and what answered it without naming itself
    std::vector<Response> responses;
    size_t answered = 0; ///< answers that came, of queues that name themselves and of others
};

} // namespace tools

#endif // TOOLS_ANSWER_H
