#pragma once

#include <string>
#include <vector>

#include "arguments.h"

namespace Vel::Zepctl {

/// The names of all tables that can be dumped.
[[nodiscard]] std::vector<std::string> dumpTableNames();

/// The lines of the requested rows of a table, read from the device that holds it.
/// @param args with the name of the table, which is one of dumpTableNames(), and the rows
/// @throws CommandError for a first row or a bank that the table does not have, InvalidArgumentError for
/// other rows that it does not have, and what LockedDevice throws
[[nodiscard]] std::string dumpTable(const Arguments& args);

}  // namespace Vel::Zepctl
