#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts {

/// A record of the pktio data device, a ZEP headered packet: the TSIIDX of the input, unsigned 32-bit
/// little-endian, then the 188 bytes of the transport packet. Records follow each other without anything
/// between them.
inline constexpr std::uint32_t RECORD_HEADER_SIZE = 4;
inline constexpr std::uint32_t RECORD_SIZE = RECORD_HEADER_SIZE + TS_PACKET_SIZE;

/// Writes the RECORD_HEADER_SIZE bytes of a record's header, in the same order on every processor.
inline void writeRecordHeader(std::uint8_t* header, std::uint32_t tsiidx) {
    for (std::uint32_t i = 0; i < RECORD_HEADER_SIZE; ++i) {
        header[i] = static_cast<std::uint8_t>(tsiidx >> (8 * i));
    }
}

/// The TSIIDX in the header of a record; nothing keeps it within 0..255.
inline std::uint32_t readRecordHeader(const std::uint8_t* header) {
    std::uint32_t tsiidx = 0;
    for (std::uint32_t i = 0; i < RECORD_HEADER_SIZE; ++i) {
        tsiidx |= std::uint32_t{header[i]} << (8 * i);
    }
    return tsiidx;
}

}  // namespace Vel::Ts
