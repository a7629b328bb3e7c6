// Who may come into the console.
#include "tq_TelnetGuard_p.h"

#include <algorithm>
#include <arpa/inet.h>
#include <string.h>
#include <time.h>

#include "tq_IniKeys_p.h"
#include "tq_Lifecycle_p.h"
#include "tq_Memory.h"
#include "tq_Socket_p.h"
#include "tq_Telnet_p.h"
#include "tq_Trace.h"

// Settings

namespace {

constexpr unsigned int kMostSeconds = 1000000;

/// Addresses whose failed logins are known. With more of them the one that has failed longest ago is forgotten.
constexpr unsigned int kAddresses = 256;

unsigned int guiMaxSessions = 0;
unsigned int guiLoginSeconds = 0;
unsigned int guiBackOffSeconds = 0;

constexpr tq_IniInteger kLimits[] = {
    {"MaxSessions", 0, &guiMaxSessions},
    {"LoginSeconds", 0, &guiLoginSeconds},
    {"BackOffSeconds", 0, &guiBackOffSeconds},
};

/// A negative limit is none.
void MendLimit(unsigned int* puiLimit, unsigned int most) {
    *puiLimit = static_cast<int>(*puiLimit) < 0 ? 0 : std::min(*puiLimit, most);
}

} // namespace

// State

namespace {

bool gbRequirePassword = false;

/// So long that a line can be compared with it byte by byte to the longest line's end, with zeros behind the password.
char* gpszPassword = nullptr;
size_t gPasswordBytes = 0;

/// Failed logins from one address.
struct Failures {
    unsigned int ip; ///< network byte order; 0: the entry is free
    unsigned int count;
    time_t last; ///< seconds of a clock that nobody sets
};
Failures gFailures[kAddresses];

} // namespace

// The password

bool tq_TelnetSetPassword(const char* pszPassword) {
    gbRequirePassword = pszPassword && *pszPassword != '\0';
    if (!gbRequirePassword) {
        return true;
    }
    const size_t length = strlen(pszPassword);
    gPasswordBytes = std::max<size_t>(length, kMaxCommandLength) + 1;
    gpszPassword = static_cast<char*>(tq_calloc(1, static_cast<unsigned int>(gPasswordBytes)));
    if (gpszPassword) {
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the buffer is longer, and all zeros
        memcpy(gpszPassword, pszPassword, length);
    }
    return gpszPassword != nullptr;
}

void tq_TelnetForgetPassword() {
    if (gpszPassword) {
        explicit_bzero(gpszPassword, gPasswordBytes);
    }
    tq_free(gpszPassword);
    gpszPassword = nullptr;
    gbRequirePassword = false;
}

bool tq_TelnetNeedsPassword() {
    return gbRequirePassword;
}

bool tq_TelnetIsPassword(const char* pLine, size_t length) {
    if (!gpszPassword || length > kMaxCommandLength) {
        return false;
    }
    char line[kMaxCommandLength + 1] = {};
    memcpy(line, pLine, length);
    volatile unsigned char different = 0; // volatile: every byte is looked at, also after the first that differs
    for (size_t i = 0; i <= kMaxCommandLength; ++i) {
        different = static_cast<unsigned char>(different | (line[i] ^ gpszPassword[i]));
    }
    explicit_bzero(line, sizeof(line));
    return different == 0;
}

// Addresses

namespace {

time_t Now() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/// The failures of an address that still count, or null.
Failures* FailuresOf(unsigned int ip) {
    const time_t now = Now();
    for (Failures& entry : gFailures) {
        if (entry.ip == ip && ip != 0) {
            return now - entry.last < static_cast<time_t>(guiBackOffSeconds) ? &entry : nullptr;
        }
    }
    return nullptr;
}

/// The entry for an address: its own, a free one, or that of the address that has failed longest ago.
Failures& EntryFor(unsigned int ip) {
    Failures* pOldest = gFailures;
    for (Failures& entry : gFailures) {
        if (entry.ip == ip) {
            return entry;
        }
        if (entry.ip == 0 ? pOldest->ip != 0 : pOldest->ip != 0 && entry.last < pOldest->last) {
            pOldest = &entry;
        }
    }
    return *pOldest;
}

void CountFailure(unsigned int ip) {
    if (guiBackOffSeconds == 0 || ip == 0) {
        return;
    }
    const Failures* pKnown = FailuresOf(ip);
    const unsigned int before = pKnown ? pKnown->count : 0;
    EntryFor(ip) = {ip, before + 1, Now()};
}

} // namespace

unsigned int tq_TelnetAddressOf(unsigned int hSocket) {
    return PeerOfSocket(hSocket).sin_addr.s_addr;
}

bool tq_TelnetHoldsOff(unsigned int ip) {
    const Failures* pFailures = guiBackOffSeconds ? FailuresOf(ip) : nullptr;
    return pFailures && pFailures->count >= kLoginTries;
}

bool tq_TelnetRefuses(unsigned int ip, unsigned int sessions) {
    return (guiMaxSessions != 0 && sessions >= guiMaxSessions) || tq_TelnetHoldsOff(ip);
}

void tq_TelnetLoginFailed(unsigned int hSocket) {
    const struct sockaddr_in peer = PeerOfSocket(hSocket);
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof(address));
    tq_Trace(tqosTraceHandle, TQ_TRACE_LEVEL_WARNING, TQ_TRACE_CAT_SYSTEM, /*bIncludeTimeStamp=*/true,
             "tqos Telnet: Failed login from %s port %u.\n", address, ntohs(peer.sin_port));
    CountFailure(peer.sin_addr.s_addr);
}

void tq_TelnetLoginSucceeded(unsigned int hSocket) {
    if (Failures* pFailures = FailuresOf(tq_TelnetAddressOf(hSocket))) {
        *pFailures = {};
    }
}

// Limits

unsigned int tq_TelnetLoginMs() {
    return guiLoginSeconds * 1000;
}

void tq_TelnetGuardStart() {
    tq_ReadIniTable("Telnet", kLimits);
    MendLimit(&guiMaxSessions, 0x7FFFFFFF);
    MendLimit(&guiLoginSeconds, kMostSeconds);
    MendLimit(&guiBackOffSeconds, kMostSeconds);
    memset(gFailures, 0, sizeof(gFailures));
}
