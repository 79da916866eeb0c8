#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "records/record_fault.h"
#include "records/record_reader.h"

namespace Vel::Zepctl {

/// Compares the records of one input, in one pass, with the packets of a transport stream file that have
/// certain PIDs. Logs the first difference. Thread-bound.
class RecordComparison {
public:
    /// @param expected FILE or FILE:PID,... Without PIDs, those that the records contain
    /// @throws CommandError for other text, and for a file that is not a plain transport stream
    RecordComparison(std::uint32_t tsiidx, const std::string& expected);

    /// Takes the next record of the input, which is the latest one of the log.
    void add(const RecordView& record, FaultLog& faults);
    /// Takes the end of the stream: packets that are still expected are missing.
    void end(FaultLog& faults);
    /// Whether a difference has been found or all expected packets have arrived.
    bool isSettled() { return m_IsDifferent || findNext() == nullptr; }
    /// Whether no packet of the file was expected: nothing has been compared.
    bool isEmpty() { return m_Begin == 0 && !m_IsDifferent && isSettled(); }
    std::string getFileName() const { return m_File.getName(); }

private:
    /// The packet with that index in the file, valid until the next call; none at the end of the file, where
    /// an incomplete packet does not count.
    const std::uint8_t* get(std::uint64_t index);
    /// Moves m_Next to the next expected packet.
    const std::uint8_t* findNext();

    std::uint32_t m_Tsiidx;
    std::bitset<MAX_PID + 1> m_Pids;
    bool m_TakesAnyPid;
    RecordReader m_File;
    std::span<const std::uint8_t> m_Block;
    std::uint64_t m_BlockStart = 0;  // index of its first packet
    std::uint64_t m_Begin = 0;       // index of the packet after the one that the latest record matched
    std::uint64_t m_Next = 0;        // index of the next packet of the file, at or after that one
    // Of each PID that no record has had yet: index of the first packet that was skipped
    std::map<std::uint32_t, std::uint64_t> m_Skipped;
    bool m_IsDifferent = false;
};

}  // namespace Vel::Zepctl
