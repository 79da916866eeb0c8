#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

/// Decides when the packets of one input stream are sent. The stream appends each packet that it reads to its
/// queue, hands it in here, and acts on the answer. Used by the thread of that stream alone.
class IRateAdapter {
public:
    /// Returned by bufferPacket(): drop the oldest queued packet unwritten.
    static constexpr std::int32_t DISCARD_OLDEST = -1;

    virtual ~IRateAdapter() = default;
    /// @param packet the one just appended; not kept beyond the call
    /// @param last whether it is the final one of the input
    /// @return n >= 1: release the n oldest packets now; 0: keep them all; DISCARD_OLDEST
    virtual std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) = 0;
    /// The largest number of packets that are held back.
    virtual std::uint32_t getMaxBufferedPackets() const = 0;
    /// Called immediately before each packet is sent; may block to pace the output.
    virtual void delayPacket() = 0;
};

}  // namespace Vel::Utils
