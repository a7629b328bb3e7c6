/// @file Scale.h
/// How time and memory grow with the number of objects: what the measurements of the subsystems share.
#ifndef BENCH_SCALE_H
#define BENCH_SCALE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// One row of a subsystem's table: columns in the order in which they are added.
class Row {
public:
    void Add(const char* pszColumn, double value) { columns.emplace_back(pszColumn, value); }
    std::vector<std::pair<std::string, double>> columns;
};

/// A subsystem: measured once for each count, in a process of its own and a directory of its own.
struct Growth {
    const char* pszName;
    const char* pszTitle; ///< of the table; the first column is the count
    std::vector<unsigned int> counts;
    void (*measure)(unsigned int count, Row* pRow);
};

extern const std::vector<Growth> kGrowths;

// The subsystems.
void MeasureQueues(unsigned int count, Row* pRow);
void MeasureThreads(unsigned int count, Row* pRow);
void MeasureTimers(unsigned int count, Row* pRow);
void MeasureLists(unsigned int count, Row* pRow);
void MeasureNodes(unsigned int count, Row* pRow);
void MeasureBlocks(unsigned int count, Row* pRow);
void MeasureSockets(unsigned int count, Row* pRow);
void MeasureSessions(unsigned int count, Row* pRow);
void MeasureInstances(unsigned int count, Row* pRow);
void MeasureViewers(unsigned int count, Row* pRow);
void MeasureFollowedTraces(unsigned int count, Row* pRow); ///< where tqtrace is built
void MeasureFollowedConsoles(unsigned int count, Row* pRow);

/// Bytes that the heap has handed out.
double HeapBytes();

/// Bytes of this process that are in memory and no other's.
double ResidentBytes();

/// Microseconds that work takes.
double Microseconds(const std::function<void()>& work);

/// Memory of each of so many objects, and the time for making one.
void AddMaking(unsigned int count, Row* pRow, const std::function<void(unsigned int)>& make);

#endif // BENCH_SCALE_H
