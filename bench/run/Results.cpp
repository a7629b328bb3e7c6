#include "Results.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

constexpr const char* kRoleNames[] = {"ours", "before", "itself", "peer", "floor"};

Role RoleOf(const std::string& name) {
    for (int i = 0; i < 5; ++i) {
        if (name == kRoleNames[i]) {
            return static_cast<Role>(i);
        }
    }
    return Role::Peer;
}

std::vector<std::string> Columns(const std::string& line) {
    std::vector<std::string> columns;
    std::istringstream stream(line);
    std::string column;
    while (std::getline(stream, column, '\t')) {
        columns.push_back(column);
    }
    return columns;
}

/// Round by round: what slowed one slowed the other, too.
double RatioOf(const Series& ours, const Series& other) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(ours.values.size(), other.values.size()); ++i) {
        ratios.push_back(ours.values[i] / other.values[i]);
    }
    return MedianOf(ratios);
}

const Series* FindReference(const Subject& subject, const Outcome& outcome, const Target& target, Role role) {
    switch (target.reference) {
    case Reference::BestPeer:
        return outcome.Best(Role::Peer, subject.better);
    case Reference::Floor:
        return outcome.Best(Role::Floor, subject.better);
    case Reference::Peer:
        return outcome.Labelled(target.pszName);
    case Reference::Itself:
        return outcome.Labelled(ItselfLabel(target.pszName, role));
    case Reference::Value:
        break;
    }
    return nullptr;
}

} // namespace

double MedianOf(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double Series::Median() const {
    return MedianOf(values);
}

double Series::Least() const {
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

double Series::Greatest() const {
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

Series& Outcome::SeriesOf(const std::string& label, Role role) {
    for (Series& one : series) {
        if (one.label == label && one.role == role) {
            return one;
        }
    }
    series.push_back({label, role, {}});
    return series.back();
}

const Series* Outcome::OfLibrary(Role role) const {
    return Best(role, Better::More); // there is one
}

const Series* Outcome::Labelled(const std::string& label) const {
    for (const Series& one : series) {
        if (one.label == label) {
            return &one;
        }
    }
    return nullptr;
}

const Series* Outcome::Best(Role role, Better better) const {
    const Series* pBest = nullptr;
    for (const Series& one : series) {
        if (one.role == role && !one.values.empty() &&
            (!pBest || (better == Better::More ? one.Median() > pBest->Median() : one.Median() < pBest->Median()))) {
            pBest = &one;
        }
    }
    return pBest;
}

Verdict Judge(const Subject& subject, const Outcome& outcome, const Target& target, Role role) {
    Verdict verdict = {FindReference(subject, outcome, target, role), 0, false, false};
    const Series* pOurs = outcome.OfLibrary(role);
    if (!pOurs || pOurs->values.empty()) {
        return verdict;
    }
    if (target.reference == Reference::Value) {
        verdict.ratio = pOurs->Median();
    } else if (!verdict.pOther || verdict.pOther->values.empty()) {
        return verdict;
    } else {
        verdict.ratio = RatioOf(*pOurs, *verdict.pOther);
    }
    verdict.bKnown = true;
    verdict.bMet = target.compare == Compare::AtLeast ? verdict.ratio >= target.bound : verdict.ratio <= target.bound;
    return verdict;
}

std::string ItselfLabel(const char* pszSubject, Role role) {
    return std::string(role == Role::Before ? "before, " : "tqos, ") + pszSubject;
}

bool LoadResults(const std::string& path, Results* pResults) {
    std::ifstream file(path);
    Results loaded;
    std::string line;
    while (std::getline(file, line)) {
        const std::vector<std::string> columns = Columns(line);
        if (columns.size() == 2) {
            // A file that was appended to has the subject again: what came last counts.
            loaded[columns[0]] = Outcome();
            loaded[columns[0]].othersPercent = atof(columns[1].c_str());
        } else if (columns.size() == 4) {
            loaded[columns[0]].SeriesOf(columns[2], RoleOf(columns[1])).values.push_back(atof(columns[3].c_str()));
        }
    }
    for (auto& one : loaded) {
        (*pResults)[one.first] = one.second;
    }
    return file.eof();
}

void SaveOutcome(const std::string& path, const std::string& subject, const Outcome& outcome) {
    FILE* pFile = fopen(path.c_str(), "a");
    if (!pFile) {
        perror(path.c_str());
        exit(1);
    }
    fprintf(pFile, "%s\t%.1f\n", subject.c_str(), outcome.othersPercent);
    for (const Series& one : outcome.series) {
        for (const double value : one.values) {
            fprintf(pFile, "%s\t%s\t%s\t%.6g\n", subject.c_str(), kRoleNames[static_cast<int>(one.role)],
                    one.label.c_str(), value);
        }
    }
    fclose(pFile);
}
