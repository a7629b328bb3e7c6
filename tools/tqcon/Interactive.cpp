#include "Interactive.h"

#include <algorithm>
#include <errno.h>
#include <histedit.h>
#include <iostream>
#include <locale.h>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wchar.h>

#include "Colours.h"
#include "Completion.h"
#include "Names.h"
#include "Script.h"

namespace tqcon {

using tools::Answer;
using tools::Console;
using tools::Result;

namespace {

constexpr int kHistoryLines = 1000;
constexpr size_t kMostShown = 100; // candidates of a completion

// The history's file

/// $TQCON_HISTORY, or tqcon/history in the directory for such things. Its directories are made.
std::string HistoryFile() {
    if (const char* pszFile = getenv("TQCON_HISTORY")) {
        return pszFile;
    }
    const char* pszState = getenv("XDG_STATE_HOME");
    const char* pszHome = getenv("HOME");
    if (!(pszState && *pszState) && !(pszHome && *pszHome)) {
        return "";
    }
    const std::string file =
        (pszState && *pszState ? pszState : std::string(pszHome) + "/.local/state") + "/tqcon/history";
    for (size_t at = file.find('/', 1); at != std::string::npos; at = file.find('/', at + 1)) {
        mkdir(file.substr(0, at).c_str(), 0700);
    }
    return file;
}

/// The lines of this session and of earlier ones.
class LineHistory {
public:
    LineHistory() : m_pHistory(history_init()), m_file(HistoryFile()) {
        HistEvent event;
        history(m_pHistory, &event, H_SETSIZE, kHistoryLines);
        history(m_pHistory, &event, H_SETUNIQUE, 1);
        if (!m_file.empty()) {
            history(m_pHistory, &event, H_LOAD, m_file.c_str());
        }
    }
    ~LineHistory() {
        HistEvent event;
        if (!m_file.empty()) {
            history(m_pHistory, &event, H_SAVE, m_file.c_str());
        }
        history_end(m_pHistory);
    }
    LineHistory(const LineHistory&) = delete;
    LineHistory& operator=(const LineHistory&) = delete;

    void Add(const std::string& line) {
        HistEvent event;
        history(m_pHistory, &event, H_ENTER, line.c_str());
    }
    History* Get() { return m_pHistory; }

private:
    History* m_pHistory;
    std::string m_file;
};

// The editor

void DoNothing(int) {}

/// While a line is typed an interrupt gives it up; at other times it ends the program. It waits until a key is waited
/// for: one that came while a key was being dealt with would go unnoticed.
class InterruptGivesUp {
public:
    InterruptGivesUp() {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, &m_maskBefore);
        struct sigaction action = {};
        action.sa_handler = DoNothing; // and without a restart: ppoll() comes back
        sigaction(SIGINT, &action, &m_before);
    }
    ~InterruptGivesUp() {
        sigaction(SIGINT, &m_before, nullptr);
        pthread_sigmask(SIG_SETMASK, &m_maskBefore, nullptr);
    }
    InterruptGivesUp(const InterruptGivesUp&) = delete;
    InterruptGivesUp& operator=(const InterruptGivesUp&) = delete;

private:
    struct sigaction m_before = {};
    sigset_t m_maskBefore = {};
};

/// poll(), in which an interrupt may come.
int WaitInterruptibly(struct pollfd* pWaits, nfds_t count) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    sigdelset(&mask, SIGINT);
    return ppoll(pWaits, count, nullptr, &mask);
}

/// What the editor calls back for.
class Editor {
public:
    explicit Editor(Console* pConsole)
        : m_pConsole(pConsole), m_names(pConsole), m_bColours(HasColours(STDOUT_FILENO)),
          m_pEditor(el_init("tqcon", stdin, stdout, stderr), el_end) {
        el_set(m_pEditor.get(), EL_CLIENTDATA, this);
        el_set(m_pEditor.get(), EL_PROMPT, PromptOf);
        el_set(m_pEditor.get(), EL_EDITOR, "emacs");
        el_set(m_pEditor.get(), EL_HIST, history, m_history.Get());
        el_set(m_pEditor.get(), EL_ADDFN, "tq-complete", "Completes a command or a name", CompleteKey);
        el_set(m_pEditor.get(), EL_BIND, "^I", "tq-complete", nullptr);
        el_set(m_pEditor.get(), EL_BIND, "^R", "em-inc-search-prev", nullptr);
        el_set(m_pEditor.get(), EL_GETCFN, ReadKey);
        el_source(m_pEditor.get(), nullptr); // ~/.editrc
    }

    /// False at the end of the input, or of the session.
    bool ReadLine(std::string* pLine) {
        const InterruptGivesUp interrupt;
        while (true) {
            int count = 0;
            errno = 0;
            const char* pszLine = el_gets(m_pEditor.get(), &count);
            if (pszLine) {
                pLine->assign(pszLine, static_cast<size_t>(count));
                pLine->resize(pLine->find_last_not_of("\r\n") + 1);
                return true;
            }
            if (errno != EINTR) {
                std::cout << std::endl;
                return false;
            }
            std::cout << "^C" << std::endl;
            el_reset(m_pEditor.get());
        }
    }

    void Remember(const std::string& line) { m_history.Add(line); }

    void Show(const std::string& text) const { std::cout << (m_bColours ? Painted(text) : text) << std::flush; }
    void ShowProblem(const std::string& text) const {
        std::cout << (m_bColours ? Coloured(Colour::Error, text) : text) << std::endl;
    }

private:
    static Editor* Of(EditLine* pEditor) {
        void* pEditorOfIt = nullptr;
        el_get(pEditor, EL_CLIENTDATA, &pEditorOfIt);
        return static_cast<Editor*>(pEditorOfIt);
    }

    static char* PromptOf(EditLine*) {
        static char prompt[] = ">"; // the console's own
        return prompt;
    }
    static unsigned char CompleteKey(EditLine* pEditor, int) { return Of(pEditor)->CompleteWord(); }
    static int ReadKey(EditLine* pEditor, wchar_t* pKey) { return Of(pEditor)->WaitForKey(pKey); }

    unsigned char CompleteWord();
    void ListCandidates(const std::vector<Candidate>& candidates) const;
    int WaitForKey(wchar_t* pKey);
    bool ShowUnasked();

    Console* m_pConsole;
    Names m_names;
    LineHistory m_history;
    bool m_bColours;
    std::unique_ptr<EditLine, decltype(&el_end)> m_pEditor;
    mbstate_t m_character = {};
};

unsigned char Editor::CompleteWord() {
    const LineInfo* pInfo = el_line(m_pEditor.get());
    const std::string line(pInfo->buffer, pInfo->cursor);
    const Completion completion = Complete(line, std::ref(m_names));
    const size_t typed = line.size() - completion.begin;
    std::string word = CommonBeginning(completion.candidates);
    const bool bOne = completion.candidates.size() == 1;
    if (bOne && word.back() != '=') {
        word += ' ';
    }
    if (bOne || word.size() > typed) {
        el_deletestr(m_pEditor.get(), static_cast<int>(typed));
        el_insertstr(m_pEditor.get(), word.c_str());
        return CC_REFRESH;
    }
    if (completion.candidates.empty()) {
        return CC_ERROR;
    }
    ListCandidates(completion.candidates);
    return CC_REDISPLAY;
}

void Editor::ListCandidates(const std::vector<Candidate>& candidates) const {
    size_t width = 0;
    for (const Candidate& candidate : candidates) {
        width = std::max(width, candidate.shown.size() + 2);
    }
    const size_t columns = std::max<size_t>(1, 78 / width);
    std::string list = "\n";
    for (size_t i = 0; i < candidates.size() && i < kMostShown; ++i) {
        const bool bLast = (i + 1) % columns == 0 || i + 1 == candidates.size();
        std::string entry = candidates[i].shown;
        entry.resize(bLast ? entry.size() : width, ' ');
        list += entry + (bLast ? "\n" : "");
    }
    if (candidates.size() > kMostShown) {
        list += "and " + std::to_string(candidates.size() - kMostShown) + " more\n";
    }
    std::cout << list << std::flush;
}

/// Shows what has come from the device, above the line that is being typed; false when the session has ended.
bool Editor::ShowUnasked() {
    const Answer answer = m_pConsole->TakeUnasked();
    const std::string text = TextOf(answer);
    if (!text.empty()) {
        std::cout << "\r\x1b[K";
        Show(text);
        el_set(m_pEditor.get(), EL_REFRESH);
    }
    if (answer.result != Result::Ok) {
        std::cout << "\r\x1b[K";
        ShowProblem(answer.problem);
    }
    return answer.result == Result::Ok;
}

/// The editor's next key: 1, 0 at the end of the input or the session, -1 when it is interrupted.
int Editor::WaitForKey(wchar_t* pKey) {
    while (true) {
        struct pollfd waits[2] = {{STDIN_FILENO, POLLIN, 0}, {m_pConsole->Descriptor(), POLLIN, 0}};
        if (WaitInterruptibly(waits, 2) < 0) {
            return -1;
        }
        if (waits[1].revents != 0 && !ShowUnasked()) {
            return 0;
        }
        if (waits[0].revents == 0) {
            continue;
        }
        char byte = 0;
        if (read(STDIN_FILENO, &byte, 1) != 1) {
            return 0;
        }
        const size_t length = mbrtowc(pKey, &byte, 1, &m_character);
        if (length == 1 || length == 0) {
            return 1;
        }
        if (length == static_cast<size_t>(-1)) {
            m_character = {}; // no character begins so
        }
    }
}

} // namespace

Result RunInteractive(Console* pConsole) {
    setlocale(LC_CTYPE, "");
    Editor editor(pConsole);
    editor.Show(pConsole->Greeting());
    std::string line;
    while (pConsole->IsOpen()) {
        if (!editor.ReadLine(&line)) {
            return pConsole->IsOpen() ? Result::Ok : Result::NoConnection;
        }
        if (line.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        editor.Remember(line);
        const Answer answer = Ask(pConsole, line);
        editor.Show(TextOf(answer));
        if (answer.result != Result::Ok && answer.result != Result::SyntaxError) {
            editor.ShowProblem(answer.problem);
            return answer.result;
        }
    }
    return Result::Ok;
}

} // namespace tqcon
