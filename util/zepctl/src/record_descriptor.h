#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "errors.h"

namespace Vel::Zepctl {

/// Owns a POSIX file descriptor; -1 is none. Moved, not copied.
class RecordDescriptor {
public:
    explicit RecordDescriptor(int fd = -1) : m_Fd(fd) {}
    RecordDescriptor(RecordDescriptor&& other) noexcept : m_Fd(other.release()) {}
    RecordDescriptor& operator=(RecordDescriptor&& other) noexcept {
        std::swap(m_Fd, other.m_Fd);
        return *this;
    }
    ~RecordDescriptor() {
        if (m_Fd != -1) {
            ::close(m_Fd);
        }
    }

    int get() const { return m_Fd; }
    /// Leaves the descriptor to the caller.
    int release() { return std::exchange(m_Fd, -1); }

private:
    int m_Fd;
};

/// The failure that errno tells of the last system call, as in "Cannot read FILE: Is a directory".
inline DeviceError systemError(const std::string& action) {
    return DeviceError(action + ": " + std::generic_category().message(errno));
}

}  // namespace Vel::Zepctl
