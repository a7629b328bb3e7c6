/// @file Password.h
/// Where the password of a device's console comes from. Never from an argument: everybody on the machine sees those.
#ifndef TOOLS_PASSWORD_H
#define TOOLS_PASSWORD_H

#include <optional>
#include <string>

namespace tools {

/// Looked at when no file is named.
constexpr char kPasswordVariable[] = "TQOS_PASSWORD";

/// The password, from the first of these that there is: the first line of the file, when one is named; the environment
/// variable.
/// @param pProblem  gets in words why a file that is named has none
/// @return none when neither is there
std::optional<std::string> FindPassword(const std::string& file, std::string* pProblem);

/// Asks for it on the terminal, which does not show it.
/// @return none where there is no terminal, or its user has ended the input
std::optional<std::string> AskPassword(const std::string& prompt);

} // namespace tools

#endif // TOOLS_PASSWORD_H
