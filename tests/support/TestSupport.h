/// @file TestSupport.h
/// What the tests share: a directory of a test's own, the library running in it, child processes whose output is kept,
/// and waiting for something to become true.
#ifndef TEST_SUPPORT_H
#define TEST_SUPPORT_H

#include <functional>
#include <signal.h>
#include <string>

namespace test {

/// A fresh directory that is the working directory while the object lives; removed with all it holds afterwards.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    std::string m_previous;
};

/// The library, initialised in a scratch directory that holds the given tqos.ini, and terminated at the end (waiting
/// for threads). Fails the test when it does not start.
class Library {
public:
    explicit Library(const std::string& ini = "");
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    /// Ends it early; the destructor then does nothing more with it.
    void Terminate(bool bDumpResources = false, bool bWaitForThreads = true);
    const std::string& Path() const { return m_directory.Path(); }

private:
    ScratchDirectory m_directory;
    bool m_bRunning;
};

void WriteFile(const std::string& path, const std::string& content);
/// The whole file; empty when there is none.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

/// While one lives, a child that ends can be waited for: a library that ran in this process before has asked the system
/// not to keep ended children. Make it before the child.
class WaitableChildren {
public:
    WaitableChildren();
    ~WaitableChildren();
    WaitableChildren(const WaitableChildren&) = delete;
    WaitableChildren& operator=(const WaitableChildren&) = delete;

private:
    struct sigaction m_before;
};

/// How a child process ended and what it wrote.
struct ChildResult {
    bool exited = false; ///< by exit(); false: by a signal
    int code = 0;        ///< exit status, or the signal's number
    std::string standardOut;
    std::string standardError;
};

/// Runs the function in a child process and waits for its end. A child that returns from it exits with status 0 (so a
/// check inside it must exit with another). One that hangs is killed after `seconds`. Call it before the test has
/// started threads.
ChildResult RunInChild(const std::function<void()>& body, unsigned int seconds = 60);

/// Waits until the condition holds; false when it still does not after `seconds`, which only a hang should reach.
bool WaitUntil(const std::function<bool()>& condition, unsigned int seconds = 30);

/// How often `piece` stands in `text`.
size_t CountOf(const std::string& text, const std::string& piece);

} // namespace test

#endif // TEST_SUPPORT_H
