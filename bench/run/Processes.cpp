#include "Processes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Bench.h"

namespace {

constexpr unsigned int kMostSeconds = 120; // a measurement that takes longer hangs

/// A program that becomes another contender through its environment.
struct Disguise {
    const char* pszProgram;
    const char* pszSubjects; ///< those that begin with this
    const char* pszLabel;    ///< only the measurement of this label; what it is called instead stands next
    const char* pszNewLabel;
    std::vector<std::string> environment;
};

const std::vector<Disguise>& Disguises() {
    static const std::vector<Disguise> disguises = {
        {"std", "memory/plain", "malloc", "mimalloc", {"LD_PRELOAD=libmimalloc.so.2"}},
        {"std",
         "memory/tracked",
         "malloc",
         "malloc, MALLOC_CHECK_",
         {"LD_PRELOAD=libc_malloc_debug.so.0", "MALLOC_CHECK_=3"}},
    };
    return disguises;
}

struct Output {
    std::string out;
    std::string err;
    bool bEndedWell;
};

[[noreturn]] void Become(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    for (const std::string& one : environment) {
        putenv(const_cast<char*>(one.c_str()));
    }
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    bench::ComeFirst();
    alarm(kMostSeconds);
    execv(program.c_str(), argv.data());
    perror(program.c_str());
    _exit(127);
}

std::string ReadAll(FILE* pFile) {
    std::string text;
    char buffer[4096];
    rewind(pFile);
    while (const std::size_t got = fread(buffer, 1, sizeof(buffer), pFile)) {
        text.append(buffer, got);
    }
    fclose(pFile);
    return text;
}

/// What it writes goes to files: a pipe would be held open by whatever outlives it.
Output RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment) {
    FILE* pOut = tmpfile();
    FILE* pErr = tmpfile();
    fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        dup2(fileno(pOut), STDOUT_FILENO);
        dup2(fileno(pErr), STDERR_FILENO);
        Become(program, arguments, environment);
    }
    int status = 1;
    waitpid(process, &status, 0);
    return {ReadAll(pOut), ReadAll(pErr), status == 0};
}

std::vector<std::string> ProgramsIn(const std::string& directory) {
    std::vector<std::string> names;
    if (DIR* pDirectory = opendir(directory.c_str())) {
        while (const dirent* pEntry = readdir(pDirectory)) {
            if (pEntry->d_name[0] != '.') {
                names.push_back(pEntry->d_name);
            }
        }
        closedir(pDirectory);
    }
    std::sort(names.begin(), names.end());
    return names;
}

Role RoleOf(const std::string& program) {
    return program == "tqos"     ? Role::Ours
           : program == "before" ? Role::Before
           : program == "floor"  ? Role::Floor
                                 : Role::Peer;
}

void AddContenders(const std::string& directory, const std::string& name, std::vector<Contender>* pContenders) {
    const std::string program = directory + "/" + name;
    std::istringstream lines(RunProgram(program, {"list"}, {}).out);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            continue;
        }
        const std::string subject = line.substr(0, tab);
        const std::string label = line.substr(tab + 1);
        const Role role = RoleOf(name);
        pContenders->push_back({subject, role == Role::Before ? "before" : label, label, program, role, {}});
        for (const Disguise& disguise : Disguises()) {
            if (name == disguise.pszProgram && label == disguise.pszLabel &&
                subject.compare(0, strlen(disguise.pszSubjects), disguise.pszSubjects) == 0) {
                pContenders->push_back({subject, disguise.pszNewLabel, label, program, role, disguise.environment});
            }
        }
    }
}

/// What the loader cannot load it passes over, with a word on standard error.
bool CanBePreloaded(const Contender& contender) {
    return RunProgram(contender.program, {"list"}, contender.environment).err.find("cannot be preloaded") ==
           std::string::npos;
}

double ProcessorSeconds() {
    std::ifstream file("/proc/stat");
    std::string name;
    double user, nice, system, idle, wait, interrupts, soft, stolen;
    file >> name >> user >> nice >> system >> idle >> wait >> interrupts >> soft >> stolen;
    return (user + nice + system + interrupts + soft + stolen) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double SecondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double OwnSeconds() {
    double seconds = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage;
        getrusage(static_cast<__rusage_who>(who), &usage);
        seconds += SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime);
    }
    return seconds;
}

double Clock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

} // namespace

std::vector<Contender> FindContenders(const std::string& directory) {
    std::vector<Contender> found;
    for (const std::string& name : ProgramsIn(directory)) {
        AddContenders(directory, name, &found);
    }
    std::vector<Contender> usable;
    for (const Contender& contender : found) {
        if (contender.environment.empty() || CanBePreloaded(contender)) {
            usable.push_back(contender);
        } else {
            fprintf(stderr, "%s is not installed, and left out of %s\n", contender.label.c_str(),
                    contender.subject.c_str());
        }
    }
    // Ours first, the floors last, as the table shows them.
    std::stable_sort(usable.begin(), usable.end(),
                     [](const Contender& a, const Contender& b) { return a.role < b.role; });
    return usable;
}

bool Measure(const Contender& contender, double* pValue) {
    const Output output =
        RunProgram(contender.program, {"run", contender.subject, contender.programLabel}, contender.environment);
    // The value is the last line; a crash of the library ends its process with status 0, and without it.
    const std::size_t end = output.out.find_last_not_of('\n');
    const std::size_t start = end == std::string::npos ? end : output.out.rfind('\n', end);
    char* pszEnd = nullptr;
    const std::string last = start == std::string::npos ? "" : output.out.substr(start + 1, end - start);
    *pValue = strtod(last.c_str(), &pszEnd);
    if (!output.bEndedWell || last.empty() || *pszEnd != 0) {
        fprintf(stderr, "%s failed in %s: %s\n", contender.label.c_str(), contender.subject.c_str(),
                output.err.c_str());
        return false;
    }
    return true;
}

OthersMeter::OthersMeter() : m_busy(ProcessorSeconds()), m_own(OwnSeconds()), m_start(Clock()) {}

double OthersMeter::Percent() const {
    const double others = (ProcessorSeconds() - m_busy) - (OwnSeconds() - m_own);
    return std::max(0.0, 100 * others / (Clock() - m_start));
}
