/// @file TcpStream.h
/// A TCP connection to a device, every step of which has a limit of time. One thread uses it.
#ifndef TOOLS_TCP_STREAM_H
#define TOOLS_TCP_STREAM_H

#include <chrono>
#include <string>

namespace tools {

using Clock = std::chrono::steady_clock;

/// A time from now on.
inline Clock::time_point In(int ms) {
    return Clock::now() + std::chrono::milliseconds(ms);
}

class TcpStream {
public:
    enum class Status { Done, Ended, TimedOut };

    TcpStream() = default;
    ~TcpStream() { Close(); }
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;

    /// Tries each address of the host. False: there is no connection, and Problem() says why.
    bool Connect(const std::string& host, const std::string& port, Clock::time_point limit);
    void Close();
    bool IsOpen() const { return m_fd >= 0; }
    /// For those who wait for other things too.
    int Descriptor() const { return m_fd; }

    /// Sends all of it. Ended: the peer takes no more.
    Status Send(const std::string& bytes, Clock::time_point limit);
    /// Appends what has come; waits for the first byte, and with a limit that is over for none.
    Status Receive(std::string* pBytes, Clock::time_point limit);

    /// What went wrong last, in words.
    const std::string& Problem() const { return m_problem; }

private:
    Status WaitFor(short events, Clock::time_point limit);

    int m_fd = -1;
    std::string m_problem;
};

} // namespace tools

#endif // TOOLS_TCP_STREAM_H
