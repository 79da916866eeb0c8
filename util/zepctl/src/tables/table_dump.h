#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// The rows of a table to show.
struct DumpRange {
    std::optional<std::uint32_t> first;  ///< else the first row that is not reserved
    std::optional<std::uint32_t> count;  ///< else all from the first one on
    std::optional<std::uint32_t> bank;   ///< else bank 0, the one in use
    bool includeAll = false;  ///< also the rows that are not in use or, in pidlut and physinmap, are cleared
};

/// Every table that can be dumped, by the names of this program.
std::vector<std::string> dumpTableNames();

/// Whether the table lies in the tsio device, else it does in the router device. The name is one of
/// dumpTableNames(), here and below.
bool isTsioTable(const std::string& tableName);

/// The lines of those rows. Throws CommandError for a first row or a bank that the table does not have, and
/// InvalidArgumentError for other rows that it does not have.
std::string dumpTable(const std::string& tableName, Drivers::IMemIf& memory, const DumpRange& range);

}  // namespace Vel::Zepctl
