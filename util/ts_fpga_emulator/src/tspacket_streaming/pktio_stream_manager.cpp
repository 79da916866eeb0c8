#include "tspacket_streaming/pktio_stream_manager.h"

#include <exception>
#include <system_error>
#include <utility>

#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/pcr_rate_adapter.h"

namespace Vel::Utils {

namespace {

std::unique_ptr<IRateAdapter> makeRateAdapter(StreamMode mode, const std::stop_token& stop) {
    if (mode == StreamMode::PcrRate) {
        return std::make_unique<PCRRateAdapter>(stop);
    }
    return std::make_unique<MaxRateAdapter>();
}

}  // namespace

PktioStreamManager::PktioStreamManager(PacketDispatcher& dispatcher, StreamMode mode,
                                       const UriFileList& files, std::stop_token stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_Dispatcher(dispatcher),
      m_Files(files),
      m_Mode(mode),
      m_Stop(std::move(stop)) {
    Log::debug(*m_Logger, "Create PktioStreamManager");
}

PktioStreamManager::~PktioStreamManager() {
    Log::debug(*m_Logger, "Destroy PktioStreamManager");
    m_RoutedStream.reset();
    m_PendingRoutes.clear();
    m_ToCpuPktioStreams.clear();
}

void PktioStreamManager::handleEvent(std::unique_ptr<FPGAMonEvent> event) {
    dispatchEvent(*event);
}

void PktioStreamManager::handleChangeEnd() {
    m_InChange = false;
    m_RoutedStream.reset();
}

void PktioStreamManager::dispatchEvent(const FPGAMonEvent& event) noexcept {
    try {
        switch (event.getType()) {
            case FPGAMonEventType::InputTSAdded:
                handleInputTsAdd(static_cast<const FPGAMonEvent_InputTSAdded&>(event));
                break;
            case FPGAMonEventType::InputTSRemoved:
                handleInputTsRemove(static_cast<const FPGAMonEvent_InputTSRemoved&>(event));
                break;
            case FPGAMonEventType::CPUPIDAdded:
                handleCpuRouteAdd(static_cast<const FPGAMonEvent_CPUPIDAdded&>(event));
                break;
            case FPGAMonEventType::CPUPIDRemoved:
                handleCpuRouteRemove(static_cast<const FPGAMonEvent_CPUPIDRemoved&>(event));
                break;
        }
    } catch (const std::exception& e) {
        Log::error(*m_Logger, "This change of the tables is not followed: {}", e.what());
    }
}

void PktioStreamManager::handleInputTsAdd(const FPGAMonEvent_InputTSAdded& event) {
    Log::info(*m_Logger, "Detected added input TS: {} @ TSIIDX {}", event.getUri(), event.getTSIIDX());
    const auto file = m_Files.find(event.getUri());
    if (file == m_Files.end() || file->second.empty()) {
        return;
    }
    if (const auto playing = m_ToCpuPktioStreams.find(event.getTSIIDX());
        playing != m_ToCpuPktioStreams.end()) {
        Log::warning(*m_Logger, "Input TS {} is not played: TSIIDX {} already plays {}", event.getUri(),
                     event.getTSIIDX(), playing->second.uri);
        return;
    }
    auto stream = std::make_unique<PktioStreamIn>(file->second, event.getTSIIDX(),
                                                  makeRateAdapter(m_Mode, m_Stop), m_Dispatcher, m_Stop);
    m_ToCpuPktioStreams.emplace(event.getTSIIDX(), InputStream{event.getUri(), std::move(stream)});
    replayPendingRoutes(event.getTSIIDX());
}

void PktioStreamManager::handleInputTsRemove(const FPGAMonEvent_InputTSRemoved& event) {
    Log::info(*m_Logger, "Detected removed input TS: {} @ TSIIDX {}", event.getUri(), event.getTSIIDX());
    m_RoutedStream.reset();
    m_ToCpuPktioStreams.erase(event.getTSIIDX());
}

void PktioStreamManager::handleCpuRouteAdd(const FPGAMonEvent_CPUPIDAdded& event) {
    Log::info(*m_Logger, "Detected added CPU route of PID {} from TSIIDX {}", event.getPID(),
              event.getTSIIDX());
    PktioStreamIn* const stream = findStreamOrKeep(event);
    if (stream == nullptr) {
        return;
    }
    try {
        stream->routePid(event.getPID());
    } catch (const std::system_error& e) {
        Log::error(*m_Logger, "Stream of TSIIDX {} cannot start, the next route will try again: {}",
                   event.getTSIIDX(), e.what());
    }
}

void PktioStreamManager::handleCpuRouteRemove(const FPGAMonEvent_CPUPIDRemoved& event) {
    Log::info(*m_Logger, "Detected removed CPU route of PID {} from TSIIDX {}", event.getPID(),
              event.getTSIIDX());
    if (PktioStreamIn* const stream = findStreamOrKeep(event)) {
        stream->stopRoutePid(event.getPID());
    }
}

/// The stream that a route event is for, held until the change is complete; without one the event is kept for
/// it.
template <typename RouteEventKind>
PktioStreamIn* PktioStreamManager::findStreamOrKeep(const RouteEventKind& event) {
    const auto input = m_ToCpuPktioStreams.find(event.getTSIIDX());
    if (input == m_ToCpuPktioStreams.end()) {
        m_PendingRoutes.emplace_back(event);
        return nullptr;
    }
    PktioStreamIn& stream = *input->second.stream;
    if (m_InChange && (!m_RoutedStream || m_RoutedStream->tsiidx != event.getTSIIDX())) {
        m_RoutedStream.emplace(event.getTSIIDX(), stream);
    }
    return &stream;
}

/// Routes that arrived before their input are followed now, in the order of their arrival.
void PktioStreamManager::replayPendingRoutes(std::uint32_t tsiidx) {
    std::list<RouteEvent> due;
    for (auto route = m_PendingRoutes.begin(); route != m_PendingRoutes.end();) {
        const auto current = route++;
        if (std::visit([](const auto& event) { return event.getTSIIDX(); }, *current) == tsiidx) {
            due.splice(due.end(), m_PendingRoutes, current);
        }
    }
    for (const RouteEvent& route : due) {
        std::visit([this](const auto& event) { dispatchEvent(event); }, route);
    }
}

}  // namespace Vel::Utils
