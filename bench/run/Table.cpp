#include "Table.h"

#include <cmath>
#include <cstdio>

std::string NumberText(double value) {
    char text[32];
    const double size = std::fabs(value);
    const int decimals = size >= 100 || size == 0 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : size >= 0.1 ? 3 : 4;
    snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

namespace {

std::string Bound(const Target& target) {
    char text[32];
    snprintf(text, sizeof(text), "%s %.3g", target.compare == Compare::AtLeast ? ">=" : "<=", target.bound);
    return text;
}

const char* Word(const Target& target, const Verdict& verdict) {
    return verdict.bMet ? "met" : target.bAim ? "below the aim" : "MISSED";
}

std::string TargetText(const Subject& subject, const Outcome& outcome, const Series* pSeries) {
    std::string text;
    for (const Target& target : subject.targets) {
        const Verdict verdict = Judge(subject, outcome, target, Role::Ours);
        const Series* pSubjectOf =
            target.reference == Reference::Value ? outcome.OfLibrary(Role::Ours) : verdict.pOther;
        if (verdict.bKnown && pSubjectOf == pSeries) {
            text += (target.reference == Reference::Value ? "" : "ratio " + NumberText(verdict.ratio) + ", ") +
                    Bound(target) + " " + Word(target, verdict) + "  ";
        }
    }
    return text;
}

struct Columns {
    std::string ours, other, ratio, bound, word;
};

Columns ColumnsOf(const Subject& subject, const Outcome& outcome, const Target& target, Role role) {
    const Verdict verdict = Judge(subject, outcome, target, role);
    const Series* pOurs = outcome.OfLibrary(role);
    Columns columns;
    columns.ours = pOurs ? NumberText(pOurs->Median()) : "-";
    columns.bound = Bound(target);
    if (verdict.bKnown) {
        columns.other = verdict.pOther ? verdict.pOther->label + " " + NumberText(verdict.pOther->Median()) : "";
        columns.ratio = target.reference == Reference::Value ? "" : NumberText(verdict.ratio);
        columns.word = Word(target, verdict);
    }
    return columns;
}

} // namespace

void PrintOutcome(const Subject& subject, const Outcome& outcome) {
    printf("\n%s   (%s)   %s, %s is better; others used %.0f %% of one processor\n", subject.pszTitle, subject.pszName,
           subject.pszUnit, subject.better == Better::More ? "more" : "less", outcome.othersPercent);
    for (const Series& one : outcome.series) {
        const std::string range = "(" + NumberText(one.Least()) + " .. " + NumberText(one.Greatest()) + ")";
        printf("  %-5s %-44s %9s  %-20s %s\n", one.role == Role::Floor ? "floor" : "", one.label.c_str(),
               NumberText(one.Median()).c_str(), range.c_str(), TargetText(subject, outcome, &one).c_str());
    }
    fflush(stdout);
}

void PrintSummary(const Results& results) {
    int met = 0;
    int missed = 0;
    printf("\n%-40s %-10s %9s   %-40s %7s  %-8s\n", "", "unit", "tqos", "against", "ratio", "target");
    for (const Subject& subject : AllSubjects()) {
        const auto found = results.find(subject.pszName);
        if (found == results.end()) {
            continue;
        }
        for (const Target& target : subject.targets) {
            const Columns columns = ColumnsOf(subject, found->second, target, Role::Ours);
            if (columns.word.empty()) {
                continue;
            }
            printf("%-40s %-10s %9s   %-40s %7s  %-8s %s\n", subject.pszTitle, subject.pszUnit, columns.ours.c_str(),
                   columns.other.c_str(), columns.ratio.c_str(), columns.bound.c_str(), columns.word.c_str());
            met += columns.word == "met";
            missed += columns.word == "MISSED";
        }
    }
    printf("\n%d targets met, %d missed\n", met, missed);
}

void PrintMarkdown(const Results& results) {
    printf("| subject | unit | before | now | against | ratio before | ratio now | target | |\n");
    printf("|---|---|---|---|---|---|---|---|---|\n");
    for (const Subject& subject : AllSubjects()) {
        const auto found = results.find(subject.pszName);
        if (found == results.end()) {
            continue;
        }
        std::vector<Target> targets = subject.targets;
        if (targets.empty()) { // the value alone
            targets.push_back({Reference::Floor, nullptr, Compare::AtLeast, 0});
        }
        const char* pszTitle = subject.pszTitle;
        for (const Target& target : targets) {
            const Columns now = ColumnsOf(subject, found->second, target, Role::Ours);
            const Columns then = ColumnsOf(subject, found->second, target, Role::Before);
            if (now.word.empty() && !subject.targets.empty()) {
                continue; // this machine does not have what it is compared with
            }
            printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", pszTitle, subject.pszUnit, then.ours.c_str(),
                   now.ours.c_str(), now.other.c_str(), then.ratio.c_str(), now.ratio.c_str(),
                   subject.targets.empty() ? "" : now.bound.c_str(), now.word.c_str());
            pszTitle = "";
        }
    }
}
