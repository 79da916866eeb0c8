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

void Pacer::schedule(Input& input, nanoseconds due) {
    const std::lock_guard lock(m_Lock);
    push({std::max(due, now()), &input});
    if (m_Turns.front().input == &input) {
        m_Earlier.notify_one();
    }
}

void Pacer::push(Turn turn) {
    m_Turns.push_back(turn);
    std::ranges::push_heap(m_Turns, std::greater(), &Turn::due);
}

Pacer::Rest Pacer::releaseDue() {
    shiftIfBehind();
    const nanoseconds time = now();
    std::unique_lock lock(m_Lock);
    while (!m_Turns.empty() && m_Turns.front().due <= time + GROUP_TIME) {
        std::ranges::pop_heap(m_Turns, std::greater(), &Turn::due);
        m_Releasing = m_Turns.back().input;
        m_Turns.pop_back();
        lock.unlock();
        const Rest rest = m_Releasing->releaseDue(time + GROUP_TIME);
        lock.lock();
        Input* const input = std::exchange(m_Releasing, nullptr);
        if (std::exchange(m_IsLast, false)) {
            m_LetGo.notify_all();
        } else if (rest.nextDue) {
            push({std::max(*rest.nextDue, time), input});
        }
        if (rest.isDeviceFull) {
            return rest;
        }
    }
    return {m_Turns.empty() ? std::nullopt : std::optional(m_Turns.front().due), false};
}

void Pacer::shiftIfBehind() {
    nanoseconds lateness{0};
    {
        const std::lock_guard lock(m_Lock);
        lateness = m_Turns.empty() ? lateness : now() - m_Turns.front().due;
    }
    if (lateness > MAX_LATENESS) {
        m_Shift = m_Shift.load() + lateness;
        Log::warning(*m_Logger, "Packets are {} ms late; shifting the schedule of all inputs by that amount",
                     std::chrono::floor<std::chrono::milliseconds>(lateness).count());
    }
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
    std::unique_lock lock(m_Lock);
    if (m_Turns.empty()) {
        m_Earlier.wait(lock, stop, [this] { return !m_Turns.empty(); });
        return;
    }
    const nanoseconds due = m_Turns.front().due;
    m_Earlier.wait_until(lock, stop, toSteady(due),
                         [&] { return !m_Turns.empty() && m_Turns.front().due < due; });
}

}  // namespace Vel::Utils
