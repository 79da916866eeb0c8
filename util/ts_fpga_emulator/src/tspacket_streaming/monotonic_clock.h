#pragma once

#include <cstdint>
#include <stop_token>

namespace Vel::Utils {

/// CLOCK_MONOTONIC, as a class so that a test need not wait. Reentrant.
class MonotonicClock {
public:
    virtual ~MonotonicClock() = default;
    /// Nanoseconds since an arbitrary start.
    virtual std::uint64_t getMonotonicNs() const;
    /// Sleeps the whole of `ns` nanoseconds, or until shortly after a stop request.
    virtual void sleepNs(std::uint64_t ns, const std::stop_token& stop) const;
};

}  // namespace Vel::Utils
