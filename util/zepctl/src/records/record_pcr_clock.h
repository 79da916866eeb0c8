#pragma once

#include <cstdint>
#include <optional>

namespace Vel::Zepctl {

/// The time that the PCRs of one PID tell: the sum of the steps from each to the next, across their wrap. A
/// step that is none, since a new time base begins, is left out. Reentrant.
class PcrClock {
public:
    /// Longest step within one time base, in 27 MHz ticks: ten times the interval that ISO/IEC
    /// 13818-1, 2.7.2, allows. A step back looks like one of many hours, so it is above this as well.
    static constexpr std::uint64_t MAX_STEP = 27'000'000;

    /// Takes the next PCR, in 27 MHz ticks.
    /// @param newTimeBase whether the stream says that a time base begins with this PCR
    /// @return whether it continues the time base of the one before
    bool add(std::uint64_t pcr, bool newTimeBase);

    /// Sum of all steps in seconds.
    double getElapsed() const;
    /// How many time bases there were; 0 before the first PCR.
    std::uint64_t getTimeBases() const { return m_TimeBases; }

private:
    std::optional<std::uint64_t> m_Last;  // 27 MHz ticks
    std::uint64_t m_Elapsed = 0;          // 27 MHz ticks: 64 bits last for 21,000 years
    std::uint64_t m_TimeBases = 0;
};

}  // namespace Vel::Zepctl
