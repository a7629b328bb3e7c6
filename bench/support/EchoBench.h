/// @file EchoBench.h
/// The measurements of TCP servers. Their client is written by hand on plain system calls, the same for every
/// contender, and runs in a process of its own.
///
///     PEER_BENCH("tcp/echo-50", "an example") {
///         bench::Client client = bench::EchoClient({50, 50, false}); // before anything starts a thread
///         unsigned int port = ...;                                   // start the server
///         return client.Measure(port);
///     }
#ifndef ECHO_BENCH_H
#define ECHO_BENCH_H

#include <functional>

namespace bench {

/// A process that measures a server of this one.
class Client {
public:
    /// Forks, so it is made while this process has one thread; ties that to processor 0.
    /// @param core  the processor of the client's process
    Client(int core, const std::function<double(unsigned int port)>& work);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Lets the client connect to this port of the loopback interface, and measure.
    /// @return what its work gave
    double Measure(unsigned int port);

private:
    int m_socket; // to the client's process: the port goes out, the value comes back
    int m_process;
};

struct EchoLoad {
    int connections; ///< that are open
    int active;      ///< of these, how many have a message of 64 bytes under way at any time
};

constexpr int kEchoBytes = 64;
constexpr int kStreamPiece = 64 * 1024; ///< bytes of a read or write of a stream

/// Round trips a second, of all connections together.
double MeasureEcho(unsigned int port, const EchoLoad& load);

/// Bytes a second that the server takes.
double MeasureStreamToServer(unsigned int port);

/// Bytes a second that the server sends to whoever connects.
double MeasureStreamFromServer(unsigned int port);

/// A socket that listens on a free port of the loopback interface.
/// @param pPort  receives the port
int Listen(unsigned int* pPort);

/// What a server does for one subject: gets the client, starts, and gives what client.Measure(port) gives.
using Serve = double (*)(Client& client);

/// The subjects: how many connections, where the client runs.
double EchoOneCore(Serve serve);
double EchoMany(Serve serve, int connections);
double EchoBesideIdle(Serve serve, int idle, int core);
double StreamIn(Serve serve);
double StreamOut(Serve serve);

} // namespace bench

/// All echo measurements of a server.
#define PEER_BENCH_ECHO(serve, label)                                                                                  \
    PEER_BENCH("tcp/echo-one-core", label) {                                                                           \
        return bench::EchoOneCore(serve);                                                                              \
    }                                                                                                                  \
    PEER_BENCH("tcp/echo-50", label) {                                                                                 \
        return bench::EchoMany(serve, 50);                                                                             \
    }                                                                                                                  \
    PEER_BENCH("tcp/echo-500", label) {                                                                                \
        return bench::EchoMany(serve, 500);                                                                            \
    }

/// Both directions of a stream: a server that takes all that comes, and one that sends all that goes.
#define PEER_BENCH_STREAMS(serveIn, serveOut, label)                                                                   \
    PEER_BENCH("tcp/stream-in", label) {                                                                               \
        return bench::StreamIn(serveIn);                                                                               \
    }                                                                                                                  \
    PEER_BENCH("tcp/stream-out", label) {                                                                              \
        return bench::StreamOut(serveOut);                                                                             \
    }

#endif // ECHO_BENCH_H
