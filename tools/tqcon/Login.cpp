#include "Login.h"

#include "Password.h"

namespace tqcon {

using tools::Result;

namespace {

constexpr int kTries = 3; // so many the device allows a session

Result AskAndLogIn(tools::Console* pConsole, const tools::Address& address, std::string* pProblem) {
    Result result = Result::LoginRefused;
    *pProblem = "a password is needed: from --password-file, TQOS_PASSWORD or a terminal";
    for (int i = 0; i < kTries && result == Result::LoginRefused && pConsole->IsOpen(); ++i) {
        const auto password = tools::AskPassword("password of " + address.host + ":" + address.port + ": ");
        if (!password) {
            return result;
        }
        result = pConsole->LogIn(*password);
        *pProblem = pConsole->Problem();
    }
    return result;
}

} // namespace

Result LogIn(const Options& options, tools::Console* pConsole, std::string* pProblem) {
    Result result = pConsole->Connect(options.address);
    if (result != Result::Ok || !pConsole->AsksForPassword()) {
        *pProblem = pConsole->Problem();
        return result;
    }
    pProblem->clear();
    const auto password = tools::FindPassword(options.passwordFile, pProblem);
    if (!pProblem->empty()) {
        return Result::LoginRefused;
    }
    if (!password) {
        return AskAndLogIn(pConsole, options.address, pProblem);
    }
    result = pConsole->LogIn(*password);
    *pProblem = pConsole->Problem();
    return result;
}

} // namespace tqcon
