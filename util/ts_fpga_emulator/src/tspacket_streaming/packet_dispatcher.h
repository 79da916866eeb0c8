#pragma once

#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Utils {

/// The one writer of the pktio data device, shared by all streaming threads: dispatch() is thread-safe.
/// Records follow each other without anything between them; each one goes out in one write and is never split
/// or joined.
class PacketDispatcher {
public:
    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PacketDispatcher"); }

    /// Opens the device for writing, created and truncated if it is a plain file. A FIFO is waited for until
    /// it has a reader, or until a stop request. A failure to open is told by the first dispatch().
    /// @param stop also ends the wait for a reader that does not read; what would have to wait from then on
    /// is dropped
    explicit PacketDispatcher(std::string devicePath, std::stop_token stop = {});
    virtual ~PacketDispatcher();
    PacketDispatcher(const PacketDispatcher&) = delete;
    PacketDispatcher& operator=(const PacketDispatcher&) = delete;

    /// Writes the packet's whole buffer as one record, straight from it.
    /// @throws Ts::TsPacketError for a dead packet
    /// @throws CppUtil::IOError once the device could not be opened or an earlier record could not be
    /// written:
    ///         a failure is told by the call after it, and then by every one
    void dispatch(Ts::LowlevInTSPacket& packet);

private:
    enum class Device { Open, Failed, GivenUp };

    void openDevice();
    Device writeRecord(const std::uint8_t* record, std::size_t size) const;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::mutex m_WriteLock;  // taken last, behind a stream's filter lock; held for one record
    CppUtil::FileDescriptor m_File;   // guarded by m_WriteLock, as is the next one
    Device m_Device = Device::Failed;
    std::string m_DevicePath;
    std::stop_token m_Stop;
};

}  // namespace Vel::Utils
