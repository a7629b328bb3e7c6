#include "Merge.h"

#include <algorithm>
#include <string.h>
#include <time.h>

namespace tqtrace {

namespace {

constexpr int64_t kSecondMs = 1000;

/// A run of records by one clock: what has to be added to their milliseconds for the time of day, as far as their dates
/// tell. Each date is cut to its second, so the true value is at least `least` and below `below`.
struct Clock {
    bool bDated = false;
    int64_t least = 0;
    int64_t below = 0;

    bool Admits(int64_t difference) const { return !bDated || (difference < below && difference + kSecondMs > least); }
    void Narrow(int64_t difference) {
        least = bDated ? std::max(least, difference) : difference;
        below = bDated ? std::min(below, difference + kSecondMs) : difference + kSecondMs;
        bDated = true;
    }
    bool Meets(const Clock& other) const { return least < other.below && other.least < below; }
};

struct Timed {
    int64_t ms;   ///< of its clock, without its wrap
    size_t clock; ///< among all clocks
};

/// The date as if it were in Greenwich: only differences count. False for what is no date.
bool ToMs(const std::string& date, int64_t* pMs) {
    struct tm parts = {};
    const char* pszEnd = strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &parts);
    if (date.empty() || !pszEnd || *pszEnd != '\0') {
        return false;
    }
    *pMs = static_cast<int64_t>(timegm(&parts)) * kSecondMs;
    return true;
}

/// Gives each record its clock. A new one begins where a date does not fit: the machine was started again, or set.
class Clocks {
public:
    std::vector<Timed> Read(const std::vector<Record>& records, bool bDeltas) {
        std::vector<Timed> timed;
        m_clocks.emplace_back();
        int64_t ms = 0;
        bool bFirst = true;
        for (const Record& record : records) {
            if (record.IsTrace()) {
                // A stamp that goes back by less than half of all there are has really gone back.
                const int32_t step = static_cast<int32_t>(record.ms - static_cast<uint32_t>(ms));
                ms = bDeltas ? ms + record.ms : bFirst ? record.ms : ms + step;
                bFirst = false;
                TakeDate(record, ms);
            }
            timed.push_back({ms, m_clocks.size() - 1});
        }
        return timed;
    }

    /// The time of day of each clock's 0.
    std::vector<int64_t> Offsets() {
        std::vector<Clock> machines;
        std::vector<size_t> machineOf;
        for (const Clock& clock : m_clocks) {
            machineOf.push_back(MachineOf(clock, &machines));
        }
        std::vector<int64_t> offsets;
        for (const size_t machine : machineOf) {
            offsets.push_back(machine < machines.size() ? machines[machine].least : 0);
        }
        return offsets;
    }

private:
    void TakeDate(const Record& record, int64_t ms) {
        int64_t date = 0;
        if (!ToMs(record.date, &date)) {
            return;
        }
        if (!m_clocks.back().Admits(date - ms)) {
            m_clocks.emplace_back();
        }
        m_clocks.back().Narrow(date - ms);
    }

    static size_t MachineOf(const Clock& clock, std::vector<Clock>* pMachines) {
        if (!clock.bDated) {
            return 0;
        }
        for (size_t i = 0; i < pMachines->size(); ++i) {
            Clock& machine = (*pMachines)[i];
            if (machine.Meets(clock)) {
                machine.least = std::max(machine.least, clock.least);
                machine.below = std::min(machine.below, clock.below);
                return i;
            }
        }
        pMachines->push_back(clock);
        return pMachines->size() - 1;
    }

    std::vector<Clock> m_clocks;
};

} // namespace

std::vector<MergedRecord> MergeByTime(const std::vector<SourceRecords>& sources, bool bDeltas) {
    Clocks clocks;
    std::vector<std::vector<Timed>> timed;
    size_t total = 0;
    for (const SourceRecords& source : sources) {
        timed.push_back(clocks.Read(source.records, bDeltas));
        total += source.records.size();
    }
    const std::vector<int64_t> offsets = clocks.Offsets();
    std::vector<size_t> next(sources.size(), 0);
    std::vector<MergedRecord> merged;
    while (merged.size() < total) {
        size_t earliest = sources.size();
        int64_t earliestMs = 0;
        for (size_t i = 0; i < sources.size(); ++i) {
            if (next[i] == sources[i].records.size()) {
                continue;
            }
            const Timed& head = timed[i][next[i]];
            const int64_t ms = head.ms + offsets[head.clock];
            if (earliest == sources.size() || ms < earliestMs) {
                earliest = i;
                earliestMs = ms;
            }
        }
        merged.push_back({&sources[earliest].source, &sources[earliest].records[next[earliest]++]});
    }
    return merged;
}

} // namespace tqtrace
