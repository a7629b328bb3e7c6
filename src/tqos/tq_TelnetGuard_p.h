/// @file tq_TelnetGuard_p.h
/// Who may come into the console: the password, and the limits of section "Telnet" of tqos.ini. Everything here is
/// called with the list of sessions locked, but for the start and the end, which nobody is beside.
#ifndef TQ_TELNETGUARD_P_H
#define TQ_TELNETGUARD_P_H

#include <stddef.h>

/// What a session's socket keeps of input that the console has not come to. The peer's own system keeps the rest.
constexpr unsigned int kSessionInputCap = 4096;

/// What a session's socket keeps, before the login, of output that the peer does not take. What goes beyond is dropped.
constexpr unsigned int kLoginOutputCap = 65536;

/// Failed logins after which a session ends, and an address is held off where that is asked for.
constexpr unsigned int kLoginTries = 3;

/// Reads the limits and forgets what was known of addresses.
void tq_TelnetGuardStart();

/// Keeps a copy of the password; null or empty: none is asked for. False without memory.
bool tq_TelnetSetPassword(const char* pszPassword);
/// Forgets the password, in memory too.
void tq_TelnetForgetPassword();
bool tq_TelnetNeedsPassword();
/// Compares a line with the password. The time it takes says nothing about the password; it depends on the length of
/// the line alone.
bool tq_TelnetIsPassword(const char* pLine, size_t length);

/// Whether a connection from this address (network byte order) is closed as soon as it comes.
bool tq_TelnetRefuses(unsigned int ip, unsigned int sessions);
/// Whether nobody from this address may log in until its back-off is over.
bool tq_TelnetHoldsOff(unsigned int ip);
/// Traces a failed login of the session with this socket, and counts it against the peer's address.
void tq_TelnetLoginFailed(unsigned int hSocket);
/// Forgets the failures of the peer's address.
void tq_TelnetLoginSucceeded(unsigned int hSocket);

/// The peer's address of a session, network byte order; 0 when the socket is gone.
unsigned int tq_TelnetAddressOf(unsigned int hSocket);

/// Milliseconds that a session has for its login; 0: any time.
unsigned int tq_TelnetLoginMs();

#endif // TQ_TELNETGUARD_P_H
