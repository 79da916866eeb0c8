#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

/// Bits of a transport packet's header (ISO/IEC 13818-1, 2.4.3.2) and of its adaptation field (2.4.3.4).
namespace Vel::Ts {

inline constexpr std::uint32_t HEADER_SIZE = 4;
inline constexpr std::uint8_t TRANSPORT_ERROR = 0x80;  // byte 1
inline constexpr std::uint8_t PAYLOAD_UNIT_START = 0x40;
inline constexpr std::uint8_t PID_HIGH_BITS = 0x1F;
inline constexpr std::uint8_t SCRAMBLING_CONTROL = 0xC0;  // byte 3
inline constexpr std::uint8_t ADAPTATION_FIELD = 0x20;
inline constexpr std::uint8_t PAYLOAD = 0x10;
inline constexpr std::uint8_t CONTINUITY_COUNTER = 0x0F;
inline constexpr std::uint8_t DISCONTINUITY_INDICATOR = 0x80;  // byte 5
inline constexpr std::uint8_t PCR_FLAG = 0x10;
inline constexpr std::uint8_t OPCR_FLAG = 0x08;

}  // namespace Vel::Ts
