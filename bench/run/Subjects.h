/// @file Subjects.h
/// The subjects of the comparison as data: what a row of the table is called, its unit, and its targets.
#ifndef BENCH_SUBJECTS_H
#define BENCH_SUBJECTS_H

#include <string>
#include <vector>

/// What a target compares with.
enum class Reference {
    BestPeer, ///< the best of the peers
    Peer,     ///< one of the peers, or one of the floors, by its label
    Floor,    ///< the best of the floors
    Itself,   ///< this library in another subject, measured in turn with this one
    Value     ///< no other: the bound is a value in the subject's unit
};

enum class Compare { AtLeast, AtMost };

struct Target {
    Reference reference;
    const char* pszName; ///< label of Reference::Peer, subject of Reference::Itself; otherwise null
    Compare compare;
    double bound;      ///< of ours divided by the other's
    bool bAim = false; ///< wanted, not promised
};

enum class Better { More, Less };

struct Subject {
    const char* pszName;
    const char* pszTitle;
    const char* pszUnit;
    Better better;
    double scale; ///< from what a measurement gives to the unit
    std::vector<Target> targets;
};

const std::vector<Subject>& AllSubjects();

/// @return null when there is none
const Subject* FindSubject(const std::string& name);

#endif // BENCH_SUBJECTS_H
