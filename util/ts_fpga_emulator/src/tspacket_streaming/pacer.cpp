#include "tspacket_streaming/pacer.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace Vel::Utils {

using std::chrono::nanoseconds;

Pacer::Pacer(PacketDispatcher& dispatcher, std::unique_ptr<const MonotonicClock> clock)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_Dispatcher(dispatcher),
      m_Clock(std::move(clock)) {}

void Pacer::start() {
    m_Thread = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void Pacer::add() {
    const std::lock_guard lock(m_Lock);
    m_Turns.reserve(m_InputCount + 1);
    ++m_InputCount;
}

/// An input in use is not given another turn, so this waits for one release at most.
void Pacer::remove(Input& input) {
    std::unique_lock lock(m_Lock);
    std::erase_if(m_Turns, [&](const Turn& turn) { return turn.input == &input; });
    std::ranges::make_heap(m_Turns, std::greater(), &Turn::due);
    m_IsLast = m_Releasing == &input;
    m_LetGo.wait(lock, [&] { return m_Releasing != &input; });
    --m_InputCount;
}

nanoseconds Pacer::now() {
    const std::lock_guard lock(m_Lock);
    return takeTime();
}

nanoseconds Pacer::progress() {
    const std::lock_guard lock(m_Lock);
    const nanoseconds time = takeTime();
    return m_Turns.empty() ? time : std::min(time, m_Turns.front().since);
}

/// With m_Lock.
nanoseconds Pacer::takeTime() {
    const nanoseconds time = m_Clock->now() - m_Shift.load();
    const nanoseconds lateness = m_Turns.empty() ? nanoseconds(0) : time - m_Turns.front().since;
    if (lateness <= MAX_LATENESS) {
        return time;
    }
    m_Shift = m_Shift.load() + lateness;
    m_Unreported += lateness;
    for (Turn& turn : m_Turns) {
        turn.due = turn.since;  // was put behind others by a time that is now in the future
    }
    std::ranges::make_heap(m_Turns, std::greater(), &Turn::due);
    return time - lateness;
}

void Pacer::schedule(Input& input, nanoseconds due) {
    const std::lock_guard lock(m_Lock);
    due = std::max(due, takeTime());  // a late file or feed does not make the pacer late
    push({due, due, &input});
    if (m_Turns.front().input == &input) {
        m_Earlier.notify_one();
    }
}

void Pacer::push(Turn turn) {
    m_Turns.push_back(turn);
    std::ranges::push_heap(m_Turns, std::greater(), &Turn::due);
}

/// An input that has more to send than one release takes has its next turn after all others that are due.
Pacer::Rest Pacer::releaseDue() {
    std::unique_lock lock(m_Lock);
    const nanoseconds time = takeTime();
    nanoseconds limit = time + GROUP_TIME;
    if (!m_Turns.empty() && m_Turns.front().since <= time) {
        limit = std::max(limit, m_Turns.front().due);  // of an input that others have just gone before
    }
    const nanoseconds shift = std::exchange(m_Unreported, nanoseconds(0));
    if (shift > nanoseconds(0)) {
        lock.unlock();
        Log::warning(*m_Logger, "Packets are {} ms late; shifting the schedule of all inputs by that amount",
                     std::chrono::floor<std::chrono::milliseconds>(shift).count());
        lock.lock();
    }
    bool isDeviceFull = false;
    while (!isDeviceFull && !m_Turns.empty() && m_Turns.front().due <= limit) {
        std::ranges::pop_heap(m_Turns, std::greater(), &Turn::due);
        const Turn turn = m_Turns.back();
        m_Turns.pop_back();
        m_Releasing = turn.input;
        lock.unlock();
        const Rest rest = turn.input->releaseDue(limit);
        lock.lock();
        m_Releasing = nullptr;
        isDeviceFull = rest.isDeviceFull;
        if (std::exchange(m_IsLast, false)) {
            m_LetGo.notify_all();
        } else if (rest.nextDue) {
            const nanoseconds since = std::max(*rest.nextDue, turn.since);
            push({isDeviceFull ? since : std::max(since, limit + nanoseconds(1)), since, turn.input});
        }
    }
    return {m_Turns.empty() ? std::nullopt : std::optional(m_Turns.front().since), isDeviceFull};
}

void Pacer::run(const std::stop_token& stop) noexcept {
    ::pthread_setname_np(::pthread_self(), "pacer");
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);  // a sleep overshoots by it: 50 us by default
    while (!stop.stop_requested()) {
        if (releaseDue().isDeviceFull) {
            FairTurn turn(m_Dispatcher.getWriteLock());
            static_cast<void>(turn.begin(stop) && m_Dispatcher.waitForDevice(stop));
        } else {
            sleep(stop);
        }
    }
}

/// Until the first turn, or until another one comes before it.
void Pacer::sleep(const std::stop_token& stop) {
    constexpr std::chrono::microseconds SHORT_SLEEP(500);
    std::unique_lock lock(m_Lock);
    if (m_Turns.empty()) {
        m_Earlier.wait(lock, stop, [this] { return !m_Turns.empty(); });
        return;
    }
    const Turn first = m_Turns.front();
    const auto end = toSteady(first.since);
    // Interrupting a short sleep is not worth the cost of being able to.
    if (end.time_since_epoch() - m_Clock->now() < SHORT_SLEEP) {
        lock.unlock();
        m_Clock->sleepUntil(end.time_since_epoch());
        return;
    }
    m_Earlier.wait_until(lock, stop, end,
                         [&] { return !m_Turns.empty() && m_Turns.front().due < first.due; });
}

}  // namespace Vel::Utils
