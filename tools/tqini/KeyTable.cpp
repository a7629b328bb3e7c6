#include "KeyTable.h"

#include <algorithm>
#include <ctype.h>
#include <string.h>
#include <strings.h>

namespace tqini {

namespace {

constexpr char kName[] = "NAME"; // of a trace instance, at the start of a key
constexpr char kPool[] = "Pool"; // its number follows, as an "N" in the table
constexpr unsigned int kMostPools = 100;

constexpr unsigned int kShort = 11; // characters of a number or a switch that count
constexpr unsigned int kLine = 511; // a value is part of a line

constexpr char kYesNo[] = "yes or no";
constexpr char kLevel[] = "level";
constexpr char kLevels[] = "All, Low, Debug, Informational, Warning, Severe, Critical, None, or a number from 0 (All) "
                           "over 5000 (Low), 10000, 20000, 30000, 40000 to 50000 (Critical); -N passes level N alone.";

const std::vector<KeyRow> kTable = {
    {"Memory", "EnableMemoryTracking", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Each block has a header and check bytes, and remembers the source line that asked for it. Overruns, double frees "
     "and mismatched frees are reported, and the console counts what is in use."},
    {"Memory", "EnableMemoryPooling", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Blocks come from pools of slots of fixed sizes. Together with EnableMemoryTracking, the console can mark what is "
     "in use and list leaks."},
    {"Memory", "DirtyMemoryAlloc", Kind::Number, "256", nullptr, "byte value", kShort, nullptr,
     "Fills every new block, so that memory that is read before it was written is noticed; 256 or more: no fill."},
    {"Memory", "DirtyMemoryFree", Kind::Number, "256", nullptr, "byte value", kShort, nullptr,
     "Fills a block that is freed, while memory is tracked; 256 or more: no fill."},
    {"Memory", "MemoryAlignment", Kind::Number, "0", nullptr, "bytes", kShort, nullptr,
     "New blocks of the heap start at a multiple of it; 0: as the heap has it. Above 128 it is replaced by 4."},
    {"Memory", "MemoryAlignmentCheck", Kind::Switch, "no", nullptr, kYesNo, kShort, "MemoryAlignment",
     "Looks for damage in front of an aligned block when it is freed."},
    {"Memory", "MemoryCapInBytes", Kind::Number, "0", nullptr, "bytes", kShort, "EnableMemoryTracking",
     "Refuses what would bring the bytes in use above it; 0: no cap."},
    {"Memory", "EnableHistogram", Kind::Switch, "no", nullptr, kYesNo, kShort, "EnableMemoryTracking",
     "Counts live blocks by size, for the console's histogram."},
    {"Memory", "HistogramMaxSize", Kind::Number, "512000", nullptr, "bytes", kShort, "EnableHistogram",
     "The largest block that is counted; the histogram takes 8 bytes for each size up to it."},
    {"Memory", "DoNotGrowPools", Kind::Switch, "no", nullptr, kYesNo, kShort, "EnableMemoryPooling",
     "A pool whose slots are used up refuses requests instead of growing."},
    {"Memory", "PoolNBlockSize", Kind::Number, "0", nullptr, "bytes", kShort, "EnableMemoryPooling",
     "Slot size of pool N, from 1 up to 100; the first number without one ends the list. Without pools of the file's "
     "own there are five: 32, 128, 512, 1024 and 4096 bytes."},
    {"Memory", "PoolNStartCount", Kind::Number, "0", nullptr, "slots", kShort, "EnableMemoryPooling",
     "Slots that pool N has from the start."},
    {"Memory", "PoolNIncrement", Kind::Number, "10", nullptr, "slots", kShort, "EnableMemoryPooling",
     "Slots that pool N grows by. The default is 10 for slots of up to 512 bytes, 5 up to 1024, 3 up to 4096, 2 up to "
     "8192, and 1 above."},

    {"Sem", "Tracking", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Each wait for a lock, an event or a time is listed by the console with its thread and the source line that "
     "waits."},
    {"Sem", "UseMutexForCritSec", Kind::Switch, "yes", nullptr, kYesNo, kShort, nullptr,
     "Critical sections are built on the library's mutexes, which are re-entrant and can be tracked; no: on plain ones "
     "of the system."},
    {"Sem", "ForceSchedYield", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Every release of a lock yields the processor, so that races show earlier."},

    {"Thread", "DefaultStackSize", Kind::Number, "0", nullptr, "bytes", kShort, nullptr,
     "Stack of threads that are started with a stack size of 0; 0: the system's default."},

    {"MsgQ", "DefaultStackSize", Kind::Number, "0", nullptr, "bytes", kShort, nullptr,
     "Stack of every queue's worker thread; 0: as [Thread] says."},
    {"MsgQ", "DefaultHistory", Kind::Number, "0", nullptr, "messages", kShort, nullptr,
     "Messages that a new queue remembers for the console; 0: none."},

    {"Handles", "InitialCount", Kind::Number, "100", nullptr, "handles", kShort, nullptr,
     "The numbers 2 to this one exist from the start."},
    {"Handles", "GrowthCount", Kind::Number, "10", nullptr, "handles", kShort, nullptr,
     "Numbers that are added in a step; 0: none ever."},
    {"Handles", "MaxHandle", Kind::Number, "1000000", nullptr, "handle", kShort, nullptr,
     "No number above it is created, also not by a larger InitialCount."},
    {"Handles", "Threshold", Kind::Number, "50", nullptr, "handles", kShort, nullptr,
     "Numbers are added when fewer than this remain free."},

    {"Trace", "DefaultLevel", Kind::Level, "Warning", nullptr, kLevel, kLine, nullptr, kLevels},
    {"Trace", "DefaultCat", Kind::Number, "-1", nullptr, "bits", kShort, nullptr,
     "Categories that pass, one bit each; -1: all."},
    {"Trace", "ShowDeltaTime", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "The milliseconds in front of a line count from the line before it, of whatever instance."},
    {"Trace", "DefaultSuppressTimestamp", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "No date and time in front of lines."},
    {"Trace", "DefaultShowThreadID", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Each line names its thread, by the library's number and the kernel's."},
    {"Trace", "DefaultLogToSTDOUT", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Lines go to standard output."},
    {"Trace", "DefaultLogToSTDERR", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Lines go to standard error. With no DefaultLevel that is understood, and no other default destination, they go "
     "there in any case."},
    {"Trace", "DefaultLogToMultiCast", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Lines go to viewers on the network. Whoever reaches the port can read them: see MaxViewers and AllowedViewers."},
    {"Trace", "DefaultLogToDevStudio", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Accepted and shown by the console; nothing is written."},
    {"Trace", "DefaultLogToFilePrefix", Kind::Text, "", nullptr, "path", 255, nullptr,
     "Lines go to the file of this path with the instance's name and \".log\" behind it; empty: to no file."},
    {"Trace", "DefaultMaxFiles", Kind::Number, "1", nullptr, "files", kShort, nullptr,
     "Log files that follow each other; 0: one, which is begun again."},
    {"Trace", "DefaultMaxBytesPerFile", Kind::Number, "0", nullptr, "bytes", kShort, nullptr,
     "Size at which the next log file is begun; 0: one file that grows."},
    {"Trace", "MaxViewers", Kind::Number, "0", nullptr, "viewers", kShort, nullptr,
     "The most viewers of an instance on the network; 0 and more than 128: 128."},
    {"Trace", "AllowedViewers", Kind::Networks, "", nullptr, "addresses", kLine, nullptr,
     "Addresses (10.0.0.7) and networks (10.0.0.0/8) that viewers are accepted from, with commas or blanks between "
     "them, 32 at most; empty: everybody."},

    {"Trace", "NAME_Level", Kind::Level, "Warning", "DefaultLevel", kLevel, kLine, nullptr,
     "As DefaultLevel. With this key the instance takes none of the default destinations and nothing of the defaults "
     "for files: it names its own."},
    {"Trace", "NAME_Cat", Kind::Number, "-1", "DefaultCat", "bits", kShort, nullptr, "Categories that pass."},
    {"Trace", "NAME_LogToFile", Kind::Text, "", "DefaultLogToFilePrefix", "path", kLine, nullptr,
     "Lines go to this file. A number of four digits is put in front of its last dot when there are several."},
    {"Trace", "NAME_MaxFiles", Kind::Number, "1", "DefaultMaxFiles", "files", kShort, nullptr,
     "Log files that follow each other."},
    {"Trace", "NAME_MaxBytesPerFile", Kind::Number, "0", "DefaultMaxBytesPerFile", "bytes", kShort, nullptr,
     "Size at which the next log file is begun."},
    {"Trace", "NAME_LogToMulticast", Kind::Switch, "no", "DefaultLogToMultiCast", kYesNo, kShort, nullptr,
     "Lines go to viewers on the network."},
    {"Trace", "NAME_LogToDevStudio", Kind::Switch, "no", "DefaultLogToDevStudio", kYesNo, kShort, nullptr,
     "Accepted; nothing is written."},
    {"Trace", "NAME_LogToSTDOUT", Kind::Switch, "no", "DefaultLogToSTDOUT", kYesNo, kShort, nullptr,
     "Lines go to standard output."},
    {"Trace", "NAME_LogToSTDERR", Kind::Switch, "no", "DefaultLogToSTDERR", kYesNo, kShort, nullptr,
     "Lines go to standard error."},
    {"Trace", "NAME_SuppressTimestamp", Kind::Switch, "no", "DefaultSuppressTimestamp", kYesNo, kShort, nullptr,
     "No date and time in front of lines."},
    {"Trace", "NAME_ShowThreadID", Kind::Switch, "no", "DefaultShowThreadID", kYesNo, kShort, nullptr,
     "Each line names its thread."},

    {"ErrorLog", "Filename", Kind::Text, "tqos_error.log", nullptr, "path", kLine, nullptr,
     "Critical errors are appended to this file; empty: to none."},
    {"ErrorLog", "AssertOnCriticalError", Kind::Switch, "yes", nullptr, kYesNo, kShort, nullptr,
     "Kept for tools; nothing in the library acts on it."},

    {"SignalHandler", "Disable", Kind::Switch, "no", nullptr, kYesNo, kShort, nullptr,
     "Leaves SIGILL, SIGSEGV, SIGABRT, SIGFPE, SIGBUS and SIGCHLD to the application: no crash report."},

    {"Telnet", "MaxSessions", Kind::Number, "0", nullptr, "sessions", kShort, nullptr,
     "A connection to the console beyond so many is closed at once; 0: no limit."},
    {"Telnet", "LoginSeconds", Kind::Number, "0", nullptr, "seconds", kShort, nullptr,
     "A session that has not logged in by then is closed; 0: any time."},
    {"Telnet", "BackOffSeconds", Kind::Number, "0", nullptr, "seconds", kShort, nullptr,
     "After three failed logins from an address nobody from there may connect or log in for so long; 0: off."},
};

/// The place of the "N" of a key like "PoolNBlockSize"; npos in any other.
size_t PlaceOfNumber(const std::string& key) {
    const size_t place = strlen(kPool);
    return key.size() > place && key.compare(0, place, kPool) == 0 && key[place] == 'N' ? place : std::string::npos;
}

bool StartsWithName(const std::string& key) {
    return key.compare(0, strlen(kName), kName) == 0;
}

bool IsPoolNumber(const std::string& digits) {
    const bool bDigits = !digits.empty() && digits.size() <= 3 && digits[0] != '0' &&
                         digits.find_first_not_of("0123456789") == std::string::npos;
    return bDigits && std::stoul(digits) <= kMostPools;
}

/// What stands in `key` between the two ends of a row's; npos-like empty when it is no such key.
bool CutOut(const std::string& key, const std::string& head, const std::string& tail, std::string* pMiddle) {
    if (key.size() <= head.size() + tail.size() || !SameText(key.substr(0, head.size()), head) ||
        !SameText(key.substr(key.size() - tail.size()), tail)) {
        return false;
    }
    *pMiddle = key.substr(head.size(), key.size() - head.size() - tail.size());
    return true;
}

bool Fits(const KeyRow& row, const std::string& key, std::string* pStem) {
    const std::string text = row.pszKey;
    if (StartsWithName(text)) {
        return CutOut(key, "", text.substr(strlen(kName)), pStem);
    }
    const size_t number = PlaceOfNumber(text);
    if (number != std::string::npos) {
        return CutOut(key, text.substr(0, number), text.substr(number + 1), pStem) && IsPoolNumber(*pStem);
    }
    return SameText(text, key);
}

} // namespace

const std::vector<KeyRow>& KeyTable() {
    return kTable;
}

std::vector<std::string> Sections() {
    std::vector<std::string> sections;
    for (const KeyRow& row : kTable) {
        if (sections.empty() || sections.back() != row.pszSection) {
            sections.emplace_back(row.pszSection);
        }
    }
    return sections;
}

KnownKey FindKeyRow(const std::string& section, const std::string& key) {
    for (const KeyRow& row : kTable) { // plain keys stand before those with a name in them
        std::string stem;
        if (SameText(section, row.pszSection) && Fits(row, key, &stem)) {
            return {&row, stem};
        }
    }
    return {};
}

std::string KeyText(const KeyRow& row, const std::string& stem) {
    const std::string text = row.pszKey;
    if (StartsWithName(text)) {
        return stem + text.substr(strlen(kName));
    }
    const size_t number = PlaceOfNumber(text);
    return number == std::string::npos ? text : text.substr(0, number) + stem + text.substr(number + 1);
}

std::string SectionText(const std::string& section) {
    for (const KeyRow& row : kTable) {
        if (SameText(section, row.pszSection)) {
            return row.pszSection;
        }
    }
    return "";
}

bool SameText(const std::string& one, const std::string& other) {
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(tolower(letter)); });
    return text;
}

} // namespace tqini
