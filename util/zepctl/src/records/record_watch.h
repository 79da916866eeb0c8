#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "records/record_check.h"

namespace Vel::Zepctl {

/// A moment on a clock that never jumps; time comes in from outside.
using ArrivalTime = std::chrono::steady_clock::time_point;

/// The rate at which the packets of one input arrive, in bit/s. They come in bursts (a paced stream sends 100
/// at a time), so a rate is taken from the start of one burst to that of another, and the latest burst does
/// not count until it is over. Reentrant.
class ArrivalRate {
public:
    /// @param packets that arrived at that time
    void add(ArrivalTime at, std::uint64_t packets);
    /// Over the latest two seconds, or between the latest two bursts if they are further apart; 0 once
    /// nothing has arrived for as long, none before there are two bursts.
    std::optional<double> getLatest(ArrivalTime now) const;
    /// From the first burst to the latest; none before there are two.
    std::optional<double> getOverall() const;

private:
    struct Burst {
        ArrivalTime start;
        std::uint64_t packetsBefore = 0;
    };

    static double rateBetween(const Burst& from, const Burst& to);

    std::uint64_t m_Packets = 0;
    std::optional<Burst> m_First;
    std::deque<Burst> m_Latest;  // those of the latest two seconds and the one before them
};

/// How far arrival has moved away from the PCR since the first two seconds of a time base.
struct Drift {
    double milliseconds = 0;  // positive: later than the PCR says
    double ppm = 0;           // of the time by the PCR
};

/// Compares the times at which PCRs arrive with the times that they hold. Within a burst, the PCRs run ahead
/// of their arrival, and a busy machine takes some of them late. So each window of two seconds is represented
/// by its earliest PCR, the end of a burst. Reentrant.
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

/// What arrives, by input: counts, rates and drift. Reads no clock. Thread-bound.
class RecordWatch {
public:
    /// Takes the next records, whole ones.
    /// @param arrival none for records that were there before: they count, but say nothing about rates
    void add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival);
    /// Takes the number of bytes that remain of a record at the end of the stream.
    void end(std::size_t tornBytes) { m_Check.end(tornBytes); }

    const FaultLog& getFaults() const { return m_Check.getFaults(); }
    /// Names the columns of formatRows().
    static constexpr const char* HEADER =
        "SECONDS  TSIIDX     KBIT/S   OVER ALL     PACKETS  CONTINUITY  DRIFT MS      PPM";
    /// One line for each input, or one that says that there is none.
    /// @param seconds since the watch began
    std::vector<std::string> formatRows(double seconds, ArrivalTime now) const;

private:
    struct Arrival {
        std::uint64_t packets = 0;
        ArrivalRate rate;
        ArrivalDrift drift;
    };

    RecordCheck m_Check;
    std::map<std::uint32_t, Arrival> m_Arrivals;  // by TSIIDX, as the inputs of the check
};

/// Watches what arrives in a FIFO, on standard input, from a device or in a growing file, until the time is
/// over, SIGINT, SIGTERM or SIGHUP comes, or the last writer of a FIFO or pipe has left. On a terminal, it
/// redraws one table in place; elsewhere it prints one line per input and second. At the end it prints a
/// summary. Main thread.
/// @param path "-" for standard input; a FIFO may still be without a writer
/// @param seconds that the watch lasts; none for no limit
/// @throws CommandError when the stream cannot be read or standard output not be written
void watchRecords(const std::string& path, std::optional<double> seconds);

}  // namespace Vel::Zepctl
