// hunt: finds its own leak. Blocks that are in use are marked; what is in use without a mark later has come since, and
// the report names the file and the line that took it. It needs the tqos.ini beside it: tracking, and pools.
#include <stdio.h>

#include <tqos.h>

namespace {

/// Keeps one request in four for ever, as an application does that forgets one of its paths.
void HandleRequest(unsigned int number) {
    void* pRequest = tq_malloc(48);
    void* pReply = tq_malloc(200);
    tq_free(pReply);
    if (number % 4 != 0) {
        tq_free(pRequest);
    }
}

} // namespace

int main() {
    if (tqOS_Initialize() == 0) {
        for (unsigned int number = 1; number <= 100; ++number) {
            HandleRequest(number); // it has warmed up: what is kept from here on should not be
        }
        tq_MemoryMarkPools();
        for (unsigned int number = 1; number <= 100; ++number) {
            HandleRequest(number);
        }
        printf("hunt: in use since the mark, by the lines that took it\n");
        tq_ShowMemoryPools(/*instance=*/0, /*uiFlags=*/1, /*bPrintf=*/true, /*hFile=*/nullptr, /*pool=*/0,
                           /*bGroupNames=*/true, /*pszNameFilter=*/"main.cpp", /*pszNameFilterOut=*/nullptr,
                           TQ_MEM_SORT_FORMATS::COUNT, /*bReverseSort=*/true, /*bFixedSize=*/false, /*size=*/0,
                           /*line=*/0);
        printf("hunt: written past its end\n");
        char* pShort = static_cast<char*>(tq_malloc(10));
        const char last = pShort[10];
        pShort[10] = static_cast<char>(last + 1);
        tq_CheckMemoryPools();
        pShort[10] = last;
        tq_free(pShort);
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
