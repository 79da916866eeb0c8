#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Utils {

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;
/// How long a device may accept no data of a record that has been started, after a stop request.
constexpr std::chrono::seconds PATIENCE(1);

}  // namespace

PacketDispatcher::PacketDispatcher(const std::string& devicePath, std::stop_token stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_DeviceName(CppUtil::escapeControls(devicePath)),
      m_Stop(std::move(stop)) {
    openDevice(devicePath);
}

PacketDispatcher::~PacketDispatcher() {
    // The failed record was the last one, so no later dispatch() reported the failure.
    if (m_Device == Device::Failed && !m_IsReported) {
        Log::error(*m_Logger, "Cannot write to {}: {}", m_DeviceName, CppUtil::errnoText(m_Error));
    }
    Log::debug(*m_Logger, "Destroy PacketDispatcher");
}

/// Non-blocking, so that neither a FIFO without a reader nor a full one keeps the program from ending.
void PacketDispatcher::openDevice(const std::string& path) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    std::error_code ignored;
    bool isAnnounced = false;
    while (!m_Stop.stop_requested()) {
        m_File = CppUtil::FileDescriptor(::open(path.c_str(), FLAGS, NEW_FILE_MODE));
        if (m_File.isOpen()) {
            takeDevice();
            return;
        }
        m_Error = errno;
        if (m_Error != ENXIO || !std::filesystem::is_fifo(path, ignored)) {
            return;
        }
        if (!std::exchange(isAnnounced, true)) {
            Log::info(*m_Logger, "Waiting for a reader of {}", m_DeviceName);
        }
        CppUtil::FileDescriptor::pauseBeforeRetry();
    }
    m_Device = Device::GivenUp;
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

bool PacketDispatcher::dispatch(Ts::LowlevInTSPacket& packet) {
    const CppUtil::Lock lock(m_WriteLock);
    const std::span<const std::uint8_t> record(packet.getWriteDataPtr(), packet.getTotalSize());
    if (m_Device == Device::Failed) {
        m_IsReported = true;
        throw CppUtil::IOError("Failed writing TS packets to file: \"" + m_DeviceName + "\"",
                               CppUtil::errnoText(m_Error));
    }
    if (m_Device == Device::GivenUp) {
        return false;
    }
    const std::size_t written = writeRecord(record);
    if (written == record.size()) {
        m_RecordCount.increment();
        return true;
    }
    if (written > 0) {
        Log::error(*m_Logger, "The last record on {} is incomplete: {} of {} bytes written{}", m_DeviceName,
                   written, record.size(),
                   m_Device == Device::Failed ? " [" + CppUtil::errnoText(m_Error) + "]"
                                              : fmt::format(", no progress for {} s", PATIENCE.count()));
    }
    return false;
}

/// The output is always a prefix of the routed packets. So after a stop request, a record that would have to
/// wait ends the output, but one that has been started is completed, unless the device accepts no data for a
/// while. Returns the bytes written; if there are too few, m_Device says why.
std::size_t PacketDispatcher::writeRecord(std::span<const std::uint8_t> record) {
    std::span<const std::uint8_t> rest = record;
    std::chrono::milliseconds patience = PATIENCE;  // after a stop request
    bool isReady = false;
    while (!rest.empty() && m_Device == Device::Open) {
        const ssize_t written = ::write(m_File.get(), rest.data(), rest.size());
        if (written > 0) {
            rest = rest.subspan(static_cast<std::size_t>(written));
            patience = PATIENCE;
            isReady = false;
        } else if (written < 0 && errno == EAGAIN) {
            if (std::exchange(isReady, true)) {
                CppUtil::FileDescriptor::pauseBeforeRetry();
            }
            if (!CppUtil::waitFor(m_File.get(), POLLOUT, m_Stop)) {
                if (rest.size() == record.size() || !CppUtil::waitFor(m_File.get(), POLLOUT, {}, patience)) {
                    m_Device = Device::GivenUp;
                }
                --patience;  // the pause for a device that is ready all the time
            }
        } else if (written == 0 || errno != EINTR) {
            m_Error = written == 0 ? EIO : errno;
            m_Device = Device::Failed;
        }
    }
    return record.size() - rest.size();
}

}  // namespace Vel::Utils
