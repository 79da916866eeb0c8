#include "vel/ts_basics/pcr.h"

#include <algorithm>
#include <cstddef>

namespace Vel::Ts {

/// Bytes of a packet that hold its PCR (ISO/IEC 13818-1, 2.4.3.4).
constexpr std::size_t PCR_OFFSET = 6;
constexpr std::size_t PCR_SIZE = 6;

std::optional<PcrTicks> readPcr(const TSPacket& packet) {
    constexpr std::size_t LENGTH_OFFSET = 4;
    constexpr std::uint8_t MIN_LENGTH = 1 + PCR_SIZE;  // the flags and the PCR
    const std::uint8_t* bytes = packet.getDataPtr();
    if (!packet.hasPcr() || bytes[LENGTH_OFFSET] < MIN_LENGTH ||
        bytes[LENGTH_OFFSET] > MAX_ADAPTATION_FIELD_LENGTH) {
        return std::nullopt;
    }
    return PcrTicks(packet.getPcr()) % PCR_WRAP;  // an extension above 299 can lift it past the wrap
}

bool isDuplicate(const TSPacket& packet, std::span<const std::uint8_t, TS_PACKET_SIZE> original) {
    const std::uint8_t* bytes = packet.getDataPtr();
    const std::size_t pcrEnd = PCR_OFFSET + (readPcr(packet) ? PCR_SIZE : 0);
    return std::equal(bytes, bytes + PCR_OFFSET, original.begin()) &&
           std::equal(bytes + pcrEnd, bytes + TS_PACKET_SIZE, original.data() + pcrEnd);
}

}  // namespace Vel::Ts
