// This library's trace.
#include <string>
#include <vector>

#include "Bench.h"
#include "Library.h"

namespace {

/// Opens so many instances, of which the calls go to the last.
class Instances {
public:
    explicit Instances(int count) {
        for (int i = 0; i < count; ++i) {
            const std::string name = "Bench" + std::to_string(i);
            m_handles.push_back(tq__TraceInitInstance(name.c_str(), __FILE__, __LINE__));
            tq_TraceSetLevel(m_handles.back(), TQ_TRACE_LEVEL_WARNING);
            tq_TraceDisableSTDERR(m_handles.back());
            tq_TraceDisableSTDOUT(m_handles.back());
        }
    }
    ~Instances() {
        for (const unsigned int handle : m_handles) {
            tq_TraceTermInstance(handle);
        }
    }
    Instances(const Instances&) = delete;
    Instances& operator=(const Instances&) = delete;

    unsigned int Last() const { return m_handles.back(); }

private:
    std::vector<unsigned int> m_handles;
};

double FilteredOut(int threads, int count) {
    const Library library;
    const Instances instances(count);
    return bench::NanosecondsEachOnThreads(threads, [&](int) -> std::function<double()> {
        const unsigned int handle = instances.Last();
        return [handle] {
            for (int i = 0; i < 1000; ++i) {
                bench::Keep(i); // nothing is known from the call before
                tq_Trace(handle, TQ_TRACE_LEVEL_DEBUG, 1, true, "value %d of %s\n", i, "bench");
            }
            return 1000.0;
        };
    });
}

} // namespace

PEER_BENCH("trace/filtered", "tqos") {
    return FilteredOut(1, 1);
}

PEER_BENCH("trace/filtered-two-threads", "tqos") {
    return FilteredOut(2, 1);
}

PEER_BENCH("trace/filtered-20-instances", "tqos") {
    return FilteredOut(1, 20);
}

PEER_BENCH("trace/filtered-20-instances-two-threads", "tqos") {
    return FilteredOut(2, 20);
}

PEER_BENCH("trace/line-to-file", "tqos") {
    const Library library;
    const Instances instances(1);
    const unsigned int handle = instances.Last();
    tq__TraceEnableFile(handle, "lines.log", 0, 0, __FILE__, __LINE__);
    return bench::PerSecond([handle] {
        for (int i = 0; i < 100; ++i) {
            tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "value %d of %s\n", i, "bench");
        }
        return 100.0;
    });
}
