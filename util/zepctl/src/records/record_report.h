#pragma once

#include <optional>
#include <string>

#include "records/record_check.h"

namespace Vel::Zepctl {

/// The result of a check as text: a table with a line for each input and PID, then a line for each kind of
/// fault, or a line that says that there are no faults.
/// @param name without control characters
std::string formatReport(const std::string& name, const RecordCheck& check);

/// The same as a JSON object, which may have any name. zepctl(1) describes its keys.
std::string formatJsonReport(const std::string& name, const RecordCheck& check);

/// A rate in bit/s as kbit/s, "-" if it is not known.
std::string formatBitRate(std::optional<double> bitRate);

}  // namespace Vel::Zepctl
