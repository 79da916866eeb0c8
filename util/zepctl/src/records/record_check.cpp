#include "records/record_check.h"

#include <algorithm>
#include <cstddef>

#include <fmt/format.h>

#include "command_line.h"
#include "command_result.h"

namespace Vel::Zepctl {

namespace {

std::uint32_t millisecondsOf(Ts::PcrTicks time) {
    return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

}  // namespace

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

void RecordInput::add(const RecordView& packet, FaultLog& faults) {
    const std::uint32_t number = packet.getPid();
    Pid& pid = m_Pids[number];
    count(pid.counts, &PacketCounts::packets);
    followClock(packet, pid.counts, faults);
    if (packet.hasTransportError()) {
        // Any bit of the packet may be wrong, so nothing else in it is checked, nor is the next counter.
        count(pid.counts, &PacketCounts::transportErrors);
        faults.add(FaultKind::TransportError, packet, 0, 1);
        pid.continuity.restart();
        return;
    }
    if (packet.isScrambled()) {
        count(pid.counts, &PacketCounts::scrambled);
    }
    const auto expected = pid.continuity.check(packet);
    if (expected && number != Ts::NULL_PID) {  // the counter of null packets is undefined
        count(pid.counts, &PacketCounts::continuityErrors);
        faults.add(FaultKind::Continuity, packet, *expected, packet.getContinuityCounter());
    }
    if (Ts::readPcr(packet)) {
        count(pid.counts, &PacketCounts::pcrs);
    }
}

void RecordInput::count(PacketCounts& pid, std::uint64_t PacketCounts::*counter) {
    ++(pid.*counter);
    ++(m_Total.*counter);
}

void RecordInput::followClock(const RecordView& packet, PacketCounts& pid, FaultLog& faults) {
    using Kind = Ts::PcrClock::Reading::Kind;
    m_Recent.push_back(&pid);
    if (m_Recent.size() > Ts::PcrClock::MAX_STEP_PACKETS) {
        m_Recent.pop_front();
    }
    const bool isChosen = m_Clock.getPid().has_value();
    const auto [kind, packets, time] = m_Clock.read(packet);
    if (time > MAX_PCR_DISTANCE) {
        const bool isJump = time > Ts::PcrClock::MAX_STEP;
        ++(isJump ? m_Time.jumps : m_Time.gaps);
        const Ts::PcrTicks pcr = Ts::readPcr(packet).value();
        faults.add(isJump ? FaultKind::PcrJump : FaultKind::PcrGap, packet,
                   millisecondsOf(Ts::pcrDistance(time, pcr)), millisecondsOf(pcr));
    }
    if (kind == Kind::Nothing || kind == Kind::Candidate) {
        return;
    }
    if (kind == Kind::Step) {
        m_PcrPid = m_Clock.getPid();
        m_Time.elapsed += time;
        const auto end = m_Recent.end();
        std::for_each(end - static_cast<std::ptrdiff_t>(packets), end,
                      [this](PacketCounts* timed) { count(*timed, &PacketCounts::timedPackets); });
    }
    if (kind == Kind::NewTimeBase && time <= MAX_SKIP) {
        m_Time.skipped += time;
    }
    m_Time.timeBases += kind == Kind::NewTimeBase || !isChosen ? 1 : 0;
    m_Recent.clear();
}

std::optional<double> RecordInput::getBitRate(std::uint64_t timedPackets) const {
    const double elapsed = Seconds(m_Time.elapsed).count();
    return elapsed > 0 ? std::optional(static_cast<double>(timedPackets) * BITS_PER_PACKET / elapsed)
                       : std::nullopt;
}

RecordCheck::RecordCheck(const std::vector<std::string>& against, bool isStrict) : m_Faults(isStrict) {
    for (const std::string& text : against) {
        const std::size_t equals = text.find('=');
        const auto tsiidx = parseNumber("--against: TSIIDX", text.substr(0, equals), {0, MAX_TSIIDX});
        if (equals == std::string::npos ||
            !m_Comparisons.try_emplace(tsiidx, tsiidx, text.substr(equals + 1)).second) {
            throw CommandError(WrongUse,
                               "--against \"" + text +
                                   "\" is not TSIIDX=FILE[:PID,...] with a TSIIDX that was not given before");
        }
    }
}

void RecordCheck::add(std::span<const std::uint8_t> records) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        add(RecordView(records.data()));
    }
}

const RecordInput* RecordCheck::add(const RecordView& record) {
    RecordInput* input = m_Faults.addRecord(record) ? &m_Inputs[record.getTsiidx()] : nullptr;
    if (input != nullptr) {
        input->add(record, m_Faults);
    }
    // Also with a bad sync byte, which the file may have as well.
    if (const auto found = m_Comparisons.find(record.getTsiidx()); found != m_Comparisons.end()) {
        found->second.add(record, m_Faults);
    }
    return input;
}

void RecordCheck::end(std::size_t tornBytes) {
    for (auto& [tsiidx, comparison] : m_Comparisons) {
        comparison.end(m_Faults);
    }
    m_Faults.addTornRecord(tornBytes);
}

void RecordCheck::requireComparisons() {
    for (auto& [tsiidx, comparison] : m_Comparisons) {
        if (comparison.isEmpty()) {
            throw CommandError(DeviceUnusable,
                               fmt::format("{} has no packet to compare the records of TSIIDX {} with",
                                           comparison.getFileName(), tsiidx));
        }
    }
}

bool RecordCheck::isSettled() {
    return std::ranges::all_of(m_Comparisons, [](auto& entry) { return entry.second.isSettled(); });
}

}  // namespace Vel::Zepctl
