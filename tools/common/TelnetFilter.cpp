#include "TelnetFilter.h"

namespace tools {

namespace {

enum : unsigned char {
    kEndOfParameters = 240,
    kParameters = 250,
    kWill = 251,
    kWont = 252,
    kDo = 253,
    kDont = 254,
    kInterpretAsCommand = 255,
};

enum : unsigned char { kOptionEcho = 1, kOptionSuppressGoAhead = 3 };
constexpr unsigned char kFirstPrintable = 32;

/// The other side may echo, and neither says when it has finished speaking. Nothing else is wanted.
std::string AnswerTo(unsigned char command, unsigned char option) {
    const bool bWanted = option == kOptionSuppressGoAhead || (option == kOptionEcho && command == kWill);
    unsigned char answer = 0;
    if (command == kWill) {
        answer = bWanted ? kDo : kDont;
    } else if (command == kDo) {
        answer = bWanted ? kWill : kWont;
    }
    if (answer == 0 || option >= kFirstPrintable) { // WONT and DONT say what is so already
        return "";
    }
    return {static_cast<char>(kInterpretAsCommand), static_cast<char>(answer), static_cast<char>(option)};
}

} // namespace

void TelnetFilter::TakeCommand(unsigned char byte, std::string* pText) {
    m_state = State::Text;
    if (byte == kParameters) {
        m_state = State::Parameters;
    } else if (byte >= kWill && byte <= kDont) {
        m_command = byte;
        m_state = State::Option;
    } else if (byte < kEndOfParameters || byte == kInterpretAsCommand) {
        // A console does not double the byte where it stands in a text. What cannot be a command is one.
        *pText += static_cast<char>(kInterpretAsCommand);
        if (byte != kInterpretAsCommand) {
            *pText += static_cast<char>(byte);
        }
    }
}

std::string TelnetFilter::Take(const std::string& bytes, std::string* pText) {
    std::string answers;
    for (const char character : bytes) {
        const unsigned char byte = static_cast<unsigned char>(character);
        switch (m_state) {
        case State::Text:
            if (byte == kInterpretAsCommand) {
                m_state = State::Command;
            } else {
                *pText += character;
            }
            break;
        case State::Command:
            TakeCommand(byte, pText);
            break;
        case State::Option:
            answers += AnswerTo(m_command, byte);
            m_state = State::Text;
            break;
        case State::Parameters:
            m_state = byte == kInterpretAsCommand ? State::ParametersCommand : State::Parameters;
            break;
        case State::ParametersCommand:
            m_state = byte == kEndOfParameters ? State::Text : State::Parameters;
            break;
        }
    }
    return answers;
}

} // namespace tools
