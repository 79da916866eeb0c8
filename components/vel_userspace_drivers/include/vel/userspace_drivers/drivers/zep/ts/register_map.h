#pragma once

#include <array>

#include "vel/cpp_utils/stream_limits.h"
#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"

/// Positions of the FPGA's tables and registers, and the meaning of their bits. Encoders, decoders, readers
/// and dumps use only these definitions. Word indices count 32-bit words, in the processor's byte order, from
/// the start of the device. Bits outside the fields are written 0 and ignored when read.
namespace Vel::Drivers::Zep {

/// A device with tables: its default path, and the number of bytes to map.
struct DeviceInfo {
    const char* path;
    std::uint32_t size;
};
inline constexpr DeviceInfo TSIO_DEVICE{"/dev/zeptsif_iplut", 16 * 1024};
inline constexpr DeviceInfo ROUTER_DEVICE{"/dev/zeptsif_pidlut", 128 * 1024};
inline constexpr const char* PKTIO_DEVICE_PATH = "/dev/zeptsif_pktio";

inline constexpr Range TSIIDX_RANGE{0, MAX_TSIIDX};  ///< input transport streams
inline constexpr Range TSOIDX_RANGE{0, 255};         ///< output transport streams
inline constexpr Range PID_RANGE{0, MAX_PID};        ///< packet identifiers (ISO/IEC 13818-1, 2.4.3.2)
inline constexpr Range PIDIDX_RANGE{1, 4095};        ///< O-PID MAP rows; row 0 is reserved
inline constexpr Range NEXTPIDIDX_RANGE{0, 4095};    ///< the row that continues a chain, 0 for none
inline constexpr Range FILTTABIDX_RANGE{0, 255};     ///< filter tables
inline constexpr Range UDP_PORT_RANGE{0, 65535};     ///< RFC 768
inline constexpr Range PHYIIDX_RANGE{0, 63};         ///< physical inputs
inline constexpr Range PHYOIDX_RANGE{0, 23};         ///< physical outputs

inline constexpr std::uint32_t NO_TSIIDX = 255;  ///< a physical input with it feeds no input stream
inline constexpr std::uint32_t NO_PHYIIDX = 31;  ///< of a cleared row; no port has this index
inline constexpr std::uint32_t NO_PHYOIDX = 31;  ///< of a cleared row; no port has this index

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

/// tsio device: the input stream that each physical input feeds. Row i belongs to physical input i.
namespace PhysInMap {
inline constexpr Table TABLE{"PHYS IN MAP", 128, 64, 1};
inline constexpr BitField TSIIDX{0, 0, 32};
static_assert(fitRow(TABLE, {TSIIDX}));
}  // namespace PhysInMap

/// tsio device: the physical output of each output stream. Row i belongs to TSOIDX i.
namespace PhysOutMap {
inline constexpr Table TABLE{"PHYS OUT MAP", 256, 256, 1};
inline constexpr BitField PHYOIDX{0, 0, 5};
inline constexpr BitField ENABLED{0, 8, 1};
static_assert(fitRow(TABLE, {PHYOIDX, ENABLED}));
}  // namespace PhysOutMap

/// tsio device: IP destination of each output stream. Row i belongs to TSOIDX i.
namespace IpOutTable {
inline constexpr Table TABLE{"IP OUTPUT TABLE", 1024, 256, 4};
/// Element i is octet i; octet 5 is written first.
inline constexpr std::array<BitField, 6> MAC{
    {{1, 0, 8}, {1, 8, 8}, {1, 16, 8}, {1, 24, 8}, {0, 0, 8}, {0, 8, 8}}};
inline constexpr BitField ADDRESS{2, 0, 32};
inline constexpr BitField UDP_PORT{3, 0, 16};
inline constexpr BitField RTP{3, 16, 1};
inline constexpr BitField ENABLED{3, 17, 1};
static_assert(fitRow(TABLE,
                     {MAC[0], MAC[1], MAC[2], MAC[3], MAC[4], MAC[5], ADDRESS, UDP_PORT, RTP, ENABLED}));
}  // namespace IpOutTable

/// Router device: routes of the inputs' packets. There are two banks; the select bit says which one is bank
/// 0.
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

/// Router device: the O-PID MAP row at which each input stream starts. Row i belongs to TSIIDX i.
namespace TsiMap {
inline constexpr Table TABLE{"TSI MAP", 256, 256, 1};
inline constexpr BitField PIDIDX{0, 0, 12};
inline constexpr BitField ENABLED{0, 12, 1};
static_assert(fitRow(TABLE, {PIDIDX, ENABLED}));
}  // namespace TsiMap

/// Router device: output streams that packets go to, as chains of rows. Row i belongs to PIDIDX i; row 0 is
/// reserved.
namespace OPidMap {
inline constexpr Table TABLE{"O-PID MAP", 16384, 4096, 2};
inline constexpr BitField TSOIDX{0, 0, 8};
inline constexpr BitField REMAP_PID{0, 8, 13};
inline constexpr BitField REMAP{0, 21, 1};
inline constexpr BitField ENABLED{0, 22, 1};
inline constexpr BitField NEXTPIDIDX{1, 0, 12};
static_assert(fitRow(TABLE, {TSOIDX, REMAP_PID, REMAP, ENABLED, NEXTPIDIDX}));
}  // namespace OPidMap

}  // namespace Vel::Drivers::Zep
