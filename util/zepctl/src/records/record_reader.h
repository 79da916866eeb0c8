#pragma once

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

    /// Waits until read() will not have to: never for a plain file.
    void waitForData() const;
    /// Reads once and gives the whole records that there are, valid until the next call. None, too, where
    /// nothing is there for now; isAtEnd() tells the difference.
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
    /// Of a plain file, in bytes; 0 for everything else.
    std::uint64_t getSize() const;

private:
    CppUtil::FileDescriptor m_File;
    std::string m_Name;  // for messages
    bool m_PlainFile = false;
    bool m_AtEnd = false;
    std::vector<std::uint8_t> m_Block;
    std::size_t m_Given = 0;   // bytes of the block that the latest read() gave
    std::size_t m_Torn = 0;    // bytes of the block behind them
    std::uint64_t m_Read = 0;  // bytes since the start of the file
};

}  // namespace Vel::Zepctl
