#include "tspacket_streaming/pktio_stream_manager.h"

#include <exception>
#include <utility>

#include <spdlog/logger.h>

#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/pcr_rate_adapter.h"

namespace Vel::Utils {

PktioStreamManager::PktioStreamManager(PacketDispatcher& dispatcher, StreamMode mode,
                                       const UriFileList& files, std::stop_token stop, PcrPacing pacing,
                                       bool isLooped)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_Dispatcher(dispatcher),
      m_Files(files),
      m_Mode(mode),
      m_IsLooped(isLooped),
      m_Stop(std::move(stop)) {
    if (mode == StreamMode::PcrRate && pacing == PcrPacing::Clock) {
        m_Pacer.emplace(dispatcher).start();
    }
    Log::debug(*m_Logger, "Create PktioStreamManager");
}

PktioStreamManager::~PktioStreamManager() {
    Log::debug(*m_Logger, "Destroy PktioStreamManager");
    m_PendingRoutes.clear();
    for (auto& [tsiidx, input] : m_ToCpuPktioStreams) {
        input.stream->requestStop();
    }
    for (auto& [tsiidx, input] : m_ToCpuPktioStreams) {
        input.stream->stop();
    }
    if (m_Logger->should_log(spdlog::level::debug)) {
        logStatus();
    }
    m_ToCpuPktioStreams.clear();
}

void PktioStreamManager::logStatus() {
    const std::lock_guard lock(m_StreamsLock);
    std::uint32_t routes = 0;
    for (auto& [tsiidx, input] : m_ToCpuPktioStreams) {
        input.stream->logStatus(input.uri);
        routes += input.stream->getRouteCount();
    }
    for (const auto& [tsiidx, uri] : m_WithoutFile) {
        Log::info(*m_Logger,
                  "Status: tsiidx={} uri={} file=- state=nofile read=0 written=0 held=0 percent=- rate=0",
                  tsiidx, uri);
    }
    const auto up = std::chrono::steady_clock::now() - m_Start;
    Log::info(*m_Logger, "Status: inputs={} routes={} records={} seconds={}",
              m_ToCpuPktioStreams.size() + m_WithoutFile.size(), routes, m_Dispatcher.getRecordCount(),
              std::chrono::floor<std::chrono::seconds>(up).count());
}

void PktioStreamManager::handleEvent(std::unique_ptr<FPGAMonEvent> event) {
    const auto apply = [&]<typename Event>(void (PktioStreamManager::*handle)(const Event&)) {
        const auto& change = static_cast<const Event&>(*event);
        try {
            (this->*handle)(change);
        } catch (const std::exception& e) {
            Log::error(*m_Logger, "Cannot apply this change of TSIIDX {}: {}", change.getTSIIDX(), e.what());
        }
    };
    switch (event->getType()) {
        case FPGAMonEventType::InputTSAdded:
            return apply(&PktioStreamManager::handleInputTsAdd);
        case FPGAMonEventType::InputTSRemoved:
            return apply(&PktioStreamManager::handleInputTsRemove);
        case FPGAMonEventType::CPUPIDAdded:
            return apply(&PktioStreamManager::handleCpuRouteAdd);
        case FPGAMonEventType::CPUPIDRemoved:
            return apply(&PktioStreamManager::handleCpuRouteRemove);
    }
}

void PktioStreamManager::handleChangeEnd() {
    m_Removed.clear();  // all of them have been asked to stop
    for (auto& [tsiidx, input] : m_ToCpuPktioStreams) {
        if (!input.routes.empty()) {
            input.stream->announceChange();
        }
    }
    for (auto& [tsiidx, input] : m_ToCpuPktioStreams) {
        if (input.routes.empty()) {
            continue;
        }
        try {
            input.stream->changeRoutes(input.routes);
        } catch (const std::exception& e) {
            Log::error(*m_Logger, "Cannot start the stream of TSIIDX {}; the next route will retry: {}",
                       tsiidx, e.what());
        }
        input.routes.clear();
    }
}

void PktioStreamManager::handleInputTsAdd(const FPGAMonEvent_InputTSAdded& event) {
    const std::uint32_t tsiidx = event.getTSIIDX();
    Log::info(*m_Logger, "Detected added input TS: {} @ TSIIDX {}", event.getUri(), tsiidx);
    const auto file = m_Files.find(event.getUri());
    if (file == m_Files.end() || file->second.empty()) {
        Log::debug(*m_Logger, "No file is given for {} @ TSIIDX {}", event.getUri(), tsiidx);
        const std::lock_guard lock(m_StreamsLock);
        m_WithoutFile.emplace(tsiidx, event.getUri());
        return;
    }
    if (const auto playing = m_ToCpuPktioStreams.find(tsiidx); playing != m_ToCpuPktioStreams.end()) {
        Log::warning(*m_Logger, "Input TS {} is not played: TSIIDX {} already plays {}", event.getUri(),
                     tsiidx, playing->second.uri);
        return;
    }
    auto stream = makeStream(file->second, tsiidx);
    if (m_IsLooped) {
        stream->loop();
    }
    {
        const std::lock_guard lock(m_StreamsLock);
        m_ToCpuPktioStreams.emplace(tsiidx, InputStream{event.getUri(), std::move(stream), {}});
    }
    replayPendingRoutes(tsiidx);
}

std::unique_ptr<PktioStreamIn> PktioStreamManager::makeStream(const std::string& file, std::uint32_t tsiidx) {
    if (m_Pacer) {
        return std::make_unique<PktioStreamIn>(file, tsiidx, *m_Pacer, m_Dispatcher, m_Stop);
    }
    std::unique_ptr<IRateAdapter> adapter;
    if (m_Mode == StreamMode::PcrRate) {
        adapter = std::make_unique<PCRRateAdapter>(m_Stop, m_IsLooped);
    } else {
        adapter = std::make_unique<MaxRateAdapter>();
    }
    return std::make_unique<PktioStreamIn>(file, tsiidx, std::move(adapter), m_Dispatcher, m_Stop);
}

void PktioStreamManager::handleInputTsRemove(const FPGAMonEvent_InputTSRemoved& event) {
    Log::info(*m_Logger, "Detected removed input TS: {} @ TSIIDX {}", event.getUri(), event.getTSIIDX());
    const std::lock_guard lock(m_StreamsLock);
    m_WithoutFile.extract({event.getTSIIDX(), event.getUri()});
    if (auto removed = m_ToCpuPktioStreams.extract(event.getTSIIDX())) {
        removed.mapped().stream->requestStop();
        m_Removed.push_back(std::move(removed.mapped().stream));
    }
}

void PktioStreamManager::handleCpuRouteAdd(const FPGAMonEvent_CPUPIDAdded& event) {
    Log::info(*m_Logger, "Detected added CPU route of PID {} from TSIIDX {}", event.getPID(),
              event.getTSIIDX());
    noteRoute(event.getTSIIDX(), {event.getPID(), true});
}

void PktioStreamManager::handleCpuRouteRemove(const FPGAMonEvent_CPUPIDRemoved& event) {
    Log::info(*m_Logger, "Detected removed CPU route of PID {} from TSIIDX {}", event.getPID(),
              event.getTSIIDX());
    noteRoute(event.getTSIIDX(), {event.getPID(), false});
}

void PktioStreamManager::noteRoute(std::uint32_t tsiidx, PktioStreamIn::RouteChange change) {
    const auto input = m_ToCpuPktioStreams.find(tsiidx);
    if (input == m_ToCpuPktioStreams.end()) {
        m_PendingRoutes.push_back({tsiidx, change});
    } else {
        input->second.routes.push_back(change);
    }
}

/// Handles the routes that arrived before their input again, in the order in which they arrived.
void PktioStreamManager::replayPendingRoutes(std::uint32_t tsiidx) {
    for (const PendingRoute& route : m_PendingRoutes) {
        if (route.tsiidx == tsiidx && route.change.isRouted) {
            handleCpuRouteAdd({tsiidx, route.change.pid});
        } else if (route.tsiidx == tsiidx) {
            handleCpuRouteRemove({tsiidx, route.change.pid});
        }
    }
    std::erase_if(m_PendingRoutes, [&](const PendingRoute& route) { return route.tsiidx == tsiidx; });
}

}  // namespace Vel::Utils
