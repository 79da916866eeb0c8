#pragma once

#include <CLI/CLI.hpp>

namespace Vel::Zepctl {

/// Adds the commands that make, change and show the tables, and the options that name the two devices.
void addTableCommands(CLI::App& app);

}  // namespace Vel::Zepctl
