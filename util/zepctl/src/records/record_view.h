#pragma once

#include <cstdint>
#include <span>

#include "vel/ts_basics/ts_error.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

/// A packet in a block, for reading. Reentrant; the block must outlive it.
class PacketView : public Ts::TSPacket {
public:
    /// @param packet first of Ts::TS_PACKET_SIZE bytes
    explicit PacketView(const std::uint8_t* packet) : m_Packet(packet) {}

    const std::uint8_t* getDataPtr() const override { return m_Packet; }
    /// @throws TsPacketError always: packets are not changed
    std::uint8_t* getDataPtr() override {
        throw Ts::TsPacketError("Cannot get data pointer. Packet is read-only.");
    }

private:
    const std::uint8_t* m_Packet;
};

/// One record in a block: the TSIIDX of its header, and its packet for reading. Reentrant, as PacketView.
class RecordView final : public PacketView {
public:
    /// @param record first of Ts::RECORD_SIZE bytes
    explicit RecordView(const std::uint8_t* record) : PacketView(record + Ts::RECORD_HEADER_SIZE) {}

    /// The value in the record, so it may be above 255.
    std::uint32_t getTsiidx() const { return Ts::readRecordHeader(getDataPtr() - Ts::RECORD_HEADER_SIZE); }
};

/// Whether the first two packets have sync bytes, as far as they are there.
inline bool hasSyncBytes(std::span<const std::uint8_t> packets) {
    return packets[0] == Ts::SYNC_BYTE &&
           (packets.size() <= Ts::TS_PACKET_SIZE || packets[Ts::TS_PACKET_SIZE] == Ts::SYNC_BYTE);
}

}  // namespace Vel::Zepctl
