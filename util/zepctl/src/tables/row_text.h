#pragma once

#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Zepctl {

// Text form of rows on the command line. `add` accepts what `list` prints, so a listing is a backup, except
// for rows written by other software that `add` refuses, such as a second one for a PID. All reentrant.

/// An enabled row for that input, with TSIIDX 0. Throws CommandError, which shows the form, for a text that
/// buildInputUri() would not write: zeptfem compares URIs exactly.
[[nodiscard]] Drivers::Zep::IpInEntry parseInputUri(const std::string& text);

/// "udp://239.1.2.3:5000 3"
[[nodiscard]] std::string formatInput(const Drivers::Zep::IpInEntry& input);

/// "3 0x0100 --pididx 7 --filter 255", with "--out" and "--no-cpu" where they apply, and without
/// "--pididx" if it is 0.
[[nodiscard]] std::string formatRoute(const Drivers::Zep::PidLutEntry& route);

}  // namespace Vel::Zepctl
