/// @file Rounds.h
/// Doing something again and again: how often, how far apart, and when to stop.
#ifndef TQCON_ROUNDS_H
#define TQCON_ROUNDS_H

#include <functional>

#include "Console.h"

namespace tqcon {

/// Does something so many times (0: until it is stopped) with so many milliseconds from one beginning to the next. It
/// is stopped by a result that is not Ok; by Ctrl-C, which ends the round first; and on a terminal by "q" where the
/// rounds have the terminal for themselves.
/// @param bOwnTerminal  keys are read one by one and not shown
tools::Result DoRounds(unsigned int count, int everyMs, bool bOwnTerminal, const std::function<tools::Result()>& round);

} // namespace tqcon

#endif // TQCON_ROUNDS_H
