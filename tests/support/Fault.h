/// @file Fault.h
/// A switch, by which a call of the system is made to fail, set for a scope.
#ifndef FAULT_H
#define FAULT_H

#include <atomic>

namespace test {

/// Sets a switch for a scope.
class Fault {
public:
    explicit Fault(std::atomic<bool>& fault) : m_fault(fault) { m_fault = true; }
    ~Fault() { m_fault = false; }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    std::atomic<bool>& m_fault;
};

} // namespace test

#endif // FAULT_H
