#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "fpga_monitoring/fpga_mon_event.h"
#include "fpga_monitoring/ifpga_event_consumer.h"
#include "tspacket_streaming/pacer.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "tspacket_streaming/stream_mode.h"
#include "tspacket_streaming/uri_file_list.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

/// Reacts to the tables: creates the stream of an input whose URI has a file, removes it with the input, and
/// routes PIDs. Routes of an input without a stream are kept until it has one. Every handler runs on the
/// monitor thread; only the set of streams is shared, with logStatus(). Destroyed on the main thread, after
/// the monitor thread has ended.
class PktioStreamManager final : public IFPGAEventConsumer {
public:
    static std::string loggerName() {
        return Log::makeLoggerName(__FILE__, "Vel::Utils::PktioStreamManager");
    }

    /// @param dispatcher must outlive the manager
    /// @param stop requested at shutdown; passed to every stream
    PktioStreamManager(PacketDispatcher& dispatcher, StreamMode mode, const UriFileList& files,
                       std::stop_token stop = {}, PcrPacing pacing = PcrPacing::Batches,
                       bool isLooped = false);
    /// Drops the pending routes and stops the streams. Logs the status if debug lines are logged.
    ~PktioStreamManager() override;

    /// Never throws. An event that cannot be applied, for example for lack of memory, is logged and has no
    /// other effect.
    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override;
    /// Gives each stream its routes of the change in one call, because the hardware sees them change
    /// together. So a stream that starts plays all of them from its first packet, and a row that is only
    /// rewritten (a removal and an addition) loses no packet. Before that, waits for the end of the streams
    /// that the change has removed.
    void handleChangeEnd() override;

    /// Logs one line of key=value pairs for each input and one for the program; zeptfem(8) explains them. On
    /// any thread, one at a time, whatever the monitor thread is doing.
    void logStatus();

private:
    struct InputStream {
        std::string uri;
        std::unique_ptr<PktioStreamIn> stream;
        std::vector<PktioStreamIn::RouteChange> routes;  // of the change in progress
    };
    struct PendingRoute {
        std::uint32_t tsiidx;
        PktioStreamIn::RouteChange change;
    };

    void handleInputTsAdd(const FPGAMonEvent_InputTSAdded& event);
    void handleInputTsRemove(const FPGAMonEvent_InputTSRemoved& event);
    void handleCpuRouteAdd(const FPGAMonEvent_CPUPIDAdded& event);
    void handleCpuRouteRemove(const FPGAMonEvent_CPUPIDRemoved& event);
    std::unique_ptr<PktioStreamIn> makeStream(const std::string& file, std::uint32_t tsiidx);
    void noteRoute(std::uint32_t tsiidx, PktioStreamIn::RouteChange change);
    void replayPendingRoutes(std::uint32_t tsiidx);

    std::shared_ptr<spdlog::logger> m_Logger;
    PacketDispatcher& m_Dispatcher;
    UriFileList m_Files;
    std::optional<Pacer> m_Pacer;  // with -c
    /// Held while a stream is added or removed, and while logStatus() reads the set on another thread.
    std::mutex m_StreamsLock;
    std::map<std::uint32_t, InputStream> m_ToCpuPktioStreams;            // by TSIIDX
    std::multiset<std::pair<std::uint32_t, std::string>> m_WithoutFile;  // TSIIDX and URI of other inputs
    std::vector<std::unique_ptr<PktioStreamIn>> m_Removed;  // by the change in progress, and ending
    std::vector<PendingRoute> m_PendingRoutes;              // of inputs without a stream, in order
    StreamMode m_Mode;
    bool m_IsLooped;  // files are repeated endlessly
    std::stop_token m_Stop;
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

}  // namespace Vel::Utils
