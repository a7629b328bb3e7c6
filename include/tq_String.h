/// @file tq_String.h
/// A byte string that grows as text is added to it, with escaping for URLs, XML and HTML.
///
/// Create one with tq_string_create(), add to it, read it through tq_string_ptr(), and destroy it:
///
///     TqString* s = tq_string_create(0);
///     tq_string_sprintf(s, "name=%s", pszName);
///     tq_string_escape(s);
///     Send(tq_string_ptr(s, 0));
///     tq_string_destroy(s);
///
/// The text is always followed by a zero byte. Offsets and lengths are in bytes, offsets from 0. A text that is put
/// into a string is copied; it may be a piece of the same string. A string that is full grows by its own capacity, or
/// by what is to be added when that is more.
///
/// After tq_string_escape(), tq_string_xmlEscape() and tq_string_xmlUnEscape() the length counts the terminating zero
/// too: what is then appended stands behind that zero, where a reader of the text does not see it. Append first.
///
/// Threads: a string belongs to one thread at a time. Different strings may be used by different threads at once.
/// tq_string_sprintf() and the named entities of the unescaping calls need the running library; everything else works
/// at any time.
#ifndef TQ_STRING_H
#define TQ_STRING_H

#include "tq_Types.h"

/// A growing string. Applications read it through the functions.
typedef struct _TqString {
    unsigned int sizeInBytes; ///< capacity of the buffer
    unsigned int bytesUsed;   ///< length of the text; one more after tq_string_escape(), xmlEscape() and xmlUnEscape()
    unsigned int bytesFree;   ///< sizeInBytes - bytesUsed
    unsigned char* ptr;       ///< the buffer, zero-filled behind the text
    char* Reserved;           ///< where tq_string_strtok() goes on; null when it is not under way
} TqString;

/// An entity.
typedef struct _TQ_ESCAPE_XLATE {
    const char* pszEncoding; ///< its name with the ";" that ends it
    unsigned int character;  ///< what it stands for
    unsigned int length;     ///< the name's length with the ";"
} TQ_ESCAPE_XLATE;

/// As the offset of tq_string_strtok(): go on behind the token found last.
enum : unsigned int { TQ_STRING_NEXT_TOKEN = 0xFFFFFFFFu };

extern "C" {

/// Builds what finds an entity by its name, and the lock of tq_string_sprintf()'s buffer. tqOS_Initialize() calls it;
/// applications do not. @return 0, also when it is there already, or 1 without memory
TQ_API unsigned int tq_StringInitialize();
/// Waits for the calls that are using it and frees what tq_StringInitialize() built. tqOS_Terminate() calls it;
/// applications do not.
TQ_API void tq_StringTerminate();

/// A new, empty string with room for initialSize bytes (0: 1024), its terminating zero included; null without memory.
TQ_API TqString* tq__string_create(unsigned int initialSize, const char* pszFilename, unsigned int line);
/// Frees the string; null is accepted.
TQ_API void tq__string_destroy(TqString* s, const char* pszFilename, unsigned int line);
/// A new string holding a copy of the text, with no more room than that; null without memory or for a null text.
TQ_API TqString* tq__string_duplicate(const char* pszText, const char* pszFilename, unsigned int line);
/// A new string holding `length` bytes from `offset`; null when offset is not below the length of the text, when the
/// piece reaches beyond it, for a null string or without memory.
TQ_API TqString* tq__string_substring(TqString* s, unsigned int offset, unsigned int length, const char* pszFilename,
                                      unsigned int line);

/// Empties the text and fills the buffer with zeros; the capacity stays. @return 0, or 1 for a null string
TQ_API int tq_string_reset(TqString* s);
/// The length of the text; 0 for a null string.
TQ_API unsigned int tq_string_length(TqString* s);
/// The byte at an offset, up to and including the end of the text; null beyond it or for a null string. Valid until the
/// string is changed.
TQ_API unsigned char* tq_string_ptr(TqString* s, unsigned int offset);
/// The text's decimal value as atoi() reads it; 0 for a null string.
TQ_API int tq_string_atoi(TqString* s);
/// The offset of the first occurrence of a text at or behind `offset` (there itself for an empty text); -1 when there
/// is none, when offset is not below the length of the text, or for null.
TQ_API int tq_string_find(TqString* s, const char* pszSearch, unsigned int offset);
/// The offset of the next token, which is ended by one of searchChars and cut off there with a zero byte (see
/// tq_getToken()): the first token from `offset` on, or with TQ_STRING_NEXT_TOKEN the one behind the token found last.
/// -1 when there is none. Changing the string in any other way ends the tokenising.
TQ_API int tq_string_strtok(TqString* s, const char* pszSearchChars, unsigned int offset);
/// Takes the first line off the text: copies what stands before the first "\r\n" to dst, with a terminating zero, and
/// removes it and the "\r\n". @return 0; 1, with nothing changed, when there is no "\r\n", when the line is longer than
/// dstSize - 1 bytes, or for null
TQ_API int tq__string_getline(TqString* s, char* dst, unsigned int dstSize, const char* pszFilename, unsigned int line);

/// Replaces replaceLength bytes at `offset` by a text (null: none). @return 0; 1, with nothing changed, when offset is
/// not below the length of the text, when the piece reaches beyond it, or without memory
TQ_API int tq__string_replace(TqString* s, unsigned int offset, unsigned int replaceLength, const char* pszInsert,
                              const char* pszFilename, unsigned int line);
/// Inserts a text before the byte at `offset`. Not at the end: that is tq_string_append()'s. Results as
/// tq_string_replace().
TQ_API int tq_string_insert(TqString* s, unsigned int offset, const char* pszInsert);
/// Appends a text. @return 0; 1, with nothing changed, for null or without memory
TQ_API int tq__string_append(TqString* s, const char* pszSuffix, const char* pszFilename, unsigned int line);
/// Appends at most appendLength bytes of a text; results as tq_string_append().
TQ_API int tq__string_nappend(TqString* s, const char* pszSuffix, unsigned int appendLength, const char* pszFilename,
                              unsigned int line);
/// Appends the decimal form of a number; results as tq_string_append().
TQ_API int tq_string_appendInteger(TqString* s, unsigned int integer);
/// Formats as printf does and appends, at most 65535 bytes; the rest is cut. Takes the lock of a buffer that all
/// threads share. @return as tq_string_append(); 1 also while the library is not running
TQ_API int tq_string_sprintf(TqString* s, const char* pszFormat, ...) TQ_PRINTF(2, 3);
/// Turns the text to lower case as _strlwr() does. @return 0, or 1 for a null string
TQ_API int tq_string_strlwr(TqString* s);

/// Escapes for URLs and attributes: blank, "=" and "'" become "%20", "%3D" and "%27"; "&", "<", ">" and the double
/// quote become entities ("&amp;"); control characters, DEL, "@" and bytes from 128 become "&#x40;". bytesUsed then
/// counts the terminating zero too. @return 0; 1, with nothing changed, without memory or for a null string
TQ_API int tq_string_escape(TqString* s);
/// Undoes tq_string_escape(): named entities, "%" with two hexadecimal digits (upper case), and numeric references
/// ("&#65;", "&#x41;", at most 15 digits, the ";" may be missing; the low 8 bits count). With bNumericsOnly numeric
/// references alone. A zero byte that comes out ends the text; "&#X" with an upper-case X gives one. Named entities and
/// percent escapes are read first, references after them: what "&amp;#65;" gives is read again and becomes "A".
/// @return as tq_string_escape(); 1 also while the library is not running, unless bNumericsOnly
TQ_API int tq_string_unescape(TqString* s, bool bNumericsOnly);
/// Escapes for XML: "&", "<", ">", the double quote and "'" become entities; everything else stays. bytesUsed then
/// counts the terminating zero too. @return as tq_string_escape()
TQ_API int tq_string_xmlEscape(TqString* s);
/// Undoes named entities ("&amp;", the ISO 8859-1 names, "&nbsp;" for a blank); unknown ones and numeric references
/// stay. bytesUsed then counts the terminating zero too. @return as tq_string_escape(); 1 also while the library is not
/// running
TQ_API int tq_string_xmlUnEscape(TqString* s);

} // extern "C"

/// tq__string_create() with the file and line of the call.
#define tq_string_create(initialSize) tq__string_create((initialSize), __FILE__, __LINE__)
/// tq__string_destroy() with the file and line of the call.
#define tq_string_destroy(s) tq__string_destroy((s), __FILE__, __LINE__)
/// tq__string_duplicate() with the file and line of the call.
#define tq_string_duplicate(pszText) tq__string_duplicate((pszText), __FILE__, __LINE__)
/// tq__string_substring() with the file and line of the call.
#define tq_string_substring(s, offset, length) tq__string_substring((s), (offset), (length), __FILE__, __LINE__)
/// tq__string_getline() with the file and line of the call.
#define tq_string_getline(s, dst, dstSize) tq__string_getline((s), (dst), (dstSize), __FILE__, __LINE__)
/// tq__string_replace() with the file and line of the call.
#define tq_string_replace(s, offset, replaceLength, pszInsert)                                                         \
    tq__string_replace((s), (offset), (replaceLength), (pszInsert), __FILE__, __LINE__)
/// tq__string_append() with the file and line of the call.
#define tq_string_append(s, pszSuffix) tq__string_append((s), (pszSuffix), __FILE__, __LINE__)
/// tq__string_nappend() with the file and line of the call.
#define tq_string_nappend(s, pszSuffix, appendLength)                                                                  \
    tq__string_nappend((s), (pszSuffix), (appendLength), __FILE__, __LINE__)

#endif // TQ_STRING_H
