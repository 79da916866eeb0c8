#include "vel/ts_basics/pcr.h"

namespace Vel::Ts {

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

}  // namespace Vel::Ts
