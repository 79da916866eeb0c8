#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <ratio>
#include <stop_token>
#include <string>

#include "tspacket_streaming/irate_adapter.h"
#include "tspacket_streaming/monotonic_clock.h"
#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/pcr.h"

namespace Vel::Utils {

/// Releases each packet at its PCR time. Holds the packets until the next PCR is known, and spreads them
/// evenly between the two PCRs around them (ISO/IEC 13818-1, 2.4.2.2). Times are absolute, so a late packet
/// does not delay later ones.
///
/// A PCR that cannot continue the previous one starts a new time base: the packets before it are sent at the
/// current rate. Packets before the second PCR use the rate of the first two; packets after the last PCR use
/// the last rate. One adapter serves one stream, on that stream's thread.
class PCRClockAdapter final : public IRateAdapter {
public:
    static constexpr std::uint32_t MAX_BUFFERED_PACKETS = 10000;
    /// A due group: packets that are due within this time are sent together, but not more than this number.
    static constexpr std::chrono::microseconds GROUP_TIME{250};
    static constexpr std::int32_t GROUP_PACKETS = 100;
    /// If packets are later than this, for example because the reader paused, all later times are shifted.
    static constexpr std::chrono::seconds MAX_LATENESS{1};
    /// PCRs are at most 100 ms apart (ISO/IEC 13818-1, 2.7.2): the most by which one may be ahead of the
    /// value predicted by the current rate.
    static constexpr std::chrono::milliseconds MAX_PCR_LEAD{100};
    /// The longest time between the first two PCRs, when there is no rate yet to compare it with.
    static constexpr std::chrono::seconds MAX_FIRST_INTERVAL{1};

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PCRClockAdapter"); }

    /// @param tsiidx of the input, for the log
    /// @param clock the source of time; the system's by default
    explicit PCRClockAdapter(std::uint32_t tsiidx, std::unique_ptr<const MonotonicClock> clock =
                                                       std::make_unique<MonotonicClock>());

    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override;
    std::uint32_t getMaxBufferedPackets() const override { return MAX_BUFFERED_PACKETS; }
    /// waitUntilDue() has waited already.
    void delayPacket() override {}
    std::int32_t waitUntilDue(const std::stop_token& stop) override;

private:
    /// 1/27 ns: whole numbers of it hold PCR ticks (1000) and nanoseconds (27), so no rounding errors add up.
    /// 64 bits last for ten years since the system's start.
    using FineTime = std::chrono::duration<std::int64_t, std::ratio<1, 27'000'000'000>>;
    using FineInterval = std::chrono::duration<double, FineTime::period>;

    void addPcr(Ts::PcrRecord pcr, bool isNewTimeBase);
    void scheduleHeld(FineInterval packetTime);
    void scheduleWithoutPcr();
    std::chrono::nanoseconds dueTime(std::uint64_t packetIndex) const;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    std::unique_ptr<const MonotonicClock> m_Clock;
    std::optional<std::uint32_t> m_PcrPid;
    std::optional<Ts::PcrRecord> m_LastPcr;
    std::optional<FineInterval> m_PacketTime;  // from the last two PCRs that belong together
    bool m_IsUnpacedReported = false;
    // Numbers of packets that have been handed in, given a due time, and released.
    std::uint64_t m_PacketCount = 0;
    std::uint64_t m_Scheduled = 0;
    std::uint64_t m_Released = 0;
    // The due times of the packets up to m_Scheduled: m_Spacing apart, counted from an origin.
    std::uint64_t m_OriginIndex = 0;
    FineTime m_OriginTime{0};
    FineInterval m_Spacing{0};
    FineTime m_EndTime{0};  // of the packet m_Scheduled
};

}  // namespace Vel::Utils
