#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vel::Zepctl {

/// The rows of a table to show.
struct DumpOptions {
    std::optional<std::uint32_t> first;  ///< else the first row that is not reserved
    std::optional<std::uint32_t> count;  ///< else all from the first one on
    std::optional<std::uint32_t> bank;   ///< else bank 0, the one in use
    bool includeAll = false;             ///< also rows that are not in use
};

/// The names of all tables that can be dumped.
[[nodiscard]] std::vector<std::string> dumpTableNames();

/// The lines of those rows of a table, read from the device that holds it.
/// @param tableName one of dumpTableNames()
/// @throws CommandError for a first row or a bank that the table does not have, InvalidArgumentError for
/// other rows that it does not have, and what LockedDevice throws
[[nodiscard]] std::string dumpTable(const std::string& tableName, const DumpOptions& options,
                                    const std::string& tsioPath, const std::string& routerPath);

}  // namespace Vel::Zepctl
