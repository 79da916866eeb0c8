#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <variant>

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
                       std::stop_token stop = {});
    /// Pending routes go first, then the streams end.
    ~PktioStreamManager() override;

    /// Never throws. What an event cannot get, a thread or memory, is logged, and nothing else suffers.
    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override;
    void handleChangeBegin() override { m_InChange = true; }
    void handleChangeEnd() override;

private:
    using RouteEvent = std::variant<FPGAMonEvent_CPUPIDAdded, FPGAMonEvent_CPUPIDRemoved>;
    struct InputStream {
        std::string uri;
        std::unique_ptr<PktioStreamIn> stream;
    };
    /// A stream is held while the routes of one change are opened and closed on it one after the other: the
    /// hardware sees them change at once, so a stream that starts plays all of them from its first packet on,
    /// and a route that is only rewritten loses no packet. Never more than one is held, so no stream waits
    /// for another one's batch.
    struct RoutedStream {
        RoutedStream(std::uint32_t index, PktioStreamIn& stream) : tsiidx(index), hold(stream) {}
        std::uint32_t tsiidx;
        PktioStreamIn::ReleaseHold hold;
    };

    void dispatchEvent(const FPGAMonEvent& event) noexcept;
    void handleInputTsAdd(const FPGAMonEvent_InputTSAdded& event);
    void handleInputTsRemove(const FPGAMonEvent_InputTSRemoved& event);
    void handleCpuRouteAdd(const FPGAMonEvent_CPUPIDAdded& event);
    void handleCpuRouteRemove(const FPGAMonEvent_CPUPIDRemoved& event);
    template <typename RouteEventKind>
    PktioStreamIn* findStreamOrKeep(const RouteEventKind& event);
    void replayPendingRoutes(std::uint32_t tsiidx);

    std::shared_ptr<spdlog::logger> m_Logger;
    PacketDispatcher& m_Dispatcher;
    UriFileList m_Files;
    std::unordered_map<std::uint32_t, InputStream> m_ToCpuPktioStreams;  // by TSIIDX
    bool m_InChange = false;
    std::optional<RoutedStream> m_RoutedStream;  // only within a change
    std::list<RouteEvent> m_PendingRoutes;       // of inputs without stream, as they arrived
    StreamMode m_Mode;
    std::stop_token m_Stop;
};

}  // namespace Vel::Utils
