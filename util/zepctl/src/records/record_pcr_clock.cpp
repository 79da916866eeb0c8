#include "records/record_pcr_clock.h"

#include "vel/ts_basics/tspacket.h"

namespace Vel::Zepctl {

namespace {

constexpr double TICKS_PER_SECOND = 27e6;

}  // namespace

bool PcrClock::add(std::uint64_t pcr, bool newTimeBase) {
    pcr %= Ts::PCR_WRAP;  // an extension above 299 can lift a PCR past the wrap
    const std::uint64_t last = m_Last.value_or(pcr);
    const std::uint64_t step = (pcr + Ts::PCR_WRAP - last) % Ts::PCR_WRAP;
    const bool continues = m_Last && !newTimeBase && step <= MAX_STEP;
    m_Last = pcr;
    if (continues) {
        m_Elapsed += step;
    } else {
        ++m_TimeBases;
    }
    return continues;
}

double PcrClock::getElapsed() const {
    return static_cast<double>(m_Elapsed) / TICKS_PER_SECOND;
}

}  // namespace Vel::Zepctl
