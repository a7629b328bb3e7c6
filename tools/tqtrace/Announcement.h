/// @file Announcement.h
/// What trace instances tell the network of themselves, every ten seconds.
#ifndef TQTRACE_ANNOUNCEMENT_H
#define TQTRACE_ANNOUNCEMENT_H

#include <netinet/in.h>
#include <string>

#include "Descriptor.h"

namespace tqtrace {

/// An IPv4 address and a port; both in host byte order.
struct Endpoint {
    uint32_t ip = 0;
    uint16_t port = 0;

    bool operator==(const Endpoint& other) const { return ip == other.ip && port == other.port; }
    std::string Address() const; ///< dotted
    std::string Text() const;    ///< "10.0.0.7 port 40112"
};

Endpoint FromSocketAddress(const struct sockaddr_in& address);
struct sockaddr_in ToSocketAddress(const Endpoint& endpoint);

/// "10.0.0.7:40112"; false for anything else.
bool ParseEndpoint(const std::string& text, Endpoint* pEndpoint);

struct Announcement {
    Endpoint endpoint;
    std::string name;     ///< "10.0.0.7:device": an address of the device when it started, and the instance
    std::string instance; ///< "device"
    std::string mac;
    std::string version;
};

/// False for what is no announcement.
bool ParseAnnouncement(const std::string& text, Announcement* pAnnouncement);

/// Hears the announcements that come in on any interface.
class Listener {
public:
    /// False, with the reason, when it cannot.
    bool Open(const Endpoint& group, std::string* pProblem);
    /// Listens on the interfaces that are there now, too. Called now and then: they come and go.
    void Join();
    /// The next one that has come, from the place that it names: one that speaks for another would have us send there.
    /// False when there is none (any more).
    bool Next(Announcement* pAnnouncement);
    int Fd() const { return m_socket.Get(); }

private:
    Descriptor m_socket;
    Endpoint m_group;
};

constexpr char kGroup[] = "224.123.111.105:3000";

} // namespace tqtrace

#endif // TQTRACE_ANNOUNCEMENT_H
