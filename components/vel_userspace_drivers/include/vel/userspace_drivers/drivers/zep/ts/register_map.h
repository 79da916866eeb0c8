#pragma once

#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"

/// Where the FPGA keeps its tables and registers, and what their bits mean. Encoders, decoders, readers and
/// dumps take every position from here. Word indices count 32-bit words, in the processor's byte order, from
/// the start of the device. Bits that no field names are written 0 and ignored when read.
namespace Vel::Drivers::Zep {

inline constexpr Range TSIIDX_RANGE{0, 255};       ///< input transport streams
inline constexpr Range TSOIDX_RANGE{0, 255};       ///< output transport streams
inline constexpr Range PID_RANGE{0, 8191};         ///< packet identifiers (ISO/IEC 13818-1, 2.4.3.2)
inline constexpr Range PIDIDX_RANGE{1, 4095};      ///< O-PID MAP rows; row 0 is reserved
inline constexpr Range NEXTPIDIDX_RANGE{0, 4095};  ///< 0 ends a chain of O-PID MAP rows
inline constexpr Range FILTTABIDX_RANGE{0, 255};   ///< filter tables
inline constexpr Range UDP_PORT_RANGE{0, 65535};   ///< RFC 768
inline constexpr Range PHYIIDX_RANGE{0, 63};       ///< physical inputs
inline constexpr Range PHYOIDX_RANGE{0, 23};       ///< physical outputs

inline constexpr std::uint32_t NO_TSIIDX = 255;  ///< a physical input with it feeds no input stream
inline constexpr std::uint32_t NO_PHYIIDX = 31;  ///< of a cleared row; no port bears this index
inline constexpr std::uint32_t NO_PHYOIDX = 31;  ///< of a cleared row; no port bears this index

/// tsio device: IP addresses and ports of the input streams.
namespace IpLut {
inline constexpr Table TABLE{"IP LUT", 2048, 256, 2};
inline constexpr BitField CONTROL{0, 0, 1};
inline constexpr BitField ADDRESS{0, 0, 32};
inline constexpr BitField UDP_PORT{1, 0, 16};
inline constexpr BitField TSIIDX{1, 16, 8};
inline constexpr BitField ENABLED{1, 24, 1};
static_assert(fitRow(TABLE, {ADDRESS, UDP_PORT, TSIIDX, ENABLED}));
}  // namespace IpLut

/// Router device: routes of the inputs' packets. Two banks, of which the select bit says which one is bank 0.
namespace PidLut {
inline constexpr Table TABLE{"PID LUT", 8192, 2048, 2};  ///< in the lower bank
inline constexpr std::uint32_t UPPER_BASE = 12288;       ///< word index of row 0 in the upper bank
inline constexpr BitField CONTROL{1, 0, 1};
inline constexpr BitField BANK_SELECT{129, 0, 1};
inline constexpr BitField PID{0, 0, 13};
inline constexpr BitField TSIIDX{0, 13, 8};
inline constexpr BitField PIDIDX{1, 0, 12};
inline constexpr BitField OUT_ROUTE{1, 12, 1};
inline constexpr BitField CPU_ROUTE{1, 13, 1};
inline constexpr BitField FILTTABIDX{1, 24, 8};
static_assert(fitRow(TABLE, {PID, TSIIDX, PIDIDX, OUT_ROUTE, CPU_ROUTE, FILTTABIDX}));
static_assert(TABLE.base + TABLE.rows * TABLE.wordsPerRow <= UPPER_BASE);
}  // namespace PidLut

}  // namespace Vel::Drivers::Zep
