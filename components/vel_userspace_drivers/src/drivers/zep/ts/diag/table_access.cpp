#include "table_access.h"

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers::Zep {

void requireRows(const Table& table, std::uint32_t first, std::uint32_t count) {
    if (first > table.rows || count > table.rows - first) {
        throw CppUtil::InvalidArgumentError(
            fmt::format("Offset ({}) and count ({}) exceeds the size ({}) of the ZEP {}.", first, count,
                        table.rows, table.name));
    }
}

}  // namespace Vel::Drivers::Zep
