#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "vel/cpp_utils/error.h"

namespace Vel::Utils {

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;
constexpr std::chrono::milliseconds READER_RETRY(5);
/// How long a device may take nothing of a record that has begun, after a stop request.
constexpr std::chrono::seconds PATIENCE(1);

using Clock = std::chrono::steady_clock;

bool isFifo(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

PacketDispatcher::PacketDispatcher(std::string devicePath, std::stop_token stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_DevicePath(std::move(devicePath)),
      m_Stop(std::move(stop)) {
    openDevice();
}

PacketDispatcher::~PacketDispatcher() {
    // No record came after the one that could not be written, so no stream has reported it.
    if (m_Device == Device::Failed && !m_IsReported) {
        Log::error(*m_Logger, "Cannot write to {}: {}", m_DevicePath, CppUtil::errnoText(m_Error));
    }
    Log::debug(*m_Logger, "Destroy PacketDispatcher");
}

/// Non-blocking, so that neither a FIFO without a reader nor one that is full keeps the program from ending.
void PacketDispatcher::openDevice() {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
    bool isAnnounced = false;
    while (!m_Stop.stop_requested()) {
        m_File = CppUtil::FileDescriptor(::open(m_DevicePath.c_str(), FLAGS, NEW_FILE_MODE));
        if (m_File.isOpen()) {
            m_Device = Device::Open;
            return;
        }
        m_Error = errno;
        if (m_Error != ENXIO || !isFifo(m_DevicePath)) {
            return;
        }
        if (!std::exchange(isAnnounced, true)) {
            Log::info(*m_Logger, "Waiting for a reader of {}", m_DevicePath);
        }
        std::this_thread::sleep_for(READER_RETRY);
    }
    m_Device = Device::GivenUp;
}

void PacketDispatcher::dispatch(Ts::LowlevInTSPacket& packet) {
    const CppUtil::Lock lock(m_WriteLock);
    const std::uint8_t* record = packet.getWriteDataPtr();
    if (m_Device == Device::Failed) {
        m_IsReported = true;
        throw CppUtil::IOError("Failed writing TS packets to file: \"" + m_DevicePath + "\"",
                               CppUtil::errnoText(m_Error));
    }
    if (m_Device == Device::Open) {
        m_Device = writeRecord({record, packet.getTotalSize()});
        if (m_Device == Device::Open) {
            m_RecordCount.increment();
        }
    }
}

/// What has been written is always a beginning of what was routed, without a gap. After a stop request, a
/// record that would have to wait therefore ends the output, but one that has begun is finished, unless the
/// device takes nothing of its rest for a while.
PacketDispatcher::Device PacketDispatcher::writeRecord(std::span<const std::uint8_t> record) {
    std::span<const std::uint8_t> rest = record;
    std::optional<Clock::time_point> deadline;
    const auto isGivenUp = [&] {
        if (!m_Stop.stop_requested()) {
            return false;
        }
        if (!deadline) {
            deadline = Clock::now() + PATIENCE;
        }
        return rest.size() == record.size() || Clock::now() >= *deadline;
    };
    for (bool isReady = false; !rest.empty();) {
        const ssize_t written = ::write(m_File.get(), rest.data(), rest.size());
        if (written > 0) {
            rest = rest.subspan(static_cast<std::size_t>(written));
            deadline.reset();
            isReady = false;
        } else if (written < 0 && errno == EAGAIN) {
            if (std::exchange(isReady, true)) {
                CppUtil::FileDescriptor::pauseBeforeRetry();
            }
            if (!m_File.waitFor(POLLOUT, isGivenUp)) {
                if (rest.size() < record.size()) {
                    Log::error(*m_Logger,
                               "The last record on {} is torn: {} of {} bytes written, then none for {} s",
                               m_DevicePath, record.size() - rest.size(), record.size(), PATIENCE.count());
                }
                return Device::GivenUp;
            }
        } else if (written == 0 || errno != EINTR) {
            m_Error = written == 0 ? EIO : errno;
            return Device::Failed;
        }
    }
    return Device::Open;
}

}  // namespace Vel::Utils
