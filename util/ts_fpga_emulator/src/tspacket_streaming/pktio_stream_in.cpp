#include "tspacket_streaming/pktio_stream_in.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <exception>
#include <new>
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
      m_InputFile(fileName, m_Stop.get_token()),
      m_RateAdapter(std::move(adapter)),
      m_Dispatcher(dispatcher),
      m_ProgramStop(std::move(stop), [this] { m_Stop.request_stop(); }) {
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
    for (const RouteChange& change : changes) {
        if (change.isRouted) {
            Log::debug(*m_Logger, "Add PID {} to stream", change.pid);
        } else {
            Log::debug(*m_Logger, "Remove PID {} from stream", change.pid);
        }
    }
    m_RoutingWaits = true;
    const CppUtil::Lock lock(m_FilterLock);
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
    m_RouteCount += m_PidFilter.isPidPassed(pid) ? 0 : 1;
    m_PidFilter.addPid(pid);
}

void PktioStreamIn::stopRoutePid(std::uint32_t pid) {
    m_RouteCount -= m_PidFilter.isPidPassed(pid) ? 1 : 0;
    m_PidFilter.removePid(pid);
}

/// An error ends this stream alone.
void PktioStreamIn::streamThread() noexcept {
    try {
        m_State = State::Playing;
        ::pthread_setname_np(::pthread_self(), fmt::format("tsiidx-{}", m_TSIIDX).c_str());
        playFile();
    } catch (const CppUtil::IOError& e) {
        fail(e.what(), e.getReason());
    } catch (const std::exception& e) {
        fail(e.what(), {});
    }
}

/// The text is kept for the status. Where there is no memory for that, the log alone has it.
void PktioStreamIn::fail(const char* what, const std::string& reason) noexcept {
    try {
        m_Failure = reason.empty() ? what : fmt::format("{} [{}]", what, reason);
    } catch (const std::bad_alloc&) {
    }
    Log::error(*m_Logger, "Stream of TSIIDX {} failed: {}", m_TSIIDX,
               m_Failure.empty() ? what : m_Failure.c_str());
    m_State = State::Failed;
}

void PktioStreamIn::logStatus(const std::string& uri) {
    static constexpr std::array STATES = {"waiting", "playing", "finished", "failed"};
    const State state = m_State;
    const std::uint64_t written = m_PacketsWritten.load();
    const std::uint64_t released = std::max(m_PacketsReleased.load(), written);
    const std::uint64_t read = std::max(m_PacketsRead.load(), released);
    const std::uint64_t size = m_InputFile.getSize();
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> elapsed = now - std::exchange(m_StatusTime, now);
    const std::uint64_t writtenSince = written - std::exchange(m_StatusWritten, written);
    Log::info(
        *m_Logger,
        "Status: tsiidx={} uri={} file={} state={} read={} written={} held={} percent={} rate={:.0f}{}{}",
        m_TSIIDX, uri, m_InputFile.getName(), STATES[static_cast<std::size_t>(state)], read, written,
        state == State::Playing ? read - released : 0,
        size == 0 ? "-"
                  : std::to_string(std::min<std::uint64_t>(read * Ts::TS_PACKET_SIZE * 100 / size, 100)),
        static_cast<double>(writtenSince) / elapsed.count(), state == State::Failed ? " reason=" : "",
        state == State::Failed ? m_Failure.c_str() : "");  // not a copy, for which there may be no memory
}

/// The path of every packet: file, buffer, queue, rate adapter, PID filter, data device.
void PktioStreamIn::playFile() {
    Log::debug(*m_Logger, "Starting stream thread. Streaming packets from file {} to TSIIDX {}",
               m_InputFile.getName(), m_TSIIDX);
    // A relative sleep overshoots by the timer slack, 50 us by default, and each paced batch has one.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    while (!isStopped()) {
        prepare(packet);
        if (!m_InputFile.readPacket(
                std::span<std::uint8_t, Ts::TS_PACKET_SIZE>(packet.getDataPtr(), Ts::TS_PACKET_SIZE))) {
            finish();
            continue;
        }
        m_PacketsRead.increment();
        const bool last = m_InputFile.isAtEnd();
        const auto& queued = m_PacketQueue.emplace_back(std::move(packet));
        const std::int32_t answer = m_RateAdapter->bufferPacket(queued, last);
        if (answer == IRateAdapter::DISCARD_OLDEST) {
            m_PacketQueue.pop_front();
            m_PacketsReleased.increment();
        } else if (answer == IRateAdapter::WHEN_DUE) {
            releaseWhenDue();
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

/// Ends the thread's loop. A file that ends within a packet has no last packet, which would make the adapter
/// release what it holds.
void PktioStreamIn::finish() {
    if (isStopped()) {
        return;  // before the end of the file
    }
    m_State = State::Finished;
    m_Stop.request_stop();
    if (!m_PacketQueue.empty()) {
        Log::warning(*m_Logger, "{} ends in the middle of a packet; dropping {} packets held for TSIIDX {}",
                     m_InputFile.getName(), m_PacketQueue.size(), m_TSIIDX);
    }
}

void PktioStreamIn::prepare(Ts::LowlevInTSPacket& packet) const {
    if (packet.isDead()) {
        packet.reset();
    }
    Ts::writeRecordHeader(packet.getWriteDataPtr(), m_TSIIDX);
}

/// Waits without the filter lock, so that routes can change at any time.
void PktioStreamIn::releaseWhenDue() {
    while (const std::int32_t count = m_RateAdapter->waitUntilDue(m_Stop.get_token())) {
        release(count);
    }
}

/// Holds the filter lock through the whole batch, pacing included, so that a route never changes within one.
void PktioStreamIn::release(std::int32_t count) {
    letRoutingPass();
    const CppUtil::Lock lock(m_FilterLock);
    for (; count > 0; --count) {
        m_RateAdapter->delayPacket();
        Ts::LowlevInTSPacket& oldest = m_PacketQueue.front();
        if (m_PidFilter.isPidPassed(oldest.getPid())) {
            if (m_Dispatcher.dispatch(oldest)) {
                m_PacketsWritten.increment();
            }
        }
        m_PacketQueue.pop_front();
        m_PacketsReleased.increment();
    }
}

/// At full rate this thread takes the lock for every packet, and would mostly win it again before a waiting
/// routing call has woken up. So it lets that call pass first; otherwise this costs one load.
void PktioStreamIn::letRoutingPass() const {
    if (m_RoutingWaits) {
        m_RoutingWaits.wait(true);
    }
}

}  // namespace Vel::Utils
