// The clocked half of PktioStreamIn: its streaming thread reads ahead, and the pacer sends.

#include <algorithm>
#include <iterator>
#include <utility>

#include "tspacket_streaming/pktio_stream_in.h"

namespace Vel::Utils {

/// The path of a clocked packet: file, buffer, schedule, queue of the pacer. When it is due, releaseDue()
/// takes it from there to the PID filter and the data device.
void PktioStreamIn::playClocked() {
    constexpr std::chrono::milliseconds READ_AHEAD(250);
    const bool isFeed = m_InputFile.isFeed();
    ClockSchedule schedule(m_TSIIDX, isFeed, [this] { return m_Pacer->progress(); });
    std::size_t inPacer = 0;  // packets, at most
    bool isOverdue = false;   // what is held of a feed
    auto readUpTo = m_Pacer->now() + READ_AHEAD;
    while (!m_Stop.stop_requested()) {
        if (isFeed && !m_InputFile.isReady(Ts::TS_PACKET_SIZE)) {
            waitForFeed(schedule, isOverdue);
        }
        if (needsRoute()) {
            waitForRoute();
        }
        if (m_Buffers.empty()) {
            m_Buffers.push_back(createPacket());
        }
        if (!readPacket(m_Buffers.back())) {
            break;
        }
        schedule.add(std::move(m_Buffers.back()));
        m_Buffers.pop_back();
        const std::size_t timed = schedule.getTimedCount();
        bool isAhead = timed > 0 && schedule.hasPace() && schedule.getEnd() >= readUpTo;
        const bool isFull = inPacer + timed + schedule.getHeldCount() >= ClockSchedule::MAX_HELD_PACKETS;
        if (timed > 0 && (isFeed || inPacer == 0 || isAhead || isFull)) {
            inPacer = handOver(schedule.takeTimed());
        }
        while (!m_Stop.stop_requested() &&
               (isAhead || inPacer + schedule.getHeldCount() >= ClockSchedule::MAX_HELD_PACKETS)) {
            inPacer = waitForPacer(schedule.getEnd());
            readUpTo = m_Pacer->now() + READ_AHEAD;
            isAhead = false;
        }
    }
    if (m_Stop.stop_requested()) {
        return;
    }
    // What comes after the last PCR is dropped if the file ends in the middle of a packet.
    if (m_Loop || !m_InputFile.hasIncompletePacket()) {
        schedule.timeHeld();
    }
    handOver(schedule.takeTimed());
    std::unique_lock lock(m_FilterLock);
    m_PacerIsDone.wait(lock, m_Stop.get_token(), [this] { return isAllSent(); });
    lock.unlock();
    finish(schedule.getHeldCount());
}

/// Waits for data of a live feed. If its PCRs have stopped, what is held is not kept waiting for the next
/// one, except that data which is already there is read once more.
void PktioStreamIn::waitForFeed(ClockSchedule& schedule, bool& isOverdue) {
    using std::chrono::milliseconds;
    constexpr milliseconds MAX_HOLD(1000);
    if (schedule.getHeldCount() == 0) {
        return;
    }
    const auto held = std::chrono::floor<milliseconds>(m_Pacer->progress() - schedule.getHeldSince());
    const bool wasOverdue = std::exchange(isOverdue, held >= MAX_HOLD);
    if ((isOverdue && wasOverdue) ||
        !m_InputFile.waitForFeed(std::clamp(MAX_HOLD - held, milliseconds(1), MAX_HOLD))) {
        schedule.timeHeld();
        handOver(schedule.takeTimed());
        isOverdue = false;
    }
}

/// Gives the pacer packets to send, and takes back the buffers of those that it has sent. Returns how many it
/// has to send.
std::size_t PktioStreamIn::handOver(std::vector<ClockSchedule::TimedPacket> packets) {
    if (packets.empty()) {
        return 0;
    }
    const auto firstDue = packets.front().due;
    std::vector<ClockSchedule::TimedPacket> due;
    std::unique_lock lock(m_FilterLock);
    m_FilterLock.assertHeld();
    const std::size_t left = m_Due.size() - m_NextDue;
    due.reserve(left + packets.size());
    std::move(m_Due.end() - static_cast<std::ptrdiff_t>(left), m_Due.end(), std::back_inserter(due));
    std::ranges::move(packets, std::back_inserter(due));
    due.swap(m_Due);
    const std::size_t sent = std::exchange(m_NextDue, 0);
    lock.unlock();
    if (left == 0) {
        m_Pacer->schedule(m_DueInput, firstDue);
    }
    for (std::size_t i = 0; i < sent; ++i) {
        m_Buffers.push_back(std::move(due[i].packet));
    }
    return left + packets.size();
}

/// Waits until half of what has been read ahead is sent: so the thread rarely wakes up. Returns how many
/// packets the pacer has.
std::size_t PktioStreamIn::waitForPacer(std::chrono::nanoseconds readAheadEnd) {
    const auto isDone = [this] { return isAllSent(); };
    const auto ahead = readAheadEnd - m_Pacer->now();
    std::unique_lock lock(m_FilterLock);
    if (ahead > ahead.zero()) {
        m_PacerIsDone.wait_until(lock, m_Stop.get_token(), m_Pacer->toSteady(readAheadEnd - ahead / 2),
                                 isDone);
    } else {
        m_PacerIsDone.wait(lock, m_Stop.get_token(), isDone);
    }
    m_FilterLock.assertHeld();
    return m_Due.size() - m_NextDue;
}

bool PktioStreamIn::isAllSent() const {
    m_FilterLock.assertHeld();
    return m_NextDue == m_Due.size();
}

/// From the pacer's queue to the PID filter and the data device.
Pacer::Rest PktioStreamIn::releaseDue(std::chrono::nanoseconds limit) noexcept {
    using Outcome = PacketDispatcher::Outcome;
    constexpr int GROUP_PACKETS = 100;  // then a routing call or a removal can take effect
    letRoutingCallGoFirst();
    const CppUtil::Lock lock(m_FilterLock);
    static_cast<void>(m_Dispatcher.getWriteLock().lock({}));  // hardly ever waits: only the pacer writes
    const std::lock_guard device(m_Dispatcher.getWriteLock(), std::adopt_lock);
    Pacer::Rest rest;
    try {
        for (int n = 0; n < GROUP_PACKETS && !rest.isDeviceFull && m_NextDue < m_Due.size() &&
                        m_Due[m_NextDue].due <= limit;
             ++n) {
            if (m_PidFilter.isPidPassed(m_Due[m_NextDue].pid)) {
                const Outcome outcome = m_Dispatcher.tryDispatch(m_Due[m_NextDue].packet);
                rest.isDeviceFull = outcome == Outcome::Started || outcome == Outcome::DeviceFull;
                if (outcome == Outcome::DeviceFull) {
                    break;
                }
                if (outcome != Outcome::Lost) {
                    m_Status.packetsWritten.increment();
                }
            }
            ++m_NextDue;
            m_Status.packetsReleased.increment();
        }
    } catch (...) {
        failWithCurrentException();
    }
    if (m_NextDue == m_Due.size()) {
        m_PacerIsDone.notify_all();
    } else {
        rest.nextDue = m_Due[m_NextDue].due;
    }
    return rest;
}

}  // namespace Vel::Utils
