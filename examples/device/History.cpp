#include "History.h"

#include <algorithm>

History::History(unsigned int depth) : m_samples("Device: Samples"), m_depth(depth) {}

History::~History() {
    // The list holds pointers; what they point at is ours to free.
    while (Sample* pSample = static_cast<Sample*>(m_samples.RemoveHead())) {
        tq_deleteObject(pSample);
    }
}

void History::Add(const Sample& sample) {
    Sample* pSample = tq_newObject<Sample>(sample);
    if (!pSample) {
        return;
    }
    tq_ListLock lock(m_samples);
    m_samples.AddToTail(pSample);
    while (m_samples.NodeCount() > m_depth) {
        Sample* pOldest = static_cast<Sample*>(m_samples.RemoveHead());
        tq_deleteObject(pOldest);
    }
}

std::vector<Sample> History::Newest(unsigned int count) {
    std::vector<Sample> samples;
    tq_ListLock lock(m_samples); // the list's cursor is shared too: it walks under the lock
    for (void* pNode = m_samples.GetTail(); pNode && samples.size() < count; pNode = m_samples.GetNext()) {
        samples.push_back(*static_cast<Sample*>(pNode));
    }
    std::reverse(samples.begin(), samples.end());
    return samples;
}

void History::Hold(unsigned int ms) {
    tq_ListLock lock(m_samples);
    tq_Sleep(ms);
}

unsigned int History::Count() {
    tq_ListLock lock(m_samples);
    return static_cast<unsigned int>(m_samples.NodeCount());
}
