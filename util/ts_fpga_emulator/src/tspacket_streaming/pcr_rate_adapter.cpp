#include "tspacket_streaming/pcr_rate_adapter.h"

#include <chrono>
#include <iterator>
#include <utility>

#include "vel/cpp_utils/assertion.h"

namespace Vel::Utils {

namespace {

using Nanoseconds = std::chrono::duration<std::uint64_t, std::nano>;

/// A PCR is below 2^33 * 300 + 512, so its 1000-fold stays below 2^52. The difference of a wrapped pair is
/// formed modulo 2^64 and is right once the wrap is added.
std::uint64_t intervalNs(Ts::PcrTicks older, Ts::PcrTicks newer) {
    const Ts::PcrTicks ticks = newer - older;
    return std::chrono::duration_cast<Nanoseconds>(newer >= older ? ticks : ticks + Ts::PCR_WRAP).count();
}

}  // namespace

PCRRateAdapter::PCRRateAdapter(std::stop_token stop, std::unique_ptr<const MonotonicClock> clock)
    : m_State(std::make_unique<Internal::PCRRateAdapterState_LockPCR>()),
      m_Stop(std::move(stop)),
      m_Clock(std::move(clock)) {}

std::optional<std::uint64_t> PCRRateAdapter::extractPcr(const Ts::TSPacket& packet) {
    if (!packet.hasPcr() || m_PcrPid.value_or(packet.getPid()) != packet.getPid()) {
        return std::nullopt;
    }
    m_PcrPid = packet.getPid();
    return packet.getPcr();
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
    m_LastReleaseNs = m_Clock->getMonotonicNs();
}

void PCRRateAdapter::addPcr(std::uint64_t pcr, std::uint32_t packetIndex) {
    m_PcrHistory.push_back({packetIndex, Ts::PcrTicks(pcr)});
    if (isPacketDelayKnown()) {
        m_PacketDelayNs = calculatePacketDelayNs();
    }
    if (m_PcrHistory.size() > PCR_HISTORY) {
        m_PcrHistory.pop_front();
    }
}

/// Mean over the intervals between neighbouring PCRs, of each interval's time per packet. Every quantity is
/// cut to 32 bits, 4.29 s per packet, on purpose: so is the sum.
std::uint32_t PCRRateAdapter::calculatePacketDelayNs() const {
    std::uint32_t sum = 0;
    for (auto newer = std::next(m_PcrHistory.begin()); newer != m_PcrHistory.end(); ++newer) {
        const auto older = std::prev(newer);
        const auto packets = static_cast<std::uint32_t>(newer->packetIndex - older->packetIndex);
        sum += static_cast<std::uint32_t>(intervalNs(older->pcr, newer->pcr) / packets);
    }
    return sum / static_cast<std::uint32_t>(m_PcrHistory.size() - 1);
}

bool PCRRateAdapter::isPacketDelayElapsed() const {
    return m_LastReleaseNs == 0 || m_PacketDelayNs <= m_Clock->getMonotonicNs() - m_LastReleaseNs;
}

void PCRRateAdapter::sleepPacketDelay() {
    if (m_BatchCount == 0) {
        m_BatchStartNs = m_Clock->getMonotonicNs();
    }
    if (++m_BatchCount < BATCH_RELEASES) {
        return;
    }
    m_BatchCount = 0;
    const std::uint64_t elapsedNs = m_Clock->getMonotonicNs() - m_BatchStartNs;
    const std::uint64_t batchNs = BATCH_RELEASES * m_PacketDelayNs;
    if (batchNs > elapsedNs) {
        m_Clock->sleepNs(batchNs - elapsedNs, m_Stop);
    }
}

}  // namespace Vel::Utils
