#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stop_token>

namespace Vel::Utils {

/// CLOCK_MONOTONIC, as a class so that a test need not wait. One thread uses an object.
class MonotonicClock {
public:
    virtual ~MonotonicClock() = default;
    /// Nanoseconds since an arbitrary start.
    virtual std::uint64_t getMonotonicNs() const;
    /// Sleeps the whole of `ns` nanoseconds, or until shortly after a stop request.
    virtual void sleepNs(std::uint64_t ns, const std::stop_token& stop) const;
    /// Sleeps until that time, or until a millisecond after a stop request at most.
    virtual void sleepUntilNs(std::uint64_t deadlineNs, const std::stop_token& stop) const;

private:
    mutable std::mutex m_SleepLock;
    mutable std::condition_variable_any m_Stopped;
};

}  // namespace Vel::Utils
