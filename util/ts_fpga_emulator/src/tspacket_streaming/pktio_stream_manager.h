#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

#include "fpga_monitoring/fpga_mon_event.h"
#include "fpga_monitoring/ifpga_event_consumer.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "tspacket_streaming/stream_mode.h"
#include "tspacket_streaming/uri_file_list.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

/// Reacts to the tables: an added input whose URI has a file gets a stream, a removed one loses it, CPU
/// routes open and close PIDs. Routes of an input that has no stream wait until it has one. Every handler
/// runs on the monitor thread, so nothing here is locked; destroyed on the main thread, when that thread is
/// gone.
class PktioStreamManager final : public IFPGAEventConsumer {
public:
    static std::string loggerName() {
        return Log::makeLoggerName(__FILE__, "Vel::Utils::PktioStreamManager");
    }

    /// @param dispatcher must outlive the manager
    /// @param stop the program's end, for every stream
    PktioStreamManager(PacketDispatcher& dispatcher, StreamMode mode, const UriFileList& files,
                       std::stop_token stop = {}, PcrPacing pacing = PcrPacing::Batches);
    /// Pending routes go first, then the streams end. Where debug lines are logged, so is the status then.
    ~PktioStreamManager() override;

    /// Never throws. An event that cannot be followed, because memory is short for example, is logged, and
    /// nothing else suffers.
    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override;
    /// Gives every stream the routes that the change brought it, all at once: the hardware, too, sees them
    /// change together. So a stream that starts plays all of them from its first packet, and a row that is
    /// only rewritten, a removal and an addition, loses no packet.
    void handleChangeEnd() override;

    /// Logs a line of key=value pairs about each input and one about the program; zeptfem(8) explains them.
    /// Any one thread at a time, whatever the monitor thread is doing.
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
    std::unique_ptr<IRateAdapter> makeRateAdapter(std::uint32_t tsiidx) const;
    void noteRoute(std::uint32_t tsiidx, PktioStreamIn::RouteChange change);
    void replayPendingRoutes(std::uint32_t tsiidx);

    std::shared_ptr<spdlog::logger> m_Logger;
    PacketDispatcher& m_Dispatcher;
    UriFileList m_Files;
    /// Held while a stream is added or taken out, and while another thread than the monitor's looks at them.
    std::mutex m_StreamsLock;
    std::map<std::uint32_t, InputStream> m_ToCpuPktioStreams;  // by TSIIDX
    std::vector<PendingRoute> m_PendingRoutes;                 // of inputs without a stream, in order
    StreamMode m_Mode;
    PcrPacing m_Pacing;
    std::stop_token m_Stop;
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

}  // namespace Vel::Utils
