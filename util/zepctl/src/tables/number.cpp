#include "tables/number.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include "command_error.h"

namespace Vel::Zepctl {

std::uint32_t parseNumber(const std::string& name, const std::string& text,
                          const Drivers::Zep::Range& range) {
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = std::string_view(text).substr(isHexadecimal ? 2 : 0);
    const char* end = digits.data() + digits.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, value, isHexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || !range.contains(value)) {
        throw CommandError(WRONG_USE, name + " \"" + text + "\" is not a number from " +
                                          std::to_string(range.min) + " to " + std::to_string(range.max) +
                                          ", in decimal or 0x and hexadecimal");
    }
    return value;
}

}  // namespace Vel::Zepctl
