#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <stop_token>
#include <string>
#include <thread>

#include "tspacket_streaming/irate_adapter.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/stream_status.h"
#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/mutex.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/pid_filter.h"

namespace Vel::Utils {

/// One input of the emulated FPGA: plays one transport stream file, once, into the data device, under the
/// input's TSIIDX. Only packets whose PID is routed when they are released are written. The streaming thread
/// starts with the first routed PID and ends with the file, with an error, which it logs, or with this
/// object.
///
/// Constructed, routed and destroyed on the monitor thread (at shutdown, destroyed on the main thread).
class PktioStreamIn {
public:
    /// Lets a PID through to the CPU, or blocks it.
    struct RouteChange {
        std::uint32_t pid;
        bool isRouted;
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PktioStreamIn"); }

    /// Opens the file; a failure is reported when the thread first reads. Every PID is blocked.
    /// @param dispatcher must outlive the stream
    /// @param stop requested at shutdown: interrupts every wait of this stream
    PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx, std::unique_ptr<IRateAdapter>&& adapter,
                  PacketDispatcher& dispatcher, std::stop_token stop = {});
    /// Stops the stream; queued packets are dropped.
    virtual ~PktioStreamIn();
    PktioStreamIn(const PktioStreamIn&) = delete;
    PktioStreamIn& operator=(const PktioStreamIn&) = delete;

    /// Applies all changes in their order, at the same packet of the stream. The first routed PID starts the
    /// thread, which plays on even when no PID is left. Waits for the release in progress, but not longer:
    /// the streaming thread lets a waiting call go first.
    /// @throws std::system_error if no thread can be created; all changes are applied, and a later call with
    /// a routed PID retries
    void changeRoutes(std::span<const RouteChange> changes);
    /// Ends the thread, after the release in progress.
    void stop();

    /// Logs the status line of this input. On any thread, one at a time.
    void logStatus(const std::string& uri) { m_Status.log(*m_Logger, m_TSIIDX, uri, m_InputFile); }
    /// PIDs that are let through. Thread-safe.
    std::uint32_t getRouteCount() const { return m_Status.routeCount; }

private:
    void streamThread() noexcept;
    void fail(const char* what, const std::string& reason) noexcept;
    void playFile();
    void finish();
    void release(std::int32_t count);

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    std::stop_source m_Stop;
    std::stop_callback<std::function<void()>> m_Shutdown;  // requests m_Stop
    TsFile m_InputFile;                                    // the streaming thread's, except for its size
    CppUtil::Mutex m_FilterLock;                  // taken before the dispatcher's write lock, never after it
    std::atomic<bool> m_RoutingWaits = false;     // changeRoutes() waits for m_FilterLock
    std::unique_ptr<IRateAdapter> m_RateAdapter;  // the streaming thread's
    PacketDispatcher& m_Dispatcher;
    Ts::Misc::PidFilter m_PidFilter VEL_GUARDED_BY(m_FilterLock);
    std::deque<Ts::LowlevInTSPacket>
        m_PacketQueue;  // the streaming thread's: what the adapter holds, in order
    StreamStatus m_Status;
    std::jthread m_Thread;  // uses all of the above; started and joined on the owner's thread
};

}  // namespace Vel::Utils
