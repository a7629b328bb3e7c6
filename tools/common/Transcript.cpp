#include "Transcript.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <random>

namespace tools {

namespace {

constexpr char kErased[] = "\b \b"; // what the console echoes for a backspace
constexpr char kPrompt[] = "\r\n>";
constexpr char kResponse[] = "\r\nResponse received from queue ";
constexpr char kCannotOpen[] = "Failed to open file: ";

size_t Length(const char* pszText) {
    return std::char_traits<char>::length(pszText);
}

bool StandsAt(const std::string& text, size_t at, const std::string& piece) {
    return text.compare(at, piece.size(), piece) == 0;
}

/// A response as it came, but for the prompt behind it. It begins with a line that says from whom it is, or with its
/// own text.
void AddResponse(const std::string& came, Answer* pAnswer) {
    constexpr size_t kDate = 26; // ": " and a date
    pAnswer->answered += 1;
    const size_t name = Length(kResponse);
    const size_t lineEnd = came.find("\r\n", 2);
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

/// What may be half typed at a moment: one line, or the one that is being erased and then the next.
using TypedLines = std::initializer_list<std::string>;

/// Takes the beginning of what was being typed off the front of a text.
void TakeTyped(TypedLines lines, std::string* pCame) {
    for (const std::string& line : lines) {
        const auto differ = std::mismatch(pCame->begin(), pCame->end(), line.begin(), line.end());
        pCame->erase(pCame->begin(), differ.first);
    }
}

/// The next prompt of the console, and not of a text: behind it stands something of what is typed, an answer of a
/// queue, or nothing.
size_t FindPrompt(const std::string& text, TypedLines lines) {
    size_t at = text.find(kPrompt);
    for (; at != std::string::npos; at = text.find(kPrompt, at + 1)) {
        const size_t behind = at + Length(kPrompt);
        const auto begins = [&](const std::string& line) { return text[behind] == line[0]; };
        if (behind == text.size() || std::any_of(lines.begin(), lines.end(), begins) ||
            StandsAt(text, behind, kResponse)) {
            break;
        }
    }
    return at;
}

/// Takes responses that came into the middle of typing. What stands behind the last prompt is what was typed.
void TakeInterruptions(TypedLines lines, std::string came, Answer* pAnswer) {
    TakeTyped(lines, &came);
    for (size_t end = FindPrompt(came, lines); end != std::string::npos; end = FindPrompt(came, lines)) {
        if (end > 0) {
            AddResponse(came.substr(0, end), pAnswer);
        }
        came.erase(0, end + Length(kPrompt));
        TakeTyped(lines, &came);
    }
}

/// Whether a line is the console's word for what it does not understand. A script may have several.
bool HasSyntaxError(const std::string& text) {
    return ("\n" + text + "\n").find(std::string("\n") + kSyntaxError + "\n") != std::string::npos;
}

/// Takes what the command wrote, which ends at the prompt behind which the question is typed.
void TakeOutput(const std::string& question, const std::string& came, Answer* pAnswer) {
    const std::string prompted = "\r\n" + came; // the command may have written nothing
    const size_t end = FindPrompt(prompted, {question});
    const std::string output = Readable(prompted.substr(0, end));
    if (HasSyntaxError(output)) {
        pAnswer->result = Result::SyntaxError;
    }
    if (end != std::string::npos) {
        TakeInterruptions({question}, prompted.substr(end + Length(kPrompt)), pAnswer);
    }
    pAnswer->text = output + "\n" + pAnswer->text;
}

/// Where the line is echoed with its end; npos where it is not. A response may come between the two, and begins with a
/// line end too: then the line is repeated behind it.
size_t FindEcho(const std::string& came, const std::string& line) {
    const std::string echo = line + "\r\n";
    size_t at = StandsAt(came, 0, echo) ? 0 : came.find(echo);
    while (at != std::string::npos && StandsAt(came, at + line.size(), kResponse)) {
        at = came.find(echo, at + 1);
    }
    return at;
}

} // namespace

SessionKeys MakeSessionKeys() {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::random_device chance;
    std::string mark = "~";
    while (mark.size() < 13) {
        mark += kDigits[chance() % 16];
    }
    // Blanks in front, which the console passes over: hardly any line begins like the question then.
    return {mark, "       sh mem file=" + mark + "/" + mark, kCannotOpen + mark + "/" + mark + "!\r\n"};
}

bool TakeTranscript(const SessionKeys& keys, const std::string& line, std::string came, bool bWhole, Answer* pAnswer) {
    RemoveAll(kErased, &came);
    const size_t atEcho = FindEcho(came, line);
    if (atEcho == std::string::npos) {
        return false;
    }
    std::string before = came.substr(0, atEcho);
    TakeResponses(keys, &before, pAnswer); // with the mark whole
    TakeInterruptions({keys.mark, line}, before, pAnswer);
    came.erase(0, atEcho + line.size() + Length("\r\n"));

    const size_t atAnswer = bWhole ? came.find(keys.answer) : std::string::npos;
    const size_t atQuestion = came.rfind(keys.question, atAnswer); // one before it was repeated before its line ended
    TakeOutput(keys.question, came.substr(0, atQuestion), pAnswer);
    if (atQuestion == std::string::npos || atAnswer == std::string::npos) {
        return true;
    }
    const size_t behind = atQuestion + keys.question.size();
    TakeInterruptions({keys.mark}, came.substr(behind, atAnswer - behind), pAnswer);
    TakeInterruptions({keys.mark}, came.substr(atAnswer + keys.answer.size()), pAnswer);
    return true;
}

void TakeResponses(const SessionKeys& keys, std::string* pCame, Answer* pAnswer) {
    const std::string end = kPrompt + keys.mark;
    for (size_t at = pCame->find(end); at != std::string::npos; at = pCame->find(end)) {
        AddResponse(pCame->substr(0, at), pAnswer);
        pCame->erase(0, at + end.size());
    }
}

std::string Readable(const std::string& text) {
    std::string readable;
    std::copy_if(text.begin(), text.end(), std::back_inserter(readable), [](char c) { return c != '\r'; });
    return readable;
}

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of('\n');
    const size_t last = text.find_last_not_of('\n');
    return first == std::string::npos ? "" : text.substr(first, last + 1 - first) + "\n";
}

} // namespace tools
