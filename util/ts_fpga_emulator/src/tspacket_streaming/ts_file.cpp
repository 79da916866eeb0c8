#include "tspacket_streaming/ts_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Utils {

namespace {

/// One system call for some 350 packets.
constexpr std::size_t BLOCK_SIZE = 64 * 1024;

}  // namespace

/// Non-blocking, so that a FIFO without a writer blocks neither this call nor a read that a stop request must
/// interrupt.
TsFile::TsFile(const std::string& path, std::stop_token stop)
    : m_Name(CppUtil::escapeControls(path)),
      m_Stop(std::move(stop)),
      m_File(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)),
      m_Error(m_File.isOpen() ? 0 : errno) {}

bool TsFile::readPacket(std::span<std::uint8_t, Ts::TS_PACKET_SIZE> packet) {
    while (m_Filled - m_Position < packet.size()) {
        if (!fill()) {
            if (m_Error != 0) {
                throw CppUtil::IOError("Unknown error occurred when reading from \"" + m_Name + "\"",
                                       CppUtil::errnoText(m_Error));
            }
            return false;
        }
    }
    std::copy_n(m_Block.data() + m_Position, packet.size(), packet.data());
    m_Position += packet.size();
    return true;
}

bool TsFile::isAtEnd() {
    if (m_Position == m_Filled) {
        fill();
    }
    return m_Position == m_Filled && m_EndOfFile;
}

void TsFile::rewind() {
    m_Position = m_Filled = 0;
    m_EndOfFile = false;
    m_Error = ::lseek(m_File.get(), 0, SEEK_SET) == 0 ? 0 : errno;
}

std::size_t TsFile::findSyncDistance() const {
    constexpr std::size_t IN_A_ROW = 5;
    for (const std::size_t distance : {188U, 192U, 204U}) {
        for (std::size_t at = 0; at < distance && at + (IN_A_ROW - 1) * distance < m_Filled; ++at) {
            std::size_t n = 0;
            while (n < IN_A_ROW && m_Block[at + n * distance] == Ts::SYNC_BYTE) {
                ++n;
            }
            if (n == IN_A_ROW) {
                return distance;
            }
        }
    }
    return 0;
}

bool TsFile::waitForFeed(std::chrono::milliseconds limit) const {
    return CppUtil::waitFor(m_File.get(), POLLIN, m_Stop, limit);
}

bool TsFile::isFeed() const {
    struct stat status {};
    return ::fstat(m_File.get(), &status) == 0 && !S_ISREG(status.st_mode);
}

std::uint64_t TsFile::getSize() const {
    struct stat status {};
    return ::fstat(m_File.get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

/// Appends the bytes of one read to the unread rest of the block. False at the end of the file, after a
/// failure and on a stop request.
bool TsFile::fill() {
    if (m_EndOfFile || m_Error != 0) {
        return false;
    }
    m_Block.resize(BLOCK_SIZE);
    std::copy(m_Block.begin() + static_cast<std::ptrdiff_t>(m_Position),
              m_Block.begin() + static_cast<std::ptrdiff_t>(m_Filled), m_Block.begin());
    m_Filled -= std::exchange(m_Position, 0);
    // Before the first writer opens a FIFO, read() reports end of file, but poll() waits: POLLHUP is set only
    // after a writer has closed it.
    while (CppUtil::waitFor(m_File.get(), POLLIN, m_Stop)) {
        const ssize_t got = ::read(m_File.get(), m_Block.data() + m_Filled, m_Block.size() - m_Filled);
        if (got >= 0) {
            m_Filled += static_cast<std::size_t>(got);
            m_EndOfFile = got == 0;
            return !m_EndOfFile;
        }
        if (errno == EAGAIN) {
            CppUtil::FileDescriptor::pauseBeforeRetry();
        } else if (errno != EINTR) {
            m_Error = errno;
            return false;
        }
    }
    return false;
}

}  // namespace Vel::Utils
