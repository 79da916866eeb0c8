#include "records/record_continuity.h"

#include <algorithm>
#include <utility>

namespace Vel::Zepctl {

namespace {

constexpr std::uint32_t COUNTER_MASK = 0x0F;
/// The PCR in a packet that has one: a repeat carries the PCR of its own time.
constexpr std::size_t PCR_OFFSET = 6;
constexpr std::size_t PCR_SIZE = 6;

}  // namespace

std::optional<std::uint32_t> RecordContinuity::check(const RecordView& packet) {
    const bool payload = packet.hasPayload();
    const std::uint32_t counter = packet.getContinuityCounter();
    const std::uint32_t expected = (m_Counter + (payload ? 1U : 0U)) & COUNTER_MASK;
    const bool repeat = m_Started && m_MayRepeat && payload && counter == m_Counter && isRepeat(packet);
    const bool right = !m_Started || repeat || counter == expected || packet.hasDiscontinuityIndicator();
    m_Started = true;
    m_Counter = counter;
    m_MayRepeat = payload && !repeat;
    if (m_MayRepeat) {
        std::copy_n(packet.getDataPtr(), m_Last.size(), m_Last.begin());
    }
    return right ? std::nullopt : std::optional(expected);
}

bool RecordContinuity::isRepeat(const RecordView& packet) const {
    const std::uint8_t* b = packet.getDataPtr();
    if (!packet.hasPcr()) {
        return std::equal(m_Last.begin(), m_Last.end(), b);
    }
    const auto behindPcr = m_Last.begin() + PCR_OFFSET + PCR_SIZE;
    return std::equal(m_Last.begin(), m_Last.begin() + PCR_OFFSET, b) &&
           std::equal(behindPcr, m_Last.end(), b + PCR_OFFSET + PCR_SIZE);
}

}  // namespace Vel::Zepctl
