/// @file Listener.h
/// The queue of a scenario: remembers what it was sent.
#ifndef LISTENER_H
#define LISTENER_H

#include <algorithm>
#include <mutex>
#include <string.h>
#include <vector>

#include "Scenario.h"
#include "tqos.h"

namespace faults {

class Listener : public tq_MsgQ {
public:
    explicit Listener(const char* pszName) : tq_MsgQ(pszName, "listens") {}
    ~Listener() override { Cleanup(); }

    /// Creates the queue; false when it could not be. Where the system refuses its thread, MSG_CREATE does not come.
    bool Begin(Run& run) {
        Create(0);
        return run.Handle("Create", GetHandle()) != 0 &&
               run.Comes("MSG_CREATE", [this] { return Count(MSG_CREATE) == 1; });
    }

    void MessageHandler(MSG_COMMON* pMsg) override {
        {
            const unsigned char* const pBytes = reinterpret_cast<const unsigned char*>(pMsg);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_seen.emplace_back(pBytes, pBytes + pMsg->size);
        }
        tq_free(pMsg);
    }

    /// How many messages of a command came, of one instance or (0) of any.
    unsigned int Count(unsigned int command, unsigned int instance = 0) {
        return static_cast<unsigned int>(Matching(command, instance).size());
    }

    /// A message of a command as it came, the `which`-th; all zero when there is none.
    template <typename Message> Message Nth(unsigned int command, unsigned int which, unsigned int instance = 0) {
        Message message;
        memset(&message, 0, sizeof(message));
        const std::vector<std::vector<unsigned char>> matching = Matching(command, instance);
        if (which < matching.size()) {
            memcpy(&message, matching[which].data(), std::min(sizeof(message), matching[which].size()));
        }
        return message;
    }

private:
    std::vector<std::vector<unsigned char>> Matching(unsigned int command, unsigned int instance) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::vector<unsigned char>> matching;
        for (const std::vector<unsigned char>& seen : m_seen) {
            MSG_COMMON common;
            memcpy(&common, seen.data(), sizeof(common));
            if (common.command == command && (instance == 0 || common.instance == instance)) {
                matching.push_back(seen);
            }
        }
        return matching;
    }

    std::mutex m_mutex;
    std::vector<std::vector<unsigned char>> m_seen;
};

} // namespace faults

#endif // LISTENER_H
