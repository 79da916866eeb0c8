#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "records/record_check.h"

namespace Vel::Zepctl {

/// A moment on a clock that never jumps; time comes in from outside.
using ArrivalTime = std::chrono::steady_clock::time_point;

/// The rate at which the packets of one input arrive. They come in bursts (a paced stream lets 100 go at a
/// time), so a rate is taken from the start of one burst to that of another, and the latest burst counts for
/// nothing until it is over. Reentrant.
class ArrivalRate {
public:
    /// @param packets that arrived at that time
    void add(ArrivalTime at, std::uint64_t packets);
    /// Over the latest two seconds, or from the burst before to the latest where they are rarer, in packets a
    /// second; 0 when they have stopped, none before there are two.
    std::optional<double> getLatest(ArrivalTime now) const;
    /// From the first burst to the latest, in packets a second; none before there are two.
    std::optional<double> getOverall() const;

private:
    struct Burst {
        ArrivalTime start;
        std::uint64_t packetsBefore = 0;
    };

    static double rateBetween(const Burst& from, const Burst& to);

    std::uint64_t m_Packets = 0;
    std::optional<Burst> m_First;
    std::deque<Burst>
        m_Latest;  // those of the latest two seconds and the one before them, but no fewer than two
};

/// How far arrival runs from the PCR since the first two seconds of a time base.
struct Drift {
    double milliseconds = 0;  // positive: later than the PCR says
    double ppm = 0;           // of the time by the PCR
};

/// Compares the time at which PCRs arrive with the time that they tell. Within a burst, the PCRs run ahead of
/// their arrival, and a busy machine takes some of them late; the earliest PCR of each window of two seconds,
/// that is the
/// end of a burst, is the one to compare with those of other windows. Reentrant.
class ArrivalDrift {
public:
    /// Takes the clock as the records that arrived at that time left it. Anything but a new PCR is ignored.
    void add(ArrivalTime at, const PcrClock& clock);
    /// None until two windows of two seconds are complete.
    std::optional<Drift> get() const;

private:
    /// In seconds.
    struct Sample {
        double pcr = 0;
        double lateness = 0;  // arrival - PCR, from an origin that does not matter
    };

    std::uint64_t m_TimeBase = 0;
    double m_LastPcr = -1;
    std::optional<ArrivalTime> m_WindowStart;
    Sample m_Earliest;  // of the window in progress
    std::optional<Sample> m_First;
    std::optional<Sample> m_Latest;
};

/// What is shown of one input.
struct WatchedInput {
    std::uint32_t tsiidx = 0;
    std::uint64_t packets = 0;
    std::uint64_t continuityErrors = 0;
    std::optional<double> bitRateNow;      // bit/s, of the 188 bytes of a packet
    std::optional<double> bitRateOverall;  // bit/s
    std::optional<Drift> drift;
};

/// What arrives, by input: counts, rates and drift. Thread-bound; no clock is read.
class RecordWatchModel {
public:
    /// Takes the next records, whole ones.
    /// @param arrival none for records that were there before: they count, but say nothing about rates
    void add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival);
    /// Tells what is left of a record at the end of the stream, in bytes.
    void end(std::size_t tornBytes) { m_Check.end(tornBytes); }

    /// Ascending by TSIIDX.
    std::vector<WatchedInput> getInputs(ArrivalTime now) const;
    std::uint64_t getRecords() const { return m_Check.getRecords(); }
    const FaultLog& getFaults() const { return m_Check.getFaults(); }

private:
    struct Arrival {
        std::uint64_t packets = 0;
        ArrivalRate rate;
        ArrivalDrift drift;
    };

    RecordCheck m_Check;
    std::array<Arrival, Ts::TSIIDX_COUNT> m_Arrivals;
};

}  // namespace Vel::Zepctl
