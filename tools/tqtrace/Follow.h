/// @file Follow.h
/// tqtrace follow: waits for announcements, lines and signals, and shows what comes.
#ifndef TQTRACE_FOLLOW_H
#define TQTRACE_FOLLOW_H

#include <memory>
#include <vector>

#include "DeviceLevel.h"
#include "Followed.h"
#include "Options.h"
#include "Output.h"

namespace tqtrace {

class Follow {
public:
    explicit Follow(const Options& options);

    /// To its end by a limit, by SIGINT, SIGTERM or SIGHUP, or because nobody takes the output any more.
    /// @return false, with the reason, when it cannot begin or the output cannot be written
    bool Run(std::string* pProblem);

private:
    bool Start(std::string* pProblem);
    void Loop();
    void OnTick();
    bool TakeSignal();
    bool IsOver() const;
    Followed* FollowerOf(const Announcement& announcement) const;
    void OnAnnouncement(const Announcement& announcement);
    bool IsWanted(const Announcement& announcement);
    void Add(const Announcement& announcement);
    void OnLine(const Followed& from, const std::string& text, bool bCut);
    void OnEvent(const Followed& from, const Event& event);
    void Write(const Event& event, const std::string& source);
    void SayWhoIsMissing();
    void End();

    const Options& m_options;
    Output m_output;
    Listener m_listener;
    Descriptor m_signals;
    std::vector<std::unique_ptr<Followed>> m_followed;
    std::vector<bool> m_found; ///< of the names, which ones were found
    std::unique_ptr<DeviceLevel> m_pLevel;
    Clock::time_point m_begun;
    Clock::time_point m_ticked;
    Clock::time_point m_joined;
    bool m_bMissingSaid = false;
    uint64_t m_lines = 0;
};

} // namespace tqtrace

#endif // TQTRACE_FOLLOW_H
