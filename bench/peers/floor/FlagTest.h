/// @file FlagTest.h
/// A trace call that tests one flag.
#ifndef BENCH_FLAG_TEST_H
#define BENCH_FLAG_TEST_H

void FlagTest(unsigned int instance, int level, unsigned int category, bool bTime, const char* pszFormat, ...)
    __attribute__((format(printf, 5, 6)));

#endif // BENCH_FLAG_TEST_H
