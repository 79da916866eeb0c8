#pragma once

#include <string>

namespace Vel::Zepctl {

/// Draws a picture with gnuplot, with one drawing per input. Of records, over PCR time: the bit rate of the
/// PIDs, the distances of PCRs, and the faults of a strict check. Of a CSV file of watchRecords(), over the
/// time of arrival: lateness, rate and faults. Main thread.
/// @param file "-" for records on standard input; a CSV file ends in .csv
/// @param picture ends in .svg or .png; it is replaced as a whole, or not at all
/// @throws CommandError, with gnuplot's message where it has one
void plotRecords(const std::string& file, const std::string& picture);

}  // namespace Vel::Zepctl
