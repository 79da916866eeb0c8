#pragma once

#include <cerrno>
#include <string>

#include "errors.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Zepctl {

/// The failure of the last system call by its errno, as in "Cannot read FILE: Is a directory".
inline DeviceError systemError(const std::string& action) {
    return DeviceError(action + ": " + CppUtil::errnoText(errno));
}

}  // namespace Vel::Zepctl
