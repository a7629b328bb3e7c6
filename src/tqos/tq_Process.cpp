#include "tq_Process_p.h"

#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tq_LibraryTrace_p.h"

namespace {

constexpr size_t kCommandBytes = 1024;
constexpr size_t kMostArguments = 15;
constexpr long kDescriptorsWithoutLimit = 600;
constexpr unsigned int kFirstClosedDescriptor = 3;
constexpr unsigned int kMostClosedOneByOne = 1024 * 1024; // the kernel's default ceiling of a process's limit
constexpr int kTraceLevel = 30000;                        // a warning
constexpr unsigned int kTraceCategory = 16;               // "System"

/// All that a child needs, made ready by its parent: between the fork and the new program the child runs in the
/// parent's memory while the calling thread stands still.
struct ChildPlan {
    char command[kCommandBytes];
    char* arguments[kMostArguments + 1];
    const char* pszWorkingDir;
    unsigned int lastDescriptor;
    sigset_t signalMask;
};

/// Splits the command at white space, in place. What follows the last argument there is room for is left out.
void SplitCommand(ChildPlan& plan) {
    size_t count = 0;
    char* pScan = plan.command;
    while (count < kMostArguments) {
        while (isspace(static_cast<unsigned char>(*pScan))) {
            ++pScan;
        }
        if (*pScan == '\0') {
            break;
        }
        plan.arguments[count++] = pScan;
        while (*pScan != '\0' && !isspace(static_cast<unsigned char>(*pScan))) {
            ++pScan;
        }
        if (*pScan != '\0') {
            *pScan++ = '\0';
        }
    }
    plan.arguments[count] = nullptr;
}

/// Gives every signal that has a handler its default action. A handler would run in the parent's memory; the crash
/// report's would report the child's fault as the parent's and end it with status 0.
void DropSignalHandlers() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action;
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL) {
            action.sa_handler = SIG_DFL;
            action.sa_flags = 0;
            sigaction(signal, &action, nullptr);
        }
    }
}

[[noreturn]] void RunChild(const ChildPlan& plan) {
    DropSignalHandlers();
    pthread_sigmask(SIG_SETMASK, &plan.signalMask, nullptr);
    tq_CloseDescriptors(kFirstClosedDescriptor, plan.lastDescriptor);
    // A directory that cannot be changed to is passed over: the program starts where the caller stands.
    [[maybe_unused]] const int moved = plan.pszWorkingDir ? chdir(plan.pszWorkingDir) : 0;
    if (plan.arguments[0]) {
        execvp(plan.arguments[0], plan.arguments);
    }
    _exit(0);
}

/// Starts the child with every signal blocked, so that none is handled in it before its handlers are gone.
pid_t StartChild(ChildPlan& plan) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &plan.signalMask);
    const pid_t pid = vfork();
    if (pid == 0) {
        RunChild(plan);
    }
    pthread_sigmask(SIG_SETMASK, &plan.signalMask, nullptr);
    return pid;
}

void WaitForChild(pid_t pid) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

/// A name in the directory of descriptors as a number; false for "." and "..".
bool ParseDescriptor(const char* pszName, unsigned int& descriptor) {
    unsigned int value = 0;
    if (*pszName == '\0') {
        return false;
    }
    for (; *pszName != '\0'; ++pszName) {
        if (*pszName < '0' || *pszName > '9') {
            return false;
        }
        value = value * 10 + static_cast<unsigned int>(*pszName - '0');
    }
    descriptor = value;
    return true;
}

} // namespace

bool tq_CloseDescriptorsByRange(unsigned int first, unsigned int last) {
#ifdef SYS_close_range
    return syscall(SYS_close_range, first, last, 0) == 0;
#else
    (void)first;
    (void)last;
    return false;
#endif
}

bool tq_CloseDescriptorsByDirectory(unsigned int first, unsigned int last) {
    // The kernel's own directory records: inode and offset of 8 bytes each, the record's length in 2, a type of 1, the
    // name. readdir() would allocate.
    constexpr size_t kLengthOffset = 16;
    constexpr size_t kNameOffset = 19;
    const int directory = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return false;
    }
    alignas(8) char records[1024];
    long length = 0;
    // Positions in this directory are descriptor numbers, so closing some does not make the walk miss others.
    while ((length = syscall(SYS_getdents64, directory, records, sizeof(records))) > 0) {
        for (long at = 0; at < length;) {
            unsigned short recordLength = 0;
            memcpy(&recordLength, records + at + kLengthOffset, sizeof(recordLength));
            unsigned int descriptor = 0;
            if (ParseDescriptor(records + at + kNameOffset, descriptor) && descriptor >= first && descriptor <= last &&
                descriptor != static_cast<unsigned int>(directory)) {
                close(static_cast<int>(descriptor));
            }
            at += recordLength;
        }
    }
    close(directory);
    return length == 0;
}

void tq_CloseDescriptorsOneByOne(unsigned int first, unsigned int last) {
    for (unsigned int descriptor = first; descriptor <= last && descriptor < kMostClosedOneByOne; ++descriptor) {
        close(static_cast<int>(descriptor));
    }
}

void tq_CloseDescriptors(unsigned int first, unsigned int last) {
    if (!tq_CloseDescriptorsByRange(first, last) && !tq_CloseDescriptorsByDirectory(first, last)) {
        tq_CloseDescriptorsOneByOne(first, last);
    }
}

extern "C" {

void* tq_LoadLibrary(const char* filename) {
    void* handle = dlopen(filename, RTLD_LAZY);
    if (!handle) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc keeps the text by thread
        tq_TraceOnOwnInstance(kTraceLevel, kTraceCategory, "tq_LoadLibrary failed: %s\n", dlerror());
    }
    return handle;
}

void* tq_GetProcAddress(void* handle, const char* symbol) {
    return symbol ? dlsym(handle, symbol) : nullptr;
}

int tq_FreeLibrary(void* handle) {
    return handle && dlclose(handle) == 0 ? 1 : 0;
}

int tq_SpawnProcess(const char* pszApp, const char* pszWorkingDir, bool bWait) {
    if (!pszApp) {
        return -1;
    }
    ChildPlan plan;
    if (strlen(pszApp) >= sizeof(plan.command)) {
        return -2;
    }
    strcpy(plan.command, pszApp);
    SplitCommand(plan);
    plan.pszWorkingDir = pszWorkingDir;
    const long limit = sysconf(_SC_OPEN_MAX);
    plan.lastDescriptor = static_cast<unsigned int>((limit < 0 ? kDescriptorsWithoutLimit : limit) - 1);
    const pid_t pid = StartChild(plan);
    if (bWait && pid > 0) {
        WaitForChild(pid);
    }
    return pid;
}

int tq_KillProcess(int pid) {
    if (pid == 0) {
        return -1;
    }
    char command[32];
    snprintf(command, sizeof(command), "kill -9 %u", static_cast<unsigned int>(pid));
    // Deliberate: a process that could not be killed is no failure of the call.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's system() may run in several threads at once
    [[maybe_unused]] const int status = system(command);
    return 0;
}

} // extern "C"
