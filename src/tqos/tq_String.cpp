#include "tq_String.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_Base.h"
#include "tq_Gate_p.h"
#include "tq_List_p.h"
#include "tq_LockOrder_p.h"
#include "tq_Memory.h"
#include "tq_SemCritSec.h"
#include "tq_WorkingLock_p.h"

static_assert(sizeof(void*) != 4 || (sizeof(TqString) == 20 && offsetof(TqString, ptr) == 12),
              "record of applications");

namespace {

constexpr unsigned int kDefaultBytes = 1024;
constexpr unsigned int kSandboxBytes = 65536;
constexpr unsigned int kSecondTryBytes = 262141; // for what the formatter refuses to put into the sandbox
constexpr unsigned int kMostBytes = 0x7FFFFFFFu; // of a text that is put in at once, and of an escaped one
constexpr unsigned int kBuckets = 50;
constexpr unsigned int kMaxReferenceDigits = 15;
constexpr char kPercentSet[] = {' ', '=', '\''};

template <size_t size> constexpr TQ_ESCAPE_XLATE Row(const char (&name)[size], unsigned int character) {
    return {name, character, size - 1};
}

// Order matters: a later row for the same character takes its place in the index, and the first row, the blank's, has
// index 0 there, which means "not escaped".
// Deliberate: a blank is never written as "&nbsp;", although "&nbsp;" is read as one. 173 has two names, which are read
// alike.
constexpr TQ_ESCAPE_XLATE gEntities[] = {
    Row("nbsp;", 32),    Row("amp;", 38),     Row("lt;", 60),      Row("gt;", 62),      Row("quot;", 34),
    Row("apos;", 39),    Row("iexcl;", 161),  Row("cent;", 162),   Row("pound;", 163),  Row("curren;", 164),
    Row("yen;", 165),    Row("brvbar;", 166), Row("sect;", 167),   Row("uml;", 168),    Row("copy;", 169),
    Row("ordf;", 170),   Row("laquo;", 171),  Row("not;", 172),    Row("shy;", 173),    Row("mdash;", 173),
    Row("reg;", 174),    Row("macr;", 175),   Row("deg;", 176),    Row("plusmn;", 177), Row("sup2;", 178),
    Row("sup3;", 179),   Row("acute;", 180),  Row("micro;", 181),  Row("para;", 182),   Row("middot;", 183),
    Row("cedil;", 184),  Row("sup1;", 185),   Row("ordm;", 186),   Row("raquo;", 187),  Row("frac14;", 188),
    Row("frac12;", 189), Row("frac34;", 190), Row("iquest;", 191), Row("Agrave;", 192), Row("Aacute;", 193),
    Row("Acirc;", 194),  Row("Atilde;", 195), Row("Auml;", 196),   Row("Aring;", 197),  Row("AElig;", 198),
    Row("Ccedil;", 199), Row("Egrave;", 200), Row("Eacute;", 201), Row("Ecirc;", 202),  Row("Euml;", 203),
    Row("Igrave;", 204), Row("Iacute;", 205), Row("Icirc;", 206),  Row("Iuml;", 207),   Row("ETH;", 208),
    Row("Ntilde;", 209), Row("Ograve;", 210), Row("Oacute;", 211), Row("Ocirc;", 212),  Row("Otilde;", 213),
    Row("Ouml;", 214),   Row("times;", 215),  Row("Oslash;", 216), Row("Ugrave;", 217), Row("Uacute;", 218),
    Row("Ucirc;", 219),  Row("Uuml;", 220),   Row("Yacute;", 221), Row("THORN;", 222),  Row("szlig;", 223),
    Row("agrave;", 224), Row("aacute;", 225), Row("acirc;", 226),  Row("atilde;", 227), Row("auml;", 228),
    Row("aring;", 229),  Row("aelig;", 230),  Row("ccedil;", 231), Row("egrave;", 232), Row("eacute;", 233),
    Row("ecirc;", 234),  Row("euml;", 235),   Row("igrave;", 236), Row("iacute;", 237), Row("icirc;", 238),
    Row("iuml;", 239),   Row("eth;", 240),    Row("ntilde;", 241), Row("ograve;", 242), Row("oacute;", 243),
    Row("ocirc;", 244),  Row("otilde;", 245), Row("ouml;", 246),   Row("divide;", 247), Row("oslash;", 248),
    Row("ugrave;", 249), Row("uacute;", 250), Row("ucirc;", 251),  Row("uuml;", 252),   Row("yacute;", 253),
    Row("thorn;", 254),  Row("yuml;", 255),   {nullptr, 0, 0},
};
constexpr unsigned int kEntities = sizeof(gEntities) / sizeof(gEntities[0]) - 1;
static_assert(kEntities == 102, "the entity table");

/// A character's row in gEntities, 0 when it has none.
struct EscapeIndex {
    unsigned char row[256];
};

constexpr EscapeIndex IndexRows() {
    EscapeIndex index = {};
    for (unsigned int row = 0; row < kEntities; ++row) {
        index.row[gEntities[row].character] = static_cast<unsigned char>(row);
    }
    return index;
}

constexpr unsigned int LongestName() {
    unsigned int longest = 0;
    for (const TQ_ESCAPE_XLATE& row : gEntities) {
        longest = row.length > longest ? row.length : longest;
    }
    return longest;
}

constexpr EscapeIndex gAmpersandEscapeTable = IndexRows();
constexpr unsigned int kLongestName = LongestName();

// State: built by the start and taken down by the termination, both behind the gate; in between it does not change, but
// for the sandbox.
tq_Gate gStringGate;
tq_List* gpEntityList = nullptr; // every row; its hash finds one by its name
unsigned int gAmpersandUnEscapeHash = 0;
tq_SemCritSec* gpSandboxLock = nullptr;
char gSandbox[kSandboxBytes]; // under gpSandboxLock

// Text and buffer. At least one byte of the buffer is always free, so that a zero stands behind bytesUsed.

/// The text's length up to its first zero byte. bytesUsed may count that byte too.
unsigned int TextLength(const TqString* s) {
    return static_cast<unsigned int>(strnlen(reinterpret_cast<const char*>(s->ptr), s->bytesUsed));
}

void SetUsed(TqString* s, unsigned int bytesUsed) {
    s->bytesUsed = bytesUsed;
    s->bytesFree = s->sizeInBytes - bytesUsed;
    s->Reserved = nullptr; // the tokeniser's place is not one in the changed text
}

/// Shortens the text in place and clears what stood behind it.
void Shorten(TqString* s, unsigned int length, unsigned int bytesUsed) {
    if (length < s->bytesUsed) {
        memset(s->ptr + length, 0, s->bytesUsed - length);
    }
    SetUsed(s, bytesUsed);
}

/// Makes room for n more bytes and the zero behind them; false without memory, with nothing changed.
bool MakeRoom(TqString* s, unsigned int n, const char* pszFilename, unsigned int line) {
    if (s->bytesFree > n) {
        return true;
    }
    const unsigned int growth = n > s->sizeInBytes ? n : s->sizeInBytes;
    unsigned int capacity = 0;
    if (__builtin_add_overflow(s->sizeInBytes, growth, &capacity)) {
        return false;
    }
    unsigned char* pLarger = static_cast<unsigned char*>(tq__calloc(1, capacity, pszFilename, line));
    if (!pLarger) {
        return false;
    }
    memcpy(pLarger, s->ptr, s->bytesUsed);
    tq__free(s->ptr, pszFilename, line);
    s->ptr = pLarger;
    s->sizeInBytes = capacity;
    SetUsed(s, s->bytesUsed);
    return true;
}

/// Puts `length` bytes, from outside the buffer, in place of others; the places have been checked. 0, or 1 without
/// memory.
int Splice(TqString* s, unsigned int offset, unsigned int replaced, const char* pText, unsigned int length,
           const char* pszFilename, unsigned int line) {
    if (length > replaced && !MakeRoom(s, length - replaced, pszFilename, line)) {
        return 1;
    }
    const unsigned int behind = offset + replaced;
    const unsigned int used = s->bytesUsed - replaced + length;
    memmove(s->ptr + offset + length, s->ptr + behind, s->bytesUsed - behind);
    memcpy(s->ptr + offset, pText, length);
    if (used < s->bytesUsed) {
        memset(s->ptr + used, 0, s->bytesUsed - used);
    }
    SetUsed(s, used);
    return 0;
}

bool PointsInto(const TqString* s, const char* pText) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(pText);
    const uintptr_t buffer = reinterpret_cast<uintptr_t>(s->ptr);
    return address >= buffer && address - buffer < s->sizeInBytes;
}

/// Splice() for a text that the caller gave, which may be a piece of the string itself.
int SpliceText(TqString* s, unsigned int offset, unsigned int replaced, const char* pszText, size_t length,
               const char* pszFilename, unsigned int line) {
    if (length > kMostBytes) {
        return 1;
    }
    const unsigned int bytes = static_cast<unsigned int>(length);
    if (!PointsInto(s, pszText)) {
        return Splice(s, offset, replaced, pszText, bytes, pszFilename, line);
    }
    char* const pCopy = static_cast<char*>(tq__malloc(bytes + 1, pszFilename, line));
    if (!pCopy) {
        return 1;
    }
    memcpy(pCopy, pszText, bytes);
    const int result = Splice(s, offset, replaced, pCopy, bytes, pszFilename, line);
    tq__free(pCopy, pszFilename, line);
    return result;
}

bool IsInside(const TqString* s, unsigned int offset, unsigned int length) {
    return offset < s->bytesUsed && length <= s->bytesUsed - offset; // no sum that could wrap
}

TqString* NewString(unsigned int bytes, const char* pszFilename, unsigned int line) {
    TqString* s = static_cast<TqString*>(tq__calloc(1, sizeof(TqString), pszFilename, line));
    if (!s) {
        return nullptr;
    }
    s->ptr = static_cast<unsigned char*>(tq__calloc(1, bytes, pszFilename, line));
    if (!s->ptr) {
        tq__free(s, pszFilename, line);
        return nullptr;
    }
    s->sizeInBytes = bytes;
    SetUsed(s, 0);
    return s;
}

TqString* NewStringOf(const void* pText, unsigned int length, const char* pszFilename, unsigned int line) {
    TqString* s = length < 0xFFFFFFFFu ? NewString(length + 1, pszFilename, line) : nullptr;
    if (s) {
        memcpy(s->ptr, pText, length);
        SetUsed(s, length);
    }
    return s;
}

// Escaping

/// One character in its escaped form; the form's length.
struct Escaped {
    char text[16];
    unsigned int length;

    void Copy(unsigned char c) {
        text[0] = static_cast<char>(c);
        length = 1;
    }
    void Format(const char* pszFormat, unsigned int value) TQ_PRINTF(2, 0) {
        length = static_cast<unsigned int>(snprintf(text, sizeof(text), pszFormat, value));
    }
    void Entity(const TQ_ESCAPE_XLATE& row) {
        text[0] = '&';
        memcpy(text + 1, row.pszEncoding, row.length);
        length = row.length + 1;
    }
};

/// The row that a character is escaped by, or null. Bytes from 128 have none, although rows stand for them.
const TQ_ESCAPE_XLATE* EntityOf(unsigned char c) {
    const unsigned int row = c < 128 ? gAmpersandEscapeTable.row[c] : 0;
    return row ? &gEntities[row] : nullptr;
}

Escaped EscapeForXml(unsigned char c) {
    Escaped escaped;
    if (const TQ_ESCAPE_XLATE* pRow = EntityOf(c)) {
        escaped.Entity(*pRow);
    } else {
        escaped.Copy(c);
    }
    return escaped;
}

Escaped EscapeForUrl(unsigned char c) {
    Escaped escaped;
    if (memchr(kPercentSet, c, sizeof(kPercentSet))) {
        escaped.Format("%%%02X", c);
    } else if (const TQ_ESCAPE_XLATE* pRow = EntityOf(c)) {
        escaped.Entity(*pRow);
    } else if (c < 32 || c == '@' || c >= 127) {
        escaped.Format("&#x%02X;", c);
    } else {
        escaped.Copy(c);
    }
    return escaped;
}

/// Escapes the whole text into a buffer that is as large as before, or as large as needed.
int EscapeAll(TqString* s, Escaped (*Escape)(unsigned char c)) {
    if (!s) {
        return 1;
    }
    const unsigned int length = TextLength(s);
    unsigned long long needed = 1; // the zero that is counted
    for (unsigned int i = 0; i < length; ++i) {
        needed += Escape(s->ptr[i]).length;
    }
    if (needed > kMostBytes) {
        return 1;
    }
    const unsigned int bytes = static_cast<unsigned int>(needed);
    const unsigned int capacity = bytes + 1 > s->sizeInBytes ? bytes + 1 : s->sizeInBytes;
    unsigned char* pEscaped = static_cast<unsigned char*>(tq_calloc(1, capacity));
    if (!pEscaped) {
        return 1;
    }
    unsigned char* pOut = pEscaped;
    for (unsigned int i = 0; i < length; ++i) {
        const Escaped escaped = Escape(s->ptr[i]);
        memcpy(pOut, escaped.text, escaped.length);
        pOut += escaped.length;
    }
    tq_free(s->ptr);
    s->ptr = pEscaped;
    s->sizeInBytes = capacity;
    // Deliberate: the terminating zero counts as part of the text here. One would expect the length alone; what is
    // appended next stands behind that zero.
    SetUsed(s, bytes);
    return 0;
}

// Unescaping

/// The bucket of an entity's name.
/// Deliberate: the last character does not count. For the names, which end in ";", the sum so covers the name proper.
unsigned int MyHash(const char* pszText, size_t length) {
    unsigned int sum = 0;
    for (size_t i = 0; i + 1 < length; ++i) {
        sum += static_cast<unsigned int>(static_cast<signed char>(pszText[i]));
    }
    return sum % kBuckets;
}

extern "C" unsigned int HashOfRow(void* pNode, void*) {
    const TQ_ESCAPE_XLATE* pRow = static_cast<const TQ_ESCAPE_XLATE*>(pNode);
    return MyHash(pRow->pszEncoding, pRow->length);
}

/// The row with this name (its ";" included), or null.
const TQ_ESCAPE_XLATE* FindEntity(const char* pName, unsigned int length) {
    const tq_ListLock lock(gpEntityList);
    void* pNode = gpEntityList->HashFindFirst(gAmpersandUnEscapeHash, MyHash(pName, length));
    for (; pNode; pNode = gpEntityList->HashFindNext(gAmpersandUnEscapeHash)) {
        const TQ_ESCAPE_XLATE* pRow = static_cast<const TQ_ESCAPE_XLATE*>(pNode);
        if (pRow->length == length && memcmp(pRow->pszEncoding, pName, length) == 0) {
            return pRow;
        }
    }
    return nullptr;
}

/// A piece of escaped text and what it stands for.
struct Unescaped {
    unsigned char byte;
    unsigned int length; ///< bytes of the piece
};

/// The named entity at the start of a text, which begins with "&"; false when there is none that is known.
bool ReadEntity(const char* pText, unsigned int left, Unescaped& found) {
    const unsigned int searched = left - 1 < kLongestName ? left - 1 : kLongestName;
    const void* pEnd = memchr(pText + 1, ';', searched);
    if (!pEnd) {
        return false;
    }
    const unsigned int length = static_cast<unsigned int>(static_cast<const char*>(pEnd) - pText); // without the "&"
    const TQ_ESCAPE_XLATE* pRow = FindEntity(pText + 1, length);
    if (pRow) {
        found = {static_cast<unsigned char>(pRow->character), length + 1};
    }
    return pRow != nullptr;
}

/// A digit's value below `base`, 10 or 16; -1 when it is none.
int DigitValue(char c, unsigned int base) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return base == 16 && lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// A digit of a percent escape.
int PercentDigitValue(char c) {
    // Deliberate: lower-case digits, which references take, are none here; "%4a" stays as it is.
    return c >= 'a' ? -1 : DigitValue(c, 16);
}

bool ReadPercent(const char* pText, unsigned int left, Unescaped& found) {
    if (left < 3) {
        return false;
    }
    const int high = PercentDigitValue(pText[1]);
    const int low = PercentDigitValue(pText[2]);
    if (high < 0 || low < 0) {
        return false;
    }
    found = {static_cast<unsigned char>(high * 16 + low), 3};
    return true;
}

/// The first pass: named entities and, for the URL form, percent escapes.
bool ReadNamed(const char* pText, unsigned int left, Unescaped& found) {
    return *pText == '&' && ReadEntity(pText, left, found);
}
bool ReadNamedOrPercent(const char* pText, unsigned int left, Unescaped& found) {
    return ReadNamed(pText, left, found) || (*pText == '%' && ReadPercent(pText, left, found));
}

/// The second pass: a numeric reference at the start of a text.
bool ReadReference(const char* pText, unsigned int left, Unescaped& found) {
    if (left < 3 || pText[0] != '&' || pText[1] != '#') {
        return false;
    }
    const unsigned int base = pText[2] == 'x' ? 16 : 10;
    const unsigned int first = base == 16 ? 3 : 2;
    unsigned int at = first;
    unsigned int value = 0;
    for (; at < left && at - first < kMaxReferenceDigits; ++at) {
        const int digit = DigitValue(pText[at], base);
        if (digit < 0) {
            break;
        }
        value = value * base + static_cast<unsigned int>(digit); // the low bits alone matter
    }
    // Deliberate: an upper-case X would be expected to work like the small one. It is read as a decimal number that has
    // no digits, which gives a zero byte and ends the text there.
    if (at == first && pText[2] != 'X') {
        return false;
    }
    if (at < left && pText[at] == ';') {
        ++at;
    }
    found = {static_cast<unsigned char>(value), at};
    return true;
}

/// Replaces, from left to right, each piece that Read knows by its byte. In place: a piece is never shorter than that.
void UnescapePieces(TqString* s, bool (*Read)(const char* pText, unsigned int left, Unescaped& found)) {
    const unsigned int length = TextLength(s);
    unsigned int out = 0;
    for (unsigned int in = 0; in < length;) {
        Unescaped found = {s->ptr[in], 1};
        Read(reinterpret_cast<const char*>(s->ptr) + in, length - in, found);
        s->ptr[out++] = found.byte;
        in += found.length;
    }
    Shorten(s, out, out);
    const unsigned int text = TextLength(s); // a zero byte that came out of a piece ends the text
    Shorten(s, text, text);
}

} // namespace

// Making and reading

TqString* tq__string_create(unsigned int initialSize, const char* pszFilename, unsigned int line) {
    return NewString(initialSize ? initialSize : kDefaultBytes, pszFilename, line);
}

void tq__string_destroy(TqString* s, const char* pszFilename, unsigned int line) {
    if (s) {
        tq__free(s->ptr, pszFilename, line);
        tq__free(s, pszFilename, line);
    }
}

TqString* tq__string_duplicate(const char* pszText, const char* pszFilename, unsigned int line) {
    if (!pszText || strlen(pszText) >= 0xFFFFFFFFu) {
        return nullptr;
    }
    return NewStringOf(pszText, static_cast<unsigned int>(strlen(pszText)), pszFilename, line);
}

TqString* tq__string_substring(TqString* s, unsigned int offset, unsigned int length, const char* pszFilename,
                               unsigned int line) {
    return s && IsInside(s, offset, length) ? NewStringOf(s->ptr + offset, length, pszFilename, line) : nullptr;
}

int tq_string_reset(TqString* s) {
    if (!s) {
        return 1;
    }
    memset(s->ptr, 0, s->sizeInBytes);
    SetUsed(s, 0);
    return 0;
}

unsigned int tq_string_length(TqString* s) {
    return s ? s->bytesUsed : 0;
}

unsigned char* tq_string_ptr(TqString* s, unsigned int offset) {
    return s && offset <= s->bytesUsed ? s->ptr + offset : nullptr;
}

int tq_string_atoi(TqString* s) {
    return s ? atoi(reinterpret_cast<const char*>(s->ptr)) : 0;
}

int tq_string_find(TqString* s, const char* pszSearch, unsigned int offset) {
    if (!s || !pszSearch || offset >= s->bytesUsed) {
        return -1;
    }
    const void* pFound = memmem(s->ptr + offset, s->bytesUsed - offset, pszSearch, strlen(pszSearch));
    return pFound ? static_cast<int>(static_cast<const unsigned char*>(pFound) - s->ptr) : -1;
}

int tq_string_strtok(TqString* s, const char* pszSearchChars, unsigned int offset) {
    if (!s || (offset != TQ_STRING_NEXT_TOKEN && offset >= s->bytesUsed)) {
        return -1;
    }
    char* pszStart = offset == TQ_STRING_NEXT_TOKEN ? nullptr : reinterpret_cast<char*>(s->ptr) + offset;
    const char* pszToken = tq_getToken(pszStart, pszSearchChars, nullptr, nullptr, nullptr, 0, &s->Reserved);
    return pszToken ? static_cast<int>(pszToken - reinterpret_cast<const char*>(s->ptr)) : -1;
}

int tq__string_getline(TqString* s, char* dst, unsigned int dstSize, const char* pszFilename, unsigned int line) {
    const int end = tq_string_find(s, "\r\n", 0);
    if (end < 0 || !dst || static_cast<unsigned int>(end) >= dstSize) {
        return 1;
    }
    const unsigned int length = static_cast<unsigned int>(end);
    memcpy(dst, s->ptr, length);
    dst[length] = '\0';
    return Splice(s, 0, length + 2, "", 0, pszFilename, line);
}

// Changing

int tq__string_replace(TqString* s, unsigned int offset, unsigned int replaceLength, const char* pszInsert,
                       const char* pszFilename, unsigned int line) {
    if (!s || !IsInside(s, offset, replaceLength)) {
        return 1;
    }
    const char* const pszText = pszInsert ? pszInsert : "";
    return SpliceText(s, offset, replaceLength, pszText, strlen(pszText), pszFilename, line);
}

// Deliberate: one would expect an insertion at the very end to append. It fails, as a replacement there does.
int tq_string_insert(TqString* s, unsigned int offset, const char* pszInsert) {
    return tq_string_replace(s, offset, 0, pszInsert);
}

int tq__string_append(TqString* s, const char* pszSuffix, const char* pszFilename, unsigned int line) {
    return s && pszSuffix ? SpliceText(s, s->bytesUsed, 0, pszSuffix, strlen(pszSuffix), pszFilename, line) : 1;
}

int tq__string_nappend(TqString* s, const char* pszSuffix, unsigned int appendLength, const char* pszFilename,
                       unsigned int line) {
    if (!s || !pszSuffix) {
        return 1;
    }
    return SpliceText(s, s->bytesUsed, 0, pszSuffix, strnlen(pszSuffix, appendLength), pszFilename, line);
}

int tq_string_appendInteger(TqString* s, unsigned int integer) {
    char digits[16];
    snprintf(digits, sizeof(digits), "%u", integer);
    return tq_string_append(s, digits);
}

int tq_string_sprintf(TqString* s, const char* pszFormat, ...) {
    const tq_GatePass pass(gStringGate);
    if (!pass || !s || !pszFormat) {
        return 1;
    }
    va_list args;
    va_list again;
    va_start(args, pszFormat);
    va_copy(again, args);
    int result = 1;
    {
        const tq_CritSecLock lock(gpSandboxLock);
        if (vsnprintf(gSandbox, sizeof(gSandbox), pszFormat, args) >= 0) {
            result = tq_string_append(s, gSandbox);
        } else if (char* pszLarge = static_cast<char*>(tq_calloc(1, kSecondTryBytes))) {
            vsnprintf(pszLarge, kSecondTryBytes - 1, pszFormat, again);
            result = tq_string_nappend(s, pszLarge, kSandboxBytes - 1);
            tq_free(pszLarge);
        }
    }
    va_end(again);
    va_end(args);
    return result;
}

int tq_string_strlwr(TqString* s) {
    if (!s) {
        return 1;
    }
    _strlwr(reinterpret_cast<char*>(s->ptr));
    return 0;
}

// Escaping and back

int tq_string_escape(TqString* s) {
    return EscapeAll(s, EscapeForUrl);
}

int tq_string_xmlEscape(TqString* s) {
    return EscapeAll(s, EscapeForXml);
}

int tq_string_unescape(TqString* s, bool bNumericsOnly) {
    if (!s) {
        return 1;
    }
    if (!bNumericsOnly) {
        const tq_GatePass pass(gStringGate);
        if (!pass) {
            return 1;
        }
        UnescapePieces(s, ReadNamedOrPercent);
    }
    // Deliberate: one would expect each piece to be read once. A reference that the first pass has brought about, such
    // as the one in "&amp;#65;", is read by the second.
    UnescapePieces(s, ReadReference);
    return 0;
}

int tq_string_xmlUnEscape(TqString* s) {
    const tq_GatePass pass(gStringGate);
    if (!pass || !s) {
        return 1;
    }
    if (s->sizeInBytes - TextLength(s) < 2 && !MakeRoom(s, 1, __FILE__, __LINE__)) { // for the zero that is counted
        return 1;
    }
    UnescapePieces(s, ReadNamed);
    // Deliberate: the terminating zero counts as part of the text, as after escaping; tq_string_unescape() does not.
    SetUsed(s, s->bytesUsed + 1);
    return 0;
}

// Start and stop

namespace {

/// Without the list's lock: nobody else uses it before the gate opens, and a hash may not be made under it.
bool BuildIndex() {
    gAmpersandUnEscapeHash = gpEntityList->HashCreate(LIST_TYPE_CUSTOM, 0, kBuckets, HashOfRow, "AmpersandEscapeHash");
    for (unsigned int row = 0; row < kEntities; ++row) {
        gpEntityList->AddNode(const_cast<TQ_ESCAPE_XLATE*>(&gEntities[row])); // a list takes what it never changes too
    }
    // Without memory a list drops what it cannot add, and a hash likewise.
    unsigned int indexed = 0;
    for (unsigned int bucket = 0; bucket < kBuckets; ++bucket) {
        void* pNode = gpEntityList->HashFindFirst(gAmpersandUnEscapeHash, bucket);
        for (; pNode; pNode = gpEntityList->HashFindNext(gAmpersandUnEscapeHash)) {
            ++indexed;
        }
    }
    return indexed == kEntities;
}

void FreeIndex() {
    tq_deleteObject(gpEntityList);
    gpEntityList = nullptr;
    tq_deleteObject(gpSandboxLock);
    gpSandboxLock = nullptr;
}

} // namespace

unsigned int tq_StringInitialize() {
    if (gpEntityList) {
        return 0;
    }
    gpSandboxLock = tq_IfItLocks(tq_newObject<tq_SemCritSec>(/*bRecursive=*/true));
    gpEntityList = tq_IfItLocks(tq_newObject<tq_List>("tqString Ampersand Escaping"));
    tq_LockOrderPlace(gpSandboxLock, tq_LockRank::kHandlesAndStrings);
    tq_ListPlace(gpEntityList, tq_LockRank::kHandlesAndStrings);
    if (!gpSandboxLock || !gpEntityList || !BuildIndex()) {
        FreeIndex();
        return 1;
    }
    gStringGate.Open();
    return 0;
}

void tq_StringTerminate() {
    gStringGate.Close();
    FreeIndex();
}
