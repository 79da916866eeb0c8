#include "vel/cpp_utils/posix/file_descriptor.h"

#include <fcntl.h>

#include <filesystem>
#include <system_error>

namespace Vel::CppUtil {

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
