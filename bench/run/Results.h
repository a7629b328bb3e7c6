/// @file Results.h
/// What was measured: values by subject and contender, kept in files of one line a value.
#ifndef BENCH_RESULTS_H
#define BENCH_RESULTS_H

#include <map>
#include <string>
#include <vector>

#include "Subjects.h"

enum class Role {
    Ours,
    Before, ///< this library as it was
    Itself, ///< this library, now or as it was, in another subject
    Peer,
    Floor
};

/// One contender's values in a subject, in the subject's unit, one a round.
struct Series {
    std::string label;
    Role role;
    std::vector<double> values;

    double Median() const;
    double Least() const;
    double Greatest() const;
};

/// All contenders of a subject.
struct Outcome {
    std::vector<Series> series; ///< ours first
    double othersPercent = 0;   ///< of one processor, used by others meanwhile

    Series& SeriesOf(const std::string& label, Role role);
    /// This library's; null when it was not measured.
    /// @param role  Role::Ours or Role::Before
    const Series* OfLibrary(Role role) const;
    const Series* Labelled(const std::string& label) const;
    /// The best of a role; null when there is none.
    const Series* Best(Role role, Better better) const;
};

/// By a subject's name.
using Results = std::map<std::string, Outcome>;

/// What a target came to.
struct Verdict {
    const Series* pOther; ///< null: the reference was not measured, or is a plain value
    double ratio;         ///< the median of ours divided by the other's, round by round
    bool bKnown;
    bool bMet;
};

/// @param role  who is judged: Role::Ours or Role::Before
Verdict Judge(const Subject& subject, const Outcome& outcome, const Target& target, Role role);

/// The label under which a subject keeps another subject's values of this library.
/// @param role  Role::Ours or Role::Before
std::string ItselfLabel(const char* pszSubject, Role role);

double MedianOf(std::vector<double> values);

/// Adds what a file has; a subject in it takes the place of what was there before.
/// @return false when it cannot be read
bool LoadResults(const std::string& path, Results* pResults);

/// Appends one subject to a file.
void SaveOutcome(const std::string& path, const std::string& subject, const Outcome& outcome);

#endif // BENCH_RESULTS_H
