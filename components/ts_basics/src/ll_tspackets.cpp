#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Ts {

LowlevInTSPacket::LowlevInTSPacket(std::uint32_t totalSize) : m_TotalSize(totalSize) {
    allocate();
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

}  // namespace Vel::Ts
