#include "tspacket_streaming/pktio_stream_in.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <exception>
#include <span>
#include <utility>

#include "vel/cpp_utils/error.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

PktioStreamIn::PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx,
                             std::unique_ptr<IRateAdapter>&& adapter, PacketDispatcher& dispatcher,
                             std::stop_token stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_TSIIDX(tsiidx),
      m_ProgramStop(std::move(stop)),
      m_InputFile(fileName, [this] { return isStopped(); }),
      m_RateAdapter(std::move(adapter)),
      m_Dispatcher(dispatcher) {
    m_PidFilter.blockAll();
    Log::debug(*m_Logger, "Create PktioStreamIn");
}

PktioStreamIn::~PktioStreamIn() {
    Log::debug(*m_Logger, "Destroy PktioStreamIn");
    if (m_Thread.joinable()) {
        m_Stop = true;
        m_Thread.join();
    }
    Log::debug(*m_Logger, "Joined with PktioStreamIn streaming thread");
}

void PktioStreamIn::changeRoutes(std::span<const RouteChange> changes) {
    m_RoutingWaits = true;
    const std::lock_guard lock(m_FilterLock);
    m_RoutingWaits = false;
    m_RoutingWaits.notify_one();
    bool startsThread = false;
    for (const RouteChange& change : changes) {
        change.isRouted ? routePid(change.pid) : stopRoutePid(change.pid);
        startsThread |= change.isRouted;
    }
    if (startsThread && !m_Thread.joinable()) {
        m_Thread = std::thread(&PktioStreamIn::streamThread, this);
    }
}

void PktioStreamIn::routePid(std::uint32_t pid) {
    Log::debug(*m_Logger, "Add PID {} to stream", pid);
    m_PidFilter.addPid(pid);
}

void PktioStreamIn::stopRoutePid(std::uint32_t pid) {
    Log::debug(*m_Logger, "Remove PID {} from stream", pid);
    m_PidFilter.removePid(pid);
}

/// An error ends this stream alone.
void PktioStreamIn::streamThread() noexcept {
    try {
        ::pthread_setname_np(::pthread_self(), fmt::format("tsiidx-{}", m_TSIIDX).c_str());
        playFile();
    } catch (const CppUtil::IOError& e) {
        Log::error(*m_Logger, "Stream of TSIIDX {} has ended: {} [{}]", m_TSIIDX, e.what(), e.getReason());
    } catch (const std::exception& e) {
        Log::error(*m_Logger, "Stream of TSIIDX {} has ended: {}", m_TSIIDX, e.what());
    }
}

/// The path of every packet: file, buffer, queue, rate adapter, PID filter, data device.
void PktioStreamIn::playFile() {
    Log::debug(*m_Logger, "Starting stream thread. Streaming packets from file {} to TSIIDX {}",
               m_InputFile.getPath(), m_TSIIDX);
    // A relative sleep overshoots by the timer slack, 50 us by default, and each paced batch has one.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    while (!isStopped()) {
        prepare(packet);
        if (!m_InputFile.readPacket(
                std::span<std::uint8_t, Ts::TS_PACKET_SIZE>(packet.getDataPtr(), Ts::TS_PACKET_SIZE))) {
            reportDroppedPackets();
            m_Stop = true;
            continue;
        }
        const bool last = m_InputFile.isAtEnd();
        const auto& queued = m_PacketQueue.emplace_back(std::move(packet));
        const std::int32_t answer = m_RateAdapter->bufferPacket(queued, last);
        if (answer == IRateAdapter::DISCARD_OLDEST) {
            m_PacketQueue.pop_front();
        } else if (answer > 0) {
            release(answer);
        }
        if (last) {
            m_Stop = true;
        }
    }
    Log::debug(*m_Logger, "Stopping packet stream thread for TSIIDX {} with file {}", m_TSIIDX,
               m_InputFile.getPath());
}

/// A file that ends within a packet has no last packet, which would make the adapter release what it holds.
void PktioStreamIn::reportDroppedPackets() const {
    if (!isStopped() && !m_PacketQueue.empty()) {
        Log::warning(*m_Logger,
                     "{} ends within a packet: the {} packets that TSIIDX {} still held are dropped",
                     m_InputFile.getPath(), m_PacketQueue.size(), m_TSIIDX);
    }
}

void PktioStreamIn::prepare(Ts::LowlevInTSPacket& packet) const {
    if (packet.isDead()) {
        packet.reset();
    }
    Ts::writeRecordHeader(packet.getWriteDataPtr(), m_TSIIDX);
}

/// Holds the filter lock through the whole batch, pacing included, so that a route never changes within one.
void PktioStreamIn::release(std::int32_t count) {
    const auto lock = lockForRelease();
    for (; count > 0; --count) {
        m_RateAdapter->delayPacket();
        Ts::LowlevInTSPacket& oldest = m_PacketQueue.front();
        if (m_PidFilter.isPidPassed(oldest.getPid())) {
            m_Dispatcher.dispatch(oldest);
        }
        m_PacketQueue.pop_front();
    }
}

/// At full rate this thread takes the lock for every packet, and would mostly win it again before a waiting
/// routing call has woken up. So it lets that call pass first; otherwise this costs one load.
std::unique_lock<std::mutex> PktioStreamIn::lockForRelease() {
    if (m_RoutingWaits) {
        m_RoutingWaits.wait(true);
    }
    return std::unique_lock(m_FilterLock);
}

}  // namespace Vel::Utils
