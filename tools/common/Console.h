/// @file Console.h
/// A session of a device's diagnostic console: connects, logs in, types commands, and takes what comes of them apart.
///
/// What a console sends has no frames: an echo of what is typed, what commands write, prompts, what commands send to
/// the session through the console's own queue, and whatever queues answer, whenever they do. Any of it may contain
/// what looks like a prompt. So a session goes by something that nobody can guess, its mark:
/// - It is always typed half a line, which is never ended and so never runs. Behind each answer of a queue the console
///   repeats the prompt and the line: an answer ends where the prompt and the mark come again.
/// - Behind each command stands a question of the session's own that has the mark in it: for a report into a file that
///   cannot be opened. A command has written all it writes when the question is echoed, and what it has sent through
///   the console's queue has come when the question is answered, since that answer takes the same way.
///
/// One thread uses a session.
#ifndef TOOLS_CONSOLE_H
#define TOOLS_CONSOLE_H

#include <string>
#include <vector>

#include "TcpStream.h"
#include "TelnetFilter.h"

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

/// "host:port" taken apart; "[address]:port" for an address that has colons. Host or port are empty when there is none.
struct Address {
    std::string host;
    std::string port;
};
Address ParseAddress(const std::string& text);

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

/// How long a session waits, in milliseconds.
struct Limits {
    int connectMs = 10000;
    int silenceMs = 10000; ///< of the device, while it owes something
    int queueMs = 1000;    ///< of queues, which owe nothing
};

class Console {
public:
    explicit Console(const Limits& limits = {}) : m_limits(limits) {}

    /// Ends the session that there may be, and begins one. LogIn() comes next.
    Result Connect(const Address& address);
    /// Whether LogIn() needs the right password. A device without one takes everybody.
    bool AsksForPassword() const { return m_bAsksForPassword; }
    /// Logs in. After LoginRefused it can be tried again, twice; then the device ends the session.
    Result LogIn(const std::string& password);
    void Close();
    bool IsOpen() const { return m_stream.IsOpen(); }

    /// Types a command and takes what comes of it. Characters that a console does not take are left out, and a tab is a
    /// blank. The console's echo cannot be turned off by it.
    /// @param responses  so many queues are expected to answer: they are waited for, but no longer than queueMs after
    ///                   the last sign of them
    Answer Run(const std::string& line, size_t responses = 0);

    /// What queues have said unasked since the last command, as far as it is complete; waits for nothing. The result is
    /// NoConnection once the device has ended the session.
    Answer TakeUnasked();

    /// For those who wait for the session and for other things.
    int Descriptor() const { return m_stream.Descriptor(); }
    /// Banner and date, as the device greeted.
    const std::string& Greeting() const { return m_greeting; }
    /// Why the last of Connect() and LogIn() did not end with Ok.
    const std::string& Problem() const { return m_problem; }

private:
    Result Fail(Result result, const std::string& problem);
    Result ResultOf(TcpStream::Status status, const std::string& whatFor);
    Result Type(const std::string& keys);
    Result ReceiveMore(Clock::time_point limit);
    Result ReadTo(const std::string& end, size_t* pEnd);
    Result ReadPrompt(const std::string& other, bool* pLoggedIn);
    Result TypeAndCollect(const std::string& line, Answer* pAnswer);
    void TakeEarlier(Answer* pAnswer);
    Result WaitForResponses(size_t responses, Answer* pAnswer);
    bool TakeResponse(Answer* pAnswer);

    Limits m_limits;
    TcpStream m_stream;
    TelnetFilter m_telnet;
    std::string m_came; ///< and was not taken apart yet
    std::string m_mark;
    std::string m_question; ///< what is asked behind each command
    std::string m_typed;    ///< half a line: nothing, or the mark
    bool m_bAsksForPassword = false;
    std::string m_greeting;
    std::string m_problem;
};

} // namespace tools

#endif // TOOLS_CONSOLE_H
