/// @file tq_Telnet_p.h
/// Inside the console: sessions and the table of commands. What the code relies on:
/// - Sessions are made, used and freed on the console queue's worker thread under the lock of their list; when the
///   console stops, by the thread that stops it, under the same lock. That lock is the outermost of the library: it is
///   held while a command runs, and commands call every module.
/// - A session is closed by the outermost ProcessCommand() alone. A script that ends the session says so to the
///   commands that run it, each of which leaves at once, so nothing of the session is touched after it has gone.
/// - The line being typed is also the text that the commands' arguments point into. A script overwrites it.
#ifndef TQ_TELNET_P_H
#define TQ_TELNET_P_H

#include "tq_Telnet.h"

constexpr unsigned int kMaxCommandLength = 1024;
constexpr unsigned int kMaxSpecialKeys = 9;

typedef struct _HISTORY_NODE {
    char* pszCommand;
    struct _HISTORY_NODE* pNext; ///< the next newer one
    struct _HISTORY_NODE* pPrev; ///< the next older one
} HISTORY_NODE;

struct _TELNET_INSTANCE {
    unsigned int socket;                 ///< the session's socket, and its name in every message
    unsigned int bProcessingSpecialKeys; ///< an escape sequence is being collected
    bool bEcho;                          ///< the console echoes what is typed
    bool bLoggedIn;
    bool bHideEcho; ///< as "*"
    unsigned int uiFailedLoginCount;
    unsigned int uiCommandIndex; ///< length of szCommand
    char szCommand[kMaxCommandLength + 1];
    HISTORY_NODE* pHistoryHead;    ///< oldest
    HISTORY_NODE* pHistoryTail;    ///< newest
    HISTORY_NODE* pHistoryCurrent; ///< the one recalled last; null when none is
    unsigned int pHistoryCount;
    unsigned int uiSpecialIndex; ///< bytes collected of an escape sequence
    char szSpecialKeys[kMaxSpecialKeys + 1];

    unsigned int uiConnectedMs; ///< when the session began, where its login has a limit
    bool bLoginTimerSet;
    bool bInputHeld; ///< not read until a message that is on its way has come
};

typedef FUNCTION_RC (*PFN_TELNET_COMMAND)(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags,
                                          char** ppszResponse);

/// A row of a table of commands. The last row's keyword is null. The rows are tried in their order.
typedef struct _TOKEN_PARSER {
    const char* pszToken;                         ///< its leading capital letters are the shortest abbreviation
    PFN_TELNET_COMMAND pfnFunction;               ///< what the command does
    unsigned int uiFlagValue;                     ///< not 0: a modifier of what follows in the same table
    const struct _TOKEN_PARSER* pNextTokenStruct; ///< the table of the next word
} TOKEN_PARSER;

extern const TOKEN_PARSER kTopCommands[];

/// Runs a command line.
/// @param pszCommand    written to
/// @param ppszResponse  may get a text, which the caller sends and frees
FUNCTION_RC ProcessNextToken(TELNET_INSTANCE* pTelnetInstance, char* pszCommand, char** ppszResponse,
                             unsigned int uiFlags, const TOKEN_PARSER* pTokenList);

/// Runs a file of commands through a session.
FUNCTION_RC tq_TelnetRunScript(TELNET_INSTANCE* pTelnetInstance, const char* pszFilename);

/// What the help says of scripts and of the commands that are used in them; a handler without a row of its own.
FUNCTION_RC tq_TelnetScriptHelp(TELNET_INSTANCE* pTelnetInstance, char* pszArguments, unsigned int uiFlags,
                                char** ppszResponse);

/// What "SHow UPtime" says of a time in milliseconds, from its largest unit on that is not 0.
/// @return a text that the caller frees; null without memory
char* tq_TelnetUptimeText(unsigned int ms);

/// Stops the console whose queue the library's termination has destroyed, for all its users.
void tq_TelnetLibraryEnds();

extern tq_List* gpTelnetInstanceList;

#endif // TQ_TELNET_P_H
