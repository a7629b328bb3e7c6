/// @file Library.h
/// The library, running for one measurement.
#ifndef BENCH_LIBRARY_H
#define BENCH_LIBRARY_H

#include <cstdio>

#include <tqos.h>

/// Starts the library with these settings, null for none, and ends it.
class Library {
public:
    explicit Library(const char* pszSettings = nullptr) {
        if (FILE* pFile = pszSettings ? fopen("tqos.ini", "w") : nullptr) {
            fputs(pszSettings, pFile);
            fclose(pFile);
        }
        tqOS_Initialize();
    }
    ~Library() { tqOS_Terminate(false, true); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

#endif // BENCH_LIBRARY_H
