#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "vel/ts_basics/pcr.h"
#include "vel/ts_basics/pcr_pace.h"
#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts {

/// Turns the passes of a stream that is repeated into one stream without a seam. On every pass after the
/// first, PCR, OPCR, PTS, DTS and ESCR are advanced by the length of all passes before, and the continuity
/// counter of each PID continues. Nothing else changes, so jumps, errors and duplicates within a pass stay
/// what they are. Packets without a sync byte or with a transport error, and null packets, never change, nor
/// do PES headers that are scrambled or do not fit into their packet.
///
/// The length of a pass is the time from its first to its last PCR that PcrClock uses, and that of the
/// packets before and after them. If the decoding times of a PID (one per access unit, so up to a frame
/// more) span more, the length is that of the longest such span; a PID that would add more than
/// MAX_EXTENSION does not count. Thread-bound.
class StreamLoop {
public:
    /// Half a second, in 90 kHz ticks.
    static constexpr std::uint64_t MAX_EXTENSION = 45'000;

    /// Takes the next packet of the pass.
    void continuePacket(TSPacket& packet);
    /// To be called after the last packet of each pass; the passes may differ. False if the pass has a PCR,
    /// but no two of one time base: its length is unknown, so the clock of the next pass is not advanced.
    bool endPass();
    /// Whether the latest pass that has ended has a known length: its PCRs can pace it. True before that.
    bool hasLength() const { return m_HasLength; }

private:
    /// What is known about a PID, in 90 kHz ticks.
    struct Pid {
        std::uint64_t pass = 0;       // of its latest packet, 0 for none
        std::uint64_t firstTime = 0;  // decoding times of this pass
        std::uint64_t lastTime = 0;
        std::uint64_t lastButOne = 0;  // an earlier time, unless there is only one
        bool hasTime = false;
        std::uint8_t counter = 0;       // of its latest packet, continued
        std::uint8_t counterShift = 0;  // of this pass
    };
    /// The clock of the pass.
    struct Clock {
        PcrClock pcrs;
        RecentIntervals intervals;
        PcrTicks first{0};
        PcrTicks last{0};
        std::uint64_t lastIndex = 0;  // of the packet with the last PCR
        FineTime lead{0};             // up to the first PCR
        bool hasPcr = false;
    };

    void followClock(const TSPacket& packet);
    void continueField(std::uint8_t* field) const;
    void continueCounter(Pid& pid, std::uint8_t& byte);
    void continuePesHeader(Pid& pid, std::span<std::uint8_t> payload);
    std::uint64_t findExtension(std::uint64_t length) const;

    std::uint64_t m_Pass = 1;
    bool m_HasLength = true;
    std::uint64_t m_Offset = 0;  // by which this pass is later, in 90 kHz ticks, modulo the wrap
    Clock m_Clock;
    std::array<std::uint16_t, MAX_PID + 1> m_Index{};  // in m_Pids
    std::vector<Pid> m_Pids{1};                        // those that occur; the first one stands for none
};

}  // namespace Vel::Ts
