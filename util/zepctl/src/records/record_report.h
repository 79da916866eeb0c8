#pragma once

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "records/record_check.h"

namespace Vel::Zepctl {

/// The result of a check as text: a table with a line for each input and PID, then a line for each kind of
/// fault, or a line that says that there are no faults.
/// @param name without control characters
std::string formatReport(const std::string& name, const RecordCheck& check);

/// The same as a JSON object, which may have any name. zepctl(1) describes its keys.
/// @param watched time since the watch began, if it is the result of a watch; the object is then one line
std::string formatJsonReport(const std::string& name, const RecordCheck& check,
                             std::optional<Seconds> watched = {});
/// One input of that object.
nlohmann::ordered_json jsonOf(std::uint32_t tsiidx, const RecordInput& input);
/// A rate in bit/s, null if it is not known.
nlohmann::ordered_json jsonOf(std::optional<double> bitRate);

/// A rate in bit/s as kbit/s, "-" if it is not known.
std::string formatBitRate(std::optional<double> bitRate);

}  // namespace Vel::Zepctl
