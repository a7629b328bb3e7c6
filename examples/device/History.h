/// @file History.h
/// The newest samples, in a list of bounded length. One queue adds, others read; the list's lock is between them.
#ifndef DEVICE_HISTORY_H
#define DEVICE_HISTORY_H

#include <vector>

#include <tqos.h>

#include "Sample.h"

enum { kMaxHistory = 1000 };

class History {
public:
    /// Keeps at most `depth` samples.
    explicit History(unsigned int depth);
    ~History();
    History(const History&) = delete;
    History& operator=(const History&) = delete;

    /// Keeps a copy, and drops the oldest when there are too many. Without memory the sample is lost.
    void Add(const Sample& sample);

    /// Copies of the newest samples, oldest first; fewer than asked for when there are not so many.
    std::vector<Sample> Newest(unsigned int count);

    /// Holds the samples' lock for so long, as code does that waits for something while it has a lock.
    void Hold(unsigned int ms);

    /// How many samples there are, and how many there can be.
    unsigned int Count();
    unsigned int Depth() const { return m_depth; }

private:
    tq_List m_samples; // of Sample, oldest at the head
    const unsigned int m_depth;
};

#endif // DEVICE_HISTORY_H
