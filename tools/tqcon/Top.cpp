#include "Top.h"

#include <algorithm>
#include <iostream>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Changes.h"
#include "Colours.h"
#include "JsonOutput.h"
#include "Rounds.h"
#include "Script.h"

namespace tqcon {

using tools::Answer;
using tools::Result;

namespace {

constexpr const char* kReportsShown[] = {"show uptime",  "show queues",     "show sockets", "show memory",
                                         "show threads", "show semaphores", "show timers",  "show handles"};

std::string Formatted(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));
std::string Formatted(const char* pszFormat, ...) {
    char text[512];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(text, sizeof(text), pszFormat, args);
    va_end(args);
    return text;
}

// What a screen is made of

Json TableOf(const Snapshot& snapshot, const char* pszReport, const char* pszTable) {
    return snapshot.value(pszReport, Json::object()).value(pszTable, Json::array());
}

std::string TextIn(const Json& row, const char* pszKey) {
    return row.contains(pszKey) && row[pszKey].is_string() ? row[pszKey].get<std::string>() : "(unnamed)";
}

long long NumberIn(const Json& row, const char* pszKey) {
    return row.contains(pszKey) && row[pszKey].is_number() ? row[pszKey].get<long long>() : 0;
}

long long ChangeIn(const Json& row, const char* pszKey) {
    return row.contains("change") ? NumberIn(row["change"], pszKey) : 0;
}

/// A change that is one, to stand behind its number.
std::string Changed(long long change) {
    return change == 0 ? "" : " " + Difference(change);
}

/// "src/tqos/tq_MsgQ.cpp" is "tq_MsgQ.cpp" where there is little room.
std::string PlaceOf(const Json& wait) {
    const std::string file = TextIn(wait, "file");
    const size_t slash = file.rfind('/');
    const std::string line = NumberIn(wait, "line") != 0 ? ":" + std::to_string(NumberIn(wait, "line")) : "";
    return (slash == std::string::npos ? file : file.substr(slash + 1)) + line;
}

struct Section {
    std::string heading;
    std::vector<std::string> rows;
};

std::string UptimeText(const Json& uptime) {
    const std::string clock = Formatted("%lld:%02lld:%02lld", NumberIn(uptime, "hours"), NumberIn(uptime, "minutes"),
                                        NumberIn(uptime, "seconds"));
    const long long days = NumberIn(uptime, "days");
    return days == 0 ? clock : std::to_string(days) + (days == 1 ? " day " : " days ") + clock;
}

long long SumOf(const Json& rows, const char* pszKey) {
    long long sum = 0;
    for (const Json& row : rows) {
        sum += NumberIn(row, pszKey);
    }
    return sum;
}

std::string CountsLine(const Snapshot& now) {
    const Json queues = TableOf(now, "queues", "queues");
    const Json sockets = TableOf(now, "sockets", "sockets");
    const auto connected = std::count_if(sockets.begin(), sockets.end(),
                                         [](const Json& row) { return TextIn(row, "state") == "connected"; });
    const Json handles = now.value("handles", Json::object());
    return Formatted("queues %zu (%lld messages waiting), sockets %zu (%lld connected), threads %zu, timers %zu, "
                     "handles %lld of %lld",
                     queues.size(), SumOf(queues, "depth"), sockets.size(), static_cast<long long>(connected),
                     TableOf(now, "threads", "threads").size(), TableOf(now, "timers", "timers").size(),
                     NumberIn(handles, "in_use"), NumberIn(handles, "total"));
}

struct Total {
    const char* pszName;
    const char* pszShown;
};
constexpr Total kTotals[] = {
    {"Bytes requested through TQOS", "memory"},
    {"Bytes allocated through TQOS", "with what the library adds"},
    {"MAX Bytes requested through TQOS", "most"},
    {"Bytes requested from the heap", "outside the pools"},
};

std::string MemoryLine(const Snapshot& before, const Snapshot& now) {
    Json totals = TableOf(now, "memory", "totals");
    AddChanges("totals", before.is_null() ? Json() : TableOf(before, "memory", "totals"), &totals);
    std::string line;
    for (const Total& total : kTotals) {
        for (const Json& row : totals) {
            if (TextIn(row, "name") == total.pszName) {
                line += (line.empty() ? "" : ", ") + std::string(total.pszShown) + " " +
                        std::to_string(NumberIn(row, "bytes")) + Changed(ChangeIn(row, "bytes"));
            }
        }
    }
    const Json notes = TableOf(now, "memory", "notes");
    return !line.empty() || notes.empty() ? line + " bytes" : notes[0].get<std::string>();
}

Section QueueSection(const Snapshot& before, const Snapshot& now) {
    Json queues = TableOf(now, "queues", "queues");
    AddChanges("queues", before.is_null() ? Json() : TableOf(before, "queues", "queues"), &queues);
    SortRows("-depth", &queues);
    Section section = {Formatted("%8s %-12s %-28s %s", "QUEUE", "DEPTH", "NAME", "DESCRIPTION"), {}};
    for (const Json& row : queues) {
        const std::string depth = std::to_string(NumberIn(row, "depth")) + Changed(ChangeIn(row, "depth"));
        section.rows.push_back(Formatted("%8lld %-12s %-28s %s", NumberIn(row, "id"), depth.c_str(),
                                         TextIn(row, "name").c_str(), TextIn(row, "description").c_str()));
    }
    return section;
}

Section SocketSection(const Snapshot& now) {
    Section section = {Formatted("%8s %-4s %-11s %-22s %-22s %s", "SOCKET", "TYPE", "STATE", "FROM", "TO", "NAME"), {}};
    for (const Json& row : TableOf(now, "sockets", "sockets")) {
        section.rows.push_back(Formatted("%8lld %-4s %-11s %-22s %-22s %s", NumberIn(row, "handle"),
                                         TextIn(row, "type").c_str(), TextIn(row, "state").c_str(),
                                         TextIn(row, "source").c_str(), TextIn(row, "destination").c_str(),
                                         TextIn(row, "name").c_str()));
    }
    return section;
}

/// Where each thread waits.
Section ThreadSection(const Snapshot& now) {
    const Json waits = TableOf(now, "semaphores", "waits");
    Section section = {Formatted("%8s %-8s %-6s %-30s %s", "PID", "PRIORITY", "LOCKS", "THREAD", "WAITS AT"), {}};
    for (const Json& row : TableOf(now, "threads", "threads")) {
        std::string waitsAt;
        unsigned int owned = 0;
        for (const Json& wait : waits) {
            if (wait["thread"] == row["thread"]) {
                owned += TextIn(wait, "state") == "Owned" ? 1 : 0;
                waitsAt = TextIn(wait, "state") == "Waiting" ? TextIn(wait, "type") + " " + PlaceOf(wait) : waitsAt;
            }
        }
        section.rows.push_back(Formatted("%8lld %-8s %-6u %-30s %s", NumberIn(row, "pid"),
                                         TextIn(row, "priority").c_str(), owned, TextIn(row, "name").c_str(),
                                         waitsAt.c_str()));
    }
    return section;
}

std::string NameOfThread(const Snapshot& now, const Json& thread) {
    for (const Json& row : TableOf(now, "threads", "threads")) {
        if (row["thread"] == thread) {
            return TextIn(row, "name");
        }
    }
    return "thread " + thread.dump();
}

/// Who waits for a lock that somebody else has: what makes a device slow, and when two wait for each other, stand
/// still.
Section LockSection(const Snapshot& now) {
    Section section = {"LOCK WAITS", {}};
    const Json waits = TableOf(now, "semaphores", "waits");
    if (waits.empty()) {
        const Json notes = TableOf(now, "semaphores", "notes");
        section.rows.push_back("  " + (notes.empty() ? "(not known)" : notes[0].get<std::string>()));
        return section;
    }
    for (const Json& wait : waits) {
        for (const Json& owner : waits) {
            if (TextIn(wait, "state") == "Waiting" && TextIn(owner, "state") == "Owned" &&
                wait["lock"] == owner["lock"] && wait["thread"] != owner["thread"]) {
                section.rows.push_back("  " + NameOfThread(now, wait["thread"]) + " waits at " + PlaceOf(wait) +
                                       " for " + NameOfThread(now, owner["thread"]) + ", which took the lock at " +
                                       PlaceOf(owner));
            }
        }
    }
    if (section.rows.empty()) {
        section.rows.push_back("  nobody waits for a lock that another has");
    }
    return section;
}

/// Takes rows away, from the longest section first, until all fit.
void Shorten(std::vector<Section>* pSections, size_t room) {
    const auto lines = [pSections] {
        size_t count = 0;
        for (const Section& section : *pSections) {
            count += section.rows.size() + 2; // a heading and an empty line
        }
        return count;
    };
    const auto isShorter = [](const Section& first, const Section& second) {
        return first.rows.size() < second.rows.size();
    };
    while (lines() > room) {
        Section& longest = *std::max_element(pSections->begin(), pSections->end(), isShorter);
        if (longest.rows.size() <= 1) {
            return;
        }
        longest.rows.pop_back();
        longest.rows.back() = "         ...";
    }
}

std::string Cut(const std::string& line, size_t columns) {
    return columns == 0 || line.size() <= columns ? line : line.substr(0, columns);
}

// The terminal

struct Size {
    size_t lines = 0;
    size_t columns = 0;
};

Size TerminalSize() {
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) {
        return {24, 80};
    }
    return {size.ws_row, size.ws_col};
}

/// A screen of its own, which leaves what was there before.
class OtherScreen {
public:
    explicit OtherScreen(bool bWanted) : m_bWanted(bWanted) { Say("\x1b[?1049h\x1b[?25l"); }
    ~OtherScreen() { Say("\x1b[?25h\x1b[?1049l"); }
    OtherScreen(const OtherScreen&) = delete;
    OtherScreen& operator=(const OtherScreen&) = delete;

    void Draw(const std::string& screen) const {
        std::string text = screen;
        for (size_t at = text.find('\n'); m_bWanted && at != std::string::npos; at = text.find('\n', at + 4)) {
            text.replace(at, 1, "\x1b[K\n"); // the rest of the line is that of an earlier screen
        }
        text.resize(m_bWanted ? text.find_last_not_of('\n') + 1 : text.size());
        std::cout << (m_bWanted ? "\x1b[H" + text + "\x1b[J" : text) << std::flush;
    }

private:
    void Say(const char* pszSequence) const {
        if (m_bWanted) {
            std::cout << pszSequence << std::flush;
        }
    }

    bool m_bWanted;
};

Result TakeSnapshot(tools::Console* pConsole, Snapshot* pNow) {
    *pNow = Json::object();
    for (const char* pszCommand : kReportsShown) {
        const Answer answer = Ask(pConsole, pszCommand);
        if (answer.result != Result::Ok) {
            std::cerr << "tqcon: " << answer.problem << "\n";
            return answer.result;
        }
        const Report* const pReport = FindReport(ParseCommand(pszCommand));
        (*pNow)[pReport->pszName] = ParseReport(*pReport, answer.text);
    }
    return Result::Ok;
}

} // namespace

std::string TopScreen(const std::string& device, const Snapshot& before, const Snapshot& now, size_t lines,
                      size_t columns) {
    const std::string head[] = {device + ", up " + UptimeText(now.value("uptime", Json::object())), CountsLine(now),
                                MemoryLine(before, now)};
    std::vector<Section> sections = {LockSection(now), QueueSection(before, now), ThreadSection(now),
                                     SocketSection(now)};
    if (lines > 0) {
        Shorten(&sections, lines - std::min(lines, std::size(head)));
    }
    std::string screen;
    for (const std::string& line : head) {
        screen += Cut(line, columns) + "\n";
    }
    for (const Section& section : sections) {
        screen += "\n" + Cut(section.heading, columns) + "\n";
        for (const std::string& row : section.rows) {
            screen += Cut(row, columns) + "\n";
        }
    }
    return screen;
}

Result RunTop(const Options& options, tools::Console* pConsole) {
    const bool bTerminal = isatty(STDOUT_FILENO) != 0;
    const std::string device = options.address.host + ":" + options.address.port;
    const OtherScreen screen(bTerminal);
    Snapshot before;
    const unsigned int count = options.count == 0 && !bTerminal ? 1 : options.count;
    return DoRounds(count, options.everyMs, /*bOwnTerminal=*/bTerminal, [&] {
        Snapshot now;
        const Result result = TakeSnapshot(pConsole, &now);
        if (result != Result::Ok) {
            return result;
        }
        if (options.format == Format::JsonLines) {
            std::cout << JsonLine(now) << std::flush;
        } else {
            const Size size = bTerminal ? TerminalSize() : Size();
            screen.Draw(TopScreen(device, before, now, size.lines, size.columns) + (bTerminal ? "" : "\n"));
        }
        before = std::move(now);
        return result;
    });
}

} // namespace tqcon
