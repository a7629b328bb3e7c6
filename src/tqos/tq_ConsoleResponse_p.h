/// @file tq_ConsoleResponse_p.h
/// Seam: a report reaches a console session. The floors below the console build the texts; the console alone knows its
/// queue and its sessions. Each call posts a message and never blocks on the console; none may be made while holding
/// a lock that a sender of messages may wait for (the queue registry, a queue, the list registry, a pool, a memory
/// lock).
#ifndef TQ_CONSOLERESPONSE_P_H
#define TQ_CONSOLERESPONSE_P_H

struct _MSG_COMMON;

/// Sends a line or text to the console session `instance`, without the "Response received" line before it. Nothing is
/// sent for a null or empty text, or while no console runs.
void tq_RespondToConsole(const char* pszText, unsigned int instance);

/// Answers a request that the console has sent to a queue of the library's own (MSG_TELNET_SUMMARY), as an
/// application's queue does: from the request's receiver, to the session that asked.
void tq_AnswerConsole(const char* pszText, const struct _MSG_COMMON& request);

/// The next word of a command's arguments, cut out of the text in place; null when there is none. See
/// tq_TelnetGetNextToken().
char* tq_NextConsoleWord(char** ppszArguments);

/// The console queue's handle, 0 while no console runs. Its own pending messages are never dumped by a report: the dump
/// would feed the queue that is being dumped.
unsigned int tq_ConsoleQueueHandle();

/// A response as a message in memory that the caller provides: how many bytes it takes, and filling and posting it. A
/// report about memory allocates its responses in a way of its own, so that it does not change what it reports.
unsigned int tq_ConsoleMessageBytes(const char* pszText);
/// True when the message was handed over; false leaves the memory with the caller.
bool tq_PostConsoleMessage(void* pMemory, const char* pszText, unsigned int instance, unsigned int flags);

#endif // TQ_CONSOLERESPONSE_P_H
