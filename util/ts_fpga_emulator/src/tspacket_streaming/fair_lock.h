#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <stop_token>

namespace Vel::Utils {

/// A lock whose owner decides whether the thread that has waited longest gets it next. Thread-safe.
class FairLock {
public:
    /// Waits for the lock. A waiting thread leaves the queue at once on a stop request; then the lock is not
    /// taken, and the result is false. A lock that is free is always taken.
    [[nodiscard]] bool lock(const std::stop_token& stop);
    /// The next thread that asks gets the lock: no thread has to be woken up for each short use of it.
    void unlock();
    /// The thread that has waited longest gets the lock, so that none starves.
    void handOver();
    /// Number of threads that wait.
    std::size_t getWaiterCount() const { return m_WaiterCount.load(std::memory_order_relaxed); }

private:
    struct Waiter {
        std::condition_variable_any change;
        bool hasLock = false;
        bool isWokenUp = false;
    };

    void release(bool toFirst);

    std::mutex m_Mutex;  // guards the rest
    bool m_IsHeld = false;
    std::deque<Waiter*> m_Waiters;  // on the stacks of the waiting threads
    std::atomic<std::size_t> m_WaiterCount = 0;
};

/// A stretch of work under a FairLock: the owner keeps the lock for as long as nobody else wants it, and
/// otherwise for MAX_TIME. Then the lock is handed over. Thread-bound.
class FairTurn {
public:
    static constexpr std::chrono::microseconds MAX_TIME{500};

    explicit FairTurn(FairLock& lock) : m_Lock(lock) {}
    ~FairTurn() { end(); }
    FairTurn(const FairTurn&) = delete;
    FairTurn& operator=(const FairTurn&) = delete;

    /// As FairLock::lock().
    [[nodiscard]] bool begin(const std::stop_token& stop);
    bool isTaken() const { return m_IsTaken; }
    /// To be called after each piece of work.
    void endIfOver();
    void end();

private:
    FairLock& m_Lock;
    bool m_IsTaken = false;
    std::uint32_t m_PiecesToLook = 0;
    std::chrono::steady_clock::time_point m_Begin;
    std::chrono::steady_clock::time_point m_LastLook;
};

}  // namespace Vel::Utils
