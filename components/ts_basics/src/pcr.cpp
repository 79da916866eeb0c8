#include "vel/ts_basics/pcr.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "packet_layout.h"

namespace Vel::Ts {

namespace {

/// Where a packet holds its PCR (ISO/IEC 13818-1, 2.4.3.4).
constexpr std::size_t PCR_OFFSET = 6;

}  // namespace

std::optional<PcrTicks> readPcr(const TSPacket& packet) {
    constexpr std::size_t LENGTH_OFFSET = 4;
    constexpr std::uint8_t MIN_LENGTH = 1 + PCR_SIZE;  // the flags and the PCR
    const std::uint8_t* bytes = packet.getDataPtr();
    if (!packet.hasPcr() || bytes[LENGTH_OFFSET] < MIN_LENGTH ||
        bytes[LENGTH_OFFSET] > MAX_ADAPTATION_FIELD_LENGTH || !isIntact(bytes)) {
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

PcrClock::Reading PcrClock::read(const TSPacket& packet) {
    ++m_PacketIndex;
    if (m_Pid && m_PacketIndex - m_LastIndex > MAX_STEP_PACKETS) {
        restart();
    }
    const auto pcr = readPcr(packet);
    const bool isDiscontinuous = packet.hasDiscontinuityIndicator() && isIntact(packet.getDataPtr());
    if (!pcr && !isDiscontinuous) {
        return {};
    }
    const std::uint32_t pid = packet.getPid();
    const auto found = m_Candidates.find(pid);
    if (found == m_Candidates.end()) {
        if (!pcr || m_Pid) {
            return {};
        }
        m_Candidates[pid].last = {m_PacketIndex, *pcr};
        return {.kind = Reading::Kind::Candidate};
    }
    Candidate& candidate = found->second;
    candidate.isDiscontinuous |= isDiscontinuous;
    if (!pcr || *pcr == candidate.last.pcr) {
        return {};
    }
    const bool isAnnounced = std::exchange(candidate.isDiscontinuous, false);
    const PcrRecord older = std::exchange(candidate.last, {m_PacketIndex, *pcr});
    Reading reading{m_Pid ? Reading::Kind::NewTimeBase : Reading::Kind::Candidate,
                    m_PacketIndex - older.packetIndex,
                    isAnnounced ? PcrTicks(0) : pcrDistance(older.pcr, *pcr)};
    if (!isAnnounced && reading.time <= MAX_STEP && reading.packets <= MAX_STEP_PACKETS) {
        reading.kind = Reading::Kind::Step;
        m_Pid = pid;
        std::erase_if(m_Candidates, [pid](const auto& other) { return other.first != pid; });
    }
    m_LastIndex = m_PacketIndex;
    return reading;
}

void PcrClock::restart() {
    m_Candidates.clear();
    m_Pid.reset();
}

}  // namespace Vel::Ts
