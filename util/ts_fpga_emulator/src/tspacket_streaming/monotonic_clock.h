#pragma once

#include <chrono>
#include <cstdint>
#include <stop_token>

namespace Vel::Utils {

/// CLOCK_MONOTONIC, as a class so that a test need not wait. Thread-safe.
class MonotonicClock {
public:
    virtual ~MonotonicClock() = default;
    /// Nanoseconds since an arbitrary start.
    virtual std::uint64_t getMonotonicNs() const;
    /// The same as a duration.
    std::chrono::nanoseconds now() const { return std::chrono::nanoseconds(getMonotonicNs()); }
    /// Sleeps for the whole time, or until 100 ms after a stop request at most.
    virtual void sleepFor(std::chrono::nanoseconds time, const std::stop_token& stop) const;
    /// Sleeps until now() is `deadline`, which is not far: nothing but a signal interrupts it.
    void sleepUntil(std::chrono::nanoseconds deadline) const;
};

}  // namespace Vel::Utils
