#include "tables/locked_device.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "command_error.h"

namespace Vel::Zepctl {

FileLock::FileLock(const std::string& path) : m_File(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    int result = m_File.get();
    while (result >= 0 && (result = ::flock(m_File.get(), LOCK_EX)) != 0 && errno == EINTR) {
        result = 0;
    }
    if (result < 0) {
        throw systemError("Cannot lock " + path);
    }
}

}  // namespace Vel::Zepctl
