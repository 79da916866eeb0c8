#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "records/record_continuity.h"
#include "records/record_fault.h"
#include "records/record_pcr_clock.h"

namespace Vel::Zepctl {

/// What the packets of one PID of an input added up to.
struct PidStatistics {
    std::uint32_t pid = 0;
    std::uint64_t packets = 0;
    std::uint64_t continuityErrors = 0;
    std::uint64_t scrambled = 0;
    std::uint64_t transportErrors = 0;
    std::uint64_t pcrs = 0;
    std::uint64_t timedPackets = 0;  // those between PCRs of the input's clock, see RecordInput
};

/// Checks the packets of one input. Its clock comes from the PCRs of the PID that had the first one, and a
/// bit rate is that of the recorded packets by this clock: those from the first PCR to the last, without the
/// intervals in which a new time base began. PIDs that are not routed are not in the records, so this is not
/// the rate of the input's whole stream. Reentrant.
class RecordInput {
public:
    explicit RecordInput(std::uint32_t tsiidx) : m_Tsiidx(tsiidx) {}

    /// Checks the next packet, the record with that index, and logs its faults.
    void add(const RecordView& packet, std::uint64_t index, FaultLog& faults);

    std::uint32_t getTsiidx() const { return m_Tsiidx; }
    std::uint64_t getPackets() const { return m_Packets; }
    std::uint64_t getContinuityErrors() const { return m_ContinuityErrors; }
    /// None without PCR.
    std::optional<std::uint32_t> getPcrPid() const { return m_PcrPid; }
    const PcrClock& getClock() const { return m_Clock; }
    /// One a PID that occurred, ascending.
    std::vector<PidStatistics> getPids() const;
    /// The rate of so many timed packets in bit/s, counting the 188 bytes of each; none where no time is
    /// known.
    std::optional<double> getBitRate(std::uint64_t timedPackets) const;

private:
    struct Pid {
        PidStatistics statistics;      // timedPackets: of the intervals before the one given below
        std::uint64_t interval = 0;    // the latest one with a packet of this PID
        std::uint64_t inInterval = 0;  // packets of this PID in it
        RecordContinuity continuity;
        bool newTimeBase = false;  // announced, and begins with the next PCR
    };

    Pid& getPid(std::uint32_t pid);
    void countForRate(Pid& pid) const;
    void checkContinuity(Pid& pid, const RecordView& packet, std::uint64_t index, FaultLog& faults);
    void takePcr(Pid& pid, const RecordView& packet);

    std::uint32_t m_Tsiidx;
    std::uint64_t m_Packets = 0;
    std::uint64_t m_ContinuityErrors = 0;
    std::optional<std::uint32_t> m_PcrPid;
    PcrClock m_Clock;
    std::uint64_t m_Interval = 0;              // PCRs of m_PcrPid so far: 0 before the first
    std::vector<std::unique_ptr<Pid>> m_Pids;  // as they occurred
    std::array<Pid*, Ts::PID_COUNT> m_PidTable{};
};

/// Checks a stream of records. It holds some 64 KiB for an input and 300 bytes for a PID, each allocated when
/// it first occurs, and nothing for a record. Thread-bound.
class RecordCheck {
public:
    /// Takes the next records, whole ones.
    void add(std::span<const std::uint8_t> records);
    /// Tells what is left of a record at the end of the stream, in bytes.
    void end(std::size_t tornBytes) { m_Faults.addTornRecord(m_Records, tornBytes); }

    /// Whole records, faulty ones included.
    std::uint64_t getRecords() const { return m_Records; }
    const FaultLog& getFaults() const { return m_Faults; }
    /// One a TSIIDX that occurred, ascending.
    std::vector<const RecordInput*> getInputs() const;

private:
    RecordInput& getInput(std::uint32_t tsiidx);

    std::uint64_t m_Records = 0;
    FaultLog m_Faults;
    std::array<std::unique_ptr<RecordInput>, Ts::TSIIDX_COUNT> m_Inputs;
};

}  // namespace Vel::Zepctl
