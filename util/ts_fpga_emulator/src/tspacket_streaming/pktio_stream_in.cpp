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
      m_Shutdown(std::move(stop), [this] { m_Stop.request_stop(); }),
      m_InputFile(fileName, m_Stop.get_token()),
      m_RateAdapter(std::move(adapter)),
      m_Dispatcher(dispatcher) {
    m_PidFilter.blockAll();
    Log::debug(*m_Logger, "Create PktioStreamIn");
}

PktioStreamIn::~PktioStreamIn() {
    Log::debug(*m_Logger, "Destroy PktioStreamIn");
    stop();
    Log::debug(*m_Logger, "Joined with PktioStreamIn streaming thread");
}

void PktioStreamIn::stop() {
    if (m_Thread.joinable()) {
        m_Stop.request_stop();
        m_Thread.join();
    }
}

void PktioStreamIn::changeRoutes(std::span<const RouteChange> changes) {
    for (const auto& [pid, isRouted] : changes) {
        if (isRouted) {
            Log::debug(*m_Logger, "Add PID {} to stream", pid);
        } else {
            Log::debug(*m_Logger, "Remove PID {} from stream", pid);
        }
    }
    m_RoutingWaits = true;
    const CppUtil::Lock lock(m_FilterLock);
    m_RoutingWaits = false;
    m_RoutingWaits.notify_one();
    bool startsThread = false;
    for (const auto& [pid, isRouted] : changes) {
        m_Status.routeCount -= m_PidFilter.isPidPassed(pid) ? 1 : 0;
        isRouted ? m_PidFilter.addPid(pid) : m_PidFilter.removePid(pid);
        m_Status.routeCount += m_PidFilter.isPidPassed(pid) ? 1 : 0;
        startsThread |= isRouted;
    }
    if (startsThread && !m_Thread.joinable()) {
        m_Thread = std::jthread(&PktioStreamIn::streamThread, this);
    }
}

/// An error ends this stream alone.
void PktioStreamIn::streamThread() noexcept {
    try {
        m_Status.setState(StreamStatus::State::Playing);
        ::pthread_setname_np(::pthread_self(), fmt::format("tsiidx-{}", m_TSIIDX).c_str());
        playFile();
    } catch (const CppUtil::IOError& e) {
        fail(e.what(), e.getReason());
    } catch (const std::exception& e) {
        fail(e.what(), {});
    }
}

void PktioStreamIn::fail(const char* what, const std::string& reason) noexcept {
    Log::error(*m_Logger, "Stream of TSIIDX {} failed: {}", m_TSIIDX, m_Status.setFailed(what, reason));
}

/// The path of every packet: file, buffer, queue, rate adapter, PID filter, data device.
void PktioStreamIn::playFile() {
    Log::debug(*m_Logger, "Starting stream thread. Streaming packets from file {} to TSIIDX {}",
               m_InputFile.getName(), m_TSIIDX);
    // A relative sleep, of which each batch has one, overshoots by the timer slack: 50 us by default.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    while (!m_Stop.stop_requested()) {
        auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
        Ts::writeRecordHeader(packet.getWriteDataPtr(), m_TSIIDX);
        if (!m_InputFile.readPacket(
                std::span<std::uint8_t, Ts::TS_PACKET_SIZE>(packet.getDataPtr(), Ts::TS_PACKET_SIZE))) {
            finish();
            continue;
        }
        m_Status.packetsRead.increment();
        const bool last = m_InputFile.isAtEnd();
        const auto& queued = m_PacketQueue.emplace_back(std::move(packet));
        const std::int32_t answer = m_RateAdapter->bufferPacket(queued, last);
        if (answer == IRateAdapter::DISCARD_OLDEST) {
            m_PacketQueue.pop_front();
            m_Status.packetsReleased.increment();
        } else if (answer == IRateAdapter::WHEN_DUE) {
            // Waits without holding the filter lock, so that routes can change at any time.
            while (const std::int32_t count = m_RateAdapter->waitUntilDue(m_Stop.get_token())) {
                release(count);
            }
        } else if (answer > 0) {
            release(answer);
        }
        if (last) {
            finish();
        }
    }
    Log::debug(*m_Logger, "Stopping packet stream thread for TSIIDX {} with file {}", m_TSIIDX,
               m_InputFile.getName());
}

/// Ends the thread's loop. If the file ends in the middle of a packet, the adapter never sees `last`, so what
/// it still holds is dropped.
void PktioStreamIn::finish() {
    if (m_Stop.stop_requested()) {
        return;
    }
    m_Status.setState(StreamStatus::State::Finished);
    m_Stop.request_stop();
    if (!m_PacketQueue.empty()) {
        Log::warning(*m_Logger, "{} ends in the middle of a packet; dropping {} packets held for TSIIDX {}",
                     m_InputFile.getName(), m_PacketQueue.size(), m_TSIIDX);
    }
}

/// Holds the filter lock through the whole release, including its pacing: a route never changes within one.
void PktioStreamIn::release(std::int32_t count) {
    // At full rate, this thread takes the lock for every packet and would usually re-acquire it before a
    // waiting routing call wakes up, so it lets that call go first. Without a waiter this costs one load.
    if (m_RoutingWaits) {
        m_RoutingWaits.wait(true);
    }
    const CppUtil::Lock lock(m_FilterLock);
    for (; count > 0; --count) {
        m_RateAdapter->delayPacket();
        Ts::LowlevInTSPacket& oldest = m_PacketQueue.front();
        if (m_PidFilter.isPidPassed(oldest.getPid()) && m_Dispatcher.dispatch(oldest)) {
            m_Status.packetsWritten.increment();
        }
        m_PacketQueue.pop_front();
        m_Status.packetsReleased.increment();
    }
}

}  // namespace Vel::Utils
