// Bytes typed into a session, before the login and after it, against a second line editor that says what the console
// shows for each byte and what the session holds then.
//
// Input: the bytes. "!" and a letter stand for what cannot be read in a file: "!r" a carriage return, "!e" an escape
// character, "!t" CTRL-E, "!b" a backspace, "!0" a zero byte, "!f" 1000 times "x", "!p" the password and a carriage
// return, "!!" the sign itself.
#include "ConsoleSession.h"

namespace {

constexpr size_t kMostLine = 1024;
constexpr size_t kMostHistory = 100;
constexpr size_t kMostBytes = 12000;

std::string BytesOf(fuzz::Input& input) {
    std::string bytes;
    while (!input.IsEmpty() && bytes.size() < kMostBytes) {
        const char c = static_cast<char>(input.Byte());
        const char sign = c == '!' ? static_cast<char>(input.Byte()) : '!';
        switch (sign) {
        case 'r':
            bytes += '\r';
            break;
        case 'e':
            bytes += '\x1b';
            break;
        case 't':
            bytes += '\5';
            break;
        case 'b':
            bytes += '\b';
            break;
        case '0':
            bytes += '\0';
            break;
        case 'f':
            bytes += std::string(1000, 'x');
            break;
        case 'p':
            bytes += std::string(console::kPassword) + '\r';
            break;
        default:
            bytes += c;
            break;
        }
    }
    return bytes;
}

/// What is known of the session.
struct Model {
    std::string line;
    std::vector<std::string> history; ///< the oldest first
    size_t recalled = SIZE_MAX;       ///< in the history
    bool bEcho = true;
    bool bLoggedIn = false;
    bool bCollecting = false; ///< an escape sequence
    std::string keys;         ///< of it
    unsigned int failures = 0;

    std::string Prompt() const { return bLoggedIn ? ">" : "login: "; }
};

bool SameText(const std::string& one, const std::string& other) {
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::string Overflow() {
    return "\r\nOverflow!\r\n";
}

std::string Erased(const Model& model) {
    std::string shown;
    for (size_t i = 0; i < model.line.size(); ++i) {
        shown += "\b \b";
    }
    return shown;
}

std::string Recall(Model& model, size_t entry) {
    const std::string shown = Erased(model);
    model.recalled = entry;
    model.line = entry < model.history.size() ? model.history[entry] : "";
    return shown + model.line;
}

std::string Backspace(Model& model) {
    if (!model.line.empty()) {
        model.line.pop_back();
        return model.bEcho ? "\b \b" : " \b";
    }
    return model.bEcho ? "" : model.bLoggedIn ? ">" : " ";
}

std::string Up(Model& model) {
    if (!model.bLoggedIn || model.history.empty()) {
        return "";
    }
    const size_t newest = model.history.size() - 1;
    return Recall(model, model.recalled == SIZE_MAX ? newest : model.recalled > 0 ? model.recalled - 1 : 0);
}

std::string Down(Model& model) {
    if (!model.bLoggedIn) {
        return "";
    }
    const bool bLast = model.recalled == SIZE_MAX || model.recalled + 1 >= model.history.size();
    return Recall(model, bLast ? SIZE_MAX : model.recalled + 1);
}

std::string Collect(Model& model, char key) {
    if (model.keys.size() == 9) {
        model.bCollecting = false;
        return Overflow();
    }
    model.keys += key;
    const std::string text = fuzz::Cut(model.keys);
    const bool bKnown = text.size() == 2 && (text[0] == 'O' || text[0] == '[') && text[1] >= 'A' && text[1] <= 'D';
    model.bCollecting = !bKnown && text.size() < 3;
    if (!bKnown) {
        return "";
    }
    return text[1] == 'A' ? Up(model) : text[1] == 'B' ? Down(model) : text[1] == 'C' ? "" : Backspace(model);
}

std::string Toggle(Model& model) {
    model.bEcho = !model.bEcho;
    return std::string("\r\necho ") + (model.bEcho ? "on" : "off") + "\r\n\r\n" + model.Prompt() +
           (model.bLoggedIn ? model.line : std::string(model.line.size(), '*'));
}

std::string Character(Model& model, char c) {
    if (model.line.size() == kMostLine) {
        model.line.clear();
        return Overflow();
    }
    model.line += c;
    return (model.bEcho ? "" : "\b \b") + std::string(1, model.bLoggedIn ? c : '*');
}

/// What the console shows for a byte that does not end a line.
std::string Key(Model& model, char c) {
    if (c == '\5') {
        return Toggle(model);
    }
    if (model.bCollecting) {
        return Collect(model, c);
    }
    if (c >= ' ' && c <= '~') {
        return Character(model, c);
    }
    if (c == '\x1b') {
        model.bCollecting = true;
        model.keys.clear();
        return "";
    }
    return c == '\b' ? Backspace(model) : "";
}

void Remember(Model& model) {
    for (size_t i = 0; i < model.history.size(); ++i) {
        if (SameText(model.history[i], model.line)) {
            model.history.erase(model.history.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
    }
    model.history.push_back(model.line);
    model.recalled = SIZE_MAX;
    if (model.history.size() > kMostHistory) {
        model.history.erase(model.history.begin());
    }
}

/// A line before the login; false when the session must have ended.
bool EndPassword(Model& model) {
    const std::string before = model.bEcho ? "\r\n" : "";
    const std::string line = model.line;
    const std::string shown = console::Type("\r");
    model.line.clear();
    if (line == console::kPassword) {
        model.bLoggedIn = true;
        model.failures = 0;
        FUZZ_EQUAL(before + "Welcome...\r\n\r\n>", shown);
        return true;
    }
    model.failures += 1;
    FUZZ_EQUAL(model.failures == 3 ? before : before + "Invalid login attempt.\r\n\r\nlogin: ", shown);
    return model.failures < 3;
}

bool Ends(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// A line after the login. What a command answers is its own; it may switch the echo, and end the session.
bool EndCommand(Model& model) {
    const std::string line = model.line;
    const std::string before = model.bEcho ? "\r\n" : "";
    if (!line.empty()) {
        Remember(model);
    }
    const std::string shown = console::Type("\r");
    FUZZ_EQUAL(before, shown.substr(0, before.size()));
    model.line.clear();
    if (line.find_first_not_of(' ') == std::string::npos) {
        FUZZ_EQUAL(before + ">", shown);
    }
    const TELNET_INSTANCE* pSession = console::Session();
    if (pSession) {
        FUZZ_CHECK(Ends(shown, ">"));
        model.bEcho = pSession->bEcho;
        console::TakeResponses();
    }
    return pSession;
}

void Check(const Model& model) {
    const TELNET_INSTANCE* pSession = console::Session();
    FUZZ_CHECK(pSession);
    console::CheckSession(*pSession);
    FUZZ_EQUAL(model.line, std::string(pSession->szCommand));
    FUZZ_EQUAL(model.bLoggedIn, pSession->bLoggedIn);
    FUZZ_EQUAL(model.bEcho, pSession->bEcho);
    FUZZ_EQUAL(model.failures, pSession->uiFailedLoginCount);
    FUZZ_EQUAL(model.history.size(), pSession->pHistoryCount);
    const HISTORY_NODE* pNode = pSession->pHistoryHead;
    for (const std::string& command : model.history) {
        FUZZ_EQUAL(command, std::string(pNode->pszCommand));
        pNode = pNode->pNext;
    }
}

/// Types what has gathered up to the end of a line, and checks what the console has shown for it.
void TypeGathered(std::string& typed, std::string& expected) {
    FUZZ_EQUAL(expected, console::Type(typed));
    typed.clear();
    expected.clear();
}

void OneInput(fuzz::Input input) {
    console::Connect();
    Model model;
    bool bOpen = true;
    std::string typed;
    std::string expected;
    for (const char c : BytesOf(input)) {
        if (c != '\r' || model.bCollecting) {
            typed += c;
            expected += Key(model, c);
            continue;
        }
        TypeGathered(typed, expected);
        Check(model);
        bOpen = model.bLoggedIn ? EndCommand(model) : EndPassword(model);
        if (!bOpen) {
            break;
        }
        Check(model);
    }
    FUZZ_EQUAL(bOpen, console::Session() != nullptr);
    if (bOpen) {
        TypeGathered(typed, expected);
        Check(model);
    }
    console::Disconnect();
    console::ResetSettings();
    console::RemoveFiles();
}

} // namespace

FUZZ_TARGET_WITH_START("[Memory]\r\nEnableMemoryTracking=yes\r\n[Trace]\r\nDefaultLogToSTDOUT=no\r\n", console::Start,
                       OneInput)
