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

/// Time of a clock that never jumps. The classes below read no clock; the caller passes the time.
using ArrivalTime = std::chrono::steady_clock::time_point;

/// The rate at which the packets of one input arrive, in bit/s. They arrive in bursts (with -m, zeptfem sends
/// 100 at a time), so a rate is measured from the start of one burst to that of another, and the latest burst
/// does not count until it is over. Reentrant.
class ArrivalRate {
public:
    /// @param packets number of packets that arrived at that time
    void add(ArrivalTime at, std::uint64_t packets);
    /// Over the last two seconds, or between the last two bursts if they are further apart; 0 once nothing
    /// has arrived for as long, none before the second burst.
    std::optional<double> getLatest(ArrivalTime now) const;
    /// From the first burst to the last; none before the second.
    std::optional<double> getOverall() const;

private:
    struct Burst {
        ArrivalTime start;
        std::uint64_t packetsBefore = 0;
    };

    static double rateBetween(const Burst& from, const Burst& to);

    std::uint64_t m_Packets = 0;
    std::optional<Burst> m_First;
    std::deque<Burst> m_Latest;  // those of the last two seconds and the one before them
};

using Milliseconds = std::chrono::duration<double, std::milli>;

/// How far arrival has moved away from the PCR since the first two seconds of a time base.
struct Drift {
    Milliseconds lateness{};  // positive: later than the PCR indicates
    double ppm = 0;           // of PCR time
};

/// Compares the times at which PCRs arrive with the times that they hold. Within a burst, the PCRs are ahead
/// of their arrival, and a busy machine reads some of them late. So each window of two seconds is represented
/// by its earliest PCR, which is at the end of a burst. Reentrant.
class ArrivalDrift {
public:
    /// Takes the clock after a record that arrived at that time. Returns the lateness of a new PCR, relative
    /// to the earliest one of the first window, once that is complete.
    std::optional<Milliseconds> add(ArrivalTime at, const ClockTime& clock);
    /// None until two windows of two seconds are complete.
    std::optional<Drift> get() const;

private:
    struct Sample {
        Seconds pcr{};
        Seconds lateness{};  // arrival - PCR, from an origin that does not matter
    };

    std::uint64_t m_TimeBase = 0;
    Seconds m_LastPcr{-1};
    std::optional<ArrivalTime> m_WindowStart;
    Sample m_Earliest;  // of the window in progress
    std::optional<Sample> m_First;
    std::optional<Sample> m_Latest;
};

/// What arrives, per input: counts, rates and drift. Thread-bound.
class RecordWatch {
public:
    /// @param isSaved whether takeCsvRows() will be called; if not, no lateness is kept
    explicit RecordWatch(bool isSaved) : m_IsSaved(isSaved) {}

    /// Takes the next complete records.
    /// @param arrival none for records that a file already held: they are counted, but not timed
    void add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival);
    /// Takes the size of the incomplete record at the end of the stream, 0 if there is none.
    void end(std::size_t tornBytes) { m_Check.end(tornBytes); }

    const RecordCheck& getCheck() const { return m_Check; }
    /// Names the columns of formatRows().
    static constexpr const char* HEADER =
        "SECONDS  TSIIDX     KBIT/S    OVERALL     PACKETS  CONTINUITY  DRIFT MS      PPM";
    /// One line for each input, or one that says that there are no records.
    /// @param watched time since the watch began
    /// @param isJson each line is an object; without records, there is none
    std::vector<std::string> formatRows(Seconds watched, ArrivalTime now, bool isJson) const;
    /// Names the columns of takeCsvRows().
    static constexpr const char* CSV_HEADER =
        "seconds,tsiidx,arrival_bit_rate,lateness_min_ms,lateness_median_ms,lateness_max_ms,faults\n";
    /// One line for each input: the rate as in formatRows(), and the lateness of PCRs and the faults since
    /// the previous call. What is not known is empty.
    std::string takeCsvRows(Seconds watched, ArrivalTime now);

private:
    struct Arrival {
        std::uint64_t packets = 0;
        ArrivalRate rate;
        ArrivalDrift drift;
        std::vector<double> lateness;  // in ms, since the previous takeCsvRows()
        std::uint64_t faults = 0;      // until then
    };

    bool m_IsSaved;
    RecordCheck m_Check;
    std::map<std::uint32_t, Arrival> m_Arrivals;  // by TSIIDX, like the inputs of the check
};

/// Watches what arrives in a FIFO, on standard input, from a device or in a growing file, until the time
/// limit, SIGINT, SIGTERM or SIGHUP, or until the last writer closes the FIFO or pipe. On a terminal, it
/// redraws one table in place; elsewhere, and in JSON, it prints one line per input every second. Finally it
/// prints a summary. Handles those signals for the rest of the program. Main thread.
/// @param path "-" for standard input; a FIFO does not need a writer yet
/// @param seconds time limit, none for no limit
/// @param savePath where the rows of each second are saved as CSV; empty for nowhere
/// @throws CommandError when reading, printing or saving fails, and finally if there were faults
void watchRecords(const std::string& path, std::optional<double> seconds, bool isJson,
                  const std::string& savePath);

}  // namespace Vel::Zepctl
