#include "Reports.h"

#include <ctype.h>
#include <map>
#include <regex>
#include <stdlib.h>
#include <vector>

namespace tqcon {

namespace {

std::string WithoutBlanks(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

Json TextValue(const Column& column, const std::string& text) {
    const std::string trimmed = WithoutBlanks(text);
    for (const Word* pWord = column.pWords; pWord && pWord->pszLetter; ++pWord) {
        if (trimmed == pWord->pszLetter) {
            return pWord->pszWord;
        }
    }
    return trimmed == "(unnamed)" ? Json() : Json(trimmed);
}

/// "2@5, 4@4, 0@0": pairs of which the last ones may stand for nothing.
Json SizesValue(const std::string& text) {
    static const std::regex kPair(R"((\d+)@(\d+))");
    Json sizes = Json::array();
    for (std::sregex_iterator pair(text.begin(), text.end(), kPair), end; pair != end; ++pair) {
        const unsigned long lists = strtoul(pair->str(1).c_str(), nullptr, 10);
        if (lists > 0) {
            sizes.push_back({{"lists", lists}, {"nodes", strtoul(pair->str(2).c_str(), nullptr, 10)}});
        }
    }
    return sizes;
}

Json ValueOf(const Column& column, const std::string& text) {
    switch (column.kind) {
    case Kind::Number:
        return strtoull(text.c_str(), nullptr, 10);
    case Kind::Signed:
        return strtoll(text.c_str(), nullptr, 10);
    case Kind::Real:
        return strtod(text.c_str(), nullptr);
    case Kind::Flag:
        return !text.empty();
    case Kind::Sizes:
        return SizesValue(text);
    case Kind::Hex:
    case Kind::Text:
        break;
    }
    return TextValue(column, text);
}

void AddColumns(const Rule& rule, const std::smatch& match, Json* pObject) {
    size_t bracket = 0;
    for (const Column& column : rule.columns) {
        if (!column.pszKey) {
            return;
        }
        (*pObject)[column.pszKey] = ValueOf(column, match.str(++bracket));
    }
}

/// "Data To Send" as a key.
std::string KeyOf(const std::string& label) {
    std::string key;
    for (const char character : WithoutBlanks(label)) {
        if (isalnum(static_cast<unsigned char>(character))) {
            key += static_cast<char>(tolower(static_cast<unsigned char>(character)));
        } else if (character == ' ') {
            key += '_';
        }
    }
    return key;
}

/// What a label says: a number, one of bytes, yes or no, or a text.
Json PairValue(const std::string& text) {
    static const std::regex kNumber(R"((\d+)(?: bytes)?)");
    const std::string trimmed = WithoutBlanks(text);
    std::smatch match;
    if (trimmed.size() < 20 && std::regex_match(trimmed, match, kNumber)) {
        return strtoull(match.str(1).c_str(), nullptr, 10);
    }
    if (trimmed == "Yes" || trimmed == "No") {
        return trimmed == "Yes";
    }
    return trimmed == "(unnamed)" || trimmed == "(not specified)" ? Json() : Json(trimmed);
}

/// The patterns of a report's rules, made once.
const std::vector<std::regex>& PatternsOf(const Rule* pRules) {
    static std::map<const Rule*, std::vector<std::regex>> made;
    std::vector<std::regex>& patterns = made[pRules];
    if (patterns.empty()) {
        for (const Rule* pRule = pRules; pRule->pszPattern; ++pRule) {
            patterns.emplace_back(pRule->pszPattern);
        }
    }
    return patterns;
}

class Reader {
public:
    explicit Reader(const Report& report) : m_report(report), m_patterns(PatternsOf(report.pRules)) {
        if (report.pszTable) {
            m_result[report.pszTable] = Json::array();
        }
    }

    void Take(const std::string& line) {
        size_t number = 0;
        for (const Rule* pRule = m_report.pRules; pRule->pszPattern; ++pRule) {
            std::smatch match;
            if (std::regex_match(line, match, m_patterns[number++]) && TakeBy(*pRule, match)) {
                return;
            }
        }
        m_result["notes"].push_back(WithoutBlanks(line));
    }

    Json Result() && { return std::move(m_result); }

private:
    /// False when the line is another rule's after all.
    bool TakeBy(const Rule& rule, const std::smatch& match) {
        switch (rule.place) {
        case Place::Skip:
            break;
        case Place::Record:
            AddColumns(rule, match, &m_result);
            break;
        case Place::Row:
            m_result[rule.pszTable].push_back(m_context.value(rule.pszTable, Json::object()));
            AddColumns(rule, match, &m_result[rule.pszTable].back());
            break;
        case Place::Continue:
            return Continue(rule, match);
        case Place::Context:
            AddColumns(rule, match, &m_context[rule.pszTable]);
            break;
        case Place::Pair:
            m_result[KeyOf(match.str(1))] = PairValue(match.str(2));
            break;
        }
        return true;
    }

    bool Continue(const Rule& rule, const std::smatch& match) {
        const auto table = m_result.find(rule.pszTable);
        if (table == m_result.end() || table->empty() || table->back().contains(rule.columns[0].pszKey)) {
            return false;
        }
        AddColumns(rule, match, &table->back());
        return true;
    }

    const Report& m_report;
    const std::vector<std::regex>& m_patterns;
    Json m_result = Json::object();
    Json m_context = Json::object(); // by table
};

/// Lines that only look well.
bool IsRule(const std::string& line) {
    return line.find_first_not_of("- ") == std::string::npos;
}

} // namespace

const Report* FindReport(const Command& command) {
    for (const Report* pReport = kReports; pReport->pszName; ++pReport) {
        if (command.name == pReport->pszCommand && (pReport->detail < 0 || (pReport->detail == 1) == command.bDetail)) {
            return pReport;
        }
    }
    return nullptr;
}

const TableKeys* KeysOf(const std::string& table) {
    for (const TableKeys* pKeys = kTableKeys; pKeys->pszTable; ++pKeys) {
        if (table == pKeys->pszTable) {
            return pKeys;
        }
    }
    return nullptr;
}

Json ParseReport(const Report& report, const std::string& text) {
    Reader reader(report);
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        // A prompt that stands inside a report belongs to no line of it.
        at += text[at] == '>' ? 1 : 0;
        const std::string line = text.substr(at, end - std::min(at, end));
        if (!IsRule(line)) {
            reader.Take(line);
        }
        at = end + 1;
    }
    return std::move(reader).Result();
}

} // namespace tqcon
