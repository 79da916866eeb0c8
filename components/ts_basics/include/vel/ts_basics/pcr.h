#pragma once

#include <chrono>
#include <cstdint>
#include <map>
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

/// The packet's PCR, below PCR_WRAP. None if the packet is damaged (no sync byte, or a transport error), is a
/// null packet, or sets the PCR flag in an adaptation field without room for it.
std::optional<PcrTicks> readPcr(const TSPacket& packet);

/// Whether the packet has the bytes of `original`, except for its PCR: a duplicate carries that of its own
/// time (ISO/IEC 13818-1, 2.4.3.3).
bool isDuplicate(const TSPacket& packet, std::span<const std::uint8_t, TS_PACKET_SIZE> original);

/// Follows the clock of a stream by the PCRs of one PID: the first PID that delivers two successive PCRs of
/// one time base. If it delivers none for MAX_STEP_PACKETS, the choice starts over.
///
/// A PCR up to MAX_STEP ahead of the previous one of its PID continues the time base, across the wrap. An
/// equal one is ignored. Any other one starts a new time base, and so does a PCR with a discontinuity
/// indicator in its packet, or in an earlier intact packet of its PID since the previous PCR. Reentrant.
class PcrClock {
public:
    /// Ten times the interval that ISO/IEC 13818-1, 2.7.2, allows.
    static constexpr std::chrono::seconds MAX_STEP{1};
    static constexpr std::uint64_t MAX_STEP_PACKETS = 10'000;

    /// What a packet means for the clock.
    struct Reading {
        enum class Kind : std::uint8_t {
            Nothing,      ///< it has no PCR that counts
            Candidate,    ///< a PCR, but no PID has been chosen yet
            Step,         ///< the clock has moved by `time` in the last `packets` packets, up to this one
            NewTimeBase,  ///< the PCR does not continue the clock
        };
        Kind kind = Kind::Nothing;
        std::uint64_t packets = 0;  ///< from the packet with the previous PCR of the PID to this one
        PcrTicks time{0};  ///< from that PCR to this one; 0 across a discontinuity that was announced
    };

    /// Takes the stream's next packet. Every packet counts, damaged ones too.
    Reading read(const TSPacket& packet);
    /// As read(), for a packet without PCR and discontinuity indicator.
    void skip() { ++m_PacketIndex; }
    /// Forgets all PCRs; the next ones choose the PID.
    void restart();
    /// None until the choice.
    std::optional<std::uint32_t> getPid() const { return m_Pid; }
    /// Number of packets taken so far.
    std::uint64_t getPacketCount() const { return m_PacketIndex; }

private:
    struct Candidate {
        PcrRecord last;
        bool isDiscontinuous = false;  // announced since then
    };

    std::uint64_t m_PacketIndex = 0;                  // of the latest packet
    std::map<std::uint32_t, Candidate> m_Candidates;  // by PID; after the choice, only the chosen one
    std::optional<std::uint32_t> m_Pid;
    std::uint64_t m_LastIndex = 0;  // of the chosen PID's previous PCR
};

}  // namespace Vel::Ts
