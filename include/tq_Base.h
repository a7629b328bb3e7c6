/// @file tq_Base.h
/// Small services that the rest of the library and its applications share: the log of critical errors, the assertion
/// hook, a tokeniser with quoting, random UUIDs, and string and number helpers that a small C library lacks.
///
/// An application meets LogCriticalError() in "tqos_error.log", and may call every function here at any time, also
/// before tqOS_Initialize() and after tqOS_Terminate(). All may be called from any thread; none takes a lock of the
/// library but LogCriticalError(), which says so. Functions that write to a text do not guard it: one text, one thread.
///
/// Settings, section "ErrorLog" of "tqos.ini":
/// - "Filename" ("tqos_error.log"): the file to which critical errors are appended; at most 511 characters; an empty
///   value leaves only the trace line.
/// - "AssertOnCriticalError" ("yes"): kept for tools; nothing in the library acts on it.
#ifndef TQ_BASE_H
#define TQ_BASE_H

#include "tq_Types.h"

/// 16 random bytes. The first three fields are in the machine's byte order.
typedef struct _TQ_UUID {
    unsigned int Data1;     ///< bytes 0 to 3
    unsigned short Data2;   ///< bytes 4 and 5
    unsigned short Data3;   ///< bytes 6 and 7
    unsigned char Data4[8]; ///< bytes 8 to 15
} TQ_UUID;

/// Flags of tq_getToken(), to be added up.
enum {
    TQ_TOKEN_STRIP_LEADING = 1,       ///< accepted, changes nothing
    TQ_TOKEN_STRIP_TRAILING = 2,      ///< remove the token's last character if it is one of pszStripChars; one at most
    TQ_TOKEN_REMOVE_ENCAPSULATORS = 4 ///< remove matching encapsulators from the token; what they enclose stays
};

extern "C" {

/// Reports a fault that must not go unseen. Appends a line, local time and message, to the critical-error log, and
/// traces the message on the library's own trace instance, with time stamp.
/// @param pMessage  the whole text. The log puts a line end behind it, the trace does not: end the text with "\n", as
///                  the library does, unless it is for the log alone. It is the format of the trace line, which has no
///                  arguments: "%%" is traced as one "%", anything else as it stands; the log has it unchanged. One of
///                  512 characters or more is traced only. Null: nothing is logged and nothing traced
/// @param bAbort    ends the process with abort() after the report
/// @param Level     trace level of the line; the library uses 30000 for memory that ran out, 40000 for corruption and
///                  misuse
/// @param Category  trace category of the line
/// A process that is killed may leave its last line torn; the next one begins with a line of its own. A log that cannot
/// be opened is passed over in silence; so is the trace line while the library does not run.
/// Threads: any. While the caller holds a lock of the library, the trace line is kept and printed when it leaves its
/// last one. A call made on the same thread from inside the report (say, because memory for it is refused) reports
/// nothing.
TQ_API void LogCriticalError(const char* pMessage, bool bAbort, int Level, int Category);

/// The hook that every critical report of the library calls with false after logging. It does nothing, whatever
/// bCondition is; it is the place for a breakpoint.
/// Threads: any.
TQ_API void tq_Assert(bool bCondition);

/// Fills a UUID with 16 bytes from rand(), which tqOS_Initialize() seeds; no version or variant bits are set.
/// @return true; false when uuid is null
/// Threads: any.
TQ_API bool tq_CreateUUID(_TQ_UUID* uuid);

/// Cuts the next token off a text, in place, in the manner of strtok_r but with quoting.
/// @param pszString              the text on the first call, which is changed; null on later calls
/// @param pszDelimiters          the characters that end a token
/// @param pszStartEncapsulators  characters that open a quoted stretch, in which delimiters are not seen; may be null
/// @param pszEndEncapsulators    the characters that close them, the k-th the one opened by the k-th; as many; may be
///                               null when there are none
/// @param pszStripChars          for TQ_TOKEN_STRIP_TRAILING; may be null
/// @param Flags                  TQ_TOKEN_* bits, 0 for none
/// @param instance               keeps the place in the text between calls; null in it means that the text is used up
/// @return the token, within the text; null when there is none left, when an opened encapsulator is never closed
///         (which ends the text), when pszDelimiters or instance is null, when pszString and *instance are both null,
///         or when there are not as many end as start encapsulators
/// On the first call delimiters at the start of the text are skipped (a text of nothing else gives one empty token). On
/// later calls a delimiter at the start gives an empty token, so "a,,b" has the three tokens "a", "" and "b"; a
/// delimiter that ends the text is not followed by an empty token.
/// Threads: any, each with a text and an instance of its own.
TQ_API char* tq_getToken(char* pszString, const char* pszDelimiters, const char* pszStartEncapsulators,
                         const char* pszEndEncapsulators, const char* pszStripChars, int Flags, char** instance);

/// Position, from 1, of the first occurrence of a character in a set.
/// @return 0 when it is not there, when pszSet is null, and for the character 0
/// Threads: any.
TQ_API unsigned int IsCharInSet(char ch, const char* pszSet);

/// Makes a text lower-case in place, as tolower() does; a null text is passed over.
/// @return string
/// Threads: any, each with a text of its own.
TQ_API char* _strlwr(char* string);

/// Writes a number in decimal.
/// @param value   any
/// @param string  receives the text; room for 12 bytes
/// @param radix   accepted and ignored: itoa(255, buf, 16) writes "255"
/// @return string
/// Threads: any.
TQ_API char* itoa(int value, char* string, int radix);

/// As itoa(), for a long; room for 21 bytes (12 in the 32-bit width).
TQ_API char* ltoa(long value, char* string, int radix);

/// The C library's strtok_r().
TQ_API char* tq_strtok_r(char* s, const char* delim, char** save_ptr);

/// The next character of standard input, waiting for it as getchar() does.
/// @return the character, 0 to 255, or EOF
/// Threads: any; standard input's own lock orders them.
TQ_API int tq_getch();

/// Names the configuration file, "tqos.ini" in the working directory, and reads the settings above. The first step of
/// tqOS_Initialize(); not called by applications.
/// @return 0
/// Threads: one, before others use the library.
TQ_API unsigned int tq_BaseInitialize();

/// The last step of tqOS_Terminate(). Does nothing: the error log stays in use.
TQ_API void tq_BaseTerminate();

} // extern "C"

#endif // TQ_BASE_H
