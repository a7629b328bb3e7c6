#include "Console.h"

#include <algorithm>
#include <random>

namespace tools {

namespace {

constexpr char kBackspace = 8;
constexpr char kErased[] = "\b \b"; // what the console echoes for a backspace
constexpr char kPrompt[] = "\r\n>";
constexpr char kLoginPrompt[] = "\r\nlogin: ";
constexpr char kFailedLogin[] = "Invalid login attempt.";
constexpr char kResponse[] = "\r\nResponse received from queue ";
constexpr char kSyntaxError[] = "Syntax error.";
constexpr size_t kLongestLine = 1024;

size_t Length(const char* pszText) {
    return std::char_traits<char>::length(pszText);
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool StandsAt(const std::string& text, size_t at, const std::string& piece) {
    return text.compare(at, piece.size(), piece) == 0;
}

/// Something that no text contains.
std::string MakeMark() {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::random_device chance;
    std::string mark = "~";
    while (mark.size() < 13) {
        mark += kDigits[chance() % 16];
    }
    return mark;
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

/// Carriage returns are half a line end, or nothing that a reader wants.
std::string Readable(const std::string& text) {
    std::string readable;
    std::copy_if(text.begin(), text.end(), std::back_inserter(readable), [](char c) { return c != '\r'; });
    return readable;
}

/// Without the empty lines around it.
std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of('\n');
    const size_t last = text.find_last_not_of('\n');
    return first == std::string::npos ? "" : text.substr(first, last + 1 - first) + "\n";
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
    return words.size() >= 2 && StandsAt("echo", 0, words[0]) && words[1] == "off";
}

/// A response as it came, but for the prompt behind it. It begins with a line that says from whom it is, or with its
/// own text.
void AddResponse(const std::string& came, Answer* pAnswer) {
    pAnswer->answered += 1;
    const size_t lineEnd = came.find("\r\n", 2);
    const size_t name = Length(kResponse);
    constexpr size_t kDate = 26; // ": " and a date
    const size_t nameEnd = lineEnd != std::string::npos && lineEnd >= name + kDate ? lineEnd - kDate : 0;
    if (nameEnd == 0 || !StandsAt(came, 0, kResponse) || !StandsAt(came, nameEnd, ": ")) {
        pAnswer->text += Readable(came) + "\n";
        return;
    }
    pAnswer->responses.push_back({came.substr(name, nameEnd - name), came.substr(nameEnd + 2, kDate - 2),
                                  Trimmed(Readable(came.substr(lineEnd + 2)))});
}

void RemoveAll(const std::string& piece, std::string* pText) {
    for (size_t at = pText->find(piece); at != std::string::npos; at = pText->find(piece, at)) {
        pText->erase(at, piece.size());
    }
}

/// Takes responses off the front of a text, each of which ends with a prompt and the mark.
void TakeResponses(const std::string& mark, std::string* pCame, Answer* pAnswer) {
    const std::string end = kPrompt + mark;
    for (size_t at = pCame->find(end); at != std::string::npos; at = pCame->find(end)) {
        AddResponse(pCame->substr(0, at), pAnswer);
        pCame->erase(0, at + end.size());
    }
}

void TakeResponses(const std::string& mark, std::string&& came, Answer* pAnswer) {
    TakeResponses(mark, &came, pAnswer);
}

/// Takes the beginning of what was being typed off the front of a text.
void TakeTyped(const std::string& typed, std::string* pCame) {
    const auto differ = std::mismatch(pCame->begin(), pCame->end(), typed.begin(), typed.end());
    pCame->erase(pCame->begin(), differ.first);
}

/// What came into the middle of typing: responses, each between the part of the line that had been typed and the same
/// part behind the next prompt. Only where the network has cut what was typed in two is there any.
void TakeInterruptions(const std::string& typed, std::string came, Answer* pAnswer) {
    TakeTyped(typed, &came);
    for (size_t end = came.find(kPrompt); end != std::string::npos; end = came.find(kPrompt)) {
        AddResponse(came.substr(0, end), pAnswer);
        came.erase(0, end + Length(kPrompt));
        TakeTyped(typed, &came);
    }
}

/// Where in a text a response begins that came after a prompt and perhaps some of what was then being typed; npos when
/// none does.
size_t FindInterruption(const std::string& text, const std::string& typed) {
    for (size_t at = text.find(kResponse); at != std::string::npos; at = text.find(kResponse, at + 1)) {
        const size_t prompt = text.rfind(kPrompt, at);
        const size_t typedAt = prompt + Length(kPrompt);
        if (prompt != std::string::npos && typedAt <= at && StandsAt(typed, 0, text.substr(typedAt, at - typedAt))) {
            return prompt;
        }
    }
    return std::string::npos;
}

/// Takes what the command wrote out of what came between its echo and that of the question behind it.
void TakeOutput(const std::string& question, std::string came, Answer* pAnswer) {
    came.resize(came.size() - std::min<size_t>(came.size(), 1)); // the prompt before the question
    const std::string prompted = "\r\n" + came;                  // the command may have written nothing
    const size_t end = FindInterruption(prompted, question);
    if (end != std::string::npos) {
        TakeInterruptions(question, prompted.substr(end + Length(kPrompt)) + kPrompt, pAnswer);
        came = prompted.substr(0, end) + "\r\n";
    }
    pAnswer->text = Readable(came) + pAnswer->text;
}

bool HasSyntaxError(const std::string& text) {
    const std::string line = std::string("\n") + kSyntaxError + "\n";
    return ("\n" + text).find(line) != std::string::npos;
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

/// Waits until the text has come. Time runs anew with everything that comes: a report may be long.
Result Console::ReadTo(const std::string& end, size_t* pEnd) {
    size_t searched = 0;
    while ((*pEnd = m_came.find(end, searched)) == std::string::npos) {
        searched = m_came.size() < end.size() ? 0 : m_came.size() - end.size();
        const Result result = ReceiveMore(In(m_limits.silenceMs));
        if (result == Result::TimedOut) {
            return Fail(result, "the device is silent");
        }
        if (result != Result::Ok) {
            return result;
        }
    }
    return Result::Ok;
}

// Login

/// Waits for a prompt, which is the last that comes, or for another text.
Result Console::ReadPrompt(const std::string& other, bool* pLoggedIn) {
    while (true) {
        *pLoggedIn = EndsWith(m_came, kPrompt);
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
    m_mark = MakeMark();
    m_question = "sh mem file=" + m_mark + "/" + m_mark;
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
    m_greeting = Readable(m_came.substr(0, m_came.size() - Length(bLoggedIn ? ">" : "login: ")));
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
    TakeResponses(m_mark, &m_came, &earlier);
    pAnswer->responses = std::move(earlier.responses);
    if (!earlier.text.empty()) {
        pAnswer->responses.push_back({"", "", Trimmed(earlier.text)});
    }
}

/// Types the line, the question, and the mark, and takes what has come once the question is answered.
Result Console::TypeAndCollect(const std::string& line, Answer* pAnswer) {
    const std::string questionAnswer = "/" + m_mark + "!\r\n" + kPrompt + m_mark;
    const std::string erase(m_typed.size(), kBackspace);
    size_t end = 0;
    Result result = Type(erase + line + "\r" + m_question + "\r" + m_mark);
    m_typed = m_mark;
    if (result == Result::Ok) {
        result = ReadTo(questionAnswer, &end);
    }
    // A session that has ended leaves what came before its end.
    std::string came = result == Result::Ok ? m_came.substr(0, end) + kPrompt + m_mark : m_came + ">" + m_question;
    m_came.erase(0, result == Result::Ok ? end + questionAnswer.size() : std::string::npos);
    RemoveAll(kErased, &came);

    const std::string echo = line + "\r\n";
    const size_t atEcho = StandsAt(came, 0, echo) ? 0 : came.find(echo);
    const size_t atQuestion = came.find(m_question);
    if (atEcho == std::string::npos || atQuestion == std::string::npos || atQuestion < atEcho + echo.size()) {
        return result == Result::Ok ? Fail(Result::NoConnection, "the device does not echo what is typed") : result;
    }
    TakeInterruptions(line, came.substr(0, atEcho), pAnswer);
    TakeOutput(m_question, came.substr(atEcho + echo.size(), atQuestion - atEcho - echo.size()), pAnswer);
    const bool bSyntaxError = HasSyntaxError(pAnswer->text);
    came.erase(0, atQuestion + m_question.size() + Length("\r\n>"));
    TakeTyped(m_mark, &came);
    const size_t atAnswer = came.rfind("Failed to open file: " + m_mark);
    TakeResponses(m_mark, came.substr(0, atAnswer), pAnswer);
    return result == Result::Ok && bSyntaxError ? Fail(Result::SyntaxError, kSyntaxError) : result;
}

Result Console::WaitForResponses(size_t responses, Answer* pAnswer) {
    Clock::time_point limit = In(m_limits.queueMs);
    while (true) {
        while (TakeResponse(pAnswer)) {
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

bool Console::TakeResponse(Answer* pAnswer) {
    const std::string end = kPrompt + m_mark;
    const size_t at = m_came.find(end);
    if (at == std::string::npos) {
        return false;
    }
    AddResponse(m_came.substr(0, at), pAnswer);
    m_came.erase(0, at + end.size());
    return true;
}

Answer Console::TakeUnasked() {
    Answer answer;
    while (answer.result == Result::Ok) {
        answer.result = ReceiveMore(Clock::now());
    }
    TakeResponses(m_mark, &m_came, &answer);
    answer.text = Trimmed(answer.text);
    if (answer.result == Result::TimedOut) {
        answer.result = Result::Ok; // nothing more for now
    } else {
        answer.problem = m_problem;
    }
    return answer;
}

} // namespace tools
