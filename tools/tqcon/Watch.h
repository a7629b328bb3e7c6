/// @file Watch.h
/// Commands again and again, with what has changed.
#ifndef TQCON_WATCH_H
#define TQCON_WATCH_H

#include "Console.h"
#include "Options.h"

namespace tqcon {

/// Runs the commands every so often and writes their tables with what has changed since the round before. What gives no
/// table is written as it comes.
tools::Result WatchCommands(const Options& options, tools::Console* pConsole);

} // namespace tqcon

#endif // TQCON_WATCH_H
