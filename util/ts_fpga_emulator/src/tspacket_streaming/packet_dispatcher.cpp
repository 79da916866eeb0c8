#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/text.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;
/// How long a device may accept no data of a record that has been started, after a stop request.
constexpr std::chrono::seconds PATIENCE(1);

}  // namespace

PacketDispatcher::PacketDispatcher(const std::string& devicePath, const std::stop_token& stop, bool keepsFifo)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_DeviceName(CppUtil::escapeControls(devicePath)),
      m_KeepsFifo(keepsFifo) {
    openDevice(devicePath, stop);
    if (m_KeepsFifo && m_Device == Device::Open) {
        m_Watcher = std::jthread([this](const std::stop_token& end) { watchReader(end); });
    }
}

PacketDispatcher::~PacketDispatcher() {
    writeRest();
    if (!m_Started.empty()) {
        logIncomplete(m_StartedBytes, m_Started.size(),
                      fmt::format(", no progress for {} s", PATIENCE.count()));
    }
    // The failed record was the last one, so no later dispatch() reported the failure.
    if (m_Device == Device::Failed && !m_IsReported) {
        Log::error(*m_Logger, "Cannot write to {}: {}", m_DeviceName, CppUtil::errnoText(m_Error));
    }
    Log::debug(*m_Logger, "Destroy PacketDispatcher");
}

/// Non-blocking, so that neither a FIFO without a reader nor a full one keeps the program from ending.
void PacketDispatcher::openDevice(const std::string& path, const std::stop_token& stop) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    std::error_code ignored;
    bool isAnnounced = false;
    while (!stop.stop_requested()) {
        // Its own reader lets it open a FIFO that nobody else reads.
        m_KeepsFifo = m_KeepsFifo && std::filesystem::is_fifo(path, ignored);
        const CppUtil::FileDescriptor reader(
            m_KeepsFifo ? ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1);
        if (m_KeepsFifo && !reader.isOpen()) {
            Log::warning(*m_Logger, "Cannot read {}, so -k has no effect: {}", m_DeviceName,
                         CppUtil::errnoText(errno));
            m_KeepsFifo = false;
        }
        m_File = CppUtil::FileDescriptor(::open(path.c_str(), FLAGS, NEW_FILE_MODE));
        if (m_File.isOpen()) {
            takeDevice();
            return;
        }
        m_Error = errno;
        if (m_Error != ENXIO || !std::filesystem::is_fifo(path, ignored)) {
            Log::warning(*m_Logger, "Cannot write to {}: {}", m_DeviceName, CppUtil::errnoText(m_Error));
            return;
        }
        if (!std::exchange(isAnnounced, true)) {
            Log::info(*m_Logger, "Waiting for a reader of {}", m_DeviceName);
        }
        CppUtil::FileDescriptor::pauseBeforeRetry();
    }
    m_Device = Device::NeverOpened;
}

/// A plain file is emptied only once it is locked: what it holds may be the output of another program. It is
/// appended to, so that no gap is left if somebody truncates it.
void PacketDispatcher::takeDevice() {
    struct stat status {};
    bool isReady = ::fstat(m_File.get(), &status) == 0;
    if (isReady && S_ISREG(status.st_mode)) {
        if (::flock(m_File.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            throw CppUtil::InvalidArgumentError("The data device \"" + m_DeviceName +
                                                "\" is locked: another zeptfem is writing it.");
        }
        isReady = ::ftruncate(m_File.get(), 0) == 0 && ::fcntl(m_File.get(), F_SETFL, O_APPEND) == 0;
    }
    m_Error = errno;
    m_Device = isReady ? Device::Open : Device::Failed;
}

/// Notices that the reader of a FIFO has gone, even while nothing is written: the next one must not find the
/// rest of a record.
void PacketDispatcher::watchReader(const std::stop_token& stop) noexcept {
    ::pthread_setname_np(::pthread_self(), "pktio-reader");
    while (!stop.stop_requested()) {
        FairTurn turn(m_WriteLock);
        const bool hasReader = turn.begin(stop) && checkReader();
        turn.end();
        if (hasReader) {
            static_cast<void>(CppUtil::waitFor(m_File.get(), 0, stop));
        } else {
            CppUtil::FileDescriptor::pauseBeforeRetry();
        }
    }
}

/// For the owner of the write lock.
bool PacketDispatcher::checkReader() {
    if (!m_KeepsFifo) {
        return true;
    }
    pollfd status{m_File.get(), 0, 0};
    const bool hasReader = ::poll(&status, 1, 0) == 0;
    if (!hasReader) {
        discardRestOfRecord();
    }
    if (std::exchange(m_HasReader, hasReader) != hasReader) {
        Log::info(*m_Logger, "{} {}", hasReader ? "A reader has opened" : "Waiting for a reader of",
                  m_DeviceName);
    }
    return hasReader;
}

/// A record is shorter than PIPE_BUF, so it is written whole. What a reader has left of one is in front.
void PacketDispatcher::discardRestOfRecord() {
    int unread = 0;
    std::array<std::uint8_t, Ts::RECORD_SIZE> rest;
    if (::ioctl(m_File.get(), FIONREAD, &unread) != 0 || unread % Ts::RECORD_SIZE == 0) {
        return;
    }
    std::array<char, 32> path{};
    fmt::format_to_n(path.data(), path.size() - 1, "/proc/self/fd/{}", m_File.get());
    const CppUtil::FileDescriptor reader(::open(path.data(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!reader.isOpen()) {
        if (m_HasReader) {  // the first attempt since the reader has gone
            Log::error(*m_Logger, "Cannot discard the rest of a record on {}: {}", m_DeviceName,
                       CppUtil::errnoText(errno));
        }
        return;
    }
    // A reader that opens the FIFO at this moment may have emptied it.
    static_cast<void>(::read(reader.get(), rest.data(), static_cast<std::size_t>(unread) % rest.size()) >= 0);
}

bool PacketDispatcher::dispatch(Ts::LowlevInTSPacket& packet, const std::stop_token& stop) {
    static_cast<void>(m_WriteLock.lock({}));  // an owner that waits for the device gives up on a stop request
    const std::lock_guard lock(m_WriteLock, std::adopt_lock);
    Outcome outcome = tryDispatch(packet);
    while (outcome == Outcome::DeviceFull && waitForDevice(stop)) {
        outcome = tryDispatch(packet);
    }
    if (outcome == Outcome::Started) {
        waitForDevice(stop);
    }
    return outcome == Outcome::Written || outcome == Outcome::Started;
}

PacketDispatcher::Outcome PacketDispatcher::tryDispatch(Ts::LowlevInTSPacket& packet) {
    const std::span<const std::uint8_t> record(packet.getWriteDataPtr(), packet.getTotalSize());
    writeRest();
    if (m_Device == Device::Failed) {
        m_IsReported = true;
        throw CppUtil::IOError("Failed writing TS packets to file: \"" + m_DeviceName + "\"",
                               CppUtil::errnoText(m_Error));
    }
    const std::size_t written = m_Started.empty() && m_Device == Device::Open ? write(record) : 0;
    if (m_Device != Device::Open) {
        if (written > 0) {
            logIncomplete(written, record.size(), " [" + CppUtil::errnoText(m_Error) + "]");
        }
        return Outcome::Lost;
    }
    if (written == 0) {
        return Outcome::DeviceFull;
    }
    if (written == record.size()) {
        m_RecordCount.increment();
        return Outcome::Written;
    }
    m_Started.assign(record.begin(), record.end());
    m_StartedBytes = written;
    return Outcome::Started;
}

/// After a stop request, completes a record that has been started, unless the device takes nothing for a
/// while. What is left of it then is written before the next record, or when the program ends.
bool PacketDispatcher::waitForDevice(const std::stop_token& stop) {
    for (std::chrono::milliseconds patience = PATIENCE; patience.count() > 0; --patience) {
        if (!checkReader()) {
            if (stop.stop_requested()) {
                return false;
            }
            CppUtil::FileDescriptor::pauseBeforeRetry();
            patience = PATIENCE;
            continue;
        }
        const std::size_t before = m_StartedBytes;
        if (!CppUtil::waitFor(m_File.get(), POLLOUT, stop) &&
            (m_Started.empty() || !CppUtil::waitFor(m_File.get(), POLLOUT, {}, patience))) {
            return false;
        }
        if (std::exchange(m_WasWritable, true)) {
            CppUtil::FileDescriptor::pauseBeforeRetry();
        }
        writeRest();
        if (m_Started.empty()) {
            return !stop.stop_requested();
        }
        patience = m_StartedBytes == before && stop.stop_requested() ? patience : PATIENCE;
    }
    return false;
}

/// Writes as much as the device takes. Returns the number of bytes; m_Device says whether it failed.
std::size_t PacketDispatcher::write(std::span<const std::uint8_t> bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t got = ::write(m_File.get(), bytes.data() + written, bytes.size() - written);
        if (got > 0) {
            written += static_cast<std::size_t>(got);
            m_WasWritable = false;
        } else if (got == 0 || errno != EINTR) {
            m_Error = got == 0 ? EIO : errno;
            const bool isFull = m_Error == EAGAIN || (m_Error == EPIPE && m_KeepsFifo);
            m_Device = isFull ? m_Device : Device::Failed;
            break;
        }
    }
    return written;
}

void PacketDispatcher::writeRest() {
    if (m_Started.empty()) {
        return;
    }
    m_StartedBytes += write(std::span(m_Started).subspan(m_StartedBytes));
    if (m_Device == Device::Failed) {
        logIncomplete(m_StartedBytes, m_Started.size(), " [" + CppUtil::errnoText(m_Error) + "]");
    }
    if (m_StartedBytes == m_Started.size()) {
        m_RecordCount.increment();
        m_Started.clear();
    } else if (m_Device == Device::Failed) {
        m_Started.clear();
    }
}

void PacketDispatcher::logIncomplete(std::size_t written, std::size_t size, const std::string& reason) const {
    Log::error(*m_Logger, "The last record on {} is incomplete: {} of {} bytes written{}", m_DeviceName,
               written, size, reason);
}

}  // namespace Vel::Utils
