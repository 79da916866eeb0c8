#include "records/record_comparison.h"

#include <algorithm>
#include <sstream>

#include "command_line.h"
#include "command_result.h"

namespace Vel::Zepctl {

namespace {

std::uint32_t pidOf(const std::uint8_t* packet) {
    return PacketView(packet).getPid();
}

std::bitset<MAX_PID + 1> parsePids(const std::string& expected) {
    std::bitset<MAX_PID + 1> pids;
    const std::size_t colon = expected.rfind(':');
    if (colon != std::string::npos && colon + 1 != expected.size()) {
        std::istringstream list(expected.substr(colon + 1) + ',');  // so that an empty last one counts
        for (std::string pid; std::getline(list, pid, ',');) {
            pids.set(parseNumber("--against: PIDs follow the last colon, but", pid, Drivers::Zep::PID_RANGE));
        }
    }
    return pids;
}

}  // namespace

RecordComparison::RecordComparison(std::uint32_t tsiidx, const std::string& expected)
    : m_Tsiidx(tsiidx),
      m_Pids(parsePids(expected)),
      m_TakesAnyPid(m_Pids.none()),
      m_File(expected.substr(0, expected.rfind(':'))) {
    m_Block = m_File.readAt(0);
    if (!m_Block.empty() && !hasSyncBytes(m_Block)) {
        throw CommandError(
            DeviceUnusable,
            m_File.getName() + " is not a transport stream: it lacks the sync byte 0x47 every 188 bytes");
    }
}

const std::uint8_t* RecordComparison::get(std::uint64_t index) {
    // Before the block, the difference wraps and is large as well.
    if (index - m_BlockStart >= m_Block.size() / Ts::TS_PACKET_SIZE) {
        m_Block = m_File.readAt(index * Ts::TS_PACKET_SIZE);
        m_BlockStart = index;
    }
    const bool isAtEnd = m_Block.size() < Ts::TS_PACKET_SIZE;
    return isAtEnd ? nullptr : m_Block.data() + (index - m_BlockStart) * Ts::TS_PACKET_SIZE;
}

const std::uint8_t* RecordComparison::findNext() {
    const std::uint8_t* packet = get(m_Next);
    // Before the first record, each packet may have one of the PIDs.
    for (; packet != nullptr && m_Pids.any() && !m_Pids.test(pidOf(packet)); packet = get(++m_Next)) {
        m_Skipped.try_emplace(pidOf(packet), m_Next);
    }
    return packet;
}

void RecordComparison::add(const RecordView& record, FaultLog& faults) {
    if (m_IsDifferent) {
        return;
    }
    const std::uint32_t pid = record.getPid();
    if (m_TakesAnyPid && !m_Pids.test(pid)) {
        m_Pids.set(pid);
        if (const auto skipped = m_Skipped.find(pid); skipped != m_Skipped.end()) {
            m_Next = std::min(m_Next, skipped->second);
        }
    }
    const std::uint8_t* packet = findNext();
    // A packet that was skipped before the latest record is too late now.
    m_IsDifferent = m_Next < m_Begin || packet == nullptr ||
                    !std::equal(packet, packet + Ts::TS_PACKET_SIZE, record.getDataPtr());
    if (m_IsDifferent) {
        const auto kind = packet != nullptr ? FaultKind::Unexpected : FaultKind::Extra;
        faults.add({kind, faults.getRecords() - 1, m_Tsiidx, packet != nullptr ? pidOf(packet) : pid,
                    static_cast<std::uint32_t>(m_Next), pid});
        return;
    }
    m_Begin = ++m_Next;
}

void RecordComparison::end(FaultLog& faults) {
    if (!isSettled()) {
        faults.add({FaultKind::Missing, faults.getRecords(), m_Tsiidx, pidOf(get(m_Next)),
                    static_cast<std::uint32_t>(m_Next), 0});
    }
}

}  // namespace Vel::Zepctl
