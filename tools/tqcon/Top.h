/// @file Top.h
/// One screen of a device: its queues, sockets, memory, threads and who waits for which lock.
#ifndef TQCON_TOP_H
#define TQCON_TOP_H

#include "Console.h"
#include "Options.h"
#include "Reports.h"

namespace tqcon {

/// The reports of one moment, by their names; a report that the device could not give is not there.
using Snapshot = Json;

/// A screen.
/// @param before   the moment before, or null
/// @param lines    as many as the screen has; 0: as many as it takes
/// @param columns  longer lines are cut; 0: none are
std::string TopScreen(const std::string& device, const Snapshot& before, const Snapshot& now, size_t lines,
                      size_t columns);

/// Shows the screen every so often, until it is stopped. Without a terminal the screens come one after the other.
tools::Result RunTop(const Options& options, tools::Console* pConsole);

} // namespace tqcon

#endif // TQCON_TOP_H
