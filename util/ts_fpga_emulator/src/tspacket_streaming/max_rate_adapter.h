#pragma once

#include "tspacket_streaming/irate_adapter.h"

namespace Vel::Utils {

/// Releases every packet at once.
class MaxRateAdapter final : public IRateAdapter {
public:
    std::int32_t bufferPacket(const Ts::TSPacket& /*packet*/, bool /*last*/) override { return 1; }
    std::uint32_t getMaxBufferedPackets() const override { return 1; }
    void delayPacket() override {}
};

}  // namespace Vel::Utils
