#include "records/record_check.h"

#include <algorithm>
#include <utility>

namespace Vel::Zepctl {

std::optional<std::uint32_t> RecordContinuity::check(const RecordView& packet) {
    constexpr std::uint32_t COUNTER_MASK = 0x0F;
    const bool isDuplicate = m_Counter && Ts::isDuplicate(packet, m_Last);
    const bool isFirstDuplicate = isDuplicate && !m_WasDuplicate;
    const bool payload = packet.hasPayload();
    const std::uint32_t counter = packet.getContinuityCounter();
    const std::uint32_t expected = (m_Counter.value_or(counter) + (payload ? 1U : 0U)) & COUNTER_MASK;
    const bool isRight =
        !m_Counter || isFirstDuplicate || counter == expected || packet.hasDiscontinuityIndicator();
    m_Counter = counter;
    m_WasDuplicate = isDuplicate;
    std::copy_n(packet.getDataPtr(), m_Last.size(), m_Last.begin());
    return isRight ? std::nullopt : std::optional(expected);
}

bool PcrClock::add(Ts::PcrTicks pcr, bool newTimeBase) {
    const Ts::PcrTicks step = Ts::pcrDistance(m_Last.value_or(pcr), pcr);
    const bool continues = m_Last && !newTimeBase && step <= MAX_STEP;
    m_Last = pcr;
    if (continues) {
        m_Elapsed += step;
    } else {
        ++m_TimeBases;
    }
    return continues;
}

void RecordInput::add(const RecordView& packet, FaultLog& faults) {
    const std::uint32_t number = packet.getPid();
    Pid& pid = m_Pids[number];
    ++pid.packetsSincePcr;
    count(pid, &PacketCounts::packets);
    if (packet.hasTransportError()) {
        // Any bit of the packet may be wrong, so nothing else in it is checked, nor is the next counter.
        count(pid, &PacketCounts::transportErrors);
        faults.add(FaultKind::TransportError, packet, 0, 1);
        pid.continuity.restart();
        return;
    }
    if (packet.isScrambled()) {
        count(pid, &PacketCounts::scrambled);
    }
    const auto expected = pid.continuity.check(packet);
    if (expected && number != Ts::NULL_PID) {  // the counter of null packets is undefined
        count(pid, &PacketCounts::continuityErrors);
        faults.add(FaultKind::Continuity, packet, *expected, packet.getContinuityCounter());
    }
    pid.newTimeBase |= packet.hasDiscontinuityIndicator();
    if (Ts::readPcr(packet)) {
        count(pid, &PacketCounts::pcrs);
        const bool newTimeBase = std::exchange(pid.newTimeBase, false);
        if (const auto pcr = m_PcrReader.read(packet)) {
            takePcr(*pcr, newTimeBase);
        }
    }
}

void RecordInput::count(Pid& pid, std::uint64_t PacketCounts::*counter, std::uint64_t packets) {
    pid.counts.*counter += packets;
    m_Total.*counter += packets;
}

/// Only now is it known whether the packets since the previous PCR count towards the timed packets.
void RecordInput::takePcr(Ts::PcrTicks pcr, bool newTimeBase) {
    const bool isTimed = m_Clock.add(pcr, newTimeBase);
    for (auto& [number, pid] : m_Pids) {
        const std::uint64_t packets = std::exchange(pid.packetsSincePcr, 0);
        count(pid, &PacketCounts::timedPackets, isTimed ? packets : 0);
    }
}

std::optional<double> RecordInput::getBitRate(std::uint64_t timedPackets) const {
    const double elapsed = m_Clock.getElapsed().count();
    return elapsed > 0 ? std::optional(static_cast<double>(timedPackets) * BITS_PER_PACKET / elapsed)
                       : std::nullopt;
}

void RecordCheck::add(std::span<const std::uint8_t> records) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        const RecordView record(records.data());
        if (m_Faults.addRecord(record)) {
            m_Inputs[record.getTsiidx()].add(record, m_Faults);
        }
    }
}

}  // namespace Vel::Zepctl
