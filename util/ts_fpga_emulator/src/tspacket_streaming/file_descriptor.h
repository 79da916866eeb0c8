#pragma once

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

private:
    int m_Fd;
};

}  // namespace Vel::Utils
