// Sockets, trace instances and their viewers, sessions of the console, and devices that one viewer or client follows.
#include <algorithm>
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

unsigned int OpenNetworkInstance() {
    const unsigned int handle = tq__TraceInitInstance("Scale", __FILE__, __LINE__);
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

constexpr int kLinesASecond = 200;

/// One device: traces at an even pace once it is told to, and has a console.
[[noreturn]] void BeDevice(int fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Library library;
    const unsigned int handle = OpenNetworkInstance();
    const Contact contact = {AddressOfInstance(), tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr)};
    bench::Keep(write(fd, &contact, sizeof(contact)));
    char word;
    if (read(fd, &word, 1) == 1) {
        for (int i = 0; i < kLinesASecond; ++i) {
            tq_Trace(handle, TQ_TRACE_LEVEL_WARNING, 1, true, "the value of sensor %d is %d\n", i % 8, i);
            usleep(1000000 / kLinesASecond);
        }
    }
    pause();
    _exit(0);
}

/// Processes of devices. Made while this process has one thread.
class Devices {
public:
    explicit Devices(unsigned int count) {
        for (unsigned int i = 0; i < count; ++i) {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
                perror("socketpair");
                exit(1);
            }
            processes.push_back(fork());
            if (processes.back() == 0) {
                BeDevice(ends[1]);
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

void MeasureFollowedTraces(unsigned int count, Row* pRow) {
    Devices devices(count);
    std::vector<pollfd> viewers;
    for (const Contact& contact : devices.contacts) {
        viewers.push_back({Subscribe(contact.trace), POLLIN, 0});
    }
    usleep(200000); // the subscriptions arrive
    devices.Start();
    const double start = OwnMicroseconds();
    FILE* pOut = fopen("lines.log", "w");
    double arrived = 0;
    while (poll(viewers.data(), viewers.size(), 1000) > 0) {
        for (const pollfd& viewer : viewers) {
            char line[2048];
            const ssize_t got = viewer.revents ? recv(viewer.fd, line, sizeof(line), MSG_DONTWAIT) : 0;
            if (got > 9 && line[0] != 'K') { // no question whether the viewer is still there
                fwrite(line, 1, static_cast<std::size_t>(got - 1), pOut);
                ++arrived;
            }
        }
    }
    fclose(pOut);
    const double microseconds = (OwnMicroseconds() - start) / std::max(arrived, 1.0);
    pRow->Add("lines sent in a second", count * static_cast<double>(kLinesASecond));
    pRow->Add("lines arrived", arrived);
    pRow->Add("viewer's processor time a line, us", microseconds);
    pRow->Add("lines a second one viewer can take", 1e6 / microseconds);
}

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
