#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts {

/// A record of the pktio data device: the TSIIDX of the input as an unsigned 32-bit little-endian integer,
/// then the 188 bytes of the transport packet. Nothing separates two records.
inline constexpr std::uint32_t RECORD_HEADER_SIZE = 4;
inline constexpr std::uint32_t RECORD_SIZE = RECORD_HEADER_SIZE + TS_PACKET_SIZE;

/// Writes the RECORD_HEADER_SIZE bytes of a record's header, little-endian on every processor.
inline void writeRecordHeader(std::uint8_t* header, std::uint32_t tsiidx) {
    for (std::uint32_t i = 0; i < RECORD_HEADER_SIZE; ++i) {
        header[i] = static_cast<std::uint8_t>(tsiidx >> (8 * i));
    }
}

/// The TSIIDX in the header of a record; it may be above 255.
inline std::uint32_t readRecordHeader(const std::uint8_t* header) {
    std::uint32_t tsiidx = 0;
    for (std::uint32_t i = 0; i < RECORD_HEADER_SIZE; ++i) {
        tsiidx |= std::uint32_t{header[i]} << (8 * i);
    }
    return tsiidx;
}

}  // namespace Vel::Ts
