// The reports of the sockets layer.
#include "tq_Socket_p.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_ConsoleResponse_p.h"
#include "tq_Report_p.h"

namespace {

constexpr unsigned int kFlagDetail = 1;
constexpr unsigned int kBytesPerSocket = 200; // a report grows when a name is longer
constexpr unsigned int kBytesAround = 400;
constexpr unsigned int kDetailBytes = 1680;
constexpr unsigned int kBytesPerInterface = 80;
constexpr unsigned int kDecimal = 10;

constexpr char kLegend[] = "   S = Status where: B-Breaker, L-Listen, T-Connecting, C-Connected, X-Closed\r\n"
                           "   T = Type where: T-TCP, U-UDP\r\n"
                           "\r\n"
                           "Handle T S Src Info               Dst Info               Name\r\n"
                           "------ - - ---------------------- ---------------------- ---------------\r\n";
constexpr char kRow[] = "%-6u %-1s %-1s %-22s %-22s %-20s\r\n";

/// How a code of a record is shown in a row and among the details.
struct CodeText {
    unsigned int code;
    const char* pszLetter;
    const char* pszWord;
};

constexpr CodeText kTypes[] = {
    {SOCKET_TYPE_TCP, "T", "TCP"},
    {SOCKET_TYPE_UDP, "U", "UDP"},
};

constexpr CodeText kStates[] = {
    {SOCKET_STATE_BREAKER, "B", "BREAKER"},       {SOCKET_STATE_LISTEN, "L", "LISTENING"},
    {SOCKET_STATE_CONNECTING, "T", "CONNECTING"}, {SOCKET_STATE_CONNECTED, "C", "CONNECTED"},
    {SOCKET_STATE_CLOSED, "X", "CLOSED"},
};

constexpr CodeText kUnknownCode = {0, "?", "?"};

template <size_t count> const CodeText& TextOf(const CodeText (&rows)[count], unsigned int code) {
    for (const CodeText& row : rows) {
        if (row.code == code) {
            return row;
        }
    }
    return kUnknownCode;
}

constexpr const char* kEventTexts[] = {
    // by SOCKET_EVENT_; 0 is an empty slot of the history
    nullptr,
    /* SOCKET_EVENT_READABLE         */ "Readable",
    /* SOCKET_EVENT_WRITEABLE        */ "Writeable",
    /* SOCKET_EVENT_FAILED           */ "Failed",
    /* SOCKET_EVENT_WRITEABLE_FAILED */ "(Linux) Writeable Failed",
    /* SOCKET_EVENT_RECV             */ "tq_SocketRecv()",
    /* SOCKET_EVENT_SEND             */ "tq_SocketSend()",
};
constexpr unsigned int kEvents = sizeof(kEventTexts) / sizeof(kEventTexts[0]);
static_assert(kEvents == SOCKET_EVENT_SEND + 1, "every event has its own place");

const char* NameOf(const SOCKET_INSTANCE* pSocket) {
    return pSocket->pszName ? pSocket->pszName : "(unnamed)";
}

/// An end of a socket as text; a local-domain socket has no addresses and says instead which end it stands for.
class EndText {
public:
    EndText(const SOCKET_INSTANCE* pSocket, const struct sockaddr_in& address, const char* pszDomainText) {
        if (pSocket->pszSocketName && address.sin_addr.s_addr == 0) {
            snprintf(m_text, sizeof(m_text), "%s", pszDomainText);
            return;
        }
        char dotted[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof(dotted));
        snprintf(m_text, sizeof(m_text), "%s:%u", dotted, static_cast<unsigned int>(ntohs(address.sin_port)));
    }
    const char* Text() const { return m_text; }

private:
    char m_text[INET_ADDRSTRLEN + sizeof(":65535")];
};

EndText SourceOf(const SOCKET_INSTANCE* pSocket) {
    return {pSocket, pSocket->srcaddr, "DOMAIN-Client"};
}

EndText DestinationOf(const SOCKET_INSTANCE* pSocket) {
    return {pSocket, pSocket->dstaddr, "DOMAIN-Server"};
}

// Of all sockets

void AppendRow(tq_ReportText& report, const SOCKET_INSTANCE* pSocket) {
    report.Append(kRow, pSocket->handle, TextOf(kTypes, pSocket->type).pszLetter,
                  TextOf(kStates, pSocket->state).pszLetter, SourceOf(pSocket).Text(), DestinationOf(pSocket).Text(),
                  NameOf(pSocket));
    if (pSocket->pszSocketName) {
        report.Append("  Socket Name: %s\r\n\r\n", pSocket->pszSocketName);
    }
}

char* SummaryLocked() {
    tq_ReportText report(pListOfSockets->NodeCount() * kBytesPerSocket + kBytesAround);
    report.Append("%s", kLegend);
    for (const void* pNode = pListOfSockets->GetTail(); pNode; pNode = pListOfSockets->GetNext()) {
        AppendRow(report, static_cast<const SOCKET_INSTANCE*>(pNode));
    }
    return report.Release();
}

// Of one socket

unsigned int QueuedOutputLocked(const SOCKET_INSTANCE* pSocket) {
    unsigned int bytes = 0;
    tq_List* const pList = pSocket->pDataOutList;
    for (const void* pNode = pList ? pList->GetHead() : nullptr; pNode; pNode = pList->GetNext()) {
        bytes += static_cast<const DATA_BLOCK*>(pNode)->size;
    }
    return bytes;
}

void AppendHistory(tq_ReportText& report, const SOCKET_INSTANCE* pSocket) {
    report.Append("     Socket State History:\r\n");
    for (unsigned int back = 1; back <= kSocketHistorySize; ++back) {
        const unsigned int slot = (pSocket->SocketStateHistoryIndex + kSocketHistorySize - back) % kSocketHistorySize;
        const unsigned int event = pSocket->SocketStateHistory[slot];
        if (event != 0) {
            report.Append("     %10u:%s\r\n", pSocket->SocketStateTime[slot],
                          event < kEvents ? kEventTexts[event] : "Invalid / Unknown State!");
        }
    }
}

char* DetailsLocked(unsigned int handle) {
    const SOCKET_INSTANCE* const pSocket = FindSocketLocked(handle);
    tq_ReportText report(kDetailBytes);
    if (!pSocket) {
        report.Append("Invalid Socket Handle supplied.\r\n");
        return report.Release();
    }
    report.Append(" Details for socket handle: %u\r\n", pSocket->handle);
    report.Append("             Name: %s\r\n", NameOf(pSocket));
    report.Append("           socket: %u\r\n", pSocket->socket);
    report.Append("             type: %s\r\n", TextOf(kTypes, pSocket->type).pszWord);
    report.Append("            state: %s\r\n", TextOf(kStates, pSocket->state).pszWord);
    report.Append("       Multicast?: %s\r\n", pSocket->IsMultiCast ? "Yes" : "No");
    report.Append("      Src address: %s\r\n", SourceOf(pSocket).Text());
    report.Append("      Dst address: %s\r\n", DestinationOf(pSocket).Text());
    if (pSocket->pszSocketName) {
        report.Append("      Socket Name: %s\r\n", pSocket->pszSocketName);
    }
    report.Append("             MsgQ: %u\r\n", pSocket->hMsgQ);
    report.Append("         UserParm: %u\r\n", pSocket->UserParm);
    report.Append("      Data In Cap: %u\r\n", pSocket->DataInCap);
    report.Append("     Data Out Cap: %u\r\n", pSocket->DataOutCap);
    report.Append("  Data To Process: %u bytes\r\n", pSocket->DataInCount);
    report.Append("     Data To Send: %u bytes\r\n", QueuedOutputLocked(pSocket));
    AppendHistory(report, pSocket);
    return report.Release();
}

/// The handle among a command's arguments; 0 when there is none.
unsigned int HandleIn(char* pszCommand) {
    const char* const pszHandle = tq_NextConsoleWord(&pszCommand);
    return pszHandle ? static_cast<unsigned int>(strtoul(pszHandle, nullptr, kDecimal)) : 0;
}

} // namespace

unsigned int tq_SocketShowSockets(char** pszResponse, unsigned int uiFlags, char* pszCommand) {
    if (!pszResponse) {
        return 1;
    }
    *pszResponse = nullptr;
    tq_GatePass pass(gSocketGate);
    if (!pass) {
        *pszResponse = tq_newString("TQOS Sockets Subsystem not yet initialized!");
        return 0;
    }
    const bool bDetails = (uiFlags & kFlagDetail) != 0;
    const unsigned int handle = bDetails ? HandleIn(pszCommand) : 0;
    if (bDetails && handle == 0) {
        return 1;
    }
    tq_ListLock lock(pListOfSockets);
    if (pListOfSockets->NodeCount() == 0) {
        *pszResponse = tq_newString("No Sockets currently exist...");
    } else {
        *pszResponse = bDetails ? DetailsLocked(handle) : SummaryLocked();
    }
    return 0;
}

unsigned int tq_SocketShowInterfaces(char** pszResponse) {
    CheckForInitialization();
    tq_GatePass pass(gSocketGate);
    tq_ListLock lock(pass ? pListOfSockets : nullptr);
    const unsigned int count = pass ? g_localAddressCount : 0;
    if (!pszResponse) {
        return count;
    }
    tq_ReportText report(count * kBytesPerInterface + 1);
    for (unsigned int i = 0; i < count; ++i) {
        char dotted[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &g_localAddresses[i].ip, dotted, sizeof(dotted));
        report.Append("Interface %u:  ip: %-16s", i, dotted);
        report.Append("  MAC: %s\r\n", i < kMacAddresses ? g_localMacAddresses[i] : "");
    }
    if (count == 0) {
        report.Append("There are no socket interfaces available.\r\n");
    }
    *pszResponse = report.Release();
    return count;
}
