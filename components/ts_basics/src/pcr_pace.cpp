#include "vel/ts_basics/pcr_pace.h"

#include <algorithm>
#include <span>

namespace Vel::Ts {

PcrPace RecentIntervals::paceOf(std::size_t count) const {
    PcrPace mean{.packets = 0};
    FineTime longest{0};
    for (const PcrPace& interval :
         std::span(m_Intervals)
             .first(static_cast<std::size_t>(std::min<std::uint64_t>(m_Count, MEAN_INTERVALS)))) {
        mean = {mean.time + interval.time, mean.packets + interval.packets};
        longest = std::max(longest, interval.time);
    }
    return mean.of(count) > longest ? PcrPace{longest, static_cast<std::int64_t>(count)} : mean;
}

}  // namespace Vel::Ts
