#include "tspacket_streaming/monotonic_clock.h"

#include <time.h>

#include <algorithm>

namespace Vel::Utils {

namespace {

using std::chrono::nanoseconds;

timespec toTimespec(nanoseconds time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

/// The steady clock of the library is CLOCK_MONOTONIC.
std::uint64_t MonotonicClock::getMonotonicNs() const {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

void MonotonicClock::sleepFor(nanoseconds time, const std::stop_token& stop) const {
    // The longest sleep between two checks of the stop request. Each slice is part of what is left, so their
    // overshoots do not add up. One that a signal cuts short is followed by another.
    constexpr nanoseconds SLICE = std::chrono::milliseconds(100);
    const nanoseconds end = now() + time;
    for (nanoseconds left = time; left > nanoseconds::zero() && !stop.stop_requested(); left = end - now()) {
        const timespec slice = toTimespec(std::min(left, SLICE));
        ::clock_nanosleep(CLOCK_MONOTONIC, 0, &slice, nullptr);
    }
}

void MonotonicClock::sleepUntil(nanoseconds deadline) const {
    const timespec end = toTimespec(deadline);
    ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
}

}  // namespace Vel::Utils
