#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tspacket_streaming/clock_schedule.h"
#include "tspacket_streaming/fair_lock.h"
#include "tspacket_streaming/irate_adapter.h"
#include "tspacket_streaming/pacer.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/stream_status.h"
#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/mutex.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/pid_filter.h"
#include "vel/ts_basics/stream_loop.h"

namespace Vel::Utils {

/// One input of the emulated FPGA: plays one transport stream file, once or endlessly, into the data device,
/// under the input's TSIIDX. Only packets whose PID is routed when they are released are written. The
/// streaming thread starts with the first routed PID and ends with the file, with an error, which it logs, or
/// with this object.
///
/// The streaming thread releases the packets itself, as its rate adapter says; those of a clocked stream are
/// released by the pacer, and the streaming thread reads ahead.
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
    /// A clocked stream.
    /// @param pacer must outlive the stream
    PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx, Pacer& pacer,
                  PacketDispatcher& dispatcher, std::stop_token stop = {});
    /// Stops the stream; queued packets are dropped.
    virtual ~PktioStreamIn();
    PktioStreamIn(const PktioStreamIn&) = delete;
    PktioStreamIn& operator=(const PktioStreamIn&) = delete;

    /// Repeats the file endlessly, with continuous clock and counters. Called before changeRoutes().
    void loop() { m_Status.pass = 1; }
    /// Tells the stream that changeRoutes() follows. At full rate it lets go of its filter lock, and waits
    /// for the call; a paced stream, which must not wait long, does so only once the call has begun.
    void announceChange() { m_RoutingWaits = !m_IsPaced; }
    /// Applies all changes in their order, at the same packet of the stream. The first routed PID starts the
    /// thread, which plays on even when no PID is left. Waits for the release in progress, but not longer:
    /// the releasing thread lets a waiting call go first.
    /// @throws std::system_error if no thread can be created; all changes are applied, and a later call with
    /// a routed PID retries
    void changeRoutes(std::span<const RouteChange> changes);
    /// Asks the thread to end after the release in progress.
    void requestStop() { m_Stop.request_stop(); }
    /// Ends the thread, and all use of this stream by the pacer.
    void stop();

    /// Logs the status line of this input. On any thread, one at a time.
    void logStatus(const std::string& uri) { m_Status.log(*m_Logger, m_TSIIDX, uri, m_InputFile); }
    /// PIDs that are let through. Thread-safe.
    std::uint32_t getRouteCount() const { return m_Status.routeCount; }

private:
    /// What a stream at full rate keeps from packet to packet, as long as nobody waits for it.
    struct Run {
        std::unique_lock<CppUtil::Mutex> filter;
        FairTurn device;
        void end();
    };

    void streamThread() noexcept;
    void freeBuffers() noexcept;
    void fail(const char* what, const std::string& reason) noexcept VEL_REQUIRES(m_FilterLock);
    void failWithCurrentException() noexcept VEL_REQUIRES(m_FilterLock);
    void playAdapted();
    void playClocked();
    Ts::LowlevInTSPacket createPacket() const;
    bool readPacket(Ts::LowlevInTSPacket& packet);
    bool startNextPass();
    void reportNoSync();
    bool needsRoute() const;
    void waitForRoute();
    void finish(std::size_t droppedPackets);
    void letRoutingCallGoFirst();
    void release(std::int32_t count, Run& run);
    void removeOldest();
    bool writeInRelease(Ts::LowlevInTSPacket& packet) VEL_REQUIRES(m_FilterLock);
    bool writeInRun(Ts::LowlevInTSPacket& packet, Run& run) VEL_REQUIRES(m_FilterLock);
    void waitForFeed(ClockSchedule& schedule, bool& isOverdue);
    std::size_t handOver(std::vector<ClockSchedule::TimedPacket> packets);
    bool isAllSent() const;
    std::size_t waitForPacer(std::chrono::nanoseconds readAheadEnd);
    Pacer::Rest releaseDue(std::chrono::nanoseconds limit) noexcept;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::uint32_t m_TSIIDX;
    std::stop_source m_Stop;
    std::stop_callback<std::function<void()>> m_Shutdown;  // requests m_Stop
    TsFile m_InputFile;                                    // the streaming thread's, except for its size
    std::unique_ptr<IRateAdapter> m_RateAdapter;  // the streaming thread's; null if the stream is clocked
    bool m_IsPaced;                               // by the adapter or the pacer: not at full rate
    // The streaming thread's: first the packets that the adapter holds, in order, then free buffers.
    std::deque<Ts::LowlevInTSPacket> m_PacketQueue;
    std::size_t m_HeldCount = 0;
    std::unique_ptr<Ts::StreamLoop> m_Loop;  // the streaming thread's: set if the file is repeated
    bool m_IsIncompleteReported = false;     // the streaming thread's, as the next one
    bool m_IsLengthReported = false;
    bool m_IsNoSyncReported = false;
    bool m_IsOutputOver = false;  // the streaming thread's: a record was dropped after a stop request
    Pacer* m_Pacer = nullptr;     // set if the stream is clocked
    std::vector<Ts::LowlevInTSPacket> m_Buffers;  // the streaming thread's, of a clocked stream: free buffers
    // What the pacer uses for every packet stands together.
    Pacer::Input m_DueInput{[this](auto limit) { return releaseDue(limit); }};
    PacketDispatcher& m_Dispatcher;
    CppUtil::Mutex m_FilterLock;               // taken before the dispatcher's write lock
    std::atomic<bool> m_RoutingWaits = false;  // for m_FilterLock
    // Of a clocked stream: packets with a due time, of which the first m_NextDue have been sent.
    std::vector<ClockSchedule::TimedPacket> m_Due VEL_GUARDED_BY(m_FilterLock);
    std::size_t m_NextDue VEL_GUARDED_BY(m_FilterLock) = 0;
    std::condition_variable_any m_IsRouted;  // at least one PID is
    StreamStatus m_Status;
    Ts::Misc::PidFilter m_PidFilter VEL_GUARDED_BY(m_FilterLock);
    std::condition_variable_any m_PacerIsDone;  // all of m_Due has been sent
    std::jthread m_Thread;  // uses all of the above; started and joined on the owner's thread
};

}  // namespace Vel::Utils
