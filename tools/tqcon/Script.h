/// @file Script.h
/// Commands one after the other, and what comes of them.
#ifndef TQCON_SCRIPT_H
#define TQCON_SCRIPT_H

#include "Commands.h"
#include "Console.h"
#include "Options.h"

namespace tqcon {

/// Runs a command and waits for the queues that it asks.
tools::Answer Ask(tools::Console* pConsole, const std::string& line);

/// What a reader is shown of an answer: what the command wrote, and what the queues did.
std::string TextOf(const tools::Answer& answer);

/// Runs the commands in their order and writes what comes of them.
/// @return the first result that is not Ok
tools::Result RunCommands(const Options& options, tools::Console* pConsole);

} // namespace tqcon

#endif // TQCON_SCRIPT_H
