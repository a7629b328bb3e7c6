// What a process has run of the library counts although it ends without exit(): the runtime of the counters writes them
// out at exit() alone. Every _exit() and abort() of the tests' programs and of the library in them is led here, where a
// copy of the process writes them out. It is a copy, since the heap may be broken or its lock held: what hangs then, or
// breaks, is the copy. It is never cut off in the midst of a file, which would spoil the counts of others: it makes
// sure first that it gets memory and streams, and then it takes its time, whether or not the process still waits for
// it.
#include <atomic>
#include <initializer_list>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern "C" {
void __gcov_dump(void);
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __real_abort(void);
[[noreturn]] void __wrap__exit(int status);
[[noreturn]] void __wrap_abort(void);
}

namespace {

constexpr unsigned int kProbeSeconds = 2;   // for what a lock that nobody will give back may hold up
constexpr unsigned int kWriteSeconds = 100; // for the files, on a machine that has much else to do
constexpr long kMostWaitMs = 2000;          // a test looks how long the end of a process takes

std::atomic<pid_t> gCopied{0}; // the process that has been copied since its end is near; not its parent after vfork()

/// The limits that a test has set are not meant for the counters; a file that is cut off would spoil those of others.
bool LiftLimits() {
    for (const auto kind : {RLIMIT_AS, RLIMIT_FSIZE}) {
        const struct rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        struct rlimit own;
        if (getrlimit(kind, &own) != 0 || (own.rlim_cur != RLIM_INFINITY && setrlimit(kind, &none) != 0)) {
            return false;
        }
    }
    struct rlimit descriptors;
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
        descriptors.rlim_cur = descriptors.rlim_max;
        setrlimit(RLIMIT_NOFILE, &descriptors);
    }
    return true;
}

/// Takes and gives back what writing out will need.
void Probe() {
    alarm(kProbeSeconds);
    free(malloc(5000));
    FILE* const hFile = fopen("/dev/null", "r+");
    if (hFile) {
        setvbuf(hFile, nullptr, _IOFBF, 4096);
        fputc(0, hFile);
        fclose(hFile);
    }
}

[[noreturn]] void WriteOut() {
    for (int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) {
        signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    syscall(SYS_close_range, 0, ~0u, 0); // whoever waits for the end of our output does not wait for the copy
    Probe();
    alarm(kWriteSeconds);
    if (LiftLimits()) {
        __gcov_dump();
    }
    __real__exit(0);
}

/// The copy is made past the C library, which would wait for its own locks first, and ends without a signal to us.
void WriteOutInACopy() {
    const long copy = syscall(SYS_clone, 0, nullptr, nullptr, nullptr, nullptr);
    if (copy == 0) {
        WriteOut();
    }
    const struct timespec pause = {0, 5000000};
    for (long ms = 0; copy > 0 && ms < kMostWaitMs; ms += 5) {
        if (waitpid(static_cast<pid_t>(copy), nullptr, __WALL | WNOHANG) != 0) {
            return;
        }
        nanosleep(&pause, nullptr);
    }
}

} // namespace

/// A process is copied once: a watchdog's signal, which comes again and again while the copy is waited for and ends the
/// process each time, would never let it end.
void __wrap__exit(int status) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    if (gCopied.exchange(getpid()) != getpid()) {
        WriteOutInACopy();
    }
    __real__exit(status);
}

void __wrap_abort(void) {
    WriteOutInACopy();
    __real_abort();
}
