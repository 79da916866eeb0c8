#include "tspacket_streaming/monotonic_clock.h"

#include <time.h>

#include <algorithm>
#include <chrono>

namespace Vel::Utils {

namespace {

constexpr std::uint64_t NS_PER_SECOND = 1'000'000'000;
/// The longest sleep between two checks of the stop request.
constexpr std::uint64_t SLICE_NS = 100'000'000;
/// A sleep that needs no end by a stop request. It takes less of the processor than one that has it.
constexpr std::uint64_t SHORT_SLEEP_NS = 1'000'000;

timespec toTimespec(std::uint64_t ns) {
    return {static_cast<time_t>(ns / NS_PER_SECOND), static_cast<long>(ns % NS_PER_SECOND)};
}

}  // namespace

std::uint64_t MonotonicClock::getMonotonicNs() const {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * NS_PER_SECOND + static_cast<std::uint64_t>(now.tv_nsec);
}

void MonotonicClock::sleepNs(std::uint64_t ns, const std::stop_token& stop) const {
    // Each slice is part of what is left until the end, so the overshoots of the slices do not add up. A
    // slice that a signal cuts short is followed by another.
    const std::uint64_t end = getMonotonicNs() + ns;
    for (std::uint64_t now = end - ns; now < end && !stop.stop_requested(); now = getMonotonicNs()) {
        const std::uint64_t slice = std::min(end - now, SLICE_NS);
        const timespec duration = toTimespec(slice);
        ::clock_nanosleep(CLOCK_MONOTONIC, 0, &duration, nullptr);
    }
}

void MonotonicClock::sleepUntilNs(std::uint64_t deadlineNs, const std::stop_token& stop) const {
    if (deadlineNs < getMonotonicNs() + SHORT_SLEEP_NS) {
        const timespec deadline = toTimespec(deadlineNs);
        ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        return;
    }
    // The steady clock of the library is CLOCK_MONOTONIC.
    const std::chrono::steady_clock::time_point deadline{std::chrono::nanoseconds(deadlineNs)};
    std::unique_lock lock(m_SleepLock);
    m_Stopped.wait_until(lock, stop, deadline, [] { return false; });
}

}  // namespace Vel::Utils
