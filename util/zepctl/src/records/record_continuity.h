#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "records/record_view.h"

namespace Vel::Zepctl {

/// Follows the continuity counter of one PID (ISO/IEC 13818-1, 2.4.3.3): it steps by one with each packet
/// that has a payload and stands still without; a packet with payload may be sent twice in a row; with the
/// discontinuity indicator any value is right. Reentrant.
class RecordContinuity {
public:
    /// Takes the next packet of the PID.
    /// @return the counter (0..15) that it should have had, where it has a wrong one
    std::optional<std::uint32_t> check(const RecordView& packet);
    /// Takes whatever counter comes next.
    void restart() { m_Started = false; }

private:
    bool isRepeat(const RecordView& packet) const;

    std::array<std::uint8_t, Ts::TS_PACKET_SIZE> m_Last{};  // latest packet with payload
    std::uint32_t m_Counter = 0;
    bool m_Started = false;
    bool m_MayRepeat = false;  // the packet before had a payload and was no repeat itself
};

}  // namespace Vel::Zepctl
