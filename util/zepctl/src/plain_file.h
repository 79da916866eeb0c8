#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "command_result.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Zepctl {

/// Returns `path`. Throws CommandError if nothing has that name: usually nobody has named the stand-ins.
inline const std::string& requireExisting(const std::string& path) {
    if (::access(path.c_str(), F_OK) == 0) {
        return path;
    }
    if (errno != ENOENT) {
        throw systemError("Cannot find " + path);
    }
    throw CommandError(DeviceUnusable, path +
                                           " does not exist; -d DIR names a directory of stand-ins, which "
                                           "\"zepctl create --fifo DIR\" creates");
}

/// Creates the directory and those above it, unless it exists. Throws CommandError.
inline void createDirectory(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) {
        throw CommandError(DeviceUnusable, "Cannot create directory \"" + path + "\": " + error.message());
    }
}

struct OpenFile {
    CppUtil::FileDescriptor file;
    struct stat status;
};

/// Opens a file that is to be written, and creates it if it is missing; an existing one keeps its contents.
/// Never follows a link and never waits, so the caller checks by its status what has been opened.
/// @param access O_WRONLY or O_RDWR
/// @throws CommandError when that fails, and for an existing file unless `mayExist`
[[nodiscard]] inline OpenFile openForWriting(const std::string& path, int access, bool mayExist) {
    constexpr int FLAGS = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr mode_t MODE = 0666;  // less the umask
    OpenFile opened{CppUtil::FileDescriptor(::open(path.c_str(), access | FLAGS | O_CREAT | O_EXCL, MODE)),
                    {}};
    if (!opened.file.isOpen() && errno == EEXIST && mayExist) {
        opened.file = CppUtil::FileDescriptor(::open(path.c_str(), access | FLAGS));
    }
    if (!opened.file.isOpen() || ::fstat(opened.file.get(), &opened.status) != 0) {
        throw systemError("Cannot create " + path);
    }
    return opened;
}

/// Throws CommandError unless an output of that status can be overwritten: a plain file with a single link,
/// other than the input.
inline void requireOutput(const std::string& path, const struct stat& status, const struct stat& input) {
    const bool isInput = status.st_dev == input.st_dev && status.st_ino == input.st_ino;
    if (isInput || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
        const std::string reason = isInput ? "the input file" : "not a plain file with a single link";
        throw CommandError(DeviceUnusable, "Cannot create " + path + ": it is " + reason);
    }
}

/// Opens an output for writing, and truncates it.
/// @throws CommandError when that fails, and as requireOutput()
[[nodiscard]] inline CppUtil::FileDescriptor createOutput(const std::string& path, const struct stat& input) {
    OpenFile opened = openForWriting(path, O_WRONLY, true);
    requireOutput(path, opened.status, input);
    if (::ftruncate(opened.file.get(), 0) != 0) {
        throw systemError("Cannot create " + path);
    }
    return std::move(opened.file);
}

}  // namespace Vel::Zepctl
