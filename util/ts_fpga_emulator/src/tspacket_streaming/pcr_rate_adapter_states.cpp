#include "tspacket_streaming/pcr_rate_adapter_states.h"

#include <memory>

#include "tspacket_streaming/pcr_rate_adapter.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils::Internal {

namespace {

void recordPcr(PCRRateAdapter& adapter, const Ts::TSPacket& packet) {
    if (const auto pcr = adapter.extractPcr(packet)) {
        adapter.addPcr(*pcr, adapter.getPacketCount());
    }
}

bool isFull(const PCRRateAdapter& adapter) {
    return adapter.getBufferedPackets() >= PCRRateAdapter::MAX_BUFFERED_PACKETS;
}

std::int32_t releaseEverything(PCRRateAdapter& adapter) {
    adapter.setState(std::make_unique<PCRRateAdapterState_EmptyBuffer>());
    return static_cast<std::int32_t>(adapter.getBufferedPackets() + 1);
}

std::int32_t startPlayOut(PCRRateAdapter& adapter) {
    adapter.setState(std::make_unique<PCRRateAdapterState_PlayOutBuffer>());
    return static_cast<std::int32_t>(adapter.getBufferedPackets() - PCRRateAdapter::PLAY_OUT_PACKETS);
}

}  // namespace

void PCRRateAdapterState::packetDelay(PCRRateAdapter& adapter) {
    VEL_ASSERT(!adapter.isBufferEmpty());
    if (adapter.isPacketDelayKnown()) {
        adapter.sleepPacketDelay();
    }
}

std::int32_t PCRRateAdapterState_LockPCR::bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet,
                                                       bool last) {
    recordPcr(adapter, packet);
    if (last) {
        return releaseEverything(adapter);
    }
    if (adapter.isPacketDelayKnown()) {
        adapter.setState(std::make_unique<PCRRateAdapterState_FillBuffer>());
    } else if (isFull(adapter)) {
        return startPlayOut(adapter);
    }
    return 0;
}

void PCRRateAdapterState_LockPCR::packetDelay(PCRRateAdapter& /*adapter*/) {
    throw CppUtil::NotImplementedError("Cannot do packet delay in PCRRateAdapterState_LockPCR");
}

std::int32_t PCRRateAdapterState_FillBuffer::bufferPacket(PCRRateAdapter& adapter, const Ts::TSPacket& packet,
                                                          bool last) {
    recordPcr(adapter, packet);
    if (last) {
        return releaseEverything(adapter);
    }
    return isFull(adapter) ? startPlayOut(adapter) : 0;
}

void PCRRateAdapterState_FillBuffer::packetDelay(PCRRateAdapter& /*adapter*/) {
    throw CppUtil::NotImplementedError("Cannot do packet delay in PCRRateAdapterState_FillBuffer");
}

std::int32_t PCRRateAdapterState_PlayOutBuffer::bufferPacket(PCRRateAdapter& adapter,
                                                             const Ts::TSPacket& packet, bool last) {
    recordPcr(adapter, packet);
    if (last) {
        return releaseEverything(adapter);
    }
    if (isFull(adapter)) {
        return static_cast<std::int32_t>(PCRRateAdapter::PLAY_OUT_PACKETS);
    }
    return adapter.isPacketDelayElapsed() ? 1 : 0;
}

std::int32_t PCRRateAdapterState_EmptyBuffer::bufferPacket(PCRRateAdapter& /*adapter*/,
                                                           const Ts::TSPacket& /*packet*/, bool /*last*/) {
    throw CppUtil::NotImplementedError("Cannot buffer packets in PCRRateAdapterState_EmptyBuffer");
}

}  // namespace Vel::Utils::Internal
