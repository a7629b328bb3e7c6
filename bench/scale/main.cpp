// tqscale [NAME...]   how time and memory grow; prints a table in Markdown for each subsystem, or for those named
#include "Scale.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Bench.h"

namespace {

void WriteRow(const Growth& growth, unsigned int count, int fd) {
    {
        const bench::ScratchDirectory scratch;
        Row row;
        growth.measure(count, &row);
        FILE* pFile = fdopen(fd, "w");
        for (const auto& column : row.columns) {
            fprintf(pFile, "%s\t%.9g\n", column.first.c_str(), column.second);
        }
        fclose(pFile);
    }
    _exit(0);
}

/// In a process of its own.
Row MeasureRow(const Growth& growth, unsigned int count) {
    int ends[2];
    Row row;
    fflush(stdout);
    if (pipe(ends) != 0) {
        return row;
    }
    const pid_t process = fork();
    if (process == 0) {
        bench::ComeFirst();
        close(ends[0]);
        WriteRow(growth, count, ends[1]);
    }
    close(ends[1]);
    std::ifstream lines("/dev/fd/" + std::to_string(ends[0]));
    std::string name;
    std::string value;
    while (std::getline(lines, name, '\t') && std::getline(lines, value)) {
        row.columns.emplace_back(name, atof(value.c_str()));
    }
    close(ends[0]);
    waitpid(process, nullptr, 0);
    return row;
}

std::string Text(double value) {
    char text[32];
    snprintf(text, sizeof(text), value >= 100 ? "%.0f" : value >= 10 ? "%.1f" : "%.2f", value);
    return text;
}

void PrintTable(const Growth& growth) {
    printf("\n### %s\n\n", growth.pszName);
    bool bHead = true;
    for (const unsigned int count : growth.counts) {
        const Row row = MeasureRow(growth, count);
        if (bHead) {
            std::string line = "|---|";
            printf("| %s |", growth.pszTitle);
            for (const auto& column : row.columns) {
                printf(" %s |", column.first.c_str());
                line += "---|";
            }
            printf("\n%s\n", line.c_str());
            bHead = false;
        }
        printf("| %u |", count);
        for (const auto& column : row.columns) {
            printf(" %s |", Text(column.second).c_str());
        }
        printf("\n");
        fflush(stdout);
    }
}

bool IsWanted(const Growth& growth, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], growth.pszName) == 0) {
            return true;
        }
    }
    return argc == 1;
}

} // namespace

const std::vector<Growth> kGrowths = {
    {"queues", "queues", {10, 100, 1000, 10000}, MeasureQueues},
    {"threads", "threads", {10, 100, 1000, 10000}, MeasureThreads},
    {"timers", "timers", {10, 100, 1000, 10000}, MeasureTimers},
    {"sockets", "sockets", {10, 100, 1000, 10000}, MeasureSockets},
    {"lists", "lists", {10, 100, 1000, 10000}, MeasureLists},
    {"nodes", "nodes of a list", {10, 100, 1000, 10000}, MeasureNodes},
    {"blocks", "blocks, tracked and pooled", {10, 100, 1000, 10000, 100000}, MeasureBlocks},
    {"instances", "trace instances", {1, 10, 100, 1000}, MeasureInstances},
    {"viewers", "viewers of one instance", {1, 10, 100, 128}, MeasureViewers},
    {"sessions", "sessions of the console", {1, 10, 100, 400}, MeasureSessions},
#ifdef TQTRACE_PROGRAM
    {"followed-traces", "devices", {1, 10, 100, 1000}, MeasureFollowedTraces},
#endif
    {"followed-consoles", "devices", {1, 10, 100, 1000}, MeasureFollowedConsoles},
};

double HeapBytes() {
#if __GLIBC_PREREQ(2, 33)
    const struct mallinfo2 info = mallinfo2();
#else
    const struct mallinfo info = mallinfo();
#endif
    return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

double ResidentBytes() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    double kilobytes = 0;
    while (file >> word) {
        if (word == "Private_Dirty:") {
            file >> kilobytes;
        }
    }
    return kilobytes * 1024;
}

double Microseconds(const std::function<void()>& work) {
    const double start = bench::Now();
    work();
    return (bench::Now() - start) * 1e6;
}

void AddMaking(unsigned int count, Row* pRow, const std::function<void(unsigned int)>& make) {
    const double heap = HeapBytes();
    const double resident = ResidentBytes();
    const double microseconds = Microseconds([&] {
        for (unsigned int i = 0; i < count; ++i) {
            make(i);
        }
    });
    pRow->Add("making one, us", microseconds / count);
    pRow->Add("heap of one, bytes", (HeapBytes() - heap) / count);
    pRow->Add("all in memory, KB", (ResidentBytes() - resident) / 1024);
}

int main(int argc, char** argv) {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) { // many sockets
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    for (const Growth& growth : kGrowths) {
        if (IsWanted(growth, argc, argv)) {
            PrintTable(growth);
        }
    }
    return 0;
}
