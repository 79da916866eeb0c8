#pragma once

#include <cstdint>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

class PCRRateAdapter;

namespace Internal {

/// What a PCRRateAdapter does with a packet. The states hold no data. Their order is LockPCR, FillBuffer,
/// PlayOutBuffer, EmptyBuffer; none comes back, and the last packet leads to EmptyBuffer from each of them.
class PCRRateAdapterState {
public:
    virtual ~PCRRateAdapterState() = default;
    /// Answers as IRateAdapter::bufferPacket() does. May replace the adapter's state and so destroy this
    /// object.
    virtual std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) = 0;
    virtual void packetDelay(PCRRateAdapter& adapter) = 0;
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

/// Releases a packet for each one that comes in, once a packet delay has passed, and half of a full buffer.
class PCRRateAdapterState_PlayOutBuffer final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
    void packetDelay(PCRRateAdapter& adapter) override;
};

/// The last packet has come: the rest is released.
class PCRRateAdapterState_EmptyBuffer final : public PCRRateAdapterState {
public:
    std::int32_t bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet, bool last) override;
    void packetDelay(PCRRateAdapter& adapter) override;
};

}  // namespace Internal
}  // namespace Vel::Utils
