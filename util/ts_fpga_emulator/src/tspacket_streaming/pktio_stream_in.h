#pragma once

#include <atomic>
#include <chrono>
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
#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/counter.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/mutex.h"
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
    /// Lets a PID through to the CPU, or blocks it.
    struct RouteChange {
        std::uint32_t pid;
        bool isRouted;
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::PktioStreamIn"); }

    /// Opens the file; a failure is reported when the thread first reads. Every PID is blocked.
    /// @param dispatcher must outlive the stream
    /// @param stop requested at the end of the program: ends every wait of this stream
    PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx, std::unique_ptr<IRateAdapter>&& adapter,
                  PacketDispatcher& dispatcher, std::stop_token stop = {});
    /// Stops the stream; what is still queued is dropped.
    virtual ~PktioStreamIn();
    PktioStreamIn(const PktioStreamIn&) = delete;
    PktioStreamIn& operator=(const PktioStreamIn&) = delete;

    /// Applies all changes in their order, at one packet of the stream. The first routed PID starts the
    /// thread, which plays on even when no PID is left. Waits for the release batch in progress, and no
    /// longer: the streaming thread lets a waiting call pass first.
    /// @throws std::system_error when no thread can be created; all changes are applied, and a later call
    /// with a routed PID tries again
    void changeRoutes(std::span<const RouteChange> changes);
    /// Ends the thread, after the release batch in progress.
    void stop();

    /// Logs one line of key=value pairs about this input, which zeptfem(8) explains. Any one thread at a
    /// time.
    void logStatus(const std::string& uri);
    /// PIDs that are let through. Thread-safe.
    std::uint32_t getRouteCount() const { return m_RouteCount; }

private:
    enum class State { Waiting, Playing, Finished, Failed };

    void streamThread() noexcept;
    void fail(const char* what, const std::string& reason) noexcept;
    void playFile();
    void finish();
    void prepare(Ts::LowlevInTSPacket& packet) const;
    void release(std::int32_t count);
    void releaseWhenDue();
    bool isStopped() const { return m_Stop.stop_requested(); }
    void routePid(std::uint32_t pid) VEL_REQUIRES(m_FilterLock);
    void stopRoutePid(std::uint32_t pid) VEL_REQUIRES(m_FilterLock);
    void letRoutingPass() const;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    std::stop_source m_Stop;
    TsFile m_InputFile;                           // the streaming thread's, once that runs
    CppUtil::Mutex m_FilterLock;                  // taken before the dispatcher's write lock, never after it
    std::atomic<bool> m_RoutingWaits = false;     // changeRoutes() waits for m_FilterLock
    std::unique_ptr<IRateAdapter> m_RateAdapter;  // the streaming thread's
    PacketDispatcher& m_Dispatcher;
    Ts::Misc::PidFilter m_PidFilter VEL_GUARDED_BY(m_FilterLock);
    // The streaming thread's: what the adapter holds, in file order.
    std::deque<Ts::LowlevInTSPacket> m_PacketQueue;
    std::thread m_Thread;  // guarded by m_FilterLock
    std::atomic<std::uint32_t> m_RouteCount = 0;
    // The streaming thread writes these and any thread reads them: m_Failure once the state is Failed.
    std::atomic<State> m_State = State::Waiting;
    std::string m_Failure;
    CppUtil::Counter m_PacketsRead;
    CppUtil::Counter m_PacketsReleased;
    CppUtil::Counter m_PacketsWritten;
    // Of the last status line.
    std::chrono::steady_clock::time_point m_StatusTime = std::chrono::steady_clock::now();
    std::uint64_t m_StatusWritten = 0;
    std::stop_callback<std::function<void()>> m_ProgramStop;  // passes the program's end on to m_Stop
};

}  // namespace Vel::Utils
