/// @file Processes.h
/// The contenders' programs, and making measurements with them, each in a process of its own.
#ifndef BENCH_PROCESSES_H
#define BENCH_PROCESSES_H

#include <string>
#include <vector>

#include "Results.h"

/// One contender of one subject.
struct Contender {
    std::string subject; ///< what the program calls it
    std::string label;   ///< what the table calls it
    std::string programLabel;
    std::string program; ///< path
    Role role;
    std::vector<std::string> environment; ///< NAME=VALUE, added for the process
};

/// Everything that the programs in a directory can measure. Says which are missing.
std::vector<Contender> FindContenders(const std::string& directory);

/// Runs one measurement.
/// @return false when the process failed, which is said
bool Measure(const Contender& contender, double* pValue);

/// Processor time that others than this process and its children use, from its making on.
class OthersMeter {
public:
    OthersMeter();
    /// In percent of one processor.
    double Percent() const;

private:
    double m_busy;
    double m_own;
    double m_start;
};

#endif // BENCH_PROCESSES_H
