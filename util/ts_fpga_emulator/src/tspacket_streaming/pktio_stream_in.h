#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include "tspacket_streaming/irate_adapter.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/pid_filter.h"

namespace Vel::Utils {

/// One input of the FPGA that is being emulated: plays one transport stream file, once, into the data device,
/// under the input's TSIIDX, and lets through only the PIDs that are routed at the moment of their release.
/// Its thread starts with the first routed PID and ends with the file, with an error, which it logs, or with
/// this object.
///
/// Constructed, routed and destroyed on the monitor thread (destroyed on the main thread at program end).
class PktioStreamIn {
public:
    /// While one exists, the stream releases no further batch: several routes then take effect at the same
    /// packet. Must not outlive the stream.
    class ReleaseHold {
    public:
        explicit ReleaseHold(PktioStreamIn& stream) : m_Stream(stream) { ++m_Stream.m_RoutingCalls; }
        ~ReleaseHold() { m_Stream.endRoutingCall(); }
        ReleaseHold(const ReleaseHold&) = delete;
        ReleaseHold& operator=(const ReleaseHold&) = delete;

    private:
        PktioStreamIn& m_Stream;
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PktioStreamIn"); }

    /// Opens the file; a failure is told when the thread first reads. Every PID is blocked.
    /// @param dispatcher must outlive the stream
    /// @param stop the program's end: ends every wait of this stream
    PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx, std::unique_ptr<IRateAdapter>&& adapter,
                  PacketDispatcher& dispatcher, std::stop_token stop = {});
    /// Ends the thread, after the release batch in progress; what is still queued is dropped.
    virtual ~PktioStreamIn();
    PktioStreamIn(const PktioStreamIn&) = delete;
    PktioStreamIn& operator=(const PktioStreamIn&) = delete;

    /// Lets `pid` through from now on, and starts the thread if it has never been started. Waits for the
    /// release batch in progress, as stopRoutePid() does, and no longer: the streaming thread lets waiting
    /// calls pass first.
    /// @throws std::system_error when no thread is to be had; a later call tries again
    void routePid(std::uint32_t pid);
    /// Blocks `pid`. The thread plays on, also when no PID is left.
    void stopRoutePid(std::uint32_t pid);

private:
    void streamThread() noexcept;
    void playFile();
    void reportDroppedPackets() const;
    void prepare(Ts::LowlevInTSPacket& packet) const;
    void release(std::int32_t count);
    bool isStopped() const { return m_Stop || m_ProgramStop.stop_requested(); }
    std::unique_lock<std::mutex> lockForRouting();
    void endRoutingCall();
    std::unique_lock<std::mutex> lockForRelease();

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    std::stop_token m_ProgramStop;
    TsFile m_InputFile;                           // the streaming thread's, once that runs
    std::mutex m_FilterLock;                      // taken before the dispatcher's write lock, never after it
    std::atomic<int> m_RoutingCalls = 0;          // that wait for m_FilterLock, and holds
    std::unique_ptr<IRateAdapter> m_RateAdapter;  // the streaming thread's
    PacketDispatcher& m_Dispatcher;
    Ts::Misc::PidFilter m_PidFilter;  // guarded by m_FilterLock
    std::atomic<bool> m_Stop = false;
    std::deque<Ts::LowlevInTSPacket>
        m_PacketQueue;     // the streaming thread's: what the adapter holds, in file order
    std::thread m_Thread;  // guarded by m_FilterLock
};

}  // namespace Vel::Utils
