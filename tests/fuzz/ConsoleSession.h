/// @file ConsoleSession.h
/// A session of the console whose socket is the target's own: what is typed is handed to the console's handler on the
/// fuzzer's thread, what the console sends is collected. The console runs as it always does, with a listener that
/// nobody connects to; nothing a command asks for leaves the process or reaches a socket.
#ifndef CONSOLE_SESSION_H
#define CONSOLE_SESSION_H

#include <dirent.h>

#include "Fuzz.h"
#include "tq_ConsoleResponse_p.h"
#include "tq_Telnet_p.h"

namespace console {

constexpr unsigned int kSocket = 4242;
constexpr char kPassword[] = "secret";

struct Peer {
    std::string typed;                  ///< not yet read
    std::string shown;                  ///< what the console has sent
    unsigned int closes = 0;            ///< how often it has closed the socket
    std::vector<MSG_COMMON*> responses; ///< reports on their way into the session
};

inline Peer& ThePeer() {
    static Peer peer;
    return peer;
}

inline tq_TelnetMsgQ& Handler() {
    static tq_TelnetMsgQ handler; // without a worker of its own
    return handler;
}

} // namespace console

// What the console's module and the reports call

extern "C" {

unsigned int __wrap_tq_SocketSendTo(unsigned int hSocket, const unsigned char* data, unsigned int len,
                                    unsigned int destIP, unsigned int destPort) {
    FUZZ_CHECK(hSocket == console::kSocket && len > 0 && len <= 8192 && destIP == 0 && destPort == 0);
    console::ThePeer().shown.append(reinterpret_cast<const char*>(data), len);
    return len;
}

unsigned int __wrap_tq_SocketRecv(unsigned int hSocket, unsigned char* data, unsigned int len) {
    FUZZ_EQUAL(console::kSocket, hSocket);
    std::string& typed = console::ThePeer().typed;
    const size_t taken = typed.copy(reinterpret_cast<char*>(data), len);
    typed.erase(0, taken);
    return static_cast<unsigned int>(taken);
}

unsigned int __wrap_tq__SocketClose(unsigned int hSocket, const char*, unsigned int) {
    FUZZ_EQUAL(console::kSocket, hSocket);
    console::ThePeer().closes += 1;
    return 0;
}

bool __wrap_tq_SocketCloseFromTelnet(unsigned int hSocket) {
    return hSocket % 2 == 1; // an answer for both
}

int __wrap_tq_TraceEnableMulticast(unsigned int) {
    return 1;
}

/// A request to the application's queues: complete, and with a text that ends.
void __wrap_tq_MsgQSendToNamed(unsigned int, void* pMessage) {
    const MSG_COMMON& request = *static_cast<MSG_COMMON*>(pMessage);
    FUZZ_CHECK(request.instance == console::kSocket && request.hSource == tq_ConsoleQueueHandle());
    if (request.command == MSG_TELNET_SUMMARY) {
        FUZZ_EQUAL(sizeof(MSG_COMMON), request.size);
    } else {
        FUZZ_CHECK(request.command == MSG_TELNET_CUSTOM);
        FUZZ_EQUAL(strlen(static_cast<TELNET_TEXT*>(pMessage)->text) + 32, request.size);
    }
}

/// tq_PostConsoleMessage(): a report's message in memory of its own, which is handed over.
bool __wrap__Z21tq_PostConsoleMessagePvPKcjj(void* pMemory, const char* pszText, unsigned int instance,
                                             unsigned int flags) {
    TELNET_TEXT* pMessage = static_cast<TELNET_TEXT*>(pMemory);
    const unsigned int bytes = static_cast<unsigned int>(sizeof(MSG_COMMON) + strlen(pszText) + 1);
    FUZZ_CHECK(instance == console::kSocket && *pszText != '\0');
    pMessage->msg = {0, tq_ConsoleQueueHandle(), bytes, MSG_TELNET_RESPONSE, instance, 0, flags};
    memcpy(pMessage->text, pszText, bytes - sizeof(MSG_COMMON));
    console::ThePeer().responses.push_back(&pMessage->msg);
    return true;
}

/// tq_RespondToConsole()
void __wrap__Z19tq_RespondToConsolePKcj(const char* pszText, unsigned int instance) {
    if (pszText && *pszText != '\0') {
        void* pMemory = tq_malloc(static_cast<unsigned int>(sizeof(MSG_COMMON) + strlen(pszText) + 1));
        __wrap__Z21tq_PostConsoleMessagePvPKcjj(pMemory, pszText, instance, TQ_TELNET_NO_RECEIVED_LINE);
    }
}

} // extern "C"

namespace console {

template <typename Message> Message* NewMessage(unsigned int command, unsigned int bytes = sizeof(Message)) {
    Message* pMessage = static_cast<Message*>(tq_calloc(1, bytes));
    FUZZ_CHECK(pMessage);
    MSG_COMMON& header = reinterpret_cast<MSG_COMMON&>(*pMessage);
    header.size = bytes;
    header.command = command;
    header.instance = kSocket;
    return pMessage;
}

inline void Connect() {
    ThePeer() = {};
    SOCKET_NEW_CONNECTION* pMessage = NewMessage<SOCKET_NEW_CONNECTION>(MSG_SOCKET_NEW_CONNECTION);
    pMessage->new_socket = kSocket;
    Handler().MessageHandler(&pMessage->msg);
}

/// The session; null when it has ended.
inline const TELNET_INSTANCE* Session() {
    return static_cast<const TELNET_INSTANCE*>(gpTelnetInstanceList->GetHead());
}

/// Types the bytes; what the console sends meanwhile.
inline std::string Type(const std::string& bytes) {
    ThePeer().typed += bytes;
    ThePeer().shown.clear();
    do { // a session takes so many bytes a turn, and further messages tell of the rest
        Handler().MessageHandler(NewMessage<MSG_COMMON>(MSG_SOCKET_DATASTREAM));
    } while (!ThePeer().typed.empty() && ThePeer().closes == 0);
    return ThePeer().shown;
}

/// Lets the reports come that are on their way; what the console sends of them.
inline std::string TakeResponses() {
    ThePeer().shown.clear();
    std::vector<MSG_COMMON*> responses;
    responses.swap(ThePeer().responses);
    for (MSG_COMMON* pMessage : responses) {
        Handler().MessageHandler(pMessage);
    }
    return ThePeer().shown;
}

/// The peer goes. The socket has been closed once, by whoever ended the session.
inline void Disconnect() {
    Handler().MessageHandler(NewMessage<MSG_COMMON>(MSG_SOCKET_CLOSED));
    TakeResponses();
    FUZZ_CHECK(!Session());
    FUZZ_EQUAL(1u, ThePeer().closes);
}

/// What must hold of a session whatever has been typed.
inline void CheckSession(const TELNET_INSTANCE& session) {
    FUZZ_CHECK(session.uiCommandIndex <= kMaxCommandLength);
    FUZZ_EQUAL(strlen(session.szCommand), session.uiCommandIndex);
    FUZZ_CHECK(session.uiSpecialIndex <= kMaxSpecialKeys && session.szSpecialKeys[session.uiSpecialIndex] == '\0');
    FUZZ_CHECK(session.uiFailedLoginCount < 3);
    unsigned int remembered = 0;
    bool bCurrent = !session.pHistoryCurrent;
    const HISTORY_NODE* pBefore = nullptr;
    for (const HISTORY_NODE* pNode = session.pHistoryHead; pNode; pNode = pNode->pNext) {
        FUZZ_CHECK(pNode->pPrev == pBefore);
        bCurrent = bCurrent || pNode == session.pHistoryCurrent;
        pBefore = pNode;
        ++remembered;
    }
    FUZZ_CHECK(session.pHistoryTail == pBefore && bCurrent);
    FUZZ_CHECK(remembered == session.pHistoryCount && remembered <= 100);
}

/// A line that stays where it is: in one line, and with no name of a file outside the scratch directory.
inline std::string Confined(std::string line) {
    for (char& c : line) {
        c = c == '/' || c < ' ' || c > '~' ? '_' : c;
    }
    return line.substr(0, kMaxCommandLength);
}

/// Undoes what commands have set, so that an input does not depend on those before it.
inline void ResetSettings() {
    const unsigned int hTrace = static_cast<unsigned int>(tq_TraceGetHandleFromName("tqos"));
    tq_TraceDisableFile(hTrace);
    tq_TraceDisableSTDOUT(hTrace);
    tq_TraceDisableSTDERR(hTrace);
    tq_TraceDisableDevStudio(hTrace);
    tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_NONE);
    tq_TraceSetCatMask(hTrace, -1);
    tq_TraceSuppressTimestamp(hTrace, false);
    tq_TraceShowThreadID(hTrace, false);
    tq_TraceSetDeltaTimestamps(false);
    tq_SemDisableSemTracking();
    fuzz::Exact history("\"TQOS: Telnet\" 0");
    tq_MsgqSetHistory(kSocket, history.Text());
    TakeResponses();
}

/// Removes the files that commands have written.
inline void RemoveFiles() {
    DIR* pDirectory = opendir(".");
    while (const struct dirent* pEntry = pDirectory ? readdir(pDirectory) : nullptr) {
        unlink(pEntry->d_name); // the two directories stay
    }
    closedir(pDirectory);
}

inline void Start() {
    FUZZ_CHECK(tq_TelnetInitialize(0, 0x0100007F, kPassword) != 0); // on the loopback address
    Connect();                                                      // lists keep their first block
    Disconnect();
    tq_TimerKill(0, 0, 0, 0); // starts the timers, as commands about them do
    ResetSettings();
    fuzz::Settle();
    atexit(tq_TelnetTerminate);
}

} // namespace console

#endif // CONSOLE_SESSION_H
