#pragma once

#include <unistd.h>

#include <chrono>
#include <stop_token>
#include <string>
#include <string_view>
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
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(m_Fd);
        }
    }

    int get() const { return m_Fd; }
    bool isOpen() const { return m_Fd != -1; }
    /// Gives up ownership.
    [[nodiscard]] int release() { return std::exchange(m_Fd, -1); }

    /// For a device that fails with EAGAIN although poll() reports it as ready, as with a driver without poll
    /// support: keeps the caller from a busy loop.
    static void pauseBeforeRetry() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

private:
    int m_Fd;
};

/// Waits until `fd` reports one of `events` (POLLIN, POLLOUT), an error or a hang-up. False after `limit`,
/// and within 50 ms of a stop request.
[[nodiscard]] bool waitFor(int fd, short events, const std::stop_token& stop,
                           std::chrono::milliseconds limit = std::chrono::milliseconds::max());

/// Writes the text, as far as waitFor() finds the descriptor writable. Never blocks on a full pipe.
void writeText(int fd, std::string_view text, const std::stop_token& stop,
               std::chrono::milliseconds limit = std::chrono::milliseconds::max());
/// Writes the text to standard error, but gives up if that cannot be written to for 100 ms.
void writeError(std::string_view text);

/// The system's message for the errno value `error`, such as "No such file or directory".
std::string errnoText(int error);

/// Opens /dev/null for every standard descriptor that the parent left closed. Otherwise the next file opened
/// would get that number and receive the program's output.
/// @param flags O_RDWR, or O_RDONLY so that printing to a closed descriptor still fails
void occupyStandardDescriptors(int flags);

/// Whether both paths lead to the same existing file.
bool isSameFile(const std::string& left, const std::string& right);

}  // namespace Vel::CppUtil
