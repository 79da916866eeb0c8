#include "table_access.h"

#include <string>

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers::Zep {

void requireRows(const Table& table, std::uint32_t offset, std::uint32_t count) {
    if (offset > table.rows || count > table.rows - offset) {
        throw CppUtil::InvalidArgumentError(
            "Offset (" + std::to_string(offset) + ") and count (" + std::to_string(count) +
                ") exceeds the size (" + std::to_string(table.rows) + ") of the ZEP " + table.name + ".",
            __FILE__, __LINE__);
    }
}

}  // namespace Vel::Drivers::Zep
