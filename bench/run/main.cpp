// tqbench [OPTION...] [SUBJECT...]   the library beside its peers, measured in turn
//   SUBJECT          the beginning of a subject's name, as "queue" or "tcp/echo"; without one, all
//   --list           the subjects' names
//   --rounds N       rounds, in each of which every contender is measured once (5)
//   --seconds S      length of one measurement (0.3)
//   --only LABEL     only this library and the contender of this label
//   --save FILE      appends what was measured
//   --from FILE      measures nothing, and shows what was saved; may be given more than once
//   --markdown       the table in Markdown
//   --pictures DIR   draws a picture of each group of subjects
// An earlier build's program of this library takes part as "before" when it stands under that name in contenders/.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <getopt.h>
#include <libgen.h>
#include <unistd.h>

#include "Pictures.h"
#include "Processes.h"
#include "Table.h"

namespace {

struct Options {
    int rounds = 5;
    bool bList = false;
    bool bMarkdown = false;
    std::string only;
    std::string save;
    std::vector<std::string> from;
    std::string pictures;
    std::vector<std::string> wanted;
};

bool ParseOptions(int argc, char** argv, Options* pOptions) {
    static const option names[] = {
        {"list", 0, nullptr, 'l'},     {"rounds", 1, nullptr, 'r'},   {"seconds", 1, nullptr, 's'},
        {"only", 1, nullptr, 'o'},     {"save", 1, nullptr, 'S'},     {"from", 1, nullptr, 'f'},
        {"pictures", 1, nullptr, 'p'}, {"markdown", 0, nullptr, 'm'}, {nullptr, 0, nullptr, 0},
    };
    int option;
    while ((option = getopt_long(argc, argv, "", names, nullptr)) != -1) {
        switch (option) {
        case 'l':
            pOptions->bList = true;
            break;
        case 'r':
            pOptions->rounds = atoi(optarg);
            break;
        case 's':
            setenv("TQ_BENCH_SECONDS", optarg, 1);
            break;
        case 'o':
            pOptions->only = optarg;
            break;
        case 'S':
            pOptions->save = optarg;
            break;
        case 'f':
            pOptions->from.push_back(optarg);
            break;
        case 'p':
            pOptions->pictures = optarg;
            break;
        case 'm':
            pOptions->bMarkdown = true;
            break;
        default:
            return false;
        }
    }
    pOptions->wanted.assign(argv + optind, argv + argc);
    return pOptions->rounds > 0;
}

bool IsWanted(const Options& options, const Subject& subject) {
    bool bWanted = options.wanted.empty();
    for (const std::string& one : options.wanted) {
        bWanted = bWanted || strncmp(subject.pszName, one.c_str(), one.size()) == 0;
    }
    return bWanted;
}

/// The contenders' programs stand in a directory beside this one.
std::string ContendersDirectory() {
    char szPath[PATH_MAX] = "";
    if (readlink("/proc/self/exe", szPath, sizeof(szPath) - 1) < 0) {
        perror("/proc/self/exe");
    }
    return std::string(dirname(szPath)) + "/contenders";
}

bool IsLibrary(const Contender& contender) {
    return contender.role == Role::Ours || contender.role == Role::Before;
}

/// Who takes part in a subject; with what this library does in another one, where a target compares with that.
std::vector<Contender> ContendersOf(const Subject& subject, const std::vector<Contender>& all,
                                    const std::string& only) {
    std::vector<Contender> chosen;
    for (const Contender& contender : all) {
        if (contender.subject == subject.pszName && (only.empty() || IsLibrary(contender) || contender.label == only)) {
            chosen.push_back(contender);
        }
        for (const Target& target : subject.targets) {
            if (target.reference == Reference::Itself && IsLibrary(contender) && contender.subject == target.pszName) {
                chosen.push_back(contender);
                chosen.back().role = Role::Itself;
                chosen.back().label = ItselfLabel(target.pszName, contender.role);
            }
        }
    }
    return chosen;
}

Outcome MeasureSubject(const Subject& subject, const std::vector<Contender>& contenders, int rounds) {
    Outcome outcome;
    const OthersMeter meter;
    for (int round = 0; round < rounds; ++round) {
        for (const Contender& contender : contenders) {
            double value;
            if (Measure(contender, &value)) {
                outcome.SeriesOf(contender.label, contender.role).values.push_back(value * subject.scale);
            }
        }
    }
    outcome.othersPercent = meter.Percent();
    return outcome;
}

void MeasureAll(const Options& options, Results* pResults) {
    const std::vector<Contender> contenders = FindContenders(ContendersDirectory());
    for (const Subject& subject : AllSubjects()) {
        if (!IsWanted(options, subject)) {
            continue;
        }
        const Outcome outcome =
            MeasureSubject(subject, ContendersOf(subject, contenders, options.only), options.rounds);
        if (!options.save.empty()) {
            SaveOutcome(options.save, subject.pszName, outcome);
        }
        if (!options.bMarkdown) {
            PrintOutcome(subject, outcome);
        }
        (*pResults)[subject.pszName] = outcome;
    }
}

bool LoadAll(const Options& options, Results* pResults) {
    for (const std::string& path : options.from) {
        if (!LoadResults(path, pResults)) {
            perror(path.c_str());
            return false;
        }
    }
    for (const Subject& subject : AllSubjects()) {
        if (!IsWanted(options, subject)) {
            pResults->erase(subject.pszName);
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        return 2;
    }
    if (options.bList) {
        for (const Subject& subject : AllSubjects()) {
            printf("%-42s %s\n", subject.pszName, subject.pszTitle);
        }
        return 0;
    }
    Results results;
    if (!LoadAll(options, &results)) {
        return 1;
    }
    if (options.from.empty()) {
        MeasureAll(options, &results);
    }
    if (options.bMarkdown) {
        PrintMarkdown(results);
    } else {
        PrintSummary(results);
    }
    return options.pictures.empty() || DrawPictures(results, options.pictures) ? 0 : 1;
}
