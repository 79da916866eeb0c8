#pragma once

#include <cerrno>
#include <iostream>
#include <string_view>

#include "command_error.h"

namespace Vel::Zepctl {

/// Writes to standard output and flushes it, so that lost output is reported with its reason. Throws
/// CommandError.
inline void printOutput(std::string_view text) {
    errno = 0;
    if (!(std::cout << text << std::flush)) {
        throw systemError("Cannot write to standard output");
    }
}

}  // namespace Vel::Zepctl
