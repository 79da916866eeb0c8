#pragma once

#include <cstdint>
#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"

namespace Vel::Zepctl {

/// The number that `text` holds, in decimal or, after 0x, in hexadecimal; never octal, so that 010 is ten.
/// Throws CommandError, which calls the number `name`, for any other text and for a number outside of
/// `range`.
std::uint32_t parseNumber(const std::string& name, const std::string& text, const Drivers::Zep::Range& range);

}  // namespace Vel::Zepctl
