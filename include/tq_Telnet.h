/// @file tq_Telnet.h
/// The diagnostic console: a line interface over TCP, with or without a password, through which an engineer looks
/// inside a running device with any telnet client. An application starts it with tq_TelnetInitialize() once the library
/// runs, and stops it with tq_TelnetTerminate() before tqOS_Terminate().
///
/// An application's queues take part in it by messages. "SHow SUMmary" sends them MSG_TELNET_SUMMARY, a bare
/// MSG_COMMON; "SEnd" sends one of them MSG_TELNET_CUSTOM with the rest of the line as text (TELNET_TEXT). The queue's
/// handler answers, at once or later, with tq_TelnetSendResponse(), giving back what the request carried:
///
/// @code
/// case MSG_TELNET_SUMMARY:
///     tq_TelnetSendResponse("3 doors, 1 open", pMsg->hDest, pMsg->instance, pMsg->userparm, pMsg->flags);
///     break;
/// @endcode
///
/// The console is a message queue, "TQOS: Telnet": sessions, lines and commands are handled on its worker thread, one
/// after the other, and a command that takes long holds up all sessions. Any thread may send responses. Starting and
/// stopping may be done by any thread but the console's own.
///
/// The console speaks plain text: whoever can reach the port can read the password off the wire. Before the login a
/// session keeps at most 64 KiB of output that its peer does not take; what goes beyond is dropped. At any time it
/// keeps at most 4 KiB of input that is not handled yet. Each failed login is traced as a warning, with the peer's
/// address.
///
/// Settings in section "Telnet" of tqos.ini, all off (0) unless given: "MaxSessions" closes connections beyond so many
/// sessions; "LoginSeconds" closes a session that has not logged in by then; "BackOffSeconds" keeps an address out for
/// so long after three failed logins. docs/security.md tells more.
#ifndef TQ_TELNET_H
#define TQ_TELNET_H

#include <stdio.h>

#include "tq_MsgQ.h"
#include "tq_Types.h"

/// What a command or a login says to the session that ran it.
enum class FUNCTION_RC {
    SUCCESS = 0,          ///< done; what there was to say has been said
    CLOSE_SESSION = 1,    ///< the session ends
    ERROR = 2,            ///< "Syntax error."
    SUCCESSFUL_LOGIN = 3, ///< "Welcome..."
    FAILED_LOGIN = 4      ///< "Invalid login attempt."
};

/// Flags of a request, given back in the response.
enum {
    TQ_TELNET_DETAIL = 1,          ///< the command line had "DETail"
    TQ_TELNET_NO_RECEIVED_LINE = 1 ///< of a response: no "Response received from queue ..." line before the text
};
// Deliberate: the two are one bit. A response that gives the flags of a request with "DETail" back, as it should, comes
// without the line.

/// A message with a text: what "SEnd" sends (MSG_TELNET_CUSTOM) and a response (MSG_TELNET_RESPONSE). The text begins
/// at byte 28. The `size` of a response is 28, the text's length and 1; that of a request is 3 more.
typedef struct _TELNET_TEXT {
    MSG_COMMON msg; ///< its `size` counts the text
    char text[1];   ///< zero-terminated
} TELNET_TEXT;

/// A session of the console. Its fields are the console's own.
struct _TELNET_INSTANCE;
typedef struct _TELNET_INSTANCE TELNET_INSTANCE; ///< see _TELNET_INSTANCE

/// The console's queue. tq_TelnetInitialize() makes the only one there is; an application neither makes nor derives
/// from it.
///
/// All operations but SendToTerminal() belong to its worker thread, which holds the lock of the list of sessions while
/// it runs them.
class TQ_API tq_TelnetMsgQ : public tq_MsgQ {
public:
    tq_TelnetMsgQ();
    ~tq_TelnetMsgQ() override;

    /// Opens, feeds and closes sessions, writes responses into them, re-opens the listening socket when it is lost or
    /// the machine's interfaces have changed. Frees every message.
    void MessageHandler(MSG_COMMON* pMsg) override;

    /// Formats a text and sends it on a socket. Of a longer result the first 8192 characters are sent. Nothing is sent
    /// for socket 0, a null format or an empty result; a send that fails is not told.
    /// Threads: any.
    static void SendToTerminal(unsigned int socket, const char* strFormat, ...) TQ_PRINTF(2, 3);

    /// Feeds a session with what has been typed, or with a script, byte by byte until there is no more or the session
    /// is to end.
    /// @param pTelnetInstance  the session
    /// @param hFile        the script; null: the session's socket
    /// @param bUseHistory  lines are remembered
    /// @return CLOSE_SESSION when the session is to end or, unless a script runs, has ended and is gone; else SUCCESS
    FUNCTION_RC ProcessDataStream(TELNET_INSTANCE* pTelnetInstance, FILE* hFile, bool bUseHistory);

    /// Handles the line that the session holds: as a password or, after the login, as a command. Says what comes of it.
    /// @return CLOSE_SESSION: unless a script runs, the session is closed and gone
    FUNCTION_RC ProcessCommand(TELNET_INSTANCE* pTelnetInstance);

    /// Compares the line with the password, letter by letter. At the third failure the session is to end.
    FUNCTION_RC TryToLogin(TELNET_INSTANCE* pTelnetInstance);
};

extern "C" {

/// Starts the console, or counts one more user of it.
///
/// A port that cannot be opened is followed by the next one, up to the first plus 100; after one below 1025 comes 1025,
/// and 1125 is the last.
/// @param port         port to listen on; with 0 the system chooses one
/// @param srcIP        local address, in network byte order; 0 for all, of which a console without a password warns in
///                     the trace
/// @param pszPassword  copied; null or empty: whoever connects is logged in. With one of more than 1024 characters
///                     nobody can log in
/// @return the port that is listened on; 0 when the library does not run, there is no memory, or none of the ports
///         could be opened (this is logged as a critical error), and the call then does not count. While the console
///         runs the arguments are not looked at.
/// Threads: any but the console's own; not with a lock of the library held.
TQ_API unsigned int tq_TelnetInitialize(unsigned int port, unsigned int srcIP, const char* pszPassword);

/// Takes one user away; with the last one, closes every session and ends the console: waits for the command that runs,
/// if any. Without a start nothing happens. tqOS_Terminate() does the same for whoever has not.
/// Threads: any but the console's own; not with a lock of the library held.
TQ_API void tq_TelnetTerminate();

/// Answers a request of the console: posts the text, which is then written into the session, followed by the prompt and
/// the line that is being typed there.
/// @param pResponse  of any length; copied. Null or empty: nothing is sent
/// @param hSource    handle of the answering queue, whose name the session is told
/// @param instance   that of the request: the session. When it is gone the response is dropped
/// @param userparm   that of the request
/// @param flags      that of the request; with TQ_TELNET_NO_RECEIVED_LINE the text comes without the line that says
///                   from whom
/// Threads: any, the console's own too; never waits for the console. Takes the registry of queues' lock. Without
/// memory, or while no console runs, nothing is sent.
TQ_API void tq_TelnetSendResponse(const char* pResponse, unsigned int hSource, unsigned int instance,
                                  unsigned int userparm, unsigned int flags);

/// Cuts the next word out of a command's text, as the console does. A word goes to the next blank or tab; one that
/// begins with a double quote, to the next double quote, and the quotes are no part of it.
/// @param ppszLine  the text, which is written to; afterwards behind the word and the blanks that follow it. Null, or a
///                  null text: there is no word
/// @return the word, in the text itself; null when there is none. A word may be empty: ""
/// Threads: any.
TQ_API char* tq_TelnetGetNextToken(char** ppszLine);

/// Closes a session's socket and frees the session. It must be in no list any more.
/// Threads: the console's own.
TQ_API void TelnetClose(TELNET_INSTANCE* pTelnetInstance);

} // extern "C"

#endif // TQ_TELNET_H
