#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/pcr.h"
#include "vel/ts_basics/pcr_pace.h"

namespace Vel::Utils {

/// Gives each packet of a clocked stream its due time. Holds the packets until the next PCR, and spreads them
/// evenly over the interval between the two PCRs around them (ISO/IEC 13818-1, 2.4.2.2); Ts::PcrClock decides
/// which PCRs these are. Packets before the second PCR use the first interval.
///
/// Packets without an interval (before a new time base or after the last PCR) are due at the pace of
/// Ts::RecentIntervals. Before the first interval they are due immediately.
///
/// A feed can be late itself. Its schedule then shifts, so that its packets keep their spacing. Used by one
/// streaming thread.
class ClockSchedule {
public:
    static constexpr std::size_t MAX_HELD_PACKETS = Ts::PcrClock::MAX_STEP_PACKETS;
    /// How long the packets of a feed are delayed, so that later ones may arrive late by as much.
    static constexpr std::chrono::milliseconds FEED_RESERVE{100};
    /// The shortest time between two reports of a late feed.
    static constexpr std::chrono::minutes REPORT_INTERVAL{1};

    struct TimedPacket {
        Ts::LowlevInTSPacket packet;
        std::chrono::nanoseconds due;  ///< never before that of the packet before it
        std::uint32_t pid;  ///< known without a look at the packet, which has left the cache by then
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::ClockSchedule"); }

    /// @param tsiidx of the input, for the log
    /// @param isFeed whether the source is a feed, which can be late itself, and not a plain file
    /// @param now the time by which packets are due. Called where a schedule starts; for a feed, a few times
    /// per PCR
    ClockSchedule(std::uint32_t tsiidx, bool isFeed, std::function<std::chrono::nanoseconds()> now);

    /// Takes the stream's next packet.
    void add(Ts::LowlevInTSPacket packet);
    /// Gives the held packets due times without a further PCR: at the end of the stream, and when a feed
    /// delivers no more PCRs.
    void timeHeld();
    /// Moves out the packets that have been given due times since the last call, in order.
    [[nodiscard]] std::vector<TimedPacket> takeTimed();
    std::size_t getTimedCount() const { return m_Timed.size(); }

    /// Number of packets that wait for a PCR.
    std::size_t getHeldCount() const { return m_Held.size(); }
    /// Of a feed that has held packets: when the oldest of them arrived, or the latest PCR that counts,
    /// whichever is later. Until the PCR PID is chosen, the first PCR of each PID counts.
    std::chrono::nanoseconds getHeldSince() const { return m_HeldSince; }
    /// Due time of the latest packet that has one. The read-ahead ends there.
    std::chrono::nanoseconds getEnd() const { return std::chrono::floor<std::chrono::nanoseconds>(m_End); }
    /// Whether packets have been given due times: an interval is known, or the stream is played unpaced.
    bool hasPace() const { return m_IsUnpaced || !m_Intervals.isEmpty(); }

private:
    using FineTime = Ts::FineTime;

    void take(const Ts::PcrClock::Reading& reading, std::size_t count);
    void scheduleStep(const Ts::PcrClock::Reading& step, std::size_t count);
    void scheduleWithoutPcr(std::size_t count);
    void schedule(std::size_t count, Ts::PcrPace pace);
    void chooseAgain();
    FineTime startTime() const;
    void reportLate(std::chrono::nanoseconds now, std::chrono::nanoseconds delay);

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    bool m_IsFeed;
    std::function<std::chrono::nanoseconds()> m_Now;
    Ts::PcrClock m_Clock;
    std::deque<Ts::LowlevInTSPacket> m_Held;
    std::vector<TimedPacket> m_Timed;
    FineTime m_End{0};  // due time of the latest packet in m_Timed, ever
    Ts::RecentIntervals m_Intervals;
    std::chrono::nanoseconds m_HeldSince{0};
    bool m_IsUnpaced = false;  // packets were sent before the first interval was known, and this was logged
    bool m_IsGapReported = false;
    std::optional<std::chrono::nanoseconds> m_LateReported;  // when
    std::uint32_t m_LateCount = 0;                           // since then
};

}  // namespace Vel::Utils
