// tqtrace: shows what devices trace, from the network and from files. See docs/tqtrace.md.
#include <fstream>
#include <iostream>
#include <poll.h>
#include <set>
#include <sstream>
#include <stdio.h>
#include <string.h>

#include <nlohmann/json.hpp>

#include "Follow.h"
#include "Merge.h"
#include "Options.h"
#include "Output.h"

namespace {

using namespace tqtrace;

constexpr int kDone = 0;
constexpr int kNothing = 1;
constexpr int kTrouble = 2;

constexpr unsigned int kListSeconds = 11; // announcements come every ten

int Fail(const std::string& problem) {
    std::cerr << "tqtrace: " << problem << "\n";
    return kTrouble;
}

// list

std::string ListRow(const Announcement& found, bool bJson) {
    if (bJson) {
        const nlohmann::ordered_json object = {
            {"name", found.name},          {"instance", found.instance}, {"address", found.endpoint.Address()},
            {"port", found.endpoint.port}, {"mac", found.mac},           {"version", found.version}};
        return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    }
    char row[400];
    snprintf(row, sizeof(row), "%-32s  %-15s  %5u  %-17s  %s\n", found.name.c_str(), found.endpoint.Address().c_str(),
             static_cast<unsigned int>(found.endpoint.port), found.mac.c_str(), found.version.c_str());
    return Printable(row);
}

int RunList(const Options& options) {
    Listener listener;
    std::string problem;
    if (!listener.Open(options.group, &problem)) {
        return Fail(problem);
    }
    std::set<std::string> seen;
    const auto end = Clock::now() + std::chrono::seconds(options.seconds != 0 ? options.seconds : kListSeconds);
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        struct pollfd wait = {listener.Fd(), POLLIN, 0};
        poll(&wait, 1, static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count()) + 1);
        Announcement found;
        while (listener.Next(&found)) {
            if (seen.empty() && !options.bJson) {
                printf("%-32s  %-15s  %5s  %-17s  %s\n", "name", "address", "port", "mac", "version");
            }
            if (seen.insert(found.name + "@" + found.endpoint.Text()).second) {
                fputs(ListRow(found, options.bJson).c_str(), stdout);
                fflush(stdout);
            }
        }
    }
    return seen.empty() ? kNothing : kDone;
}

// follow

int RunFollow(const Options& options) {
    Follow follow(options);
    std::string problem;
    return follow.Run(&problem) ? kDone : Fail(problem);
}

// read

bool ReadAll(const std::string& path, std::string* pContent, std::string* pProblem) {
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
    }
    std::istream& stream = path == "-" ? std::cin : file;
    std::ostringstream content;
    if (stream.peek() != std::istream::traits_type::eof()) {
        content << stream.rdbuf();
    }
    *pContent = content.str();
    if (path != "-" && (!file.is_open() || file.bad())) {
        *pProblem = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

int RunRead(const Options& options) {
    std::vector<SourceRecords> sources;
    int status = kDone;
    for (const std::string& path : options.names) {
        std::string content;
        std::string problem;
        if (!ReadAll(path, &content, &problem)) {
            status = Fail(problem);
            continue;
        }
        sources.push_back({path, ParseFile(content)});
    }
    Output output;
    std::string problem;
    if (!options.outputPath.empty() && !output.Open(options.outputPath, options.maxBytes, options.maxFiles, &problem)) {
        return Fail(problem);
    }
    for (const MergedRecord& merged : MergeByTime(sources, options.bDeltas)) {
        if (options.filter.Passes(*merged.pRecord)) {
            output.Write(options.bJson ? JsonLine(*merged.pRecord, *merged.pSource, "", false)
                                       : TextLine(*merged.pRecord, sources.size() > 1 ? *merged.pSource : ""));
        }
    }
    output.Flush();
    return output.HasFailed() ? Fail("the output could not be written") : status;
}

struct CommandRow {
    const char* pszName;
    int (*run)(const Options& options);
};

constexpr CommandRow kCommands[] = {{"list", RunList}, {"follow", RunFollow}, {"read", RunRead}};

} // namespace

int main(int argc, char** argv) {
    Options options;
    std::string problem;
    if (!ParseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &problem)) {
        std::cerr << "tqtrace: " << problem << "\n" << kUsage;
        return kTrouble;
    }
    for (const CommandRow& row : kCommands) {
        if (options.command == row.pszName) {
            return row.run(options);
        }
    }
    std::cout << kUsage;
    return kDone;
}
