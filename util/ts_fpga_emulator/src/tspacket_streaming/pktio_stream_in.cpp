#include "tspacket_streaming/pktio_stream_in.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <exception>
#include <span>
#include <utility>

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

void PktioStreamIn::routePid(std::uint32_t pid) {
    Log::debug(*m_Logger, "Add PID {} to stream", pid);
    const auto lock = lockForRouting();
    m_PidFilter.addPid(pid);
    if (!m_Thread.joinable()) {
        m_Thread = std::thread(&PktioStreamIn::streamThread, this);
    }
}

void PktioStreamIn::stopRoutePid(std::uint32_t pid) {
    Log::debug(*m_Logger, "Remove PID {} from stream", pid);
    const auto lock = lockForRouting();
    m_PidFilter.removePid(pid);
}

/// An error ends this stream alone.
void PktioStreamIn::streamThread() noexcept {
    try {
        ::pthread_setname_np(::pthread_self(), fmt::format("tsiidx-{}", m_TSIIDX).c_str());
        playFile();
    } catch (const std::exception& e) {
        Log::error(*m_Logger, "Stream of TSIIDX {} has ended: {}", m_TSIIDX, e.what());
    }
}

/// The way of every packet: file, buffer, queue, rate adapter, PID filter, data device.
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

/// A file that ends within a packet has no last packet that would let the adapter release what it holds.
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

std::unique_lock<std::mutex> PktioStreamIn::lockForRouting() {
    ++m_RoutingCalls;
    std::unique_lock lock(m_FilterLock);
    endRoutingCall();
    return lock;
}

void PktioStreamIn::endRoutingCall() {
    --m_RoutingCalls;
    m_RoutingCalls.notify_one();
}

/// At full rate this thread takes the lock for every packet, and would mostly win it again before a waiting
/// routing call has woken up. So it lets those, and holds, pass first; otherwise this costs one load. It
/// looks under the lock: a hold that began just before could else be overtaken by this batch after its first
/// change.
std::unique_lock<std::mutex> PktioStreamIn::lockForRelease() {
    std::unique_lock lock(m_FilterLock);
    for (int waiting = m_RoutingCalls; waiting != 0; waiting = m_RoutingCalls) {
        lock.unlock();
        m_RoutingCalls.wait(waiting);
        lock.lock();
    }
    return lock;
}

}  // namespace Vel::Utils
