#pragma once

#include "vel/ts_basics/ts_error.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

/// Rates count the 188 bytes of a packet, not the record's header.
inline constexpr double BITS_PER_PACKET = Ts::TS_PACKET_SIZE * 8.0;

/// One record where it lies in a block: the TSIIDX of its header, and its packet for reading. Reentrant; the
/// block must outlive it.
class RecordView final : public Ts::TSPacket {
public:
    /// @param record first of Ts::RECORD_SIZE bytes
    explicit RecordView(const std::uint8_t* record) : m_Record(record) {}

    /// Nothing keeps it within 0..255.
    std::uint32_t getTsiidx() const { return Ts::readRecordHeader(m_Record); }

    const std::uint8_t* getDataPtr() const override { return m_Record + Ts::RECORD_HEADER_SIZE; }
    /// @throws TsPacketError always: records are only looked at
    std::uint8_t* getDataPtr() override {
        throw Ts::TsPacketError("Cannot get data pointer. Packet is read-only.", __FILE__, __LINE__);
    }

    /// discontinuity_indicator (ISO/IEC 13818-1, 2.4.3.5): counter or time base restart here
    /// on purpose. An adaptation field that does not fit into the packet has none.
    bool hasDiscontinuityIndicator() const {
        constexpr std::uint8_t ADAPTATION_FIELD = 0x20;
        constexpr std::uint8_t DISCONTINUITY_INDICATOR = 0x80;
        constexpr std::uint8_t MAX_ADAPTATION_FIELD_LENGTH = 183;
        const std::uint8_t* b = getDataPtr();
        return (b[3] & ADAPTATION_FIELD) != 0 && b[4] != 0 && b[4] <= MAX_ADAPTATION_FIELD_LENGTH &&
               (b[5] & DISCONTINUITY_INDICATOR) != 0;
    }

private:
    const std::uint8_t* m_Record;
};

}  // namespace Vel::Zepctl
