#pragma once

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <utility>

#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Zepctl {

/// Opens a file that is to be written, and creates it if it is missing; an existing one keeps its contents.
/// Never follows a link and never waits, so the caller checks with fstat() what has been opened.
/// @param access O_WRONLY or O_RDWR
/// @return no descriptor, with errno, when that fails, and for an existing file unless `mayExist`
[[nodiscard]] inline CppUtil::FileDescriptor openForWriting(const std::string& path, int access,
                                                            bool mayExist) {
    constexpr int FLAGS = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr mode_t MODE = 0666;  // less the umask
    CppUtil::FileDescriptor file(::open(path.c_str(), access | FLAGS | O_CREAT | O_EXCL, MODE));
    return file.isOpen() || errno != EEXIST || !mayExist
               ? std::move(file)
               : CppUtil::FileDescriptor(::open(path.c_str(), access | FLAGS));
}

}  // namespace Vel::Zepctl
