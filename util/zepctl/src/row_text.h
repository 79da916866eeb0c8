#pragma once

#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Zepctl {

// Rows as an operator writes and reads them. What `list` prints is what `add` takes, so that a listing saves
// a table. All reentrant.

/// Address and port as the monitors name an input: udp://239.1.2.3:5000, without the port when it is 0.
std::string inputUri(const Drivers::Zep::IpInEntry& input);

/// An enabled row for that input, TSIIDX 0. Throws UsageError, which shows the form, for a text that
/// inputUri() would not write: no link from a file to the input could ever match it.
Drivers::Zep::IpInEntry parseInputUri(const std::string& text);

/// "udp://239.1.2.3:5000 3"
std::string formatInput(const Drivers::Zep::IpInEntry& input);

/// "3 0x0100 --pididx 7 --filter 255", with "--out" and "--no-cpu" where they apply.
std::string formatRoute(const Drivers::Zep::PidLutEntry& route);

}  // namespace Vel::Zepctl
