#include "tspacket_streaming/pcr_clock_adapter.h"

#include <cmath>
#include <utility>

namespace Vel::Utils {

namespace {

constexpr std::int64_t PER_NS = 27;
constexpr std::uint64_t PER_TICK = 1000;
constexpr std::uint64_t NS_PER_MS = 1'000'000;

}  // namespace

PCRClockAdapter::PCRClockAdapter(std::uint32_t tsiidx, std::unique_ptr<const MonotonicClock> clock)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())), m_Tsiidx(tsiidx), m_Clock(std::move(clock)) {}

/// Everything that has a due time has left before the next packet comes, so what is held has none yet.
std::int32_t PCRClockAdapter::bufferPacket(const Ts::TSPacket& packet, bool last) {
    ++m_PacketCount;
    if (const auto pcr = m_PcrReader.read(packet)) {
        addPcr({m_PacketCount, *pcr}, packet.hasDiscontinuityIndicator());
    }
    const bool isFull = m_PacketCount - m_Released == MAX_BUFFERED_PACKETS;
    if (m_Scheduled < m_PacketCount && (last || isFull)) {
        scheduleWithoutPcr();
    }
    return m_Scheduled > m_Released ? WHEN_DUE : 0;
}

void PCRClockAdapter::addPcr(PcrRecord pcr, bool isNewTimeBase) {
    const auto older = std::exchange(m_LastPcr, pcr);
    if (older && !isNewTimeBase) {
        // A PCR that goes back looks like one that is almost a whole wrap ahead.
        const std::uint64_t ticks = (pcr.pcr + Ts::PCR_WRAP - older->pcr) % Ts::PCR_WRAP;
        const auto packets = static_cast<double>(pcr.packetIndex - older->packetIndex);
        const double limit = m_Rate ? packets * *m_Rate / PER_TICK + MAX_PCR_LEAD : MAX_FIRST_INTERVAL;
        if (ticks > 0 && static_cast<double>(ticks) <= limit) {
            const double rate = static_cast<double>(ticks * PER_TICK) / packets;
            scheduleHeld(rate);
            m_Rate = rate;
            return;
        }
    }
    if (m_Rate) {
        scheduleHeld(*m_Rate);
    }
}

/// After the last packet, or when no PCR has come for so long that the packets cannot wait any longer. The
/// next PCR is then no continuation of the last one.
void PCRClockAdapter::scheduleWithoutPcr() {
    m_LastPcr.reset();
    if (!m_Rate && !std::exchange(m_IsUnpacedReported, true)) {
        Log::warning(*m_Logger,
                     "TSIIDX {}: no two PCRs that give a rate in the first {} packets, which leave unpaced",
                     m_Tsiidx, m_PacketCount);
    }
    scheduleHeld(m_Rate.value_or(0));
}

/// Gives every held packet a due time, `packetTime` apart. Without a rate so far, the first one is due now.
void PCRClockAdapter::scheduleHeld(double packetTime) {
    if (!m_Rate) {
        m_EndTime = static_cast<FineTime>(m_Clock->getMonotonicNs()) * PER_NS - std::llround(packetTime);
    }
    m_OriginIndex = m_Scheduled;
    m_OriginTime = m_EndTime;
    m_PacketTime = packetTime;
    m_Scheduled = m_PacketCount;
    m_EndTime += std::llround(packetTime * static_cast<double>(m_Scheduled - m_OriginIndex));
}

std::uint64_t PCRClockAdapter::dueNs(std::uint64_t packetIndex) const {
    const double distance = m_PacketTime * static_cast<double>(packetIndex - m_OriginIndex);
    return static_cast<std::uint64_t>((m_OriginTime + std::llround(distance)) / PER_NS);
}

std::int32_t PCRClockAdapter::waitUntilDue(const std::stop_token& stop) {
    if (m_Released == m_Scheduled) {
        return 0;
    }
    std::uint64_t firstNs = dueNs(m_Released + 1);
    const std::uint64_t nowNs = m_Clock->getMonotonicNs();
    if (m_PacketTime > 0 && nowNs > firstNs + MAX_LATENESS_NS) {
        Log::warning(*m_Logger, "TSIIDX {}: packets are {} ms late, their times are moved by as much",
                     m_Tsiidx, (nowNs - firstNs) / NS_PER_MS);
        const FineTime lateness = static_cast<FineTime>(nowNs - firstNs) * PER_NS;
        m_OriginTime += lateness;
        m_EndTime += lateness;
        firstNs = nowNs;
    } else if (firstNs > nowNs) {
        m_Clock->sleepUntilNs(firstNs, stop);
    }
    if (stop.stop_requested()) {
        return 0;
    }
    std::int32_t count = 0;
    do {
        ++m_Released;
        ++count;
    } while (m_Released < m_Scheduled && count < GROUP_PACKETS &&
             dueNs(m_Released + 1) <= firstNs + GROUP_NS);
    return count;
}

}  // namespace Vel::Utils
