#include "locked_device.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "errors.h"

namespace Vel::Zepctl {

FileLock::FileLock(const std::string& path)
    : m_FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {  // NOLINT(*-vararg)
    int result = m_FileDescriptor;
    while (result >= 0 && (result = ::flock(m_FileDescriptor, LOCK_EX)) != 0 && errno == EINTR) {
        result = 0;
    }
    if (result < 0) {
        const std::string reason = std::generic_category().message(errno);
        if (m_FileDescriptor >= 0) {
            ::close(m_FileDescriptor);
        }
        throw DeviceError("Cannot lock " + path + ": " + reason);
    }
}

FileLock::~FileLock() {
    ::close(m_FileDescriptor);
}

}  // namespace Vel::Zepctl
