// This library's critical sections.
#include <memory>

#include "Bench.h"
#include "Library.h"

namespace {

/// Each thread has a section of its own.
double EnterAndLeave(int threads) {
    const Library library;
    return bench::NanosecondsEachOnThreads(threads, [](int) -> std::function<double()> {
        const auto pSection = std::make_shared<tq_SemCritSec>(true);
        return [pSection] {
            for (int i = 0; i < 1000; ++i) {
                pSection->Enter();
                pSection->Leave();
            }
            return 1000.0;
        };
    });
}

} // namespace

PEER_BENCH("lock/critical-section", "tqos") {
    return EnterAndLeave(1);
}

PEER_BENCH("lock/critical-section-two-threads", "tqos") {
    return EnterAndLeave(2);
}
