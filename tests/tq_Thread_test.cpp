#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits.h>
#include <mutex>
#include <pthread.h>
#include <set>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "SystemFaults.h"
#include "TestSupport.h"
#include "tq_Lifecycle_p.h"
#include "tq_Memory_p.h"
#include "tq_SemEvent.h"
#include "tq_SemMutex_p.h"
#include "tq_Thread_p.h"
#include "tqos.h"

namespace {

constexpr char kNone[] = "No Threads currently tracked...";
constexpr char kHeader[] = "Index   ThreadID    PSTID     Pri Thread Name / File\r\n"
                           "----- ------------ ---------- --- ----------------------------------------\r\n";

std::string Threads() {
    char untouched[] = "untouched";
    char* pszText = untouched;
    tq_ShowThreads(&pszText);
    const std::string text = pszText ? pszText : "(null)";
    tq_free(pszText);
    return text;
}

std::string Row(unsigned int index, unsigned int tid, unsigned int pstid, const char* priority,
                const std::string& name) {
    char text[200];
    snprintf(text, sizeof(text), "%4u) %12u  %-8u   %s  %-40s\r\n", index, tid, pstid, priority, name.c_str());
    return text;
}

std::string InitialRow() {
    return Row(1, tq_GetThreadId(), tq_GetPSThreadId(), "?", "TQOS Initialization: perhaps main?");
}

std::string NameOf(unsigned int tid) {
    char name[256] = "";
    tq_ThreadGetName(name, sizeof(name), tid);
    return name;
}

/// A thread of the library that runs a function and then waits to be let go.
class Worker {
public:
    explicit Worker(const std::function<void()>& body = nullptr, int priority = 0, unsigned int stackSize = 0,
                    const char* pszFilename = "worker.cpp", unsigned int line = 77)
        : m_body(body) {
        m_result = tq__beginthread(stackSize, Run, this, &m_tid, priority, pszFilename, line);
    }
    ~Worker() { LetGo(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    unsigned long Result() const { return m_result; }
    unsigned int Tid() const { return m_tid; }
    unsigned int PSTid() const { return m_pstid; }
    bool WaitUntilReady() const {
        return test::WaitUntil([this] { return m_bReady.load(); });
    }
    /// Lets the function return; the thread does not touch the object after that.
    void LetGo() {
        if (m_result != 0 && !m_bLetGo.exchange(true)) {
            EXPECT_TRUE(test::WaitUntil([this] { return m_bReturning.load(); }));
        }
    }
    bool IsListed() const { return Threads().find(Row(2, m_tid, m_pstid, "", "").substr(6, 12)) != std::string::npos; }

private:
    static void* Run(void* pArgument) {
        auto* pThis = static_cast<Worker*>(pArgument);
        pThis->m_pstid = tq_GetPSThreadId();
        if (pThis->m_body) {
            pThis->m_body();
        }
        pThis->m_bReady = true;
        EXPECT_TRUE(test::WaitUntil([pThis] { return pThis->m_bLetGo.load(); }));
        pThis->m_bReturning = true;
        return nullptr;
    }

    std::function<void()> m_body;
    std::atomic<bool> m_bReady{false};
    std::atomic<bool> m_bLetGo{false};
    std::atomic<bool> m_bReturning{false};
    std::atomic<unsigned int> m_pstid{0};
    unsigned int m_tid = 0;
    unsigned long m_result = 0;
};

bool WaitUntilNoneIsTracked() {
    return test::WaitUntil([] { return Threads() == kNone; });
}

/// Ends a child process with a status of its own when something is not as it should be.
void Check(bool bOk, int status) {
    if (!bOk) {
        fprintf(stderr, "check %d failed\n", status);
        _exit(status);
    }
}

bool IsSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

size_t OwnStackSize() {
    pthread_attr_t attributes;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
    }
    return size;
}

/// The stack size that a thread has when it is started with the given one and these settings. Asked of a fresh process:
/// the system gives a larger stack that is left over from another thread where it has one.
size_t StackSizeFor(unsigned int stackSize, const std::string& ini = "") {
    const test::ChildResult child = test::RunInChild([&] {
        test::Library library(ini);
        std::atomic<size_t> size{0};
        Worker worker([&] { size = OwnStackSize(); }, 0, stackSize);
        Check(worker.WaitUntilReady(), 1);
        printf("%zu", size.load());
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
    return strtoul(child.standardOut.c_str(), nullptr, 10);
}

int OwnNiceValue() {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(tq_GetPSThreadId()));
}

int NiceValueFor(int priority) {
    std::atomic<int> nice{99};
    Worker worker([&] { nice = OwnNiceValue(); }, priority);
    EXPECT_TRUE(worker.WaitUntilReady());
    return nice;
}

/// Whether the test may raise a thread's priority.
bool MayRaisePriority() {
    struct rlimit limit;
    return geteuid() == 0 || (getrlimit(RLIMIT_NICE, &limit) == 0 && limit.rlim_cur >= 30);
}

/// A child process in which threads with stacks of a size cannot be started.
constexpr unsigned int kHugeStack = 0xF0000000u;

void LeaveNoRoomForHugeStacks() {
    unsigned long pages = 0;
    FILE* hFile = fopen("/proc/self/statm", "r");
    if (!hFile || fscanf(hFile, "%lu", &pages) != 1) {
        _exit(90);
    }
    fclose(hFile);
    struct rlimit limit;
    limit.rlim_cur = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (1u << 29);
    limit.rlim_max = RLIM_INFINITY;
    if (sizeof(void*) > 4 && setrlimit(RLIMIT_AS, &limit) != 0) {
        _exit(91);
    }
}

/// Says at the end of its thread whether the thread still has its record.
struct Object {
    std::atomic<int>* pResult = nullptr;
    unsigned int tid = 0;
    ~Object() {
        if (pResult) {
            *pResult = NameOf(tid) == "still here" ? 1 : 2;
        }
    }
};
thread_local Object tObject;

void* ReturnAtOnce(void* pResult) {
    return pResult;
}

} // namespace

// Identity

TEST(Thread, IdIsNeverZeroAndDiffersFromThreadToThread) {
    const unsigned int mine = tq_GetThreadId();
    unsigned int others = 0;
    std::thread([&] { others = tq_GetThreadId(); }).join();
    EXPECT_NE(0u, mine);
    EXPECT_NE(0u, others);
    EXPECT_NE(mine, others);
    EXPECT_EQ(mine, tq_GetThreadId());
}

TEST(Thread, IdIsThePthreadIdWhereThatFits) {
    if (sizeof(pthread_t) == sizeof(unsigned int)) {
        EXPECT_EQ(static_cast<unsigned int>(pthread_self()), tq_GetThreadId());
    } else {
        std::set<unsigned int> ids;
        std::mutex mutex;
        std::vector<std::thread> threads;
        for (int i = 0; i < 50; ++i) {
            threads.emplace_back([&] {
                const unsigned int id = tq_GetThreadId();
                std::lock_guard<std::mutex> lock(mutex);
                ids.insert(id);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(50u, ids.size());
    }
}

TEST(Thread, StartGivesTheIdThatTheThreadHas) {
    test::Library library;
    std::atomic<unsigned int> own{0};
    Worker worker([&] { own = tq_GetThreadId(); });
    ASSERT_NE(0u, worker.Result());
    EXPECT_TRUE(worker.WaitUntilReady());
    EXPECT_EQ(own, worker.Tid());
    EXPECT_EQ(worker.Result(), worker.Tid());
}

TEST(Thread, IdIsStoredBeforeTheThreadLooks) {
    struct Look {
        unsigned int tid = 0;
        std::atomic<int> result{0}; ///< 1 as it should be, 2 not
    };
    const auto body = [](void* pArgument) -> void* {
        auto* pLook = static_cast<Look*>(pArgument);
        pLook->result = pLook->tid == tq_GetThreadId() ? 1 : 2;
        return nullptr;
    };
    for (int round = 0; round < 2; ++round) {
        std::unique_ptr<test::Library> pLibrary(round ? new test::Library : nullptr); // tracked, and untracked
        for (int i = 0; i < 200; ++i) {
            Look look;
            ASSERT_NE(0u, tq_beginthread(0, body, &look, &look.tid, 0));
            ASSERT_TRUE(test::WaitUntil([&] { return look.result != 0; }));
            ASSERT_EQ(1, look.result);
        }
        tq_ThreadWaitForEndingThreads();
    }
}

TEST(Thread, PlaceForTheIdMayBeNull) {
    test::Library library;
    EXPECT_NE(0u, tq_beginthread(0, ReturnAtOnce, nullptr, nullptr, 0));
    EXPECT_TRUE(WaitUntilNoneIsTracked());
}

TEST(Thread, KernelIdIsTheOneThatTheKernelGives) {
    EXPECT_EQ(static_cast<unsigned int>(syscall(SYS_gettid)), tq_GetPSThreadId());
    EXPECT_EQ(static_cast<unsigned int>(getpid()), tq_GetPSThreadId()) << "the main thread's is the process's";
    std::thread([] {
        EXPECT_EQ(static_cast<unsigned int>(syscall(SYS_gettid)), tq_GetPSThreadId());
        EXPECT_NE(static_cast<unsigned int>(getpid()), tq_GetPSThreadId());
    }).join();
}

TEST(Thread, KernelIdInAChildProcessIsTheChilds) {
    tq_GetPSThreadId();
    const test::ChildResult child =
        test::RunInChild([] { Check(tq_GetPSThreadId() == static_cast<unsigned int>(getpid()), 1); });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code);
}

// Start and end

TEST(Thread, RunsItsFunctionWithItsArgument) {
    test::Library library;
    std::atomic<int> seen{0};
    ASSERT_NE(0u, tq_beginthread(
                      0,
                      [](void* pArgument) -> void* {
                          *static_cast<std::atomic<int>*>(pArgument) = 42;
                          return nullptr;
                      },
                      &seen, nullptr, 0));
    EXPECT_TRUE(test::WaitUntil([&] { return seen == 42; }));
    EXPECT_TRUE(WaitUntilNoneIsTracked());
}

TEST(Thread, EndedThreadsLeaveNoMemoryBehind) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    {
        Worker first; // from here on the list has its block
    }
    ASSERT_TRUE(WaitUntilNoneIsTracked());
    tq_ThreadWaitForEndingThreads();
    const unsigned int before = gRequestedMemoryAllocations;
    for (int i = 0; i < 20; ++i) {
        ASSERT_NE(0u, tq_beginthread(0, ReturnAtOnce, nullptr, nullptr, 0));
    }
    ASSERT_TRUE(WaitUntilNoneIsTracked());
    tq_ThreadWaitForEndingThreads();
    EXPECT_EQ(before, gRequestedMemoryAllocations);
}

TEST(Thread, RecordComesOffHoweverTheThreadEnds) {
    test::Library library;
    const PFN_THREAD ways[] = {
        [](void*) -> void* { return reinterpret_cast<void*>(5); },
        [](void*) -> void* { tq_endthread(7); },
        [](void*) -> void* { pthread_exit(nullptr); },
        [](void*) -> void* {
            pthread_cancel(pthread_self());
            pthread_testcancel();
            return nullptr;
        },
    };
    for (PFN_THREAD way : ways) {
        ASSERT_NE(0u, tq_beginthread(0, way, nullptr, nullptr, 0));
        EXPECT_TRUE(WaitUntilNoneIsTracked());
    }
    library.Terminate(); // waits for threads, and ends
}

TEST(Thread, RecordComesOffAlsoWhenTheSystemHasNoRoomForAnEndOfItsOwn) {
    const test::ChildResult child = test::RunInChild([] {
        pthread_key_t key;
        while (pthread_key_create(&key, nullptr) == 0) {
        }
        test::Library library;
        Check(tq_beginthread(0, ReturnAtOnce, nullptr, nullptr, 0) != 0, 1);
        Check(WaitUntilNoneIsTracked(), 2);
        tq_ThreadWaitForEndingThreads();
        library.Terminate();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code) << child.standardError;
}

TEST(Thread, OwnObjectsOfAThreadGoBeforeItsRecord) {
    test::Library library;
    std::atomic<int> result{0};
    {
        Worker worker([&] {
            tq_ThreadSetName(tq_GetThreadId(), "still here");
            tObject.tid = tq_GetThreadId();
            tObject.pResult = &result;
        });
        EXPECT_TRUE(worker.WaitUntilReady());
    }
    EXPECT_TRUE(WaitUntilNoneIsTracked());
    EXPECT_EQ(1, result);
}

TEST(Thread, StartsUntrackedWhileTheLibraryIsNotInitialised) {
    EXPECT_EQ("(null)", Threads());
    std::atomic<bool> bRan{false};
    {
        Worker worker([&] { bRan = true; });
        EXPECT_NE(0u, worker.Result());
        EXPECT_TRUE(worker.WaitUntilReady());
        EXPECT_EQ("", NameOf(worker.Tid()));
    }
    EXPECT_TRUE(bRan);
    tq_ThreadWaitForEndingThreads();
}

// Stack sizes

TEST(Thread, StackSizeOfZeroTakesTheConfiguredDefault) {
    const char kIni[] = "[Thread]\nDefaultStackSize=262144\n";
    const size_t systemDefault = StackSizeFor(0);
    const size_t configured = StackSizeFor(0, kIni);
    if (IsSanitized()) { // sanitizers enlarge small stacks for what they keep there
        EXPECT_LT(configured, systemDefault);
    } else {
        EXPECT_EQ(262144u, configured);
    }
    const size_t given = StackSizeFor(1048576, kIni); // comes before the default
    EXPECT_LT(configured, given);
    EXPECT_LT(given, systemDefault);
}

TEST(Thread, StackSizeThatIsRefusedAsTooSmallGivesTheSystemsDefault) {
    const size_t systemDefault = StackSizeFor(0);
    EXPECT_LT(1048576u, systemDefault);
    EXPECT_EQ(systemDefault, StackSizeFor(4096));
    EXPECT_EQ(systemDefault, StackSizeFor(1));
    EXPECT_EQ(systemDefault, StackSizeFor(0, "[Thread]\nDefaultStackSize=4096\n"));
}

TEST(Thread, FailedStartTakesEverythingBack) {
    const test::ChildResult child = test::RunInChild([] {
        test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
        { Worker first; }
        Check(WaitUntilNoneIsTracked(), 1);
        tq_ThreadWaitForEndingThreads();
        LeaveNoRoomForHugeStacks();
        const unsigned int before = gRequestedMemoryAllocations;
        unsigned int tid = 4711;
        Check(tq_beginthread(kHugeStack, ReturnAtOnce, nullptr, &tid, 0) == 0, 2);
        Check(tid == 0, 3);
        Check(Threads() == kNone, 4);
        Check(gRequestedMemoryAllocations == before, 5);
        {
            Worker running;
            Check(running.WaitUntilReady(), 6);
            Check(tq_beginthread(kHugeStack, ReturnAtOnce, nullptr, &tid, 0) == 0, 7);
            Check(running.IsListed(), 8);
        }
        Check(WaitUntilNoneIsTracked(), 9);
        Check(tq_beginthread(kHugeStack, ReturnAtOnce, nullptr, &tid, 0) == 0, 10);
        library.Terminate(); // would wait for ever, had the failed start said that a thread runs
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.code) << child.standardError;
}

// Priorities

TEST(Thread, PriorityBecomesANiceValue) {
    test::Library library;
    const int mine = OwnNiceValue();
    EXPECT_EQ(10, NiceValueFor(TQ_THREAD_PRIORITY_LOW));
    EXPECT_EQ(mine, NiceValueFor(TQ_THREAD_PRIORITY_NORMAL));
    EXPECT_EQ(mine, NiceValueFor(5));
    EXPECT_EQ(mine, NiceValueFor(-2));
    EXPECT_EQ(MayRaisePriority() ? -10 : mine, NiceValueFor(TQ_THREAD_PRIORITY_HIGH));
    EXPECT_EQ(mine, OwnNiceValue()) << "of the new threads alone";
}

// Names and reports

TEST(Thread, ReportShowsTheInitialisingThreadFirstThenTheOthersInOrder) {
    test::Library library;
    EXPECT_EQ(kNone, Threads()) << "the initialising thread alone does not count";
    Worker workers[] = {
        Worker(nullptr, 1, 0, "/source/high.cpp"),
        Worker(nullptr, -1, 0, "low.cpp"),
        Worker(nullptr, 0, 0, ""),
        Worker(nullptr, 5, 0, nullptr),
    };
    for (const Worker& worker : workers) {
        ASSERT_TRUE(worker.WaitUntilReady());
    }
    EXPECT_EQ(kHeader + InitialRow() + Row(2, workers[0].Tid(), workers[0].PSTid(), "H", "/source/high.cpp") +
                  Row(3, workers[1].Tid(), workers[1].PSTid(), "L", "low.cpp") +
                  Row(4, workers[2].Tid(), workers[2].PSTid(), "N", "Unknown") +
                  Row(5, workers[3].Tid(), workers[3].PSTid(), "N", "Unknown"),
              Threads());
}

TEST(Thread, RecordKeepsWhatTheStarterAskedForAndWhere) {
    test::Library library;
    Worker worker(nullptr, 5, 0, "starter.cpp", 4711);
    ASSERT_TRUE(worker.WaitUntilReady());
    const tq_ListLock lock(gpThreadList);
    const auto* pRecord = static_cast<const TQ_THREAD_LIST_NODE*>(gpThreadList->GetHead());
    ASSERT_NE(nullptr, pRecord);
    EXPECT_STREQ("starter.cpp", pRecord->pszName);
    EXPECT_EQ(5, pRecord->priority);
    EXPECT_EQ(4711u, pRecord->line);
    EXPECT_EQ(worker.Tid(), pRecord->tid);
    EXPECT_EQ(worker.PSTid(), pRecord->pstid);
}

TEST(Thread, ReportShowsTheLastFortyCharactersOfAName) {
    test::Library library;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    const std::string forty = "abcdefghijklmnopqrstuvwxyz01234567890123";
    tq_ThreadSetName(worker.Tid(), forty.c_str());
    EXPECT_EQ(kHeader + InitialRow() + Row(2, worker.Tid(), worker.PSTid(), "N", forty), Threads());
    tq_ThreadSetName(worker.Tid(), ("12345" + forty).c_str());
    EXPECT_EQ(kHeader + InitialRow() + Row(2, worker.Tid(), worker.PSTid(), "N", forty), Threads());
    tq_ThreadSetName(worker.Tid(), "");
    EXPECT_EQ(kHeader + InitialRow() + Row(2, worker.Tid(), worker.PSTid(), "N", "Unknown"), Threads());
    tq_ThreadSetName(worker.Tid(), nullptr);
    EXPECT_EQ(kHeader + InitialRow() + Row(2, worker.Tid(), worker.PSTid(), "N", "Unknown"), Threads());
}

TEST(Thread, ReportThatMemoryIsRefusedForIsNull) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    gMemoryCapInBytes = gRequestedMemoryAllocations + 160 + 480 - 1;
    EXPECT_EQ("(null)", Threads());
    gMemoryCapInBytes += 1;
    EXPECT_NE("(null)", Threads());
    gMemoryCapInBytes = 0;
}

TEST(Thread, NameIsTheStartersFileUntilItIsSet) {
    test::Library library;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    EXPECT_EQ("worker.cpp", NameOf(worker.Tid()));
    tq_ThreadSetName(worker.Tid(), "renamed");
    EXPECT_EQ("renamed", NameOf(worker.Tid()));
    tq_ThreadSetName(worker.Tid() + 1, "somebody else");
    tq_ThreadSetName(0, "nobody");
    EXPECT_EQ("renamed", NameOf(worker.Tid()));
    EXPECT_EQ("", NameOf(worker.Tid() + 1));
}

TEST(Thread, NameThatMemoryIsRefusedForIsUnknown) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    gMemoryCapInBytes = 1;
    tq_ThreadSetName(worker.Tid(), "refused");
    gMemoryCapInBytes = 0;
    EXPECT_EQ("", NameOf(worker.Tid()));
    EXPECT_EQ(kHeader + InitialRow() + Row(2, worker.Tid(), worker.PSTid(), "N", "Unknown"), Threads());
}

TEST(Thread, IdOfZeroMeansTheCallingThreadWhenANameIsRead) {
    test::Library library;
    std::atomic<bool> bRight{false};
    Worker worker([&] {
        tq_ThreadSetName(tq_GetThreadId(), "myself");
        bRight = NameOf(0) == "myself";
    });
    ASSERT_TRUE(worker.WaitUntilReady());
    EXPECT_TRUE(bRight);
    EXPECT_EQ("", NameOf(0)) << "the initialising thread has no record";
}

TEST(Thread, NameThatDoesNotFitIsNotEnded) {
    test::Library library;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    tq_ThreadSetName(worker.Tid(), "123456789");
    char name[20];
    const auto read = [&](unsigned int length) {
        memset(name, '#', sizeof(name));
        tq_ThreadGetName(name, length, worker.Tid());
        return std::string(name, sizeof(name));
    };
    const std::string rest(20, '#');
    const std::string zeros(20, '\0');
    EXPECT_EQ(rest, read(0));
    EXPECT_EQ(zeros.substr(0, 1) + rest.substr(1), read(1)) << "empty";
    EXPECT_EQ("1234" + rest.substr(4), read(5)) << "the fifth character keeps what it was";
    EXPECT_EQ("123456789" + rest.substr(9), read(10)) << "as long as the room for it";
    EXPECT_EQ("123456789" + zeros.substr(0, 1) + rest.substr(10), read(11));
    EXPECT_EQ("123456789" + zeros.substr(0, 5) + rest.substr(14), read(15)) << "padded";
}

TEST(Thread, NameOfAThreadWithoutARecordIsEmptyAndWithoutALibraryUntouched) {
    char name[] = "as it was";
    tq_ThreadGetName(name, sizeof(name), 1);
    EXPECT_STREQ("as it was", name);
    tq_ThreadSetName(1, "nobody");
    tq_RemoveThreadFromTracking(1);
    tq_ThreadSetPSIdForTracking();
    test::Library library;
    tq_ThreadGetName(name, sizeof(name), 1);
    EXPECT_STREQ("", name);
    tq_ThreadGetName(nullptr, 10, 1);
}

TEST(Thread, RecordCanBeTakenOffBeforeTheThreadEnds) {
    test::Library library;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    tq_RemoveThreadFromTracking(worker.Tid() + 1);
    EXPECT_TRUE(worker.IsListed());
    tq_RemoveThreadFromTracking(worker.Tid());
    EXPECT_EQ(kNone, Threads());
    tq_RemoveThreadFromTracking(worker.Tid());
    library.Terminate(); // does not wait for it
    worker.LetGo();
    tq_ThreadWaitForEndingThreads();
}

// Lack of memory

TEST(Thread, WithoutMemoryForItsArgumentsNothingStarts) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    unsigned int tid = 4711;
    gMemoryCapInBytes = 1;
    EXPECT_EQ(0u, tq_beginthread(0, ReturnAtOnce, nullptr, &tid, 0));
    gMemoryCapInBytes = 0;
    EXPECT_EQ(4711u, tid);
    EXPECT_EQ(kNone, Threads());
}

TEST(Thread, WithoutMemoryForItsRecordRunsUntrackedAndIsNotWaitedFor) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    const auto arguments = static_cast<unsigned int>(sizeof(TQ_THREAD_ARGS));
    const auto record = static_cast<unsigned int>(sizeof(TQ_THREAD_LIST_NODE));
    // Room for the arguments alone; for the record too, but not for a place in the list.
    for (unsigned int room : {arguments, arguments + record + 20}) {
        gMemoryCapInBytes = before + room;
        Worker worker;
        EXPECT_NE(0u, worker.Result());
        EXPECT_TRUE(worker.WaitUntilReady());
        gMemoryCapInBytes = 0;
        EXPECT_EQ(kNone, Threads());
        EXPECT_EQ(before, gRequestedMemoryAllocations);
    }
    Worker running;
    gMemoryCapInBytes = 0;
    ASSERT_TRUE(running.WaitUntilReady());
    tq_RemoveThreadFromTracking(running.Tid());
    library.Terminate();
}

// Termination

TEST(ThreadTermination, ReturnsAtOnceWhenEveryThreadHasEnded) {
    test::Library library;
    { Worker worker; }
    ASSERT_TRUE(WaitUntilNoneIsTracked());
    library.Terminate(false, true);
    EXPECT_EQ("(null)", Threads());
}

TEST(ThreadTermination, ReturnsAtOnceWhenNoThreadWasEverStarted) {
    test::Library library;
    library.Terminate(false, true);
}

TEST(ThreadTermination, WaitsForRunningThreadsWhenAsked) {
    test::Library library;
    Worker first;
    Worker second;
    std::atomic<bool> bFirstOff{false};
    std::thread helper([&] {
        EXPECT_TRUE(test::WaitUntil([] { return tqos_Intialized == 0; }));
        first.LetGo();
        bFirstOff = test::WaitUntil([&] { return !first.IsListed(); });
        second.LetGo();
    });
    library.Terminate(false, true);
    helper.join();
    EXPECT_TRUE(bFirstOff) << "records come off while termination waits";
}

TEST(ThreadTermination, LeavesRunningThreadsAloneWhenNotAsked) {
    test::Library library;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    library.Terminate(false, false);
    EXPECT_EQ("(null)", Threads());
    worker.LetGo();
    tq_ThreadWaitForEndingThreads();
}

namespace {

/// Ends the library, and lets the thread go only when that has begun; whether it was waited for.
bool EndWaitsFor(test::Library& library, Worker& running) {
    std::atomic<bool> bLetGo{false};
    std::thread helper([&] {
        EXPECT_TRUE(test::WaitUntil([] { return tqos_Intialized == 0; }));
        bLetGo = true;
        running.LetGo();
    });
    library.Terminate(false, true);
    const bool bWaited = bLetGo;
    helper.join();
    return bWaited;
}

} // namespace

TEST(ThreadTermination, DoesNotWaitForRecordsThatEndedThreadsLeftBehind) {
    test::Library library;
    Worker running;
    ASSERT_TRUE(running.WaitUntilReady());
    {
        Worker ended;
        ASSERT_TRUE(ended.WaitUntilReady());
        tqos_Intialized = 0; // as between the first two steps of a termination
        ended.LetGo();
        tq_ThreadWaitForEndingThreads();
        EXPECT_TRUE(ended.IsListed()) << "the library no longer counts as initialised";
        tqos_Intialized = 1;
    }
    EXPECT_TRUE(EndWaitsFor(library, running));
}

TEST(ThreadTermination, WaitsForRunningThreadsWhateverUntrackedOnesHaveEnded) {
    test::Library library;
    Worker running;
    ASSERT_TRUE(running.WaitUntilReady());
    {
        Worker untracked;
        ASSERT_TRUE(untracked.WaitUntilReady());
        tq_RemoveThreadFromTracking(untracked.Tid());
        tqos_Intialized = 0; // as between the first two steps of a termination
        untracked.LetGo();
        tq_ThreadWaitForEndingThreads();
        tqos_Intialized = 1;
    }
    EXPECT_TRUE(EndWaitsFor(library, running)) << "no record was left behind that could stand for the running thread's";
}

TEST(ThreadTermination, WithoutWaitingEndedThreadsLeaveTheirRecordsToIt) {
    test::Library library("[Memory]\nEnableMemoryTracking=yes\n");
    const unsigned int before = gRequestedMemoryAllocations;
    Worker worker;
    ASSERT_TRUE(worker.WaitUntilReady());
    tq_ThreadTerminationBegins(false);
    tqos_Intialized = 0;
    worker.LetGo();
    tq_ThreadWaitForEndingThreads();
    EXPECT_TRUE(worker.IsListed());
    tqos_Intialized = 1;
    library.Terminate(false, false);
    EXPECT_GE(before, gRequestedMemoryAllocations);
    EXPECT_EQ(0u, gRequestedMemoryAllocations) << "everything was freed";
}

TEST(ThreadTermination, DoesNotWaitForTheThreadThatTerminates) {
    std::atomic<bool> bDone{false};
    test::ScratchDirectory directory;
    ASSERT_EQ(0u, tqOS_Initialize());
    ASSERT_NE(0u, tq_beginthread(
                      0,
                      [](void* pArgument) -> void* {
                          tqOS_Terminate(false, true);
                          *static_cast<std::atomic<bool>*>(pArgument) = true;
                          return nullptr;
                      },
                      &bDone, nullptr, 0));
    EXPECT_TRUE(test::WaitUntil([&] { return bDone.load(); }));
    tq_ThreadWaitForEndingThreads();
}

TEST(ThreadTermination, WaitsForThreadsThatHaveSaidThatTheyAreEnding) {
    struct Ending {
        tq_SemEvent said{1, 0};
        std::atomic<bool> bGo{false};
        std::atomic<bool> bWaited{false};
    };
    Ending ending;
    ASSERT_NE(0u, tq_beginthread(
                      0,
                      [](void* pArgument) -> void* {
                          auto* pEnding = static_cast<Ending*>(pArgument);
                          tq_ThreadIsEnding();
                          tq_ThreadIsEnding(); // once is enough, and twice no more
                          pEnding->said.Set();
                          while (!pEnding->bGo) {
                              sched_yield();
                          }
                          return nullptr;
                      },
                      &ending, nullptr, 0));
    EXPECT_EQ(1, ending.said.WaitForEvent(60000));
    std::thread waiter([&] {
        tq_ThreadWaitForEndingThreads();
        ending.bWaited = true;
    });
    EXPECT_FALSE(ending.bWaited);
    ending.bGo = true;
    waiter.join();
    EXPECT_TRUE(ending.bWaited);
    tq_ThreadIsEnding(); // not a thread of the library: nobody waits for it
    tq_ThreadWaitForEndingThreads();
}

TEST(ThreadTermination, StormsOfStartAndEndAreClean) {
    // Each run lays its memory out in another way than the one before, so a block freed late would be noticed.
    const char* const settings[] = {
        "",
        "[Memory]\nEnableMemoryTracking=yes\n",
        "[Memory]\nEnableMemoryTracking=yes\n[Sem]\nTracking=yes\n",
        "[Sem]\nUseMutexForCritSec=no\nTracking=yes\n",
    };
    test::ScratchDirectory directory;
    for (unsigned int i = 0; i < 40; ++i) {
        test::WriteFile("tqos.ini", settings[i % 4]);
        ASSERT_EQ(0u, tqOS_Initialize());
        for (int thread = 0; thread < 5; ++thread) {
            ASSERT_NE(0u, tq_beginthread(0, ReturnAtOnce, nullptr, nullptr, thread % 3 - 1));
        }
        tqOS_Terminate(false, i % 3 == 0);
    }
    test::WriteFile("tqos.ini", "");
    test::Library defaults; // for whatever runs here next
}

TEST(ThreadTermination, CallsThatComeLateFindNothing) {
    test::ScratchDirectory directory;
    std::atomic<bool> bStop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
        callers.emplace_back([&] {
            char name[50];
            while (!bStop) {
                tq_ThreadGetName(name, sizeof(name), 0);
                tq_ThreadSetName(tq_GetThreadId(), "caller");
                tq_ThreadSetPSIdForTracking();
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(0u, tqOS_Initialize());
        tqOS_Terminate(false, i % 2 == 0);
    }
    bStop = true;
    for (std::thread& caller : callers) {
        caller.join();
    }
}

// Sleep

TEST(Sleep, OfZeroYields) {
    const unsigned int yields = test::gYields;
    const unsigned int sleeps = test::gSleeps;
    test::Fault fault(test::gbSleepInterrupted);
    tq_Sleep(0);
    EXPECT_EQ(yields + 1, test::gYields);
    EXPECT_EQ(sleeps, test::gSleeps);
}

TEST(Sleep, IsOfWholeSecondsAndTheRestInNanoseconds) {
    test::Fault fault(test::gbSleepInterrupted);
    tq_Sleep(2500);
    EXPECT_EQ(2, test::gLastSleepSeconds);
    EXPECT_EQ(500000000, test::gLastSleepNanoseconds);
    tq_Sleep(999);
    EXPECT_EQ(0, test::gLastSleepSeconds);
    EXPECT_EQ(999000000, test::gLastSleepNanoseconds);
    tq_Sleep(UINT_MAX);
    EXPECT_EQ(4294967, test::gLastSleepSeconds);
    EXPECT_EQ(295000000, test::gLastSleepNanoseconds);
}

TEST(Sleep, ThatIsInterruptedIsNotResumed) {
    const unsigned int sleeps = test::gSleeps;
    test::Fault fault(test::gbSleepInterrupted);
    tq_Sleep(60000);
    EXPECT_EQ(sleeps + 1, test::gSleeps);
}

TEST(Sleep, IsTrackedUnderTheThreadsIdWhileItLasts) {
    tq_SemEnableSemTracking();
    std::atomic<unsigned int> tid{0};
    std::thread sleeper([&] {
        signal(SIGUSR1, [](int) {});
        tid = tq_GetThreadId();
        tq__Sleep(60000, 12, "sleeper.cpp");
    });
    const auto isListed = [] {
        LockSemList();
        const bool bListed = gpSemListHead != nullptr;
        unLockSemList();
        return bListed;
    };
    ASSERT_TRUE(test::WaitUntil(isListed));
    LockSemList();
    EXPECT_EQ(reinterpret_cast<void*>(static_cast<uintptr_t>(tid)), gpSemListHead->Sem);
    EXPECT_EQ(tid, gpSemListHead->ThreadId);
    EXPECT_EQ(12u, gpSemListHead->Line);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_TYPE_SLEEP), gpSemListHead->Type);
    EXPECT_EQ(static_cast<unsigned int>(SEM_TRACK_STATE_WAITING), gpSemListHead->State);
    EXPECT_STREQ("sleeper.cpp", gpSemListHead->pszFile);
    unLockSemList();
    // A signal that comes before the sleep has begun is lost, so it is sent until the sleep has ended.
    EXPECT_TRUE(test::WaitUntil([&] {
        const bool bListed = isListed();
        if (bListed) {
            pthread_kill(sleeper.native_handle(), SIGUSR1);
        }
        return !bListed;
    }));
    sleeper.join();
    tq_SemDisableSemTracking();
}
