#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Zepctl {

/// Reads records in blocks from a file, a device, a FIFO or standard input, or other bytes of a plain file.
/// Thread-bound.
class RecordReader {
public:
    /// @param path "-" for standard input. A FIFO does not need a writer yet; waitForData() waits for one
    /// @throws CommandError when it cannot be opened
    explicit RecordReader(const std::string& path);

    /// Waits until poll() reports data or the end of the stream. After a read() that has found the end, it
    /// first waits for 20 ms, since more may follow. False after the limit.
    bool waitForData(std::chrono::milliseconds limit = std::chrono::milliseconds::max()) const;
    /// Reads once and returns the complete records, valid until the next call. An empty result does not mean
    /// the end of the stream; see isAtEnd().
    /// @throws CommandError when reading fails, and for packets without the header of a record
    [[nodiscard]] std::span<const std::uint8_t> read();
    /// A block of a plain file from that offset on, valid until the next call; shorter at the end of the
    /// file. Not to be mixed with read().
    /// @throws CommandError when reading fails
    [[nodiscard]] std::span<const std::uint8_t> readAt(std::uint64_t offset);
    /// Whether the latest read() found the end. A plain file may grow, and reading then continues.
    bool isAtEnd() const { return m_AtEnd; }
    /// Size of the incomplete record that has been read, in bytes.
    std::size_t getTornBytes() const { return m_Torn; }

    /// Goes back to the start of a plain file that no longer holds what was read of it: it was truncated, or
    /// truncated and rewritten. To be called before each read().
    /// @return whether it did
    [[nodiscard]] bool restartIfRewritten();

    /// The path, or "standard input".
    const std::string& getRawName() const { return m_Name; }
    /// The same for messages.
    std::string getName() const { return CppUtil::escapeControls(m_Name); }
    bool isPlainFile() const { return S_ISREG(m_Status.st_mode); }
    /// From when the file was opened, or from the latest restartIfRewritten().
    const struct stat& getStatus() const { return m_Status; }

private:
    CppUtil::FileDescriptor m_File;
    std::string m_Name;
    struct stat m_Status {};
    bool m_AtEnd = false;
    bool m_HasRecords = false;  // otherwise, they may be packets without the header of a record
    std::vector<std::uint8_t> m_Block;
    std::size_t m_Given = 0;  // bytes of the block that the latest read() returned
    std::size_t m_Torn = 0;   // bytes of the block after them
    // For restartIfRewritten(): what was read before its latest call, and where
    std::vector<std::uint8_t> m_Known;
    off_t m_KnownOffset = 0;
};

/// Passes all records to a consumer, block by block. On a terminal, standard error shows the progress
/// through a file, which may grow meanwhile; the cursor stays before it, so that the next line overwrites it.
template <typename Consumer>
void readToEnd(RecordReader& reader, Consumer& consumer) {
    const auto size =
        ::isatty(STDERR_FILENO) == 1 ? static_cast<std::uint64_t>(reader.getStatus().st_size) : 0;
    std::uint64_t done = 0;
    std::uint64_t shown = 0;
    while (!reader.isAtEnd()) {
        reader.waitForData();
        const auto records = reader.read();
        consumer.add(records);
        done += records.size();
        const std::uint64_t percent = size == 0 ? 0 : std::min(done, size) * 100 / size;
        if (std::exchange(shown, percent) != percent) {
            std::cerr << fmt::format("{:3} %\r", percent);
        }
    }
    if (shown != 0) {
        std::cerr << "     \r";
    }
}

}  // namespace Vel::Zepctl
