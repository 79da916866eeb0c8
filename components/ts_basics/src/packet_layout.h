#pragma once

#include <cstddef>
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
inline constexpr std::size_t PCR_SIZE = 6;  // and that of an OPCR

/// @param b the bytes of a packet, as in isIntact()
inline std::uint32_t pidOf(const std::uint8_t* b) {
    return (b[1] & PID_HIGH_BITS) * 256U + b[2];
}

/// Whether what the packet says counts. Null packets say nothing, whatever their bytes are.
inline bool isIntact(const std::uint8_t* b) {
    return b[0] == SYNC_BYTE && (b[1] & TRANSPORT_ERROR) == 0 && pidOf(b) != NULL_PID;
}

}  // namespace Vel::Ts
