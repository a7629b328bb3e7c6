// trace: a trace instance of the application's own, into three files that take turns. Its level can be changed while it
// runs: by the console, by a viewer on the network, or as here.
#include <stdio.h>

#include <tqos.h>

namespace {

/// Categories are bits, so that a mask chooses among them.
enum { CAT_PUMP = 1, CAT_VALVE = 2 };

unsigned int OpenTrace() {
    const unsigned int hTrace = tq_TraceInitInstance("Plant");
    tq_TraceSetCategoryName(hTrace, CAT_PUMP, "Pump");
    tq_TraceSetCategoryName(hTrace, CAT_VALVE, "Valve");
    tq_TraceEnableFile(hTrace, "plant.log", /*maxFiles=*/3, /*maxBytesPerFile=*/2000);
    tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_INFORMATIONAL);
    return hTrace;
}

} // namespace

int main() {
    if (tqOS_Initialize() == 0) {
        const unsigned int hTrace = OpenTrace();
        for (unsigned int turn = 1; turn <= 100; ++turn) {
            tq_Trace(hTrace, TQ_TRACE_LEVEL_INFORMATIONAL, CAT_PUMP, true, "turn %u of the pump\n", turn);
            tq_Trace(hTrace, TQ_TRACE_LEVEL_DEBUG, CAT_VALVE, true, "not written at this level\n");
        }
        tq_TraceSetLevel(hTrace, TQ_TRACE_LEVEL_DEBUG);
        tq_TraceSetCatMask(hTrace, CAT_VALVE);
        tq_Trace(hTrace, TQ_TRACE_LEVEL_DEBUG, CAT_VALVE, true, "written now\n");
        tq_Trace(hTrace, TQ_TRACE_LEVEL_DEBUG, CAT_PUMP, true, "not written with this mask\n");
        tq_TraceTermInstance(hTrace);
        printf("trace: the newest lines are in one of plant0000.log, plant0001.log and plant0002.log\n");
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
