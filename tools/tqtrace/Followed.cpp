#include "Followed.h"

#include <algorithm>
#include <errno.h>
#include <linux/errqueue.h>
#include <linux/sock_diag.h>
#include <string.h>
#include <sys/socket.h>

namespace tqtrace {

namespace {

constexpr char kSubscribe[] = "TRACEON/";
constexpr char kUnsubscribe[] = "TRACEOFF/";
constexpr char kKeepAlive[] = "KEEPALIVE/";

constexpr size_t kLongestLine = 1023;      // of what a device puts into a datagram
constexpr unsigned int kMostAtOnce = 1000; // datagrams; then others have their turn

bool SetOption(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

/// The count of the system's drops that came with a datagram.
uint32_t DropsOf(struct msghdr* pMessage, uint32_t before) {
    for (struct cmsghdr* pControl = CMSG_FIRSTHDR(pMessage); pControl; pControl = CMSG_NXTHDR(pMessage, pControl)) {
        if (pControl->cmsg_level == SOL_SOCKET && pControl->cmsg_type == SO_RXQ_OVFL) {
            uint32_t drops;
            memcpy(&drops, CMSG_DATA(pControl), sizeof(drops));
            return drops;
        }
    }
    return before;
}

/// A datagram, or an error, with who it is from and what the system says of it.
struct Received {
    alignas(struct cmsghdr) char control[512];
    char text[2048];
    struct sockaddr_in from = {};
    struct msghdr message = {};

    ssize_t Take(int fd, int flags) {
        struct iovec part = {text, sizeof(text)};
        message = {};
        message.msg_name = &from;
        message.msg_namelen = sizeof(from);
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        return recvmsg(fd, &message, flags);
    }
};

} // namespace

bool Followed::Start(int bufferBytes, std::string* pProblem) {
    m_socket = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int fd = m_socket.Get();
    const struct sockaddr_in any = ToSocketAddress({});
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&any), sizeof(any)) != 0 ||
        !SetOption(fd, SOL_SOCKET, SO_RXQ_OVFL, 1) || !SetOption(fd, IPPROTO_IP, IP_RECVERR, 1)) {
        *pProblem = strerror(errno);
        return false;
    }
    if (!SetOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, bufferBytes)) { // without the privilege: as much as the system gives
        SetOption(fd, SOL_SOCKET, SO_RCVBUF, bufferBytes);
    }
    Add(m_announcement.endpoint);
    m_bUndecided = false;
    Say("following", "is followed at " + m_announcement.endpoint.Text(), m_announcement.endpoint);
    return true;
}

bool Followed::Is(const Announcement& announcement) const {
    if (m_announcement.mac.empty()) { // followed by its place alone, until it says its name
        return m_places.back().endpoint == announcement.endpoint;
    }
    return announcement.mac == m_announcement.mac && announcement.instance == m_announcement.instance;
}

bool Followed::IsAt(const Endpoint& endpoint) const {
    return std::any_of(m_places.begin(), m_places.end(),
                       [&](const Place& place) { return place.endpoint == endpoint && place.state != State::Gone; });
}

Followed::Place* Followed::Find(const Endpoint& endpoint) {
    const auto found =
        std::find_if(m_places.begin(), m_places.end(), [&](const Place& place) { return place.endpoint == endpoint; });
    return found == m_places.end() ? nullptr : &*found;
}

void Followed::Send(const Endpoint& endpoint, const char* pszKeyword) {
    const struct sockaddr_in address = ToSocketAddress(endpoint);
    for (int i = 0; i < 2; ++i) { // the first try may only say what became of an earlier one
        if (sendto(m_socket.Get(), pszKeyword, strlen(pszKeyword) + 1, 0,
                   reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) >= 0) {
            return;
        }
    }
}

/// Subscribing once more changes nothing but that the viewer counts as heard of. It goes on when somebody else's end of
/// a subscription has stopped the device's probes.
void Followed::Ask(Place* pPlace) {
    pPlace->asked = Clock::now();
    Send(pPlace->endpoint, kSubscribe);
}

void Followed::Add(const Endpoint& endpoint) {
    for (Place& place : m_places) {
        Ask(&place);
    }
    m_places.push_back({endpoint, State::Asked, Clock::now(), Clock::now()});
    Ask(&m_places.back());
    m_bUndecided = true;
    m_decideBy = Clock::now() + m_times.decide;
}

void Followed::OnAnnouncement(const Announcement& announcement) {
    if (m_announcement.mac.empty()) {
        m_announcement = announcement;
        Say("following", "is " + announcement.name, announcement.endpoint);
    }
    Place* pPlace = Find(announcement.endpoint);
    if (pPlace && pPlace->state != State::Gone) {
        Hear(pPlace);
        Ask(pPlace);
        return;
    }
    m_announcement = announcement;
    if (pPlace) {
        m_places.erase(m_places.begin() + (pPlace - m_places.data()));
    }
    Add(announcement.endpoint);
    Decide();
}

/// Says what the newest place means, once the older ones have answered or had their time to.
void Followed::Decide() {
    if (!m_bUndecided) {
        return;
    }
    const Endpoint now = m_places.back().endpoint;
    const auto last = m_places.end() - 1;
    const bool bOtherHost =
        std::all_of(m_places.begin(), last, [&](const Place& place) { return place.endpoint.ip != now.ip; });
    const bool bAllGone =
        std::all_of(m_places.begin(), last, [](const Place& place) { return place.state == State::Gone; });
    if (!bAllGone && Clock::now() < m_decideBy) {
        return;
    }
    m_bUndecided = false;
    if (!bAllGone && !bOtherHost) {
        Say("following", "another one of this name is followed, at " + now.Text(), now);
        return;
    }
    const std::string before = m_places.size() > 1 ? ", was at " + m_places[m_places.size() - 2].endpoint.Text() : "";
    const bool bMoved = bOtherHost && m_places.size() > 1;
    m_places.erase(m_places.begin(), last);
    if (bMoved) { // whether it was started again besides cannot be known
        Say("moved", "has changed its address, now at " + now.Text() + before, now);
    } else {
        Say("restarted", "restarted, now at " + now.Text() + before, now);
    }
}

void Followed::OnReadable() {
    ReadErrors();
    Received received;
    for (unsigned int i = 0; i < kMostAtOnce; ++i) {
        const ssize_t bytes = received.Take(m_socket.Get(), 0);
        if (bytes < 0 && errno != EAGAIN && errno != EINTR) { // an error that is in the queue, too
            ReadErrors();
            continue;
        }
        if (bytes < 0) {
            return;
        }
        const uint32_t drops = DropsOf(&received.message, m_lost);
        OnDatagram(FromSocketAddress(received.from), std::string(received.text, strnlen(received.text, bytes)), drops);
    }
}

void Followed::ReadErrors() {
    Received received;
    while (received.Take(m_socket.Get(), MSG_ERRQUEUE) >= 0) {
        for (struct cmsghdr* pControl = CMSG_FIRSTHDR(&received.message); pControl;
             pControl = CMSG_NXTHDR(&received.message, pControl)) {
            struct sock_extended_err error;
            memcpy(&error, CMSG_DATA(pControl), sizeof(error));
            if (pControl->cmsg_level == IPPROTO_IP && pControl->cmsg_type == IP_RECVERR &&
                error.ee_errno == ECONNREFUSED) {
                OnRefused(FromSocketAddress(received.from)); // where it was sent to
            }
        }
    }
}

/// Nobody listens there any more.
void Followed::OnRefused(const Endpoint& endpoint) {
    Place* pPlace = Find(endpoint);
    if (!pPlace || pPlace->state == State::Gone) {
        return;
    }
    pPlace->state = State::Gone;
    const bool bNewest = pPlace == &m_places.back();
    if (m_bUndecided && !bNewest) {
        Decide();
    } else {
        m_bUndecided = false;
        Say("gone", "has ended, nobody listens at " + endpoint.Text(), endpoint);
    }
}

void Followed::OnDatagram(const Endpoint& from, const std::string& text, uint32_t drops) {
    CountLost(drops);
    Place* pPlace = Find(from);
    if (text.compare(0, strlen(kKeepAlive), kKeepAlive) == 0) {
        if (pPlace) {
            Hear(pPlace);
            Send(from, kKeepAlive);
        }
        return;
    }
    if (!pPlace && ParseRecord(text).instance != m_announcement.instance) {
        return; // not from a place that was asked
    }
    if (!pPlace) { // it has changed its address and not said so yet: its viewers it has kept
        Add(from);
        pPlace = &m_places.back();
    }
    Hear(pPlace);
    m_sink.line(*this, text, text.size() >= kLongestLine);
}

void Followed::Hear(Place* pPlace) {
    if (pPlace->state == State::Silent) {
        Say("back", "is heard again at " + pPlace->endpoint.Text(), pPlace->endpoint);
    }
    pPlace->state = State::Live;
    pPlace->heard = Clock::now();
}

void Followed::CountLost(uint32_t drops) {
    const uint32_t lost = drops - m_lost;
    if (lost == 0) {
        return;
    }
    m_lost = drops;
    Event event = {"lost",
                   std::to_string(lost) + (lost == 1 ? " datagram was" : " datagrams were") +
                       " lost here: more "
                       "came than the receive buffer holds",
                   {},
                   {{"datagrams", lost}}};
    m_sink.event(*this, event);
}

void Followed::OnTick() {
    const Clock::time_point now = Clock::now();
    Decide();
    for (Place& place : m_places) {
        if (place.state == State::Gone) {
            continue;
        }
        const bool bAsked = place.state == State::Asked;
        if (now - place.heard > (bAsked ? m_times.noAnswer : m_times.silent) && place.state != State::Silent) {
            place.state = State::Silent;
            Say("silent",
                bAsked ? "does not answer: it may have all the viewers it takes, or not admit this machine"
                       : "nothing has come any more for 25 seconds",
                place.endpoint);
        }
        if (now - place.asked > m_times.askAgain) {
            Ask(&place);
        }
    }
}

void Followed::End() {
    OnReadable();
    uint32_t values[SK_MEMINFO_VARS] = {};
    socklen_t bytes = sizeof(values);
    if (getsockopt(m_socket.Get(), SOL_SOCKET, SO_MEMINFO, values, &bytes) == 0 && bytes == sizeof(values)) {
        CountLost(values[SK_MEMINFO_DROPS]); // those after which nothing more came
    }
    for (const Place& place : m_places) {
        if (place.state != State::Gone) {
            Send(place.endpoint, kUnsubscribe);
        }
    }
}

void Followed::Say(const std::string& kind, const std::string& text, const Endpoint& endpoint) {
    m_sink.event(*this, {kind, text, {{"address", endpoint.Address()}}, {{"port", endpoint.port}}});
}

} // namespace tqtrace
