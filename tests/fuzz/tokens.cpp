// The tokeniser and the console's splitting of words, held against second ones that work on copies.
//
// Input: a line each for the delimiters, the opening and the closing encapsulators and the characters to strip, a
// number of flags, a line end; the rest is the text. "-" stands for a set that is not given.
#include "Fuzz.h"

namespace {

struct Rules {
    std::string delimiters;
    std::string opening;
    std::string closing;
    std::string strip;
    bool bOpening;
    bool bClosing;
    bool bStrip;
    unsigned int flags;
};

Rules ReadRules(fuzz::Input& input) {
    Rules rules;
    rules.delimiters = fuzz::Cut(input.Line());
    rules.opening = fuzz::Cut(input.Line());
    rules.closing = fuzz::Cut(input.Line());
    rules.strip = fuzz::Cut(input.Line());
    rules.bOpening = rules.opening != "-";
    rules.bClosing = rules.closing != "-";
    rules.bStrip = rules.strip != "-";
    rules.opening = rules.bOpening ? rules.opening : "";
    rules.closing = rules.bClosing ? rules.closing : "";
    rules.strip = rules.bStrip ? rules.strip : "";
    rules.flags = input.Number();
    return rules;
}

/// Where the stretch ends that opens at a place: at its closing character. npos: it never closes.
size_t Closing(const std::string& text, size_t at, const Rules& rules) {
    return text.find(rules.closing[rules.opening.find(text[at])], at + 1);
}

bool Opens(char c, const Rules& rules) {
    return rules.opening.find(c) != std::string::npos;
}

std::string WithoutEncapsulators(std::string token, const Rules& rules) {
    for (size_t at = 0; at < token.size(); ++at) {
        if (!Opens(token[at], rules)) {
            continue;
        }
        const size_t end = Closing(token, at, rules);
        if (end == std::string::npos) {
            break;
        }
        token = token.substr(0, at) + token.substr(at + 1, end - at - 1) + token.substr(end + 1);
        at = end - 2; // what follows the pair comes next; for an empty pair that is this place again
    }
    return token;
}

/// All tokens of the text.
std::vector<std::string> Tokens(const std::string& text, const Rules& rules) {
    std::vector<std::string> tokens;
    if (rules.opening.size() != rules.closing.size()) {
        return tokens;
    }
    size_t start = 0;
    while (start < text.size()) {
        size_t at = start;
        while (at < text.size()) {
            if (Opens(text[at], rules)) {
                at = Closing(text, at, rules);
                if (at == std::string::npos) {
                    return tokens;
                }
                ++at;
            } else if (rules.delimiters.find(text[at]) == std::string::npos) {
                ++at;
            } else if (tokens.empty() && at == start) {
                start = ++at; // skipped at the start of the text alone
            } else {
                break;
            }
        }
        std::string token = text.substr(start, at - start);
        if (rules.flags & TQ_TOKEN_STRIP_TRAILING && !token.empty() &&
            rules.strip.find(token.back()) != std::string::npos) {
            token.pop_back();
        }
        tokens.push_back(rules.flags & TQ_TOKEN_REMOVE_ENCAPSULATORS ? WithoutEncapsulators(token, rules) : token);
        start = at + 1;
    }
    return tokens;
}

void CheckTokens(const std::string& text, const Rules& rules) {
    fuzz::Exact copy(text);
    fuzz::Exact delimiters(rules.delimiters);
    fuzz::Exact opening(rules.opening);
    fuzz::Exact closing(rules.closing);
    fuzz::Exact strip(rules.strip);
    char* pPlace = nullptr;
    char* pText = copy.Text();
    for (const std::string& token : Tokens(text, rules)) {
        const char* pszFound =
            tq_getToken(pText, delimiters.Text(), rules.bOpening ? opening.Text() : nullptr,
                        rules.bClosing ? closing.Text() : nullptr, rules.bStrip ? strip.Text() : nullptr,
                        static_cast<int>(rules.flags), &pPlace);
        FUZZ_CHECK(pszFound && pszFound >= copy.Text() && pszFound <= copy.Text() + text.size());
        FUZZ_EQUAL(token, std::string(pszFound));
        pText = nullptr;
    }
    FUZZ_CHECK(!tq_getToken(pText, delimiters.Text(), rules.bOpening ? opening.Text() : nullptr,
                            rules.bClosing ? closing.Text() : nullptr, nullptr, 0, &pPlace));
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

/// Takes a word off the text; false when there is none.
bool TakeWord(std::string& text, std::string* pWord) {
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) {
        return false;
    }
    const bool bQuoted = text[start] == '"';
    text.erase(0, start + (bQuoted ? 1 : 0));
    const size_t end = bQuoted ? text.find('"') : text.find_first_of(" \t");
    *pWord = text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
    while (!text.empty() && IsBlank(text[0])) {
        text.erase(0, 1);
    }
    return true;
}

void CheckWords(std::string text) {
    fuzz::Exact copy(text);
    char* pszLine = copy.Text();
    std::string word;
    while (TakeWord(text, &word)) {
        const char* pszFound = tq_TelnetGetNextToken(&pszLine);
        FUZZ_CHECK(pszFound);
        FUZZ_EQUAL(word, std::string(pszFound));
        FUZZ_EQUAL(text, std::string(pszLine));
    }
    FUZZ_CHECK(!tq_TelnetGetNextToken(&pszLine));
}

void OneInput(fuzz::Input input) {
    const Rules rules = ReadRules(input);
    const std::string text = fuzz::Cut(input.Rest());
    CheckTokens(text, rules);
    CheckWords(text);
}

} // namespace

FUZZ_TARGET("", OneInput)
