#pragma once

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers {

/// Base of all driver errors, so that a caller can catch them together; never thrown itself.
using DriverError = CategoryError<Error, "Driver (user space) error: ">;

namespace Zep {

/// A value does not fit the field of a table row.
using ZepDriverError = CategoryError<DriverError, "ZEP Driver (user space) error: ">;

}  // namespace Zep
}  // namespace Vel::Drivers
