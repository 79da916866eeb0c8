#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

/// Adds a command to `parent`. Parsing a command line that names it calls `run`.
CLI::App& declareCommand(CLI::App& parent, const std::string& name, const std::string& help,
                         const std::string& footer, const std::function<void()>& run);

/// Adds an option, or an argument, that takes a number: decimal, or hexadecimal with a 0x prefix; never
/// octal, so 010 is ten. Parsing throws CommandError for any other text and for a number outside `range`.
CLI::Option& addNumber(CLI::App& command, const std::string& name, std::optional<std::uint32_t>& number,
                       const Drivers::Zep::Range& range, const std::string& help);

}  // namespace Vel::Zepctl
