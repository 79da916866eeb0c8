#pragma once

#include <cstdint>

/// Limits that the table rows and the packets share.
namespace Vel {

/// Highest packet identifier: PIDs have 13 bits (ISO/IEC 13818-1, 2.4.3.2).
inline constexpr std::uint32_t MAX_PID = 8191;
/// Highest index of an input transport stream of the FPGA.
inline constexpr std::uint32_t MAX_TSIIDX = 255;

}  // namespace Vel
