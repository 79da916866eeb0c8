#pragma once

#include <time.h>

namespace Vel::Bench {

/// Processor time in seconds, of one thread (CLOCK_THREAD_CPUTIME_ID) or the process
/// (CLOCK_PROCESS_CPUTIME_ID). Other programs on the machine do not change it.
inline double cpuSeconds(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace Vel::Bench
