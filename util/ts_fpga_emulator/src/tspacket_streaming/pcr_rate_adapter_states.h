#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

class PCRRateAdapter;

namespace Internal {

/// What a PCRRateAdapter does with a packet. The states hold no data. They follow each other in the order
/// LockPCR, FillBuffer, PlayOutBuffer, EmptyBuffer; the last packet leads to EmptyBuffer from any of them.
class PCRRateAdapterState {
public:
    virtual ~PCRRateAdapterState() = default;
    /// Answers as IRateAdapter::bufferPacket() does. May replace the adapter's state and so destroy this
    /// object.
    virtual std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) = 0;
    /// Paces a release, once the packet delay is known.
    virtual void packetDelay(PCRRateAdapter& adapter);
};

/// Holds every packet until two PCRs are known, or until the buffer is full.
class PCRRateAdapterState_LockPCR final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
    void packetDelay(PCRRateAdapter& adapter) override;
};

/// Holds every packet until the buffer is full.
class PCRRateAdapterState_FillBuffer final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
    void packetDelay(PCRRateAdapter& adapter) override;
};

/// Releases a packet for each one that is handed in, if a packet delay has passed, and half of a full buffer.
class PCRRateAdapterState_PlayOutBuffer final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
};

/// The last packet has been handed in: the rest is released.
class PCRRateAdapterState_EmptyBuffer final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
};

}  // namespace Internal
}  // namespace Vel::Utils
