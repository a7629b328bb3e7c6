#include "Watch.h"

#include <iostream>
#include <map>
#include <time.h>
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

/// This machine's date and time, with its distance from UTC.
std::string Now() {
    char text[40];
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", &local);
    return text;
}

class Watcher {
public:
    Watcher(const Options& options, tools::Console* pConsole)
        : m_options(options), m_pConsole(pConsole), m_bColours(HasColours(STDOUT_FILENO)) {}

    Result Round() {
        for (const std::string& line : m_options.commands) {
            const Answer answer = Ask(m_pConsole, line);
            if (answer.result != Result::Ok) {
                std::cerr << "tqcon: " << line << ": " << answer.problem << "\n";
                return answer.result;
            }
            Write(line, answer);
        }
        return Result::Ok;
    }

private:
    void Write(const std::string& line, const Answer& answer) {
        Json json = AnswerJson(line, answer);
        Json gone = Json::object();
        Json now = Json::object();
        const Json before = m_before.count(line) != 0 ? m_before[line] : Json::object();
        for (auto& [key, rows] : json.items()) {
            if (rows.is_array() && KeysOf(key)) {
                now[key] = rows;
                gone[key] = AddChanges(key, before.value(key, Json()), &rows);
                SortRows(m_options.sort, &rows);
            }
        }
        m_before[line] = std::move(now);
        if (m_options.format == Format::JsonLines) {
            json["time"] = Now();
            json["gone"] = std::move(gone);
            std::cout << JsonLine(json) << std::flush;
        } else {
            WriteText(line, json, gone, answer);
        }
    }

    void WriteText(const std::string& line, const Json& json, const Json& gone, const Answer& answer) const {
        const std::string heading = Now() + "  " + line;
        std::cout << (m_bColours ? Coloured(Colour::Heading, heading) : heading) << "\n";
        for (const auto& [key, rows] : gone.items()) {
            std::cout << TableText(json[key], rows) << "\n";
        }
        for (const Json& note : gone.empty() ? Json::array() : json.value("notes", Json::array())) {
            std::cout << note.get<std::string>() << "\n\n"; // why a table is empty
        }
        std::cout << (gone.empty() ? TextOf(answer) + "\n" : "") << std::flush;
    }

    const Options& m_options;
    tools::Console* m_pConsole;
    bool m_bColours;
    std::map<std::string, Json> m_before; // the tables of each command
};

} // namespace

Result WatchCommands(const Options& options, tools::Console* pConsole) {
    Watcher watcher(options, pConsole);
    return DoRounds(options.count, options.everyMs, /*bOwnTerminal=*/false, [&watcher] { return watcher.Round(); });
}

} // namespace tqcon
