#pragma once

#include <cstdint>

#include "vel/ts_basics/ts_error.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

/// One record in a block of records: the TSIIDX of its header, and its packet for reading. Reentrant; the
/// block must outlive it.
class RecordView final : public Ts::TSPacket {
public:
    /// @param record first of Ts::RECORD_SIZE bytes
    explicit RecordView(const std::uint8_t* record) : m_Record(record) {}

    /// The value in the record, so it may be above 255.
    std::uint32_t getTsiidx() const { return Ts::readRecordHeader(m_Record); }

    const std::uint8_t* getDataPtr() const override { return m_Record + Ts::RECORD_HEADER_SIZE; }
    /// @throws TsPacketError always: records are not changed
    std::uint8_t* getDataPtr() override {
        throw Ts::TsPacketError("Cannot get data pointer. Packet is read-only.");
    }

private:
    const std::uint8_t* m_Record;
};

}  // namespace Vel::Zepctl
