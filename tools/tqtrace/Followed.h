/// @file Followed.h
/// A trace instance of a device that is followed: subscribed to, kept alive, and found again when it comes back from
/// elsewhere.
///
/// It is known by its name and by the device's hardware address. Each announcement from a place that is new is
/// subscribed to at once, so that nothing is lost, and the other places are asked: one whose program is gone answers,
/// by way of its system, that nobody listens there. When it is known what has happened, it is said.
#ifndef TQTRACE_FOLLOWED_H
#define TQTRACE_FOLLOWED_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Announcement.h"
#include "Descriptor.h"
#include "Format.h"

namespace tqtrace {

using Clock = std::chrono::steady_clock;

class Followed {
public:
    /// What becomes of it.
    struct Sink {
        std::function<void(const Followed& from, const std::string& line, bool bCut)> line;
        std::function<void(const Followed& from, const Event& event)> event;
    };

    /// How long it waits. Devices announce themselves every ten seconds, and probe viewers every five.
    struct Times {
        Clock::duration askAgain = std::chrono::seconds(5);
        Clock::duration decide = std::chrono::seconds(1);
        Clock::duration noAnswer = std::chrono::seconds(12);
        Clock::duration silent = std::chrono::seconds(25);
    };

    Followed(const Announcement& announcement, Sink sink) : Followed(announcement, std::move(sink), Times()) {}
    Followed(const Announcement& announcement, Sink sink, const Times& times)
        : m_announcement(announcement), m_sink(std::move(sink)), m_times(times) {}

    /// Subscribes. False, with the reason, when there is no socket.
    /// @param bufferBytes  of the socket, for lines that come faster than they are taken
    bool Start(int bufferBytes, std::string* pProblem);

    /// Whether this is said of the instance that is followed.
    bool Is(const Announcement& announcement) const;
    /// Whether it is subscribed to there: of several with the same name on one device, the one that an announcement
    /// from there is for.
    bool IsAt(const Endpoint& endpoint) const;
    void OnAnnouncement(const Announcement& announcement);
    /// Takes all that has come.
    void OnReadable();
    /// Once a second or so.
    void OnTick();
    /// Ends the subscription.
    void End();

    int Fd() const { return m_socket.Get(); }
    const std::string& Name() const { return m_announcement.name; }
    const std::string& Instance() const { return m_announcement.instance; }

private:
    enum class State { Asked, Live, Silent, Gone };

    struct Place {
        Endpoint endpoint;
        State state = State::Asked;
        Clock::time_point heard; ///< or first asked
        Clock::time_point asked;
    };

    Place* Find(const Endpoint& endpoint);
    void Add(const Endpoint& endpoint);
    void Ask(Place* pPlace);
    void Send(const Endpoint& endpoint, const char* pszKeyword);
    void Decide();
    void ReadErrors();
    void OnRefused(const Endpoint& endpoint);
    void OnDatagram(const Endpoint& from, const std::string& text, uint32_t drops);
    void Hear(Place* pPlace);
    void CountLost(uint32_t drops);
    void Say(const std::string& kind, const std::string& text, const Endpoint& endpoint);

    Announcement m_announcement;
    Sink m_sink;
    Times m_times;
    Descriptor m_socket;
    std::vector<Place> m_places;
    bool m_bUndecided = false; ///< what the last of the places means is not said yet
    Clock::time_point m_decideBy;
    uint32_t m_lost = 0; ///< datagrams that the system had no room for
};

} // namespace tqtrace

#endif // TQTRACE_FOLLOWED_H
