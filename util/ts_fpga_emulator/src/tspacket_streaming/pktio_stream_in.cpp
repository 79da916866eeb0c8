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
      m_IsPaced(!m_RateAdapter || m_RateAdapter->getMaxBufferedPackets() > 1),
      m_Dispatcher(dispatcher) {
    m_PidFilter.blockAll();
    Log::debug(*m_Logger, "Create PktioStreamIn");
}

PktioStreamIn::PktioStreamIn(const std::string& fileName, std::uint32_t tsiidx, Pacer& pacer,
                             PacketDispatcher& dispatcher, std::stop_token stop)
    : PktioStreamIn(fileName, tsiidx, nullptr, dispatcher, std::move(stop)) {
    pacer.add();
    m_Pacer = &pacer;
}

PktioStreamIn::~PktioStreamIn() {
    Log::debug(*m_Logger, "Destroy PktioStreamIn");
    stop();
    Log::debug(*m_Logger, "Joined with PktioStreamIn streaming thread");
}

void PktioStreamIn::stop() {
    m_Stop.request_stop();
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
    if (Pacer* const pacer = std::exchange(m_Pacer, nullptr)) {
        pacer->remove(m_DueInput);
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
    m_IsRouted.notify_one();
    if (startsThread && !m_Thread.joinable()) {
        m_Thread = std::jthread(&PktioStreamIn::streamThread, this);
    }
}

void PktioStreamIn::streamThread() noexcept {
    try {
        m_Status.setState(StreamStatus::State::Playing);
        ::pthread_setname_np(::pthread_self(), fmt::format("tsiidx-{}", m_TSIIDX).c_str());
        // A relative sleep, of which each batch has one, overshoots by the timer slack: 50 us by default.
        ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        Log::debug(*m_Logger, "Starting stream thread. Streaming packets from file {} to TSIIDX {}",
                   m_InputFile.getName(), m_TSIIDX);
        if (m_Status.pass > 0 && !m_InputFile.isFeed()) {
            m_Loop = std::make_unique<Ts::StreamLoop>();
        }
        m_Pacer == nullptr ? playAdapted() : playClocked();
        Log::debug(*m_Logger, "Stopping packet stream thread for TSIIDX {} with file {}", m_TSIIDX,
                   m_InputFile.getName());
    } catch (...) {
        const CppUtil::Lock lock(m_FilterLock);
        failWithCurrentException();
    }
    freeBuffers();
}

/// Those of a stream that has ended: it may stay in the table for long.
void PktioStreamIn::freeBuffers() noexcept {
    const CppUtil::Lock lock(m_FilterLock);
    m_NextDue = 0;
    std::vector<ClockSchedule::TimedPacket>().swap(m_Due);
    std::vector<Ts::LowlevInTSPacket>().swap(m_Buffers);
    m_PacketQueue.clear();
}

/// An error ends this stream alone. The streaming thread and the pacer may both find one.
void PktioStreamIn::failWithCurrentException() noexcept {
    try {
        throw;
    } catch (const CppUtil::IOError& e) {
        fail(e.what(), e.getReason());
    } catch (const std::exception& e) {
        fail(e.what(), {});
    }
}

void PktioStreamIn::fail(const char* what, const std::string& reason) noexcept {
    if (const char* text = m_Status.setFailed(what, reason)) {
        Log::error(*m_Logger, "Stream of TSIIDX {} failed: {}", m_TSIIDX, text);
    }
    m_NextDue = m_Due.size();
    m_Stop.request_stop();
}

/// The path of a packet that is not clocked: file, buffer, queue, rate adapter, PID filter, data device.
void PktioStreamIn::playAdapted() {
    Run run{std::unique_lock(m_FilterLock, std::defer_lock), FairTurn(m_Dispatcher.getWriteLock())};
    while (!m_Stop.stop_requested()) {
        if (needsRoute()) {
            run.end();
            waitForRoute();
        }
        if (!m_InputFile.isReady(Ts::TS_PACKET_SIZE + 1)) {
            run.end();  // nobody else waits for the file
        }
        if (m_HeldCount == m_PacketQueue.size()) {
            m_PacketQueue.push_back(createPacket());
        }
        Ts::LowlevInTSPacket& packet = m_PacketQueue[m_HeldCount];
        if (!readPacket(packet)) {
            // The adapter has not seen a last packet, so what it still holds is dropped.
            finish(m_HeldCount);
            return;
        }
        ++m_HeldCount;
        const bool last = !m_Loop && m_InputFile.isAtEnd();
        const std::int32_t answer = m_RateAdapter->bufferPacket(packet, last);
        if (answer == IRateAdapter::DISCARD_OLDEST) {
            removeOldest();
        } else if (answer > 0) {
            release(answer, run);
        }
        if (last) {
            finish(m_HeldCount);
            return;
        }
    }
}

void PktioStreamIn::Run::end() {
    device.end();
    if (filter.owns_lock()) {
        filter.unlock();
    }
}

/// Its header is written once: it stays that of this stream when the buffer is used again.
Ts::LowlevInTSPacket PktioStreamIn::createPacket() const {
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    Ts::writeRecordHeader(packet.getWriteDataPtr(), m_TSIIDX);
    return packet;
}

bool PktioStreamIn::readPacket(Ts::LowlevInTSPacket& packet) {
    const std::span<std::uint8_t, Ts::TS_PACKET_SIZE> bytes(packet.getDataPtr(), Ts::TS_PACKET_SIZE);
    while (!m_InputFile.readPacket(bytes)) {
        if (!m_Loop || !startNextPass()) {
            return false;
        }
    }
    if (bytes.front() != Ts::SYNC_BYTE && !m_IsNoSyncReported) {
        reportNoSync();
    }
    m_Status.packetsRead.increment();
    if (m_Loop) {
        m_Loop->continuePacket(packet);
    }
    return true;
}

void PktioStreamIn::reportNoSync() {
    const std::size_t distance = m_InputFile.findSyncDistance();
    const bool isOther = distance > Ts::TS_PACKET_SIZE;  // with more than the packets in it
    Log::warning(
        *m_Logger, "TSIIDX {}: packet {} of {} does not start with the sync byte 0x47{}", m_TSIIDX,
        m_Status.packetsRead.load() + 1, m_InputFile.getName(),
        isOther ? fmt::format("; its packets take {} bytes, not {}", distance, Ts::TS_PACKET_SIZE) : "");
    m_IsNoSyncReported = true;
}

/// False on a stop request, and after a pass without a whole packet, which is the last one.
bool PktioStreamIn::startNextPass() {
    const std::uint64_t read = m_Status.packetsRead.load();
    if (m_Stop.stop_requested() || read == m_Status.packetsBeforePass) {
        return false;
    }
    if (m_InputFile.hasIncompletePacket() && !std::exchange(m_IsIncompleteReported, true)) {
        Log::warning(*m_Logger, "TSIIDX {}: {} ends in the middle of a packet; skipping the rest of it",
                     m_TSIIDX, m_InputFile.getName());
    }
    if (!m_Loop->endPass() && !std::exchange(m_IsLengthReported, true)) {
        Log::warning(*m_Logger, "TSIIDX {}: no two PCRs of {} give its length; its clock is not continued",
                     m_TSIIDX, m_InputFile.getName());
    }
    m_Status.packetsBeforePass = read;
    ++m_Status.pass;
    m_InputFile.rewind();
    return true;
}

/// A looped stream that nothing paces would use a core to play nothing.
bool PktioStreamIn::needsRoute() const {
    return m_Loop && m_Status.routeCount == 0 && !(m_IsPaced && m_Loop->hasLength());
}

void PktioStreamIn::waitForRoute() {
    std::unique_lock lock(m_FilterLock);
    m_IsRouted.wait(lock, m_Stop.get_token(), [this] { return m_Status.routeCount > 0; });
}

/// After the last packet of the file.
void PktioStreamIn::finish(std::size_t droppedPackets) {
    if (m_Stop.stop_requested()) {
        return;
    }
    m_Status.setState(StreamStatus::State::Finished);
    if (m_Loop) {
        Log::warning(*m_Logger, "TSIIDX {}: {} has no whole packet left; dropping {} held packets", m_TSIIDX,
                     m_InputFile.getName(), droppedPackets);
        return;
    }
    if (m_Status.pass > 0) {
        Log::warning(*m_Logger, "TSIIDX {}: {} is not a plain file, so it was played once", m_TSIIDX,
                     m_InputFile.getName());
    }
    if (droppedPackets > 0) {
        Log::warning(*m_Logger, "{} ends in the middle of a packet; dropping {} packets held for TSIIDX {}",
                     m_InputFile.getName(), droppedPackets, m_TSIIDX);
    }
}

/// A thread that takes the filter lock again and again would usually have it back before a waiting routing
/// call wakes up. Without a waiter this costs one load.
void PktioStreamIn::letRoutingCallGoFirst() {
    if (m_RoutingWaits) {
        m_RoutingWaits.wait(true);
    }
}

/// Holds the filter lock through the whole release, including its pacing: a route never changes within one.
/// At full rate, the lock and the device are kept for the next packet.
void PktioStreamIn::release(std::int32_t count, Run& run) {
    if (m_RoutingWaits) {
        run.end();
        letRoutingCallGoFirst();
    }
    if (!run.filter.owns_lock()) {
        run.filter.lock();
    }
    m_FilterLock.assertHeld();
    for (; count > 0; --count) {
        m_RateAdapter->delayPacket();
        Ts::LowlevInTSPacket& oldest = m_PacketQueue.front();
        if (m_IsPaced ? writeInRelease(oldest) : writeInRun(oldest, run)) {
            m_Status.packetsWritten.increment();
        }
        removeOldest();
    }
    if (m_IsPaced) {
        run.end();
    }
}

/// Its buffer becomes the last one that is free. The only packet stays where the next one is read.
void PktioStreamIn::removeOldest() {
    if (--m_HeldCount > 0) {
        m_PacketQueue.push_back(std::move(m_PacketQueue.front()));
        m_PacketQueue.pop_front();
    }
    m_Status.packetsReleased.increment();
}

bool PktioStreamIn::writeInRelease(Ts::LowlevInTSPacket& packet) {
    if (m_IsOutputOver || !m_PidFilter.isPidPassed(packet.getPid())) {
        return false;
    }
    const bool isWritten = m_Dispatcher.dispatch(packet, m_Stop.get_token());
    m_IsOutputOver = !isWritten && m_Stop.stop_requested();
    return isWritten;
}

/// Waits for the device only without the filter lock, so that routes can change meanwhile; and waits for a
/// routing call only without the device.
bool PktioStreamIn::writeInRun(Ts::LowlevInTSPacket& packet, Run& run) {
    using Outcome = PacketDispatcher::Outcome;
    bool isWritten = false;
    while (!isWritten && !m_IsOutputOver && m_PidFilter.isPidPassed(packet.getPid())) {
        if (run.device.isTaken()) {
            const Outcome outcome = m_Dispatcher.tryDispatch(packet);
            isWritten = outcome == Outcome::Written || outcome == Outcome::Started;
            if (outcome == Outcome::Written || outcome == Outcome::Lost) {
                run.device.endIfOver();
                break;
            }
        }
        run.filter.unlock();
        const std::stop_token stop = m_Stop.get_token();
        m_IsOutputOver = !(run.device.isTaken() ? m_Dispatcher.waitForDevice(stop) : run.device.begin(stop));
        if (!run.filter.try_lock()) {
            run.device.end();
            run.filter.lock();
        }
    }
    return isWritten;
}

}  // namespace Vel::Utils
