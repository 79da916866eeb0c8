#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "records/record_view.h"

namespace Vel::Zepctl {

/// What makes a stream of records faulty. The last three are faults of the records, whatever their packets
/// hold.
enum class FaultKind { Continuity, TransportError, BadSync, UnknownTsiidx, TornRecord };
inline constexpr std::array FAULT_KINDS = {FaultKind::Continuity, FaultKind::TransportError,
                                           FaultKind::BadSync, FaultKind::UnknownTsiidx,
                                           FaultKind::TornRecord};

/// Where a fault is, and what was found there.
struct Fault {
    FaultKind kind{};
    std::uint64_t record = 0;    // index, the first record is 0
    std::uint32_t tsiidx = 0;    // as it stands in the record; of no meaning in a torn one
    std::uint32_t pid = 0;       // of Continuity and TransportError
    std::uint32_t expected = 0;  // continuity counter, sync byte, highest TSIIDX, bytes of a record
    std::uint32_t found = 0;     // in the same unit

    /// Of the first byte of the record, in the stream.
    std::uint64_t getByteOffset() const { return record * Ts::RECORD_SIZE; }
    /// "record 7 (byte 1344): TSIIDX 3, PID 0x0100: continuity counter 9, expected 8"
    std::string toString() const;
};

/// The fault that keeps a record from being attributed to an input, if it has one.
std::optional<Fault> findRecordFault(const RecordView& record, std::uint64_t index);

/// Counts faults and keeps the first of each kind. Reentrant.
class FaultLog {
public:
    struct Entry {
        std::uint64_t count = 0;
        Fault first;  // valid where count is not 0
    };

    void add(const Fault& fault);
    /// What a stream that ended in the middle of a record has left over; 0 bytes are no fault.
    void addTornRecord(std::uint64_t index, std::size_t bytes);

    bool isEmpty() const;
    const Entry& get(FaultKind kind) const { return m_Entries[static_cast<std::size_t>(kind)]; }
    /// In one line, as in "1 continuity error, 2 bad sync bytes; the first at record 7 (byte 1344): ...".
    /// Empty without faults.
    std::string toString() const;
    /// A line for each kind that occurred, with its count and its first place.
    std::string toLines() const;

private:
    std::array<Entry, FAULT_KINDS.size()> m_Entries{};
};

}  // namespace Vel::Zepctl
