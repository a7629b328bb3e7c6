/// @file Descriptor.h
/// A file descriptor that is closed with its owner.
#ifndef TQTRACE_DESCRIPTOR_H
#define TQTRACE_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace tqtrace {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }

private:
    int m_fd;
};

} // namespace tqtrace

#endif // TQTRACE_DESCRIPTOR_H
