// Weak definitions of what has not been written yet; goes away with the last module.
#include "tq_LibraryTrace_p.h"
#include "tqos.h"
#define WEAK __attribute__((weak))
WEAK void tq_TraceOnOwnInstance(int, unsigned int, const char*, ...) {}
extern "C" {
WEAK void tq_SocketStopWorkerThread() {}
WEAK void tq_SocketTerminate(unsigned int) {}
}
