#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stop_token>

#include "tspacket_streaming/irate_adapter.h"
#include "tspacket_streaming/monotonic_clock.h"
#include "tspacket_streaming/pcr_rate_adapter_states.h"
#include "vel/ts_basics/pcr.h"

namespace Vel::Utils {

/// Replays a stream at the rate at which it was produced. Learns the time per packet from the PCRs of one
/// PID, holds up to about ten thousand packets, and releases one packet per learnt packet delay on average:
/// in batches of 100, each of which takes at least 100 packet delays. A PCR that is lower than the previous
/// one is taken for a wrap.
///
/// The state decides what happens; docs/architecture.md has the table. One adapter serves one stream, on that
/// stream's thread.
class PCRRateAdapter final : public IRateAdapter {
public:
    /// Packets that may be held before the play-out starts, and how many of them stay queued then.
    static constexpr std::uint32_t MAX_BUFFERED_PACKETS = 10000;
    static constexpr std::uint32_t PLAY_OUT_PACKETS = 5000;
    /// PCRs that are remembered between calls, and packets that share one pacing sleep.
    static constexpr std::size_t PCR_HISTORY = 10;
    static constexpr std::uint32_t BATCH_PACKETS = 100;

    /// @param stop ends the pacing: from then on, packets are sent as fast as they are released
    /// @param isLooped whether Ts::StreamLoop continues the clock: PCRs that it leaves alone repeat in every
    /// pass, so they are ignored
    /// @param clock the source of time; the system's by default
    explicit PCRRateAdapter(std::stop_token stop = {}, bool isLooped = false,
                            std::unique_ptr<const MonotonicClock> clock = std::make_unique<MonotonicClock>());

    /// @throws CppUtil::NotImplementedError for a packet after the last one
    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override;
    std::uint32_t getMaxBufferedPackets() const override { return MAX_BUFFERED_PACKETS; }
    /// @throws CppUtil::NotImplementedError before the first release
    void delayPacket() override;

    // For the states.

    bool isBufferEmpty() const { return m_HeldPackets == 0; }
    /// Packets held, without the one that is being handed in.
    std::uint32_t getBufferedPackets() const { return m_HeldPackets; }
    std::uint32_t getPacketCount() const { return m_PacketCount; }
    /// At least two PCRs have been seen, so that the packet delay is known.
    bool isPacketDelayKnown() const { return m_PcrHistory.size() > 1; }
    std::chrono::nanoseconds getPacketDelay() const { return m_PacketDelay; }
    /// Destroys the current state, which must not use its own object afterwards.
    void setState(std::unique_ptr<Internal::PCRRateAdapterState> state) { m_State = std::move(state); }
    /// The packet's PCR, if it has one and is of the PCR PID; the first packet with a PCR selects that PID
    /// for good.
    std::optional<Ts::PcrTicks> extractPcr(const Ts::TSPacket& packet);
    void addPcr(Ts::PcrTicks pcr, std::uint32_t packetIndex);
    bool isPacketDelayElapsed() const;
    void sleepPacketDelay();

private:
    std::chrono::nanoseconds calculatePacketDelay() const;

    std::unique_ptr<Internal::PCRRateAdapterState> m_State;  // never empty
    std::deque<Ts::PcrRecord> m_PcrHistory;                  // oldest first
    std::uint32_t m_PacketCount = 0;                         // handed in so far
    std::uint32_t m_HeldPackets = 0;
    std::optional<std::uint32_t> m_PcrPid;
    std::chrono::nanoseconds m_PacketDelay{0};
    std::chrono::nanoseconds m_LastRelease{0};  // monotonic; 0: none yet
    std::chrono::nanoseconds m_BatchStart{0};   // monotonic
    std::uint32_t m_BatchCount = 0;             // packets in the current batch
    std::stop_token m_Stop;
    bool m_IsLooped;
    std::unique_ptr<const MonotonicClock> m_Clock;
};

}  // namespace Vel::Utils
