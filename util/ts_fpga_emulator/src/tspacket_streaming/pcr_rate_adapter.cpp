#include "tspacket_streaming/pcr_rate_adapter.h"

#include <iterator>
#include <utility>

#include "vel/cpp_utils/assertion.h"

namespace Vel::Utils {

namespace {

using std::chrono::nanoseconds;

/// A PCR is below 2^33 * 300 + 512, so its 1000-fold stays below 2^52. The difference of a wrapped pair is
/// formed modulo 2^64 and is correct once the wrap is added.
std::uint64_t intervalNs(Ts::PcrTicks older, Ts::PcrTicks newer) {
    using UnsignedNs = std::chrono::duration<std::uint64_t, std::nano>;
    const Ts::PcrTicks ticks = newer - older;
    return std::chrono::duration_cast<UnsignedNs>(newer >= older ? ticks : ticks + Ts::PCR_WRAP).count();
}

}  // namespace

PCRRateAdapter::PCRRateAdapter(std::stop_token stop, bool isLooped,
                               std::unique_ptr<const MonotonicClock> clock)
    : m_State(std::make_unique<Internal::PCRRateAdapterState_LockPCR>()),
      m_Stop(std::move(stop)),
      m_IsLooped(isLooped),
      m_Clock(std::move(clock)) {}

std::optional<Ts::PcrTicks> PCRRateAdapter::extractPcr(const Ts::TSPacket& packet) {
    const bool hasPcr = m_IsLooped ? Ts::readPcr(packet).has_value() : packet.hasPcr();
    if (!hasPcr || m_PcrPid.value_or(packet.getPid()) != packet.getPid()) {
        return std::nullopt;
    }
    m_PcrPid = packet.getPid();
    return Ts::PcrTicks(packet.getPcr());
}

std::int32_t PCRRateAdapter::bufferPacket(const Ts::TSPacket& packet, bool last) {
    VEL_ASSERT(static_cast<bool>(m_State));
    ++m_PacketCount;
    const std::int32_t answer = m_State->bufferPacket(*this, packet, last);
    if (answer != DISCARD_OLDEST) {
        ++m_HeldPackets;
    }
    return answer;
}

void PCRRateAdapter::delayPacket() {
    VEL_ASSERT(static_cast<bool>(m_State));
    m_State->packetDelay(*this);
    --m_HeldPackets;
    m_LastRelease = m_Clock->now();
}

void PCRRateAdapter::addPcr(Ts::PcrTicks pcr, std::uint32_t packetIndex) {
    m_PcrHistory.push_back({packetIndex, pcr});
    if (isPacketDelayKnown()) {
        m_PacketDelay = calculatePacketDelay();
    }
    if (m_PcrHistory.size() > PCR_HISTORY) {
        m_PcrHistory.pop_front();
    }
}

/// The mean of the times per packet in the intervals between neighbouring PCRs. All values, including the
/// sum, are deliberately truncated to 32 bits (4.29 s per packet).
nanoseconds PCRRateAdapter::calculatePacketDelay() const {
    std::uint32_t sumNs = 0;
    for (auto newer = std::next(m_PcrHistory.begin()); newer != m_PcrHistory.end(); ++newer) {
        const auto older = std::prev(newer);
        const auto packets = static_cast<std::uint32_t>(newer->packetIndex - older->packetIndex);
        sumNs += static_cast<std::uint32_t>(intervalNs(older->pcr, newer->pcr) / packets);
    }
    return nanoseconds(sumNs / static_cast<std::uint32_t>(m_PcrHistory.size() - 1));
}

bool PCRRateAdapter::isPacketDelayElapsed() const {
    return m_LastRelease == nanoseconds::zero() || m_PacketDelay <= m_Clock->now() - m_LastRelease;
}

void PCRRateAdapter::sleepPacketDelay() {
    if (m_BatchCount == 0) {
        m_BatchStart = m_Clock->now();
    }
    if (++m_BatchCount < BATCH_PACKETS) {
        return;
    }
    m_BatchCount = 0;
    const nanoseconds left = BATCH_PACKETS * m_PacketDelay - (m_Clock->now() - m_BatchStart);
    if (left > nanoseconds::zero()) {
        m_Clock->sleepFor(left, m_Stop);
    }
}

}  // namespace Vel::Utils
