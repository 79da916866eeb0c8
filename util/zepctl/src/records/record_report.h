#pragma once

#include <optional>
#include <string>

#include "records/record_check.h"

namespace Vel::Zepctl {

/// The result of a check for people: a table with a line for each input and PID, then a line for each kind of
/// fault, or one that says that there is none.
std::string formatReport(const std::string& name, const RecordCheck& check);

/// The same as a JSON object. zepctl(1) describes its keys.
std::string formatJsonReport(const std::string& name, const RecordCheck& check);

/// A rate in bit/s as kbit/s, "-" if it is not known.
std::string formatBitRate(std::optional<double> bitRate);

}  // namespace Vel::Zepctl
