// Reports of this library's console with many rows, as a client at the other end of the connection waits for them.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Bench.h"
#include "Library.h"

namespace {

/// A client of the console.
class Session {
public:
    explicit Session(unsigned int port) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<unsigned short>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            perror("connect");
            exit(1);
        }
    }
    ~Session() { close(m_fd); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Sends a command and waits for so many rows, which are known by a text.
    void Ask(const std::string& command, const std::string& row, unsigned int rows) {
        const std::string line = command + "\r\n";
        bench::Keep(write(m_fd, line.data(), line.size()));
        std::string tail; // what may be the beginning of a row's text
        while (rows > 0) {
            char buffer[65536];
            const ssize_t got = read(m_fd, buffer, sizeof(buffer));
            if (got <= 0) {
                fprintf(stderr, "the console has closed the connection\n");
                exit(1);
            }
            const std::string text = tail + std::string(buffer, static_cast<std::size_t>(got));
            std::size_t place = 0;
            std::size_t found;
            while ((found = text.find(row, place)) != std::string::npos && rows > 0) {
                --rows;
                place = found + row.size();
            }
            tail = text.substr(std::max(place, text.size() - std::min(text.size(), row.size() - 1)));
        }
    }

private:
    int m_fd;
};

double MillisecondsOfReport(const char* pszCommand, unsigned int rows) {
    const unsigned int port = tq_TelnetInitialize(0, htonl(INADDR_LOOPBACK), nullptr);
    Session session(port);
    const double nanoseconds = bench::NanosecondsEach([&] {
        session.Ask(pszCommand, "row-", rows);
        return 1.0;
    });
    return nanoseconds * 1e-6;
}

double ReportOfTimers(unsigned int rows) {
    const Library library;
    for (unsigned int i = rows; i > 0; --i) {
        tq_TimerSet(4711, 1000000 + 10 * i, i, 0, 0, TQ_TIMER_ONE_SHOT, "row-", false);
    }
    return MillisecondsOfReport("show timers", rows);
}

double ReportOfLists(unsigned int rows) {
    const Library library;
    std::vector<std::unique_ptr<tq_List>> lists;
    for (unsigned int i = 0; i < rows; ++i) {
        lists.push_back(std::make_unique<tq_List>("row-"));
    }
    return MillisecondsOfReport("show lists", rows);
}

} // namespace

PEER_BENCH("report/timers-1000", "tqos") {
    return ReportOfTimers(1000);
}

PEER_BENCH("report/timers-10000", "tqos") {
    return ReportOfTimers(10000);
}

PEER_BENCH("report/lists-1000", "tqos") {
    return ReportOfLists(1000);
}

PEER_BENCH("report/lists-10000", "tqos") {
    return ReportOfLists(10000);
}
