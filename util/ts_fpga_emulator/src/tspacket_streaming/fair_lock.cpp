#include "tspacket_streaming/fair_lock.h"

#include <utility>

namespace Vel::Utils {

bool FairLock::lock(const std::stop_token& stop) {
    std::unique_lock lock(m_Mutex);
    if (!std::exchange(m_IsHeld, true)) {
        return true;
    }
    Waiter self;
    m_Waiters.push_back(&self);
    m_WaiterCount = m_Waiters.size();
    const auto canGoOn = [&] {
        self.isWokenUp = false;
        return self.hasLock || !m_IsHeld;
    };
    const bool isLocked = self.change.wait(lock, stop, canGoOn);
    m_IsHeld |= isLocked;
    std::erase(m_Waiters, &self);
    m_WaiterCount = m_Waiters.size();
    return isLocked;
}

void FairLock::unlock() {
    const std::lock_guard lock(m_Mutex);
    release(false);
}

void FairLock::handOver() {
    const std::lock_guard lock(m_Mutex);
    release(true);
}

/// Notifies under m_Mutex, without which the waiter cannot go away.
void FairLock::release(bool toFirst) {
    if (m_Waiters.empty()) {
        m_IsHeld = false;
        return;
    }
    Waiter& first = *m_Waiters.front();
    m_IsHeld = first.hasLock = toFirst;
    if (!std::exchange(first.isWokenUp, true)) {
        first.change.notify_one();
    }
}

bool FairTurn::begin(const std::stop_token& stop) {
    m_IsTaken = m_Lock.lock(stop);
    m_Begin = m_LastLook = std::chrono::steady_clock::now();
    return m_IsTaken;
}

/// Looking at the clock can take as long as a fast piece, so this does so only now and then.
void FairTurn::endIfOver() {
    constexpr std::uint32_t PIECES = 8;
    if (m_Lock.getWaiterCount() == 0 || (m_PiecesToLook > 0 && --m_PiecesToLook > 0)) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    m_PiecesToLook = std::exchange(m_LastLook, now) > now - MAX_TIME / PIECES ? PIECES : 1;
    if (now - m_Begin >= MAX_TIME) {
        end();
    }
}

void FairTurn::end() {
    if (std::exchange(m_IsTaken, false)) {
        m_Lock.handOver();
    }
}

}  // namespace Vel::Utils
