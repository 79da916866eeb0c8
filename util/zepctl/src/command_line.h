#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

/// Adds a command to `parent`. Parsing a command line that names it calls `run`, unless other commands have
/// been added to it.
CLI::App& declareCommand(CLI::App& parent, const std::string& name, const std::string& help,
                         const std::string& footer, const std::function<void()>& run = {});

/// The number that a text gives: decimal, or hexadecimal with a 0x prefix; never octal, so 010 is ten.
/// @param name of the number, for the error
/// @throws CommandError for any other text and for a number outside `range`
std::uint32_t parseNumber(const std::string& name, std::string_view text, const Drivers::Zep::Range& range);

/// Adds an option, or an argument, that takes a number. Parsing fails as parseNumber() does.
CLI::Option& addNumber(CLI::App& command, const std::string& name, std::optional<std::uint32_t>& number,
                       const Drivers::Zep::Range& range, const std::string& help);

}  // namespace Vel::Zepctl
