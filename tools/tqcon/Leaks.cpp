#include "Leaks.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <unistd.h>

#include "JsonOutput.h"
#include "Reports.h"
#include "Rounds.h"
#include "Script.h"

namespace tqcon {

using tools::Answer;
using tools::Clock;
using tools::Result;

namespace {

/// What the session itself leaves with the device: the lines that it has typed.
constexpr char kOwnFile[] = "tq_Telnet";

/// The device's side of a hunt. Each step says how it went.
class Hunter {
public:
    Hunter(const Options& options, tools::Console* pConsole) : m_options(options), m_pConsole(pConsole) {}

    Result Mark() {
        const Result result = ReadHeap(&m_heapBefore);
        if (result != Result::Ok) {
            return result;
        }
        if (!m_bPools) {
            return Refuse(
                "the device cannot list blocks: it needs EnableMemoryPooling=yes and EnableMemoryTracking=yes "
                "in the [Memory] section of its tqos.ini");
        }
        Json ignored;
        m_hunt.device = m_options.address.host + ":" + m_options.address.port;
        m_began = Clock::now();
        m_hunt.beganNs = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
        return AskDevice("set memory", &ignored);
    }

    Result Look() {
        Json blocks;
        Result result = AskDevice(Listing(), &blocks);
        m_hunt.seconds = std::chrono::duration<double>(Clock::now() - m_began).count();
        if (result == Result::Ok && blocks.contains("notes")) {
            return Refuse("the device cannot list blocks: " + blocks["notes"][0].get<std::string>());
        }
        long long heap = 0;
        result = result == Result::Ok ? ReadHeap(&heap) : result;
        m_hunt.heapChange = heap - m_heapBefore;
        for (const Json& row : blocks.value("groups", Json::array())) {
            Add({row["file"].get<std::string>(), row["line"].get<unsigned int>(), row["count"].get<unsigned int>(),
                 row["bytes"].get<unsigned int>()});
        }
        std::stable_sort(m_hunt.leaks.begin(), m_hunt.leaks.end(),
                         [](const Leak& first, const Leak& second) { return first.bytes > second.bytes; });
        return result;
    }

    const Hunt& Found() const { return m_hunt; }
    const std::string& Problem() const { return m_problem; }

private:
    Result Refuse(const std::string& problem) {
        m_problem = problem;
        return Result::CannotTell;
    }

    Result AskDevice(const std::string& line, Json* pJson) {
        const Answer answer = Ask(m_pConsole, line);
        m_problem = answer.problem;
        *pJson = AnswerJson(line, answer);
        return answer.result;
    }

    Result ReadHeap(long long* pBytes) {
        Json memory;
        const Result result = AskDevice("show memory", &memory);
        m_bPools = memory.contains("pools");
        for (const Json& row : memory.value("totals", Json::array())) {
            if (row["name"] == "Bytes requested from the heap") {
                *pBytes = row["bytes"].get<long long>();
            }
        }
        return result;
    }

    std::string Listing() const {
        std::string line = "show detail memory group=-bytes";
        line += m_options.filter.empty() ? "" : " filter=" + m_options.filter;
        return line + (m_options.bAll ? "" : std::string(" filterout=") + kOwnFile);
    }

    /// The device tells files apart by where their names are kept, and may have one twice.
    void Add(const Leak& leak) {
        for (Leak& known : m_hunt.leaks) {
            if (known.file == leak.file && known.line == leak.line) {
                known.count += leak.count;
                known.bytes += leak.bytes;
                return;
            }
        }
        m_hunt.leaks.push_back(leak);
    }

    const Options& m_options;
    tools::Console* m_pConsole;
    Hunt m_hunt;
    Clock::time_point m_began;
    long long m_heapBefore = 0;
    bool m_bPools = false;
    std::string m_problem;
};

/// For so long, or until somebody at the terminal has pressed Enter.
void WaitForTheDevice(const Options& options) {
    const bool bTerminal = isatty(STDIN_FILENO) && isatty(STDERR_FILENO);
    if (options.forMs < 0) {
        std::cerr << "tqcon: marked; press Enter when the device has done what it is to be watched at" << std::endl;
    } else if (bTerminal) {
        std::cerr << "tqcon: marked; waiting, Enter ends it early" << std::endl;
    }
    struct pollfd enter = {bTerminal || options.forMs < 0 ? STDIN_FILENO : -1, POLLIN, 0};
    poll(&enter, 1, options.forMs);
}

Result Write(const Options& options, const Hunt& hunt) {
    if (options.format == Format::JsonLines) {
        std::cout << LeaksJson(hunt) << std::flush;
    } else if (options.format == Format::Plain) {
        std::cout << LeaksText(hunt) << std::flush;
    }
    if (options.pprofFile.empty()) {
        return Result::Ok;
    }
    std::ofstream file(options.pprofFile, std::ios::binary | std::ios::trunc);
    file << Gzipped(LeaksProfile(hunt)) << std::flush;
    if (!file) {
        std::cerr << "tqcon: cannot write " << options.pprofFile << "\n";
        return Result::CannotTell;
    }
    return Result::Ok;
}

std::string Padded(const std::string& text, size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

} // namespace

Result HuntLeaks(const Options& options, tools::Console* pConsole) {
    Hunter hunter(options, pConsole);
    Result result = hunter.Mark();
    if (result == Result::Ok) {
        WaitForTheDevice(options);
        result = hunter.Look();
    }
    if (result == Result::Ok) {
        return Write(options, hunter.Found());
    }
    if (options.format == Format::JsonLines) {
        std::cout << JsonLine(ErrorJson(result, hunter.Problem()));
    }
    std::cerr << "tqcon: " << hunter.Problem() << "\n";
    return result;
}

std::string LeaksText(const Hunt& hunt) {
    unsigned long long count = 0;
    unsigned long long bytes = 0;
    std::string rows;
    for (const Leak& leak : hunt.leaks) {
        count += leak.count;
        bytes += leak.bytes;
        rows += Padded(std::to_string(leak.count), 9) + Padded(std::to_string(leak.bytes), 12) + "  " + leak.file +
                ":" + std::to_string(leak.line) + "\n";
    }
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%.1f", hunt.seconds);
    std::string text = std::string("Allocated within ") + seconds + " s and still there: " + std::to_string(count) +
                       " blocks, " + std::to_string(bytes) + " bytes\n";
    text += rows.empty() ? "" : "\n   Blocks       Bytes  Allocated at\n" + rows;
    if (hunt.heapChange != 0) {
        text += "\nBlocks that no pool holds, which are not listed: " + std::string(hunt.heapChange > 0 ? "+" : "") +
                std::to_string(hunt.heapChange) + " bytes\n";
    }
    return text;
}

std::string LeaksJson(const Hunt& hunt) {
    Json rows = Json::array();
    for (const Leak& leak : hunt.leaks) {
        rows.push_back({{"file", leak.file}, {"line", leak.line}, {"count", leak.count}, {"bytes", leak.bytes}});
    }
    return JsonLine(
        {{"report", "leaks"}, {"seconds", hunt.seconds}, {"leaks", rows}, {"heap_change", hunt.heapChange}});
}

} // namespace tqcon
