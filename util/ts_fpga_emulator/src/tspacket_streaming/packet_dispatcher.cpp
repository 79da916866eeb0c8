#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "vel/cpp_utils/error.h"

namespace Vel::Utils {

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;
constexpr std::chrono::milliseconds READER_RETRY(5);

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
    Log::debug(*m_Logger, "Destroy PacketDispatcher");
}

/// Non-blocking, so that neither a FIFO without a reader nor one that is full keeps the program from ending.
void PacketDispatcher::openDevice() {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
    bool told = false;
    while (!m_Stop.stop_requested()) {
        m_File = CppUtil::FileDescriptor(::open(m_DevicePath.c_str(), FLAGS, NEW_FILE_MODE));
        if (m_File.isOpen()) {
            m_Device = Device::Open;
            return;
        }
        if (errno != ENXIO || !isFifo(m_DevicePath)) {
            return;
        }
        if (!std::exchange(told, true)) {
            Log::info(*m_Logger, "Waiting for a reader of {}", m_DevicePath);
        }
        std::this_thread::sleep_for(READER_RETRY);
    }
    m_Device = Device::GivenUp;
}

void PacketDispatcher::dispatch(Ts::LowlevInTSPacket& packet) {
    const std::lock_guard lock(m_WriteLock);
    const std::uint8_t* record = packet.getWriteDataPtr();
    if (m_Device == Device::Failed) {
        throw CppUtil::IOError("Failed writing TS packets to file: \"" + m_DevicePath + "\"", __FILE__,
                               __LINE__);
    }
    if (m_Device == Device::Open) {
        m_Device = writeRecord(record, packet.getTotalSize());
    }
}

/// A record that could not go out without waiting after a stop request ends the output, so that what has been
/// written is the beginning of what was routed, without a gap.
PacketDispatcher::Device PacketDispatcher::writeRecord(const std::uint8_t* record, std::size_t size) const {
    while (size > 0) {
        const ssize_t written = ::write(m_File.get(), record, size);
        if (written > 0) {
            record += written;
            size -= static_cast<std::size_t>(written);
        } else if (written < 0 && errno == EAGAIN) {
            if (!m_File.waitFor(POLLOUT, [this] { return m_Stop.stop_requested(); })) {
                return Device::GivenUp;
            }
        } else if (written == 0 || errno != EINTR) {
            return Device::Failed;
        }
    }
    return Device::Open;
}

}  // namespace Vel::Utils
