#pragma once

#include <CLI/CLI.hpp>

namespace Vel::Zepctl {

/// Adds the commands that look at records: `records check`, `records split` and `records watch`. Parsing runs
/// the one that was asked for; it throws as errors.h tells.
void addRecordCommands(CLI::App& app);

}  // namespace Vel::Zepctl
