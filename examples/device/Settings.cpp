#include "Settings.h"

#include <algorithm>

#include <tqos.h>

#include "History.h"

namespace {

constexpr char kFile[] = "tqos.ini";
constexpr char kSection[] = "Device";

unsigned int ReadNumber(const char* pszKey, int defaultValue, int least, int most) {
    return static_cast<unsigned int>(std::clamp(tq_GetINIFileInt(kSection, pszKey, defaultValue, kFile), least, most));
}

} // namespace

Settings ReadSettings() {
    Settings settings = {};
    settings.port = ReadNumber("Port", 0, 0, 65535);
    settings.statusPort = ReadNumber("StatusPort", 5005, 0, 65535);
    settings.samplePeriodMs = ReadNumber("SamplePeriodMs", 1000, 10, 3600000);
    settings.historyDepth = ReadNumber("HistoryDepth", 600, 1, kMaxHistory);
    tq_GetINIFileString(kSection, "SocketPath", "device.sock", settings.socketPath, sizeof(settings.socketPath), kFile);
    return settings;
}
