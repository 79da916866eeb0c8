#include "records/record_reader.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <thread>

#include "command_result.h"
#include "records/record_view.h"

namespace Vel::Zepctl {

namespace {

/// 192 KiB: few system calls, and the block is still in the cache when its records are checked.
constexpr std::size_t BLOCK_RECORDS = 1024;
constexpr std::chrono::milliseconds GROWTH_INTERVAL(20);

}  // namespace

RecordReader::RecordReader(const std::string& path)
    // Non-blocking, since opening a FIFO would wait for its writer otherwise.
    : m_File(path == "-" ? ::dup(STDIN_FILENO)
                         : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)),
      m_Name(path == "-" ? "standard input" : path),
      m_Block(BLOCK_RECORDS * Ts::RECORD_SIZE) {
    if (!m_File.isOpen() || ::fstat(m_File.get(), &m_Status) == -1) {
        throw systemError("Cannot open " + getName());
    }
}

bool RecordReader::waitForData(std::chrono::milliseconds limit) const {
    if (m_AtEnd) {
        // poll() keeps reporting the end, although a file may grow and a FIFO may get another writer.
        std::this_thread::sleep_for(std::min(limit, GROWTH_INTERVAL));
    }
    // read() would report the end of a FIFO that has had no writer yet; poll() waits for the first one.
    return CppUtil::waitFor(m_File.get(), POLLIN, {}, limit);
}

std::span<const std::uint8_t> RecordReader::read() {
    const auto torn = m_Block.begin() + static_cast<std::ptrdiff_t>(m_Given);
    std::copy_n(torn, m_Torn, m_Block.begin());
    m_Given = 0;
    const ssize_t got = ::read(m_File.get(), m_Block.data() + m_Torn, m_Block.size() - m_Torn);
    if (got < 0 && errno == EAGAIN) {
        CppUtil::FileDescriptor::pauseBeforeRetry();
    } else if (got < 0 && errno != EINTR) {
        throw systemError("Cannot read " + getName());
    }
    m_AtEnd = got == 0;
    const std::size_t held = m_Torn + static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    // A record begins with its TSIIDX. That of a packet would be above 255.
    if (!m_HasRecords && held + (m_AtEnd ? 1 : 0) > Ts::TS_PACKET_SIZE &&
        hasSyncBytes({m_Block.data(), held}) && Ts::readRecordHeader(m_Block.data()) > MAX_TSIIDX) {
        throw CommandError(DeviceUnusable,
                           getName() + " holds packets of 188 bytes, not records of 192 bytes");
    }
    m_HasRecords |= held >= Ts::RECORD_SIZE;
    m_Torn = held % Ts::RECORD_SIZE;
    m_Given = held - m_Torn;
    return {m_Block.data(), m_Given};
}

std::span<const std::uint8_t> RecordReader::readAt(std::uint64_t offset) {
    const ssize_t got = ::pread(m_File.get(), m_Block.data(), m_Block.size(), static_cast<off_t>(offset));
    if (got < 0) {
        throw systemError("Cannot read " + getName());
    }
    return {m_Block.data(), static_cast<std::size_t>(got)};
}

bool RecordReader::restartIfRewritten() {
    const timespec before = m_Status.st_mtim;
    if (!isPlainFile() || ::fstat(m_File.get(), &m_Status) == -1) {
        return false;
    }
    const timespec now = m_Status.st_mtim;
    const off_t position = ::lseek(m_File.get(), 0, SEEK_CUR);
    // A file that has grown also has a new time, so only its bytes show whether it was appended to.
    bool isRewritten = m_Status.st_size < position;
    if (!isRewritten && (now.tv_sec != before.tv_sec || now.tv_nsec != before.tv_nsec)) {
        std::vector<std::uint8_t> bytes(m_Known.size());
        const ssize_t got = ::pread(m_File.get(), bytes.data(), bytes.size(), m_KnownOffset);
        isRewritten = got < 0 || bytes != m_Known;
    }
    if (isRewritten) {
        ::lseek(m_File.get(), 0, SEEK_SET);
        m_Given = 0;
        m_Torn = 0;
        m_Known.clear();
        m_HasRecords = false;
        return true;
    }
    if (m_Given != 0 || m_Known.empty()) {
        m_Known.assign(m_Block.begin(), m_Block.begin() + static_cast<std::ptrdiff_t>(m_Given + m_Torn));
        m_KnownOffset = position - static_cast<off_t>(m_Known.size());
    }
    return false;
}

}  // namespace Vel::Zepctl
