#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "records/record_comparison.h"
#include "records/record_fault.h"
#include "records/record_view.h"
#include "vel/ts_basics/pcr.h"

namespace Vel::Zepctl {

/// Rates count the 188 bytes of a packet, not the record's header.
inline constexpr double BITS_PER_PACKET = Ts::TS_PACKET_SIZE * 8.0;

using Seconds = std::chrono::duration<double>;

/// Follows the continuity counter of one PID (ISO/IEC 13818-1, 2.4.3.3): it is incremented with each packet
/// that has a payload, and only then. A packet with a payload may be sent twice in a row, but not three
/// times. With the discontinuity indicator any value is correct. Reentrant.
class RecordContinuity {
public:
    /// Takes the next packet of the PID.
    /// @return the counter (0..15) that it should have had, if it has a wrong one
    [[nodiscard]] std::optional<std::uint32_t> check(const RecordView& packet);
    /// Accepts any counter next.
    void restart() { m_Counter.reset(); }

private:
    std::optional<std::uint32_t> m_Counter;                 // of the previous packet
    std::array<std::uint8_t, Ts::TS_PACKET_SIZE> m_Last{};  // the previous packet
    bool m_WasDuplicate = false;                            // it repeated the one before it
};

/// What the clock of an input has measured. The step to a new time base is left out.
struct ClockTime {
    Ts::PcrTicks elapsed{0};      // 64 bits are enough for 21,000 years
    Ts::PcrTicks skipped{0};      // left out of it, by jumps ahead of up to RecordInput::MAX_SKIP
    std::uint64_t timeBases = 0;  // a newly chosen PCR PID begins one as well
    std::uint64_t jumps = 0;      // PCRs that do not continue the clock, not announced by a discontinuity
    std::uint64_t gaps = 0;       // PCRs more than RecordInput::MAX_PCR_DISTANCE after the previous one
};

/// Counts of one PID, or of all PIDs of an input.
struct PacketCounts {
    std::uint64_t packets = 0;
    std::uint64_t continuityErrors = 0;
    std::uint64_t scrambled = 0;
    std::uint64_t transportErrors = 0;
    std::uint64_t pcrs = 0;
    std::uint64_t timedPackets = 0;  // between PCRs of the input's clock, see RecordInput
};

/// Checks the packets of one input. Bit rates are those of the recorded packets by the input's PCR clock,
/// without the intervals in which a new time base began. PIDs that are not routed are not recorded, so this
/// is not the rate of the input's whole stream. Reentrant; not copied, since it points into itself.
class RecordInput {
public:
    struct Pid {
        PacketCounts counts;
        RecordContinuity continuity;
    };

    /// ISO/IEC 13818-1, 2.7.2.
    static constexpr std::chrono::milliseconds MAX_PCR_DISTANCE{100};
    /// A jump ahead that may be due to lost packets.
    static constexpr std::chrono::seconds MAX_SKIP{10};

    RecordInput() = default;
    RecordInput(const RecordInput&) = delete;
    RecordInput& operator=(const RecordInput&) = delete;

    /// Checks the next packet, which is the latest record of the log, and logs its faults.
    void add(const RecordView& packet, FaultLog& faults);

    const PacketCounts& getTotal() const { return m_Total; }
    /// By PID.
    const std::map<std::uint32_t, Pid>& getPids() const { return m_Pids; }
    /// The latest choice of the clock; none if no PID has two successive PCRs of one time base.
    std::optional<std::uint32_t> getPcrPid() const { return m_PcrPid; }
    const ClockTime& getTime() const { return m_Time; }
    /// The rate in bit/s of the given number of timed packets, 188 bytes each; none if no time is known.
    std::optional<double> getBitRate(std::uint64_t timedPackets) const;

private:
    /// Adds the packet to a counter of the PID and to that of the input.
    void count(PacketCounts& pid, std::uint64_t PacketCounts::*counter);
    void followClock(const RecordView& packet, PacketCounts& pid, FaultLog& faults);

    PacketCounts m_Total;
    std::map<std::uint32_t, Pid> m_Pids;
    Ts::PcrClock m_Clock;
    std::optional<std::uint32_t> m_PcrPid;
    ClockTime m_Time;
    // The PIDs of the latest packets, since the PCR or as far back as a step can reach: only the next PCR
    // decides whether these packets count towards the timed ones.
    std::deque<PacketCounts*> m_Recent;
};

/// Checks a stream of records. Thread-bound.
class RecordCheck {
public:
    /// @param against for each input that is to be compared: TSIIDX=FILE[:PID,...]
    /// @param isStrict whether irregular PCRs are faults
    /// @throws CommandError for other text, an input that is named twice, and a FILE that cannot be used
    explicit RecordCheck(const std::vector<std::string>& against = {}, bool isStrict = false);

    /// Takes the next complete records.
    void add(std::span<const std::uint8_t> records);
    /// Takes the next record. Returns its input, or null if it cannot be attributed to one.
    const RecordInput* add(const RecordView& record);
    /// Takes the size of the incomplete record at the end of the stream, 0 if there is none.
    void end(std::size_t tornBytes);
    /// Whether every comparison has found a difference or all that it expected.
    bool isSettled();
    /// Throws CommandError if there was nothing to compare an input with.
    void requireComparisons();

    const FaultLog& getFaults() const { return m_Faults; }
    /// By TSIIDX.
    const std::map<std::uint32_t, RecordInput>& getInputs() const { return m_Inputs; }

private:
    FaultLog m_Faults;
    std::map<std::uint32_t, RecordInput> m_Inputs;
    std::map<std::uint32_t, RecordComparison> m_Comparisons;  // by TSIIDX
};

}  // namespace Vel::Zepctl
