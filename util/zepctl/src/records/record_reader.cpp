#include "records/record_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>

#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

namespace {

/// 192 KiB: few system calls, and what one of them brought is still in the cache when it is looked at.
constexpr std::size_t BLOCK_RECORDS = 1024;

/// Non-blocking, since opening a FIFO would wait for its writer otherwise.
int openForReading(const std::string& path) {
    const int fd =
        path == "-" ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        throw systemError("Cannot open " + path);
    }
    return fd;
}

struct stat statusOf(int fd) {
    struct stat status {};
    ::fstat(fd, &status);
    return status;
}

}  // namespace

RecordReader::RecordReader(const std::string& path)
    : m_File(openForReading(path)),
      m_Name(path == "-" ? "standard input" : path),
      m_PlainFile(S_ISREG(statusOf(m_File.get()).st_mode)),
      m_Block(BLOCK_RECORDS * Ts::RECORD_SIZE) {}

void RecordReader::waitForData() const {
    // A FIFO without a writer reads as ended, so a read cannot wait for the first one. It hangs up only once
    // one has left.
    pollfd file{m_File.get(), POLLIN, 0};
    while (!m_PlainFile && ::poll(&file, 1, -1) == -1 && errno == EINTR) {
    }
}

std::span<const std::uint8_t> RecordReader::read() {
    const auto torn = m_Block.begin() + static_cast<std::ptrdiff_t>(m_Given);
    std::copy(torn, torn + static_cast<std::ptrdiff_t>(m_Torn), m_Block.begin());
    m_Given = 0;
    const ssize_t got = ::read(m_File.get(), m_Block.data() + m_Torn, m_Block.size() - m_Torn);
    if (got < 0 && errno == EAGAIN) {
        CppUtil::FileDescriptor::pauseBeforeRetry();
    } else if (got < 0 && errno != EINTR) {
        throw systemError("Cannot read " + m_Name);
    }
    m_AtEnd = got == 0;
    const std::size_t count = got > 0 ? static_cast<std::size_t>(got) : 0;
    const std::size_t held = m_Torn + count;
    m_Read += count;
    m_Torn = held % Ts::RECORD_SIZE;
    m_Given = held - m_Torn;
    return {m_Block.data(), m_Given};
}

bool RecordReader::restartIfTruncated() {
    if (!m_PlainFile || getSize() >= m_Read) {
        return false;
    }
    if (::lseek(m_File.get(), 0, SEEK_SET) == -1) {
        throw systemError("Cannot go back to the start of " + m_Name);
    }
    m_Read = 0;
    m_Given = 0;
    m_Torn = 0;
    return true;
}

std::uint64_t RecordReader::getSize() const {
    return m_PlainFile ? static_cast<std::uint64_t>(statusOf(m_File.get()).st_size) : 0;
}

}  // namespace Vel::Zepctl
