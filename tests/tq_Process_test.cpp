#include "tq_Process_p.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <regex>
#include <signal.h>
#include <sstream>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tq_Lifecycle_p.h"
#include "tqos.h"

extern char** environ;

namespace {

using test::ReadFile;
using test::RunInChild;
using test::ScratchDirectory;
using test::WriteFile;

/// Makes a shell script in the working directory that can be run as "./NAME".
void WriteScript(const std::string& name, const std::string& body) {
    WriteFile(name, "#!/bin/sh\n" + body);
    ASSERT_EQ(0, chmod(name.c_str(), 0755));
}

/// A word out of /proc's status of a process as the script "status" wrote it down.
std::string StatusWord(const std::string& name) {
    std::istringstream status(ReadFile("status.txt"));
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
        }
    }
    return "(none)";
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

volatile sig_atomic_t gHandled = 0;

void Count(int) {
    gHandled = gHandled + 1;
}

void HandleWith(int signal, void (*pHandler)(int)) {
    struct sigaction action = {};
    action.sa_handler = pHandler;
    sigaction(signal, &action, nullptr);
}

/// In a child process: whether `close` closes what lies within its bounds and nothing else. The exit status is 0 if so.
int CheckClosing(bool (*pClose)(unsigned int, unsigned int), unsigned int last) {
    return RunInChild([pClose, last] {
               for (int fd : {40, 57, 200, 900}) {
                   if (dup2(2, fd) != fd) {
                       _exit(2);
                   }
               }
               if (!pClose(41, last)) {
                   _exit(3);
               }
               const bool bAsMeant = IsOpen(0) && IsOpen(1) && IsOpen(2) && IsOpen(40) && !IsOpen(57) && !IsOpen(200) &&
                                     IsOpen(900) == (last < 900);
               _exit(bAsMeant ? 0 : 1);
           })
        .code;
}

bool CloseOneByOne(unsigned int first, unsigned int last) {
    tq_CloseDescriptorsOneByOne(first, last);
    return true;
}

bool CloseAnyhow(unsigned int first, unsigned int last) {
    tq_CloseDescriptors(first, last);
    return true;
}

constexpr unsigned int kABillion = 1000000000;

} // namespace

// ---- Dynamic libraries

TEST(DynamicLibrary, IsLoadedAskedAndFreed) {
    void* hLibrary = tq_LoadLibrary("libm.so.6");
    ASSERT_NE(nullptr, hLibrary);
    void* pSymbol = tq_GetProcAddress(hLibrary, "cbrt");
    ASSERT_NE(nullptr, pSymbol);
    double (*pCubeRoot)(double) = nullptr;
    memcpy(&pCubeRoot, &pSymbol, sizeof(pSymbol));
    EXPECT_DOUBLE_EQ(3.0, pCubeRoot(27.0));
    EXPECT_EQ(nullptr, tq_GetProcAddress(hLibrary, "no_such_symbol_at_all"));
    EXPECT_EQ(nullptr, tq_GetProcAddress(hLibrary, nullptr));
    EXPECT_NE(nullptr, tq_GetProcAddress(nullptr, "strlen"));
    EXPECT_EQ(1, tq_FreeLibrary(hLibrary));
}

TEST(DynamicLibrary, WithoutANameIsTheProgram) {
    void* hProgram = tq_LoadLibrary(nullptr);
    ASSERT_NE(nullptr, hProgram);
    EXPECT_NE(nullptr, tq_GetProcAddress(hProgram, "strlen"));
    EXPECT_EQ(1, tq_FreeLibrary(hProgram));
}

TEST(DynamicLibrary, IsNotFreedWithoutAHandle) {
    EXPECT_EQ(0, tq_FreeLibrary(nullptr));
}

TEST(DynamicLibrary, ThatCannotBeLoadedIsTraced) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Trace]\nDefaultLogToSTDOUT=yes\n");
        tq_TraceSetCatMask(tqosTraceHandle, ~16); // passes any other category
        if (tq_LoadLibrary("./no_such_library.so")) {
            _exit(1);
        }
        tq_TraceSetCatMask(tqosTraceHandle, 16); // "System" alone
        if (tq_LoadLibrary("./no_such_library.so")) {
            _exit(1);
        }
    });
    EXPECT_EQ(0, child.code);
    EXPECT_TRUE(std::regex_match(child.standardOut,
                                 std::regex("[A-Z].{23} \\[\\d+\\]: \\(tqos\\) WRN: tq_LoadLibrary failed: "
                                            "\\./no_such_library\\.so: cannot open shared object file: .*\n")))
        << child.standardOut;
}

TEST(DynamicLibrary, ThatCannotBeLoadedIsNoTroubleWhileTheLibraryIsDown) {
    EXPECT_EQ(nullptr, tq_LoadLibrary("./no_such_library.so"));
}

// ---- Starting processes

TEST(Spawn, RunsTheProgramWithItsArguments) {
    ScratchDirectory directory;
    WriteScript("args", "echo $$ > pid\nfor a in \"$@\"; do echo \"<$a>\" >> out; done\n");
    const int pid = tq_SpawnProcess(" \t./args one\ttwo\n \"three four\"  ", nullptr, true);
    EXPECT_GT(pid, 0);
    EXPECT_EQ(std::to_string(pid) + "\n", ReadFile("pid"));
    EXPECT_EQ("<one>\n<two>\n<\"three>\n<four\">\n", ReadFile("out")) << "quotes are not special";
}

TEST(Spawn, PassesTheFirst15WordsOnly) {
    ScratchDirectory directory;
    WriteScript("args", "echo \"$@\" > out\n");
    EXPECT_GT(tq_SpawnProcess("./args 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20", nullptr, true), 0);
    EXPECT_EQ("2 3 4 5 6 7 8 9 10 11 12 13 14 15\n", ReadFile("out"));
    EXPECT_GT(tq_SpawnProcess("./args 2 3 4 5 6 7 8 9 10 11 12 13 14 15", nullptr, true), 0);
    EXPECT_EQ("2 3 4 5 6 7 8 9 10 11 12 13 14 15\n", ReadFile("out"));
}

TEST(Spawn, TakesACommandOf1023CharactersAndNoLonger) {
    ScratchDirectory directory;
    WriteScript("args", "printf %s \"$1\" > out\n");
    const std::string command = "./args " + std::string(1023 - 7, 'x');
    EXPECT_EQ(-2, tq_SpawnProcess((command + "x").c_str(), nullptr, true));
    EXPECT_FALSE(test::FileExists("out"));
    EXPECT_GT(tq_SpawnProcess(command.c_str(), nullptr, true), 0);
    EXPECT_EQ(std::string(1016, 'x'), ReadFile("out"));
}

TEST(Spawn, NeedsACommand) {
    EXPECT_EQ(-1, tq_SpawnProcess(nullptr, nullptr, true));
}

TEST(Spawn, OfAProgramThatCannotBeRunIsAProcessThatEndsWithStatus0) {
    for (const char* pszCommand : {"./no_such_program at all", "", "  \t\n "}) {
        const int pid = tq_SpawnProcess(pszCommand, nullptr, false);
        ASSERT_GT(pid, 0) << pszCommand;
        int status = -1;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_EQ(0, status) << pszCommand;
    }
}

TEST(Spawn, SearchesForTheProgramAlongThePath) {
    const test::ChildResult child = RunInChild([] { tq_SpawnProcess("echo found", nullptr, true); });
    EXPECT_EQ("found\n", child.standardOut);
}

TEST(Spawn, RunsTheProgramInTheGivenDirectory) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkdir("d", 0777));
    WriteScript("d/here", "pwd > " + directory.Path() + "/out\n");
    EXPECT_GT(tq_SpawnProcess("./here", "d", true), 0);
    EXPECT_EQ(directory.Path() + "/d\n", ReadFile("out"));
}

TEST(Spawn, RunsTheProgramWhereTheCallerIsWhenItCannotChangeDirectory) {
    ScratchDirectory directory;
    WriteScript("here", "pwd > out\n");
    EXPECT_GT(tq_SpawnProcess("./here", "no/such/directory", true), 0);
    EXPECT_EQ(directory.Path() + "\n", ReadFile("out"));
}

TEST(Spawn, WaitsForTheEndWhenAskedTo) {
    ScratchDirectory directory;
    WriteScript("slow", "i=0\nwhile [ $i -lt 20000 ]; do i=$((i+1)); done\necho done > out\n");
    EXPECT_GT(tq_SpawnProcess("./slow", nullptr, true), 0);
    EXPECT_EQ("done\n", ReadFile("out"));
}

TEST(Spawn, WaitsForTheEndAlsoWhereChildrenLeaveNoZombies) {
    const test::ChildResult child = RunInChild([] {
        test::Library library;
        WriteScript("slow", "i=0\nwhile [ $i -lt 20000 ]; do i=$((i+1)); done\necho done > out\n");
        const int pid = tq_SpawnProcess("./slow", nullptr, true);
        const bool bGone = waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
        const bool bEnded = ReadFile("out") == "done\n";
        library.Terminate();
        _exit(pid > 0 && bGone && bEnded ? 0 : 1);
    });
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, WaitsOnWhenASignalInterruptsIt) {
    ScratchDirectory directory;
    WriteScript("slow", "i=0\nwhile [ $i -lt 20000 ]; do i=$((i+1)); done\necho done > out\n");
    const test::ChildResult child = RunInChild([] {
        HandleWith(SIGALRM, Count); // without SA_RESTART
        const struct itimerval every = {{0, 2000}, {0, 2000}};
        setitimer(ITIMER_REAL, &every, nullptr);
        tq_SpawnProcess("./slow", nullptr, true);
        _exit(ReadFile("out") == "done\n" && gHandled > 0 ? 0 : 1);
    });
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, DoesNotWaitUnlessAskedTo) {
    ScratchDirectory directory;
    ASSERT_EQ(0, mkfifo("gate", 0666));
    WriteScript("held", "read line < gate\n");
    const int pid = tq_SpawnProcess("./held", nullptr, false); // would never return if it waited
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, kill(pid, 0));
    WriteFile("gate", "go\n");
    EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
}

TEST(Spawn, ReturnsMinusOneWhenNoProcessCanBeMade) {
    const test::ChildResult child = RunInChild([] {
        if (getuid() == 0 && setuid(65534) != 0) {
            _exit(77); // root is held by no limit
        }
        const struct rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        _exit(tq_SpawnProcess("true", nullptr, true) == -1 ? 0 : 1);
    });
    if (child.code == 77) {
        GTEST_SKIP() << "root here cannot become anybody else";
    }
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, LeavesTheChildStandardDescriptorsOnly) {
    ScratchDirectory directory;
    WriteScript("see", "for fd in 0 1 2 57 300; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > out\n");
    const test::ChildResult child = RunInChild([] {
        dup2(2, 57);
        dup2(2, 300);
        tq_SpawnProcess("./see", nullptr, true);
        _exit(IsOpen(57) && IsOpen(300) ? 0 : 1);
    });
    EXPECT_EQ(0, child.code) << "the caller's stay open";
    EXPECT_EQ("0\n1\n2\n", ReadFile("out"));
}

TEST(Spawn, IsQuickWhateverTheLimitOfDescriptors) {
    ScratchDirectory directory;
    const test::ChildResult child = RunInChild(
        [] {
            struct rlimit limit;
            getrlimit(RLIMIT_NOFILE, &limit);
            const struct rlimit wanted = {kABillion, kABillion}; // as many as the kernel lets us have
            if (setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
                limit.rlim_cur = limit.rlim_max;
                setrlimit(RLIMIT_NOFILE, &limit);
            }
            for (int i = 0; i < 50; ++i) {
                if (tq_SpawnProcess("true", nullptr, true) <= 0) {
                    _exit(1);
                }
            }
        },
        60);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, ClosesDescriptorsUpToABillionByEachWay) {
    EXPECT_EQ(0, CheckClosing(tq_CloseDescriptorsByDirectory, kABillion - 1));
    EXPECT_EQ(0, CheckClosing(tq_CloseDescriptorsByDirectory, 899));
    EXPECT_EQ(0, CheckClosing(CloseAnyhow, kABillion - 1));
    EXPECT_EQ(0, CheckClosing(CloseAnyhow, 899));
    EXPECT_EQ(0, CheckClosing(CloseOneByOne, kABillion - 1));
    EXPECT_EQ(0, CheckClosing(CloseOneByOne, 899));
    const int byRange = CheckClosing(tq_CloseDescriptorsByRange, kABillion - 1);
    EXPECT_TRUE(byRange == 0 || byRange == 3) << "3: this kernel has no such call";
    EXPECT_EQ(byRange, CheckClosing(tq_CloseDescriptorsByRange, 899));
}

/// From here on this process has a kernel that does not know close_range(), nor, when asked for, any directory.
bool LoseCalls(bool bDirectoriesToo) {
#ifdef SYS_close_range
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bDirectoriesToo ? unsigned{O_DIRECTORY} : 0u, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
#else
    return !bDirectoriesToo;
#endif
}

TEST(Spawn, ClosesDescriptorsOnAKernelWithoutAQuickWay) {
    for (const bool bDirectoriesToo : {false, true}) {
        const test::ChildResult child = RunInChild([bDirectoriesToo] {
            for (const int fd : {100, 300, 598, 599}) {
                dup2(2, fd);
            }
            if (!LoseCalls(bDirectoriesToo)) {
                _exit(77);
            }
            tq_CloseDescriptors(100, 598);
            _exit(!IsOpen(100) && !IsOpen(300) && !IsOpen(598) && IsOpen(599) ? 0 : 1);
        });
        if (child.code == 77) {
            GTEST_SKIP() << "calls cannot be filtered here";
        }
        EXPECT_EQ(0, child.code) << bDirectoriesToo;
    }
}

TEST(Spawn, ClosesDescriptorsThatFillTheirDirectory) {
    const test::ChildResult child = RunInChild([] {
        for (int fd = 100; fd < 600; ++fd) {
            dup2(2, fd);
        }
        if (!tq_CloseDescriptorsByDirectory(100, 598)) {
            _exit(2);
        }
        for (int fd = 100; fd < 599; ++fd) {
            if (IsOpen(fd)) {
                _exit(3);
            }
        }
        _exit(IsOpen(599) && IsOpen(2) ? 0 : 4);
    });
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, FaultInTheChildNeverRunsTheCallersHandler) {
    const test::ChildResult child = RunInChild([] {
        test::Library library("[Trace]\nDefaultLogToSTDOUT=yes\n"); // its crash report handles SIGSEGV
        struct sigaction before;
        sigaction(SIGSEGV, nullptr, &before);
        signal(SIGCHLD, SIG_DFL);
        char** const environment = environ;
        environ = reinterpret_cast<char**>(64); // the search along the path faults, in the child alone
        const int pid = tq_SpawnProcess("no_such_program", nullptr, false);
        environ = environment;
        int status = 0;
        if (pid <= 0 || waitpid(pid, &status, 0) != pid) {
            _exit(1);
        }
        struct sigaction after;
        sigaction(SIGSEGV, nullptr, &after);
        const bool bKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
        _exit(bKilled && after.sa_sigaction == before.sa_sigaction ? 0 : 2);
    });
    EXPECT_EQ(0, child.code) << child.standardOut;
    EXPECT_EQ("", child.standardOut) << "a crash report";
}

TEST(Spawn, LeavesTheCallersSignalsAsTheyAre) {
    ScratchDirectory directory;
    const test::ChildResult child = RunInChild([] {
        HandleWith(SIGUSR1, Count);
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR2);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        tq_SpawnProcess("true", nullptr, true);
        struct sigaction action;
        sigaction(SIGUSR1, nullptr, &action);
        sigset_t after;
        sigprocmask(SIG_SETMASK, nullptr, &after);
        bool bSame = action.sa_handler == Count;
        for (int signal = 1; signal < 32; ++signal) {
            bSame = bSame && sigismember(&after, signal) == (signal == SIGUSR2);
        }
        raise(SIGUSR1);
        _exit(bSame && gHandled == 1 ? 0 : 1);
    });
    EXPECT_EQ(0, child.code);
}

TEST(Spawn, PassesOnTheSignalMaskAndTheIgnoredSignalsButNoHandler) {
    ScratchDirectory directory;
    const test::ChildResult child = RunInChild([] {
        for (int signal = 1; signal < 32; ++signal) {
            HandleWith(signal, SIG_DFL);
        }
        HandleWith(SIGPIPE, SIG_IGN);
        HandleWith(SIGUSR1, Count);
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR2);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        tq_SpawnProcess("cp /proc/self/status status.txt", nullptr, true);
    });
    EXPECT_EQ(0, child.code);
    EXPECT_EQ("0000000000000800", StatusWord("SigBlk"));
    EXPECT_EQ("0000000000001000", StatusWord("SigIgn"));
    EXPECT_EQ("0000000000000000", StatusWord("SigCgt"));
}

// ---- Killing processes

TEST(Kill, EndsAProcess) {
    const int pid = fork();
    if (pid == 0) {
        signal(SIGTERM, SIG_IGN);
        for (;;) {
            pause();
        }
    }
    EXPECT_EQ(0, tq_KillProcess(pid));
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST(Kill, OfAProcessThatIsGoneIsNoFailure) {
    const int pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
    const test::ChildResult child = RunInChild([pid] { _exit(tq_KillProcess(pid)); });
    EXPECT_EQ(0, child.code);
    EXPECT_NE("", child.standardError) << "the shell's command failed";
}

TEST(Kill, RefusesTheProcessId0) {
    EXPECT_EQ(-1, tq_KillProcess(0));
}
