#include "vel/ts_basics/ll_tspackets.h"

#include <utility>

#include "vel/cpp_utils/assertion.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Ts {

LowlevInTSPacket::LowlevInTSPacket(std::uint32_t totalSize) : m_TotalSize(totalSize) {
    allocate();
}

LowlevInTSPacket::LowlevInTSPacket(LowlevInTSPacket&& moveSrc) noexcept {
    VEL_ASSERT(!moveSrc.isDead());
    m_Buffer = std::move(moveSrc.m_Buffer);
    m_Offset = std::exchange(moveSrc.m_Offset, 0);
    m_TotalSize = moveSrc.m_TotalSize;
}

void LowlevInTSPacket::reset() {
    if (m_TotalSize == 0) {
        throw TsPacketError("Cannot reset a default created packet.");
    }
    allocate();
}

void LowlevInTSPacket::allocate() {
    m_Buffer = std::make_unique_for_overwrite<std::uint8_t[]>(m_TotalSize);
    if (m_TotalSize < TS_PACKET_SIZE) {
        m_Buffer.reset();
        throw TsPacketError(
            "Cannot reset data container of the packet. template parameter TOTAL_PACKET_SIZE is "
            "less than 188 bytes.");
    }
    m_Offset = m_TotalSize - TS_PACKET_SIZE;
}

const std::uint8_t* LowlevInTSPacket::getDataPtr() const {
    if (isDead()) {
        throw TsPacketError("Cannot get const data pointer. Object is dead.");
    }
    return m_Buffer.get() + m_Offset;
}

std::uint8_t* LowlevInTSPacket::getDataPtr() {
    if (isDead()) {
        throw TsPacketError("Cannot get data pointer. Object is dead.");
    }
    return m_Buffer.get() + m_Offset;
}

std::uint8_t* LowlevInTSPacket::getWriteDataPtr() {
    if (isDead()) {
        throw TsPacketError("Cannot get write data pointer. Object is dead.");
    }
    return m_Buffer.get();
}

}  // namespace Vel::Ts
