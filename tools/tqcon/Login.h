/// @file Login.h
/// Connecting and logging in, with the password from wherever it comes.
#ifndef TQCON_LOGIN_H
#define TQCON_LOGIN_H

#include "Console.h"
#include "Options.h"

namespace tqcon {

/// Connects and logs in.
/// @param pProblem  gets in words what went wrong
tools::Result LogIn(const Options& options, tools::Console* pConsole, std::string* pProblem);

} // namespace tqcon

#endif // TQCON_LOGIN_H
