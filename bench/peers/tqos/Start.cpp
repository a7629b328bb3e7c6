// This library's start and end without a tqos.ini, and what it reads of its configuration meanwhile.
#include <cstring>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Bench.h"
#include "Library.h"

namespace {

struct Reading {
    int opens = 0; // of tqos.ini
    double bytes = 0;
};

bool EndsWith(const char* pszText, const char* pszEnd) {
    const std::size_t length = strlen(pszText);
    return length >= strlen(pszEnd) && strcmp(pszText + length - strlen(pszEnd), pszEnd) == 0;
}

bool IsOpenOfConfiguration(pid_t process, const __ptrace_syscall_info& info) {
    const bool bOpen = info.entry.nr == SYS_openat || info.entry.nr == SYS_open;
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || !bOpen) {
        return false;
    }
    char szPath[64] = "";
    const iovec here = {szPath, sizeof(szPath) - 1};
    const std::uint64_t address = info.entry.args[info.entry.nr == SYS_openat ? 1 : 0];
    const iovec there = {reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), sizeof(szPath) - 1};
    return process_vm_readv(process, &here, 1, &there, 1, 0) > 0 && EndsWith(szPath, "tqos.ini");
}

/// Follows the thread that starts and ends the library through its system calls.
Reading CountCalls(pid_t process) {
    Reading reading;
    int status;
    int open = -1; // the descriptor of the configuration
    bool bOpening = false;
    bool bReading = false;
    waitpid(process, &status, 0);
    ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD);
    while (ptrace(PTRACE_SYSCALL, process, nullptr, nullptr) == 0 && waitpid(process, &status, 0) == process &&
           WIFSTOPPED(status)) {
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, process, reinterpret_cast<void*>(sizeof(info)), &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            bOpening = IsOpenOfConfiguration(process, info);
            bReading = info.entry.nr == SYS_read && static_cast<int>(info.entry.args[0]) == open;
            reading.opens += bOpening;
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && bOpening) {
            open = static_cast<int>(info.exit.rval);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && bReading && info.exit.rval > 0) {
            reading.bytes += static_cast<double>(info.exit.rval);
        }
    }
    return reading;
}

Reading ReadingOfConfiguration(const char* pszSettings) {
    const pid_t process = fork();
    if (process == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        { const Library library(pszSettings); }
        _exit(0);
    }
    return CountCalls(process);
}

/// Every section of the library, with a key of each.
constexpr const char* kSettings = "[ErrorLog]\nFilename=errors.log\n[Memory]\nEnableMemoryTracking=no\n"
                                  "[Handles]\nInitialCount=100\n[Trace]\nLevel=Warning\n[Sem]\nTrackSems=no\n"
                                  "[MsgQ]\nDefaultHistory=0\n[Telnet]\nMaxSessions=4\n";

} // namespace

PEER_BENCH("start/pair", "tqos") {
    return 1e-6 * bench::NanosecondsEach([] {
               tqOS_Initialize();
               tqOS_Terminate(false, true);
               return 1.0;
           });
}

PEER_BENCH("start/opens-without-ini", "tqos") {
    unlink("tqos.ini");
    return ReadingOfConfiguration(nullptr).opens;
}

PEER_BENCH("start/opens-with-ini", "tqos") {
    return ReadingOfConfiguration(kSettings).opens;
}

PEER_BENCH("start/bytes-with-ini", "tqos") {
    return ReadingOfConfiguration(kSettings).bytes;
}
