#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/tspacket.h"

namespace Vel::Utils {

/// A transport stream file, read as consecutive units of 188 bytes, in blocks of many packets. A FIFO is a
/// live feed: reading waits for its writers, and the file ends when the last one closes it. Constructed on
/// any thread, then used by one streaming thread.
class TsFile {
public:
    /// Opens the file. The first read reports a failure.
    /// @param stop interrupts the wait for a live feed
    TsFile(const std::string& path, std::stop_token stop);

    /// Reads the next packet. False at the end of the file, where an incomplete packet is dropped, and on a
    /// stop request.
    /// @throws CppUtil::IOError when reading fails
    [[nodiscard]] bool readPacket(std::span<std::uint8_t, Ts::TS_PACKET_SIZE> packet);
    /// Whether nothing at all follows. False on a stop request, and if reading fails: the next readPacket()
    /// reports that, once the packets before it have been used.
    [[nodiscard]] bool isAtEnd();
    /// Continues with the first packet, of a plain file only. What is left of an incomplete packet is
    /// dropped.
    void rewind();

    /// Whether the next `bytes` can be read without waiting for the file; isAtEnd() needs one more than the
    /// packet before it.
    [[nodiscard]] bool isReady(std::size_t bytes) const {
        return m_Filled - m_Position >= bytes || m_EndOfFile || m_Error != 0;
    }
    /// Whether bytes have been read that do not make a whole packet yet.
    bool hasIncompletePacket() const { return m_Position != m_Filled; }
    /// The distance of the sync bytes around the packet read last, of the usual ones: 188, 192 or 204 bytes.
    /// 0 if it is none of them, and if too few bytes have been read to tell.
    [[nodiscard]] std::size_t findSyncDistance() const;
    /// Waits until a live feed has data or has ended. False after the limit, and on a stop request.
    [[nodiscard]] bool waitForFeed(std::chrono::milliseconds limit) const;
    /// Whether it is not a plain file, and so can be late.
    bool isFeed() const;

    /// The path, for messages.
    const std::string& getName() const { return m_Name; }
    /// In bytes; 0 for a FIFO, and for a file that could not be opened. Any thread may ask.
    std::uint64_t getSize() const;

private:
    bool fill();

    std::string m_Name;
    std::stop_token m_Stop;
    CppUtil::FileDescriptor m_File;
    int m_Error = 0;                    // errno of the failure that ended reading, 0 for none
    std::vector<std::uint8_t> m_Block;  // empty until the first read: most inputs of a table never play
    std::size_t m_Position = 0;         // of the next unread byte in the block
    std::size_t m_Filled = 0;           // bytes of the block that hold data
    bool m_EndOfFile = false;
};

}  // namespace Vel::Utils
