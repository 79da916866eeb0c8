#include "records/record_check.h"

#include <algorithm>
#include <utility>

namespace Vel::Zepctl {

void RecordInput::add(const RecordView& packet, std::uint64_t index, FaultLog& faults) {
    const std::uint32_t number = packet.getPid();
    Pid& pid = getPid(number);
    ++m_Packets;
    ++pid.statistics.packets;
    countForRate(pid);
    if (packet.hasTransportError()) {
        // Any bit of the packet may be wrong, so nothing else in it is judged, nor is the step that follows
        // it.
        ++pid.statistics.transportErrors;
        faults.add({FaultKind::TransportError, index, m_Tsiidx, number, 0, 1});
        pid.continuity.restart();
        return;
    }
    if (packet.isScrambled()) {
        ++pid.statistics.scrambled;
    }
    checkContinuity(pid, packet, index, faults);
    pid.newTimeBase |= packet.hasDiscontinuityIndicator();
    if (packet.hasPcr()) {
        takePcr(pid, packet);
    }
}

RecordInput::Pid& RecordInput::getPid(std::uint32_t pid) {
    Pid*& entry = m_PidTable[pid];
    if (entry == nullptr) {
        entry = m_Pids.emplace_back(std::make_unique<Pid>()).get();
        entry->statistics.pid = pid;
    }
    return *entry;
}

/// Whether an interval has a duration shows at its end. A PID's packets of the latest interval are therefore
/// kept apart until the next one of the PID, so that a PCR need not touch the other PIDs.
void RecordInput::countForRate(Pid& pid) const {
    if (pid.interval != m_Interval) {
        pid.statistics.timedPackets += std::exchange(pid.inInterval, 0);
        pid.interval = m_Interval;
    }
    ++pid.inInterval;
}

void RecordInput::checkContinuity(Pid& pid, const RecordView& packet, std::uint64_t index, FaultLog& faults) {
    if (pid.statistics.pid == Ts::NULL_PID) {
        return;  // the counter of null packets is undefined
    }
    if (const auto expected = pid.continuity.check(packet)) {
        ++m_ContinuityErrors;
        ++pid.statistics.continuityErrors;
        faults.add({FaultKind::Continuity, index, m_Tsiidx, pid.statistics.pid, *expected,
                    packet.getContinuityCounter()});
    }
}

void RecordInput::takePcr(Pid& pid, const RecordView& packet) {
    ++pid.statistics.pcrs;
    const bool newTimeBase = std::exchange(pid.newTimeBase, false);
    if (!m_PcrPid) {
        m_PcrPid = pid.statistics.pid;
    }
    if (*m_PcrPid != pid.statistics.pid) {
        return;
    }
    if (!m_Clock.add(packet.getPcr(), newTimeBase)) {
        for (const auto& other : m_Pids) {
            if (other->interval == m_Interval) {
                other->inInterval = 0;
            }
        }
    }
    ++m_Interval;
}

std::vector<PidStatistics> RecordInput::getPids() const {
    std::vector<PidStatistics> pids;
    for (const Pid* pid : m_PidTable) {
        if (pid != nullptr) {
            pids.push_back(pid->statistics);
            pids.back().timedPackets += pid->interval == m_Interval ? 0 : pid->inInterval;
        }
    }
    return pids;
}

std::optional<double> RecordInput::getBitRate(std::uint64_t timedPackets) const {
    const double elapsed = m_Clock.getElapsed();
    if (elapsed <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(timedPackets) * BITS_PER_PACKET / elapsed;
}

void RecordCheck::add(std::span<const std::uint8_t> records) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        const RecordView record(records.data());
        const std::uint64_t index = m_Records++;
        if (const auto fault = findRecordFault(record, index)) {
            m_Faults.add(*fault);
        } else {
            getInput(record.getTsiidx()).add(record, index, m_Faults);
        }
    }
}

RecordInput& RecordCheck::getInput(std::uint32_t tsiidx) {
    auto& input = m_Inputs[tsiidx];
    if (input == nullptr) {
        input = std::make_unique<RecordInput>(tsiidx);
    }
    return *input;
}

std::vector<const RecordInput*> RecordCheck::getInputs() const {
    std::vector<const RecordInput*> inputs;
    for (const auto& input : m_Inputs) {
        if (input != nullptr) {
            inputs.push_back(input.get());
        }
    }
    return inputs;
}

}  // namespace Vel::Zepctl
