/// @file tq_Base.h
#ifndef TQ_BASE_H
#define TQ_BASE_H

#include "tq_Types.h"

typedef struct _TQ_UUID {
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} TQ_UUID;

/// Flags of tq_getToken().
enum { TQ_TOKEN_STRIP_LEADING = 1, TQ_TOKEN_STRIP_TRAILING = 2, TQ_TOKEN_REMOVE_ENCAPSULATORS = 4 };

extern "C" {

TQ_API unsigned int tq_BaseInitialize();
TQ_API void tq_BaseTerminate();
TQ_API void LogCriticalError(const char* pMessage, bool bAbort, int Level, int Category);
TQ_API void tq_Assert(bool bCondition);
TQ_API bool tq_CreateUUID(_TQ_UUID* uuid);
TQ_API char* tq_getToken(char* pszString, const char* pszDelimiters, const char* pszStartEncapsulators,
                         const char* pszEndEncapsulators, const char* pszStripChars, int Flags, char** instance);
TQ_API unsigned int IsCharInSet(char ch, const char* pszSet);
TQ_API char* _strlwr(char* string);
TQ_API char* itoa(int value, char* string, int radix);
TQ_API char* ltoa(long value, char* string, int radix);
TQ_API char* tq_strtok_r(char* s, const char* delim, char** save_ptr);
TQ_API int tq_getch();

} // extern "C"

#endif // TQ_BASE_H
