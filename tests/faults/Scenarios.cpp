// The table of scenarios.
#include "Scenario.h"

namespace faults {

namespace {

constexpr char kCountedTwice[] = "a block whose resizing fails is counted out, and once more when it is freed";
constexpr char kLostTimer[] = "a due timer for whose message there is no memory is dropped as it is, with its name";
constexpr long kBelow = -1;
constexpr Exception kNone = {kBlocks, 0, nullptr};

} // namespace

const Scenario kScenarios[] = {
    {"MemoryBlocks", MemoryBlocks, "", false, "null", {kNone}},
    {"MemoryGrowth",
     MemoryGrowth,
     "",
     false,
     "null; the old block stays whole",
     {{kTrackedBytes, kBelow, kCountedTwice}}},
    {"MemoryReports",
     MemoryReports,
     "EnableHistogram=yes\nHistogramMaxSize=2000\n",
     false,
     "a row or a response is missing",
     {kNone}},
    {"Settings", Settings, "", false, "the default; 0", {kNone}},
    {"Files", Files, "", false, "0, false, (void*)-1", {kNone}},
    {"ErrorLog", ErrorLog, "", false, "a line is missing", {kNone}},
    {"Handles", Handles, "", false, "0", {kNone}},
    {"Clock", Clock, "", false, "null", {kNone}},
    {"Locks", Locks, "", false, "0 from every wait; a section that locks nothing", {kNone}},
    {"TrackedWaits", TrackedWaits, "", false, "as Locks; a wait that is not listed", {kNone}},
    {"Threads", Threads, "", false, "0; a thread that is not listed", {kNone}},
    {"Lists", Lists, "", false, "a node that is not added", {kNone}},
    {"SortedLists", SortedLists, "", false, "a node that is not added", {kNone}},
    {"Hashes", Hashes, "", false, "0; a node that is not found", {kNone}},
    {"ListReports", ListReports, "", false, "null; a row is missing", {kNone}},
    {"Strings", Strings, "", false, "null; 1 and nothing is changed", {kNone}},
    {"StringEscapes", StringEscapes, "", false, "1 and nothing is changed", {kNone}},
    {"Compression", Compression, "", false, "null and 0", {{kTrackedBytes, kBelow, kCountedTwice}}},
    {"Processes", Processes, "", false, "-1; null", {kNone}},
    {"QueueMessages", QueueMessages, "", false, "false, and the message stays the sender's", {kNone}},
    {"QueueReplacing", QueueReplacing, "", false, "false, null, 0; a copy that is not sent", {kNone}},
    {"QueueReports", QueueReports, "", false, "null; a response is missing", {kNone}},
    {"Timers",
     Timers,
     "",
     false,
     "1; a timer whose message cannot be made ends",
     {{kBlocks, 6, kLostTimer}, {kTrackedBytes, 300, kLostTimer}}},
    {"TimerReports", TimerReports, "", false, "1; null", {kNone}},
    {"TraceInstances", TraceInstances, "", false, "0, 1, null", {kNone}},
    {"TraceFiles", TraceFiles, "", false, "1; a line is missing", {kNone}},
    {"TraceDumps", TraceDumps, "", false, "1; a line is missing", {kNone}},
    {"StartAndStop", StartAndStop, "", true, "the code of the step that failed", {kNone}},
    {"StartEverything", StartEverything, "", true, "as the calls say", {kNone}},
    {"ManyOfEach", ManyOfEach, "", true, "as the calls say", {kNone}},
    {"TcpConversation", TcpConversation, "", false, "0, or MSG_SOCKET_CLOSED", {kNone}},
    {"TcpFlood", TcpFlood, "", false, "0, or MSG_SOCKET_CLOSED", {kNone}},
    {"Datagrams", Datagrams, "", false, "0; a datagram that is lost", {kNone}},
    {"LocalDomain", LocalDomain, "", false, "0, or MSG_SOCKET_CLOSED", {kNone}},
    {"SocketReports", SocketReports, "", false, "null, -1", {kNone}},
    {"Interfaces", Interfaces, "", false, "null, -1; an interface is missing", {kNone}},
    {"HostNames", HostNames, "", false, "0, or the system's error", {kNone}},
    {"NetworkTrace", NetworkTrace, "", false, "1", {kNone}},
    {"ConsoleSession", ConsoleSession, "", false, "0, or a session that ends", {kNone}},
    {"ConsoleReports", ConsoleReports, "", false, "0, or a session that ends", {kNone}},
};
const size_t kScenarioCount = sizeof(kScenarios) / sizeof(kScenarios[0]);

} // namespace faults
