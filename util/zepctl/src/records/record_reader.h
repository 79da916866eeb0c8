#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "command_error.h"

namespace Vel::Zepctl {

/// Reads records in blocks from a file, a device, a FIFO or standard input. Thread-bound.
class RecordReader {
public:
    /// @param path "-" for standard input. A FIFO needs no writer yet; waitForData() waits for one
    /// @throws CommandError when it cannot be opened
    explicit RecordReader(const std::string& path);

    /// Waits, until a signal comes or the limit is over, for data or the end of the stream. A plain file
    /// cannot report that it has grown, so at its end this call just pauses.
    /// @param limit below 0 for none
    /// @return whether read() will not have to wait
    bool waitForData(std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;
    /// Reads once and returns the whole records that there are, valid until the next call. There may be none
    /// although the stream goes on; isAtEnd() shows the difference.
    /// @throws CommandError when reading fails
    std::span<const std::uint8_t> read();
    /// Whether the latest read() found the end. A plain file may grow, and be read on.
    bool isAtEnd() const { return m_AtEnd; }
    /// What has been read of a record that is not complete, in bytes.
    std::size_t getTornBytes() const { return m_Torn; }

    /// Goes back to the start of a plain file that has become shorter than what was read of it.
    /// @return whether that was so
    bool restartIfTruncated();

    const std::string& getName() const { return m_Name; }
    int getDescriptor() const { return m_File.get(); }
    bool isPlainFile() const { return m_PlainFile; }
    /// Of a plain file, in bytes; 0 for a FIFO or device.
    std::uint64_t getSize() const;

private:
    CppUtil::FileDescriptor m_File;
    std::string m_Name;  // for messages
    bool m_PlainFile = false;
    bool m_AtEnd = false;
    std::vector<std::uint8_t> m_Block;
    std::size_t m_Given = 0;  // bytes of the block that the latest read() returned
    std::size_t m_Torn = 0;   // bytes of the block after them
};

}  // namespace Vel::Zepctl
