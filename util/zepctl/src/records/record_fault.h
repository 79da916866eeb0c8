#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "vel/ts_basics/ts_error.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

/// One record in a block of them: the TSIIDX of its header, and its packet for reading. Reentrant; the block
/// must outlive it.
class RecordView final : public Ts::TSPacket {
public:
    /// @param record first of Ts::RECORD_SIZE bytes
    explicit RecordView(const std::uint8_t* record) : m_Record(record) {}

    /// As it stands in the record, so it may be above 255.
    std::uint32_t getTsiidx() const { return Ts::readRecordHeader(m_Record); }

    const std::uint8_t* getDataPtr() const override { return m_Record + Ts::RECORD_HEADER_SIZE; }
    /// @throws TsPacketError always: records are not changed
    std::uint8_t* getDataPtr() override {
        throw Ts::TsPacketError("Cannot get data pointer. Packet is read-only.");
    }

private:
    const std::uint8_t* m_Record;
};

/// What makes a stream of records faulty. The last three are faults of the records, whatever their packets
/// hold.
enum class FaultKind { Continuity, TransportError, BadSync, UnknownTsiidx, TornRecord };
inline constexpr std::size_t FAULT_KINDS = 5;

/// Where a fault is, and what was found there.
struct Fault {
    FaultKind kind{};
    std::uint64_t record = 0;    // index, the first record is 0
    std::uint32_t tsiidx = 0;    // has no meaning in a torn record
    std::uint32_t pid = 0;       // of Continuity and TransportError
    std::uint32_t expected = 0;  // continuity counter, sync byte, highest TSIIDX, bytes of a record
    std::uint32_t found = 0;     // in the same unit

    /// Offset of the record in the stream.
    std::uint64_t getByteOffset() const { return record * Ts::RECORD_SIZE; }
    /// "record 7 (byte 1344): TSIIDX 3, PID 0x0100: continuity counter 9, expected 8"
    std::string toString() const;
};

/// Counts the records of a stream and their faults, and keeps the first fault of each kind. Reentrant.
class FaultLog {
public:
    struct Entry {
        std::uint64_t count = 0;
        Fault first;  // valid if count is not 0
    };

    /// Counts the next record. Returns false, and adds the fault, if it cannot be attributed to an input.
    bool addRecord(const RecordView& record);
    /// Adds a fault of the latest record.
    void add(FaultKind kind, const RecordView& record, std::uint32_t expected, std::uint32_t found);
    /// Adds the bytes that remain of a record at the end of the stream; 0 bytes are no fault.
    void addTornRecord(std::size_t bytes);

    /// Whole records, faulty ones included.
    std::uint64_t getRecords() const { return m_Records; }
    bool isEmpty() const;
    const Entry& get(FaultKind kind) const { return m_Entries[static_cast<std::size_t>(kind)]; }
    /// One line for each kind that occurred, with its count and its first place, as in
    /// "2 continuity errors; the first at record 7 (byte 1344): TSIIDX 3, ..."
    std::string toLines() const;

private:
    void add(const Fault& fault);

    std::uint64_t m_Records = 0;
    std::array<Entry, FAULT_KINDS> m_Entries{};
};

/// "0 records", "1 record", "2 records"
std::string formatCount(std::uint64_t count, const std::string& noun);

}  // namespace Vel::Zepctl
