/// @file BaseLine.h
/// What the library holds at a moment: the sweep takes it before a fault and wants it back afterwards.
#ifndef BASE_LINE_H
#define BASE_LINE_H

#include <array>
#include <string>

namespace faults {

enum Counter {
    kBlocks,       ///< blocks of the heap, and slots in use of a pool in place of the pool's own blocks
    kTrackedBytes, ///< bytes that the tracking counts
    kHandles,      ///< handles in use
    kLists,
    kQueues,
    kTimers,
    kSockets,
    kTraceInstances,
    kDescriptors, ///< open descriptors of the process
    kThreads,     ///< of the process
    kCounters
};

using Reading = std::array<long, kCounters>;

/// Reads all counters. Those of a subsystem that does not run are 0.
Reading ReadCounters();

/// Waits until the sockets thread, if there is one, serves, and reads until two readings some time apart are the same.
Reading ReadSettled();

/// Waits until the sockets thread serves and no counter is above its base line; false when one still is after a time
/// that only a loss reaches.
bool ComesBackTo(const Reading& base);

/// The counters that are above, or below, the base line, as a message.
std::string Difference(const Reading& base, const Reading& now);

} // namespace faults

#endif // BASE_LINE_H
