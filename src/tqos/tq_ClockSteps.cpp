#include "tq_ClockSteps_p.h"

#include <algorithm>

namespace {

constexpr long long kShortestTickNs = 100000;   // what claims to count faster does not step
constexpr long long kLongestTickNs = 100000000; // and what is slower is not waited for in this way
constexpr long long kCloseNs = 50000;           // known as well as a thread wakes in time
constexpr long long kBehindNs = 25000;          // after the step, so that it is over when the thread looks
constexpr long long kDoubtNs = 250000;          // by which a tick may come late for once
constexpr long long kMostDoubtNs = 1000000000;  // when doubts have doubled that often, nothing is right any more
constexpr unsigned int kCalm = 64;              // before what was learned is tried again

} // namespace

tq_ClockSteps::tq_ClockSteps(long long tickNs, long long countNs)
    : m_tickNs(tickNs), m_countNs(countNs),
      m_bUsable(tickNs >= kShortestTickNs && tickNs <= kLongestTickNs && countNs > 0), m_doubtNs(kDoubtNs) {}

/// The count without its wrap.
unsigned long long tq_ClockSteps::Widened(unsigned int count) const {
    return m_count + static_cast<unsigned long long>(static_cast<int>(count - static_cast<unsigned int>(m_count)));
}

/// From tick 0 to the one at which the count comes to this, or passes it.
long long tq_ClockSteps::StepTo(unsigned long long count) const {
    const auto tick = static_cast<unsigned long long>(m_tickNs);
    const unsigned long long ticks = (count * static_cast<unsigned long long>(m_countNs) + tick - 1) / tick;
    return static_cast<long long>(ticks * tick);
}

void tq_ClockSteps::Saw(unsigned int count, long long before, long long after) {
    m_count = m_bSeen ? Widened(count) : count;
    const long long earliest = before - StepTo(m_count + 1); // that step was still to come
    const long long latest = after - StepTo(m_count);        // and this one was over
    if (!m_bSeen) {
        m_bSeen = true;
        m_earliest = earliest;
        m_latest = latest;
    } else if (earliest > m_latest) {
        // A tick is late, for once or from now on. What is known of the earliest stays: the next readings tell.
        m_latest = std::min(latest, earliest + m_doubtNs);
        m_doubtNs = std::min(2 * m_doubtNs, kMostDoubtNs);
    } else if (latest < m_earliest) {
        m_earliest = latest - kDoubtNs;
        m_latest = latest;
    } else {
        m_doubtNs = kDoubtNs;
        m_earliest = std::max(m_earliest, earliest);
        m_latest = std::min(m_latest, latest);
    }
}

long long tq_ClockSteps::WakeFor(unsigned int count) {
    const long long step = StepTo(Widened(count));
    if (m_latest - m_earliest > kCloseNs && count != m_triedFor) {
        m_triedFor = count;
        return step + m_earliest + (m_latest - m_earliest) / 2;
    }
    if (++m_calm >= kCalm) { // a tick that was late when this was learned would make all later ones seem late, too
        m_calm = 0;
        m_earliest = std::min(m_earliest, m_latest - kDoubtNs);
    }
    return step + m_latest + kBehindNs;
}
