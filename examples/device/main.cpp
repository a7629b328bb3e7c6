// device [-d DIRECTORY] [-p PORT]
//
// The demo device: starts the library, its three queues and the console, and waits for SIGINT or SIGTERM.
//   -d DIRECTORY  where its tqos.ini is read and its files are written; without it, the program's own directory
//   -p PORT       of the line protocol, instead of the one in tqos.ini; 0 takes any free one
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tqos.h>

#include "DeviceTrace.h"
#include "History.h"
#include "Sample.h"
#include "SamplerQueue.h"
#include "ServerQueue.h"
#include "Settings.h"
#include "StatusQueue.h"

namespace {

constexpr int kNormalPriority = TQ_THREAD_PRIORITY_NORMAL;

struct Options {
    const char* pszDirectory = nullptr;
    const char* pszPort = nullptr;
};

bool ParseOptions(int argc, char** argv, Options* pOptions) {
    int option;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
    while ((option = getopt(argc, argv, "d:p:")) != -1) {
        switch (option) {
        case 'd':
            pOptions->pszDirectory = optarg;
            break;
        case 'p':
            pOptions->pszPort = optarg;
            break;
        default:
            return false;
        }
    }
    return optind == argc;
}

bool ParsePort(const char* pszText, unsigned int* pPort) {
    char* pszEnd;
    const unsigned long port = strtoul(pszText, &pszEnd, 10);
    *pPort = static_cast<unsigned int>(port);
    return pszText[0] >= '0' && pszText[0] <= '9' && *pszEnd == 0 && port <= 65535;
}

/// The signals that end the device. They stay blocked in every thread and are taken with sigwait(): what follows runs
/// on the main thread as ordinary code, not inside a signal handler.
sigset_t EndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

/// The diagnostic console: there while the object is.
class Console {
public:
    explicit Console(const Settings& settings)
        : m_port(tq_TelnetInitialize(settings.consolePort, htonl(INADDR_LOOPBACK), settings.consolePassword)) {}
    ~Console() {
        if (m_port != 0) {
            tq_TelnetTerminate();
        }
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// The one that is listened on, whatever was asked for; 0: there is no console.
    unsigned int Port() const { return m_port; }

private:
    const unsigned int m_port;
};

void PrintWhereToConnect(const Settings& settings, unsigned int port, unsigned int consolePort) {
    printf("device: TCP on 127.0.0.1 port %u\n", port);
    printf("device: local-domain socket %s\n", settings.socketPath);
    if (settings.statusPort != 0) {
        printf("device: status datagrams to 127.0.0.1 port %u\n", settings.statusPort);
    }
    printf("device: console on 127.0.0.1 port %u\n", consolePort);
    printf("device: ready\n");
    fflush(stdout);
}

/// The device's life. Everything in it is gone when it returns: objects of the library must not outlive the library.
bool RunDevice(const Settings& settings) {
    // In the order in which they are needed; they end the other way round, the server first, so that nobody sends to a
    // queue that has gone or reads a history that has.
    History history(settings.historyDepth);
    Sample first;
    if (TakeSample(&first)) {
        history.Add(first); // the first client finds one, however early it comes
    }
    StatusQueue status(settings.statusPort);
    status.Create(kNormalPriority);
    SamplerQueue sampler(history, settings.samplePeriodMs, status.GetHandle());
    sampler.Create(kNormalPriority);
    ServerQueue server(settings, history);
    server.Create(kNormalPriority);

    if (!server.WaitUntilOpen()) {
        fprintf(stderr, "device: cannot listen on port %u and %s; see tqos.log\n", settings.port, settings.socketPath);
        return false;
    }
    const Console console(settings); // last: whom it asks is there before it and after it
    if (console.Port() == 0) {
        fprintf(stderr, "device: no console on port %u or the hundred after it; see tqos_error.log\n",
                settings.consolePort);
        return false;
    }
    PrintWhereToConnect(settings, server.TcpPort(), console.Port());

    const sigset_t signals = EndingSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    printf("device: ending on signal %d\n", signal);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    unsigned int port = 0;
    if (!ParseOptions(argc, argv, &options) || (options.pszPort && !ParsePort(options.pszPort, &port))) {
        fprintf(stderr, "usage: device [-d DIRECTORY] [-p PORT]\n");
        return 2;
    }

    // Before the library starts its first thread: threads inherit what is blocked.
    const sigset_t signals = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // Before the library reads tqos.ini.
    if (!options.pszDirectory) {
        tq_SetWorkingDirectoryFromArgv(argv[0]);
    } else if (!tq_SetWorkingDirectory(options.pszDirectory)) {
        fprintf(stderr, "device: cannot use directory %s\n", options.pszDirectory);
        return 2;
    }

    bool bRan = false;
    if (tqOS_Initialize() == 0) {
        Settings settings = ReadSettings();
        if (options.pszPort) {
            settings.port = port;
        }
        OpenDeviceTrace();
        bRan = RunDevice(settings);
        CloseDeviceTrace();
    } else {
        fprintf(stderr, "device: the library did not start\n");
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true); // also after a start that failed half-way
    return bRan ? 0 : 1;
}
