// klFileDescriptor: sole owner of one file descriptor, closed when the owner goes. Internal.
#pragma once

#include <unistd.h>

#include <utility>

class klFileDescriptor {
public:
    klFileDescriptor() = default;
    explicit klFileDescriptor(int fd) : m_fd(fd) {}
    klFileDescriptor(klFileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    klFileDescriptor& operator=(klFileDescriptor&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.m_fd, -1));
        }
        return *this;
    }
    klFileDescriptor(const klFileDescriptor&) = delete;
    klFileDescriptor& operator=(const klFileDescriptor&) = delete;
    ~klFileDescriptor() { reset(); }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};
