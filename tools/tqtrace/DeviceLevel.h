/// @file DeviceLevel.h
/// Levels of a device's trace instances, set through its console and put back at the end.
#ifndef TQTRACE_DEVICE_LEVEL_H
#define TQTRACE_DEVICE_LEVEL_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <Console.h>

namespace tqtrace {

/// A row of the console's summary of trace instances.
struct InstanceRow {
    unsigned int handle = 0;
    int level = 0;
    std::string name;
};

/// The rows of the summary.
std::vector<InstanceRow> ParseTraceSummary(const std::string& report);

class DeviceLevel {
public:
    /// @param say  is told in words what was done, and what could not be
    DeviceLevel(const tools::Address& console, const std::string& passwordFile, int level,
                std::function<void(const std::string& text)> say);

    /// Sets the instance's level, also anew when it has restarted. A console that is not there yet is tried again.
    void Set(const std::string& instance);
    /// Now and then.
    void TryAgain();
    /// Puts all levels back that are still as they were set here.
    void PutBack();

private:
    bool TrySet(const std::string& instance, std::string* pProblem);
    bool LogIn(tools::Console* pConsole, std::string* pProblem);
    /// Runs a command that answers with the summary, and finds the instance's row.
    bool Run(tools::Console* pConsole, const std::string& command, const std::string& instance, InstanceRow* pRow,
             std::string* pProblem);
    bool Change(const std::string& instance, int level, const int* pOnlyFrom, int* pBefore, std::string* pProblem);

    tools::Address m_address;
    std::string m_passwordFile;
    int m_level;
    std::function<void(const std::string& text)> m_say;
    std::map<std::string, int> m_before;           ///< by instance: the level that it had
    std::map<std::string, unsigned int> m_pending; ///< by instance: how often it is tried again
};

} // namespace tqtrace

#endif // TQTRACE_DEVICE_LEVEL_H
