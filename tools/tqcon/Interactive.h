/// @file Interactive.h
/// A session under somebody's hands.
#ifndef TQCON_INTERACTIVE_H
#define TQCON_INTERACTIVE_H

#include "Console.h"

namespace tqcon {

/// Reads lines with editing, history and completion, runs them, and shows what comes of them, and what comes unasked.
/// The console is logged in. Comes back when its user or the device ends the session.
tools::Result RunInteractive(tools::Console* pConsole);

} // namespace tqcon

#endif // TQCON_INTERACTIVE_H
