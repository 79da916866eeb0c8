#pragma once

#include <string>

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers {

/// Base of all driver errors, so that a caller can catch them together; never thrown itself.
class DriverError : public Error {
public:
    DriverError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : Error("Driver (user space) error: " + detail, file, line) {}
};

namespace Zep {

/// A value does not fit the field of a table row.
class ZepDriverError : public DriverError {
public:
    ZepDriverError(const std::string& detail, const char* file = __builtin_FILE(),
                   int line = __builtin_LINE())
        : DriverError("ZEP Driver (user space) error: " + detail, file, line) {}
};

}  // namespace Zep
}  // namespace Vel::Drivers
