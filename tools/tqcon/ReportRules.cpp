// The rules of each report. A column of a table has a least width and no greatest one, and names have blanks: where two
// texts stand side by side the end of the line says which of them is the long one.
#include "Reports.h"

namespace tqcon {

namespace {

constexpr Word kSocketTypes[] = {{"T", "TCP"}, {"U", "UDP"}, {nullptr, nullptr}};
constexpr Word kSocketStates[] = {{"B", "breaker"},   {"L", "listening"}, {"T", "connecting"},
                                  {"C", "connected"}, {"X", "closed"},    {nullptr, nullptr}};
constexpr Word kPriorities[] = {{"H", "high"}, {"N", "normal"}, {"L", "low"}, {nullptr, nullptr}};
constexpr Word kRepeats[] = {{"Y", "repeating"}, {"N", "one-shot"}, {nullptr, nullptr}};

// clang-format off

constexpr Rule kQueues[] = {
    { R"(QueueId +Depth .*)", Place::Skip, "queues", {} },
    // The description is padded, so the name may be long; or it is long itself; or both are.
    { R"((\d+) {0,7} (\d+) {0,4} (\d+) {0,9} (.{20,}) (.{29} ))", Place::Row, "queues",
      { {"id", Kind::Number}, {"depth", Kind::Number}, {"thread", Kind::Number}, {"name", Kind::Text},
        {"description", Kind::Text} } },
    { R"((\d+) {0,7} (\d+) {0,4} (\d+) {0,9} (.{20,}?) (.{30,}))", Place::Row, "queues",
      { {"id", Kind::Number}, {"depth", Kind::Number}, {"thread", Kind::Number}, {"name", Kind::Text},
        {"description", Kind::Text} } },
    {},
};

constexpr Rule kQueue[] = {
    { R"(Historical queue commands.*)", Place::Skip, "history", {} },
    { R"((High|Medium|Low) Priority Message Queue Details\.\.\.)", Place::Context, "messages",
      { {"priority", Kind::Text} } },
    { R"(No (?:High|Medium|Low) Priority Messages enqueued\.)", Place::Skip, "messages", {} },
    { R"( hSource: (\d+))", Place::Row, "messages", { {"source", Kind::Number} } },
    { R"(  hDest:   (\d+))", Place::Continue, "messages", { {"destination", Kind::Number} } },
    { R"(  size:    (\d+))", Place::Continue, "messages", { {"size", Kind::Number} } },
    { R"(  command:  (.*))", Place::Continue, "messages", { {"command", Kind::Text} } },
    { R"(  command:  (.*))", Place::Row, "history", { {"command", Kind::Text} } },
    { R"(  instance: (\d+))", Place::Continue, "messages", { {"instance", Kind::Number} } },
    { R"(  userparm: (\d+))", Place::Continue, "messages", { {"userparm", Kind::Number} } },
    { R"(  flags:    (\d+))", Place::Continue, "messages", { {"flags", Kind::Number} } },
    {},
};

constexpr Rule kSockets[] = {
    { R"( +[ST] = (?:Status|Type) where:.*)", Place::Skip, "sockets", {} },
    { R"(Handle T S .*)", Place::Skip, "sockets", {} },
    { R"((\d+) +([TU?]) +([BLTCX?]) +(\S+) +(\S+) +(.*))", Place::Row, "sockets",
      { {"handle", Kind::Number}, {"type", Kind::Text, kSocketTypes}, {"state", Kind::Text, kSocketStates},
        {"source", Kind::Text}, {"destination", Kind::Text}, {"name", Kind::Text} } },
    { R"(  Socket Name: (.*))", Place::Continue, "sockets", { {"path", Kind::Text} } },
    {},
};

constexpr Rule kSocket[] = {
    { R"( Details for socket handle: (\d+))", Place::Record, nullptr, { {"handle", Kind::Number} } },
    { R"( +Socket State History:)", Place::Skip, "history", {} },
    { R"( {5} *(\d+):(\D.*))", Place::Row, "history", { {"ms", Kind::Number}, {"event", Kind::Text} } },
    { R"( *([A-Za-z? ]+): (.*))", Place::Pair, nullptr, {} },
    {},
};

constexpr Rule kInterfaces[] = {
    { R"(Interface (\d+):  ip: (\S+) +MAC: ?(.*))", Place::Row, "interfaces",
      { {"index", Kind::Number}, {"ip", Kind::Text}, {"mac", Kind::Text} } },
    {},
};

constexpr Rule kLists[] = {
    { R"(Index Handle  Node Count/Max .*)", Place::Skip, "lists", {} },
    { R"( *(\d+)\) +(\d+) +(\d+)/(\d+) +(\d+)  (.*))", Place::Row, "lists",
      { {"index", Kind::Number}, {"handle", Kind::Number}, {"count", Kind::Number}, {"most", Kind::Number},
        {"hashes", Kind::Number}, {"name", Kind::Text} } },
    { R"(Total matching Lists: (\d+))", Place::Record, nullptr, { {"total", Kind::Number} } },
    {},
};

constexpr Rule kHashes[] = {
    { R"(For List: (\d+) there (?:is|are) \d+ hash(?:es)? \((\d+) nodes?\))", Place::Record, nullptr,
      { {"list", Kind::Number}, {"nodes", Kind::Number} } },
    { R"(  Hash (\d+) has (\d+) HashValue Lists with:.*)", Place::Row, "hashes",
      { {"hash", Kind::Number}, {"buckets", Kind::Number} } },
    { R"( +Maximum node counts: (.*))", Place::Continue, "hashes", { {"fullest", Kind::Sizes} } },
    { R"( +Minimum node counts: (.*))", Place::Continue, "hashes", { {"emptiest", Kind::Sizes} } },
    {},
};

constexpr Rule kHash[] = {
    { R"(For List: (\d+) and Hash: (\d+))", Place::Record, nullptr,
      { {"list", Kind::Number}, {"hash", Kind::Number} } },
    { R"(  HashValue\[(\d+)\] contains +(\d+) nodes)", Place::Row, "buckets",
      { {"bucket", Kind::Number}, {"nodes", Kind::Number} } },
    {},
};

// What "SHow MEMory" shows depends on its options.
constexpr Rule kMemory[] = {
    { R"(Pool #(\d+) +Block Size: +(\d+) +Initial Count: +(\d+))", Place::Row, "pools",
      { {"pool", Kind::Number}, {"block_size", Kind::Number}, {"initial", Kind::Number} } },
    { R"( +Currently Allocated Nodes: +(\d+) +Pool Increment: +(\d+))", Place::Continue, "pools",
      { {"in_use", Kind::Number}, {"increment", Kind::Number} } },
    { R"( +Available Nodes: +(\d+) +Times Grown: +(\d+))", Place::Continue, "pools",
      { {"available", Kind::Number}, {"grown", Kind::Number} } },
    { R"( +Total Nodes: +(\d+) +Maximum Allocated Nodes: +(\d+))", Place::Continue, "pools",
      { {"total", Kind::Number}, {"most_in_use", Kind::Number} } },
    { R"( *((?:MAX )?Bytes (?:requested|allocated) (?:from the heap|through TQOS)): *(\d+) +([+-]\d+))", Place::Row,
      "totals", { {"name", Kind::Text}, {"bytes", Kind::Number}, {"change", Kind::Signed} } },
    { R"(Pool #(\d+):)", Place::Context, "blocks", { {"pool", Kind::Number} } },
    { R"( *(\d+) bytes ([0-9a-f]+) +(.*): *(\d+))", Place::Row, "blocks",
      { {"bytes", Kind::Number}, {"address", Kind::Hex}, {"file", Kind::Text}, {"line", Kind::Number} } },
    { R"( {8}((?:[0-9a-f]{2} (?:\| )?)*)  -  .*)", Place::Continue, "blocks", { {"content", Kind::Text} } },
    { R"( Detailed tqos memory information:)", Place::Skip, "groups", {} },
    { R"( +Count +Bytes +File +Line *)", Place::Skip, "groups", {} },
    { R"( +(\d+) +(\d+) +(.*\S) +(\d+))", Place::Row, "groups",
      { {"count", Kind::Number}, {"bytes", Kind::Number}, {"file", Kind::Text}, {"line", Kind::Number} } },
    { R"( Summary: +(\d+) allocations +\((\d+) bytes\)\.)", Place::Record, nullptr,
      { {"allocations", Kind::Number}, {"requested_bytes", Kind::Number} } },
    { R"(Summary for tqos Memory Pool: (\d+))", Place::Row, "sums", { {"pool", Kind::Number} } },
    { R"(Summary for (ALL) tqos Memory Pools)", Place::Row, "sums", { {"pool", Kind::Text} } },
    { R"( +Total allocations: +(\d+))", Place::Continue, "sums", { {"allocations", Kind::Number} } },
    { R"( +Total requested bytes: +(\d+))", Place::Continue, "sums", { {"requested_bytes", Kind::Number} } },
    { R"( +Total actual bytes: +(\d+))", Place::Continue, "sums", { {"actual_bytes", Kind::Number} } },
    { R"(Bytes +(?:current  \(maximum\)|Allocations .*))", Place::Skip, "histogram", {} },
    { R"( *-------   (?:    |\|)-+\|?)", Place::Skip, "histogram", {} },
    { R"( *(\d+): +(\d+)  \((\d+)\))", Place::Row, "histogram",
      { {"bytes", Kind::Number}, {"current", Kind::Number}, {"most", Kind::Number} } },
    { R"( *(\d+):  ([*.]*\|) \((\d+)/(\d+)\))", Place::Row, "histogram",
      { {"bytes", Kind::Number}, {"bar", Kind::Text}, {"current", Kind::Number}, {"most", Kind::Number} } },
    { R"( *(\d+):  ([*.]*\|))", Place::Row, "histogram", { {"bytes", Kind::Number}, {"bar", Kind::Text} } },
    { R"(\[Memory\]|  EnableMemoryPooling=Yes)", Place::Skip, "suggested", {} },
    { R"(  Pool(\d+)BlockSize  =(\d+))", Place::Row, "suggested",
      { {"pool", Kind::Number}, {"block_size", Kind::Number} } },
    { R"(  Pool\d+StartCount =(\d+))", Place::Continue, "suggested", { {"start", Kind::Number} } },
    { R"(  Pool\d+Increment  =(\d+))", Place::Continue, "suggested", { {"increment", Kind::Number} } },
    {},
};

constexpr Rule kTicks[] = {
    { R"(  There are (\d+)ms for each clock tick\.)", Place::Record, nullptr, { {"ms", Kind::Number} } },
    {},
};

constexpr Rule kTimers[] = {
    { R"(  MsgQ Inst .*)", Place::Skip, "timers", {} },
    { R"(  (\d+) +(\d+) +(\d+) +(\d+) +([YN]) +(\d+) +(\d+) +(.*))", Place::Row, "timers",
      { {"queue", Kind::Number}, {"instance", Kind::Number}, {"userparm", Kind::Number}, {"flags", Kind::Number},
        {"type", Kind::Text, kRepeats}, {"duration_ms", Kind::Number}, {"remaining_ms", Kind::Number},
        {"name", Kind::Text} } },
    {},
};

constexpr Rule kThreads[] = {
    { R"(Index +ThreadID .*)", Place::Skip, "threads", {} },
    { R"( *(\d+)\) +(\d+)  (\d+) +([HNL?])  (.*))", Place::Row, "threads",
      { {"index", Kind::Number}, {"thread", Kind::Number}, {"pid", Kind::Number},
        {"priority", Kind::Text, kPriorities}, {"name", Kind::Text} } },
    {},
};

constexpr Rule kSemaphores[] = {
    { R"( +Sem +ThreadId .*)", Place::Skip, "waits", {} },
    { R"((0x[0-9a-f]+) +(\d+) +(Waiting|Owned|Unknown) +(\S+) +(\d+) (.*))", Place::Row, "waits",
      { {"lock", Kind::Hex}, {"thread", Kind::Number}, {"state", Kind::Text}, {"type", Kind::Text},
        {"line", Kind::Number}, {"file", Kind::Text} } },
    {},
};

constexpr Rule kHandles[] = {
    { R"(TQOS handles currently available: +(\d+))", Place::Record, nullptr, { {"available", Kind::Number} } },
    { R"(TQOS handles currently in use: +(\d+) \(Max: (\d+)\))", Place::Record, nullptr,
      { {"in_use", Kind::Number}, {"most", Kind::Number} } },
    { R"( +Total: +(\d+))", Place::Record, nullptr, { {"total", Kind::Number} } },
    {},
};

constexpr Rule kTraces[] = {
    { R"(Inst +Type +Level .*)", Place::Skip, "instances", {} },
    { R"( *(\d+)  ([-A-Z]{5})  (.{8,}?)  (   None   |   All    |0x[0-9a-f]{8})  (.*))", Place::Row, "instances",
      { {"instance", Kind::Number}, {"destinations", Kind::Text}, {"level", Kind::Text}, {"categories", Kind::Text},
        {"name", Kind::Text} } },
    {},
};

constexpr Rule kTrace[] = {
    { R"(Trace Instance Details\.\.\.)", Place::Skip, "categories", {} },
    { R"(  Categories:| +\(no categories have been named!\))", Place::Skip, "categories", {} },
    { R"( {5}(0x[0-9a-f]{8}) : (.*))", Place::Row, "categories", { {"bit", Kind::Hex}, {"name", Kind::Text} } },
    { R"(  ([A-Za-z ]+): +(.*))", Place::Pair, nullptr, {} },
    {},
};

constexpr Rule kEndian[] = {
    { R"(System uses (\S+) endian\.)", Place::Record, nullptr, { {"endian", Kind::Text} } },
    { R"( +Original Value=(0x[0-9a-f]+))", Place::Record, nullptr, { {"value", Kind::Hex} } },
    { R"( +Stored as\.\.\.)", Place::Skip, "bytes", {} },
    { R"( +byte\[(\d+)\]:(0x[0-9a-f]+))", Place::Row, "bytes", { {"at", Kind::Number}, {"value", Kind::Hex} } },
    {},
};

constexpr Rule kDirectory[] = {
    { R"(The current working directory is:)", Place::Skip, nullptr, {} },
    { R"(  (.*))", Place::Record, nullptr, { {"directory", Kind::Text} } },
    {},
};

constexpr Rule kUptime[] = {
    { R"(TQOS has been up for:(?: (\d+) days?)?(?: (\d+) hours?)?(?: (\d+) minutes?)? (\d+\.\d+) seconds)",
      Place::Record, nullptr,
      { {"days", Kind::Number}, {"hours", Kind::Number}, {"minutes", Kind::Number}, {"seconds", Kind::Real} } },
    {},
};

constexpr Rule kCurrentTime[] = {
    { R"(Current System milliseond time: (\d+))", Place::Record, nullptr, { {"ms", Kind::Number} } },
    {},
};

constexpr Rule kCheckMemory[] = {
    { R"(Checking Memory\.\.\.)", Place::Skip, "corrupt", {} },
    { R"(Pool #(\d+):)", Place::Context, "corrupt", { {"pool", Kind::Number} } },
    { R"( +No corrupt blocks detected\.)", Place::Skip, "corrupt", {} },
    { R"(  \*-(Head|Tail) Check Corruption in memory block starting at: (0x[0-9a-f]+))", Place::Row, "corrupt",
      { {"where", Kind::Text}, {"address", Kind::Hex} } },
    { R"( +(?:Head|Tail) Check bytes = ((?:0x[0-9a-f]{2} ){4}): .*)", Place::Continue, "corrupt",
      { {"bytes", Kind::Text} } },
    { R"( +This is the first block in the pool| +Previous Memory Block info:)", Place::Skip, "corrupt", {} },
    { R"( +Allocated from line: (\d+))", Place::Continue, "corrupt", { {"line", Kind::Number} } },
    { R"( +Freed from line: (\d+))", Place::Continue, "corrupt", { {"freed_line", Kind::Number} } },
    { R"( +in file: (.*))", Place::Continue, "corrupt", { {"file", Kind::Text} } },
    { R"( +in file: (.*))", Place::Continue, "corrupt", { {"freed_file", Kind::Text} } },
    {},
};

constexpr Rule kCheckHandles[] = {
    { R"(()No duplicate handles detected in the TQOS handle subsystem!)", Place::Record, nullptr,
      { {"duplicates", Kind::Flag} } },
    { R"((ALERT! )Duplicate handles detected in the TQOS handle subsystem!)", Place::Record, nullptr,
      { {"duplicates", Kind::Flag} } },
    {},
};

} // namespace

const Report kReports[] = {
    { "queues",        "show queues",     0, "queues",     kQueues },
    { "queue",         "show queues",     1, "messages",   kQueue },
    { "sockets",       "show sockets",    0, "sockets",    kSockets },
    { "socket",        "show sockets",    1, "history",    kSocket },
    { "interfaces",    "show interfaces", -1, "interfaces", kInterfaces },
    { "lists",         "show lists",      -1, "lists",     kLists },
    { "lists",         "show hlists",     -1, "lists",     kLists },
    { "hashes",        "show hashes",     0, "hashes",     kHashes },
    { "hash",          "show hashes",     1, "buckets",    kHash },
    { "memory",        "show memory",     0, nullptr,      kMemory },
    { "blocks",        "show memory",     1, nullptr,      kMemory },
    { "ticks",         "show ticks",      -1, nullptr,     kTicks },
    { "timers",        "show timers",     -1, "timers",    kTimers },
    { "threads",       "show threads",    -1, "threads",   kThreads },
    { "semaphores",    "show semaphores", -1, "waits",     kSemaphores },
    { "handles",       "show handles",    -1, nullptr,     kHandles },
    { "traces",        "show trace",      0, "instances",  kTraces },
    { "trace",         "show trace",      1, "categories", kTrace },
    { "endian",        "show endian",     -1, "bytes",     kEndian },
    { "directory",     "show dir",        -1, nullptr,     kDirectory },
    { "uptime",        "show uptime",     -1, nullptr,     kUptime },
    { "current time",  "show curtime",    -1, nullptr,     kCurrentTime },
    { "memory check",  "check memory",    -1, "corrupt",   kCheckMemory },
    { "handles check", "check handles",   -1, nullptr,     kCheckHandles },
    { "timers",        "close timer",     -1, "timers",    kTimers },
    { "traces",        "set trace stdout",     -1, "instances", kTraces },
    { "traces",        "set trace stderr",     -1, "instances", kTraces },
    { "traces",        "set trace multicast",  -1, "instances", kTraces },
    { "traces",        "set trace devstudio",  -1, "instances", kTraces },
    { "traces",        "set trace file",       -1, "instances", kTraces },
    { "traces",        "set trace timestamp",  -1, "instances", kTraces },
    { "traces",        "set trace threadid",   -1, "instances", kTraces },
    { "traces",        "set trace level",      -1, "instances", kTraces },
    { "traces",        "set trace category",   -1, "instances", kTraces },
    { nullptr,         nullptr,           0, nullptr,      nullptr },
};

const TableKeys kTableKeys[] = {
    { "queues",     { "id" } },
    { "sockets",    { "handle" } },
    { "interfaces", { "index" } },
    { "lists",      { "handle" } },
    { "hashes",     { "hash" } },
    { "buckets",    { "bucket" } },
    { "pools",      { "pool" } },
    { "totals",     { "name" } },
    { "blocks",     { "address" } },
    { "groups",     { "file", "line" } },
    { "histogram",  { "bytes" } },
    { "timers",     { "queue", "instance", "userparm", "flags" } },
    { "threads",    { "thread" } },
    { "waits",      { "lock", "thread" } },
    { "instances",  { "instance" } },
    { nullptr,      { nullptr } },
};
// clang-format on

} // namespace tqcon
