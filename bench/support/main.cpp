// A contender's main():
//   PROGRAM list                 one line a measurement: subject, a tab, label
//   PROGRAM run SUBJECT [LABEL]  makes it, and writes its value as the last line
#include <cstdio>
#include <cstring>

#include "Bench.h"

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "list") == 0) {
        return bench::List();
    }
    if (argc >= 3 && strcmp(argv[1], "run") == 0) {
        return bench::Run(argv[2], argc >= 4 ? argv[3] : nullptr);
    }
    fprintf(stderr, "usage: %s list | run SUBJECT [LABEL]\n", argv[0]);
    return 2;
}
