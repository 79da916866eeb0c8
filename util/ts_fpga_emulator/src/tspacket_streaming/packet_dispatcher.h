#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tspacket_streaming/fair_lock.h"
#include "vel/cpp_utils/counter.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Utils {

/// The only writer of the pktio data device, shared by all streaming threads. Records are written back to
/// back, each with a write of its own. Thread-safe.
class PacketDispatcher {
public:
    enum class Outcome {
        Written,
        Started,     ///< written in part; the rest is kept for waitForDevice(), and written before any record
        DeviceFull,  ///< not written; try again after waitForDevice()
        Lost,        ///< the device failed during this record
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PacketDispatcher"); }

    /// Opens the device for writing; a plain file is created, locked and truncated. Waits until a FIFO has a
    /// reader, or until a stop request, after which nothing can be written. The first dispatch() reports a
    /// failure to open.
    /// @param keepsFifo a FIFO is opened without a reader, and stays open when its reader closes it: until
    /// the next one opens it, it is like a device that is full. The next one starts with a whole record
    /// @throws CppUtil::InvalidArgumentError for a plain file that another dispatcher is writing
    explicit PacketDispatcher(const std::string& devicePath, const std::stop_token& stop = {},
                              bool keepsFifo = false);
    virtual ~PacketDispatcher();
    PacketDispatcher(const PacketDispatcher&) = delete;
    PacketDispatcher& operator=(const PacketDispatcher&) = delete;

    /// Writes the packet's whole buffer as one record, straight from it. Waits for other writers, and for a
    /// device that is full. False if the record was not written: the device failed during it, or it would
    /// have had to wait after a stop request.
    /// @throws Ts::TsPacketError for a dead packet
    /// @throws CppUtil::IOError when the device could not be opened or an earlier record could not be
    /// written: the call after a failure reports it, and so does every later one
    bool dispatch(Ts::LowlevInTSPacket& packet, const std::stop_token& stop = {});

    /// Taken last, after a stream's filter lock. A stream may keep it for several records.
    FairLock& getWriteLock() { return m_WriteLock; }
    /// As dispatch(), for the owner of the write lock, but never waits.
    Outcome tryDispatch(Ts::LowlevInTSPacket& packet);
    /// For the owner of the write lock. Waits until the device has taken the record that has been started,
    /// and is ready for more. False on a stop request; then the record is still completed, unless the device
    /// takes nothing for a second.
    bool waitForDevice(const std::stop_token& stop);

    /// Records written so far.
    std::uint64_t getRecordCount() const { return m_RecordCount.load(); }

private:
    enum class Device { Open, Failed, NeverOpened };

    void openDevice(const std::string& path, const std::stop_token& stop);
    void takeDevice();
    void watchReader(const std::stop_token& stop) noexcept;
    bool checkReader();
    void discardRestOfRecord();
    std::size_t write(std::span<const std::uint8_t> bytes);
    void writeRest();
    void logIncomplete(std::size_t written, std::size_t size, const std::string& reason) const;

    std::shared_ptr<spdlog::logger> m_Logger;
    FairLock m_WriteLock;  // guards the following, except for the counter and the name
    CppUtil::FileDescriptor m_File;
    Device m_Device = Device::Failed;
    int m_Error = 0;                      // errno of what failed
    bool m_IsReported = false;            // a stream has reported the failure
    bool m_WasWritable = false;           // poll() has said so since the last write
    std::vector<std::uint8_t> m_Started;  // a record; mostly none
    std::size_t m_StartedBytes = 0;       // of it, written
    CppUtil::Counter m_RecordCount;
    std::string m_DeviceName;  // for messages
    bool m_KeepsFifo;          // constant once the device is open
    bool m_HasReader = true;   // of a FIFO that is kept
    std::jthread m_Watcher;
};

}  // namespace Vel::Utils
