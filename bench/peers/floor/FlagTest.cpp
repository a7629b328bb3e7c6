// A call that is filtered out, in a file of its own, so that the caller knows nothing of it.
#include "FlagTest.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {
std::atomic<int> gLevel(30000);
}

void FlagTest(unsigned int, int level, unsigned int, bool, const char* pszFormat, ...) {
    if (level < gLevel.load(std::memory_order_relaxed)) {
        return;
    }
    va_list arguments;
    va_start(arguments, pszFormat);
    vprintf(pszFormat, arguments);
    va_end(arguments);
}
