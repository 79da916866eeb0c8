#include "tables/device.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include "command_result.h"
#include "plain_file.h"

namespace Vel::Zepctl {

LockedDevice::LockedDevice(const std::string& path, const Drivers::Zep::DeviceInfo& info, Access access,
                           int file)
    : m_Memory(requireExisting(path), info.size, 0) {
    const int fd = m_Memory.getDescriptor();
    struct stat locked {};
    if (::flock(fd, access == Access::Read ? LOCK_SH : LOCK_EX) != 0 || ::fstat(fd, &locked) != 0) {
        throw systemError("Cannot lock " + path);
    }
    struct stat named {};
    const int found = file < 0 ? ::stat(path.c_str(), &named) : ::fstat(file, &named);
    if (found != 0 && errno != ENOENT) {
        throw systemError("Cannot access " + path);
    }
    if (found != 0 || named.st_dev != locked.st_dev || named.st_ino != locked.st_ino) {
        throw CommandError(DeviceUnusable, path + " was removed or replaced by another file; try again");
    }
    if (S_ISREG(locked.st_mode) && locked.st_size > info.size) {
        throw CommandError(DeviceUnusable, fmt::format("{} is not this device: it has {} bytes instead of {}",
                                                       path, locked.st_size, info.size));
    }
    if (access == Access::Change && S_ISREG(locked.st_mode) &&
        ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, info.size) != 0 && (errno == ENOSPC || errno == EDQUOT)) {
        throw systemError("Cannot write " + path);
    }
    m_Memory.verifyMemory();
}

}  // namespace Vel::Zepctl
