/// @file tq_IniKeys_p.h
/// Settings as tables: a row says key, default and where the value goes. A subsystem's initialiser reads its section in
/// one call a kind; rows are read in their order.
#ifndef TQ_INIKEYS_P_H
#define TQ_INIKEYS_P_H

#include <stddef.h>

struct tq_IniInteger {
    const char* pszKey;
    int iDefault;
    unsigned int* puiValue;
};

struct tq_IniSwitch {
    const char* pszKey;
    bool bDefault;
    bool* pbValue;
};

/// Reads each row's key of the section from the library's configuration file.
void tq_ReadIniRows(const char* pszSection, const tq_IniInteger* pRows, size_t rows);
void tq_ReadIniRows(const char* pszSection, const tq_IniSwitch* pRows, size_t rows);

template <typename Row, size_t N> void tq_ReadIniTable(const char* pszSection, const Row (&table)[N]) {
    tq_ReadIniRows(pszSection, table, N);
}

#endif // TQ_INIKEYS_P_H
