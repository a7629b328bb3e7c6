/// @file Library.h
/// The library, running for one measurement.
#ifndef BENCH_LIBRARY_H
#define BENCH_LIBRARY_H

#include <cstdio>

#include <tqos.h>

/// Starts the library with these settings, and ends it.
class Library {
public:
    explicit Library(const char* pszSettings = "") {
        if (FILE* pFile = fopen("tqos.ini", "w")) {
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
