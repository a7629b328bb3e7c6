/// @file Bench.h
/// What the measuring programs share. A program is a contender: this library, one of its peers, or the floors, which
/// are written by hand and show what the machine allows. It registers measurements, each of a subject that others
/// measure as well, and its main() lists them or makes one of them, in a scratch directory of its own.
///
///     PEER_BENCH("queue/one-producer", "GAsyncQueue") {
///         ...
///         return messages / seconds;
///     }
///
/// The unit of a subject, and who is compared with whom, stand in run/Subjects.cpp.
#ifndef BENCH_H
#define BENCH_H

#include <cstdint>
#include <functional>

namespace bench {

using Measurement = double (*)();

/// Takes part in main()'s list. Objects of it are made by PEER_BENCH.
struct Registration {
    Registration(const char* pszSubject, const char* pszLabel, Measurement measure);
    const char* pszSubject;
    const char* pszLabel; ///< how the table calls what is measured
    Measurement measure;
    Registration* pNext;
};

/// Writes the registered measurements, a line each: subject, a tab, label.
/// @return 0
int List();

/// Makes a measurement in a scratch directory and writes its value as the last line.
/// @param pszLabel  null: the first of the subject
/// @return 0; 2 when there is no such measurement
int Run(const char* pszSubject, const char* pszLabel);

/// A directory that is the working directory while the object lives, for settings and for what is written; gone then.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

private:
    char m_szPath[32] = "/tmp/tqos-bench.XXXXXX";
};

/// Gives this process the highest priority that it may have, in a group of the scheduler's of its own: what else the
/// machine does disturbs it least.
void ComeFirst();

/// Seconds of the monotonic clock.
double Now();

/// Seconds of processor time that the calling thread has used.
double ProcessorNow();

/// For how long one measurement goes on, in seconds: TQ_BENCH_SECONDS of the environment, otherwise 0.3.
double Seconds();

/// Ties the calling thread, and the threads that it starts from now on, to one processor. There are two: 0 and 1.
void PinTo(int core);

/// Lets the calling thread, and those that it starts from now on, run on both.
void Unpin();

/// Keeps the compiler from leaving out what makes a value.
template <typename T> inline void Keep(T const& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

/// Calls batch(), which gives how many operations it did, once to warm up and then until the time is over.
/// @return operations a second
double PerSecond(const std::function<double()>& batch);

/// Nanoseconds of an operation in which one thread computes and waits for nobody: of its processor time, so that it
/// does not matter who else uses the processor.
double ProcessorNanosecondsEach(const std::function<double()>& batch);

/// The same as PerSecond() in nanoseconds an operation.
double NanosecondsEach(const std::function<double()>& batch);

/// NanosecondsEach() on several threads at once, tied to the processors in turn; what one thread sees, on average. One
/// thread alone waits for nobody: its processor time counts.
/// @param make  makes a thread's batch, on that thread; gets the thread's number
double NanosecondsEachOnThreads(int threads, const std::function<std::function<double()>(int)>& make);

/// Small fast random numbers, the same in each run.
class Random {
public:
    explicit Random(std::uint32_t seed = 1) : m_state(seed * 2654435761u + 1) {}
    std::uint32_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }
    std::uint32_t Below(std::uint32_t limit) {
        return static_cast<std::uint32_t>((static_cast<std::uint64_t>(Next()) * limit) >> 32);
    }

private:
    std::uint32_t m_state;
};

/// Waits for a number of events that other threads count.
class Countdown {
public:
    /// @param count  how many Done() there will be
    void Expect(int count);
    void Done(int count = 1);
    void Wait();

private:
    int m_word = 0; // a futex; counts down to 0
};

} // namespace bench

#define PEER_BENCH_JOIN2(a, b) a##b
#define PEER_BENCH_JOIN(a, b) PEER_BENCH_JOIN2(a, b)
#define PEER_BENCH_NUMBERED(subject, label, number)                                                                    \
    static double PEER_BENCH_JOIN(Measure, number)();                                                                  \
    static const bench::Registration PEER_BENCH_JOIN(registration, number)(subject, label,                             \
                                                                           PEER_BENCH_JOIN(Measure, number));          \
    static double PEER_BENCH_JOIN(Measure, number)()
#define PEER_BENCH(subject, label) PEER_BENCH_NUMBERED(subject, label, __COUNTER__)

#endif // BENCH_H
