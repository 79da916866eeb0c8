#pragma once

#include <cstdint>
#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Zepctl {

// Rows and their fields as they are written on the command line. `add` takes what `list` prints, so that a
// listing saves a table, except for rows of other software that `add` refuses, such as a second one for a
// PID. All reentrant.

/// The number in `text`: decimal, or hexadecimal with a 0x prefix; never octal, so that 010 is ten. Throws
/// CommandError, which calls the number `name`, for any other text and for a number outside of `range`.
std::uint32_t parseNumber(const std::string& name, const std::string& text, const Drivers::Zep::Range& range);

/// An enabled row for that input, with TSIIDX 0. Throws CommandError, which shows the form, for a text that
/// buildInputUri() would not write: zeptfem compares URIs letter by letter.
Drivers::Zep::IpInEntry parseInputUri(const std::string& text);

/// "udp://239.1.2.3:5000 3"
std::string formatInput(const Drivers::Zep::IpInEntry& input);

/// "3 0x0100 --pididx 7 --filter 255", with "--out" and "--no-cpu" where they apply, and without
/// "--pididx" if it is 0.
std::string formatRoute(const Drivers::Zep::PidLutEntry& route);

}  // namespace Vel::Zepctl
