#include "Announcement.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

namespace tqtrace {

std::string Endpoint::Address() const {
    struct in_addr address = {htonl(ip)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

std::string Endpoint::Text() const {
    return Address() + " port " + std::to_string(port);
}

Endpoint FromSocketAddress(const struct sockaddr_in& address) {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

struct sockaddr_in ToSocketAddress(const Endpoint& endpoint) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(endpoint.ip);
    address.sin_port = htons(endpoint.port);
    return address;
}

namespace {

bool ParseAddress(const std::string& address, const std::string& port, Endpoint* pEndpoint) {
    struct in_addr ip;
    const bool bDigits = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long number = bDigits ? strtoul(port.c_str(), nullptr, 10) : 0;
    if (inet_pton(AF_INET, address.c_str(), &ip) != 1 || ip.s_addr == 0 || number == 0 || number > 65535) {
        return false;
    }
    *pEndpoint = {ntohl(ip.s_addr), static_cast<uint16_t>(number)};
    return true;
}

constexpr char kKeyword[] = "DISCOVER/";

/// What stands between a field's name and the name of the next one. Each name is looked for behind the one before: a
/// value may hold a "/" of its own.
bool TakeField(const std::string& text, size_t* pAt, const std::string& name, const std::string& next,
               std::string* pValue) {
    const size_t end = text.find(next, *pAt);
    if (text.compare(*pAt, name.size(), name) != 0 || end == std::string::npos || end < *pAt + name.size()) {
        return false;
    }
    *pValue = text.substr(*pAt + name.size(), end - *pAt - name.size());
    *pAt = end + 1;
    return true;
}

} // namespace

bool ParseEndpoint(const std::string& text, Endpoint* pEndpoint) {
    const size_t colon = text.find(':');
    return colon != std::string::npos && ParseAddress(text.substr(0, colon), text.substr(colon + 1), pEndpoint);
}

bool ParseAnnouncement(const std::string& text, Announcement* pAnnouncement) {
    Announcement& found = *pAnnouncement;
    std::string address;
    std::string port;
    size_t at = strlen(kKeyword);
    if (text.compare(0, at, kKeyword) != 0 || !TakeField(text, &at, "version=", "/applicationName=", &found.version) ||
        !TakeField(text, &at, "applicationName=", "/mac=", &found.name) ||
        !TakeField(text, &at, "mac=", "/IPAddr=", &found.mac) || !TakeField(text, &at, "IPAddr=", "/port=", &address) ||
        !TakeField(text, &at, "port=", "/host=", &port)) {
        return false;
    }
    const size_t colon = found.name.find(':');
    found.instance = colon == std::string::npos ? found.name : found.name.substr(colon + 1);
    return ParseAddress(address, port, &found.endpoint);
}

bool Listener::Open(const Endpoint& group, std::string* pProblem) {
    m_group = group;
    m_socket = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1; // other viewers of this machine listen, too
    const struct sockaddr_in address = ToSocketAddress(group);
    if (setsockopt(m_socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(m_socket.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
        *pProblem = group.Text() + ": " + strerror(errno);
        return false;
    }
    Join();
    return true;
}

void Listener::Join() {
    struct ifaddrs* pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0) {
        return;
    }
    for (const struct ifaddrs* pInterface = pFirst; pInterface; pInterface = pInterface->ifa_next) {
        if (!pInterface->ifa_addr || pInterface->ifa_addr->sa_family != AF_INET || !(pInterface->ifa_flags & IFF_UP)) {
            continue;
        }
        struct ip_mreqn membership = {};
        membership.imr_multiaddr.s_addr = htonl(m_group.ip);
        membership.imr_ifindex = static_cast<int>(if_nametoindex(pInterface->ifa_name));
        // One that is joined already says so, and one without multicast has nothing to hear.
        setsockopt(m_socket.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership));
    }
    freeifaddrs(pFirst);
}

bool Listener::Next(Announcement* pAnnouncement) {
    char buffer[2048];
    for (;;) {
        struct sockaddr_in from = {};
        socklen_t length = sizeof(from);
        const ssize_t bytes =
            recvfrom(m_socket.Get(), buffer, sizeof(buffer) - 1, 0, reinterpret_cast<struct sockaddr*>(&from), &length);
        if (bytes < 0) {
            return false;
        }
        buffer[bytes] = '\0';
        if (ParseAnnouncement(buffer, pAnnouncement) && pAnnouncement->endpoint == FromSocketAddress(from)) {
            return true;
        }
    }
}

} // namespace tqtrace
