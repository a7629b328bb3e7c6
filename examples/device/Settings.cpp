#include "Settings.h"

#include <algorithm>

#include <tqos.h>

#include "History.h"

namespace {

constexpr char kFile[] = "tqos.ini";
constexpr char kDevice[] = "Device";
constexpr char kTelnet[] = "Telnet";

unsigned int ReadNumber(const char* pszSection, const char* pszKey, int defaultValue, int least, int most) {
    return static_cast<unsigned int>(
        std::clamp(tq_GetINIFileInt(pszSection, pszKey, defaultValue, kFile), least, most));
}

} // namespace

Settings ReadSettings() {
    Settings settings = {};
    settings.port = ReadNumber(kDevice, "Port", 0, 0, 65535);
    settings.statusPort = ReadNumber(kDevice, "StatusPort", 5005, 0, 65535);
    settings.samplePeriodMs = ReadNumber(kDevice, "SamplePeriodMs", 1000, kLeastPeriodMs, kMostPeriodMs);
    settings.historyDepth = ReadNumber(kDevice, "HistoryDepth", 600, 1, kMaxHistory);
    tq_GetINIFileString(kDevice, "SocketPath", "device.sock", settings.socketPath, sizeof(settings.socketPath), kFile);
    settings.consolePort = ReadNumber(kTelnet, "Port", 0, 0, 65535);
    tq_GetINIFileString(kTelnet, "Password", "", settings.consolePassword, sizeof(settings.consolePassword), kFile);
    return settings;
}
