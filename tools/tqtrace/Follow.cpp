#include "Follow.h"

#include <algorithm>
#include <errno.h>
#include <fnmatch.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>

namespace tqtrace {

namespace {

constexpr auto kTick = std::chrono::seconds(1);
constexpr int kTickMs = 200; // how late a tick may be
constexpr auto kJoinAgain = std::chrono::seconds(10);
constexpr auto kMissingAfter = std::chrono::seconds(12); // announcements come every ten

bool Fits(const std::string& pattern, const std::string& text) {
    return fnmatch(pattern.c_str(), text.c_str(), FNM_CASEFOLD) == 0;
}

} // namespace

Follow::Follow(const Options& options) : m_options(options), m_found(options.names.size(), false) {}

bool Follow::Run(std::string* pProblem) {
    if (!Start(pProblem)) {
        return false;
    }
    Loop();
    End();
    if (m_output.HasFailed()) {
        *pProblem = "the output could not be written";
    }
    return !m_output.HasFailed();
}

bool Follow::Start(std::string* pProblem) {
    sigset_t signals; // taken in the loop, so that levels are put back and subscriptions ended
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    m_signals = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));

    m_begun = m_ticked = m_joined = Clock::now();
    if (!m_options.outputPath.empty() &&
        !m_output.Open(m_options.outputPath, m_options.maxBytes, m_options.maxFiles, pProblem)) {
        return false;
    }
    if (m_options.level) {
        m_pLevel = std::make_unique<DeviceLevel>(m_options.console, m_options.passwordFile, *m_options.level,
                                                 [this](const std::string& text) {
                                                     Write({"level", text, {}, {}}, "");
                                                 });
    }
    if (!m_listener.Open(m_options.group, pProblem)) {
        return false;
    }
    for (size_t i = 0; i < m_options.names.size(); ++i) {
        Announcement place;
        if (ParseEndpoint(m_options.names[i], &place.endpoint)) {
            place.name = m_options.names[i];
            m_found[i] = true;
            Add(place);
        }
    }
    return true;
}

void Follow::Loop() {
    while (!IsOver()) {
        std::vector<struct pollfd> waits = {{m_signals.Get(), POLLIN, 0}, {m_listener.Fd(), POLLIN, 0}};
        for (const auto& pFollowed : m_followed) {
            waits.push_back({pFollowed->Fd(), POLLIN, 0});
        }
        poll(waits.data(), waits.size(), kTickMs);
        if (TakeSignal()) {
            return;
        }
        for (size_t i = 2; i < waits.size(); ++i) {
            if (waits[i].revents != 0) {
                m_followed[i - 2]->OnReadable();
            }
        }
        Announcement announcement;
        while (m_listener.Next(&announcement)) {
            OnAnnouncement(announcement);
        }
        OnTick();
        m_output.Flush();
    }
}

void Follow::OnTick() {
    const Clock::time_point now = Clock::now();
    if (now - m_ticked < kTick) {
        return;
    }
    m_ticked = now;
    for (const auto& pFollowed : m_followed) {
        pFollowed->OnTick();
    }
    if (m_pLevel) {
        m_pLevel->TryAgain();
    }
    if (now - m_joined >= kJoinAgain) {
        m_joined = now;
        m_listener.Join();
    }
    if (!m_bMissingSaid && now - m_begun >= kMissingAfter) {
        m_bMissingSaid = true;
        SayWhoIsMissing();
    }
}

bool Follow::TakeSignal() {
    struct signalfd_siginfo info;
    return read(m_signals.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info));
}

bool Follow::IsOver() const {
    const bool bLate = m_options.seconds != 0 && Clock::now() - m_begun >= std::chrono::seconds(m_options.seconds);
    return bLate || m_output.HasFailed() || (m_options.lines != 0 && m_lines >= m_options.lines);
}

bool Follow::IsWanted(const Announcement& announcement) {
    bool bWanted = false;
    const std::string place = announcement.endpoint.Address() + ":" + announcement.instance;
    for (size_t i = 0; i < m_options.names.size(); ++i) {
        const std::string& name = m_options.names[i];
        if (Fits(name, announcement.instance) || Fits(name, announcement.name) || Fits(name, place)) {
            m_found[i] = true;
            bWanted = true;
        }
    }
    return bWanted;
}

/// Who follows what has announced itself; null when nobody does.
Followed* Follow::FollowerOf(const Announcement& announcement) const {
    Followed* pByName = nullptr;
    for (const auto& pFollowed : m_followed) {
        if (!pFollowed->Is(announcement)) {
            continue;
        }
        if (pFollowed->IsAt(announcement.endpoint)) {
            return pFollowed.get();
        }
        pByName = pByName ? pByName : pFollowed.get();
    }
    return pByName;
}

void Follow::OnAnnouncement(const Announcement& announcement) {
    if (Followed* const pFollower = FollowerOf(announcement)) {
        pFollower->OnAnnouncement(announcement);
    } else if (IsWanted(announcement)) {
        Add(announcement);
    }
}

void Follow::Add(const Announcement& announcement) {
    Followed::Sink sink;
    sink.line = [this](const Followed& from, const std::string& line, bool bCut) { OnLine(from, line, bCut); };
    sink.event = [this](const Followed& from, const Event& event) { OnEvent(from, event); };
    m_followed.push_back(std::make_unique<Followed>(announcement, std::move(sink)));
    std::string problem;
    if (!m_followed.back()->Start(static_cast<int>(m_options.bufferBytes), &problem)) {
        Write({"failed", "cannot be followed: " + problem, {}, {}}, announcement.name);
        m_followed.pop_back();
    }
}

void Follow::OnLine(const Followed& from, const std::string& text, bool bCut) {
    const Record record = ParseRecord(text);
    if (!m_options.filter.Passes(record) || (m_options.lines != 0 && m_lines >= m_options.lines)) {
        return;
    }
    ++m_lines;
    m_output.Write(m_options.bJson ? JsonLine(record, from.Name(), UniversalTime(), bCut)
                                   : TextLine(record, m_followed.size() > 1 ? from.Name() : ""));
}

void Follow::OnEvent(const Followed& from, const Event& event) {
    Write(event, from.Name());
    const bool bAnew = event.kind == "following" || event.kind == "restarted" || event.kind == "moved";
    if (m_pLevel && bAnew && !from.Instance().empty()) {
        m_pLevel->Set(from.Instance());
    }
}

void Follow::Write(const Event& event, const std::string& source) {
    m_output.Write(m_options.bJson ? JsonLine(event, source) : TextLine(event, source));
}

void Follow::SayWhoIsMissing() {
    for (size_t i = 0; i < m_found.size(); ++i) {
        if (!m_found[i]) {
            Write({"missing", m_options.names[i] + " has not announced itself yet", {}, {}}, "");
        }
    }
}

void Follow::End() {
    for (const auto& pFollowed : m_followed) {
        pFollowed->End();
    }
    if (m_pLevel) {
        m_pLevel->PutBack();
    }
    m_output.Flush();
}

} // namespace tqtrace
