#include "vel/ts_basics/tspacket.h"

#include <algorithm>

#include "packet_layout.h"
#include "vel/ts_basics/pcr.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Ts {

namespace {

/// Where the payload starts, counted from the first byte of the packet `b`; at most 188.
std::uint32_t payloadOffset(const std::uint8_t* b) {
    if ((b[3] & PAYLOAD) == 0) {
        return TS_PACKET_SIZE;
    }
    if ((b[3] & ADAPTATION_FIELD) == 0) {
        return HEADER_SIZE;
    }
    return std::min<std::uint32_t>(HEADER_SIZE + 1 + b[4], TS_PACKET_SIZE);
}

}  // namespace

bool TSPacket::hasSyncByte() const {
    return getDataPtr()[0] == SYNC_BYTE;
}

std::uint32_t TSPacket::getPid() const {
    return pidOf(getDataPtr());
}

void TSPacket::setPid(std::uint32_t pid) {
    std::uint8_t* b = getDataPtr();
    b[1] = static_cast<std::uint8_t>((b[1] & ~PID_HIGH_BITS) | ((pid >> 8) & PID_HIGH_BITS));
    b[2] = static_cast<std::uint8_t>(pid & 0xFF);
}

std::uint32_t TSPacket::getContinuityCounter() const {
    return getDataPtr()[3] & CONTINUITY_COUNTER;
}

void TSPacket::setContinuityCounter(std::uint32_t counter) {
    std::uint8_t* b = getDataPtr();
    b[3] = static_cast<std::uint8_t>((b[3] & ~CONTINUITY_COUNTER) | (counter & CONTINUITY_COUNTER));
}

bool TSPacket::hasPayload() const {
    return (getDataPtr()[3] & PAYLOAD) != 0;
}

ScramblingControl TSPacket::getScramblingControl() const {
    return static_cast<ScramblingControl>(getDataPtr()[3] >> 6);
}

bool TSPacket::isScrambled() const {
    return getScramblingControl() != ScramblingControl::NotScrambled;
}

bool TSPacket::hasPcr() const {
    const std::uint8_t* b = getDataPtr();
    return (b[3] & ADAPTATION_FIELD) != 0 && b[4] != 0 && (b[5] & PCR_FLAG) != 0;
}

bool TSPacket::hasDiscontinuityIndicator() const {
    const std::uint8_t* b = getDataPtr();
    return (b[3] & ADAPTATION_FIELD) != 0 && b[4] != 0 && b[4] <= MAX_ADAPTATION_FIELD_LENGTH &&
           (b[5] & DISCONTINUITY_INDICATOR) != 0;
}

bool TSPacket::isPayloadUnitStart() const {
    return (getDataPtr()[1] & PAYLOAD_UNIT_START) != 0;
}

std::uint64_t TSPacket::getPcr() const {
    if (!hasPcr()) {
        throw TsPacketError("Packet contains no PCR stamp");
    }
    const std::uint8_t* b = getDataPtr();
    const std::uint64_t base = (std::uint64_t{b[6]} << 25) | (std::uint64_t{b[7]} << 17) |
                               (std::uint64_t{b[8]} << 9) | (std::uint64_t{b[9]} << 1) | (b[10] >> 7);
    const std::uint64_t extension = (b[10] & 0x01U) * 256U + b[11];
    return base * PCR_TICKS_PER_BASE + extension;
}

const std::uint8_t* TSPacket::getPayloadPtr() const {
    const std::uint8_t* b = getDataPtr();
    return b + payloadOffset(b);
}

std::uint8_t* TSPacket::getPayloadPtr() {
    std::uint8_t* b = getDataPtr();
    return b + payloadOffset(b);
}

bool TSPacket::hasTransportError() const {
    return (getDataPtr()[1] >> 7) != 0;
}

}  // namespace Vel::Ts
