#include "tspacket_streaming/clock_schedule.h"

#include <algorithm>
#include <utility>

namespace Vel::Utils {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

ClockSchedule::ClockSchedule(std::uint32_t tsiidx, bool isFeed, std::function<nanoseconds()> now)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_TSIIDX(tsiidx),
      m_IsFeed(isFeed),
      m_Now(std::move(now)) {}

void ClockSchedule::add(Ts::LowlevInTSPacket packet) {
    if (m_IsFeed && m_Held.empty()) {
        m_HeldSince = m_Now();
    }
    m_Held.push_back(std::move(packet));
    take(m_Clock.read(m_Held.back()), m_Held.size());
    if (m_Held.size() == MAX_HELD_PACKETS) {
        chooseAgain();
    }
}

void ClockSchedule::timeHeld() {
    if (!m_Held.empty()) {
        scheduleWithoutPcr(m_Held.size());
    }
}

std::vector<ClockSchedule::TimedPacket> ClockSchedule::takeTimed() {
    return std::exchange(m_Timed, {});
}

/// The PIDs that were not chosen may have PCRs in the packets that are held.
void ClockSchedule::chooseAgain() {
    m_Clock.restart();
    for (std::size_t unread = m_Held.size(); unread > 0; --unread) {
        const std::size_t count = m_Held.size() - unread + 1;
        take(m_Clock.read(m_Held[count - 1]), count);
    }
    if (m_Held.size() == MAX_HELD_PACKETS) {
        scheduleWithoutPcr(MAX_HELD_PACKETS);
    }
}

/// @param reading of the held packet number `count`
void ClockSchedule::take(const Ts::PcrClock::Reading& reading, std::size_t count) {
    using Kind = Ts::PcrClock::Reading::Kind;
    if (reading.kind == Kind::Nothing) {
        return;
    }
    // Before the choice, a PCR that does not continue the clock of its PID is not a reason to wait longer.
    const bool isJump = reading.kind == Kind::Candidate && reading.packets > 0;
    if (m_IsFeed && !isJump) {
        m_HeldSince = m_Now();
    }
    const bool isGap = reading.time > Ts::PcrClock::MAX_STEP && reading.time < Ts::PCR_WRAP / 2;
    if (isGap && !std::exchange(m_IsGapReported, true)) {
        Log::warning(*m_Logger, "TSIIDX {}: PCRs are {} ms apart; PCRs more than {} ms apart cannot be paced",
                     m_TSIIDX, std::chrono::ceil<milliseconds>(reading.time).count(),
                     milliseconds(Ts::PcrClock::MAX_STEP).count());
    }
    if (reading.kind == Kind::Step) {
        scheduleStep(reading, count);
    } else if (reading.kind == Kind::NewTimeBase) {
        scheduleWithoutPcr(count);
    }
}

/// The step covers all held packets, except where the choice of the PID has just been made, or where packets
/// of the interval were given due times before its PCR arrived.
void ClockSchedule::scheduleStep(const Ts::PcrClock::Reading& step, std::size_t count) {
    const auto packets = static_cast<std::size_t>(step.packets);
    const Ts::PcrPace pace{step.time, static_cast<std::int64_t>(packets)};
    if (m_Intervals.isEmpty()) {
        m_End = startTime() + pace.of(count - 1) - pace.of(count);
    } else if (count > packets) {
        scheduleWithoutPcr(count - packets);
        count = packets;
    }
    schedule(count, pace);
    m_Intervals.add(pace);
}

void ClockSchedule::scheduleWithoutPcr(std::size_t count) {
    if (m_Intervals.isEmpty()) {
        if (!std::exchange(m_IsUnpaced, true)) {
            Log::warning(*m_Logger,
                         "TSIIDX {}: no two PCRs in the first {} packets give a rate; sending them unpaced",
                         m_TSIIDX, count);
        }
        m_End = startTime();
        schedule(count, {});
        return;
    }
    schedule(count, m_Intervals.paceOf(count));
}

/// Gives the oldest `count` held packets due times after m_End. They are counted back from the last one,
/// whose time is a whole number where it has a PCR, so no rounding errors add up.
void ClockSchedule::schedule(std::size_t count, Ts::PcrPace pace) {
    m_End += pace.of(count);
    if (m_IsFeed) {
        const auto first = std::chrono::floor<nanoseconds>(m_End - pace.of(count - 1));
        if (const nanoseconds now = m_Now(); first < now) {
            reportLate(now, now - first);
            m_End += now - first + FEED_RESERVE;
        }
    }
    if (m_Timed.empty()) {
        m_Timed.reserve(count);
    }
    for (std::size_t later = count; later > 0; --later) {
        const auto due = std::chrono::floor<nanoseconds>(m_End - pace.of(later - 1));
        const std::uint32_t pid = m_Held.front().getPid();
        m_Timed.push_back(TimedPacket{std::move(m_Held.front()), due, pid});
        m_Held.pop_front();
    }
}

/// When the first packet is due.
ClockSchedule::FineTime ClockSchedule::startTime() const {
    return m_Now() + (m_IsFeed ? FEED_RESERVE : milliseconds(0));
}

void ClockSchedule::reportLate(nanoseconds now, nanoseconds delay) {
    ++m_LateCount;
    if (m_LateReported && now - *m_LateReported < REPORT_INTERVAL) {
        return;
    }
    Log::info(*m_Logger, "TSIIDX {}: the feed is {} ms late; its packets are now sent {} ms later{}",
              m_TSIIDX, std::chrono::ceil<milliseconds>(delay).count(),
              std::chrono::ceil<milliseconds>(delay + FEED_RESERVE).count(),
              m_LateReported ? fmt::format(" ({} times since the last report)", m_LateCount) : "");
    m_LateReported = now;
    m_LateCount = 0;
}

}  // namespace Vel::Utils
