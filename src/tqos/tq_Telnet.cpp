#include "tq_Telnet_p.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdarg.h>
#include <stddef.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include "tq_Base.h"
#include "tq_ConsoleResponse_p.h"
#include "tq_HeldLocks_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_SemMutex_p.h"
#include "tq_Socket_p.h"
#include "tq_TelnetGuard_p.h"
#include "tq_Time.h"
#include "tq_Timer.h"
#include "tq_Trace.h"
#include "tq_WorkingLock_p.h"

static_assert(offsetof(TELNET_INSTANCE, socket) == 0, "the key that sessions are searched by");
static_assert(offsetof(TELNET_TEXT, text) == 28, "layout of a message with a text");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(HISTORY_NODE) == 12, "layout of a remembered command");
static_assert(offsetof(TELNET_INSTANCE, szSpecialKeys) == 1068, "layout of a session");
static_assert(sizeof(TOKEN_PARSER) == 16, "layout of a row of the command tables");
#endif

namespace {

constexpr unsigned int kMaxSendBytes = 8192;
constexpr unsigned int kMaxHistory = 100;
constexpr unsigned int kMaxScriptDepth = 8;

constexpr unsigned int kFirstFreePort = 1025; // those below are the system's
constexpr unsigned int kPortWindow = 100;
constexpr unsigned int kLastPort = 65535;

/// The console's timers: a timer's instance. That of a login has the session's socket as userparm.
enum { kReopenTimer = 1, kLoginTimer = 2 };
constexpr unsigned int kReopenMs = 5000;
constexpr char kListenName[] = "Telnet Listen Socket";

/// So many messages may wait for the console; a session whose input comes faster is not read for a while.
constexpr unsigned int kMostWaiting = 64;
/// What the console sends itself behind everything that waits: the session's input is read again.
constexpr unsigned int kReadAgain = MSG_TELNET_CUSTOM + 1;

constexpr unsigned char kCtrlE = 5;
constexpr unsigned char kBackspace = 8;
constexpr unsigned char kCarriageReturn = 13;
constexpr unsigned char kEscape = 27;
constexpr unsigned char kFirstPrintable = 32; // the "C" locale's, whatever the application's is
constexpr unsigned char kLastPrintable = 126;

constexpr unsigned char kInterpretAsCommand = 255;
constexpr unsigned char kWill = 251;
constexpr unsigned char kDo = 253;
constexpr unsigned char kOptionEcho = 1;
constexpr unsigned char kOptionSuppressGoAhead = 3;

} // namespace

// State. Made and unmade under gStartStopMutex, while the worker does not run yet or any more.

tq_List* gpTelnetInstanceList = nullptr;

namespace {

tq_PlacedMutex gStartStopMutex(tq_LockRank::kConsoleStart); // comes before every lock of the library
unsigned int gInstanceCount = 0;
tq_TelnetMsgQ* gpTelnetMsgQueue = nullptr;
tq_SemCritSec* gpTelnetTerminate = nullptr; // held by the worker from MSG_CREATE to MSG_DESTROY

// Guarded by the lock of the list of sessions.
unsigned int gListenSocket = 0;
unsigned int gTelnetSrcIP = 0;
bool gbReopenTimerSet = false;
bool gbStopping = false; // no session is taken any more, and the listening socket stays closed

// The worker's own, looked at by others once it has ended.
bool gbLatchHeld = false;
unsigned int guiScriptDepth = 0;

// What other threads ask for at any time.
std::atomic<unsigned int> gTelnetQueueHandle{0};
std::atomic<unsigned int> gTelnetListenPort{0};

} // namespace

// What a session is sent

namespace {

/// Sends a text of any length.
void SendText(unsigned int socket, const char* pText, size_t length) {
    while (length > 0) {
        const size_t piece = length < kMaxSendBytes ? length : kMaxSendBytes;
        tq_SocketSendTo(socket, reinterpret_cast<const unsigned char*>(pText), static_cast<unsigned int>(piece), 0, 0);
        pText += piece;
        length -= piece;
    }
}

const char* Prompt(const TELNET_INSTANCE& session) {
    return session.bLoggedIn ? ">" : "login: ";
}

void SendPrompt(const TELNET_INSTANCE& session) {
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", Prompt(session));
}

/// The prompt and what has been typed, after something else was written.
void SendPromptAndLine(const TELNET_INSTANCE& session) {
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%s%s", Prompt(session), session.bLoggedIn ? session.szCommand : "");
}

void SendStars(const TELNET_INSTANCE& session) {
    char stars[kMaxCommandLength];
    memset(stars, '*', session.uiCommandIndex);
    SendText(session.socket, stars, session.uiCommandIndex);
}

void SendOverflow(const TELNET_INSTANCE& session) {
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%sOverflow!%s", "\r\n", "\r\n");
}

} // namespace

void tq_TelnetMsgQ::SendToTerminal(unsigned int socket, const char* strFormat, ...) {
    if (socket == 0 || !strFormat) {
        return;
    }
    char text[kMaxSendBytes + 1];
    va_list args;
    va_start(args, strFormat);
    const int length = vsnprintf(text, sizeof(text), strFormat, args);
    va_end(args);
    if (length > 0) {
        SendText(socket, text,
                 static_cast<unsigned int>(length) < kMaxSendBytes ? static_cast<size_t>(length) : kMaxSendBytes);
    }
}

// The line and its history

namespace {

void ClearLine(TELNET_INSTANCE& session) {
    session.uiCommandIndex = 0;
    session.szCommand[0] = '\0';
}

void TakeOffHistory(TELNET_INSTANCE& session, HISTORY_NODE* pNode) {
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the count of a history is that of its nodes
    (pNode->pPrev ? pNode->pPrev->pNext : session.pHistoryHead) = pNode->pNext;
    (pNode->pNext ? pNode->pNext->pPrev : session.pHistoryTail) = pNode->pPrev;
    session.pHistoryCount -= 1;
    tq_free(pNode->pszCommand);
    tq_free(pNode);
}

void AddToHistory(TELNET_INSTANCE& session) {
    HISTORY_NODE* pNode = static_cast<HISTORY_NODE*>(tq_calloc(1, sizeof(HISTORY_NODE)));
    char* pszCommand = pNode ? tq_newString(session.szCommand) : nullptr;
    if (!pszCommand) {
        tq_free(pNode);
        return;
    }
    pNode->pszCommand = pszCommand;
    pNode->pPrev = session.pHistoryTail;
    (session.pHistoryTail ? session.pHistoryTail->pNext : session.pHistoryHead) = pNode;
    session.pHistoryTail = pNode;
    session.pHistoryCount += 1;
}

/// Makes the line the newest command remembered, once.
void Remember(TELNET_INSTANCE& session) {
    HISTORY_NODE* pSame = session.pHistoryHead;
    while (pSame && strcasecmp(pSame->pszCommand, session.szCommand) != 0) {
        pSame = pSame->pNext;
    }
    if (pSame) {
        TakeOffHistory(session, pSame);
    }
    AddToHistory(session);
    session.pHistoryCurrent = nullptr;
    if (session.pHistoryCount > kMaxHistory) {
        TakeOffHistory(session, session.pHistoryHead);
    }
}

/// Puts the command that is being recalled, or nothing, in the place of the line.
void ShowRecalled(TELNET_INSTANCE& session) {
    for (unsigned int i = 0; i < session.uiCommandIndex; ++i) {
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%c %c", kBackspace, kBackspace);
    }
    ClearLine(session);
    if (session.pHistoryCurrent) {
        session.uiCommandIndex = static_cast<unsigned int>(
            snprintf(session.szCommand, sizeof(session.szCommand), "%s", session.pHistoryCurrent->pszCommand));
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", session.szCommand);
    }
}

void RecallOlder(TELNET_INSTANCE& session) {
    if (!session.bLoggedIn || !session.pHistoryHead) {
        return;
    }
    if (!session.pHistoryCurrent) {
        session.pHistoryCurrent = session.pHistoryTail;
    } else if (session.pHistoryCurrent->pPrev) {
        session.pHistoryCurrent = session.pHistoryCurrent->pPrev;
    }
    ShowRecalled(session);
}

void RecallNewer(TELNET_INSTANCE& session) {
    if (!session.bLoggedIn) {
        return;
    }
    if (session.pHistoryCurrent) {
        session.pHistoryCurrent = session.pHistoryCurrent->pNext;
    }
    ShowRecalled(session);
}

} // namespace

// Single keys

namespace {

void IgnoreKey(TELNET_INSTANCE&) {}

void ToggleEcho(TELNET_INSTANCE& session) {
    session.bEcho = !session.bEcho;
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%secho %s%s%s", "\r\n", session.bEcho ? "on" : "off", "\r\n",
                                  "\r\n");
    if (session.bHideEcho) {
        SendPrompt(session);
        SendStars(session);
    } else {
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%s%s", Prompt(session), session.szCommand);
    }
}

void TypeCharacter(TELNET_INSTANCE& session, unsigned char character) {
    if (session.uiCommandIndex == kMaxCommandLength) {
        ClearLine(session);
        SendOverflow(session);
        return;
    }
    session.szCommand[session.uiCommandIndex++] = static_cast<char>(character);
    session.szCommand[session.uiCommandIndex] = '\0';
    if (!session.bEcho) { // the client has shown it already
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%c %c", kBackspace, kBackspace);
    }
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%c", session.bHideEcho ? '*' : character);
}

void EraseCharacter(TELNET_INSTANCE& session) {
    if (session.uiCommandIndex > 0) {
        session.szCommand[--session.uiCommandIndex] = '\0';
        if (session.bEcho) {
            tq_TelnetMsgQ::SendToTerminal(session.socket, "%c", kBackspace);
        }
        tq_TelnetMsgQ::SendToTerminal(session.socket, " %c", kBackspace);
    } else if (!session.bEcho) { // the client's own backspace has taken a piece of the prompt away
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", session.bLoggedIn ? ">" : " ");
    }
}

void BeginSpecialKeys(TELNET_INSTANCE& session) {
    session.bProcessingSpecialKeys = 1;
    session.uiSpecialIndex = 0;
    session.szSpecialKeys[0] = '\0';
}

struct KeySequence {
    const char* pszKeys; // what follows the escape character
    void (*pfnKey)(TELNET_INSTANCE& session);
};

constexpr KeySequence kKeySequences[] = {
    {"OA", RecallOlder},    {"[A", RecallOlder},    // up
    {"OB", RecallNewer},    {"[B", RecallNewer},    // down
    {"OC", IgnoreKey},      {"[C", IgnoreKey},      // right
    {"OD", EraseCharacter}, {"[D", EraseCharacter}, // left
};
constexpr size_t kLongestSequence = 3; // a longer one is nothing the console knows

void CollectSpecialKey(TELNET_INSTANCE& session, unsigned char key) {
    if (session.uiSpecialIndex == kMaxSpecialKeys) { // only zero bytes get here: they end the text that is compared
        session.bProcessingSpecialKeys = 0;
        SendOverflow(session);
        return;
    }
    session.szSpecialKeys[session.uiSpecialIndex++] = static_cast<char>(key);
    session.szSpecialKeys[session.uiSpecialIndex] = '\0';
    for (const KeySequence& row : kKeySequences) {
        if (strcmp(session.szSpecialKeys, row.pszKeys) == 0) {
            session.bProcessingSpecialKeys = 0;
            row.pfnKey(session);
            return;
        }
    }
    if (strlen(session.szSpecialKeys) >= kLongestSequence) {
        session.bProcessingSpecialKeys = 0;
    }
}

/// What a byte does that does not end the line.
///
/// Deliberate: a reader would expect the options that a telnet client negotiates to be parsed. They are passed over
/// only because their bytes are not printable: an option whose code is a printable character types that character.
void TypeByte(TELNET_INSTANCE& session, unsigned char byte) {
    if (byte == kCtrlE) {
        ToggleEcho(session);
    } else if (session.bProcessingSpecialKeys) {
        CollectSpecialKey(session, byte);
    } else if (byte >= kFirstPrintable && byte <= kLastPrintable) {
        TypeCharacter(session, byte);
    } else if (byte == kEscape) {
        BeginSpecialKeys(session);
    } else if (byte == kBackspace) {
        EraseCharacter(session);
    }
}

} // namespace

// Lines

namespace {

FUNCTION_RC EndLine(tq_TelnetMsgQ& queue, TELNET_INSTANCE& session, bool bUseHistory) {
    if (bUseHistory && session.bLoggedIn && session.uiCommandIndex > 0) {
        Remember(session);
    }
    if (session.bEcho) {
        tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", "\r\n");
    }
    if (queue.ProcessCommand(&session) == FUNCTION_RC::CLOSE_SESSION) {
        return FUNCTION_RC::CLOSE_SESSION;
    }
    ClearLine(session);
    SendPrompt(session);
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC RunLine(TELNET_INSTANCE& session) {
    char* pszLine = session.szCommand + strspn(session.szCommand, " \t");
    if (*pszLine == '\0') {
        return FUNCTION_RC::SUCCESS;
    }
    char* pszResponse = nullptr;
    const FUNCTION_RC result = ProcessNextToken(&session, pszLine, &pszResponse, 0, kTopCommands);
    if (pszResponse) { // whole, however long
        SendText(session.socket, "\r\n", 2);
        SendText(session.socket, pszResponse, strlen(pszResponse));
        SendText(session.socket, "\r\n\r\n", 4);
        tq_free(pszResponse);
    }
    return result;
}

} // namespace

namespace {

/// CLOSE_SESSION: the session may be gone.
FUNCTION_RC ProcessByte(tq_TelnetMsgQ& queue, TELNET_INSTANCE& session, unsigned char byte, bool bUseHistory) {
    if (byte == kCarriageReturn && !session.bProcessingSpecialKeys) {
        return EndLine(queue, session, bUseHistory);
    }
    TypeByte(session, byte);
    return FUNCTION_RC::SUCCESS;
}

/// Takes what waits on the session's socket, and not all that comes meanwhile, of which other messages tell: a peer
/// that never stops sending has its turn like every other.
FUNCTION_RC ProcessInput(tq_TelnetMsgQ& queue, TELNET_INSTANCE& session, bool bUseHistory) {
    const unsigned int socket = session.socket;
    do {
        for (unsigned int taken = 0; taken <= kSessionInputCap; ++taken) {
            unsigned char byte;
            if (tq_SocketRecv(socket, &byte, 1) != 1) {
                return FUNCTION_RC::SUCCESS;
            }
            if (ProcessByte(queue, session, byte, bUseHistory) == FUNCTION_RC::CLOSE_SESSION) {
                return FUNCTION_RC::CLOSE_SESSION;
            }
        }
    } while (tq_SocketDataAvailable(socket) > kSessionInputCap); // read before the socket had its cap
    return FUNCTION_RC::SUCCESS;
}

FUNCTION_RC ProcessFile(tq_TelnetMsgQ& queue, TELNET_INSTANCE& session, FILE* hFile, bool bUseHistory) {
    for (int byte = getc(hFile); byte != EOF; byte = getc(hFile)) {
        if (ProcessByte(queue, session, static_cast<unsigned char>(byte), bUseHistory) == FUNCTION_RC::CLOSE_SESSION) {
            return FUNCTION_RC::CLOSE_SESSION;
        }
    }
    return FUNCTION_RC::SUCCESS;
}

} // namespace

FUNCTION_RC tq_TelnetMsgQ::ProcessDataStream(TELNET_INSTANCE* pTelnetInstance, FILE* hFile, bool bUseHistory) {
    return hFile ? ProcessFile(*this, *pTelnetInstance, hFile, bUseHistory)
                 : ProcessInput(*this, *pTelnetInstance, bUseHistory);
}

FUNCTION_RC tq_TelnetMsgQ::ProcessCommand(TELNET_INSTANCE* pTelnetInstance) {
    const FUNCTION_RC result = pTelnetInstance->bLoggedIn ? RunLine(*pTelnetInstance) : TryToLogin(pTelnetInstance);
    switch (result) {
    case FUNCTION_RC::CLOSE_SESSION:
        if (guiScriptDepth == 0) { // else those who run the script still use the session
            gpTelnetInstanceList->RemoveNode(pTelnetInstance);
            TelnetClose(pTelnetInstance);
        }
        break;
    case FUNCTION_RC::SUCCESSFUL_LOGIN:
        SendToTerminal(pTelnetInstance->socket, "Welcome...%s%s", "\r\n", "\r\n");
        break;
    case FUNCTION_RC::FAILED_LOGIN:
        SendToTerminal(pTelnetInstance->socket, "Invalid login attempt.%s%s", "\r\n", "\r\n");
        break;
    case FUNCTION_RC::SUCCESS:
        break;
    default:
        SendToTerminal(pTelnetInstance->socket, "Syntax error.%s%s", "\r\n", "\r\n");
        break;
    }
    return result;
}

FUNCTION_RC tq_TelnetMsgQ::TryToLogin(TELNET_INSTANCE* pTelnetInstance) {
    TELNET_INSTANCE& session = *pTelnetInstance;
    if (tq_TelnetHoldsOff(tq_TelnetAddressOf(session.socket))) {
        return FUNCTION_RC::CLOSE_SESSION;
    }
    const bool bRight = tq_TelnetIsPassword(session.szCommand, session.uiCommandIndex);
    explicit_bzero(session.szCommand, sizeof(session.szCommand)); // nothing of it stays in memory
    if (bRight) {
        session.bLoggedIn = true;
        session.bHideEcho = false;
        session.uiFailedLoginCount = 0;
        tq_TelnetLoginSucceeded(session.socket);
        tq_SocketSetDataOutCap(session.socket, kSocketNoCap);
        return FUNCTION_RC::SUCCESSFUL_LOGIN;
    }
    session.uiFailedLoginCount += 1;
    tq_TelnetLoginFailed(session.socket);
    return session.uiFailedLoginCount == kLoginTries ? FUNCTION_RC::CLOSE_SESSION : FUNCTION_RC::FAILED_LOGIN;
}

// Scripts

namespace {

/// Opens a file for reading; null when it cannot be. Whether it is a device is asked before it is opened, since opening
/// one may do something, and again of what has been opened. The writer of a FIFO is waited for.
FILE* OpenScript(const char* pszFilename) {
    const auto isReadable = [](const struct stat& status) {
        return S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode);
    };
    struct stat status;
    if (stat(pszFilename, &status) != 0 || !isReadable(status)) {
        return nullptr;
    }
    FILE* hFile = fopen(pszFilename, "re");
    if (hFile && (fstat(fileno(hFile), &status) != 0 || !isReadable(status))) {
        fclose(hFile);
        return nullptr;
    }
    return hFile;
}

/// Deliberate: a reader would expect a line of a script to end at its line feed. A script is typed input: a line runs
/// at its carriage return, line feeds are passed over, and what follows the last carriage return is never run.
FUNCTION_RC FeedScript(TELNET_INSTANCE& session, FILE* hFile) {
    tq_TelnetMsgQ::SendToTerminal(session.socket, "File Opened, now processing...%s", "\r\n");
    const bool bEcho = session.bEcho;
    session.bEcho = true;
    ClearLine(session);
    guiScriptDepth += 1;
    const FUNCTION_RC result = gpTelnetMsgQueue->ProcessDataStream(&session, hFile, /*bUseHistory=*/false);
    guiScriptDepth -= 1;
    if (result != FUNCTION_RC::CLOSE_SESSION) {
        session.bEcho = bEcho;
        tq_TelnetMsgQ::SendToTerminal(session.socket, "File processing done!%s", "\r\n");
    }
    return result;
}

} // namespace

FUNCTION_RC tq_TelnetRunScript(TELNET_INSTANCE* pTelnetInstance, const char* pszFilename) {
    if (*pszFilename == '\0') {
        tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "Must supply a filename.%s", "\r\n");
        return FUNCTION_RC::SUCCESS;
    }
    if (guiScriptDepth == kMaxScriptDepth) { // most likely one that runs itself
        return FUNCTION_RC::ERROR;
    }
    FILE* hFile = OpenScript(pszFilename); // the name is not used any more: the script is typed over it
    if (!hFile) {
        tq_TelnetMsgQ::SendToTerminal(pTelnetInstance->socket, "Failed to open file: %s%s", pszFilename, "\r\n");
        return FUNCTION_RC::SUCCESS;
    }
    const FUNCTION_RC result = FeedScript(*pTelnetInstance, hFile);
    fclose(hFile);
    return result;
}

// Sessions. The list is locked.

namespace {

// clang-format off
constexpr char kBanner[] =
    "  ##########    ########      ########     ########\r\n"
    "  ##########   ##########    ##########   ##########\r\n"
    "      ##       ##      ##    ##      ##   ##\r\n"
    "      ##       ##      ##    ##      ##   ##\r\n"
    "      ##       ##      ##    ##      ##   #########\r\n"
    "      ##       ##      ##    ##      ##    #########\r\n"
    "      ##       ##   ## ##    ##      ##           ##\r\n"
    "      ##       ##    ####    ##      ##           ##\r\n"
    "      ##       ##########    ##########   ##########\r\n"
    "      ##        ####### ##    ########     ########\r\n"
    "\r\n"
    " TQOS Diagnostic interface. (CTRL-E will toggle character echoing.)\r\n";
// clang-format on

TELNET_INSTANCE* FindSessionLocked(unsigned int socket) {
    return static_cast<TELNET_INSTANCE*>(gpTelnetInstanceList->FindFirst(tq_ListKey(socket), LIST_TYPE_U32BITS,
                                                                         offsetof(TELNET_INSTANCE, socket), nullptr,
                                                                         LIST_DIRECTION_HEAD_TO_TAIL));
}

void SendNegotiation(unsigned int socket, unsigned char command, unsigned char option) {
    tq_TelnetMsgQ::SendToTerminal(socket, "%c%c%c", kInterpretAsCommand, command, option);
}

void Greet(const TELNET_INSTANCE& session) {
    SendNegotiation(session.socket, kWill, kOptionEcho);
    SendNegotiation(session.socket, kWill, kOptionSuppressGoAhead);
    SendNegotiation(session.socket, kDo, kOptionSuppressGoAhead);
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", kBanner);
    char szTime[26];
    tq_GetASCTime(szTime);
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%s%s", szTime, "\r\n");
    tq_TelnetMsgQ::SendToTerminal(session.socket, "%s", "\r\n");
    SendPrompt(session);
}

/// The session without its socket.
void FreeSession(TELNET_INSTANCE* pSession) {
    while (pSession->pHistoryHead) {
        TakeOffHistory(*pSession, pSession->pHistoryHead);
    }
    tq_free(pSession);
}

/// A session whose socket somebody else has closed is told nothing of it, and stays. Whoever comes to have the handle
/// next must not find himself in it, logged in as it was.
void ForgetSessionLocked(unsigned int socket) {
    while (TELNET_INSTANCE* pSession = FindSessionLocked(socket)) {
        gpTelnetInstanceList->RemoveNode(pSession);
        FreeSession(pSession);
    }
}

void CloseSessionsLocked() {
    while (void* pSession = gpTelnetInstanceList->RemoveHead()) {
        TelnetClose(static_cast<TELNET_INSTANCE*>(pSession));
    }
}

} // namespace

void TelnetClose(TELNET_INSTANCE* pTelnetInstance) {
    if (!pTelnetInstance) {
        return;
    }
    if (pTelnetInstance->bLoginTimerSet) {
        tq_TimerKill(gTelnetQueueHandle, kLoginTimer, pTelnetInstance->socket, 0);
    }
    tq_SocketClose(pTelnetInstance->socket);
    FreeSession(pTelnetInstance);
}

// The listening socket. The list of sessions is locked.

namespace {

bool ListenLocked(unsigned int port) {
    gListenSocket = tq_SocketOpenTCPServer(gpTelnetMsgQueue->GetHandle(), port, 0, gTelnetSrcIP);
    if (gListenSocket == 0) {
        return false;
    }
    CapAcceptedSockets(gListenSocket, kSessionInputCap, kLoginOutputCap);
    tq_SocketSetName(gListenSocket, kListenName);
    return true;
}

void CloseListenerLocked() {
    if (gListenSocket != 0) {
        // Shut down first: the sockets thread may be waiting on the descriptor, and the port would be taken until it
        // has come back.
        tq_SocketFlushAndClose(gListenSocket, TQ_SOCKET_FLUSH_OUT);
        gListenSocket = 0;
    }
}

void SetReopenTimerLocked(unsigned int ms) {
    gbReopenTimerSet = true;
    tq_TimerSet(gTelnetQueueHandle, ms, kReopenTimer, 0, 0, TQ_TIMER_ONE_SHOT, kListenName, /*bAllowSkew=*/false);
}

/// Finds a port to listen on, from the first one upwards; false when there is none.
bool FindPortLocked(unsigned int first) {
    if (first > kLastPort) { // it would be cut down to one that exists
        return false;
    }
    const unsigned int last = std::min((first < kFirstFreePort ? kFirstFreePort : first) + kPortWindow, kLastPort);
    unsigned int port = first;
    while (!ListenLocked(port)) {
        port = port < kFirstFreePort ? kFirstFreePort : port + 1;
        if (port > last) {
            return false;
        }
    }
    const unsigned int bound = tq_SocketGetBoundPort(gListenSocket);
    gTelnetListenPort = bound ? bound : port; // the system may not tell
    return gTelnetListenPort != 0;
}

} // namespace

// What the queue is sent

namespace {

void OnCreate(const MSG_COMMON& msg) {
    gTelnetQueueHandle = msg.hDest;
    gpTelnetTerminate->Enter();
    tq_HeldLatchEntered();
    gbLatchHeld = true;
    gpTelnetMsgQueue->SetName("TQOS: Telnet");
    gpTelnetMsgQueue->SetDescription("Processes tqos Telnet requests");
}

void OnDestroy(const MSG_COMMON&) {
    gTelnetQueueHandle = 0;
    if (gbLatchHeld) {
        gbLatchHeld = false;
        tq_HeldLatchLeaving();
        gpTelnetTerminate->Leave();
    }
}

void ReopenLocked() {
    gbReopenTimerSet = false;
    if (gbStopping) {
        return;
    }
    CloseListenerLocked();
    if (!ListenLocked(gTelnetListenPort)) {
        SetReopenTimerLocked(kReopenMs);
    }
}

/// Ends a session that has not logged in. The timer may have been that of an earlier session with the same socket.
void EndLateLoginLocked(unsigned int socket) {
    TELNET_INSTANCE* pSession = FindSessionLocked(socket);
    if (pSession && !pSession->bLoggedIn && tq_GetTimeInMS() - pSession->uiConnectedMs >= tq_TelnetLoginMs()) {
        gpTelnetInstanceList->RemoveNode(pSession);
        TelnetClose(pSession);
    }
}

void OnTimer(const MSG_COMMON& msg) {
    tq_ListLock lock(gpTelnetInstanceList);
    if (msg.instance == kReopenTimer) {
        ReopenLocked();
    } else if (msg.instance == kLoginTimer) {
        EndLateLoginLocked(msg.userparm);
    }
}

/// What a session may cost before its login, in time and in memory.
void LimitSession(TELNET_INSTANCE& session) {
    tq_SocketSetDataInCap(session.socket, kSessionInputCap);
    tq_SocketSetDataOutCap(session.socket, session.bLoggedIn ? kSocketNoCap : kLoginOutputCap);
    if (!session.bLoggedIn && tq_TelnetLoginMs() != 0) {
        session.uiConnectedMs = tq_GetTimeInMS();
        session.bLoginTimerSet = tq_TimerSet(gTelnetQueueHandle, tq_TelnetLoginMs(), kLoginTimer, session.socket, 0,
                                             TQ_TIMER_ONE_SHOT, "Telnet login", /*bAllowSkew=*/false) == 0;
    }
}

void OnNewConnection(const MSG_COMMON& msg) {
    const SOCKET_NEW_CONNECTION& connection = reinterpret_cast<const SOCKET_NEW_CONNECTION&>(msg);
    const unsigned int socket = connection.new_socket;
    tq_ListLock lock(gpTelnetInstanceList);
    if (gbStopping || tq_TelnetRefuses(connection.srcaddress, gpTelnetInstanceList->NodeCount())) {
        tq_SocketClose(socket);
        return;
    }
    ForgetSessionLocked(socket);
    TELNET_INSTANCE* pSession = static_cast<TELNET_INSTANCE*>(tq_calloc(1, sizeof(TELNET_INSTANCE)));
    if (!pSession) {
        tq_SocketClose(socket); // nobody would attend to the connection, or close it
        return;
    }
    pSession->socket = socket;
    pSession->bEcho = true;
    pSession->bHideEcho = tq_TelnetNeedsPassword();
    pSession->bLoggedIn = !tq_TelnetNeedsPassword();
    gpTelnetInstanceList->AddToTail(pSession);
    if (FindSessionLocked(socket) != pSession) { // there was no memory for its place in the list
        TelnetClose(pSession);
        return;
    }
    LimitSession(*pSession);
    tq_SocketSetName(socket, "Telnet instance");
    const int noDelay = 1; // the many small pieces of an answer do not wait for each other to be acknowledged
    tq_SocketSetOpt(static_cast<int>(socket), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    Greet(*pSession);
}

/// Every piece of input that the sockets layer reads comes with a message, and a single byte may be a piece, as is each
/// that is read in the place of one just taken from a full socket. They would pile up while the console is busy with
/// what they tell of. So a session that is fast is not read until all of them are gone.
void HoldInputWithinBounds(TELNET_INSTANCE& session) {
    const bool bFast =
        tq_SocketDataAvailable(session.socket) >= kSessionInputCap || gpTelnetMsgQueue->GetQueueDepth(0) > kMostWaiting;
    if (session.bInputHeld || !bFast) {
        return;
    }
    tq_SocketSetDataInCap(session.socket, 0);
    session.bInputHeld = tq_MsgCreateCommonAndSend(0, gTelnetQueueHandle, kReadAgain, session.socket, 0, 0,
                                                   /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
    if (!session.bInputHeld) {
        tq_SocketSetDataInCap(session.socket, kSessionInputCap);
    }
}

void OnData(const MSG_COMMON& msg) {
    tq_ListLock lock(gpTelnetInstanceList);
    if (TELNET_INSTANCE* pSession = FindSessionLocked(msg.instance)) {
        HoldInputWithinBounds(*pSession);
        gpTelnetMsgQueue->ProcessDataStream(pSession, nullptr, /*bUseHistory=*/true);
    }
}

void OnReadAgain(const MSG_COMMON& msg) {
    tq_ListLock lock(gpTelnetInstanceList);
    if (TELNET_INSTANCE* pSession = FindSessionLocked(msg.instance)) {
        pSession->bInputHeld = false;
        tq_SocketSetDataInCap(pSession->socket, kSessionInputCap);
    }
}

void OnClosed(const MSG_COMMON& msg) {
    tq_ListLock lock(gpTelnetInstanceList);
    if (gListenSocket != 0 && msg.instance == gListenSocket) {
        SetReopenTimerLocked(0);
    } else if (TELNET_INSTANCE* pSession = FindSessionLocked(msg.instance)) {
        gpTelnetInstanceList->RemoveNode(pSession);
        TelnetClose(pSession);
    }
}

void OnNewInterfaces(const MSG_COMMON&) {
    tq_ListLock lock(gpTelnetInstanceList);
    if (!gbStopping) {
        SetReopenTimerLocked(0);
    }
}

void OnResponse(const MSG_COMMON& msg) {
    const char* pText = reinterpret_cast<const TELNET_TEXT&>(msg).text;
    const size_t length = msg.size - sizeof(MSG_COMMON);
    if (msg.size <= sizeof(MSG_COMMON) || pText[length - 1] != '\0') {
        return;
    }
    const bool bTellFromWhom = (msg.flags & TQ_TELNET_NO_RECEIVED_LINE) == 0;
    char* pszName = bTellFromWhom ? tq_MsgQGetNameFromId(msg.hSource) : nullptr;
    {
        tq_ListLock lock(gpTelnetInstanceList);
        if (const TELNET_INSTANCE* pSession = FindSessionLocked(msg.instance)) {
            if (bTellFromWhom) {
                char szTime[26];
                tq_GetASCTime(szTime);
                tq_TelnetMsgQ::SendToTerminal(pSession->socket, "%sResponse received from queue %s: %s%s", "\r\n",
                                              pszName ? pszName : "(Un-Named)", szTime, "\r\n");
            }
            SendText(pSession->socket, pText, length - 1);
            tq_TelnetMsgQ::SendToTerminal(pSession->socket, "%s", "\r\n");
            SendPromptAndLine(*pSession);
        }
    }
    tq_free(pszName);
}

void OnSummary(const MSG_COMMON& msg) {
    char szSummary[64];
    snprintf(szSummary, sizeof(szSummary), "Telnet Connections: %u", gpTelnetInstanceList->NodeCount());
    tq_TelnetSendResponse(szSummary, msg.hDest, msg.instance, msg.userparm, msg.flags);
}

struct MessageRow {
    unsigned int command;
    void (*pfnMessage)(const MSG_COMMON& msg);
};

constexpr MessageRow kMessages[] = {
    {MSG_CREATE, OnCreate},
    {MSG_DESTROY, OnDestroy},
    {MSG_TIMER, OnTimer},
    {MSG_SOCKET_NEW_CONNECTION, OnNewConnection},
    {MSG_SOCKET_DATASTREAM, OnData},
    {kReadAgain, OnReadAgain},
    {MSG_SOCKET_CLOSED, OnClosed},
    {MSG_SOCKET_NEW_INTERFACES, OnNewInterfaces},
    {MSG_TELNET_RESPONSE, OnResponse},
    {MSG_TELNET_SUMMARY, OnSummary},
};

} // namespace

tq_TelnetMsgQ::tq_TelnetMsgQ() : tq_MsgQ(nullptr, nullptr) {}

tq_TelnetMsgQ::~tq_TelnetMsgQ() {
    Destroy(false);
}

void tq_TelnetMsgQ::MessageHandler(MSG_COMMON* pMsg) {
    for (const MessageRow& row : kMessages) {
        if (row.command == pMsg->command) {
            row.pfnMessage(*pMsg);
            break;
        }
    }
    tq_free(pMsg);
}

// Responses

void tq_TelnetSendResponse(const char* pResponse, unsigned int hSource, unsigned int instance, unsigned int userparm,
                           unsigned int flags) {
    const unsigned int hQueue = gTelnetQueueHandle;
    if (!pResponse || *pResponse == '\0' || hQueue == 0) {
        return;
    }
    const unsigned int bytes = tq_ConsoleMessageBytes(pResponse);
    TELNET_TEXT* pMsg = static_cast<TELNET_TEXT*>(tq_malloc(bytes));
    if (!pMsg) {
        return;
    }
    pMsg->msg = {hSource, hQueue, bytes, MSG_TELNET_RESPONSE, instance, userparm, flags};
    memcpy(pMsg->text, pResponse, bytes - sizeof(MSG_COMMON));
    if (!tq_MsgSend(&pMsg->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        tq_free(pMsg);
    }
}

void tq_RespondToConsole(const char* pszText, unsigned int instance) {
    tq_TelnetSendResponse(pszText, 0, instance, 0, TQ_TELNET_NO_RECEIVED_LINE);
}

void tq_AnswerConsole(const char* pszText, const MSG_COMMON& request) {
    tq_TelnetSendResponse(pszText, request.hDest, request.instance, request.userparm, request.flags);
}

char* tq_NextConsoleWord(char** ppszArguments) {
    return tq_TelnetGetNextToken(ppszArguments);
}

unsigned int tq_ConsoleQueueHandle() {
    return gTelnetQueueHandle;
}

unsigned int tq_ConsoleMessageBytes(const char* pszText) {
    return static_cast<unsigned int>(sizeof(MSG_COMMON) + strlen(pszText) + 1);
}

bool tq_PostConsoleMessage(void* pMemory, const char* pszText, unsigned int instance, unsigned int flags) {
    const unsigned int bytes = tq_ConsoleMessageBytes(pszText);
    TELNET_TEXT* pMsg = static_cast<TELNET_TEXT*>(pMemory);
    pMsg->msg = {0, gTelnetQueueHandle, bytes, MSG_TELNET_RESPONSE, instance, 0, flags};
    memcpy(pMsg->text, pszText, bytes - sizeof(MSG_COMMON));
    return tq_MsgSend(&pMsg->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM);
}

// Start and stop

namespace {

/// Everything but the listening socket; false when something could not be had.
bool MakeConsole(const char* pszPassword) {
    gbStopping = false;
    gpTelnetTerminate = tq_IfItLocks(tq_newObject<tq_SemCritSec>(true));
    gpTelnetMsgQueue = tq_newObject<tq_TelnetMsgQ>();
    tq_TelnetGuardStart();
    const bool bHasPassword = tq_TelnetSetPassword(pszPassword);
    gpTelnetInstanceList = tq_IfItLocks(tq_newObject<tq_List>("TQOS: Telnet Instances"));
    tq_ListPlace(gpTelnetInstanceList, tq_LockRank::kSessions);
    if (!gpTelnetTerminate || !gpTelnetMsgQueue || !gpTelnetInstanceList || !bHasPassword) {
        return false;
    }
    gpTelnetMsgQueue->Create(0);
    return gpTelnetMsgQueue->GetHandle() != 0;
}

void WarnOfOpenConsole(unsigned int srcIP) {
    if (srcIP == 0 && !tq_TelnetNeedsPassword()) {
        tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_WARNING, TQ_TRACE_CAT_SYSTEM, /*bIncludeTimeStamp=*/true,
                 "tqos Telnet: Listening on every address without a password. Whoever connects is logged in.\n");
    }
}

bool StartListening(unsigned int port, unsigned int srcIP) {
    bool bListening = false;
    {
        tq_ListLock lock(gpTelnetInstanceList);
        gTelnetSrcIP = srcIP;
        bListening = FindPortLocked(port);
        gTelnetListenPort = bListening ? gTelnetListenPort.load() : 0;
    }
    if (bListening) {
        WarnOfOpenConsole(srcIP);
        return true;
    }
    LogCriticalError("Failed to initialize Telnet Interface!\n", /*bAbort=*/false, TQ_TRACE_LEVEL_WARNING,
                     TQ_TRACE_CAT_SYSTEM);
    return false;
}

void StopTakingSessions() {
    tq_ListLock lock(gpTelnetInstanceList);
    gbStopping = true;
    CloseListenerLocked();
    gTelnetListenPort = 0;
    gTelnetSrcIP = 0;
    CloseSessionsLocked();
}

/// Waits until the worker has handled MSG_DESTROY. Without memory for that message it has ended all the same, with the
/// latch in its hands, which can then only be unmade; one built on a plain mutex not even that, and it stays.
void WaitForLatch() {
    if (!gbLatchHeld) {
        tq_CritSecLock lock(gpTelnetTerminate);
        return;
    }
    gbLatchHeld = false;
    if (!gbUseMutexesForCritSecs) {
        gpTelnetTerminate = nullptr;
    }
}

/// Unmakes whatever there is of a console.
void StopConsole() {
    if (gpTelnetInstanceList) {
        StopTakingSessions();
    }
    if (gpTelnetMsgQueue) {
        const unsigned int hQueue = gpTelnetMsgQueue->GetHandle();
        gpTelnetMsgQueue->Destroy(false); // nobody sends to it any more
        if (hQueue != 0) {
            tq_SocketCloseAllOf(hQueue); // while the handle is nobody else's
        }
        gpTelnetMsgQueue->Cleanup();
        WaitForLatch();
        if (gbReopenTimerSet) {
            gbReopenTimerSet = false;
            tq_TimerKill(hQueue, kReopenTimer, 0, 0);
        }
    }
    gTelnetQueueHandle = 0;
    tq_deleteObject(gpTelnetInstanceList);
    gpTelnetInstanceList = nullptr;
    tq_deleteObject(gpTelnetMsgQueue);
    gpTelnetMsgQueue = nullptr;
    tq_deleteObject(gpTelnetTerminate);
    gpTelnetTerminate = nullptr;
    tq_TelnetForgetPassword();
}

} // namespace

unsigned int tq_TelnetInitialize(unsigned int port, unsigned int srcIP, const char* pszPassword) {
    std::lock_guard<tq_PlacedMutex> lock(gStartStopMutex);
    if (tqos_Intialized == 0) {
        return 0;
    }
    if (gInstanceCount == 0 && !(MakeConsole(pszPassword) && StartListening(port, srcIP))) {
        StopConsole();
        return 0;
    }
    gInstanceCount += 1;
    return gTelnetListenPort;
}

void tq_TelnetTerminate() {
    std::lock_guard<tq_PlacedMutex> lock(gStartStopMutex);
    if (gInstanceCount == 0) {
        return;
    }
    gInstanceCount -= 1;
    if (gInstanceCount == 0) {
        StopConsole();
    }
}

void tq_TelnetLibraryEnds() {
    std::lock_guard<tq_PlacedMutex> lock(gStartStopMutex);
    if (gInstanceCount != 0) {
        gInstanceCount = 0;
        StopConsole();
    }
}
