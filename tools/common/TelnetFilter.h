/// @file TelnetFilter.h
/// The telnet protocol of a session: takes the negotiations out of what comes, and says what to answer to them.
#ifndef TOOLS_TELNET_FILTER_H
#define TOOLS_TELNET_FILTER_H

#include <string>

namespace tools {

class TelnetFilter {
public:
    /// Appends what is text to *pText. Negotiations may be cut anywhere between two calls.
    /// @return what the other side is to be sent for them
    ///
    /// A console takes what it is sent for keys, so an option whose code is a printable character is never answered: it
    /// would be typed. Not answered means refused.
    std::string Take(const std::string& bytes, std::string* pText);

private:
    enum class State { Text, Command, Option, Parameters, ParametersCommand };

    void TakeCommand(unsigned char byte, std::string* pText);

    State m_state = State::Text;
    unsigned char m_command = 0;
};

} // namespace tools

#endif // TOOLS_TELNET_FILTER_H
