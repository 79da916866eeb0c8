#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>

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

/// The time that the PCRs of one PID measure: the sum of the steps from each to the next, across their wrap.
/// The step to a new time base is left out. Reentrant.
class PcrClock {
public:
    /// Longest step within one time base: ten times the interval that ISO/IEC 13818-1, 2.7.2, allows. A step
    /// back looks like a step of many hours ahead, so it is above this as well.
    static constexpr std::chrono::seconds MAX_STEP{1};

    /// Takes the next PCR.
    /// @param newTimeBase whether the stream announced that a time base begins with this PCR
    /// @return whether it continues the time base of the previous one
    bool add(Ts::PcrTicks pcr, bool newTimeBase);

    /// Sum of all steps.
    Seconds getElapsed() const { return m_Elapsed; }
    /// Number of time bases so far; 0 before the first PCR.
    std::uint64_t getTimeBases() const { return m_TimeBases; }

private:
    std::optional<Ts::PcrTicks> m_Last;
    Ts::PcrTicks m_Elapsed{0};  // 64 bits are enough for 21,000 years
    std::uint64_t m_TimeBases = 0;
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

/// Checks the packets of one input. Its clock is that of the first PID with a PCR. Bit rates are those of the
/// recorded packets by this clock, from the first PCR to the last, without the intervals in which a new time
/// base began. PIDs that are not routed are not recorded, so this is not the rate of the input's whole
/// stream. Reentrant.
class RecordInput {
public:
    struct Pid {
        PacketCounts counts;
        std::uint64_t packetsSincePcr = 0;  // of the input's clock
        RecordContinuity continuity;
        bool newTimeBase = false;  // announced; it begins with the next PCR
    };

    /// Checks the next packet, which is the latest record of the log, and logs its faults.
    void add(const RecordView& packet, FaultLog& faults);

    const PacketCounts& getTotal() const { return m_Total; }
    /// By PID.
    const std::map<std::uint32_t, Pid>& getPids() const { return m_Pids; }
    /// None without a PCR.
    std::optional<std::uint32_t> getPcrPid() const { return m_PcrReader.getPid(); }
    const PcrClock& getClock() const { return m_Clock; }
    /// The rate in bit/s of the given number of timed packets, 188 bytes each; none if no time is known.
    std::optional<double> getBitRate(std::uint64_t timedPackets) const;

private:
    /// Adds packets to a counter of the PID and to that of the input.
    void count(Pid& pid, std::uint64_t PacketCounts::*counter, std::uint64_t packets = 1);
    void takePcr(Ts::PcrTicks pcr, bool newTimeBase);

    PacketCounts m_Total;
    std::map<std::uint32_t, Pid> m_Pids;
    Ts::PcrReader m_PcrReader;
    PcrClock m_Clock;
};

/// Checks a stream of records. It stores nothing per record. Thread-bound.
class RecordCheck {
public:
    /// Takes the next complete records.
    void add(std::span<const std::uint8_t> records);
    /// Takes the size of the incomplete record at the end of the stream, 0 if there is none.
    void end(std::size_t tornBytes) { m_Faults.addTornRecord(tornBytes); }

    const FaultLog& getFaults() const { return m_Faults; }
    /// By TSIIDX.
    const std::map<std::uint32_t, RecordInput>& getInputs() const { return m_Inputs; }

private:
    FaultLog m_Faults;
    std::map<std::uint32_t, RecordInput> m_Inputs;
};

}  // namespace Vel::Zepctl
