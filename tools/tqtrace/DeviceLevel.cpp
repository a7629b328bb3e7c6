#include "DeviceLevel.h"

#include <sstream>
#include <strings.h>

#include <Password.h>

#include "Level.h"

namespace tqtrace {

namespace {

// Where the columns of the summary stand.
constexpr size_t kLevelColumn = 14;
constexpr size_t kLevelBytes = 8;

constexpr unsigned int kTries = 30;

/// Short: meanwhile nobody answers the device's probes.
constexpr tools::Limits kLimits = {/*connectMs=*/3000, /*silenceMs=*/3000, /*queueMs=*/1000};

std::string WithoutBlanks(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// A level may take more room than its column has: a number of eleven characters, for one.
bool ParseRow(const std::string& line, InstanceRow* pRow) {
    std::istringstream words(line);
    std::string type;
    if (line.size() < kLevelColumn || !(words >> pRow->handle >> type) || type.size() != 5) {
        return false;
    }
    const size_t levelEnd = line.find("  ", kLevelColumn + kLevelBytes);
    const size_t categoryEnd =
        levelEnd == std::string::npos ? levelEnd : line.find("  ", line.find_first_not_of(' ', levelEnd));
    if (categoryEnd == std::string::npos ||
        !ParseLevel(WithoutBlanks(line.substr(kLevelColumn, levelEnd - kLevelColumn)), &pRow->level)) {
        return false;
    }
    pRow->name = WithoutBlanks(line.substr(categoryEnd));
    return true;
}

} // namespace

std::vector<InstanceRow> ParseTraceSummary(const std::string& report) {
    std::vector<InstanceRow> rows;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        InstanceRow row;
        if (ParseRow(line, &row)) {
            rows.push_back(row);
        }
    }
    return rows;
}

DeviceLevel::DeviceLevel(const tools::Address& console, const std::string& passwordFile, int level,
                         std::function<void(const std::string& text)> say)
    : m_address(console), m_passwordFile(passwordFile), m_level(level), m_say(std::move(say)) {}

bool DeviceLevel::LogIn(tools::Console* pConsole, std::string* pProblem) {
    if (pConsole->Connect(m_address) == tools::Result::Ok && pConsole->AsksForPassword()) {
        const auto password = tools::FindPassword(m_passwordFile, pProblem);
        if (!password) {
            *pProblem = pProblem->empty() ? "no password: give --password-file or TQOS_PASSWORD" : *pProblem;
            return false;
        }
        pConsole->LogIn(*password);
    }
    *pProblem = pConsole->Problem();
    return pProblem->empty();
}

bool DeviceLevel::Run(tools::Console* pConsole, const std::string& command, const std::string& instance,
                      InstanceRow* pRow, std::string* pProblem) {
    const tools::Answer answer = pConsole->Run(command);
    if (answer.result != tools::Result::Ok) {
        *pProblem = answer.problem;
        return false;
    }
    for (const InstanceRow& row : ParseTraceSummary(answer.text)) {
        if (strcasecmp(row.name.c_str(), instance.c_str()) == 0) {
            *pRow = row;
            return true;
        }
    }
    *pProblem = "the device has no such trace instance";
    return false;
}

/// @param pOnlyFrom  changes nothing when the level is not this one; null: whatever it is
bool DeviceLevel::Change(const std::string& instance, int level, const int* pOnlyFrom, int* pBefore,
                         std::string* pProblem) {
    tools::Console console(kLimits);
    InstanceRow row;
    if (!LogIn(&console, pProblem) || !Run(&console, "show trace", instance, &row, pProblem)) {
        return false;
    }
    *pBefore = row.level;
    if (pOnlyFrom && row.level != *pOnlyFrom) {
        *pProblem = "somebody has set it to " + LevelName(row.level);
        return false;
    }
    const std::string command = "set trace level " + std::to_string(level) + " " + std::to_string(row.handle);
    if (!Run(&console, command, instance, &row, pProblem)) {
        return false;
    }
    *pProblem = row.level == level ? "" : "the device has it at " + LevelName(row.level);
    return row.level == level;
}

bool DeviceLevel::TrySet(const std::string& instance, std::string* pProblem) {
    int before = 0;
    if (!Change(instance, m_level, nullptr, &before, pProblem)) {
        return false;
    }
    const auto known = m_before.find(instance);
    if (known == m_before.end() || before != m_level) { // what has restarted begins as it is configured
        m_before[instance] = before;
    }
    m_say("the level of " + instance + " is " + LevelName(m_level) + ", was " + LevelName(before));
    return true;
}

void DeviceLevel::Set(const std::string& instance) {
    std::string problem;
    m_pending.erase(instance);
    if (!TrySet(instance, &problem)) {
        m_pending[instance] = kTries; // a device that starts announces itself before it has its console
        m_say("the level of " + instance + " is not set yet: " + problem);
    }
}

void DeviceLevel::TryAgain() {
    for (auto pending = m_pending.begin(); pending != m_pending.end();) {
        std::string problem;
        const bool bSet = TrySet(pending->first, &problem);
        if (!bSet && --pending->second == 0) {
            m_say("the level of " + pending->first + " could not be set: " + problem);
        }
        pending = bSet || pending->second == 0 ? m_pending.erase(pending) : std::next(pending);
    }
}

void DeviceLevel::PutBack() {
    for (const auto& [instance, before] : m_before) {
        int found = 0;
        std::string problem;
        if (before == m_level) {
            continue;
        }
        if (Change(instance, before, &m_level, &found, &problem)) {
            m_say("the level of " + instance + " is " + LevelName(before) + " again");
        } else {
            m_say("the level of " + instance + " could not be put back to " + LevelName(before) + ": " + problem);
        }
    }
    m_before.clear();
}

} // namespace tqtrace
