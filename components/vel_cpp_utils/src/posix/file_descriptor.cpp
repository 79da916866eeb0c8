#include "vel/cpp_utils/posix/file_descriptor.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Vel::CppUtil {

using std::chrono::milliseconds;

bool waitFor(int fd, short events, const std::stop_token& stop, milliseconds limit) {
    constexpr milliseconds SLICE(50);
    for (; limit > milliseconds::zero() && !stop.stop_requested(); limit -= SLICE) {
        pollfd status{fd, events, 0};
        const int ready = ::poll(&status, 1, static_cast<int>(std::min(limit, SLICE).count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0) {
            FileDescriptor::pauseBeforeRetry();
        }
    }
    return false;
}

void writeText(int fd, std::string_view text, const std::stop_token& stop, milliseconds limit) {
    while (!text.empty() && waitFor(fd, POLLOUT, stop, limit)) {
        // A pipe that polls as writable takes this much at once.
        const ssize_t written = ::write(fd, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (written == 0 || (written < 0 && errno != EINTR)) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
}

void writeError(std::string_view text) {
    writeText(STDERR_FILENO, text, {}, milliseconds(100));
}

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

void occupyStandardDescriptors(int flags) {
    int fd = -1;
    do {
        fd = ::open("/dev/null", flags);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    const FileDescriptor spare(fd);
}

bool isSameFile(const std::string& left, const std::string& right) {
    std::error_code ignored;
    return std::filesystem::equivalent(left, right, ignored);
}

}  // namespace Vel::CppUtil
