#pragma once

#include <cstdint>
#include <optional>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

/// Reads the PCRs of one PID. The first packet with a PCR decides which PID that is, for good.
class PcrReader {
public:
    /// The packet's PCR in 27 MHz ticks, if it has one and is of the PCR PID.
    std::optional<std::uint64_t> read(const Ts::TSPacket& packet) {
        if (!packet.hasPcr() || m_Pid.value_or(packet.getPid()) != packet.getPid()) {
            return std::nullopt;
        }
        m_Pid = packet.getPid();
        return packet.getPcr();
    }

private:
    std::optional<std::uint32_t> m_Pid;
};

}  // namespace Vel::Utils
