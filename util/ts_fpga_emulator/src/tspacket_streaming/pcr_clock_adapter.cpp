#include "tspacket_streaming/pcr_clock_adapter.h"

#include <chrono>
#include <utility>

namespace Vel::Utils {

using std::chrono::nanoseconds;

PCRClockAdapter::PCRClockAdapter(std::uint32_t tsiidx, std::unique_ptr<const MonotonicClock> clock)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())), m_TSIIDX(tsiidx), m_Clock(std::move(clock)) {}

/// Every packet that has a due time is released before the next one is read, so the held packets have none.
std::int32_t PCRClockAdapter::bufferPacket(const Ts::TSPacket& packet, bool last) {
    ++m_PacketCount;
    if (const auto pcr = Ts::readPcr(packet); pcr && m_PcrPid.value_or(packet.getPid()) == packet.getPid()) {
        m_PcrPid = packet.getPid();
        addPcr({m_PacketCount, *pcr}, packet.hasDiscontinuityIndicator());
    }
    const bool isFull = m_PacketCount - m_Released == MAX_BUFFERED_PACKETS;
    if (m_Scheduled < m_PacketCount && (last || isFull)) {
        scheduleWithoutPcr();
    }
    return m_Scheduled > m_Released ? WHEN_DUE : 0;
}

void PCRClockAdapter::addPcr(Ts::PcrRecord pcr, bool isNewTimeBase) {
    const auto older = std::exchange(m_LastPcr, pcr);
    if (older && !isNewTimeBase) {
        const FineInterval interval = Ts::pcrDistance(older->pcr, pcr.pcr);
        const auto packets = static_cast<double>(pcr.packetIndex - older->packetIndex);
        const FineInterval limit =
            m_PacketTime ? packets * *m_PacketTime + MAX_PCR_LEAD : FineInterval(MAX_FIRST_INTERVAL);
        if (interval > FineInterval::zero() && interval <= limit) {
            scheduleHeld(interval / packets);
            m_PacketTime = interval / packets;
            return;
        }
    }
    if (m_PacketTime) {
        scheduleHeld(*m_PacketTime);
    }
}

/// For the packets after the last PCR, and for a full buffer without a second PCR. The next PCR starts a new
/// time base.
void PCRClockAdapter::scheduleWithoutPcr() {
    m_LastPcr.reset();
    if (!m_PacketTime && !std::exchange(m_IsUnpacedReported, true)) {
        Log::warning(
            *m_Logger,
            "TSIIDX {}: no rate from the first {} packets (fewer than two usable PCRs); sending them "
            "unpaced",
            m_TSIIDX, m_PacketCount);
    }
    scheduleHeld(m_PacketTime.value_or(FineInterval::zero()));
}

/// Gives every held packet a due time, `packetTime` apart. The first packets of the stream are due from now
/// on.
void PCRClockAdapter::scheduleHeld(FineInterval packetTime) {
    if (!m_PacketTime) {
        m_EndTime = m_Clock->now() - std::chrono::round<FineTime>(packetTime);
    }
    m_OriginIndex = m_Scheduled;
    m_OriginTime = m_EndTime;
    m_Spacing = packetTime;
    m_Scheduled = m_PacketCount;
    m_EndTime += std::chrono::round<FineTime>(packetTime * static_cast<double>(m_Scheduled - m_OriginIndex));
}

nanoseconds PCRClockAdapter::dueTime(std::uint64_t packetIndex) const {
    const FineInterval distance = m_Spacing * static_cast<double>(packetIndex - m_OriginIndex);
    return std::chrono::floor<nanoseconds>(m_OriginTime + std::chrono::round<FineTime>(distance));
}

std::int32_t PCRClockAdapter::waitUntilDue(const std::stop_token& stop) {
    if (m_Released == m_Scheduled) {
        return 0;
    }
    nanoseconds first = dueTime(m_Released + 1);
    const nanoseconds now = m_Clock->now();
    if (m_Spacing > FineInterval::zero() && now > first + MAX_LATENESS) {
        Log::warning(*m_Logger, "TSIIDX {}: packets are {} ms late; shifting the schedule by that amount",
                     m_TSIIDX, std::chrono::floor<std::chrono::milliseconds>(now - first).count());
        const FineTime lateness = now - first;
        m_OriginTime += lateness;
        m_EndTime += lateness;
        first = now;
    } else if (first > now) {
        m_Clock->sleepUntil(first, stop);
    }
    if (stop.stop_requested()) {
        return 0;
    }
    std::int32_t count = 0;
    do {
        ++m_Released;
        ++count;
    } while (m_Released < m_Scheduled && count < GROUP_PACKETS &&
             dueTime(m_Released + 1) <= first + GROUP_TIME);
    return count;
}

}  // namespace Vel::Utils
