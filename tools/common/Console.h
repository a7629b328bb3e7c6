/// @file Console.h
/// A session of a device's diagnostic console: connects, logs in, types commands, and takes what comes of them apart.
///
/// How a session knows where an answer ends is said in Transcript.h.
///
/// One thread uses a session.
#ifndef TOOLS_CONSOLE_H
#define TOOLS_CONSOLE_H

#include <string>

#include "Answer.h"
#include "TcpStream.h"
#include "TelnetFilter.h"
#include "Transcript.h"

namespace tools {

/// "host:port" taken apart; "[address]:port" for an address that has colons. Host or port are empty when there is none.
struct Address {
    std::string host;
    std::string port;
};
Address ParseAddress(const std::string& text);

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
    Result ReadTo(const std::string& text, size_t from, size_t* pEnd);
    Result ReadPrompt(const std::string& other, bool* pLoggedIn);
    Result TypeAndCollect(const std::string& line, Answer* pAnswer);
    void TakeEarlier(Answer* pAnswer);
    Result WaitForResponses(size_t responses, Answer* pAnswer);

    Limits m_limits;
    TcpStream m_stream;
    TelnetFilter m_telnet;
    std::string m_came; ///< and was not taken apart yet
    SessionKeys m_keys;
    std::string m_typed; ///< half a line: nothing, or the mark
    bool m_bAsksForPassword = false;
    std::string m_greeting;
    std::string m_problem;
};

} // namespace tools

#endif // TOOLS_CONSOLE_H
