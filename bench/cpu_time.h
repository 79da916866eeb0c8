#pragma once

#include <time.h>

namespace Vel::Bench {

/// Time of a clock in seconds: processor time of one thread (CLOCK_THREAD_CPUTIME_ID) or the process
/// (CLOCK_PROCESS_CPUTIME_ID), which other programs do not affect, or CLOCK_MONOTONIC.
inline double secondsOf(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace Vel::Bench
