#include "Console.h"

#include <algorithm>
#include <vector>

namespace tools {

namespace {

constexpr char kBackspace = 8;
constexpr char kLoggedInPrompt[] = "\r\n>";
constexpr char kLoginPrompt[] = "\r\nlogin: ";
constexpr char kFailedLogin[] = "Invalid login attempt.";
constexpr size_t kLongestLine = 1024;

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The line as the console will have it.
std::string Typeable(const std::string& line) {
    std::string keys;
    for (const char character : line) {
        const char key = character == '\t' ? ' ' : character;
        if (key >= ' ' && key <= '~') {
            keys += key;
        }
    }
    return keys;
}

/// Whether the words turn the console's echo off: it finds the ends of what is typed by it.
bool TurnsEchoOff(const std::string& line) {
    std::string word;
    std::vector<std::string> words;
    for (const char c : line + " ") {
        if (c != ' ') {
            word += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words.size() >= 2 && std::string("echo").compare(0, words[0].size(), words[0]) == 0 && words[1] == "off";
}

} // namespace

Address ParseAddress(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return {text, ""};
    }
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return {host, text.substr(colon + 1)};
}

// Bytes

Result Console::Fail(Result result, const std::string& problem) {
    m_problem = problem;
    if (result == Result::NoConnection || result == Result::TimedOut) {
        m_stream.Close(); // where the next answer begins is not known any more
    }
    return result;
}

Result Console::ResultOf(TcpStream::Status status, const std::string& whatFor) {
    switch (status) {
    case TcpStream::Status::Done:
        return Result::Ok;
    case TcpStream::Status::Ended:
        return Fail(Result::NoConnection, "the connection has ended: " + m_stream.Problem());
    case TcpStream::Status::TimedOut:
        break;
    }
    return Fail(Result::TimedOut, "the device is silent: " + whatFor);
}

Result Console::Type(const std::string& keys) {
    return ResultOf(m_stream.Send(keys, In(m_limits.silenceMs)), "it takes no input");
}

/// More of what comes into m_came; TimedOut, and the session goes on, when nothing came.
Result Console::ReceiveMore(Clock::time_point limit) {
    std::string bytes;
    const TcpStream::Status status = m_stream.Receive(&bytes, limit);
    if (status == TcpStream::Status::TimedOut) {
        return Result::TimedOut;
    }
    const std::string answers = m_telnet.Take(bytes, &m_came);
    if (status == TcpStream::Status::Ended) {
        return ResultOf(status, "");
    }
    return answers.empty() ? Result::Ok : Type(answers);
}

/// Waits until the text has come, from a place on, and gives the place behind it. Time runs anew with everything that
/// comes: a report may be long.
Result Console::ReadTo(const std::string& text, size_t from, size_t* pEnd) {
    size_t at = 0;
    while ((at = m_came.find(text, from)) == std::string::npos) {
        from = std::max(from, m_came.size() - std::min(m_came.size(), text.size()));
        const Result result = ReceiveMore(In(m_limits.silenceMs));
        if (result != Result::Ok) {
            return result == Result::TimedOut ? Fail(result, "the device is silent") : result;
        }
    }
    *pEnd = at + text.size();
    return Result::Ok;
}

// Login

/// Waits for a prompt, which is the last that comes, or for another text.
Result Console::ReadPrompt(const std::string& other, bool* pLoggedIn) {
    while (true) {
        *pLoggedIn = EndsWith(m_came, kLoggedInPrompt);
        if (*pLoggedIn || EndsWith(m_came, other)) {
            return Result::Ok;
        }
        const Result result = ReceiveMore(In(m_limits.silenceMs));
        if (result == Result::TimedOut) {
            return Fail(result, "the device is silent: it does not greet as a console does");
        }
        if (result != Result::Ok) {
            return result;
        }
    }
}

Result Console::Connect(const Address& address) {
    Close();
    if (address.host.empty() || address.port.empty()) {
        return Fail(Result::NoConnection, "an address is HOST:PORT");
    }
    if (!m_stream.Connect(address.host, address.port, In(m_limits.connectMs))) {
        return Fail(Result::NoConnection, address.host + ":" + address.port + ": " + m_stream.Problem());
    }
    m_keys = MakeSessionKeys();
    m_typed.clear();
    bool bLoggedIn = false;
    const Result result = ReadPrompt(kLoginPrompt, &bLoggedIn);
    if (result == Result::NoConnection && m_came.empty()) {
        return Fail(result, "the device ends the connection at once: it has too many sessions already, or takes nobody "
                            "from here for a while after wrong passwords");
    }
    if (result != Result::Ok) {
        return result;
    }
    m_bAsksForPassword = !bLoggedIn;
    m_greeting = Readable(m_came.substr(0, m_came.rfind(bLoggedIn ? ">" : "login: ")));
    m_came.clear();
    return Result::Ok;
}

Result Console::LogIn(const std::string& password) {
    if (!m_bAsksForPassword) {
        return Result::Ok;
    }
    m_came.clear();
    Result result = Type(password + "\r");
    bool bLoggedIn = false;
    if (result == Result::Ok) {
        result = ReadPrompt(std::string(kFailedLogin) + "\r\n\r\nlogin: ", &bLoggedIn);
    }
    if (result == Result::NoConnection || (result == Result::Ok && !bLoggedIn)) {
        // After the last attempt that it allows the device ends the session without a word.
        return Fail(Result::LoginRefused, "the device does not take the password");
    }
    if (result == Result::Ok) {
        m_bAsksForPassword = false;
        m_came.clear();
    }
    return result;
}

void Console::Close() {
    m_stream.Close();
    m_telnet = TelnetFilter();
    m_came.clear();
}

// Commands

Answer Console::Run(const std::string& line, size_t responses) {
    Answer answer;
    const std::string keys = Typeable(line);
    if (keys.find_first_not_of(' ') == std::string::npos) {
        return answer;
    }
    if (keys.size() > kLongestLine) {
        answer.result = Result::SyntaxError;
        answer.problem = "a console's lines have 1024 characters at most";
        return answer;
    }
    if (TurnsEchoOff(keys)) {
        answer.text = "The console's echo stays on: this session is read by it.\n";
        return answer;
    }
    TakeEarlier(&answer);
    answer.result = TypeAndCollect(keys, &answer);
    if (answer.result == Result::Ok && responses > 0) {
        answer.result = WaitForResponses(responses, &answer);
    }
    if (answer.result != Result::Ok) {
        answer.problem = m_problem;
    }
    answer.text = Trimmed(answer.text);
    return answer;
}

/// What came before the command is nothing that it wrote.
void Console::TakeEarlier(Answer* pAnswer) {
    Answer earlier;
    TakeResponses(m_keys, &m_came, &earlier);
    pAnswer->responses = std::move(earlier.responses);
    if (!earlier.text.empty()) {
        pAnswer->responses.push_back({"", "", Trimmed(earlier.text)});
    }
}

/// Types the line, the question, and the mark, and takes what has come once the question is answered and the mark
/// typed.
Result Console::TypeAndCollect(const std::string& line, Answer* pAnswer) {
    const std::string erase(m_typed.size(), kBackspace);
    m_typed = m_keys.mark;
    size_t end = 0;
    Result result = Type(erase + line + "\r" + m_keys.question + "\r" + m_keys.mark);
    if (result == Result::Ok) {
        result = ReadTo(m_keys.answer, 0, &end);
    }
    if (result == Result::Ok) {
        result = ReadTo(m_keys.mark, end, &end);
    }
    // A session that has ended leaves what came before its end.
    const bool bWhole = result == Result::Ok;
    const std::string came = bWhole ? m_came.substr(0, end) : m_came;
    m_came.erase(0, came.size());
    if (!TakeTranscript(m_keys, line, came, bWhole, pAnswer) && bWhole) {
        return Fail(Result::NoConnection, "the device does not echo what is typed");
    }
    const bool bRefused = bWhole && pAnswer->result == Result::SyntaxError;
    return bRefused ? Fail(Result::SyntaxError, kSyntaxError) : result;
}

Result Console::WaitForResponses(size_t responses, Answer* pAnswer) {
    Clock::time_point limit = In(m_limits.queueMs);
    while (true) {
        const size_t answered = pAnswer->answered;
        TakeResponses(m_keys, &m_came, pAnswer);
        if (pAnswer->answered > answered) {
            limit = In(m_limits.queueMs);
        }
        if (pAnswer->answered >= responses) {
            return Result::Ok;
        }
        const Result result = ReceiveMore(limit);
        if (result != Result::Ok) {
            return result == Result::TimedOut ? Result::Ok : result;
        }
    }
}

Answer Console::TakeUnasked() {
    Answer answer;
    while (answer.result == Result::Ok) {
        answer.result = ReceiveMore(Clock::now());
    }
    TakeResponses(m_keys, &m_came, &answer);
    answer.text = Trimmed(answer.text);
    if (answer.result == Result::TimedOut) {
        answer.result = Result::Ok; // nothing more has come
    } else {
        answer.problem = m_problem;
    }
    return answer;
}

} // namespace tools
