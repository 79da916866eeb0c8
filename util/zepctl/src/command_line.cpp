#include "command_line.h"

#include <charconv>
#include <system_error>

#include <fmt/format.h>

#include "command_result.h"

namespace Vel::Zepctl {

CLI::App& declareCommand(CLI::App& parent, const std::string& name, const std::string& help,
                         const std::string& footer, const std::function<void()>& run) {
    CLI::App& command = *parent.add_subcommand(name, help);
    command.footer(footer);
    command.callback(run);
    return command;
}

std::uint32_t parseNumber(const std::string& name, std::string_view text, const Drivers::Zep::Range& range) {
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = text.substr(isHexadecimal ? 2 : 0);
    const char* end = digits.data() + digits.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, value, isHexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || !range.contains(value)) {
        throw CommandError(WrongUse, fmt::format("{} \"{}\" is not a number from {} to {}, in decimal "
                                                 "or hexadecimal with a 0x prefix",
                                                 name, text, range.min, range.max));
    }
    return value;
}

CLI::Option& addNumber(CLI::App& command, const std::string& name, std::optional<std::uint32_t>& number,
                       const Drivers::Zep::Range& range, const std::string& help) {
    const auto parse = [&number, name, range](const std::string& text) {
        number = parseNumber(name, text, range);
    };
    const std::string limits = fmt::format("{} to {}: {}", range.min, range.max, help);
    return *command.add_option_function<std::string>(name, parse, limits)->type_name("N");
}

}  // namespace Vel::Zepctl
