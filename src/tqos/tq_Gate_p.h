/// @file tq_Gate_p.h
/// The door of a subsystem that can be stopped while other threads still call into it. Callers pass through while it is
/// open; whoever stops the subsystem closes it, which turns later callers away and waits for those inside. Only then is
/// anything freed, so a late caller finds "not running", never a freed list.
///
/// A gate is a static object without constructor or destructor work: it may be asked before the library starts and
/// after it has ended. It is not a lock: any number of threads are inside at once, a thread may enter again while
/// inside, and whoever closes the gate must not be inside or hold a lock that somebody inside may wait for.
#ifndef TQ_GATE_P_H
#define TQ_GATE_P_H

#include <atomic>
#include <time.h>

class tq_Gate {
public:
    void Open() { m_state.fetch_or(kOpen, std::memory_order_release); }

    /// Turns callers away from now on, without waiting for those inside.
    void Shut() { m_state.fetch_and(~kOpen, std::memory_order_acq_rel); }

    /// Shuts the gate and waits until everybody inside has left.
    void Close() {
        Shut();
        while ((m_state.load(std::memory_order_acquire) & ~kOpen) != 0) {
            const struct timespec pause = {0, 1000000};
            nanosleep(&pause, nullptr);
        }
    }

    bool Enter() {
        if (m_state.fetch_add(1, std::memory_order_acq_rel) & kOpen) {
            return true;
        }
        Leave();
        return false;
    }
    void Leave() { m_state.fetch_sub(1, std::memory_order_release); }

    bool IsOpen() const { return (m_state.load(std::memory_order_acquire) & kOpen) != 0; }

private:
    static constexpr unsigned int kOpen = 0x80000000u;
    std::atomic<unsigned int> m_state{0};
};

/// Passes through a gate for a scope; false when it is shut.
class tq_GatePass {
public:
    explicit tq_GatePass(tq_Gate& gate) : m_pGate(gate.Enter() ? &gate : nullptr) {}
    ~tq_GatePass() {
        if (m_pGate) {
            m_pGate->Leave();
        }
    }
    tq_GatePass(const tq_GatePass&) = delete;
    tq_GatePass& operator=(const tq_GatePass&) = delete;
    explicit operator bool() const { return m_pGate != nullptr; }

private:
    tq_Gate* m_pGate;
};

#endif // TQ_GATE_P_H
