#pragma once

#include <cerrno>
#include <iostream>
#include <string_view>

#include "record_descriptor.h"

namespace Vel::Zepctl {

/// Writes to standard output, through to the file, so that output that gets lost is told with its reason.
/// Throws DeviceError.
inline void printOutput(std::string_view text) {
    errno = 0;
    if (!(std::cout << text << std::flush)) {
        throw systemError("Cannot write to standard output");
    }
}

}  // namespace Vel::Zepctl
