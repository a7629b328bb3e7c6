// Sockets, trace instances and their viewers, sessions of the console, and devices that one viewer or client follows.
#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Bench.h"
#include "EchoBench.h"
#include "Library.h"
#include "Scale.h"

namespace {

/// Echoes.
class Server : public tq_MsgQ {
public:
    Server() : tq_MsgQ("Server", nullptr) { Create(0); }
    ~Server() override { Cleanup(); }
    void MessageHandler(MSG_COMMON* pMsg) override {
        unsigned char buffer[bench::kEchoBytes];
        if (pMsg->command == MSG_SOCKET_DATASTREAM) {
            while (const unsigned int got = tq_SocketRecv(pMsg->instance, buffer, sizeof(buffer))) {
                tq_SocketSendTo(pMsg->instance, buffer, got, 0, 0);
            }
        }
        tq_free(pMsg);
    }
};

/// The address of this process's first datagram socket: that of the one trace instance on the network.
sockaddr_in AddressOfInstance() {
    sockaddr_in address = {};
    for (int fd = 3; fd < 1024; ++fd) {
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM) {
            length = sizeof(address);
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
            if (address.sin_family == AF_INET && address.sin_port != 0) {
                break;
            }
        }
    }
    return address;
}

unsigned int OpenNetworkInstance(const std::string& name = "Scale") {
    const unsigned int handle = tq__TraceInitInstance(name.c_str(), __FILE__, __LINE__);
    tq_TraceSetLevel(handle, TQ_TRACE_LEVEL_WARNING);
    tq_TraceSetCatMask(handle, -1);
    tq_TraceDisableSTDERR(handle);
    tq_TraceDisableSTDOUT(handle);
    tq_TraceEnableMulticast(handle);
    return handle;
}

int Subscribe(const sockaddr_in& instance) {
    static const char word[] = "TRACEON/";
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    connect(fd, reinterpret_cast<const sockaddr*>(&instance), sizeof(instance));
    bench::Keep(send(fd, word, sizeof(word), 0));
    return fd;
}

bool HasData(int fd, int ms) {
    pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, ms) == 1;
}

void Drain(int fd) {
    char line[2048];
    while (recv(fd, line, sizeof(line), MSG_DONTWAIT) > 0) {
    }
}

int ConnectTo(unsigned int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("connect");
    }
    return fd;
}

void WaitForPrompt(int fd) {
    char buffer[4096];
    ssize_t got;
    do {
        got = read(fd, buffer, sizeof(buffer));
    } while (got > 0 && buffer[got - 1] != '>');
}

void Ask(int fd) {
    static const char command[] = "show uptime\r\n";
    bench::Keep(write(fd, command, sizeof(command) - 1));
}

double OwnMicroseconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

/// What a device tells those who follow it.
struct Contact {
    sockaddr_in trace;
    unsigned int consolePort;
};

constexpr unsigned int kLinesOfOne = 200;   ///< that a device traces, in a second or longer
constexpr unsigned int kLinesOfAll = 20000; ///< in a second at most

/// For how long the devices trace, in seconds.
double TracingSeconds(unsigned int devices) {
    return std::max(1.0, static_cast<double>(devices) * kLinesOfOne / kLinesOfAll);
}

/// One device: traces at an even pace once it is told to, and has a console.
[[noreturn]] void BeDevice(int fd, useconds_t pause) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Library library;
    const unsigned int handle = OpenNetworkInstance("Device" + std::to_string(getpid()));
    const Contact contact = {AddressOfInstance(), tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr)};
    bench::Keep(write(fd, &contact, sizeof(contact)));
    char word;
    if (read(fd, &word, 1) == 1) {
        for (unsigned int i = 0; i < kLinesOfOne; ++i) {
            tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "the value of sensor %u is %u\n", i % 8, i);
            usleep(pause);
        }
    }
    for (;;) {
        ::pause();
    }
}

/// Processes of devices. Made while this process has one thread.
class Devices {
public:
    explicit Devices(unsigned int count) {
        const useconds_t pause = static_cast<useconds_t>(TracingSeconds(count) * 1e6 / kLinesOfOne);
        for (unsigned int i = 0; i < count; ++i) {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
                perror("socketpair");
                exit(1);
            }
            processes.push_back(fork());
            if (processes.back() == 0) {
                for (const int fd : m_sockets) { // those of the devices before it
                    close(fd);
                }
                BeDevice(ends[1], pause);
            }
            close(ends[1]);
            m_sockets.push_back(ends[0]);
        }
        for (const int fd : m_sockets) {
            Contact contact = {};
            bench::Keep(read(fd, &contact, sizeof(contact)));
            contacts.push_back(contact);
        }
    }
    ~Devices() {
        for (const pid_t process : processes) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
    }
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    /// Lets all of them trace.
    void Start() {
        for (const int fd : m_sockets) {
            bench::Keep(write(fd, "", 1));
        }
    }
    std::vector<Contact> contacts;
    std::vector<pid_t> processes;

private:
    std::vector<int> m_sockets;
};

} // namespace

void MeasureSockets(unsigned int count, Row* pRow) {
    bench::Client client(1, [](unsigned int port) { return bench::MeasureEcho(port, {1, 1}); });
    const Library library;
    Server server;
    const unsigned int listener = tq_SocketOpenTCPServer(server.GetHandle(), 0, 0, htonl(INADDR_LOOPBACK));
    unsigned int opened = 0;
    AddMaking(count, pRow, [&](unsigned int) {
        opened += tq_SocketOpenUDP(server.GetHandle(), htonl(INADDR_LOOPBACK), 9, 0, htonl(INADDR_LOOPBACK), 0) != 0;
    });
    pRow->Add("opened", opened);
    pRow->Add("round trip of one more, us", 1e6 / client.Measure(tq_SocketGetBoundPort(listener)));
}

void MeasureInstances(unsigned int count, Row* pRow) {
    const Library library;
    unsigned int last = 0;
    AddMaking(count, pRow, [&last](unsigned int i) {
        const std::string name = "Scale" + std::to_string(i);
        last = tq__TraceInitInstance(name.c_str(), __FILE__, __LINE__);
        tq_TraceSetLevel(last, TQ_TRACE_LEVEL_WARNING);
    });
    pRow->Add("call filtered out, ns", bench::NanosecondsEach([last] {
                  for (int i = 0; i < 1000; ++i) {
                      tq_Trace(last, TQ_TRACE_LEVEL_DEBUG, 1, true, "value %d\n", i);
                  }
                  return 1000.0;
              }));
}

void MeasureViewers(unsigned int count, Row* pRow) {
    const Library library;
    const unsigned int handle = OpenNetworkInstance();
    const sockaddr_in instance = AddressOfInstance();
    std::vector<int> viewers;
    for (unsigned int i = 0; i < count; ++i) {
        viewers.push_back(Subscribe(instance));
    }
    for (const int fd : viewers) { // each has one line at least
        while (!HasData(fd, 10)) {
            tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "hello\n");
        }
    }
    double microseconds = 0;
    int lines = 0;
    while (microseconds < bench::Seconds() * 1e6) {
        microseconds += Microseconds([handle] {
            for (int i = 0; i < 50; ++i) {
                tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "the value of sensor %d is %d\n", i % 8, i);
            }
        });
        lines += 50;
        std::for_each(viewers.begin(), viewers.end(), Drain);
    }
    pRow->Add("a trace line, us", microseconds / lines);
}

void MeasureSessions(unsigned int count, Row* pRow) {
    const Library library;
    const unsigned int port = tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr);
    int last = -1;
    AddMaking(count, pRow, [&](unsigned int) {
        last = ConnectTo(port);
        WaitForPrompt(last);
    });
    pRow->Add("a command, us", 1e-3 * bench::NanosecondsEach([last] {
                                   Ask(last);
                                   WaitForPrompt(last);
                                   return 1.0;
                               }));
}

#ifdef TQTRACE_PROGRAM
namespace {

/// The lines of a file that begin, or that do not begin, with the mark of tqtrace's own.
unsigned int CountLines(const char* pszFile, bool bOwn) {
    std::ifstream file(pszFile);
    std::string line;
    unsigned int count = 0;
    while (std::getline(file, line)) {
        count += (line.compare(0, 2, "--") == 0) == bOwn ? 1 : 0;
    }
    return count;
}

/// tqtrace in a process of its own, following all devices.
class Follower {
public:
    explicit Follower(const std::vector<Contact>& contacts) {
        std::vector<std::string> names = {"tqtrace", "follow"};
        for (const Contact& contact : contacts) {
            names.push_back("127.0.0.1:" + std::to_string(ntohs(contact.trace.sin_port)));
        }
        std::vector<char*> arguments;
        for (std::string& name : names) {
            arguments.push_back(&name[0]);
        }
        arguments.push_back(nullptr);
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            bench::Keep(freopen(kFile, "w", stdout));
            execv(TQTRACE_PROGRAM, arguments.data());
            perror(TQTRACE_PROGRAM);
            _exit(127);
        }
        clock_getcpuclockid(m_process, &m_clock);
        while (CountLines(kFile, true) < contacts.size()) {
            usleep(10000);
        }
    }
    ~Follower() {
        kill(m_process, SIGINT);
        waitpid(m_process, nullptr, 0);
    }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    double ProcessorMicroseconds() const {
        timespec used = {};
        clock_gettime(m_clock, &used);
        return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) * 1e-3;
    }
    /// Lines of devices that it has written.
    static unsigned int Written() { return CountLines(kFile, false); }

private:
    static constexpr const char* kFile = "followed.log";
    pid_t m_process;
    clockid_t m_clock;
};

} // namespace

void MeasureFollowedTraces(unsigned int count, Row* pRow) {
    Devices devices(count);
    const Follower tqtrace(devices.contacts);
    const double start = tqtrace.ProcessorMicroseconds();
    devices.Start();
    unsigned int written = 0;
    for (unsigned int before = ~0u; before != written || written == 0; usleep(1000000)) {
        before = written;
        written = Follower::Written();
    }
    const double microseconds = (tqtrace.ProcessorMicroseconds() - start) / written;
    const double traced = static_cast<double>(count) * kLinesOfOne;
    pRow->Add("lines traced in a second", traced / TracingSeconds(count));
    pRow->Add("in all", traced);
    pRow->Add("written by tqtrace", written);
    pRow->Add("its processor time a line, us", microseconds);
    pRow->Add("lines a second it can take", 1e6 / microseconds);
}
#endif // TQTRACE_PROGRAM

void MeasureFollowedConsoles(unsigned int count, Row* pRow) {
    const Devices devices(count);
    std::vector<int> consoles;
    for (const Contact& contact : devices.contacts) {
        consoles.push_back(ConnectTo(contact.consolePort));
        WaitForPrompt(consoles.back());
    }
    const double start = OwnMicroseconds();
    double turns = 0;
    const double nanoseconds = bench::NanosecondsEach([&] {
        std::for_each(consoles.begin(), consoles.end(), Ask);
        std::for_each(consoles.begin(), consoles.end(), WaitForPrompt);
        ++turns;
        return 1.0;
    });
    pRow->Add("all have answered, ms", nanoseconds * 1e-6);
    pRow->Add("client's processor time an answer, us", (OwnMicroseconds() - start) / turns / count);
}
