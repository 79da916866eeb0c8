#pragma once

#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Zepctl {

/// Exit status of the program when a command could not do its work.
enum ExitStatus { Done = 0, StreamFaulty = 1, WrongUse = 2, DeviceUnusable = 3 };

/// Ends a command before its work is done. main() turns it into its exit status and one line on standard
/// error, so the text names the value that was refused and its limits, and has no line end.
class CommandError : public std::runtime_error {
public:
    CommandError(ExitStatus status, const std::string& text) : std::runtime_error(text), m_Status(status) {}

    ExitStatus getStatus() const { return m_Status; }

private:
    ExitStatus m_Status;
};

/// The failure of the last system call by its errno, as in "Cannot read FILE: Is a directory".
[[nodiscard]] inline CommandError systemError(const std::string& action) {
    return {DeviceUnusable, action + ": " + CppUtil::errnoText(errno)};
}

/// Writes to standard output and flushes it, so that lost output is reported with its reason. Throws
/// CommandError.
inline void printOutput(std::string_view text) {
    errno = 0;
    if (!(std::cout << text << std::flush)) {
        throw systemError("Cannot write to standard output");
    }
}

}  // namespace Vel::Zepctl
