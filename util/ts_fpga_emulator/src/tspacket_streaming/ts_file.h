#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

/// A transport stream file, read from front to back as consecutive units of 188 bytes, in blocks of many
/// packets. A FIFO serves as a live feed: reading waits for its writers, and it ends when the last one has
/// left. Constructed on any thread, then used by one streaming thread.
class TsFile {
public:
    /// Opens the file. The first read reports a failure.
    /// @param stopRequested asked while the file gives nothing for now; true ends the wait
    TsFile(std::string path, std::function<bool()> stopRequested);

    /// Reads the next packet. False at the end of the file, where a truncated packet is dropped, and on a
    /// stop request.
    /// @throws CppUtil::IOError when reading fails
    bool readPacket(std::span<std::uint8_t, Ts::TS_PACKET_SIZE> packet);
    /// Whether nothing at all follows. False on a stop request, and where reading on fails: the next
    /// readPacket() reports that, after the packets before it have been used.
    bool isAtEnd();

    const std::string& getPath() const { return m_Path; }
    /// In bytes; 0 for what has no size, a FIFO for example. Any thread may ask.
    std::uint64_t getSize() const;

private:
    bool fill();
    void throwIfFailed() const;

    std::string m_Path;
    std::function<bool()> m_StopRequested;
    CppUtil::FileDescriptor m_File;
    int m_Error = 0;                    // errno of the failure that ended reading, 0 for none
    std::vector<std::uint8_t> m_Block;  // empty until the first read: most inputs of a table never play
    std::size_t m_Position = 0;         // of the next unread byte in the block
    std::size_t m_Filled = 0;           // bytes of the block that hold data
    bool m_EndOfFile = false;
};

}  // namespace Vel::Utils
