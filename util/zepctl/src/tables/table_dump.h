#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tables/device.h"

namespace Vel::Zepctl {

/// The rows of a table to show.
struct DumpRange {
    std::optional<std::uint32_t> first;  ///< else the first row that is not reserved
    std::optional<std::uint32_t> count;  ///< else all from the first one on
    std::optional<std::uint32_t> bank;   ///< else bank 0, the one in use
    bool includeAll = false;             ///< also rows that are not in use
};

/// Every table that can be dumped, by the names of this program.
std::vector<std::string> dumpTableNames();

/// The lines of those rows of a table, read from the device that holds it. `tableName` is one of
/// dumpTableNames(). Throws CommandError for a first row or a bank that the table does not have,
/// InvalidArgumentError for other rows that it does not have, and PciError.
std::string dumpTable(const std::string& tableName, const DumpRange& range, const Device& tsio,
                      const Device& router);

}  // namespace Vel::Zepctl
