// tqini: looks after tqos.ini files. See docs/ini.md.
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Check.h"
#include "Template.h"

namespace {

constexpr int kClean = 0;
constexpr int kFindings = 1;
constexpr int kTrouble = 2;

constexpr char kUsage[] = R"(usage: tqini check [--own SECTION[:KEY]]... [--json] FILE...
       tqini template [--markdown]

check     finds what the library would not see in a tqos.ini, or would take for something else. Status: 0 nothing,
          1 findings, 2 a file cannot be read
  --own   a section of the application's own, or a key of its own in a section of the library's
  --json  as one array of objects
template  prints every key with its default, unit and meaning
  --markdown  as a page
)";

struct CheckOptions {
    tqini::OwnNames own;
    bool bJson = false;
    std::vector<std::string> files;
};

bool ParseCheck(const std::vector<std::string>& words, CheckOptions* pOptions) {
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--json") {
            pOptions->bJson = true;
        } else if (words[i] == "--own" && i + 1 < words.size()) {
            pOptions->own.push_back(words[++i]);
        } else if (words[i].compare(0, 2, "--") != 0) {
            pOptions->files.push_back(words[i]);
        } else {
            return false;
        }
    }
    return !pOptions->files.empty();
}

void Print(const std::string& file, const tqini::Finding& finding) {
    std::cout << file << ":" << finding.line << ": " << finding.message;
    if (!finding.suggestion.empty()) {
        std::cout << "; did you mean " << finding.suggestion << "?";
    }
    std::cout << "\n";
}

nlohmann::ordered_json ToJson(const std::string& file, const tqini::Finding& finding) {
    nlohmann::ordered_json object = {{"file", file},         {"line", finding.line},
                                     {"kind", finding.kind}, {"section", finding.section},
                                     {"key", finding.key},   {"message", finding.message}};
    if (!finding.suggestion.empty()) {
        object["suggestion"] = finding.suggestion;
    }
    return object;
}

int RunCheck(const std::vector<std::string>& words) {
    CheckOptions options;
    if (!ParseCheck(words, &options)) {
        std::cerr << kUsage;
        return kTrouble;
    }
    int status = kClean;
    nlohmann::ordered_json objects = nlohmann::ordered_json::array();
    for (const std::string& file : options.files) {
        std::vector<tqini::Finding> findings;
        std::string reason;
        if (!tqini::CheckFile(file, options.own, &findings, &reason)) {
            std::cerr << "tqini: " << file << ": " << reason << "\n";
            status = kTrouble;
            continue;
        }
        for (const tqini::Finding& finding : findings) {
            if (options.bJson) {
                objects.push_back(ToJson(file, finding));
            } else {
                Print(file, finding);
            }
        }
        status = findings.empty() || status == kTrouble ? status : kFindings;
    }
    if (options.bJson) { // bytes that are no UTF-8 are in files, too
        std::cout << objects.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    }
    return status;
}

int RunTemplate(const std::vector<std::string>& words) {
    if (words.empty()) {
        std::cout << tqini::IniTemplate();
        return kClean;
    }
    if (words == std::vector<std::string>{"--markdown"}) {
        std::cout << tqini::MarkdownPage();
        return kClean;
    }
    std::cerr << kUsage;
    return kTrouble;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string command = words.empty() ? "" : words[0];
    const std::vector<std::string> rest(words.begin() + (words.empty() ? 0 : 1), words.end());
    if (command == "check") {
        return RunCheck(rest);
    }
    if (command == "template") {
        return RunTemplate(rest);
    }
    const bool bHelp = command == "--help" || command == "-h";
    (bHelp ? std::cout : std::cerr) << kUsage;
    return bHelp ? kClean : kTrouble;
}
