#include "records/record_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

namespace {

/// 192 KiB: few system calls, and the block is still in the cache when its records are looked at.
constexpr std::size_t BLOCK_RECORDS = 1024;

constexpr std::chrono::milliseconds PAUSE_AT_END(20);

}  // namespace

RecordReader::RecordReader(const std::string& path)
    // Non-blocking, since opening a FIFO would wait for its writer otherwise.
    : m_File(path == "-" ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)),
      m_Name(path == "-" ? "standard input" : path),
      m_Block(BLOCK_RECORDS * Ts::RECORD_SIZE) {
    struct stat status {};
    if (!m_File.isOpen() || ::fstat(m_File.get(), &status) == -1) {
        throw systemError("Cannot open " + m_Name);
    }
    m_PlainFile = S_ISREG(status.st_mode);
}

bool RecordReader::waitForData(std::chrono::milliseconds limit) const {
    if (m_PlainFile) {
        std::this_thread::sleep_for(m_AtEnd ? PAUSE_AT_END : std::chrono::milliseconds(0));
        return true;
    }
    // A FIFO without a writer reads as ended, so a read cannot wait for the first one. It hangs up only once
    // one has left.
    pollfd file{m_File.get(), POLLIN, 0};
    return ::poll(&file, 1, static_cast<int>(limit.count())) > 0;
}

std::span<const std::uint8_t> RecordReader::read() {
    const auto torn = m_Block.begin() + static_cast<std::ptrdiff_t>(m_Given);
    std::copy_n(torn, m_Torn, m_Block.begin());
    m_Given = 0;
    const ssize_t got = ::read(m_File.get(), m_Block.data() + m_Torn, m_Block.size() - m_Torn);
    if (got < 0 && errno == EAGAIN) {
        CppUtil::FileDescriptor::pauseBeforeRetry();
    } else if (got < 0 && errno != EINTR) {
        throw systemError("Cannot read " + m_Name);
    }
    m_AtEnd = got == 0;
    const std::size_t held = m_Torn + static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    m_Torn = held % Ts::RECORD_SIZE;
    m_Given = held - m_Torn;
    return {m_Block.data(), m_Given};
}

bool RecordReader::restartIfTruncated() {
    if (!m_PlainFile || ::lseek(m_File.get(), 0, SEEK_CUR) <= static_cast<off_t>(getSize())) {
        return false;
    }
    ::lseek(m_File.get(), 0, SEEK_SET);
    m_Given = 0;
    m_Torn = 0;
    return true;
}

std::uint64_t RecordReader::getSize() const {
    struct stat status {};
    ::fstat(m_File.get(), &status);
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace Vel::Zepctl
