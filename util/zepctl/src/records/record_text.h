#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vel::Zepctl {

/// "0 records", "1 record", "2 records"
inline std::string formatCount(std::uint64_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

/// A rate in bit/s as kbit/s, "-" where it is not known.
inline std::string formatBitRate(std::optional<double> bitRate) {
    constexpr double BITS_PER_KBIT = 1000;
    return bitRate ? fmt::format("{:.1f}", *bitRate / BITS_PER_KBIT) : "-";
}

}  // namespace Vel::Zepctl
