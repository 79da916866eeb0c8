#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "records/record_view.h"

namespace Vel::Zepctl {

/// What makes a stream of records faulty. The last three concern the record itself, not the packet in it.
enum class FaultKind {
    Continuity,
    TransportError,
    PcrJump,
    PcrGap,
    Unexpected,
    Missing,
    Extra,
    BadSync,
    UnknownTsiidx,
    TornRecord
};

/// Of each kind: its key in JSON, its name, and what was found, with {0} to {3} for the fields of a Fault
/// from its TSIIDX on.
struct FaultText {
    const char* key;
    const char* name;
    const char* found;
};
inline constexpr std::array FAULT_TEXTS = std::to_array<FaultText>({
    {"continuity_errors", "continuity error",
     "TSIIDX {0}, PID 0x{1:04x}: continuity counter {3}, expected {2}"},
    {"transport_errors", "transport error", "TSIIDX {0}, PID 0x{1:04x}: transport_error_indicator is set"},
    {"pcr_jumps", "PCR jump",
     "TSIIDX {0}, PID 0x{1:04x}: from {2} to {3} ms without a discontinuity indicator"},
    {"pcr_gaps", "PCR gap", "TSIIDX {0}, PID 0x{1:04x}: from {2} to {3} ms, more than 100 ms"},
    {"unexpected_packets", "unexpected packet",
     "TSIIDX {0}: packet {2} of the file, PID 0x{1:04x}, is missing, changed or late; found PID 0x{3:04x}"},
    {"missing_packets", "missing packet",
     "TSIIDX {0}: packet {2} of the file, PID 0x{1:04x}, is missing at the end"},
    {"extra_packets", "extra packet", "TSIIDX {0}, PID 0x{1:04x}: the file has no further packet"},
    {"bad_sync", "bad sync byte", "TSIIDX {0}: sync byte 0x{3:02x}, expected 0x{2:02x}"},
    {"unknown_tsiidx", "unknown TSIIDX value", "TSIIDX {3}, allowed 0..{2}"},
    {"torn_record", "torn record", "ends after {3} of {2} bytes"},
});

/// Where a fault is, and what was found there.
struct Fault {
    FaultKind kind{};
    std::uint64_t record = 0;    // index, from 0
    std::uint32_t tsiidx = 0;    // meaningless in a torn record
    std::uint32_t pid = 0;       // of the packet (of the expected one where there is one)
    std::uint32_t expected = 0;  // continuity counter, sync byte, highest TSIIDX, bytes of a record,
                                 // previous PCR in ms, index of a packet in its file
    std::uint32_t found = 0;     // in the same unit; the PID in place of the expected packet

    /// Offset of the record in the stream.
    std::uint64_t getByteOffset() const { return record * Ts::RECORD_SIZE; }
};

/// Counts the records of a stream and their faults, and keeps the first fault of each kind. Reentrant.
class FaultLog {
public:
    /// @param isStrict whether irregular PCRs are faults
    explicit FaultLog(bool isStrict = false) : m_IsStrict(isStrict) {}

    struct Entry {
        std::uint64_t count = 0;
        Fault first;  // valid if count is not 0
    };

    /// Counts the next record. Returns false, and adds the fault, if it cannot be attributed to an input.
    [[nodiscard]] bool addRecord(const RecordView& record);
    /// Adds a fault of the latest record.
    void add(FaultKind kind, const RecordView& record, std::uint32_t expected, std::uint32_t found);
    /// Adds a fault; one at the end of the stream has the number of records as its record.
    void add(const Fault& fault);
    /// Adds the incomplete record at the end of the stream; 0 bytes are not a fault.
    void addTornRecord(std::size_t bytes);

    /// Complete records, including faulty ones.
    std::uint64_t getRecords() const { return m_Records; }
    bool isEmpty() const;
    /// Throws CommandError, which says that the stream of that name is faulty, unless there are no faults.
    void requireNone(const std::string& name) const;
    const Entry& get(FaultKind kind) const { return m_Entries[static_cast<std::size_t>(kind)]; }
    /// One line for each kind that occurred, with its count and where it occurred first, as in
    /// "2 continuity errors; the first at record 7 (byte 1344): TSIIDX 3, ..."
    std::string toLines() const;

private:
    bool m_IsStrict;
    std::uint64_t m_Records = 0;
    std::array<Entry, FAULT_TEXTS.size()> m_Entries{};
};

/// "0 records", "1 record", "2 records"
std::string formatCount(std::uint64_t count, const std::string& noun);

}  // namespace Vel::Zepctl
