#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stop_token>
#include <string>

#include "vel/cpp_utils/counter.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/mutex.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Utils {

/// The only writer of the pktio data device, shared by all streaming threads: dispatch() is thread-safe.
/// Records are written back to back, each with a write of its own.
class PacketDispatcher {
public:
    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PacketDispatcher"); }

    /// Opens the device for writing; a plain file is created, locked and truncated. Waits until a FIFO has a
    /// reader, or until a stop request. The first dispatch() reports a failure to open.
    /// @param stop also interrupts the wait for a reader that stalls: see writeRecord()
    /// @throws CppUtil::InvalidArgumentError for a plain file that another dispatcher is writing
    explicit PacketDispatcher(const std::string& devicePath, std::stop_token stop = {});
    virtual ~PacketDispatcher();
    PacketDispatcher(const PacketDispatcher&) = delete;
    PacketDispatcher& operator=(const PacketDispatcher&) = delete;

    /// Writes the packet's whole buffer as one record, straight from it. False if it was not written: the
    /// device failed during this record, or output has ended with a stop request.
    /// @throws Ts::TsPacketError for a dead packet
    /// @throws CppUtil::IOError when the device could not be opened or an earlier record could not be
    /// written: the call after a failure reports it, and so does every later one
    bool dispatch(Ts::LowlevInTSPacket& packet);
    /// Records written so far. Thread-safe.
    std::uint64_t getRecordCount() const { return m_RecordCount.load(); }

private:
    enum class Device { Open, Failed, GivenUp };

    void openDevice(const std::string& path) VEL_REQUIRES(m_WriteLock);
    void takeDevice() VEL_REQUIRES(m_WriteLock);
    std::size_t writeRecord(std::span<const std::uint8_t> record) VEL_REQUIRES(m_WriteLock);

    std::shared_ptr<spdlog::logger> m_Logger;
    CppUtil::Mutex m_WriteLock;  // taken last, after a stream's filter lock; held for one record
    CppUtil::FileDescriptor m_File VEL_GUARDED_BY(m_WriteLock);
    Device m_Device VEL_GUARDED_BY(m_WriteLock) = Device::Failed;
    int m_Error VEL_GUARDED_BY(m_WriteLock) = 0;            // errno of what failed
    bool m_IsReported VEL_GUARDED_BY(m_WriteLock) = false;  // a stream has reported the failure
    CppUtil::Counter m_RecordCount;
    std::string m_DeviceName;  // for messages
    std::stop_token m_Stop;
};

}  // namespace Vel::Utils
