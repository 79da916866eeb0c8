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
    if (!self.granted.wait(lock, stop, [&] { return self.hasLock; })) {
        std::erase(m_Waiters, &self);
        m_WaiterCount = m_Waiters.size();
    }
    return self.hasLock;
}

/// Hands the lock to the next waiter, so that no other thread can take it first.
void FairLock::unlock() {
    const std::lock_guard lock(m_Mutex);
    if (m_Waiters.empty()) {
        m_IsHeld = false;
        return;
    }
    Waiter& next = *m_Waiters.front();
    m_Waiters.pop_front();
    m_WaiterCount = m_Waiters.size();
    next.hasLock = true;
    next.granted.notify_one();  // under m_Mutex, without which the waiter cannot go away
}

bool FairTurn::begin(const std::stop_token& stop) {
    m_IsTaken = m_Lock.lock(stop);
    m_Begin = std::chrono::steady_clock::now();
    return m_IsTaken;
}

void FairTurn::endIfOver() {
    constexpr std::uint32_t PIECES_PER_LOOK = 8;  // looking at the clock can take as long as a fast piece
    if (m_Lock.getWaiterCount() > 0 && ++m_Pieces % PIECES_PER_LOOK == 0 &&
        std::chrono::steady_clock::now() - m_Begin >= MAX_TIME) {
        end();
    }
}

void FairTurn::end() {
    if (std::exchange(m_IsTaken, false)) {
        m_Lock.unlock();
    }
}

}  // namespace Vel::Utils
