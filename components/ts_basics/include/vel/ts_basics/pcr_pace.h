#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ratio>

#include "vel/ts_basics/pcr.h"

namespace Vel::Ts {

/// 1/27 ns: whole numbers of it hold PCR ticks (1000) and nanoseconds (27). 64 bits last for ten years.
using FineTime = std::chrono::duration<std::int64_t, std::ratio<1, 27'000'000'000>>;

/// How long packets take: an interval between two PCRs, or several of them.
struct PcrPace {
    FineTime time{0};
    std::int64_t packets = 1;

    /// The time of `count` packets, rounded up. Up to ten intervals of a second each take at most 10 s, which
    /// is below 2^38; times PcrClock::MAX_STEP_PACKETS, it is below 2^52.
    FineTime of(std::size_t count) const {
        return (time * static_cast<std::int64_t>(count) + FineTime(packets - 1)) / packets;
    }
};

/// The pace of packets that no interval between two PCRs contains: before a new time base, or after the last
/// PCR. It is the mean of the last MEAN_INTERVALS intervals, but all of these packets together take no longer
/// than the longest of these. Reentrant.
class RecentIntervals {
public:
    static constexpr std::size_t MEAN_INTERVALS = 10;

    void add(PcrPace interval) {
        m_Intervals[static_cast<std::size_t>(m_Count % MEAN_INTERVALS)] = interval;
        ++m_Count;
    }
    bool isEmpty() const { return m_Count == 0; }
    /// @param count packets that follow the last interval, at most PcrClock::MAX_STEP_PACKETS. Not while
    /// isEmpty().
    PcrPace paceOf(std::size_t count) const;

private:
    std::array<PcrPace, MEAN_INTERVALS> m_Intervals{};
    std::uint64_t m_Count = 0;  // of all intervals so far
};

}  // namespace Vel::Ts
