#pragma once

#include <poll.h>
#include <unistd.h>

#include <utility>

namespace Vel::Utils {

/// Owns a POSIX file descriptor; -1 is none. Moved, not copied.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_Fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_Fd(std::exchange(other.m_Fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_Fd, other.m_Fd);
        return *this;
    }
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(m_Fd);
        }
    }

    int get() const { return m_Fd; }
    bool isOpen() const { return m_Fd != -1; }

    /// Waits until one of `events` (POLLIN, POLLOUT), an error or the end of the other side shows. False once
    /// `isStopped()`, which is asked every 50 ms, says so.
    template <typename IsStopped>
    bool waitFor(short events, IsStopped isStopped) const {
        constexpr int SLICE_MS = 50;
        while (!isStopped()) {
            pollfd status{m_Fd, events, 0};
            if (::poll(&status, 1, SLICE_MS) > 0) {
                return true;
            }
        }
        return false;
    }

private:
    int m_Fd;
};

}  // namespace Vel::Utils
