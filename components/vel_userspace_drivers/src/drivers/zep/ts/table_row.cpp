#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

#include <string>

#include "vel/userspace_drivers/drivers/driver_error.h"

namespace Vel::Drivers::Zep {

std::uint32_t requireInRange(std::uint32_t value, const Range& range, const char* refusal) {
    if (!range.contains(value)) {
        throw ZepDriverError(refusal + std::to_string(value) + ")");
    }
    return value;
}

}  // namespace Vel::Drivers::Zep
