#pragma once

#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Zepctl {

// Rows as an operator writes and reads them. What `list` prints is what `add` takes, so that a listing saves
// a table, but for rows of other software that `add` refuses, as a second one for the same PID. All
// reentrant.

/// An enabled row for that input, TSIIDX 0. Throws CommandError, which shows the form, for a text that
/// buildInputUri() would not write: no link from a file to the input could ever match it.
Drivers::Zep::IpInEntry parseInputUri(const std::string& text);

/// "udp://239.1.2.3:5000 3"
std::string formatInput(const Drivers::Zep::IpInEntry& input);

/// "3 0x0100 --pididx 7 --filter 255", with "--out" and "--no-cpu" where they apply, and without
/// "--pididx" where it is 0.
std::string formatRoute(const Drivers::Zep::PidLutEntry& route);

}  // namespace Vel::Zepctl
