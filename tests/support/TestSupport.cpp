#include "TestSupport.h"

#include <chrono>
#include <errno.h>
#include <fstream>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tqos.h"

namespace test {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

/// Reads both descriptors to their end, or until the time is up.
void Collect(int outFd, int errFd, ChildResult& result, std::chrono::steady_clock::time_point limit) {
    struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* texts[2] = {&result.standardOut, &result.standardError};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < limit) {
        if (poll(fds, 2, 100) < 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t length = read(fds[i].fd, buffer, sizeof(buffer));
            if (length > 0) {
                texts[i]->append(buffer, static_cast<size_t>(length));
            } else {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

} // namespace

ScratchDirectory::ScratchDirectory() {
    char previous[PATH_MAX];
    m_previous = getcwd(previous, sizeof(previous)) ? previous : "/";
    char path[] = "/tmp/tqos_test_XXXXXX";
    if (!mkdtemp(path) || chdir(path) != 0) {
        perror("scratch directory");
        abort();
    }
    m_path = path;
}

ScratchDirectory::~ScratchDirectory() {
    EXPECT_EQ(0, chdir(m_previous.c_str()));
    nftw(m_path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

Library::Library(const std::string& ini) : m_bRunning(false) {
    if (!ini.empty()) {
        WriteFile("tqos.ini", ini);
    }
    EXPECT_EQ(0u, tqOS_Initialize());
    m_bRunning = true;
}

Library::~Library() {
    Terminate();
}

void Library::Terminate(bool bDumpResources, bool bWaitForThreads) {
    if (m_bRunning) {
        m_bRunning = false;
        tqOS_Terminate(bDumpResources, bWaitForThreads);
    }
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    ASSERT_TRUE(file.good()) << path;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool FileExists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

WaitableChildren::WaitableChildren() {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &action, &m_before);
}

WaitableChildren::~WaitableChildren() {
    sigaction(SIGCHLD, &m_before, nullptr);
}

ChildResult RunInChild(const std::function<void()>& body, unsigned int seconds) {
    ChildResult result;
    const WaitableChildren waitable;
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
        ADD_FAILURE() << "no pipes";
        return result;
    }
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
            close(fd);
        }
        body();
        fflush(nullptr);
        _exit(0);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    if (child < 0) { // to wait for it, or to kill it, would mean others
        ADD_FAILURE() << "no process: " << strerror(errno);
        close(outPipe[0]);
        close(errPipe[0]);
        return result;
    }
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    Collect(outPipe[0], errPipe[0], result, limit);
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
        if (std::chrono::steady_clock::now() >= limit) {
            ADD_FAILURE() << "the child process hangs; killed";
            kill(child, SIGKILL);
            ended = waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    close(outPipe[0]);
    close(errPipe[0]);
    EXPECT_EQ(child, ended);
    result.exited = WIFEXITED(status);
    result.code = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

bool WaitUntil(const std::function<bool()>& condition, unsigned int seconds) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

size_t CountOf(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) {
        ++count;
    }
    return count;
}

} // namespace test
