#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <ratio>
#include <span>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts {

/// A PCR samples the system clock of 27 MHz: a base of 33 bits in units of 300 ticks, and an extension
/// (ISO/IEC 13818-1, 2.4.3.5). Unsigned, so that differences are taken modulo 2^64.
using PcrTicks = std::chrono::duration<std::uint64_t, std::ratio<1, 27'000'000>>;
inline constexpr std::uint64_t PCR_TICKS_PER_BASE = 300;
/// The clock returns to 0 after this time, a little over 26 hours.
inline constexpr PcrTicks PCR_WRAP{(std::uint64_t{1} << 33) * PCR_TICKS_PER_BASE};

/// A PCR and the packet that carries it.
struct PcrRecord {
    std::uint64_t packetIndex;  ///< the first packet of the stream has 1
    PcrTicks pcr;
};

/// The time from one PCR to a later one, across a wrap. A PCR that goes back looks like one that is almost a
/// whole wrap ahead.
constexpr PcrTicks pcrDistance(PcrTicks from, PcrTicks to) {
    return (to + PCR_WRAP - from) % PCR_WRAP;
}

/// The packet's PCR, below PCR_WRAP. None where the PCR flag is set in an adaptation field without room for
/// it.
std::optional<PcrTicks> readPcr(const TSPacket& packet);

/// Whether the packet has the bytes of `original`, except for its PCR: a duplicate carries that of its own
/// time (ISO/IEC 13818-1, 2.4.3.3).
bool isDuplicate(const TSPacket& packet, std::span<const std::uint8_t, TS_PACKET_SIZE> original);

/// Reads the PCRs of one PID: that of the first packet with a PCR. Reentrant.
class PcrReader {
public:
    /// The PCR of the stream's next packet, if it has one and is of the PCR PID.
    std::optional<PcrTicks> read(const TSPacket& packet) {
        const auto pcr = readPcr(packet);
        if (!pcr || m_PID.value_or(packet.getPid()) != packet.getPid()) {
            return std::nullopt;
        }
        m_PID = packet.getPid();
        return pcr;
    }
    /// None before the first PCR.
    std::optional<std::uint32_t> getPid() const { return m_PID; }

private:
    std::optional<std::uint32_t> m_PID;
};

}  // namespace Vel::Ts
