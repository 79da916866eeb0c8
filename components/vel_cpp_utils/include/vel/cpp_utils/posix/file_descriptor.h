#pragma once

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>

namespace Vel::CppUtil {

/// Owns a POSIX file descriptor; -1 is none. Moved, never copied. Reentrant.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_Fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_Fd(std::exchange(other.m_Fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_Fd, other.m_Fd);
        return *this;
    }
    ~FileDescriptor() { close(); }

    int get() const { return m_Fd; }
    bool isOpen() const { return m_Fd != -1; }

    /// Closes it now, for a caller that needs to know of a late write error. False, with errno, when that
    /// fails.
    bool close() { return !isOpen() || ::close(std::exchange(m_Fd, -1)) == 0; }

    /// Waits until one of `events` (POLLIN, POLLOUT), an error or a hang-up is reported. Returns false once
    /// `isStopped()`, which is asked every 50 ms, returns true.
    template <typename IsStopped>
    bool waitFor(short events, IsStopped isStopped) const {
        constexpr int SLICE_MS = 50;
        while (!isStopped()) {
            pollfd status{m_Fd, events, 0};
            const int ready = ::poll(&status, 1, SLICE_MS);
            if (ready > 0) {
                return true;
            }
            if (ready < 0) {
                pauseBeforeRetry();
            }
        }
        return false;
    }

    /// For a device that answers EAGAIN although waitFor() reports it ready, as a driver without poll support
    /// does: keeps the caller from asking without pause.
    static void pauseBeforeRetry() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

private:
    int m_Fd;
};

/// What the system says of `error`, an errno value, as in "No such file or directory".
std::string errnoText(int error);

/// Opens /dev/null for every standard descriptor that the parent left closed. Without it the next file opened
/// would get that number, and what is printed would go into it.
/// @param flags O_RDWR, or O_RDONLY so that printing to a closed descriptor still fails
void occupyStandardDescriptors(int flags);

/// Whether both paths lead to one existing file.
bool isSameFile(const std::string& left, const std::string& right);

}  // namespace Vel::CppUtil
